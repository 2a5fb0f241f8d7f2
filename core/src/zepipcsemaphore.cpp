// zepipcsemaphore.cpp - ZEPHIPCSemaphore on the OS layer's semaphores.
#include "zepipcsemaphore.h"

#include "zepframe.h"

namespace {

using zepos::INVALID_HANDLE_VALUE;
constexpr Uint32 kWaitAbandoned = 128;

ZepLogItem logHandle(void* const* h) {
    return ZepLogItem{h, sizeof(void*), ZEP_LOGDATA_HEX};
}
ZepTrcBlock trcHandle(void* const* h) {
    return ZepTrcBlock{h, sizeof(void*)};
}

// The object's name as the platform wants it: an empty name makes an unnamed semaphore.
const char* platformName(const ZEPIPCResID& id) {
    return id.name[0] ? id.name : nullptr;
}

}  // namespace

Uint32 ZEPHIPCSemaphore::create(const ZEPIPCSemaphoreCreateParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_create);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));

    Uint8 descriptor[20];
    SECURITY_ATTRIBUTES attributes;
    Uint32 rc = zepInitSecurityAttributes(descriptor, &attributes);
    if (rc != 0) {
        f.setQuietResult(rc);
        f.traceError(70);
        return f.exit();
    }
    zepos::SetLastError(0);
    const Sint32 maximum = ZEP_IPC_SEMAPHORE_MAX;
    void* h = zepos::CreateSemaphoreA(&attributes, param->initialValue, maximum,
                                      platformName(param->resID));
    const Uint32 err = zepos::GetLastError();
    Uint16 probe = 0;
    if (h == nullptr) {
        probe = 80;
    } else if (err == zepos::ERROR_ALREADY_EXISTS) {
        // Never join an existing semaphore: its count is its creator's business.
        zepos::CloseHandle(h);
        probe = 90;
    } else if (err != 0) {
        zepos::CloseHandle(h);
        probe = 100;
    }
    if (probe != 0) {
        handle = INVALID_HANDLE_VALUE;
        f.failMapped(probe, SYSFN_CreateSemaphore, err, ZEP_LOG_ARGS(0xE),
                     ZepLogSint(&param->initialValue), ZepLogSint(&maximum),
                     ZepLogStr(param->resID.name));
        return f.exit();
    }
    handle = h;
    f.traceData(120, trcHandle(&handle));
    return f.exit();
}

Uint32 ZEPHIPCSemaphore::attach(const ZEPIPCResID* resID) {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_attach);
    void* h = zepos::OpenSemaphoreA(zepos::SEMAPHORE_ALL_ACCESS, 0, platformName(*resID));
    if (h == nullptr) {
        handle = INVALID_HANDLE_VALUE;
        f.failMapped(40, SYSFN_OpenSemaphore, zepos::GetLastError(), ZEP_LOG_ARGS(4),
                     ZepLogStr(resID->name));
        return f.exit();
    }
    handle = h;
    f.traceData(50, trcHandle(&handle));
    return f.exit();
}

Uint32 ZEPHIPCSemaphore::detach() {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_detach);
    f.traceData(20, trcHandle(&handle));
    if (!zepos::CloseHandle(handle))
        f.failMapped(30, SYSFN_CloseHandle, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logHandle(&handle));
    handle = INVALID_HANDLE_VALUE;
    return f.exit();
}

Uint32 ZEPHIPCSemaphore::destroy() {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_destroy);
    f.setQuietResult(detach());
    return f.exit();
}

Uint32 ZEPHIPCSemaphore::post() {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_post);
    f.traceData(30, trcHandle(&handle));
    if (!zepos::ReleaseSemaphore(handle, 1, nullptr))
        f.failMapped(40, SYSFN_ReleaseSemaphore, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logHandle(&handle));
    return f.exit();
}

Uint32 ZEPHIPCSemaphore::wait(const ZEPIPCSemaphoreWaitParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_wait);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    f.traceData(80, trcHandle(&handle));
    const Uint32 r = zepos::WaitForSingleObject(handle, param->timeout);
    if (r == zepos::WAIT_OBJECT_0) return f.exit();
    if (r == zepos::WAIT_TIMEOUT) {
        // An ordinary outcome: the caller decides what it means, so no record at all.
        f.setQuietResult(ECF_TIMEOUT);
        return f.exit();
    }
    if (r == kWaitAbandoned) {  // a semaphore has no owner: never here, kept for the table
        f.failNested(ECF_SEM_WAIT_ABANDONED, 100, ZEP_LOG_INFO, f.functionId(),
                     ECF_SEM_WAIT_ABANDONED, ZEP_LOG_ARGS(3), logHandle(&handle),
                     ZepLogUint(&param->timeout));
        return f.exit();
    }
    f.failMapped(110, SYSFN_WaitForSingleObject, zepos::GetLastError(), ZEP_LOG_ARGS(3),
                 logHandle(&handle), ZepLogUint(&param->timeout));
    return f.exit();
}

Uint32 ZEPHIPCSemaphore::authorize(const ZEPIPCSecurityParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCSemaphore_authorize);
    if (f.refuseParam(param)) return f.rc();
    // Access is settled when the object is made; nothing changes afterwards.
    f.traceData(10, ZepTrcBlock{param, 4});
    return f.exit();
}
