// ZEPLock and ZEPVLatch: texts and verdicts, the slow path's sleep sequence and tuning, exact
// counts under contention from processes, and the start-up pass's choices.
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
#include <string>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace {

std::atomic<bool> g_recording{false};
std::vector<Uint32> g_sleeps;
ZEPLock* g_releaseLock = nullptr;
size_t g_releaseAfter = 0, g_retuneAfter = 0;
ZEPSpinTune g_retune;

}  // namespace

namespace zepos {

void Sleep(Uint32 milliseconds) {
    if (g_recording.load()) {
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
                                        size_t retuneAfter = 0, ZEPSpinTune retune = {}) {
    ZEPSpinTune saved;
    ZEPLatch::getSpinCounts(saved);
    ZEPLatch::updateSpinCounts(tune);
    ZEPLock lock = ZEPLOCK_LOCKED;
    g_sleeps.clear();
    g_releaseLock = &lock;
    g_releaseAfter = releaseAfter;
    g_retuneAfter = retuneAfter;
    g_retune = retune;
    g_recording = true;
    EXPECT_EQ(zepLockGetConflict(&lock), 1u);
    g_recording = false;
    EXPECT_EQ(lock, ZEPLOCK_LOCKED);
    ZEPLatch::updateSpinCounts(saved);
    return g_sleeps;
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
        {0xFF, "{ 0xFF [ corrupt ] }", C, C, C, C, C},
    };
    for (const auto& r : rows) {
        ZEPLock lock = r.byte;
        char buf[64];
        EXPECT_EQ(zepLockToString(&lock, buf, sizeof buf), r.rc) << r.text;
        EXPECT_STREQ(buf, r.text);
        EXPECT_EQ(zepLockToString(&lock, nullptr, 0), r.rc) << r.text;  // classifies all the same
        EXPECT_EQ(std::vector<Uint32>({zepLockVerify(&lock, 0), zepLockVerify(&lock, 1),
                                       zepLockVerify(&lock, 2), zepLockVerify(&lock, 3)}),
                  std::vector<Uint32>({r.any, r.free, r.held, r.other}))
            << r.text;
    }
    // 77 + n * (1 + 2 + ... + (n-1)), wrapping at 32 bits; a yield is a sleep of 1 ms.
    for (Uint32 n : {0u, 1u, 3u, 5000u})
        EXPECT_EQ(Uint32(zepWasteTime(n)), 77u + n * (n * (n - 1) / 2)) << n;
    g_sleeps.clear();
    g_recording = true;
    zepYield();
    g_recording = false;
    EXPECT_EQ(g_sleeps, std::vector<Uint32>{1});
}

TEST(Latch, BareAndVersionedLatch) {
    // A call's result and the lock byte after it.
    using R = std::pair<Uint32, int>;
    ZEPLock lock = 0x41;
    auto bare = [&](Uint32 rc) { return R(rc, lock); };
    // The exchange is unconditional: a corrupt byte is not taken, and becomes a held lock.
    EXPECT_EQ(bare(zepLockTestGet(&lock)), R(0, 0x80));
    zepLockRelease(&lock);
    EXPECT_EQ(bare(zepLockTestGet(&lock)), R(1, 0x80));

    // A bad version word: refused, and the lock byte is left as it was, release included.
    ZEPVLatch v;
    auto versioned = [&](Uint32 rc) { return R(rc, v.lock); };
    for (Uint32 stamp : {0u, 20040701u}) {
        v = {stamp, 0x80};
        EXPECT_EQ(versioned(zepVLatchGet(&v)), R(ECF_INVALID_VERSION, 0x80));
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
    v.version = 20040702u;  // the oldest stamp that counts
    EXPECT_EQ(versioned(zepVLatchRelease(&v)), R(0, 0));
    EXPECT_EQ(versioned(zepVLatchGet(&v)), R(0, 0x80));
}

TEST(Latch, SlowPathSleeps) {
    // sleepStep 3: the sleep grows by 3 until it passes 24, then starts at 1 again.
    EXPECT_EQ(sleepsUntilReleased({0, 0, 0, 0, 3}, 10),
              (std::vector<Uint32>{1, 4, 7, 10, 13, 16, 19, 22, 1, 4}));
    // Spinning first changes nothing of the sleeps: a burst ends in the same sleep.
    EXPECT_EQ(sleepsUntilReleased({2, 10, 50, 0, 2}, 4), (std::vector<Uint32>{1, 3, 5, 7}));
    // A waiter already in the slow path reads the new tuning in its next round; with sleepStep
    // 0 every sleep is 1 ms.
    EXPECT_EQ(sleepsUntilReleased({0, 0, 0, 0, 0}, 5, 2, {0, 0, 0, 0, 3}),
              (std::vector<Uint32>{1, 1, 4, 7, 10}));
}

TEST(Latch, ContentionAcrossProcesses) {
    // The layout helper_tick maps: the lock, a counter it guards, a cell for compare-and-swap.
    struct LatchShared {
        ZEPLock lock;
        Uint64 counter;
        Uint64 casCell;
        Uint8 go;
    };
    const int fd = memfd_create("zep-latch-test", 0);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    LatchShared* shared = static_cast<LatchShared*>(p);
    const int processes = 3;
    const std::string rounds = "100000";
    std::vector<pid_t> pids;
    for (int i = 0; i < processes; ++i)
        for (const char* mode : {"lock", "cas64"})
            pids.push_back(zeptest::spawnHelper("helper_tick", {mode, std::to_string(fd), rounds}));
    __atomic_store_n(&shared->go, 1, __ATOMIC_RELEASE);
    for (pid_t pid : pids) EXPECT_EQ(zeptest::waitExit(pid), 0);
    EXPECT_EQ(shared->counter, Uint64(processes) * 100000);
    EXPECT_EQ(shared->casCell, Uint64(processes) * 100000);
    EXPECT_EQ(shared->lock, 0);
    munmap(p, 4096);
    close(fd);
}

TEST(Latch, StartupPassTuningAndTickRegister) {
    // The spin tuning by processor count, on the processor the environment fakes.
    const std::pair<const char*, const char*> tunings[] = {{"1", "tune 0 0 0 0 0 "},
                                                           {"2", "tune 2 10 50 0 0 "},
                                                           {"4", "tune 5 20 50 0 0 "},
                                                           {"5", "tune 5 30 50 0 0 "},
                                                           {"0", "tune 0 0 0 0 0 "}};
    int status = 0;
    for (auto [count, tune] : tunings) {
        const std::string out = zeptest::runHelper(
            "helper_tick", {"startup"}, {std::string("ZEP_FAKE_PROCESSORS=") + count}, &status);
        EXPECT_EQ(out.substr(0, strlen(tune)), tune) << count;
    }
    // The tick register: level 5 or more and the feature bit 4 of EDX.
    const std::tuple<const char*, const char*, const char*> registers[] = {
        {"5", "0x10", "register 1\n"},
        {"4", "0x10", "register 0\n"},
        {"6", "0xFFFFFFEF", "register 0\n"}};
    for (auto [level, edx, want] : registers) {
        const std::string out = zeptest::runHelper(
            "helper_tick", {"startup"},
            {std::string("ZEP_FAKE_LEVEL=") + level, std::string("ZEP_FAKE_EDX=") + edx}, &status);
        EXPECT_EQ(out.substr(out.find("register")), want) << level << " " << edx;
    }
}
