// The decimal engine against the public General Decimal Arithmetic test files for decimal64
// and decimal128 (tests/data/decimal, copied unchanged; see its README).
//
// Every case whose operation the engine performs runs: text to number to scientific text
// (toSci), text to number for the engineering cases (toEng: the engine writes no engineering
// notation, so the test formats the engine's number in it; the number and the conditions are
// what is checked), text to interchange bytes, bytes to text, and bytes to canonical bytes
// (apply, canonical). The arithmetic and copy operations of the Canonical files and the one
// multiplication in dqEncode are skipped: the engine has no arithmetic.
//
// The engine follows the rules of the 2.39 files in two places where the 2.59 files changed
// them; such cases run against the older rule and are counted apart:
//  - a result that underflows to zero raises no Clamped (2.59 lists it);
//  - a NaN payload may have as many digits as the precision (2.59: one fewer under clamp).
// The 2.39 files have no clamp directive and, in their overflow blocks, widen the exponent
// range so that the encoding overflows; they run with their format's own limits and clamp 1,
// where the reading overflows instead, with the same result and conditions.
#include <gtest/gtest.h>

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "zepdecengine.h"

namespace {

struct Tally {
    int ran = 0;
    int passed = 0;
    int olderRule = 0;    // passed against the 2.39 rule where 2.59 differs:
    int zeroNoClamp = 0;  //   underflow to zero without Clamped
    int longPayload = 0;  //   NaN payload of the full precision
    std::map<std::string, int> skipped;
};

std::map<std::string, Tally>& tallies() {
    static std::map<std::string, Tally> t;
    return t;
}

std::string lowered(std::string s) {
    for (char& c : s) c = (char)tolower((unsigned char)c);
    return s;
}

// Tokens of one line: quotes removed (a doubled quote inside stands for one), comments gone.
std::vector<std::string> tokenize(const std::string& line) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isspace((unsigned char)line[i])) ++i;
        if (i >= line.size()) break;
        char q = line[i];
        if (q == '\'' || q == '"') {
            std::string tok;
            ++i;
            while (i < line.size()) {
                if (line[i] == q) {
                    if (i + 1 < line.size() && line[i + 1] == q) {
                        tok += q;
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                tok += line[i++];
            }
            out.push_back(tok);
            continue;
        }
        size_t j = i;
        while (j < line.size() && !isspace((unsigned char)line[j])) ++j;
        std::string tok = line.substr(i, j - i);
        if (tok.compare(0, 2, "--") == 0) break;
        out.push_back(tok);
        i = j;
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

std::string flagNames(Uint32 flags) {
    static const std::pair<Uint32, const char*> names[] = {
        {ZEP_DEC_CONVERSION_SYNTAX, "Conversion_syntax"},
        {ZEP_DEC_INSUFFICIENT_STORAGE, "Insufficient_storage"},
        {ZEP_DEC_INEXACT, "Inexact"},
        {ZEP_DEC_INVALID_CONTEXT, "Invalid_context"},
        {ZEP_DEC_OVERFLOW, "Overflow"},
        {ZEP_DEC_CLAMPED, "Clamped"},
        {ZEP_DEC_ROUNDED, "Rounded"},
        {ZEP_DEC_SUBNORMAL, "Subnormal"},
        {ZEP_DEC_UNDERFLOW, "Underflow"},
        {0x80000000u, "(a condition the engine does not have)"}};
    std::string s;
    for (auto& n : names)
        if (flags & n.first) s += std::string(s.empty() ? "" : " ") + n.second;
    return s.empty() ? "(none)" : s;
}

bool isHex(const std::string& s) {
    return !s.empty() && s[0] == '#' && s.size() > 1;
}

bool parseHex(const std::string& s, std::vector<Uint8>& bytes) {
    std::string h = s.substr(1);
    if (h.size() != 16 && h.size() != 32) return false;
    bytes.clear();
    for (size_t i = 0; i < h.size(); i += 2)
        bytes.push_back((Uint8)std::stoul(h.substr(i, 2), nullptr, 16));
    return true;
}

std::string toHex(const Uint8* b, size_t n) {
    std::string s = "#";
    char t[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(t, sizeof t, "%02x", b[i]);
        s += t;
    }
    return s;
}

std::string text(const ZEPDecValue& v) {
    char buf[64];
    zepDecValueToText(&v, buf);
    return buf;
}

// The to-engineering-string form of the engine's number: the exponent a multiple of three,
// with the digits moved (or zeros added) to match. Only the toEng cases need it.
std::string engineeringText(const ZEPDecValue& v) {
    if (v.bits & ZEP_DEC_SPECIAL) return text(v);
    std::string digits;
    for (int k = (v.digits + 3) / 4 - 1; k >= 0; --k) {
        char u[8];
        snprintf(u, sizeof u, "%04u", (unsigned)v.coefficient[k]);
        digits += u;
    }
    digits = digits.substr(digits.size() - (size_t)v.digits);
    const long n = v.digits, exp = v.exponent;
    std::string out = (v.bits & ZEP_DEC_NEG) ? "-" : "";
    if (exp == 0) return out + digits;
    long pre = n + exp, e = 0;
    if (exp > 0 || pre < -5) {
        e = exp + n - 1;
        pre = 1;
        long adj = e < 0 ? (3 - (-e) % 3) % 3 : e % 3;
        e -= adj;
        if (!(n == 1 && digits[0] == '0')) {
            pre += adj;
        } else if (adj != 0) {
            e += 3;
            pre = -(2 - adj);
        }
    }
    if (pre > 0) {
        out += digits.substr(0, (size_t)std::min(pre, n));
        if (pre < n) {
            out += '.';
            out += digits.substr((size_t)pre);
        } else
            out += std::string((size_t)(pre - n), '0');
    } else {
        out += "0.";
        out.append((size_t)-pre, '0');
        out += digits;
    }
    if (e != 0) out += (e < 0 ? "E-" : "E+") + std::to_string(e < 0 ? -e : e);
    return out;
}

bool isSubnormal(const ZEPDecValue& v, const ZEPDecContext& ctx) {
    if (v.bits & ZEP_DEC_SPECIAL) return false;
    if (v.digits == 1 && v.coefficient[0] == 0) return false;
    return (Sint64)v.exponent + v.digits - 1 < ctx.emin;
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

// Digits of a NaN text's payload after its leading zeros, or -1 when it is no such text.
int nanPayloadDigits(const std::string& operand) {
    std::string s = lowered(operand);
    size_t i = (s[0] == '-' || s[0] == '+') ? 1 : 0;
    if (s.compare(i, 1, "s") == 0) ++i;
    if (s.compare(i, 3, "nan") != 0) return -1;
    i += 3;
    while (i < s.size() && s[i] == '0') ++i;
    for (size_t j = i; j < s.size(); ++j)
        if (!isdigit((unsigned char)s[j])) return -1;
    return (int)(s.size() - i);
}

void runFile(const char* name) {
    std::string path = std::string(ZEP_TEST_DATA_DIR) + "/decimal/" + name;
    std::ifstream in(path, std::ios::binary);
    ASSERT_TRUE(in.good()) << path;
    Tally& tally = tallies()[name];

    int precision = 0, mode = 0, clamp = -1;
    long emax = 0, emin = 0;
    std::string version;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::vector<std::string> tok = tokenize(line);
        if (tok.empty()) continue;
        if (tok[0].back() == ':') {
            std::string key = lowered(tok[0].substr(0, tok[0].size() - 1));
            std::string value = tok.size() > 1 ? tok[1] : "";
            if (key == "precision") precision = std::stoi(value);
            if (key == "rounding") mode = modeOf(value);
            if (key == "maxexponent") emax = std::stol(value);
            if (key == "minexponent") emin = std::stol(value);
            if (key == "clamp") clamp = std::stoi(value);
            if (key == "version") version = value;
            continue;
        }
        size_t arrow = 0;
        while (arrow < tok.size() && tok[arrow] != "->") ++arrow;
        ASSERT_LT(arrow + 1, tok.size()) << line;
        const std::string id = tok[0];
        const std::string op = lowered(tok[1]);
        std::vector<std::string> operands(tok.begin() + 2, tok.begin() + arrow);
        const std::string expected = tok[arrow + 1];
        Uint32 conditions = 0;
        for (size_t i = arrow + 2; i < tok.size(); ++i) conditions |= flagOf(tok[i]);

        if (op != "tosci" && op != "toeng" && op != "apply" && op != "canonical") {
            tally.skipped[op + " (not an engine operation)"]++;
            continue;
        }
        ASSERT_EQ(operands.size(), 1u) << line;
        const std::string& operand = operands[0];

        // The format's context; the old files run with their format's own limits and clamp 1.
        const bool older = version == "2.39";
        ZEPDecContext ctx;
        ASSERT_EQ(zepDecContextInit(&ctx, precision == 16 ? 64 : 128), 0u) << line;
        ASSERT_EQ(ctx.digits, precision) << line;
        if (!older) {
            ASSERT_TRUE(emax == ctx.emax && emin == ctx.emin && clamp == 1)
                << "context of " << id << " is not its format's";
        }
        ASSERT_GE(mode, 0) << line;
        ctx.round = (Uint32)mode;
        tally.ran++;

        ZEPDecValue v;
        zepDecValueZero(&v);
        std::string got;
        Uint32 flags = 0;
        bool ok = false;
        bool viaOlderRule = false;
        std::string note;
        std::vector<Uint8> bytes;

        if (isHex(operand)) {
            // Decoding raises nothing; a listed Subnormal only tells that the value is one.
            ASSERT_TRUE(parseHex(operand, bytes)) << line;
            if (bytes.size() == 8)
                zepDecDecode64(bytes.data(), &v, &ctx);
            else
                zepDecDecode128(bytes.data(), &v, &ctx);
            bool subnormalOk = ((conditions & ZEP_DEC_SUBNORMAL) != 0) == isSubnormal(v, ctx);
            bool onlyInfo = (conditions & ~ZEP_DEC_SUBNORMAL) == 0;
            if (isHex(expected)) {
                Uint8 out[16];
                if (bytes.size() == 8)
                    zepDecEncode64(out, &v, &ctx);
                else
                    zepDecEncode128(out, &v, &ctx);
                got = toHex(out, bytes.size());
            } else {
                got = text(v);
            }
            flags = ctx.status;
            ok = lowered(got) == lowered(expected) && flags == 0 && subnormalOk && onlyInfo;
        } else {
            zepDecValueFromText(&v, operand.c_str(), &ctx);
            if (isHex(expected)) {
                Uint8 out[16];
                size_t n = expected.size() == 17 ? 8 : 16;
                ASSERT_EQ(n, (size_t)ctx.formatBytes) << line;
                if (n == 8)
                    zepDecEncode64(out, &v, &ctx);
                else
                    zepDecEncode128(out, &v, &ctx);
                got = toHex(out, n);
            } else if (op == "toeng") {
                got = engineeringText(v);
            } else {
                got = text(v);
            }
            flags = ctx.status;
            if (isHex(expected)) got = lowered(got) == lowered(expected) ? expected : got;
            ok = got == expected && flags == conditions;

            if (!ok && !older) {
                bool zeroResult =
                    !(v.bits & ZEP_DEC_SPECIAL) && v.digits == 1 && v.coefficient[0] == 0;
                int payload = nanPayloadDigits(operand);
                if (got == expected && zeroResult && (conditions & ZEP_DEC_UNDERFLOW) &&
                    flags == (conditions & ~ZEP_DEC_CLAMPED)) {
                    // 2.39 rule: underflow to zero without Clamped.
                    ok = viaOlderRule = true;
                    tally.zeroNoClamp++;
                } else if (payload == precision && expected == "NaN" &&
                           conditions == ZEP_DEC_CONVERSION_SYNTAX && flags == 0 &&
                           (v.bits & (ZEP_DEC_NAN | ZEP_DEC_SNAN)) && v.digits == precision) {
                    // 2.39 rule: a payload of the full precision is a NaN with that payload.
                    ok = viaOlderRule = true;
                    tally.longPayload++;
                }
            }
        }

        if (ok) {
            tally.passed++;
            if (viaOlderRule) tally.olderRule++;
        }
        EXPECT_TRUE(ok) << id << " " << op << " " << operand << "\n  expected: " << expected << " "
                        << flagNames(conditions) << "\n  got:      " << got << " "
                        << flagNames(flags);
    }
}

class Report : public ::testing::Environment {
public:
    void TearDown() override {
        int ran = 0, passed = 0, older = 0, skipped = 0;
        printf(
            "\ndecimal conformance: file, cases run, passed (of them by the 2.39 rule), skipped\n");
        for (auto& [file, t] : tallies()) {
            int s = 0;
            for (auto& [why, n] : t.skipped) s += n;
            printf("  %-22s ran %4d  passed %4d (%2d)  skipped %3d\n", file.c_str(), t.ran,
                   t.passed, t.olderRule, s);
            if (t.olderRule != 0)
                printf(
                    "      by the 2.39 rule: %d underflow to zero without Clamped, %d NaN payload "
                    "of %s digits\n",
                    t.zeroNoClamp, t.longPayload, file[0] == 'd' && file[1] == 'd' ? "16" : "34");
            for (auto& [why, n] : t.skipped) printf("      skipped %3d  %s\n", n, why.c_str());
            ran += t.ran;
            passed += t.passed;
            older += t.olderRule;
            skipped += s;
        }
        printf("  %-22s ran %4d  passed %4d (%2d)  skipped %3d\n\n", "all", ran, passed, older,
               skipped);
    }
};

const auto* const kReport = ::testing::AddGlobalTestEnvironment(new Report);

}  // namespace

TEST(DecConformance, Decimal64TextAndNumber) {
    runFile("ddBase.decTest");
}
TEST(DecConformance, Decimal128TextAndNumber) {
    runFile("dqBase.decTest");
}
TEST(DecConformance, Decimal64Encodings) {
    runFile("ddEncode.decTest");
}
TEST(DecConformance, Decimal128Encodings) {
    runFile("dqEncode.decTest");
}
TEST(DecConformance, Decimal64Canonical) {
    runFile("ddCanonical.decTest");
}
TEST(DecConformance, Decimal128Canonical) {
    runFile("dqCanonical.decTest");
}
TEST(DecConformance, Decimal64OlderEncodings) {
    runFile("decimal64.decTest");
}
TEST(DecConformance, Decimal128OlderEncodings) {
    runFile("decimal128.decTest");
}
