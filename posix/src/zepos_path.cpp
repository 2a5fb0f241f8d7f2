// zepos_path.cpp - path-level stand-ins: attributes, access, permissions, deletes, copies,
// directories, temporary names, canonical forms and directory searches.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "zepos.h"

namespace zepos {

namespace {

void fillStat(const struct stat& s, STATI64* st) {
    st->mode = static_cast<Uint16>(s.st_mode);
    st->size = static_cast<Sint64>(s.st_size);
    st->uid = static_cast<Uint32>(s.st_uid);
    st->gid = static_cast<Uint32>(s.st_gid);
    st->mtime = static_cast<Sint64>(s.st_mtim.tv_sec);
}

// The runtime reports a missing directory on the way as a missing name.
int runtimeFailure() {
    if (errno == ENOTDIR) errno = ENOENT;
    return -1;
}

// A failed call by path: ENOENT tells a missing name (2) from a missing directory on the way (3).
void setPathError(const char* path, int err, ErrnoUse use = ErrnoUse::General) {
    SetLastError(err == ENOENT ? NotFoundError(path) : TranslateErrno(err, use));
}

int dirFd(HANDLE dir);

}  // namespace

int* _errno() {
    return &errno;
}

int _stati64(const char* path, STATI64* st) {
    struct stat s;
    if (stat(path, &s) != 0) {
        setPathError(path, errno);
        return runtimeFailure();
    }
    fillStat(s, st);
    return 0;
}

int _lstati64At(void* dir, const char* name, STATI64* st) {
    struct stat s;
    if (fstatat(dirFd(dir), name, &s, AT_SYMLINK_NOFOLLOW) != 0) {
        SetLastErrorFromErrno();
        return runtimeFailure();
    }
    fillStat(s, st);
    return 0;
}

int _access(const char* path, int mode) {
    if (mode & ~6) {
        errno = EINVAL;
        SetLastError(22);
        return -1;
    }
    int how = mode == 0 ? F_OK : ((mode & 2) ? W_OK : 0) | ((mode & 4) ? R_OK : 0);
    if (access(path, how) == 0) return 0;
    int err = errno;
    switch (err) {
        case ENOENT:
            SetLastError(NotFoundError(path));
            break;
        case ENOTDIR:
            SetLastError(ERROR_PATH_NOT_FOUND);
            break;
        case EACCES:
        case EPERM:
        case EROFS:
        case ETXTBSY:
            SetLastError(13), err = EACCES;
            break;
        case EINVAL:
            SetLastError(22);
            break;
        default:
            SetLastError(TranslateErrno(err));
            break;
    }
    errno = err;
    return runtimeFailure();
}

int _chmod(const char* path, int mode) {
    if (chmod(path, static_cast<mode_t>(mode) & 07777) == 0) return 0;
    setPathError(path, errno);
    return runtimeFailure();
}

BOOL DeleteFileA(const char* path) {
    if (unlink(path) == 0) return 1;
    setPathError(path, errno);
    return 0;
}

namespace {

// Copies what is left of `in` to `out`: in-kernel where the file systems allow it, else through a
// buffer. 0 or an errno value.
int copyData(int in, int out, Sint64 size) {
    Sint64 copied = 0;
    for (;;) {
        ssize_t n = copy_file_range(in, nullptr, out, nullptr, 1u << 30, 0);
        if (n > 0) {
            copied += n;
            if (copied >= size && size > 0) return 0;  // spares the call that would say "end"
            continue;
        }
        if (n == 0) {
            // The end, unless the file reports no size (some virtual ones copy nothing
            // in-kernel): those are read below.
            if (copied > 0 || size > 0) return 0;
            break;
        }
        if (errno == EINTR) continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP ||
            errno == EBADF)
            break;
        return errno;
    }
    char buffer[1u << 16];
    for (;;) {
        ssize_t n = read(in, buffer, sizeof buffer);
        if (n == 0) return 0;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(out, buffer + done, static_cast<size_t>(n - done));
            if (w < 0) {
                if (errno == EINTR) continue;
                return errno;
            }
            done += w;
        }
    }
}

}  // namespace

