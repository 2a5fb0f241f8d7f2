// ZEPHIPCQueue: the shared block byte for byte, the ring's sizes, padding and wrap, the failure
// rows and their records, a flush that wakes a sender, and streams between real processes.
#include <deque>
#include <thread>

#include "zeptest_ipc.h"
#include "zeptest_stress.h"

namespace {

using namespace zeptest;

// The write offset, the read offset and the not-empty flag.
std::string state(const ZEPIPCQueueHeader& h) {
    return std::to_string(h.writeOffset) + " " + std::to_string(h.readOffset) + " " +
           std::to_string(h.notEmpty);
}

// Waits (ctest bounds the time) until a flag of the block is up, read under the state latch as the
// queue reads it; the state as it then stands.
std::string until(ZEPIPCQueueHeader* h, Uint8 ZEPIPCQueueHeader::*flag) {
    for (;; usleep(200)) {
        zepLockGet(&h->stateLatch);
        const bool up = h->*flag != 0;
        const std::string now = state(*h);
        zepLockRelease(&h->stateLatch);
        if (up) return usleep(2000), now;  // and the sleeper has gone down onto its semaphore
    }
}

class Queue : public IpcTest {
protected:
    void TearDown() override {
        for (ZEPHIPCQueue& q : made)
            if (q.isAttached()) q.destroy();
        IpcTest::TearDown();
    }
    ZEPIPCQueResID queueOf(const std::string& what) {
        ZEPIPCResIDParam p;
        const std::string path = tag_ + what;
        p.path = path.c_str(), p.seed = 1;
        ZEPIPCQueResID id;
        EXPECT_EQ(zepIPCGetQueResID(&p, &id), 0u);
        return id;
    }
    ZEPHIPCQueue* make(const std::string& what, Uint32 queueSize) {
        ZEPIPCQueueCreateParam c;
        c.queResID = queueOf(what), c.queueSize = queueSize;
        EXPECT_EQ(made.emplace_back().create(&c), 0u);
        return &made.back();
    }
    std::deque<ZEPHIPCQueue> made;
};

// The message got, or "<ECF_...>" of a failure.
std::string get(ZEPHIPCQueue* q, Sint32 timeout = -1) {
    std::vector<char> b(4096);
    Uint32 n = 0;
    const Uint32 r = q->get(b.data(), static_cast<Uint32>(b.size()), &n, timeout);
    return r == 0 ? std::string(b.data(), n) : std::string("<") + ecfErrorGetCodeName(r) + ">";
}

TEST_F(Queue, RingSizesAndMessagesInTheRingByteForByte) {
    const Uint32 sizes[][2] = {{0, 4}, {1, 8}, {4, 8}, {5, 8}, {12, 12}};  // asked, ring
    for (const auto& s : sizes) EXPECT_EQ(make(std::to_string(s[0]), s[0])->header->capacity, s[1]);
    EXPECT_EQ(zepGetMaxQueueMessageSize(), 0u);  // no limit known: messages stream

    ZEPHIPCQueue* q = make("bytes", 10);  // a ring of 12, the header's other bytes zero
    ZEPIPCQueueHeader* h = q->header;
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h) + 8, 12), std::string(12, '\0'));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(h), 4), std::string(4, '\0'));
    Uint8* const at = reinterpret_cast<Uint8*>(h + 1);
    auto ring = [&] { return std::string(at, at + 12); };
    memset(at, 0xEE, 12);

    // 8 bytes and their length word fill the ring exactly: both offsets back at 0, and only the
    // not-empty flag says full.
    ASSERT_EQ(q->put("ABCDEFGH", 8), 0u);
    EXPECT_EQ(ring(), std::string("\x08\0\0\0ABCDEFGH", 12));
    EXPECT_EQ(state(*h), "0 0 1");
    EXPECT_TRUE(q->hasMessage());
    EXPECT_EQ(get(q), "ABCDEFGH");
    EXPECT_EQ(state(*h), "0 0 0");

    // A length of 5 takes 4 + 8 bytes; the 3 behind the message are skipped, not written.
    memset(at, 0xEE, 12);
    ASSERT_EQ(q->put("vwxyz", 5), 0u);
    EXPECT_EQ(ring(), std::string("\x05\0\0\0vwxyz\xEE\xEE\xEE", 12));
    EXPECT_EQ(get(q), "vwxyz");

    // A message of 0 bytes is its length word alone; then one that wraps round the end.
    ASSERT_EQ(q->put("", 0), 0u);
    EXPECT_EQ(get(q), "");
    EXPECT_EQ(state(*h), "4 4 0");
    ASSERT_EQ(q->put("wxyz", 4), 0u);  // 4..12 holds the length and 4 bytes
    EXPECT_EQ(get(q), "wxyz");
    ASSERT_EQ(q->put("ab", 2), 0u);  // at 0: the length and 2 bytes, 2 skipped
    // The next length word fills the ring (at 8), so its sender sleeps until a get makes room,
    // and its body then wraps to the start.
    std::thread sender([&] { EXPECT_EQ(q->put("c", 1), 0u); });
    EXPECT_EQ(until(h, &ZEPIPCQueueHeader::senderWaiting), "0 0 1");
    EXPECT_EQ(get(q), "ab");
    sender.join();
    EXPECT_EQ(state(*h), "4 8 1");
    EXPECT_EQ(at[0], 'c');
    EXPECT_EQ(get(q), "c");
    EXPECT_EQ(state(*h), "4 4 0");
}

