// Crash capture: the symbol engine's lock table, the frame-pointer walk, names, lines and modules
// of the running process; trap files written here, and by the example handler's crashes read back
// by zeptrap; the XML prolog.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <algorithm>
#include <iterator>
#include <thread>

#include "zep.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using zeptest::slurp;
const std::vector<Uint32> kAllButMemory = {
    ZEP_TRAP_SYSTEM,  ZEP_TRAP_ENVIRONMENT, ZEP_TRAP_EXCEPTION, ZEP_TRAP_CONTEXT,
    ZEP_TRAP_MODULES, ZEP_TRAP_VERSION,     ZEP_TRAP_STACK};
const std::string kReader = std::string(ZEP_TOOL_BIN_DIR) + "/zeptrap";
const std::string kCrash = std::string(ZEP_TOOL_BIN_DIR) + "/zepcrash";
const std::string kHelper = std::string(ZEP_TEST_BIN_DIR) + "/helper_crash";
// Looked for in the environment and memory sections of this process and of its children.
const int kProbeSet = setenv("ZEP_TRAP_MEMORY_PROBE", "0123456789", 1);

// The line of the example handler's source that holds `text`.
int sourceLine(const std::string& text) {
    std::ifstream in(std::string(ZEP_TEST_DATA_DIR) + "/../../tools/zepcrash.cpp");
    std::string line;
    for (int n = 1; std::getline(in, line); n++)
        if (line.find(text) != std::string::npos) return n;
    return -1;
}

// A command's exit status (128 + the signal that ended it) and output, with no core file.
std::pair<int, std::string> run(const std::string& command) {
    FILE* p = popen(("ulimit -c 0; " + command + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = pclose(p);
    return {WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), out};
}

ZEPTrapHeader headerOf(const std::string& f) {
    ZEPTrapHeader h{};
    memcpy(&h, f.data(), std::min(f.size(), sizeof h));
    return h;
}

// Where the section of `bit` begins, at its mark (npos if there is none).
size_t sectionAt(const std::string& f, Uint32 bit) {
    const ZEPTrapSectionHead head = {ZEP_TRAP_SECTION_MARK, bit};
    return f.find(std::string(reinterpret_cast<const char*>(&head), sizeof head), sizeof head);
}

// The sections of `bits` are all there, in that order, and the reader takes the file whole.
void expectSections(const std::string& path, const std::vector<Uint32>& bits) {
    const std::string f = slurp(path);
    size_t last = 0;
    for (Uint32 bit : bits) {
        const size_t at = sectionAt(f, bit);
        EXPECT_TRUE(at != std::string::npos && at > last) << "section " << bit;
        last = at;
    }
    const auto [status, out] = run(kReader + " --no-symbols " + path);
    EXPECT_EQ(status, 0) << out;
}

class Trap : public ::testing::Test {
protected:
    std::string at(const std::string& name) { return temp_ / name; }
    // A trap file of `mask` written here, from a context taken here or none.
    std::string write(Uint32 mask, bool withContext = true) {
        const std::string path = at("t.trap");
        unlink(path.c_str());
        ucontext_t uc;
        getcontext(&uc);
        siginfo_t si{};
        si.si_signo = SIGSEGV;
        ZEPTrapFile t;
        EXPECT_EQ(t.open(path.c_str(), ZEP_PRIMFILE_CREATE), 0u);
        t.initialize(0, &si, withContext ? &uc : nullptr, nullptr);
        t.dump(mask, 0, &si, withContext ? &uc : nullptr);
        t.close();
        return slurp(path);
    }
    zeptest::TempDir temp_{"zeptrap"};
};

std::string nameOf(uintptr_t address, uintptr_t* disp = nullptr, Uint32 size = 300) {
    char buffer[300];
    zepSymbolNameForAddress(address, buffer, size, disp);
    return buffer;
}

// A return address lies after its call; the call itself is one byte before.
std::string callerName(uintptr_t returnAddress) {
    return nameOf(returnAddress - 1);
}

void prepareEngine() {
    zepLoadSymDLL();
    zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 0);
}

}  // namespace

// A known chain of this file's own functions; each does work after its call, so none of the
// calls becomes a jump.
extern "C" {
__attribute__((noinline)) int chainInner(Uint32 skip, uintptr_t* out, Uint32 capacity,
                                         int* callLine) {
    *callLine = __LINE__ + 1;
    zepWalkStackCollect(skip, out, capacity);
    asm volatile("" ::: "memory");
    return 1;
}
__attribute__((noinline)) int chainMiddle(Uint32 skip, uintptr_t* out, Uint32 capacity, int* line) {
    return chainInner(skip, out, capacity, line) + 1;
}
__attribute__((noinline)) int chainOuter(Uint32 skip, uintptr_t* out, Uint32 capacity, int* line) {
    return chainMiddle(skip, out, capacity, line) + 1;
}
}

