// zeptime.h - ticks and their conversion to time, the current UTC time, broken-down time, and
// sleeping.
//
// A tick is one count of the performance counter; ZEPTick is a moment, ZEPTickDelta a distance,
// both read as signed 64-bit numbers by the conversions. ZEPTickConversionFactor carries the
// counter's frequency; it is measured once per process and travels in trace dumps, so a dump's
// ticks convert on another machine. Conversions take no lock and allocate nothing: copy the
// factor once, then convert at will. Nothing here traces or logs.
#ifndef ZEPTIME_H
#define ZEPTIME_H

#include <stddef.h>

#include "zeptypes.h"
#include "zepecf.h"

struct tm;

// 16 bytes, little-endian, in trace dumps.
struct ZEPTickConversionFactor {
    // Low words of the fewest performance-counter ticks and of the fewest time-stamp-counter
    // ticks measured across the same calibration load; their ratio relates the two counters.
    Uint32 counterSample;
    Uint32 registerSample;
    // Performance-counter ticks per second. All three are 1 on a machine without the counter.
    Sint64 frequency;

    // Copies the process-wide factor into this object, measuring it first if this is the
    // process's first call. Safe from any thread: the others wait for the measurement.
    ZEP_EXPORT void initialize();
};

static_assert(sizeof(ZEPTickConversionFactor) == 16, "the factor is a 16-byte format");
static_assert(offsetof(ZEPTickConversionFactor, counterSample) == 0 &&
                  offsetof(ZEPTickConversionFactor, registerSample) == 4 &&
                  offsetof(ZEPTickConversionFactor, frequency) == 8,
              "the factor's fields");

class ZEPTickDelta;

class ZEPTick {
public:
    Uint64 value = 0;

    ZEPTick() = default;
    explicit ZEPTick(Uint64 ticks) : value(ticks) {}

    // The counter now; 0 if it can't be read.
    ZEP_EXPORT void read();

    // Whole seconds and the nanoseconds within the last of them.
    ZEP_EXPORT void convertToTime(const ZEPTickConversionFactor& factor, Uint32& seconds,
                                  Uint32& nanoseconds) const;
    // Ticks in a time under a second: ECF_ZEPTICK_TIME_VALUE_TOO_BIG from 10^9 ns,
    // ECF_ZEPTICK_TIME_VALUE_TOO_SMALL below 1000 ns or when the time is less than one tick;
    // the value is 0 after any failure.
    ZEP_EXPORT Uint32 initFromTimeValue(const ZEPTickConversionFactor& factor, Uint32 nanoseconds);
};

class ZEPTickDelta {
public:
    Uint64 value = 0;

    ZEPTickDelta() = default;
    explicit ZEPTickDelta(Uint64 ticks) : value(ticks) {}
    // The distance from `from` to `to`, negative if `to` is earlier.
    ZEPTickDelta(const ZEPTick& from, const ZEPTick& to) : value(to.value - from.value) {}

    ZEP_EXPORT void convertToTime(const ZEPTickConversionFactor& factor, Uint32& seconds,
                                  Uint32& nanoseconds) const;
    ZEP_EXPORT Uint32 initFromTimeValue(const ZEPTickConversionFactor& factor, Uint32 nanoseconds);
};

static_assert(sizeof(ZEPTick) == 8 && sizeof(ZEPTickDelta) == 8, "a tick is one 64-bit count");

struct ZEPTimeValue {
    Sint32 seconds;       // since 1970-01-01 00:00 UTC
    Uint16 milliseconds;  // within the second
    Uint32 microseconds;  // milliseconds times 1000
};

static_assert(sizeof(ZEPTimeValue) == 12 && offsetof(ZEPTimeValue, milliseconds) == 4 &&
                  offsetof(ZEPTimeValue, microseconds) == 8,
              "ZEPTimeValue's fields");

ZEP_BEGIN_C

// The current UTC time into `time` if it isn't null; the seconds in any case.
ZEP_EXPORT Sint32 zepTimeGetUTC(ZEPTimeValue* time);

// The nine fields of `out` (the C library's struct tm; any further fields are left as they were)
// from gmtime and localtime of `seconds`; returns `out`. Thread-safe: the C library's shared
// buffer isn't used.
ZEP_EXPORT struct tm* zepTimeGmTime(Sint32 seconds, struct tm* out);
ZEP_EXPORT struct tm* zepTimeLocalTime(Sint32 seconds, struct tm* out);

// Sleeps `milliseconds` (0 gives up the time slice); returns 0.
ZEP_EXPORT Uint32 zepSleep(Uint32 milliseconds);

ZEP_END_C

#endif
