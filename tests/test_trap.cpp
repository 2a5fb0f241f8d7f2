// Trap files: the example handler's crashes read back by zeptrap; the layout and the sections'
// edge cases written in this process; the XML prolog; the reader on damaged files.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using zeptest::slurp;

void spit(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

// The line of the example handler's source that holds `text`.
int sourceLine(const std::string& text) {
    std::ifstream in(std::string(ZEP_TEST_DATA_DIR) + "/../../tools/zepcrash.cpp");
    std::string line;
    for (int n = 1; std::getline(in, line); n++)
        if (line.find(text) != std::string::npos) return n;
    return -1;
}

struct Outcome {
    int status;
    std::string out;
};

Outcome run(const std::string& command) {
    Outcome r{-1, ""};
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return r;
}

const std::string kReader = std::string(ZEP_TOOL_BIN_DIR) + "/zeptrap";
const std::string kCrash = std::string(ZEP_TOOL_BIN_DIR) + "/zepcrash";
const std::string kHelper = std::string(ZEP_TEST_BIN_DIR) + "/helper_crash";

Outcome crash(const std::string& program, const std::string& args) {
    return run("ulimit -c 0; exec " + program + " " + args);
}

// Looked for in the environment and memory sections of this process and of its children.
const int kProbeSet = setenv("ZEP_TRAP_MEMORY_PROBE", "0123456789", 1);

struct Section {
    Uint32 bit;
    size_t offset, length;  // of the contents, after the mark
};

ZEPTrapHeader headerOf(const std::string& f) {
    ZEPTrapHeader h;
    memset(&h, 0, sizeof h);
    memcpy(&h, f.data(), std::min(f.size(), sizeof h));
    return h;
}

// The sections after the header in file order, walked with this build's sizes; `error` says
// where the layout isn't as it should be.
std::vector<Section> walkSections(const std::string& f, std::string* error) {
    std::vector<Section> out;
    const ZEPTrapHeader h = headerOf(f);
    if (f.size() < sizeof h) return *error = "short header", out;
    auto u32 = [&](size_t at) {
        Uint32 v = 0;
        if (at + 4 <= f.size()) memcpy(&v, f.data() + at, 4);
        return v;
    };
    for (size_t p = sizeof h; p < f.size();) {
        if (u32(p) != ZEP_TRAP_SECTION_MARK) return *error = "no mark at " + std::to_string(p), out;
        const Uint32 bit = u32(p + 4);
        const size_t start = p += 8;
        if (bit == ZEP_TRAP_SYSTEM) {
            p += sizeof(ZEPTrapSystemInfo) + 390;
            if (u32(p) == sizeof(ZEPTrapMemoryStatus)) p += sizeof(ZEPTrapMemoryStatus);
        } else if (bit == ZEP_TRAP_ENVIRONMENT) {
            for (std::string s; s != ZEP_TRAP_ENVIRONMENT_END && p < f.size(); p += 4 + u32(p))
                s = f.substr(p + 4, u32(p));
        } else if (bit == ZEP_TRAP_EXCEPTION) {
            p += sizeof(siginfo_t);
        } else if (bit == ZEP_TRAP_CONTEXT) {
            p += sizeof(ZEPTrapContext);
        } else if (bit == ZEP_TRAP_MODULES) {
            p += h.moduleCount * sizeof(ZEPTrapModuleRecord);
        } else if (bit == ZEP_TRAP_VERSION) {
            p += sizeof(ZEPApiVersion);
        } else if (bit == ZEP_TRAP_STACK) {
            p += h.codeBytes;
            ZEPStackFrame64 fr;
            do {
                if (p + sizeof fr > f.size()) return *error = "frames cut", out;
                memcpy(&fr, f.data() + p, sizeof fr);
                p += sizeof fr;
            } while (fr.AddrReturn != 0 && fr.AddrReturn != ZEP_STACKWALK_BROKEN);
            p += 4 + u32(p) * 8ull;
        } else if (bit == ZEP_TRAP_MEMORY) {
            for (Uint64 size; u32(p) != ZEP_TRAP_MEMORY_END && p < f.size(); p += 16 + size)
                memcpy(&size, f.data() + p + 8, 8);
            p += 4;
        } else {
            return *error = "unknown section " + std::to_string(bit), out;
        }
        if (p > f.size()) return *error = "section past the end", out;
        out.push_back({bit, start, p - start});
    }
    return out;
}

std::vector<Uint32> sectionOrder(const std::string& f) {
    std::string error;
    std::vector<Uint32> order;
    for (const Section& s : walkSections(f, &error)) order.push_back(s.bit);
    EXPECT_EQ(error, "");
    return order;
}

class Trap : public ::testing::Test {
protected:
    std::string at(const std::string& name) { return temp_ / name; }
    zeptest::TempDir temp_{"zeptrap"};
};

}  // namespace

