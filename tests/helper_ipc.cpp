// helper_ipc - the other processes of the IPC tests: one command a line on standard input, its
// answers a line each on standard output. ZEP names derive from NAME or PATH with seed 1.
//   mc NAME SIZE ADDR, ma NAME ADDR   ZEPHIPCMemory create, attach: "RC ADDRESS"; md, mdd
//                                     destroy, detach: "RC"
//   w OFFSET VALUE, r OFFSET          a byte of the block attached last: "ok", "v VALUE"
//   count PATH FILE N                 N times semaphore wait, +1 to the word in FILE, post
//   wpread FILE NAME N                a wait and N polls (or more) of the wait/post at 0 of FILE
//                                     (1024 bytes of data at 64, a 1 at 8 when done): "ready",
//                                     "torn T changes C RC"
//   send PATH SENDER N MAX, recv PATH queue messages: "sent N SUM", "got N SUM BAD"
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "zep.h"

namespace {

ZEPHIPCMemory s_memory;
unsigned char* s_at = nullptr;

ZEPIPCResID rid(const char* path) {
    ZEPIPCResIDParam p;
    p.path = path, p.seed = 1;
    ZEPIPCResID id;
    zepIPCGetResID(&p, &id);
    return id;
}

void* mapFile(const char* file, size_t bytes) {
    const int fd = open(file, O_RDWR);
    void* p = fd < 0 ? MAP_FAILED : mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) exit(3);
    close(fd);
    return p;
}

void count(const char* path, const char* file, Uint32 n) {
    const ZEPIPCResID id = rid(path);
    ZEPHIPCSemaphore s;
    if (s.attach(&id) != 0) exit(3);
    volatile Uint64* counter = static_cast<volatile Uint64*>(mapFile(file, 4096));
    const ZEPIPCSemaphoreWaitParam forever(ZEP_IPC_WAIT_FOREVER);
    for (Uint32 i = 0; i < n; ++i) {
        if (s.wait(&forever) != 0) exit(4);
        *counter = *counter + 1;  // the semaphore (initial count 1) is the only guard
        if (s.post() != 0) exit(5);
    }
    printf("counted %X\n", s.detach());
}

// The writer posts blocks filled with one byte value each; a torn copy shows two.
void wpread(const char* file, const char* name, Uint32 n) {
    Uint8* base = static_cast<Uint8*>(mapFile(file, 64 + 1024));
    ZEPIPCResID id;
    snprintf(id.name, sizeof id.name, "%s", name);
    ZEPIPCWaitpostOpenParam o;
    o.area = reinterpret_cast<ZEPIPCWaitpostArea*>(base);
    o.postData = base + 64, o.postDataSize = 1024, o.resID = &id;
    ZEPHIPCWaitpost w;
    if (w.open(&o) != 0) exit(3);
    printf("ready\n");
    Uint8 data[1024] = {}, prev = 0;  // the posts are never 0
    Uint32 torn = 0, changes = 0;
    const ZEPIPCWaitpostWaitParam first(ZEP_IPC_WAIT_FOREVER), poll(0);
    // Asleep until the first post; then on until 20 posts went by, however loaded the machine.
    Uint32 rc = w.wait(&first, data);
    for (Uint32 i = 0; i < n || changes < 20; ++i, rc = w.wait(&poll, data)) {
        if (rc != 0 && rc != ECF_WAITPOST_NOT_POSTED) exit(4);
        torn += memcmp(data, data + 1, sizeof data - 1) != 0;  // not one byte value
        changes += data[0] != prev;
        prev = data[0];
    }
    __atomic_store_n(base + 8, 1, __ATOMIC_RELEASE);  // the writer may stop
    printf("torn %u changes %u %X\n", torn, changes, w.close());
}

// Message `seq` of `sender` has a size drawn from the pair; from 8 bytes on it starts with the
// pair. Every byte depends on its place, so that a chunk out of place shows; both sides add up
// what passed (the pair for long messages, the size for short ones).
Uint64 mix(Uint64 x) {
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    return x ^ (x >> 27);
}
Uint8 byteOf(Uint32 sender, Uint32 seq, Uint32 size, Uint32 i) {
    return static_cast<Uint8>(size < 8 ? 0xA0 + size * 7 + i : sender * 131 + seq * 7 + i * 13);
}
Uint64 tally(Uint32 sender, Uint32 seq, Uint32 size) {
    return size < 8 ? size + 1 : mix((Uint64(sender) << 32) | seq) & 0xFFFFFFFFull;
}

