// Stress of the ring: four processes of two writer threads each write checksummed records of 1
// to 40 slots while another copies the ring into dumps and walks each both ways (helper_rambo);
// then the final contents, and a consumer's auto dump, record by record. The chunk protocol also
// runs between threads here, where the thread sanitizer can follow it.
#include <fcntl.h>
#include <sys/mman.h>

#include <thread>

#include "rambo_consumer.h"
#include "zeptest_rambo.h"
#include "zeptest_stress.h"
#include "zeptest_util.h"

namespace {

using namespace zeptest;

constexpr Uint32 kRingSize = 0x80000;
constexpr Uint32 kSlotCount = kRingSize / RAMBO_SLOT_SIZE;
// A stopping ring fills once only: a larger one lets the copier catch it filling. Writers of a
// wrapping ring wait rather than lap one still writing: a larger ring makes them wait less.
constexpr Uint32 kLargeRingSize = 0x200000;

pid_t spawn(std::vector<std::string> args) {
    return spawnHelper("helper_rambo", args);
}

// Per writer, the counters of the walk are `first` up without a gap (or the reverse backward).
void expectRun(const Walked& w, Uint32 writer, Uint32 first, Uint32 count, bool forward) {
    std::vector<Uint32> c = w.counters[writer];
    if (!forward) c = std::vector<Uint32>(c.rbegin(), c.rend());
    ASSERT_EQ(c.size(), count) << "writer " << writer;
    for (Uint32 i = 0; i < count; ++i) ASSERT_EQ(c[i], first + i) << "writer " << writer;
}

class RamboStress : public ::testing::Test {
protected:
    void SetUp() override {
        fd_ = memfd_create("zeprambostress", 0);
        ASSERT_GE(fd_, 0);
        ASSERT_EQ(ftruncate(fd_, static_cast<off_t>(bytes_)), 0);
        void* p = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        ASSERT_NE(p, MAP_FAILED);
        shared_ = static_cast<StressShared*>(p);
        ring_ = reinterpret_cast<RamboCB*>(static_cast<Uint8*>(p) + kRingOffset);
    }
    void TearDown() override {
        if (shared_ != nullptr) munmap(shared_, bytes_);
        if (fd_ >= 0) close(fd_);
    }

    // Four writing processes, the copier and, for a chunked ring, the consumer; returns when all
    // have ended.
    void run(Uint32 mode, Uint32 records, Uint32 ringSize = kRingSize, Uint32 pause = 0) {
        ASSERT_EQ(ramboInitialize(ring_, ringSize, mode), 0u);
        for (Uint32& w : shared_->inFlight) w = 0xFFFFFFFF;
        const std::string fd = std::to_string(fd_);
        std::vector<pid_t> writers;
        for (Uint32 i = 0; i < kWriters / 2; ++i)
            writers.push_back(spawn(
                {"write", fd, std::to_string(i), std::to_string(records), std::to_string(pause)}));
        const pid_t copier = spawn({"copy", fd, dir_ / "copy.dump"});
        const pid_t consumer =
            mode == RAMBO_MODE_CHUNKED ? spawn({"consume", fd, dir_ / "auto.dump"}) : -1;
        __atomic_store_n(&shared_->go, 1, __ATOMIC_RELEASE);
        for (pid_t pid : writers) EXPECT_EQ(waitExit(pid), 0);
        __atomic_store_n(&shared_->stop, 1, __ATOMIC_RELEASE);
        EXPECT_EQ(waitExit(copier), 0);
        if (consumer > 0) {
            EXPECT_EQ(waitExit(consumer), 0);
        }
        EXPECT_GT(shared_->dumps, 0u);
        EXPECT_GT(shared_->recordsChecked, 0u);
        RecordProperty("dumps", static_cast<int>(shared_->dumps));
        // Whatever the copier caught mid-write was stepped over, never delivered torn.
        EXPECT_EQ(shared_->badRecords + shared_->orderErrors + shared_->directionMismatches, 0u);
    }

    // Walks of an instantaneous dump of the ring at rest, forward and backward, both whole.
    std::pair<Walked, Walked> finalWalks() {
        const std::string path = dir_ / "final.dump";
        RamboDumpHeader header;
        void* slots = nullptr;
        Uint32 size = 0;
        RamboDumpTail tail;
        EXPECT_EQ(ramboGetDumpHeaderBuffer(ring_, 1, &header, &slots, &size), 0u);
        EXPECT_EQ(ramboGetDumpTail(ring_, &tail), 0u);
        std::ofstream(path, std::ios::binary)
            << std::string(reinterpret_cast<char*>(&header), sizeof header)
            << std::string(static_cast<char*>(slots), size)
            << std::string(reinterpret_cast<char*>(&tail), sizeof tail);
        std::pair<Walked, Walked> w{walkDump(path, true), walkDump(path, false)};
        EXPECT_EQ(w.first.bad + w.second.bad, 0u);
        EXPECT_EQ(w.first.total, w.second.total);
        return w;
    }

    TempDir dir_{"zeprambostress"};
    size_t bytes_ = kRingOffset + ramboGetAllocSize(kLargeRingSize);
    int fd_ = -1;
    StressShared* shared_ = nullptr;
    RamboCB* ring_ = nullptr;
};

}  // namespace

