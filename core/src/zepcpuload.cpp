// zepcpuload.cpp - processor load: the kernel's load averages and the busy share over an
// interval.
#include "zepcpuusage.h"

#include <string.h>

#include "zepframe.h"
#include "zepnumconv.h"
#include "zeptime.h"

Uint32 zepGetAvgCPULoad(ZEPAvgCPULoadInfo* info) {
    ZepFrame f(ZEPFN_zepGetAvgCPULoad);
    if (f.refuseParam(info)) return f.rc();
    double averages[3];
    if (zepos::GetLoadAverages(averages)) {
        info->load1.value = averages[0];
        info->load5.value = averages[1];
        info->load15.value = averages[2];
    } else {
        const Uint32 err = zepos::GetLastError();
        info->load1.state = info->load5.state = info->load15.state = ECF_FAILED;
        f.setQuietResult(ECF_FAILED);
        if (zepTraceOn())
            _gtraceErrorVar(static_cast<Uint64>(zepos::GetCurrentThreadId()), f.functionId(), 10, 4,
                            0, 0, 1u, 0u, 4u, &err);
    }
    f.traceData(200, ZepTrcObj(info));
    return f.exit();
}

namespace {

// The counters in the order of the record's fields.
const char* const kCounters[5] = {
    "\\Processor(_Total)\\% Processor Time", "\\Processor(_Total)\\% User Time",
    "\\Processor(_Total)\\% Privileged Time", "\\Processor(_Total)\\% Interrupt Time",
    "\\Processor(_Total)\\% Idle Time"};

}  // namespace

Uint32 zepGetCPUUsage(ZEPCPUUsageInfo* info) {
    ZepFrame f(ZEPFN_zepGetCPUUsage);
    if (f.refuseParam(info)) return f.rc();
    f.traceData(10, ZepTrcObj(info));
    ZEPSysInfoDouble* const field[5] = {&info->processorTime, &info->userTime,
                                        &info->privilegedTime, &info->interruptTime,
                                        &info->idleTime};
    for (ZEPSysInfoDouble* d : field) d->state = ECF_FAILED;

    // An error record that carries the platform's status, and the query's result.
    auto failAt = [&](Uint16 probe, Uint32 status) {
        f.setQuietResult(ECF_FAILED);
        if (zepTraceOn())
            _gtraceErrorVar(static_cast<Uint64>(zepos::GetCurrentThreadId()), f.functionId(), probe,
                            4, 0, 0, 1u, 0u, 4u, &status);
        for (ZEPSysInfoDouble* d : field) d->state = ECF_FAILED;
    };

    char path[2049] = "\\\\";
    Uint32 size = 255;
    if (!zepos::GetComputerNameA(path + 2, &size)) {
        failAt(20, zepos::GetLastError());
        return f.exit();
    }
    const size_t machine = strlen(path);

    zepos::PDH_HQUERY query = nullptr;
    zepos::PDH_STATUS status = zepos::PdhOpenQueryA(nullptr, 0, &query);
    if (status != 0) {
        failAt(30, status);
        return f.exit();
    }
    zepos::PDH_HCOUNTER counter[5] = {};
    bool ok = true;
    for (int i = 0; i < 5 && ok; ++i) {
        zepSnprintf(path + machine, static_cast<Uint32>(sizeof path - machine), "%s", kCounters[i]);
        status = zepos::PdhAddCounterA(query, path, 0, &counter[i]);
        if (status != 0) failAt(40, status), ok = false;
    }
    if (ok && (status = zepos::PdhCollectQueryData(query)) != 0) failAt(50, status), ok = false;
    if (ok) zepSleep(info->interval);
    if (ok && (status = zepos::PdhCollectQueryData(query)) != 0) failAt(60, status), ok = false;
    if (ok) {
        bool any = false;
        for (Uint32 i = 0; i < 5; ++i) {
            zepos::PDH_FMT_COUNTERVALUE value;
            status = zepos::PdhGetFormattedCounterValue(counter[i], zepos::PDH_FMT_DOUBLE, nullptr,
                                                        &value);
            if (status == 0) {
                field[i]->value = value.doubleValue;
                field[i]->state = 0;
                any = true;
            } else {
                f.traceData(80, ZepTrcBlock{&status, 4}, ZepTrcBlock{&i, 4});
            }
        }
        if (!any) failAt(90, ECF_FAILED);
    }
    status = zepos::PdhCloseQuery(query);
    if (status != 0) {
        f.setQuietResult(ECF_FAILED);
        if (zepTraceOn())
            _gtraceErrorVar(static_cast<Uint64>(zepos::GetCurrentThreadId()), f.functionId(), 500,
                            4, 0, 0, 1u, 0u, 4u, &status);
    }
    return f.exit();
}
