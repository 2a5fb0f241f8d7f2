// zeplatch.h - the one-byte latch (ZEPLock), its tuned slow path, and the versioned latch.
//
// A ZEPLock is a byte: 0x00 free, 0x80 held, 0xC0 held with waiters (shown and accepted, written
// by nothing), anything else corrupt. Zeroed memory is a free lock, so a lock needs no
// initialisation and works unchanged in shared memory between processes. It has no owner, no
// time-out and no recursion: a second get by the holder waits for ever, and a holder that dies
// leaves it held. Hold it across nothing that may block for long; waiters only spin and sleep.
//
// Nothing here traces, logs or allocates.
#ifndef ZEPLATCH_H
#define ZEPLATCH_H

#include <stddef.h>

#include "zeptypes.h"
#include "zepecf.h"
#include "zepatomic.h"

typedef Uint8 ZEPLock;

#define ZEPLOCK_UNLOCKED 0x00
#define ZEPLOCK_LOCKED 0x80
#define ZEPLOCK_LOCKED_WAITING 0xC0

// The expected states of zepLockVerify.
#define ZEPLOCK_VERIFY_ANY 0u
#define ZEPLOCK_VERIFY_FREE 1u
#define ZEPLOCK_VERIFY_HELD 2u

// The tuning of the slow path. One process-wide instance: all zero until the start-up pass
// sets it from the processor count, and read afresh in every round of every waiter, so that a
// change reaches those already waiting.
struct ZEPSpinTune {
    Uint32 spinLimit;     // carried, not read by the slow path
    Uint32 spinCount;     // attempts in one spin burst
    Uint32 spinDelay;     // bound of the delay loop between two attempts
    Uint32 spinReserved;  // carried, not read
    Uint32 sleepStep;     // milliseconds added to the sleep after each round
};

static_assert(sizeof(ZEPSpinTune) == 20, "five words");
static_assert(offsetof(ZEPSpinTune, spinCount) == 4 && offsetof(ZEPSpinTune, spinDelay) == 8 &&
                  offsetof(ZEPSpinTune, spinReserved) == 12 &&
                  offsetof(ZEPSpinTune, sleepStep) == 16,
              "ZEPSpinTune's fields in order");

class ZEPLatch {
public:
    // Copies all five fields in, with no validation and no lock: every value is safe, also
    // half-written.
    ZEP_EXPORT static void updateSpinCounts(const ZEPSpinTune& tune);
    ZEP_EXPORT static void getSpinCounts(ZEPSpinTune& tune);
};

// The versioned latch for callers outside the library.
struct ZEPVLatch {
    Uint32 version;
    ZEPLock lock;
};

static_assert(sizeof(ZEPVLatch) == 8, "ZEPVLatch is a word and a padded byte");
static_assert(offsetof(ZEPVLatch, lock) == 4, "the lock byte follows the version word");

ZEP_BEGIN_C

// The slow path: spins, pauses and sleeps until the lock is held. Returns 1, and only then.
ZEP_EXPORT Uint32 zepLockGetConflict(ZEPLock* lock);

// Classifies the byte ("unlocked", "locked", "locked;waiting", "corrupt") and, for a non-null
// buffer, formats "{ 0x%02X [ %s ] }" into it under `size`. ECF_ZEPLOCK_CORRUPT for a corrupt
// byte, else 0.
ZEP_EXPORT Uint32 zepLockToString(const ZEPLock* lock, Char* buffer, Uint32 size);

// ECF_ZEPLOCK_CORRUPT for a corrupt byte, or for a byte not in the expected state:
// ZEPLOCK_VERIFY_FREE asks for 0x00, ZEPLOCK_VERIFY_HELD for a held lock, 0x80 or 0xC0 (a lock
// with waiters is held). Any other state accepts every valid byte.
ZEP_EXPORT Uint32 zepLockVerify(const ZEPLock* lock, Uint32 expectedState);

// Writes the version word, then a free lock byte; `flags` isn't read.
ZEP_EXPORT void zepVLatchInit(ZEPVLatch* latch, Uint32 flags);
// ECF_INVALID_VERSION (lock untouched), or 0 once the latch is held.
ZEP_EXPORT Uint32 zepVLatchGet(ZEPVLatch* latch);
// ECF_INVALID_VERSION; 0 if taken; ECF_FAILED if it was held (and it stays held).
ZEP_EXPORT Uint32 zepVLatchTestGet(ZEPVLatch* latch);
// ECF_INVALID_VERSION, or 0 with the lock byte cleared, whoever held it.
ZEP_EXPORT Uint32 zepVLatchRelease(ZEPVLatch* latch);

// Busy work that takes longer as n grows and whose result depends on every round: 77 for n
// below 2, else 77 plus n + 2n + ... + (n-1)n, wrapping at 32 bits.
ZEP_EXPORT Sint32 zepWasteTime(Uint32 n);

// Gives up the processor by sleeping one millisecond.
ZEP_EXPORT void zepYield(void);

ZEP_END_C

// ---- a bare ZEPLock: the free path is one exchange and one test, inline

inline void zepLockGet(ZEPLock* lock) {
    if (zepAtomicLockExchange8(lock) != 0) zepLockGetConflict(lock);
}

// True if the lock was free and is now held by the caller. The exchange is unconditional, so a
// corrupt byte found there is replaced by 0x80.
inline bool zepLockTestGet(ZEPLock* lock) {
    return zepAtomicLockExchange8(lock) == 0;
}

inline void zepLockRelease(ZEPLock* lock) {
    zepAtomicLockRelease8(lock);
}

// ---- library-internal

#ifdef ZEP_BUILDING_LIBRARY
// The start-up pass's latch tuning from the processor count.
void zepLatchTuneForProcessors();
#endif

#endif
