// zeplogitems.h - the rendering of a log record's data items (private to the log).
#ifndef ZEPLOGITEMS_H
#define ZEPLOGITEMS_H

#include "zeptypes.h"

// Visible from libzep.so for the library's own tests only; no installed header declares these.
#pragma GCC visibility push(default)

// Largest part of an item that a record shows.
constexpr Uint32 kZepLogItemClamp = 512;

// Renders an item of a known type (ZEP_LOGDATA_*) into buf, which has `space` bytes (terminator
// included, at least 1). `length` is already clamped. Returns the bytes written, or 0 when the
// type can't render this item and the caller falls back on zepLogRenderDump.
Uint32 zepLogRenderTyped(char* buf, Uint32 space, const void* data, Uint32 length, Sint32 type);

// Renders an item as a hexadecimal dump: `length` is the clamped length, `trueLength` the
// caller's. Only whole lines are shown. Returns the bytes written.
Uint32 zepLogRenderDump(char* buf, Uint32 space, const void* data, Uint32 length,
                        Uint32 trueLength);

// Minutes east of UTC from the seconds since midnight of one moment in local time and in UTC;
// a difference of 12 hours or more means the two fall on different days.
Sint32 zepLogZoneMinutes(Sint32 localSeconds, Sint32 utcSeconds);

#pragma GCC visibility pop

#endif
