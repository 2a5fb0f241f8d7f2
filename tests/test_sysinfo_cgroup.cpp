// Control groups: recorded /proc, /sys and group files (v1, v2, nested groups, "max", -1, the
// kernel's sentinel, a container's partial view) read through the test root, and a real child
// group with a memory limit and a CPU quota that a fresh process joins.
#include <sched.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;
using zepos::sysfiles::NO_LIMIT;
const Uint64 MiB = 1 << 20;

Uint32 affinityCount() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return static_cast<Uint32>(CPU_COUNT(&set));
}

TEST(ControlGroupFiles, LimitsAndListsParse) {
    // clang-format off
    const struct { const char* text; Uint64 limit; } limits[] = {
        {"max\n", NO_LIMIT}, {"-1\n", NO_LIMIT},
        {"9223372036854771712\n", NO_LIMIT}, {"9223372036854710272\n", NO_LIMIT},  // 4, 64 KiB
        {"4611686018427387904", NO_LIMIT}, {"4611686018427387903", 4611686018427387903ull},
        {"0\n", 0}, {" 536870912 \n", 536870912}, {"", NO_LIMIT}, {"lots", NO_LIMIT},
        {"99999999999999999999999", NO_LIMIT}};
    const struct { const char* text; Uint32 count; } lists[] = {
        {"0-7\n", 8}, {"0\n", 1}, {"0-3,8,10-11\n", 7}, {"", 0}, {"5-2", 0}, {"1,3,5", 3}};
    // clang-format on
    for (const auto& l : limits) EXPECT_EQ(zepos::sysfiles::ParseLimit(l.text), l.limit) << l.text;
    for (const auto& l : lists) EXPECT_EQ(zepos::sysfiles::CountCpuList(l.text), l.count) << l.text;
}

class RecordedGroups : public CaptureTest {
protected:
    void TearDown() override {
        zepos::SetSystemFilesRoot(nullptr);
        CaptureTest::TearDown();
    }
};

TEST_F(RecordedGroups, TheNearestLimitsBoundMemorySwapAndProcessors) {
    const Uint32 mine = affinityCount();
    const Uint64 M = MiB, NO = NO_LIMIT;
    // v2-nested: the parent's 512 MiB binds the child whose own limit is "max", the parent's usage
    // leaves 384 MiB, the child's swap limit and half a processor. v1: the sentinel above the
    // group, memory+swap less memory is the swap limit, 2.5 processors are 3. v1-unlimited: an old
    // kernel's meminfo without MemAvailable, one processor offline. v2-container: the mount's root
    // is taken off the group's path; the group is full.
    struct Case {
        const char* dir;
        zepos::CONTROL_GROUP_LIMITS limits;  // memory, headroom, swap, swap headroom, cpu, version
        Sint32 physTotal, physFree, swapTotal, swapFree;
        Uint32 configured, online, quota;
    } cases[] = {
        // clang-format off
        {"v2-nested", {512 * M, 384 * M, 256 * M, 192 * M, 1, 2}, 512, 384, 256, 192, 8, 8, 1},
        {"v1", {1024 * M, 768 * M, 512 * M, 448 * M, 3, 1}, 1024, 768, 512, 448, 4, 4, 3},
        {"v1-unlimited", {NO, NO, NO, NO, 0, 1}, 16000, 7032, 0, 0, 4, 3, 0},
        {"v2-container", {2048 * M, 0, 0, 0, 4, 2}, 2048, 0, 0, 0, 16, 16, 4},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.dir);
        zepos::SetSystemFilesRoot((std::string(ZEP_TEST_DATA_DIR "/sysinfo/") + c.dir).c_str());
        zepos::CONTROL_GROUP_LIMITS g;
        zepos::GetControlGroupLimits(&g);
        EXPECT_EQ(
            std::vector<Uint64>({g.memoryLimit, g.memoryHeadroom, g.swapLimit, g.swapHeadroom,
                                 g.cpuProcessors, g.version}),
            std::vector<Uint64>({c.limits.memoryLimit, c.limits.memoryHeadroom, c.limits.swapLimit,
                                 c.limits.swapHeadroom, c.limits.cpuProcessors, c.limits.version}));
        ZEPPhysMemInfo m;
        ZEPPhysSwapInfo s;
        ZEPCPUInfo p;
        ASSERT_EQ(zepGetPhysMemInfo(&m) | zepGetPhysSwapInfo(&s), 0u);
        zepGetCPUInfo(&p);
        EXPECT_EQ(
            std::vector<Sint32>({m.physTotal.value, m.physFree.value, m.physAllocatable.value,
                                 s.swapTotal.value, s.swapFree.value}),
            std::vector<Sint32>({c.physTotal, c.physFree, c.physFree, c.swapTotal, c.swapFree}));
        EXPECT_EQ(p.processorsTotal.value, c.configured);
        EXPECT_EQ(p.processorsConfigured.value, c.online);
        EXPECT_EQ(p.processorsOnline.value, c.quota && c.quota < mine ? c.quota : mine);
    }
}

