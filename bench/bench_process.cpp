// A thread started, waited for and closed by ZEPHThread against std::thread's start and join;
// a child run to its end by ZEPHProcess::create with the wait flag against posix_spawn and
// waitpid of the same program. The frame, the start record and the command line must not cost
// more than the kernel's own work.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <thread>

#include "zep.h"

extern char** environ;

namespace {

void nothing(void*) {}

void BM_ZepThread(benchmark::State& state) {
    ZEPThreadParam p;
    p.flags = ZEP_THREAD_JOINABLE;
    ZEPHThread t;
    for (auto _ : state) {
        if (t.create(nothing, nullptr, &p, nullptr) || t.wait() || t.close())
            state.SkipWithError("ZEPHThread failed");
    }
}
BENCHMARK(BM_ZepThread)->UseRealTime();

void BM_StdThread(benchmark::State& state) {
    for (auto _ : state) {
        std::thread t([] {});
        t.join();
    }
}
BENCHMARK(BM_StdThread)->UseRealTime();

const char* const kTrue = "/bin/true";

void BM_ZepProcess(benchmark::State& state) {
    ZEPProcessParam p;
    p.program = kTrue;
    p.flags = ZEP_PROCESS_WAIT;
    ZEPHProcess proc;
    Uint32 pid;
    ZEPProcessStatus status;
    for (auto _ : state) {
        if (proc.create(&p, &pid, &status) || status.exitCode != 0)
            state.SkipWithError("ZEPHProcess failed");
    }
}
BENCHMARK(BM_ZepProcess)->UseRealTime();

void BM_PosixSpawn(benchmark::State& state) {
    char* argv[] = {const_cast<char*>(kTrue), nullptr};
    for (auto _ : state) {
        pid_t pid;
        int status = 0;
        if (posix_spawn(&pid, kTrue, nullptr, nullptr, argv, environ) != 0 ||
            waitpid(pid, &status, 0) != pid || status != 0)
            state.SkipWithError("posix_spawn failed");
    }
}
BENCHMARK(BM_PosixSpawn)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
