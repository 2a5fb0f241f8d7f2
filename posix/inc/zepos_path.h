// zepos_path.h - stand-ins for the path-level calls of the OS layer: attributes, access tests,
// permissions, deletes, copies, directories, the current directory, temporary names, the drive
// map, the canonical form of a path, and directory searches.
//
// The runtime calls (_stati64, _access, _chmod) answer in the runtime's way: -1 and a reason in
// errno (ENOENT also for a missing directory on the way, as the runtime reports it). _access
// leaves its reason as the last error as well, in the numbers its callers test: 2 for a missing
// name, 3 for a missing directory on the way, 13 when the access is refused, 22 for a bad mode.
// The kernel-service calls fail with the platform's last error, as every stand-in does.
//
// The "...At" forms are this build's own: they work relative to an open directory handle and
// never follow a symbolic link in the last component, so that a walk over a tree can be sure
// never to leave it, even while the tree changes under it.
#ifndef ZEPOS_PATH_H
#define ZEPOS_PATH_H

#include <stddef.h>

#include "zeptypes.h"

namespace zepos {

enum : Uint32 {
    ERROR_DIRECTORY = 267,  // the name is not a directory
    HANDLE_KIND_FIND = 0x101,
    HANDLE_KIND_DIRECTORY = 0x102,
    MAX_PATH = 260,
};

// What _stati64 gives: the 16-bit mode (type bits 0xF000 as the platform has them: 0x8000 a
// regular file, 0x4000 a directory, 0xA000 a symbolic link), the 64-bit size, the owner and
// group, and the modification time in seconds since 1970.
struct STATI64 {
    Uint16 mode;
    Sint64 size;
    Uint32 uid;
    Uint32 gid;
    Sint64 mtime;
};

// The runtime's error number of this thread.
int* _errno();

// Attributes of a path, following symbolic links. 0 or -1 (errno).
int _stati64(const char* path, STATI64* st);

// The same without following a link in the last component, relative to a directory handle (or
// to the current directory when `dir` is null or INVALID_HANDLE_VALUE).
int _lstati64At(void* dir, const char* name, STATI64* st);

// Tests existence (0), write (2), read (4) or both (6). 0 or -1 (errno and last error, above).
int _access(const char* path, int mode);

// Sets the permission bits (mode & 07777). 0 or -1 (errno; last error in platform numbers).
int _chmod(const char* path, int mode);

// Removes a name that isn't a directory (a directory gives 5).
BOOL DeleteFileA(const char* path);

// Copies a file's contents and permission bits. With failIfExists the target is claimed
// atomically (80 when it exists); the kernel copies in-kernel where it can. A copy that fails
// removes the target it made. A source that is not a regular file (a directory, a FIFO, a
// device) gives 5.
BOOL CopyFileA(const char* existingName, const char* newName, BOOL failIfExists);

// Creates a directory (mode 0777 less the umask; the attributes are not read). An existing name
// gives 183, a missing parent 3.
BOOL CreateDirectoryA(const char* path, void* securityAttributes);

// Removes an empty directory: 145 when it isn't empty, 267 when it isn't a directory.
BOOL RemoveDirectoryA(const char* path);

// The length without the NUL when it fits in `size`, else the size needed with the NUL; 0 on
// failure.
Uint32 GetCurrentDirectoryA(Uint32 size, char* buffer);
BOOL SetCurrentDirectoryA(const char* path);

// No drive letters here: 0 with the last error 50, the answer for a machine without drives.
Uint32 GetLogicalDrives();

// The one canonical form of a path, in place of the platform's short name: the resolved absolute
// path where it exists (links and ".." resolved), else the path made absolute and normalised by
// its text ("." and empty components dropped, ".." taking one back). Returns the length when it
// fits in `size`, else the size needed with the NUL; 0 on failure.
Uint32 GetShortPathNameA(const char* longPath, char* shortPath, Uint32 size);

// The temporary directory with a trailing separator: $TMPDIR when set and not empty, else /tmp.
// Same length rules as GetCurrentDirectoryA.
Uint32 GetTempPathA(Uint32 size, char* buffer);

// Creates an empty file "<dir><prefix>XXXXXX" with mode 0600 and writes its name to `tempFile`
// (MAX_PATH bytes). `unique` must be 0. Returns a non-zero number, 0 on failure (206 when the
// name wouldn't fit).
Uint32 GetTempFileNameA(const char* pathName, const char* prefix, Uint32 unique, char* tempFile);

// A fresh name "<temporary directory>vrn<random>" that no file has at the moment; nothing is
// created. 0, or ERANGE when `size` holds no name with 5 random characters.
int tmpnam_s(char* buffer, size_t size);

// ---- directory searches

struct WIN32_FIND_DATAA {
    Uint32 dwFileAttributes;  // FILE_ATTRIBUTE_DIRECTORY or FILE_ATTRIBUTE_NORMAL, by the entry
    Uint16 typeBits;          // this build's: the entry's type bits (0xF000) unfollowed, 0 unknown
    char cFileName[MAX_PATH];
};

// The entries of the directory part of `fileName` whose names match its last component, where
// "*" stands for any run of bytes and "?" for one byte (nothing else is special). "." and ".."
// are entries like any other; the order is the directory's own. A directory without a match
// gives 2, a missing directory 3. INVALID_HANDLE_VALUE on failure.
HANDLE FindFirstFileA(const char* fileName, WIN32_FIND_DATAA* findData);
// The next match; 18 after the last.
BOOL FindNextFileA(HANDLE find, WIN32_FIND_DATAA* findData);
BOOL FindClose(HANDLE find);

// ---- forms relative to a directory handle, never following a link in the last component

// Opens a directory for the walk (closed by CloseHandle): a symbolic link or anything else that
// is not a directory gives 267. `dir` null or INVALID_HANDLE_VALUE: relative to the current
// directory.
HANDLE OpenDirectoryAt(HANDLE dir, const char* name);
// The same for a directory named by the caller, following links all the way.
HANDLE OpenDirectoryA(const char* path);
// Every entry of an open directory matching `pattern`, from its start, as FindFirstFileA.
HANDLE FindFirstFileAt(HANDLE dir, const char* pattern, WIN32_FIND_DATAA* findData);
// A name that is not a directory, removed as itself (a link as a link): a directory gives 5.
BOOL DeleteFileAt(HANDLE dir, const char* name);
// An empty directory: 145 when not empty, 267 when the name is no directory (a link among them).
BOOL RemoveDirectoryAt(HANDLE dir, const char* name);
// A symbolic link made beside the original with the same target text.
BOOL CopySymbolicLinkA(const char* existingName, const char* newName);

}  // namespace zepos

#endif
