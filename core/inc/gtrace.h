// gtrace.h - the process-spanning trace.
//
// A trace area lies in memory shared by the processes that trace into it: a GTCB (control
// block: switch, options, filters, masks) followed directly by the record store, which is a
// rambo ring (rambo.h) in the ring modes and a table of per-function counters in counting mode.
// Control programs build the area with gtraceInitialize, processes attach to it with
// gtraceAttach, and from then on every trace point of the library writes one record.
//
// Every trace point tests g_pGTCB and the control block's enable word before it calls an
// emission operation; nothing is computed before that test. The emission operations don't test
// again: they read g_pGTCB without a null test, decide by the options whether the point is
// recorded, and write it. They return nothing and cannot fail.
//
// A trace dump ("GTDUMP1") is the header buffer of gtraceGetDumpHeaderBuffer (eye-catcher, a copy
// of the options, the dumping process's tick factor, the rambo dump header), then the record
// store's bytes, then the tail of gtraceGetDumpTail. The library writes no dump; the dumping
// program writes these pieces and a tool reads the file back with the parser here.
//
// All layouts below are formats (shared memory and dump files): little-endian, fixed offsets.
#ifndef GTRACE_H
#define GTRACE_H

#include <stdarg.h>
#include <stddef.h>

#include "zeptypes.h"
#include "gtmask.h"
#include "rambo.h"
#include "zephfile.h"
#include "zeptime.h"

// ---- modeBits: the kind of record store, fixed at gtraceInitialize. With several bits set the
// store is chosen in this order: counting, chunked, wrapping, stopping or delaying.
#define GTRACE_MODE_WRAP 0x01u      // rambo mode 1: newest records survive
#define GTRACE_MODE_STOP 0x02u      // rambo mode 2: oldest records survive; full disables
#define GTRACE_MODE_CHUNKED 0x04u   // rambo mode 4: drained chunk by chunk, auto dump allowed
#define GTRACE_MODE_COUNTING 0x08u  // no records: per-function counters
#define GTRACE_MODE_DELAYING 0x10u  // no records: trace points sleep now and then

// ---- flags: may change at any time through gtraceSetOptions.
#define GTRACE_FLAG_TIMESTAMP 0x0002u     // records carry a performance-counter stamp
#define GTRACE_FLAG_COMPACT_MASK 0x0004u  // filter by `mask`
#define GTRACE_FLAG_SLOW_PATH1 0x0008u    // take the slow path, nothing more
#define GTRACE_FLAG_SLOW_PATH2 0x0010u
#define GTRACE_FLAG_FILTERS 0x0020u      // filter by `filters`
#define GTRACE_FLAG_STOP_COUNT 0x0040u   // count stop events, disable at stopCount
#define GTRACE_FLAG_STOP_ON_RC 0x0080u   // an exit with stopReturnCode is a stop event
#define GTRACE_FLAG_CALLBACK 0x0100u     // call the trace callback after each record
#define GTRACE_FLAG_COUNTING 0x0200u     // set by the library in counting mode
#define GTRACE_FLAG_COUNT_TIME 0x0400u   // counting mode measures time per function
#define GTRACE_FLAG_DELAYING 0x0800u     // set by the library in delaying mode
#define GTRACE_FLAG_FULL_MASK 0x2000u    // filter by `traceMask` (unless the compact mask is on)
#define GTRACE_FLAG_ERRORS_ONLY 0x4000u  // only types 2, 4, 5, 11, 13; exits with rc != 0
// A trace point with none of these set needs no test beyond this one.
#define GTRACE_FLAGS_GATE 0x6A3Eu

// ---- filterBits of a filter entry
#define GTRACE_FILTER_IN_USE 0x1u
#define GTRACE_FILTER_THREAD 0x2u  // the thread must match too
#define GTRACE_MAX_FILTERS 5u

