// The decimal engine: the text grammar, rounding in every mode, finalisation (fold-down,
// overflow, subnormals), the scientific text, and the interchange encodings.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
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

// Field by field: the byte after `bits` is padding.
bool same(const ZEPDecValue& a, const ZEPDecValue& b) {
    return a.digits == b.digits && a.exponent == b.exponent && a.bits == b.bits &&
           memcmp(a.coefficient, b.coefficient, sizeof a.coefficient) == 0;
}

const Uint32 kRoundedInexact = ZEP_DEC_ROUNDED | ZEP_DEC_INEXACT;
const Uint32 kOverflow = ZEP_DEC_OVERFLOW | kRoundedInexact;
const Uint32 kUnderflow = ZEP_DEC_SUBNORMAL | ZEP_DEC_UNDERFLOW | kRoundedInexact;

}  // namespace

TEST(DecEngine, ContextSetUp) {
    ZEPDecContext c;
    memset(&c, 0x5A, sizeof c);
    ASSERT_EQ(zepDecContextInit(&c, 64), 0u);
    EXPECT_EQ(c.digits, 16);
    EXPECT_EQ(c.emax, 384);
    EXPECT_EQ(c.emin, -383);
    EXPECT_EQ(c.formatBytes, 8u);
    EXPECT_EQ(c.bias, 398);
    EXPECT_EQ(c.round + c.traps + c.status + c.specialText, 0u);
    EXPECT_EQ(c.clamp, 1u);
    ASSERT_EQ(zepDecContextInit(&c, 128), 0u);
    EXPECT_EQ(c.digits, 34);
    EXPECT_EQ(c.emax, 6144);
    EXPECT_EQ(c.emin, -6143);
    EXPECT_EQ(c.formatBytes, 16u);
    EXPECT_EQ(c.bias, 6176);

    // Any other width clears the status and leaves the rest alone.
    c.status = 0x20;
    c.round = 3;
    EXPECT_EQ(zepDecContextInit(&c, 32), 1u);
    EXPECT_EQ(c.status, 0u);
    EXPECT_EQ(c.round, 3u);
    EXPECT_EQ(c.digits, 34);

    ZEPDecValue v;
    memset(&v, 0x5A, sizeof v);
    zepDecValueZero(&v);
    EXPECT_EQ(v.digits, 1);
    EXPECT_EQ(v.exponent, 0);
    EXPECT_EQ(v.bits, 0);
    for (Uint16 u : v.coefficient) EXPECT_EQ(u, 0);
}

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

