// The catalogue as callers and the log see it: rows, bounds, null results, finds.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "zepecf.h"

namespace {

std::string str(const char* s) {
    return s ? s : "-";
}

// Everything the catalogue says of a code, in one line.
std::string code(Uint32 c) {
    return str(ecfErrorGetCodeName(c)) + "|" + str(ecfErrorGetDescription(c)) + "|" +
           str(ecfErrorGetProductName(c)) + "|" + str(ecfErrorGetComponentName(c)) + "|" +
           str(ecfErrorGetSetName(c));
}

TEST(Catalogue, Codes) {
    const std::pair<Uint32, std::string> rows[] = {
        {ECF_FILE_DOESNT_EXIST,
         "ECF_FILE_DOESNT_EXIST|File doesn't exist|VRN Common|operating "
         "system|setecf"},
        // The severity bit isn't read.
        {0x1000001A, "ECF_FILE_DOESNT_EXIST|File doesn't exist|VRN Common|operating system|setecf"},
        {ECF_NO_MEMORY, "ECF_NO_MEMORY|Insufficent memory|VRN Common||setecf"},
        {ECF_FILE_EXECUTING_IMAGE,
         "ECF_FILE_EXECUTING_IMAGE|The file is a executable image that is currently being "
         "executed|VRN Common|operating system|setecf"},
        {0x10000006, "ECF_PARTIAL_INFO|Only partial information available|VRN Common||setecf"},
        {0x900003EF,
         "ECF_ZEPLOCK_CORRUPT|A corrupt ZEPLock value has been detected.|VRN Common|ZEPe|setecf"},
        {0x90000315,
         "ECF_SEC_INVALID_PASSWORD|The user supplied password is incorrect|VRN Common||setecf"},
        {ECF_GTRACE_NOT_ATTACHED, "ECF_GTRACE_NOT_ATTACHED|" +
                                      std::string(ecfErrorGetDescription(ECF_GTRACE_NOT_ATTACHED)) +
                                      "|VRN Common|ZEPe|setecf"},
        // The last library row, which is the last row of the set.
        {0x90000525,
         "ECF_ARCHIVE_SHARE_NAME_NOT_FOUND|object name within archive is not "
         "found.|VRN Common|operating system|setecf"},
        {0, "OK|OK|-|-|-"},
        // One past the last index, index 0 of the set, a set field of 2.
        {0x9000052B, "-|-|-|-|setecf"},
        {0x90000000, "-|-|-|-|setecf"},
        {0x10000000, "-|-|-|-|setecf"},
        {0xA000001A, "-|-|-|-|-"},
        {0x2000001A, "-|-|-|-|-"},
    };
    for (const auto& [c, want] : rows) EXPECT_EQ(code(c), want) << std::hex << c;
    EXPECT_EQ(str(ecfErrorGetCodeName(0x9000051F)), "ECF_DECFLOAT_INVALID_STRING_LENGTH");
    EXPECT_EQ(ECF_FILE_EXISTS, 0x9000001Bu);
    EXPECT_EQ(ECF_NOT_RECOGNIZED_BINARY_TYPE, 0x90000522u);
    EXPECT_EQ(ecfErrorGetNumCodes(1), 1322u);
    EXPECT_EQ(ecfErrorGetNumCodes(0) + ecfErrorGetNumCodes(2), 0u);
}

TEST(Catalogue, EveryIndexOfTheSetLooksUp) {
    // 203 library rows plus the password row are named; every other index is a reserved row
    // whose name and description are empty but present.
    int named = 0;
    std::set<std::string> names;
    for (Uint32 i = 1; i <= 1322; ++i) {
        const Uint32 c = 0x90000000u | i;
        const char* name = ecfErrorGetCodeName(c);
        const char* desc = ecfErrorGetDescription(c);
        ASSERT_TRUE(name && desc && ecfErrorGetProductName(c) && ecfErrorGetComponentName(c)) << i;
        EXPECT_EQ(*name == 0, *desc == 0) << i;
        if (*name) {
            EXPECT_TRUE(names.insert(name).second) << name;
        }
        named += *name != 0;
    }
    EXPECT_EQ(named, 204);
}

// Product, component and function names of an identifier, in one line.
std::string fn(Uint32 id) {
    return str(ecfGetProductName(id)) + "|" + str(ecfGetComponentName(id)) + "|" +
           str(ecfGetComponentShortName(id)) + "|" + str(ecfGetFunctionName(id));
}

TEST(Catalogue, Functions) {
    EXPECT_EQ(ecfGetNumProducts(), 3u);
    const Uint32 components[] = {0, 16, 4, 184};
    for (Uint32 p = 0; p < 4; ++p) EXPECT_EQ(ecfGetNumComponents(p), components[p]) << p;
    const Uint32 functions[][3] = {
        {1, COMP_SYSFUNCS, 354}, {1, COMP_ZEPE, 174}, {1, 1, 0}, {0, 3, 0}, {1, 0, 0}, {3, 100, 0}};
    for (const auto& f : functions) EXPECT_EQ(ecfGetNumFunctions(f[0], f[1]), f[2]) << f[1];

    const Uint32 ids[] = {ZEPFN_zepFileRename, SYSFN_MoveFile, ZEPFN_zepAssertFailed,
                          ZEPFN_zepgetpass,    SYSFN_access,   SYSFN_setresuid,
                          ZEPFN_ZEPHFile_open};
    const Uint32 want[] = {0x081A0016, 0x08140089, 0x081A0001, 0x081A00AD,
                           0x08140001, 0x08140161, 0x081A0002};
    for (size_t i = 0; i < std::size(ids); ++i) EXPECT_EQ(ids[i], want[i]) << i;

    const std::pair<Uint32, const char*> rows[] = {
        {0x081A0016, "VRN Common|ZEPe|COMP_ZEPE|zepFileRename"},
        {0x08180016, "VRN Common|ZEPe|COMP_ZEPE|zepFileRename"},  // class bits ignored
        {0x081F0016, "VRN Common|ZEPe|COMP_ZEPE|zepFileRename"},
        {SYSFN_MoveFile, "VRN Common|operating system|COMP_SYSFUNCS|MoveFile"},
        {ZEPFN_ZEPHIPCQueue_put, "VRN Common|ZEPe|COMP_ZEPE|ZEPHIPCQueue::put"},
        {ZEP_FUNC_ID(2, 0, 0, 0), "VRN Tools|-|-|-"},
        {ZEP_FUNC_ID(3, 0, 0, 0), "VRN Engine|-|-|-"},
        {ZEP_FUNC_ID(4, 3, 2, 22), "-|-|-|-"},
        {ZEP_FUNC_ID(0, 3, 2, 22), "-|-|-|-"},
        {ZEP_FUNC_ID(1, 16, 2, 1), "VRN Common|-|-|-"},  // not below the count
        {ZEP_FUNC_ID(1, 15, 2, 1), "VRN Common|||-"},    // an unused slot, without functions
        {ZEP_FUNC_ID(1, 3, 2, 0), "VRN Common|ZEPe|COMP_ZEPE|-"},
        {ZEP_FUNC_ID(1, 3, 2, 174), "VRN Common|ZEPe|COMP_ZEPE|-"},
        {ZEP_FUNC_ID(1, 3, 2, 173), "VRN Common|ZEPe|COMP_ZEPE|zepgetpass"},
    };
    for (const auto& [id, w] : rows) EXPECT_EQ(fn(id), w) << std::hex << id;
    EXPECT_EQ(ecfGetComponentName(ZEP_FUNC_ID(1, 0, 2, 1)), nullptr);
}

TEST(Catalogue, Finds) {
    EXPECT_EQ(ecfFindProductIndex("VRN Common"), 1u);
    EXPECT_EQ(ecfFindProductIndex("VRN Engine"), 3u);
    for (const char* p : {"vrn common", "VRN", static_cast<const char*>(nullptr)})
        EXPECT_EQ(ecfFindProductIndex(p), 0u);
    EXPECT_EQ(ecfFindComponentIndex(1, "COMP_ZEPE"), 3u);
    EXPECT_EQ(ecfFindComponentIndex(1, "COMP_SYSFUNCS"), 2u);
    EXPECT_EQ(ecfFindComponentIndex(1, "ZEPe"), 0u);  // short names only
    EXPECT_EQ(ecfFindComponentIndex(0, "COMP_ZEPE"), 0u);
    EXPECT_EQ(ecfFindComponentIndex(1, nullptr), 0u);

    const struct {
        Uint32 product, component;
        const char* name;
        Uint32 index;
    } finds[] = {{1, 3, "zepFileRename", 22}, {1, 2, "MoveFile", 137},
                 {1, 2, "setresuid", 353},    {1, 3, "zepfilerename", 0},
                 {1, 3, "zepFileRenam", 0},   {0, 3, "zepFileRename", 0},
                 {1, 0, "zepFileRename", 0},  {1, 3, nullptr, 0},
                 {1, 1, "zepFileRename", 0}};  // a count below 2
    for (const auto& f : finds)
        EXPECT_EQ(ecfFindFunctionIndex(f.product, f.component, f.name), f.index) << str(f.name);
    // Every name of the two components finds its own index.
    for (Uint32 c : {COMP_SYSFUNCS, COMP_ZEPE})
        for (Uint32 i = 1; i < ecfGetNumFunctions(1, c); ++i)
            ASSERT_EQ(ecfFindFunctionIndex(1, c, ecfGetFunctionName(ZEP_FUNC_ID(1, c, 0, i))), i);
}

}  // namespace
