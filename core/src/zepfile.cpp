// zepfile.cpp - operations on files by path.
//
// Each operation reads like its steps: the platform is reached through the zepos stand-ins, and
// every path rule uses ZEP_PATH_SEPARATOR where the library's rules speak of the separator.
#include "zepfile.h"

#include <string.h>
#include <strings.h>

#include "zepframe.h"

namespace {

constexpr char kSep = ZEP_PATH_SEPARATOR;

inline ZepTrcBlock trcUint(const Uint32* v) {
    return ZepTrcBlock{v, 4};
}

// The one worker behind both forms of zepFileGetInfo, under the one identifier.
Uint32 getInfo(const ZEPFileGetInfoParam* param, ZEPFileInfo* info) {
    ZepFrame f(ZEPFN_zepGetFileInfo);
    f.traceData(10, ZepTrcObj(param), ZepTrcObj(info));
    if (param != nullptr && param->path != nullptr && param->path[0] != 0)
        f.traceData(20, ZepTrcStr{param->path});
    if (f.refuseParam(param)) return f.rc();
    zepos::STATI64 st;
    if (zepos::_stati64(param->path, &st) != 0) {
        // The runtime's call: its reason is in errno, not in the last error.
        f.failMapped(30, SYSFN__stat, static_cast<Uint32>(*zepos::_errno()), ZEP_LOG_ARGS(1),
                     ZepLogStr(param->path));
        return f.exit();
    }
    Uint32 type = st.mode & 0xF000u;
    if (type != ZEP_FILE_TYPE_REGULAR && type != ZEP_FILE_TYPE_DIRECTORY) {
        info->type = 0;
        f.fail(ECF_FILE_UNKNOWN_FILE_TYPE, 60, ZEP_LOG_INFO,
               ZepLogItem{&st.mode, 2, ZEP_LOGDATA_UINT});
        return f.exit();
    }
    info->type = type;
    info->size = static_cast<Uint64>(st.size);
    info->permissions = st.mode & 0xFFFu;
    info->owner = static_cast<Sint32>(st.uid);
    info->group = static_cast<Sint32>(st.gid);
    info->modified[0] = static_cast<Uint32>(st.mtime);
    return f.exit();
}

Uint32 typeBits(const char* path) {
    zepos::STATI64 st;
    return zepos::_stati64(path, &st) == 0 ? st.mode & 0xF000u : 0u;
}

// zep_copy: the platform's copy, refusing an existing target.
Uint32 zep_copy(const char* source, const char* destination) {
    ZepFrame f(ZEPFN_zep_copy);
    f.traceData(10, ZepTrcStr{source}, ZepTrcStr{destination});
    if (!zepos::CopyFileA(source, destination, 1))
        f.failMapped(10, SYSFN_CopyFile, zepos::GetLastError(), 0);
    return f.exit();
}

}  // namespace

Uint32 zepFileGetInfo(ZEPFileGetInfoParam param, ZEPFileInfo* info) {
    return getInfo(&param, info);
}

Uint32 zepFileGetInfoV9(const ZEPFileGetInfoParam* param, ZEPFileInfo* info) {
    return getInfo(param, info);
}

Bool zepIsFile(const char* path) {
    return typeBits(path) == ZEP_FILE_TYPE_REGULAR;
}

Bool zepIsDirectory(const char* path) {
    // The query is made on a private copy without the trailing separator, except where that
    // separator is the root of a drive ("C:/").
    char copy[261];
    size_t n = strnlen(path, sizeof copy - 1);
    memcpy(copy, path, n);
    copy[n] = 0;
    if (n >= 2 && copy[n - 1] == kSep && copy[n - 2] != ':') copy[n - 1] = 0;
    return typeBits(copy) == ZEP_FILE_TYPE_DIRECTORY;
}

Uint32 zepFileDelete(const char* path) {
    ZepFrame f(ZEPFN_zepFileDelete);
    f.traceData(10, ZepTrcStr{path});
    ZEPPathTestParam test;
    test.path = path;
    Uint32 rc = zepPathTest(&test);
    if (rc != 0) {
        // The test has said what there was to say; this level only marks the way back.
        f.setQuietResult(rc);
        f.traceError(20);
        return f.exit();
    }
    if (zepIsDirectory(path)) {
        f.fail(ECF_FILE_IS_A_DIRECTORY, 30, ZEP_LOG_INFO, ZepLogStr(path));
        return f.exit();
    }
    if (!zepos::DeleteFileA(path))
        f.failMapped(40, SYSFN_DeleteFile, zepos::GetLastError(), ZEP_LOG_ARGS(1), ZepLogStr(path));
    return f.exit();
}

