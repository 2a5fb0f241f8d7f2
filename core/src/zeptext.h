// zeptext.h - a bounded text appender for the diagnostic formats (private).
//
// The log record and its items have fixed formats of strings, decimal and hexadecimal numbers
// and padding. Appending them piece by piece gives exactly the bytes printf would give for
// those formats at a fraction of its cost, which matters because every record of the file
// target is formatted under the facility's lock. Every piece is bounded by the buffer: the text
// is cut at size - 1 bytes and always terminated.
#ifndef ZEPTEXT_H
#define ZEPTEXT_H

#include <string.h>

#include "zepdigits.h"
#include "zeptypes.h"

class ZepText {
public:
    ZepText(char* buf, Uint32 size) : buf_(buf), size_(size) { buf_[0] = 0; }
    char* data() { return buf_; }
    Uint32 length() const { return used_; }
    Uint32 space() const { return size_ - used_; }
    char* cursor() { return buf_ + used_; }
    void advance(Uint32 n) { used_ += n; }

    // Up to `max` characters of s (printf's "%.<max>s"). A literal's length is known where the
    // call is compiled, and its bytes are copied without a search for the end.
    __attribute__((always_inline)) ZepText& str(const char* s, Uint32 max = 0xFFFFFFFFu) {
        if (__builtin_constant_p(__builtin_strlen(s)) && __builtin_constant_p(max) &&
            __builtin_strlen(s) <= max)
            return put(s, __builtin_strlen(s));
        const Uint32 room = space() - 1;
        return put(s, strnlen(s, max < room ? max : room));
    }
    // n bytes of s, cut at the room left. A known n is copied in place in the common case.
    __attribute__((always_inline)) ZepText& put(const char* s, size_t n) {
        const Uint32 room = space() - 1;
        char* const out = buf_ + used_;
        if (__builtin_expect(n <= room, 1)) {
            memcpy(out, s, n);
        } else {
            memcpy(out, s, room);
            n = room;
        }
        used_ += static_cast<Uint32>(n);
        buf_[used_] = 0;
        return *this;
    }
    ZepText& chars(char c, Uint32 n) {
        const Uint32 room = space() - 1;
        if (n > room) n = room;
        char* const out = buf_ + used_;
        if (n == 1)
            out[0] = c;
        else
            memset(out, c, n);
        used_ += n;
        buf_[used_] = 0;
        return *this;
    }
    // Decimal, at least `digits` wide with leading zeros ("%0<digits>u", "%.<digits>u").
    ZepText& dec(Uint64 v, Uint32 digits = 1) {
        // The digits end in the middle of tmp, behind a run of zeros for the width, so that the
        // common case copies a fixed 24 bytes and keeps what it needs.
        char tmp[2 * kDigitRoom];
        memset(tmp, '0', sizeof tmp);
        char* const end = tmp + kDigitRoom;
        char* p = zepPutDigits(end, v);
        if (digits > kDigitRoom - 4) digits = kDigitRoom - 4;
        if (p > end - digits) p = end - digits;
        return digitsOut(p, static_cast<Uint32>(end - p));
    }
    ZepText& sdec(Sint64 v) {
        if (v < 0) chars('-', 1);
        return dec(v < 0 ? 0 - static_cast<Uint64>(v) : static_cast<Uint64>(v));
    }
    // Upper-case hexadecimal without leading zeros ("%X").
    ZepText& hex(Uint64 v) {
        static const char kDigits[] = "0123456789ABCDEF";
        char tmp[2 * kDigitRoom];
        memset(tmp, '0', sizeof tmp);
        char* const end = tmp + kDigitRoom;
        char* p = end;
        do {
            *--p = kDigits[v & 0xF];
            v >>= 4;
        } while (v);
        return digitsOut(p, static_cast<Uint32>(end - p));
    }
    // Blanks up to `width` characters since `from` ("%-<width>..."): nothing if already there.
    ZepText& padTo(Uint32 from, Uint32 width) {
        Uint32 had = used_ - from;
        return had < width ? chars(' ', width - had) : *this;
    }

private:
    static constexpr Uint32 kDigitRoom = 24;  // a 64-bit number has at most 20 digits

    // n (at most kDigitRoom) bytes at p, inside a buffer of 2 * kDigitRoom that p's digits end in
    // the middle of. With room for all of them, kDigitRoom bytes go at once; the text's end
    // stays behind the n that count.
    ZepText& digitsOut(const char* p, Uint32 n) {
        const Uint32 room = space() - 1;
        char* const out = buf_ + used_;
        if (__builtin_expect(room >= kDigitRoom, 1)) {
            memcpy(out, p, kDigitRoom);
        } else {
            if (n > room) n = room;
            for (Uint32 i = 0; i < n; ++i) out[i] = p[i];
        }
        used_ += n;
        buf_[used_] = 0;
        return *this;
    }

    char* buf_;
    Uint32 size_;
    Uint32 used_ = 0;
};

#endif
