// Whole directories: the create modes, deletes that never leave their tree, copies compared byte
// for byte, and the failures deep inside a tree with their chain of records. Permission bits
// don't bind root, so the deep failures run in a child that has dropped to the user "nobody".
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "zeptest_capture.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

// Same names, types, permission bits, link texts and bytes.
void expectSameTree(const std::string& a, const std::string& b) {
    auto na = entries(a), nb = entries(b);
    std::sort(na.begin(), na.end());
    std::sort(nb.begin(), nb.end());
    ASSERT_EQ(na, nb) << a;
    for (const std::string& n : na) {
        std::string x = a + "/" + n, y = b + "/" + n;
        struct stat sx, sy;
        ASSERT_EQ(lstat(x.c_str(), &sx), 0);
        ASSERT_EQ(lstat(y.c_str(), &sy), 0);
        ASSERT_EQ(sx.st_mode, sy.st_mode) << y;
        if (S_ISDIR(sx.st_mode))
            expectSameTree(x, y);
        else if (S_ISLNK(sx.st_mode))
            EXPECT_EQ(std::filesystem::read_symlink(x), std::filesystem::read_symlink(y));
        else
            ASSERT_TRUE(slurp(x) == slurp(y)) << y;
    }
}
// `files` files of random sizes below `maxSize` in `dirs` directories, each directory the child
// of an earlier one (ten to a parent), so the tree is a few levels deep. Returns the deepest file.
std::string makeTree(const std::string& root, int files, int dirs, size_t maxSize) {
    std::mt19937 rng(12345);
    std::vector<std::string> d{root};
    mkdir(root.c_str(), 0755);
    for (int i = 0; i < dirs; ++i) {
        d.push_back(d[i / 10] + "/d" + std::to_string(i));
        mkdir(d.back().c_str(), 0755);
    }
    std::string data(maxSize + 4096, 0);
    for (char& c : data) c = static_cast<char>(rng());
    std::string last;
    for (int j = 0; j < files; ++j) {
        last = d[1 + j % dirs] + "/f" + std::to_string(j);
        std::ofstream(last, std::ios::binary).write(data.data() + rng() % 4096, rng() % maxSize);
    }
    return last;
}

Uint32 deleteTree(const std::string& p, Uint32 options = ZEP_DIR_DELETE_CONTENTS) {
    ZEPDirectoryDeleteParam d;
    d.path = p.c_str();
    d.options = options;
    return zepDirectoryDelete(&d);
}

using Dir = CaptureTest;