ZEPHIPCQueue s_queue;

void attachQueue(const char* path) {
    ZEPIPCResIDParam p;
    p.path = path, p.seed = 1;
    ZEPIPCQueResID id;
    if (zepIPCGetQueResID(&p, &id) != 0 || s_queue.attach(&id) != 0) exit(3);
}

void send(const char* path, Uint32 sender, Uint32 n, Uint32 maxSize) {
    attachQueue(path);
    std::vector<Uint8> m(maxSize + 8);
    Uint64 sum = 0;
    for (Uint32 seq = 0; seq < n; ++seq) {
        const Uint32 size = static_cast<Uint32>(mix((Uint64(sender) << 32) | seq) % (maxSize + 1));
        for (Uint32 i = 0; i < size; ++i) m[i] = byteOf(sender, seq, size, i);
        if (size >= 8) memcpy(m.data(), &sender, 4), memcpy(m.data() + 4, &seq, 4);
        sum += tally(sender, seq, size);
        if (s_queue.put(m.data(), size) != 0) exit(4);
    }
    if (s_queue.detach() != 0) exit(5);
    printf("sent %u %llu\n", n, static_cast<unsigned long long>(sum));
}

// Until a message "STOP"; a message is bad if a byte is wrong or its sender's order is not kept.
void recv(const char* path) {
    attachQueue(path);
    std::vector<Uint8> m(1 << 20);
    std::map<Uint32, Sint64> last;
    unsigned long long got = 0, sum = 0, bad = 0;
    for (Uint32 n = 0;; ++got) {
        if (s_queue.get(m.data(), static_cast<Uint32>(m.size()), &n, 60000) != 0) exit(4);
        if (n == 4 && memcmp(m.data(), "STOP", 4) == 0) break;
        Uint32 pair[2] = {0, 0};
        if (n >= 8) memcpy(pair, m.data(), 8);
        bool ok = n < 8 || !last.count(pair[0]) || static_cast<Sint64>(pair[1]) > last[pair[0]];
        for (Uint32 i = n < 8 ? 0 : 8; i < n; ++i)
            ok = ok && m[i] == byteOf(pair[0], pair[1], n, i);
        if (n >= 8) last[pair[0]] = pair[1];
        bad += !ok;
        sum += tally(pair[0], pair[1], n);
    }
    if (s_queue.detach() != 0) exit(5);
    printf("got %llu %llu %llu\n", got, sum, bad);
}

bool command(const char* line) {
    char name[600] = {}, file[600] = {};
    unsigned long a = 0, b = 0, c = 0;
    void* at = nullptr;
    if (sscanf(line, "mc %599s %lu %p", name, &a, &at) == 3 ||
        sscanf(line, "ma %599s %p", name, &at) == 2) {
        ZEPIPCMemoryCreateParam p;
        p.resID = rid(name), p.memorySize = static_cast<Uint32>(a), p.address = at;
        const Uint32 rc = line[1] == 'c' ? s_memory.create(&p) : s_memory.attach(&p.resID, at);
        s_memory.getAddress(reinterpret_cast<void**>(&s_at));
        printf("%X %p\n", rc, static_cast<void*>(s_at));
    } else if (strcmp(line, "md\n") == 0 || strcmp(line, "mdd\n") == 0) {
        printf("%X\n", line[2] == 'd' ? s_memory.detach() : s_memory.destroy());
    } else if (sscanf(line, "w %lu %lu", &a, &b) == 2) {
        s_at[a] = static_cast<unsigned char>(b);
        printf("ok\n");
    } else if (sscanf(line, "r %lu", &a) == 1) {
        printf("v %u\n", s_at[a]);
    } else if (sscanf(line, "count %599s %599s %lu", name, file, &a) == 3) {
        count(name, file, static_cast<Uint32>(a));
    } else if (sscanf(line, "wpread %599s %599s %lu", file, name, &a) == 3) {
        wpread(file, name, static_cast<Uint32>(a));
    } else if (sscanf(line, "send %599s %lu %lu %lu", name, &a, &b, &c) == 4) {
        send(name, static_cast<Uint32>(a), static_cast<Uint32>(b), static_cast<Uint32>(c));
    } else if (sscanf(line, "recv %599s", name) == 1) {
        recv(name);
    } else {
        return strcmp(line, "ping\n") == 0 && printf("pong\n");
    }
    return true;
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    char line[8192];
    while (fgets(line, sizeof line, stdin) != nullptr)
        if (!command(line)) printf("? %s", line);
    return 0;
}
