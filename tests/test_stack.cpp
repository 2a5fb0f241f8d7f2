// The symbol engine's lock table, the frame-pointer walk, the walk from a saved context, names,
// source lines and module records of the running process.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace {

std::string nameOf(uintptr_t address, uintptr_t* disp = nullptr, Uint32 size = 300) {
    char buffer[300];
    zepSymbolNameForAddress(address, buffer, size, disp);
    return buffer;
}

// A return address lies after its call; the call itself is one byte before.
std::string callerName(uintptr_t returnAddress) {
    return nameOf(returnAddress - 1);
}

std::string runHelper(const std::string& mode, const std::string& arg) {
    int status = 0;
    std::string out = zeptest::runHelper("helper_crash", {mode, arg}, {}, &status);
    EXPECT_EQ(status, 0) << out;
    return out;
}

void prepareEngine() {
    zepLoadSymDLL();
    zepSymInitialize(ZEP_CURRENT_PROCESS, nullptr, 0);
}

std::string mutexName(const char* table) {
    return std::string(table) + "-" + std::to_string(getpid());
}

Uint32 handlesOf(const char* table) {
    return zepos::sym::MutexHandleCount(mutexName(table).c_str());
}

const char* const kTable[] = {"SymFunctionTableAccess",
                              "SymGetModuleInfo",
                              "SymRegisterCallback",
                              "SymGetModuleBase",
                              "StackWalk",
                              "EnumerateLoadedModules64",
                              "SymGetSymFromAddr",
                              "SymInitialize",
                              "SymGetSearchPath",
                              "SymSetSearchPath",
                              "SymGetOptons",
                              "SymSetOptons",
                              "GetTimestampForLoadedLibrary",
                              "ImagehlpApiVersion",
                              "ImagehlpApiVersionEx",
                              "SymLoadModule64",
                              "SymUnloadModule64"};

}  // namespace

// A known chain of this file's own functions; each does work after its call, so none of the
// calls becomes a jump.
extern "C" {
__attribute__((noinline)) int chainInner(Uint32 skip, uintptr_t* out, Uint32 capacity,
                                         int* callLine) {
    *callLine = __LINE__ + 1;
    zepWalkStackCollect(skip, out, capacity);
    asm volatile("" ::: "memory");
    return 1;
}
__attribute__((noinline)) int chainMiddle(Uint32 skip, uintptr_t* out, Uint32 capacity, int* line) {
    return chainInner(skip, out, capacity, line) + 1;
}
__attribute__((noinline)) int chainOuter(Uint32 skip, uintptr_t* out, Uint32 capacity, int* line) {
    return chainMiddle(skip, out, capacity, line) + 1;
}

__attribute__((noinline)) int contextInner(ZEPStackFrame64* frames, int capacity) {
    ucontext_t uc;
    getcontext(&uc);
    ZEPStackFrame64 f;
    memset(&f, 0, sizeof f);
    f.AddrPC = static_cast<Uint64>(uc.uc_mcontext.gregs[REG_RIP]);
    f.AddrFrame = static_cast<Uint64>(uc.uc_mcontext.gregs[REG_RBP]);
    f.AddrStack = static_cast<Uint64>(uc.uc_mcontext.gregs[REG_RSP]);
    int n = 0;
    while (n < capacity) {
        const int ok = zepStackWalk(ZEP_CURRENT_PROCESS, nullptr, &f, &uc);
        frames[n++] = f;
        if (!ok || f.AddrReturn == 0) return ok ? n : -n;
    }
    return n;
}
__attribute__((noinline)) int contextOuter(ZEPStackFrame64* frames, int capacity) {
    const int n = contextInner(frames, capacity);
    asm volatile("" ::: "memory");
    return n;
}
}

