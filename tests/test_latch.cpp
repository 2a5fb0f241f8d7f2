// The atomic family at every width, ZEPVAtomicSigned32's version rule, ZEPLock and ZEPVLatch:
// texts and verdicts, the slow path, the tick-register test, and exact counts under contention
// from threads and from processes.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace {

using P = std::pair<Uint64, Uint64>;

// An operation's result and the cell after it.
#define STEP(call, cell)                    \
    [&] {                                   \
        const Uint64 result = Uint64(call); \
        return P(result, Uint64(cell));     \
    }()

const Uint32 kTaken = 0x870F0035u;  // test-get's answer for a lock that was held

}  // namespace

TEST(Atomic, EveryWidthAndForm) {
    volatile Uint8 b = 0x05;
    EXPECT_EQ(STEP(zepWin32Lock8ExchangeInternal(&b), b), P(0x05, 0x80));
    EXPECT_EQ(STEP(zepWin32Lock8ReleaseAndReturnInternal(&b), b), P(0x80, 0));
    b = 0xFF;  // the previous byte comes back in the low eight bits only, not sign-extended
    EXPECT_EQ(STEP(zepWin32AtomicExchange8Internal(&b, 0x12), b), P(0xFF, 0x12));
    EXPECT_EQ(STEP(zepAtomicFetchAndAdd8(&b, 0xF8), b), P(0x12, 0x0A));
    zepWin32Lock8ReleaseInternal(&b);
    // The lock value stays 0x80 at every width; test-get looks at bit 7 only.
    volatile Uint16 h = 0xFF00;
    volatile Uint32 w = 0xFFFF0000u;
    EXPECT_EQ(STEP(zepAtomicLockTestGet16(&h), h), P(0, 0xFF80));
    EXPECT_EQ(STEP(zepAtomicLockExchange16(&h), h), P(0xFF80, 0x80));
    EXPECT_EQ(STEP(zepAtomicLockReleaseAndReturn16(&h), h), P(0x80, 0));
    EXPECT_EQ(STEP(zepAtomicLockTestGet32(&w), w), P(0, 0xFFFF0080u));
    EXPECT_EQ(STEP(zepAtomicLockExchange32(&w), w), P(0xFFFF0080u, 0x80));
    EXPECT_EQ(STEP(zepAtomicLockReleaseAndReturn32(&w), w), P(0x80, 0));
    EXPECT_EQ(STEP(zepAtomicFetchAndAdd16(&h, 0xFFFF), h), P(0, 0xFFFF));
    zepAtomicLockRelease16(&h);
    zepAtomicLockRelease32(&w);
    EXPECT_EQ(P(h, w + b), P(0, 0));
    zepAtomicPoke32(&w, 0xDEADBEEF);
    EXPECT_EQ(STEP(zepWin32AtomicExchange32Internal(&w, 7), zepAtomicPeek32(&w)),
              P(0xDEADBEEFu, 7));
    EXPECT_EQ(STEP(zepWin32FetchAndAdd32Internal(&w, -8), w), P(7, 0xFFFFFFFFu));
    EXPECT_EQ(STEP(zepAtomicFetchAndIncrement32(&w), w), P(0xFFFFFFFFu, 0));
    EXPECT_EQ(STEP(zepAtomicFetchAndDecrement32(&w), w), P(0, 0xFFFFFFFFu));
    EXPECT_EQ(STEP(zepAtomicCompareAndSwap32(&w, 11, 10), w), P(0, 0xFFFFFFFFu));

    // The exported compare-and-swap: new value before expected value, the value found back.
    b = 9;
    h = 0xBEEF;
    w = 0x80000000u;
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn8Internal(&b, 1, 2), b), P(9, 9));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn8Internal(&b, 1, 9), b), P(9, 1));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn16Internal(&h, 1, 0xBEEF), h), P(0xBEEF, 1));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn32Internal(&w, 3, 0), w),
              P(0x80000000u, 0x80000000u));
    // The 64-bit form: expected by pointer, then the new value; the value found is written back
    // on failure, and a retry with it succeeds.
    volatile Uint64 c64 = 0x1122334455667788ull;
    Uint64 expected = 5;
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn64Internal(&c64, &expected, 0xAA), c64),
              P(0, 0x1122334455667788ull));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn64Internal(&c64, &expected, ~0ull), expected),
              P(1, 0x1122334455667788ull));
    EXPECT_EQ(zepWin32Fetch64Internal(&c64), ~0ull);
}

