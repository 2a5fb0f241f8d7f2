// zepos_ipc.h - the named and paging-file forms of the file-mapping stand-ins, the query of a
// view, and the security and user stand-ins of the IPC family.
//
// What the Linux build honours of the platform's contracts:
//  - CreateFileMappingA with no file (INVALID_HANDLE_VALUE) makes a block of the given size on
//    the named-object layer (zepos_named.h): a name that exists gives its object with the last
//    error 183, whatever size was asked; a null or empty name gives an unnamed block. A size of 0
//    is refused with 87. The block's memory is reserved at once (112 or 8 when it can't be).
//  - OpenFileMappingA finds a named block (2 when there is none, 5 when it may not be opened).
//    FILE_MAP_READ alone gives a handle that maps read-only views only (5 for more).
//  - MapViewOfFileEx of such a handle maps the block read-write (FILE_MAP_WRITE) or read-only
//    (FILE_MAP_READ: a write faults), at the wanted address exactly or not at all (487): never
//    moved, never over a mapping the process has. The view keeps the block alive after its
//    handle is closed, as on the platform; UnmapViewOfFile lets go of it.
//  - VirtualQueryEx answers for this process only (GetCurrentProcess): the region that holds
//    the address from its page to the end of the mapping, in whole pages.
#ifndef ZEPOS_IPC_H
#define ZEPOS_IPC_H

#include <stddef.h>

#include "zeptypes.h"

namespace zepos {

struct NamedObject;

// Handle kinds of this family (beside those of zepos_file.h).
enum : Uint32 {
    HANDLE_KIND_NAMED_MAPPING = 16,
    HANDLE_KIND_TOKEN = 17,
};

// The paging-file and named forms of CreateFileMappingA, MapViewOfFileEx and UnmapViewOfFile;
// the stand-ins of zepos_file.h hand over to these.
HANDLE CreateNamedFileMappingA(void* securityAttributes, Uint32 protect, Uint32 maximumSizeHigh,
                               Uint32 maximumSizeLow, const char* name);
bool IsNamedFileMapping(HANDLE mapping);
void* MapNamedViewOfFileEx(HANDLE mapping, Uint32 desiredAccess, Uint32 offsetHigh,
                           Uint32 offsetLow, size_t bytes, void* baseAddress);
// The view of both kinds, with the platform's checks (1132 for an offset off the page size, 5 for
// a range beyond the object's `size`, 487 for a wished address off the page size or taken):
// `bytes` (0: to the end) from `offset` of an object that starts at `fdOffset` in `fd`. A view of
// a named `object` holds a reference on it until UnmapViewOfFile.
void* MapView(int fd, Uint64 fdOffset, Uint64 size, Uint64 offset, size_t bytes, int prot,
              int flags, void* baseAddress, NamedObject* object);

HANDLE OpenFileMappingA(Uint32 desiredAccess, BOOL inheritHandle, const char* name);

// ---- the process and its memory

// GetCurrentProcess (zepos_sysinfo.h) gives the pseudo handle of this process.

enum : Uint32 {
    MEM_COMMIT = 0x1000,
    MEM_FREE = 0x10000,
    MEM_PRIVATE = 0x20000,
    MEM_MAPPED = 0x40000,
    PAGE_NOACCESS = 0x01,
    PAGE_EXECUTE_READ = 0x20,
    PAGE_EXECUTE_READWRITE = 0x40,
};

struct MEMORY_BASIC_INFORMATION {
    void* BaseAddress;     // the page of the address
    void* AllocationBase;  // the start of the mapping
    Uint32 AllocationProtect;
    size_t RegionSize;  // from BaseAddress to the end of the mapping
    Uint32 State;       // MEM_COMMIT
    Uint32 Protect;
    Uint32 Type;  // MEM_MAPPED for a shared mapping, MEM_PRIVATE otherwise
};

// The size of the record on success, 0 on failure: 6 for another process, 87 for a record too
// small, 487 for an address that no mapping holds.
size_t VirtualQueryEx(HANDLE process, const void* address, MEMORY_BASIC_INFORMATION* buffer,
                      size_t length);

// ---- security (the Linux forms are in zepipc.h)

enum : Uint32 {
    ERROR_INVALID_SECURITY_DESCR = 1338,
    ERROR_UNKNOWN_REVISION = 1305,
    ERROR_NO_TOKEN = 1008,
};

// Revision 1 only (else 1305).
BOOL InitializeSecurityDescriptor(void* descriptor, Uint32 revision);
// A present DACL must be null here (everyone) or the call fails with 87: this build has no
// access lists, the descriptor's Mode stands for them.
BOOL SetSecurityDescriptorDacl(void* descriptor, BOOL daclPresent, void* dacl, BOOL defaulted);

// The effective user's name; a buffer too small fails with 122 and the size needed (with the
// terminator) in *size.
BOOL GetUserNameA(char* buffer, Uint32* size);

enum : Uint32 {
    TOKEN_QUERY = 0x0008,
    TOKEN_READ = 0x20008,
    TokenSessionId = 12,
};

// A token of this process (the only one that may be asked for), closed by CloseHandle.
BOOL OpenProcessToken(HANDLE process, Uint32 desiredAccess, HANDLE* token);
// TokenSessionId alone (else 87): the audit session of the process, 0 when it has none; 122 for
// a buffer under 4 bytes.
BOOL GetTokenInformation(HANDLE token, Uint32 informationClass, void* information, Uint32 length,
                         Uint32* returnLength);

}  // namespace zepos

#endif
