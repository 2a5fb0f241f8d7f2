// The memory debugger: block layouts byte by byte in each mode, every finding and its order,
// the reports, the ZEPEMEMDBG forms of real processes, and a leaking program's files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using zeptest::exists;
using zeptest::slurp;

Uint32 word(const void* p, long offset) {
    Uint32 w;
    memcpy(&w, static_cast<const char*>(p) + offset, 4);
    return w;
}
// `count` words from `offset` on.
std::vector<Uint32> words(const void* p, long offset, int count) {
    std::vector<Uint32> out;
    for (int i = 0; i < count; ++i) out.push_back(word(p, offset + 4 * i));
    return out;
}
Uint64 unit(const void* p, long offset) {
    Uint64 u;
    memcpy(&u, static_cast<const char*>(p) + offset, 8);
    return u;
}

std::vector<std::string> g_findings;
void collect(String expression, String, Uint32, String, Bool fatal, const ZEPAssertPair* pairs) {
    EXPECT_EQ(fatal, 0);
    EXPECT_EQ(pairs->data, nullptr);
    g_findings.push_back(expression);
}

// Runs helper_memdbg with ZEPEMEMDBG set to `value` (unset for null); its standard output, its
// exit status in `status`.
std::string runHelper(const char* value, const std::vector<std::string>& args, int* status,
                      const std::string& cwd = "") {
    const char* saved = getenv("ZEPEMEMDBG");
    const std::string keep = saved ? saved : "";
    unsetenv("ZEPEMEMDBG");
    std::vector<std::string> env;
    if (value) env.push_back(std::string("ZEPEMEMDBG=") + value);
    std::string out = zeptest::runHelper("helper_memdbg", args, env, status, cwd);
    if (saved) setenv("ZEPEMEMDBG", keep.c_str(), 1);
    return out;
}

class MemDbg : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zepmemdbgXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        memcpy(savedPath_, g_szMemDebugLogPath, sizeof savedPath_);
        snprintf(g_szMemDebugLogPath, sizeof g_szMemDebugLogPath, "%s", dir_.c_str());
        g_findings.clear();
        zepSetAssertionCallback(collect);
    }
    void TearDown() override {
        zepSetAssertionCallback(nullptr);
        EXPECT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0), 0u);
        memcpy(g_szMemDebugLogPath, savedPath_, sizeof savedPath_);
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    void* alloc(Uint32 size, Uint32 flags = 0, const char* file = "src/ab", Uint32 line = 5) {
        void* p = nullptr;
        EXPECT_EQ(_zepMemAlloc(&p, nullptr, size, flags, file, line), 0u);
        return p;
    }
    std::vector<std::string> release(void* p) {
        g_findings.clear();
        EXPECT_EQ(_zepMemFree(&p, nullptr, 0, "free.c", 99), 0u);
        EXPECT_EQ(p, nullptr);
        return g_findings;
    }
    std::string memFile() {
        return dir_ + "/p" + std::to_string(getpid()) + "t" + std::to_string(gettid()) + ".mem";
    }
    std::string leakFile() {
        return dir_ + "/p" + std::to_string(getpid()) + "t" + std::to_string(gettid()) +
               "_leaks.mem";
    }
    std::string dir_;
    Char savedPath_[ZEP_MAX_PATH];
};

using Findings = std::vector<std::string>;

TEST_F(MemDbg, IdleLayout) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0), 0u);
    char* p = static_cast<char*>(alloc(13, ZEP_MEM_MARK, "x\\y/ab", 21));
    // The heap block starts 32 bytes in front: four words, then the header.
    EXPECT_GE(malloc_usable_size(p - 32), 16u + 16u + 16u);
    // The hash is of the base name "ab".
    EXPECT_EQ(words(p, -32, 8), (std::vector<Uint32>{0, 0, 13, ZEP_MEMDBG_IDLE,
                                                     ZEP_MEM_EYECATCHER_MARKED, 13, 0x6162, 21}));
    EXPECT_EQ(_zepMemAllocCheck(reinterpret_cast<void**>(&p), "c", 1, 0), 13u);
    EXPECT_EQ(release(p), Findings{});
    // Freed and held back: the marks of a freed block, nothing given to the heap yet.
    EXPECT_EQ(word(p, -16), ZEP_MEM_EYECATCHER_FREED);
    EXPECT_EQ(word(p, -20), ZEP_MEMDBG_FREED);
}

