// A process of the product joining a trace area that zeptrace built, for the tests of zeptrace.
//
//   helper_zeptrace NAME records COUNT   COUNT data records carrying 0..COUNT-1 in order
//   helper_zeptrace NAME calls COUNT     COUNT failing renames (entry, data, error, exit each)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zep.h"

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    ZEPHIPCMemoryEx memory;
    ZEPIPCMemoryExAttachParam attach;
    attach.name = argv[1];
    attach.flags = ZEP_IPC_MEMEX_READ_WRITE;
    ZEPIPCMemoryExInfo info;
    if (memory.attach(&attach, &info) != 0) return 3;
    if (gtraceAttach(static_cast<GTCB*>(info.address), zepProcessID(), nullptr, nullptr) != 0)
        return 4;
    const unsigned long count = strtoul(argv[3], nullptr, 10);
    if (strcmp(argv[2], "records") == 0) {
        for (Uint32 i = 0; i < count; ++i)
            if (g_pGTCB && g_pGTCB->enabled)
                _gtraceVar(zepThreadID(), ZEPFN_zepFileRename, 10, GTRACE_TYPE_DATA, 1,
                           GTRACE_ITEM_VALUE1, 4u, uintptr_t{i});
    } else {
        const std::string missing = "/nonexistent/zeptrace/" + std::to_string(getpid());
        for (unsigned long i = 0; i < count; ++i) zepFileRename(missing.c_str(), "/nonexistent/b");
    }
    gtraceDetach();
    memory.detach();
    return 0;
}
