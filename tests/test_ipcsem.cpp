// Semaphores and events as their callers rely on them: the OS layer's counts, maximum, reset
// modes and waits (time measured once, kept across signals and lost races, sleepers in several
// processes), and ZEPHIPCSemaphore's results, log records, trace-free time-outs and its use as
// the only guard of a counter that four processes increment.
#include <atomic>
#include <deque>
#include <thread>

#include "zeptest_ipc.h"
#include "zeptest_stress.h"
#include "zepos.h"

namespace {

using namespace zeptest;
using zepos::EventBlock;
using zepos::SemaphoreBlock;
void* const kNone = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));
const Uint32 kOk = zepos::WAIT_OBJECT_0, kTimeout = zepos::WAIT_TIMEOUT;

double nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

void onSignal(int) {}

TEST(SemaphoreBlock, CountsUpToTheMaximumAndRefusesBadArguments) {
    SemaphoreBlock b;
    struct {
        Sint32 initial, maximum;
        zepos::BOOL ok;
    } inits[] = {{0, 1, 1}, {5, 5, 1}, {0, 32767, 1}, {-1, 5, 0}, {6, 5, 0}, {0, 0, 0}, {0, -3, 0}};
    for (const auto& t : inits) {
        zepos::SetLastError(0);
        EXPECT_EQ(zepos::SemaphoreBlockInit(&b, t.initial, t.maximum), t.ok) << t.initial;
        EXPECT_EQ(zepos::GetLastError(), t.ok ? 0u : 87u) << t.initial << " " << t.maximum;
    }
    ASSERT_TRUE(zepos::SemaphoreBlockInit(&b, 0, 32767));
    Sint32 previous = -1;
    for (Sint32 i = 0; i < 32767; ++i) ASSERT_TRUE(zepos::SemaphoreBlockRelease(&b, 1, &previous));
    EXPECT_EQ(previous, 32766);
    // The 32768th post fails with the platform's "too many posts" and changes nothing.
    previous = -1;
    EXPECT_FALSE(zepos::SemaphoreBlockRelease(&b, 1, &previous));
    EXPECT_EQ(zepos::GetLastError(), 298u);
    EXPECT_EQ(previous, -1);
    EXPECT_EQ(b.count, 32767u);

    ASSERT_TRUE(zepos::SemaphoreBlockInit(&b, 3, 10));
    EXPECT_FALSE(zepos::SemaphoreBlockRelease(&b, 8, nullptr));  // 11 would pass the maximum
    EXPECT_EQ(zepos::GetLastError(), 298u);
    EXPECT_TRUE(zepos::SemaphoreBlockRelease(&b, 7, &previous));
    EXPECT_EQ(previous, 3);
    for (Sint32 bad : {0, -1}) {
        EXPECT_FALSE(zepos::SemaphoreBlockRelease(&b, bad, nullptr));
        EXPECT_EQ(zepos::GetLastError(), 87u);
    }
    for (int i = 0; i < 10; ++i) EXPECT_EQ(zepos::SemaphoreBlockWait(&b, 0), kOk);
    EXPECT_EQ(zepos::SemaphoreBlockWait(&b, 0), kTimeout);
}

TEST(SemaphoreBlock, TimeIsMeasuredOnceAcrossSignalsAndLostWakeUps) {
    SemaphoreBlock b;
    ASSERT_TRUE(zepos::SemaphoreBlockInit(&b, 0, 100));
    struct sigaction sa = {}, old;
    sa.sa_handler = onSignal;  // no SA_RESTART: every signal interrupts the sleep
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    // Signals every 10 ms through a 200 ms wait: resumed, never restarted, so it ends near 200.
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
    EXPECT_GE(took, 200.0);
    EXPECT_LT(took, 2000.0);

    // Posts that a poller steals at once wake the sleeper for nothing: it sleeps on for the rest
    // of its time and times out, neither early nor with the count. It may win a race now and
    // then (the thief stops then).
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
    if (r == kTimeout) {
        EXPECT_GE(took, 150.0);
        EXPECT_GT(stolen.load(), 0);
    } else {
        EXPECT_EQ(r, kOk);
    }
    sigaction(SIGUSR1, &old, nullptr);
}

