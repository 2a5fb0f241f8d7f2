// helper_sysinfo - a fresh process for the system-information tests.
//
//   helper_sysinfo [--join FILE]... [--affinity HEXMASK] [--rlimit-as BYTES]
//
// Joins each control group whose cgroup.procs (or v1 tasks) file is named, binds itself to the
// processors of the mask, lowers its address-space limit, and only then asks the library for the
// first time, so that the topology probe runs here. Prints one "name=value" line per value, and
// the affinity after the queries as "affinity-after=<hex>".
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "zep.h"

static unsigned long long affinityMask() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 0;
    unsigned long long mask = 0;
    for (int i = 0; i < 64; ++i)
        if (CPU_ISSET(i, &set)) mask |= 1ull << i;
    return mask;
}

int main(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--join") == 0) {
            FILE* f = fopen(argv[i + 1], "w");
            if (f == nullptr || fprintf(f, "%d\n", static_cast<int>(getpid())) < 0 ||
                fclose(f) != 0) {
                printf("join-failed=%s\n", argv[i + 1]);
                return 3;
            }
        } else if (strcmp(argv[i], "--affinity") == 0) {
            const unsigned long long mask = strtoull(argv[i + 1], nullptr, 16);
            cpu_set_t set;
            CPU_ZERO(&set);
            for (int c = 0; c < 64; ++c)
                if (mask & (1ull << c)) CPU_SET(c, &set);
            if (sched_setaffinity(0, sizeof set, &set) != 0) return 4;
        } else if (strcmp(argv[i], "--rlimit-as") == 0) {
            struct rlimit rl;
            rl.rlim_cur = rl.rlim_max = strtoull(argv[i + 1], nullptr, 10);
            if (setrlimit(RLIMIT_AS, &rl) != 0) return 5;
        } else {
            return 2;
        }
    }
    ZEPCPUInfo cpu;
    ZEPPhysMemInfo mem;
    ZEPPhysSwapInfo swap;
    const Uint32 rcCpu = zepGetCPUInfo(&cpu);
    const Uint32 rcMem = zepGetPhysMemInfo(&mem);
    const Uint32 rcSwap = zepGetPhysSwapInfo(&swap);
    printf(
        "rc-cpu=%08X\nrc-mem=%08X\nrc-swap=%08X\nprocessorsTotal=%u\nprocessorsConfigured=%u\n"
        "processorsOnline=%u\nthreadsPerCore=%u\ncoresPerPackage=%u\nphysTotal=%d\nphysFree=%d\n"
        "physAllocatable=%d\naddressSpaceTotal=%d\nswapTotal=%d\nswapFree=%d\n",
        rcCpu, rcMem, rcSwap, cpu.processorsTotal.value, cpu.processorsConfigured.value,
        cpu.processorsOnline.value, cpu.threadsPerCore.value, cpu.coresPerPackage.value,
        mem.physTotal.value, mem.physFree.value, mem.physAllocatable.value,
        mem.addressSpaceTotal.value, swap.swapTotal.value, swap.swapFree.value);
    printf("affinity-after=%llx\n", affinityMask());
    return 0;
}