TEST_F(Trap, CrashingProcessesLeaveReadableTrapFiles) {
    const std::vector<Uint32> all = {ZEP_TRAP_SYSTEM,  ZEP_TRAP_ENVIRONMENT, ZEP_TRAP_EXCEPTION,
                                     ZEP_TRAP_CONTEXT, ZEP_TRAP_MODULES,     ZEP_TRAP_VERSION,
                                     ZEP_TRAP_STACK};
    struct {
        const std::string& program;
        const char* args;
        int signal;
        const char* faulting;  // the function at the fault, then the line's text
        const char* site;
        std::vector<const char*> callers;
    } cases[] = {
        {kCrash,
         "null",
         SIGSEGV,
         "crashHere",
         "*g_null = 1;",
         {"validateRecord", "processRequest", "main"}},
        {kCrash,
         "abort",
         SIGABRT,
         "crashHere",
         "abort();",
         {"validateRecord", "processRequest", "main"}},
        {kCrash,
         "malloc",
         SIGSEGV,
         "crashingWrite",
         "*g_null = 2;",
         {"malloc_stats", "crashHere", "validateRecord"}},
        // A stack overflow faults where the frame is first touched: with the address
        // sanitizer's frames that is the function's first line, so the line isn't checked.
        {kCrash, "overflow", SIGSEGV, "recurse", nullptr, {"recurse", "recurse", "recurse"}},
        {kHelper,
         "heldlock",
         SIGSEGV,
         "crashHere",
         "*g_null = 1;",
         {"validateRecord", "processRequest", "zepcrashMain", "main"}},
        {kCrash, "--memory null", SIGSEGV, "crashHere", "*g_null = 1;", {"validateRecord"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const bool memory = c.args[0] == '-';
#if defined(__SANITIZE_ADDRESS__)
        // The sanitizer's allocator stands in for malloc: there is no arena lock to crash in.
        if (std::string(c.args) == "malloc") continue;
#endif
        const std::string trap = at("crash.trap");
        const Outcome crashed = crash(c.program, std::string(c.args) + " " + trap);
        EXPECT_EQ(crashed.status, 128 + c.signal) << crashed.out;

        const Outcome r = run(kReader + " " + trap);
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_NE(r.out.find(std::string("Signal: SIG") + sigabbrev_np(c.signal) + " "),
                  std::string::npos)
            << r.out;
        // The faulting function with its source line, then the callers in order.
        size_t at = r.out.find(c.faulting, r.out.find("Stack, innermost first:"));
        ASSERT_NE(at, std::string::npos) << r.out;
        const std::string site =
            "zepcrash.cpp:" + (c.site ? std::to_string(sourceLine(c.site)) : "");
        EXPECT_NE(r.out.substr(at, r.out.find('\n', at) - at).find(site), std::string::npos)
            << site << " in\n"
            << r.out;
        for (const char* caller : c.callers) {
            at = r.out.find(std::string(" ") + caller, at + 1);
            ASSERT_NE(at, std::string::npos) << caller << "\n" << r.out;
        }
        EXPECT_TRUE(!c.site || r.out.find("(end of the stack)") != std::string::npos) << r.out;

        const std::string file = slurp(trap);
        const ZEPTrapHeader h = headerOf(file);
        std::vector<Uint32> want = all;
        if (memory) want.push_back(ZEP_TRAP_MEMORY);
        EXPECT_EQ(sectionOrder(file), want);
        EXPECT_EQ(h.contents & 0x047Fu, memory ? 0x047Fu : 0x043Fu);
        if (memory) {
            // The parent's environment string is in the child's memory too; the reader sums it.
            EXPECT_NE(file.find("ZEP_TRAP_MEMORY_PROBE=0123456789"), std::string::npos);
            EXPECT_NE(r.out.find("Memory: "), std::string::npos) << r.out;
        }
        EXPECT_TRUE(c.site || h.threadID != h.processID);  // the overflow is a thread's
    }
}

// A binary rebuilt since the crash no longer describes its addresses: the reader says so instead
// of naming wrong functions.
TEST_F(Trap, ReaderRefusesABinaryThatIsNotTheOneThatCrashed) {
    const std::string copy = at("crasher"), trap = at("copy.trap");
    ASSERT_EQ(run("cp " + kCrash + " " + copy).status, 0);
    crash(copy, "null " + trap);
    Outcome r = run(kReader + " " + trap);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("crashHere"), std::string::npos) << r.out;
    ASSERT_EQ(run("cp " + kReader + " " + copy).status, 0);
    r = run(kReader + " " + trap);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out.find("crashHere"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("not the one that crashed"), std::string::npos) << r.out;
}

TEST_F(Trap, ReaderOnBadInput) {
    const std::string good = at("good.trap"), bad = at("bad.trap");
    crash(kCrash, "null " + good);
    const std::string f = slurp(good);
    ASSERT_GT(f.size(), 4000u);
    const size_t head = sizeof(ZEPTrapHeader);
    struct {
        std::string data;
        int status;
        const char* message;
    } cases[] = {
        {"", 2, "not a trap file"},
        {"*TPHDR65" + f.substr(8), 2, "not a trap file"},
        {"*TPHDR32" + f.substr(8), 2, "32-bit layout"},
        {f.substr(0, 300), 3, "truncated in the header"},
        {f.substr(0, head), 0, ""},
        {f.substr(0, head + 50), 3, "truncated in the system section"},
        {f.substr(0, f.size() - 100), 3, "in the stack section"},
        {f.substr(0, head) + "XXXXXXXXXXXXXXXX", 3, "no section mark"},
    };
    for (const auto& c : cases) {
        spit(bad, c.data);
        const Outcome r = run(kReader + " " + bad);
        EXPECT_EQ(r.status, c.status) << c.message << "\n" << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << r.out;
    }
    EXPECT_EQ(run(kReader + " " + at("missing.trap")).status, 1);
    EXPECT_EQ(run(kReader).status, 2);
    EXPECT_EQ(run(kReader + " --help").status, 0);

    // Cuts anywhere and damage anywhere: a report and a status, never a crash.
    std::mt19937 rng(17);
    for (int i = 0; i < 40; i++) {
        std::string d = f;
        if (i % 2 == 0)
            d.resize(head + rng() % (f.size() - head));
        else
            for (int k = 0; k < 8; k++) d[8 + rng() % (d.size() - 8)] = static_cast<char>(rng());
        spit(bad, d);
        const Outcome r = run(kReader + " --no-symbols " + bad);
        EXPECT_TRUE(r.status == 0 || r.status == 3) << i << ": " << r.status << "\n" << r.out;
    }
}

namespace {

class TrapWriter : public Trap {
protected:
    // A trap file of `mask`, from a context taken here (or none).
    std::string write(Uint32 mask, bool withContext = true) {
        const std::string path = at("t.trap");
        unlink(path.c_str());
        ucontext_t uc;
        getcontext(&uc);
        siginfo_t si;
        memset(&si, 0, sizeof si);
        si.si_signo = SIGSEGV;
        ZEPTrapFile t;
        EXPECT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_CREATE), 0u);
        t.initialize(0, &si, withContext ? &uc : nullptr, nullptr);
        t.dump(mask, 0, &si, withContext ? &uc : nullptr);
        t.close();
        return slurp(path);
    }
};

}  // namespace

