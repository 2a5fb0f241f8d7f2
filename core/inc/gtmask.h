// gtmask.h - the trace masks: which trace points of the whole product are recorded.
//
// A trace point is named by its function identifier (product, component, class, function number),
// its record type and its probe. GTM_TRC_MASK, the full mask, is a tree of bitmaps (products,
// then one row per component with its record types and its 4,096 function bits) beside a small
// hash table of single probes, which can add a probe to a function whose types are off or take
// one out (an excluding entry) of a function whose types are on. GTMask, the compact mask, is a
// flat projection with one bitmap per level: cheaper to test, and it passes at least everything
// the full mask passes.
//
// Both live inside the trace options, in shared memory and in every dump, so they are formats:
// plain bytes, no pointers, and a byte copy of a mask is a working mask. A control program builds
// a mask in its own memory (single-threaded) and hands it over with gtraceSetOptions; trace
// points only read.
//
// A bitmap is an array of bytes: bit n is bit (n AND 7) of byte n / 8, least significant first.
#ifndef GTMASK_H
#define GTMASK_H

#include <stddef.h>

#include "zeptypes.h"

// The argument that stands for "all" at any level.
#define GTM_WILDCARD 0xFFFFFFFFu
// gtmSetMask/gtmDelMask flags: the fourth argument is a probe (one entry of the probe table),
// not a record type.
#define GTM_FLAG_PROBE 0x1u
// entryValue bit: the probe is excluded from a function whose types are on.
#define GTM_VALUE_EXCLUDE 0x2u

#define GTM_ROW_COUNT 257u  // rows 1..256; row 0 has no owner
#define GTM_FUNCTION_BITS 4096u
#define GTM_PROBE_ENTRIES 2000u  // entry 0 is never used: 1,999 fit
#define GTM_PROBE_BUCKETS 1024u

// Each product owns a fixed range of rows; a component's row is the first row + its index.
#define GTM_FIRST_ROW_PRODUCT1 1u
#define GTM_FIRST_ROW_PRODUCT2 33u
#define GTM_FIRST_ROW_PRODUCT3 65u

// The compact mask (552 bytes).
struct GTMask {
    Uint8 types[2];        // bit t: record type t
    Uint8 products[4];     // bit p: product p
    Uint8 components[32];  // bit c: component index c, whatever the product
    Uint8 functions[512];  // bit f: function number f, whatever the component
    Uint8 classes[2];      // bit k: class k (only the first byte is ever set)
};

static_assert(sizeof(GTMask) == 552, "the compact mask is 552 bytes");
static_assert(offsetof(GTMask, types) == 0 && offsetof(GTMask, products) == 2 &&
                  offsetof(GTMask, components) == 6 && offsetof(GTMask, functions) == 38 &&
                  offsetof(GTMask, classes) == 550,
              "compact mask fields at their offsets");

// One component's row of the full mask (514 bytes).
struct GTMRow {
    Uint8 typeBits[2];        // bit t: record type t is on for every function of the row that is on
    Uint8 functionBits[512];  // bit f: function number f is on
};

static_assert(sizeof(GTMRow) == 514 && offsetof(GTMRow, functionBits) == 2, "a row is 514 bytes");

// One entry of the probe table (24 bytes).
struct GTMProbeEntry {
    Uint32 key;  // product << 27 | component << 19 | function: the identifier without its class
    Uint32 unused;
    Uint64 entryValue;  // the caller's; GTM_VALUE_EXCLUDE marks an excluding entry
    Uint16 probe;
    Uint16 next;  // next entry of the hash chain or of the free list; 0 ends it
    Uint8 pad[4];
};

static_assert(sizeof(GTMProbeEntry) == 24, "a probe entry is 24 bytes");
static_assert(offsetof(GTMProbeEntry, key) == 0 && offsetof(GTMProbeEntry, entryValue) == 8 &&
                  offsetof(GTMProbeEntry, probe) == 16 && offsetof(GTMProbeEntry, next) == 18,
              "probe entry fields at their offsets");

