// Ticks and their conversions at the boundaries, the factor within and across processes, and the
// time calls.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "zep.h"
#include "zepos.h"

extern char** environ;

namespace {

ZEPTickConversionFactor factorOf(Sint64 frequency) {
    ZEPTickConversionFactor f;
    f.counterSample = f.registerSample = 1;
    f.frequency = frequency;
    return f;
}

template <class T>
std::pair<Uint32, Uint32> timeOf(Uint64 ticks, Sint64 frequency) {
    T t(ticks);
    Uint32 s = 77, ns = 77;
    t.convertToTime(factorOf(frequency), s, ns);
    return {s, ns};
}

template <class T>
std::pair<Uint32, Uint64> ticksOf(Uint32 nanoseconds, Sint64 frequency) {
    T t(12345);  // a failure must clear it
    Uint32 rc = t.initFromTimeValue(factorOf(frequency), nanoseconds);
    return {rc, t.value};
}

Sint64 realtimeNs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<Sint64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// A tick read between two readings of the wall clock.
struct Stamped {
    ZEPTick tick;
    Sint64 before, after;
};
Stamped stamp() {
    Stamped s;
    s.before = realtimeNs();
    s.tick.read();
    s.after = realtimeNs();
    return s;
}

// The ticks from `from` to `to`, converted with `factor`, must lie within what the wall clock saw
// around the two reads (a preempted read widens the window instead of failing), give or take
// 0.5 ms for the wall clock's own adjustments.
void expectAgreesWithWallClock(const ZEPTickConversionFactor& factor, const Stamped& from,
                               const Stamped& to) {
    Uint32 s, ns;
    ZEPTickDelta(from.tick, to.tick).convertToTime(factor, s, ns);
    const Sint64 elapsed = static_cast<Sint64>(s) * 1000000000 + ns;
    EXPECT_GE(elapsed, to.before - from.after - 500000);
    EXPECT_LE(elapsed, to.after - from.before + 500000);
}

}  // namespace

template <class T>
class TickConversion : public ::testing::Test {};
using TickTypes = ::testing::Types<ZEPTick, ZEPTickDelta>;
TYPED_TEST_SUITE(TickConversion, TickTypes);

TYPED_TEST(TickConversion, ToTime) {
    using P = std::pair<Uint32, Uint32>;
    EXPECT_EQ(timeOf<TypeParam>(0, 1000000000), P(0, 0));
    EXPECT_EQ(timeOf<TypeParam>(1500000000, 1000000000), P(1, 500000000));
    EXPECT_EQ(timeOf<TypeParam>(999999999, 1000000000), P(0, 999999999));
    EXPECT_EQ(timeOf<TypeParam>(3, 1), P(3, 0));
    EXPECT_EQ(timeOf<TypeParam>(2500, 1000), P(2, 500000000));
    // Read as signed: a tick count before its origin gives the floor, wrapped to 32 bits.
    EXPECT_EQ(timeOf<TypeParam>(static_cast<Uint64>(-1500000000ll), 1000000000),
              P(0xFFFFFFFEu, 500000000));
    // Seconds beyond 32 bits wrap as well.
    EXPECT_EQ(timeOf<TypeParam>(0x100000005ull * 1000, 1000), P(5, 0));
}

TYPED_TEST(TickConversion, FromTimeValue) {
    using P = std::pair<Uint32, Uint64>;
    EXPECT_EQ(ticksOf<TypeParam>(999999999, 1000000000), P(0, 999999999));
    EXPECT_EQ(ticksOf<TypeParam>(1000, 1000000000), P(0, 1000));
    EXPECT_EQ(ticksOf<TypeParam>(1000000000, 1000000000), P(ECF_ZEPTICK_TIME_VALUE_TOO_BIG, 0));
    EXPECT_EQ(ticksOf<TypeParam>(0xFFFFFFFFu, 1000000000), P(ECF_ZEPTICK_TIME_VALUE_TOO_BIG, 0));
    EXPECT_EQ(ticksOf<TypeParam>(999, 1000000000), P(ECF_ZEPTICK_TIME_VALUE_TOO_SMALL, 0));
    EXPECT_EQ(ticksOf<TypeParam>(0, 1000000000), P(ECF_ZEPTICK_TIME_VALUE_TOO_SMALL, 0));
    // One tick a microsecond: 1000 ns are one tick, and the quotient is cut.
    EXPECT_EQ(ticksOf<TypeParam>(1000, 1000000), P(0, 1));
    EXPECT_EQ(ticksOf<TypeParam>(1999, 1000000), P(0, 1));
    EXPECT_EQ(ticksOf<TypeParam>(999999999, 1000000), P(0, 999999));
    // Ten microseconds a tick: 1000 ns are less than one.
    EXPECT_EQ(ticksOf<TypeParam>(1000, 100000), P(ECF_ZEPTICK_TIME_VALUE_TOO_SMALL, 0));
    EXPECT_EQ(ticksOf<TypeParam>(10000, 100000), P(0, 1));
    // No performance counter (frequency 1): nothing under a second is a tick.
    EXPECT_EQ(ticksOf<TypeParam>(999999999, 1), P(ECF_ZEPTICK_TIME_VALUE_TOO_SMALL, 0));
    // A rate whose reference length isn't whole: it is cut to 477,097,642 ns first, so the
    // quotient comes out one above the plain product of time and rate.
    EXPECT_EQ(ticksOf<TypeParam>(500000000, 2096007000), P(0, 1048003501));
}

