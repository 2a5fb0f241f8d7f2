// zepipcwaitpost.h - ZEPHIPCWaitpost: tell other threads or processes that something happened,
// and hand them a small fixed block of data with it.
//
// An event of the system (named through a ZEPIPCResID, or unnamed for use inside a process)
// paired with two pieces of the caller's memory: the 8-byte waitpost area, which says whether
// the wait/post is set up and guards the data block, and the data block itself. Both normally
// lie in shared memory of the caller's; the library only writes into them. Each process has its
// own ZEPHIPCWaitpost object, with its own address of the data block.
//
// Kinds: 0 the event stays posted until reset; 1 it lets one waiter pass per post; 2 as 0, and
// the data block is copied without the area's latch (the caller keeps copies apart).
#ifndef ZEPIPCWAITPOST_H
#define ZEPIPCWAITPOST_H

#include <stddef.h>

#include "zepipc.h"
#include "zeplatch.h"
#include "zeptypes.h"

#define ZEP_WAITPOST_KIND_MANUAL 0u
#define ZEP_WAITPOST_KIND_AUTOMATIC 1u
#define ZEP_WAITPOST_KIND_UNLATCHED 2u

// ZEPIPCWaitpostArea::state
#define ZEP_WAITPOST_STATE_AUTO_RESET 0x1u
#define ZEP_WAITPOST_STATE_NAMED 0x2u
#define ZEP_WAITPOST_STATE_UNNAMED 0x4u

// 8 bytes of the caller's memory; a format that every user of the area shares. Zeroed memory is
// an area that isn't set up.
struct ZEPIPCWaitpostArea {
    Uint8 unlatched;  // 1 for kind 2: copies of the data block take no latch
    ZEPLock latch;    // guards the data block
    Uint16 padding;
    Uint32 state;  // ZEP_WAITPOST_STATE_*; set up while NAMED or UNNAMED is set
};
static_assert(sizeof(ZEPIPCWaitpostArea) == 8 && offsetof(ZEPIPCWaitpostArea, latch) == 1 &&
                  offsetof(ZEPIPCWaitpostArea, state) == 4,
              "the waitpost area is 8 bytes");

// Constructors stamp ZEP_VERSION_WORD and clear the rest.
struct ZEPIPCWaitpostCreateParam {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPIPCWaitpostArea* area = nullptr;
    void* postData = nullptr;            // the data block, or null
    Uint32 postDataSize = 0;             // 0 with a null block
    const ZEPIPCResID* resID = nullptr;  // the event's name; null for an unnamed event
    Uint32 reserved = 0;
    Uint32 kind = 0;  // ZEP_WAITPOST_KIND_*
};

struct ZEPIPCWaitpostOpenParam {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPIPCWaitpostArea* area = nullptr;
    void* postData = nullptr;
    Uint32 postDataSize = 0;
    const ZEPIPCResID* resID = nullptr;  // not null: only a named event can be opened
    Uint32 reserved = 0;
};

struct ZEPIPCWaitpostWaitParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 timeout = 0;  // milliseconds; 0xFFFFFFFF no limit; 0 a poll
    Uint32 reserved = 0;
    ZEPIPCWaitpostWaitParam() = default;
    explicit ZEPIPCWaitpostWaitParam(Uint32 milliseconds) : timeout(milliseconds) {}
};

class ZEPHIPCWaitpost {
public:
    // Sets the area up (wiping what it held) and makes the event; a name that exists takes the
    // existing event with its own reset behaviour. Must return before others open, wait or post.
    ZEP_EXPORT Uint32 create(const ZEPIPCWaitpostCreateParam* param);
    ZEP_EXPORT Uint32 open(const ZEPIPCWaitpostOpenParam* param);
    // Ends this process's use; the area stays set up for the others.
    ZEP_EXPORT Uint32 close();
    // Ends the wait/post for everybody: every later operation anywhere is
    // ECF_WAITPOST_NOT_INITIALIZED.
    ZEP_EXPORT Uint32 destroy();
    // Waits for a post and copies the data block into `buffer` (if not null). A poll (timeout 0)
    // that finds no post is ECF_WAITPOST_NOT_POSTED and still copies the block.
    ZEP_EXPORT Uint32 wait(const ZEPIPCWaitpostWaitParam* param, void* buffer);
    // Copies `data` (if not null) into the data block, then posts.
    ZEP_EXPORT Uint32 post(const void* data);
    ZEP_EXPORT Uint32 reset();

    ZEPIPCWaitpostArea* area = nullptr;
    void* postData = nullptr;
    Uint32 postDataSize = 0;
    void* event = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));
};

#endif
