// ZEPHThread as its callers rely on it: the state rule with its codes and log records, the trace
// of create, the identifier, the stack size, zepThreadExit, and the thread handles of the OS layer
// under it (waits with time limits, closing while the thread runs).
#include <pthread.h>

#include <atomic>
#include <tuple>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

// A latch the test opens for threads that must still be running at some point.
struct Gate {
    std::atomic<Uint32> open{0};
    void wait() {
        while (!open.load()) usleep(100);
    }
};

struct Work {
    Gate* gate = nullptr;
    std::atomic<int> runs{0};
    std::atomic<Uint32> tid{0};
    std::atomic<size_t> stack{0};
    std::atomic<bool> pastExit{false};
};

void body(void* p) {
    Work* w = static_cast<Work*>(p);
    w->tid = zepThreadID();
    pthread_attr_t a;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &a) == 0) {
        pthread_attr_getstacksize(&a, &size);
        pthread_attr_destroy(&a);
    }
    w->stack = size;
    if (w->gate) w->gate->wait();
    ++w->runs;
}

void exitsEarly(void* p) {
    Work* w = static_cast<Work*>(p);
    ++w->runs;
    zepThreadExit();
    w->pastExit = true;
}

ZEPThreadParam joinable(Uint32 stack = 0) {
    ZEPThreadParam p;
    p.flags = ZEP_THREAD_JOINABLE;
    p.stackSize = stack;
    return p;
}

class Thread : public CaptureTest {};

TEST_F(Thread, StateRule) {
    ZEPHThread t;
    Work w;
    const ZEPThreadParam j = joinable(), detached;
    // Each step: the call, its result, and for a refusal the probe of its one log record.
    enum Op { Create, CreateDetached, Wait, Close };
    struct Step {
        Op op;
        Uint32 rc, probe, fid;
    } steps[] = {
        {Wait, ECF_THREAD_NOT_CREATED, 10, ZEPFN_ZEPHThread_wait},
        {Close, ECF_THREAD_NOT_CREATED, 10, ZEPFN_ZEPHThread_close},
        {Create, 0, 0, 0},
        {Close, ECF_THREAD_MUST_WAIT, 20, ZEPFN_ZEPHThread_close},
        {Create, ECF_THREAD_ALREADY_CREATED, 30, ZEPFN_ZEPHThread_create},
        {Wait, 0, 0, 0},
        {Wait, ECF_THREAD_CANNOT_WAIT, 20, ZEPFN_ZEPHThread_wait},
        {Close, 0, 0, 0},
        {Close, ECF_THREAD_NOT_CREATED, 10, ZEPFN_ZEPHThread_close},
        {CreateDetached, 0, 0, 0},
        {Wait, ECF_THREAD_CANNOT_WAIT, 20, ZEPFN_ZEPHThread_wait},
        {Create, ECF_THREAD_ALREADY_CREATED, 30, ZEPFN_ZEPHThread_create},
        {Close, 0, 0, 0},
    };
    int i = 0;
    for (const Step& s : steps) {
        SCOPED_TRACE(i++);
        auto state = [&] {
            return std::make_tuple(t.id(), t.handle(), t.isCreated(), t.isJoinable());
        };
        const auto before = state();
        calls.clear();
        Uint32 rc = 0;
        if (s.op == Create || s.op == CreateDetached)
            rc = t.create(body, &w, s.op == Create ? &j : &detached, nullptr);
        else
            rc = s.op == Wait ? t.wait() : t.close();
        EXPECT_EQ(rc, s.rc);
        if (rc == 0) {
            EXPECT_TRUE(calls.empty());
            continue;
        }
        theLog(s.fid, s.probe, s.rc, ZEP_LOG_INFO);
        EXPECT_EQ(state(), before);  // a refusal changes nothing
    }
    EXPECT_FALSE(t.isCreated());
    EXPECT_EQ(t.handle(), nullptr);
    // The detached thread writes into w; it must be done before w leaves scope.
    while (w.runs.load() < 2) usleep(100);
}

