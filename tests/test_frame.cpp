// The frame as a caller and a trace reader see it: which log and trace calls an operation makes,
// with which arguments, in which order (zeptest_capture.h records them as made).
#include <unistd.h>

#include "zepframe.h"
#include "zeptest_capture.h"
#include "zeptest_util.h"

namespace {

using namespace zeptest;

using Frame = CaptureTest;

TEST_F(Frame, RenameWithTraceOn) {
    zepOneTimeOnly();  // a caller may repeat the start-up step: it changes nothing
    std::ofstream(path("a")) << "x";
    trace(true);
    const std::string a = path("a"), b = path("b"), missing = path("missing");
    EXPECT_EQ(zepFileRename(a.c_str(), b.c_str()), 0u);
    EXPECT_TRUE(exists(b));
    EXPECT_EQ(said(), "entry zepFileRename; var zepFileRename p10 t3 n2; exit zepFileRename OK");
    for (const Call& c : calls) EXPECT_EQ(c.thread, static_cast<Uint64>(gettid()));
    EXPECT_EQ(calls[1].items[0].length, a.size());  // without the terminator
    calls.clear();
    EXPECT_EQ(zepFileRename(missing.c_str(), b.c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(said(),
              "entry zepFileRename; var zepFileRename p10 t3 n2; logsys zepFileRename MoveFile 2 "
              "ECF_FILE_DOESNT_EXIST p30 L4 m80000003; error zepFileRename p30 t4 n1; exit "
              "zepFileRename ECF_FILE_DOESNT_EXIST");
    EXPECT_EQ(calls[2].items[0].bytes + "|" + calls[2].items[1].bytes, missing + "|" + b);
    EXPECT_EQ(calls[2].items[0].type, ZEP_LOGDATA_STRING);
    EXPECT_EQ(calls[3].w1 | calls[3].w2 | calls[3].items[0].kind, 0u);
    EXPECT_EQ(valueOf<Uint32>(calls[3].items[0]), ECF_FILE_DOESNT_EXIST);
}

TEST_F(Frame, TraceSwitchedMidCall) {
    // On: no entry; off by its enable word alone: nothing after the switch.
    onLog = [] { trace(true); };
    EXPECT_EQ(zepFileRename(path("missing").c_str(), path("b").c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(kinds(), (std::vector<std::string>{"logsys", "error", "exit"}));
    calls.clear();
    onLog = [] { fakeBlock[1] = 0; };
    trace(true);
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
    trace(true);
    TestParam old, bad, oldest;
    old.version = 20040701;
    oldest.version = 20040702;
    bad.value = 0;
    const std::string head = "entry zepFileCopy; var zepFileCopy p10 t3 n1; ";
    const struct {
        const TestParam* p;
        Uint32 rc;
        std::string said;
    } cases[] = {
        // Refused objects leave no exit record.
        {nullptr, ECF_INVALID_PARAMETER,
         head + "log zepFileCopy ECF_INVALID_PARAMETER p1111 L2 n0"},
        {&old, ECF_INVALID_VERSION, head + "log zepFileCopy ECF_INVALID_VERSION p1112 L2 n1"},
        // A bad argument after the object: logged, then error and exit records.
        {&bad, ECF_INVALID_PARAMETER,
         head + "log zepFileCopy ECF_INVALID_PARAMETER p20 L4 n1; error zepFileCopy p20 t4 n1; "
                "exit zepFileCopy ECF_INVALID_PARAMETER"},
        {&oldest, 0, head + "exit zepFileCopy OK"},
    };
    for (const auto& c : cases) {
        calls.clear();
        EXPECT_EQ(operationWithParam(c.p), c.rc);
        EXPECT_EQ(said(), c.said);
        EXPECT_TRUE(c.p != &old || calls[2].items[0].ptr == &old.version);  // DATA #1: the stamp
    }
}

}  // namespace
