// The trace's cost per trace point, beside what a user would pick instead: a naive fetch-add
// ring (claim with one atomic add, write the fields, no stamps, no options) and an enabled
// LTTng-UST event of the same shape. Also the frame with the trace off beside the bare system
// call, and the formatter's throughput. The program prints each zep case beside its peers as a
// ratio (below 1: zep is faster).
//
// LTTng's events only cost what they cost when a session has them enabled; run the program
// inside one:
//     lttng create zepbench --output=/tmp/zepbench-lttng
//     lttng enable-event -u 'zepbench:*' && lttng start
//     bench_gtrace
//     lttng destroy zepbench
// Without a session the LTTng cases are labelled "disabled".
//
// For a stable figure of the frame with the trace off, count instructions:
//     valgrind --tool=callgrind bench_gtrace --renames zep 100000
//     valgrind --tool=callgrind bench_gtrace --renames bare 100000
// (the difference of the totals, divided by the count, is the frame's cost per call in user
// space; the system call's own work happens in the kernel, which callgrind doesn't see).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "trace_format.h"
#include "zep.h"
#include "zepbench.h"

#ifdef ZEP_BENCH_LTTNG
#define TRACEPOINT_DEFINE
#define TRACEPOINT_CREATE_PROBES
#include "zepbench_tp.h"
#endif

