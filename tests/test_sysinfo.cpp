// The system's processors, memory, operating system, disks and load: this machine's values against
// independent sources (nproc, uname, df, /proc, /sys), the record and stamp rules, the topology
// probe on made-up processors, and recorded machines (control groups, mount tables, /proc/stat
// samples) read through the test root.
#include <dlfcn.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <functional>

#include "zepcpuusage.h"
#include "zepos.h"
#include "zeptest_sys.h"
#include "zeptopology.h"

namespace {

std::function<void()> g_betweenSamples;

}  // namespace

// The load query sleeps between its two samples through the library's exported zepSleep, which
// this program defines: a test writes the second sample there.
extern "C" Uint32 zepSleep(Uint32 milliseconds) {
    if (g_betweenSamples) g_betweenSamples();
    return reinterpret_cast<Uint32 (*)(Uint32)>(dlsym(RTLD_NEXT, "zepSleep"))(milliseconds);
}

namespace {

using namespace zeptest;
using zepos::sysfiles::NO_LIMIT;
const Uint64 MiB = 1 << 20;

zepos::CONTROL_GROUP_LIMITS groupLimits() {
    zepos::CONTROL_GROUP_LIMITS g;
    zepos::GetControlGroupLimits(&g);
    return g;
}

Uint32 query(const std::string& path, Uint32 wanted, ZEPDiskInfo* info, Sint32 handle = -1,
             Uint32 stamp = ZEP_VERSION_WORD) {
    ZEPDiskInfoParam p;
    p.version = stamp, p.path = path.c_str(), p.wanted = wanted, p.handle = handle;
    return zepGetDiskInfo(&p, info);
}
std::vector<Uint32> statesOf(const ZEPDiskInfo& d) {
    return {d.notSupported1.state,      d.totalBytes.state,     d.freeBytes.state,
            d.notSupported2.state,      d.notSupported3.state,  d.notSupported4.state,
            d.maxComponentLength.state, d.fileSystemType.state, d.notSupported5.state,
            d.driveKind.state,          d.notSupported6.state};
}
const Uint32 NS = ECF_NOT_SUPPORTED, F = ECF_FAILED;

class SysInfo : public CaptureTest {
protected:
    void TearDown() override {
        zepos::SetSystemFilesRoot(nullptr);
        g_betweenSamples = nullptr;
        CaptureTest::TearDown();
    }
    // This test's directory as the system's files, with a recorded mount table if one is given.
    void root(const std::string& mountinfo = "") {
        ASSERT_EQ(system(("mkdir -p " + path("proc/self")).c_str()), 0);
        if (!mountinfo.empty()) put(path("proc/self/mountinfo"), mountinfo);
        zepos::SetSystemFilesRoot(dir_.c_str());
    }
};
using Disk = SysInfo;
using Load = SysInfo;

TEST_F(SysInfo, RecordChecksStampsAndTraces) {
    EXPECT_EQ(zepGetOSInfo(nullptr), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_zepGetOSInfo, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
    ZEPOSInfo os, oldOs;
    os.version = 20040701u, oldOs.version = 20050714u;
    calls.clear();
    EXPECT_EQ(zepGetOSInfo(&os), ECF_INVALID_VERSION);
    theLog(ZEPFN_zepGetOSInfo, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
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
    oldIpc.version = 20050331u;  // the old record ends before the last field
    EXPECT_EQ(zepGetKernelIPCInfo(&ipc) & zepGetKernelIPCInfo(&oldIpc), ECF_NOT_SUPPORTED);
    EXPECT_EQ(marked(ipc) * 100 + marked(oldIpc), 2221);

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
    // nproc knows the affinity; a CPU quota of the test's control group lowers it further.
    const Uint32 quota = groupLimits().cpuProcessors;
    const Uint64 usable = number(run("nproc"));
    EXPECT_EQ(c.processorsOnline.value, quota != 0 && quota < usable ? quota : usable);
}

TEST_F(SysInfo, MemoryTotalsAndTheAddressSpaceLimit) {
    ZEPPhysMemInfo m;
    ZEPPhysSwapInfo s;
    ZEPVirtualMemInfo v;
    ASSERT_EQ(zepGetPhysMemInfo(&m) | zepGetPhysSwapInfo(&s) | zepGetVirtualMemInfo(&v), 0u);
    EXPECT_EQ(v.virtualTotal.value, m.physTotal.value + s.swapTotal.value);
    EXPECT_NEAR(v.virtualFree.value, m.physFree.value + s.swapFree.value, 256);  // others move
    EXPECT_EQ(v.notSupported1.state & v.notSupported2.state, ECF_NOT_SUPPORTED);
#if defined(__x86_64__)
    EXPECT_EQ(m.addressSpaceTotal.value, 1 << 27);  // 128 TiB less a page, rounded up
#endif
    // A limit on the address space bounds both; not where a sanitizer's shadow maps more already.
    if (number(slurp("/proc/self/statm")) * sysconf(_SC_PAGESIZE) < (4ull << 30)) {
        struct rlimit old, limit;
        getrlimit(RLIMIT_AS, &old);
        limit = {8ull << 30, old.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_AS, &limit) | static_cast<int>(zepGetPhysMemInfo(&m)), 0);
        setrlimit(RLIMIT_AS, &old);
        EXPECT_EQ(m.addressSpaceTotal.value, 8192);
        EXPECT_LE(m.physAllocatable.value, 8192);
    }
}

TEST_F(SysInfo, OperatingSystemMatchesUname) {
    ZEPOSInfo o;
    ASSERT_EQ(zepGetOSInfo(&o), ECF_PARTIAL_INFO);
    EXPECT_STREQ(o.osName.value, run("uname -s").c_str());
    EXPECT_STREQ(o.nodeName.value, run("uname -n").c_str());
    const std::string release = run("uname -r");
    EXPECT_STREQ(o.osRelease.value, release.c_str());
    EXPECT_EQ(
        release.compare(0, strlen(o.osVersion.value) + 1, o.osVersion.value + std::string(".")), 0);
#if defined(__x86_64__)
    int family, model, stepping;
    EXPECT_EQ(sscanf(o.processor.value, "AMD64 Family %d, model %d, stepping %d", &family, &model,
                     &stepping),
              3);
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
    const struct {
        const char* dir;
        std::vector<Sint32> mb;
        Uint32 configured, online, quota;
    }
    cases[] = {  // mb: physTotal, physFree, swapTotal, swapFree
        {"v2-nested", {512, 384, 256, 192}, 8, 8, 1},
        {"v1", {1024, 768, 512, 448}, 4, 4, 3},
        {"v1-unlimited", {16000, 7032, 0, 0}, 4, 3, 0},
        {"v2-container", {2048, 0, 0, 0}, 16, 16, 4}};
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
}

// ---- disks and mounts

TEST_F(Disk, WantedBitsStampsHandlesAndFiles) {
    // 1 asks for all only alone; bit 2 names nothing.
    // clang-format off
    const struct { Uint32 wanted; bool sizes, volume, kind; } cases[] = {
        {ZEP_DISK_WANT_ALL, true, true, true}, {ZEP_DISK_WANT_FREE, true, false, false},
        {ZEP_DISK_WANT_MAX_COMPONENT, false, true, false},
        {ZEP_DISK_WANT_DRIVE_KIND, false, false, true}, {0, false, false, false},
        {3, false, false, false}};
    // clang-format on
    const bool visible = run("df --output=fstype '" + dir_ + "' | tail -1") != "-";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.wanted);
        ZEPDiskInfo d;
        EXPECT_EQ(query(dir_, c.wanted, &d), ECF_PARTIAL_INFO);
        EXPECT_EQ(d.totalBytes.value > 0 && d.freeBytes.value > 0, c.sizes);
        EXPECT_EQ(d.fileSystemType.value[0] != 0, c.volume && visible);
        EXPECT_EQ(d.maxComponentLength.value > 0, c.volume && visible);
        EXPECT_EQ(d.driveKind.value, c.kind && visible ? ZEP_DRIVE_FIXED : 0u);
        // In a chroot the volume's mount may lie outside this process's view of the mount table:
        // what comes from the table is failed then, not guessed.
        const Uint32 v = visible ? 0 : F;
        const std::vector<Uint32> all = {NS, 0, 0, NS, NS, NS, v, v, NS, v, NS};
        EXPECT_EQ(c.wanted == ZEP_DISK_WANT_ALL ? statesOf(d) : all, all);
    }

