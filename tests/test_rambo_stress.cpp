// Stress of the chunked ring: writers with records of 1 to 40 slots while this thread drains the
// ring into an auto dump; threads alone, where the thread sanitizer can follow the protocol, and
// threads with processes.
#include <sys/mman.h>
#include <unistd.h>

#include <thread>

#include "rambo_consumer.h"
#include "zeptest_rambo.h"
#include "zeptest_stress.h"
#include "zeptest_util.h"

namespace {

using namespace zeptest;

constexpr Uint32 kRingSize = 0x80000, kSlotCount = kRingSize / RAMBO_SLOT_SIZE;

// `records` records of 1 to 40 slots, some by the one-slot reservation.
inline void writeRecords(RamboCB* ring, Uint32 writer, Uint32 records) {
    Uint64 rng = writer * 0x2545F4914F6CDD1Dull + 7;
    for (Uint32 k = 0; k < records; ++k) {
        rng = rng * 6364136223846793005ull + 1442695040888963407ull;
        const Uint32 slots = 1 + static_cast<Uint32>((rng >> 33) % 40), size = slots * 64 - 12;
        RamboReservation r;
        void* p = slots == 1 && (rng >> 20 & 1) ? ramboReserveOneSlot(ring, &r)
                                                : ramboReserveSlots(ring, size, &r);
        fillPayload(static_cast<Uint8*>(p), size, writer, k);
        ramboSync(ring, &r);
    }
}

// Drains a chunked ring into an auto dump at `path` until `*done` writers have finished, then
// writes the rest and switches auto dump off. The chunks written go to `chunks`.
inline Uint32 consume(RamboCB* ring, const std::string& path, const Uint32* done, Uint32 writers,
                      Uint32* chunks) {
    ZEPFileOpenParam open;
    open.path = path.c_str();
    open.creation = ZEP_FILE_CREATE_OR_REPLACE;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPHFile file;
    RamboChunkConsumer consumer;
    Uint32 rc = file.open(&open);
    if (rc == 0) rc = consumer.start(ring, &file);
    for (Uint32 n = 0; rc == 0 && __atomic_load_n(done, __ATOMIC_ACQUIRE) < writers;)
        if ((rc = consumer.drain(&n)) == 0 && n == 0) usleep(100);
    const Uint32 stopped = consumer.stop(true);
    *chunks = static_cast<Uint32>(consumer.chunksWritten());
    file.close();
    return rc ? rc : stopped;
}

// The auto dump holds every record of `writers` writers exactly once, in claim order, both ways.
void expectEveryRecord(const std::string& path, Uint32 writers, Uint32 records) {
    for (bool forward : {true, false}) {
        const Walked w = walkDump(path, forward, forward);
        EXPECT_EQ(w.bad + w.rc, 0u);
        EXPECT_EQ(w.flags, "0 0") << "the dump begins with the ring's first record";
        for (Uint32 t = 0; t < writers; ++t) {
            std::vector<Uint32> c = w.counters[t];
            if (!forward) std::reverse(c.begin(), c.end());
            ASSERT_EQ(c.size(), records) << t;
            for (Uint32 i = 0; i < records; ++i) ASSERT_EQ(c[i], i) << t;
        }
    }
}

}  // namespace

// Writer threads and forked writer processes share one chunked ring in a shared mapping while
// this thread drains it: the ring's protocol between processes is the product's.
TEST(RamboStress, ChunkedRingWithWritersInThreadsAndProcesses) {
    const Uint32 kThreads = 2, kProcesses = 2, kRecords = 3000 * zeptestStress();
    const size_t size = 64 + ramboGetAllocSize(kRingSize);
    void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    Uint32* done = static_cast<Uint32*>(shared);
    RamboCB* ring = reinterpret_cast<RamboCB*>(static_cast<Uint8*>(shared) + 64);
    ASSERT_EQ(ramboInitialize(ring, kRingSize, RAMBO_MODE_CHUNKED), 0u);
    TempDir dir("zepramboauto");
    Uint32 chunks = 0;
    std::vector<pid_t> children;
    for (Uint32 w = kThreads; w < kThreads + kProcesses; ++w) {
        const pid_t child = fork();
        if (child == 0) {
            writeRecords(ring, w, kRecords);
            __atomic_add_fetch(done, 1, __ATOMIC_RELEASE);
            _exit(0);
        }
        children.push_back(child);
    }
    std::vector<std::thread> writers;
    for (Uint32 w = 0; w < kThreads; ++w)
        writers.emplace_back([&, w] {
            writeRecords(ring, w, kRecords);
            __atomic_add_fetch(done, 1, __ATOMIC_RELEASE);
        });
    EXPECT_EQ(consume(ring, dir / "auto.dump", done, kThreads + kProcesses, &chunks), 0u);
    for (auto& w : writers) w.join();
    for (pid_t child : children) EXPECT_EQ(waitExit(child), 0);
    EXPECT_GT(ring->nextSequence / kSlotCount, 10u);
    expectEveryRecord(dir / "auto.dump", kThreads + kProcesses, kRecords);
    munmap(shared, size);
}

TEST(RamboThreads, ChunkedRingWithConsumerThread) {
    const Uint32 kThreads = 4, kRecords = 3000 * zeptestStress();
    Ring ring(RAMBO_MODE_CHUNKED, kRingSize);
    TempDir dir("zepramboauto");
    Uint32 done = 0, chunks = 0;
    std::vector<std::thread> writers;
    for (Uint32 t = 0; t < kThreads; ++t)
        writers.emplace_back([&, t] {
            writeRecords(ring.cb(), t, kRecords);
            __atomic_add_fetch(&done, 1, __ATOMIC_RELEASE);
        });
    EXPECT_EQ(consume(ring.cb(), dir / "auto.dump", &done, kThreads, &chunks), 0u);
    for (auto& w : writers) w.join();
    EXPECT_GT(ring.cb()->nextSequence / kSlotCount, 10u);
    expectEveryRecord(dir / "auto.dump", kThreads, kRecords);
}
