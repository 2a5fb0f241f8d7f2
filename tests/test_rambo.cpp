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

constexpr Uint32 kSize = 0x80000;
constexpr Uint32 kSlots = kSize / 64;

// A ring in private memory, filled with 0xAA before it is built so that untouched bytes show.
struct Ring {
    explicit Ring(Uint32 mode, Uint32 size = kSize, Uint32* rc = nullptr)
        : memory(ramboGetAllocSize(size) / 8 + 1, 0xAAAAAAAAAAAAAAAAull) {
        const Uint32 result = ramboInitialize(cb(), size, mode);
        if (rc != nullptr)
            *rc = result;
        else
            EXPECT_EQ(result, 0u);
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

Uint32 u32(const Uint8* p) {
    Uint32 v;
    memcpy(&v, p, 4);
    return v;
}

Uint16 u16(const Uint8* p) {
    Uint16 v;
    memcpy(&v, p, 2);
    return v;
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
    EXPECT_EQ(ramboGetAllocSize(0x7FFFF), 0u);
    EXPECT_EQ(ramboGetAllocSize(0x80001), 0u);
    EXPECT_EQ(ramboGetAllocSize(0xC0000), 0u);
    EXPECT_EQ(ramboGetAllocSize(0x80000000), 0u);
    EXPECT_EQ(ramboGetAllocSize(0), 0u);
    EXPECT_EQ(ramboGetAllocSize(0x80000), 0x80000u + 256 + 80 + 24 + 0x20000);
    // 8 chunks: 160 bytes of table; 8192 chunks: 163,840.
    EXPECT_EQ(ramboGetAllocSize(0x100000), 0x100000u + 256 + 160 + 24 + 0x20000);
    EXPECT_EQ(ramboGetAllocSize(0x40000000), 0x40000000u + 256 + 163840 + 24 + 0x20000);

    EXPECT_EQ(ramboRoundNearest2(0), 0u);
    EXPECT_EQ(ramboRoundNearest2(1), 1u);
    EXPECT_EQ(ramboRoundNearest2(3), 2u);
    EXPECT_EQ(ramboRoundNearest2(0x80000), 0x80000u);
    EXPECT_EQ(ramboRoundNearest2(0x80001), 0x80000u);
    EXPECT_EQ(ramboRoundNearest2(0xFFFFFFFF), 0x80000000u);
}

TEST(Rambo, LayoutInEachMode) {
    const struct {
        Uint32 mode, mask;
        Uint8 wraps, chunked, autoDump;
    } modes[] = {{1, 8191, 1, 0, 0}, {2, 16383, 0, 0, 0}, {4, 8191, 1, 1, 1}};
    for (const auto& m : modes) {
        SCOPED_TRACE(m.mode);
        Ring ring(m.mode);
        const Uint8* b = ring.bytes();
        EXPECT_EQ(u32(b + 0x00), 0u);
        EXPECT_EQ(memcmp(b + 0x04, "RAMBOCB\0", 8), 0);
        for (Uint32 i = 0x0C; i < 0x80; ++i) ASSERT_EQ(b[i], 0) << i;
        EXPECT_EQ(b[0x80], 0) << "latch free";
        EXPECT_EQ(b[0x81] | b[0x82] | b[0x83], 0);
        EXPECT_EQ(u32(b + 0x84), 0u);
        EXPECT_EQ(u32(b + 0x88), m.mask);
        EXPECT_EQ(u32(b + 0x8C), 336u);
        EXPECT_EQ(u32(b + 0x90), 256u);
        EXPECT_EQ(u32(b + 0x94), 524624u);
        EXPECT_EQ(u32(b + 0x98), kSize);
        EXPECT_EQ(u32(b + 0x9C), 4u);
        EXPECT_EQ(u32(b + 0xA0), 8192u);
        EXPECT_EQ(b[0xA4], m.wraps);
        EXPECT_EQ(b[0xA5], m.chunked);
        EXPECT_EQ(b[0xA6], m.autoDump);
        for (Uint32 i = 0xA7; i < 0x100; ++i) ASSERT_EQ(b[i], 0) << i;
        for (Uint32 c = 0; c < 4; ++c) {
            const Uint8* rec = b + 256 + 20 * c;
            EXPECT_EQ(memcmp(rec, "RAMBOCK\0", 8), 0);
            EXPECT_EQ(u32(rec + 8), 0u);
            EXPECT_EQ(u32(rec + 12), 0u);
            EXPECT_EQ(u32(rec + 16), c);
        }
        for (Uint32 i = 336; i < 336 + kSize; ++i) ASSERT_EQ(b[i], 0) << i;
    }
}

TEST(Rambo, InitializeRefusals) {
    // The size is judged before the area.
    EXPECT_EQ(ramboInitialize(nullptr, 0x80001, 1), ECF_RAMBO_INVALID_BUFFER_SIZE);
    EXPECT_EQ(ramboInitialize(nullptr, kSize, 1), ECF_INVALID_PARAMETER);

    // A bad mode leaves a block without eye-catcher, latch released, which nothing accepts.
    Uint32 rc = 0;
    Ring ring(3, kSize, &rc);
    EXPECT_EQ(rc, ECF_INVALID_PARAMETER);
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
    const struct {
        Uint32 payload, slots;
    } sizes[] = {{52, 1}, {53, 2}, {0, 1}, {116, 2}, {117, 3}, {0x20000 - 12, 2048}};
    Uint32 expected = 0;
    for (const auto& s : sizes) {
        SCOPED_TRACE(s.payload);
        const RamboReservation r = record(ring, s.payload, 0x77);
        EXPECT_EQ(r.sequence, expected);
        EXPECT_EQ(r.slotsReserved, s.slots);
        EXPECT_EQ(r.slot, ring.slot(expected));
        const Uint8* p = r.slot;
        EXPECT_EQ(u32(p), expected);
        EXPECT_EQ(u16(p + 4), 0xCAFE);
        EXPECT_EQ(u16(p + 6), s.slots);
        EXPECT_EQ(u32(p + s.slots * 64 - 4), ~expected);
        // The payload is the writer's: every byte it wrote is there, nothing else was touched.
        for (Uint32 i = 8; i < 8 + s.payload; ++i) ASSERT_EQ(p[i], 0x77) << i;
        for (Uint32 i = 8 + s.payload; i < s.slots * 64 - 4; ++i) ASSERT_EQ(p[i], 0) << i;
        expected += s.slots;
        EXPECT_EQ(ring.cb()->nextSequence, expected);
    }

    RamboReservation one;
    Uint8* p = static_cast<Uint8*>(ramboReserveOneSlot(ring.cb(), &one));
    EXPECT_EQ(p, ring.slot(expected) + 8);
    EXPECT_EQ(one.sequence, expected);
    EXPECT_EQ(one.slotsReserved, 1);
    memset(p, 0x11, 52);
    ramboSync(ring.cb(), &one);
    EXPECT_EQ(u32(ring.slot(expected) + 60), ~expected);
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
    EXPECT_EQ(u32(ring.slot(kSlots - 1) + 60), ~(kSlots - 3)) << "the ring's last record stands";

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

TEST(Rambo, NewSequence) {
    // Wrapping: a whole lap on, the index unmoved, the base where the counter now stands.
    Ring wrap(1);
    for (int i = 0; i < 5; ++i) record(wrap, 52);
    EXPECT_EQ(ramboNewSequence(wrap.cb()), 0u);
    EXPECT_EQ(wrap.cb()->nextSequence, 5 + kSlots);
    EXPECT_EQ(wrap.cb()->sequenceBase, 5 + kSlots);
    EXPECT_EQ(u32(wrap.slot(0)), 0u) << "the slots aren't touched";

    // Stopping: to the next multiple of twice the ring, from either half of the mask's range.
    Ring stop(2);
    for (Uint32 from : {0u, 100u, kSlots, kSlots + 100, 2 * kSlots - 1, 5 * 2 * kSlots + 7}) {
        SCOPED_TRACE(from);
        stop.cb()->nextSequence = from;
        EXPECT_EQ(ramboNewSequence(stop.cb()), 0u);
        EXPECT_EQ(stop.cb()->nextSequence, (from / (2 * kSlots) + 1) * 2 * kSlots);
        EXPECT_EQ(stop.cb()->sequenceBase, 0u);
        EXPECT_EQ(stop.cb()->latch, 0);
    }
    // The buffer fills from slot 0 again.
    EXPECT_EQ(record(stop, 52).slot, stop.slot(0));

    Ring chunked(4);
    EXPECT_EQ(ramboNewSequence(chunked.cb()), ECF_NOT_SUPPORTED);
    EXPECT_EQ(chunked.cb()->nextSequence, 0u);
}

TEST(Rambo, AutoDumpSwitch) {
    Ring wrap(1), stop(2), chunked(4);
    EXPECT_EQ(ramboAutoDumpEnabled(wrap.cb(), 1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    EXPECT_EQ(ramboAutoDumpEnabled(stop.cb(), 1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    EXPECT_EQ(wrap.cb()->autoDump, 0);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 0), 0u);
    EXPECT_EQ(chunked.cb()->autoDump, 0);
    EXPECT_EQ(chunked.cb()->latch, 0);

    // Without auto dump, writers neither wait nor count.
    chunked.cb()->nextSequence = 5 * kSlots;
    const RamboReservation r = record(chunked, 52);
    EXPECT_EQ(r.chunk, chunked.chunk(0));
    EXPECT_EQ(chunked.chunk(0)->committedSlots, 0u);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 1), 0u);
    EXPECT_EQ(chunked.cb()->autoDump, 1);
}

TEST(Rambo, ChunkedCounting) {
    Ring ring(4);
    // Lap 0 never waits: every generation starts at 0.
    RamboReservation r = record(ring, 52);
    EXPECT_EQ(r.chunk, ring.chunk(0));
    EXPECT_EQ(r.slotsInFirstChunk, 1);
    EXPECT_EQ(ring.chunk(0)->committedSlots, 1u);

    // A record across a chunk boundary counts in both.
    ring.cb()->nextSequence = 2046;
    r = record(ring, 5 * 64 - 12);
    EXPECT_EQ(r.chunk, ring.chunk(0));
    EXPECT_EQ(r.slotsInFirstChunk, 2);
    EXPECT_EQ(ring.chunk(0)->committedSlots, 3u);
    EXPECT_EQ(ring.chunk(1)->committedSlots, 3u);

    // One that ends on the boundary stays in one.
    ring.cb()->nextSequence = 4096 - 4;
    r = record(ring, 4 * 64 - 12);
    EXPECT_EQ(r.slotsInFirstChunk, 4);
    EXPECT_EQ(ring.chunk(1)->committedSlots, 7u);
    EXPECT_EQ(ring.chunk(2)->committedSlots, 0u);
}

TEST(Rambo, LostClaimsAtTheEnd) {
    // Wrapping without chunks: the claim is given up and the counter has moved for it; the tail
    // of the ring and the first slots of the next lap keep what they held.
    Ring wrap(1);
    memset(wrap.slot(kSlots - 2), 0xEE, 128);
    memset(wrap.slot(0), 0xDD, 3 * 64);
    wrap.cb()->nextSequence = kSlots - 2;
    RamboReservation r = record(wrap, 5 * 64 - 12);
    EXPECT_EQ(r.sequence, kSlots + 3);
    EXPECT_EQ(r.slot, wrap.slot(3));
    EXPECT_EQ(wrap.cb()->nextSequence, kSlots + 8);
    for (Uint32 i = 0; i < 128; ++i) ASSERT_EQ(wrap.slot(kSlots - 2)[i], 0xEE);
    for (Uint32 i = 0; i < 3 * 64; ++i) ASSERT_EQ(wrap.slot(0)[i], 0xDD);

    // Chunked: the lost slots are zeroed and still counted, the tail in the last chunk of this
    // lap, the overrun in chunk 0 of the next, which the writer waits for.
    Ring chunked(4);
    chunked.cb()->nextSequence = kSlots - 2;
    memset(chunked.slot(kSlots - 2), 0xEE, 128);
    memset(chunked.slot(0), 0xDD, 3 * 64);
    chunked.chunk(3)->committedSlots = 2046;
    chunked.chunk(0)->generation = 1;  // the consumer has stored chunk 0 of lap 0
    r = record(chunked, 5 * 64 - 12);
    EXPECT_EQ(r.sequence, kSlots + 3);
    EXPECT_EQ(r.chunk, chunked.chunk(0));
    for (Uint32 i = 0; i < 128; ++i) ASSERT_EQ(chunked.slot(kSlots - 2)[i], 0);
    for (Uint32 i = 0; i < 3 * 64; ++i) ASSERT_EQ(chunked.slot(0)[i], 0);
    EXPECT_EQ(chunked.chunk(3)->committedSlots, 2048u);
    EXPECT_EQ(chunked.chunk(0)->committedSlots, 3u + 5);
}

TEST(Rambo, WriterWaitsForTheChunksLap) {
    Ring ring(4);
    ring.cb()->nextSequence = kSlots + 10;  // lap 1, chunk 0, still open for lap 0
    std::atomic<bool> reserved{false};
    std::thread writer([&] {
        record(ring, 52);
        reserved = true;
    });
    usleep(30000);
    EXPECT_FALSE(reserved);
    // The consumer's two stores, in their order, free it.
    __atomic_store_n(&ring.chunk(0)->committedSlots, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&ring.chunk(0)->generation, 1, __ATOMIC_RELEASE);
    writer.join();
    EXPECT_TRUE(reserved);
    EXPECT_EQ(ring.chunk(0)->committedSlots, 1u);

    // A record that reaches into a second chunk waits for that one too; switching auto dump off
    // frees it as well.
    ring.cb()->nextSequence = kSlots + 2047;
    reserved = false;
    std::thread straddler([&] {
        record(ring, 2 * 64 - 12);
        reserved = true;
    });
    usleep(30000);
    EXPECT_FALSE(reserved);
    EXPECT_EQ(ramboAutoDumpEnabled(ring.cb(), 0), 0u);
    straddler.join();
    EXPECT_TRUE(reserved);
}

TEST(Rambo, CounterPassing2To32) {
    Ring wrap(1);
    wrap.cb()->nextSequence = 0xFFFFFFFE;
    EXPECT_EQ(record(wrap, 52).slot, wrap.slot(kSlots - 2));
    const RamboReservation last = record(wrap, 52);
    EXPECT_EQ(last.slot, wrap.slot(kSlots - 1));
    EXPECT_EQ(u32(last.slot + 60), 0u);
    const RamboReservation first = record(wrap, 52);
    EXPECT_EQ(first.sequence, 0u);
    EXPECT_EQ(first.slot, wrap.slot(0));

    // Chunked: the lap of a sequence past 2^32 starts again from 0, so the chunk opened for lap
    // 0 (as the consumer leaves it) takes it without a wait.
    Ring chunked(4);
    const Uint32 lastLap = 0xFFFFFFFFu / kSlots;
    for (Uint32 c = 0; c < 4; ++c) chunked.chunk(c)->generation = lastLap;
    chunked.cb()->nextSequence = 0xFFFFFFFF - 1;
    record(chunked, 52);
    record(chunked, 52);
    chunked.chunk(0)->generation = 0;
    const RamboReservation wrapped = record(chunked, 52);
    EXPECT_EQ(wrapped.sequence, 0u);
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
        ASSERT_EQ(u32(p), i);
        const Uint32 n = u16(p + 6);
        ASSERT_EQ(u32(p + n * 64 - 4), ~i);
        for (Uint32 b = 9; b < n * 64 - 4; ++b) ASSERT_EQ(p[b], p[8]);
        ++seen[p[8]];
        i += n;
    }
    for (Uint32 t = 1; t <= kThreads; ++t) EXPECT_EQ(seen[t], kRecords);
}
