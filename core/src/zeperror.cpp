// zeperror.cpp - the platform error map: one table for codes, one for names.
#include "zeperror.h"

#include "zepecf.h"
#include "zeplog.h"

namespace {

struct CodeRow {
    Uint32 osError;
    Uint32 code;
};

// Whatever the failed function, these numbers mean the same.
constexpr CodeRow kCodes[] = {
    {2, ECF_FILE_DOESNT_EXIST},        {3, ECF_FILE_PATH_DOESNT_EXIST},
    {5, ECF_ACCESS_DENIED},            {6, ECF_INVALID_PARAMETER},
    {8, ECF_NO_MEMORY},                {14, ECF_NO_MEMORY},
    {18, ECF_FILE_PROCESS_MAX},        {21, ECF_FILE_DEVICE_UNAVAILABLE},
    {32, ECF_FILE_SHARE},              {33, ECF_FILE_LOCK},
    {38, ECF_FILE_EOF},                {80, ECF_FILE_EXISTS},
    {86, ECF_SEC_INVALID_PASSWORD},    {87, ECF_INVALID_PARAMETER},
    {112, ECF_FILE_NO_SPACE},          {122, ECF_BUFFER_TOO_SMALL},
    {123, ECF_FILE_INVALID_NAME},      {126, ECF_FILE_DOESNT_EXIST},
    {127, ECF_LIB_FUNC_NOT_FOUND},     {145, ECF_FILE_DIR_NOT_EMPTY},
    {206, ECF_FILE_NAME_TOO_LONG},     {234, ECF_BUFFER_TOO_SMALL},
    {240, ECF_SESSION_CANCELED},       {267, ECF_FILE_NOT_A_DIRECTORY},
    {487, ECF_INVALID_ADDRESS},        {1004, ECF_INVALID_PARAMETER},
    {1005, ECF_FILE_PATH_DOESNT_EXIST}, {1113, ECF_NO_UNICODE_TRANSLATION},
    {1132, ECF_INVALID_ADDRESS},       {1455, ECF_NO_MEMORY},
};

struct NameRow {
    Uint32 osError;
    const char* name;
};

// Several numbers share a name: 6, 87 and 1004 all print as invalid flags, 8 and 14 as out of
// memory. 86, 1132 and 1455 map to a code above but have no name: the record shows the number.
constexpr NameRow kNames[] = {
    {2, "ERROR_FILE_NOT_FOUND"},       {3, "ERROR_PATH_NOT_FOUND"},
    {5, "ERROR_ACCESS_DENIED"},        {6, "ERROR_INVALID_FLAGS"},
    {8, "ERROR_OUTOFMEMORY"},          {14, "ERROR_OUTOFMEMORY"},
    {18, "ERROR_NO_MORE_FILES"},       {21, "ERROR_NOT_READY"},
    {32, "ERROR_SHARING_VIOLATION"},   {33, "ERROR_LOCK_VIOLATION"},
    {38, "ERROR_HANDLE_EOF"},          {80, "ERROR_FILE_EXISTS"},
    {87, "ERROR_INVALID_FLAGS"},       {112, "ERROR_DISK_FULL"},
    {122, "ERROR_INSUFFICIENT_BUFFER"}, {123, "ERROR_INVALID_NAME"},
    {126, "ERROR_MOD_NOT_FOUND"},      {127, "ERROR_PROC_NOT_FOUND"},
    {145, "ERROR_DIR_NOT_EMPTY"},      {183, "ERROR_ALREADY_EXISTS"},
    {206, "ERROR_FILENAME_EXCED_RANGE"}, {234, "ERROR_MORE_DATA"},
    {240, "ERROR_VC_DISCONNECTED"},    {267, "ERROR_DIRECTORY"},
    {487, "ERROR_INVALID_ADDRESS"},    {1004, "ERROR_INVALID_FLAGS"},
    {1005, "ERROR_UNRECOGNIZED_VOLUME"}, {1113, "ERROR_NO_UNICODE_TRANSLATION"},
};

Uint32 codeFor(Uint32 calledId, Uint32 osError) {
    // access and _stat report C runtime numbers (EACCES 13, EINVAL 22, ENOENT 2), not platform
    // ones, so their rows replace the general table entirely.
    if (calledId == SYSFN_access) {
        switch (osError) {
            case 13: return ECF_ACCESS_DENIED;
            case 22: return ECF_INVALID_PARAMETER;
            case 3: return ECF_FILE_DOESNT_EXIST;
            default: return ECF_UNKNOWN;
        }
    }
    if (calledId == SYSFN__stat) return osError == 2 || osError == 22 ? ECF_FILE_DOESNT_EXIST
                                                                       : ECF_UNKNOWN;
    // A failure without an error number: only TlsGetValue does that on purpose, for a slot
    // that was never set.
    if (osError == 0) return calledId == SYSFN_TlsGetValue ? ECF_INVALID_INVOCATION_SEQUENCE
                                                           : ECF_UNKNOWN;
    if (osError == 183) {
        if (calledId == SYSFN_CreateFileMapping) return ECF_MEM_EXISTS;
        if (calledId == SYSFN_CreateSemaphore) return ECF_SEM_EXISTS;
        return ECF_FILE_EXISTS;
    }
    for (const CodeRow& r : kCodes)
        if (r.osError == osError) return r.code;
    return ECF_UNKNOWN;
}

}  // namespace

Uint32 zepErrorMapSystem(Uint32 callerId, Uint32 probe, Uint32 calledId, Uint32 osError,
                         Uint32* level) {
    (void)callerId;
    (void)probe;
    Uint32 code = codeFor(calledId, osError);
    if (level != nullptr) {
        bool severe = code == ECF_UNKNOWN || code == ECF_NO_MEMORY ||
                      code == ECF_FILE_PROCESS_MAX || code == ECF_FILE_DEVICE_UNAVAILABLE ||
                      code == ECF_FILE_SHARE;
        *level = severe ? ZEP_LOG_ERROR : ZEP_LOG_INFO;
    }
    return code;
}

String zepErrorNameMapSystem(Uint32 calledId, Uint32 osError) {
    if (calledId == SYSFN_access) {
        if (osError == 13) return "EACCES";
        if (osError == 22) return "EINVAL";
        return nullptr;
    }
    if (calledId == SYSFN__stat) return osError == 2 ? "ENOENT" : nullptr;
    if (osError == 0) return calledId == SYSFN_TlsGetValue ? "NO_ERROR" : nullptr;
    for (const NameRow& r : kNames)
        if (r.osError == osError) return r.name;
    return nullptr;
}
