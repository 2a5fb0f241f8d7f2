// ZEPHProcess with real children (helper_proc): the command line as the child receives it, exit
// codes and signals in the status, the flag rules, the log records of a program that can't be
// started, the environment block, descriptors, detached children that outlive their parent,
// and no zombie or descriptor left behind by any way through create().
#include <fcntl.h>
#include <signal.h>

#include <set>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

const char* const kHelper = ZEP_TEST_BIN_DIR "/helper_proc";

std::string block(const std::vector<std::string>& words) {
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

// Descriptors of this process, and its children (zombies included) across all its threads.
int openDescriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n - 1;  // the listing's own
}
std::set<int> children() {
    std::set<int> out;
    DIR* d = opendir("/proc/self/task");
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream in(std::string("/proc/self/task/") + e->d_name + "/children");
        int pid;
        while (in >> pid) out.insert(pid);
    }
    closedir(d);
    return out;
}

class Process : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        out_ = path("out");
        setenv("ZEPPROC_OUT", out_.c_str(), 1);
    }
    // Runs the helper (or `program`) with the arguments, waiting unless the flags say otherwise.
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
    Uint32 run(const std::vector<std::string>& words, Uint32 flags = ZEP_PROCESS_WAIT) {
        const std::string args = block(words);
        return run(kHelper, &args, flags);
    }
    std::vector<std::string> output() { return readWords(out_); }

    ZEPHProcess proc;
    Uint32 pid = 0;
    ZEPProcessStatus status = {};
    std::string out_;
};

TEST_F(Process, CommandLineReachesTheChildByTheSplittingRules) {
    // The arguments go into the line as they stand; the child's runtime splits it.
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> argv;  // from argv[1] on
    } cases[] = {
        {{"args", "a", "b"}, {"args", "a", "b"}},
        {{"args", "two words"}, {"args", "two", "words"}},
        {{"args", "\"one word\""}, {"args", "one word"}},
        {{"args", "tab\there"}, {"args", "tab", "here"}},
        {{"args", "\"\""}, {"args", ""}},
        {{"args", "a\\b\\\\c"}, {"args", "a\\b\\\\c"}},  // backslashes alone are literal
        {{"args", "\\\"q\\\""}, {"args", "\"q\""}},      // an escaped quote
        {{"args", "x\\\\\"y z\""}, {"args", "x\\y z"}},  // 2n backslashes: n, and the quote groups
        {{"args", "\"a \"\"b\"\" c\""}, {"args", "a \"b\" c"}},  // "" inside quotes
        {{"args", "\"open to the end"}, {"args", "open to the end"}},
        {{"args", "ab\"c d\"ef"}, {"args", "abc def"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[1]);
        ASSERT_EQ(run(c.args), 0u);
        std::vector<std::string> expected = {kHelper};
        expected.insert(expected.end(), c.argv.begin(), c.argv.end());
        EXPECT_EQ(output(), expected);
        EXPECT_TRUE(calls.empty());
    }

    // A program path with blanks is quoted for the child; one that starts with a quote is taken
    // as the caller quoted it.
    const std::string dir = path("with blank"), copy = dir + "/helper proc";
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(system(("cp " + std::string(kHelper) + " '" + copy + "'").c_str()), 0);
    const std::string args = block({"args", "x"});
    for (const std::string& program : {copy, "\"" + copy + "\""}) {
        SCOPED_TRACE(program);
        ASSERT_EQ(run(program, &args), 0u);
        EXPECT_EQ(output(), (std::vector<std::string>{copy, "args", "x"}));
    }

    // No list, and an empty one (which leaves a blank behind the program): no arguments.
    const std::string empty(1, '\0');
    for (const std::string* a : {static_cast<const std::string*>(nullptr), &empty}) {
        ASSERT_EQ(run(copy, a), 0u);
        EXPECT_EQ(status.exitCode, 0u);
    }
}

