// Processor load: the load averages, the busy shares computed from two samples of /proc/stat
// (recorded lines through the test root, including a kernel whose line lacks the interrupt
// fields), and a real spinning thread seen by the machine-wide measurement.
#include <dlfcn.h>

#include <atomic>
#include <functional>
#include <thread>

#include "zepcpuusage.h"
#include "zepos.h"
#include "zeptest_sys.h"

namespace {

std::function<void()> g_betweenSamples;

}  // namespace

extern "C" Uint32 zepSleep(Uint32 milliseconds) {
    if (g_betweenSamples) g_betweenSamples();
    return reinterpret_cast<Uint32 (*)(Uint32)>(dlsym(RTLD_NEXT, "zepSleep"))(milliseconds);
}

namespace {

using namespace zeptest;

// A test whose /proc is a directory of its own.
class Load : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        ASSERT_EQ(mkdir(path("proc").c_str(), 0755), 0);
        zepos::SetSystemFilesRoot(dir_.c_str());
    }
    void TearDown() override {
        zepos::SetSystemFilesRoot(nullptr);
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
        if (damaged)
            put(path("proc/loadavg"), damaged);
        else
            unlink(path("proc/loadavg").c_str());
        ZEPAvgCPULoadInfo b;
        EXPECT_EQ(zepGetAvgCPULoad(&b), ECF_FAILED) << (damaged ? damaged : "none");
        EXPECT_EQ(b.load1.state & b.load5.state & b.load15.state, ECF_FAILED);
    }
}

TEST(LoadMachine, AveragesMatchProcLoadavg) {
    ZEPAvgCPULoadInfo a;
    ASSERT_EQ(zepGetAvgCPULoad(&a), 0u);
    std::ifstream in("/proc/loadavg");
    double l1, l5, l15;
    in >> l1 >> l5 >> l15;
    // The kernel updates them every five seconds; one update may fall between the readings.
    EXPECT_NEAR(a.load1.value, l1, 1.0);
    EXPECT_NEAR(a.load5.value + a.load15.value, l5 + l15, 1.0);
}

// The five counters of a query over two recorded lines.
struct Shares {
    zepos::PDH_STATUS status[5];
    double value[5];
};
Shares sharesOf(const std::string& statFile, const std::string& before, const std::string& after) {
    using namespace zepos;
    static const char* const names[5] = {"% Processor Time", "% User Time", "% Privileged Time",
                                         "% Interrupt Time", "% Idle Time"};
    Shares s{};
    PDH_HQUERY q = nullptr;
    EXPECT_EQ(PdhOpenQueryA(nullptr, 0, &q), 0u);
    PDH_HCOUNTER c[5];
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(
            PdhAddCounterA(q, (std::string("\\Processor(_Total)\\") + names[i]).c_str(), 0, &c[i]),
            0u);
    put(statFile, before);
    EXPECT_EQ(PdhCollectQueryData(q), 0u);
    PDH_FMT_COUNTERVALUE v;
    EXPECT_EQ(PdhGetFormattedCounterValue(c[0], PDH_FMT_DOUBLE, nullptr, &v), PDH_INVALID_DATA);
    put(statFile, after);
    EXPECT_EQ(PdhCollectQueryData(q), 0u);
    for (int i = 0; i < 5; ++i) {
        s.status[i] = PdhGetFormattedCounterValue(c[i], PDH_FMT_DOUBLE, nullptr, &v);
        s.value[i] = v.doubleValue;
        EXPECT_EQ(v.CStatus, s.status[i]);
    }
    EXPECT_EQ(PdhCloseQuery(q), 0u);
    return s;
}

