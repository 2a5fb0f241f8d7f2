// A semaphore as the guard of a counter in shared memory, between four real processes: every
// increment counted (nobody passed with the count at 0) and the count back at its start.
// ZEP_STRESS=1 makes the run 10 times longer.
#include <fcntl.h>
#include <sys/mman.h>

#include "helper_ipcsync_proc.h"
#include "zeptest_capture.h"

namespace {

using namespace zeptest;

class SemaphoreProcs : public CaptureTest {};

TEST_F(SemaphoreProcs, FourProcessesCountUnderOneSemaphore) {
    const std::string file = path("counter");
    const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    auto* counter = static_cast<volatile Uint64*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    ASSERT_NE(counter, MAP_FAILED);

    const std::string name = "zeptest-semprocs-" + std::to_string(getpid());
    ZEPIPCResIDParam p;
    p.path = name.c_str();
    p.seed = 5;
    ZEPIPCSemaphoreCreateParam c;
    ASSERT_EQ(zepIPCGetResID(&p, &c.resID), 0u);
    c.initialValue = 1;
    ZEPHIPCSemaphore s;
    ASSERT_EQ(s.create(&c), 0u);

    const unsigned n = 25000 * stressFactor();
    std::vector<Proc*> procs;
    for (int i = 0; i < 4; ++i)
        procs.push_back(new Proc({"count", "5", name, file, std::to_string(n)}));
    for (Proc* pr : procs) {
        EXPECT_EQ(pr->line(), "counted");
        EXPECT_EQ(pr->finish(), 0);
        delete pr;
    }
    EXPECT_EQ(*counter, 4ull * n);
    // Back at its initial count: one wait passes, the next finds 0.
    const ZEPIPCSemaphoreWaitParam poll(0);
    EXPECT_EQ(s.wait(&poll), 0u);
    EXPECT_EQ(s.wait(&poll), ECF_TIMEOUT);
    EXPECT_EQ(s.destroy(), 0u);
    munmap(const_cast<Uint64*>(counter), 4096);
}

}  // namespace