// Reading takes the digits eight at a time straight from the text, around the point and up to
// the text's end: every length, every place of the point, leading zeros, short texts and long.
TEST(DecEngine, PointAnywhereAndAnyLength) {
    const std::string all = "9876543210987654321098765432109876";
    for (Uint32 bits : {64u, 128u}) {
        const int p = bits == 64 ? 16 : 34;
        for (int n = 1; n <= p; ++n) {
            const std::string digits = all.substr(0, (size_t)n);
            for (int at = 0; at <= n; ++at) {
                for (const char* zeros : {"", "0", "000"}) {
                    for (const char* tail : {"", "E+5", "e-000000012"}) {
                        std::string t = std::string(zeros) + digits.substr(0, (size_t)at) + "." +
                                        digits.substr((size_t)at) + tail;
                        if (at == n && tail[0] == 0 && n % 3 == 0) t.pop_back();  // "123"
                        Read r = read(t, bits);
                        const int exp = tail[0] == 0 ? 0 : tail[1] == '+' ? 5 : -12;
                        ASSERT_EQ(r.status, 0u) << t;
                        ASSERT_EQ(coefficient(r.v), digits) << t;
                        ASSERT_EQ(r.v.exponent, exp - (n - at)) << t;
                        ASSERT_EQ(r.v.bits, 0) << t;
                    }
                }
            }
        }
    }
    // Zeros after the point count; zeros before the first digit do not.
    Read r = read("0.000123400");
    EXPECT_EQ(coefficient(r.v), "123400");
    EXPECT_EQ(r.v.exponent, -9);
    r = read("-00000000000000000000000000000000000000000000012.5");
    EXPECT_EQ(r.text, "-12.5");
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

TEST(DecEngine, RoundingInEveryMode) {
    // Ties with an even and an odd last digit, a little above and a little below the half.
    const char* in[] = {"1000000000000000.5", "1000000000000001.5", "1000000000000000.51",
                        "1000000000000000.49", "1000000000000000.000000000000000000001"};
    // Last digit kept, per mode, for a positive number.
    const char* positive[7] = {"02100", "12100", "01000", "12111", "01000", "01100", "12111"};
    const char* negative[7] = {"02100", "12100", "01000", "01000", "12111", "01100", "12111"};
    for (int mode = 0; mode < 7; ++mode) {
        for (int i = 0; i < 5; ++i) {
            for (int sign = 0; sign < 2; ++sign) {
                std::string t = std::string(sign ? "-" : "") + in[i];
                char last = (sign ? negative : positive)[mode][i];
                std::string want = std::string(sign ? "-" : "") + "100000000000000" + last;
                Read r = read(t, 64, mode);
                EXPECT_EQ(r.text, want) << t << " mode " << mode;
                EXPECT_EQ(r.status, kRoundedInexact) << t << " mode " << mode;
            }
        }
    }
    // Discarded zeros round but lose nothing.
    Read r = read("12345678901234560000");
    EXPECT_EQ(r.text, "1.234567890123456E+19");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_ROUNDED);

    // Carry out of all nines keeps the digit count and raises the exponent.
    r = read("9999999999999999.5");
    EXPECT_EQ(r.text, "1.000000000000000E+16");
    EXPECT_EQ(r.v.digits, 16);
    EXPECT_EQ(r.v.exponent, 1);
    EXPECT_EQ(r.status, kRoundedInexact);

    // Mode 7 is no mode: rounding gives NaN with invalid context; exact texts are fine.
    r = read("1.00000000000000001", 64, 7);
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

TEST(DecEngine, FoldDownAndOverflow) {
    Read r = read("1E+384");
    EXPECT_EQ(coefficient(r.v), "1000000000000000");
    EXPECT_EQ(r.v.exponent, 369);
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_CLAMPED);
    EXPECT_EQ(r.text, "1.000000000000000E+384");
    r = read("123E+367");
    EXPECT_EQ(r.text, "1.23E+369");
    EXPECT_EQ(r.v.exponent, 367);
    EXPECT_EQ(r.status, 0u);

    // Overflow by mode and sign: infinity, or the largest finite number toward zero.
    const char* largest = "9.999999999999999E+384";
    const char* want[7][2] = {{"Infinity", "-Infinity"},
                              {"Infinity", "-Infinity"},
                              {largest, "-9.999999999999999E+384"},
                              {"Infinity", "-9.999999999999999E+384"},
                              {largest, "-Infinity"},
                              {"Infinity", "-Infinity"},
                              {"Infinity", "-Infinity"}};
    for (int mode = 0; mode < 8; ++mode) {
        for (int sign = 0; sign < 2; ++sign) {
            r = read(sign ? "-1E+385" : "1E+385", 64, mode);
            const char* w = mode < 7 ? want[mode][sign] : sign ? "-Infinity" : "Infinity";
            EXPECT_EQ(r.text, w) << "mode " << mode;
            EXPECT_EQ(r.status, kOverflow) << "mode " << mode;
        }
    }
    // Rounding up into overflow.
    r = read("9.9999999999999995E+384");
    EXPECT_EQ(r.text, "Infinity");
    EXPECT_EQ(r.status, kOverflow);
    r = read("9.9999999999999995E+384", 64, ZEP_DECFLOAT_ROUND_DOWN);
    EXPECT_EQ(r.text, largest);
    EXPECT_EQ(r.status, kRoundedInexact);
    EXPECT_EQ(read("9.999999999999999999999999999999999E+6144", 128).status, 0u);
    EXPECT_EQ(read("1E+6145", 128).text, "Infinity");
}

TEST(DecEngine, SubnormalsAndUnderflow) {
    Read r = read("1E-390");
    EXPECT_EQ(r.text, "1E-390");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_SUBNORMAL);  // exact: no underflow
    r = read("1.5E-398");
    EXPECT_EQ(r.text, "2E-398");
    EXPECT_EQ(r.status, kUnderflow);
    r = read("2.5E-398");
    EXPECT_EQ(r.text, "2E-398");
    r = read("0.5E-398");
    EXPECT_EQ(r.text, "0E-398");
    EXPECT_EQ(r.status, kUnderflow);  // no Clamped for a result that rounded to zero
    r = read("-1E-399", 64, ZEP_DECFLOAT_ROUND_FLOOR);
    EXPECT_EQ(r.text, "-1E-398");
    EXPECT_EQ(r.status, kUnderflow);
    r = read("9.99E-399");
    EXPECT_EQ(r.text, "1E-398");
    r = read("1.234567890123456E-384");
    EXPECT_EQ(r.text, "1.23456789012346E-384");
    EXPECT_EQ(r.status, kUnderflow);
    // Rounding a subnormal up to the smallest normal: the carry is taken back with a zero.
    r = read("9.999999999999999E-384");
    EXPECT_EQ(r.text, "1.000000000000000E-383");
    EXPECT_EQ(coefficient(r.v), "1000000000000000");
    EXPECT_EQ(r.v.exponent, -398);
    EXPECT_EQ(r.status, kUnderflow);
    // A text already rounded to the precision is rounded once more to fit etiny.
    r = read("1.0000000000000005E-390");
    EXPECT_EQ(r.text, "1.00000000E-390");
    EXPECT_EQ(r.status, kUnderflow);
    r = read("1.234567890123456E-383");
    EXPECT_EQ(r.status, 0u);
    // Zeros below etiny are clamped, not subnormal.
    r = read("0E-500");
    EXPECT_EQ(r.text, "0E-398");
    EXPECT_EQ(r.status, (Uint32)ZEP_DEC_CLAMPED);
}

