// The memory debugger: block layouts byte by byte in each mode, every finding and its order,
// the reports, the ZEPEMEMDBG forms of real processes, and a leaking program's files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using zeptest::exists;
using zeptest::slurp;
using Findings = std::vector<std::string>;
using Words = std::vector<Uint32>;

Uint32 word(const void* p, long offset) {
    Uint32 w;
    memcpy(&w, static_cast<const char*>(p) + offset, 4);
    return w;
}
Words words(const void* p, long offset, int count) {
    Words out;
    for (int i = 0; i < count; ++i) out.push_back(word(p, offset + 4 * i));
    return out;
}
Uint64 unit(const void* p, long offset) {
    Uint64 u;
    memcpy(&u, static_cast<const char*>(p) + offset, 8);
    return u;
}
void put(void* p, long offset, Uint32 w) {
    memcpy(static_cast<char*>(p) + offset, &w, 4);
}

Findings g_findings;
void collect(String expression, String, Uint32, String, Bool fatal, const ZEPAssertPair* pairs) {
    EXPECT_EQ(fatal, 0);
    EXPECT_EQ(pairs->data, nullptr);
    g_findings.push_back(expression);
}

// helper_memdbg with ZEPEMEMDBG set to `value` (unset for null): its output and exit status.
std::string runHelper(const char* value, const char* command, int* status,
                      const std::string& cwd = "") {
    const char* saved = getenv("ZEPEMEMDBG");
    const std::string keep = saved ? saved : "";
    unsetenv("ZEPEMEMDBG");
    std::vector<std::string> env;
    if (value) env.push_back(std::string("ZEPEMEMDBG=") + value);
    std::string out = zeptest::runHelper("helper_memdbg", {command}, env, status, cwd);
    if (saved) setenv("ZEPEMEMDBG", keep.c_str(), 1);
    return out;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++n;
    return n;
}

std::string reportLine(const char* block, Uint32 code, Uint32 size, Uint32 line, const char* file) {
    char text[256];
    snprintf(text, sizeof text, "Addr: %08lx Code: 0x%x Size: %u Line: %u File: %s\n",
             reinterpret_cast<unsigned long>(block - 16), code, size, line, file);
    return text;
}

class MemDbg : public ::testing::Test {
protected:
    void SetUp() override {
        memcpy(savedPath_, g_szMemDebugLogPath, sizeof savedPath_);
        snprintf(g_szMemDebugLogPath, sizeof g_szMemDebugLogPath, "%s", dir_.c_str());
        g_findings.clear();
        zepSetAssertionCallback(collect);
    }
    void TearDown() override {
        zepSetAssertionCallback(nullptr);
        EXPECT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0), 0u);
        memcpy(g_szMemDebugLogPath, savedPath_, sizeof savedPath_);
    }
    static void mode(Uint32 m, Uint32 flags = 0, Uint32 front = 2, Uint32 back = 2) {
        ASSERT_EQ(zepMemSetDebug(flags, m, front, back), 0u);
    }
    static char* alloc(Uint32 size, Uint32 flags = 0, const char* file = "src/ab",
                       Uint32 line = 5) {
        void* p = nullptr;
        EXPECT_EQ(_zepMemAlloc(&p, nullptr, size, flags, file, line), 0u);
        return static_cast<char*>(p);
    }
    static Findings release(void* p) {
        g_findings.clear();
        EXPECT_EQ(_zepMemFree(&p, nullptr, 0, "free.c", 99), 0u);
        EXPECT_EQ(p, nullptr);
        return g_findings;
    }
    zeptest::TempDir temp_{"zepmemdbg"};
    const std::string dir_ = temp_.path;
    Char savedPath_[ZEP_MAX_PATH];
};

