// zepipcqueue.cpp - ZEPHIPCQueue: a byte ring in shared memory, three latches, two semaphores.
//
// The ring's contents and the header from offset 4 on are touched only under the state latch,
// which nobody holds while asleep. A put holds it from its length word to the end of its message
// except while it sleeps for room, a get from its length word to the end except while it sleeps
// for data; so a mid-message party notices what happened meanwhile only after a sleep, and that
// is where it looks at the flush count (see flush()).
#include "zepipcqueue.h"

#include <string.h>

#include "zepframe.h"
#include "zepsysinfo.h"

namespace {

Uint8* ringOf(ZEPIPCQueueHeader* h) {
    return reinterpret_cast<Uint8*>(h) + sizeof(ZEPIPCQueueHeader);
}

// Room for writing; with both offsets equal, the not-empty flag tells full (0) from empty.
Uint32 freeRoom(const ZEPIPCQueueHeader* h) {
    if (h->readOffset >= h->writeOffset && h->notEmpty) return h->readOffset - h->writeOffset;
    return h->capacity - (h->writeOffset - h->readOffset);
}

Uint32 padOf(Uint32 len) {
    return (0u - len) & 3u;
}

// Copies `len` bytes in at the write offset, wrapping at the end; the 0 to 3 bytes that follow
// up to a multiple of 4 are skipped, not written. A chunk of 0 bytes changes nothing: it must
// not mark an empty ring as holding something.
void ringWrite(ZEPIPCQueueHeader* h, const void* from, Uint32 len) {
    if (len == 0) return;
    const Uint8* src = static_cast<const Uint8*>(from);
    Uint8* ring = ringOf(h);
    const Uint32 pad = padOf(len), cap = h->capacity, w = h->writeOffset;
    if (w + len + pad > cap) {
        const Uint32 first = cap - w;
        memcpy(ring + w, src, first);
        memcpy(ring, src + first, len - first);
        h->writeOffset = pad + (len - first);
    } else {
        memcpy(ring + w, src, len);
        h->writeOffset = w + len + pad;
    }
    if (h->writeOffset == cap) h->writeOffset = 0;
    h->notEmpty = 1;
}

void ringRead(ZEPIPCQueueHeader* h, void* to, Uint32 len) {
    if (len == 0) return;
    Uint8* dst = static_cast<Uint8*>(to);
    const Uint8* ring = ringOf(h);
    const Uint32 pad = padOf(len), cap = h->capacity, r = h->readOffset;
    if (r + len + pad > cap) {
        const Uint32 first = cap - r;
        memcpy(dst, ring + r, first);
        memcpy(dst + first, ring, len - first);
        h->readOffset = pad + (len - first);
    } else {
        memcpy(dst, ring + r, len);
        h->readOffset = r + len + pad;
    }
    if (h->readOffset == cap) h->readOffset = 0;
    if (h->readOffset == h->writeOffset) h->notEmpty = 0;
}

// One put or get: the state latch it holds, and the post it owes the other side. A sleeper on
// the other side is marked for waking under the latch (its flag cleared), and posted only once
// the latch is released: a sleeper woken while the latch is still held would find it taken at
// once and spin or sleep on it.
struct Side {
    ZEPIPCQueueHeader* h;
    ZEPHIPCSemaphore& other;  // the semaphore the other side sleeps on
    bool held = true;
    bool owed = false;

