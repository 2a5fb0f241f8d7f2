// zeptrapfile.cpp - the trap file: header, sections in their fixed order, the XML prolog.
//
// All of this runs in a crashing process, often in a signal handler on an alternate stack, so
// the stack section's work lies on the stack, memory is read only where a test said it may be,
// and the file is written by the primitive file's plain system calls. Write failures aren't
// looked at: a trap file takes what it can get.
#include "zeptrap.h"

#include <string.h>

#include "zepmemory.h"
#include "zepnumconv.h"
#include "zepos.h"

#ifndef ZEP_TRAP_STYLESHEET_HOST
#define ZEP_TRAP_STYLESHEET_HOST "trapfiles.example.com"
#endif

namespace sym = zepos::sym;

namespace {

const char kXMLProlog[] =
    "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
    "<?xml-stylesheet href=\"http://" ZEP_TRAP_STYLESHEET_HOST
    "/vrntrapfile.xsl\" type=\"text/xsl\"?>\n";
constexpr Uint32 kXMLPrologLength = sizeof kXMLProlog - 1;

// Regions above this size are left out of the memory section: they are reservations (the
// sanitizers' shadow, a heap's arena) rather than memory anybody wrote.
constexpr Uint64 kLargestRegion = 256ull << 20;

Uint64 reg(const ucontext_t* uc, int index) {
    return static_cast<Uint64>(uc->uc_mcontext.gregs[index]);
}

bool readable(Uint64 address, Uint64 bytes) {
    return !zepos::IsBadReadPtr(reinterpret_cast<const void*>(address), bytes);
}

}  // namespace

// Memory of the process goes to the file through a copy by the kernel: a page that can't be read
// gives zeros instead of a fault, and nothing reads the process's memory in a way that a
// sanitizer would take for an access of its own (the stack's red zones, a heap's).
void ZEPTrapFile::writeMemory(Uint64 address, Uint64 bytes) {
    Uint8 piece[16384];
    for (Uint64 done = 0; done < bytes;) {
        const size_t n =
            bytes - done < sizeof piece ? static_cast<size_t>(bytes - done) : sizeof piece;
        size_t got = 0;
        sym::ReadProcessMemory(processHandle, address + done, piece, n, &got);
        if (got < n) memset(piece + got, 0, n - got);
        write(piece, static_cast<Uint32>(n));
        done += n;
    }
}

String zepTrapXMLProlog(Uint32* length) {
    if (length != nullptr) *length = kXMLPrologLength;
    return kXMLProlog;
}

ZEPTrapFile::ZEPTrapFile() : headerOffset{0}, isInitialized(0), processHandle(ZEP_CURRENT_PROCESS) {
    memset(&header, 0, sizeof header);
    memset(savedSearchPath, 0, sizeof savedSearchPath);
    header.processID = zepos::GetCurrentProcessId();
    header.threadID = sym::CrashThreadId();
}

ZEPTrapFile::~ZEPTrapFile() {
    if (isInitialized) zepSymSetSearchPath(processHandle, savedSearchPath);
    zepSymCleanup(processHandle);
    zepFreeSymDLL();
}

