// bench_primitives: ZEPLock against pthread mutexes, uncontended and with two threads on one
// lock; a sweep of the spin tuning under contention. This unit also holds the program's main,
// which prints every zep case beside its peers as a ratio (below 1: zep is faster).
//
// Cases are named "<case>/zep..." and "<case>/peer:<what>"; each runs 5 times and the medians
// are compared.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdio.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "zep.h"
#include "zepbench.h"

namespace {

// ---- uncontended

void UncontendedZep(benchmark::State& state) {
    ZEPLock lock = 0;
    for (auto _ : state) {
        zepLockGet(&lock);
        benchmark::DoNotOptimize(lock);
        zepLockRelease(&lock);
    }
}

void lockUnlockLoop(benchmark::State& state, pthread_mutex_t* m) {
    for (auto _ : state) {
        pthread_mutex_lock(m);
        benchmark::ClobberMemory();
        pthread_mutex_unlock(m);
    }
}

void UncontendedMutex(benchmark::State& state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    lockUnlockLoop(state, &m);
}

pthread_mutex_t* sharedMutex() {
    static pthread_mutex_t m;
    static bool made = [] {
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(&m, &a);
        pthread_mutexattr_destroy(&a);
        return true;
    }();
    (void)made;
    return &m;
}

void UncontendedSharedMutex(benchmark::State& state) {
    lockUnlockLoop(state, sharedMutex());
}

// ---- two threads, one lock, a short critical section (a few dependent writes)

struct alignas(64) Guarded {
    Uint64 counter = 0;
    Uint64 sum = 0;
};
Guarded g_guarded;
ZEPLock g_contendedLock = 0;
pthread_mutex_t g_contendedMutex = PTHREAD_MUTEX_INITIALIZER;

inline void criticalSection() {
    g_guarded.counter = g_guarded.counter + 1;
    g_guarded.sum = g_guarded.sum + g_guarded.counter;
    benchmark::ClobberMemory();
}

void ContendedZep(benchmark::State& state) {
    ZEPSpinTune saved;
    if (state.thread_index() == 0) {
        ZEPLatch::getSpinCounts(saved);
        if (state.range(0) >= 0) {
            ZEPSpinTune t = saved;
            t.spinCount = static_cast<Uint32>(state.range(0));
            t.spinDelay = static_cast<Uint32>(state.range(1));
            ZEPLatch::updateSpinCounts(t);
        }
    }
    for (auto _ : state) {
        zepLockGet(&g_contendedLock);
        criticalSection();
        zepLockRelease(&g_contendedLock);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) ZEPLatch::updateSpinCounts(saved);
}

void contendedMutex(benchmark::State& state, pthread_mutex_t* m) {
    for (auto _ : state) {
        pthread_mutex_lock(m);
        criticalSection();
        pthread_mutex_unlock(m);
    }
    state.SetItemsProcessed(state.iterations());
}

void ContendedMutex(benchmark::State& state) {
    contendedMutex(state, &g_contendedMutex);
}
void ContendedSharedMutex(benchmark::State& state) {
    contendedMutex(state, sharedMutex());
}

}  // namespace

BENCHMARK(UncontendedZep)->Name("lock_uncontended/zep")->Repetitions(5);
BENCHMARK(UncontendedMutex)->Name("lock_uncontended/peer:pthread_mutex")->Repetitions(5);
BENCHMARK(UncontendedSharedMutex)
    ->Name("lock_uncontended/peer:pthread_mutex_pshared")
    ->Repetitions(5);

// (-1, 0) keeps the tuning of the start-up pass; the others set spinCount and spinDelay.
BENCHMARK(ContendedZep)
    ->Name("lock_2threads/zep")
    ->Args({-1, 0})
    ->Threads(2)
    ->UseRealTime()
    ->Repetitions(5);
BENCHMARK(ContendedMutex)
    ->Name("lock_2threads/peer:pthread_mutex")
    ->Threads(2)
    ->UseRealTime()
    ->Repetitions(5);
BENCHMARK(ContendedSharedMutex)
    ->Name("lock_2threads/peer:pthread_mutex_pshared")
    ->Threads(2)
    ->UseRealTime()
    ->Repetitions(5);
BENCHMARK(ContendedZep)
    ->Name("lock_2threads/zep_tuned")
    ->ArgNames({"spinCount", "spinDelay"})
    ->Args({0, 0})
    ->Args({10, 50})
    ->Args({30, 50})
    ->Args({100, 50})
    ->Args({10, 10})
    ->Args({100, 10})
    ->Args({1000, 10})
    ->Threads(2)
    ->UseRealTime()
    ->Repetitions(5);

int main(int argc, char** argv) {
    return zepBenchMain(argc, argv, ZepRatioReporter::kProcessor, true);
}
