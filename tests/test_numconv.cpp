// Numerics: Uint128 and Sint128 (wrapping arithmetic against the compiler's own 128-bit type,
// truncating float conversions, the text reader's quirks, the exact lengths of the text writer),
// number theory, the text readers and zepSnprintf (results, end pointers, errno, truncation).
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <limits>
#include <string>
#include <tuple>

#include "zep.h"
#include "zepint128.h"

namespace {

typedef unsigned __int128 U128;
typedef __int128 S128;

const Uint64 kOnes = ~Uint64(0);
const Sint128 kMin(Uint64(1) << 63, 0);
const Sint128 kMax(kOnes >> 1, kOnes);

const auto raw = [](const int128& v) { return (U128(v.getHigh()) << 64) | v.getLow(); };
const auto u = [](U128 v) { return Uint128(Uint64(v >> 64), Uint64(v)); };
const auto s = [](U128 v) { return Sint128(Uint64(v >> 64), Uint64(v)); };

// Exposes the protected reader to the tests.
struct Reader : int128 {
    static Sint128 read(String s) { return Sint128(strToInt128(s)); }
};

// Every power of two and of ten with its neighbours, the 64-bit and 10^38 edges, all ones.
std::vector<U128> boundaries() {
    std::vector<U128> v = {0, ~U128(0)};
    for (int bits = 0; bits < 128; ++bits)
        for (int d : {-1, 0, 1}) v.push_back((U128(1) << bits) + d);
    U128 p = 1;
    for (int i = 0; i <= 38; ++i, p *= 10)
        for (int d : {-1, 0, 1}) v.push_back(p + d);
    return v;
}

}  // namespace

TEST(Int128, ArithmeticWrapsLikeTheCompilersType) {
    const std::vector<U128> values = boundaries();
    for (U128 a : values) {
        for (U128 b : values) {
            const Uint128 x = u(a), y = u(b);
            const Sint128 sx = s(a), sy = s(b);
            const S128 sa = S128(a), sb = S128(b);
            ASSERT_TRUE(raw(x + y) == a + b && raw(x - y) == a - b && raw(x * y) == a * b);
            ASSERT_TRUE(raw(sx + sy) == a + b && raw(sx - sy) == a - b && raw(sx * sy) == a * b);
            ASSERT_EQ((x < y) + 2 * (x > y) + 4 * (x <= y) + 8 * (x >= y) + 16 * (x == y),
                      (a < b) + 2 * (a > b) + 4 * (a <= b) + 8 * (a >= b) + 16 * (a == b));
            ASSERT_EQ((sx < sy) + 2 * (sx > sy) + 4 * (sx <= sy) + 8 * (sx >= sy),
                      (sa < sb) + 2 * (sa > sb) + 4 * (sa <= sb) + 8 * (sa >= sb));
            ASSERT_TRUE(b == 0 || raw(x / y) == a / b);
            // Quotients truncate toward zero; the one quotient that overflows wraps to itself.
            ASSERT_TRUE(b == 0 || (sa == S128(raw(kMin)) && sb == -1) ||
                        raw(sx / sy) == U128(sa / sb));
        }
        for (Uint32 n = 0; n <= 130; ++n) {
            const U128 sign = S128(a) < 0 ? ~U128(0) : 0;
            ASSERT_TRUE(raw(u(a) << n) == (n < 128 ? a << n : 0)) << n;
            ASSERT_TRUE(raw(s(a) << n) == (n < 128 ? a << n : 0)) << n;
            ASSERT_TRUE(raw(u(a) >> n) == (n < 128 ? a >> n : 0)) << n;
            ASSERT_TRUE(raw(s(a) >> n) == (n < 128 ? U128(S128(a) >> n) : sign)) << n;
        }
        ASSERT_TRUE(raw(-u(a)) == -a && raw(-s(a)) == -a && raw(~u(a)) == ~a && raw(~s(a)) == ~a);
        Uint128 inc = u(a);
        Sint128 sinc = s(a);
        ASSERT_TRUE(raw(++inc) == a + 1 && raw(++sinc) == a + 1 && raw(sinc++) == a + 1);
        ASSERT_EQ(u(a).bitTest(64), bool(a >> 64 & 1));
        ASSERT_EQ(s(a).getSign(), S128(a) < 0);
    }
    EXPECT_TRUE(kMin / Sint128(-1) == kMin);
    // Signed values from 64 bits are sign-extended; the base class's small constants are not.
    auto both = [](auto v) {
        const U128 want = std::is_signed_v<decltype(v)> ? U128(S128(v)) : U128(v);
        const Uint128 x = v;
        const Sint128 y = v;
        EXPECT_TRUE(raw(x) == want && raw(y) == want) << +v;
    };
    both(-5), both(5u), both(-5L), both(5UL), both(LLONG_MIN), both(ULLONG_MAX);
    const int128 quirk(-1);
    EXPECT_TRUE(quirk.getLow() == kOnes && quirk.getHigh() == 0u);
}