TEST_F(MemDbg, IdleAndLightLayouts) {
    mode(ZEP_MEMDBG_IDLE, 0, 0, 0);
    char* p = alloc(13, ZEP_MEM_MARK, "x\\y/ab", 21);
    // The heap block starts 32 bytes in front: four words, then the header with the hash of the
    // base name "ab".
    EXPECT_GE(malloc_usable_size(p - 32), 48u);
    EXPECT_EQ(words(p, -32, 8),
              (Words{0, 0, 13, ZEP_MEMDBG_IDLE, ZEP_MEM_EYECATCHER_MARKED, 13, 0x6162, 21}));
    EXPECT_EQ(_zepMemAllocCheck(reinterpret_cast<void**>(&p), "c", 1, 0), 13u);
    EXPECT_EQ(release(p), Findings{});
    // Freed and held back: the marks of a freed block, nothing given to the heap yet.
    EXPECT_EQ(words(p, -20, 2), (Words{ZEP_MEMDBG_FREED, ZEP_MEM_EYECATCHER_FREED}));

    mode(ZEP_MEMDBG_LIGHT, 0, 0, 0);
    p = alloc(13, 0, "abcdefg", 8);
    EXPECT_GE(malloc_usable_size(p - 32), 64u);
    EXPECT_EQ(words(p, -32, 5), (Words{ZEP_MEMDBG_PAD_LOW, ZEP_MEMDBG_PAD_HIGH, 13,
                                       ZEP_MEMDBG_LIGHT, ZEP_MEM_EYECATCHER}));
    EXPECT_EQ(word(p, -8), 0x2DABC9E3u);
    EXPECT_EQ(std::string(p + 13, 3), "\xCC\xCC\xCC");
    EXPECT_EQ(memcmp(p + 16, p - 32, 16), 0);  // the back copy of the four words
    EXPECT_EQ(release(p), Findings{});
    // A size that is a multiple of 8 has no filler: the back copy follows at once.
    char* q = alloc(24);
    EXPECT_EQ(memcmp(q + 24, q - 32, 16), 0);
    EXPECT_EQ(release(q), Findings{});
}

TEST_F(MemDbg, FullLayoutAndTheLiveList) {
    mode(ZEP_MEMDBG_FULL, 0, 3, 1);
    char* p = alloc(13, 0, "/deep/averyveryverylongfilename.cpp", 31);
    char* base = p - 16 - 64 - 3 * 8;
    EXPECT_GE(malloc_usable_size(base), 3u * 8 + 64 + 16 + 16 + 1 * 8 + 8);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(unit(base, 8 * i), ZEP_MEMDBG_PAD) << i;
    const auto* r = reinterpret_cast<const ZEPMemDebugRecord*>(p - 80);
    EXPECT_STREQ(r->file, "averyveryverylongfi");  // cut at 19
    EXPECT_EQ(Words({r->size, r->line, r->frontPads, r->backPads, r->mode}),
              (Words{13, 31, 3, 1, ZEP_MEMDBG_FULL}));
    // The record's mode word is in front of the header; the hash is of the whole name.
    EXPECT_EQ(word(p, -20), ZEP_MEMDBG_FULL);
    EXPECT_EQ(word(p, -8), 0x5012ADBDu);
    EXPECT_EQ(std::string(p + 13, 3), "\xCC\xCC\xCC");
    EXPECT_EQ(unit(p, 16), ZEP_MEMDBG_PAD);  // one back pad, then the trailer
    EXPECT_EQ(words(p, 24, 2), (Words{13, ZEP_MEMDBG_FULL}));

    // Youngest first; each block keeps its own pad counts.
    mode(ZEP_MEMDBG_FULL);
    char* q = alloc(8);
    const auto* s = reinterpret_cast<const ZEPMemDebugRecord*>(q - 80);
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
    mode(ZEP_MEMDBG_FULL, ZEP_MEMDBG_FILL_NEW | ZEP_MEMDBG_FILL_FREED);
    char* p = alloc(20);
    EXPECT_EQ(std::string(p, 20), std::string(20, '\xFF'));
    char* z = alloc(20, ZEP_MEM_ZERO);
    EXPECT_EQ(std::string(z, 20), std::string(20, '\0'));
    memset(z, 0x11, 20);
    EXPECT_EQ(release(z), Findings{});
    EXPECT_EQ(std::string(z, 20), std::string(20, '\xFF'));  // freed bytes, held back
    EXPECT_EQ(release(p), Findings{});

    // Idle blocks have no bytes counted by the check: freeing doesn't fill them.
    mode(ZEP_MEMDBG_IDLE, ZEP_MEMDBG_FILL_FREED, 0, 0);
    char* i = alloc(8);
    memset(i, 0x22, 8);
    EXPECT_EQ(release(i), Findings{});
    EXPECT_EQ(i[0], 0x22);
}

