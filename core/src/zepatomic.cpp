// zepatomic.cpp - the exported atomic family, ZEPVAtomicSigned32 and the tick-register test.
//
// Each exported function is its inline form and nothing more, so that the library's own fast
// paths (which use the inline forms) and outside callers run the same instruction.
#include "zepatomic.h"

#include "zepos.h"

Uint8 zepWin32Lock8ExchangeInternal(volatile Uint8* cell) {
    return zepAtomicLockExchange8(cell);
}

Uint32 zepWin32Lock8TestGetInternal(volatile Uint8* cell) {
    return zepAtomicLockTestGet8(cell);
}

void zepWin32Lock8ReleaseInternal(volatile Uint8* cell) {
    zepAtomicLockRelease8(cell);
}

Uint8 zepWin32Lock8ReleaseAndReturnInternal(volatile Uint8* cell) {
    return zepAtomicLockReleaseAndReturn8(cell);
}

Uint32 zepWin32AtomicExchange8Internal(volatile Uint8* cell, Uint8 newValue) {
    return zepAtomicExchange8(cell, newValue);
}

Uint32 zepWin32AtomicExchange32Internal(volatile Uint32* cell, Uint32 newValue) {
    return zepAtomicExchange32(cell, newValue);
}

Uint32 zepWin32FetchAndAdd32Internal(volatile Uint32* cell, Sint32 delta) {
    return zepAtomicFetchAndAdd32(cell, delta);
}

Uint8 zepWin32CompareSwapAndReturn8Internal(volatile Uint8* cell, Uint8 newValue, Uint8 expected) {
    return zepAtomicCompareSwapAndReturn8(cell, newValue, expected);
}

Uint16 zepWin32CompareSwapAndReturn16Internal(volatile Uint16* cell, Uint16 newValue,
                                              Uint16 expected) {
    return zepAtomicCompareSwapAndReturn16(cell, newValue, expected);
}

Uint32 zepWin32CompareSwapAndReturn32Internal(volatile Uint32* cell, Uint32 newValue,
                                              Uint32 expected) {
    return zepAtomicCompareSwapAndReturn32(cell, newValue, expected);
}

Uint32 zepWin32CompareSwapAndReturn64Internal(volatile Uint64* cell, Uint64* expected,
                                              Uint64 newValue) {
    return zepAtomicCompareSwapAndReturn64(cell, expected, newValue);
}

Uint64 zepWin32Fetch64Internal(volatile Uint64* cell) {
    return zepAtomicFetch64(cell);
}

// ---- ZEPVAtomicSigned32

namespace {

// The version word may be written by init in one thread while another already tests it; a
// relaxed load is the plain load it is on every processor, and keeps that race defined.
inline bool tooOld(const Uint32* version) {
    return __atomic_load_n(version, __ATOMIC_RELAXED) < ZEP_MIN_VERSION_STAMP;
}

inline volatile Uint32* cellOf(Sint32* value) {
    return reinterpret_cast<volatile Uint32*>(value);
}

}  // namespace

void ZEPVAtomicSigned32::init(Sint32 newValue, Uint32 flags) {
    __atomic_store_n(&version, ZEP_VERSION_WORD, __ATOMIC_RELAXED);
    if ((flags & ZEP_VATOMIC_KEEP_VALUE) == 0) __atomic_store_n(&value, newValue, __ATOMIC_RELAXED);
}

Uint32 ZEPVAtomicSigned32::size() const {
    return static_cast<Uint32>(sizeof value);
}

Uint32 ZEPVAtomicSigned32::peek(Sint32* out) const {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    *out = __atomic_load_n(&value, __ATOMIC_ACQUIRE);
    return 0;
}

Uint32 ZEPVAtomicSigned32::add(Sint32 delta, Sint32* previous) {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    *previous = static_cast<Sint32>(zepAtomicFetchAndAdd32(cellOf(&value), delta));
    return 0;
}

Uint32 ZEPVAtomicSigned32::increment(Sint32* previous) {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    *previous = static_cast<Sint32>(zepAtomicFetchAndIncrement32(cellOf(&value)));
    return 0;
}

Uint32 ZEPVAtomicSigned32::decrement(Sint32* previous) {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    *previous = static_cast<Sint32>(zepAtomicFetchAndDecrement32(cellOf(&value)));
    return 0;
}

Uint32 ZEPVAtomicSigned32::swap(Sint32 newValue, Sint32* previous) {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    *previous =
        static_cast<Sint32>(zepAtomicExchange32(cellOf(&value), static_cast<Uint32>(newValue)));
    return 0;
}

Uint32 ZEPVAtomicSigned32::compareAndSwap(Sint32 expected, Sint32 newValue) {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    return zepAtomicCompareAndSwap32(cellOf(&value), static_cast<Uint32>(newValue),
                                     static_cast<Uint32>(expected))
               ? 0u
               : ECF_FAILED;
}

Uint32 ZEPVAtomicSigned32::poke(Sint32 newValue) {
    if (tooOld(&version)) return ECF_INVALID_VERSION;
    __atomic_store_n(&value, newValue, __ATOMIC_RELEASE);
    return 0;
}

Uint32 ZEPVAtomicSigned32::compare(Sint32 expected) {
    return compareAndSwap(expected, expected);
}

// ---- the tick register

namespace {

// Plain bytes, as the once-only test is idempotent: two threads that both pass it reach the same
// answer. Relaxed accesses keep that benign race defined.
Bool s_tickRegisterTested = 0;
Uint32 s_canUseRegister = 0;

}  // namespace

void zepTickRegisterTest() {
    if (__atomic_load_n(&s_tickRegisterTested, __ATOMIC_RELAXED)) return;
    __atomic_store_n(&s_tickRegisterTested, 1, __ATOMIC_RELAXED);

    zepos::SYSTEM_INFO info;
    zepos::GetSystemInfo(&info);
    // Processors before the fifth generation have no time-stamp counter worth trusting.
    if (info.wProcessorLevel < 5) return;
    Uint32 regs[4];
    zepos::Cpuid(1, regs);
    const Uint32 TSC_PRESENT = 1u << 4;
    if (regs[3] & TSC_PRESENT) __atomic_store_n(&s_canUseRegister, 1u, __ATOMIC_RELAXED);
}

Uint32 zepCanUseRegister(void) {
    return __atomic_load_n(&s_canUseRegister, __ATOMIC_RELAXED);
}
