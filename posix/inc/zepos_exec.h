// zepos_exec.h - stand-ins of the OS layer for running code: threads (_beginthreadex,
// _endthreadex), child processes (CreateProcessA, GetExitCodeProcess, ExitProcess) and the
// dynamic loader (LoadLibraryExA, GetProcAddress, FreeLibrary). docs/process.md says how each
// maps to Linux; the contracts callers rely on are here.
//
// Threads. A thread is a POSIX thread, detached once it is made: its handle (kind
// HANDLE_KIND_THREAD) is what waits for it, through WaitForSingleObject, which returns once the
// start routine has returned or the thread has called _endthreadex. The handle and the thread
// each keep the record alive, so a handle may be closed while the thread runs and a thread may
// end before anybody waits. The identifier handed back is the kernel's thread id, the one the
// frame and the log show for that thread; it is known when _beginthreadex returns.
//
// Processes. The child's argument vector is split from the one command line by the design
// platform's rules (CommandLineSplit below), the program is found with "/" as given, else on
// PATH, and it is started with posix_spawn. A program that can't be started fails inside the
// call: 2 not found, 5 not allowed, 193 not an executable (a file without "#!" that isn't a
// binary is not run by a shell). The handle (kind HANDLE_KIND_PROCESS) waits on a pidfd and
// reaps the child once it has ended; closing it reaps what has ended. A child whose handle is
// closed while it still runs would stay behind as a zombie once it ends, so callers that won't
// wait ask for CREATE_ORPHANED: the child is then started by a short-lived intermediate and
// belongs to the system's reaper from the start.
//
// Libraries. dlopen with RTLD_LOCAL; the handle (kind HANDLE_KIND_LIBRARY) is an HMODULE:
// CloseHandle refuses it, as on the platform. Nothing is ever printed: dlerror's text is read
// only to tell the failure's kind (126 missing, 193 not a library, 127 an unresolved symbol).
#ifndef ZEPOS_EXEC_H
#define ZEPOS_EXEC_H

#include <stddef.h>

#include "zeptypes.h"

namespace zepos {

inline constexpr Uint32 ERROR_MOD_NOT_FOUND = 126;
inline constexpr Uint32 ERROR_PROC_NOT_FOUND = 127;
inline constexpr Uint32 STILL_ACTIVE = 259;

// ---- threads

typedef unsigned (*THREAD_START_ROUTINE)(void*);

// Starts `start(arg)` on a new thread with a stack of `stackSize` bytes (0: the system's default;
// a size below the minimum a thread can run in is raised to it). The security attributes are
// not read and `initFlag` must be 0 (87 otherwise: a thread can't be created suspended here).
// Returns the thread's handle, or null with the last error (8 when the system has no thread
// left to give). `threadId`, if given, receives the thread's identifier.
HANDLE _beginthreadex(void* security, Uint32 stackSize, THREAD_START_ROUTINE start, void* arg,
                      Uint32 initFlag, Uint32* threadId);

// Ends the calling thread by pthread_exit, after its waiters have been told (so a waiter may
// return while the thread unwinds; the C library runs the destructors of its C++ frames, which
// the platform wouldn't). On a thread that _beginthreadex didn't start it just ends the thread.
[[noreturn]] void _endthreadex(Uint32 exitCode);

// ---- processes

enum : Uint32 {
    DETACHED_PROCESS = 0x00000008u,
    NORMAL_PRIORITY_CLASS = 0x00000020u,
    // This layer's own: the caller won't wait for the child and closes its handle at once. The
    // child is started by an intermediate process that ends right after, so the child is the
    // system reaper's and no zombie of it ever stays in the caller; its handle still waits for
    // its end, but its exit code can't be known (GetExitCodeProcess gives STILL_ACTIVE while it
    // runs, then fails with 5).
    CREATE_ORPHANED = 0x80000000u,

