// zepos_ipc.cpp - paging-file and named file mappings, their views, the view query, and the
// security and user stand-ins.
#include "zepos.h"
#include "zepos_ipc.h"
#include "zepipc.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zepos {

namespace {

struct NamedMappingRecord {
    HandleRecord head;
    NamedObject* object;
    bool readOnly;  // opened with FILE_MAP_READ alone
};

struct TokenRecord {
    HandleRecord head;
};

size_t pageSize() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

BOOL closeNamedMapping(HandleRecord* h) {
    NamedMappingRecord* m = reinterpret_cast<NamedMappingRecord*>(h);
    NamedClose(m->object);
    return FreeRecord(h);
}

HANDLE handleOf(NamedObject* object, bool readOnly) {
    NamedMappingRecord* m = static_cast<NamedMappingRecord*>(malloc(sizeof(NamedMappingRecord)));
    if (m == nullptr) {
        NamedClose(object);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    m->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_NAMED_MAPPING, closeNamedMapping, nullptr};
    m->object = object;
    m->readOnly = readOnly;
    return HandleOrClose(&m->head);
}

}  // namespace

// ---- mappings

HANDLE CreateNamedFileMappingA(void* securityAttributes, Uint32 protect, Uint32 maximumSizeHigh,
                               Uint32 maximumSizeLow, const char* name) {
    if (protect != PAGE_READWRITE && protect != PAGE_READONLY) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const Uint64 size = (static_cast<Uint64>(maximumSizeHigh) << 32) | maximumSizeLow;
    if (size == 0 || size > static_cast<Uint64>(INT64_MAX) - pageSize()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    NamedObject* object = NamedCreate(NamedKind::FileMapping, name, static_cast<size_t>(size),
                                      securityAttributes, nullptr, nullptr);
    if (object == nullptr) return nullptr;
    const Uint32 error = GetLastError();  // 0 or 183
    HANDLE h = handleOf(object, protect == PAGE_READONLY);
    if (h != nullptr) SetLastError(error);
    return h;
}

HANDLE OpenFileMappingA(Uint32 desiredAccess, BOOL inheritHandle, const char* name) {
    if (name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    NamedObject* object = NamedOpen(NamedKind::FileMapping, name, inheritHandle);
    if (object == nullptr) return nullptr;
    HANDLE h = handleOf(object, (desiredAccess & FILE_MAP_WRITE) == 0);
    if (h != nullptr) SetLastError(ERROR_SUCCESS);
    return h;
}

bool IsNamedFileMapping(HANDLE mapping) {
    const Uint32 saved = GetLastError();
    const bool named = HandleOfKind(mapping, HANDLE_KIND_NAMED_MAPPING) != nullptr;
    SetLastError(saved);
    return named;
}

void* MapNamedViewOfFileEx(HANDLE mapping, Uint32 desiredAccess, Uint32 offsetHigh,
                           Uint32 offsetLow, size_t bytes, void* baseAddress) {
    NamedMappingRecord* m =
        reinterpret_cast<NamedMappingRecord*>(HandleOfKind(mapping, HANDLE_KIND_NAMED_MAPPING));
    if (m == nullptr) return nullptr;
    int prot;
    switch (desiredAccess) {
        case FILE_MAP_READ:
            prot = PROT_READ;
            break;
        case FILE_MAP_WRITE:
        case FILE_MAP_WRITE | FILE_MAP_READ:
            if (m->readOnly) {
                SetLastError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
            prot = PROT_READ | PROT_WRITE;
            break;
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
    }
    const Uint64 offset = (static_cast<Uint64>(offsetHigh) << 32) | offsetLow;
    return MapView(NamedDescriptor(m->object), NamedBlockOffset(m->object), NamedBytes(m->object),
                   offset, bytes, prot, MAP_SHARED, baseAddress, m->object);
}

// ---- the process and its memory

size_t VirtualQueryEx(HANDLE process, const void* address, MEMORY_BASIC_INFORMATION* buffer,
                      size_t length) {
    if (process != GetCurrentProcess()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (buffer == nullptr || length < sizeof(MEMORY_BASIC_INFORMATION)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const uintptr_t at = reinterpret_cast<uintptr_t>(address);
    FILE* maps = fopen("/proc/self/maps", "re");
    if (maps == nullptr) {
        SetLastErrorFromErrno();
        return 0;
    }
    // The kernel lists a mapping as one line however it was made; a view is one mapping unless
    // its protection was changed in part.
    char line[512];
    bool found = false;
    while (fgets(line, sizeof line, maps) != nullptr) {
        unsigned long start, end, offset;
        char perms[8];
        if (sscanf(line, "%lx-%lx %7s %lx", &start, &end, perms, &offset) != 4) continue;
        if (at < start || at >= end) continue;
        const uintptr_t page = at & ~(static_cast<uintptr_t>(pageSize()) - 1);
        const bool r = perms[0] == 'r', w = perms[1] == 'w', x = perms[2] == 'x';
        Uint32 protect = PAGE_NOACCESS;
        if (r && x)
            protect = w ? PAGE_EXECUTE_READWRITE : PAGE_EXECUTE_READ;
        else if (r)
            protect = w ? PAGE_READWRITE : PAGE_READONLY;
        buffer->BaseAddress = reinterpret_cast<void*>(page);
        buffer->AllocationBase = reinterpret_cast<void*>(start);
        buffer->AllocationProtect = protect;
        buffer->RegionSize = end - page;
        buffer->State = MEM_COMMIT;
        buffer->Protect = protect;
        buffer->Type = perms[3] == 's' ? MEM_MAPPED : MEM_PRIVATE;
        found = true;
        break;
    }
    fclose(maps);
    if (!found) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return 0;
    }
    return sizeof(MEMORY_BASIC_INFORMATION);
}

// ---- security

BOOL InitializeSecurityDescriptor(void* descriptor, Uint32 revision) {
    if (descriptor == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (revision != SECURITY_DESCRIPTOR_REVISION) {
        SetLastError(ERROR_UNKNOWN_REVISION);
        return 0;
    }
    SECURITY_DESCRIPTOR* sd = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    memset(sd, 0, sizeof *sd);
    sd->Revision = static_cast<Uint8>(revision);
    return 1;
}

BOOL SetSecurityDescriptorDacl(void* descriptor, BOOL daclPresent, void* dacl, BOOL defaulted) {
    SECURITY_DESCRIPTOR* sd = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    if (sd == nullptr || sd->Revision != SECURITY_DESCRIPTOR_REVISION) {
        SetLastError(ERROR_INVALID_SECURITY_DESCR);
        return 0;
    }
    if (daclPresent && dacl != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    sd->Control = static_cast<Uint16>(sd->Control & ~(SE_DACL_PRESENT | SE_DACL_DEFAULTED));
    if (daclPresent) {
        sd->Control |= SE_DACL_PRESENT;
        if (defaulted) sd->Control |= SE_DACL_DEFAULTED;
    }
    sd->Mode = 0;
    return 1;
}

BOOL GetUserNameA(char* buffer, Uint32* size) {
    if (size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const uid_t uid = geteuid();
    char storage[4096];
    struct passwd pw, *found = nullptr;
    char number[16];
    const char* name;
    if (getpwuid_r(uid, &pw, storage, sizeof storage, &found) == 0 && found != nullptr) {
        name = found->pw_name;
    } else {
        snprintf(number, sizeof number, "%u", static_cast<unsigned>(uid));
        name = number;
    }
    const Uint32 needed = static_cast<Uint32>(strlen(name) + 1);
    if (buffer == nullptr || *size < needed) {
        *size = needed;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    memcpy(buffer, name, needed);
    *size = needed;
    return 1;
}

BOOL OpenProcessToken(HANDLE process, Uint32, HANDLE* token) {
    if (process != GetCurrentProcess() || token == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    TokenRecord* t = static_cast<TokenRecord*>(malloc(sizeof(TokenRecord)));
    if (t == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    t->head = HandleRecord{HANDLE_MAGIC, HANDLE_KIND_TOKEN, FreeRecord, nullptr};
    *token = HandleOrClose(&t->head);
    return *token != nullptr;
}

BOOL GetTokenInformation(HANDLE token, Uint32 informationClass, void* information, Uint32 length,
                         Uint32* returnLength) {
    if (HandleOfKind(token, HANDLE_KIND_TOKEN) == nullptr) return 0;
    if (informationClass != TokenSessionId) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (returnLength != nullptr) *returnLength = 4;
    if (information == nullptr || length < 4) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    // The audit session: set at login for every process of that login; all ones (unset) for
    // processes started outside one, which the platform would place in its services' session 0.
    Uint32 session = 0;
    int fd = open("/proc/self/sessionid", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char text[16] = {};
        ssize_t n = read(fd, text, sizeof text - 1);
        close(fd);
        if (n > 0) {
            unsigned long v = strtoul(text, nullptr, 10);
            if (v != 0xFFFFFFFFul) session = static_cast<Uint32>(v);
        }
    }
    memcpy(information, &session, 4);
    return 1;
}

}  // namespace zepos
