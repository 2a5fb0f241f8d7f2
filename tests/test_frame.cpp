// The frame as a caller and a trace reader see it: which log and trace calls an operation makes,
// with which arguments, in which order. The test binary defines the log and trace entry points
// itself; the library's calls to them resolve to these definitions, so every call is captured
// exactly as the frame made it.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zepframe.h"

namespace {

struct Item {
    Uint32 kind = 0;  // trace items
    Uint32 length = 0;
    Sint32 type = 0;  // log items
    const void* ptr = nullptr;
    std::string bytes;
};

struct Call {
    std::string what;
    Uint64 thread = 0;
    Uint32 fid = 0, called = 0, err = 0, code = 0, probe = 0, level = 0, type = 0, w1 = 0, w2 = 0;
    Sint32 count = 0;
    Uint32 rcSeen = 0;
    std::vector<Item> items;
};

std::vector<Call> g_calls;
void (*g_onLog)() = nullptr;

Item logItem(va_list& ap) {
    Item it;
    it.ptr = va_arg(ap, const void*);
    it.length = va_arg(ap, Uint32);
    it.type = va_arg(ap, Sint32);
    if (it.ptr) it.bytes.assign(static_cast<const char*>(it.ptr), it.length);
    return it;
}
Item traceItem(va_list& ap) {
    Item it;
    it.kind = va_arg(ap, Uint32);
    it.length = va_arg(ap, Uint32);
    it.ptr = va_arg(ap, const void*);
    if (it.ptr) it.bytes.assign(static_cast<const char*>(it.ptr), it.length);
    return it;
}
void readMaskItems(Call& c, Sint32 mask, va_list& ap) {
    for (int bit = 0; bit < 31; ++bit)
        if (mask & (1 << bit)) c.items.push_back(logItem(ap));
}

}  // namespace

extern "C" {

Uint32 zepLog(ZEPLogFacility*, Uint32 fid, Uint32 code, Uint32 probe, Uint32 level, Sint32 count,
              ...) {
    Call c;
    c.what = "log";
    c.fid = fid, c.code = code, c.probe = probe, c.level = level, c.count = count;
    va_list ap;
    va_start(ap, count);
    for (Sint32 i = 0; i < count; ++i) c.items.push_back(logItem(ap));
    va_end(ap);
    g_calls.push_back(c);
    if (g_onLog) g_onLog();
    return 0;
}

Uint32 zepLogRC(ZEPLogFacility*, Uint32 fid, Uint32 called, Uint32 calledRc, Uint32 code,
                Uint32 probe, Uint32 level, Sint32 mask, ...) {
    Call c;
    c.what = "logrc";
    c.fid = fid, c.called = called, c.err = calledRc, c.code = code, c.probe = probe,
    c.level = level, c.count = mask;
    va_list ap;
    va_start(ap, mask);
    readMaskItems(c, mask, ap);
    va_end(ap);
    g_calls.push_back(c);
    if (g_onLog) g_onLog();
    return 0;
}

Uint32 zepLogSysRC(ZEPLogFacility*, Uint32 fid, Uint32 called, Uint32 osError, Uint32 code,
                   Uint32 probe, Uint32 level, Sint32 mask, ...) {
    Call c;
    c.what = "logsys";
    c.fid = fid, c.called = called, c.err = osError, c.code = code, c.probe = probe,
    c.level = level, c.count = mask;
    va_list ap;
    va_start(ap, mask);
    readMaskItems(c, mask, ap);
    va_end(ap);
    g_calls.push_back(c);
    if (g_onLog) g_onLog();
    return 0;
}

void _gtraceEntry(Uint64 t, Uint32 fid) {
    Call c;
    c.what = "entry";
    c.thread = t, c.fid = fid;
    g_calls.push_back(c);
}

void _gtraceExit(Uint64 t, Uint32 fid, const Uint32* rc, Uint32 w1, Uint32 w2) {
    Call c;
    c.what = "exit";
    c.thread = t, c.fid = fid, c.rcSeen = *rc, c.w1 = w1, c.w2 = w2;
    g_calls.push_back(c);
}

void _gtraceVar(Uint64 t, Uint32 fid, Uint16 probe, Uint16 type, Uint32 n, ...) {
    Call c;
    c.what = "var";
    c.thread = t, c.fid = fid, c.probe = probe, c.type = type, c.count = static_cast<Sint32>(n);
    va_list ap;
    va_start(ap, n);
    for (Uint32 i = 0; i < n; ++i) c.items.push_back(traceItem(ap));
    va_end(ap);
    g_calls.push_back(c);
}

void _gtraceErrorVar(Uint64 t, Uint32 fid, Uint16 probe, Uint16 type, Uint32 w1, Uint32 w2,
                     Uint32 n, ...) {
    Call c;
    c.what = "error";
    c.thread = t, c.fid = fid, c.probe = probe, c.type = type, c.w1 = w1, c.w2 = w2;
    c.count = static_cast<Sint32>(n);
    va_list ap;
    va_start(ap, n);
    for (Uint32 i = 0; i < n; ++i) c.items.push_back(traceItem(ap));
    va_end(ap);
    g_calls.push_back(c);
}

}  // extern "C"

