// zepipcmemory.cpp - ZEPHIPCMemory, ZEPHIPCPrivateMemory, ZEPHIPCMemoryEx.
#include "zepipcmemory.h"

#include <string.h>

#include "zepframe.h"
#include "zepipcres.h"
#include "zeplib.h"
#include "zepnumconv.h"

namespace {

void* const kNone = zepos::INVALID_HANDLE_VALUE;

// Access values of the platform's views.
constexpr Uint32 kMapReadWrite = zepos::FILE_MAP_READ | zepos::FILE_MAP_WRITE;  // 6

ZepLogItem logPtr(void* const* p) {
    return ZepLogHex(p, sizeof *p);
}

// The record of a failed platform call: its error mapped (the level into `level`) and logged at
// `probe`, with `args` as the record's further arguments (0, or ZEP_LOG_ARGS(n) and the items).
template <class... Args>
Uint32 systemRecord(Uint32 fid, Uint16 probe, Uint32 sysfn, Uint32 err, Uint32* level,
                    Args... args) {
    const Uint32 rc = zepErrorMapSystem(fid, probe, sysfn, err, level);
    zepLogSysRC(nullptr, fid, sysfn, err, rc, probe, *level, args...);
    return rc;
}

}  // namespace

// ---- ZEPHIPCMemory

ZEPHIPCMemory::ZEPHIPCMemory() : mapping_(kNone), address_(nullptr) {}

Uint32 ZEPHIPCMemory::create(const ZEPIPCMemoryCreateParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCMemory_create);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    Uint32 rc = 0, level = ZEP_LOG_ERROR;
    Uint16 probe = 0;
    SECURITY_DESCRIPTOR descriptor;
    SECURITY_ATTRIBUTES attributes;
    rc = zepInitSecurityAttributes(&descriptor, &attributes);
    if (rc != 0) {
        probe = 60;
    } else {
        zepos::SetLastError(0);
        mapping_ = zepos::CreateFileMappingA(zepos::INVALID_HANDLE_VALUE, &attributes,
                                             zepos::PAGE_READWRITE, 0, param->memorySize,
                                             param->resID.name);
        const Uint32 osError = zepos::GetLastError();
        f.traceData(70, ZepTrcBlock{&mapping_, sizeof mapping_});
        const Uint32 high = 0;
        if (mapping_ == nullptr || osError == zepos::ERROR_ALREADY_EXISTS) {
            // 183 maps to ECF_MEM_EXISTS: create never joins a block that is there.
            probe = mapping_ == nullptr ? 80 : 90;
            rc = systemRecord(f.functionId(), probe, SYSFN_CreateFileMapping, osError, &level,
                              ZEP_LOG_ARGS(3), &high, 4u, ZEP_LOGDATA_UINT, &param->memorySize, 4u,
                              ZEP_LOGDATA_UINT);
        } else {
            void* view = zepos::MapViewOfFileEx(mapping_, kMapReadWrite, 0, 0, 0, param->address);
            if (view == nullptr) {
                probe = 100;
                rc = systemRecord(f.functionId(), probe, SYSFN_MapViewOfFileEx,
                                  zepos::GetLastError(), &level, ZEP_LOG_ARGS(1), &param->address,
                                  8u, ZEP_LOGDATA_HEX);
            } else {
                address_ = view;
                f.traceData(110, ZepTrcBlock{&address_, sizeof address_});
                return f.exit();
            }
        }
    }
    // The failure path: the name at p, the rest of the request at p + 1; nothing kept.
    f.traceData(probe, ZepTrcBlock{&mapping_, sizeof mapping_});
    f.fail(rc, probe, ZEP_LOG_ERROR, ZepLogStr(param->resID.name));
    zepLog(nullptr, f.functionId(), rc, probe + 1, level, 5, &param->memorySize, 4u,
           ZEP_LOGDATA_UINT, &param->address, 8u, ZEP_LOGDATA_HEX, &param->accessMode, 4u,
           ZEP_LOGDATA_UINT, &param->flags, 4u, ZEP_LOGDATA_HEX, &mapping_, 8u, ZEP_LOGDATA_HEX);
    if (mapping_ != kNone && mapping_ != nullptr) zepos::CloseHandle(mapping_);
    mapping_ = kNone;
    address_ = nullptr;
    return f.exit();
}

