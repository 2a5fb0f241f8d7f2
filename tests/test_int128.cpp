// Uint128 and Sint128: wrapping arithmetic, truncating float conversions, the text reader's
// quirks and the exact lengths of the text writer.
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>

#include "zepint128.h"

namespace {

typedef unsigned __int128 U128;

const Uint64 kOnes = ~(Uint64)0;
const Sint128 kMin((Uint64)1 << 63, 0);
const Sint128 kMax(kOnes >> 1, kOnes);

U128 raw(const int128& v) {
    return ((U128)v.getHigh() << 64) | v.getLow();
}

std::string text(const Uint128& v) {
    char buf[64];
    EXPECT_GT(v.toString(buf, sizeof buf), 0);
    return buf;
}

std::string text(const Sint128& v) {
    char buf[64];
    EXPECT_GT(v.toString(buf, sizeof buf), 0);
    return buf;
}

// Digits by one division by 10 per digit: a reference independent of the library's splitting.
std::string referenceDigits(U128 v) {
    if (v == 0) return "0";
    std::string s;
    for (; v != 0; v /= 10) s.insert(s.begin(), (char)('0' + (int)(v % 10)));
    return s;
}

// Exposes the protected reader to the tests.
struct Reader : int128 {
    static Sint128 read(String s) { return Sint128(strToInt128(s)); }
};

// Values of every bit length, with the decimal boundaries that splitting by 10^19 meets.
std::vector<U128> interestingValues() {
    std::vector<U128> v;
    std::mt19937_64 rng(12345);
    for (int bits = 1; bits <= 128; ++bits) {
        for (int i = 0; i < 40; ++i) {
            U128 r = ((U128)rng() << 64) | rng();
            if (bits < 128) r &= ((U128)1 << bits) - 1;
            r |= (U128)1 << (bits - 1);
            v.push_back(r);
        }
    }
    U128 p = 1;
    for (int i = 0; i <= 38; ++i, p *= 10) {
        v.push_back(p - 1);
        v.push_back(p);
        v.push_back(p + 1);
    }
    const U128 ten19 = (U128)10000000000000000000ull;
    v.push_back(ten19 * ten19 - 1);
    v.push_back(ten19 * ten19);
    v.push_back(((U128)1 << 64) - 1);
    v.push_back((U128)1 << 64);
    v.push_back(~(U128)0);
    return v;
}

}  // namespace

TEST(Int128, ProductsWrapAtTheEdges) {
    Uint128 twoTo64(1, 0);
    EXPECT_TRUE(twoTo64 * twoTo64 == Uint128(0));
    Uint128 ones(kOnes, kOnes);
    EXPECT_TRUE(ones * ones == Uint128(1));
    Uint128 low(0, kOnes);
    Uint128 sq = low * low;  // 2^128 - 2^65 + 1
    EXPECT_EQ(sq.getHigh(), kOnes - 1);
    EXPECT_EQ(sq.getLow(), 1u);
    // High halves take part: (2^64 + 3) * (2^64 + 5) = 8 * 2^64 + 15 modulo 2^128.
    Uint128 p = Uint128(1, 3) * Uint128(1, 5);
    EXPECT_EQ(p.getHigh(), 8u);
    EXPECT_EQ(p.getLow(), 15u);

    EXPECT_TRUE(Sint128(-3) * Sint128(5) == Sint128(-15));
    EXPECT_TRUE(Sint128(-3) * Sint128(-5) == Sint128(15));
    EXPECT_TRUE(kMin * Sint128(-1) == kMin);
    EXPECT_TRUE(kMax * Sint128(-1) == kMin + Sint128(1));
}

