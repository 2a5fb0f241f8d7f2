// Tests of the dump pieces of a live ring and of the dump reader: every validation code, the
// walk forward and backward over rings that never wrapped, wrapped, started a new sequence, lost
// claims at the end, filled exactly or overfilled; auto dumps; damaged slots; buffer refills.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "zep.h"

namespace {

constexpr Uint32 kSize = 0x80000;
constexpr Uint32 kSlots = kSize / 64;

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
    memcpy(at, &sequence, 4);
    const Uint16 mark = 0xCAFE;
    memcpy(at + 4, &mark, 2);
    memcpy(at + 6, &slots, 2);
    memcpy(at + 8, &tag, 4);
    const Uint32 trailer = ~sequence;
    memcpy(at + slots * 64 - 4, &trailer, 4);
}

class RamboDump : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zepramboXXXXXX";
        const int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = tmpl;
    }
    void TearDown() override {
        file_.close();
        unlink(path_.c_str());
    }

    void writeFile(const std::vector<Uint8>& bytes) {
        file_.close();
        FILE* f = fopen(path_.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        if (!bytes.empty()) {
            ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
        }
        fclose(f);
        ZEPFileOpenParam open;
        open.path = path_.c_str();
        open.creation = ZEP_FILE_OPEN_EXISTING;
        open.access = ZEP_FILE_ACCESS_READ;
        ASSERT_EQ(file_.open(&open), 0u);
    }

    // header, slots and (instantaneous) tail of a live ring, behind `prefix` bytes of other data.
    std::vector<Uint8> image(Ring& ring, bool instantaneous, size_t prefix = 0) {
        std::vector<Uint8> bytes(prefix, 0x99);
        RamboDumpHeader header;
        void* slots = nullptr;
        Uint32 size = 0;
        EXPECT_EQ(ramboGetDumpHeaderBuffer(ring.cb(), instantaneous, &header, &slots, &size), 0u);
        const Uint8* h = reinterpret_cast<const Uint8*>(&header);
        bytes.insert(bytes.end(), h, h + sizeof header);
        bytes.insert(bytes.end(), static_cast<Uint8*>(slots), static_cast<Uint8*>(slots) + size);
        if (instantaneous) {
            RamboDumpTail tail;
            memset(&tail, 0, sizeof tail);
            EXPECT_EQ(ramboGetDumpTail(ring.cb(), &tail), 0u);
            const Uint8* t = reinterpret_cast<const Uint8*>(&tail);
            bytes.insert(bytes.end(), t, t + sizeof tail);
        }
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

    // The tags of every record a walk delivers, in order.
    std::vector<Uint32> walk(bool forward, Uint64 from = 0, bool scan = false,
                             RamboDumpParser* keep = nullptr) {
        seekTo(from);
        RamboDumpParser parser;
        const Uint32 rc = scan ? ramboOpenDumpFileParserScan(&file_, &parser, forward)
                               : ramboOpenDumpFileParser(&file_, &parser, forward);
        EXPECT_EQ(rc, 0u);
        std::vector<Uint32> tags;
        if (rc != 0) return tags;
        Uint8 payload[RAMBO_CHUNK_SIZE];
        Uint32 size;
        while ((size = ramboParseDumpFile(&file_, &parser, nullptr, payload, sizeof payload)) !=
               0) {
            Uint32 tag;
            memcpy(&tag, payload, 4);
            tags.push_back(tag);
        }
        EXPECT_EQ(ramboParseDumpFile(&file_, &parser, nullptr, payload, sizeof payload), 0u);
        if (keep != nullptr)
            *keep = parser;
        else
            EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
        return tags;
    }

    std::string path_;
    ZEPHFile file_;
};

std::vector<Uint32> range(Uint32 from, Uint32 to) {
    std::vector<Uint32> v;
    for (Uint32 i = from; i < to; ++i) v.push_back(i);
    return v;
}

std::vector<Uint32> reversed(std::vector<Uint32> v) {
    return std::vector<Uint32>(v.rbegin(), v.rend());
}

// A header in bytes, for files made by hand.
std::vector<Uint8> header(const char* eye, Uint32 size, Uint16 type, Uint8 wraps = 1) {
    std::vector<Uint8> h(16, 0);
    memcpy(h.data(), eye, 8);
    memcpy(h.data() + 8, &size, 4);
    memcpy(h.data() + 12, &type, 2);
    h[14] = wraps;
    return h;
}

}  // namespace

