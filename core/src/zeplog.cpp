// zeplog.cpp - log facilities, the record format and the three targets.
#include "zeplog.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include "zepecf.h"
#include "zeperror.h"
#include "zephfile.h"
#include "zeplib.h"
#include "zeplogitems.h"
#include "zeptext.h"
#include "zepnumconv.h"
#include "zepos.h"
#include "zeptime.h"

ZEPLogFacilityParam::ZEPLogFacilityParam()
    : version(ZEP_VERSION_WORD), path{}, name{}, level(0), target(0), permissions(0) {}

Sint32 zepLogZoneMinutes(Sint32 l, Sint32 g) {
    Sint32 d = l - g;
    // Twelve hours or more apart: the two times fall on different days.
    if (d >= 43200 || d <= -43200) {
        if (g < l) {
            d -= 86400;
            if (d == -43200) d = 43200;
        } else {
            d += 86400;
        }
    }
    return d / 60;
}

namespace {

ZEPLogFacility s_defaultFacility;

// Set while this process writes a record. The file target writes through ZEPHFile, whose
// operations log their own failures: those records, and any other thread's record meanwhile, are
// dropped rather than queued or waited for. A plain byte, not a lock: two threads that pass the
// test together are serialised by the facility's lock.
volatile Bool s_writing = 0;

constexpr Uint32 kRecordSize = 4096;
constexpr Uint32 kLocationOffset = 33;
constexpr Uint32 kLocationWidth = 17;  // offsets 33 to 49; 50 stays a blank

enum class Kind { Plain, Nested, System };

struct Record {
    Kind kind;
    Uint32 fid, calledId, calledValue, code, probe, level;
};

const char* levelWord(Uint32 level) {
    switch (level) {
        case ZEP_LOG_SEVERE: return "Severe";
        case ZEP_LOG_ERROR: return "Error";
        case ZEP_LOG_WARNING: return "Warning";
        case ZEP_LOG_INFO: return "Info";
        case ZEP_LOG_EVENT: return "Event";
        default: return "Unknown";
    }
}

// Event records pass every facility; a facility at level 5 passes nothing else; level 0 records
// never pass.
bool passes(Uint32 facilityLevel, Uint32 recordLevel) {
    if (facilityLevel == ZEP_LOG_EVENT) return recordLevel == ZEP_LOG_EVENT;
    return recordLevel == ZEP_LOG_EVENT || (recordLevel != 0 && recordLevel <= facilityLevel);
}

const char* orEmpty(const char* s) { return s ? s : ""; }

// Minutes between local time and UTC now, from two broken-down times of one second; no time
// zone call is needed. A zone changes its offset only at a second's boundary, so the answer is
// kept for the second it was worked out in: records of the same second skip both conversions.
Sint32 zoneMinutes() {
    static Uint64 s_cache = ~0ull;  // second in the high word, minutes in the low one
    const Sint32 now = zepTimeGetUTC(nullptr);
    const Uint64 cached = __atomic_load_n(&s_cache, __ATOMIC_RELAXED);
    if (cached != ~0ull && static_cast<Sint32>(cached >> 32) == now)
        return static_cast<Sint32>(static_cast<Uint32>(cached));
    struct tm local, utc;
    zepTimeLocalTime(now, &local);
    zepTimeGmTime(now, &utc);
    const Sint32 minutes =
        zepLogZoneMinutes(local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec,
                          utc.tm_hour * 3600 + utc.tm_min * 60 + utc.tm_sec);
    __atomic_store_n(&s_cache,
                     (static_cast<Uint64>(static_cast<Uint32>(now)) << 32) |
                         static_cast<Uint32>(minutes),
                     __ATOMIC_RELAXED);
    return minutes;
}

// The record under construction, in a 4,096-byte buffer on the stack.
class Writer : public ZepText {
public:
    Writer() : ZepText(buf_, kRecordSize) {}

private:
    char buf_[kRecordSize];
};

// "DATA #%-2u: " or "ARG  #%-2u: ", then the item.
void formatItem(Writer& w, const char* label, Uint32 number, const void* data, Uint32 length,
                Sint32 type) {
    const Uint32 at = w.str(label).length();
    w.dec(number).padTo(at, 2).str(": ");
    if (data == nullptr) {
        w.str("\r\nNULL\r\n");
        return;
    }
    if (w.space() <= 1) return;
    Uint32 shown = length < kZepLogItemClamp ? length : kZepLogItemClamp;
    Uint32 n = 0;
    if (type < 0) n = zepLogRenderTyped(w.cursor(), w.space(), data, shown, type);
    if (n == 0) n = zepLogRenderDump(w.cursor(), w.space(), data, shown, length);
    w.advance(n);
}

void formatRecord(Writer& w, const Record& r, Sint32 countOrMask, va_list ap) {
    // Local time "%04d-%02d-%02d-%02d.%02d.%02d.%06d", the milliseconds shown as microseconds
    // (the last three digits are 0), then the zone "%+.3d" in a field of 23.
    zepos::SYSTEMTIME st;
    zepos::GetLocalTime(&st);
    w.str("\r\n").dec(st.wYear, 4).str("-").dec(st.wMonth, 2).str("-").dec(st.wDay, 2);
    w.str("-").dec(st.wHour, 2).str(".").dec(st.wMinute, 2).str(".").dec(st.wSecond, 2);
    w.str(".").dec(st.wMilliseconds * 1000u, 6);
    const Uint32 zoneAt = w.length();
    const Sint32 zone = zoneMinutes();
    w.chars(zone < 0 ? '-' : '+', 1).dec(static_cast<Uint32>(zone < 0 ? -zone : zone), 3);
    w.padTo(zoneAt, 23).str(" LEVEL: ").str(levelWord(r.level));
    if (r.kind == Kind::System) w.str(" (OS)");
    const Uint32 pidAt = w.str("\r\nPID     : ").length();
    w.dec(zepProcessID()).padTo(pidAt, 21).str("TID : ").dec(zepThreadID());
    w.str("\r\nFUNCTION: ").str(orEmpty(ecfGetProductName(r.fid)), 40);
    w.str(", ").str(orEmpty(ecfGetComponentName(r.fid)), 40);
    w.str(", ").str(orEmpty(ecfGetFunctionName(r.fid)), 40);
    w.str(", probe:").dec(r.probe).str("\r\n");

    if (r.code != 0) {
        w.str("MESSAGE : ECF=0x").hex(r.code).str(" ");
        w.str(orEmpty(ecfErrorGetDescription(r.code)), 128).str("\r\n");
    }

    if (r.kind != Kind::Plain && r.calledId != 0) {
        // Operating-system functions are shown as "OS", "-" rather than by their catalogue rows.
        const bool os = ZEP_FUNC_PRODUCT(r.calledId) == 1 &&
                        ZEP_FUNC_COMPONENT(r.calledId) == COMP_SYSFUNCS;
        const Uint32 lineAt = w.length();
        w.str("CALLED  : ").str(os ? "OS" : orEmpty(ecfGetProductName(r.calledId)), 40);
        w.str(", ").str(os ? "-" : orEmpty(ecfGetComponentName(r.calledId)), 40);
        w.str(", ").str(orEmpty(ecfGetFunctionName(r.calledId)), 40);
        if (r.kind == Kind::Nested) {
            w.str("\r\nRETCODE : ECF=0x").hex(r.calledValue).str(" ");
            w.str(orEmpty(ecfErrorGetDescription(r.calledValue)), 128).str("\r\n");
        } else {
            // The platform error's tag stands at column 50, or one blank behind a longer line.
            w.padTo(lineAt, 49).str(" OSERR: ");
            const char* name = zepErrorNameMapSystem(r.calledId, r.calledValue);
            if (name) w.str(name).str(" (");
            w.sdec(static_cast<Sint32>(r.calledValue));
            if (name) w.str(")");
            w.str("\r\n");
        }
    }

    // Items: pointer, length, type.
    auto item = [&](const char* label, Uint32 number) {
        const void* p = va_arg(ap, const void*);
        Uint32 len = va_arg(ap, Uint32);
        Sint32 type = va_arg(ap, Sint32);
        formatItem(w, label, number, p, len, type);
    };
    if (r.kind == Kind::Plain) {
        for (Sint32 i = 0; i < countOrMask; ++i) item("DATA #", static_cast<Uint32>(i + 1));
    } else {
        // Bits 0 to 30 name the arguments, lowest first.
        for (Uint32 mask = static_cast<Uint32>(countOrMask) & 0x7FFFFFFFu; mask != 0;
             mask &= mask - 1)
            item("ARG  #", static_cast<Uint32>(__builtin_ctz(mask)) + 1);
    }
}

// The file target: open, lock, size, fill in the location field, append, unlock, close. The
// lock is held from before the size is read until after the write, so every record's field is
// exact however many processes append.
bool writeToFile(const ZEPLogFacility* f, Writer& w) {
    ZEPHFile file;
    ZEPFileOpenParam open;
    open.path = f->path;
    open.creation = ZEP_FILE_OPEN_OR_CREATE;
    open.access = ZEP_FILE_ACCESS_WRITE;
    open.options = ZEP_FILE_OPTION_PERMISSIONS;
    open.permissions = f->permissions;
    if (file.open(&open) != 0) return false;
    ZEPFileLockParam lock(ZEP_FILE_LOCK_EXCLUSIVE, ZEP_FILE_LOCK_WAIT);
    if (file.lock(&lock) != 0) {
        file.close();
        return false;
    }
    bool ok = false;
    ZEPFileSeekParam seek;
    seek.offset = 0;
    seek.origin = ZEP_FILE_SEEK_END;
    Uint64 size = 0;
    if (file.seek(&seek, &size) == 0) {
        char* buf = w.data();
        const Uint32 length = w.length();
        // "I<offset>H<length>", cut at the field's width.
        char field[48];
        ZepText t(field, sizeof field);
        t.chars('I', 1).dec(size + 2).chars('H', 1).dec(length - 2);
        memcpy(buf + kLocationOffset, field,
               t.length() < kLocationWidth ? t.length() : kLocationWidth);
        buf[kLocationOffset + kLocationWidth] = ' ';
        ZEPFileWriteParam write;
        write.buffer = buf;
        write.length = length;
        Uint32 written = 0;
        ok = file.write(&write, &written) == 0 && written == length;
    }
    file.unlock();
    file.close();
    return ok;
}

// The system log stands where the platform's event log would: the facility's name is the
// identity, and the record's level picks the priority.
bool writeToSystemLog(const ZEPLogFacility* f, Uint32 level, const char* text) {
    int priority;
    switch (level) {
        case ZEP_LOG_SEVERE:
        case ZEP_LOG_ERROR: priority = LOG_ERR; break;
        case ZEP_LOG_WARNING: priority = LOG_WARNING; break;
        case ZEP_LOG_INFO: priority = LOG_INFO; break;
        case ZEP_LOG_EVENT: priority = LOG_NOTICE; break;
        default: return false;
    }
    openlog(f->name, LOG_PID, LOG_USER);
    syslog(priority, "%s", text);
    closelog();
    return true;
}

Uint32 writeRecord(ZEPLogFacility* facility, const Record& r, Sint32 countOrMask, va_list ap) {
    if (r.kind == Kind::Plain ? countOrMask < 0 : countOrMask > 0) return ECF_INVALID_PARAMETER;
    if (s_writing) return 0;
    s_writing = 1;
    ZEPLogFacility* f = facility ? facility : &s_defaultFacility;
    if (!f->open) {
        s_writing = 0;
        return ECF_INVALID_PARAMETER;
    }
    zepLockGet(&f->lock);
    Uint32 rc = 0;
    if (passes(f->level, r.level)) {
        Writer w;
        formatRecord(w, r, countOrMask, ap);
        bool ok;
        switch (f->target) {
            case ZEP_LOG_TARGET_FILE: ok = writeToFile(f, w); break;
            case ZEP_LOG_TARGET_EVENTLOG: ok = writeToSystemLog(f, r.level, w.data()); break;
            case ZEP_LOG_TARGET_STDERR: ok = fputs(w.data(), stderr) >= 0; break;
            default: ok = true, rc = ECF_INVALID_PARAMETER;
        }
        if (!ok) rc = ECF_FAILED;
    }
    zepLockRelease(&f->lock);
    s_writing = 0;
    return rc;
}

void copyTerminated(Char* to, const Char* from, size_t size) {
    size_t n = strnlen(from, size - 1);
    memcpy(to, from, n);
    to[n] = 0;
}

ZEPLogFacility* facilityOf(ZEPLogFacility* f) { return f ? f : &s_defaultFacility; }

}  // namespace

