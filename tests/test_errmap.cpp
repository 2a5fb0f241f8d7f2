// The platform error map and the OS layer's errno translation that feeds it.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "zepecf.h"
#include "zeperror.h"
#include "zeplog.h"
#include "zepos.h"

namespace {

struct Mapped {
    Uint32 code;
    Uint32 level;
};
Mapped map(Uint32 calledId, Uint32 osError) {
    Uint32 level = 99;
    Uint32 code = zepErrorMapSystem(ZEPFN_zepFileRename, 30, calledId, osError, &level);
    return {code, level};
}
std::string name(Uint32 calledId, Uint32 osError) {
    const char* n = zepErrorNameMapSystem(calledId, osError);
    return n ? n : "<null>";
}

TEST(ErrorMap, GeneralTable) {
    struct Row {
        Uint32 os;
        Uint32 code;
        const char* name;
    };
    const Row rows[] = {
        {2, ECF_FILE_DOESNT_EXIST, "ERROR_FILE_NOT_FOUND"},
        {3, ECF_FILE_PATH_DOESNT_EXIST, "ERROR_PATH_NOT_FOUND"},
        {5, ECF_ACCESS_DENIED, "ERROR_ACCESS_DENIED"},
        {6, ECF_INVALID_PARAMETER, "ERROR_INVALID_FLAGS"},
        {8, ECF_NO_MEMORY, "ERROR_OUTOFMEMORY"},
        {14, ECF_NO_MEMORY, "ERROR_OUTOFMEMORY"},
        {18, ECF_FILE_PROCESS_MAX, "ERROR_NO_MORE_FILES"},
        {21, ECF_FILE_DEVICE_UNAVAILABLE, "ERROR_NOT_READY"},
        {32, ECF_FILE_SHARE, "ERROR_SHARING_VIOLATION"},
        {33, ECF_FILE_LOCK, "ERROR_LOCK_VIOLATION"},
        {38, ECF_FILE_EOF, "ERROR_HANDLE_EOF"},
        {80, ECF_FILE_EXISTS, "ERROR_FILE_EXISTS"},
        {86, ECF_SEC_INVALID_PASSWORD, "<null>"},
        {87, ECF_INVALID_PARAMETER, "ERROR_INVALID_FLAGS"},
        {112, ECF_FILE_NO_SPACE, "ERROR_DISK_FULL"},
        {122, ECF_BUFFER_TOO_SMALL, "ERROR_INSUFFICIENT_BUFFER"},
        {123, ECF_FILE_INVALID_NAME, "ERROR_INVALID_NAME"},
        {126, ECF_FILE_DOESNT_EXIST, "ERROR_MOD_NOT_FOUND"},
        {127, ECF_LIB_FUNC_NOT_FOUND, "ERROR_PROC_NOT_FOUND"},
        {145, ECF_FILE_DIR_NOT_EMPTY, "ERROR_DIR_NOT_EMPTY"},
        {206, ECF_FILE_NAME_TOO_LONG, "ERROR_FILENAME_EXCED_RANGE"},
        {234, ECF_BUFFER_TOO_SMALL, "ERROR_MORE_DATA"},
        {240, ECF_SESSION_CANCELED, "ERROR_VC_DISCONNECTED"},
        {267, ECF_FILE_NOT_A_DIRECTORY, "ERROR_DIRECTORY"},
        {487, ECF_INVALID_ADDRESS, "ERROR_INVALID_ADDRESS"},
        {1004, ECF_INVALID_PARAMETER, "ERROR_INVALID_FLAGS"},
        {1005, ECF_FILE_PATH_DOESNT_EXIST, "ERROR_UNRECOGNIZED_VOLUME"},
        {1113, ECF_NO_UNICODE_TRANSLATION, "ERROR_NO_UNICODE_TRANSLATION"},
        {1132, ECF_INVALID_ADDRESS, "<null>"},
        {1455, ECF_NO_MEMORY, "<null>"},
    };
    for (const Row& r : rows) {
        for (Uint32 called : {SYSFN_MoveFile, SYSFN_CreateFile, SYSFN_ReadFile}) {
            Mapped m = map(called, r.os);
            EXPECT_EQ(m.code, r.code) << r.os;
            bool severe = r.code == ECF_NO_MEMORY || r.code == ECF_FILE_PROCESS_MAX ||
                          r.code == ECF_FILE_DEVICE_UNAVAILABLE || r.code == ECF_FILE_SHARE;
            EXPECT_EQ(m.level, severe ? ZEP_LOG_ERROR : ZEP_LOG_INFO) << r.os;
            EXPECT_EQ(name(called, r.os), r.name) << r.os;
        }
    }
    // Numbers no table holds.
    for (Uint32 os : {1u, 4u, 17u, 183000u, 0xFFFFFFFFu}) {
        Mapped m = map(SYSFN_MoveFile, os);
        EXPECT_EQ(m.code, ECF_UNKNOWN) << os;
        EXPECT_EQ(m.level, ZEP_LOG_ERROR) << os;
        EXPECT_EQ(name(SYSFN_MoveFile, os), "<null>") << os;
    }
}

TEST(ErrorMap, RulesOfParticularFunctions) {
    // 183 depends on what was being created; the name doesn't.
    EXPECT_EQ(map(SYSFN_CreateFileMapping, 183).code, ECF_MEM_EXISTS);
    EXPECT_EQ(map(SYSFN_CreateSemaphore, 183).code, ECF_SEM_EXISTS);
    EXPECT_EQ(map(SYSFN_MoveFile, 183).code, ECF_FILE_EXISTS);
    for (Uint32 f : {SYSFN_CreateFileMapping, SYSFN_CreateSemaphore, SYSFN_MoveFile}) {
        EXPECT_EQ(map(f, 183).level, ZEP_LOG_INFO);
        EXPECT_EQ(name(f, 183), "ERROR_ALREADY_EXISTS");
    }

    // access and _stat speak C runtime numbers, and nothing of the general table applies.
    EXPECT_EQ(map(SYSFN_access, 13).code, ECF_ACCESS_DENIED);
    EXPECT_EQ(map(SYSFN_access, 22).code, ECF_INVALID_PARAMETER);
    EXPECT_EQ(map(SYSFN_access, 3).code, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(map(SYSFN_access, 2).code, ECF_UNKNOWN);
    EXPECT_EQ(map(SYSFN_access, 2).level, ZEP_LOG_ERROR);
    EXPECT_EQ(map(SYSFN_access, 0).code, ECF_UNKNOWN);
    EXPECT_EQ(name(SYSFN_access, 13), "EACCES");
    EXPECT_EQ(name(SYSFN_access, 22), "EINVAL");
    EXPECT_EQ(name(SYSFN_access, 3), "<null>");
    EXPECT_EQ(map(SYSFN_CreateFile, 3).code, ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(name(SYSFN_CreateFile, 3), "ERROR_PATH_NOT_FOUND");

    EXPECT_EQ(map(SYSFN__stat, 2).code, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(map(SYSFN__stat, 22).code, ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(map(SYSFN__stat, 5).code, ECF_UNKNOWN);
    EXPECT_EQ(name(SYSFN__stat, 2), "ENOENT");
    EXPECT_EQ(name(SYSFN__stat, 22), "<null>");
    EXPECT_EQ(name(SYSFN_CreateFile, 2), "ERROR_FILE_NOT_FOUND");

    // A failure without a number.
    EXPECT_EQ(map(SYSFN_TlsGetValue, 0).code, ECF_INVALID_INVOCATION_SEQUENCE);
    EXPECT_EQ(map(SYSFN_TlsGetValue, 0).level, ZEP_LOG_INFO);
    EXPECT_EQ(map(SYSFN_MoveFile, 0).code, ECF_UNKNOWN);
    EXPECT_EQ(map(SYSFN_MoveFile, 0).level, ZEP_LOG_ERROR);
    EXPECT_EQ(name(SYSFN_TlsGetValue, 0), "NO_ERROR");
    EXPECT_EQ(name(SYSFN_MoveFile, 0), "<null>");

    // The level pointer is optional.
    EXPECT_EQ(zepErrorMapSystem(0, 0, SYSFN_CreateFile, 32, nullptr), ECF_FILE_SHARE);
}

TEST(OsLayer, ErrnoTranslation) {
    using namespace zepos;
    // The rows the library's operations depend on.
    EXPECT_EQ(TranslateErrno(ENOENT), 2u);
    EXPECT_EQ(TranslateErrno(ENOTDIR), 3u);
    EXPECT_EQ(TranslateErrno(EACCES), 5u);
    EXPECT_EQ(TranslateErrno(EPERM), 5u);
    EXPECT_EQ(TranslateErrno(EBADF), 6u);
    EXPECT_EQ(TranslateErrno(ENOMEM), 8u);
    EXPECT_EQ(TranslateErrno(EEXIST), 80u);
    EXPECT_EQ(TranslateErrno(EEXIST, ErrnoUse::Create), 183u);
    EXPECT_EQ(TranslateErrno(ENOSPC), 112u);
    EXPECT_EQ(TranslateErrno(ENAMETOOLONG), 206u);
    EXPECT_EQ(TranslateErrno(ENOTEMPTY), 145u);
    EXPECT_EQ(TranslateErrno(EAGAIN, ErrnoUse::Lock), 33u);
    EXPECT_EQ(TranslateErrno(EACCES, ErrnoUse::Lock), 33u);
    EXPECT_EQ(TranslateErrno(EMFILE), 18u);
    EXPECT_EQ(TranslateErrno(EBUSY), 32u);
    EXPECT_EQ(TranslateErrno(EINVAL), 87u);
    EXPECT_EQ(TranslateErrno(EFAULT), 487u);
    EXPECT_EQ(TranslateErrno(0), 0u);

    // Every errno becomes a non-zero platform number, and the ones a file, memory or process
    // call commonly meets land on a code that says more than "unknown".
    for (int e = 1; e < 134; ++e) EXPECT_NE(TranslateErrno(e), 0u) << e;
    for (int e : {ENOENT, ENOTDIR, EACCES, EPERM, EBADF, ENOMEM, EEXIST, ENOSPC, ENAMETOOLONG,
                  ENOTEMPTY, EMFILE, ENFILE, EBUSY, ETXTBSY, EINVAL, EFAULT, EISDIR, ENXIO}) {
        Uint32 os = TranslateErrno(e);
        EXPECT_NE(zepErrorMapSystem(0, 0, SYSFN_CreateFile, os, nullptr), ECF_UNKNOWN) << e;
        EXPECT_NE(zepErrorNameMapSystem(SYSFN_CreateFile, os), nullptr) << e;
    }

    SetLastError(1234);
    EXPECT_EQ(GetLastError(), 1234u);
    errno = ENOENT;
    SetLastErrorFromErrno();
    EXPECT_EQ(GetLastError(), 2u);
}

}  // namespace
