// zepatomic.h - atomic operations on 8-, 16-, 32- and 64-bit cells, the versioned atomic object
// and the tick-register flag.
//
// A cell is a naturally aligned unsigned integer in private or shared memory, without a header.
// Every read-modify-write here is one locked instruction (or an exchange, whose lock is
// implicit) and a full barrier; the releases, peeks and pokes are plain aligned accesses, with
// release and acquire order for processors weaker than x86. Nothing validates, traces, logs,
// allocates or calls the system: these run inside the trace, the allocator and crash handling.
//
// Mind the argument order of the compare-and-swap family: the new value comes before the
// expected one (the 64-bit form, which writes the value found back, differs again).
#ifndef ZEPATOMIC_H
#define ZEPATOMIC_H

#include <stddef.h>
#include <stdint.h>

#include "zeptypes.h"
#include "zepecf.h"

// What the test-and-get forms answer when bit 7 was set already. Not a catalogue code: callers
// test for zero.
#define ZEP_ATOMIC_CONFLICT ((Uint32)0x870F0035u)

// The value the lock forms store, at every width.
#define ZEP_ATOMIC_LOCK_VALUE 0x80

// ---- the inline forms: the library's own fast paths, and the widths the exported names leave out

inline Uint8 zepAtomicExchange8(volatile Uint8* cell, Uint8 value) {
    return __atomic_exchange_n(cell, value, __ATOMIC_SEQ_CST);
}
inline Uint16 zepAtomicExchange16(volatile Uint16* cell, Uint16 value) {
    return __atomic_exchange_n(cell, value, __ATOMIC_SEQ_CST);
}
inline Uint32 zepAtomicExchange32(volatile Uint32* cell, Uint32 value) {
    return __atomic_exchange_n(cell, value, __ATOMIC_SEQ_CST);
}

// The value before the addition; wraps silently.
inline Uint8 zepAtomicFetchAndAdd8(volatile Uint8* cell, Uint8 delta) {
    return __atomic_fetch_add(cell, delta, __ATOMIC_SEQ_CST);
}
inline Uint16 zepAtomicFetchAndAdd16(volatile Uint16* cell, Uint16 delta) {
    return __atomic_fetch_add(cell, delta, __ATOMIC_SEQ_CST);
}
inline Uint32 zepAtomicFetchAndAdd32(volatile Uint32* cell, Sint32 delta) {
    return __atomic_fetch_add(cell, static_cast<Uint32>(delta), __ATOMIC_SEQ_CST);
}
inline Uint32 zepAtomicFetchAndIncrement32(volatile Uint32* cell) {
    return zepAtomicFetchAndAdd32(cell, 1);
}
inline Uint32 zepAtomicFetchAndDecrement32(volatile Uint32* cell) {
    return zepAtomicFetchAndAdd32(cell, -1);
}

// The value found in the cell, which equals `expected` if and only if `newValue` was stored.
#define ZEP_ATOMIC_CAS_RETURN(cell, newValue, expected)                                 \
    do {                                                                                \
        __atomic_compare_exchange_n(cell, &expected, newValue, false, __ATOMIC_SEQ_CST, \
                                    __ATOMIC_SEQ_CST);                                  \
        return expected;                                                                \
    } while (0)
inline Uint8 zepAtomicCompareSwapAndReturn8(volatile Uint8* cell, Uint8 newValue, Uint8 expected) {
    ZEP_ATOMIC_CAS_RETURN(cell, newValue, expected);
}
inline Uint16 zepAtomicCompareSwapAndReturn16(volatile Uint16* cell, Uint16 newValue,
                                              Uint16 expected) {
    ZEP_ATOMIC_CAS_RETURN(cell, newValue, expected);
}
inline Uint32 zepAtomicCompareSwapAndReturn32(volatile Uint32* cell, Uint32 newValue,
                                              Uint32 expected) {
    ZEP_ATOMIC_CAS_RETURN(cell, newValue, expected);
}
#undef ZEP_ATOMIC_CAS_RETURN

// 1 if the value found equals `expected` (and `newValue` was stored), else 0.
inline Uint32 zepAtomicCompareAndSwap32(volatile Uint32* cell, Uint32 newValue, Uint32 expected) {
    return zepAtomicCompareSwapAndReturn32(cell, newValue, expected) == expected ? 1u : 0u;
}