Uint32 zepFileRename(const char* oldPath, const char* newPath) {
    ZepFrame f(ZEPFN_zepFileRename);
    f.traceData(10, ZepTrcStr{oldPath}, ZepTrcStr{newPath});
    if (!zepos::MoveFileA(oldPath, newPath)) {
        // One code for every reason: callers of this operation test for it alone.
        f.failSys(ECF_FILE_DOESNT_EXIST, 30, ZEP_LOG_INFO, SYSFN_MoveFile, zepos::GetLastError(),
                  ZEP_LOG_ARGS(3), ZepLogStr(oldPath), ZepLogStr(newPath));
    }
    return f.exit();
}

Uint32 zepFileSetOwnership(const char* path, Sint32 owner, Sint32 group) {
    (void)path;
    (void)owner;
    (void)group;
    return 0;
}

Uint32 zepFileSetPermissions(const char* path, Uint32 permissions) {
    ZepFrame f(ZEPFN_zepFileSetPermissions);
    if (permissions == 0) permissions = 0x180;  // owner read and write
    f.traceData(10, ZepTrcStr{path}, trcUint(&permissions));
    if (zepos::_chmod(path, static_cast<int>(permissions)) < 0)
        f.failMapped(20, SYSFN_chmod, zepos::GetLastError(), ZEP_LOG_ARGS(3), ZepLogStr(path),
                     ZepLogUint(&permissions));
    return f.exit();
}

Uint32 zepDirectoryGetCurrent(char* buffer, Uint32* size) {
    ZepFrame f(ZEPFN_zepDirectoryGetCurrent);
    f.traceData(10, trcUint(size));
    Uint32 n = zepos::GetCurrentDirectoryA(*size, buffer);
    if (n == 0) {
        f.failMapped(40, SYSFN_GetCurrentDirectory, zepos::GetLastError(), ZEP_LOG_ARGS(2),
                     ZepLogUint(size));
        return f.exit();
    }
    // Above the capacity, the length is the capacity needed, the NUL counted.
    bool fits = n <= *size;
    *size = n;
    if (!fits) f.fail(ECF_BUFFER_TOO_SMALL, 40, ZEP_LOG_INFO, ZepLogUint(size));
    return f.exit();
}

Uint32 zepDirectorySetCurrent(const char* path) {
    ZepFrame f(ZEPFN_zepDirectorySetCurrent);
    f.traceData(10, ZepTrcStr{path});
    if (!zepos::SetCurrentDirectoryA(path))
        f.failMapped(30, SYSFN_SetCurrentDirectory, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogStr(path));
    return f.exit();
}

Uint32 zepDirectoryName(const char* path, char* buffer, Uint32 size) {
    ZepFrame f(ZEPFN_zepDirectoryName);
    if (path == nullptr || path[0] == 0) {
        f.fail(ECF_INVALID_PARAMETER, 10, ZEP_LOG_INFO);
        return f.exit();
    }
    f.traceData(20, ZepTrcStr{path});
    Uint32 length = static_cast<Uint32>(strlen(path));
    Uint32 needed = 0;
    if (zepIsNTVolume(path)) {
        if (length < size) {
            memcpy(buffer, path, length + 1);
            return f.exit();
        }
        needed = length;
    } else {
        // The last separator that ends a component: one with a byte after it, or the root.
        Sint64 last = -1;
        for (Uint32 i = 0; i < length; ++i)
            if (path[i] == kSep && (i + 1 < length || i == 0)) last = i;
        needed = last < 0 ? 2u : static_cast<Uint32>(last) + 1u;
        if (needed <= size) {
            if (last < 0) {
                memcpy(buffer, ".", 2);
            } else if (last == 0) {
                buffer[0] = kSep;
                buffer[1] = 0;
            } else {
                memcpy(buffer, path, static_cast<size_t>(last));
                buffer[last] = 0;
            }
            return f.exit();
        }
    }
    if (size > 0) buffer[0] = 0;
    f.fail(ECF_BUFFER_TOO_SMALL, 30, ZEP_LOG_INFO, ZepLogUint(&needed), ZepLogUint(&size));
    return f.exit();
}

