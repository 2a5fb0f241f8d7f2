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
// zone call is needed.
Sint32 zoneMinutes() {
    Sint32 now = zepTimeGetUTC(nullptr);
    struct tm local, utc;
    zepTimeLocalTime(now, &local);
    zepTimeGmTime(now, &utc);
    return zepLogZoneMinutes(local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec,
                             utc.tm_hour * 3600 + utc.tm_min * 60 + utc.tm_sec);
}

// The record under construction: every part is bounded by the space left, and the text never
// exceeds 4,095 bytes.
class Writer {
public:
    Writer() { buf_[0] = 0; }
    char* data() { return buf_; }
    Uint32 length() const { return used_; }
    Uint32 space() const { return kRecordSize - used_; }
    char* cursor() { return buf_ + used_; }
    void advance(Uint32 n) { used_ += n; }

    void printf(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list ap;
        va_start(ap, format);
        int n = vsnprintf(cursor(), space(), format, ap);
        va_end(ap);
        if (n < 0) {
            *cursor() = 0;
            return;
        }
        used_ += static_cast<Uint32>(n) < space() ? static_cast<Uint32>(n) : space() - 1;
    }

private:
    char buf_[kRecordSize];
    Uint32 used_ = 0;
};

void formatItem(Writer& w, const char* label, Uint32 number, const void* data, Uint32 length,
                Sint32 type) {
    w.printf(label, number);
    if (data == nullptr) {
        w.printf("\r\nNULL\r\n");
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
    // Local time; the milliseconds are shown as microseconds, so the last three digits are 0.
    zepos::SYSTEMTIME st;
    zepos::GetLocalTime(&st);
    char stamp[32];
    zepSnprintf(stamp, sizeof stamp, "%04d-%02d-%02d-%02d.%02d.%02d.%06d", st.wYear, st.wMonth,
                st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds * 1000);
    char zone[8];
    zepSnprintf(zone, sizeof zone, "%+.3d", zoneMinutes());

    w.printf("\r\n%s%-23s LEVEL: %s%s\r\nPID     : %-21luTID : %llu\r\n"
             "FUNCTION: %.40s, %.40s, %.40s, probe:%u\r\n",
             stamp, zone, levelWord(r.level), r.kind == Kind::System ? " (OS)" : "",
             static_cast<unsigned long>(zepProcessID()),
             static_cast<unsigned long long>(zepThreadID()), orEmpty(ecfGetProductName(r.fid)),
             orEmpty(ecfGetComponentName(r.fid)), orEmpty(ecfGetFunctionName(r.fid)), r.probe);

    if (r.code != 0)
        w.printf("MESSAGE : ECF=0x%X %.128s\r\n", r.code, orEmpty(ecfErrorGetDescription(r.code)));

    if (r.kind != Kind::Plain && r.calledId != 0) {
        // Operating-system functions are shown as "OS", "-" rather than by their catalogue rows.
        const bool os = ZEP_FUNC_PRODUCT(r.calledId) == 1 &&
                        ZEP_FUNC_COMPONENT(r.calledId) == COMP_SYSFUNCS;
        const char* product = os ? "OS" : orEmpty(ecfGetProductName(r.calledId));
        const char* component = os ? "-" : orEmpty(ecfGetComponentName(r.calledId));
        const char* function = orEmpty(ecfGetFunctionName(r.calledId));
        if (r.kind == Kind::Nested) {
            w.printf("CALLED  : %.40s, %.40s, %.40s\r\nRETCODE : ECF=0x%X %.128s\r\n", product,
                     component, function, r.calledValue,
                     orEmpty(ecfErrorGetDescription(r.calledValue)));
        } else {
            // The platform error's tag stands at column 50, or one blank behind a longer line.
            Uint32 lineStart = w.length();
            w.printf("CALLED  : %.40s, %.40s, %.40s", product, component, function);
            int width = 50 - static_cast<int>(w.length() - lineStart);
            if (width < 0) width = 0;
            const char* name = zepErrorNameMapSystem(r.calledId, r.calledValue);
            if (name)
                w.printf("%*s%s%s (%d)\r\n", width, " ", "OSERR: ", name,
                         static_cast<int>(r.calledValue));
            else
                w.printf("%*s%s%d\r\n", width, " ", "OSERR: ", static_cast<int>(r.calledValue));
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
        for (Sint32 i = 0; i < countOrMask; ++i) item("DATA #%-2u: ", static_cast<Uint32>(i + 1));
    } else {
        const Uint32 mask = static_cast<Uint32>(countOrMask);
        for (Uint32 arg = 1; arg <= 31; ++arg)
            if (mask & (1u << (arg - 1))) item("ARG  #%-2u: ", arg);
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
        char field[32];
        int n = zepSnprintf(field, sizeof field, "%c%llu%c%u", 'I',
                            static_cast<unsigned long long>(size + 2), 'H', length - 2);
        memcpy(buf + kLocationOffset, field,
               static_cast<Uint32>(n) < kLocationWidth ? static_cast<Uint32>(n) : kLocationWidth);
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
            case ZEP_LOG_TARGET_STDERR: ok = fprintf(stderr, "%s", w.data()) >= 0; break;
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
