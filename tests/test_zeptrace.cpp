// End-to-end tests of zeptrace, the trace's control program: trace areas in every mode, the mask in
// words, dumps of a live trace that other processes write, the drain of a chunked trace that laps
// many times, the export of their dumps, and bad input.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "trace_format.h"
#include "zep.h"

namespace {

const std::string kTool = ZEP_TOOL_BIN_DIR "/zeptrace";
const std::string kHelper = ZEP_TEST_BIN_DIR "/helper_zeptrace";

struct Result {
    int status;
    std::string out;
};

Result run(const std::string& args) {
    Result r{-1, ""};
    FILE* p = popen((args + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int s = pclose(p);
    r.status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
    return r;
}

Result tool(const std::string& args) {
    return run(kTool + " " + args);
}

pid_t spawn(const std::vector<std::string>& args) {
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        if (FILE* f = freopen("/dev/null", "w", stdout)) (void)f;
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

int waitFor(pid_t pid) {
    int s = 0;
    waitpid(pid, &s, 0);
    return WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
}

class Zeptrace : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zeptraceXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        name_ = "zt" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override {
        for (const std::string& n : created_) tool("destroy " + n);
        run("rm -rf " + dir_);
    }
    void create(const std::string& name, const std::string& options) {
        const Result r = tool("create " + name + " " + options);
        ASSERT_EQ(r.status, 0) << r.out;
        created_.push_back(name);
    }
    void destroyed(const std::string& name) {
        ASSERT_EQ(tool("destroy " + name).status, 0);
        created_.erase(std::find(created_.begin(), created_.end(), name));
    }
    // Every record of a dump: (process, type, function) in walk order, with the data records'
    // first item word for the ones that carry one.
    struct Rec {
        Uint32 pid, type, function, value;
    };
    std::vector<Rec> records(const std::string& path) {
        std::vector<Rec> out;
        zeptrace::DumpInfo info;
        EXPECT_EQ(
            zeptrace::walkDumpFile(path.c_str(), true, &info,
                                   [&](const void* p, Uint32 size) {
                                       GTRecord r;
                                       memset(&r, 0, sizeof r);
                                       memcpy(&r, p, size < sizeof r ? size : sizeof r);
                                       Uint32 v = ~0u;
                                       auto items = zeptrace::recordItems(p, size);
                                       if (!items.empty() && items[0].length == 4)
                                           memcpy(&v, items[0].data, 4);
                                       out.push_back({r.processID, r.recordType, r.functionID, v});
                                       return true;
                                   }),
            0u);
        return out;
    }
    std::string dir_, name_;
    std::vector<std::string> created_;
};

TEST_F(Zeptrace, EveryModeCreatesSwitchesAndGoes) {
    const struct {
        const char* mode;
        const char* size;
        const char* shown;
    } modes[] = {{"wrap", "512k", "wrapping"},
                 {"stop", "1M", "stopping"},
                 {"chunked", "512k", "chunked"},
                 {"counting", "512k", "counting"},
                 {"delaying", "512k", "delaying"}};
    for (const auto& m : modes) {
        SCOPED_TRACE(m.mode);
        const std::string name = name_ + m.mode;
        create(name, std::string("--mode ") + m.mode + " --size " + m.size);
        Result r = tool("status " + name);
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_NE(r.out.find(std::string("mode         ") + m.shown + "\n"), std::string::npos)
            << r.out;
        EXPECT_NE(r.out.find("switch       off\n"), std::string::npos) << r.out;
        EXPECT_EQ(tool("on " + name).status, 0);
        EXPECT_NE(tool("status " + name).out.find("switch       on\n"), std::string::npos);
        EXPECT_EQ(tool("off " + name).status, 0);
        EXPECT_NE(tool("status " + name).out.find("switch       off\n"), std::string::npos);
        // A live name can't be created twice.
        r = tool("create " + name + " --mode " + m.mode + " --size " + m.size);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find("exists already"), std::string::npos) << r.out;
        destroyed(name);
        r = tool("status " + name);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find("no trace area named"), std::string::npos) << r.out;
    }
}

TEST_F(Zeptrace, MaskWordsRoundTrip) {
    create(name_, "--size 512k");
    Result r = tool("mask " + name_ +
                    " set COMP_SYSFUNCS zepFileRename:entry,exit,error "
                    "ZEPHFile::open@30 -zepFileRename@20");
    ASSERT_EQ(r.status, 0) << r.out;
    const Result shown = tool("mask " + name_ + " show");
    ASSERT_EQ(shown.status, 0);
    EXPECT_EQ(shown.out,
              "COMP_SYSFUNCS\n"
              "ZEPHFile::open:entry,exit,error\n"
              "zepFileRename:entry,exit,error\n"
              "ZEPHFile::open@30\n"
              "-zepFileRename@20\n")
        << shown.out;
    // What show prints, set again, is the same mask.
    std::string words;
    for (size_t at = 0, nl; (nl = shown.out.find('\n', at)) != std::string::npos; at = nl + 1)
        words += " " + shown.out.substr(at, nl - at);
    ASSERT_EQ(tool("mask " + name_ + " set" + words).status, 0);
    EXPECT_EQ(tool("mask " + name_ + " show").out, shown.out);
    // Deleting a word takes it out; clear empties the mask.
    ASSERT_EQ(tool("mask " + name_ + " del COMP_SYSFUNCS").status, 0);
    EXPECT_EQ(tool("mask " + name_ + " show").out.find("COMP_SYSFUNCS"), std::string::npos);
    ASSERT_EQ(tool("mask " + name_ + " clear").status, 0);
    EXPECT_EQ(tool("mask " + name_ + " show").out, "(empty: nothing is recorded)\n");
    r = tool("mask " + name_ + " add noSuchFunction");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("no component or function named 'noSuchFunction'"), std::string::npos);
}

