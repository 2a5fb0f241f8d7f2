// Tests of the full and compact trace masks.
#include <gtest/gtest.h>
#include <string.h>

#include <array>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "gtmask.h"
#include "zepecf.h"

namespace {

constexpr Uint32 W = GTM_WILDCARD, P = GTM_FLAG_PROBE, R = ZEPFN_zepFileRename;

Uint32 fid(Uint32 product, Uint32 component, Uint32 function, Uint32 cls = 0) {
    return ZEP_FUNC_ID(product, component, cls, function);
}

std::unique_ptr<GTM_TRC_MASK> freshMask() {
    auto m = std::make_unique<GTM_TRC_MASK>();
    m->gtmClearMask();
    return m;
}

bool bitmapsEmpty(const GTM_TRC_MASK& m) {
    const Uint8* b = reinterpret_cast<const Uint8*>(&m);
    for (size_t i = 0; i < offsetof(GTM_TRC_MASK, pad); ++i)
        if (b[i] != 0) return false;
    return true;
}

bool bit(const Uint8* bits, Uint32 n) {
    return (bits[n / 8] >> (n % 8)) & 1;
}

// Which of the points (identifier, type, probe) the mask passes, as a string of
// 0 and 1.
std::string passes(const GTM_TRC_MASK& m, std::vector<std::array<Uint32, 3>> points) {
    std::string s;
    for (const auto& p : points)
        s += m.gtmIsElemInMask(p[0], p[1], static_cast<Uint16>(p[2])) ? '1' : '0';
    return s;
}

TEST(GTMask, ConstructionPreparesOnlyTheProbeTable) {
    // The constructor links the free list and leaves the bitmaps as it found them.
    auto raw = std::make_unique<Uint8[]>(sizeof(GTM_TRC_MASK));
    memset(raw.get(), 0x5A, sizeof(GTM_TRC_MASK));
    GTM_TRC_MASK* m = new (raw.get()) GTM_TRC_MASK;
    EXPECT_EQ(m->productBits[0] + m->rows[256].functionBits[511], 2 * 0x5A);
    EXPECT_EQ(m->probes.freeHead, 1);
    EXPECT_EQ(m->probes.entries[1999].next, 0);
    for (Uint16 b : m->probes.buckets) ASSERT_EQ(b, 0);
    EXPECT_EQ(m->probes.entryCount + m->probes.excludeCount, 0u);
    EXPECT_EQ(m->gtmClearMask(), 0);
    EXPECT_TRUE(bitmapsEmpty(*m));
}

TEST(GTMask, AllWildcardsTurnEverythingOn) {
    auto m = freshMask();
    EXPECT_TRUE(m->gtmSetMask(W, W, W, W, 0, 0));
    EXPECT_TRUE(m->gtmIsProdMaskFull());
    for (Uint32 p = 1; p <= 3; ++p) EXPECT_TRUE(m->gtmIsCompMaskFull(p)) << p;
    EXPECT_TRUE(m->gtmIsFuncMaskFull(1, 3));
    EXPECT_TRUE(m->gtmIsTypeMaskFull(3, 191));
    for (Uint32 type : {0u, 1u, 3u, 14u, 15u})
        for (Uint32 f : {R, SYSFN_MoveFile, fid(3, 183, 4095, 7), fid(2, 31, 1)})
            EXPECT_TRUE(m->gtmIsElemInMask(f, type, 10)) << std::hex << f << " " << type;
    // Only the bitmaps: a type of 16 or more has no bit, and no probe makes up
    // for it; function numbers of 4096 and above are beyond the bitmaps.
    EXPECT_EQ(passes(*m, {{R, 16, 10}, {fid(1, 3, 4096), 1, 0}}), "00");
    // The probe flag with a product wildcard does nothing.
    auto n = freshMask();
    EXPECT_TRUE(n->gtmSetMask(W, W, W, 10, P, 0));
    EXPECT_TRUE(bitmapsEmpty(*n));
    EXPECT_EQ(n->probes.entryCount, 0u);
}

TEST(GTMask, FunctionsAndTypesOnAndOff) {
    auto m = freshMask();
    const Uint32 f = ZEP_FUNC_INDEX(R);
    EXPECT_TRUE(m->gtmSetMask(1, 3, f, W, 0, 0));
    EXPECT_TRUE(bit(m->productBits, 1));
    EXPECT_TRUE(bit(m->componentBits, GTM_FIRST_ROW_PRODUCT1 + 3));
    EXPECT_TRUE(m->gtmIsFuncInMask(1, 3, f));
    EXPECT_TRUE(m->gtmIsTypeMaskFull(1, 3));
    // The class of the identifier plays no part.
    EXPECT_EQ(passes(*m, {{R | (5u << 16), 3, 10}, {R + 1, 3, 10}, {fid(1, 2, f), 3, 10}}), "100");
    m->gtmDelMask(1, 3, f, W, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));
    EXPECT_EQ(passes(*m, {{R, 3, 10}}), "0");