// Damage written at an offset of a fresh block, and what freeing it reports.
TEST_F(MemDbg, DamageAndItsFindings) {
    // Bytes (b) or words (w) written at offsets of a fresh block, and the findings, one a line.
    const char* const back8 = "Back Uint8 memory pad corruption found at:\n";
    const char* const back = "Back memory pad corruption found at:\n";
    const char* const front = "Front pad corruption found at:\n";
    struct {
        Uint32 mode, size;
        std::vector<std::tuple<char, long, Uint32>> damage;
        std::string findings;
    } cases[] = {
        // clang-format off
        {ZEP_MEMDBG_FULL, 13, {{'b', 13, 0}, {'b', 15, 0}}, std::string(back8) + back8},
        // The size is a multiple of 8: the byte is the first back pad's.
        {ZEP_MEMDBG_FULL, 16, {{'b', 16, 0}},
         "Back pad corruption (0xFEEDFACE600DBE00) found at:\n"},
        {ZEP_MEMDBG_LIGHT, 13, {{'b', 14, 'x'}}, back},
        {ZEP_MEMDBG_LIGHT, 16, {{'b', 16, 'x'}}, back},
        {ZEP_MEMDBG_IDLE, 13, {{'b', 13, 'x'}}, ""},  // no pads to find it in
        {ZEP_MEMDBG_FULL, 24, {{'b', -96, 0}, {'b', -81, 0}, {'w', 44, 0x12345678}, {'w', 40, 25}},
         std::string(front) + front + "Back pad mode (0x12345678)found at:\n"
         "Allocation size does not match between front and back pad structures found at:\n"},
        {ZEP_MEMDBG_LIGHT, 8, {{'b', -28, 0}, {'w', 16, 9}},
         "Front memory pad corruption found at:\nMemory pad size corruption found at:\n"},
        // A damaged eye-catcher alone: reported, and the block is freed by its mode word.
        {ZEP_MEMDBG_LIGHT, 8, {{'w', -16, 0x12345670}},
         "Invalid block eye-catcher (0x12345670) found at:\n"},
        // clang-format on
    };
    for (const auto& c : cases) {
        mode(c.mode);
        char* p = alloc(c.size);
        for (auto [kind, at, v] : c.damage)
            kind == 'b' ? void(p[at] = static_cast<char>(v)) : put(p, at, v);
        std::string got;
        for (const std::string& f : release(p)) got += f + "\n";
        EXPECT_EQ(got, c.findings) << std::hex << c.mode << " " << c.size;
    }

    // An unknown pad type: the block is left as it is; mended, it frees properly.
    char* q = alloc(8);
    put(q, -20, 0xABCDEF01);
    void* keep = q;
    EXPECT_EQ(release(q), Findings{"Invalid pad type (0xABCDEF01) found at:"});
    EXPECT_EQ(word(keep, -16), ZEP_MEM_EYECATCHER);
    put(keep, -20, ZEP_MEMDBG_LIGHT);
    EXPECT_EQ(release(keep), Findings{});

    g_findings.clear();
    void* null = nullptr;
    EXPECT_EQ(_zepMemAllocCheck(&null, "n.c", 1, 0), 0u);
    EXPECT_EQ(_zepMemAllocCheck(nullptr, "n.c", 1, 1), 0u);
    EXPECT_EQ(g_findings, Findings(2, "NULL pointer for memory allocation address found at:"));
}

TEST_F(MemDbg, DoubleFreeInEveryMode) {
    for (Uint32 m : {ZEP_MEMDBG_FULL, ZEP_MEMDBG_LIGHT, ZEP_MEMDBG_IDLE}) {
        mode(m);
        void* p = alloc(40);
        void* again = p;
        EXPECT_EQ(release(p), Findings{});
        g_findings.clear();
        EXPECT_EQ(_zepMemAllocCheck(&again, "check.c", 3, 1), 0u);
        EXPECT_EQ(again, nullptr);  // nothing to give to the heap
        EXPECT_EQ(g_findings, (Findings{"Freeing freed memory found at:",
                                        "Invalid block eye-catcher (0xDEADD7EE) found at:",
                                        "Freeing freed memory found at:"}))
            << std::hex << m;
        // The same through the free call: still reported, not fatal, the pointer cleared.
        EXPECT_EQ(release(p).size(), 3u);
    }
}

