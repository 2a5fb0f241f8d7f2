// zepos_file.h - file stand-ins of the OS layer: open, size, pointer, read, write, flush,
// byte-range locks, file mappings and views, and the one CloseHandle every handle goes to.
//
// What the Linux build honours of the platform's contracts:
//  - Creation dispositions, all five, with the platform's last errors: CREATE_NEW on an existing
//    file fails with 80; CREATE_ALWAYS and OPEN_ALWAYS succeed on an existing file with the last
//    error 183 and on a new one with 0; TRUNCATE_EXISTING without GENERIC_WRITE fails with 87.
//    A missing file gives 2, a missing directory on the way 3; a directory is refused with 5.
//  - Access: GENERIC_READ and GENERIC_WRITE choose the descriptor's mode; other access bits are
//    ignored, and a handle with neither (a query handle) is refused with 87. Reading, writing,
//    truncating and flushing through a handle without the access fail with 5, as the platform's
//    do.
//  - Sharing modes are accepted and not enforced: Linux has no mandatory exclusion at open, and
//    an emulation with whole-file flock() would not see openers outside this layer, and on NFS
//    would collide with the byte-range locks. Every opener may read, write, rename and delete.
//    The library itself always shares read and write and excludes by LockFileEx alone.
//  - FILE_FLAG_WRITE_THROUGH opens with O_DSYNC. FILE_FLAG_DELETE_ON_CLOSE removes the name when
//    this handle is closed (not when the last handle to the file is), and only while the name
//    still refers to the file that was opened.
//  - Byte-range locks are open file description locks (F_OFD_SETLK): they exclude other handles,
//    in this process and in others, the kernel drops them when a holder dies, and closing some
//    other descriptor of the same file keeps them. As on the platform, a handle's exclusive range
//    overlaps none of its other ranges, identical shared ranges stack, an unlock names exactly a
//    range that the handle holds (else 158), and CloseHandle releases what the handle holds.
//    A handle conflicting with itself fails at once with 33, also in the waiting form. A length
//    of 0 is refused with 87. Locks are advisory: read and write don't test them.
//  - File mappings of open files here; without a file (INVALID_HANDLE_VALUE) the call goes to
//    the paging-file and named form of zepos_ipc.h, and so do views of such mappings. The
//    maximum size 0 means the file's size when the mapping is made; an empty file gives 1006.
//    Views keep their mapping alive, as on the platform; the file can still be cut
//    short under a view here (the platform refuses that), and touching the lost pages faults.
//  - ReadFile and WriteFile are synchronous: an OVERLAPPED record is refused with 87.
#ifndef ZEPOS_FILE_H
#define ZEPOS_FILE_H

#include <stddef.h>

#include "zeptypes.h"

