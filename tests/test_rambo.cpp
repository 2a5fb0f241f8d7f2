// Tests of the ring and its dumps: the layout byte for byte, the three modes, claims that run past
// the end, new sequences, the writers' wait for a chunk's lap, the counter passing 2^32; the dump
// pieces of a live ring, every validation code of the reader, and its walks both ways over rings
// that wrapped, stopped, lost claims at the end or hold damaged slots, and over auto dumps.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "zeptest_rambo.h"
#include "zeptest_util.h"

namespace {

using namespace zeptest;

constexpr Uint32 kSize = 0x80000, kSlots = kSize / 64;

template <class T = Uint32>
T at(const Uint8* p) {
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

// True when all `n` bytes at `p` are `b`.
bool all(const Uint8* p, size_t n, Uint8 b) {
    return std::all_of(p, p + n, [b](Uint8 x) { return x == b; });
}

std::atomic<int> g_overflows{0};
void countOverflow() {
    ++g_overflows;
}

}  // namespace

TEST(Rambo, Sizes) {
    const Uint32 sizes[][2] = {{0x7FFFF, 0},
                               {0x80001, 0},
                               {0x80000000, 0},
                               {0x80000, 0x80000 + 256 + 80 + 24 + 0x20000},
                               {0x40000000, 0x40000000 + 256 + 163840 + 24 + 0x20000}};
    for (const auto& s : sizes) EXPECT_EQ(ramboGetAllocSize(s[0]), s[1]) << s[0];
    const Uint32 rounded[][2] = {{0, 0}, {3, 2}, {0x80001, 0x80000}, {0xFFFFFFFF, 0x80000000}};
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
    Ring bad(3);
    EXPECT_EQ(bad.rc, ECF_INVALID_PARAMETER);
    EXPECT_NE(memcmp(bad.bytes() + 4, "RAMBOCB\0", 8), 0);
    EXPECT_EQ(bad.cb()->latch, 0);
    EXPECT_EQ(ramboNewSequence(bad.cb()), ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboAutoDumpEnabled(bad.cb(), 1), ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboNewSequence(nullptr), ECF_INVALID_PARAMETER);
}

TEST(Rambo, ReserveAndStamp) {
    Ring ring(1);
    // 52 payload bytes take one slot, 53 two, 0 one.
    const Uint32 sizes[][2] = {{52, 1}, {53, 2}, {0, 1}, {117, 3}, {0x20000 - 12, 2048}};
    Uint32 expected = 0;
    for (const auto& s : sizes) {
        SCOPED_TRACE(s[0]);
        const RamboReservation r = record(ring, s[0], 0x77);
        EXPECT_EQ(std::vector<Uint32>({r.sequence, r.slotsReserved}),
                  std::vector<Uint32>({expected, s[1]}));
        const Uint8* p = r.slot;
        EXPECT_EQ(p, ring.slot(expected));
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
    EXPECT_EQ(ramboReserveOneSlot(ring.cb(), &one), ring.slot(expected) + 8);
    EXPECT_EQ(std::vector<Uint32>({one.sequence, one.slotsReserved}),
              std::vector<Uint32>({expected, 1}));
    ramboSync(ring.cb(), &one);
    EXPECT_EQ(at(ring.slot(expected) + 60), ~expected);
}

TEST(Rambo, StoppingRingOverflow) {
    Ring ring(2);
    g_overflows = 0;
    ramboSetCallBack(countOverflow);
    // A claim that ends exactly on the last slot lands in the ring.
    ring.cb()->nextSequence = kSlots - 3;
    RamboReservation r = record(ring, 3 * 64 - 12, 0x33);
    EXPECT_EQ(r.slot, ring.slot(kSlots - 3));
    EXPECT_EQ(g_overflows, 0);
    // The next claim, of one slot or many, goes to the overflow area, where the largest record
    // fits; the callback runs for each; the counter keeps what was claimed.
    Uint8* overflow = ring.bytes() + ring.cb()->overflowOffset;
    EXPECT_EQ(ramboReserveOneSlot(ring.cb(), &r), overflow + 8);
    EXPECT_EQ(r.slot, overflow);
    EXPECT_EQ(g_overflows, 1);
    r = record(ring, 0x20000 - 12, 0x44);
    EXPECT_EQ(r.slot, overflow);
    EXPECT_EQ(r.slotsReserved, 1);
    EXPECT_EQ(g_overflows, 2);
    EXPECT_EQ(ring.cb()->nextSequence, kSlots + 1 + 2048);
    EXPECT_EQ(at(ring.slot(kSlots - 1) + 60), ~(kSlots - 3)) << "the ring's last record stands";
    // A claim that would cross the end goes there too: records are never split.
    Ring other(2);
    other.cb()->nextSequence = kSlots - 2;
    EXPECT_EQ(record(other, 3 * 64 - 12).slot, other.bytes() + other.cb()->overflowOffset);
    EXPECT_EQ(other.cb()->nextSequence, kSlots + 1);
    EXPECT_EQ(g_overflows, 3);
    ramboSetCallBack(nullptr);
}

TEST(Rambo, NewSequenceAndAutoDumpSwitch) {
    // Wrapping: a whole lap on, the index unmoved, the base where the counter now stands.
    Ring wrap(1), stop(2), chunked(4);
    for (int i = 0; i < 5; ++i) record(wrap, 52);
    EXPECT_EQ(ramboNewSequence(wrap.cb()), 0u);
    EXPECT_EQ(wrap.cb()->nextSequence, 5 + kSlots);
    EXPECT_EQ(wrap.cb()->sequenceBase, 5 + kSlots);
    // Stopping: to the next multiple of twice the ring, from either half of the mask's range.
    for (Uint32 from : {0u, kSlots + 100, 2 * kSlots - 1, 5 * 2 * kSlots + 7}) {
        stop.cb()->nextSequence = from;
        EXPECT_EQ(ramboNewSequence(stop.cb()), 0u);
        EXPECT_EQ(stop.cb()->nextSequence, (from / (2 * kSlots) + 1) * 2 * kSlots) << from;
        EXPECT_EQ(stop.cb()->sequenceBase + stop.cb()->latch, 0u) << from;
    }
    EXPECT_EQ(ramboNewSequence(chunked.cb()), ECF_NOT_SUPPORTED);
    // Auto dump is the chunked ring's alone; without it, writers neither wait nor count.
    EXPECT_EQ(ramboAutoDumpEnabled(stop.cb(), 1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 0), 0u);
    EXPECT_EQ(chunked.cb()->autoDump + chunked.cb()->latch, 0);
    chunked.cb()->nextSequence = 5 * kSlots;
    EXPECT_EQ(record(chunked, 52).chunk, chunked.chunk(0));
    EXPECT_EQ(chunked.chunk(0)->committedSlots, 0u);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 1), 0u);
    EXPECT_EQ(chunked.cb()->autoDump, 1);
}

