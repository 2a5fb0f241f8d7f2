// End-to-end tests of zeptrace, the trace's control program: trace areas in every mode, the mask in
// words, dumps of a live trace that other processes write, the drain of a chunked trace that laps
// many times, the export of their dumps, and bad input.
#include <signal.h>

#include <algorithm>
#include <map>

#include "zeptest_trace.h"

namespace {

struct Result {
    int status;
    std::string out;
};

// A command's exit status and what it wrote on both outputs.
Result run(const std::string& command) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    Result r{-1, ""};
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    const int s = pclose(p);
    r.status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
    return r;
}
Result tool(const std::string& args) {
    return run(ZEP_TOOL_BIN_DIR "/zeptrace " + args);
}

bool has(const Result& r, const std::string& text) {
    return r.out.find(text) != std::string::npos;
}

class Zeptrace : public ::testing::Test {
protected:
    void TearDown() override {
        for (const std::string& n : created_) tool("destroy " + n);
    }
    void create(const std::string& name, const std::string& options) {
        const Result r = tool("create " + name + " " + options);
        ASSERT_EQ(r.status, 0) << r.out;
        created_.push_back(name);
    }
    // A helper process of the product on the trace `name_`.
    pid_t helper(const char* what, Uint32 count) {
        return zeptest::spawnHelper("helper_gtrace", {name_, "0", what, std::to_string(count)});
    }
    // Every record of a dump: process, type, function and the word at 64 (a data record's item).
    std::vector<std::array<Uint32, 4>> records(const std::string& path) {
        std::vector<std::array<Uint32, 4>> out;
        for (const auto& bytes : zeptest::readTraceDump(path, true, false)) {
            const GTRecord* r = reinterpret_cast<const GTRecord*>(bytes.data());
            Uint32 v = ~0u;
            if (bytes.size() >= 68) memcpy(&v, bytes.data() + 64, 4);
            out.push_back({r->processID, r->recordType, r->functionID, v});
        }
        return out;
    }
    zeptest::TempDir dir_{"zeptrace"};
    std::string name_ = "zt" + std::to_string(getpid()) +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::vector<std::string> created_;
};

TEST_F(Zeptrace, EveryModeCreatesSwitchesAndGoes) {
    const std::pair<std::string, std::string> modes[] = {{"wrap --size 512k", "wrapping"},
                                                         {"stop --size 1M", "stopping"},
                                                         {"chunked", "chunked"},
                                                         {"counting", "counting"},
                                                         {"delaying", "delaying"}};
    for (const auto& [mode, shown] : modes) {
        create(name_ + shown, "--mode " + mode);
        EXPECT_TRUE(has(tool("status " + name_ + shown), "mode         " + shown + "\n")) << mode;
    }
    const std::string name = name_ + "wrapping";
    EXPECT_TRUE(has(tool("status " + name), "switch       off\n"));
    EXPECT_EQ(tool("on " + name).status, 0);
    EXPECT_TRUE(has(tool("status " + name), "switch       on\n"));
    // A live name can't be created twice; a destroyed one is gone.
    Result r = tool("create " + name);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r, "exists already")) << r.out;
    EXPECT_EQ(tool("destroy " + name).status, 0);
    r = tool("status " + name);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(has(r, "no trace area named")) << r.out;
}

TEST_F(Zeptrace, MaskWordsRoundTrip) {
    create(name_, "--size 512k");
    const std::string mask = "mask " + name_;
    Result r = tool(mask +
                    " set COMP_SYSFUNCS zepFileRename:entry,exit,error "
                    "ZEPHFile::open@30 -zepFileRename@20");
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string shown = tool(mask + " show").out;
    EXPECT_EQ(shown,
              "COMP_SYSFUNCS\n"
              "ZEPHFile::open:entry,exit,error\n"
              "zepFileRename:entry,exit,error\n"
              "ZEPHFile::open@30\n"
              "-zepFileRename@20\n");
    // What show prints, set again, is the same mask.
    std::string words = shown;
    std::replace(words.begin(), words.end(), '\n', ' ');
    ASSERT_EQ(tool(mask + " set " + words).status, 0);
    EXPECT_EQ(tool(mask + " show").out, shown);
    // Deleting a word takes it out; clear empties the mask.
    ASSERT_EQ(tool(mask + " del COMP_SYSFUNCS").status, 0);
    EXPECT_FALSE(has(tool(mask + " show"), "COMP_SYSFUNCS"));
    ASSERT_EQ(tool(mask + " clear").status, 0);
    EXPECT_EQ(tool(mask + " show").out, "(empty: nothing is recorded)\n");
}

