// zeptrap - reads a trap file and prints a crash report a person can act on.
//
//   zeptrap [--no-symbols] [--environment] [--raw-stack] TRAPFILE
//
// The report names the process, the thread, the time and the executable, the signal and the
// fault address in words, the stack with function names, displacements and file:line, the
// registers, the code bytes around the fault, the modules, the system, and summaries of the
// environment, the raw stack and the memory regions. Names are found now, from the module
// records of the file and the binaries on disk (by build identifier where the records carry
// one, which also tells a binary rebuilt since the crash from the one that crashed).
//
// Exit status: 0 for a complete file; 1 when the file can't be read; 2 for a usage error or a
// file that isn't a trap file of this layout; 3 for a damaged or truncated file, whose report
// goes as far as the file does.
#include <cxxabi.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "zep.h"
#include "trap_read.h"
#include "zepdwarfline.h"

namespace {

using zeptrap::Trap;

std::string hex(Uint64 v, int width = 16) {
    char b[32];
    snprintf(b, sizeof b, "0x%0*llx", width, static_cast<unsigned long long>(v));
    return b;
}

// ---- symbols, from the binaries on disk

char* g_debuginfoPath = nullptr;

// By build identifier first (the debug directories), then the path the module had.
int findElf(Dwfl_Module* mod, void** userdata, const char* modname, Dwarf_Addr base,
            char** fileName, Elf** elfp) {
    int fd = dwfl_build_id_find_elf(mod, userdata, modname, base, fileName, elfp);
    if (fd >= 0 || *elfp != nullptr) return fd;
    if (modname != nullptr && modname[0] == '/') {
        fd = open(modname, O_RDONLY | O_CLOEXEC);
        if (fd >= 0) *fileName = strdup(modname);
    }
    return fd;
}

const Dwfl_Callbacks g_callbacks = {findElf, dwfl_standard_find_debuginfo,
                                    dwfl_offline_section_address, &g_debuginfoPath};

struct Symbols {
    Dwfl* dwfl = nullptr;
    std::vector<Dwfl_Module*> mods;  // per module record, null where there is none
    std::vector<bool> usable;

