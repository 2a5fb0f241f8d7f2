// Trap files: real processes that crash and leave one, read back by zeptrap; the layout, the
// sections' order and their edge cases written in this process; the XML prolog; the reader on
// damaged files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void spit(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
}

// The line of the helper's source that carries "CRASH-SITE <what>".
int crashLine(const std::string& what) {
    std::ifstream in(std::string(ZEP_TEST_DATA_DIR) + "/../helper_crash.cpp");
    std::string line;
    for (int n = 1; std::getline(in, line); n++)
        if (line.find("CRASH-SITE " + what) != std::string::npos) return n;
    return -1;
}

struct Outcome {
    int status;
    std::string out;
};

Outcome run(const std::string& command) {
    Outcome r{-1, ""};
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return r;
}

const std::string kReader = std::string(ZEP_TOOL_BIN_DIR) + "/zeptrap";

// A string the tests look for in the environment and memory sections (of this process and of
// the helpers it starts).
const int kProbeSet = setenv("ZEP_TRAP_MEMORY_PROBE", "0123456789", 1);

class TrapDir : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zeptrapXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    std::string at(const char* name) { return dir_ + "/" + name; }
    std::string dir_;
};

// ---- the layout, walked section by section with the sizes of this build's form

struct Section {
    Uint32 bit;
    size_t offset;  // of the section's contents, after its mark
    size_t length;
};

// Returns the sections after the header in file order; an empty list and a message in `error`
// where the layout isn't as it should be.
std::vector<Section> walkSections(const std::string& f, std::string* error) {
    std::vector<Section> out;
    ZEPTrapHeader h;
    if (f.size() < sizeof h) return *error = "short header", out;
    memcpy(&h, f.data(), sizeof h);
    size_t p = sizeof h;
    auto u32 = [&](size_t at) {
        Uint32 v = 0;
        if (at + 4 <= f.size()) memcpy(&v, f.data() + at, 4);
        return v;
    };
    while (p < f.size()) {
        if (u32(p) != ZEP_TRAP_SECTION_MARK) return *error = "no mark at " + std::to_string(p), out;
        const Uint32 bit = u32(p + 4);
        p += 8;
        size_t start = p;
        switch (bit) {
            case ZEP_TRAP_SYSTEM:
                p += sizeof(ZEPTrapSystemInfo) + 390;
                if (u32(p) == sizeof(ZEPTrapMemoryStatus)) p += sizeof(ZEPTrapMemoryStatus);
                break;
            case ZEP_TRAP_ENVIRONMENT:
                for (;;) {
                    const Uint32 n = u32(p);
                    const std::string s = f.substr(p + 4, n);
                    p += 4 + n;
                    if (s == ZEP_TRAP_ENVIRONMENT_END || p >= f.size()) break;
                }
                break;
            case ZEP_TRAP_EXCEPTION:
                p += sizeof(siginfo_t);
                break;
            case ZEP_TRAP_CONTEXT:
                p += sizeof(ZEPTrapContext);
                break;
            case ZEP_TRAP_MODULES:
                p += h.moduleCount * sizeof(ZEPTrapModuleRecord);
                break;
            case ZEP_TRAP_VERSION:
                p += sizeof(ZEPApiVersion);
                break;
            case ZEP_TRAP_STACK: {
                p += h.codeBytes;
                ZEPStackFrame64 fr;
                do {
                    if (p + sizeof fr > f.size()) return *error = "frames cut", out;
                    memcpy(&fr, f.data() + p, sizeof fr);
                    p += sizeof fr;
                } while (fr.AddrReturn != 0 && fr.AddrReturn != ZEP_STACKWALK_BROKEN);
                p += 4 + u32(p) * 8ull;
                break;
            }
            case ZEP_TRAP_MEMORY:
                while (u32(p) != ZEP_TRAP_MEMORY_END && p < f.size()) {
                    Uint64 size;
                    memcpy(&size, f.data() + p + 8, 8);
                    p += 16 + size;
                }
                p += 4;
                break;
            default:
                return *error = "unknown section " + std::to_string(bit), out;
        }
        if (p > f.size()) return *error = "section past the end", out;
        out.push_back({bit, start, p - start});
    }
    return out;
}

ZEPTrapHeader headerOf(const std::string& f) {
    ZEPTrapHeader h;
    memset(&h, 0, sizeof h);
    memcpy(&h, f.data(), f.size() < sizeof h ? f.size() : sizeof h);
    return h;
}

}  // namespace

// ---- crashing processes

