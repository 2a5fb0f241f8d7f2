// zepos_proc.cpp - debugger calls, pointer tests, the console test and the descriptor calls of
// the primitive file. Everything here is system calls on the stack: no allocation, no lock.
#include "zepos.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace zepos {

namespace {

constexpr uintptr_t kPage = 4096;  // the smallest page; larger pages are tested page by page too

int openReadOnly(const char* path) {
    int fd;
    do fd = open(path, O_RDONLY | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t readSome(int fd, void* buffer, size_t size) {
    ssize_t n;
    do n = ::read(fd, buffer, size);
    while (n < 0 && errno == EINTR);
    return n;
}

// ---- reading /proc/self/maps line by line without allocation. Only the head of each line
// (addresses and permissions) is kept; the rest, a path of any length, is skipped.

struct Mapping {
    uintptr_t start, end;
    bool read, write;
};

class MapsReader {
public:
    MapsReader() : fd_(openReadOnly("/proc/self/maps")) {}
    ~MapsReader() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return fd_ >= 0; }

    // The next mapping, false at the end (or on a read error).
    bool next(Mapping* m) {
        char head[64];
        size_t used = 0;
        for (;;) {
            int c = nextByte();
            if (c < 0) return false;
            if (c == '\n') break;
            if (used < sizeof head - 1) head[used++] = static_cast<char>(c);
        }
        head[used] = 0;
        return parse(head, m) || next(m);
    }

private:
    int nextByte() {
        if (at_ == filled_) {
            ssize_t n = readSome(fd_, buffer_, sizeof buffer_);
            if (n <= 0) return -1;
            at_ = 0;
            filled_ = static_cast<size_t>(n);
        }
        return static_cast<unsigned char>(buffer_[at_++]);
    }

    static bool hex(const char*& s, uintptr_t* value) {
        uintptr_t v = 0;
        const char* begin = s;
        for (;; ++s) {
            char c = *s;
            if (c >= '0' && c <= '9')
                v = v * 16 + static_cast<uintptr_t>(c - '0');
            else if (c >= 'a' && c <= 'f')
                v = v * 16 + static_cast<uintptr_t>(c - 'a' + 10);
            else
                break;
        }
        *value = v;
        return s != begin;
    }

    // "start-end perms ..."
    static bool parse(const char* s, Mapping* m) {
        if (!hex(s, &m->start) || *s++ != '-' || !hex(s, &m->end) || *s++ != ' ') return false;
        if (strlen(s) < 2) return false;
        m->read = s[0] == 'r';
        m->write = s[1] == 'w';
        return true;
    }

    int fd_;
    char buffer_[1024];
    size_t at_ = 0, filled_ = 0;
};

// Whether every byte of [first, last] lies in mappings with the permission, without gaps.
bool mappingsAllow(uintptr_t first, uintptr_t last, bool write) {
    MapsReader maps;
    if (!maps.ok()) return false;
    uintptr_t cursor = first;
    Mapping m;
    while (maps.next(&m)) {
        if (m.end <= cursor) continue;
        if (m.start > cursor) return false;  // a gap
        if (!(write ? m.write : m.read)) return false;
        if (m.end - 1 >= last) return true;
        cursor = m.end;
    }
    return false;
}

// 1 if the kernel could read one byte of each page of [first, last], 0 if it couldn't, -1 if it
// refused the call itself.
int kernelCanRead(uintptr_t first, uintptr_t last) {
    constexpr int kBatch = 64;
    struct iovec remote[kBatch];
    char sink[kBatch];
    struct iovec local = {sink, 0};
    const pid_t self = getpid();
    uintptr_t page = first & ~(kPage - 1);
    const uintptr_t lastPage = last & ~(kPage - 1);
    for (;;) {
        int n = 0;
        for (; n < kBatch; ++n) {
            uintptr_t at = page < first ? first : page;
            remote[n].iov_base = reinterpret_cast<void*>(at);
            remote[n].iov_len = 1;
            if (page == lastPage) {
                ++n;
                break;
            }
            page += kPage;
        }
        local.iov_len = static_cast<size_t>(n);
        ssize_t got = process_vm_readv(self, &local, 1, remote, static_cast<unsigned long>(n), 0);
        if (got < 0) {
            if (errno == EFAULT || errno == ENOMEM) return 0;
            return -1;
        }
        if (got != n) return 0;  // the transfer stopped at the first page it couldn't read
        if (remote[n - 1].iov_base >= reinterpret_cast<void*>(lastPage)) return 1;
    }
}

// The range [p, p + size - 1], false if it wraps around.
bool lastByte(const void* p, uintptr_t size, uintptr_t* last) {
    uintptr_t first = reinterpret_cast<uintptr_t>(p);
    *last = first + (size - 1);
    return *last >= first;
}

bool readable(uintptr_t first, uintptr_t last) {
    int r = kernelCanRead(first, last);
    if (r < 0) return mappingsAllow(first, last, false);
    return r == 1;
}

}  // namespace

// ---- the debugger

BOOL IsDebuggerPresent() {
    int fd = openReadOnly("/proc/self/status");
    if (fd < 0) return 0;
    char buffer[2048];
    ssize_t n = readSome(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (n <= 0) return 0;
    buffer[n] = 0;
    const char* at = strstr(buffer, "TracerPid:");
    if (at == nullptr) return 0;
    at += 10;
    while (*at == ' ' || *at == '\t') ++at;
    return *at >= '1' && *at <= '9';
}

void OutputDebugStringA(const char* text) {
    if (text == nullptr) return;
    size_t left = strlen(text);
    while (left > 0) {
        ssize_t n = ::write(2, text, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        text += n;
        left -= static_cast<size_t>(n);
    }
}

void DebugBreak() {
    if (IsDebuggerPresent())
        raise(SIGTRAP);
    else
        abort();
}

// ---- pointer tests

BOOL IsBadReadPtr(const void* p, uintptr_t size) {
    if (size == 0) return 0;
    uintptr_t last;
    if (!lastByte(p, size, &last)) return 1;
    return !readable(reinterpret_cast<uintptr_t>(p), last);
}

BOOL IsBadWritePtr(void* p, uintptr_t size) {
    if (size == 0) return 0;
    uintptr_t last;
    if (!lastByte(p, size, &last)) return 1;
    const uintptr_t first = reinterpret_cast<uintptr_t>(p);
    return !mappingsAllow(first, last, true) || !readable(first, last);
}

BOOL IsBadStringPtrA(const char* text, uintptr_t maximum) {
    if (maximum == 0) return 0;
    uintptr_t at = reinterpret_cast<uintptr_t>(text);
    char chunk[kPage];
    const pid_t self = getpid();
    while (maximum > 0) {
        // Up to the end of the page, so a string that ends just before an unreadable page is
        // good.
        uintptr_t n = kPage - (at & (kPage - 1));
        if (n > maximum) n = maximum;
        if (at + (n - 1) < at) return 1;
        struct iovec local = {chunk, n};
        struct iovec remote = {reinterpret_cast<void*>(at), n};
        ssize_t got = process_vm_readv(self, &local, 1, &remote, 1, 0);
        if (got < 0 && errno != EFAULT && errno != ENOMEM) {
            // Refused by a sandbox: go by the mappings, then read the bytes ourselves.
            if (!mappingsAllow(at, at + (n - 1), false)) return 1;
            memcpy(chunk, reinterpret_cast<const void*>(at), n);
            got = static_cast<ssize_t>(n);
        }
        if (got != static_cast<ssize_t>(n)) return 1;
        if (memchr(chunk, 0, n) != nullptr) return 0;
        at += n;
        maximum -= n;
    }
    return 0;
}

// ---- the console

int _isatty(int descriptor) {
    return isatty(descriptor);
}

// ---- descriptor calls of the primitive file

namespace fd {

namespace {

// The kernel says EBADF for a descriptor opened without the access, too; the platform tells that
// apart as a refused access.
BOOL failTransfer(int descriptor) {
    const int err = errno;
    SetLastError(err == EBADF && fcntl(descriptor, F_GETFL) >= 0 ? ERROR_ACCESS_DENIED
                                                                 : TranslateErrno(err));
    return 0;
}

// The descriptor a handle stands for: a standard pseudo handle's, else the handle itself.
int descriptorOf(int handle) {
    switch (static_cast<Uint32>(handle)) {
        case STD_INPUT_HANDLE:
            return 0;
        case STD_OUTPUT_HANDLE:
            return 1;
        case STD_ERROR_HANDLE:
            return 2;
        default:
            return handle;
    }
}

bool isPseudo(int handle) {
    return descriptorOf(handle) != handle;
}

int lockFirstByte(int descriptor, short type) {
    return OfdLock(descriptorOf(descriptor), type, 0, 1, true);
}

}  // namespace

int GetStdHandle(Uint32 which) {
    int d;
    switch (which) {
        case STD_INPUT_HANDLE:
            d = 0;
            break;
        case STD_OUTPUT_HANDLE:
            d = 1;
            break;
        case STD_ERROR_HANDLE:
            d = 2;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_DESCRIPTOR;
    }
    if (fcntl(d, F_GETFD) < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_DESCRIPTOR;
    }
    return static_cast<int>(which);
}

int CreateFileA(const char* fileName, Uint32 desiredAccess, Uint32, Uint32 creationDisposition,
                Uint32) {
    int mode;
    switch (desiredAccess & (GENERIC_READ | GENERIC_WRITE)) {
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
            return INVALID_DESCRIPTOR;
    }
    if (creationDisposition == OPEN_ALWAYS)
        mode |= O_CREAT;
    else if (creationDisposition != OPEN_EXISTING) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_DESCRIPTOR;
    }
    if (fileName == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_DESCRIPTOR;
    }
    if (fileName[0] == 0) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_DESCRIPTOR;
    }
    int d;
    do d = open(fileName, mode | O_CLOEXEC, 0666);
    while (d < 0 && errno == EINTR);
    if (d < 0) {
        if (errno == ENOENT)
            SetLastError(NotFoundError(fileName));
        else
            SetLastErrorFromErrno();
        return INVALID_DESCRIPTOR;
    }
    // For reading the kernel opens a directory; the platform refuses it as a file.
    struct stat st;
    if (fstat(d, &st) != 0 || S_ISDIR(st.st_mode)) {
        close(d);
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_DESCRIPTOR;
    }
    SetLastError(ERROR_SUCCESS);
    return d;
}

BOOL CloseHandle(int descriptor) {
    if (isPseudo(descriptor)) return 1;
    if (descriptor < 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    // EINTR: the descriptor is gone all the same on this kernel.
    if (close(descriptor) != 0 && errno != EINTR) {
        SetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

BOOL WriteFile(int handle, const void* buffer, Uint32 toWrite, Uint32* written) {
    const int descriptor = descriptorOf(handle);
    *written = 0;
    ssize_t n;
    do n = ::write(descriptor, buffer, toWrite);
    while (n < 0 && errno == EINTR);
    if (n < 0) return failTransfer(descriptor);
    *written = static_cast<Uint32>(n);
    return 1;
}

BOOL ReadFile(int handle, void* buffer, Uint32 toRead, Uint32* read) {
    const int descriptor = descriptorOf(handle);
    *read = 0;
    ssize_t n = readSome(descriptor, buffer, toRead);
    if (n < 0) return failTransfer(descriptor);
    *read = static_cast<Uint32>(n);
    return 1;
}

Uint32 GetFileSize(int handle, Uint32* fileSizeHigh) {
    struct stat st;
    if (fstat(descriptorOf(handle), &st) != 0) {
        SetLastErrorFromErrno();
        return INVALID_FILE_SIZE;
    }
    const Uint64 size = static_cast<Uint64>(st.st_size);
    if (fileSizeHigh) *fileSizeHigh = static_cast<Uint32>(size >> 32);
    SetLastError(ERROR_SUCCESS);
    return static_cast<Uint32>(size);
}

Uint32 SetFilePointer(int descriptor, Sint32 distanceLow, Sint32* distanceHigh, Uint32 moveMethod) {
    int whence;
    Sint64 distance;
    if (!SeekArguments(distanceLow, distanceHigh, moveMethod, &whence, &distance))
        return INVALID_SET_FILE_POINTER;
    return SeekResult(lseek(descriptorOf(descriptor), static_cast<off_t>(distance), whence),
                      distanceHigh);
}

BOOL LockFirstByte(int descriptor) {
    if (lockFirstByte(descriptor, F_WRLCK) != 0) {
        SetLastErrorFromErrno(ErrnoUse::Lock);
        return 0;
    }
    return 1;
}

BOOL UnlockFirstByte(int descriptor) {
    if (lockFirstByte(descriptor, F_UNLCK) != 0) {
        SetLastErrorFromErrno(ErrnoUse::Lock);
        return 0;
    }
    return 1;
}

}  // namespace fd

}  // namespace zepos
