// The decimal engine where the conformance cases (test_decconformance) don't reach: the text
// grammar's special texts, exponents beyond any format, rounding mode 7 and very long texts, the
// scientific text of every shape, and the interchange encodings of every declet.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "zepdecengine.h"

namespace {

struct Read {
    ZEPDecValue v;
    Uint32 status;
    Uint32 specialText;
    std::string text;
};

std::string text(const ZEPDecValue& v) {
    char buf[64];
    Sint32 n = zepDecValueToText(&v, buf);
    EXPECT_EQ((size_t)n, strlen(buf));
    return buf;
}

Read read(const std::string& s, Uint32 bits = 64, int mode = 0) {
    ZEPDecContext ctx;
    zepDecContextInit(&ctx, bits);
    ctx.round = (Uint32)mode;
    Read r;
    zepDecValueFromText(&r.v, s.c_str(), &ctx);
    r.status = ctx.status;
    r.specialText = ctx.specialText;
    r.text = text(r.v);
    return r;
}

// The coefficient as a digit string, most significant first.
std::string coefficient(const ZEPDecValue& v) {
    std::string s;
    for (int k = (v.digits + 3) / 4 - 1; k >= 0; --k) {
        char u[8];
        snprintf(u, sizeof u, "%04u", (unsigned)v.coefficient[k]);
        s += u;
    }
    return s.substr(s.size() - (size_t)v.digits);
}

ZEPDecValue make(const std::string& digits, Sint32 exponent, Uint8 bits = 0) {
    ZEPDecValue v;
    zepDecValueZero(&v);
    v.digits = (Sint32)digits.size();
    v.exponent = exponent;
    v.bits = bits;
    for (size_t i = 0; i < digits.size(); ++i) {
        size_t pos = digits.size() - 1 - i;  // power of ten of this digit
        v.coefficient[pos / 4] =
            (Uint16)(v.coefficient[pos / 4] + (digits[i] - '0') * (pos % 4 == 0   ? 1
                                                                   : pos % 4 == 1 ? 10
                                                                   : pos % 4 == 2 ? 100
                                                                                  : 1000));
    }
    return v;
}

const Uint32 kRoundedInexact = ZEP_DEC_ROUNDED | ZEP_DEC_INEXACT;
const Uint32 kOverflow = ZEP_DEC_OVERFLOW | kRoundedInexact;
const Uint32 kUnderflow = ZEP_DEC_SUBNORMAL | ZEP_DEC_UNDERFLOW | kRoundedInexact;

}  // namespace

TEST(DecEngine, Grammar) {
    Read r = read("00000");
    EXPECT_EQ(r.v.digits, 1);
    EXPECT_EQ(coefficient(r.v), "0");
    EXPECT_EQ(r.v.exponent, 0);
    EXPECT_EQ(r.status, 0u);
    r = read("0.00");
    EXPECT_EQ(coefficient(r.v), "0");
    EXPECT_EQ(r.v.exponent, -2);
    EXPECT_EQ(r.text, "0.00");
    r = read(".5");
    EXPECT_EQ(coefficient(r.v), "5");
    EXPECT_EQ(r.v.exponent, -1);
    r = read("5.");
    EXPECT_EQ(coefficient(r.v), "5");
    EXPECT_EQ(r.v.exponent, 0);
    r = read("-000123.4500e+0003");
    EXPECT_EQ(coefficient(r.v), "1234500");
    EXPECT_EQ(r.v.exponent, -1);
    EXPECT_EQ(r.v.bits, ZEP_DEC_NEG);
    EXPECT_EQ(r.text, "-123450.0");
    r = read("+1E-0");
    EXPECT_EQ(r.text, "1");
    EXPECT_EQ(read("1e00000000000000000003").v.exponent, 3);

    for (const char* bad :
         {"1e",    "1e+",    "1.2.3",
          "--1",   "",       ".",
          "+",     "-",      " 1",
          "1 ",    "1e1.5",  "e5",
          "1E+-1", "Inf5",   "Infinit",
          "NaN.1", "NaN1e1", ".NaN",
          "1x",    "0x10",   "12345678901234567890123456789012345678901234567890z"}) {
        r = read(bad);
        EXPECT_EQ(r.status, (Uint32)ZEP_DEC_CONVERSION_SYNTAX) << "'" << bad << "'";
        EXPECT_EQ(r.v.bits, ZEP_DEC_NAN) << bad;
        EXPECT_EQ(r.text, "NaN") << bad;
        EXPECT_EQ(r.specialText, 0u) << bad;
    }

    // Specials named outright, in any case and with a sign.
    struct {
        const char* in;
        Uint8 bits;
        const char* out;
    } named[] = {{"Infinity", ZEP_DEC_INF, "Infinity"},
                 {"-inf", ZEP_DEC_INF | ZEP_DEC_NEG, "-Infinity"},
                 {"+INFINITY", ZEP_DEC_INF, "Infinity"},
                 {"nan", ZEP_DEC_NAN, "NaN"},
                 {"-NaN", ZEP_DEC_NAN | ZEP_DEC_NEG, "-NaN"},
                 {"SNAN", ZEP_DEC_SNAN, "sNaN"}};
    for (auto& n : named) {
        r = read(n.in);
        EXPECT_EQ(r.v.bits, n.bits) << n.in;
        EXPECT_EQ(r.specialText, 1u) << n.in;
        EXPECT_EQ(r.status, 0u) << n.in;
        EXPECT_EQ(r.text, n.out) << n.in;
    }

    // A NaN with digits is a NaN with a payload, but not special text.
    r = read("NaN0012");
    EXPECT_EQ(r.v.bits, ZEP_DEC_NAN);
    EXPECT_EQ(coefficient(r.v), "12");
    EXPECT_EQ(r.specialText, 0u);
    EXPECT_EQ(r.text, "NaN12");
    r = read("-sNaN000");
    EXPECT_EQ(r.v.bits, ZEP_DEC_SNAN | ZEP_DEC_NEG);
    EXPECT_EQ(r.text, "-sNaN");
    EXPECT_EQ(r.specialText, 0u);
    // The payload may have as many digits as the precision, not more.
    r = read("NaN1234567890123456");
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(r.text, "NaN1234567890123456");
    r = read("NaN12345678901234567");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_CONVERSION_SYNTAX);
    EXPECT_EQ(r.text, "NaN");
    EXPECT_EQ(read("NaN12345678901234567", 128).text, "NaN12345678901234567");
}

