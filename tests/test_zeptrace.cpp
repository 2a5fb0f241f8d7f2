// End-to-end tests of zeptrace, the trace's control program: trace areas in every mode, the mask in
// words, dumps of a live trace that other processes write, the drain of a chunked trace that laps
// many times, the export of their dumps, and bad input.
#include <signal.h>

#include <algorithm>
#include <map>

#include "zeptest_trace.h"

namespace {

// A command's exit status and what it wrote on both outputs.
std::pair<int, std::string> run(const std::string& command) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int s = pclose(p);
    return {WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s), out};
}
std::pair<int, std::string> tool(const std::string& args) {
    return run(ZEP_TOOL_BIN_DIR "/zeptrace " + args);
}
std::string said(const std::string& args) {
    return tool(args).second;
}
bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Zeptrace : public ::testing::Test {
protected:
    void TearDown() override {
        for (const char* suffix : {"", "1", "2", "3", "4"}) tool("destroy " + name_ + suffix);
    }
    void create(const std::string& options, const std::string& suffix = "") {
        const auto r = tool("create " + name_ + suffix + " " + options);
        ASSERT_EQ(r.first, 0) << r.second;
    }
    // Helper processes of the product, each writing `count` data records numbered from 0.
    std::vector<pid_t> writers(int n, Uint32 count) {
        std::vector<pid_t> pids;
        for (int i = 0; i < n; ++i)
            pids.push_back(zeptest::spawnHelper("helper_gtrace",
                                                {name_, "0", "records", std::to_string(count)}));
        return pids;
    }
    // Each writer's data records in a dump, checked to be in its order; their counts.
    std::map<pid_t, Uint32> perWriter(const std::string& path) {
        std::map<pid_t, Uint32> next;
        for (const auto& bytes : zeptest::readTraceDump(path, true, false)) {
            const GTRecord* r = reinterpret_cast<const GTRecord*>(bytes.data());
            if (r->recordType != GTRACE_TYPE_DATA || r->functionID != ZEPFN_zepFileRename) continue;
            Uint32 value;
            memcpy(&value, bytes.data() + 64, 4);
            if (value != next[r->processID]++) {
                ADD_FAILURE() << "writer " << r->processID << " wrote " << value << " out of order";
                break;
            }
        }
        return next;
    }
    zeptest::TempDir dir_{"zeptrace"};
    std::string name_ = "zt" + std::to_string(getpid()) +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(Zeptrace, EveryModeCreatesSwitchesAndGoes) {
    const char* modes[] = {"wrap --size 512k", "stop --size 1M", "chunked", "counting", "delaying"};
    const char* shown[] = {"wrapping", "stopping", "chunked", "counting", "delaying"};
    for (int i = 0; i < 5; ++i) {
        create(std::string("--mode ") + modes[i], i ? std::to_string(i) : "");
        const std::string status = said("status " + name_ + (i ? std::to_string(i) : ""));
        EXPECT_TRUE(has(status, "mode         " + std::string(shown[i]) + "\n")) << status;
    }
    EXPECT_TRUE(has(said("status " + name_), "switch       off\n"));
    EXPECT_EQ(tool("on " + name_).first, 0);
    EXPECT_TRUE(has(said("status " + name_), "switch       on\n"));
    // A live name can't be created twice; a destroyed one is gone.
    EXPECT_TRUE(has(said("create " + name_), "exists already"));
    EXPECT_EQ(tool("destroy " + name_).first, 0);
    EXPECT_TRUE(has(said("status " + name_), "no trace area named"));
}

TEST_F(Zeptrace, MaskWordsRoundTrip) {
    create("--size 512k");
    const std::string mask = "mask " + name_;
    const auto r = tool(mask +
                        " set COMP_SYSFUNCS zepFileRename:entry,exit,error "
                        "ZEPHFile::open@30 -zepFileRename@20");
    ASSERT_EQ(r.first, 0) << r.second;
    const std::string shown = said(mask + " show");
    EXPECT_EQ(shown,
              "COMP_SYSFUNCS\n"
              "ZEPHFile::open:entry,exit,error\n"
              "zepFileRename:entry,exit,error\n"
              "ZEPHFile::open@30\n"
              "-zepFileRename@20\n");
    // What show prints, set again, is the same mask; del takes a word out, clear all.
    std::string words = shown;
    std::replace(words.begin(), words.end(), '\n', ' ');
    ASSERT_EQ(tool(mask + " set " + words).first, 0);
    EXPECT_EQ(said(mask + " show"), shown);
    ASSERT_EQ(tool(mask + " del COMP_SYSFUNCS").first, 0);
    EXPECT_FALSE(has(said(mask + " show"), "COMP_SYSFUNCS"));
    ASSERT_EQ(tool(mask + " clear").first, 0);
    EXPECT_EQ(said(mask + " show"), "(empty: nothing is recorded)\n");
}

TEST_F(Zeptrace, LiveDumpWhileTwoProcessesWriteShowsAndExportsBoth) {
    // Room for every record of both writers: the final dump must hold both of them.
    create("--size 8M --on");
    const auto pids = writers(2, 1000);
    const std::string live = dir_ / "live.dump", done = dir_ / "done.dump";
    EXPECT_EQ(tool("dump " + name_ + " " + live).first, 0);
    EXPECT_EQ(tool("show " + live + " --view flow").first, 0);
    for (pid_t pid : pids) EXPECT_EQ(zeptest::waitExit(pid), 0);
    ASSERT_EQ(tool("dump " + name_ + " " + done).first, 0);
    const std::string a = std::to_string(pids[0]), b = std::to_string(pids[1]);
    EXPECT_EQ(perWriter(done), (std::map<pid_t, Uint32>{{pids[0], 1000}, {pids[1], 1000}}));

    // The filters of show, and an export that a viewer takes.
    const std::string shown = said("show " + done + " --pid " + a);
    EXPECT_TRUE(has(shown, "pid " + a) && !has(shown, "pid " + b)) << shown.substr(0, 500);
    ASSERT_EQ(tool("export " + done + " --format chrome " + (dir_ / "done.json")).first, 0);
    const auto r =
        run("python3 " ZEP_TEST_SOURCE_DIR "/tools/check_chrome_trace.py " + (dir_ / "done.json"));
    ASSERT_EQ(r.first, 0) << r.second;
    EXPECT_TRUE(has(r.second, a + "/") && has(r.second, b + "/"));
    EXPECT_TRUE(has(r.second, "instant data zepFileRename probe 10"));
}

TEST_F(Zeptrace, DrainOfAChunkedTraceLosesNothingOverManyLaps) {
    // 512 KiB of ring; two writers of 41,000 two-slot records each lap it 20 times.
    create("--mode chunked --size 512k --on");
    const pid_t drain = zeptest::spawnHelper("../bin/zeptrace", {"drain", name_, dir_ / "d.dump"});
    for (int i = 0; i < 500 && !has(said("status " + name_), "drained      yes"); ++i)
        usleep(10000);
    const auto pids = writers(2, 41000);
    for (pid_t pid : pids) EXPECT_EQ(zeptest::waitExit(pid), 0);
    kill(drain, SIGINT);
    EXPECT_EQ(zeptest::waitExit(drain), 0);
    EXPECT_EQ(perWriter(dir_ / "d.dump"),
              (std::map<pid_t, Uint32>{{pids[0], 41000}, {pids[1], 41000}}));
}

TEST_F(Zeptrace, BadInputGetsAClearMessage) {
    const std::string dump = dir_ / "t.dump", cut = dir_ / "cut.dump";
    create("--size 512k --on");
    ASSERT_EQ(tool("dump " + name_ + " " + dump).first, 0);
    std::ofstream(cut) << zeptest::slurp(dump).substr(0, 200000);  // the tail is missing
    const struct {
        std::string args;
        int status;
        const char* says;
    } cases[] = {
        {"", 2, "usage: zeptrace"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"status no-such-" + name_, 1, "no trace area named"},
        {"create " + name_ + "x --size 1000", 2, "power of two"},
        {"create " + name_ + "x --mode sideways", 2, "unknown mode 'sideways'"},
        {"mask " + name_ + " add noSuch", 2, "no component or function named 'noSuch'"},
        {"show " + dir_ / "missing.dump", 1, "cannot read the dump"},
        {"show " + dump + " --view sideways", 2, "unknown view"},
        {"export " + dump + " --format svg x", 2, "unknown format 'svg'"},
        {"drain " + name_ + " " + dir_ / "d", 1, "takes a chunked one"},
        {"export " + cut + " --format chrome -", 1, "zeptrace: "},
    };
    for (const auto& c : cases) {
        const auto r = tool(c.args);
        EXPECT_EQ(r.first, c.status) << c.args << "\n" << r.second;
        EXPECT_TRUE(has(r.second, c.says)) << c.args << "\n" << r.second;
    }
}

}  // namespace
