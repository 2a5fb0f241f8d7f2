// Decimal numbers. ZEPDecfloat: which outcome of a conversion is an error, with which ECF code,
// and what the object holds afterwards. Under it, the decimal engine against the public General
// Decimal Arithmetic test files for decimal64 and decimal128 (tests/data/decimal, copied
// unchanged): text to scientific text (toSci), text to bytes, bytes to text and bytes to canonical
// bytes (apply, canonical). toEng (its operands are toSci's too; the engine writes no engineering
// text) and arithmetic are skipped.
//
// Two rules of the 2.59 files changed from the 2.39 ones, which the engine follows: a result that
// underflows to zero raises no Clamped, and a NaN payload may have as many digits as the
// precision. Every case runs with its format's own limits and clamp 1: the 2.39 files' overflow
// blocks widen the exponent range, where the reading overflows instead, with the same result.
#include <ctype.h>
#include <gtest/gtest.h>
#include <math.h>

#include <fstream>
#include <limits>
#include <map>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "zepdecengine.h"
#include "zepdecfloat.h"
#include "zepecf.h"

namespace {

std::string lowered(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// Tokens of one line: quotes removed (a doubled quote inside stands for one), comments gone.
std::vector<std::string> tokenize(const std::string& line) {
    static const std::regex token(R"('(?:[^']|'')*'|"(?:[^"]|"")*"|\S+)");
    std::vector<std::string> out;
    for (std::sregex_iterator it(line.begin(), line.end(), token), end; it != end; ++it) {
        std::string t = it->str();
        if (t.compare(0, 2, "--") == 0) break;
        if (t[0] == '\'' || t[0] == '"')
            t = std::regex_replace(t.substr(1, t.size() - 2), std::regex(std::string(2, t[0])),
                                   std::string(1, t[0]));
        out.push_back(t);
    }
    return out;
}

Uint32 flagOf(const std::string& name) {
    // clang-format off
    static const std::map<std::string, Uint32> names = {
        {"clamped", ZEP_DEC_CLAMPED}, {"conversion_syntax", ZEP_DEC_CONVERSION_SYNTAX},
        {"inexact", ZEP_DEC_INEXACT}, {"overflow", ZEP_DEC_OVERFLOW}, {"rounded", ZEP_DEC_ROUNDED},
        {"subnormal", ZEP_DEC_SUBNORMAL}, {"underflow", ZEP_DEC_UNDERFLOW},
        {"insufficient_storage", ZEP_DEC_INSUFFICIENT_STORAGE},
        {"invalid_context", ZEP_DEC_INVALID_CONTEXT}};
    // clang-format on
    auto it = names.find(lowered(name));
    return it == names.end() ? 0x80000000u : it->second;  // never raised: the case must fail
}

// The rounding modes by their values, 0 to 6.
int modeOf(const std::string& name) {
    static const char* const modes[] = {"half_even", "half_up",   "down", "ceiling",
                                        "floor",     "half_down", "up"};
    for (int i = 0; i < 7; ++i)
        if (lowered(name) == modes[i]) return i;
    return -1;
}

std::string text(const ZEPDecValue& v) {
    char buf[64];
    zepDecValueToText(&v, buf);
    return buf;
}

std::string hex(const Uint8* b, size_t n) {
    std::string s = "#";
    for (size_t i = 0; i < n; ++i)
        s.append({"0123456789abcdef"[b[i] >> 4], "0123456789abcdef"[b[i] & 15]});
    return s;
}

void encode(Uint8* out, const ZEPDecValue& v, ZEPDecContext& ctx) {
    ctx.formatBytes == 8 ? zepDecEncode64(out, &v, &ctx) : zepDecEncode128(out, &v, &ctx);
}

bool isZero(const ZEPDecValue& v) {
    return !(v.bits & ZEP_DEC_SPECIAL) && v.digits == 1 && v.coefficient[0] == 0;
}

class DecConformance : public ::testing::TestWithParam<const char*> {};

TEST_P(DecConformance, File) {
    std::ifstream in(std::string(ZEP_TEST_DATA_DIR) + "/decimal/" + GetParam(), std::ios::binary);
    ASSERT_TRUE(in.good());
    int precision = 0, mode = 0, ran = 0;
    bool older = false;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::vector<std::string> tok = tokenize(line);
        if (tok.empty()) continue;
        if (tok[0].back() == ':') {
            const std::string key = lowered(tok[0].substr(0, tok[0].size() - 1));
            const std::string value = tok.size() > 1 ? tok[1] : "";
            if (key == "precision") precision = std::stoi(value);
            if (key == "rounding") mode = modeOf(value);
            if (key == "version") older = value == "2.39";
            continue;
        }
        size_t arrow = 0;
        while (arrow < tok.size() && tok[arrow] != "->") ++arrow;
        ASSERT_LT(arrow + 1, tok.size()) << line;
        const std::string op = lowered(tok[1]), expected = tok[arrow + 1];
        if (op != "tosci" && op != "apply" && op != "canonical") continue;
        Uint32 conditions = 0;
        for (size_t i = arrow + 2; i < tok.size(); ++i) conditions |= flagOf(tok[i]);
        ASSERT_EQ(arrow, 3u) << line;
        const std::string& operand = tok[2];

        ZEPDecContext ctx;
        ASSERT_EQ(zepDecContextInit(&ctx, precision == 16 ? 64 : 128), 0u) << line;
        ASSERT_EQ(ctx.digits, precision) << line;
        ASSERT_GE(mode, 0) << line;
        ctx.round = static_cast<Uint32>(mode);
        ++ran;

        ZEPDecValue v;
        if (operand[0] == '#') {
            std::vector<Uint8> bytes;
            for (size_t i = 1; i + 1 < operand.size(); i += 2)
                bytes.push_back(static_cast<Uint8>(std::stoul(operand.substr(i, 2), nullptr, 16)));
            ASSERT_EQ(bytes.size(), ctx.formatBytes) << line;
            bytes.size() == 8 ? zepDecDecode64(bytes.data(), &v, &ctx)
                              : zepDecDecode128(bytes.data(), &v, &ctx);
            conditions = 0;  // decoding raises nothing (a listed Subnormal tells what the value is)
        } else {
            zepDecValueFromText(&v, operand.c_str(), &ctx);
        }
        Uint8 out[16];
        const bool toBytes = expected[0] == '#';
        if (toBytes) encode(out, v, ctx);
        const std::string got = toBytes ? hex(out, ctx.formatBytes) : text(v);
        const std::string want = toBytes ? lowered(expected) : expected;
        bool ok = got == want && ctx.status == conditions;
        if (!ok && !older) {
            ok = (got == want && isZero(v) && (conditions & ZEP_DEC_UNDERFLOW) &&
                  ctx.status == (conditions & ~ZEP_DEC_CLAMPED)) ||
                 (expected == "NaN" && conditions == ZEP_DEC_CONVERSION_SYNTAX && ctx.status == 0 &&
                  (v.bits & (ZEP_DEC_NAN | ZEP_DEC_SNAN)) && v.digits == precision);
        }
        EXPECT_TRUE(ok) << tok[0] << " " << op << " " << operand << "\n  expected: " << expected
                        << " conditions 0x" << std::hex << conditions << "\n  got:      " << got
                        << " conditions 0x" << ctx.status;
    }
    EXPECT_GT(ran, 50);  // the file was found and read
}

INSTANTIATE_TEST_SUITE_P(Files, DecConformance,
                         ::testing::Values("ddBase.decTest", "dqBase.decTest", "ddEncode.decTest",
                                           "dqEncode.decTest", "ddCanonical.decTest",
                                           "dqCanonical.decTest", "decimal64.decTest",
                                           "decimal128.decTest"),
                         [](const auto& info) {
                             std::string name = info.param;
                             return name.substr(0, name.find('.'));
                         });

}  // namespace

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
    // The result code of the reading in the mode (-1: the object's own, half-even), the text
    // written back and toString's own result.
    const Uint32 kNaN = ECF_DECFLOAT_NOT_A_NUMBER, kRange = ECF_DECFLOAT_OUT_OF_RANGE;
    // clang-format off
    const std::tuple<const char*, int, Uint32, const char*, Uint32> cases[] = {
        {"abc", -1, kNaN, "NaN", ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR},
        {nullptr, -1, kNaN, "NaN", ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR},
        {"NaN", -1, 0, "NaN", 0}, {"-inf", -1, 0, "-Infinity", 0},
        // A NaN with a payload is no special text; its payload and sign are not written.
        {"-NaN12", -1, kNaN, "NaN", 0},
        {"1E+385", -1, ECF_DECFLOAT_POSITIVE_INFINITY, "Infinity", 0},
        {"-1E+385", -1, ECF_DECFLOAT_NEGATIVE_INFINITY, "-Infinity", 0},
        {"1E+385", ZEP_DECFLOAT_ROUND_DOWN, kRange, "9.999999999999999E+384", 0},
        {"1E-390", -1, kRange, "1E-390", 0},  // subnormal, though exact
        {"1.2345678901234567", ZEP_DECFLOAT_ROUND_HALF_EVEN, 0, "1.234567890123457", 0},
        {"1E+384", -1, 0, "1.000000000000000E+384", 0},  // folded down, clamped: no error
        // Mode 7 is taken, but a conversion that has to round then gives NaN.
        {"1.00000000000000001", 7, kNaN, "NaN", 0}};
    // clang-format on
    for (const auto& [in, mode, rc, text, textRc] : cases) {
        ZEPDecfloat d;
        Uint32 got;
        EXPECT_EQ(mode < 0 ? d.fromString(in) : d.fromString(in, ZEPDecfloatRounding(mode)), rc);
        EXPECT_EQ(str(d, &got), text) << in << " " << mode;
        EXPECT_EQ(got, textRc) << in;
    }
    ZEPDecfloat d;
    char buf[64];
    EXPECT_EQ(d.toString(buf, 43), ECF_DECFLOAT_NOT_A_NUMBER);  // no value yet
    // A constructor drops the result; the status shows the failure afterwards.
    EXPECT_EQ(ZEPDecfloat16("abc").context().status, Uint32(ZEP_DEC_CONVERSION_SYNTAX));
    // The size counts characters without the NUL; special texts need none.
    d.fromString("12.5");
    EXPECT_EQ(d.toString(buf, 3), ECF_DECFLOAT_INVALID_STRING_LENGTH);
    EXPECT_EQ(d.toString(buf, 4), 0u);
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
        {"-0.5", "R 0 R 0"}, {"1.9", "1 1 1 1"}, {"-1.9", "R -1 R -1"}, {"9E+19", "R R R R"},
        {"-2147483648", "R -2147483648 R -2147483648"}, {"5E+9", "R R 5000000000 5000000000"},
        {"2147483648", "2147483648 R 2147483648 2147483648"}, {"1.5E+3", "1500 1500 1500 1500"},
        {"18446744073709551615", "R R 18446744073709551615 R"},
        {"-9223372036854775808", "R R R -9223372036854775808"},
        {"9223372036854775808", "R R 9223372036854775808 R"},
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
    // clang-format off
    const std::pair<ZEPDecfloat, const char*> in[] = {
        {ZEPDecfloat(1.5, 64u), "1.50000000000000"}, {ZEPDecfloat(7u, 64u), "7.00000000000000"},
        {ZEPDecfloat(-2147483647 - 1, 64u), "-2147483648.00000"},
        {ZEPDecfloat(std::numeric_limits<double>::infinity(), 64u), "Infinity"},
        {ZEPDecfloat(~Uint64(0), 64u), "1.844674407370955E+19"},
        {ZEPDecfloat(~Uint64(0), 128u), "18446744073709551615"},
        {ZEPDecfloat(std::numeric_limits<Sint64>::min(), 128u), "-9223372036854775808"}};
    // clang-format on
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
