// zepdecfloat.cpp - ZEPDecfloat: what the engine's results mean, and their ECF codes.
//
// The engine reads and writes numbers; this class decides which outcome is an error. The
// conversions through double use the C locale whatever locale the process has chosen, so that
// the texts exchanged with the engine always have a "." for the decimal point.
#include "zepdecfloat.h"

#include <errno.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zepdecengine.h"
#include "zepecf.h"
#include "zepint128.h"

namespace {

typedef unsigned __int128 U128;

// Room the class gives the engine's text: 42 characters and the NUL.
const Uint32 kTextSize = 43;

locale_t cLocale() {
    static locale_t c = newlocale(LC_ALL_MASK, "C", (locale_t)0);
    return c;
}

// Runs a formatting or reading call in the C locale on this thread.
class CLocaleScope {
public:
    CLocaleScope() : m_previous(cLocale() != (locale_t)0 ? uselocale(cLocale()) : (locale_t)0) {}
    ~CLocaleScope() {
        if (m_previous != (locale_t)0) uselocale(m_previous);
    }
    CLocaleScope(const CLocaleScope&) = delete;
    CLocaleScope& operator=(const CLocaleScope&) = delete;

private:
    locale_t m_previous;
};

const Uint16 kPow10[5] = {1, 10, 100, 1000, 10000};

// The integer part of a finite number, truncated toward zero, for a target whose values have at
// most `limit` digits. The test looks at the digit count, not the value, so 0E+20 has 21.
Uint32 integerPart(const ZEPDecValue& v, Sint64 limit, bool unsignedTarget, U128& magnitude,
                   bool& negative) {
    magnitude = 0;
    negative = (v.bits & ZEP_DEC_NEG) != 0;
    if (v.bits & ZEP_DEC_SPECIAL) return ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR;
    Sint64 n = (Sint64)v.digits + v.exponent;
    if (n > limit || (unsignedTarget && negative)) return ECF_DECFLOAT_OUT_OF_RANGE;
    if (n < 1) return 0;
    // A negative exponent skips whole units, then cuts the digits below the point off the first
    // unit that holds an integer digit; a positive one scales up.
    Sint32 skip = v.exponent < 0 ? -v.exponent : 0;
    Sint32 unit = skip / 4, cut = skip % 4;
    Sint32 units = (v.digits + 3) / 4;
    U128 acc = v.coefficient[unit] / kPow10[cut];
    U128 scale = kPow10[4 - cut];
    for (Sint32 k = unit + 1; k < units && k < ZEP_DEC_UNITS; ++k) {
        acc += (U128)v.coefficient[k] * scale;
        scale *= 10000;
    }
    for (Sint32 e = v.exponent; e > 0; --e) acc *= 10;
    magnitude = acc;
    return 0;
}

}  // namespace

void ZEPDecfloat::start(Uint32 size) {
    memset(&m_context, 0, sizeof m_context);
    zepDecContextInit(&m_context, size);
    // Digits 0: no value yet.
    memset(&m_number, 0, sizeof m_number);
}

ZEPDecfloat::ZEPDecfloat() {
    start(64);
}

ZEPDecfloat::ZEPDecfloat(Uint32 size) {
    start(size);
}

ZEPDecfloat::ZEPDecfloat(String text, Uint32 size) {
    start(size);
    fromString(text);
}

ZEPDecfloat::ZEPDecfloat(String text, ZEPDecfloatRounding rounding, Uint32 size) {
    start(size);
    fromString(text, rounding);
}

ZEPDecfloat::ZEPDecfloat(double value, Uint32 size) {
    start(size);
    fromDouble(value);
}

ZEPDecfloat::ZEPDecfloat(Uint32 value, Uint32 size) {
    start(size);
    fromUInt32(value);
}

ZEPDecfloat::ZEPDecfloat(Sint32 value, Uint32 size) {
    start(size);
    fromSInt32(value);
}

ZEPDecfloat::ZEPDecfloat(Uint64 value, Uint32 size) {
    start(size);
    fromUInt64(value);
}

ZEPDecfloat::ZEPDecfloat(Sint64 value, Uint32 size) {
    start(size);
    fromSInt64(value);
}

Uint32 ZEPDecfloat::setRoundingMode(ZEPDecfloatRounding mode) {
    if ((Sint32)mode < 0 || (Sint32)mode > 7) return ECF_DECFLOAT_INVALID_ROUNDING_MODE;
    m_context.round = (Uint32)mode;
    return 0;
}

