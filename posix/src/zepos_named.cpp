// zepos_named.cpp - named kernel objects on files of the shared-memory file system.
//
// docs/ipc.md has the protocol in full; in short:
//  - one file per (kind, name) in /dev/shm, named injectively (escaped, or hashed when long);
//  - a header page ahead of the block (magic, kind, full name, size);
//  - every holder's open file description holds a shared lock on byte 0; the kernel drops it
//    when the last reference to the description goes, a killed holder's included;
//  - a file is only ever published complete, by linking an unnamed file (O_TMPFILE) under the
//    name while its creator already holds the shared lock; it is only ever unlinked by a process
//    that holds the exclusive lock, i.e. when nobody holds it. So a linked file without a holder
//    is stale, and whoever finds it removes it and treats the name as free.
#include "zepos.h"
#include "zepipc.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace zepos {

namespace {

constexpr Uint32 kMagic = 0x424F4E5Au;  // "ZNOB"
constexpr Uint32 kLayout = 1;

// The first page of every object. Only its creator writes it, before the object has a name.
struct Header {
    Uint32 magic;
    Uint32 layout;
    Uint32 kind;
    Uint32 nameLength;
    Uint64 bytes;       // the block's size as the creator asked for it
    Uint64 blockStart;  // where the block starts: the creator's page size
    Char name[ZEP_IPC_NAME_LENGTH + 1];
};

}  // namespace

struct NamedObject {
    int fd;
    NamedKind kind;
    bool named;
    std::atomic<Uint32> refs;
    Uint64 bytes;
    Uint64 blockStart;
    std::mutex blockMutex;
    void* block;  // mapped on demand
    char linuxName[NAMED_LINUX_NAME_SIZE];
};