    // Types are the row's: both functions pass types 1 and 2.
    ASSERT_TRUE(m->gtmSetMask(1, 3, 10, 1, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 11, 2, 0, 0));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 10), 2, 0}, {fid(1, 3, 11), 1, 0}, {fid(1, 3, 11), 3, 0}}),
              "110");
    // A single type of a function that has neighbours can't be taken away:
    // nothing changes.
    auto before = std::make_unique<GTM_TRC_MASK>(*m);
    m->gtmDelMask(1, 3, 10, 1, 0);
    EXPECT_EQ(memcmp(before.get(), m.get(), sizeof(GTM_TRC_MASK)), 0);
    // With the type wildcard the function goes, its neighbour and the row's types
    // stay.
    m->gtmDelMask(1, 3, 10, W, 0);
    EXPECT_FALSE(m->gtmIsFuncInMask(1, 3, 10));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 11), 1, 0}}), "1");
    // The last function: a single type clears that type only.
    m->gtmDelMask(1, 3, 11, 1, 0);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 11), 1, 0}, {fid(1, 3, 11), 2, 0}}), "01");
    m->gtmDelMask(1, 3, 11, 2, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));
    // Types beyond 15 set and clear nothing, but the function and levels above
    // are set.
    m->gtmSetMask(1, 3, 12, 16, 0, 0);
    EXPECT_TRUE(m->gtmIsFuncInMask(1, 3, 12));
    const auto& row = m->rows[GTM_FIRST_ROW_PRODUCT1 + 3];
    EXPECT_EQ(row.typeBits[0] | row.typeBits[1], 0);

    // The last function of a component keeps the product while another component
    // is on.
    m->gtmClearMask();
    ASSERT_TRUE(m->gtmSetMask(2, 1, 7, W, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(2, 3, 9, 4, 0, 0));
    m->gtmDelMask(2, 1, 7, W, 0);
    EXPECT_FALSE(m->gtmIsCompInMask(2, 1));
    EXPECT_TRUE(bit(m->productBits, 2));
    EXPECT_EQ(passes(*m, {{fid(2, 3, 9), 4, 0}}), "1");
    m->gtmDelMask(2, 3, 9, W, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));
}

