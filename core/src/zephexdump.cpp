// zephexdump.cpp - the exported hex dump, and the rendering of log items.
#include "zephexdump.h"

#include <string.h>

#include "zeplog.h"
#include "zeplogitems.h"
#include "zepnumconv.h"
#include "zeptext.h"

namespace {

constexpr char kHex[] = "0123456789ABCDEF";

inline void putHexByte(char* p, Uint8 b) {
    p[0] = kHex[b >> 4];
    p[1] = kHex[b & 0xF];
}

inline char printable(Uint8 b) { return b >= 32 && b <= 126 ? static_cast<char>(b) : '.'; }

template <class T>
T load(const void* p) {
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

// ---------------------------------------------------------------- exported dump

Uint32 zepHexDumpLine(char* line, const void* data, Uint32 length, Uint32 flags) {
    const Uint8* bytes = static_cast<const Uint8*>(data);
    memset(line, ' ', 74);
    line[74] = 0;
    Uint32 col = 0;
    if (flags & ZEP_HEXDUMP_ADDRESS) {
        // Low 32 bits: the column has the width of a 32-bit address on every build.
        zepSnprintf(line, 14, "0x%08X : ",
                    static_cast<Uint32>(reinterpret_cast<uintptr_t>(data)));
        col = 13;
        line[col] = ' ';
    }
    if ((flags & ZEP_HEXDUMP_WORD) && (length == 8 || length == 4 || length == 2 || length == 1)) {
        Uint32 n = 0;
        switch (length) {
            case 8:
                n = static_cast<Uint32>(zepSnprintf(line + col, 19, "0x%016llX",
                                                    (unsigned long long)load<Uint64>(bytes)));
                break;
            case 4: n = static_cast<Uint32>(zepSnprintf(line + col, 11, "0x%08X", load<Uint32>(bytes))); break;
            case 2: n = static_cast<Uint32>(zepSnprintf(line + col, 7, "0x%04hX", load<Uint16>(bytes))); break;
            default: n = static_cast<Uint32>(zepSnprintf(line + col, 5, "0x%02X", bytes[0])); break;
        }
        line[col + n] = ' ';
    } else {
        Uint32 c = col;
        for (Uint32 i = 0; i < length && i < 16; ++i) {
            putHexByte(line + c, bytes[i]);
            c += 2;
            if (i & 1) ++c;  // pairs of bytes form one group
        }
    }
    col = (flags & ZEP_HEXDUMP_ADDRESS) ? 56 : 43;
    if (!(flags & ZEP_HEXDUMP_NO_CHARS))
        for (Uint32 i = 0; i < length && i < 16; ++i) line[col++] = printable(bytes[i]);
    if (col + 3 > ZEP_HEXDUMP_LINE_SIZE) {
        line[ZEP_HEXDUMP_LINE_SIZE - 1] = 0;
        return ZEP_HEXDUMP_LINE_SIZE;
    }
    line[col] = '\r';
    line[col + 1] = '\n';
    line[col + 2] = 0;
    return col + 3;
}

void zepHexDumpToBuffer(const void* data, Uint32 length, char* buffer, Uint32 size,
                        const char* prefix, Uint32 flags) {
    if (buffer == nullptr || size == 0) return;
    buffer[0] = 0;
    if (length == 0) return;
    const Uint32 prefixLength = prefix ? static_cast<Uint32>(strlen(prefix)) : 0;
    const Uint8* bytes = static_cast<const Uint8*>(data);
    Uint32 used = 0;
    for (Uint32 offset = 0; offset < length; offset += 16) {
        char line[ZEP_HEXDUMP_LINE_SIZE];
        Uint32 n = length - offset < 16 ? length - offset : 16;
        Uint32 lineLength = zepHexDumpLine(line, bytes + offset, n, flags);
        if (size - used <= prefixLength + lineLength + 2) break;
        if (prefixLength) memcpy(buffer + used, prefix, prefixLength);
        used += prefixLength;
        memcpy(buffer + used, line, lineLength);  // the terminator comes along
        used += lineLength - 1;
    }
}

// ---------------------------------------------------------------- log items

namespace {

// "<Name>, <L> bytes\r\n" opens every typed rendering.
ZepText& head(ZepText& t, const char* name, Uint32 length) {
    return t.str(name).str(", ").dec(length).str(" bytes\r\n");
}

}  // namespace

Uint32 zepLogRenderTyped(char* buf, Uint32 space, const void* data, Uint32 length, Sint32 type) {
    ZepText t(buf, space);
    const bool word = length == 1 || length == 2 || length == 4 || length == 8;
    Uint64 u = 0;  // the value of a word, unsigned
    Sint64 v = 0;  // and sign-extended
    switch (length) {
        case 1: u = load<Uint8>(data), v = load<Sint8>(data); break;
        case 2: u = load<Uint16>(data), v = load<Sint16>(data); break;
        case 4: u = load<Uint32>(data), v = load<Sint32>(data); break;
        case 8: u = load<Uint64>(data), v = load<Sint64>(data); break;
    }
    switch (type) {
        case ZEP_LOGDATA_HEX:
            if (!word) return 0;
            head(t, "Hex", length).str("0x").hex(u).str("\r\n");
            break;
        case ZEP_LOGDATA_SINT:
            if (!word) return 0;
            head(t, length == 1 ? "Sint8" : length == 2 ? "Sint16" : length == 4 ? "Sint32" : "Sint64",
                 length)
                .sdec(v)
                .str("\r\n");
            break;
        case ZEP_LOGDATA_UINT:
            if (!word) return 0;
            head(t, length == 1 ? "Uint8" : length == 2 ? "Uint16" : length == 4 ? "Uint32" : "Uint64",
                 length)
                .dec(u)
                .str("\r\n");
            break;
        case ZEP_LOGDATA_BOOL:
            if (!word) return 0;
            head(t, "Bool", length).str(u ? "true" : "false").str("\r\n");
            break;
        case ZEP_LOGDATA_CHAR:
            // The first byte, if the item has one: nothing behind its length is the caller's.
            head(t, "Char", length);
            if (length != 0) t.chars(*static_cast<const char*>(data), 1);
            t.str("\r\n");
            break;
        case ZEP_LOGDATA_STRING: {
            head(t, "String", length);
            // The text runs to its terminator, not to the item's length; the limit is the clamp
            // or the space left, terminator included. The line end follows only if it fits.
            t.str(static_cast<const char*>(data), (t.space() < kZepLogItemClamp ? t.space()
                                                                                 : kZepLogItemClamp) -
                                                      1);
            if (t.space() >= 3) t.str("\r\n");
            break;
        }
        default: return 0;
    }
    return t.length();
}

Uint32 zepLogRenderDump(char* buf, Uint32 space, const void* data, Uint32 length,
                        Uint32 trueLength) {
    constexpr Uint32 kLine = 61;  // the longest line, terminator included
    Uint32 shown = length;
    if (kLine * ((length + 15) / 16) + 1 > space) {
        shown = ((space - 1) / kLine) * 16;
        if (shown > length) shown = length;
    }
    ZepText t(buf, space);
    t.str("<hexdump>, ").dec(length).str(" bytes");
    if (trueLength != shown) t.str("of ").dec(trueLength);
    t.str("\r\n");
    Uint32 used = t.length();

    const Uint8* bytes = static_cast<const Uint8*>(data);
    for (Uint32 offset = 0; offset < shown; offset += 16) {
        char line[kLine];
        Uint32 c = 0;
        for (Uint32 i = 0; i < 16; ++i) {
            if (offset + i < shown) {
                putHexByte(line + c, bytes[offset + i]);
            } else {
                line[c] = line[c + 1] = ' ';
            }
            c += 2;
            if ((i & 3) == 3) line[c++] = ' ', line[c++] = ' ';
        }
        line[c++] = ' ';
        line[c++] = ' ';
        for (Uint32 i = 0; i < 16 && offset + i < shown; ++i) line[c++] = printable(bytes[offset + i]);
        line[c++] = '\r';
        line[c++] = '\n';
        if (used + c + 1 > space) break;
        memcpy(buf + used, line, c);
        used += c;
        buf[used] = 0;
    }
    return used;
}
