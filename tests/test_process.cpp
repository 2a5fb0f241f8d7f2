// ZEPHProcess with real children (helper_proc): the command line as the child receives it, exit
// codes and signals in the status, the flag rules, the log records of a program that can't be
// started, the environment block, descriptors, and no zombie or descriptor left behind by any
// way through create().
#include <fcntl.h>
#include <signal.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

const char* const kHelper = ZEP_TEST_BIN_DIR "/helper_proc";

std::string block(const Strings& words) {
    std::string b;
    for (const std::string& w : words) b += w + '\0';
    return b + '\0';
}

Strings readWords(const std::string& path) {
    Strings words;
    std::string w;
    for (char c : exists(path) ? slurp(path) : "")
        c ? void(w += c) : (words.push_back(w), w.clear());
    return words;
}

// This process's descriptors and children (zombies included) across all its threads.
std::string leftovers() {
    std::string out = std::to_string(entries("/proc/self/fd").size()) + " fds, children";
    for (const std::string& task : entries("/proc/self/task"))
        out += " " + slurp("/proc/self/task/" + task + "/children");
    return out;
}

class Process : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        out_ = path("out");
        setenv("ZEPPROC_OUT", out_.c_str(), 1);
    }
    // Runs `program` with the arguments, waiting unless the flags say otherwise.
    Uint32 run(const std::string& program, const std::string* args, Uint32 flags = ZEP_PROCESS_WAIT,
               void* env = nullptr) {
        unlink(out_.c_str());
        ZEPProcessParam p;
        p.program = program.c_str();
        p.arguments = args ? args->c_str() : nullptr;
        p.environment = env;
        p.flags = flags;
        pid = 0xFFFFFFFFu;
        status = {7, 7, 7};
        calls.clear();
        return proc.create(&p, &pid, &status);
    }
    Uint32 run(const Strings& words, Uint32 flags = ZEP_PROCESS_WAIT) {
        const std::string args = block(words);
        return run(kHelper, &args, flags);
    }
    Strings output() { return readWords(out_); }

    ZEPHProcess proc;
    Uint32 pid = 0;
    ZEPProcessStatus status = {};
    std::string out_;
};

TEST_F(Process, CommandLineReachesTheChildByTheSplittingRules) {
    // The arguments go into the line as they stand; the child's runtime splits it.
    const struct {
        std::string arg;
        Strings argv;  // from argv[2] on
    } cases[] = {
        {"two words", {"two", "words"}},      {"\"one word\"", {"one word"}},
        {"x\\\\\"y z\"", {"x\\y z"}},          // 2n backslashes: n, and the quote groups
        {"\"a \"\"b\"\" c\"", {"a \"b\" c"}},  // "" inside quotes
        {"ab\"c d\"ef", {"abc def"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arg);
        ASSERT_EQ(run({"args", "b", c.arg}), 0u);
        Strings expected = {kHelper, "args", "b"};
        expected.insert(expected.end(), c.argv.begin(), c.argv.end());
        EXPECT_EQ(output(), expected);
    }

    // A program path with blanks is quoted for the child; one that starts with a quote is taken
    // as the caller quoted it. No list, and an empty one: no arguments.
    const std::string dir = path("with blank"), copy = dir + "/helper proc";
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(system(("cp " + std::string(kHelper) + " '" + copy + "'").c_str()), 0);
    const std::string args = block({"args", "x"}), empty(1, '\0');
    for (const std::string& program : {copy, "\"" + copy + "\""}) {
        ASSERT_EQ(run(program, &args), 0u);
        EXPECT_EQ(output(), (Strings{copy, "args", "x"}));
    }
    for (const std::string* a : {static_cast<const std::string*>(nullptr), &empty})
        EXPECT_EQ(run(copy, a) | status.exitCode, 0u);
}

TEST_F(Process, ExitCodesSignalsAndFlags) {
    // A failing child is the child's business: create succeeds and hands out its code.
    // clang-format off
    const struct { Strings args; Uint32 code; } cases[] = {{{"exit", "255"}, 255},
        {{"zepexit", "42"}, 42}, {{"signal", "9"}, 128 + 9}, {{"exit", "5"}, 5}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        // The last with flags of 10 (wait, inherit handles).
        EXPECT_EQ(run(c.args, c.code == 5 ? 10 : ZEP_PROCESS_WAIT), 0u);
        EXPECT_EQ(std::vector<Uint32>({status.reserved1, status.exitCode, status.reserved2}),
                  std::vector<Uint32>({0, c.code, 0}));
        EXPECT_NE(pid, 0xFFFFFFFFu);
        EXPECT_TRUE(calls.empty());
        // The object holds no handle afterwards, and no wait.
        EXPECT_TRUE(proc.isCreated() && !proc.isWaiting() &&
                    proc.handle() == zepos::INVALID_HANDLE_VALUE);
    }
    EXPECT_EQ(proc.flags(), 10u);
    EXPECT_EQ(zepProcessParentID(), -1);

    // Above 10, or no program: refused at level 2 before anything starts.
    ZEPHProcess fresh;
    ZEPProcessParam p;
    for (Uint32 flags : {11u, Uint32{ZEP_PROCESS_WAIT}}) {
        calls.clear();
        p.flags = flags;
        p.program = flags == 11 ? kHelper : nullptr;
        EXPECT_EQ(fresh.create(&p, &pid, &status), ECF_INVALID_PARAMETER);
        theLog(ZEPFN_ZEPHProcess_create, 30, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
        EXPECT_FALSE(fresh.isCreated());
    }
    // 4 and 8 mean nothing alone and become 0, in the caller's parameter too: not waited for.
    const std::string args = block({"exit", "5"});
    for (Uint32 flags : {4u, 8u}) {
        p.program = kHelper, p.arguments = args.c_str(), p.flags = flags;
        status = {7, 7, 7};
        ASSERT_EQ(proc.create(&p, &pid, &status), 0u);
        EXPECT_EQ(p.flags | proc.flags(), 0u);
        EXPECT_EQ(status.exitCode, 7u);
    }
}

TEST_F(Process, ProgramsThatCannotStartFailInsideTheCall) {
    const std::string text = path("script"), plain = path("plain");
    put(text, "echo hello\n");
    put(plain, "#!/bin/sh\nexit 0\n");
    chmod(text.c_str(), 0755);
    const Uint32 W = ZEP_PROCESS_WAIT, D = ZEP_PROCESS_DETACHED;
    const struct {
        std::string program;
        Uint32 flags, osError, rc, level;
    } cases[] = {
        {path("missing"), W, 2, ECF_FILE_DOESNT_EXIST, ZEP_LOG_INFO},
        {path("nodir/prog"), W, 3, ECF_FILE_PATH_DOESNT_EXIST, ZEP_LOG_INFO},
        {plain, D, 5, ECF_ACCESS_DENIED, ZEP_LOG_INFO},
        {text, D, 193, ECF_UNKNOWN, ZEP_LOG_ERROR},  // no "#!": not run by a shell
    };
    const std::string args = block({"exit", "0"});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program);
        trace(true);
        EXPECT_EQ(run(c.program, &args, c.flags), c.rc);
        trace(false);
        EXPECT_EQ(pid, 0xFFFFFFFFu);
        // The platform's failure in createProcess, then create's own record, both at 40.
        EXPECT_EQ(logs(), (Strings{rec("logsys", ZEPFN_ZEPHProcess_createProcess, 40, c.rc, c.level,
                                       SYSFN_CreateProcess, c.osError),
                                   rec("log", ZEPFN_ZEPHProcess_create, 40, c.rc)}));
        EXPECT_EQ(errorRecords(), (Strings{at(ZEPFN_ZEPHProcess_createProcess, 40),
                                           at(ZEPFN_ZEPHProcess_create, 40)}));
        // The inherit value and the creation flags, with the mask of arguments 5 and 6.
        const Call& sys = aLog(false);
        EXPECT_EQ(static_cast<Uint32>(sys.count), 0x80000030u);
        EXPECT_EQ(sys.items.at(0).bytes + std::to_string(sys.items[0].type),
                  std::string(1, 0) + "-6");  // a Bool
        EXPECT_EQ(valueOf<Uint32>(sys.items.at(1)), c.flags == W ? 0x20u : 0x28u);
    }
}

