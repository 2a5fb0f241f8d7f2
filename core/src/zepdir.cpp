// zepdir.cpp - creating, deleting and copying whole directories.
//
// The walks keep their designed steps and records: the walk stops at the first failure, each
// level it passes on the way up writes its own record, and a failed copy removes what it made.
// Two things go beyond that, because users' data is at stake:
//  - The recursive delete never leaves the tree it was given. It works relative to directory
//    handles that were opened without following a link, and removes every entry by its name in
//    its own directory; a symbolic link is removed as a link, also one that was swapped in for a
//    directory after the listing was taken (its open then fails as "not a directory", and the
//    entry is removed as itself). The top directory is the caller's: it is opened as named, but
//    not through a link in its last component.
//  - The recursive copy copies a symbolic link as a link unless it leads to a regular file (whose
//    contents are copied, as a file's). A link to a directory, a dangling link, or a cycle of
//    links therefore never makes the walk leave the source tree or run without end.
// Entry types come from the listing's own snapshot of the directory (the entry itself, never
// what a link leads to), so each entry costs no query beyond the listing's.
#include <string.h>

#include "zepdirlist.h"
#include "zepfile.h"
#include "zepframe.h"
#include "zeplistat.h"
#include "zepnumconv.h"

namespace {

constexpr char kSep = ZEP_PATH_SEPARATOR;
constexpr Uint32 kFilesAndDirectories = 0xC000;
// The delete lists entries of every kind: a FIFO or a device left behind would keep its directory
// from going, and each of them is removed as itself like a file.
constexpr Uint32 kEveryKind = 0xF000;
constexpr Uint16 kDirectory = 0x4000, kLink = 0xA000, kRegular = 0x8000;

bool isDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

// A directory handle of the OS layer, closed on every way out.
struct DirHandle {
    zepos::HANDLE h;
    explicit DirHandle(zepos::HANDLE handle) : h(handle) {}
    ~DirHandle() { close(); }
    void close() {
        if (h != zepos::INVALID_HANDLE_VALUE) zepos::CloseHandle(h);
        h = zepos::INVALID_HANDLE_VALUE;
    }
    DirHandle(const DirHandle&) = delete;
    DirHandle& operator=(const DirHandle&) = delete;
};

// zep_directory_delete on a name in an open directory.
Uint32 removeDirectoryAt(zepos::HANDLE parent, const char* name, const char* path) {
    ZepFrame f(ZEPFN_zep_directory_delete);
    f.traceData(10, ZepTrcStr{path});
    if (!zepos::RemoveDirectoryAt(parent, name))
        f.failMapped(30, SYSFN_RemoveDirectory, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogStr(path));
    return f.exit();
}

// zepFileDelete on a name in an open directory: the name itself goes, a link as a link.
Uint32 fileDeleteAt(zepos::HANDLE dir, const char* name, const char* path) {
    ZepFrame f(ZEPFN_zepFileDelete);
    f.traceData(10, ZepTrcStr{path});
    if (zepos::DeleteFileAt(dir, name)) return f.exit();
    Uint32 err = zepos::GetLastError();
    if (err == zepos::ERROR_FILE_NOT_FOUND || err == zepos::ERROR_PATH_NOT_FOUND) {
        // Gone since the listing: the answer the path test gives, without a record.
        f.setQuietResult(ECF_FILE_DOESNT_EXIST);
        f.traceError(20);
        return f.exit();
    }
    f.failMapped(40, SYSFN_DeleteFile, err, ZEP_LOG_ARGS(1), ZepLogStr(path));
    return f.exit();
}

Uint32 zep_directory_delete(const char* path) {
    ZepFrame f(ZEPFN_zep_directory_delete);
    f.traceData(10, ZepTrcStr{path});
    if (!zepos::RemoveDirectoryA(path))
        f.failMapped(30, SYSFN_RemoveDirectory, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogStr(path));
    return f.exit();
}

// One level of zep_directory_delete_recursive, in the frame its caller opened: `self` is the
// directory (or INVALID_HANDLE_VALUE with `openError`), `parent` and `name` where it stands
// (parent null for the top, which is removed by its path).
Uint32 deleteLevel(ZepFrame& f, zepos::HANDLE parent, const char* name, zepos::HANDLE self,
                   Uint32 openError, const char* path);

Uint32 deleteNested(zepos::HANDLE parent, const char* name, zepos::HANDLE self, Uint32 openError,
                    const char* path) {
    ZepFrame f(ZEPFN_zep_directory_delete_recursive);
    f.traceData(10, ZepTrcStr{path});
    return deleteLevel(f, parent, name, self, openError, path);
}

Uint32 deleteLevel(ZepFrame& f, zepos::HANDLE parent, const char* name, zepos::HANDLE self,
                   Uint32 openError, const char* path) {
    DirHandle dir(self);
    ZEPDirectoryListing listing;
    Uint32 rc = zepListingBeginAt(&listing, self, openError, path, kEveryKind);
    if (rc != 0) {
        f.failNested(rc, 50, ZEP_LOG_INFO, ZEPFN_ZEPDirectoryListing_begin, rc, ZEP_LOG_ARGS(1),
                     ZepLogStr(path));
        return f.exit();
    }
    Uint16 type = 0;
    for (const char* entry; (entry = listing.getNext(&type)) != nullptr;) {
        if (isDotOrDotDot(entry)) continue;
        char entryPath[260];
        zepSnprintf(entryPath, sizeof entryPath, "%s%c%s", path, kSep, entry);
        if (type == kDirectory) {
            zepos::HANDLE child = zepos::OpenDirectoryAt(self, entry);
            Uint32 err = child == zepos::INVALID_HANDLE_VALUE ? zepos::GetLastError() : 0;
            // Not a directory any more (a link swapped in, say): it is removed as itself below.
            if (err != zepos::ERROR_DIRECTORY) {
                rc = deleteNested(self, entry, child, err, entryPath);
                if (rc != 0) {
                    f.failNested(rc, 20, ZEP_LOG_INFO, ZEPFN_zep_directory_delete_recursive, rc,
                                 ZEP_LOG_ARGS(1), ZepLogStr(entryPath));
                    listing.end();
                    return f.exit();
                }
                continue;
            }
        }
        rc = fileDeleteAt(self, entry, entryPath);
        if (rc != 0) {
            f.failNested(rc, 40, ZEP_LOG_INFO, ZEPFN_zepFileDelete, rc, ZEP_LOG_ARGS(1),
                         ZepLogStr(entryPath));
            listing.end();
            return f.exit();
        }
    }
    rc = listing.end();
    if (rc != 0) {
        f.failNested(rc, 60, ZEP_LOG_INFO, ZEPFN_ZEPDirectoryListing_end, rc, 0);
        return f.exit();
    }
    dir.close();
    rc = parent != nullptr ? removeDirectoryAt(parent, name, path) : zep_directory_delete(path);
    if (rc != 0)
        f.failNested(rc, 30, ZEP_LOG_INFO, ZEPFN_zep_directory_delete, rc, ZEP_LOG_ARGS(1),
                     ZepLogStr(path));
    return f.exit();
}

Uint32 zep_directory_delete_recursive(const char* path) {
    ZepFrame f(ZEPFN_zep_directory_delete_recursive);
    f.traceData(10, ZepTrcStr{path});
    if (strcmp(path, "NUL") == 0) {
        f.fail(ECF_INVALID_PARAMETER, 10, ZEP_LOG_INFO, ZepLogStr(path));
        return f.exit();
    }
    zepos::HANDLE self = zepos::INVALID_HANDLE_VALUE;
    Uint32 err = zepos::ERROR_DIRECTORY;
    if (zepIsDirectory(path)) {
        self = zepos::OpenDirectoryAt(nullptr, path);
        err = self == zepos::INVALID_HANDLE_VALUE ? zepos::GetLastError() : 0;
    }
    if (err == zepos::ERROR_DIRECTORY) {
        // Not a directory, or a link to one: the caller gave no tree to delete.
        f.fail(ECF_FILE_NOT_A_DIRECTORY, 70, ZEP_LOG_INFO, ZepLogStr(path));
        return f.exit();
    }
    return deleteLevel(f, nullptr, nullptr, self, err, path);
}

// The record of a failed step of the copy, the removal of what this level made, then the error
// record: in that order, so that the trace shows the clean-up inside the failure.
Uint32 copyFailed(ZepFrame& f, Uint16 probe, Uint32 calledId, Uint32 rc, Sint32 mask, const char* a,
                  const char* b, const char* destination) {
    if (b != nullptr)
        zepLogRC(nullptr, f.functionId(), calledId, rc, rc, probe, ZEP_LOG_INFO, mask, a,
                 static_cast<Uint32>(strlen(a)), ZEP_LOGDATA_STRING, b,
                 static_cast<Uint32>(strlen(b)), ZEP_LOGDATA_STRING);
    else
        zepLogRC(nullptr, f.functionId(), calledId, rc, rc, probe, ZEP_LOG_INFO, mask, a,
                 static_cast<Uint32>(strlen(a)), ZEP_LOGDATA_STRING);
    zep_directory_delete_recursive(destination);
    f.setQuietResult(rc);
    f.traceError(probe);
    return f.exit();
}

}  // namespace