TEST_F(MemDbg, LightLayout) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_LIGHT, 0, 0), 0u);
    char* p = static_cast<char*>(alloc(13, 0, "abcdefg", 8));
    EXPECT_GE(malloc_usable_size(p - 32), 16u + 16u + 16u + 16u);
    EXPECT_EQ(words(p, -32, 5), (std::vector<Uint32>{ZEP_MEMDBG_PAD_LOW, ZEP_MEMDBG_PAD_HIGH, 13,
                                                     ZEP_MEMDBG_LIGHT, ZEP_MEM_EYECATCHER}));
    EXPECT_EQ(word(p, -8), 0x2DABC9E3u);
    for (int i = 13; i < 16; ++i) EXPECT_EQ(static_cast<Uint8>(p[i]), 0xCCu) << i;
    EXPECT_EQ(memcmp(p + 16, p - 32, 16), 0);  // the back copy of the four words
    EXPECT_EQ(release(p), Findings{});

    // A size that is a multiple of 8 has no filler: the back copy follows at once.
    char* q = static_cast<char*>(alloc(24));
    EXPECT_EQ(memcmp(q + 24, q - 32, 16), 0);
    EXPECT_EQ(release(q), Findings{});
}

TEST_F(MemDbg, FullLayoutAndTheLiveList) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 3, 1), 0u);
    char* p = static_cast<char*>(alloc(13, 0, "/deep/averyveryverylongfilename.cpp", 31));
    char* record = p - 16 - 64;
    char* base = record - 3 * 8;
    EXPECT_GE(malloc_usable_size(base), 3u * 8 + 64 + 16 + 16 + 1 * 8 + 8);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(unit(base, 8 * i), ZEP_MEMDBG_PAD) << i;
    const ZEPMemDebugRecord* r = reinterpret_cast<const ZEPMemDebugRecord*>(record);
    EXPECT_STREQ(r->file, "averyveryverylongfi");  // cut at 19
    EXPECT_EQ(r->size, 13u);
    EXPECT_EQ(r->line, 31u);
    EXPECT_EQ(r->frontPads, 3u);
    EXPECT_EQ(r->backPads, 1u);
    EXPECT_EQ(r->mode, ZEP_MEMDBG_FULL);
    EXPECT_EQ(word(p, -20), ZEP_MEMDBG_FULL);  // the record's mode word is in front of
    EXPECT_EQ(word(p, -8), 0x5012ADBDu);       // the header; the hash is of the whole name
    for (int i = 13; i < 16; ++i) EXPECT_EQ(static_cast<Uint8>(p[i]), 0xCCu) << i;
    EXPECT_EQ(unit(p, 16), ZEP_MEMDBG_PAD);  // one back pad
    EXPECT_EQ(word(p, 24), 13u);             // the trailer
    EXPECT_EQ(word(p, 28), ZEP_MEMDBG_FULL);

    // Youngest first; each block keeps its own pad counts.
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    char* q = static_cast<char*>(alloc(8));
    const ZEPMemDebugRecord* s = reinterpret_cast<const ZEPMemDebugRecord*>(q - 80);
    EXPECT_EQ(s->next, r);
    EXPECT_EQ(r->prev, s);
    EXPECT_EQ(s->prev, nullptr);
    EXPECT_EQ(s->frontPads, 2u);
    EXPECT_EQ(unit(q, 8), ZEP_MEMDBG_PAD);
    EXPECT_EQ(unit(q, 16), ZEP_MEMDBG_PAD);
    EXPECT_EQ(word(q, 24), 8u);
    EXPECT_EQ(release(p), Findings{});
    EXPECT_EQ(s->next, nullptr);  // unlinked from the middle
    EXPECT_EQ(release(q), Findings{});
}