Uint32 ZEPDecfloat::fromString(String text) {
    m_context.status = 0;
    memset(&m_number, 0, sizeof m_number);
    m_number.digits = 1;
    zepDecValueFromText(&m_number, text != nullptr ? text : "", &m_context);
    const Uint8 bits = m_number.bits;
    const bool named = m_context.specialText == 1;
    // A NaN that the text did not name is a text that is no number.
    if ((bits & (ZEP_DEC_NAN | ZEP_DEC_SNAN)) && !named) return ECF_DECFLOAT_NOT_A_NUMBER;
    if ((bits & ZEP_DEC_INF) && !named)
        return (bits & ZEP_DEC_NEG) ? ECF_DECFLOAT_NEGATIVE_INFINITY
                                    : ECF_DECFLOAT_POSITIVE_INFINITY;
    // Subnormal counts even when exact, and so does an overflow rounded to the largest number.
    if (m_context.status & (ZEP_DEC_OVERFLOW | ZEP_DEC_UNDERFLOW | ZEP_DEC_SUBNORMAL))
        return ECF_DECFLOAT_OUT_OF_RANGE;
    return 0;
}

Uint32 ZEPDecfloat::fromString(String text, ZEPDecfloatRounding rounding) {
    Uint32 rc = setRoundingMode(rounding);
    if (rc != 0) return rc;
    return fromString(text);
}

Uint32 ZEPDecfloat::toString(Char* buffer, Uint32 size) const {
    const Uint8 bits = m_number.bits;
    if (m_context.status & ZEP_DEC_CONVERSION_SYNTAX) {
        memcpy(buffer, "NaN", 4);
        return ECF_DECFLOAT_SPECIAL_CONVERSION_ERROR;
    }
    // Specials are written whatever the size; the sign and payload of a NaN are not.
    if (bits & ZEP_DEC_SNAN) {
        memcpy(buffer, "sNaN", 5);
        return 0;
    }
    if (bits & ZEP_DEC_NAN) {
        memcpy(buffer, "NaN", 4);
        return 0;
    }
    if (bits & ZEP_DEC_INF) {
        if (bits & ZEP_DEC_NEG)
            memcpy(buffer, "-Infinity", 10);
        else
            memcpy(buffer, "Infinity", 9);
        return 0;
    }
    if (m_number.digits == 0) return ECF_DECFLOAT_NOT_A_NUMBER;
    // Room for the longest text: no need to measure first.
    if (size >= kTextSize - 1) {
        zepDecValueToText(&m_number, buffer);
        return 0;
    }
    char text[kTextSize + 1];
    Sint32 length = zepDecValueToText(&m_number, text);
    if ((Uint32)length > size) return ECF_DECFLOAT_INVALID_STRING_LENGTH;
    memcpy(buffer, text, (size_t)length + 1);
    return 0;
}

Uint32 ZEPDecfloat::toUInt32(Uint32* value) const {
    U128 m;
    bool negative;
    Uint32 rc = integerPart(m_number, 10, true, m, negative);
    if (rc == 0 && m > 0xFFFFFFFFu) rc = ECF_DECFLOAT_OUT_OF_RANGE;
    *value = rc == 0 ? (Uint32)m : 0;
    return rc;
}

Uint32 ZEPDecfloat::toSInt32(Sint32* value) const {
    U128 m;
    bool negative;
    Uint32 rc = integerPart(m_number, 10, false, m, negative);
    if (rc == 0 && m > (negative ? 0x80000000u : 0x7FFFFFFFu)) rc = ECF_DECFLOAT_OUT_OF_RANGE;
    *value = rc != 0 ? 0 : negative ? (Sint32)(0u - (Uint32)m) : (Sint32)m;
    return rc;
}

Uint32 ZEPDecfloat::toUInt64(Uint64* value) const {
    U128 m;
    bool negative;
    Uint32 rc = integerPart(m_number, 20, true, m, negative);
    if (rc == 0 && m > 0xFFFFFFFFFFFFFFFFull) rc = ECF_DECFLOAT_OUT_OF_RANGE;
    *value = rc == 0 ? (Uint64)m : 0;
    return rc;
}

