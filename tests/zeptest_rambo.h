// The ring's stress records and their check, shared by test_rambo_stress and helper_rambo. A
// record's payload is: writer, the writer's record counter, a checksum, and filler derived from
// the writer and the counter, to the last byte.
#pragma once

#include <string.h>

#include <string>
#include <vector>

#include "zep.h"

namespace zeptest {

constexpr Uint32 kWriters = 8;
constexpr size_t kRingOffset = 4096;  // the ring's place in the shared mapping

// The head of the shared mapping: what the helper processes report.
struct StressShared {
    Uint32 go, stop;
    Uint32 landed[kWriters];             // records of each writer that went into the ring
    Uint32 overflowCalls[kWriters / 2];  // overflow callbacks, per writing process
    Uint32 dumps;                        // instantaneous dumps made and walked
    Uint32 badRecords;                   // delivered with a wrong checksum, size or writer
    Uint32 orderErrors;                  // a writer's records out of claim order
    Uint32 directionMismatches;          // forward and backward delivered different counts
    Uint64 recordsChecked;
    Uint32 consumerRc, consumerChunks;
    Uint32 inFlight[kWriters];  // wrapping ring: lowest sequence a writer may be writing
};

inline Uint32 fnv(const Uint8* p, Uint32 size, Uint32 h = 2166136261u) {
    for (Uint32 i = 0; i < size; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

inline void fillPayload(Uint8* p, Uint32 size, Uint32 writer, Uint32 counter) {
    memcpy(p, &writer, 4);
    memcpy(p + 4, &counter, 4);
    Uint64 x = (static_cast<Uint64>(writer) << 32 | counter) * 0x9E3779B97F4A7C15ull + 1;
    for (Uint32 i = 12; i < size; i += 4) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        const Uint32 word = static_cast<Uint32>(x);
        memcpy(p + i, &word, size - i < 4 ? size - i : 4);
    }
    const Uint32 sum = fnv(p + 12, size - 12, fnv(p, 8));
    memcpy(p + 8, &sum, 4);
}

inline bool payloadValid(const Uint8* p, Uint32 size, Uint32* writer, Uint32* counter) {
    if (size < 52 || (size + 12) % 64 != 0) return false;
    Uint32 sum;
    memcpy(writer, p, 4);
    memcpy(counter, p + 4, 4);
    memcpy(&sum, p + 8, 4);
    return *writer < kWriters && sum == fnv(p + 12, size - 12, fnv(p, 8));
}

// Every record a walk of the dump at `path` delivers, as counters per writer in walk order.
struct Walked {
    std::vector<std::vector<Uint32>> counters = std::vector<std::vector<Uint32>>(kWriters);
    Uint32 bad = 0, rc = 0;
    Uint8 wrapped = 0xFF, truncated = 0xFF;
    Uint64 total = 0;
    // Each writer's records in claim order (forward) or its reverse.
    bool ordered(bool forward) const {
        for (const auto& c : counters)
            for (size_t i = 1; i < c.size(); ++i)
                if (forward ? c[i] <= c[i - 1] : c[i] >= c[i - 1]) return false;
        return true;
    }
};

inline Walked walkDump(const std::string& path, bool forward, bool scan = false) {
    Walked w;
    ZEPFileOpenParam open;
    open.path = path.c_str();
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    ZEPHFile file;
    RamboDumpParser parser;
    w.rc = file.open(&open);
    if (w.rc == 0)
        w.rc = scan ? ramboOpenDumpFileParserScan(&file, &parser, forward)
                    : ramboOpenDumpFileParser(&file, &parser, forward);
    if (w.rc != 0) return w;
    std::vector<Uint8> payload(RAMBO_CHUNK_SIZE);
    for (Uint32 size; (size = ramboParseDumpFile(&file, &parser, nullptr, payload.data(),
                                                 RAMBO_CHUNK_SIZE)) != 0;) {
        ++w.total;
        Uint32 writer, counter;
        if (payloadValid(payload.data(), size, &writer, &counter))
            w.counters[writer].push_back(counter);
        else
            ++w.bad;
    }
    ramboDidBufferWrap(&parser, &w.wrapped);
    ramboWasBufferTruncated(&parser, &w.truncated);
    w.rc = ramboCloseDumpFileParser(&parser);
    file.close();
    return w;
}

}  // namespace zeptest
