// helper_ipc - the other processes of the IPC tests: one command a line on standard input, its
// answers a line each on standard output. ZEP names derive from NAME or PATH with seed 1.
//   mc NAME SIZE ADDR, ma NAME ADDR   ZEPHIPCMemory create, attach: "RC ADDRESS"; md, mdd
//                                     destroy, detach: "RC"
//   w OFFSET VALUE, r OFFSET          a byte of the block attached last: "ok", "v VALUE"
//   wpread NAME N                     a wait and N polls (or more) of the wait/post of the event
//                                     of NAME at 0 of the block attached last (1024 bytes of data
//                                     at 64, a 1 at 8 when done): "ready", "torn T"
//   send PATH SENDER N MAX, recv PATH queue messages: "sent N SUM", "got N SUM BAD"
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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

// The writer posts blocks filled with one byte value each; a torn copy shows two.
void wpread(const char* name, Uint32 n) {
    const ZEPIPCResID id = rid(name);
    ZEPIPCWaitpostOpenParam o;
    o.area = reinterpret_cast<ZEPIPCWaitpostArea*>(s_at);
    o.postData = s_at + 64, o.postDataSize = 1024, o.resID = &id;
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
    __atomic_store_n(s_at + 8, 1, __ATOMIC_RELEASE);  // the writer may stop
    if (w.close() != 0) exit(5);
    printf("torn %u\n", torn);
}

// Message `seq` of `sender`: the pair, then bytes drawn from the pair and their place, so that a
// chunk out of place shows; 8 bytes up to MAX in all. Both sides add up the pairs.
Uint8 byteOf(Uint32 sender, Uint32 seq, Uint32 i) {
    return static_cast<Uint8>(sender * 131 + seq * 7 + i * 13);
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
    std::vector<Uint8> m(maxSize);
    unsigned long long sum = 0;
    for (Uint32 seq = 0; seq < n; ++seq) {
        const Uint32 size = 8 + (seq * 2654435761u ^ sender) % (maxSize - 7);
        memcpy(m.data(), &sender, 4), memcpy(m.data() + 4, &seq, 4);
        for (Uint32 i = 8; i < size; ++i) m[i] = byteOf(sender, seq, i);
        sum += (Uint64(sender) << 32) | seq;
        if (s_queue.put(m.data(), size) != 0) exit(4);
    }
    if (s_queue.detach() != 0) exit(5);
    printf("sent %u %llu\n", n, sum);
}

// Until a message of 4 bytes; a message is bad if a byte is wrong or its sender's order not kept.
void recv(const char* path) {
    attachQueue(path);
    std::vector<Uint8> m(1 << 20);
    std::map<Uint32, Uint32> last;
    unsigned long long got = 0, sum = 0, bad = 0;
    for (Uint32 n = 0;; ++got) {
        if (s_queue.get(m.data(), static_cast<Uint32>(m.size()), &n, 60000) != 0) exit(4);
        if (n == 4) break;
        Uint32 pair[2];
        memcpy(pair, m.data(), 8);
        bool ok = n >= 8 && (last.count(pair[0]) == 0 || pair[1] > last[pair[0]]);
        for (Uint32 i = 8; ok && i < n; ++i) ok = m[i] == byteOf(pair[0], pair[1], i);
        last[pair[0]] = pair[1];
        bad += !ok;
        sum += (Uint64(pair[0]) << 32) | pair[1];
    }
    if (s_queue.detach() != 0) exit(5);
    printf("got %llu %llu %llu\n", got, sum, bad);
}

bool command(const char* line) {
    char name[600] = {};
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
    } else if (sscanf(line, "wpread %599s %lu", name, &a) == 2) {
        wpread(name, static_cast<Uint32>(a));
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
