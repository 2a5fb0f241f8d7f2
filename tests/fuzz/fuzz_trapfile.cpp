// Trap files from untrusted bytes, through the parser of zeptrap: it ends on any input, reads
// nothing outside it, and what it keeps lies within the file (regions, strings, frames).
#include <stdint.h>
#include <stdlib.h>

#include "trap_read.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < sizeof(ZEPTrapHeader)) return 0;  // the tool refuses these before parsing
    const std::vector<Uint8> file(data, data + size);
    zeptrap::Trap t;
    zeptrap::parse(file, t);
    Uint64 held = t.code.size() + t.rawStack.size() * 8 +
                  t.frames.size() * sizeof(ZEPStackFrame64) +
                  t.modules.size() * sizeof(ZEPTrapModuleRecord);
    for (const std::string& s : t.environment) held += s.size();
    for (const zeptrap::Region& g : t.regions) {
        if (g.size > size) abort();
        held += g.size;
    }
    if (held > size) abort();
    return 0;
}