namespace {

size_t pageSize() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

// ---- names

// SHA-256, for names too long to escape: the object's header keeps the full name, and an open
// compares it, so a collision could only ever refuse a name, never join two.
struct Sha256 {
    Uint32 h[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                   0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    Uint8 buf[64];
    Uint64 total = 0;
    size_t used = 0;

    static Uint32 rotr(Uint32 x, int n) { return (x >> n) | (x << (32 - n)); }

    void block(const Uint8* p) {
        static const Uint32 k[64] = {
            0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
            0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
            0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
            0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
            0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
            0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
            0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
            0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
            0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
            0xc67178f2};
        Uint32 w[64];
        for (int i = 0; i < 16; ++i)
            w[i] = static_cast<Uint32>(p[4 * i]) << 24 | static_cast<Uint32>(p[4 * i + 1]) << 16 |
                   static_cast<Uint32>(p[4 * i + 2]) << 8 | p[4 * i + 3];
        for (int i = 16; i < 64; ++i) {
            Uint32 s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
            Uint32 s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
            w[i] = w[i - 16] + s0 + w[i - 7] + s1;
        }
        Uint32 a = h[0], b = h[1], c = h[2], d = h[3], e = h[4], f = h[5], g = h[6], hh = h[7];
        for (int i = 0; i < 64; ++i) {
            Uint32 t1 =
                hh + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + k[i] + w[i];
            Uint32 t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
            hh = g, g = f, f = e, e = d + t1, d = c, c = b, b = a, a = t1 + t2;
        }
        h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e, h[5] += f, h[6] += g, h[7] += hh;
    }
    void add(const void* data, size_t n) {
        const Uint8* p = static_cast<const Uint8*>(data);
        total += n;
        while (n > 0) {
            size_t take = 64 - used < n ? 64 - used : n;
            memcpy(buf + used, p, take);
            used += take, p += take, n -= take;
            if (used == 64) block(buf), used = 0;
        }
    }
    void finish(Uint8 out[32]) {
        const Uint64 bits = total * 8;
        const Uint8 one = 0x80, zero = 0;
        add(&one, 1);
        while (used != 56) add(&zero, 1);
        Uint8 len[8];
        for (int i = 0; i < 8; ++i) len[i] = static_cast<Uint8>(bits >> (56 - 8 * i));
        add(len, 8);
        for (int i = 0; i < 8; ++i)
            for (int j = 0; j < 4; ++j) out[4 * i + j] = static_cast<Uint8>(h[i] >> (24 - 8 * j));
    }
};

char kindLetter(NamedKind kind) {
    switch (kind) {
        case NamedKind::FileMapping:
            return 'M';
        case NamedKind::Semaphore:
            return 'S';
        case NamedKind::Event:
            return 'E';
        case NamedKind::Mutex:
            return 'X';
    }
    return '?';
}

bool keptAsIs(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

bool sameName(const Header& h, const char* name, size_t n) {
    return h.nameLength == n && memcmp(h.name, name, n) == 0 && h.name[n] == 0;
}

// ---- locks: byte 0 of the file; shared for a holder, exclusive for "nobody else holds it"

int lockByte0(int fd, short type, bool wait) {
    return OfdLock(fd, type, 0, 1, wait);
}

bool heldElsewhere(int err) {
    return err == EAGAIN || err == EACCES;
}

int openDirectory() {
    static const int dir = open(NAMED_DIRECTORY, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return dir;
}

enum class Found { Live, Absent, Failed };

// The open protocol: on Live, `*fdOut` holds the object's shared lock and `*header` its header.
// Absent: no object (a stale one found on the way has been removed). Failed: the last error says
// why.
Found openLive(NamedKind kind, const char* name, const char* linuxName, bool cloexec, int* fdOut,
               Header* header) {
    const int dir = openDirectory();
    if (dir < 0) {
        SetLastErrorFromErrno();
        return Found::Failed;
    }
    const size_t nameLength = strlen(name);
    for (;;) {
        int fd = openat(dir, linuxName, O_RDWR | O_NOFOLLOW | (cloexec ? O_CLOEXEC : 0));
        if (fd < 0) {
            if (errno == ENOENT) return Found::Absent;
            if (errno == ELOOP) errno = EACCES;  // a symbolic link planted under the name
            SetLastErrorFromErrno();
            return Found::Failed;
        }
        if (lockByte0(fd, F_WRLCK, false) == 0) {
            // Nobody holds it: a file is published with its creator's lock and unlinked under
            // the exclusive lock, so this one's holders are all gone. Unless somebody unlinked it
            // between our open and our lock, its name is still ours to remove.
            struct stat st;
            int err = 0;
            if (fstat(fd, &st) == 0 && st.st_nlink > 0 && unlinkat(dir, linuxName, 0) != 0)
                err = errno;
            close(fd);
            if (err == EPERM || err == EACCES) {
                // Another user's leftover in the sticky directory: only its owner may remove it.
                SetLastError(ERROR_ACCESS_DENIED);
                return Found::Failed;
            }
            continue;  // the name may have a new object by now
        }
        if (!heldElsewhere(errno)) {
            SetLastErrorFromErrno();
            close(fd);
            return Found::Failed;
        }
        // Held: by live holders, or by a process that is testing or removing it. Queue behind
        // the latter; the former don't block a shared lock.
        if (lockByte0(fd, F_RDLCK, true) != 0) {
            SetLastErrorFromErrno();
            close(fd);
            return Found::Failed;
        }
        struct stat st;
        if (fstat(fd, &st) != 0) {
            SetLastErrorFromErrno();
            close(fd);
            return Found::Failed;
        }
        if (st.st_nlink == 0) {
            // Removed while we waited: its last holder went.
            close(fd);
            continue;
        }
        ssize_t got = pread(fd, header, sizeof *header, 0);
        if (got != static_cast<ssize_t>(sizeof *header) || header->magic != kMagic ||
            header->layout != kLayout || header->kind != static_cast<Uint32>(kind) ||
            !sameName(*header, name, nameLength)) {
            close(fd);
            SetLastError(ERROR_INVALID_NAME);
            return Found::Failed;
        }
        *fdOut = fd;
        return Found::Live;
    }
}

NamedObject* newObject(int fd, NamedKind kind, bool named, const char* linuxName, Uint64 bytes,
                       Uint64 blockStart) {
    NamedObject* o = new (std::nothrow) NamedObject;
    if (o == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    o->fd = fd;
    o->kind = kind;
    o->named = named;
    o->refs.store(1, std::memory_order_relaxed);
    o->bytes = bytes;
    o->blockStart = blockStart;
    o->block = nullptr;
    snprintf(o->linuxName, sizeof o->linuxName, "%s", linuxName);
    return o;
}

mode_t modeOf(const SECURITY_ATTRIBUTES* sa) {
    if (sa != nullptr && sa->lpSecurityDescriptor != nullptr) {
        const SECURITY_DESCRIPTOR* sd =
            static_cast<const SECURITY_DESCRIPTOR*>(sa->lpSecurityDescriptor);
        if (sd->Mode != 0) return static_cast<mode_t>(sd->Mode & 0777);
    }
    return 0666;
}

// A fresh file, sized and reserved, its header written, its block initialised, with this
// process's shared lock: everything but a name. -1 with the last error.
int makeUnnamed(NamedKind kind, const char* name, Uint64 bytes, mode_t mode, bool cloexec,
                NamedInit init, void* arg, void** blockOut) {
    const int dir = openDirectory();
    if (dir < 0) {
        SetLastErrorFromErrno();
        return -1;
    }
    const Uint64 start = pageSize();
    int fd = openat(dir, ".", O_TMPFILE | O_RDWR | (cloexec ? O_CLOEXEC : 0), mode);
    if (fd < 0) {
        SetLastErrorFromErrno();
        return -1;
    }
    auto fail = [&](int err) {
        close(fd);
        SetLastError(TranslateErrno(err));
        return -1;
    };
    if (fchmod(fd, mode) != 0) return fail(errno);
    // Reserved now, so that touching a page later can't meet a full file system (SIGBUS).
    int err = posix_fallocate(fd, 0, static_cast<off_t>(start + bytes));
    if (err != 0) return fail(err == EFBIG ? ENOSPC : err);
    Header h;
    memset(&h, 0, sizeof h);
    h.magic = kMagic;
    h.layout = kLayout;
    h.kind = static_cast<Uint32>(kind);
    h.nameLength = static_cast<Uint32>(strlen(name));
    h.bytes = bytes;
    h.blockStart = start;
    memcpy(h.name, name, h.nameLength);
    if (pwrite(fd, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h)) return fail(errno);
    if (lockByte0(fd, F_RDLCK, false) != 0) return fail(errno);
    *blockOut = nullptr;
    if (init != nullptr) {
        void* block =
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(start));
        if (block == MAP_FAILED) return fail(errno);
        init(block, arg);
        *blockOut = block;
    }
    return fd;
}

// After a holder's description has gone: removes the object if nobody else holds it. The test
// takes a description of its own rather than unlocking the holder's, which a child may share
// (inherited across exec, or across fork) and which must keep its lock for it.
void removeIfUnheld(const char* linuxName) {
    const int dir = openDirectory();
    int fd = openat(dir, linuxName, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    if (lockByte0(fd, F_WRLCK, false) == 0) {
        // Nobody holds it: no other holder, and no opener (it would hold a lock, or wait for a
        // shared one and then see the name gone). Ours to remove.
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_nlink > 0) unlinkat(dir, linuxName, 0);
    }
    close(fd);
}

}  // namespace

void NamedLinuxName(NamedKind kind, const char* name, char* out) {
    static const char hex[] = "0123456789ABCDEF";
    // "zepM." + the name with every byte outside [A-Za-z0-9_.-] as %XX: one-to-one, since '%'
    // is escaped too. A form that would exceed the longest file name is replaced by "zepM#" and
    // the hash of kind and name; '#' never occurs in an escaped form.
    size_t n = 0;
    out[n++] = 'z', out[n++] = 'e', out[n++] = 'p', out[n++] = kindLetter(kind), out[n++] = '.';
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
        if (n + 4 > NAMED_LINUX_NAME_SIZE) {
            Sha256 s;
            const Uint32 k = static_cast<Uint32>(kind);
            s.add(&k, sizeof k);
            s.add(name, strlen(name));
            Uint8 digest[32];
            s.finish(digest);
            n = 4;
            out[n++] = '#';
            for (Uint8 b : digest) out[n++] = hex[b >> 4], out[n++] = hex[b & 15];
            break;
        }
        if (keptAsIs(*p)) {
            out[n++] = static_cast<char>(*p);
        } else {
            out[n++] = '%', out[n++] = hex[*p >> 4], out[n++] = hex[*p & 15];
        }
    }
    out[n] = 0;
}

NamedObject* NamedCreate(NamedKind kind, const char* name, size_t bytes,
                         const void* securityAttributes, NamedInit init, void* arg) {
    const SECURITY_ATTRIBUTES* sa = static_cast<const SECURITY_ATTRIBUTES*>(securityAttributes);
    const bool cloexec = sa == nullptr || sa->bInheritHandle == 0;
    if (bytes == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (name == nullptr || name[0] == 0) {
        // Reachable by descriptor only: a memory file shared with views and forks.
        int fd = memfd_create("zep", cloexec ? MFD_CLOEXEC : 0);
        if (fd < 0) {
            SetLastErrorFromErrno();
            return nullptr;
        }
        int err = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
        if (err != 0) {
            close(fd);
            SetLastError(TranslateErrno(err == EFBIG ? ENOSPC : err));
            return nullptr;
        }
        NamedObject* o = newObject(fd, kind, false, "", bytes, 0);
        if (o == nullptr) {
            close(fd);
            return nullptr;
        }
        if (init != nullptr) {
            void* block = NamedBlock(o);
            if (block == nullptr) {
                const Uint32 e = GetLastError();
                NamedClose(o);
                SetLastError(e);
                return nullptr;
            }
            init(block, arg);
        }
        SetLastError(ERROR_SUCCESS);
        return o;
    }
    if (strlen(name) > ZEP_IPC_NAME_LENGTH) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return nullptr;
    }
    char linuxName[NAMED_LINUX_NAME_SIZE];
    NamedLinuxName(kind, name, linuxName);
    const int dir = openDirectory();
    for (;;) {
        Header h;
        int fd = -1;
        switch (openLive(kind, name, linuxName, cloexec, &fd, &h)) {
            case Found::Live: {
                NamedObject* o = newObject(fd, kind, true, linuxName, h.bytes, h.blockStart);
                if (o == nullptr) {
                    close(fd);
                    return nullptr;
                }
                SetLastError(ERROR_ALREADY_EXISTS);
                return o;
            }
            case Found::Failed:
                return nullptr;
            case Found::Absent:
                break;
        }
        void* block = nullptr;
        fd = makeUnnamed(kind, name, bytes, modeOf(sa), cloexec, init, arg, &block);
        if (fd < 0) return nullptr;
        // Publishing is one link: the name appears with its whole object and a holder.
        char self[32];
        snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
        if (linkat(AT_FDCWD, self, dir, linuxName, AT_SYMLINK_FOLLOW) != 0) {
            const int err = errno;
            if (block != nullptr) munmap(block, bytes);
            close(fd);
            if (err == EEXIST) continue;  // another creator was first: join it (or its leftover)
            SetLastError(TranslateErrno(err));
            return nullptr;
        }
        NamedObject* o = newObject(fd, kind, true, linuxName, bytes, pageSize());
        if (o == nullptr) {
            if (block != nullptr) munmap(block, bytes);
            unlinkat(dir, linuxName, 0);
            close(fd);
            return nullptr;
        }
        o->block = block;
        SetLastError(ERROR_SUCCESS);
        return o;
    }
}

NamedObject* NamedOpen(NamedKind kind, const char* name, BOOL inheritHandle) {
    if (name == nullptr || name[0] == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (strlen(name) > ZEP_IPC_NAME_LENGTH) {
        SetLastError(ERROR_FILE_NOT_FOUND);  // no object can carry such a name
        return nullptr;
    }
    char linuxName[NAMED_LINUX_NAME_SIZE];
    NamedLinuxName(kind, name, linuxName);
    Header h;
    int fd = -1;
    switch (openLive(kind, name, linuxName, inheritHandle == 0, &fd, &h)) {
        case Found::Live:
            break;
        case Found::Absent:
            SetLastError(ERROR_FILE_NOT_FOUND);
            return nullptr;
        case Found::Failed:
            return nullptr;
    }
    NamedObject* o = newObject(fd, kind, true, linuxName, h.bytes, h.blockStart);
    if (o == nullptr) {
        close(fd);
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    return o;
}

void* NamedBlock(NamedObject* o) {
    std::lock_guard<std::mutex> hold(o->blockMutex);
    if (o->block == nullptr) {
        void* block = mmap(nullptr, o->bytes, PROT_READ | PROT_WRITE, MAP_SHARED, o->fd,
                           static_cast<off_t>(o->blockStart));
        if (block == MAP_FAILED) {
            SetLastErrorFromErrno();
            return nullptr;
        }
        o->block = block;
    }
    return o->block;
}

size_t NamedBytes(NamedObject* o) {
    return static_cast<size_t>(o->bytes);
}

void NamedRetain(NamedObject* o) {
    o->refs.fetch_add(1, std::memory_order_relaxed);
}

int NamedDescriptor(NamedObject* o) {
    return o->fd;
}

Uint64 NamedBlockOffset(NamedObject* o) {
    return o->blockStart;
}

void NamedClose(NamedObject* o) {
    if (o == nullptr || o->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    if (o->block != nullptr) munmap(o->block, o->bytes);
    close(o->fd);
    if (o->named) removeIfUnheld(o->linuxName);
    delete o;
}

}  // namespace zepos
