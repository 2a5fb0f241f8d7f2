// zepsysinfo.cpp - processors, memory, operating system, disks and mounts.
#include "zepsysinfo.h"

#include <string.h>

#include "zepframe.h"
#include "zepfile.h"
#include "zeplib.h"
#include "zepnumconv.h"
#include "zeptopology.h"

namespace {

// The degree of threading and what the probe learnt, worked out once per process. The guard
// is a plain byte: two first callers at once both run the probe, which gives both the same
// answer.
Uint32 g_threading = 1;
Bool g_topologyPending = 1;
Uint32 g_vendor = ZEP_VENDOR_UNKNOWN;
Uint32 g_maxStandardLeaf = 0;
Uint32 g_maxExtendedLeaf = 0;
Uint32 g_coresPerPackage = 1;

// An error record at `probe` that carries `value` (a platform error number, a status) rather
// than the operation's result.
void traceErrorValue(const ZepFrame& f, Uint16 probe, const void* value, Uint32 size) {
    if (zepTraceOn())
        _gtraceErrorVar(static_cast<Uint64>(zepos::GetCurrentThreadId()), f.functionId(), probe, 4,
                        0, 0, 1u, 0u, size, value);
}

void copyBounded(Char* to, const char* from) {  // a value string: at most 255 characters
    size_t n = strlen(from);
    if (n > 255) n = 255;
    memcpy(to, from, n);
    to[n] = 0;
}

// ---- the probe on this machine

void machineCpuid(Uint32 leaf, Uint32 regs[4]) {
    zepos::Cpuid(leaf, regs);
}
int machineGetAffinity(uintptr_t* processMask, uintptr_t* systemMask) {
    return zepos::GetProcessAffinityMask(zepos::GetCurrentProcess(), processMask, systemMask);
}
int machineSetAffinity(uintptr_t processMask) {
    return zepos::SetProcessAffinityMask(zepos::GetCurrentProcess(), processMask);
}
void machineYield() {
    zepos::Sleep(0);
}
const ZepTopologyOps kMachineOps = {machineCpuid, machineGetAffinity, machineSetAffinity,
                                    machineYield};

}  // namespace

const ZepTopologyOps* zepMachineTopologyOps() {
    return &kMachineOps;
}

Sint32 zepBytesToMB(Uint64 bytes) {
    return static_cast<Sint32>(static_cast<Uint32>((bytes + 0xFFFFFu) >> 20));
}

ZepTopology zepProbeTopology(const ZepTopologyOps* ops) {
    ZepTopology t = {ZEP_VENDOR_UNKNOWN, 0, 0, 1, 1, 0};
    Uint32 r[4];
    bool counted = false;
    Uint32 count = 0;

    // Vendor and the highest leaves. The instruction can't fault on the processors this
    // library builds for, so the guard the design puts around it has nothing to catch here.
    ops->cpuid(0, r);
    t.maxStandardLeaf = r[0];
    char vendor[13];
    memcpy(vendor, &r[1], 4);
    memcpy(vendor + 4, &r[3], 4);
    memcpy(vendor + 8, &r[2], 4);
    vendor[12] = 0;
    if (strcmp(vendor, "GenuineIntel") == 0) t.vendor = ZEP_VENDOR_INTEL;
    if (strcmp(vendor, "AuthenticAMD") == 0) t.vendor = ZEP_VENDOR_AMD;
    ops->cpuid(0x80000000u, r);
    t.maxExtendedLeaf = r[0];
    ops->cpuid(1, r);
    const Uint32 eax1 = r[0], ebx1 = r[1], edx1 = r[3];
    const bool familyFits = ((eax1 >> 8) & 0xF) == 0xF || ((eax1 >> 20) & 0xF) != 0;

    if (familyFits && t.vendor == ZEP_VENDOR_INTEL && (edx1 & (1u << 28)) != 0) {
        const Uint32 logical = (ebx1 >> 16) & 0xFF;
        counted = true;
        count = 1;
        uintptr_t processMask = 0, systemMask = 0;
        if (logical > 1 && ops->getAffinity(&processMask, &systemMask)) {
            Uint32 shift = 0;
            while ((static_cast<Uint64>(1) << shift) < logical) ++shift;
            Uint32 package[32];
            Uint32 noted = 0;
            for (uintptr_t bit = 1; bit != 0 && bit <= processMask && noted < 32; bit <<= 1) {
                if ((processMask & bit) == 0) continue;
                if (!ops->setAffinity(bit)) break;
                ops->yield();
                ops->cpuid(1, r);
                package[noted++] = (r[1] >> 24) >> shift;
            }
            ops->setAffinity(processMask);  // every path out of the loop puts it back
            t.packageEntries = noted;
            if (noted >= 2) {
                count = 0;
                for (Uint32 i = 0; i < noted; ++i)
                    if (package[i] == package[0]) ++count;
            }
        }
    }

    if (t.vendor == ZEP_VENDOR_INTEL && t.maxStandardLeaf >= 4) {
        ops->cpuid(4, r);
        t.coresPerPackage = (r[0] >> 26) + 1;
    } else if (t.vendor == ZEP_VENDOR_AMD && t.maxExtendedLeaf >= 0x80000008u) {
        ops->cpuid(0x80000008u, r);
        t.coresPerPackage = (r[2] & 0xFF) + 1;
    }
    t.threadsPerCore = counted ? count / t.coresPerPackage : 1;
    return t;
}

