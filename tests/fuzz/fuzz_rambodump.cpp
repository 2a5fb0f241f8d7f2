// Ring dumps from untrusted files: validation, the forward walk (with and without the scan of an
// auto dump) and the backward walk. A walk must end, and every payload it delivers must lie
// inside the dump's slots: a record never runs past the ring's end into the tail.
#include <vector>

#include "fuzz_common.h"

namespace {

struct Walk {
    Uint32 rc = 0;
    std::vector<Uint64> offsets;
};

Walk walk(Uint8 forward, bool scan, Uint64 slotsEnd, Uint64 fileSize) {
    Walk w;
    ZEPHFile file;
    if (!zepfuzz::openInput(&file)) abort();
    RamboDumpParser parser;
    w.rc = scan ? ramboOpenDumpFileParserScan(&file, &parser, forward)
                : ramboOpenDumpFileParser(&file, &parser, forward);
    if (w.rc == 0) {
        static std::vector<Uint8> payload(RAMBO_CHUNK_SIZE);
        Uint64 offset = 0;
        for (Uint32 size; (size = ramboParseDumpFile(&file, &parser, &offset, payload.data(),
                                                     static_cast<Uint32>(payload.size()))) != 0;) {
            if (offset + size > slotsEnd) abort();  // a payload beyond the slots
            w.offsets.push_back(offset);
            if (w.offsets.size() > fileSize / RAMBO_SLOT_SIZE) abort();  // more records than slots
        }
        Uint8 flag;
        ramboDidBufferWrap(&parser, &flag);
        ramboWasBufferTruncated(&parser, &flag);
        if (ramboCloseDumpFileParser(&parser) != 0) abort();
    }
    file.close();
    return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const Uint8* data, size_t size) {
    const std::string bytes = zepfuzz::ringDump(data, size);
    zepfuzz::writeInput(bytes);
    ZEPHFile file;
    if (!zepfuzz::openInput(&file)) abort();
    const Uint32 valid = ramboValidateDumpFile(&file);
    file.close();

    // The slots end where the tail begins (instantaneous) or at the file's end (auto).
    Uint64 slotsEnd = bytes.size();
    RamboDumpHeader h;
    if (valid == 0 && (memcpy(&h, bytes.data(), sizeof h), h.dumpType == RAMBO_DUMP_INSTANT))
        slotsEnd = sizeof h + Uint64{h.bufferSize};
    const Walk forward = walk(1, false, slotsEnd, bytes.size());
    const Walk backward = walk(0, false, slotsEnd, bytes.size());
    walk(1, true, slotsEnd, bytes.size());
    if (forward.rc != valid || backward.rc != valid) abort();
    return 0;
}