TEST_F(Zeptrace, LiveDumpWhileTwoProcessesWriteShowsAndExportsBoth) {
    // Room for every record of both writers: the final dump must hold both of them.
    create(name_, "--size 8M --on");
    const pid_t a = spawn({kHelper, name_, "calls", "1000"});
    const pid_t b = spawn({kHelper, name_, "calls", "1000"});
    const std::string live = dir_ + "/live.dump";
    Result r = tool("dump " + name_ + " " + live);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(tool("show " + live + " --view flow").status, 0);
    EXPECT_EQ(waitFor(a), 0);
    EXPECT_EQ(waitFor(b), 0);

    const std::string done = dir_ + "/done.dump";
    ASSERT_EQ(tool("dump " + name_ + " " + done).status, 0);
    std::map<Uint32, int> perProcess;
    for (const Rec& rec : records(done))
        if (rec.type == GTRACE_TYPE_ERROR) ++perProcess[rec.pid];
    EXPECT_EQ(perProcess.count(static_cast<Uint32>(a)), 1u);
    EXPECT_EQ(perProcess.count(static_cast<Uint32>(b)), 1u);

    // The filters of show, and an export that a viewer takes.
    r = tool("show " + done + " --errors --pid " + std::to_string(a));
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("pid " + std::to_string(a)), std::string::npos);
    EXPECT_EQ(r.out.find("pid " + std::to_string(b)), std::string::npos);
    EXPECT_EQ(r.out.find("ENTRY"), std::string::npos);
    const std::string json = dir_ + "/done.json";
    ASSERT_EQ(tool("export " + done + " --format chrome " + json).status, 0);
    r = run("python3 " ZEP_TEST_SOURCE_DIR "/tools/check_chrome_trace.py " + json);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find(std::to_string(a) + "/"), std::string::npos);
    EXPECT_NE(r.out.find(std::to_string(b) + "/"), std::string::npos);
    EXPECT_NE(r.out.find("zepFileRename"), std::string::npos);
}