void zepSysInfoOneTimeOnly(void) {
    if (g_topologyPending) {
        g_topologyPending = 0;
        const ZepTopology t = zepProbeTopology(&kMachineOps);
        g_vendor = t.vendor;
        g_maxStandardLeaf = t.maxStandardLeaf;
        g_maxExtendedLeaf = t.maxExtendedLeaf;
        g_coresPerPackage = t.coresPerPackage;
        g_threading = t.threadsPerCore;
    }
}

Uint32 zepGetCPUInfo(ZEPCPUInfo* info) {
    ZepFrame f(ZEPFN_zepGetCPUInfo);
    if (f.refuseParam(info)) return f.rc();
    zepSysInfoOneTimeOnly();
    info->threadsPerCore.value = g_threading;

    zepos::PROCESSOR_COUNTS counts;
    zepos::GetProcessorCounts(&counts);
    info->processorsTotal.value = counts.configured;
    info->processorsConfigured.value = counts.online;
    info->processorsOnline.value = counts.usable;

    if (info->version >= ZEP_SYSINFO_STAMP_CORES) info->coresPerPackage.value = g_coresPerPackage;

    if (g_bIsPlatformID_Win32On95) {
        info->speedMHz.state = ECF_NOT_SUPPORTED;
        f.setQuietResult(ECF_PARTIAL_INFO);
    } else {
        zepos::HKEY key;
        Sint32 err = zepos::RegOpenKeyExA(zepos::HKEY_LOCAL_MACHINE,
                                          "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", 0,
                                          zepos::KEY_QUERY_VALUE, &key);
        if (err != 0) {
            traceErrorValue(f, 10, &err, 4);
        } else {
            Uint32 size = 4;
            err = zepos::RegQueryValueExA(key, "~MHZ", nullptr, nullptr,
                                          reinterpret_cast<Uint8*>(&info->speedMHz.value), &size);
            if (err != 0) traceErrorValue(f, 20, &err, 4);
            zepos::RegCloseKey(key);
        }
        if (err != 0) {
            info->speedMHz.state = ECF_FAILED;
            f.setQuietResult(ECF_PARTIAL_INFO);
        }
    }
    f.traceData(200, ZepTrcObj(info));
    return f.exit();
}

namespace {

// The memory status in bytes, from the full call or, where that fails, from the old one.
void memoryStatus(zepos::MEMORYSTATUSEX* ms) {
    memset(ms, 0, sizeof *ms);
    ms->dwLength = sizeof *ms;
    if (zepos::GlobalMemoryStatusEx(ms)) return;
    zepos::MEMORYSTATUS old;
    zepos::GlobalMemoryStatus(&old);
    ms->ullTotalPhys = old.dwTotalPhys;
    ms->ullAvailPhys = old.dwAvailPhys;
    ms->ullTotalPageFile = old.dwTotalPageFile;
    ms->ullAvailPageFile = old.dwAvailPageFile;
    ms->ullTotalVirtual = old.dwTotalVirtual;
    ms->ullAvailVirtual = old.dwAvailVirtual;
}

void setMB(ZEPSysInfoSint* field, Uint64 bytes) {
    field->value = zepBytesToMB(bytes);
    field->state = 0;
}

}  // namespace

