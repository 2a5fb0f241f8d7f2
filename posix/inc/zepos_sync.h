// zepos_sync.h - semaphores and events of the OS layer, on the named-object layer.
//
// A semaphore or an event is a named object (zepos_named.h) whose block holds futex words.
// Waiters sleep in the kernel on those words; the futexes are shared ones (no private flag), so a
// post in one process wakes a waiter in another that has the block mapped at any address.
//
// What the stand-ins honour of the platform's contracts:
//  - Creating a name that exists opens the existing object with the last error 183; its count,
//    maximum or reset mode stay as they are and the arguments of the second creator are not
//    read. Opening a missing name fails with 2. A null name makes an unnamed object.
//  - A semaphore counts from 0 to its maximum. A release that would pass the maximum fails with
//    ERROR_TOO_MANY_POSTS and leaves the count as it was.
//  - An automatic-reset event lets exactly one waiter pass per set and is then clear; a
//    manual-reset event lets every waiter pass until it is reset. Every waiter that was asleep
//    when a manual event was set passes, even if the event is reset before it runs.
//  - WaitForSingleObject (zepos_file.h) on either kind: 0 passed, 258 the time ran out,
//    WAIT_FAILED with the last error. The time is measured on the monotonic clock from the start
//    of the call; a signal or a wake-up that another waiter took does not restart it, the waiter
//    sleeps again for the rest of its time.
//
// The block functions below are the whole logic of the two kinds, on a block anywhere in memory
// that every user maps shared; the handle stand-ins only find the block by name.
#ifndef ZEPOS_SYNC_H
#define ZEPOS_SYNC_H

#include <stddef.h>

#include "zeptypes.h"

namespace zepos {

enum : Uint32 {
    ERROR_TOO_MANY_POSTS = 298,
    SEMAPHORE_ALL_ACCESS = 0x1F0003,
    EVENT_ALL_ACCESS = 0x1F0003,
};

// ---- the blocks (formats: every process that shares an object reads them alike)

// `count` is the futex word: waiters sleep while it is 0. `waiters` counts those that are about
// to sleep or asleep, so that a release makes a system call only when somebody may sleep.
struct SemaphoreBlock {
    Uint32 count;
    Uint32 maximum;
    Uint32 waiters;
    Uint32 reserved;
};
static_assert(sizeof(SemaphoreBlock) == 16 && offsetof(SemaphoreBlock, maximum) == 4 &&
                  offsetof(SemaphoreBlock, waiters) == 8,
              "the semaphore block is four words");

// `state` is the futex word: bit 0 set while the event is set, the bits above count the sets.
// A waiter that sees the count move while it slept knows that a set came in between, which is
// how a manual event's waiters all pass even when a reset follows the set at once.
struct EventBlock {
    Uint32 state;
    Uint32 manualReset;
    Uint32 waiters;
    Uint32 reserved;
};
static_assert(sizeof(EventBlock) == 16 && offsetof(EventBlock, manualReset) == 4 &&
                  offsetof(EventBlock, waiters) == 8,
              "the event block is four words");

// A fresh block; a bad initial count or maximum fails with 87 before anything is written.
BOOL SemaphoreBlockInit(SemaphoreBlock* block, Sint32 initialCount, Sint32 maximumCount);
// Adds `releaseCount` (1 or more, else 87) and wakes as many sleepers; the count before goes to
// `previousCount` if given. Past the maximum: ERROR_TOO_MANY_POSTS, count unchanged.
BOOL SemaphoreBlockRelease(SemaphoreBlock* block, Sint32 releaseCount, Sint32* previousCount);
// Takes one from the count: WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED with the last error.
Uint32 SemaphoreBlockWait(SemaphoreBlock* block, Uint32 milliseconds);

void EventBlockInit(EventBlock* block, BOOL manualReset, BOOL initialState);
void EventBlockSet(EventBlock* block);
void EventBlockReset(EventBlock* block);
Uint32 EventBlockWait(EventBlock* block, Uint32 milliseconds);

// ---- the stand-ins

// `securityAttributes` as for NamedCreate. Null on failure: 87 for a maximum below 1 or an
// initial count outside 0..maximum.
HANDLE CreateSemaphoreA(const void* securityAttributes, Sint32 initialCount, Sint32 maximumCount,
                        const char* name);
HANDLE OpenSemaphoreA(Uint32 desiredAccess, BOOL inheritHandle, const char* name);
BOOL ReleaseSemaphore(HANDLE semaphore, Sint32 releaseCount, Sint32* previousCount);

HANDLE CreateEventA(const void* securityAttributes, BOOL manualReset, BOOL initialState,
                    const char* name);
HANDLE OpenEventA(Uint32 desiredAccess, BOOL inheritHandle, const char* name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);

}  // namespace zepos

#endif
