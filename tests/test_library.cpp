// ZEPHLibrary on a library the test suite builds: loud and quiet look-ups, the bulk look-up's
// partial result, unload, the load refusals with the platform's numbers and their log records,
// and the load flags that have a counterpart.
#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

const char* const kLib = ZEP_TEST_BIN_DIR "/libzepproclib.so";
const char* const kUnresolved = ZEP_TEST_BIN_DIR "/libzepproclib_unresolved.so";

int callAdd(ZEPLibFunction f, int a, int b) {
    return reinterpret_cast<int (*)(int, int)>(f)(a, b);
}

using Library = CaptureTest;

TEST_F(Library, LookUpsLoudQuietAndInBulk) {
    ZEPHLibrary lib;
    ASSERT_EQ(lib.load(kLib, 0), 0u);
    ZEPLibFunction add = nullptr;
    ASSERT_EQ(lib.getFuncAddress("proclibAdd", &add), 0u);
    EXPECT_EQ(callAdd(add, 2, 3), 5);
    EXPECT_TRUE(calls.empty());

    // Quiet: the code and the error record, no log record.
    trace(true);
    ZEPLibGetFuncAddressParam probe;
    probe.name = "proclibMissing";
    probe.flags = ZEP_LIB_FUNC_QUIET;
    ZEPLibGetFuncAddressInfo info;
    info.address = add;
    EXPECT_EQ(lib.getFuncAddress(&probe, &info), ECF_LIB_FUNC_NOT_FOUND);
    trace(false);
    EXPECT_EQ(info.address, nullptr);
    EXPECT_EQ(logs(), Strings{});
    EXPECT_EQ(errorRecords(), Strings{at(ZEPFN_ZEPHLibrary_getFuncAddress, 30)});

    // Loud: the platform's failure with the handle, then the library's code, both at probe 30;
    // the caller's pointer is left alone.
    const std::string missing =
        "logsys ZEPHLibrary::getFuncAddress GetProcAddress 127 ECF_LIB_FUNC_NOT_FOUND p30 L4 "
        "m80000001; log ZEPHLibrary::getFuncAddress ECF_LIB_FUNC_NOT_FOUND p30 L4 n0";
    calls.clear();
    ZEPLibFunction untouched = add;
    EXPECT_EQ(lib.getFuncAddress("proclibMissing", &untouched), ECF_LIB_FUNC_NOT_FOUND);
    EXPECT_EQ(untouched, add);
    EXPECT_EQ(said(), missing);
    EXPECT_EQ(valueOf<void*>(calls[0].items.at(0)), lib.handle());

    // In bulk with one name missing: a partial result, null for the missing one, its name logged.
    calls.clear();
    const String names[] = {"proclibAdd", "proclibMissing", "proclibName"};
    ZEPLibGetFunctionAddressesParam bulk;
    bulk.count = 3;
    bulk.names = names;
    ZEPLibFunction got[3] = {add, add, nullptr};
    EXPECT_EQ(lib.getFunctionAddresses(&bulk, got), ECF_PARTIAL_INFO);
    EXPECT_EQ(callAdd(got[0], 4, 4), 8);
    EXPECT_EQ(got[1], nullptr);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(got[2])(), "proclib");
    EXPECT_EQ(said(), missing +
                          "; log ZEPHLibrary::getFunctionAddresses ECF_LIB_FUNC_NOT_FOUND "
                          "p40 L4 n1");
    EXPECT_EQ(calls.back().items.at(0).bytes, "proclibMissing");

    // Unloaded, everything says so; the bulk look-up stops at its first name.
    calls.clear();
    EXPECT_EQ(lib.unload(), 0u);
    EXPECT_EQ(lib.unload(), ECF_LIB_NOT_LOADED);
    theLog(ZEPFN_ZEPHLibrary_unload, 10, ECF_LIB_NOT_LOADED);
    calls.clear();
    EXPECT_EQ(lib.getFuncAddress(&probe, &info), ECF_LIB_NOT_LOADED);
    EXPECT_TRUE(calls.empty());  // quiet
    ZEPLibFunction before[3] = {add, add, add};
    EXPECT_EQ(lib.getFunctionAddresses(&bulk, before), ECF_LIB_NOT_LOADED);
    for (ZEPLibFunction f : before) EXPECT_EQ(f, add);
    EXPECT_EQ(said(),
              "log ZEPHLibrary::getFuncAddress ECF_LIB_NOT_LOADED p20 L4 n0; log "
              "ZEPHLibrary::getFunctionAddresses ECF_LIB_NOT_LOADED p50 L4 n0");
}

