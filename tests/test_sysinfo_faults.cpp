// The failure rules of the processor, memory and operating-system queries, on a machine that
// fails on demand: this program defines the OS layer's calls and the nested memory queries
// itself (the library reaches them through the dynamic linker), and passes through to the
// library's own unless a test has made one fail.
#include <dlfcn.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

struct Faults {
    Uint32 computerName = 0;  // a last error to fail with, 0 to pass through
    Uint32 version = 0;
    bool systemInfo = false;  // replace the processor's description with the one below
    zepos::SYSTEM_INFO si{};
    Sint32 regOpen = 0, regQuery = 0;
    bool memory = false, swap = false;
    Uint32 memoryRc = 0, swapRc = 0, memoryFreeState = 0;
};
Faults g_faults;

template <class F>
F real(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace zepos {

BOOL GetComputerNameA(char* buffer, Uint32* size) {
    if (g_faults.computerName) return SetLastError(g_faults.computerName), 0;
    return real<BOOL (*)(char*, Uint32*)>("_ZN5zepos16GetComputerNameAEPcPj")(buffer, size);
}
BOOL GetVersionExA(OSVERSIONINFOA* info) {
    if (g_faults.version) return SetLastError(g_faults.version), 0;
    return real<BOOL (*)(OSVERSIONINFOA*)>("_ZN5zepos13GetVersionExAEPNS_14OSVERSIONINFOAE")(info);
}
void GetSystemInfo(SYSTEM_INFO* info) {
    if (g_faults.systemInfo) {
        *info = g_faults.si;
        return;
    }
    real<void (*)(SYSTEM_INFO*)>("_ZN5zepos13GetSystemInfoEPNS_11SYSTEM_INFOE")(info);
}
Sint32 RegOpenKeyExA(HKEY key, const char* sub, Uint32 o, Uint32 d, HKEY* result) {
    if (g_faults.regOpen) return g_faults.regOpen;
    return real<Sint32 (*)(HKEY, const char*, Uint32, Uint32, HKEY*)>(
        "_ZN5zepos13RegOpenKeyExAEPvPKcjjPS0_")(key, sub, o, d, result);
}
Sint32 RegQueryValueExA(HKEY key, const char* name, Uint32* r, Uint32* type, Uint8* data,
                        Uint32* size) {
    if (g_faults.regQuery) return g_faults.regQuery;
    return real<Sint32 (*)(HKEY, const char*, Uint32*, Uint32*, Uint8*, Uint32*)>(
        "_ZN5zepos16RegQueryValueExAEPvPKcPjS3_PhS3_")(key, name, r, type, data, size);
}

}  // namespace zepos

extern "C" {

Uint32 zepGetPhysMemInfo(ZEPPhysMemInfo* info) {
    const Uint32 rc = real<Uint32 (*)(ZEPPhysMemInfo*)>("zepGetPhysMemInfo")(info);
    if (!g_faults.memory) return rc;
    info->physFree.state = g_faults.memoryFreeState;
    return g_faults.memoryRc;
}
Uint32 zepGetPhysSwapInfo(ZEPPhysSwapInfo* info) {
    const Uint32 rc = real<Uint32 (*)(ZEPPhysSwapInfo*)>("zepGetPhysSwapInfo")(info);
    return g_faults.swap ? g_faults.swapRc : rc;
}

}  // extern "C"

namespace {

using namespace zeptest;

class SysInfoFaults : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        g_faults = Faults();
    }
    void TearDown() override {
        g_faults = Faults();
        CaptureTest::TearDown();
    }
    // The error records of the last call, as (probe, first item's word).
    std::vector<std::pair<Uint32, Uint32>> errors() const {
        std::vector<std::pair<Uint32, Uint32>> e;
        for (const Call& c : calls)
            if (c.what == "error")
                e.emplace_back(c.probe, c.items.empty() ? 0 : valueOf<Uint32>(c.items[0]));
        return e;
    }
    bool logged() const { return !logs().empty(); }
};

using Errors = std::vector<std::pair<Uint32, Uint32>>;

TEST_F(SysInfoFaults, OperatingSystemCountsItsFailures) {
    zepos::SYSTEM_INFO arm{};
    arm.wProcessorArchitecture = zepos::PROCESSOR_ARCHITECTURE_ARM64;
    const Uint32 NEW = ZEP_VERSION_WORD;
    struct Case {
        const char* name;
        Uint32 stamp, computerName, version;
        bool foreignArch;
        Uint32 rc;
        Errors errors;
    } cases[] = {
        // clang-format off
        {"all three", NEW, 5, 87, true, ECF_FAILED, {{10, 5}, {20, 87}}},
        {"two", 20050714u, 5, 87, false, ECF_PARTIAL_INFO, {{10, 5}, {20, 87}}},
        {"the processor alone", 20050714u, 0, 0, true, ECF_PARTIAL_INFO, {}},
        {"the version alone, new stamp", NEW, 0, 31, false, ECF_PARTIAL_INFO, {{20, 31}}},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        g_faults.computerName = c.computerName, g_faults.version = c.version;
        g_faults.systemInfo = c.foreignArch, g_faults.si = arm;
        calls.clear();
        trace(true);
        ZEPOSInfo o;
        o.version = c.stamp;
        EXPECT_EQ(zepGetOSInfo(&o), c.rc);
        trace(false);
        EXPECT_EQ(errors(), c.errors);
        EXPECT_FALSE(logged());
        EXPECT_EQ(o.nodeName.state, c.computerName ? ECF_FAILED : 0u);
        for (const ZEPSysInfoStr* s : {&o.osName, &o.osVersion, &o.osRelease})
            EXPECT_EQ(s->state, c.version ? ECF_FAILED : 0u);
        EXPECT_EQ(o.processor.state, c.foreignArch ? ECF_FAILED : 0u);
        EXPECT_EQ(o.osExtra.state, c.stamp >= 20050715u ? ECF_NOT_SUPPORTED : 0u);
        // The foreign processor's description is traced at probe 30.
        EXPECT_EQ(std::any_of(calls.begin(), calls.end(),
                              [](const Call& k) {
                                  return k.what == "var" && k.probe == 30 &&
                                         k.items.at(0).bytes.size() == sizeof(zepos::SYSTEM_INFO);
                              }),
                  c.foreignArch);
    }
}