TEST(Atomic, TestGetSetsBitSevenOfItsByteOnly) {
    // The byte's bit is set within its aligned word: every position, neighbours of ones and
    // zeros, and the last byte of a page with nothing mapped behind it.
    for (int at = 0; at < 4; ++at) {
        alignas(4) volatile Uint8 bytes[4] = {0x00, 0xFF, 0x00, 0xFF};
        bytes[at] = 0x41;
        EXPECT_EQ(STEP(zepWin32Lock8TestGetInternal(&bytes[at]), bytes[at]), P(0, 0xC1)) << at;
        EXPECT_EQ(STEP(zepWin32Lock8TestGetInternal(&bytes[at]), bytes[at]), P(kTaken, 0xC1));
        for (int i = 0; i < 4; ++i) EXPECT_EQ(bytes[i], i == at ? 0xC1 : i % 2 ? 0xFF : 0) << at;
    }
    const long page = sysconf(_SC_PAGESIZE);
    char* two = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(two + page, page, PROT_NONE), 0);
    volatile Uint8* last = reinterpret_cast<volatile Uint8*>(two + page - 1);
    EXPECT_EQ(STEP(zepWin32Lock8TestGetInternal(last), *last), P(0, 0x80));
    munmap(two, 2 * page);
}

TEST(Atomic, VersionedObject) {
    // Zeroed memory, and a stamp one below the oldest: every operation refuses and touches
    // nothing, neither the cell nor the outputs.
    for (Uint32 stamp : {0u, 20040701u}) {
        ZEPVAtomicSigned32 a{stamp, 42};
        Sint32 out = -99;
        for (Uint32 rc : {a.peek(&out), a.add(5, &out), a.increment(&out), a.decrement(&out),
                          a.swap(1, &out), a.compareAndSwap(42, 1), a.poke(1)})
            EXPECT_EQ(rc, ECF_INVALID_VERSION);
        EXPECT_EQ(P(out, a.value), P(-99, 42));
    }
    // init keeps the value with flag 0x2 and reads no other flag.
    ZEPVAtomicSigned32 a{0, 42};
    a.init(7, 0x2);
    EXPECT_EQ(P(a.version, a.value), P(0x09010007u, 42));
    a.init(0x7FFFFFFF, ~0x2u);
    EXPECT_EQ(P(a.value, a.size()), P(0x7FFFFFFF, 4));
    a.version = 20040702u;  // the oldest stamp that counts
    // increment, add, decrement and swap hand back the value before the change; wrap-around is
    // silent. compareAndSwap takes the expected value first here.
    Sint32 prev = 5;
    EXPECT_EQ(STEP(a.increment(&prev), prev), P(0, 0x7FFFFFFF));
    EXPECT_EQ(STEP(a.add(-2, &prev), prev), P(0, Uint64(Sint32(0x80000000u))));
    EXPECT_EQ(STEP(a.swap(-5, &prev), prev), P(0, 0x7FFFFFFE));
    EXPECT_EQ(STEP(a.decrement(&prev), prev), P(0, Uint64(-5)));
    EXPECT_EQ(STEP(a.peek(&prev), prev), P(0, Uint64(-6)));
    EXPECT_EQ(STEP(a.compareAndSwap(-5, 9), a.value), P(ECF_FAILED, Uint64(-6)));
    EXPECT_EQ(STEP(a.compareAndSwap(-6, 9), a.value), P(0, 9));
    EXPECT_EQ(STEP(a.poke(-1), a.value), P(0, Uint64(-1)));
}

