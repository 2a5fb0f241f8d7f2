// Semaphores as their callers rely on them: ZEPHIPCSemaphore's results, log records, trace-free
// time-outs and maximum, its use as the only guard of a counter that four processes increment;
// beneath it, waits that end through signals and events' sleepers in several processes.
#include <atomic>
#include <deque>
#include <thread>

#include "zeptest_ipc.h"
#include "zeptest_stress.h"

namespace {

using namespace zeptest;
const Uint32 kOk = zepos::WAIT_OBJECT_0, kTimeout = zepos::WAIT_TIMEOUT;

void onSignal(int) {}

// Signals every 10 ms through a 200 ms wait: a wait started afresh at each one would never end.
TEST(SemaphoreBlock, WaitEndsThroughSignals) {
    zepos::SemaphoreBlock b;
    ASSERT_TRUE(zepos::SemaphoreBlockInit(&b, 0, 100));
    struct sigaction sa = {}, old;
    sa.sa_handler = onSignal;  // no SA_RESTART: every signal interrupts the sleep
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    std::thread nagger([&] {
        for (; !done; usleep(10000)) pthread_kill(waiter, SIGUSR1);
    });
    EXPECT_EQ(zepos::SemaphoreBlockWait(&b, 200), kTimeout);
    done = true;
    nagger.join();
    sigaction(SIGUSR1, &old, nullptr);
}

// In shared memory between forked processes: every waiter asleep on a manual event when it is
// set passes, even though the setter resets it at once; an automatic event lets exactly one
// waiter through per set, and keeps no count of sets.
TEST(EventBlock, SleepersAcrossProcesses) {
    auto* shared = static_cast<zepos::EventBlock*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    auto* passed = reinterpret_cast<std::atomic<Uint32>*>(shared + 2);
    for (zepos::BOOL manual : {1, 0}) {
        zepos::EventBlockInit(shared, manual, 0);
        passed->store(0);
        pid_t kids[3];
        for (pid_t& k : kids)
            if ((k = fork()) == 0) {
                const Uint32 r = zepos::EventBlockWait(shared, 3000);
                if (r == kOk) passed->fetch_add(1);
                _exit(r == kOk || r == kTimeout ? 0 : 1);
            }
        while (__atomic_load_n(&shared->waiters, __ATOMIC_SEQ_CST) < 3) usleep(1000);
        usleep(20000);  // let the last one reach its sleep
        zepos::EventBlockSet(shared);
        if (manual) zepos::EventBlockReset(shared);
        for (pid_t k : kids) EXPECT_EQ(waitExit(k), 0);
        EXPECT_EQ(passed->load(), manual ? 3u : 1u) << "manual " << manual;
        zepos::EventBlockSet(shared);
        zepos::EventBlockSet(shared);
        EXPECT_EQ(zepos::EventBlockWait(shared, 0), kOk);
        EXPECT_EQ(zepos::EventBlockWait(shared, 0), manual ? kOk : kTimeout);
    }
    munmap(shared, 4096);
}

using Semaphore = IpcTest;

TEST_F(Semaphore, CreateAttachAndTheirFailures) {
    ZEPIPCSemaphoreCreateParam c;
    c.resID = nameOf("create"), c.initialValue = 1;
    ZEPHIPCSemaphore a, b, d;
    ASSERT_EQ(a.create(&c), 0u);
    EXPECT_TRUE(a.isAttached());

    // A second create is refused, closes what it opened, and leaves the count alone.
    c.initialValue = 7;
    EXPECT_EQ(b.create(&c), ECF_SEM_EXISTS);
    EXPECT_EQ(b.handle, kNoHandle);
    const Call& log = theLog(ZEPFN_ZEPHIPCSemaphore_create, 90, ECF_SEM_EXISTS);
    EXPECT_EQ(log.called, SYSFN_CreateSemaphore);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x8000000Eu);
    ASSERT_EQ(log.items.size(), 3u);
    EXPECT_EQ(valueOf<Sint32>(log.items[0]), 7);
    EXPECT_EQ(valueOf<Sint32>(log.items[1]), 32767);
    EXPECT_EQ(log.items[2].bytes, c.resID.name);
    calls.clear();
    ASSERT_EQ(d.attach(&c.resID), 0u);
    const ZEPIPCSemaphoreWaitParam poll(0);
    EXPECT_EQ(d.wait(&poll), 0u);
    EXPECT_EQ(d.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(d.detach(), 0u);
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_FALSE(a.isAttached());

    EXPECT_EQ(d.attach(&c.resID), ECF_FILE_DOESNT_EXIST);  // the last holder gone: no name
    const Call& missing = theLog(ZEPFN_ZEPHIPCSemaphore_attach, 40, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(missing.called, SYSFN_OpenSemaphore);
    EXPECT_EQ(static_cast<Uint32>(missing.count), 0x80000004u);
    EXPECT_EQ(d.handle, kNoHandle);
    calls.clear();

    // A count the platform refuses; the parameter object checks; authorize changes nothing.
    c.initialValue = -1;
    EXPECT_EQ(a.create(&c), ECF_INVALID_PARAMETER);
    EXPECT_EQ(logShape(ECF_INVALID_PARAMETER), "logsys 80/87");
    ZEPIPCSemaphoreWaitParam old(0);
    old.version = 20040701;
    refused(a.create(nullptr), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCSemaphore_create, 1111);
    refused(a.wait(&old), ECF_INVALID_VERSION, ZEPFN_ZEPHIPCSemaphore_wait, 1112);
    ZEPIPCSecurityParam sec;
    EXPECT_EQ(a.authorize(&sec), 0u);
    EXPECT_TRUE(calls.empty());
}

TEST_F(Semaphore, PostsWaitsAndTheirRecords) {
    ZEPIPCSemaphoreCreateParam c;
    c.resID = nameOf("post");
    ZEPHIPCSemaphore s;
    ASSERT_EQ(s.create(&c), 0u);

    // A time-out is an ordinary result: no log record, no error record, with the trace on.
    trace(true);
    const ZEPIPCSemaphoreWaitParam poll(0), brief(30);
    EXPECT_EQ(s.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(s.wait(&brief), ECF_TIMEOUT);
    for (const Call& k : calls)
        EXPECT_TRUE(k.what == "entry" || k.what == "var" || k.what == "exit") << k.what;
    trace(false);

    // The 32768th post: the map knows no code for the platform's "too many posts".
    for (int i = 0; i < 32767; ++i) ASSERT_EQ(s.post(), 0u);
    calls.clear();
    EXPECT_EQ(s.post(), ECF_UNKNOWN);
    EXPECT_EQ(theLog(ZEPFN_ZEPHIPCSemaphore_post, 40, ECF_UNKNOWN, ZEP_LOG_ERROR).called,
              SYSFN_ReleaseSemaphore);
    EXPECT_EQ(logShape(ECF_UNKNOWN), "logsys 40/298");
    int passed = 0;
    while (s.wait(&poll) == 0) ++passed;
    EXPECT_EQ(passed, 32767);

    // With no handle every call is a platform failure of the handle; detach stays at "none".
    ASSERT_EQ(s.detach(), 0u);
    const Uint32 bad = ECF_INVALID_PARAMETER;
    EXPECT_EQ(s.post(), bad);
    EXPECT_EQ(s.wait(&poll), bad);
    EXPECT_EQ(s.detach(), bad);
    EXPECT_EQ(s.destroy(), bad);
    EXPECT_EQ(logShape(bad), "logsys 40/6 logsys 110/6 logsys 30/6 logsys 30/6");
    EXPECT_EQ(s.handle, kNoHandle);
    EXPECT_FALSE(s.isAttached());
}

// Every increment counted (nobody passed with the count at 0), the count back at its start.
TEST_F(Semaphore, FourProcessesCountUnderOneSemaphore) {
    const std::string file = path("counter"), name = tag_ + "count";
    volatile Uint64* counter = reinterpret_cast<Uint64*>(mapFile(file, 4096));
    ZEPIPCSemaphoreCreateParam c;
    c.resID = idOf(name), c.initialValue = 1;
    ZEPHIPCSemaphore s;
    ASSERT_EQ(s.create(&c), 0u);
    const Uint32 n = 25000 * zeptestStress();
    std::deque<IpcProc> procs(4);
    for (IpcProc& p : procs) p.send("count " + name + " " + file + " " + std::to_string(n));
    for (IpcProc& p : procs) EXPECT_EQ(p.line(), "counted 0");
    EXPECT_EQ(*counter, 4ull * n);
    const ZEPIPCSemaphoreWaitParam poll(0);
    EXPECT_EQ(s.wait(&poll), 0u);
    EXPECT_EQ(s.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(s.destroy(), 0u);
    munmap(const_cast<Uint64*>(counter), 4096);
}

}  // namespace
