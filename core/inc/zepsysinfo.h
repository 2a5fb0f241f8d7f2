// zepsysinfo.h - what the machine is: processors, memory, operating system, disks and mounts,
// processor load.
//
// Every query fills a versioned record of values, and every value says for itself whether it
// is known: state 0 means the value field holds it; any other state is the ECF code that says
// why there is none (ECF_NOT_SUPPORTED: this system has no such fact; ECF_FAILED: asking for it
// failed). A query returns 0 when every value is known, ECF_PARTIAL_INFO when some are missing
// (a success: read the states), and ECF_FAILED or ECF_NOT_SUPPORTED when nothing could be had.
// A query sets a state only where a value is missing, so a caller's record starts with all
// states 0.
//
// The values a caller sizes work by respect the process's control group: the processors it may
// use and the memory it may take are those of its group's nearest limits where they are lower
// than the machine's. docs/sysinfo.md names the source of every value.
#ifndef ZEPSYSINFO_H
#define ZEPSYSINFO_H

#include "zeptypes.h"

// Stamps at which records grew a field; older callers' records are left alone there.
#define ZEP_SYSINFO_STAMP_CORES ((Uint32)20050715u)
#define ZEP_SYSINFO_STAMP_IPC_LAST ((Uint32)20050401u)

// ---- the value classes: a value and its state, both cleared by the constructor

class ZEPSysInfoUint {
public:
    Uint32 value = 0;
    Uint32 state = 0;
};
class ZEPSysInfoSint {
public:
    Sint32 value = 0;
    Uint32 state = 0;
};
class ZEPSysInfoSint64 {
public:
    Sint64 value = 0;
    Uint32 state = 0;
};
class ZEPSysInfoDouble {
public:
    double value = 0;
    Uint32 state = 0;
};
class ZEPSysInfoStr {
public:
    Char value[256] = {};
    Uint32 state = 0;
};

// ---- processors, memory, operating system

class ZEPCPUInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoUint processorsTotal;       // configured on the machine
    ZEPSysInfoUint processorsConfigured;  // online on the machine
    ZEPSysInfoUint processorsOnline;      // this process may use: affinity, then CPU quota
    ZEPSysInfoUint speedMHz;
    ZEPSysInfoUint threadsPerCore;
    ZEPSysInfoUint coresPerPackage;  // written only for stamps from 20050715 on
};

// Whole mebibytes, rounded up.
class ZEPPhysMemInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoSint physTotal;          // the machine's, or the control group's limit if lower
    ZEPSysInfoSint physFree;           // available, within what the group may still take
    ZEPSysInfoSint physAllocatable;    // the smaller of physFree and the free address space
    ZEPSysInfoSint addressSpaceTotal;  // the process's user address space or its limit
};

class ZEPPhysSwapInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoSint swapTotal;
    ZEPSysInfoSint swapFree;
};

class ZEPVirtualMemInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoSint virtualTotal;   // physTotal + swapTotal
    ZEPSysInfoSint notSupported1;  // state always ECF_NOT_SUPPORTED
    ZEPSysInfoSint notSupported2;  // state always ECF_NOT_SUPPORTED
    ZEPSysInfoSint virtualFree;    // physFree + swapFree
};

class ZEPOSInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoStr osName;     // the kernel's name: "Linux"
    ZEPSysInfoStr nodeName;   // the node name
    ZEPSysInfoStr osVersion;  // "<major>.<minor>" of the kernel
    ZEPSysInfoStr osRelease;  // the kernel's release string
    ZEPSysInfoStr processor;  // "AMD64 Family 6, model 167, stepping 1"
    ZEPSysInfoStr osExtra;    // not supported (stamps from 20050715 on)
};

// The kernel's limits on its own message queues, semaphores and shared memory. The library's
// objects are built on shared memory of its own and have none of these limits, so no field is
// ever filled.
class ZEPKernelIPCInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoSint msgQueuesMax;
    ZEPSysInfoSint msgMessageSizeMax;  // the largest message a queue takes
    ZEPSysInfoSint msgQueueBytesMax;
    ZEPSysInfoSint msgMessagesMax;
    ZEPSysInfoSint msgSegmentSize;
    ZEPSysInfoSint msgSegmentsMax;
    ZEPSysInfoSint msgHeadersMax;
    ZEPSysInfoSint64 shmSegmentSizeMax;
    ZEPSysInfoSint64 shmTotalMax;
    ZEPSysInfoSint shmSegmentSizeMin;
    ZEPSysInfoSint shmSegmentsMax;
    ZEPSysInfoSint shmSegmentsPerProcessMax;
    ZEPSysInfoSint semSetsMax;
    ZEPSysInfoSint semSemaphoresMax;
    ZEPSysInfoSint semPerSetMax;
    ZEPSysInfoSint semOperationsMax;
    ZEPSysInfoSint semUndoEntriesMax;
    ZEPSysInfoSint semUndoPerProcessMax;
    ZEPSysInfoSint semUndoSize;
    ZEPSysInfoSint semValueMax;
    ZEPSysInfoSint semAdjustMax;
    ZEPSysInfoSint semUndoStructuresMax;  // from stamp 20050401 on
};

class ZEPSystemDirectoryParam {
public:
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 reserved = 0;  // not read
};
class ZEPSystemDirectoryInfo {
public:
    Uint32 reserved = 0;  // left alone
    Char path[261] = {};
};

// ---- disks and mounts