TEST_F(Zeptrace, LiveDumpWhileTwoProcessesWriteShowsAndExportsBoth) {
    // Room for every record of both writers: the final dump must hold both of them.
    create(name_, "--size 8M --on");
    const pid_t a = helper("calls", 1000), b = helper("calls", 1000);
    const std::string live = dir_ / "live.dump", done = dir_ / "done.dump";
    EXPECT_EQ(tool("dump " + name_ + " " + live).status, 0);
    EXPECT_EQ(tool("show " + live + " --view flow").status, 0);
    EXPECT_EQ(zeptest::waitExit(a) + zeptest::waitExit(b), 0);
    ASSERT_EQ(tool("dump " + name_ + " " + done).status, 0);
    std::map<Uint32, int> errors;
    for (const auto& rec : records(done)) errors[rec[0]] += rec[1] == GTRACE_TYPE_ERROR;
    EXPECT_EQ(std::make_pair(errors[a], errors[b]), std::make_pair(1000, 1000));

    // The filters of show, and an export that a viewer takes.
    const std::string pa = std::to_string(a), pb = std::to_string(b);
    Result r = tool("show " + done + " --errors --pid " + pa);
    ASSERT_EQ(r.status, 0);
    EXPECT_TRUE(has(r, "pid " + pa) && !has(r, "pid " + pb) && !has(r, "ENTRY"));
    ASSERT_EQ(tool("export " + done + " --format chrome " + (dir_ / "done.json")).status, 0);
    r = run("python3 " ZEP_TEST_SOURCE_DIR "/tools/check_chrome_trace.py " + dir_ / "done.json");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r, pa + "/") && has(r, pb + "/") && has(r, "zepFileRename")) << r.out;
}

TEST_F(Zeptrace, DrainOfAChunkedTraceLosesNothingOverManyLaps) {
    // 512 KiB of ring; two writers of 41,000 two-slot records each lap it 20 times.
    create(name_, "--mode chunked --size 512k --on");
    const pid_t drain = zeptest::spawnHelper("../bin/zeptrace", {"drain", name_, dir_ / "d.dump"});
    for (int i = 0; i < 500 && !has(tool("status " + name_), "drained      yes"); ++i)
        usleep(10000);
    const Uint32 count = 41000;
    const pid_t a = helper("records", count), b = helper("records", count);
    EXPECT_EQ(zeptest::waitExit(a) + zeptest::waitExit(b), 0);
    kill(drain, SIGINT);
    EXPECT_EQ(zeptest::waitExit(drain), 0);

    std::map<Uint32, Uint32> next;  // per writer: the value it must write next
    for (const auto& rec : records(dir_ / "d.dump")) {
        if (rec[1] != GTRACE_TYPE_DATA || rec[2] != ZEPFN_zepFileRename) continue;
        ASSERT_EQ(rec[3], next[rec[0]]) << "writer " << rec[0];
        ++next[rec[0]];
    }
    EXPECT_EQ(next.size(), 2u);
    EXPECT_EQ(std::make_pair(next[a], next[b]), std::make_pair(count, count));
}

TEST_F(Zeptrace, BadInputGetsAClearMessage) {
    const std::string dump = dir_ / "t.dump", cut = dir_ / "cut.dump";
    create(name_, "--size 512k --on");
    EXPECT_EQ(zeptest::waitExit(helper("calls", 10)), 0);
    ASSERT_EQ(tool("dump " + name_ + " " + dump).status, 0);
    std::ofstream(cut) << zeptest::slurp(dump).substr(0, 200000);  // the tail is missing
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
        {"mask " + name_ + " add noSuchFunction", 2,
         "no component or function named 'noSuchFunction'"},
        {"show " + dir_ / "missing.dump", 1, "cannot read the dump"},
        {"show " + dump + " --view sideways", 2, "unknown view"},
        {"export " + dump + " --format svg x", 2, "unknown format 'svg'"},
        {"drain " + name_ + " " + dir_ / "d", 1, "takes a chunked one"},
        {"show " + cut, 1, "zeptrace: "},
        {"export " + cut + " --format chrome -", 1, "zeptrace: "},
    };
    for (const auto& c : cases) {
        const Result r = tool(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out;
        EXPECT_TRUE(has(r, c.says)) << c.args << "\n" << r.out;
    }
}

}  // namespace
