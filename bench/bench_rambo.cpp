// The ring's cost per record beside the physical limit of its design, a naive fetch-add ring of
// 64-byte slots (claim with one atomic add, copy the bytes, nothing else: no stamps, no modes, no
// reader could tell a torn slot), and beside an enabled LTTng-UST event carrying the same bytes
// where its development files are installed. One-slot records (52 payload bytes) and two-slot
// records (116), from one thread, two threads and two processes. Then the dump reader's
// throughput over a 64 MiB instantaneous dump from the page cache, forward and backward.
//
// The program prints each zep case beside its peers as a ratio (below 1: zep is faster). LTTng's
// events only cost what they cost inside a session that has them enabled:
//     lttng create zeprambo --output=/tmp/zeprambo-lttng
//     lttng enable-event -u 'zeprambo:*' && lttng start
//     bench_rambo
//     lttng destroy zeprambo
// Without a session the LTTng cases are named "peer:lttng_disabled".
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "rambo_consumer.h"
#include "zep.h"
#include "zepbench.h"

#ifdef ZEP_BENCH_LTTNG
#define TRACEPOINT_DEFINE
#define TRACEPOINT_CREATE_PROBES
#include "zeprambo_tp.h"
#endif

namespace {

// 32 chunks: the slots begin 896 bytes into the area, on a cache line when the area is on one.
constexpr Uint32 kRingSize = 0x400000;
constexpr Uint32 kRingSlots = kRingSize / 64;

// The payload every writer copies in: what a trace record's fields would be.
struct Source {
    alignas(64) Uint8 bytes[128];
    Source() {
        for (Uint32 i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<Uint8>(i * 7 + 1);
    }
};
const Source g_source;

// Shared anonymous memory: threads and forked processes see the same ring.
void* sharedBlock(size_t bytes) {
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) abort();
    return p;
}

RamboCB* zepRing(Uint32 mode) {
    static std::map<Uint32, RamboCB*> rings;
    RamboCB*& ring = rings[mode];
    if (ring == nullptr) {
        ring = static_cast<RamboCB*>(sharedBlock(ramboGetAllocSize(kRingSize)));
        if (ramboInitialize(ring, kRingSize, mode) != 0) abort();
    }
    return ring;
}

struct NaiveRing {
    alignas(64) Uint32 next;
    alignas(64) Uint8 slots[kRingSlots][64];
};

NaiveRing* naiveRing() {
    static NaiveRing* ring = static_cast<NaiveRing*>(sharedBlock(sizeof(NaiveRing)));
    return ring;
}

template <Uint32 kSlots>
inline void zepRecord(RamboCB* ring) {
    constexpr Uint32 payload = kSlots * 64 - 12;
    RamboReservation r;
    void* p = kSlots == 1 ? ramboReserveOneSlot(ring, &r) : ramboReserveSlots(ring, payload, &r);
    memcpy(p, g_source.bytes, payload);
    ramboSync(ring, &r);
}

template <Uint32 kSlots>
inline void naiveRecord(NaiveRing* ring) {
    const Uint32 sequence = __atomic_fetch_add(&ring->next, kSlots, __ATOMIC_SEQ_CST);
    for (Uint32 i = 0; i < kSlots; ++i)
        memcpy(ring->slots[(sequence + i) & (kRingSlots - 1)], g_source.bytes + i * 64, 64);
}

template <Uint32 kSlots>
void Zep(benchmark::State& state) {
    RamboCB* ring = zepRing(RAMBO_MODE_WRAP);
    for (auto _ : state) zepRecord<kSlots>(ring);
    state.SetItemsProcessed(state.iterations());
}

template <Uint32 kSlots>
void Naive(benchmark::State& state) {
    NaiveRing* ring = naiveRing();
    for (auto _ : state) naiveRecord<kSlots>(ring);
    state.SetItemsProcessed(state.iterations());
}

// A chunked ring with auto dump on, drained by a consumer thread into /dev/null: the writers'
// compare-and-swap and adds on the chunk records, and their waits when they catch it up. The
// ring is larger than the others, so that a consumer thread that the scheduler holds up for some
// milliseconds doesn't stop the writers at once.
template <Uint32 kSlots>
void ZepChunked(benchmark::State& state) {
    static RamboCB* ring = nullptr;
    static RamboChunkConsumer consumer;
    static ZEPHFile sink;
    static std::thread drainer;
    static bool stop = false;
    constexpr Uint32 kChunkedSize = 0x4000000;
    if (state.thread_index() == 0) {
        ring = static_cast<RamboCB*>(sharedBlock(ramboGetAllocSize(kChunkedSize)));
        if (ramboInitialize(ring, kChunkedSize, RAMBO_MODE_CHUNKED) != 0) abort();
        ZEPFileOpenParam open;
        open.path = "/dev/null";
        open.creation = ZEP_FILE_OPEN_EXISTING;
        open.access = ZEP_FILE_ACCESS_WRITE;
        if (sink.open(&open) != 0 || consumer.start(ring, &sink) != 0) abort();
        stop = false;
        drainer = std::thread([] {
            while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE)) {
                Uint32 chunks = 0;
                consumer.drain(&chunks);
                // Polling without a pause would keep the chunk records' cache line away from
                // the writers.
                if (chunks == 0) usleep(200);
            }
        });
    }
    for (auto _ : state) zepRecord<kSlots>(ring);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        __atomic_store_n(&stop, true, __ATOMIC_RELEASE);
        drainer.join();
        consumer.stop(false);
        sink.close();
        munmap(ring, ramboGetAllocSize(kChunkedSize));
    }
}