TEST_F(MemDbg, ToggleAfterAllocation) {
    char* p = alloc(4);  // the allocated flag is set in this process from here on at the latest
    EXPECT_EQ(zepMemSetDebug(ZEP_MEMDBG_FILL_NEW, 0, 0, 0),
              ECF_MEM_CANNOT_TOGGLE_MEM_DEBUG_AFTER_ALLOC);
    // The flags given are in force all the same, the mode isn't.
    char* q = alloc(4);
    EXPECT_EQ(q[0], '\xFF');
    EXPECT_EQ(word(q, -20), ZEP_MEMDBG_IDLE);
    EXPECT_EQ(zepMemSetDebug(0, 0x1234, 0, 0), ECF_INVALID_PARAMETER);
    release(q);
    release(p);

    // Mode 0 in a fresh process: no pads, the header alone in front of the address, the check
    // answers all ones, and once a block exists the mode can't leave 0 (the flags are taken).
    int status = 0;
    EXPECT_EQ(runHelper(nullptr, "mode0", &status),
              "header=A5C3D7E0,13,00006162,77 check=FFFFFFFF toggle=90000079 fill=FF\n");
    EXPECT_EQ(status, 0);
}

TEST_F(MemDbg, ReportOfLiveBlocks) {
    mode(ZEP_MEMDBG_FULL);
    const std::string memFile = zeptest::threadFile(dir_);
    const std::string leakFile = zeptest::threadFile(dir_, "_leaks.mem");
    EXPECT_EQ(zepMemAllocList(1), 0u);  // no live block: no file at all
    EXPECT_FALSE(exists(memFile));

    char* a = alloc(10, 0, "one.c", 11);
    char* b = alloc(20, ZEP_MEM_MARK, "two.c", 22);
    b[20] = 0;  // the report checks each block as it goes
    EXPECT_EQ(_zepMemAllocList("lister.c", 5, 1), 0u);
    EXPECT_EQ(g_findings, Findings{"Back Uint8 memory pad corruption found at:"});
    const std::string stars(76, '*'), equals(76, '=');
    const std::string lines =
        reportLine(b, 0xA5C3D7E1, 20, 22, "two.c") + reportLine(a, 0xA5C3D7E0, 10, 11, "one.c");
    const std::string title = "ZEPe Unfreed Memory Blocks :\n" + equals + "\n";
    EXPECT_EQ(slurp(memFile), stars + "\n" + title + lines + equals + "\n");

    // With flag bit 5: the leak file with its head and legend.
    mode(ZEP_MEMDBG_FULL, ZEP_MEMDBG_LEAK_REPORT);
    b[20] = static_cast<char>(0xCC);
    EXPECT_EQ(zepMemAllocList(1), 0u);
    EXPECT_EQ(slurp(leakFile),
              stars +
                  "\nVRN Support and Development can generate a report of possible memory leaks\n"
                  "using the following command from any uselvl'd build:\n"
                  "perl -S vrnreportleaks -path " +
                  dir_ + "\n\nTo display all available options, run \"perl -S vrnreportleaks " +
                  "-help\"\n" + stars +
                  "\nLegend:\n-------\nAddr - block address\nCode - block eye-catcher with flags\n"
                  "Size - size of the block\nLine - line of code in a file\nFile - file name\n" +
                  equals + "\n" + title + lines + equals + "\n");

    // Without a file: standard output, another line form.
    fflush(stdout);
    const int saved = dup(1), fd = open((dir_ + "/stdout").c_str(), O_CREAT | O_WRONLY, 0644);
    dup2(fd, 1);
    close(fd);
    zepMemAllocList(0);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    char line[256];
    snprintf(line, sizeof line, "Address: %p Size: 20 Line: 22 File: two.c\n",
             static_cast<void*>(b - 16));
    EXPECT_EQ(slurp(dir_ + "/stdout").rfind(line, 0), 0u);

    // The report in any other mode: nothing.
    mode(ZEP_MEMDBG_LIGHT);
    ASSERT_EQ(unlink(leakFile.c_str()), 0);
    EXPECT_EQ(zepMemAllocList(1), 0u);
    EXPECT_FALSE(exists(leakFile));
    release(a);
    release(b);
}

