// rambodump.cpp - the pieces of a ring's dump, and the reader of dump files.
//
// A dump is copied from a live ring without stopping its writers, so its slots may hold
// overwritten, half-stamped or lost records. The reader never calls that damage an error: a slot
// whose stamps don't agree is stepped over, one slot at a time, until stamps agree again, and the
// caller only ever sees whole records. It reads in one buffer of up to 1 MiB, sequentially, and
// seeks before every read, so the caller may use the file between two steps.
#include <string.h>

#include "rambo.h"
#include "zepmemory.h"

namespace {

// A whole largest record must be in memory before a slot can be judged.
constexpr Uint32 kRecordLimit = RAMBO_CHUNK_SIZE;
constexpr Uint32 kMaxBuffer = 0x100000;

// Reasons of the slot test; 0 is a good record.
enum SlotVerdict : Uint32 {
    kSlotGood = 0,
    kSlotNoMark = 1,
    kSlotBadCount = 2,
    kSlotPastData = 3,
    kSlotBadTrailer = 4,
    kSlotOutsideWindow = 5,
    kSlotPastRing = 6,
};

inline Uint32 load32(const Uint8* p) {
    Uint32 v;
    memcpy(&v, p, sizeof v);
    return v;
}

inline Uint16 load16(const Uint8* p) {
    Uint16 v;
    memcpy(&v, p, sizeof v);
    return v;
}

bool hasEyeCatcher(const RamboCB* cb) {
    return memcmp(cb->eyeCatcher, RAMBO_CB_EYE_CATCHER, sizeof cb->eyeCatcher) == 0;
}

// The parser's buffer comes from the process heap through the allocator, tagged "rambo".
Uint8* bufferAlloc(Uint32 bytes, Uint32* rc) {
    void* p = nullptr;
    *rc = _zepMemAlloc(&p, nullptr, bytes, 0, "rambo", __LINE__);
    return static_cast<Uint8*>(p);
}

Uint32 bufferFree(Uint8* p, Uint32 bytes) {
    void* block = p;
    return _zepMemFree(&block, nullptr, bytes, "rambo", __LINE__);
}

Uint32 filePosition(ZEPHFile* file, Uint64* position) {
    ZEPFileSeekParam seek;
    seek.offset = 0;
    seek.origin = ZEP_FILE_SEEK_CURRENT;
    return file->seek(&seek, position);
}

Uint32 fileSeek(ZEPHFile* file, Uint64 position) {
    ZEPFileSeekParam seek;
    seek.offset = static_cast<Sint64>(position);
    seek.origin = ZEP_FILE_SEEK_START;
    return file->seek(&seek);
}

// Reads up to `length` bytes; the end of the file is no error here, the count tells.
Uint32 fileRead(ZEPHFile* file, void* buffer, Uint32 length, Uint32* got) {
    ZEPFileReadParam read;
    read.length = length;
    const Uint32 rc = file->read(&read, buffer, got);
    return rc == ECF_FILE_EOF ? 0 : rc;
}

// What validation learns, for the opening of a parser.
struct DumpFacts {
    RamboDumpHeader header;
    RamboDumpTail tail;
    Uint64 fileSize;  // type 2 only
};

// Header, then type 1: whole slots and a tail; type 2: 0 or at least 64 bytes of slots. The
// position is restored unless the failure came before anything had been read.
Uint32 validate(ZEPHFile* file, DumpFacts* facts) {
    if (file == nullptr) return ECF_INVALID_PARAMETER;
    Uint64 start = 0;
    Uint32 rc = filePosition(file, &start);
    if (rc != 0) return rc;

    Uint32 got = 0;
    ZEPFileReadParam read;
    read.length = sizeof facts->header;
    rc = file->read(&read, &facts->header, &got);
    if (rc == ECF_FILE_EOF || (rc == 0 && got < sizeof facts->header))
        return ECF_RAMBO_DUMP_HEADER_TRUNCATED;
    if (rc != 0) return rc;

    const RamboDumpHeader& h = facts->header;
    if (memcmp(h.eyeCatcher, RAMBO_DUMP_HEAD_EYE_CATCHER, sizeof h.eyeCatcher) != 0) {
        rc = ECF_RAMBO_INVALID_DUMP_HEADER_EYE_CATCHER;
    } else if (h.dumpType != RAMBO_DUMP_INSTANT && h.dumpType != RAMBO_DUMP_AUTO) {
        rc = ECF_RAMBO_INVALID_DUMP_TYPE;
    } else if (h.bufferSize < RAMBO_MIN_BUFFER_SIZE || h.bufferSize > RAMBO_MAX_BUFFER_SIZE) {
        rc = ECF_RAMBO_INVALID_DUMP_BUFFER_SIZE;
    } else if (h.dumpType == RAMBO_DUMP_INSTANT) {
        // The handle refuses a seek past the end of the file, so a dump cut short in its slots is
        // told by the size rather than by a failed seek.
        Uint64 size = 0;
        rc = file->getSize(&size);
        if (rc == 0) {
            const Uint64 tailAt = start + sizeof h + h.bufferSize;
            if (tailAt + sizeof facts->tail > size) {
                rc = ECF_RAMBO_INSTANT_DUMP_TRUNCATED;
            } else if ((rc = fileSeek(file, tailAt)) == 0) {
                read.length = sizeof facts->tail;
                rc = file->read(&read, &facts->tail, &got);
                if (rc == ECF_FILE_EOF || (rc == 0 && got < sizeof facts->tail))
                    rc = ECF_RAMBO_INSTANT_DUMP_TRUNCATED;
                else if (rc != 0)
                    ;
                else if (memcmp(facts->tail.eyeCatcher, RAMBO_DUMP_TAIL_EYE_CATCHER,
                                sizeof facts->tail.eyeCatcher) != 0)
                    rc = ECF_RAMBO_INVALID_DUMP_TAIL_EYE_CATCHER;
                else if (facts->tail.tailIndex >= h.bufferSize / RAMBO_SLOT_SIZE)
                    rc = ECF_RAMBO_INVALID_DUMP_SLOT_INDEX;
            }
        }
    } else {
        rc = file->getSize(&facts->fileSize);
        if (rc == 0) {
            const Uint64 dataStart = start + sizeof h;
            const Uint64 bytes = facts->fileSize > dataStart ? facts->fileSize - dataStart : 0;
            if (bytes != 0 && bytes < RAMBO_SLOT_SIZE) rc = ECF_RAMBO_DUMP_TRUNCATED;
        }
    }

    const Uint32 back = fileSeek(file, start);
    return rc != 0 ? rc : back;
}

// A record starts at `slot` if its stamps agree; `avail` bytes are at hand from it on.
inline Uint32 testSlot(const RamboDumpParser* p, const Uint8* slot, Uint32 avail) {
    if (load16(slot + 4) != RAMBO_SLOT_MARK) return kSlotNoMark;
    const Uint32 count = load16(slot + 6);
    if (count == 0 || count > RAMBO_CHUNK_SLOTS) return kSlotBadCount;
    // A record never runs past the ring's last slot: what lies behind it in the file is the
    // tail, or anything at all.
    if (p->dumpType == RAMBO_DUMP_INSTANT && count > p->slotCount - p->slotIndex)
        return kSlotPastRing;
    const Uint32 bytes = count * RAMBO_SLOT_SIZE;
    if (bytes > avail) return kSlotPastData;
    const Uint32 sequence = load32(slot);
    if (load32(slot + bytes - 4) != ~sequence) return kSlotBadTrailer;
    if (p->dumpType == RAMBO_DUMP_INSTANT) {
        // Only the last slotCount sequences before the tail are of this lap. The shift b keeps
        // the comparison from wrapping while the tail is still in the first lap.
        const Uint32 s = p->tailSequence, n = p->slotCount;
        const Uint32 b = s < n ? n - s : 0;
        const Uint32 q = sequence + b;
        if (!(q >= s - n + b && q <= s + b - 1)) return kSlotOutsideWindow;
    }
    return kSlotGood;
}

inline Uint32 deliver(const RamboDumpParser* p, const Uint8* slot, Uint64* offset, void* buffer,
                      Uint32 bufferSize) {
    const Uint32 payload = load16(slot + 6) * RAMBO_SLOT_SIZE - RAMBO_RECORD_OVERHEAD;
    if (offset != nullptr) *offset = p->dataStart + p->position + 8;
    if (buffer != nullptr && bufferSize != 0)
        memcpy(buffer, slot + 8, payload < bufferSize ? payload : bufferSize);
    return payload;
}

Uint32 parseForward(ZEPHFile* file, RamboDumpParser* p, Uint64* offset, void* buffer,
                    Uint32 bufferSize) {
    while (p->remaining >= RAMBO_SLOT_SIZE) {
        if (p->bufferedBytes < kRecordLimit &&
            (p->bufferedBytes < RAMBO_SLOT_SIZE ||
             testSlot(p, p->cursor, p->bufferedBytes) == kSlotPastData)) {
            Uint32 got = 0;
            if (fileSeek(file, p->dataStart + p->position) != 0 ||
                fileRead(file, p->buffer, p->bufferCapacity, &got) != 0)
                return 0;
            p->cursor = p->buffer;
            p->bufferedBytes = got;
            // Only a file that shrank under the parser ends here.
            if (got < RAMBO_SLOT_SIZE) return 0;
        }

        const Uint32 avail = p->bufferedBytes < kRecordLimit ? p->bufferedBytes : kRecordLimit;
        const bool good = testSlot(p, p->cursor, avail) == kSlotGood;
        const Uint32 result = good ? deliver(p, p->cursor, offset, buffer, bufferSize) : 0;

        const Uint32 slots = good ? load16(p->cursor + 6) : 1;
        const Uint32 bytes = slots * RAMBO_SLOT_SIZE;
        p->remaining = p->remaining > bytes ? p->remaining - bytes : 0;
        if (p->bufferedBytes > bytes) {
            p->cursor += bytes;
            p->bufferedBytes -= bytes;
        } else {
            p->cursor = p->buffer;
            p->bufferedBytes = 0;
        }
        if (p->dumpType == RAMBO_DUMP_INSTANT) {
            const Uint32 next = (p->slotIndex + slots) % p->slotCount;
            // Past the ring's end the buffer holds the tail, not slot 0.
            if (next < p->slotIndex) {
                p->cursor = p->buffer;
                p->bufferedBytes = 0;
            }
            p->slotIndex = next;
            p->position = static_cast<Uint64>(next) * RAMBO_SLOT_SIZE;
        } else {
            p->position += bytes;
        }
        if (good) return result;
    }
    return 0;
}

// One slot at a time, newest first: each slot is tried as the first slot of a record, and the
// inner slots of a record fail the test, being payload. A read reaches back behind the slot for
// the next steps and 128 KiB in front of it for a whole record.
Uint32 parseBackward(ZEPHFile* file, RamboDumpParser* p, Uint64* offset, void* buffer,
                     Uint32 bufferSize) {
    while (p->remaining >= RAMBO_SLOT_SIZE) {
        if (p->bufferedSlots == 0) {
            const Uint32 back =
                p->position < p->backOverlap ? static_cast<Uint32>(p->position) : p->backOverlap;
            Uint32 got = 0;
            if (fileSeek(file, p->dataStart + p->position - back) != 0 ||
                fileRead(file, p->buffer, p->bufferCapacity, &got) != 0)
                return 0;
            if (got < back + RAMBO_SLOT_SIZE) return 0;
            p->cursor = p->buffer + back;
            p->bufferedBytes = got;
            p->bufferedSlots = back / RAMBO_SLOT_SIZE + 1;
        }

        const Uint32 inFront = p->bufferedBytes - static_cast<Uint32>(p->cursor - p->buffer);
        const Uint32 avail = inFront < kRecordLimit ? inFront : kRecordLimit;
        const bool good = testSlot(p, p->cursor, avail) == kSlotGood;
        const Uint32 result = good ? deliver(p, p->cursor, offset, buffer, bufferSize) : 0;

        if (p->dumpType == RAMBO_DUMP_INSTANT) {
            p->slotIndex = p->slotIndex == 0 ? p->slotCount - 1 : p->slotIndex - 1;
            p->position = static_cast<Uint64>(p->slotIndex) * RAMBO_SLOT_SIZE;
        } else if (p->position >= RAMBO_SLOT_SIZE) {
            p->position -= RAMBO_SLOT_SIZE;
        }
        p->remaining -= RAMBO_SLOT_SIZE;
        if (--p->bufferedSlots != 0) p->cursor -= RAMBO_SLOT_SIZE;
        if (good) return result;
    }
    return 0;
}

// Looks for the first stamped slot of an auto dump: a dump whose first record has a sequence
// above 0 doesn't begin with the ring's first record. Stops at that slot; the slots behind it
// change nothing.
Uint32 scanAutoDump(ZEPHFile* file, RamboDumpParser* p) {
    p->slotCount = static_cast<Uint32>(p->remaining / RAMBO_SLOT_SIZE);
    Uint8 block[64 * RAMBO_SLOT_SIZE];
    Uint64 left = static_cast<Uint64>(p->slotCount) * RAMBO_SLOT_SIZE;
    Uint32 rc = fileSeek(file, p->dataStart);
    while (rc == 0 && left != 0) {
        const Uint32 want = left < sizeof block ? static_cast<Uint32>(left) : sizeof block;
        Uint32 got = 0;
        if ((rc = fileRead(file, block, want, &got)) != 0) break;
        for (Uint32 i = 0; i + RAMBO_SLOT_SIZE <= got; i += RAMBO_SLOT_SIZE) {
            const Uint32 count = load16(block + i + 6);
            if (load16(block + i + 4) == RAMBO_SLOT_MARK && count >= 1 &&
                count <= RAMBO_CHUNK_SLOTS) {
                if (load32(block + i) > 0) p->wrapped = 1;
                return 0;
            }
        }
        if (got < want) break;
        left -= got;
    }
    return rc;
}

Uint32 openParser(ZEPHFile* file, RamboDumpParser* p, Uint8 forward, bool scan) {
    if (file == nullptr || p == nullptr) return ECF_INVALID_PARAMETER;
    p->open = 0;
    DumpFacts facts;
    Uint32 rc = validate(file, &facts);
    if (rc != 0) return rc;

    const RamboDumpHeader& h = facts.header;
    p->forward = forward != 0;
    p->dumpType = h.dumpType;
    p->slotCount = h.bufferSize / RAMBO_SLOT_SIZE;
    p->wrapped = 0;
    p->truncated = 0;
    p->bufferedBytes = 0;
    p->bufferedSlots = 0;
    p->slotIndex = 0;
    p->tailSequence = 0;
    ZEPFileSeekParam past;
    past.offset = sizeof h;
    past.origin = ZEP_FILE_SEEK_CURRENT;
    if ((rc = file->seek(&past, &p->dataStart)) != 0) return rc;

    if (h.dumpType == RAMBO_DUMP_INSTANT) {
        const Uint32 n = p->slotCount;
        const Uint32 s = facts.tail.tailSequence;
        p->tailSequence = s;
        p->slotIndex = facts.tail.tailIndex;
        p->remaining = h.bufferSize;
        if (h.wraps) {
            // Forward from the oldest slot, backward from the newest, round the whole ring.
            if (!p->forward) p->slotIndex = (p->slotIndex + n - 1) % n;
            const Uint32 base = facts.tail.sequenceBase;
            if ((s > base ? s - base : base - s) > n) p->wrapped = 1;
        } else {
            const Uint32 used = s % n;
            if (used != 0) p->remaining = static_cast<Uint64>(used) * RAMBO_SLOT_SIZE;
            p->slotIndex = p->forward ? 0 : (used != 0 ? used - 1 : n - 1);
            p->truncated = facts.tail.truncated;
        }
        p->position = static_cast<Uint64>(p->slotIndex) * RAMBO_SLOT_SIZE;
    } else {
        p->remaining = facts.fileSize - p->dataStart;
        p->position = 0;
        if (!p->forward && p->remaining >= 2 * RAMBO_SLOT_SIZE)
            p->position = (p->remaining - RAMBO_SLOT_SIZE) & ~static_cast<Uint64>(63);
        if (scan && p->forward && (rc = scanAutoDump(file, p)) != 0) return rc;
    }

    p->bufferCapacity = p->remaining < kMaxBuffer ? static_cast<Uint32>(p->remaining) : kMaxBuffer;
    if (p->bufferCapacity == 0) p->bufferCapacity = RAMBO_SLOT_SIZE;
    p->buffer = bufferAlloc(p->bufferCapacity, &rc);
    if (rc != 0) return rc;
    p->cursor = p->buffer;
    if (p->forward)
        p->backOverlap = 0;
    else
        p->backOverlap = p->bufferCapacity > kRecordLimit ? p->bufferCapacity - kRecordLimit
                                                          : p->bufferCapacity - RAMBO_SLOT_SIZE;
    p->open = 1;
    return 0;
}

}  // namespace