// Two processes writing one ring, each `kPerProcess` records per round; the time given is the
// round's wall time per record of one writer, as for threads.
constexpr Uint32 kPerProcess = 200000;

template <typename Write>
void twoProcesses(benchmark::State& state, Write write) {
    for (auto _ : state) {
        timespec t0, t1;
        clock_gettime(CLOCK_MONOTONIC, &t0);
        pid_t pids[2];
        for (pid_t& pid : pids) {
            pid = fork();
            if (pid == 0) {
                for (Uint32 i = 0; i < kPerProcess; ++i) write();
                _exit(0);
            }
        }
        for (pid_t pid : pids) waitpid(pid, nullptr, 0);
        clock_gettime(CLOCK_MONOTONIC, &t1);
        const double seconds = (t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) * 1e-9;
        state.SetIterationTime(seconds / kPerProcess);
    }
}

template <Uint32 kSlots>
void ZepProcesses(benchmark::State& state) {
    RamboCB* ring = zepRing(RAMBO_MODE_WRAP);
    twoProcesses(state, [ring] { zepRecord<kSlots>(ring); });
}

template <Uint32 kSlots>
void NaiveProcesses(benchmark::State& state) {
    NaiveRing* ring = naiveRing();
    twoProcesses(state, [ring] { naiveRecord<kSlots>(ring); });
}

#ifdef ZEP_BENCH_LTTNG
void Lttng1(benchmark::State& state) {
    for (auto _ : state) tracepoint(zeprambo, rec52, g_source.bytes);
    state.SetItemsProcessed(state.iterations());
}
void Lttng2(benchmark::State& state) {
    for (auto _ : state) tracepoint(zeprambo, rec116, g_source.bytes);
    state.SetItemsProcessed(state.iterations());
}
#endif

// ---- the reader

// A 64 MiB instantaneous dump of a wrapped ring of mixed records (1 to 8 slots), written once.
const std::string& dumpFile() {
    static std::string path;
    if (!path.empty()) return path;
    const Uint32 size = 64u << 20;
    std::vector<Uint8> area(ramboGetAllocSize(size));
    RamboCB* ring = reinterpret_cast<RamboCB*>(area.data());
    if (ramboInitialize(ring, size, RAMBO_MODE_WRAP) != 0) abort();
    for (Uint32 i = 0; ring->nextSequence < size / 64 + size / 128; ++i) {
        RamboReservation r;
        const Uint32 payload = (1 + i % 8) * 64 - 12;
        memcpy(ramboReserveSlots(ring, payload, &r), g_source.bytes, std::min(payload, 128u));
        ramboSync(ring, &r);
    }
    char tmpl[] = "/tmp/zepbenchramboXXXXXX";
    const int fd = mkstemp(tmpl);
    RamboDumpHeader header;
    void* slots;
    Uint32 bytes;
    RamboDumpTail tail;
    ramboGetDumpHeaderBuffer(ring, 1, &header, &slots, &bytes);
    ramboGetDumpTail(ring, &tail);
    if (write(fd, &header, sizeof header) != sizeof header ||
        write(fd, slots, bytes) != static_cast<ssize_t>(bytes) ||
        write(fd, &tail, sizeof tail) != sizeof tail)
        abort();
    close(fd);
    path = tmpl;
    atexit([] { unlink(path.c_str()); });
    return path;
}

