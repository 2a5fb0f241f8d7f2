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

#include "zeptypes.h"

class ZepText {
public:
    ZepText(char* buf, Uint32 size) : buf_(buf), size_(size) { buf_[0] = 0; }
    char* data() { return buf_; }
    Uint32 length() const { return used_; }
    Uint32 space() const { return size_ - used_; }
    char* cursor() { return buf_ + used_; }
    void advance(Uint32 n) { used_ += n; }

    // Up to `max` characters of s (printf's "%.<max>s").
    ZepText& str(const char* s, Uint32 max = 0xFFFFFFFFu) {
        const Uint32 room = space() - 1;
        const size_t n = strnlen(s, max < room ? max : room);
        memcpy(buf_ + used_, s, n);
        used_ += static_cast<Uint32>(n);
        buf_[used_] = 0;
        return *this;
    }
    ZepText& chars(char c, Uint32 n) {
        while (n-- && used_ + 1 < size_) buf_[used_++] = c;
        buf_[used_] = 0;
        return *this;
    }
    // Decimal, at least `digits` wide with leading zeros ("%0<digits>u", "%.<digits>u").
    ZepText& dec(Uint64 v, Uint32 digits = 1) {
        char tmp[24];
        Uint32 n = 0;
        do {
            tmp[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v);
        while (n < digits) tmp[n++] = '0';
        while (n && used_ + 1 < size_) buf_[used_++] = tmp[--n];
        buf_[used_] = 0;
        return *this;
    }
    ZepText& sdec(Sint64 v) {
        if (v < 0) chars('-', 1);
        return dec(v < 0 ? 0 - static_cast<Uint64>(v) : static_cast<Uint64>(v));
    }
    // Upper-case hexadecimal without leading zeros ("%X").
    ZepText& hex(Uint64 v) {
        static const char kDigits[] = "0123456789ABCDEF";
        char tmp[16];
        Uint32 n = 0;
        do {
            tmp[n++] = kDigits[v & 0xF];
            v >>= 4;
        } while (v);
        while (n && used_ + 1 < size_) buf_[used_++] = tmp[--n];
        buf_[used_] = 0;
        return *this;
    }
    // Blanks up to `width` characters since `from` ("%-<width>..."): nothing if already there.
    ZepText& padTo(Uint32 from, Uint32 width) {
        Uint32 had = used_ - from;
        return had < width ? chars(' ', width - had) : *this;
    }

private:
    char* buf_;
    Uint32 size_;
    Uint32 used_ = 0;
};

#endif