TEST(Rambo, WriterWaitsForTheChunksLap) {
    // Lap 1 of a record reaching from chunk 0 into chunk 1: it waits for both; the consumer's two
    // stores, in their order, open chunk 0; switching auto dump off frees the writer from chunk 1.
    Ring ring(4);
    std::atomic<bool> reserved{false};
    ring.cb()->nextSequence = kSlots + 2047;
    std::thread writer([&] {
        record(ring, 2 * 64 - 12);
        reserved = true;
    });
    usleep(30000);
    __atomic_store_n(&ring.chunk(0)->committedSlots, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&ring.chunk(0)->generation, 1, __ATOMIC_RELEASE);
    usleep(30000);
    EXPECT_FALSE(reserved);
    EXPECT_EQ(ramboAutoDumpEnabled(ring.cb(), 0), 0u);
    writer.join();
    EXPECT_TRUE(reserved);
}

TEST(Rambo, CounterPassing2To32) {
    Ring wrap(1);
    wrap.cb()->nextSequence = 0xFFFFFFFF;
    const RamboReservation last = record(wrap, 52);
    EXPECT_EQ(last.slot, wrap.slot(kSlots - 1));
    EXPECT_EQ(at(last.slot + 60), 0u);
    EXPECT_EQ(record(wrap, 52).slot, wrap.slot(0));
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

namespace {

using Tags = std::vector<Uint32>;
using Bytes = std::vector<Uint8>;

// A header in bytes, for files made by hand, with room for `slots` slots behind it.
Bytes header(Uint32 size, Uint16 type, Uint32 slots = 0, const char* eye = "@HEAD\r\n") {
    Bytes h(16 + slots * 64, 0);
    memcpy(h.data(), eye, 8);
    memcpy(h.data() + 8, &size, 4);
    memcpy(h.data() + 12, &type, 2);
    return h;
}

Tags range(Uint32 from, Uint32 to) {
    Tags v;
    for (Uint32 i = from; i < to; ++i) v.push_back(i);
    return v;
}

// Dump files, made of a live ring's pieces or by hand, and what the reader makes of them.
class RamboDump : public ::testing::Test {
protected:
    void TearDown() override { file_.close(); }
    // The file holds `bytes`; the dump in it begins at `at`.
    void writeFile(const Bytes& bytes, Uint64 at = 0) {
        file_.close();
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        ZEPFileOpenParam open;
        open.path = path_.c_str();
        open.creation = ZEP_FILE_OPEN_EXISTING;
        open.access = ZEP_FILE_ACCESS_READ;
        ASSERT_EQ(file_.open(&open), 0u);
        ZEPFileSeekParam seek;
        seek.offset = static_cast<Sint64>(at_ = at);
        EXPECT_EQ(file_.seek(&seek), 0u);
    }
    // Header, slots and (instantaneous) tail of a live ring, behind `prefix` bytes of other data.
    static Bytes image(Ring& ring, bool instantaneous = true, size_t prefix = 0) {
        Bytes bytes(prefix + 16 + ring.cb()->bufferSize + (instantaneous ? 32 : 0), 0x99);
        void* slots = nullptr;
        Uint32 size = 0;
        auto* h = reinterpret_cast<RamboDumpHeader*>(bytes.data() + prefix);
        EXPECT_EQ(ramboGetDumpHeaderBuffer(ring.cb(), instantaneous, h, &slots, &size), 0u);
        memcpy(h + 1, slots, size);
        RamboDumpTail tail;
        EXPECT_EQ(ramboGetDumpTail(ring.cb(), &tail), 0u);
        if (instantaneous) memcpy(bytes.data() + prefix + 16 + size, &tail, 32);
        return bytes;
    }
    // Both walks deliver `expected`, the backward one in reverse, each record whole; the
    // forward walk's flags.
    std::string both(const Tags& expected, bool scan = false) {
        const Walked f = walkDump(path_, true, scan, at_), b = walkDump(path_, false, false, at_);
        EXPECT_EQ(f.tags, expected);
        EXPECT_EQ(b.tags, Tags(expected.rbegin(), expected.rend()));
        EXPECT_EQ(f.rc + b.rc + f.bad + b.bad, 0u);
        return f.flags;
    }

    TempDir dir_{"zepramb"};
    std::string path_ = dir_ / "ring.dump";
    ZEPHFile file_;
    Uint64 at_ = 0;
};

}  // namespace

TEST(RamboDumpPieces, Refusals) {
    Ring wrap(1), none(1);
    none.cb()->eyeCatcher[0] = 0;
    RamboDumpHeader h;
    RamboChunkWalker w;
    EXPECT_EQ(ramboGetDumpHeaderBuffer(nullptr, 1, &h, nullptr, nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboGetDumpHeaderBuffer(none.cb(), 1, &h, nullptr, nullptr),
              ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboGetDumpTail(wrap.cb(), nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboInitializeChunkWalker(wrap.cb(), &w), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
}

TEST_F(RamboDump, ValidationCodes) {
    EXPECT_EQ(ramboValidateDumpFile(nullptr), ECF_INVALID_PARAMETER);
    Ring ring(1);
    put(ring, 1);
    const Bytes good = image(ring);
    // The header's 16 bytes: eye-catcher, size, instantaneous, wrapping.
    const Uint8 head[16] = {'@', 'H', 'E', 'A', 'D', '\r', '\n', 0, 0, 0, 8, 0, 1, 0, 1, 0};
    EXPECT_EQ(memcmp(good.data(), head, 16), 0);
    auto cut = [](const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + n); };
    auto patched = [&](size_t at, Uint32 v, size_t n = 4) {
        Bytes b = good;
        memcpy(b.data() + at, &v, n);
        return b;
    };
    const std::pair<Bytes, Uint32> cases[] = {
        {{}, ECF_RAMBO_DUMP_HEADER_TRUNCATED},
        {cut(header(kSize, 2), 15), ECF_RAMBO_DUMP_HEADER_TRUNCATED},
        {header(kSize, 2, 0, "@HEAD\r\r"), ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER},
        {header(kSize, 3), ECF_RAMBO_INVALID_DUMP_TYPE},
        {header(0x7FFFF, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE},
        {header(0x40000001, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE},
        {header(0x40000000, 2), 0},
        {header(0x80001, 2), 0},  // in range; powers of two aren't asked for
        // Auto dumps: nothing or whole slots behind the header.
        {cut(header(kSize, 2, 1), 16 + 63), ECF_RAMBO_DUMP_TRUNCATED},
        {header(kSize, 2, 1), 0},
        // Instantaneous dumps: the whole ring and a tail whose index is a slot of it.
        {good, 0},
        {cut(good, good.size() - 1), ECF_RAMBO_INSTANT_DUMP_TRUNCATED},
        {cut(good, 16 + kSize / 2), ECF_RAMBO_INSTANT_DUMP_TRUNCATED},
        {patched(16 + kSize + 6, '\r', 1), ECF_RAMBO_INVALID_DUMP_TAIL_EYE_CATCHER},
        {patched(16 + kSize + 12, kSlots), ECF_RAMBO_INVALID_DUMP_SLOT_INDEX},
        {patched(16 + kSize + 12, kSlots - 1), 0},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        writeFile(cases[i].first);
        EXPECT_EQ(ramboValidateDumpFile(&file_), cases[i].second) << i;
    }
    // A dump inside a larger file: validation starts and ends where the file stands; opening
    // reports the same codes and leaves nothing to close.
    Bytes bytes = image(ring, true, 1000);
    bytes.resize(bytes.size() + 500, 0x77);
    for (Uint32 rc : {0u, Uint32{ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER}}) {
        bytes[1000] = rc ? 'X' : '@';
        writeFile(bytes, 1000);
        EXPECT_EQ(ramboValidateDumpFile(&file_), rc);
        ZEPFileSeekParam here;
        here.origin = ZEP_FILE_SEEK_CURRENT;
        Uint64 now = 0;
        EXPECT_EQ(file_.seek(&here, &now), 0u);
        EXPECT_EQ(now, 1000u);
    }
    RamboDumpParser parser;
    EXPECT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1),
              ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), ECF_INVALID_PARAMETER);
}

TEST_F(RamboDump, RingThatNeverWrapped) {
    Ring ring(1);
    for (Uint32 i = 0; i < 100; ++i) put(ring, i, 1 + i % 3);
    writeFile(image(ring, true, 100), 100);
    // Forward from the tail index: zero slots to the ring's end, then everything from slot 0.
    EXPECT_EQ(both(range(0, 100)), "0 0");
    // Offsets are the payloads' places in the file; a small buffer gets the beginning, and the
    // result still tells the whole size. A closed parser is refused.
    RamboDumpParser parser;
    ASSERT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1), 0u);
    Uint8 flag = 0, small[6];
    Uint64 offset = 0;
    memset(small, 0xEE, sizeof small);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, &offset, small, 5), 52u);
    EXPECT_EQ(offset, 100u + 16 + 8);
    const Uint8 begin[6] = {0, 0, 0, 0, 0, 0xEE};
    EXPECT_EQ(memcmp(small, begin, 6), 0);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, &offset, nullptr, 100), 116u);
    EXPECT_EQ(offset, 100u + 16 + 64 + 8);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboDidBufferWrap(&parser, &flag), ECF_INVALID_PARAMETER);
}

