// Number theory, the text readers and zepSnprintf: results, end pointers, errno, truncation.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "zep.h"

TEST(NumConv, MontgomeryInverseGcdAndLcm) {
    // The defining property over odd numbers spread across the range fixes the inverse; even
    // numbers answer for their odd part, and 0 for nothing.
    for (Uint32 i = 0; i <= 4096; ++i) {
        const Uint32 x = i == 4096 ? 0xFFFFFFFFu : (i * 0x9E3779B9u) | 1u;
        ASSERT_EQ(Uint32(x * zepComputeMontgomeryInverse32(x)), 0xFFFFFFFFu) << x;
    }
    EXPECT_EQ(zepComputeMontgomeryInverse32(6), 0x55555555u);
    EXPECT_EQ(zepComputeMontgomeryInverse32(0x80000000u), 0xFFFFFFFFu);
    EXPECT_EQ(zepComputeMontgomeryInverse32(0), 0u);
    const Uint32 gcd[][3] = {{0, 7, 7}, {7, 0, 7}, {0, 0, 0}, {48, 180, 12}, {~0u, ~0u - 1, 1}};
    for (auto& g : gcd) EXPECT_EQ(zepComputeGCD(g[0], g[1]), g[2]) << g[0] << " " << g[1];
    // The product wraps at 32 bits before the division: the caller keeps it in range.
    const Uint32 lcm[][3] = {{4, 6, 12}, {0, 0, 0}, {0, 5, 0}, {0x10000u, 0x10001u, 0x10000u}};
    for (auto& l : lcm) EXPECT_EQ(zepComputeLCM(l[0], l[1]), l[2]) << l[0] << " " << l[1];
}

