// zepfile.h - operations on files and directories by path.
//
// Paths are NUL-ended bytes handed to the system as given. The library's own path rules (the
// directory and base name of a path, the trailing separator, the walk of the directory
// operations) know ZEP_PATH_SEPARATOR as their one separator. Every operation returning a
// Uint32 gives an ECF code, 0 for success, unless it says it gives a truth value.
#ifndef ZEPFILE_H
#define ZEPFILE_H

#include "zeptypes.h"

// ZEPPathTestParam::tests
#define ZEP_PATH_TEST_EXISTS 0x1u
#define ZEP_PATH_TEST_READ 0x2u
#define ZEP_PATH_TEST_WRITE 0x4u

// zeptmpnam's flags
#define ZEP_TMPNAM_NAME 0x0u         // a fresh name, nothing created (buffer of 14 bytes or more)
#define ZEP_TMPNAM_CREATE_FILE 0x1u  // an empty file made, mode 0600 (buffer of 260 or more)

// ZEPFileInfo::type
#define ZEP_FILE_TYPE_REGULAR 0x8000u
#define ZEP_FILE_TYPE_DIRECTORY 0x4000u

// ZEPDirectoryCreateParam::mode
#define ZEP_DIR_CREATE_ONE 1u      // the one directory named
#define ZEP_DIR_CREATE_PARENTS 2u  // with the missing directories above it
// ZEPDirectoryDeleteParam::options
#define ZEP_DIR_DELETE_CONTENTS 0x1u

struct ZEPPathTestParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;
    Uint32 tests = ZEP_PATH_TEST_EXISTS;  // ZEP_PATH_TEST_READ | ZEP_PATH_TEST_WRITE, or existence
    Uint32 reserved = 0;                  // traced and logged, not read
};

struct ZEPFileGetInfoParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;
    Uint32 reserved1 = 0;  // not read
    Uint32 reserved2 = 0;  // not read
    Uint32 reserved3 = 1;  // not read
};

// What zepFileGetInfo fills: size, type, permissions, owner, group and the first word of
// modified. The rest is cleared by the constructor and left alone.
struct ZEPFileInfo {
    Uint64 size = 0;
    Uint8 flag = 0;
    Uint32 word = 0;
    Uint32 type = 0;         // ZEP_FILE_TYPE_REGULAR, ZEP_FILE_TYPE_DIRECTORY, or 0
    Uint32 permissions = 0;  // the mode's low 12 bits
    Sint32 owner = 0;        // the user id (ids above 2^31 - 1 read negative)
    Sint32 group = 0;
    Uint32 modified[3] = {0, 0, 0};  // [0]: seconds since 1970 UTC
};

struct ZEPDirectoryCreateParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;
    Uint32 permissions = 0;            // carried along, not read
    Uint32 mode = ZEP_DIR_CREATE_ONE;  // or ZEP_DIR_CREATE_PARENTS; any other value walks like
                                       // the parents mode but refuses an existing prefix
};

struct ZEPDirectoryDeleteParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;
    Uint32 options = 0;  // ZEP_DIR_DELETE_CONTENTS
};

ZEP_BEGIN_C

// ---- paths and files

// Attributes of a path (following links). A path that is neither a file nor a directory gives
// ECF_FILE_UNKNOWN_FILE_TYPE with type 0. The two forms are one operation; `param` of the second
// is never null.
ZEP_EXPORT Uint32 zepFileGetInfo(ZEPFileGetInfoParam param, ZEPFileInfo* info);
ZEP_EXPORT Uint32 zepFileGetInfoV9(const ZEPFileGetInfoParam* param, ZEPFileInfo* info);

// Truth values; a path that can't be queried is neither. zepIsDirectory ignores one trailing
// separator (a path of at most 260 bytes).
ZEP_EXPORT Bool zepIsFile(const char* path);
ZEP_EXPORT Bool zepIsDirectory(const char* path);

// Removes a file; a directory is refused (ECF_FILE_IS_A_DIRECTORY), a missing path gives
// ECF_FILE_DOESNT_EXIST without a log record.
ZEP_EXPORT Uint32 zepFileDelete(const char* path);

// Renames a file or directory; an existing target is never replaced. Every failure gives
// ECF_FILE_DOESNT_EXIST, whatever the platform's reason (which the log record names).
// Both paths must be valid strings.
ZEP_EXPORT Uint32 zepFileRename(const char* oldPath, const char* newPath);

// Nothing to do on this platform: returns 0.
ZEP_EXPORT Uint32 zepFileSetOwnership(const char* path, Sint32 owner, Sint32 group);

// Sets the permission bits; 0 stands for 0600 (0x180).
ZEP_EXPORT Uint32 zepFileSetPermissions(const char* path, Uint32 permissions);

// `size` in: the buffer's capacity; out: the length, or the capacity needed (the NUL counted)
// with ECF_BUFFER_TOO_SMALL.
ZEP_EXPORT Uint32 zepDirectoryGetCurrent(char* buffer, Uint32* size);
ZEP_EXPORT Uint32 zepDirectorySetCurrent(const char* path);

// The directory part and the last component of a path, by the path's text alone:
// "/a/b" -> "/a" and "b", "a/" -> "." and "a", "/" -> "/" and "/".
ZEP_EXPORT Uint32 zepDirectoryName(const char* path, char* buffer, Uint32 size);
ZEP_EXPORT Uint32 zepBaseName(const char* path, char* buffer, Uint32 size);

// Existence and access: ECF_FILE_DOESNT_EXIST and ECF_ACCESS_DENIED come without a log record.
ZEP_EXPORT Bool zepPathExists(const char* path);
ZEP_EXPORT Uint32 zepPathTest(const ZEPPathTestParam* param);

// No drive letters here: the map is 0 and the result ECF_FILE_CANNOT_RETRIEVE_DRIVE_MAP.
ZEP_EXPORT Uint32 zepGetLogicalDriveMap(Uint32* map);

// Copies a file (contents and permission bits) to a destination that must not exist.
ZEP_EXPORT Uint32 zepFileCopy(const char* source, const char* destination);

// True when both paths name one file: resolved where they exist, ignoring case.
ZEP_EXPORT Bool zepComparePaths(const char* first, const char* second);

// A name for a temporary file in $TMPDIR (or /tmp); see ZEP_TMPNAM_*.
ZEP_EXPORT Uint32 zeptmpnam(char* buffer, Uint32 size, Uint32 flags);

// True for the platform's volume and device forms ("\\.\C:", "\\.\PhysicalDrive0",
// "\\?\Volume..."), tested by their bytes. No Linux path has these forms, so for the paths of
// this system the answer is false (a path that happens to be spelled so is treated as one).
ZEP_EXPORT Bool zepIsNTVolume(const char* path);

// ---- directories

ZEP_EXPORT Uint32 zepDirectoryCreate(const ZEPDirectoryCreateParam* param);
ZEP_EXPORT Uint32 zepDirectoryDelete(const ZEPDirectoryDeleteParam* param);

// Copies a directory tree to a destination that must not exist. A symbolic link to anything
// but a regular file is copied as a link; a failure removes what the copy made.
ZEP_EXPORT Uint32 zepDirectoryCopy(const char* source, const char* destination);

ZEP_END_C

#endif
