// Processors, memory and the operating system: this machine's values against independent sources
// (nproc, uname, /proc, /sys), the record and stamp rules, the topology probe on made-up
// processors, and the control groups' limits on recorded machines.
#include <sched.h>
#include <sys/resource.h>

#include "zepos.h"
#include "zeptest_sys.h"
#include "zeptopology.h"

namespace {

using namespace zeptest;
using zepos::sysfiles::NO_LIMIT;
const Uint64 MiB = 1 << 20;

std::string cpuinfo(const std::string& key) {  // the first "key\t: value" of /proc/cpuinfo
    std::istringstream in(slurp("/proc/cpuinfo"));
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, key.size(), key) == 0 && line.find(':') != std::string::npos &&
            line.find_first_not_of(" \t", key.size()) == line.find(':'))
            return line.substr(line.find(':') + 2);
    return "";
}
zepos::CONTROL_GROUP_LIMITS groupLimits() {
    zepos::CONTROL_GROUP_LIMITS g;
    zepos::GetControlGroupLimits(&g);
    return g;
}

class SysInfo : public CaptureTest {
protected:
    void TearDown() override {
        zepos::SetSystemFilesRoot(nullptr);
        CaptureTest::TearDown();
    }
};

TEST_F(SysInfo, RecordChecksStampsAndTraces) {
    EXPECT_EQ(zepGetOSInfo(nullptr), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_zepGetOSInfo, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
    ZEPOSInfo os, oldOs, oldest;
    os.version = 20040701u, oldest.version = 20040702u, oldOs.version = 20050714u;
    calls.clear();
    EXPECT_EQ(zepGetOSInfo(&os), ECF_INVALID_VERSION);
    theLog(ZEPFN_zepGetOSInfo, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
    calls.clear();
    EXPECT_EQ(zepGetOSInfo(&oldest), 0u);  // the oldest stamp taken
    EXPECT_EQ(logs(), Strings{});
    // osExtra is never supported: a record new enough to have it is partial.
    os.version = ZEP_VERSION_WORD;
    EXPECT_EQ(zepGetOSInfo(&os), ECF_PARTIAL_INFO);
    EXPECT_EQ(os.osExtra.state, ECF_NOT_SUPPORTED);
    EXPECT_EQ(zepGetOSInfo(&oldOs), 0u);
    EXPECT_EQ(oldOs.osExtra.state, 0u);

    ZEPCPUInfo old, now;
    old.version = 20050714u, now.version = 20050715u;
    old.coresPerPackage.value = 77, old.coresPerPackage.state = 99;
    zepGetCPUInfo(&old);
    EXPECT_EQ(old.coresPerPackage.value + old.coresPerPackage.state, 77u + 99u);
    calls.clear();
    trace(true);
    zepGetCPUInfo(&now);
    trace(false);
    EXPECT_GE(now.coresPerPackage.value, 1u);
    EXPECT_EQ(now.coresPerPackage.state, 0u);
    EXPECT_EQ(said().substr(0, 50), "entry zepGetCPUInfo; var zepGetCPUInfo p200 t3 n1;");
    EXPECT_EQ(calls[1].items.at(0).bytes, std::string(reinterpret_cast<char*>(&now), sizeof now));

    // Every state of the IPC limits, counted over the record's words: a forgotten field shows.
    auto marked = [](const ZEPKernelIPCInfo& r) {
        std::vector<Uint32> words(sizeof r / 4);
        memcpy(words.data(), &r, sizeof r);
        return std::count(words.begin(), words.end(), ECF_NOT_SUPPORTED);
    };
    ZEPKernelIPCInfo ipc, oldIpc;
    oldIpc.version = 20050331u;
    EXPECT_EQ(zepGetKernelIPCInfo(&ipc) & zepGetKernelIPCInfo(&oldIpc), ECF_NOT_SUPPORTED);
    EXPECT_EQ(marked(ipc), 22);
    EXPECT_EQ(marked(oldIpc), 21);  // the old record ends before the last field
    EXPECT_EQ(oldIpc.semUndoStructuresMax.state, 0u);

    ZEPSystemDirectoryParam p;
    ZEPSystemDirectoryInfo i;
    i.reserved = 0xABCD;
    EXPECT_EQ(zepGetSystemDirectory(&p, &i), 0u);
    EXPECT_STREQ(i.path, "/usr/bin");
    EXPECT_EQ(i.reserved, 0xABCDu);

    // Bytes round up to whole mebibytes; 2^52 bytes are 2^32 MiB, of which the low word is kept.
    // clang-format off
    const struct { Uint64 bytes; Sint32 mb; } mb[] = {{0, 0}, {1, 1}, {1048576, 1}, {1048577, 2},
        {1ull << 52, 0}, {(1ull << 51) + 1, static_cast<Sint32>(0x80000001u)}};
    // clang-format on
    for (const auto& c : mb) EXPECT_EQ(zepBytesToMB(c.bytes), c.mb) << c.bytes;
}

// ---- this machine's values against other sources

TEST_F(SysInfo, ProcessorsMatchNprocAndSysfsAndTheProbePutsTheAffinityBack) {
    // Bound to the last processor before the process's first query, which runs the probe.
    cpu_set_t all, last, after;
    ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
    CPU_ZERO(&last);
    CPU_SET(sysconf(_SC_NPROCESSORS_ONLN) - 1, &last);
    ASSERT_EQ(sched_setaffinity(0, sizeof last, &last), 0);
    ZEPCPUInfo one, c;
    zepGetCPUInfo(&one);
    sched_getaffinity(0, sizeof after, &after);
    sched_setaffinity(0, sizeof all, &all);
    EXPECT_TRUE(CPU_EQUAL(&after, &last));
    EXPECT_EQ(one.processorsOnline.value, 1u);

    const Uint32 rc = zepGetCPUInfo(&c);
    EXPECT_EQ(rc, c.speedMHz.state ? ECF_PARTIAL_INFO : 0u);
    EXPECT_EQ(c.processorsTotal.value, number(run("nproc --all")));
    EXPECT_EQ(c.processorsConfigured.value, number(run("getconf _NPROCESSORS_ONLN")));
    // nproc knows the affinity; a CPU quota of the test's control group lowers it further.
    const Uint32 quota = groupLimits().cpuProcessors;
    const Uint64 usable = number(run("nproc"));
    EXPECT_EQ(c.processorsOnline.value, quota != 0 && quota < usable ? quota : usable);
}

TEST_F(SysInfo, MemoryMatchesMeminfoAndTheAddressSpaceLimit) {
    std::map<std::string, Uint64> kb;
    std::istringstream in(slurp("/proc/meminfo"));
    for (std::string line; std::getline(in, line);)
        kb[line.substr(0, line.find(':'))] = number(line.substr(line.find(':') + 1));
    const zepos::CONTROL_GROUP_LIMITS g = groupLimits();
    ZEPPhysMemInfo m;
    ZEPPhysSwapInfo s;
    ZEPVirtualMemInfo v;
    ASSERT_EQ(zepGetPhysMemInfo(&m) | zepGetPhysSwapInfo(&s) | zepGetVirtualMemInfo(&v), 0u);
    EXPECT_EQ(m.physTotal.value, zepBytesToMB(std::min(g.memoryLimit, kb["MemTotal"] << 10)));
    EXPECT_LE(m.physAllocatable.value, m.physFree.value);
    EXPECT_EQ(s.swapTotal.value, zepBytesToMB(std::min(g.swapLimit, kb["SwapTotal"] << 10)));
    EXPECT_EQ(v.virtualTotal.value, m.physTotal.value + s.swapTotal.value);
    EXPECT_NEAR(v.virtualFree.value, m.physFree.value + s.swapFree.value, 256);  // others move
    EXPECT_EQ(v.notSupported1.state & v.notSupported2.state, ECF_NOT_SUPPORTED);
#if defined(__x86_64__)
    EXPECT_EQ(m.addressSpaceTotal.value, 1 << 27);  // 128 TiB less a page, rounded up
#endif
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer's shadow memory needs more than the limit
    struct rlimit old, limit;
    getrlimit(RLIMIT_AS, &old);
    limit = {8ull << 30, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit) | static_cast<int>(zepGetPhysMemInfo(&m)), 0);
    setrlimit(RLIMIT_AS, &old);
    EXPECT_EQ(m.addressSpaceTotal.value, 8192);
    EXPECT_LE(m.physAllocatable.value, 8192);
#endif
}

TEST_F(SysInfo, OperatingSystemMatchesUnameAndCpuinfo) {
    ZEPOSInfo o;
    ASSERT_EQ(zepGetOSInfo(&o), ECF_PARTIAL_INFO);
    EXPECT_STREQ(o.osName.value, run("uname -s").c_str());
    EXPECT_STREQ(o.nodeName.value, run("uname -n").c_str());
    const std::string release = run("uname -r");
    EXPECT_STREQ(o.osRelease.value, release.c_str());
    EXPECT_EQ(
        release.compare(0, strlen(o.osVersion.value) + 1, o.osVersion.value + std::string(".")), 0);
#if defined(__x86_64__)
    EXPECT_EQ(std::string(o.processor.value), "AMD64 Family " + cpuinfo("cpu family") + ", model " +
                                                  cpuinfo("model") + ", stepping " +
                                                  cpuinfo("stepping"));
#endif
}

// ---- the probe on made-up processors

struct FakeMachine {
    const char* vendor;
    Uint32 leaf1eax;
    bool announcesThreads;  // EDX bit 28 of leaf 1
    Uint32 logical;         // logical processors per package, leaf 1 EBX bits 16-23
    Uint32 maxStandard, maxExtended, leaf4eax, ext8ecx;
    std::vector<Uint32> apic;  // initial APIC identifier of each processor
    uintptr_t mask;
    bool affinityUnreadable;
    int failingBind;  // the number of the binding call that fails, -1 none
    int current = 0, binds = 0;
    uintptr_t lastBound = 0;
};
FakeMachine* g_fake;

void fakeCpuid(Uint32 leaf, Uint32 r[4]) {
    FakeMachine& m = *g_fake;
    r[0] = r[1] = r[2] = r[3] = 0;
    if (leaf == 0) {
        r[0] = m.maxStandard;
        memcpy(&r[1], m.vendor, 4), memcpy(&r[3], m.vendor + 4, 4), memcpy(&r[2], m.vendor + 8, 4);
    } else if (leaf == 0x80000000u) {
        r[0] = m.maxExtended;
    } else if (leaf == 1) {
        r[0] = m.leaf1eax;
        r[1] = (m.apic.at(static_cast<size_t>(m.current)) << 24) | (m.logical << 16);
        r[3] = m.announcesThreads ? 1u << 28 : 0;
    } else {
        r[0] = leaf == 4 ? m.leaf4eax : 0;
        r[2] = leaf == 0x80000008u ? m.ext8ecx : 0;
    }
}
int fakeGet(uintptr_t* p, uintptr_t* s) {
    *p = *s = g_fake->mask;
    return !g_fake->affinityUnreadable;
}
int fakeSet(uintptr_t mask) {
    if (g_fake->binds++ == g_fake->failingBind) return 0;
    g_fake->lastBound = mask;
    if (__builtin_popcountll(mask) == 1) g_fake->current = __builtin_ctzll(mask);
    return 1;
}
void fakeYield() {}

TEST(TopologyProbe, MadeUpProcessors) {
    const Uint32 P4 = 0xF29, OLD6 = 0x6A7, EXT = 0x1006A5;  // family 15, 6, extended family 1
    const char *I = "GenuineIntel", *A = "AuthenticAMD", *V = "CentaurHauls";
    const Uint32 C2 = 1u << 26, C8 = 7u << 26, X8 = 0x80000008u;
    std::vector<Uint32> four = {0, 1, 2, 3}, forty(40, 0);
    const uintptr_t ALL40 = (1ull << 40) - 1;
    // clang-format off
    struct Case { const char* name; FakeMachine m; Uint32 threads, cores, entries; } cases[] = {
        {"one processor, no threading", {I, P4, false, 1, 2, 0, 0, 0, {0}, 1, false, -1}, 1, 1, 0},
        {"two cores of two threads", {I, P4, true, 4, 4, 0, C2, 0, four, 0xF, false, -1}, 2, 2, 4},
        {"bound to one processor", {I, P4, true, 4, 4, 0, C2, 0, four, 0x1, false, -1}, 0, 2, 1},
        {"two packages", {I, P4, true, 2, 4, 0, 0, 0, four, 0xF, false, -1}, 2, 1, 4},
        {"a gap in the mask", {I, P4, true, 2, 4, 0, 0, 0, four, 0x5, false, -1}, 1, 1, 2},
        {"an extended family", {I, EXT, true, 2, 4, 0, 0, 0, four, 0x3, false, -1}, 2, 1, 2},
        {"family 6: not probed", {I, OLD6, true, 16, 11, 0, C8, 0, four, 0xF, false, -1}, 1, 8, 0},
        {"no threading flag", {I, P4, false, 4, 4, 0, C2, 0, four, 0xF, false, -1}, 1, 2, 0},
        {"AMD: the extended leaf", {A, P4, true, 8, 13, X8, 0, 7, four, 0xF, false, -1}, 1, 8, 0},
        {"AMD without it", {A, P4, true, 8, 13, 0x80000004u, 0, 7, four, 0xF, false, -1}, 1, 1, 0},
        {"another vendor", {V, P4, true, 4, 4, X8, C2, 7, four, 0xF, false, -1}, 1, 1, 0},
        {"affinity unreadable", {I, P4, true, 4, 4, 0, C2, 0, four, 0xF, true, -1}, 0, 2, 0},
        {"second binding fails", {I, P4, true, 4, 4, 0, 0, 0, four, 0xF, false, 1}, 1, 1, 1},
        {"at most 32 noted", {I, P4, true, 255, 4, 0, 0, 0, forty, ALL40, false, -1}, 32, 1, 32},
    };
    // clang-format on
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        g_fake = &c.m;
        const ZepTopologyOps ops = {fakeCpuid, fakeGet, fakeSet, fakeYield};
        const ZepTopology t = zepProbeTopology(&ops);
        EXPECT_EQ(std::vector<Uint32>({t.threadsPerCore, t.coresPerPackage, t.packageEntries}),
                  std::vector<Uint32>({c.threads, c.cores, c.entries}));
        // Whatever happened, the affinity the probe read is the last one it set.
        EXPECT_EQ(c.m.binds > 0 ? c.m.lastBound : c.m.mask, c.m.mask);
    }
}