TEST_F(MemDbg, FillPatterns) {
    ASSERT_EQ(zepMemSetDebug(ZEP_MEMDBG_FILL_NEW | ZEP_MEMDBG_FILL_FREED, ZEP_MEMDBG_FULL, 2, 2),
              0u);
    Uint8* p = static_cast<Uint8*>(alloc(20));
    for (int i = 0; i < 20; ++i) EXPECT_EQ(p[i], 0xFFu);
    Uint8* z = static_cast<Uint8*>(alloc(20, ZEP_MEM_ZERO));
    for (int i = 0; i < 20; ++i) EXPECT_EQ(z[i], 0u);
    memset(z, 0x11, 20);
    EXPECT_EQ(release(z), Findings{});
    for (int i = 0; i < 20; ++i) EXPECT_EQ(z[i], 0xFFu);  // freed bytes, held back
    EXPECT_EQ(release(p), Findings{});

    // Idle blocks have no bytes counted by the check: freeing doesn't fill them.
    ASSERT_EQ(zepMemSetDebug(ZEP_MEMDBG_FILL_FREED, ZEP_MEMDBG_IDLE, 0, 0), 0u);
    Uint8* i = static_cast<Uint8*>(alloc(8));
    memset(i, 0x22, 8);
    EXPECT_EQ(release(i), Findings{});
    EXPECT_EQ(i[0], 0x22u);
}

TEST_F(MemDbg, OverrunIntoFillerOrBackPad) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    char* p = static_cast<char*>(alloc(13));
    p[13] = 0;
    p[15] = 0;
    EXPECT_EQ(release(p), (Findings{"Back Uint8 memory pad corruption found at:",
                                    "Back Uint8 memory pad corruption found at:"}));
    char* q = static_cast<char*>(alloc(16));
    q[16] = 0;  // the size is a multiple of 8: the byte is the first back pad's
    EXPECT_EQ(release(q), Findings{"Back pad corruption (0xFEEDFACE600DBE00) found at:"});

    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_LIGHT, 0, 0), 0u);
    p = static_cast<char*>(alloc(13));
    p[14] = 'x';
    EXPECT_EQ(release(p), Findings{"Back memory pad corruption found at:"});
    q = static_cast<char*>(alloc(16));
    q[16] = 'x';
    EXPECT_EQ(release(q), Findings{"Back memory pad corruption found at:"});

    // Idle mode has no pads to find it in.
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0), 0u);
    p = static_cast<char*>(alloc(13));
    p[13] = 'x';
    EXPECT_EQ(release(p), Findings{});
}

TEST_F(MemDbg, FrontDamageAndTheBackStructures) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    char* p = static_cast<char*>(alloc(24));
    p[-80 - 16] = 0;  // the first front pad
    p[-80 - 1] = 0;   // the second
    const Uint32 badMode = 0x12345678, badSize = 25;
    memcpy(p + 24 + 16 + 4, &badMode, 4);
    memcpy(p + 24 + 16, &badSize, 4);
    EXPECT_EQ(release(p),
              (Findings{"Front pad corruption found at:", "Front pad corruption found at:",
                        "Back pad mode (0x12345678)found at:",
                        "Allocation size does not match between front and back pad structures "
                        "found at:"}));

    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_LIGHT, 0, 0), 0u);
    p = static_cast<char*>(alloc(8));
    p[-28] = 0;  // the front pad's second word
    const Uint32 size9 = 9;
    memcpy(p + 8 + 8, &size9, 4);  // the back copy's size
    EXPECT_EQ(release(p), (Findings{"Front memory pad corruption found at:",
                                    "Memory pad size corruption found at:"}));
}

