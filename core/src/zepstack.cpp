// zepstack.cpp - the lock table of the symbol engine, its wrappers, the frame-pointer walk, names
// for addresses and the module records of the enumeration.
//
// Each wrapper holds its entry's mutex around the call and hands the caller the last error that
// the entry left, not the one of the release. The mutexes come from the OS layer's registry of
// the process (zepos_sym.h): the names carry the process id, so nothing outside the process
// could share them anyway.
#include "zepstack.h"

#include <stdlib.h>
#include <string.h>

#include "zeplatch.h"
#include "zepnumconv.h"
#include "zepos.h"
#include "zeptrap.h"

namespace sym = zepos::sym;

namespace {

enum : int {
    kFunctionTableAccess = 0,
    kGetModuleInfo = 1,
    kRegisterCallback = 2,
    kGetModuleBase = 3,
    kStackWalk = 4,
    kEnumerateLoadedModules = 5,
    kGetSymFromAddr = 6,
    kInitialize = 7,
    kGetSearchPath = 8,
    kSetSearchPath = 9,
    kCleanup = 10,
    kGetOptions = 11,
    kSetOptions = 12,
    kGetTimestamp = 13,
    kApiVersion = 14,
    kApiVersionEx = 15,
    kLoadModule = 16,
    kUnloadModule = 17,
    kSlots = 18,
};

// The names other modules compute too; the spellings of 11 and 12 are part of that contract.
const char* const kTableNames[kSlots] = {"SymFunctionTableAccess",
                                         "SymGetModuleInfo",
                                         "SymRegisterCallback",
                                         "SymGetModuleBase",
                                         "StackWalk",
                                         "EnumerateLoadedModules64",
                                         "SymGetSymFromAddr",
                                         "SymInitialize",
                                         "SymGetSearchPath",
                                         "SymSetSearchPath",
                                         "SymCleanup",
                                         "SymGetOptons",
                                         "SymSetOptons",
                                         "GetTimestampForLoadedLibrary",
                                         "ImagehlpApiVersion",
                                         "ImagehlpApiVersionEx",
                                         "SymLoadModule64",
                                         "SymUnloadModule64"};

struct Slot {
    zepos::HANDLE handle;
    char name[ZEP_MAX_PATH];
};

Slot s_table[kSlots];
volatile Uint32 s_loaded = 0;
ZEPLock s_loadedLock = 0;
Uint32 s_symInitialized = 0;
Uint32 s_symInitCount = 0;
Uint8 s_functionTableEntry[16];

ZEPModuleListNode* s_moduleHead = nullptr;
ZEPModuleListNode* s_moduleTail = nullptr;
Uint32 s_moduleCount = 0;

// The pattern of every wrapper: wait without a limit, call, keep the entry's error if it failed,
// release, give the kept error back. Without an earlier load the handle is null, the wait fails
// at once and the call runs unguarded.
template <class Call>
auto guarded(int index, bool keepError, Call call) {
    zepos::HANDLE h = s_table[index].handle;
    zepos::WaitForSingleObject(h, zepos::INFINITE);
    auto result = call();
    Uint32 kept = 0;
    if (keepError && !result) kept = zepos::GetLastError();
    sym::ReleaseMutex(h);
    if (kept != 0) zepos::SetLastError(kept);
    return result;
}

void* tableAccessForWalk(void* process, Uint64 address) {
    void* entry = zepSymFunctionTableAccess(process, address);
    if (entry == nullptr) return nullptr;
    memcpy(s_functionTableEntry, entry, sizeof s_functionTableEntry);
    return s_functionTableEntry;
}

Uint64 moduleBaseForWalk(void* process, Uint64 address) {
    return zepSymGetModuleBase(process, address);
}

int readMemoryCallback(void* process, Uint32 action, Uint64 data, Uint64) {
    if (action != ZEP_CBA_READMEMORY) return 0;
    ZEPReadMemoryRequest* r = reinterpret_cast<ZEPReadMemoryRequest*>(data);
    size_t got = 0;
    const int ok = sym::ReadProcessMemory(process, r->address, r->buffer, r->bytes, &got);
    *r->bytesRead = static_cast<Uint32>(got);
    return ok;
}

// The default callback of the enumeration: a trap file's module record, to the file given as the
// context or else to the process's module list.
int moduleRecordCallback(const ZEPLoadedModule* module, void* user) {
    ZEPTrapModuleRecord record;
    memset(&record, 0, sizeof record);
    const size_t n = strnlen(module->name, sizeof record.name - 1);
    memcpy(record.name, module->name, n);
    record.markerAddress = sym::FindExport(module->bias, module->dynamic, "vrnzThisIsAVRNLibrary");
    record.base = module->base;
    record.end = module->base + module->size;
    record.bias = module->bias;
    record.timeStamp = zepGetTimestampForLoadedLibrary(module->base);
    record.buildIdLength = module->buildIdLength > sizeof record.buildId ? sizeof record.buildId
                                                                         : module->buildIdLength;
    if (module->buildId != nullptr) memcpy(record.buildId, module->buildId, record.buildIdLength);
    if (user != nullptr) {
        static_cast<ZEPTrapFile*>(user)->appendModuleRecord(record);
        return 1;
    }
    ZEPModuleListNode* node = static_cast<ZEPModuleListNode*>(malloc(sizeof *node));
    if (node == nullptr) return 0;
    void* copy = malloc(sizeof record);
    if (copy == nullptr) {
        free(node);
        return 0;
    }
    memcpy(copy, &record, sizeof record);
    node->record = copy;
    node->next = nullptr;
    if (s_moduleTail != nullptr)
        s_moduleTail->next = node;
    else
        s_moduleHead = node;
    s_moduleTail = node;
    s_moduleCount++;
    return 1;
}

}  // namespace

