// The message queue and the semaphore beside what a user would pick instead, each case between
// two real processes (the second one forked after the object is made):
//  - 16-byte messages streamed one way, at depths of 10 and 256 messages, against POSIX message
//    queues of the same depth, a pipe and Boost.Interprocess's message_queue;
//  - 64 KiB messages, and 1 MiB messages through a 64 KiB ring, against a pipe;
//  - the round trip of a 16-byte message and its answer, both sides asleep while they wait,
//    against POSIX message queues and a pair of process-shared semaphores (median, 99th
//    percentile);
//  - a semaphore's post and wait without contention against sem_post and sem_wait.
// Every figure is the median of five runs; ratios are zep's figure over the peer's.
//   bench_ipcsync [scale]   scale multiplies the message counts (default 1)
#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
#include <boost/interprocess/ipc/message_queue.hpp>
#endif

#include "zep.h"

namespace {

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

int g_scale = 1;
const std::string g_tag = std::to_string(getpid());

// Runs `child` in a forked process and `parent` here; the time from the start of both to the end
// of both.
double twoProcesses(const std::function<void()>& parent, const std::function<void()>& child) {
    const double t0 = now();
    const pid_t pid = fork();
    if (pid == 0) {
        child();
        _exit(0);
    }
    parent();
    int status = 0;
    waitpid(pid, &status, 0);
    if (status != 0) fprintf(stderr, "child failed: %d\n", status);
    return now() - t0;
}

// ---- the zep queue

struct ZepQueue {
    ZEPIPCQueResID id;
    ZEPHIPCQueue q;
    ZepQueue(const char* what, Uint32 ringBytes) {
        ZEPIPCResIDParam p;
        const std::string path = "zepbench-" + g_tag + "-" + what;
        p.path = path.c_str();
        p.seed = 1;
        zepIPCGetQueResID(&p, &id);
        ZEPIPCQueueCreateParam c;
        c.queResID = id;
        c.queueSize = ringBytes;
        if (q.create(&c) != 0) {
            fprintf(stderr, "queue create failed\n");
            exit(1);
        }
    }
    ~ZepQueue() { q.destroy(); }
};

// Messages per second, `count` messages of `size` bytes one way.
double zepStream(Uint32 depth, Uint32 size, long count, Uint32 ringBytes = 0) {
    ZepQueue zq("stream", ringBytes ? ringBytes : depth * ((size + 3) / 4 * 4 + 4));
    std::vector<char> buf(size);
    const double t = twoProcesses(
        [&] {
            for (long i = 0; i < count; ++i) zq.q.put(buf.data(), size);
        },
        [&] {
            ZEPHIPCQueue r;
            r.attach(&zq.id);
            std::vector<char> in(size);
            Uint32 n;
            for (long i = 0; i < count; ++i) r.get(in.data(), size, &n, -1);
            r.detach();
        });
    return count / t;
}

double mqStream(long depth, long size, long count) {
    const std::string name = "/zepbench-mq-" + g_tag;
    mq_attr a = {};
    a.mq_maxmsg = depth;
    a.mq_msgsize = size;
    mq_unlink(name.c_str());
    mqd_t q = mq_open(name.c_str(), O_CREAT | O_RDWR, 0600, &a);
    if (q == (mqd_t)-1) {
        perror("mq_open");
        return 0;
    }
    std::vector<char> buf(size);
    const double t = twoProcesses(
        [&] {
            for (long i = 0; i < count; ++i) mq_send(q, buf.data(), size, 0);
        },
        [&] {
            std::vector<char> in(size);
            for (long i = 0; i < count; ++i) mq_receive(q, in.data(), size, nullptr);
        });
    mq_close(q);
    mq_unlink(name.c_str());
    return count / t;
}

double pipeStream(size_t size, long count) {
    int fds[2];
    if (pipe(fds) != 0) return 0;
    std::vector<char> buf(size);
    const double t = twoProcesses(
        [&] {
            close(fds[0]);
            for (long i = 0; i < count; ++i) {
                size_t done = 0;
                while (done < size) done += write(fds[1], buf.data() + done, size - done);
            }
            close(fds[1]);
        },
        [&] {
            close(fds[1]);
            std::vector<char> in(size);
            for (long i = 0; i < count; ++i) {
                size_t done = 0;
                while (done < size) {
                    const ssize_t n = read(fds[0], in.data() + done, size - done);
                    if (n <= 0) _exit(1);
                    done += n;
                }
            }
        });
    close(fds[0]);
    close(fds[1]);
    return count / t;
}

#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
double boostStream(size_t depth, size_t size, long count) {
    namespace bip = boost::interprocess;
    const std::string name = "zepbench-bip-" + g_tag;
    bip::message_queue::remove(name.c_str());
    bip::message_queue q(bip::create_only, name.c_str(), depth, size);
    std::vector<char> buf(size);
    const double t = twoProcesses(
        [&] {
            for (long i = 0; i < count; ++i) q.send(buf.data(), size, 0);
        },
        [&] {
            bip::message_queue r(bip::open_only, name.c_str());
            std::vector<char> in(size);
            size_t n;
            unsigned prio;
            for (long i = 0; i < count; ++i) r.receive(in.data(), size, n, prio);
        });
    bip::message_queue::remove(name.c_str());
    return count / t;
}
#endif

// ---- round trips: a request one way, its answer back, both sides asleep while they wait

template <class Ping, class Pong>
std::vector<double> roundTrips(long count, Ping ping, Pong pong) {
    std::vector<double> lat(count);
    twoProcesses(
        [&] {
            for (long i = 0; i < count; ++i) {
                const double t0 = now();
                ping();
                lat[i] = now() - t0;
            }
        },
        [&] {
            for (long i = 0; i < count; ++i) pong();
        });
    std::sort(lat.begin(), lat.end());
    return lat;
}

void report(const char* what, const std::vector<double>& lat) {
    printf("  %-34s median %7.2f us   p99 %7.2f us\n", what, lat[lat.size() / 2] * 1e6,
           lat[lat.size() * 99 / 100] * 1e6);
}

// ---- semaphores without contention

double zepSemaphore(long count) {
    ZEPIPCResIDParam p;
    const std::string path = "zepbench-sem-" + g_tag;
    p.path = path.c_str();
    ZEPIPCSemaphoreCreateParam c;
    zepIPCGetResID(&p, &c.resID);
    ZEPHIPCSemaphore s;
    s.create(&c);
    const ZEPIPCSemaphoreWaitParam forever(ZEP_IPC_WAIT_FOREVER);
    const double t0 = now();
    for (long i = 0; i < count; ++i) {
        s.post();
        s.wait(&forever);
    }
    const double t = now() - t0;
    s.destroy();
    return t / count;
}

double posixSemaphore(long count) {
    sem_t* s = static_cast<sem_t*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    sem_init(s, 1, 0);
    const double t0 = now();
    for (long i = 0; i < count; ++i) {
        sem_post(s);
        sem_wait(s);
    }
    const double t = now() - t0;
    sem_destroy(s);
    munmap(s, 4096);
    return t / count;
}

template <class F>
double runs(F f) {
    std::vector<double> v;
    for (int i = 0; i < 5; ++i) v.push_back(f());
    return median(v);
}

}  // namespace