// The default facility's file, for the assertion report's last place: its path if it ever got
// one, open or not and whatever its target, so that a service's reports still land somewhere.
extern "C" String zepLogDefaultFacilityPath(void) {
    const ZEPLogFacility& f = s_defaultFacility;
    return f.path[0] != 0 ? f.path : nullptr;
}

Uint32 zepLogFacOpen(const ZEPLogFacilityParam* param, ZEPLogFacility* facility) {
    if (param == nullptr || param->version < ZEP_MIN_VERSION_STAMP) return ECF_INVALID_PARAMETER;
    if (param->target != ZEP_LOG_TARGET_FILE && param->target != ZEP_LOG_TARGET_EVENTLOG &&
        param->target != ZEP_LOG_TARGET_STDERR)
        return ECF_INVALID_PARAMETER;
    if (param->level >= 6) return ECF_INVALID_PARAMETER;
    if (param->target == ZEP_LOG_TARGET_FILE && param->path[0] == 0) return ECF_INVALID_PARAMETER;
    if (param->name[0] == 0) return ECF_INVALID_PARAMETER;
    ZEPLogFacility* f = facilityOf(facility);
    f->lock = 0;
    zepLockGet(&f->lock);
    copyTerminated(f->path, param->path, sizeof f->path);
    copyTerminated(f->name, param->name, sizeof f->name);
    f->level = param->level;
    f->target = param->target;
    f->permissions = param->permissions;
    f->open = 1;
    zepLockRelease(&f->lock);
    return 0;
}