TEST(Int128, FloatingPointIsTruncatedAndSaturated) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const U128 ones = ~U128(0);
    // clang-format off
    const std::pair<double, U128> unsignedCases[] = {
        {-1.5, 0}, {0.99, 0}, {4.9e-324, 0}, {123456789.75, 123456789}, {1.0e39, ones},
        {-1.0e39, 0}, {1.7014118346046923e38, U128(1) << 127}, {inf, ones}, {nan, ones}, {-nan, 0}};
    for (auto [d, want] : unsignedCases) EXPECT_TRUE(raw(Uint128(d)) == want) << d;
    // 2^127 does not fit and saturates; -2^127 saturates onto itself.
    const std::pair<double, Sint128> signedCases[] = {
        {-1.5, Sint128(-1)}, {1.0e39, kMax}, {-1.0e39, kMin}, {1.7014118346046923e38, kMax},
        {-1.7014118346046923e38, kMin}, {nan, kMax}, {-nan, kMin}};
    // clang-format on
    for (auto [d, want] : signedCases) EXPECT_TRUE(Sint128(d) == want) << d;
    // Large values in range come out exact, as the compiler's own conversion gives them.
    EXPECT_TRUE(raw(Uint128(3.0e38f)) == U128(3.0e38f) &&
                raw(Sint128(-1.5e38)) == U128(S128(-1.5e38)));
    EXPECT_TRUE(Sint128(-2.5f) == Sint128(-2));

    // Out, truncated rather than rounded.
    // clang-format off
    const std::pair<double, double> out[] = {
        {double(Uint128((Uint64(1) << 53) + 1)), 9007199254740992.0}, {double(Uint128(0)), 0.0},
        {double(Uint128((Uint64(1) << 54) - 1)), 18014398509481982.0},  // not 2^54
        {double(Uint128(kOnes, kOnes)), 340282366920938425684442744474606501888.0},
        {double(kMin), -170141183460469231731687303715884105728.0}};
    // clang-format on
    for (auto [got, want] : out) EXPECT_EQ(got, want);
}

