// helper_rambo - the processes of the ring's stress tests, around one ring in a shared mapping
// (zeptest_rambo.h: the counters at its head, the ring at kRingOffset, the records).
//   helper_rambo write FD ID RECORDS PAUSE  two threads, writers 2*ID and 2*ID+1, write RECORDS
//       records of 1 to 40 slots each (a stopping ring: until a record overflows), sleeping PAUSE
//       microseconds after each if PAUSE isn't 0
//   helper_rambo copy FD PATH     until told to stop: copies the ring into the instantaneous dump
//       PATH and walks it forward and backward
//   helper_rambo consume FD PATH  until told to stop: drains the chunked ring into the auto dump
//       PATH; then writes the rest and clears auto dump
// FD is inherited; all start when `go` is set.
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>

#include "rambo_consumer.h"
#include "zeptest_rambo.h"
#include "zeptest_stress.h"

namespace {

using namespace zeptest;

constexpr Uint32 kIdle = 0xFFFFFFFF;

RamboCB* s_ring = nullptr;
StressShared* s_shared = nullptr;
Uint32 s_process = 0;

void onOverflow() {
    __atomic_fetch_add(&s_shared->overflowCalls[s_process], 1, __ATOMIC_RELAXED);
}

void waitForGo() {
    while (__atomic_load_n(&s_shared->go, __ATOMIC_ACQUIRE) == 0) usleep(100);
}

bool stopAsked() {
    return __atomic_load_n(&s_shared->stop, __ATOMIC_ACQUIRE) != 0;
}

// Without chunks a fast writer may lap a slow one held up mid-record and tear it behind agreeing
// stamps; on a loaded machine it happens. So the writers of a wrapping ring announce a lower bound
// of their claims and wait until no other writer still writes the previous lap under their slots.
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

// The consumer that orders the writers of a chunked ring lives in another process, where the
// thread sanitizer can't follow it; the protocol is checked between threads in test_rambo_stress.
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
        // Past a stopping ring's end all writers share the overflow area, which nobody reads.
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
    // A no-op claim orders a later lap by this process's other writer after this last record.
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
        // Only the copier writes these.
        const Walked forward = walkDump(path, true), backward = walkDump(path, false);
        s_shared->directionMismatches += forward.total != backward.total;
        s_shared->badRecords += forward.bad + backward.bad;
        s_shared->orderErrors += !forward.ordered(true) || !backward.ordered(false) ||
                                 forward.rc != 0 || backward.rc != 0;
        s_shared->recordsChecked += forward.total + backward.total;
        __atomic_fetch_add(&s_shared->dumps, 1, __ATOMIC_RELEASE);
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