TEST_F(RamboDump, WrappingRing) {
    // Lap 0 fills the ring; lap 1 fills it to two slots short of the end, where a five-slot
    // claim is lost: the last two slots keep lap 0's stamps and the first three of lap 2 keep
    // lap 1's. The window begins at tail - slotCount = lap 1's slot 12: the older stamps fail
    // it, and the walk goes on at slot 0 past the ring's end.
    Ring ring(1);
    for (Uint32 i = 0; i < 2 * kSlots - 2; ++i) put(ring, i);
    put(ring, 900000, 5);
    for (Uint32 i = 0; i < 4; ++i) put(ring, 900001 + i);
    Bytes bytes = image(ring);
    Tags expected = range(kSlots + 12, 2 * kSlots - 2);
    for (Uint32 i = 0; i < 5; ++i) expected.push_back(900000 + i);
    writeFile(bytes);
    EXPECT_EQ(both(expected), "1 0");
    // The ring's last record claims four slots, and what follows the ring in the file (the
    // tail, then another dump) ends in its trailer: the claim is refused, the slot skipped.
    bytes.resize(bytes.size() + 256, 0x5A);
    Uint8* last = bytes.data() + 16 + (kSlots - 3) * 64;
    const Uint32 four = 4, trailer = ~at(last);
    memcpy(last + 6, &four, 2);
    memcpy(last + 4 * 64 - 4, &trailer, 4);
    writeFile(bytes);
    expected.erase(std::find(expected.begin(), expected.end(), 2 * kSlots - 3));
    both(expected);
    // After a new sequence everything older is a lap behind; only what came after is delivered,
    // and the ring counts as not wrapped since its base.
    ASSERT_EQ(ramboNewSequence(ring.cb()), 0u);
    for (Uint32 i = 0; i < 10; ++i) put(ring, 1000000 + i, 2);
    writeFile(image(ring));
    EXPECT_EQ(both(range(1000000, 1000010)), "0 0");
}

