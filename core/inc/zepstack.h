// zepstack.h - the symbol engine behind one lock table, stack walks, symbol names for addresses.
//
// Every entry of the engine is reached through a wrapper that holds a mutex of its own (named
// "<entry>-<process id>", so every module of the process computes the same name and no other
// process shares it) and keeps the thread's last error as the entry left it. The entries are
// single-threaded by design; calls of different entries aren't serialised against each other.
//
// Widths on this build: addresses, displacements, bases and sizes are 64 bits. The
// frame-pointer walk and the name lookup take pointer-sized addresses (uintptr_t), so
// zepWalkStackCollect fills an array of uintptr_t and zepSymbolNameForAddress prints an address
// without a symbol as "0x" and 16 upper-case hexadecimal digits. The walker's frame record is
// ZEPStackFrame64 below (56 bytes), which is also the frame record of a trap file.
//
// Process handles are the current process's pseudo handle, ZEP_CURRENT_PROCESS; the engine
// knows no other process. Module handles are the module's load address.
//
// Before a crash handler may rely on this family, the process prepares it once at start-up (see
// docs/crash.md): zepLoadSymDLL, zepSymInitialize, zepEnumerateLoadedModules with no callback
// and no context (the module list a trap file falls back on), and one zepWalkStackCollect.
#ifndef ZEPSTACK_H
#define ZEPSTACK_H

#include <stddef.h>

#include "zeptypes.h"

#define ZEP_CURRENT_PROCESS ((void*)(intptr_t)-1)

// The machine type the walker is given: x86-64.
#define ZEP_MACHINE_AMD64 0x8664u

// The action code of a read-memory request to the registered callback; its data is the address
// of a ZEPReadMemoryRequest.
#define ZEP_CBA_READMEMORY 6u

// The mark in AddrReturn of the last frame of a walk that broke off.
#define ZEP_STACKWALK_BROKEN 0xF2A3EBADu

// Flags of a frame: its AddrPC is the faulting instruction itself (a frame interrupted by a
// signal), not a return address.
#define ZEP_STACKFRAME_INTERRUPTED 0x1u
// The frame was found by the frame-pointer chain, not by call-frame information.
#define ZEP_STACKFRAME_BY_FP 0x2u

// One level of a walk; Reserved carries the walker's state between calls and is 0 to begin.
struct ZEPStackFrame64 {
    Uint64 AddrPC;      // the instruction: the fault for the first frame, else a return address
    Uint64 AddrReturn;  // where this frame returns to; 0 at the end of the stack
    Uint64 AddrFrame;   // the frame's canonical frame address (its caller's stack pointer)
    Uint64 AddrStack;   // the stack pointer in this frame
    Uint32 Level;
    Uint32 Flags;
    Uint64 Reserved[2];
};
static_assert(sizeof(ZEPStackFrame64) == 56, "a frame record is 56 bytes");
static_assert(offsetof(ZEPStackFrame64, AddrReturn) == 8, "frame record layout");
static_assert(offsetof(ZEPStackFrame64, Level) == 32, "frame record layout");

// A symbol as the engine gives it: the caller sets SizeOfStruct and MaxNameLength (the room in
// Name, beyond which the name is cut), the engine the rest. FileName and LineNumber are the
// source position of the address where debug information has one ("" and 0 otherwise).
struct ZEPSymbol64 {
    Uint32 SizeOfStruct;
    Uint32 MaxNameLength;
    Uint64 Address;  // the symbol's start
    Uint64 Size;
    Uint32 LineNumber;
    Uint32 Reserved;
    char FileName[ZEP_MAX_PATH];
    char Name[1];
};

struct ZEPModuleInfo64 {
    Uint32 SizeOfStruct;
    Uint32 TimeDateStamp;  // the file's modification time (the system keeps no link time)
    Uint64 BaseOfImage;    // lowest mapped address
    Uint64 ImageSize;
    Uint64 LoadBias;  // what the loader added to the file's addresses
    Uint32 BuildIdLength;
    Uint8 BuildId[32];
    char ImageName[ZEP_MAX_PATH + 1];
};

// What the enumeration hands its callback for each loaded object.
struct ZEPLoadedModule {
    const char* name;  // the path, the executable's included
    Uint64 base;
    Uint64 size;
    Uint64 bias;
    const void* dynamic;  // the object's dynamic section in memory, or null
    const Uint8* buildId;
    Uint32 buildIdLength;
};

struct ZEPReadMemoryRequest {
    Uint64 address;
    void* buffer;
    Uint32 bytes;
    Uint32* bytesRead;
};