TEST(EventBlock, ManualAndAutomaticReset) {
    EventBlock e;
    zepos::EventBlockInit(&e, 1, 0);
    EXPECT_EQ(zepos::EventBlockWait(&e, 0), kTimeout);
    zepos::EventBlockSet(&e);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(zepos::EventBlockWait(&e, 0), kOk);
    zepos::EventBlockReset(&e);
    EXPECT_EQ(zepos::EventBlockWait(&e, 0), kTimeout);

    zepos::EventBlockInit(&e, 0, 1);  // automatic, set at the start
    EXPECT_EQ(zepos::EventBlockWait(&e, 0), kOk);
    EXPECT_EQ(zepos::EventBlockWait(&e, 0), kTimeout);
    zepos::EventBlockSet(&e);
    zepos::EventBlockSet(&e);  // no count: two sets let one waiter pass
    EXPECT_EQ(zepos::EventBlockWait(&e, 0), kOk);
    EXPECT_EQ(zepos::EventBlockWait(&e, 0), kTimeout);
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
        int status = 0;
        for (pid_t k : kids) {
            ASSERT_EQ(waitpid(k, &status, 0), k);
            EXPECT_EQ(status, 0);
        }
        EXPECT_EQ(passed->load(), manual ? 3u : 1u) << "manual " << manual;
    }
    munmap(shared, 4096);
}

using SyncHandles = IpcTest;

