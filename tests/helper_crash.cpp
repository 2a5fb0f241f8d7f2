// A process that crashes in a chosen way with a crash handler that writes a trap file.
//
//   helper_crash MODE TRAPFILE
//     null      a null write three calls deep in this file's functions
//     abort     abort() three calls deep
//     overflow  a stack overflow in a thread (the handler runs on the thread's alternate stack)
//     malloc    a fault while malloc holds its arena lock (a stream callback of malloc_stats)
//     heldlock  a null write while another thread holds two of the symbol engine's mutexes
//     memory    a null write, with the memory section in the trap file
//   helper_crash mutexnames NAME   prints this process's mutex of StackWalk and the count of NAME
//   helper_crash countedinit -     initializes the engine twice in a fresh process, prints results
//
// The lines marked CRASH-SITE are where each crash happens; the tests find them by the mark.
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
#include "zepos.h"

namespace {

const char* g_trapPath = nullptr;
Uint32 g_mask = ZEP_TRAP_ALL_BUT_MEMORY;

void onCrash(int, siginfo_t* si, void* context) {
    ZEPTrapFile trap;
    if (trap.open(g_trapPath, ZEP_PRIMFILE_CREATE) == 0) {
        trap.initialize(0, si, static_cast<ucontext_t*>(context), nullptr);
        trap.dump(g_mask, 0, si, static_cast<ucontext_t*>(context));
        trap.close();
    }
    // SA_RESETHAND gave the signal its default action back: returning lets it end the process.
}

void alternateStack() {
    stack_t ss;
    ss.ss_size = 256 * 1024;
    ss.ss_sp =
        mmap(nullptr, ss.ss_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ss.ss_flags = 0;
    sigaltstack(&ss, nullptr);
}

void installHandlers() {
    alternateStack();
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = onCrash;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) sigaction(sig, &sa, nullptr);
}

// What a product does once at start-up, so that the handler needs no lock and no allocation.
void prepare() {
    zepLoadSymDLL();
    zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 0);
    zepEnumerateLoadedModules(ZEP_CURRENT_PROCESS, nullptr, nullptr);
}

int* volatile g_null = nullptr;

// The crashes are the point: the undefined-behaviour sanitizer's null check must not stop them
// first.
#define ZEP_REAL_CRASH __attribute__((noinline, no_sanitize("null")))

ZEP_REAL_CRASH ssize_t crashingWrite(void*, const char*, size_t) {
    *g_null = 3;  // CRASH-SITE malloc
    return 0;
}

}  // namespace

extern "C" {
ZEP_REAL_CRASH int crashLevel3(int how) {
    if (how == 1) abort();  // CRASH-SITE abort
    if (how == 2) {
        // malloc_stats writes to stderr while it holds the main arena's lock.
        cookie_io_functions_t io = {nullptr, crashingWrite, nullptr, nullptr};
        stderr = fopencookie(nullptr, "w", io);
        setvbuf(stderr, nullptr, _IONBF, 0);
        malloc_stats();
    }
    *g_null = how;  // CRASH-SITE null
    return how;
}
__attribute__((noinline)) int crashLevel2(int how) {
    return crashLevel3(how) + 1;
}
__attribute__((noinline)) int crashLevel1(int how) {
    return crashLevel2(how) + 1;
}

volatile int g_deepest = 1 << 30;  // never reached: the stack ends first
__attribute__((noinline)) int overflowRecurse(int depth) {
    volatile char pad[1024];
    pad[depth % sizeof pad] = static_cast<char>(depth);  // CRASH-SITE overflow
    if (depth == g_deepest) return 0;
    return overflowRecurse(depth + 1) + pad[0];
}
}

namespace {

void* overflowThread(void*) {
    alternateStack();
    overflowRecurse(0);
    return nullptr;
}

volatile int g_heldReady = 0;

void* holder(void*) {
    const std::string pid = std::to_string(getpid());
    zepos::HANDLE sym = zepos::sym::CreateMutexA(nullptr, 0, ("SymGetSymFromAddr-" + pid).c_str());
    zepos::HANDLE walk = zepos::sym::CreateMutexA(nullptr, 0, ("StackWalk-" + pid).c_str());
    zepos::WaitForSingleObject(sym, zepos::INFINITE);
    zepos::WaitForSingleObject(walk, zepos::INFINITE);
    __atomic_store_n(&g_heldReady, 1, __ATOMIC_RELEASE);
    // The walk's mutex comes free after a while; the symbol look-up's never does.
    usleep(300 * 1000);
    zepos::sym::ReleaseMutex(walk);
    for (;;) pause();
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: helper_crash MODE TRAPFILE\n");
        return 2;
    }
    const std::string mode = argv[1];
    if (mode == "mutexnames") {
        zepLoadSymDLL();
        const std::string own = "StackWalk-" + std::to_string(getpid());
        printf("own %s %u\n", own.c_str(), zepos::sym::MutexHandleCount(own.c_str()));
        printf("parent %s %u\n", argv[2], zepos::sym::MutexHandleCount(argv[2]));
        return 0;
    }
    if (mode == "countedinit") {
        zepLoadSymDLL();
        zepos::SetLastError(4242);
        const int first = zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 1);
        zepos::SetLastError(4242);
        const int second = zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 1);
        const Uint32 error = zepos::GetLastError();
        const int cleanup = zepSymCleanup(ZEP_CURRENT_PROCESS);
        char name[64];
        zepSymbolNameForAddress(reinterpret_cast<uintptr_t>(&crashLevel2), name, sizeof name,
                                nullptr);
        printf("first=%d second=%d error=%u cleanup=%d name=%s\n", first, second, error, cleanup,
               name);
        return 0;
    }
    g_trapPath = argv[2];
    prepare();
    installHandlers();
    if (mode == "null") return crashLevel1(0);
    if (mode == "abort") return crashLevel1(1);
    if (mode == "memory") {
        g_mask |= ZEP_TRAP_MEMORY;
        return crashLevel1(0);
    }
    if (mode == "malloc") {
#if defined(__SANITIZE_ADDRESS__)
        // The sanitizer's allocator replaces malloc and its arena lock: there is no such crash.
        return 77;
#else
        return crashLevel1(2);
#endif
    }
    if (mode == "overflow") {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, 256 * 1024);
        pthread_t t;
        pthread_create(&t, &attr, overflowThread, nullptr);
        pthread_join(t, nullptr);
        return 1;
    }
    if (mode == "heldlock") {
        pthread_t t;
        pthread_create(&t, nullptr, holder, nullptr);
        while (!__atomic_load_n(&g_heldReady, __ATOMIC_ACQUIRE)) usleep(1000);
        return crashLevel1(0);
    }
    fprintf(stderr, "helper_crash: unknown mode %s\n", mode.c_str());
    return 2;
}
