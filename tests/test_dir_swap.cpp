// A recursive delete while the tree changes under it: a directory that the walk has listed but
// not yet entered is replaced by a symbolic link to a directory outside the tree. The walk must
// remove the link and leave the outside alone.
//
// The swap is made at a known point of the walk: this binary defines the trace entry points
// (they win over the library's), turns the trace on, and acts on the data record that the walk
// writes when it enters its first nested directory.
#include <stdarg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "zep.h"

namespace {

namespace fs = std::filesystem;
std::string g_top, g_outside, g_held;
int g_swaps = 0;
Uint32 g_block[4];

void swapSibling(const std::string& entered) {
    // Replace the sibling of the entered directory, which the walk listed before it began.
    std::string name = entered.substr(g_top.size() + 1);
    std::string other = name == "a" ? "b" : "a";
    ASSERT_EQ(rename((g_top + "/" + other).c_str(), g_held.c_str()), 0);
    ASSERT_EQ(symlink(g_outside.c_str(), (g_top + "/" + other).c_str()), 0);
    ++g_swaps;
}

}  // namespace

extern "C" {
void _gtraceEntry(Uint64, Uint32) {}
void _gtraceExit(Uint64, Uint32, const Uint32*, Uint32, Uint32) {}
void _gtraceErrorVar(Uint64, Uint32, Uint16, Uint16, Uint32, Uint32, Uint32, ...) {}
void _gtraceVar(Uint64, Uint32 fid, Uint16 probe, Uint16, Uint32 n, ...) {
    if (fid != ZEPFN_zep_directory_delete_recursive || probe != 10 || n != 1 || g_swaps) return;
    va_list ap;
    va_start(ap, n);
    va_arg(ap, Uint32);
    Uint32 length = va_arg(ap, Uint32);
    std::string path(va_arg(ap, const char*), length);
    va_end(ap);
    if (path.size() > g_top.size()) swapSibling(path);
}
}

TEST(DirSwap, ALinkSwappedInIsRemovedAsALink) {
    char tmpl[] = "/tmp/zeptestXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string base = tmpl;
    g_top = base + "/top", g_outside = base + "/outside", g_held = base + "/held";
    for (const std::string& d : {g_top, g_top + "/a", g_top + "/b", g_outside})
        fs::create_directory(d);
    for (const std::string& d : {g_top + "/a", g_top + "/b", g_outside})
        for (int i = 0; i < 5; ++i) std::ofstream(d + "/f" + std::to_string(i)) << d << i;

    g_block[1] = 1;
    g_pGTCB = reinterpret_cast<GTCB*>(g_block);
    ZEPDirectoryDeleteParam p;
    p.path = g_top.c_str();
    p.options = ZEP_DIR_DELETE_CONTENTS;
    EXPECT_EQ(zepDirectoryDelete(&p), 0u);
    g_pGTCB = nullptr;

    EXPECT_EQ(g_swaps, 1);
    EXPECT_FALSE(fs::exists(fs::symlink_status(g_top)));
    // Neither the outside nor the directory moved away lost anything.
    for (const std::string& d : {g_outside, g_held})
        for (int i = 0; i < 5; ++i) EXPECT_TRUE(fs::exists(d + "/f" + std::to_string(i))) << d << i;
    fs::remove_all(base);
}
