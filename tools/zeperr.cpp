// zeperr - turns ECF codes and function identifiers into words, and names into numbers.
//
//   zeperr 0x9000001A        a code: name, description, product, component, severity
//   zeperr 0x081A0016        a function identifier: product, component, class, function
//   zeperr ECF_FILE_EXISTS   a code by name
//   zeperr zepFileRename     a function by name (every component that has it)
//
// Exit status: 0 when every argument was found, 1 when one was not, 2 on bad usage.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zepecf.h"

namespace {

const char* orEmpty(const char* s) { return s ? s : ""; }

// The class that the library gives the identifiers of a component; 0 for components whose
// identifiers it doesn't generate.
Uint32 classOf(Uint32 product, Uint32 component) {
    if (product == ZEP_FUNC_PRODUCT(ZEPFN_zepFileRename) && component == COMP_ZEPE)
        return ZEP_FUNC_CLASS(ZEPFN_zepFileRename);
    if (product == ZEP_FUNC_PRODUCT(SYSFN_MoveFile) && component == COMP_SYSFUNCS)
        return ZEP_FUNC_CLASS(SYSFN_MoveFile);
    return 0;
}

// Codes are told from identifiers by their shape: set 1 in bits 28-30 and zeros in bits 23-27.
// An identifier of that shape would name component 0, which no product has.
bool looksLikeCode(Uint32 v) { return v == 0 || (ECF_SET_OF(v) == 1 && ((v >> 23) & 0x1F) == 0); }

bool showCode(Uint32 code) {
    const char* name = ecfErrorGetCodeName(code);
    if (name == nullptr) {
        fprintf(stderr, "zeperr: 0x%08X is not a code of the catalogue (set %u holds indices 1 to %u)\n",
                code, 1u, ecfErrorGetNumCodes(1));
        return false;
    }
    printf("0x%08X  %s\n", code, *name ? name : "(reserved)");
    printf("  description: %s\n", ecfErrorGetDescription(code));
    if (code != 0) {
        printf("  set:         %s\n", orEmpty(ecfErrorGetSetName(code)));
        printf("  product:     %s\n", orEmpty(ecfErrorGetProductName(code)));
        printf("  component:   %s\n", orEmpty(ecfErrorGetComponentName(code)));
        printf("  severity:    %s\n", ECF_IS_ERROR(code) ? "error" : "warning");
        printf("  index:       %u\n", ECF_INDEX_OF(code));
    }
    return true;
}

bool showFunction(Uint32 id) {
    const char* fn = ecfGetFunctionName(id);
    if (fn == nullptr) {
        Uint32 p = ZEP_FUNC_PRODUCT(id), c = ZEP_FUNC_COMPONENT(id), f = ZEP_FUNC_INDEX(id);
        if (ecfGetProductName(id) == nullptr)
            fprintf(stderr, "zeperr: 0x%08X: product %u is not in the catalogue (1 to %u)\n", id,
                    p, ecfGetNumProducts());
        else if (ecfGetComponentName(id) == nullptr)
            fprintf(stderr, "zeperr: 0x%08X: %s has no component %u\n", id, ecfGetProductName(id),
                    c);
        else
            fprintf(stderr, "zeperr: 0x%08X: component %u of %s has no function %u\n", id, c,
                    ecfGetProductName(id), f);
        return false;
    }
    printf("0x%08X  %s\n", id, fn);
    printf("  product:     %s (%u)\n", ecfGetProductName(id), ZEP_FUNC_PRODUCT(id));
    printf("  component:   %s, %s (%u)\n", ecfGetComponentName(id), ecfGetComponentShortName(id),
           ZEP_FUNC_COMPONENT(id));
    printf("  class:       %u\n", ZEP_FUNC_CLASS(id));
    printf("  function:    %u\n", ZEP_FUNC_INDEX(id));
    return true;
}

bool findCode(const char* name) {
    struct Named {
        const char* name;
        Uint32 value;
    };
#define ZEP_NAMED(n, v) {#n, v},
    static const Named kCodes[] = {ZEP_ECF_CODE_LIST(ZEP_NAMED)};
#undef ZEP_NAMED
    for (const Named& c : kCodes)
        if (strcmp(c.name, name) == 0) return showCode(c.value);
    fprintf(stderr, "zeperr: no code is named '%s'\n", name);
    return false;
}

bool findFunction(const char* name) {
    bool found = false;
    for (Uint32 p = 1; p <= ecfGetNumProducts(); ++p)
        for (Uint32 c = 1; c < ecfGetNumComponents(p); ++c) {
            Uint32 f = ecfFindFunctionIndex(p, c, name);
            if (f == 0) continue;
            if (found) printf("\n");
            found = showFunction(ZEP_FUNC_ID(p, c, classOf(p, c), f));
        }
    if (!found) fprintf(stderr, "zeperr: no function or code is named '%s'\n", name);
    return found;
}

enum class Parsed { NotANumber, Bad, Ok };

Parsed parseNumber(const char* s, Uint32* out) {
    if (!(s[0] >= '0' && s[0] <= '9')) return Parsed::NotANumber;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(s, &end, 0);
    if (*end != 0) {
        fprintf(stderr, "zeperr: '%s' is not a number\n", s);
        return Parsed::Bad;
    }
    if (errno == ERANGE || v > 0xFFFFFFFFull) {
        fprintf(stderr, "zeperr: %s does not fit in 32 bits\n", s);
        return Parsed::Bad;
    }
    *out = static_cast<Uint32>(v);
    return Parsed::Ok;
}

int usage(FILE* to) {
    fprintf(to,
            "usage: zeperr <code | function identifier | code name | function name>...\n"
            "  zeperr 0x9000001A      decode an ECF code\n"
            "  zeperr 0x081A0016      decode a function identifier\n"
            "  zeperr ECF_FILE_EXISTS look a code up by name\n"
            "  zeperr zepFileRename   look a function up by name\n");
    return to == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(stderr);
    if (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) return usage(stdout);
    bool allFound = true;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) printf("\n");
        const char* arg = argv[i];
        Uint32 v = 0;
        bool ok;
        switch (parseNumber(arg, &v)) {
            case Parsed::Ok: ok = looksLikeCode(v) ? showCode(v) : showFunction(v); break;
            case Parsed::Bad: ok = false; break;
            default: ok = strncmp(arg, "ECF_", 4) == 0 ? findCode(arg) : findFunction(arg);
        }
        allFound = allFound && ok;
    }
    return allFound ? 0 : 1;
}