    // Handles are not supported for recent stamps and ignored for old ones.
    ZEPDiskInfo d, old;
    EXPECT_EQ(query(dir_, ZEP_DISK_WANT_ALL, &d, 5), ECF_NOT_SUPPORTED);
    EXPECT_EQ(statesOf(d), std::vector<Uint32>(11, NS));
    old.notSupported6.value = 1234, old.notSupported6.state = 77;  // beyond an old record
    EXPECT_EQ(query(dir_, ZEP_DISK_WANT_ALL, &old, 5, 20050715u), ECF_PARTIAL_INFO);
    EXPECT_GT(old.totalBytes.value, 0);
    EXPECT_EQ(old.notSupported6.value + old.notSupported6.state, 1234 + 77);

    // The path is asked about with a separator added, as a directory: a file gives nothing.
    put(path("plain"), "x");
    EXPECT_EQ(query(path("plain"), ZEP_DISK_WANT_ALL, &d), ECF_FAILED);
    EXPECT_EQ(std::vector<Uint32>({d.totalBytes.state, d.fileSystemType.state, d.driveKind.state}),
              std::vector<Uint32>(3, F));

    // A path that isn't there: traced at 5, the platform's error at 25, logged, all failed.
    calls.clear();
    trace(true);
    d.totalBytes.value = 99;
    EXPECT_EQ(query(path("absent"), 0x84, &d), ECF_FILE_DOESNT_EXIST);
    trace(false);
    EXPECT_EQ(statesOf(d), std::vector<Uint32>(11, F));
    EXPECT_EQ(d.totalBytes.value, 0);
    EXPECT_EQ(said(),
              "entry zepGetDiskInfo; var zepGetDiskInfo p5 t3 n1; entry zepIsNTVolume; var "
              "zepIsNTVolume p10 t3 n1; exit zepIsNTVolume OK; error zepGetDiskInfo p25 t4 "
              "n1; logsys zepGetDiskInfo GetFileAttributes 2 ECF_FILE_DOESNT_EXIST p25 L2 "
              "m80000003; error zepGetDiskInfo p25 t4 n1; exit zepGetDiskInfo "
              "ECF_FILE_DOESNT_EXIST");
    EXPECT_EQ(calls[6].items.at(0).bytes, path("absent"));
}

