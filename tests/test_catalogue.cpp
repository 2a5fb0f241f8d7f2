// The catalogue as callers and the log see it: rows, bounds, null results, finds.
#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <string>

#include "zepecf.h"

namespace {

std::string str(const char* s) { return s ? s : "<null>"; }

TEST(Catalogue, CodeRowsOfTheLibrary) {
    EXPECT_EQ(str(ecfErrorGetCodeName(ECF_FILE_DOESNT_EXIST)), "ECF_FILE_DOESNT_EXIST");
    EXPECT_EQ(str(ecfErrorGetDescription(0x9000001A)), "File doesn't exist");
    EXPECT_EQ(str(ecfErrorGetDescription(ECF_NO_MEMORY)), "Insufficent memory");
    EXPECT_EQ(str(ecfErrorGetDescription(ECF_FILE_EXECUTING_IMAGE)),
              "The file is a executable image that is currently being executed");
    EXPECT_EQ(str(ecfErrorGetCodeName(0x10000006)), "ECF_PARTIAL_INFO");
    EXPECT_EQ(str(ecfErrorGetDescription(ECF_PARTIAL_INFO)), "Only partial information available");
    EXPECT_EQ(str(ecfErrorGetCodeName(0x900003EF)), "ECF_ZEPLOCK_CORRUPT");
    EXPECT_EQ(str(ecfErrorGetDescription(ECF_ZEPLOCK_CORRUPT)),
              "A corrupt ZEPLock value has been detected.");
    EXPECT_EQ(str(ecfErrorGetCodeName(0x9000051F)), "ECF_DECFLOAT_INVALID_STRING_LENGTH");
    EXPECT_EQ(str(ecfErrorGetCodeName(0x90000315)), "ECF_SEC_INVALID_PASSWORD");
    EXPECT_EQ(str(ecfErrorGetDescription(ECF_SEC_INVALID_PASSWORD)),
              "The user supplied password is incorrect");
    // The last library row and the last row of the set.
    EXPECT_EQ(str(ecfErrorGetCodeName(0x90000525)), "ECF_ARCHIVE_SHARE_NAME_NOT_FOUND");
    EXPECT_EQ(str(ecfErrorGetDescription(ECF_ARCHIVE_SHARE_NAME_NOT_FOUND)),
              "object name within archive is not found.");
    EXPECT_EQ(ECF_FILE_EXISTS, 0x9000001Bu);
    EXPECT_EQ(ECF_TIMEOUT, 0x90000013u);
    EXPECT_EQ(ECF_NOT_RECOGNIZED_BINARY_TYPE, 0x90000522u);
}

TEST(Catalogue, OwnersOfCodes) {
    EXPECT_EQ(str(ecfErrorGetProductName(ECF_FILE_DOESNT_EXIST)), "VRN Common");
    EXPECT_EQ(str(ecfErrorGetComponentName(ECF_FILE_DOESNT_EXIST)), "operating system");
    EXPECT_EQ(str(ecfErrorGetComponentName(ECF_GTRACE_NOT_ATTACHED)), "ZEPe");
    // General codes belong to component 1, whose long name is empty.
    EXPECT_EQ(str(ecfErrorGetComponentName(ECF_FAILED)), "");
    EXPECT_EQ(str(ecfErrorGetSetName(ECF_FAILED)), "setecf");
    EXPECT_EQ(str(ecfErrorGetSetName(0x10000006)), "setecf");
}

TEST(Catalogue, CodeZeroAndOutOfRange) {
    EXPECT_EQ(str(ecfErrorGetCodeName(0)), "OK");
    EXPECT_EQ(str(ecfErrorGetDescription(0)), "OK");
    EXPECT_EQ(ecfErrorGetProductName(0), nullptr);
    EXPECT_EQ(ecfErrorGetComponentName(0), nullptr);
    EXPECT_EQ(ecfErrorGetSetName(0), nullptr);

    EXPECT_EQ(ecfErrorGetNumCodes(1), 1322u);
    EXPECT_EQ(ecfErrorGetNumCodes(0), 0u);
    EXPECT_EQ(ecfErrorGetNumCodes(2), 0u);

    // One past the last index, and index 0 of the set.
    for (Uint32 code : {0x9000052Bu, 0x90000000u, 0x10000000u}) {
        EXPECT_EQ(ecfErrorGetCodeName(code), nullptr) << std::hex << code;
        EXPECT_EQ(ecfErrorGetDescription(code), nullptr);
        EXPECT_EQ(ecfErrorGetProductName(code), nullptr);
        EXPECT_EQ(ecfErrorGetComponentName(code), nullptr);
    }
    // Set field 2: all six are null (and the set count too).
    for (Uint32 code : {0xA000001Au, 0x2000001Au}) {
        EXPECT_EQ(ecfErrorGetCodeName(code), nullptr);
        EXPECT_EQ(ecfErrorGetDescription(code), nullptr);
        EXPECT_EQ(ecfErrorGetProductName(code), nullptr);
        EXPECT_EQ(ecfErrorGetComponentName(code), nullptr);
        EXPECT_EQ(ecfErrorGetSetName(code), nullptr);
    }
    // Only set and index are read: the severity bit doesn't matter.
    EXPECT_STREQ(ecfErrorGetCodeName(0x1000001A), "ECF_FILE_DOESNT_EXIST");
}

TEST(Catalogue, EveryIndexOfTheSetLooksUp) {
    // 203 library rows plus the password row are named; every other index is a reserved row
    // whose name and description are empty but present.
    int named = 0, reserved = 0;
    std::set<std::string> names;
    for (Uint32 i = 1; i <= 1322; ++i) {
        Uint32 code = 0x90000000u | i;
        const char* name = ecfErrorGetCodeName(code);
        const char* desc = ecfErrorGetDescription(code);
        ASSERT_NE(name, nullptr) << i;
        ASSERT_NE(desc, nullptr) << i;
        ASSERT_NE(ecfErrorGetProductName(code), nullptr) << i;
        ASSERT_NE(ecfErrorGetComponentName(code), nullptr) << i;
        if (*name) {
            ++named;
            EXPECT_TRUE(names.insert(name).second) << name;
            EXPECT_NE(*desc, 0) << name;
        } else {
            ++reserved;
            EXPECT_EQ(*desc, 0);
        }
    }
    EXPECT_EQ(named, 204);
    EXPECT_EQ(reserved, 1322 - 204);
}

TEST(Catalogue, Products) {
    EXPECT_EQ(ecfGetNumProducts(), 3u);
    EXPECT_EQ(ecfGetNumComponents(1), 16u);
    EXPECT_EQ(ecfGetNumComponents(2), 4u);
    EXPECT_EQ(ecfGetNumComponents(3), 184u);
    EXPECT_EQ(ecfGetNumComponents(0), 0u);
    EXPECT_EQ(ecfGetNumFunctions(1, COMP_SYSFUNCS), 354u);
    EXPECT_EQ(ecfGetNumFunctions(1, COMP_ZEPE), 174u);
    EXPECT_EQ(ecfGetNumFunctions(1, 1), 0u);  // slot 1 of the product is empty
    EXPECT_EQ(ecfGetNumFunctions(0, 3), 0u);
    EXPECT_EQ(ecfGetNumFunctions(1, 0), 0u);
    EXPECT_EQ(ecfGetNumFunctions(3, 100), 0u);
}

TEST(Catalogue, FunctionIdentifiers) {
    EXPECT_EQ(ZEPFN_zepFileRename, 0x081A0016u);
    EXPECT_EQ(SYSFN_MoveFile, 0x08140089u);
    EXPECT_EQ(ZEPFN_zepAssertFailed, 0x081A0001u);
    EXPECT_EQ(ZEPFN_zepgetpass, 0x081A00ADu);  // 173, the last
    EXPECT_EQ(SYSFN_access, 0x08140001u);
    EXPECT_EQ(SYSFN_setresuid, 0x08140161u);  // 353, the last
    EXPECT_EQ(ZEPFN_ZEPHFile_open, 0x081A0002u);

    EXPECT_STREQ(ecfGetFunctionName(0x081A0016), "zepFileRename");
    EXPECT_STREQ(ecfGetFunctionName(0x08180016), "zepFileRename");  // class bits ignored
    EXPECT_STREQ(ecfGetFunctionName(0x081F0016), "zepFileRename");
    EXPECT_STREQ(ecfGetFunctionName(SYSFN_MoveFile), "MoveFile");
    EXPECT_STREQ(ecfGetFunctionName(ZEPFN_ZEPHIPCQueue_put), "ZEPHIPCQueue::put");
    EXPECT_STREQ(ecfGetProductName(0x081A0016), "VRN Common");
    EXPECT_STREQ(ecfGetComponentName(0x081A0016), "ZEPe");
    EXPECT_STREQ(ecfGetComponentShortName(0x081A0016), "COMP_ZEPE");
    EXPECT_STREQ(ecfGetComponentName(SYSFN_MoveFile), "operating system");
    EXPECT_STREQ(ecfGetComponentShortName(SYSFN_MoveFile), "COMP_SYSFUNCS");

    EXPECT_STREQ(ecfGetProductName(ZEP_FUNC_ID(2, 0, 0, 0)), "VRN Tools");
    EXPECT_STREQ(ecfGetProductName(ZEP_FUNC_ID(3, 0, 0, 0)), "VRN Engine");
    EXPECT_EQ(ecfGetProductName(ZEP_FUNC_ID(4, 3, 2, 22)), nullptr);
    EXPECT_EQ(ecfGetProductName(ZEP_FUNC_ID(0, 3, 2, 22)), nullptr);
    EXPECT_EQ(ecfGetComponentName(ZEP_FUNC_ID(1, 16, 2, 1)), nullptr);  // not below the count
    EXPECT_STREQ(ecfGetComponentName(ZEP_FUNC_ID(1, 15, 2, 1)), "");    // unused slot
    EXPECT_EQ(ecfGetComponentName(ZEP_FUNC_ID(1, 0, 2, 1)), nullptr);
    EXPECT_EQ(ecfGetFunctionName(ZEP_FUNC_ID(1, 3, 2, 0)), nullptr);
    EXPECT_EQ(ecfGetFunctionName(ZEP_FUNC_ID(1, 3, 2, 174)), nullptr);
    EXPECT_STREQ(ecfGetFunctionName(ZEP_FUNC_ID(1, 3, 2, 173)), "zepgetpass");
    EXPECT_EQ(ecfGetFunctionName(ZEP_FUNC_ID(1, 15, 2, 1)), nullptr);  // no functions there
}

TEST(Catalogue, Finds) {
    EXPECT_EQ(ecfFindProductIndex("VRN Common"), 1u);
    EXPECT_EQ(ecfFindProductIndex("VRN Engine"), 3u);
    EXPECT_EQ(ecfFindProductIndex("vrn common"), 0u);
    EXPECT_EQ(ecfFindProductIndex("VRN"), 0u);
    EXPECT_EQ(ecfFindProductIndex(nullptr), 0u);

    EXPECT_EQ(ecfFindComponentIndex(1, "COMP_ZEPE"), 3u);
    EXPECT_EQ(ecfFindComponentIndex(1, "COMP_SYSFUNCS"), 2u);
    EXPECT_EQ(ecfFindComponentIndex(1, "ZEPe"), 0u);  // short names only
    EXPECT_EQ(ecfFindComponentIndex(0, "COMP_ZEPE"), 0u);
    EXPECT_EQ(ecfFindComponentIndex(1, nullptr), 0u);

    EXPECT_EQ(ecfFindFunctionIndex(1, 3, "zepFileRename"), 22u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 2, "MoveFile"), 137u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 2, "setresuid"), 353u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 3, "zepfilerename"), 0u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 3, "zepFileRenam"), 0u);
    EXPECT_EQ(ecfFindFunctionIndex(0, 3, "zepFileRename"), 0u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 0, "zepFileRename"), 0u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 3, nullptr), 0u);
    EXPECT_EQ(ecfFindFunctionIndex(1, 1, "zepFileRename"), 0u);  // count below 2
    // Every name of the two components finds its own index.
    for (Uint32 c : {COMP_SYSFUNCS, COMP_ZEPE})
        for (Uint32 i = 1; i < ecfGetNumFunctions(1, c); ++i)
            ASSERT_EQ(ecfFindFunctionIndex(1, c, ecfGetFunctionName(ZEP_FUNC_ID(1, c, 0, i))), i);
}

}  // namespace
