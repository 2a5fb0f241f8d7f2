// Resource identifiers, security attributes and the user queries: the names as two processes
// must derive them, the attributes every creation uses, the records of each failure.
#include <pwd.h>

#include "zeptest_ipc.h"

using namespace zeptest;

namespace {

class IpcRes : public CaptureTest {
protected:
    void TearDown() override {
        g_bRunningTerminalServiceRemoteAdminMode = 0;
        zepSetSecurityAttributesForZEP(nullptr);
        CaptureTest::TearDown();
    }
};

std::string derive(const char* path, Sint32 seed, Uint32 stamp = ZEP_VERSION_WORD,
                   bool localScope = false) {
    ZEPIPCResIDParam p;
    p.path = path, p.seed = seed, p.localScope = localScope;
    ZEPIPCResID id;
    id.version = stamp;
    memset(id.name, 'x', sizeof id.name);
    EXPECT_EQ(zepIPCGetResID(&p, &id), 0u);
    return id.name;
}

}  // namespace

TEST_F(IpcRes, NamesDerived) {
    const std::string longPath(300, 'p');
    const Uint32 now = ZEP_VERSION_WORD;
    struct Row {
        const char* path;
        Sint32 seed;
        bool remoteAdmin, localScope;
        Uint32 stamp;
        std::string name;
    } rows[] = {
        {"C:\\data\\inst1", 5, false, false, now, "ZEPEIPC5Cdatainst1"},
        {"C:\\data\\inst1", 5, true, false, now, "Global\\ZEPEIPC5Cdatainst1"},
        {"C:\\data\\inst1", 5, true, true, now, "ZEPEIPC5Cdatainst1"},
        {"/db/inst1:x", 0, false, false, now, "ZEPEIPC0/db/inst1x"},  // '/' stays
        {nullptr, 7, true, false, now, ""},
        {":\\::\\", 7, false, false, now, "ZEPEIPC7"},
        {"Ab", -2147483647 - 1, false, false, now, "ZEPEIPC-2147483648Ab"},
        // An output stamped before local scope existed ignores the request.
        {"x", 1, true, true, 0x09010002, "Global\\ZEPEIPC1x"},
        {"x", 1, true, true, 0x09010003, "ZEPEIPC1x"},
        // Cut at 261 characters, the prefix counted.
        {longPath.c_str(), 12, false, false, now, "ZEPEIPC12" + std::string(261 - 9, 'p')},
        {longPath.c_str(), 12, true, false, now, "Global\\ZEPEIPC12" + std::string(261 - 16, 'p')},
    };
    for (const Row& r : rows) {
        g_bRunningTerminalServiceRemoteAdminMode = r.remoteAdmin;
        EXPECT_EQ(derive(r.path, r.seed, r.stamp, r.localScope), r.name) << r.seed;
    }
}