TEST(GTMask, ComponentAndProductWildcards) {
    auto m = freshMask();
    // Every component of product 1 from index 1 up, by the catalogue's count.
    ASSERT_TRUE(m->gtmSetMask(1, W, W, 3, 0, 0));
    const Uint32 last = ecfGetNumComponents(1) - 1;
    EXPECT_TRUE(m->gtmIsCompMaskFull(1));
    EXPECT_FALSE(m->gtmIsCompInMask(1, 0));
    EXPECT_TRUE(m->gtmIsCompInMask(1, last));
    EXPECT_FALSE(m->gtmIsCompInMask(1, last + 1));
    EXPECT_TRUE(m->gtmIsFuncMaskFull(1, last));
    EXPECT_TRUE(m->gtmIsTypeInMask(1, 2, 3));
    EXPECT_FALSE(m->gtmIsTypeMaskFull(1, 2));
    EXPECT_FALSE(m->gtmIsCompMaskFull(2));
    // A product with fewer than two components is full by definition.
    EXPECT_TRUE(m->gtmIsCompMaskFull(9));
    // Deleting another type than the one set leaves it; deleting type 3 empties
    // the product.
    m->gtmDelMask(1, W, W, 4, 0);
    EXPECT_EQ(passes(*m, {{SYSFN_MoveFile, 3, 0}}), "1");
    m->gtmDelMask(1, W, W, 3, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // A row that still has a probe in the table keeps its functions when its
    // types go.
    ASSERT_TRUE(m->gtmSetMask(1, 3, W, 1, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 22, 30, P, 0));
    m->gtmDelMask(1, 3, W, 1, 0);
    EXPECT_TRUE(m->gtmIsFuncMaskFull(1, 3));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 22), 3, 30}, {fid(1, 3, 23), 1, 0}}), "10");
    m->gtmDelMask(W, W, W, W, 0);  // all types: the probes go with them
    EXPECT_EQ(m->probes.entryCount, 0u);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // Product 3, component 191 is row 256, whose component bit is row 0's first
    // type byte; component 192 would be row 257: only the product bit is set.
    ASSERT_TRUE(m->gtmSetMask(3, 191, 1, 1, 0, 0));
    EXPECT_EQ(m->rows[0].typeBits[0], 0x01);
    ASSERT_TRUE(m->gtmSetMask(3, 192, 1, 1, 0, 0));
    EXPECT_EQ(passes(*m, {{fid(3, 191, 1), 1, 0}, {fid(3, 192, 1), 1, 0}}), "10");
    m->gtmDelMask(3, 191, 1, W, 0);
    EXPECT_EQ(m->rows[0].typeBits[0], 0);
    EXPECT_FALSE(bit(m->productBits, 3));
}

TEST(GTMask, ProbesAddAndExclude) {
    auto m = freshMask();
    const Uint32 f = ZEP_FUNC_INDEX(R);
    // A probe added to a function whose types are off: only that probe passes.
    // Adding it again keeps the old value.
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, 30, P, 0x10));
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, 30, P, 0x20));
    EXPECT_EQ(passes(*m, {{R, 4, 30}, {R, 1, 30}, {R, 4, 10}}), "110");
    EXPECT_EQ(m->probes.entryCount, 1u);
    const GTMProbeEntry& e = m->probes.entries[m->probes.buckets[f & 0x3FF]];
    EXPECT_EQ(std::make_tuple(e.entryValue, e.key, e.probe),
              std::make_tuple(Uint64{0x10}, R & 0xFFF8FFFFu, Uint16{30}));
    // Deleting it leaves neither entry nor exclusion, and nothing on.
    m->gtmDelMask(1, 3, f, 30, P);
    EXPECT_EQ(m->probes.entryCount + m->probes.excludeCount, 0u);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // A probe taken out of a function that is on by its row's types becomes an
    // exclusion, for the probe class of types only; deleting the exclusion puts
    // the probe back.
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, W, 0, 0));
    m->gtmDelMask(1, 3, f, 10, P);
    EXPECT_EQ(m->probes.entryCount, 1u);
    EXPECT_EQ(m->probes.excludeCount, 1u);
    EXPECT_EQ(passes(*m, {{R, 3, 10}, {R, 13, 10}, {R, 3, 20}, {R, 1, 10}, {R, 6, 10}}), "00111");
    m->gtmDelMask(1, 3, f, 10, P);
    EXPECT_EQ(m->probes.excludeCount, 0u);
    EXPECT_EQ(passes(*m, {{R, 3, 10}}), "1");
    // A byte copy of a mask with an exclusion works as the mask.
    m->gtmDelMask(1, 3, f, 10, P);
    auto raw = std::make_unique<Uint8[]>(sizeof(GTM_TRC_MASK));
    memcpy(raw.get(), m.get(), sizeof(GTM_TRC_MASK));
    EXPECT_EQ(passes(*reinterpret_cast<const GTM_TRC_MASK*>(raw.get()), {{R, 3, 10}, {R, 3, 20}}),
              "01");

    // No exclusion where the row has no type of the probe class on, nor for a
    // function that isn't on.
    m->gtmClearMask();
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, 1, 0, 0));
    m->gtmDelMask(1, 3, f, 10, P);
    m->gtmDelMask(1, 3, f + 1, 10, P);
    EXPECT_EQ(m->probes.entryCount, 0u);
}