    void note(Uint8* otherFlag) {
        if (*otherFlag == 0) return;
        *otherFlag = 0;
        owed = true;
    }
    // Releases the state latch and pays what is owed.
    Uint32 release() {
        if (held) zepLockRelease(&h->stateLatch);
        held = false;
        if (!owed) return 0;
        owed = false;
        return other.post();
    }
    // Raises this side's flag and sleeps; the latch is held again after a successful wait.
    // `postFailed` tells a failed post of the other side from a failed wait.
    Uint32 sleep(Uint8* flag, ZEPHIPCSemaphore& mine, Uint32 timeout, bool* postFailed) {
        *flag = 1;
        Uint32 rc = release();
        *postFailed = rc != 0;
        if (rc != 0) return rc;
        ZEPIPCSemaphoreWaitParam w(timeout);
        rc = mine.wait(&w);
        if (rc == 0) {
            zepLockGet(&h->stateLatch);
            held = true;
        }
        return rc;
    }
};

// Empties the ring and counts a flush, so that whoever is in mid-message drops that message.
void emptyRing(ZEPIPCQueueHeader* h) {
    h->writeOffset = 0;
    h->readOffset = 0;
    h->notEmpty = 0;
    h->flushCount = static_cast<Uint8>(h->flushCount + 1);
}

ZepLogItem logHandle(void* const* h) {
    return ZepLogItem{h, sizeof(void*), ZEP_LOGDATA_HEX};
}

// Step by step, the part of create, attach, detach or destroy that failed.
struct Step {
    ZepFrame& f;
    Uint32 fail(Uint32 rc, Uint16 probe, Uint32 calledId) {
        f.failNested(rc, probe, ZEP_LOG_INFO, calledId, rc, 0);
        return f.exit();
    }
};

}  // namespace

Uint32 ZEPHIPCQueue::create(const ZEPIPCQueueCreateParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_create);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(&param->queResID), ZepTrcObj(&param->queueSize));
    Step step{f};

    // Below 5 bytes a ring couldn't hold a length word and a byte, so it gets 4 more.
    Uint32 ringSize = param->queueSize;
    if (ringSize < 5) ringSize += 4;
    ringSize = (ringSize + 3u) & ~3u;

    ZEPIPCMemoryCreateParam m;
    m.resID = param->queResID.memory;
    m.memorySize = ringSize + static_cast<Uint32>(sizeof(ZEPIPCQueueHeader));
    m.address = nullptr;
    m.accessMode = param->accessMode;
    m.flags = 0;
    Uint32 rc = memory.create(&m);
    if (rc != 0) return step.fail(rc, 50, ZEPFN_ZEPHIPCMemory_create);

    ZEPIPCSemaphoreCreateParam s;
    s.initialValue = 1;
    s.accessMode = param->accessMode;
    s.resID = param->queResID.receiveSemaphore;
    rc = receiveSemaphore.create(&s);
    if (rc != 0) return step.fail(rc, 60, ZEPFN_ZEPHIPCSemaphore_create);
    s.resID = param->queResID.sendSemaphore;
    rc = sendSemaphore.create(&s);
    if (rc != 0) return step.fail(rc, 70, ZEPFN_ZEPHIPCSemaphore_create);

    const ZEPIPCSemaphoreWaitParam forever(ZEP_IPC_WAIT_FOREVER);
    rc = receiveSemaphore.wait(&forever);
    if (rc != 0) return step.fail(rc, 80, ZEPFN_ZEPHIPCSemaphore_wait);
    rc = sendSemaphore.wait(&forever);
    if (rc != 0) return step.fail(rc, 90, ZEPFN_ZEPHIPCSemaphore_wait);

    void* address = nullptr;
    rc = memory.getAddress(&address);
    if (rc != 0) return step.fail(rc, 100, ZEPFN_ZEPHIPCMemory_getAddress);
    header = static_cast<ZEPIPCQueueHeader*>(address);
    memset(header, 0, sizeof(ZEPIPCQueueHeader));
    header->capacity = ringSize;
    return f.exit();
}