TEST_F(Disk, TheDriveListHoldsRealFileSystemsOnceAndNeverOverflows) {
    root(
        "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
        "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
        "24 27 0:6 / /dev rw - devtmpfs devtmpfs rw\n"
        "25 24 0:23 / /dev/shm rw - tmpfs tmpfs rw\n"
        "30 24 0:27 / /dev/shm rw - tmpfs shm rw\n"
        "31 23 0:28 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n"
        "40 27 8:17 / /mnt/usb\\040stick rw master:3 - vfat LABEL\\040ONE rw\n"
        "40 27 8:17 / /damaged/no/separator rw\n"
        "40 27 817 / /damaged/device rw - ext4 a b\n"
        "40 27 8:17 / /damaged/no/source rw - ext4\n"
        "41 27 0:45 /exports /srv/nfs rw - nfs4 server:/exports rw\n");
    auto drives = [](Uint32 size) {
        std::vector<char> buf(size + 16, '#');
        const Uint32 n = zepos::GetLogicalDriveStringsA(size, buf.data());
        EXPECT_EQ(std::string(buf.begin() + size, buf.end()), std::string(16, '#'));
        EXPECT_EQ(buf[n], 0);
        Strings out;
        for (Uint32 at = 0; at < n; at += static_cast<Uint32>(strlen(&buf[at])) + 1)
            out.emplace_back(&buf[at]);
        return out;
    };
    EXPECT_EQ(drives(1024), (Strings{"/", "/dev/shm", "/mnt/usb stick", "/srv/nfs"}));
    // "/" + "/dev/shm" + their NULs is 11 bytes, and the final empty string makes 12.
    EXPECT_EQ(drives(12), (Strings{"/", "/dev/shm"}));
    EXPECT_EQ(drives(11), (Strings{"/"}));
}

