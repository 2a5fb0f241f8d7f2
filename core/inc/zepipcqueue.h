// zepipcqueue.h - ZEPHIPCQueue, a named queue of byte messages between processes.
//
// A queue is a shared block (a control header and a byte ring) and two semaphores that carry
// wake-ups only: the receive semaphore for a receiver asleep on an empty ring, the send
// semaphore for a sender asleep on a full one. Three one-byte latches in the header do all the
// exclusion. A sender holds the send latch for a whole message and a receiver the receive latch,
// so messages never interleave; the state latch guards the header and the ring, and nobody holds
// it while asleep. A message may be longer than the ring: the sender streams it through while a
// receiver drains it. Without sleepers a put or get makes no system call.
//
// docs/ipc.md gives the block's format and what the queue does in the corner cases (a
// buffer too small, a time-out or a flush inside a message, an empty message behind a full ring).
#ifndef ZEPIPCQUEUE_H
#define ZEPIPCQUEUE_H

#include <stddef.h>

#include "zepipc.h"
#include "zepipcmemory.h"
#include "zepipcsemaphore.h"
#include "zeplatch.h"
#include "zeptypes.h"

// The head of the shared block; the ring's `capacity` bytes follow at offset 20. A format: every
// process that shares a queue reads it alike, whatever address it has the block at.
struct ZEPIPCQueueHeader {
    ZEPLock sendLatch;      // held by one put for its whole message
    ZEPLock receiveLatch;   // held by one get for its whole message
    ZEPLock stateLatch;     // guards everything from offset 4 on, the ring included
    Uint8 flushCount;       // counts flushes, so that a put or get in mid-message sees one
    Uint32 capacity;        // ring size in bytes, a multiple of 4, written once by create
    Uint32 writeOffset;     // next byte to write, from the ring's start; a multiple of 4
    Uint32 readOffset;      // next byte to read; a multiple of 4
    Uint8 senderWaiting;    // 1 while a sender sleeps on the send semaphore
    Uint8 receiverWaiting;  // 1 while a receiver sleeps on the receive semaphore
    Uint8 notEmpty;         // 1 when the ring holds a byte: tells full from empty
    Uint8 reserved;         // zero
};
static_assert(sizeof(ZEPIPCQueueHeader) == 20, "the ring starts at offset 20");
static_assert(offsetof(ZEPIPCQueueHeader, receiveLatch) == 1 &&
                  offsetof(ZEPIPCQueueHeader, stateLatch) == 2 &&
                  offsetof(ZEPIPCQueueHeader, capacity) == 4 &&
                  offsetof(ZEPIPCQueueHeader, writeOffset) == 8 &&
                  offsetof(ZEPIPCQueueHeader, readOffset) == 12 &&
                  offsetof(ZEPIPCQueueHeader, senderWaiting) == 16 &&
                  offsetof(ZEPIPCQueueHeader, receiverWaiting) == 17 &&
                  offsetof(ZEPIPCQueueHeader, notEmpty) == 18,
              "the queue header's offsets");

struct ZEPIPCQueueCreateParam {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPIPCQueResID queResID;  // the block's and the two semaphores' names
    Uint32 queueSize = 0;     // wanted ring size in bytes; below 5 gets 4 more, then rounded to 4
    Uint32 accessMode = 0;    // carried into the parts' parameter objects, not read here
};

class ZEPHIPCQueue {
public:
    // Makes the block and both semaphores and writes the header. A part that fails stays made as
    // far as it got: end the object with destroy(). Others may attach only after it returned.
    ZEP_EXPORT Uint32 create(const ZEPIPCQueueCreateParam* param);
    // A missing part is ECF_QUE_DOESNT_EXIST.
    ZEP_EXPORT Uint32 attach(ZEPIPCQueResID* queResID);
    // Memory, receive semaphore, send semaphore, in that order; the first failure stops.
    ZEP_EXPORT Uint32 detach();
    ZEP_EXPORT Uint32 destroy();
    // Empties the ring whoever uses it. A message in mid-transfer is dropped whole: its sender
    // stops streaming it (and succeeds), its receiver waits for the next message.
    ZEP_EXPORT Uint32 flush();
    // Sends `size` bytes; waits, with no time limit, for room.
    ZEP_EXPORT Uint32 put(const void* message, Uint32 size);
    // Receives the next message into `buffer`. `timeout` in milliseconds (-1 no limit) bounds
    // each sleep; 0 on an empty queue is ECF_QUE_INVALID_MSG_TYPE at once. A message longer than
    // `bufferSize` is ECF_QUE_MSG_TOO_BIG and stays at the head of the queue, its length stored
    // through `received`.
    ZEP_EXPORT Uint32 get(void* buffer, Uint32 bufferSize, Uint32* received, Sint32 timeout);
    // True when the ring holds a byte: a length word is enough, the body may still be coming.
    ZEP_EXPORT Bool hasMessage();
    ZEP_EXPORT Uint32 authorize(const ZEPIPCSecurityParam* param);
    Bool isAttached() const {
        return memory.isAttached() && receiveSemaphore.isAttached() && sendSemaphore.isAttached();
    }

    ZEPHIPCMemory memory;
    ZEPHIPCSemaphore receiveSemaphore;  // posted when data came and a receiver sleeps
    ZEPHIPCSemaphore sendSemaphore;     // posted when room came and a sender sleeps
    ZEPIPCQueueHeader* header = nullptr;
};

ZEP_BEGIN_C
// The largest message the system allows, or 0 when no limit is known (as here: a message may be
// of any length).
ZEP_EXPORT Uint32 zepGetMaxQueueMessageSize(void);
ZEP_END_C

#endif
