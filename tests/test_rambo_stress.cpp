// Stress of the chunked ring: eight writer processes (helper_rambo) with checksummed records of 1
// to 40 slots, while one process copies the ring into dumps and walks each both ways and another
// drains it into an auto dump; then the same protocol between threads, where the thread sanitizer
// can follow it.
#include <sys/mman.h>

#include <algorithm>
#include <thread>

#include "zeptest_rambo.h"
#include "zeptest_stress.h"
#include "zeptest_util.h"

namespace {

using namespace zeptest;

constexpr Uint32 kRingSize = 0x80000, kSlotCount = kRingSize / RAMBO_SLOT_SIZE;

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

TEST(RamboStress, ChunkedRingWithConsumer) {
    const Uint32 records = 4000 * zeptestStress();
    const size_t bytes = kRingOffset + ramboGetAllocSize(kRingSize);
    const int fd = memfd_create("zeprambostress", 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(bytes)), 0);
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    auto* shared = static_cast<StressShared*>(p);
    auto* ring = reinterpret_cast<RamboCB*>(static_cast<Uint8*>(p) + kRingOffset);
    ASSERT_EQ(ramboInitialize(ring, kRingSize, RAMBO_MODE_CHUNKED), 0u);
    TempDir dir("zeprambostress");
    const std::string f = std::to_string(fd);
    std::vector<pid_t> writers;
    for (Uint32 i = 0; i < kWriters; ++i)
        writers.push_back(
            spawnHelper("helper_rambo", {"write", f, std::to_string(i), std::to_string(records)}));
    const pid_t copier = spawnHelper("helper_rambo", {"copy", f, dir / "copy.dump"});
    const pid_t consumer = spawnHelper("helper_rambo", {"consume", f, dir / "auto.dump"});
    __atomic_store_n(&shared->go, 1, __ATOMIC_RELEASE);
    for (pid_t pid : writers) EXPECT_EQ(waitExit(pid), 0);
    __atomic_store_n(&shared->stop, 1, __ATOMIC_RELEASE);
    EXPECT_EQ(waitExit(copier), 0);
    EXPECT_EQ(waitExit(consumer), 0);
    // Whatever the copier caught mid-write was stepped over, never delivered torn.
    EXPECT_GT(shared->recordsChecked, 0u);
    EXPECT_EQ(shared->faults + shared->consumerRc, 0u);
    EXPECT_GT(ring->nextSequence / kSlotCount, 20u) << "the ring is lapped many times";
    EXPECT_EQ(ring->autoDump, 0) << "the consumer switches auto dump off when it goes";
    EXPECT_EQ(shared->consumerChunks, ring->nextSequence / RAMBO_CHUNK_SLOTS);
    expectEveryRecord(dir / "auto.dump", kWriters, records);
    munmap(p, bytes);
    close(fd);
}

TEST(RamboThreads, ChunkedRingWithConsumerThread) {
    const Uint32 kThreads = 4, kRecords = 3000 * zeptestStress();
    Ring ring(RAMBO_MODE_CHUNKED, kRingSize);
    TempDir dir("zepramboauto");
    Uint32 done = 0, chunks = 0, rc = 0;
    std::thread drainer([&] { rc = consume(ring.cb(), dir / "auto.dump", &done, &chunks); });
    std::vector<std::thread> writers;
    for (Uint32 t = 0; t < kThreads; ++t)
        writers.emplace_back([&ring, t, kRecords] { writeRecords(ring.cb(), t, kRecords); });
    for (auto& w : writers) w.join();
    __atomic_store_n(&done, 1, __ATOMIC_RELEASE);
    drainer.join();
    EXPECT_EQ(rc, 0u);
    EXPECT_GT(ring.cb()->nextSequence / kSlotCount, 10u);
    expectEveryRecord(dir / "auto.dump", kThreads, kRecords);
}