// ---- record types
#define GTRACE_TYPE_ENTRY 1u
#define GTRACE_TYPE_EXIT 2u
#define GTRACE_TYPE_DATA 3u
#define GTRACE_TYPE_ERROR 4u
#define GTRACE_TYPE_ERROR_OP 5u  // a stop event when _gtraceError or _gtraceErrorVar writes it
#define GTRACE_TYPE_CORRELATOR 12u
#define GTRACE_TYPE_ERROR_TRANS 13u

// ---- item kinds of the Var forms
#define GTRACE_ITEM_ADDRESS 0u  // the library's own: the data word is an address
#define GTRACE_ITEM_VALUE1 1u   // the data word is the value itself
#define GTRACE_ITEM_VALUE2 2u
#define GTRACE_ITEM_CUT 4u            // an item cut short to keep the record within 0xFFFF bytes
#define GTRACE_ITEM_NULL 0xFFFFFFFFu  // itemLength of a null data address: no bytes follow

// recordFlags of a marker whose marker word has bit 16 set.
#define GTRACE_RECORD_FLAG_MARKER 0x2u

#define GTRACE_DUMP_EYE_CATCHER "GTDUMP1"
#define GTRACE_DUMP_KIND_RAMBO 1u
#define GTRACE_DUMP_KIND_COUNTING 2u

// A process and thread filter (16 bytes).
struct GTFilter {
    Uint32 filterBits;  // GTRACE_FILTER_IN_USE, GTRACE_FILTER_THREAD
    Uint32 processID;   // compared with the process identifier of gtraceSetProcessID
    Uint64 threadID;    // compared with the trace point's thread identifier
};

static_assert(sizeof(GTFilter) == 16 && offsetof(GTFilter, processID) == 4 &&
                  offsetof(GTFilter, threadID) == 8,
              "a filter entry is 16 bytes");

// The options (182,880 bytes); they also go into every dump.
struct GTCBOptions {
    Uint32 bufferSize;          // bytes of the record store
    Uint32 modeBits;            // GTRACE_MODE_*
    Uint32 dumpScanTrigger[2];  // non-zero: scan auto dumps at opening (gtraceOpenDumpFileParser)
    Uint32 flags;               // GTRACE_FLAG_*
    Uint32 reserved[2];         // kept and copied; the control programs' business
    Uint32 stopCount;           // eventCount at which the trace disables itself
    Uint32 stopReturnCode;      // the exit code that is a stop event; delaying mode: the interval
    Uint32 filterCount;         // used entries of `filters` (at most 5; not tested)
    GTFilter filters[GTRACE_MAX_FILTERS];
    GTMask mask;             // the compact mask
    GTM_TRC_MASK traceMask;  // the full mask

    // All zero, padding included (the options go into shared memory and every dump byte for
    // byte), with both masks empty and ready: a control program sets what it wants.
    GTCBOptions() {
        __builtin_memset(static_cast<void*>(this), 0, sizeof *this);
        traceMask.gtmClearMask();
    }
};

static_assert(sizeof(GTCBOptions) == 182880, "the options are 182,880 bytes");
static_assert(offsetof(GTCBOptions, bufferSize) == 0 && offsetof(GTCBOptions, modeBits) == 4 &&
                  offsetof(GTCBOptions, dumpScanTrigger) == 8 &&
                  offsetof(GTCBOptions, flags) == 16 && offsetof(GTCBOptions, reserved) == 20 &&
                  offsetof(GTCBOptions, stopCount) == 28 &&
                  offsetof(GTCBOptions, stopReturnCode) == 32 &&
                  offsetof(GTCBOptions, filterCount) == 36 &&
                  offsetof(GTCBOptions, filters) == 40 && offsetof(GTCBOptions, mask) == 120 &&
                  offsetof(GTCBOptions, traceMask) == 672,
              "option fields at their offsets");

// The control block (182,896 bytes) at the head of a trace area; the record store follows it.
struct GTCB {
    Uint32 initialized;  // 1 once gtraceInitialize has finished
    Uint32 enabled;      // the enable word every trace point tests
    Uint32 eventCount;   // atomic. Ring modes: stop events, from 1. Counting: entries not counted
    Uint32 reserved;     // 0
    GTCBOptions options;
};

