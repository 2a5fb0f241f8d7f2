// rambo.h - the lock-free record ring under the trace, and the reader of its dumps.
//
// A ring lives in one area that the caller provides (normally shared memory mapped by many
// processes, each at its own address): a control block, a chunk table, the slots and an overflow
// area, all addressed by offsets from the area's start. Writers claim 64-byte slots with one
// atomic add on `nextSequence`, fill the payload in place and stamp the record with ramboSync();
// they take no lock, make no system call and never fail. The layout is a format: other processes
// read it, and dumps copy its slots to files.
//
//     area + 0                control block, "RAMBOCB"
//     area + 256              chunk table, one "RAMBOCK" record per 128 KiB chunk
//     area + slotsOffset      bufferSize bytes of slots
//     area + overflowOffset   0x20000 + 24 bytes where records of a full stopping ring go
//
// A record is n consecutive slots (1 <= n <= 2048), never split by the ring's end:
//     +0 sequence (the value of nextSequence that claimed it), +4 0xCAFE, +6 n,
//     +8 payload (n * 64 - 12 bytes), +n*64-4 the complement of the sequence.
// The trailer is stored last, so a record whose stamps agree is complete.
//
// Modes: 1 wraps (newest records survive), 2 stops when full (oldest survive, later records go
// to the overflow area and the overflow callback runs), 4 wraps in chunks that a dump consumer
// drains (with auto dump on, writers wait for the consumer rather than overwrite).
//
// A dump is a 16-byte header ("@HEAD\r\n"), the slots, and for an instantaneous dump (type 1) a
// 32-byte tail ("@TAIL\r\n"); an auto dump (type 2) is the header followed by whole chunks as the
// consumer wrote them. The library writes no dump: it hands out the header, the tail and the
// slots, and reads dumps back through ZEPHFile.
#ifndef RAMBO_H
#define RAMBO_H

#include <stddef.h>

#include "zeptypes.h"
#include "zepecf.h"
#include "zephfile.h"
#include "zeplatch.h"

#define RAMBO_SLOT_SIZE 64u
#define RAMBO_CHUNK_SIZE 0x20000u  // also the largest record
#define RAMBO_CHUNK_SLOTS 2048u    // slots of a chunk, and the most slots of one record
#define RAMBO_MIN_BUFFER_SIZE 0x80000u
#define RAMBO_MAX_BUFFER_SIZE 0x40000000u
#define RAMBO_CB_SIZE 256u
#define RAMBO_OVERFLOW_SIZE (RAMBO_CHUNK_SIZE + 24u)
#define RAMBO_SLOT_MARK 0xCAFEu
// Bytes of a record that are the ring's: 8 in front (sequence, mark, count), 4 behind.
#define RAMBO_RECORD_OVERHEAD 12u
#define RAMBO_ONE_SLOT_PAYLOAD (RAMBO_SLOT_SIZE - RAMBO_RECORD_OVERHEAD)

// Modes of ramboInitialize.
#define RAMBO_MODE_WRAP 1u
#define RAMBO_MODE_STOP 2u
#define RAMBO_MODE_CHUNKED 4u

#define RAMBO_CB_EYE_CATCHER "RAMBOCB"
#define RAMBO_CHUNK_EYE_CATCHER "RAMBOCK"
#define RAMBO_DUMP_HEAD_EYE_CATCHER "@HEAD\r\n"
#define RAMBO_DUMP_TAIL_EYE_CATCHER "@TAIL\r\n"

#define RAMBO_DUMP_INSTANT 1u
#define RAMBO_DUMP_AUTO 2u

// The control block. Bytes not named are zero. Writers read everything but `nextSequence` and
// `autoDump` without synchronization: those fields don't change after ramboInitialize.
// `nextSequence`, the one contended word, has the first cache line to itself (with the
// eye-catcher, which writers never read); the fields writers read sit in the third.
struct RamboCB {
    Uint32 nextSequence;  // slots ever claimed
    Char eyeCatcher[8];   // "RAMBOCB", written last by ramboInitialize
    Uint8 reserved1[0x80 - 0x0C];
    ZEPLock latch;  // control operations only
    Uint8 reserved2[3];
    Uint32 sequenceBase;      // nextSequence at the last ramboNewSequence of a wrapping ring
    Uint32 slotIndexMask;     // sequence AND mask = slot index
    Uint32 slotsOffset;       // of slot 0, from the area's start
    Uint32 chunkTableOffset;  // 256
    Uint32 overflowOffset;
    Uint32 bufferSize;  // bytes of slots
    Uint32 chunkCount;
    Uint32 slotCount;
    Uint8 wraps;     // 1: the ring wraps; 0: it stops when full
    Uint8 chunked;   // 1: the chunk protocol is in force
    Uint8 autoDump;  // 1: writers wait for the consumer and count what they commit
    Uint8 reserved3[RAMBO_CB_SIZE - 0xA7];
};

