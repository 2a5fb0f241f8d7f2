// Semaphores and events as their callers rely on them: the OS layer's counts, maximum, reset
// modes and waits (time measured once, kept across signals and lost races, sleepers in several
// processes), and ZEPHIPCSemaphore's results, log records, trace-free time-outs and its use as
// the only guard of a counter that four processes increment.
#include <atomic>
#include <deque>
#include <thread>

#include "zeptest_ipc.h"
#include "zeptest_stress.h"

namespace {

using namespace zeptest;
using zepos::EventBlock;
using zepos::SemaphoreBlock;
const Uint32 kOk = zepos::WAIT_OBJECT_0, kTimeout = zepos::WAIT_TIMEOUT;

void onSignal(int) {}

TEST(SemaphoreBlock, CountsUpToTheMaximumAndRefusesBadArguments) {
    SemaphoreBlock b;
    const Sint32 inits[][3] = {{0, 1, 1}, {5, 5, 1}, {0, 32767, 1}, {-1, 5, 0},
                               {6, 5, 0}, {0, 0, 0}, {0, -3, 0}};  // initial, maximum, ok
    for (const auto& t : inits) {
        zepos::SetLastError(0);
        EXPECT_EQ(withError(zepos::SemaphoreBlockInit(&b, t[0], t[1])), t[2] ? "1 0" : "0 87")
            << t[0] << " " << t[1];
    }
    // Past the maximum: the platform's "too many posts", the count and the count before as
    // they were.
    ASSERT_TRUE(zepos::SemaphoreBlockInit(&b, 3, 10));
    Sint32 previous = -1;
    EXPECT_EQ(withError(zepos::SemaphoreBlockRelease(&b, 8, &previous)), "0 298");
    EXPECT_EQ(previous, -1);
    EXPECT_EQ(b.count, 3u);
    EXPECT_TRUE(zepos::SemaphoreBlockRelease(&b, 7, &previous));
    EXPECT_EQ(previous, 3);
    EXPECT_EQ(withError(zepos::SemaphoreBlockRelease(&b, 0, nullptr)), "0 87");
    EXPECT_EQ(withError(zepos::SemaphoreBlockRelease(&b, -1, nullptr)), "0 87");
    for (int i = 0; i < 10; ++i) EXPECT_EQ(zepos::SemaphoreBlockWait(&b, 0), kOk);
    EXPECT_EQ(zepos::SemaphoreBlockWait(&b, 0), kTimeout);
}

TEST(SemaphoreBlock, TimeIsMeasuredOnceAcrossSignalsAndLostWakeUps) {
    SemaphoreBlock b;
    ASSERT_TRUE(zepos::SemaphoreBlockInit(&b, 0, 100));
    struct sigaction sa = {}, old;
    sa.sa_handler = onSignal;  // no SA_RESTART: every signal interrupts the sleep
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    // Signals every 10 ms through a 200 ms wait: resumed with the time left, never restarted.
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    std::thread nagger([&] {
        for (; !done; usleep(10000)) pthread_kill(waiter, SIGUSR1);
    });
    double t0 = nowMs();
    EXPECT_EQ(zepos::SemaphoreBlockWait(&b, 200), kTimeout);
    double took = nowMs() - t0;
    done = true;
    nagger.join();
    EXPECT_GE(took, 200.0);  // a wait started afresh at each signal would never end

    // Posts that a poller steals at once wake the sleeper for nothing: it sleeps on for the rest
    // of its time and times out, not early. It may win a race now and then (the thief stops).
    done = false;
    std::atomic<int> stolen{0};
    std::thread thief([&] {
        for (; !done; usleep(1000), ++stolen) {
            zepos::SemaphoreBlockRelease(&b, 1, nullptr);
            if (zepos::SemaphoreBlockWait(&b, 0) != kOk) break;
        }
    });
    t0 = nowMs();
    const Uint32 r = zepos::SemaphoreBlockWait(&b, 150);
    took = nowMs() - t0;
    done = true;
    thief.join();
    EXPECT_TRUE(r == kOk || (r == kTimeout && took >= 150.0 && stolen > 0)) << r << " " << took;
    sigaction(SIGUSR1, &old, nullptr);
}

// In shared memory between forked processes: every waiter asleep on a manual event when it is
// set passes, even though the setter resets it at once; an automatic event lets exactly one
// waiter through per set.
TEST(EventBlock, SleepersAcrossProcesses) {
    auto* shared = static_cast<EventBlock*>(
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
        // Set twice with nobody asleep: manual stays set for every wait, automatic lets one
        // through (it keeps no count).
        zepos::EventBlockSet(shared);
        zepos::EventBlockSet(shared);
        EXPECT_EQ(zepos::EventBlockWait(shared, 0), kOk);
        EXPECT_EQ(zepos::EventBlockWait(shared, 0), manual ? kOk : kTimeout);
    }
    munmap(shared, 4096);
}

using SyncHandles = IpcTest;

TEST_F(SyncHandles, KindsRefuseEachOthersCalls) {
    const ZEPIPCResID name = nameOf("handles");
    void *s, *e, *e2, *unnamed;
    EXPECT_EQ(withError(s = zepos::CreateSemaphoreA(nullptr, 2, 5, name.name)), "1 0");
    // Kinds have name spaces of their own, and handles of one kind refuse the other's calls.
    EXPECT_EQ(withError(zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, name.name)), "0 2");
    EXPECT_EQ(withError(e = zepos::CreateEventA(nullptr, 0, 0, name.name)), "1 0");
    EXPECT_EQ(withError(zepos::ReleaseSemaphore(e, 1, nullptr)), "0 6");
    EXPECT_EQ(withError(zepos::SetEvent(s)), "0 6");
    EXPECT_EQ(withError(e2 = zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, name.name)), "1 0");
    EXPECT_TRUE(zepos::SetEvent(e2));
    EXPECT_EQ(zepos::WaitForSingleObject(e, 0), kOk);
    EXPECT_EQ(zepos::WaitForSingleObject(e, 0), kTimeout);
    EXPECT_EQ(withError(unnamed = zepos::CreateSemaphoreA(nullptr, 0, 3, nullptr)), "1 0");
    EXPECT_EQ(withError(zepos::CreateSemaphoreA(nullptr, 4, 3, nullptr)), "0 87");
    for (void* h : {s, e, e2, unnamed}) EXPECT_TRUE(zepos::CloseHandle(h));
}