TEST(DecEngine, ScientificText) {
    EXPECT_EQ(text(make("0", 3)), "0E+3");
    EXPECT_EQ(text(make("0", -7)), "0E-7");
    EXPECT_EQ(text(make("0", -6)), "0.000000");
    EXPECT_EQ(text(make("1", -6)), "0.000001");
    EXPECT_EQ(text(make("1", -7)), "1E-7");
    EXPECT_EQ(text(make("123", 0)), "123");
    EXPECT_EQ(text(make("123", -1)), "12.3");
    EXPECT_EQ(text(make("123", -3)), "0.123");
    EXPECT_EQ(text(make("123", -8)), "0.00000123");
    EXPECT_EQ(text(make("123", -9)), "1.23E-7");
    EXPECT_EQ(text(make("123", 1)), "1.23E+3");
    EXPECT_EQ(text(make("0", 0, ZEP_DEC_NEG)), "-0");
    EXPECT_EQ(text(make("5", -2, ZEP_DEC_NEG)), "-0.05");
    EXPECT_EQ(text(make("12", 0, ZEP_DEC_SNAN | ZEP_DEC_NEG)), "-sNaN12");
    EXPECT_EQ(text(make("0", 0, ZEP_DEC_INF | ZEP_DEC_NEG)), "-Infinity");

    // The longest finite texts of 34 digits fit 42 characters and the NUL.
    std::string d34 = "1234567890123456789012345678901234";
    char buf[ZEP_DEC_TEXT_MAX + 8];
    memset(buf, 'x', sizeof buf);
    ZEPDecValue v = make(d34, -6176, ZEP_DEC_NEG);
    EXPECT_EQ(zepDecValueToText(&v, buf), 42);
    EXPECT_STREQ(buf, "-1.234567890123456789012345678901234E-6143");
    EXPECT_EQ(buf[43], 'x');
    v = make(d34, -39, ZEP_DEC_NEG);
    EXPECT_EQ(zepDecValueToText(&v, buf), 42);
    EXPECT_STREQ(buf, "-0.000001234567890123456789012345678901234");
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

TEST(DecEngine, RoundTripsKeepCoefficientAndExponent) {
    std::mt19937_64 rng(2024);
    for (Uint32 bits : {64u, 128u}) {
        ZEPDecContext c;
        zepDecContextInit(&c, bits);
        const Sint32 p = c.digits;
        const Sint32 etiny = c.emin - p + 1, top = c.emax - p + 1;
        for (int i = 0; i < 20000; ++i) {
            Sint32 n = 1 + (Sint32)(rng() % (Uint64)p);
            char d[40];
            d[0] = (char)('1' + rng() % 9);
            for (Sint32 k = 1; k < n; ++k) d[k] = (char)('0' + rng() % 10);
            // Trailing zeros often, and now and then a zero coefficient.
            if (rng() % 3 == 0)
                for (Sint32 k = n / 2; k < n; ++k) d[k] = '0';
            if (rng() % 50 == 0) {
                n = 1;
                d[0] = '0';
            }
            d[n] = 0;
            const std::string digits = d;
            Sint32 e = etiny + (Sint32)(rng() % (Uint64)(top - etiny + 1));
            char t[64];
            snprintf(t, sizeof t, "%s%sE%d", rng() % 2 ? "-" : "", d, e);

            c.status = 0;
            ZEPDecValue v, back;
            zepDecValueFromText(&v, t, &c);
            ASSERT_EQ(c.status & ~(Uint32)ZEP_DEC_SUBNORMAL, 0u) << t;
            ASSERT_EQ(coefficient(v), digits) << t;
            ASSERT_EQ(v.exponent, e) << t;
            Uint8 b[16];
            if (bits == 64) {
                zepDecEncode64(b, &v, &c);
                zepDecDecode64(b, &back, &c);
            } else {
                zepDecEncode128(b, &v, &c);
                zepDecDecode128(b, &back, &c);
            }
            ASSERT_EQ(c.status & ~(Uint32)ZEP_DEC_SUBNORMAL, 0u) << t;
            ASSERT_TRUE(same(v, back)) << t;
            // The text reads back as the same number.
            std::string out = text(back);
            ZEPDecValue again;
            zepDecValueFromText(&again, out.c_str(), &c);
            ASSERT_TRUE(same(v, again)) << t << " -> " << out;
        }
    }
}
