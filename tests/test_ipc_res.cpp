// Resource identifiers, security attributes and the user queries: the names as two processes
// must derive them, the attributes every creation uses, the records of the failures.
#include <pwd.h>

#include "zeptest_ipc.h"

using namespace zeptest;

using IpcRes = CaptureTest;  // each test runs in a process of its own: the mode flag may stay set

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
        {longPath.c_str(), 12, true, false, now, "Global\\ZEPEIPC12" + std::string(261 - 16, 'p')},
    };
    for (const Row& r : rows) {
        g_bRunningTerminalServiceRemoteAdminMode = r.remoteAdmin;
        ZEPIPCResIDParam p;
        p.path = r.path, p.seed = r.seed, p.localScope = r.localScope;
        ZEPIPCResID id;
        id.version = r.stamp;
        memset(id.name, 'x', sizeof id.name);
        EXPECT_EQ(zepIPCGetResID(&p, &id), 0u);
        EXPECT_EQ(id.name, r.name) << r.seed;
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

    // An inner identifier of an old stamp stops the operation at its derivation's probe.
    q.sendSemaphore.version = 1;
    trace(true);
    EXPECT_EQ(zepIPCGetQueResID(&p, &q), ECF_INVALID_VERSION);
    EXPECT_EQ(logShape(ECF_INVALID_VERSION), "log 1112 error 40");
    trace(false);
    refused(zepIPCGetResID(nullptr, nullptr), ECF_INVALID_PARAMETER, ZEPFN_zepIPCGetResID, 1111);
    refused(zepIPCGetResID(&p, &q.sendSemaphore), ECF_INVALID_VERSION, ZEPFN_zepIPCGetResID, 1112);
    trace(true);
    EXPECT_EQ(zepIPCGenerateSeed(), ECF_NOT_SUPPORTED);
    EXPECT_TRUE(calls.empty());
}

TEST_F(IpcRes, SecurityAttributesOpenToEveryoneAndInherited) {
    SECURITY_DESCRIPTOR sd;
    memset(&sd, 0xEE, sizeof sd);
    SECURITY_ATTRIBUTES sa{};
    ASSERT_EQ(zepInitSecurityAttributes(&sd, &sa), 0u);
    EXPECT_EQ(sa.nLength, sizeof(SECURITY_ATTRIBUTES));
    EXPECT_EQ(sa.lpSecurityDescriptor, &sd);
    EXPECT_EQ(sa.bInheritHandle, 1);
    EXPECT_EQ(sd.Revision, 1u);
    EXPECT_EQ(sd.Control, SE_DACL_PRESENT);
    EXPECT_EQ(sd.Mode, 0u);  // a null DACL: everyone
}

TEST_F(IpcRes, CurrentUser) {
    ZEPCurrentUserParam p;
    char name[256];
    p.bufferSize = sizeof name;
    ASSERT_EQ(zepGetCurrentUserName(&p, name), 0u);
    const passwd* pw = getpwuid(geteuid());
    EXPECT_STREQ(name, pw ? pw->pw_name : std::to_string(geteuid()).c_str());
    p.bufferSize = 1;
    EXPECT_EQ(zepGetCurrentUserName(&p, name), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(theLog(ZEPFN_zepGetCurrentUserName, 40, ECF_BUFFER_TOO_SMALL).called,
              SYSFN_GetUserName);

    // The session: the login's audit session, 0 outside any login.
    const std::string session = slurp("/proc/self/sessionid");
    p.bufferSize = sizeof name;
    ASSERT_EQ(zepGetCurrentUserDisplay(&p, name), 0u);
    EXPECT_EQ(name, session.empty() || session == "4294967295" ? "0" : session);
}
