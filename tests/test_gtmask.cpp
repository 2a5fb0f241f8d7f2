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
constexpr Uint32 f = ZEP_FUNC_INDEX(R);

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

// Which of the points (identifier, type, probe) the mask passes, as a string of 0 and 1.
std::string passes(const GTM_TRC_MASK& m, std::vector<std::array<Uint32, 3>> points) {
    std::string s;
    for (const auto& p : points)
        s += m.gtmIsElemInMask(p[0], p[1], static_cast<Uint16>(p[2])) ? '1' : '0';
    return s;
}

TEST(GTMask, AllWildcardsTurnEverythingOn) {
    auto m = freshMask();
    EXPECT_EQ(passes(*m, {{R, 3, 10}}), "0");  // an empty mask: the product bit stops the lookup
    EXPECT_TRUE(m->gtmSetMask(W, W, W, W, 0, 0));
    EXPECT_TRUE(m->gtmIsProdMaskFull() && m->gtmIsCompMaskFull(3) && m->gtmIsFuncMaskFull(1, 3) &&
                m->gtmIsTypeMaskFull(3, 191));
    // Any point in the bitmaps, of any class; no type of 16 or more, no function of 4096 or more.
    EXPECT_EQ(passes(*m, {{R, 0, 10},
                          {SYSFN_MoveFile, 15, 0},
                          {fid(3, 183, 4095, 7), 14, 0},
                          {fid(2, 31, 1), 1, 0},
                          {R, 16, 10},
                          {fid(1, 3, 4096), 1, 0}}),
              "111100");
    // The probe flag with a product wildcard does nothing.
    auto n = freshMask();
    EXPECT_TRUE(n->gtmSetMask(W, W, W, 10, P, 0));
    EXPECT_TRUE(bitmapsEmpty(*n));
    EXPECT_EQ(n->probes.entryCount, 0u);
}

TEST(GTMask, FunctionsAndTypesOnAndOff) {
    auto m = freshMask();
    EXPECT_TRUE(m->gtmSetMask(1, 3, f, W, 0, 0));
    EXPECT_TRUE(bit(m->componentBits, GTM_FIRST_ROW_PRODUCT1 + 3));
    EXPECT_TRUE(m->gtmIsTypeMaskFull(1, 3));
    // The class of the identifier plays no part.
    EXPECT_EQ(passes(*m, {{R | (5u << 16), 3, 10}, {R + 1, 3, 10}, {fid(1, 2, f), 3, 10}}), "100");
    m->gtmDelMask(1, 3, f, W, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // Types are the row's: both functions pass types 1 and 2.
    ASSERT_TRUE(m->gtmSetMask(1, 3, 10, 1, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 11, 2, 0, 0));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 10), 2, 0}, {fid(1, 3, 11), 1, 0}, {fid(1, 3, 11), 3, 0}}),
              "110");
    // A single type of a function that has neighbours can't be taken away: nothing changes.
    auto before = std::make_unique<GTM_TRC_MASK>(*m);
    m->gtmDelMask(1, 3, 10, 1, 0);
    EXPECT_EQ(memcmp(before.get(), m.get(), sizeof(GTM_TRC_MASK)), 0);
    // With the type wildcard the function goes, its neighbour and the row's types stay.
    m->gtmDelMask(1, 3, 10, W, 0);
    EXPECT_FALSE(m->gtmIsFuncInMask(1, 3, 10));
    // The last function: a single type clears that type only.
    m->gtmDelMask(1, 3, 11, 1, 0);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 11), 1, 0}, {fid(1, 3, 11), 2, 0}}), "01");
    m->gtmDelMask(1, 3, 11, 2, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // The last function of a component keeps the product while another component is on.
    ASSERT_TRUE(m->gtmSetMask(2, 1, 7, W, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(2, 3, 9, 4, 0, 0));
    m->gtmDelMask(2, 1, 7, W, 0);
    EXPECT_FALSE(m->gtmIsCompInMask(2, 1));
    EXPECT_EQ(passes(*m, {{fid(2, 3, 9), 4, 0}}), "1");
    m->gtmDelMask(2, 3, 9, W, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // Product 3, component 191 is row 256, whose component bit is row 0's first type byte;
    // component 192 would be row 257: only the product bit is set.
    ASSERT_TRUE(m->gtmSetMask(3, 191, 1, 1, 0, 0));
    EXPECT_EQ(m->rows[0].typeBits[0], 0x01);
    ASSERT_TRUE(m->gtmSetMask(3, 192, 1, 1, 0, 0));
    EXPECT_EQ(passes(*m, {{fid(3, 191, 1), 1, 0}, {fid(3, 192, 1), 1, 0}}), "10");
    m->gtmDelMask(3, 191, 1, W, 0);
    EXPECT_EQ(m->rows[0].typeBits[0], 0);
    EXPECT_FALSE(bit(m->productBits, 3));
}

TEST(GTMask, ComponentWildcardByTheCatalogue) {
    auto m = freshMask();
    // Every component of product 1 from index 1 up, by the catalogue's count.
    ASSERT_TRUE(m->gtmSetMask(1, W, W, 3, 0, 0));
    const Uint32 last = ecfGetNumComponents(1) - 1;
    EXPECT_EQ(std::make_tuple(m->gtmIsCompInMask(1, 0), m->gtmIsCompInMask(1, last),
                              m->gtmIsCompInMask(1, last + 1), m->gtmIsCompMaskFull(2)),
              std::make_tuple(false, true, false, false));
    EXPECT_TRUE(m->gtmIsFuncMaskFull(1, last) && m->gtmIsTypeInMask(1, 2, 3));
    EXPECT_FALSE(m->gtmIsTypeMaskFull(1, 2));
    EXPECT_TRUE(m->gtmIsCompMaskFull(9));  // fewer than two components: full by definition
    // Deleting another type than the one set leaves it; deleting type 3 empties the product.
    m->gtmDelMask(1, W, W, 4, 0);
    EXPECT_EQ(passes(*m, {{SYSFN_MoveFile, 3, 0}}), "1");
    m->gtmDelMask(1, W, W, 3, 0);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // A row that still has a probe in the table keeps its functions when its types go.
    ASSERT_TRUE(m->gtmSetMask(1, 3, W, 1, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 22, 30, P, 0));
    m->gtmDelMask(1, 3, W, 1, 0);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 22), 3, 30}, {fid(1, 3, 23), 1, 0}}), "10");
    m->gtmDelMask(W, W, W, W, 0);  // all types: the probes go with them
    EXPECT_EQ(m->probes.entryCount, 0u);
    EXPECT_TRUE(bitmapsEmpty(*m));
}

