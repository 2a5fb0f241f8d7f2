// Number theory, the text readers and zepSnprintf: results, end pointers, errno, truncation.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <limits.h>
#include <stdio.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "zep.h"

namespace {

struct Read {
    Sint64 value;
    long endAt;  // offset of the end pointer in the text
    int err;     // errno after the call, which starts at 0
};

Read readSigned(const char* text, Sint32 base) {
    char* end = nullptr;
    errno = 0;
    Sint64 v = zepStrToSint64(text, &end, base);
    return Read{v, end - text, errno};
}

Read readUnsigned(const char* text, Sint32 base) {
    char* end = nullptr;
    errno = 0;
    Uint64 v = zepStrToUint64(text, &end, base);
    return Read{static_cast<Sint64>(v), end - text, errno};
}

#define EXPECT_READ(r, v, at, e)         \
    do {                                 \
        const Read got = (r);            \
        EXPECT_EQ(got.value, Sint64(v)); \
        EXPECT_EQ(got.endAt, at);        \
        EXPECT_EQ(got.err, e);           \
    } while (0)

}  // namespace

TEST(NumConv, MontgomeryInverse) {
    EXPECT_EQ(zepComputeMontgomeryInverse32(1), 0xFFFFFFFFu);
    EXPECT_EQ(zepComputeMontgomeryInverse32(3), 0x55555555u);
    // Even numbers answer for their odd part.
    EXPECT_EQ(zepComputeMontgomeryInverse32(6), 0x55555555u);
    EXPECT_EQ(zepComputeMontgomeryInverse32(0x80000000u), 0xFFFFFFFFu);
    EXPECT_EQ(zepComputeMontgomeryInverse32(0), 0u);
    // The defining property over odd numbers spread across the range.
    for (Uint32 i = 0; i < 4096; ++i) {
        const Uint32 x = (i * 0x9E3779B9u) | 1u;
        ASSERT_EQ(static_cast<Uint32>(x * zepComputeMontgomeryInverse32(x)), 0xFFFFFFFFu) << x;
    }
    EXPECT_EQ(static_cast<Uint32>(0xFFFFFFFFu * zepComputeMontgomeryInverse32(0xFFFFFFFFu)),
              0xFFFFFFFFu);
}

TEST(NumConv, GcdAndLcm) {
    EXPECT_EQ(zepComputeGCD(0, 7), 7u);
    EXPECT_EQ(zepComputeGCD(7, 0), 7u);
    EXPECT_EQ(zepComputeGCD(0, 0), 0u);
    EXPECT_EQ(zepComputeGCD(48, 180), 12u);
    EXPECT_EQ(zepComputeGCD(0xFFFFFFFFu, 0xFFFFFFFEu), 1u);
    EXPECT_EQ(zepComputeLCM(4, 6), 12u);
    EXPECT_EQ(zepComputeLCM(0, 0), 0u);
    EXPECT_EQ(zepComputeLCM(0, 5), 0u);
    // The product wraps at 32 bits before the division: the caller keeps it in range.
    EXPECT_EQ(zepComputeLCM(0x10000u, 0x10001u), 0x10000u);
}

