// Path-level operations as callers rely on them: the names they compute byte for byte, the codes
// and log records of their failures, and what they change (or leave) on disk.
#include <tuple>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

int logCount() {
    return static_cast<int>(logs().size());
}

using File = CaptureTest;

TEST_F(File, DirectoryAndBaseNamesOfThePathForms) {
    // clang-format off
    struct Row { const char* path; const char* dir; const char* base; } rows[] = {
        {"C:/a/b", "C:/a", "b"}, {"C:/a", "C:", "a"}, {"C:/", ".", "C:"}, {"a/", ".", "a"},
        {"/a", "/", "a"}, {"/", "/", "/"}, {"a//b", "a/", "b"}, {"C:/a/", "C:", "a"},
        {"name", ".", "name"}, {"//./pipe", "//.", "pipe"},
        {"//./PhysicalDrive0", "//./PhysicalDrive0", "PhysicalDrive0"}, {"//./C:", "//./C:", "C:"},
        {"//?/Volume{1}/x", "//?/Volume{1}/x", "x"},
    };
    // clang-format on
    for (const Row& r : rows) {
        char dir[64], base[64];
        EXPECT_EQ(zepDirectoryName(r.path, dir, sizeof dir), 0u) << r.path;
        EXPECT_STREQ(dir, r.dir) << r.path;
        EXPECT_EQ(zepBaseName(r.path, base, sizeof base), 0u) << r.path;
        EXPECT_STREQ(base, r.base) << r.path;
    }
    EXPECT_EQ(logCount(), 0);
}

TEST_F(File, NamesWithoutRoomOrPath) {
    // The directory name needs its length and the NUL: "/ab/c" needs 4 for "/ab".
    char buf[8];
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(zepDirectoryName("/ab/c", buf, 4), 0u);
    EXPECT_STREQ(buf, "/ab");
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(zepDirectoryName("/ab/c", buf, 3), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(buf[0], 0);  // emptied
    const Call& d = theLog(ZEPFN_zepDirectoryName, 30, ECF_BUFFER_TOO_SMALL);
    ASSERT_EQ(d.items.size(), 2u);
    EXPECT_EQ(valueOf<Uint32>(d.items[0]), 4u);
    EXPECT_EQ(valueOf<Uint32>(d.items[1]), 3u);

    // The base name's count runs to the NUL and includes a trailing separator: "x/ab/" needs 4.
    calls.clear();
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(zepBaseName("x/ab/", buf, 3), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(buf[0], 'z');  // untouched
    const Call& b = theLog(ZEPFN_zepBaseName, 30, ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(valueOf<Uint32>(b.items[0]), 4u);
    EXPECT_EQ(zepBaseName("x/ab/", buf, 4), 0u);
    EXPECT_STREQ(buf, "ab");

    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        calls.clear();
        EXPECT_EQ(zepDirectoryName(bad, buf, sizeof buf), ECF_INVALID_PARAMETER);
        theLog(ZEPFN_zepDirectoryName, 10, ECF_INVALID_PARAMETER);
        calls.clear();
        EXPECT_EQ(zepBaseName(bad, buf, sizeof buf), ECF_INVALID_PARAMETER);
        theLog(ZEPFN_zepBaseName, 10, ECF_INVALID_PARAMETER);
    }
}

TEST_F(File, VolumeFormsByTheirBytes) {
    // clang-format off
    struct Row { const char* path; bool volume; } rows[] = {
        {"//./C:", true}, {"//./x:rest", true}, {"//./PhysicalDrive7", true},
        {"//./physicaldrive0", false}, {"//./pipe", false}, {"//./", false},
        {"//?/Volume{a}", true}, {"//?/volume", false}, {"/tmp", false}, {"//.", false},
        {"", false},
    };
    // clang-format on
    for (const Row& r : rows) EXPECT_EQ(zepIsNTVolume(r.path) != 0, r.volume) << r.path;
}

TEST_F(File, InfoOfFilesDirectoriesAndOthers) {
    std::string f = path("f"), fifo = path("fifo");
    put(f, std::string(70000, 'x'));
    ASSERT_EQ(chmod(f.c_str(), 04751), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);

    ZEPFileGetInfoParam p;
    p.path = f.c_str();
    ZEPFileInfo info;
    info.flag = 7, info.word = 9, info.modified[1] = 5;  // never written by the operation
    trace(true);
    ASSERT_EQ(zepFileGetInfo(p, &info), 0u);
    EXPECT_EQ(info.size, 70000u);
    EXPECT_EQ(info.type, 0x8000u);
    EXPECT_EQ(info.permissions, 04751u);
    EXPECT_EQ(info.owner, static_cast<Sint32>(st.st_uid));
    EXPECT_EQ(info.modified[0], static_cast<Uint32>(st.st_mtime));
    EXPECT_EQ(info.flag, 7);
    EXPECT_EQ(info.word, 9u);
    EXPECT_EQ(info.modified[1], 5u);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "var", "exit"}));
    EXPECT_EQ(calls[0].fid, ZEPFN_zepGetFileInfo);
    EXPECT_EQ(calls[2].items[0].bytes, f);

    // The second form is the same operation under the same identifier.
    calls.clear();
    p.path = dir_.c_str();
    ASSERT_EQ(zepFileGetInfoV9(&p, &info), 0u);
    EXPECT_EQ(info.type, 0x4000u);
    EXPECT_EQ(calls[0].fid, ZEPFN_zepGetFileInfo);
    trace(false);

    calls.clear();
    info.type = 0x8000;
    info.size = 1234;
    p.path = fifo.c_str();
    EXPECT_EQ(zepFileGetInfoV9(&p, &info), ECF_FILE_UNKNOWN_FILE_TYPE);
    EXPECT_EQ(info.type, 0u);
    EXPECT_EQ(info.size, 1234u);  // the rest left alone
    const Call& u = theLog(ZEPFN_zepGetFileInfo, 60, ECF_FILE_UNKNOWN_FILE_TYPE);
    ASSERT_EQ(u.items.size(), 1u);
    EXPECT_EQ(valueOf<Uint16>(u.items[0]), 0x1180u);  // the 16-bit mode, type and permissions

    // Missing names and missing directories on the way read the same: the runtime's ENOENT.
    for (std::string missing : {path("none"), path("none/f"), path("f/x")}) {
        calls.clear();
        p.path = missing.c_str();
        EXPECT_EQ(zepFileGetInfoV9(&p, &info), ECF_FILE_DOESNT_EXIST) << missing;
        EXPECT_EQ(logs(), Strings{rec("logsys", ZEPFN_zepGetFileInfo, 30, ECF_FILE_DOESNT_EXIST,
                                      ZEP_LOG_INFO, SYSFN__stat, 2)});
        EXPECT_EQ(aLog().items.at(0).bytes, missing);
    }

    calls.clear();
    p.path = f.c_str();
    p.version = 20040701;
    EXPECT_EQ(zepFileGetInfoV9(&p, &info), ECF_INVALID_VERSION);
    theLog(ZEPFN_zepGetFileInfo, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
}