TEST_F(Process, ExitCodesAndSignalsInTheStatus) {
    struct Case {
        std::vector<std::string> args;
        Uint32 code;
    } cases[] = {
        {{"exit", "0"}, 0},         {{"exit", "3"}, 3},         {{"exit", "255"}, 255},
        {{"zepexit", "42"}, 42},    {{"signal", "9"}, 128 + 9}, {{"signal", "15"}, 128 + 15},
        {{"signal", "6"}, 128 + 6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        // A failing child is the child's business: create succeeds and hands out its code.
        EXPECT_EQ(run(c.args), 0u);
        EXPECT_EQ(status.exitCode, c.code);
        EXPECT_EQ(status.reserved1, 0u);
        EXPECT_EQ(status.reserved2, 0u);
        EXPECT_NE(pid, 0xFFFFFFFFu);
        EXPECT_TRUE(calls.empty());
        EXPECT_TRUE(proc.isCreated());
        EXPECT_FALSE(proc.isWaiting());
        EXPECT_EQ(proc.handle(), zepos::INVALID_HANDLE_VALUE);
    }
    EXPECT_EQ(zepProcessParentID(), -1);
}

TEST_F(Process, FlagRules) {
    const std::string args = block({"exit", "5"});
    // Above 10, or no program: refused at level 2 before anything starts.
    ZEPProcessParam p;
    p.program = kHelper;
    p.arguments = args.c_str();
    p.flags = 11;
    EXPECT_EQ(proc.create(&p, &pid, &status), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_ZEPHProcess_create, 30, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
    calls.clear();
    p.flags = ZEP_PROCESS_WAIT;
    p.program = nullptr;
    EXPECT_EQ(proc.create(&p, &pid, &status), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_ZEPHProcess_create, 30, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
    EXPECT_FALSE(proc.isCreated());
    calls.clear();
    EXPECT_EQ(proc.create(nullptr, &pid, &status), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_ZEPHProcess_create, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);

    // 10 (wait, inherit) waits; 4 and 8 mean nothing alone and become 0, in the caller's
    // parameter too: the child is started and not waited for.
    EXPECT_EQ(run(kHelper, &args, 10), 0u);
    EXPECT_EQ(status.exitCode, 5u);
    EXPECT_EQ(proc.flags(), 10u);
    for (Uint32 flags : {4u, 8u}) {
        ZEPProcessParam q;
        q.program = kHelper;
        const std::string gate = path("gate"), done = path("done");
        const std::string a = block({"gate", gate, done});
        q.arguments = a.c_str();
        q.flags = flags;
        status = {7, 7, 7};
        ASSERT_EQ(proc.create(&q, &pid, &status), 0u);
        EXPECT_EQ(q.flags, 0u);
        EXPECT_EQ(proc.flags(), 0u);
        EXPECT_EQ(status.exitCode, 7u);                  // untouched: nothing waited
        EXPECT_EQ(kill(static_cast<pid_t>(pid), 0), 0);  // held at its gate
        std::ofstream(gate).put('x');
        while (readWords(done).empty()) usleep(2000);
        unlink(gate.c_str()), unlink(done.c_str());
    }
}

TEST_F(Process, ProgramsThatCannotStartFailInsideTheCall) {
    const std::string text = path("script"), plain = path("plain"), dir = path("d");
    std::ofstream(text) << "echo hello\n";
    chmod(text.c_str(), 0755);
    std::ofstream(plain) << "#!/bin/sh\nexit 0\n";
    chmod(plain.c_str(), 0644);
    mkdir(dir.c_str(), 0755);
    struct Case {
        std::string program;
        Uint32 osError, rc, level;
    } cases[] = {
        {path("missing"), 2, ECF_FILE_DOESNT_EXIST, ZEP_LOG_INFO},
        {"zep-no-such-program-on-path", 2, ECF_FILE_DOESNT_EXIST, ZEP_LOG_INFO},
        {path("nodir/prog"), 3, ECF_FILE_PATH_DOESNT_EXIST, ZEP_LOG_INFO},
        {plain, 5, ECF_ACCESS_DENIED, ZEP_LOG_INFO},
        {dir, 5, ECF_ACCESS_DENIED, ZEP_LOG_INFO},
        {text, 193, ECF_UNKNOWN, ZEP_LOG_ERROR},  // no "#!": not run by a shell
    };
    const std::string args = block({"exit", "0"});
    for (Uint32 flags : {Uint32{ZEP_PROCESS_WAIT}, Uint32{ZEP_PROCESS_DETACHED}}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.program + " " + std::to_string(flags));
            trace(true);
            EXPECT_EQ(run(c.program, &args, flags), c.rc);
            trace(false);
            EXPECT_EQ(pid, 0xFFFFFFFFu);
            // The platform's failure in createProcess, then create's own record, both at 40.
            EXPECT_EQ(logs(), (Strings{rec("logsys", ZEPFN_ZEPHProcess_createProcess, 40, c.rc,
                                           c.level, SYSFN_CreateProcess, c.osError),
                                       rec("log", ZEPFN_ZEPHProcess_create, 40, c.rc)}));
            EXPECT_EQ(errorRecords(), (Strings{at(ZEPFN_ZEPHProcess_createProcess, 40),
                                               at(ZEPFN_ZEPHProcess_create, 40)}));
            const Call& sys = aLog(false);
            EXPECT_EQ(static_cast<Uint32>(sys.count), 0x80000030u);
            ASSERT_EQ(sys.items.size(), 2u);
            EXPECT_EQ(sys.items[0].type, ZEP_LOGDATA_BOOL);
            EXPECT_EQ(sys.items[0].bytes, std::string(1, '\0'));
            EXPECT_EQ(valueOf<Uint32>(sys.items[1]), flags == ZEP_PROCESS_WAIT ? 0x20u : 0x28u);
        }
    }
}

TEST_F(Process, EnvironmentBlockAndDescriptors) {
    // A block is the whole environment; null inherits the caller's.
    const std::string env = block({"ZEPPROC_OUT=" + out_, "ONLY=this"});
    const std::string args = block({"env"});
    ASSERT_EQ(run(kHelper, &args, ZEP_PROCESS_WAIT, const_cast<char*>(env.data())), 0u);
    EXPECT_EQ(output(), (std::vector<std::string>{"ZEPPROC_OUT=" + out_, "ONLY=this"}));
    setenv("ZEPPROC_MARK", "inherited", 1);
    ASSERT_EQ(run(kHelper, &args), 0u);
    const std::vector<std::string> inherited = output();
    unsetenv("ZEPPROC_MARK");
    EXPECT_NE(std::find(inherited.begin(), inherited.end(), "ZEPPROC_MARK=inherited"),
              inherited.end());

    // Without "inherit handles" only 0, 1 and 2; with it, what isn't closed on exec.
    const int open = ::open(path("held").c_str(), O_CREAT | O_RDWR, 0600);
    const int closing = ::open(path("held").c_str(), O_RDONLY | O_CLOEXEC);
    const std::string fds = block({"fds"});
    ASSERT_EQ(run(kHelper, &fds), 0u);
    EXPECT_EQ(output(), (std::vector<std::string>{"0", "1", "2"}));
    ASSERT_EQ(run(kHelper, &fds, ZEP_PROCESS_WAIT | ZEP_PROCESS_INHERIT_HANDLES), 0u);
    const std::vector<std::string> got = output();
    EXPECT_NE(std::find(got.begin(), got.end(), std::to_string(open)), got.end());
    EXPECT_EQ(std::find(got.begin(), got.end(), std::to_string(closing)), got.end());
    close(open), close(closing);
}

TEST_F(Process, DetachedChildOutlivesItsParent) {
    // The test waits for a parent that starts a detached child and ends; the child, held at a
    // gate, is still there afterwards, in a session of its own, and nobody's zombie.
    const std::string gate = path("gate"), done = path("done");
    ASSERT_EQ(run({"spawn", gate, done}), 0u);
    EXPECT_EQ(status.exitCode, 0u);
    const std::vector<std::string> said = output();
    ASSERT_EQ(said.size(), 2u);
    EXPECT_EQ(said[1], "0");
    const pid_t child = static_cast<pid_t>(std::stoi(said[0]));
    EXPECT_EQ(kill(child, 0), 0);
    EXPECT_EQ(children().count(child), 0u);
    EXPECT_TRUE(readWords(done).empty());
    std::ofstream(gate).put('x');
    std::vector<std::string> report;
    while ((report = readWords(done)).empty()) usleep(2000);
    std::istringstream in(report[0]);
    int reportedPid, parent, session;
    in >> reportedPid >> parent >> session;
    EXPECT_EQ(reportedPid, child);
    EXPECT_EQ(session, child);  // it leads its own session
    EXPECT_NE(parent, static_cast<int>(getpid()));
}

TEST_F(Process, TwoHundredChildrenLeaveNothingBehind) {
    const int fdsBefore = openDescriptors();
    const std::set<int> before = children();
    const std::string ok = block({"exit", "1"}), missing = path("missing");
    // Waited for; not waited for, handed to the system's reaper (detached or not); not started.
    for (int i = 0; i < 200; ++i) {
        const bool waited = i % 4 < 2, missed = i % 4 == 3;
        const Uint32 flags = waited ? ZEP_PROCESS_WAIT : i % 8 == 2 ? ZEP_PROCESS_DETACHED : 0;
        ASSERT_EQ(run(missed ? missing : kHelper, &ok, flags), missed ? ECF_FILE_DOESNT_EXIST : 0u);
        EXPECT_EQ(status.exitCode, waited ? 1u : 7u);
    }
    EXPECT_EQ(openDescriptors(), fdsBefore);
    EXPECT_EQ(children(), before);
}

TEST_F(Process, AWaitWithoutAnExitCodeLeavesNothingBehind) {
    // With SIGCHLD ignored the kernel reaps the child itself: the wait sees it end, but its exit
    // code is gone. create fails at the exit code, hands out no identifier, and nothing stays.
    const int fdsBefore = openDescriptors();
    struct sigaction ignore = {}, old;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &ignore, &old);
    const std::string args = block({"exit", "4"});
    const Uint32 rc = run(kHelper, &args);
    sigaction(SIGCHLD, &old, nullptr);
    EXPECT_EQ(rc, ECF_UNKNOWN);
    EXPECT_EQ(pid, 0xFFFFFFFFu);
    EXPECT_EQ(logs(), (Strings{rec("logsys", ZEPFN_ZEPHProcess_wait, 70, ECF_UNKNOWN, ZEP_LOG_ERROR,
                                   SYSFN_GetExitCodeProcess, 128),
                               rec("log", ZEPFN_ZEPHProcess_create, 40, ECF_UNKNOWN)}));
    EXPECT_EQ(openDescriptors(), fdsBefore);
    EXPECT_TRUE(children().empty());
}

