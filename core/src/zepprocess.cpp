// zepprocess.cpp - ZEPHProcess, zepProcessParentID, zepProcessExit.
#include "zepprocess.h"

#include <stdlib.h>
#include <string.h>

#include "zepframe.h"
#include "zepipc.h"

namespace {

void* const kNoHandle = zepos::INVALID_HANDLE_VALUE;

// The two buffers of a command line, freed on every way out.
struct Buffers {
    char* program = nullptr;
    char* line = nullptr;
    ~Buffers() {
        free(program);
        free(line);
    }
};

}  // namespace

Uint32 ZEPHProcess::create(ZEPProcessParam* param, Uint32* processId, ZEPProcessStatus* status) {
    ZepFrame f(ZEPFN_ZEPHProcess_create);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    if (param->program == nullptr || param->flags > ZEP_PROCESS_MAX_FLAGS) {
        f.fail(ECF_INVALID_PARAMETER, 30, ZEP_LOG_ERROR);
        return f.exit();
    }
    // "Inherit handles" alone means nothing: the flags then stand for a plain child.
    if ((param->flags & (ZEP_PROCESS_DETACHED | ZEP_PROCESS_WAIT)) == 0) param->flags = 0;
    flags_ = param->flags;
    const Uint32 rc = createProcess(param, processId, status);
    if (rc != 0) f.fail(rc, 40, ZEP_LOG_INFO);
    return f.exit();
}

Uint32 ZEPHProcess::createProcess(ZEPProcessParam* param, Uint32* processId,
                                  ZEPProcessStatus* status) {
    ZepFrame f(ZEPFN_ZEPHProcess_createProcess);
    Uint32 creationFlags = zepos::NORMAL_PRIORITY_CLASS;
    if (flags_ & ZEP_PROCESS_DETACHED) creationFlags |= zepos::DETACHED_PROCESS;
    const Bool inherit = (flags_ & ZEP_PROCESS_INHERIT_HANDLES) ? 1 : 0;
    const bool waitForIt = (flags_ & ZEP_PROCESS_WAIT) != 0;
    Buffers b;

    // The program in double quotes, unless the caller quoted it.
    const char* program = param->program;
    const bool quoted = program[0] == '"';
    Uint32 length = static_cast<Uint32>(strlen(program)) + (quoted ? 0 : 2);
    Uint32 size = length + 3;
    b.program = static_cast<char*>(malloc(size));
    if (b.program == nullptr) {
        zepos::SetLastErrorFromErrno();
        f.failMapped(10, SYSFN_malloc, zepos::GetLastError(), ZEP_LOG_ARGS(1), ZepLogHex(&size, 4));
        return f.exit();
    }
    if (quoted) {
        memcpy(b.program, program, length + 1);
    } else {
        b.program[0] = '"';
        memcpy(b.program + 1, program, length - 2);
        b.program[length - 1] = '"';
        b.program[length] = 0;
    }

    // The arguments as they stand, each followed by a blank; the last blank ends the line.
    char* commandLine = b.program;
    if (param->arguments != nullptr) {
        Uint32 total = 0;
        for (const Char* a = param->arguments; *a; a += strlen(a) + 1)
            total += static_cast<Uint32>(strlen(a)) + 1;
        size = length + total + 1;
        // An empty list leaves the blank behind the program and its terminator: one byte more
        // than the size the arguments account for.
        b.line = static_cast<char*>(malloc(total == 0 ? size + 1 : size));
        if (b.line == nullptr) {
            zepos::SetLastErrorFromErrno();
            f.failMapped(20, SYSFN_malloc, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                         ZepLogHex(&size, 4));
            return f.exit();
        }
        char* p = b.line;
        memcpy(p, b.program, length);
        p += length;
        *p++ = ' ';
        for (const Char* a = param->arguments; *a; a += strlen(a) + 1) {
            const size_t n = strlen(a);
            memcpy(p, a, n);
            p += n;
            *p++ = ' ';
        }
        if (total != 0) --p;
        *p = 0;
        commandLine = b.line;
    }

    Uint8 descriptor[20];
    SECURITY_ATTRIBUTES attributes;
    Uint32 rc = zepInitSecurityAttributes(descriptor, &attributes);
    if (rc != 0) {
        f.setQuietResult(rc);
        f.traceError(30);
        return f.exit();
    }

    // No window ever: a hidden one, should the system have windows at all.
    zepos::STARTUPINFOA startup = {};
    startup.cb = 68;
    startup.dwFlags = zepos::STARTF_USESHOWWINDOW;
    startup.wShowWindow = zepos::SW_HIDE;
    // A child nobody will wait for must not stay behind as a zombie of this process.
    const Uint32 spawnFlags = creationFlags | (waitForIt ? 0u : Uint32{zepos::CREATE_ORPHANED});
    zepos::PROCESS_INFORMATION info = {};
    if (!zepos::CreateProcessA(nullptr, commandLine, &attributes, &attributes, inherit, spawnFlags,
                               param->environment, nullptr, &startup, &info)) {
        f.failMapped(40, SYSFN_CreateProcess, zepos::GetLastError(), ZEP_LOG_ARGS(0x30),
                     ZepLogItem{&inherit, 1, ZEP_LOGDATA_BOOL}, ZepLogHex(&creationFlags, 4));
        return f.exit();
    }
    zepos::CloseHandle(info.hThread);
    handle_ = info.hProcess;
    created_ = 1;

    if (waitForIt) {
        waiting_ = 1;
        rc = wait(info.dwProcessId, status);
        if (rc == 0 && processId != nullptr) *processId = info.dwProcessId;
        if (rc != 0) f.setQuietResult(rc);
    } else if (processId != nullptr) {
        *processId = info.dwProcessId;
    }
    if (handle_ != kNoHandle) {
        zepos::CloseHandle(handle_);
        handle_ = kNoHandle;
    }
    return f.exit();
}

Uint32 ZEPHProcess::wait(Uint32, ZEPProcessStatus* status) {
    ZepFrame f(ZEPFN_ZEPHProcess_wait);
    ZEPProcessStatus ignored;
    if (status == nullptr) status = &ignored;
    status->reserved1 = status->exitCode = status->reserved2 = 0;
    const Uint32 result = zepos::WaitForSingleObject(handle_, zepos::INFINITE);
    if (result == 0) {
        waiting_ = 0;
    } else if (result == zepos::WAIT_FAILED) {
        f.failMapped(50, SYSFN_WaitForSingleObject, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&handle_, sizeof handle_));
    } else {
        f.fail(ECF_FAILED, 60, ZEP_LOG_INFO);
    }
    if (!zepos::GetExitCodeProcess(handle_, &status->exitCode))
        f.failMapped(70, SYSFN_GetExitCodeProcess, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(&handle_, sizeof handle_));
    return f.exit();
}

Sint32 zepProcessParentID(void) {
    return -1;
}

void zepProcessExit(Uint32 code) {
    zepos::ExitProcess(code);
}
