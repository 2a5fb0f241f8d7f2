// ZEPLock and ZEPVLatch: texts and verdicts, the slow path's sleep sequence and tuning, exact
// counts under contention from threads and from processes, and the start-up pass's choices.
//
// This program defines the OS layer's Sleep itself, so that the library's slow path sleeps here:
// while a recording is on, each sleep is noted instead of slept, and a chosen one releases the
// lock the caller waits for.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace {

using zeptest::spawnHelper;
using zeptest::waitExit;

std::mutex g_sleepMutex;
std::atomic<bool> g_recording{false};
std::vector<Uint32> g_sleeps;
ZEPLock* g_releaseLock = nullptr;
size_t g_releaseAfter = 0;
size_t g_retuneAfter = 0;
ZEPSpinTune g_retune;

}  // namespace

namespace zepos {

void Sleep(Uint32 milliseconds) {
    if (g_recording.load()) {
        std::lock_guard<std::mutex> hold(g_sleepMutex);
        g_sleeps.push_back(milliseconds);
        if (g_sleeps.size() == g_retuneAfter) ZEPLatch::updateSpinCounts(g_retune);
        if (g_sleeps.size() == g_releaseAfter) zepLockRelease(g_releaseLock);
        return;
    }
    struct timespec t = {static_cast<time_t>(milliseconds / 1000),
                         static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0) {
    }
}

}  // namespace zepos

namespace {

// Runs the slow path on a held lock until the recorded sleep number `releaseAfter` frees it;
// the sleeps it asked for, in order.
std::vector<Uint32> sleepsUntilReleased(const ZEPSpinTune& tune, size_t releaseAfter,
                                        size_t retuneAfter = 0,
                                        const ZEPSpinTune& retune = ZEPSpinTune{}) {
    ZEPSpinTune saved;
    ZEPLatch::getSpinCounts(saved);
    ZEPLatch::updateSpinCounts(tune);
    ZEPLock lock = ZEPLOCK_LOCKED;
    {
        std::lock_guard<std::mutex> hold(g_sleepMutex);
        g_sleeps.clear();
        g_releaseLock = &lock;
        g_releaseAfter = releaseAfter;
        g_retuneAfter = retuneAfter;
        g_retune = retune;
    }
    g_recording = true;
    EXPECT_EQ(zepLockGetConflict(&lock), 1u);
    g_recording = false;
    EXPECT_EQ(lock, ZEPLOCK_LOCKED);
    ZEPLatch::updateSpinCounts(saved);
    std::lock_guard<std::mutex> hold(g_sleepMutex);
    return g_sleeps;
}

// What helper_tick's start-up pass chose on the processor the environment describes.
std::string startupWith(const std::vector<std::string>& env) {
    int status = 0;
    const std::string out = zeptest::runHelper("helper_tick", {"startup"}, env, &status);
    EXPECT_EQ(status, 0);
    return out;
}

}  // namespace

TEST(Latch, TextsAndVerdicts) {
    // The byte's text and result (the byte read sign-extended, shown by its low eight bits), and
    // zepLockVerify's verdict on it for each expectation: any, free, held, other.
    const Uint32 C = ECF_ZEPLOCK_CORRUPT;
    struct {
        Uint8 byte;
        const char* text;
        Uint32 rc, any, free, held, other;
    } rows[] = {
        {0x00, "{ 0x00 [ unlocked ] }", 0, 0, 0, C, 0},
        {0x80, "{ 0x80 [ locked ] }", 0, 0, C, 0, 0},
        {0xC0, "{ 0xC0 [ locked;waiting ] }", 0, 0, C, 0, 0},  // held with waiters is held
        {0x41, "{ 0x41 [ corrupt ] }", C, C, C, C, C},
        {0x40, "{ 0x40 [ corrupt ] }", C, C, C, C, C},
        {0xFF, "{ 0xFF [ corrupt ] }", C, C, C, C, C},
        {0x81, "{ 0x81 [ corrupt ] }", C, C, C, C, C},
    };
    for (const auto& r : rows) {
        ZEPLock lock = r.byte;
        char buf[64];
        EXPECT_EQ(zepLockToString(&lock, buf, sizeof buf), r.rc) << r.text;
        EXPECT_STREQ(buf, r.text);
        // A null buffer classifies all the same.
        EXPECT_EQ(zepLockToString(&lock, nullptr, 0), r.rc) << r.text;
        EXPECT_EQ(std::vector<Uint32>({zepLockVerify(&lock, 0), zepLockVerify(&lock, 1),
                                       zepLockVerify(&lock, 2), zepLockVerify(&lock, 3)}),
                  std::vector<Uint32>({r.any, r.free, r.held, r.other}))
            << r.text;
        EXPECT_EQ(lock, r.byte);
    }
    // A short buffer keeps a NUL-ended beginning.
    ZEPLock lock = 0x80;
    char buf[8];
    EXPECT_EQ(zepLockToString(&lock, buf, 6), 0u);
    EXPECT_STREQ(buf, "{ 0x8");
}

