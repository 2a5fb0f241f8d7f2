// zepipcres.cpp - resource identifiers, security attributes, authorize, the user queries.
#include "zepipc.h"

#include <string.h>

#include "zepframe.h"
#include "zepipcres.h"
#include "zeplib.h"
#include "zepnumconv.h"

namespace {

// Set by zepSetSecurityAttributesForZEP and read at each creation; a plain word, as callers set
// it once before the objects it should cover.
SECURITY_ATTRIBUTES* s_override = nullptr;

}  // namespace

Uint32 zepIPCGetResID(const ZEPIPCResIDParam* param, ZEPIPCResID* resID) {
    ZepFrame f(ZEPFN_zepIPCGetResID);
    if (f.refuseParam(resID)) return f.rc();
    // The input's own stamp isn't tested; only its absence is refused.
    if (param == nullptr) return f.fail(ECF_INVALID_PARAMETER, 1111, ZEP_LOG_ERROR), f.exit();
    f.traceData(10, ZepTrcObj(param));
    const bool localScope = resID->version >= ZEP_IPC_LOCALSCOPE_VERSION && param->localScope != 0;
    Char* name = resID->name;
    Uint32 n = 0;
    if (param->path != nullptr) {
        const bool global = !localScope && g_bRunningTerminalServiceRemoteAdminMode;
        n = static_cast<Uint32>(zepSnprintf(name, ZEP_IPC_NAME_LENGTH + 1,
                                            global ? "Global\\ZEPEIPC%d" : "ZEPEIPC%d",
                                            param->seed));
        for (const char* p = param->path; *p != 0 && n < ZEP_IPC_NAME_LENGTH; ++p)
            if (*p != ':' && *p != '\\') name[n++] = *p;
    }
    name[n] = 0;
    f.traceData(60, ZepTrcStr{name});
    return f.exit();
}

Uint32 zepIPCGetQueResID(const ZEPIPCResIDParam* param, ZEPIPCQueResID* queResID) {
    ZepFrame f(ZEPFN_zepIPCGetQueResID);
    if (f.refuseParam(queResID)) return f.rc();
    if (param == nullptr) return f.fail(ECF_INVALID_PARAMETER, 1111, ZEP_LOG_ERROR), f.exit();
    f.traceData(10, ZepTrcObj(param));
    Uint32 rc = zepIPCGetResID(param, &queResID->memory);
    Uint16 probe = 20;
    if (rc == 0) {
        // The semaphores' names come from a fresh parameter: their local scope stays false.
        ZEPIPCResIDParam sem;
        sem.path = param->path;
        sem.reserved = param->reserved;
        sem.seed = param->seed + 1;
        rc = zepIPCGetResID(&sem, &queResID->receiveSemaphore);
        probe = 30;
        if (rc == 0) {
            sem.seed = param->seed + 2;
            rc = zepIPCGetResID(&sem, &queResID->sendSemaphore);
            probe = 40;
        }
    }
    if (rc != 0) {
        f.setQuietResult(rc);
        f.traceError(probe);
    }
    return f.exit();
}

Uint32 zepIPCGenerateSeed(void) {
    return ECF_NOT_SUPPORTED;
}

void zepSetSecurityAttributesForZEP(SECURITY_ATTRIBUTES* attributes) {
    s_override = attributes;
}

namespace {

// The open-to-everyone attributes: a null DACL. Its own frame, its log records under the
// caller's identifier.
Uint32 zepInitSecurityAttributes2(void* descriptor, SECURITY_ATTRIBUTES* attributes) {
    ZepFrame f(ZEPFN_zepInitSecurityAttributes2);
    attributes->nLength = static_cast<Uint32>(sizeof(SECURITY_ATTRIBUTES));
    attributes->bInheritHandle = 1;
    Uint16 probe = 0;
    Uint32 called = 0;
    if (!zepos::InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION))
        probe = 10, called = SYSFN_InitializeSecurityDescriptor;
    else if (!zepos::SetSecurityDescriptorDacl(descriptor, 1, nullptr, 0))
        probe = 20, called = SYSFN_SetSecurityDescriptorDacl;
    if (probe != 0) {
        const Uint32 osError = zepos::GetLastError();
        Uint32 level = ZEP_LOG_INFO;
        const Uint32 rc =
            zepErrorMapSystem(ZEPFN_zepInitSecurityAttributes, probe, called, osError, &level);
        zepLogSysRC(nullptr, ZEPFN_zepInitSecurityAttributes, called, osError, rc, probe, level,
                    ZEP_LOG_ARGS(1), &descriptor, static_cast<Uint32>(sizeof descriptor),
                    ZEP_LOGDATA_HEX);
        f.setQuietResult(rc);
        f.traceError(probe);
        return f.exit();
    }
    attributes->lpSecurityDescriptor = descriptor;
    return f.exit();
}

}  // namespace

Uint32 zepInitSecurityAttributes(void* descriptor, SECURITY_ATTRIBUTES* attributes) {
    ZepFrame f(ZEPFN_zepInitSecurityAttributes);
    f.traceData(10, ZepTrcBlock{&descriptor, sizeof descriptor});
    if (attributes == nullptr) return f.fail(ECF_INVALID_PARAMETER, 10, ZEP_LOG_ERROR), f.exit();
    SECURITY_ATTRIBUTES* override = s_override;
    if (override != nullptr) {
        *attributes = *override;
        return f.exit();
    }
    f.setQuietResult(zepInitSecurityAttributes2(descriptor, attributes));
    return f.exit();
}

Uint32 zep_authorize(Uint32 functionId, const ZEPIPCSecurityParam* param) {
    ZepFrame f(functionId);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcBlock{param, 4});
    // Access is settled at creation by the attributes; nothing to change afterwards.
    return f.exit();
}

Uint32 zepGetCurrentUserName(const ZEPCurrentUserParam* param, Char* buffer) {
    ZepFrame f(ZEPFN_zepGetCurrentUserName);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    Uint32 size = param->bufferSize;
    if (!zepos::GetUserNameA(buffer, &size)) {
        const Uint32 given = param->bufferSize;
        f.failMapped(40, SYSFN_GetUserName, zepos::GetLastError(), ZEP_LOG_ARGS(3),
                     ZepLogUint(&size), ZepLogUint(&given));
    }
    return f.exit();
}

Uint32 zepGetCurrentUserDisplay(const ZEPCurrentUserParam* param, Char* buffer) {
    ZepFrame f(ZEPFN_zepGetCurrentUserDisplay);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    zepos::HANDLE process = zepos::GetCurrentProcess();
    zepos::HANDLE token = nullptr;
    if (!zepos::OpenProcessToken(process, zepos::TOKEN_READ | zepos::TOKEN_QUERY, &token)) {
        f.failMapped(30, SYSFN_OpenProcessToken, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&process, sizeof process));
        return f.exit();
    }
    Uint32 session = 0, returned = 0;
    if (!zepos::GetTokenInformation(token, zepos::TokenSessionId, &session, sizeof session,
                                    &returned)) {
        f.failMapped(40, SYSFN_GetTokenInformation, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&token, sizeof token));
    } else {
        zepSnprintf(buffer, param->bufferSize, "%d", static_cast<Sint32>(session));
    }
    if (!zepos::CloseHandle(token) && f.rc() == 0)
        f.failMapped(50, SYSFN_CloseHandle, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&token, sizeof token));
    return f.exit();
}