TEST_F(MemDbg, DoubleFreeInEveryMode) {
    for (Uint32 mode : {ZEP_MEMDBG_FULL, ZEP_MEMDBG_LIGHT, ZEP_MEMDBG_IDLE}) {
        ASSERT_EQ(zepMemSetDebug(0, mode, 2, 2), 0u);
        void* p = alloc(40);
        void* again = p;
        EXPECT_EQ(release(p), Findings{});
        g_findings.clear();
        EXPECT_EQ(_zepMemAllocCheck(&again, "check.c", 3, 1), 0u);
        EXPECT_EQ(again, nullptr);  // nothing to give to the heap
        EXPECT_EQ(g_findings, (Findings{"Freeing freed memory found at:",
                                        "Invalid block eye-catcher (0xDEADD7EE) found at:",
                                        "Freeing freed memory found at:"}))
            << std::hex << mode;
        // The same through the free call: still reported, not fatal, the pointer cleared.
        void* third = p;
        EXPECT_EQ(release(third).size(), 3u);
    }
}

TEST_F(MemDbg, BadEyeCatcherPadTypeAndNull) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_LIGHT, 0, 0), 0u);
    char* p = static_cast<char*>(alloc(8));
    const Uint32 eye = 0x12345670;
    memcpy(p - 16, &eye, 4);
    // A damaged eye-catcher alone: reported, and the block is freed by its mode word.
    EXPECT_EQ(release(p), Findings{"Invalid block eye-catcher (0x12345670) found at:"});

    char* q = static_cast<char*>(alloc(8));
    const Uint32 mode = 0xABCDEF01, light = ZEP_MEMDBG_LIGHT;
    memcpy(q - 20, &mode, 4);
    void* keep = q;
    EXPECT_EQ(release(q), Findings{"Invalid pad type (0xABCDEF01) found at:"});
    // An unknown block is left as it is; mend it and free it properly.
    EXPECT_EQ(word(keep, -16), ZEP_MEM_EYECATCHER);
    memcpy(static_cast<char*>(keep) - 20, &light, 4);
    EXPECT_EQ(release(keep), Findings{});

    g_findings.clear();
    void* null = nullptr;
    EXPECT_EQ(_zepMemAllocCheck(&null, "n.c", 1, 0), 0u);
    EXPECT_EQ(_zepMemAllocCheck(nullptr, "n.c", 1, 1), 0u);
    EXPECT_EQ(g_findings, (Findings{"NULL pointer for memory allocation address found at:",
                                    "NULL pointer for memory allocation address found at:"}));
}

TEST_F(MemDbg, FindingsGoToTheThreadFile) {
    zepSetAssertionCallback(nullptr);
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    char* p = static_cast<char*>(alloc(13));
    p[13] = 1;
    ASSERT_EQ(_zepMemFree(reinterpret_cast<void**>(&p), nullptr, 0, "dir/caller.cpp", 1234), 0u);
    std::string text = slurp(memFile());
    EXPECT_EQ(text.compare(0, 29, "NON-FATAL ASSERTION FAILED!!!"), 0) << text;
    EXPECT_NE(text.find("Expr       = Back Uint8 memory pad corruption found at:\r\n"),
              std::string::npos);
    EXPECT_NE(text.find("File       = dir/caller.cpp\r\nLine       = 1234\r\n"), std::string::npos);
}

TEST_F(MemDbg, ToggleAfterAllocation) {
    void* p = alloc(4);  // the allocated flag is set in this process from here on at the latest
    EXPECT_EQ(zepMemSetDebug(ZEP_MEMDBG_FILL_NEW, 0, 0, 0),
              ECF_MEM_CANNOT_TOGGLE_MEM_DEBUG_AFTER_ALLOC);
    // The flags given are in force all the same, the mode isn't.
    Uint8* q = static_cast<Uint8*>(alloc(4));
    EXPECT_EQ(q[0], 0xFFu);
    EXPECT_EQ(word(q, -20), ZEP_MEMDBG_IDLE);
    EXPECT_EQ(zepMemSetDebug(0, 0x1234, 0, 0), ECF_INVALID_PARAMETER);
    release(q);
    release(p);
}