struct ZEPApiVersion {
    Uint16 MajorVersion;
    Uint16 MinorVersion;
    Uint16 Revision;
    Uint16 Reserved;
};

typedef int (*ZEPEnumModulesCallback)(const ZEPLoadedModule* module, void* userContext);
typedef int (*ZEPSymCallback)(void* process, Uint32 action, Uint64 data, Uint64 context);
typedef void* (*ZEPFunctionTableAccess)(void* process, Uint64 address);
typedef Uint64 (*ZEPGetModuleBase)(void* process, Uint64 address);

// A node of the module list that zepEnumerateLoadedModules collects without a context: the
// record is a trap file's module record (zeptrap.h).
struct ZEPModuleListNode {
    void* record;
    ZEPModuleListNode* next;
};

ZEP_BEGIN_C

// Creates the table's mutexes that have no handle yet; once loaded, does nothing (and takes no
// lock), so a crash handler may call it.
ZEP_EXPORT void zepLoadSymDLL(void);
// Closes the mutexes (the shared handle of SymInitialize and SymCleanup once).
ZEP_EXPORT void zepFreeSymDLL(void);

ZEP_EXPORT void* zepSymFunctionTableAccess(void* process, Uint64 address);
ZEP_EXPORT int zepSymGetModuleInfo(void* process, Uint64 address, ZEPModuleInfo64* info);
ZEP_EXPORT int zepSymRegisterCallback(void* process, ZEPSymCallback callback, Uint64 context);
// Registers the library's read-memory callback, which reads through the kernel.
ZEP_EXPORT int zepSymRegisterStackWalkCallback(void* process);
ZEP_EXPORT Uint64 zepSymGetModuleBase(void* process, Uint64 address);
// One frame of the walk from `context` (a ucontext_t of this thread, or null to go on from the
// frame alone); the first call needs AddrPC, AddrFrame and AddrStack from the context and
// Reserved 0.
ZEP_EXPORT int zepStackWalk(void* process, void* thread, ZEPStackFrame64* frame, void* context);
// With a null callback each module goes to the default one: it makes a trap file's module
// record and appends it to `userContext` (a ZEPTrapFile*), or with a null context to the
// process's module list (see zepModuleList).
ZEP_EXPORT int zepEnumerateLoadedModules(void* process, ZEPEnumModulesCallback callback,
                                         void* userContext);
ZEP_EXPORT int zepSymGetSymFromAddr(void* process, Uint64 address, Uint64* displacement,
                                    ZEPSymbol64* symbol);
// Counted: only the first successful call reaches the engine; later ones return 0 without an
// error. zepSymCleanup does nothing, so the engine stays for the life of the process.
ZEP_EXPORT int zepSymInitialize(void* process, String searchPath, Uint32 invade);
ZEP_EXPORT int zepSymGetSearchPath(void* process, char* searchPath, Uint32 size);
ZEP_EXPORT int zepSymSetSearchPath(void* process, String searchPath);
ZEP_EXPORT int zepSymCleanup(void* process);
ZEP_EXPORT Uint32 zepSymGetOptions(void);
ZEP_EXPORT Uint32 zepSymSetOptions(Uint32 options);
ZEP_EXPORT Uint32 zepGetTimestampForLoadedLibrary(Uint64 moduleBase);
ZEP_EXPORT const ZEPApiVersion* zepImagehlpApiVersion(void);
ZEP_EXPORT const ZEPApiVersion* zepImagehlpApiVersionEx(const ZEPApiVersion* appVersion);
ZEP_EXPORT Uint64 zepSymLoadModule(void* process, void* file, String imageName, String moduleName,
                                   Uint64 base, Uint32 size);
ZEP_EXPORT int zepSymUnloadModule(void* process, Uint64 base);

// Return addresses from the frame-pointer chain, the innermost first: the first, with 0 to skip,
// is the return address into the caller of zepWalkStackCollect. Fills `capacity` entries, 0 where
// the chain ended; no lock, no allocation.
ZEP_EXPORT void zepWalkStackCollect(Uint32 framesToSkip, uintptr_t* addresses, Uint32 capacity);
// The symbol's name for an address ("?unknown" for 0, "0x%016lX" where there is none), cut to
// `size`; the displacement (0 without a symbol) if `displacement` isn't null.
ZEP_EXPORT void zepSymbolNameForAddress(uintptr_t address, char* buffer, Uint32 size,
                                        uintptr_t* displacement);

// The module list collected without a context, and its count.
ZEP_EXPORT const ZEPModuleListNode* zepModuleList(Uint32* count);

ZEP_END_C

#endif