namespace {

constexpr Uint32 kRing = 0x100000;
constexpr Uint64 T = 12345;
constexpr Uint32 F = ZEPFN_zepFileRename;

// ---- a trace area per case

struct Area {
    Uint8* mem = nullptr;
    ~Area() { free(mem); }
    void build(Uint32 modeBits, Uint32 flags, const GTCBOptions* base = nullptr) {
        gtraceDetach();
        free(mem);
        GTCBOptions o;
        if (base) memcpy(static_cast<void*>(&o), base, sizeof o);
        o.bufferSize = kRing;
        o.modeBits = modeBits;
        o.flags = flags;
        const size_t size = (gtraceGetAllocSize(kRing) + 4095) & ~size_t{4095};
        mem = static_cast<Uint8*>(aligned_alloc(4096, size));
        memset(mem, 0, size);
        gtraceInitialize(reinterpret_cast<GTCB*>(mem), &o);
        gtraceAttach(reinterpret_cast<GTCB*>(mem), 42, nullptr, nullptr);
        gtraceEnable();
    }
};
Area g_area;

// ---- the naive ring: one atomic add, the same fields, nothing else

struct alignas(64) NaiveRing {
    std::atomic<Uint32> next{0};
    Uint8* slots = nullptr;
    Uint32 mask = 0;
};
NaiveRing g_naive;

void naiveSetUp() {
    if (g_naive.slots) return;
    g_naive.slots = static_cast<Uint8*>(aligned_alloc(4096, kRing));
    memset(g_naive.slots, 0, kRing);
    g_naive.mask = kRing / 64 - 1;
}

inline GTRecord* naiveHeader(Uint32 slot, Uint64 thread, Uint32 function, Uint16 type) {
    GTRecord* r = reinterpret_cast<GTRecord*>(g_naive.slots + (slot & g_naive.mask) * 64 + 8);
    r->time = 0;
    r->threadID = thread;
    r->processID = 42;
    r->functionID = function;
    r->fixedData1 = r->fixedData2 = 0;
    r->recordType = type;
    r->recordFlags = 0;
    r->dataLength = 0;
    return r;
}

__attribute__((noinline)) void naiveEntry(Uint64 thread, Uint32 function) {
    naiveHeader(g_naive.next.fetch_add(1), thread, function, 1);
}

__attribute__((noinline)) void naiveVar(Uint64 thread, Uint32 function, const void* a,
                                        const void* b) {
    Uint32 s = g_naive.next.fetch_add(2);
    if ((s & g_naive.mask) == g_naive.mask) s = g_naive.next.fetch_add(2);  // no wrap inside
    GTRecord* r = naiveHeader(s, thread, function, 3);
    r->probe = 10;
    r->dataLength = 32;
    r->itemCount = 2;
    GTItemDescriptor* d = reinterpret_cast<GTItemDescriptor*>(r + 1);
    d[0] = {0, 8};
    d[1] = {0, 8};
    memcpy(d + 2, a, 8);
    memcpy(reinterpret_cast<Uint8*>(d + 2) + 8, b, 8);
}

// ---- cases

const Uint64 g_a = 0x1111111111111111ull, g_b = 0x2222222222222222ull;

void zepEntry(benchmark::State& state, Uint32 modeBits, Uint32 flags) {
    GTCBOptions o;
    if (flags & (GTRACE_FLAG_FULL_MASK | GTRACE_FLAG_COMPACT_MASK)) {
        // The function on with all its types, as a mask that selects a few functions has it.
        o.traceMask.gtmSetMask(1, 3, ZEP_FUNC_INDEX(F), GTM_WILDCARD, 0, 0);
        o.traceMask.gtmSetMask(1, 2, 0x89, GTM_WILDCARD, 0, 0);
        o.traceMask.gtmReplicateMask(&o.mask);
    }
    g_area.build(modeBits, flags, &o);
    for (auto _ : state) _gtraceEntry(T, F);
    state.SetItemsProcessed(state.iterations());
    gtraceDetach();
}

void zepVar(benchmark::State& state) {
    g_area.build(GTRACE_MODE_WRAP, 0);
    for (auto _ : state) _gtraceVar(T, F, 10, 3, 2, 0u, 8u, &g_a, 0u, 8u, &g_b);
    state.SetItemsProcessed(state.iterations());
    gtraceDetach();
}

void naiveEntryCase(benchmark::State& state) {
    naiveSetUp();
    for (auto _ : state) naiveEntry(T, F);
    state.SetItemsProcessed(state.iterations());
}

void naiveVarCase(benchmark::State& state) {
    naiveSetUp();
    for (auto _ : state) naiveVar(T, F, &g_a, &g_b);
    state.SetItemsProcessed(state.iterations());
}

#ifdef ZEP_BENCH_LTTNG
void lttngEntry(benchmark::State& state) {
    if (!tracepoint_enabled(zepbench, entry)) state.SetLabel("disabled: no session");
    for (auto _ : state) tracepoint(zepbench, entry, T, F);
    state.SetItemsProcessed(state.iterations());
}
void lttngVar(benchmark::State& state) {
    if (!tracepoint_enabled(zepbench, var)) state.SetLabel("disabled: no session");
    for (auto _ : state)
        tracepoint(zepbench, var, T, F, reinterpret_cast<const char*>(&g_a),
                   reinterpret_cast<const char*>(&g_b));
    state.SetItemsProcessed(state.iterations());
}
#endif

// ---- the frame with the trace off, beside the system call

std::string g_dir;

void renames(benchmark::State& state, int how) {
    if (g_dir.empty()) {
        char tmpl[] = "/tmp/zepbenchXXXXXX";
        g_dir = mkdtemp(tmpl);
    }
    gtraceDetach();
    const std::string a = g_dir + "/a", b = g_dir + "/b";
    unlink(b.c_str());
    close(open(a.c_str(), O_CREAT | O_WRONLY, 0600));
    const char* from = a.c_str();
    const char* to = b.c_str();
    for (auto _ : state) {
        int rc;
        if (how == 0)
            rc = zepFileRename(from, to) == 0 ? 0 : -1;
        else if (how == 1)
            rc = rename(from, to);
        else
            rc = static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 1));
        if (rc != 0) state.SkipWithError("rename failed");
        std::swap(from, to);
    }
    state.SetItemsProcessed(state.iterations());
}

// ---- the formatter

std::string g_dumpPath;

void makeDump() {
    if (!g_dumpPath.empty()) return;
    g_area.build(GTRACE_MODE_WRAP, GTRACE_FLAG_TIMESTAMP);
    const Uint32 rc = ECF_FILE_DOESNT_EXIST;
    const char path[] = "/tmp/some/file/name";
    for (int i = 0; i < 2000; ++i) {
        _gtraceEntry(T + i % 4, F);
        _gtraceVar(T + i % 4, F, 10, 3, 2, 0u, 19u, path, 0u, 8u, &g_a);
        _gtraceExit(T + i % 4, F, &rc, 0, 0);
    }
    auto header = std::make_unique<Uint8[]>(sizeof(GTDumpHeader));
    void* store = nullptr;
    Uint32 size = 0;
    RamboDumpTail tail;
    gtraceGetDumpHeaderBuffer(1, reinterpret_cast<GTDumpHeader*>(header.get()), &store, &size);
    gtraceGetDumpTail(&tail);
    gtraceDetach();
    g_dumpPath = (g_dir.empty() ? std::string("/tmp") : g_dir) + "/zepbench.dump";
    FILE* f = fopen(g_dumpPath.c_str(), "wb");
    fwrite(header.get(), sizeof(GTDumpHeader), 1, f);
    fwrite(store, size, 1, f);
    fwrite(&tail, sizeof tail, 1, f);
    fclose(f);
}

