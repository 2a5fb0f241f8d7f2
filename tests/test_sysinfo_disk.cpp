// Disks and mounts: the values of a path against df and stat, the wanted bits, the stamp and
// handle rules, a missing path, the drive kind from recorded /sys trees, and the walk over the
// mounts against the mount table, including a table too long for the list.
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
    // A recorded mount table in this test's own /proc.
    void table(const std::string& mountinfo) {
        ASSERT_EQ(system(("mkdir -p " + path("proc/self")).c_str()), 0);
        put(path("proc/self/mountinfo"), mountinfo);
        zepos::SetSystemFilesRoot(dir_.c_str());
    }
};

TEST_F(Disk, ValuesMatchDfAndStat) {
    for (const std::string& where : {dir_, std::string("/"), std::string("/dev/shm")}) {
        SCOPED_TRACE(where);
        ZEPDiskInfo d;
        ASSERT_EQ(query(where, ZEP_DISK_WANT_ALL, &d), ECF_PARTIAL_INFO);
        std::istringstream df(run("df -B1 --output=size,avail,fstype '" + where + "' | tail -1"));
        Uint64 size = 0, avail = 0;
        std::string type;
        df >> size >> avail >> type;
        EXPECT_EQ(static_cast<Uint64>(d.totalBytes.value), size);
        EXPECT_NEAR(static_cast<double>(d.freeBytes.value), static_cast<double>(avail), 256e6);
        // In a chroot the volume's mount may lie outside this process's view of the mount table:
        // df can't tell its type then, and the values that come from the mount table (type, name
        // length, drive kind) are failed, not guessed.
        const Uint32 volume = type == "-" ? F : 0;
        EXPECT_EQ(statesOf(d),
                  (std::vector<Uint32>{NS, 0, 0, NS, NS, NS, volume, volume, NS, volume, NS}));
        if (volume != 0) continue;
        EXPECT_EQ(d.driveKind.value, ZEP_DRIVE_FIXED);
        EXPECT_EQ(d.fileSystemType.value, type);
        EXPECT_EQ(d.maxComponentLength.value, number(run("stat -f -c %l '" + where + "'")));
    }
}

TEST_F(Disk, WantedBitsStampsHandlesAndFiles) {
    // 1 asks for all only alone; bit 2 names nothing.
    // clang-format off
    struct Case { Uint32 wanted; bool sizes, volume, kind; } cases[] = {
        {ZEP_DISK_WANT_ALL, true, true, true}, {ZEP_DISK_WANT_SIZE, true, false, false},
        {ZEP_DISK_WANT_FREE, true, false, false}, {ZEP_DISK_WANT_TYPE, false, true, false},
        {ZEP_DISK_WANT_MAX_COMPONENT, false, true, false},
        {ZEP_DISK_WANT_DRIVE_KIND, false, false, true}, {0, false, false, false},
        {3, false, false, false}};
    // clang-format on
    const bool visible = run("df --output=fstype '" + dir_ + "' | tail -1") != "-";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.wanted);
        ZEPDiskInfo d;
        EXPECT_EQ(query(dir_, c.wanted, &d), ECF_PARTIAL_INFO);
        EXPECT_EQ(d.totalBytes.value > 0 && d.freeBytes.value > 0, c.sizes);
        EXPECT_EQ(d.fileSystemType.value[0] != 0, c.volume && visible);
        EXPECT_EQ(d.maxComponentLength.value > 0, c.volume && visible);
        EXPECT_EQ(d.driveKind.value, c.kind && visible ? ZEP_DRIVE_FIXED : 0u);
        EXPECT_EQ(d.totalBytes.state | (visible ? d.fileSystemType.state | d.driveKind.state : 0),
                  0u);
    }

    // Handles are not supported for recent stamps and ignored for old ones.
    ZEPDiskInfo d, old;
    EXPECT_EQ(query(dir_, ZEP_DISK_WANT_ALL, &d, 5), ECF_NOT_SUPPORTED);
    EXPECT_EQ(statesOf(d), std::vector<Uint32>(11, NS));
    EXPECT_EQ(d.totalBytes.value, 0);
    old.notSupported6.value = 1234, old.notSupported6.state = 77;  // beyond an old record
    EXPECT_EQ(query(dir_, ZEP_DISK_WANT_ALL, &old, 5, 20050715u), ECF_PARTIAL_INFO);
    EXPECT_GT(old.totalBytes.value, 0);
    EXPECT_EQ(old.notSupported6.value, 1234);
    EXPECT_EQ(old.notSupported6.state, 77u);

    // The path is asked about with a separator added, as a directory: a file gives nothing.
    put(path("plain"), "x");
    ZEPDiskInfo f;
    EXPECT_EQ(query(path("plain"), ZEP_DISK_WANT_ALL, &f), ECF_FAILED);
    EXPECT_EQ(std::vector<Uint32>({f.totalBytes.state, f.fileSystemType.state, f.driveKind.state}),
              std::vector<Uint32>(3, F));
}