Uint32 zepGetPhysMemInfo(ZEPPhysMemInfo* info) {
    ZepFrame f(ZEPFN_zepGetPhysMemInfo);
    if (f.refuseParam(info)) return f.rc();
    zepos::MEMORYSTATUSEX ms;
    memoryStatus(&ms);
    setMB(&info->physTotal, ms.ullTotalPhys);
    setMB(&info->physFree, ms.ullAvailPhys);
    setMB(&info->physAllocatable,
          ms.ullAvailPhys < ms.ullAvailVirtual ? ms.ullAvailPhys : ms.ullAvailVirtual);
    setMB(&info->addressSpaceTotal, ms.ullTotalVirtual);
    f.traceData(200, ZepTrcObj(info));
    return f.exit();
}

Uint32 zepGetPhysSwapInfo(ZEPPhysSwapInfo* info) {
    ZepFrame f(ZEPFN_zepGetPhysSwapInfo);
    if (f.refuseParam(info)) return f.rc();
    zepos::MEMORYSTATUSEX ms;
    memoryStatus(&ms);
    // The page file's numbers include physical memory; the swap is what lies beyond it.
    auto beyond = [](Uint64 a, Uint64 b) { return a > b ? a - b : 0; };
    setMB(&info->swapTotal, beyond(ms.ullTotalPageFile, ms.ullTotalPhys));
    setMB(&info->swapFree, beyond(ms.ullAvailPageFile, ms.ullAvailPhys));
    f.traceData(200, ZepTrcObj(info));
    return f.exit();
}

Uint32 zepGetVirtualMemInfo(ZEPVirtualMemInfo* info) {
    ZepFrame f(ZEPFN_zepGetVirtualMemInfo);
    if (f.refuseParam(info)) return f.rc();
    info->notSupported1.state = ECF_NOT_SUPPORTED;
    info->notSupported2.state = ECF_NOT_SUPPORTED;

    // The code that made a nested query unusable: its result if that was a failure, else the
    // state of the first value it couldn't give.
    auto unusable = [](Uint32 rc, const ZEPSysInfoSint& total, const ZEPSysInfoSint& free) {
        if (rc == ECF_FAILED || rc == ECF_NOT_SUPPORTED) return rc;
        return total.state != 0 ? total.state : free.state;
    };
    Uint32 code = 0;
    Uint16 probe = 0;
    ZEPPhysMemInfo mem;
    ZEPPhysSwapInfo swap;
    Uint32 rc = zepGetPhysMemInfo(&mem);
    if ((code = unusable(rc, mem.physTotal, mem.physFree)) != 0) {
        probe = 10;
    } else {
        rc = zepGetPhysSwapInfo(&swap);
        if ((code = unusable(rc, swap.swapTotal, swap.swapFree)) != 0) probe = 20;
    }
    if (probe != 0) {
        f.setQuietResult(code);
        f.traceError(probe);
        f.setQuietResult(code == ECF_NOT_SUPPORTED ? ECF_NOT_SUPPORTED : ECF_FAILED);
        return f.exit();
    }
    info->virtualTotal.value = mem.physTotal.value + swap.swapTotal.value;
    info->virtualFree.value = mem.physFree.value + swap.swapFree.value;
    f.setQuietResult(rc);
    return f.exit();
}

