// Tests of the ring and its dumps: the layout byte for byte, the three modes, claims that run past
// the end, new sequences, the writers' wait for a chunk's lap, the counter passing 2^32; the dump
// pieces of a live ring, every validation code of the reader, and its walks both ways over rings
// that wrapped, stopped, lost claims at the end or hold damaged slots, and over auto dumps.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <numeric>
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
        const Uint8* chunk3 = b + 256 + 3 * 20;  // the last chunk record
        EXPECT_EQ(memcmp(chunk3, "RAMBOCK\0", 8), 0);
        EXPECT_EQ(std::vector<Uint32>({at(chunk3 + 8), at(chunk3 + 12), at(chunk3 + 16)}),
                  std::vector<Uint32>({0, 0, 3}));
        EXPECT_TRUE(all(b + 336, kSize, 0));
    }
    // The size is judged before the area. A bad mode leaves a block without eye-catcher, latch
    // released, which nothing accepts.
    EXPECT_EQ(ramboInitialize(nullptr, 0x80001, 1), ECF_RAMBO_INVALID_BUFFER_SIZE);
    EXPECT_EQ(ramboInitialize(nullptr, kSize, 1), ECF_INVALID_PARAMETER);
    Ring bad(3);
    EXPECT_EQ(bad.rc, ECF_INVALID_PARAMETER);
    EXPECT_EQ(bad.cb()->latch, 0);
    EXPECT_EQ(ramboNewSequence(bad.cb()), ECF_RAMBO_NOT_INITIALIZED);
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
}

TEST(Rambo, StoppingRingOverflow) {
    Ring ring(2);
    static int overflows = 0;
    ramboSetCallBack([] { ++overflows; });
    // A claim that ends exactly on the last slot lands in the ring; the next, of one slot or of
    // the largest record, goes to the overflow area, and so does one across the end: records are
    // never split. The callback runs for each; the counter keeps what was claimed.
    ring.cb()->nextSequence = kSlots - 3;
    EXPECT_EQ(record(ring, 3 * 64 - 12).slot, ring.slot(kSlots - 3));
    EXPECT_EQ(overflows, 0);
    Uint8* overflow = ring.bytes() + ring.cb()->overflowOffset;
    RamboReservation r;
    EXPECT_EQ(ramboReserveOneSlot(ring.cb(), &r), overflow + 8);
    EXPECT_EQ(record(ring, 0x20000 - 12, 0x44).slot, overflow);
    EXPECT_EQ(ring.cb()->nextSequence, kSlots + 1 + 2048);
    EXPECT_EQ(at(ring.slot(kSlots - 1) + 60), ~(kSlots - 3)) << "the ring's last record stands";
    ring.cb()->nextSequence = kSlots - 2;
    EXPECT_EQ(record(ring, 3 * 64 - 12).slot, overflow);
    EXPECT_EQ(overflows, 3);
    ramboSetCallBack(nullptr);
}