TEST_F(MemDbg, ReportWalksADamagedListWithoutCrashing) {
    mode(ZEP_MEMDBG_FULL);
    char* a = alloc(10, 0, "one.c", 11);
    char* b = alloc(20, 0, "two.c", 22);
    char* c = alloc(30, 0, "three.c", 33);
    // An underrun of b over its header and its whole record, links included.
    const size_t reach = 16 + sizeof(ZEPMemDebugRecord);
    std::vector<char> saved(b - reach, b);
    memset(b - reach, 0x41, reach);
    EXPECT_EQ(_zepMemAllocList("lister.c", 5, 1), 0u);
    EXPECT_EQ(g_findings, Findings{"Damaged list of live blocks found at:"});
    char damaged[128];
    snprintf(damaged, sizeof damaged,
             "Addr: %08lx Damaged list: the blocks behind it are not shown\n",
             reinterpret_cast<unsigned long>(b - 16));
    const std::string report = slurp(zeptest::threadFile(dir_));
    EXPECT_NE(report.find(reportLine(c, 0xA5C3D7E0, 30, 33, "three.c") + damaged),
              std::string::npos)
        << report;
    // The leak report at the end walks the same list: it must not fail on it either.
    EXPECT_EQ(zepMemAllocList(0), 0u);
    memcpy(b - reach, saved.data(), reach);
    release(c);
    release(b);
    release(a);
}

TEST_F(MemDbg, ReportOnRequestByTheExportedFlag) {
    mode(ZEP_MEMDBG_FULL);
    char* a = alloc(10);
    g_bDumpMemAllocListFlag = 1;
    // A free of a null address is refused before the request is looked at.
    void* null = nullptr;
    EXPECT_EQ(zepMemFree(&null, nullptr, 0), ECF_MEM_NULL_POINTER);
    EXPECT_EQ(g_bDumpMemAllocListFlag, 1);
    EXPECT_EQ(zeptest::listing(dir_), "");
    // The next call of any thread writes it, into that thread's own file.
    std::thread([&] {
        void* b = nullptr;
        EXPECT_EQ(zepMemAlloc(&b, nullptr, 4, 0), 0u);
        EXPECT_EQ(zepMemFree(&b, nullptr, 0), 0u);
    }).join();
    EXPECT_EQ(g_bDumpMemAllocListFlag, 0);
    release(a);
    EXPECT_NE(zeptest::listing(dir_).find(".mem\n"), std::string::npos);
}

TEST_F(MemDbg, ThreadsAllocateFreeAndReportTogether) {
    mode(ZEP_MEMDBG_FULL);
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
    EXPECT_FALSE(exists(zeptest::threadFile(dir_)));
}

// ---- ZEPEMEMDBG in real processes