Uint32 zepGetOSInfo(ZEPOSInfo* info) {
    ZepFrame f(ZEPFN_zepGetOSInfo);
    if (f.refuseParam(info)) return f.rc();
    if (info->version >= ZEP_SYSINFO_STAMP_CORES) {
        info->osExtra.state = ECF_NOT_SUPPORTED;
        f.setQuietResult(ECF_PARTIAL_INFO);
    }
    int failures = 0;

    Uint32 size = 255;
    if (!zepos::GetComputerNameA(info->nodeName.value, &size)) {
        const Uint32 err = zepos::GetLastError();
        info->nodeName.state = ECF_FAILED;
        traceErrorValue(f, 10, &err, 4);
        ++failures;
    }

    zepos::OSVERSIONINFOA v;
    memset(&v, 0, sizeof v);
    v.dwOSVersionInfoSize = sizeof v;
    if (zepos::GetVersionExA(&v)) {
        copyBounded(info->osName.value, v.szSystemName);
        zepSnprintf(info->osVersion.value, 256, "%d.%d", static_cast<int>(v.dwMajorVersion),
                    static_cast<int>(v.dwMinorVersion));
        copyBounded(info->osRelease.value, v.szCSDVersion);
    } else {
        const Uint32 err = zepos::GetLastError();
        info->osName.state = info->osVersion.state = info->osRelease.state = ECF_FAILED;
        traceErrorValue(f, 20, &err, 4);
        ++failures;
    }

    zepos::SYSTEM_INFO si;
    zepos::GetSystemInfo(&si);
    const int level = si.wProcessorLevel;
    const int model = si.wProcessorRevision >> 8, stepping = si.wProcessorRevision & 0xFF;
    switch (si.wProcessorArchitecture) {
        case zepos::PROCESSOR_ARCHITECTURE_INTEL:
            if (si.dwProcessorType == zepos::PROCESSOR_INTEL_PENTIUM)
                zepSnprintf(info->processor.value, 256, "x86 Family %d, model %d, stepping %d",
                            level, model, stepping);
            else if (si.dwProcessorType == zepos::PROCESSOR_INTEL_386 ||
                     si.dwProcessorType == zepos::PROCESSOR_INTEL_486)
                info->processor.state = ECF_NOT_SUPPORTED;
            break;
        case zepos::PROCESSOR_ARCHITECTURE_AMD64:
            zepSnprintf(info->processor.value, 256, "AMD64 Family %d, model %d, stepping %d", level,
                        model, stepping);
            break;
        case 6:  // the other 64-bit architecture of the design's platform
            zepSnprintf(info->processor.value, 256, "IA64 Family %d, model %d, stepping %d", level,
                        model, stepping);
            break;
        default:
            f.traceData(30, ZepTrcObj(&si));
            info->processor.state = ECF_FAILED;
            ++failures;
            break;
    }

    if (failures == 3)
        f.setQuietResult(ECF_FAILED);
    else if (failures > 0)
        f.setQuietResult(ECF_PARTIAL_INFO);
    f.traceData(200, ZepTrcObj(info));
    return f.exit();
}

Uint32 zepGetKernelIPCInfo(ZEPKernelIPCInfo* info) {
    ZepFrame f(ZEPFN_zepGetKernelIPCInfo);
    if (f.refuseParam(info)) return f.rc();
    ZEPSysInfoSint* const sints[] = {&info->msgQueuesMax,      &info->msgMessageSizeMax,
                                     &info->msgQueueBytesMax,  &info->msgMessagesMax,
                                     &info->msgSegmentSize,    &info->msgSegmentsMax,
                                     &info->msgHeadersMax,     &info->shmSegmentSizeMin,
                                     &info->shmSegmentsMax,    &info->shmSegmentsPerProcessMax,
                                     &info->semSetsMax,        &info->semSemaphoresMax,
                                     &info->semPerSetMax,      &info->semOperationsMax,
                                     &info->semUndoEntriesMax, &info->semUndoPerProcessMax,
                                     &info->semUndoSize,       &info->semValueMax,
                                     &info->semAdjustMax};
    for (ZEPSysInfoSint* s : sints) s->state = ECF_NOT_SUPPORTED;
    info->shmSegmentSizeMax.state = ECF_NOT_SUPPORTED;
    info->shmTotalMax.state = ECF_NOT_SUPPORTED;
    // An older caller's record ends before the last field.
    if (info->version >= ZEP_SYSINFO_STAMP_IPC_LAST)
        info->semUndoStructuresMax.state = ECF_NOT_SUPPORTED;
    f.setQuietResult(ECF_NOT_SUPPORTED);
    return f.exit();
}

Uint32 zepGetSystemDirectory(const ZEPSystemDirectoryParam* param, ZEPSystemDirectoryInfo* info) {
    ZepFrame f(ZEPFN_zepGetSystemDirectory);
    if (f.refuseParam(param)) return f.rc();
    f.traceData(10, ZepTrcObj(param));
    if (info == nullptr) return f.fail(ECF_INVALID_PARAMETER, 1111, ZEP_LOG_ERROR);
    const Uint32 length = zepos::GetSystemDirectoryA(info->path, sizeof info->path);
    if (length == 0) {
        f.failMapped(20, SYSFN_GetSystemDirectory, zepos::GetLastError(), 0);
    } else {
        f.traceData(100, ZepTrcStr{info->path}, ZepTrcBlock{&length, 4});
    }
    return f.exit();
}

// ---- disks and mounts

