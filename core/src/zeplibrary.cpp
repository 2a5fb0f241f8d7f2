// zeplibrary.cpp - ZEPHLibrary.
#include "zeplibrary.h"

#include "zepframe.h"

namespace {

// The design's load flags as the loader's.
Uint32 loaderFlags(Uint32 flags) {
    Uint32 platform = 0;
    if (flags & ZEP_LIB_LOAD_DONT_RESOLVE_REFERENCES)
        platform |= zepos::DONT_RESOLVE_DLL_REFERENCES;
    if (flags & ZEP_LIB_LOAD_IGNORE_CODE_AUTHZ) platform |= zepos::LOAD_IGNORE_CODE_AUTHZ_LEVEL;
    if (flags & ZEP_LIB_LOAD_AS_DATAFILE) platform |= zepos::LOAD_LIBRARY_AS_DATAFILE;
    if (flags & ZEP_LIB_LOAD_ALTERED_SEARCH_PATH) platform |= zepos::LOAD_WITH_ALTERED_SEARCH_PATH;
    return platform;
}

}  // namespace

Uint32 ZEPHLibrary::load(String name, Uint32 flags) {
    ZepFrame f(ZEPFN_ZEPHLibrary_load);
    f.traceData(10, ZepTrcStr{name}, ZepTrcBlock{&flags, 4});
    const bool quiet = (flags & ZEP_LIB_LOAD_QUIET) != 0;
    if (loaded_) {
        f.setQuietResult(ECF_LIB_ALREADY_LOADED);
        if (!quiet) zepLog(nullptr, f.functionId(), f.rc(), 20, ZEP_LOG_INFO, 0);
        f.traceError(20);
        return f.exit();
    }
    handle_ = nullptr, loaded_ = 0;
    zepos::HANDLE h = zepos::LoadLibraryExA(name, nullptr, loaderFlags(flags));
    if (h != nullptr) {
        handle_ = h, loaded_ = 1;
        return f.exit();
    }
    const Uint32 osError = zepos::GetLastError();
    Uint32 level = ZEP_LOG_INFO, rc = ECF_LIB_CANNOT_LOAD;
    if (osError != zepos::ERROR_MOD_NOT_FOUND)
        rc = zepErrorMapSystem(f.functionId(), 30, SYSFN_LoadLibrary, osError, &level);
    f.setQuietResult(rc);
    if (!quiet) {
        const ZepLogItem n = ZepLogStr(name);
        zepLogSysRC(nullptr, f.functionId(), SYSFN_LoadLibrary, osError, rc, 30, level,
                    ZEP_LOG_ARGS(3), n.p, n.length, n.type, &flags, 4u, ZEP_LOGDATA_HEX);
    }
    f.traceError(30);
    return f.exit();
}

Uint32 ZEPHLibrary::getFuncAddress(const ZEPLibGetFuncAddressParam* param,
                                   ZEPLibGetFuncAddressInfo* info) {
    ZepFrame f(ZEPFN_ZEPHLibrary_getFuncAddress);
    f.traceData(10, ZepTrcObj(param), ZepTrcStr{param ? param->name : nullptr});
    if (param == nullptr || info == nullptr) {
        f.fail(ECF_INVALID_PARAMETER, 1111, ZEP_LOG_ERROR);
        return f.exit();
    }
    const bool quiet = (param->flags & ZEP_LIB_FUNC_QUIET) != 0;
    if (!loaded_) {
        f.setQuietResult(ECF_LIB_NOT_LOADED);
        if (!quiet) zepLog(nullptr, f.functionId(), f.rc(), 20, ZEP_LOG_INFO, 0);
        f.traceError(20);
        return f.exit();
    }
    void* address = zepos::GetProcAddress(handle_, param->name);
    info->address = reinterpret_cast<ZEPLibFunction>(address);
    if (address != nullptr) return f.exit();

    const Uint32 osError = zepos::GetLastError();
    f.setQuietResult(ECF_LIB_FUNC_NOT_FOUND);
    if (!quiet) {
        Uint32 level = ZEP_LOG_INFO;
        const Uint32 mapped =
            zepErrorMapSystem(f.functionId(), 30, SYSFN_GetProcAddress, osError, &level);
        zepLogSysRC(nullptr, f.functionId(), SYSFN_GetProcAddress, osError, mapped, 30, level,
                    ZEP_LOG_ARGS(1), &handle_, static_cast<Uint32>(sizeof handle_),
                    ZEP_LOGDATA_HEX);
        zepLog(nullptr, f.functionId(), ECF_LIB_FUNC_NOT_FOUND, 30, ZEP_LOG_INFO, 0);
    }
    f.traceError(30);
    return f.exit();
}

Uint32 ZEPHLibrary::getFuncAddress(String name, ZEPLibFunction* address) {
    ZEPLibGetFuncAddressParam param;
    param.name = name;
    ZEPLibGetFuncAddressInfo info;
    const Uint32 rc = getFuncAddress(&param, &info);
    if (rc == 0) *address = info.address;
    return rc;
}

Uint32 ZEPHLibrary::getFunctionAddresses(const ZEPLibGetFunctionAddressesParam* param,
                                         ZEPLibFunction* addresses) {
    ZepFrame f(ZEPFN_ZEPHLibrary_getFunctionAddresses);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    f.traceData(30, ZepTrcBlock{&param->count, 4});
    bool missed = false;
    for (Uint32 i = 0; i < param->count; ++i) {
        const String name = param->names[i];
        ZEPLibGetFuncAddressParam one;
        one.name = name;
        ZEPLibGetFuncAddressInfo info;
        const Uint32 rc = getFuncAddress(&one, &info);
        if (rc == 0) {
            addresses[i] = info.address;
        } else if (rc == ECF_LIB_FUNC_NOT_FOUND) {
            f.setQuietResult(rc);
            f.traceError(40);
            f.traceData(40, ZepTrcStr{name});
            const ZepLogItem n = ZepLogStr(name);
            zepLog(nullptr, f.functionId(), rc, 40, ZEP_LOG_INFO, 1, n.p, n.length, n.type);
            addresses[i] = nullptr;
            missed = true;
        } else {
            f.fail(rc, 50, ZEP_LOG_INFO);
            return f.exit();
        }
    }
    f.setQuietResult(missed ? ECF_PARTIAL_INFO : 0);
    return f.exit();
}

Uint32 ZEPHLibrary::unload() {
    ZepFrame f(ZEPFN_ZEPHLibrary_unload);
    if (!loaded_) {
        f.fail(ECF_LIB_NOT_LOADED, 10, ZEP_LOG_INFO);
        return f.exit();
    }
    if (!zepos::FreeLibrary(handle_)) {
        f.failMapped(20, SYSFN_FreeLibrary, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&handle_, sizeof handle_));
        return f.exit();
    }
    handle_ = nullptr, loaded_ = 0;
    return f.exit();
}