Uint32 ZEPHIPCQueue::attach(ZEPIPCQueResID* queResID) {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_attach);
    Step step{f};
    Uint32 rc = memory.attach(&queResID->memory, nullptr);
    if (rc == ECF_MEM_DOESNT_EXIST) rc = ECF_QUE_DOESNT_EXIST;
    if (rc != 0) return step.fail(rc, 40, ZEPFN_ZEPHIPCMemory_attach);
    rc = receiveSemaphore.attach(&queResID->receiveSemaphore);
    if (rc == ECF_SEM_DOESNT_EXIST || rc == ECF_FILE_DOESNT_EXIST) rc = ECF_QUE_DOESNT_EXIST;
    if (rc != 0) return step.fail(rc, 50, ZEPFN_ZEPHIPCSemaphore_attach);
    rc = sendSemaphore.attach(&queResID->sendSemaphore);
    if (rc == ECF_SEM_DOESNT_EXIST || rc == ECF_FILE_DOESNT_EXIST) rc = ECF_QUE_DOESNT_EXIST;
    if (rc != 0) return step.fail(rc, 60, ZEPFN_ZEPHIPCSemaphore_attach);
    void* address = nullptr;
    rc = memory.getAddress(&address);
    if (rc != 0) return step.fail(rc, 70, ZEPFN_ZEPHIPCMemory_getAddress);
    header = static_cast<ZEPIPCQueueHeader*>(address);
    f.traceData(80, ZepTrcObj(&header), ZepTrcBlock{header, sizeof(ZEPIPCQueueHeader)});
    return f.exit();
}

Uint32 ZEPHIPCQueue::detach() {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_detach);
    Step step{f};
    Uint32 rc = memory.detach();
    if (rc != 0) return step.fail(rc, 30, ZEPFN_ZEPHIPCMemory_detach);
    rc = receiveSemaphore.detach();
    if (rc != 0) return step.fail(rc, 40, ZEPFN_ZEPHIPCSemaphore_detach);
    rc = sendSemaphore.detach();
    if (rc != 0) return step.fail(rc, 50, ZEPFN_ZEPHIPCSemaphore_detach);
    header = nullptr;
    return f.exit();
}

Uint32 ZEPHIPCQueue::destroy() {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_destroy);
    Step step{f};
    Uint32 rc = memory.destroy();
    if (rc != 0) return step.fail(rc, 40, ZEPFN_ZEPHIPCMemory_destroy);
    rc = receiveSemaphore.destroy();
    if (rc != 0) return step.fail(rc, 50, ZEPFN_ZEPHIPCSemaphore_destroy);
    rc = sendSemaphore.destroy();
    if (rc != 0) return step.fail(rc, 60, ZEPFN_ZEPHIPCSemaphore_destroy);
    return f.exit();
}

Uint32 ZEPHIPCQueue::flush() {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_flush);
    ZEPIPCQueueHeader* h = header;
    zepLockGet(&h->stateLatch);
    // A message in mid-transfer goes with the rest: its sender and receiver see the count move
    // after their next sleep, and drop it (the sender stops streaming, the receiver waits for
    // the next whole message). So the stream stays framed.
    emptyRing(h);
    const bool receiver = h->receiverWaiting != 0, sender = h->senderWaiting != 0;
    h->receiverWaiting = 0;
    h->senderWaiting = 0;
    zepLockRelease(&h->stateLatch);
    Uint32 rc = receiver ? receiveSemaphore.post() : 0;
    if (rc != 0) {
        f.failNested(rc, 40, ZEP_LOG_INFO, ZEPFN_ZEPHIPCSemaphore_post, rc, ZEP_LOG_ARGS(1),
                     logHandle(&receiveSemaphore.handle));
    } else if ((rc = sender ? sendSemaphore.post() : 0) != 0) {
        f.failNested(rc, 50, ZEP_LOG_INFO, ZEPFN_ZEPHIPCSemaphore_post, rc, ZEP_LOG_ARGS(1),
                     logHandle(&sendSemaphore.handle));
    }
    return f.exit();
}

