// zephexdump.h - memory dumps as text.
//
// A line shows up to 16 bytes: optionally the address, then the bytes in hex (pairs of bytes
// grouped, "AABB CCDD ..."), or one word for a line of 1, 2, 4 or 8 bytes, then a character
// column. The address column keeps the width of a 32-bit address, "0x%08X : ", on this 64-bit
// build too, and shows the low 32 bits of the address, so dumps line up with those of the
// product's other builds.
#ifndef ZEPHEXDUMP_H
#define ZEPHEXDUMP_H

#include "zeptypes.h"

#define ZEP_HEXDUMP_WORD 0x1u     // a line of 1, 2, 4 or 8 bytes as one hexadecimal word
#define ZEP_HEXDUMP_ADDRESS 0x2u  // the address in front of each line
#define ZEP_HEXDUMP_NO_CHARS 0x4u // no character column

// Bytes a line buffer of zepHexDumpLine must have.
#define ZEP_HEXDUMP_LINE_SIZE 75u

ZEP_BEGIN_C

// Builds one line of at most 16 bytes into `line` (at least 75 bytes), ended by CR LF and a
// terminator. Returns the line's length, terminator included.
ZEP_EXPORT Uint32 zepHexDumpLine(char* line, const void* data, Uint32 length, Uint32 flags);

// Dumps `length` bytes into `buffer` as lines, each behind `prefix` (may be null). The buffer
// always holds a terminated string (unless it is null or of size 0), and only whole lines: a
// line that doesn't fit ends the dump.
ZEP_EXPORT void zepHexDumpToBuffer(const void* data, Uint32 length, char* buffer, Uint32 size,
                                   const char* prefix, Uint32 flags);

ZEP_END_C

#endif
