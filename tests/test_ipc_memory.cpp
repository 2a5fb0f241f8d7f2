// Shared memory: the failure rows with their records, the private block found by a byte copy,
// the extended form's checks and views, and the lifetime across real processes (SIGKILL, a
// wanted address).
#include "zeptest_ipc.h"

using namespace zeptest;

namespace {

// Whether a write through `p` in a forked child ends it with SIGSEGV.
bool writeFaults(volatile char* p) {
    const pid_t child = fork();
    if (child == 0) *p = 1, _exit(0);
    return waitExit(child) == 128 + SIGSEGV;
}

using IpcMemory = IpcTest;

}  // namespace

TEST_F(IpcMemory, CreateAttachAndTheirFailureRows) {
    ZEPIPCMemoryCreateParam p, q;
    p.resID = idOf("rows"), p.memorySize = 1, p.accessMode = 7, p.flags = 9;
    ZEPHIPCMemory a, b, c;
    void* at = &at;
    ASSERT_EQ(a.getAddress(&at), 0u);
    EXPECT_EQ(at, nullptr);
    ASSERT_EQ(a.create(&p), 0u);
    Uint32 size = 0;
    ASSERT_EQ(a.getMemorySize(&size), 0u);
    EXPECT_EQ(size, 4096u);  // the region, not the size asked
    a.getAddress(&at);
    memset(at, 0x5A, 4096);

    // A name that exists: the second object stays empty, the block untouched; the second record
    // shows the request (size, address, access mode, flags, mapping).
    EXPECT_EQ(b.create(&p), ECF_MEM_EXISTS);
    EXPECT_EQ(valueOf<Uint32>(calls.back().items.at(3)), 9u);
    EXPECT_EQ(logShape(ECF_MEM_EXISTS), "logsys 90/183 log 90 log 91");
    EXPECT_FALSE(b.isAttached());
    EXPECT_EQ(static_cast<unsigned char*>(at)[4095], 0x5A);

    // Attach: at the creator's address in this process it is taken; elsewhere it is granted.
    EXPECT_EQ(b.attach(&p.resID, at), ECF_INVALID_ADDRESS);
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 70/487 log 70");
    ASSERT_EQ(b.attach(&p.resID, nullptr), 0u);

    // A name that isn't there; a view that can't be placed (the new block goes with it: the
    // look at /dev/shm at the end would find it).
    q.resID = idOf("placed"), q.memorySize = 100, q.address = at;
    EXPECT_EQ(c.attach(&q.resID, nullptr), ECF_MEM_DOESNT_EXIST);
    EXPECT_EQ(logShape(ECF_MEM_DOESNT_EXIST), "logsys 50/2 log 50");
    EXPECT_EQ(c.create(&q), ECF_INVALID_ADDRESS);
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 100/487 log 100 log 101");

    // A parameter object missing, and authorize that changes nothing.
    ZEPIPCSecurityParam sp;
    refused(c.create(nullptr), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCMemory_create, 1111);
    EXPECT_EQ(a.authorize(&sp), 0u);

    // Detach: a second one finds no view (487, logged at 30) and no handle (error record 40,
    // no log record: its code wins). destroy swallows it; detachAndDestroy doesn't.
    ASSERT_EQ(b.detach(), 0u);
    EXPECT_FALSE(b.isAttached());
    trace(true);
    EXPECT_EQ(b.detach(), ECF_INVALID_PARAMETER);
    trace(false);
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 30/487 error 30 error 40");
    EXPECT_EQ(b.destroy(), 0u);
    EXPECT_EQ(b.detachAndDestroy(), ECF_INVALID_PARAMETER);

    EXPECT_EQ(a.detachAndDestroy(), 0u);
}

TEST_F(IpcMemory, PrivateBlockNamesItselfAndTravelsByBytes) {
    ZEPHIPCPrivateMemory a, b, fresh;
    ZEPIPCMemoryCreateParam p, p2;
    p.memorySize = 8192, p2.memorySize = 10;
    ASSERT_EQ(a.create(&p), 0u);
    ASSERT_EQ(b.create(&p2), 0u);
    const std::string base = "PRIVMEMPID" + std::to_string(zepProcessID()) + "TID" +
                             std::to_string(static_cast<Uint64>(zepThreadID()));
    EXPECT_EQ(std::string(p.resID.name), "ZEPEIPC0" + base);
    EXPECT_EQ(std::string(p2.resID.name), "ZEPEIPC1" + base);  // seed 0 is taken
    void* at;
    a.getAddress(&at);
    static_cast<char*>(at)[8191] = 42;

    // On an object that never went through create: refused, its fields untouched.
    unsigned char before[16];
    memcpy(before, &fresh, sizeof before);
    refused(fresh.remoteInitialization(), ECF_MEM_DOESNT_EXIST,
            ZEPFN_ZEPHIPCPrivateMemory_remoteInitialization, 100, ZEP_LOG_INFO);
    EXPECT_EQ(memcmp(before, &fresh, sizeof before), 0);

    // A byte copy of the object, as another process would get it, finds the block by its name.
    ZEPHIPCPrivateMemory copy;
    memcpy(static_cast<void*>(&copy), &a, sizeof a);
    ASSERT_EQ(copy.remoteInitialization(), 0u);
    ASSERT_EQ(copy.attach(nullptr), 0u);
    void* there;
    copy.getAddress(&there);
    EXPECT_EQ(static_cast<char*>(there)[8191], 42);
    EXPECT_EQ(copy.destroy(), 0u);
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_EQ(b.destroy(), 0u);
}

