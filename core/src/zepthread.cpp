// zepthread.cpp - ZEPHThread and zepThreadExit.
#include "zepthread.h"

#include "zepframe.h"
#include "zepmemory.h"

namespace {

// What the creator hands to the new thread. It is complete before the thread starts, so it
// needs no lock; the thread frees it before it runs the caller's function.
struct StartRecord {
    ZEPThreadStart start;
    void* arg;
};

unsigned threadEntry(void* p) {
    StartRecord* record = static_cast<StartRecord*>(p);
    const ZEPThreadStart start = record->start;
    void* const arg = record->arg;
    zepMemFree(&record, nullptr, 0);
    start(arg);
    return 0;
}

}  // namespace

ZEPHThread::~ZEPHThread() {
    if (created_) close();
}

Uint32 ZEPHThread::create(ZEPThreadStart start, void* arg, const ZEPThreadParam* param,
                          Uint32* id) {
    ZepFrame f(ZEPFN_ZEPHThread_create);
    const void* startAddress = reinterpret_cast<const void*>(start);
    f.traceData(10, ZepTrcObj(param), ZepTrcBlock{&startAddress, sizeof startAddress});
    if (f.refuseParam(param)) return f.rc();
    if (created_) {
        f.fail(ECF_THREAD_ALREADY_CREATED, 30, ZEP_LOG_INFO);
        return f.exit();
    }
    id_ = 0, handle_ = nullptr, created_ = 0, joinable_ = 0;

    StartRecord* record = nullptr;
    Uint32 rc = zepMemAlloc(&record, nullptr, sizeof(StartRecord), 0);
    if (rc != 0) {
        f.fail(rc, 90, ZEP_LOG_INFO);
        return f.exit();
    }
    record->start = start;
    record->arg = arg;

    Uint32 tid = 0;
    zepos::HANDLE h =
        zepos::_beginthreadex(nullptr, param->stackSize, threadEntry, record, 0, &tid);
    if (h == nullptr) {
        const Uint32 osError = zepos::GetLastError();
        zepMemFree(&record, nullptr, 0);
        f.failMapped(100, SYSFN__beginthreadex, osError, 0);
        return f.exit();
    }
    created_ = 1;
    id_ = tid;
    handle_ = h;
    joinable_ = (param->flags & ZEP_THREAD_JOINABLE) ? 1 : 0;
    if (id != nullptr) {
        *id = tid;
        f.traceData(90, ZepTrcBlock{id, 4});
    }
    return f.exit();
}

Uint32 ZEPHThread::wait() {
    ZepFrame f(ZEPFN_ZEPHThread_wait);
    if (!created_) {
        f.fail(ECF_THREAD_NOT_CREATED, 10, ZEP_LOG_INFO);
        return f.exit();
    }
    if (!joinable_) {
        f.fail(ECF_THREAD_CANNOT_WAIT, 20, ZEP_LOG_INFO);
        return f.exit();
    }
    if (zepos::WaitForSingleObject(handle_, zepos::INFINITE) != 0)
        f.failMapped(50, SYSFN_WaitForSingleObject, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&handle_, sizeof handle_));
    joinable_ = 0;
    return f.exit();
}

Uint32 ZEPHThread::close() {
    ZepFrame f(ZEPFN_ZEPHThread_close);
    if (!created_) {
        f.fail(ECF_THREAD_NOT_CREATED, 10, ZEP_LOG_INFO);
        return f.exit();
    }
    if (joinable_) {
        f.fail(ECF_THREAD_MUST_WAIT, 20, ZEP_LOG_INFO);
        return f.exit();
    }
    zepos::CloseHandle(handle_);
    id_ = 0, handle_ = nullptr, created_ = 0, joinable_ = 0;
    return f.exit();
}

void zepThreadExit(void) {
    zepos::_endthreadex(0);
}
