// The queue, a semaphore and an event between real processes: streams of messages of random
// sizes up to three times the ring between two and four processes (none lost, duplicated,
// reordered per sender or corrupted), a time-out on an empty queue, and the names of a holder
// killed with SIGKILL gone once the others have gone. ZEP_STRESS=1 makes the runs 10 times
// longer.
#include <time.h>

#include <sstream>

#include "helper_ipcsync_proc.h"
#include "zepos.h"
#include "zeptest_capture.h"

namespace {

using namespace zeptest;
const char* const kHelper = "helper_ipcsync_queue";

double nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

class QueueProcs : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        path_ = "zeptest-qprocs-" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ZEPIPCResIDParam p;
        p.path = path_.c_str();
        p.seed = kSeed;
        ASSERT_EQ(zepIPCGetQueResID(&p, &id_), 0u);
    }
    Uint32 create(Uint32 queueSize) {
        ZEPIPCQueueCreateParam c;
        c.queResID = id_;
        c.queueSize = queueSize;
        return q_.create(&c);
    }
    // Senders and receivers at once; the totals of what was sent and what was got must agree.
    void stream(Uint32 queueSize, int senders, int receivers, Uint32 perSender) {
        ASSERT_EQ(create(queueSize), 0u);
        const std::string seed = std::to_string(kSeed);
        const std::string maxSize = std::to_string(3 * q_.header->capacity);
        std::vector<Proc*> rx, tx;
        for (int i = 0; i < receivers; ++i) rx.push_back(new Proc({"recv", seed, path_}, kHelper));
        for (int i = 0; i < senders; ++i)
            tx.push_back(new Proc(
                {"send", seed, path_, std::to_string(i + 1), std::to_string(perSender), maxSize},
                kHelper));
        Uint64 sent[3] = {}, got[4] = {};
        for (Proc* p : tx) {
            std::istringstream in(p->line());
            std::string word;
            Uint64 v[3] = {};
            in >> word >> v[0] >> v[1] >> v[2];
            EXPECT_EQ(word, "sent");
            for (int k = 0; k < 3; ++k) sent[k] += v[k];
            EXPECT_EQ(p->finish(), 0);
        }
        EXPECT_EQ(sent[0] + sent[1], Uint64(senders) * perSender);
        for (int i = 0; i < receivers; ++i) ASSERT_EQ(q_.put("STOP", 4), 0u);
        for (Proc* p : rx) {
            std::istringstream in(p->line());
            std::string word;
            Uint64 v[4] = {};
            in >> word >> v[0] >> v[1] >> v[2] >> v[3];
            EXPECT_EQ(word, "got");
            for (int k = 0; k < 4; ++k) got[k] += v[k];
            EXPECT_EQ(p->finish(), 0);
        }
        EXPECT_EQ(got[0], sent[0]) << "short messages";
        EXPECT_EQ(got[1], sent[1]) << "long messages";
        EXPECT_EQ(got[2], sent[2]) << "the sum over (sender, sequence)";
        EXPECT_EQ(got[3], 0u) << "damaged or out of order";
        EXPECT_FALSE(q_.hasMessage());
        for (Proc* p : tx) delete p;
        for (Proc* p : rx) delete p;
    }
    void TearDown() override {
        if (q_.isAttached()) q_.destroy();
        CaptureTest::TearDown();
    }
    static constexpr Sint32 kSeed = 300;
    std::string path_;
    ZEPIPCQueResID id_;
    ZEPHIPCQueue q_;
};

TEST_F(QueueProcs, TwoProcesses) {
    stream(100, 1, 1, 100000 * stressFactor());
}
TEST_F(QueueProcs, FourProcesses) {
    stream(100, 2, 2, 50000 * stressFactor());
}
TEST_F(QueueProcs, TwoProcessesFourByteRing) {
    stream(0, 1, 1, 20000 * stressFactor());
}
TEST_F(QueueProcs, FourProcessesFourByteRing) {
    stream(0, 3, 1, 10000 * stressFactor());
}

