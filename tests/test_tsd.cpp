// Tests of ZEPHThreadSpecificData and the slot stand-ins under it. The binary defines the log and
// trace entry points the frame calls, so every record the class writes is seen as it was made.
#include <gtest/gtest.h>
#include <stdarg.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptsd.h"
#include "zepos.h"

namespace {

struct Call {
    std::string what;
    Uint32 fid = 0, called = 0, err = 0, code = 0, probe = 0, level = 0;
    Sint32 mask = 0;
};

std::mutex g_lock;
std::vector<Call> g_calls;
Uint32 g_block[4] = {1, 1, 1, 0};  // initialized, enabled: what the trace-on test reads

void record(const Call& c) {
    std::lock_guard<std::mutex> hold(g_lock);
    g_calls.push_back(c);
}

}  // namespace

extern "C" {

Uint32 zepLogSysRC(ZEPLogFacility*, Uint32 fid, Uint32 called, Uint32 osError, Uint32 code,
                   Uint32 probe, Uint32 level, Sint32 mask, ...) {
    record(Call{"log", fid, called, osError, code, probe, level, mask});
    return 0;
}

void _gtraceEntry(Uint64, Uint32 fid) {
    record(Call{"entry", fid});
}

void _gtraceExit(Uint64, Uint32 fid, const Uint32* rc, Uint32, Uint32) {
    Call c{"exit", fid};
    c.code = *rc;
    record(c);
}

void _gtraceErrorVar(Uint64, Uint32 fid, Uint16, Uint16, Uint32, Uint32, Uint32, ...) {
    record(Call{"error", fid});
}

}  // extern "C"

namespace {

class Tsd : public ::testing::Test {
protected:
    void SetUp() override {
        g_calls.clear();
        g_pGTCB = reinterpret_cast<GTCB*>(g_block);
    }
    void TearDown() override { g_pGTCB = nullptr; }