TEST(GTMask, ProbeTableHoldsNineteenNinetyNine) {
    auto m = freshMask();
    for (Uint32 probe = 1; probe <= 1999; ++probe)
        ASSERT_TRUE(m->gtmSetMask(1, 3, 1023, probe, P, probe)) << probe;
    EXPECT_EQ(m->probes.freeHead, 0);
    EXPECT_EQ(m->probes.entryCount, 1999u);
    // The 2000th fails after the bitmaps above were set; a present entry is still
    // found.
    EXPECT_FALSE(m->gtmSetMask(1, 5, 17, 2000, P, 0));
    EXPECT_TRUE(m->gtmIsFuncInMask(1, 5, 17));
    EXPECT_TRUE(m->gtmSetMask(1, 3, 1023, 5, P, 0));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 1023), 3, 1999}, {fid(1, 3, 1023), 3, 2000}}), "10");
    // Function 1023 hashes to 1024, the last bucket; clearing empties it with all
    // others.
    EXPECT_NE(m->probes.buckets[1023], 0);
    EXPECT_EQ(m->gtmClearMask(), 0);
    for (Uint16 b : m->probes.buckets) ASSERT_EQ(b, 0);
    EXPECT_EQ(m->probes.freeHead, 1);
    EXPECT_EQ(m->probes.entryCount, 0u);
    EXPECT_TRUE(m->gtmSetMask(1, 3, 1023, 1, P, 0));
    EXPECT_EQ(m->probes.buckets[1023], 1);

    // Removed entries go to the front of the free list and are taken first.
    m->gtmClearMask();
    for (Uint32 probe = 1; probe <= 3; ++probe) m->gtmSetMask(1, 3, 40, probe, P, 0);
    m->gtmDelMask(1, 3, 40, 2, P);
    EXPECT_EQ(m->probes.freeHead, 2);
    EXPECT_EQ(m->probes.entries[2].key, 0u);
    EXPECT_EQ(m->probes.entries[2].probe, 0);
    m->gtmSetMask(1, 3, 41, 9, P, 0);
    EXPECT_EQ(m->probes.entries[2].key, fid(1, 3, 41));
}

TEST(GTMask, CollidingFunctionsShareAChain) {
    auto m = freshMask();
    // 5 and 1029 share a hash value and a chain; removing all of 1029 (middle and
    // front of the chain) keeps 5.
    ASSERT_TRUE(m->gtmSetMask(1, 3, 5, 10, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 1029, 10, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 1029, 20, P, 0));
    EXPECT_EQ(m->probes.buckets[5], 3);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 5), 3, 10}, {fid(1, 3, 1029), 3, 10}, {fid(1, 3, 5), 3, 20}}),
              "110");
    m->gtmDelMask(1, 3, 1029, W, 0);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 1029), 3, 10}, {fid(1, 3, 5), 3, 10}}), "01");
    EXPECT_EQ(m->probes.entryCount, 1u);
    EXPECT_EQ(m->probes.buckets[5], 1);

    // A function beyond the bitmaps leaves with the type wildcard; 5000 and 904
    // share a chain.
    m->gtmClearMask();
    ASSERT_TRUE(m->gtmSetMask(1, 3, 5000, 7, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 5000, 8, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 904, 7, P, 0));
    EXPECT_EQ(m->probes.entryCount, 3u);
    m->gtmDelMask(1, 3, 5000, W, 0);
    EXPECT_EQ(m->probes.entryCount, 1u);
    for (const GTMProbeEntry& e : m->probes.entries) EXPECT_NE(e.key, fid(1, 3, 5000));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 904), 3, 7}}), "1");
}

