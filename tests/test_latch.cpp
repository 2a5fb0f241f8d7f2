// ZEPLock and ZEPVLatch: texts and verdicts, the slow path's sleep sequence and tuning, exact
// counts under contention from processes, and the start-up pass's choices.
//
// This program defines the OS layer's Sleep itself: while a recording is on, each sleep of the
// slow path is noted instead of slept, and a chosen one releases the lock the caller waits for;
// otherwise a sleep only yields.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <tuple>
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

}  // namespace

namespace zepos {

void Sleep(Uint32 milliseconds) {
    if (!g_recording.load()) return (void)sched_yield();
    g_sleeps.push_back(milliseconds);
    if (g_sleeps.size() == g_retuneAfter) ZEPLatch::updateSpinCounts({0, 0, 0, 0, 0});
    if (g_sleeps.size() == g_releaseAfter) zepLockRelease(g_releaseLock);
}

}  // namespace zepos

TEST(Latch, TextsAndVerdicts) {
    // The byte's text (the byte read sign-extended, shown by its low eight bits), then the
    // result of zepLockToString and zepLockVerify's verdict for each expectation: any, free,
    // held, other (C: ECF_ZEPLOCK_CORRUPT).
    const std::tuple<Uint8, const char*, const char*> rows[] = {
        {0x00, "{ 0x00 [ unlocked ] }", "...C."},
        {0x80, "{ 0x80 [ locked ] }", "..C.."},
        {0xC0, "{ 0xC0 [ locked;waiting ] }", "..C.."},  // held with waiters is held
        {0x41, "{ 0x41 [ corrupt ] }", "CCCCC"},
        {0xFF, "{ 0xFF [ corrupt ] }", "CCCCC"}};
    for (const auto& [byte, text, verdicts] : rows) {
        ZEPLock lock = byte;
        char buf[64];
        std::string got;
        for (Uint32 rc :
             {zepLockToString(&lock, buf, sizeof buf), zepLockVerify(&lock, 0),
              zepLockVerify(&lock, 1), zepLockVerify(&lock, 2), zepLockVerify(&lock, 3)})
            got += rc == 0 ? '.' : rc == ECF_ZEPLOCK_CORRUPT ? 'C' : '?';
        EXPECT_STREQ(buf, text);
        EXPECT_EQ(got, verdicts) << text;
        EXPECT_EQ(zepLockToString(&lock, nullptr, 0), got[0] == 'C' ? ECF_ZEPLOCK_CORRUPT : 0u);
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
    // The slow path on a held lock that the twelfth sleep frees. Spinning first changes nothing
    // of the sleeps: sleepStep 3 makes them grow by 3 until they pass 24, then start at 1 again.
    // A waiter already in the slow path reads new tuning (here after the ninth sleep) in its next
    // round; with sleepStep 0 every sleep is 1 ms.
    ZEPSpinTune saved;
    ZEPLatch::getSpinCounts(saved);
    ZEPLatch::updateSpinCounts({2, 10, 50, 0, 3});
    ZEPLock lock = ZEPLOCK_LOCKED;
    g_sleeps.clear();
    g_releaseLock = &lock;
    g_releaseAfter = 12;
    g_retuneAfter = 9;
    g_recording = true;
    EXPECT_EQ(zepLockGetConflict(&lock), 1u);
    g_recording = false;
    EXPECT_EQ(lock, ZEPLOCK_LOCKED);
    EXPECT_EQ(g_sleeps, (std::vector<Uint32>{1, 4, 7, 10, 13, 16, 19, 22, 1, 1, 1, 1}));
    ZEPLatch::updateSpinCounts(saved);
}

TEST(Latch, ContentionAcrossProcesses) {
    // Processes of their own take one lock in shared memory around a plain counter, and add to a
    // 64-bit cell by compare-and-swap.
    struct Shared {
        ZEPLock lock;
        Uint64 counter, swapped;
    };
    void* p =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    Shared* shared = static_cast<Shared*>(p);
    const int processes = 3, rounds = 100000;
    auto work = [shared] {
        Uint64 seen = 0;
        for (int k = 0; k < rounds; ++k) {
            zepLockGet(&shared->lock);
            shared->counter = shared->counter + 1;
            zepLockRelease(&shared->lock);
            while (!zepWin32CompareSwapAndReturn64Internal(&shared->swapped, &seen, seen + 1)) {
            }
        }
    };
    std::vector<pid_t> pids;
    for (int i = 0; i < processes; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            work();
            _exit(0);
        }
        pids.push_back(pid);
    }
    work();  // this process joins in
    for (pid_t pid : pids) EXPECT_EQ(zeptest::waitExit(pid), 0);
    EXPECT_EQ(shared->counter, Uint64(processes + 1) * rounds);
    EXPECT_EQ(shared->swapped, Uint64(processes + 1) * rounds);
    EXPECT_EQ(shared->lock, 0);
    munmap(p, sizeof(Shared));
}

TEST(Latch, StartupPassTuningAndTickRegister) {
    // The spin tuning for this machine's processor count, and the tick register's test: level 5
    // or more and the feature bit 4 of EDX.
    zepos::SYSTEM_INFO info;
    zepos::GetSystemInfo(&info);
    const Uint32 n = info.dwNumberOfProcessors;
    ZEPSpinTune t;
    ZEPLatch::getSpinCounts(t);
    EXPECT_EQ(
        std::vector<Uint32>({t.spinLimit, t.spinCount, t.spinDelay, t.spinReserved, t.sleepStep}),
        n < 2    ? std::vector<Uint32>({0, 0, 0, 0, 0})
        : n == 2 ? std::vector<Uint32>({2, 10, 50, 0, 0})
        : n < 5  ? std::vector<Uint32>({5, 20, 50, 0, 0})
                 : std::vector<Uint32>({5, 30, 50, 0, 0}));
    Uint32 regs[4];
    zepos::Cpuid(1, regs);
    EXPECT_EQ(zepCanUseRegister(), Uint32(info.wProcessorLevel >= 5 && (regs[3] & 0x10)));
}
