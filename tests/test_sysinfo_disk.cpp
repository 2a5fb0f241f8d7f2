// Disks and mounts: the wanted bits, the states, the stamp and handle rules, a missing path, the
// drive list and the drive kind from recorded mount tables and /sys trees, and the walk over this
// machine's mounts against its mount table.
#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

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

class Disk : public CaptureTest {
protected:
    void TearDown() override {
        zepos::SetSystemFilesRoot(nullptr);
        CaptureTest::TearDown();
    }
    void table(const std::string& mountinfo) {  // a recorded mount table in this test's /proc
        ASSERT_EQ(system(("mkdir -p " + path("proc/self")).c_str()), 0);
        put(path("proc/self/mountinfo"), mountinfo);
        zepos::SetSystemFilesRoot(dir_.c_str());
    }
};

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
    EXPECT_EQ(calls[1].items.at(0).bytes + calls[6].items.at(0).bytes,
              path("absent") + path("absent"));
    EXPECT_EQ(valueOf<Uint32>(calls[5].items.at(0)) + valueOf<Uint32>(calls[6].items.at(1)),
              2u + 0x84u);
}

TEST_F(Disk, TheDriveListHoldsRealFileSystemsOnceAndNeverOverflows) {
    table(
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

TEST_F(Disk, DriveKindFromTheBlockDevicesRemovableFlag) {
    // A partition (8:17, sdb1) of a disk whose flag says removable, a whole disk (8:0) that
    // says fixed, and the types that need no device.
    ASSERT_EQ(system(("mkdir -p " + path("sys/devices/pci/sdb/sdb1") + " " +
                      path("sys/devices/pci/sda") + " " + path("sys/dev/block"))
                         .c_str()),
              0);
    put(path("sys/devices/pci/sdb/removable"), "1\n");
    put(path("sys/devices/pci/sda/removable"), "0\n");
    ASSERT_EQ(symlink("../../devices/pci/sdb/sdb1", path("sys/dev/block/8:17").c_str()), 0);
    ASSERT_EQ(symlink("../../devices/pci/sda", path("sys/dev/block/8:0").c_str()), 0);
    // clang-format off
    const struct { const char* device; const char* type; Uint32 platform, kind; } cases[] = {
        {"8:17", "vfat", zepos::DRIVE_REMOVABLE, ZEP_DRIVE_REMOVABLE},
        {"8:0", "ext4", zepos::DRIVE_FIXED, ZEP_DRIVE_FIXED},
        {"0:50", "overlay", zepos::DRIVE_FIXED, ZEP_DRIVE_FIXED},
        {"0:51", "tmpfs", zepos::DRIVE_RAMDISK, ZEP_DRIVE_FIXED},
        {"0:52", "nfs4", zepos::DRIVE_REMOTE, ZEP_DRIVE_FIXED},
        {"11:0", "iso9660", zepos::DRIVE_CDROM, ZEP_DRIVE_FIXED}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        table(std::string("1 1 ") + c.device + " / / rw - " + c.type + " /dev/x rw\n");
        EXPECT_EQ(zepos::GetDriveTypeA("/"), c.platform);
        ZEPDiskInfo d;
        EXPECT_EQ(query("/", ZEP_DISK_WANT_DRIVE_KIND | ZEP_DISK_WANT_TYPE, &d), ECF_PARTIAL_INFO);
        EXPECT_EQ(d.driveKind.value, c.kind);
        EXPECT_STREQ(d.fileSystemType.value, c.type);
    }
    table("");  // no mount holds the path: the kind is unknown
    ZEPDiskInfo d;
    trace(true);
    EXPECT_EQ(query("/", ZEP_DISK_WANT_DRIVE_KIND, &d), ECF_PARTIAL_INFO);
    trace(false);
    EXPECT_EQ(d.driveKind.state, F);
    EXPECT_EQ(errorRecords().back(), at(ZEPFN_zepGetDiskInfo, 50));
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
        std::istringstream df(run("df -B1 --output=size,fstype,source / | tail -1"));
        Uint64 size;
        std::string type, source;
        df >> size >> type >> source;
        EXPECT_EQ(info.totalMB, (size + 0xFFFFF) >> 20);
        EXPECT_EQ(std::string(info.fileSystemType) + " " + info.volumeName, type + " " + source);
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

}  // namespace