TEST(RamboDumpPieces, HeaderTailAndWalker) {
    Ring wrap(1), stop(2), chunked(4);
    RamboDumpHeader h;
    RamboDumpTail t;
    RamboChunkWalker w;
    std::vector<Uint64> blank(ramboGetAllocSize(kSize) / 8 + 1, 0);
    RamboCB* none = reinterpret_cast<RamboCB*>(blank.data());
    EXPECT_EQ(ramboGetDumpHeaderBuffer(nullptr, 1, &h, nullptr, nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboGetDumpHeaderBuffer(none, 1, nullptr, nullptr, nullptr),
              ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboGetDumpHeaderBuffer(wrap.cb(), 1, nullptr, nullptr, nullptr),
              ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboGetDumpTail(nullptr, &t), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboGetDumpTail(none, nullptr), ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboGetDumpTail(wrap.cb(), nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboInitializeChunkWalker(nullptr, &w), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboInitializeChunkWalker(none, &w), ECF_RAMBO_NOT_INITIALIZED);
    EXPECT_EQ(ramboInitializeChunkWalker(wrap.cb(), &w), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    EXPECT_EQ(ramboInitializeChunkWalker(chunked.cb(), nullptr), ECF_INVALID_PARAMETER);

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
    EXPECT_EQ(t.tailSequence, 3 + 2 * kSlots);
    EXPECT_EQ(t.tailIndex, 3u);
    EXPECT_EQ(t.sequenceBase, 77u);
    EXPECT_EQ(t.truncated, 0);
    for (Uint8 b : t.undefined) EXPECT_EQ(b, 0xEE);

    // Stopping ring: index 0 and base 0; past the end the sequence is rounded down and the
    // truncation byte set; exactly at the end is a full ring, neither.
    const struct {
        Uint32 next, sequence;
        Uint8 truncated;
    } stops[] = {{100, 100, 0},
                 {kSlots, kSlots, 0},
                 {kSlots + 1, kSlots, 1},
                 {2 * kSlots + 100, 2 * kSlots + 100, 0},
                 {3 * kSlots + 5, 3 * kSlots, 1}};
    for (const auto& s : stops) {
        stop.cb()->nextSequence = s.next;
        EXPECT_EQ(ramboGetDumpTail(stop.cb(), &t), 0u);
        EXPECT_EQ(t.tailSequence, s.sequence) << s.next;
        EXPECT_EQ(t.tailIndex, 0u);
        EXPECT_EQ(t.sequenceBase, 0u);
        EXPECT_EQ(t.truncated, s.truncated) << s.next;
    }

    EXPECT_EQ(ramboInitializeChunkWalker(chunked.cb(), &w), 0u);
    EXPECT_EQ(w.area, chunked.cb());
    EXPECT_EQ(reinterpret_cast<Uint8*>(w.chunk), reinterpret_cast<Uint8*>(chunked.cb()) + 256);
    EXPECT_EQ(w.chunkIndex, 0u);
    EXPECT_EQ(w.slots, chunked.slot(0));
}

TEST_F(RamboDump, ValidationCodes) {
    EXPECT_EQ(ramboValidateDumpFile(nullptr), ECF_INVALID_PARAMETER);

    auto check = [&](const std::vector<Uint8>& bytes, Uint32 expected) {
        writeFile(bytes);
        EXPECT_EQ(ramboValidateDumpFile(&file_), expected);
    };
    std::vector<Uint8> auto2 = header("@HEAD\r\n", kSize, 2);
    check({}, ECF_RAMBO_DUMP_HEADER_TRUNCATED);
    check(std::vector<Uint8>(auto2.begin(), auto2.begin() + 15), ECF_RAMBO_DUMP_HEADER_TRUNCATED);
    check(header("@HEAD\r\r", kSize, 2), ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER);
    check(header("@HEAD\r\n", kSize, 0), ECF_RAMBO_INVALID_DUMP_TYPE);
    check(header("@HEAD\r\n", kSize, 3), ECF_RAMBO_INVALID_DUMP_TYPE);
    check(header("@HEAD\r\n", 0x7FFFF, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE);
    check(header("@HEAD\r\n", 0x40000001, 2), ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE);
    check(header("@HEAD\r\n", 0x40000000, 2), 0u);
    check(header("@HEAD\r\n", 0x80001, 2), 0u);  // in range; powers of two aren't asked for

    // Auto dumps: nothing or whole slots behind the header.
    check(auto2, 0u);
    std::vector<Uint8> bytes = auto2;
    bytes.resize(16 + 63);
    check(bytes, ECF_RAMBO_DUMP_TRUNCATED);
    bytes.resize(16 + 64);
    check(bytes, 0u);

    // Instantaneous dumps: the whole ring and a tail whose index is a slot of it.
    Ring ring(1);
    put(ring, 1);
    const std::vector<Uint8> good = image(ring, true);
    check(good, 0u);
    check(std::vector<Uint8>(good.begin(), good.end() - 1), ECF_RAMBO_INSTANT_DUMP_TRUNCATED);
    check(std::vector<Uint8>(good.begin(), good.end() - 32), ECF_RAMBO_INSTANT_DUMP_TRUNCATED);
    check(std::vector<Uint8>(good.begin(), good.begin() + 16 + kSize / 2),
          ECF_RAMBO_INSTANT_DUMP_TRUNCATED);
    bytes = good;
    bytes[16 + kSize + 6] = '\r';
    check(bytes, ECF_RAMBO_INVALID_DUMP_TAIL_EYE_CATCHER);
    bytes = good;
    memcpy(bytes.data() + 16 + kSize + 12, &kSlots, 4);
    check(bytes, ECF_RAMBO_INVALID_DUMP_SLOT_INDEX);
    const Uint32 lastSlot = kSlots - 1;
    memcpy(bytes.data() + 16 + kSize + 12, &lastSlot, 4);
    check(bytes, 0u);

    // A dump inside a larger file: validation starts and ends where the file stands.
    bytes = image(ring, true, 1000);
    bytes.resize(bytes.size() + 500, 0x77);
    writeFile(bytes);
    seekTo(1000);
    EXPECT_EQ(ramboValidateDumpFile(&file_), 0u);
    EXPECT_EQ(position(), 1000u);
    bytes[1000] = 'X';
    writeFile(bytes);
    seekTo(1000);
    EXPECT_EQ(ramboValidateDumpFile(&file_), ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER);
    EXPECT_EQ(position(), 1000u);

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
    RamboDumpParser parser;
    EXPECT_EQ(walk(true, 100, false, &parser), range(0, 100));
    Uint8 flag = 0xFF;
    EXPECT_EQ(ramboDidBufferWrap(&parser, &flag), 0u);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(ramboWasBufferTruncated(&parser, &flag), 0u);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), 0u);
    EXPECT_EQ(ramboCloseDumpFileParser(&parser), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboDidBufferWrap(&parser, &flag), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboWasBufferTruncated(&parser, &flag), ECF_INVALID_PARAMETER);
    EXPECT_EQ(walk(false, 100), reversed(range(0, 100)));

    // Offsets are the payloads' places in the file; a small buffer gets the beginning, and the
    // result still tells the whole size.
    seekTo(100);
    ASSERT_EQ(ramboOpenDumpFileParser(&file_, &parser, 1), 0u);
    EXPECT_EQ(ramboDidBufferWrap(&parser, nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(ramboDidBufferWrap(nullptr, &flag), ECF_INVALID_PARAMETER);
    Uint64 offset = 0;
    Uint8 small[6];
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
}

TEST_F(RamboDump, WrappedRingAndNewSequence) {
    Ring ring(1);
    // Three laps of one-slot records: the last lap survives, oldest first from the tail index.
    const Uint32 total = 3 * kSlots + 500;
    for (Uint32 i = 0; i < total; ++i) put(ring, i);
    writeFile(image(ring, true));
    RamboDumpParser parser;
    EXPECT_EQ(walk(true, 0, false, &parser), range(total - kSlots, total));
    Uint8 wrapped = 0;
    EXPECT_EQ(ramboDidBufferWrap(&parser, &wrapped), 0u);
    EXPECT_EQ(wrapped, 1);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), reversed(range(total - kSlots, total)));

    // After a new sequence everything older is a lap behind; only what came after is delivered,
    // and the ring counts as not wrapped since its base.
    ASSERT_EQ(ramboNewSequence(ring.cb()), 0u);
    for (Uint32 i = 0; i < 10; ++i) put(ring, 1000000 + i, 2);
    writeFile(image(ring, true));
    EXPECT_EQ(walk(true, 0, false, &parser), range(1000000, 1000010));
    EXPECT_EQ(ramboDidBufferWrap(&parser, &wrapped), 0u);
    EXPECT_EQ(wrapped, 0);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), reversed(range(1000000, 1000010)));
}

