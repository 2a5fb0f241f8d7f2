// Shared memory: the whole life of a 1 MiB block (create, a second attach, its detach, destroy)
// and the attach and detach of a block that exists, beside the bare system calls a caller would
// otherwise make (shm_open, ftruncate, mmap, munmap, close, shm_unlink) and Boost.Interprocess's
// managed_shared_memory. Ratios last, medians of 5 in wall-clock time (below 1: zep is faster).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
#include <boost/interprocess/managed_shared_memory.hpp>
#endif

#include "zep.h"
#include "zepbench.h"
#include "zepipcmemory.h"

namespace {

constexpr Uint32 kSize = 1u << 20;

std::string nameOf(const char* what) {
    return "zepbench" + std::to_string(getpid()) + what;
}

ZEPIPCResID idOf(const std::string& path) {
    ZEPIPCResIDParam p;
    p.path = path.c_str();
    ZEPIPCResID id;
    zepIPCGetResID(&p, &id);
    return id;
}

void Lifecycle_Zep(benchmark::State& state) {
    ZEPIPCMemoryCreateParam p;
    p.resID = idOf(nameOf("life"));
    p.memorySize = kSize;
    for (auto _ : state) {
        ZEPHIPCMemory creator, user;
        if (creator.create(&p) != 0 || user.attach(&p.resID, nullptr) != 0) {
            state.SkipWithError("create or attach failed");
            break;
        }
        user.detach();
        creator.destroy();
    }
}

void Lifecycle_Shm(benchmark::State& state) {
    std::string name = "/";
    name += nameOf("lifeshm");
    for (auto _ : state) {
        int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 || ftruncate(fd, kSize) != 0) {
            state.SkipWithError("shm_open failed");
            break;
        }
        void* a = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        int fd2 = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
        void* b = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd2, 0);
        munmap(b, kSize);
        close(fd2);
        munmap(a, kSize);
        close(fd);
        shm_unlink(name.c_str());
    }
}

void Attach_Zep(benchmark::State& state) {
    ZEPIPCMemoryCreateParam p;
    p.resID = idOf(nameOf("attach"));
    p.memorySize = kSize;
    ZEPHIPCMemory creator;
    if (creator.create(&p) != 0) {
        state.SkipWithError("create failed");
        return;
    }
    for (auto _ : state) {
        ZEPHIPCMemory user;
        if (user.attach(&p.resID, nullptr) != 0) {
            state.SkipWithError("attach failed");
            break;
        }
        user.detach();
    }
    creator.destroy();
}

void Attach_Shm(benchmark::State& state) {
    std::string name = "/";
    name += nameOf("attachshm");
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 || ftruncate(fd, kSize) != 0) {
        state.SkipWithError("shm_open failed");
        return;
    }
    for (auto _ : state) {
        int fd2 = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
        void* b = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd2, 0);
        munmap(b, kSize);
        close(fd2);
    }
    close(fd);
    shm_unlink(name.c_str());
}

#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
namespace bip = boost::interprocess;

void Lifecycle_Boost(benchmark::State& state) {
    const std::string name = nameOf("lifeboost");
    for (auto _ : state) {
        {
            bip::managed_shared_memory creator(bip::create_only, name.c_str(), kSize);
            bip::managed_shared_memory user(bip::open_only, name.c_str());
            benchmark::DoNotOptimize(user.get_address());
        }
        bip::shared_memory_object::remove(name.c_str());
    }
}

void Attach_Boost(benchmark::State& state) {
    const std::string name = nameOf("attachboost");
    {
        bip::managed_shared_memory creator(bip::create_only, name.c_str(), kSize);
        for (auto _ : state) {
            bip::managed_shared_memory user(bip::open_only, name.c_str());
            benchmark::DoNotOptimize(user.get_address());
        }
    }
    bip::shared_memory_object::remove(name.c_str());
}
#endif

BENCHMARK(Lifecycle_Zep)->Name("Lifecycle/zep:ZEPHIPCMemory")->Repetitions(5)->UseRealTime();
BENCHMARK(Lifecycle_Shm)->Name("Lifecycle/peer:shm_open")->Repetitions(5)->UseRealTime();
BENCHMARK(Attach_Zep)->Name("Attach/zep:ZEPHIPCMemory")->Repetitions(5)->UseRealTime();
BENCHMARK(Attach_Shm)->Name("Attach/peer:shm_open")->Repetitions(5)->UseRealTime();
#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
BENCHMARK(Lifecycle_Boost)
    ->Name("Lifecycle/peer:boost-managed_shared_memory")
    ->Repetitions(5)
    ->UseRealTime();
BENCHMARK(Attach_Boost)
    ->Name("Attach/peer:boost-managed_shared_memory")
    ->Repetitions(5)
    ->UseRealTime();
#endif

}  // namespace

int main(int argc, char** argv) {
    return zepBenchMain(argc, argv, ZepRatioReporter::kWall);
}