Uint32 ZEPHIPCMemory::attach(const ZEPIPCResID* resID, const void* address) {
    ZepFrame f(ZEPFN_ZEPHIPCMemory_attach);
    f.traceData(10, ZepTrcBlock{&address, sizeof address});
    Uint16 probe;
    Uint32 level = ZEP_LOG_INFO;
    void* handle = zepos::OpenFileMappingA(kMapReadWrite, 0, resID->name);
    if (handle == nullptr) {
        // Absent or refused: to the caller it isn't there.
        probe = 50;
        zepLogSysRC(nullptr, f.functionId(), SYSFN_OpenFileMapping, zepos::GetLastError(),
                    ECF_MEM_DOESNT_EXIST, probe, level, 0);
        f.setQuietResult(ECF_MEM_DOESNT_EXIST);
    } else {
        mapping_ = handle;
        f.traceData(60, ZepTrcBlock{&mapping_, sizeof mapping_});
        void* view =
            zepos::MapViewOfFileEx(mapping_, kMapReadWrite, 0, 0, 0, const_cast<void*>(address));
        if (view != nullptr) {
            address_ = view;
            f.traceData(80, ZepTrcBlock{&address_, sizeof address_});
            return f.exit();
        }
        const Uint32 err = zepos::GetLastError();
        zepos::CloseHandle(mapping_);
        mapping_ = kNone;
        probe = 70;
        f.setQuietResult(systemRecord(f.functionId(), probe, SYSFN_MapViewOfFileEx, err, &level,
                                      ZEP_LOG_ARGS(2), &address, 8u, ZEP_LOGDATA_HEX));
    }
    const void* self = this;
    f.fail(f.rc(), probe, level, ZepLogStr(resID->name), ZepLogHex(&address, sizeof address),
           ZepLogHex(&self, sizeof self));
    return f.exit();
}

Uint32 ZEPHIPCMemory::detachIn(Uint32 functionId) {
    ZepFrame f(functionId);
    f.traceData(10, ZepTrcBlock{&address_, sizeof address_});
    if (!zepos::UnmapViewOfFile(address_)) {
        f.failMapped(30, SYSFN_UnmapViewOfFile, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logPtr(&address_));
    } else {
        address_ = nullptr;
    }
    if (!zepos::CloseHandle(mapping_)) {
        // The close's code wins; it has an error record and no log record.
        Uint32 level;
        f.setQuietResult(
            zepErrorMapSystem(functionId, 40, SYSFN_CloseHandle, zepos::GetLastError(), &level));
        f.traceError(40);
    }
    mapping_ = kNone;
    return f.exit();
}

Uint32 ZEPHIPCMemory::detach() {
    return detachIn(ZEPFN_ZEPHIPCMemory_detach);
}

Uint32 ZEPHIPCMemory::detachAndDestroy() {
    return detachIn(ZEPFN_ZEPHIPCMemory_detachAndDestroy);
}

Uint32 ZEPHIPCMemory::destroy() {
    ZepFrame f(ZEPFN_ZEPHIPCMemory_destroy);
    const void* self = this;
    f.traceData(40, ZepTrcBlock{&self, sizeof self});
    detach();
    return f.exit();
}

Uint32 ZEPHIPCMemory::getAddress(void** address) {
    ZepFrame f(ZEPFN_ZEPHIPCMemory_getAddress);
    *address = address_;
    f.traceData(10, ZepTrcBlock{&address_, sizeof address_});
    return f.exit();
}

Uint32 ZEPHIPCMemory::getMemorySize(Uint32* size) {
    ZepFrame f(ZEPFN_ZEPHIPCMemory_getMemorySize);
    void* process = zepos::GetCurrentProcess();
    if (process == nullptr) return f.fail(ECF_INVALID_HANDLE, 20, ZEP_LOG_INFO), f.exit();
    zepos::MEMORY_BASIC_INFORMATION info;
    const size_t got = zepos::VirtualQueryEx(process, address_, &info, sizeof info);
    if (got != sizeof info) {
        // The result stands where a platform error would.
        f.failSys(ECF_FAILED, 30, ZEP_LOG_ERROR, SYSFN_VirtualQueryEx, static_cast<Uint32>(got),
                  ZEP_LOG_ARGS(3), logPtr(&process), logPtr(&address_));
        return f.exit();
    }
    *size = static_cast<Uint32>(info.RegionSize);
    f.traceData(40, ZepTrcBlock{size, 4});
    return f.exit();
}