TEST(GTMask, ProbesAddAndExclude) {
    auto m = freshMask();
    // A probe added to a function whose types are off: only that probe passes. Adding it again
    // keeps the old value; deleting it leaves neither entry nor exclusion, and nothing on.
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, 30, P, 0x10));
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, 30, P, 0x20));
    EXPECT_EQ(passes(*m, {{R, 4, 30}, {R, 1, 30}, {R, 4, 10}}), "110");
    const GTMProbeEntry& e = m->probes.entries[m->probes.buckets[f & 0x3FF]];
    EXPECT_EQ(std::make_tuple(m->probes.entryCount, e.entryValue, e.key, e.probe),
              std::make_tuple(1u, Uint64{0x10}, R & 0xFFF8FFFFu, Uint16{30}));
    m->gtmDelMask(1, 3, f, 30, P);
    EXPECT_EQ(m->probes.entryCount + m->probes.excludeCount, 0u);
    EXPECT_TRUE(bitmapsEmpty(*m));

    // A probe taken out of a function that is on by its row's types becomes an exclusion, for
    // the probe class of types only; deleting the exclusion puts the probe back.
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, W, 0, 0));
    m->gtmDelMask(1, 3, f, 10, P);
    EXPECT_EQ(m->probes.entryCount + m->probes.excludeCount, 2u);
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

    // No exclusion where the row has no type of the probe class on, nor for a function that
    // isn't on.
    m->gtmClearMask();
    ASSERT_TRUE(m->gtmSetMask(1, 3, f, 1, 0, 0));
    m->gtmDelMask(1, 3, f, 10, P);
    m->gtmDelMask(1, 3, f + 1, 10, P);
    EXPECT_EQ(m->probes.entryCount, 0u);
}