Uint32 ramboGetDumpHeaderBuffer(RamboCB* cb, Uint8 instantaneous, RamboDumpHeader* header,
                                void** slots, Uint32* size) {
    if (cb == nullptr) return ECF_INVALID_PARAMETER;
    if (!hasEyeCatcher(cb)) return ECF_RAMBO_NOT_INITIALIZED;
    if (header == nullptr) return ECF_INVALID_PARAMETER;
    zepLockGet(&cb->latch);
    memset(header, 0, sizeof *header);
    memcpy(header->eyeCatcher, RAMBO_DUMP_HEAD_EYE_CATCHER, sizeof header->eyeCatcher);
    header->bufferSize = cb->bufferSize;
    header->dumpType = static_cast<Uint16>(instantaneous ? RAMBO_DUMP_INSTANT : RAMBO_DUMP_AUTO);
    header->wraps = cb->wraps;
    if (slots != nullptr) *slots = reinterpret_cast<Uint8*>(cb) + cb->slotsOffset;
    if (size != nullptr) *size = cb->bufferSize;
    zepLockRelease(&cb->latch);
    return 0;
}

Uint32 ramboGetDumpTail(RamboCB* cb, RamboDumpTail* tail) {
    if (cb == nullptr) return ECF_INVALID_PARAMETER;
    if (!hasEyeCatcher(cb)) return ECF_RAMBO_NOT_INITIALIZED;
    if (tail == nullptr) return ECF_INVALID_PARAMETER;
    zepLockGet(&cb->latch);
    // Writers run on: the sequence may be newer than slots copied before it.
    Uint32 sequence = __atomic_load_n(&cb->nextSequence, __ATOMIC_ACQUIRE);
    memcpy(tail->eyeCatcher, RAMBO_DUMP_TAIL_EYE_CATCHER, sizeof tail->eyeCatcher);
    if (cb->wraps) {
        tail->tailSequence = sequence;
        tail->tailIndex = sequence & cb->slotIndexMask;
        tail->sequenceBase = cb->sequenceBase;
        tail->truncated = 0;
    } else {
        // An index of exactly slotCount is a ring just full; beyond it claims were lost.
        const Uint32 index = sequence & cb->slotIndexMask;
        tail->truncated = 0;
        if (index > cb->slotCount) {
            tail->truncated = 1;
            sequence &= ~(cb->slotCount - 1);
        }
        tail->tailSequence = sequence;
        tail->tailIndex = 0;
        tail->sequenceBase = 0;
    }
    zepLockRelease(&cb->latch);
    return 0;
}

