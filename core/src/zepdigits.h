// zepdigits.h - decimal digits two at a time, for the library's number writers (private).
#ifndef ZEPDIGITS_H
#define ZEPDIGITS_H

#include <string.h>

#include "zeptypes.h"

// "00" to "99", two characters a number.
inline constexpr char kZepDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// The decimal digits of v without leading zeros, written backwards so that they end at `end`;
// returns the first.
inline char* zepPutDigits(char* end, Uint64 v) {
    while (v >= 100) {
        const Uint64 q = v / 100;
        end -= 2;
        memcpy(end, kZepDigitPairs + 2 * (v - q * 100), 2);
        v = q;
    }
    if (v >= 10) {
        end -= 2;
        memcpy(end, kZepDigitPairs + 2 * v, 2);
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

#endif
