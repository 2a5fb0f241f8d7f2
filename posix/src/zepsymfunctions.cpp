// zepsymfunctions.cpp - the Linux symbol engine: the process-private named mutexes, the module
// enumeration over the loader's list, the walk from a saved context, and the symbols of elfutils.
#include <cxxabi.h>
#include <dlfcn.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <link.h>
#include <linux/futex.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <time.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>

#include "zeplatch.h"
#include "zepdwarfline.h"
#include "zepos.h"

// The runtime's look-up of the call-frame description for an address (exported by the
// unwinder, declared in no installed header).
struct dwarf_eh_bases {
    void* tbase;
    void* dbase;
    void* func;
};
extern "C" const void* _Unwind_Find_FDE(const void* pc, struct dwarf_eh_bases* bases);

namespace zepos {
namespace sym {

// ---- the process-private registry of named mutexes

namespace {

struct MutexRecord {
    HandleRecord head;
    char name[262];
    Uint32 handles;             // 0: the slot is free
    std::atomic<Uint32> word;   // 0 free, 1 held, 2 held with waiters
    std::atomic<Uint32> owner;  // thread id of the holder, 0 when free
    Uint32 recursion;
};

constexpr Uint32 kMutexSlots = 64;
MutexRecord s_mutexes[kMutexSlots];
ZEPLock s_registryLock = 0;

Uint32 selfTid() {
    return static_cast<Uint32>(syscall(SYS_gettid));
}

long futex(std::atomic<Uint32>* word, int op, Uint32 value, const struct timespec* timeout) {
    return syscall(SYS_futex, reinterpret_cast<Uint32*>(word), op, value, timeout, nullptr, 0);
}

Uint32 mutexWait(HandleRecord* r, Uint32 milliseconds) {
    MutexRecord* m = reinterpret_cast<MutexRecord*>(r);
    const Uint32 self = selfTid();
    if (m->owner.load(std::memory_order_relaxed) == self) {
        ++m->recursion;
        return WAIT_OBJECT_0;
    }
    Uint32 expected = 0;
    if (!m->word.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
        if (milliseconds == 0) return WAIT_TIMEOUT;
        struct timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        if (milliseconds != INFINITE) {
            deadline.tv_sec += milliseconds / 1000;
            deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
            if (deadline.tv_nsec >= 1000000000L) deadline.tv_sec++, deadline.tv_nsec -= 1000000000L;
        }
        while (m->word.exchange(2, std::memory_order_acquire) != 0) {
            struct timespec left, *pleft = nullptr;
            if (milliseconds != INFINITE) {
                struct timespec now;
                clock_gettime(CLOCK_MONOTONIC, &now);
                left.tv_sec = deadline.tv_sec - now.tv_sec;
                left.tv_nsec = deadline.tv_nsec - now.tv_nsec;
                if (left.tv_nsec < 0) left.tv_sec--, left.tv_nsec += 1000000000L;
                if (left.tv_sec < 0) return WAIT_TIMEOUT;
                pleft = &left;
            }
            futex(&m->word, FUTEX_WAIT_PRIVATE, 2, pleft);
        }
    }
    m->owner.store(self, std::memory_order_relaxed);
    m->recursion = 1;
    return WAIT_OBJECT_0;
}

BOOL mutexClose(HandleRecord* r) {
    MutexRecord* m = reinterpret_cast<MutexRecord*>(r);
    zepLockGet(&s_registryLock);
    BOOL ok = m->handles > 0;
    if (ok && --m->handles == 0) {
        m->head.magic = 0;
        m->name[0] = 0;
    }
    zepLockRelease(&s_registryLock);
    if (!ok) SetLastError(ERROR_INVALID_HANDLE);
    return ok;
}

}  // namespace

HANDLE CreateMutexA(const void*, BOOL initialOwner, const char* name) {
    if (name == nullptr || strlen(name) > 261) {
        SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    zepLockGet(&s_registryLock);
    MutexRecord* found = nullptr;
    MutexRecord* free = nullptr;
    for (MutexRecord& m : s_mutexes) {
        if (m.handles > 0 && strcmp(m.name, name) == 0) found = &m;
        if (m.handles == 0 && free == nullptr) free = &m;
    }
    Uint32 error = ERROR_SUCCESS;
    if (found != nullptr) {
        found->handles++;
        error = ERROR_ALREADY_EXISTS;
    } else if (free != nullptr) {
        found = free;
        strcpy(found->name, name);
        found->handles = 1;
        found->word.store(0);
        found->owner.store(0);
        found->recursion = 0;
        found->head.kind = HANDLE_KIND_MUTEX;
        found->head.close = mutexClose;
        found->head.wait = mutexWait;
        found->head.magic = HANDLE_MAGIC;
    } else {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    zepLockRelease(&s_registryLock);
    if (found == nullptr) {
        SetLastError(error);
        return nullptr;
    }
    if (initialOwner) mutexWait(&found->head, INFINITE);
    SetLastError(error);
    return HandleFor(&found->head);
}

BOOL ReleaseMutex(HANDLE mutex) {
    HandleRecord* r = HandleOfKind(mutex, HANDLE_KIND_MUTEX);
    if (r == nullptr) return 0;
    MutexRecord* m = reinterpret_cast<MutexRecord*>(r);
    if (m->owner.load(std::memory_order_relaxed) != selfTid()) {
        SetLastError(ERROR_NOT_OWNER);
        return 0;
    }
    if (--m->recursion == 0) {
        m->owner.store(0, std::memory_order_relaxed);
        if (m->word.exchange(0, std::memory_order_release) == 2)
            futex(&m->word, FUTEX_WAKE_PRIVATE, 1, nullptr);
    }
    return 1;
}

Uint32 MutexHandleCount(const char* name) {
    zepLockGet(&s_registryLock);
    Uint32 n = 0;
    for (MutexRecord& m : s_mutexes)
        if (m.handles > 0 && strcmp(m.name, name) == 0) n = m.handles;
    zepLockRelease(&s_registryLock);
    return n;
}

// ---- loaded objects, from the loader's list

namespace {

bool isCurrentProcess(HANDLE process) {
    if (process == ZEP_CURRENT_PROCESS) return true;
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
}

// The executable's path, read once per call into the caller's buffer.
void executablePath(char* buffer, size_t size) {
    ssize_t n = readlink("/proc/self/exe", buffer, size - 1);
    buffer[n > 0 ? n : 0] = 0;
}

struct ModuleWalk {
    ZEPEnumModulesCallback callback;
    void* user;
    bool stopped;
};

// Fills a module from one entry of the loader's list; false for an object with nothing loaded.
bool describe(const dl_phdr_info* info, ZEPLoadedModule* out, char* exe, size_t exeSize,
              bool first) {
    Uint64 lo = ~0ull, hi = 0;
    out->dynamic = nullptr;
    out->buildId = nullptr;
    out->buildIdLength = 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type == PT_LOAD) {
            const Uint64 start = info->dlpi_addr + ph.p_vaddr;
            if (start < lo) lo = start;
            if (start + ph.p_memsz > hi) hi = start + ph.p_memsz;
        } else if (ph.p_type == PT_DYNAMIC) {
            out->dynamic = reinterpret_cast<const void*>(info->dlpi_addr + ph.p_vaddr);
        } else if (ph.p_type == PT_NOTE && out->buildId == nullptr) {
            const Uint8* p = reinterpret_cast<const Uint8*>(info->dlpi_addr + ph.p_vaddr);
            const Uint8* end = p + ph.p_memsz;
            while (p + sizeof(ElfW(Nhdr)) <= end) {
                const ElfW(Nhdr)* n = reinterpret_cast<const ElfW(Nhdr)*>(p);
                const Uint8* name = p + sizeof *n;
                const Uint8* desc = name + ((n->n_namesz + 3) & ~3u);
                if (n->n_type == NT_GNU_BUILD_ID && n->n_namesz == 4 &&
                    memcmp(name, "GNU", 4) == 0 && desc + n->n_descsz <= end) {
                    out->buildId = desc;
                    out->buildIdLength = n->n_descsz;
                    break;
                }
                p = desc + ((n->n_descsz + 3) & ~3u);
            }
        }
    }
    if (hi == 0) return false;
    const long page = 4096;
    out->base = lo & ~static_cast<Uint64>(page - 1);
    out->size = hi - out->base;
    out->bias = info->dlpi_addr;
    if (info->dlpi_name != nullptr && info->dlpi_name[0] != 0) {
        out->name = info->dlpi_name;
    } else if (first) {
        executablePath(exe, exeSize);
        out->name = exe;
    } else {
        out->name = "";
    }
    return true;
}

int enumerateOne(dl_phdr_info* info, size_t, void* data) {
    ModuleWalk* w = static_cast<ModuleWalk*>(data);
    char exe[ZEP_MAX_PATH + 1];
    ZEPLoadedModule m;
    if (!describe(info, &m, exe, sizeof exe, info->dlpi_name == nullptr || info->dlpi_name[0] == 0))
        return 0;
    if (!w->callback(&m, w->user)) {
        w->stopped = true;
        return 1;
    }
    return 0;
}

struct ModuleFind {
    Uint64 address;
    bool byBase;
    ZEPLoadedModule module;
    char exe[ZEP_MAX_PATH + 1];
    char name[ZEP_MAX_PATH + 1];
    bool found;
};

int findOne(dl_phdr_info* info, size_t, void* data) {
    ModuleFind* f = static_cast<ModuleFind*>(data);
    ZEPLoadedModule m;
    if (!describe(info, &m, f->exe, sizeof f->exe,
                  info->dlpi_name == nullptr || info->dlpi_name[0] == 0))
        return 0;
    const bool hit =
        f->byBase ? m.base == f->address : f->address >= m.base && f->address < m.base + m.size;
    if (!hit) return 0;
    f->module = m;
    size_t n = strlen(m.name);
    if (n > ZEP_MAX_PATH) n = ZEP_MAX_PATH;
    memcpy(f->name, m.name, n);
    f->name[n] = 0;
    f->module.name = f->name;
    f->found = true;
    return 1;
}

bool findModule(Uint64 address, bool byBase, ModuleFind* f) {
    f->address = address;
    f->byBase = byBase;
    f->found = false;
    dl_iterate_phdr(findOne, f);
    return f->found;
}

}  // namespace

BOOL EnumerateLoadedModules64(HANDLE process, ZEPEnumModulesCallback callback, void* user) {
    if (!isCurrentProcess(process)) return 0;
    if (callback == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    ModuleWalk w = {callback, user, false};
    dl_iterate_phdr(enumerateOne, &w);
    return 1;
}

BOOL SymGetModuleInfo64(HANDLE process, Uint64 address, ZEPModuleInfo64* info) {
    if (!isCurrentProcess(process)) return 0;
    ModuleFind f;
    if (!findModule(address, false, &f)) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return 0;
    }
    info->BaseOfImage = f.module.base;
    info->ImageSize = f.module.size;
    info->LoadBias = f.module.bias;
    info->TimeDateStamp = GetTimestampForLoadedLibrary(f.module.base);
    info->BuildIdLength = f.module.buildIdLength > 32 ? 32 : f.module.buildIdLength;
    memset(info->BuildId, 0, sizeof info->BuildId);
    if (f.module.buildId) memcpy(info->BuildId, f.module.buildId, info->BuildIdLength);
    strcpy(info->ImageName, f.name);
    return 1;
}

Uint64 SymGetModuleBase64(HANDLE process, Uint64 address) {
    if (!isCurrentProcess(process)) return 0;
    ModuleFind f;
    if (!findModule(address, false, &f)) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return 0;
    }
    return f.module.base;
}

Uint32 GetTimestampForLoadedLibrary(Uint64 moduleBase) {
    ModuleFind f;
    if (!findModule(moduleBase, true, &f)) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return 0;
    }
    struct stat st;
    if (f.name[0] == 0 || stat(f.name, &st) != 0) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return 0;
    }
    return static_cast<Uint32>(st.st_mtime);
}

