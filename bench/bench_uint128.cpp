// bench_numerics, 128-bit part: Uint128 to text and division beside the compiler's
// unsigned __int128, written two ways a user would: one division by 10 per digit, and the
// careful split by 10^19 into 64-bit chunks.
#include <benchmark/benchmark.h>
#include <string.h>

#include <random>
#include <vector>

#include "zepint128.h"

namespace {

typedef unsigned __int128 U128;

const int kCount = 1024;  // a power of two: the loops index with a mask

// Full-width values, so every text has 38 or 39 digits and every division has wide operands.
std::vector<U128>& values() {
    static std::vector<U128> v = [] {
        std::vector<U128> r;
        std::mt19937_64 rng(7);
        for (int i = 0; i < kCount; ++i) r.push_back(((U128)(rng() | (1ull << 63)) << 64) | rng());
        return r;
    }();
    return v;
}

std::vector<U128>& divisors() {
    static std::vector<U128> v = [] {
        std::vector<U128> r;
        std::mt19937_64 rng(8);
        for (int i = 0; i < kCount; ++i) {
            U128 d = (((U128)rng() << 64) | rng()) >> (rng() % 120);
            r.push_back(d == 0 ? 1 : d);
        }
        return r;
    }();
    return v;
}

// ---- text

void ToTextZep(benchmark::State& state) {
    std::vector<Uint128> in;
    for (U128 v : values()) in.emplace_back((Uint64)(v >> 64), (Uint64)v);
    char buf[48];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(in[i++ & (kCount - 1)].toString(buf, sizeof buf));
        benchmark::DoNotOptimize(buf);
    }
}

int divideBy10(U128 v, char* buf) {
    char tmp[40];
    int n = 0;
    do {
        tmp[n++] = (char)('0' + (int)(v % 10));
        v /= 10;
    } while (v != 0);
    for (int k = 0; k < n; ++k) buf[k] = tmp[n - 1 - k];
    buf[n] = 0;
    return n;
}

void ToTextDivideBy10(benchmark::State& state) {
    char buf[48];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(divideBy10(values()[i++ & (kCount - 1)], buf));
        benchmark::DoNotOptimize(buf);
    }
}

// What a careful user writes: split by 10^19, then 64-bit digits two at a time.
const char kPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

char* put64(char* end, Uint64 v, int minDigits) {
    char* start = end;
    while (v >= 100) {
        Uint64 q = v / 100;
        end -= 2;
        memcpy(end, kPairs + 2 * (v - q * 100), 2);
        v = q;
    }
    if (v >= 10) {
        end -= 2;
        memcpy(end, kPairs + 2 * v, 2);
    } else {
        *--end = (char)('0' + v);
    }
    while (start - end < minDigits) *--end = '0';
    return end;
}

int splitBy1e19(U128 v, char* buf) {
    const U128 p = 10000000000000000000ull;
    char tmp[48];
    char* end = tmp + sizeof tmp;
    char* s;
    if (v >> 64 == 0) {
        s = put64(end, (Uint64)v, 1);
    } else {
        U128 q = v / p;
        s = put64(end, (Uint64)(v % p), 19);
        if (q >> 64 == 0 && (Uint64)q < (Uint64)p) {
            s = put64(s, (Uint64)q, 1);
        } else {
            s = put64(s, (Uint64)(q % p), 19);
            s = put64(s, (Uint64)(q / p), 1);
        }
    }
    int n = (int)(end - s);
    memcpy(buf, s, (size_t)n);
    buf[n] = 0;
    return n;
}

void ToTextSplit(benchmark::State& state) {
    char buf[48];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(splitBy1e19(values()[i++ & (kCount - 1)], buf));
        benchmark::DoNotOptimize(buf);
    }
}

// ---- division

void DivideZep(benchmark::State& state) {
    std::vector<Uint128> a, b;
    for (int k = 0; k < kCount; ++k) {
        a.emplace_back((Uint64)(values()[k] >> 64), (Uint64)values()[k]);
        b.emplace_back((Uint64)(divisors()[k] >> 64), (Uint64)divisors()[k]);
    }
    size_t i = 0;
    for (auto _ : state) {
        size_t k = i++ & (kCount - 1);
        benchmark::DoNotOptimize(a[k] / b[k]);
    }
}

void DivideBuiltin(benchmark::State& state) {
    size_t i = 0;
    for (auto _ : state) {
        size_t k = i++ & (kCount - 1);
        U128 a = values()[k], b = divisors()[k];
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(a / b);
    }
}

// The digits must agree before any timing means anything.
bool digitsAgree() {
    char a[48], b[48], c[48];
    for (U128 v : values()) {
        Uint128 u((Uint64)(v >> 64), (Uint64)v);
        u.toString(a, sizeof a);
        divideBy10(v, b);
        splitBy1e19(v, c);
        if (strcmp(a, b) != 0 || strcmp(a, c) != 0) return false;
    }
    return true;
}

const bool kChecked = [] {
    if (!digitsAgree()) {
        fprintf(stderr, "Uint128 digits differ from the reference\n");
        abort();
    }
    return true;
}();

}  // namespace

BENCHMARK(ToTextZep)->Name("uint128_to_text/zep")->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(ToTextSplit)
    ->Name("uint128_to_text/peer:__int128 split by 10^19")
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(ToTextDivideBy10)
    ->Name("uint128_to_text/peer:__int128 divide by 10")
    ->Repetitions(5)
    ->ReportAggregatesOnly();
BENCHMARK(DivideZep)->Name("uint128_divide/zep")->Repetitions(5)->ReportAggregatesOnly();
BENCHMARK(DivideBuiltin)
    ->Name("uint128_divide/peer:__int128")
    ->Repetitions(5)
    ->ReportAggregatesOnly();
