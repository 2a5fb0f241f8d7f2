// Tests of the dump pieces of a live ring and of the dump reader: every validation code, the
// walk forward and backward over rings that never wrapped, wrapped, started a new sequence, lost
// claims at the end, filled exactly or overfilled; auto dumps; damaged slots; buffer refills.
#include <algorithm>

#include "zeptest_util.h"

namespace {

constexpr Uint32 kSize = 0x80000, kSlots = kSize / 64;
using Tags = std::vector<Uint32>;
using Bytes = std::vector<Uint8>;

struct Ring {
    explicit Ring(Uint32 mode, Uint32 size = kSize) : memory(ramboGetAllocSize(size) / 8 + 1) {
        EXPECT_EQ(ramboInitialize(cb(), size, mode), 0u);
    }
    RamboCB* cb() { return reinterpret_cast<RamboCB*>(memory.data()); }
    Uint8* slot(Uint32 index) {
        return reinterpret_cast<Uint8*>(memory.data()) + cb()->slotsOffset + index * 64;
    }
    std::vector<Uint64> memory;
};

// A record of `slots` slots whose payload begins with `tag`.
void put(Ring& ring, Uint32 tag, Uint32 slots = 1) {
    RamboReservation r;
    Uint8* p = static_cast<Uint8*>(ramboReserveSlots(ring.cb(), slots * 64 - 12, &r));
    memset(p, 0x3C, slots * 64 - 12);
    memcpy(p, &tag, 4);
    ramboSync(ring.cb(), &r);
}

// The stamps of a record written straight into a byte image.
void stamp(Uint8* at, Uint32 sequence, Uint16 slots, Uint32 tag) {
    memset(at, 0x3C, slots * 64);
    const Uint16 mark = 0xCAFE;
    const Uint32 trailer = ~sequence;
    memcpy(at, &sequence, 4);
    memcpy(at + 4, &mark, 2);
    memcpy(at + 6, &slots, 2);
    memcpy(at + 8, &tag, 4);
    memcpy(at + slots * 64 - 4, &trailer, 4);
}

// A header in bytes, for files made by hand, with room for `slots` slots behind it.
Bytes header(const char* eye, Uint32 size, Uint16 type, Uint32 slots = 0) {
    Bytes h(16 + slots * 64, 0);
    memcpy(h.data(), eye, 8);
    memcpy(h.data() + 8, &size, 4);
    memcpy(h.data() + 12, &type, 2);
    h[14] = 1;
    return h;
}
Bytes autoDump(Uint32 slots = 0) {
    return header("@HEAD\r\n", kSize, 2, slots);
}

Tags range(Uint32 from, Uint32 to) {
    Tags v;
    for (Uint32 i = from; i < to; ++i) v.push_back(i);
    return v;
}
Tags reversed(Tags v) {
    return Tags(v.rbegin(), v.rend());
}

class RamboDump : public ::testing::Test {
protected:
    void TearDown() override { file_.close(); }
    void writeFile(const Bytes& bytes) {
        file_.close();
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        ZEPFileOpenParam open;
        open.path = path_.c_str();
        open.creation = ZEP_FILE_OPEN_EXISTING;
        open.access = ZEP_FILE_ACCESS_READ;
        ASSERT_EQ(file_.open(&open), 0u);
    }
    // Header, slots and (instantaneous) tail of a live ring, behind `prefix` bytes of other data.
    static Bytes image(Ring& ring, bool instantaneous = true, size_t prefix = 0) {
        Bytes bytes(prefix, 0x99);
        RamboDumpHeader header;
        void* slots = nullptr;
        Uint32 size = 0;
        EXPECT_EQ(ramboGetDumpHeaderBuffer(ring.cb(), instantaneous, &header, &slots, &size), 0u);
        const Uint8* h = reinterpret_cast<const Uint8*>(&header);
        bytes.insert(bytes.end(), h, h + sizeof header);
        bytes.insert(bytes.end(), static_cast<Uint8*>(slots), static_cast<Uint8*>(slots) + size);
        RamboDumpTail tail;
        memset(&tail, 0, sizeof tail);
        EXPECT_EQ(ramboGetDumpTail(ring.cb(), &tail), 0u);
        const Uint8* t = reinterpret_cast<const Uint8*>(&tail);
        if (instantaneous) bytes.insert(bytes.end(), t, t + sizeof tail);
        return bytes;
    }
    Uint64 position() {
        ZEPFileSeekParam here;
        here.origin = ZEP_FILE_SEEK_CURRENT;
        Uint64 at = 0;
        EXPECT_EQ(file_.seek(&here, &at), 0u);
        return at;
    }
    void seekTo(Uint64 at) {
        ZEPFileSeekParam seek;
        seek.offset = static_cast<Sint64>(at);
        EXPECT_EQ(file_.seek(&seek), 0u);
    }
    // The tags of every record a walk delivers, in order; the parser's wrap and truncation flags
    // in `flags` ("wrapped truncated").
    Tags walk(bool forward, Uint64 from = 0, bool scan = false, std::string* flags = nullptr) {
        seekTo(from);
        RamboDumpParser parser;
        const Uint32 rc = scan ? ramboOpenDumpFileParserScan(&file_, &parser, forward)
                               : ramboOpenDumpFileParser(&file_, &parser, forward);
        EXPECT_EQ(rc, 0u);
        Tags tags;
        if (rc != 0) return tags;
        Uint8 payload[RAMBO_CHUNK_SIZE];
        for (Uint32 tag; ramboParseDumpFile(&file_, &parser, nullptr, payload, sizeof payload);) {
            memcpy(&tag, payload, 4);
            tags.push_back(tag);
        }
        EXPECT_EQ(ramboParseDumpFile(&file_, &parser, nullptr, payload, sizeof payload), 0u);
        Uint8 wrapped = 0xFF, truncated = 0xFF;
        EXPECT_EQ(ramboDidBufferWrap(&parser, &wrapped), 0u);
        EXPECT_EQ(ramboWasBufferTruncated(&parser, &truncated), 0u);
        if (flags) *flags = std::to_string(wrapped) + " " + std::to_string(truncated);
        EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
        return tags;
    }
    // Both walks deliver `expected`, the backward one in reverse; the forward walk's flags.
    std::string both(const Tags& expected, bool scan = false) {
        std::string flags;
        EXPECT_EQ(walk(true, 0, scan, &flags), expected);
        EXPECT_EQ(walk(false), reversed(expected));
        return flags;
    }