TEST(StackWalk, FramePointerChain) {
    prepareEngine();
    uintptr_t out[8];
    int line = 0;
    chainOuter(0, out, 8, &line);
    EXPECT_EQ(callerName(out[0]), "chainInner");
    EXPECT_EQ(callerName(out[1]), "chainMiddle");
    EXPECT_EQ(callerName(out[2]), "chainOuter");
    EXPECT_NE(callerName(out[3]).find("FramePointerChain"), std::string::npos);
    // Skipping drops the innermost entries and shifts the rest.
    uintptr_t skipped[8];
    chainOuter(2, skipped, 8, &line);
    EXPECT_EQ(callerName(skipped[0]), "chainOuter");

    // The source line of the call.
    ZEPSymbol64 sym[2];
    memset(sym, 0, sizeof sym);
    sym[0].SizeOfStruct = sizeof sym[0];
    sym[0].MaxNameLength = sizeof sym[0].Name + sizeof sym[1];
    Uint64 disp = 0;
    ASSERT_TRUE(zepSymGetSymFromAddr(ZEP_CURRENT_PROCESS, out[0] - 1, &disp, &sym[0]));
    EXPECT_STREQ(sym[0].Name, "chainInner");
    EXPECT_EQ(sym[0].Address + disp, out[0] - 1);
    EXPECT_NE(std::string(sym[0].FileName).find("test_stack.cpp"), std::string::npos);
    EXPECT_EQ(sym[0].LineNumber, static_cast<Uint32>(line));
}

// In a process whose engine was never loaded.
TEST(StackWalk, ChainBoundaries) {
    int line;
    // Capacity 0 leaves the array alone; more frames to skip than there are gives all 0.
    uintptr_t untouched[4] = {7, 7, 7, 7};
    chainOuter(0, untouched, 0, &line);
    for (uintptr_t a : untouched) EXPECT_EQ(a, 7u);
    std::vector<uintptr_t> deep(16, 9);
    chainOuter(100000, deep.data(), 16, &line);
    EXPECT_EQ(deep, std::vector<uintptr_t>(16, 0));
    // A chain that ends (a thread's first frame pointer is 0): the rest stays 0.
    std::vector<uintptr_t> all(4096, 9);
    std::thread([&] { chainOuter(0, all.data(), 4096, &line); }).join();
    const size_t firstZero = std::find(all.begin(), all.end(), 0u) - all.begin();
    ASSERT_GT(firstZero, 3u);
    ASSERT_LT(firstZero, all.size());
    EXPECT_EQ(std::count(all.begin() + firstZero, all.end(), 0u), long(all.size() - firstZero));
}

TEST(StackWalk, FromSavedContextToTheEnd) {
    prepareEngine();
    ZEPStackFrame64 frames[64];
    const int n = contextOuter(frames, 64);
    ASSERT_GT(n, 3) << "the walk broke off after " << -n << " frames";
    // The first frame is the function that took the context, at the instruction after its call.
    EXPECT_EQ(nameOf(frames[0].AddrPC), "contextInner");
    EXPECT_EQ(frames[0].Level, 0u);
    EXPECT_EQ(callerName(frames[1].AddrPC), "contextOuter");
    EXPECT_NE(callerName(frames[2].AddrPC).find("FromSavedContextToTheEnd"), std::string::npos);
    for (int i = 0; i + 1 < n; i++) {
        EXPECT_EQ(frames[i].AddrReturn, frames[i + 1].AddrPC) << i;
        EXPECT_EQ(frames[i + 1].Level, static_cast<Uint32>(i + 1));
        EXPECT_LT(frames[i].AddrStack, frames[i + 1].AddrStack) << i;
    }
    EXPECT_EQ(frames[n - 1].AddrReturn, 0u);
    // A frame of another walk (or of none begun) is refused.
    ZEPStackFrame64 stale = frames[1];
    stale.Reserved[0] += 1000;
    EXPECT_FALSE(zepStackWalk(ZEP_CURRENT_PROCESS, nullptr, &stale, nullptr));
}