int main(int argc, char** argv) {
    g_scale = argc > 1 ? std::max(1, atoi(argv[1])) : 1;
    const long n16 = 300000L * g_scale;

    printf("16-byte messages, one way between two processes (messages/s)\n");
    for (Uint32 depth : {10u, 256u}) {
        const double zep = runs([&] { return zepStream(depth, 16, n16); });
        const double mq = runs([&] { return mqStream(depth, 16, n16); });
        const double pip = runs([&] { return pipeStream(16, n16); });
        printf("  depth %3u: zep %10.0f  posix-mq %10.0f  pipe %10.0f", depth, zep, mq, pip);
#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
        const double bip = runs([&] { return boostStream(depth, 16, n16); });
        printf("  boost-mq %10.0f", bip);
#endif
        printf("\n    zep/posix-mq %.2f  zep/pipe %.2f", zep / mq, zep / pip);
#ifdef ZEP_BENCH_HAVE_BOOST_INTERPROCESS
        printf("  zep/boost-mq %.2f", zep / bip);
#endif
        printf("\n");
    }

    printf("large messages, one way between two processes (MB/s)\n");
    {
        const long n = 4000L * g_scale;
        const double zep = runs([&] { return zepStream(0, 65536, n, 4 * 65536); }) * 65536 / 1e6;
        const double pip = runs([&] { return pipeStream(65536, n); }) * 65536 / 1e6;
        printf("  64 KiB (ring 256 KiB): zep %8.0f  pipe %8.0f  zep/pipe %.2f\n", zep, pip,
               zep / pip);
        const long m = 300L * g_scale;
        const double zep1 = runs([&] { return zepStream(0, 1 << 20, m, 65536); }) * 1.048576;
        const double pip1 = runs([&] { return pipeStream(1 << 20, m); }) * 1.048576;
        printf("  1 MiB (ring 64 KiB):   zep %8.0f  pipe %8.0f  zep/pipe %.2f\n", zep1, pip1,
               zep1 / pip1);
    }

    printf("round trip of 16 bytes and the answer, both sides asleep while waiting\n");
    {
        const long n = 20000L * g_scale;
        ZepQueue req("req", 64), rep("rep", 64);
        char b[16] = {};
        Uint32 got;
        report("zep queue pair", roundTrips(
                                     n,
                                     [&] {
                                         req.q.put(b, 16);
                                         rep.q.get(b, 16, &got, -1);
                                     },
                                     [&] {
                                         req.q.get(b, 16, &got, -1);
                                         rep.q.put(b, 16);
                                     }));
        const std::string n1 = "/zepbench-rt1-" + g_tag, n2 = "/zepbench-rt2-" + g_tag;
        mq_attr a = {};
        a.mq_maxmsg = 4;
        a.mq_msgsize = 16;
        mqd_t q1 = mq_open(n1.c_str(), O_CREAT | O_RDWR, 0600, &a);
        mqd_t q2 = mq_open(n2.c_str(), O_CREAT | O_RDWR, 0600, &a);
        report("posix-mq pair", roundTrips(
                                    n,
                                    [&] {
                                        mq_send(q1, b, 16, 0);
                                        mq_receive(q2, b, 16, nullptr);
                                    },
                                    [&] {
                                        mq_receive(q1, b, 16, nullptr);
                                        mq_send(q2, b, 16, 0);
                                    }));
        mq_close(q1), mq_close(q2), mq_unlink(n1.c_str()), mq_unlink(n2.c_str());
        sem_t* s = static_cast<sem_t*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        sem_init(&s[0], 1, 0);
        sem_init(&s[1], 1, 0);
        report("sem_t pair (no data)", roundTrips(
                                           n,
                                           [&] {
                                               sem_post(&s[0]);
                                               sem_wait(&s[1]);
                                           },
                                           [&] {
                                               sem_wait(&s[0]);
                                               sem_post(&s[1]);
                                           }));
        munmap(s, 4096);
    }

    printf("semaphore post and wait, uncontended (ns per pair)\n");
    {
        const long n = 2000000L * g_scale;
        const double zep = runs([&] { return zepSemaphore(n); }) * 1e9;
        const double psx = runs([&] { return posixSemaphore(n); }) * 1e9;
        printf("  zep %.1f  sem_t %.1f  zep/sem_t %.2f\n", zep, psx, zep / psx);
    }
    return 0;
}
