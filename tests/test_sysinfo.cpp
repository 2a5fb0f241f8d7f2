// Processors, memory and the operating system: the values of this machine against independent
// sources (nproc, getconf, free, uname, /proc/cpuinfo, /sys), the record and stamp rules, and the
// topology probe on made-up processors.
#include <sched.h>

#include "zepos.h"
#include "zeptest_sys.h"
#include "zeptopology.h"

namespace {

using namespace zeptest;

Sint32 roundedMB(Uint64 bytes) {
    return static_cast<Sint32>((bytes + (1u << 20) - 1) >> 20);
}
std::string sysfs(const std::string& path) {
    const std::string s = slurp(path);
    return s == "<missing>" ? "" : s;
}
// The first "key : value" of /proc/cpuinfo.
std::string cpuinfo(const std::string& key) {
    std::istringstream in(slurp("/proc/cpuinfo"));
    for (std::string line; std::getline(in, line);) {
        const size_t colon = line.find(':');
        std::string k = line.substr(0, colon);
        while (!k.empty() && (k.back() == ' ' || k.back() == '\t')) k.pop_back();
        if (k == key && colon != std::string::npos) return line.substr(colon + 2);
    }
    return "";
}

using SysInfo = CaptureTest;

template <typename Record, Uint32 (*Query)(Record*)>
Uint32 stamped(Uint32 stamp, bool null) {
    Record r;
    r.version = stamp;
    return Query(null ? nullptr : &r);
}

TEST_F(SysInfo, NullAndOldRecordsAreRefusedAndLogged) {
    struct Case {
        Uint32 fid;
        Uint32 (*call)(Uint32 stamp, bool null);
    } cases[] = {
        {ZEPFN_zepGetCPUInfo, stamped<ZEPCPUInfo, zepGetCPUInfo>},
        {ZEPFN_zepGetPhysMemInfo, stamped<ZEPPhysMemInfo, zepGetPhysMemInfo>},
        {ZEPFN_zepGetPhysSwapInfo, stamped<ZEPPhysSwapInfo, zepGetPhysSwapInfo>},
        {ZEPFN_zepGetVirtualMemInfo, stamped<ZEPVirtualMemInfo, zepGetVirtualMemInfo>},
        {ZEPFN_zepGetOSInfo, stamped<ZEPOSInfo, zepGetOSInfo>},
        {ZEPFN_zepGetKernelIPCInfo, stamped<ZEPKernelIPCInfo, zepGetKernelIPCInfo>},
        {ZEPFN_zepGetSystemDirectory,
         [](Uint32 s, bool n) {
             ZEPSystemDirectoryParam p;
             p.version = s;
             ZEPSystemDirectoryInfo i;
             return zepGetSystemDirectory(n ? nullptr : &p, &i);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fid);
        calls.clear();
        EXPECT_EQ(c.call(ZEP_VERSION_WORD, true), ECF_INVALID_PARAMETER);
        theLog(c.fid, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
        calls.clear();
        EXPECT_EQ(c.call(20040701u, false), ECF_INVALID_VERSION);
        EXPECT_EQ(
            valueOf<Uint32>(theLog(c.fid, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR).items.at(0)),
            20040701u);
        calls.clear();
        c.call(20040702u, false);  // the oldest stamp taken
        EXPECT_EQ(logs(), Strings{});
    }
}

TEST_F(SysInfo, BytesRoundUpToWholeMebibytesKeepingTheLowWord) {
    // 2^52 bytes are 2^32 MiB: the low 32 bits are kept.
    // clang-format off
    const struct { Uint64 bytes; Sint32 mb; } cases[] = {
        {0, 0}, {1, 1}, {1048575, 1}, {1048576, 1}, {1048577, 2}, {25275711488ull, 24105},
        {(1ull << 47) - 4096, 1 << 27}, {1ull << 52, 0},
        {(1ull << 51) + 1, static_cast<Sint32>(0x80000001u)}};
    // clang-format on
    for (const auto& c : cases) EXPECT_EQ(zepBytesToMB(c.bytes), c.mb) << c.bytes;
}

// What a record's stamp decides: fields written or left, and what is not supported.
TEST_F(SysInfo, StampsDecideTheFieldsWrittenAndTheRecordIsTraced) {
    ZEPCPUInfo old;
    old.version = 20050714u;
    old.coresPerPackage.value = 77, old.coresPerPackage.state = 99;
    zepGetCPUInfo(&old);
    EXPECT_EQ(old.coresPerPackage.value, 77u);
    EXPECT_EQ(old.coresPerPackage.state, 99u);
    trace(true);
    ZEPCPUInfo now;
    now.version = 20050715u;
    const Uint32 rc = zepGetCPUInfo(&now);
    trace(false);
    EXPECT_GE(now.coresPerPackage.value, 1u);
    EXPECT_EQ(now.coresPerPackage.state, 0u);
    ASSERT_EQ(kinds(), (Strings{"entry", "var", "exit"}));
    EXPECT_EQ(calls[1].probe, 200u);
    EXPECT_EQ(calls[1].items.at(0).bytes, std::string(reinterpret_cast<char*>(&now), sizeof now));
    EXPECT_EQ(calls[2].rc, rc);

    ZEPOSInfo os, oldOs;
    oldOs.version = 20050714u;
    EXPECT_EQ(zepGetOSInfo(&os), ECF_PARTIAL_INFO);
    EXPECT_EQ(os.osExtra.state, ECF_NOT_SUPPORTED);
    EXPECT_EQ(zepGetOSInfo(&oldOs), 0u);
    for (const ZEPSysInfoStr* s : {&oldOs.osExtra, &oldOs.osName, &oldOs.nodeName, &oldOs.osVersion,
                                   &oldOs.osRelease, &oldOs.processor})
        EXPECT_EQ(s->state, 0u);

    // Every state of the IPC limits, counted over the record's words: a forgotten field shows.
    auto marked = [](const ZEPKernelIPCInfo& r) {
        int n = 0;
        for (size_t at = 0; at + 4 <= sizeof r; at += 4) {
            Uint32 w;
            memcpy(&w, reinterpret_cast<const char*>(&r) + at, 4);
            n += w == ECF_NOT_SUPPORTED;
        }
        return n;
    };
    ZEPKernelIPCInfo ipc, oldIpc;
    oldIpc.version = 20050331u;
    EXPECT_EQ(zepGetKernelIPCInfo(&ipc), ECF_NOT_SUPPORTED);
    EXPECT_EQ(zepGetKernelIPCInfo(&oldIpc), ECF_NOT_SUPPORTED);
    EXPECT_EQ(marked(ipc), 22);
    EXPECT_EQ(ipc.msgMessageSizeMax.state, ECF_NOT_SUPPORTED);
    EXPECT_EQ(marked(oldIpc), 21);  // the old record ends before the last field
    EXPECT_EQ(oldIpc.semAdjustMax.state, ECF_NOT_SUPPORTED);
    EXPECT_EQ(oldIpc.semUndoStructuresMax.state, 0u);

    ZEPSystemDirectoryParam p;
    ZEPSystemDirectoryInfo i;
    i.reserved = 0xABCD;
    calls.clear();
    trace(true);
    EXPECT_EQ(zepGetSystemDirectory(&p, &i), 0u);
    trace(false);
    EXPECT_STREQ(i.path, "/usr/bin");
    EXPECT_EQ(i.reserved, 0xABCDu);
    ASSERT_EQ(kinds(), (Strings{"entry", "var", "var", "exit"}));
    EXPECT_EQ(calls[1].probe, 10u);
    EXPECT_EQ(calls[2].probe, 100u);
    EXPECT_EQ(calls[2].items.at(0).bytes, "/usr/bin");
    EXPECT_EQ(valueOf<Uint32>(calls[2].items.at(1)), 8u);
}

// ---- this machine's values against other sources

TEST_F(SysInfo, ProcessorsMatchNprocGetconfCpuinfoAndSysfs) {
    ZEPCPUInfo c;
    const Uint32 rc = zepGetCPUInfo(&c);
    EXPECT_EQ(c.processorsTotal.value, number(run("nproc --all")));
    EXPECT_EQ(c.processorsConfigured.value, number(run("getconf _NPROCESSORS_ONLN")));
    // nproc knows the affinity; a CPU quota of the test's control group lowers it further.
    zepos::CONTROL_GROUP_LIMITS g;
    zepos::GetControlGroupLimits(&g);
    Uint64 usable = number(run("nproc"));
    if (g.cpuProcessors != 0 && g.cpuProcessors < usable) usable = g.cpuProcessors;
    EXPECT_EQ(c.processorsOnline.value, usable);

    const std::string freq = "/sys/devices/system/cpu/cpu0/cpufreq/";
    const std::string base = sysfs(freq + "base_frequency"), max = sysfs(freq + "cpuinfo_max_freq");
    const std::string mhz = cpuinfo("cpu MHz");
    if (!base.empty() || !max.empty()) {
        EXPECT_EQ(c.speedMHz.value, (number(base.empty() ? max : base) + 500) / 1000);
    } else if (!mhz.empty()) {
        EXPECT_EQ(c.speedMHz.value, static_cast<Uint32>(atof(mhz.c_str()) + 0.5));
    }
    const bool known = !base.empty() || !max.empty() || !mhz.empty();
    EXPECT_EQ(c.speedMHz.state, known ? 0u : ECF_FAILED);
    EXPECT_EQ(rc, known ? 0u : ECF_PARTIAL_INFO);

    const std::string topo = "/sys/devices/system/cpu/cpu0/topology/";
    const Uint32 siblings = zepos::sysfiles::CountCpuList(sysfs(topo + "thread_siblings_list"));
    const std::string pkg = sysfs(topo + "package_cpus_list");
    const Uint32 package =
        zepos::sysfiles::CountCpuList(pkg.empty() ? sysfs(topo + "core_siblings_list") : pkg);
    ASSERT_GE(siblings, 1u);
    // Threads are counted on processors that announce them the old way (a family field of 15,
    // or an extended family); others are taken as one thread per core.
    Uint32 r[4];
    zepos::Cpuid(1, r);
    const std::string vendor = cpuinfo("vendor_id");
    const bool announced = (((r[0] >> 8) & 0xF) == 0xF || ((r[0] >> 20) & 0xF) != 0) &&
                           (r[3] & (1u << 28)) != 0 && vendor == "GenuineIntel";
    EXPECT_EQ(c.threadsPerCore.value, announced ? siblings : 1u);
    // Cores per package: what the processor says it can address, never fewer than sysfs counts.
    if (vendor == "GenuineIntel" || vendor == "AuthenticAMD") {
        EXPECT_GE(c.coresPerPackage.value * siblings, package);
    }
}

TEST_F(SysInfo, TheProbeRunsInAFreshProcessAndPutsTheAffinityBack) {
    const long n = sysconf(_SC_NPROCESSORS_ONLN);
    std::map<std::string, std::string> all = sysinfoHelper("");
    cpu_set_t set;
    ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    unsigned long long mine = 0;
    for (int i = 0; i < 64; ++i)
        if (CPU_ISSET(i, &set)) mine |= 1ull << i;
    char hex[32];
    snprintf(hex, sizeof hex, "%llx", mine);
    EXPECT_EQ(all["affinity-after"], hex);
    EXPECT_EQ(all["rc-cpu"].substr(0, 1), "0");
    // Bound to the last processor: processorsOnline is that one, the binding survives.
    snprintf(hex, sizeof hex, "%llx", 1ull << (n - 1));
    std::map<std::string, std::string> one = sysinfoHelper(std::string("--affinity ") + hex);
    EXPECT_EQ(one["affinity-after"], hex);
    EXPECT_EQ(one["processorsOnline"], "1");
    EXPECT_EQ(one["processorsTotal"], all["processorsTotal"]);
}

TEST_F(SysInfo, MemoryMatchesFree) {
    // free -b: "Mem: total used free shared buff/cache available", "Swap: total used free".
    std::istringstream in(run("free -b"));
    Uint64 memTotal = 0, memAvailable = 0, swapTotal = 0, swapFree = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream l(line);
        std::string what;
        Uint64 a = 0, b = 0, c = 0, d = 0, e = 0, f = 0;
        l >> what >> a >> b >> c >> d >> e >> f;
        if (what == "Mem:") memTotal = a, memAvailable = f;
        if (what == "Swap:") swapTotal = a, swapFree = c;
    }
    ASSERT_GT(memTotal, 0u) << "free -b gave nothing";
    zepos::CONTROL_GROUP_LIMITS g;
    zepos::GetControlGroupLimits(&g);
    ZEPPhysMemInfo m;
    ZEPPhysSwapInfo s;
    ZEPVirtualMemInfo v;
    ASSERT_EQ(zepGetPhysMemInfo(&m) | zepGetPhysSwapInfo(&s) | zepGetVirtualMemInfo(&v), 0u);
    if (g.memoryLimit < memTotal) {
        EXPECT_EQ(m.physTotal.value, roundedMB(g.memoryLimit));
    } else {
        EXPECT_EQ(m.physTotal.value, roundedMB(memTotal));
        EXPECT_NEAR(m.physFree.value, roundedMB(memAvailable), 256);  // others come and go
    }
    EXPECT_LE(m.physFree.value, m.physTotal.value);
    EXPECT_LE(m.physAllocatable.value, m.physFree.value);
    if (g.swapLimit >= swapTotal) {
        EXPECT_EQ(s.swapTotal.value, roundedMB(swapTotal));
        EXPECT_NEAR(s.swapFree.value, roundedMB(swapFree), 64);
    }
    EXPECT_EQ(v.virtualTotal.value, m.physTotal.value + s.swapTotal.value);
    EXPECT_NEAR(v.virtualFree.value, m.physFree.value + s.swapFree.value, 256);
    EXPECT_EQ(v.notSupported1.state & v.notSupported2.state, ECF_NOT_SUPPORTED);
    EXPECT_EQ(v.virtualTotal.state | v.virtualFree.state, 0u);
#if defined(__x86_64__)
    EXPECT_EQ(m.addressSpaceTotal.value, 1 << 27);  // 128 TiB less a page, rounded up
#endif
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer's shadow memory needs more than the limit
    std::map<std::string, std::string> limited = sysinfoHelper("--rlimit-as 8589934592");
    EXPECT_EQ(limited["addressSpaceTotal"], "8192");
    EXPECT_LE(number(limited["physAllocatable"]), 8192u);
    EXPECT_EQ(limited["rc-mem"], "00000000");
#endif
}

TEST_F(SysInfo, OperatingSystemMatchesUnameAndCpuinfo) {
    ZEPOSInfo o;
    ASSERT_EQ(zepGetOSInfo(&o), ECF_PARTIAL_INFO);
    EXPECT_STREQ(o.osName.value, run("uname -s").c_str());
    EXPECT_STREQ(o.nodeName.value, run("uname -n").c_str());
    const std::string release = run("uname -r");
    EXPECT_STREQ(o.osRelease.value, release.c_str());
    int major = 0, minor = 0;
    ASSERT_EQ(sscanf(release.c_str(), "%d.%d", &major, &minor), 2);
    EXPECT_EQ(std::string(o.osVersion.value), std::to_string(major) + "." + std::to_string(minor));
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
        char v[13] = {};
        strncpy(v, m.vendor, 12);
        memcpy(&r[1], v, 4), memcpy(&r[3], v + 4, 4), memcpy(&r[2], v + 8, 4);
    } else if (leaf == 0x80000000u) {
        r[0] = m.maxExtended;
    } else if (leaf == 1) {
        r[0] = m.leaf1eax;
        r[1] = (m.apic.at(static_cast<size_t>(m.current)) << 24) | (m.logical << 16);
        r[3] = m.announcesThreads ? 1u << 28 : 0;
    } else if (leaf == 4) {
        r[0] = m.leaf4eax;
    } else if (leaf == 0x80000008u) {
        r[2] = m.ext8ecx;
    }
}
int fakeGet(uintptr_t* p, uintptr_t* s) {
    if (g_fake->affinityUnreadable) return 0;
    *p = g_fake->mask, *s = g_fake->mask;
    return 1;
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
        EXPECT_EQ(t.threadsPerCore, c.threads);
        EXPECT_EQ(t.coresPerPackage, c.cores);
        EXPECT_EQ(t.packageEntries, c.entries);
        // Whatever happened, the affinity the probe read is the last one it set.
        EXPECT_EQ(c.m.binds > 0 ? c.m.lastBound : c.m.mask, c.m.mask);
    }
}

}  // namespace
