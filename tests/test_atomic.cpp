// The atomic family at every width, ZEPVAtomicSigned32's version rule, and contention.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "zep.h"

TEST(Atomic, ExportedFamilyResults) {
    volatile Uint8 b = 0x05;
    EXPECT_EQ(zepWin32Lock8ExchangeInternal(&b), 0x05);
    EXPECT_EQ(b, 0x80);
    EXPECT_EQ(zepWin32Lock8ExchangeInternal(&b), 0x80);
    EXPECT_EQ(zepWin32Lock8ReleaseAndReturnInternal(&b), 0x80);
    EXPECT_EQ(b, 0);
    b = 0x7F;
    zepWin32Lock8ReleaseInternal(&b);
    EXPECT_EQ(b, 0);

    // The previous byte comes back in the low eight bits only, not sign-extended.
    b = 0xFF;
    EXPECT_EQ(zepWin32AtomicExchange8Internal(&b, 0x12), 0x000000FFu);
    EXPECT_EQ(b, 0x12);

    volatile Uint32 w = 0xDEADBEEF;
    EXPECT_EQ(zepWin32AtomicExchange32Internal(&w, 7), 0xDEADBEEFu);
    EXPECT_EQ(zepWin32FetchAndAdd32Internal(&w, 5), 7u);
    EXPECT_EQ(zepWin32FetchAndAdd32Internal(&w, -13), 12u);
    EXPECT_EQ(w, 0xFFFFFFFFu);
    EXPECT_EQ(zepWin32FetchAndAdd32Internal(&w, 1), 0xFFFFFFFFu);
    EXPECT_EQ(w, 0u);

    // New value before expected value; the result is what was found.
    volatile Uint8 c8 = 9;
    EXPECT_EQ(zepWin32CompareSwapAndReturn8Internal(&c8, 1, 2), 9);
    EXPECT_EQ(c8, 9);
    EXPECT_EQ(zepWin32CompareSwapAndReturn8Internal(&c8, 1, 9), 9);
    EXPECT_EQ(c8, 1);
    volatile Uint16 c16 = 0xBEEF;
    EXPECT_EQ(zepWin32CompareSwapAndReturn16Internal(&c16, 0x1234, 0xBEEE), 0xBEEF);
    EXPECT_EQ(c16, 0xBEEF);
    EXPECT_EQ(zepWin32CompareSwapAndReturn16Internal(&c16, 0x1234, 0xBEEF), 0xBEEF);
    EXPECT_EQ(c16, 0x1234);
    volatile Uint32 c32 = 0x80000000u;
    EXPECT_EQ(zepWin32CompareSwapAndReturn32Internal(&c32, 3, 0), 0x80000000u);
    EXPECT_EQ(zepWin32CompareSwapAndReturn32Internal(&c32, 3, 0x80000000u), 0x80000000u);
    EXPECT_EQ(c32, 3u);

    // The 64-bit form: expected by pointer, then the new value; the value found is written back
    // on failure, and a retry with it succeeds.
    volatile Uint64 c64 = 0x1122334455667788ull;
    Uint64 expected = 5;
    EXPECT_EQ(zepWin32CompareSwapAndReturn64Internal(&c64, &expected, 0xAAull), 0u);
    EXPECT_EQ(expected, 0x1122334455667788ull);
    EXPECT_EQ(c64, 0x1122334455667788ull);
    EXPECT_EQ(zepWin32CompareSwapAndReturn64Internal(&c64, &expected, 0xFFFFFFFF00000001ull), 1u);
    EXPECT_EQ(expected, 0x1122334455667788ull);
    EXPECT_EQ(c64, 0xFFFFFFFF00000001ull);
    EXPECT_EQ(zepWin32Fetch64Internal(&c64), 0xFFFFFFFF00000001ull);
    EXPECT_EQ(c64, 0xFFFFFFFF00000001ull);
}