struct CrashCase {
    const char* mode;
    int signal;
    const char* faulting;  // the function at the fault, in this test's source
    const char* site;      // the CRASH-SITE mark of its line
    std::vector<const char*> callers;
};

TEST_F(TrapDir, CrashingProcessesLeaveReadableTrapFiles) {
    const std::vector<CrashCase> cases = {
        {"null", SIGSEGV, "crashLevel3", "null", {"crashLevel2", "crashLevel1", "main"}},
        {"abort", SIGABRT, "crashLevel3", "abort", {"crashLevel2", "crashLevel1", "main"}},
        {"malloc",
         SIGSEGV,
         "crashingWrite",
         "malloc",
         {"malloc_stats", "crashLevel3", "crashLevel2"}},
        {"overflow",
         SIGSEGV,
         "overflowRecurse",
         "overflow",
         {"overflowRecurse", "overflowRecurse", "overflowRecurse"}},
        {"heldlock", SIGSEGV, "crashLevel3", "null", {"crashLevel2", "crashLevel1", "main"}},
    };
    const std::string helper = std::string(ZEP_TEST_BIN_DIR) + "/helper_crash";
    for (const CrashCase& c : cases) {
        SCOPED_TRACE(c.mode);
        const std::string trap = at((std::string(c.mode) + ".trap").c_str());
        const Outcome crashed = run("ulimit -c 0; exec " + helper + " " + c.mode + " " + trap);
        if (crashed.status == 77) {
            // Under the address sanitizer its allocator stands in for malloc: there is no
            // arena lock to crash inside.
            printf("skipped: %s (the sanitizer owns malloc)\n", c.mode);
            continue;
        }
        EXPECT_EQ(crashed.status, 128 + c.signal) << crashed.out;

        const Outcome r = run(kReader + " " + trap);
        ASSERT_EQ(r.status, 0) << r.out;
        const std::string sig = std::string("Signal: SIG") + sigabbrev_np(c.signal) + " ";
        EXPECT_NE(r.out.find(sig), std::string::npos) << r.out;
        // The faulting function with its source line...
        const size_t stack = r.out.find("Stack, innermost first:");
        ASSERT_NE(stack, std::string::npos) << r.out;
        // A stack overflow faults where the frame is first touched: with the address
        // sanitizer's frames, that is already the function's first line.
        const bool overflow = std::string(c.mode) == "overflow";
        const std::string site =
            "helper_crash.cpp:" + (overflow ? std::string() : std::to_string(crashLine(c.site)));
        size_t at = r.out.find(c.faulting, stack);
        ASSERT_NE(at, std::string::npos) << r.out;
        const size_t lineEnd = r.out.find('\n', at);
        EXPECT_NE(r.out.substr(at, lineEnd - at).find(site), std::string::npos) << site << " in\n"
                                                                                << r.out;
        // ...then the callers in order, and a complete walk.
        for (const char* caller : c.callers) {
            const size_t next = r.out.find(std::string(" ") + caller, at + 1);
            ASSERT_NE(next, std::string::npos) << caller << " after " << at << "\n" << r.out;
            EXPECT_GT(next, at);
            at = next;
        }
        if (!overflow) {
            EXPECT_NE(r.out.find("(end of the stack)"), std::string::npos) << r.out;
        }

        // Every section the handler asked for is there, in order.
        std::string error;
        const std::string file = slurp(trap);
        const auto sections = walkSections(file, &error);
        EXPECT_EQ(error, "");
        std::vector<Uint32> order;
        for (const auto& s : sections) order.push_back(s.bit);
        EXPECT_EQ(order, (std::vector<Uint32>{ZEP_TRAP_SYSTEM, ZEP_TRAP_ENVIRONMENT,
                                              ZEP_TRAP_EXCEPTION, ZEP_TRAP_CONTEXT,
                                              ZEP_TRAP_MODULES, ZEP_TRAP_VERSION, ZEP_TRAP_STACK}));
        const ZEPTrapHeader h = headerOf(file);
        EXPECT_EQ(h.contents & (ZEP_TRAP_CONTENTS_EXCEPTION | ZEP_TRAP_CONTENTS_CONTEXT |
                                ZEP_TRAP_CONTENTS_MODULES_ENUMERATED |
                                ZEP_TRAP_CONTENTS_CODE_LOOKED_AT | ZEP_TRAP_CONTENTS_CODE_BYTES |
                                ZEP_TRAP_CONTENTS_ENGINE_VERSION | ZEP_TRAP_CONTENTS_MEMORY_STATUS),
                  0x043Fu);
        if (overflow) {
            EXPECT_NE(h.threadID, h.processID);
        }
    }
}