TEST(NumConv, IntegerReaders) {
    // 's' signed, 'u' unsigned: the text, the base, the value (as 64 bits), where the end
    // pointer stops and errno (34 on overflow).
    const Sint64 kMinS = LLONG_MIN, kMaxS = LLONG_MAX, kOnes = -1;
    struct {
        char reader;
        const char* text;
        Sint32 base;
        Sint64 value;
        long end;
        int err;
    } cases[] = {
        // clang-format off
        {'s', "  -42", 10, -42, 5, 0}, {'s', " \t\n+17xyz", 10, 17, 6, 0},
        // Base 0 from the prefix; a lone "0" is decimal, "0" with anything after it octal.
        {'s', "0x1F", 0, 31, 4, 0}, {'s', "0X1f", 0, 31, 4, 0}, {'s', "0x", 0, 0, 1, 0},
        {'s', "-0xg", 0, 0, 2, 0}, {'s', "012", 0, 10, 3, 0}, {'s', "09", 0, 0, 1, 0},
        {'s', "0", 0, 0, 1, 0}, {'s', "0 ", 0, 0, 1, 0}, {'s', "-077", 0, -63, 4, 0},
        // Given bases: the prefix is skipped in 16 only, one leading zero in 8.
        {'s', "0xff", 16, 255, 4, 0}, {'s', "ff", 16, 255, 2, 0}, {'s', "0x10", 10, 0, 1, 0},
        {'s', "0777", 8, 511, 4, 0}, {'s', "08", 8, 0, 1, 0}, {'s', "12", 2, 1, 1, 0},
        {'s', "zZ", 36, 1295, 2, 0}, {'u', "zz", 36, 1295, 2, 0},
        // No conversion, also after blanks or a sign: the end pointer goes back to the start.
        {'s', "- 1", 10, 0, 0, 0}, {'s', "+", 10, 0, 0, 0}, {'s', "   ", 10, 0, 0, 0},
        {'s', "", 10, 0, 0, 0}, {'s', "abc", 10, 0, 0, 0}, {'s', "-abc", 10, 0, 0, 0},
        {'s', "+-5", 10, 0, 0, 0}, {'s', "-x", 0, 0, 0, 0}, {'s', "   abc", 10, 0, 0, 0},
        {'s', " +z", 16, 0, 0, 0}, {'u', "  -q", 10, 0, 0, 0},
        // Invalid bases read what they can and never fault.
        {'s', "101", 1, 0, 0, 0}, {'s', "000", 1, 0, 3, 0}, {'s', "12", -5, 0, 0, 0},
        // The range; past 64 bits the digits are still consumed.
        {'s', "9223372036854775807", 10, kMaxS, 19, 0}, {'s', "9223372036854775808", 10, kMaxS, 19, 34},
        {'s', "-9223372036854775808", 10, kMinS, 20, 0}, {'s', "-9223372036854775809", 10, kMinS, 20, 34},
        {'s', "123456789012345678901234567890x", 10, kMaxS, 30, 34},
        {'s', "-0x10000000000000000", 0, kMinS, 20, 34},
        {'s', "-000000000000000000009223372036854775808", 10, kMinS, 40, 0},
        {'u', "18446744073709551615", 10, kOnes, 20, 0}, {'u', "18446744073709551616", 10, kOnes, 20, 34},
        {'u', "0xFFFFFFFFFFFFFFFF", 0, kOnes, 18, 0}, {'u', "9223372036854775808", 10, kMinS, 19, 0},
        // A negative text is negated modulo 2^64; a negative overflow saturates to all ones too.
        {'u', "-1", 10, kOnes, 2, 0}, {'u', "-18446744073709551615", 10, 1, 21, 0},
        {'u', "-18446744073709551616", 10, kOnes, 21, 34}, {'u', "-0x10000000000000000", 0, kOnes, 20, 34},
        // Around the nineteenth and twentieth decimal digit, where overflow first becomes possible.
        {'u', "9999999999999999999", 10, Sint64(9999999999999999999ull), 19, 0},
        {'u', "99999999999999999999", 10, kOnes, 20, 34},
        {'u', "000000000000000000000000000000042", 10, 42, 33, 0},
        {'u', "1111111111111111111111111111111111111111111111111111111111111111", 2, kOnes, 64, 0},
        {'u', "11111111111111111111111111111111111111111111111111111111111111111", 2, kOnes, 65, 34},
        {'u', "3w5e11264sgsf", 36, kOnes, 13, 0}, {'u', "3w5e11264sgsg", 36, kOnes, 13, 34},
        // clang-format on
    };
    for (const auto& c : cases) {
        char* end = nullptr;
        errno = 0;
        const Sint64 v = c.reader == 's' ? zepStrToSint64(c.text, &end, c.base)
                                         : Sint64(zepStrToUint64(c.text, &end, c.base));
        EXPECT_EQ(v, c.value) << c.reader << " '" << c.text << "' " << c.base;
        EXPECT_EQ(end - c.text, c.end) << c.reader << " '" << c.text << "' " << c.base;
        EXPECT_EQ(errno, c.err) << c.reader << " '" << c.text << "' " << c.base;
    }
    // A null end pointer is allowed; errno is left alone unless there is an overflow.
    EXPECT_EQ(zepStrToSint64("123", nullptr, 10), 123);
    errno = 7;
    zepStrToSint64("-9223372036854775808", nullptr, 10);
    zepStrToSint64("junk", nullptr, 10);
    EXPECT_EQ(errno, 7);
}

TEST(NumConv, Boolean) {
    for (const char* w : {"1", "on", "ON", "y", "Y", "yes", "YeS", "t", "T", "true", "TRUE"}) {
        Bool v = 0;
        EXPECT_EQ(zepStrToBoolean(w, &v), 0u) << w;
        EXPECT_NE(v, 0) << w;
    }
    for (const char* w : {"0", "off", "oFf", "n", "N", "no", "NO", "f", "F", "false"}) {
        Bool v = 1;
        EXPECT_EQ(zepStrToBoolean(w, &v), 0u) << w;
        EXPECT_EQ(v, 0) << w;
    }
    // The whole text must match: a trailing blank, a prefix or a longer word is no truth value,
    // and the result is false.
    for (const char* w : {"2", "TRUE ", " yes", "ye", "yess", "", "of", "offf", "+1", "01"}) {
        Bool v = 1;
        EXPECT_EQ(zepStrToBoolean(w, &v), ECF_ZEP_NOT_BOOLEAN_STRING) << "'" << w << "'";
        EXPECT_EQ(v, 0) << w;
    }
}

