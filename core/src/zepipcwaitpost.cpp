// zepipcwaitpost.cpp - ZEPHIPCWaitpost: an event and a data block guarded by the area's latch.
//
// The area's state word is what tells every user that the wait/post is set up; it is written
// last by create and cleared by destroy, and read before each operation with no other
// synchronisation (atomic loads and stores of the word, plain ones on this machine).
#include "zepipcwaitpost.h"

#include <string.h>

#include "zepframe.h"

namespace {

using zepos::INVALID_HANDLE_VALUE;
constexpr Uint32 kWaitAbandoned = 128;

Uint32 stateOf(const ZEPIPCWaitpostArea* a) {
    return __atomic_load_n(&a->state, __ATOMIC_ACQUIRE);
}
bool initialised(const ZEPIPCWaitpostArea* a) {
    return (stateOf(a) & (ZEP_WAITPOST_STATE_NAMED | ZEP_WAITPOST_STATE_UNNAMED)) != 0;
}

ZepLogItem logHandle(void* const* h) {
    return ZepLogItem{h, sizeof(void*), ZEP_LOGDATA_HEX};
}
ZepTrcBlock trcHandle(void* const* h) {
    return ZepTrcBlock{h, sizeof(void*)};
}
ZepTrcBlock trcArea(const ZEPIPCWaitpostArea* a) {
    return ZepTrcBlock{a, sizeof(*a)};
}

// One copy of the data block, under the area's latch unless the kind said not to latch.
void copyBlock(ZEPIPCWaitpostArea* a, void* to, const void* from, Uint32 size) {
    const bool latched = __atomic_load_n(&a->unlatched, __ATOMIC_RELAXED) == 0;
    if (latched) zepLockGet(&a->latch);
    memcpy(to, from, size);
    if (latched) zepLockRelease(&a->latch);
}

// The refusal of every operation on an area that isn't (or no longer is) set up.
Uint32 notInitialised(ZepFrame& f, Uint16 probe, const ZEPIPCWaitpostArea* a) {
    const Uint32 state = stateOf(a);
    return f.fail(ECF_WAITPOST_NOT_INITIALIZED, probe, ZEP_LOG_INFO, ZepLogUint(&state));
}

}  // namespace

Uint32 ZEPHIPCWaitpost::create(const ZEPIPCWaitpostCreateParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_create);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));

    area = param->area;
    __atomic_store_n(&area->state, 0u, __ATOMIC_RELEASE);
    memset(area, 0, sizeof(*area));
    if (param->kind == ZEP_WAITPOST_KIND_UNLATCHED) area->unlatched = 1;

    Uint8 descriptor[20];
    SECURITY_ATTRIBUTES attributes;
    const SECURITY_ATTRIBUTES* sa = nullptr;
    const char* name = nullptr;
    if (param->resID != nullptr) {
        const Uint32 rc = zepInitSecurityAttributes(descriptor, &attributes);
        if (rc != 0) {
            f.fail(rc, 120, ZEP_LOG_INFO);
            return f.exit();
        }
        sa = &attributes;
        name = param->resID->name;
    }
    // A name that exists opens the existing event as it is, with its own reset behaviour.
    const zepos::BOOL manual = (param->kind & 1u) == 0;
    void* h = zepos::CreateEventA(sa, manual, 0, name);
    if (h == nullptr) {
        f.failMapped(130, SYSFN_CreateEvent, zepos::GetLastError(), ZEP_LOG_ARGS(9),
                     ZepLogHex(&sa, sizeof(sa)), ZepLogStr(name));
        f.traceData(40, trcArea(area));
        return f.exit();
    }
    event = h;
    postData = param->postData;
    postDataSize = param->postDataSize;
    Uint32 state = (param->kind & 1u) ? ZEP_WAITPOST_STATE_AUTO_RESET : 0u;
    state |= name ? ZEP_WAITPOST_STATE_NAMED : ZEP_WAITPOST_STATE_UNNAMED;
    // Last: an area whose state is set is complete.
    __atomic_store_n(&area->state, state, __ATOMIC_RELEASE);
    return f.exit();
}

Uint32 ZEPHIPCWaitpost::open(const ZEPIPCWaitpostOpenParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_open);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    area = param->area;
    if (!initialised(area)) {
        notInitialised(f, 30, area);
        return f.exit();
    }
    postData = param->postData;
    postDataSize = param->postDataSize;
    void* h = zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, param->resID->name);
    if (h == nullptr) {
        f.failMapped(40, SYSFN_OpenEvent, zepos::GetLastError(), ZEP_LOG_ARGS(4),
                     ZepLogStr(param->resID->name));
        f.traceData(80, trcArea(area));
        return f.exit();
    }
    event = h;
    return f.exit();
}