TEST(Latch, TextsAndVerdicts) {
    // The byte's text (the byte read sign-extended, shown by its low eight bits), then the
    // result of zepLockToString and zepLockVerify's verdict for each expectation: any, free,
    // held, other (C: ECF_ZEPLOCK_CORRUPT).
    // clang-format off
    const std::tuple<Uint8, const char*, const char*> rows[] = {
        {0x00, "{ 0x00 [ unlocked ] }", "...C."}, {0x80, "{ 0x80 [ locked ] }", "..C.."},
        {0xC0, "{ 0xC0 [ locked;waiting ] }", "..C.."},  // held with waiters is held
        {0x41, "{ 0x41 [ corrupt ] }", "CCCCC"}, {0xFF, "{ 0xFF [ corrupt ] }", "CCCCC"}};
    // clang-format on
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
    // 77 + n * (1 + 2 + ... + (n-1)), wrapping at 32 bits.
    for (Uint32 n : {0u, 1u, 3u, 5000u})
        EXPECT_EQ(Uint32(zepWasteTime(n)), 77u + n * (n * (n - 1) / 2)) << n;
    zepYield();
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

TEST(Latch, SlowPathWaitsForTheHolder) {
    // A waiter that finds the lock held spins, sleeps and tries again until it is released.
    ZEPLock held = ZEPLOCK_LOCKED;
    std::thread waiter([&] { zepLockGet(&held); });
    zepSleep(20);
    zepLockRelease(&held);
    waiter.join();
    EXPECT_EQ(held, ZEPLOCK_LOCKED);
}

TEST(Atomic, ContendedCountsAreExact) {
    // Threads here and forked processes count atomically at 8, 32 and 64 bits in shared memory,
    // and under one latch there with a plain counter; the latch is retuned (to no spinning)
    // while they wait for it.
    struct Shared {
        ZEPLock lock;
        volatile Uint8 bytes;
        volatile Uint32 added;
        volatile Uint64 swapped;
        Uint64 counter;
    };
    void* p =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    Shared* shared = static_cast<Shared*>(p);
    const int processes = 2, threads = 3, rounds = 50000;
    auto work = [shared](bool retune) {
        Uint64 seen = 0;
        for (int i = 0; i < rounds; ++i) {
            zepWin32FetchAndAdd32Internal(&shared->added, 1);
            while (!zepWin32CompareSwapAndReturn64Internal(&shared->swapped, &seen, seen + 3)) {
            }
            zepAtomicFetchAndAdd8(&shared->bytes, 1);
        }
        for (int i = 0; i < rounds; ++i) {
            if (retune && i == rounds / 2) ZEPLatch::updateSpinCounts({0, 0, 0, 0, 0});
            zepLockGet(&shared->lock);
            shared->counter = shared->counter + 1;
            zepLockRelease(&shared->lock);
        }
    };
    ZEPSpinTune saved;
    ZEPLatch::getSpinCounts(saved);
    std::vector<pid_t> pids;
    for (int i = 0; i < processes; ++i) {
        pids.push_back(fork());
        if (pids.back() == 0) {
            work(false);
            _exit(0);
        }
    }
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) pool.emplace_back(work, t == 0);
    for (auto& t : pool) t.join();
    for (pid_t pid : pids) EXPECT_EQ(zeptest::waitExit(pid), 0);
    ZEPLatch::updateSpinCounts(saved);
    const Uint64 n = Uint64(processes + threads) * rounds;
    EXPECT_EQ(P(shared->added, shared->swapped), P(n, 3 * n));
    EXPECT_EQ(P(shared->bytes, shared->counter), P(n & 0xFF, n));
    EXPECT_EQ(shared->lock, 0);
    munmap(p, sizeof(Shared));
}

TEST(Latch, StartupPassTickRegister) {
    // The tick register may be read from level 5 on, with the feature bit 4 of EDX.
    zepos::SYSTEM_INFO info;
    zepos::GetSystemInfo(&info);
    Uint32 regs[4];
    zepos::Cpuid(1, regs);
    EXPECT_EQ(zepCanUseRegister(), Uint32(info.wProcessorLevel >= 5 && (regs[3] & 0x10)));
}