TEST_F(Load, SharesOfTheTicksBetweenTwoSamples) {
    const Uint32 INVALID = zepos::PDH_CSTATUS_INVALID_DATA,
                 ZERO = zepos::PDH_CALC_NEGATIVE_DENOMINATOR, BACK = zepos::PDH_CALC_NEGATIVE_VALUE;
    struct Case {
        const char* name;
        const char* before;
        const char* after;
        Uint32 status[5];
        double value[5];  // processor, user, privileged, interrupt, idle
    } cases[] = {
        // 1000 ticks: user 300 + nice 100, system 150, idle 300 + iowait 100, irq 20 + softirq 30.
        // Steal is busy time of the machine, in no other counter.
        // clang-format off
        {"a kernel of today", "cpu  1000 10 500 9000 40 0 5 0 0 0\ncpu0 1 2 3 4 5 6 7 8 9 10\n",
         "cpu  1300 110 650 9300 140 20 35 0 0 0\n", {0, 0, 0, 0, 0}, {60, 40, 15, 5, 40}},
        {"steal counts as busy", "cpu  0 0 0 0 0 0 0 0\n", "cpu  100 0 0 700 0 0 0 200\n",
         {0, 0, 0, 0, 0}, {30, 10, 0, 0, 70}},
        {"four fields: no interrupt counter", "cpu  100 0 100 800\n", "cpu  200 0 150 1150\n",
         {0, 0, 0, INVALID, 0}, {30, 20, 10, 0, 70}},
        {"no ticks between the samples", "cpu  5 5 5 5 5 5 5 5\n", "cpu  5 5 5 5 5 5 5 5\n",
         {ZERO, ZERO, ZERO, ZERO, ZERO}, {0, 0, 0, 0, 0}},
        {"a counter going back", "cpu  500 0 0 500 0 0 0 0\n", "cpu  400 0 0 900 0 0 0 0\n",
         {BACK, BACK, BACK, BACK, BACK}, {0, 0, 0, 0, 0}},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Shares s = sharesOf(path("proc/stat"), c.before, c.after);
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(s.status[i], c.status[i]) << i;
            EXPECT_NEAR(c.status[i] ? c.value[i] : s.value[i], c.value[i], 1e-9) << i;
        }
    }
}

TEST_F(Load, CounterPathsNameThisMachineAndTheProcessorObject) {
    using namespace zepos;
    char node[256];
    Uint32 size = sizeof node;
    ASSERT_TRUE(GetComputerNameA(node, &size));
    PDH_HQUERY q = nullptr;
    ASSERT_EQ(PdhOpenQueryA(nullptr, 0, &q), 0u);
    PDH_HCOUNTER c;
    const std::string here = std::string("\\\\") + node;
    const struct {
        std::string path;
        Uint32 status;
    } cases[] = {
        {here + "\\Processor(_Total)\\% Idle Time", 0},
        {"\\\\elsewhere\\Processor(_Total)\\% Idle Time", PDH_CSTATUS_NO_MACHINE},
        {here + "\\Processor(0)\\% Idle Time", PDH_CSTATUS_NO_OBJECT},
        {here + "\\Memory\\Available Bytes", PDH_CSTATUS_NO_OBJECT},
        {here + "\\Processor(_Total)\\% DPC Time", PDH_CSTATUS_NO_COUNTER},
        {here + "\\Processor(_Total)\\% Idle Time ", PDH_CSTATUS_NO_COUNTER},
    };
    for (const auto& k : cases)
        EXPECT_EQ(PdhAddCounterA(q, k.path.c_str(), 0, &c), k.status) << k.path;
    EXPECT_EQ(PdhCloseQuery(q), 0u);
    EXPECT_EQ(PdhCollectQueryData(nullptr), PDH_INVALID_HANDLE);
    EXPECT_EQ(PdhOpenQueryA("a log file", 0, &q), PDH_INVALID_ARGUMENT);
}