// The memory section of a real crash holds the process's writable data; the reader sums it.
TEST_F(TrapDir, CrashWithMemorySection) {
    const std::string trap = at("memory.trap");
    const std::string helper = std::string(ZEP_TEST_BIN_DIR) + "/helper_crash";
    const Outcome crashed = run("ulimit -c 0; exec " + helper + " memory " + trap);
    EXPECT_EQ(crashed.status, 128 + SIGSEGV);
    const std::string file = slurp(trap);
    EXPECT_TRUE(headerOf(file).contents & ZEP_TRAP_CONTENTS_MEMORY);
    // The environment string of this process is in the child's memory too.
    EXPECT_NE(file.find("ZEP_TRAP_MEMORY_PROBE=0123456789"), std::string::npos);
    const Outcome r = run(kReader + " " + trap);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("Memory: "), std::string::npos) << r.out;
}

// A binary rebuilt since the crash no longer describes its addresses: the reader says so
// instead of naming wrong functions.
TEST_F(TrapDir, ReaderRefusesABinaryThatIsNotTheOneThatCrashed) {
    const std::string copy = at("crasher");
    ASSERT_EQ(run("cp " + std::string(ZEP_TEST_BIN_DIR) + "/helper_crash " + copy).status, 0);
    const std::string trap = at("copy.trap");
    run("ulimit -c 0; exec " + copy + " null " + trap);
    Outcome r = run(kReader + " " + trap);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("crashLevel3"), std::string::npos) << r.out;
    // Another program in its place: same path, another build id.
    ASSERT_EQ(run("cp " + kReader + " " + copy).status, 0);
    r = run(kReader + " " + trap);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out.find("crashLevel3"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("not the one that crashed"), std::string::npos) << r.out;
}

// ---- written in this process

class TrapWriter : public TrapDir {
protected:
    // Writes a trap file of `mask` from a context taken here.
    std::string write(Uint32 mask, bool withContext = true, const ucontext_t* given = nullptr) {
        const std::string path = at("t.trap");
        unlink(path.c_str());
        ucontext_t uc;
        getcontext(&uc);
        siginfo_t si;
        memset(&si, 0, sizeof si);
        si.si_signo = SIGSEGV;
        ZEPTrapFile t;
        EXPECT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_CREATE), 0u);
        const ucontext_t* ctx = withContext ? (given ? given : &uc) : nullptr;
        t.initialize(0, &si, ctx, nullptr);
        t.dump(mask, 0, &si, ctx);
        t.close();
        return slurp(path);
    }
};

TEST_F(TrapWriter, DumpBeforeInitializeWritesNothing) {
    const std::string path = at("t.trap");
    ZEPTrapFile t;
    ASSERT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_WRITE | ZEP_PRIMFILE_CREATE), 0u);
    t.dump(ZEP_TRAP_ALL_BUT_MEMORY | ZEP_TRAP_MEMORY, 0, nullptr, nullptr);
    t.close();
    EXPECT_EQ(slurp(path).size(), 0u);
    // And with no file open, initialize and dump write nowhere and don't fail.
    ZEPTrapFile closed;
    closed.initialize(0, nullptr, nullptr, nullptr);
    closed.dump(ZEP_TRAP_ALL_BUT_MEMORY, 0, nullptr, nullptr);
}

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
    // Stack: the code window, then the frames (the first is this test's, at the context), then
    // the raw stack from the stack pointer.
    const Section& st = sections[6];
    ASSERT_EQ(st.bit, ZEP_TRAP_STACK);
    ZEPStackFrame64 first;
    memcpy(&first, f.data() + st.offset + h.codeBytes, sizeof first);
    char name[256];
    zepSymbolNameForAddress(first.AddrPC, name, sizeof name, nullptr);
    EXPECT_NE(std::string(name).find("TrapWriter"), std::string::npos) << name;
    // The environment holds this process's strings and the end mark.
    const Section& env = sections[1];
    const std::string envText = f.substr(env.offset, env.length);
    EXPECT_NE(envText.find("ZEP_TRAP_MEMORY_PROBE=0123456789"), std::string::npos);
    EXPECT_EQ(envText.substr(envText.size() - 15), std::string("\x0b\0\0\0**L*E*R*M**", 15));
}

