// zepdecfloat.h - decimal floating point values of 16 and 34 digits.
//
// ZEPDecfloat is a number in the decimal64 (16 digits, exponents to 384) or decimal128
// (34 digits, exponents to 6144) range, with a rounding mode of its own, and conversions from
// and to text, the integer types, double and the packed interchange bytes. It gives no
// arithmetic. Every member returns an ECF code, 0 for success; none traces or logs. A failed
// conversion in leaves NaN, an infinity or the rounded number in the object, and the engine's
// flags in its status.
//
// An object is self-contained: copying it copies its bytes, and it never allocates.
#ifndef ZEPDECFLOAT_H
#define ZEPDECFLOAT_H

#include "zeptypes.h"

// The decimal engine's context: precision and exponent range of the format, the rounding mode,
// and the flags of the last conversion. Filled by the engine's context set-up only.
struct ZEPDecContext {
    Sint32 digits;       // precision: 16 or 34
    Sint32 emax;         // largest adjusted exponent: 384 or 6144
    Sint32 emin;         // smallest adjusted exponent of a normal number: -383 or -6143
    Uint32 round;        // a ZEPDecfloatRounding value
    Uint32 traps;        // 0: no condition traps
    Uint32 status;       // ZEP_DEC_* flags, only ever set by the engine
    Uint32 specialText;  // 1 when the last text read named a special value outright
    Uint32 clamp;        // 1: large exponents fold down to fit the interchange format
    Uint32 formatBytes;  // 8 or 16
    Sint32 bias;         // exponent bias of the format: 398 or 6176
};

#define ZEP_DEC_UNITS 9  // coefficient units of 4 digits: room for 36 digits

// A decimal number: coefficient * 10^exponent, with the coefficient in base 10000.
struct ZEPDecValue {
    Sint32 digits;    // significant digits of the coefficient, at least 1 (0: no value yet)
    Sint32 exponent;  // power of ten of the last digit
    Uint8 bits;       // ZEP_DEC_NEG, ZEP_DEC_INF, ZEP_DEC_NAN, ZEP_DEC_SNAN
    Uint16 coefficient[ZEP_DEC_UNITS];  // 0..9999 each, least significant unit first
};

static_assert(sizeof(ZEPDecContext) == 40, "ZEPDecContext layout");
static_assert(sizeof(ZEPDecValue) == 28, "ZEPDecValue layout");

#define ZEP_DEC_NEG 0x80
#define ZEP_DEC_INF 0x40
#define ZEP_DEC_NAN 0x20
#define ZEP_DEC_SNAN 0x10
#define ZEP_DEC_SPECIAL 0x70

enum ZEPDecfloatRounding : Sint32 {
    ZEP_DECFLOAT_ROUND_HALF_EVEN = 0,  // to nearest, ties to the even last digit
    ZEP_DECFLOAT_ROUND_HALF_UP = 1,    // to nearest, ties away from zero
    ZEP_DECFLOAT_ROUND_DOWN = 2,       // toward zero
    ZEP_DECFLOAT_ROUND_CEILING = 3,    // toward plus infinity
    ZEP_DECFLOAT_ROUND_FLOOR = 4,      // toward minus infinity
    ZEP_DECFLOAT_ROUND_HALF_DOWN = 5,  // to nearest, ties toward zero
    ZEP_DECFLOAT_ROUND_UP = 6          // away from zero
    // 7 is accepted by setRoundingMode but is no mode: a conversion that has to round then
    // gives NaN.
};

class ZEPDecfloat34;
class ZEPDecfloat16;

class ZEP_EXPORT ZEPDecfloat {
public:
    // `size` is the format's width in bits: 64 (16 digits) or 128 (34 digits). Any other
    // number leaves the context without settings. Without arguments: 64.
    ZEPDecfloat();
    explicit ZEPDecfloat(Uint32 size);
    // The constructors with a value drop the conversion's result; the status and the value
    // show a failure afterwards.
    ZEPDecfloat(String text, Uint32 size);
    ZEPDecfloat(String text, ZEPDecfloatRounding rounding, Uint32 size);
    ZEPDecfloat(double value, Uint32 size);
    ZEPDecfloat(Uint32 value, Uint32 size);
    ZEPDecfloat(Sint32 value, Uint32 size);
    ZEPDecfloat(Uint64 value, Uint32 size);
    ZEPDecfloat(Sint64 value, Uint32 size);