Uint32 ZEPHIPCWaitpost::post(const void* data) {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_post);
    if (!initialised(area)) {
        notInitialised(f, 10, area);
        f.traceData(100, trcArea(area));
        return f.exit();
    }
    // The data first, then the event: a waiter that passes sees this post's block.
    if (data != nullptr) copyBlock(area, postData, data, postDataSize);
    f.traceData(60, trcHandle(&event));
    if (!zepos::SetEvent(event))
        f.failMapped(70, SYSFN_SetEvent, zepos::GetLastError(), ZEP_LOG_ARGS(1), logHandle(&event));
    return f.exit();
}

Uint32 ZEPHIPCWaitpost::wait(const ZEPIPCWaitpostWaitParam* param, void* buffer) {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_wait);
    if (f.refuseParam(param)) return f.rc();
    if (!initialised(area)) {
        notInitialised(f, 20, area);
        return f.exit();
    }
    f.traceData(30, ZepTrcObj(param), ZepTrcObj(&buffer));
    f.traceData(90, trcHandle(&event));
    const Uint32 r = zepos::WaitForSingleObject(event, param->timeout);
    bool ended = true;
    if (r == zepos::WAIT_OBJECT_0) {
        ended = false;
    } else if (r == zepos::WAIT_TIMEOUT && param->timeout == 0) {
        // A poll that finds no post still hands over the block: the one way to read it without
        // waiting.
        f.setQuietResult(ECF_WAITPOST_NOT_POSTED);
        ended = false;
    } else if (r == zepos::WAIT_TIMEOUT) {
        f.failSys(ECF_TIMEOUT, 110, ZEP_LOG_INFO, SYSFN_WaitForSingleObject, 0, ZEP_LOG_ARGS(3),
                  logHandle(&event), ZepLogUint(&param->timeout));
    } else if (r == kWaitAbandoned) {  // an event has no owner: never here, kept for the table
        f.failSys(ECF_SEM_WAIT_ABANDONED, 100, ZEP_LOG_INFO, SYSFN_WaitForSingleObject, 0,
                  ZEP_LOG_ARGS(3), logHandle(&event), ZepLogUint(&param->timeout));
    } else {
        // The platform's failure value is no ECF code; its last error is mapped instead, as
        // for a semaphore.
        f.failMapped(120, SYSFN_WaitForSingleObject, zepos::GetLastError(), ZEP_LOG_ARGS(3),
                     logHandle(&event), ZepLogUint(&param->timeout));
    }
    if (ended) {
        f.traceData(170, trcArea(area));
        return f.exit();
    }
    if (buffer != nullptr) copyBlock(area, buffer, postData, postDataSize);
    return f.exit();
}

Uint32 ZEPHIPCWaitpost::reset() {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_reset);
    if (!initialised(area)) {
        notInitialised(f, 10, area);
        return f.exit();
    }
    f.traceData(40, trcHandle(&event));
    if (!zepos::ResetEvent(event))
        f.failMapped(50, SYSFN_ResetEvent, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logHandle(&event));
    return f.exit();
}

Uint32 ZEPHIPCWaitpost::close() {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_close);
    if (!initialised(area)) {
        notInitialised(f, 10, area);
        return f.exit();
    }
    if (!zepos::CloseHandle(event)) {
        // The object stays as it is, so that close can be tried again.
        f.failMapped(20, SYSFN_CloseHandle, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logHandle(&event));
        return f.exit();
    }
    event = INVALID_HANDLE_VALUE;
    area = nullptr;
    postData = nullptr;
    postDataSize = 0;
    return f.exit();
}

Uint32 ZEPHIPCWaitpost::destroy() {
    ZepFrame f(ZEPFN_ZEPHIPCWaitpost_destroy);
    if (!initialised(area)) {
        notInitialised(f, 10, area);
        return f.exit();
    }
    if (!zepos::CloseHandle(event))
        f.failMapped(40, SYSFN_CloseHandle, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logHandle(&event));
    event = INVALID_HANDLE_VALUE;
    // The latch byte stays as it is: a copy in another process may hold it right now.
    __atomic_store_n(&area->unlatched, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&area->state, 0u, __ATOMIC_RELEASE);
    area = nullptr;
    postData = nullptr;
    postDataSize = 0;
    return f.exit();
}
