// zepos_proc.h - stand-ins of the OS layer for the code that runs when something has gone wrong:
// the debugger calls, the pointer tests, the console test, and the file calls of the primitive
// file on bare descriptors.
//
// Debugger. A debugger is attached when the kernel names a tracer of this process
// (TracerPid in /proc/self/status). OutputDebugStringA writes to the standard error stream,
// which is where a debugger on this system shows what its inferior says. DebugBreak raises
// SIGTRAP when a debugger is attached, so that it stops there and can continue the process, as
// it can on the platform; without one it calls abort(): SIGABRT reaches any handler the process
// installed (a crash capture), and then ends the process with a core dump.
//
// Pointer tests. The platform's IsBadReadPtr family probes the memory and catches the fault.
// Here nothing is touched in this process: reads are tried by the kernel, which copies one byte
// of each page of the range from this process into itself (process_vm_readv) and reports EFAULT
// for any page that can't be read; writability is read from the process's mappings
// (/proc/self/maps), and the pages must also pass the read test. What they tell apart: unmapped
// addresses, guard gaps, PROT_NONE pages, write-only pages (not readable on this system), pages
// of a file mapping beyond the file's end (a read would raise SIGBUS), read-only mappings for the
// write test. What they can't: memory that is mapped but belongs to somebody else (a freed heap
// block inside a live arena is readable and writable), a write that would fail for want of memory
// or quota (a copy-on-write or a shared file page that can't be allocated), and what another
// thread maps or unmaps right after the test. Where the kernel refuses process_vm_readv (some
// sandboxes filter it), the read test falls back to the mappings' read permission, which cannot
// see pages beyond a file's end. The tests allocate nothing and take no lock.
//
// Descriptor calls. The primitive file runs where allocation is unsafe (inside the allocator's
// reports, in a crash handler), so it holds a bare descriptor rather than a handle record of
// zepos_file.h, and its calls, in namespace zepos::fd, keep the contracts of the platform calls of
// the same names on such a descriptor: no allocation, nothing but system calls, safe in a signal
// handler. "No descriptor" is -1, all ones. Only what the primitive file uses is there: access
// GENERIC_READ, GENERIC_WRITE or both, and the dispositions OPEN_EXISTING and OPEN_ALWAYS (others
// fail with 87). The console handles of GetStdHandle are never closed through CloseHandle: the
// runtime's own streams still write to them, so closing one succeeds and leaves it open.
#ifndef ZEPOS_PROC_H
#define ZEPOS_PROC_H

#include <stdint.h>

#include "zeptypes.h"

namespace zepos {

// ---- the debugger

BOOL IsDebuggerPresent();
void OutputDebugStringA(const char* text);
void DebugBreak();

// ---- pointer tests: non-zero if any byte of the range can't be read (written)

// A size of 0 is good, as on the platform; a range that wraps around the address space is bad.
BOOL IsBadReadPtr(const void* p, uintptr_t size);
BOOL IsBadWritePtr(void* p, uintptr_t size);
// Good if the bytes up to the terminator, or `maximum` bytes without one, can be read.
BOOL IsBadStringPtrA(const char* text, uintptr_t maximum);

// ---- the console

// Non-zero if the descriptor refers to a terminal.
int _isatty(int descriptor);

inline constexpr Uint32 STD_INPUT_HANDLE = static_cast<Uint32>(-10);
inline constexpr Uint32 STD_OUTPUT_HANDLE = static_cast<Uint32>(-11);
inline constexpr Uint32 STD_ERROR_HANDLE = static_cast<Uint32>(-12);

namespace fd {

inline constexpr int INVALID_DESCRIPTOR = -1;

// A handle for the standard descriptor that `which` names, or -1 (last error 6) if it isn't
// open. It is a pseudo handle (the value of `which` itself), as the platform's console handles
// are: the calls below use the descriptor it stands for, and CloseHandle leaves that open.
// A file opened onto descriptor 0, 1 or 2 (the standard ones had been closed) is an ordinary
// handle, and CloseHandle closes it.
int GetStdHandle(Uint32 which);

// -1 on failure, with 2 or 3 for a missing file or directory, 5 for a directory or a refused
// access, 87 for another disposition or no access. The share mode is accepted and not enforced,
// as in zepos_file.h; attributes are not read.
int CreateFileA(const char* fileName, Uint32 desiredAccess, Uint32 shareMode,
                Uint32 creationDisposition, Uint32 flagsAndAttributes);

BOOL CloseHandle(int descriptor);

// One system call, no loop: a short count passes as success, as the platform's would.
BOOL WriteFile(int descriptor, const void* buffer, Uint32 toWrite, Uint32* written);
BOOL ReadFile(int descriptor, void* buffer, Uint32 toRead, Uint32* read);

// The contracts of GetFileSize and SetFilePointer of zepos_file.h.
Uint32 GetFileSize(int descriptor, Uint32* fileSizeHigh);
Uint32 SetFilePointer(int descriptor, Sint32 distanceLow, Sint32* distanceHigh, Uint32 moveMethod);

// Byte 0 locked exclusively, waiting for it: the lock the log's file target takes through
// LockFileEx, so that writers through either kind of handle exclude each other, in this process
// and in others.
BOOL LockFirstByte(int descriptor);
BOOL UnlockFirstByte(int descriptor);

}  // namespace fd

}  // namespace zepos

#endif