TEST_F(Disk, AMissingPathIsLoggedAndFailsEveryValue) {
    const struct {
        std::string path;
        Uint32 err, rc;
    } cases[] = {{path("absent"), 2, ECF_FILE_DOESNT_EXIST},
                 {path("no/such/dir"), 3, ECF_FILE_PATH_DOESNT_EXIST}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        calls.clear();
        trace(true);
        ZEPDiskInfo d;
        d.totalBytes.value = 99;
        const Uint32 rc = query(c.path, 0x84, &d);
        trace(false);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(statesOf(d), std::vector<Uint32>(11, F));
        EXPECT_EQ(d.totalBytes.value, 0);
        const Call& log = theLog(ZEPFN_zepGetDiskInfo, 25, c.rc, ZEP_LOG_ERROR);
        EXPECT_EQ(log.called, SYSFN_GetFileAttributes);
        EXPECT_EQ(log.err, c.err);
        ASSERT_EQ(log.items.size(), 2u);
        EXPECT_EQ(log.items[0].bytes, c.path);
        EXPECT_EQ(valueOf<Uint32>(log.items[1]), 0x84u);
        // The path traced at probe 5, the platform's error at probe 25 before the result.
        ASSERT_GE(calls.size(), 3u);
        EXPECT_EQ(calls[1].what + std::to_string(calls[1].probe), "var5");
        EXPECT_EQ(calls[1].items.at(0).bytes, c.path);
        const auto first = std::find_if(calls.begin(), calls.end(),
                                        [](const Call& k) { return k.what == "error"; });
        ASSERT_NE(first, calls.end());
        EXPECT_EQ(at(first->fid, first->probe), at(ZEPFN_zepGetDiskInfo, 25));
        EXPECT_EQ(valueOf<Uint32>(first->items.at(0)), c.err);
    }
}

// ---- recorded mount tables

TEST_F(Disk, TheMountTableParsesWithEscapesAndOptionalFields) {
    zepos::sysfiles::MountEntry m;
    ASSERT_TRUE(zepos::sysfiles::ParseMountLine(
        "40 27 8:17 / /mnt/usb\\040stick rw master:3 shared:9 - vfat LABEL\\040ONE rw,fmask=22",
        &m));
    EXPECT_EQ(Strings({m.mountPoint, m.source, m.type, m.superOptions}),
              Strings({"/mnt/usb stick", "LABEL ONE", "vfat", "rw,fmask=22"}));
    EXPECT_EQ(m.major * 100 + m.minor, 817u);
    ASSERT_TRUE(
        zepos::sysfiles::ParseMountLine("41 27 0:45 /exports /srv/nfs rw - nfs4 s:/e rw", &m));
    EXPECT_EQ(m.root, "/exports");
    for (const char* damaged : {"", "40 27 8:17 / /mnt rw", "40 27 817 / /mnt rw - ext4 a b",
                                "40 27 8:17 / /mnt rw - ext4"})
        EXPECT_FALSE(zepos::sysfiles::ParseMountLine(damaged, &m)) << damaged;
}

