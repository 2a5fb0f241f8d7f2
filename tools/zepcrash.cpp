// zepcrash - an example crash handler: how a product captures its crashes in trap files.
//
//   zepcrash [--memory] [null|abort|fpe|ill|bus|overflow|malloc] [TRAPFILE]
//
// At start-up it prepares the symbol engine (the one-time work a handler must not do), gives
// every thread that may crash an alternate signal stack, and installs one handler for SIGSEGV,
// SIGBUS, SIGILL, SIGFPE and SIGABRT. Then it crashes in the way asked, three calls deep. The
// handler writes a trap file with every section (the memory section with --memory), says where,
// and returns: the handler was installed with SA_RESETHAND, so the signal's default action ends
// the process as it would have without the handler, with a core dump where those are enabled.
// Read the file with zeptrap. "malloc" faults inside the C library while it holds its allocator's
// lock: the handler must neither allocate nor take that lock.
//
// The crash tests' helper builds this file too, with ZEPCRASH_MAIN naming its entry point.
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "zep.h"

namespace {

char g_trapPath[ZEP_MAX_PATH + 1];
Uint32 g_mask = ZEP_TRAP_ALL_BUT_MEMORY;

// Only system calls here: the process is in an unknown state.
void say(const char* a, const char* b = "", const char* c = "") {
    for (const char* s : {a, b, c}) {
        ssize_t ignored = write(2, s, strlen(s));
        (void)ignored;
    }
}

void onCrash(int, siginfo_t* si, void* context) {
    ucontext_t* uc = static_cast<ucontext_t*>(context);
    ZEPTrapFile trap;
    if (trap.open(g_trapPath, ZEP_PRIMFILE_CREATE) != 0) {
        say("zepcrash: can't write ", g_trapPath, "\n");
        return;
    }
    trap.initialize(0, si, uc, nullptr);
    trap.dump(g_mask, 0, si, uc);
    trap.close();
    say("zepcrash: wrote ", g_trapPath, "; read it with: zeptrap ");
    say(g_trapPath, "\n");
}

// Each thread that may crash needs its own: a stack overflow leaves no room on the thread's stack.
void giveAlternateStack() {
    stack_t ss;
    ss.ss_size = 256 * 1024;
    ss.ss_sp =
        mmap(nullptr, ss.ss_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ss.ss_flags = 0;
    if (ss.ss_sp != MAP_FAILED) sigaltstack(&ss, nullptr);
}

void prepare() {
    zepLoadSymDLL();
    zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 0);
    zepEnumerateLoadedModules(ZEP_CURRENT_PROCESS, nullptr, nullptr);
    giveAlternateStack();
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = onCrash;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) sigaction(sig, &sa, nullptr);
}

int* volatile g_null = nullptr;
volatile int g_zero = 0;
volatile int g_deepest = 1 << 30;

// malloc_stats writes to stderr while it holds the main arena's lock: this is that write.
__attribute__((noinline, no_sanitize("null"))) ssize_t crashingWrite(void*, const char*, size_t) {
    *g_null = 2;
    return 0;
}

}  // namespace

extern "C" {
// Free of the undefined-behaviour sanitizer's null check: the crash is the point.
__attribute__((noinline, no_sanitize("null"))) int crashHere(const char* how) {
    if (strcmp(how, "abort") == 0) abort();
    if (strcmp(how, "fpe") == 0) {
        // The division itself, in the instruction that faults: a compiler may drop a division
        // by zero it can see as undefined.
        int a = 1, d = 0;
        asm volatile("idivl %2" : "+a"(a), "+d"(d) : "r"(g_zero));
        return a;
    }
    if (strcmp(how, "ill") == 0) __builtin_trap();
    if (strcmp(how, "malloc") == 0) {
        cookie_io_functions_t io = {nullptr, crashingWrite, nullptr, nullptr};
        stderr = fopencookie(nullptr, "w", io);
        setvbuf(stderr, nullptr, _IONBF, 0);
        malloc_stats();
    }
    if (strcmp(how, "bus") == 0) {
        // A page of a file mapping beyond the file's end.
        char path[] = "/tmp/zepcrashXXXXXX";
        const int fd = mkstemp(path);
        unlink(path);
        volatile char* p = static_cast<volatile char*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        return p[0];
    }
    *g_null = 1;
    return 0;
}
__attribute__((noinline)) int validateRecord(const char* how) {
    return crashHere(how) + 1;
}
__attribute__((noinline)) int processRequest(const char* how) {
    return validateRecord(how) + 1;
}

__attribute__((noinline)) int recurse(int depth) {
    volatile char pad[512];
    pad[depth % sizeof pad] = static_cast<char>(depth);
    if (depth == g_deepest) return 0;
    return recurse(depth + 1) + pad[0];
}
}

namespace {
void* overflowingThread(void*) {
    giveAlternateStack();
    recurse(0);
    return nullptr;
}
}  // namespace

#ifndef ZEPCRASH_MAIN
#define ZEPCRASH_MAIN main
#endif

int ZEPCRASH_MAIN(int argc, char** argv) {
    std::string how = "null";
    const char* path = nullptr;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            printf(
                "usage: zepcrash [--memory] [null|abort|fpe|ill|bus|overflow|malloc] [TRAPFILE]\n"
                "Crashes on purpose, three calls deep, and leaves a trap file (default\n"
                "zepcrash-PID.trap) for zeptrap to read. --memory adds the memory section.\n");
            return 0;
        }
        if (a == "--memory")
            g_mask |= ZEP_TRAP_MEMORY;
        else if (a == "null" || a == "abort" || a == "fpe" || a == "ill" || a == "bus" ||
                 a == "overflow" || a == "malloc")
            how = a;
        else if (a[0] != '-' && path == nullptr)
            path = argv[i];
        else {
            fprintf(stderr, "zepcrash: unknown argument %s (try --help)\n", argv[i]);
            return 2;
        }
    }
    if (path != nullptr)
        snprintf(g_trapPath, sizeof g_trapPath, "%s", path);
    else
        snprintf(g_trapPath, sizeof g_trapPath, "zepcrash-%d.trap", static_cast<int>(getpid()));
    unlink(g_trapPath);
    prepare();
    if (how == "overflow") {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, 512 * 1024);
        pthread_t t;
        pthread_create(&t, &attr, overflowingThread, nullptr);
        pthread_join(t, nullptr);
        return 1;
    }
    return processRequest(how.c_str());
}
