// bench_primitives: one tick read and zepTimeGetUTC against clock_gettime, and the candidate
// tick sources the counter was chosen from (informational: they have no zep side).
#include <benchmark/benchmark.h>
#include <sys/time.h>
#include <time.h>

#include "zep.h"
#include "zepos.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace {

void TickReadZep(benchmark::State& state) {
    ZEPTick t;
    for (auto _ : state) {
        t.read();
        benchmark::DoNotOptimize(t.value);
    }
}

// What the trace does: the OS layer's counter read, inline.
void TickReadInline(benchmark::State& state) {
    Sint64 c;
    for (auto _ : state) {
        zepos::QueryPerformanceCounter(&c);
        benchmark::DoNotOptimize(c);
    }
}

void clockLoop(benchmark::State& state, clockid_t clock) {
    struct timespec ts;
    for (auto _ : state) {
        clock_gettime(clock, &ts);
        benchmark::DoNotOptimize(ts);
    }
}

void ClockMonotonic(benchmark::State& state) {
    clockLoop(state, CLOCK_MONOTONIC);
}
void ClockMonotonicRaw(benchmark::State& state) {
    clockLoop(state, CLOCK_MONOTONIC_RAW);
}
void ClockBoottime(benchmark::State& state) {
    clockLoop(state, CLOCK_BOOTTIME);
}
void ClockMonotonicCoarse(benchmark::State& state) {
    clockLoop(state, CLOCK_MONOTONIC_COARSE);
}
void ClockRealtime(benchmark::State& state) {
    clockLoop(state, CLOCK_REALTIME);
}

#if defined(__x86_64__) || defined(__i386__)
void Rdtsc(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(__rdtsc());
}
void LfenceRdtsc(benchmark::State& state) {
    for (auto _ : state) {
        _mm_lfence();
        benchmark::DoNotOptimize(__rdtsc());
    }
}
void Rdtscp(benchmark::State& state) {
    unsigned aux;
    for (auto _ : state) benchmark::DoNotOptimize(__rdtscp(&aux));
}
#endif

void TimeGetUtcZep(benchmark::State& state) {
    ZEPTimeValue v;
    for (auto _ : state) {
        zepTimeGetUTC(&v);
        benchmark::DoNotOptimize(v);
    }
}

void Gettimeofday(benchmark::State& state) {
    struct timeval tv;
    for (auto _ : state) {
        gettimeofday(&tv, nullptr);
        benchmark::DoNotOptimize(tv);
    }
}

void ConvertToTime(benchmark::State& state) {
    ZEPTickConversionFactor f;
    f.initialize();
    ZEPTickDelta d(123456789012ull);
    Uint32 s, ns;
    for (auto _ : state) {
        benchmark::DoNotOptimize(d.value);
        d.convertToTime(f, s, ns);
        benchmark::DoNotOptimize(s);
        benchmark::DoNotOptimize(ns);
    }
}

}  // namespace

BENCHMARK(TickReadZep)->Name("tick_read/zep:ZEPTick::read")->Repetitions(5);
BENCHMARK(TickReadInline)->Name("tick_read/zep:inline_counter")->Repetitions(5);
BENCHMARK(ClockMonotonic)->Name("tick_read/peer:clock_gettime(MONOTONIC)")->Repetitions(5);
BENCHMARK(ClockMonotonicRaw)->Name("tick_source/MONOTONIC_RAW")->Repetitions(5);
BENCHMARK(ClockBoottime)->Name("tick_source/BOOTTIME")->Repetitions(5);
BENCHMARK(ClockMonotonicCoarse)->Name("tick_source/MONOTONIC_COARSE")->Repetitions(5);
#if defined(__x86_64__) || defined(__i386__)
BENCHMARK(Rdtsc)->Name("tick_source/rdtsc")->Repetitions(5);
BENCHMARK(LfenceRdtsc)->Name("tick_source/lfence+rdtsc")->Repetitions(5);
BENCHMARK(Rdtscp)->Name("tick_source/rdtscp")->Repetitions(5);
#endif
BENCHMARK(TimeGetUtcZep)->Name("utc_time/zep:zepTimeGetUTC")->Repetitions(5);
BENCHMARK(ClockRealtime)->Name("utc_time/peer:clock_gettime(REALTIME)")->Repetitions(5);
BENCHMARK(Gettimeofday)->Name("utc_time/peer:gettimeofday")->Repetitions(5);
BENCHMARK(ConvertToTime)->Name("tick_convert/zep:convertToTime")->Repetitions(5);
