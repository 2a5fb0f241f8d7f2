// zepdecengine.cpp - decimal text and interchange formats.
//
// Reading works on the digits of the text itself: the digits that fit the precision are taken
// as they stand, and the discarded ones are only looked at to form the residue, so a text of
// any length is read without a work area and without allocation (insufficient storage, which a
// copy of a long text into a heap area could raise, cannot arise here). The common number, whose
// digits fit and whose exponent is in range, goes from the text to base-10000 units eight
// characters at a time; any other is kept one digit per byte while it is rounded and finalised,
// and packed into units at the end. Writing turns units back into characters eight at a time.
//
// The residue summarises what rounding discarded: 0 nothing, below 5 less than half a unit of
// the last place, 5 exactly half, above 5 more than half. The first discarded digit gives 0, 3,
// 5 or 7, and any non-zero digit after it adds 1.
#include "zepdecengine.h"

#include <string.h>

#include "zepdigits.h"

namespace {

const Sint32 kMaxDigits = ZEP_DEC_UNITS * 4;

// --- densely packed decimal: three digits in ten bits

// The declet of a number 0..999, canonical: the unused bit pair of the all-large-digits form is
// 00.
constexpr Uint16 dpdEncode(unsigned n) {
    unsigned d2 = n / 100, d1 = n / 10 % 10, d0 = n % 10;
    unsigned i = d0 & 1, f = d1 & 1, c = d2 & 1;
    bool b2 = d2 >= 8, b1 = d1 >= 8, b0 = d0 >= 8;
    unsigned r;
    if (!b2 && !b1 && !b0) {
        r = (d2 << 7) | (d1 << 4) | d0;
    } else if (!b2 && !b1) {
        r = (d2 << 7) | (d1 << 4) | 0x8 | i;
    } else if (!b2 && !b0) {
        r = (d2 << 7) | (((d0 >> 1) & 3) << 5) | (f << 4) | 0xA | i;
    } else if (!b1 && !b0) {
        r = (((d0 >> 1) & 3) << 8) | (c << 7) | (d1 << 4) | 0xC | i;
    } else if (!b0) {
        r = (((d0 >> 1) & 3) << 8) | (c << 7) | (0u << 5) | (f << 4) | 0xE | i;
    } else if (!b1) {
        r = (((d1 >> 1) & 3) << 8) | (c << 7) | (1u << 5) | (f << 4) | 0xE | i;
    } else if (!b2) {
        r = (d2 << 7) | (2u << 5) | (f << 4) | 0xE | i;
    } else {
        r = (c << 7) | (3u << 5) | (f << 4) | 0xE | i;
    }
    return (Uint16)r;
}

// The number 0..999 of any of the 1024 declets, the 24 non-canonical ones included (they are
// the all-large-digits form with a non-zero unused bit pair, which the decoding ignores).
constexpr Uint16 dpdDecode(unsigned x) {
    unsigned b9 = (x >> 9) & 1, b8 = (x >> 8) & 1, b7 = (x >> 7) & 1, b6 = (x >> 6) & 1,
             b5 = (x >> 5) & 1, b4 = (x >> 4) & 1, b0 = x & 1;
    unsigned d2, d1, d0;
    if (((x >> 3) & 1) == 0) {
        d2 = (x >> 7) & 7;
        d1 = (x >> 4) & 7;
        d0 = x & 7;
    } else {
        switch ((x >> 1) & 3) {
            case 0:
                d2 = (x >> 7) & 7;
                d1 = (x >> 4) & 7;
                d0 = 8 + b0;
                break;
            case 1:
                d2 = (x >> 7) & 7;
                d1 = 8 + b4;
                d0 = (b6 << 2) | (b5 << 1) | b0;
                break;
            case 2:
                d2 = 8 + b7;
                d1 = (x >> 4) & 7;
                d0 = (b9 << 2) | (b8 << 1) | b0;
                break;
            default:
                switch ((x >> 5) & 3) {
                    case 0:
                        d2 = 8 + b7;
                        d1 = 8 + b4;
                        d0 = (b9 << 2) | (b8 << 1) | b0;
                        break;
                    case 1:
                        d2 = 8 + b7;
                        d1 = (b9 << 2) | (b8 << 1) | b4;
                        d0 = 8 + b0;
                        break;
                    case 2:
                        d2 = (x >> 7) & 7;
                        d1 = 8 + b4;
                        d0 = 8 + b0;
                        break;
                    default:
                        d2 = 8 + b7;
                        d1 = 8 + b4;
                        d0 = 8 + b0;
                        break;
                }
        }
    }
    return (Uint16)(d2 * 100 + d1 * 10 + d0);
}

struct DpdTables {
    Uint16 encode[1000];
    Uint16 decode[1024];
};

constexpr DpdTables makeDpdTables() {
    DpdTables t{};
    for (unsigned n = 0; n < 1000; ++n) t.encode[n] = dpdEncode(n);
    for (unsigned x = 0; x < 1024; ++x) t.decode[x] = dpdDecode(x);
    return t;
}

constexpr DpdTables kDpd = makeDpdTables();

constexpr bool dpdTablesAgree() {
    for (unsigned n = 0; n < 1000; ++n)
        if (kDpd.decode[kDpd.encode[n]] != n) return false;
    return true;
}
static_assert(dpdTablesAgree(), "declet tables disagree");
static_assert(kDpd.encode[999] == 0x0FF && kDpd.encode[345] == 0x1C5, "declet encoding");

// --- base-10000 units and base-1000 groups; 12 digits are three units or four groups

void unitsToGroups(const Uint16* u, Uint16* g) {
    for (int t = 0; t < 3; ++t) {
        unsigned a = u[3 * t], b = u[3 * t + 1], c = u[3 * t + 2];
        g[4 * t] = (Uint16)(a % 1000);
        g[4 * t + 1] = (Uint16)(a / 1000 + b % 100 * 10);
        g[4 * t + 2] = (Uint16)(b / 100 + c % 10 * 100);
        g[4 * t + 3] = (Uint16)(c / 10);
    }
}

void groupsToUnits(const Uint16* g, Uint16* u) {
    for (int t = 0; t < 3; ++t) {
        unsigned g0 = g[4 * t], g1 = g[4 * t + 1], g2 = g[4 * t + 2], g3 = g[4 * t + 3];
        u[3 * t] = (Uint16)(g0 + g1 % 10 * 1000);
        u[3 * t + 1] = (Uint16)(g1 / 10 + g2 % 100 * 100);
        u[3 * t + 2] = (Uint16)(g2 / 100 + g3 * 10);
    }
}

Sint32 countDigits(const Uint16* u) {
    for (int k = ZEP_DEC_UNITS - 1; k >= 0; --k) {
        unsigned v = u[k];
        if (v != 0) return 4 * k + (v >= 1000 ? 4 : v >= 100 ? 3 : v >= 10 ? 2 : 1);
    }
    return 1;
}

// Writes the coefficient's units as characters, four a unit, ending at `end`; the `digits`
// characters before `end` are then the coefficient.
void unitsToChars(const Uint16* u, Sint32 digits, char* end) {
    for (Sint32 k = 0; 4 * k < digits; ++k) {
        unsigned v = u[k], hi = v / 100, lo = v - hi * 100;
        end -= 4;
        memcpy(end, kZepDigitPairs + 2 * hi, 2);
        memcpy(end + 2, kZepDigitPairs + 2 * lo, 2);
    }
}

// Eight digit characters, the first in the lowest byte, become two units: pairs of digits
// first, then pairs of pairs, each step in all lanes of the word at once.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "digit lanes are little-endian");

inline void unitsOfWord(Uint64 w, Uint16* units, Sint32 k) {
    w -= 0x3030303030303030ull;
    w = ((w * 10) + (w >> 8)) & 0x00FF00FF00FF00FFull;
    w = ((w * 100) + (w >> 16)) & 0x0000FFFF0000FFFFull;
    units[k] = (Uint16)(w >> 32);
    if (k + 1 < ZEP_DEC_UNITS) units[k + 1] = (Uint16)w;
}

inline bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

inline Uint64 load8(const char* p) {
    Uint64 w;
    memcpy(&w, p, 8);
    return w;
}

// The first character at or after p that is no digit; `nul` ends the text. Eight characters
// are tested at once while they lie inside the text: a byte is no digit when its top bit is
// set, or when its low seven bits are below '0' or above '9'.
inline const char* skipDigits(const char* p, const char* nul) {
    while (nul - p >= 8) {
        Uint64 w = load8(p);
        Uint64 low = w & 0x7F7F7F7F7F7F7F7Full;
        Uint64 other = ((low + 0x4646464646464646ull) | ~(low + 0x5050505050505050ull) | w) &
                       0x8080808080808080ull;
        if (other != 0) return p + (__builtin_ctzll(other) >> 3);
        p += 8;
    }
    while (isDigit(*p)) ++p;
    return p;
}

// The significant digits of a text, first to last, with or without a point among them,
// seen as one string of n characters without the point.
struct DigitRun {
    const char* first;
    Sint64 n;
    Sint64 before;  // digits before the point; n when there is no point among them
};

// Characters o to o + 7 of the run, o at least 0. Reads nothing past first + n + 1, and past
// first + n only when the point lies among the digits.
inline Uint64 runWord(const DigitRun& r, Sint64 o) {
    if (o >= r.before) return load8(r.first + o + (r.before < r.n ? 1 : 0));
    if (o + 8 <= r.before) return load8(r.first + o);
    // The point falls inside: the bytes before it from one load, the rest from the next byte.
    Uint64 low = ((Uint64)1 << (8 * (r.before - o))) - 1;
    return (load8(r.first + o) & low) | (load8(r.first + o + 1) & ~low);
}

// The units of the run's digits: eight characters at a time from the right, loaded straight
// from the text. The top word starts up to seven characters before the run; it is loaded at
// the run's start and moved up, with zeros below.
void packRun(const DigitRun& r, Uint16* units) {
    memset(units, 0, ZEP_DEC_UNITS * sizeof(Uint16));
    Sint32 k = 0;
    Sint64 o = r.n - 8;
    for (; o >= 0; o -= 8, k += 2) unitsOfWord(runWord(r, o), units, k);
    if (o > -8) {
        Sint64 pad = -o;
        Uint64 w = (runWord(r, 0) << (8 * pad)) | (0x3030303030303030ull >> (8 * (8 - pad)));
        unitsOfWord(w, units, k);
    }
}

// Eight characters from two units, the more significant unit first: each unit splits into
// two pairs of digits, each pair into two digits, in all lanes of the word at once.
inline Uint64 charsOfUnits(unsigned high, unsigned low) {
    Uint64 w = high | ((Uint64)low << 32);
    Uint64 hundreds = ((w * 5243) >> 19) & 0x0000007F0000007Full;
    Uint64 pairs = hundreds | ((w - hundreds * 100) << 16);
    Uint64 tens = ((pairs * 103) >> 10) & 0x000F000F000F000Full;
    return (tens | ((pairs - tens * 10) << 8)) | 0x3030303030303030ull;
}

// The coefficient's characters as words, the first character in the lowest byte of words[0];
// bytes past the last character are '0'. Returns the count of words.
Sint32 coefficientWords(const Uint16* units, Sint32 n, Uint64* words) {
    const Sint32 m = (n + 7) / 8;
    const Sint32 pad = 8 * m - n;  // characters of the top word before the first digit
    // From the least significant word up; each word takes its top characters from the next.
    Uint64 next = 0x3030303030303030ull;
    for (Sint32 i = m - 1; i >= 0; --i) {
        const Sint32 k = 2 * (m - 1 - i);
        const Uint64 own = charsOfUnits(k + 1 < ZEP_DEC_UNITS ? units[k + 1] : 0, units[k]);
        words[i] = pad == 0 ? own : (own >> (8 * pad)) | (next << (64 - 8 * pad));
        next = own;
    }
    return m;
}

// Stores the first m words at dst one by one. Written out so that the compiler does not turn
// it into a block copy, which would read the words at offsets other than those they were
// stored at and stall.
inline void storeWords(char* dst, const Uint64* words, Sint32 m) {
    switch (m) {
        case 5:
            memcpy(dst + 32, &words[4], 8);
            [[fallthrough]];
        case 4:
            memcpy(dst + 24, &words[3], 8);
            [[fallthrough]];
        case 3:
            memcpy(dst + 16, &words[2], 8);
            [[fallthrough]];
        case 2:
            memcpy(dst + 8, &words[1], 8);
            [[fallthrough]];
        default:
            memcpy(dst, &words[0], 8);
    }
}

// --- the number while it is read and finalised

struct Work {
    Uint8 d[kMaxDigits + 4];  // digit values, most significant first
    Sint32 n;                 // digits in use, at least 1
    Sint64 exponent;
    Uint8 bits;
};

Sint32 precisionOf(const ZEPDecContext* ctx) {
    return ctx->digits < 1 ? 1 : ctx->digits > kMaxDigits ? kMaxDigits : ctx->digits;
}

bool isZero(const Work& w) {
    return w.n == 1 && w.d[0] == 0;
}

void setZeroDigits(Work& w) {
    w.n = 1;
    w.d[0] = 0;
}

// The residue of a first discarded digit.
const Uint8 kResidueOf[10] = {0, 3, 3, 3, 3, 5, 7, 7, 7, 7};

void setOverflow(Work& w, const ZEPDecContext* ctx, Sint32 p, Uint32& status) {
    if (isZero(w)) {
        Sint64 limit = ctx->emax - (ctx->clamp ? p - 1 : 0);
        if (w.exponent > limit) {
            w.exponent = limit;
            status |= ZEP_DEC_CLAMPED;
        }
        return;
    }
    bool negative = (w.bits & ZEP_DEC_NEG) != 0;
    bool largest;
    switch (ctx->round) {
        case ZEP_DECFLOAT_ROUND_DOWN:
            largest = true;
            break;
        case ZEP_DECFLOAT_ROUND_CEILING:
            largest = negative;
            break;
        case ZEP_DECFLOAT_ROUND_FLOOR:
            largest = !negative;
            break;
        default:
            largest = false;
            break;
    }
    if (largest) {
        memset(w.d, 9, (size_t)p);
        w.n = p;
        w.exponent = (Sint64)ctx->emax - p + 1;
    } else {
        setZeroDigits(w);
        w.exponent = 0;
        w.bits = (Uint8)((w.bits & ZEP_DEC_NEG) | ZEP_DEC_INF);
    }
    status |= ZEP_DEC_OVERFLOW | ZEP_DEC_INEXACT | ZEP_DEC_ROUNDED;
}

// Adds 1 to the magnitude when the mode says so. Returns false when that overflowed.
bool applyRound(Work& w, const ZEPDecContext* ctx, Sint32 p, int residue, Uint32& status) {
    if (residue == 0) return true;
    bool negative = (w.bits & ZEP_DEC_NEG) != 0;
    bool bump;
    switch (ctx->round) {
        case ZEP_DECFLOAT_ROUND_HALF_EVEN:
            bump = residue > 5 || (residue == 5 && (w.d[w.n - 1] & 1) != 0);
            break;
        case ZEP_DECFLOAT_ROUND_HALF_UP:
            bump = residue >= 5;
            break;
        case ZEP_DECFLOAT_ROUND_DOWN:
            bump = false;
            break;
        case ZEP_DECFLOAT_ROUND_CEILING:
            bump = !negative;
            break;
        case ZEP_DECFLOAT_ROUND_FLOOR:
            bump = negative;
            break;
        case ZEP_DECFLOAT_ROUND_HALF_DOWN:
            bump = residue > 5;
            break;
        case ZEP_DECFLOAT_ROUND_UP:
            bump = true;
            break;
        default:
            status |= ZEP_DEC_INVALID_CONTEXT;
            bump = false;
            break;
    }
    if (!bump) return true;
    Sint32 i = w.n - 1;
    while (i >= 0 && w.d[i] == 9) w.d[i--] = 0;
    if (i >= 0) {
        w.d[i]++;
        return true;
    }
    // All nines: the digit count stays, the exponent goes up.
    w.d[0] = 1;
    w.exponent++;
    if (w.exponent + w.n > (Sint64)ctx->emax + 1) {
        setOverflow(w, ctx, p, status);
        return false;
    }
    return true;
}

// Shortens the coefficient to `keep` digits (which may be 0 or below), carrying an earlier
// residue along as a sticky digit.
void roundTo(Work& w, Sint64 keep, int& residue, Uint32& status) {
    Sint64 discard = w.n - keep;
    if (discard <= 0) {
        if (residue != 0) status |= ZEP_DEC_INEXACT | ZEP_DEC_ROUNDED;
        return;
    }
    w.exponent += discard;
    status |= ZEP_DEC_ROUNDED;
    if (residue > 1) residue = 1;
    if (discard > w.n) {
        if (residue == 0) {
            for (Sint32 i = 0; i < w.n; ++i)
                if (w.d[i] != 0) {
                    residue = 1;
                    break;
                }
        }
        if (residue != 0) status |= ZEP_DEC_INEXACT;
        setZeroDigits(w);
        return;
    }
    Sint32 kept = (Sint32)keep;
    for (Sint32 i = kept + 1; i < w.n; ++i)
        if (w.d[i] != 0) {
            residue = 1;
            break;
        }
    residue += kResidueOf[w.d[kept]];
    if (residue != 0) status |= ZEP_DEC_INEXACT;
    if (kept == 0)
        setZeroDigits(w);
    else
        w.n = kept;
}

void setSubnormal(Work& w, const ZEPDecContext* ctx, Sint32 p, int residue, Uint32& status) {
    Sint64 etiny = (Sint64)ctx->emin - p + 1;
    if (isZero(w)) {
        if (w.exponent < etiny) {
            w.exponent = etiny;
            status |= ZEP_DEC_CLAMPED;
        }
        return;
    }
    status |= ZEP_DEC_SUBNORMAL;
    Sint64 adjust = etiny - w.exponent;
    if (adjust <= 0) {
        if (status & ZEP_DEC_INEXACT) status |= ZEP_DEC_UNDERFLOW;
        return;
    }
    roundTo(w, w.n - adjust, residue, status);
    applyRound(w, ctx, p, residue, status);
    if (status & ZEP_DEC_INEXACT) status |= ZEP_DEC_UNDERFLOW;
    // A carry out of all nines raised the exponent past etiny: take it back with a zero.
    if (w.exponent > etiny) {
        w.d[w.n++] = 0;
        w.exponent--;
    }
}

void finalise(Work& w, const ZEPDecContext* ctx, Sint32 p, int residue, Uint32& status) {
    if (w.exponent < 0 && w.exponent < (Sint64)ctx->emin - w.n + 1) {
        setSubnormal(w, ctx, p, residue, status);
        return;
    }
    if (!applyRound(w, ctx, p, residue, status)) return;
    Sint64 top = (Sint64)ctx->emax - p + 1;
    if (w.exponent <= top) return;
    if (w.exponent > (Sint64)ctx->emax - w.n + 1) {
        setOverflow(w, ctx, p, status);
        return;
    }
    if (!ctx->clamp) return;
    // Fold-down: the coefficient takes zeros below so that the exponent fits the format.
    Sint32 shift = (Sint32)(w.exponent - top);
    if (!isZero(w)) {
        memset(w.d + w.n, 0, (size_t)shift);
        w.n += shift;
    }
    w.exponent = top;
    status |= ZEP_DEC_CLAMPED;
}

void storeWork(const Work& w, ZEPDecValue* v) {
    memset(v->coefficient, 0, sizeof v->coefficient);
    const Uint8* end = w.d + w.n;
    Sint32 k = 0;
    Sint32 left = w.n;
    while (left >= 4) {
        end -= 4;
        v->coefficient[k++] = (Uint16)(end[0] * 1000 + end[1] * 100 + end[2] * 10 + end[3]);
        left -= 4;
    }
    unsigned u = 0;
    for (Sint32 i = 0; i < left; ++i) u = u * 10 + w.d[i];
    if (left > 0) v->coefficient[k] = (Uint16)u;
    v->digits = w.n;
    Sint64 e = w.exponent;
    v->exponent = e > 2147483647 ? 2147483647 : e < -2147483647 ? -2147483647 : (Sint32)e;
    v->bits = w.bits;
}

void setQuietNaN(ZEPDecValue* v) {
    zepDecValueZero(v);
    v->bits = ZEP_DEC_NAN;
}

inline char lower(char c) {
    return c >= 'A' && c <= 'Z' ? (char)(c + ('a' - 'A')) : c;
}

// Whole-text, case-insensitive match against a lower-case word.
bool matchesWord(const char* s, const char* word) {
    for (; *word != 0; ++s, ++word)
        if (lower(*s) != *word) return false;
    return *s == 0;
}

// Reads a NaN with a payload: an optional "s", "nan", then digits to the end, of which those
// after the leading zeros must fit the precision. False when the text is no such NaN.
bool readNaNPayload(const char* c, Uint8 sign, Sint32 p, ZEPDecValue* v) {
    Uint8 kind = ZEP_DEC_NAN;
    if (lower(*c) == 's') {
        kind = ZEP_DEC_SNAN;
        ++c;
    }
    if (lower(c[0]) != 'n' || lower(c[1]) != 'a' || lower(c[2]) != 'n') return false;
    c += 3;
    while (*c == '0') ++c;
    const char* first = c;
    while (isDigit(*c)) ++c;
    if (*c != 0 || c - first > p) return false;
    Work w;
    w.n = (Sint32)(c - first);
    for (Sint32 i = 0; i < w.n; ++i) w.d[i] = (Uint8)(first[i] - '0');
    if (w.n == 0) setZeroDigits(w);
    w.exponent = 0;
    w.bits = (Uint8)(sign | kind);
    storeWork(w, v);
    return true;
}

}  // namespace

