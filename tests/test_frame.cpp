// The frame as a caller and a trace reader see it: which log and trace calls an operation makes,
// with which arguments, in which order (zeptest_capture.h records them as made).
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "zepframe.h"
#include "zeptest_capture.h"

namespace {

using namespace zeptest;
using Kinds = std::vector<std::string>;

class Frame : public CaptureTest {
protected:
    void touch(const std::string& p, const char* content = "x") {
        FILE* f = fopen(p.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs(content, f);
        fclose(f);
    }
};

TEST_F(Frame, RenameSucceedsWithTraceOn) {
    touch(path("a"));
    trace(true);
    std::string a = path("a"), b = path("b");
    EXPECT_EQ(zepFileRename(a.c_str(), b.c_str()), 0u);
    EXPECT_EQ(access(b.c_str(), F_OK), 0);
    ASSERT_EQ(kinds(), (Kinds{"entry", "var", "exit"}));
    for (const Call& c : calls) {
        EXPECT_EQ(c.fid, 0x081A0016u);
        EXPECT_EQ(c.thread, static_cast<Uint64>(gettid()));
    }
    const Call& v = calls[1];
    EXPECT_EQ(v.probe, 10u);
    EXPECT_EQ(v.type, 3u);
    ASSERT_EQ(v.count, 2);
    EXPECT_EQ(v.items[0].kind, 0u);
    EXPECT_EQ(v.items[0].length, a.size());  // without the terminator
    EXPECT_EQ(v.items[0].ptr, a.c_str());
    EXPECT_EQ(v.items[1].bytes, b);
    EXPECT_EQ(calls[2].rc, 0u);
}

TEST_F(Frame, RenameFailureLogsAndTraces) {
    trace(true);
    std::string a = path("missing"), b = path("b");
    EXPECT_EQ(zepFileRename(a.c_str(), b.c_str()), ECF_FILE_DOESNT_EXIST);
    ASSERT_EQ(kinds(), (Kinds{"entry", "var", "logsys", "error", "exit"}));
    const Call& log = theLog(0x081A0016u, 30, ECF_FILE_DOESNT_EXIST, 4);
    EXPECT_EQ(log.called, 0x08140089u);
    EXPECT_EQ(log.err, 2u);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000003u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(log.items[0].bytes, a);
    EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_STRING);
    EXPECT_EQ(log.items[1].bytes, b);
    const Call& err = calls[3];
    EXPECT_EQ(err.probe, 30u);
    EXPECT_EQ(err.type, 4u);
    EXPECT_EQ(err.w1 | err.w2, 0u);
    ASSERT_EQ(err.count, 1);
    EXPECT_EQ(err.items[0].kind, 0u);
    EXPECT_EQ(valueOf<Uint32>(err.items[0]), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(calls[4].rc, ECF_FILE_DOESNT_EXIST);
}

TEST_F(Frame, RenameFailsTheSameWayForEveryReason) {
    touch(path("src"), "source");
    touch(path("dst"), "target");
    ASSERT_EQ(mkdir(path("d").c_str(), 0700), 0);
    struct Case {
        std::string from, to;
        Uint32 osError;
    } cases[] = {
        {path("missing"), path("x"), 2},    // no source
        {path("src"), path("dst"), 183},    // the target exists
        {path("src"), path("nodir/x"), 3},  // the target's directory doesn't
        {path("d"), path("d/inner"), 87},   // a directory into itself: refused
        {path("src"), path("src") + std::string(300, 'n'), 206},
    };
    for (const Case& c : cases) {
        calls.clear();
        EXPECT_EQ(zepFileRename(c.from.c_str(), c.to.c_str()), ECF_FILE_DOESNT_EXIST) << c.to;
        ASSERT_EQ(kinds(), Kinds{"logsys"}) << c.to;  // trace off: log only
        EXPECT_EQ(calls[0].err, c.osError) << c.to;
        EXPECT_EQ(calls[0].level, 4u);
    }
    // Nothing was replaced or moved.
    char buf[16] = {};
    FILE* f = fopen(path("dst").c_str(), "r");
    ASSERT_NE(f, nullptr);
    ASSERT_NE(fgets(buf, sizeof buf, f), nullptr);
    fclose(f);
    EXPECT_STREQ(buf, "target");
    EXPECT_EQ(access(path("src").c_str(), F_OK) | access(path("d").c_str(), F_OK), 0);
    // The platform error stays readable after the operation.
    EXPECT_EQ(zepos::GetLastError(), 206u);
}

TEST_F(Frame, RenameRefusedByPermissions) {
    touch(path("src"));
    ASSERT_EQ(mkdir(path("ro").c_str(), 0500), 0);
    // The superuser passes every permission test, so the refusal is met by a child that gives
    // its privileges up; the directory it works in is the superuser's and closed to others.
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(90);
        calls.clear();
        if (zepFileRename(path("src").c_str(), path("ro/x").c_str()) != ECF_FILE_DOESNT_EXIST)
            _exit(91);
        _exit(calls.size() == 1 ? static_cast<int>(calls[0].err) : 92);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_EQ(access(path("src").c_str(), F_OK), 0);
    chmod(path("ro").c_str(), 0700);
}

TEST_F(Frame, TraceSwitchedOnMidCallShowsNoEntry) {
    onLog = [] { trace(true); };
    EXPECT_EQ(zepFileRename(path("missing").c_str(), path("b").c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(kinds(), (Kinds{"logsys", "error", "exit"}));

    // And switched off by its enable word alone: nothing after the switch.
    calls.clear();
    onLog = [] { fakeBlock[1] = 0; };
    trace(true);
    EXPECT_EQ(zepFileRename(path("missing").c_str(), path("b").c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(kinds(), (Kinds{"entry", "var", "logsys"}));
}

// A parameter object as every operation that takes one has it.
struct TestParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 value = 7;
};

Uint32 operationWithParam(const TestParam* p) {
    ZepFrame f(ZEPFN_zepFileCopy);
    f.traceData(10, ZepTrcBlock{p, sizeof(TestParam)});
    if (f.refuseParam(p)) return f.rc();
    if (p->value == 0) f.fail(ECF_INVALID_PARAMETER, 20, ZEP_LOG_INFO, ZepLogUint(&p->value));
    return f.exit();
}

TEST_F(Frame, ParameterObjectChecks) {
    trace(true);
    EXPECT_EQ(operationWithParam(nullptr), ECF_INVALID_PARAMETER);
    ASSERT_EQ(kinds(), (Kinds{"entry", "var", "log"}));  // no exit record
    EXPECT_EQ(calls[1].items[0].length, sizeof(TestParam));
    EXPECT_EQ(calls[1].items[0].ptr, nullptr);
    EXPECT_EQ(theLog(ZEPFN_zepFileCopy, 1111, ECF_INVALID_PARAMETER, 2).count, 0);

    calls.clear();
    TestParam old;
    old.version = 20040701;
    EXPECT_EQ(operationWithParam(&old), ECF_INVALID_VERSION);
    ASSERT_EQ(kinds(), (Kinds{"entry", "var", "log"}));
    const Call& log = theLog(ZEPFN_zepFileCopy, 1112, ECF_INVALID_VERSION, 2);
    ASSERT_EQ(log.count, 1);
    EXPECT_EQ(log.items[0].ptr, &old.version);
    EXPECT_EQ(log.items[0].length, 4u);
    EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_UINT);

    for (Uint32 stamp : {20040702u, ZEP_VERSION_WORD, 0xFFFFFFFFu}) {
        calls.clear();
        TestParam ok;
        ok.version = stamp;
        EXPECT_EQ(operationWithParam(&ok), 0u) << stamp;
        EXPECT_EQ(kinds(), (Kinds{"entry", "var", "exit"}));
    }

    // A bad argument after the object: logged, then error and exit records.
    calls.clear();
    TestParam bad;
    bad.value = 0;
    EXPECT_EQ(operationWithParam(&bad), ECF_INVALID_PARAMETER);
    EXPECT_EQ(kinds(), (Kinds{"entry", "var", "log", "error", "exit"}));
    EXPECT_EQ(calls[2].probe, 20u);
    EXPECT_EQ(calls[3].probe, 20u);
    EXPECT_EQ(calls[4].rc, ECF_INVALID_PARAMETER);
}

TEST(Lifecycle, ExportsAndIdentities) {
    EXPECT_EQ(vrnzThisIsAVRNLibrary, 0u);
    for (Bool flag : {g_bIsPlatformID_Win32OnNT, g_bIsPlatformID_Win2k, g_bIsPlatformID_WinXP,
                      g_bIsPlatformID_Win2k3, g_bIsPlatformID_Vista, g_bIsPlatformID_Longhorn,
                      g_bIsPlatformID_Win32On95, g_bIsPlatformID_Win98, g_bIsPlatformID_WinMe,
                      g_bRunningTerminalService, g_bRunningTerminalServiceRemoteAdminMode,
                      g_bIsMemoryFFDCEnabledFlag, g_bDumpMemAllocListFlag})
        EXPECT_EQ(flag, 0);
    EXPECT_EQ(sizeof(g_szMemDebugLogPath), 260u);
    EXPECT_EQ(g_szMemDebugLogPath[0], 0);
    EXPECT_EQ(g_pMemDebugCB, nullptr);
    EXPECT_EQ(g_pGTCB, nullptr);
    EXPECT_EQ(sizeof(Bool), 1u);

    for (int i = 0; i < 3; ++i) zepOneTimeOnly();
    zepTerminate();
    zepTerminate();

    EXPECT_EQ(zepProcessID(), static_cast<Uint32>(getpid()));
    EXPECT_EQ(zepThreadID(), static_cast<Uint32>(gettid()));
    Uint32 other = 0;
    std::thread([&] { other = zepThreadID(); }).join();
    EXPECT_NE(other, zepThreadID());
    EXPECT_NE(other, 0u);

    // A forked child has identities of its own, not its parent's remembered ones.
    pid_t child = fork();
    if (child == 0)
        _exit(zepProcessID() == static_cast<Uint32>(getpid()) &&
                      zepThreadID() == static_cast<Uint32>(gettid())
                  ? 0
                  : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
