// ZEPHIPCSemaphore as its callers rely on it: results, log records, trace-free time-outs and the
// maximum count. Processes sleep and wake on its semaphores in the queue's streams.
#include "zeptest_ipc.h"

namespace {

using namespace zeptest;

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
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x8000000Eu);  // initial count, maximum, name
    EXPECT_EQ(valueOf<Sint32>(log.items.at(1)), 32767);
    calls.clear();
    ASSERT_EQ(d.attach(&c.resID), 0u);
    const ZEPIPCSemaphoreWaitParam poll(0);
    EXPECT_EQ(d.wait(&poll), 0u);
    EXPECT_EQ(d.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(d.detach(), 0u);
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_FALSE(a.isAttached());

    EXPECT_EQ(d.attach(&c.resID), ECF_FILE_DOESNT_EXIST);  // the last holder gone: no name
    EXPECT_EQ(theLog(ZEPFN_ZEPHIPCSemaphore_attach, 40, ECF_FILE_DOESNT_EXIST).called,
              SYSFN_OpenSemaphore);
    EXPECT_EQ(d.handle, kNoHandle);
    calls.clear();

    // A count the platform refuses; the parameter object checks; authorize changes nothing.
    c.initialValue = -1;
    EXPECT_EQ(a.create(&c), ECF_INVALID_PARAMETER);
    EXPECT_EQ(logShape(ECF_INVALID_PARAMETER), "logsys 80/87");
    refused(a.create(nullptr), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCSemaphore_create, 1111);
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
    EXPECT_FALSE(s.isAttached());
}

}  // namespace
