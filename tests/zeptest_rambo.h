// The ring's test pieces, shared by test_rambo and test_rambo_stress: a ring in private memory,
// records written into it, the stress records with their writer, the consumer's loop, and the
// walk of a dump.
#pragma once

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "rambo_consumer.h"
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
    RamboReservation r;
    memset(&r, 0, sizeof r);
    memset(ramboReserveSlots(ring.cb(), payload, &r), fill, payload);
    ramboSync(ring.cb(), &r);
    return r;
}

constexpr Uint32 kWriters = 8;  // of the stress tests

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

// `records` records of 1 to 40 slots, some by the one-slot reservation.
inline void writeRecords(RamboCB* ring, Uint32 writer, Uint32 records) {
    Uint64 rng = writer * 0x2545F4914F6CDD1Dull + 7;
    for (Uint32 k = 0; k < records; ++k) {
        rng = rng * 6364136223846793005ull + 1442695040888963407ull;
        const Uint32 slots = 1 + static_cast<Uint32>((rng >> 33) % 40), size = slots * 64 - 12;
        RamboReservation r;
        void* p = slots == 1 && (rng >> 20 & 1) ? ramboReserveOneSlot(ring, &r)
                                                : ramboReserveSlots(ring, size, &r);
        fillPayload(static_cast<Uint8*>(p), size, writer, k);
        ramboSync(ring, &r);
    }
}

// Drains a chunked ring into an auto dump at `path` until `*done` writers have finished, then
// writes the rest and switches auto dump off. The chunks written go to `chunks`.
inline Uint32 consume(RamboCB* ring, const std::string& path, const Uint32* done, Uint32 writers,
                      Uint32* chunks) {
    ZEPFileOpenParam open;
    open.path = path.c_str();
    open.creation = ZEP_FILE_CREATE_OR_REPLACE;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPHFile file;
    RamboChunkConsumer consumer;
    Uint32 rc = file.open(&open);
    if (rc == 0) rc = consumer.start(ring, &file);
    for (Uint32 n = 0; rc == 0 && __atomic_load_n(done, __ATOMIC_ACQUIRE) < writers;)
        if ((rc = consumer.drain(&n)) == 0 && n == 0) usleep(100);
    const Uint32 stopped = consumer.stop(true);
    *chunks = static_cast<Uint32>(consumer.chunksWritten());
    file.close();
    return rc ? rc : stopped;
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

inline Walked walkDump(const std::string& path, bool forward, bool scan = false, Uint64 at = 0) {
    Walked w;
    ZEPFileOpenParam open;
    open.path = path.c_str();
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    ZEPFileSeekParam seek;
    seek.offset = static_cast<Sint64>(at);
    ZEPHFile file;
    RamboDumpParser parser = {};
    if ((w.rc = file.open(&open)) == 0 && (w.rc = file.seek(&seek)) == 0)
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