namespace zepos {

// Platform error numbers that only the file stand-ins produce.
enum : Uint32 {
    ERROR_NEGATIVE_SEEK = 131,
    ERROR_NOT_LOCKED = 158,
    ERROR_FILE_INVALID = 1006,
    ERROR_MAPPED_ALIGNMENT = 1132,
};

// Every handle the layer hands out points at a record that starts with this header, so that
// CloseHandle closes any kind. A family that adds a kind of handle gives it a kind number of its
// own and its close function; CloseHandle refuses anything without the magic word (6).
// A kind that can be waited on (semaphores, events, threads, processes) sets `wait`; it returns
// WAIT_OBJECT_0, WAIT_TIMEOUT or WAIT_FAILED with the last error, as WaitForSingleObject does.
struct HandleRecord {
    Uint32 magic;
    Uint32 kind;
    BOOL (*close)(HandleRecord* record);
    Uint32 (*wait)(HandleRecord* record, Uint32 milliseconds);
};
inline constexpr Uint32 HANDLE_MAGIC = 0x5A48444Cu;  // "ZHDL"
enum : Uint32 {
    HANDLE_KIND_FILE = 1,
    HANDLE_KIND_FILE_MAPPING = 2,
    HANDLE_KIND_SEMAPHORE = 3,
    HANDLE_KIND_EVENT = 4,
    HANDLE_KIND_MUTEX = 5,
    HANDLE_KIND_THREAD = 6,
    HANDLE_KIND_PROCESS = 7,
    HANDLE_KIND_LIBRARY = 8,
};

// The handle of a record whose magic, kind, close (and wait, where the kind has one) are set.
// Every stand-in hands out its handles through this, so that what a handle value is stays the
// business of this one place: a slot of a table and the slot's generation, not an address, so
// that a handle once closed names nothing, whatever was opened since. Null (last error 8) only
// when no slot can be had. Never read a handle as a pointer: HandleOfKind gives the record.
HANDLE HandleFor(HandleRecord* record);

// HandleFor for a record that is useless without its handle: when no slot can be had, the
// record's own close undoes it and the result is null with last error 8.
HANDLE HandleOrClose(HandleRecord* record);

// The close of a record allocated whole by malloc, once what it holds is let go: the magic
// cleared, the memory freed; returns 1.
BOOL FreeRecord(HandleRecord* record);

// An open-file-description lock (F_RDLCK, F_WRLCK or F_UNLCK) of [offset, offset+length), length
// 0 to the end, waiting for it or not; fcntl's result and errno, interrupted calls retried. Such
// a lock belongs to the open file, so threads and processes exclude each other alike.
int OfdLock(int fd, short type, Uint64 offset, Uint64 length, bool wait);

// The record of an open handle of `kind`, or null (last error 6) for none, all ones, a handle
// that was closed, a value that was never a handle, or another kind.
HandleRecord* HandleOfKind(HANDLE handle, Uint32 kind);

// Closes a handle of any kind. All ones, null, unknown and closed handles fail with 6. A close
// function that fails keeps its record, and the handle stays open for another close.
BOOL CloseHandle(HANDLE handle);

// ---- waits

enum : Uint32 {
    WAIT_OBJECT_0 = 0,
    WAIT_TIMEOUT = 258,
    WAIT_FAILED = 0xFFFFFFFFu,
};

// Waits for a handle of a kind that has a wait: `milliseconds` on the monotonic clock, INFINITE
// (zepos_sys.h) for no limit, 0 to poll. A handle of another kind fails with 6.
Uint32 WaitForSingleObject(HANDLE handle, Uint32 milliseconds);

// ---- CreateFileA

enum : Uint32 {
    GENERIC_READ = 0x80000000u,
    GENERIC_WRITE = 0x40000000u,

    FILE_SHARE_READ = 0x1,
    FILE_SHARE_WRITE = 0x2,
    FILE_SHARE_DELETE = 0x4,

    CREATE_NEW = 1,
    CREATE_ALWAYS = 2,
    OPEN_EXISTING = 3,
    OPEN_ALWAYS = 4,
    TRUNCATE_EXISTING = 5,

    FILE_ATTRIBUTE_READONLY = 0x1,
    FILE_ATTRIBUTE_DIRECTORY = 0x10,
    FILE_ATTRIBUTE_NORMAL = 0x80,
    FILE_FLAG_DELETE_ON_CLOSE = 0x04000000u,
    FILE_FLAG_WRITE_THROUGH = 0x80000000u,

    INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu,
    INVALID_FILE_SIZE = 0xFFFFFFFFu,
    INVALID_SET_FILE_POINTER = 0xFFFFFFFFu,