void ZEPTrapFile::initialize(Uint32, const siginfo_t* exceptionRecord, const ucontext_t* context,
                             String searchPath) {
    memcpy(header.eyeCatcher, ZEP_TRAP_EYECATCHER, sizeof header.eyeCatcher);
    if (header.processID == 0) header.processID = zepos::GetCurrentProcessId();
    if (header.threadID == 0) header.threadID = sym::CrashThreadId();

    zepLoadSymDLL();
    zepSymInitialize(processHandle, nullptr, 0);
    zepSymGetSearchPath(processHandle, savedSearchPath, sizeof savedSearchPath);
    if (searchPath != nullptr) zepSymSetSearchPath(processHandle, searchPath);
    if (zepImagehlpApiVersion() != nullptr) header.contents |= ZEP_TRAP_CONTENTS_ENGINE_VERSION;

    zepos::SYSTEMTIME st;
    sym::CrashLocalTime(&st);
    memcpy(&header.localTime, &st, sizeof header.localTime);
    sym::GetModuleFileNameA(header.executable, sizeof header.executable);

    if (exceptionRecord != nullptr) header.contents |= ZEP_TRAP_CONTENTS_EXCEPTION;
    if (context == nullptr) {
        isInitialized = 1;
        return;
    }
    // A ucontext_t always holds the control registers: there are no context flags to test.
    header.contents |= ZEP_TRAP_CONTENTS_CONTEXT;

    // The code window: up to 64 bytes from 32 before the faulting instruction, as far as they can
    // be read. A window whose start can't be read is given up rather than moved.
    const Uint64 ip = reg(context, REG_RIP);
    Uint64 p = ip >= 32 ? ip - 32 : 0;
    const Uint64 first = p;
    while (!readable(p, 4) && p <= ip) p++;
    Uint16 codeBytes = 0;
    if (p == first) {
        codeBytes = ZEP_TRAP_MAX_CODE_BYTES;
        while (codeBytes != 0 && !readable(p + codeBytes - 1, 1)) codeBytes--;
    }
    header.codeBytes = codeBytes;
    header.codeAddress = p;
    header.contents |= ZEP_TRAP_CONTENTS_CODE_LOOKED_AT;
    if (codeBytes != 0) header.contents |= ZEP_TRAP_CONTENTS_CODE_BYTES;
    isInitialized = 1;
}

void ZEPTrapFile::writeSection(Uint32 section) {
    const ZEPTrapSectionHead head = {ZEP_TRAP_SECTION_MARK, section};
    write(&head, sizeof head);
}

void ZEPTrapFile::appendModuleRecord(const ZEPTrapModuleRecord& record) {
    write(&record, sizeof record);
    header.moduleCount++;
}

void ZEPTrapFile::dump(Uint32 mask, Uint32, const siginfo_t* exceptionRecord,
                       const ucontext_t* context) {
    if (!isInitialized || !isValid()) return;
    if (mask & ZEP_TRAP_HEADER) {
        headerOffset = getCurrentOffset();
        write(&header, sizeof header);
    }
    if (mask & ZEP_TRAP_SYSTEM) dumpSystem();
    if (mask & ZEP_TRAP_ENVIRONMENT) dumpEnvironment();
    if ((mask & ZEP_TRAP_EXCEPTION) && exceptionRecord != nullptr) {
        writeSection(ZEP_TRAP_EXCEPTION);
        write(exceptionRecord, sizeof *exceptionRecord);
    }
    if ((mask & ZEP_TRAP_CONTEXT) && context != nullptr) {
        ZEPTrapContext c;
        memset(&c, 0, sizeof c);
        static_assert(sizeof c.gregs == sizeof context->uc_mcontext.gregs, "gregset_t");
        memcpy(c.gregs, context->uc_mcontext.gregs, sizeof c.gregs);
        if (context->uc_mcontext.fpregs != nullptr)
            memcpy(c.fpregs, context->uc_mcontext.fpregs, sizeof c.fpregs);
        writeSection(ZEP_TRAP_CONTEXT);
        write(&c, sizeof c);
    }
    if (mask & ZEP_TRAP_MODULES) dumpModules();
    if (mask & ZEP_TRAP_VERSION) {
        const ZEPApiVersion* v = zepImagehlpApiVersion();
        if (v != nullptr) {
            writeSection(ZEP_TRAP_VERSION);
            write(v, sizeof *v);
        }
    }
    if ((mask & ZEP_TRAP_STACK) && context != nullptr &&
        (header.contents & ZEP_TRAP_CONTENTS_CONTEXT))
        dumpStack(context);
    if (mask & ZEP_TRAP_MEMORY) dumpMemory();
}

