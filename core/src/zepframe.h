// zepframe.h - the frame every exported platform operation runs in.
//
//     Uint32 zepFileRename(const char* from, const char* to) {
//         ZepFrame f(ZEPFN_zepFileRename);
//         f.traceData(10, ZepTrcStr(from), ZepTrcStr(to));
//         if (!zepos::MoveFileA(from, to))
//             f.failSys(ECF_FILE_DOESNT_EXIST, 30, ZEP_LOG_INFO, SYSFN_MoveFile,
//                       zepos::GetLastError(), ZEP_LOG_ARGS(3), ZepLogStr(from), ZepLogStr(to));
//         return f.exit();
//     }
//
// Entry record, data records, on failure one log record and one error record at the same probe,
// exit record with the result. The rules that make it cheap:
//  - every trace point re-tests g_pGTCB and its enable word (never cached, so a trace switched on
//    or off mid-call shows a sequence that starts or stops in the middle);
//  - nothing is computed before that test: string lengths and the thread id come after it, which
//    is why trace items are lazy descriptions (ZepTrcStr) rather than lengths;
//  - log calls are made whatever the trace says, and their results are ignored;
//  - the frame allocates nothing; its only state is the result word.
#ifndef ZEPFRAME_H
#define ZEPFRAME_H

#include <string.h>

#include <tuple>

#include "gtrace.h"
#include "zepecf.h"
#include "zeperror.h"
#include "zeplog.h"
#include "zepos.h"

// One load of the pointer and at most two tests.
inline bool zepTraceOn() {
    const GTCB* cb = __atomic_load_n(&g_pGTCB, __ATOMIC_RELAXED);
    if (cb == nullptr) return false;
    return __atomic_load_n(&cb->enabled, __ATOMIC_RELAXED) != 0;
}

// ---- trace items: (kind 0, length, address), measured only once the trace is known to be on.

struct ZepTrcStr {  // a string, traced without its terminator
    const char* s;
    Uint32 length() const { return s ? static_cast<Uint32>(strlen(s)) : 0; }
    const void* data() const { return s; }
};
struct ZepTrcBlock {  // a fixed record or parameter object, traced whole
    const void* p;
    Uint32 size;
    Uint32 length() const { return size; }
    const void* data() const { return p; }
};
template <class T>
inline ZepTrcBlock ZepTrcObj(const T* p) {
    return ZepTrcBlock{p, static_cast<Uint32>(sizeof(T))};
}

// ---- log items: (address, length, type), built only on the failure path.

struct ZepLogItem {
    const void* p;
    Uint32 length;
    Sint32 type;
};
inline ZepLogItem ZepLogStr(const char* s) {
    return ZepLogItem{s, s ? static_cast<Uint32>(strlen(s)) : 0u, ZEP_LOGDATA_STRING};
}
inline ZepLogItem ZepLogUint(const Uint32* v) {
    return ZepLogItem{v, 4, ZEP_LOGDATA_UINT};
}
inline ZepLogItem ZepLogSint(const Sint32* v) {
    return ZepLogItem{v, 4, ZEP_LOGDATA_SINT};
}
inline ZepLogItem ZepLogHex(const void* p, Uint32 n) {
    return ZepLogItem{p, n, ZEP_LOGDATA_HEX};
}
inline ZepLogItem ZepLogSint64(const Sint64* v) {
    return ZepLogItem{v, 8, ZEP_LOGDATA_SINT};
}

class ZepFrame {
public:
    explicit ZepFrame(Uint32 functionId) : fid_(functionId) {
        if (zepTraceOn()) _gtraceEntry(threadId(), fid_);
    }
    ZepFrame(const ZepFrame&) = delete;
    ZepFrame& operator=(const ZepFrame&) = delete;

    Uint32 rc() const { return rc_; }
    Uint32 functionId() const { return fid_; }

    // A data record of the operation's inputs or results at `probe`.
    template <class... Items>
    void traceData(Uint16 probe, const Items&... items) {
        if (!zepTraceOn()) return;
        std::apply(
            [&](auto... a) {
                _gtraceVar(threadId(), fid_, probe, 3, static_cast<Uint32>(sizeof...(Items)), a...);
            },
            std::tuple_cat(std::make_tuple(0u, items.length(), items.data())...));
    }

