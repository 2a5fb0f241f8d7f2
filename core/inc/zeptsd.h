// zeptsd.h - ZEPHThreadSpecificData, a per-thread slot that holds one pointer.
//
// The object is the platform's slot index and nothing else. create() takes a slot (every thread
// then sees null in it), destroy() gives it back; the slot must be created before other threads
// use it and destroyed after they are done. Each operation runs in the frame and returns an ECF
// code, 0 for success.
//
// The rule callers must know: get() of a null value is a failure. It returns
// ECF_INVALID_INVOCATION_SEQUENCE (logged at level 4) with null stored at the caller's address,
// for a slot this thread has never set as for one it set to null; callers that want to know
// whether a slot is set test for that code.
#ifndef ZEPTSD_H
#define ZEPTSD_H

#include "zeptypes.h"

class ZEP_EXPORT ZEPHThreadSpecificData {
public:
    // No slot: all ones until create().
    ZEPHThreadSpecificData() = default;

    Uint32 create();
    Uint32 destroy();
    Uint32 set(void* value);
    Uint32 get(void** value);

    // The platform's slot index.
    Uint32 index() const { return index_; }

private:
    Uint32 index_ = 0xFFFFFFFFu;
};

static_assert(sizeof(ZEPHThreadSpecificData) == 4, "ZEPHThreadSpecificData is one word");

#endif
