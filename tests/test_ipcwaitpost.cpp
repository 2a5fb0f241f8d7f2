// ZEPHIPCWaitpost as its callers rely on it: the area's 8 bytes, the kinds, the poll that hands
// over the block, destroy seen by every other user, the failure rows with their records, and a
// reader in another process that never sees a mix of two posts.
#include "zeptest_ipc.h"
#include "zeptest_stress.h"

namespace {

using namespace zeptest;

class Waitpost : public IpcTest {
protected:
    Uint32 create(ZEPHIPCWaitpost& w, Uint32 kind, const ZEPIPCResID* id) {
        ZEPIPCWaitpostCreateParam c;
        c.area = &area, c.postData = block, c.postDataSize = sizeof block;
        c.resID = id, c.kind = kind;
        return w.create(&c);
    }
    Uint32 open(ZEPHIPCWaitpost& w, const ZEPIPCResID* id) {
        ZEPIPCWaitpostOpenParam o;
        o.area = &area, o.postData = block, o.postDataSize = sizeof block, o.resID = id;
        return w.open(&o);
    }
    // A wait's result and what it copied ("-" for nothing).
    std::string wait(ZEPHIPCWaitpost& w, Uint32 timeout, bool withBuffer = true) {
        char out[9] = "-";
        const ZEPIPCWaitpostWaitParam p(timeout);
        const Uint32 rc = w.wait(&p, withBuffer ? out : nullptr);
        char text[32];
        snprintf(text, sizeof text, "%X %s", rc, out);
        return text;
    }
    ZEPIPCWaitpostArea area;
    char block[8] = {};
};

TEST_F(Waitpost, AreaFormatAndKinds) {
    // kind, named, unlatched byte, state word
    const Uint32 rows[][4] = {{0, 1, 0, 0x2}, {1, 1, 0, 0x3}, {2, 1, 1, 0x2},
                              {0, 0, 0, 0x4}, {1, 0, 0, 0x5}, {2, 0, 1, 0x4}};
    for (const auto& r : rows) {
        memset(&area, 0xAB, sizeof area);  // create wipes what was there, latch included
        ZEPHIPCWaitpost w;
        const Uint32 kind = r[0];
        const ZEPIPCResID id = idOf("kind" + std::to_string(kind));
        ASSERT_EQ(create(w, kind, r[1] ? &id : nullptr), 0u);
        const Uint8* bytes = reinterpret_cast<const Uint8*>(&area);
        EXPECT_EQ(bytes[0], r[2]) << kind;
        EXPECT_EQ(bytes[1] | bytes[2] | bytes[3], 0) << kind;
        EXPECT_EQ(area.state, r[3]) << kind << r[1];

        // Kinds 0 and 2 stay posted for every wait until reset; kind 1 lets one through.
        memcpy(block, "initial", 8);
        EXPECT_EQ(wait(w, 0), "90000400 initial");  // a poll hands over the block all the same
        ASSERT_EQ(w.post("posted!"), 0u);
        EXPECT_EQ(wait(w, 0), "0 posted!");
        EXPECT_EQ(wait(w, 0), kind == 1 ? "90000400 posted!" : "0 posted!");
        ASSERT_EQ(w.post(nullptr), 0u);  // posts, block unchanged
        EXPECT_EQ(wait(w, 0, false), "0 -");
        ASSERT_EQ(w.reset(), 0u);
        EXPECT_EQ(wait(w, 0), "90000400 posted!");
        EXPECT_EQ(w.destroy(), 0u);
        EXPECT_EQ(area.state | area.unlatched, 0u);
    }
    EXPECT_TRUE(calls.empty());  // a poll that finds nothing posted writes no record
}

TEST_F(Waitpost, NamedEventSharedAndDestroySeenByOthers) {
    const ZEPIPCResID id = idOf("shared");
    ZEPHIPCWaitpost a, b, c;
    ASSERT_EQ(create(a, 1, &id), 0u);
    ASSERT_EQ(open(b, &id), 0u);

    // Destroyed by one: every operation of the others is refused, at its own probe.
    ASSERT_EQ(a.destroy(), 0u);
    const Uint32 code = ECF_WAITPOST_NOT_INITIALIZED;
    EXPECT_EQ(wait(b, 0), "900003FF -");
    theLog(ZEPFN_ZEPHIPCWaitpost_wait, 20, code);
    calls.clear();
    refused(b.post("x"), code, ZEPFN_ZEPHIPCWaitpost_post, 10, ZEP_LOG_INFO);
    EXPECT_NE(b.event, kNoHandle);  // still holds its event: nothing closed it
    refused(open(c, &id), code, ZEPFN_ZEPHIPCWaitpost_open, 30, ZEP_LOG_INFO);
    EXPECT_EQ(c.area, &area);
    zepos::CloseHandle(b.event);
}

TEST_F(Waitpost, FailureRows) {
    ZEPHIPCWaitpost w, v;
    // Open of a set-up area whose event name doesn't exist; a time limit that runs out.
    ASSERT_EQ(create(w, 0, nullptr), 0u);
    const ZEPIPCResID missing = idOf("missing");
    EXPECT_EQ(open(v, &missing), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(logShape(ECF_FILE_DOESNT_EXIST), "logsys 40/2");
    EXPECT_EQ(wait(w, 20), "90000013 -");
    EXPECT_EQ(logShape(ECF_TIMEOUT), "logsys 110/0");

    // No event: the platform's failures, mapped. A failed close leaves the object as it was, to
    // be tried again; destroy goes on after it.
    ASSERT_TRUE(zepos::CloseHandle(w.event));
    w.event = kNoHandle;
    EXPECT_EQ(w.post(nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(w.reset(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(wait(w, 5), "9000000C -");
    EXPECT_EQ(w.close(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(logShape(ECF_INVALID_PARAMETER), "logsys 70/6 logsys 50/6 logsys 120/6 logsys 20/6");
    EXPECT_EQ(w.area, &area);
    refused(w.destroy(), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCWaitpost_destroy, 40, ZEP_LOG_INFO);
    EXPECT_EQ(area.state, 0u);
}

// A reader in another process, woken by the first post, polls the data block at full speed while
// this one posts blocks filled with one byte value each: every copy it gets is whole.
TEST_F(Waitpost, AnotherProcessNeverSeesTwoPostsMixed) {
    ZEPHIPCMemory m;
    ZEPIPCMemoryCreateParam p;
    p.resID = idOf("block"), p.memorySize = 2048;
    Uint8* base;
    ASSERT_EQ(m.create(&p), 0u);
    m.getAddress(reinterpret_cast<void**>(&base));
    ZEPIPCWaitpostCreateParam c;  // the event has the block's name: kinds are apart
    c.area = reinterpret_cast<ZEPIPCWaitpostArea*>(base);
    c.postData = base + 64, c.postDataSize = 1024, c.resID = &p.resID, c.kind = 1;
    ZEPHIPCWaitpost w;
    ASSERT_EQ(w.create(&c), 0u);
    IpcProc reader;
    const std::string n = std::to_string(20000 * zeptestStress());
    ASSERT_EQ(reader.run("ma " + tag_ + "block 0").substr(0, 2), "0 ");
    ASSERT_EQ(reader.run("wpread " + tag_ + "block " + n), "ready");
    usleep(100000);  // and asleep on the automatic event, to be woken by the first post
    Uint8 pattern[1024];
    for (unsigned i = 0; __atomic_load_n(base + 8, __ATOMIC_ACQUIRE) == 0; ++i) {
        memset(pattern, static_cast<int>(i % 251 + 1), sizeof pattern);
        ASSERT_EQ(w.post(pattern), 0u);
    }
    EXPECT_EQ(reader.line(), "torn 0");  // of copies taken while at least 20 posts went by
    EXPECT_EQ(reader.finish(), 0);
    EXPECT_EQ(w.destroy(), 0u);
    EXPECT_EQ(m.destroy(), 0u);
}

}  // namespace