TEST_F(Disk, TheWalkFollowsTheMountTable) {
    // The real file systems of the table, each mount point once, in order.
    Strings expected, seen;
    std::istringstream mounts(slurp("/proc/self/mountinfo"));
    for (std::string line; std::getline(mounts, line);) {
        zepos::sysfiles::MountEntry m;
        if (zepos::sysfiles::ParseMountLine(line, &m) &&
            !zepos::sysfiles::IsPseudoFileSystem(m.type) &&
            std::find(expected.begin(), expected.end(), m.mountPoint) == expected.end())
            expected.push_back(m.mountPoint);
    }
    ZEPMountListing walk;
    ZEPMountListingGetParam p;
    ZEPMountInfo info;
    ASSERT_EQ(walk.begin(), 0u);
    calls.clear();
    EXPECT_EQ(walk.begin(), ECF_INVALID_INVOCATION_SEQUENCE);  // the first walk goes on
    theLog(ZEPFN_ZEPMountListing_begin, 10, ECF_INVALID_INVOCATION_SEQUENCE, ZEP_LOG_INFO);
    for (Uint32 rc; (rc = walk.getNext(&p, &info)) != ECF_FILE_EOF;) {
        if (rc != 0) continue;  // unmounted meanwhile, or refused
        seen.push_back(info.path);
        EXPECT_EQ(info.reserved, 0u);
        if (seen.back() != "/") continue;
        struct statvfs v;
        ASSERT_EQ(statvfs("/", &v), 0);
        EXPECT_EQ(info.totalMB, (v.f_blocks * v.f_frsize + 0xFFFFF) >> 20);
        EXPECT_EQ(std::string(info.fileSystemType) + " " + info.volumeName,
                  run("df --output=fstype,source / | tail -1 | tr -s ' '"));
    }
    EXPECT_EQ(seen, expected);
    calls.clear();
    EXPECT_EQ(walk.getNext(&p, &info), ECF_FILE_EOF);
    theLog(ZEPFN_ZEPMountListing_getNext, 30, ECF_FILE_EOF, ZEP_LOG_INFO);
    EXPECT_EQ(walk.getNext(&p, &info), ECF_FILE_EOF);
    p.reserved = 1;
    calls.clear();
    EXPECT_EQ(walk.getNext(&p, &info), ECF_INVALID_INVOCATION_SEQUENCE);
    theLog(ZEPFN_ZEPMountListing_getNext, 20, ECF_INVALID_INVOCATION_SEQUENCE, ZEP_LOG_ERROR);
    EXPECT_EQ(walk.end(), 0u);
    calls.clear();
    EXPECT_EQ(walk.end(), ECF_INVALID_INVOCATION_SEQUENCE);
    theLog(ZEPFN_ZEPMountListing_end, 10, ECF_INVALID_INVOCATION_SEQUENCE, ZEP_LOG_INFO);
}

// ---- processor load

TEST_F(Load, AveragesAreTheKernelsAndAnUnreadableFileFailsThemAll) {
    root();
    put(path("proc/loadavg"), "0.40 1.35 12.06 1/93 17642\n");
    ZEPAvgCPULoadInfo a;
    EXPECT_EQ(zepGetAvgCPULoad(&a), 0u);
    EXPECT_EQ(std::vector<double>({a.load1.value, a.load5.value, a.load15.value}),
              std::vector<double>({0.40, 1.35, 12.06}));
    EXPECT_EQ(a.load1.state | a.load5.state | a.load15.state, 0u);
    for (const char* damaged : {"", "0.40 1.35\n", "busy\n", static_cast<const char*>(nullptr)}) {
        damaged ? put(path("proc/loadavg"), damaged) : void(unlink(path("proc/loadavg").c_str()));
        ZEPAvgCPULoadInfo b;
        EXPECT_EQ(zepGetAvgCPULoad(&b), ECF_FAILED) << (damaged ? damaged : "none");
        EXPECT_EQ(b.load1.state & b.load5.state & b.load15.state, ECF_FAILED);
    }
}