TEST_F(RecordedGroups, AMoveToAnotherGroupIsSeenAtTheNextQuery) {
    // The group's directories are kept while /proc/self/cgroup reads the same; a process moved
    // elsewhere must be looked up again.
    ASSERT_EQ(system(("cp -r " ZEP_TEST_DATA_DIR "/sysinfo/v2-nested/. '" + dir_ + "'").c_str()),
              0);
    zepos::SetSystemFilesRoot(dir_.c_str());
    zepos::CONTROL_GROUP_LIMITS g;
    zepos::GetControlGroupLimits(&g);
    EXPECT_EQ(g.memoryLimit, 512 * MiB);
    put(path("proc/self/cgroup"), "0::/\n");
    zepos::GetControlGroupLimits(&g);
    EXPECT_EQ(g.memoryLimit, NO_LIMIT);
    EXPECT_EQ(g.cpuProcessors, 0u);
    unlink(path("proc/self/cgroup").c_str());  // none at all: the machine's values
    zepos::GetControlGroupLimits(&g);
    EXPECT_EQ(g.version, 0u);
    EXPECT_EQ(g.memoryLimit, NO_LIMIT);
}

// ---- a real group

// A new child group under this process's own groups for memory and cpu, with the files a process
// writes its number into to join it; no files, and a reason, where the machine doesn't allow it.
struct ChildGroups {
    Strings made, joins;  // made: to remove, innermost last
    std::string why;

    static std::string mountOf(bool v1, const char* controller) {
        std::ifstream in("/proc/self/mountinfo");
        for (std::string line; std::getline(in, line);) {
            zepos::sysfiles::MountEntry m;
            if (zepos::sysfiles::ParseMountLine(line, &m) &&
                (v1 ? m.type == "cgroup" && zepos::sysfiles::HasOption(m.superOptions, controller)
                    : m.type == "cgroup2"))
                return m.root == "/" ? m.mountPoint : "";
        }
        return "";
    }
    // The group's path under the mount ("" for the root), v1 if a v1 hierarchy holds it.
    static std::string groupOf(const char* controller, bool* v1) {
        std::ifstream in("/proc/self/cgroup");
        std::string unified;
        for (std::string line; std::getline(in, line);) {
            const size_t a = line.find(':'), b = line.find(':', a + 1);
            const std::string controllers = line.substr(a + 1, b - a - 1), g = line.substr(b + 1);
            if (controllers.empty()) unified = g == "/" ? "" : g;
            if (zepos::sysfiles::HasOption(controllers, controller))
                return *v1 = true, g == "/" ? "" : g;
        }
        return *v1 = false, unified;
    }
    bool make(const std::string& dir, const std::vector<std::pair<std::string, std::string>>& w) {
        if (mkdir(dir.c_str(), 0755) != 0) return why = "can't create " + dir, false;
        made.push_back(dir);
        for (const auto& [file, text] : w) {
            std::ofstream out(dir + "/" + file);
            if (!(out << text << std::flush)) return why = dir + " refuses " + file, false;
        }
        return true;
    }
    ChildGroups() {
        const std::string name = "/zeptest-sysinfo-" + std::to_string(getpid());
        bool memV1 = false, cpuV1 = false;
        const std::string memGroup = groupOf("memory", &memV1), cpuGroup = groupOf("cpu", &cpuV1);
        const std::string memMount = mountOf(memV1, "memory"), cpuMount = mountOf(cpuV1, "cpu");
        if (memMount.empty() || cpuMount.empty() || memV1 != cpuV1) {
            why = "no memory and cpu controllers of one version where this process sees its group";
        } else if (memV1) {
            if (make(memMount + memGroup + name, {{"memory.limit_in_bytes", "268435456"}}) &&
                make(cpuMount + cpuGroup + name,
                     {{"cpu.cfs_period_us", "100000"}, {"cpu.cfs_quota_us", "50000"}}))
                joins = {made[0] + "/tasks", made[1] + "/tasks"};
        } else if (!(std::ofstream(memMount + memGroup + "/cgroup.subtree_control")
                     << "+memory +cpu" << std::flush)) {
            // v2 lets a group with members give controllers to children only at the root.
            why = "this process's v2 group can't hand memory and cpu to a child";
        } else if (make(memMount + memGroup + name,
                        {{"memory.max", "268435456"}, {"cpu.max", "50000 100000"}})) {
            joins = {made[0] + "/cgroup.procs"};
        }
    }
    ~ChildGroups() {
        for (auto it = made.rbegin(); it != made.rend(); ++it) rmdir(it->c_str());
    }
};

TEST(ControlGroupLive, AProcessInALimitedGroupSeesTheLimits) {
    ChildGroups groups;
    if (groups.joins.empty()) GTEST_SKIP() << "no child control group here: " << groups.why;
    std::string args;
    for (const std::string& j : groups.joins) args += " --join '" + j + "'";
    std::map<std::string, std::string> inside = sysinfoHelper(args);
    ASSERT_EQ(inside.count("join-failed"), 0u) << inside["join-failed"];
    EXPECT_EQ(inside["physTotal"], "256");
    EXPECT_LE(atoi(inside["physFree"].c_str()), 256);
    EXPECT_EQ(inside["processorsOnline"], "1");
    EXPECT_EQ(inside["rc-mem"], "00000000");
}

}  // namespace
