// bench_numerics: ZEPDecfloat's text conversions beside the Intel decimal floating-point
// library (Debian's libintelrdfpmath-dev: __bid64_from_string, __bid64_to_string and the
// 128-bit forms), on random 16-digit and 34-digit texts; the Uint128 cases are in
// bench_uint128.cpp. This unit holds the program's main, which prints every zep case beside its
// peers as a ratio of medians (below 1: zep is faster).
//
// Cases are named "<case>/zep" and "<case>/peer:<what>"; each runs 5 times.
#define DECIMAL_CALL_BY_REFERENCE 0
#define DECIMAL_GLOBAL_ROUNDING 0
#define DECIMAL_GLOBAL_EXCEPTION_FLAGS 0
#include <benchmark/benchmark.h>
#include <bid_conf.h>
#include <bid_functions.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "zepbench.h"
#include "zepdecfloat.h"

namespace {

const int kCount = 1024;  // a power of two: the loops index with a mask

// Random numbers of exactly `digits` significant digits in scientific form, with exponents
// well inside the format's range: "-3.141592653589793E+127".
std::vector<std::string> makeTexts(int digits, int maxExponent, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<std::string> out;
    for (int i = 0; i < kCount; ++i) {
        char t[64];
        int n = 0;
        if (rng() % 2) t[n++] = '-';
        t[n++] = (char)('1' + rng() % 9);
        t[n++] = '.';
        for (int k = 1; k < digits; ++k) t[n++] = (char)('0' + rng() % 10);
        int e = (int)(rng() % (unsigned)(2 * maxExponent + 1)) - maxExponent;
        snprintf(t + n, sizeof t - (size_t)n, "E%+d", e);
        out.push_back(t);
    }
    return out;
}

const std::vector<std::string>& texts16() {
    static const std::vector<std::string> t = makeTexts(16, 300, 16);
    return t;
}

const std::vector<std::string>& texts34() {
    static const std::vector<std::string> t = makeTexts(34, 6000, 34);
    return t;
}

// The peer wants writable strings.
std::vector<std::vector<char>> writable(const std::vector<std::string>& in) {
    std::vector<std::vector<char>> out;
    for (const std::string& s : in) out.emplace_back(s.c_str(), s.c_str() + s.size() + 1);
    return out;
}

template <class D>
void FromTextZep(benchmark::State& state, const std::vector<std::string>& texts) {
    D d;
    std::vector<const char*> in;
    for (const std::string& s : texts) in.push_back(s.c_str());
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(d.fromString(in[i++ & (kCount - 1)]));
        benchmark::DoNotOptimize(d);
    }
}

template <class D>
void ToTextZep(benchmark::State& state, const std::vector<std::string>& texts) {
    std::vector<D> in;
    for (const std::string& s : texts) in.emplace_back(s.c_str());
    char buf[48];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(in[i++ & (kCount - 1)].toString(buf, 43));
        benchmark::DoNotOptimize(buf);
    }
}

void FromText16Zep(benchmark::State& s) {
    FromTextZep<ZEPDecfloat16>(s, texts16());
}
void FromText34Zep(benchmark::State& s) {
    FromTextZep<ZEPDecfloat34>(s, texts34());
}
void ToText16Zep(benchmark::State& s) {
    ToTextZep<ZEPDecfloat16>(s, texts16());
}
void ToText34Zep(benchmark::State& s) {
    ToTextZep<ZEPDecfloat34>(s, texts34());
}

void FromText16Bid(benchmark::State& state) {
    auto in = writable(texts16());
    _IDEC_flags flags = 0;
    size_t i = 0;
    for (auto _ : state) {
        BID_UINT64 x =
            bid64_from_string(in[i++ & (kCount - 1)].data(), BID_ROUNDING_TO_NEAREST, &flags);
        benchmark::DoNotOptimize(x);
    }
}

void FromText34Bid(benchmark::State& state) {
    auto in = writable(texts34());
    _IDEC_flags flags = 0;
    size_t i = 0;
    for (auto _ : state) {
        BID_UINT128 x =
            bid128_from_string(in[i++ & (kCount - 1)].data(), BID_ROUNDING_TO_NEAREST, &flags);
        benchmark::DoNotOptimize(x);
    }
}

void ToText16Bid(benchmark::State& state) {
    auto texts = writable(texts16());
    std::vector<BID_UINT64> in;
    _IDEC_flags flags = 0;
    for (auto& t : texts)
        in.push_back(bid64_from_string(t.data(), BID_ROUNDING_TO_NEAREST, &flags));
    char buf[64];
    size_t i = 0;
    for (auto _ : state) {
        bid64_to_string(buf, in[i++ & (kCount - 1)], &flags);
        benchmark::DoNotOptimize(buf);
    }
}

void ToText34Bid(benchmark::State& state) {
    auto texts = writable(texts34());
    std::vector<BID_UINT128> in;
    _IDEC_flags flags = 0;
    for (auto& t : texts)
        in.push_back(bid128_from_string(t.data(), BID_ROUNDING_TO_NEAREST, &flags));
    char buf[64];
    size_t i = 0;
    for (auto _ : state) {
        bid128_to_string(buf, in[i++ & (kCount - 1)], &flags);
        benchmark::DoNotOptimize(buf);
    }
}

// Every text must read exactly, and its text read back as the same number, or the timings
// compare nothing.
const bool kChecked = [] {
    for (const auto* set : {&texts16(), &texts34()}) {
        for (const std::string& t : *set) {
            const Uint32 size = set == &texts16() ? 64u : 128u;
            ZEPDecfloat d(t.c_str(), size);
            char buf[48];
            bool ok = d.context().status == 0 && d.toString(buf, 43) == 0;
            ZEPDecfloat back(buf, size);
            const ZEPDecValue &a = d.number(), &b = back.number();
            if (!ok || a.digits != b.digits || a.exponent != b.exponent || a.bits != b.bits ||
                memcmp(a.coefficient, b.coefficient, sizeof a.coefficient) != 0) {
                fprintf(stderr, "%s does not read back as itself\n", t.c_str());
                abort();
            }
        }
    }
    return true;
}();

}  // namespace

#define ZEP_BENCH_CASE(fn, name) BENCHMARK(fn)->Name(name)->Repetitions(5)->ReportAggregatesOnly()

ZEP_BENCH_CASE(FromText16Zep, "decfloat16_from_text/zep");
ZEP_BENCH_CASE(FromText16Bid, "decfloat16_from_text/peer:__bid64_from_string");
ZEP_BENCH_CASE(ToText16Zep, "decfloat16_to_text/zep");
ZEP_BENCH_CASE(ToText16Bid, "decfloat16_to_text/peer:__bid64_to_string");
ZEP_BENCH_CASE(FromText34Zep, "decfloat34_from_text/zep");
ZEP_BENCH_CASE(FromText34Bid, "decfloat34_from_text/peer:__bid128_from_string");
ZEP_BENCH_CASE(ToText34Zep, "decfloat34_to_text/zep");
ZEP_BENCH_CASE(ToText34Bid, "decfloat34_to_text/peer:__bid128_to_string");

int main(int argc, char** argv) {
    return zepBenchMain(argc, argv, ZepRatioReporter::kWall);
}