TEST(ProcessLayer, SplitWaitAndExitCode) {
    struct Case {
        const char* line;
        std::vector<std::string> words;
    } cases[] = {
        {"", {}},
        {"   ", {}},
        {"prog", {"prog"}},
        {"  prog  a  ", {"prog", "a"}},
        {"\"c:\\dir with\\p\" x", {"c:\\dir with\\p", "x"}},  // no escapes in the program
        {"p\"q r\"s t", {"pq rs", "t"}},
        {"p a\\\\\\\"b", {"p", "a\\\"b"}},  // 3 backslashes and a quote: one, and the quote
        {"p \"\"\"\"", {"p", "\""}},
        {"p \"a\"\"\"", {"p", "a\""}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        std::string out(strlen(c.line) + 1, '\x7f');
        const size_t n = zepos::CommandLineSplit(c.line, out.data());
        std::vector<std::string> words;
        const char* w = out.data();
        for (size_t i = 0; i < n; ++i, w += strlen(w) + 1) words.push_back(w);
        EXPECT_EQ(words, c.words);
    }

    // The handle: a time-limited wait, the code while running, the code after; the thread
    // handle is closed at once.
    std::string line = std::string(kHelper) + " exit 9";
    zepos::STARTUPINFOA si = {68, zepos::STARTF_USESHOWWINDOW, zepos::SW_HIDE};
    zepos::PROCESS_INFORMATION pi;
    std::string gate = "/tmp/zepproc-gate-" + std::to_string(getpid());
    std::string gated = std::string(kHelper) + " gate " + gate + " /dev/null";
    ASSERT_TRUE(zepos::CreateProcessA(nullptr, gated.data(), nullptr, nullptr, 0, 0, nullptr,
                                      nullptr, &si, &pi));
    EXPECT_EQ(zepos::CloseHandle(pi.hThread), 1);
    Uint32 code = 0;
    EXPECT_TRUE(zepos::GetExitCodeProcess(pi.hProcess, &code));
    EXPECT_EQ(code, zepos::STILL_ACTIVE);
    EXPECT_EQ(zepos::WaitForSingleObject(pi.hProcess, 0), zepos::WAIT_TIMEOUT);
    EXPECT_EQ(zepos::WaitForSingleObject(pi.hProcess, 30), zepos::WAIT_TIMEOUT);
    std::ofstream(gate).put('x');
    EXPECT_EQ(zepos::WaitForSingleObject(pi.hProcess, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_TRUE(zepos::GetExitCodeProcess(pi.hProcess, &code));
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(zepos::CloseHandle(pi.hProcess), 1);
    unlink(gate.c_str());

    ASSERT_TRUE(zepos::CreateProcessA(nullptr, line.data(), nullptr, nullptr, 0, 0, nullptr,
                                      nullptr, &si, &pi));
    EXPECT_EQ(zepos::WaitForSingleObject(pi.hProcess, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_TRUE(zepos::GetExitCodeProcess(pi.hProcess, &code));
    EXPECT_EQ(code, 9u);
    EXPECT_EQ(zepos::CloseHandle(pi.hProcess), 1);
    EXPECT_FALSE(zepos::CreateProcessA("x", line.data(), nullptr, nullptr, 0, 0, nullptr, nullptr,
                                       &si, &pi));
    EXPECT_EQ(zepos::GetLastError(), 87u);
}

}  // namespace