TEST(MemDbgStartup, Forms) {
    // The block mode, the flags and pads if set up, the path, FFDC and the report at the end.
    const char* const off = "1D1EC0DE [no/such] 0 0\n";
    const char* const leaks = "A110CA7E 0x2F 2,2 [no/such] 1 1\n";
    const char* const full = "A110CA7E 0xF 2,2 [no/such] 0 0\n";
    const char* const cases[][2] = {
        {nullptr, "1D1EC0DE [] 0 0\n"},
        {"no/such,leaks", leaks},
        {"no/such,LeAkS", leaks},
        {"no/such,All", leaks},
        {"no/such,full", full},
        {",,no/such,,corruptions,", full},
        {"no/such,light", "E7AC011A [no/such] 0 0\n"},
        // Invalid: one field, three fields, a leading comma that leaves one, an unknown level.
        {"no/such", off},
        {"no/such,FULL,x", off},
        {",FULL", "1D1EC0DE [FULL] 0 0\n"},
        {"no/such,IDLE", off},
        {"", "1D1EC0DE [] 0 0\n"}};
    // Run where "no/such" and "FULL" don't exist as directories: no log file is left behind.
    zeptest::TempDir dir("zepforms");
    for (const auto& c : cases) {
        int status;
        EXPECT_EQ(runHelper(c[0], "state", &status, dir.path), c[1]) << (c[0] ? c[0] : "unset");
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(zeptest::listing(dir.path), "");
}

TEST(MemDbgStartup, DebugLogTexts) {
    zeptest::TempDir temp("zepdbglog");
    const std::string dir = temp.path, log = temp / "zepememdbg.log";
    int status;
    // Valid: appended, the level as given.
    runHelper((dir + ",leaks").c_str(), "state", &status);
    runHelper((dir + ",Light").c_str(), "state", &status);
    std::string text = slurp(log);
    std::vector<std::string> pids;
    for (size_t at = 0; (at = text.find("PID            = 0x", at)) != std::string::npos; ++at)
        pids.push_back(text.substr(at + 19, text.find('\n', at) - at - 19));
    ASSERT_EQ(pids.size(), 2u) << text;
    const std::string dashes = "---------------------------------\n";
    const std::string pads = "Front pad size = 2\nBack pad size  = 2\n\n";
    EXPECT_EQ(text, "PID            = 0x" + pids[0] + "\n" + dashes +
                        "mode           = leaks\nflags          = 0x2F\n" + pads +
                        "PID            = 0x" + pids[1] + "\n" + dashes +
                        "mode           = Light\nflags          = 0xB\n" + pads);

    // Invalid: the file is replaced by the usage text.
    runHelper(dir.c_str(), "state", &status);
    text = slurp(log);
    EXPECT_EQ(text.compare(0, 8, "PID = 0x"), 0) << text;
    EXPECT_EQ(text.substr(text.find('\n') + 1),
              "----------------------------------------------------\nOriginal Debug String is " +
                  dir +
                  "\nInvalid ZEPEMEMDBG string detected.\n\nUsage : export "
                  "ZEPEMEMDBG=<PATH>,<LEVEL>\n   where <PATH> is the path to store "
                  "zepememdbg.log\n         <LEVEL> is one of the ZEPFULL, LIGHT, or IDLE\n\n");
}

TEST(MemDbgStartup, LeakingProgramLeavesItsFiles) {
    zeptest::TempDir temp("zepleaks");
    const std::string dir = temp.path;
    int status;
    std::string out = runHelper((dir + ",LEAKS").c_str(), "leaks", &status);
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
    // Youngest first: the second leak, then the first, and no other.
    const std::string leaks = slurp(stem + "_leaks.mem");
    const std::string code = " Code: 0xa5c3d7e0 Size: ", file = " File: helper_memdbg.cpp\n";
    const size_t second = leaks.find(code + "100 Line: " + std::to_string(lineB) + file);
    EXPECT_NE(leaks.find(code + "40 Line: " + std::to_string(lineA) + file, second),
              std::string::npos)
        << leaks;
    EXPECT_EQ(count(leaks, "Addr: "), 2u);
}

TEST(MemDbgStartup, TerminateTwiceWritesTwice) {
    zeptest::TempDir temp("zepterminate");
    const std::string dir = temp.path;
    int status;
    std::string out = runHelper((dir + ",ALL").c_str(), "terminate", &status);
    ASSERT_EQ(status, 0);
    unsigned pid = 0, tid = 0;
    ASSERT_EQ(sscanf(out.c_str(), "%u %u", &pid, &tid), 2);
    std::string leaks =
        slurp(dir + "/p" + std::to_string(pid) + "t" + std::to_string(tid) + "_leaks.mem");
    EXPECT_EQ(count(leaks, "Addr: "), 2u) << leaks;
    // A level without the report at process end leaves no leak file.
    ASSERT_EQ(system(("rm -rf '" + dir + "'/*").c_str()), 0);
    runHelper((dir + ",FULL").c_str(), "terminate", &status);
    EXPECT_EQ(zeptest::listing(dir), "zepememdbg.log\n");
}

}  // namespace