TEST_F(SyncHandles, CreateOpenAndKinds) {
    const ZEPIPCResID name = nameOf("handles");
    void* s = zepos::CreateSemaphoreA(nullptr, 2, 5, name.name);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(zepos::GetLastError(), 0u);
    // A second create opens the same object (183) and its count stays as it was.
    void* s2 = zepos::CreateSemaphoreA(nullptr, 0, 1, name.name);
    ASSERT_NE(s2, nullptr);
    EXPECT_EQ(zepos::GetLastError(), 183u);
    Sint32 previous = -1;
    EXPECT_TRUE(zepos::ReleaseSemaphore(s2, 1, &previous));
    EXPECT_EQ(previous, 2);
    EXPECT_EQ(zepos::WaitForSingleObject(s, 0), kOk);

    // Kinds have name spaces of their own, and handles of one kind refuse the other's calls.
    EXPECT_EQ(zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, name.name), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 2u);
    void* e = zepos::CreateEventA(nullptr, 0, 0, name.name);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(zepos::GetLastError(), 0u);
    EXPECT_FALSE(zepos::ReleaseSemaphore(e, 1, nullptr));
    EXPECT_EQ(zepos::GetLastError(), 6u);
    EXPECT_FALSE(zepos::SetEvent(s));
    EXPECT_EQ(zepos::GetLastError(), 6u);
    void* e2 = zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, name.name);
    ASSERT_NE(e2, nullptr);
    EXPECT_TRUE(zepos::SetEvent(e2));
    EXPECT_EQ(zepos::WaitForSingleObject(e, 0), kOk);
    EXPECT_EQ(zepos::WaitForSingleObject(e, 0), kTimeout);
    EXPECT_EQ(zepos::WaitForSingleObject(kNone, 0), zepos::WAIT_FAILED);
    EXPECT_EQ(zepos::GetLastError(), 6u);
    for (void* h : {s, s2, e, e2}) EXPECT_TRUE(zepos::CloseHandle(h));
    // The last holder gone, the names are free.
    EXPECT_EQ(zepos::OpenSemaphoreA(zepos::SEMAPHORE_ALL_ACCESS, 0, name.name), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 2u);

    void* unnamed = zepos::CreateSemaphoreA(nullptr, 0, 3, nullptr);
    ASSERT_NE(unnamed, nullptr);
    EXPECT_EQ(zepos::CreateSemaphoreA(nullptr, 4, 3, nullptr), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 87u);
    EXPECT_TRUE(zepos::CloseHandle(unnamed));
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
    EXPECT_EQ(b.handle, kNone);
    const Call& log = theLog(ZEPFN_ZEPHIPCSemaphore_create, 90, ECF_SEM_EXISTS);
    EXPECT_EQ(log.what, "logsys");
    EXPECT_EQ(log.called, SYSFN_CreateSemaphore);
    EXPECT_EQ(log.err, 183u);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x8000000Eu);
    ASSERT_EQ(log.items.size(), 3u);
    EXPECT_EQ(valueOf<Sint32>(log.items[0]), 7);
    EXPECT_EQ(valueOf<Sint32>(log.items[1]), 32767);
    EXPECT_EQ(log.items[2].bytes, c.resID.name);

    ASSERT_EQ(d.attach(&c.resID), 0u);
    const ZEPIPCSemaphoreWaitParam poll(0);
    EXPECT_EQ(d.wait(&poll), 0u);
    EXPECT_EQ(d.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(d.detach(), 0u);
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_FALSE(a.isAttached());

    calls.clear();
    EXPECT_EQ(d.attach(&c.resID), ECF_FILE_DOESNT_EXIST);
    const Call& missing = theLog(ZEPFN_ZEPHIPCSemaphore_attach, 40, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(missing.called, SYSFN_OpenSemaphore);
    EXPECT_EQ(missing.err, 2u);
    EXPECT_EQ(static_cast<Uint32>(missing.count), 0x80000004u);
    EXPECT_EQ(d.handle, kNone);

    // The parameter object checks.
    calls.clear();
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
    calls.clear();
    const ZEPIPCSemaphoreWaitParam poll(0), brief(30);
    EXPECT_EQ(s.wait(&poll), ECF_TIMEOUT);
    const double t0 = nowMs();
    EXPECT_EQ(s.wait(&brief), ECF_TIMEOUT);
    EXPECT_GE(nowMs() - t0, 30.0);
    for (const Call& k : calls)
        EXPECT_TRUE(k.what == "entry" || k.what == "var" || k.what == "exit") << k.what;
    EXPECT_EQ(calls.back().rc, ECF_TIMEOUT);
    trace(false);

    for (int i = 0; i < 32767; ++i) ASSERT_EQ(s.post(), 0u);
    calls.clear();
    EXPECT_EQ(s.post(), ECF_UNKNOWN);  // the map knows no code for "too many posts"
    const Call& over = theLog(ZEPFN_ZEPHIPCSemaphore_post, 40, ECF_UNKNOWN, ZEP_LOG_ERROR);
    EXPECT_EQ(over.called, SYSFN_ReleaseSemaphore);
    EXPECT_EQ(over.err, 298u);
    int passed = 0;
    while (s.wait(&poll) == 0) ++passed;
    EXPECT_EQ(passed, 32767);

    ASSERT_EQ(s.detach(), 0u);
    EXPECT_EQ(s.handle, kNone);
    // With no handle every call is a platform failure of the handle.
    calls.clear();
    EXPECT_EQ(s.post(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(theLog(ZEPFN_ZEPHIPCSemaphore_post, 40, ECF_INVALID_PARAMETER).err, 6u);
    calls.clear();
    EXPECT_EQ(s.wait(&poll), ECF_INVALID_PARAMETER);
    const Call& w = theLog(ZEPFN_ZEPHIPCSemaphore_wait, 110, ECF_INVALID_PARAMETER);
    EXPECT_EQ(w.called, SYSFN_WaitForSingleObject);
    EXPECT_EQ(w.items.size(), 2u);
    calls.clear();
    EXPECT_EQ(s.detach(), ECF_INVALID_PARAMETER);  // closing "none" fails, and stays "none"
    EXPECT_EQ(theLog(ZEPFN_ZEPHIPCSemaphore_detach, 30, ECF_INVALID_PARAMETER).called,
              SYSFN_CloseHandle);
    EXPECT_EQ(s.handle, kNone);
    calls.clear();
    EXPECT_EQ(s.destroy(), ECF_INVALID_PARAMETER);
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
    for (IpcProc& pr : procs) pr.send("count " + name + " " + file + " " + std::to_string(n));
    for (IpcProc& pr : procs) EXPECT_EQ(pr.line(), "counted 0");
    EXPECT_EQ(*counter, 4ull * n);
    const ZEPIPCSemaphoreWaitParam poll(0);
    EXPECT_EQ(s.wait(&poll), 0u);
    EXPECT_EQ(s.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(s.destroy(), 0u);
    munmap(const_cast<Uint64*>(counter), 4096);
}

}  // namespace