TEST(Rambo, NewSequenceAndAutoDumpSwitch) {
    // Wrapping: a whole lap on, the index unmoved, the base where the counter now stands.
    Ring wrap(1), stop(2), chunked(4);
    wrap.cb()->nextSequence = 5;
    EXPECT_EQ(ramboNewSequence(wrap.cb()), 0u);
    EXPECT_EQ(std::vector<Uint32>({wrap.cb()->nextSequence, wrap.cb()->sequenceBase}),
              std::vector<Uint32>(2, 5 + kSlots));
    // Stopping: to the next multiple of twice the ring, from either half of the mask's range.
    for (Uint32 from : {0u, kSlots + 100, 2 * kSlots - 1, 5 * 2 * kSlots + 7}) {
        stop.cb()->nextSequence = from;
        EXPECT_EQ(ramboNewSequence(stop.cb()), 0u);
        EXPECT_EQ(stop.cb()->nextSequence, (from / (2 * kSlots) + 1) * 2 * kSlots) << from;
        EXPECT_EQ(stop.cb()->sequenceBase + stop.cb()->latch, 0u) << from;
    }
    EXPECT_EQ(ramboNewSequence(chunked.cb()), ECF_NOT_SUPPORTED);
    EXPECT_EQ(ramboAutoDumpEnabled(stop.cb(), 1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    // A writer on lap 1 waits for the consumer to open chunk 0. Switching auto dump off, as a
    // consumer that goes away does, frees it, and it counts nothing.
    chunked.cb()->nextSequence = kSlots;
    std::atomic<bool> reserved{false};
    std::thread writer([&] {
        record(chunked, 52);
        reserved = true;
    });
    usleep(30000);
    EXPECT_FALSE(reserved);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 0), 0u);
    writer.join();
    EXPECT_EQ(chunked.cb()->autoDump + chunked.cb()->latch + chunked.chunk(0)->committedSlots, 0u);
    EXPECT_EQ(ramboAutoDumpEnabled(chunked.cb(), 1), 0u);
    EXPECT_EQ(chunked.cb()->autoDump, 1);
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
    Tags v(to - from);
    std::iota(v.begin(), v.end(), from);
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
        ASSERT_EQ(openAt(file_, path_, at_ = at), 0u);
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

TEST_F(RamboDump, ValidationAndParsing) {
    EXPECT_EQ(ramboValidateDumpFile(nullptr), ECF_INVALID_PARAMETER);
    Ring ring(1);
    put(ring, 0);
    put(ring, 1, 2);
    const Bytes good = dumpImage(ring.cb());
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
        {cut(header(kSize, 2), 15), ECF_RAMBO_DUMP_HEADER_TRUNCATED},
        {header(kSize, 2, 0, "@HEAD\r\r"), ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER},
        {header(kSize, 3), ECF_RAMBO_INVALID_DUMP_TYPE},
        {header(0x7FFFF, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE},
        {header(0x40000000, 2), 0},
        {header(0x80001, 2), 0},  // in range; powers of two aren't asked for
        // Auto dumps: nothing or whole slots behind the header.
        {cut(header(kSize, 2, 1), 16 + 63), ECF_RAMBO_DUMP_TRUNCATED},
        {header(kSize, 2, 1), 0},
        // Instantaneous dumps: the whole ring and a tail whose index is a slot of it.
        {cut(good, good.size() - 1), ECF_RAMBO_INSTANT_DUMP_TRUNCATED},
        {patched(16 + kSize + 6, '\r', 1), ECF_RAMBO_INVALID_DUMP_TAIL_EYE_CATCHER},
        {patched(16 + kSize + 12, kSlots), ECF_RAMBO_INVALID_DUMP_SLOT_INDEX},
        {patched(16 + kSize + 12, kSlots - 1), 0},
    };
    RamboDumpParser parser;
    for (size_t i = 0; i < std::size(cases); ++i) {
        writeFile(cases[i].first);
        EXPECT_EQ(ramboValidateDumpFile(&file_), cases[i].second) << i;
        EXPECT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1), cases[i].second) << i;
        EXPECT_EQ(ramboCloseDumpFileParser(&parser), cases[i].second ? ECF_INVALID_PARAMETER : 0);
    }
    // A ring that never wrapped, behind other bytes: forward from the tail index, zero slots to
    // the ring's end, then everything from slot 0. Validation leaves the file where the dump
    // begins. Offsets are the payloads' places in the file; a small buffer gets the beginning,
    // and the result still tells the whole size.
    writeFile(dumpImage(ring.cb(), true, 100), 100);
    EXPECT_EQ(both({0, 1}), "0 0");
    EXPECT_EQ(ramboValidateDumpFile(&file_), 0u);
    ASSERT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1), 0u);
    Uint8 small[6];
    Uint64 offset = 0;
    memset(small, 0xEE, sizeof small);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, &offset, small, 5), 52u);
    EXPECT_EQ(offset, 100u + 16 + 8);
    const Uint8 begin[6] = {0, 0, 0, 0, 0, 0xEE};
    EXPECT_EQ(memcmp(small, begin, 6), 0);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), ECF_INVALID_PARAMETER);
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
    Bytes bytes = dumpImage(ring.cb());
    Tags expected = range(kSlots + 12, 2 * kSlots - 2);
    for (Uint32 i = 0; i < 5; ++i) expected.push_back(900000 + i);
    writeFile(bytes);
    EXPECT_EQ(both(expected), "1 0");
    // Damaged slots are stepped over, one at a time: no mark; counts 0, 2049 and 2048, whose
    // last word isn't a trailer; a half-stamped record; a sequence outside the window. The
    // ring's last record claims four slots, and what follows the ring in the file (the tail,
    // then another dump) ends in its trailer: the claim is refused, the slot skipped.
    Uint8* d = bytes.data() + 16 + 100 * 64;
    d[4] = 0;
    memset(d + 64 + 6, 0, 2);
    d[2 * 64 + 7] = 0x08;
    memcpy(d + 3 * 64 + 6, "\x00\x08", 2);
    d[4 * 64 + 63] ^= 1;
    const Uint32 outside[2] = {1000, ~1000u};
    memcpy(d + 5 * 64, &outside[0], 4);
    memcpy(d + 5 * 64 + 60, &outside[1], 4);
    bytes.resize(bytes.size() + 256, 0x5A);
    Uint8* last = bytes.data() + 16 + (kSlots - 3) * 64;
    const Uint32 four = 4, trailer = ~at(last);
    memcpy(last + 6, &four, 2);
    memcpy(last + 4 * 64 - 4, &trailer, 4);
    writeFile(bytes);
    expected.erase(std::find(expected.begin(), expected.end(), 2 * kSlots - 3));
    expected.erase(expected.begin() + (100 - 12), expected.begin() + (106 - 12));
    both(expected);
    // After a new sequence everything older is a lap behind; only what came after is delivered,
    // and the ring counts as not wrapped since its base.
    ASSERT_EQ(ramboNewSequence(ring.cb()), 0u);
    for (Uint32 i = 0; i < 10; ++i) put(ring, 1000000 + i, 2);
    writeFile(dumpImage(ring.cb()));
    EXPECT_EQ(both(range(1000000, 1000010)), "0 0");
}

TEST_F(RamboDump, StoppingRing) {
    // Overfilled: the claims past the end are lost, the ring was truncated, all records in it come.
    Ring full(2);
    for (Uint32 i = 0; i < kSlots / 2; ++i) put(full, i, 2);
    for (Uint32 i = 0; i < 3; ++i) put(full, 99999, 3);
    writeFile(dumpImage(full.cb()));
    EXPECT_EQ(both(range(0, kSlots / 2)), "0 1");
}

TEST_F(RamboDump, AutoDumps) {
    // Sequences run on, so a dump whose first record isn't the ring's first counts as wrapped
    // when opened with a scan; a trailing fragment of a slot is stepped over, and so is a record
    // that would run past the end of the file.
    Ring ring(4);
    ring.cb()->nextSequence = 5000;
    put(ring, 1, 2);
    put(ring, 2, 3);
    Bytes bytes = dumpImage(ring.cb(), false);
    bytes.resize(16 + 5005 * 64 + 20);
    writeFile(bytes);
    EXPECT_EQ(both({1, 2}, true), "1 0");
    bytes.resize(16 + 5004 * 64);
    writeFile(bytes);
    both({1});
}
