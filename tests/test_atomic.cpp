// The atomic family at every width, ZEPVAtomicSigned32's version rule, and contention.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>
#include <utility>
#include <vector>

#include "zep.h"

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
    EXPECT_EQ(STEP(zepAtomicLockTestGet16(&h), h), P(kTaken, 0xFF80));
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
    volatile Uint8 c8 = 9;
    volatile Uint16 c16 = 0xBEEF;
    volatile Uint32 c32 = 0x80000000u;
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn8Internal(&c8, 1, 2), c8), P(9, 9));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn8Internal(&c8, 1, 9), c8), P(9, 1));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn16Internal(&c16, 1, 0xBEEF), c16), P(0xBEEF, 1));
    EXPECT_EQ(STEP(zepWin32CompareSwapAndReturn32Internal(&c32, 3, 0), c32),
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

TEST(Atomic, ContendedCountsAreExact) {
    // Atomic counts, and a plain count under the latch, from more threads than processors; the
    // latch is retuned (to no spinning) while they wait for it.
    ZEPSpinTune saved;
    ZEPLatch::getSpinCounts(saved);
    volatile Uint32 added = 0;
    volatile Uint64 swapped = 0;
    volatile Uint8 bytes = 0;
    ZEPLock lock = 0;
    Uint64 counter = 0;
    const int threads = 4, rounds = 50000;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            Uint64 seen = 0;
            for (int i = 0; i < rounds; ++i) {
                zepWin32FetchAndAdd32Internal(&added, 1);
                while (!zepWin32CompareSwapAndReturn64Internal(&swapped, &seen, seen + 3)) {
                }
                zepAtomicFetchAndAdd8(&bytes, 1);
            }
            for (int i = 0; i < rounds; ++i) {
                if (t == 0 && i == rounds / 2) ZEPLatch::updateSpinCounts({0, 0, 0, 0, 0});
                zepLockGet(&lock);
                counter = counter + 1;
                zepLockRelease(&lock);
            }
        });
    for (auto& t : pool) t.join();
    ZEPLatch::updateSpinCounts(saved);
    EXPECT_EQ(P(added, swapped), P(threads * rounds, Uint64(3) * threads * rounds));
    EXPECT_EQ(P(bytes, counter), P((threads * rounds) & 0xFF, threads * rounds));
    EXPECT_EQ(lock, 0);
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
