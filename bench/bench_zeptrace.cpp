// zeptrace on a large dump: `export --format chrome` in dump bytes read per second and its peak
// memory, and `show --view records` in records per second beside the formatter alone (the same
// records formatted in this process by formatDumpFile, nothing written). Rates are given by
// processor time too: on a loaded machine the wall clock says more about the neighbours.
//
//     bench_zeptrace [MiB] [runs]     (default: a 256 MiB ring, 5 runs of each command)
//
// The dump is made here: two threads run failing zepFileRename calls with the trace on (entry,
// data, error and exit records with their real items) until the ring has wrapped. The tool runs
// as a child process with its output to /dev/null (show) or a temporary file (export); wall and
// processor time and the peak resident size come from wait4. Medians of the runs are printed.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "trace_format.h"
#include "zep.h"

namespace {

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

double cpuNow() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// A wrapped ring of `bytes`, written by two threads of failing renames, dumped to `path`.
Uint64 makeDump(Uint32 bytes, const std::string& path) {
    GTCBOptions o;
    o.bufferSize = bytes;
    o.modeBits = GTRACE_MODE_WRAP;
    o.flags = GTRACE_FLAG_TIMESTAMP;
    const size_t size = (gtraceGetAllocSize(bytes) + 4095) & ~size_t{4095};
    Uint8* mem = static_cast<Uint8*>(aligned_alloc(4096, size));
    memset(mem, 0, size);
    GTCB* cb = reinterpret_cast<GTCB*>(mem);
    if (gtraceInitialize(cb, &o) != 0 || gtraceAttach(cb, zepProcessID(), nullptr, nullptr) != 0) {
        fprintf(stderr, "cannot build a trace of %u bytes\n", bytes);
        exit(1);
    }
    gtraceEnable();
    const Uint64 slots = bytes / RAMBO_SLOT_SIZE;
    const RamboCB* ring = reinterpret_cast<const RamboCB*>(cb + 1);
    auto writer = [&](int t) {
        const std::string from = "/nonexistent/bench/" + std::to_string(t) + "/a";
        while (__atomic_load_n(&ring->nextSequence, __ATOMIC_RELAXED) < slots + slots / 8)
            for (int i = 0; i < 256; ++i) zepFileRename(from.c_str(), "/nonexistent/bench/b");
    };
    std::thread a(writer, 1), b(writer, 2);
    a.join();
    b.join();
    gtraceDisable();

    auto header = std::make_unique<Uint8[]>(sizeof(GTDumpHeader));
    void* store = nullptr;
    Uint32 storeSize = 0;
    RamboDumpTail tail;
    gtraceGetDumpHeaderBuffer(1, reinterpret_cast<GTDumpHeader*>(header.get()), &store, &storeSize);
    gtraceGetDumpTail(&tail);
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || fwrite(header.get(), sizeof(GTDumpHeader), 1, f) != 1 ||
        fwrite(store, storeSize, 1, f) != 1 || fwrite(&tail, sizeof tail, 1, f) != 1 ||
        fclose(f) != 0) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        exit(1);
    }
    gtraceDetach();
    free(mem);
    return sizeof(GTDumpHeader) + storeSize + sizeof tail;
}

struct Run {
    double wall, cpu, peakMiB;
};

// One run of zeptrace with `args`, its standard output to `out`.
Run tool(const std::vector<std::string>& args, const char* out) {
    const double start = now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        std::vector<char*> argv{const_cast<char*>(ZEPTRACE_BIN)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage ru;
    wait4(pid, &status, 0, &ru);
    const double wall = now() - start;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "zeptrace %s failed\n", args[0].c_str());
        exit(1);
    }
    const double cpu = ru.ru_utime.tv_sec + ru.ru_utime.tv_usec * 1e-6 + ru.ru_stime.tv_sec +
                       ru.ru_stime.tv_usec * 1e-6;
    return {wall, cpu, ru.ru_maxrss / 1024.0};
}

}  // namespace

int main(int argc, char** argv) {
    const Uint32 mib = argc > 1 ? static_cast<Uint32>(atoi(argv[1])) : 256;
    const int runs = argc > 2 ? atoi(argv[2]) : 5;
    const std::string dir = "/tmp/bench_zeptrace." + std::to_string(getpid());
    mkdir(dir.c_str(), 0700);
    const std::string dump = dir + "/trace.dump", json = dir + "/trace.json";

    // The dump is made by a child, and the formatter runs last: a child's peak resident size
    // counts what it inherited from this process before its exec, so this one stays small.
    const double made = now();
    const pid_t maker = fork();
    if (maker == 0) _exit(makeDump(mib << 20, dump) != 0 ? 0 : 1);
    int made_status = 0;
    waitpid(maker, &made_status, 0);
    struct stat st;
    if (!WIFEXITED(made_status) || WEXITSTATUS(made_status) != 0 || stat(dump.c_str(), &st) != 0)
        return 1;
    const Uint64 dumpBytes = static_cast<Uint64>(st.st_size);
    printf("dump: %.1f MiB, made in %.1f s\n", dumpBytes / 1048576.0, now() - made);

    std::vector<double> exWall, exCpu, exPeak, shWall, shCpu;
    for (int r = 0; r < runs; ++r) {
        Run e = tool({"export", dump, "--format", "chrome", json}, "/dev/null");
        exWall.push_back(e.wall);
        exCpu.push_back(e.cpu);
        exPeak.push_back(e.peakMiB);
        Run s = tool({"show", dump, "--view", "records"}, "/dev/null");
        shWall.push_back(s.wall);
        shCpu.push_back(s.cpu);
    }
    // The formatter alone, in this process: the whole dump formatted into one string, as the
    // formatter's own benchmark measures it.
    std::vector<double> fmt;
    Uint64 records = 0;
    for (int r = 0; r < runs; ++r) {
        std::string text;
        const double t0 = cpuNow();
        zeptrace::formatDumpFile(dump.c_str(), zeptrace::View::Records, true, &text, &records);
        fmt.push_back(cpuNow() - t0);
    }

    const double jsonMiB = stat(json.c_str(), &st) == 0 ? st.st_size / 1048576.0 : 0;
    const double mb = dumpBytes / 1e6;
    printf("records: %llu; medians of %d runs\n", static_cast<unsigned long long>(records), runs);
    printf(
        "export --format chrome: %.2f s wall, %.2f s processor; %.0f MB/s of dump read "
        "(%.0f MB/s by processor time); peak resident %.1f MiB; JSON %.0f MiB\n",
        median(exWall), median(exCpu), mb / median(exWall), mb / median(exCpu),
        *std::max_element(exPeak.begin(), exPeak.end()), jsonMiB);
    const double showRate = records / median(shCpu), fmtRate = records / median(fmt);
    printf(
        "show --view records: %.2f s wall, %.2f s processor; %.2f M records/s by processor "
        "time\n",
        median(shWall), median(shCpu), showRate / 1e6);
    printf(
        "formatter alone (formatDumpFile into one string): %.2f s processor; %.2f M records/s;"
        " show / formatter rate %.2f\n",
        median(fmt), fmtRate / 1e6, showRate / fmtRate);
    unlink(dump.c_str());
    unlink(json.c_str());
    rmdir(dir.c_str());
    return 0;
}