Uint32 ZEPHIPCQueue::put(const void* message, Uint32 size) {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_put);
    ZEPIPCQueueHeader* h = header;
    const Uint8* src = static_cast<const Uint8*>(message);
    zepLockGet(&h->sendLatch);
    zepLockGet(&h->stateLatch);
    Side me{h, receiveSemaphore};

    Uint32 rc = 0;
    Uint16 probe = 0;
    bool postFailed = false;
    // Room for the length word. Only a post of a receiver or of a flush wakes a sender, and
    // either leaves room; the loop is there all the same.
    while (freeRoom(h) < 4) {
        rc = me.sleep(&h->senderWaiting, sendSemaphore, ZEP_IPC_WAIT_FOREVER, &postFailed);
        if (rc != 0) {
            probe = 50;
            break;
        }
    }
    if (probe == 0) {
        ringWrite(h, &size, 4);
        const Uint8 flushes = h->flushCount;
        // The length word alone is news to a sleeping receiver: in a ring of 4 bytes it is all
        // that fits, and the receiver must take it before the body can follow.
        me.note(&h->receiverWaiting);
        Uint32 copied = 0;
        for (;;) {
            if (freeRoom(h) == 0) {
                rc = me.sleep(&h->senderWaiting, sendSemaphore, ZEP_IPC_WAIT_FOREVER, &postFailed);
                if (rc != 0) {
                    probe = 60;
                    break;
                }
                // Flushed, or given up by a receiver whose time ran out inside it: the rest of
                // this message would arrive without its head, so it isn't sent.
                if (h->flushCount != flushes) break;
            }
            Uint32 chunk = freeRoom(h);
            if (chunk > size - copied) chunk = size - copied;
            ringWrite(h, src + copied, chunk);
            copied += chunk;
            me.note(&h->receiverWaiting);
            if (copied >= size) break;
        }
    }
    if (probe == 0) {
        rc = me.release();
        postFailed = rc != 0;
    } else {
        me.release();
    }
    zepLockRelease(&h->sendLatch);
    if (postFailed) probe = 70;
    if (rc != 0) {
        ZEPHIPCSemaphore& sem = postFailed ? receiveSemaphore : sendSemaphore;
        f.failNested(rc, probe, ZEP_LOG_INFO, 0, rc, ZEP_LOG_ARGS(3),
                     ZepLogHex(message, size < 64 ? size : 64), logHandle(&sem.handle));
    }
    return f.exit();
}