TEST_F(QueueProcs, TimeOutOnAnEmptyQueueThenAWholeMessage) {
    ASSERT_EQ(create(64), 0u);
    std::vector<Uint8> m(1000);
    Uint32 n = 0;
    const double t0 = nowMs();
    EXPECT_EQ(q_.get(m.data(), 1000, &n, 50), ECF_TIMEOUT);
    const double took = nowMs() - t0;
    EXPECT_GE(took, 50.0);
    EXPECT_LT(took, 5000.0);
    // One message from another process, longer than the ring: it streams through whole.
    Proc sender({"send", std::to_string(kSeed), path_, "9", "1", "900"}, kHelper);
    ASSERT_EQ(q_.get(m.data(), 1000, &n, 60000), 0u);
    EXPECT_EQ(sender.line().rfind("sent ", 0), 0u);
    EXPECT_EQ(sender.finish(), 0);
    if (n >= 12) {
        Uint32 head[3];
        memcpy(head, m.data(), 12);
        Uint32 h = 2166136261u;
        for (Uint32 i = 12; i < n; ++i) h = (h ^ m[i]) * 16777619u;
        EXPECT_EQ(head[0], 9u);
        EXPECT_EQ(head[1], 0u);
        EXPECT_EQ(head[2], h);
    }
}

TEST_F(QueueProcs, KilledHolderLeavesNoNames) {
    ASSERT_EQ(create(64), 0u);
    ZEPIPCResIDParam p;
    p.path = path_.c_str();
    p.seed = kSeed + 10;
    ZEPIPCResID semId, eventId;
    ASSERT_EQ(zepIPCGetResID(&p, &semId), 0u);
    p.seed = kSeed + 11;
    ASSERT_EQ(zepIPCGetResID(&p, &eventId), 0u);
    ZEPIPCSemaphoreCreateParam sc;
    sc.resID = semId;
    ZEPHIPCSemaphore sem;
    ASSERT_EQ(sem.create(&sc), 0u);

    Proc holder({"hold", std::to_string(kSeed), path_}, kHelper);
    ASSERT_EQ(holder.line(), "ready");
    void* e = zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, eventId.name);
    ASSERT_NE(e, nullptr);  // the holder made it
    zepos::CloseHandle(e);
    holder.killHard();

    // The others go; then nothing of the three is left to attach to.
    EXPECT_EQ(q_.destroy(), 0u);
    EXPECT_EQ(sem.destroy(), 0u);
    ZEPHIPCQueue q2;
    EXPECT_EQ(q2.attach(&id_), ECF_QUE_DOESNT_EXIST);
    ZEPHIPCSemaphore s2;
    EXPECT_EQ(s2.attach(&semId), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(zepos::OpenEventA(zepos::EVENT_ALL_ACCESS, 0, eventId.name), nullptr);
    EXPECT_EQ(zepos::GetLastError(), 2u);
    // Nor any file of theirs in the objects' directory.
    const struct {
        zepos::NamedKind kind;
        const char* name;
    } objects[] = {{zepos::NamedKind::FileMapping, id_.memory.name},
                   {zepos::NamedKind::Semaphore, id_.receiveSemaphore.name},
                   {zepos::NamedKind::Semaphore, id_.sendSemaphore.name},
                   {zepos::NamedKind::Semaphore, semId.name},
                   {zepos::NamedKind::Event, eventId.name}};
    for (const auto& o : objects) {
        char linuxName[zepos::NAMED_LINUX_NAME_SIZE];
        zepos::NamedLinuxName(o.kind, o.name, linuxName);
        const std::string file = std::string(zepos::NAMED_DIRECTORY) + "/" + linuxName;
        EXPECT_NE(access(file.c_str(), F_OK), 0) << file;
    }
    // And the names can be made afresh.
    EXPECT_EQ(create(64), 0u);
    EXPECT_EQ(sem.create(&sc), 0u);
    EXPECT_EQ(sem.destroy(), 0u);
}

}  // namespace
