// Tests of the full and compact trace masks: changes played step by step, each followed by what
// the mask then passes.
#include <algorithm>
#include <array>

#include "zeptest_util.h"

namespace {

constexpr Uint32 W = GTM_WILDCARD, P = GTM_FLAG_PROBE, R = ZEPFN_zepFileRename;
constexpr Uint32 f = ZEP_FUNC_INDEX(R);

Uint32 fid(Uint32 product, Uint32 component, Uint32 function, Uint32 cls = 0) {
    return ZEP_FUNC_ID(product, component, cls, function);
}

using Points = std::vector<std::array<Uint32, 3>>;  // identifier, type, probe

// One change: 's' gtmSetMask, 'd' gtmDelMask, 'c' gtmClearMask; then which points pass, 0 or 1
// each, " full" if the change was refused, the probe table's entries/exclusions, and " empty" if
// no bit of the bitmaps is left.
struct Step {
    char op;
    Uint32 p, c, fn, type, flags;
    std::string after;
};

std::string passes(const GTM_TRC_MASK& m, const Points& points) {
    std::string s;
    for (const auto& p : points)
        s += m.gtmIsElemInMask(p[0], p[1], static_cast<Uint16>(p[2])) ? '1' : '0';
    return s;
}

void play(GTM_TRC_MASK& m, const Points& points, const std::vector<Step>& steps) {
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step& s = steps[i];
        bool ok = true;
        if (s.op == 's') ok = m.gtmSetMask(s.p, s.c, s.fn, s.type, s.flags, 0);
        if (s.op == 'd') m.gtmDelMask(s.p, s.c, s.fn, s.type, s.flags);
        if (s.op == 'c') m.gtmClearMask();
        const Uint8* b = reinterpret_cast<const Uint8*>(&m);
        const bool empty =
            std::all_of(b, b + offsetof(GTM_TRC_MASK, pad), [](Uint8 x) { return !x; });
        EXPECT_EQ(passes(m, points) + (ok ? " " : " full ") + std::to_string(m.probes.entryCount) +
                      "/" + std::to_string(m.probes.excludeCount) + (empty ? " empty" : ""),
                  s.after)
            << "step " << i;
    }
}

std::unique_ptr<GTM_TRC_MASK> freshMask() {
    auto m = std::make_unique<GTM_TRC_MASK>();
    m->gtmClearMask();
    return m;
}

TEST(GTMask, WildcardsAndTheCatalogue) {
    auto m = freshMask();
    // Any point in the bitmaps, of any class; no type of 16 or more, no function of 4096 or more.
    const Points points = {
        {R, 0, 10},  {SYSFN_MoveFile, 15, 0}, {fid(3, 183, 4095, 7), 14, 0}, {fid(2, 31, 1), 1, 0},
        {R, 16, 10}, {fid(1, 3, 4096), 1, 0}, {fid(1, 3, 22), 3, 30},        {fid(1, 3, 23), 1, 0}};
    play(*m, points,
         {{'s', W, W, W, 10, P, "00000000 0/0 empty"},  // a probe needs a product
          {'s', W, W, W, W, 0, "11110011 0/0"}});
    EXPECT_TRUE(m->gtmIsProdMaskFull() && m->gtmIsCompMaskFull(3) && m->gtmIsFuncMaskFull(1, 3) &&
                m->gtmIsTypeMaskFull(3, 191));
    // Every component of product 1 from index 1 up, by the catalogue's count.
    play(*m, points,
         {{'c', 0, 0, 0, 0, 0, "00000000 0/0 empty"}, {'s', 1, W, W, 3, 0, "00000010 0/0"}});
    const Uint32 last = ecfGetNumComponents(1) - 1;
    EXPECT_EQ(std::make_tuple(m->gtmIsCompInMask(1, 0), m->gtmIsCompInMask(1, last),
                              m->gtmIsCompInMask(1, last + 1), m->gtmIsCompMaskFull(9)),
              std::make_tuple(false, true, false, true));  // fewer than two: full by definition
    // Deleting another type leaves the one set. A row with a probe in the table keeps its
    // functions when its types go; all types deleted take the probes with them.
    play(*m, points,
         {{'d', 1, W, W, 4, 0, "00000010 0/0"},
          {'d', 1, W, W, 3, 0, "00000000 0/0 empty"},
          {'s', 1, 3, W, 1, 0, "00000001 0/0"},
          {'s', 1, 3, 22, 30, P, "00000011 1/0"},
          {'d', 1, 3, W, 1, 0, "00000010 1/0"},
          {'d', W, W, W, W, 0, "00000000 0/0 empty"}});
}