TEST_F(MemDbg, ModeZeroInAFreshProcess) {
    int status = 0;
    std::string out = runHelper(nullptr, {"mode0"}, &status);
    ASSERT_EQ(status, 0) << out;
    // No pads: the header alone in front of the address, the check answers all ones, and once a
    // block exists the mode can't leave 0 (but the flags given are taken).
    EXPECT_EQ(out, "header=A5C3D7E0,13,00006162,77 check=FFFFFFFF toggle=90000079 fill=FF\n");
}

TEST_F(MemDbg, ReportOfLiveBlocks) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    // No live block: no file at all.
    EXPECT_EQ(zepMemAllocList(1), 0u);
    EXPECT_FALSE(exists(memFile()));

    char* a = static_cast<char*>(alloc(10, 0, "one.c", 11));
    char* b = static_cast<char*>(alloc(20, ZEP_MEM_MARK, "two.c", 22));
    b[20] = 0;  // the report checks each block as it goes
    EXPECT_EQ(_zepMemAllocList("lister.c", 5, 1), 0u);
    EXPECT_EQ(g_findings, Findings{"Back Uint8 memory pad corruption found at:"});
    char line[256];
    const std::string stars(76, '*'), equals(76, '=');
    std::string expected = stars + "\nZEPe Unfreed Memory Blocks :\n" + equals + "\n";
    snprintf(line, sizeof line, "Addr: %08lx Code: 0x%x Size: %u Line: %u File: %s\n",
             reinterpret_cast<unsigned long>(b - 16), 0xA5C3D7E1u, 20u, 22u, "two.c");
    expected += line;
    snprintf(line, sizeof line, "Addr: %08lx Code: 0x%x Size: %u Line: %u File: %s\n",
             reinterpret_cast<unsigned long>(a - 16), 0xA5C3D7E0u, 10u, 11u, "one.c");
    expected += line + equals + "\n";
    EXPECT_EQ(slurp(memFile()), expected);

    // With flag bit 5: the leak file with its head and legend.
    ASSERT_EQ(zepMemSetDebug(ZEP_MEMDBG_LEAK_REPORT, ZEP_MEMDBG_FULL, 2, 2), 0u);
    b[20] = static_cast<char>(0xCC);
    EXPECT_EQ(zepMemAllocList(1), 0u);
    std::string leaks = slurp(leakFile());
    std::string head = stars +
                       "\nVRN Support and Development can generate a report of possible memory "
                       "leaks\nusing the following command from any uselvl'd build:\nperl -S "
                       "vrnreportleaks -path " +
                       dir_ +
                       "\n\nTo display all available options, run \"perl -S vrnreportleaks "
                       "-help\"\n" +
                       stars +
                       "\nLegend:\n-------\nAddr - block address\nCode - block eye-catcher with "
                       "flags\nSize - size of the block\nLine - line of code in a file\nFile - "
                       "file name\n" +
                       equals + "\nZEPe Unfreed Memory Blocks :\n" + equals + "\n";
    ASSERT_EQ(leaks.compare(0, head.size(), head), 0) << leaks;
    EXPECT_EQ(leaks.substr(head.size()), expected.substr(expected.find("Addr:")));

    // Without a file: standard output, another line form.
    fflush(stdout);
    const std::string captured = dir_ + "/stdout";
    int saved = dup(1);
    int fd = open(captured.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    dup2(fd, 1);
    close(fd);
    zepMemAllocList(0);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string printed = slurp(captured);
    snprintf(line, sizeof line, "Address: %p Size: 20 Line: 22 File: two.c\n",
             static_cast<void*>(b - 16));
    EXPECT_EQ(printed.compare(0, strlen(line), line), 0) << printed;

    // The report in any other mode: nothing.
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_LIGHT, 2, 2), 0u);
    ASSERT_EQ(unlink(leakFile().c_str()), 0);
    EXPECT_EQ(zepMemAllocList(1), 0u);
    EXPECT_FALSE(exists(leakFile()));

    release(a);
    release(b);
}