TEST_F(RamboDump, RecordNeverCrossesTheRingsEnd) {
    // The last slot claims four slots, and what follows the ring in the file (the tail, then
    // another dump) ends in its trailer: the claim is refused, the slot skipped, and both walks
    // go on at slot 0 and agree.
    Ring ring(1);
    const Uint32 total = 3 * kSlots + 500;
    for (Uint32 i = 0; i < total; ++i) put(ring, i);
    std::vector<Uint8> bytes = image(ring, true);
    bytes.resize(bytes.size() + 256, 0x5A);
    Uint8* last = bytes.data() + 16 + (kSlots - 1) * 64;
    Uint32 sequence;
    memcpy(&sequence, last, 4);
    const Uint16 four = 4;
    memcpy(last + 6, &four, 2);
    const Uint32 trailer = ~sequence;
    memcpy(last + 4 * 64 - 4, &trailer, 4);
    writeFile(bytes);

    std::vector<Uint32> expected = range(total - kSlots, total);
    expected.erase(std::find(expected.begin(), expected.end(), 3 * kSlots - 1));
    EXPECT_EQ(walk(true), expected);
    EXPECT_EQ(walk(false), reversed(expected));
}

TEST_F(RamboDump, StaleStampsOfAnOlderLap) {
    // Lap 0 fills the ring; lap 1 fills it to two slots short of the end, where a five-slot claim
    // is lost: the last two slots keep lap 0's stamps and the first three of lap 2 keep lap 1's.
    Ring ring(1);
    for (Uint32 i = 0; i < kSlots + kSlots - 2; ++i) put(ring, i);
    put(ring, 900000, 5);
    EXPECT_EQ(ring.cb()->nextSequence, 2 * kSlots + 8);
    for (Uint32 i = 0; i < 4; ++i) put(ring, 900001 + i);
    writeFile(image(ring, true));

    // The window begins at tail - slotCount = lap 1's slot 12: the older stamps fail it, and the
    // walk goes on at slot 0 past the ring's end.
    std::vector<Uint32> expected = range(kSlots + 12, 2 * kSlots - 2);
    for (Uint32 i = 0; i < 5; ++i) expected.push_back(900000 + i);
    EXPECT_EQ(walk(true), expected);
    EXPECT_EQ(walk(false), reversed(expected));
}

