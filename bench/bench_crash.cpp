// Crash capture, measured where it matters:
//  - from the fault to a complete trap file (every section but memory) in a process with 50
//    loaded libraries, beside the handler a user would otherwise write (glibc's backtrace and
//    backtrace_symbols_fd into a file): each iteration is a real process that crashes;
//  - zeptrap's report of a trap file with a 30-frame stack, cold (a new process each time,
//    symbols read from the binaries), beside addr2line on 30 addresses of the same program.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "zep.h"

namespace {

struct Shared {
    Uint64 t0, t1;
    Uint32 modules;
};
Shared* g_shared = static_cast<Shared*>(
    mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
char g_path[256];
int* volatile g_null = nullptr;

Uint64 now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<Uint64>(ts.tv_sec) * 1000000000ull + static_cast<Uint64>(ts.tv_nsec);
}

std::string scratch(const char* name) {
    static std::string dir = [] {
        char tmpl[] = "/tmp/zepbenchcrashXXXXXX";
        return std::string(mkdtemp(tmpl));
    }();
    return dir + "/" + name;
}

void zepHandler(int, siginfo_t* si, void* context) {
    ucontext_t* uc = static_cast<ucontext_t*>(context);
    ZEPTrapFile trap;
    if (trap.open(g_path, ZEP_PRIMFILE_CREATE) == 0) {
        trap.initialize(0, si, uc, nullptr);
        trap.dump(ZEP_TRAP_ALL_BUT_MEMORY, 0, si, uc);
        g_shared->modules = trap.headerRecord().moduleCount;
        trap.close();
    }
    g_shared->t1 = now();
}

void backtraceHandler(int, siginfo_t*, void*) {
    const int fd = open(g_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    void* frames[64];
    const int n = backtrace(frames, 64);
    backtrace_symbols_fd(frames, n, fd);
    close(fd);
    g_shared->t1 = now();
}

void altStack() {
    stack_t ss;
    ss.ss_size = 256 * 1024;
    ss.ss_sp =
        mmap(nullptr, ss.ss_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ss.ss_flags = 0;
    sigaltstack(&ss, nullptr);
}

void install(void (*handler)(int, siginfo_t*, void*)) {
    altStack();
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = handler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGSEGV, &sa, nullptr);
}

void load50() {
    for (int i = 1; i <= 50; i++) {
        const std::string lib =
            std::string(ZEP_BENCH_CRASH_LIB_DIR) + "/libcrashlib" + std::to_string(i) + ".so";
        if (dlopen(lib.c_str(), RTLD_NOW) == nullptr) _exit(3);
    }
}

extern "C" __attribute__((noinline)) int crashDeep(int depth) {
    if (depth == 0) *g_null = 1;
    const int r = depth > 0 ? crashDeep(depth - 1) : 0;
    asm volatile("" ::: "memory");
    return r + 1;
}

// One crashing process; the time from the fault to the handler's end, in seconds.
double crashOnce(bool zep, int depth) {
    snprintf(g_path, sizeof g_path, "%s", scratch(zep ? "zep.trap" : "bt.txt").c_str());
    unlink(g_path);
    g_shared->t0 = g_shared->t1 = 0;
    const pid_t child = fork();
    if (child == 0) {
        load50();
        if (zep) {
            zepLoadSymDLL();
            zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 0);
            zepEnumerateLoadedModules(ZEP_CURRENT_PROCESS, nullptr, nullptr);
            install(zepHandler);
        } else {
            void* warm[4];
            backtrace(warm, 4);  // loads the unwinder before the crash
            install(backtraceHandler);
        }
        g_shared->t0 = now();
        crashDeep(depth);
        _exit(0);
    }
    int status;
    waitpid(child, &status, 0);
    if (g_shared->t1 <= g_shared->t0) return -1;
    return static_cast<double>(g_shared->t1 - g_shared->t0) / 1e9;
}

void BM_SignalToTrapFile_50Libraries(benchmark::State& state) {
    for (auto _ : state) {
        const double s = crashOnce(true, 10);
        if (s < 0) {
            state.SkipWithError("no trap file");
            break;
        }
        state.SetIterationTime(s);
    }
    state.counters["modules"] = g_shared->modules;
}
BENCHMARK(BM_SignalToTrapFile_50Libraries)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);

void BM_Peer_BacktraceSymbolsFd_50Libraries(benchmark::State& state) {
    for (auto _ : state) {
        const double s = crashOnce(false, 10);
        if (s < 0) {
            state.SkipWithError("no backtrace file");
            break;
        }
        state.SetIterationTime(s);
    }
}
BENCHMARK(BM_Peer_BacktraceSymbolsFd_50Libraries)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMillisecond);

double runCommand(const std::vector<std::string>& args) {
    const Uint64 t0 = now();
    const pid_t child = fork();
    if (child == 0) {
        const int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        std::vector<char*> argv;
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return static_cast<double>(now() - t0) / 1e9;
}

// A trap file whose stack has 30 frames: 26 levels of crashDeep, main, two of libc, _start.
const std::string& thirtyFrameTrap() {
    static std::string path = [] {
        crashOnce(true, 25);
        const std::string p = scratch("thirty.trap");
        rename(scratch("zep.trap").c_str(), p.c_str());
        return p;
    }();
    return path;
}

void BM_ZeptrapCold_30Frames(benchmark::State& state) {
    const std::string trap = thirtyFrameTrap();
    for (auto _ : state) {
        const double s = runCommand({ZEP_BENCH_ZEPTRAP, trap});
        if (s < 0) {
            state.SkipWithError("zeptrap failed");
            break;
        }
        state.SetIterationTime(s);
    }
}
BENCHMARK(BM_ZeptrapCold_30Frames)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

// The same 30 return addresses of this program, as file addresses, for addr2line.
int collectDeep(int depth, uintptr_t* out) {
    if (depth == 0) {
        zepWalkStackCollect(0, out, 30);
        return 0;
    }
    const int r = collectDeep(depth - 1, out);
    asm volatile("" ::: "memory");
    return r + 1;
}

void BM_Peer_Addr2line_30Addresses(benchmark::State& state) {
    uintptr_t pcs[30];
    collectDeep(40, pcs);
    uintptr_t bias = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            *static_cast<uintptr_t*>(data) = info->dlpi_addr;
            return 1;
        },
        &bias);
    char exe[512];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    exe[n > 0 ? n : 0] = 0;
    std::vector<std::string> args = {"addr2line", "-f", "-C", "-e", exe};
    for (uintptr_t pc : pcs) {
        char a[32];
        snprintf(a, sizeof a, "0x%lx", static_cast<unsigned long>(pc - 1 - bias));
        args.push_back(a);
    }
    for (auto _ : state) {
        const double s = runCommand(args);
        if (s < 0) {
            state.SkipWithError("addr2line failed");
            break;
        }
        state.SetIterationTime(s);
    }
}
BENCHMARK(BM_Peer_Addr2line_30Addresses)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