TEST(Int128, QuotientsTruncateTowardZero) {
    EXPECT_TRUE(Sint128(-7) / Sint128(2) == Sint128(-3));
    EXPECT_TRUE(Sint128(7) / Sint128(-2) == Sint128(-3));
    EXPECT_TRUE(Sint128(-7) / Sint128(-2) == Sint128(3));
    EXPECT_TRUE(kMin / Sint128(-1) == kMin);
    EXPECT_TRUE(kMin / Sint128(1) == kMin);
    EXPECT_TRUE(kMin / kMin == Sint128(1));

    EXPECT_TRUE(Uint128(5) / Uint128(7) == Uint128(0));
    EXPECT_TRUE(Uint128(1, 0) / Uint128(1, 1) == Uint128(0));
    EXPECT_TRUE(Uint128(kOnes, kOnes) / Uint128(kOnes, kOnes) == Uint128(1));
    EXPECT_TRUE(Uint128(kOnes, kOnes) / Uint128(1, 0) == Uint128(kOnes));
    EXPECT_TRUE(Uint128(0, kOnes) / Uint128(0, 2) == Uint128(kOnes >> 1));

    // The quotient and the remainder it implies must rebuild the dividend, with the remainder
    // below the divisor, for divisors of every size.
    std::mt19937_64 rng(99);
    for (int i = 0; i < 20000; ++i) {
        Uint128 a(rng(), rng());
        int shift = (int)(rng() % 128);
        Uint128 b = Uint128(rng(), rng()) >> (Uint32)shift;
        if (b == Uint128(0)) b = Uint128(1);
        Uint128 q = a / b;
        Uint128 r = a - q * b;
        ASSERT_TRUE(r < b) << i;
        ASSERT_TRUE(raw(q) == raw(a) / raw(b)) << i;
    }
}