TEST(Int128, Text) {
    char buf[64];
    // clang-format off
    const std::tuple<Sint128, Uint32, int, const char*> cases[] = {
        {Sint128(0), 1, -1, ""}, {Sint128(0), 2, 1, "0"}, {Sint128(1000), 4, -1, ""},
        {Sint128(1000), 5, 4, "1000"}, {kMin, 41, 40, "-170141183460469231731687303715884105728"},
        // A negative value that does not fit still has its sign written, and nothing else.
        {Sint128(-5), 2, -1, "-x"}, {Sint128(-5), 3, 2, "-5"}};
    // clang-format on
    for (const auto& [v, size, length, written] : cases) {
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(v.toString(buf, size), length) << written;
        EXPECT_EQ(std::string(buf, strlen(written) + (length > 0)),
                  written + std::string(length > 0, '\0'));
    }
    EXPECT_EQ(Uint128(0).toString(buf, 0), -1);
    // Against digits made by one division by 10 each, independent of the library's splitting.
    for (U128 v : boundaries()) {
        std::string want = v == 0 ? "0" : "";
        for (U128 r = v; r != 0; r /= 10) want.insert(want.begin(), char('0' + int(r % 10)));
        const Uint32 n = Uint32(want.size());
        ASSERT_EQ(u(v).toString(buf, n), -1) << want;
        ASSERT_EQ(u(v).toString(buf, n + 1), int(n)) << want;
        ASSERT_EQ(want, buf);
    }

    // clang-format off
    const std::pair<const char*, Sint128> read[] = {
        {"  -0012", -12}, {"-12x", 12}, {"abc", 0}, {"-+5", 0}, {"+-5", -5}, {"", 0},
        {"\t\n 7", 7}, {"-170141183460469231731687303715884105728", kMin}};
    // clang-format on
    for (const auto& [in, want] : read) EXPECT_TRUE(Reader::read(in) == want) << in;
    // Beyond 128 bits the value wraps.
    EXPECT_TRUE(Uint128("340282366920938463463374607431768211457") == Uint128(1));
    EXPECT_TRUE(Sint128("-1") == Sint128(-1));
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats are built by the tests

TEST(NumConv, MontgomeryInverseGcdAndLcm) {
    // The defining property over odd numbers spread across the range; even numbers answer for
    // their odd part.
    for (Uint32 i = 0; i <= 4096; ++i) {
        const Uint32 x = i == 4096 ? 0xFFFFFFFFu : (i * 0x9E3779B9u) | 1u;
        ASSERT_EQ(Uint32(x * zepComputeMontgomeryInverse32(x)), 0xFFFFFFFFu) << x;
    }
    EXPECT_EQ(zepComputeMontgomeryInverse32(6), 0x55555555u);
    const Uint32 gcd[][3] = {{0, 7, 7}, {7, 0, 7}, {0, 0, 0}, {48, 180, 12}, {~0u, ~0u - 1, 1}};
    for (auto& g : gcd) EXPECT_EQ(zepComputeGCD(g[0], g[1]), g[2]) << g[0] << " " << g[1];
    // The product wraps at 32 bits before the division: the caller keeps it in range.
    const Uint32 lcm[][3] = {{4, 6, 12}, {0, 0, 0}, {0, 5, 0}, {0x10000u, 0x10001u, 0x10000u}};
    for (auto& l : lcm) EXPECT_EQ(zepComputeLCM(l[0], l[1]), l[2]) << l[0] << " " << l[1];
}

TEST(NumConv, IntegerReaders) {
    // 's' signed, 'u' unsigned: the text, the base, the value (as 64 bits), where the end
    // pointer stops and errno (34 on overflow). Agreement with the C library on random texts is
    // the fuzz target's; these are the rules' corners and what it once found.
    const Sint64 kMinS = LLONG_MIN, kMaxS = LLONG_MAX, kOnes = -1;
    // clang-format off
    const std::tuple<char, const char*, Sint32, Sint64, long, int> cases[] = {
        {'s', "  -42", 10, -42, 5, 0}, {'s', " \t\n+17xyz", 10, 17, 6, 0},
        // Base 0 from the prefix; a lone "0" is decimal, "0" with anything after it octal.
        {'s', "0x1F", 0, 31, 4, 0}, {'s', "0x", 0, 0, 1, 0}, {'s', "012", 0, 10, 3, 0},
        {'s', "09", 0, 0, 1, 0}, {'s', "0", 0, 0, 1, 0}, {'s', "08", 8, 0, 1, 0},
        {'s', "12", 2, 1, 1, 0}, {'u', "zZ", 36, 1295, 2, 0},
        // No conversion, also after blanks or a sign: the end pointer goes back to the start.
        {'s', "- 1", 10, 0, 0, 0}, {'s', "+-5", 10, 0, 0, 0}, {'s', "   abc", 10, 0, 0, 0},
        {'s', "000", 1, 0, 3, 0}, {'s', "12", -5, 0, 0, 0},  // invalid bases never fault
        // The range; past 64 bits the digits are still consumed.
        {'s', "9223372036854775807", 10, kMaxS, 19, 0},
        {'s', "9223372036854775808", 10, kMaxS, 19, 34},
        {'s', "-9223372036854775808", 10, kMinS, 20, 0},
        {'s', "-9223372036854775809", 10, kMinS, 20, 34},
        {'s', "123456789012345678901234567890x", 10, kMaxS, 30, 34},
        {'u', "18446744073709551615", 10, kOnes, 20, 0},
        {'u', "18446744073709551616", 10, kOnes, 20, 34},
        {'u', "3w5e11264sgsf", 36, kOnes, 13, 0}, {'u', "3w5e11264sgsg", 36, kOnes, 13, 34},
        // A negative text is negated modulo 2^64; a negative overflow saturates to all ones too.
        {'u', "-1", 10, kOnes, 2, 0}, {'u', "-18446744073709551616", 10, kOnes, 21, 34}};
    // clang-format on
    for (const auto& [reader, text, base, value, end, err] : cases) {
        char* stop = nullptr;
        errno = 0;
        const Sint64 v = reader == 's' ? zepStrToSint64(text, &stop, base)
                                       : Sint64(zepStrToUint64(text, &stop, base));
        EXPECT_EQ(std::make_tuple(v, stop - text, errno), std::make_tuple(value, end, err))
            << reader << " '" << text << "' " << base;
    }
    // errno is left alone unless there is an overflow.
    errno = 7;
    EXPECT_EQ(zepStrToSint64("junk", nullptr, 10), 0);
    EXPECT_EQ(errno, 7);
}

TEST(NumConv, Boolean) {
    // The whole text must match, in any case; anything else is false and refused.
    // clang-format off
    const std::pair<const char*, int> words[] = {
        {"1", 1}, {"oN", 1}, {"y", 1}, {"YeS", 1}, {"t", 1}, {"TRUE", 1}, {"0", 0}, {"oFf", 0},
        {"N", 0}, {"no", 0}, {"F", 0}, {"false", 0}, {"2", -1}, {"TRUE ", -1}, {" yes", -1},
        {"ye", -1}, {"yess", -1}, {"", -1}};
    // clang-format on
    for (auto [w, want] : words) {
        Bool v = 1;
        EXPECT_EQ(zepStrToBoolean(w, &v), want < 0 ? ECF_ZEP_NOT_BOOLEAN_STRING : 0u) << w;
        EXPECT_EQ(v, want > 0) << "'" << w << "'";
    }
}

namespace {

// zepSnprintf and the C library's snprintf must leave the same bytes and agree on the count, the
// C library's count being cut to what fits.
template <class T>
void expectSameAsCLibrary(const std::string& format, T value) {
    for (Uint32 size : {1u, 2u, 5u, 64u}) {
        char ours[80], theirs[80];
        memset(ours, '#', sizeof ours);
        memset(theirs, '#', sizeof theirs);
        const Sint32 n = zepSnprintf(ours, size, format.c_str(), value);
        const int m = snprintf(theirs, size, format.c_str(), value);
        EXPECT_EQ(n, m < int(size) ? m : int(size) - 1) << "'" << format << "' size " << size;
        EXPECT_EQ(memcmp(ours, theirs, sizeof ours), 0) << "'" << format << "' size " << size;
    }
}

}  // namespace

TEST(NumConv, SnprintfAgreesWithTheCLibrary) {
    // The formatter's own conversions under every flag and width, then forms it leaves to the
    // C library.
    for (const std::string fl : {"", "-", "0", "-0"}) {
        for (const std::string w : {"", "3", "21"}) {
            auto f = [&](const char* conv) { return "<%" + fl + w + conv + ">|"; };
            for (int v : {0, -7, INT_MIN}) expectSameAsCLibrary(f("i"), v);
            for (const char* conv : {"u", "x", "X"}) expectSameAsCLibrary(f(conv), 0xABCDu);
            expectSameAsCLibrary(f("ld"), LONG_MIN);
            expectSameAsCLibrary(f("llu"), ULLONG_MAX);
            expectSameAsCLibrary(f("zd"), ssize_t(-12345));
            expectSameAsCLibrary(f("s"), "locked;waiting");
            expectSameAsCLibrary(f("c"), int('A'));
        }
    }
    for (const char* f : {"%.3s|", "100%%|%s", "%5%|"}) expectSameAsCLibrary(f, "abcdef");
    expectSameAsCLibrary("%s|", static_cast<const char*>(nullptr));
    expectSameAsCLibrary("%5.2f|", 3.14159);
    char buf[4] = {'Z'};
    EXPECT_EQ(zepSnprintf(buf, 0, "abc"), 0);  // size 0 writes nothing at all
    EXPECT_EQ(buf[0], 'Z');
}
