// The allocator beside what a user would pick instead: heap blocks in each debug mode against
// malloc/free, and an area in shared memory against Boost.Interprocess's managed shared memory
// (its red-black-tree best fit, the default). Every case runs the same mix: a window of 64 live
// blocks of random sizes from 16 to 1,024 bytes, one free and one allocation per operation. The
// program prints each zep case beside its peers as a ratio last (below 1: zep is faster).
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
#include <boost/interprocess/managed_shared_memory.hpp>
#endif

#include "zep.h"
#include "zepbench.h"

namespace {

constexpr size_t kWindow = 64;
constexpr size_t kSizes = 4096;  // a power of two

const std::vector<Uint32>& sizes() {
    static const std::vector<Uint32> table = [] {
        std::mt19937 rng(1024);
        std::uniform_int_distribution<Uint32> pick(16, 1024);
        std::vector<Uint32> t(kSizes);
        for (Uint32& s : t) s = pick(rng);
        return t;
    }();
    return table;
}

// One operation: the slot's block goes, a block of the next size takes its place.
template <class Alloc, class Free>
void churn(benchmark::State& state, Alloc alloc, Free release) {
    const std::vector<Uint32>& table = sizes();
    void* slot[kWindow];
    Uint32 slotSize[kWindow];
    size_t next = 0;
    for (size_t i = 0; i < kWindow; ++i) {
        slotSize[i] = table[next++ & (kSizes - 1)];
        slot[i] = alloc(slotSize[i]);
    }
    size_t i = 0;
    for (auto _ : state) {
        release(slot[i], slotSize[i]);
        slotSize[i] = table[next++ & (kSizes - 1)];
        // Kept through a local: given the array element itself, GCC 12 at -O3 loses the store.
        void* fresh = alloc(slotSize[i]);
        benchmark::DoNotOptimize(fresh);
        slot[i] = fresh;
        i = (i + 1) & (kWindow - 1);
    }
    for (size_t k = 0; k < kWindow; ++k) release(slot[k], slotSize[k]);
    state.SetItemsProcessed(state.iterations());
}

void heapZep(benchmark::State& state, Uint32 flags, Uint32 mode) {
    if (zepMemSetDebug(flags, mode, 2, 2) != 0) {
        state.SkipWithError("the debug mode can't be set");
        return;
    }
    churn(
        state,
        [](Uint32 n) {
            void* p = nullptr;
            zepMemAlloc(&p, nullptr, n, 0);
            return p;
        },
        [](void* p, Uint32) { zepMemFree(&p, nullptr, 0); });
    zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0);
}

void Heap_Idle(benchmark::State& state) {
    heapZep(state, 0, ZEP_MEMDBG_IDLE);
}
void Heap_Light(benchmark::State& state) {
    heapZep(state, 0x0B, ZEP_MEMDBG_LIGHT);
}
void Heap_Full(benchmark::State& state) {
    heapZep(state, 0x0F, ZEP_MEMDBG_FULL);
}

void Heap_Malloc(benchmark::State& state) {
    churn(
        state, [](Uint32 n) { return malloc(n); }, [](void* p, Uint32) { free(p); });
}

// The area in a shared mapping, as two processes would use it. Its size holds the window at the
// largest sizes with room to spare, like the peer's segment below.
constexpr Uint32 kAreaBytes = 1u << 20;

void Area_Zep(benchmark::State& state) {
    void* area =
        mmap(nullptr, kAreaBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) {
        state.SkipWithError("no mapping");
        return;
    }
    zepMemAreaInit(area, kAreaBytes);
    churn(
        state,
        [area](Uint32 n) {
            void* p = nullptr;
            zepMemAlloc(&p, area, n, 0);
            return p;
        },
        [area](void* p, Uint32 n) { zepMemFree(&p, area, n); });
    munmap(area, kAreaBytes);
}

#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
void Area_BoostInterprocess(benchmark::State& state) {
    namespace bip = boost::interprocess;
    const std::string name = "zepbench" + std::to_string(getpid());
    bip::shared_memory_object::remove(name.c_str());
    {
        bip::managed_shared_memory segment(bip::create_only, name.c_str(), kAreaBytes);
        churn(
            state, [&segment](Uint32 n) { return segment.allocate(n); },
            [&segment](void* p, Uint32) { segment.deallocate(p); });
    }
    bip::shared_memory_object::remove(name.c_str());
}
#endif

// Cases are named "<case>/zep:<variant>" and "<case>/peer:<name>".
BENCHMARK(Heap_Idle)->Name("Heap/zep:idle")->Repetitions(5);
BENCHMARK(Heap_Light)->Name("Heap/zep:light")->Repetitions(5);
BENCHMARK(Heap_Full)->Name("Heap/zep:full")->Repetitions(5);
BENCHMARK(Heap_Malloc)->Name("Heap/peer:malloc")->Repetitions(5);
BENCHMARK(Area_Zep)->Name("Area/zep:area")->Repetitions(5);
#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
BENCHMARK(Area_BoostInterprocess)->Name("Area/peer:boost-managed_shared_memory")->Repetitions(5);
#endif

}  // namespace

int main(int argc, char** argv) {
    return zepBenchMain(argc, argv, ZepRatioReporter::kProcessor);
}