Uint32 zepDecContextInit(ZEPDecContext* context, Uint32 bits) {
    context->status = 0;
    if (bits == 64) {
        context->digits = 16;
        context->emax = 384;
        context->emin = -383;
        context->formatBytes = 8;
        context->bias = 398;
    } else if (bits == 128) {
        context->digits = 34;
        context->emax = 6144;
        context->emin = -6143;
        context->formatBytes = 16;
        context->bias = 6176;
    } else {
        return 1;
    }
    context->round = ZEP_DECFLOAT_ROUND_HALF_EVEN;
    context->traps = 0;
    context->specialText = 0;
    context->clamp = 1;
    return 0;
}

void zepDecValueZero(ZEPDecValue* value) {
    value->digits = 1;
    value->exponent = 0;
    value->bits = 0;
    memset(value->coefficient, 0, sizeof value->coefficient);
}

void zepDecValueFromText(ZEPDecValue* value, String text, ZEPDecContext* context) {
    context->specialText = 0;
    const Sint32 p = precisionOf(context);
    Uint32 status = 0;
    const char* c = text;
    Uint8 sign = 0;
    if (*c == '-') {
        sign = ZEP_DEC_NEG;
        ++c;
    } else if (*c == '+') {
        ++c;
    }

    // Special values named outright.
    if (!isDigit(*c) && *c != '.') {
        Uint8 special = 0;
        if (matchesWord(c, "infinity") || matchesWord(c, "inf"))
            special = ZEP_DEC_INF;
        else if (matchesWord(c, "nan"))
            special = ZEP_DEC_NAN;
        else if (matchesWord(c, "snan"))
            special = ZEP_DEC_SNAN;
        if (special != 0) {
            zepDecValueZero(value);
            value->bits = (Uint8)(sign | special);
            context->specialText = 1;
            return;
        }
    }

    // Digits with at most one point among them.
    const char* const nul = c + strlen(c);
    const char* start = c;
    c = skipDigits(c, nul);
    const char* dot = nullptr;
    if (*c == '.') {
        dot = c++;
        c = skipDigits(c, nul);
    }
    const char* last = c - 1;
    if (last == dot) --last;

    if (last < start) {
        if (*c == 0 || dot != nullptr || !readNaNPayload(c, sign, p, value)) {
            setQuietNaN(value);
            context->status |= ZEP_DEC_CONVERSION_SYNTAX;
        }
        return;
    }

    Sint64 exponent = 0;
    if (*c != 0) {
        if (*c != 'e' && *c != 'E') {
            setQuietNaN(value);
            context->status |= ZEP_DEC_CONVERSION_SYNTAX;
            return;
        }
        ++c;
        bool negativeExponent = false;
        if (*c == '-') {
            negativeExponent = true;
            ++c;
        } else if (*c == '+') {
            ++c;
        }
        // One pass: the value, and the count of its digits from the first non-zero one on,
        // which is all the clamping needs (leading zeros are insignificant).
        const char* firstExp = c;
        Sint32 significant = 0;
        for (; isDigit(*c); ++c) {
            if (significant <= 10) exponent = exponent * 10 + (*c - '0');
            significant += exponent != 0;
        }
        if (*c != 0 || c == firstExp) {
            setQuietNaN(value);
            context->status |= ZEP_DEC_CONVERSION_SYNTAX;
            return;
        }
        // More than ten digits, or ten beginning above 1.
        if (significant > 10 || exponent > 1999999999) exponent = ZEP_DEC_HUGE_EXPONENT;
        if (negativeExponent) exponent = -exponent;
    }
    const char* const textEnd = c;
    if (dot != nullptr && dot < last) exponent -= last - dot;

    // Leading zeros go, a last digit stays.
    const char* first = start;
    while (first < last && (*first == '0' || *first == '.')) ++first;
    const bool split = dot != nullptr && first < dot && dot < last;
    const Sint64 n = (last - first + 1) - (split ? 1 : 0);

    // The common case: the digits fit and the number is in range, so that it needs neither
    // rounding nor finalising.
    if (n <= p && (exponent >= 0 || exponent >= (Sint64)context->emin - n + 1) &&
        exponent <= (Sint64)context->emax - p + 1) {
        const DigitRun run = {first, n, split ? dot - first : n};
        if (textEnd - first >= 9) {
            packRun(run, value->coefficient);
        } else {
            // Too close to the end of the text to load whole words from it: a copy first.
            char copy[24];
            memset(copy, 0, sizeof copy);
            memcpy(copy, first, (size_t)(textEnd - first));
            packRun({copy, n, run.before}, value->coefficient);
        }
        value->digits = (Sint32)n;
        value->exponent = (Sint32)exponent;
        value->bits = sign;
        return;
    }

    Work w;
    w.bits = sign;
    int residue = 0;
    Sint32 kept = 0;
    const char* s = first;
    for (; s <= last && kept < p; ++s) {
        if (*s != '.') w.d[kept++] = (Uint8)(*s - '0');
    }
    w.n = kept;
    if (s <= last) {
        // More digits than the precision: the rest is only looked at for the residue.
        while (*s == '.') ++s;
        int firstDiscarded = *s - '0';
        Sint64 discarded = 1;
        bool sticky = false;
        for (++s; s <= last; ++s) {
            if (*s == '.') continue;
            ++discarded;
            if (*s != '0') sticky = true;
        }
        residue = kResidueOf[firstDiscarded] + (sticky ? 1 : 0);
        exponent += discarded;
        status |= ZEP_DEC_ROUNDED;
        if (residue != 0) status |= ZEP_DEC_INEXACT;
    }
    w.exponent = exponent;
    finalise(w, context, p, residue, status);
    if (status & ZEP_DEC_NAN_FLAGS)
        setQuietNaN(value);
    else
        storeWork(w, value);
    context->status |= status;
}