void ZEPTrapFile::dumpSystem() {
    zepos::SYSTEM_INFO si;
    zepos::GetSystemInfo(&si);
    ZEPTrapSystemInfo s;
    memset(&s, 0, sizeof s);
    s.processorArchitecture = si.wProcessorArchitecture;
    s.pageSize = si.dwPageSize;
    s.minimumApplicationAddress = reinterpret_cast<uintptr_t>(si.lpMinimumApplicationAddress);
    s.maximumApplicationAddress = reinterpret_cast<uintptr_t>(si.lpMaximumApplicationAddress);
    s.activeProcessorMask = si.dwActiveProcessorMask;
    s.numberOfProcessors = si.dwNumberOfProcessors;
    s.processorType = si.dwProcessorType;
    s.allocationGranularity = si.dwAllocationGranularity;
    s.processorLevel = si.wProcessorLevel;
    s.processorRevision = si.wProcessorRevision;
    char uts[390];
    memset(uts, 0, sizeof uts);
    sym::GetSystemName(uts);
    writeSection(ZEP_TRAP_SYSTEM);
    write(&s, sizeof s);
    write(uts, sizeof uts);
    sym::ZEPMemoryFigures m;
    static_assert(sizeof m == sizeof(ZEPTrapMemoryStatus), "memory figures");
    if (sym::GlobalMemoryStatusEx(&m)) {
        header.contents |= ZEP_TRAP_CONTENTS_MEMORY_STATUS;
        write(&m, sizeof m);
    }
}

void ZEPTrapFile::dumpEnvironment() {
    writeSection(ZEP_TRAP_ENVIRONMENT);
    char** env = sym::GetEnvironmentStrings();
    for (; env != nullptr && *env != nullptr; env++) {
        const Uint32 length = static_cast<Uint32>(strlen(*env));
        write(&length, sizeof length);
        if (length != 0) write(*env, length);
    }
    const Uint32 length = sizeof ZEP_TRAP_ENVIRONMENT_END - 1;
    write(&length, sizeof length);
    write(ZEP_TRAP_ENVIRONMENT_END, length);
}

void ZEPTrapFile::dumpModules() {
    writeSection(ZEP_TRAP_MODULES);
    header.moduleCount = 0;
    zepEnumerateLoadedModules(processHandle, nullptr, this);
    if (header.moduleCount > 0) {
        header.contents |= ZEP_TRAP_CONTENTS_MODULES_ENUMERATED;
    } else {
        Uint32 count = 0;
        const ZEPModuleListNode* node = zepModuleList(&count);
        if (count > 0) {
            header.contents |= ZEP_TRAP_CONTENTS_MODULES_LISTED;
            header.moduleCount = static_cast<Uint16>(count);
            for (; node != nullptr; node = node->next)
                write(node->record, sizeof(ZEPTrapModuleRecord));
        }
    }
    seekToOffset(headerOffset);
    write(&header, sizeof header);
    seekToEnd();
}

void ZEPTrapFile::dumpStack(const ucontext_t* context) {
    writeSection(ZEP_TRAP_STACK);
    if (header.codeBytes != 0) writeMemory(header.codeAddress, header.codeBytes);

    ZEPStackFrame64 frame;
    memset(&frame, 0, sizeof frame);
    frame.AddrPC = reg(context, REG_RIP);
    frame.AddrFrame = reg(context, REG_RBP);
    frame.AddrStack = reg(context, REG_RSP);
    const Uint64 sp = frame.AddrStack;
    Uint64 stackEnd = 0;

    if (!zepSymRegisterStackWalkCallback(processHandle)) {
        // The one allocation of the section: the text for a debugger.
        char* text = nullptr;
        zepMemAlloc(&text, nullptr, 256, 0);
        if (text != nullptr) {
            zepSnprintf(text, 256, "zepSymRegisterCallback failed: errcode=%lu\n",
                        static_cast<unsigned long>(zepos::GetLastError()));
            zepos::OutputDebugStringA(text);
            zepMemFree(&text, nullptr, 256);
        }
        return;
    }
    void* thread = nullptr;
    const Uint32 framesLeft = 4096;  // a walker that never ends is cut here
    for (Uint32 n = 0; n < framesLeft; n++) {
        if (!zepStackWalk(processHandle, thread, &frame,
                          const_cast<void*>(static_cast<const void*>(context)))) {
            frame.AddrReturn = ZEP_STACKWALK_BROKEN;
            write(&frame, sizeof frame);
            break;
        }
        write(&frame, sizeof frame);
        stackEnd = frame.AddrStack;
        if (frame.AddrReturn == 0) break;
    }

    // The raw stack from the stack pointer: to the last frame walked, or 1,024 words where the
    // walk was shorter than that; as far as it can be read.
    if (static_cast<Sint64>(stackEnd - sp) < static_cast<Sint64>(1024 * sizeof(Uint64)))
        stackEnd = sp + 1024 * sizeof(Uint64);
    else if (stackEnd != 0)
        stackEnd += sizeof(Uint64);
    Uint32 words = 0;
    Uint64 checkedPage = 0;
    for (Uint64 a = sp; a + sizeof(Uint64) <= stackEnd && words < ZEP_TRAP_MAX_STACK_WORDS;
         a += sizeof(Uint64)) {
        const Uint64 page = a & ~static_cast<Uint64>(4095);
        if (page != checkedPage) {
            if (!readable(a, sizeof(Uint64))) break;
            checkedPage = page;
        }
        words++;
    }
    write(&words, sizeof words);
    if (words != 0) writeMemory(sp, words * sizeof(Uint64));
}