TEST(Latch, BareAndVersionedLatch) {
    // A call's result and the lock byte after it.
    using R = std::pair<Uint32, int>;
    ZEPLock lock = 0;
    auto bare = [&](Uint32 rc) { return R(rc, lock); };
    EXPECT_EQ(bare(zepLockTestGet(&lock)), R(1, 0x80));
    EXPECT_EQ(bare(zepLockTestGet(&lock)), R(0, 0x80));
    zepLockRelease(&lock);
    EXPECT_EQ(lock, 0);
    // The exchange is unconditional: a corrupt byte is not taken, and becomes a held lock.
    lock = 0x41;
    EXPECT_EQ(bare(zepLockTestGet(&lock)), R(0, 0x80));

    // A bad version word: refused, and the lock byte is left as it was, release included.
    ZEPVLatch v;
    auto versioned = [&](Uint32 rc) { return R(rc, v.lock); };
    for (Uint32 stamp : {0u, 20040701u}) {
        v = {stamp, 0x80};
        EXPECT_EQ(versioned(zepVLatchGet(&v)), R(ECF_INVALID_VERSION, 0x80));
        EXPECT_EQ(versioned(zepVLatchTestGet(&v)), R(ECF_INVALID_VERSION, 0x80));
        EXPECT_EQ(versioned(zepVLatchRelease(&v)), R(ECF_INVALID_VERSION, 0x80));
        v.lock = 0;
        EXPECT_EQ(versioned(zepVLatchTestGet(&v)), R(ECF_INVALID_VERSION, 0));
    }
    // init writes a free lock whatever was there, and no flag keeps it.
    v = {0, 0x80};
    zepVLatchInit(&v, 0x2);
    EXPECT_EQ(R(v.version, v.lock), R(0x09010007u, 0));
    EXPECT_EQ(versioned(zepVLatchTestGet(&v)), R(0, 0x80));
    EXPECT_EQ(versioned(zepVLatchTestGet(&v)), R(ECF_FAILED, 0x80));
    EXPECT_EQ(versioned(zepVLatchRelease(&v)), R(0, 0));
    EXPECT_EQ(versioned(zepVLatchRelease(&v)), R(0, 0));
    EXPECT_EQ(versioned(zepVLatchGet(&v)), R(0, 0x80));
    v.version = 20040702u;  // the oldest stamp that counts
    EXPECT_EQ(versioned(zepVLatchRelease(&v)), R(0, 0));
}

TEST(Latch, WasteTimeAndYield) {
    // 77 + n * (1 + 2 + ... + (n-1)), wrapping at 32 bits.
    for (Uint32 n : {0u, 1u, 2u, 3u, 350u, 5000u})
        EXPECT_EQ(Uint32(zepWasteTime(n)), 77u + n * (n * (n - 1) / 2)) << n;

    g_sleeps.clear();
    g_recording = true;
    zepYield();
    g_recording = false;
    EXPECT_EQ(g_sleeps, std::vector<Uint32>{1});
}

TEST(Latch, SlowPathSleeps) {
    // sleepStep 3: the sleep grows by 3 until it passes 24, then starts at 1 again.
    EXPECT_EQ(sleepsUntilReleased({0, 0, 0, 0, 3}, 11),
              (std::vector<Uint32>{1, 4, 7, 10, 13, 16, 19, 22, 1, 4, 7}));
    // sleepStep 0: always 1 ms, since 1 > 0 sets it back every round.
    EXPECT_EQ(sleepsUntilReleased({0, 0, 0, 0, 0}, 5), (std::vector<Uint32>{1, 1, 1, 1, 1}));
    // Spinning first changes nothing of the sleeps: a burst ends in the same sleep.
    EXPECT_EQ(sleepsUntilReleased({2, 10, 50, 0, 2}, 7),
              (std::vector<Uint32>{1, 3, 5, 7, 9, 11, 13}));
    // A waiter already in the slow path reads the new tuning in its next round.
    EXPECT_EQ(sleepsUntilReleased({0, 0, 0, 0, 0}, 6, 3, {0, 0, 0, 0, 3}),
              (std::vector<Uint32>{1, 1, 1, 4, 7, 10}));
    // A lock that is released during the first sleep is taken by the attempt after it.
    EXPECT_EQ(sleepsUntilReleased({0, 0, 0, 0, 0}, 1), (std::vector<Uint32>{1}));
}