Uint32 zepDirectoryCreate(const ZEPDirectoryCreateParam* param) {
    ZepFrame f(ZEPFN_zepDirectoryCreate);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    const char* path = param->path;
    if (param->mode == ZEP_DIR_CREATE_ONE) {
        if (!zepos::CreateDirectoryA(path, nullptr))
            f.failMapped(40, SYSFN_CreateDirectory, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                         ZepLogStr(path));
        return f.exit();
    }
    // Walk by prefixes: the root prefix ("//server/share/", "C:/") comes with the first
    // component, and each step adds one component with its separator.
    char prefix[261];
    memset(prefix, 0, sizeof prefix);
    size_t length = strnlen(path, sizeof prefix - 1);
    size_t pos = 0;
    if (length >= 2 && path[0] == kSep && path[1] == kSep) {
        int seps = 0;
        while (pos < length && seps < 4)
            if (path[pos++] == kSep) ++seps;
    } else if (length >= 3 && ((path[0] | 0x20) >= 'a' && (path[0] | 0x20) <= 'z') &&
               path[1] == ':' && path[2] == kSep) {
        pos = 3;
    }
    for (;;) {
        while (pos < length && path[pos] != kSep) ++pos;
        if (pos < length) ++pos;  // the separator itself
        memcpy(prefix, path, pos);
        if (!zepos::CreateDirectoryA(prefix, nullptr)) {
            Uint32 err = zepos::GetLastError();
            if (!(param->mode == ZEP_DIR_CREATE_PARENTS && err == zepos::ERROR_ALREADY_EXISTS)) {
                f.failMapped(40, SYSFN_CreateDirectory, err, ZEP_LOG_ARGS(1), ZepLogStr(prefix));
                return f.exit();
            }
        }
        if (pos >= length) break;
    }
    return f.exit();
}

