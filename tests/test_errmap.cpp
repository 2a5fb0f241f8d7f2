// The platform error map and the OS layer's errno translation that feeds it.
#include <errno.h>
#include <gtest/gtest.h>

#include "zepecf.h"
#include "zeperror.h"
#include "zeplog.h"
#include "zepos.h"

namespace {

constexpr Uint32 I = ZEP_LOG_INFO, E = ZEP_LOG_ERROR;

// A platform error met by a called function: the code, level and name it maps to ("-": none).
struct Row {
    Uint32 os, code, level;
    const char* name;
};

void expectRow(Uint32 called, const Row& r) {
    Uint32 level = 99;
    EXPECT_EQ(zepErrorMapSystem(ZEPFN_zepFileRename, 30, called, r.os, &level), r.code) << r.os;
    EXPECT_EQ(level, r.level) << r.os;
    const char* n = zepErrorNameMapSystem(called, r.os);
    EXPECT_STREQ(n ? n : "-", r.name) << r.os;
}

TEST(ErrorMap, GeneralTable) {
    const Row rows[] = {
        {2, ECF_FILE_DOESNT_EXIST, I, "ERROR_FILE_NOT_FOUND"},
        {3, ECF_FILE_PATH_DOESNT_EXIST, I, "ERROR_PATH_NOT_FOUND"},
        {5, ECF_ACCESS_DENIED, I, "ERROR_ACCESS_DENIED"},
        {6, ECF_INVALID_PARAMETER, I, "ERROR_INVALID_FLAGS"},
        {8, ECF_NO_MEMORY, E, "ERROR_OUTOFMEMORY"},
        {14, ECF_NO_MEMORY, E, "ERROR_OUTOFMEMORY"},
        {18, ECF_FILE_PROCESS_MAX, E, "ERROR_NO_MORE_FILES"},
        {21, ECF_FILE_DEVICE_UNAVAILABLE, E, "ERROR_NOT_READY"},
        {32, ECF_FILE_SHARE, E, "ERROR_SHARING_VIOLATION"},
        {33, ECF_FILE_LOCK, I, "ERROR_LOCK_VIOLATION"},
        {38, ECF_FILE_EOF, I, "ERROR_HANDLE_EOF"},
        {80, ECF_FILE_EXISTS, I, "ERROR_FILE_EXISTS"},
        {86, ECF_SEC_INVALID_PASSWORD, I, "-"},
        {87, ECF_INVALID_PARAMETER, I, "ERROR_INVALID_FLAGS"},
        {112, ECF_FILE_NO_SPACE, I, "ERROR_DISK_FULL"},
        {122, ECF_BUFFER_TOO_SMALL, I, "ERROR_INSUFFICIENT_BUFFER"},
        {123, ECF_FILE_INVALID_NAME, I, "ERROR_INVALID_NAME"},
        {126, ECF_FILE_DOESNT_EXIST, I, "ERROR_MOD_NOT_FOUND"},
        {127, ECF_LIB_FUNC_NOT_FOUND, I, "ERROR_PROC_NOT_FOUND"},
        {145, ECF_FILE_DIR_NOT_EMPTY, I, "ERROR_DIR_NOT_EMPTY"},
        {206, ECF_FILE_NAME_TOO_LONG, I, "ERROR_FILENAME_EXCED_RANGE"},
        {234, ECF_BUFFER_TOO_SMALL, I, "ERROR_MORE_DATA"},
        {240, ECF_SESSION_CANCELED, I, "ERROR_VC_DISCONNECTED"},
        {267, ECF_FILE_NOT_A_DIRECTORY, I, "ERROR_DIRECTORY"},
        {487, ECF_INVALID_ADDRESS, I, "ERROR_INVALID_ADDRESS"},
        {1004, ECF_INVALID_PARAMETER, I, "ERROR_INVALID_FLAGS"},
        {1005, ECF_FILE_PATH_DOESNT_EXIST, I, "ERROR_UNRECOGNIZED_VOLUME"},
        {1113, ECF_NO_UNICODE_TRANSLATION, I, "ERROR_NO_UNICODE_TRANSLATION"},
        {1132, ECF_INVALID_ADDRESS, I, "-"},
        {1455, ECF_NO_MEMORY, E, "-"},
        // Numbers no table holds, and a failure without a number.
        {1, ECF_UNKNOWN, E, "-"},
        {4, ECF_UNKNOWN, E, "-"},
        {17, ECF_UNKNOWN, E, "-"},
        {183000, ECF_UNKNOWN, E, "-"},
        {0xFFFFFFFF, ECF_UNKNOWN, E, "-"},
        {0, ECF_UNKNOWN, E, "-"},
    };
    for (Uint32 called : {SYSFN_MoveFile, SYSFN_CreateFile, SYSFN_ReadFile})
        for (const Row& r : rows) expectRow(called, r);
    // The level pointer is optional.
    EXPECT_EQ(zepErrorMapSystem(0, 0, SYSFN_CreateFile, 32, nullptr), ECF_FILE_SHARE);
}

TEST(ErrorMap, RulesOfParticularFunctions) {
    // 183 depends on what was being created; the name doesn't.
    expectRow(SYSFN_CreateFileMapping, {183, ECF_MEM_EXISTS, I, "ERROR_ALREADY_EXISTS"});
    expectRow(SYSFN_CreateSemaphore, {183, ECF_SEM_EXISTS, I, "ERROR_ALREADY_EXISTS"});
    expectRow(SYSFN_MoveFile, {183, ECF_FILE_EXISTS, I, "ERROR_ALREADY_EXISTS"});
    // access and _stat speak C runtime numbers, and nothing of the general table applies.
    expectRow(SYSFN_access, {13, ECF_ACCESS_DENIED, I, "EACCES"});
    expectRow(SYSFN_access, {22, ECF_INVALID_PARAMETER, I, "EINVAL"});
    expectRow(SYSFN_access, {3, ECF_FILE_DOESNT_EXIST, I, "-"});
    expectRow(SYSFN_access, {2, ECF_UNKNOWN, E, "-"});
    expectRow(SYSFN_access, {0, ECF_UNKNOWN, E, "-"});
    expectRow(SYSFN__stat, {2, ECF_FILE_DOESNT_EXIST, I, "ENOENT"});
    expectRow(SYSFN__stat, {22, ECF_FILE_DOESNT_EXIST, I, "-"});
    expectRow(SYSFN__stat, {5, ECF_UNKNOWN, E, "-"});
    expectRow(SYSFN_TlsGetValue, {0, ECF_INVALID_INVOCATION_SEQUENCE, I, "NO_ERROR"});
}

TEST(OsLayer, ErrnoTranslation) {
    using namespace zepos;
    const int rows[][2] = {
        {ENOENT, 2},      {ENOTDIR, 3}, {EACCES, 5},   {EPERM, 5},    {EBADF, 6},
        {ENOMEM, 8},      {EEXIST, 80}, {ENOSPC, 112}, {EMFILE, 18},  {ENAMETOOLONG, 206},
        {ENOTEMPTY, 145}, {EBUSY, 32},  {EINVAL, 87},  {EFAULT, 487}, {0, 0}};
    for (const auto& r : rows) EXPECT_EQ(TranslateErrno(r[0]), Uint32(r[1])) << r[0];
    EXPECT_EQ(TranslateErrno(EEXIST, ErrnoUse::Create), 183u);
    EXPECT_EQ(TranslateErrno(EAGAIN, ErrnoUse::Lock), 33u);
    EXPECT_EQ(TranslateErrno(EACCES, ErrnoUse::Lock), 33u);

    // Every errno becomes a non-zero platform number, and the ones a file, memory or process
    // call commonly meets land on a code that says more than "unknown".
    for (int e = 1; e < 134; ++e) EXPECT_NE(TranslateErrno(e), 0u) << e;
    for (int e : {ENOENT, ENOTDIR, EACCES, EPERM, EBADF, ENOMEM, EEXIST, ENOSPC, ENAMETOOLONG,
                  ENOTEMPTY, EMFILE, ENFILE, EBUSY, ETXTBSY, EINVAL, EFAULT, EISDIR, ENXIO}) {
        const Uint32 os = TranslateErrno(e);
        EXPECT_NE(zepErrorMapSystem(0, 0, SYSFN_CreateFile, os, nullptr), ECF_UNKNOWN) << e;
        EXPECT_NE(zepErrorNameMapSystem(SYSFN_CreateFile, os), nullptr) << e;
    }
    errno = ENOENT;
    SetLastErrorFromErrno();
    EXPECT_EQ(GetLastError(), 2u);
}

}  // namespace
