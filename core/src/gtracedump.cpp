// gtracedump.cpp - reading trace dumps back: validation, the parser of either kind, and the walker
// over counting tables.
//
// A trace dump is a rambo dump with the trace header in front: the reader takes the header here
// and hands the file, standing behind it, to the rambo reader. A counting dump holds the table
// instead of slots; its walker reads forward in blocks of 16 KiB and delivers the entries in use,
// in the table's (hash) order.
#include <string.h>

#include "gtrace.h"
#include "zepmemory.h"

namespace {

// The part of the header this reader reads itself; the rambo header behind it is the rambo
// reader's. 182 KiB is too much for a small stack, so it is a temporary on the heap.
struct TraceHeader {
    Char eyeCatcher[8];
    GTCBOptions options;
    ZEPTickConversionFactor tickFactor;
};
static_assert(sizeof(TraceHeader) == GTRACE_DUMP_TRACE_HEADER_SIZE, "the trace header's size");

// The reader's blocks come from the allocator under the tag "gptrace".
void* take(Uint32 size, Uint32* rc) {
    void* p = nullptr;
    *rc = _zepMemAlloc(&p, nullptr, size, 0, "gptrace", __LINE__);
    return p;
}
Uint32 give(void* p) {
    return p ? _zepMemFree(&p, nullptr, 0, "gptrace", __LINE__) : 0;
}

TraceHeader* newHeader(Uint32* rc) {
    return static_cast<TraceHeader*>(take(sizeof(TraceHeader), rc));
}

Uint32 kindOf(const TraceHeader* h) {
    return (h->options.modeBits & GTRACE_MODE_COUNTING) ? GTRACE_DUMP_KIND_COUNTING
                                                        : GTRACE_DUMP_KIND_RAMBO;
}

Uint32 readBytes(ZEPHFile* file, void* buffer, Uint32 length, Uint32* got) {
    ZEPFileReadParam read;
    read.length = length;
    *got = 0;
    return file->read(&read, buffer, got);
}

Uint32 seekTo(ZEPHFile* file, Sint64 offset, Uint32 origin, Uint64* position = nullptr) {
    ZEPFileSeekParam seek;
    seek.offset = offset;
    seek.origin = origin;
    return file->seek(&seek, position);
}

// Reads the trace header; a short read is ECF_FILE_EOF, with `got` telling how short.
Uint32 readHeader(ZEPHFile* file, TraceHeader* h, Uint32* got) {
    return readBytes(file, h, GTRACE_DUMP_TRACE_HEADER_SIZE, got);
}

// ---- the counting walker

Uint32 countOpen(ZEPHFile* file, GTCountParser* c, const GTCBOptions& options) {
    if (file == nullptr || c == nullptr) return ECF_INVALID_PARAMETER;
    c->open = 1;
    Uint32 rc = seekTo(file, 0, ZEP_FILE_SEEK_CURRENT, &c->startPosition);
    c->buffer = nullptr;
    if (rc == 0) c->buffer = static_cast<Uint8*>(take(GTRACE_COUNT_READ_SIZE, &rc));
    if (rc == 0) {
        c->cursor = c->buffer;
        c->consumed = 0;
        c->bytesRead = 0;
        c->entryCount = options.bufferSize / sizeof(GTCountEntry);
        c->entriesSeen = 0;
        c->endOfFile = 0;
        // Over the 16 bytes where a ring dump has its header, which a counting dump leaves
        // unwritten.
        rc = seekTo(file, sizeof(RamboDumpHeader), ZEP_FILE_SEEK_CURRENT);
    }
    if (rc == 0) {
        rc = readBytes(file, c->buffer, GTRACE_COUNT_READ_SIZE, &c->bytesRead);
        if (rc == ECF_FILE_EOF) {
            c->endOfFile = 1;
            rc = 0;
        }
    }
    if (rc != 0) {
        // A walker that failed to open holds nothing: there is nothing to close.
        give(c->buffer);
        c->buffer = nullptr;
        c->open = 0;
    }
    return rc;
}

Uint32 countParse(ZEPHFile* file, GTCountParser* c, void* buffer, Uint32 bufferSize) {
    if (file == nullptr || c == nullptr || !c->open) return 0;
    for (;;) {
        if (c->consumed == c->bytesRead) {
            Uint32 rc = readBytes(file, c->buffer, GTRACE_COUNT_READ_SIZE, &c->bytesRead);
            if (rc == ECF_FILE_EOF)
                c->endOfFile = 1;
            else if (rc != 0)
                return 0;
            c->cursor = c->buffer;
            c->consumed = 0;
            if (c->endOfFile && c->bytesRead == 0) return 0;
        }
        if (c->bytesRead - c->consumed < sizeof(GTCountEntry)) return 0;
        // Anything behind the table isn't read as table.
        if (++c->entriesSeen > c->entryCount) return 0;
        const GTCountEntry* e = reinterpret_cast<const GTCountEntry*>(c->cursor);
        const bool used = e->functionID != 0;
        if (used && buffer != nullptr && bufferSize != 0)
            memcpy(buffer, e,
                   bufferSize < sizeof(GTCountEntry) ? bufferSize : sizeof(GTCountEntry));
        c->cursor += sizeof(GTCountEntry);
        c->consumed += sizeof(GTCountEntry);
        if (used) return sizeof(GTCountEntry);
    }
}

Uint32 countClose(GTCountParser* c) {
    if (c == nullptr || !c->open) return ECF_INVALID_PARAMETER;
    const Uint32 rc = give(c->buffer);
    c->buffer = nullptr;
    c->cursor = nullptr;
    c->open = 0;
    return rc;
}

}  // namespace