TEST_F(SysInfoFaults, ProcessorDescriptionByArchitectureAndType) {
    const Uint16 X86 = zepos::PROCESSOR_ARCHITECTURE_INTEL,
                 AMD64 = zepos::PROCESSOR_ARCHITECTURE_AMD64;
    struct Case {
        Uint16 arch;
        Uint32 type;
        Uint16 level, revision;
        const char* text;
        Uint32 state;
    } cases[] = {
        // clang-format off
        {X86, 586, 6, 0x0F0B, "x86 Family 6, model 15, stepping 11", 0},
        {X86, 486, 4, 0x0102, "", ECF_NOT_SUPPORTED}, {X86, 386, 3, 0x0102, "", ECF_NOT_SUPPORTED},
        {X86, 2200, 7, 0x0102, "", 0},
        {AMD64, 8664, 25, 0x2101, "AMD64 Family 25, model 33, stepping 1", 0},
        {6, 2200, 31, 0x0205, "IA64 Family 31, model 2, stepping 5", 0},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        g_faults.systemInfo = true;
        g_faults.si = zepos::SYSTEM_INFO{};
        g_faults.si.wProcessorArchitecture = c.arch, g_faults.si.dwProcessorType = c.type;
        g_faults.si.wProcessorLevel = c.level, g_faults.si.wProcessorRevision = c.revision;
        ZEPOSInfo o;
        o.version = 20050714u;
        EXPECT_EQ(zepGetOSInfo(&o), 0u);
        EXPECT_STREQ(o.processor.value, c.text);
        EXPECT_EQ(o.processor.state, c.state);
    }
}

TEST_F(SysInfoFaults, AMissingSpeedIsPartialWithTheRegistryError) {
    const struct {
        Sint32 open, query;
        Errors errors;
    } cases[] = {{2, 0, {{10, 2}}}, {0, 2, {{20, 2}}}, {0, 234, {{20, 234}}}};
    for (const auto& c : cases) {
        g_faults.regOpen = c.open, g_faults.regQuery = c.query;
        calls.clear();
        trace(true);
        ZEPCPUInfo info;
        EXPECT_EQ(zepGetCPUInfo(&info), ECF_PARTIAL_INFO);
        trace(false);
        EXPECT_EQ(errors(), c.errors);
        EXPECT_FALSE(logged());
        EXPECT_EQ(info.speedMHz.state, ECF_FAILED);
        for (const ZEPSysInfoUint* u :
             {&info.processorsTotal, &info.processorsConfigured, &info.processorsOnline,
              &info.threadsPerCore, &info.coresPerPackage})
            EXPECT_EQ(u->state, 0u);
    }
}

TEST_F(SysInfoFaults, VirtualMemoryFailsWhenEitherNestedQueryCantGiveItsTotals) {
    const Uint32 NS = ECF_NOT_SUPPORTED, F = ECF_FAILED;
    struct Case {
        const char* name;
        bool memory;
        Uint32 memoryRc, freeState;
        bool swap;
        Uint32 swapRc;
        Uint32 rc;
        Errors errors;  // of the virtual query itself
    } cases[] = {
        // clang-format off
        {"memory failed", true, F, 0, false, 0, F, {{10, F}}},
        {"memory not supported", true, NS, 0, false, 0, NS, {{10, NS}}},
        {"free memory unknown", true, ECF_PARTIAL_INFO, NS, false, 0, NS, {{10, NS}}},
        {"free memory failed", true, ECF_PARTIAL_INFO, F, false, 0, F, {{10, F}}},
        {"swap not supported", false, 0, 0, true, NS, NS, {{20, NS}}},
        {"partial swap is the result", false, 0, 0, true, ECF_PARTIAL_INFO, ECF_PARTIAL_INFO, {}},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        g_faults.memory = c.memory, g_faults.memoryRc = c.memoryRc;
        g_faults.memoryFreeState = c.freeState;
        g_faults.swap = c.swap, g_faults.swapRc = c.swapRc;
        calls.clear();
        trace(true);
        ZEPVirtualMemInfo v;
        EXPECT_EQ(zepGetVirtualMemInfo(&v), c.rc);
        trace(false);
        Errors own;
        for (const Call& k : calls)
            if (k.what == "error" && k.fid == ZEPFN_zepGetVirtualMemInfo)
                own.emplace_back(k.probe, valueOf<Uint32>(k.items.at(0)));
        EXPECT_EQ(own, c.errors);
        EXPECT_EQ(calls.back().what + std::to_string(calls.back().rc),
                  "exit" + std::to_string(c.rc));
        EXPECT_EQ(v.notSupported1.state & v.notSupported2.state, NS);
        EXPECT_FALSE(logged());
    }
}

}  // namespace
