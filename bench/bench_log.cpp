// One log record to a file: zep's file target (open, lock, size, write, unlock, close per
// record, so that any number of processes can append and every record knows its place) against
// the bare system-call sequence that does the same, and against spdlog's basic file sink, which
// keeps its file open and locks nothing between processes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "zep.h"
#include "zepbench.h"

namespace {

std::string scratch(const char* name) {
    static std::string dir = [] {
        char tmpl[] = "/tmp/zepbenchXXXXXX";
        return std::string(mkdtemp(tmpl));
    }();
    return dir + "/" + name;
}

void openFacility(const std::string& path, Uint32 target) {
    ZEPLogFacilityParam p;
    snprintf(p.path, sizeof p.path, "%s", path.c_str());
    snprintf(p.name, sizeof p.name, "bench");
    p.level = ZEP_LOG_INFO;
    p.target = target;
    zepLogFacOpen(&p, nullptr);
}

// The record of a failing rename: two string arguments, a platform error.
void logOne() {
    static const char* a = "/data/db/tables/t1.dat";
    static const char* b = "/data/db/tables/t1.old";
    zepLogSysRC(nullptr, ZEPFN_zepFileRename, SYSFN_MoveFile, 2, ECF_FILE_DOESNT_EXIST, 30,
                ZEP_LOG_INFO, ZEP_LOG_ARGS(3), a, static_cast<Uint32>(strlen(a)),
                ZEP_LOGDATA_STRING, b, static_cast<Uint32>(strlen(b)), ZEP_LOGDATA_STRING);
}

void BM_ZepFileTarget(benchmark::State& state) {
    std::string path = scratch("zep.log");
    unlink(path.c_str());
    openFacility(path, ZEP_LOG_TARGET_FILE);
    for (auto _ : state) logOne();
    zepLogFacClose(nullptr);
}
BENCHMARK(BM_ZepFileTarget)->Name("File/zep:file-target")->Repetitions(5);

// What the file target costs at least: the same system calls with a record of the same size,
// formatted by snprintf.
void BM_BareSyscalls(benchmark::State& state) {
    std::string path = scratch("bare.log");
    unlink(path.c_str());
    char record[512];
    for (auto _ : state) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
        struct flock lk = {};
        lk.l_type = F_WRLCK;
        lk.l_whence = SEEK_SET;
        lk.l_len = 1;
        fcntl(fd, F_OFD_SETLKW, &lk);
        off_t size = lseek(fd, 0, SEEK_END);
        int n = snprintf(record, sizeof record,
                         "\r\n2026-11-23-07.33.44.123000+000 I%lldH%-10d LEVEL: Info (OS)\r\n"
                         "PID     : %-21uTID : %u\r\nFUNCTION: VRN Common, ZEPe, zepFileRename, "
                         "probe:30\r\nMESSAGE : ECF=0x9000001A File doesn't exist\r\nCALLED  : OS, "
                         "-, MoveFile%25sOSERR: ERROR_FILE_NOT_FOUND (2)\r\nARG  #1 : String, 22 "
                         "bytes\r\n%s\r\nARG  #2 : String, 22 bytes\r\n%s\r\n",
                         static_cast<long long>(size + 2), 300, getpid(), gettid(), " ",
                         "/data/db/tables/t1.dat", "/data/db/tables/t1.old");
        ssize_t w = write(fd, record, static_cast<size_t>(n));
        benchmark::DoNotOptimize(w);
        lk.l_type = F_UNLCK;
        fcntl(fd, F_OFD_SETLK, &lk);
        close(fd);
    }
}
BENCHMARK(BM_BareSyscalls)->Name("File/peer:bare-syscalls")->Repetitions(5);

void BM_ZepStderrTarget(benchmark::State& state) {
    // Standard error goes to /dev/null for the measurement.
    fflush(stderr);
    int saved = dup(2);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    openFacility("", ZEP_LOG_TARGET_STDERR);
    for (auto _ : state) logOne();
    zepLogFacClose(nullptr);
    fflush(stderr);
    dup2(saved, 2);
    close(null);
    close(saved);
}
BENCHMARK(BM_ZepStderrTarget);

void BM_SpdlogBasicFileSink(benchmark::State& state) {
    std::string path = scratch("spd.log");
    unlink(path.c_str());
    auto logger = spdlog::basic_logger_mt("bench", path);
    const char* a = "/data/db/tables/t1.dat";
    const char* b = "/data/db/tables/t1.old";
    for (auto _ : state)
        logger->info(
            "zepFileRename probe:30 ECF=0x{:X} File doesn't exist CALLED MoveFile "
            "OSERR: ERROR_FILE_NOT_FOUND ({}) ARG #1 {} ARG #2 {}",
            0x9000001Au, 2, a, b);
    logger->flush();
    spdlog::drop("bench");
}
BENCHMARK(BM_SpdlogBasicFileSink)->Name("File/peer:spdlog-basic-file-sink")->Repetitions(5);

// Two processes appending to one file at once: records per second of both together.
void BM_ZepFileTargetTwoProcesses(benchmark::State& state) {
    std::string path = scratch("two.log");
    for (auto _ : state) {
        state.PauseTiming();
        unlink(path.c_str());
        state.ResumeTiming();
        const int kEach = 2000;
        pid_t kids[2];
        for (pid_t& k : kids) {
            k = fork();
            if (k == 0) {
                openFacility(path, ZEP_LOG_TARGET_FILE);
                for (int i = 0; i < kEach; ++i) logOne();
                _exit(0);
            }
        }
        for (pid_t k : kids) waitpid(k, nullptr, 0);
        state.SetItemsProcessed(state.items_processed() + 2 * kEach);
    }
}
BENCHMARK(BM_ZepFileTargetTwoProcesses)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
    return zepBenchMain(argc, argv, ZepRatioReporter::kProcessor);
}
