// zepnumconv.cpp - number theory, the text readers and the bounded formatter.
#include "zepnumconv.h"

#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <strings.h>

static_assert(ERANGE == 34, "the readers report overflow as errno 34");

Uint32 zepComputeMontgomeryInverse32(Uint32 x) {
    if (x == 0) return 0;  // no odd part: the shift below would never end
    while ((x & 1) == 0) x >>= 1;
    // Bit by bit from bit 1 up: whenever the running product x * y has bit b clear, adding b to y
    // (and b * x to the product) sets it, until the product has all 32 bits set.
    Uint32 y = 1, p = x, m = x << 1, b = 2;
    for (int round = 0; round < 31; ++round) {
        if ((p & b) == 0) {
            p += m;
            y += b;
        }
        m <<= 1;
        b <<= 1;
    }
    return y;
}

Uint32 zepComputeGCD(Uint32 a, Uint32 b) {
    while (b != 0) {
        const Uint32 r = a % b;
        a = b;
        b = r;
    }
    return a;
}

Uint32 zepComputeLCM(Uint32 a, Uint32 b) {
    const Uint32 g = zepComputeGCD(a, b);
    return g == 0 ? 0 : (a * b) / g;
}

namespace {

inline bool blank(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// The digit value of c, or 99 for a character that is no digit in any base.
inline Uint32 digitOf(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (static_cast<unsigned>(u - '0') < 10u) return static_cast<Uint32>(u - '0');
    if (isalpha(u)) return static_cast<Uint32>(toupper(u) - 'A' + 10);
    return 99;
}

// The worker of both readers; `limitPositive` and `limitNegative` are the largest magnitudes the
// form takes for each sign (all ones for the unsigned form).
Uint64 strToInteger(const char* text, char** end, Sint32 base, Uint64 limitPositive,
                    Uint64 limitNegative) {
    const char* s = text;
    while (blank(*s)) ++s;
    bool negative = false;
    if (*s == '-') {
        negative = true;
        ++s;
    } else if (*s == '+') {
        ++s;
    }
    if (*s == 0 || blank(*s)) {
        if (end) *end = const_cast<char*>(text);
        return 0;
    }

    const bool hexPrefix = s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (base == 0) base = hexPrefix ? 16 : (s[0] == '0' && s[1] != 0) ? 8 : 10;
    if (base == 16 && hexPrefix) {
        if (!isxdigit(static_cast<unsigned char>(s[2]))) {
            if (end) *end = const_cast<char*>(s + 1);
            return 0;
        }
        s += 2;
    } else if (base == 8 && s[0] == '0') {
        ++s;
    }

    // A digit is read while it is below the base (compared signed, so that a negative base reads
    // nothing). Past the cut-off the value would leave 64 bits: the mark goes up and the rest of
    // the digits are only stepped over.
    const Uint64 ubase = static_cast<Uint64>(base > 0 ? base : 1);
    const Uint64 cutoff = ~0ull / ubase;
    const Uint64 cutlim = ~0ull % ubase;
    Uint64 value = 0;
    bool overflow = false;
    for (;; ++s) {
        const Uint32 d = digitOf(*s);
        if (static_cast<Sint64>(d) >= static_cast<Sint64>(base)) break;
        if (overflow) continue;
        if (value > cutoff || (value == cutoff && d > cutlim)) {
            overflow = true;
            continue;
        }
        value = value * ubase + d;
    }
    if (value > (negative ? limitNegative : limitPositive)) overflow = true;
    if (overflow) {
        errno = ERANGE;
        value = negative ? limitNegative : limitPositive;
    }
    if (negative) value = 0 - value;
    if (end) *end = const_cast<char*>(s);
    return value;
}

}  // namespace

Sint64 zepStrToSint64(String text, Char** end, Sint32 base) {
    return static_cast<Sint64>(
        strToInteger(text, end, base, 0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull));
}

Uint64 zepStrToUint64(String text, Char** end, Sint32 base) {
    // The saturated value is all ones for either sign; a negative text then negates it (to 1).
    return strToInteger(text, end, base, ~0ull, ~0ull);
}

Uint32 zepStrToBoolean(String text, Bool* value) {
    static const char* const trueWords[] = {"1", "ON", "Y", "YES", "T", "TRUE"};
    static const char* const falseWords[] = {"0", "OFF", "N", "NO", "F", "FALSE"};
    *value = 0;
    if (text == nullptr) return ECF_ZEP_NOT_BOOLEAN_STRING;
    for (const char* w : trueWords) {
        if (strcasecmp(text, w) == 0) {
            *value = 1;
            return 0;
        }
    }
    for (const char* w : falseWords) {
        if (strcasecmp(text, w) == 0) return 0;
    }
    return ECF_ZEP_NOT_BOOLEAN_STRING;
}

Sint32 zepSnprintf(Char* buffer, Uint32 size, String format, ...) {
    if (size == 0) return 0;
    va_list ap;
    va_start(ap, format);
    const int n = vsnprintf(buffer, size, format, ap);
    va_end(ap);
    if (n >= 0 && static_cast<Uint32>(n) < size) return n;  // vsnprintf has put the NUL there
    buffer[size - 1] = 0;
    if (n >= 0) return static_cast<Sint32>(size - 1);
    // An output error: what stands in the buffer is unknown, so count it.
    Sint32 count = 0;
    while (buffer[count] != 0) ++count;
    return count;
}