void ZEPTrapFile::dumpMemory() {
    // At most once a file: the first header says whether it holds a memory section already.
    ZEPTrapHeader first;
    memset(&first, 0, sizeof first);
    Uint32 got = 0;
    seekToOffset(offsetType{0});
    read(sizeof first, &first, &got);
    if (first.contents & ZEP_TRAP_CONTENTS_MEMORY) {
        seekToEnd();
        return;
    }
    first.contents |= ZEP_TRAP_CONTENTS_MEMORY;
    header.contents |= ZEP_TRAP_CONTENTS_MEMORY;
    if (got == sizeof first) {
        seekToOffset(offsetType{0});
        write(&first, sizeof first);
    }
    seekToEnd();
    writeSection(ZEP_TRAP_MEMORY);

    // Plain readable memory: no code, no inaccessible pages, no special pages of the kernel. A
    // page that can't be read after all is written as zeros, keeping the region's size, and the
    // walk goes on.
    sym::RegionWalk walk;
    if (sym::RegionWalkOpen(&walk)) {
        Uint64 base, size;
        Uint32 prot;
        zepos::BOOL special;
        while (sym::RegionWalkNext(&walk, &base, &size, &prot, &special)) {
            if (special || !(prot & sym::REGION_READ) || (prot & sym::REGION_EXECUTE) ||
                size == 0 || size > kLargestRegion)
                continue;
            write(&base, sizeof base);
            write(&size, sizeof size);
            writeMemory(base, size);
        }
        sym::RegionWalkClose(&walk);
    }
    seekToEnd();
    const Uint32 end = ZEP_TRAP_MEMORY_END;
    write(&end, sizeof end);
}

Bool ZEPTrapFile::writeXMLProlog() {
    offsetType size = {0};
    if (getSize(&size) != 0 || size.offset == 0) {
        write(kXMLProlog, kXMLPrologLength);
        return 1;
    }
    char buffer[kXMLPrologLength + 1];
    memset(buffer, 0, sizeof buffer);
    Uint32 got = 0;
    seekToOffset(offsetType{0});
    read(kXMLPrologLength, buffer, &got);
    if (memcmp(buffer, kXMLProlog, kXMLPrologLength) != 0) {
        seekToOffset(offsetType{0});
        return 0;
    }
    // Go on over the file's closing tag, if it ends in one.
    const Uint32 tailStart = size.offset - kXMLPrologLength;
    memset(buffer, 0, sizeof buffer);
    seekToOffset(offsetType{tailStart});
    read(kXMLPrologLength, buffer, &got);
    const char* lt = nullptr;
    for (Uint32 i = 0; i < got; i++)
        if (buffer[i] == '<') lt = buffer + i;
    if (lt != nullptr && lt[1] == '/')
        seekToOffset(offsetType{tailStart + static_cast<Uint32>(lt - buffer)});
    else
        seekToEnd();
    return 0;
}
