// helper_memdbg <command> ...: processes for the memory tests.
//   state              prints the debugger's settings as the start-up step left them: the
//                      block mode, the flags and pads if set up, the path, FFDC, the report
//   leaks              leaks two blocks and overruns a third (run with ZEPEMEMDBG=<dir>,LEAKS);
//                      prints "<pid> <tid> <line of the first leak> <line of the second>"
//   terminate          one live block, zepTerminate called once here and once at process end
//   mode0              mode 0 before the first block: its layout, the check, the toggle refused
//   area <file> <n> <seed>
//                      n random allocations and frees in the area at the start of <file>,
//                      every block filled with a pattern of its own and checked before its free
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "zep.h"

// The leaks command leaves blocks behind on purpose.
extern "C" const char* __lsan_default_options() {
    return "detect_leaks=0";
}

namespace {

Uint32 blockMode(void* p) {
    Uint32 word;
    memcpy(&word, static_cast<char*>(p) - 20, 4);
    return word;
}

int state() {
    void* p = nullptr;
    if (zepMemAlloc(&p, nullptr, 8, 0) != 0) return 3;
    const Uint32 mode = blockMode(p);
    zepMemFree(&p, nullptr, 0);
    printf("%08X", mode);
    if (const ZEPMemDebugCB* cb = g_pMemDebugCB)
        printf(" 0x%X %u,%u", cb->flags, cb->frontPads, cb->backPads);
    printf(" [%s] %d %d\n", g_szMemDebugLogPath, g_bIsMemoryFFDCEnabledFlag,
           zepMemIsMemFFDCAndZEPeMemDebugPathSet());
    return 0;
}

int leaks() {
    void* a = nullptr;
    void* b = nullptr;
    void* c = nullptr;
    const unsigned lineA = __LINE__ + 1;
    if (zepMemAlloc(&a, nullptr, 40, 0) != 0) return 3;
    const unsigned lineB = __LINE__ + 1;
    if (zepMemAlloc(&b, nullptr, 100, ZEP_MEM_ZERO) != 0) return 3;
    if (zepMemAlloc(&c, nullptr, 13, 0) != 0) return 3;
    static_cast<char*>(c)[13] = 'x';  // one byte past the caller's size: filler
    if (zepMemFree(&c, nullptr, 0) != 0) return 4;
    printf("%u %u %u %u\n", zepProcessID(), zepThreadID(), lineA, lineB);
    return 0;
}

int terminateTwice() {
    void* a = nullptr;
    if (zepMemAlloc(&a, nullptr, 24, 0) != 0) return 3;
    zepTerminate();
    printf("%u %u\n", zepProcessID(), zepThreadID());
    return 0;
}

int mode0() {
    if (zepMemSetDebug(0, 0, 0, 0) != 0) return 3;
    void* p = nullptr;
    if (_zepMemAlloc(&p, nullptr, 13, 0, "dir/ab", 77) != 0) return 4;
    Uint32 header[4];
    memcpy(header, static_cast<char*>(p) - 16, sizeof header);
    const Uint32 check = zepMemAllocCheck(&p, 0);
    const Uint32 toggle = zepMemSetDebug(1, ZEP_MEMDBG_FULL, 3, 4);
    void* q = nullptr;
    if (zepMemAlloc(&q, nullptr, 5, 0) != 0) return 5;
    Uint8 filled = *static_cast<Uint8*>(q);  // flag bit 0 is in force in mode 0 too
    printf("header=%08X,%u,%08X,%u check=%08X toggle=%08X fill=%02X\n", header[0], header[1],
           header[2], header[3], check, toggle, filled);
    zepMemFree(&q, nullptr, 0);
    // A wrong start would be given to the heap here; the sanitizer builds would see it.
    if (zepMemFree(&p, nullptr, 0) != 0 || p != nullptr) return 6;
    return 0;
}

int area(const char* file, int count, unsigned seed) {
    int fd = open(file, O_RDWR);
    if (fd < 0) return 3;
    struct stat st;
    if (fstat(fd, &st) != 0) return 3;
    char* base = static_cast<char*>(
        mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    if (base == MAP_FAILED) return 3;
    struct Block {
        Uint8* p;
        Uint32 size;
        Uint8 tag;
    };
    std::vector<Block> live;
    std::mt19937 rng(seed);
    const Uint8 self = static_cast<Uint8>(getpid());
    int failures = 0;
    auto release = [&](size_t i) {
        Block b = live[i];
        for (Uint32 k = 0; k < b.size; ++k)
            if (b.p[k] != static_cast<Uint8>(b.tag + k)) {
                ++failures;
                break;
            }
        void* p = b.p;
        if (zepMemFree(&p, base, b.size) != 0) ++failures;
        live[i] = live.back();
        live.pop_back();
    };
    for (int i = 0; i < count; ++i) {
        if (live.size() < 24 && (live.empty() || rng() % 3 != 0)) {
            Uint32 size = 1 + rng() % 200;
            void* p = nullptr;
            Uint32 rc = zepMemAlloc(&p, base, size, rng() % 2 ? ZEP_MEM_ZERO : 0u);
            if (rc == ECF_NO_MEMORY) continue;
            if (rc != 0) return 4;
            Block b{static_cast<Uint8*>(p), size, static_cast<Uint8>(self + i)};
            for (Uint32 k = 0; k < size; ++k) b.p[k] = static_cast<Uint8>(b.tag + k);
            live.push_back(b);
        } else {
            release(rng() % live.size());
        }
    }
    while (!live.empty()) release(live.size() - 1);
    munmap(base, static_cast<size_t>(st.st_size));
    return failures == 0 ? 0 : 5;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const char* command = argv[1];
    if (strcmp(command, "state") == 0) return state();
    if (strcmp(command, "leaks") == 0) return leaks();
    if (strcmp(command, "terminate") == 0) return terminateTwice();
    if (strcmp(command, "mode0") == 0) return mode0();
    if (strcmp(command, "area") == 0 && argc == 5)
        return area(argv[2], atoi(argv[3]), static_cast<unsigned>(atoi(argv[4])));
    return 2;
}
