// Ticks and their conversions at the boundaries, the factor within and across processes, and the
// time calls.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <thread>
#include <tuple>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

ZEPTickConversionFactor factorOf(Sint64 frequency) {
    ZEPTickConversionFactor f;
    f.counterSample = f.registerSample = 1;
    f.frequency = frequency;
    return f;
}

// A tick read between two readings of the wall clock, with the factor to convert it.
struct Stamped {
    ZEPTickConversionFactor factor;
    ZEPTick tick;
    Sint64 before, after;
};

void stamp(Stamped& s) {
    struct timespec wall[2];
    clock_gettime(CLOCK_REALTIME, &wall[0]);
    s.tick.read();
    clock_gettime(CLOCK_REALTIME, &wall[1]);
    s.before = Sint64(wall[0].tv_sec) * 1000000000 + wall[0].tv_nsec;
    s.after = Sint64(wall[1].tv_sec) * 1000000000 + wall[1].tv_nsec;
}

}  // namespace

template <class T>
class TickConversion : public ::testing::Test {};
using TickTypes = ::testing::Types<ZEPTick, ZEPTickDelta>;
TYPED_TEST_SUITE(TickConversion, TickTypes);

TYPED_TEST(TickConversion, ToTimeAndFromTimeValue) {
    // Ticks and frequency, seconds and nanoseconds. Read as signed: a tick count before its
    // origin gives the floor, wrapped to 32 bits; seconds beyond 32 bits wrap as well.
    // clang-format off
    const std::tuple<Uint64, Sint64, Uint32, Uint32> toTime[] = {
        {0, 1000000000, 0, 0}, {1500000000, 1000000000, 1, 500000000},
        {Uint64(-1500000000ll), 1000000000, 0xFFFFFFFEu, 500000000},
        {0x100000005ull * 1000, 1000, 5, 0}};
    // clang-format on
    for (const auto& [ticks, frequency, seconds, nanoseconds] : toTime) {
        Uint32 s = 77, ns = 77;
        TypeParam(ticks).convertToTime(factorOf(frequency), s, ns);
        EXPECT_EQ(std::make_pair(s, ns), std::make_pair(seconds, nanoseconds)) << ticks;
    }
    // Nanoseconds and frequency, the result and the ticks (a failure clears them). A rate whose
    // reference length isn't whole (the last row) has it cut to 477,097,642 ns first, so the
    // quotient comes out one above the plain product of time and rate.
    const Uint32 big = ECF_ZEPTICK_TIME_VALUE_TOO_BIG, small = ECF_ZEPTICK_TIME_VALUE_TOO_SMALL;
    // clang-format off
    const std::tuple<Uint32, Sint64, Uint32, Uint64> fromTime[] = {
        {999999999, 1000000000, 0, 999999999}, {1000000000, 1000000000, big, 0},
        {999, 1000000000, small, 0}, {1999, 1000000, 0, 1}, {1000, 100000, small, 0},
        {999999999, 1, small, 0}, {500000000, 2096007000, 0, 1048003501}};
    // clang-format on
    for (const auto& [nanoseconds, frequency, rc, ticks] : fromTime) {
        TypeParam t(12345);
        EXPECT_EQ(t.initFromTimeValue(factorOf(frequency), nanoseconds), rc) << nanoseconds;
        EXPECT_EQ(t.value, ticks) << nanoseconds << " " << frequency;
    }
}

TEST(Tick, FactorAcrossProcesses) {
    // A process of its own, forked before anything here measured the factor, measures it itself
    // and reads a tick; then four threads here ask for the factor at once, the first time, and
    // get the same bytes. Both processes read the same counter: the child's factor converts the
    // ticks between its read and ours into what the wall clock saw around them (0.5 ms slack).
    void* p =
        mmap(nullptr, sizeof(Stamped), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(p, MAP_FAILED);
    Stamped& theirs = *static_cast<Stamped*>(p);
    const pid_t pid = fork();
    if (pid == 0) {
        theirs.factor.initialize();
        stamp(theirs);
        _exit(0);
    }
    ASSERT_EQ(zeptest::waitExit(pid), 0);
    ZEPTickConversionFactor seen[4];
    std::vector<std::thread> threads;
    for (auto& f : seen) threads.emplace_back([&f] { f.initialize(); });
    for (auto& t : threads) t.join();
    for (const auto& f : seen) EXPECT_EQ(memcmp(&f, &seen[0], sizeof f), 0);
    EXPECT_EQ(theirs.factor.frequency, seen[0].frequency);
    zepSleep(50);
    Stamped ours;
    stamp(ours);
    Uint32 s, ns;
    ZEPTickDelta(theirs.tick, ours.tick).convertToTime(theirs.factor, s, ns);
    const Sint64 elapsed = Sint64(s) * 1000000000 + ns;
    EXPECT_GE(elapsed, ours.before - theirs.after - 500000);
    EXPECT_LE(elapsed, ours.after - theirs.before + 500000);
    munmap(p, sizeof(Stamped));
}

TEST(Time, UtcAndBrokenDown) {
    const Sint32 before = Sint32(time(nullptr));
    ZEPTimeValue v;
    EXPECT_EQ(zepTimeGetUTC(&v), v.seconds);
    EXPECT_LE(before, v.seconds);
    EXPECT_EQ(v.microseconds, v.milliseconds * 1000u);
    EXPECT_LE(v.seconds, zepTimeGetUTC(nullptr));
    EXPECT_EQ(zepSleep(0), 0u);
    // The nine fields, and nothing beyond them; local time as the C library gives it.
    auto fields = [](const struct tm& t) {
        return std::vector<int>{t.tm_year, t.tm_mon,  t.tm_mday, t.tm_hour, t.tm_min,
                                t.tm_sec,  t.tm_wday, t.tm_yday, t.tm_isdst};
    };
    struct tm t, local;
    memset(&t, 0x5A, sizeof t);
    EXPECT_EQ(zepTimeGmTime(-1, &t), &t);
    EXPECT_EQ(fields(t), (std::vector<int>{69, 11, 31, 23, 59, 59, 3, 364, 0}));
    EXPECT_EQ(t.tm_gmtoff, 0x5A5A5A5A5A5A5A5Al);
    const time_t noon = 1700000000;
    EXPECT_EQ(zepTimeLocalTime(Sint32(noon), &t), &t);
    EXPECT_EQ(fields(t), fields(*localtime_r(&noon, &local)));
}
