// trap_read.h - the trap file reader's parser (part of the static library zep_trap_read): the
// sections of a trap file, for zeptrap and for the fuzz target of damaged trap files.
#ifndef TRAP_READ_H
#define TRAP_READ_H

#include <signal.h>

#include <string>
#include <vector>

#include "zep.h"

namespace zeptrap {

struct Region {
    Uint64 base, size;
};

struct Trap {
    ZEPTrapHeader header;
    bool hasSystem = false, hasMemoryStatus = false;
    ZEPTrapSystemInfo system;
    char uts[390];
    ZEPTrapMemoryStatus memory;
    bool hasEnvironment = false;
    std::vector<std::string> environment;
    bool hasSiginfo = false;
    siginfo_t si;
    bool hasContext = false;
    ZEPTrapContext context;
    bool hasModules = false;
    std::vector<ZEPTrapModuleRecord> modules;
    bool hasVersion = false;
    ZEPApiVersion version;
    bool hasStack = false;
    std::vector<Uint8> code;
    std::vector<ZEPStackFrame64> frames;
    std::vector<Uint64> rawStack;
    bool hasMemory = false;
    std::vector<Region> regions;
    std::string damage;  // empty for a sound file
};

// Reads the header and the sections after it (a later dump's header starts over); stops at the
// first damage, which `t.damage` then describes. Never reads outside `data`, and ends on any input.
void parse(const std::vector<Uint8>& data, Trap& t);

}  // namespace zeptrap

#endif