TEST(Int128, AdditionShiftsAndComparisons) {
    Uint128 a(0, kOnes);
    ++a;
    EXPECT_EQ(a.getHigh(), 1u);
    EXPECT_EQ(a.getLow(), 0u);
    EXPECT_TRUE(Uint128(0) - Uint128(1) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(-Uint128(1) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(~Uint128(0) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(Uint128(1, kOnes) + Uint128(0, 1) == Uint128(2, 0));

    Uint128 one(1);
    EXPECT_TRUE((one << 0) == one);
    EXPECT_TRUE((one << 64) == Uint128(1, 0));
    EXPECT_TRUE((one << 127) == Uint128((Uint64)1 << 63, 0));
    EXPECT_TRUE((one << 128) == Uint128(0));
    EXPECT_TRUE((Uint128(kOnes, kOnes) >> 64) == Uint128(kOnes));
    EXPECT_TRUE((Uint128(kOnes, kOnes) >> 127) == Uint128(1));
    EXPECT_TRUE((Uint128(kOnes, kOnes) >> 200) == Uint128(0));
    EXPECT_TRUE((Uint128(0x1, 0x8000000000000000ull) >> 63) == Uint128(3));

    // Arithmetic shifts bring in the sign.
    EXPECT_TRUE((Sint128(-1) >> 200) == Sint128(-1));
    EXPECT_TRUE((kMin >> 127) == Sint128(-1));
    Sint128 m = kMin >> 64;
    EXPECT_EQ(m.getHigh(), kOnes);
    EXPECT_EQ(m.getLow(), (Uint64)1 << 63);
    EXPECT_TRUE((Sint128(-16) >> 2) == Sint128(-4));
    EXPECT_TRUE((kMax >> 130) == Sint128(0));
    EXPECT_TRUE((kMin >> 0) == kMin);

    EXPECT_TRUE(Uint128(1, 0) > Uint128(kOnes));
    EXPECT_TRUE(Uint128(kOnes, kOnes) > Uint128(0));
    EXPECT_TRUE(Sint128(-1) < Sint128(0));
    EXPECT_TRUE(kMin < kMax);
    EXPECT_TRUE(kMin <= kMin && kMin >= kMin);
    EXPECT_TRUE(Uint128(1, 0).bitTest(64) && !Uint128(1, 0).bitTest(63));
    EXPECT_TRUE(kMin.getSign() && !kMax.getSign());

    // The base class's small constants put a negative Sint32 into the low half only; the
    // derived classes extend the sign.
    int128 quirk(-1);
    EXPECT_EQ(quirk.getLow(), kOnes);
    EXPECT_EQ(quirk.getHigh(), 0u);
    EXPECT_TRUE(Sint128(-1) == Sint128(kOnes, kOnes));
    EXPECT_TRUE(Uint128((Sint64)-2) == Uint128(kOnes, kOnes - 1));
}

// Every standard integer type converts without a cast, sign-extended when it is signed.
template <typename T>
void expectExactConversions() {
    for (T v : {std::numeric_limits<T>::min(), (T)-1, (T)0, (T)1, std::numeric_limits<T>::max()}) {
        const U128 want = std::is_signed_v<T> ? (U128)(__int128)v : (U128)v;
        Uint128 u = v;
        Sint128 s = v;
        EXPECT_TRUE(raw(u) == want) << +v;
        EXPECT_TRUE(raw(s) == want) << +v;
    }
}

TEST(Int128, EveryStandardIntegerTypeConverts) {
    expectExactConversions<int>();
    expectExactConversions<unsigned>();
    expectExactConversions<long>();
    expectExactConversions<unsigned long>();
    expectExactConversions<long long>();
    expectExactConversions<unsigned long long>();
    EXPECT_TRUE(Uint128(~0ULL) == Uint128(0, kOnes));
    EXPECT_TRUE(Sint128(-1LL) == Sint128(kOnes, kOnes));
    EXPECT_TRUE(Uint128(5) + 7ULL == Uint128(12));
    EXPECT_TRUE(Sint128(5) - 7LL == Sint128(-2));
}

TEST(Int128, FloatingPointInIsTruncatedAndSaturated) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(Uint128(-1.5) == Uint128(0));
    EXPECT_TRUE(Sint128(-1.5) == Sint128(-1));
    EXPECT_TRUE(Uint128(0.99) == Uint128(0));
    EXPECT_TRUE(Sint128(-0.99) == Sint128(0));
    EXPECT_TRUE(Uint128(4.9e-324) == Uint128(0));
    EXPECT_TRUE(Uint128(1.0) == Uint128(1));
    EXPECT_TRUE(Uint128(123456789.75) == Uint128(123456789));
    EXPECT_EQ(text(Uint128(3.0e38)), "300000000000000012135895401846682943488");
    EXPECT_EQ(text(Uint128(3.0e38f)), "300000000549775575777803994281145270272");
    EXPECT_EQ(text(Sint128(-3.0e38 / 2)), "-150000000000000006067947700923341471744");
    EXPECT_TRUE(Uint128(1.0e39) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(Sint128(1.0e39) == kMax);
    EXPECT_TRUE(Sint128(-1.0e39) == kMin);
    EXPECT_TRUE(Uint128(-1.0e39) == Uint128(0));
    // 2^127 does not fit a Sint128 and saturates; -2^127 saturates onto itself.
    EXPECT_TRUE(Sint128(1.7014118346046923e38) == kMax);
    EXPECT_TRUE(Sint128(-1.7014118346046923e38) == kMin);
    EXPECT_TRUE(Uint128(1.7014118346046923e38) == Uint128((Uint64)1 << 63, 0));

    EXPECT_TRUE(Uint128(inf) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(Uint128(-inf) == Uint128(0));
    EXPECT_TRUE(Uint128(nan) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(Uint128(-nan) == Uint128(0));
    EXPECT_TRUE(Sint128(nan) == kMax);
    EXPECT_TRUE(Sint128(-nan) == kMin);
    EXPECT_TRUE(Sint128(-inf) == kMin);
    EXPECT_TRUE(Uint128(std::numeric_limits<float>::infinity()) == Uint128(kOnes, kOnes));
    EXPECT_TRUE(Sint128(-2.5f) == Sint128(-2));
}

TEST(Int128, DoubleOutTruncates) {
    EXPECT_EQ((double)Uint128(((Uint64)1 << 53) + 1), 9007199254740992.0);
    EXPECT_EQ((double)Uint128(((Uint64)1 << 54) - 1), 18014398509481982.0);  // not 2^54
    EXPECT_EQ((double)Uint128(kOnes, kOnes), 340282366920938425684442744474606501888.0);
    EXPECT_EQ((double)Uint128(0), 0.0);
    EXPECT_EQ((double)Uint128(1), 1.0);
    EXPECT_EQ((double)Uint128(1, 0), 18446744073709551616.0);
    EXPECT_EQ((double)Sint128(-1), -1.0);
    EXPECT_EQ((double)kMin, -170141183460469231731687303715884105728.0);
    EXPECT_EQ((double)Sint128(-(((Sint64)1 << 54) - 1)), -18014398509481982.0);
}

TEST(Int128, TextLengthsAndBuffers) {
    char buf[64];
    Uint128 zero(0);
    EXPECT_EQ(zero.toString(buf, 0), -1);
    EXPECT_EQ(zero.toString(buf, 1), -1);
    EXPECT_EQ(zero.toString(buf, 2), 1);
    EXPECT_STREQ(buf, "0");
    EXPECT_EQ(Uint128(1000).toString(buf, 4), -1);
    EXPECT_EQ(Uint128(1000).toString(buf, 5), 4);
    EXPECT_STREQ(buf, "1000");

    Uint128 ones(kOnes, kOnes);
    EXPECT_EQ(ones.toString(buf, 39), -1);
    EXPECT_EQ(ones.toString(buf, 40), 39);
    EXPECT_STREQ(buf, "340282366920938463463374607431768211455");
    EXPECT_EQ(Sint128(ones).toString(buf, sizeof buf), 2);
    EXPECT_STREQ(buf, "-1");
    EXPECT_EQ(kMin.toString(buf, 41), 40);
    EXPECT_STREQ(buf, "-170141183460469231731687303715884105728");
    EXPECT_EQ(kMax.toString(buf, sizeof buf), 39);
    EXPECT_STREQ(buf, "170141183460469231731687303715884105727");

    // A negative value that does not fit still has its sign written, and nothing else.
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(Sint128(-5).toString(buf, 2), -1);
    EXPECT_EQ(buf[0], '-');
    EXPECT_EQ(buf[1], 'x');
    EXPECT_EQ(Sint128(-5).toString(buf, 3), 2);
    EXPECT_STREQ(buf, "-5");
    EXPECT_EQ(Sint128(-5).toString(buf, 1), -1);

    for (U128 v : interestingValues()) {
        std::string want = referenceDigits(v);
        Uint128 u((Uint64)(v >> 64), (Uint64)v);
        int n = (int)want.size();
        ASSERT_EQ(u.toString(buf, (Uint32)n), -1) << want;
        ASSERT_EQ(u.toString(buf, (Uint32)n + 1), n) << want;
        ASSERT_EQ(want, buf);
        Sint128 s = -Sint128(u);
        if (s.getSign() && !(s == kMin)) {
            ASSERT_EQ(s.toString(buf, (Uint32)n + 1), -1) << want;
            ASSERT_EQ(s.toString(buf, (Uint32)n + 2), n + 1) << want;
            ASSERT_EQ("-" + want, buf);
        }
    }
}

TEST(Int128, TextReaderQuirks) {
    EXPECT_TRUE(Reader::read("  -0012") == Sint128(-12));
    EXPECT_TRUE(Reader::read("-12x") == Sint128(12));
    EXPECT_TRUE(Reader::read("abc") == Sint128(0));
    EXPECT_TRUE(Reader::read("-+5") == Sint128(0));
    EXPECT_TRUE(Reader::read("+-5") == Sint128(-5));
    EXPECT_TRUE(Reader::read("+5") == Sint128(5));
    EXPECT_TRUE(Reader::read("") == Sint128(0));
    EXPECT_TRUE(Reader::read("-000") == Sint128(0));
    EXPECT_TRUE(Reader::read("\t\n 7") == Sint128(7));
    EXPECT_TRUE(Reader::read("7 ") == Sint128(7));
    EXPECT_TRUE(Reader::read("-170141183460469231731687303715884105728") == kMin);
    EXPECT_TRUE(Uint128("340282366920938463463374607431768211455") == Uint128(kOnes, kOnes));
    // Beyond 128 bits the value wraps.
    EXPECT_TRUE(Uint128("340282366920938463463374607431768211456") == Uint128(0));
    EXPECT_TRUE(Uint128("340282366920938463463374607431768211457") == Uint128(1));
    EXPECT_TRUE(Sint128("-1") == Sint128(-1));
}