TEST(DecEngine, HugeExponentsAreClampedOnReading) {
    // In a context wide enough to hold them, the clamped exponent itself shows.
    ZEPDecContext wide;
    zepDecContextInit(&wide, 128);
    wide.emax = 2000000000;
    wide.emin = -2000000000;
    wide.clamp = 0;
    struct {
        const char* in;
        Sint32 exponent;
    } cases[] = {{"1E+99999999999", 1999999998},   {"1E-99999999999", -1999999998},
                 {"1E+2000000000", 1999999998},    {"1E+1999999999", 1999999999},
                 {"1E+0001999999999", 1999999999}, {"1.5E-1999999999", -2000000000},
                 {"-1E+9999999999", 1999999998}};
    for (auto& c : cases) {
        ZEPDecValue v;
        wide.status = 0;
        zepDecValueFromText(&v, c.in, &wide);
        EXPECT_EQ(v.exponent, c.exponent) << c.in;
        EXPECT_EQ(wide.status, 0u) << c.in;
    }

    Read r = read("1E+9999999999");
    EXPECT_EQ(r.text, "Infinity");
    EXPECT_EQ(r.status, kOverflow);
    r = read("1E-9999999999");
    EXPECT_EQ(r.text, "0E-398");
    EXPECT_EQ(r.status, kUnderflow);
    r = read("0E+9999999999");
    EXPECT_EQ(r.text, "0E+369");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_CLAMPED);
    r = read("-0E-9999999999", 128);
    EXPECT_EQ(r.text, "-0E-6176");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_CLAMPED);
}

// What the conformance cases don't reach: mode 7, and ties decided thousands of digits away.
TEST(DecEngine, RoundingBeyondTheConformanceCases) {
    // Mode 7 is no mode: rounding gives NaN with invalid context; exact texts are fine.
    Read r = read("1.00000000000000001", 64, 7);
    EXPECT_EQ(r.text, "NaN");
    EXPECT_EQ(r.status, kRoundedInexact | ZEP_DEC_INVALID_CONTEXT);
    r = read("1.000000000000000000", 64, 7);  // only zeros go: no residue to apply
    EXPECT_EQ(r.text, "1.000000000000000");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_ROUNDED);
    EXPECT_EQ(read("12.5", 64, 7).status, 0u);

    // A tie decided by a digit thousands of places away; the long text needs no work area.
    std::string longText = "1" + std::string(32, '0') + "25" + std::string(5000, '0') + "1";
    EXPECT_EQ(read(longText, 128).text, "1.000000000000000000000000000000003E+5035");
    longText.back() = '0';
    EXPECT_EQ(read(longText, 128).text, "1.000000000000000000000000000000002E+5035");
    // 40 digits and 41 digits round alike.
    EXPECT_EQ(read("1234567890123456789012345678901234567890", 128).text,
              "1.234567890123456789012345678901235E+39");
    EXPECT_EQ(read("12345678901234567890123456789012345678901", 128).text,
              "1.234567890123456789012345678901235E+40");
}