TEST(GTMask, ProbeTableChainsAndCapacity) {
    auto m = freshMask();
    for (Uint32 probe = 1; probe <= 1999; ++probe)
        ASSERT_TRUE(m->gtmSetMask(1, 3, 1023, probe, P, probe)) << probe;
    // The 2000th fails after the bitmaps above were set; a present entry is still found.
    EXPECT_FALSE(m->gtmSetMask(1, 5, 17, 2000, P, 0));
    EXPECT_TRUE(m->gtmIsFuncInMask(1, 5, 17));
    EXPECT_TRUE(m->gtmSetMask(1, 3, 1023, 5, P, 0));
    EXPECT_EQ(passes(*m, {{fid(1, 3, 1023), 3, 1999}, {fid(1, 3, 1023), 3, 2000}}), "10");
    // Function 1023 hashes to 1024, the last bucket; clearing empties it with all others.
    EXPECT_NE(m->probes.buckets[1023], 0);
    EXPECT_EQ(m->gtmClearMask(), 0);
    for (Uint16 b : m->probes.buckets) ASSERT_EQ(b, 0);
    EXPECT_EQ(m->probes.freeHead + m->probes.entryCount, 1u);

    // 5 and 1029 share a hash value and a chain; removing all of 1029 (the chain's middle and
    // front) keeps 5, and the freed entries are taken first again.
    ASSERT_TRUE(m->gtmSetMask(1, 3, 5, 10, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 1029, 10, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 1029, 20, P, 0));
    EXPECT_EQ(m->probes.buckets[5], 3);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 5), 3, 10}, {fid(1, 3, 1029), 3, 10}, {fid(1, 3, 5), 3, 20}}),
              "110");
    m->gtmDelMask(1, 3, 1029, W, 0);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 1029), 3, 10}, {fid(1, 3, 5), 3, 10}}), "01");
    EXPECT_EQ(m->probes.entryCount, 1u);
    EXPECT_EQ(m->probes.freeHead, 2);
    ASSERT_TRUE(m->gtmSetMask(1, 3, 41, 9, P, 0));
    EXPECT_EQ(m->probes.entries[2].key, fid(1, 3, 41));

    // A function beyond the bitmaps leaves with the type wildcard; 5000 and 904 share a chain.
    m->gtmClearMask();
    ASSERT_TRUE(m->gtmSetMask(1, 3, 5000, 7, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 5000, 8, P, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 904, 7, P, 0));
    m->gtmDelMask(1, 3, 5000, W, 0);
    EXPECT_EQ(m->probes.entryCount, 1u);
    EXPECT_EQ(passes(*m, {{fid(1, 3, 904), 3, 7}, {fid(1, 3, 5000), 3, 8}}), "10");
}

// A mask is shared memory and a part of every dump: damaged links end a walk, never hang it, and
// nothing is read or written outside the table.
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
    m->gtmReplicateMask(&c);  // an empty mask adds nothing, not even the classes
    EXPECT_EQ(memcmp(&c, &zero, sizeof(c)), 0);

    // Types 1 and 2 on one function; a probe on a function of another component; a bit that
    // was there already stays.
    ASSERT_TRUE(m->gtmSetMask(1, 3, 22, 1, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 3, 22, 2, 0, 0));
    ASSERT_TRUE(m->gtmSetMask(1, 2, 137, 30, P, 0));
    c.functions[100] = 0x80;
    m->gtmReplicateMask(&c);
    EXPECT_EQ(std::make_tuple(c.products[0], c.components[0], c.classes[0], c.classes[1]),
              std::make_tuple(0x02, 0x0C, 0xFF, 0x00));
    EXPECT_EQ(std::make_tuple(bit(c.functions, 22), bit(c.functions, 137), bit(c.functions, 23),
                              c.functions[100]),
              std::make_tuple(true, true, false, 0x80));
    EXPECT_EQ(c.types[0] | (c.types[1] << 8),
              0x2FFE);  // 1, 2 from the row; 3 to 11, 13 the probe's
}

// The only test that walks the table: the cursor is process-wide and never reset.
TEST(GTMask, ScanWalksTheTableOncePerProcess) {
    auto m = freshMask();
    std::set<std::tuple<Uint32, Uint64, Uint16>> expected, seen;
    for (Uint32 fn : {5u, 1029u, 300u}) {
        ASSERT_TRUE(m->gtmSetMask(1, 3, fn, fn % 100, P, fn * 3));
        expected.insert({fid(1, 3, fn), fn * 3, static_cast<Uint16>(fn % 100)});
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
    auto other = freshMask();
    ASSERT_TRUE(other->gtmSetMask(1, 3, 9, 9, P, 0));
    key = 0;
    EXPECT_FALSE(other->gtmScanPointsHash(&key, &value, &probe));
}

}  // namespace