static_assert(sizeof(RamboCB) == 256, "the control block is 256 bytes");
static_assert(offsetof(RamboCB, nextSequence) == 0x00 && offsetof(RamboCB, eyeCatcher) == 0x04 &&
                  offsetof(RamboCB, latch) == 0x80 && offsetof(RamboCB, sequenceBase) == 0x84 &&
                  offsetof(RamboCB, slotIndexMask) == 0x88 &&
                  offsetof(RamboCB, slotsOffset) == 0x8C &&
                  offsetof(RamboCB, chunkTableOffset) == 0x90 &&
                  offsetof(RamboCB, overflowOffset) == 0x94 &&
                  offsetof(RamboCB, bufferSize) == 0x98 && offsetof(RamboCB, chunkCount) == 0x9C &&
                  offsetof(RamboCB, slotCount) == 0xA0 && offsetof(RamboCB, wraps) == 0xA4 &&
                  offsetof(RamboCB, chunked) == 0xA5 && offsetof(RamboCB, autoDump) == 0xA6,
              "control block fields at their offsets");

// One per chunk, in chunk order, from area + 256.
struct RamboChunk {
    Char eyeCatcher[8];     // "RAMBOCK"
    Uint32 committedSlots;  // slots stamped in this lap (counted only while autoDump is set)
    Uint32 generation;      // the lap this chunk is open for
    Uint32 chunkIndex;
};

static_assert(sizeof(RamboChunk) == 20, "a chunk record is 20 bytes");
static_assert(offsetof(RamboChunk, eyeCatcher) == 0 && offsetof(RamboChunk, committedSlots) == 8 &&
                  offsetof(RamboChunk, generation) == 12 && offsetof(RamboChunk, chunkIndex) == 16,
              "chunk record fields at their offsets");

// The writer's token from reserving to stamping; it lives on the writer's stack.
struct RamboReservation {
    Uint8* slot;               // first slot of the record, in this process's mapping
    RamboChunk* chunk;         // chunk of the first slot (chunked rings only)
    Uint32 sequence;           // the record's sequence
    Uint16 slotsReserved;      // n
    Uint16 slotsInFirstChunk;  // of the n, how many lie in `chunk` (chunked rings only)
};

// Dump header, at the dump's first byte.
struct RamboDumpHeader {
    Char eyeCatcher[8];  // "@HEAD\r\n"
    Uint32 bufferSize;
    Uint16 dumpType;  // RAMBO_DUMP_INSTANT or RAMBO_DUMP_AUTO
    Uint8 wraps;
    Uint8 reserved;
};

static_assert(sizeof(RamboDumpHeader) == 16, "a dump header is 16 bytes");
static_assert(offsetof(RamboDumpHeader, bufferSize) == 8 &&
                  offsetof(RamboDumpHeader, dumpType) == 12 &&
                  offsetof(RamboDumpHeader, wraps) == 14 &&
                  offsetof(RamboDumpHeader, reserved) == 15,
              "dump header fields at their offsets");

// Tail of an instantaneous dump, behind the slots. ramboGetDumpTail writes the first 21 bytes.
struct RamboDumpTail {
    Char eyeCatcher[8];   // "@TAIL\r\n"
    Uint32 tailSequence;  // nextSequence; a stopping ring past its end: rounded down to slotCount
    Uint32 tailIndex;     // wrapping ring: the oldest slot; else 0
    Uint32 sequenceBase;  // wrapping ring: sequenceBase; else 0
    Uint8 truncated;      // a stopping ring ran past its end
    Uint8 undefined[11];
};

static_assert(sizeof(RamboDumpTail) == 32, "a dump tail is 32 bytes");
static_assert(offsetof(RamboDumpTail, tailSequence) == 8 &&
                  offsetof(RamboDumpTail, tailIndex) == 12 &&
                  offsetof(RamboDumpTail, sequenceBase) == 16 &&
                  offsetof(RamboDumpTail, truncated) == 20,
              "dump tail fields at their offsets");

// What a dump consumer needs to find its way about a chunked ring.
struct RamboChunkWalker {
    RamboCB* area;
    RamboChunk* chunk;  // chunk 0
    Uint32 chunkIndex;  // 0
    Uint8* slots;       // slot 0
};

// The state of one walk over a dump, in memory the caller provides; only the parser reads it.
struct RamboDumpParser {
    Uint64 dataStart;  // file offset of the first slot
    Uint64 position;   // offset from dataStart of the next slot to look at
    Uint64 remaining;  // bytes still to look at
    Uint8* buffer;
    Uint8* cursor;         // the next slot in the buffer
    Uint32 bufferedBytes;  // forward: valid bytes from cursor on; backward: what the last read gave
    Uint32 bufferCapacity;  // bytes of buffer
    Uint32 backOverlap;     // backward: how far a read reaches behind the current slot
    Uint32 bufferedSlots;   // backward: slots still to visit in the buffer
    Uint32 slotIndex;       // instantaneous dump: ring index of the next slot
    Uint32 slotCount;
    Uint32 tailSequence;  // instantaneous dump
    Uint16 dumpType;
    Uint8 forward;
    Uint8 open;
    Uint8 wrapped;    // older records were lost to a wrap
    Uint8 truncated;  // records were lost because a stopping ring was full
};