// 1 if the swap was made, 0 if not; the value found is written back through `expected` either
// way, so that a retry needs no separate read.
inline Uint32 zepAtomicCompareSwapAndReturn64(volatile Uint64* cell, Uint64* expected,
                                              Uint64 newValue) {
    const Uint64 wanted = *expected;
    Uint64 found = wanted;
    __atomic_compare_exchange_n(cell, &found, newValue, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    *expected = found;
    return found == wanted ? 1u : 0u;
}

// A compare-and-swap that stores what it expects: an atomic 64-bit read with a full barrier, on
// a cell that must be writable.
inline Uint64 zepAtomicFetch64(volatile Uint64* cell) {
    Uint64 found = 0;
    __atomic_compare_exchange_n(cell, &found, found, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return found;
}

inline Uint32 zepAtomicPeek32(const volatile Uint32* cell) {
    return __atomic_load_n(cell, __ATOMIC_ACQUIRE);
}
inline void zepAtomicPoke32(volatile Uint32* cell, Uint32 value) {
    __atomic_store_n(cell, value, __ATOMIC_RELEASE);
}

// The lock forms: exchange with 0x80, test-and-get of bit 7, plain release, release-and-return.

inline Uint8 zepAtomicLockExchange8(volatile Uint8* cell) {
    return zepAtomicExchange8(cell, ZEP_ATOMIC_LOCK_VALUE);
}
inline Uint16 zepAtomicLockExchange16(volatile Uint16* cell) {
    return zepAtomicExchange16(cell, ZEP_ATOMIC_LOCK_VALUE);
}
inline Uint32 zepAtomicLockExchange32(volatile Uint32* cell) {
    return zepAtomicExchange32(cell, ZEP_ATOMIC_LOCK_VALUE);
}

// Sets bit 7 and nothing else. The compilers make a compare-and-swap loop of a fetch-or whose
// old bit is asked for (at 8 bits always), so x86 gets the bit-test-and-set written out. It has
// no byte form: the byte's bit is set within the aligned 32-bit word that holds it, which can
// neither straddle a cache line nor reach into another page; the other three bytes are written
// back as they were, within the same locked instruction.
inline Uint32 zepAtomicLockTestGet8(volatile Uint8* cell) {
#if defined(__x86_64__) || defined(__i386__)
    const uintptr_t at = reinterpret_cast<uintptr_t>(cell);
    volatile Uint32* word = reinterpret_cast<volatile Uint32*>(at & ~static_cast<uintptr_t>(3));
    const Uint32 bit = static_cast<Uint32>((at & 3) * 8 + 7);
    bool wasSet;
    __asm__ __volatile__("lock btsl %2, %0" : "+m"(*word), "=@ccc"(wasSet) : "r"(bit) : "memory");
#else
    const bool wasSet = (__atomic_fetch_or(cell, 0x80, __ATOMIC_SEQ_CST) & 0x80) != 0;
#endif
    return wasSet ? ZEP_ATOMIC_CONFLICT : 0u;
}
inline Uint32 zepAtomicLockTestGet16(volatile Uint16* cell) {
#if defined(__x86_64__) || defined(__i386__)
    bool wasSet;
    __asm__ __volatile__("lock btsw $7, %0" : "+m"(*cell), "=@ccc"(wasSet) : : "memory");
#else
    const bool wasSet = (__atomic_fetch_or(cell, 0x80, __ATOMIC_SEQ_CST) & 0x80) != 0;
#endif
    return wasSet ? ZEP_ATOMIC_CONFLICT : 0u;
}
inline Uint32 zepAtomicLockTestGet32(volatile Uint32* cell) {
#if defined(__x86_64__) || defined(__i386__)
    bool wasSet;
    __asm__ __volatile__("lock btsl $7, %0" : "+m"(*cell), "=@ccc"(wasSet) : : "memory");
#else
    const bool wasSet = (__atomic_fetch_or(cell, 0x80u, __ATOMIC_SEQ_CST) & 0x80u) != 0;
#endif
    return wasSet ? ZEP_ATOMIC_CONFLICT : 0u;
}

inline void zepAtomicLockRelease8(volatile Uint8* cell) {
    __atomic_store_n(cell, 0, __ATOMIC_RELEASE);
}
inline void zepAtomicLockRelease16(volatile Uint16* cell) {
    __atomic_store_n(cell, 0, __ATOMIC_RELEASE);
}
inline void zepAtomicLockRelease32(volatile Uint32* cell) {
    __atomic_store_n(cell, 0u, __ATOMIC_RELEASE);
}

inline Uint8 zepAtomicLockReleaseAndReturn8(volatile Uint8* cell) {
    return zepAtomicExchange8(cell, 0);
}
inline Uint16 zepAtomicLockReleaseAndReturn16(volatile Uint16* cell) {
    return zepAtomicExchange16(cell, 0);
}
inline Uint32 zepAtomicLockReleaseAndReturn32(volatile Uint32* cell) {
    return zepAtomicExchange32(cell, 0);
}

// ---- the exported family

ZEP_BEGIN_C

// Stores 0x80; the previous byte.
ZEP_EXPORT Uint8 zepWin32Lock8ExchangeInternal(volatile Uint8* cell);
// Sets bit 7; 0 if it was clear, ZEP_ATOMIC_CONFLICT (0x870F0035) if it was set.
ZEP_EXPORT Uint32 zepWin32Lock8TestGetInternal(volatile Uint8* cell);
// A plain store of 0, with no locked instruction.
ZEP_EXPORT void zepWin32Lock8ReleaseInternal(volatile Uint8* cell);
// Stores 0 atomically; the previous byte.
ZEP_EXPORT Uint8 zepWin32Lock8ReleaseAndReturnInternal(volatile Uint8* cell);
// The previous byte in the low eight bits.
ZEP_EXPORT Uint32 zepWin32AtomicExchange8Internal(volatile Uint8* cell, Uint8 newValue);
ZEP_EXPORT Uint32 zepWin32AtomicExchange32Internal(volatile Uint32* cell, Uint32 newValue);
// The value before the addition.
ZEP_EXPORT Uint32 zepWin32FetchAndAdd32Internal(volatile Uint32* cell, Sint32 delta);
// The value found in the cell: equal to `expected` if and only if the swap was made.
ZEP_EXPORT Uint8 zepWin32CompareSwapAndReturn8Internal(volatile Uint8* cell, Uint8 newValue,
                                                       Uint8 expected);
ZEP_EXPORT Uint16 zepWin32CompareSwapAndReturn16Internal(volatile Uint16* cell, Uint16 newValue,
                                                         Uint16 expected);
ZEP_EXPORT Uint32 zepWin32CompareSwapAndReturn32Internal(volatile Uint32* cell, Uint32 newValue,
                                                         Uint32 expected);
// 1 if the swap was made, else 0; the value found is always written back through `expected`.
ZEP_EXPORT Uint32 zepWin32CompareSwapAndReturn64Internal(volatile Uint64* cell, Uint64* expected,
                                                         Uint64 newValue);
// An atomic read made as a compare-and-swap: the cell must be writable.
ZEP_EXPORT Uint64 zepWin32Fetch64Internal(volatile Uint64* cell);

// 1 if the processor's time-stamp counter may be read directly, else 0. Reads the flag of the
// start-up pass only; nothing in the library asks it.
ZEP_EXPORT Uint32 zepCanUseRegister(void);

ZEP_END_C

// ---- ZEPVAtomicSigned32: an atomic cell with a version word, for callers outside the library

// init's flag: keep the value already in the cell.
#define ZEP_VATOMIC_KEEP_VALUE 0x2u

// A plain record that may lie anywhere, shared memory included; it owns nothing. Every
// operation but init and size answers ECF_INVALID_VERSION for a version word below 20040702
// (zeroed memory among them) and then touches neither the object nor its outputs. Outputs are
// not tested for null.
struct ZEPVAtomicSigned32 {
    Uint32 version;
    Sint32 value;

    // Writes the version word 0x09010007, and the value unless `flags` has
    // ZEP_VATOMIC_KEEP_VALUE. No other flag is read.
    ZEP_EXPORT void init(Sint32 value, Uint32 flags);
    // 4: the width of the value cell, not of the object.
    ZEP_EXPORT Uint32 size() const;
    ZEP_EXPORT Uint32 peek(Sint32* out) const;
    // add, increment, decrement and swap hand back the value before the change.
    ZEP_EXPORT Uint32 add(Sint32 delta, Sint32* previous);
    ZEP_EXPORT Uint32 increment(Sint32* previous);
    ZEP_EXPORT Uint32 decrement(Sint32* previous);
    ZEP_EXPORT Uint32 swap(Sint32 newValue, Sint32* previous);
    // 0 if stored, ECF_FAILED if the cell didn't hold `expected`.
    ZEP_EXPORT Uint32 compareAndSwap(Sint32 expected, Sint32 newValue);
    ZEP_EXPORT Uint32 poke(Sint32 value);

private:
    // A compare-and-swap of the value with itself; nothing calls it.
    Uint32 compare(Sint32 value);
};

static_assert(sizeof(ZEPVAtomicSigned32) == 8, "ZEPVAtomicSigned32 is two words");
static_assert(offsetof(ZEPVAtomicSigned32, version) == 0, "version first");
static_assert(offsetof(ZEPVAtomicSigned32, value) == 4, "then the cell");

// ---- library-internal

#ifdef ZEP_BUILDING_LIBRARY
// The tick-register test: the start-up pass runs it, gtraceAttach again; only the first call in
// a process acts.
void zepTickRegisterTest();
#endif

#endif