TEST_F(RamboStress, WrappingRing) {
    const Uint32 records = 20000 * zeptestStress();
    run(RAMBO_MODE_WRAP, records, kLargeRingSize);
    EXPECT_GT(ring_->nextSequence / ring_->slotCount, 20u) << "the ring is lapped many times";
    // At rest, the last lap's records are all whole; per writer they are the newest ones, without
    // a gap, in claim order, and the same both ways.
    const auto [forward, backward] = finalWalks();
    EXPECT_EQ(forward.wrapped, 1);
    EXPECT_GT(forward.total, ring_->slotCount / 40);
    for (Uint32 w = 0; w < kWriters; ++w) {
        const Uint32 n = static_cast<Uint32>(forward.counters[w].size());
        expectRun(forward, w, records - n, n, true);
        expectRun(backward, w, records - n, n, false);
    }
}

TEST_F(RamboStress, StoppingRing) {
    run(RAMBO_MODE_STOP, 4000, kLargeRingSize, 1500);
    // Every thread's claim ran past the end once, called the callback and stopped; everything
    // that landed before is in the ring, once, in order.
    Uint32 calls = 0, landed = 0;
    for (Uint32 i = 0; i < kWriters / 2; ++i) calls += shared_->overflowCalls[i];
    EXPECT_EQ(calls, kWriters);
    const auto [forward, backward] = finalWalks();
    EXPECT_EQ(forward.truncated, 1);
    EXPECT_EQ(forward.wrapped, 0);
    for (Uint32 w = 0; w < kWriters; ++w) {
        expectRun(forward, w, 0, shared_->landed[w], true);
        expectRun(backward, w, 0, shared_->landed[w], false);
        landed += shared_->landed[w];
    }
    EXPECT_GT(landed, kLargeRingSize / RAMBO_SLOT_SIZE / 40);
}

TEST_F(RamboStress, ChunkedRingWithConsumer) {
    const Uint32 records = 4000 * zeptestStress();
    run(RAMBO_MODE_CHUNKED, records);
    EXPECT_EQ(shared_->consumerRc, 0u);
    EXPECT_GT(ring_->nextSequence / kSlotCount, 20u) << "the ring is lapped many times";
    EXPECT_EQ(ring_->autoDump, 0) << "the consumer switches auto dump off when it goes";
    // Whole chunks while the writers ran, then the committed rest of the last one.
    EXPECT_EQ(shared_->consumerChunks, ring_->nextSequence / RAMBO_CHUNK_SLOTS);
    // Every record of every writer is in the auto dump exactly once, in claim order; the dump
    // begins with the ring's first record.
    const Walked forward = walkDump(dir_ / "auto.dump", true, true);
    const Walked backward = walkDump(dir_ / "auto.dump", false);
    EXPECT_EQ(forward.bad + backward.bad, 0u);
    EXPECT_EQ(forward.wrapped, 0);
    EXPECT_EQ(forward.total, Uint64{records} * kWriters);
    for (Uint32 w = 0; w < kWriters; ++w) {
        expectRun(forward, w, 0, records, true);
        expectRun(backward, w, 0, records, false);
    }
}

// The same protocol between threads of one process, where the thread sanitizer sees every
// access: the consumer's reads of a chunk come after the writers' stamps, and the next lap's
// writes after the consumer's reads.
TEST(RamboThreads, ChunkedRingWithConsumerThread) {
    const Uint32 kThreads = 4, kRecords = 3000 * zeptestStress();
    std::vector<Uint8> memory(ramboGetAllocSize(kRingSize) + 64);
    RamboCB* ring = reinterpret_cast<RamboCB*>(memory.data());
    ASSERT_EQ(ramboInitialize(ring, kRingSize, RAMBO_MODE_CHUNKED), 0u);
    TempDir dir("zepramboauto");
    ZEPFileOpenParam open;
    const std::string path = dir / "auto.dump";
    open.path = path.c_str();
    open.creation = ZEP_FILE_CREATE_OR_REPLACE;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPHFile file;
    ASSERT_EQ(file.open(&open), 0u);
    RamboChunkConsumer consumer;
    ASSERT_EQ(consumer.start(ring, &file), 0u);
    bool done = false;
    std::thread drainer([&] {
        while (!__atomic_load_n(&done, __ATOMIC_ACQUIRE)) {
            Uint32 chunks = 0;
            ASSERT_EQ(consumer.drain(&chunks), 0u);
            if (chunks == 0) usleep(100);
        }
    });
    std::vector<std::thread> writers;
    for (Uint32 t = 0; t < kThreads; ++t)
        writers.emplace_back([ring, t, kRecords] {
            Uint64 rng = t + 1;
            for (Uint32 k = 0; k < kRecords; ++k) {
                rng = rng * 6364136223846793005ull + 1442695040888963407ull;
                const Uint32 size = (1 + static_cast<Uint32>((rng >> 33) % 40)) * 64 - 12;
                RamboReservation r;
                fillPayload(static_cast<Uint8*>(ramboReserveSlots(ring, size, &r)), size, t, k);
                ramboSync(ring, &r);
            }
        });
    for (auto& w : writers) w.join();
    __atomic_store_n(&done, true, __ATOMIC_RELEASE);
    drainer.join();
    ASSERT_EQ(consumer.stop(true), 0u);
    EXPECT_GT(ring->nextSequence / kSlotCount, 10u);
    file.close();
    // Each thread's records, once each, in order, whole.
    const Walked w = walkDump(path, true);
    EXPECT_EQ(w.bad + w.rc, 0u);
    for (Uint32 t = 0; t < kThreads; ++t) expectRun(w, t, 0, kRecords, true);
}