Uint32 zepGetDiskInfo(const ZEPDiskInfoParam* param, ZEPDiskInfo* info) {
    ZepFrame f(ZEPFN_zepGetDiskInfo);
    if (f.refuseParam(param)) return f.rc();
    if (info == nullptr) {
        f.setQuietResult(ECF_INVALID_PARAMETER);
        return f.exit();
    }
    f.traceData(5, ZepTrcStr{param->path});
    const bool recent = param->version >= ZEP_VERSION_WORD;

    // Every state of the record; the last field exists in recent records only.
    ZEPSysInfoUint* const uints[] = {&info->notSupported1, &info->notSupported2,
                                     &info->maxComponentLength, &info->notSupported5,
                                     &info->driveKind};
    ZEPSysInfoStr* const strs[] = {&info->notSupported3, &info->notSupported4,
                                   &info->fileSystemType};
    auto setAll = [&](Uint32 state) {
        for (ZEPSysInfoUint* u : uints) u->state = state;
        for (ZEPSysInfoStr* s : strs) s->state = state;
        info->totalBytes.state = info->freeBytes.state = state;
        if (recent) info->notSupported6.state = state;
    };

    for (ZEPSysInfoUint* u : uints) u->value = 0;
    for (ZEPSysInfoStr* s : strs) s->value[0] = 0;
    info->totalBytes.value = info->freeBytes.value = 0;
    info->driveKind.state = 0;
    if (recent) {
        info->notSupported6.value = 0;
        info->notSupported4.state = 0;
        info->notSupported6.state = ECF_NOT_SUPPORTED;
        if (param->handle != -1) {
            setAll(ECF_NOT_SUPPORTED);
            f.setQuietResult(ECF_NOT_SUPPORTED);
            return f.exit();
        }
    }
    info->notSupported1.state = info->notSupported2.state = ECF_NOT_SUPPORTED;
    info->notSupported3.state = info->notSupported4.state = ECF_NOT_SUPPORTED;
    info->notSupported5.state = ECF_NOT_SUPPORTED;

    char work[262];
    const char* path = param->path ? param->path : "";
    zepSnprintf(work, sizeof work, "%s", path);
    size_t n = strlen(work);
    if (n == 0 || (work[n - 1] != ZEP_PATH_SEPARATOR && n + 1 < sizeof work))
        work[n++] = ZEP_PATH_SEPARATOR, work[n] = 0;

    if (zepos::GetFileAttributesA(path) == zepos::INVALID_FILE_ATTRIBUTES) {
        const Uint32 err = zepos::GetLastError();
        const bool volume = zepIsNTVolume(path);
        traceErrorValue(f, volume ? 27 : 25, &err, 4);
        if (volume) {
            f.setQuietResult(ECF_PARTIAL_INFO);
            return f.exit();
        }
        Uint32 level = ZEP_LOG_ERROR;
        const Uint32 rc =
            zepErrorMapSystem(f.functionId(), 25, SYSFN_GetFileAttributes, err, &level);
        f.failSys(rc, 25, ZEP_LOG_ERROR, SYSFN_GetFileAttributes, err, ZEP_LOG_ARGS(3),
                  ZepLogStr(path), ZepLogUint(&param->wanted));
        setAll(ECF_FAILED);
        return f.exit();
    }
    // A mount point is an ordinary directory to the attribute call here (no reparse points), and
    // the file system is found from any path on it, so the design's detour through the volume
    // name never arises; nor does cutting a drive-letter path back to its root.

    const Uint32 w = param->wanted;
    auto want = [w](Uint32 bits) { return w == ZEP_DISK_WANT_ALL || (w & bits) != 0; };
    if (want(ZEP_DISK_WANT_SIZE | ZEP_DISK_WANT_FREE)) {
        Uint64 caller = 0, total = 0, free = 0;
        if (zepos::GetDiskFreeSpaceExA(work, &caller, &total, &free)) {
            info->totalBytes.value = static_cast<Sint64>(total);
            info->freeBytes.value = static_cast<Sint64>(caller);
        } else {
            const Uint32 err = zepos::GetLastError();
            traceErrorValue(f, 30, &err, 4);
            info->totalBytes.state = info->freeBytes.state = ECF_FAILED;
        }
    }
    if (want(ZEP_DISK_WANT_TYPE | ZEP_DISK_WANT_MAX_COMPONENT)) {
        if (!zepos::GetVolumeInformationA(work, nullptr, 0, nullptr,
                                          &info->maxComponentLength.value, nullptr,
                                          info->fileSystemType.value, 255)) {
            const Uint32 err = zepos::GetLastError();
            traceErrorValue(f, 40, &err, 4);
            info->maxComponentLength.state = info->fileSystemType.state = ECF_FAILED;
        }
    }
    if (want(ZEP_DISK_WANT_DRIVE_KIND)) {
        const Uint32 kind = zepos::GetDriveTypeA(work);
        if (kind == zepos::DRIVE_REMOVABLE) {
            info->driveKind.value = ZEP_DRIVE_REMOVABLE;
        } else if (kind >= zepos::DRIVE_FIXED && kind <= zepos::DRIVE_RAMDISK) {
            info->driveKind.value = ZEP_DRIVE_FIXED;
        } else if (kind == zepos::DRIVE_UNKNOWN || kind == zepos::DRIVE_NO_ROOT_DIR) {
            traceErrorValue(f, kind == zepos::DRIVE_UNKNOWN ? 50 : 60, &kind, 4);
            info->driveKind.state = ECF_FAILED;
        }
    }
    auto failed = [](Uint32 state) { return state != 0 && state != ECF_NOT_SUPPORTED; };
    f.setQuietResult(failed(info->totalBytes.state) && failed(info->driveKind.state) &&
                             failed(info->maxComponentLength.state) &&
                             failed(info->fileSystemType.state)
                         ? ECF_FAILED
                         : ECF_PARTIAL_INFO);
    f.traceData(200, ZepTrcObj(info));
    return f.exit();
}