Uint32 ZEPHIPCMemory::authorize(const ZEPIPCSecurityParam* param) {
    return zep_authorize(ZEPFN_ZEPHIPCMemory_authorize, param);
}

// ---- ZEPHIPCPrivateMemory

Uint32 ZEPHIPCPrivateMemory::create(ZEPIPCMemoryCreateParam* param) {
    ZepFrame f(ZEPFN_ZEPHIPCPrivateMemory_create);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    Char text[ZEP_MAX_PATH + 1];
    zepSnprintf(text, sizeof text, "PRIVMEMPID%uTID%llu", zepProcessID(),
                static_cast<unsigned long long>(static_cast<Uint64>(zepThreadID())));
    f.traceData(20, ZepTrcStr{text});
    ZEPIPCResIDParam id;
    id.path = text;
    id.localScope = 0;
    for (id.seed = 0;; ++id.seed) {
        if (id.seed == 100) return f.fail(ECF_NO_RESOURCE, 100, ZEP_LOG_INFO), f.exit();
        Uint32 rc = zepIPCGetResID(&id, &param->resID);
        if (rc != 0) {
            f.setQuietResult(rc);
            return f.exit();
        }
        void* taken = zepos::OpenFileMappingA(kMapReadWrite, 0, param->resID.name);
        if (taken == nullptr) break;
        zepos::CloseHandle(taken);
    }
    // Free when tested; another creator that wins the name meanwhile shows as ECF_MEM_EXISTS.
    resID_ = param->resID;
    f.setQuietResult(memory_.create(param));
    return f.exit();
}

Uint32 ZEPHIPCPrivateMemory::remoteInitialization() {
    ZepFrame f(ZEPFN_ZEPHIPCPrivateMemory_remoteInitialization);
    resID_.name[260] = 0;
    f.traceData(20, ZepTrcBlock{&memory_.mapping_, sizeof memory_.mapping_},
                ZepTrcBlock{&memory_.address_, sizeof memory_.address_}, ZepTrcStr{resID_.name});
    if (resID_.name[0] == 0) return f.fail(ECF_MEM_DOESNT_EXIST, 100, ZEP_LOG_INFO), f.exit();
    // The sender's handle and view mean nothing in this process.
    memory_.mapping_ = kNone;
    memory_.address_ = nullptr;
    return f.exit();
}

Uint32 ZEPHIPCPrivateMemory::attach(const void* address) {
    ZepFrame f(ZEPFN_ZEPHIPCPrivateMemory_attach);
    f.traceData(10, ZepTrcBlock{&address, sizeof address});
    f.traceData(40, ZepTrcStr{resID_.name});
    f.setQuietResult(memory_.attach(&resID_, address));
    return f.exit();
}

// ---- ZEPHIPCMemoryEx

namespace {

bool validPlainName(const char* name) {
    if (name == nullptr || name[0] == 0) return false;
    size_t n = 0;
    for (; name[n] != 0; ++n)
        if (name[n] == '\\' || n >= ZEP_IPC_MEMEX_NAME_MAX) return false;
    return true;
}

Uint32 accessOf(Uint64 flags) {
    if (flags & ZEP_IPC_MEMEX_READ) return zepos::FILE_MAP_READ;
    if (flags & ZEP_IPC_MEMEX_READ_WRITE) return kMapReadWrite;
    return 0;
}

}  // namespace

ZEPHIPCMemoryEx::ZEPHIPCMemoryEx() {
    reset();
}

ZEPHIPCMemoryEx::~ZEPHIPCMemoryEx() {
    reset();
}

// After a refusal (other than of a second call on an attached object): the mapping this call
// opened is closed again and the object is empty.
void ZEPHIPCMemoryEx::abandon(Uint32 functionId, bool ownsMapping) {
    Uint32 level;
    if (ownsMapping && !zepos::CloseHandle(mapping_))
        systemRecord(functionId, 200, SYSFN_close, zepos::GetLastError(), &level, 0);
    reset();
}

void ZEPHIPCMemoryEx::reset() {
    mapping_ = kNone;
    memset(name_, 0, sizeof name_);
    address_ = nullptr;
    size_ = 0;
}

