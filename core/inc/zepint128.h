// zepint128.h - 128-bit integers: Uint128 and Sint128 on the common base int128.
//
// The value is two 64-bit halves; all arithmetic wraps modulo 2^128 and nothing here detects
// overflow, logs or returns an ECF code. A divisor of 0 is the caller's fault: no operation
// tests for it.
//
// Construction from a Sint32 differs by class: int128 itself puts the sign-extended value in
// the low half and clears the high half (the library builds only small non-negative constants
// that way), while Uint128 and Sint128 extend the sign through both halves, so that
// Sint128(-1) is -1.
#ifndef ZEPINT128_H
#define ZEPINT128_H

#include "zeptypes.h"

class ZEP_EXPORT int128 {
public:
    int128() : low(0), high(0) {}
    int128(Sint32 v) : low((Uint64)(Sint64)v), high(0) {}
    int128(Uint32 v) : low(v), high(0) {}
    int128(Uint64 v) : low(v), high(0) {}
    int128(Sint64 v) : low((Uint64)v), high(v < 0 ? ~(Uint64)0 : 0) {}
    int128(Uint64 highPart, Uint64 lowPart) : low(lowPart), high(highPart) {}

    Uint64 getLow() const { return low; }
    Uint64 getHigh() const { return high; }
    // The top bit: the sign of a Sint128.
    bool getSign() const { return (high >> 63) != 0; }
    bool bitTest(Uint32 i) const {
        return i < 64 ? ((low >> i) & 1) != 0 : i < 128 && ((high >> (i - 64)) & 1) != 0;
    }
    bool isZero() const { return (low | high) == 0; }

protected:
    // Decimal only: blanks, then "+" and "-" in that order (both may stand: "+-5" is -5),
    // leading zeros, digits. The first non-digit ends the reading and the value read so far
    // comes back without its sign ("-12x" gives 12). No failure result: an unreadable text
    // gives 0.
    static int128 strToInt128(String text);

    // Decimal text of the value, signed or not, with its NUL. Returns the length without the
    // NUL, or -1 when size is too small; a negative value has its "-" written even then.
    // 41 bytes always suffice.
    Sint32 tostr(Char* buffer, Uint32 size, bool isSigned) const;

    // The building blocks that both classes' operators use.
    bool equals(const int128& o) const { return low == o.low && high == o.high; }
    bool lessUnsigned(const int128& o) const {
        return high != o.high ? high < o.high : low < o.low;
    }
    void addTo(const int128& o) {
        Uint64 sum = low + o.low;
        high += o.high + (sum < low ? 1 : 0);
        low = sum;
    }
    void increment() {
        if (++low == 0) ++high;
    }
    void complement() {
        low = ~low;
        high = ~high;
    }
    void negate() {
        complement();
        increment();
    }
    void subtractFrom(const int128& o) {
        int128 n = o;
        n.negate();
        addTo(n);
    }
    void shiftLeft(Uint32 n) {
        if (n == 0) return;
        if (n >= 128) {
            low = high = 0;
        } else if (n >= 64) {
            high = low << (n - 64);
            low = 0;
        } else {
            high = (high << n) | (low >> (64 - n));
            low <<= n;
        }
    }
    void shiftRightLogical(Uint32 n) {
        if (n == 0) return;
        if (n >= 128) {
            low = high = 0;
        } else if (n >= 64) {
            low = high >> (n - 64);
            high = 0;
        } else {
            low = (low >> n) | (high << (64 - n));
            high >>= n;
        }
    }

    Uint64 low;
    Uint64 high;
};

class ZEP_EXPORT Uint128 : public int128 {
public:
    Uint128() {}
    Uint128(Sint32 v) : int128((Sint64)v) {}
    Uint128(Uint32 v) : int128(v) {}
    Uint128(Uint64 v) : int128(v) {}
    Uint128(Sint64 v) : int128(v) {}
    // Sint64 and Uint64 are long and unsigned long here: literals such as ~0ULL and -1LL match
    // no constructor exactly without these two.
    Uint128(long long v) : int128((Sint64)v) {}
    Uint128(unsigned long long v) : int128((Uint64)v) {}
    Uint128(Uint64 highPart, Uint64 lowPart) : int128(highPart, lowPart) {}
    explicit Uint128(const int128& v) : int128(v) {}
    // The fraction is cut off; negative values, NaN with its sign set and magnitudes below 1
    // give 0; 2^128 and above, infinity and NaN give all ones.
    explicit Uint128(float v);
    explicit Uint128(double v);
    explicit Uint128(String text) : int128(strToInt128(text)) {}

    // The top 53 bits, truncated (not rounded).
    explicit operator double() const;

    // Decimal digits of the value; see int128::tostr.
    Sint32 toString(Char* buffer, Uint32 size) const { return tostr(buffer, size, false); }

