// Resource identifiers, security attributes and the user queries: the names as two processes
// must derive them, the attributes every creation uses, the records of the failures.
#include <pwd.h>

#include "zeptest_ipc.h"

using namespace zeptest;

using IpcRes = CaptureTest;  // each test runs in a process of its own: the mode flag may stay set

namespace {

// The name of `path` and `seed`, in remote-administration mode if `mode` has 1 and with local
// scope asked if it has 2, derived into an identifier stamped `stamp`.
std::string derive(const char* path, Sint32 seed, int mode = 0, Uint32 stamp = ZEP_VERSION_WORD) {
    g_bRunningTerminalServiceRemoteAdminMode = mode & 1;
    ZEPIPCResIDParam p;
    p.path = path, p.seed = seed, p.localScope = (mode & 2) != 0;
    ZEPIPCResID id;
    id.version = stamp;
    memset(id.name, 'x', sizeof id.name);
    EXPECT_EQ(zepIPCGetResID(&p, &id), 0u);
    return id.name;
}

}  // namespace

TEST_F(IpcRes, NamesDerived) {
    EXPECT_EQ(derive("C:\\data\\inst1", 5), "ZEPEIPC5Cdatainst1");
    EXPECT_EQ(derive("C:\\data\\inst1", 5, 1), "Global\\ZEPEIPC5Cdatainst1");
    EXPECT_EQ(derive("C:\\data\\inst1", 5, 3), "ZEPEIPC5Cdatainst1");
    EXPECT_EQ(derive("/db/inst1:x", 0), "ZEPEIPC0/db/inst1x");  // '/' stays
    EXPECT_EQ(derive(nullptr, 7, 1), "");
    EXPECT_EQ(derive(":\\::\\", 7), "ZEPEIPC7");
    EXPECT_EQ(derive("Ab", -2147483647 - 1), "ZEPEIPC-2147483648Ab");
    // An output stamped before local scope existed ignores the request.
    EXPECT_EQ(derive("x", 1, 3, 0x09010002), "Global\\ZEPEIPC1x");
    EXPECT_EQ(derive("x", 1, 3, 0x09010003), "ZEPEIPC1x");
    // Cut at 261 characters, the prefix counted.
    const std::string longPath(300, 'p');
    EXPECT_EQ(derive(longPath.c_str(), 12, 1), "Global\\ZEPEIPC12" + std::string(261 - 16, 'p'));
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
    refused(zepIPCGetResID(nullptr, nullptr), ECF_INVALID_PARAMETER, ZEPFN_zepIPCGetResID, 1111);
    refused(zepIPCGetResID(&p, &q.sendSemaphore), ECF_INVALID_VERSION, ZEPFN_zepIPCGetResID, 1112);
    EXPECT_EQ(zepIPCGenerateSeed(), ECF_NOT_SUPPORTED);  // no record, though the trace is on
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
