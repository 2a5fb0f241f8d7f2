// zepnumconv.cpp - number theory, the text readers and the bounded formatter.
#include "zepnumconv.h"

#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/types.h>

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

// Blanks as isspace sees them. Every locale agrees with the C locale on the ASCII ones, so only
// the bytes above them are asked of the locale.
inline bool blank(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x80) return u == ' ' || static_cast<unsigned>(u - '\t') < 5u;
    return isspace(u) != 0;
}

// Digit values: 0-9, then letters of either case from 10 (A) to 35 (Z); 0xFF for the rest. A
// letter outside ASCII that a locale knows would count above 35 and end the reading in any base
// up to 36 all the same.
struct DigitTable {
    Uint8 v[256];
    constexpr DigitTable() : v() {
        for (int i = 0; i < 256; ++i) v[i] = 0xFF;
        for (int i = 0; i < 10; ++i) v['0' + i] = static_cast<Uint8>(i);
        for (int i = 0; i < 26; ++i) {
            v['A' + i] = static_cast<Uint8>(10 + i);
            v['a' + i] = static_cast<Uint8>(10 + i);
        }
    }
};
constexpr DigitTable kDigits;

inline Uint32 digitOf(char c) {
    return kDigits.v[static_cast<unsigned char>(c)];
}

// Reads digits below `limit`, growing the value in base `base`; past 64 bits `overflow` goes up
// and the remaining digits are only stepped over. Base 10, the common case, gets a loop whose
// multiplication the compiler makes of shifts and adds.
template <Uint64 kBase>
inline const char* readDigits(const char* s, Uint64 base, Uint32 limit, Uint64* value,
                              bool* overflow) {
    const Uint64 b = kBase ? kBase : base;
    Uint64 v = 0;
    bool over = false;
    if (kBase == 10) {
        // Nineteen decimal digits always fit: no test until then.
        const char* const stop = s + 19;
        Uint32 d;
        while ((d = digitOf(*s)) < 10) {
            v = v * 10 + d;
            if (++s == stop) break;
        }
    }
    for (;; ++s) {
        const Uint32 d = digitOf(*s);
        if (d >= limit) break;
        if (__builtin_expect(over, 0)) continue;
        over = __builtin_mul_overflow(v, b, &v) || __builtin_add_overflow(v, Uint64(d), &v);
    }
    *value = v;
    *overflow = over;
    return s;
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
        if (digitOf(s[2]) >= 16) {
            if (end) *end = const_cast<char*>(s + 1);
            return 0;
        }
        s += 2;
    }
    // A reading that converts nothing leaves the end at the text itself, not behind the blanks
    // or the sign it stepped over: callers tell "no number" by that. An octal leading zero is a
    // digit read.
    bool converted = false;
    if (base == 8 && s[0] == '0') {
        ++s;
        converted = true;
    }

    // A digit is read while it is below the base; a negative base reads nothing, and one above
    // 36 reads the 36 digits there are.
    const Uint32 limit = base <= 0 ? 0u : base > 36 ? 36u : static_cast<Uint32>(base);
    const char* const digitsFrom = s;
    Uint64 value;
    bool overflow;
    if (base == 10)
        s = readDigits<10>(s, 10, limit, &value, &overflow);
    else
        s = readDigits<0>(s, static_cast<Uint64>(base > 0 ? base : 1), limit, &value, &overflow);

    if (s == digitsFrom && !converted) {
        if (end) *end = const_cast<char*>(text);
        return 0;
    }

    if (value > (negative ? limitNegative : limitPositive)) overflow = true;
    if (end) *end = const_cast<char*>(s);
    if (overflow) {
        // Saturated: the limit of the sign is the result itself, never negated (the smallest
        // value of the signed form; all ones of the unsigned form, whichever the sign).
        errno = ERANGE;
        return negative ? limitNegative : limitPositive;
    }
    if (negative) value = 0 - value;
    return value;
}

}  // namespace

Sint64 zepStrToSint64(String text, Char** end, Sint32 base) {
    return static_cast<Sint64>(
        strToInteger(text, end, base, 0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull));
}

