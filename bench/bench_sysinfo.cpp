// The system-information queries beside what a user would call instead: sysinfo(2) and sysconf
// for memory and processors (which know nothing of control groups), statvfs for a disk.
#include <benchmark/benchmark.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "zep.h"

static void BM_zepGetCPUInfo(benchmark::State& state) {
    zepSysInfoOneTimeOnly();  // the topology probe runs once per process, before the timing
    for (auto _ : state) {
        ZEPCPUInfo info;
        benchmark::DoNotOptimize(zepGetCPUInfo(&info));
    }
}
BENCHMARK(BM_zepGetCPUInfo);

static void BM_sysconf_processors(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(sysconf(_SC_NPROCESSORS_CONF));
        benchmark::DoNotOptimize(sysconf(_SC_NPROCESSORS_ONLN));
    }
}
BENCHMARK(BM_sysconf_processors);

static void BM_zepGetPhysMemInfo(benchmark::State& state) {
    for (auto _ : state) {
        ZEPPhysMemInfo info;
        benchmark::DoNotOptimize(zepGetPhysMemInfo(&info));
    }
}
BENCHMARK(BM_zepGetPhysMemInfo);

static void BM_sysinfo2(benchmark::State& state) {
    for (auto _ : state) {
        struct sysinfo si;
        benchmark::DoNotOptimize(sysinfo(&si));
    }
}
BENCHMARK(BM_sysinfo2);

static void BM_zepGetDiskInfo(benchmark::State& state) {
    ZEPDiskInfoParam p;
    p.path = "/tmp";
    for (auto _ : state) {
        ZEPDiskInfo info;
        benchmark::DoNotOptimize(zepGetDiskInfo(&p, &info));
    }
}
BENCHMARK(BM_zepGetDiskInfo);

static void BM_statvfs(benchmark::State& state) {
    for (auto _ : state) {
        struct statvfs v;
        benchmark::DoNotOptimize(statvfs("/tmp", &v));
    }
}
BENCHMARK(BM_statvfs);

BENCHMARK_MAIN();
