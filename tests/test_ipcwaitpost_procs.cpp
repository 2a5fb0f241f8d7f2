// Wait/post between real processes: three waiters and one post, for kind 1 exactly one passes,
// for kind 0 all do; and a reader polling the data block at full speed against a writer never
// sees a mix of two posts.
#include <fcntl.h>
#include <sys/mman.h>

#include "helper_ipcsync_proc.h"
#include "zeptest_capture.h"

namespace {

using namespace zeptest;

class WaitpostProcs : public CaptureTest {
protected:
    Uint8* mapShared(const std::string& file, size_t bytes) {
        const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0600);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(ftruncate(fd, static_cast<off_t>(bytes)), 0);
        void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        return static_cast<Uint8*>(m);
    }
    ZEPIPCResID nameOf(const char* what) {
        ZEPIPCResID id;
        snprintf(id.name, sizeof id.name, "zeptest-wpprocs-%d-%s", static_cast<int>(getpid()),
                 what);
        return id;
    }
};

TEST_F(WaitpostProcs, ThreeWaitersOnePost) {
    for (Uint32 kind : {1u, 0u}) {
        const std::string file = path(("area" + std::to_string(kind)).c_str());
        Uint8* base = mapShared(file, 4096);
        const ZEPIPCResID id = nameOf(kind ? "auto" : "manual");
        ZEPIPCWaitpostCreateParam c;
        c.area = reinterpret_cast<ZEPIPCWaitpostArea*>(base);
        c.postData = base + 64;
        c.postDataSize = 16;
        c.resID = &id;
        c.kind = kind;
        ZEPHIPCWaitpost w;
        ASSERT_EQ(w.create(&c), 0u);

        std::vector<Proc*> waiters;
        for (int i = 0; i < 3; ++i) waiters.push_back(new Proc({"wpwait", file, id.name, "1500"}));
        for (Proc* p : waiters) ASSERT_EQ(p->line(), "ready");
        usleep(100000);  // and asleep on the event
        ASSERT_EQ(w.post("message-of-post"), 0u);
        int passed = 0, timedOut = 0;
        for (Proc* p : waiters) {
            const std::string l = p->line();
            if (l == "00000000 message-of-post")
                ++passed;
            else if (l.rfind("90000013", 0) == 0)
                ++timedOut;
            else
                ADD_FAILURE() << l;
            EXPECT_EQ(p->finish(), 0);
            delete p;
        }
        EXPECT_EQ(passed, kind == 1 ? 1 : 3) << "kind " << kind;
        EXPECT_EQ(passed + timedOut, 3);
        // Kind 0 stays posted for later waiters until reset.
        const ZEPIPCWaitpostWaitParam poll(0);
        EXPECT_EQ(w.wait(&poll, nullptr), kind == 1 ? ECF_WAITPOST_NOT_POSTED : 0u);
        ASSERT_EQ(w.reset(), 0u);
        EXPECT_EQ(w.wait(&poll, nullptr), ECF_WAITPOST_NOT_POSTED);
        EXPECT_EQ(w.destroy(), 0u);
        munmap(base, 4096);
    }
}

TEST_F(WaitpostProcs, TheDataBlockIsAlwaysOnePost) {
    const std::string file = path("block");
    Uint8* base = mapShared(file, 8192);
    const ZEPIPCResID id = nameOf("block");
    ZEPIPCWaitpostCreateParam c;
    c.area = reinterpret_cast<ZEPIPCWaitpostArea*>(base);
    c.postData = base + 64;
    c.postDataSize = 1024;
    c.resID = &id;
    ZEPHIPCWaitpost w;
    ASSERT_EQ(w.create(&c), 0u);
    const unsigned reads = 20000 * stressFactor();
    Proc reader({"wpread", file, id.name, std::to_string(reads)});
    ASSERT_EQ(reader.line(), "ready");
    Uint8 pattern[1024];
    std::string result;
    for (unsigned i = 0; result.empty(); ++i) {
        memset(pattern, static_cast<int>(i % 251 + 1), sizeof pattern);
        ASSERT_EQ(w.post(pattern), 0u);
        if (i % 64 == 0) result = reader.line(0);
    }
    unsigned torn = 99, changes = 0;
    ASSERT_EQ(sscanf(result.c_str(), "torn %u changes %u", &torn, &changes), 2) << result;
    EXPECT_EQ(torn, 0u);
    EXPECT_GT(changes, 0u);  // the reader did see posts go by
    EXPECT_EQ(reader.finish(), 0);
    EXPECT_EQ(w.destroy(), 0u);
    munmap(base, 8192);
}

}  // namespace