TEST_F(TrapWriter, HeaderAndSectionsInTheirOrder) {
    const std::string f = write(ZEP_TRAP_ALL_BUT_MEMORY);
    const ZEPTrapHeader h = headerOf(f);
    EXPECT_EQ(std::string(h.eyeCatcher, 8), "*TPHDR64");
    EXPECT_EQ(h.processID, static_cast<Uint32>(getpid()));
    EXPECT_EQ(h.threadID, static_cast<Uint32>(gettid()));
    char exe[ZEP_MAX_PATH + 1];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    exe[n > 0 ? n : 0] = 0;
    EXPECT_STREQ(h.executable, exe);
    const time_t now = time(nullptr);
    struct tm lt;
    localtime_r(&now, &lt);
    EXPECT_EQ(h.localTime.wYear, lt.tm_year + 1900);
    EXPECT_EQ(h.localTime.wMonth, lt.tm_mon + 1);
    EXPECT_EQ(h.localTime.wDayOfWeek, lt.tm_wday);
    EXPECT_EQ(h.codeBytes, 64u);
    EXPECT_GT(h.moduleCount, 3u);
    std::string error;
    const auto sections = walkSections(f, &error);
    ASSERT_EQ(error, "");
    ASSERT_EQ(sections.size(), 7u);
    // The stack section: the code window, then the frames, the first one this test's.
    ASSERT_EQ(sections[6].bit, ZEP_TRAP_STACK);
    ZEPStackFrame64 first;
    memcpy(&first, f.data() + sections[6].offset + h.codeBytes, sizeof first);
    char name[256];
    zepSymbolNameForAddress(first.AddrPC, name, sizeof name, nullptr);
    EXPECT_NE(std::string(name).find("TrapWriter"), std::string::npos) << name;
    const std::string env = f.substr(sections[1].offset, sections[1].length);
    EXPECT_NE(env.find("ZEP_TRAP_MEMORY_PROBE=0123456789"), std::string::npos);
    EXPECT_EQ(env.substr(env.size() - 15), std::string("\x0b\0\0\0**L*E*R*M**", 15));

    // An empty environment holds the end mark alone.
    char** saved = environ;
    char* none[] = {nullptr};
    environ = none;
    const std::string e = write(ZEP_TRAP_HEADER | ZEP_TRAP_ENVIRONMENT);
    environ = saved;
    EXPECT_EQ(e.substr(sizeof h), std::string("SECT\x02\0\0\0\x0b\0\0\0**L*E*R*M**", 23));

    // Without a context: no context, no code and no stack, the exception all the same.
    const std::string w = write(ZEP_TRAP_HEADER | ZEP_TRAP_CONTEXT | ZEP_TRAP_STACK, false);
    EXPECT_EQ(headerOf(w).contents & (ZEP_TRAP_CONTENTS_CONTEXT | ZEP_TRAP_CONTENTS_CODE_LOOKED_AT |
                                      ZEP_TRAP_CONTENTS_EXCEPTION),
              ZEP_TRAP_CONTENTS_EXCEPTION);
    EXPECT_EQ(w.size(), sizeof h);
}

