// The decimal engine where the conformance files don't reach: exponents beyond 32 bits, a tie
// decided thousands of digits away, the scientific text of every shape, encoding outside a
// context. (The declet tables are checked against each other where they are built.)
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "zepdecengine.h"

namespace {

std::string text(const ZEPDecValue& v) {
    char buf[64];
    zepDecValueToText(&v, buf);
    return buf;
}

}  // namespace

TEST(DecEngine, LongTextsAndHugeExponents) {
    // The residue of a long text keeps a non-zero digit that lies far behind the tie.
    const std::string tie = "1" + std::string(32, '0') + "25" + std::string(5000, '0');
    const Uint32 roundedInexact = ZEP_DEC_ROUNDED | ZEP_DEC_INEXACT;
    for (auto [last, want] :
         {std::pair<const char*, const char*>{"1", "3E+5035"}, {"0", "2E+5035"}}) {
        ZEPDecContext ctx;
        zepDecContextInit(&ctx, 128);
        ZEPDecValue v;
        zepDecValueFromText(&v, (tie + last).c_str(), &ctx);
        EXPECT_EQ(text(v), "1.00000000000000000000000000000000" + std::string(want)) << last;
        EXPECT_EQ(ctx.status, roundedInexact) << last;
    }
    // An exponent of more than ten digits, or ten above 1999999999, counts as 1999999998; in a
    // context wide enough to hold it nothing is raised.
    ZEPDecContext wide;
    zepDecContextInit(&wide, 128);
    wide.emax = 2000000000;
    wide.emin = -2000000000;
    wide.clamp = 0;
    const std::pair<const char*, Sint32> huge[] = {{"-1E-99999999999", -1999999998},
                                                   {"1E+2000000000", 1999999998},
                                                   {"1E+0001999999999", 1999999999},
                                                   {"1.5E-1999999999", -2000000000}};
    for (const auto& [in, exponent] : huge) {
        ZEPDecValue v;
        wide.status = 0;
        zepDecValueFromText(&v, in, &wide);
        EXPECT_EQ(v.exponent, exponent) << in;
        EXPECT_EQ(wide.status, 0u) << in;
    }
}

// The text is written a word at a time; against the rules spelled out character by character,
// for every digit count, every place of the point and either sign.
TEST(DecEngine, ScientificTextAllShapes) {
    const std::string all = "123456789012345678901234567890123456";
    for (int n = 1; n <= 36; ++n) {
        const std::string d = all.substr(0, size_t(n));
        ZEPDecValue v;
        zepDecValueZero(&v);
        v.digits = n;
        Uint16 scale = 1;
        for (int i = 0; i < n; ++i, scale = i % 4 ? Uint16(scale * 10) : 1)
            v.coefficient[i / 4] += Uint16((d[size_t(n - 1 - i)] - '0') * scale);
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
                v.exponent = e;
                v.bits = sign;
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

TEST(DecEngine, EncodingFoldsExponentsBeyondTheFormat) {
    // A value made outside a context: exponents above the format fold down, zeros are clamped.
    const std::tuple<const char*, Sint32, const char*> cases[] = {{"1", 384, "47fc000000000000"},
                                                                  {"0", 500, "43fc000000000000"},
                                                                  {"0", -500, "0000000000000000"}};
    for (const auto& [digit, exponent, want] : cases) {
        ZEPDecContext ctx;
        zepDecContextInit(&ctx, 64);
        ZEPDecValue v;
        zepDecValueZero(&v);
        v.coefficient[0] = Uint16(digit[0] - '0');
        v.exponent = exponent;
        Uint8 b[8];
        zepDecEncode64(b, &v, &ctx);
        char hex[17];
        for (int i = 0; i < 8; ++i) snprintf(hex + 2 * i, 3, "%02x", b[i]);
        EXPECT_STREQ(hex, want) << digit << "E" << exponent;
        EXPECT_EQ(ctx.status, Uint32(ZEP_DEC_CLAMPED)) << digit << "E" << exponent;
    }
}