TEST_F(IpcRes, QueueNamesAndRefusals) {
    ZEPIPCResIDParam p;
    p.path = "D:\\q", p.seed = 10, p.localScope = 1;
    ZEPIPCQueResID q;
    // The semaphores' derivations don't carry local scope along.
    g_bRunningTerminalServiceRemoteAdminMode = 1;
    ASSERT_EQ(zepIPCGetQueResID(&p, &q), 0u);
    EXPECT_STREQ(q.memory.name, "ZEPEIPC10Dq");
    EXPECT_STREQ(q.receiveSemaphore.name, "Global\\ZEPEIPC11Dq");
    EXPECT_STREQ(q.sendSemaphore.name, "Global\\ZEPEIPC12Dq");
    g_bRunningTerminalServiceRemoteAdminMode = 0;

    // An inner identifier of an old stamp stops the operation at its derivation's probe.
    for (int which = 0; which < 3; ++which) {
        ZEPIPCQueResID bad;
        ZEPIPCResID* inner[] = {&bad.memory, &bad.receiveSemaphore, &bad.sendSemaphore};
        inner[which]->version = 1;
        calls.clear();
        trace(true);
        EXPECT_EQ(zepIPCGetQueResID(&p, &bad), ECF_INVALID_VERSION);
        trace(false);
        theLog(ZEPFN_zepIPCGetResID, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
        EXPECT_EQ(errorProbes(ZEPFN_zepIPCGetQueResID), std::vector<Uint32>{20u + 10u * which});
    }

    calls.clear();
    ZEPIPCResID id;
    id.version = 20040701;
    refused(zepIPCGetResID(nullptr, nullptr), ECF_INVALID_PARAMETER, ZEPFN_zepIPCGetResID, 1111);
    refused(zepIPCGetResID(&p, &id), ECF_INVALID_VERSION, ZEPFN_zepIPCGetResID, 1112);
    // The input's stamp is not looked at.
    ZEPIPCResIDParam old;
    old.version = 0, old.path = "a";
    id.version = ZEP_VERSION_WORD;
    EXPECT_EQ(zepIPCGetResID(&old, &id), 0u);
    EXPECT_STREQ(id.name, "ZEPEIPC0a");

    trace(true);
    EXPECT_EQ(zepIPCGenerateSeed(), ECF_NOT_SUPPORTED);
    trace(false);
    EXPECT_TRUE(calls.empty());
}

TEST_F(IpcRes, SecurityAttributesDefaultAndOverride) {
    SECURITY_DESCRIPTOR sd;
    memset(&sd, 0xEE, sizeof sd);
    SECURITY_ATTRIBUTES sa{};
    trace(true);
    ASSERT_EQ(zepInitSecurityAttributes(&sd, &sa), 0u);
    trace(false);
    EXPECT_EQ(sa.nLength, sizeof(SECURITY_ATTRIBUTES));
    EXPECT_EQ(sa.lpSecurityDescriptor, &sd);
    EXPECT_EQ(sa.bInheritHandle, 1);
    EXPECT_EQ(sd.Revision, 1u);
    EXPECT_EQ(sd.Control, SE_DACL_PRESENT);
    EXPECT_EQ(sd.Mode, 0u);  // a null DACL: everyone
    // Two frames: the inner one has an identifier of its own.
    std::vector<Uint32> entries;
    for (const Call& c : calls)
        if (c.what == "entry") entries.push_back(c.fid);
    EXPECT_EQ(entries, (std::vector<Uint32>{ZEPFN_zepInitSecurityAttributes,
                                            ZEPFN_zepInitSecurityAttributes2}));

    SECURITY_DESCRIPTOR mine{};
    SECURITY_ATTRIBUTES override{sizeof override, &mine, 0};
    zepSetSecurityAttributesForZEP(&override);
    memset(&sd, 0xEE, sizeof sd);
    ASSERT_EQ(zepInitSecurityAttributes(&sd, &sa), 0u);
    EXPECT_EQ(sa.lpSecurityDescriptor, &mine);
    EXPECT_EQ(sa.bInheritHandle, 0);
    EXPECT_EQ(sd.Revision, 0xEE);  // the caller's buffer stays untouched
}

TEST_F(IpcRes, CurrentUser) {
    ZEPCurrentUserParam p;
    char name[256];
    p.bufferSize = sizeof name;
    ASSERT_EQ(zepGetCurrentUserName(&p, name), 0u);
    const passwd* pw = getpwuid(geteuid());
    EXPECT_STREQ(name, pw ? pw->pw_name : std::to_string(geteuid()).c_str());

    // Too small: the record holds the size needed and the size given.
    p.bufferSize = 1;
    EXPECT_EQ(zepGetCurrentUserName(&p, name), ECF_BUFFER_TOO_SMALL);
    const Call& log = theLog(ZEPFN_zepGetCurrentUserName, 40, ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(log.called, SYSFN_GetUserName);
    EXPECT_EQ(log.err, 122u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(valueOf<Uint32>(log.items[0]), strlen(name) + 1);
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 1u);

    // The session: the login's audit session, 0 outside any login; cut by the formatter.
    unsigned long session = 0;
    if (FILE* f = fopen("/proc/self/sessionid", "r")) {
        if (fscanf(f, "%lu", &session) != 1 || session == 4294967295ul) session = 0;
        fclose(f);
    }
    char display[16];
    p.bufferSize = sizeof display;
    ASSERT_EQ(zepGetCurrentUserDisplay(&p, display), 0u);
    EXPECT_EQ(display, std::to_string(session));
    p.bufferSize = 1;
    ASSERT_EQ(zepGetCurrentUserDisplay(&p, display), 0u);
    EXPECT_STREQ(display, "");
}
