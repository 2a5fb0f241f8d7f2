// zephfile.h - ZEPHFile, the library's handle of an open file, and its parameter objects.
//
// The object is three words (file handle, mapping handle, view) and nothing else: position,
// size and lock live in the platform, so the object can sit on a stack and be copied (a copy
// shares the handles). It has no destructor: a file left open stays open until close() or the
// end of the process. Every member but getFileHandle() returns an ECF code, 0 for success.
//
// The one lock is byte 0 of the file, standing for the whole file by agreement among callers;
// it excludes other handles in this and other processes, and is advisory: read and write don't
// test it.
#ifndef ZEPHFILE_H
#define ZEPHFILE_H

#include "zeptypes.h"

// ZEPFileOpenParam::creation
#define ZEP_FILE_OPEN_EXISTING 1u
#define ZEP_FILE_OPEN_OR_CREATE 2u
#define ZEP_FILE_TRUNCATE_EXISTING 4u
#define ZEP_FILE_CREATE_NEW 8u
#define ZEP_FILE_CREATE_OR_REPLACE 16u
// ZEPFileOpenParam::access
#define ZEP_FILE_ACCESS_READ 1u
#define ZEP_FILE_ACCESS_WRITE 2u
#define ZEP_FILE_ACCESS_READ_WRITE 4u
// ZEPFileOpenParam::options
#define ZEP_FILE_OPTION_WRITE_THROUGH 0x1u
#define ZEP_FILE_OPTION_DELETE_ON_CLOSE 0x2u
#define ZEP_FILE_OPTION_PERMISSIONS 0x4u  // no effect here; the permissions word isn't read
// ZEPFileSeekParam::origin
#define ZEP_FILE_SEEK_START 0u
#define ZEP_FILE_SEEK_CURRENT 1u
#define ZEP_FILE_SEEK_END 2u
// ZEPFileLockParam::type and ::wait
#define ZEP_FILE_LOCK_EXCLUSIVE 1u
#define ZEP_FILE_LOCK_SHARED 2u
#define ZEP_FILE_LOCK_WAIT 1u
#define ZEP_FILE_LOCK_NO_WAIT 2u
// ZEPFileMapParam::protection
#define ZEP_FILE_MAP_READ 1u
#define ZEP_FILE_MAP_COPY_ON_WRITE 2u
#define ZEP_FILE_MAP_READ_WRITE 4u

// Each parameter object starts with its version stamp; the constructor writes ZEP_VERSION_WORD
// and zeroes the rest. A stamp below ZEP_MIN_VERSION_STAMP is refused (ECF_INVALID_VERSION).

struct ZEPFileOpenParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;
    Uint32 creation = 0;     // ZEP_FILE_OPEN_EXISTING ...
    Uint32 access = 0;       // ZEP_FILE_ACCESS_READ ...
    Uint32 options = 0;      // ZEP_FILE_OPTION_...
    Uint32 permissions = 0;  // not read on this platform
    Uint32 reserved = 0;     // not read
};

struct ZEPFileLockParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 type = 0;  // ZEP_FILE_LOCK_EXCLUSIVE or ZEP_FILE_LOCK_SHARED
    Uint32 wait = 0;  // ZEP_FILE_LOCK_WAIT (poll every 100 ms until granted) or _NO_WAIT
    ZEPFileLockParam() = default;
    ZEPFileLockParam(Uint32 lockType, Uint32 lockWait) : type(lockType), wait(lockWait) {}
};

struct ZEPFileMapParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 length = 0;      // bytes from offset 0; 0 maps the whole file
    Uint32 protection = 0;  // ZEP_FILE_MAP_READ ...
    Uint32 reserved = 0;    // not read
};

struct ZEPFileReadParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 length = 0;
    Uint32 reserved = 0;  // not read
};

struct ZEPFileWriteParam {
    Uint32 version = ZEP_VERSION_WORD;
    const void* buffer = nullptr;
    Uint32 length = 0;
    Uint32 reserved = 0;  // not read
};

struct ZEPFileSeekParam {
    Uint32 version = ZEP_VERSION_WORD;
    Sint64 offset = 0;
    Uint32 origin = 0;  // ZEP_FILE_SEEK_START ...
};

struct ZEPFileSetSizeParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint64 size = 0;
    Uint32 reserved = 0;  // must be 0
};

class ZEP_EXPORT ZEPHFile {
public:
    // Nothing open: both handles all ones, no view.
    ZEPHFile() : file_(none()), mapping_(none()), view_(nullptr) {}

    // Opens or creates the file. Sharing is never narrowed: any process may open the same file
    // for anything meanwhile; lock() is the only exclusion. An object that held a file forgets
    // it (without closing it).
    Uint32 open(const ZEPFileOpenParam* param);
    // Closes the file and resets all three fields; unmap() first, the view isn't looked at.
    Uint32 close();

    Uint32 getSize(Uint64* size);
    // Moves the pointer; before the start lands at 0, beyond the end is refused
    // (ECF_FILE_SEEK_BEYOND_EOF). The new position goes to `newPosition` if given.
    Uint32 seek(const ZEPFileSeekParam* param, Uint64* newPosition = nullptr);
    // A read that gets fewer bytes than asked returns ECF_FILE_EOF, with what it got in the
    // buffer and its count in `bytesRead`.
    Uint32 read(const ZEPFileReadParam* param, void* buffer, Uint32* bytesRead);
    // ECF_FILE_INCOMPLETE_WRITE when the platform took less than all.
    Uint32 write(const ZEPFileWriteParam* param, Uint32* bytesWritten);
    // Cuts or extends the file. A pointer beyond the new end stays at the new end; one within it
    // stays where it was.
    Uint32 setSize(const ZEPFileSetSizeParam* param);
    Uint32 sync();

    // Byte 0, exclusive or shared. Without waiting a held lock gives ECF_FILE_LOCK (nothing is
    // logged); waiting polls every 100 ms without limit.
    Uint32 lock(const ZEPFileLockParam* param);
    // Unlocking what isn't locked is no error.
    Uint32 unlock();

    // Maps the file from offset 0. `address` in: the wished address or null; out: the view.
    // One mapping per object: a second map() forgets the first.
    Uint32 map(const ZEPFileMapParam* param, void** address);
    // Unmaps the view at `address`, or the object's view when it is null, and closes the mapping.
    Uint32 unmap(void* address = nullptr);

    // The platform's handle, for a caller that has to reach the platform itself.
    void* getFileHandle() const { return file_; }

private:
    static void* none() { return reinterpret_cast<void*>(~static_cast<uintptr_t>(0)); }

    void* file_;
    void* mapping_;
    void* view_;
};

static_assert(sizeof(ZEPHFile) == 3 * sizeof(void*), "ZEPHFile is three words");

#endif