void formatCase(benchmark::State& state, zeptrace::View view) {
    makeDump();
    Uint64 records = 0;
    for (auto _ : state) {
        std::string text;
        zeptrace::formatDumpFile(g_dumpPath.c_str(), view, true, &text, &records);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
}

void registerAll() {
    auto reg = [](const std::string& name, auto fn) {
        return benchmark::RegisterBenchmark(name.c_str(), fn)
            ->Repetitions(5)
            ->ReportAggregatesOnly(true);
    };
    reg("off/zep:zepFileRename, trace off", [](benchmark::State& s) { renames(s, 0); });
    reg("off/peer:rename(2)", [](benchmark::State& s) { renames(s, 1); });
    reg("off/peer:renameat2 NOREPLACE", [](benchmark::State& s) { renames(s, 2); });

    reg("entry/zep:_gtraceEntry, no filter",
        [](benchmark::State& s) { zepEntry(s, GTRACE_MODE_WRAP, 0); });
    reg("entry/zep:_gtraceEntry, time stamp",
        [](benchmark::State& s) { zepEntry(s, GTRACE_MODE_WRAP, GTRACE_FLAG_TIMESTAMP); });
    reg("entry/zep:_gtraceEntry, full mask",
        [](benchmark::State& s) { zepEntry(s, GTRACE_MODE_WRAP, GTRACE_FLAG_FULL_MASK); });
    reg("entry/zep:_gtraceEntry, compact mask",
        [](benchmark::State& s) { zepEntry(s, GTRACE_MODE_WRAP, GTRACE_FLAG_COMPACT_MASK); });
    reg("entry/zep:_gtraceEntry, counting",
        [](benchmark::State& s) { zepEntry(s, GTRACE_MODE_COUNTING, 0); });
    reg("entry/peer:naive fetch-add ring", naiveEntryCase);
#ifdef ZEP_BENCH_LTTNG
    reg("entry/peer:LTTng-UST event", lttngEntry);
#endif
    reg("var/zep:_gtraceVar, two 8-byte items", zepVar);
    reg("var/peer:naive fetch-add ring", naiveVarCase);
#ifdef ZEP_BENCH_LTTNG
    reg("var/peer:LTTng-UST event", lttngVar);
#endif
    reg("format/zep:records view, 6000 records", [](benchmark::State& s) {
        formatCase(s, zeptrace::View::Records);
    })->Unit(benchmark::kMillisecond);
    reg("format/zep:flow view, 6000 records", [](benchmark::State& s) {
        formatCase(s, zeptrace::View::Flow);
    })->Unit(benchmark::kMillisecond);
}

// --renames zep|bare N: only the renames, for an instruction count.
int renameLoop(const char* how, long n) {
    char tmpl[] = "/tmp/zepbenchXXXXXX";
    const std::string dir = mkdtemp(tmpl);
    const std::string a = dir + "/a", b = dir + "/b";
    close(open(a.c_str(), O_CREAT | O_WRONLY, 0600));
    const bool zep = strcmp(how, "zep") == 0;
    const char* from = a.c_str();
    const char* to = b.c_str();
    for (long i = 0; i < n; ++i) {
        if (zep ? zepFileRename(from, to) != 0 : rename(from, to) != 0) return 1;
        std::swap(from, to);
    }
    unlink(from);
    rmdir(dir.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && strcmp(argv[1], "--renames") == 0) return renameLoop(argv[2], atol(argv[3]));
    const int rc = zepBenchMain(argc, argv, ZepRatioReporter::kProcessor, true, registerAll);
    if (!g_dir.empty()) {
        const std::string cmd = "rm -rf '" + g_dir + "'";
        if (system(cmd.c_str()) != 0) return 1;
    }
    if (!g_dumpPath.empty()) unlink(g_dumpPath.c_str());
    return rc;
}