TEST_F(MemDbg, ReportWalksADamagedListWithoutCrashing) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    char* a = static_cast<char*>(alloc(10, 0, "one.c", 11));
    char* b = static_cast<char*>(alloc(20, 0, "two.c", 22));
    char* c = static_cast<char*>(alloc(30, 0, "three.c", 33));
    // An underrun of b over its header and its whole record, links included.
    const size_t reach = 16 + sizeof(ZEPMemDebugRecord);
    std::vector<char> saved(b - reach, b);
    memset(b - reach, 0x41, reach);
    EXPECT_EQ(_zepMemAllocList("lister.c", 5, 1), 0u);
    EXPECT_EQ(g_findings, Findings{"Damaged list of live blocks found at:"});
    const std::string report = slurp(memFile());
    char line[256];
    snprintf(line, sizeof line, "Addr: %08lx Code: 0x%x Size: %u Line: %u File: %s\n",
             reinterpret_cast<unsigned long>(c - 16), 0xA5C3D7E0u, 30u, 33u, "three.c");
    EXPECT_NE(report.find(line), std::string::npos) << report;
    snprintf(line, sizeof line, "Addr: %08lx Damaged list: the blocks behind it are not shown\n",
             reinterpret_cast<unsigned long>(b - 16));
    EXPECT_NE(report.find(line), std::string::npos) << report;
    // The leak report at the end walks the same list: as long as b is damaged, it must not fail
    // either. Then b is mended so that the blocks can go.
    EXPECT_EQ(zepMemAllocList(0), 0u);
    memcpy(b - reach, saved.data(), reach);
    release(c);
    release(b);
    release(a);
}

TEST_F(MemDbg, ReportOnRequestByTheExportedFlag) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    void* a = alloc(10);
    g_bDumpMemAllocListFlag = 1;
    // A free of a null address is refused before the request is looked at.
    void* null = nullptr;
    EXPECT_EQ(zepMemFree(&null, nullptr, 0), ECF_MEM_NULL_POINTER);
    EXPECT_EQ(g_bDumpMemAllocListFlag, 1);
    EXPECT_FALSE(exists(memFile()));
    // The next call of any thread writes it.
    std::thread([&] {
        void* b = nullptr;
        EXPECT_EQ(zepMemAlloc(&b, nullptr, 4, 0), 0u);
        EXPECT_EQ(zepMemFree(&b, nullptr, 0), 0u);
    }).join();
    EXPECT_EQ(g_bDumpMemAllocListFlag, 0);
    release(a);
    // Written by the other thread: its own file.
    std::string listing;
    FILE* ls = popen(("ls '" + dir_ + "'").c_str(), "r");
    char name[256];
    while (fgets(name, sizeof name, ls)) listing += name;
    pclose(ls);
    EXPECT_NE(listing.find(".mem"), std::string::npos);
}

TEST_F(MemDbg, ThreadsAllocateFreeAndReportTogether) {
    ASSERT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_FULL, 2, 2), 0u);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            std::vector<void*> mine;
            for (int i = 0; i < 2000; ++i) {
                void* p = nullptr;
                EXPECT_EQ(zepMemAlloc(&p, nullptr, 1 + (i * 7 + t) % 300, 0), 0u);
                mine.push_back(p);
                if (mine.size() > 16) {
                    EXPECT_EQ(zepMemFree(&mine.front(), nullptr, 0), 0u);
                    mine.erase(mine.begin());
                }
                if (t == 0 && i % 500 == 0) zepMemAllocList(1);  // into thread 0's own file
            }
            for (void*& p : mine) EXPECT_EQ(zepMemFree(&p, nullptr, 0), 0u);
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(g_findings, Findings{});
    // Every block was freed: the list is empty again, so no report is written.
    zepMemAllocList(1);
    EXPECT_FALSE(exists(memFile()));
}

