// Path-level operations as callers rely on them: the names they compute byte for byte, the codes
// and log records of their failures, and what they change (or leave) on disk.
#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;
using File = CaptureTest;

TEST_F(File, DirectoryAndBaseNamesOfThePathForms) {
    // Volume and device names are decided by their bytes, case-sensitive; others split.
    // clang-format off
    struct Row { const char* path; const char* dir; const char* base; } rows[] = {
        {"C:/a/b", "C:/a", "b"}, {"C:/a", "C:", "a"}, {"C:/", ".", "C:"}, {"a/", ".", "a"},
        {"/a", "/", "a"}, {"/", "/", "/"}, {"a//b", "a/", "b"}, {"C:/a/", "C:", "a"},
        {"name", ".", "name"}, {"//./pipe", "//.", "pipe"},
        {"//./PhysicalDrive0", "//./PhysicalDrive0", "PhysicalDrive0"}, {"//./C:", "//./C:", "C:"},
        {"//./physicaldrive0", "//.", "physicaldrive0"}, {"//./x:y/z", "//./x:y/z", "z"},
        {"//?/Volume{1}/x", "//?/Volume{1}/x", "x"}, {"//?/volume/x", "//?/volume", "x"},
    };
    // clang-format on
    for (const Row& r : rows) {
        char dir[64], base[64];
        EXPECT_EQ(zepDirectoryName(r.path, dir, sizeof dir), 0u) << r.path;
        EXPECT_STREQ(dir, r.dir) << r.path;
        EXPECT_EQ(zepBaseName(r.path, base, sizeof base), 0u) << r.path;
        EXPECT_STREQ(base, r.base) << r.path;
    }

    // The directory name needs its length and the NUL, and is emptied when it has no room; the
    // base name counts to the NUL with a trailing separator and is left alone.
    char buf[8] = "zzzzzzz";
    EXPECT_EQ(zepBaseName("x/ab/", buf, 3), ECF_BUFFER_TOO_SMALL);
    EXPECT_STREQ(buf, "zzzzzzz");
    EXPECT_EQ(zepBaseName("x/ab/", buf, 4), 0u);
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(zepDirectoryName("/ab/c", buf, 3), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(buf[0], 0);
    EXPECT_EQ(zepDirectoryName("/ab/c", buf, 4), 0u);
    EXPECT_STREQ(buf, "/ab");
    EXPECT_EQ(zepBaseName("", buf, 4), ECF_INVALID_PARAMETER);
    EXPECT_EQ(zepDirectoryName(nullptr, buf, 4), ECF_INVALID_PARAMETER);
    EXPECT_EQ(said(),
              "log zepBaseName ECF_BUFFER_TOO_SMALL p30 L4 n2; "
              "log zepDirectoryName ECF_BUFFER_TOO_SMALL p30 L4 n2; "
              "log zepBaseName ECF_INVALID_PARAMETER p10 L4 n0; "
              "log zepDirectoryName ECF_INVALID_PARAMETER p10 L4 n0");
}

TEST_F(File, InfoAndTypesOfFilesDirectoriesAndOthers) {
    std::string f = path("f"), fifo = path("fifo");
    put(f, std::string(70000, 'x'));
    ASSERT_EQ(chmod(f.c_str(), 04751), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ZEPFileGetInfoParam p;
    p.path = f.c_str();
    ZEPFileInfo info;
    trace(true);
    ASSERT_EQ(zepFileGetInfo(p, &info), 0u);
    trace(false);
    EXPECT_EQ(said(),
              "entry zepGetFileInfo; var zepGetFileInfo p10 t3 n2; "
              "var zepGetFileInfo p20 t3 n1; exit zepGetFileInfo OK");
    EXPECT_EQ(std::make_tuple(info.size, info.type, info.permissions),
              std::make_tuple(Uint64{70000}, 0x8000u, 04751u));
    EXPECT_EQ(std::to_string(info.owner) + " " + std::to_string(info.modified[0]),
              run("stat -c '%u %Y' " + f));

    // Neither file nor directory: type 0, the rest left alone, the 16-bit mode logged.
    calls.clear();
    info.size = 1234;
    p.path = fifo.c_str();
    EXPECT_EQ(zepFileGetInfoV9(&p, &info), ECF_FILE_UNKNOWN_FILE_TYPE);
    EXPECT_EQ(info.type, 0u);
    EXPECT_EQ(info.size, 1234u);
    EXPECT_EQ(
        valueOf<Uint16>(theLog(ZEPFN_zepGetFileInfo, 60, ECF_FILE_UNKNOWN_FILE_TYPE).items.at(0)),
        0x1180u);

    // The quick tests: neither traces nor logs; a trailing separator names a directory.
    const std::string lf = path("lf"), drive = path("C:");
    ASSERT_EQ(symlink(f.c_str(), lf.c_str()) | mkdir(drive.c_str(), 0700), 0);
    // clang-format off
    struct Row { std::string path; bool file, directory; } rows[] = {
        {f, true, false}, {f + "/", false, false}, {dir_, false, true}, {dir_ + "/", false, true},
        {dir_ + "//", false, true}, {drive + "/", false, true}, {lf, true, false},
        {fifo, false, false}, {path("none"), false, false}, {"/", false, true},
    };
    // clang-format on
    calls.clear();
    for (const Row& r : rows) {
        EXPECT_EQ(zepIsFile(r.path.c_str()) != 0, r.file) << r.path;
        EXPECT_EQ(zepIsDirectory(r.path.c_str()) != 0, r.directory) << r.path;
    }
    EXPECT_TRUE(calls.empty());

    // A missing directory on the way reads as the runtime's ENOENT too.
    p.path = fifo.append("/f").c_str();
    EXPECT_EQ(zepFileGetInfoV9(&p, &info), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(said(), "logsys zepGetFileInfo _stat 2 ECF_FILE_DOESNT_EXIST p30 L4 m80000001");
}

TEST_F(File, PathTestAndDelete) {
    std::string f = path("f"), d = path("d");
    put(f, "x");
    ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
    ZEPPathTestParam p;
    p.path = f.c_str();
    p.tests = ZEP_PATH_TEST_READ | ZEP_PATH_TEST_WRITE;
    EXPECT_EQ(zepPathTest(&p), 0u);
    EXPECT_TRUE(zepPathExists(f.c_str()));
    // Missing, also on the way, is a quiet answer.
    EXPECT_EQ(zepFileDelete((f + "/x").c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(zepFileDelete(f.c_str()), 0u);
    EXPECT_FALSE(exists(f));
    EXPECT_EQ(zepPathTest(&p), ECF_FILE_DOESNT_EXIST);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(zepFileDelete(d.c_str()), ECF_FILE_IS_A_DIRECTORY);
    EXPECT_TRUE(exists(d));
    EXPECT_EQ(theLog(ZEPFN_zepFileDelete, 30, ECF_FILE_IS_A_DIRECTORY).items[0].bytes, d);

    // Any other failure is logged: the path and the mode asked, then tests and reserved word.
    std::string loop = path("loop");
    ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
    p.path = loop.c_str();
    p.reserved = 77;
    for (auto [tests, mode] : {std::pair{1u, 0}, {2u, 4}, {4u, 2}, {6u, 6}}) {
        calls.clear();
        p.tests = tests;
        EXPECT_EQ(zepPathTest(&p), ECF_UNKNOWN);
        EXPECT_EQ(said(),
                  "logsys zepPathTest access 1921 ECF_UNKNOWN p40 L2 m80000003; "
                  "log zepPathTest ECF_UNKNOWN p60 L2 n2");
        EXPECT_EQ(valueOf<Sint32>(calls[0].items[1]), mode) << tests;
        EXPECT_EQ(valueOf<Uint32>(calls[1].items[0]) * 100 + valueOf<Uint32>(calls[1].items[1]),
                  tests * 100 + 77);
    }
}

TEST_F(File, PermissionsCurrentDirectoryAndDriveMap) {
    std::string f = path("f");
    put(f, "x");
    EXPECT_EQ(zepFileSetPermissions(f.c_str(), 0), 0u);
    EXPECT_EQ(run("stat -c %a " + f), "600");
    EXPECT_EQ(zepFileSetPermissions(path("none/f").c_str(), 0644), ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(zepFileSetOwnership(f.c_str(), 1, 1), 0u);

    // The length alone doesn't fit: the NUL needs room too, and the size says how much.
    char buf[4096];
    ASSERT_EQ(zepDirectorySetCurrent(dir_.c_str()), 0u);
    Uint32 size = static_cast<Uint32>(dir_.size());
    EXPECT_EQ(zepDirectoryGetCurrent(buf, &size), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, dir_.size() + 1);
    EXPECT_EQ(zepDirectoryGetCurrent(buf, &size), 0u);
    EXPECT_EQ(std::string(buf), dir_);
    EXPECT_EQ(size, dir_.size());
    EXPECT_EQ(zepDirectorySetCurrent(path("none").c_str()), ECF_FILE_DOESNT_EXIST);
    ASSERT_EQ(chdir("/"), 0);

    Uint32 map = 99;
    EXPECT_EQ(zepGetLogicalDriveMap(&map), ECF_FILE_CANNOT_RETRIEVE_DRIVE_MAP);
    EXPECT_EQ(map, 0u);
    EXPECT_EQ(said(),
              "logsys zepFileSetPermissions chmod 3 ECF_FILE_PATH_DOESNT_EXIST p20 L4 "
              "m80000003; log zepDirectoryGetCurrent ECF_BUFFER_TOO_SMALL p40 L4 n1; "
              "logsys zepDirectorySetCurrent SetCurrentDirectory 2 ECF_FILE_DOESNT_EXIST "
              "p30 L4 m80000001; log zepGetLogicalDriveMap "
              "ECF_FILE_CANNOT_RETRIEVE_DRIVE_MAP p10 L4 n0");
}

TEST_F(File, CopyAFile) {
    std::string src = path("src"), dst = path("dst");
    std::string data(3 << 20, 0);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
    put(src, data);
    ASSERT_EQ(chmod(src.c_str(), 0751), 0);
    EXPECT_EQ(zepFileCopy(src.c_str(), dst.c_str()), 0u);
    EXPECT_TRUE(slurp(dst) == data);
    EXPECT_EQ(run("stat -c %a " + dst), "751");

    // Same string; an existing destination, also under another spelling.
    EXPECT_EQ(zepFileCopy(src.c_str(), src.c_str()), ECF_INVALID_PARAMETER);
    EXPECT_EQ(zepFileCopy(src.c_str(), (dir_ + "/./dst").c_str()), ECF_FILE_EXISTS);
    EXPECT_EQ(said(),
              "log zepFileCopy ECF_INVALID_PARAMETER p10 L4 n2; "
              "log zepFileCopy ECF_FILE_EXISTS p20 L4 n1");
    ASSERT_EQ(unlink(dst.c_str()), 0);

    // Failures leave no target behind: a missing source, a FIFO (no regular file, and one that
    // would wait for a writer if opened plainly), a source that fails to read after the target
    // was made.
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    // clang-format off
    struct { std::string from; Uint32 rc; const char* record; } rows[] = {
        {path("none"), ECF_FILE_DOESNT_EXIST, "2 ECF_FILE_DOESNT_EXIST p10 L4"},
        {path("fifo"), ECF_ACCESS_DENIED, "5 ECF_ACCESS_DENIED p10 L4"},
        {"/proc/self/mem", ECF_UNKNOWN, "1117 ECF_UNKNOWN p10 L2"}};
    // clang-format on
    for (const auto& r : rows) {
        calls.clear();
        EXPECT_EQ(zepFileCopy(r.from.c_str(), dst.c_str()), r.rc) << r.from;
        EXPECT_FALSE(exists(dst)) << r.from;
        EXPECT_EQ(said(), "logsys zep_copy CopyFile " + std::string(r.record) +
                              " m0; logrc zepFileCopy zep_copy " + std::to_string(r.rc) + " " +
                              ecfErrorGetCodeName(r.rc) + " p30 L4 m80000003");
    }
}

TEST_F(File, ComparePaths) {
    std::string f = path("f");
    put(f, "x");
    ASSERT_EQ(symlink(f.c_str(), path("link").c_str()), 0);
    // One file under two names, also where it doesn't exist and the case differs.
    // clang-format off
    struct Row { std::string a, b; bool same; } rows[] = {
        {f, path("link"), true}, {f, dir_ + "/./x/../f", true},
        {path("none/A"), path("NONE/a"), true}, {path("none/a"), path("none/b"), false},
    };
    // clang-format on
    for (const Row& r : rows)
        EXPECT_EQ(zepComparePaths(r.a.c_str(), r.b.c_str()) != 0, r.same) << r.a << " " << r.b;
    EXPECT_TRUE(calls.empty());
}

TEST_F(File, TemporaryNames) {
    const std::string keep = getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
    setenv("TMPDIR", dir_.c_str(), 1);
    char buf[600];
    EXPECT_EQ(zeptmpnam(buf, 13, ZEP_TMPNAM_NAME), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(zeptmpnam(buf, 259, ZEP_TMPNAM_CREATE_FILE), ECF_BUFFER_TOO_SMALL);
    ASSERT_EQ(zeptmpnam(buf, sizeof buf, ZEP_TMPNAM_NAME), 0u);
    ASSERT_EQ(zeptmpnam(buf, 260, ZEP_TMPNAM_CREATE_FILE), 0u);
    EXPECT_EQ(run("stat -c '%a %s %n' " + std::string(buf)).rfind("600 0 " + dir_ + "/vrn", 0), 0u);

    // Where the name can't be made, the record carries the fixed code and the result the
    // platform's reason; the plain name fails without a record.
    setenv("TMPDIR", (dir_ + "/" + std::string(250, 'd')).c_str(), 1);
    EXPECT_EQ(zeptmpnam(buf, 260, ZEP_TMPNAM_CREATE_FILE), ECF_FILE_NAME_TOO_LONG);
    setenv("TMPDIR", ("/" + std::string(600, 'h')).c_str(), 1);
    EXPECT_EQ(zeptmpnam(buf, 260, ZEP_TMPNAM_CREATE_FILE), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(zeptmpnam(buf, sizeof buf, ZEP_TMPNAM_NAME), ECF_FAILED);
    EXPECT_EQ(said(),
              "logsys zeptmpnam GetTempFileName 206 ECF_FAILED p20 L4 m0; "
              "logsys zeptmpnam GetTempPath 122 ECF_BUFFER_TOO_SMALL p10 L4 m0");
    setenv("TMPDIR", keep.c_str(), 1);
}

}  // namespace
