// helper_latch - a process that hammers one shared ZEPLock.
//
//   helper_latch lock FD N     N times: take the lock at offset 0 of the shared mapping FD,
//                              add 1 to the plain 64-bit counter at offset 8, release
//   helper_latch cas64 FD N    N times: add 1 to the 64-bit cell at offset 16 by compare-and-swap
//
// Each mode first waits until the byte at offset 24 is non-zero, so that all processes start
// together.
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "zep.h"

struct LatchShared {
    ZEPLock lock;
    Uint8 pad[7];
    Uint64 counter;
    Uint64 casCell;
    Uint8 go;
};

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    void* p =
        mmap(nullptr, sizeof(LatchShared), PROT_READ | PROT_WRITE, MAP_SHARED, atoi(argv[2]), 0);
    if (p == MAP_FAILED) return 3;
    LatchShared* shared = static_cast<LatchShared*>(p);
    const long n = atol(argv[3]);
    while (__atomic_load_n(&shared->go, __ATOMIC_ACQUIRE) == 0) sched_yield();
    if (strcmp(argv[1], "lock") == 0) {
        for (long i = 0; i < n; ++i) {
            zepLockGet(&shared->lock);
            shared->counter = shared->counter + 1;
            zepLockRelease(&shared->lock);
        }
        return 0;
    }
    if (strcmp(argv[1], "cas64") == 0) {
        Uint64 seen = 0;
        for (long i = 0; i < n; ++i) {
            while (!zepWin32CompareSwapAndReturn64Internal(&shared->casCell, &seen, seen + 1)) {
            }
        }
        return 0;
    }
    return 2;
}