TEST_F(Queue, FailureRowsRecordsAndFlush) {
    ZEPHIPCQueue* q = make("rows", 64);

    // A poll on an empty queue: an error record at probe 0, no log record. A time-out: logged.
    trace(true);
    EXPECT_EQ(get(q, 0), "<ECF_QUE_INVALID_MSG_TYPE>");
    EXPECT_EQ(logShape(0), "error 0");
    trace(false);
    EXPECT_EQ(get(q, 20), "<ECF_TIMEOUT>");
    EXPECT_EQ(theLog(ZEPFN_ZEPHIPCQueue_get, 80, ECF_TIMEOUT).what, "log");

    // A buffer too small: both sizes logged, the message stays at the head.
    ASSERT_EQ(q->put("0123456789", 10), 0u);
    calls.clear();
    char small[4];
    Uint32 n = 0;
    EXPECT_EQ(q->get(small, sizeof small, &n, -1), ECF_QUE_MSG_TOO_BIG);
    EXPECT_EQ(n, 10u);
    theLog(ZEPFN_ZEPHIPCQueue_get, 100, ECF_QUE_MSG_TOO_BIG);
    EXPECT_EQ(get(q), "0123456789");

    // A parameter object missing, a queue that isn't there, one whose memory alone is attached.
    calls.clear();
    ZEPHIPCQueue other;
    refused(other.create(nullptr), ECF_INVALID_PARAMETER, ZEPFN_ZEPHIPCQueue_create, 1111);
    ZEPIPCQueResID missing = queueOf("missing"), id = queueOf("rows");
    EXPECT_EQ(other.attach(&missing), ECF_QUE_DOESNT_EXIST);
    EXPECT_EQ(logShape(kAnyCode),
              "logsys 50/2 log 50 logrc 40/" + std::to_string(ECF_QUE_DOESNT_EXIST));
    ASSERT_EQ(other.memory.attach(&id.memory, nullptr), 0u);
    EXPECT_FALSE(other.isAttached());
    EXPECT_EQ(other.memory.detach(), 0u);

    // A flush empties the queue; a sender asleep for room finds it empty and goes on.
    ASSERT_EQ(q->put(std::string(60, 'f').data(), 60), 0u);  // fills the ring of 64
    std::thread sender([&] { EXPECT_EQ(q->put("next", 4), 0u); });
    until(q->header, &ZEPIPCQueueHeader::senderWaiting);
    ASSERT_EQ(q->flush(), 0u);
    sender.join();
    EXPECT_EQ(get(q), "next");
}

// Senders and receivers in processes of their own, with messages of 8 bytes up to three times
// the ring: none lost, duplicated, reordered per sender or damaged.
TEST_F(Queue, StreamsBetweenProcesses) {
    // queue size, senders, receivers, messages
    const Uint32 runs[][4] = {{100, 1, 1, 100000}, {100, 2, 2, 50000}, {0, 3, 1, 10000}};
    for (const auto& r : runs) {
        const std::string what = "procs" + std::to_string(r[0]) + "x" + std::to_string(r[1] + r[2]);
        ZEPHIPCQueue* q = make(what, r[0]);
        std::deque<IpcProc> rx(r[2]), tx(r[1]);
        for (IpcProc& p : rx) p.send("recv " + tag_ + what);
        const Uint32 n = r[3] * zeptestStress();
        for (Uint32 i = 0; i < r[1]; ++i)
            tx[i].send("send " + tag_ + what + " " + std::to_string(i + 1) + " " +
                       std::to_string(n) + " " + std::to_string(3 * q->header->capacity));
        // Both sides add up the messages and a sum over what they were.
        unsigned long long count = 0, sum = 0, c, s, bad;
        for (IpcProc& p : tx) {
            const std::string l = p.line();
            ASSERT_EQ(sscanf(l.c_str(), "sent %llu %llu", &c, &s), 2) << l;
            count += c, sum += s;
        }
        for (size_t i = 0; i < rx.size(); ++i) ASSERT_EQ(q->put("STOP", 4), 0u);
        for (IpcProc& p : rx) {
            const std::string l = p.line();
            ASSERT_EQ(sscanf(l.c_str(), "got %llu %llu %llu", &c, &s, &bad), 3) << l;
            EXPECT_EQ(bad, 0u) << "damaged or out of order";
            count -= c, sum -= s;
        }
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(sum, 0u);
        EXPECT_FALSE(q->hasMessage());
    }
}

}  // namespace