TEST_F(Load, UsageIsTheShareOfTheTicksBetweenTwoSamples) {
    root();
    const double F = -1;  // a counter with no value: its state ECF_FAILED
    const struct {
        const char* name;
        const char* before;
        const char* after;
        Uint32 rc;
        double value[5];  // processor, user, privileged, interrupt, idle
    } cases[] = {
        // 1000 ticks: user 300 + nice 100, system 150, idle 300 + iowait 100, irq 20 + softirq 30.
        // Steal is busy time of the machine, in no other counter.
        // clang-format off
        {"a kernel of today", "cpu  1000 10 500 9000 40 0 5 0 0 0\ncpu0 1 2 3 4 5 6 7 8 9 10\n",
         "cpu  1300 110 650 9300 140 20 35 0 0 0\n", 0, {60, 40, 15, 5, 40}},
        {"steal counts as busy", "cpu  0 0 0 0 0 0 0 0\n", "cpu  100 0 0 700 0 0 0 200\n", 0,
         {30, 10, 0, 0, 70}},
        {"four fields: no interrupt counter", "cpu  100 0 100 800\n", "cpu  200 0 150 1150\n", 0,
         {30, 20, 10, F, 70}},
        {"no ticks between", "cpu  5 5 5 5 5 5 5 5\n", "cpu  5 5 5 5 5 5 5 5\n", ECF_FAILED,
         {F, F, F, F, F}},
        {"a counter going back", "cpu  500 0 0 500 0 0 0 0\n", "cpu  400 0 0 900 0 0 0 0\n",
         ECF_FAILED, {F, F, F, F, F}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        put(path("proc/stat"), c.before);
        const std::string stat = path("proc/stat"), after = c.after;
        g_betweenSamples = [&] { put(stat, after); };
        ZEPCPUUsageInfo u;
        u.interval = 1;
        EXPECT_EQ(zepGetCPUUsage(&u), c.rc);
        const ZEPSysInfoDouble* got[5] = {&u.processorTime, &u.userTime, &u.privilegedTime,
                                          &u.interruptTime, &u.idleTime};
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(got[i]->state, c.value[i] == F ? ECF_FAILED : 0u) << i;
            EXPECT_NEAR(c.value[i] == F ? F : got[i]->value, c.value[i], 1e-9) << i;
        }
    }

    // The trace: the record at 10, each counter without a value with its status and index at 80,
    // and an error record at 90 only when none had one; no log record ever.
    const struct {
        const char* after;
        std::string said;
    } traced[] = {
        {"cpu  100 0 100 800\n",
         "p10 t3 n1; var zepGetCPUUsage p80 t3 n2; var zepGetCPUUsage p80 t3 "
         "n2; var zepGetCPUUsage p80 t3 n2; var zepGetCPUUsage p80 t3 n2; "
         "var zepGetCPUUsage p80 t3 n2; error zepGetCPUUsage p90 t4 n1; "
         "exit zepGetCPUUsage ECF_FAILED"},
        {nullptr, "p10 t3 n1; error zepGetCPUUsage p50 t4 n1; exit zepGetCPUUsage ECF_FAILED"},
    };
    for (const auto& t : traced) {
        put(path("proc/stat"), "cpu  100 0 100 800\n");
        const std::string stat = path("proc/stat"), after = t.after ? t.after : "";
        g_betweenSamples = [&] { put(stat, after); };
        if (!t.after) unlink(stat.c_str());
        calls.clear();
        trace(true);
        ZEPCPUUsageInfo u;
        u.interval = 1;
        zepGetCPUUsage(&u);
        trace(false);
        EXPECT_EQ(said(), "entry zepGetCPUUsage; var zepGetCPUUsage " + t.said);
    }
    EXPECT_EQ(valueOf<Uint32>(calls.at(2).items.at(0)), zepos::PDH_NO_DATA);
}

}  // namespace