Uint32 ZEPHIPCMemoryEx::create(const ZEPIPCMemoryExCreateParam* param, ZEPIPCMemoryExInfo* info) {
    ZepFrame f(ZEPFN_ZEPHIPCMemoryEx_create);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    Uint32 rc = 0, level = ZEP_LOG_ERROR;
    Uint16 probe = 0;
    bool ownsMapping = false;
    const Uint32 high = static_cast<Uint32>(param->size >> 32);
    const Uint32 low = static_cast<Uint32>(param->size);
    const Uint32 access = accessOf(param->flags);
    if (address_ != nullptr) {
        probe = 20, rc = ECF_INVALID_INVOCATION_SEQUENCE;
    } else if (!validPlainName(param->name) || param->size == 0 || param->flags == 0 ||
               param->accessMode == 0) {
        probe = 30, rc = ECF_INVALID_PARAMETER;
    } else {
        SECURITY_DESCRIPTOR descriptor;
        SECURITY_ATTRIBUTES attributes;
        ZEPIPCResIDParam id;
        id.path = param->name;
        id.seed = 120;
        ZEPIPCResID resID;
        if ((rc = zepInitSecurityAttributes(&descriptor, &attributes)) != 0) {
            probe = 110;
            zepLogRC(nullptr, f.functionId(), ZEPFN_zepInitSecurityAttributes, rc, rc, probe, level,
                     0);
        } else if ((rc = zepIPCGetResID(&id, &resID)) != 0) {
            probe = 120;
            zepLogRC(nullptr, f.functionId(), ZEPFN_zepIPCGetResID, rc, rc, probe, level, 0);
        } else {
            memcpy(name_, resID.name, sizeof name_);
            zepos::SetLastError(0);
            void* handle = zepos::CreateFileMappingA(zepos::INVALID_HANDLE_VALUE, &attributes,
                                                     zepos::PAGE_READWRITE, high, low, name_);
            const Uint32 osError = zepos::GetLastError();
            if (handle == nullptr) {
                probe = 140;
                rc = systemRecord(f.functionId(), probe, SYSFN_CreateFileMapping, osError, &level,
                                  ZEP_LOG_ARGS(7), &high, 4u, ZEP_LOGDATA_UINT, &low, 4u,
                                  ZEP_LOGDATA_UINT, name_, static_cast<Uint32>(strlen(name_)),
                                  ZEP_LOGDATA_STRING);
            } else {
                mapping_ = handle;
                ownsMapping = true;
                if ((param->flags & ZEP_IPC_MEMEX_MUST_NOT_EXIST) &&
                    osError == zepos::ERROR_ALREADY_EXISTS) {
                    probe = 150, rc = ECF_EXISTS, level = ZEP_LOG_INFO;
                    zepLogSysRC(nullptr, f.functionId(), SYSFN_CreateFileMapping, osError, rc,
                                probe, level, ZEP_LOG_ARGS(7), &high, 4u, ZEP_LOGDATA_UINT, &low,
                                4u, ZEP_LOGDATA_UINT, name_, static_cast<Uint32>(strlen(name_)),
                                ZEP_LOGDATA_STRING);
                } else {
                    void* view = zepos::MapViewOfFileEx(mapping_, access, 0, 0, 0, param->address);
                    if (view == nullptr) {
                        probe = 160;
                        rc = systemRecord(f.functionId(), probe, SYSFN_MapViewOfFileEx,
                                          zepos::GetLastError(), &level, 0);
                    } else {
                        address_ = view;
                        size_ = param->size;
                        if (info != nullptr) info->address = view;
                        f.traceData(170, ZepTrcBlock{&address_, sizeof address_});
                        return f.exit();
                    }
                }
            }
        }
    }
    // The failure path. An object that was attached already keeps its block: the refusal is
    // about this call, and what it holds stays the caller's to detach.
    const void* self = this;
    f.traceData(probe, ZepTrcBlock{&self, sizeof self});
    f.fail(rc, probe, level, ZepLogStr(param->name), ZepLogItem{&param->size, 8, ZEP_LOGDATA_UINT},
           ZepLogHex(&param->flags, 8), ZepLogHex(&param->address, sizeof param->address),
           ZepLogItem{&param->accessMode, 4, ZEP_LOGDATA_UINT}, ZepLogHex(&param->reserved, 8),
           ZepLogHex(&self, sizeof self), ZepLogStr(name_));
    if (probe != 20) abandon(f.functionId(), ownsMapping);
    return f.exit();
}