TEST(StackWalk, FramePointerChainAndNames) {
    prepareEngine();
    uintptr_t out[8], skipped[8];
    int line = 0;
    chainOuter(0, out, 8, &line);
    chainOuter(2, skipped, 8, &line);  // skipping drops the innermost entries
    EXPECT_EQ(callerName(out[0]) + " " + callerName(out[1]) + " " + callerName(skipped[0]),
              "chainInner chainMiddle chainOuter");
    EXPECT_THAT(callerName(out[3]), HasSubstr("FramePointerChainAndNames"));
    // The symbol of the call, with its source line.
    ZEPSymbol64 sym[2] = {};
    sym[0].SizeOfStruct = sizeof sym[0];
    sym[0].MaxNameLength = sizeof sym[0].Name + sizeof sym[1];
    Uint64 disp = 0;
    ASSERT_TRUE(zepSymGetSymFromAddr(ZEP_CURRENT_PROCESS, out[0] - 1, &disp, &sym[0]));
    EXPECT_STREQ(sym[0].Name, "chainInner");
    EXPECT_THAT(sym[0].FileName, HasSubstr("test_trap.cpp"));
    EXPECT_EQ(sym[0].LineNumber, static_cast<Uint32>(line));
    // A chain that ends (a thread's first frame pointer is 0): the rest stays 0.
    std::vector<uintptr_t> all(4096, 9);
    std::thread([&] { chainOuter(0, all.data(), 4096, &line); }).join();
    const auto firstZero = std::find(all.begin(), all.end(), 0u);
    EXPECT_GT(firstZero - all.begin(), 3);
    EXPECT_EQ(std::count(firstZero, all.end(), 0u), all.end() - firstZero);

    // Names of addresses with their displacements, and without a symbol.
    uintptr_t d = 77;
    EXPECT_EQ(nameOf(0, &d), "?unknown");
    EXPECT_EQ(d, 0u);
    EXPECT_EQ(nameOf(reinterpret_cast<uintptr_t>(&chainMiddle) + 5, &d), "chainMiddle");
    EXPECT_EQ(d, 5u);
    // Memory that belongs to no module: the address itself.
    void* anon = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const uintptr_t a = reinterpret_cast<uintptr_t>(anon) + 0x10;
    char expected[32];
    snprintf(expected, sizeof expected, "0x%016lX", static_cast<unsigned long>(a));
    EXPECT_EQ(nameOf(a, &d), expected);
    EXPECT_EQ(d, 0u);
    munmap(anon, 4096);
}