    zeptest::TempDir dir_{"zepramb"};
    std::string path_ = dir_ / "ring.dump";
    ZEPHFile file_;
};

}  // namespace

TEST(RamboDumpPieces, HeaderTailAndWalker) {
    Ring wrap(1), stop(2), chunked(4);
    RamboDumpHeader h;
    RamboDumpTail t;
    RamboChunkWalker w;
    std::vector<Uint64> blank(ramboGetAllocSize(kSize) / 8 + 1, 0);
    RamboCB* none = reinterpret_cast<RamboCB*>(blank.data());
    const Uint32 P = ECF_INVALID_PARAMETER, N = ECF_RAMBO_NOT_INITIALIZED;
    const Uint32 refusals[][2] = {
        {ramboGetDumpHeaderBuffer(nullptr, 1, &h, nullptr, nullptr), P},
        {ramboGetDumpHeaderBuffer(none, 1, nullptr, nullptr, nullptr), N},
        {ramboGetDumpHeaderBuffer(wrap.cb(), 1, nullptr, nullptr, nullptr), P},
        {ramboGetDumpTail(nullptr, &t), P},
        {ramboGetDumpTail(none, nullptr), N},
        {ramboGetDumpTail(wrap.cb(), nullptr), P},
        {ramboInitializeChunkWalker(nullptr, &w), P},
        {ramboInitializeChunkWalker(none, &w), N},
        {ramboInitializeChunkWalker(wrap.cb(), &w), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED},
        {ramboInitializeChunkWalker(chunked.cb(), nullptr), P}};
    for (size_t i = 0; i < std::size(refusals); ++i) EXPECT_EQ(refusals[i][0], refusals[i][1]) << i;

    // Header: 16 bytes, all of them written; any non-zero flag is an instantaneous dump.
    memset(&h, 0xEE, sizeof h);
    void* slots = nullptr;
    Uint32 size = 0;
    EXPECT_EQ(ramboGetDumpHeaderBuffer(wrap.cb(), 2, &h, &slots, &size), 0u);
    const Uint8 wrapHead[16] = {'@', 'H', 'E', 'A', 'D', '\r', '\n', 0, 0, 0, 8, 0, 1, 0, 1, 0};
    EXPECT_EQ(memcmp(&h, wrapHead, 16), 0);
    EXPECT_EQ(slots, wrap.slot(0));
    EXPECT_EQ(size, kSize);
    EXPECT_EQ(ramboGetDumpHeaderBuffer(stop.cb(), 0, &h, nullptr, nullptr), 0u);
    EXPECT_EQ(h.dumpType, 2);
    EXPECT_EQ(h.wraps, 0);
    EXPECT_EQ(wrap.cb()->latch, 0);

    // Tail of a wrapping ring: sequence, oldest slot, base; 21 bytes written, 11 left alone.
    for (int i = 0; i < 3; ++i) put(wrap, i);
    wrap.cb()->nextSequence += 2 * kSlots;
    wrap.cb()->sequenceBase = 77;
    memset(&t, 0xEE, sizeof t);
    EXPECT_EQ(ramboGetDumpTail(wrap.cb(), &t), 0u);
    EXPECT_EQ(memcmp(t.eyeCatcher, "@TAIL\r\n\0", 8), 0);
    EXPECT_EQ(std::vector<Uint32>({t.tailSequence, t.tailIndex, t.sequenceBase, t.truncated}),
              std::vector<Uint32>({3 + 2 * kSlots, 3, 77, 0}));
    for (Uint8 b : t.undefined) EXPECT_EQ(b, 0xEE);

    // Stopping ring: index 0 and base 0; past the end the sequence is rounded down and the
    // truncation byte set; exactly at the end is a full ring, neither.
    const Uint32 stops[][3] = {{100, 100, 0},
                               {kSlots, kSlots, 0},
                               {kSlots + 1, kSlots, 1},
                               {2 * kSlots + 100, 2 * kSlots + 100, 0},
                               {3 * kSlots + 5, 3 * kSlots, 1}};
    for (const auto& s : stops) {
        stop.cb()->nextSequence = s[0];
        EXPECT_EQ(ramboGetDumpTail(stop.cb(), &t), 0u);
        EXPECT_EQ(std::vector<Uint32>({t.tailSequence, t.tailIndex, t.sequenceBase, t.truncated}),
                  std::vector<Uint32>({s[1], 0, 0, s[2]}))
            << s[0];
    }

    EXPECT_EQ(ramboInitializeChunkWalker(chunked.cb(), &w), 0u);
    EXPECT_EQ(w.area, chunked.cb());
    EXPECT_EQ(reinterpret_cast<Uint8*>(w.chunk), reinterpret_cast<Uint8*>(chunked.cb()) + 256);
    EXPECT_EQ(w.chunkIndex, 0u);
    EXPECT_EQ(w.slots, chunked.slot(0));
}

