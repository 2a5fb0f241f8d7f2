// The catalogue as callers and the log see it: rows, bounds, null results, finds.
#include <gtest/gtest.h>

#include <string>

#include "zepecf.h"

namespace {

std::string str(const char* s) {
    return s ? s : "-";
}

TEST(Catalogue, Codes) {
    // Everything the catalogue says of a code, in one line.
    auto code = [](Uint32 c) {
        return str(ecfErrorGetCodeName(c)) + "|" + str(ecfErrorGetDescription(c)) + "|" +
               str(ecfErrorGetProductName(c)) + "|" + str(ecfErrorGetComponentName(c)) + "|" +
               str(ecfErrorGetSetName(c));
    };
    const std::pair<Uint32, std::string> rows[] = {
        {0x9000001A, "ECF_FILE_DOESNT_EXIST|File doesn't exist|VRN Common|operating system|setecf"},
        // The severity bit isn't read.
        {0x1000001A, "ECF_FILE_DOESNT_EXIST|File doesn't exist|VRN Common|operating system|setecf"},
        {0x10000006, "ECF_PARTIAL_INFO|Only partial information available|VRN Common||setecf"},
        {0x900003EF,
         "ECF_ZEPLOCK_CORRUPT|A corrupt ZEPLock value has been detected.|VRN Common|ZEPe|setecf"},
        {0x90000315,
         "ECF_SEC_INVALID_PASSWORD|The user supplied password is incorrect|VRN Common||setecf"},
        // The last row of the set.
        {0x90000525,
         "ECF_ARCHIVE_SHARE_NAME_NOT_FOUND|object name within archive is not "
         "found.|VRN Common|operating system|setecf"},
        {0, "OK|OK|-|-|-"},
        // One past the last index, a set field of 2.
        {0x9000052B, "-|-|-|-|setecf"},
        {0x2000001A, "-|-|-|-|-"},
    };
    for (const auto& [c, want] : rows) EXPECT_EQ(code(c), want) << std::hex << c;
    EXPECT_EQ(ecfErrorGetNumCodes(1), 1322u);
    EXPECT_EQ(ecfErrorGetNumCodes(0) + ecfErrorGetNumCodes(2), 0u);
}

TEST(Catalogue, Functions) {
    EXPECT_EQ(ecfGetNumProducts(), 3u);
    EXPECT_EQ(std::vector<Uint32>({ecfGetNumComponents(0), ecfGetNumComponents(1),
                                   ecfGetNumComponents(2), ecfGetNumComponents(3),
                                   ecfGetNumFunctions(1, 2), ecfGetNumFunctions(1, 3),
                                   ecfGetNumFunctions(1, 1), ecfGetNumFunctions(0, 3)}),
              std::vector<Uint32>({0, 16, 4, 184, 354, 174, 0, 0}));
    // Product, component, short name and function name of an identifier, in one line.
    auto fn = [](Uint32 id) {
        return str(ecfGetProductName(id)) + "|" + str(ecfGetComponentName(id)) + "|" +
               str(ecfGetComponentShortName(id)) + "|" + str(ecfGetFunctionName(id));
    };
    const std::pair<Uint32, const char*> rows[] = {
        {0x081A0016, "VRN Common|ZEPe|COMP_ZEPE|zepFileRename"},
        {0x08180016, "VRN Common|ZEPe|COMP_ZEPE|zepFileRename"},  // class bits ignored
        {SYSFN_MoveFile, "VRN Common|operating system|COMP_SYSFUNCS|MoveFile"},
        {ZEP_FUNC_ID(4, 3, 2, 22), "-|-|-|-"},
        {ZEP_FUNC_ID(1, 16, 2, 1), "VRN Common|-|-|-"},  // not below the count
        {ZEP_FUNC_ID(1, 15, 2, 1), "VRN Common|||-"},    // an unused slot, without functions
        {ZEP_FUNC_ID(1, 3, 2, 174), "VRN Common|ZEPe|COMP_ZEPE|-"},
        {ZEP_FUNC_ID(1, 3, 2, 173), "VRN Common|ZEPe|COMP_ZEPE|zepgetpass"},
    };
    for (const auto& [id, w] : rows) EXPECT_EQ(fn(id), w) << std::hex << id;
}

TEST(Catalogue, Finds) {
    EXPECT_EQ(ecfFindProductIndex("VRN Engine"), 3u);
    EXPECT_EQ(ecfFindComponentIndex(1, "COMP_ZEPE"), 3u);
    // Whole names, case-sensitive; short component names only; null names and components of
    // fewer than 2 slots find nothing.
    EXPECT_EQ(std::vector<Uint32>(
                  {ecfFindProductIndex("vrn engine"), ecfFindComponentIndex(1, "ZEPe"),
                   ecfFindFunctionIndex(1, 3, "zepFileRenam"), ecfFindFunctionIndex(1, 3, nullptr),
                   ecfFindFunctionIndex(1, 1, "zepFileRename")}),
              std::vector<Uint32>(5, 0));
    // Every name of the two components finds its own index.
    for (Uint32 c : {COMP_SYSFUNCS, COMP_ZEPE})
        for (Uint32 i = 1; i < ecfGetNumFunctions(1, c); ++i)
            ASSERT_EQ(ecfFindFunctionIndex(1, c, ecfGetFunctionName(ZEP_FUNC_ID(1, c, 0, i))), i);
}

}  // namespace