TEST_F(Dir, CreateModes) {
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    std::string longName = "n/" + std::string(256, 'x');
    // clang-format off
    struct Row {
        std::string path;
        Uint32 mode, rc;
        std::string failedPrefix;
        std::vector<std::string> made;
    } rows[] = {
        {"a", 1, 0, "", {"a"}}, {"a", 1, ECF_FILE_EXISTS, "a", {}}, {"a", 2, 0, "", {}},
        {"a/b/c", 2, 0, "", {"a/b", "a/b/c"}}, {"a/x/", 2, 0, "", {"a/x"}},
        {"m/n/o", 1, ECF_FILE_PATH_DOESNT_EXIST, "m/n/o", {}},
        {"a/y", 0, ECF_FILE_EXISTS, "a/", {}},  // an existing first prefix stops the strict walk
        {dir_ + "/z", 2, 0, "", {"z"}}, {dir_ + "/w", 3, ECF_FILE_EXISTS, "/", {}},
        {longName, 2, ECF_FILE_NAME_TOO_LONG, longName, {"n"}},  // the upper levels stay
    };
    // clang-format on
    for (const Row& r : rows) {
        calls.clear();
        ZEPDirectoryCreateParam p;
        p.path = r.path.c_str();
        p.mode = r.mode;
        EXPECT_EQ(zepDirectoryCreate(&p), r.rc) << r.path;
        for (const std::string& m : r.made) EXPECT_TRUE(exists(m)) << m;
        if (r.rc == 0) continue;
        const Call& c = theLog(ZEPFN_zepDirectoryCreate, 40, r.rc);
        EXPECT_EQ(c.called, SYSFN_CreateDirectory);
        EXPECT_EQ(c.items[0].bytes, r.failedPrefix);
    }
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(Dir, DeleteRefusals) {
    std::string d = path("d"), f = path("f");
    ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
    std::ofstream(d + "/x") << "x";
    std::ofstream(f) << "f";
    ASSERT_EQ(symlink(d.c_str(), path("ld").c_str()), 0);
    EXPECT_EQ(deleteTree(d, 0), ECF_FILE_DIR_NOT_EMPTY);
    const Call& c = theLog(ZEPFN_zep_directory_delete, 30, ECF_FILE_DIR_NOT_EMPTY);
    EXPECT_EQ(c.called, SYSFN_RemoveDirectory);
    EXPECT_EQ(c.err, 145u);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    struct Row {
        std::string path;
        Uint32 rc, probe;
    } rows[] = {{"NUL", ECF_INVALID_PARAMETER, 10},
                {"nul", ECF_FILE_NOT_A_DIRECTORY, 70},
                {f, ECF_FILE_NOT_A_DIRECTORY, 70},
                {path("ld"), ECF_FILE_NOT_A_DIRECTORY, 70}};  // a link is no tree to walk
    for (const Row& r : rows) {
        calls.clear();
        EXPECT_EQ(deleteTree(r.path), r.rc) << r.path;
        theLog(ZEPFN_zep_directory_delete_recursive, r.probe, r.rc);
    }
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_TRUE(exists(d + "/x") && exists(f) && exists(path("ld")));
    calls.clear();
    ZEPDirectoryDeleteParam old;
    old.version = 1;
    EXPECT_EQ(zepDirectoryDelete(&old), ECF_INVALID_VERSION);
    theLog(ZEPFN_zepDirectoryDelete, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
}

// A tree with links out of it: to a directory, to a file, to nothing, and a FIFO.
class LinkedTree : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        out_ = path("outside");
        tree_ = path("tree");
        makeTree(out_, 20, 3, 8192);
        makeTree(tree_, 30, 5, 8192);
        ASSERT_EQ(symlink(out_.c_str(), (tree_ + "/d0/to-dir").c_str()), 0);
        ASSERT_EQ(symlink((out_ + "/d0/f0").c_str(), (tree_ + "/d1/to-file").c_str()), 0);
        ASSERT_EQ(symlink("nowhere", (tree_ + "/dead").c_str()), 0);
        ASSERT_EQ(symlink("..", (tree_ + "/d2/up").c_str()), 0);  // a cycle
        ASSERT_EQ(mkfifo((tree_ + "/d3/fifo").c_str(), 0600), 0);
        copyOf(out_, saved_);
    }
    void copyOf(const std::string& d, std::vector<std::string>& into) {
        for (const std::string& n : entries(d)) {
            into.push_back(d + "/" + n + ":" + slurp(d + "/" + n).substr(0, 64));
            if (std::filesystem::is_directory(d + "/" + n)) copyOf(d + "/" + n, into);
        }
    }
    void expectOutsideIntact() {
        std::vector<std::string> now;
        copyOf(out_, now);
        EXPECT_EQ(now, saved_);
    }
    std::string out_, tree_;
    std::vector<std::string> saved_;
};

TEST_F(LinkedTree, DeleteRemovesLinksAsLinks) {
    EXPECT_EQ(deleteTree(tree_), 0u);
    EXPECT_FALSE(exists(tree_));
    expectOutsideIntact();
    EXPECT_TRUE(calls.empty());
}

TEST_F(LinkedTree, CopyKeepsLinksToDirectoriesAsLinks) {
    std::string copy = path("copy");
    ASSERT_EQ(zepDirectoryCopy(tree_.c_str(), copy.c_str()), 0u);
    // A link to a file is copied as the file; the others stay links; the FIFO isn't copied.
    EXPECT_EQ(slurp(copy + "/d1/to-file"), slurp(out_ + "/d0/f0"));
    EXPECT_TRUE(
        std::filesystem::is_regular_file(std::filesystem::symlink_status(copy + "/d1/to-file")));
    ASSERT_EQ(unlink((copy + "/d1/to-file").c_str()), 0);
    ASSERT_EQ(unlink((tree_ + "/d1/to-file").c_str()), 0);
    ASSERT_EQ(unlink((tree_ + "/d3/fifo").c_str()), 0);
    expectSameTree(tree_, copy);
    expectOutsideIntact();

    calls.clear();
    EXPECT_EQ(zepDirectoryCopy(tree_.c_str(), copy.c_str()), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_zepDirectoryCopy, 10, ECF_INVALID_PARAMETER);
    calls.clear();
    std::string file = tree_ + "/dead";
    EXPECT_EQ(zepDirectoryCopy(file.c_str(), path("c2").c_str()), ECF_FILE_NOT_A_DIRECTORY);
    theLog(ZEPFN_zepDirectoryCopy, 70, ECF_FILE_NOT_A_DIRECTORY);
    EXPECT_FALSE(exists(path("c2")));
}