static_assert(sizeof(GTCB) == 182896, "the control block is 182,896 bytes");
static_assert(offsetof(GTCB, initialized) == 0 && offsetof(GTCB, enabled) == 4 &&
                  offsetof(GTCB, eventCount) == 8 && offsetof(GTCB, options) == 16,
              "control block fields at their offsets");

// A trace record: the payload of a rambo record. One-slot records (52 bytes) end before
// itemCount. Fields an operation doesn't write keep what the slot held: go by recordType.
struct GTRecord {
    Uint64 time;  // performance counter with GTRACE_FLAG_TIMESTAMP, else 0
    Uint64 threadID;
    Uint32 processID;  // of gtraceAttach or gtraceSetProcessID
    Uint32 functionID;
    Uint32 fixedData1;
    Uint32 fixedData2;
    Uint16 recordType;
    Uint16 recordFlags;
    Uint16 probe;
    Uint16 dataLength;  // bytes of the variable part
    Uint32 word1;
    Uint32 word2;
    Uint32 returnCode;
    Uint32 itemCount;
    // Offset 56: the variable part (descriptors, then the items' bytes), or two more words in
    // the error forms with a return code and the transition form.
};

static_assert(sizeof(GTRecord) == 56, "a trace record's fixed part is 56 bytes");
static_assert(offsetof(GTRecord, time) == 0 && offsetof(GTRecord, threadID) == 8 &&
                  offsetof(GTRecord, processID) == 16 && offsetof(GTRecord, functionID) == 20 &&
                  offsetof(GTRecord, fixedData1) == 24 && offsetof(GTRecord, fixedData2) == 28 &&
                  offsetof(GTRecord, recordType) == 32 && offsetof(GTRecord, recordFlags) == 34 &&
                  offsetof(GTRecord, probe) == 36 && offsetof(GTRecord, dataLength) == 38 &&
                  offsetof(GTRecord, word1) == 40 && offsetof(GTRecord, word2) == 44 &&
                  offsetof(GTRecord, returnCode) == 48 && offsetof(GTRecord, itemCount) == 52,
              "record fields at their offsets");

// One descriptor of the variable part; the items' bytes follow all descriptors back to back.
struct GTItemDescriptor {
    Uint32 itemKind;    // GTRACE_ITEM_*
    Uint32 itemLength;  // GTRACE_ITEM_NULL for a null address
};

static_assert(sizeof(GTItemDescriptor) == 8, "a descriptor is 8 bytes");

// An entry of the counting table (16 bytes); the table is bufferSize / 16 entries.
struct GTCountEntry {
    Uint32 count;       // times the function was entered
    Uint32 functionID;  // 0: free
    Uint64 totalTime;   // ticks spent in the function (GTRACE_FLAG_COUNT_TIME)
};

static_assert(sizeof(GTCountEntry) == 16 && offsetof(GTCountEntry, functionID) == 4 &&
                  offsetof(GTCountEntry, totalTime) == 8,
              "a counting entry is 16 bytes");

// The header of a trace dump (182,920 bytes), as gtraceGetDumpHeaderBuffer fills it. The trace's
// own part, which the dump reader reads, is the first 182,904 bytes; the rambo reader takes over
// at `rambo`. Counting dumps leave `rambo` unwritten.
struct GTDumpHeader {
    Char eyeCatcher[8];  // "GTDUMP1"
    GTCBOptions options;
    ZEPTickConversionFactor tickFactor;
    RamboDumpHeader rambo;
};

#define GTRACE_DUMP_TRACE_HEADER_SIZE 182904u

static_assert(sizeof(GTDumpHeader) == 182920, "a dump header buffer is 182,920 bytes");
static_assert(offsetof(GTDumpHeader, options) == 8 &&
                  offsetof(GTDumpHeader, tickFactor) == 182888 &&
                  offsetof(GTDumpHeader, rambo) == GTRACE_DUMP_TRACE_HEADER_SIZE,
              "dump header pieces at their offsets");

