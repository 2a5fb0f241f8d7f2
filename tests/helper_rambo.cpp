// helper_rambo - the processes of the ring's stress tests, around one ring in a shared mapping.
//
//   helper_rambo write FD ID RECORDS PAUSE
//                                      two threads, writers 2*ID and 2*ID+1, write RECORDS records
//                                      each (a stopping ring: until a record overflows), sleeping
//                                      PAUSE microseconds after each record if PAUSE isn't 0
//   helper_rambo copy FD PATH          until told to stop: copies the ring into the instantaneous
//                                      dump PATH and walks it forward and backward
//   helper_rambo consume FD PATH       until told to stop: drains the chunked ring into the auto
//                                      dump PATH; then writes the rest and clears auto dump
//
// The mapping holds StressShared at offset 0 and the ring at kRingOffset; FD is inherited. All
// start when `go` is set. A record is 1 to 40 slots; its payload is: writer, the writer's record
// counter, a checksum, and filler derived from the writer and the counter, to the last byte.
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "rambo_consumer.h"
#include "zep.h"
#include "zeptest_stress.h"

namespace {

constexpr Uint32 kWriters = 8;
constexpr size_t kRingOffset = 4096;

struct StressShared {
    Uint32 go;
    Uint32 stop;
    Uint32 landed[kWriters];             // records of each writer that went into the ring
    Uint32 overflowCalls[kWriters / 2];  // overflow callbacks, per writing process
    Uint32 dumps;                        // instantaneous dumps made and walked
    Uint32 badRecords;                   // delivered with a wrong checksum, size or writer
    Uint32 orderErrors;                  // a writer's records out of claim order
    Uint32 directionMismatches;          // forward and backward delivered different counts
    Uint64 recordsChecked;
    Uint32 consumerRc;
    Uint32 consumerChunks;
    Uint32 inFlight[kWriters];  // wrapping ring: lowest sequence a writer may be writing, or kIdle
};

constexpr Uint32 kIdle = 0xFFFFFFFF;

RamboCB* s_ring = nullptr;
StressShared* s_shared = nullptr;
Uint32 s_process = 0;

Uint32 fnv(const Uint8* p, Uint32 size, Uint32 h) {
    for (Uint32 i = 0; i < size; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

// The payload of record `counter` of `writer`: filler from a generator seeded by both, then the
// checksum over all but its own word.
void fillPayload(Uint8* p, Uint32 size, Uint32 writer, Uint32 counter) {
    memcpy(p, &writer, 4);
    memcpy(p + 4, &counter, 4);
    Uint64 x = (static_cast<Uint64>(writer) << 32 | counter) * 0x9E3779B97F4A7C15ull + 1;
    for (Uint32 i = 12; i < size; i += 4) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        const Uint32 word = static_cast<Uint32>(x);
        memcpy(p + i, &word, size - i < 4 ? size - i : 4);
    }
    const Uint32 sum = fnv(p + 12, size - 12, fnv(p, 8, 2166136261u));
    memcpy(p + 8, &sum, 4);
}

bool payloadValid(const Uint8* p, Uint32 size, Uint32* writer, Uint32* counter) {
    if (size < 52 || (size + 12) % 64 != 0) return false;
    Uint32 sum;
    memcpy(writer, p, 4);
    memcpy(counter, p + 4, 4);
    memcpy(&sum, p + 8, 4);
    return *writer < kWriters && sum == fnv(p + 12, size - 12, fnv(p, 8, 2166136261u));
}

void onOverflow() {
    __atomic_fetch_add(&s_shared->overflowCalls[s_process], 1, __ATOMIC_RELAXED);
}

void waitForGo() {
    while (__atomic_load_n(&s_shared->go, __ATOMIC_ACQUIRE) == 0) usleep(100);
}

bool stopAsked() {
    return __atomic_load_n(&s_shared->stop, __ATOMIC_ACQUIRE) != 0;
}

// Without chunks nothing keeps a fast writer from lapping a slow one that the scheduler holds up
// in the middle of a record: the two records' stores interleave, and one of them may be torn
// behind stamps that still agree. The design leaves that to chance, and on a loaded machine it
// happens. So the writers of a wrapping ring keep a rule among themselves: each announces a lower
// bound of its claim before it claims, and after claiming waits until no other writer is still
// writing the previous lap's records under its slots. The ring itself knows nothing of this.
void announce(Uint32 writer, Uint32 sequence) {
    __atomic_store_n(&s_shared->inFlight[writer], sequence, __ATOMIC_SEQ_CST);
}

void waitUntilLapFree(Uint32 writer, Uint32 limit) {
    for (Uint32 w = 0; w < kWriters; ++w) {
        if (w == writer) continue;
        for (;;) {
            const Uint32 other = __atomic_load_n(&s_shared->inFlight[w], __ATOMIC_SEQ_CST);
            if (other == kIdle || static_cast<Sint32>(other - limit) >= 0) break;
            sched_yield();
        }
    }
}

// The writers of a chunked ring are ordered by the consumer, which lives in another process, where
// the thread sanitizer can't follow it: to it, the two threads of a writing process would seem to
// write the same slots a lap apart unordered. Their ring accesses are kept from it here; the
// protocol itself is checked between threads of one process (test_rambo_stress).
#if defined(__SANITIZE_THREAD__)
#define ZEP_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEP_TEST_TSAN 1
#endif
#endif
#ifdef ZEP_TEST_TSAN
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
void ignoreAccessesBegin() {
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
}
void ignoreAccessesEnd() {
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
}
#else
void ignoreAccessesBegin() {}
void ignoreAccessesEnd() {}
#endif

void writeRecords(Uint32 writer, Uint32 records, Uint32 pause) {
    RamboCB* cb = s_ring;
    const Uint8* overflowArea = reinterpret_cast<Uint8*>(cb) + cb->overflowOffset;
    Uint64 rng = writer * 0x2545F4914F6CDD1Dull + 7;
    Uint32 landed = 0;
    const bool guard = cb->wraps && !cb->chunked;
    for (Uint32 k = 0; k < records; ++k) {
        rng ^= rng << 13;
        rng ^= rng >> 7;
        rng ^= rng << 17;
        const Uint32 slots = 1 + static_cast<Uint32>(rng % 40);
        const Uint32 size = slots * RAMBO_SLOT_SIZE - RAMBO_RECORD_OVERHEAD;
        if (guard) announce(writer, __atomic_load_n(&cb->nextSequence, __ATOMIC_SEQ_CST));
        if (cb->chunked) ignoreAccessesBegin();
        RamboReservation r;
        Uint8* payload =
            static_cast<Uint8*>(slots == 1 && (rng & 0x100) != 0 ? ramboReserveOneSlot(cb, &r)
                                                                 : ramboReserveSlots(cb, size, &r));
        if (guard) {
            announce(writer, r.sequence);
            waitUntilLapFree(writer, r.sequence + slots - cb->slotCount);
        }
        // A stopping ring sends this and every later claim past its end. All such writers share
        // the overflow area; nobody reads it, so the payload is left out there.
        const bool overflowed = r.slot == overflowArea;
        if (!overflowed) fillPayload(payload, size, writer, k);
        ramboSync(cb, &r);
        if (cb->chunked) ignoreAccessesEnd();
        if (guard) announce(writer, kIdle);
        if (overflowed) break;
        landed = k + 1;
        if (pause != 0) usleep(pause);
    }
    __atomic_store_n(&s_shared->landed[writer], landed, __ATOMIC_RELEASE);
    // A no-op claim: a writer of this process that laps the ring after this thread has gone
    // orders its stores after this thread's last record (the thread sanitizer sees the rest of
    // the ring's protocol, not that a record is finished before it is lapped).
    __atomic_fetch_add(&cb->nextSequence, 0, __ATOMIC_SEQ_CST);
}

int writers(Uint32 id, Uint32 records, Uint32 pause) {
    s_process = id;
    ramboSetCallBack(onOverflow);
    waitForGo();
    std::thread other(writeRecords, 2 * id + 1, records, pause);
    writeRecords(2 * id, records, pause);
    other.join();
    return 0;
}

// Walks the dump at `path` in one direction and checks every record; the count delivered.
Uint64 walk(const char* path, bool forward) {
    ZEPFileOpenParam open;
    open.path = path;
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    ZEPHFile file;
    if (file.open(&open) != 0) return 0;
    RamboDumpParser parser;
    Uint64 delivered = 0;
    if (ramboOpenDumpFileParser(&file, &parser, forward) == 0) {
        std::vector<Uint8> payload(RAMBO_CHUNK_SIZE);
        std::vector<Sint64> last(kWriters, forward ? -1 : INT64_MAX);
        Uint32 size;
        while ((size = ramboParseDumpFile(&file, &parser, nullptr, payload.data(),
                                          static_cast<Uint32>(payload.size()))) != 0) {
            ++delivered;
            Uint32 writer, counter;
            if (!payloadValid(payload.data(), size, &writer, &counter)) {
                __atomic_fetch_add(&s_shared->badRecords, 1, __ATOMIC_RELAXED);
                continue;
            }
            if (forward ? counter <= last[writer] : counter >= last[writer])
                __atomic_fetch_add(&s_shared->orderErrors, 1, __ATOMIC_RELAXED);
            last[writer] = counter;
        }
        ramboCloseDumpFileParser(&parser);
    }
    file.close();
    return delivered;
}

// The dumping program's way: header, then the slots as they are this instant, then the tail.
int copy(const char* path) {
    RamboCB* cb = s_ring;
    std::vector<Uint8> image(sizeof(RamboDumpHeader) + cb->bufferSize + sizeof(RamboDumpTail));
    waitForGo();
    // At least one dump, however quickly the writers are done.
    do {
        RamboDumpHeader* header = reinterpret_cast<RamboDumpHeader*>(image.data());
        void* slots = nullptr;
        Uint32 size = 0;
        RamboDumpTail* tail =
            reinterpret_cast<RamboDumpTail*>(image.data() + sizeof *header + cb->bufferSize);
        if (ramboGetDumpHeaderBuffer(cb, 1, header, &slots, &size) != 0) return 3;
        memcpy(header + 1, slots, size);
        if (ramboGetDumpTail(cb, tail) != 0) return 3;
        FILE* f = fopen(path, "wb");
        if (f == nullptr || fwrite(image.data(), 1, image.size(), f) != image.size()) return 4;
        fclose(f);
        const Uint64 forward = walk(path, true), backward = walk(path, false);
        if (forward != backward)
            __atomic_fetch_add(&s_shared->directionMismatches, 1, __ATOMIC_RELAXED);
        __atomic_fetch_add(&s_shared->recordsChecked, forward + backward, __ATOMIC_RELAXED);
        __atomic_fetch_add(&s_shared->dumps, 1, __ATOMIC_RELAXED);
    } while (!stopAsked());
    return 0;
}

int consume(const char* path) {
    ZEPFileOpenParam open;
    open.path = path;
    open.creation = ZEP_FILE_CREATE_OR_REPLACE;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPHFile file;
    Uint32 rc = file.open(&open);
    RamboChunkConsumer consumer;
    if (rc == 0) rc = consumer.start(s_ring, &file);
    while (rc == 0 && !stopAsked()) {
        Uint32 chunks = 0;
        rc = consumer.drain(&chunks);
        if (chunks == 0) usleep(200);
    }
    // The writers are done by now: the current chunk's committed beginning is the last of it.
    const Uint32 stopped = consumer.stop(true);
    if (rc == 0) rc = stopped;
    file.close();
    s_shared->consumerChunks = static_cast<Uint32>(consumer.chunksWritten());
    __atomic_store_n(&s_shared->consumerRc, rc, __ATOMIC_RELEASE);
    return rc == 0 ? 0 : 5;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    // A writer left waiting for a consumer that died must not outlive the test.
    alarm(300 * zeptestStress());
    const int fd = atoi(argv[2]);
    const off_t size = lseek(fd, 0, SEEK_END);
    void* p = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) return 3;
    s_shared = static_cast<StressShared*>(p);
    s_ring = reinterpret_cast<RamboCB*>(static_cast<Uint8*>(p) + kRingOffset);
    if (strcmp(argv[1], "write") == 0 && argc == 6)
        return writers(static_cast<Uint32>(atoi(argv[3])), static_cast<Uint32>(atoi(argv[4])),
                       static_cast<Uint32>(atoi(argv[5])));
    if (strcmp(argv[1], "copy") == 0) return copy(argv[3]);
    if (strcmp(argv[1], "consume") == 0) return consume(argv[3]);
    return 2;
}