Uint32 gtraceValidateDumpFile(ZEPHFile* file, Uint32 expectedKind) {
    if (file == nullptr) return ECF_INVALID_PARAMETER;
    Uint64 start = 0;
    Uint32 rc = seekTo(file, 0, ZEP_FILE_SEEK_CURRENT, &start);
    if (rc != 0) return rc;
    TraceHeader* h = newHeader(&rc);
    if (h == nullptr) return rc;
    Uint32 got = 0;
    rc = readHeader(file, h, &got);
    if (rc == ECF_FILE_EOF || (rc == 0 && got < GTRACE_DUMP_TRACE_HEADER_SIZE)) {
        give(h);
        return ECF_GTRACE_DUMP_HEADER_TRUNCATED;
    }
    if (rc != 0) {
        give(h);
        return rc;
    }
    if (memcmp(h->eyeCatcher, GTRACE_DUMP_EYE_CATCHER, sizeof(h->eyeCatcher)) != 0)
        rc = ECF_GTRACE_INVALID_DUMP_EYE_CATCHER;
    else if (expectedKind != 0 && expectedKind != kindOf(h))
        rc = ECF_INVALID_PARAMETER;
    else
        rc = ramboValidateDumpFile(file);
    give(h);
    const Uint32 back = seekTo(file, static_cast<Sint64>(start), ZEP_FILE_SEEK_START);
    return rc != 0 ? rc : back;
}

Uint32 gtraceOpenDumpFileParser(ZEPHFile* file, GTDumpParser* parser, Uint8 forward) {
    if (file == nullptr || parser == nullptr) return ECF_INVALID_PARAMETER;
    Uint32 rc = 0;
    TraceHeader* h = newHeader(&rc);
    if (h == nullptr) return rc;
    Uint32 got = 0;
    rc = readHeader(file, h, &got);
    if (rc == 0) {
        parser->kind = kindOf(h);
        if (parser->kind == GTRACE_DUMP_KIND_COUNTING) {
            rc = countOpen(file, &parser->count, h->options);
        } else if (h->options.dumpScanTrigger[0] != 0 || h->options.dumpScanTrigger[1] != 0) {
            // Does an auto dump begin with the trace's first record? Only a scan can tell.
            rc = ramboOpenDumpFileParserScan(file, &parser->rambo, forward);
        } else {
            rc = ramboOpenDumpFileParser(file, &parser->rambo, forward);
        }
    }
    give(h);
    return rc;
}

Uint32 gtraceParseRecords(ZEPHFile* file, GTDumpParser* parser, Uint64* offset, void* buffer,
                          Uint32 bufferSize) {
    if (parser == nullptr) return 0;
    switch (parser->kind) {
        case GTRACE_DUMP_KIND_RAMBO:
            return ramboParseDumpFile(file, &parser->rambo, offset, buffer, bufferSize);
        case GTRACE_DUMP_KIND_COUNTING:
            return countParse(file, &parser->count, buffer, bufferSize);
        default:
            return 0;
    }
}

Uint32 gtraceCloseDumpFileParser(GTDumpParser* parser) {
    if (parser == nullptr) return ECF_INVALID_PARAMETER;
    switch (parser->kind) {
        case GTRACE_DUMP_KIND_RAMBO:
            return ramboCloseDumpFileParser(&parser->rambo);
        case GTRACE_DUMP_KIND_COUNTING:
            return countClose(&parser->count);
        default:
            return 0;
    }
}
