// Uint128 and Sint128: wrapping arithmetic against the compiler's own 128-bit type, truncating
// float conversions, the text reader's quirks and the exact lengths of the text writer.
#include <gtest/gtest.h>

#include <climits>
#include <limits>
#include <string>

#include "zepint128.h"

namespace {

typedef unsigned __int128 U128;
typedef __int128 S128;

const Uint64 kOnes = ~Uint64(0);
const Sint128 kMin(Uint64(1) << 63, 0);
const Sint128 kMax(kOnes >> 1, kOnes);

U128 raw(const int128& v) {
    return (U128(v.getHigh()) << 64) | v.getLow();
}
Uint128 u(U128 v) {
    return Uint128(Uint64(v >> 64), Uint64(v));
}
Sint128 s(U128 v) {
    return Sint128(Uint64(v >> 64), Uint64(v));
}

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
    char buf[64];
    Uint128(3.0e38f).toString(buf, sizeof buf);
    EXPECT_STREQ(buf, "300000000549775575777803994281145270272");
    Sint128(-3.0e38 / 2).toString(buf, sizeof buf);
    EXPECT_STREQ(buf, "-150000000000000006067947700923341471744");
    EXPECT_TRUE(Sint128(-2.5f) == Sint128(-2));

    // Out, truncated rather than rounded.
    const std::pair<double, double> out[] = {
        {double(Uint128((Uint64(1) << 53) + 1)), 9007199254740992.0},
        {double(Uint128((Uint64(1) << 54) - 1)), 18014398509481982.0},  // not 2^54
        {double(Uint128(kOnes, kOnes)), 340282366920938425684442744474606501888.0},
        {double(Uint128(0)), 0.0},
        {double(kMin), -170141183460469231731687303715884105728.0},
        {double(Sint128(-((Sint64(1) << 54) - 1))), -18014398509481982.0}};
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
        const Sint128 negative = -Sint128(u(v));
        if (negative.getSign() && !(negative == kMin)) {
            ASSERT_EQ(negative.toString(buf, n + 2), int(n) + 1) << want;
            ASSERT_EQ("-" + want, buf);
        }
    }

    // clang-format off
    const std::pair<const char*, Sint128> read[] = {
        {"  -0012", -12}, {"-12x", 12}, {"abc", 0}, {"-+5", 0}, {"+-5", -5}, {"", 0},
        {"\t\n 7", 7}, {"-170141183460469231731687303715884105728", kMin}};
    // clang-format on
    for (const auto& [in, want] : read) EXPECT_TRUE(Reader::read(in) == want) << in;
    // Beyond 128 bits the value wraps.
    EXPECT_TRUE(Uint128("340282366920938463463374607431768211455") == Uint128(kOnes, kOnes));
    EXPECT_TRUE(Uint128("340282366920938463463374607431768211457") == Uint128(1));
    EXPECT_TRUE(Sint128("-1") == Sint128(-1));
}
