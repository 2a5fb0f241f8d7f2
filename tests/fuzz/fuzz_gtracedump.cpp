// Trace dumps from untrusted files: validation, the walks of a ring dump both ways, the walker of
// a counting dump, and the tools' formatter over the whole dump in both views.
//
// A trace dump's header is 182,920 bytes, nearly all of it the masks, which have their own
// target. The input patches a header that the library made (ring mode, or counting mode when the
// first byte is odd): its next 128 bytes replace the eye-catcher and the options before the
// masks, the 32 after them the tick factor and the ring's header; the rest is the store (a short
// ring store is laid out as a whole one, its last 32 bytes the tail).
#include <vector>

#include "fuzz_common.h"
#include "trace_format.h"

namespace {

constexpr size_t kFront = 128, kBack = 32;
constexpr size_t kBackAt = sizeof(GTDumpHeader) - kBack;

std::string makeHeader(Uint32 modeBits) {
    const Uint32 ring = 0x80000;
    GTCBOptions* o = new GTCBOptions;
    o->bufferSize = ring;
    o->modeBits = modeBits;
    std::vector<Uint8> area(gtraceGetAllocSize(ring) + 64);
    GTCB* cb = reinterpret_cast<GTCB*>((reinterpret_cast<uintptr_t>(area.data()) + 63) & ~63ul);
    if (gtraceInitialize(cb, o) != 0 || gtraceAttach(cb, 7, nullptr, nullptr) != 0) abort();
    std::string header(sizeof(GTDumpHeader), '\0');
    void* store;
    Uint32 size;
    if (gtraceGetDumpHeaderBuffer(1, reinterpret_cast<GTDumpHeader*>(header.data()), &store,
                                  &size) != 0)
        abort();
    gtraceDetach();
    delete o;
    return header;
}

Uint32 walk(Uint8 forward) {
    ZEPHFile file;
    if (!zepfuzz::openInput(&file)) abort();
    GTDumpParser parser;
    Uint32 rc = gtraceOpenDumpFileParser(&file, &parser, forward);
    if (rc == 0) {
        static std::vector<Uint8> record(RAMBO_CHUNK_SIZE);
        Uint64 offset;
        for (Uint64 n = 0; gtraceParseRecords(&file, &parser, &offset, record.data(),
                                              static_cast<Uint32>(record.size())) != 0;)
            if (++n > (1u << 24)) abort();  // more records than a dump can hold
        if (gtraceCloseDumpFileParser(&parser) != 0) abort();
    }
    file.close();
    return rc;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const Uint8* data, size_t size) {
    static const std::string ringHeader = makeHeader(GTRACE_MODE_WRAP);
    static const std::string countHeader = makeHeader(GTRACE_MODE_COUNTING);
    if (size < 1) return 0;
    std::string bytes = (data[0] & 1) ? countHeader : ringHeader;
    ++data, --size;
    const size_t front = size < kFront ? size : kFront;
    bytes.replace(0, front, reinterpret_cast<const char*>(data), front);
    data += front, size -= front;
    const size_t back = size < kBack ? size : kBack;
    bytes.replace(kBackAt, back, reinterpret_cast<const char*>(data), back);
    data += back, size -= back;
    // The ring's part: its header (from the trace header's end) and the store.
    std::string ring = bytes.substr(GTRACE_DUMP_TRACE_HEADER_SIZE);
    ring.append(reinterpret_cast<const char*>(data), size);
    bytes.resize(GTRACE_DUMP_TRACE_HEADER_SIZE);
    bytes += zepfuzz::ringDump(reinterpret_cast<const Uint8*>(ring.data()), ring.size());
    zepfuzz::writeInput(bytes);

    ZEPHFile file;
    if (!zepfuzz::openInput(&file)) abort();
    const Uint32 valid = gtraceValidateDumpFile(&file, 0);
    file.close();
    // A dump that validates opens (a counting dump may open without validating: its walker
    // reads what the file has).
    if (walk(1) != 0 && valid == 0) abort();
    walk(0);

    std::string text;
    zeptrace::formatDumpFile(zepfuzz::inputPath(), zeptrace::View::Records, true, &text);
    zeptrace::formatDumpFile(zepfuzz::inputPath(), zeptrace::View::Flow, false, &text);
    return 0;
}
