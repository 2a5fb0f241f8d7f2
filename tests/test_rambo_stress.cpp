// Stress of the chunked ring: eight writing processes, each with the ring mapped at an address of
// its own, one more copying the live ring into dumps and walking them, and this process draining
// it into an auto dump; then the same protocol between threads, where the thread sanitizer can
// follow it.
#include <sys/mman.h>

#include <fstream>
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

// The dumping program's way, until every writer is done: header, the slots as they are this
// instant, tail. Each dump, walked both ways, gives whole records only, each writer's in claim
// order, the same both ways. The faults found, at most 100.
int copyUntilDone(RamboCB* ring, const std::string& path, const Uint32* done) {
    std::vector<char> image(16 + kRingSize + 32);
    int faults = 0;
    do {
        void* slots = nullptr;
        Uint32 size = 0;
        faults += ramboGetDumpHeaderBuffer(ring, 1, reinterpret_cast<RamboDumpHeader*>(&image[0]),
                                           &slots, &size) != 0;
        memcpy(&image[16], slots, size);
        faults += ramboGetDumpTail(ring, reinterpret_cast<RamboDumpTail*>(&image[16 + size])) != 0;
        std::ofstream(path, std::ios::binary).write(image.data(), image.size());
        const Walked f = walkDump(path, true), b = walkDump(path, false);
        faults += f.bad + b.bad + (f.rc != 0) + (b.rc != 0) + (f.tags.size() != b.tags.size());
        for (Uint32 w = 0; w < kWriters; ++w)
            faults += !std::is_sorted(f.counters[w].begin(), f.counters[w].end()) ||
                      !std::is_sorted(b.counters[w].rbegin(), b.counters[w].rend());
    } while (__atomic_load_n(done, __ATOMIC_ACQUIRE) < kWriters && faults < 100);
    return std::min(faults, 100);
}

}  // namespace

TEST(RamboStress, ChunkedRingWithConsumer) {
    const Uint32 records = 4000 * zeptestStress();
    const size_t bytes = 4096 + ramboGetAllocSize(kRingSize);  // the writers done, then the ring
    const int fd = memfd_create("zeprambostress", 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(bytes)), 0);
    auto map = [&] {
        return static_cast<Uint8*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    };
    Uint8* shared = map();
    ASSERT_NE(shared, MAP_FAILED);
    RamboCB* ring = reinterpret_cast<RamboCB*>(shared + 4096);
    ASSERT_EQ(ramboInitialize(ring, kRingSize, RAMBO_MODE_CHUNKED), 0u);
    TempDir dir("zeprambostress");
    std::vector<pid_t> kids;
    for (Uint32 i = 0; i <= kWriters; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(300 * zeptestStress());  // a writer left waiting must not linger
            Uint8* mine = map();
            Uint32* done = reinterpret_cast<Uint32*>(mine);
            RamboCB* own = reinterpret_cast<RamboCB*>(mine + 4096);
            if (i == kWriters) _exit(copyUntilDone(own, dir / "copy.dump", done));
            writeRecords(own, i, records);
            __atomic_add_fetch(done, 1, __ATOMIC_RELEASE);
            _exit(0);
        }
        kids.push_back(pid);
    }
    Uint32 chunks = 0;
    EXPECT_EQ(
        consume(ring, dir / "auto.dump", reinterpret_cast<Uint32*>(shared), kWriters, &chunks), 0u);
    for (pid_t pid : kids) EXPECT_EQ(waitExit(pid), 0);
    EXPECT_GT(ring->nextSequence / kSlotCount, 20u) << "the ring is lapped many times";
    EXPECT_EQ(ring->autoDump, 0) << "the consumer switches auto dump off when it goes";
    EXPECT_EQ(chunks, ring->nextSequence / RAMBO_CHUNK_SLOTS);
    expectEveryRecord(dir / "auto.dump", kWriters, records);
    munmap(shared, bytes);
    close(fd);
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