TEST(SymbolNames, AddressesWithAndWithoutSymbols) {
    prepareEngine();
    uintptr_t disp = 77;
    EXPECT_EQ(nameOf(0, &disp), "?unknown");
    EXPECT_EQ(disp, 0u);
    EXPECT_EQ(nameOf(0, nullptr, 4), "?un");  // cut to the buffer
    const uintptr_t f = reinterpret_cast<uintptr_t>(&chainMiddle);
    EXPECT_EQ(nameOf(f + 5, &disp), "chainMiddle");
    EXPECT_EQ(disp, 5u);
    EXPECT_EQ(nameOf(f), "chainMiddle");
    // C++ names come undecorated.
    EXPECT_NE(nameOf(reinterpret_cast<uintptr_t>(&mutexName)).find("(anonymous namespace)::"),
              std::string::npos);

    // Memory that belongs to no module: the address itself.
    void* anon = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(anon, MAP_FAILED);
    const uintptr_t a = reinterpret_cast<uintptr_t>(anon) + 0x10;
    char expected[32];
    snprintf(expected, sizeof expected, "0x%016lX", static_cast<unsigned long>(a));
    disp = 77;
    EXPECT_EQ(nameOf(a, &disp), expected);
    EXPECT_EQ(disp, 0u);
    munmap(anon, 4096);
}

// In fresh processes: only the first initialization reaches the engine, the second returns 0
// without touching the last error, and the engine outlives the clean-up; the mutexes' names carry
// the process id and the registry is the process's own.
TEST(SymbolEngine, PerProcessInitialisationAndMutexes) {
    EXPECT_EQ(runHelper("countedinit", "-"),
              "first=1 second=0 error=4242 cleanup=0 name=validateRecord\n");
    zepLoadSymDLL();
    const std::string parent = mutexName("StackWalk");
    ASSERT_EQ(handlesOf("StackWalk"), 1u);
    const std::string out = runHelper("mutexnames", parent);
    int child = 0;
    unsigned own = 0;
    ASSERT_EQ(sscanf(out.c_str(), "own StackWalk-%d %u", &child, &own), 2) << out;
    EXPECT_NE(child, getpid());
    EXPECT_EQ(own, 1u);
    EXPECT_NE(out.find("\nparent " + parent + " 0\n"), std::string::npos) << out;
}

TEST(SymbolEngine, MutexTableLoadsOnceAndFreesEachHandleOnce) {
    zepLoadSymDLL();
    zepLoadSymDLL();
    for (const char* t : kTable) EXPECT_EQ(handlesOf(t), 1u) << t;
    // The clean-up slot shares the initializer's mutex: there is no mutex of its own name.
    EXPECT_EQ(handlesOf("SymCleanup"), 0u);
    zepFreeSymDLL();
    for (const char* t : kTable) EXPECT_EQ(handlesOf(t), 0u) << t;
    zepFreeSymDLL();  // nothing loaded: nothing happens
    // Unloaded, the wrappers still work, unguarded.
    EXPECT_NE(zepSymGetModuleBase(ZEP_CURRENT_PROCESS, reinterpret_cast<uintptr_t>(&chainOuter)),
              0u);
    zepLoadSymDLL();
    for (const char* t : kTable) EXPECT_EQ(handlesOf(t), 1u) << t;
}

TEST(SymbolEngine, WrappersKeepTheEntrysError) {
    zepLoadSymDLL();
    // No module at this address: the entry's 487 survives the release of the mutex.
    zepos::SetLastError(0);
    EXPECT_EQ(zepSymGetModuleBase(ZEP_CURRENT_PROCESS, 0x10), 0u);
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_INVALID_ADDRESS));
    // Only the current process is known.
    EXPECT_EQ(zepSymGetModuleBase(reinterpret_cast<void*>(1234), 0x10), 0u);
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_INVALID_HANDLE));
    EXPECT_FALSE(zepSymUnloadModule(ZEP_CURRENT_PROCESS, 0x1234000));
    // Search path and options round trip.
    char path[ZEP_MAX_PATH + 1];
    EXPECT_TRUE(zepSymSetSearchPath(ZEP_CURRENT_PROCESS, "/opt/debug"));
    EXPECT_TRUE(zepSymGetSearchPath(ZEP_CURRENT_PROCESS, path, sizeof path));
    EXPECT_STREQ(path, "/opt/debug");
    EXPECT_TRUE(zepSymGetSearchPath(ZEP_CURRENT_PROCESS, path, 5));
    EXPECT_STREQ(path, "/opt");
    const Uint32 options = zepSymGetOptions();
    EXPECT_EQ(zepSymSetOptions(options | 0x10), options | 0x10);
    EXPECT_EQ(zepSymGetOptions(), options | 0x10);
    const ZEPApiVersion* v = zepImagehlpApiVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_GT(v->MinorVersion, 0);
    EXPECT_EQ(zepImagehlpApiVersionEx(v), v);
}