    // 0 to 6, or 7 (no mode); anything else is refused and leaves the mode.
    Uint32 setRoundingMode(ZEPDecfloatRounding mode);

    // `size` counts characters without the NUL: the buffer holds size + 1 bytes, and at least
    // 10 for the special texts. 42 characters hold any 34-digit number.
    Uint32 toString(Char* buffer, Uint32 size) const;
    // Integer part, truncated toward zero; the rounding mode plays no part.
    Uint32 toUInt32(Uint32* value) const;
    Uint32 toSInt32(Sint32* value) const;
    Uint32 toUInt64(Uint64* value) const;
    Uint32 toSInt64(Sint64* value) const;
    Uint32 toDouble(double* value) const;

    Uint32 fromString(String text);
    Uint32 fromString(String text, ZEPDecfloatRounding rounding);
    // Through double: the value gets 15 significant digits, trailing zeros included.
    Uint32 fromUInt32(Uint32 value);
    Uint32 fromSInt32(Sint32 value);
    Uint32 fromDouble(double value);
    // Exact digits, rounded by the object's mode when longer than the precision.
    Uint32 fromUInt64(Uint64 value);
    Uint32 fromSInt64(Sint64 value);

    // The little-endian image of the IEEE decimal64 (size 8) or decimal128 (size 16) format.
    Uint32 toDecPacked(Uint8* bytes, Uint32 size) const;
    Uint32 fromDecPacked(const Uint8* bytes, Uint32 size);

    // Conversions between sizes go through text: the target's precision and rounding decide.
    Uint32 toDecfloat34(ZEPDecfloat34& target) const;
    Uint32 fromDecfloat34(const ZEPDecfloat34& source, ZEPDecfloatRounding rounding);
    Uint32 toDecfloat16(ZEPDecfloat16& target) const;
    Uint32 fromDecfloat16(const ZEPDecfloat16& source);

    // For callers and tests that need the parts.
    const ZEPDecContext& context() const { return m_context; }
    const ZEPDecValue& number() const { return m_number; }

private:
    void start(Uint32 size);

    // toDecPacked may add the clamped flag to the status of a const object.
    mutable ZEPDecContext m_context;
    ZEPDecValue m_number;
};

static_assert(sizeof(ZEPDecfloat) == 68, "ZEPDecfloat layout");

// The same class fixed at one size.
class ZEPDecfloat34 : public ZEPDecfloat {
public:
    ZEPDecfloat34() : ZEPDecfloat(128u) {}
    explicit ZEPDecfloat34(String text) : ZEPDecfloat(text, 128u) {}
    ZEPDecfloat34(String text, ZEPDecfloatRounding rounding) : ZEPDecfloat(text, rounding, 128u) {}
    explicit ZEPDecfloat34(double value) : ZEPDecfloat(value, 128u) {}
    explicit ZEPDecfloat34(Uint32 value) : ZEPDecfloat(value, 128u) {}
    explicit ZEPDecfloat34(Sint32 value) : ZEPDecfloat(value, 128u) {}
    explicit ZEPDecfloat34(Uint64 value) : ZEPDecfloat(value, 128u) {}
    explicit ZEPDecfloat34(Sint64 value) : ZEPDecfloat(value, 128u) {}
};

class ZEPDecfloat16 : public ZEPDecfloat {
public:
    ZEPDecfloat16() : ZEPDecfloat(64u) {}
    explicit ZEPDecfloat16(String text) : ZEPDecfloat(text, 64u) {}
    ZEPDecfloat16(String text, ZEPDecfloatRounding rounding) : ZEPDecfloat(text, rounding, 64u) {}
    explicit ZEPDecfloat16(double value) : ZEPDecfloat(value, 64u) {}
    explicit ZEPDecfloat16(Uint32 value) : ZEPDecfloat(value, 64u) {}
    explicit ZEPDecfloat16(Sint32 value) : ZEPDecfloat(value, 64u) {}
    explicit ZEPDecfloat16(Uint64 value) : ZEPDecfloat(value, 64u) {}
    explicit ZEPDecfloat16(Sint64 value) : ZEPDecfloat(value, 64u) {}
};

#endif