TEST(NumConv, SignedReaderText) {
    EXPECT_READ(readSigned("  -42", 10), -42, 5, 0);
    EXPECT_READ(readSigned(" \t\n+17xyz", 10), 17, 6, 0);
    // Base 0 from the prefix; a lone "0" is decimal, "0" with anything after it octal.
    EXPECT_READ(readSigned("0x1F", 0), 31, 4, 0);
    EXPECT_READ(readSigned("0X1f", 0), 31, 4, 0);
    EXPECT_READ(readSigned("0x", 0), 0, 1, 0);
    EXPECT_READ(readSigned("-0xg", 0), 0, 2, 0);
    EXPECT_READ(readSigned("012", 0), 10, 3, 0);
    EXPECT_READ(readSigned("09", 0), 0, 1, 0);
    EXPECT_READ(readSigned("0", 0), 0, 1, 0);
    EXPECT_READ(readSigned("0 ", 0), 0, 1, 0);
    EXPECT_READ(readSigned("-077", 0), -63, 4, 0);
    // Given bases: the prefix is skipped in 16 only, one leading zero in 8.
    EXPECT_READ(readSigned("0xff", 16), 255, 4, 0);
    EXPECT_READ(readSigned("ff", 16), 255, 2, 0);
    EXPECT_READ(readSigned("0x10", 10), 0, 1, 0);
    EXPECT_READ(readSigned("0777", 8), 511, 4, 0);
    EXPECT_READ(readSigned("08", 8), 0, 1, 0);
    EXPECT_READ(readSigned("12", 2), 1, 1, 0);
    EXPECT_READ(readSigned("zZ", 36), 1295, 2, 0);
    // No conversion: the end pointer goes back to the start.
    EXPECT_READ(readSigned("- 1", 10), 0, 0, 0);
    EXPECT_READ(readSigned("+", 10), 0, 0, 0);
    EXPECT_READ(readSigned("   ", 10), 0, 0, 0);
    EXPECT_READ(readSigned("", 10), 0, 0, 0);
    EXPECT_READ(readSigned("abc", 10), 0, 0, 0);
    // Blanks or a sign and then no digit convert nothing either: the end stays at the start.
    EXPECT_READ(readSigned("-abc", 10), 0, 0, 0);
    EXPECT_READ(readSigned("+-5", 10), 0, 0, 0);
    EXPECT_READ(readSigned("-x", 0), 0, 0, 0);
    EXPECT_READ(readSigned("   abc", 10), 0, 0, 0);
    EXPECT_READ(readSigned(" +z", 16), 0, 0, 0);
    EXPECT_READ(readUnsigned("  -q", 10), 0, 0, 0);
    // Invalid bases read what they can and never fault.
    EXPECT_READ(readSigned("101", 1), 0, 0, 0);
    EXPECT_READ(readSigned("000", 1), 0, 3, 0);
    EXPECT_READ(readSigned("12", -5), 0, 0, 0);

    // A null end pointer is allowed.
    EXPECT_EQ(zepStrToSint64("123", nullptr, 10), 123);
}

TEST(NumConv, SignedReaderOverflow) {
    EXPECT_READ(readSigned("9223372036854775807", 10), 0x7FFFFFFFFFFFFFFFll, 19, 0);
    EXPECT_READ(readSigned("9223372036854775808", 10), 0x7FFFFFFFFFFFFFFFll, 19, 34);
    EXPECT_READ(readSigned("-9223372036854775808", 10), static_cast<Sint64>(0x8000000000000000ull),
                20, 0);
    EXPECT_READ(readSigned("-9223372036854775809", 10), static_cast<Sint64>(0x8000000000000000ull),
                20, 34);
    // Past 64 bits the digits are still consumed.
    EXPECT_READ(readSigned("123456789012345678901234567890x", 10), 0x7FFFFFFFFFFFFFFFll, 30, 34);
    EXPECT_READ(readSigned("-0x10000000000000000", 0), static_cast<Sint64>(0x8000000000000000ull),
                20, 34);

    // errno is left alone unless there is an overflow.
    errno = 7;
    zepStrToSint64("-9223372036854775808", nullptr, 10);
    EXPECT_EQ(errno, 7);
    zepStrToSint64("junk", nullptr, 10);
    EXPECT_EQ(errno, 7);
}

TEST(NumConv, UnsignedReader) {
    EXPECT_READ(readUnsigned("18446744073709551615", 10), ~0ull, 20, 0);
    EXPECT_READ(readUnsigned("18446744073709551616", 10), ~0ull, 20, 34);
    EXPECT_READ(readUnsigned("0xFFFFFFFFFFFFFFFF", 0), ~0ull, 18, 0);
    EXPECT_READ(readUnsigned("zz", 36), 1295, 2, 0);
    // A negative text is accepted and negated modulo 2^64.
    EXPECT_READ(readUnsigned("-1", 10), ~0ull, 2, 0);
    EXPECT_READ(readUnsigned("-18446744073709551615", 10), 1, 21, 0);
    // A negative overflow saturates to all ones too: the sign doesn't turn it into 1.
    EXPECT_READ(readUnsigned("-18446744073709551616", 10), ~0ull, 21, 34);
    EXPECT_READ(readUnsigned("-0x10000000000000000", 0), ~0ull, 20, 34);
    EXPECT_READ(readUnsigned("9223372036854775808", 10), 0x8000000000000000ull, 19, 0);
    // Around the nineteenth and twentieth decimal digit, where overflow first becomes possible.
    EXPECT_READ(readUnsigned("9999999999999999999", 10), 9999999999999999999ull, 19, 0);
    EXPECT_READ(readUnsigned("99999999999999999999", 10), ~0ull, 20, 34);
    EXPECT_READ(readUnsigned("000000000000000000000000000000042", 10), 42, 33, 0);
    EXPECT_READ(readSigned("-000000000000000000009223372036854775808", 10),
                static_cast<Sint64>(0x8000000000000000ull), 40, 0);
    EXPECT_READ(readUnsigned("1111111111111111111111111111111111111111111111111111111111111111", 2),
                ~0ull, 64, 0);
    EXPECT_READ(
        readUnsigned("11111111111111111111111111111111111111111111111111111111111111111", 2), ~0ull,
        65, 34);
    EXPECT_READ(readUnsigned("3w5e11264sgsf", 36), 18446744073709551615ull, 13, 0);
    EXPECT_READ(readUnsigned("3w5e11264sgsg", 36), ~0ull, 13, 34);
}

