// ZEPHLibrary on a library the test suite builds: load, quiet and loud look-ups, the bulk
// look-up's partial result, unload, the load refusals with the platform's numbers (126, 193, 127,
// 5) and their log records, the load flags that have a counterpart, and silence on the terminal.
#include <fcntl.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;

const char* const kLib = ZEP_TEST_BIN_DIR "/libzepproclib.so";
const char* const kUnresolved = ZEP_TEST_BIN_DIR "/libzepproclib_unresolved.so";

typedef int (*AddFn)(int, int);

int callAdd(ZEPLibFunction f, int a, int b) {
    return reinterpret_cast<AddFn>(f)(a, b);
}

std::vector<Uint32> errorProbes() {
    std::vector<Uint32> out;
    for (const Call& c : calls)
        if (c.what == "error") out.push_back(c.probe);
    return out;
}

class Library : public CaptureTest {};

TEST_F(Library, LoadProbeLookUpUnload) {
    const Uint32 NOT_FOUND = ECF_LIB_FUNC_NOT_FOUND;
    ZEPHLibrary lib;
    ASSERT_EQ(lib.load(kLib, 0), 0u);
    EXPECT_TRUE(lib.isLoaded());
    ZEPLibFunction add = nullptr;
    ASSERT_EQ(lib.getFuncAddress("proclibAdd", &add), 0u);
    EXPECT_EQ(callAdd(add, 2, 3), 5);
    EXPECT_TRUE(calls.empty());

    // A quiet probe for a missing function: the code and the error record, no log record.
    trace(true);
    ZEPLibGetFuncAddressParam probe;
    probe.name = "proclibMissing";
    probe.flags = ZEP_LIB_FUNC_QUIET;
    ZEPLibGetFuncAddressInfo info;
    info.address = add;
    EXPECT_EQ(lib.getFuncAddress(&probe, &info), ECF_LIB_FUNC_NOT_FOUND);
    EXPECT_EQ(info.address, nullptr);
    EXPECT_EQ(logs(), Strings{});
    EXPECT_EQ(errorProbes(), std::vector<Uint32>{30});
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[1].probe, 10u);  // the parameter object and the name
    ASSERT_EQ(calls[1].items.size(), 2u);
    EXPECT_EQ(calls[1].items[1].bytes, "proclibMissing");

    // Loud: the platform's failure and then the library's code, both at probe 30.
    calls.clear();
    ZEPLibFunction untouched = add;
    EXPECT_EQ(lib.getFuncAddress("proclibMissing", &untouched), ECF_LIB_FUNC_NOT_FOUND);
    EXPECT_EQ(untouched, add);
    const Strings missing = {rec("logsys", ZEPFN_ZEPHLibrary_getFuncAddress, 30, NOT_FOUND,
                                 ZEP_LOG_INFO, SYSFN_GetProcAddress, 127),
                             rec("log", ZEPFN_ZEPHLibrary_getFuncAddress, 30, NOT_FOUND)};
    EXPECT_EQ(logs(), missing);
    const Call& sys =
        *std::find_if(calls.begin(), calls.end(), [](const Call& k) { return k.what == "logsys"; });
    EXPECT_EQ(static_cast<Uint32>(sys.count), 0x80000001u);
    EXPECT_EQ(valueOf<void*>(sys.items.at(0)), lib.handle());

    // In bulk with one name missing: a partial result, null for the missing one.
    calls.clear();
    const String names[] = {"proclibAdd", "proclibMissing", "proclibName"};
    ZEPLibGetFunctionAddressesParam bulk;
    bulk.count = 3;
    bulk.names = names;
    ZEPLibFunction got[3] = {add, add, nullptr};
    EXPECT_EQ(lib.getFunctionAddresses(&bulk, got), ECF_PARTIAL_INFO);
    EXPECT_EQ(callAdd(got[0], 4, 4), 8);
    EXPECT_EQ(got[1], nullptr);
    ASSERT_NE(got[2], nullptr);
    EXPECT_STREQ(reinterpret_cast<const char* (*)()>(got[2])(), "proclib");
    // The look-up's two records, then the bulk call's own with the name.
    Strings bulkLogs = missing;
    bulkLogs.push_back(
        rec("log", ZEPFN_ZEPHLibrary_getFunctionAddresses, 40, ECF_LIB_FUNC_NOT_FOUND));
    EXPECT_EQ(logs(), bulkLogs);
    const Call& own =
        *std::find_if(calls.rbegin(), calls.rend(), [](const Call& k) { return k.what == "log"; });
    ASSERT_EQ(own.items.size(), 1u);
    EXPECT_EQ(own.items[0].type, ZEP_LOGDATA_STRING);
    EXPECT_EQ(own.items[0].bytes, "proclibMissing");
    EXPECT_EQ(errorProbes(), (std::vector<Uint32>{30, 40}));
    EXPECT_EQ(calls.back().what, "exit");
    EXPECT_EQ(calls.back().rc, ECF_PARTIAL_INFO);
    bulk.count = 0;
    EXPECT_EQ(lib.getFunctionAddresses(&bulk, got), 0u);
    trace(false);

    // Unloaded, everything says so; the bulk look-up stops at its first name.
    calls.clear();
    EXPECT_EQ(lib.unload(), 0u);
    EXPECT_FALSE(lib.isLoaded());
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(lib.unload(), ECF_LIB_NOT_LOADED);
    theLog(ZEPFN_ZEPHLibrary_unload, 10, ECF_LIB_NOT_LOADED);
    calls.clear();
    EXPECT_EQ(lib.getFuncAddress(&probe, &info), ECF_LIB_NOT_LOADED);
    EXPECT_TRUE(calls.empty());  // quiet
    EXPECT_EQ(lib.getFuncAddress("proclibAdd", &untouched), ECF_LIB_NOT_LOADED);
    theLog(ZEPFN_ZEPHLibrary_getFuncAddress, 20, ECF_LIB_NOT_LOADED);
    calls.clear();
    bulk.count = 3;
    ZEPLibFunction before[3] = {add, add, add};
    EXPECT_EQ(lib.getFunctionAddresses(&bulk, before), ECF_LIB_NOT_LOADED);
    for (ZEPLibFunction f : before) EXPECT_EQ(f, add);
    ASSERT_EQ(logs().size(), 2u);
    EXPECT_EQ(logs()[1],
              rec("log", ZEPFN_ZEPHLibrary_getFunctionAddresses, 50, ECF_LIB_NOT_LOADED));

    // The bulk call's parameter checks.
    calls.clear();
    EXPECT_EQ(lib.getFunctionAddresses(nullptr, before), ECF_INVALID_PARAMETER);
    theLog(ZEPFN_ZEPHLibrary_getFunctionAddresses, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
    calls.clear();
    bulk.version = 20040701;
    EXPECT_EQ(lib.getFunctionAddresses(&bulk, before), ECF_INVALID_VERSION);
    theLog(ZEPFN_ZEPHLibrary_getFunctionAddresses, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
}

TEST_F(Library, LoadRefusalsAndFlags) {
    const std::string text = path("notalib.so"), missing = path("none.so");
    std::ofstream(text) << "not a library\n";
    struct Case {
        std::string name;
        Uint32 flags, rc, osError, level;
    } cases[] = {
        {missing, 0, ECF_LIB_CANNOT_LOAD, 126, ZEP_LOG_INFO},
        {missing, ZEP_LIB_LOAD_QUIET, ECF_LIB_CANNOT_LOAD, 126, 0},
        {"libzepnosuchlibrary.so", 0, ECF_LIB_CANNOT_LOAD, 126, ZEP_LOG_INFO},
        {text, 0, ECF_UNKNOWN, 193, ZEP_LOG_ERROR},
        {text, ZEP_LIB_LOAD_AS_DATAFILE, ECF_UNKNOWN, 193, ZEP_LOG_ERROR},
        {dir_, 0, ECF_ACCESS_DENIED, 5, ZEP_LOG_INFO},
        {kUnresolved, 0, ECF_LIB_FUNC_NOT_FOUND, 127, ZEP_LOG_INFO},
    };
    // Whatever the loader thinks of these, nothing reaches the terminal.
    fflush(stdout), fflush(stderr);
    const int out = dup(1), err = dup(2);
    const int sink = open(path("terminal").c_str(), O_CREAT | O_WRONLY, 0600);
    dup2(sink, 1), dup2(sink, 2);
    for (const Case& c : cases) {
        calls.clear();
        trace(true);
        ZEPHLibrary lib;
        const Uint32 rc = lib.load(c.name.c_str(), c.flags);
        trace(false);
        SCOPED_TRACE(c.name + " " + std::to_string(c.flags));
        EXPECT_EQ(rc, c.rc);
        EXPECT_FALSE(lib.isLoaded());
        EXPECT_EQ(errorProbes(), std::vector<Uint32>{30});
        if (c.level == 0) {
            EXPECT_EQ(logs(), Strings{});
            continue;
        }
        EXPECT_EQ(logs(), Strings{rec("logsys", ZEPFN_ZEPHLibrary_load, 30, c.rc, c.level,
                                      SYSFN_LoadLibrary, c.osError)});
        const Call& log = aLog();
        EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000003u);
        ASSERT_EQ(log.items.size(), 2u);
        EXPECT_EQ(log.items[0].bytes, c.name);
        EXPECT_EQ(valueOf<Uint32>(log.items[1]), c.flags);
    }
    fflush(stdout), fflush(stderr);
    dup2(out, 1), dup2(err, 2);
    close(out), close(err), close(sink);
    struct stat st;
    ASSERT_EQ(stat(path("terminal").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);

    // Functions resolved at their first call: the library with the unresolvable reference loads.
    ZEPHLibrary lazy;
    ASSERT_EQ(lazy.load(kUnresolved, ZEP_LIB_LOAD_DONT_RESOLVE_REFERENCES), 0u);
    ZEPLibFunction add = nullptr;
    ASSERT_EQ(lazy.getFuncAddress("proclibAdd", &add), 0u);
    EXPECT_EQ(callAdd(add, 1, 1), 2);
    EXPECT_EQ(lazy.unload(), 0u);

    // As a data file: loaded, but nothing in it can be called.
    calls.clear();
    ZEPHLibrary data;
    ASSERT_EQ(data.load(kLib, ZEP_LIB_LOAD_AS_DATAFILE | ZEP_LIB_LOAD_QUIET), 0u);
    ZEPLibGetFuncAddressParam probe;
    probe.name = "proclibAdd";
    probe.flags = ZEP_LIB_FUNC_QUIET;
    ZEPLibGetFuncAddressInfo info;
    EXPECT_EQ(data.getFuncAddress(&probe, &info), ECF_LIB_FUNC_NOT_FOUND);
    EXPECT_EQ(data.unload(), 0u);

    // A loaded object refuses another load and keeps its library; quietly, with the error
    // record only.
    ZEPHLibrary lib;
    ASSERT_EQ(lib.load(kLib, 0), 0u);
    void* const held = lib.handle();
    for (Uint32 flags : {0u, ZEP_LIB_LOAD_QUIET}) {
        calls.clear();
        trace(true);
        EXPECT_EQ(lib.load(missing.c_str(), flags), ECF_LIB_ALREADY_LOADED);
        trace(false);
        EXPECT_EQ(errorProbes(), std::vector<Uint32>{20});
        EXPECT_EQ(logs(),
                  flags ? Strings{}
                        : Strings{rec("log", ZEPFN_ZEPHLibrary_load, 20, ECF_LIB_ALREADY_LOADED)});
        EXPECT_EQ(lib.handle(), held);
    }
    ASSERT_EQ(lib.getFuncAddress("proclibAdd", &add), 0u);
    EXPECT_EQ(callAdd(add, 20, 22), 42);

    // A library handle is no kernel object: CloseHandle refuses it, and the loader refuses
    // handles of other kinds.
    EXPECT_EQ(zepos::CloseHandle(held), 0);
    EXPECT_EQ(zepos::GetLastError(), 6u);
    zepos::HANDLE file = zepos::CreateFileA(text.c_str(), zepos::GENERIC_READ, 0, nullptr,
                                            zepos::OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(zepos::GetProcAddress(file, "proclibAdd"), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 6u);
    EXPECT_EQ(zepos::FreeLibrary(file), 0);
    zepos::CloseHandle(file);
    EXPECT_EQ(lib.unload(), 0u);
    EXPECT_EQ(zepos::GetProcAddress(held, "proclibAdd"), nullptr);  // the handle is gone
    EXPECT_EQ(zepos::GetLastError(), 6u);
}

}  // namespace