Uint32 ZEPHIPCQueue::get(void* buffer, Uint32 bufferSize, Uint32* received, Sint32 timeout) {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_get);
    ZEPIPCQueueHeader* h = header;
    Uint8* dst = static_cast<Uint8*>(buffer);
    const Uint32 wait = static_cast<Uint32>(timeout);  // -1 is no limit
    zepLockGet(&h->receiveLatch);
    zepLockGet(&h->stateLatch);
    Side me{h, sendSemaphore};
    Uint32 rc = 0;
    bool postFailed = false;

    if (!h->notEmpty && timeout == 0) {
        f.setQuietResult(ECF_QUE_INVALID_MSG_TYPE);
        f.traceError(0);
    } else {
        for (;;) {  // once per message that begins; again only after a flush took it away
            // A wake-up that finds nothing (a post left by a receiver that timed out) sleeps
            // again for the full time.
            while (!h->notEmpty) {
                rc = me.sleep(&h->receiverWaiting, receiveSemaphore, wait, &postFailed);
                if (rc != 0) break;
            }
            if (rc != 0) {
                if (postFailed)
                    f.setQuietResult(rc), f.traceError(130);
                else if (rc == ECF_TIMEOUT)
                    f.fail(rc, 80, ZEP_LOG_INFO);
                else
                    f.failNested(rc, 90, ZEP_LOG_INFO, ZEPFN_ZEPHIPCSemaphore_wait, rc, 0);
                break;
            }
            Uint32 length = 0;
            ringRead(h, &length, 4);
            if (length > bufferSize) {
                // The message stays at the head of the queue, length word and all: a get with a
                // buffer of the size now stored in `received` takes it whole.
                h->readOffset = (h->readOffset == 0 ? h->capacity : h->readOffset) - 4;
                h->notEmpty = 1;
                if (received) *received = length;
                f.failNested(ECF_QUE_MSG_TOO_BIG, 100, ZEP_LOG_INFO, 0, 0, ZEP_LOG_ARGS(3),
                             ZepLogUint(&length), ZepLogUint(&bufferSize));
                break;
            }
            // The length word freed room: a sender asleep behind it (a ring it filled, or a
            // message of 0 bytes) goes on now, not after a body that may never come.
            me.note(&h->senderWaiting);
            const Uint8 flushes = h->flushCount;
            Uint32 copied = 0;
            bool flushed = false;
            while (copied < length) {
                if (freeRoom(h) != h->capacity) {
                    Uint32 chunk = h->capacity - freeRoom(h);
                    if (chunk > length - copied) chunk = length - copied;
                    ringRead(h, dst + copied, chunk);
                    copied += chunk;
                    me.note(&h->senderWaiting);
                    continue;
                }
                rc = me.sleep(&h->receiverWaiting, receiveSemaphore, wait, &postFailed);
                if (rc == 0) {
                    if (h->flushCount != flushes) {
                        flushed = true;
                        break;
                    }
                    continue;  // a wake-up with nothing in the ring sleeps again
                }
                // Inside a message, the latch released. Whatever came meanwhile is taken; if
                // nothing came, the rest of the message is dropped the way a flush drops it,
                // so that the next get finds the next whole message and not the middle of this
                // one. (A post that failed may leave the sender asleep for good: the same.)
                zepLockGet(&h->stateLatch);
                me.held = true;
                if (h->flushCount != flushes) {
                    flushed = true;  // a flush came first: wait for the next message
                    rc = 0;
                    break;
                }
                if (!postFailed && rc == ECF_TIMEOUT && freeRoom(h) != h->capacity) {
                    rc = 0;
                    continue;
                }
                emptyRing(h);
                me.note(&h->senderWaiting);
                const Uint32 postRc = me.release();
                if (postFailed || postRc != 0) {
                    if (postRc != 0) rc = postRc;
                    f.setQuietResult(rc);
                    f.traceError(130);
                } else if (rc == ECF_TIMEOUT) {
                    f.fail(rc, 110, ZEP_LOG_INFO);
                } else {
                    f.failNested(rc, 120, ZEP_LOG_INFO, ZEPFN_ZEPHIPCSemaphore_wait, rc, 0);
                }
                break;
            }
            if (flushed) continue;  // that message is gone: wait for the next whole one
            if (rc != 0) break;
            if (received) *received = copied;
            f.traceData(140, ZepTrcObj(&copied));
            break;
        }
    }
    const Uint32 postRc = me.release();
    zepLockRelease(&h->receiveLatch);
    if (postRc != 0 && f.rc() == 0) {
        f.setQuietResult(postRc);
        f.traceError(130);
    }
    return f.exit();
}

Bool ZEPHIPCQueue::hasMessage() {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_hasMessage);
    zepLockGet(&header->stateLatch);
    const Bool v = header->notEmpty;
    zepLockRelease(&header->stateLatch);
    f.traceData(50, ZepTrcObj(&v));
    f.exit();
    return v;
}

Uint32 ZEPHIPCQueue::authorize(const ZEPIPCSecurityParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCQueue_authorize);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcBlock{param, 4});
    return f.exit();
}

namespace {

Uint32 s_maxMessageSize = 0;  // 0 until a limit is known

}  // namespace

Uint32 zepGetMaxQueueMessageSize(void) {
    const Uint32 cached = __atomic_load_n(&s_maxMessageSize, __ATOMIC_RELAXED);
    if (cached != 0) return cached;
    ZEPKernelIPCInfo info;
    const Uint32 rc = zepGetKernelIPCInfo(&info);
    if ((rc == 0 || rc == ECF_PARTIAL_INFO) && info.msgMessageSizeMax.state == 0) {
        const Uint32 size = static_cast<Uint32>(info.msgMessageSizeMax.value);
        __atomic_store_n(&s_maxMessageSize, size, __ATOMIC_RELAXED);
        return size;
    }
    return 0;
}
