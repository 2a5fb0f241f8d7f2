// zeptrap.h - the trap file: what is left of a process after a crash, written from inside it.
//
// ZEPTrapFile is a primitive file (zepprimfile.h): open it, initialize it with the crash's
// siginfo_t and ucontext_t, dump the sections a mask asks for, close it. Everything it does at
// crash time is a plain system call or a read of memory tested first; it allocates nothing and
// takes no lock that a crashed thread may hold, once the process has prepared the symbol engine
// at start-up (zepstack.h, docs/crash.md). The file's layout is below, and in docs/crash.md.
//
// This build's form ("*TPHDR64"): addresses are 64-bit fields; the system section holds this
// library's processor record, the utsname and the memory figures; the exception section a
// siginfo_t; the context section the general and floating-point registers of the ucontext_t;
// the stack section one 56-byte ZEPStackFrame64 per level and 64-bit stack words; each section
// after the header begins with a section mark, so that a reader knows which sections a dump
// wrote. All numbers are little-endian.
#ifndef ZEPTRAP_H
#define ZEPTRAP_H

#include <signal.h>
#include <stddef.h>
#include <sys/utsname.h>
#include <ucontext.h>

#include "zepprimfile.h"
#include "zepstack.h"
#include "zeptypes.h"

#define ZEP_TRAP_EYECATCHER "*TPHDR64"

// Bits of the header's contents word.
#define ZEP_TRAP_CONTENTS_EXCEPTION 0x0001u
#define ZEP_TRAP_CONTENTS_CONTEXT 0x0002u
#define ZEP_TRAP_CONTENTS_MODULES_ENUMERATED 0x0004u
#define ZEP_TRAP_CONTENTS_CODE_LOOKED_AT 0x0008u
#define ZEP_TRAP_CONTENTS_CODE_BYTES 0x0010u
#define ZEP_TRAP_CONTENTS_ENGINE_VERSION 0x0020u
#define ZEP_TRAP_CONTENTS_MEMORY 0x0040u
#define ZEP_TRAP_CONTENTS_MODULES_LISTED 0x0200u
#define ZEP_TRAP_CONTENTS_MEMORY_STATUS 0x0400u

// Bits of the dump mask, one per section; sections are written in this order: header, system,
// environment, exception, context, modules, version, stack, memory.
#define ZEP_TRAP_SYSTEM 0x00001u
#define ZEP_TRAP_ENVIRONMENT 0x00002u
#define ZEP_TRAP_STACK 0x00004u
#define ZEP_TRAP_HEADER 0x04000u
#define ZEP_TRAP_VERSION 0x08000u
#define ZEP_TRAP_EXCEPTION 0x10000u
#define ZEP_TRAP_CONTEXT 0x20000u
#define ZEP_TRAP_MODULES 0x40000u
#define ZEP_TRAP_MEMORY 0x80000u
#define ZEP_TRAP_ALL_BUT_MEMORY 0x7C007u

#define ZEP_TRAP_SECTION_MARK 0x54434553u  // "SECT"
#define ZEP_TRAP_ENVIRONMENT_END "**L*E*R*M**"
#define ZEP_TRAP_MEMORY_END 0x0E0DDEADu
#define ZEP_TRAP_MAX_CODE_BYTES 64u
#define ZEP_TRAP_MAX_STACK_WORDS 8193u

struct ZEPTrapTime {
    Uint16 wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
};

struct ZEPTrapHeader {
    char eyeCatcher[8];
    Uint32 processID;
    Uint32 threadID;
    Uint64 codeAddress;
    ZEPTrapTime localTime;
    Uint32 contents;
    Uint16 reserved1;
    Uint16 moduleCount;
    char executable[ZEP_MAX_PATH];
    Uint8 reserved2[80];
    Uint16 codeBytes;
    Uint8 reserved3[2];
};
static_assert(sizeof(ZEPTrapHeader) == 392, "trap header is 392 bytes");
static_assert(offsetof(ZEPTrapHeader, codeAddress) == 16, "trap header layout");
static_assert(offsetof(ZEPTrapHeader, localTime) == 24, "trap header layout");
static_assert(offsetof(ZEPTrapHeader, contents) == 40, "trap header layout");
static_assert(offsetof(ZEPTrapHeader, moduleCount) == 46, "trap header layout");
static_assert(offsetof(ZEPTrapHeader, executable) == 48, "trap header layout");
static_assert(offsetof(ZEPTrapHeader, codeBytes) == 388, "trap header layout");

