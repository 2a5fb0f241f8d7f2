// zepos_sync.cpp - semaphores and events: futex words in a named object's block.
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "zepos.h"
#include "zepos_sync.h"

namespace zepos {

namespace {

// ---- futex words

Uint32 load(const Uint32* w) {
    return __atomic_load_n(w, __ATOMIC_SEQ_CST);
}

bool cas(Uint32* w, Uint32& expected, Uint32 desired) {
    return __atomic_compare_exchange_n(w, &expected, desired, false, __ATOMIC_SEQ_CST,
                                       __ATOMIC_SEQ_CST);
}

// Wakes up to n sleepers on the word, in any process. Shared futexes (no private flag): the
// block is mapped by every user of the object.
void wake(Uint32* word, int n) {
    syscall(SYS_futex, word, FUTEX_WAKE, n, nullptr, nullptr, 0);
}

// The end of a wait on the monotonic clock, or none for INFINITE.
struct Deadline {
    bool infinite;
    struct timespec at;
    explicit Deadline(Uint32 ms) : infinite(ms == INFINITE), at{} {
        if (infinite) return;
        clock_gettime(CLOCK_MONOTONIC, &at);
        at.tv_sec += ms / 1000;
        at.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
        if (at.tv_nsec >= 1000000000L) at.tv_sec += 1, at.tv_nsec -= 1000000000L;
    }
};

enum class Slept { Woken, TimedOut, Failed };

// Sleeps while *word holds `expected`, until woken or the deadline. The bitset form takes an
// absolute time on the monotonic clock, so an interrupted sleep resumes towards the same end and
// a signal never lengthens or restarts the wait. A word that changed before the kernel looked
// counts as a wake-up: the caller looks again.
Slept sleepOn(Uint32* word, Uint32 expected, const Deadline& d) {
    for (;;) {
        long r = syscall(SYS_futex, word, FUTEX_WAIT_BITSET, expected, d.infinite ? nullptr : &d.at,
                         nullptr, FUTEX_BITSET_MATCH_ANY);
        if (r == 0) return Slept::Woken;
        if (errno == EAGAIN) return Slept::Woken;
        if (errno == EINTR) return Slept::Woken;  // the caller re-tests, then sleeps on
        if (errno == ETIMEDOUT) return Slept::TimedOut;
        SetLastErrorFromErrno();
        return Slept::Failed;
    }
}

// ---- semaphore

bool semTake(SemaphoreBlock* b) {
    Uint32 c = load(&b->count);
    while (c != 0)
        if (cas(&b->count, c, c - 1)) return true;
    return false;
}

// ---- event

// An automatic event's set bit, taken by one waiter only.
bool eventTake(EventBlock* b) {
    Uint32 s = load(&b->state);
    while (s & 1u)
        if (cas(&b->state, s, s & ~1u)) return true;
    return false;
}

// ---- handles

struct SyncRecord {
    HandleRecord head;
    NamedObject* object;
    void* block;
};

BOOL closeSync(HandleRecord* h) {
    SyncRecord* r = reinterpret_cast<SyncRecord*>(h);
    NamedClose(r->object);
    return FreeRecord(h);
}

Uint32 waitSemaphore(HandleRecord* h, Uint32 ms) {
    return SemaphoreBlockWait(static_cast<SemaphoreBlock*>(reinterpret_cast<SyncRecord*>(h)->block),
                              ms);
}

Uint32 waitEvent(HandleRecord* h, Uint32 ms) {
    return EventBlockWait(static_cast<EventBlock*>(reinterpret_cast<SyncRecord*>(h)->block), ms);
}

// The handle of an object that NamedCreate or NamedOpen gave, with the last error they left
// (183 for an existing object) standing on success.
HANDLE handleFor(NamedObject* o, Uint32 kind, size_t blockBytes) {
    if (o == nullptr) return nullptr;
    const Uint32 err = GetLastError();
    void* block = NamedBlock(o);
    if (block == nullptr) {
        const Uint32 mapErr = GetLastError();
        NamedClose(o);
        SetLastError(mapErr);
        return nullptr;
    }
    if (NamedBytes(o) < blockBytes) {  // an object of this kind made by something else
        NamedClose(o);
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    SyncRecord* r = static_cast<SyncRecord*>(malloc(sizeof(SyncRecord)));
    if (r == nullptr) {
        NamedClose(o);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    r->head.magic = HANDLE_MAGIC;
    r->head.kind = kind;
    r->head.close = closeSync;
    r->head.wait = kind == HANDLE_KIND_SEMAPHORE ? waitSemaphore : waitEvent;
    r->object = o;
    r->block = block;
    HANDLE h = HandleFor(&r->head);
    if (h == nullptr) {  // no handle to be had (8)
        NamedClose(o);
        free(r);
        return nullptr;
    }
    SetLastError(err);
    return h;
}

void* blockOf(HANDLE h, Uint32 kind) {
    HandleRecord* r = HandleOfKind(h, kind);
    return r ? reinterpret_cast<SyncRecord*>(r)->block : nullptr;
}

struct SemaphoreArgs {
    Sint32 initial, maximum;
};
void initSemaphore(void* block, void* arg) {
    const SemaphoreArgs* a = static_cast<const SemaphoreArgs*>(arg);
    SemaphoreBlockInit(static_cast<SemaphoreBlock*>(block), a->initial, a->maximum);
}

struct EventArgs {
    BOOL manualReset, initialState;
};
void initEvent(void* block, void* arg) {
    const EventArgs* a = static_cast<const EventArgs*>(arg);
    EventBlockInit(static_cast<EventBlock*>(block), a->manualReset, a->initialState);
}

}  // namespace

// ---- semaphore blocks

BOOL SemaphoreBlockInit(SemaphoreBlock* b, Sint32 initialCount, Sint32 maximumCount) {
    if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    b->maximum = static_cast<Uint32>(maximumCount);
    b->waiters = 0;
    b->reserved = 0;
    __atomic_store_n(&b->count, static_cast<Uint32>(initialCount), __ATOMIC_SEQ_CST);
    return 1;
}

BOOL SemaphoreBlockRelease(SemaphoreBlock* b, Sint32 releaseCount, Sint32* previousCount) {
    if (releaseCount <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const Uint32 n = static_cast<Uint32>(releaseCount);
    const Uint32 max = load(&b->maximum);
    Uint32 c = load(&b->count);
    do {
        if (c > max || n > max - c) {
            SetLastError(ERROR_TOO_MANY_POSTS);
            return 0;
        }
    } while (!cas(&b->count, c, c + n));
    if (previousCount) *previousCount = static_cast<Sint32>(c);
    // The waiter counts itself before it looks at the count, and both are sequentially
    // consistent: either it sees the new count, or this sees it and wakes it.
    if (load(&b->waiters) != 0) wake(&b->count, n > INT_MAX ? INT_MAX : static_cast<int>(n));
    return 1;
}

Uint32 SemaphoreBlockWait(SemaphoreBlock* b, Uint32 milliseconds) {
    if (semTake(b)) return WAIT_OBJECT_0;
    if (milliseconds == 0) return WAIT_TIMEOUT;
    const Deadline d(milliseconds);
    __atomic_add_fetch(&b->waiters, 1, __ATOMIC_SEQ_CST);
    Uint32 result = WAIT_TIMEOUT;
    for (;;) {
        if (semTake(b)) {
            result = WAIT_OBJECT_0;
            break;
        }
        // A wake-up that somebody else's take made pointless ends here and sleeps again.
        const Slept s = sleepOn(&b->count, 0, d);
        if (s == Slept::Failed) {
            result = WAIT_FAILED;
            break;
        }
        if (s == Slept::TimedOut) {
            result = semTake(b) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
            break;
        }
    }
    __atomic_sub_fetch(&b->waiters, 1, __ATOMIC_SEQ_CST);
    return result;
}

// ---- event blocks

void EventBlockInit(EventBlock* b, BOOL manualReset, BOOL initialState) {
    b->manualReset = manualReset ? 1u : 0u;
    b->waiters = 0;
    b->reserved = 0;
    __atomic_store_n(&b->state, initialState ? 1u : 0u, __ATOMIC_SEQ_CST);
}

void EventBlockSet(EventBlock* b) {
    Uint32 s = load(&b->state);
    while (!cas(&b->state, s, (((s >> 1) + 1) << 1) | 1u)) {
    }
    if (load(&b->waiters) != 0) wake(&b->state, load(&b->manualReset) ? INT_MAX : 1);
}

void EventBlockReset(EventBlock* b) {
    __atomic_and_fetch(&b->state, ~1u, __ATOMIC_SEQ_CST);
}

Uint32 EventBlockWait(EventBlock* b, Uint32 milliseconds) {
    const bool manual = load(&b->manualReset) != 0;
    const Uint32 start = load(&b->state);
    if (manual ? (start & 1u) != 0 : eventTake(b)) return WAIT_OBJECT_0;
    if (milliseconds == 0) return WAIT_TIMEOUT;
    const Deadline d(milliseconds);
    __atomic_add_fetch(&b->waiters, 1, __ATOMIC_SEQ_CST);
    Uint32 result = WAIT_TIMEOUT;
    for (bool last = false;;) {
        Uint32 s = load(&b->state);
        // A manual event passes if it is set, or was set at some moment since the wait began
        // (the count of sets moved): a reset right behind the set must not strand a sleeper.
        // An automatic one passes by taking the set bit; a wake-up whose set another waiter
        // took sleeps again on the word as it now stands.
        if (manual ? (s & 1u) != 0 || s != start : eventTake(b)) {
            result = WAIT_OBJECT_0;
            break;
        }
        if (last) break;
        if (!manual) {
            s = load(&b->state);
            if (s & 1u) continue;
        }
        const Slept slept = sleepOn(&b->state, s, d);
        if (slept == Slept::Failed) {
            result = WAIT_FAILED;
            break;
        }
        last = slept == Slept::TimedOut;  // one more look: a set may have come with the end
    }
    __atomic_sub_fetch(&b->waiters, 1, __ATOMIC_SEQ_CST);
    return result;
}

// ---- the stand-ins

HANDLE CreateSemaphoreA(const void* securityAttributes, Sint32 initialCount, Sint32 maximumCount,
                        const char* name) {
    if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SemaphoreArgs a{initialCount, maximumCount};
    return handleFor(NamedCreate(NamedKind::Semaphore, name, sizeof(SemaphoreBlock),
                                 securityAttributes, initSemaphore, &a),
                     HANDLE_KIND_SEMAPHORE, sizeof(SemaphoreBlock));
}

HANDLE OpenSemaphoreA(Uint32, BOOL inheritHandle, const char* name) {
    return handleFor(NamedOpen(NamedKind::Semaphore, name, inheritHandle), HANDLE_KIND_SEMAPHORE,
                     sizeof(SemaphoreBlock));
}

BOOL ReleaseSemaphore(HANDLE semaphore, Sint32 releaseCount, Sint32* previousCount) {
    void* b = blockOf(semaphore, HANDLE_KIND_SEMAPHORE);
    if (b == nullptr) return 0;
    return SemaphoreBlockRelease(static_cast<SemaphoreBlock*>(b), releaseCount, previousCount);
}

HANDLE CreateEventA(const void* securityAttributes, BOOL manualReset, BOOL initialState,
                    const char* name) {
    EventArgs a{manualReset, initialState};
    return handleFor(
        NamedCreate(NamedKind::Event, name, sizeof(EventBlock), securityAttributes, initEvent, &a),
        HANDLE_KIND_EVENT, sizeof(EventBlock));
}

HANDLE OpenEventA(Uint32, BOOL inheritHandle, const char* name) {
    return handleFor(NamedOpen(NamedKind::Event, name, inheritHandle), HANDLE_KIND_EVENT,
                     sizeof(EventBlock));
}

BOOL SetEvent(HANDLE event) {
    void* b = blockOf(event, HANDLE_KIND_EVENT);
    if (b == nullptr) return 0;
    EventBlockSet(static_cast<EventBlock*>(b));
    return 1;
}

BOOL ResetEvent(HANDLE event) {
    void* b = blockOf(event, HANDLE_KIND_EVENT);
    if (b == nullptr) return 0;
    EventBlockReset(static_cast<EventBlock*>(b));
    return 1;
}

}  // namespace zepos
