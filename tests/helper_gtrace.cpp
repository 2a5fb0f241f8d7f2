// A process of the product on a trace area, for the trace tests and the tests of zeptrace.
//
//   helper_gtrace AREA PID records COUNT   COUNT data records carrying 0..COUNT-1 in order
//
// AREA is a file to map if it begins with '/', else the name of zeptrace's shared memory; PID 0
// stands for the process's own identifier.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zep.h"

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const bool file = argv[1][0] == '/';
    void* area = nullptr;
    ZEPHIPCMemoryEx memory;
    if (file) {
        const int fd = open(argv[1], O_RDWR);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0) return 3;
        area = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED,
                    fd, 0);
        close(fd);
        if (area == MAP_FAILED) return 3;
    } else {
        ZEPIPCMemoryExAttachParam attach;
        attach.name = argv[1];
        attach.flags = ZEP_IPC_MEMEX_READ_WRITE;
        ZEPIPCMemoryExInfo info;
        if (memory.attach(&attach, &info) != 0) return 3;
        area = info.address;
    }
    const Uint32 pid = static_cast<Uint32>(strtoul(argv[2], nullptr, 10));
    if (gtraceAttach(static_cast<GTCB*>(area), pid ? pid : zepProcessID(), nullptr, nullptr) != 0)
        return 4;
    const Uint32 count = static_cast<Uint32>(strtoul(argv[4], nullptr, 10));
    for (Uint32 i = 0; i < count && strcmp(argv[3], "records") == 0; ++i)
        if (g_pGTCB && g_pGTCB->enabled)
            _gtraceVar(zepThreadID(), ZEPFN_zepFileRename, 10, GTRACE_TYPE_DATA, 1,
                       GTRACE_ITEM_VALUE1, 4u, uintptr_t{i});
    gtraceDetach();
    if (!file) memory.detach();
    return 0;
}