Uint32 zepDirectoryDelete(const ZEPDirectoryDeleteParam* param) {
    ZepFrame f(ZEPFN_zepDirectoryDelete);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    // The worker has written what there is to write.
    f.setQuietResult(param->options & ZEP_DIR_DELETE_CONTENTS
                         ? zep_directory_delete_recursive(param->path)
                         : zep_directory_delete(param->path));
    return f.exit();
}

Uint32 zepDirectoryCopy(const char* source, const char* destination) {
    ZepFrame f(ZEPFN_zepDirectoryCopy);
    f.traceData(10, ZepTrcStr{source}, ZepTrcStr{destination});
    ZEPPathTestParam test;
    test.path = destination;
    if (strcmp(source, destination) == 0 || zepPathTest(&test) == 0) {
        f.fail(ECF_INVALID_PARAMETER, 10, ZEP_LOG_INFO, ZepLogStr(source), ZepLogStr(destination));
        return f.exit();
    }
    if (!zepIsDirectory(source)) {
        f.fail(ECF_FILE_NOT_A_DIRECTORY, 70, ZEP_LOG_INFO, ZepLogStr(source));
        return f.exit();
    }
    ZEPFileGetInfoParam infoParam;
    infoParam.path = source;
    ZEPFileInfo info;
    Uint32 rc = zepFileGetInfoV9(&infoParam, &info);
    if (rc != 0) {
        f.failNested(rc, 20, ZEP_LOG_INFO, ZEPFN_zepGetFileInfo, rc, ZEP_LOG_ARGS(1),
                     ZepLogStr(source));
        return f.exit();
    }
    ZEPDirectoryCreateParam create;
    create.path = destination;
    create.permissions = info.permissions;
    rc = zepDirectoryCreate(&create);
    if (rc != 0) {
        f.failNested(rc, 30, ZEP_LOG_INFO, ZEPFN_zepDirectoryCreate, rc, ZEP_LOG_ARGS(2),
                     ZepLogStr(destination));
        return f.exit();
    }

    zepos::HANDLE self = zepos::OpenDirectoryA(source);
    DirHandle dir(self);
    ZEPDirectoryListing listing;
    rc = zepListingBeginAt(&listing, self,
                           self == zepos::INVALID_HANDLE_VALUE ? zepos::GetLastError() : 0, source,
                           kFilesAndDirectories);
    if (rc != 0)
        return copyFailed(f, 40, ZEPFN_ZEPDirectoryListing_begin, rc, ZEP_LOG_ARGS(1), source,
                          nullptr, destination);
    Uint16 type = 0;
    for (const char* entry; (entry = listing.getNext(&type)) != nullptr;) {
        if (isDotOrDotDot(entry)) continue;
        char from[260], to[260];
        zepSnprintf(from, sizeof from, "%s%c%s", source, kSep, entry);
        zepSnprintf(to, sizeof to, "%s%c%s", destination, kSep, entry);
        if (type == kDirectory) {
            rc = zepDirectoryCopy(from, to);
            if (rc != 0) {
                listing.end();
                return copyFailed(f, 50, ZEPFN_zepDirectoryCopy, rc, ZEP_LOG_ARGS(3), from, to,
                                  destination);
            }
        } else if (type != kLink && type != kRegular) {
            continue;  // FIFOs, sockets and devices are not copied
        } else if (type == kLink && !zepIsFile(from)) {
            if (!zepos::CopySymbolicLinkA(from, to)) {
                Uint32 err = zepos::GetLastError(), level = ZEP_LOG_INFO;
                rc = zepErrorMapSystem(ZEPFN_zepDirectoryCopy, 60, SYSFN_link, err, &level);
                zepLogSysRC(nullptr, ZEPFN_zepDirectoryCopy, SYSFN_link, err, rc, 60, level,
                            ZEP_LOG_ARGS(3), from, static_cast<Uint32>(strlen(from)),
                            ZEP_LOGDATA_STRING, to, static_cast<Uint32>(strlen(to)),
                            ZEP_LOGDATA_STRING);
                listing.end();
                zep_directory_delete_recursive(destination);
                f.setQuietResult(rc);
                f.traceError(60);
                return f.exit();
            }
        } else {
            rc = zepFileCopy(from, to);
            if (rc != 0) {
                listing.end();
                return copyFailed(f, 60, ZEPFN_zepFileCopy, rc, ZEP_LOG_ARGS(3), from, to,
                                  destination);
            }
        }
    }
    listing.end();
    // The source's permission bits, once the contents are in: a read-only source directory
    // would otherwise refuse its own copy's entries.
    if (zepos::_chmod(destination, static_cast<int>(info.permissions)) != 0) {
        Uint32 err = zepos::GetLastError(), level = ZEP_LOG_INFO;
        rc = zepErrorMapSystem(ZEPFN_zepDirectoryCopy, 80, SYSFN_chmod, err, &level);
        zepLogSysRC(nullptr, ZEPFN_zepDirectoryCopy, SYSFN_chmod, err, rc, 80, level,
                    ZEP_LOG_ARGS(2), destination, static_cast<Uint32>(strlen(destination)),
                    ZEP_LOGDATA_STRING);
        zep_directory_delete_recursive(destination);
        f.setQuietResult(rc);
        f.traceError(80);
    }
    return f.exit();
}