TEST(GTMask, FunctionsAndTypesOnAndOff) {
    auto m = freshMask();
    const Points points = {{R, 3, 10},
                           {R | (5u << 16), 3, 10},
                           {R + 1, 3, 10},
                           {fid(1, 2, f), 3, 10},
                           {fid(1, 3, 10), 2, 0},
                           {fid(1, 3, 11), 1, 0},
                           {fid(1, 3, 11), 2, 0},
                           {fid(2, 3, 9), 4, 0}};
    play(*m, points,
         {
             // The class of the identifier plays no part; its function, component do.
             {'s', 1, 3, f, W, 0, "11000000 0/0"},
             {'d', 1, 3, f, W, 0, "00000000 0/0 empty"},
             // Types are the row's: both functions pass types 1 and 2.
             {'s', 1, 3, 10, 1, 0, "00000000 0/0"},
             {'s', 1, 3, 11, 2, 0, "00001110 0/0"},
             // A single type of a function with neighbours can't be taken away; with the type
             // wildcard the function goes; for the last function a single type clears that type.
             {'d', 1, 3, 10, 1, 0, "00001110 0/0"},
             {'d', 1, 3, 10, W, 0, "00000110 0/0"},
             {'d', 1, 3, 11, 1, 0, "00000010 0/0"},
             {'d', 1, 3, 11, 2, 0, "00000000 0/0 empty"},
             // The last function of a component keeps the product while another is on.
             {'s', 2, 1, 7, W, 0, "00000000 0/0"},
             {'s', 2, 3, 9, 4, 0, "00000001 0/0"},
             {'d', 2, 1, 7, W, 0, "00000001 0/0"},
             {'d', 2, 3, 9, W, 0, "00000000 0/0 empty"},
         });
}

TEST(GTMask, ProbesAddAndExclude) {
    auto m = freshMask();
    const Points points = {{R, 4, 30}, {R, 1, 30}, {R, 3, 10}, {R, 13, 10},
                           {R, 3, 20}, {R, 1, 10}, {R, 6, 10}};
    play(*m, points,
         {
             // A probe added to a function whose types are off: only that probe passes. Deleted,
             // it leaves neither entry nor exclusion, and nothing on.
             {'s', 1, 3, f, 30, P, "1100000 1/0"},
             {'s', 1, 3, f, 30, P, "1100000 1/0"},
             {'d', 1, 3, f, 30, P, "0000000 0/0 empty"},
             // Taken out of a function that is on by its row's types, a probe becomes an
             // exclusion, for the probe class of types only; deleting the exclusion puts it back.
             {'s', 1, 3, f, W, 0, "1111111 0/0"},
             {'d', 1, 3, f, 10, P, "1100111 1/1"},
             {'d', 1, 3, f, 10, P, "1111111 0/0"},
         });
}

TEST(GTMask, ProbeTableChainsAndCapacity) {
    auto m = freshMask();
    for (Uint32 probe = 1; probe <= 1999; ++probe)
        ASSERT_TRUE(m->gtmSetMask(1, 3, 1023, probe, P, 0)) << probe;
    // The 2000th fails after the bitmaps above were set; a present entry is still found.
    const Points points = {{fid(1, 3, 1023), 3, 1999},
                           {fid(1, 3, 1023), 3, 2000},
                           {fid(1, 3, 5), 3, 10},
                           {fid(1, 3, 1029), 3, 10},
                           {fid(1, 3, 5), 3, 20}};
    play(*m, points,
         {{'s', 1, 5, 17, 2000, P, "10000 full 1999/0"}, {'s', 1, 3, 1023, 5, P, "10000 1999/0"}});
    EXPECT_TRUE(m->gtmIsFuncInMask(1, 5, 17));
    // Function 1023 hashes to 1024, the last bucket; clearing empties it with all others.
    EXPECT_NE(m->probes.buckets[1023], 0);
    EXPECT_EQ(m->gtmClearMask(), 0);
    for (Uint16 b : m->probes.buckets) ASSERT_EQ(b, 0);
    EXPECT_EQ(m->probes.freeHead, 1);
    // 5 and 1029 share a hash value and a chain; removing all of 1029 (the chain's middle and
    // front) keeps 5. A function beyond the bitmaps leaves with the type wildcard too.
    play(*m, points,
         {{'s', 1, 3, 5, 10, P, "00100 1/0"},
          {'s', 1, 3, 1029, 10, P, "00110 2/0"},
          {'s', 1, 3, 1029, 20, P, "00110 3/0"},
          {'d', 1, 3, 1029, W, 0, "00100 1/0"},
          {'s', 1, 3, 5000, 7, P, "00100 2/0"},
          {'d', 1, 3, 5000, W, 0, "00100 1/0"}});
}

}  // namespace
