// Number theory, the text readers and zepSnprintf: results, end pointers, errno, truncation.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <string>
#include <tuple>

#include "zep.h"

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
        {'s', "9223372036854775807", 10, kMaxS, 19, 0}, {'s', "9223372036854775808", 10, kMaxS, 19, 34},
        {'s', "-9223372036854775808", 10, kMinS, 20, 0}, {'s', "-9223372036854775809", 10, kMinS, 20, 34},
        {'s', "123456789012345678901234567890x", 10, kMaxS, 30, 34},
        {'u', "18446744073709551615", 10, kOnes, 20, 0}, {'u', "18446744073709551616", 10, kOnes, 20, 34},
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
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const Sint32 n = zepSnprintf(ours, size, format.c_str(), value);
        const int m = snprintf(theirs, size, format.c_str(), value);
#pragma GCC diagnostic pop
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
