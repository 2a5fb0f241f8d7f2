// helper_ipcsync - the other processes of the semaphore, queue and wait/post tests.
//
//   send  SEED PATH SENDER COUNT MAXSIZE   put COUNT messages; print "sent SMALL LARGE SUM"
//   recv  SEED PATH                        get until a stop message; print "got SMALL LARGE SUM
//   BAD" count SEED PATH FILE N                 N times: wait, add 1 to the word in FILE, post
//   wpwait FILE NAME TIMEOUT               open the wait/post whose area is at offset 0 of FILE
//                                          and its data block at offset 64; print "ready", wait,
//                                          print "RESULT DATA"
//   wpread FILE NAME N                     N polls of the data block, print the torn ones' count
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

void* mapFile(const char* file, size_t bytes) {
    const int fd = open(file, O_RDWR);
    if (fd < 0) exit(3);
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) exit(3);
    return p;
}

int count(const char* seed, const char* path, const char* file, Uint32 n) {
    ZEPIPCResIDParam p;
    p.path = path;
    p.seed = atoi(seed);
    ZEPIPCResID id;
    ZEPHIPCSemaphore s;
    if (zepIPCGetResID(&p, &id) != 0 || s.attach(&id) != 0) return 3;
    volatile Uint64* counter = static_cast<volatile Uint64*>(mapFile(file, 4096));
    const ZEPIPCSemaphoreWaitParam forever(ZEP_IPC_WAIT_FOREVER);
    for (Uint32 i = 0; i < n; ++i) {
        if (s.wait(&forever) != 0) return 4;
        *counter = *counter + 1;  // the semaphore (initial count 1) is the only guard
        if (s.post() != 0) return 5;
    }
    printf("counted\n");
    return s.detach() == 0 ? 0 : 6;
}

ZEPIPCResID eventName(const char* name) {
    ZEPIPCResID id;
    snprintf(id.name, sizeof id.name, "%s", name);
    return id;
}

int wpwait(const char* file, const char* name, Uint32 timeout) {
    Uint8* base = static_cast<Uint8*>(mapFile(file, 4096));
    const ZEPIPCResID id = eventName(name);
    ZEPIPCWaitpostOpenParam o;
    o.area = reinterpret_cast<ZEPIPCWaitpostArea*>(base);
    o.postData = base + 64;
    o.postDataSize = 16;
    o.resID = &id;
    ZEPHIPCWaitpost w;
    if (w.open(&o) != 0) return 3;
    printf("ready\n");
    fflush(stdout);
    char data[17] = {};
    const ZEPIPCWaitpostWaitParam wp(timeout);
    const Uint32 rc = w.wait(&wp, data);
    printf("%08X %s\n", rc, data);
    return w.close() == 0 ? 0 : 4;
}

// The writer posts blocks of 1024 bytes, each filled with one byte value; a torn copy shows two.
int wpread(const char* file, const char* name, Uint32 n) {
    Uint8* base = static_cast<Uint8*>(mapFile(file, 8192));
    const ZEPIPCResID id = eventName(name);
    ZEPIPCWaitpostOpenParam o;
    o.area = reinterpret_cast<ZEPIPCWaitpostArea*>(base);
    o.postData = base + 64;
    o.postDataSize = 1024;
    o.resID = &id;
    ZEPHIPCWaitpost w;
    if (w.open(&o) != 0) return 3;
    printf("ready\n");
    fflush(stdout);
    Uint8 data[1024];
    Uint32 torn = 0, seen = 0;
    Uint8 prev = 0;
    const ZEPIPCWaitpostWaitParam poll(0);
    for (Uint32 i = 0; i < n; ++i) {
        const Uint32 rc = w.wait(&poll, data);
        if (rc != 0 && rc != ECF_WAITPOST_NOT_POSTED) return 4;
        for (Uint32 k = 1; k < sizeof data; ++k)
            if (data[k] != data[0]) {
                ++torn;
                break;
            }
        seen += data[0] != prev;
        prev = data[0];
    }
    printf("torn %u changes %u\n", torn, seen);
    return w.close() == 0 ? 0 : 5;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char* mode = argc > 1 ? argv[1] : "";
    if (strcmp(mode, "count") == 0 && argc == 6)
        return count(argv[2], argv[3], argv[4], static_cast<Uint32>(atoi(argv[5])));
    if (strcmp(mode, "wpwait") == 0 && argc == 5)
        return wpwait(argv[2], argv[3], static_cast<Uint32>(strtoul(argv[4], nullptr, 0)));
    if (strcmp(mode, "wpread") == 0 && argc == 5)
        return wpread(argv[2], argv[3], static_cast<Uint32>(atoi(argv[4])));
    return 2;
}
