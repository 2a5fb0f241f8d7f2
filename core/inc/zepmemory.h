// zepmemory.h - the allocator: heap blocks with source positions, and offset-based areas.
//
// One pair of calls serves two kinds of memory. Without an area, _zepMemAlloc serves from the
// process heap, in blocks that carry a 16-byte header and the memory debugger's pads
// (zepmemdbg.h); in the default, idle mode the caller's address is the heap block plus 32. With
// an area, it serves from a region the caller prepared with zepMemAreaInit and that may lie in
// shared memory: a best-fit free list held in offsets, with its lock in the region, so processes
// that map the region at different addresses allocate from it together.
//
// The calls run outside the frame: no trace, and one log record only (a free of a null
// address). Results are ECF codes. Use the macros, which add the caller's position.
//
// Areas. The region holds ZEPMemArea at offset 0, then pieces of multiples of 12 bytes; a free
// piece starts with a ZEPMemAreaNode. The free list is sorted by descending size: an allocation
// takes the smallest piece that fits (of equal pieces the oldest), cut at its front, and a free
// merges with both neighbours in one pass. A block from an area has no header: give its size again
// to free it. Neither whether the region was initialised nor whether a freed block belongs to it
// is checked. The region must have at least 28 bytes; zepMemAreaInit takes no lock and may run
// only on a region nobody uses yet. Area blocks are 4-byte aligned (offsets 16 + 12k).
#ifndef ZEPMEMORY_H
#define ZEPMEMORY_H

#include <stddef.h>

#include "zeptypes.h"
#include "zeplatch.h"
#include "zepmemdbg.h"

// Flags of _zepMemAlloc; no other bit may be set.
#define ZEP_MEM_ZERO 0x1u  // clear the block
#define ZEP_MEM_MARK 0x2u  // mark the heap block: the eye-catcher's low bit

// The header in front of every heap block.
#define ZEP_MEM_EYECATCHER 0xA5C3D7E0u
#define ZEP_MEM_EYECATCHER_MARKED 0xA5C3D7E1u
#define ZEP_MEM_EYECATCHER_FREED 0xDEADD7EEu
#define ZEP_MEM_EYECATCHER_FLAGS 0xFu  // reserved for flags, masked off when tested

struct ZEPMemBlockHeader {
    Uint32 eyeCatcher;
    Uint32 size;      // as the caller asked
    Uint32 fileHash;  // of the base name of the caller's source file
    Uint32 line;
};

static_assert(sizeof(ZEPMemBlockHeader) == 16, "the block header is four words");
static_assert(offsetof(ZEPMemBlockHeader, size) == 4 &&
                  offsetof(ZEPMemBlockHeader, fileHash) == 8 &&
                  offsetof(ZEPMemBlockHeader, line) == 12,
              "the header's words in order");

// The head of an area, at its offset 0. Offsets count from the area's start.
struct ZEPMemArea {
    ZEPLock lock;  // in the first byte of the first word
    Uint8 lockWord[3];
    Uint32 reserved;  // 0
    Uint32 usable;    // bytes available for blocks, a multiple of 12
    Uint32 head;      // offset of the largest free piece, 0 if none
};

// A free piece of an area.
struct ZEPMemAreaNode {
    Uint32 next;  // offset of the next smaller (or equal) piece, 0 at the end
    Uint32 prev;  // offset of the previous piece, 0 at the head
    Uint32 size;  // of the piece, this node included; a multiple of 12
};

#define ZEP_MEM_AREA_HEAD_SIZE 16u
#define ZEP_MEM_AREA_GRANULE 12u

static_assert(sizeof(ZEPMemArea) == ZEP_MEM_AREA_HEAD_SIZE, "the area's head is four words");
static_assert(offsetof(ZEPMemArea, lock) == 0 && offsetof(ZEPMemArea, reserved) == 4 &&
                  offsetof(ZEPMemArea, usable) == 8 && offsetof(ZEPMemArea, head) == 12,
              "the area head's words in order");
static_assert(sizeof(ZEPMemAreaNode) == ZEP_MEM_AREA_GRANULE, "a node is the granule");
static_assert(offsetof(ZEPMemAreaNode, prev) == 4 && offsetof(ZEPMemAreaNode, size) == 8,
              "the node's words in order");

ZEP_BEGIN_C

// Stores the address in *result (null on failure). 0; ECF_INVALID_PARAMETER for a null result,
// a size of 0 or a flag above ZEP_MEM_MARK; ECF_NO_MEMORY when an area has no piece that large;
// for the heap, the code the error map gives for a failed malloc. `file` may be a whole path;
// its base name is what the block keeps. Flag ZEP_MEM_MARK, the debug modes, file and line have
// no effect on an area.
ZEP_EXPORT Uint32 _zepMemAlloc(void** result, void* area, Uint32 size, Uint32 flags, String file,
                               Uint32 line);

// Frees the block at *pointer. 0; ECF_INVALID_PARAMETER for a null pointer; ECF_MEM_NULL_POINTER,
// with a log record, for a null address. From the heap: the block is checked first (findings are
// reported, not returned), and *pointer is set to null. From an area: `size` is the size given at
// allocation, and *pointer stays as it was.
ZEP_EXPORT Uint32 _zepMemFree(void** pointer, void* area, Uint32 size, String file, Uint32 line);

// Prepares `size` bytes (at least 28) as an area with one free piece of
// ((size - 16) / 12) * 12 bytes. Always 0.
ZEP_EXPORT Uint32 zepMemAreaInit(void* area, Uint32 size);

ZEP_END_C

#define zepMemAlloc(result, area, size, flags) \
    _zepMemAlloc((void**)(result), (area), (size), (flags), __FILE__, __LINE__)
#define zepMemFree(pointer, area, size) \
    _zepMemFree((void**)(pointer), (area), (size), __FILE__, __LINE__)

#endif