TEST_F(TrapWriter, EmptyEnvironmentHoldsOnlyTheEndMark) {
    char** saved = environ;
    char* none[] = {nullptr};
    environ = none;
    const std::string f = write(ZEP_TRAP_HEADER | ZEP_TRAP_ENVIRONMENT);
    environ = saved;
    EXPECT_EQ(f.substr(sizeof(ZEPTrapHeader)),
              std::string("SECT\x02\0\0\0\x0b\0\0\0**L*E*R*M**", 23));
}

TEST_F(TrapWriter, WithoutContextNoCodeAndNoStack) {
    const std::string f = write(ZEP_TRAP_HEADER | ZEP_TRAP_CONTEXT | ZEP_TRAP_STACK, false);
    const ZEPTrapHeader h = headerOf(f);
    EXPECT_EQ(h.contents & (ZEP_TRAP_CONTENTS_CONTEXT | ZEP_TRAP_CONTENTS_CODE_LOOKED_AT), 0u);
    EXPECT_EQ(h.contents & ZEP_TRAP_CONTENTS_EXCEPTION, ZEP_TRAP_CONTENTS_EXCEPTION);
    EXPECT_EQ(f.size(), sizeof(ZEPTrapHeader));
}

TEST_F(TrapWriter, CodeWindowAtTheEdgesOfReadableMemory) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer maps its own pages into the holes this test makes";
#endif
    const long page = sysconf(_SC_PAGESIZE);
    Uint8* two = static_cast<Uint8*>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(two, MAP_FAILED);
    // [unmapped][readable][unmapped]
    munmap(two, page);
    munmap(two + 2 * page, page);
    Uint8* readable = two + page;
    for (long i = 0; i < page; i++) readable[i] = static_cast<Uint8>(i);
    ucontext_t uc;
    getcontext(&uc);
    struct {
        const char* what;
        Uint64 rip;
        Uint16 codeBytes;
        Uint64 codeAddress;
    } cases[] = {
        // The instruction in the last word of the page: the window ends with the page.
        {"last word", reinterpret_cast<uintptr_t>(readable + page - 4), 36,
         reinterpret_cast<uintptr_t>(readable + page - 36)},
        // In unmapped memory: nothing, but the window was looked at.
        {"unmapped", reinterpret_cast<uintptr_t>(two + 2 * page + 100), 0, 0},
        // The window's start can't be read: given up rather than moved.
        {"page start", reinterpret_cast<uintptr_t>(readable + 8), 0, 0},
        {"middle", reinterpret_cast<uintptr_t>(readable + 200), 64,
         reinterpret_cast<uintptr_t>(readable + 168)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ucontext_t at = uc;
        at.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(c.rip);
        ZEPTrapFile t;
        t.initialize(0, nullptr, &at, nullptr);
        const ZEPTrapHeader& h = t.headerRecord();
        EXPECT_EQ(h.codeBytes, c.codeBytes);
        EXPECT_TRUE(h.contents & ZEP_TRAP_CONTENTS_CODE_LOOKED_AT);
        EXPECT_EQ((h.contents & ZEP_TRAP_CONTENTS_CODE_BYTES) != 0, c.codeBytes != 0);
        if (c.codeAddress != 0) {
            EXPECT_EQ(h.codeAddress, c.codeAddress);
        }
    }
    munmap(readable, page);
}

TEST_F(TrapWriter, RawStackAndFramesOfAThread) {
    // A thread's short stack: the walk ends well within 1,024 words, so the raw stack holds
    // 1,024 words from the stack pointer, as far as they can be read.
    std::string f;
    std::thread([&] { f = write(ZEP_TRAP_HEADER | ZEP_TRAP_STACK); }).join();
    std::string error;
    const auto sections = walkSections(f, &error);
    ASSERT_EQ(error, "");
    ASSERT_EQ(sections.size(), 1u);
    const ZEPTrapHeader h = headerOf(f);
    size_t p = sections[0].offset + h.codeBytes;
    ZEPStackFrame64 fr;
    int frames = 0;
    do {
        memcpy(&fr, f.data() + p, sizeof fr);
        p += sizeof fr;
        EXPECT_EQ(fr.Level, static_cast<Uint32>(frames));
        frames++;
    } while (fr.AddrReturn != 0 && fr.AddrReturn != ZEP_STACKWALK_BROKEN);
    EXPECT_EQ(fr.AddrReturn, 0u);
    Uint32 words;
    memcpy(&words, f.data() + p, 4);
    EXPECT_GT(frames, 2);
    EXPECT_GT(words, 0u);
    EXPECT_LE(words, 1024u);
}

