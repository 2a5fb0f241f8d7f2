// The failure rules of the operating-system and virtual-memory queries, on a machine that fails
// on demand: this program defines the OS layer's calls and the nested memory queries itself (the
// library reaches them through the dynamic linker), and passes through to the library's own
// unless a test has made one fail.
#include <dlfcn.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

struct Faults {
    Uint32 computerName = 0, version = 0;  // a last error to fail with, 0 to pass through
    bool systemInfo = false;               // replace the processor's description with `si`
    zepos::SYSTEM_INFO si{};
    bool memory = false, swap = false;
    Uint32 memoryRc = 0, swapRc = 0, memoryFreeState = 0;
} g_faults;

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
    real<void (*)(SYSTEM_INFO*)>("_ZN5zepos13GetSystemInfoEPNS_11SYSTEM_INFOE")(info);
    if (g_faults.systemInfo) *info = g_faults.si;
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
using Errors = std::vector<std::pair<Uint32, Uint32>>;
const Uint32 NS = ECF_NOT_SUPPORTED, F = ECF_FAILED, PARTIAL = ECF_PARTIAL_INFO;

class SysInfoFaults : public CaptureTest {
protected:
    void TearDown() override {
        g_faults = Faults();
        CaptureTest::TearDown();
    }
    // The error records of `fid`, as (probe, the value they carry).
    static Errors errors(Uint32 fid) {
        Errors e;
        for (const Call& c : calls)
            if (c.what == "error" && c.fid == fid)
                e.emplace_back(c.probe, valueOf<Uint32>(c.items.at(0)));
        return e;
    }
};

TEST_F(SysInfoFaults, OperatingSystemCountsItsFailuresAndDescribesTheProcessor) {
    const Uint32 NEW = ZEP_VERSION_WORD, OLD = 20050714u;
    const Uint16 X86 = zepos::PROCESSOR_ARCHITECTURE_INTEL,
                 ARM = zepos::PROCESSOR_ARCHITECTURE_ARM64;
    const struct {
        Uint32 stamp, computerName, version;
        Uint16 arch;
        Uint32 type;
        Uint16 level, revision;
        const char* processor;
        Uint32 state, rc;
        Errors errors;
    } cases[] = {
        // clang-format off
        {NEW, 5, 87, ARM, 0, 0, 0, "", F, F, {{10, 5}, {20, 87}}},
        {OLD, 5, 87, X86, 586, 6, 0x0F0B, "x86 Family 6, model 15, stepping 11", 0, PARTIAL,
         {{10, 5}, {20, 87}}},
        {OLD, 0, 0, ARM, 0, 0, 0, "", F, PARTIAL, {}},
        {NEW, 0, 31, zepos::PROCESSOR_ARCHITECTURE_AMD64, 8664, 25, 0x2101,
         "AMD64 Family 25, model 33, stepping 1", 0, PARTIAL, {{20, 31}}},
        {OLD, 0, 0, 6, 2200, 31, 0x0205, "IA64 Family 31, model 2, stepping 5", 0, 0, {}},
        {OLD, 0, 0, X86, 486, 4, 0x0102, "", NS, 0, {}},
        {OLD, 0, 0, X86, 2200, 7, 0x0102, "", 0, 0, {}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.processor);
        g_faults.computerName = c.computerName, g_faults.version = c.version;
        g_faults.systemInfo = true, g_faults.si = zepos::SYSTEM_INFO{};
        g_faults.si.wProcessorArchitecture = c.arch, g_faults.si.dwProcessorType = c.type;
        g_faults.si.wProcessorLevel = c.level, g_faults.si.wProcessorRevision = c.revision;
        calls.clear();
        trace(true);
        ZEPOSInfo o;
        o.version = c.stamp;
        EXPECT_EQ(zepGetOSInfo(&o), c.rc);
        trace(false);
        EXPECT_EQ(errors(ZEPFN_zepGetOSInfo), c.errors);
        EXPECT_EQ(logs(), Strings{});
        EXPECT_EQ(o.nodeName.state, c.computerName ? F : 0u);
        for (const ZEPSysInfoStr* s : {&o.osName, &o.osVersion, &o.osRelease})
            EXPECT_EQ(s->state, c.version ? F : 0u);
        EXPECT_STREQ(o.processor.value, c.processor);
        EXPECT_EQ(o.processor.state, c.state);
        EXPECT_EQ(o.osExtra.state, c.stamp == NEW ? NS : 0u);
        // A foreign processor's description is traced at probe 30.
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [](const Call& k) {
                                    return k.what == "var" && k.probe == 30 &&
                                           k.items.at(0).bytes.size() == sizeof(zepos::SYSTEM_INFO);
                                }),
                  c.arch == ARM);
    }
}

TEST_F(SysInfoFaults, VirtualMemoryFailsWhenEitherNestedQueryCantGiveItsTotals) {
    const struct {
        const char* name;
        bool memory;
        Uint32 memoryRc, freeState;
        bool swap;
        Uint32 swapRc, rc;
        Errors errors;  // of the virtual query itself
    } cases[] = {
        // clang-format off
        {"memory failed", true, F, 0, false, 0, F, {{10, F}}},
        {"memory not supported", true, NS, 0, false, 0, NS, {{10, NS}}},
        {"free memory unknown", true, PARTIAL, NS, false, 0, NS, {{10, NS}}},
        {"free memory failed", true, PARTIAL, F, false, 0, F, {{10, F}}},
        {"swap not supported", false, 0, 0, true, NS, NS, {{20, NS}}},
        {"partial swap is the result", false, 0, 0, true, PARTIAL, PARTIAL, {}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        g_faults.memory = c.memory, g_faults.memoryRc = c.memoryRc;
        g_faults.memoryFreeState = c.freeState;
        g_faults.swap = c.swap, g_faults.swapRc = c.swapRc;
        calls.clear();
        trace(true);
        ZEPVirtualMemInfo v;
        EXPECT_EQ(zepGetVirtualMemInfo(&v), c.rc);
        trace(false);
        EXPECT_EQ(errors(ZEPFN_zepGetVirtualMemInfo), c.errors);
        EXPECT_EQ(calls.back().what + std::to_string(calls.back().rc),
                  "exit" + std::to_string(c.rc));
        EXPECT_EQ(v.notSupported1.state & v.notSupported2.state, NS);
        EXPECT_EQ(logs(), Strings{});
    }
}

}  // namespace