TEST_F(Zeptrace, DrainOfAChunkedTraceLosesNothingOverManyLaps) {
    // 512 KiB of ring; two writers of 41,000 two-slot records each lap it 20 times.
    create(name_, "--mode chunked --size 512k --on");
    const std::string file = dir_ + "/drained.dump";
    const pid_t drain = spawn({kTool, "drain", name_, file});
    for (int i = 0;
         i < 500 && tool("status " + name_).out.find("drained      yes") == std::string::npos; ++i)
        usleep(10000);
    const Uint32 count = 41000;
    const pid_t a = spawn({kHelper, name_, "records", std::to_string(count)});
    const pid_t b = spawn({kHelper, name_, "records", std::to_string(count)});
    EXPECT_EQ(waitFor(a), 0);
    EXPECT_EQ(waitFor(b), 0);
    kill(drain, SIGINT);
    EXPECT_EQ(waitFor(drain), 0);

    std::map<Uint32, Uint32> next;  // per writer: the value it must write next
    Uint64 total = 0;
    for (const Rec& rec : records(file)) {
        if (rec.type != GTRACE_TYPE_DATA || rec.function != ZEPFN_zepFileRename) continue;
        ASSERT_EQ(rec.value, next[rec.pid]) << "writer " << rec.pid;
        ++next[rec.pid];
        ++total;
    }
    EXPECT_EQ(next[static_cast<Uint32>(a)], count);
    EXPECT_EQ(next[static_cast<Uint32>(b)], count);
    EXPECT_EQ(total, 2u * count);
}

TEST_F(Zeptrace, BadInputGetsAClearMessage) {
    const std::string dump = dir_ + "/t.dump";
    create(name_, "--size 512k --on");
    ASSERT_EQ(run(kHelper + " " + name_ + " calls 10").status, 0);
    ASSERT_EQ(tool("dump " + name_ + " " + dump).status, 0);
    const struct {
        std::string args;
        int status;
        const char* says;
    } cases[] = {
        {"", 2, "usage: zeptrace"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"status no-such-trace-" + name_, 1, "no trace area named"},
        {"create " + name_ + "x --size 1000", 2, "power of two"},
        {"create " + name_ + "x --mode sideways", 2, "unknown mode 'sideways'"},
        {"show " + dir_ + "/missing.dump", 1, "cannot read the dump"},
        {"show " + dump + " --view sideways", 2, "unknown view"},
        {"export " + dump + " --format svg x", 2, "unknown format 'svg'"},
        {"drain " + name_ + " " + dir_ + "/d", 1, "takes a chunked one"},
    };
    for (const auto& c : cases) {
        const Result r = tool(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out;
        EXPECT_NE(r.out.find(c.says), std::string::npos) << c.args << "\n" << r.out;
    }
    // Damaged dumps: cut short at several places, and the header's bytes overwritten.
    FILE* f = fopen(dump.c_str(), "rb");
    std::string bytes;
    char buf[65536];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) bytes.append(buf, n);
    fclose(f);
    const std::string bad = dir_ + "/bad.dump";
    for (size_t cut : {size_t{7}, size_t{100000}, size_t{182920}, bytes.size() - 100}) {
        for (bool scramble : {false, true}) {
            std::string b = bytes.substr(0, cut);
            if (scramble)
                for (size_t i = 182904; i < b.size() && i < 183200; i += 7) b[i] ^= 0x5A;
            f = fopen(bad.c_str(), "wb");
            fwrite(b.data(), 1, b.size(), f);
            fclose(f);
            for (const char* cmd : {"show ", "export "}) {
                const Result r = tool(cmd + bad + (cmd[0] == 'e' ? " --format chrome -" : ""));
                EXPECT_LT(r.status, 128) << cmd << cut << " crashed";
                if (r.status != 0) {
                    EXPECT_NE(r.out.find("zeptrace: "), std::string::npos) << r.out;
                }
            }
        }
    }
}

}  // namespace