TEST_F(TrapWriter, NothingBeforeInitializeAndMemoryOncePerFile) {
    const std::string path = at("m.trap");
    {
        ZEPTrapFile t;
        ASSERT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_WRITE | ZEP_PRIMFILE_CREATE), 0u);
        t.dump(ZEP_TRAP_ALL_BUT_MEMORY | ZEP_TRAP_MEMORY, 0, nullptr, nullptr);
        t.close();
        EXPECT_EQ(slurp(path).size(), 0u);
        // With no file open, initialize and dump write nowhere and don't fail.
        ZEPTrapFile closed;
        closed.initialize(0, nullptr, nullptr, nullptr);
        closed.dump(ZEP_TRAP_ALL_BUT_MEMORY, 0, nullptr, nullptr);
    }
    std::vector<Uint8> probe(8192);
    for (size_t i = 0; i < probe.size(); i++) probe[i] = static_cast<Uint8>(i * 7 + 3);
    ZEPTrapFile t;
    ASSERT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_CREATE), 0u);
    t.initialize(0, nullptr, nullptr, nullptr);
    t.dump(ZEP_TRAP_HEADER | ZEP_TRAP_MEMORY, 0, nullptr, nullptr);
    const size_t once = slurp(path).size();
    t.dump(ZEP_TRAP_MEMORY, 0, nullptr, nullptr);
    t.close();
    const std::string f = slurp(path);
    EXPECT_EQ(f.size(), once);
    EXPECT_TRUE(headerOf(f).contents & ZEP_TRAP_CONTENTS_MEMORY);
    EXPECT_EQ(sectionOrder(f), std::vector<Uint32>{ZEP_TRAP_MEMORY});
    EXPECT_NE(f.find(std::string(reinterpret_cast<char*>(probe.data()), probe.size())),
              std::string::npos);
}

