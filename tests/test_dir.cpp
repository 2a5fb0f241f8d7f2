// Whole directories: the create modes, deletes that never leave their tree, copies compared with
// their source, and the failures deep inside a tree with their chain of records. Then the listing
// of a directory: which names enter, both views agreeing, the exact dump, and the state rules.
#include <algorithm>
#include <set>

#include "zeptest_sys.h"

namespace {

using namespace zeptest;

// Names, types, permission bits, link texts and contents of a tree, as one text.
std::string tree(const std::string& d) {
    return run("cd '" + d +
               "' && find . -printf '%p %y %m %l\\n' | sort && "
               "find . -type f | sort | xargs -r cat | md5sum");
}
// `files` files of a few sizes in `dirs` directories, each directory the child of an earlier one
// (ten to a parent), so the tree is two levels deep from eleven.
void makeTree(const std::string& root, int files, int dirs) {
    std::vector<std::string> d{root};
    mkdir(root.c_str(), 0755);
    for (int i = 0; i < dirs; ++i) {
        d.push_back(d[i / 10] + "/d" + std::to_string(i));
        mkdir(d.back().c_str(), 0755);
    }
    for (int j = 0; j < files; ++j)
        put(d[1 + j % dirs] + "/f" + std::to_string(j), std::string(j * 97 % 5000, 'f'));
}
Uint32 deleteTree(const std::string& p, Uint32 options = ZEP_DIR_DELETE_CONTENTS) {
    ZEPDirectoryDeleteParam d;
    d.path = p.c_str();
    d.options = options;
    return zepDirectoryDelete(&d);
}

using Dir = CaptureTest;

TEST_F(Dir, CreateModesAndDeleteRefusals) {
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    std::string longName = "n/" + std::string(256, 'x');
    // clang-format off
    struct Row { std::string path; Uint32 mode, rc; std::string prefix; Strings made; } rows[] = {
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
        if (r.rc != 0) {
            EXPECT_EQ(theLog(ZEPFN_zepDirectoryCreate, 40, r.rc).items.at(0).bytes, r.prefix);
        }
    }

    std::string d = path("d"), f = path("f");
    ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
    put(d + "/x", "x");
    put(f, "f");
    ASSERT_EQ(symlink(d.c_str(), path("ld").c_str()), 0);
    calls.clear();
    EXPECT_EQ(deleteTree(d, 0), ECF_FILE_DIR_NOT_EMPTY);
    // "NUL" is refused by its bytes; a file, or a link to a directory, is no tree to walk.
    for (std::string p : {"NUL", "nul", "f", "ld"})
        EXPECT_EQ(deleteTree(p), p == "NUL" ? ECF_INVALID_PARAMETER : ECF_FILE_NOT_A_DIRECTORY);
    ASSERT_EQ(chdir("/"), 0);
    std::string probes;
    for (const Call& c : calls) probes += std::to_string(c.probe) + " ";
    EXPECT_EQ(probes, "30 10 70 70 70 ");  // the remove, then each refusal's own record
    EXPECT_TRUE(exists(d + "/x") && exists(f) && exists(path("ld")));
}

// Links out of the tree (to a directory, to a file, to nothing, back up), a FIFO, and during the
// delete a directory the walk has listed but not yet entered swapped for a link to the outside.
std::string g_top, g_outside, g_sibling;
TEST_F(Dir, CopyAndDeleteNeverLeaveTheTree) {
    g_outside = path("outside"), g_top = path("tree");
    makeTree(g_outside, 20, 3);
    makeTree(g_top, 30, 5);
    ASSERT_EQ(symlink(g_outside.c_str(), (g_top + "/d0/to-dir").c_str()), 0);
    ASSERT_EQ(symlink((g_outside + "/d0/f0").c_str(), (g_top + "/d1/to-file").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (g_top + "/dead").c_str()), 0);
    ASSERT_EQ(symlink("..", (g_top + "/d2/up").c_str()), 0);
    ASSERT_EQ(mkfifo((g_top + "/d3/fifo").c_str(), 0600), 0);
    const std::string outside = tree(g_outside), copy = path("copy");

    // A link to a file is copied as the file; the others stay links; the FIFO isn't copied.
    ASSERT_EQ(zepDirectoryCopy(g_top.c_str(), copy.c_str()), 0u);
    EXPECT_EQ(slurp(copy + "/d1/to-file"), slurp(g_outside + "/d0/f0"));
    ASSERT_EQ(unlink((copy + "/d1/to-file").c_str()), 0);
    ASSERT_EQ(symlink((g_outside + "/d0/f0").c_str(), (copy + "/d1/to-file").c_str()), 0);
    ASSERT_EQ(mkfifo((copy + "/d3/fifo").c_str(), 0600), 0);
    EXPECT_EQ(tree(copy), tree(g_top));

    onTrace = [] {
        const Call& c = calls.back();
        if (c.fid == ZEPFN_zep_directory_delete_recursive && c.probe == 10 &&
            c.items.at(0).bytes.size() > g_top.size() && !exists(g_top + ".held")) {
            EXPECT_EQ(rename(g_sibling.c_str(), (g_top + ".held").c_str()) |
                          symlink(g_outside.c_str(), g_sibling.c_str()),
                      0);
        }
    };
    // The last directory in the listing's order is swapped when the walk enters the first.
    for (const std::string& n : entries(g_top))
        if (n[0] == 'd' && n[1] != 'e') g_sibling = g_top + "/" + n;
    trace(true);
    EXPECT_EQ(deleteTree(g_top), 0u);
    trace(false);
    EXPECT_FALSE(exists(g_top));
    EXPECT_FALSE(entries(g_top + ".held").empty());  // swapped, and left alone
    EXPECT_EQ(tree(g_outside), outside);
    EXPECT_EQ(logs(), Strings{});
}

// A file two levels down that fails to read: the copy fails with the platform's reason, every
// level records it on the way up, and the copy takes back all it made.
TEST_F(Dir, CopyFailsDeepInsideAndTakesBackWhatItMade) {
    std::string src = path("src"), copy = path("copy");
    makeTree(src, 60, 15);
    ASSERT_EQ(symlink("/proc/self/mem", (src + "/d0/d14/mem").c_str()), 0);
    EXPECT_EQ(zepDirectoryCopy(src.c_str(), copy.c_str()), ECF_UNKNOWN);
    std::string probes;
    for (const Call& c : calls) probes += std::to_string(c.probe) + " ";
    EXPECT_EQ(probes, "10 30 60 50 50 ");
    EXPECT_FALSE(exists(copy));
}

using Names = std::vector<std::string>;

class Listing : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        d_ = path("d");
        ASSERT_EQ(mkdir(d_.c_str(), 0755), 0);
        for (const char* n : {"a.txt", "b.txt", "c.log"}) put(d_ + "/" + n, n);
        ASSERT_EQ(chmod((d_ + "/c.log").c_str(), 0666), 0);
        ASSERT_EQ(mkdir((d_ + "/s").c_str(), 0700), 0);
        ASSERT_EQ(symlink("s", (d_ + "/ls").c_str()), 0);       // a directory, followed
        ASSERT_EQ(symlink("none", (d_ + "/dead").c_str()), 0);  // dropped: no attributes
    }
    // What the listing gives by getNext, checked against its flat block, count and size.
    Names list(const std::string& p, Uint32 mask, Uint32 rc = 0) {
        ZEPDirectoryListing l;
        ZEPDirectoryListingParam param;
        param.path = p.c_str();
        param.typeMask = mask;
        EXPECT_EQ(l.begin(&param), rc) << p;
        Names names;
        std::string flat;
        for (const char* n; (n = l.getNext()) != nullptr;) names.push_back(n), (flat += n) += '\0';
        if (rc != 0) return names;
        EXPECT_EQ(l.getNumberOfFiles(), names.size());
        EXPECT_EQ(l.getFileListSize(), flat.size() + 1);
        EXPECT_EQ(std::string(l.getFileList(), flat.size() + 1), flat + '\0');
        EXPECT_EQ(l.end(), 0u);
        std::sort(names.begin(), names.end());  // the platform's order, which callers can't know
        return names;
    }
    std::string d_;
};