TEST(Atomic, TestGetSetsBitSevenOfItsByteOnly) {
    // Every byte position within a word, neighbours full of ones and zeros.
    for (int at = 0; at < 8; ++at) {
        alignas(8) volatile Uint8 bytes[8];
        for (int i = 0; i < 8; ++i) bytes[i] = static_cast<Uint8>(i % 2 ? 0xFF : 0x00);
        bytes[at] = 0x41;
        EXPECT_EQ(zepWin32Lock8TestGetInternal(&bytes[at]), 0u) << at;
        EXPECT_EQ(bytes[at], 0xC1) << at;
        EXPECT_EQ(zepWin32Lock8TestGetInternal(&bytes[at]), 0x870F0035u) << at;
        EXPECT_EQ(bytes[at], 0xC1) << at;
        for (int i = 0; i < 8; ++i) {
            if (i == at) continue;
            EXPECT_EQ(bytes[i], i % 2 ? 0xFF : 0x00) << at << " " << i;
        }
    }

    // The last byte of a page with nothing mapped behind it.
    const long page = sysconf(_SC_PAGESIZE);
    char* two = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(two, MAP_FAILED);
    ASSERT_EQ(mprotect(two + page, page, PROT_NONE), 0);
    volatile Uint8* last = reinterpret_cast<volatile Uint8*>(two + page - 1);
    EXPECT_EQ(zepWin32Lock8TestGetInternal(last), 0u);
    EXPECT_EQ(*last, 0x80);
    EXPECT_EQ(zepWin32Lock8TestGetInternal(last), 0x870F0035u);
    munmap(two, 2 * page);
}

TEST(Atomic, InlineFormsAtTheOtherWidths) {
    volatile Uint8 b = 250;
    EXPECT_EQ(zepAtomicFetchAndAdd8(&b, 10), 250);
    EXPECT_EQ(b, 4);
    volatile Uint16 h = 0xFFFE;
    EXPECT_EQ(zepAtomicFetchAndAdd16(&h, 3), 0xFFFE);
    EXPECT_EQ(h, 1);
    EXPECT_EQ(zepAtomicExchange16(&h, 0xABCD), 1);
    EXPECT_EQ(h, 0xABCD);

    // The lock value stays 0x80 at every width; test-get looks at bit 7 only.
    volatile Uint16 l16 = 0xFF00;
    EXPECT_EQ(zepAtomicLockTestGet16(&l16), 0u);
    EXPECT_EQ(l16, 0xFF80);
    EXPECT_EQ(zepAtomicLockTestGet16(&l16), 0x870F0035u);
    EXPECT_EQ(zepAtomicLockExchange16(&l16), 0xFF80);
    EXPECT_EQ(l16, 0x80);
    EXPECT_EQ(zepAtomicLockReleaseAndReturn16(&l16), 0x80);
    EXPECT_EQ(l16, 0);
    l16 = 0x1234;
    zepAtomicLockRelease16(&l16);
    EXPECT_EQ(l16, 0);

    volatile Uint32 l32 = 0xFFFF0000u;
    EXPECT_EQ(zepAtomicLockTestGet32(&l32), 0u);
    EXPECT_EQ(l32, 0xFFFF0080u);
    EXPECT_EQ(zepAtomicLockTestGet32(&l32), 0x870F0035u);
    EXPECT_EQ(zepAtomicLockExchange32(&l32), 0xFFFF0080u);
    EXPECT_EQ(l32, 0x80u);
    EXPECT_EQ(zepAtomicLockReleaseAndReturn32(&l32), 0x80u);
    l32 = 9;
    zepAtomicLockRelease32(&l32);
    EXPECT_EQ(l32, 0u);

    volatile Uint32 w = 10;
    EXPECT_EQ(zepAtomicCompareAndSwap32(&w, 11, 10), 1u);
    EXPECT_EQ(zepAtomicCompareAndSwap32(&w, 12, 10), 0u);
    EXPECT_EQ(w, 11u);
    EXPECT_EQ(zepAtomicFetchAndIncrement32(&w), 11u);
    EXPECT_EQ(zepAtomicFetchAndDecrement32(&w), 12u);
    EXPECT_EQ(zepAtomicPeek32(&w), 11u);
    zepAtomicPoke32(&w, 0);
    EXPECT_EQ(zepAtomicFetchAndDecrement32(&w), 0u);
    EXPECT_EQ(w, 0xFFFFFFFFu);
}

