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

// 0 with the three averages, or ECF_FAILED with every state set to it if /proc/loadavg can't
// be read.
ZEP_EXPORT Uint32 zepGetAvgCPULoad(ZEPAvgCPULoadInfo* info);

ZEP_END_C

#endif