    static std::vector<Call> take() {
        std::lock_guard<std::mutex> hold(g_lock);
        std::vector<Call> out;
        out.swap(g_calls);
        return out;
    }
};

TEST_F(Tsd, NullReadsAsAnErrorUntilSet) {
    ZEPHThreadSpecificData tsd;
    EXPECT_EQ(tsd.index(), 0xFFFFFFFFu);
    ASSERT_EQ(tsd.create(), 0u);
    EXPECT_NE(tsd.index(), 0xFFFFFFFFu);
    auto calls = take();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].what, "entry");
    EXPECT_EQ(calls[0].fid, ZEPFN_ZEPHThreadSpecificData_create);
    EXPECT_EQ(calls[1].what, "exit");
    EXPECT_EQ(calls[1].code, 0u);

    // Never set: the failure path, logged under the worker at probe 10, level 4, no items; the
    // frame writes entry and exit with the code and no error record.
    void* value = &value;
    EXPECT_EQ(tsd.get(&value), ECF_INVALID_INVOCATION_SEQUENCE);
    EXPECT_EQ(value, nullptr);
    calls = take();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].what, "entry");
    EXPECT_EQ(calls[0].fid, ZEPFN_ZEPHThreadSpecificData_get);
    EXPECT_EQ(calls[1].what, "log");
    EXPECT_EQ(calls[1].fid, ZEPFN_ZEPHThreadSpecificDataInternal_get);
    EXPECT_EQ(calls[1].called, SYSFN_TlsGetValue);
    EXPECT_EQ(calls[1].err, 0u);
    EXPECT_EQ(calls[1].code, ECF_INVALID_INVOCATION_SEQUENCE);
    EXPECT_EQ(calls[1].probe, 10u);
    EXPECT_EQ(calls[1].level, 4u);
    EXPECT_EQ(calls[1].mask, 0);
    EXPECT_EQ(calls[2].what, "exit");
    EXPECT_EQ(calls[2].code, ECF_INVALID_INVOCATION_SEQUENCE);

    int a = 0;
    ASSERT_EQ(tsd.set(&a), 0u);
    EXPECT_EQ(tsd.get(&value), 0u);
    EXPECT_EQ(value, &a);

    // Another thread sees its own, empty slot; what it sets stays its own.
    int b = 0;
    std::thread([&] {
        void* v = &v;
        EXPECT_EQ(tsd.get(&v), ECF_INVALID_INVOCATION_SEQUENCE);
        EXPECT_EQ(v, nullptr);
        EXPECT_EQ(tsd.set(&b), 0u);
        EXPECT_EQ(tsd.get(&v), 0u);
        EXPECT_EQ(v, &b);
    }).join();
    EXPECT_EQ(tsd.get(&value), 0u);
    EXPECT_EQ(value, &a);

    // Set to null is the same as never set.
    ASSERT_EQ(tsd.set(nullptr), 0u);
    EXPECT_EQ(tsd.get(&value), ECF_INVALID_INVOCATION_SEQUENCE);
    take();

    // A destroyed slot: the platform refuses the index (87), which the map makes a bad
    // parameter; each worker logs under its own identifier at probe 20.
    ASSERT_EQ(tsd.destroy(), 0u);
    EXPECT_EQ(tsd.destroy(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(tsd.set(&a), ECF_INVALID_PARAMETER);
    EXPECT_EQ(tsd.get(&value), ECF_INVALID_PARAMETER);
    calls = take();
    std::vector<Call> logs;
    for (const Call& c : calls)
        if (c.what == "log") logs.push_back(c);
    ASSERT_EQ(logs.size(), 3u);
    EXPECT_EQ(logs[0].fid, ZEPFN_ZEPHThreadSpecificDataInternal_destroy);
    EXPECT_EQ(logs[0].called, SYSFN_TlsFree);
    EXPECT_EQ(logs[0].probe, 20u);
    EXPECT_EQ(logs[0].err, 87u);
    EXPECT_EQ(logs[1].fid, ZEPFN_ZEPHThreadSpecificDataInternal_set);
    EXPECT_EQ(logs[1].called, SYSFN_TlsSetValue);
    EXPECT_EQ(logs[1].probe, 20u);
    EXPECT_EQ(logs[2].fid, ZEPFN_ZEPHThreadSpecificDataInternal_get);
    EXPECT_EQ(logs[2].probe, 10u);
    EXPECT_EQ(logs[2].err, 87u);
    for (const Call& c : calls) EXPECT_NE(c.what, "error");
}

TEST_F(Tsd, OutOfSlots) {
    // Take every slot the system has, then ask the class for one more.
    std::vector<Uint32> taken;
    for (;;) {
        Uint32 i = zepos::TlsAlloc();
        if (i == zepos::TLS_OUT_OF_INDEXES) break;
        taken.push_back(i);
        ASSERT_LT(taken.size(), 100000u);
    }
    EXPECT_EQ(zepos::GetLastError(), 8u);
    take();
    ZEPHThreadSpecificData tsd;
    EXPECT_EQ(tsd.create(), ECF_NO_MEMORY);
    EXPECT_EQ(tsd.index(), 0xFFFFFFFFu);
    auto calls = take();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[1].fid, ZEPFN_ZEPHThreadSpecificDataInternal_create);
    EXPECT_EQ(calls[1].called, SYSFN_TlsAlloc);
    EXPECT_EQ(calls[1].err, 8u);
    EXPECT_EQ(calls[1].probe, 20u);
    EXPECT_EQ(calls[1].level, 2u);
    for (Uint32 i : taken) ASSERT_TRUE(zepos::TlsFree(i));
    EXPECT_EQ(tsd.create(), 0u);
    EXPECT_EQ(tsd.destroy(), 0u);
}

TEST(TlsStandIns, LastErrorTellsANullFromARefusal) {
    Uint32 i = zepos::TlsAlloc();
    ASSERT_NE(i, zepos::TLS_OUT_OF_INDEXES);
    zepos::SetLastError(5);
    EXPECT_EQ(zepos::TlsGetValue(i), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 0u);
    int x = 0;
    ASSERT_TRUE(zepos::TlsSetValue(i, &x));
    zepos::SetLastError(5);
    EXPECT_EQ(zepos::TlsGetValue(i), &x);
    EXPECT_EQ(zepos::GetLastError(), 0u);

    // Freed: every thread's value is forgotten, the index refused; a new slot starts empty,
    // even if it gets the same index.
    ASSERT_TRUE(zepos::TlsFree(i));
    EXPECT_EQ(zepos::TlsGetValue(i), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 87u);
    EXPECT_FALSE(zepos::TlsSetValue(i, &x));
    EXPECT_EQ(zepos::GetLastError(), 87u);
    EXPECT_FALSE(zepos::TlsFree(i));
    Uint32 j = zepos::TlsAlloc();
    ASSERT_NE(j, zepos::TLS_OUT_OF_INDEXES);
    EXPECT_EQ(zepos::TlsGetValue(j), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 0u);
    EXPECT_TRUE(zepos::TlsFree(j));

    for (Uint32 bad : {0xFFFFFFFFu, 5000u}) {
        EXPECT_EQ(zepos::TlsGetValue(bad), nullptr);
        EXPECT_EQ(zepos::GetLastError(), 87u);
    }
}

}  // namespace
