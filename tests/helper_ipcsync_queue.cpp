// helper_ipcsync_queue - the other processes of the queue tests.
//
//   send  SEED PATH SENDER COUNT MAXSIZE   put COUNT messages; print "sent SMALL LARGE SUM"
//   recv  SEED PATH                        get until a stop message; print "got SMALL LARGE SUM
//   BAD" hold  SEED PATH                        attach the queue, a semaphore (seed + 10) and
//   create
//                                          an event (seed + 11), print "ready", sleep until killed
//
// A message of 12 bytes or more carries (sender, sequence, checksum of the rest) and a body drawn
// from the pair; a shorter one carries a pattern of its size. Sizes are drawn per (sender,
// sequence). A receiver checks every byte, and that each sender's sequence numbers rise; the test
// adds up what the senders sent and what the receivers got.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "zep.h"

namespace {

Uint64 mix(Uint64 x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

Uint32 sizeOf(Uint32 sender, Uint32 seq, Uint32 maxSize) {
    return static_cast<Uint32>(mix((Uint64(sender) << 32) | seq) % (maxSize + 1));
}

Uint8 bodyByte(Uint32 sender, Uint32 seq, Uint32 i) {
    return static_cast<Uint8>(mix((Uint64(sender) << 40) ^ (Uint64(seq) << 20) ^ (i >> 3)) >>
                              (8 * (i & 7)));
}

Uint32 checksum(const Uint8* p, Uint32 n) {
    Uint32 h = 2166136261u;
    for (Uint32 i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

Uint8 smallByte(Uint32 size, Uint32 i) {
    return static_cast<Uint8>(0xA0 + size * 7 + i);
}

// The stop message: 4 bytes that no short message of 4 bytes carries.
const Uint8 kStop[4] = {'S', 'T', 'O', 'P'};

// What a message adds to the totals; the same on both sides.
Uint64 tally(Uint32 sender, Uint32 seq, Uint32 size) {
    return size < 12 ? size + 1 : mix((Uint64(sender) << 32) | seq) & 0xFFFFFFFFull;
}

ZEPIPCQueResID queueName(const char* seed, const char* path) {
    ZEPIPCResIDParam p;
    p.path = path;
    p.seed = atoi(seed);
    ZEPIPCQueResID id;
    if (zepIPCGetQueResID(&p, &id) != 0) exit(3);
    return id;
}

int send(ZEPHIPCQueue& q, Uint32 sender, Uint32 count, Uint32 maxSize) {
    std::vector<Uint8> m(maxSize + 12);
    Uint64 small = 0, large = 0, sum = 0;
    for (Uint32 seq = 0; seq < count; ++seq) {
        const Uint32 size = sizeOf(sender, seq, maxSize);
        if (size < 12) {
            for (Uint32 i = 0; i < size; ++i) m[i] = smallByte(size, i);
            ++small;
        } else {
            for (Uint32 i = 12; i < size; ++i) m[i] = bodyByte(sender, seq, i);
            const Uint32 head[3] = {sender, seq, checksum(m.data() + 12, size - 12)};
            memcpy(m.data(), head, 12);
            ++large;
        }
        sum += tally(sender, seq, size);
        const Uint32 rc = q.put(m.data(), size);
        if (rc != 0) {
            printf("put %08X\n", rc);
            return 4;
        }
    }
    printf("sent %llu %llu %llu\n", (unsigned long long)small, (unsigned long long)large,
           (unsigned long long)sum);
    return 0;
}

int recv(ZEPHIPCQueue& q) {
    std::vector<Uint8> m(1 << 20);
    std::map<Uint32, Sint64> last;
    Uint64 small = 0, large = 0, sum = 0, bad = 0;
    for (;;) {
        Uint32 n = 0;
        const Uint32 rc = q.get(m.data(), static_cast<Uint32>(m.size()), &n, 60000);
        if (rc != 0) {
            printf("get %08X\n", rc);
            return 4;
        }
        if (n == 4 && memcmp(m.data(), kStop, 4) == 0) break;
        if (n < 12) {
            for (Uint32 i = 0; i < n; ++i) bad += m[i] != smallByte(n, i);
            ++small;
            sum += n + 1;
            continue;
        }
        Uint32 head[3];
        memcpy(head, m.data(), 12);
        bool ok = head[2] == checksum(m.data() + 12, n - 12);
        for (Uint32 i = 12; ok && i < n; ++i) ok = m[i] == bodyByte(head[0], head[1], i);
        auto it = last.find(head[0]);
        if (it != last.end() && static_cast<Sint64>(head[1]) <= it->second) ok = false;
        last[head[0]] = head[1];
        bad += !ok;
        ++large;
        sum += tally(head[0], head[1], n);
    }
    printf("got %llu %llu %llu %llu\n", (unsigned long long)small, (unsigned long long)large,
           (unsigned long long)sum, (unsigned long long)bad);
    return 0;
}

int hold(const char* seed, const char* path) {
    ZEPIPCQueResID id = queueName(seed, path);
    ZEPHIPCQueue q;
    if (q.attach(&id) != 0) return 3;
    ZEPIPCResIDParam p;
    p.path = path;
    p.seed = atoi(seed) + 10;
    ZEPIPCResID semId;
    ZEPHIPCSemaphore s;
    if (zepIPCGetResID(&p, &semId) != 0 || s.attach(&semId) != 0) return 4;
    p.seed = atoi(seed) + 11;
    ZEPIPCResID eventId;
    if (zepIPCGetResID(&p, &eventId) != 0) return 5;
    ZEPIPCWaitpostArea area{};
    ZEPIPCWaitpostCreateParam c;
    c.area = &area;
    c.resID = &eventId;
    ZEPHIPCWaitpost w;
    if (w.create(&c) != 0) return 6;
    printf("ready\n");
    fflush(stdout);
    for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char* mode = argc > 1 ? argv[1] : "";
    if (strcmp(mode, "send") == 0 && argc == 7) {
        ZEPIPCQueResID id = queueName(argv[2], argv[3]);
        ZEPHIPCQueue q;
        if (q.attach(&id) != 0) return 3;
        const int rc = send(q, static_cast<Uint32>(atoi(argv[4])),
                            static_cast<Uint32>(atoi(argv[5])), static_cast<Uint32>(atoi(argv[6])));
        return q.detach() == 0 ? rc : 7;
    }
    if (strcmp(mode, "recv") == 0 && argc == 4) {
        ZEPIPCQueResID id = queueName(argv[2], argv[3]);
        ZEPHIPCQueue q;
        if (q.attach(&id) != 0) return 3;
        const int rc = recv(q);
        return q.detach() == 0 ? rc : 7;
    }
    if (strcmp(mode, "hold") == 0 && argc == 4) return hold(argv[2], argv[3]);
    return 2;
}