    STARTF_USESHOWWINDOW = 0x1u,
    SW_HIDE = 0,
};

// The platform's start-up record as the library fills it: `cb` its size in the design's
// 32-bit form (68), a hidden window. There are no windows here; the record is accepted and not
// read.
struct STARTUPINFOA {
    Uint32 cb;
    Uint32 dwFlags;
    Uint16 wShowWindow;
};

struct PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;  // a handle of kind HANDLE_KIND_THREAD that only CloseHandle accepts
    Uint32 dwProcessId;
    Uint32 dwThreadId;  // the child's first thread is the child itself: its process id
};

// Starts the program named by the first word of `commandLine` (`applicationName` must be null)
// with the words as its arguments. DETACHED_PROCESS gives the child a session of its own (no
// controlling terminal, no signals from the caller's terminal). Without `inheritHandles` the
// child gets none of the caller's descriptors but 0, 1 and 2; with it, every descriptor that
// isn't close-on-exec. `environment` is a block of "name=value" strings, each ended by a NUL,
// the block by an empty string; null gives the caller's environment. `currentDirectory` is the
// child's working directory, null the caller's. The child starts with no signal blocked and
// every signal at its default action. The security attributes are not read; other creation
// flags are ignored. FALSE with the last error: 2, 3, 5, 193, 87 for an empty command line or an
// application name, 8 when the system has no process to give.
BOOL CreateProcessA(const char* applicationName, char* commandLine, void* processAttributes,
                    void* threadAttributes, BOOL inheritHandles, Uint32 creationFlags,
                    void* environment, const char* currentDirectory, STARTUPINFOA* startupInfo,
                    PROCESS_INFORMATION* processInformation);

// The child's exit code: what it passed to exit, or 128 + the signal's number when a signal
// ended it (what a shell reports). STILL_ACTIVE while it runs. Fails with 6 for a handle that
// isn't a process's, and with 5 for an orphaned child that has ended (its code went to the
// reaper), or with 128 when something else in this process reaped the child first.
BOOL GetExitCodeProcess(HANDLE process, Uint32* exitCode);

// Ends the process with `exitCode` after the exit handlers (the library's end pass among them).
[[noreturn]] void ExitProcess(Uint32 exitCode);

// Splits a command line as the design platform's runtime does: blanks (space, tab) separate
// words outside double quotes; double quotes group and are dropped; inside quotes two double
// quotes give one; 2n backslashes before a double quote give n backslashes and the quote
// groups, 2n+1 give n backslashes and a literal quote; other backslashes are literal. The first
// word, the program, knows no escapes: its double quotes only group. An unclosed quote runs to
// the end. Appends the words to `out` as NUL-ended strings one after the other and returns
// their count; `out` needs strlen(commandLine) + 1 bytes at most.
size_t CommandLineSplit(const char* commandLine, char* out);

// ---- libraries

enum : Uint32 {
    DONT_RESOLVE_DLL_REFERENCES = 0x1u,
    LOAD_LIBRARY_AS_DATAFILE = 0x2u,
    LOAD_WITH_ALTERED_SEARCH_PATH = 0x8u,
    LOAD_IGNORE_CODE_AUTHZ_LEVEL = 0x10u,
};

// Loads a shared library: a name with "/" from that path, any other name by the loader's own
// search. Every reference is resolved at load (RTLD_NOW), DONT_RESOLVE_DLL_REFERENCES defers
// function references to their first call (RTLD_LAZY). LOAD_LIBRARY_AS_DATAFILE maps the file
// read-only and runs none of its code; GetProcAddress then finds nothing in it. The other two
// flags have no counterpart and are accepted. `file` must be null. Null on failure with 126
// (missing, or a library it needs is missing), 193 (not a shared library of this machine), 127
// (a symbol it needs is missing), 5 (not readable), 87 (a null name or a file handle).
HANDLE LoadLibraryExA(const char* fileName, HANDLE file, Uint32 flags);

// The address of `procName` in the library; null with 127 if it has none, 6 for a handle that
// isn't a library's.
void* GetProcAddress(HANDLE module, const char* procName);

// Unloads once; the handle is gone afterwards. FALSE with 6 for a handle that isn't a library's.
BOOL FreeLibrary(HANDLE module);

}  // namespace zepos

#endif