// Before every section but the header.
struct ZEPTrapSectionHead {
    Uint32 mark;     // ZEP_TRAP_SECTION_MARK
    Uint32 section;  // the section's mask bit
};
static_assert(sizeof(ZEPTrapSectionHead) == 8, "section mark is 8 bytes");

// The processor record of the system section.
struct ZEPTrapSystemInfo {
    Uint16 processorArchitecture;
    Uint16 reserved;
    Uint32 pageSize;
    Uint64 minimumApplicationAddress;
    Uint64 maximumApplicationAddress;
    Uint64 activeProcessorMask;
    Uint32 numberOfProcessors;
    Uint32 processorType;
    Uint32 allocationGranularity;
    Uint16 processorLevel;
    Uint16 processorRevision;
};
static_assert(sizeof(ZEPTrapSystemInfo) == 48, "system record is 48 bytes");

// The memory figures of the system section, in bytes.
struct ZEPTrapMemoryStatus {
    Uint32 length;      // 64
    Uint32 memoryLoad;  // percent of physical memory in use
    Uint64 totalPhys;
    Uint64 availPhys;
    Uint64 totalPageFile;  // physical memory and swap
    Uint64 availPageFile;
    Uint64 totalVirtual;  // the process's address space limit
    Uint64 availVirtual;
    Uint64 availExtendedVirtual;  // 0
};
static_assert(sizeof(ZEPTrapMemoryStatus) == 64, "memory status is 64 bytes");
static_assert(sizeof(struct utsname) == 390, "the system section carries a 390-byte utsname");
static_assert(sizeof(siginfo_t) == 128, "the exception section is a 128-byte siginfo_t");

// The context section: the general registers (gregset_t, indexed by REG_*) and the 512-byte
// floating-point save area of the ucontext_t.
struct ZEPTrapContext {
    Uint64 gregs[23];
    Uint8 fpregs[512];
};
static_assert(sizeof(ZEPTrapContext) == 696, "context section is 696 bytes");

struct ZEPTrapModuleRecord {
    char name[261];
    Uint8 reserved[3];
    Uint64 markerAddress;  // the export vrnzThisIsAVRNLibrary, 0 if the module has none
    Uint64 base;
    Uint64 end;
    Uint64 bias;       // the loader's load bias: file address + bias = address in the process
    Uint32 timeStamp;  // the file's modification time
    Uint32 buildIdLength;
    Uint8 buildId[32];
};
static_assert(sizeof(ZEPTrapModuleRecord) == 336, "module record is 336 bytes");
static_assert(offsetof(ZEPTrapModuleRecord, markerAddress) == 264, "module record layout");
static_assert(offsetof(ZEPTrapModuleRecord, timeStamp) == 296, "module record layout");
static_assert(offsetof(ZEPTrapModuleRecord, buildId) == 304, "module record layout");

class ZEP_EXPORT ZEPTrapFile : public ZEPPrimitiveFileOp {
public:
    ZEPTrapFile();
    // Restores the symbol search path, then zepSymCleanup and zepFreeSymDLL.
    ~ZEPTrapFile();

    // Reads the crash site through tested addresses only. Either record may be null.
    void initialize(Uint32 reserved, const siginfo_t* exceptionRecord, const ucontext_t* context,
                    String searchPath);
    // Writes the sections of `mask`; nothing before initialize or without an open file.
    void dump(Uint32 mask, Uint32 reserved, const siginfo_t* exceptionRecord,
              const ucontext_t* context);
    // True if the XML prolog was written (empty file); false if the file has contents, with the
    // position where the caller's report goes on.
    Bool writeXMLProlog();

    // The default module callback's way in: appends one record and counts it.
    void appendModuleRecord(const ZEPTrapModuleRecord& record);

    const ZEPTrapHeader& headerRecord() const { return header; }

private:
    void writeSection(Uint32 section);
    void dumpSystem();
    void dumpEnvironment();
    void dumpModules();
    void dumpStack(const ucontext_t* context);
    void dumpMemory();
    void writeMemory(Uint64 address, Uint64 bytes);

    ZEPTrapHeader header;
    offsetType headerOffset;
    Uint8 isInitialized;
    char savedSearchPath[ZEP_MAX_PATH + 1];
    void* processHandle;
};

ZEP_BEGIN_C
// The prolog writeXMLProlog writes, and its length.
ZEP_EXPORT String zepTrapXMLProlog(Uint32* length);
ZEP_END_C

#endif
