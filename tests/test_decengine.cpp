// The decimal engine where the conformance cases (test_decconformance) don't reach: the text
// grammar's special texts, exponents beyond any format, rounding mode 7 and very long texts, the
// scientific text of every shape, and the interchange encodings of every declet.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "zepdecengine.h"

namespace {

std::string text(const ZEPDecValue& v) {
    char buf[64];
    const Sint32 n = zepDecValueToText(&v, buf);
    EXPECT_EQ(size_t(n), strlen(buf));
    return buf;
}

ZEPDecValue make(const std::string& digits, Sint32 exponent, Uint8 bits = 0) {
    ZEPDecValue v;
    zepDecValueZero(&v);
    v.digits = Sint32(digits.size());
    v.exponent = exponent;
    v.bits = bits;
    static const Uint16 scale[] = {1, 10, 100, 1000};
    for (size_t i = 0; i < digits.size(); ++i) {
        const size_t pos = digits.size() - 1 - i;  // power of ten of this digit
        v.coefficient[pos / 4] =
            Uint16(v.coefficient[pos / 4] + (digits[i] - '0') * scale[pos % 4]);
    }
    return v;
}

std::string hex(const Uint8* b, int n) {
    std::string s;
    char t[3];
    for (int i = 0; i < n; ++i) snprintf(t, sizeof t, "%02x", b[i]), s += t;
    return s;
}

const Uint32 kSyntax = ZEP_DEC_CONVERSION_SYNTAX, kClamped = ZEP_DEC_CLAMPED;
const Uint32 kRoundedInexact = ZEP_DEC_ROUNDED | ZEP_DEC_INEXACT;
const Uint32 kOverflow = ZEP_DEC_OVERFLOW | kRoundedInexact;
const Uint32 kUnderflow = ZEP_DEC_SUBNORMAL | ZEP_DEC_UNDERFLOW | kRoundedInexact;

}  // namespace

