// Tests of ZEPHThreadSpecificData and the slot stand-ins under it, with every log and trace call
// the class makes seen as it was made.
#include <thread>

#include "zepos.h"
#include "zeptsd.h"
#include "zeptest_capture.h"

namespace {

using namespace zeptest;

class Tsd : public CaptureTest {};

std::string take() {
    std::string s = said();
    calls.clear();
    return s;
}

TEST_F(Tsd, NullReadsAsAnErrorUntilSet) {
    trace(true);
    ZEPHThreadSpecificData tsd;
    EXPECT_EQ(tsd.index(), 0xFFFFFFFFu);
    ASSERT_EQ(tsd.create(), 0u);
    EXPECT_NE(tsd.index(), 0xFFFFFFFFu);
    EXPECT_EQ(take(),
              "entry ZEPHThreadSpecificData::create; exit ZEPHThreadSpecificData::create OK");

    // Never set: logged by the worker at probe 10, level 4, no items; entry and exit with the
    // code, no error record.
    void* value = &value;
    EXPECT_EQ(tsd.get(&value), ECF_INVALID_INVOCATION_SEQUENCE);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(take(),
              "entry ZEPHThreadSpecificData::get; logsys ZEPHThreadSpecificDataInternal::get "
              "TlsGetValue 0 ECF_INVALID_INVOCATION_SEQUENCE p10 L4 m0; exit "
              "ZEPHThreadSpecificData::get ECF_INVALID_INVOCATION_SEQUENCE");

    int a = 0, b = 0;
    ASSERT_EQ(tsd.set(&a), 0u);
    EXPECT_EQ(tsd.get(&value), 0u);
    EXPECT_EQ(value, &a);
    // Another thread sees its own, empty slot; what it sets stays its own.
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

    // A destroyed slot: the platform refuses the index (87), which the map makes a bad
    // parameter; each worker logs under its own identifier.
    ASSERT_EQ(tsd.destroy(), 0u);
    calls.clear();
    EXPECT_EQ(tsd.destroy(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(tsd.set(&a), ECF_INVALID_PARAMETER);
    EXPECT_EQ(tsd.get(&value), ECF_INVALID_PARAMETER);
    const std::string entry = "entry ZEPHThreadSpecificData::",
                      internal = "logsys ZEPHThreadSpecificDataInternal::";
    EXPECT_EQ(take(), entry + "destroy; " + internal +
                          "destroy TlsFree 87 ECF_INVALID_PARAMETER p20 L4 m0; exit "
                          "ZEPHThreadSpecificData::destroy ECF_INVALID_PARAMETER; " +
                          entry + "set; " + internal +
                          "set TlsSetValue 87 ECF_INVALID_PARAMETER p20 L4 m0; exit "
                          "ZEPHThreadSpecificData::set ECF_INVALID_PARAMETER; " +
                          entry + "get; " + internal +
                          "get TlsGetValue 87 ECF_INVALID_PARAMETER p10 L4 m0; exit "
                          "ZEPHThreadSpecificData::get ECF_INVALID_PARAMETER");
}

TEST_F(Tsd, OutOfSlots) {
    // Take every slot the system has, then ask the class for one more.
    std::vector<Uint32> taken;
    for (Uint32 i; (i = zepos::TlsAlloc()) != zepos::TLS_OUT_OF_INDEXES;) {
        taken.push_back(i);
        ASSERT_LT(taken.size(), 100000u);
    }
    EXPECT_EQ(zepos::GetLastError(), 8u);
    ZEPHThreadSpecificData tsd;
    EXPECT_EQ(tsd.create(), ECF_NO_MEMORY);
    EXPECT_EQ(tsd.index(), 0xFFFFFFFFu);
    EXPECT_EQ(take(),
              "logsys ZEPHThreadSpecificDataInternal::create TlsAlloc 8 ECF_NO_MEMORY p20 L2 m0");
    for (Uint32 i : taken) ASSERT_TRUE(zepos::TlsFree(i));
    EXPECT_EQ(tsd.create(), 0u);
    EXPECT_EQ(tsd.destroy(), 0u);
}

TEST(TlsStandIns, LastErrorTellsANullFromARefusal) {
    using namespace zepos;
    const Uint32 i = TlsAlloc();
    ASSERT_NE(i, TLS_OUT_OF_INDEXES);
    int x = 0;
    for (void* v : {static_cast<void*>(nullptr), static_cast<void*>(&x)}) {
        if (v) {
            ASSERT_TRUE(TlsSetValue(i, v));
        }
        SetLastError(5);
        EXPECT_EQ(TlsGetValue(i), v);
        EXPECT_EQ(GetLastError(), 0u);
    }
    // Freed: every thread's value is forgotten, the index refused; a new slot starts empty,
    // even if it gets the same index.
    ASSERT_TRUE(TlsFree(i));
    EXPECT_EQ(TlsGetValue(i), nullptr);
    EXPECT_EQ(GetLastError(), 87u);
    EXPECT_FALSE(TlsSetValue(i, &x));
    EXPECT_EQ(GetLastError(), 87u);
    EXPECT_FALSE(TlsFree(i));
    const Uint32 j = TlsAlloc();
    ASSERT_NE(j, TLS_OUT_OF_INDEXES);
    EXPECT_EQ(TlsGetValue(j), nullptr);
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_TRUE(TlsFree(j));
    for (Uint32 bad : {0xFFFFFFFFu, 5000u}) {
        EXPECT_EQ(TlsGetValue(bad), nullptr);
        EXPECT_EQ(GetLastError(), 87u);
    }
}

}  // namespace