TEST(Latch, ContentionAcrossThreads) {
    // Plain increments under the lock, from more threads than processors, with the tuning
    // this machine's start-up chose and with the single-processor one.
    ZEPSpinTune saved;
    ZEPLatch::getSpinCounts(saved);
    for (const ZEPSpinTune& tune : {saved, ZEPSpinTune{0, 0, 0, 0, 0}}) {
        ZEPLatch::updateSpinCounts(tune);
        ZEPLock lock = 0;
        Uint64 counter = 0;
        const int threads = 4, rounds = 20000;
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) {
            pool.emplace_back([&] {
                for (int i = 0; i < rounds; ++i) {
                    zepLockGet(&lock);
                    counter = counter + 1;
                    zepLockRelease(&lock);
                }
            });
        }
        for (auto& t : pool) t.join();
        EXPECT_EQ(counter, Uint64(threads) * rounds) << tune.spinCount;
        EXPECT_EQ(lock, 0);
    }
    ZEPLatch::updateSpinCounts(saved);
}

TEST(Latch, ContentionAcrossProcesses) {
    // The layout helper_latch maps.
    struct LatchShared {
        ZEPLock lock;
        Uint8 pad[7];
        Uint64 counter;
        Uint64 casCell;
        Uint8 go;
    };
    int fd = memfd_create("zep-latch-test", 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, sizeof(LatchShared)), 0);
    void* p = mmap(nullptr, sizeof(LatchShared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    LatchShared* shared = static_cast<LatchShared*>(p);

    const int processes = 3;
    const long rounds = 100000;
    std::vector<pid_t> pids;
    for (int i = 0; i < processes; ++i) {
        pids.push_back(
            spawnHelper("helper_latch", {"lock", std::to_string(fd), std::to_string(rounds)}));
        pids.push_back(
            spawnHelper("helper_latch", {"cas64", std::to_string(fd), std::to_string(rounds)}));
    }
    __atomic_store_n(&shared->go, 1, __ATOMIC_RELEASE);
    // This process joins in.
    for (long i = 0; i < rounds; ++i) {
        zepLockGet(&shared->lock);
        shared->counter = shared->counter + 1;
        zepLockRelease(&shared->lock);
    }
    for (pid_t pid : pids) EXPECT_EQ(waitExit(pid), 0);
    EXPECT_EQ(shared->counter, Uint64(processes + 1) * rounds);
    EXPECT_EQ(shared->casCell, Uint64(processes) * rounds);
    EXPECT_EQ(shared->lock, 0);
    munmap(p, sizeof(LatchShared));
    close(fd);
}

TEST(Latch, StartupPassTuningAndTickRegister) {
    // The spin tuning by processor count.
    const std::pair<const char*, const char*> tunings[] = {
        {"1", "tune 0 0 0 0 0 "},   {"2", "tune 2 10 50 0 0 "}, {"3", "tune 5 20 50 0 0 "},
        {"4", "tune 5 20 50 0 0 "}, {"5", "tune 5 30 50 0 0 "}, {"256", "tune 5 30 50 0 0 "},
        {"0", "tune 0 0 0 0 0 "}};
    for (auto [count, tune] : tunings) {
        const std::string out = startupWith({std::string("ZEP_FAKE_PROCESSORS=") + count});
        EXPECT_EQ(out.substr(0, strlen(tune)), tune) << count;
    }
    // The tick register: level 5 or more and the feature bit 4 of EDX.
    const std::tuple<const char*, const char*, const char*> registers[] = {
        {"6", "0x10", "register 1\n"},
        {"5", "0x10", "register 1\n"},
        {"4", "0x10", "register 0\n"},
        {"6", "0xFFFFFFEF", "register 0\n"},
        {"26", "0", "register 0\n"}};
    for (auto [level, edx, want] : registers) {
        const std::string out = startupWith(
            {std::string("ZEP_FAKE_LEVEL=") + level, std::string("ZEP_FAKE_EDX=") + edx});
        EXPECT_EQ(out.substr(out.find("register")), want) << level << " " << edx;
    }
}