TEST_F(File, FileAndDirectoryTests) {
    std::string f = path("f"), d = path("d"), drive = path("C:");
    put(f, "x");
    ASSERT_EQ(mkdir(d.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(drive.c_str(), 0700), 0);
    ASSERT_EQ(symlink(f.c_str(), path("lf").c_str()), 0);
    // clang-format off
    struct Row { std::string path; bool file, directory; } rows[] = {
        {f, true, false},          {f + "/", false, false},      {d, false, true},
        {d + "/", false, true},    {d + "//", false, true},      {drive + "/", false, true},
        {path("lf"), true, false}, {path("none"), false, false}, {"/", false, true},
        {"", false, false},
    };
    // clang-format on
    for (const Row& r : rows) {
        EXPECT_EQ(zepIsFile(r.path.c_str()) != 0, r.file) << r.path;
        EXPECT_EQ(zepIsDirectory(r.path.c_str()) != 0, r.directory) << r.path;
    }
    EXPECT_TRUE(calls.empty());  // neither traces nor logs
}

TEST_F(File, PathTestAnswersAndFailures) {
    std::string f = path("f");
    put(f, "x");
    ZEPPathTestParam p;
    p.path = f.c_str();
    for (Uint32 tests : {0u, 1u, 2u, 4u, 6u, 7u}) {
        p.tests = tests;
        EXPECT_EQ(zepPathTest(&p), 0u) << tests;
    }
    EXPECT_TRUE(zepPathExists(f.c_str()));

    // Missing: a quiet answer, traced with the platform's number.
    struct Missing {
        std::string path;
        Uint32 err;
    } missing[] = {{path("none"), 2}, {path("none/f"), 3}, {path("f/x"), 3}};
    for (const Missing& m : missing) {
        calls.clear();
        trace(true);
        p.path = m.path.c_str();
        EXPECT_EQ(zepPathTest(&p), ECF_FILE_DOESNT_EXIST);
        EXPECT_FALSE(zepPathExists(m.path.c_str()));
        trace(false);
        EXPECT_EQ(logCount(), 0);
        ASSERT_GE(calls.size(), 3u);
        EXPECT_EQ(calls[2].probe, 20u);
        EXPECT_EQ(valueOf<Uint32>(calls[2].items[0]), m.err) << m.path;
    }

    // Any other failure is logged: the path and the mode asked, then tests and reserved word.
    std::string loop = path("loop");
    ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
    p.path = loop.c_str();
    p.reserved = 77;
    for (auto [tests, mode] : {std::pair{0u, 0}, {1u, 0}, {2u, 4}, {4u, 2}, {6u, 6}}) {
        calls.clear();
        p.tests = tests;
        EXPECT_EQ(zepPathTest(&p), ECF_UNKNOWN);
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_EQ(logs(), (Strings{rec("logsys", ZEPFN_zepPathTest, 40, ECF_UNKNOWN, ZEP_LOG_ERROR,
                                       SYSFN_access, 1921),
                                   rec("log", ZEPFN_zepPathTest, 60, ECF_UNKNOWN, ZEP_LOG_ERROR)}));
        EXPECT_EQ(calls[0].items[0].bytes, loop);
        EXPECT_EQ(valueOf<Sint32>(calls[0].items[1]), mode) << tests;
        EXPECT_EQ(valueOf<Uint32>(calls[1].items[0]), tests);
        EXPECT_EQ(valueOf<Uint32>(calls[1].items[1]), 77u);
    }

    calls.clear();
    EXPECT_EQ(zepPathTest(nullptr), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_zepPathTest, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);

    // Refused access is a quiet answer too; only an unprivileged user meets it.
    ASSERT_EQ(chmod(f.c_str(), 0600), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    asNobody([&] {
        calls.clear();
        ZEPPathTestParam q;
        q.path = f.c_str();
        q.tests = ZEP_PATH_TEST_READ;
        int bad = zepPathTest(&q) != ECF_ACCESS_DENIED;
        q.tests = ZEP_PATH_TEST_EXISTS;
        bad += zepPathTest(&q) != 0;
        return bad + logCount();
    });
}

TEST_F(File, DeleteFilesButNotDirectories) {
    std::string f = path("f"), d = path("d");
    put(f, "x");
    ASSERT_EQ(mkdir(d.c_str(), 0700), 0);
    EXPECT_EQ(zepFileDelete(f.c_str()), 0u);
    EXPECT_FALSE(exists(f));

    trace(true);
    EXPECT_EQ(zepFileDelete(f.c_str()), ECF_FILE_DOESNT_EXIST);
    trace(false);
    EXPECT_EQ(logCount(), 0);
    EXPECT_EQ(calls.end()[-2].what, "error");
    EXPECT_EQ(calls.end()[-2].probe, 20u);
    EXPECT_EQ(calls.end()[-2].fid, ZEPFN_zepFileDelete);

    calls.clear();
    EXPECT_EQ(zepFileDelete(d.c_str()), ECF_FILE_IS_A_DIRECTORY);
    EXPECT_TRUE(exists(d));
    EXPECT_EQ(theLog(ZEPFN_zepFileDelete, 30, ECF_FILE_IS_A_DIRECTORY).items[0].bytes, d);

    // A file in a directory the caller may not write: the platform's refusal, mapped.
    put(path("d/f"), "x");
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    ASSERT_EQ(chmod(d.c_str(), 0755), 0);
    asNobody([&] {
        calls.clear();
        int bad = zepFileDelete((d + "/f").c_str()) != ECF_ACCESS_DENIED;
        const Call& c = calls.back();
        bad += c.what != "logsys" || c.probe != 40 || c.called != SYSFN_DeleteFile || c.err != 5;
        return bad;
    });
    EXPECT_TRUE(exists(path("d/f")));
}

TEST_F(File, PermissionsOwnershipAndDriveMap) {
    std::string f = path("f");
    put(f, "x");
    struct stat st;
    trace(true);
    EXPECT_EQ(zepFileSetPermissions(f.c_str(), 0), 0u);
    trace(false);
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(valueOf<Uint32>(calls[1].items[1]), 0x180u);  // the value used is traced
    EXPECT_EQ(zepFileSetPermissions(f.c_str(), 0754), 0u);
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0754u);

    calls.clear();
    std::string missing = path("none/f");
    EXPECT_EQ(zepFileSetPermissions(missing.c_str(), 0644), ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(logs(), Strings{rec("logsys", ZEPFN_zepFileSetPermissions, 20,
                                  ECF_FILE_PATH_DOESNT_EXIST, ZEP_LOG_INFO, SYSFN_chmod, 3)});
    EXPECT_EQ(valueOf<Uint32>(aLog().items.at(1)), 0644u);

    calls.clear();
    EXPECT_EQ(zepFileSetOwnership(f.c_str(), 1, 1), 0u);
    EXPECT_TRUE(calls.empty());

    Uint32 map = 99;
    EXPECT_EQ(zepGetLogicalDriveMap(&map), ECF_FILE_CANNOT_RETRIEVE_DRIVE_MAP);
    EXPECT_EQ(map, 0u);
    theLog(ZEPFN_zepGetLogicalDriveMap, 10, ECF_FILE_CANNOT_RETRIEVE_DRIVE_MAP);
}

TEST_F(File, CurrentDirectory) {
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_EQ(zepDirectorySetCurrent(dir_.c_str()), 0u);
    char buf[4096];
    Uint32 size = sizeof buf;
    EXPECT_EQ(zepDirectoryGetCurrent(buf, &size), 0u);
    EXPECT_EQ(std::string(buf), dir_);
    EXPECT_EQ(size, dir_.size());

    // The length alone doesn't fit: the NUL needs room too, and the size says how much.
    for (Uint32 capacity : {0u, 1u, static_cast<Uint32>(dir_.size())}) {
        calls.clear();
        size = capacity;
        EXPECT_EQ(zepDirectoryGetCurrent(buf, &size), ECF_BUFFER_TOO_SMALL);
        EXPECT_EQ(size, dir_.size() + 1);
        theLog(ZEPFN_zepDirectoryGetCurrent, 40, ECF_BUFFER_TOO_SMALL);
    }
    size = static_cast<Uint32>(dir_.size() + 1);
    EXPECT_EQ(zepDirectoryGetCurrent(buf, &size), 0u);

    struct Row {
        std::string path;
        Uint32 rc;
    } rows[] = {{path("none"), ECF_FILE_DOESNT_EXIST},
                {path("none/x"), ECF_FILE_PATH_DOESNT_EXIST}};
    for (const Row& r : rows) {
        calls.clear();
        EXPECT_EQ(zepDirectorySetCurrent(r.path.c_str()), r.rc);
        EXPECT_EQ(theLog(ZEPFN_zepDirectorySetCurrent, 30, r.rc).called, SYSFN_SetCurrentDirectory);
    }
    ASSERT_EQ(chdir(here), 0);
}

TEST_F(File, CopyAFile) {
    std::string src = path("src"), dst = path("dst");
    std::string data(3 << 20, 0);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
    put(src, data);
    ASSERT_EQ(chmod(src.c_str(), 0751), 0);
    EXPECT_EQ(zepFileCopy(src.c_str(), dst.c_str()), 0u);
    EXPECT_EQ(slurp(dst), data);
    struct stat st;
    ASSERT_EQ(stat(dst.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0751u);

    // Same string; an existing destination, also under another spelling.
    calls.clear();
    EXPECT_EQ(zepFileCopy(src.c_str(), src.c_str()), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_zepFileCopy, 10, ECF_INVALID_PARAMETER);
    for (std::string to : {dst, dir_ + "/./src"}) {
        calls.clear();
        EXPECT_EQ(zepFileCopy(src.c_str(), to.c_str()), ECF_FILE_EXISTS);
        EXPECT_EQ(theLog(ZEPFN_zepFileCopy, 20, ECF_FILE_EXISTS).items[0].bytes, to);
    }
    EXPECT_EQ(slurp(src), data);

    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);  // would wait for a writer if opened plainly
    // Failures leave no target behind: a missing source, a directory, a source that fails to
    // read after the target was made.
    struct Row {
        std::string from;
        Uint32 rc;
    } rows[] = {{path("none"), ECF_FILE_DOESNT_EXIST},
                {dir_, ECF_ACCESS_DENIED},
                {path("fifo"), ECF_ACCESS_DENIED},
                {"/proc/self/mem", ECF_UNKNOWN}};
    for (const Row& r : rows) {
        calls.clear();
        std::string to = path("new");
        EXPECT_EQ(zepFileCopy(r.from.c_str(), to.c_str()), r.rc) << r.from;
        EXPECT_FALSE(exists(to)) << r.from;
        ASSERT_EQ(calls.size(), 2u);  // zep_copy's record, then the copy's
        EXPECT_EQ(std::make_tuple(calls[0].fid, calls[0].called, calls[0].count, calls[1].what,
                                  calls[1].probe, calls[1].called),
                  std::make_tuple(ZEPFN_zep_copy, SYSFN_CopyFile, 0, std::string("logrc"), 30u,
                                  ZEPFN_zep_copy));
        EXPECT_EQ(calls[1].items[1].bytes, to);
    }
}

TEST_F(File, ComparePaths) {
    std::string f = path("f");
    put(f, "x");
    ASSERT_EQ(mkdir(path("d").c_str(), 0700), 0);
    ASSERT_EQ(symlink(f.c_str(), path("link").c_str()), 0);
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    // clang-format off
    struct Row { std::string a, b; bool same; } rows[] = {
        {f, f, true}, {f, path("link"), true}, {f, path("d/../f"), true}, {f, "f", true},
        {f, "./d/../f", true}, {path("F"), path("f"), true},
        {path("none/A"), path("NONE/a"), true}, {path("none/x/../a"), "none/./a", true},
        {path("none/a"), path("none/b"), false}, {f, path("d"), false},
    };
    // clang-format on
    for (const Row& r : rows)
        EXPECT_EQ(zepComparePaths(r.a.c_str(), r.b.c_str()) != 0, r.same) << r.a << " " << r.b;
    ASSERT_EQ(chdir(here), 0);
    EXPECT_EQ(logCount(), 0);
}

TEST_F(File, TemporaryNames) {
    const char* saved = getenv("TMPDIR");
    std::string keep = saved ? saved : "";
    setenv("TMPDIR", dir_.c_str(), 1);
    char buf[600];
    EXPECT_EQ(zeptmpnam(buf, 13, ZEP_TMPNAM_NAME), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(zeptmpnam(buf, 259, ZEP_TMPNAM_CREATE_FILE), ECF_BUFFER_TOO_SMALL);
    EXPECT_TRUE(calls.empty());

    ASSERT_EQ(zeptmpnam(buf, sizeof buf, ZEP_TMPNAM_NAME), 0u);
    std::string name = buf;
    EXPECT_EQ(name.rfind(dir_ + "/vrn", 0), 0u) << name;
    EXPECT_EQ(name.size(), dir_.size() + 4 + 10);
    EXPECT_FALSE(exists(name));
    ASSERT_EQ(zeptmpnam(buf, sizeof buf, ZEP_TMPNAM_NAME), 0u);
    EXPECT_NE(std::string(buf), name);

    ASSERT_EQ(zeptmpnam(buf, 260, ZEP_TMPNAM_CREATE_FILE), 0u);
    struct stat st;
    ASSERT_EQ(stat(buf, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(std::string(buf).rfind(dir_ + "/vrn", 0), 0u);

    // In /tmp the shortest buffer holds the prefix and five random characters.
    setenv("TMPDIR", "/tmp", 1);
    ASSERT_EQ(zeptmpnam(buf, 14, ZEP_TMPNAM_NAME), 0u);
    EXPECT_EQ(strlen(buf), 13u);

    // Where the name can't be made, the record carries the fixed code and the result the
    // platform's reason.
    std::string deep = dir_ + "/" + std::string(250, 'd');
    setenv("TMPDIR", deep.c_str(), 1);
    calls.clear();
    EXPECT_EQ(zeptmpnam(buf, 260, ZEP_TMPNAM_CREATE_FILE), ECF_FILE_NAME_TOO_LONG);
    const Call& c = theLog(ZEPFN_zeptmpnam, 20, ECF_FAILED);
    EXPECT_EQ(c.called, SYSFN_GetTempFileName);
    EXPECT_EQ(c.err, 206u);
    std::string huge = "/" + std::string(600, 'h');
    setenv("TMPDIR", huge.c_str(), 1);
    calls.clear();
    EXPECT_EQ(zeptmpnam(buf, 260, ZEP_TMPNAM_CREATE_FILE), ECF_BUFFER_TOO_SMALL);
    EXPECT_EQ(theLog(ZEPFN_zeptmpnam, 10, ECF_BUFFER_TOO_SMALL).called, SYSFN_GetTempPath);
    calls.clear();
    EXPECT_EQ(zeptmpnam(buf, sizeof buf, ZEP_TMPNAM_NAME), ECF_FAILED);
    EXPECT_TRUE(calls.empty());

    if (saved)
        setenv("TMPDIR", keep.c_str(), 1);
    else
        unsetenv("TMPDIR");
}

}  // namespace