// The text is written a word at a time; against the rules spelled out character by character,
// for every digit count, every place of the point and every form, with either sign.
TEST(DecEngine, ScientificTextAllShapes) {
    const std::string all = "123456789012345678901234567890123456";
    for (int n = 1; n <= 36; ++n) {
        const std::string d = all.substr(0, (size_t)n);
        for (int e = -n - 8; e <= 3; ++e) {
            for (Uint8 sign : {(Uint8)0, (Uint8)ZEP_DEC_NEG}) {
                std::string want = sign ? "-" : "";
                const int pre = n + e;
                if (e == 0) {
                    want += d;
                } else if (e > 0 || pre < -5) {
                    want += d.substr(0, 1) + (n > 1 ? std::string(".").append(d, 1) : "") + "E" +
                            (e + n - 1 < 0 ? "-" : "+") + std::to_string(abs(e + n - 1));
                } else if (pre > 0) {
                    want += d.substr(0, (size_t)pre) + "." + d.substr((size_t)pre);
                } else {
                    want += "0." + std::string((size_t)-pre, '0') + d;
                }
                char buf[64];
                memset(buf, 'x', sizeof buf);
                ZEPDecValue v = make(d, e, sign);
                Sint32 length = zepDecValueToText(&v, buf);
                ASSERT_EQ(std::string(buf), want) << n << " " << e;
                ASSERT_EQ(length, (Sint32)want.size());
                // Nothing past the 43 bytes a 34-digit text may need, or past a longer text.
                const int limit = std::max(ZEP_DEC_TEXT_MAX, length + 1);
                for (int i = limit; i < 64; ++i) ASSERT_EQ(buf[i], 'x') << n << " " << e;
            }
        }
    }
}

TEST(DecEngine, EncodingsKnownBytes) {
    ZEPDecContext c64, c128;
    zepDecContextInit(&c64, 64);
    zepDecContextInit(&c128, 128);
    Uint8 b[16];
    auto hex = [&](int n) {
        std::string s;
        char t[3];
        for (int i = 0; i < n; ++i) {
            snprintf(t, sizeof t, "%02x", b[i]);
            s += t;
        }
        return s;
    };
    ZEPDecValue v = make("750", -2, ZEP_DEC_NEG);  // -7.50
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "a2300000000003d0");
    zepDecEncode128(b, &v, &c128);
    EXPECT_EQ(hex(16), "a20780000000000000000000000003d0");
    v = make("9999999999999999", 369);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "77fcff3fcff3fcff");
    v = make("0", 0, ZEP_DEC_INF | ZEP_DEC_NEG);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "f800000000000000");
    v = make("0", 0, ZEP_DEC_SNAN);
    zepDecEncode128(b, &v, &c128);
    EXPECT_EQ(hex(16), "7e000000000000000000000000000000");
    EXPECT_EQ(c64.status | c128.status, 0u);

    // NaN payloads: one that leaves the top digit free is kept, a full-length one is not.
    v = make("12345", 0, ZEP_DEC_NAN);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "7c000000000049c5");
    v = make("1234567890123456", 0, ZEP_DEC_NAN);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "7c00000000000000");

    // Exponents beyond the format fold down when encoded; zeros are clamped.
    v = make("1", 384);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(c64.status, (Uint32)ZEP_DEC_CLAMPED);
    ZEPDecValue back;
    zepDecDecode64(b, &back, &c64);
    EXPECT_EQ(coefficient(back), "1000000000000000");
    EXPECT_EQ(back.exponent, 369);
    c64.status = 0;
    v = make("0", 500);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "43fc000000000000");
    EXPECT_EQ(c64.status, (Uint32)ZEP_DEC_CLAMPED);
    c64.status = 0;
    v = make("0", -500);
    zepDecEncode64(b, &v, &c64);
    EXPECT_EQ(hex(8), "0000000000000000");
    EXPECT_EQ(c64.status, (Uint32)ZEP_DEC_CLAMPED);
}

TEST(DecEngine, AllDecletsDecodeAndEncodingIsCanonical) {
    // Each declet in the lowest position of a decimal64 with exponent 0.
    ZEPDecContext c;
    zepDecContextInit(&c, 64);
    std::set<unsigned> values;
    int nonCanonical = 0;
    for (unsigned x = 0; x < 1024; ++x) {
        Uint8 b[8] = {0x22, 0x38, 0, 0, 0, 0, (Uint8)(x >> 8), (Uint8)x};
        ZEPDecValue v;
        zepDecDecode64(b, &v, &c);
        ASSERT_EQ(v.exponent, 0);
        unsigned n = v.coefficient[0];
        ASSERT_LT(n, 1000u) << x;
        values.insert(n);
        Uint8 e[8];
        zepDecEncode64(e, &v, &c);
        unsigned y = ((unsigned)e[6] << 8 | e[7]) & 0x3FF;
        // The 24 redundant declets are the all-large-digits form (bits 1-3 and 5-6 set) with
        // a non-zero unused pair in bits 8-9; they encode back without that pair.
        bool redundant = (x & 0x6E) == 0x6E && (x & 0x300) != 0;
        if (redundant) {
            ++nonCanonical;
            EXPECT_EQ(y, x & ~0x300u) << x;
        } else {
            EXPECT_EQ(y, x) << x;
        }
    }
    EXPECT_EQ(values.size(), 1000u);
    EXPECT_EQ(nonCanonical, 24);
    EXPECT_EQ(c.status, 0u);
}
