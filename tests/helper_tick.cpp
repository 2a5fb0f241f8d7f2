// helper_tick FD - the other process of the tick test: four threads ask for the factor at once,
// the first time in this process (exit 4 unless they get the same bytes); then the factor and a
// tick read between two readings of CLOCK_REALTIME go into the shared mapping FD.
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>

#include <thread>
#include <vector>

#include "zep.h"

struct TickShared {
    ZEPTickConversionFactor factor;
    Uint64 tick;
    Sint64 realtimeBefore, realtimeAfter;
};

static Sint64 realtimeNs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<Sint64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    void* p =
        mmap(nullptr, sizeof(TickShared), PROT_READ | PROT_WRITE, MAP_SHARED, atoi(argv[1]), 0);
    if (p == MAP_FAILED) return 3;
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