ZEP_BEGIN_C

// ---- the ring

// Bytes the whole area takes for `size` bytes of slots, or 0 unless the size is a power of two
// from 0x80000 to 0x40000000.
ZEP_EXPORT Uint32 ramboGetAllocSize(Uint32 size);
// The largest power of two not above `value`; 0 for 0.
ZEP_EXPORT Uint32 ramboRoundNearest2(Uint32 value);
// Builds a ring of `size` bytes of slots (zeroed) in mode 1, 2 or 4. No other thread may use the
// area until it returns. ECF_RAMBO_INVALID_BUFFER_SIZE, ECF_INVALID_PARAMETER.
ZEP_EXPORT Uint32 ramboInitialize(RamboCB* area, Uint32 size, Uint32 mode);
// The overflow callback of this process: called, on the writer's thread, by every claim that runs
// past the end of a stopping ring. Null removes it.
ZEP_EXPORT void ramboSetCallBack(void (*callback)(void));
// Empties a ring without touching its slots: a wrapping ring moves on by a whole lap, a stopping
// ring to the next multiple of twice its size. Writers carry on meanwhile. Not for chunked rings
// (ECF_NOT_SUPPORTED).
ZEP_EXPORT Uint32 ramboNewSequence(RamboCB* area);

// Reserving and stamping: reserve, write the payload through the address returned, then
// ramboSync() with the same reservation. No validation, no failure: the area must be initialized.
// The payload address of one slot, 52 bytes.
ZEP_EXPORT void* ramboReserveOneSlot(RamboCB* area, RamboReservation* reservation);
// The payload address of the smallest record that holds `payloadBytes` (at most 2048 slots, which
// is 0x20000 - 12 bytes: larger records can't be read back).
ZEP_EXPORT void* ramboReserveSlots(RamboCB* area, Uint32 payloadBytes,
                                   RamboReservation* reservation);
// Stamps the record: it exists from here on.
ZEP_EXPORT void ramboSync(RamboCB* area, const RamboReservation* reservation);

// Switches auto dump of a chunked ring (ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED on others). Clearing it
// frees every writer that waits for the consumer.
ZEP_EXPORT Uint32 ramboAutoDumpEnabled(RamboCB* area, Uint8 flag);

// ---- dumps of a live ring

// Fills a dump header: type 1 if `instantaneous` is non-zero, else 2; the slots' address and
// size if asked for.
ZEP_EXPORT Uint32 ramboGetDumpHeaderBuffer(RamboCB* area, Uint8 instantaneous,
                                           RamboDumpHeader* header, void** slots, Uint32* size);
// Fills the first 21 bytes of a tail from one read of nextSequence.
ZEP_EXPORT Uint32 ramboGetDumpTail(RamboCB* area, RamboDumpTail* tail);
// For the consumer of a chunked ring.
ZEP_EXPORT Uint32 ramboInitializeChunkWalker(RamboCB* area, RamboChunkWalker* walker);

// ---- reading dumps; the file stands at the dump's header

// Checks header, size and tail (or whole slots); the file position stays where it was.
ZEP_EXPORT Uint32 ramboValidateDumpFile(ZEPHFile* file);
// Validates and opens a walk, forward (oldest first) or backward (newest first).
ZEP_EXPORT Uint32 ramboOpenDumpFileParser(ZEPHFile* file, RamboDumpParser* parser, Uint8 forward);
// The same, and for a forward walk over an auto dump it first looks for the file's first record:
// if its sequence isn't 0, the dump doesn't begin with the ring's first record and `wrapped` is
// set.
ZEP_EXPORT Uint32 ramboOpenDumpFileParserScan(ZEPHFile* file, RamboDumpParser* parser,
                                              Uint8 forward);
// The next record whose stamps agree: its payload bytes (0 at the end, or after an I/O error),
// the payload's file offset in `offset` and, if `buffer` is given, as much of the payload as
// `bufferSize` holds.
ZEP_EXPORT Uint32 ramboParseDumpFile(ZEPHFile* file, RamboDumpParser* parser, Uint64* offset,
                                     void* buffer, Uint32 bufferSize);
ZEP_EXPORT Uint32 ramboCloseDumpFileParser(RamboDumpParser* parser);
ZEP_EXPORT Uint32 ramboDidBufferWrap(RamboDumpParser* parser, Uint8* wrapped);
ZEP_EXPORT Uint32 ramboWasBufferTruncated(RamboDumpParser* parser, Uint8* truncated);

ZEP_END_C

#endif