void zepLoadSymDLL(void) {
    // Once loaded, no lock at all: a crash handler calls this.
    if (__atomic_load_n(&s_loaded, __ATOMIC_ACQUIRE)) return;
    zepLockGet(&s_loadedLock);
    if (!s_loaded) {
        const int pid = static_cast<int>(zepos::GetCurrentProcessId());
        for (int i = 0; i < kSlots; i++) {
            if (i == kCleanup) {
                memcpy(s_table[i].name, s_table[kInitialize].name, sizeof s_table[i].name);
                s_table[i].handle = s_table[kInitialize].handle;
                continue;
            }
            if (s_table[i].handle != nullptr) continue;
            zepSnprintf(s_table[i].name, sizeof s_table[i].name, "%s-%d", kTableNames[i], pid);
            // The registry is the process's own: the library's security attributes have nothing
            // to protect there, so none are given.
            s_table[i].handle = sym::CreateMutexA(nullptr, 0, s_table[i].name);
        }
        // The trap file's clock reads the zone's offset here, outside any crash: the runtime's
        // own reading takes a lock.
        sym::PrepareLocalTime();
        __atomic_store_n(&s_loaded, 1u, __ATOMIC_RELEASE);
    }
    zepLockRelease(&s_loadedLock);
}

void zepFreeSymDLL(void) {
    zepLockGet(&s_loadedLock);
    if (s_loaded) {
        for (int i = 0; i < kSlots; i++) {
            if (i != kCleanup && s_table[i].handle != nullptr)
                zepos::CloseHandle(s_table[i].handle);
            s_table[i].handle = nullptr;
            s_table[i].name[0] = 0;
        }
        __atomic_store_n(&s_loaded, 0u, __ATOMIC_RELEASE);
    }
    zepLockRelease(&s_loadedLock);
}

void* zepSymFunctionTableAccess(void* process, Uint64 address) {
    return guarded(kFunctionTableAccess, true,
                   [&] { return sym::SymFunctionTableAccess64(process, address); });
}

int zepSymGetModuleInfo(void* process, Uint64 address, ZEPModuleInfo64* info) {
    return guarded(kGetModuleInfo, true,
                   [&] { return sym::SymGetModuleInfo64(process, address, info); });
}

int zepSymRegisterCallback(void* process, ZEPSymCallback callback, Uint64 context) {
    return guarded(kRegisterCallback, true,
                   [&] { return sym::SymRegisterCallback64(process, callback, context); });
}

int zepSymRegisterStackWalkCallback(void* process) {
    return zepSymRegisterCallback(process, readMemoryCallback, 0);
}

Uint64 zepSymGetModuleBase(void* process, Uint64 address) {
    return guarded(kGetModuleBase, true, [&] { return sym::SymGetModuleBase64(process, address); });
}

// The walk holds mutex 4 while its callbacks take 0 and 3: all distinct, so it can't lock
// against itself.
int zepStackWalk(void* process, void* thread, ZEPStackFrame64* frame, void* context) {
    if (!__atomic_load_n(&s_loaded, __ATOMIC_ACQUIRE)) zepLoadSymDLL();
    return guarded(kStackWalk, false, [&] {
        return sym::StackWalk64(ZEP_MACHINE_AMD64, process, thread, frame, context,
                                tableAccessForWalk, moduleBaseForWalk);
    });
}

int zepEnumerateLoadedModules(void* process, ZEPEnumModulesCallback callback, void* userContext) {
    return guarded(kEnumerateLoadedModules, true, [&] {
        return sym::EnumerateLoadedModules64(
            process, callback != nullptr ? callback : moduleRecordCallback, userContext);
    });
}

int zepSymGetSymFromAddr(void* process, Uint64 address, Uint64* displacement, ZEPSymbol64* symbol) {
    return guarded(kGetSymFromAddr, true, [&] {
        return sym::SymGetSymFromAddr64(process, address, displacement, symbol);
    });
}

int zepSymInitialize(void* process, String searchPath, Uint32 invade) {
    return guarded(kInitialize, true, [&]() -> int {
        if (s_symInitialized) {
            s_symInitCount++;
            return 0;  // not an error: the engine is there already
        }
        const int rc = sym::SymInitialize(process, searchPath, invade != 0);
        if (rc == 1) {
            s_symInitialized = 1;
            s_symInitCount = 1;
        }
        return rc;
    });
}