TEST_F(RamboDump, StoppingRing) {
    // Partly used: only the used slots are looked at, whatever lies behind them.
    Ring ring(2);
    for (Uint32 i = 0; i < 50; ++i) put(ring, i, 1 + i % 4);
    std::vector<Uint8> bytes = image(ring, true);
    stamp(bytes.data() + 16 + 200 * 64, 200, 1, 4242);
    writeFile(bytes);
    RamboDumpParser parser;
    EXPECT_EQ(walk(true, 0, false, &parser), range(0, 50));
    Uint8 truncated = 0xFF;
    EXPECT_EQ(ramboWasBufferTruncated(&parser, &truncated), 0u);
    EXPECT_EQ(truncated, 0);
    EXPECT_EQ(parser.remaining, 0u);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), reversed(range(0, 50)));

    // Filled exactly: the tail sequence is a whole ring, nothing is truncated, all records come.
    Ring full(2);
    for (Uint32 i = 0; i < kSlots / 2; ++i) put(full, i, 2);
    writeFile(image(full, true));
    EXPECT_EQ(walk(true, 0, false, &parser), range(0, kSlots / 2));
    EXPECT_EQ(ramboWasBufferTruncated(&parser, &truncated), 0u);
    EXPECT_EQ(truncated, 0);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), reversed(range(0, kSlots / 2)));

    // Overfilled: claims went past the end; truncated, and all records in the buffer come.
    for (Uint32 i = 0; i < 3; ++i) put(full, 99999, 3);
    writeFile(image(full, true));
    EXPECT_EQ(walk(true, 0, false, &parser), range(0, kSlots / 2));
    EXPECT_EQ(ramboWasBufferTruncated(&parser, &truncated), 0u);
    EXPECT_EQ(truncated, 1);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), reversed(range(0, kSlots / 2)));
}

