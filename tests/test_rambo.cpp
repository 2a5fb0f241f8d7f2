// Tests of the ring: its layout byte for byte, the three modes, claims that run past the end,
// new sequences, auto dump and the writers' wait for a chunk's lap, the counter passing 2^32.
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "zep.h"

namespace {

constexpr Uint32 kSize = 0x80000, kSlots = kSize / 64;

// A ring in private memory, filled with 0xAA before it is built so that untouched bytes show.
struct Ring {
    explicit Ring(Uint32 mode, Uint32 size = kSize, Uint32 rc = 0)
        : memory(ramboGetAllocSize(size) / 8 + 1, 0xAAAAAAAAAAAAAAAAull) {
        EXPECT_EQ(ramboInitialize(cb(), size, mode), rc);
    }
    RamboCB* cb() { return reinterpret_cast<RamboCB*>(memory.data()); }
    Uint8* bytes() { return reinterpret_cast<Uint8*>(memory.data()); }
    Uint8* slot(Uint32 index) { return bytes() + cb()->slotsOffset + index * 64; }
    Uint8* overflow() { return bytes() + cb()->overflowOffset; }
    RamboChunk* chunk(Uint32 index) {
        return reinterpret_cast<RamboChunk*>(bytes() + cb()->chunkTableOffset) + index;
    }
    std::vector<Uint64> memory;
};

template <class T = Uint32>
T at(const Uint8* p) {
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

// True when all `n` bytes at `p` are `b`.
bool all(const Uint8* p, size_t n, Uint8 b) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != b) return false;
    return true;
}

// Reserves a record of `payload` bytes, fills its payload with `fill` and stamps it.
RamboReservation record(Ring& ring, Uint32 payload, Uint8 fill = 0x5A) {
    RamboReservation r;
    memset(&r, 0, sizeof r);
    Uint8* p = static_cast<Uint8*>(ramboReserveSlots(ring.cb(), payload, &r));
    EXPECT_EQ(p, r.slot + 8);
    memset(p, fill, payload);
    ramboSync(ring.cb(), &r);
    return r;
}

std::atomic<int> g_overflows{0};
void countOverflow() {
    ++g_overflows;
}

}  // namespace

TEST(Rambo, Sizes) {
    // 8 chunks: 160 bytes of table; 8192 chunks: 163,840.
    const Uint32 sizes[][2] = {{0x7FFFF, 0},
                               {0x80001, 0},
                               {0xC0000, 0},
                               {0x80000000, 0},
                               {0, 0},
                               {0x80000, 0x80000 + 256 + 80 + 24 + 0x20000},
                               {0x100000, 0x100000 + 256 + 160 + 24 + 0x20000},
                               {0x40000000, 0x40000000 + 256 + 163840 + 24 + 0x20000}};
    for (const auto& s : sizes) EXPECT_EQ(ramboGetAllocSize(s[0]), s[1]) << s[0];
    const Uint32 rounded[][2] = {
        {0, 0}, {1, 1}, {3, 2}, {0x80000, 0x80000}, {0x80001, 0x80000}, {0xFFFFFFFF, 0x80000000}};
    for (const auto& r : rounded) EXPECT_EQ(ramboRoundNearest2(r[0]), r[1]) << r[0];
}