// The chain of records of one failure `depth` levels down: the failing call's own record, then
// one record of every level on the way up, the last the top's.
std::string chain() {
    std::string s;
    for (const Call& c : calls)
        if (c.what.compare(0, 3, "log") == 0)
            s += c.what + "/" + std::to_string(c.probe) +
                 (c.what == "logsys" ? "/" + std::to_string(c.err) : "") + " ";
    return s;
}

TEST_F(Dir, CopyATreeAndFailDeepInside) {
    bool stress = getenv("ZEP_STRESS") != nullptr;
    std::string src = path("src"), dst = path("dst");
    std::string deepest =
        makeTree(src, stress ? 10000 : 1000, stress ? 1000 : 100, stress ? 1 << 20 : 64 << 10);
    ASSERT_EQ(zepDirectoryCopy(src.c_str(), dst.c_str()), 0u);
    expectSameTree(src, dst);
    EXPECT_EQ(deleteTree(dst), 0u);

    // One unreadable file deep inside: the copy fails with the mapped refusal and takes back all
    // it made. "nobody" writes the copy into a directory of its own.
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    ASSERT_EQ(chmod(deepest.c_str(), 0600), 0);
    std::string room = path("room");
    ASSERT_EQ(mkdir(room.c_str(), 0700), 0);
    ASSERT_EQ(chmod(room.c_str(), 0777), 0);
    std::string target = room + "/dst";
    int depth = static_cast<int>(std::count(deepest.begin() + src.size(), deepest.end(), '/')) - 1;
    asNobody([&] {
        calls.clear();
        Uint32 rc = zepDirectoryCopy(src.c_str(), target.c_str());
        std::string expected = "logsys/10/5 logrc/30 logrc/60 ";
        for (int i = 0; i < depth; ++i) expected += "logrc/50 ";
        if (rc != ECF_ACCESS_DENIED || chain() != expected)
            fprintf(stderr, "rc %x chain %s\n", rc, chain().c_str());
        return (rc != ECF_ACCESS_DENIED) + (chain() != expected) + exists(target);
    });
    EXPECT_EQ(entries(room).size(), 0u);
}

TEST_F(Dir, DeleteStopsAtAnUndeletableDirectory) {
    std::string top = path("top");
    makeTree(top, 200, 30, 1024);
    // d20 (under d1) holds a directory that root owns and "nobody" may not empty.
    std::string d1 = top + "/d1", d20 = d1 + "/d20", locked = d20 + "/locked";
    ASSERT_EQ(mkdir(locked.c_str(), 0755), 0);
    std::ofstream(locked + "/f") << "kept";
    ASSERT_EQ(
        system(("chown -R nobody:nogroup '" + top + "' && chown root '" + locked + "'").c_str()),
        0);
    ASSERT_EQ(chmod(dir_.c_str(), 0777), 0);
    auto before = [](const std::vector<std::string>& order, const std::string& name) {
        return std::vector<std::string>(order.begin(), std::find(order.begin(), order.end(), name));
    };
    std::vector<std::string> topOrder = entries(top), d1Order = entries(d1),
                             d20Order = entries(d20);
    asNobody([&] {
        calls.clear();
        Uint32 rc = deleteTree(top);
        std::string expected = "logsys/40/5 logrc/40 logrc/20 logrc/20 logrc/20 ";
        if (rc != ECF_ACCESS_DENIED || chain() != expected)
            fprintf(stderr, "rc %x chain %s\n", rc, chain().c_str());
        return (rc != ECF_ACCESS_DENIED) + (chain() != expected);
    });
    // Before the way down: gone. The way down and after it: still there.
    for (auto [dir, order, next] : {std::tuple{top, topOrder, std::string("d1")},
                                    {d1, d1Order, std::string("d20")},
                                    {d20, d20Order, std::string("locked")}}) {
        std::vector<std::string> gone = before(order, next);
        for (const std::string& n : order)
            EXPECT_EQ(exists(dir + "/" + n), std::find(gone.begin(), gone.end(), n) == gone.end())
                << dir << "/" << n;
    }
    EXPECT_EQ(slurp(locked + "/f"), "kept");
}

}  // namespace
