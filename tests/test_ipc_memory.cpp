// Shared memory: every failure row with its records, the private block passed by bytes, the
// extended form's checks and views, and the lifetime across real processes (SIGKILL, a wanted
// address, eight processes racing on one name).
#include <deque>

#include "zeptest_ipc.h"

using namespace zeptest;

namespace {

// Whether a write through `p` in a forked child ends it with SIGSEGV.
bool writeFaults(volatile char* p) {
    const pid_t child = fork();
    if (child == 0) *p = 1, _exit(0);
    return waitExit(child) == 128 + SIGSEGV;
}

std::string hex(Uint32 code) {
    char s[16];
    snprintf(s, sizeof s, "%X", code);
    return s;
}

using IpcMemory = IpcTest;

}  // namespace

TEST_F(IpcMemory, CreateAttachAndTheirFailureRows) {
    ZEPIPCMemoryCreateParam p, q;
    p.resID = idOf(tag_ + "rows"), p.memorySize = 1, p.accessMode = 7, p.flags = 9;
    ZEPHIPCMemory a, b, c;
    void *at = &at, *bt;
    ASSERT_EQ(a.getAddress(&at), 0u);
    EXPECT_EQ(at, nullptr);
    ASSERT_EQ(a.create(&p), 0u);
    Uint32 size = 0;
    ASSERT_EQ(a.getMemorySize(&size), 0u);
    EXPECT_EQ(size, 4096u);  // the region, not the size asked
    a.getAddress(&at);
    memset(at, 0x5A, 4096);

    // A name that exists: the second object stays empty, the block untouched; the second record
    // of the failure shows the request.
    EXPECT_EQ(b.create(&p), ECF_MEM_EXISTS);
    const std::vector<Item> items = calls.back().items;
    ASSERT_EQ(items.size(), 5u);
    EXPECT_EQ(valueOf<Uint32>(items[0]), 1u);
    EXPECT_EQ(valueOf<Uint32>(items[2]), 7u);
    EXPECT_EQ(valueOf<Uint32>(items[3]), 9u);
    EXPECT_EQ(logShape(ECF_MEM_EXISTS), "logsys 90/183 log 90 log 91");
    EXPECT_FALSE(b.isAttached());
    EXPECT_EQ(static_cast<unsigned char*>(at)[4095], 0x5A);

    // Attach: at the creator's address in this process it is taken; elsewhere it is granted.
    EXPECT_EQ(b.attach(&p.resID, at), ECF_INVALID_ADDRESS);
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 70/487 log 70");
    EXPECT_FALSE(b.isAttached());
    ASSERT_EQ(b.attach(&p.resID, nullptr), 0u);
    b.getAddress(&bt);
    EXPECT_NE(bt, at);
    EXPECT_EQ(static_cast<unsigned char*>(bt)[0], 0x5A);

    // A name that isn't there; a view that can't be placed (the new block goes with it).
    q.resID = idOf(tag_ + "placed"), q.memorySize = 100, q.address = at;
    EXPECT_EQ(c.attach(&q.resID, nullptr), ECF_MEM_DOESNT_EXIST);
    EXPECT_EQ(logShape(ECF_MEM_DOESNT_EXIST), "logsys 50/2 log 50");
    EXPECT_EQ(c.create(&q), ECF_INVALID_ADDRESS);
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 100/487 log 100 log 101");
    EXPECT_FALSE(c.isAttached());
    EXPECT_EQ(c.attach(&q.resID, nullptr), ECF_MEM_DOESNT_EXIST);

    // A parameter object missing, and authorize that changes nothing.
    ZEPIPCSecurityParam sp;
    calls.clear();
    refused(c.create(nullptr), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCMemory_create, 1111);
    EXPECT_EQ(a.authorize(&sp), 0u);

    // Detach: a second one finds no view (487, logged at 30) and no handle (error record 40,
    // no log record: its code wins). destroy swallows it; detachAndDestroy doesn't.
    ASSERT_EQ(b.detach(), 0u);
    EXPECT_FALSE(b.isAttached());
    trace(true);
    EXPECT_EQ(b.detach(), ECF_INVALID_PARAMETER);
    trace(false);
    EXPECT_EQ(errorProbes(), (std::vector<Uint32>{30, 40}));
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 30/487");
    EXPECT_EQ(b.destroy(), 0u);
    EXPECT_EQ(b.detachAndDestroy(), ECF_INVALID_PARAMETER);

    // Only the close fails (a view with a handle that isn't one): no longer attached, unlogged.
    ASSERT_EQ(b.attach(&p.resID, nullptr), 0u);
    void* fields[2];
    memcpy(fields, &b, sizeof fields);
    ZEPHIPCMemory odd, rest;
    void *oddFields[2] = {nullptr, fields[1]}, *restFields[2] = {fields[0], nullptr};
    memcpy(&odd, oddFields, sizeof oddFields);
    memcpy(&rest, restFields, sizeof restFields);
    calls.clear();
    EXPECT_EQ(odd.detach(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(logShape(0), "");
    EXPECT_FALSE(odd.isAttached());
    EXPECT_EQ(rest.detach(), ECF_INVALID_ADDRESS);  // b's handle alone: the unmap's code stays
    EXPECT_EQ(logShape(ECF_INVALID_ADDRESS), "logsys 30/487");
    EXPECT_EQ(a.detachAndDestroy(), 0u);
    EXPECT_FALSE(a.isAttached());
}

TEST_F(IpcMemory, PrivateBlockNamesItselfAndTravelsByBytes) {
    ZEPHIPCPrivateMemory a, b, fresh, none;
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

    // Another process gets the object's bytes, nothing else.
    std::string bytes;
    for (size_t i = 0; i < sizeof a; ++i)
        bytes += hex(0x100 | reinterpret_cast<Uint8*>(&a)[i]).substr(1);
    IpcProc other;
    EXPECT_EQ(other.run("pa " + bytes), "0");
    EXPECT_EQ(other.run("r 8191"), "v 42");
    EXPECT_EQ(other.run("w 0 7"), "ok");
    EXPECT_EQ(static_cast<char*>(at)[0], 7);
    EXPECT_EQ(other.run("pd"), "0");
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_EQ(b.destroy(), 0u);
    EXPECT_EQ(other.finish(), 0);

    // All hundred names taken.
    std::vector<ZEPHIPCMemory> taken(100);
    for (int seed = 0; seed < 100; ++seed) {
        p.resID = idOf(base, seed);
        ASSERT_EQ(taken[seed].create(&p), 0u) << seed;
    }
    calls.clear();
    refused(none.create(&p2), ECF_NO_RESOURCE, ZEPFN_ZEPHIPCPrivateMemory_create, 100,
            ZEP_LOG_INFO);
    for (ZEPHIPCMemory& m : taken) m.destroy();
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
    calls.clear();
    EXPECT_EQ(c.create(&p, &ic), ECF_EXISTS);
    ASSERT_EQ(calls.back().items.size(), 8u);
    EXPECT_EQ(calls.back().items[7].bytes, "ZEPEIPC120" + name);
    EXPECT_EQ(logShape(ECF_EXISTS), "logsys 150/183 log 150");
    // An attached object refuses another create or attach and stays attached.
    ZEPIPCMemoryExAttachParam ap;
    ap.name = name.c_str(), ap.flags = 8;
    refused(a.attach(&ap, &ic), ECF_INVALID_INVOCATION_SEQUENCE, ZEPFN_ZEPHIPCMemoryEx_attach, 20);
    EXPECT_EQ(static_cast<char*>(ia.address)[4999], 'x');
    // Read-only wins over read-write: a write faults.
    ap.flags = ZEP_IPC_MEMEX_READ | ZEP_IPC_MEMEX_READ_WRITE;
    ASSERT_EQ(c.attach(&ap, &ic), 0u);
    EXPECT_EQ(static_cast<char*>(ic.address)[4999], 'x');
    EXPECT_TRUE(writeFaults(static_cast<char*>(ic.address)));
    EXPECT_EQ(c.detach(), 0u);
    ap.name = gone.c_str(), ap.flags = 8;
    EXPECT_EQ(c.attach(&ap, &ic), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(logShape(ECF_FILE_DOESNT_EXIST), "logsys 100/2 log 100");
    EXPECT_EQ(a.destroy(), 0u);
    EXPECT_EQ(b.detach(), 0u);
    // Detaching an empty object fails at the unmap and keeps that code.
    EXPECT_EQ(b.detach(), ECF_INVALID_ADDRESS);
    EXPECT_EQ(logShape(kAnyCode), "logsys 30/487 log 30 logsys 40/6");
}

TEST_F(IpcMemory, LifetimeAcrossProcessesAndKilledUsers) {
    const std::string name = tag_ + "abc";
    IpcProc a, b, c;
    const std::string created = a.run("mc " + name + " 4096 0");
    ASSERT_EQ(created.substr(0, 2), "0 ");
    const std::string where = created.substr(2);
    EXPECT_EQ(a.run("w 100 33"), "ok");
    // B at A's own address; the block outlives its creator's destroy while B holds it.
    EXPECT_EQ(b.run("ma " + name + " " + where), "0 " + where);
    EXPECT_EQ(b.run("r 100"), "v 33");
    EXPECT_EQ(a.run("md"), "0");
    EXPECT_EQ(b.run("w 101 44"), "ok");
    EXPECT_EQ(b.run("r 100"), "v 33");
    EXPECT_EQ(c.run("mc " + name + " 4096 0"), hex(ECF_MEM_EXISTS) + " (nil)");
    EXPECT_EQ(b.run("mdd"), "0");
    ASSERT_EQ(c.run("mc " + name + " 4096 0").substr(0, 2), "0 ");
    EXPECT_EQ(c.run("r 100"), "v 0");
    // Users killed leave a stale block: a create takes the name for a fresh, zeroed one.
    EXPECT_EQ(c.run("w 100 5"), "ok");
    ASSERT_EQ(a.run("ma " + name + " 0").substr(0, 2), "0 ");
    a.kill(SIGKILL);
    c.kill(SIGKILL);
    ZEPHIPCMemory m;
    ZEPIPCMemoryCreateParam p;
    p.resID = idOf(name), p.memorySize = 100;
    ASSERT_EQ(m.create(&p), 0u);
    void* at;
    m.getAddress(&at);
    EXPECT_EQ(static_cast<char*>(at)[100], 0);
    EXPECT_EQ(m.destroy(), 0u);
    EXPECT_EQ(m.attach(&p.resID, nullptr), ECF_MEM_DOESNT_EXIST);
}

TEST_F(IpcMemory, EightProcessesRaceOnOneName) {
    const std::string name = tag_ + "race", control = tag_ + "control";
    ZEPIPCMemoryCreateParam p;
    p.resID = idOf(control), p.memorySize = 64;
    ZEPHIPCMemory ctl;
    ASSERT_EQ(ctl.create(&p), 0u);
    std::deque<IpcProc> racers(8);
    for (auto& r : racers) r.send("race " + name + " " + control + " 3");
    unsigned creates = 0, attaches = 0;
    for (auto& r : racers) {
        const std::string a = r.line();
        unsigned cr = 0, at = 0, bad = 1;
        ASSERT_EQ(sscanf(a.c_str(), "done %u %u %u", &cr, &at, &bad), 3) << a;
        EXPECT_EQ(bad, 0u) << a;
        creates += cr, attaches += at;
        EXPECT_EQ(r.finish(), 0);
    }
    EXPECT_GT(creates, 8u);
    EXPECT_GT(attaches, 8u);
    EXPECT_EQ(ctl.destroy(), 0u);
}