TEST(SymbolEngine, RegistryMutexIsRecursiveAndExcludesOtherThreads) {
    const std::string name = mutexName("TestMutex");
    zepos::HANDLE m = zepos::sym::CreateMutexA(nullptr, 0, name.c_str());
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(zepos::GetLastError(), 0u);
    // A second create opens the same mutex through a handle of its own.
    zepos::HANDLE again = zepos::sym::CreateMutexA(nullptr, 0, name.c_str());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_ALREADY_EXISTS));
    EXPECT_EQ(handlesOf("TestMutex"), 2u);

    EXPECT_EQ(zepos::WaitForSingleObject(m, zepos::INFINITE), zepos::WAIT_OBJECT_0);
    EXPECT_EQ(zepos::WaitForSingleObject(again, 0), zepos::WAIT_OBJECT_0);  // recursive
    std::thread([&] {
        EXPECT_EQ(zepos::WaitForSingleObject(again, 0), zepos::WAIT_TIMEOUT);
        EXPECT_EQ(zepos::WaitForSingleObject(m, 20), zepos::WAIT_TIMEOUT);
        EXPECT_FALSE(zepos::sym::ReleaseMutex(m));
        EXPECT_EQ(zepos::GetLastError(), zepos::sym::ERROR_NOT_OWNER);
    }).join();
    EXPECT_TRUE(zepos::sym::ReleaseMutex(m));
    EXPECT_TRUE(zepos::sym::ReleaseMutex(m));
    EXPECT_FALSE(zepos::sym::ReleaseMutex(m));

    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; i++) {
                zepos::WaitForSingleObject(m, zepos::INFINITE);
                long v = counter;
                asm volatile("" ::: "memory");
                counter = v + 1;
                zepos::sym::ReleaseMutex(m);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);

    EXPECT_TRUE(zepos::CloseHandle(again));
    EXPECT_EQ(handlesOf("TestMutex"), 1u);
    EXPECT_TRUE(zepos::CloseHandle(m));
    EXPECT_EQ(handlesOf("TestMutex"), 0u);
}

TEST(SymbolEngine, ModulesOfTheProcess) {
    zepLoadSymDLL();
    Uint32 count = 0, seen = 0;
    ASSERT_TRUE(zepEnumerateLoadedModules(ZEP_CURRENT_PROCESS, nullptr, nullptr));
    const ZEPModuleListNode* node = zepModuleList(&count);
    ASSERT_GT(count, 3u);
    char exe[ZEP_MAX_PATH + 1];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    ASSERT_GT(n, 0);
    exe[n] = 0;
    EXPECT_STREQ(static_cast<const ZEPTrapModuleRecord*>(node->record)->name, exe);
    const ZEPTrapModuleRecord* zep = nullptr;
    for (; node != nullptr; node = node->next, seen++) {
        const ZEPTrapModuleRecord* r = static_cast<const ZEPTrapModuleRecord*>(node->record);
        EXPECT_LT(r->base, r->end) << r->name;
        if (strstr(r->name, "libzep.so") != nullptr) zep = r;
        EXPECT_TRUE(!strstr(r->name, "libc.so") || r->markerAddress == 0) << r->name;
    }
    EXPECT_EQ(seen, count);
    ASSERT_NE(zep, nullptr);
    // The product's own modules are told by their marker export (the module's own definition,
    // which an executable's copy of the variable may hide from a symbol look-up).
    EXPECT_GE(zep->markerAddress, zep->base);
    EXPECT_LT(zep->markerAddress, zep->end);
    const uintptr_t code = reinterpret_cast<uintptr_t>(&zepStackWalk);
    EXPECT_LE(zep->base, code);
    EXPECT_GT(zep->end, code);
    EXPECT_EQ(zep->buildIdLength, 20u);
    EXPECT_NE(zep->timeStamp, 0u);

    ZEPModuleInfo64 info;
    memset(&info, 0, sizeof info);
    info.SizeOfStruct = sizeof info;
    ASSERT_TRUE(zepSymGetModuleInfo(ZEP_CURRENT_PROCESS, code, &info));
    EXPECT_EQ(info.BaseOfImage, zep->base);
    EXPECT_EQ(info.BaseOfImage + info.ImageSize, zep->end);
    EXPECT_EQ(0, memcmp(info.BuildId, zep->buildId, 20));
    EXPECT_EQ(zepSymGetModuleBase(ZEP_CURRENT_PROCESS, code), zep->base);
    EXPECT_EQ(zepGetTimestampForLoadedLibrary(zep->base), zep->timeStamp);
    // The unwinder's description of the function: what the walker's table access hands on.
    EXPECT_NE(zepSymFunctionTableAccess(ZEP_CURRENT_PROCESS, code), nullptr);
    EXPECT_EQ(zepSymFunctionTableAccess(ZEP_CURRENT_PROCESS, 0x10), nullptr);
}