Uint32 ZEPDecfloat::toSInt64(Sint64* value) const {
    U128 m;
    bool negative;
    Uint32 rc = integerPart(m_number, 19, false, m, negative);
    if (rc == 0 && m > (negative ? 0x8000000000000000ull : 0x7FFFFFFFFFFFFFFFull))
        rc = ECF_DECFLOAT_OUT_OF_RANGE;
    *value = rc != 0 ? 0 : negative ? (Sint64)(0ull - (Uint64)m) : (Sint64)m;
    return rc;
}

Uint32 ZEPDecfloat::toDouble(double* value) const {
    errno = 0;
    char text[kTextSize + 1];
    Uint32 rc = toString(text, kTextSize);
    if (rc != 0) return rc;
    {
        CLocaleScope c;
        *value = strtod(text, nullptr);
    }
    return errno == ERANGE ? ECF_DECFLOAT_OUT_OF_RANGE : 0;
}

Uint32 ZEPDecfloat::fromDouble(double value) {
    char text[64];
    {
        CLocaleScope c;
        snprintf(text, sizeof text, "%1.14E", value);
    }
    return fromString(text);
}

Uint32 ZEPDecfloat::fromUInt32(Uint32 value) {
    return fromDouble((double)value);
}

Uint32 ZEPDecfloat::fromSInt32(Sint32 value) {
    return fromDouble((double)value);
}

Uint32 ZEPDecfloat::fromUInt64(Uint64 value) {
    char text[kTextSize];
    Uint128(value).toString(text, kTextSize);
    return fromString(text);
}

Uint32 ZEPDecfloat::fromSInt64(Sint64 value) {
    char text[kTextSize];
    Sint128(value).toString(text, kTextSize);
    return fromString(text);
}

Uint32 ZEPDecfloat::toDecPacked(Uint8* bytes, Uint32 size) const {
    Uint8 encoding[16];
    Uint32 n;
    if (size == 16) {
        if (m_context.formatBytes != 16) return ECF_DECFLOAT_INVALID_ARRAY_SIZE;
        zepDecEncode128(encoding, &m_number, &m_context);
        n = 16;
    } else {
        if (m_context.formatBytes != 8) return ECF_DECFLOAT_INVALID_ARRAY_SIZE;
        zepDecEncode64(encoding, &m_number, &m_context);
        // Callers pass 8; a shorter array takes the first bytes of the reversal, a longer one
        // gets the eight bytes of the format.
        n = size < 8 ? size : 8;
    }
    // The engine's encoding is big-endian; the caller's array is the little-endian image.
    for (Uint32 i = 0; i < n; ++i) bytes[i] = encoding[n - 1 - i];
    return 0;
}

Uint32 ZEPDecfloat::fromDecPacked(const Uint8* bytes, Uint32 size) {
    Uint8 encoding[16] = {};
    Uint32 n;
    if (size == 16) {
        if (m_context.formatBytes != 16) return ECF_DECFLOAT_INVALID_ARRAY_SIZE;
        n = 16;
    } else {
        if (m_context.formatBytes != 8) return ECF_DECFLOAT_INVALID_ARRAY_SIZE;
        n = size < 8 ? size : 8;
    }
    for (Uint32 i = 0; i < n; ++i) encoding[n - 1 - i] = bytes[i];
    if (size == 16)
        zepDecDecode128(encoding, &m_number, &m_context);
    else
        zepDecDecode64(encoding, &m_number, &m_context);
    return 0;
}

Uint32 ZEPDecfloat::toDecfloat34(ZEPDecfloat34& target) const {
    char text[kTextSize + 1];
    Uint32 rc = toString(text, kTextSize);
    if (rc != 0) return rc;
    return target.fromString(text);
}

Uint32 ZEPDecfloat::fromDecfloat34(const ZEPDecfloat34& source, ZEPDecfloatRounding rounding) {
    Uint32 rc = setRoundingMode(rounding);
    if (rc != 0) return rc;
    char text[kTextSize + 1];
    rc = source.toString(text, kTextSize);
    if (rc != 0) return rc;
    return fromString(text);
}

Uint32 ZEPDecfloat::toDecfloat16(ZEPDecfloat16& target) const {
    char text[kTextSize + 1];
    Uint32 rc = toString(text, kTextSize);
    if (rc != 0) return rc;
    return target.fromString(text);
}

Uint32 ZEPDecfloat::fromDecfloat16(const ZEPDecfloat16& source) {
    char text[kTextSize + 1];
    Uint32 rc = source.toString(text, kTextSize);
    if (rc != 0) return rc;
    return fromString(text);
}
