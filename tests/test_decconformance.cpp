// The decimal engine against the public General Decimal Arithmetic test files for decimal64
// and decimal128 (tests/data/decimal, copied unchanged; see its README).
//
// Every case whose operation the engine performs runs: text to number to scientific text
// (toSci), text to number for the engineering cases (toEng: the engine writes no engineering
// notation, so the test formats the engine's number in it), text to interchange
// bytes, bytes to text, and bytes to canonical bytes (apply, canonical). The arithmetic and copy
// operations of the Canonical files and the one multiplication in dqEncode are skipped: the
// engine has no arithmetic.
//
// The engine follows the rules of the 2.39 files in two places where the 2.59 files changed
// them; such cases run against the older rule and are counted apart:
//  - a result that underflows to zero raises no Clamped (2.59 lists it);
//  - a NaN payload may have as many digits as the precision (2.59: one fewer under clamp).
// The 2.39 files have no clamp directive and, in their overflow blocks, widen the exponent
// range so that the encoding overflows; they run with their format's own limits and clamp 1,
// where the reading overflows instead, with the same result and conditions.
#include <ctype.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "zepdecengine.h"

namespace {

struct Tally {
    int ran = 0, passed = 0, zeroNoClamp = 0, longPayload = 0;  // the last two by the 2.39 rule
    std::map<std::string, int> skipped;
};

std::map<std::string, Tally> g_tallies;

std::string lowered(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// Tokens of one line: quotes removed (a doubled quote inside stands for one), comments gone.
std::vector<std::string> tokenize(const std::string& line) {
    std::vector<std::string> out;
    for (size_t i = 0; i < line.size();) {
        if (isspace(static_cast<unsigned char>(line[i]))) {
            ++i;
        } else if (line[i] == '\'' || line[i] == '"') {
            const char q = line[i++];
            std::string tok;
            for (; i < line.size() && (line[i] != q || line[i + 1] == q); ++i)
                tok += line[i] == q ? line[i++] : line[i];
            out.push_back(tok);
            ++i;
        } else {
            const size_t j = std::min(line.find_first_of(" \t", i), line.size());
            if (line.compare(i, 2, "--") == 0) break;
            out.push_back(line.substr(i, j - i));
            i = j;
        }
    }
    return out;
}

Uint32 flagOf(const std::string& name) {
    static const std::map<std::string, Uint32> names = {
        {"clamped", ZEP_DEC_CLAMPED},
        {"conversion_syntax", ZEP_DEC_CONVERSION_SYNTAX},
        {"inexact", ZEP_DEC_INEXACT},
        {"overflow", ZEP_DEC_OVERFLOW},
        {"rounded", ZEP_DEC_ROUNDED},
        {"subnormal", ZEP_DEC_SUBNORMAL},
        {"underflow", ZEP_DEC_UNDERFLOW},
        {"insufficient_storage", ZEP_DEC_INSUFFICIENT_STORAGE},
        {"invalid_context", ZEP_DEC_INVALID_CONTEXT}};
    auto it = names.find(lowered(name));
    // A condition the engine never raises: the case can only fail, which it should.
    return it == names.end() ? 0x80000000u : it->second;
}

int modeOf(const std::string& name) {
    static const std::map<std::string, int> modes = {{"half_even", ZEP_DECFLOAT_ROUND_HALF_EVEN},
                                                     {"half_up", ZEP_DECFLOAT_ROUND_HALF_UP},
                                                     {"down", ZEP_DECFLOAT_ROUND_DOWN},
                                                     {"ceiling", ZEP_DECFLOAT_ROUND_CEILING},
                                                     {"floor", ZEP_DECFLOAT_ROUND_FLOOR},
                                                     {"half_down", ZEP_DECFLOAT_ROUND_HALF_DOWN},
                                                     {"up", ZEP_DECFLOAT_ROUND_UP}};
    auto it = modes.find(lowered(name));
    return it == modes.end() ? -1 : it->second;
}

std::string text(const ZEPDecValue& v) {
    char buf[64];
    zepDecValueToText(&v, buf);
    return buf;
}

// The to-engineering-string form of the engine's number: the exponent a multiple of three, with
// the digits moved (or zeros added) to match.
std::string engineeringText(const ZEPDecValue& v) {
    if (v.bits & ZEP_DEC_SPECIAL) return text(v);
    std::string digits;
    char u[8];
    for (int k = (v.digits + 3) / 4 - 1; k >= 0; --k)
        snprintf(u, sizeof u, "%04u", unsigned(v.coefficient[k])), digits += u;
    digits = digits.substr(digits.size() - size_t(v.digits));
    const long n = v.digits, exp = v.exponent;
    std::string out = (v.bits & ZEP_DEC_NEG) ? "-" : "";
    long pre = n + exp, e = 0;
    if (exp > 0 || pre < -5) {
        e = exp + n - 1;
        const long adj = e < 0 ? (3 - (-e) % 3) % 3 : e % 3;
        e -= adj;
        pre = 1 + adj;
        if (n == 1 && digits[0] == '0') pre = adj == 0 ? 1 : -(2 - adj), e += adj ? 3 : 0;
    }
    if (exp == 0) {
        out += digits;
    } else if (pre > 0) {
        out += digits.substr(0, size_t(std::min(pre, n)));
        out += pre < n ? std::string(".").append(digits, size_t(pre))
                       : std::string(size_t(pre - n), '0');
    } else {
        out += "0." + std::string(size_t(-pre), '0') + digits;
    }
    if (e != 0) out += (e < 0 ? "E-" : "E+") + std::to_string(std::abs(e));
    return out;
}

std::string hex(const Uint8* b, size_t n) {
    std::string s = "#";
    char t[3];
    for (size_t i = 0; i < n; ++i) snprintf(t, sizeof t, "%02x", b[i]), s += t;
    return s;
}

void encode(Uint8* out, const ZEPDecValue& v, ZEPDecContext& ctx) {
    ctx.formatBytes == 8 ? zepDecEncode64(out, &v, &ctx) : zepDecEncode128(out, &v, &ctx);
}

bool isZero(const ZEPDecValue& v) {
    return !(v.bits & ZEP_DEC_SPECIAL) && v.digits == 1 && v.coefficient[0] == 0;
}

// Digits of a NaN text's payload after its leading zeros, or -1 when it is no such text.
int nanPayloadDigits(const std::string& operand) {
    std::string s = lowered(operand);
    size_t i = (s[0] == '-' || s[0] == '+') ? 1 : 0;
    if (s.compare(i, 1, "s") == 0) ++i;
    if (s.compare(i, 3, "nan") != 0) return -1;
    i = s.find_first_not_of('0', i + 3);
    if (i == std::string::npos) return 0;
    return s.find_first_not_of("0123456789", i) == std::string::npos ? int(s.size() - i) : -1;
}

void runFile(const std::string& name) {
    std::ifstream in(std::string(ZEP_TEST_DATA_DIR) + "/decimal/" + name, std::ios::binary);
    ASSERT_TRUE(in.good()) << name;
    Tally& tally = g_tallies[name];
    int precision = 0, mode = 0, clamp = -1;
    long emax = 0, emin = 0;
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
            if (key == "maxexponent") emax = std::stol(value);
            if (key == "minexponent") emin = std::stol(value);
            if (key == "clamp") clamp = std::stoi(value);
            if (key == "version") older = value == "2.39";
            continue;
        }
        size_t arrow = 0;
        while (arrow < tok.size() && tok[arrow] != "->") ++arrow;
        ASSERT_LT(arrow + 1, tok.size()) << line;
        const std::string op = lowered(tok[1]), expected = tok[arrow + 1];
        Uint32 conditions = 0;
        for (size_t i = arrow + 2; i < tok.size(); ++i) conditions |= flagOf(tok[i]);
        if (op != "tosci" && op != "toeng" && op != "apply" && op != "canonical") {
            tally.skipped[op]++;
            continue;
        }
        ASSERT_EQ(arrow, 3u) << line;
        const std::string& operand = tok[2];

        // The format's context; the old files run with their format's own limits and clamp 1.
        ZEPDecContext ctx;
        ASSERT_EQ(zepDecContextInit(&ctx, precision == 16 ? 64 : 128), 0u) << line;
        ASSERT_EQ(ctx.digits, precision) << line;
        ASSERT_TRUE(older || (emax == ctx.emax && emin == ctx.emin && clamp == 1)) << line;
        ASSERT_GE(mode, 0) << line;
        ctx.round = static_cast<Uint32>(mode);
        tally.ran++;

        ZEPDecValue v;
        zepDecValueZero(&v);
        Uint8 out[16];
        const bool toBytes = expected[0] == '#';
        std::string got;
        bool ok = false;
        if (operand[0] == '#') {
            // Decoding raises nothing; a listed Subnormal only tells that the value is one.
            std::vector<Uint8> bytes;
            for (size_t i = 1; i + 1 < operand.size(); i += 2)
                bytes.push_back(static_cast<Uint8>(std::stoul(operand.substr(i, 2), nullptr, 16)));
            ASSERT_TRUE(bytes.size() == 8 || bytes.size() == 16) << line;
            bytes.size() == 8 ? zepDecDecode64(bytes.data(), &v, &ctx)
                              : zepDecDecode128(bytes.data(), &v, &ctx);
            const bool subnormal = !(v.bits & ZEP_DEC_SPECIAL) && !isZero(v) &&
                                   Sint64(v.exponent) + v.digits - 1 < ctx.emin;
            if (toBytes) encode(out, v, ctx);
            got = toBytes ? hex(out, bytes.size()) : text(v);
            ok = lowered(got) == lowered(expected) && ctx.status == 0 &&
                 ((conditions & ZEP_DEC_SUBNORMAL) != 0) == subnormal &&
                 (conditions & ~ZEP_DEC_SUBNORMAL) == 0;
        } else {
            zepDecValueFromText(&v, operand.c_str(), &ctx);
            if (toBytes) {
                ASSERT_EQ(expected.size(), 1 + 2u * ctx.formatBytes) << line;
                encode(out, v, ctx);
                got = hex(out, ctx.formatBytes);
            } else {
                got = text(v);
            }
            if (op == "toeng") got = engineeringText(v);
            const std::string want = toBytes ? lowered(expected) : expected;
            ok = got == want && ctx.status == conditions;
            if (!ok && !older) {
                if (got == want && isZero(v) && (conditions & ZEP_DEC_UNDERFLOW) &&
                    ctx.status == (conditions & ~ZEP_DEC_CLAMPED)) {
                    ok = true, tally.zeroNoClamp++;
                } else if (nanPayloadDigits(operand) == precision && expected == "NaN" &&
                           conditions == ZEP_DEC_CONVERSION_SYNTAX && ctx.status == 0 &&
                           (v.bits & (ZEP_DEC_NAN | ZEP_DEC_SNAN)) && v.digits == precision) {
                    ok = true, tally.longPayload++;
                }
            }
        }
        tally.passed += ok;
        EXPECT_TRUE(ok) << tok[0] << " " << op << " " << operand << "\n  expected: " << expected
                        << " conditions 0x" << std::hex << conditions << "\n  got:      " << got
                        << " conditions 0x" << ctx.status;
    }
}

class Report : public ::testing::Environment {
public:
    void TearDown() override {
        printf(
            "\ndecimal conformance: cases run, passed (by the 2.39 rule: underflow to zero "
            "without Clamped, NaN payload of the full precision), skipped\n");
        for (auto& [file, t] : g_tallies) {
            int skipped = 0;
            std::string why;
            for (auto& [op, n] : t.skipped) skipped += n, why += " " + op;
            printf("  %-22s ran %4d  passed %4d (%d, %d)  skipped %3d%s\n", file.c_str(), t.ran,
                   t.passed, t.zeroNoClamp, t.longPayload, skipped, why.c_str());
        }
    }
};

const auto* const kReport = ::testing::AddGlobalTestEnvironment(new Report);

class DecConformance : public ::testing::TestWithParam<const char*> {};

TEST_P(DecConformance, File) {
    runFile(GetParam());
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