TEST_F(RamboDump, StoppingRing) {
    // Partly used: only the used slots are looked at, whatever lies behind them.
    Ring ring(2);
    for (Uint32 i = 0; i < 50; ++i) put(ring, i, 1 + i % 4);
    Bytes bytes = image(ring);
    memcpy(bytes.data() + 16 + 200 * 64, bytes.data() + 16, 64);
    writeFile(bytes);
    EXPECT_EQ(both(range(0, 50)), "0 0");
    // Filled exactly: nothing is truncated; overfilled: truncated; all records in it come.
    Ring full(2);
    for (Uint32 i = 0; i < kSlots / 2; ++i) put(full, i, 2);
    writeFile(image(full));
    EXPECT_EQ(both(range(0, kSlots / 2)), "0 0");
    for (Uint32 i = 0; i < 3; ++i) put(full, 99999, 3);
    writeFile(image(full));
    EXPECT_EQ(both(range(0, kSlots / 2)), "0 1");
}

TEST_F(RamboDump, AutoDumps) {
    // No slots at all is a valid dump with nothing in it, read through a buffer of one slot.
    Ring ring(4);
    writeFile(header(kSize, 2));
    both({});
    RamboDumpParser p;
    ASSERT_EQ(ramboOpenDumpFileParser(&file_, &p, 1), 0u);
    EXPECT_EQ(p.bufferCapacity, 64u);
    ramboCloseDumpFileParser(&p);
    // Sequences simply run on; zeroed slots of lost claims and a trailing fragment are stepped
    // over; a record of three slots is found backward at its first slot. Scanning tells whether
    // the dump begins with the ring's first record.
    ring.cb()->nextSequence = 5000;
    put(ring, 1, 2);
    ring.cb()->nextSequence += 2;
    put(ring, 2);
    put(ring, 3, 3);
    Bytes bytes = image(ring, false);
    bytes.resize(16 + (5000 + 8) * 64 + 20);
    writeFile(bytes);
    EXPECT_EQ(both({1, 2, 3}, true), "1 0");
    // A record that would run past the end of the file is stepped over.
    bytes.resize(16 + (5000 + 7) * 64);
    writeFile(bytes);
    both({1, 2});
    Ring first(4);
    put(first, 7);
    writeFile(image(first, false));
    EXPECT_EQ(both({7}, true), "0 0");
}

