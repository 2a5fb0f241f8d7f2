// ZEPHIPCSemaphore as its callers rely on it: results, log records, trace-free time-outs and the
// maximum count. Processes sleep and wake on its semaphores in the queue's streams.
#include "zeptest_ipc.h"

namespace {

using namespace zeptest;

using Semaphore = IpcTest;

TEST_F(Semaphore, CreatePostWaitAndTheirRecords) {
    ZEPIPCSemaphoreCreateParam c;
    c.resID = idOf("sem"), c.initialValue = 1;
    ZEPHIPCSemaphore a, b, d;
    ASSERT_EQ(a.create(&c), 0u);

    // A second create is refused, closes what it opened, and leaves the count alone.
    c.initialValue = 7;
    EXPECT_EQ(b.create(&c), ECF_SEM_EXISTS);  // a handle left open would keep the file
    const Call& log = theLog(ZEPFN_ZEPHIPCSemaphore_create, 90, ECF_SEM_EXISTS);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x8000000Eu);  // initial count, maximum, name
    EXPECT_EQ(valueOf<Sint32>(log.items.at(1)), 32767);
    calls.clear();
    ASSERT_EQ(d.attach(&c.resID), 0u);

    // A time-out is an ordinary result: neither log nor error record, with the trace on.
    const ZEPIPCSemaphoreWaitParam poll(0), brief(30);
    trace(true);
    EXPECT_EQ(d.wait(&poll), 0u);
    EXPECT_EQ(d.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(d.wait(&brief), ECF_TIMEOUT);
    EXPECT_EQ(logShape(0), "");
    trace(false);

    // The 32768th post: the map knows no code for the platform's "too many posts".
    for (int i = 0; i < 32767; ++i) ASSERT_EQ(a.post(), 0u);
    EXPECT_EQ(a.post(), ECF_UNKNOWN);
    EXPECT_EQ(logShape(ECF_UNKNOWN), "logsys 40/298");
    int passed = 0;
    while (d.wait(&poll) == 0) ++passed;
    EXPECT_EQ(passed, 32767);
    EXPECT_EQ(d.detach(), 0u);
    EXPECT_EQ(a.destroy(), 0u);

    // The last holder gone, so is the name. With no handle every call is a platform failure of
    // the handle, and detach leaves it at "none".
    EXPECT_EQ(d.attach(&c.resID), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(logShape(ECF_FILE_DOESNT_EXIST), "logsys 40/2");
    const Uint32 bad = ECF_INVALID_PARAMETER;
    EXPECT_EQ(d.post(), bad);
    EXPECT_EQ(d.wait(&poll), bad);
    EXPECT_EQ(d.detach(), bad);
    EXPECT_EQ(d.destroy(), bad);
    EXPECT_EQ(logShape(bad), "logsys 40/6 logsys 110/6 logsys 30/6 logsys 30/6");
    EXPECT_FALSE(d.isAttached());

    // A count the platform refuses; a parameter object missing; authorize changes nothing.
    c.initialValue = -1;
    EXPECT_EQ(a.create(&c), bad);
    EXPECT_EQ(logShape(bad), "logsys 80/87");
    refused(a.create(nullptr), bad, ZEPFN_ZEPHIPCSemaphore_create, 1111);
    ZEPIPCSecurityParam sec;
    EXPECT_EQ(a.authorize(&sec), 0u);
}

}  // namespace