TEST(SymbolEngine, WrappersModulesAndLocks) {
    zepLoadSymDLL();
    // No module at this address: the entry's error survives the release of the mutex.
    zepos::SetLastError(0);
    EXPECT_EQ(zepSymGetModuleBase(ZEP_CURRENT_PROCESS, 0x10), 0u);
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_INVALID_ADDRESS));
    // Only the current process is known.
    EXPECT_EQ(zepSymGetModuleBase(reinterpret_cast<void*>(1234), 0x10), 0u);
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_INVALID_HANDLE));
    // A second initialization returns 0 without calling the engine or touching the last error;
    // the clean-up does nothing, and the engine outlives it.
    prepareEngine();
    zepos::SetLastError(4242);
    EXPECT_EQ(zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 1), 0);
    EXPECT_EQ(zepos::GetLastError(), 4242u);
    EXPECT_EQ(zepSymCleanup(ZEP_CURRENT_PROCESS), 0);
    EXPECT_EQ(nameOf(reinterpret_cast<uintptr_t>(&chainMiddle)), "chainMiddle");

    // The module list collected early, for a trap file whose enumeration finds nothing.
    Uint32 count = 0;
    ASSERT_TRUE(zepEnumerateLoadedModules(ZEP_CURRENT_PROCESS, nullptr, nullptr));
    const ZEPModuleListNode* node = zepModuleList(&count);
    ASSERT_GT(count, 3u);
    char exe[ZEP_MAX_PATH + 1] = {};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    EXPECT_STREQ(static_cast<const ZEPTrapModuleRecord*>(node->record)->name, exe);
    const ZEPTrapModuleRecord* zep = nullptr;
    for (; node != nullptr; node = node->next)
        if (strstr(static_cast<const ZEPTrapModuleRecord*>(node->record)->name, "libzep.so"))
            zep = static_cast<const ZEPTrapModuleRecord*>(node->record);
    ASSERT_NE(zep, nullptr);
    // The product's own modules are told by their marker export (the module's own definition,
    // which an executable's copy of the variable may hide from a symbol look-up).
    const uintptr_t code = reinterpret_cast<uintptr_t>(&zepStackWalk);
    EXPECT_TRUE(zep->base <= zep->markerAddress && zep->markerAddress < zep->end);
    EXPECT_TRUE(zep->base <= code && code < zep->end && zep->timeStamp != 0);
    ZEPModuleInfo64 info{};
    info.SizeOfStruct = sizeof info;
    ASSERT_TRUE(zepSymGetModuleInfo(ZEP_CURRENT_PROCESS, code, &info));
    EXPECT_EQ(info.BaseOfImage + info.ImageSize, zep->end);
    EXPECT_NE(zepSymFunctionTableAccess(ZEP_CURRENT_PROCESS, code), nullptr);
    // The option word and the version keep no error; the callback the walker reads memory with.
    const Uint32 options = zepSymGetOptions();
    EXPECT_EQ(zepSymSetOptions(options | 0x10), options | 0x10);
    EXPECT_EQ(zepImagehlpApiVersionEx(zepImagehlpApiVersion()), zepImagehlpApiVersion());
    ASSERT_TRUE(zepSymRegisterStackWalkCallback(ZEP_CURRENT_PROCESS));
    Uint64 context = 0, into = 0;
    Uint32 got = 0;
    ZEPReadMemoryRequest r = {reinterpret_cast<uintptr_t>(&code), &into, 8, &got};
    EXPECT_TRUE(zepos::sym::RegisteredCallback(&context)(ZEP_CURRENT_PROCESS, ZEP_CBA_READMEMORY,
                                                         reinterpret_cast<uintptr_t>(&r), 0));
    EXPECT_EQ(into, code);
    // Threads take an entry's lock by turns; the lock, named by the entry and the process, is made
    // once.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 500; ++i)
                EXPECT_EQ(nameOf(reinterpret_cast<uintptr_t>(&chainMiddle)), "chainMiddle");
        });
    for (std::thread& t : threads) t.join();
    const std::string lock = "SymGetSymFromAddr-" + std::to_string(getpid());
    EXPECT_EQ(zepos::sym::MutexHandleCount(lock.c_str()), 1u);

    // A module loaded from its file, and unloaded.
    const Uint64 base = 0x300000000000;
    EXPECT_EQ(zepSymLoadModule(ZEP_CURRENT_PROCESS, nullptr, kHelper.c_str(), "helper", base, 0),
              base);
    EXPECT_TRUE(zepSymUnloadModule(ZEP_CURRENT_PROCESS, base));
    EXPECT_FALSE(zepSymUnloadModule(ZEP_CURRENT_PROCESS, base));
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_INVALID_ADDRESS));
}