ZEPMountListing::~ZEPMountListing() {
    if (active) end();
}

Uint32 ZEPMountListing::begin() {
    ZepFrame f(ZEPFN_ZEPMountListing_begin);
    if (active) {
        f.fail(ECF_INVALID_INVOCATION_SEQUENCE, 10, ZEP_LOG_INFO);
    } else if (zepos::GetLogicalDriveStringsA(sizeof drives, drives) == 0) {
        f.failMapped(80, SYSFN_GetLogicalDriveStrings, zepos::GetLastError(), 0);
    } else {
        active = 1;
        cursor = drives;
    }
    return f.exit();
}

Uint32 ZEPMountListing::getNext(const ZEPMountListingGetParam* param, ZEPMountInfo* info) {
    ZepFrame f(ZEPFN_ZEPMountListing_getNext);
    if (f.refuseParam(param)) return f.rc();
    if (info == nullptr) return f.fail(ECF_INVALID_PARAMETER, 1111, ZEP_LOG_ERROR);
    if (!active || param->reserved != 0) {
        f.fail(ECF_INVALID_INVOCATION_SEQUENCE, 20, ZEP_LOG_ERROR);
        return f.exit();
    }
    for (;;) {
        zepos::SetLastError(0);
        zepSnprintf(info->path, sizeof info->path, "%s", cursor);
        if (info->path[0] == 0) {
            f.fail(ECF_FILE_EOF, 30, ZEP_LOG_INFO);
            return f.exit();
        }
        cursor += strlen(cursor) + 1;
        zepos::GetVolumeInformationA(info->path, info->volumeName, sizeof info->volumeName, nullptr,
                                     nullptr, nullptr, info->fileSystemType,
                                     sizeof info->fileSystemType);
        const Uint32 err = zepos::GetLastError();
        if (err == zepos::ERROR_NOT_READY) continue;  // gone or without a medium: the next one
        if (err != 0) {
            f.failMapped(40, SYSFN_GetVolumeInformation, err, ZEP_LOG_ARGS(2),
                         ZepLogStr(info->path));
            return f.exit();
        }
        Uint64 total = 0, free = 0;
        if (!zepos::GetDiskFreeSpaceExA(info->path, nullptr, &total, &free)) {
            f.failMapped(50, SYSFN_GetDiskFreeSpaceEx, zepos::GetLastError(), ZEP_LOG_ARGS(2),
                         ZepLogStr(info->path));
            return f.exit();
        }
        info->totalMB = (total + 0xFFFFFu) >> 20;
        info->freeMB = (free + 0xFFFFFu) >> 20;
        info->reserved = 0;
        return f.exit();
    }
}

Uint32 ZEPMountListing::end() {
    ZepFrame f(ZEPFN_ZEPMountListing_end);
    if (!active)
        f.fail(ECF_INVALID_INVOCATION_SEQUENCE, 10, ZEP_LOG_INFO);
    else
        active = 0;
    return f.exit();
}
