// End-to-end tests of zeptrace, the trace's control program: the mask in words, the drain of a
// chunked trace that other processes write and lap many times, a dump of it meanwhile, the
// switch and status, and bad input.
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
bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Zeptrace : public ::testing::Test {
protected:
    void TearDown() override { tool("destroy " + name_); }
    void create(const std::string& options) {
        const auto r = tool("create " + name_ + " " + options);
        ASSERT_EQ(r.first, 0) << r.second;
    }
    zeptest::TempDir dir_{"zeptrace"};
    std::string name_ = "zt" + std::to_string(getpid()) +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(Zeptrace, MaskWordsRoundTrip) {
    create("--size 512k");
    const std::string mask = "mask " + name_;
    const auto r = tool(mask +
                        " set COMP_SYSFUNCS zepFileRename:entry,exit,error "
                        "ZEPHFile::open@30 -zepFileRename@20");
    ASSERT_EQ(r.first, 0) << r.second;
    const std::string shown = tool(mask + " show").second;
    EXPECT_EQ(shown,
              "COMP_SYSFUNCS\n"
              "ZEPHFile::open:entry,exit,error\n"
              "zepFileRename:entry,exit,error\n"
              "ZEPHFile::open@30\n"
              "-zepFileRename@20\n");
    // What show prints, set again, is the same mask.
    std::string words = shown;
    std::replace(words.begin(), words.end(), '\n', ' ');
    ASSERT_EQ(tool(mask + " set " + words).first, 0);
    EXPECT_EQ(tool(mask + " show").second, shown);
}

TEST_F(Zeptrace, DrainOfAChunkedTraceLosesNothingOverManyLaps) {
    // 512 KiB of ring; two writers of 41,000 two-slot records each lap it 20 times.
    create("--mode chunked --size 512k --on");
    const pid_t drain = zeptest::spawnHelper("../bin/zeptrace", {"drain", name_, dir_ / "d.dump"});
    for (int i = 0; i < 500 && !has(tool("status " + name_).second, "drained      yes"); ++i)
        usleep(10000);
    std::vector<pid_t> pids;
    for (int i = 0; i < 2; ++i)
        pids.push_back(zeptest::spawnHelper("helper_gtrace", {name_, "0", "records", "41000"}));
    // A dump of the live trace meanwhile, and a look at it.
    EXPECT_EQ(tool("dump " + name_ + " " + dir_ / "live.dump").first, 0);
    EXPECT_EQ(tool("show " + dir_ / "live.dump" + " --view flow").first, 0);
    for (pid_t pid : pids) EXPECT_EQ(zeptest::waitExit(pid), 0);
    kill(drain, SIGINT);
    EXPECT_EQ(zeptest::waitExit(drain), 0);
    // Each writer's data records, in its order.
    std::map<pid_t, Uint32> next;
    for (const auto& bytes : zeptest::readTraceDump(dir_ / "d.dump", true, false)) {
        const GTRecord* r = reinterpret_cast<const GTRecord*>(bytes.data());
        if (r->recordType != GTRACE_TYPE_DATA || r->functionID != ZEPFN_zepFileRename) continue;
        Uint32 value;
        memcpy(&value, bytes.data() + 64, 4);
        ASSERT_EQ(value, next[r->processID]++) << "writer " << r->processID;
    }
    EXPECT_EQ(next, (std::map<pid_t, Uint32>{{pids[0], 41000}, {pids[1], 41000}}));
}

TEST_F(Zeptrace, SwitchStatusAndBadInput) {
    const std::string dump = dir_ / "t.dump", cut = dir_ / "cut.dump";
    create("--size 512k");
    const std::string status = tool("status " + name_).second;
    EXPECT_TRUE(has(status, "mode         wrapping\n") && has(status, "switch       off\n"));
    EXPECT_EQ(tool("on " + name_).first, 0);
    EXPECT_TRUE(has(tool("status " + name_).second, "switch       on\n"));
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
        {"create " + name_, 1, "exists already"},
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
