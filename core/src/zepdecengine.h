// zepdecengine.h - the decimal engine under ZEPDecfloat (private to the library).
//
// Reads decimal text into a ZEPDecValue, rounding it to a context's precision and exponent
// range, writes the scientific text back, and packs and unpacks the IEEE 754-2008 decimal64
// and decimal128 interchange formats with densely packed decimal coefficients. The conditions,
// the rounding and the text forms are those of the general decimal arithmetic's to-number and
// to-scientific-string conversions. The functions keep no state: everything they need is in
// their arguments, and a context must come from zepDecContextInit.
//
// The symbols are visible from libzep.so so that the library's own tests reach them; no
// installed header declares them, and they are no interface for callers.
#ifndef ZEPDECENGINE_H
#define ZEPDECENGINE_H

#include "zepdecfloat.h"

// Status flags. Those marked NaN turn the result into a quiet NaN.
#define ZEP_DEC_CONVERSION_SYNTAX 0x00000001u     // NaN
#define ZEP_DEC_INSUFFICIENT_STORAGE 0x00000010u  // NaN
#define ZEP_DEC_INEXACT 0x00000020u
#define ZEP_DEC_INVALID_CONTEXT 0x00000040u  // NaN; an unknown rounding mode had to round
#define ZEP_DEC_OVERFLOW 0x00000200u
#define ZEP_DEC_CLAMPED 0x00000400u
#define ZEP_DEC_ROUNDED 0x00000800u
#define ZEP_DEC_SUBNORMAL 0x00001000u
#define ZEP_DEC_UNDERFLOW 0x00002000u
#define ZEP_DEC_NAN_FLAGS \
    (ZEP_DEC_CONVERSION_SYNTAX | ZEP_DEC_INSUFFICIENT_STORAGE | ZEP_DEC_INVALID_CONTEXT)

// Exponents of more than ten digits, or of ten beginning above 1, are read as this one.
#define ZEP_DEC_HUGE_EXPONENT 1999999998

// Longest text zepDecValueToText writes for 34 digits, with its NUL.
#define ZEP_DEC_TEXT_MAX 43

ZEP_BEGIN_C

// bits 64: 16 digits, emax 384, emin -383, 8 bytes, bias 398; bits 128: 34 digits, emax 6144,
// emin -6143, 16 bytes, bias 6176; both with rounding half-even and clamp 1. The status is
// cleared first in any case. Returns 0, or 1 for any other bits, which changes nothing else.
ZEP_EXPORT Uint32 zepDecContextInit(ZEPDecContext* context, Uint32 bits);

// One digit 0, exponent 0, no sign.
ZEP_EXPORT void zepDecValueZero(ZEPDecValue* value);

// Reads `text` rounded to the context; flags go into context->status and a failure leaves a
// quiet NaN. Special-text is set when the whole text is "Infinity", "Inf", "NaN" or "sNaN"
// (any case, optional sign).
ZEP_EXPORT void zepDecValueFromText(ZEPDecValue* value, String text, ZEPDecContext* context);

// Writes the scientific text with its NUL; returns its length. The buffer must have
// ZEP_DEC_TEXT_MAX bytes (a longer text needs as many as it has): the text is written in whole
// words, which may leave characters past its NUL.
ZEP_EXPORT Sint32 zepDecValueToText(const ZEPDecValue* value, Char* buffer);

// Interchange bytes are big-endian: byte 0 holds the sign and the combination field.
// Encoding may raise the clamped flag; decoding raises nothing and tests nothing.
ZEP_EXPORT void zepDecEncode64(Uint8* bytes, const ZEPDecValue* value, ZEPDecContext* context);
ZEP_EXPORT void zepDecEncode128(Uint8* bytes, const ZEPDecValue* value, ZEPDecContext* context);
ZEP_EXPORT void zepDecDecode64(const Uint8* bytes, ZEPDecValue* value, ZEPDecContext* context);
ZEP_EXPORT void zepDecDecode128(const Uint8* bytes, ZEPDecValue* value, ZEPDecContext* context);

ZEP_END_C

#endif