TEST_F(RamboDump, ValidationCodes) {
    EXPECT_EQ(ramboValidateDumpFile(nullptr), ECF_INVALID_PARAMETER);
    Ring ring(1);
    put(ring, 1);
    const Bytes good = image(ring);
    auto cut = [](const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + n); };
    auto patched = [&](size_t at, Uint32 v, size_t n = 4) {
        Bytes b = good;
        memcpy(b.data() + at, &v, n);
        return b;
    };
    const std::pair<Bytes, Uint32> cases[] = {
        {{}, ECF_RAMBO_DUMP_HEADER_TRUNCATED},
        {cut(autoDump(), 15), ECF_RAMBO_DUMP_HEADER_TRUNCATED},
        {header("@HEAD\r\r", kSize, 2), ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER},
        {header("@HEAD\r\n", kSize, 0), ECF_RAMBO_INVALID_DUMP_TYPE},
        {header("@HEAD\r\n", kSize, 3), ECF_RAMBO_INVALID_DUMP_TYPE},
        {header("@HEAD\r\n", 0x7FFFF, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE},
        {header("@HEAD\r\n", 0x40000001, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE},
        {header("@HEAD\r\n", 0x40000000, 2), 0},
        {header("@HEAD\r\n", 0x80001, 2), 0},  // in range; powers of two aren't asked for
        // Auto dumps: nothing or whole slots behind the header.
        {autoDump(), 0},
        {cut(autoDump(1), 16 + 63), ECF_RAMBO_DUMP_TRUNCATED},
        {autoDump(1), 0},
        // Instantaneous dumps: the whole ring and a tail whose index is a slot of it.
        {good, 0},
        {cut(good, good.size() - 1), ECF_RAMBO_INSTANT_DUMP_TRUNCATED},
        {cut(good, good.size() - 32), ECF_RAMBO_INSTANT_DUMP_TRUNCATED},
        {cut(good, 16 + kSize / 2), ECF_RAMBO_INSTANT_DUMP_TRUNCATED},
        {patched(16 + kSize + 6, '\r', 1), ECF_RAMBO_INVALID_DUMP_TAIL_EYE_CATCHER},
        {patched(16 + kSize + 12, kSlots), ECF_RAMBO_INVALID_DUMP_SLOT_INDEX},
        {patched(16 + kSize + 12, kSlots - 1), 0},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        writeFile(cases[i].first);
        EXPECT_EQ(ramboValidateDumpFile(&file_), cases[i].second) << i;
    }

    // A dump inside a larger file: validation starts and ends where the file stands.
    Bytes bytes = image(ring, true, 1000);
    bytes.resize(bytes.size() + 500, 0x77);
    for (Uint32 rc : {0u, Uint32{ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER}}) {
        bytes[1000] = rc ? 'X' : '@';
        writeFile(bytes);
        seekTo(1000);
        EXPECT_EQ(ramboValidateDumpFile(&file_), rc);
        EXPECT_EQ(position(), 1000u);
    }
    // Opening reports the same codes and leaves nothing to close.
    RamboDumpParser parser;
    EXPECT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1),
              ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(ramboOpenDumpFileParser(nullptr, &parser, 1), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboOpenDumpFileParser(&file_, nullptr, 1), ECF_INVALID_PARAMETER);
}