// Text read in a format and written back (the scientific text fixes coefficient and exponent),
// with the conditions and whether it was a special text.
TEST(DecEngine, ReadingText) {
    const std::string tie = "1" + std::string(32, '0') + "25" + std::string(5000, '0');
    struct {
        std::string in;
        Uint32 bits, mode;
        const char* out;
        Uint32 status, special;
    } cases[] = {
        // clang-format off
        {"00000", 64, 0, "0", 0, 0}, {"0.00", 64, 0, "0.00", 0, 0}, {".5", 64, 0, "0.5", 0, 0},
        {"5.", 64, 0, "5", 0, 0}, {"-000123.4500e+0003", 64, 0, "-123450.0", 0, 0},
        {"+1E-0", 64, 0, "1", 0, 0}, {"1e00000000000000000003", 64, 0, "1E+3", 0, 0},
        // Specials named outright, in any case and with a sign.
        {"Infinity", 64, 0, "Infinity", 0, 1}, {"-inf", 64, 0, "-Infinity", 0, 1},
        {"+INFINITY", 64, 0, "Infinity", 0, 1}, {"nan", 64, 0, "NaN", 0, 1},
        {"-NaN", 64, 0, "-NaN", 0, 1}, {"SNAN", 64, 0, "sNaN", 0, 1},
        // A NaN with digits has a payload, as many digits as the precision and no more; it is
        // no special text.
        {"NaN0012", 64, 0, "NaN12", 0, 0}, {"-sNaN000", 64, 0, "-sNaN", 0, 0},
        {"NaN1234567890123456", 64, 0, "NaN1234567890123456", 0, 0},
        {"NaN12345678901234567", 64, 0, "NaN", kSyntax, 0},
        {"NaN12345678901234567", 128, 0, "NaN12345678901234567", 0, 0},
        // Exponents beyond any format.
        {"1E+9999999999", 64, 0, "Infinity", kOverflow, 0},
        {"1E-9999999999", 64, 0, "0E-398", kUnderflow, 0},
        {"0E+9999999999", 64, 0, "0E+369", kClamped, 0},
        {"-0E-9999999999", 128, 0, "-0E-6176", kClamped, 0},
        // Mode 7 is no mode: rounding gives NaN with invalid context; exact texts are fine, and
        // dropping zeros leaves no residue to apply.
        {"1.00000000000000001", 64, 7, "NaN", kRoundedInexact | ZEP_DEC_INVALID_CONTEXT, 0},
        {"1.000000000000000000", 64, 7, "1.000000000000000", ZEP_DEC_ROUNDED, 0},
        {"12.5", 64, 7, "12.5", 0, 0},
        // A tie decided by a digit thousands of places away; the long text needs no work area.
        {tie + "1", 128, 0, "1.000000000000000000000000000000003E+5035", kRoundedInexact, 0},
        {tie + "0", 128, 0, "1.000000000000000000000000000000002E+5035", kRoundedInexact, 0},
        {"1234567890123456789012345678901234567890", 128, 0,
         "1.234567890123456789012345678901235E+39", kRoundedInexact, 0},
        {"12345678901234567890123456789012345678901", 128, 0,
         "1.234567890123456789012345678901235E+40", kRoundedInexact, 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        ZEPDecContext ctx;
        zepDecContextInit(&ctx, c.bits);
        ctx.round = c.mode;
        ZEPDecValue v;
        zepDecValueFromText(&v, c.in.c_str(), &ctx);
        EXPECT_EQ(text(v), c.out) << c.in.substr(0, 60);
        EXPECT_EQ(ctx.status, c.status) << c.in.substr(0, 60);
        EXPECT_EQ(ctx.specialText, c.special) << c.in.substr(0, 60);
    }

    for (const char* bad :
         {"1e",    "1e+",    "1.2.3",
          "--1",   "",       ".",
          "+",     "-",      " 1",
          "1 ",    "1e1.5",  "e5",
          "1E+-1", "Inf5",   "Infinit",
          "NaN.1", "NaN1e1", ".NaN",
          "1x",    "0x10",   "12345678901234567890123456789012345678901234567890z"}) {
        ZEPDecContext ctx;
        zepDecContextInit(&ctx, 64);
        ZEPDecValue v;
        zepDecValueFromText(&v, bad, &ctx);
        EXPECT_EQ(ctx.status, kSyntax) << "'" << bad << "'";
        EXPECT_EQ(v.bits, ZEP_DEC_NAN) << bad;
        EXPECT_EQ(ctx.specialText, 0u) << bad;
    }

    // In a context wide enough to hold them, huge exponents show clamped on reading.
    ZEPDecContext wide;
    zepDecContextInit(&wide, 128);
    wide.emax = 2000000000;
    wide.emin = -2000000000;
    wide.clamp = 0;
    const std::pair<const char*, Sint32> huge[] = {
        {"1E+99999999999", 1999999998},   {"1E-99999999999", -1999999998},
        {"1E+2000000000", 1999999998},    {"1E+1999999999", 1999999999},
        {"1E+0001999999999", 1999999999}, {"1.5E-1999999999", -2000000000},
        {"-1E+9999999999", 1999999998}};
    for (const auto& [in, exponent] : huge) {
        ZEPDecValue v;
        wide.status = 0;
        zepDecValueFromText(&v, in, &wide);
        EXPECT_EQ(v.exponent, exponent) << in;
        EXPECT_EQ(wide.status, 0u) << in;
    }
}

// The text is written a word at a time; against the rules spelled out character by character,
// for every digit count, every place of the point and every form, with either sign.
TEST(DecEngine, ScientificTextAllShapes) {
    const std::string all = "123456789012345678901234567890123456";
    for (int n = 1; n <= 36; ++n) {
        const std::string d = all.substr(0, size_t(n));
        for (int e = -n - 8; e <= 3; ++e) {
            for (Uint8 sign : {Uint8(0), Uint8(ZEP_DEC_NEG)}) {
                std::string want = sign ? "-" : "";
                const int pre = n + e;
                if (e == 0) {
                    want += d;
                } else if (e > 0 || pre < -5) {
                    want += d.substr(0, 1) + (n > 1 ? std::string(".").append(d, 1) : "") + "E" +
                            (e + n - 1 < 0 ? "-" : "+") + std::to_string(abs(e + n - 1));
                } else if (pre > 0) {
                    want += d.substr(0, size_t(pre)) + "." + d.substr(size_t(pre));
                } else {
                    want += "0." + std::string(size_t(-pre), '0') + d;
                }
                char buf[64];
                memset(buf, 'x', sizeof buf);
                ZEPDecValue v = make(d, e, sign);
                const Sint32 length = zepDecValueToText(&v, buf);
                ASSERT_EQ(std::string(buf), want) << n << " " << e;
                ASSERT_EQ(length, Sint32(want.size()));
                // Nothing past the 43 bytes a 34-digit text may need, or past a longer text.
                for (int i = std::max(ZEP_DEC_TEXT_MAX, length + 1); i < 64; ++i)
                    ASSERT_EQ(buf[i], 'x') << n << " " << e;
            }
        }
    }
}

TEST(DecEngine, EncodingsKnownBytes) {
    struct {
        ZEPDecValue v;
        int bytes;
        const char* hex;
        Uint32 status;
    } cases[] = {
        {make("750", -2, ZEP_DEC_NEG), 8, "a2300000000003d0", 0},  // -7.50
        {make("750", -2, ZEP_DEC_NEG), 16, "a20780000000000000000000000003d0", 0},
        {make("9999999999999999", 369), 8, "77fcff3fcff3fcff", 0},
        {make("0", 0, ZEP_DEC_INF | ZEP_DEC_NEG), 8, "f800000000000000", 0},
        {make("0", 0, ZEP_DEC_SNAN), 16, "7e000000000000000000000000000000", 0},
        // A NaN payload that leaves the top digit free is kept, a full-length one is not.
        {make("12345", 0, ZEP_DEC_NAN), 8, "7c000000000049c5", 0},
        {make("1234567890123456", 0, ZEP_DEC_NAN), 8, "7c00000000000000", 0},
        // Exponents beyond the format fold down when encoded (1E+384 is 1000000000000000E+369);
        // zeros are clamped.
        {make("1", 384), 8, "47fc000000000000", kClamped},
        {make("0", 500), 8, "43fc000000000000", kClamped},
        {make("0", -500), 8, "0000000000000000", kClamped},
    };
    for (const auto& c : cases) {
        ZEPDecContext ctx;
        zepDecContextInit(&ctx, c.bytes * 8);
        Uint8 b[16];
        c.bytes == 8 ? zepDecEncode64(b, &c.v, &ctx) : zepDecEncode128(b, &c.v, &ctx);
        EXPECT_EQ(hex(b, c.bytes), c.hex) << text(c.v);
        EXPECT_EQ(ctx.status, c.status) << text(c.v);
    }
    ZEPDecContext ctx;
    zepDecContextInit(&ctx, 64);
    const Uint8 folded[8] = {0x47, 0xfc, 0, 0, 0, 0, 0, 0};
    ZEPDecValue back;
    zepDecDecode64(folded, &back, &ctx);
    EXPECT_EQ(text(back), "1.000000000000000E+384");
}

TEST(DecEngine, AllDecletsDecodeAndEncodingIsCanonical) {
    // Each declet in the lowest position of a decimal64 with exponent 0.
    ZEPDecContext c;
    zepDecContextInit(&c, 64);
    std::set<unsigned> values;
    int nonCanonical = 0;
    for (unsigned x = 0; x < 1024; ++x) {
        Uint8 b[8] = {0x22, 0x38, 0, 0, 0, 0, Uint8(x >> 8), Uint8(x)};
        ZEPDecValue v;
        zepDecDecode64(b, &v, &c);
        ASSERT_EQ(v.exponent, 0);
        ASSERT_LT(v.coefficient[0], 1000u) << x;
        values.insert(v.coefficient[0]);
        Uint8 e[8];
        zepDecEncode64(e, &v, &c);
        const unsigned y = (unsigned(e[6]) << 8 | e[7]) & 0x3FF;
        // The 24 redundant declets are the all-large-digits form (bits 1-3 and 5-6 set) with a
        // non-zero unused pair in bits 8-9; they encode back without that pair.
        const bool redundant = (x & 0x6E) == 0x6E && (x & 0x300) != 0;
        nonCanonical += redundant;
        EXPECT_EQ(y, redundant ? x & ~0x300u : x) << x;
    }
    EXPECT_EQ(values.size(), 1000u);
    EXPECT_EQ(nonCanonical, 24);
    EXPECT_EQ(c.status, 0u);
}