TEST(NumConv, Boolean) {
    const char* trueWords[] = {"1", "on", "ON", "y", "Y", "yes", "YeS", "t", "T", "true", "TRUE"};
    const char* falseWords[] = {"0", "off", "oFf", "n", "N", "no", "NO", "f", "F", "false"};
    for (const char* w : trueWords) {
        Bool v = 0;
        EXPECT_EQ(zepStrToBoolean(w, &v), 0u) << w;
        EXPECT_NE(v, 0) << w;
    }
    for (const char* w : falseWords) {
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

TEST(NumConv, Snprintf) {
    char buf[16];
    memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(zepSnprintf(buf, 4, "%s", "abcdef"), 3);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(buf[4], 'Z');

    // Exactly fitting, one short, and the single byte that only holds the NUL.
    EXPECT_EQ(zepSnprintf(buf, 7, "abc%s", "def"), 6);
    EXPECT_STREQ(buf, "abcdef");
    EXPECT_EQ(zepSnprintf(buf, 6, "abc%s", "def"), 5);
    EXPECT_STREQ(buf, "abcde");
    EXPECT_EQ(zepSnprintf(buf, 1, "abc"), 0);
    EXPECT_EQ(buf[0], 0);

    // Size 0 writes nothing at all.
    memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(zepSnprintf(buf, 0, "abc"), 0);
    EXPECT_EQ(buf[0], 'Z');

    char wide[32];
    EXPECT_EQ(zepSnprintf(wide, sizeof wide, "%d|%05u|%llX", -12, 42u, 0xABCDEFull), 16);
    EXPECT_STREQ(wide, "-12|00042|ABCDEF");
    // The same text in a buffer one byte too small for it.
    EXPECT_EQ(zepSnprintf(buf, sizeof buf, "%d|%05u|%llX", -12, 42u, 0xABCDEFull), 15);
    EXPECT_STREQ(buf, "-12|00042|ABCDE");
    EXPECT_EQ(zepSnprintf(buf, sizeof buf, "%s", ""), 0);

    // A long text is cut, and the result counts what stands in the buffer.
    std::string big(1000, 'x');
    char small[32];
    EXPECT_EQ(zepSnprintf(small, sizeof small, "%s", big.c_str()), 31);
    EXPECT_EQ(strlen(small), 31u);
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
        EXPECT_EQ(n, m < static_cast<int>(size) ? m : static_cast<int>(size) - 1)
            << "'" << format << "' size " << size;
        EXPECT_EQ(memcmp(ours, theirs, sizeof ours), 0) << "'" << format << "' size " << size;
    }
}

}  // namespace

TEST(NumConv, SnprintfAgreesWithTheCLibrary) {
    const std::vector<std::string> flags = {"", "-", "0", "-0", "0-", "00"};
    const std::vector<std::string> widths = {"", "1", "3", "7", "21"};
    for (const std::string& fl : flags) {
        for (const std::string& w : widths) {
            const std::string directive = "%" + fl + w;
            auto f = [&](const char* conv) { return "<" + directive + conv + ">|"; };
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
            expectSameAsCLibrary(f("zu"), static_cast<size_t>(12345));
            expectSameAsCLibrary(f("zd"), static_cast<ssize_t>(-12345));
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
}
