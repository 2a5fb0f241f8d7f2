// The platform error map: the code, level and name of each platform error of a called function,
// and the OS layer's errno translation that feeds it.
#include <errno.h>
#include <gtest/gtest.h>

#include "zepecf.h"
#include "zeperror.h"
#include "zeplog.h"
#include "zepos.h"

namespace {

// What the map makes of each platform error of a called function: "number code level name",
// the code without its ECF_, the level I (Info) or E (Error), "-" for no name.
std::string mapped(Uint32 called, std::initializer_list<Uint32> numbers) {
    std::string out;
    for (Uint32 os : numbers) {
        Uint32 level = 0;
        const Uint32 code = zepErrorMapSystem(ZEPFN_zepFileRename, 30, called, os, &level);
        const char* name = zepErrorNameMapSystem(called, os);
        out += (out.empty() ? "" : "; ") + std::to_string(os) + " " +
               (ecfErrorGetCodeName(code) + 4) + (level == ZEP_LOG_INFO ? " I " : " E ") +
               (name ? name : "-");
    }
    return out;
}

TEST(ErrorMap, CodeLevelAndName) {
    EXPECT_EQ(
        mapped(SYSFN_MoveFile,
               {2,   3,   5,   6,   8,   14,  18,  21,  32,  33,   38,   80,   86,   87,   112, 122,
                123, 126, 127, 145, 206, 234, 240, 267, 487, 1004, 1005, 1113, 1132, 1455, 1,   0}),
        "2 FILE_DOESNT_EXIST I ERROR_FILE_NOT_FOUND; "
        "3 FILE_PATH_DOESNT_EXIST I ERROR_PATH_NOT_FOUND; 5 ACCESS_DENIED I ERROR_ACCESS_DENIED; "
        "6 INVALID_PARAMETER I ERROR_INVALID_FLAGS; 8 NO_MEMORY E ERROR_OUTOFMEMORY; "
        "14 NO_MEMORY E ERROR_OUTOFMEMORY; 18 FILE_PROCESS_MAX E ERROR_NO_MORE_FILES; "
        "21 FILE_DEVICE_UNAVAILABLE E ERROR_NOT_READY; 32 FILE_SHARE E ERROR_SHARING_VIOLATION; "
        "33 FILE_LOCK I ERROR_LOCK_VIOLATION; 38 FILE_EOF I ERROR_HANDLE_EOF; "
        "80 FILE_EXISTS I ERROR_FILE_EXISTS; 86 SEC_INVALID_PASSWORD I -; "
        "87 INVALID_PARAMETER I ERROR_INVALID_FLAGS; 112 FILE_NO_SPACE I ERROR_DISK_FULL; "
        "122 BUFFER_TOO_SMALL I ERROR_INSUFFICIENT_BUFFER; "
        "123 FILE_INVALID_NAME I ERROR_INVALID_NAME; "
        "126 FILE_DOESNT_EXIST I ERROR_MOD_NOT_FOUND; "
        "127 LIB_FUNC_NOT_FOUND I ERROR_PROC_NOT_FOUND; "
        "145 FILE_DIR_NOT_EMPTY I ERROR_DIR_NOT_EMPTY; "
        "206 FILE_NAME_TOO_LONG I ERROR_FILENAME_EXCED_RANGE; "
        "234 BUFFER_TOO_SMALL I ERROR_MORE_DATA; 240 SESSION_CANCELED I ERROR_VC_DISCONNECTED; "
        "267 FILE_NOT_A_DIRECTORY I ERROR_DIRECTORY; "
        "487 INVALID_ADDRESS I ERROR_INVALID_ADDRESS; "
        "1004 INVALID_PARAMETER I ERROR_INVALID_FLAGS; "
        "1005 FILE_PATH_DOESNT_EXIST I ERROR_UNRECOGNIZED_VOLUME; "
        "1113 NO_UNICODE_TRANSLATION I ERROR_NO_UNICODE_TRANSLATION; 1132 INVALID_ADDRESS I -; "
        "1455 NO_MEMORY E -; 1 UNKNOWN E -; 0 UNKNOWN E -");
    // 183 depends on what was being created; the name doesn't.
    EXPECT_EQ(mapped(SYSFN_CreateFileMapping, {183}), "183 MEM_EXISTS I ERROR_ALREADY_EXISTS");
    EXPECT_EQ(mapped(SYSFN_CreateSemaphore, {183}), "183 SEM_EXISTS I ERROR_ALREADY_EXISTS");
    EXPECT_EQ(mapped(SYSFN_CreateFile, {183}), "183 FILE_EXISTS I ERROR_ALREADY_EXISTS");
    // access and _stat speak C runtime numbers, and nothing of the general table applies.
    EXPECT_EQ(mapped(SYSFN_access, {13, 22, 3, 2}),
              "13 ACCESS_DENIED I EACCES; 22 INVALID_PARAMETER I EINVAL; 3 FILE_DOESNT_EXIST I -; "
              "2 UNKNOWN E -");
    EXPECT_EQ(mapped(SYSFN__stat, {2, 22, 5}),
              "2 FILE_DOESNT_EXIST I ENOENT; 22 FILE_DOESNT_EXIST I -; 5 UNKNOWN E -");
    EXPECT_EQ(mapped(SYSFN_TlsGetValue, {0}), "0 INVALID_INVOCATION_SEQUENCE I NO_ERROR");
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
}

}  // namespace
