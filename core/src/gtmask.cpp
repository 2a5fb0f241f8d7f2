// gtmask.cpp - the full and the compact trace mask.
//
// Setting at one level always sets the levels above it, so that the test can walk down from the
// product. Deleting has to leave a mask that is still true for everything left on, which is why
// it is more than the mirror of setting: a row keeps its function bits while the probe table
// holds a probe of it, and a probe taken out of a function that is on by its row's types becomes
// an excluding entry.
#include "gtmask.h"

#include <string.h>

#include "zepecf.h"

namespace {

// The record types a probe stands for (data, error, error-operation, 11 and 13); only these are
// looked up in the table for exclusions.
constexpr Uint32 kProbeClassTypes = (1u << 3) | (1u << 4) | (1u << 5) | (1u << 11) | (1u << 13);
// The types the caller chooses freely (6 to 10).
constexpr Uint32 kReplicateClassTypes = 0x7C0u;
constexpr Uint32 kInvalidRow = GTM_ROW_COUNT;

inline bool testBit(const Uint8* bits, Uint32 n) {
    return (bits[n >> 3] >> (n & 7)) & 1u;
}
inline void setBit(Uint8* bits, Uint32 n) {
    bits[n >> 3] |= static_cast<Uint8>(1u << (n & 7));
}
inline void clearBit(Uint8* bits, Uint32 n) {
    bits[n >> 3] &= static_cast<Uint8>(~(1u << (n & 7)));
}

inline bool isProbeClass(Uint32 type) {
    return type < 16 && ((kProbeClassTypes >> type) & 1u);
}

Uint32 firstRow(Uint32 product) {
    switch (product) {
        case 1:
            return GTM_FIRST_ROW_PRODUCT1;
        case 2:
            return GTM_FIRST_ROW_PRODUCT2;
        case 3:
            return GTM_FIRST_ROW_PRODUCT3;
        default:
            return kInvalidRow;
    }
}

Uint32 rowCountOf(Uint32 product) {
    switch (product) {
        case 1:
        case 2:
            return 32;
        case 3:
            return 192;
        default:
            return 0;
    }
}

// The row of a component; kInvalidRow (or more) for one the bitmaps don't hold.
Uint32 rowOf(Uint32 product, Uint32 component) {
    Uint32 first = firstRow(product);
    if (first == kInvalidRow || component >= GTM_ROW_COUNT) return kInvalidRow;
    return first + component;
}

inline Uint32 keyOf(Uint32 product, Uint32 component, Uint32 function) {
    return (product << 27) | (component << 19) | function;
}

// A key without its function number: what all entries of one row share.
inline Uint32 rowKeyOf(Uint32 key) {
    return key >> 19;
}

inline Uint32 bucketOf(Uint32 key) {
    return key & 0x3FFu;
}  // hash value - 1

// Components of a product by the catalogue, slot 0 excluded.
Uint32 lastComponent(Uint32 product) {
    Uint32 n = ecfGetNumComponents(product);
    return n == 0 ? 0 : n - 1;
}

Uint32 lastFunction(Uint32 product, Uint32 component) {
    Uint32 n = ecfGetNumFunctions(product, component);
    if (n == 0) return 0;
    return n - 1 < GTM_FUNCTION_BITS ? n - 1 : GTM_FUNCTION_BITS - 1;
}

void setTypes(GTMRow& row, Uint32 type) {
    if (type == GTM_WILDCARD) {
        row.typeBits[0] = row.typeBits[1] = 0xFF;
    } else if (type < 16) {
        setBit(row.typeBits, type);
    }
}

bool allZero(const Uint8* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

bool allOnes(const Uint8* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (bytes[i] != 0xFF) return false;
    return true;
}

// A function bit among 1..4095 other than `function`.
bool hasOtherFunctions(const GTMRow& row, Uint32 function) {
    for (Uint32 i = 0; i < sizeof(row.functionBits); ++i) {
        Uint8 b = row.functionBits[i];
        if (i == 0) b &= 0xFE;
        if (i == (function >> 3)) b &= static_cast<Uint8>(~(1u << (function & 7)));
        if (b != 0) return true;
    }
    return false;
}

// ---- the probe table
//
// The table lives in shared memory and comes back from dump files: every index read from it is
// bounded by the table, and every chain walk by the number of entries, so that a damaged table
// (a loop, an index beyond the end) ends a walk instead of hanging it or reaching outside.

// An index that names an entry: 0 ends a chain, and anything beyond the table ends it too.
inline bool isEntry(Uint32 i) {
    return i != 0 && i < GTM_PROBE_ENTRIES;
}

Uint16 findEntry(const GTMProbeTable& t, Uint32 key, Uint32 probe) {
    Uint32 steps = 0;
    for (Uint16 i = t.buckets[bucketOf(key)]; isEntry(i) && steps++ < GTM_PROBE_ENTRIES;
         i = t.entries[i].next)
        if (t.entries[i].key == key && t.entries[i].probe == probe) return i;
    return 0;
}

bool hasKey(const GTMProbeTable& t, Uint32 key) {
    Uint32 steps = 0;
    for (Uint16 i = t.buckets[bucketOf(key)]; isEntry(i) && steps++ < GTM_PROBE_ENTRIES;
         i = t.entries[i].next)
        if (t.entries[i].key == key) return true;
    return false;
}

bool addEntry(GTMProbeTable& t, Uint32 key, Uint32 probe, Uint64 value) {
    if (findEntry(t, key, probe) != 0) return true;  // kept as it is, old value and all
    Uint16 i = t.freeHead;
    if (!isEntry(i)) return false;
    GTMProbeEntry& e = t.entries[i];
    t.freeHead = e.next;
    e.key = key;
    e.entryValue = value;
    e.probe = static_cast<Uint16>(probe);
    e.next = t.buckets[bucketOf(key)];
    t.buckets[bucketOf(key)] = i;
    ++t.entryCount;
    if (value & GTM_VALUE_EXCLUDE) ++t.excludeCount;
    return true;
}

// Unlinks entry `i`, which `link` points to, and frees it.
void unlinkEntry(GTMProbeTable& t, Uint16* link, Uint16 i) {
    GTMProbeEntry& e = t.entries[i];
    *link = e.next;
    e.key = 0;
    e.probe = 0;
    e.next = t.freeHead;
    t.freeHead = i;
    --t.entryCount;
    if ((e.entryValue & GTM_VALUE_EXCLUDE) && t.excludeCount != 0) --t.excludeCount;
}

// Removes every entry of the bucket's chain that `match` accepts; true if any was removed.
template <class Match>
bool removeFromChain(GTMProbeTable& t, Uint32 bucket, Match match) {
    bool removed = false;
    Uint16* link = &t.buckets[bucket];
    for (Uint32 steps = 0; isEntry(*link) && steps < GTM_PROBE_ENTRIES; ++steps) {
        Uint16 i = *link;
        if (match(t.entries[i])) {
            unlinkEntry(t, link, i);
            removed = true;
        } else {
            link = &t.entries[i].next;
        }
    }
    return removed;
}

bool removeEntry(GTMProbeTable& t, Uint32 key, Uint32 probe) {
    return removeFromChain(
        t, bucketOf(key), [&](const GTMProbeEntry& e) { return e.key == key && e.probe == probe; });
}

void removeKey(GTMProbeTable& t, Uint32 key) {
    removeFromChain(t, bucketOf(key), [&](const GTMProbeEntry& e) { return e.key == key; });
}

// Every entry of any function of the row that `rowKey` names. The functions of a row spread
// over all buckets, so every chain is walked.
void removeRow(GTMProbeTable& t, Uint32 rowKey) {
    if (t.entryCount == 0) return;
    for (Uint32 b = 0; b < GTM_PROBE_BUCKETS; ++b)
        removeFromChain(
            t, b, [&](const GTMProbeEntry& e) { return e.key != 0 && rowKeyOf(e.key) == rowKey; });
}

bool rowHasEntries(const GTMProbeTable& t, Uint32 rowKey) {
    if (t.entryCount == 0) return false;
    for (Uint32 i = 1; i < GTM_PROBE_ENTRIES; ++i)
        if (t.entries[i].key != 0 && rowKeyOf(t.entries[i].key) == rowKey) return true;
    return false;
}

// The walk of gtmScanPointsHash: one cursor per process, never reset.
Uint32 s_scanCursor = 0;

}  // namespace

namespace {

// componentBits is addressed through the whole object, since the bit of row 256 lies in the
// byte behind the bitmap.
inline Uint8* componentBitsOf(GTM_TRC_MASK* mask) {
    return reinterpret_cast<Uint8*>(mask) + offsetof(GTM_TRC_MASK, componentBits);
}
inline const Uint8* componentBitsOf(const GTM_TRC_MASK* mask) {
    return reinterpret_cast<const Uint8*>(mask) + offsetof(GTM_TRC_MASK, componentBits);
}

}  // namespace

GTM_TRC_MASK::GTM_TRC_MASK() {
    resetProbes();
}

void GTM_TRC_MASK::resetProbes() {
    memset(probes.entries, 0, sizeof(probes.entries));
    memset(probes.buckets, 0, sizeof(probes.buckets));
    probes.entryCount = 0;
    probes.excludeCount = 0;
    for (Uint32 i = 1; i < GTM_PROBE_ENTRIES - 1; ++i)
        probes.entries[i].next = static_cast<Uint16>(i + 1);
    probes.freeHead = 1;
}

Bool GTM_TRC_MASK::gtmClearMask() {
    memset(productBits, 0, sizeof(productBits));
    memset(componentBits, 0, sizeof(componentBits));
    memset(rows, 0, sizeof(rows));
    resetProbes();
    return 0;
}

Bool GTM_TRC_MASK::gtmSetMask(Uint32 product, Uint32 component, Uint32 function, Uint32 typeOrProbe,
                              Uint32 flags, Uint64 value) {
    const bool probeFlag = (flags & GTM_FLAG_PROBE) != 0;
    Uint8* componentBitmap = componentBitsOf(this);

    if (product == GTM_WILDCARD) {
        if (probeFlag) return 1;
        memset(productBits, 0xFF, sizeof(productBits));
        memset(componentBits, 0xFF, sizeof(componentBits));
        for (Uint32 r = 1; r < GTM_ROW_COUNT; ++r) {
            memset(rows[r].functionBits, 0xFF, sizeof(rows[r].functionBits));
            setTypes(rows[r], typeOrProbe);
        }
        return 1;
    }

    if (product < 32) setBit(productBits, product);
    if (component == GTM_WILDCARD) {
        if (probeFlag) return 1;
        for (Uint32 c = 1; c <= lastComponent(product); ++c) {
            Uint32 r = rowOf(product, c);
            if (r >= GTM_ROW_COUNT) continue;
            setBit(componentBitmap, r);
            memset(rows[r].functionBits, 0xFF, sizeof(rows[r].functionBits));
            setTypes(rows[r], typeOrProbe);
        }
        return 1;
    }

    const Uint32 r = rowOf(product, component);
    const bool rowValid = r < GTM_ROW_COUNT;
    if (rowValid) setBit(componentBitmap, r);
    if (function == GTM_WILDCARD) {
        if (probeFlag) return 1;
        if (rowValid) {
            setTypes(rows[r], typeOrProbe);
            memset(rows[r].functionBits, 0xFF, sizeof(rows[r].functionBits));
        }
        return 1;
    }

    if (rowValid && function < GTM_FUNCTION_BITS) setBit(rows[r].functionBits, function);
    if (probeFlag) return addEntry(probes, keyOf(product, component, function), typeOrProbe, value);
    if (rowValid) setTypes(rows[r], typeOrProbe);
    return 1;
}

void GTM_TRC_MASK::gtmDelMask(Uint32 product, Uint32 component, Uint32 function, Uint32 typeOrProbe,
                              Uint32 flags) {
    const bool probeFlag = (flags & GTM_FLAG_PROBE) != 0;
    Uint8* componentBitmap = componentBitsOf(this);

    // Clears the product's bit once no row of its range is on.
    auto settleProduct = [&](Uint32 p) {
        Uint32 first = firstRow(p);
        if (first == kInvalidRow) return;
        for (Uint32 r = first; r < first + rowCountOf(p); ++r)
            if (testBit(componentBitmap, r)) return;
        if (p < 32) clearBit(productBits, p);
    };

    // A whole row, by one type or all (the function wildcard of a single component).
    auto deleteComponent = [&](Uint32 p, Uint32 c) {
        Uint32 r = rowOf(p, c);
        if (r >= GTM_ROW_COUNT) return;
        GTMRow& row = rows[r];
        // With the function wildcard the row has no "other" functions.
        if (typeOrProbe == GTM_WILDCARD) {
            row.typeBits[0] = row.typeBits[1] = 0;
            removeRow(probes, rowKeyOf(keyOf(p, c, 0)));
        } else if (typeOrProbe < 16) {
            clearBit(row.typeBits, typeOrProbe);
        }
        if (row.typeBits[0] == 0 && row.typeBits[1] == 0 &&
            !rowHasEntries(probes, rowKeyOf(keyOf(p, c, 0)))) {
            memset(row.functionBits, 0, sizeof(row.functionBits));
            clearBit(componentBitmap, r);
        }
    };

    // The component wildcard: every component of the product.
    auto deleteProduct = [&](Uint32 p) {
        for (Uint32 c = 1; c <= lastComponent(p); ++c) {
            deleteComponent(p, c);
            Uint32 r = rowOf(p, c);
            if (r < GTM_ROW_COUNT && allZero(rows[r].functionBits, sizeof(rows[r].functionBits)))
                clearBit(componentBitmap, r);
        }
        settleProduct(p);
    };

    if (product == GTM_WILDCARD) {
        if (probeFlag) return;
        for (Uint32 p = 1; p <= ecfGetNumProducts(); ++p) deleteProduct(p);
        return;
    }
    if (component == GTM_WILDCARD) {
        if (!probeFlag) deleteProduct(product);
        return;
    }
    if (function == GTM_WILDCARD) {
        if (!probeFlag) deleteComponent(product, component);
        return;
    }

    // A single function.
    const Uint32 r = rowOf(product, component);
    if (r >= GTM_ROW_COUNT || function >= GTM_FUNCTION_BITS) {
        // Nothing of it can be in the bitmaps; only the table may hold it: one probe, or with the
        // type wildcard all of them.
        const Uint32 key = keyOf(product, component, function);
        if (probeFlag)
            removeEntry(probes, key, typeOrProbe);
        else if (typeOrProbe == GTM_WILDCARD)
            removeKey(probes, key);
        return;
    }
    GTMRow& row = rows[r];
    const Uint32 key = keyOf(product, component, function);

    if (!probeFlag) {
        if (hasOtherFunctions(row, function)) {
            // A type belongs to the row and can't be taken from one function.
            if (typeOrProbe == GTM_WILDCARD) {
                removeKey(probes, key);
                clearBit(row.functionBits, function);
            }
        } else if (typeOrProbe == GTM_WILDCARD) {
            row.typeBits[0] = row.typeBits[1] = 0;
            removeRow(probes, rowKeyOf(key));
        } else if (typeOrProbe < 16) {
            clearBit(row.typeBits, typeOrProbe);
        }
    } else if (!removeEntry(probes, key, typeOrProbe)) {
        // The probe is on only by way of the row's types: exclude it.
        const Uint32 rowTypes = row.typeBits[0] | (static_cast<Uint32>(row.typeBits[1]) << 8);
        if (product < 32 && testBit(productBits, product) && testBit(componentBitmap, r) &&
            testBit(row.functionBits, function) && (rowTypes & kProbeClassTypes) != 0)
            (void)addEntry(probes, key, typeOrProbe, GTM_VALUE_EXCLUDE);
    }

    if (row.typeBits[0] == 0 && row.typeBits[1] == 0 &&
        (probes.entryCount == 0 || !hasKey(probes, key))) {
        clearBit(row.functionBits, function);
        if (allZero(row.functionBits, sizeof(row.functionBits))) {
            clearBit(componentBitmap, r);
            settleProduct(product);
        }
    }
}

Bool GTM_TRC_MASK::gtmIsElemInMask(Uint32 functionId, Uint32 type, Uint32 probe) const {
    const Uint32 product = functionId >> 27;
    const Uint32 component = (functionId >> 19) & 0xFFu;
    const Uint32 function = functionId & 0xFFFFu;
    if (!testBit(productBits, product)) return 0;
    const Uint32 r = rowOf(product, component);
    if (r >= GTM_ROW_COUNT || function >= GTM_FUNCTION_BITS) return 0;
    if (!testBit(componentBitsOf(this), r) || !testBit(rows[r].functionBits, function)) return 0;
    const Uint32 key = functionId & 0xFFF8FFFFu;  // without the class
    if (type < 16 && testBit(rows[r].typeBits, type)) {
        if (isProbeClass(type) && probes.excludeCount != 0) {
            Uint16 i = findEntry(probes, key, probe);
            if (i != 0 && (probes.entries[i].entryValue & GTM_VALUE_EXCLUDE)) return 0;
        }
        return 1;
    }
    return findEntry(probes, key, probe) != 0;
}

void GTM_TRC_MASK::gtmReplicateMask(GTMask* mask) const {
    if (mask == nullptr) return;
    const Uint8* componentBitmap = componentBitsOf(this);
    bool anyType = false;
    auto addTypes = [&](Uint32 types) {
        for (Uint32 t = 1; t <= 14; ++t)
            if ((types >> t) & 1u) {
                setBit(mask->types, t);
                anyType = true;
            }
    };
    for (Uint32 p = 1; p <= ecfGetNumProducts() && p < 32; ++p) {
        if (!testBit(productBits, p)) continue;
        setBit(mask->products, p);
        for (Uint32 c = 1; c <= lastComponent(p); ++c) {
            const Uint32 r = rowOf(p, c);
            if (r >= GTM_ROW_COUNT || !testBit(componentBitmap, r)) continue;
            if (c < 256) setBit(mask->components, c);
            const GTMRow& row = rows[r];
            for (Uint32 f = 1; f <= lastFunction(p, c); ++f) {
                if (!testBit(row.functionBits, f)) continue;
                setBit(mask->functions, f);
                if (probes.entryCount != 0 && hasKey(probes, keyOf(p, c, f)))
                    addTypes(kProbeClassTypes | kReplicateClassTypes);
            }
            addTypes(row.typeBits[0] | (static_cast<Uint32>(row.typeBits[1]) << 8));
        }
    }
    if (anyType) mask->classes[0] = 0xFF;
}

Bool GTM_TRC_MASK::gtmScanPointsHash(Uint32* key, Uint64* value, Uint16* probe) const {
    Uint32 cursor = __atomic_load_n(&s_scanCursor, __ATOMIC_RELAXED);
    if (cursor > 0 && ++cursor >= GTM_PROBE_ENTRIES) {
        __atomic_store_n(&s_scanCursor, cursor, __ATOMIC_RELAXED);
        return 0;
    }
    if (cursor == 0) cursor = 1;  // entry 0 is never used
    for (; cursor < GTM_PROBE_ENTRIES; ++cursor) {
        const GTMProbeEntry& e = probes.entries[cursor];
        if (e.key == 0) continue;
        if (key) *key = e.key;
        if (value) *value = e.entryValue;
        if (probe) *probe = e.probe;
        __atomic_store_n(&s_scanCursor, cursor, __ATOMIC_RELAXED);
        return 1;
    }
    __atomic_store_n(&s_scanCursor, cursor, __ATOMIC_RELAXED);
    return 0;
}

Bool GTM_TRC_MASK::gtmIsCompInMask(Uint32 product, Uint32 component) const {
    if (product >= 32 || !testBit(productBits, product)) return 0;
    const Uint32 r = rowOf(product, component);
    return r < GTM_ROW_COUNT && testBit(componentBitsOf(this), r);
}

Bool GTM_TRC_MASK::gtmIsFuncInMask(Uint32 product, Uint32 component, Uint32 function) const {
    if (!gtmIsCompInMask(product, component) || function >= GTM_FUNCTION_BITS) return 0;
    return testBit(rows[rowOf(product, component)].functionBits, function);
}

Bool GTM_TRC_MASK::gtmIsTypeInMask(Uint32 product, Uint32 component, Uint32 type) const {
    if (!gtmIsCompInMask(product, component) || type >= 16) return 0;
    return testBit(rows[rowOf(product, component)].typeBits, type);
}

Bool GTM_TRC_MASK::gtmIsProdMaskFull() const {
    return allOnes(productBits, sizeof(productBits));
}

Bool GTM_TRC_MASK::gtmIsCompMaskFull(Uint32 product) const {
    const Uint8* componentBitmap = componentBitsOf(this);
    for (Uint32 c = 1; c <= lastComponent(product); ++c) {
        Uint32 r = rowOf(product, c);
        if (r >= GTM_ROW_COUNT || !testBit(componentBitmap, r)) return 0;
    }
    return 1;
}

Bool GTM_TRC_MASK::gtmIsFuncMaskFull(Uint32 product, Uint32 component) const {
    Uint32 r = rowOf(product, component);
    return r < GTM_ROW_COUNT && allOnes(rows[r].functionBits, sizeof(rows[r].functionBits));
}

Bool GTM_TRC_MASK::gtmIsTypeMaskFull(Uint32 product, Uint32 component) const {
    Uint32 r = rowOf(product, component);
    return r < GTM_ROW_COUNT && allOnes(rows[r].typeBits, sizeof(rows[r].typeBits));
}
