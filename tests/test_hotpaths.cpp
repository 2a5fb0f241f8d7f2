// The shortcuts of the two hot paths, where a caller would feel them: idle heap blocks reused
// from a thread's freed ones, and the log's file target answering the existence test from its
// open.
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

std::vector<std::string> g_findings;
void collect(String expression, String, Uint32, String, Bool, const ZEPAssertPair*) {
    g_findings.push_back(expression);
}

class IdleReuse : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0), 0u);
        g_findings.clear();
        zepSetAssertionCallback(collect);
    }
    void TearDown() override { zepSetAssertionCallback(nullptr); }
    static char* alloc(Uint32 size) {
        void* p = nullptr;
        EXPECT_EQ(_zepMemAlloc(&p, nullptr, size, 0, "hot.c", 7), 0u);
        return static_cast<char*>(p);
    }
    static void release(void* p) { EXPECT_EQ(_zepMemFree(&p, nullptr, 0, "hot.c", 9), 0u); }
};

// Blocks of every size around the reuse bounds, freed and made again in a shifting window: each
// block is large enough for its request (the C library's granule hides a block 8 bytes short;
// the sanitizer's heap, which knows each request exactly, doesn't), laid out afresh, and never
// given to two holders.
TEST_F(IdleReuse, ReusedBlocksFitAndAreNotShared) {
    std::vector<char*> live;
    std::mt19937 rng(19);
    std::uniform_int_distribution<Uint32> pick(1, 1100);  // inside and beyond the reused sizes
    for (Uint32 op = 0; op < 6000; ++op) {
        const Uint32 size = pick(rng);
        char* p = alloc(size);
        const size_t rounded = (size + 7) & ~size_t{7};
        ASSERT_GE(malloc_usable_size(p - 32), rounded + 32) << size;
        const Uint32 expected[8] = {0, 0, size, ZEP_MEMDBG_IDLE, ZEP_MEM_EYECATCHER, size};
        EXPECT_EQ(memcmp(p - 32, expected, 24), 0) << size;
        memset(p, static_cast<int>(op), rounded);
        ASSERT_EQ(std::set<char*>(live.begin(), live.end()).count(p), 0u) << "given out twice";
        live.push_back(p);
        if (live.size() > 40) {
            release(live[op * 7 % live.size()]);
            live.erase(live.begin() + op * 7 % live.size());
        }
    }
    for (char* p : live) release(p);
    EXPECT_TRUE(g_findings.empty());
}

// A block that left the hold and waits for reuse still bears its freed marks: a second free is
// reported and doesn't hand the block out a second time.
TEST_F(IdleReuse, SecondFreeAfterTheHold) {
    char* p = alloc(1000);
    release(p);
    for (Uint32 i = 0; i < ZEP_MEMDBG_QUARANTINE_BLOCKS + 8; ++i) release(alloc(24));
    void* again = p;
    EXPECT_EQ(_zepMemFree(&again, nullptr, 0, "hot.c", 11), 0u);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(g_findings,
              (std::vector<std::string>{"Freeing freed memory found at:",
                                        "Invalid block eye-catcher (0xDEADD7EE) found at:",
                                        "Freeing freed memory found at:"}));
    char* a = alloc(1000);
    char* b = alloc(1000);
    EXPECT_NE(a, b);
    release(a);
    release(b);
}

// Blocks freed by a thread that then ends go back to the heap with it (a leak checker sees
// none), and the thread's late frees and allocations still work.
TEST_F(IdleReuse, ThreadEndGivesBlocksBack) {
    std::vector<char*> made;
    for (int i = 0; i < 300; ++i) made.push_back(alloc(16 + (i % 128) * 8));
    std::thread([&] {
        for (char* p : made) release(p);
        release(alloc(100));
    }).join();
    EXPECT_TRUE(g_findings.empty());
}

// The log's open or create asks nobody whether the file is there: a file that vanishes, is
// renamed away or appears between two records is met as it is at the second record's open.
TEST(LogFile, FileChangesBetweenRecords) {
    char tmpl[] = "/tmp/zephotXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, path = dir + "/zep.log", moved = dir + "/zep.log.1";
    ZEPLogFacilityParam p;
    snprintf(p.path, sizeof p.path, "%s", path.c_str());
    snprintf(p.name, sizeof p.name, "hot");
    p.level = ZEP_LOG_INFO, p.target = ZEP_LOG_TARGET_FILE, p.permissions = 0600;
    ASSERT_EQ(zepLogFacOpen(&p, nullptr), 0u);
    auto record = [] {
        EXPECT_EQ(zepLog(nullptr, ZEPFN_zepFileRename, ECF_FAILED, 10, ZEP_LOG_INFO, 0), 0u);
    };
    // The location field of the record that starts (at its CR LF) at `at`.
    auto field = [](const std::string& text, size_t at) {
        std::string f = text.substr(at + 33, 17);
        return f.substr(0, f.find(' '));
    };

    record();
    const std::string first = zeptest::slurp(path);
    EXPECT_EQ(field(first, 0), "I2H" + std::to_string(first.size() - 2));

    ASSERT_EQ(rename(path.c_str(), moved.c_str()), 0);  // rotated away: a new file begins
    record();
    EXPECT_EQ(zeptest::slurp(moved), first);
    EXPECT_EQ(zeptest::slurp(path).size(), first.size());

    // Gone, then made again by another writer with 3 bytes: the record goes behind them.
    ASSERT_EQ(unlink(path.c_str()), 0);
    FILE* other = fopen(path.c_str(), "wx");
    ASSERT_NE(other, nullptr);
    fputs("abc", other);
    fclose(other);
    record();
    const std::string third = zeptest::slurp(path);
    EXPECT_EQ(third.substr(0, 3), "abc");
    EXPECT_EQ(field(third, 3), "I5H" + std::to_string(third.size() - 5));

    zepLogFacClose(nullptr);
    ASSERT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
}

}  // namespace