// The walker over a counting dump.
struct GTCountParser {
    Uint64 startPosition;  // the file position at opening
    Uint8* buffer;         // 16 KiB read buffer
    Uint8* cursor;         // next entry in the buffer
    Uint32 consumed;       // bytes of the buffer used
    Uint32 bytesRead;      // bytes the last read gave
    Uint8 open;
    Uint32 entryCount;   // bufferSize / 16
    Uint32 entriesSeen;  // entries looked at
    Uint8 endOfFile;     // a read has reached the end of the file
};

#define GTRACE_COUNT_READ_SIZE 0x4000u

// The state of one walk over a trace dump, in memory the caller provides.
struct GTDumpParser {
    Uint32 kind;  // GTRACE_DUMP_KIND_RAMBO or GTRACE_DUMP_KIND_COUNTING
    Uint32 reserved;
    union {
        RamboDumpParser rambo;
        GTCountParser count;
    };
};

static_assert(offsetof(GTDumpParser, rambo) == 8 && offsetof(GTDumpParser, count) == 8,
              "the walker's state begins at the third word");

// Called after a record when GTRACE_FLAG_CALLBACK is set, on the trace point's thread: the record
// type, the function, the probe, the caller's return-code address (exits) or null, the items kept
// and the address of a copy of the argument list at the first item (Var forms) or null.
typedef void (*GTraceCallback)(Uint32 type, Uint32 functionId, Uint16 probe, const Uint32* rc,
                               Uint32 itemCount, va_list* items);
// Called without arguments at each disable, also by a full stopping ring.
typedef void (*GTraceDisableCallback)(void);

ZEP_BEGIN_C

// The control block this process is attached to, or null.
ZEP_EXPORT extern GTCB* g_pGTCB;

// ---- control. All but gtraceGetAllocSize, gtraceInitialize, gtraceAttach, gtraceDetach and the
// setters fail first with ECF_GTRACE_NOT_ATTACHED, then with ECF_GTRACE_NOT_INITIALIZED, then
// with ECF_INVALID_PARAMETER for a null argument.

// Bytes of a trace area with `size` bytes of ring: ramboGetAllocSize(size) + the block; 0 if the
// ring size isn't allowed.
ZEP_EXPORT Uint32 gtraceGetAllocSize(Uint32 size);
// Builds the block and its store in `area`; the trace starts disabled. A counting table may
// have any size from 0x80000 to 0x40000000; a ring's must be a power of two.
ZEP_EXPORT Uint32 gtraceInitialize(GTCB* area, const GTCBOptions* options);
// Makes `block` this process's trace, with the identifier its records carry and the callbacks.
ZEP_EXPORT Uint32 gtraceAttach(GTCB* block, Uint32 processId, GTraceCallback callback,
                               GTraceDisableCallback disableCallback);
// Forgets the block and the callbacks; the identifier and the fixed data stay.
ZEP_EXPORT Uint32 gtraceDetach(void);
ZEP_EXPORT Uint32 gtraceEnable(void);
// Also calls the disable callback, each time.
ZEP_EXPORT Uint32 gtraceDisable(void);
ZEP_EXPORT Uint32 gtraceGetOptions(GTCBOptions* options);
ZEP_EXPORT Uint32 gtraceGetOptionsPtr(GTCBOptions** options);
// Copies the options from `flags` on: bufferSize, modeBits and dumpScanTrigger can't change. In
// counting mode the time flags are cleared in the caller's structure first.
ZEP_EXPORT Uint32 gtraceSetOptions(GTCBOptions* options);
// Counting mode: zeroes the table. Ring modes: ramboNewSequence.
ZEP_EXPORT Uint32 gtraceClear(void);
ZEP_EXPORT void gtraceSetProcessID(Uint32 processId);
ZEP_EXPORT void gtraceSetFixedData1(Uint32 value);
ZEP_EXPORT void gtraceSetFixedData2(Uint32 value);