Uint32 zepBaseName(const char* path, char* buffer, Uint32 size) {
    ZepFrame f(ZEPFN_zepBaseName);
    if (path == nullptr || path[0] == 0) {
        f.fail(ECF_INVALID_PARAMETER, 10, ZEP_LOG_INFO);
        return f.exit();
    }
    f.traceData(20, ZepTrcStr{path});
    // The count runs from the start of the base name to the NUL, both included, so a trailing
    // separator is counted although it is not copied.
    size_t start = 0;
    Uint32 count = 0;
    for (size_t i = 0;; ++i) {
        if (path[i] == kSep && path[i + 1] != 0) {
            start = i + 1;
            count = 0;
        } else {
            ++count;
        }
        if (path[i] == 0) break;
    }
    if (count > size) {
        f.fail(ECF_BUFFER_TOO_SMALL, 30, ZEP_LOG_INFO, ZepLogUint(&count), ZepLogUint(&size));
        return f.exit();
    }
    if (path[0] == kSep && start == 0) {
        buffer[0] = kSep;
        buffer[1] = 0;
        return f.exit();
    }
    char* out = buffer;
    for (const char* p = path + start;; ++p) {
        if (*p != kSep) *out++ = *p;
        if (*p == 0) break;
    }
    return f.exit();
}

Uint32 zepPathTest(const ZEPPathTestParam* param) {
    ZepFrame f(ZEPFN_zepPathTest);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcStr{param->path}, trcUint(&param->tests), trcUint(&param->reserved));
    int mode = 0;
    if (param->tests & ZEP_PATH_TEST_READ) mode += 4;
    if (param->tests & ZEP_PATH_TEST_WRITE) mode += 2;
    if (zepos::_access(param->path, mode) == 0) return f.exit();
    Uint32 err = zepos::GetLastError();
    if (err == 2 || err == 3) {
        // Expected answers, not failures: the caller asked.
        f.traceData(20, trcUint(&err));
        f.setQuietResult(ECF_FILE_DOESNT_EXIST);
        return f.exit();
    }
    if (err == 13) {
        f.traceData(30, trcUint(&err));
        f.setQuietResult(ECF_ACCESS_DENIED);
        return f.exit();
    }
    Uint32 level = ZEP_LOG_INFO;
    Uint32 rc = zepErrorMapSystem(ZEPFN_zepPathTest, 40, SYSFN_access, err, &level);
    Sint32 m = mode;
    zepLogSysRC(nullptr, ZEPFN_zepPathTest, SYSFN_access, err, rc, 40, level, ZEP_LOG_ARGS(3),
                param->path, static_cast<Uint32>(strlen(param->path)), ZEP_LOGDATA_STRING, &m, 4u,
                ZEP_LOGDATA_SINT);
    zepLog(nullptr, ZEPFN_zepPathTest, rc, 60, level, 2, &param->tests, 4u, ZEP_LOGDATA_UINT,
           &param->reserved, 4u, ZEP_LOGDATA_UINT);
    f.setQuietResult(rc);
    f.traceError(40);
    return f.exit();
}

Bool zepPathExists(const char* path) {
    ZepFrame f(ZEPFN_zepPathExists);
    ZEPPathTestParam test;
    test.path = path;
    Uint32 rc = zepPathTest(&test);
    f.setQuietResult(rc);
    f.exit();
    return rc == 0;
}

Uint32 zepGetLogicalDriveMap(Uint32* map) {
    ZepFrame f(ZEPFN_zepGetLogicalDriveMap);
    *map = zepos::GetLogicalDrives();
    // The platform's reason is not asked for: a map of 0 says enough.
    if (*map == 0) f.fail(ECF_FILE_CANNOT_RETRIEVE_DRIVE_MAP, 10, ZEP_LOG_INFO);
    return f.exit();
}