// Which values zepGetDiskInfo is asked for: ZEP_DISK_WANT_ALL alone asks for all; otherwise the
// bits count. Sizes and free space come together, and so do the type and the longest name.
#define ZEP_DISK_WANT_ALL ((Uint32)0x1u)
#define ZEP_DISK_WANT_SIZE ((Uint32)0x4u)
#define ZEP_DISK_WANT_FREE ((Uint32)0x8u)
#define ZEP_DISK_WANT_TYPE ((Uint32)0x80u)
#define ZEP_DISK_WANT_MAX_COMPONENT ((Uint32)0x100u)
#define ZEP_DISK_WANT_DRIVE_KIND ((Uint32)0x400u)

// driveKind's values.
#define ZEP_DRIVE_FIXED ((Uint32)1u)      // fixed, remote, optical or memory
#define ZEP_DRIVE_REMOVABLE ((Uint32)5u)  // a removable block device

class ZEPDiskInfoParam {
public:
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;  // any path on the file system asked about
    Uint32 wanted = ZEP_DISK_WANT_ALL;
    Sint32 handle = -1;  // an open file instead of a path: not supported here, -1 for none
};

// The file system that holds a path. The "notSupported" fields have no counterpart here and
// always come back with state ECF_NOT_SUPPORTED, so a successful query is ECF_PARTIAL_INFO.
class ZEPDiskInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoUint notSupported1;
    ZEPSysInfoSint64 totalBytes;  // the file system's size
    ZEPSysInfoSint64 freeBytes;   // free space this caller may use (what df calls available)
    ZEPSysInfoUint notSupported2;
    ZEPSysInfoStr notSupported3;
    ZEPSysInfoStr notSupported4;
    ZEPSysInfoUint maxComponentLength;
    ZEPSysInfoStr fileSystemType;  // the kernel's name: "ext4", "xfs", "tmpfs", "overlay"
    ZEPSysInfoUint notSupported5;
    ZEPSysInfoUint driveKind;        // ZEP_DRIVE_*
    ZEPSysInfoSint64 notSupported6;  // from stamp 0x09010007
};

class ZEPMountListingGetParam {
public:
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 reserved = 0;  // must be 0
};

class ZEPMountInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    Char path[1024] = {};  // the mount point
    Uint64 totalMB = 0;    // rounded up
    Uint64 freeMB = 0;     // rounded up
    Char fileSystemType[100] = {};
    Char volumeName[1024] = {};  // the mount's source: a device, a label, "tmpfs"
    Uint32 reserved = 0;
};

// A walk over the mounted real file systems (pseudo ones such as proc, sysfs or cgroup are left
// out), fixed when it begins. The mount points are kept in one list of 1,024 bytes; on a machine
// with more than fit, the walk covers those that do, in mount order, never a part of one.
class ZEP_EXPORT ZEPMountListing {
public:
    Char drives[1024] = {};
    Char* cursor = nullptr;
    Bool active = 0;

    ~ZEPMountListing();
    Uint32 begin();
    // ECF_FILE_EOF after the last mount, and on every call after it while the walk is active.
    // A mount that can't be asked about fails this call; the next call goes on with the next.
    Uint32 getNext(const ZEPMountListingGetParam* param, ZEPMountInfo* info);
    Uint32 end();
};

// ---- processor load

// The load averages over 1, 5 and 15 minutes (processes running or waiting to run, averaged by
// the kernel). The design's platform has no such numbers and answers ECF_NOT_SUPPORTED; Linux
// has them, so here they are known values and the result is 0.
class ZEPAvgCPULoadInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    ZEPSysInfoDouble load1;
    ZEPSysInfoDouble load5;
    ZEPSysInfoDouble load15;
};

ZEP_BEGIN_C

// Works out the processor topology once per process. The other queries call it; calling it
// first only moves that cost. Two first callers at once both run the probe.
ZEP_EXPORT void zepSysInfoOneTimeOnly(void);

// The probe that zepSysInfoOneTimeOnly runs binds the calling thread to each processor it may
// use in turn, and puts its affinity back on every path.
ZEP_EXPORT Uint32 zepGetCPUInfo(ZEPCPUInfo* info);
ZEP_EXPORT Uint32 zepGetPhysMemInfo(ZEPPhysMemInfo* info);
ZEP_EXPORT Uint32 zepGetPhysSwapInfo(ZEPPhysSwapInfo* info);
// Fails as a whole (ECF_FAILED or ECF_NOT_SUPPORTED) when the memory or the swap query can't
// give its totals and free amounts; the values are then not to be read.
ZEP_EXPORT Uint32 zepGetVirtualMemInfo(ZEPVirtualMemInfo* info);
ZEP_EXPORT Uint32 zepGetOSInfo(ZEPOSInfo* info);
// Always ECF_NOT_SUPPORTED, with every state set to it: see ZEPKernelIPCInfo.
ZEP_EXPORT Uint32 zepGetKernelIPCInfo(ZEPKernelIPCInfo* info);
// "/usr/bin", the directory of the system's programs.
ZEP_EXPORT Uint32 zepGetSystemDirectory(const ZEPSystemDirectoryParam* param,
                                        ZEPSystemDirectoryInfo* info);

// The values of the file system holding param->path; see ZEPDiskInfoParam and ZEPDiskInfo.
// ECF_PARTIAL_INFO on success, ECF_FAILED if none of the asked values could be had, the mapped
// code (logged, every state ECF_FAILED) for a path that doesn't exist.
ZEP_EXPORT Uint32 zepGetDiskInfo(const ZEPDiskInfoParam* param, ZEPDiskInfo* info);

// 0 with the three averages, or ECF_FAILED with every state set to it if /proc/loadavg can't
// be read.
ZEP_EXPORT Uint32 zepGetAvgCPULoad(ZEPAvgCPULoadInfo* info);

ZEP_END_C

#endif
