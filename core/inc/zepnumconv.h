// zepnumconv.h - number theory on 32-bit values, text to 64-bit integers and to truth values,
// and the bounded formatter every buffer of the library goes through.
//
// No state, no frame, no log: all are reentrant. The readers touch errno only on overflow (34),
// so a caller that means to test it clears it first.
#ifndef ZEPNUMCONV_H
#define ZEPNUMCONV_H

#include "zeptypes.h"
#include "zepecf.h"

ZEP_BEGIN_C

// y with x * y == -1 modulo 2^32, for the odd part of x (an even x is shifted right until it is
// odd). 0 has no odd part and gives 0.
ZEP_EXPORT Uint32 zepComputeMontgomeryInverse32(Uint32 x);

// Euclid's; gcd(a, 0) is a, gcd(0, 0) is 0.
ZEP_EXPORT Uint32 zepComputeGCD(Uint32 a, Uint32 b);

// a * b / gcd(a, b), the product wrapping at 32 bits; 0 when both are 0.
ZEP_EXPORT Uint32 zepComputeLCM(Uint32 a, Uint32 b);

// The standard text-to-integer rules at 64 bits: leading blanks, one sign, base 0 (from the
// prefix), 2 to 36, "0x" skipped in base 16 only when a hex digit follows. On overflow errno is 34
// and the value saturates: all ones unsigned; INT64_MAX or INT64_MIN by the sign. The unsigned
// reader accepts a sign and negates modulo 2^64. `end`, if not null, receives the first character
// not read, or `text` itself when nothing could be converted.
ZEP_EXPORT Sint64 zepStrToSint64(String text, Char** end, Sint32 base);
ZEP_EXPORT Uint64 zepStrToUint64(String text, Char** end, Sint32 base);

// "1", "ON", "Y", "YES", "T", "TRUE" are true, "0", "OFF", "N", "NO", "F", "FALSE" false, in any
// case, and only as the whole text. Anything else stores false and returns
// ECF_ZEP_NOT_BOOLEAN_STRING.
ZEP_EXPORT Uint32 zepStrToBoolean(String text, Bool* value);

// vsnprintf that always leaves a NUL-ended buffer and returns the count of characters in it:
// a text that doesn't fit is cut to size - 1 characters. A size of 0 writes nothing and
// returns 0. The conversions are this platform's printf ones (%lld, %llu for 64 bits).
ZEP_EXPORT Sint32 zepSnprintf(Char* buffer, Uint32 size, String format, ...)
    __attribute__((format(printf, 3, 4)));

ZEP_END_C

#endif
