// zepdwarfline.h - the source line of an address in a module that libdwfl has reported; shared by
// the library's symbol look-ups and the trap file reader (header only, not installed).
#ifndef ZEPDWARFLINE_H
#define ZEPDWARFLINE_H

#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>

// The file name (owned by libdw) and line of `address`, or null. Objects without an address-range
// table (clang's default) have no unit that this release of libdw finds by the table; the units'
// own ranges find it.
inline const char* zepDwarfSourceLine(Dwfl_Module* mod, Dwarf_Addr address, int* lineNo) {
    Dwfl_Line* line = dwfl_module_getsrc(mod, address);
    if (line != nullptr) return dwfl_lineinfo(line, nullptr, lineNo, nullptr, nullptr, nullptr);
    Dwarf_Addr bias = 0;
    Dwarf* dw = dwfl_module_getdwarf(mod, &bias);
    if (dw == nullptr) return nullptr;
    Dwarf_Off offset = 0, next = 0;
    size_t headerSize = 0;
    while (dwarf_nextcu(dw, offset, &next, &headerSize, nullptr, nullptr, nullptr) == 0) {
        Dwarf_Die cu;
        if (dwarf_offdie(dw, offset + headerSize, &cu) != nullptr &&
            dwarf_haspc(&cu, address - bias) == 1) {
            Dwarf_Line* l = dwarf_getsrc_die(&cu, address - bias);
            if (l != nullptr && dwarf_lineno(l, lineNo) == 0)
                return dwarf_linesrc(l, nullptr, nullptr);
            return nullptr;
        }
        offset = next;
    }
    return nullptr;
}

#endif