TEST_F(Library, LoadRefusalsAndFlags) {
    const std::string text = path("notalib.so"), missing = path("none.so");
    std::ofstream(text) << "not a library\n";
    const struct {
        std::string name;
        Uint32 flags, rc, osError, level;
    } cases[] = {
        {missing, 0, ECF_LIB_CANNOT_LOAD, 126, ZEP_LOG_INFO},
        {missing, ZEP_LIB_LOAD_QUIET, ECF_LIB_CANNOT_LOAD, 126, 0},
        {"libzepnosuchlibrary.so", 0, ECF_LIB_CANNOT_LOAD, 126, ZEP_LOG_INFO},  // search path
        {text, 0, ECF_UNKNOWN, 193, ZEP_LOG_ERROR},
        {text, ZEP_LIB_LOAD_AS_DATAFILE, ECF_UNKNOWN, 193, ZEP_LOG_ERROR},
        {dir_, 0, ECF_ACCESS_DENIED, 5, ZEP_LOG_INFO},
        {kUnresolved, 0, ECF_LIB_FUNC_NOT_FOUND, 127, ZEP_LOG_INFO},
    };
    for (const auto& c : cases) {
        calls.clear();
        trace(true);
        ZEPHLibrary lib;
        const Uint32 rc = lib.load(c.name.c_str(), c.flags);
        trace(false);
        SCOPED_TRACE(c.name + " " + std::to_string(c.flags));
        EXPECT_EQ(rc, c.rc);
        EXPECT_FALSE(lib.isLoaded());
        EXPECT_EQ(errorRecords(), Strings{at(ZEPFN_ZEPHLibrary_load, 30)});
        EXPECT_EQ(logs(), c.level ? Strings{rec("logsys", ZEPFN_ZEPHLibrary_load, 30, c.rc, c.level,
                                                SYSFN_LoadLibrary, c.osError)}
                                  : Strings{});
        if (c.level == 0) continue;
        const Call& log = aLog();
        EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000003u);
        EXPECT_EQ(log.items.at(0).bytes, c.name);
        EXPECT_EQ(valueOf<Uint32>(log.items.at(1)), c.flags);
    }

    // Functions resolved at their first call: the library with the unresolvable reference loads.
    ZEPHLibrary lazy, data, lib;
    ASSERT_EQ(lazy.load(kUnresolved, ZEP_LIB_LOAD_DONT_RESOLVE_REFERENCES), 0u);
    ZEPLibFunction add = nullptr;
    ASSERT_EQ(lazy.getFuncAddress("proclibAdd", &add), 0u);
    EXPECT_EQ(callAdd(add, 1, 1), 2);
    EXPECT_EQ(lazy.unload(), 0u);
    // As a data file: loaded, but nothing in it can be called.
    ASSERT_EQ(data.load(kLib, ZEP_LIB_LOAD_AS_DATAFILE), 0u);
    EXPECT_EQ(data.getFuncAddress("proclibAdd", &add), ECF_LIB_FUNC_NOT_FOUND);
    EXPECT_EQ(data.unload(), 0u);
    // A loaded object refuses another load and keeps its library; quietly, the error record only.
    ASSERT_EQ(lib.load(kLib, 0), 0u);
    void* const held = lib.handle();
    for (Uint32 flags : {0u, ZEP_LIB_LOAD_QUIET}) {
        calls.clear();
        trace(true);
        EXPECT_EQ(lib.load(missing.c_str(), flags), ECF_LIB_ALREADY_LOADED);
        trace(false);
        EXPECT_EQ(errorRecords(), Strings{at(ZEPFN_ZEPHLibrary_load, 20)});
        EXPECT_EQ(logs(),
                  flags ? Strings{}
                        : Strings{rec("log", ZEPFN_ZEPHLibrary_load, 20, ECF_LIB_ALREADY_LOADED)});
        EXPECT_EQ(lib.handle(), held);
    }
    // A library handle is no kernel object: CloseHandle refuses it and the library stays.
    EXPECT_EQ(zepos::CloseHandle(held), 0);
    ASSERT_EQ(lib.getFuncAddress("proclibAdd", &add), 0u);
    EXPECT_EQ(callAdd(add, 20, 22), 42);
    EXPECT_EQ(lib.unload(), 0u);
}

}  // namespace