// ---- ZEPEMEMDBG in real processes

TEST(MemDbgStartup, Forms) {
    int status;
    struct Case {
        const char* value;
        const char* state;
    } cases[] = {
        {nullptr, "mode=1D1EC0DE cb=null path=[] ffdc=0 report=0\n"},
        {"no/such,leaks",
         "mode=A110CA7E cb=set flags=0x2F pads=2,2 path=[no/such] ffdc=1 report=1\n"},
        {"no/such,LeAkS",
         "mode=A110CA7E cb=set flags=0x2F pads=2,2 path=[no/such] ffdc=1 report=1\n"},
        {"no/such,All",
         "mode=A110CA7E cb=set flags=0x2F pads=2,2 path=[no/such] ffdc=1 report=1\n"},
        {"no/such,full",
         "mode=A110CA7E cb=set flags=0xF pads=2,2 path=[no/such] ffdc=0 report=0\n"},
        {",,no/such,,corruptions,",
         "mode=A110CA7E cb=set flags=0xF pads=2,2 path=[no/such] ffdc=0 report=0\n"},
        {"no/such,light", "mode=E7AC011A cb=null path=[no/such] ffdc=0 report=0\n"},
        // Invalid: one field, three fields, a leading comma that leaves one, an unknown level.
        {"no/such", "mode=1D1EC0DE cb=null path=[no/such] ffdc=0 report=0\n"},
        {"no/such,FULL,x", "mode=1D1EC0DE cb=null path=[no/such] ffdc=0 report=0\n"},
        {",FULL", "mode=1D1EC0DE cb=null path=[FULL] ffdc=0 report=0\n"},
        {"no/such,IDLE", "mode=1D1EC0DE cb=null path=[no/such] ffdc=0 report=0\n"},
        {"", "mode=1D1EC0DE cb=null path=[] ffdc=0 report=0\n"},
    };
    zeptest::TempDir dir("zepforms");
    for (const Case& c : cases) {
        // Run where "no/such" and "FULL" don't exist as directories: no log file is left behind.
        const char* shown = c.value ? c.value : "unset";
        EXPECT_EQ(runHelper(c.value, {"state"}, &status, dir.path), c.state) << shown;
        EXPECT_EQ(status, 0) << shown;
    }
}

TEST(MemDbgStartup, DebugLogTexts) {
    zeptest::TempDir temp("zepdbglog");
    const std::string dir = temp.path, log = temp / "zepememdbg.log";
    int status;
    // Valid: appended, the level as given.
    std::string value = dir + ",leaks";
    runHelper(value.c_str(), {"state"}, &status);
    runHelper((dir + ",Light").c_str(), {"state"}, &status);
    std::string text = slurp(log);
    std::vector<std::string> pids;
    for (size_t at = 0; (at = text.find("PID            = 0x", at)) != std::string::npos; ++at)
        pids.push_back(text.substr(at + 19, text.find('\n', at) - at - 19));
    ASSERT_EQ(pids.size(), 2u) << text;
    const std::string dashes = "---------------------------------\n";
    EXPECT_EQ(text, "PID            = 0x" + pids[0] + "\n" + dashes +
                        "mode           = leaks\nflags          = 0x2F\nFront pad size = 2\n"
                        "Back pad size  = 2\n\n"
                        "PID            = 0x" +
                        pids[1] + "\n" + dashes +
                        "mode           = Light\nflags          = 0xB\nFront pad size = 2\n"
                        "Back pad size  = 2\n\n");

    // Invalid: the file is replaced by the usage text.
    runHelper(dir.c_str(), {"state"}, &status);
    text = slurp(log);
    size_t nl = text.find('\n');
    ASSERT_NE(nl, std::string::npos);
    EXPECT_EQ(text.compare(0, 8, "PID = 0x"), 0) << text;
    EXPECT_EQ(text.substr(nl + 1),
              "----------------------------------------------------\n"
              "Original Debug String is " +
                  dir +
                  "\nInvalid ZEPEMEMDBG string detected.\n\nUsage : export "
                  "ZEPEMEMDBG=<PATH>,<LEVEL>\n   where <PATH> is the path to store "
                  "zepememdbg.log\n         <LEVEL> is one of the ZEPFULL, LIGHT, or IDLE\n\n");
}