namespace {

// zepSnprintf and the C library's snprintf must leave the same bytes and agree on the count, the
// C library's count being cut to what fits.
template <class T>
void expectSameAsCLibrary(const std::string& format, T value) {
    for (Uint32 size : {1u, 2u, 5u, 9u, 64u}) {
        char ours[80], theirs[80];
        memset(ours, '#', sizeof ours);
        memset(theirs, '#', sizeof theirs);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const Sint32 n = zepSnprintf(ours, size, format.c_str(), value);
        const int m = snprintf(theirs, size, format.c_str(), value);
#pragma GCC diagnostic pop
        ASSERT_GE(m, 0);
        EXPECT_EQ(n, m < int(size) ? m : int(size) - 1) << "'" << format << "' size " << size;
        EXPECT_EQ(memcmp(ours, theirs, sizeof ours), 0) << "'" << format << "' size " << size;
    }
}

}  // namespace

TEST(NumConv, SnprintfAgreesWithTheCLibrary) {
    for (const std::string fl : {"", "-", "0", "-0", "0-", "00"}) {
        for (const std::string w : {"", "1", "3", "7", "21"}) {
            auto f = [&](const char* conv) { return "<%" + fl + w + conv + ">|"; };
            for (int v : {0, 7, -7, 42, INT_MAX, INT_MIN}) {
                expectSameAsCLibrary(f("d"), v);
                expectSameAsCLibrary(f("i"), v);
            }
            for (unsigned v : {0u, 9u, 0xABCDu, UINT_MAX}) {
                expectSameAsCLibrary(f("u"), v);
                expectSameAsCLibrary(f("x"), v);
                expectSameAsCLibrary(f("X"), v);
            }
            for (long v : {0L, -1L, LONG_MIN, LONG_MAX}) expectSameAsCLibrary(f("ld"), v);
            for (long long v : {0LL, -123456789012LL, LLONG_MIN}) expectSameAsCLibrary(f("lld"), v);
            for (unsigned long long v : {0ULL, ULLONG_MAX}) {
                expectSameAsCLibrary(f("llu"), v);
                expectSameAsCLibrary(f("llX"), v);
            }
            expectSameAsCLibrary(f("lx"), 0xDEADBEEFCAFEul);
            expectSameAsCLibrary(f("zu"), size_t(12345));
            expectSameAsCLibrary(f("zd"), ssize_t(-12345));
            for (const char* v : {"", "a", "locked;waiting"}) expectSameAsCLibrary(f("s"), v);
            for (int c : {int('A'), int(' '), 0}) expectSameAsCLibrary(f("c"), c);
        }
    }
    // Forms the formatter leaves to the C library.
    expectSameAsCLibrary("%.3s|", "abcdef");
    expectSameAsCLibrary("%+d|", 5);
    expectSameAsCLibrary("% d|", 5);
    expectSameAsCLibrary("%#x|", 255u);
    expectSameAsCLibrary("%5.2f|", 3.14159);
    expectSameAsCLibrary("%p|", static_cast<void*>(nullptr));
    expectSameAsCLibrary("%hhu|", 300);
    expectSameAsCLibrary("%s|", static_cast<const char*>(nullptr));
    expectSameAsCLibrary("%5%|%d", 3);
    expectSameAsCLibrary("100%%|%d%%", 3);
    expectSameAsCLibrary("%s", std::string(1000, 'x').c_str());  // a long text is cut

    // Arguments of several widths in one call; size 0 writes nothing at all.
    char buf[16] = {'Z'};
    EXPECT_EQ(zepSnprintf(buf, 0, "abc"), 0);
    EXPECT_EQ(buf[0], 'Z');
    EXPECT_EQ(zepSnprintf(buf, sizeof buf, "%d|%05u|%llX", -12, 42u, 0xABCDEFull), 15);
    EXPECT_STREQ(buf, "-12|00042|ABCDE");
}
