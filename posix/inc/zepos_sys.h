// zepos_sys.h - processor, clock and scheduling stand-ins of the OS layer.
//
// The performance counter is CLOCK_MONOTONIC read through the vDSO, one count a nanosecond: of
// the monotonic sources of this system it is the cheapest that holds across processors and keeps
// to a declared frequency (docs/primitives.md has the measurements). The trace stamps every
// record with it, so the read is inline: no call through the library's PLT.
//
// The processor's own instructions that the library needs (the pause hint, the time-stamp
// counter, the identification instruction) live here too, so that core/src names no
// architecture.
#ifndef ZEPOS_SYS_H
#define ZEPOS_SYS_H

#include <stdint.h>
#include <time.h>

#include "zeptypes.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace zepos {

// ---- GetSystemInfo

enum : Uint16 {
    PROCESSOR_ARCHITECTURE_INTEL = 0,
    PROCESSOR_ARCHITECTURE_ARM = 5,
    PROCESSOR_ARCHITECTURE_AMD64 = 9,
    PROCESSOR_ARCHITECTURE_ARM64 = 12,
    PROCESSOR_ARCHITECTURE_UNKNOWN = 0xFFFF,
};

enum : Uint32 {
    PROCESSOR_INTEL_386 = 386,
    PROCESSOR_INTEL_486 = 486,
    PROCESSOR_INTEL_PENTIUM = 586,
    PROCESSOR_AMD_X8664 = 8664,
};

struct SYSTEM_INFO {
    Uint16 wProcessorArchitecture;
    Uint16 wReserved;
    Uint32 dwPageSize;
    void* lpMinimumApplicationAddress;
    void* lpMaximumApplicationAddress;
    uintptr_t dwActiveProcessorMask;
    Uint32 dwNumberOfProcessors;  // processors online in the system, whatever the affinity
    Uint32 dwProcessorType;
    Uint32 dwAllocationGranularity;  // mmap's granularity: the page
    Uint16 wProcessorLevel;          // x86: the family, extended family included; else 0
    Uint16 wProcessorRevision;       // x86: model << 8 | stepping
};

// Cannot fail, as on the platform.
void GetSystemInfo(SYSTEM_INFO* info);

// The identification instruction: eax, ebx, ecx, edx of `leaf` (sub-leaf 0) in regs[0..3]; all
// zero for a leaf the processor doesn't have, and on processors without the instruction.
void Cpuid(Uint32 leaf, Uint32 regs[4]);

// ---- the processor

// The spin-wait hint.
inline void YieldProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield" ::: "memory");
#endif
}

// The time-stamp counter. Where the processor has none that user code may read, the
// performance counter stands in, so that a reader's loop still sees time pass.
inline Uint64 ReadTimeStampCounter() {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<Uint64>(ts.tv_sec) * 1000000000u + static_cast<Uint64>(ts.tv_nsec);
#endif
}

// ---- the performance counter

inline constexpr Sint64 PERFORMANCE_FREQUENCY = 1000000000;

// FALSE, a count of 0 and the last error when the clock can't be read.
inline BOOL QueryPerformanceCounter(Sint64* count) {
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
        *count = 0;
        SetLastErrorFromErrno();
        return 0;
    }
    *count = static_cast<Sint64>(ts.tv_sec) * PERFORMANCE_FREQUENCY + ts.tv_nsec;
    return 1;
}

// Counts a second. Never fails here: the counter above always exists.
inline BOOL QueryPerformanceFrequency(Sint64* frequency) {
    *frequency = PERFORMANCE_FREQUENCY;
    return 1;
}

// ---- sleeping

inline constexpr Uint32 INFINITE = 0xFFFFFFFFu;

// Suspends the thread for `milliseconds`, in full even across signals. 0 gives up the rest of
// the time slice; INFINITE never returns.
void Sleep(Uint32 milliseconds);

// ---- _ftime

// The runtime's record of the current time. The library reads the seconds and milliseconds
// only; the zone fields of the platform's record are left out, so that reading the time never
// consults the time-zone database.
struct _timeb {
    Sint64 time;     // seconds since 1970-01-01 00:00 UTC
    Uint16 millitm;  // milliseconds within the second
};

// Inline, like the counter: the log stamps every record with it.
inline void _ftime(_timeb* tb) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tb->time = static_cast<Sint64>(ts.tv_sec);
    tb->millitm = static_cast<Uint16>(ts.tv_nsec / 1000000);
}

}  // namespace zepos

#endif
