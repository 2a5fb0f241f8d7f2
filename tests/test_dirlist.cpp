// ZEPDirectoryListing as callers use it: which names enter, in which order, both views agreeing,
// the exact dump, and the state rules.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "zeptest_capture.h"

namespace {

using namespace zeptest;
using Names = std::vector<std::string>;

class Listing : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        d_ = path("d");
        ASSERT_EQ(mkdir(d_.c_str(), 0755), 0);
        for (const char* n : {"a.txt", "b.txt", "c.log"}) std::ofstream(d_ + "/" + n) << n;
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
        Uint32 size = 1;
        for (const char* n; (n = l.getNext()) != nullptr;)
            names.push_back(n), size += strlen(n) + 1;
        if (rc != 0) return names;
        EXPECT_EQ(l.getNumberOfFiles(), names.size());
        EXPECT_EQ(l.getFileListSize(), size);
        std::string flat(l.getFileList(), size), expected;
        for (const std::string& n : names) expected += n + '\0';
        EXPECT_EQ(flat, expected + '\0');
        EXPECT_EQ(l.end(), 0u);
        return names;
    }
    // The directory's own order, of the names in `want`.
    Names inDirectoryOrder(std::set<std::string> want) {
        Names order;
        DIR* dir = opendir(d_.c_str());
        while (dirent* e = readdir(dir))
            if (want.count(e->d_name)) order.push_back(e->d_name);
        closedir(dir);
        return order;
    }
    std::string d_;
};

TEST_F(Listing, WhatEntersAndInWhichOrder) {
    Names all = inDirectoryOrder({".", "..", "a.txt", "b.txt", "c.log", "s", "ls"});
    EXPECT_EQ(list(d_, 0xC000), all);
    EXPECT_EQ(list(d_ + "/", 0xC000), all);
    EXPECT_EQ(list(d_, 0x8000), inDirectoryOrder({"a.txt", "b.txt", "c.log"}));
    EXPECT_EQ(list(d_, 0x4000), inDirectoryOrder({".", "..", "s", "ls"}));
    EXPECT_EQ(list(d_, 0x0002), Names{"c.log"});  // a permission bit: only the file others write
    EXPECT_EQ(list(d_, 0), Names{});
    EXPECT_EQ(list(d_ + "/*.txt", 0xC000), inDirectoryOrder({"a.txt", "b.txt"}));
    EXPECT_EQ(list(d_ + "/?.*", 0x8000), inDirectoryOrder({"a.txt", "b.txt", "c.log"}));

    // A pattern without a directory part is tested in the current directory.
    char here[4096];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_EQ(chdir(d_.c_str()), 0);
    EXPECT_EQ(list("*.log", 0x8000), Names{"c.log"});
    ASSERT_EQ(chdir(here), 0);
    EXPECT_EQ(list("*.log", 0x8000, ECF_FILE_DOESNT_EXIST), Names{});
}

TEST_F(Listing, FailuresOfTheSearch) {
    struct Row {
        std::string path, search;
        Uint32 rc, err;
    } rows[] = {{path("none"), path("none/*"), ECF_FILE_PATH_DOESNT_EXIST, 3},
                {d_ + "/*.none", d_ + "/*.none", ECF_FILE_DOESNT_EXIST, 2}};
    for (const Row& r : rows) {
        calls.clear();
        list(r.path, 0xC000, r.rc);
        const Call& c = theLog(ZEPFN_ZEPDirectoryListing_begin, 80, r.rc);
        EXPECT_EQ(c.called, SYSFN_FindFirstFile);
        EXPECT_EQ(c.err, r.err);
        EXPECT_EQ(c.items[0].bytes, r.search);
    }
    calls.clear();
    ZEPDirectoryListing l;
    EXPECT_EQ(l.begin(nullptr), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_ZEPDirectoryListing_begin, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
}

TEST_F(Listing, CursorStatesAndSnapshot) {
    ZEPDirectoryListing l;
    EXPECT_EQ(l.end(), ECF_INVALID_INVOCATION_SEQUENCE);
    theLog(ZEPFN_ZEPDirectoryListing_end, 10, ECF_INVALID_INVOCATION_SEQUENCE);

    ZEPDirectoryListingParam p;
    std::string pattern = d_ + "/*.txt";
    p.path = pattern.c_str();
    p.typeMask = 0x8000;
    ASSERT_EQ(l.begin(&p), 0u);
    Names first = inDirectoryOrder({"a.txt", "b.txt"});
    // Later changes to the directory don't reach the snapshot.
    std::ofstream(d_ + "/z.txt") << "z";
    ASSERT_EQ(unlink((d_ + "/a.txt").c_str()), 0);
    calls.clear();
    EXPECT_EQ(l.begin(&p), ECF_INVALID_INVOCATION_SEQUENCE);
    theLog(ZEPFN_ZEPDirectoryListing_begin, 40, ECF_INVALID_INVOCATION_SEQUENCE);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(l.getNext(), first[0]);
        EXPECT_EQ(l.getNext(), first[1]);
        EXPECT_EQ(l.getNext(), nullptr);
        EXPECT_EQ(l.getNext(), nullptr);
        l.rewind();
    }
    EXPECT_EQ(l.getNumberOfFiles(), 2u);

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
    EXPECT_EQ(l.getFileList(), nullptr);
    EXPECT_EQ(l.getNext(), nullptr);
    calls.clear();
    {
        ZEPDirectoryListing idle;  // its destructor has nothing to say
    }
    EXPECT_EQ(kinds(), Names{});
}

}  // namespace
