// zeplibrary.h - ZEPHLibrary: load a shared library, find functions in it, unload it.
//
// The object is unloaded or loaded; load() and unload() are the transitions, and a load on a
// loaded object is refused. There is no destructor: an object that goes out of scope leaves its
// library loaded. The quiet options let a caller probe for a library or a function without a
// log record; the result and the trace's error record are the same either way.
//
// Load flags on this system: ZEP_LIB_LOAD_DONT_RESOLVE_REFERENCES resolves functions at their
// first call instead of at load; ZEP_LIB_LOAD_AS_DATAFILE maps the file and runs none of its
// code, so no function can be found in it; the other two are accepted and have no effect
// (docs/process.md).
#ifndef ZEPLIBRARY_H
#define ZEPLIBRARY_H

#include "zeptypes.h"

// The flags of ZEPHLibrary::load
#define ZEP_LIB_LOAD_QUIET 0x2u
#define ZEP_LIB_LOAD_DONT_RESOLVE_REFERENCES 0x8u
#define ZEP_LIB_LOAD_IGNORE_CODE_AUTHZ 0x10u
#define ZEP_LIB_LOAD_AS_DATAFILE 0x20u
#define ZEP_LIB_LOAD_ALTERED_SEARCH_PATH 0x40u

// ZEPLibGetFuncAddressParam::flags
#define ZEP_LIB_FUNC_QUIET 0x1u

typedef void (*ZEPLibFunction)(void);

struct ZEPLibGetFuncAddressParam {
    Uint32 version = ZEP_VERSION_WORD;
    String name = nullptr;
    Uint32 flags = 0;  // ZEP_LIB_FUNC_QUIET
};

struct ZEPLibGetFuncAddressInfo {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPLibFunction address = nullptr;
};

struct ZEPLibGetFunctionAddressesParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 count = 0;
    const String* names = nullptr;  // `count` names
    Uint32 reserved = 0;            // not read
};

class ZEP_EXPORT ZEPHLibrary {
public:
    ZEPHLibrary() = default;

    // `name` with a "/" is a path; any other name is looked for by the system's loader.
    Uint32 load(String name, Uint32 flags);
    Uint32 unload();

    // ECF_LIB_FUNC_NOT_FOUND for a missing function, whatever the system said.
    Uint32 getFuncAddress(const ZEPLibGetFuncAddressParam* param, ZEPLibGetFuncAddressInfo* info);
    // The same without the quiet option; `address` is left alone on failure.
    Uint32 getFuncAddress(String name, ZEPLibFunction* address);

    // Looks up `count` names into `addresses`. A missing one gets null and makes the result
    // ECF_PARTIAL_INFO; any other failure stops at that name, leaving the rest as they were.
    Uint32 getFunctionAddresses(const ZEPLibGetFunctionAddressesParam* param,
                                ZEPLibFunction* addresses);

    bool isLoaded() const { return loaded_ != 0; }
    void* handle() const { return handle_; }

private:
    void* handle_ = nullptr;
    Bool loaded_ = 0;
};

#endif