TEST_F(RamboDump, RingThatNeverWrapped) {
    Ring ring(1);
    for (Uint32 i = 0; i < 100; ++i) put(ring, i, 1 + i % 3);
    writeFile(image(ring, true, 100));
    // Forward from the tail index: zero slots to the ring's end, then everything from slot 0.
    std::string flags;
    EXPECT_EQ(walk(true, 100, false, &flags), range(0, 100));
    EXPECT_EQ(flags, "0 0");
    EXPECT_EQ(walk(false, 100), reversed(range(0, 100)));

    // Offsets are the payloads' places in the file; a small buffer gets the beginning, and the
    // result still tells the whole size. A closed parser is refused.
    seekTo(100);
    RamboDumpParser parser;
    ASSERT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1), 0u);
    Uint8 flag = 0, small[6];
    EXPECT_EQ(ramboDidBufferWrap(&parser, nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboDidBufferWrap(nullptr, &flag), ECF_INVALID_PARAMETER);
    Uint64 offset = 0;
    memset(small, 0xEE, sizeof small);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, &offset, small, 5), 52u);
    EXPECT_EQ(offset, 100u + 16 + 8);
    const Uint8 begin[6] = {0, 0, 0, 0, 0x3C, 0xEE};
    EXPECT_EQ(memcmp(small, begin, 6), 0);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, &offset, nullptr, 100), 116u);
    EXPECT_EQ(offset, 100u + 16 + 64 + 8);
    EXPECT_EQ(ramboParseDumpFile(&file_, &parser, &offset, small, 0), 180u);
    EXPECT_EQ(offset, 100u + 16 + 3 * 64 + 8);
    EXPECT_EQ(ramboParseDumpFile(nullptr, &parser, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(ramboParseDumpFile(&file_, nullptr, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboDidBufferWrap(&parser, &flag), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboWasBufferTruncated(&parser, &flag), ECF_INVALID_PARAMETER);
}

TEST_F(RamboDump, WrappedRingAndNewSequence) {
    // Three laps of one-slot records: the last lap survives, oldest first from the tail index.
    Ring ring(1);
    const Uint32 total = 3 * kSlots + 500;
    for (Uint32 i = 0; i < total; ++i) put(ring, i);
    writeFile(image(ring));
    EXPECT_EQ(both(range(total - kSlots, total)), "1 0");
    // After a new sequence everything older is a lap behind; only what came after is delivered,
    // and the ring counts as not wrapped since its base.
    ASSERT_EQ(ramboNewSequence(ring.cb()), 0u);
    for (Uint32 i = 0; i < 10; ++i) put(ring, 1000000 + i, 2);
    writeFile(image(ring));
    EXPECT_EQ(both(range(1000000, 1000010)), "0 0");

    // The last slot claims four slots, and what follows the ring in the file (the tail, then
    // another dump) ends in its trailer: the claim is refused, the slot skipped, and both walks
    // go on at slot 0 and agree.
    Ring again(1);
    for (Uint32 i = 0; i < total; ++i) put(again, i);
    Bytes bytes = image(again);
    bytes.resize(bytes.size() + 256, 0x5A);
    Uint8* last = bytes.data() + 16 + (kSlots - 1) * 64;
    Uint32 sequence;
    memcpy(&sequence, last, 4);
    const Uint16 four = 4;
    const Uint32 trailer = ~sequence;
    memcpy(last + 6, &four, 2);
    memcpy(last + 4 * 64 - 4, &trailer, 4);
    writeFile(bytes);
    Tags expected = range(total - kSlots, total);
    expected.erase(std::find(expected.begin(), expected.end(), 3 * kSlots - 1));
    both(expected);
}

TEST_F(RamboDump, StaleStampsOfAnOlderLap) {
    // Lap 0 fills the ring; lap 1 fills it to two slots short of the end, where a five-slot claim
    // is lost: the last two slots keep lap 0's stamps and the first three of lap 2 keep lap 1's.
    Ring ring(1);
    for (Uint32 i = 0; i < kSlots + kSlots - 2; ++i) put(ring, i);
    put(ring, 900000, 5);
    EXPECT_EQ(ring.cb()->nextSequence, 2 * kSlots + 8);
    for (Uint32 i = 0; i < 4; ++i) put(ring, 900001 + i);
    writeFile(image(ring));
    // The window begins at tail - slotCount = lap 1's slot 12: the older stamps fail it, and the
    // walk goes on at slot 0 past the ring's end.
    Tags expected = range(kSlots + 12, 2 * kSlots - 2);
    for (Uint32 i = 0; i < 5; ++i) expected.push_back(900000 + i);
    both(expected);
}

TEST_F(RamboDump, StoppingRing) {
    // Partly used: only the used slots are looked at, whatever lies behind them.
    Ring ring(2);
    for (Uint32 i = 0; i < 50; ++i) put(ring, i, 1 + i % 4);
    Bytes bytes = image(ring);
    stamp(bytes.data() + 16 + 200 * 64, 200, 1, 4242);
    writeFile(bytes);
    EXPECT_EQ(both(range(0, 50)), "0 0");
    // Filled exactly: the tail sequence is a whole ring, nothing is truncated, all records come.
    Ring full(2);
    for (Uint32 i = 0; i < kSlots / 2; ++i) put(full, i, 2);
    writeFile(image(full));
    EXPECT_EQ(both(range(0, kSlots / 2)), "0 0");
    // Overfilled: claims went past the end; truncated, and all records in the buffer come.
    for (Uint32 i = 0; i < 3; ++i) put(full, 99999, 3);
    writeFile(image(full));
    EXPECT_EQ(both(range(0, kSlots / 2)), "0 1");
}

TEST_F(RamboDump, AutoDumps) {
    // The parser's slot count and buffer after opening.
    auto opened = [&](bool scan) {
        seekTo(0);
        RamboDumpParser p;
        EXPECT_EQ(scan ? ramboOpenDumpFileParserScan(&file_, &p, 1)
                       : ramboOpenDumpFileParser(&file_, &p, 1),
                  0u);
        const std::pair<Uint32, Uint32> got{p.slotCount, p.bufferCapacity};
        ramboCloseDumpFileParser(&p);
        return got;
    };
    // No slots at all is a valid dump with nothing in it; one slot.
    writeFile(autoDump());
    both({});
    EXPECT_EQ(opened(false).second, 64u);
    Bytes bytes = autoDump(1);
    stamp(bytes.data() + 16, 0, 1, 7);
    writeFile(bytes);
    both({7});
    // A single record of three slots, backward: found at its first slot, the inner two are
    // payload and fail the test.
    bytes = autoDump(3);
    stamp(bytes.data() + 16, 0, 3, 8);
    writeFile(bytes);
    both({8});
    // A record that would run past the end of the file is stepped over.
    bytes = autoDump(3);
    stamp(bytes.data() + 16, 0, 1, 4);
    stamp(bytes.data() + 16 + 64, 1, 1, 5);
    bytes[16 + 64 + 6] = 3;
    stamp(bytes.data() + 16 + 128, 2, 1, 6);
    writeFile(bytes);
    both({4, 6});

    // Sequences simply run on; zeroed slots of lost claims and a trailing fragment are stepped
    // over. Scanning tells whether the dump begins with the ring's first record.
    bytes = autoDump(10);
    bytes.resize(bytes.size() + 20);
    stamp(bytes.data() + 16 + 2 * 64, 5000, 2, 1);
    stamp(bytes.data() + 16 + 4 * 64, 5002, 1, 2);
    stamp(bytes.data() + 16 + 7 * 64, 5005, 3, 3);
    writeFile(bytes);
    EXPECT_EQ(both({1, 2, 3}, true), "1 0");
    stamp(bytes.data() + 16 + 2 * 64, 0, 2, 1);
    writeFile(bytes);
    EXPECT_EQ(both({1, 2, 3}, true), "0 0");
    EXPECT_EQ(opened(true).first, 10u);
}

TEST_F(RamboDump, DamagedSlotsAreSteppedOver) {
    Ring ring(1);
    for (Uint32 i = 0; i < 20; ++i) put(ring, i, 2);
    Bytes bytes = image(ring);
    Uint8* slots = bytes.data() + 16;
    slots[2 * 64 + 4] = 0;               // 1: no mark
    memset(slots + 4 * 64 + 6, 0, 2);    // 2: count 0
    slots[6 * 64 + 7] = 0x08;            // 2: count 2050
    slots[8 * 64 + 6] = 0x00;            // 4: 2048 slots, whose last word
    slots[8 * 64 + 7] = 0x08;            //    isn't a trailer
    slots[10 * 64 + 127] ^= 1;           // 4: half-stamped, trailer wrong
    stamp(slots + 12 * 64, 1000, 2, 6);  // 5: sequence outside the window
    writeFile(bytes);
    Tags expected = range(7, 20);
    expected.insert(expected.begin(), 0);
    both(expected);
    // The window begins a lap before the tail: the same sequence from lap 1 is inside.
    Ring later(1);
    later.cb()->nextSequence = kSlots + 3;
    put(later, 1);
    later.cb()->nextSequence = kSlots + 3 + 4;
    writeFile(image(later));
    EXPECT_EQ(walk(true), Tags{1});
}

TEST_F(RamboDump, RefillsAndLargeRecords) {
    // A ring of 4 MiB (reads of 1 MiB) with records of every size up to the largest; the tail
    // index falls in the middle so the walk passes the ring's end. Bytes behind the tail that
    // look like a record aren't read as slot 0.
    const Uint32 size = 0x400000, slots = size / 64;
    Ring ring(1, size);
    Uint32 tag = 0;
    for (Uint32 n = 1; ring.cb()->nextSequence < slots + slots / 2; n = n * 7 % 2048 + 1)
        put(ring, tag++, n);
    Bytes bytes = image(ring);
    const size_t behind = bytes.size();
    bytes.resize(behind + 32 + 64);
    stamp(bytes.data() + behind + 32, ring.cb()->nextSequence - 5, 1, 0xBAD);
    writeFile(bytes);
    // A lap and a half of records of up to 2048 slots, lost claims at the end: what the window
    // keeps is the newest records without a gap.
    const Tags forward = walk(true);
    ASSERT_GT(forward.size(), 30u);
    EXPECT_EQ(forward.back(), tag - 1);
    for (size_t i = 1; i < forward.size(); ++i) ASSERT_EQ(forward[i], forward[i - 1] + 1);
    EXPECT_EQ(walk(false), reversed(forward));

    // An auto dump with the largest record across every read boundary, both ways.
    const Uint32 count = 3 * 1024 * 1024 / 64;
    bytes = autoDump(count);
    Tags expected;
    for (Uint32 at = 0, sequence = 0; at < count;) {
        const Uint32 n = at % 4096 == 1000 ? 2048 : 1;
        if (at + n > count) break;
        stamp(bytes.data() + 16 + at * 64, sequence, static_cast<Uint16>(n), sequence);
        expected.push_back(sequence);
        sequence += n;
        at += n;
    }
    writeFile(bytes);
    both(expected);
}