Uint32 zepFileCopy(const char* source, const char* destination) {
    ZepFrame f(ZEPFN_zepFileCopy);
    f.traceData(10, ZepTrcStr{source}, ZepTrcStr{destination});
    if (strcmp(source, destination) == 0) {
        f.fail(ECF_INVALID_PARAMETER, 10, ZEP_LOG_INFO, ZepLogStr(source), ZepLogStr(destination));
        return f.exit();
    }
    // Any failure of the test counts as free to copy: the copy itself refuses an existing
    // target, also one that appears after the test.
    ZEPPathTestParam test;
    test.path = destination;
    if (zepPathTest(&test) == 0) {
        f.fail(ECF_FILE_EXISTS, 20, ZEP_LOG_INFO, ZepLogStr(destination));
        return f.exit();
    }
    Uint32 rc = zep_copy(source, destination);
    if (rc != 0)
        f.failNested(rc, 30, ZEP_LOG_INFO, ZEPFN_zep_copy, rc, ZEP_LOG_ARGS(3), ZepLogStr(source),
                     ZepLogStr(destination));
    return f.exit();
}

Bool zepComparePaths(const char* first, const char* second) {
    ZepFrame f(ZEPFN_zepComparePaths);
    f.traceData(10, ZepTrcStr{first}, ZepTrcStr{second});
    // Each side separately: its canonical form where the platform gave one, else as passed.
    char a[zepos::MAX_PATH], b[zepos::MAX_PATH];
    Uint32 na = zepos::GetShortPathNameA(first, a, sizeof a);
    Uint32 nb = zepos::GetShortPathNameA(second, b, sizeof b);
    const char* x = na != 0 && na < sizeof a ? a : first;
    const char* y = nb != 0 && nb < sizeof b ? b : second;
    bool same = strcasecmp(x, y) == 0;
    f.exit();
    return same;
}

Uint32 zeptmpnam(char* buffer, Uint32 size, Uint32 flags) {
    // Entry and exit records only: what goes wrong here is reported by the result alone, or by
    // a log record where the platform refused.
    ZepFrame f(ZEPFN_zeptmpnam);
    if ((flags & ZEP_TMPNAM_CREATE_FILE) == 0) {
        if (size < 14)
            f.setQuietResult(ECF_BUFFER_TOO_SMALL);
        else if (zepos::tmpnam_s(buffer, size) != 0)
            f.setQuietResult(ECF_FAILED);
        return f.exit();
    }
    if (size < zepos::MAX_PATH) {
        f.setQuietResult(ECF_BUFFER_TOO_SMALL);
        return f.exit();
    }
    char dir[512];
    Uint32 n = zepos::GetTempPathA(sizeof dir, dir);
    if (n == 0 || n > sizeof dir) {
        Uint32 err = zepos::GetLastError(), level = ZEP_LOG_INFO;
        Uint32 rc = zepErrorMapSystem(ZEPFN_zeptmpnam, 10, SYSFN_GetTempPath, err, &level);
        zepLogSysRC(nullptr, ZEPFN_zeptmpnam, SYSFN_GetTempPath, err, ECF_BUFFER_TOO_SMALL, 10,
                    level, 0);
        f.setQuietResult(rc);
        return f.exit();
    }
    if (zepos::GetTempFileNameA(dir, "vrn", 0, buffer) == 0) {
        Uint32 err = zepos::GetLastError(), level = ZEP_LOG_INFO;
        Uint32 rc = zepErrorMapSystem(ZEPFN_zeptmpnam, 20, SYSFN_GetTempFileName, err, &level);
        zepLogSysRC(nullptr, ZEPFN_zeptmpnam, SYSFN_GetTempFileName, err, ECF_FAILED, 20, level, 0);
        f.setQuietResult(rc);
    }
    return f.exit();
}

Bool zepIsNTVolume(const char* path) {
    ZepFrame f(ZEPFN_zepIsNTVolume);
    f.traceData(10, ZepTrcStr{path});
    // The device namespace "<sep><sep>.<sep>" and the volume namespace "<sep><sep>?<sep>Volume",
    // spelled with this system's separator.
    static constexpr char kDevice[] = {kSep, kSep, '.', kSep, 0};
    static constexpr char kVolume[] = {kSep, kSep, '?', kSep, 'V', 'o', 'l', 'u', 'm', 'e', 0};
    bool volume = false;
    if (strncmp(path, kDevice, 4) == 0)
        volume = (path[4] != 0 && path[5] == ':') || strncmp(path + 4, "PhysicalDrive", 13) == 0;
    else
        volume = strncmp(path, kVolume, 10) == 0;
    f.exit();
    return volume;
}