// The probe table (50,072 bytes). A key hashes to (key AND 0x3FF) + 1, whose chain head is
// buckets[hash - 1].
struct GTMProbeTable {
    GTMProbeEntry entries[GTM_PROBE_ENTRIES];
    Uint16 freeHead;  // first free entry; 0: the table is full
    Uint16 buckets[GTM_PROBE_BUCKETS];
    Uint8 pad[6];
    Uint64 entryCount;    // entries in use
    Uint64 excludeCount;  // of those, the excluding ones
};

static_assert(sizeof(GTMProbeTable) == 50072, "the probe table is 50,072 bytes");
static_assert(offsetof(GTMProbeTable, freeHead) == 48000 &&
                  offsetof(GTMProbeTable, buckets) == 48002 &&
                  offsetof(GTMProbeTable, entryCount) == 50056 &&
                  offsetof(GTMProbeTable, excludeCount) == 50064,
              "probe table fields at their offsets");

// The full mask (182,208 bytes). Product, component and function counts come from the catalogue;
// indexes begin at 1. Rows or functions beyond the bitmaps (row 257 or more, function 4096 or
// more) are skipped silently.
//
// The bit of row 256 in componentBits falls into the first byte behind that bitmap, which is row
// 0's typeBits; row 0 has no owner, so nothing reads it there.
class ZEP_EXPORT GTM_TRC_MASK {
public:
    Uint8 productBits[4];     // bit p: product p has something on
    Uint8 componentBits[32];  // bit r: row r has something on
    GTMRow rows[GTM_ROW_COUNT];
    Uint8 pad[2];
    GTMProbeTable probes;

    // Prepares the probe table and leaves the bitmaps as they are (a mask of zero bytes has no
    // free list, so it can't take probes until it is constructed or cleared).
    GTM_TRC_MASK();

    // Turns on what the arguments name, and every level above it. Without GTM_FLAG_PROBE the
    // fourth argument is a record type (below 16) or the wildcard; with it, a probe of one
    // function, added to the probe table with `value`. False only when the table is full (the
    // bitmaps above were set all the same).
    Bool gtmSetMask(Uint32 product, Uint32 component, Uint32 function, Uint32 typeOrProbe,
                    Uint32 flags, Uint64 value);
    // Turns off what the arguments name and leaves a mask that is true for what is left: levels
    // above lose their bits when nothing below them is on, and a probe that is on only by way of
    // its row's types gets an excluding entry.
    void gtmDelMask(Uint32 product, Uint32 component, Uint32 function, Uint32 typeOrProbe,
                    Uint32 flags);
    // Everything off and an empty probe table. Returns false.
    Bool gtmClearMask();
    // Adds the projection of this mask to `mask` (nothing is cleared first).
    void gtmReplicateMask(GTMask* mask) const;

    // The test a trace point makes. The class of the identifier plays no part.
    Bool gtmIsElemInMask(Uint32 functionId, Uint32 type, Uint32 probe) const;

    // Hands out the next used entry of the probe table: its key, value and probe. The walk's
    // cursor is one process-wide static without a reset, so a process walks the table once.
    // `key` must hold 0 at the first call.
    Bool gtmScanPointsHash(Uint32* key, Uint64* value, Uint16* probe) const;

    Bool gtmIsCompInMask(Uint32 product, Uint32 component) const;
    Bool gtmIsFuncInMask(Uint32 product, Uint32 component, Uint32 function) const;
    Bool gtmIsTypeInMask(Uint32 product, Uint32 component, Uint32 type) const;
    // All 32 product bits.
    Bool gtmIsProdMaskFull() const;
    // Every component of the product from index 1 up; true for a product of fewer than 2.
    Bool gtmIsCompMaskFull(Uint32 product) const;
    // All 4,096 function bits of the row.
    Bool gtmIsFuncMaskFull(Uint32 product, Uint32 component) const;
    // All 16 type bits of the row.
    Bool gtmIsTypeMaskFull(Uint32 product, Uint32 component) const;

private:
    void resetProbes();
};

static_assert(sizeof(GTM_TRC_MASK) == 182208, "the full mask is 182,208 bytes");
static_assert(offsetof(GTM_TRC_MASK, productBits) == 0 &&
                  offsetof(GTM_TRC_MASK, componentBits) == 4 &&
                  offsetof(GTM_TRC_MASK, rows) == 36 && offsetof(GTM_TRC_MASK, probes) == 132136,
              "full mask fields at their offsets");

#endif