namespace {

// A control block head as the trace-on test reads it: the enable word is the second word.
Uint32 g_fakeBlock[4];

class Frame : public ::testing::Test {
protected:
    void SetUp() override {
        g_calls.clear();
        g_onLog = nullptr;
        g_pGTCB = nullptr;
        g_fakeBlock[1] = 0;
        char tmpl[] = "/tmp/zepframeXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        g_pGTCB = nullptr;
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    void traceOn() {
        g_fakeBlock[1] = 1;
        g_pGTCB = reinterpret_cast<GTCB*>(g_fakeBlock);
    }
    std::string path(const char* name) { return dir_ + "/" + name; }
    void touch(const std::string& p, const char* content = "x") {
        FILE* f = fopen(p.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs(content, f);
        fclose(f);
    }
    std::string dir_;
};

std::vector<std::string> kinds() {
    std::vector<std::string> k;
    for (const Call& c : g_calls) k.push_back(c.what);
    return k;
}

TEST_F(Frame, RenameSucceedsWithTraceOn) {
    touch(path("a"));
    traceOn();
    std::string a = path("a"), b = path("b");
    EXPECT_EQ(zepFileRename(a.c_str(), b.c_str()), 0u);
    EXPECT_EQ(access(b.c_str(), F_OK), 0);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "exit"}));
    const Uint64 tid = static_cast<Uint64>(gettid());
    for (const Call& c : g_calls) {
        EXPECT_EQ(c.fid, 0x081A0016u);
        EXPECT_EQ(c.thread, tid);
    }
    const Call& v = g_calls[1];
    EXPECT_EQ(v.probe, 10u);
    EXPECT_EQ(v.type, 3u);
    ASSERT_EQ(v.count, 2);
    EXPECT_EQ(v.items[0].kind, 0u);
    EXPECT_EQ(v.items[0].length, a.size());  // without the terminator
    EXPECT_EQ(v.items[0].ptr, a.c_str());
    EXPECT_EQ(v.items[1].bytes, b);
    EXPECT_EQ(g_calls[2].rcSeen, 0u);
}

TEST_F(Frame, RenameFailureLogsAndTraces) {
    traceOn();
    std::string a = path("missing"), b = path("b");
    EXPECT_EQ(zepFileRename(a.c_str(), b.c_str()), ECF_FILE_DOESNT_EXIST);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "logsys", "error", "exit"}));
    const Call& log = g_calls[2];
    EXPECT_EQ(log.fid, 0x081A0016u);
    EXPECT_EQ(log.called, 0x08140089u);
    EXPECT_EQ(log.err, 2u);
    EXPECT_EQ(log.code, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(log.probe, 30u);
    EXPECT_EQ(log.level, 4u);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000003u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(log.items[0].bytes, a);
    EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_STRING);
    EXPECT_EQ(log.items[1].bytes, b);
    const Call& err = g_calls[3];
    EXPECT_EQ(err.probe, 30u);
    EXPECT_EQ(err.type, 4u);
    EXPECT_EQ(err.w1, 0u);
    EXPECT_EQ(err.w2, 0u);
    ASSERT_EQ(err.count, 1);
    EXPECT_EQ(err.items[0].kind, 0u);
    EXPECT_EQ(err.items[0].length, 4u);
    Uint32 rc;
    memcpy(&rc, err.items[0].bytes.data(), 4);
    EXPECT_EQ(rc, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(g_calls[4].rcSeen, ECF_FILE_DOESNT_EXIST);
}

TEST_F(Frame, RenameFailsTheSameWayForEveryReason) {
    touch(path("src"), "source");
    touch(path("dst"), "target");
    ASSERT_EQ(mkdir(path("d").c_str(), 0700), 0);
    struct Case {
        std::string from, to;
        Uint32 osError;
    } cases[] = {
        {path("missing"), path("x"), 2},                  // no source
        {path("src"), path("dst"), 183},                  // the target exists
        {path("src"), path("nodir/x"), 3},                // the target's directory doesn't
        {path("d"), path("d/inner"), 87},                 // a directory into itself: refused
        {path("src"), path("src") + std::string(300, 'n'), 206},
    };
    for (const Case& c : cases) {
        g_calls.clear();
        EXPECT_EQ(zepFileRename(c.from.c_str(), c.to.c_str()), ECF_FILE_DOESNT_EXIST) << c.to;
        ASSERT_EQ(kinds(), std::vector<std::string>{"logsys"}) << c.to;  // trace off: log only
        EXPECT_EQ(g_calls[0].err, c.osError) << c.to;
        EXPECT_EQ(g_calls[0].level, 4u);
    }
    // Nothing was replaced or moved.
    char buf[16] = {};
    FILE* f = fopen(path("dst").c_str(), "r");
    ASSERT_NE(f, nullptr);
    ASSERT_NE(fgets(buf, sizeof buf, f), nullptr);
    fclose(f);
    EXPECT_STREQ(buf, "target");
    EXPECT_EQ(access(path("src").c_str(), F_OK), 0);
    EXPECT_EQ(access(path("d").c_str(), F_OK), 0);
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
        g_calls.clear();
        Uint32 rc = zepFileRename(path("src").c_str(), path("ro/x").c_str());
        if (rc != ECF_FILE_DOESNT_EXIST) _exit(91);
        if (g_calls.size() != 1) _exit(92);
        _exit(static_cast<int>(g_calls[0].err));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_EQ(access(path("src").c_str(), F_OK), 0);
    chmod(path("ro").c_str(), 0700);
}