Uint32 ramboInitializeChunkWalker(RamboCB* cb, RamboChunkWalker* walker) {
    if (cb == nullptr) return ECF_INVALID_PARAMETER;
    if (!hasEyeCatcher(cb)) return ECF_RAMBO_NOT_INITIALIZED;
    if (!cb->chunked) return ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED;
    if (walker == nullptr) return ECF_INVALID_PARAMETER;
    Uint8* base = reinterpret_cast<Uint8*>(cb);
    walker->area = cb;
    walker->chunk = reinterpret_cast<RamboChunk*>(base + cb->chunkTableOffset);
    walker->chunkIndex = 0;
    walker->slots = base + cb->slotsOffset;
    return 0;
}

Uint32 ramboValidateDumpFile(ZEPHFile* file) {
    DumpFacts facts;
    return validate(file, &facts);
}

Uint32 ramboOpenDumpFileParser(ZEPHFile* file, RamboDumpParser* parser, Uint8 forward) {
    return openParser(file, parser, forward, false);
}

Uint32 ramboOpenDumpFileParserScan(ZEPHFile* file, RamboDumpParser* parser, Uint8 forward) {
    return openParser(file, parser, forward, true);
}

Uint32 ramboParseDumpFile(ZEPHFile* file, RamboDumpParser* parser, Uint64* offset, void* buffer,
                          Uint32 bufferSize) {
    if (file == nullptr || parser == nullptr || !parser->open) return 0;
    return parser->forward ? parseForward(file, parser, offset, buffer, bufferSize)
                           : parseBackward(file, parser, offset, buffer, bufferSize);
}

Uint32 ramboCloseDumpFileParser(RamboDumpParser* parser) {
    if (parser == nullptr || !parser->open) return ECF_INVALID_PARAMETER;
    const Uint32 rc = bufferFree(parser->buffer, parser->bufferCapacity);
    parser->buffer = nullptr;
    parser->cursor = nullptr;
    parser->open = 0;
    return rc;
}

Uint32 ramboDidBufferWrap(RamboDumpParser* parser, Uint8* wrapped) {
    if (parser == nullptr || !parser->open || wrapped == nullptr) return ECF_INVALID_PARAMETER;
    *wrapped = parser->wrapped;
    return 0;
}

Uint32 ramboWasBufferTruncated(RamboDumpParser* parser, Uint8* truncated) {
    if (parser == nullptr || !parser->open || truncated == nullptr) return ECF_INVALID_PARAMETER;
    *truncated = parser->truncated;
    return 0;
}
