// zepos_core.cpp - last error, the errno translation, identities and MoveFileA.
#include "zepos.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace zepos {

namespace {

thread_local Uint32 t_lastError = 0;

// getpid and gettid are system calls on this libc; the frame and the log ask for them often, so
// each thread keeps its own answer. A forked child starts with its parent's cache, which the
// fork handler clears in the one thread the child has.
thread_local Uint32 t_threadId = 0;
Uint32 s_processId = 0;

void clearIdentityAfterFork() {
    t_threadId = 0;
    s_processId = 0;
}

pthread_once_t s_atforkOnce = PTHREAD_ONCE_INIT;
void registerAtfork() { pthread_atfork(nullptr, nullptr, clearIdentityAfterFork); }

}  // namespace

Uint32 GetLastError() { return t_lastError; }
void SetLastError(Uint32 error) { t_lastError = error; }

Uint32 TranslateErrno(int err, ErrnoUse use) {
    switch (err) {
        case 0: return ERROR_SUCCESS;
        case EPERM:
        case EACCES: return use == ErrnoUse::Lock ? ERROR_LOCK_VIOLATION : ERROR_ACCESS_DENIED;
        case ENOENT: return ERROR_FILE_NOT_FOUND;
        case ENOTDIR: return ERROR_PATH_NOT_FOUND;
        case ESRCH: return ERROR_INVALID_PARAMETER;
        case EINTR: return ERROR_CANCELLED;
        case EIO: return ERROR_IO_DEVICE;
        case ENXIO:
        case ENODEV:
        case ENOMEDIUM: return ERROR_NOT_READY;
        case E2BIG: return ERROR_BAD_ENVIRONMENT;
        case ENOEXEC: return ERROR_BAD_EXE_FORMAT;
        case EBADF: return ERROR_INVALID_HANDLE;
        case ECHILD: return ERROR_WAIT_NO_CHILDREN;
        case EAGAIN:
            // A held byte-range lock; elsewhere the kernel is out of something (processes,
            // threads, locked memory) for now.
            return use == ErrnoUse::Lock ? ERROR_LOCK_VIOLATION : ERROR_NOT_ENOUGH_MEMORY;
        case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
        case EFAULT: return ERROR_INVALID_ADDRESS;
        case EBUSY:
        case ETXTBSY: return ERROR_SHARING_VIOLATION;
        case EEXIST: return use == ErrnoUse::Create ? ERROR_ALREADY_EXISTS : ERROR_FILE_EXISTS;
        case EXDEV: return ERROR_NOT_SAME_DEVICE;
        case EISDIR: return ERROR_ACCESS_DENIED;  // the platform refuses a directory as a file
        case EINVAL:
        case EDOM:
        case ERANGE: return ERROR_INVALID_PARAMETER;
        // Out of descriptors: the error map knows "no more files" as the per-process limit.
        case ENFILE:
        case EMFILE: return ERROR_NO_MORE_FILES;
        case ENOTTY: return ERROR_INVALID_FUNCTION;
        case EFBIG: return ERROR_FILE_TOO_LARGE;
        case ENOSPC: return ERROR_DISK_FULL;
        case ESPIPE: return ERROR_SEEK_ON_DEVICE;
        case EROFS: return ERROR_WRITE_PROTECT;
        case EMLINK: return ERROR_TOO_MANY_LINKS;
        case EPIPE: return ERROR_BROKEN_PIPE;
        case EDEADLK: return ERROR_POSSIBLE_DEADLOCK;
        case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
        case ENOLCK: return ERROR_SHARING_BUFFER_EXCEEDED;
        case ENOSYS:
        case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
        case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
        case ELOOP: return ERROR_CANT_RESOLVE_FILENAME;
        case EOVERFLOW: return ERROR_ARITHMETIC_OVERFLOW;
        case EDQUOT: return ERROR_DISK_QUOTA_EXCEEDED;
        case EILSEQ: return ERROR_NO_UNICODE_TRANSLATION;
        case ETIMEDOUT: return ERROR_TIMEOUT;
        case ECANCELED: return ERROR_CANCELLED;
        default: return ERROR_GEN_FAILURE;
    }
}

void SetLastErrorFromErrno(ErrnoUse use) { t_lastError = TranslateErrno(errno, use); }

Uint32 NotFoundError(const char* path) {
    // The parent is everything before the last separator; a bare name lives in the current
    // directory, which exists.
    const char* slash = strrchr(path, ZEP_PATH_SEPARATOR);
    if (slash == nullptr || slash == path) return ERROR_FILE_NOT_FOUND;
    size_t n = static_cast<size_t>(slash - path);
    if (n >= 4096) return ERROR_PATH_NOT_FOUND;
    char parent[4096];
    memcpy(parent, path, n);
    parent[n] = 0;
    struct stat st;
    return stat(parent, &st) == 0 && S_ISDIR(st.st_mode) ? ERROR_FILE_NOT_FOUND
                                                          : ERROR_PATH_NOT_FOUND;
}

void GetLocalTime(SYSTEMTIME* st) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm t;
    localtime_r(&ts.tv_sec, &t);
    st->wYear = static_cast<Uint16>(t.tm_year + 1900);
    st->wMonth = static_cast<Uint16>(t.tm_mon + 1);
    st->wDayOfWeek = static_cast<Uint16>(t.tm_wday);
    st->wDay = static_cast<Uint16>(t.tm_mday);
    st->wHour = static_cast<Uint16>(t.tm_hour);
    st->wMinute = static_cast<Uint16>(t.tm_min);
    st->wSecond = static_cast<Uint16>(t.tm_sec);
    st->wMilliseconds = static_cast<Uint16>(ts.tv_nsec / 1000000);
}

Uint32 GetCurrentThreadId() {
    Uint32 tid = t_threadId;
    if (tid == 0) {
        pthread_once(&s_atforkOnce, registerAtfork);
        tid = t_threadId = static_cast<Uint32>(gettid());
    }
    return tid;
}

Uint32 GetCurrentProcessId() {
    Uint32 pid = __atomic_load_n(&s_processId, __ATOMIC_RELAXED);
    if (pid == 0) {
        pthread_once(&s_atforkOnce, registerAtfork);
        pid = static_cast<Uint32>(getpid());
        __atomic_store_n(&s_processId, pid, __ATOMIC_RELAXED);
    }
    return pid;
}

BOOL MoveFileA(const char* existingName, const char* newName) {
    if (renameat2(AT_FDCWD, existingName, AT_FDCWD, newName, RENAME_NOREPLACE) == 0) return 1;
    int err = errno;
    if (err == EINVAL) {
        // File systems without RENAME_NOREPLACE: a link claims the new name atomically for a
        // file; a directory can only be checked first.
        struct stat st;
        if (lstat(existingName, &st) == 0 && !S_ISDIR(st.st_mode)) {
            if (link(existingName, newName) == 0) {
                unlink(existingName);
                return 1;
            }
            err = errno;
        } else if (lstat(newName, &st) == 0) {
            err = EEXIST;
        } else if (rename(existingName, newName) == 0) {
            return 1;
        } else {
            err = errno;
        }
    }
    if (err == ENOENT) {
        struct stat st;
        SetLastError(NotFoundError(lstat(existingName, &st) == 0 ? newName : existingName));
    } else {
        SetLastError(TranslateErrno(err, ErrnoUse::Create));
    }
    return 0;
}

}  // namespace zepos
