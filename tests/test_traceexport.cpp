// Tests of the trace-event export of dumps: the calls of each thread as nested duration events,
// entries without exits, errors, several processes, and what a viewer would trip over (checked by
// reading the JSON back with tests/tools/check_chrome_trace.py).
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "trace_export.h"
#include "zep.h"

namespace {

constexpr Uint32 kRing = 0x80000;
constexpr Uint32 A = ZEPFN_zepFileRename, B = ZEPFN_ZEPHFile_open, C = ZEPFN_ZEPHFile_close,
                 D = ZEPFN_ZEPHFile_seek;

std::string run(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return "popen failed";
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    const int status = pclose(p);
    if (status != 0) out += "\n(exit status " + std::to_string(status) + ")";
    return out;
}

class TraceExport : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zeptrexpXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        auto o = std::make_unique<GTCBOptions>();
        o->bufferSize = kRing;
        o->modeBits = GTRACE_MODE_WRAP;
        o->flags = GTRACE_FLAG_TIMESTAMP;
        mem_ = static_cast<Uint8*>(aligned_alloc(64, (gtraceGetAllocSize(kRing) + 63) & ~63u));
        ASSERT_EQ(gtraceInitialize(reinterpret_cast<GTCB*>(mem_), o.get()), 0u);
        ASSERT_EQ(gtraceAttach(reinterpret_cast<GTCB*>(mem_), 10, nullptr, nullptr), 0u);
        ASSERT_EQ(gtraceEnable(), 0u);
    }
    void TearDown() override {
        gtraceDetach();
        free(mem_);
        run("rm -rf " + dir_);
    }
    std::string dump() {
        gtraceDisable();
        const std::string path = dir_ + "/t.dump";
        auto h = std::make_unique<GTDumpHeader>();
        void* store = nullptr;
        Uint32 size = 0;
        EXPECT_EQ(gtraceGetDumpHeaderBuffer(1, h.get(), &store, &size), 0u);
        RamboDumpTail tail;
        EXPECT_EQ(gtraceGetDumpTail(&tail), 0u);
        FILE* f = fopen(path.c_str(), "wb");
        fwrite(h.get(), sizeof(GTDumpHeader), 1, f);
        fwrite(store, size, 1, f);
        fwrite(&tail, sizeof tail, 1, f);
        fclose(f);
        return path;
    }
    // The export of the dump as the checker reads it.
    std::string exported(const std::string& dumpPath) {
        const std::string json = dir_ + "/t.json";
        FILE* out = fopen(json.c_str(), "w");
        Uint64 records = 0;
        EXPECT_EQ(zeptrace::exportChromeFile(dumpPath.c_str(), out, &records), 0u);
        fclose(out);
        return run("python3 " ZEP_TEST_SOURCE_DIR "/tools/check_chrome_trace.py " + json);
    }
    std::string dir_;
    Uint8* mem_ = nullptr;
};

TEST_F(TraceExport, CallsNestPerThreadAcrossProcesses) {
    const char item[] = "/data/a.txt";
    // Process 10, thread 1: A calls B, which fails, and C, which never exits.
    _gtraceEntry(1, A);
    _gtraceEntry(1, B);
    _gtraceErrorVar(1, B, 30, GTRACE_TYPE_ERROR, 2, 0, 1, 0u, Uint32{sizeof item},
                    reinterpret_cast<uintptr_t>(item));
    Uint32 rc = ECF_FILE_EXISTS;
    _gtraceExit(1, B, &rc, 0, 0);
    _gtraceEntry(1, C);
    rc = 0;
    _gtraceExit(1, A, &rc, 0, 0);
    // Thread 3: an exit whose entry the ring no longer holds.
    _gtraceExit(3, D, &rc, 0, 0);
    // Process 20, thread 2: an entry with data, no exit before the dump.
    gtraceSetProcessID(20);
    _gtraceEntry(2, A);
    _gtraceVar(2, A, 10, GTRACE_TYPE_DATA, 1, 0u, Uint32{sizeof item},
               reinterpret_cast<uintptr_t>(item));
    gtraceSetProcessID(10);

    EXPECT_EQ(exported(dump()),
              "10/1 thread 1: zepFileRename(ZEPHFile::open ZEPHFile::close)\n"
              "10/1 instant error ZEPHFile::open probe 30\n"
              "10/1 instant rc ZEPHFile::open 0x9000001B ECF_FILE_EXISTS\n"
              "10/1 instant no exit ZEPHFile::close\n"
              "10/3 thread 3: \n"
              "10/3 instant exit ZEPHFile::seek\n"
              "20/2 thread 2: zepFileRename\n"
              "20/2 instant data zepFileRename probe 10\n"
              "20/2 instant no exit zepFileRename\n");
}

TEST_F(TraceExport, DetailsAreInstantsAndCallsHaveNoArguments) {
    const char item[] = "/data/a.txt";
    _gtraceEntry(1, A);
    _gtraceVar(1, A, 10, GTRACE_TYPE_DATA, 1, 0u, Uint32{sizeof item},
               reinterpret_cast<uintptr_t>(item));
    _gtraceEntry(1, B);
    Uint32 rc = ECF_FILE_DOESNT_EXIST;
    _gtraceExit(1, A, &rc, 0, 0);  // B's exit is missing: B ends inside A
    const std::string path = dump();
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    ASSERT_EQ(zeptrace::exportChromeFile(path.c_str(), out, nullptr), 0u);
    fclose(out);
    const std::string json(text, size);
    free(text);
    // A frame's name and arguments make its identity in a flame graph: calls have no arguments.
    EXPECT_NE(json.find("{\"ph\":\"X\",\"name\":\"ZEPHFile::open\",\"cat\":\"COMP_ZEPE\",\"ts\":"),
              std::string::npos)
        << json;
    EXPECT_EQ(json.find("\"ph\":\"X\",\"name\":\"zepFileRename\",\"cat\":\"COMP_ZEPE\",\"ts\":0"),
              std::string::npos);
    EXPECT_NE(json.find("\"args\":{\"rc\":\"0x9000001A ECF_FILE_DOESNT_EXIST\"}"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"args\":{\"type\":\"DATA\",\"probe\":10,\"items\":[\"/data/a.txt\"]}"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"name\":\"no exit ZEPHFile::open\""), std::string::npos) << json;
}

TEST_F(TraceExport, RefusesWhatIsNoRingDump) {
    const std::string path = dir_ + "/bad.dump";
    FILE* out = fopen("/dev/null", "w");
    EXPECT_NE(zeptrace::exportChromeFile((dir_ + "/missing").c_str(), out, nullptr), 0u);
    for (size_t cut : {size_t{0}, size_t{100}, sizeof(GTDumpHeader) + 5000}) {
        std::string bytes(cut, '\0');
        if (cut) memcpy(bytes.data(), "GTDUMP1", 8);
        FILE* f = fopen(path.c_str(), "wb");
        fwrite(bytes.data(), 1, bytes.size(), f);
        fclose(f);
        EXPECT_NE(zeptrace::exportChromeFile(path.c_str(), out, nullptr), 0u) << cut;
    }
    fclose(out);
}

}  // namespace
