// zeptime.cpp - the tick conversion factor, tick conversions and the time calls.
#include "zeptime.h"

#include <math.h>
#include <time.h>

#include "zeplatch.h"
#include "zepos.h"

namespace {

// The process-wide factor, measured once under its lock.
ZEPLock s_factorLock = 0;
Bool s_factorValid = 0;
ZEPTickConversionFactor s_factor;

// The fewest ticks of `read` across the calibration load in five good rounds; a round in which
// the counter stood still or went back doesn't count.
template <class Read>
Uint64 smallestAcrossLoad(Read read) {
    Uint64 smallest = ~0ull;
    for (int good = 0; good < 5;) {
        const Uint64 before = read();
        zepWasteTime(350);
        const Uint64 after = read();
        if (after < before || after == before) continue;
        if (after - before < smallest) smallest = after - before;
        ++good;
    }
    return smallest;
}

void measure(ZEPTickConversionFactor* f) {
    Sint64 frequency;
    if (!zepos::QueryPerformanceFrequency(&frequency)) {
        f->counterSample = f->registerSample = 1;
        f->frequency = 1;
        return;
    }
    f->frequency = frequency;
    f->counterSample = static_cast<Uint32>(smallestAcrossLoad([] {
        Sint64 c;
        zepos::QueryPerformanceCounter(&c);
        return static_cast<Uint64>(c);
    }));
    f->registerSample =
        static_cast<Uint32>(smallestAcrossLoad([] { return zepos::ReadTimeStampCounter(); }));
}

// floor(x) as an unsigned 32-bit number, wrapping like the integer it stands for.
Uint32 floorToUint32(double x) {
    double m = fmod(floor(x), 4294967296.0);
    if (m < 0) m += 4294967296.0;
    return static_cast<Uint32>(m);
}

void convert(Uint64 value, const ZEPTickConversionFactor& factor, Uint32& seconds,
             Uint32& nanoseconds) {
    const double x =
        static_cast<double>(static_cast<Sint64>(value)) / static_cast<double>(factor.frequency);
    if (!isfinite(x)) {
        // Only a factor nobody measured (frequency 0) gets here.
        seconds = nanoseconds = 0;
        return;
    }
    const double whole = floor(x);
    seconds = floorToUint32(whole);
    nanoseconds = floorToUint32((x - whole) * 1000000000.0);
}

Uint32 fromTimeValue(Uint64& value, const ZEPTickConversionFactor& factor, Uint32 nanoseconds) {
    value = 0;
    if (nanoseconds >= 1000000000u) return ECF_ZEPTICK_TIME_VALUE_TOO_BIG;
    if (nanoseconds < 1000u) return ECF_ZEPTICK_TIME_VALUE_TOO_SMALL;
    // The length of a reference of 999,999,999 ticks says how long a tick is.
    const Uint64 referenceTicks = 999999999u;
    Uint32 s, ns;
    convert(referenceTicks, factor, s, ns);
    const Uint64 length = static_cast<Uint64>(s) * 1000000000u + ns;
    // A reference of no length comes only from a frequency beyond 10^18 (or a negative one):
    // any time at all would be more ticks than there are.
    if (length == 0) return ECF_ZEPTICK_TIME_VALUE_TOO_BIG;
    value = static_cast<Uint64>(nanoseconds) * referenceTicks / length;
    return value == 0 ? ECF_ZEPTICK_TIME_VALUE_TOO_SMALL : 0u;
}

void copyTm(struct tm* out, const struct tm& t) {
    out->tm_sec = t.tm_sec;
    out->tm_min = t.tm_min;
    out->tm_hour = t.tm_hour;
    out->tm_mday = t.tm_mday;
    out->tm_mon = t.tm_mon;
    out->tm_year = t.tm_year;
    out->tm_wday = t.tm_wday;
    out->tm_yday = t.tm_yday;
    out->tm_isdst = t.tm_isdst;
}

}  // namespace

void ZEPTickConversionFactor::initialize() {
    zepLockGet(&s_factorLock);
    if (!s_factorValid) {
        measure(&s_factor);
        s_factorValid = 1;
    }
    zepLockRelease(&s_factorLock);
    *this = s_factor;
}

void ZEPTick::read() {
    Sint64 c;
    zepos::QueryPerformanceCounter(&c);  // 0 when it fails
    value = static_cast<Uint64>(c);
}

void ZEPTick::convertToTime(const ZEPTickConversionFactor& factor, Uint32& seconds,
                            Uint32& nanoseconds) const {
    convert(value, factor, seconds, nanoseconds);
}

Uint32 ZEPTick::initFromTimeValue(const ZEPTickConversionFactor& factor, Uint32 nanoseconds) {
    return fromTimeValue(value, factor, nanoseconds);
}

void ZEPTickDelta::convertToTime(const ZEPTickConversionFactor& factor, Uint32& seconds,
                                 Uint32& nanoseconds) const {
    convert(value, factor, seconds, nanoseconds);
}

Uint32 ZEPTickDelta::initFromTimeValue(const ZEPTickConversionFactor& factor, Uint32 nanoseconds) {
    return fromTimeValue(value, factor, nanoseconds);
}

Sint32 zepTimeGetUTC(ZEPTimeValue* time) {
    zepos::_timeb tb;
    zepos::_ftime(&tb);
    const Sint32 seconds = static_cast<Sint32>(tb.time);
    if (time != nullptr) {
        time->seconds = seconds;
        time->milliseconds = tb.millitm;
        time->microseconds = static_cast<Uint32>(tb.millitm) * 1000u;
    }
    return seconds;
}

struct tm* zepTimeGmTime(Sint32 seconds, struct tm* out) {
    const time_t t = seconds;
    struct tm r;
    if (gmtime_r(&t, &r) != nullptr) copyTm(out, r);
    return out;
}

struct tm* zepTimeLocalTime(Sint32 seconds, struct tm* out) {
    const time_t t = seconds;
    struct tm r;
    if (localtime_r(&t, &r) != nullptr) copyTm(out, r);
    return out;
}

// Outside the frame, like every time call: the trace and the log sleep through it.
Uint32 zepSleep(Uint32 milliseconds) {
    zepos::Sleep(milliseconds);
    return 0;
}