TEST_F(Process, EnvironmentBlockAndDescriptors) {
    // A block is the whole environment (null inherits the caller's: every other child here
    // finds its output file by the caller's environment).
    const std::string env = block({"ZEPPROC_OUT=" + out_, "ONLY=this"}), args = block({"env"});
    ASSERT_EQ(run(kHelper, &args, ZEP_PROCESS_WAIT, const_cast<char*>(env.data())), 0u);
    EXPECT_EQ(output(), (Strings{"ZEPPROC_OUT=" + out_, "ONLY=this"}));

    // Without "inherit handles" only 0, 1 and 2; with it, what isn't closed on exec.
    const int open = ::open(path("held").c_str(), O_CREAT | O_RDWR, 0600);
    const int closing = ::open(path("held").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(run({"fds"}), 0u);
    EXPECT_EQ(output(), (Strings{"0", "1", "2"}));
    ASSERT_EQ(run({"fds"}, ZEP_PROCESS_WAIT | ZEP_PROCESS_INHERIT_HANDLES), 0u);
    const Strings got = output();
    EXPECT_NE(std::find(got.begin(), got.end(), std::to_string(open)), got.end());
    EXPECT_EQ(std::find(got.begin(), got.end(), std::to_string(closing)), got.end());
    close(open), close(closing);
}

TEST_F(Process, NoWayThroughCreateLeavesAnythingBehind) {
    const std::string before = leftovers();
    const std::string ok = block({"exit", "1"}), missing = path("missing");
    // Waited for; not waited for, handed to the system's reaper (detached or not); not started.
    for (int i = 0; i < 200; ++i) {
        const bool waited = i % 4 < 2, missed = i % 4 == 3;
        const Uint32 flags = waited ? ZEP_PROCESS_WAIT : i % 8 == 2 ? ZEP_PROCESS_DETACHED : 0;
        ASSERT_EQ(run(missed ? missing : kHelper, &ok, flags), missed ? ECF_FILE_DOESNT_EXIST : 0u);
        EXPECT_EQ(status.exitCode, waited ? 1u : 7u);
    }
    EXPECT_EQ(leftovers(), before);

    // With SIGCHLD ignored the kernel reaps the child itself: the wait sees it end, but its exit
    // code is gone. create fails at the exit code, hands out no identifier, and nothing stays.
    struct sigaction ignore = {}, old;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ignore, &old);
    const Uint32 rc = run({"exit", "4"});
    sigaction(SIGCHLD, &old, nullptr);
    EXPECT_EQ(rc, ECF_UNKNOWN);
    EXPECT_EQ(pid, 0xFFFFFFFFu);
    EXPECT_EQ(logs(), (Strings{rec("logsys", ZEPFN_ZEPHProcess_wait, 70, ECF_UNKNOWN, ZEP_LOG_ERROR,
                                   SYSFN_GetExitCodeProcess, 128),
                               rec("log", ZEPFN_ZEPHProcess_create, 40, ECF_UNKNOWN)}));
    EXPECT_EQ(leftovers(), before);
}

}  // namespace