TEST_F(Disk, TheDriveListHoldsRealFileSystemsOnceAndNeverOverflows) {
    table(
        "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
        "23 27 0:22 / /sys rw,relatime - sysfs sysfs rw\n"
        "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
        "24 27 0:6 / /dev rw - devtmpfs devtmpfs rw\n"
        "26 24 0:24 / /dev/pts rw - devpts devpts rw\n"
        "25 24 0:23 / /dev/shm rw - tmpfs tmpfs rw\n"
        "30 24 0:27 / /dev/shm rw - tmpfs shm rw\n"
        "31 23 0:28 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n"
        "32 27 0:29 / /dev/mqueue rw - mqueue mqueue rw\n"
        "40 27 8:17 / /mnt/usb\\040stick rw master:3 - vfat LABEL\\040ONE rw\n"
        "41 27 0:45 /exports /srv/nfs rw - nfs4 server:/exports rw\n"
        "42 27 0:46 / /var/lib/overlay rw - overlay overlay rw,lowerdir=/a\n");
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
    EXPECT_EQ(drives(1024),
              (Strings{"/", "/dev/shm", "/mnt/usb stick", "/srv/nfs", "/var/lib/overlay"}));
    // "/" + "/dev/shm" + their NULs is 11 bytes, and the final empty string makes 12.
    EXPECT_EQ(drives(12), (Strings{"/", "/dev/shm"}));
    EXPECT_EQ(drives(11), (Strings{"/"}));

    // A table longer than the listing's list: the walk gets whole names, in order.
    std::string many;
    for (int i = 0; i < 60; ++i) {
        char line[200];
        snprintf(line, sizeof line,
                 "%d 1 8:%d / /data/volume-with-a-long-name-%02d rw - xfs /dev/sd%d rw\n", 100 + i,
                 i, i, i);
        many += line;
    }
    table(many);
    ZEPMountListing walk;
    ASSERT_EQ(walk.begin(), 0u);
    size_t names = 0, bytes = 0;
    for (const char* p = walk.drives; *p; p += strlen(p) + 1, ++names) {
        char expected[40];
        snprintf(expected, sizeof expected, "/data/volume-with-a-long-name-%02zu", names);
        EXPECT_STREQ(p, expected);
        bytes += strlen(p) + 1;
    }
    EXPECT_EQ(names, 1023u / 33u);  // each name 32 characters and its NUL; one byte ends the list
    EXPECT_LE(bytes + 1, sizeof walk.drives);
    EXPECT_EQ(walk.end(), 0u);
}

TEST_F(Disk, DriveKindFromTheBlockDevicesRemovableFlag) {
    // A partition (8:17, sdb1) of a disk whose flag says removable, a whole disk (8:0) that
    // says fixed, and the types that need no device.
    ASSERT_EQ(system(("mkdir -p " + path("sys/devices/pci/sdb/sdb1") + " " +
                      path("sys/devices/pci/sda") + " " + path("sys/dev/block"))
                         .c_str()),
              0);
    put(path("sys/devices/pci/sdb/removable"), "1\n");
    put(path("sys/devices/pci/sdb/sdb1/partition"), "1\n");
    put(path("sys/devices/pci/sda/removable"), "0\n");
    ASSERT_EQ(symlink("../../devices/pci/sdb/sdb1", path("sys/dev/block/8:17").c_str()), 0);
    ASSERT_EQ(symlink("../../devices/pci/sda", path("sys/dev/block/8:0").c_str()), 0);
    // clang-format off
    const struct { const char* major; const char* type; Uint32 platform, kind; } cases[] = {
        {"8:17", "vfat", zepos::DRIVE_REMOVABLE, ZEP_DRIVE_REMOVABLE},
        {"8:0", "ext4", zepos::DRIVE_FIXED, ZEP_DRIVE_FIXED},
        {"0:50", "overlay", zepos::DRIVE_FIXED, ZEP_DRIVE_FIXED},
        {"0:51", "tmpfs", zepos::DRIVE_RAMDISK, ZEP_DRIVE_FIXED},
        {"0:52", "nfs4", zepos::DRIVE_REMOTE, ZEP_DRIVE_FIXED},
        {"11:0", "iso9660", zepos::DRIVE_CDROM, ZEP_DRIVE_FIXED}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        table(std::string("1 1 ") + c.major + " / / rw - " + c.type + " /dev/x rw\n");
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

// ---- the walk over this machine's mounts

TEST_F(Disk, TheWalkFollowsTheMountTable) {
    // The real file systems of the table, each mount point once, in order.
    Strings expected, seen;
    std::istringstream table(slurp("/proc/self/mountinfo"));
    for (std::string line; std::getline(table, line);) {
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
        EXPECT_EQ(std::string(info.fileSystemType), type);
        EXPECT_EQ(std::string(info.volumeName), source);
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
    p.reserved = 0;
    EXPECT_EQ(walk.getNext(&p, &info), ECF_INVALID_INVOCATION_SEQUENCE);
}

}  // namespace
