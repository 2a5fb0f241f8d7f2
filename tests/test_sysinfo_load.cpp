// Processor load: the load averages, and the busy shares that zepGetCPUUsage computes from two
// samples of /proc/stat (recorded lines through the test root, including a kernel whose line
// lacks the interrupt fields), with the trace of the counters it can't give.
#include <dlfcn.h>

#include <functional>

#include "zepcpuusage.h"
#include "zepos.h"
#include "zeptest_sys.h"

namespace {

std::function<void()> g_betweenSamples;

}  // namespace

// The query sleeps between its two samples through the library's exported zepSleep, which this
// program defines: a test writes the second sample there.
extern "C" Uint32 zepSleep(Uint32 milliseconds) {
    if (g_betweenSamples) g_betweenSamples();
    return reinterpret_cast<Uint32 (*)(Uint32)>(dlsym(RTLD_NEXT, "zepSleep"))(milliseconds);
}

namespace {

using namespace zeptest;

class Load : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        ASSERT_EQ(mkdir(path("proc").c_str(), 0755), 0);
        zepos::SetSystemFilesRoot(dir_.c_str());
    }
    void TearDown() override {
        zepos::SetSystemFilesRoot(nullptr);
        g_betweenSamples = nullptr;
        CaptureTest::TearDown();
    }
};

TEST_F(Load, AveragesAreTheKernelsAndAnUnreadableFileFailsThemAll) {
    put(path("proc/loadavg"), "0.40 1.35 12.06 1/93 17642\n");
    ZEPAvgCPULoadInfo a;
    EXPECT_EQ(zepGetAvgCPULoad(&a), 0u);
    EXPECT_EQ(std::vector<double>({a.load1.value, a.load5.value, a.load15.value}),
              std::vector<double>({0.40, 1.35, 12.06}));
    EXPECT_EQ(a.load1.state | a.load5.state | a.load15.state, 0u);
    for (const char* damaged : {"", "0.40 1.35\n", "busy\n", static_cast<const char*>(nullptr)}) {
        damaged ? put(path("proc/loadavg"), damaged) : void(unlink(path("proc/loadavg").c_str()));
        ZEPAvgCPULoadInfo b;
        EXPECT_EQ(zepGetAvgCPULoad(&b), ECF_FAILED) << (damaged ? damaged : "none");
        EXPECT_EQ(b.load1.state & b.load5.state & b.load15.state, ECF_FAILED);
    }
}

TEST_F(Load, UsageIsTheShareOfTheTicksBetweenTwoSamples) {
    const double F = -1;  // a counter with no value: its state ECF_FAILED
    const struct {
        const char* name;
        const char* before;
        const char* after;
        Uint32 rc;
        double value[5];  // processor, user, privileged, interrupt, idle
    } cases[] = {
        // 1000 ticks: user 300 + nice 100, system 150, idle 300 + iowait 100, irq 20 + softirq 30.
        // Steal is busy time of the machine, in no other counter.
        // clang-format off
        {"a kernel of today", "cpu  1000 10 500 9000 40 0 5 0 0 0\ncpu0 1 2 3 4 5 6 7 8 9 10\n",
         "cpu  1300 110 650 9300 140 20 35 0 0 0\n", 0, {60, 40, 15, 5, 40}},
        {"steal counts as busy", "cpu  0 0 0 0 0 0 0 0\n", "cpu  100 0 0 700 0 0 0 200\n", 0,
         {30, 10, 0, 0, 70}},
        {"four fields: no interrupt counter", "cpu  100 0 100 800\n", "cpu  200 0 150 1150\n", 0,
         {30, 20, 10, F, 70}},
        {"no ticks between", "cpu  5 5 5 5 5 5 5 5\n", "cpu  5 5 5 5 5 5 5 5\n", ECF_FAILED,
         {F, F, F, F, F}},
        {"a counter going back", "cpu  500 0 0 500 0 0 0 0\n", "cpu  400 0 0 900 0 0 0 0\n",
         ECF_FAILED, {F, F, F, F, F}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        put(path("proc/stat"), c.before);
        const std::string stat = path("proc/stat"), after = c.after;
        g_betweenSamples = [&] { put(stat, after); };
        ZEPCPUUsageInfo u;
        u.interval = 1;
        EXPECT_EQ(zepGetCPUUsage(&u), c.rc);
        const ZEPSysInfoDouble* got[5] = {&u.processorTime, &u.userTime, &u.privilegedTime,
                                          &u.interruptTime, &u.idleTime};
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(got[i]->state, c.value[i] == F ? ECF_FAILED : 0u) << i;
            EXPECT_NEAR(c.value[i] == F ? F : got[i]->value, c.value[i], 1e-9) << i;
        }
    }

    // The trace: the record at 10, each counter without a value with its status and index at 80,
    // and an error record at 90 only when none had one; no log record ever.
    const struct {
        const char* after;
        std::string said;
    } traced[] = {
        {"cpu  200 0 150 1150\n",
         "p10 t3 n1; var zepGetCPUUsage p80 t3 n2; exit zepGetCPUUsage OK"},
        {"cpu  100 0 100 800\n",
         "p10 t3 n1; var zepGetCPUUsage p80 t3 n2; var zepGetCPUUsage p80 t3 "
         "n2; var zepGetCPUUsage p80 t3 n2; var zepGetCPUUsage p80 t3 n2; "
         "var zepGetCPUUsage p80 t3 n2; error zepGetCPUUsage p90 t4 n1; "
         "exit zepGetCPUUsage ECF_FAILED"},
        {nullptr, "p10 t3 n1; error zepGetCPUUsage p50 t4 n1; exit zepGetCPUUsage ECF_FAILED"},
    };
    for (const auto& t : traced) {
        put(path("proc/stat"), "cpu  100 0 100 800\n");
        const std::string stat = path("proc/stat"), after = t.after ? t.after : "";
        g_betweenSamples = [&] { put(stat, after); };
        if (!t.after) unlink(stat.c_str());
        calls.clear();
        trace(true);
        ZEPCPUUsageInfo u;
        u.interval = 1;
        zepGetCPUUsage(&u);
        trace(false);
        EXPECT_EQ(said(), "entry zepGetCPUUsage; var zepGetCPUUsage " + t.said);
    }
    EXPECT_EQ(valueOf<Uint32>(calls.at(2).items.at(0)), zepos::PDH_NO_DATA);
}

TEST(LoadMachine, TheMachinesOwnCounters) {
    ZEPCPUUsageInfo u;
    u.interval = 100;
    ASSERT_EQ(zepGetCPUUsage(&u), 0u);
    EXPECT_NEAR(u.processorTime.value, 100 - u.idleTime.value, 1e-9);
    // The four parts leave out only steal time.
    EXPECT_LE(u.userTime.value + u.privilegedTime.value + u.interruptTime.value + u.idleTime.value,
              100.0 + 1e-9);
    ZEPAvgCPULoadInfo a;
    EXPECT_EQ(zepGetAvgCPULoad(&a), 0u);
}

}  // namespace
