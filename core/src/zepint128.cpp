// zepint128.cpp - the out-of-line operations of Uint128 and Sint128.
//
// The compiler's unsigned __int128 gives exactly the wrapping quotients and products these
// classes promise, so division and multiplication use it: the quotient of a restoring long
// division is the true quotient, and the product modulo 2^128 does not depend on how it is
// formed. Text output splits the value by 10^19 instead of dividing by 10 per digit; the digits
// and the lengths are the same.
#include "zepint128.h"

#include <ctype.h>
#include <string.h>

#include "zepdigits.h"

namespace {

typedef unsigned __int128 U128;

inline U128 toU128(const int128& v) {
    return ((U128)v.getHigh() << 64) | v.getLow();
}
inline Uint128 fromU128(U128 v) {
    return Uint128((Uint64)(v >> 64), (Uint64)v);
}

const Uint64 kTen19 = 10000000000000000000ull;

// Quotient of (hi:lo) by d, which must be above hi, so that the quotient fits 64 bits.
inline Uint64 divide128By64(Uint64 hi, Uint64 lo, Uint64 d, Uint64* rem) {
#if defined(__x86_64__)
    Uint64 q, r;
    __asm__("divq %4" : "=a"(q), "=d"(r) : "a"(lo), "d"(hi), "rm"(d) : "cc");
    *rem = r;
    return q;
#else
    U128 v = ((U128)hi << 64) | lo;
    Uint64 q = (Uint64)(v / d);
    *rem = lo - q * d;
    return q;
#endif
}

// Exactly 19 digits, leading zeros included, ending at `end` like zepPutDigits: a lower chunk
// of a split value.
inline char* putDigits19(char* end, Uint64 v) {
    for (int i = 0; i < 9; ++i) {
        Uint64 q = v / 100;
        unsigned r = (unsigned)(v - q * 100);
        end -= 2;
        memcpy(end, kZepDigitPairs + 2 * r, 2);
        v = q;
    }
    *--end = (char)('0' + v);
    return end;
}

// The fields of an IEEE binary number and the constants of its format go through one worker
// for float and double alike.
U128 fromBinary(bool negative, Sint32 exponentField, Uint64 mantissa, Sint32 bias, Sint32 width,
                bool isSigned) {
    Sint32 e = exponentField - bias;
    if (e < 0) return 0;  // below 1 in magnitude, zero and denormals included
    Uint64 significand = mantissa | ((Uint64)1 << width);
    if (!isSigned && negative) return 0;
    U128 r;
    if (e < width) {
        r = significand >> (width - e);
    } else if (e < (isSigned ? 127 : 128)) {
        r = (U128)significand << (e - width);
    } else {
        // Infinity and NaN have the exponent field all ones and land here too.
        if (!isSigned) return ~(U128)0;
        return negative ? (U128)1 << 127 : ~(U128)0 >> 1;
    }
    return isSigned && negative ? -r : r;
}

U128 fromFloat(float v, bool isSigned) {
    Uint32 bits;
    memcpy(&bits, &v, sizeof bits);
    return fromBinary((bits >> 31) != 0, (Sint32)((bits >> 23) & 0xFF), bits & 0x7FFFFF, 127, 23,
                      isSigned);
}

U128 fromDouble(double v, bool isSigned) {
    Uint64 bits;
    memcpy(&bits, &v, sizeof bits);
    return fromBinary((bits >> 63) != 0, (Sint32)((bits >> 52) & 0x7FF), bits & 0xFFFFFFFFFFFFFull,
                      1023, 52, isSigned);
}

// Truncating: the bits below the top 53 are cut off.
double magnitudeToDouble(U128 v) {
    if (v == 0) return 0.0;
    Uint64 hi = (Uint64)(v >> 64);
    Sint32 n = hi != 0 ? 128 - __builtin_clzll(hi) : 64 - __builtin_clzll((Uint64)v);
    U128 m = n > 53 ? v >> (n - 53) : v << (53 - n);
    Uint64 bits = ((Uint64)(n + 1022) << 52) | ((Uint64)m & 0xFFFFFFFFFFFFFull);
    double d;
    memcpy(&d, &bits, sizeof d);
    return d;
}

}  // namespace

