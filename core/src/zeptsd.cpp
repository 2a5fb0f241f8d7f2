// zeptsd.cpp - ZEPHThreadSpecificData.
//
// Each public operation runs in the frame (entry and exit records, no data) and hands its work to
// an inner worker with an identifier of its own, under which the platform failure is logged; no
// error record is written. The public operation returns what its worker returns.
#include "zeptsd.h"

#include "zepframe.h"

namespace {

// Logs a failed slot call under the worker's identifier, with the code and level of the map.
Uint32 failed(Uint32 workerId, Uint16 probe, Uint32 calledId) {
    Uint32 osError = zepos::GetLastError();
    Uint32 level = ZEP_LOG_INFO;
    Uint32 rc = zepErrorMapSystem(workerId, probe, calledId, osError, &level);
    zepLogSysRC(nullptr, workerId, calledId, osError, rc, probe, level, 0);
    return rc;
}

Uint32 createWorker(Uint32* index) {
    Uint32 slot = zepos::TlsAlloc();
    *index = slot;
    if (slot == zepos::TLS_OUT_OF_INDEXES)
        return failed(ZEPFN_ZEPHThreadSpecificDataInternal_create, 20, SYSFN_TlsAlloc);
    return 0;
}

Uint32 destroyWorker(Uint32 index) {
    if (!zepos::TlsFree(index))
        return failed(ZEPFN_ZEPHThreadSpecificDataInternal_destroy, 20, SYSFN_TlsFree);
    return 0;
}

Uint32 setWorker(Uint32 index, void* value) {
    if (!zepos::TlsSetValue(index, value))
        return failed(ZEPFN_ZEPHThreadSpecificDataInternal_set, 20, SYSFN_TlsSetValue);
    return 0;
}

// A null value takes the failure path whatever the reason: the last error is 0 for a real null,
// which the map turns into ECF_INVALID_INVOCATION_SEQUENCE.
Uint32 getWorker(Uint32 index, void** value) {
    void* v = zepos::TlsGetValue(index);
    *value = v;
    if (v == nullptr)
        return failed(ZEPFN_ZEPHThreadSpecificDataInternal_get, 10, SYSFN_TlsGetValue);
    return 0;
}

}  // namespace

Uint32 ZEPHThreadSpecificData::create() {
    ZepFrame f(ZEPFN_ZEPHThreadSpecificData_create);
    f.setQuietResult(createWorker(&index_));
    return f.exit();
}

Uint32 ZEPHThreadSpecificData::destroy() {
    ZepFrame f(ZEPFN_ZEPHThreadSpecificData_destroy);
    f.setQuietResult(destroyWorker(index_));
    return f.exit();
}

Uint32 ZEPHThreadSpecificData::set(void* value) {
    ZepFrame f(ZEPFN_ZEPHThreadSpecificData_set);
    f.setQuietResult(setWorker(index_, value));
    return f.exit();
}

Uint32 ZEPHThreadSpecificData::get(void** value) {
    ZepFrame f(ZEPFN_ZEPHThreadSpecificData_get);
    f.setQuietResult(getWorker(index_, value));
    return f.exit();
}
