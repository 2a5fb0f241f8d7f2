// zepcpuusage.h - how busy the machine's processors were over an interval (private to the
// library: an operation with its own function identifier that no caller outside uses yet).
#ifndef ZEPCPUUSAGE_H
#define ZEPCPUUSAGE_H

#include "zepsysinfo.h"

// Visible from libzep.so for the library's own tests only; no installed header declares these.
#pragma GCC visibility push(default)

// Percentages of the processors' time between two samples `interval` milliseconds apart,
// all processors together.
class ZEPCPUUsageInfo {
public:
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 interval = 0;              // milliseconds between the two samples
    ZEPSysInfoDouble processorTime;   // 100 - idleTime
    ZEPSysInfoDouble userTime;        // user and nice
    ZEPSysInfoDouble privilegedTime;  // system
    ZEPSysInfoDouble interruptTime;   // hard and soft interrupts
    ZEPSysInfoDouble idleTime;        // idle and waiting for I/O
};

// Sleeps for the interval on the calling thread. 0 when at least one value was had (a value
// that couldn't be has state ECF_FAILED), else ECF_FAILED with every state set to it.
ZEP_EXTERN_C Uint32 zepGetCPUUsage(ZEPCPUUsageInfo* info);

#pragma GCC visibility pop

#endif
