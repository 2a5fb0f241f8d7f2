// bench_primitives: zepStrToSint64 against strtoll, zepSnprintf against snprintf.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include "zep.h"

namespace {

// Numbers as they come: short and long, signed, blank-led, and a few in base 0's forms.
const char* const kDecimal[] = {"0",      "7",          "42",           "-1",
                                "1234",   "  -98765",   "2147483647",   "-2147483648",
                                "100000", "4294967296", "123456789012", "-9223372036854775808",
                                "31",     "65535",      "  17",         "9223372036854775807"};
const char* const kBase0[] = {"0x1F", "0777", "12345", "-0xFFFF", "0", "0X7fffffff", "-42", "010"};

template <class Read>
void readLoop(benchmark::State& state, const char* const* texts, size_t count, int base,
              Read read) {
    size_t i = 0;
    for (auto _ : state) {
        char* end;
        benchmark::DoNotOptimize(read(texts[i], &end, base));
        benchmark::DoNotOptimize(end);
        if (++i == count) i = 0;
    }
}

void StrToZep(benchmark::State& state) {
    readLoop(state, kDecimal, 16, 10, zepStrToSint64);
}
void StrToPeer(benchmark::State& state) {
    readLoop(state, kDecimal, 16, 10, strtoll);
}
void StrToZepBase0(benchmark::State& state) {
    readLoop(state, kBase0, 8, 0, zepStrToSint64);
}
void StrToPeerBase0(benchmark::State& state) {
    readLoop(state, kBase0, 8, 0, strtoll);
}

void SnprintfLockTextZep(benchmark::State& state) {
    char buf[64];
    unsigned v = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            zepSnprintf(buf, sizeof buf, "{ 0x%02X [ %s ] }", (v++) & 0xFF, "locked"));
        benchmark::ClobberMemory();
    }
}
void SnprintfLockTextPeer(benchmark::State& state) {
    char buf[64];
    unsigned v = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            snprintf(buf, sizeof buf, "{ 0x%02X [ %s ] }", (v++) & 0xFF, "locked"));
        benchmark::ClobberMemory();
    }
}
// A text cut by the buffer: the formatter's own work on the truncating path.
void SnprintfCutZep(benchmark::State& state) {
    char buf[16];
    int v = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zepSnprintf(buf, sizeof buf, "%s-%d", "ZEPSYMMUTEX", v++));
        benchmark::ClobberMemory();
    }
}
void SnprintfCutPeer(benchmark::State& state) {
    char buf[16];
    int v = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(snprintf(buf, sizeof buf, "%s-%d", "ZEPSYMMUTEX", v++));
        benchmark::ClobberMemory();
    }
}

}  // namespace

BENCHMARK(StrToZep)->Name("strto_decimal/zep:zepStrToSint64")->Repetitions(5);
BENCHMARK(StrToPeer)->Name("strto_decimal/peer:strtoll")->Repetitions(5);
BENCHMARK(StrToZepBase0)->Name("strto_base0/zep:zepStrToSint64")->Repetitions(5);
BENCHMARK(StrToPeerBase0)->Name("strto_base0/peer:strtoll")->Repetitions(5);
BENCHMARK(SnprintfLockTextZep)->Name("snprintf_lock_text/zep:zepSnprintf")->Repetitions(5);
BENCHMARK(SnprintfLockTextPeer)->Name("snprintf_lock_text/peer:snprintf")->Repetitions(5);
BENCHMARK(SnprintfCutZep)->Name("snprintf_cut/zep:zepSnprintf")->Repetitions(5);
BENCHMARK(SnprintfCutPeer)->Name("snprintf_cut/peer:snprintf")->Repetitions(5);