TEST(SymbolEngine, ModuleLoadedByFileAndUnloaded) {
    prepareEngine();
    const std::string image = std::string(ZEP_TEST_BIN_DIR) + "/helper_crash";
    const Uint64 got =
        zepSymLoadModule(ZEP_CURRENT_PROCESS, nullptr, image.c_str(), "helper", 0x300000000000, 0);
    ASSERT_NE(got, 0u);
    // Its symbols are found at the address it was given.
    ZEPSymbol64 sym[2];
    memset(sym, 0, sizeof sym);
    sym[0].MaxNameLength = sizeof sym[0].Name + sizeof sym[1];
    bool any = false;
    for (Uint64 a = got, d; a < got + 0x10000 && !any; a += 16)
        any = zepSymGetSymFromAddr(ZEP_CURRENT_PROCESS, a, &d, &sym[0]) != 0;
    EXPECT_TRUE(any);
    EXPECT_TRUE(zepSymUnloadModule(ZEP_CURRENT_PROCESS, got));
    EXPECT_FALSE(zepSymUnloadModule(ZEP_CURRENT_PROCESS, got));
    EXPECT_EQ(zepos::GetLastError(), static_cast<Uint32>(zepos::ERROR_INVALID_ADDRESS));
}

TEST(SymbolEngine, ReadMemoryCallbackReadsThroughTheKernel) {
    zepLoadSymDLL();
    ASSERT_TRUE(zepSymRegisterStackWalkCallback(ZEP_CURRENT_PROCESS));
    // The registered callback is what the walker reads with; driven the way the walker does.
    Uint64 context = 0, into = 0;
    ZEPSymCallback cb = zepos::sym::RegisteredCallback(&context);
    ASSERT_NE(cb, nullptr);
    const Uint64 word = 0x1122334455667788ull;
    Uint32 got = 0;
    ZEPReadMemoryRequest r = {reinterpret_cast<uintptr_t>(&word), &into, 8, &got};
    EXPECT_TRUE(cb(ZEP_CURRENT_PROCESS, ZEP_CBA_READMEMORY, reinterpret_cast<uintptr_t>(&r), 0));
    EXPECT_EQ(into, word);
    EXPECT_EQ(got, 8u);
    ZEPReadMemoryRequest bad = {0x10, &into, 8, &got};
    EXPECT_FALSE(cb(ZEP_CURRENT_PROCESS, ZEP_CBA_READMEMORY, reinterpret_cast<uintptr_t>(&bad), 0));
    EXPECT_EQ(got, 0u);
    // Other actions are left to the engine.
    EXPECT_FALSE(cb(ZEP_CURRENT_PROCESS, 1, reinterpret_cast<uintptr_t>(&r), 0));
}