TEST_F(RamboDump, AutoDumps) {
    // No slots at all is a valid dump with nothing in it.
    writeFile(header("@HEAD\r\n", kSize, 2));
    RamboDumpParser parser;
    EXPECT_EQ(walk(true, 0, false, &parser), std::vector<Uint32>{});
    EXPECT_EQ(parser.bufferCapacity, 64u);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), std::vector<Uint32>{});

    // One slot.
    std::vector<Uint8> bytes = header("@HEAD\r\n", kSize, 2);
    bytes.resize(16 + 64);
    stamp(bytes.data() + 16, 0, 1, 7);
    writeFile(bytes);
    EXPECT_EQ(walk(true), std::vector<Uint32>{7});
    EXPECT_EQ(walk(false), std::vector<Uint32>{7});

    // A single record of three slots, backward: found at its first slot, the inner two are
    // payload and fail the test.
    bytes = header("@HEAD\r\n", kSize, 2);
    bytes.resize(16 + 3 * 64);
    stamp(bytes.data() + 16, 0, 3, 8);
    writeFile(bytes);
    EXPECT_EQ(walk(false), std::vector<Uint32>{8});
    EXPECT_EQ(walk(true), std::vector<Uint32>{8});

    // A record that would run past the end of the file is stepped over.
    bytes = header("@HEAD\r\n", kSize, 2);
    bytes.resize(16 + 3 * 64);
    stamp(bytes.data() + 16, 0, 1, 4);
    stamp(bytes.data() + 16 + 64, 1, 1, 5);
    bytes[16 + 64 + 6] = 3;
    stamp(bytes.data() + 16 + 128, 2, 1, 6);
    writeFile(bytes);
    EXPECT_EQ(walk(true), (std::vector<Uint32>{4, 6}));
    EXPECT_EQ(walk(false), (std::vector<Uint32>{6, 4}));

    // Sequences simply run on; zeroed slots of lost claims and a trailing fragment are stepped
    // over. Scanning tells whether the dump begins with the ring's first record.
    bytes = header("@HEAD\r\n", kSize, 2);
    bytes.resize(16 + 10 * 64 + 20);
    stamp(bytes.data() + 16 + 2 * 64, 5000, 2, 1);
    stamp(bytes.data() + 16 + 4 * 64, 5002, 1, 2);
    stamp(bytes.data() + 16 + 7 * 64, 5005, 3, 3);
    writeFile(bytes);
    EXPECT_EQ(walk(true, 0, true, &parser), (std::vector<Uint32>{1, 2, 3}));
    Uint8 wrapped = 0;
    EXPECT_EQ(ramboDidBufferWrap(&parser, &wrapped), 0u);
    EXPECT_EQ(wrapped, 1);
    EXPECT_EQ(parser.slotCount, 10u);
    ramboCloseDumpFileParser(&parser);
    EXPECT_EQ(walk(false), (std::vector<Uint32>{3, 2, 1}));
    stamp(bytes.data() + 16 + 2 * 64, 0, 2, 1);
    writeFile(bytes);
    EXPECT_EQ(walk(true, 0, true, &parser), (std::vector<Uint32>{1, 2, 3}));
    EXPECT_EQ(ramboDidBufferWrap(&parser, &wrapped), 0u);
    EXPECT_EQ(wrapped, 0);
    ramboCloseDumpFileParser(&parser);
}

