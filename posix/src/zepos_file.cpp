// zepos_file.cpp - file handles, byte-range locks, file mappings and views on Linux.
#include "zepos.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zepos {

int OfdLock(int fd, short type, Uint64 offset, Uint64 length, bool wait) {
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = static_cast<off_t>(offset);
    fl.l_len = static_cast<off_t>(length);
    int rc;
    do {
        rc = fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &fl);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

namespace {

// A handle holds few ranges at once (the library's own use is byte 0 alone); a fixed table
// keeps the lock path free of allocation.
constexpr int kMaxRanges = 8;

struct LockRange {
    Uint64 offset;
    Uint64 length;  // 0: the slot is free
    Uint32 count;   // identical shared ranges stack
    bool exclusive;
    bool pending;  // a waiting LockFileEx has claimed it and is in the kernel
};

struct FileRecord {
    HandleRecord head;
    int fd;
    // A second description of the same file, opened on demand for the lock type that the
    // descriptor's mode can't carry (F_WRLCK needs write, F_RDLCK read; the platform locks
    // either way on any handle with read or write access).
    int altFd;
    Uint32 access;    // GENERIC_READ | GENERIC_WRITE, as asked
    int deleteDirFd;  // delete on close: the directory of the name, else -1
    const char* deleteName;
    pthread_mutex_t rangeMutex;
    LockRange ranges[kMaxRanges];
    // What the layer knows without asking the kernel again: the file pointer after this handle's
    // last seek, and the size that a seek to the end found, for the size asked next. Any other
    // call on the handle forgets both (-1). The log's cycle (seek to the end under its lock, ask
    // the size, seek there) then costs one system call, not three.
    Sint64 knownPosition;
    Sint64 knownEnd;
};

inline void forget(FileRecord* f) {
    __atomic_store_n(&f->knownPosition, Sint64{-1}, __ATOMIC_RELAXED);
    __atomic_store_n(&f->knownEnd, Sint64{-1}, __ATOMIC_RELAXED);
}

struct MappingRecord {
    HandleRecord head;
    int fd;  // a duplicate: the mapping outlives the file handle, as on the platform
    Uint32 protect;
    Uint64 size;
};

// Views of both kinds of mapping by base address, for UnmapViewOfFile, which is given the
// address alone; a view of a named block holds a reference on it.
struct View {
    void* base;
    size_t length;
    NamedObject* object;
    View* next;
};
pthread_mutex_t s_viewMutex = PTHREAD_MUTEX_INITIALIZER;
View* s_views = nullptr;

size_t pageSize() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

BOOL fail(Uint32 error) {
    SetLastError(error);
    return 0;
}

BOOL failErrno(ErrnoUse use = ErrnoUse::General) {
    SetLastErrorFromErrno(use);
    return 0;
}

FileRecord* fileOf(HANDLE h) {
    return reinterpret_cast<FileRecord*>(HandleOfKind(h, HANDLE_KIND_FILE));
}

// ---- locks

bool overlaps(const LockRange& r, Uint64 offset, Uint64 length) {
    return r.length != 0 && offset < r.offset + r.length && r.offset < offset + length;
}

// The descriptor that can carry a lock of this type, opening the second description if the
// handle's own mode can't. -1 with the last error set if the file refuses that mode.
int lockFd(FileRecord* f, bool exclusive) {
    const Uint32 needs = exclusive ? GENERIC_WRITE : GENERIC_READ;
    if (f->access & needs) return f->fd;
    if (f->altFd < 0) {
        char self[32];
        snprintf(self, sizeof self, "/proc/self/fd/%d", f->fd);
        f->altFd = open(self, (exclusive ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
        if (f->altFd < 0) {
            SetLastErrorFromErrno();
            return -1;
        }
    }
    return f->altFd;
}

// Releases the parts of [offset, offset+length) that no other range of the handle still covers,
// so that a shared range overlapping another keeps its bytes locked. Only shared ranges ever
// overlap within a handle. Called with the range mutex held.
void releaseUncovered(FileRecord* f, int skip, Uint64 offset, Uint64 length) {
    const Uint64 end = offset + length;
    Uint64 at = offset;
    while (at < end) {
        // The covered piece that starts first at or after `at`.
        Uint64 coverStart = end, coverEnd = end;
        for (int i = 0; i < kMaxRanges; ++i) {
            const LockRange& r = f->ranges[i];
            if (i == skip || r.length == 0 || r.pending || !overlaps(r, at, end - at)) continue;
            Uint64 s = r.offset > at ? r.offset : at;
            if (s < coverStart || (s == coverStart && r.offset + r.length > coverEnd)) {
                coverStart = s;
                coverEnd = r.offset + r.length;
            }
        }
        if (coverStart > at) {
            // Both descriptors: the piece may have been taken through either.
            OfdLock(f->fd, F_UNLCK, at, coverStart - at, false);
            if (f->altFd >= 0) OfdLock(f->altFd, F_UNLCK, at, coverStart - at, false);
        }
        at = coverEnd;
    }
}

// ---- handle kinds

BOOL closeFile(HandleRecord* h) {
    FileRecord* f = reinterpret_cast<FileRecord*>(h);
    if (f->fd >= 0) {
        // The description may live on in a mapping's duplicate or a forked child; the handle's
        // locks end with the handle all the same.
        bool holds = false;
        for (const LockRange& r : f->ranges) holds |= r.length != 0;
        if (holds) {
            OfdLock(f->fd, F_UNLCK, 0, 0, false);  // length 0: the whole file
            if (f->altFd >= 0) OfdLock(f->altFd, F_UNLCK, 0, 0, false);
        }
        if (f->deleteDirFd >= 0) {
            // Only while the name is still this file: another may have taken it since.
            struct stat mine, named;
            if (fstat(f->fd, &mine) == 0 &&
                fstatat(f->deleteDirFd, f->deleteName, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                mine.st_dev == named.st_dev && mine.st_ino == named.st_ino)
                unlinkat(f->deleteDirFd, f->deleteName, 0);
            close(f->deleteDirFd);
        }
        if (f->altFd >= 0) close(f->altFd);
        // close() reports EIO (data that never reached the disk) after the descriptor is gone.
        // The caller hears of it and keeps its handle, so the record stays, empty, and the next
        // close frees it rather than touching freed memory. EINTR is no failure on this kernel.
        if (close(f->fd) != 0 && errno != EINTR) {
            const int err = errno;
            f->fd = f->altFd = f->deleteDirFd = -1;
            memset(f->ranges, 0, sizeof f->ranges);
            return fail(TranslateErrno(err));
        }
    }
    pthread_mutex_destroy(&f->rangeMutex);
    return FreeRecord(&f->head);
}

BOOL closeMapping(HandleRecord* h) {
    close(reinterpret_cast<MappingRecord*>(h)->fd);
    return FreeRecord(h);
}

}  // namespace

// ---- the handle table
//
// A handle value is a slot of this table and the slot's generation, not the record's address:
// a record's memory is reused after its close, so an address would name whatever was opened
// there since. Closing a handle advances its slot's generation, so a stale copy of it names
// nothing and fails with 6, whatever was opened meanwhile. Slots come in chunks that are never
// freed or moved, so a lookup takes no lock: chunk, generation, record, with acquire loads.
namespace {

constexpr Uint32 kChunkSlots = 1024;
constexpr Uint32 kMaxChunks = 16384;  // 16 million handles open at once

struct Slot {
    HandleRecord* record;  // null while free or while its close runs
    Uint32 generation;     // odd while the slot holds a handle, even while free
    Uint32 nextFree;       // the free list, by index; 0 ends it
};

Slot* s_chunks[kMaxChunks];
pthread_mutex_t s_tableMutex = PTHREAD_MUTEX_INITIALIZER;
Uint32 s_slotsMade = 1;  // slot 0 is never used: index 0 ends the free list
Uint32 s_freeHead = 0;

Slot* slotAt(Uint32 index) {
    Slot* chunk = __atomic_load_n(&s_chunks[index / kChunkSlots], __ATOMIC_ACQUIRE);
    return chunk == nullptr ? nullptr : &chunk[index % kChunkSlots];
}

// Index in the low 32 bits, generation in the high: never null, never all ones.
HANDLE handleValue(Uint32 index, Uint32 generation) {
    return reinterpret_cast<HANDLE>((static_cast<uintptr_t>(generation) << 32) | index);
}

// The slot a handle names while it is open, or null.
Slot* slotOf(HANDLE handle) {
    const uintptr_t v = reinterpret_cast<uintptr_t>(handle);
    const Uint32 index = static_cast<Uint32>(v), generation = static_cast<Uint32>(v >> 32);
    if (index == 0 || index >= kMaxChunks * kChunkSlots || (generation & 1) == 0) return nullptr;
    Slot* slot = slotAt(index);
    if (slot == nullptr || __atomic_load_n(&slot->generation, __ATOMIC_ACQUIRE) != generation)
        return nullptr;
    return slot;
}

// The open record a handle names, or null with last error 6.
HandleRecord* recordOf(HANDLE handle) {
    Slot* slot = slotOf(handle);
    HandleRecord* r = slot ? __atomic_load_n(&slot->record, __ATOMIC_ACQUIRE) : nullptr;
    if (r == nullptr || r->magic != HANDLE_MAGIC) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return r;
}

}  // namespace

HANDLE HandleFor(HandleRecord* record) {
    pthread_mutex_lock(&s_tableMutex);
    Uint32 index = s_freeHead;
    Slot* slot;
    if (index != 0) {
        slot = slotAt(index);
        s_freeHead = slot->nextFree;
    } else {
        index = s_slotsMade;
        if (index >= kMaxChunks * kChunkSlots) {
            pthread_mutex_unlock(&s_tableMutex);
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        if (s_chunks[index / kChunkSlots] == nullptr) {
            Slot* chunk = static_cast<Slot*>(calloc(kChunkSlots, sizeof(Slot)));
            if (chunk == nullptr) {
                pthread_mutex_unlock(&s_tableMutex);
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            }
            __atomic_store_n(&s_chunks[index / kChunkSlots], chunk, __ATOMIC_RELEASE);
        }
        ++s_slotsMade;
        slot = slotAt(index);
    }
    const Uint32 generation = slot->generation + 1;  // odd: in use
    __atomic_store_n(&slot->record, record, __ATOMIC_RELEASE);
    __atomic_store_n(&slot->generation, generation, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&s_tableMutex);
    return handleValue(index, generation);
}

HANDLE HandleOrClose(HandleRecord* record) {
    HANDLE h = HandleFor(record);
    if (h == nullptr) {
        record->close(record);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return h;
}

HandleRecord* HandleOfKind(HANDLE handle, Uint32 kind) {
    HandleRecord* r = recordOf(handle);
    if (r != nullptr && r->kind != kind) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return r;
}

Uint32 WaitForSingleObject(HANDLE handle, Uint32 milliseconds) {
    HandleRecord* r = recordOf(handle);
    if (r == nullptr || r->wait == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    return r->wait(r, milliseconds);
}

BOOL FreeRecord(HandleRecord* record) {
    record->magic = 0;
    free(record);
    return 1;
}

BOOL CloseHandle(HANDLE handle) {
    Slot* slot = slotOf(handle);
    HandleRecord* r = slot ? __atomic_load_n(&slot->record, __ATOMIC_ACQUIRE) : nullptr;
    // Taken out of the slot first: of two threads closing one handle, one closes it.
    if (r == nullptr || r->magic != HANDLE_MAGIC || r->close == nullptr ||
        !__atomic_compare_exchange_n(&slot->record, &r, static_cast<HandleRecord*>(nullptr), false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return fail(ERROR_INVALID_HANDLE);
    if (!r->close(r)) {
        // The record stays for the next close (zepos_file.h): the handle names it still.
        const Uint32 error = GetLastError();
        __atomic_store_n(&slot->record, r, __ATOMIC_RELEASE);
        return fail(error);
    }
    pthread_mutex_lock(&s_tableMutex);
    __atomic_store_n(&slot->generation, slot->generation + 1, __ATOMIC_RELEASE);  // even: free
    const uintptr_t v = reinterpret_cast<uintptr_t>(handle);
    slot->nextFree = s_freeHead;
    s_freeHead = static_cast<Uint32>(v);
    pthread_mutex_unlock(&s_tableMutex);
    return 1;
}

// ---- CreateFileA

HANDLE CreateFileA(const char* fileName, Uint32 desiredAccess, Uint32 shareMode, void*,
                   Uint32 creationDisposition, Uint32 flagsAndAttributes, HANDLE) {
    if (fileName == nullptr ||
        (shareMode & ~(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (fileName[0] == 0) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const Uint32 rw = desiredAccess & (GENERIC_READ | GENERIC_WRITE);
    int mode;
    switch (rw) {
        case GENERIC_READ:
            mode = O_RDONLY;
            break;
        case GENERIC_WRITE:
            mode = O_WRONLY;
            break;
        case GENERIC_READ | GENERIC_WRITE:
            mode = O_RDWR;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
    }
    mode |= O_CLOEXEC;
    if (flagsAndAttributes & FILE_FLAG_WRITE_THROUGH) mode |= O_DSYNC;

    // How to open a file that is there, and whether the disposition may create one when it
    // isn't. CREATE_ALWAYS and OPEN_ALWAYS report whether they met an existing file; opening that
    // first costs one call in the common case (the log reopens its file for every record).
    int existing = mode;
    bool mayCreate = false;
    switch (creationDisposition) {
        case CREATE_NEW:
            existing = -1, mayCreate = true;
            break;
        case CREATE_ALWAYS:
            existing = mode | O_TRUNC, mayCreate = true;
            break;
        case OPEN_EXISTING:
            break;
        case OPEN_ALWAYS:
            mayCreate = true;
            break;
        case TRUNCATE_EXISTING:
            if (!(rw & GENERIC_WRITE)) {
                SetLastError(ERROR_INVALID_PARAMETER);
                return INVALID_HANDLE_VALUE;
            }
            existing = mode | O_TRUNC;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
    }
    bool existed = false;
    int fd = -1;
    // A name that appears or vanishes between the two attempts sends us round again.
    for (int round = 0; round < 64; ++round) {
        if (existing >= 0) {
            fd = open(fileName, existing);
            if (fd >= 0) {
                existed = true;
                break;
            }
            if (errno != ENOENT || !mayCreate) break;
        }
        fd = open(fileName, mode | O_CREAT | O_EXCL, 0666);
        if (fd >= 0 || errno != EEXIST || existing < 0) break;
    }
    if (fd < 0) {
        if (errno == ENOENT)
            SetLastError(NotFoundError(fileName));
        else
            SetLastErrorFromErrno();
        return INVALID_HANDLE_VALUE;
    }
    // Opening a directory for writing fails in the kernel already; for reading it succeeds, and
    // the platform refuses a directory as a file.
    if (rw == GENERIC_READ) {
        struct stat st;
        if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
            close(fd);
            SetLastError(ERROR_ACCESS_DENIED);
            return INVALID_HANDLE_VALUE;
        }
    }

    const char* base = nullptr;
    size_t nameLength = 0;
    int dirFd = -1;
    if (flagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) {
        // The directory is held open so the name is found again even if the working directory
        // changes before the close.
        const char* slash = strrchr(fileName, '/');
        base = slash ? slash + 1 : fileName;
        nameLength = strlen(base);
        if (slash == nullptr) {
            dirFd = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
        } else if (slash == fileName) {
            dirFd = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
        } else {
            char* dir = strndup(fileName, static_cast<size_t>(slash - fileName));
            dirFd = dir ? open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
            free(dir);
        }
        if (dirFd < 0) {
            SetLastErrorFromErrno();
            close(fd);
            return INVALID_HANDLE_VALUE;
        }
    }

    FileRecord* f = static_cast<FileRecord*>(malloc(sizeof(FileRecord) + nameLength + 1));
    if (f == nullptr) {
        if (dirFd >= 0) close(dirFd);
        close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    memset(f, 0, sizeof(FileRecord));
    f->head.magic = HANDLE_MAGIC;
    f->head.kind = HANDLE_KIND_FILE;
    f->head.close = closeFile;
    f->head.wait = nullptr;
    f->fd = fd;
    f->altFd = -1;
    f->access = rw;
    f->deleteDirFd = dirFd;
    forget(f);
    if (dirFd >= 0) {
        char* name = reinterpret_cast<char*>(f + 1);
        memcpy(name, base, nameLength + 1);
        f->deleteName = name;
    }
    pthread_mutex_init(&f->rangeMutex, nullptr);
    HANDLE h = HandleFor(&f->head);
    if (h == nullptr) {
        closeFile(&f->head);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    SetLastError(existed && mayCreate ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return h;
}

Uint32 GetFileAttributesA(const char* fileName) {
    struct stat st;
    if (fileName == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (fileName[0] == 0) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (stat(fileName, &st) != 0) {
        if (errno == ENOENT)
            SetLastError(NotFoundError(fileName));
        else
            SetLastErrorFromErrno();
        return INVALID_FILE_ATTRIBUTES;
    }
    Uint32 attributes = 0;
    if (S_ISDIR(st.st_mode)) attributes |= FILE_ATTRIBUTE_DIRECTORY;
    if ((st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) attributes |= FILE_ATTRIBUTE_READONLY;
    return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

// ---- size, pointer, data

Uint32 GetFileSize(HANDLE file, Uint32* fileSizeHigh) {
    FileRecord* f = fileOf(file);
    if (f == nullptr) return INVALID_FILE_SIZE;
    Sint64 known = __atomic_load_n(&f->knownEnd, __ATOMIC_RELAXED);
    if (known < 0) {
        struct stat st;
        if (fstat(f->fd, &st) != 0) {
            SetLastErrorFromErrno();
            return INVALID_FILE_SIZE;
        }
        known = st.st_size;
    }
    const Uint64 size = static_cast<Uint64>(known);
    if (fileSizeHigh) *fileSizeHigh = static_cast<Uint32>(size >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<Uint32>(size);
}

bool SeekArguments(Sint32 distanceLow, const Sint32* distanceHigh, Uint32 moveMethod, int* whence,
                   Sint64* distance) {
    switch (moveMethod) {
        case FILE_BEGIN:
            *whence = SEEK_SET;
            break;
        case FILE_CURRENT:
            *whence = SEEK_CUR;
            break;
        case FILE_END:
            *whence = SEEK_END;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return false;
    }
    *distance =
        distanceHigh
            ? static_cast<Sint64>((static_cast<Uint64>(static_cast<Uint32>(*distanceHigh)) << 32) |
                                  static_cast<Uint32>(distanceLow))
            : static_cast<Sint64>(distanceLow);
    return true;
}

Uint32 SeekResult(Sint64 at, Sint32* distanceHigh) {
    if (at < 0) {
        // lseek says EINVAL for a position before the start, the platform has its own number.
        SetLastError(errno == EINVAL ? ERROR_NEGATIVE_SEEK : TranslateErrno(errno));
        return INVALID_SET_FILE_POINTER;
    }
    const Uint64 position = static_cast<Uint64>(at);
    if (distanceHigh) *distanceHigh = static_cast<Sint32>(position >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<Uint32>(position);
}

Uint32 SetFilePointer(HANDLE file, Sint32 distanceLow, Sint32* distanceHigh, Uint32 moveMethod) {
    FileRecord* f = fileOf(file);
    int whence;
    Sint64 distance;
    if (f == nullptr || !SeekArguments(distanceLow, distanceHigh, moveMethod, &whence, &distance))
        return INVALID_SET_FILE_POINTER;
    if (whence == SEEK_SET && distance >= 0 &&
        distance == __atomic_load_n(&f->knownPosition, __ATOMIC_RELAXED))
        return SeekResult(distance, distanceHigh);  // already there
    forget(f);
    const off_t at = lseek(f->fd, static_cast<off_t>(distance), whence);
    if (at >= 0) {
        __atomic_store_n(&f->knownPosition, static_cast<Sint64>(at), __ATOMIC_RELAXED);
        if (whence == SEEK_END && distance == 0)
            __atomic_store_n(&f->knownEnd, static_cast<Sint64>(at), __ATOMIC_RELAXED);
    }
    return SeekResult(at, distanceHigh);
}

BOOL SetEndOfFile(HANDLE file) {
    FileRecord* f = fileOf(file);
    if (f == nullptr) return 0;
    if (!(f->access & GENERIC_WRITE)) return fail(ERROR_ACCESS_DENIED);
    forget(f);
    off_t at = lseek(f->fd, 0, SEEK_CUR);
    if (at < 0 || ftruncate(f->fd, at) != 0) return failErrno();
    return 1;
}

namespace {

// The platform moves everything asked up to the end of the file; read(2) and write(2) may stop
// early (a signal, a very large request), so go on until the request is met, the end is reached,
// or an error comes. The count of what went through is kept either way.
template <class Buffer, class Transfer>
BOOL transferAll(HANDLE file, Uint32 access, Buffer* buffer, Uint32 length, Uint32* moved,
                 OVERLAPPED* overlapped, Transfer transfer) {
    if (moved) *moved = 0;
    FileRecord* f = fileOf(file);
    if (f == nullptr) return 0;
    if (overlapped != nullptr || moved == nullptr) return fail(ERROR_INVALID_PARAMETER);
    if (!(f->access & access)) return fail(ERROR_ACCESS_DENIED);
    forget(f);
    Uint32 done = 0;
    while (done < length) {
        ssize_t n = transfer(f->fd, buffer + done, length - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            *moved = done;
            return failErrno();
        }
        if (n == 0) break;
        done += static_cast<Uint32>(n);
    }
    *moved = done;
    return 1;
}

}  // namespace

BOOL ReadFile(HANDLE file, void* buffer, Uint32 toRead, Uint32* bytesRead, OVERLAPPED* overlapped) {
    return transferAll(file, GENERIC_READ, static_cast<char*>(buffer), toRead, bytesRead,
                       overlapped, ::read);
}

BOOL WriteFile(HANDLE file, const void* buffer, Uint32 toWrite, Uint32* bytesWritten,
               OVERLAPPED* overlapped) {
    return transferAll(file, GENERIC_WRITE, static_cast<const char*>(buffer), toWrite, bytesWritten,
                       overlapped, ::write);
}

BOOL FlushFileBuffers(HANDLE file) {
    FileRecord* f = fileOf(file);
    if (f == nullptr) return 0;
    if (!(f->access & GENERIC_WRITE)) return fail(ERROR_ACCESS_DENIED);
    if (fsync(f->fd) != 0) return failErrno();
    return 1;
}

// ---- byte-range locks

namespace {

// The range of a lock call, or false (last error 87) when it can't be locked here.
bool lockRange(Uint32 bytesLow, Uint32 bytesHigh, const OVERLAPPED* overlapped, Uint64* offset,
               Uint64* length) {
    if (overlapped == nullptr) return false;
    *offset = (static_cast<Uint64>(overlapped->OffsetHigh) << 32) | overlapped->Offset;
    *length = (static_cast<Uint64>(bytesHigh) << 32) | bytesLow;
    // The kernel's range is a signed offset and a length where 0 means "to the end".
    const Uint64 limit = static_cast<Uint64>(INT64_MAX);
    return *length != 0 && *offset <= limit && *length <= limit - *offset;
}

}  // namespace

BOOL LockFileEx(HANDLE file, Uint32 flags, Uint32 reserved, Uint32 bytesLow, Uint32 bytesHigh,
                OVERLAPPED* overlapped) {
    FileRecord* f = fileOf(file);
    if (f == nullptr) return 0;
    Uint64 offset, length;
    if (reserved != 0 || !lockRange(bytesLow, bytesHigh, overlapped, &offset, &length))
        return fail(ERROR_INVALID_PARAMETER);
    const bool exclusive = (flags & LOCKFILE_EXCLUSIVE_LOCK) != 0;
    const bool wait = (flags & LOCKFILE_FAIL_IMMEDIATELY) == 0;

    pthread_mutex_lock(&f->rangeMutex);
    // Against the handle's own ranges the platform's rules apply before the kernel is asked:
    // the kernel would merge or convert them, since they belong to one description.
    int slot = -1, same = -1;
    for (int i = 0; i < kMaxRanges; ++i) {
        LockRange& r = f->ranges[i];
        if (r.length == 0) {
            if (slot < 0) slot = i;
            continue;
        }
        if (!overlaps(r, offset, length)) continue;
        if (exclusive || r.exclusive || r.pending) {
            pthread_mutex_unlock(&f->rangeMutex);
            return fail(ERROR_LOCK_VIOLATION);
        }
        if (r.offset == offset && r.length == length) same = i;
    }
    if (same >= 0) {
        // Already held shared through this handle: the platform counts it again.
        ++f->ranges[same].count;
        pthread_mutex_unlock(&f->rangeMutex);
        return 1;
    }
    if (slot < 0) {
        pthread_mutex_unlock(&f->rangeMutex);
        return fail(ERROR_SHARING_BUFFER_EXCEEDED);
    }
    const int fd = lockFd(f, exclusive);
    if (fd < 0) {
        pthread_mutex_unlock(&f->rangeMutex);
        return 0;
    }
    LockRange& r = f->ranges[slot];
    const short type = exclusive ? F_WRLCK : F_RDLCK;
    if (OfdLock(fd, type, offset, length, false) == 0) {
        r = LockRange{offset, length, 1, exclusive, false};
        pthread_mutex_unlock(&f->rangeMutex);
        return 1;
    }
    int err = errno;
    if (!wait || (err != EAGAIN && err != EACCES)) {
        pthread_mutex_unlock(&f->rangeMutex);
        return fail(TranslateErrno(err, ErrnoUse::Lock));
    }
    // Waiting: the slot is claimed so that other threads of the handle see the range, and the
    // mutex is free while the kernel waits.
    r = LockRange{offset, length, 1, exclusive, true};
    pthread_mutex_unlock(&f->rangeMutex);
    int rc = OfdLock(fd, type, offset, length, true);
    err = errno;
    pthread_mutex_lock(&f->rangeMutex);
    if (rc == 0)
        r.pending = false;
    else
        r.length = 0;
    pthread_mutex_unlock(&f->rangeMutex);
    return rc == 0 ? 1 : fail(TranslateErrno(err, ErrnoUse::Lock));
}

BOOL UnlockFileEx(HANDLE file, Uint32 reserved, Uint32 bytesLow, Uint32 bytesHigh,
                  OVERLAPPED* overlapped) {
    FileRecord* f = fileOf(file);
    if (f == nullptr) return 0;
    // Once the lock is gone others may change the size.
    __atomic_store_n(&f->knownEnd, Sint64{-1}, __ATOMIC_RELAXED);
    Uint64 offset, length;
    if (reserved != 0 || overlapped == nullptr) return fail(ERROR_INVALID_PARAMETER);
    if (!lockRange(bytesLow, bytesHigh, overlapped, &offset, &length))
        return fail(ERROR_NOT_LOCKED);
    pthread_mutex_lock(&f->rangeMutex);
    for (int i = 0; i < kMaxRanges; ++i) {
        LockRange& r = f->ranges[i];
        if (r.length == 0 || r.pending || r.offset != offset || r.length != length) continue;
        if (--r.count == 0) {
            r.length = 0;
            releaseUncovered(f, i, offset, length);
        }
        pthread_mutex_unlock(&f->rangeMutex);
        return 1;
    }
    pthread_mutex_unlock(&f->rangeMutex);
    return fail(ERROR_NOT_LOCKED);
}

// ---- mappings and views

HANDLE CreateFileMappingA(HANDLE file, void* securityAttributes, Uint32 protect,
                          Uint32 maximumSizeHigh, Uint32 maximumSizeLow, const char* name) {
    if (file == INVALID_HANDLE_VALUE)
        return CreateNamedFileMappingA(securityAttributes, protect, maximumSizeHigh, maximumSizeLow,
                                       name);
    if (name != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    FileRecord* f = fileOf(file);
    if (f != nullptr) forget(f);  // a mapping may extend the file
    if (f == nullptr) return nullptr;
    Uint32 needs;
    switch (protect) {
        case PAGE_READONLY:
        case PAGE_WRITECOPY:
            needs = GENERIC_READ;
            break;
        case PAGE_READWRITE:
            needs = GENERIC_READ | GENERIC_WRITE;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
    }
    if ((f->access & needs) != needs) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    struct stat st;
    if (fstat(f->fd, &st) != 0) {
        SetLastErrorFromErrno();
        return nullptr;
    }
    Uint64 size = (static_cast<Uint64>(maximumSizeHigh) << 32) | maximumSizeLow;
    const Uint64 fileSize = static_cast<Uint64>(st.st_size);
    if (size == 0) {
        if (fileSize == 0) {
            SetLastError(ERROR_FILE_INVALID);
            return nullptr;
        }
        size = fileSize;
    } else if (size > fileSize) {
        // A writable mapping grows the file to its size; a read-only one has no right to.
        if (protect != PAGE_READWRITE) {
            SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        if (size > static_cast<Uint64>(INT64_MAX) ||
            ftruncate(f->fd, static_cast<off_t>(size)) != 0) {
            SetLastErrorFromErrno();
            return nullptr;
        }
    }
    MappingRecord* m = static_cast<MappingRecord*>(malloc(sizeof(MappingRecord)));
    if (m == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    m->fd = fcntl(f->fd, F_DUPFD_CLOEXEC, 0);
    if (m->fd < 0) {
        SetLastErrorFromErrno();
        free(m);
        return nullptr;
    }
    m->head.magic = HANDLE_MAGIC;
    m->head.kind = HANDLE_KIND_FILE_MAPPING;
    m->head.close = closeMapping;
    m->head.wait = nullptr;
    m->protect = protect;
    m->size = size;
    HANDLE h = HandleOrClose(&m->head);
    if (h != nullptr) SetLastError(ERROR_SUCCESS);
    return h;
}

void* MapViewOfFileEx(HANDLE mapping, Uint32 desiredAccess, Uint32 offsetHigh, Uint32 offsetLow,
                      size_t bytes, void* baseAddress) {
    if (IsNamedFileMapping(mapping))
        return MapNamedViewOfFileEx(mapping, desiredAccess, offsetHigh, offsetLow, bytes,
                                    baseAddress);
    MappingRecord* m =
        reinterpret_cast<MappingRecord*>(HandleOfKind(mapping, HANDLE_KIND_FILE_MAPPING));
    if (m == nullptr) return nullptr;
    int prot, flags = MAP_SHARED;
    switch (desiredAccess) {
        case FILE_MAP_READ:
            prot = PROT_READ;
            break;
        case FILE_MAP_WRITE:
        case FILE_MAP_WRITE | FILE_MAP_READ:
            if (m->protect != PAGE_READWRITE) {
                SetLastError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            prot = PROT_READ | PROT_WRITE;
            break;
        case FILE_MAP_COPY:
            prot = PROT_READ | PROT_WRITE;
            flags = MAP_PRIVATE;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
    }
    const Uint64 offset = (static_cast<Uint64>(offsetHigh) << 32) | offsetLow;
    return MapView(m->fd, 0, m->size, offset, bytes, prot, flags, baseAddress, nullptr);
}

void* MapView(int fd, Uint64 fdOffset, Uint64 size, Uint64 offset, size_t bytes, int prot,
              int flags, void* baseAddress, NamedObject* object) {
    if (offset % pageSize() != 0) {
        SetLastError(ERROR_MAPPED_ALIGNMENT);
        return nullptr;
    }
    if (offset >= size || bytes > size - offset) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    const size_t length = bytes ? bytes : static_cast<size_t>(size - offset);
    if (baseAddress != nullptr) {
        if (reinterpret_cast<uintptr_t>(baseAddress) % pageSize() != 0) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return nullptr;
        }
        flags |= MAP_FIXED_NOREPLACE;
    }
    View* view = static_cast<View*>(malloc(sizeof(View)));
    if (view == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    void* at = mmap(baseAddress, length, prot, flags, fd, static_cast<off_t>(fdOffset + offset));
    if (at == MAP_FAILED) {
        // EEXIST: something lives at the wished address.
        SetLastError(errno == EEXIST ? ERROR_INVALID_ADDRESS : TranslateErrno(errno));
        free(view);
        return nullptr;
    }
    if (baseAddress != nullptr && at != baseAddress) {
        // A kernel that doesn't know MAP_FIXED_NOREPLACE takes the address as a hint only.
        munmap(at, length);
        free(view);
        SetLastError(ERROR_INVALID_ADDRESS);
        return nullptr;
    }
    if (object != nullptr) NamedRetain(object);
    view->base = at;
    view->length = length;
    view->object = object;
    pthread_mutex_lock(&s_viewMutex);
    view->next = s_views;
    s_views = view;
    pthread_mutex_unlock(&s_viewMutex);
    SetLastError(ERROR_SUCCESS);
    return at;
}

BOOL UnmapViewOfFile(const void* baseAddress) {
    pthread_mutex_lock(&s_viewMutex);
    View** link = &s_views;
    while (*link != nullptr && (*link)->base != baseAddress) link = &(*link)->next;
    View* view = *link;
    if (view != nullptr) *link = view->next;
    pthread_mutex_unlock(&s_viewMutex);
    if (view == nullptr) return fail(ERROR_INVALID_ADDRESS);
    int rc = munmap(view->base, view->length);
    int err = errno;
    if (view->object != nullptr) NamedClose(view->object);
    free(view);
    if (rc != 0) return fail(TranslateErrno(err));
    return 1;
}

}  // namespace zepos