Sint32 zepDecValueToText(const ZEPDecValue* value, Char* buffer) {
    Sint32 n = value->digits < 1 ? 1 : value->digits > kMaxDigits ? kMaxDigits : value->digits;
    if (value->bits & ZEP_DEC_SPECIAL) {
        char* c = buffer;
        if (value->bits & ZEP_DEC_NEG) *c++ = '-';
        if (value->bits & ZEP_DEC_INF) {
            memcpy(c, "Infinity", 9);
            return (Sint32)(c + 8 - buffer);
        }
        if (value->bits & (ZEP_DEC_NAN | ZEP_DEC_SNAN)) {
            char digits[kMaxDigits];
            char* end = digits + kMaxDigits;
            unitsToChars(value->coefficient, n, end);
            const char* d = end - n;
            if (value->bits & ZEP_DEC_SNAN) *c++ = 's';
            memcpy(c, "NaN", 3);
            c += 3;
            // The payload, if there is one, as an integer.
            if (value->exponent == 0 && !(n == 1 && *d == '0')) {
                memcpy(c, d, (size_t)n);
                c += n;
            }
            *c = 0;
            return (Sint32)(c - buffer);
        }
    }
    // The finite forms are written eight characters at a time. The words may run past the
    // end of the text, never past the 43 bytes a 34-digit text may need: what they leave behind
    // is overwritten or lies after the NUL.
    char* o = buffer;
    if (value->bits & ZEP_DEC_NEG) *o++ = '-';
    Uint64 v[6];
    const Sint32 m = coefficientWords(value->coefficient, n, v);
    const Sint64 e = value->exponent;
    char* c;
    if (e == 0) {
        storeWords(o, v, m);
        c = o + n;
        *c = 0;
        return (Sint32)(c - buffer);
    }
    Sint64 pre = n + e;
    Sint64 shown = 0;  // the adjusted exponent when it is written
    if (e > 0 || pre < -5) {
        shown = e + n - 1;
        pre = 1;
    }
    if (pre > 0) {
        // Every digit one place to the right, then the first `pre` back in front of the point.
        storeWords(o + 1, v, m);
        if (pre == 1) {
            o[0] = (char)v[0];
        } else {
            Sint64 i = 0;
            for (; 8 * i + 8 <= pre; ++i) memcpy(o + 8 * i, &v[i], 8);
            if (Sint64 t = pre - 8 * i; t != 0) {
                // Below byte t this word's own characters, from t on what the shifted copy put
                // there.
                Uint64 shifted = (v[i] << 8) | (i > 0 ? v[i - 1] >> 56 : 0);
                Uint64 low = (1ull << (8 * t)) - 1;
                Uint64 w = (v[i] & low) | (shifted & ~low);
                memcpy(o + 8 * i, &w, 8);
            }
        }
        if (pre < n) {
            o[pre] = '.';
            c = o + n + 1;
        } else {
            c = o + n;
        }
    } else {
        const Sint64 zeros = 2 - pre;  // "0." and the zeros after it, at most 7 characters
        if (o - buffer + zeros + 8 * m <= ZEP_DEC_TEXT_MAX) {
            const Uint64 prefix = 0x3030303030302E30ull;
            memcpy(o, &prefix, 8);
            storeWords(o + zeros, v, m);
        } else {
            // Too long for whole words: through a private buffer.
            char text[64];
            const Uint64 prefix = 0x3030303030302E30ull;
            memcpy(text, &prefix, 8);
            storeWords(text + zeros, v, m);
            memcpy(o, text, (size_t)(zeros + n));
        }
        c = o + zeros + n;
    }
    if (shown != 0) {
        *c++ = 'E';
        *c++ = shown < 0 ? '-' : '+';
        Uint64 u = (Uint64)(shown < 0 ? -shown : shown);
        if (u < 10000 && c + 4 <= buffer + ZEP_DEC_TEXT_MAX) {
            // Four characters at once, leading zeros shifted out; what follows the last one is
            // the NUL's place or lies past it.
            const int count = 1 + (u >= 10) + (u >= 100) + (u >= 1000);
            const Uint32 four = (Uint32)(charsOfUnits((unsigned)u, 0) >> (8 * (4 - count)));
            memcpy(c, &four, 4);
            c += count;
        } else {
            char digitsOfE[20];
            int k = 0;
            do {
                digitsOfE[k++] = (char)('0' + u % 10);
                u /= 10;
            } while (u != 0);
            while (k > 0) *c++ = digitsOfE[--k];
        }
    }
    *c = 0;
    return (Sint32)(c - buffer);
}

