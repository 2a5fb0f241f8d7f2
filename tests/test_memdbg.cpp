// The memory debugger: block layouts in each mode, the findings and their order, the reports, and
// ZEPEMEMDBG in real processes.
#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <random>
#include <thread>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using zeptest::slurp;
using Findings = std::vector<std::string>;
using Words = std::vector<Uint32>;
const Uint32 kLow = ZEP_MEMDBG_PAD_LOW, kHigh = ZEP_MEMDBG_PAD_HIGH;

Words words(const void* p, long offset, int count) {
    Words out(count);
    memcpy(out.data(), static_cast<const char*>(p) + offset, 4 * count);
    return out;
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

// helper_memdbg's output, run with ZEPEMEMDBG set to `value` (unset for null).
std::string runHelper(const char* value, const char* command, const std::string& cwd = "") {
    unsetenv("ZEPEMEMDBG");
    std::vector<std::string> env;
    if (value) env.push_back(std::string("ZEPEMEMDBG=") + value);
    int status = -1;
    const std::string out = zeptest::runHelper("helper_memdbg", {command}, env, &status, cwd);
    EXPECT_EQ(status, 0) << command << " " << (value ? value : "unset");
    return out;
}

class MemDbg : public ::testing::Test {
protected:
    void SetUp() override {
        snprintf(g_szMemDebugLogPath, sizeof g_szMemDebugLogPath, "%s", dir_.c_str());
        g_findings.clear();
        zepSetAssertionCallback(collect);
    }
    void TearDown() override {
        zepSetAssertionCallback(nullptr);
        EXPECT_EQ(zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0), 0u);
        g_szMemDebugLogPath[0] = 0;
    }
    static void mode(Uint32 m, Uint32 flags = 0, Uint32 front = 2, Uint32 back = 2) {
        ASSERT_EQ(zepMemSetDebug(flags, m, front, back), 0u);
    }
    static char* alloc(Uint32 size, Uint32 flags = 0, const char* file = "ab", Uint32 line = 5) {
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
};

TEST_F(MemDbg, BlockLayouts) {
    // Idle: four words, then the header with the hash of the base name (of 6 bytes: no seed).
    mode(ZEP_MEMDBG_IDLE, 0, 0, 0);
    char* p = alloc(13, ZEP_MEM_MARK, "x/y\\abcdef", 21);
    EXPECT_EQ(words(p, -32, 8),
              (Words{0, 0, 13, ZEP_MEMDBG_IDLE, ZEP_MEM_EYECATCHER_MARKED, 13, 0x61620602, 21}));
    EXPECT_EQ(_zepMemAllocCheck(reinterpret_cast<void**>(&p), "c", 1, 0), 13u);
    EXPECT_EQ(release(p), Findings{});
    EXPECT_EQ(words(p, -20, 2), (Words{ZEP_MEMDBG_FREED, ZEP_MEM_EYECATCHER_FREED}));

    mode(ZEP_MEMDBG_LIGHT);
    p = alloc(13, 0, "abcdefg", 8);
    EXPECT_EQ(words(p, -32, 8),
              (Words{kLow, kHigh, 13, ZEP_MEMDBG_LIGHT, ZEP_MEM_EYECATCHER, 13, 0x2DABC9E3, 8}));
    EXPECT_EQ(memcmp(p + 16, p - 32, 16), 0);  // the back copy of the four words, behind filler
    EXPECT_EQ(release(p), Findings{});

    // Full: pads, the record (name cut at 19, hashed whole), header, filler, pads, trailer.
    mode(ZEP_MEMDBG_FULL, 0, 3, 1);
    p = alloc(13, 0, "/deep/averyveryverylongfilename.cpp", 31);
    EXPECT_EQ(words(p, -104, 6), (Words{kLow, kHigh, kLow, kHigh, kLow, kHigh}));
    const auto* r = reinterpret_cast<const ZEPMemDebugRecord*>(p - 80);
    EXPECT_STREQ(r->file, "averyveryverylongfi");
    EXPECT_EQ(Words({r->size, r->line, r->frontPads, r->backPads}), (Words{13, 31, 3, 1}));
    EXPECT_EQ(words(p, -20, 5), (Words{ZEP_MEMDBG_FULL, ZEP_MEM_EYECATCHER, 13, 0x5012ADBD, 31}));
    EXPECT_EQ(std::string(p + 13, 3), "\xCC\xCC\xCC");
    EXPECT_EQ(words(p, 16, 4), (Words{kLow, kHigh, 13, ZEP_MEMDBG_FULL}));
    // Each block keeps its own pad counts.
    mode(ZEP_MEMDBG_FULL);
    EXPECT_EQ(release(p), Findings{});
}

TEST_F(MemDbg, DamageDoubleFreesAndTheirFindings) {
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
    put(keep, -20, ZEP_MEMDBG_LIGHT);
    EXPECT_EQ(release(keep), Findings{});

    // A second free, also of an idle block that left the thread's hold and waits for reuse:
    // reported, not fatal, and nothing given to the heap.
    for (Uint32 m : {ZEP_MEMDBG_FULL, ZEP_MEMDBG_LIGHT, ZEP_MEMDBG_IDLE}) {
        mode(m);
        char* p = alloc(1000);
        release(p);
        for (Uint32 i = 0; m == ZEP_MEMDBG_IDLE && i < ZEP_MEMDBG_QUARANTINE_BLOCKS + 8; ++i)
            release(alloc(24));
        EXPECT_EQ(release(p), (Findings{"Freeing freed memory found at:",
                                        "Invalid block eye-catcher (0xDEADD7EE) found at:",
                                        "Freeing freed memory found at:"}))
            << std::hex << m;
    }
}

TEST_F(MemDbg, ToggleAfterAllocation) {
    char* p = alloc(4);  // the allocated flag is set in this process from here on at the latest
    EXPECT_EQ(zepMemSetDebug(ZEP_MEMDBG_FILL_NEW, 0, 0, 0),
              ECF_MEM_CANNOT_TOGGLE_MEM_DEBUG_AFTER_ALLOC);
    // The flags given are in force all the same, the mode isn't.
    char* q = alloc(4);
    EXPECT_EQ(q[0], '\xFF');
    EXPECT_EQ(words(q, -20, 1), Words{ZEP_MEMDBG_IDLE});
    release(q);
    release(p);
    // Mode 0 in a fresh process: the header alone in front of the address, the check answers all
    // ones, and once a block exists the mode can't leave 0 (the flags are taken).
    EXPECT_EQ(runHelper(nullptr, "mode0"),
              "header=A5C3D7E0,13,00006162,77 check=FFFFFFFF toggle=90000079 fill=FF\n");
}

TEST_F(MemDbg, ReportOfLiveBlocks) {
    mode(ZEP_MEMDBG_FULL);
    const std::string memFile = zeptest::threadFile(dir_);
    const std::string leakFile = zeptest::threadFile(dir_, "_leaks.mem");

    char* a = alloc(10, 0, "one.c", 11);
    char* b = alloc(20, ZEP_MEM_MARK, "two.c", 22);
    b[20] = 0;  // the report checks each block as it goes
    EXPECT_EQ(_zepMemAllocList("lister.c", 5, 1), 0u);
    EXPECT_EQ(g_findings, Findings{"Back Uint8 memory pad corruption found at:"});
    const std::string stars(76, '*'), equals(76, '=');
    char lines[256];  // youngest first, the marked block's code with its flag
    snprintf(lines, sizeof lines,
             "Addr: %08lx Code: 0xa5c3d7e1 Size: 20 Line: 22 File: two.c\n"
             "Addr: %08lx Code: 0xa5c3d7e0 Size: 10 Line: 11 File: one.c\n",
             reinterpret_cast<unsigned long>(b - 16), reinterpret_cast<unsigned long>(a - 16));
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

    for (char* block : {a, b}) release(block);
}

TEST_F(MemDbg, ThreadsAllocateFreeAndReportTogether) {
    mode(ZEP_MEMDBG_FULL);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            void* held[16] = {};  // each freed 16 allocations later
            for (int i = 0; i < 2000 + 16; ++i) {
                void*& p = held[i % 16];
                EXPECT_TRUE(p == nullptr || zepMemFree(&p, nullptr, 0) == 0);
                EXPECT_TRUE(i >= 2000 || zepMemAlloc(&p, nullptr, 1 + (i * 7 + t) % 300, 0) == 0);
                if (t == 0 && i % 500 == 0)  // a report on request, as a signal handler asks
                    __atomic_store_n(&g_bDumpMemAllocListFlag, 1, __ATOMIC_RELEASE);
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(g_findings, Findings{});
    // The next allocator call of any thread wrote the report asked for, into its own file.
    EXPECT_EQ(g_bDumpMemAllocListFlag, 0);
    EXPECT_THAT(zeptest::listing(dir_), HasSubstr(".mem\n"));
}

class IdleReuse : public MemDbg {};

// Idle blocks of sizes inside and beyond the reused ones, each freed 41 allocations later and made
// again: each large enough for its request (the C library's granule hides a block 8 bytes short;
// the sanitizer's heap doesn't) and laid out afresh.
TEST_F(IdleReuse, ReusedBlocksFit) {
    std::mt19937 rng(19);
    std::vector<char*> live(41);
    for (Uint32 op = 0; op < 6000; ++op) {
        char*& p = live[op % live.size()];
        EXPECT_TRUE(p == nullptr || release(p).empty());
        const Uint32 size = static_cast<Uint32>(1 + rng() % 1100), rounded = (size + 7) & ~7u;
        p = alloc(size);
        ASSERT_GE(malloc_usable_size(p - 32), rounded + 32) << size;
        EXPECT_EQ(words(p, -32, 6), (Words{0, 0, size, ZEP_MEMDBG_IDLE, ZEP_MEM_EYECATCHER, size}));
        memset(p, static_cast<int>(op), rounded);
    }
    for (char* p : live) release(p);
}

TEST(MemDbgStartup, Forms) {
    // The block mode, the flags and pads if set up, the path, FFDC and the report at the end.
    const char* const off = "1D1EC0DE [no/such] 0 0\n";
    const char* const leaks = "A110CA7E 0x2F 2,2 [no/such] 1 1\n";
    const char* const full = "A110CA7E 0xF 2,2 [no/such] 0 0\n";
    const char* const cases[][2] = {
        {nullptr, "1D1EC0DE [] 0 0\n"},
        {"no/such,LeAkS", leaks},
        {"no/such,full", full},
        {",,no/such,,corruptions,", full},
        {"no/such,light", "E7AC011A [no/such] 0 0\n"},
        // Invalid: one field, three fields, a leading comma that leaves one, an unknown level.
        {"no/such", off},
        {"no/such,FULL,x", off},
        {",FULL", "1D1EC0DE [FULL] 0 0\n"},
        {"no/such,IDLE", off}};
    // Run where "no/such" and "FULL" don't exist as directories: no log file is left behind.
    zeptest::TempDir dir("zepforms");
    for (const auto& c : cases)
        EXPECT_EQ(runHelper(c[0], "state", dir.path), c[1]) << (c[0] ? c[0] : "unset");
    EXPECT_EQ(zeptest::listing(dir.path), "");
}

// A leaking program's files: its start-up's entry in the debugger's log, the level as given, and
// the leak report at its end. An invalid setting replaces the log by the usage.
TEST(MemDbgStartup, LogAndLeaksOfAProgram) {
    zeptest::TempDir dir("zepleaks");
    const std::string out = runHelper((dir.path + ",LEAKS").c_str(), "leaks");
    char stem[64];
    unsigned pid = 0, tid = 0, lineA = 0, lineB = 0;
    ASSERT_EQ(sscanf(out.c_str(), "p%ut%u %u %u", &pid, &tid, &lineA, &lineB), 4) << out;
    snprintf(stem, sizeof stem, "%s/p%ut%u", dir.path.c_str(), pid, tid);
    const std::string entry =
        "---------------------------------\nmode           = %s\nflags          "
        "= 0x%X\nFront pad size = 2\nBack pad size  = 2\n\n";
    char log[512];
    snprintf(log, sizeof log, ("PID            = 0x%X\n" + entry).c_str(), pid, "LEAKS", 0x2F);
    EXPECT_EQ(slurp(dir / "zepememdbg.log"), log);
    // Written at process end, youngest first: the second leak, then the first, and no other.
    const std::string line =
        "Addr: \\w+ Code: 0xa5c3d7e0 Size: %u Line: %u File: helper_memdbg.cpp\n";
    char blocks[256];
    snprintf(blocks, sizeof blocks, ("=\n" + line + line + "=").c_str(), 100, lineB, 40, lineA);
    EXPECT_THAT(slurp(std::string(stem) + "_leaks.mem"), ContainsRegex(blocks));

    const std::string invalid = runHelper(dir.path.c_str(), "pid");
    EXPECT_EQ(
        slurp(dir / "zepememdbg.log"),
        "PID = 0x" + invalid +
            "----------------------------------------------------\nOriginal Debug String is " +
            dir.path +
            "\nInvalid ZEPEMEMDBG string detected.\n\nUsage : export "
            "ZEPEMEMDBG=<PATH>,<LEVEL>\n   where <PATH> is the path to store "
            "zepememdbg.log\n         <LEVEL> is one of the ZEPFULL, LIGHT, or IDLE\n\n");
}

}  // namespace