int128 int128::strToInt128(String text) {
    const unsigned char* s = (const unsigned char*)text;
    while (isspace(*s)) ++s;
    bool negative = false;
    if (*s == '+') ++s;
    if (*s == '-') {
        negative = true;
        ++s;
    }
    while (*s == '0') ++s;
    U128 v = 0;
    for (; *s != 0; ++s) {
        // A stray character ends the reading, and what was read comes back without its sign.
        if (*s < '0' || *s > '9') return fromU128(v);
        v = (v << 3) + (v << 1) + (unsigned)(*s - '0');
    }
    return fromU128(negative ? -v : v);
}

Sint32 int128::tostr(Char* buffer, Uint32 size, bool isSigned) const {
    if (size == 0) return -1;
    if (isZero()) {
        if (size < 2) return -1;
        buffer[0] = '0';
        buffer[1] = 0;
        return 1;
    }
    U128 v = toU128(*this);
    Uint32 sign = 0;
    if (isSigned && getSign()) {
        buffer[0] = '-';
        sign = 1;
        v = -v;
    }
    char digits[40];
    char* end = digits + sizeof digits;
    char* p;
    Uint64 hi = (Uint64)(v >> 64), lo = (Uint64)v;
    if (hi == 0) {
        p = zepPutDigits(end, lo);
    } else {
        // v = (qhi:qlo) * 10^19 + r0, and the quotient is below 2^65.
        Uint64 r0, r1;
        Uint64 qlo = divide128By64(hi % kTen19, lo, kTen19, &r0);
        Uint64 qhi = hi / kTen19;
        p = putDigits19(end, r0);
        if (qhi == 0 && qlo < kTen19) {
            p = zepPutDigits(p, qlo);
        } else {
            Uint64 top = divide128By64(qhi, qlo, kTen19, &r1);
            p = putDigits19(p, r1);
            p = zepPutDigits(p, top);
        }
    }
    Uint32 count = (Uint32)(end - p);
    if (count >= size - sign) return -1;
    memcpy(buffer + sign, p, count);
    buffer[sign + count] = 0;
    return (Sint32)(sign + count);
}

Uint128::Uint128(float v) : Uint128(fromU128(fromFloat(v, false))) {}

Uint128::Uint128(double v) : Uint128(fromU128(fromDouble(v, false))) {}

Uint128::operator double() const {
    return magnitudeToDouble(toU128(*this));
}

Sint128::Sint128(float v) : Sint128(fromU128(fromFloat(v, true))) {}

Sint128::Sint128(double v) : Sint128(fromU128(fromDouble(v, true))) {}

Sint128::operator double() const {
    U128 v = toU128(*this);
    return getSign() ? -magnitudeToDouble(-v) : magnitudeToDouble(v);
}

Sint128& Sint128::operator>>=(Uint32 n) {
    if (n == 0) return *this;
    Sint64 h = (Sint64)high;
    if (n >= 64) {
        low = (Uint64)(h >> (n >= 127 ? 63 : n - 64));
        high = (Uint64)(h >> 63);
    } else {
        low = (low >> n) | (high << (64 - n));
        high = (Uint64)(h >> n);
    }
    return *this;
}

Uint128 operator/(const Uint128& a, const Uint128& b) {
    return fromU128(toU128(a) / toU128(b));
}

Uint128 operator*(const Uint128& a, const Uint128& b) {
    return fromU128(toU128(a) * toU128(b));
}

Sint128 operator/(const Sint128& a, const Sint128& b) {
    // Magnitudes through the unsigned division; the most negative value's magnitude, 2^127,
    // fits, and divided by -1 it comes back as the same bit pattern.
    U128 x = toU128(a), y = toU128(b);
    bool na = a.getSign(), nb = b.getSign();
    U128 q = (na ? -x : x) / (nb ? -y : y);
    return Sint128(fromU128(na != nb ? -q : q));
}

Sint128 operator*(const Sint128& a, const Sint128& b) {
    return Sint128(fromU128(toU128(a) * toU128(b)));
}