TEST(Rambo, LayoutInEachMode) {
    // mode, index mask, wraps, chunked, auto dump
    const Uint32 modes[][5] = {{1, 8191, 1, 0, 0}, {2, 16383, 0, 0, 0}, {4, 8191, 1, 1, 1}};
    for (const auto& m : modes) {
        SCOPED_TRACE(m[0]);
        Ring ring(m[0]);
        const Uint8* b = ring.bytes();
        EXPECT_EQ(at(b), 0u);
        EXPECT_EQ(memcmp(b + 0x04, "RAMBOCB\0", 8), 0);
        EXPECT_TRUE(all(b + 0x0C, 0x80 - 0x0C + 8, 0)) << "the latch is free";
        const std::vector<Uint32> fields = {at(b + 0x88), at(b + 0x8C), at(b + 0x90), at(b + 0x94),
                                            at(b + 0x98), at(b + 0x9C), at(b + 0xA0), b[0xA4],
                                            b[0xA5],      b[0xA6]};
        EXPECT_EQ(fields,
                  std::vector<Uint32>({m[1], 336, 256, 524624, kSize, 4, 8192, m[2], m[3], m[4]}));
        EXPECT_TRUE(all(b + 0xA7, 0x100 - 0xA7, 0));
        for (Uint32 c = 0; c < 4; ++c) {
            const Uint8* rec = b + 256 + 20 * c;
            EXPECT_EQ(memcmp(rec, "RAMBOCK\0", 8), 0);
            EXPECT_EQ(std::vector<Uint32>({at(rec + 8), at(rec + 12), at(rec + 16)}),
                      std::vector<Uint32>({0, 0, c}));
        }
        EXPECT_TRUE(all(b + 336, kSize, 0));
    }

    // The size is judged before the area. A bad mode leaves a block without eye-catcher, latch
    // released, which nothing accepts.
    EXPECT_EQ(ramboInitialize(nullptr, 0x80001, 1), ECF_RAMBO_INVALID_BUFFER_SIZE);
    EXPECT_EQ(ramboInitialize(nullptr, kSize, 1), ECF_INVALID_PARAMETER);
    Ring ring(3, kSize, ECF_INVALID_PARAMETER);
    EXPECT_NE(memcmp(ring.bytes() + 4, "RAMBOCB\0", 8), 0);
    EXPECT_EQ(ring.cb()->latch, 0);
    EXPECT_EQ(ramboNewSequence(ring.cb()), ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboAutoDumpEnabled(ring.cb(), 1), ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboNewSequence(nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboAutoDumpEnabled(nullptr, 1), ECF_INVALID_PARAMETER);
}

TEST(Rambo, ReserveAndStamp) {
    Ring ring(1);
    // 52 payload bytes take one slot, 53 two, 0 one.
    const Uint32 sizes[][2] = {{52, 1}, {53, 2}, {0, 1}, {116, 2}, {117, 3}, {0x20000 - 12, 2048}};
    Uint32 expected = 0;
    for (const auto& s : sizes) {
        SCOPED_TRACE(s[0]);
        const RamboReservation r = record(ring, s[0], 0x77);
        EXPECT_EQ(r.sequence, expected);
        EXPECT_EQ(r.slotsReserved, s[1]);
        EXPECT_EQ(r.slot, ring.slot(expected));
        const Uint8* p = r.slot;
        EXPECT_EQ(std::vector<Uint32>(
                      {at(p), at<Uint16>(p + 4), at<Uint16>(p + 6), at(p + s[1] * 64 - 4)}),
                  std::vector<Uint32>({expected, 0xCAFE, s[1], ~expected}));
        // The payload is the writer's: every byte it wrote is there, nothing else was touched.
        EXPECT_TRUE(all(p + 8, s[0], 0x77));
        EXPECT_TRUE(all(p + 8 + s[0], s[1] * 64 - 12 - s[0], 0));
        expected += s[1];
        EXPECT_EQ(ring.cb()->nextSequence, expected);
    }
    RamboReservation one;
    Uint8* p = static_cast<Uint8*>(ramboReserveOneSlot(ring.cb(), &one));
    EXPECT_EQ(p, ring.slot(expected) + 8);
    EXPECT_EQ(one.sequence, expected);
    EXPECT_EQ(one.slotsReserved, 1);
    memset(p, 0x11, 52);
    ramboSync(ring.cb(), &one);
    EXPECT_EQ(at(ring.slot(expected) + 60), ~expected);
    EXPECT_EQ(ring.slot(expected)[59], 0x11);
}

TEST(Rambo, StoppingRingOverflow) {
    Ring ring(2);
    g_overflows = 0;
    ramboSetCallBack(countOverflow);
    // Claims up to exactly slotCount, the last ending on the last slot, all land in the ring.
    for (int i = 0; i < 3; ++i) record(ring, 0x20000 - 12);
    ring.cb()->nextSequence = kSlots - 3;
    RamboReservation r = record(ring, 3 * 64 - 12, 0x33);
    EXPECT_EQ(r.slot, ring.slot(kSlots - 3));
    EXPECT_EQ(g_overflows, 0);

    // The next claim, of one slot or many, lands in the overflow area, where the largest record
    // fits; the callback runs for each; the counter keeps what was claimed.
    Uint8* p = static_cast<Uint8*>(ramboReserveOneSlot(ring.cb(), &r));
    EXPECT_EQ(p, ring.overflow() + 8);
    EXPECT_EQ(r.slot, ring.overflow());
    EXPECT_EQ(r.slotsReserved, 1);
    ramboSync(ring.cb(), &r);
    EXPECT_EQ(g_overflows, 1);
    p = static_cast<Uint8*>(ramboReserveSlots(ring.cb(), 0x20000 - 12, &r));
    EXPECT_EQ(p, ring.overflow() + 8);
    memset(p, 0x44, 0x20000 - 12);
    ramboSync(ring.cb(), &r);
    EXPECT_EQ(g_overflows, 2);
    EXPECT_EQ(ring.cb()->nextSequence, kSlots + 1 + 2048);
    EXPECT_EQ(at(ring.slot(kSlots - 1) + 60), ~(kSlots - 3)) << "the ring's last record stands";

    // A claim that would cross the end also goes there: records are never split.
    Ring other(2);
    other.cb()->nextSequence = kSlots - 2;
    p = static_cast<Uint8*>(ramboReserveSlots(other.cb(), 3 * 64 - 12, &r));
    EXPECT_EQ(p, other.overflow() + 8);
    EXPECT_EQ(other.cb()->nextSequence, kSlots + 1);
    EXPECT_EQ(g_overflows, 3);
    // The callback belongs to the process and can be taken away.
    ramboSetCallBack(nullptr);
    ramboReserveOneSlot(other.cb(), &r);
    EXPECT_EQ(g_overflows, 3);
}

TEST(Rambo, NewSequenceAndAutoDumpSwitch) {
    // Wrapping: a whole lap on, the index unmoved, the base where the counter now stands; the
    // slots aren't touched.
    Ring wrap(1), stop(2), chunked(4);
    for (int i = 0; i < 5; ++i) record(wrap, 52);
    EXPECT_EQ(ramboNewSequence(wrap.cb()), 0u);
    EXPECT_EQ(wrap.cb()->nextSequence, 5 + kSlots);
    EXPECT_EQ(wrap.cb()->sequenceBase, 5 + kSlots);
    EXPECT_EQ(at(wrap.slot(0)), 0u);
    // Stopping: to the next multiple of twice the ring, from either half of the mask's range;
    // the buffer fills from slot 0 again.
    for (Uint32 from : {0u, 100u, kSlots, kSlots + 100, 2 * kSlots - 1, 5 * 2 * kSlots + 7}) {
        stop.cb()->nextSequence = from;
        EXPECT_EQ(ramboNewSequence(stop.cb()), 0u);
        EXPECT_EQ(stop.cb()->nextSequence, (from / (2 * kSlots) + 1) * 2 * kSlots) << from;
        EXPECT_EQ(stop.cb()->sequenceBase + stop.cb()->latch, 0u) << from;
    }
    EXPECT_EQ(record(stop, 52).slot, stop.slot(0));
    EXPECT_EQ(ramboNewSequence(chunked.cb()), ECF_NOT_SUPPORTED);
    EXPECT_EQ(chunked.cb()->nextSequence, 0u);

    // Auto dump is the chunked ring's alone.
    EXPECT_EQ(ramboAutoDumpEnabled(wrap.cb(), 1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    EXPECT_EQ(ramboAutoDumpEnabled(stop.cb(), 1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    EXPECT_EQ(wrap.cb()->autoDump, 0);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 0), 0u);
    EXPECT_EQ(chunked.cb()->autoDump + chunked.cb()->latch, 0);
    // Without auto dump, writers neither wait nor count.
    chunked.cb()->nextSequence = 5 * kSlots;
    EXPECT_EQ(record(chunked, 52).chunk, chunked.chunk(0));
    EXPECT_EQ(chunked.chunk(0)->committedSlots, 0u);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 1), 0u);
    EXPECT_EQ(chunked.cb()->autoDump, 1);
}

TEST(Rambo, ChunkedCounting) {
    Ring ring(4);
    // Lap 0 never waits: every generation starts at 0. A record across a chunk boundary counts
    // in both; one that ends on the boundary stays in one.
    const Uint32 cases[][6] = {
        // start, slots, first chunk, slots in it, committed in chunk 0, 1, 2 after it
        {0, 1, 0, 1, 1, 0},
        {2046, 5, 0, 2, 3, 3},
        {4096 - 4, 4, 1, 4, 3, 7},
    };
    for (const auto& c : cases) {
        if (c[0]) ring.cb()->nextSequence = c[0];
        const RamboReservation r = record(ring, c[1] * 64 - 12);
        EXPECT_EQ(r.chunk, ring.chunk(c[2])) << c[0];
        EXPECT_EQ(r.slotsInFirstChunk, c[3]) << c[0];
        EXPECT_EQ(std::vector<Uint32>({ring.chunk(0)->committedSlots, ring.chunk(1)->committedSlots,
                                       ring.chunk(2)->committedSlots}),
                  std::vector<Uint32>({c[4], c[5], 0}))
            << c[0];
    }
}

TEST(Rambo, LostClaimsAtTheEnd) {
    // Wrapping without chunks: the claim is given up and the counter has moved for it; the tail
    // of the ring and the first slots of the next lap keep what they held. Chunked: the lost
    // slots are zeroed and still counted, the tail in the last chunk of this lap, the overrun in
    // chunk 0 of the next, which the writer waits for.
    for (Uint32 mode : {1u, 4u}) {
        SCOPED_TRACE(mode);
        Ring ring(mode);
        ring.cb()->nextSequence = kSlots - 2;
        memset(ring.slot(kSlots - 2), 0xEE, 128);
        memset(ring.slot(0), 0xDD, 3 * 64);
        ring.chunk(3)->committedSlots = 2046;
        ring.chunk(0)->generation = 1;  // the consumer has stored chunk 0 of lap 0
        const RamboReservation r = record(ring, 5 * 64 - 12);
        EXPECT_EQ(r.sequence, kSlots + 3);
        EXPECT_EQ(r.slot, ring.slot(3));
        EXPECT_EQ(ring.cb()->nextSequence, kSlots + 8);
        const bool chunked = mode == 4;
        EXPECT_TRUE(all(ring.slot(kSlots - 2), 128, chunked ? 0 : 0xEE));
        EXPECT_TRUE(all(ring.slot(0), 3 * 64, chunked ? 0 : 0xDD));
        if (chunked) {
            EXPECT_EQ(r.chunk, ring.chunk(0));
            EXPECT_EQ(ring.chunk(3)->committedSlots, 2048u);
            EXPECT_EQ(ring.chunk(0)->committedSlots, 3u + 5);
        }
    }
}

TEST(Rambo, WriterWaitsForTheChunksLap) {
    Ring ring(4);
    std::atomic<bool> reserved{false};
    // Lap 1, chunk 0, still open for lap 0: the consumer's two stores, in their order, free the
    // writer. A record that reaches into a second chunk waits for that one too; switching auto
    // dump off frees it as well.
    for (int round = 0; round < 2; ++round) {
        ring.cb()->nextSequence = round == 0 ? kSlots + 10 : kSlots + 2047;
        reserved = false;
        std::thread writer([&] {
            record(ring, round == 0 ? 52 : 2 * 64 - 12);
            reserved = true;
        });
        usleep(30000);
        EXPECT_FALSE(reserved);
        if (round == 0) {
            __atomic_store_n(&ring.chunk(0)->committedSlots, 0, __ATOMIC_RELEASE);
            __atomic_store_n(&ring.chunk(0)->generation, 1, __ATOMIC_RELEASE);
        } else {
            EXPECT_EQ(ramboAutoDumpEnabled(ring.cb(), 0), 0u);
        }
        writer.join();
        EXPECT_TRUE(reserved);
    }
    EXPECT_EQ(ring.chunk(0)->committedSlots, 1u);
}

TEST(Rambo, CounterPassing2To32) {
    Ring wrap(1);
    wrap.cb()->nextSequence = 0xFFFFFFFE;
    EXPECT_EQ(record(wrap, 52).slot, wrap.slot(kSlots - 2));
    const RamboReservation last = record(wrap, 52);
    EXPECT_EQ(last.slot, wrap.slot(kSlots - 1));
    EXPECT_EQ(at(last.slot + 60), 0u);
    const RamboReservation first = record(wrap, 52);
    EXPECT_EQ(first.sequence, 0u);
    EXPECT_EQ(first.slot, wrap.slot(0));

    // Chunked: the lap of a sequence past 2^32 starts again from 0, so the chunk opened for lap
    // 0 (as the consumer leaves it) takes it without a wait.
    Ring chunked(4);
    for (Uint32 c = 0; c < 4; ++c) chunked.chunk(c)->generation = 0xFFFFFFFFu / kSlots;
    chunked.cb()->nextSequence = 0xFFFFFFFF - 1;
    record(chunked, 52);
    record(chunked, 52);
    chunked.chunk(0)->generation = 0;
    EXPECT_EQ(record(chunked, 52).sequence, 0u);
    EXPECT_EQ(chunked.chunk(0)->committedSlots, 1u);
    EXPECT_EQ(chunked.chunk(3)->committedSlots, 2u);
}

// Threads of one process claiming concurrently get disjoint records, all stamped.
TEST(Rambo, ConcurrentClaims) {
    Ring ring(1, 0x400000);
    const Uint32 kThreads = 4, kRecords = 2000;
    std::vector<std::thread> threads;
    for (Uint32 t = 0; t < kThreads; ++t)
        threads.emplace_back([&ring, t] {
            for (Uint32 k = 0; k < kRecords; ++k) record(ring, (k % 3) * 64 + 52, Uint8(t + 1));
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(ring.cb()->nextSequence, kThreads * (kRecords / 3 * 6 + 1 + 2));
    std::vector<Uint32> seen(kThreads + 1, 0);
    for (Uint32 i = 0; i < ring.cb()->nextSequence;) {
        const Uint8* p = ring.slot(i);
        const Uint32 n = at<Uint16>(p + 6);
        ASSERT_EQ(at(p), i);
        ASSERT_EQ(at(p + n * 64 - 4), ~i);
        ASSERT_TRUE(all(p + 9, n * 64 - 13, p[8]));
        ++seen[p[8]];
        i += n;
    }
    for (Uint32 t = 1; t <= kThreads; ++t) EXPECT_EQ(seen[t], kRecords);
}