using Semaphore = IpcTest;

TEST_F(Semaphore, CreateAttachAndTheirFailures) {
    ZEPIPCSemaphoreCreateParam c;
    c.resID = nameOf("create");
    c.initialValue = 1;
    ZEPHIPCSemaphore a, b, d;
    EXPECT_FALSE(a.isAttached());
    ASSERT_EQ(a.create(&c), 0u);
    EXPECT_TRUE(a.isAttached());
    EXPECT_TRUE(calls.empty());

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
    EXPECT_EQ(logShape(ECF_SEM_EXISTS), "logsys 90/183");

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
    EXPECT_EQ(logShape(ECF_FILE_DOESNT_EXIST), "logsys 40/2");
    EXPECT_EQ(d.handle, kNoHandle);

    // The parameter object checks.
    ZEPIPCSemaphoreWaitParam old(0);
    old.version = 20040701;
    ZEPIPCSecurityParam sec;
    refused(a.create(nullptr), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCSemaphore_create, 1111);
    refused(a.wait(&old), ECF_INVALID_VERSION, ZEPFN_ZEPHIPCSemaphore_wait, 1112);
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
    const double t0 = nowMs();
    EXPECT_EQ(s.wait(&brief), ECF_TIMEOUT);
    EXPECT_GE(nowMs() - t0, 30.0);
    for (const Call& k : calls)
        EXPECT_TRUE(k.what == "entry" || k.what == "var" || k.what == "exit") << k.what;
    EXPECT_EQ(calls.back().rc, ECF_TIMEOUT);
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
    EXPECT_EQ(logShape(bad), "logsys 40/6");
    EXPECT_EQ(s.wait(&poll), bad);
    const Call& w = theLog(ZEPFN_ZEPHIPCSemaphore_wait, 110, bad);
    EXPECT_EQ(w.called, SYSFN_WaitForSingleObject);
    EXPECT_EQ(w.items.size(), 2u);
    EXPECT_EQ(logShape(bad), "logsys 110/6");
    EXPECT_EQ(s.detach(), bad);
    EXPECT_EQ(theLog(ZEPFN_ZEPHIPCSemaphore_detach, 30, bad).called, SYSFN_CloseHandle);
    calls.clear();
    EXPECT_EQ(s.handle, kNoHandle);
    EXPECT_EQ(s.destroy(), bad);
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