Uint32 zepLogFacClose(ZEPLogFacility* facility) {
    ZEPLogFacility* f = facilityOf(facility);
    zepLockGet(&f->lock);
    f->open = 0;
    zepLockRelease(&f->lock);
    return 0;
}

Uint32 zepLogFacSetLevel(ZEPLogFacility* facility, Uint32 level) {
    ZEPLogFacility* f = facilityOf(facility);
    if (!f->open) return ECF_INVALID_PARAMETER;
    zepLockGet(&f->lock);
    f->level = level;
    zepLockRelease(&f->lock);
    return 0;
}

Uint32 zepLog(ZEPLogFacility* facility, Uint32 fid, Uint32 code, Uint32 probe, Uint32 level,
              Sint32 count, ...) {
    va_list ap;
    va_start(ap, count);
    Uint32 rc = writeRecord(facility, Record{Kind::Plain, fid, 0, 0, code, probe, level}, count, ap);
    va_end(ap);
    return rc;
}

Uint32 zepLogRC(ZEPLogFacility* facility, Uint32 fid, Uint32 calledId, Uint32 calledRc,
                Uint32 code, Uint32 probe, Uint32 level, Sint32 mask, ...) {
    va_list ap;
    va_start(ap, mask);
    Uint32 rc = writeRecord(
        facility, Record{Kind::Nested, fid, calledId, calledRc, code, probe, level}, mask, ap);
    va_end(ap);
    return rc;
}

Uint32 zepLogSysRC(ZEPLogFacility* facility, Uint32 fid, Uint32 calledId, Uint32 osError,
                   Uint32 code, Uint32 probe, Uint32 level, Sint32 mask, ...) {
    va_list ap;
    va_start(ap, mask);
    Uint32 rc = writeRecord(
        facility, Record{Kind::System, fid, calledId, osError, code, probe, level}, mask, ap);
    va_end(ap);
    return rc;
}
