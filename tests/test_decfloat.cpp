// ZEPDecfloat: which outcome of a conversion is an error, with which ECF code, and what the
// object holds afterwards.
#include <gtest/gtest.h>

#include <math.h>

#include <limits>
#include <string>

#include "zepdecengine.h"
#include "zepdecfloat.h"
#include "zepecf.h"

namespace {

std::string str(const ZEPDecfloat& d, Uint32* rc = nullptr) {
    char buf[64] = {};
    Uint32 r = d.toString(buf, 43);
    if (rc != nullptr) *rc = r;
    return buf;
}

const ZEPDecfloatRounding kNoMode = (ZEPDecfloatRounding)7;

}  // namespace

TEST(Decfloat, TextResults) {
    ZEPDecfloat d;
    Uint32 rc;
    char buf[64];
    EXPECT_EQ(d.toString(buf, 43), ECF_DECFLOAT_NOT_A_NUMBER);  // no value yet
    EXPECT_EQ(d.context().digits, 16);

    EXPECT_EQ(d.fromString("abc"), ECF_DECFLOAT_NOT_A_NUMBER);
    EXPECT_EQ(str(d, &rc), "NaN");
    EXPECT_EQ(rc, ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR);
    EXPECT_EQ(d.context().status, (Uint32)ZEP_DEC_CONVERSION_SYNTAX);

    EXPECT_EQ(d.fromString("NaN"), 0u);
    EXPECT_EQ(str(d, &rc), "NaN");
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(d.fromString("-inf"), 0u);
    EXPECT_EQ(str(d, &rc), "-Infinity");
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(d.fromString("sNaN"), 0u);
    EXPECT_EQ(str(d), "sNaN");
    // A NaN with a payload is no special text; its payload and sign are not written.
    EXPECT_EQ(d.fromString("-NaN12"), ECF_DECFLOAT_NOT_A_NUMBER);
    EXPECT_EQ(str(d, &rc), "NaN");
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(d.fromString(nullptr), ECF_DECFLOAT_NOT_A_NUMBER);

    EXPECT_EQ(d.fromString("1E+385"), ECF_DECFLOAT_POSITIVE_INFINITY);
    EXPECT_EQ(str(d), "Infinity");
    EXPECT_EQ(d.fromString("-1E+385"), ECF_DECFLOAT_NEGATIVE_INFINITY);
    EXPECT_EQ(d.fromString("1E+385", ZEP_DECFLOAT_ROUND_DOWN), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(str(d), "9.999999999999999E+384");
    EXPECT_EQ(d.fromString("-1E+385", ZEP_DECFLOAT_ROUND_CEILING), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(str(d), "-9.999999999999999E+384");
    EXPECT_EQ(d.fromString("1E-390"), ECF_DECFLOAT_OUT_OF_RANGE);  // subnormal, though exact
    EXPECT_EQ(str(d), "1E-390");
    EXPECT_EQ(d.fromString("1E-9999"), ECF_DECFLOAT_OUT_OF_RANGE);  // ceiling still in force
    EXPECT_EQ(str(d), "1E-398");
    EXPECT_EQ(d.fromString("1E-9999", ZEP_DECFLOAT_ROUND_HALF_EVEN), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(str(d), "0E-398");
    EXPECT_EQ(d.fromString("1.2345678901234567", ZEP_DECFLOAT_ROUND_HALF_EVEN), 0u);
    EXPECT_EQ(str(d), "1.234567890123457");
    EXPECT_EQ(d.fromString("1E+384"), 0u);  // folded down, clamped: no error
    EXPECT_EQ(d.context().status, (Uint32)ZEP_DEC_CLAMPED);

    ZEPDecfloat34 q;
    EXPECT_EQ(q.fromString("-1.234567890123456789012345678901234E-6143"), 0u);
    // The size counts characters without the NUL.
    EXPECT_EQ(q.toString(buf, 41), ECF_DECFLOAT_INVALID_STRING_LENGTH);
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(q.toString(buf, 42), 0u);
    EXPECT_STREQ(buf, "-1.234567890123456789012345678901234E-6143");
    d.fromString("12.5");
    EXPECT_EQ(d.toString(buf, 3), ECF_DECFLOAT_INVALID_STRING_LENGTH);
    EXPECT_EQ(d.toString(buf, 4), 0u);
    // Special texts need no size.
    d.fromString("-Infinity");
    EXPECT_EQ(d.toString(buf, 0), 0u);
    EXPECT_STREQ(buf, "-Infinity");
}

TEST(Decfloat, RoundingModes) {
    ZEPDecfloat d;
    EXPECT_EQ(d.setRoundingMode((ZEPDecfloatRounding)8), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    EXPECT_EQ(d.setRoundingMode((ZEPDecfloatRounding)-1), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    EXPECT_EQ(d.context().round, 0u);
    EXPECT_EQ(d.setRoundingMode(ZEP_DECFLOAT_ROUND_UP), 0u);
    EXPECT_EQ(d.fromString("1.00000000000000001"), 0u);
    EXPECT_EQ(str(d), "1.000000000000001");

    // A refused mode is returned and the text is not read.
    d.fromString("42");
    EXPECT_EQ(d.fromString("7", (ZEPDecfloatRounding)9), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    EXPECT_EQ(str(d), "42");
    EXPECT_EQ(d.context().round, (Uint32)ZEP_DECFLOAT_ROUND_UP);

    // 7 is taken, but a conversion that has to round then gives NaN.
    EXPECT_EQ(d.setRoundingMode(kNoMode), 0u);
    EXPECT_EQ(d.fromString("1.00000000000000001"), ECF_DECFLOAT_NOT_A_NUMBER);
    EXPECT_EQ(d.context().status & ZEP_DEC_INVALID_CONTEXT, (Uint32)ZEP_DEC_INVALID_CONTEXT);
    Uint32 rc;
    EXPECT_EQ(str(d, &rc), "NaN");
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(d.fromString("1.5"), 0u);  // exact: nothing to round
    EXPECT_EQ(d.fromString("1E+385"), ECF_DECFLOAT_POSITIVE_INFINITY);
    EXPECT_EQ(d.fromUInt64(12345678901234567ull), ECF_DECFLOAT_NOT_A_NUMBER);
}

TEST(Decfloat, IntegersOut) {
    ZEPDecfloat d;
    Uint32 u32 = 77;
    Sint32 s32 = 77;
    Uint64 u64 = 77;
    Sint64 s64 = 77;

    d.fromString("-0.5");
    EXPECT_EQ(d.toUInt32(&u32), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(u32, 0u);
    s32 = 77;
    EXPECT_EQ(d.toSInt32(&s32), 0u);
    EXPECT_EQ(s32, 0);
    d.fromString("-0");
    EXPECT_EQ(d.toUInt64(&u64), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(d.toSInt64(&s64), 0u);
    EXPECT_EQ(s64, 0);

    d.fromString("-2147483648");
    EXPECT_EQ(d.toSInt32(&s32), 0u);
    EXPECT_EQ(s32, -2147483647 - 1);
    d.fromString("2147483648");
    s32 = 77;
    EXPECT_EQ(d.toSInt32(&s32), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(s32, 0);
    EXPECT_EQ(d.toUInt32(&u32), 0u);
    EXPECT_EQ(u32, 2147483648u);
    d.fromString("4294967295");
    EXPECT_EQ(d.toUInt32(&u32), 0u);
    EXPECT_EQ(u32, 4294967295u);
    d.fromString("5E+9");
    EXPECT_EQ(d.toUInt32(&u32), ECF_DECFLOAT_OUT_OF_RANGE);
    d.fromString("9E+19");
    EXPECT_EQ(d.toUInt64(&u64), ECF_DECFLOAT_OUT_OF_RANGE);
    d.fromString("1.8446744073709551615E+19");
    ZEPDecfloat34 q("18446744073709551615");
    EXPECT_EQ(q.toUInt64(&u64), 0u);
    EXPECT_EQ(u64, 18446744073709551615ull);
    q.fromString("-9223372036854775808");
    EXPECT_EQ(q.toSInt64(&s64), 0u);
    EXPECT_EQ(s64, std::numeric_limits<Sint64>::min());
    q.fromString("9223372036854775808");
    EXPECT_EQ(q.toSInt64(&s64), ECF_DECFLOAT_OUT_OF_RANGE);
    q.fromString("9223372036854775807.999999");
    EXPECT_EQ(q.toSInt64(&s64), 0u);
    EXPECT_EQ(s64, std::numeric_limits<Sint64>::max());

    d.fromString("1.9");
    EXPECT_EQ(d.toSInt64(&s64), 0u);
    EXPECT_EQ(s64, 1);
    d.fromString("-1.9");
    EXPECT_EQ(d.toSInt64(&s64), 0u);
    EXPECT_EQ(s64, -1);
    d.fromString("1.5E+3");
    EXPECT_EQ(d.toSInt32(&s32), 0u);
    EXPECT_EQ(s32, 1500);
    d.fromString("1234567890123456E-6");
    EXPECT_EQ(d.toUInt32(&u32), 0u);
    EXPECT_EQ(u32, 1234567890u);
    d.fromString("0.000999");
    EXPECT_EQ(d.toUInt32(&u32), 0u);
    EXPECT_EQ(u32, 0u);

    // The digit count decides before the value: 0E+20 has 21 digits before the point.
    d.fromString("0E+20");
    EXPECT_EQ(d.toUInt64(&u64), ECF_DECFLOAT_OUT_OF_RANGE);
    d.fromString("0E+19");
    EXPECT_EQ(d.toUInt64(&u64), 0u);
    EXPECT_EQ(d.toSInt64(&s64), ECF_DECFLOAT_OUT_OF_RANGE);

    d.fromString("Infinity");
    s64 = 77;
    EXPECT_EQ(d.toSInt64(&s64), ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR);
    EXPECT_EQ(s64, 0);
    d.fromString("xyz");
    EXPECT_EQ(d.toUInt32(&u32), ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR);
}

TEST(Decfloat, IntegersAndDoublesIn) {
    ZEPDecfloat d;
    EXPECT_EQ(d.fromDouble(1.5), 0u);
    EXPECT_EQ(str(d), "1.50000000000000");
    EXPECT_EQ(d.number().exponent, -14);
    EXPECT_EQ(d.number().digits, 15);
    EXPECT_EQ(d.fromUInt32(7), 0u);
    EXPECT_EQ(str(d), "7.00000000000000");
    EXPECT_EQ(d.fromSInt32(-2147483647 - 1), 0u);
    EXPECT_EQ(str(d), "-2147483648.00000");
    EXPECT_EQ(d.fromDouble(0.1), 0u);
    EXPECT_EQ(str(d), "0.100000000000000");
    EXPECT_EQ(d.fromDouble(std::numeric_limits<double>::infinity()), 0u);
    EXPECT_EQ(str(d), "Infinity");
    EXPECT_EQ(d.fromDouble(-std::numeric_limits<double>::quiet_NaN()), 0u);
    EXPECT_EQ(d.number().bits & ZEP_DEC_NAN, ZEP_DEC_NAN);
    EXPECT_EQ(d.fromDouble(4.9406564584124654e-324), 0u);  // decimal64 reaches further down
    EXPECT_EQ(str(d), "4.94065645841247E-324");

    EXPECT_EQ(d.fromUInt64(18446744073709551615ull), 0u);  // rounded, and that is no error
    EXPECT_EQ(str(d), "1.844674407370955E+19");
    ZEPDecfloat34 q;
    EXPECT_EQ(q.fromUInt64(18446744073709551615ull), 0u);
    EXPECT_EQ(str(q), "18446744073709551615");
    EXPECT_EQ(q.fromSInt64(std::numeric_limits<Sint64>::min()), 0u);
    EXPECT_EQ(str(q), "-9223372036854775808");

    double x = 0;
    q.fromString("-1.25E-3");
    EXPECT_EQ(q.toDouble(&x), 0u);
    EXPECT_EQ(x, -0.00125);
    q.fromString("1E+400");
    EXPECT_EQ(q.toDouble(&x), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_TRUE(isinf(x));
    q.fromString("1E-400");
    EXPECT_EQ(q.toDouble(&x), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(x, 0.0);
    q.fromString("-Inf");
    EXPECT_EQ(q.toDouble(&x), 0u);
    EXPECT_TRUE(isinf(x) && x < 0);
    q.fromString("1x");
    x = 5;
    EXPECT_EQ(q.toDouble(&x), ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR);

    // The constructors with values.
    EXPECT_EQ(str(ZEPDecfloat(7u, 64u)), "7.00000000000000");
    EXPECT_EQ(str(ZEPDecfloat(-3, 128u)), "-3.00000000000000");
    EXPECT_EQ(str(ZEPDecfloat((Uint64)5, 64u)), "5");
    EXPECT_EQ(str(ZEPDecfloat((Sint64)-5, 64u)), "-5");
    EXPECT_EQ(str(ZEPDecfloat(0.25, 64u)), "0.250000000000000");
    EXPECT_EQ(str(ZEPDecfloat("1.05", ZEP_DECFLOAT_ROUND_DOWN, 64u)), "1.05");
    EXPECT_EQ(ZEPDecfloat("1.05", ZEP_DECFLOAT_ROUND_DOWN, 64u).context().round, 2u);
    ZEPDecfloat16 bad("oops");
    EXPECT_EQ(bad.context().status, (Uint32)ZEP_DEC_CONVERSION_SYNTAX);
    // A width that is no size leaves the context without settings.
    ZEPDecfloat none(32u);
    EXPECT_EQ(none.context().digits, 0);
    EXPECT_EQ(none.context().formatBytes, 0u);
}

TEST(Decfloat, PackedBytes) {
    ZEPDecfloat16 d("-7.50");
    Uint8 b[16];
    EXPECT_EQ(d.toDecPacked(b, 16), ECF_DECFLOAT_INVALID_ARRAY_SIZE);
    EXPECT_EQ(d.fromDecPacked(b, 16), ECF_DECFLOAT_INVALID_ARRAY_SIZE);
    ASSERT_EQ(d.toDecPacked(b, 8), 0u);
    const Uint8 want64[8] = {0xd0, 0x03, 0, 0, 0, 0, 0x30, 0xa2};  // a2300000000003d0
    EXPECT_EQ(memcmp(b, want64, 8), 0);

    ZEPDecfloat34 q("-7.50");
    EXPECT_EQ(q.toDecPacked(b, 8), ECF_DECFLOAT_INVALID_ARRAY_SIZE);
    ASSERT_EQ(q.toDecPacked(b, 16), 0u);
    const Uint8 want128[16] = {0xd0, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x07, 0xa2};
    EXPECT_EQ(memcmp(b, want128, 16), 0);

    for (const char* t : {"-7.50", "1.000000000000000E+384", "1E-398", "-0E+12", "Infinity", "sNaN",
                          "1234567890123456", "0.000001"}) {
        ZEPDecfloat16 a(t), back;
        ASSERT_EQ(a.toDecPacked(b, 8), 0u) << t;
        ASSERT_EQ(back.fromDecPacked(b, 8), 0u) << t;
        EXPECT_EQ(str(back), str(a)) << t;
    }
    ZEPDecfloat34 big("-9.999999999999999999999999999999999E+6144"), back;
    ASSERT_EQ(big.toDecPacked(b, 16), 0u);
    ASSERT_EQ(back.fromDecPacked(b, 16), 0u);
    EXPECT_EQ(str(back), "-9.999999999999999999999999999999999E+6144");
}

TEST(Decfloat, BetweenSizes) {
    ZEPDecfloat16 d;
    ZEPDecfloat34 q("1.234567890123456789012345678901234");
    EXPECT_EQ(q.toDecfloat16(d), 0u);
    EXPECT_EQ(str(d), "1.234567890123457");
    EXPECT_EQ(d.fromDecfloat34(q, ZEP_DECFLOAT_ROUND_DOWN), 0u);
    EXPECT_EQ(str(d), "1.234567890123456");
    EXPECT_EQ(d.fromDecfloat34(q, (ZEPDecfloatRounding)8), ECF_DECFLOAT_INVALID_ROUNDING_MODE);
    EXPECT_EQ(str(d), "1.234567890123456");

    // The target's mode decides: d rounds down now.
    q.fromString("1E+6000");
    EXPECT_EQ(q.toDecfloat16(d), ECF_DECFLOAT_OUT_OF_RANGE);
    EXPECT_EQ(str(d), "9.999999999999999E+384");
    d = ZEPDecfloat16();
    EXPECT_EQ(q.toDecfloat16(d), ECF_DECFLOAT_POSITIVE_INFINITY);

    ZEPDecfloat16 small("-0.001");
    ZEPDecfloat34 wide;
    EXPECT_EQ(small.toDecfloat34(wide), 0u);
    EXPECT_EQ(str(wide), "-0.001");
    EXPECT_EQ(wide.fromDecfloat16(ZEPDecfloat16("sNaN")), 0u);
    EXPECT_EQ(str(wide), "sNaN");

    // A source that holds a failed text passes its failure on; the target keeps its value.
    ZEPDecfloat16 failed("nonsense");
    EXPECT_EQ(failed.toDecfloat34(wide), ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR);
    EXPECT_EQ(str(wide), "sNaN");
    EXPECT_EQ(wide.fromDecfloat16(ZEPDecfloat16()), ECF_DECFLOAT_NOT_A_NUMBER);

    // Objects are plain bytes: a copy is an equal, independent value.
    ZEPDecfloat16 copy = small;
    small.fromString("2");
    EXPECT_EQ(str(copy), "-0.001");
}