TEST_F(TrapWriter, CodeWindowAtTheEdgesOfReadableMemory) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer maps its own pages into the holes this test makes";
#endif
    const long page = sysconf(_SC_PAGESIZE);
    Uint8* m = static_cast<Uint8*>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(m, MAP_FAILED);
    munmap(m, page);  // [unmapped][readable][unmapped]
    munmap(m + 2 * page, page);
    Uint8* readable = m + page;
    ucontext_t uc;
    getcontext(&uc);
    struct {
        const Uint8* rip;
        Uint16 codeBytes;
        const Uint8* codeAddress;
    } cases[] = {
        {readable + page - 4, 36, readable + page - 36},  // the window ends with the page
        {m + 2 * page + 100, 0, nullptr},                 // unmapped: nothing, but looked at
        {readable + 8, 0, nullptr},  // the window's start unreadable: given up, not moved
        {readable + 200, 64, readable + 168},
    };
    for (const auto& c : cases) {
        ucontext_t at = uc;
        at.uc_mcontext.gregs[REG_RIP] = reinterpret_cast<greg_t>(c.rip);
        ZEPTrapFile t;
        t.initialize(0, nullptr, &at, nullptr);
        const ZEPTrapHeader& h = t.headerRecord();
        EXPECT_EQ(h.codeBytes, c.codeBytes) << c.rip - readable;
        EXPECT_EQ(
            h.contents & (ZEP_TRAP_CONTENTS_CODE_LOOKED_AT | ZEP_TRAP_CONTENTS_CODE_BYTES),
            ZEP_TRAP_CONTENTS_CODE_LOOKED_AT | (c.codeBytes ? ZEP_TRAP_CONTENTS_CODE_BYTES : 0));
        EXPECT_TRUE(!c.codeAddress || h.codeAddress == reinterpret_cast<uintptr_t>(c.codeAddress));
    }
    munmap(readable, page);
}

// A thread's short stack: the walk ends well within 1,024 words, so the raw stack holds up to
// 1,024 words from the stack pointer, as far as they can be read.
TEST_F(TrapWriter, RawStackAndFramesOfAThread) {
    std::string f;
    std::thread([&] { f = write(ZEP_TRAP_HEADER | ZEP_TRAP_STACK); }).join();
    std::string error;
    const auto sections = walkSections(f, &error);
    ASSERT_EQ(sections.size(), 1u) << error;
    size_t p = sections[0].offset + headerOf(f).codeBytes;
    ZEPStackFrame64 fr;
    Uint32 frames = 0, words = 0;
    do {
        memcpy(&fr, f.data() + p, sizeof fr);
        p += sizeof fr;
        EXPECT_EQ(fr.Level, frames++);
    } while (fr.AddrReturn != 0 && fr.AddrReturn != ZEP_STACKWALK_BROKEN);
    EXPECT_EQ(fr.AddrReturn, 0u);
    memcpy(&words, f.data() + p, 4);
    EXPECT_GT(frames, 2u);
    EXPECT_GT(words, 0u);
    EXPECT_LE(words, 1024u);
}

TEST_F(TrapWriter, XMLProlog) {
    Uint32 length = 0;
    const std::string prolog = zepTrapXMLProlog(&length);
    EXPECT_EQ(length, prolog.size());
    // The build's default host makes it 131 bytes.
    EXPECT_TRUE(prolog.find("//trapfiles.example.com/") == std::string::npos || length == 131u);
    EXPECT_EQ(prolog.substr(0, 74),
              "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<?xml-stylesheet href=\"http://");
    EXPECT_EQ(prolog.substr(prolog.size() - 36), "/vrntrapfile.xsl\" type=\"text/xsl\"?>\n");
    const std::string path = at("r.xml");
    struct {
        std::string before;
        Bool result;
        std::string after;  // with "<x/>" written where the prolog left the position
    } cases[] = {
        {"", 1, prolog + "<x/>"},
        {prolog + "<r><a/></r>", 0, prolog + "<r><a/><x/>"},  // before the closing tag
        {prolog + "<r><a/>", 0, prolog + "<r><a/><x/>"},
        {"<html>" + std::string(200, ' '), 0, "<x/>l>" + std::string(200, ' ')},
    };
    for (const auto& c : cases) {
        spit(path, c.before);
        ZEPTrapFile t;
        ASSERT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_CREATE), 0u);
        EXPECT_EQ(t.writeXMLProlog(), c.result) << c.before;
        t.write("<x/>", 4);
        t.close();
        EXPECT_EQ(slurp(path), c.after);
    }
}