TEST_F(Thread, ParameterChecksAndTrace) {
    ZEPHThread t;
    Work w;
    EXPECT_EQ(t.create(body, &w, nullptr, nullptr), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_ZEPHThread_create, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
    calls.clear();
    ZEPThreadParam old = joinable();
    old.version = 20040701;
    EXPECT_EQ(t.create(body, &w, &old, nullptr), ECF_INVALID_VERSION);
    theLog(ZEPFN_ZEPHThread_create, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
    EXPECT_FALSE(t.isCreated());

    // With the trace on: the parameter object and the start function at probe 10, the
    // identifier at probe 90 (only when the caller asked for it), and the result.
    const ZEPThreadParam p = joinable();
    for (bool wantId : {true, false}) {
        SCOPED_TRACE(wantId);
        calls.clear();
        trace(true);
        Uint32 id = 0;
        ASSERT_EQ(t.create(body, &w, &p, wantId ? &id : nullptr), 0u);
        trace(false);
        ASSERT_EQ(kinds(), (wantId ? Strings{"entry", "var", "var", "exit"}
                                   : Strings{"entry", "var", "exit"}));
        const Call& in = calls[1];
        EXPECT_EQ(in.fid, ZEPFN_ZEPHThread_create);
        EXPECT_EQ(in.probe, 10u);
        ASSERT_EQ(in.items.size(), 2u);
        EXPECT_EQ(in.items[0].bytes, std::string(reinterpret_cast<const char*>(&p), sizeof p));
        EXPECT_EQ(valueOf<void*>(in.items[1]), reinterpret_cast<void*>(&body));
        if (wantId) {
            EXPECT_EQ(calls[2].probe, 90u);
            ASSERT_EQ(calls[2].items.size(), 1u);
            EXPECT_EQ(valueOf<Uint32>(calls[2].items[0]), t.id());
            EXPECT_EQ(id, t.id());
        }
        EXPECT_EQ(calls.back().rc, 0u);
        EXPECT_EQ(t.wait(), 0u);
        EXPECT_EQ(t.close(), 0u);
        // The identifier is the one the thread's own log records and frames carry.
        EXPECT_EQ(w.tid.load(), wantId ? id : w.tid.load());
        EXPECT_NE(w.tid.load(), zepThreadID());
    }
}

TEST_F(Thread, StackSizesManyThreadsExitAndClosingWhileRunning) {
    // 0 is the default; a size too small to run in is raised, not refused; others are honoured.
    for (auto [asked, least] : {std::pair<Uint32, size_t>{0, 64 << 10},
                                {1, 16 << 10},
                                {1u << 20, 1u << 20},
                                {3u << 20, 3u << 20}}) {
        ZEPHThread t;
        Work w;
        const ZEPThreadParam p = joinable(asked);
        ASSERT_EQ(t.create(body, &w, &p, nullptr), 0u);
        EXPECT_EQ(t.wait() | t.close(), 0u);
        EXPECT_EQ(w.runs.load(), 1);
        EXPECT_GE(w.stack.load(), least) << asked;
    }

    constexpr int kThreads = 64;
    ZEPHThread threads[kThreads];
    Work work[kThreads];
    const ZEPThreadParam p = joinable();
    for (int round = 0; round < 2; ++round) {
        Uint32 ids[kThreads] = {};
        for (int i = 0; i < kThreads; ++i)
            ASSERT_EQ(threads[i].create(body, &work[i], &p, &ids[i]), 0u) << i;
        for (int i = 0; i < kThreads; ++i) {
            EXPECT_EQ(threads[i].wait(), 0u);
            EXPECT_EQ(work[i].runs.load(), round + 1);  // waited means ended
            EXPECT_EQ(work[i].tid.load(), ids[i]);
            EXPECT_EQ(threads[i].close(), 0u);
        }
    }

    // zepThreadExit ends the thread for its waiter.
    Work early;
    ASSERT_EQ(threads[0].create(exitsEarly, &early, &p, nullptr), 0u);
    EXPECT_EQ(threads[0].wait() | threads[0].close(), 0u);
    EXPECT_EQ(early.runs.load(), 1);
    EXPECT_FALSE(early.pastExit.load());

    // A thread that isn't joinable is closed while it is held at the gate; the object is free
    // for another at once.
    Gate gate;
    Work held;
    held.gate = &gate;
    const ZEPThreadParam detached;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(threads[0].create(body, &held, &detached, nullptr), 0u);
        EXPECT_EQ(threads[0].close(), 0u);
    }
    EXPECT_EQ(held.runs.load(), 0);
    gate.open = 1;
    while (held.runs.load() < 2) usleep(100);
    EXPECT_TRUE(calls.empty());
}

TEST_F(Thread, DestructorOfUnwaitedJoinableThread) {
    Work w;
    void* handle;
    {
        ZEPHThread t;
        const ZEPThreadParam p = joinable();
        ASSERT_EQ(t.create(body, &w, &p, nullptr), 0u);
        handle = t.handle();
        calls.clear();
    }
    theLog(ZEPFN_ZEPHThread_close, 20, ECF_THREAD_MUST_WAIT);
    // The handle was left open: it can still be waited on and closed.
    EXPECT_EQ(zepos::WaitForSingleObject(handle, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_EQ(zepos::CloseHandle(handle), 1);
}

unsigned held(void* p) {
    static_cast<Gate*>(p)->wait();
    return 7;
}
unsigned endsWith(void* p) {
    zepos::_endthreadex(static_cast<Uint32>(reinterpret_cast<uintptr_t>(p)));
}

TEST(ThreadHandles, WaitsClosesAndRefusals) {
    Gate gate;
    Uint32 tid = 0;
    zepos::HANDLE h = zepos::_beginthreadex(nullptr, 0, held, &gate, 0, &tid);
    ASSERT_NE(h, nullptr);
    EXPECT_NE(tid, 0u);
    EXPECT_EQ(zepos::WaitForSingleObject(h, 0), zepos::WAIT_TIMEOUT);
    EXPECT_EQ(zepos::WaitForSingleObject(h, 20), zepos::WAIT_TIMEOUT);
    gate.open = 1;
    EXPECT_EQ(zepos::WaitForSingleObject(h, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_EQ(zepos::WaitForSingleObject(h, 0), zepos::WAIT_OBJECT_0);  // stays signalled
    EXPECT_EQ(zepos::CloseHandle(h), 1);

    // Closed while running; ended by _endthreadex; a thread can't start suspended here.
    Gate held2;
    h = zepos::_beginthreadex(nullptr, 0, held, &held2, 0, nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(zepos::CloseHandle(h), 1);
    EXPECT_EQ(zepos::CloseHandle(h), 0);
    EXPECT_EQ(zepos::GetLastError(), 6u);
    held2.open = 1;
    h = zepos::_beginthreadex(nullptr, 0, endsWith, reinterpret_cast<void*>(uintptr_t{5}), 0,
                              nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(zepos::WaitForSingleObject(h, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_EQ(zepos::CloseHandle(h), 1);
    EXPECT_EQ(zepos::_beginthreadex(nullptr, 0, held, &gate, 4 /* suspended */, nullptr), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 87u);
}

}  // namespace