TEST_F(Listing, WhatEnters) {
    const Names all{".", "..", "a.txt", "b.txt", "c.log", "ls", "s"};
    EXPECT_EQ(list(d_, 0xC000), all);
    EXPECT_EQ(list(d_ + "/", 0xC000), all);
    EXPECT_EQ(list(d_, 0x0002), Names{"c.log"});  // a permission bit: only the file others write
    EXPECT_EQ(list(d_, 0), Names{});
    EXPECT_EQ(list(d_ + "/?.*", 0x8000), (Names{"a.txt", "b.txt", "c.log"}));

    // No match is a failed search, not an empty listing.
    calls.clear();
    list(d_ + "/*.none", 0xC000, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(said(),
              "logsys ZEPDirectoryListing::begin FindFirstFile 2 ECF_FILE_DOESNT_EXIST p80 "
              "L4 m80000001");
    EXPECT_EQ(aLog().items.at(0).bytes, d_ + "/*.none");
    list(path("none"), 0xC000, ECF_FILE_PATH_DOESNT_EXIST);
}

TEST_F(Listing, CursorStatesAndSnapshot) {
    ZEPDirectoryListing l;
    EXPECT_EQ(l.end(), ECF_INVALID_INVOCATION_SEQUENCE);
    ZEPDirectoryListingParam p;
    std::string pattern = d_ + "/*.txt";
    p.path = pattern.c_str();
    p.typeMask = 0x8000;
    ASSERT_EQ(l.begin(&p), 0u);
    const char* flat = l.getFileList();
    const Names first{flat, flat + strlen(flat) + 1};
    EXPECT_EQ(std::set<std::string>(first.begin(), first.end()),
              (std::set<std::string>{"a.txt", "b.txt"}));
    // Later changes to the directory don't reach the snapshot, nor does a second begin.
    put(d_ + "/z.txt", "z");
    ASSERT_EQ(unlink((d_ + "/a.txt").c_str()), 0);
    EXPECT_EQ(l.begin(&p), ECF_INVALID_INVOCATION_SEQUENCE);
    EXPECT_EQ(said(),
              "log ZEPDirectoryListing::end ECF_INVALID_INVOCATION_SEQUENCE p10 L4 n0; "
              "log ZEPDirectoryListing::begin ECF_INVALID_INVOCATION_SEQUENCE p40 L4 n0");
    auto next = [&] {
        const char* n = l.getNext();
        return std::string(n ? n : "<end>");
    };
    // After the last name, null for good; rewind starts again.
    for (int round = 0; round < 2; ++round, l.rewind())
        EXPECT_EQ((Names{next(), next(), next(), next()}),
                  (Names{first[0], first[1], "<end>", "<end>"}));

    testing::internal::CaptureStdout();
    l.dumpFileList();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "========================================= \r\nm_iFileListSize = 13\r\n"
              "There is/are 2 file(s) \r\n========> File List Dump Start <========= \r\n"
              "File 1 : |" +
                  first[0] + "|\r\nFile 2 : |" + first[1] +
                  "|\r\n========>  File List Dump End  <========= \r\n");

    EXPECT_EQ(l.end(), 0u);
    EXPECT_EQ(l.getNumberOfFiles(), 0u);
    EXPECT_EQ(next(), "<end>");
}

}  // namespace