BOOL CopyFileA(const char* existingName, const char* newName, BOOL failIfExists) {
    // Without waiting: a FIFO must not hold the copy until a writer comes.
    int in = open(existingName, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (in < 0) {
        setPathError(existingName, errno);
        return 0;
    }
    // Only a regular file has contents to copy; a directory or a device is refused with 5.
    struct stat s;
    if (fstat(in, &s) != 0 || !S_ISREG(s.st_mode)) {
        int err = S_ISREG(s.st_mode) ? errno : EACCES;
        close(in);
        SetLastError(TranslateErrno(err));
        return 0;
    }
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (failIfExists ? O_EXCL : O_TRUNC);
    int out = open(newName, flags, 0600);
    if (out < 0) {
        int err = errno;
        close(in);
        setPathError(newName, err);
        return 0;
    }
    int err = copyData(in, out, static_cast<Sint64>(s.st_size));
    if (err == 0 && fchmod(out, s.st_mode & 07777) != 0) err = errno;
    if (close(out) != 0 && err == 0) err = errno;
    close(in);
    if (err == 0) return 1;
    // Remove what this call made, and only that: the name may have been taken over meanwhile.
    struct stat made;
    if (failIfExists && lstat(newName, &made) == 0 && S_ISREG(made.st_mode)) unlink(newName);
    SetLastError(TranslateErrno(err));
    return 0;
}

BOOL CreateDirectoryA(const char* path, void* securityAttributes) {
    (void)securityAttributes;
    if (mkdir(path, 0777) == 0) return 1;
    int err = errno;
    SetLastError(err == ENOENT ? ERROR_PATH_NOT_FOUND : TranslateErrno(err, ErrnoUse::Create));
    return 0;
}

namespace {

void setRemoveDirectoryError(int err, int at, const char* name) {
    if (err == ENOTDIR) {
        struct stat s;
        if (fstatat(at, name, &s, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(s.st_mode)) {
            SetLastError(ERROR_DIRECTORY);
            return;
        }
    }
    if (err == EEXIST) err = ENOTEMPTY;  // some file systems say so for a full directory
    SetLastError(TranslateErrno(err));
}

}  // namespace

BOOL RemoveDirectoryA(const char* path) {
    if (rmdir(path) == 0) return 1;
    int err = errno;
    if (err == ENOENT)
        SetLastError(NotFoundError(path));
    else
        setRemoveDirectoryError(err, AT_FDCWD, path);
    return 0;
}

Uint32 GetCurrentDirectoryA(Uint32 size, char* buffer) {
    char here[PATH_MAX];
    if (getcwd(here, sizeof here) == nullptr) {
        SetLastErrorFromErrno();
        return 0;
    }
    size_t n = strlen(here);
    if (n >= size) return static_cast<Uint32>(n + 1);
    memcpy(buffer, here, n + 1);
    return static_cast<Uint32>(n);
}

BOOL SetCurrentDirectoryA(const char* path) {
    if (chdir(path) == 0) return 1;
    setPathError(path, errno);
    return 0;
}

Uint32 GetLogicalDrives() {
    SetLastError(ERROR_NOT_SUPPORTED);
    return 0;
}

namespace {

// "a/./b//../c" made absolute and reduced by its text alone.
bool lexicalForm(const char* path, char* out, size_t size) {
    char work[PATH_MAX];
    size_t n = 0;
    if (path[0] != '/') {
        if (getcwd(work, sizeof work) == nullptr) return false;
        n = strlen(work);
        if (n == 1) n = 0;  // the root: its "/" comes back with the first component
    }
    const char* p = path;
    while (*p) {
        while (*p == '/') ++p;
        const char* start = p;
        while (*p && *p != '/') ++p;
        size_t len = static_cast<size_t>(p - start);
        if (len == 0 || (len == 1 && start[0] == '.')) continue;
        if (len == 2 && start[0] == '.' && start[1] == '.') {
            while (n > 0 && work[n - 1] != '/') --n;
            if (n > 0) --n;
            continue;
        }
        if (n + 1 + len >= sizeof work) return false;
        work[n++] = '/';
        memcpy(work + n, start, len);
        n += len;
    }
    if (n == 0) work[n++] = '/';
    if (n >= size) return false;
    memcpy(out, work, n);
    out[n] = 0;
    return true;
}

}  // namespace

Uint32 GetShortPathNameA(const char* longPath, char* shortPath, Uint32 size) {
    char canonical[PATH_MAX];
    if (realpath(longPath, canonical) == nullptr) {
        if (errno != ENOENT && errno != ENOTDIR && errno != EACCES) {
            SetLastErrorFromErrno();
            return 0;
        }
        if (!lexicalForm(longPath, canonical, sizeof canonical)) {
            SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return 0;
        }
    }
    size_t n = strlen(canonical);
    if (n >= size) return static_cast<Uint32>(n + 1);
    memcpy(shortPath, canonical, n + 1);
    return static_cast<Uint32>(n);
}

Uint32 GetTempPathA(Uint32 size, char* buffer) {
    const char* dir = getenv("TMPDIR");
    if (dir == nullptr || *dir == 0) dir = "/tmp";
    size_t n = strlen(dir);
    bool slash = dir[n - 1] == '/';
    size_t total = n + (slash ? 0 : 1);
    if (total >= size) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return static_cast<Uint32>(total + 1);
    }
    memcpy(buffer, dir, n);
    if (!slash) buffer[n] = '/';
    buffer[total] = 0;
    return static_cast<Uint32>(total);
}

Uint32 GetTempFileNameA(const char* pathName, const char* prefix, Uint32 unique, char* tempFile) {
    if (unique != 0 || pathName == nullptr || prefix == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    size_t dn = strlen(pathName), pn = strlen(prefix);
    bool slash = dn > 0 && pathName[dn - 1] == '/';
    size_t total = dn + (slash ? 0 : 1) + pn + 6;
    if (total >= MAX_PATH) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return 0;
    }
    char name[MAX_PATH];
    memcpy(name, pathName, dn);
    size_t at = dn;
    if (!slash) name[at++] = '/';
    memcpy(name + at, prefix, pn);
    memcpy(name + at + pn, "XXXXXX", 7);
    int fd = mkstemp(name);  // mode 0600, whatever the umask
    if (fd < 0) {
        setPathError(name, errno);
        return 0;
    }
    close(fd);
    memcpy(tempFile, name, total + 1);
    // The platform answers with the number it put in the name; any non-zero value will do.
    Uint32 number = 0;
    for (size_t i = total - 6; i < total; ++i) number = number * 31 + static_cast<Uint8>(name[i]);
    return number | 1u;
}

int tmpnam_s(char* buffer, size_t size) {
    char dir[PATH_MAX];
    Uint32 dn = GetTempPathA(sizeof dir, dir);
    if (dn == 0 || dn >= sizeof dir) return EINVAL;
    size_t base = dn + 3;
    if (size < base + 5 + 1) return ERANGE;
    size_t randomChars = size - base - 1 > 10 ? 10 : size - base - 1;
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    char name[PATH_MAX];
    memcpy(name, dir, dn);
    memcpy(name + dn, "vrn", 3);
    for (int attempt = 0; attempt < 100; ++attempt) {
        Uint8 bytes[10];
        if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return EIO;
        for (size_t i = 0; i < randomChars; ++i) name[base + i] = kAlphabet[bytes[i] % 62];
        name[base + randomChars] = 0;
        struct stat s;
        if (lstat(name, &s) != 0 && errno == ENOENT) {
            memcpy(buffer, name, base + randomChars + 1);
            return 0;
        }
    }
    return EEXIST;
}

// ---- searches

namespace {

struct FindRecord {
    HandleRecord head;
    DIR* dir;
    char pattern[2 * MAX_PATH];  // escaped for fnmatch: only "*" and "?" are special
    bool all;                    // the pattern is "*"
};

struct DirectoryRecord {
    HandleRecord head;
    int fd;
};

BOOL closeFind(HandleRecord* record) {
    FindRecord* r = reinterpret_cast<FindRecord*>(record);
    r->head.magic = 0;
    closedir(r->dir);
    delete r;
    return 1;
}

BOOL closeDirectory(HandleRecord* record) {
    DirectoryRecord* r = reinterpret_cast<DirectoryRecord*>(record);
    r->head.magic = 0;
    close(r->fd);
    delete r;
    return 1;
}

int dirFd(HANDLE dir) {
    if (dir == nullptr || dir == INVALID_HANDLE_VALUE) return AT_FDCWD;
    HandleRecord* r = HandleOfKind(dir, HANDLE_KIND_DIRECTORY);
    return r ? reinterpret_cast<DirectoryRecord*>(r)->fd : -1;
}

bool escapePattern(const char* in, char* out, size_t size) {
    size_t n = 0;
    for (; *in; ++in) {
        if (*in == '[' || *in == ']' || *in == '\\') {
            if (n + 1 >= size) return false;
            out[n++] = '\\';
        }
        if (n + 1 >= size) return false;
        out[n++] = *in;
    }
    out[n] = 0;
    return true;
}

Uint16 typeOf(unsigned char dtype) {
    switch (dtype) {
        case DT_REG:
            return 0x8000;
        case DT_DIR:
            return 0x4000;
        case DT_LNK:
            return 0xA000;
        case DT_FIFO:
            return 0x1000;
        case DT_CHR:
            return 0x2000;
        case DT_BLK:
            return 0x6000;
        case DT_SOCK:
            return 0xC000;
        default:
            return 0;
    }
}

// The next matching entry; false at the end (last error 18) or on a failure.
bool nextMatch(FindRecord* r, WIN32_FIND_DATAA* data) {
    for (;;) {
        errno = 0;
        struct dirent* e = readdir(r->dir);
        if (e == nullptr) {
            SetLastError(errno == 0 ? ERROR_NO_MORE_FILES : TranslateErrno(errno));
            return false;
        }
        if (!r->all && fnmatch(r->pattern, e->d_name, 0) != 0) continue;
        size_t n = strlen(e->d_name);
        if (n >= sizeof data->cFileName) continue;  // no such name on this system
        memcpy(data->cFileName, e->d_name, n + 1);
        data->typeBits = typeOf(e->d_type);
        data->dwFileAttributes =
            e->d_type == DT_DIR ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
        return true;
    }
}

HANDLE startFind(DIR* dir, const char* pattern, WIN32_FIND_DATAA* data) {
    FindRecord* r = new (std::nothrow) FindRecord;
    if (r == nullptr) {
        closedir(dir);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    r->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_FIND, closeFind, nullptr};
    r->dir = dir;
    r->all = strcmp(pattern, "*") == 0;
    if (!escapePattern(pattern, r->pattern, sizeof r->pattern)) {
        closeFind(&r->head);
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return INVALID_HANDLE_VALUE;
    }
    if (!nextMatch(r, data)) {
        Uint32 err = GetLastError();
        closeFind(&r->head);
        SetLastError(err == ERROR_NO_MORE_FILES ? ERROR_FILE_NOT_FOUND : err);
        return INVALID_HANDLE_VALUE;
    }
    return HandleFor(&r->head);
}

}  // namespace

HANDLE FindFirstFileA(const char* fileName, WIN32_FIND_DATAA* findData) {
    const char* slash = strrchr(fileName, '/');
    char dirName[PATH_MAX];
    const char* pattern = fileName;
    if (slash == nullptr) {
        strcpy(dirName, ".");
    } else {
        size_t n = static_cast<size_t>(slash - fileName);
        if (n == 0) n = 1;  // "/x": the root
        if (n >= sizeof dirName) {
            SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return INVALID_HANDLE_VALUE;
        }
        memcpy(dirName, fileName, n);
        dirName[n] = 0;
        pattern = slash + 1;
    }
    if (*pattern == 0) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    DIR* dir = opendir(dirName);
    if (dir == nullptr) {
        int err = errno;
        SetLastError(err == ENOENT ? ERROR_PATH_NOT_FOUND : TranslateErrno(err));
        return INVALID_HANDLE_VALUE;
    }
    return startFind(dir, pattern, findData);
}

BOOL FindNextFileA(HANDLE find, WIN32_FIND_DATAA* findData) {
    HandleRecord* r = HandleOfKind(find, HANDLE_KIND_FIND);
    if (r == nullptr) return 0;
    return nextMatch(reinterpret_cast<FindRecord*>(r), findData) ? 1 : 0;
}

BOOL FindClose(HANDLE find) {
    HandleRecord* r = HandleOfKind(find, HANDLE_KIND_FIND);
    if (r == nullptr) return 0;
    return closeFind(r);
}

namespace {

HANDLE openDirectory(int at, const char* name, int follow) {
    int fd = openat(at, name, O_RDONLY | O_DIRECTORY | follow | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        SetLastError(err == ENOTDIR || err == ELOOP    ? ERROR_DIRECTORY
                     : err == ENOENT && at == AT_FDCWD ? NotFoundError(name)
                                                       : TranslateErrno(err));
        return INVALID_HANDLE_VALUE;
    }
    DirectoryRecord* r = new (std::nothrow) DirectoryRecord;
    if (r == nullptr) {
        close(fd);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    r->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_DIRECTORY, closeDirectory, nullptr};
    r->fd = fd;
    return HandleFor(&r->head);
}

}  // namespace

HANDLE OpenDirectoryAt(HANDLE dir, const char* name) {
    int at = dirFd(dir);
    if (at == -1) return INVALID_HANDLE_VALUE;
    return openDirectory(at, name, O_NOFOLLOW);
}

HANDLE OpenDirectoryA(const char* path) {
    return openDirectory(AT_FDCWD, path, 0);
}

HANDLE FindFirstFileAt(HANDLE dir, const char* pattern, WIN32_FIND_DATAA* findData) {
    int at = dirFd(dir);
    if (at == -1) return INVALID_HANDLE_VALUE;
    // A descriptor of its own, from the start, so that the walk's handle keeps its position.
    int fd = openat(at, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* d = fd < 0 ? nullptr : fdopendir(fd);
    if (d == nullptr) {
        int err = errno;
        if (fd >= 0) close(fd);
        SetLastError(TranslateErrno(err));
        return INVALID_HANDLE_VALUE;
    }
    return startFind(d, pattern, findData);
}

BOOL DeleteFileAt(HANDLE dir, const char* name) {
    int at = dirFd(dir);
    if (at == -1) return 0;
    if (unlinkat(at, name, 0) == 0) return 1;
    SetLastError(TranslateErrno(errno == EISDIR ? EACCES : errno));
    return 0;
}

BOOL RemoveDirectoryAt(HANDLE dir, const char* name) {
    int at = dirFd(dir);
    if (at == -1) return 0;
    if (unlinkat(at, name, AT_REMOVEDIR) == 0) return 1;
    setRemoveDirectoryError(errno, at, name);
    return 0;
}

BOOL CopySymbolicLinkA(const char* existingName, const char* newName) {
    char target[PATH_MAX];
    ssize_t n = readlink(existingName, target, sizeof target - 1);
    if (n < 0) {
        setPathError(existingName, errno);
        return 0;
    }
    target[n] = 0;
    if (symlink(target, newName) == 0) return 1;
    setPathError(newName, errno, ErrnoUse::General);
    return 0;
}

}  // namespace zepos