TEST(MemDbgStartup, LeakingProgramLeavesItsFiles) {
    zeptest::TempDir temp("zepleaks");
    const std::string dir = temp.path;
    int status;
    std::string out = runHelper((dir + ",LEAKS").c_str(), {"leaks"}, &status);
    ASSERT_EQ(status, 0);
    unsigned pid = 0, tid = 0, lineA = 0, lineB = 0;
    ASSERT_EQ(sscanf(out.c_str(), "%u %u %u %u", &pid, &tid, &lineA, &lineB), 4) << out;
    const std::string stem = dir + "/p" + std::to_string(pid) + "t" + std::to_string(tid);

    EXPECT_NE(slurp(dir + "/zepememdbg.log").find("mode           = LEAKS\n"), std::string::npos);
    std::string findings = slurp(stem + ".mem");
    EXPECT_NE(findings.find("Expr       = Back Uint8 memory pad corruption found at:\r\n"),
              std::string::npos)
        << findings;
    EXPECT_NE(findings.find("helper_memdbg.cpp"), std::string::npos);

    std::string leaks = slurp(stem + "_leaks.mem");
    std::vector<std::string> lines;
    for (size_t at = 0; (at = leaks.find("Addr: ", at)) != std::string::npos; ++at)
        lines.push_back(leaks.substr(at, leaks.find('\n', at) - at));
    ASSERT_EQ(lines.size(), 2u) << leaks;
    // Youngest first: the second leak, then the first.
    EXPECT_NE(lines[0].find(" Code: 0xa5c3d7e0 Size: 100 Line: " + std::to_string(lineB) +
                            " File: helper_memdbg.cpp"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find(" Code: 0xa5c3d7e0 Size: 40 Line: " + std::to_string(lineA) +
                            " File: helper_memdbg.cpp"),
              std::string::npos)
        << lines[1];
}

TEST(MemDbgStartup, TerminateTwiceWritesTwice) {
    zeptest::TempDir temp("zepterminate");
    const std::string dir = temp.path;
    int status;
    std::string out = runHelper((dir + ",ALL").c_str(), {"terminate"}, &status);
    ASSERT_EQ(status, 0);
    unsigned pid = 0, tid = 0;
    ASSERT_EQ(sscanf(out.c_str(), "%u %u", &pid, &tid), 2);
    std::string leaks =
        slurp(dir + "/p" + std::to_string(pid) + "t" + std::to_string(tid) + "_leaks.mem");
    size_t n = 0;
    for (size_t at = 0; (at = leaks.find("Addr: ", at)) != std::string::npos; ++at) ++n;
    EXPECT_EQ(n, 2u) << leaks;
    // A level without the report at process end leaves no leak file.
    std::string cmd = "rm -rf '" + dir + "'/*";
    ASSERT_EQ(system(cmd.c_str()), 0);
    runHelper((dir + ",FULL").c_str(), {"terminate"}, &status);
    std::string listing;
    FILE* ls = popen(("ls '" + dir + "'").c_str(), "r");
    char name[256];
    while (fgets(name, sizeof name, ls)) listing += name;
    pclose(ls);
    EXPECT_EQ(listing, "zepememdbg.log\n");
}

}  // namespace