TEST(Tick, FactorAndReads) {
    ZEPTickConversionFactor a, b;
    memset(&a, 0xAB, sizeof a);
    memset(&b, 0xCD, sizeof b);
    a.initialize();
    b.initialize();
    EXPECT_EQ(memcmp(&a, &b, sizeof a), 0);
    Sint64 frequency = 0;
    ASSERT_TRUE(zepos::QueryPerformanceFrequency(&frequency));
    EXPECT_EQ(a.frequency, frequency);
    EXPECT_GT(a.counterSample, 0u);
    EXPECT_GT(a.registerSample, 0u);

    // The counter moves forward, and its frequency agrees with the wall clock over a sleep.
    const Stamped t0 = stamp();
    zepSleep(50);
    const Stamped t1 = stamp();
    ASSERT_GT(t1.tick.value, t0.tick.value);
    expectAgreesWithWallClock(a, t0, t1);
}

TEST(Tick, FactorOfAnotherProcessConvertsOurTicks) {
    struct TickShared {  // the layout helper_tick writes
        ZEPTickConversionFactor factor;
        Uint64 tick;
        Sint64 realtimeBefore;
        Sint64 realtimeAfter;
    };
    int fd = memfd_create("zep-tick-test", 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, sizeof(TickShared)), 0);
    void* p = mmap(nullptr, sizeof(TickShared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    const TickShared* shared = static_cast<const TickShared*>(p);

    std::string path = std::string(ZEP_TEST_BIN_DIR) + "/helper_tick";
    std::string fdText = std::to_string(fd);
    char* argv[] = {path.data(), const_cast<char*>("factor"), fdText.data(), nullptr};
    pid_t pid;
    ASSERT_EQ(posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    zepSleep(30);
    const Stamped ours = stamp();

    // The other process measured the same counter: same frequency, and our factor converts too.
    ZEPTickConversionFactor mine;
    mine.initialize();
    EXPECT_EQ(shared->factor.frequency, mine.frequency);
    const Stamped theirs = {ZEPTick(shared->tick), shared->realtimeBefore, shared->realtimeAfter};
    expectAgreesWithWallClock(shared->factor, theirs, ours);
    expectAgreesWithWallClock(mine, theirs, ours);

    munmap(p, sizeof(TickShared));
    close(fd);
}

TEST(Time, UtcAndBrokenDown) {
    const Sint32 before = static_cast<Sint32>(time(nullptr));
    EXPECT_LE(before, zepTimeGetUTC(nullptr));
    ZEPTimeValue v;
    memset(&v, 0xEE, sizeof v);
    const Sint32 s = zepTimeGetUTC(&v);
    EXPECT_EQ(v.seconds, s);
    EXPECT_LE(s, static_cast<Sint32>(time(nullptr)));
    EXPECT_LT(v.milliseconds, 1000);
    EXPECT_EQ(v.microseconds, v.milliseconds * 1000u);

    // The nine fields, and nothing beyond them.
    struct tm t;
    memset(&t, 0x5A, sizeof t);
    const long gmtoff = t.tm_gmtoff;
    EXPECT_EQ(zepTimeGmTime(0, &t), &t);
    EXPECT_EQ(t.tm_year, 70);
    EXPECT_EQ(t.tm_mon, 0);
    EXPECT_EQ(t.tm_mday, 1);
    EXPECT_EQ(t.tm_hour, 0);
    EXPECT_EQ(t.tm_wday, 4);
    EXPECT_EQ(t.tm_yday, 0);
    EXPECT_EQ(t.tm_isdst, 0);
    EXPECT_EQ(t.tm_gmtoff, gmtoff);
    zepTimeGmTime(0x7FFFFFFF, &t);
    EXPECT_EQ(t.tm_year, 138);
    EXPECT_EQ(t.tm_mon, 0);
    EXPECT_EQ(t.tm_mday, 19);
    EXPECT_EQ(t.tm_hour, 3);
    EXPECT_EQ(t.tm_min, 14);
    EXPECT_EQ(t.tm_sec, 7);
    zepTimeGmTime(-1, &t);
    EXPECT_EQ(t.tm_year, 69);
    EXPECT_EQ(t.tm_yday, 364);
    EXPECT_EQ(t.tm_sec, 59);

    // Local time follows the zone: two hours east of UTC, no daylight saving.
    const char* oldTz = getenv("TZ");
    std::string saved = oldTz ? oldTz : "";
    setenv("TZ", "ZEP-2", 1);
    tzset();
    zepTimeLocalTime(3600, &t);
    EXPECT_EQ(t.tm_hour, 3);
    EXPECT_EQ(t.tm_isdst, 0);
    if (oldTz)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

namespace {
void onAlarm(int) {}
}  // namespace

TEST(Time, Sleep) {
    EXPECT_EQ(zepSleep(0), 0u);

    // Signals don't cut a sleep short, and errno stays what the caller had.
    struct sigaction sa = {};
    sa.sa_handler = onAlarm;
    struct sigaction old;
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    struct itimerval every5ms = {{0, 5000}, {0, 5000}}, off = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every5ms, nullptr), 0);
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    errno = 1234;
    EXPECT_EQ(zepSleep(40), 0u);
    EXPECT_EQ(errno, 1234);
    clock_gettime(CLOCK_MONOTONIC, &b);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    const Sint64 slept = (b.tv_sec - a.tv_sec) * 1000000000ll + (b.tv_nsec - a.tv_nsec);
    EXPECT_GE(slept, 40000000);
}