    // The parameter-object checks: a null object (probe 1111) or a stamp below the oldest
    // accepted version (probe 1112) is logged at level 2 and refused at once, without error or
    // exit record. Returns true when refused; the caller returns rc().
    template <class Param>
    bool refuseParam(const Param* param) {
        if (param == nullptr) {
            rc_ = ECF_INVALID_PARAMETER;
            zepLog(nullptr, fid_, rc_, 1111, ZEP_LOG_ERROR, 0);
            return true;
        }
        if (param->version < ZEP_MIN_VERSION_STAMP) {
            rc_ = ECF_INVALID_VERSION;
            zepLog(nullptr, fid_, rc_, 1112, ZEP_LOG_ERROR, 1, &param->version, 4u,
                   ZEP_LOGDATA_UINT);
            return true;
        }
        return false;
    }

    // A failure of the operation's own making (a bad argument, a state it refuses).
    template <class... Items>
    Uint32 fail(Uint32 rc, Uint16 probe, Uint32 level, const Items&... items) {
        rc_ = rc;
        std::apply(
            [&](auto... a) {
                zepLog(nullptr, fid_, rc_, probe, level, static_cast<Sint32>(sizeof...(Items)),
                       a...);
            },
            flatten(items...));
        traceError(probe);
        return rc_;
    }

    // A failed platform call with a result and level fixed by the operation.
    template <class... Items>
    Uint32 failSys(Uint32 rc, Uint16 probe, Uint32 level, Uint32 calledId, Uint32 osError,
                   Sint32 mask, const Items&... items) {
        rc_ = rc;
        std::apply(
            [&](auto... a) {
                zepLogSysRC(nullptr, fid_, calledId, osError, rc_, probe, level, mask, a...);
            },
            flatten(items...));
        traceError(probe);
        return rc_;
    }

    // A failed platform call whose result and level come from the error map.
    template <class... Items>
    Uint32 failMapped(Uint16 probe, Uint32 calledId, Uint32 osError, Sint32 mask,
                      const Items&... items) {
        Uint32 level = ZEP_LOG_INFO;
        Uint32 rc = zepErrorMapSystem(fid_, probe, calledId, osError, &level);
        return failSys(rc, probe, level, calledId, osError, mask, items...);
    }

    // A failed nested library operation, which has logged its own record already.
    template <class... Items>
    Uint32 failNested(Uint32 rc, Uint16 probe, Uint32 level, Uint32 calledId, Uint32 calledRc,
                      Sint32 mask, const Items&... items) {
        rc_ = rc;
        std::apply(
            [&](auto... a) {
                zepLogRC(nullptr, fid_, calledId, calledRc, rc_, probe, level, mask, a...);
            },
            flatten(items...));
        traceError(probe);
        return rc_;
    }

    // A result that is reported without a log record (a short read, a lock held elsewhere): the
    // exit record still carries it.
    void setQuietResult(Uint32 rc) { rc_ = rc; }

    // An error record at `probe` with the present result, without a log record; for the places
    // that mark a notable non-failure (a size already as asked) in the trace.
    void traceError(Uint16 probe) {
        if (zepTraceOn()) _gtraceErrorVar(threadId(), fid_, probe, 4, 0, 0, 1u, 0u, 4u, &rc_);
    }

    // The exit record, always with the result, and the result to return.
    Uint32 exit() {
        Uint32 rc = rc_;
        if (zepTraceOn()) _gtraceExit(threadId(), fid_, &rc, 0, 0);
        return rc;
    }

private:
    static Uint64 threadId() { return static_cast<Uint64>(zepos::GetCurrentThreadId()); }

    template <class... Items>
    static auto flatten(const Items&... items) {
        return std::tuple_cat(std::make_tuple(items.p, items.length, items.type)...);
    }

    Uint32 fid_;
    Uint32 rc_ = 0;
};

#endif
