// ZEPDecfloat: which outcome of a conversion is an error, with which ECF code, and what the
// object holds afterwards.
#include <gtest/gtest.h>
#include <math.h>

#include <limits>
#include <string>
#include <tuple>

#include "zepdecengine.h"
#include "zepdecfloat.h"
#include "zepecf.h"

namespace {

template <class D>
std::string str(const D& d, Uint32* rc = nullptr) {
    char buf[64] = {};
    const Uint32 r = d.toString(buf, 43);
    if (rc != nullptr) *rc = r;
    return buf;
}

// An integer conversion's value, or R for out of range and S for a special value (leaving 0).
template <class T>
std::string out(const ZEPDecfloat& d, Uint32 (ZEPDecfloat::*to)(T*) const) {
    T v = 77;
    const Uint32 rc = (d.*to)(&v);
    EXPECT_TRUE(rc == 0 || v == 0);
    return rc == ECF_DECFLOAT_OUT_OF_RANGE               ? "R "
           : rc == ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR ? "S "
           : rc == 0                                     ? std::to_string(v) + " "
                                                         : "? ";
}

}  // namespace

TEST(Decfloat, TextInAndRoundingModes) {
    // The result code of the reading, the text written back and toString's own result.
    struct {
        const char* in;
        int mode;  // -1: the object's own, half-even
        Uint32 rc;
        const char* out;
        Uint32 outRc;
    } cases[] = {
        // clang-format off
        {"abc", -1, ECF_DECFLOAT_NOT_A_NUMBER, "NaN", ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR},
        {nullptr, -1, ECF_DECFLOAT_NOT_A_NUMBER, "NaN", ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR},
        {"NaN", -1, 0, "NaN", 0}, {"-inf", -1, 0, "-Infinity", 0},
        // A NaN with a payload is no special text; its payload and sign are not written.
        {"-NaN12", -1, ECF_DECFLOAT_NOT_A_NUMBER, "NaN", 0},
        {"1E+385", -1, ECF_DECFLOAT_POSITIVE_INFINITY, "Infinity", 0},
        {"-1E+385", -1, ECF_DECFLOAT_NEGATIVE_INFINITY, "-Infinity", 0},
        {"1E+385", ZEP_DECFLOAT_ROUND_DOWN, ECF_DECFLOAT_OUT_OF_RANGE, "9.999999999999999E+384", 0},
        {"1E-390", -1, ECF_DECFLOAT_OUT_OF_RANGE, "1E-390", 0},  // subnormal, though exact
        {"1.2345678901234567", ZEP_DECFLOAT_ROUND_HALF_EVEN, 0, "1.234567890123457", 0},
        {"1E+384", -1, 0, "1.000000000000000E+384", 0},  // folded down, clamped: no error
        // Mode 7 is taken, but a conversion that has to round then gives NaN.
        {"1.00000000000000001", 7, ECF_DECFLOAT_NOT_A_NUMBER, "NaN", 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        ZEPDecfloat d;
        Uint32 rc;
        EXPECT_EQ(c.mode < 0 ? d.fromString(c.in) : d.fromString(c.in, ZEPDecfloatRounding(c.mode)),
                  c.rc)
            << c.in;
        EXPECT_EQ(str(d, &rc), c.out) << c.in << " " << c.mode;
        EXPECT_EQ(rc, c.outRc) << c.in;
    }
    ZEPDecfloat d;
    char buf[64];
    EXPECT_EQ(d.toString(buf, 43), ECF_DECFLOAT_NOT_A_NUMBER);  // no value yet
    // The size counts characters without the NUL; special texts need none.
    d.fromString("12.5");
    EXPECT_EQ(d.toString(buf, 3), ECF_DECFLOAT_INVALID_STRING_LENGTH);
    EXPECT_EQ(d.toString(buf, 4), 0u);
    EXPECT_STREQ(buf, "12.5");
    d.fromString("-Infinity");
    EXPECT_EQ(d.toString(buf, 0), 0u);
    EXPECT_STREQ(buf, "-Infinity");

    // Modes beyond 0 to 7 are refused, the text is then not read and the mode stays.
    EXPECT_EQ(d.setRoundingMode(ZEPDecfloatRounding(-1)), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    EXPECT_EQ(d.setRoundingMode(ZEP_DECFLOAT_ROUND_UP), 0u);
    EXPECT_EQ(d.fromString("7", ZEPDecfloatRounding(8)), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    EXPECT_EQ(str(d), "-Infinity");
    EXPECT_EQ(d.context().round, Uint32(ZEP_DECFLOAT_ROUND_UP));
    EXPECT_EQ(ZEPDecfloat16("1.05", ZEP_DECFLOAT_ROUND_DOWN).context().round, 2u);
    // A width that is no size leaves the context without settings.
    EXPECT_EQ(ZEPDecfloat(32u).context().formatBytes, 0u);
}

TEST(Decfloat, IntegersOut) {
    // What toUInt32, toSInt32, toUInt64 and toSInt64 give.
    const char* const cases[][2] = {
        // clang-format off
        {"-0.5", "R 0 R 0"}, {"-0", "R 0 R 0"}, {"1.9", "1 1 1 1"}, {"-1.9", "R -1 R -1"},
        {"-2147483648", "R -2147483648 R -2147483648"},
        {"2147483648", "2147483648 R 2147483648 2147483648"},
        {"5E+9", "R R 5000000000 5000000000"}, {"9E+19", "R R R R"},
        {"18446744073709551615", "R R 18446744073709551615 R"},
        {"-9223372036854775808", "R R R -9223372036854775808"},
        {"9223372036854775808", "R R 9223372036854775808 R"},
        {"1.5E+3", "1500 1500 1500 1500"}, {"0.000999", "0 0 0 0"},
        {"1234567890123456E-6", "1234567890 1234567890 1234567890 1234567890"},
        // The digit count decides before the value: 0E+20 has 21 digits before the point.
        {"0E+20", "R R R R"}, {"0E+19", "R R 0 R"}, {"Infinity", "S S S S"}, {"xyz", "S S S S"},
        // clang-format on
    };
    for (const auto& c : cases) {
        const ZEPDecfloat34 d(c[0]);
        EXPECT_EQ(out(d, &ZEPDecfloat::toUInt32) + out(d, &ZEPDecfloat::toSInt32) +
                      out(d, &ZEPDecfloat::toUInt64) + out(d, &ZEPDecfloat::toSInt64),
                  std::string(c[1]) + " ")
            << c[0];
    }
}

TEST(Decfloat, NumbersIn) {
    // Integers of 32 bits and doubles keep 15 digits; 64-bit integers their own, rounded.
    const std::pair<ZEPDecfloat, const char*> in[] = {
        {ZEPDecfloat(1.5, 64u), "1.50000000000000"},
        {ZEPDecfloat(-2147483647 - 1, 64u), "-2147483648.00000"},
        {ZEPDecfloat(7u, 64u), "7.00000000000000"},
        {ZEPDecfloat(4.9406564584124654e-324, 64u), "4.94065645841247E-324"},
        {ZEPDecfloat(std::numeric_limits<double>::infinity(), 64u), "Infinity"},
        {ZEPDecfloat(~Uint64(0), 64u), "1.844674407370955E+19"},
        {ZEPDecfloat(~Uint64(0), 128u), "18446744073709551615"},
        {ZEPDecfloat(std::numeric_limits<Sint64>::min(), 128u), "-9223372036854775808"}};
    for (const auto& [d, want] : in) EXPECT_EQ(str(d), want);

    // clang-format off
    const std::tuple<const char*, Uint32, double> doubles[] = {
        {"-1.25E-3", 0, -0.00125}, {"1E+400", ECF_DECFLOAT_OUT_OF_RANGE, HUGE_VAL},
        {"1E-400", ECF_DECFLOAT_OUT_OF_RANGE, 0}, {"-Inf", 0, -HUGE_VAL},
        {"1x", ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR, 5}};
    // clang-format on
    for (const auto& [in, rc, want] : doubles) {
        double x = 5;
        EXPECT_EQ(ZEPDecfloat34(in).toDouble(&x), rc) << in;
        EXPECT_EQ(x, want) << in;
    }
}

TEST(Decfloat, PackedBytes) {
    // The little-endian image of the interchange format.
    Uint8 b[16];
    ZEPDecfloat16 d("-7.50");
    EXPECT_EQ(d.toDecPacked(b, 16), ECF_DECFLOAT_INVALID_ARRAY_SIZE);
    EXPECT_EQ(d.fromDecPacked(b, 16), ECF_DECFLOAT_INVALID_ARRAY_SIZE);
    ASSERT_EQ(d.toDecPacked(b, 8), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b), 8),
              std::string("\xd0\x03\0\0\0\0\x30\xa2", 8));
    ZEPDecfloat16 back;
    ASSERT_EQ(back.fromDecPacked(b, 8), 0u);
    EXPECT_EQ(str(back), "-7.50");
    ZEPDecfloat34 q("-7.50");
    EXPECT_EQ(q.toDecPacked(b, 8), ECF_DECFLOAT_INVALID_ARRAY_SIZE);
    ASSERT_EQ(q.toDecPacked(b, 16), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b), 16),
              std::string("\xd0\x03\0\0\0\0\0\0\0\0\0\0\0\x80\x07\xa2", 16));
    ASSERT_EQ(q.fromDecPacked(b, 16), 0u);
    EXPECT_EQ(str(q), "-7.50");
}

