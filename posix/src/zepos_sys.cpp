// zepos_sys.cpp - GetSystemInfo, the identification instruction and Sleep.
#include "zepos.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace zepos {

void Cpuid(Uint32 leaf, Uint32 regs[4]) {
    regs[0] = regs[1] = regs[2] = regs[3] = 0;
#if defined(__x86_64__) || defined(__i386__)
    unsigned a, b, c, d;
    // The highest leaf of the range (basic or extended) that `leaf` belongs to decides.
    if (__get_cpuid_count(leaf, 0, &a, &b, &c, &d)) {
        regs[0] = a, regs[1] = b, regs[2] = c, regs[3] = d;
    }
#else
    (void)leaf;
#endif
}

void GetSystemInfo(SYSTEM_INFO* info) {
    memset(info, 0, sizeof *info);
    const long page = sysconf(_SC_PAGESIZE);
    info->dwPageSize = page > 0 ? static_cast<Uint32>(page) : 4096u;
    info->dwAllocationGranularity = info->dwPageSize;
    info->lpMinimumApplicationAddress = reinterpret_cast<void*>(static_cast<uintptr_t>(0x10000));
    info->lpMaximumApplicationAddress =
        reinterpret_cast<void*>(sizeof(void*) == 8 ? static_cast<uintptr_t>(0x7FFFFFFEFFFFull)
                                                   : static_cast<uintptr_t>(0x7FFEFFFFu));

    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    info->dwNumberOfProcessors = online > 0 ? static_cast<Uint32>(online) : 1u;
    const Uint32 bits = static_cast<Uint32>(sizeof(uintptr_t) * 8);
    info->dwActiveProcessorMask =
        info->dwNumberOfProcessors >= bits
            ? ~static_cast<uintptr_t>(0)
            : (static_cast<uintptr_t>(1) << info->dwNumberOfProcessors) - 1;

#if defined(__x86_64__) || defined(__i386__)
    info->wProcessorArchitecture =
        sizeof(void*) == 8 ? PROCESSOR_ARCHITECTURE_AMD64 : PROCESSOR_ARCHITECTURE_INTEL;
    info->dwProcessorType = sizeof(void*) == 8 ? PROCESSOR_AMD_X8664 : PROCESSOR_INTEL_PENTIUM;
    // The family as the platform reports it: the base family, plus the extended family when
    // the base reads 15; the model likewise takes the extended model for families 6 and 15.
    Uint32 regs[4];
    Cpuid(1, regs);
    const Uint32 eax = regs[0];
    Uint32 family = (eax >> 8) & 0xF;
    Uint32 model = (eax >> 4) & 0xF;
    if (family == 15) family += (eax >> 20) & 0xFF;
    if (family == 6 || family >= 15) model |= ((eax >> 16) & 0xF) << 4;
    info->wProcessorLevel = static_cast<Uint16>(family);
    info->wProcessorRevision = static_cast<Uint16>((model << 8) | (eax & 0xF));
#elif defined(__aarch64__)
    info->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_ARM64;
#else
    info->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_UNKNOWN;
#endif
}

void Sleep(Uint32 milliseconds) {
    if (milliseconds == 0) {
        sched_yield();
        return;
    }
    if (milliseconds == INFINITE) {
        for (;;) pause();
    }
    struct timespec t;
    t.tv_sec = static_cast<time_t>(milliseconds / 1000);
    t.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    // A signal handler's interruption resumes with what remains; the caller's errno is kept, as
    // the platform's call doesn't touch it.
    const int saved = errno;
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
    errno = saved;
}

}  // namespace zepos