Uint64 zepStrToUint64(String text, Char** end, Sint32 base) {
    // The saturated value is all ones for either sign.
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

namespace {

// The formatter's own path for the conversions that fill nearly every bounded buffer of the
// library: text, %%, and %d %i %u %x %X %c %s with the flags '-' and '0', a fixed width and the
// length modifiers l, ll, z. It gives exactly what vsnprintf gives for them, without the stream
// set-up of the C library's printf engine. Any other conversion, flag, precision or a null %s
// returns -1 before anything is decided, and the C library formats the whole text instead.
class Out {
public:
    Out(char* buffer, Uint32 size) : p_(buffer), room_(size - 1) {}
    void put(char c) {
        if (n_ < room_) p_[n_] = c;
        ++n_;
    }
    void put(const char* s, size_t len) {
        if (n_ < room_) {
            const size_t fit = room_ - n_ < len ? room_ - n_ : len;
            memcpy(p_ + n_, s, fit);
        }
        n_ += len;
    }
    void pad(char c, size_t count) {
        for (size_t i = 0; i < count; ++i) put(c);
    }
    size_t length() const { return n_; }
    // The NUL after what fitted.
    void finish() { p_[n_ < room_ ? n_ : room_] = 0; }

private:
    char* p_;
    size_t room_;
    size_t n_ = 0;
};

// A field: sign or nothing, then the digits, padded to the width.
void putField(Out& out, bool left, bool zero, size_t width, const char* sign, const char* body,
              size_t len) {
    const size_t signLen = sign ? 1 : 0;
    const size_t total = signLen + len;
    const size_t fill = width > total ? width - total : 0;
    if (!left && !zero) out.pad(' ', fill);
    if (sign) out.put(*sign);
    if (!left && zero) out.pad('0', fill);
    out.put(body, len);
    if (left) out.pad(' ', fill);
}

long formatFast(char* buffer, Uint32 size, const char* f, va_list ap) {
    Out out(buffer, size);
    for (;;) {
        // Text up to the next conversion, in one piece.
        const char* pct = strchr(f, '%');
        if (pct == nullptr) {
            out.put(f, strlen(f));
            break;
        }
        out.put(f, static_cast<size_t>(pct - f));
        f = pct + 1;
        if (*f == '%') {
            out.put('%');
            ++f;
            continue;
        }
        bool left = false, zero = false;
        for (;; ++f) {
            if (*f == '-')
                left = true;
            else if (*f == '0')
                zero = true;
            else
                break;
        }
        size_t width = 0;
        while (static_cast<unsigned>(*f - '0') < 10u) {
            width = width * 10 + static_cast<size_t>(*f - '0');
            if (width > 4096) return -1;
            ++f;
        }
        int longs = 0;
        bool sizeT = false;
        if (*f == 'l') {
            ++longs, ++f;
            if (*f == 'l') ++longs, ++f;
        } else if (*f == 'z') {
            sizeT = true, ++f;
        }
        if (left) zero = false;  // '-' overrides '0'
        char digits[24];
        char* const digitsEnd = digits + sizeof digits;
        const char conv = *f++;
        switch (conv) {
            case 'd':
            case 'i': {
                Sint64 v = sizeT        ? static_cast<Sint64>(va_arg(ap, ssize_t))
                           : longs == 2 ? va_arg(ap, long long)
                           : longs == 1 ? va_arg(ap, long)
                                        : va_arg(ap, int);
                Uint64 u = v < 0 ? 0 - static_cast<Uint64>(v) : static_cast<Uint64>(v);
                char* d = digitsEnd;
                do {
                    *--d = static_cast<char>('0' + u % 10);
                    u /= 10;
                } while (u != 0);
                static const char minus = '-';
                putField(out, left, zero, width, v < 0 ? &minus : nullptr, d,
                         static_cast<size_t>(digitsEnd - d));
                break;
            }
            case 'u':
            case 'x':
            case 'X': {
                Uint64 u = sizeT        ? static_cast<Uint64>(va_arg(ap, size_t))
                           : longs == 2 ? va_arg(ap, unsigned long long)
                           : longs == 1 ? va_arg(ap, unsigned long)
                                        : va_arg(ap, unsigned);
                char* d = digitsEnd;
                if (conv == 'u') {
                    do {
                        *--d = static_cast<char>('0' + u % 10);
                        u /= 10;
                    } while (u != 0);
                } else {
                    const char* hex = conv == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";
                    do {
                        *--d = hex[u & 0xF];
                        u >>= 4;
                    } while (u != 0);
                }
                putField(out, left, zero, width, nullptr, d, static_cast<size_t>(digitsEnd - d));
                break;
            }
            case 'c': {
                if (zero || longs || sizeT) return -1;
                const char c = static_cast<char>(va_arg(ap, int));
                putField(out, left, false, width, nullptr, &c, 1);
                break;
            }
            case 's': {
                if (zero || longs || sizeT) return -1;
                const char* str = va_arg(ap, const char*);
                if (str == nullptr) return -1;
                putField(out, left, false, width, nullptr, str, strlen(str));
                break;
            }
            default:
                return -1;
        }
    }
    if (out.length() > 0x7FFFFFFF) return -1;
    out.finish();
    return static_cast<long>(out.length());
}

}  // namespace

Sint32 zepSnprintf(Char* buffer, Uint32 size, String format, ...) {
    if (size == 0) return 0;
    va_list ap, fast;
    va_start(ap, format);
    va_copy(fast, ap);
    long n = formatFast(buffer, size, format, fast);
    va_end(fast);
    if (n < 0) n = vsnprintf(buffer, size, format, ap);  // vsnprintf puts its own NUL
    va_end(ap);
    if (n >= 0 && static_cast<Uint32>(n) < size) return static_cast<Sint32>(n);
    buffer[size - 1] = 0;
    if (n >= 0) return static_cast<Sint32>(size - 1);
    // An output error: what stands in the buffer is unknown, so count it.
    Sint32 count = 0;
    while (buffer[count] != 0) ++count;
    return count;
}