namespace {

typedef unsigned __int128 U128;

struct Format {
    Sint32 bytes;    // 8 or 16
    Sint32 digits;   // 16 or 34
    Sint32 expBits;  // exponent continuation: 8 or 12
    Sint32 bias;     // 398 or 6176
    Sint32 declets;  // 5 or 11
};

const Format kDecimal64 = {8, 16, 8, 398, 5};
const Format kDecimal128 = {16, 34, 12, 6176, 11};

// The fields of the format go into one number of 64 or 128 bits, most significant first:
// sign, combination (5 bits), exponent continuation, coefficient continuation.
void encode(Uint8* bytes, const ZEPDecValue* v, ZEPDecContext* ctx, const Format& f) {
    const Sint32 width = f.bytes * 8;
    const Sint32 maxBiased = (3 << f.expBits) - 1;  // bias + emax - digits + 1
    U128 word = 0;
    Uint16 units[ZEP_DEC_UNITS];
    memcpy(units, v->coefficient, sizeof units);
    unsigned combination;
    Uint32 biased = 0;
    bool withCoefficient = true;
    if (v->bits & ZEP_DEC_INF) {
        combination = 0x1E;
        withCoefficient = false;
    } else if (v->bits & (ZEP_DEC_NAN | ZEP_DEC_SNAN)) {
        combination = 0x1F;
        if (v->bits & ZEP_DEC_SNAN) biased = (Uint32)1 << (f.expBits - 1);
        // Only a payload that leaves the top digit free fits.
        Sint32 payloadDigits = countDigits(units);
        bool payload = !(payloadDigits == 1 && units[0] == 0);
        if (!payload || payloadDigits >= f.digits) withCoefficient = false;
    } else {
        Sint64 b = (Sint64)v->exponent + f.bias;
        Sint32 n = countDigits(units);
        bool zero = n == 1 && units[0] == 0;
        if (zero) {
            if (b < 0 || b > maxBiased) {
                b = b < 0 ? 0 : maxBiased;
                ctx->status |= ZEP_DEC_CLAMPED;
            }
        } else if (b > maxBiased) {
            // Fold-down: zeros below the coefficient bring the exponent into the format.
            Sint32 pad = (Sint32)(b - maxBiased);
            char digits[kMaxDigits * 2];
            memset(digits, '0', sizeof digits);
            char* end = digits + kMaxDigits;
            unitsToChars(units, n, end);
            if (pad > kMaxDigits) pad = kMaxDigits;
            memset(end, '0', (size_t)pad);
            end += pad;
            memset(units, 0, sizeof units);
            for (Sint32 k = 0; k < ZEP_DEC_UNITS && end - 4 >= digits; ++k) {
                end -= 4;
                units[k] = (Uint16)((end[0] - '0') * 1000 + (end[1] - '0') * 100 +
                                    (end[2] - '0') * 10 + (end[3] - '0'));
            }
            b = maxBiased;
            ctx->status |= ZEP_DEC_CLAMPED;
        }
        biased = (Uint32)b;
        combination = 0;  // set below with the top digit
    }
    Uint16 groups[12];
    unitsToGroups(units, groups);
    if (withCoefficient) {
        for (Sint32 i = f.declets - 1; i >= 0; --i)
            word = (word << 10) | kDpd.encode[groups[i] % 1000];
    }
    if (!(v->bits & ZEP_DEC_SPECIAL)) {
        unsigned top = (biased >> f.expBits) & 3;
        unsigned msd = groups[f.declets] % 10;
        combination = msd < 8 ? (top << 3) | msd : 0x18 | (top << 1) | (msd & 1);
    }
    U128 head = ((U128)((v->bits & ZEP_DEC_NEG) ? 1 : 0) << 5) | combination;
    head = (head << f.expBits) | (biased & ((1u << f.expBits) - 1));
    word |= head << (width - 6 - f.expBits);
    for (Sint32 i = f.bytes - 1; i >= 0; --i) {
        bytes[i] = (Uint8)word;
        word >>= 8;
    }
}

void decode(const Uint8* bytes, ZEPDecValue* v, const Format& f) {
    const Sint32 width = f.bytes * 8;
    U128 word = 0;
    for (Sint32 i = 0; i < f.bytes; ++i) word = (word << 8) | bytes[i];
    zepDecValueZero(v);
    Uint8 sign = (bytes[0] & 0x80) ? ZEP_DEC_NEG : 0;
    unsigned combination = (bytes[0] >> 2) & 0x1F;
    Uint16 groups[12] = {};
    if (combination == 0x1E) {
        v->bits = (Uint8)(sign | ZEP_DEC_INF);
        return;
    }
    if (combination == 0x1F) {
        v->bits = (Uint8)(sign | ((bytes[0] & 0x02) ? ZEP_DEC_SNAN : ZEP_DEC_NAN));
    } else {
        unsigned top, msd;
        if (combination < 0x18) {
            top = combination >> 3;
            msd = combination & 7;
        } else {
            top = (combination >> 1) & 3;
            msd = 8 + (combination & 1);
        }
        unsigned cont = (unsigned)(word >> (width - 6 - f.expBits)) & ((1u << f.expBits) - 1);
        v->exponent = (Sint32)((top << f.expBits) | cont) - f.bias;
        v->bits = sign;
        groups[f.declets] = (Uint16)msd;
    }
    for (Sint32 i = 0; i < f.declets; ++i) {
        groups[i] = kDpd.decode[(unsigned)word & 0x3FF];
        word >>= 10;
    }
    groupsToUnits(groups, v->coefficient);
    v->digits = countDigits(v->coefficient);
}

}  // namespace

void zepDecEncode64(Uint8* bytes, const ZEPDecValue* value, ZEPDecContext* context) {
    encode(bytes, value, context, kDecimal64);
}

void zepDecEncode128(Uint8* bytes, const ZEPDecValue* value, ZEPDecContext* context) {
    encode(bytes, value, context, kDecimal128);
}

void zepDecDecode64(const Uint8* bytes, ZEPDecValue* value, ZEPDecContext*) {
    decode(bytes, value, kDecimal64);
}

void zepDecDecode128(const Uint8* bytes, ZEPDecValue* value, ZEPDecContext*) {
    decode(bytes, value, kDecimal128);
}