int zepSymGetSearchPath(void* process, char* searchPath, Uint32 size) {
    return guarded(kGetSearchPath, true,
                   [&] { return sym::SymGetSearchPath(process, searchPath, size); });
}

int zepSymSetSearchPath(void* process, String searchPath) {
    return guarded(kSetSearchPath, true,
                   [&] { return sym::SymSetSearchPath(process, searchPath); });
}

// The engine stays initialized for the rest of the process: a later initializer finds it.
int zepSymCleanup(void*) {
    return 0;
}

Uint32 zepSymGetOptions(void) {
    return guarded(kGetOptions, false, [] { return sym::SymGetOptions(); });
}

Uint32 zepSymSetOptions(Uint32 options) {
    return guarded(kSetOptions, false, [&] { return sym::SymSetOptions(options); });
}

Uint32 zepGetTimestampForLoadedLibrary(Uint64 moduleBase) {
    return guarded(kGetTimestamp, true,
                   [&] { return sym::GetTimestampForLoadedLibrary(moduleBase); });
}

const ZEPApiVersion* zepImagehlpApiVersion(void) {
    return guarded(kApiVersion, false, [] { return sym::ImagehlpApiVersion(); });
}

const ZEPApiVersion* zepImagehlpApiVersionEx(const ZEPApiVersion* appVersion) {
    return guarded(kApiVersionEx, false, [&] { return sym::ImagehlpApiVersionEx(appVersion); });
}

Uint64 zepSymLoadModule(void* process, void* file, String imageName, String moduleName, Uint64 base,
                        Uint32 size) {
    return guarded(kLoadModule, true, [&] {
        return sym::SymLoadModule64(process, file, imageName, moduleName, base, size);
    });
}

int zepSymUnloadModule(void* process, Uint64 base) {
    return guarded(kUnloadModule, true, [&] { return sym::SymUnloadModule64(process, base); });
}

// The x86-64 frame: the caller's frame pointer at fp, the return address one word above. A
// chain that wanders into unmapped memory must end the walk, not fault: each page the walk
// reads is tested once through the kernel, so a walk within the pages already known costs no
// system call.
__attribute__((noinline)) void zepWalkStackCollect(Uint32 framesToSkip, uintptr_t* addresses,
                                                   Uint32 capacity) {
    for (Uint32 i = 0; i < capacity; i++) addresses[i] = 0;
    if (capacity == 0) return;
    uintptr_t fp = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    uintptr_t previous = fp;
    // The page of this frame is readable: the walk stands on it.
    uintptr_t readLow = fp & ~static_cast<uintptr_t>(4095), readHigh = readLow + 4096;
    Uint32 n = 0;
    for (;;) {
        uintptr_t ret = 0;
        if (fp > 4095) {
            const intptr_t delta = static_cast<intptr_t>(fp - previous);
            if (delta < 0 || delta > 0x100000) break;
            if (fp < readLow || fp + 16 > readHigh) {
                if (zepos::IsBadReadPtr(reinterpret_cast<const void*>(fp), 16)) break;
                const uintptr_t page = fp & ~static_cast<uintptr_t>(4095);
                if (page <= readHigh && page >= readLow)
                    readHigh = (fp + 16 + 4095) & ~static_cast<uintptr_t>(4095);
                else
                    readLow = page, readHigh = (fp + 16 + 4095) & ~static_cast<uintptr_t>(4095);
            }
            ret = reinterpret_cast<const uintptr_t*>(fp)[1];
            if (ret < 4096) break;
            previous = fp;
            fp = reinterpret_cast<const uintptr_t*>(fp)[0];
        } else {
            break;  // the chain ended: the rest of the array stays 0
        }
        if (framesToSkip > 0) {
            framesToSkip--;
        } else {
            addresses[n++] = ret;
        }
        if (n >= capacity) break;
    }
}

void zepSymbolNameForAddress(uintptr_t address, char* buffer, Uint32 size,
                             uintptr_t* displacement) {
    uintptr_t disp = 0;
    if (address == 0) {
        zepSnprintf(buffer, size, "%s", "?unknown");
    } else {
        struct {
            ZEPSymbol64 symbol;
            char room[ZEP_MAX_PATH];
        } s;
        memset(&s, 0, sizeof s);
        s.symbol.SizeOfStruct = sizeof s.symbol;
        s.symbol.Address = address;
        s.symbol.MaxNameLength = ZEP_MAX_PATH;
        Uint64 d = 0;
        if (zepSymGetSymFromAddr(ZEP_CURRENT_PROCESS, address, &d, &s.symbol)) {
            zepSnprintf(buffer, size, "%s", s.symbol.Name);
            disp = static_cast<uintptr_t>(d);
        } else {
            zepSnprintf(buffer, size, "0x%016lX", static_cast<unsigned long>(address));
        }
    }
    if (displacement != nullptr) *displacement = disp;
}

const ZEPModuleListNode* zepModuleList(Uint32* count) {
    if (count != nullptr) *count = s_moduleCount;
    return s_moduleHead;
}