void parse(benchmark::State& state, bool forward) {
    ZEPFileOpenParam open;
    open.path = dumpFile().c_str();
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    ZEPHFile file;
    if (file.open(&open) != 0) abort();
    Uint64 records = 0;
    for (auto _ : state) {
        ZEPFileSeekParam start;
        file.seek(&start);
        RamboDumpParser parser;
        if (ramboOpenDumpFileParser(&file, &parser, forward) != 0) abort();
        Uint64 offset;
        while (ramboParseDumpFile(&file, &parser, &offset, nullptr, 0) != 0) ++records;
        ramboCloseDumpFileParser(&parser);
    }
    file.close();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (64 << 20));
    state.counters["records"] = static_cast<double>(records) / state.iterations();
}

void ParseForward(benchmark::State& state) {
    parse(state, true);
}
void ParseBackward(benchmark::State& state) {
    parse(state, false);
}

void registerAll() {
    struct Writer {
        const char* name;
        void (*one)(benchmark::State&);
        void (*two)(benchmark::State&);
        void (*processesOne)(benchmark::State&);
        void (*processesTwo)(benchmark::State&);
    };
    const Writer writers[] = {
        {"zep", Zep<1>, Zep<2>, ZepProcesses<1>, ZepProcesses<2>},
        {"zep_chunked_consumer", ZepChunked<1>, ZepChunked<2>, nullptr, nullptr},
        {"peer:naive_ring", Naive<1>, Naive<2>, NaiveProcesses<1>, NaiveProcesses<2>},
    };
    for (const Writer& w : writers) {
        for (int threads : {1, 2}) {
            const std::string suffix = std::string(threads == 1 ? "_1thread/" : "_2threads/");
            benchmark::RegisterBenchmark(("record1" + suffix + w.name).c_str(), w.one)
                ->Threads(threads)
                ->UseRealTime()
                ->Repetitions(5);
            benchmark::RegisterBenchmark(("record2" + suffix + w.name).c_str(), w.two)
                ->Threads(threads)
                ->UseRealTime()
                ->Repetitions(5);
        }
        if (w.processesOne == nullptr) continue;
        benchmark::RegisterBenchmark((std::string("record1_2processes/") + w.name).c_str(),
                                     w.processesOne)
            ->UseManualTime()
            ->Iterations(10)
            ->Repetitions(5);
        benchmark::RegisterBenchmark((std::string("record2_2processes/") + w.name).c_str(),
                                     w.processesTwo)
            ->UseManualTime()
            ->Iterations(10)
            ->Repetitions(5);
    }
#ifdef ZEP_BENCH_LTTNG
    const std::string lttng =
        tracepoint_enabled(zeprambo, rec52) ? "peer:lttng" : "peer:lttng_disabled";
    for (int threads : {1, 2}) {
        const std::string suffix = threads == 1 ? "_1thread/" : "_2threads/";
        benchmark::RegisterBenchmark(("record1" + suffix + lttng).c_str(), Lttng1)
            ->Threads(threads)
            ->UseRealTime()
            ->Repetitions(5);
        benchmark::RegisterBenchmark(("record2" + suffix + lttng).c_str(), Lttng2)
            ->Threads(threads)
            ->UseRealTime()
            ->Repetitions(5);
    }
#endif
    benchmark::RegisterBenchmark("parse_64MiB/zep forward", ParseForward)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Repetitions(5);
    benchmark::RegisterBenchmark("parse_64MiB/zep backward", ParseBackward)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Repetitions(5);
}

}  // namespace

int main(int argc, char** argv) {
    return zepBenchMain(argc, argv, ZepRatioReporter::kWall, true, registerAll);
}