TEST_F(RamboDump, DamagedSlotsAreSteppedOver) {
    Ring ring(1);
    for (Uint32 i = 0; i < 20; ++i) put(ring, i, 2);
    std::vector<Uint8> bytes = image(ring, true);
    Uint8* slots = bytes.data() + 16;
    slots[2 * 64 + 4] = 0;             // 1: no mark
    memset(slots + 4 * 64 + 6, 0, 2);  // 2: count 0
    slots[6 * 64 + 7] = 0x08;          // 2: count 2050
    slots[8 * 64 + 6] = 0x00;          // 4: 2048 slots, whose last word
    slots[8 * 64 + 7] = 0x08;          //    isn't a trailer
    slots[10 * 64 + 127] ^= 1;         // 4: half-stamped, trailer wrong
    const Uint32 future = 1000;        // 5: sequence outside the window
    memcpy(slots + 12 * 64, &future, 4);
    const Uint32 futureTrailer = ~future;
    memcpy(slots + 12 * 64 + 124, &futureTrailer, 4);
    writeFile(bytes);
    std::vector<Uint32> expected = range(7, 20);
    expected.insert(expected.begin(), 0);
    EXPECT_EQ(walk(true), expected);
    EXPECT_EQ(walk(false), reversed(expected));
    // The window begins a lap before the tail: the same sequence from lap 1 is inside.
    Ring later(1);
    later.cb()->nextSequence = kSlots + 3;
    put(later, 1);
    later.cb()->nextSequence = kSlots + 3 + 4;
    writeFile(image(later, true));
    EXPECT_EQ(walk(true), std::vector<Uint32>{1});
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
    std::vector<Uint8> bytes = image(ring, true);
    const size_t behind = bytes.size();
    bytes.resize(behind + 32 + 64);
    stamp(bytes.data() + behind + 32, ring.cb()->nextSequence - 5, 1, 0xBAD);
    writeFile(bytes);
    // A lap and a half of records of up to 2048 slots, lost claims at the end: what the window
    // keeps is the newest records without a gap.
    const std::vector<Uint32> forward = walk(true);
    ASSERT_GT(forward.size(), 30u);
    EXPECT_EQ(forward.back(), tag - 1);
    for (size_t i = 1; i < forward.size(); ++i) ASSERT_EQ(forward[i], forward[i - 1] + 1);
    EXPECT_EQ(walk(false), reversed(forward));

    // An auto dump with the largest record across every read boundary, both ways.
    bytes = header("@HEAD\r\n", kSize, 2);
    const Uint32 count = 3 * 1024 * 1024 / 64;
    bytes.resize(16 + count * 64);
    std::vector<Uint32> expected;
    Uint32 sequence = 0;
    for (Uint32 at = 0; at < count;) {
        const Uint32 n = at % 4096 == 1000 ? 2048 : 1;
        if (at + n > count) break;
        stamp(bytes.data() + 16 + at * 64, sequence, static_cast<Uint16>(n), sequence);
        expected.push_back(sequence);
        sequence += n;
        at += n;
    }
    writeFile(bytes);
    EXPECT_EQ(walk(true), expected);
    EXPECT_EQ(walk(false), reversed(expected));
}
