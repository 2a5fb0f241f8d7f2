// helper_rambo - the processes of the ring's stress test, around one chunked ring in a shared
// mapping (zeptest_rambo.h: the counters at its head, the ring at kRingOffset, the records).
//   helper_rambo write FD ID RECORDS  writes RECORDS records as writer ID
//   helper_rambo copy FD PATH         until told to stop: copies the ring into the instantaneous
//                                     dump PATH and walks it forward and backward
//   helper_rambo consume FD PATH      until told to stop: drains the ring into the auto dump PATH
// FD is inherited; all start when `go` is set. Each process has one thread: the writers are
// ordered by the consumer in another process, which the thread sanitizer can't follow.
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "zeptest_rambo.h"
#include "zeptest_stress.h"

using namespace zeptest;

namespace {

StressShared* s_shared = nullptr;

// The dumping program's way: header, then the slots as they are this instant, then the tail.
int copy(RamboCB* cb, const char* path) {
    std::vector<Uint8> image(sizeof(RamboDumpHeader) + cb->bufferSize + sizeof(RamboDumpTail));
    auto* header = reinterpret_cast<RamboDumpHeader*>(image.data());
    auto* tail = reinterpret_cast<RamboDumpTail*>(image.data() + sizeof *header + cb->bufferSize);
    do {  // at least one dump, however quickly the writers are done
        void* slots = nullptr;
        Uint32 size = 0;
        if (ramboGetDumpHeaderBuffer(cb, 1, header, &slots, &size) != 0) return 3;
        memcpy(header + 1, slots, size);
        if (ramboGetDumpTail(cb, tail) != 0) return 3;
        FILE* f = fopen(path, "wb");
        if (f == nullptr || fwrite(image.data(), 1, image.size(), f) != image.size()) return 4;
        fclose(f);
        // Whole records only, each writer's in claim order, the same both ways.
        const Walked forward = walkDump(path, true), backward = walkDump(path, false);
        s_shared->faults += forward.bad + backward.bad + (forward.rc != 0) + (backward.rc != 0) +
                            (forward.tags.size() != backward.tags.size());
        for (Uint32 w = 0; w < kWriters; ++w) {
            const std::vector<Uint32>&f = forward.counters[w], &b = backward.counters[w];
            s_shared->faults += !std::is_sorted(f.begin(), f.end()) ||
                                !std::is_sorted(b.rbegin(), b.rend()) || f.size() != b.size();
        }
        s_shared->recordsChecked += forward.tags.size() + backward.tags.size();
    } while (!__atomic_load_n(&s_shared->stop, __ATOMIC_ACQUIRE));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    alarm(300 * zeptestStress());  // a writer left waiting for a dead consumer must not linger
    const int fd = atoi(argv[2]);
    const off_t size = lseek(fd, 0, SEEK_END);
    void* p = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) return 3;
    s_shared = static_cast<StressShared*>(p);
    RamboCB* ring = reinterpret_cast<RamboCB*>(static_cast<Uint8*>(p) + kRingOffset);
    while (__atomic_load_n(&s_shared->go, __ATOMIC_ACQUIRE) == 0) usleep(100);
    if (strcmp(argv[1], "write") == 0 && argc == 5) {
        writeRecords(ring, static_cast<Uint32>(atoi(argv[3])), static_cast<Uint32>(atoi(argv[4])));
        return 0;
    }
    if (strcmp(argv[1], "copy") == 0) return copy(ring, argv[3]);
    if (strcmp(argv[1], "consume") != 0) return 2;
    const Uint32 rc = consume(ring, argv[3], &s_shared->stop, &s_shared->consumerChunks);
    __atomic_store_n(&s_shared->consumerRc, rc, __ATOMIC_RELEASE);
    return rc == 0 ? 0 : 5;
}
