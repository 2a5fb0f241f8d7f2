// helper_memdbg <command> ...: processes for the memory tests.
//   state    the debugger's settings as the start-up step left them: the block mode, the flags
//            and pads if set up, the path, FFDC, the report at the end
//   pid      the process id in hexadecimal
//   leaks    leaks two blocks (run with ZEPEMEMDBG=<dir>,LEAKS); prints
//            "p<pid>t<tid> <line of the first leak> <line of the second>"
//   mode0    mode 0 before the first block: its header, the check, the toggle refused
#include <stdio.h>
#include <string.h>

#include "zep.h"

// The leaks command leaves blocks behind on purpose.
extern "C" const char* __lsan_default_options() {
    return "detect_leaks=0";
}

namespace {

int state() {
    void* p = nullptr;
    if (zepMemAlloc(&p, nullptr, 8, 0) != 0) return 3;
    Uint32 mode;
    memcpy(&mode, static_cast<char*>(p) - 20, 4);
    zepMemFree(&p, nullptr, 0);
    printf("%08X", mode);
    if (const ZEPMemDebugCB* cb = g_pMemDebugCB)
        printf(" 0x%X %u,%u", cb->flags, cb->frontPads, cb->backPads);
    printf(" [%s] %d %d\n", g_szMemDebugLogPath, g_bIsMemoryFFDCEnabledFlag,
           zepMemIsMemFFDCAndZEPeMemDebugPathSet());
    return 0;
}

int leaks() {
    void *a = nullptr, *b = nullptr;
    const unsigned lineA = __LINE__ + 1;
    if (zepMemAlloc(&a, nullptr, 40, 0) != 0) return 3;
    const unsigned lineB = __LINE__ + 1;
    if (zepMemAlloc(&b, nullptr, 100, ZEP_MEM_ZERO) != 0) return 3;
    printf("p%ut%u %u %u\n", zepProcessID(), zepThreadID(), lineA, lineB);
    return 0;
}

int mode0() {
    if (zepMemSetDebug(0, 0, 0, 0) != 0) return 3;
    void *p = nullptr, *q = nullptr;
    if (_zepMemAlloc(&p, nullptr, 13, 0, "dir/ab", 77) != 0) return 4;
    Uint32 header[4];
    memcpy(header, static_cast<char*>(p) - 16, sizeof header);
    const Uint32 check = zepMemAllocCheck(&p, 0);
    const Uint32 toggle = zepMemSetDebug(1, ZEP_MEMDBG_FULL, 3, 4);
    if (zepMemAlloc(&q, nullptr, 5, 0) != 0) return 5;
    printf("header=%08X,%u,%08X,%u check=%08X toggle=%08X fill=%02X\n", header[0], header[1],
           header[2], header[3], check, toggle, *static_cast<Uint8*>(q));
    zepMemFree(&q, nullptr, 0);
    // A wrong start would be given to the heap here; the sanitizer builds would see it.
    return zepMemFree(&p, nullptr, 0) != 0 || p != nullptr ? 6 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* command = argc >= 2 ? argv[1] : "";
    if (strcmp(command, "state") == 0) return state();
    if (strcmp(command, "pid") == 0) return printf("%X\n", zepProcessID()) > 0 ? 0 : 3;
    if (strcmp(command, "leaks") == 0) return leaks();
    if (strcmp(command, "mode0") == 0) return mode0();
    return 2;
}