Uint32 ZEPHIPCMemoryEx::attach(const ZEPIPCMemoryExAttachParam* param, ZEPIPCMemoryExInfo* info) {
    ZepFrame f(ZEPFN_ZEPHIPCMemoryEx_attach);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    Uint32 rc = 0, level = ZEP_LOG_ERROR;
    Uint16 probe = 0;
    bool ownsMapping = false;
    const Uint32 access = accessOf(param->flags);
    if (address_ != nullptr) {
        probe = 20, rc = ECF_INVALID_INVOCATION_SEQUENCE;
    } else if (!validPlainName(param->name)) {
        probe = 30, rc = ECF_INVALID_PARAMETER;
    } else {
        ZEPIPCResIDParam id;
        id.path = param->name;
        id.seed = 120;
        ZEPIPCResID resID;
        if ((rc = zepIPCGetResID(&id, &resID)) != 0) {
            probe = 90;
            zepLogRC(nullptr, f.functionId(), ZEPFN_zepIPCGetResID, rc, rc, probe, level, 0);
        } else {
            memcpy(name_, resID.name, sizeof name_);
            void* handle = zepos::OpenFileMappingA(access, 0, name_);
            if (handle == nullptr) {
                probe = 100, level = ZEP_LOG_INFO;
                const Uint32 err = zepos::GetLastError();
                Uint32 mapped;
                rc = zepErrorMapSystem(f.functionId(), probe, SYSFN_OpenFileMapping, err, &mapped);
                zepLogSysRC(nullptr, f.functionId(), SYSFN_OpenFileMapping, err, rc, probe, level,
                            0);
            } else {
                mapping_ = handle;
                ownsMapping = true;
                f.traceData(110, ZepTrcBlock{&mapping_, sizeof mapping_});
                void* view = zepos::MapViewOfFileEx(mapping_, access, 0, 0, 0, param->address);
                if (view == nullptr) {
                    probe = 120;
                    rc = systemRecord(f.functionId(), probe, SYSFN_MapViewOfFileEx,
                                      zepos::GetLastError(), &level, 0);
                } else {
                    address_ = view;
                    if (info != nullptr) info->address = view;
                    f.traceData(150, ZepTrcBlock{&address_, sizeof address_});
                    return f.exit();
                }
            }
        }
    }
    const void* self = this;
    f.traceData(probe, ZepTrcBlock{&self, sizeof self});
    f.fail(rc, probe, level, ZepLogStr(param->name), ZepLogHex(&param->flags, 8),
           ZepLogHex(&param->address, sizeof param->address), ZepLogHex(&param->reserved, 8),
           ZepLogHex(&self, sizeof self), ZepLogStr(name_));
    if (probe != 20) abandon(f.functionId(), ownsMapping);
    return f.exit();
}

Uint32 ZEPHIPCMemoryEx::detachIn(Uint32 functionId) {
    ZepFrame f(functionId);
    f.traceData(10, ZepTrcBlock{&address_, sizeof address_});
    if (zepos::UnmapViewOfFile(address_)) {
        address_ = nullptr;
    } else {
        f.failMapped(30, SYSFN_UnmapViewOfFile, zepos::GetLastError(), 0);
        zepLog(nullptr, functionId, f.rc(), 30, ZEP_LOG_INFO, 3, name_,
               static_cast<Uint32>(strlen(name_)), ZEP_LOGDATA_STRING, &size_, 8u, ZEP_LOGDATA_UINT,
               &address_, 8u, ZEP_LOGDATA_HEX);
    }
    if (!zepos::CloseHandle(mapping_)) {
        const Uint32 err = zepos::GetLastError();
        if (f.rc() == 0) {
            f.failMapped(40, SYSFN_CloseHandle, err, 0);
        } else {
            // The first code stays; the close still has its record.
            Uint32 level;
            systemRecord(functionId, 40, SYSFN_CloseHandle, err, &level, 0);
            f.traceError(40);
        }
    } else {
        reset();
    }
    return f.exit();
}

Uint32 ZEPHIPCMemoryEx::detach() {
    return detachIn(ZEPFN_ZEPHIPCMemoryEx_detach);
}

Uint32 ZEPHIPCMemoryEx::destroy() {
    const Uint32 rc = detachIn(ZEPFN_ZEPHIPCMemoryEx_destroy);
    reset();
    return rc;
}