// The loader relocates the pointers of most objects' dynamic sections in place; those it
// leaves (the vDSO's) are still file addresses, which lie below the bias.
Uint64 FindExport(Uint64 bias, const void* dynamic, const char* name) {
    if (dynamic == nullptr) return 0;
    const ElfW(Sym)* symtab = nullptr;
    const char* strtab = nullptr;
    const Uint32* gnuHash = nullptr;
    const Uint32* sysvHash = nullptr;
    auto at = [bias](ElfW(Addr) p) { return p < bias ? p + bias : p; };
    for (const ElfW(Dyn)* d = static_cast<const ElfW(Dyn)*>(dynamic); d->d_tag != DT_NULL; d++) {
        if (d->d_tag == DT_SYMTAB) symtab = reinterpret_cast<const ElfW(Sym)*>(at(d->d_un.d_ptr));
        if (d->d_tag == DT_STRTAB) strtab = reinterpret_cast<const char*>(at(d->d_un.d_ptr));
        if (d->d_tag == DT_GNU_HASH) gnuHash = reinterpret_cast<const Uint32*>(at(d->d_un.d_ptr));
        if (d->d_tag == DT_HASH) sysvHash = reinterpret_cast<const Uint32*>(at(d->d_un.d_ptr));
    }
    if (symtab == nullptr || strtab == nullptr) return 0;
    auto match = [&](Uint32 i) {
        const ElfW(Sym)& s = symtab[i];
        return s.st_shndx != SHN_UNDEF && s.st_value != 0 && strcmp(strtab + s.st_name, name) == 0;
    };
    if (gnuHash != nullptr) {
        const Uint32 nbuckets = gnuHash[0], symoffset = gnuHash[1], bloomWords = gnuHash[2];
        if (nbuckets == 0) return 0;
        const Uint32* buckets = reinterpret_cast<const Uint32*>(
            reinterpret_cast<const ElfW(Addr)*>(gnuHash + 4) + bloomWords);
        const Uint32* chain = buckets + nbuckets;
        Uint32 h = 5381;
        for (const unsigned char* c = reinterpret_cast<const unsigned char*>(name); *c; c++)
            h = h * 33 + *c;
        Uint32 i = buckets[h % nbuckets];
        if (i < symoffset) return 0;
        for (;; i++) {
            const Uint32 ch = chain[i - symoffset];
            if ((ch | 1) == (h | 1) && match(i)) return bias + symtab[i].st_value;
            if (ch & 1) return 0;
        }
    }
    if (sysvHash != nullptr) {
        for (Uint32 i = 0; i < sysvHash[1]; i++)
            if (match(i)) return bias + symtab[i].st_value;
    }
    return 0;
}

