// Tests of ZEPHThreadSpecificData, with every log and trace call the class makes seen as made.
#include <thread>

#include "zeptest_capture.h"
#include "zeptsd.h"

namespace {

using namespace zeptest;

using Tsd = CaptureTest;

std::string take() {
    const std::string s = said();
    calls.clear();
    return s;
}

TEST_F(Tsd, NullReadsAsAnErrorUntilSet) {
    trace(true);
    ZEPHThreadSpecificData tsd;
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
        EXPECT_EQ(tsd.set(&b), 0u);
    }).join();
    EXPECT_EQ(tsd.get(&value), 0u);
    EXPECT_EQ(value, &a);
    // A destroyed slot: the platform refuses the index (87), which the map makes a bad
    // parameter; each worker logs under its own identifier. A new slot starts empty, even if it
    // has the same index.
    ASSERT_EQ(tsd.destroy(), 0u);
    calls.clear();
    trace(false);
    EXPECT_EQ(tsd.destroy() + tsd.set(&a), 2 * ECF_INVALID_PARAMETER);
    EXPECT_EQ(take(),
              "logsys ZEPHThreadSpecificDataInternal::destroy TlsFree 87 ECF_INVALID_PARAMETER "
              "p20 L4 m0; logsys ZEPHThreadSpecificDataInternal::set TlsSetValue 87 "
              "ECF_INVALID_PARAMETER p20 L4 m0");
    ASSERT_EQ(tsd.create(), 0u);
    EXPECT_EQ(tsd.get(&value), ECF_INVALID_INVOCATION_SEQUENCE);
    EXPECT_EQ(tsd.destroy(), 0u);
}

}  // namespace
