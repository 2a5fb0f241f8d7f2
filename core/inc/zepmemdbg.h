// zepmemdbg.h - the memory debugger built into the heap path of the allocator (zepmemory.h).
//
// It is steered by the environment variable ZEPEMEMDBG=<PATH>,<LEVEL>, read once when the library
// is loaded into a process. <LEVEL>, in any case: FULL or CORRUPTIONS (full mode, flags 0x0F),
// LEAKS or ALL (full mode, flags 0x2F, and a report of unfreed blocks at process end), LIGHT
// (light mode, flags 0x0B); front and back pads 2 and 2. A valid string appends its settings to
// "<PATH>/zepememdbg.log"; an invalid one replaces that file by the usage text and leaves the
// debugger in the default, idle mode. Without the variable the mode is idle too.
//
// Blocks. Every heap block has the 16-byte header of zepmemory.h directly in front of the
// caller's address; in every mode but 0 the word in front of the header is the block's own mode
// word, so each block is checked by the mode it was made in. Words are native Uint32; `rounded`
// is the caller's size rounded up to 8, and the bytes between size and rounded are filler, 0xCC,
// in light and full mode. From the start of the heap block:
//
//   mode 0   header | data[size]
//   idle     0, 0, size, ZEP_MEMDBG_IDLE | header | data[rounded]                (caller at +32)
//   light    pad, size, ZEP_MEMDBG_LIGHT | header | data[rounded] | the same 16 bytes again
//   full     pad x frontPads | ZEPMemDebugRecord | header | data[rounded] | pad x backPads |
//            size, ZEP_MEMDBG_FULL
//
// where a pad is the 8-byte unit 0x600DBEEF, 0xFEEDFACE. The record of full mode holds two
// pointers; on this build it is 64 bytes (8 of them reserved, so that the caller's address keeps
// the heap's 16-byte alignment), and full mode with two pads on each side costs 120 bytes a
// block, idle and light mode 32.
//
// Findings. A block is checked when it is freed and by _zepMemAllocCheck; each finding is a
// non-fatal assertion (zepassert.h) with the caller's file and line, appended to the finding
// thread's "<PATH>/p<pid>t<tid>.mem". The words of the findings, in the order they are made:
//   "NULL pointer for memory allocation address found at:"
//   "Freeing freed memory found at:"                       (freeing a block freed before)
//   "Invalid block eye-catcher (0x%X) found at:"
//   light: "Front memory pad corruption found at:", "Back memory pad corruption found at:" (once
//          per damaged filler byte, then once for a damaged back copy), "Memory pad size
//          corruption found at:"
//   full:  "Front pad corruption found at:" (per unit), "Back Uint8 memory pad corruption found
//          at:" (per filler byte), "Back pad corruption (0x%llX) found at:" (per unit), "Back
//          pad mode (0x%x)found at:", "Allocation size does not match between front and back pad
//          structures found at:"
//   "Freeing freed memory found at:"                       (the block's mode word says freed)
//   "Invalid pad type (0x%X) found at:"
// A damaged block is freed all the same, unless it was freed before or its mode word is unknown.
//
// Second frees. A freed block keeps its eye-catcher 0xDEADD7EE and the mode word
// ZEP_MEMDBG_FREED, and in every mode but 0 it is not given back to the heap at once: each
// thread holds its last ZEP_MEMDBG_QUARANTINE_BLOCKS freed blocks back (while they add up to no
// more than ZEP_MEMDBG_QUARANTINE_BYTES; the newest is always held, whatever its size) and lets
// the oldest go when a new one comes (an idle block of up to 1,024 bytes may then wait, still
// marked freed, for the thread's next idle block of its rounded size), and all of them when the
// thread ends. A second free of a block that is still held back (or waits), by any thread, is
// found without reading memory that the heap has reused or unmapped, and passes nothing to the
// heap. A second free after that reads memory that is no longer the block's, as on any heap; in
// mode 0 nothing is held back and a second free is the heap's.
//
// The live list and the reports. In full mode every live block's record is on a list, youngest
// first. zepMemAllocList walks it under the control block's lock, checks each block, and writes
// one line per block: with flag bit 5 (LEAKS, ALL) to "<PATH>/p<pid>t<tid>_leaks.mem" with a
// head and a legend, otherwise to "<PATH>/p<pid>t<tid>.mem" (or standard output). With no live
// block nothing is written. At process end zepTerminate writes the leak report when the level was
// LEAKS or ALL and a path is known. Setting g_bDumpMemAllocListFlag asks the next allocator call
// of any thread for a report.
//
// Everything here is private to the process: nothing of the debugger is shared.
#ifndef ZEPMEMDBG_H
#define ZEPMEMDBG_H

#include <stddef.h>

#include "zeptypes.h"
#include "zeplatch.h"

// Mode words: in the control block and in every block.
#define ZEP_MEMDBG_IDLE 0x1D1EC0DEu
#define ZEP_MEMDBG_LIGHT 0xE7AC011Au
#define ZEP_MEMDBG_FULL 0xA110CA7Eu
// Never a mode of the control block: written over a block's mode word when it is freed.
#define ZEP_MEMDBG_FREED 0xF4EEDA7Au

// Flags of the control block.
#define ZEP_MEMDBG_FILL_NEW 0x01u     // new blocks read 0xFF unless zeroing was asked for
#define ZEP_MEMDBG_FILL_FREED 0x02u   // the caller's bytes of a freed light or full block: 0xFF
#define ZEP_MEMDBG_LEAK_REPORT 0x20u  // the report at process end is a leak report

// The pad unit, and the filler behind the caller's bytes.
#define ZEP_MEMDBG_PAD_LOW 0x600DBEEFu
#define ZEP_MEMDBG_PAD_HIGH 0xFEEDFACEu
#define ZEP_MEMDBG_PAD 0xFEEDFACE600DBEEFull
#define ZEP_MEMDBG_FILLER 0xCCu

