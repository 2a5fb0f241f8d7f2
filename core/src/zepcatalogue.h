// zepcatalogue.h - the shapes of the generated catalogue tables (private).
#ifndef ZEPCATALOGUE_H
#define ZEPCATALOGUE_H

#include "zeptypes.h"

namespace zepcat {

// One row per code of a set; row 0 is empty and an all-zero row follows the last.
struct EcfIdentityRow {
    Uint32 code;  // as the caller sees it, severity bit included
    const char* name;
};
struct EcfDescriptionRow {
    Uint32 product;  // index into g_ecfErrorProducts
    Uint32 component;  // component of that product in the identity tables
    const char* description;
};
struct EcfSet {
    const char* name;
    Uint32 count;
    const EcfIdentityRow* identity;
    const EcfDescriptionRow* description;
};

struct EcfComponentRow {
    const char* longName;
    const char* shortName;
    Uint32 functionCount;  // slot 0 included; 0 for an unused slot
    const char* const* functions;
};
struct EcfProductRow {
    const char* name;
    Uint32 componentCount;  // slot 0 included
    const EcfComponentRow* components;
};

extern const EcfSet g_ecfSets[2];  // row 0 empty, row 1 "setecf"
extern const char* const g_ecfErrorProducts[];
extern const Uint32 g_ecfErrorProductCount;
extern const EcfProductRow g_ecfProducts[];  // row 0 empty
extern const Uint32 g_ecfProductCount;

}  // namespace zepcat

#endif
