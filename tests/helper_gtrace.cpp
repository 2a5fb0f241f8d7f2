// A second process on a trace area in a shared file mapping, for the trace tests.
//
//   helper_gtrace twoprocesses <area file> <directory>
//       attaches as process 777 and renames: one failure, one success, and one failure under
//       an identifier the filters don't know.
//   helper_gtrace concurrent <area file>
//       attaches as process 2 and writes 1500 data records numbered from 0 (times ZEP_STRESS).
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "zep.h"
#include "zeptest_stress.h"

namespace {

GTCB* mapArea(const char* path) {
    int fd = open(path, O_RDWR);
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0) return nullptr;
    void* p =
        mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return p == MAP_FAILED ? nullptr : static_cast<GTCB*>(p);
}

int fail(const char* what) {
    fprintf(stderr, "helper_gtrace: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return fail("usage");
    GTCB* cb = mapArea(argv[2]);
    if (cb == nullptr) return fail("map");
    const std::string mode = argv[1];

    if (mode == "twoprocesses" && argc == 4) {
        if (gtraceAttach(cb, 777, nullptr, nullptr) != 0) return fail("attach");
        const std::string dir = argv[3];
        const std::string missing = dir + "/missing", target = dir + "/target";
        if (zepFileRename(missing.c_str(), target.c_str()) != ECF_FILE_DOESNT_EXIST)
            return fail("rename of a missing file");
        FILE* f = fopen((dir + "/h_src").c_str(), "w");
        if (f == nullptr) return fail("create");
        fclose(f);
        if (zepFileRename((dir + "/h_src").c_str(), (dir + "/h_dst").c_str()) != 0)
            return fail("rename");
        gtraceSetProcessID(999);  // no filter lets this identifier through
        if (zepFileRename(missing.c_str(), target.c_str()) != ECF_FILE_DOESNT_EXIST)
            return fail("filtered rename");
        return 0;
    }
    if (mode == "concurrent") {
        if (gtraceAttach(cb, 2, nullptr, nullptr) != 0) return fail("attach");
        for (Uint32 i = 0; i < 1500 * zeptestStress(); ++i) _gtraceVar(2, ZEPFN_zepFileRename, 10, 3, 1, 0u, 4u, &i);
        return 0;
    }
    return fail("usage");
}