// ---- control groups

TEST(ControlGroupFiles, LimitsAndListsParse) {
    // clang-format off
    const struct { const char* text; Uint64 limit; } limits[] = {{"max\n", NO_LIMIT},
        {"-1\n", NO_LIMIT}, {"4611686018427387904", NO_LIMIT},
        {"4611686018427387903", 4611686018427387903ull}, {" 536870912 \n", 536870912},
        {"lots", NO_LIMIT}, {"99999999999999999999999", NO_LIMIT}};
    const struct { const char* text; Uint32 count; } lists[] = {
        {"0-3,8,10-11\n", 7}, {"", 0}, {"5-2", 0}};
    // clang-format on
    for (const auto& l : limits) EXPECT_EQ(zepos::sysfiles::ParseLimit(l.text), l.limit) << l.text;
    for (const auto& l : lists) EXPECT_EQ(zepos::sysfiles::CountCpuList(l.text), l.count) << l.text;
}

TEST_F(SysInfo, RecordedGroupsBoundMemorySwapAndProcessors) {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    const Uint32 mine = static_cast<Uint32>(CPU_COUNT(&set));
    // v2-nested: the parent's 512 MiB binds the child whose own limit is "max", the parent's usage
    // leaves 384 MiB, the child's swap limit and half a processor. v1: the sentinel above the
    // group, memory+swap less memory is the swap limit, 2.5 processors are 3. v1-unlimited: an old
    // kernel's meminfo without MemAvailable, one processor offline. v2-container: the mount's root
    // is taken off the group's path; the group is full.
    // clang-format off
    const struct { const char* dir; std::vector<Sint32> mb; Uint32 configured, online, quota; }
    cases[] = {  // mb: physTotal, physFree, swapTotal, swapFree
        {"v2-nested", {512, 384, 256, 192}, 8, 8, 1}, {"v1", {1024, 768, 512, 448}, 4, 4, 3},
        {"v1-unlimited", {16000, 7032, 0, 0}, 4, 3, 0}, {"v2-container", {2048, 0, 0, 0}, 16, 16, 4}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dir);
        zepos::SetSystemFilesRoot((std::string(ZEP_TEST_DATA_DIR "/sysinfo/") + c.dir).c_str());
        ZEPPhysMemInfo m;
        ZEPPhysSwapInfo s;
        ZEPCPUInfo p;
        ASSERT_EQ(zepGetPhysMemInfo(&m) | zepGetPhysSwapInfo(&s), 0u);
        calls.clear();
        trace(true);
        EXPECT_EQ(zepGetCPUInfo(&p), ECF_PARTIAL_INFO);  // no processor speed is recorded
        trace(false);
        EXPECT_EQ(p.speedMHz.state, ECF_FAILED);
        EXPECT_EQ(errorRecords(), Strings{at(ZEPFN_zepGetCPUInfo, 20)});
        EXPECT_EQ(valueOf<Uint32>(calls.at(1).items.at(0)), 2u);
        EXPECT_EQ(std::vector<Sint32>(
                      {m.physTotal.value, m.physFree.value, s.swapTotal.value, s.swapFree.value}),
                  c.mb);
        EXPECT_EQ(m.physAllocatable.value, m.physFree.value);
        EXPECT_EQ(p.processorsTotal.value, c.configured);
        EXPECT_EQ(p.processorsConfigured.value, c.online);
        EXPECT_EQ(p.processorsOnline.value, c.quota && c.quota < mine ? c.quota : mine);
    }

    // The group's directories are kept while /proc/self/cgroup reads the same; a process moved
    // elsewhere must be looked up again.
    ASSERT_EQ(system(("cp -r " ZEP_TEST_DATA_DIR "/sysinfo/v2-nested/. '" + dir_ + "'").c_str()),
              0);
    zepos::SetSystemFilesRoot(dir_.c_str());
    EXPECT_EQ(groupLimits().memoryLimit, 512 * MiB);
    put(path("proc/self/cgroup"), "0::/\n");
    EXPECT_EQ(groupLimits().memoryLimit, NO_LIMIT);
    EXPECT_EQ(groupLimits().cpuProcessors, 0u);
    unlink(path("proc/self/cgroup").c_str());  // none at all: the machine's values
    EXPECT_EQ(groupLimits().version, 0u);
    EXPECT_EQ(groupLimits().memoryLimit, NO_LIMIT);
}

}  // namespace