TEST(Atomic, ContendedCountsAreExact) {
    volatile Uint32 added = 0;
    volatile Uint64 swapped = 0;
    volatile Uint8 bytes = 0;
    const int threads = 4, rounds = 100000;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&] {
            Uint64 seen = 0;
            for (int i = 0; i < rounds; ++i) {
                zepWin32FetchAndAdd32Internal(&added, 1);
                while (!zepWin32CompareSwapAndReturn64Internal(&swapped, &seen, seen + 3)) {
                }
                zepAtomicFetchAndAdd8(&bytes, 1);
            }
        });
    }
    for (auto& t : pool) t.join();
    EXPECT_EQ(added, Uint32(threads * rounds));
    EXPECT_EQ(swapped, Uint64(3) * threads * rounds);
    EXPECT_EQ(bytes, Uint8((threads * rounds) & 0xFF));
}

TEST(Atomic, VersionedObject) {
    // Zeroed memory, and a stamp one below the oldest: every operation refuses and touches
    // nothing, neither the cell nor the outputs.
    for (Uint32 stamp : {0u, 20040701u}) {
        ZEPVAtomicSigned32 a;
        a.version = stamp;
        a.value = 42;
        Sint32 out = -99;
        EXPECT_EQ(a.peek(&out), ECF_INVALID_VERSION);
        EXPECT_EQ(a.add(5, &out), ECF_INVALID_VERSION);
        EXPECT_EQ(a.increment(&out), ECF_INVALID_VERSION);
        EXPECT_EQ(a.decrement(&out), ECF_INVALID_VERSION);
        EXPECT_EQ(a.swap(1, &out), ECF_INVALID_VERSION);
        EXPECT_EQ(a.compareAndSwap(42, 1), ECF_INVALID_VERSION);
        EXPECT_EQ(a.poke(1), ECF_INVALID_VERSION);
        EXPECT_EQ(out, -99);
        EXPECT_EQ(a.value, 42);
        EXPECT_EQ(a.version, stamp);
        EXPECT_EQ(a.size(), 4u);
    }

    ZEPVAtomicSigned32 a;
    a.version = 20040702u;
    a.value = 0;
    Sint32 prev = 5;
    EXPECT_EQ(a.decrement(&prev), 0u);
    EXPECT_EQ(prev, 0);
    EXPECT_EQ(a.value, -1);

    // init keeps the value with flag 0x2 and reads no other flag.
    a.value = 42;
    a.version = 0;
    a.init(7, 0x2);
    EXPECT_EQ(a.version, 0x09010007u);
    EXPECT_EQ(a.value, 42);
    a.init(7, ~0x2u);
    EXPECT_EQ(a.value, 7);

    // increment, add and swap hand back the value before the change; wrap-around is silent.
    a.init(0x7FFFFFFF, 0);
    EXPECT_EQ(a.increment(&prev), 0u);
    EXPECT_EQ(prev, 0x7FFFFFFF);
    EXPECT_EQ(a.value, static_cast<Sint32>(0x80000000u));
    EXPECT_EQ(a.add(-2, &prev), 0u);
    EXPECT_EQ(prev, static_cast<Sint32>(0x80000000u));
    EXPECT_EQ(a.value, 0x7FFFFFFE);
    EXPECT_EQ(a.swap(-5, &prev), 0u);
    EXPECT_EQ(prev, 0x7FFFFFFE);
    EXPECT_EQ(a.peek(&prev), 0u);
    EXPECT_EQ(prev, -5);

    // compareAndSwap takes the expected value first here.
    EXPECT_EQ(a.compareAndSwap(-4, 9), ECF_FAILED);
    EXPECT_EQ(a.value, -5);
    EXPECT_EQ(a.compareAndSwap(-5, 9), 0u);
    EXPECT_EQ(a.value, 9);
    EXPECT_EQ(a.compareAndSwap(9, 9), 0u);
    EXPECT_EQ(a.value, 9);
    EXPECT_EQ(a.poke(-1), 0u);
    EXPECT_EQ(a.value, -1);
}