TEST_F(TrapWriter, MemoryWrittenOncePerFile) {
    std::vector<Uint8> probe(8192);
    for (size_t i = 0; i < probe.size(); i++) probe[i] = static_cast<Uint8>(i * 7 + 3);
    const std::string path = at("m.trap");
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
    std::string error;
    const auto sections = walkSections(f, &error);
    ASSERT_EQ(error, "");
    ASSERT_EQ(sections.size(), 1u);
    EXPECT_EQ(sections[0].bit, ZEP_TRAP_MEMORY);
    EXPECT_NE(f.find(std::string(reinterpret_cast<char*>(probe.data()), probe.size())),
              std::string::npos);
}

TEST_F(TrapWriter, XMLProlog) {
    Uint32 length = 0;
    const std::string prolog = zepTrapXMLProlog(&length);
    EXPECT_EQ(length, prolog.size());
    if (prolog.find("//trapfiles.example.com/") != std::string::npos) {
        EXPECT_EQ(length, 131u);  // the build's default host
    }
    EXPECT_EQ(prolog.substr(0, 44), "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n");
    EXPECT_EQ(prolog.substr(44, 30), "<?xml-stylesheet href=\"http://");
    EXPECT_EQ(prolog.substr(prolog.size() - 36), "/vrntrapfile.xsl\" type=\"text/xsl\"?>\n");
    const std::string path = at("r.xml");
    struct {
        const char* what;
        std::string before;
        Bool result;
        std::string after;  // the file after writing "<x/>" where the prolog left the position
    } cases[] = {
        {"empty", "", 1, prolog + "<x/>"},
        {"closing tag", prolog + "<r><a/></r>", 0, prolog + "<r><a/><x/>"},
        {"no closing tag", prolog + "<r><a/>", 0, prolog + "<r><a/><x/>"},
        {"other start", "<html>" + std::string(200, ' '), 0, "<x/>l>" + std::string(200, ' ')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        spit(path, c.before);
        ZEPTrapFile t;
        ASSERT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_CREATE), 0u);
        EXPECT_EQ(t.writeXMLProlog(), c.result);
        t.write("<x/>", 4);
        t.close();
        EXPECT_EQ(slurp(path), c.after);
    }
}

// ---- the reader on bad input

TEST_F(TrapDir, ReaderOnBadInput) {
    const std::string helper = std::string(ZEP_TEST_BIN_DIR) + "/helper_crash";
    const std::string good = at("good.trap");
    run("ulimit -c 0; exec " + helper + " null " + good);
    const std::string f = slurp(good);
    ASSERT_GT(f.size(), 4000u);
    const std::string bad = at("bad.trap");

    struct {
        const char* what;
        std::string data;
        int status;
        const char* message;
    } cases[] = {
        {"empty", "", 2, "not a trap file"},
        {"wrong eye-catcher", "*TPHDR65" + f.substr(8), 2, "not a trap file"},
        {"32-bit layout", "*TPHDR32" + f.substr(8), 2, "32-bit layout"},
        {"short header", f.substr(0, 300), 3, "truncated in the header"},
        {"header only", f.substr(0, sizeof(ZEPTrapHeader)), 0, ""},
        {"cut in the system section", f.substr(0, sizeof(ZEPTrapHeader) + 50), 3,
         "truncated in the system section"},
        {"cut in the stack", f.substr(0, f.size() - 100), 3, "in the stack section"},
        {"bad mark", f.substr(0, sizeof(ZEPTrapHeader)) + "XXXXXXXXXXXXXXXX", 3, "no section mark"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        spit(bad, c.data);
        const Outcome r = run(kReader + " " + bad);
        EXPECT_EQ(r.status, c.status) << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << r.out;
    }
    EXPECT_EQ(run(kReader + " " + at("missing.trap")).status, 1);
    EXPECT_EQ(run(kReader).status, 2);
    EXPECT_EQ(run(kReader + " --help").status, 0);

    // Cuts anywhere and damage anywhere: a report and a status, never a crash.
    std::mt19937 rng(17);
    for (int i = 0; i < 40; i++) {
        std::string d = f;
        if (i % 2 == 0) {
            d.resize(sizeof(ZEPTrapHeader) + rng() % (f.size() - sizeof(ZEPTrapHeader)));
        } else {
            for (int k = 0; k < 8; k++) d[8 + rng() % (d.size() - 8)] = static_cast<char>(rng());
        }
        spit(bad, d);
        const Outcome r = run(kReader + " --no-symbols " + bad);
        EXPECT_TRUE(r.status == 0 || r.status == 3) << i << ": " << r.status << "\n" << r.out;
    }
}
