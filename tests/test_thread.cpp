// ZEPHThread as its callers rely on it: the state rule with its codes and log records, the trace
// of create, the identifier, the stack size, zepThreadExit, and closing while the thread runs.
#include <atomic>
#include <tuple>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

struct Work {
    std::atomic<Uint32> open{1};  // 0 holds the thread until the test opens it
    std::atomic<int> runs{0};
    std::atomic<Uint32> tid{0};
};

void body(void* p) {
    Work* w = static_cast<Work*>(p);
    w->tid = zepThreadID();
    while (!w->open.load()) usleep(100);
    ++w->runs;
}
void exitsEarly(void* p) {
    zepThreadExit();
    ++static_cast<Work*>(p)->runs;
}

ZEPThreadParam joinable(Uint32 stack = 0) {
    ZEPThreadParam p;
    p.flags = ZEP_THREAD_JOINABLE;
    p.stackSize = stack;
    return p;
}

using Thread = CaptureTest;

TEST_F(Thread, StateRule) {
    ZEPHThread t;
    Work w;
    const ZEPThreadParam j = joinable(), detached;
    enum Op { Create, CreateDetached, Wait, Close };
    // Each step: the call, its result, and for a refusal the probe of its one log record.
    const struct {
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
        {CreateDetached, 0, 0, 0},
        {Wait, ECF_THREAD_CANNOT_WAIT, 20, ZEPFN_ZEPHThread_wait},
        {Close, 0, 0, 0},
    };
    int i = 0;
    for (const auto& s : steps) {
        SCOPED_TRACE(i++);
        auto state = [&] {
            return std::make_tuple(t.id(), t.handle(), t.isCreated(), t.isJoinable());
        };
        const auto before = state();
        calls.clear();
        const Uint32 rc = s.op == Wait ? t.wait()
                          : s.op == Close
                              ? t.close()
                              : t.create(body, &w, s.op == Create ? &j : &detached, nullptr);
        EXPECT_EQ(rc, s.rc);
        if (rc == 0) {
            EXPECT_TRUE(calls.empty());
            continue;
        }
        theLog(s.fid, s.probe, s.rc, ZEP_LOG_INFO);
        EXPECT_EQ(state(), before);  // a refusal changes nothing
    }
    EXPECT_EQ(t.handle(), nullptr);
    while (w.runs.load() < 2) usleep(100);  // the detached thread writes into w
}

TEST_F(Thread, TraceIdentifiersAndManyAtOnce) {
    ZEPHThread t;
    Work w;
    // The parameter object and the start function at probe 10, the identifier at 90.
    const ZEPThreadParam p = joinable();
    trace(true);
    Uint32 id = 0;
    ASSERT_EQ(t.create(body, &w, &p, &id), 0u);
    trace(false);
    EXPECT_EQ(said(),
              "entry ZEPHThread::create; var ZEPHThread::create p10 t3 n2; var "
              "ZEPHThread::create p90 t3 n1; exit ZEPHThread::create OK");
    EXPECT_EQ(calls[1].items.at(0).bytes, std::string(reinterpret_cast<const char*>(&p), sizeof p));
    EXPECT_EQ(valueOf<void*>(calls[1].items.at(1)), reinterpret_cast<void*>(&body));
    EXPECT_EQ(valueOf<Uint32>(calls[2].items.at(0)), t.id());
    EXPECT_EQ(t.wait() | t.close(), 0u);
    EXPECT_EQ(w.tid.load(), id);  // the one the thread's own log records and frames carry

    // Many at once: each identifier is its thread's, and waited means ended.
    constexpr int kThreads = 64;
    ZEPHThread threads[kThreads];
    Work work[kThreads];
    Uint32 ids[kThreads] = {};
    for (int i = 0; i < kThreads; ++i)
        ASSERT_EQ(threads[i].create(body, &work[i], &p, &ids[i]), 0u) << i;
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(threads[i].wait() | threads[i].close(), 0u);
        EXPECT_EQ(work[i].runs.load(), 1);
        EXPECT_EQ(work[i].tid.load(), ids[i]);
    }
}

TEST_F(Thread, StackSizesExitClosingWhileRunningAndTheDestructor) {
    // A size too small to run in is raised, not refused; a large one is given.
    ZEPHThread t;
    for (Uint32 asked : {1u, 64u << 20}) {
        Work w;
        const ZEPThreadParam p = joinable(asked);
        ASSERT_EQ(t.create(body, &w, &p, nullptr), 0u);
        EXPECT_EQ(t.wait() | t.close(), 0u);
        EXPECT_EQ(w.runs.load(), 1);
    }
    Work w;
    const ZEPThreadParam p = joinable(), detached;
    ASSERT_EQ(t.create(exitsEarly, &w, &p, nullptr), 0u);
    EXPECT_EQ(t.wait() | t.close(), 0u);
    EXPECT_EQ(w.runs.load(), 0);  // ended at zepThreadExit

    // A thread that isn't joinable is closed while it is held; the object is free at once.
    w.open = 0;
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(t.create(body, &w, &detached, nullptr), 0u);
        EXPECT_EQ(t.close(), 0u);
    }
    EXPECT_EQ(w.runs.load(), 0);
    w.open = 1;
    while (w.runs.load() < 2) usleep(100);
    EXPECT_TRUE(calls.empty());

    // The destructor of an unwaited joinable object logs and leaves the handle open.
    void* handle;
    {
        ZEPHThread held;
        ASSERT_EQ(held.create(body, &w, &p, nullptr), 0u);
        handle = held.handle();
    }
    theLog(ZEPFN_ZEPHThread_close, 20, ECF_THREAD_MUST_WAIT);
    EXPECT_EQ(zepos::WaitForSingleObject(handle, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_EQ(zepos::CloseHandle(handle), 1);
}

}  // namespace