// ---- memory, callbacks, versions

namespace {
ZEPSymCallback s_callback = nullptr;
Uint64 s_callbackContext = 0;
Uint32 s_options = 0x2;  // names undecorated
char s_searchPath[ZEP_MAX_PATH + 1];
char* s_debuginfoPath = nullptr;
ZEPApiVersion s_apiVersion = {0, 0, 0, 0};
}  // namespace

BOOL ReadProcessMemory(HANDLE process, Uint64 address, void* buffer, size_t size, size_t* read) {
    if (read) *read = 0;
    if (!isCurrentProcess(process)) return 0;
    struct iovec local = {buffer, size};
    struct iovec remote = {reinterpret_cast<void*>(address), size};
    const ssize_t n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    if (n < 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    if (read) *read = static_cast<size_t>(n);
    if (static_cast<size_t>(n) < size) {
        SetLastError(ERROR_INVALID_ADDRESS);  // the platform's partial copy
        return 0;
    }
    return 1;
}

BOOL SymRegisterCallback64(HANDLE process, ZEPSymCallback callback, Uint64 context) {
    if (!isCurrentProcess(process)) return 0;
    s_callback = callback;
    s_callbackContext = context;
    return 1;
}

ZEPSymCallback RegisteredCallback(Uint64* context) {
    *context = s_callbackContext;
    return s_callback;
}

Uint32 SymGetOptions() {
    return s_options;
}
Uint32 SymSetOptions(Uint32 options) {
    return s_options = options;
}

// The engine's version is elfutils', "major.minor", read when first asked.
const ZEPApiVersion* ImagehlpApiVersion() {
    if (s_apiVersion.MajorVersion == 0 && s_apiVersion.MinorVersion == 0) {
        const char* v = dwfl_version(nullptr);
        Uint16 parts[3] = {0, 0, 0};
        for (int i = 0; v != nullptr && *v && i < 3; v++) {
            if (*v == '.')
                i++;
            else if (*v >= '0' && *v <= '9')
                parts[i] = static_cast<Uint16>(parts[i] * 10 + (*v - '0'));
        }
        s_apiVersion.Revision = parts[2];
        s_apiVersion.MinorVersion = parts[1];
        s_apiVersion.MajorVersion = parts[0];
    }
    return &s_apiVersion;
}

const ZEPApiVersion* ImagehlpApiVersionEx(const ZEPApiVersion*) {
    return ImagehlpApiVersion();
}

// ---- symbols: elfutils

namespace {

Dwfl* s_dwfl = nullptr;
const Dwfl_Callbacks s_dwflCallbacks = {dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo,
                                        nullptr, &s_debuginfoPath};

bool reportProcess(bool add) {
    if (add)
        dwfl_report_begin_add(s_dwfl);
    else
        dwfl_report_begin(s_dwfl);
    const int rc = dwfl_linux_proc_report(s_dwfl, getpid());
    return dwfl_report_end(s_dwfl, nullptr, nullptr) == 0 && rc == 0;
}

}  // namespace

BOOL SymInitialize(HANDLE process, const char* searchPath, BOOL invade) {
    if (!isCurrentProcess(process)) return 0;
    if (searchPath != nullptr) SymSetSearchPath(process, searchPath);
    if (s_dwfl == nullptr) {
        s_dwfl = dwfl_begin(&s_dwflCallbacks);
        if (s_dwfl == nullptr) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return 0;
        }
    }
    // Without invading, the modules are reported at the first look-up that needs them.
    if (invade && !reportProcess(false)) {
        SetLastError(ERROR_GEN_FAILURE);
        return 0;
    }
    return 1;
}

