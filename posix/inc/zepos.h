// zepos.h - the operating-system layer (private to the library).
//
// The library's logic speaks a Win32-style platform interface: handles, a thread-local last
// error in the platform's numbering, and calls with the names and contracts it was designed
// against. This layer provides exactly those calls on Linux. Every stand-in fails the way the
// real call fails: it returns the call's failure value and leaves the reason in the last error,
// translated from errno by the one table in zepos_core.cpp.
//
// Nothing here calls back into the frame, the log or the trace.
//
// The layer's symbols (everything declared between the visibility pragmas, the area headers
// included at the end among them) are visible from libzep.so so that the library's own tests can reach
// them; no installed header declares them, and they are no interface for callers.
#ifndef ZEPOS_H
#define ZEPOS_H

#include "zeptypes.h"

// Kept for headers of the layer that spell it; the pragma below does the work.
#define ZEPOS_VISIBLE

#pragma GCC visibility push(default)
namespace zepos {

typedef int BOOL;  // the platform's 32-bit truth value: non-zero on success
typedef void* HANDLE;

// "No handle" is all ones. A handle that a stand-in hands out refers to a descriptor or a named
// object that the layer owns until the matching close call.
inline HANDLE const INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~static_cast<uintptr_t>(0));

// Platform error numbers the stand-ins report. The full list the library knows by name is the
// error map's; these are the ones the layer itself produces.
enum : Uint32 {
    ERROR_SUCCESS = 0,
    ERROR_INVALID_FUNCTION = 1,
    ERROR_FILE_NOT_FOUND = 2,
    ERROR_PATH_NOT_FOUND = 3,
    ERROR_ACCESS_DENIED = 5,
    ERROR_INVALID_HANDLE = 6,
    ERROR_NOT_ENOUGH_MEMORY = 8,
    ERROR_BAD_ENVIRONMENT = 10,
    ERROR_NOT_SAME_DEVICE = 17,
    ERROR_NO_MORE_FILES = 18,
    ERROR_WRITE_PROTECT = 19,
    ERROR_NOT_READY = 21,
    ERROR_GEN_FAILURE = 31,
    ERROR_SHARING_VIOLATION = 32,
    ERROR_LOCK_VIOLATION = 33,
    ERROR_SHARING_BUFFER_EXCEEDED = 36,
    ERROR_HANDLE_EOF = 38,
    ERROR_NOT_SUPPORTED = 50,
    ERROR_FILE_EXISTS = 80,
    ERROR_INVALID_PARAMETER = 87,
    ERROR_BROKEN_PIPE = 109,
    ERROR_DISK_FULL = 112,
    ERROR_INSUFFICIENT_BUFFER = 122,
    ERROR_INVALID_NAME = 123,
    ERROR_WAIT_NO_CHILDREN = 128,
    ERROR_SEEK_ON_DEVICE = 132,
    ERROR_DIR_NOT_EMPTY = 145,
    ERROR_ALREADY_EXISTS = 183,
    ERROR_BAD_EXE_FORMAT = 193,
    ERROR_FILENAME_EXCED_RANGE = 206,
    ERROR_FILE_TOO_LARGE = 223,
    ERROR_INVALID_ADDRESS = 487,
    ERROR_ARITHMETIC_OVERFLOW = 534,
    ERROR_IO_DEVICE = 1117,
    ERROR_POSSIBLE_DEADLOCK = 1131,
    ERROR_TOO_MANY_LINKS = 1142,
    ERROR_NO_UNICODE_TRANSLATION = 1113,
    ERROR_CANCELLED = 1223,
    ERROR_DISK_QUOTA_EXCEEDED = 1295,
    ERROR_TIMEOUT = 1460,
    ERROR_CANT_RESOLVE_FILENAME = 1921,
};

// The thread's last error, as the platform keeps it.
Uint32 GetLastError();
void SetLastError(Uint32 error);

// What an errno means depends a little on the call that met it; everything else is one table.
enum class ErrnoUse {
    General,
    Lock,     // EAGAIN/EACCES/EWOULDBLOCK on a byte-range lock: another holder (33)
    Create,   // EEXIST when creating a named object or a directory (183, not 80)
};
Uint32 TranslateErrno(int err, ErrnoUse use = ErrnoUse::General);

// Stores the translation of errno (or of err) as the last error; for the stand-ins' failure
// paths.
void SetLastErrorFromErrno(ErrnoUse use = ErrnoUse::General);

// ENOENT says "not found" for the file and for a directory on its way alike; the platform tells
// them apart (2 for the file, 3 for the path). This decides which one `path` meets.
Uint32 NotFoundError(const char* path);

// The calendar time of the local zone, to the millisecond.
struct SYSTEMTIME {
    Uint16 wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};
void GetLocalTime(SYSTEMTIME* st);

Uint32 GetCurrentThreadId();
Uint32 GetCurrentProcessId();

// Renames a file or directory. Unlike rename(2) it refuses an existing target
// (ERROR_ALREADY_EXISTS), and it never replaces one, not even in a race.
BOOL MoveFileA(const char* existingName, const char* newName);

}  // namespace zepos

#include "zepos_sys.h"
#include "zepos_sysinfo.h"
#include "zepos_file.h"
#include "zepos_proc.h"
#include "zepos_tls.h"
#include "zepos_named.h"
#include "zepos_ipc.h"
#include "zepos_exec.h"
#include "zepos_path.h"
#include "zepos_sync.h"
#include "zepos_sym.h"

#pragma GCC visibility pop

#endif