// A mask is shared memory and a part of every dump: damaged links end a walk;
// they never hang it, and nothing is read or written outside the table.
TEST(GTMask, DamagedProbeTable) {
    struct Guarded {
        GTM_TRC_MASK mask;
        Uint8 guard[64 * 1024];
    };
    auto g = std::make_unique<Guarded>();
    memset(g->guard, 0x77, sizeof g->guard);
    GTM_TRC_MASK& m = g->mask;
    m.gtmClearMask();
    ASSERT_TRUE(m.gtmSetMask(1, 3, 5, 10, P, 0));
    ASSERT_TRUE(m.gtmSetMask(1, 3, 1029, 10, P, 0));  // same chain, at its front
    // A chain that loops on itself: lookups, additions and removals all end.
    m.probes.entries[m.probes.buckets[5]].next = m.probes.buckets[5];
    EXPECT_EQ(passes(m, {{fid(1, 3, 2053), 3, 10}, {fid(1, 3, 1029), 3, 10}}), "01");
    EXPECT_TRUE(m.gtmSetMask(1, 3, 2053, 10, P, 0));
    m.gtmDelMask(1, 3, 5, 10, P);
    m.gtmDelMask(1, 3, 77, W, 0);

    // Chain heads, links and the free list beyond the table.
    m.gtmClearMask();
    ASSERT_TRUE(m.gtmSetMask(1, 3, 5, 10, P, 0));
    m.probes.entries[m.probes.buckets[5]].next = 0xFFFF;
    m.probes.buckets[6] = 0xFFFF;
    m.probes.freeHead = 0xFFFE;
    EXPECT_EQ(passes(m, {{fid(1, 3, 5), 3, 10}, {fid(1, 3, 6), 3, 10}, {fid(1, 3, 1029), 3, 10}}),
              "100");
    EXPECT_FALSE(m.gtmSetMask(1, 3, 6, 10, P, 0));  // no free entry to be had
    m.gtmDelMask(1, 3, 1029, 10, P);
    m.gtmDelMask(1, 3, 6, W, 0);
    for (Uint8 b : g->guard) ASSERT_EQ(b, 0x77);
}

TEST(GTMask, ReplicateProjectsOntoTheCompactMask) {
    auto m = freshMask();
    GTMask c, zero;
    memset(&c, 0, sizeof(c));
    memset(&zero, 0, sizeof(zero));
    // An empty mask adds nothing, not even the classes.
    m->gtmReplicateMask(&c);
    EXPECT_EQ(memcmp(&c, &zero, sizeof(c)), 0);

    // Types 1 and 2 on one function; a probe on a function of another component.
    ASSERT_TRUE(m->gtmSetMask(1, 3, 22, 1, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 22, 2, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 2, 137, 30, P, 0));
    m->gtmReplicateMask(&c);
    EXPECT_EQ(c.products[0], 0x02);
    EXPECT_EQ(c.components[0], 0x0C);
    EXPECT_EQ(std::make_tuple(bit(c.functions, 22), bit(c.functions, 137), bit(c.functions, 23)),
              std::make_tuple(true, true, false));
    // 1, 2 from the row; 3 to 11 and 13 from the probe.
    EXPECT_EQ(c.types[0] | (c.types[1] << 8), 0x2FFE);
    EXPECT_EQ(c.classes[0], 0xFF);
    EXPECT_EQ(c.classes[1], 0x00);
    // Bits are only ever added.
    GTMask pre;
    memset(&pre, 0, sizeof(pre));
    pre.functions[100] = 0x80;
    m->gtmReplicateMask(&pre);
    EXPECT_EQ(pre.functions[100], 0x80);
}

// The only test that walks the table: the cursor is process-wide and never
// reset.
TEST(GTMask, ScanWalksTheTableOncePerProcess) {
    auto m = freshMask();
    std::set<std::tuple<Uint32, Uint64, Uint16>> expected, seen;
    for (Uint32 f : {5u, 1029u, 300u}) {
        ASSERT_TRUE(m->gtmSetMask(1, 3, f, f % 100, P, f * 3));
        expected.insert({fid(1, 3, f), f * 3, static_cast<Uint16>(f % 100)});
    }
    m->gtmDelMask(1, 3, 1029, 29, P);  // leaves a hole at entry 2
    expected.erase({fid(1, 3, 1029), 1029 * 3, 29});
    Uint32 key = 0;
    Uint64 value = 0;
    Uint16 probe = 0;
    while (m->gtmScanPointsHash(&key, &value, &probe)) {
        seen.insert({key, value, probe});
        ASSERT_LE(seen.size(), 3u);
    }
    EXPECT_EQ(seen, expected);
    EXPECT_FALSE(m->gtmScanPointsHash(&key, &value, &probe));
    auto other = freshMask();
    ASSERT_TRUE(other->gtmSetMask(1, 3, 9, 9, P, 0));
    key = 0;
    EXPECT_FALSE(other->gtmScanPointsHash(&key, &value, &probe));
}

}  // namespace