    FILE_BEGIN = 0,
    FILE_CURRENT = 1,
    FILE_END = 2,
};

// The security attributes are accepted and not read: a file gets the mode 0666 less the umask.
// Returns INVALID_HANDLE_VALUE on failure.
HANDLE CreateFileA(const char* fileName, Uint32 desiredAccess, Uint32 shareMode,
                   void* securityAttributes, Uint32 creationDisposition, Uint32 flagsAndAttributes,
                   HANDLE templateFile);

// FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_READONLY (no write bit in the mode at all) or
// FILE_ATTRIBUTE_NORMAL; INVALID_FILE_ATTRIBUTES with 2 or 3 for a missing name.
Uint32 GetFileAttributesA(const char* fileName);

// ---- size, pointer, data

// The low word of the size, the high word through `fileSizeHigh` if given. A failure returns
// INVALID_FILE_SIZE with a last error other than 0; success sets the last error to 0, so a low
// word of all ones is told apart by the last error alone.
Uint32 GetFileSize(HANDLE file, Uint32* fileSizeHigh);

// Moves the pointer by the distance (64 bits with `distanceHigh`, else the signed low word) from
// FILE_BEGIN, FILE_CURRENT or FILE_END. Returns the new position's low word and stores the high
// word; failure returns INVALID_SET_FILE_POINTER with a last error other than 0 (131 for a
// position before the start, 87 for another method), success sets it to 0.
Uint32 SetFilePointer(HANDLE file, Sint32 distanceLow, Sint32* distanceHigh, Uint32 moveMethod);

// SetFilePointer's two halves, shared by its handle form and its descriptor form (zepos_proc.h):
// the arguments as lseek's (false, last error 87, for an unknown method), and lseek's result as
// the platform's (the high word stored, the last error set from errno when it failed).
bool SeekArguments(Sint32 distanceLow, const Sint32* distanceHigh, Uint32 moveMethod, int* whence,
                   Sint64* distance);
Uint32 SeekResult(Sint64 at, Sint32* distanceHigh);

// The file ends at the pointer: cut short or extended with zeros.
BOOL SetEndOfFile(HANDLE file);

struct OVERLAPPED {
    uintptr_t Internal;
    uintptr_t InternalHigh;
    Uint32 Offset;
    Uint32 OffsetHigh;
    HANDLE hEvent;
};

// Reads up to `toRead` bytes at the pointer; fewer only at the end of the file, and 0 there with
// success.
BOOL ReadFile(HANDLE file, void* buffer, Uint32 toRead, Uint32* bytesRead, OVERLAPPED* overlapped);

// Writes at the pointer. A failure after part of the data leaves that part's count in
// `bytesWritten`.
BOOL WriteFile(HANDLE file, const void* buffer, Uint32 toWrite, Uint32* bytesWritten,
               OVERLAPPED* overlapped);

BOOL FlushFileBuffers(HANDLE file);

// ---- byte-range locks

enum : Uint32 {
    LOCKFILE_FAIL_IMMEDIATELY = 0x1,
    LOCKFILE_EXCLUSIVE_LOCK = 0x2,
};

// Locks the range at the overlapped record's Offset/OffsetHigh. With LOCKFILE_FAIL_IMMEDIATELY a
// range that another handle holds fails with 33; without it the call waits.
BOOL LockFileEx(HANDLE file, Uint32 flags, Uint32 reserved, Uint32 bytesLow, Uint32 bytesHigh,
                OVERLAPPED* overlapped);

// Releases exactly a range that this handle holds; anything else fails with 158.
BOOL UnlockFileEx(HANDLE file, Uint32 reserved, Uint32 bytesLow, Uint32 bytesHigh,
                  OVERLAPPED* overlapped);

// ---- mappings and views

enum : Uint32 {
    PAGE_READONLY = 0x02,
    PAGE_READWRITE = 0x04,
    PAGE_WRITECOPY = 0x08,

    FILE_MAP_COPY = 0x1,
    FILE_MAP_WRITE = 0x2,
    FILE_MAP_READ = 0x4,
};

// A mapping of an open file with the protection; the handle needs GENERIC_READ, and
// GENERIC_WRITE as well for PAGE_READWRITE (else 5). A maximum size above the file's size
// extends a file mapped PAGE_READWRITE. Returns null (not all ones) on failure. A name with a
// file is refused with 87.
HANDLE CreateFileMappingA(HANDLE file, void* securityAttributes, Uint32 protect,
                          Uint32 maximumSizeHigh, Uint32 maximumSizeLow, const char* name);

// A view of `bytes` (0: to the mapping's end) from the offset, a multiple of the page size
// (else 1132), at `baseAddress` if given (a multiple of the page size and free, else 487).
// FILE_MAP_WRITE needs a PAGE_READWRITE mapping (else 5); FILE_MAP_COPY gives private pages.
// Returns null on failure.
void* MapViewOfFileEx(HANDLE mapping, Uint32 desiredAccess, Uint32 offsetHigh, Uint32 offsetLow,
                      size_t bytes, void* baseAddress);

// Unmaps the view that starts at `baseAddress`; any other address fails with 487.
BOOL UnmapViewOfFile(const void* baseAddress);

}  // namespace zepos

#endif
