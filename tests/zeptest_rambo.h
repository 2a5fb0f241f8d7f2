// The ring's test pieces, shared by test_rambo and test_rambo_stress: a ring in private memory,
// records written into it, a dump of it, and what a walk of a dump delivers.
#pragma once

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "zep.h"

namespace zeptest {

// A ring in private memory, filled with 0xAA before it is built so that untouched bytes show.
struct Ring {
    explicit Ring(Uint32 mode, Uint32 size = 0x80000)
        : memory(ramboGetAllocSize(size) / 8 + 1, 0xAAAAAAAAAAAAAAAAull),
          rc(ramboInitialize(cb(), size, mode)) {}
    RamboCB* cb() { return reinterpret_cast<RamboCB*>(memory.data()); }
    Uint8* bytes() { return reinterpret_cast<Uint8*>(memory.data()); }
    Uint8* slot(Uint32 index) { return bytes() + cb()->slotsOffset + index * 64; }
    RamboChunk* chunk(Uint32 index) {
        return reinterpret_cast<RamboChunk*>(bytes() + cb()->chunkTableOffset) + index;
    }
    std::vector<Uint64> memory;
    Uint32 rc;  // of ramboInitialize
};

// Reserves a record of `payload` bytes, fills its payload with `fill` and stamps it.
inline RamboReservation record(Ring& ring, Uint32 payload, Uint8 fill = 0x5A) {
    RamboReservation r = {};
    memset(ramboReserveSlots(ring.cb(), payload, &r), fill, payload);
    ramboSync(ring.cb(), &r);
    return r;
}

constexpr Uint32 kWriters = 8;  // writers told apart by a walk

// A record's payload: writer, counter, then a byte of both to the end, so that a record made
// of two writers' bytes or of two laps shows.
inline Uint8 fillByte(Uint32 writer, Uint32 counter) {
    return static_cast<Uint8>(writer * 37 + counter * 11 + 1);
}
inline void fillPayload(Uint8* p, Uint32 size, Uint32 writer, Uint32 counter) {
    memcpy(p, &writer, 4);
    memcpy(p + 4, &counter, 4);
    memset(p + 8, fillByte(writer, counter), size - 8);
}

// A record of `slots` slots whose payload begins with `tag`.
inline void put(Ring& ring, Uint32 tag, Uint32 slots = 1) {
    RamboReservation r;
    fillPayload(static_cast<Uint8*>(ramboReserveSlots(ring.cb(), slots * 64 - 12, &r)),
                slots * 64 - 12, tag, 0);
    ramboSync(ring.cb(), &r);
}

// Header, slots and (instantaneous) tail of a live ring, behind `prefix` bytes of other data, as
// the dumping program writes them.
inline std::vector<Uint8> dumpImage(RamboCB* ring, bool instantaneous = true, size_t prefix = 0) {
    std::vector<Uint8> bytes(prefix + 16 + ring->bufferSize + (instantaneous ? 32 : 0), 0x99);
    void* slots = nullptr;
    Uint32 size = 0;
    auto* h = reinterpret_cast<RamboDumpHeader*>(bytes.data() + prefix);
    if (ramboGetDumpHeaderBuffer(ring, instantaneous, h, &slots, &size) == 0)
        memcpy(h + 1, slots, size);
    if (instantaneous)
        ramboGetDumpTail(ring, reinterpret_cast<RamboDumpTail*>(bytes.data() + prefix + 16 + size));
    return bytes;
}

// What a walk of the dump that begins at `at` in the file `path` delivers: each record's first
// word (its writer, or the tag of a record that put() wrote) in walk order, each writer's
// counters in walk order, the records whose payload isn't whole, and the parser's flags as
// "wrapped truncated".
struct Walked {
    std::vector<Uint32> tags;
    std::vector<std::vector<Uint32>> counters = std::vector<std::vector<Uint32>>(kWriters);
    Uint32 bad = 0, rc = 0;
    std::string flags;
};

// Opens the file `path` for reading, positioned at `at`.
inline Uint32 openAt(ZEPHFile& file, const std::string& path, Uint64 at) {
    ZEPFileOpenParam open;
    open.path = path.c_str();
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    ZEPFileSeekParam seek;
    seek.offset = static_cast<Sint64>(at);
    const Uint32 rc = file.open(&open);
    return rc != 0 ? rc : file.seek(&seek);
}

inline Walked walkDump(const std::string& path, bool forward, bool scan = false, Uint64 at = 0) {
    Walked w;
    ZEPHFile file;
    RamboDumpParser parser = {};
    if ((w.rc = openAt(file, path, at)) == 0)
        w.rc = scan ? ramboOpenDumpFileParserScan(&file, &parser, forward)
                    : ramboOpenDumpFileParser(&file, &parser, forward);
    std::vector<Uint8> p(RAMBO_CHUNK_SIZE);
    for (Uint32 size; w.rc == 0 && (size = ramboParseDumpFile(&file, &parser, nullptr, p.data(),
                                                              RAMBO_CHUNK_SIZE)) != 0;) {
        Uint32 writer, counter;
        memcpy(&writer, p.data(), 4);
        memcpy(&counter, p.data() + 4, 4);
        w.tags.push_back(writer);
        const Uint8 b = fillByte(writer, counter);
        if (!std::all_of(p.data() + 8, p.data() + size, [b](Uint8 x) { return x == b; }))
            ++w.bad;
        else if (writer < kWriters)
            w.counters[writer].push_back(counter);
    }
    Uint8 wrapped = 9, truncated = 9;
    ramboDidBufferWrap(&parser, &wrapped);
    ramboWasBufferTruncated(&parser, &truncated);
    w.flags = std::to_string(wrapped) + " " + std::to_string(truncated);
    if (w.rc == 0) w.rc = ramboCloseDumpFileParser(&parser);
    file.close();
    return w;
}

}  // namespace zeptest
