// Stress of the ring: four processes of two writer threads each, records of 1 to 40 slots with
// checksummed payloads, while another process copies the ring into instantaneous dumps and walks
// each one both ways (helper_rambo). Then the final contents, and in chunked mode the auto dump
// that a consumer process wrote, are checked record by record. The chunk protocol is also run
// between threads of this process, where the thread sanitizer can follow it.
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "rambo_consumer.h"
#include "zep.h"
#include "zeptest_stress.h"

namespace {

constexpr Uint32 kWriters = 8;
constexpr size_t kRingOffset = 4096;
constexpr Uint32 kRingSize = 0x80000;
constexpr Uint32 kSlotCount = kRingSize / RAMBO_SLOT_SIZE;
// A stopping ring fills once only: a larger one lets the copier catch it filling. Writers of a
// wrapping ring wait rather than lap one that is still writing (helper_rambo): a larger ring
// makes them wait less.
constexpr Uint32 kLargeRingSize = 0x200000;

// helper_rambo's view of the mapping.
struct StressShared {
    Uint32 go;
    Uint32 stop;
    Uint32 landed[kWriters];
    Uint32 overflowCalls[kWriters / 2];
    Uint32 dumps;
    Uint32 badRecords;
    Uint32 orderErrors;
    Uint32 directionMismatches;
    Uint64 recordsChecked;
    Uint32 consumerRc;
    Uint32 consumerChunks;
    Uint32 inFlight[kWriters];
};

Uint32 fnv(const Uint8* p, Uint32 size, Uint32 h) {
    for (Uint32 i = 0; i < size; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

// The writers' payload: writer, counter, checksum over the rest.
bool payloadValid(const Uint8* p, Uint32 size, Uint32* writer, Uint32* counter) {
    if (size < 52 || (size + 12) % 64 != 0) return false;
    Uint32 sum;
    memcpy(writer, p, 4);
    memcpy(counter, p + 4, 4);
    memcpy(&sum, p + 8, 4);
    return *writer < kWriters && sum == fnv(p + 12, size - 12, fnv(p, 8, 2166136261u));
}

// Every record a walk of the dump at `path` delivers, as counters per writer in walk order.
struct Walked {
    std::vector<std::vector<Uint32>> counters = std::vector<std::vector<Uint32>>(kWriters);
    Uint32 bad = 0;
    Uint8 wrapped = 0xFF, truncated = 0xFF;
    Uint64 total = 0;
};

Walked walkDump(const std::string& path, bool forward, bool scan = false) {
    Walked w;
    ZEPFileOpenParam open;
    open.path = path.c_str();
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    ZEPHFile file;
    EXPECT_EQ(file.open(&open), 0u);
    RamboDumpParser parser;
    EXPECT_EQ(scan ? ramboOpenDumpFileParserScan(&file, &parser, forward)
                   : ramboOpenDumpFileParser(&file, &parser, forward),
              0u);
    std::vector<Uint8> payload(RAMBO_CHUNK_SIZE);
    Uint32 size;
    while ((size = ramboParseDumpFile(&file, &parser, nullptr, payload.data(),
                                      static_cast<Uint32>(payload.size()))) != 0) {
        ++w.total;
        Uint32 writer, counter;
        if (!payloadValid(payload.data(), size, &writer, &counter)) {
            ++w.bad;
            continue;
        }
        w.counters[writer].push_back(counter);
    }
    ramboDidBufferWrap(&parser, &w.wrapped);
    ramboWasBufferTruncated(&parser, &w.truncated);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
    file.close();
    return w;
}

pid_t spawnHelper(std::vector<std::string> args) {
    std::string path = std::string(ZEP_TEST_BIN_DIR) + "/helper_rambo";
    args.insert(args.begin(), path);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    return pid;
}

int waitExit(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class RamboStress : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zeprambostressXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        bytes_ = kRingOffset + ramboGetAllocSize(kLargeRingSize);
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
        for (const char* name : {"/copy.dump", "/final.dump", "/auto.dump"})
            unlink((dir_ + name).c_str());
        rmdir(dir_.c_str());
    }

    // Four writing processes, the copier and, for a chunked ring, the consumer; returns when all
    // have ended.
    void run(Uint32 mode, Uint32 records, Uint32 ringSize = kRingSize, Uint32 pause = 0) {
        ASSERT_EQ(ramboInitialize(ring_, ringSize, mode), 0u);
        for (Uint32& w : shared_->inFlight) w = 0xFFFFFFFF;
        const std::string fd = std::to_string(fd_);
        std::vector<pid_t> writers;
        for (Uint32 i = 0; i < kWriters / 2; ++i)
            writers.push_back(spawnHelper(
                {"write", fd, std::to_string(i), std::to_string(records), std::to_string(pause)}));
        const pid_t copier = spawnHelper({"copy", fd, dir_ + "/copy.dump"});
        const pid_t consumer =
            mode == RAMBO_MODE_CHUNKED ? spawnHelper({"consume", fd, dir_ + "/auto.dump"}) : -1;
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
        RecordProperty("recordsChecked", static_cast<int>(shared_->recordsChecked));
        // Whatever the copier caught mid-write was stepped over, never delivered torn.
        EXPECT_EQ(shared_->badRecords, 0u);
        EXPECT_EQ(shared_->orderErrors, 0u);
        EXPECT_EQ(shared_->directionMismatches, 0u);
    }

    // An instantaneous dump of the ring at rest.
    std::string finalDump() {
        const std::string path = dir_ + "/final.dump";
        RamboDumpHeader header;
        void* slots = nullptr;
        Uint32 size = 0;
        RamboDumpTail tail;
        EXPECT_EQ(ramboGetDumpHeaderBuffer(ring_, 1, &header, &slots, &size), 0u);
        EXPECT_EQ(ramboGetDumpTail(ring_, &tail), 0u);
        FILE* f = fopen(path.c_str(), "wb");
        fwrite(&header, 1, sizeof header, f);
        fwrite(slots, 1, size, f);
        fwrite(&tail, 1, sizeof tail, f);
        fclose(f);
        return path;
    }

    std::string dir_;
    size_t bytes_ = 0;
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
    const Walked forward = walkDump(finalDump(), true);
    const Walked backward = walkDump(finalDump(), false);
    EXPECT_EQ(forward.bad, 0u);
    EXPECT_EQ(forward.wrapped, 1);
    EXPECT_EQ(forward.total, backward.total);
    EXPECT_GT(forward.total, ring_->slotCount / 40);
    for (Uint32 w = 0; w < kWriters; ++w) {
        const std::vector<Uint32>& c = forward.counters[w];
        for (size_t i = 0; i < c.size(); ++i)
            ASSERT_EQ(c[i], records - c.size() + i) << "writer " << w;
        std::vector<Uint32> reversed(backward.counters[w].rbegin(), backward.counters[w].rend());
        EXPECT_EQ(reversed, c) << "writer " << w;
    }
}

TEST_F(RamboStress, StoppingRing) {
    run(RAMBO_MODE_STOP, 4000, kLargeRingSize, 1500);

    // Every thread's claim ran past the end once, called the callback and stopped; everything
    // that landed before is in the ring, once, in order.
    Uint32 calls = 0, landed = 0;
    for (Uint32 i = 0; i < kWriters / 2; ++i) calls += shared_->overflowCalls[i];
    EXPECT_EQ(calls, kWriters);
    const Walked forward = walkDump(finalDump(), true);
    const Walked backward = walkDump(finalDump(), false);
    EXPECT_EQ(forward.bad, 0u);
    EXPECT_EQ(forward.truncated, 1);
    EXPECT_EQ(forward.wrapped, 0);
    for (Uint32 w = 0; w < kWriters; ++w) {
        const std::vector<Uint32>& c = forward.counters[w];
        ASSERT_EQ(c.size(), shared_->landed[w]) << "writer " << w;
        for (Uint32 i = 0; i < c.size(); ++i) ASSERT_EQ(c[i], i) << "writer " << w;
        EXPECT_EQ(std::vector<Uint32>(backward.counters[w].rbegin(), backward.counters[w].rend()),
                  c);
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

    // Every record of every writer is in the auto dump exactly once, in claim order.
    const std::string autoDump = dir_ + "/auto.dump";
    const Walked forward = walkDump(autoDump, true, true);
    EXPECT_EQ(forward.bad, 0u);
    EXPECT_EQ(forward.wrapped, 0) << "the dump begins with the ring's first record";
    EXPECT_EQ(forward.total, Uint64{records} * kWriters);
    for (Uint32 w = 0; w < kWriters; ++w) {
        const std::vector<Uint32>& c = forward.counters[w];
        ASSERT_EQ(c.size(), records) << "writer " << w;
        for (Uint32 i = 0; i < records; ++i) ASSERT_EQ(c[i], i) << "writer " << w;
    }
    const Walked backward = walkDump(autoDump, false);
    EXPECT_EQ(backward.total, forward.total);
    for (Uint32 w = 0; w < kWriters; ++w)
        EXPECT_EQ(std::vector<Uint32>(backward.counters[w].rbegin(), backward.counters[w].rend()),
                  forward.counters[w]);
    // Whole chunks while the writers ran, then the committed rest of the last one.
    EXPECT_EQ(shared_->consumerChunks, ring_->nextSequence / RAMBO_CHUNK_SLOTS);
}

// The same protocol between threads of one process, where the thread sanitizer sees every
// access: the consumer's reads of a chunk come after the writers' stamps, and the next lap's
// writes after the consumer's reads.
TEST(RamboThreads, ChunkedRingWithConsumerThread) {
    const Uint32 kThreads = 4, kRecords = 3000 * zeptestStress();
    std::vector<Uint8> memory(ramboGetAllocSize(kRingSize) + 64);
    RamboCB* ring = reinterpret_cast<RamboCB*>(memory.data());
    ASSERT_EQ(ramboInitialize(ring, kRingSize, RAMBO_MODE_CHUNKED), 0u);

    char path[] = "/tmp/zepramboautoXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ZEPFileOpenParam open;
    open.path = path;
    open.creation = ZEP_FILE_OPEN_EXISTING;
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
                const Uint32 slots = 1 + static_cast<Uint32>((rng >> 33) % 40);
                RamboReservation r;
                Uint8* p = static_cast<Uint8*>(ramboReserveSlots(ring, slots * 64 - 12, &r));
                memset(p, static_cast<int>(t), slots * 64 - 12);
                memcpy(p, &t, 4);
                memcpy(p + 4, &k, 4);
                ramboSync(ring, &r);
            }
        });
    for (auto& w : writers) w.join();
    __atomic_store_n(&done, true, __ATOMIC_RELEASE);
    drainer.join();
    ASSERT_EQ(consumer.stop(true), 0u);
    EXPECT_GT(ring->nextSequence / kSlotCount, 10u);
    file.close();

    // Each thread's records, once each, in order, with their filler intact.
    ASSERT_EQ(file.open(&open), 0u);
    RamboDumpParser parser;
    ASSERT_EQ(ramboOpenDumpFileParser(&file, &parser, 1), 0u);
    std::vector<Uint32> next(kThreads, 0);
    std::vector<Uint8> payload(RAMBO_CHUNK_SIZE);
    Uint32 size;
    while ((size = ramboParseDumpFile(&file, &parser, nullptr, payload.data(),
                                      static_cast<Uint32>(payload.size()))) != 0) {
        Uint32 t, k;
        memcpy(&t, payload.data(), 4);
        memcpy(&k, payload.data() + 4, 4);
        ASSERT_LT(t, kThreads);
        ASSERT_EQ(k, next[t]++);
        for (Uint32 i = 8; i < size; ++i) ASSERT_EQ(payload[i], t);
    }
    for (Uint32 t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kRecords);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
    file.close();
    unlink(path);
}
