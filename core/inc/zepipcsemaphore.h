// zepipcsemaphore.h - ZEPHIPCSemaphore, a named counting semaphore shared between processes.
//
// The object is one platform handle and nothing else; the count lives in the system object,
// the same for every process that holds it, and the object is gone from the system once its
// last holder has let go of it (also by dying). Every semaphore counts up to
// ZEP_IPC_SEMAPHORE_MAX: a post beyond that fails and leaves the count as it was. A wait's time
// is in milliseconds, ZEP_IPC_WAIT_FOREVER for no limit and 0 for a poll; running out of time is
// ECF_TIMEOUT and writes no log record, since only the caller knows whether it matters.
#ifndef ZEPIPCSEMAPHORE_H
#define ZEPIPCSEMAPHORE_H

#include "zepipc.h"
#include "zeptypes.h"

#define ZEP_IPC_SEMAPHORE_MAX 32767
#define ZEP_IPC_WAIT_FOREVER 0xFFFFFFFFu

// Constructors stamp ZEP_VERSION_WORD and clear the rest.
struct ZEPIPCSemaphoreCreateParam {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPIPCResID resID;  // the semaphore's name
    Sint32 initialValue = 0;
    Uint32 accessMode = 0;  // carried, not read on this platform
    Uint32 flags = 0;       // not read
};

struct ZEPIPCSemaphoreWaitParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 timeout = 0;  // milliseconds; ZEP_IPC_WAIT_FOREVER, or 0 to poll
    Uint32 reserved[2] = {0, 0};
    ZEPIPCSemaphoreWaitParam() = default;
    explicit ZEPIPCSemaphoreWaitParam(Uint32 milliseconds) : timeout(milliseconds) {}
};

class ZEPHIPCSemaphore {
public:
    // Makes a new semaphore; a name that exists is ECF_SEM_EXISTS and the existing one is left
    // as it was.
    ZEP_EXPORT Uint32 create(const ZEPIPCSemaphoreCreateParam* param);
    // Opens an existing one; a missing name is ECF_FILE_DOESNT_EXIST.
    ZEP_EXPORT Uint32 attach(const ZEPIPCResID* resID);
    // Both let go of this process's handle (the handle is "none" after either, also when the
    // close failed); the semaphore lives on for its other holders.
    ZEP_EXPORT Uint32 detach();
    ZEP_EXPORT Uint32 destroy();
    ZEP_EXPORT Uint32 post();
    ZEP_EXPORT Uint32 wait(const ZEPIPCSemaphoreWaitParam* param);
    ZEP_EXPORT Uint32 authorize(const ZEPIPCSecurityParam* param);
    Bool isAttached() const {
        return handle != reinterpret_cast<void*>(~static_cast<uintptr_t>(0));
    }

    void* handle = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));  // the platform handle
};

#endif