TEST_F(IpcMemory, ExtendedChecksJoinsAndViews) {
    const std::string n253 = tag_ + std::string(253 - tag_.size(), 'e');
    const std::string longer = n253 + "f", name = tag_ + "ex", gone = tag_ + "gone";
    const struct {
        const char* name;
        Uint64 size, flags;
        Uint32 accessMode;
    } bad[] = {{longer.c_str(), 100, 8, 1}, {"a\\b", 100, 8, 1},     {"", 100, 8, 1},
               {nullptr, 100, 8, 1},        {n253.c_str(), 0, 8, 1}, {n253.c_str(), 100, 0, 1},
               {n253.c_str(), 100, 8, 0}};
    ZEPHIPCMemoryEx a, b, c;
    ZEPIPCMemoryExCreateParam p;
    ZEPIPCMemoryExInfo ia, ib, ic;
    for (const auto& r : bad) {
        p.name = r.name, p.size = r.size, p.flags = r.flags, p.accessMode = r.accessMode;
        refused(a.create(&p, &ia), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCMemoryEx_create, 30);
    }
    p.name = n253.c_str(), p.size = 100, p.flags = 8, p.accessMode = 1;  // the longest name
    ASSERT_EQ(a.create(&p, &ia), 0u);
    EXPECT_EQ(a.destroy(), 0u);

    p.name = name.c_str(), p.size = 5000;
    ASSERT_EQ(a.create(&p, &ia), 0u);
    static_cast<char*>(ia.address)[4999] = 'x';
    // Without 0x1 a create joins; with it, the block is refused and left alone.
    ASSERT_EQ(b.create(&p, &ib), 0u);
    EXPECT_EQ(static_cast<char*>(ib.address)[4999], 'x');
    p.flags = ZEP_IPC_MEMEX_MUST_NOT_EXIST | 8;
    EXPECT_EQ(c.create(&p, &ic), ECF_EXISTS);
    EXPECT_EQ(calls.back().items.at(7).bytes, "ZEPEIPC120" + name);
    EXPECT_EQ(logShape(ECF_EXISTS), "logsys 150/183 log 150");
    // An attached object refuses another create or attach.
    ZEPIPCMemoryExAttachParam ap;
    ap.name = name.c_str(), ap.flags = 8;
    refused(a.attach(&ap, &ic), ECF_INVALID_INVOCATION_SEQUENCE, ZEPFN_ZEPHIPCMemoryEx_attach, 20);
    // Read-only wins over read-write: a write faults.
    ap.flags = ZEP_IPC_MEMEX_READ | ZEP_IPC_MEMEX_READ_WRITE;
    ASSERT_EQ(c.attach(&ap, &ic), 0u);
    EXPECT_TRUE(writeFaults(static_cast<char*>(ic.address)));
    EXPECT_EQ(c.detach(), 0u);
    ap.name = gone.c_str(), ap.flags = 8;
    EXPECT_EQ(c.attach(&ap, &ic), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(logShape(ECF_FILE_DOESNT_EXIST), "logsys 100/2 log 100");
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_EQ(b.detach(), 0u);
}

TEST_F(IpcMemory, LifetimeAcrossProcessesAndKilledUsers) {
    const std::string name = tag_ + "abc";  // as helper_ipc's path
    IpcProc a, b, c;
    const std::string created = a.run("mc " + name + " 4096 0");
    ASSERT_EQ(created.substr(0, 2), "0 ");
    const std::string where = created.substr(2);
    EXPECT_EQ(a.run("w 100 33"), "ok");
    // B at A's own address; the block outlives its creator's destroy while B holds it.
    EXPECT_EQ(b.run("ma " + name + " " + where), "0 " + where);
    EXPECT_EQ(a.run("md"), "0");
    EXPECT_EQ(b.run("r 100"), "v 33");
    EXPECT_EQ(c.run("mc " + name + " 4096 0"), "9000004A (nil)");  // ECF_MEM_EXISTS
    EXPECT_EQ(b.run("mdd"), "0");
    ASSERT_EQ(c.run("mc " + name + " 4096 0").substr(0, 2), "0 ");
    EXPECT_EQ(c.run("r 100"), "v 0");
    // Users killed leave a stale block: a create takes the name for a fresh, zeroed one.
    EXPECT_EQ(c.run("w 100 5"), "ok");
    ASSERT_EQ(a.run("ma " + name + " 0").substr(0, 2), "0 ");
    a.finish(SIGKILL);
    c.finish(SIGKILL);
    ZEPHIPCMemory m;
    ZEPIPCMemoryCreateParam p;
    p.resID = idOf("abc"), p.memorySize = 100;
    ASSERT_EQ(m.create(&p), 0u);
    void* at;
    m.getAddress(&at);
    EXPECT_EQ(static_cast<char*>(at)[100], 0);
    EXPECT_EQ(m.destroy(), 0u);
    EXPECT_EQ(m.attach(&p.resID, nullptr), ECF_MEM_DOESNT_EXIST);
}