TEST_F(Frame, TraceSwitchedOnMidCallShowsNoEntry) {
    g_onLog = [] { g_fakeBlock[1] = 1, g_pGTCB = reinterpret_cast<GTCB*>(g_fakeBlock); };
    EXPECT_EQ(zepFileRename(path("missing").c_str(), path("b").c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(kinds(), (std::vector<std::string>{"logsys", "error", "exit"}));

    // And switched off by its enable word alone: nothing after the switch.
    g_calls.clear();
    g_onLog = [] { g_fakeBlock[1] = 0; };
    traceOn();
    EXPECT_EQ(zepFileRename(path("missing").c_str(), path("b").c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "logsys"}));
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
    traceOn();
    EXPECT_EQ(operationWithParam(nullptr), ECF_INVALID_PARAMETER);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "log"}));  // no exit record
    EXPECT_EQ(g_calls[1].items[0].length, sizeof(TestParam));
    EXPECT_EQ(g_calls[1].items[0].ptr, nullptr);
    EXPECT_EQ(g_calls[2].code, ECF_INVALID_PARAMETER);
    EXPECT_EQ(g_calls[2].probe, 1111u);
    EXPECT_EQ(g_calls[2].level, 2u);
    EXPECT_EQ(g_calls[2].count, 0);

    g_calls.clear();
    TestParam old;
    old.version = 20040701;
    EXPECT_EQ(operationWithParam(&old), ECF_INVALID_VERSION);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "log"}));
    const Call& log = g_calls[2];
    EXPECT_EQ(log.probe, 1112u);
    EXPECT_EQ(log.level, 2u);
    ASSERT_EQ(log.count, 1);
    EXPECT_EQ(log.items[0].ptr, &old.version);
    EXPECT_EQ(log.items[0].length, 4u);
    EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_UINT);

    for (Uint32 stamp : {20040702u, ZEP_VERSION_WORD, 0xFFFFFFFFu}) {
        g_calls.clear();
        TestParam ok;
        ok.version = stamp;
        EXPECT_EQ(operationWithParam(&ok), 0u) << stamp;
        EXPECT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "exit"}));
    }

    // A bad argument after the object: logged, then error and exit records.
    g_calls.clear();
    TestParam bad;
    bad.value = 0;
    EXPECT_EQ(operationWithParam(&bad), ECF_INVALID_PARAMETER);
    EXPECT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "log", "error", "exit"}));
    EXPECT_EQ(g_calls[2].probe, 20u);
    EXPECT_EQ(g_calls[3].probe, 20u);
    EXPECT_EQ(g_calls[4].rcSeen, ECF_INVALID_PARAMETER);
}

TEST(Lifecycle, ExportsAndIdentities) {
    EXPECT_EQ(vrnzThisIsAVRNLibrary, 0u);
    for (Bool flag : {g_bIsPlatformID_Win32OnNT, g_bIsPlatformID_Win2k, g_bIsPlatformID_WinXP,
                      g_bIsPlatformID_Win2k3, g_bIsPlatformID_Vista, g_bIsPlatformID_Longhorn,
                      g_bIsPlatformID_Win32On95, g_bIsPlatformID_Win98, g_bIsPlatformID_WinMe,
                      g_bRunningTerminalService, g_bRunningTerminalServiceRemoteAdminMode})
        EXPECT_EQ(flag, 0);
    EXPECT_EQ(sizeof(g_szMemDebugLogPath), 260u);
    EXPECT_EQ(g_szMemDebugLogPath[0], 0);
    EXPECT_EQ(g_bIsMemoryFFDCEnabledFlag, 0);
    EXPECT_EQ(g_bDumpMemAllocListFlag, 0);
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
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    if (child == 0) {
        Uint32 ids[2] = {zepProcessID(), zepThreadID()};
        bool ok = ids[0] == static_cast<Uint32>(getpid()) && ids[1] == static_cast<Uint32>(gettid());
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