TEST_F(Trap, CrashingProcessesLeaveReadableTrapFiles) {
    struct {
        const char *args, *faulting;  // the function at the fault, then the text of its line
        const char* site;
        int signal;
        const char* callers;
    } cases[] = {
        {"null", "crashHere", "*g_null = 1;", SIGSEGV, "validateRecord processRequest main"},
        {"abort", "crashHere", "abort();", SIGABRT, "validateRecord"},
        {"malloc", "crashingWrite", "*g_null = 2;", SIGSEGV, "malloc_stats crashHere"},
        // A stack overflow faults where the frame is first touched: with the address
        // sanitizer's frames that is the function's first line, so the line isn't checked.
        {"overflow", "recurse", nullptr, SIGSEGV, "recurse recurse recurse"},
        // The handler while another thread holds two of the symbol engine's mutexes.
        {"heldlock", "crashHere", "*g_null = 1;", SIGSEGV, "processRequest zepcrashMain"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
#if defined(__SANITIZE_ADDRESS__)
        // The sanitizer's allocator stands in for malloc: there is no arena lock to crash in.
        if (std::string(c.args) == "malloc") continue;
#endif
        const std::string trap = at("crash.trap");
        const auto [status, said] =
            run((std::string(c.args) == "heldlock" ? kHelper : kCrash) + " " + c.args + " " + trap);
        EXPECT_EQ(status, 128 + c.signal) << said;

        const auto [read, out] = run(kReader + " " + trap);
        ASSERT_EQ(read, 0) << out;
        EXPECT_THAT(out, HasSubstr(std::string("Signal: SIG") + sigabbrev_np(c.signal) + " "));
        // The faulting function with its source line, then the callers in order.
        size_t at = out.find(c.faulting, out.find("Stack, innermost first:"));
        ASSERT_NE(at, std::string::npos) << out;
        std::string site;
        if (c.site) site.append(":").append(std::to_string(sourceLine(c.site)));
        EXPECT_THAT(out.substr(at, out.find('\n', at) - at), HasSubstr("zepcrash.cpp" + site));
        std::istringstream callers(c.callers);
        for (std::string caller; callers >> caller;)
            ASSERT_NE(at = out.find(" " + caller, at + 1), std::string::npos) << out;
        EXPECT_TRUE(!c.site || out.find("(end of the stack)") != std::string::npos) << out;

        expectSections(trap, kAllButMemory);
        const ZEPTrapHeader h = headerOf(slurp(trap));
        EXPECT_EQ(h.contents & 0x047Fu, 0x043Fu);
        EXPECT_TRUE(c.site || h.threadID != h.processID);  // the overflow is a thread's
    }
}

// A binary rebuilt since the crash no longer describes its addresses: the reader says so instead
// of naming wrong functions.
TEST_F(Trap, ReaderRefusesABinaryThatIsNotTheOneThatCrashed) {
    const std::string copy = at("crasher"), trap = at("copy.trap");
    ASSERT_EQ(run("cp " + kCrash + " " + copy).first, 0);
    EXPECT_EQ(run(copy + " null " + trap).first, 128 + SIGSEGV);
    EXPECT_THAT(run(kReader + " " + trap).second, HasSubstr("crashHere"));
    ASSERT_EQ(run("cp " + kReader + " " + copy).first, 0);
    const auto [status, out] = run(kReader + " " + trap);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(out, HasSubstr("not the one that crashed"));
    EXPECT_THAT(out, ::testing::Not(HasSubstr("crashHere")));
}

TEST_F(Trap, HeaderSectionsAndACutFile) {
    const std::string f = write(ZEP_TRAP_ALL_BUT_MEMORY);
    expectSections(at("t.trap"), kAllButMemory);
    const ZEPTrapHeader h = headerOf(f);
    EXPECT_EQ(std::string(h.eyeCatcher, 8), "*TPHDR64");
    EXPECT_EQ(h.threadID, static_cast<Uint32>(gettid()));  // with the process's in front
    EXPECT_EQ(h.codeBytes, 64u);
    const size_t env = sectionAt(f, ZEP_TRAP_ENVIRONMENT);
    const std::string environment = f.substr(env, sectionAt(f, ZEP_TRAP_EXCEPTION) - env);
    EXPECT_THAT(environment, HasSubstr("ZEP_TRAP_MEMORY_PROBE=0123456789"));
    EXPECT_EQ(environment.substr(environment.size() - 15),
              std::string("\x0b\0\0\0**L*E*R*M**", 15));
    // The reader on a cut file (random damage is the fuzz target's), and misused.
    std::ofstream(at("cut.trap")) << f.substr(0, sizeof h + 50);
    const auto [status, out] = run(kReader + " " + at("cut.trap"));
    EXPECT_EQ(status, 3);
    EXPECT_THAT(out, HasSubstr("truncated in the system section"));
    EXPECT_EQ(run(kReader).first, 2);
}

TEST_F(Trap, MemoryOncePerFile) {
    const std::string path = at("m.trap");
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
    expectSections(path, {ZEP_TRAP_MEMORY});
    EXPECT_NE(f.find(std::string(reinterpret_cast<char*>(probe.data()), probe.size())),
              std::string::npos);
}

TEST_F(Trap, XMLProlog) {
    Uint32 length = 0;
    const std::string prolog = zepTrapXMLProlog(&length);
    EXPECT_THAT(prolog, MatchesRegex("<\\?xml version=\"1.0\" encoding=\"ISO-8859-1\"\\?>\n<\\?xml-"
                                     "stylesheet href=\"http://[^/]+/vrntrapfile.xsl\" "
                                     "type=\"text/xsl\"\\?>\n"));
    // The file before, the result, and the file after "<x/>" is written where the prolog left it.
    const std::tuple<std::string, Bool, std::string> cases[] = {
        {"", 1, prolog + "<x/>"},
        {prolog + "<r><a/></r>", 0, prolog + "<r><a/><x/>"},  // over the closing tag
        {"<html>" + std::string(200, ' '), 0, "<x/>l>" + std::string(200, ' ')},
    };
    for (const auto& [before, result, after] : cases) {
        std::ofstream(at("r.xml"), std::ios::binary | std::ios::trunc) << before;
        ZEPTrapFile t;
        ASSERT_EQ(t.open(at("r.xml").c_str(), ZEP_PRIMFILE_CREATE), 0u);
        EXPECT_EQ(t.writeXMLProlog(), result) << before;
        t.write("<x/>", 4);
        t.close();
        EXPECT_EQ(slurp(at("r.xml")), after);
    }
}
