// zepos_exec.cpp - threads, child processes and the dynamic loader.
#include "zepos.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

namespace zepos {

namespace {

// ---- futex words and deadlines

void futexWait(Uint32* word, Uint32 expected, const struct timespec* relative) {
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, relative, nullptr, 0);
}
void futexWake(Uint32* word) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

Sint64 nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<Sint64>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Milliseconds left until `deadline` (-1: none), at least 0.
int leftMs(Sint64 deadline) {
    if (deadline < 0) return -1;
    Sint64 left = deadline - nowMs();
    if (left < 0) return 0;
    return left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

Sint64 deadlineFor(Uint32 milliseconds) {
    return milliseconds == INFINITE ? -1 : nowMs() + milliseconds;
}

// Waits until *word is non-zero or the deadline passes; true if it became non-zero. A waiter
// that is about to sleep says so in *sleepers first, and the setter of the word wakes only when
// someone has (setNonZero): both sides store, then read the other's word, in one total order,
// so at least one of them sees the other.
bool waitNonZero(Uint32* word, Sint64 deadline, Uint32* sleepers) {
    // A thread that is about to end usually does so within a few microseconds: spin briefly
    // before sleeping in the kernel.
    for (int i = 0; i < 200; ++i) {
        if (__atomic_load_n(word, __ATOMIC_ACQUIRE) != 0) return true;
        YieldProcessor();
    }
    for (;;) {
        if (__atomic_load_n(word, __ATOMIC_ACQUIRE) != 0) return true;
        int left = leftMs(deadline);
        if (left == 0) return false;
        __atomic_store_n(sleepers, 1u, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != 0) return true;
        struct timespec ts = {left / 1000, (left % 1000) * 1000000L};
        futexWait(word, 0, left < 0 ? nullptr : &ts);
    }
}

void setNonZero(Uint32* word, Uint32 value, Uint32* sleepers) {
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(sleepers, __ATOMIC_SEQ_CST) != 0) futexWake(word);
}

// ---- threads

struct ThreadRecord {
    HandleRecord head;
    THREAD_START_ROUTINE start;
    void* arg;
    Uint32 tid;       // 0 until the thread has told its identifier
    Uint32 done;      // 1 once the thread has ended
    Uint32 sleepers;  // non-zero once someone has slept on tid or done
    Uint32 refs;      // the handle's and the thread's
    Uint32 exitCode;
};

thread_local ThreadRecord* t_current = nullptr;

void releaseThread(ThreadRecord* r) {
    if (__atomic_sub_fetch(&r->refs, 1, __ATOMIC_ACQ_REL) == 0) free(r);
}

void finishThread(ThreadRecord* r, Uint32 exitCode) {
    t_current = nullptr;
    r->exitCode = exitCode;
    setNonZero(&r->done, 1, &r->sleepers);
    releaseThread(r);
}

// A thread that leaves by pthread_exit, around _endthreadex, is still seen to end: the C
// library's unwinding runs this destructor.
struct ThreadEnd {
    ThreadRecord* r;
    ~ThreadEnd() {
        if (t_current == r) finishThread(r, 0);
    }
};

void* threadEntry(void* p) {
    ThreadRecord* r = static_cast<ThreadRecord*>(p);
    setNonZero(&r->tid, GetCurrentThreadId(), &r->sleepers);
    t_current = r;
    ThreadEnd end{r};
    const Uint32 code = r->start(r->arg);
    if (t_current == r) finishThread(r, code);
    return nullptr;
}

BOOL closeThread(HandleRecord* h) {
    releaseThread(reinterpret_cast<ThreadRecord*>(h));
    return 1;
}

Uint32 waitThread(HandleRecord* h, Uint32 milliseconds) {
    ThreadRecord* r = reinterpret_cast<ThreadRecord*>(h);
    if (__atomic_load_n(&r->done, __ATOMIC_ACQUIRE)) return WAIT_OBJECT_0;
    if (milliseconds == 0) return WAIT_TIMEOUT;
    return waitNonZero(&r->done, deadlineFor(milliseconds), &r->sleepers) ? WAIT_OBJECT_0
                                                                          : WAIT_TIMEOUT;
}

// The least stack a thread is given. The C library's own minimum leaves no room for the static
// thread-local blocks of the process's libraries (it can be refused with EINVAL), nor for the
// frames of a sanitizer build; 64 KiB holds both.
size_t minimumStack() {
    long m = sysconf(_SC_THREAD_STACK_MIN);
    size_t least = m > 0 ? static_cast<size_t>(m) : 16384;
    return least < 65536 ? 65536 : least;
}

// ---- command lines

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// ---- processes

struct ProcessRecord {
    HandleRecord head;
    pid_t pid;
    int pidfd;   // -1 where the kernel has none
    bool ours;   // a child of this process (not orphaned)
    bool ended;  // seen to end; a child of ours has been reaped then
    Uint32 exitCode;
    Uint32 codeError;  // once ended: 0 if exitCode is known, else what GetExitCodeProcess says
    pthread_mutex_t lock;
};

// Children whose handle was closed while they ran: reaped whenever a process call comes by.
// Only a direct user of this layer gets here; the library orphans what it won't wait for.
pthread_mutex_t s_abandonedLock = PTHREAD_MUTEX_INITIALIZER;
pid_t s_abandoned[256];
size_t s_abandonedCount = 0;

void reapAbandoned() {
    pthread_mutex_lock(&s_abandonedLock);
    for (size_t i = 0; i < s_abandonedCount;) {
        siginfo_t si;
        si.si_pid = 0;
        int rc = waitid(P_PID, static_cast<id_t>(s_abandoned[i]), &si, WEXITED | WNOHANG);
        if (rc == 0 && si.si_pid == 0) {
            ++i;
            continue;
        }
        s_abandoned[i] = s_abandoned[--s_abandonedCount];
    }
    pthread_mutex_unlock(&s_abandonedLock);
}

void abandon(pid_t pid) {
    pthread_mutex_lock(&s_abandonedLock);
    if (s_abandonedCount < sizeof s_abandoned / sizeof s_abandoned[0])
        s_abandoned[s_abandonedCount++] = pid;
    pthread_mutex_unlock(&s_abandonedLock);
}

// Under the record's lock: reaps a child of ours if it has ended (blocking: waits for it).
void reap(ProcessRecord* r, bool block) {
    siginfo_t si;
    si.si_pid = 0;
    const int options = WEXITED | (block ? 0 : WNOHANG);
    int rc;
    do {
        rc = r->pidfd >= 0 ? waitid(static_cast<idtype_t>(3 /* P_PIDFD */),
                                    static_cast<id_t>(r->pidfd), &si, options)
                           : waitid(P_PID, static_cast<id_t>(r->pid), &si, options);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        // Somebody else in this process reaped it (or SIGCHLD is ignored): it has ended, with
        // a code nobody can tell any more.
        r->ended = true;
        r->codeError = ERROR_WAIT_NO_CHILDREN;
        return;
    }
    if (si.si_pid == 0) return;  // still running
    r->ended = true;
    r->exitCode = si.si_code == CLD_EXITED ? static_cast<Uint32>(si.si_status)
                                           : 128u + static_cast<Uint32>(si.si_status);
}

// Under the lock: whether the process has ended, without waiting.
bool pollEnded(ProcessRecord* r) {
    if (r->ended) return true;
    if (r->ours) {
        reap(r, false);
    } else if (r->pidfd >= 0) {
        struct pollfd p = {r->pidfd, POLLIN, 0};
        if (poll(&p, 1, 0) > 0) r->ended = true, r->codeError = ERROR_ACCESS_DENIED;
    } else if (kill(r->pid, 0) != 0 && errno == ESRCH) {
        r->ended = true, r->codeError = ERROR_ACCESS_DENIED;
    }
    return r->ended;
}

Uint32 waitProcess(HandleRecord* h, Uint32 milliseconds) {
    ProcessRecord* r = reinterpret_cast<ProcessRecord*>(h);
    const Sint64 deadline = deadlineFor(milliseconds);
    for (;;) {
        pthread_mutex_lock(&r->lock);
        if (pollEnded(r)) {
            pthread_mutex_unlock(&r->lock);
            return WAIT_OBJECT_0;
        }
        if (milliseconds == INFINITE && r->ours && r->pidfd < 0) {
            reap(r, true);  // no pidfd to sleep on: the reaping wait is the sleep
            pthread_mutex_unlock(&r->lock);
            return WAIT_OBJECT_0;
        }
        pthread_mutex_unlock(&r->lock);
        int left = leftMs(deadline);
        if (left == 0) return WAIT_TIMEOUT;
        if (r->pidfd >= 0) {
            struct pollfd p = {r->pidfd, POLLIN, 0};
            if (poll(&p, 1, left) < 0 && errno != EINTR) {
                SetLastErrorFromErrno();
                return WAIT_FAILED;
            }
        } else {
            struct timespec ts = {0, 1000000};  // without a pidfd a timed wait polls
            nanosleep(&ts, nullptr);
        }
    }
}

BOOL closeProcess(HandleRecord* h) {
    ProcessRecord* r = reinterpret_cast<ProcessRecord*>(h);
    pthread_mutex_lock(&r->lock);
    if (r->ours && !pollEnded(r)) abandon(r->pid);
    pthread_mutex_unlock(&r->lock);
    if (r->pidfd >= 0) close(r->pidfd);
    pthread_mutex_destroy(&r->lock);
    free(r);
    reapAbandoned();
    return 1;
}

// The child's "first thread": the child itself. Closing its handle does nothing.
BOOL closeNothing(HandleRecord*) {
    return 1;
}
HandleRecord s_childThread = {HANDLE_MAGIC, HANDLE_KIND_THREAD, closeNothing, nullptr};

int pidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

ssize_t readFull(int fd, void* buffer, size_t size) {
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, static_cast<char*>(buffer) + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

pid_t waitChild(pid_t pid) {
    int status;
    pid_t rc;
    do rc = waitpid(pid, &status, 0);
    while (rc < 0 && errno == EINTR);
    return rc;
}

// Everything posix_spawn needs, made before anything forks.
struct Spawn {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    const char* program;
    char** argv;
    char** envp;
    bool search;  // no "/" in the program: look it up on PATH

    int run(pid_t* pid) const {
        return search ? posix_spawnp(pid, program, &actions, &attr, argv, envp)
                      : posix_spawn(pid, program, &actions, &attr, argv, envp);
    }
};

// Starts the child through an intermediate that is gone before this returns: the child is
// then the reaper's. The intermediate reports the child's pid (or the spawn's error) and waits
// until this side holds a pidfd of the child, so that the pid can't have been reused by then.
int spawnOrphan(const Spawn& s, pid_t* child, int* pidfd) {
    int report[2], go[2];
    if (pipe2(report, O_CLOEXEC) != 0) return errno;
    if (pipe2(go, O_CLOEXEC) != 0) {
        int e = errno;
        close(report[0]), close(report[1]);
        return e;
    }
    pid_t mid = fork();
    if (mid == 0) {
        close(report[0]);
        close(go[1]);
        int msg[2] = {0, 0};
        pid_t pid = 0;
        msg[1] = s.run(&pid);
        msg[0] = static_cast<int>(pid);
        ssize_t ignored = write(report[1], msg, sizeof msg);
        (void)ignored;
        char byte;
        while (read(go[0], &byte, 1) < 0 && errno == EINTR) {
        }
        _exit(0);
    }
    int e = mid < 0 ? errno : 0;
    close(report[1]);
    close(go[0]);
    if (e == 0) {
        int msg[2] = {0, 0};
        if (readFull(report[0], msg, sizeof msg) != sizeof msg)
            e = ECHILD;
        else
            e = msg[1];
        if (e == 0) {
            *child = static_cast<pid_t>(msg[0]);
            *pidfd = pidfdOpen(*child);
        }
    }
    close(go[1]);
    close(report[0]);
    if (mid > 0) waitChild(mid);
    return e;
}

Uint32 spawnError(int err, const Spawn& s) {
    switch (err) {
        case ENOENT:
            return s.search ? ERROR_FILE_NOT_FOUND : NotFoundError(s.program);
        case EISDIR:
        case EACCES:
        case EPERM:
            return ERROR_ACCESS_DENIED;
        case ENOEXEC:
        case ELIBBAD:
            return ERROR_BAD_EXE_FORMAT;
        default:
            return TranslateErrno(err);
    }
}

// ---- libraries

struct LibraryRecord {
    HandleRecord head;
    void* dl;      // dlopen's handle; null for a data file
    void* data;    // a data file's mapping
    size_t bytes;  // its size
    bool freeing;  // FreeLibrary is closing it
};

// A module handle isn't a kernel object: CloseHandle refuses it (6) and keeps it open. Only
// FreeLibrary, which marks the record first, gets through, so that the handle's slot is given
// back the one way every handle's is.
BOOL closeLibrary(HandleRecord* h) {
    LibraryRecord* r = reinterpret_cast<LibraryRecord*>(h);
    if (!r->freeing) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (r->dl != nullptr) {
        if (dlclose(r->dl) != 0) dlerror();
    } else {
        munmap(r->data, r->bytes);
    }
    free(r);
    return 1;
}

// The handle of a loaded library or data file; undoes the load when no handle can be had.
HANDLE libraryHandle(void* dl, void* data, size_t bytes) {
    LibraryRecord* r = static_cast<LibraryRecord*>(calloc(1, sizeof(LibraryRecord)));
    HANDLE h = nullptr;
    if (r != nullptr) {
        r->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_LIBRARY, closeLibrary, nullptr};
        r->dl = dl, r->data = data, r->bytes = bytes;
        h = HandleFor(&r->head);
    }
    if (h == nullptr) {
        free(r);
        if (dl != nullptr)
            dlclose(dl);
        else
            munmap(data, bytes);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return h;
}

bool contains(const char* text, const char* word) {
    return text && strstr(text, word);
}

// What the loader's refusal of `name` means in the platform's numbers. The file itself is
// looked at where a path names it; the rest goes by the loader's message, which is read and
// never printed.
Uint32 loadError(const char* name, const char* why) {
    if (strchr(name, '/') != nullptr) {
        int fd = open(name, O_RDONLY | O_CLOEXEC);
        if (fd < 0) return errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_MOD_NOT_FOUND;
        unsigned char ident[EI_NIDENT + 4] = {};
        ssize_t n = read(fd, ident, sizeof ident);
        int readErr = errno;
        close(fd);
        if (n < 0) return readErr == EISDIR ? ERROR_ACCESS_DENIED : ERROR_MOD_NOT_FOUND;
        if (n < static_cast<ssize_t>(sizeof ident) || memcmp(ident, ELFMAG, SELFMAG) != 0)
            return ERROR_BAD_EXE_FORMAT;
    }
    if (contains(why, "undefined symbol")) return ERROR_PROC_NOT_FOUND;
    if (contains(why, "No such file")) return ERROR_MOD_NOT_FOUND;
    if (contains(why, "Permission denied")) return ERROR_ACCESS_DENIED;
    if (contains(why, "ELF") || contains(why, "too short") || contains(why, "executable"))
        return ERROR_BAD_EXE_FORMAT;
    return ERROR_MOD_NOT_FOUND;
}

HANDLE loadDataFile(const char* name) {
    int fd = open(name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SetLastError(errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    struct stat st;
    unsigned char ident[SELFMAG];
    void* data = MAP_FAILED;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || pread(fd, ident, SELFMAG, 0) != SELFMAG ||
        memcmp(ident, ELFMAG, SELFMAG) != 0) {
        SetLastError(S_ISDIR(st.st_mode) ? ERROR_ACCESS_DENIED : ERROR_BAD_EXE_FORMAT);
    } else {
        data = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
        if (data == MAP_FAILED) SetLastErrorFromErrno();
    }
    close(fd);
    if (data == MAP_FAILED) return nullptr;
    return libraryHandle(nullptr, data, static_cast<size_t>(st.st_size));
}

}  // namespace

// ---- threads

HANDLE _beginthreadex(void*, Uint32 stackSize, THREAD_START_ROUTINE start, void* arg,
                      Uint32 initFlag, Uint32* threadId) {
    if (start == nullptr || initFlag != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    ThreadRecord* r = static_cast<ThreadRecord*>(calloc(1, sizeof(ThreadRecord)));
    if (r == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    r->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_THREAD, closeThread, waitThread};
    r->start = start;
    r->arg = arg;
    r->refs = 2;

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    if (stackSize != 0) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_t bytes = stackSize < minimumStack() ? minimumStack() : stackSize;
        bytes = (bytes + page - 1) / page * page;
        pthread_attr_setstacksize(&attr, bytes);
    }
    // The handle first: once the thread runs, there is no way back.
    HANDLE h = HandleFor(&r->head);
    if (h == nullptr) {
        pthread_attr_destroy(&attr);
        free(r);
        return nullptr;
    }
    pthread_t thread;
    int err = pthread_create(&thread, &attr, threadEntry, r);
    pthread_attr_destroy(&attr);
    if (err != 0) {
        r->refs = 1;  // no thread holds it: the close frees it
        CloseHandle(h);
        SetLastError(err == EAGAIN ? ERROR_NOT_ENOUGH_MEMORY : TranslateErrno(err));
        return nullptr;
    }
    // The identifier is the kernel's. The C library learnt it from the clone and shows it in
    // the thread's CPU-time clock id, whose encoding is the kernel's: the complement of the id
    // shifted left by three, and 6 (per thread, scheduler time) in the low bits. The thread is
    // still joinable here, so its record can be read even if it has already ended; but then the
    // kernel has cleared the id there, and the one the thread told on its way is waited for.
    clockid_t clock;
    Uint32 tid = 0;
    if (pthread_getcpuclockid(thread, &clock) == 0 && (clock & 7) == 6)
        tid = static_cast<Uint32>(~(clock >> 3));
    if (tid == 0) {
        waitNonZero(&r->tid, -1, &r->sleepers);
        tid = r->tid;
    }
    pthread_detach(thread);
    if (threadId != nullptr) *threadId = tid;
    return h;
}

void _endthreadex(Uint32 exitCode) {
    if (ThreadRecord* r = t_current) finishThread(r, exitCode);
    pthread_exit(nullptr);
}

// ---- command lines

size_t CommandLineSplit(const char* line, char* out) {
    size_t words = 0;
    const char* p = line;
    while (isBlank(*p)) ++p;
    if (*p == 0) return 0;

    // The program: quotes group, nothing escapes.
    bool quoted = false;
    for (; *p && (quoted || !isBlank(*p)); ++p) {
        if (*p == '"')
            quoted = !quoted;
        else
            *out++ = *p;
    }
    *out++ = 0;
    ++words;

    for (;;) {
        while (isBlank(*p)) ++p;
        if (*p == 0) return words;
        quoted = false;
        while (*p && (quoted || !isBlank(*p))) {
            if (*p == '\\') {
                size_t n = 0;
                while (*p == '\\') ++n, ++p;
                if (*p == '"') {
                    for (size_t i = 0; i < n / 2; ++i) *out++ = '\\';
                    if (n % 2) {
                        *out++ = '"';
                        ++p;
                    }
                    // An even count leaves the quote to group, below.
                } else {
                    for (size_t i = 0; i < n; ++i) *out++ = '\\';
                }
                continue;
            }
            if (*p == '"') {
                if (quoted && p[1] == '"') {
                    *out++ = '"';
                    p += 2;
                    continue;
                }
                quoted = !quoted;
                ++p;
                continue;
            }
            *out++ = *p++;
        }
        *out++ = 0;
        ++words;
    }
}

// ---- processes

BOOL CreateProcessA(const char* applicationName, char* commandLine, void*, void*,
                    BOOL inheritHandles, Uint32 creationFlags, void* environment,
                    const char* currentDirectory, STARTUPINFOA*,
                    PROCESS_INFORMATION* processInformation) {
    if (applicationName != nullptr || commandLine == nullptr || processInformation == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    reapAbandoned();

    // The words, one allocation for their text and one for the vectors.
    const size_t length = strlen(commandLine);
    size_t envCount = 0;
    if (environment != nullptr)
        for (const char* e = static_cast<const char*>(environment); *e; e += strlen(e) + 1)
            ++envCount;
    char* text = static_cast<char*>(malloc(length + 1));
    char** vectors = static_cast<char**>(malloc(sizeof(char*) * (length + 2 + envCount + 1)));
    ProcessRecord* r = static_cast<ProcessRecord*>(calloc(1, sizeof(ProcessRecord)));
    if (text == nullptr || vectors == nullptr || r == nullptr) {
        free(text), free(vectors), free(r);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    const size_t words = CommandLineSplit(commandLine, text);
    if (words == 0) {
        free(text), free(vectors), free(r);
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    Spawn s;
    s.argv = vectors;
    char* w = text;
    for (size_t i = 0; i < words; ++i, w += strlen(w) + 1) s.argv[i] = w;
    s.argv[words] = nullptr;
    s.envp = environ;
    if (environment != nullptr) {
        s.envp = vectors + words + 1;
        char* e = static_cast<char*>(environment);
        for (size_t i = 0; i < envCount; ++i, e += strlen(e) + 1) s.envp[i] = e;
        s.envp[envCount] = nullptr;
    }
    s.program = s.argv[0];
    s.search = strchr(s.program, '/') == nullptr;

    posix_spawn_file_actions_init(&s.actions);
    posix_spawnattr_init(&s.attr);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (creationFlags & DETACHED_PROCESS) flags |= POSIX_SPAWN_SETSID;
    posix_spawnattr_setflags(&s.attr, flags);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&s.attr, &none);
    posix_spawnattr_setsigdefault(&s.attr, &all);
    int err = 0;
    if (!inheritHandles) err = posix_spawn_file_actions_addclosefrom_np(&s.actions, 3);
    if (err == 0 && currentDirectory != nullptr)
        err = posix_spawn_file_actions_addchdir_np(&s.actions, currentDirectory);

    // The handles first: once the child runs, there is no way back. Until then the record
    // stands for a process that has ended, so that closing it reaps nothing.
    r->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_PROCESS, closeProcess, waitProcess};
    r->pidfd = -1;
    r->ended = true;
    pthread_mutex_init(&r->lock, nullptr);
    HANDLE process = HandleFor(&r->head);
    HANDLE thread = process ? HandleFor(&s_childThread) : nullptr;
    if (thread == nullptr && err == 0) err = ENOMEM;

    pid_t pid = 0;
    int pidfd = -1;
    const bool orphan = (creationFlags & CREATE_ORPHANED) != 0;
    if (err == 0) {
        if (orphan) {
            err = spawnOrphan(s, &pid, &pidfd);
        } else {
            err = s.run(&pid);
            if (err == 0) pidfd = pidfdOpen(pid);
        }
    }
    posix_spawn_file_actions_destroy(&s.actions);
    posix_spawnattr_destroy(&s.attr);
    const Uint32 error = err == 0 ? 0 : spawnError(err, s);
    free(text);
    free(vectors);
    if (err != 0) {
        if (thread != nullptr) CloseHandle(thread);
        if (process != nullptr)
            CloseHandle(process);
        else
            pthread_mutex_destroy(&r->lock), free(r);
        SetLastError(error);
        return 0;
    }
    r->pid = pid;
    r->pidfd = pidfd;
    r->ours = !orphan;
    r->ended = false;
    processInformation->hProcess = process;
    processInformation->hThread = thread;
    processInformation->dwProcessId = static_cast<Uint32>(pid);
    processInformation->dwThreadId = static_cast<Uint32>(pid);
    return 1;
}

BOOL GetExitCodeProcess(HANDLE process, Uint32* exitCode) {
    ProcessRecord* r = reinterpret_cast<ProcessRecord*>(HandleOfKind(process, HANDLE_KIND_PROCESS));
    if (r == nullptr) return 0;
    pthread_mutex_lock(&r->lock);
    const bool ended = pollEnded(r);
    const Uint32 code = r->exitCode, error = r->codeError;
    pthread_mutex_unlock(&r->lock);
    if (!ended) {
        *exitCode = STILL_ACTIVE;
        return 1;
    }
    if (error != 0) {
        SetLastError(error);
        return 0;
    }
    *exitCode = code;
    return 1;
}

void ExitProcess(Uint32 exitCode) {
    exit(static_cast<int>(exitCode));
}

// ---- libraries

HANDLE LoadLibraryExA(const char* fileName, HANDLE file, Uint32 flags) {
    if (fileName == nullptr || file != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (flags & LOAD_LIBRARY_AS_DATAFILE) return loadDataFile(fileName);
    const int mode = ((flags & DONT_RESOLVE_DLL_REFERENCES) ? RTLD_LAZY : RTLD_NOW) | RTLD_LOCAL;
    void* dl = dlopen(fileName, mode);
    if (dl == nullptr) {
        SetLastError(loadError(fileName, dlerror()));
        return nullptr;
    }
    return libraryHandle(dl, nullptr, 0);
}

void* GetProcAddress(HANDLE module, const char* procName) {
    LibraryRecord* r = reinterpret_cast<LibraryRecord*>(HandleOfKind(module, HANDLE_KIND_LIBRARY));
    if (r == nullptr) return nullptr;
    if (procName == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    void* address = nullptr;
    if (r->dl != nullptr) {
        dlerror();
        address = dlsym(r->dl, procName);
        if (address == nullptr) dlerror();  // forget the message
    }
    if (address == nullptr) SetLastError(ERROR_PROC_NOT_FOUND);
    return address;
}

BOOL FreeLibrary(HANDLE module) {
    LibraryRecord* r = reinterpret_cast<LibraryRecord*>(HandleOfKind(module, HANDLE_KIND_LIBRARY));
    if (r == nullptr) return 0;
    r->freeing = true;
    return CloseHandle(module);
}

}  // namespace zepos
