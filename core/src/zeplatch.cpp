// zeplatch.cpp - the latch's slow path, its tuning, classification, the versioned latch, and the
// two small delays.
#include "zeplatch.h"

#include "zepnumconv.h"
#include "zepos.h"

namespace {

// The tuning record is read and written with plain word accesses (relaxed atomics, which are
// that): a waiter may see it half-updated, and every mix of old and new values is safe.
ZEPSpinTune s_tune = {0, 0, 0, 0, 0};

inline Uint32 tuneLoad(const Uint32* field) {
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}
inline void tuneStore(Uint32* field, Uint32 v) {
    __atomic_store_n(field, v, __ATOMIC_RELAXED);
}

// One attempt of the slow path reads before it writes, so that waiters spinning on a held lock
// keep its cache line shared instead of bouncing it with exchanges.
inline bool attempt(ZEPLock* lock) {
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) & 0x80) return false;
    return zepAtomicLockExchange8(lock) == 0;
}

// An optimisation barrier on a value: the compiler must assume the value changed, so a loop
// that feeds it can be neither folded to its closed form nor removed.
template <class T>
inline void keep(T& v) {
    __asm__ __volatile__("" : "+r"(v));
}

const char* lockName(Sint8 v) {
    switch (v) {
        case static_cast<Sint8>(ZEPLOCK_UNLOCKED):
            return "unlocked";
        case static_cast<Sint8>(ZEPLOCK_LOCKED):
            return "locked";
        case static_cast<Sint8>(ZEPLOCK_LOCKED_WAITING):
            return "locked;waiting";
        default:
            return nullptr;
    }
}

inline Sint8 readLock(const ZEPLock* lock) {
    return static_cast<Sint8>(__atomic_load_n(lock, __ATOMIC_RELAXED));
}

inline bool tooOld(const ZEPVLatch* latch) {
    return __atomic_load_n(&latch->version, __ATOMIC_RELAXED) < ZEP_MIN_VERSION_STAMP;
}

}  // namespace

void ZEPLatch::updateSpinCounts(const ZEPSpinTune& tune) {
    tuneStore(&s_tune.spinLimit, tune.spinLimit);
    tuneStore(&s_tune.spinCount, tune.spinCount);
    tuneStore(&s_tune.spinDelay, tune.spinDelay);
    tuneStore(&s_tune.spinReserved, tune.spinReserved);
    tuneStore(&s_tune.sleepStep, tune.sleepStep);
}

void ZEPLatch::getSpinCounts(ZEPSpinTune& tune) {
    tune.spinLimit = tuneLoad(&s_tune.spinLimit);
    tune.spinCount = tuneLoad(&s_tune.spinCount);
    tune.spinDelay = tuneLoad(&s_tune.spinDelay);
    tune.spinReserved = tuneLoad(&s_tune.spinReserved);
    tune.sleepStep = tuneLoad(&s_tune.sleepStep);
}

void zepLatchTuneForProcessors() {
    zepos::SYSTEM_INFO info;
    zepos::GetSystemInfo(&info);
    const Uint32 n = info.dwNumberOfProcessors;
    // One processor: spinning only delays the holder, so waiters alternate attempts and sleeps.
    ZEPSpinTune t = {0, 0, 0, 0, 0};
    if (n == 2) {
        t.spinLimit = 2, t.spinCount = 10, t.spinDelay = 50;
    } else if (n == 3 || n == 4) {
        t.spinLimit = 5, t.spinCount = 20, t.spinDelay = 50;
    } else if (n >= 5) {
        t.spinLimit = 5, t.spinCount = 30, t.spinDelay = 50;
    }
    ZEPLatch::updateSpinCounts(t);
}

Uint32 zepLockGetConflict(ZEPLock* lock) {
    Uint32 ms = 1;
    Uint32 d = 1;
    for (;;) {
        const Uint32 spins = tuneLoad(&s_tune.spinCount);
        for (Uint32 i = 0; i < spins; ++i) {
            if (attempt(lock)) return 1;
            if (d != 0) {
                zepos::YieldProcessor();
                d = 1;
                for (Uint32 k = 1; k < tuneLoad(&s_tune.spinDelay); ++k) {
                    d += 5 * k;
                    keep(d);
                }
            }
        }
        if (attempt(lock)) return 1;
        zepos::Sleep(ms);
        const Uint32 step = tuneLoad(&s_tune.sleepStep);
        ms += step;
        if (ms > 8 * step) ms = 1;
        if (attempt(lock)) return 1;
    }
}

Uint32 zepLockToString(const ZEPLock* lock, Char* buffer, Uint32 size) {
    const Sint8 v = readLock(lock);
    const char* name = lockName(v);
    if (buffer != nullptr)
        zepSnprintf(buffer, size, "{ 0x%02X [ %s ] }", static_cast<unsigned>(v) & 0xFFu,
                    name ? name : "corrupt");
    return name ? 0u : ECF_ZEPLOCK_CORRUPT;
}

Uint32 zepLockVerify(const ZEPLock* lock, Uint32 expectedState) {
    const Sint8 v = readLock(lock);
    if (lockName(v) == nullptr) return ECF_ZEPLOCK_CORRUPT;
    if (expectedState == ZEPLOCK_VERIFY_FREE && v != 0) return ECF_ZEPLOCK_CORRUPT;
    // 0xC0 is a held lock whose waiters are marked: held is what the caller asks about.
    if (expectedState == ZEPLOCK_VERIFY_HELD && v == 0) return ECF_ZEPLOCK_CORRUPT;
    return 0;
}

void zepVLatchInit(ZEPVLatch* latch, Uint32 /*flags*/) {
    __atomic_store_n(&latch->version, ZEP_VERSION_WORD, __ATOMIC_RELAXED);
    __atomic_store_n(&latch->lock, 0, __ATOMIC_RELEASE);
}

Uint32 zepVLatchGet(ZEPVLatch* latch) {
    if (tooOld(latch)) return ECF_INVALID_VERSION;
    zepLockGet(&latch->lock);
    return 0;
}

Uint32 zepVLatchTestGet(ZEPVLatch* latch) {
    if (tooOld(latch)) return ECF_INVALID_VERSION;
    return zepLockTestGet(&latch->lock) ? 0u : ECF_FAILED;
}

Uint32 zepVLatchRelease(ZEPVLatch* latch) {
    if (tooOld(latch)) return ECF_INVALID_VERSION;
    zepLockRelease(&latch->lock);
    return 0;
}

Sint32 zepWasteTime(Uint32 n) {
    if (n < 2) return 77;
    Uint32 r = 77, s = n;
    for (Uint32 i = 1; i < n; ++i) {
        r += s;
        s += n;
        keep(r);
    }
    return static_cast<Sint32>(r);
}

void zepYield(void) {
    zepos::Sleep(1);
}
