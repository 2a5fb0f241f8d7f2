// Control groups: recorded /proc, /sys and group files (v1, v2, nested groups, "max", -1, the
// kernel's sentinel, a container's partial view) read through the test root, and a real child
// group with a memory limit and a CPU quota that a fresh process joins.
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "zepos.h"
#include "zeptest_capture.h"

namespace {

using namespace zeptest;
using zepos::sysfiles::NO_LIMIT;
const Uint64 MiB = 1 << 20;

std::string run(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (fgets(buf, sizeof buf, p)) out += buf;
        pclose(p);
    }
    return out;
}
std::map<std::string, std::string> helper(const std::string& args) {
    std::map<std::string, std::string> v;
    std::istringstream in(run(std::string(ZEP_TEST_BIN_DIR "/helper_sysinfo ") + args));
    for (std::string line; std::getline(in, line);) {
        const size_t eq = line.find('=');
        if (eq != std::string::npos) v[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return v;
}
Uint32 affinityCount() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return static_cast<Uint32>(CPU_COUNT(&set));
}

TEST(ControlGroupFiles, LimitsAndListsParse) {
    const struct {
        const char* text;
        Uint64 limit;
    } limits[] = {{"max\n", NO_LIMIT},
                  {"-1\n", NO_LIMIT},
                  {"9223372036854771712\n", NO_LIMIT},  // 4 KiB pages
                  {"9223372036854710272\n", NO_LIMIT},  // 64 KiB pages
                  {"4611686018427387904", NO_LIMIT},    // 2^62
                  {"4611686018427387903", 4611686018427387903ull},
                  {"0\n", 0},
                  {" 536870912 \n", 536870912},
                  {"", NO_LIMIT},
                  {"lots", NO_LIMIT},
                  {"99999999999999999999999", NO_LIMIT}};
    for (const auto& l : limits) EXPECT_EQ(zepos::sysfiles::ParseLimit(l.text), l.limit) << l.text;
    const struct {
        const char* text;
        Uint32 count;
    } lists[] = {{"0-7\n", 8}, {"0\n", 1}, {"0-3,8,10-11\n", 7}, {"", 0}, {"5-2", 0}, {"1,3,5", 3}};
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
    struct Case {
        const char* dir;
        zepos::CONTROL_GROUP_LIMITS limits;  // memory, headroom, swap, swap headroom, cpu, version
        Sint32 physTotal, physFree, swapTotal, swapFree;
        Uint32 configured, online, quota;
    } cases[] = {
        // The parent's 512 MiB binds the child whose own limit is "max"; the parent's usage
        // leaves 384 MiB; the child's swap limit and half a processor.
        {"v2-nested",
         {512 * MiB, 384 * MiB, 256 * MiB, 192 * MiB, 1, 2},
         512,
         384,
         256,
         192,
         8,
         8,
         1},
        // The sentinel above the group; memory+swap less memory is the swap limit; 2.5 processors
        // are 3.
        {"v1", {1024 * MiB, 768 * MiB, 512 * MiB, 448 * MiB, 3, 1}, 1024, 768, 512, 448, 4, 4, 3},
        // No limit anywhere; an old kernel's meminfo without MemAvailable; one processor offline.
        {"v1-unlimited",
         {NO_LIMIT, NO_LIMIT, NO_LIMIT, NO_LIMIT, 0, 1},
         16000,
         7032,
         0,
         0,
         4,
         3,
         0},
        // A container's view: the mount's root is taken off the group's path; the group is full.
        {"v2-container", {2048 * MiB, 0, 0, 0, 4, 2}, 2048, 0, 0, 0, 16, 16, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.dir);
        zepos::SetSystemFilesRoot((std::string(ZEP_TEST_DATA_DIR "/sysinfo/") + c.dir).c_str());
        zepos::CONTROL_GROUP_LIMITS g;
        zepos::GetControlGroupLimits(&g);
        EXPECT_EQ(g.memoryLimit, c.limits.memoryLimit);
        EXPECT_EQ(g.memoryHeadroom, c.limits.memoryHeadroom);
        EXPECT_EQ(g.swapLimit, c.limits.swapLimit);
        EXPECT_EQ(g.swapHeadroom, c.limits.swapHeadroom);
        EXPECT_EQ(g.cpuProcessors, c.limits.cpuProcessors);
        EXPECT_EQ(g.version, c.limits.version);

        ZEPPhysMemInfo m;
        ZEPPhysSwapInfo s;
        ASSERT_EQ(zepGetPhysMemInfo(&m), 0u);
        ASSERT_EQ(zepGetPhysSwapInfo(&s), 0u);
        EXPECT_EQ(m.physTotal.value, c.physTotal);
        EXPECT_EQ(m.physFree.value, c.physFree);
        EXPECT_EQ(m.physAllocatable.value, c.physFree);
        EXPECT_EQ(s.swapTotal.value, c.swapTotal);
        EXPECT_EQ(s.swapFree.value, c.swapFree);

        ZEPCPUInfo p;
        zepGetCPUInfo(&p);
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
    std::ofstream(path("proc/self/cgroup")) << "0::/\n";
    zepos::GetControlGroupLimits(&g);
    EXPECT_EQ(g.memoryLimit, NO_LIMIT);
    EXPECT_EQ(g.cpuProcessors, 0u);
    // No /proc/self/cgroup at all: the machine's values.
    unlink(path("proc/self/cgroup").c_str());
    zepos::GetControlGroupLimits(&g);
    EXPECT_EQ(g.version, 0u);
    EXPECT_EQ(g.memoryLimit, NO_LIMIT);
}

// ---- a real group

// The directories of a new child group under this process's own groups for memory and cpu, and
// the files a process writes its number into to join them. Empty with a reason where the
// machine doesn't allow it.
struct ChildGroups {
    std::vector<std::string> made;  // to remove, innermost last
    std::string memoryDir, cpuDir, why;
    std::vector<std::string> joins;
    bool v2 = false;

    static std::string mountOf(bool v1, const char* controller) {
        std::ifstream in("/proc/self/mountinfo");
        for (std::string line; std::getline(in, line);) {
            zepos::sysfiles::MountEntry m;
            if (!zepos::sysfiles::ParseMountLine(line, &m)) continue;
            if (v1 && m.type == "cgroup" && zepos::sysfiles::HasOption(m.superOptions, controller))
                return m.root == "/" ? m.mountPoint : "";
            if (!v1 && m.type == "cgroup2") return m.root == "/" ? m.mountPoint : "";
        }
        return "";
    }
    static std::string groupOf(const char* controller, bool* v1) {
        std::ifstream in("/proc/self/cgroup");
        std::string unified;
        for (std::string line; std::getline(in, line);) {
            const size_t a = line.find(':'), b = line.find(':', a + 1);
            const std::string controllers = line.substr(a + 1, b - a - 1);
            if (controllers.empty())
                unified = line.substr(b + 1);
            else if (zepos::sysfiles::HasOption(controllers, controller))
                return *v1 = true, line.substr(b + 1);
        }
        *v1 = false;
        return unified;
    }
    bool make(const std::string& dir) {
        if (mkdir(dir.c_str(), 0755) != 0)
            return why = "can't create " + dir + ": " + strerror(errno), false;
        made.push_back(dir);
        return true;
    }
    static bool write(const std::string& file, const std::string& text) {
        std::ofstream out(file);
        out << text;
        out.flush();
        return static_cast<bool>(out);
    }
    ChildGroups() {
        const std::string name = "zeptest-sysinfo-" + std::to_string(getpid());
        bool memV1 = false, cpuV1 = false;
        const std::string memGroup = groupOf("memory", &memV1), cpuGroup = groupOf("cpu", &cpuV1);
        const std::string memMount = mountOf(memV1, "memory"), cpuMount = mountOf(cpuV1, "cpu");
        if (memMount.empty() || cpuMount.empty()) {
            why = "no memory and cpu controllers mounted where this process can see its group";
            return;
        }
        auto clean = [](std::string g) { return g == "/" ? std::string() : g; };
        if (memV1 && cpuV1) {
            memoryDir = memMount + clean(memGroup) + "/" + name;
            cpuDir = cpuMount + clean(cpuGroup) + "/" + name;
            if (!make(memoryDir) || !make(cpuDir)) return;
            if (!write(memoryDir + "/memory.limit_in_bytes", "268435456") ||
                !write(cpuDir + "/cpu.cfs_period_us", "100000") ||
                !write(cpuDir + "/cpu.cfs_quota_us", "50000")) {
                why = ("the new groups refuse their limits");
                return;
            }
            joins = {memoryDir + "/tasks", cpuDir + "/tasks"};
            return;
        }
        if (!memV1 && !cpuV1) {
            // v2 lets a group with members give controllers to children only at the root.
            v2 = true;
            const std::string parent = memMount + clean(memGroup);
            if (!write(parent + "/cgroup.subtree_control", "+memory +cpu")) {
                why =
                    ("this process's v2 group can't hand memory and cpu to a child "
                     "(it has members of its own)");
                return;
            }
            memoryDir = cpuDir = parent + "/" + name;
            if (!make(memoryDir)) return;
            if (!write(memoryDir + "/memory.max", "268435456") ||
                !write(memoryDir + "/cpu.max", "50000 100000")) {
                why = ("the new group refuses its limits");
                return;
            }
            joins = {memoryDir + "/cgroup.procs"};
            return;
        }
        why = "memory and cpu controllers on different hierarchy versions";
    }
    ~ChildGroups() {
        for (auto it = made.rbegin(); it != made.rend(); ++it) rmdir(it->c_str());
    }
};

TEST(ControlGroupLive, AProcessInALimitedGroupSeesTheLimits) {
    ChildGroups groups;
    if (groups.joins.empty())
        GTEST_SKIP() << "no child control group on this machine: " << groups.why;
    std::string args;
    for (const std::string& j : groups.joins) args += " --join '" + j + "'";
    std::map<std::string, std::string> inside = helper(args);
    ASSERT_EQ(inside.count("join-failed"), 0u) << inside["join-failed"];
    EXPECT_EQ(inside["physTotal"], "256");
    EXPECT_LE(atoi(inside["physFree"].c_str()), 256);
    EXPECT_EQ(inside["processorsOnline"], "1");
    EXPECT_EQ(inside["rc-mem"], "00000000");

    // Outside, in this test's own group: the machine's values.
    std::map<std::string, std::string> outside = helper("");
    zepos::CONTROL_GROUP_LIMITS g;
    zepos::GetControlGroupLimits(&g);
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    Uint64 kb = 0;
    meminfo >> key >> kb;
    const Uint64 machine = (kb * 1024 + MiB - 1) / MiB;
    EXPECT_EQ(static_cast<Uint64>(atoll(outside["physTotal"].c_str())),
              g.memoryLimit < kb * 1024 ? (g.memoryLimit + MiB - 1) / MiB : machine);
    const Uint32 mine = affinityCount();
    EXPECT_EQ(static_cast<Uint32>(atoi(outside["processorsOnline"].c_str())),
              g.cpuProcessors && g.cpuProcessors < mine ? g.cpuProcessors : mine);
}

}  // namespace