    Uint128& operator+=(const Uint128& o) {
        addTo(o);
        return *this;
    }
    Uint128& operator-=(const Uint128& o) {
        subtractFrom(o);
        return *this;
    }
    Uint128& operator<<=(Uint32 n) {
        shiftLeft(n);
        return *this;
    }
    Uint128& operator>>=(Uint32 n) {
        shiftRightLogical(n);
        return *this;
    }
    Uint128& operator++() {
        increment();
        return *this;
    }
    Uint128 operator++(int) {
        Uint128 old = *this;
        increment();
        return old;
    }
    Uint128 operator~() const {
        Uint128 r = *this;
        r.complement();
        return r;
    }
    Uint128 operator-() const {
        Uint128 r = *this;
        r.negate();
        return r;
    }

    friend Uint128 operator+(Uint128 a, const Uint128& b) { return a += b; }
    friend Uint128 operator-(Uint128 a, const Uint128& b) { return a -= b; }
    friend Uint128 operator<<(Uint128 a, Uint32 n) { return a <<= n; }
    friend Uint128 operator>>(Uint128 a, Uint32 n) { return a >>= n; }
    friend bool operator==(const Uint128& a, const Uint128& b) { return a.equals(b); }
    friend bool operator<(const Uint128& a, const Uint128& b) { return a.lessUnsigned(b); }
    friend bool operator>(const Uint128& a, const Uint128& b) { return b.lessUnsigned(a); }
    friend bool operator<=(const Uint128& a, const Uint128& b) { return !b.lessUnsigned(a); }
    friend bool operator>=(const Uint128& a, const Uint128& b) { return !a.lessUnsigned(b); }
};

class ZEP_EXPORT Sint128 : public int128 {
public:
    Sint128() {}
    Sint128(Sint32 v) : int128((Sint64)v) {}
    Sint128(Uint32 v) : int128(v) {}
    Sint128(Uint64 v) : int128(v) {}
    Sint128(Sint64 v) : int128(v) {}
    // Sint64 and Uint64 are long and unsigned long here: literals such as ~0ULL and -1LL match
    // no constructor exactly without these two.
    Sint128(long long v) : int128((Sint64)v) {}
    Sint128(unsigned long long v) : int128((Uint64)v) {}
    Sint128(Uint64 highPart, Uint64 lowPart) : int128(highPart, lowPart) {}
    explicit Sint128(const int128& v) : int128(v) {}
    // The fraction is cut off toward zero; beyond the range, and for infinity and NaN, the
    // largest value or, with the sign set, the smallest.
    explicit Sint128(float v);
    explicit Sint128(double v);
    explicit Sint128(String text) : int128(strToInt128(text)) {}

    // The magnitude's top 53 bits, truncated, with the sign.
    explicit operator double() const;

    Sint32 toString(Char* buffer, Uint32 size) const { return tostr(buffer, size, true); }

    // Arithmetic shift: copies of the sign come in from the top.
    Sint128& operator>>=(Uint32 n);

    Sint128& operator+=(const Sint128& o) {
        addTo(o);
        return *this;
    }
    Sint128& operator-=(const Sint128& o) {
        subtractFrom(o);
        return *this;
    }
    Sint128& operator<<=(Uint32 n) {
        shiftLeft(n);
        return *this;
    }
    Sint128& operator++() {
        increment();
        return *this;
    }
    Sint128 operator++(int) {
        Sint128 old = *this;
        increment();
        return old;
    }
    Sint128 operator~() const {
        Sint128 r = *this;
        r.complement();
        return r;
    }
    Sint128 operator-() const {
        Sint128 r = *this;
        r.negate();
        return r;
    }
    bool isNegative() const { return getSign(); }

    friend Sint128 operator+(Sint128 a, const Sint128& b) { return a += b; }
    friend Sint128 operator-(Sint128 a, const Sint128& b) { return a -= b; }
    friend Sint128 operator<<(Sint128 a, Uint32 n) { return a <<= n; }
    friend Sint128 operator>>(Sint128 a, Uint32 n) { return a >>= n; }
    friend bool operator==(const Sint128& a, const Sint128& b) { return a.equals(b); }
    friend bool operator<(const Sint128& a, const Sint128& b) { return lessSigned(a, b); }
    friend bool operator>(const Sint128& a, const Sint128& b) { return lessSigned(b, a); }
    friend bool operator<=(const Sint128& a, const Sint128& b) { return !lessSigned(b, a); }
    friend bool operator>=(const Sint128& a, const Sint128& b) { return !lessSigned(a, b); }

private:
    static bool lessSigned(const Sint128& a, const Sint128& b) {
        return a.high != b.high ? (Sint64)a.high < (Sint64)b.high : a.low < b.low;
    }
};

// Quotient (truncated toward zero for Sint128) and product modulo 2^128. The most negative
// Sint128 divided by -1 gives itself back.
ZEP_EXPORT Uint128 operator/(const Uint128& a, const Uint128& b);
ZEP_EXPORT Uint128 operator*(const Uint128& a, const Uint128& b);
ZEP_EXPORT Sint128 operator/(const Sint128& a, const Sint128& b);
ZEP_EXPORT Sint128 operator*(const Sint128& a, const Sint128& b);

#endif