    void load(const std::vector<ZEPTrapModuleRecord>& modules) {
        dwfl = dwfl_begin(&g_callbacks);
        if (dwfl == nullptr) return;
        dwfl_report_begin(dwfl);
        for (const auto& m : modules) {
            Dwfl_Module* mod = nullptr;
            if (m.name[0] == '/' && m.end > m.base) {
                mod = dwfl_report_module(dwfl, m.name, m.base, m.end);
                if (mod != nullptr && m.buildIdLength > 0 && m.buildIdLength <= 32)
                    dwfl_module_report_build_id(mod, m.buildId, m.buildIdLength, 0);
            }
            mods.push_back(mod);
        }
        dwfl_report_end(dwfl, nullptr, nullptr);
        // A binary found by its path may have been rebuilt since the crash: only the one with
        // the recorded build id describes the addresses.
        for (size_t i = 0; i < mods.size(); i++) {
            Dwarf_Addr bias;
            Elf* elf = mods[i] != nullptr ? dwfl_module_getelf(mods[i], &bias) : nullptr;
            bool ok = elf != nullptr;
            const ZEPTrapModuleRecord& m = modules[i];
            if (ok && m.buildIdLength > 0) {
                const void* id = nullptr;
                const ssize_t n = dwelf_elf_gnu_build_id(elf, &id);
                ok = n == static_cast<ssize_t>(m.buildIdLength) && memcmp(id, m.buildId, n) == 0;
            }
            usable.push_back(ok);
        }
    }
    ~Symbols() {
        if (dwfl) dwfl_end(dwfl);
    }
};

std::string demangle(const char* name) {
    int status = 0;
    char* d = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string s = d != nullptr ? d : name;
    free(d);
    return s;
}

int moduleOf(const Trap& t, Uint64 address) {
    for (size_t i = 0; i < t.modules.size(); i++)
        if (address >= t.modules[i].base && address < t.modules[i].end) return static_cast<int>(i);
    return -1;
}

const char* baseName(const char* path) {
    const char* s = strrchr(path, '/');
    return s ? s + 1 : path;
}

// "name +0xdisp at file:line" for an address, as far as it is known.
std::string describe(const Trap& t, const Symbols& s, Uint64 address, Uint64 lookup) {
    const int m = moduleOf(t, address);
    if (m < 0) return "?? (in no module)";
    std::string out;
    Dwfl_Module* mod = s.mods.empty() ? nullptr : s.mods[static_cast<size_t>(m)];
    const char* name = nullptr;
    GElf_Off offset = 0;
    if (mod != nullptr && s.usable[static_cast<size_t>(m)]) {
        GElf_Sym sym;
        name = dwfl_module_addrinfo(mod, lookup, &offset, &sym, nullptr, nullptr, nullptr);
    }
    if (name != nullptr) {
        char d[32];
        snprintf(d, sizeof d, " +0x%llx",
                 static_cast<unsigned long long>(offset + address - lookup));
        out = demangle(name) + d;
        int lineNo = 0;
        const char* file = zepDwarfSourceLine(mod, lookup, &lineNo);
        if (file != nullptr) out += " at " + std::string(file) + ":" + std::to_string(lineNo);
    } else {
        out = "??";
        if (!s.mods.empty() && mod != nullptr && !s.usable[static_cast<size_t>(m)])
            out += " (binary missing, or not the one that crashed)";
    }
    out += "  [" + std::string(baseName(t.modules[static_cast<size_t>(m)].name)) + " +" +
           hex(address - t.modules[static_cast<size_t>(m)].base, 1) + "]";
    return out;
}

// ---- words for the signal

const char* codeText(int sig, int code) {
    switch (code) {
        case SI_USER:
            return "sent by kill";
        case SI_TKILL:
            return "sent by tkill (abort or raise)";
        case SI_QUEUE:
            return "sent by sigqueue";
        case SI_KERNEL:
            return "sent by the kernel";
        default:
            break;
    }
    if (sig == SIGSEGV) {
        if (code == SEGV_MAPERR) return "address not mapped to an object";
        if (code == SEGV_ACCERR) return "invalid permissions for a mapped object";
    } else if (sig == SIGBUS) {
        if (code == BUS_ADRALN) return "invalid address alignment";
        if (code == BUS_ADRERR)
            return "non-existent physical address (beyond the end of a mapped file)";
        if (code == BUS_OBJERR) return "object-specific hardware error";
    } else if (sig == SIGILL) {
        if (code == ILL_ILLOPC) return "illegal opcode";
        if (code == ILL_ILLOPN) return "illegal operand";
        if (code == ILL_PRVOPC) return "privileged opcode";
    } else if (sig == SIGFPE) {
        if (code == FPE_INTDIV) return "integer divide by zero";
        if (code == FPE_INTOVF) return "integer overflow";
        if (code == FPE_FLTDIV) return "floating-point divide by zero";
        if (code == FPE_FLTINV) return "invalid floating-point operation";
    }
    return "code not known";
}

std::string sizeText(Uint64 bytes) {
    char b[32];
    if (bytes >= (1ull << 30))
        snprintf(b, sizeof b, "%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
    else
        snprintf(b, sizeof b, "%.1f MiB", static_cast<double>(bytes) / (1ull << 20));
    return b;
}

const char* const kRegNames[23] = {"r8",  "r9",  "r10",    "r11", "r12",    "r13",     "r14", "r15",
                                   "rdi", "rsi", "rbp",    "rbx", "rdx",    "rax",     "rcx", "rsp",
                                   "rip", "efl", "csgsfs", "err", "trapno", "oldmask", "cr2"};

void report(const char* path, const Trap& t, const Symbols& s, bool showEnvironment,
            bool showRawStack) {
    const ZEPTrapHeader& h = t.header;
    printf("Crash report from %s\n\n", path);
    char exe[ZEP_MAX_PATH + 1];
    memcpy(exe, h.executable, sizeof h.executable);
    exe[ZEP_MAX_PATH] = 0;
    printf("Process %u, thread %u, %04u-%02u-%02u %02u:%02u:%02u.%03u local time\n", h.processID,
           h.threadID, h.localTime.wYear, h.localTime.wMonth, h.localTime.wDay, h.localTime.wHour,
           h.localTime.wMinute, h.localTime.wSecond, h.localTime.wMilliseconds);
    printf("Executable: %s\n", exe[0] ? exe : "(not known)");

    if (t.hasSiginfo) {
        const char* abbrev = sigabbrev_np(t.si.si_signo);
        const char* desc = sigdescr_np(t.si.si_signo);
        printf("Signal: SIG%s (%s), %s", abbrev ? abbrev : "?", desc ? desc : "unknown signal",
               codeText(t.si.si_signo, t.si.si_code));
        const int sig = t.si.si_signo;
        if (t.si.si_code > 0 && (sig == SIGSEGV || sig == SIGBUS || sig == SIGILL || sig == SIGFPE))
            printf(", fault address %s", hex(reinterpret_cast<uintptr_t>(t.si.si_addr)).c_str());
        else if (t.si.si_code <= 0)
            printf(" from process %d", t.si.si_pid);
        printf("\n");
    } else {
        printf("Signal: none recorded\n");
    }
    if (t.hasContext) {
        const Uint64 rip = t.context.gregs[REG_RIP];
        printf("Faulting instruction: %s in %s\n", hex(rip).c_str(),
               describe(t, s, rip, rip).c_str());
    }

    if (t.hasStack) {
        printf("\nStack, innermost first:\n");
        for (size_t i = 0; i < t.frames.size(); i++) {
            const ZEPStackFrame64& f = t.frames[i];
            // A return address lies after its call; the call is what the frame is at.
            const bool interrupted = (f.Flags & ZEP_STACKFRAME_INTERRUPTED) != 0;
            const Uint64 lookup = interrupted || f.AddrPC == 0 ? f.AddrPC : f.AddrPC - 1;
            printf("  #%-3zu %s %s\n", i, hex(f.AddrPC).c_str(),
                   describe(t, s, f.AddrPC, lookup).c_str());
        }
        if (!t.frames.empty())
            printf("  %s\n", t.frames.back().AddrReturn == ZEP_STACKWALK_BROKEN
                                 ? "(the walk broke off here)"
                                 : "(end of the stack)");
    }

    if (t.hasContext) {
        printf("\nRegisters:\n");
        for (int i = 0; i < 23; i++)
            printf("  %-7s %s%s", kRegNames[i], hex(t.context.gregs[i]).c_str(),
                   i % 4 == 3 || i == 22 ? "\n" : "");
    }

    if (!t.code.empty()) {
        printf("\nCode around the fault (%zu bytes from %s; the fault at [ ]):\n", t.code.size(),
               hex(h.codeAddress).c_str());
        const Uint64 rip = t.hasContext ? t.context.gregs[REG_RIP] : 0;
        for (size_t i = 0; i < t.code.size(); i++) {
            if (i % 16 == 0) printf("  %s:", hex(h.codeAddress + i).c_str());
            const bool at = h.codeAddress + i == rip;
            printf(at ? " [%02x]" : " %02x", t.code[i]);
            if (i % 16 == 15 || i + 1 == t.code.size()) printf("\n");
        }
    }

    if (t.hasModules) {
        const char* source = (h.contents & ZEP_TRAP_CONTENTS_MODULES_LISTED)
                                 ? "from the list collected at start-up"
                                 : "enumerated at the crash";
        printf("\nModules (%zu, %s):\n", t.modules.size(), source);
        for (const auto& m : t.modules) {
            std::string id;
            for (Uint32 i = 0; i < m.buildIdLength && i < sizeof m.buildId; i++) {
                char b[3];
                snprintf(b, sizeof b, "%02x", m.buildId[i]);
                id += b;
            }
            printf("  %s-%s %s%s%s%s\n", hex(m.base, 12).c_str(), hex(m.end, 12).c_str(),
                   m.name[0] ? m.name : "(unnamed)", id.empty() ? "" : "  build-id ", id.c_str(),
                   m.markerAddress ? "  [product module]" : "");
        }
    }

    if (t.hasSystem) {
        printf("\nSystem: %s %s %s %s, host %s\n", t.uts, t.uts + 65 * 2, t.uts + 65 * 3,
               t.uts + 65 * 4, t.uts + 65);
        printf("  %u processors, page size %u\n", t.system.numberOfProcessors, t.system.pageSize);
        if (t.hasMemoryStatus)
            printf("  memory %s, %s available (%u%% in use); with swap %s, %s available\n",
                   sizeText(t.memory.totalPhys).c_str(), sizeText(t.memory.availPhys).c_str(),
                   t.memory.memoryLoad, sizeText(t.memory.totalPageFile).c_str(),
                   sizeText(t.memory.availPageFile).c_str());
    }
    if (t.hasVersion)
        printf("Symbol engine: elfutils %u.%u\n", t.version.MajorVersion, t.version.MinorVersion);

    if (t.hasEnvironment) {
        printf("\nEnvironment (%zu strings)%s\n", t.environment.size(),
               showEnvironment ? ":" : "; --environment shows them");
        if (showEnvironment)
            for (const auto& e : t.environment) printf("  %s\n", e.c_str());
    }
    if (t.hasStack) {
        const Uint64 sp = t.hasContext ? t.context.gregs[REG_RSP] : 0;
        printf("Raw stack: %zu words from %s%s\n", t.rawStack.size(), hex(sp).c_str(),
               showRawStack ? ":" : "; --raw-stack shows them");
        if (showRawStack)
            for (size_t i = 0; i < t.rawStack.size(); i++)
                printf("  %s: %s\n", hex(sp + i * 8).c_str(), hex(t.rawStack[i]).c_str());
    }
    if (t.hasMemory) {
        Uint64 total = 0;
        for (const auto& g : t.regions) total += g.size;
        printf("Memory: %zu regions, %s\n", t.regions.size(), sizeText(total).c_str());
    }
}

int usage(FILE* to, int status) {
    fprintf(to,
            "usage: zeptrap [--no-symbols] [--environment] [--raw-stack] TRAPFILE\n"
            "Prints the crash report of a trap file: signal, stack with names and source lines,\n"
            "registers, code bytes, modules, system, environment and memory summaries.\n"
            "Exit status: 0 sound file, 1 unreadable, 2 usage or not a trap file, 3 damaged.\n");
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    bool symbols = true, environment = false, rawStack = false;
    const char* path = nullptr;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") return usage(stdout, 0);
        if (a == "--no-symbols")
            symbols = false;
        else if (a == "--environment")
            environment = true;
        else if (a == "--raw-stack")
            rawStack = true;
        else if (a.size() > 1 && a[0] == '-')
            return usage(stderr, 2);
        else if (path == nullptr)
            path = argv[i];
        else
            return usage(stderr, 2);
    }
    if (path == nullptr) return usage(stderr, 2);

    FILE* f = fopen(path, "rb");
    if (f == nullptr) {
        fprintf(stderr, "zeptrap: %s: %s\n", path, strerror(errno));
        return 1;
    }
    std::vector<Uint8> data;
    Uint8 buffer[65536];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, f)) > 0)
        data.insert(data.end(), buffer, buffer + n);
    const bool readError = ferror(f);
    fclose(f);
    if (readError) {
        fprintf(stderr, "zeptrap: %s: read error\n", path);
        return 1;
    }
    if (data.size() < 8 || memcmp(data.data(), ZEP_TRAP_EYECATCHER, 8) != 0) {
        std::string eye;
        for (size_t i = 0; i < 8 && i < data.size(); i++)
            eye += data[i] >= 32 && data[i] < 127 ? static_cast<char>(data[i]) : '.';
        if (eye == "*TPHDR32")
            fprintf(stderr,
                    "zeptrap: %s: a trap file of the 32-bit layout, which this reader "
                    "doesn't read\n",
                    path);
        else
            fprintf(stderr, "zeptrap: %s: not a trap file (begins with \"%s\", expected \"%s\")\n",
                    path, eye.c_str(), ZEP_TRAP_EYECATCHER);
        return 2;
    }
    if (data.size() < sizeof(ZEPTrapHeader)) {
        fprintf(stderr, "zeptrap: %s: truncated in the header (%zu of %zu bytes)\n", path,
                data.size(), sizeof(ZEPTrapHeader));
        return 3;
    }
    Trap t;
    zeptrap::parse(data, t);
    Symbols s;
    if (symbols) s.load(t.modules);
    report(path, t, s, environment, rawStack);
    fflush(stdout);
    if (!t.damage.empty()) {
        fprintf(stderr, "zeptrap: %s: damaged: %s\n", path, t.damage.c_str());
        return 3;
    }
    return 0;
}