BOOL SymGetSearchPath(HANDLE process, char* searchPath, Uint32 size) {
    if (!isCurrentProcess(process)) return 0;
    if (size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    const size_t n = strnlen(s_searchPath, sizeof s_searchPath);
    const size_t copy = n < size - 1 ? n : size - 1;
    memcpy(searchPath, s_searchPath, copy);
    searchPath[copy] = 0;
    return 1;
}

// The path is where elfutils looks for separate debug files (its debuginfo path); empty is its
// standard path.
BOOL SymSetSearchPath(HANDLE process, const char* searchPath) {
    if (!isCurrentProcess(process)) return 0;
    if (searchPath == nullptr) searchPath = "";
    if (strlen(searchPath) > ZEP_MAX_PATH) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    strcpy(s_searchPath, searchPath);
    s_debuginfoPath = s_searchPath[0] ? s_searchPath : nullptr;
    return 1;
}

BOOL SymGetSymFromAddr64(HANDLE process, Uint64 address, Uint64* displacement,
                         ZEPSymbol64* symbol) {
    if (!isCurrentProcess(process)) return 0;
    if (s_dwfl == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    Dwfl_Module* mod = dwfl_addrmodule(s_dwfl, address);
    if (mod == nullptr && reportProcess(true)) mod = dwfl_addrmodule(s_dwfl, address);
    GElf_Off offset = 0;
    GElf_Sym sym;
    const char* name =
        mod ? dwfl_module_addrinfo(mod, address, &offset, &sym, nullptr, nullptr, nullptr)
            : nullptr;
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return 0;
    }
    if (displacement) *displacement = offset;
    symbol->Address = address - offset;
    symbol->Size = sym.st_size;
    char* demangled = nullptr;
    if ((s_options & 0x2) && name[0] == '_' && name[1] == 'Z') {
        int status = 0;
        demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
        if (demangled) name = demangled;
    }
    const size_t room = symbol->MaxNameLength;
    if (room > 0) {
        const size_t n = strnlen(name, room - 1);
        memcpy(symbol->Name, name, n);
        symbol->Name[n] = 0;
    }
    free(demangled);
    symbol->FileName[0] = 0;
    symbol->LineNumber = 0;
    int lineNo = 0;
    const char* file = zepDwarfSourceLine(mod, address, &lineNo);
    if (file != nullptr) {
        const size_t n = strnlen(file, sizeof symbol->FileName - 1);
        memcpy(symbol->FileName, file, n);
        symbol->FileName[n] = 0;
        symbol->LineNumber = static_cast<Uint32>(lineNo);
    }
    return 1;
}

Uint64 SymLoadModule64(HANDLE process, HANDLE, const char* imageName, const char* moduleName,
                       Uint64 base, Uint32) {
    if (!isCurrentProcess(process)) return 0;
    if (s_dwfl == nullptr || imageName == nullptr) {
        SetLastError(s_dwfl == nullptr ? ERROR_INVALID_HANDLE : ERROR_INVALID_PARAMETER);
        return 0;
    }
    dwfl_report_begin_add(s_dwfl);
    Dwfl_Module* m =
        dwfl_report_elf(s_dwfl, moduleName ? moduleName : imageName, imageName, -1, base, false);
    dwfl_report_end(s_dwfl, nullptr, nullptr);
    if (m == nullptr) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return 0;
    }
    Dwarf_Addr start = 0;
    dwfl_module_info(m, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
    return start;
}

namespace {
struct Keep {
    Uint64 base;
    bool dropped;
};
int rereport(Dwfl_Module* m, void**, const char* name, Dwarf_Addr start, void* arg) {
    Keep* k = static_cast<Keep*>(arg);
    Dwarf_Addr end = 0;
    dwfl_module_info(m, nullptr, nullptr, &end, nullptr, nullptr, nullptr, nullptr);
    if (start == k->base)
        k->dropped = true;
    else
        dwfl_report_module(s_dwfl, name, start, end);
    return DWARF_CB_OK;
}
}  // namespace

BOOL SymUnloadModule64(HANDLE process, Uint64 base) {
    if (!isCurrentProcess(process)) return 0;
    if (s_dwfl == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    Keep k = {base, false};
    dwfl_report_begin(s_dwfl);
    dwfl_getmodules(s_dwfl, rereport, &k, 0);
    dwfl_report_end(s_dwfl, nullptr, nullptr);
    if (!k.dropped) SetLastError(ERROR_INVALID_ADDRESS);
    return k.dropped;
}

// The function table entry of an address: the call-frame description that unwinds it.
void* SymFunctionTableAccess64(HANDLE process, Uint64 address) {
    if (!isCurrentProcess(process)) return nullptr;
    struct dwarf_eh_bases bases;
    void* fde = const_cast<void*>(_Unwind_Find_FDE(reinterpret_cast<void*>(address), &bases));
    if (fde == nullptr) SetLastError(ERROR_INVALID_ADDRESS);
    return fde;
}

// ---- the walk from a saved context

// The first call of a walk unwinds the whole stack of this thread once, by the call-frame
// information of every object (the runtime's unwinder, which allocates nothing and finds the
// descriptions without a lock), into a static table; that call and each later one hand out one
// level of it. The table is shared, as the walker's buffer always was: the stack family's mutex
// of the walk keeps one walk at a time. The levels begin where the context's own frame is met:
// the frame the signal interrupted at the context's instruction, or, for a context taken by a
// function of this thread (getcontext), the first frame above the context's stack pointer.
// Where the context belongs to no frame of this stack, the frame-pointer chain from its
// registers stands in.
namespace {

// The unwinder's "CFA" of a level, as it hands it to the trace callback, is the stack pointer of
// that level (its callee's canonical frame address); the level's own frame address is the stack
// pointer of the level above.
struct WalkEntry {
    Uint64 ip;
    Uint64 sp;
    Uint32 flags;
};

constexpr Uint32 kWalkLevels = 512;
WalkEntry s_walk[kWalkLevels];
Uint32 s_walkCount = 0;
bool s_walkComplete = false;
Uint64 s_walkId = 0;

struct Collect {
    Uint64 rip, rsp;
    Uint32 seen;
    Sint32 signalAt;  // index of the interrupted frame, -1 while none
    Sint32 aboveAt;   // index of the first frame at or above the stack pointer, -1 while none
    bool complete;
};

_Unwind_Reason_Code collectOne(struct _Unwind_Context* ctx, void* arg) {
    Collect* c = static_cast<Collect*>(arg);
    int before = 0;
    const Uint64 ip = _Unwind_GetIPInfo(ctx, &before);
    const Uint64 sp = _Unwind_GetCFA(ctx);
    if (c->seen >= kWalkLevels) return _URC_NORMAL_STOP;
    if (ip == 0) {
        c->complete = true;
        return _URC_NORMAL_STOP;
    }
    s_walk[c->seen] = {ip, sp, before ? static_cast<Uint32>(ZEP_STACKFRAME_INTERRUPTED) : 0u};
    if (c->signalAt < 0 && before && ip == c->rip) c->signalAt = static_cast<Sint32>(c->seen);
    if (c->aboveAt < 0 && !before && sp >= c->rsp && sp - c->rsp < 0x100000)
        c->aboveAt = static_cast<Sint32>(c->seen);
    c->seen++;
    return _URC_NO_REASON;
}

// Reads a word of the stack through the registered read callback where there is one, else
// through the kernel.
bool readWord(HANDLE process, Uint64 address, Uint64* word) {
    Uint64 context = 0;
    ZEPSymCallback cb = RegisteredCallback(&context);
    if (cb != nullptr) {
        Uint32 got = 0;
        ZEPReadMemoryRequest r = {address, word, sizeof *word, &got};
        return cb(process, ZEP_CBA_READMEMORY, reinterpret_cast<Uint64>(&r), context) &&
               got == sizeof *word;
    }
    return ReadProcessMemory(process, address, word, sizeof *word, nullptr);
}

void walkByFramePointers(HANDLE process, Uint64 rip, Uint64 rsp, Uint64 rbp,
                         ZEPGetModuleBase getModuleBase) {
    s_walk[0] = {rip, rsp, ZEP_STACKFRAME_INTERRUPTED | ZEP_STACKFRAME_BY_FP};
    s_walkCount = 1;
    s_walkComplete = false;
    Uint64 fp = rbp, previous = rsp;
    while (s_walkCount < kWalkLevels) {
        if (fp < 4096 || fp < previous || fp - previous > 0x100000 || (fp & 7) != 0) return;
        Uint64 next = 0, ret = 0;
        if (!readWord(process, fp, &next) || !readWord(process, fp + 8, &ret)) return;
        if (ret == 0) {
            s_walkComplete = true;
            return;
        }
        if (ret < 4096 || (getModuleBase != nullptr && getModuleBase(process, ret) == 0)) return;
        s_walk[s_walkCount++] = {ret, fp + 16, ZEP_STACKFRAME_BY_FP};
        previous = fp;
        fp = next;
    }
}

}  // namespace

BOOL StackWalk64(Uint32 machineType, HANDLE process, HANDLE, ZEPStackFrame64* frame, void* context,
                 ZEPFunctionTableAccess, ZEPGetModuleBase getModuleBase) {
    if (machineType != ZEP_MACHINE_AMD64 || frame == nullptr || !isCurrentProcess(process)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    Uint64 index = frame->Reserved[1];
    if (frame->Reserved[0] == 0) {
        Uint64 rip = frame->AddrPC, rsp = frame->AddrStack, rbp = frame->AddrFrame;
        const ucontext_t* uc = static_cast<const ucontext_t*>(context);
        if (uc != nullptr) {
            rip = static_cast<Uint64>(uc->uc_mcontext.gregs[REG_RIP]);
            rsp = static_cast<Uint64>(uc->uc_mcontext.gregs[REG_RSP]);
            rbp = static_cast<Uint64>(uc->uc_mcontext.gregs[REG_RBP]);
        }
        Collect c = {rip, rsp, 0, -1, -1, false};
        const _Unwind_Reason_Code rc = _Unwind_Backtrace(collectOne, &c);
        const Sint32 start = c.signalAt >= 0 ? c.signalAt : c.aboveAt;
        if (start >= 0) {
            s_walkCount = c.seen - static_cast<Uint32>(start);
            memmove(s_walk, s_walk + start, s_walkCount * sizeof s_walk[0]);
            s_walk[0].ip = rip;
            s_walkComplete = c.complete || rc == _URC_END_OF_STACK;
        } else {
            walkByFramePointers(process, rip, rsp, rbp, getModuleBase);
        }
        frame->Reserved[0] = ++s_walkId;
        index = 0;
    } else if (frame->Reserved[0] != s_walkId || index >= s_walkCount) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const WalkEntry& e = s_walk[index];
    frame->AddrPC = e.ip;
    frame->AddrStack = e.sp;
    frame->AddrFrame = index + 1 < s_walkCount ? s_walk[index + 1].sp : e.sp;
    frame->Level = static_cast<Uint32>(index);
    frame->Flags = e.flags;
    frame->Reserved[1] = index + 1;
    if (index + 1 < s_walkCount) {
        frame->AddrReturn = s_walk[index + 1].ip;
        return 1;
    }
    frame->AddrReturn = 0;
    if (s_walkComplete) return 1;
    SetLastError(ERROR_INVALID_ADDRESS);  // the caller of this level couldn't be found
    return 0;
}

// ---- crash-time stand-ins

namespace {
std::atomic<Sint64> s_zoneOffset{0};

// Days since 1970-01-01 to the civil date (proleptic Gregorian).
void civilFromDays(Sint64 z, Sint64* y, Uint32* m, Uint32* d) {
    z += 719468;
    const Sint64 era = (z >= 0 ? z : z - 146096) / 146097;
    const Uint64 doe = static_cast<Uint64>(z - era * 146097);
    const Uint64 yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const Uint64 doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const Uint64 mp = (5 * doy + 2) / 153;
    *d = static_cast<Uint32>(doy - (153 * mp + 2) / 5 + 1);
    *m = static_cast<Uint32>(mp < 10 ? mp + 3 : mp - 9);
    *y = static_cast<Sint64>(yoe) + era * 400 + (*m <= 2);
}
}  // namespace

Uint32 CrashThreadId() {
    return static_cast<Uint32>(syscall(SYS_gettid));
}

void PrepareLocalTime() {
    const time_t now = time(nullptr);
    struct tm t;
    if (localtime_r(&now, &t) != nullptr) s_zoneOffset.store(t.tm_gmtoff);
}

void CrashLocalTime(SYSTEMTIME* st) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    const Sint64 local = static_cast<Sint64>(ts.tv_sec) + s_zoneOffset.load();
    Sint64 days = local / 86400, secs = local % 86400;
    if (secs < 0) secs += 86400, days--;
    Sint64 y;
    Uint32 m, d;
    civilFromDays(days, &y, &m, &d);
    st->wYear = static_cast<Uint16>(y);
    st->wMonth = static_cast<Uint16>(m);
    st->wDay = static_cast<Uint16>(d);
    st->wDayOfWeek = static_cast<Uint16>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday
    st->wHour = static_cast<Uint16>(secs / 3600);
    st->wMinute = static_cast<Uint16>(secs / 60 % 60);
    st->wSecond = static_cast<Uint16>(secs % 60);
    st->wMilliseconds = static_cast<Uint16>(ts.tv_nsec / 1000000);
}

Uint32 GetModuleFileNameA(char* buffer, Uint32 size) {
    if (size == 0) return 0;
    const ssize_t n = readlink("/proc/self/exe", buffer, size - 1);
    buffer[n > 0 ? n : 0] = 0;
    return n > 0 ? static_cast<Uint32>(n) : 0;
}

BOOL GetSystemName(void* utsname390) {
    return uname(static_cast<struct utsname*>(utsname390)) == 0;
}

BOOL GlobalMemoryStatusEx(ZEPMemoryFigures* f) {
    memset(f, 0, sizeof *f);
    f->length = sizeof *f;
    struct sysinfo si;
    if (sysinfo(&si) != 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    const Uint64 unit = si.mem_unit ? si.mem_unit : 1;
    f->totalPhys = si.totalram * unit;
    f->availPhys = (si.freeram + si.bufferram) * unit;
    f->totalPageFile = f->totalPhys + si.totalswap * unit;
    f->availPageFile = f->availPhys + si.freeswap * unit;
    f->memoryLoad = f->totalPhys ? static_cast<Uint32>(100 - f->availPhys * 100 / f->totalPhys) : 0;
    struct rlimit rl;
    f->totalVirtual = 0x800000000000ull;  // the user half of the 48-bit address space
    if (getrlimit(RLIMIT_AS, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY &&
        rl.rlim_cur < f->totalVirtual)
        f->totalVirtual = rl.rlim_cur;
    f->availVirtual = f->totalVirtual;
    return 1;
}

char** GetEnvironmentStrings() {
    return environ;
}

BOOL RegionWalkOpen(RegionWalk* w) {
    w->fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    w->length = w->position = 0;
    if (w->fd < 0) SetLastErrorFromErrno();
    return w->fd >= 0;
}

namespace {
// The next line of the mappings into `line`; false at the end.
bool nextLine(RegionWalk* w, char* line, size_t size) {
    size_t n = 0;
    for (;;) {
        if (w->position == w->length) {
            const ssize_t got = read(w->fd, w->buffer, sizeof w->buffer);
            if (got <= 0) {
                line[n] = 0;
                return n > 0;
            }
            w->length = static_cast<Uint32>(got);
            w->position = 0;
        }
        const char c = w->buffer[w->position++];
        if (c == '\n') {
            line[n] = 0;
            return true;
        }
        if (n + 1 < size) line[n++] = c;
    }
}

Uint64 hexAt(const char** p) {
    Uint64 v = 0;
    for (;; (*p)++) {
        const char c = **p;
        if (c >= '0' && c <= '9')
            v = v * 16 + static_cast<Uint64>(c - '0');
        else if (c >= 'a' && c <= 'f')
            v = v * 16 + static_cast<Uint64>(c - 'a' + 10);
        else
            return v;
    }
}
}  // namespace

BOOL RegionWalkNext(RegionWalk* w, Uint64* base, Uint64* size, Uint32* protection, BOOL* special) {
    char line[512];
    if (w->fd < 0 || !nextLine(w, line, sizeof line)) return 0;
    const char* p = line;
    const Uint64 lo = hexAt(&p);
    if (*p == '-') p++;
    const Uint64 hi = hexAt(&p);
    if (*p == ' ') p++;
    Uint32 prot = 0;
    if (p[0] == 'r') prot |= REGION_READ;
    if (p[0] && p[1] == 'w') prot |= REGION_WRITE;
    if (p[0] && p[1] && p[2] == 'x') prot |= REGION_EXECUTE;
    if (p[0] && p[1] && p[2] && p[3] == 's') prot |= REGION_SHARED;
    *base = lo;
    *size = hi > lo ? hi - lo : 0;
    *protection = prot;
    *special = strstr(line, "[vvar") != nullptr || strstr(line, "[vsyscall]") != nullptr;
    return 1;
}

void RegionWalkClose(RegionWalk* w) {
    if (w->fd >= 0) close(w->fd);
    w->fd = -1;
}

}  // namespace sym
}  // namespace zepos