// Bounds of each thread's hold on freed blocks.
#define ZEP_MEMDBG_QUARANTINE_BLOCKS 64u
#define ZEP_MEMDBG_QUARANTINE_BYTES (1024u * 1024u)

// The record of a block in full mode, directly in front of its header.
struct ZEPMemDebugRecord {
    ZEPMemDebugRecord* next;  // next record on the list of live blocks
    ZEPMemDebugRecord* prev;  // previous record, null at the head
    Char file[20];            // base name of the source file, cut at 19 characters
    Uint32 size;              // the caller's size
    Uint32 line;
    Uint32 frontPads;  // this block's counts of 8-byte pads
    Uint32 backPads;
    Uint32 reserved[2];  // keeps the caller's address at the heap's alignment
    Uint32 mode;         // ZEP_MEMDBG_FULL, the word in front of the header
};

static_assert(sizeof(ZEPMemDebugRecord) == 64, "the record of full mode");
static_assert(offsetof(ZEPMemDebugRecord, prev) == 8 && offsetof(ZEPMemDebugRecord, file) == 16 &&
                  offsetof(ZEPMemDebugRecord, size) == 36 &&
                  offsetof(ZEPMemDebugRecord, line) == 40 &&
                  offsetof(ZEPMemDebugRecord, frontPads) == 44 &&
                  offsetof(ZEPMemDebugRecord, backPads) == 48 &&
                  offsetof(ZEPMemDebugRecord, reserved) == 52 &&
                  offsetof(ZEPMemDebugRecord, mode) == 60,
              "the record's fields in order, the mode word last");

// The debugger's control block: one per process, all zero at load.
//
// The lock guards the settings, the list and the reports. The settings change under the lock
// alone, and each change makes `sequence` odd while it is under way; an allocation reads the
// four settings as one snapshot by the sequence, without the lock, so that the heap path costs
// no locked instruction. Mode 0 still can't be entered or left once a block exists: the first
// allocation publishes `allocated` by a locked exchange before it reads the settings, and a
// change makes the sequence odd by a locked add before it reads `allocated`, so one of the two
// always sees the other.
struct ZEPMemDebugCB {
    Uint32 flags;
    Uint32 mode;
    Uint32 allocated;  // set at the first heap allocation, never cleared
    Uint32 frontPads;  // pads of new blocks in full mode
    Uint32 backPads;
    ZEPMemDebugRecord* head;  // the youngest live block in full mode
    ZEPLock lock;
    Uint32 sequence;  // odd while the settings change
};

ZEP_BEGIN_C

// Directory into which memory reports go; empty while memory debugging is off.
ZEP_EXPORT extern Char g_szMemDebugLogPath[ZEP_MAX_PATH];
// Set once the debugger's mode asks for an allocation report at process end.
ZEP_EXPORT extern Bool g_bIsMemoryFFDCEnabledFlag;
// Any holder may set it to request a report of live blocks; the allocator clears it.
ZEP_EXPORT extern Bool g_bDumpMemAllocListFlag;
// The debugger's control block once full mode is in force, null otherwise.
ZEP_EXPORT extern ZEPMemDebugCB* g_pMemDebugCB;

// The start-up step: clears the control block and reads ZEPEMEMDBG. The library runs it when it
// is loaded; running it again forgets every live block of full mode.
ZEP_EXPORT void zepMemOneTimeOnly(void);

// Stores flags, mode word and pad counts. Once a heap block exists, mode 0 can no longer be
// entered or left: such a change stores flags and pads, keeps the mode and returns
// ECF_MEM_CANNOT_TOGGLE_MEM_DEBUG_AFTER_ALLOC. A mode word other than 0, idle, light and full is
// refused with ECF_INVALID_PARAMETER and nothing is stored. Changes among the other modes are
// allowed at any time: each block goes by its own mode word.
ZEP_EXPORT Uint32 zepMemSetDebug(Uint32 flags, Uint32 mode, Uint32 frontPads, Uint32 backPads);

// Checks the block whose address *pointer holds, reporting what it finds. Returns the block's
// size, 0 for a block that can't be checked (a null address, a freed block, an unknown mode
// word), 0xFFFFFFFF in mode 0. With `freeing` 1 it also marks the block freed, takes it off the
// live list and replaces *pointer by the address to give back to the heap (null if none).
// Only for addresses the heap path of _zepMemAlloc gave.
ZEP_EXPORT Uint32 _zepMemAllocCheck(void** pointer, String file, Uint32 line, Uint32 freeing);

// The report of live blocks (full mode only); always 0.
ZEP_EXPORT Uint32 zepMemAllocList(Bool withFile);
ZEP_EXPORT Uint32 _zepMemAllocList(String file, Uint32 line, Bool withFile);

ZEP_EXPORT void zepMemSetMemFFDCEnabledFlag(void);
// True if the report at process end is asked for and the report directory is known.
ZEP_EXPORT Bool zepMemIsMemFFDCAndZEPeMemDebugPathSet(void);

ZEP_END_C

#define zepMemAllocCheck(pointer, freeing) \
    _zepMemAllocCheck((void**)(pointer), __FILE__, __LINE__, (freeing))

#ifdef ZEP_BUILDING_LIBRARY
// The control block itself, for the allocator's heap path.
extern ZEPMemDebugCB g_zepMemDebugCB;

// The check of _zepMemAllocCheck; `modeZero` tells the heap path that the debugger is off and the
// block starts 16 bytes in front of the address.
Uint32 zepMemCheckBlock(void** pointer, String file, Uint32 line, bool freeing, bool* modeZero);
#endif

#endif