TEST(Decfloat, BetweenSizes) {
    // The target's precision and mode decide; a refused mode leaves the target alone.
    ZEPDecfloat16 d;
    ZEPDecfloat34 q("1.234567890123456789012345678901234");
    EXPECT_EQ(q.toDecfloat16(d), 0u);
    EXPECT_EQ(str(d), "1.234567890123457");
    EXPECT_EQ(d.fromDecfloat34(q, ZEP_DECFLOAT_ROUND_DOWN), 0u);
    EXPECT_EQ(str(d), "1.234567890123456");
    EXPECT_EQ(d.fromDecfloat34(q, ZEPDecfloatRounding(8)), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    ZEPDecfloat34 wide;
    EXPECT_EQ(wide.fromDecfloat16(ZEPDecfloat16("sNaN")), 0u);
    EXPECT_EQ(str(wide), "sNaN");
    // A source that holds a failed text passes its failure on; the target keeps its value.
    EXPECT_EQ(ZEPDecfloat16("nonsense").toDecfloat34(wide), ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR);
    EXPECT_EQ(str(wide), "sNaN");
    EXPECT_EQ(ZEPDecfloat16("-0.001").toDecfloat34(wide), 0u);
    EXPECT_EQ(str(wide), "-0.001");
    EXPECT_EQ(wide.fromDecfloat16(ZEPDecfloat16()), ECF_DECFLOAT_NOT_A_NUMBER);
}
