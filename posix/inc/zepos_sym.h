// zepos_sym.h - the symbol engine of the OS layer: what stands behind the lock table of the
// stack family (core/src/zepstack.cpp).
//
// The library's crash capture was designed against a debug help library with 17 entries. On
// Linux the same jobs are done by:
//  - the dynamic loader's list of objects (dl_iterate_phdr) for the module enumeration, the
//    module base and the module information, with the build identifier read from each object's
//    notes in memory. This part allocates nothing and makes no call but the loader's, so a crash
//    handler may use it.
//  - the compiler runtime's unwinder (_Unwind_Backtrace over the objects' call-frame
//    information, found lock-free through _dl_find_object) for the walk from a saved context;
//    the frame-pointer chain where the unwinder can't start from the context. No allocation.
//  - elfutils' libdwfl for symbols, displacements and source lines (zepSymGetSymFromAddr and the
//    reader of trap files). It allocates and reads files, so it is never used at crash time:
//    a trap file holds addresses and module records, and names are found when it is read.
// docs/crash.md says why these and not others.
//
// Named mutexes of the engine. Their names ("%s-%d") carry the process identifier, so no other
// process ever opens one: a registry private to the process serves them (sym::CreateMutexA),
// with the platform's contract inside it: a second create of a name opens the same mutex (last
// error 183), the mutex is recursive for its owner thread, and it lives until its last handle is
// closed. Waits and releases are futex calls on a word in a static record: no allocation, safe in
// a signal handler.
#ifndef ZEPOS_SYM_H
#define ZEPOS_SYM_H

#include <stddef.h>

#include "zeptypes.h"
#include "zepstack.h"

namespace zepos {
namespace sym {

// The figures of the system section, laid out as the trap file keeps them (64 bytes).
struct ZEPMemoryFigures {
    Uint32 length;
    Uint32 memoryLoad;
    Uint64 totalPhys, availPhys, totalPageFile, availPageFile, totalVirtual, availVirtual,
        availExtendedVirtual;
};

inline constexpr Uint32 ERROR_NOT_OWNER = 288;

// A mutex of the process-private registry. `initialOwner` gives it to the calling thread.
// Null with 8 when the registry (64 names) is full, 123 for a null or over-long name.
HANDLE CreateMutexA(const void* securityAttributes, BOOL initialOwner, const char* name);
// Fails with 288 when the calling thread doesn't own the mutex.
BOOL ReleaseMutex(HANDLE mutex);
// How many handles refer to the mutex of `name` (0 when there is none): for the tests.
Uint32 MutexHandleCount(const char* name);

// ---- the engine

BOOL SymInitialize(HANDLE process, const char* searchPath, BOOL invade);
BOOL SymGetSearchPath(HANDLE process, char* searchPath, Uint32 size);
BOOL SymSetSearchPath(HANDLE process, const char* searchPath);
Uint32 SymGetOptions();
Uint32 SymSetOptions(Uint32 options);

BOOL SymGetSymFromAddr64(HANDLE process, Uint64 address, Uint64* displacement, ZEPSymbol64* symbol);
BOOL SymGetModuleInfo64(HANDLE process, Uint64 address, ZEPModuleInfo64* info);
Uint64 SymGetModuleBase64(HANDLE process, Uint64 address);
void* SymFunctionTableAccess64(HANDLE process, Uint64 address);
BOOL SymRegisterCallback64(HANDLE process, ZEPSymCallback callback, Uint64 context);
// The registered callback, for the walker's reads (null when none is registered).
ZEPSymCallback RegisteredCallback(Uint64* context);

BOOL EnumerateLoadedModules64(HANDLE process, ZEPEnumModulesCallback callback, void* user);
Uint32 GetTimestampForLoadedLibrary(Uint64 moduleBase);
const ZEPApiVersion* ImagehlpApiVersion();
const ZEPApiVersion* ImagehlpApiVersionEx(const ZEPApiVersion* appVersion);
Uint64 SymLoadModule64(HANDLE process, HANDLE file, const char* imageName, const char* moduleName,
                       Uint64 base, Uint32 size);
BOOL SymUnloadModule64(HANDLE process, Uint64 base);

// The walk from a saved context (ucontext_t) of this thread; one frame per call, innermost
// first, as the design's walker. FALSE when there is no further frame to give: the frame before
// it ended the stack (AddrReturn 0) or the walk broke off there.
BOOL StackWalk64(Uint32 machineType, HANDLE process, HANDLE thread, ZEPStackFrame64* frame,
                 void* context, ZEPFunctionTableAccess functionTableAccess,
                 ZEPGetModuleBase getModuleBase);

// The address of export `name` in the dynamic symbol table of the loaded object at `bias` with
// dynamic section `dynamic`, or 0. Reads the object's hash table in memory: no loader call.
Uint64 FindExport(Uint64 bias, const void* dynamic, const char* name);

// Reads `size` bytes of this process at `address` through the kernel (no fault): the stand-in of
// ReadProcessMemory on the current process.
BOOL ReadProcessMemory(HANDLE process, Uint64 address, void* buffer, size_t size, size_t* read);

// ---- crash-time stand-ins of the trap file: system calls only, no lock, no allocation

// The calling thread's id, straight from the kernel (no first-use set-up in a crashing thread).
Uint32 CrashThreadId();
// The local time by the zone offset that PrepareLocalTime read; UTC until it has.
void CrashLocalTime(SYSTEMTIME* st);
// Reads the zone's offset from UTC once (it may take the runtime's zone lock): part of the
// start-up preparation of crash capture.
void PrepareLocalTime();
// The executable's path, cut to `size` - 1 bytes; the count of bytes.
Uint32 GetModuleFileNameA(char* buffer, Uint32 size);
// The kernel's identification (390 bytes of struct utsname).
BOOL GetSystemName(void* utsname390);
// The memory figures of the machine and of this process's address space.
BOOL GlobalMemoryStatusEx(ZEPMemoryFigures* figures);
// The process's environment strings, null-terminated.
char** GetEnvironmentStrings();

// Walks the process's mappings (/proc/self/maps) with a buffer on the caller's stack.
struct RegionWalk {
    int fd;
    Uint32 length, position;
    char buffer[4096];
};
BOOL RegionWalkOpen(RegionWalk* walk);
// The next mapping: its range, whether it may be read, written, executed, and whether it is a
// special mapping of the kernel ("[vvar]", "[vsyscall]"). FALSE at the end.
BOOL RegionWalkNext(RegionWalk* walk, Uint64* base, Uint64* size, Uint32* protection,
                    BOOL* special);
void RegionWalkClose(RegionWalk* walk);
enum : Uint32 { REGION_READ = 1, REGION_WRITE = 2, REGION_EXECUTE = 4, REGION_SHARED = 8 };

}  // namespace sym
}  // namespace zepos

#endif