// ---- dump pieces. Write the header buffer, then the `size` bytes at `store`, then (for an
// instantaneous dump of a ring) the tail.
ZEP_EXPORT Uint32 gtraceGetDumpHeaderBuffer(Uint8 instantaneous, GTDumpHeader* header, void** store,
                                            Uint32* size);
// Counting mode: 0, and the tail is left alone.
ZEP_EXPORT Uint32 gtraceGetDumpTail(RamboDumpTail* tail);
ZEP_EXPORT Uint32 gtraceAutoDumpEnabled(Uint8 flag);
ZEP_EXPORT Uint32 gtraceInitializeChunkWalker(RamboChunkWalker* walker);

// ---- reading dumps; no block needed. The file stands at the dump's first byte.

// Checks the trace header and the ring's; the file position stays. `expectedKind` 0 takes any.
ZEP_EXPORT Uint32 gtraceValidateDumpFile(ZEPHFile* file, Uint32 expectedKind);
ZEP_EXPORT Uint32 gtraceOpenDumpFileParser(ZEPHFile* file, GTDumpParser* parser, Uint8 forward);
// The next record (a ring dump: its payload, a GTRecord; a counting dump: a GTCountEntry in use,
// forward only): its size, 0 at the end.
ZEP_EXPORT Uint32 gtraceParseRecords(ZEPHFile* file, GTDumpParser* parser, Uint64* offset,
                                     void* buffer, Uint32 bufferSize);
ZEP_EXPORT Uint32 gtraceCloseDumpFileParser(GTDumpParser* parser);

// ---- emission. T is the caller's thread identifier, F the function identifier. A Var item is
// three arguments: Uint32 kind, Uint32 length, and a pointer-sized data word: an address for the
// library's kind 0 (null allowed), the value itself for kinds 1 and 2 (pass it as uintptr_t).
ZEP_EXPORT void _gtraceEntry(Uint64 threadId, Uint32 functionId);
ZEP_EXPORT void _gtraceExit(Uint64 threadId, Uint32 functionId, const Uint32* rc, Uint32 word1,
                            Uint32 word2);
// The record type is the marker word's low 16 bits; bit 16 sets GTRACE_RECORD_FLAG_MARKER.
ZEP_EXPORT void _gtraceMarker(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 marker);
ZEP_EXPORT void _gtraceError(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                             Uint32 word1, Uint32 word2);
ZEP_EXPORT void _gtraceErrorRc(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                               Uint32 word1, Uint32 word2, Uint32 rc, Uint32 word3, Uint32 word4);
ZEP_EXPORT void _gtraceErrorTrans(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 word1,
                                  Uint32 word2, Uint32 word3, Uint32 word4);
ZEP_EXPORT void _gtraceEntryVar(Uint64 threadId, Uint32 functionId, Uint32 itemCount, ...);
ZEP_EXPORT void _gtraceExitVar(Uint64 threadId, Uint32 functionId, const Uint32* rc, Uint32 word1,
                               Uint32 word2, Uint32 itemCount, ...);
ZEP_EXPORT void _gtraceMarkerVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 marker,
                                 Uint32 itemCount, ...);
ZEP_EXPORT void _gtraceVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                           Uint32 itemCount, ...);
ZEP_EXPORT void _gtraceErrorVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                                Uint32 word1, Uint32 word2, Uint32 itemCount, ...);
ZEP_EXPORT void _gtraceErrorRcVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type,
                                  Uint32 word1, Uint32 word2, Uint32 rc, Uint32 word3, Uint32 word4,
                                  Uint32 itemCount, ...);
// The return code is the value itself here.
ZEP_EXPORT void _gtraceCorrelatorVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 rc,
                                     Uint32 word1, Uint32 word2, Uint32 itemCount, ...);

ZEP_END_C

#endif