// The query sleeps between its two samples through the library's exported zepSleep, which
// this program defines: a test hands the second sample's line in there.
TEST_F(Load, UsageWithSomeCountersMissingOrNone) {
    put(path("proc/stat"), "cpu  100 0 100 800\n");
    const std::string stat = path("proc/stat");
    g_betweenSamples = [&] { put(stat, "cpu  200 0 150 1150\n"); };
    ZEPCPUUsageInfo u;
    u.interval = 1;
    trace(true);
    const Uint32 rc = zepGetCPUUsage(&u);
    trace(false);
    g_betweenSamples = nullptr;
    EXPECT_EQ(rc, 0u);  // one counter missing is still a success
    EXPECT_EQ(std::vector<double>({u.processorTime.value, u.userTime.value, u.privilegedTime.value,
                                   u.idleTime.value}),
              std::vector<double>({30, 20, 10, 70}));
    EXPECT_EQ(u.interruptTime.state, ECF_FAILED);
    EXPECT_EQ(u.processorTime.state | u.userTime.state | u.privilegedTime.state | u.idleTime.state,
              0u);
    // The record at probe 10, the missing counter's status and index at probe 80, no error.
    std::vector<std::pair<std::string, Uint32>> seen;
    for (const Call& c : calls) seen.emplace_back(c.what, c.probe);
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, Uint32>>{
                        {"entry", 0}, {"var", 10}, {"var", 80}, {"exit", 0}}));
    ASSERT_EQ(calls.at(2).items.size(), 2u);
    EXPECT_EQ(valueOf<Uint32>(calls[2].items[0]), zepos::PDH_CSTATUS_INVALID_DATA);
    EXPECT_EQ(valueOf<Uint32>(calls[2].items[1]), 3u);

    // Two equal samples, nothing to divide by: every counter at probe 80, one error at 90.
    put(path("proc/stat"), "cpu  5 5 5 5 5 5 5 5\n");
    ZEPCPUUsageInfo same;
    calls.clear();
    trace(true);
    EXPECT_EQ(zepGetCPUUsage(&same), ECF_FAILED);
    trace(false);
    for (const ZEPSysInfoDouble* d : {&same.processorTime, &same.userTime, &same.privilegedTime,
                                      &same.interruptTime, &same.idleTime})
        EXPECT_EQ(d->state, ECF_FAILED);
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const Call& c) { return c.what == "var" && c.probe == 80; }),
              5);
    EXPECT_EQ(errorRecords(), Strings{at(ZEPFN_zepGetCPUUsage, 90)});
    EXPECT_EQ(logs(), Strings{});

    // No sample at all: the first one's failure at probe 50.
    unlink(path("proc/stat").c_str());
    calls.clear();
    trace(true);
    ZEPCPUUsageInfo none;
    EXPECT_EQ(zepGetCPUUsage(&none), ECF_FAILED);
    trace(false);
    EXPECT_EQ(none.idleTime.state, ECF_FAILED);
    ASSERT_GE(calls.size(), 2u);
    const Call& e = calls[calls.size() - 2];
    EXPECT_EQ(at(e.fid, e.probe), at(ZEPFN_zepGetCPUUsage, 50));
    EXPECT_EQ(valueOf<Uint32>(e.items.at(0)), zepos::PDH_NO_DATA);
}

// One thread spins for the whole interval. Whatever else the machine does only adds to the busy
// share, so at least one processor's worth must show, less a margin for the tick's granularity.
// A machine whose other load starves the spinning thread for most of the interval is the one way
// to miss it; three tries are taken before that counts as a failure.
TEST(LoadMachine, ASpinningThreadShowsAsBusy) {
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    const double least = 100.0 / static_cast<double>(processors) - 10;
    double best = -1;
    for (int attempt = 0; attempt < 3 && best < least; ++attempt) {
        std::atomic<bool> stop{false};
        std::thread spinner([&] {
            volatile Uint64 n = 0;
            while (!stop.load(std::memory_order_relaxed)) n = n + 1;
        });
        ZEPCPUUsageInfo u;
        u.interval = 200;
        const Uint32 rc = zepGetCPUUsage(&u);
        stop = true;
        spinner.join();
        ASSERT_EQ(rc, 0u);
        EXPECT_NEAR(u.processorTime.value, 100 - u.idleTime.value, 1e-9);
        // The four parts leave out only steal time.
        const double parts =
            u.userTime.value + u.privilegedTime.value + u.interruptTime.value + u.idleTime.value;
        EXPECT_LE(parts, 100.0 + 1e-9);
        EXPECT_GE(u.userTime.value, 0.0);
        best = std::max(best, u.processorTime.value);
    }
    EXPECT_GE(best, least);
}

}  // namespace