TEST_F(RamboDump, DamagedSlotsAreSteppedOver) {
    Ring ring(1);
    for (Uint32 i = 0; i < 20; ++i) put(ring, i, 2);
    Bytes bytes = image(ring);
    Uint8* slots = bytes.data() + 16;
    slots[2 * 64 + 4] = 0;                     // no mark
    memset(slots + 4 * 64 + 6, 0, 2);          // count 0
    slots[6 * 64 + 7] = 0x08;                  // count 2050
    slots[8 * 64 + 6] = 0x00;                  // 2048 slots, whose last word
    slots[8 * 64 + 7] = 0x08;                  //    isn't a trailer
    slots[10 * 64 + 127] ^= 1;                 // half-stamped, trailer wrong
    const Uint32 outside[2] = {1000, ~1000u};  // a sequence outside the window
    memcpy(slots + 12 * 64, &outside[0], 4);
    memcpy(slots + 12 * 64 + 124, &outside[1], 4);
    writeFile(bytes);
    Tags expected = range(7, 20);
    expected.insert(expected.begin(), 0);
    both(expected);
}

TEST_F(RamboDump, RefillsAndLargeRecords) {
    // A ring of 4 MiB (reads of 1 MiB) with records of every size up to the largest; the tail
    // index falls in the middle so the walk passes the ring's end. A copy of the newest record
    // behind the tail isn't read as slot 0.
    const Uint32 size = 0x400000, slots = size / 64;
    Ring ring(1, size);
    Uint32 tag = 0;
    for (Uint32 n = 1; ring.cb()->nextSequence < slots + slots / 2; n = n * 7 % 2048 + 1)
        put(ring, tag++, n);
    put(ring, tag++);
    Bytes bytes = image(ring);
    const Uint8* newest = ring.slot((ring.cb()->nextSequence - 1) % slots);
    bytes.insert(bytes.end(), newest, newest + 64);
    writeFile(bytes);
    // A lap and a half of records of up to 2048 slots, lost claims at the end: what the window
    // keeps is the newest records without a gap.
    const Tags forward = walkDump(path_, true).tags;
    ASSERT_GT(forward.size(), 30u);
    EXPECT_EQ(forward.back(), tag - 1);
    EXPECT_EQ(both(range(forward[0], tag)), "1 0");
}
