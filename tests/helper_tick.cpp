// helper_tick - the other process of the tick, latch and start-up tests.
//   startup     print "tune L C D R S register N": the spin tuning and the tick-register flag that
//               this process's start-up pass chose
//   factor FD   four threads ask for the factor at once, the first time here (exit 4 unless they
//               get the same bytes); then the factor and a tick read between two readings of
//               CLOCK_REALTIME, into the shared mapping FD
//   lock FD N   N times: take the lock at offset 0 of the mapping FD, add 1 to the plain counter
//               at offset 8, release
//   cas64 FD N  N times: add 1 to the 64-bit cell at offset 16 by compare-and-swap
// lock and cas64 first wait for the byte at offset 24, so that all processes start together.
// The processor stand-ins of the OS layer are defined here, so that the start-up pass meets the
// processor the environment describes: ZEP_FAKE_PROCESSORS (the count), ZEP_FAKE_LEVEL
// (wProcessorLevel) and ZEP_FAKE_EDX (the feature word of leaf 1); the rest is this machine's.
#include <cpuid.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zepos.h"

namespace {

bool fake(const char* name, Uint32* value) {
    const char* s = getenv(name);
    if (s == nullptr) return false;
    *value = static_cast<Uint32>(strtoul(s, nullptr, 0));
    return true;
}

Sint64 realtimeNs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<Sint64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct TickShared {
    ZEPTickConversionFactor factor;
    Uint64 tick;
    Sint64 realtimeBefore, realtimeAfter;
};

struct LatchShared {
    ZEPLock lock;
    Uint64 counter;
    Uint64 casCell;
    Uint8 go;
};

}  // namespace

// These run inside the library's start-up pass, before this program's own initialisation:
// they touch nothing but the environment and the processor.
namespace zepos {

void GetSystemInfo(SYSTEM_INFO* info) {
    memset(info, 0, sizeof *info);
    Uint32 v;
    info->dwNumberOfProcessors =
        fake("ZEP_FAKE_PROCESSORS", &v) ? v : static_cast<Uint32>(sysconf(_SC_NPROCESSORS_ONLN));
    unsigned a = 0, b, c, d;
    __get_cpuid(1, &a, &b, &c, &d);
    info->wProcessorLevel = static_cast<Uint16>(fake("ZEP_FAKE_LEVEL", &v) ? v : (a >> 8) & 0xF);
}

void Cpuid(Uint32 leaf, Uint32 regs[4]) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    __get_cpuid(leaf, &a, &b, &c, &d);
    Uint32 v;
    if (leaf == 1 && fake("ZEP_FAKE_EDX", &v)) d = v;
    regs[0] = a, regs[1] = b, regs[2] = c, regs[3] = d;
}

}  // namespace zepos

int main(int argc, char** argv) {
    const std::string mode = argc >= 2 ? argv[1] : "";
    if (mode == "startup") {
        ZEPSpinTune t;
        ZEPLatch::getSpinCounts(t);
        printf("tune %u %u %u %u %u register %u\n", t.spinLimit, t.spinCount, t.spinDelay,
               t.spinReserved, t.sleepStep, zepCanUseRegister());
        return 0;
    }
    if (argc < 3) return 2;
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, atoi(argv[2]), 0);
    if (p == MAP_FAILED) return 3;
    if (mode == "factor") {
        TickShared* shared = static_cast<TickShared*>(p);
        ZEPTickConversionFactor seen[4];
        std::vector<std::thread> threads;
        for (auto& f : seen) threads.emplace_back([&f] { f.initialize(); });
        for (auto& t : threads) t.join();
        for (const auto& f : seen)
            if (memcmp(&f, &seen[0], sizeof f) != 0) return 4;
        shared->factor.initialize();
        ZEPTick tick;
        shared->realtimeBefore = realtimeNs();
        tick.read();
        shared->realtimeAfter = realtimeNs();
        shared->tick = tick.value;
        return 0;
    }
    LatchShared* shared = static_cast<LatchShared*>(p);
    const long n = argc == 4 ? atol(argv[3]) : 0;
    while (__atomic_load_n(&shared->go, __ATOMIC_ACQUIRE) == 0) sched_yield();
    for (long i = 0; i < n && mode == "lock"; ++i) {
        zepLockGet(&shared->lock);
        shared->counter = shared->counter + 1;
        zepLockRelease(&shared->lock);
    }
    Uint64 seen = 0;
    for (long i = 0; i < n && mode == "cas64"; ++i) {
        while (!zepWin32CompareSwapAndReturn64Internal(&shared->casCell, &seen, seen + 1)) {
        }
    }
    return 0;
}
