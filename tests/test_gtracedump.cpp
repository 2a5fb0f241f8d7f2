// Tests of reading trace dumps back: validation, both walkers, the scan of auto dumps, and the
// tools' formatter and trace-event export on dumps made here (the export read back with
// tests/tools/check_chrome_trace.py, as a viewer reads it).
#include "trace_export.h"
#include "trace_format.h"
#include "zeptest_trace.h"

namespace {

constexpr Uint32 kRing = 0x80000;
constexpr Uint32 F = ZEPFN_zepFileRename, G = ZEPFN_zepFileDelete;

class Dump : public ::testing::Test {
protected:
    void TearDown() override {
        gtraceDetach();
        free(mem_);
    }
    void build(Uint32 modeBits, Uint32 scan = 0) {
        gtraceDetach();
        free(mem_);
        GTCBOptions o;
        o.bufferSize = kRing;
        o.modeBits = modeBits;
        o.dumpScanTrigger[0] = scan;
        mem_ = static_cast<Uint8*>(aligned_alloc(64, (gtraceGetAllocSize(kRing) + 63) & ~63u));
        ASSERT_EQ(gtraceInitialize(reinterpret_cast<GTCB*>(mem_), &o), 0u);
        ASSERT_EQ(gtraceAttach(reinterpret_cast<GTCB*>(mem_), 10, nullptr, nullptr), 0u);
        ASSERT_EQ(gtraceEnable(), 0u);
    }
    void write(Uint8 instantaneous = 1, size_t lead = 0, size_t cut = 0) {
        gtraceDisable();
        zeptest::writeTraceDump(path_, instantaneous, lead, cut);
        gtraceEnable();
    }
    void put(const std::string& bytes) { std::ofstream(path_, std::ios::binary) << bytes; }
    // Validation of the file from `at`: its code, and where the file stands afterwards.
    std::pair<Uint32, Uint64> validate(Uint32 kind, Uint64 at = 0) {
        ZEPHFile file;
        zeptest::openToRead(file, path_);
        ZEPFileSeekParam s;
        s.offset = static_cast<Sint64>(at);
        EXPECT_EQ(file.seek(&s), 0u);
        const Uint32 rc = gtraceValidateDumpFile(&file, kind);
        s.origin = ZEP_FILE_SEEK_CURRENT;
        s.offset = 0;
        EXPECT_EQ(file.seek(&s, &at), 0u);
        return {rc, at};
    }
    // The ring records' function identifiers in walk order.
    std::vector<Uint32> ids(bool forward, Uint8* wrapped = nullptr) {
        std::vector<Uint32> out;
        for (const auto& r : zeptest::readTraceDump(path_, forward, false, wrapped))
            out.push_back(reinterpret_cast<const GTRecord*>(r.data())->functionID);
        return out;
    }
    zeptest::TempDir dir_{"zepgtdump"};
    std::string path_ = dir_ / "t.dump";
    Uint8* mem_ = nullptr;
};

TEST_F(Dump, Validation) {
    build(GTRACE_MODE_WRAP);
    _gtraceEntry(1, F);
    write(1, 100);
    // Any kind or the ring kind goes on to the ring's checks; the position stays.
    using V = std::pair<Uint32, Uint64>;
    EXPECT_EQ(validate(0, 100), V(0, 100));
    EXPECT_EQ(validate(GTRACE_DUMP_KIND_RAMBO, 100), V(0, 100));
    EXPECT_EQ(validate(GTRACE_DUMP_KIND_COUNTING, 100), V(ECF_INVALID_PARAMETER, 100));
    EXPECT_EQ(gtraceValidateDumpFile(nullptr, 0), ECF_INVALID_PARAMETER);
    // The ring's own checks: an instantaneous dump without its whole tail.
    write(1, 0, 1);
    EXPECT_EQ(validate(0), V(ECF_RAMBO_INSTANT_DUMP_TRUNCATED, 0));
    // The trace header: one byte short, a wrong eye-catcher.
    std::string bytes(GTRACE_DUMP_TRACE_HEADER_SIZE - 1, '\0');
    memcpy(bytes.data(), "GTDUMP1", 8);
    put(bytes);
    EXPECT_EQ(validate(0).first, ECF_GTRACE_DUMP_HEADER_TRUNCATED);
    bytes.append(100, '\0');
    bytes[6] = '2';
    put(bytes);
    EXPECT_EQ(validate(0), V(ECF_GTRACE_INVALID_DUMP_EYE_CATCHER, 0));
    // Opening doesn't check the eye-catcher; a short header fails with the read's code.
    put(bytes.substr(0, 1000));
    ZEPHFile file;
    zeptest::openToRead(file, path_);
    GTDumpParser p;
    EXPECT_EQ(gtraceOpenDumpFileParser(&file, &p, 1), ECF_FILE_EOF);
    EXPECT_EQ(gtraceCloseDumpFileParser(nullptr), ECF_INVALID_PARAMETER);
}

TEST_F(Dump, DirectionAndScan) {
    build(GTRACE_MODE_WRAP);
    for (Uint32 i = 1; i <= 3; ++i) _gtraceEntry(1, i);
    write();
    EXPECT_EQ(ids(true), (std::vector<Uint32>{1, 2, 3}));
    EXPECT_EQ(ids(false), (std::vector<Uint32>{3, 2, 1}));
    // An auto dump whose first record isn't the trace's first: only a scan can tell, and the
    // options ask for one.
    for (Uint32 scan : {0u, 1u}) {
        build(GTRACE_MODE_WRAP, scan);
        ASSERT_EQ(gtraceClear(), 0u);
        _gtraceEntry(1, F);
        write(0);
        Uint8 wrapped = 9;
        EXPECT_EQ(ids(true, &wrapped).size(), 1u);
        EXPECT_EQ(wrapped, scan);
    }
}

TEST_F(Dump, CountingDumps) {
    // A table of three entries, the middle one free, and a used entry behind it.
    auto h = std::make_unique<GTDumpHeader>();
    memset(static_cast<void*>(h.get()), 0, sizeof(GTDumpHeader));
    memcpy(h->eyeCatcher, "GTDUMP1", 8);
    h->options.modeBits = GTRACE_MODE_COUNTING;
    h->options.bufferSize = 48;
    std::string bytes(reinterpret_cast<char*>(h.get()), sizeof(GTDumpHeader));
    const GTCountEntry table[4] = {{3, F, 30}, {0, 0, 0}, {5, G, 50}, {7, 0x1234, 70}};
    bytes.append(reinterpret_cast<const char*>(table), sizeof table);
    put(bytes);
    // Backward makes no difference: the walk is forward only.
    for (bool forward : {true, false}) {
        auto got = zeptest::readTraceDump(path_, forward, false);
        ASSERT_EQ(got.size(), 2u);
        EXPECT_EQ(memcmp(got[0].data(), &table[0], 16) | memcmp(got[1].data(), &table[2], 16), 0);
    }
    // Without a buffer, or with a size but no buffer, the size still comes.
    ZEPHFile file;
    zeptest::openToRead(file, path_);
    GTDumpParser p;
    ASSERT_EQ(gtraceOpenDumpFileParser(&file, &p, 1), 0u);
    EXPECT_EQ(p.kind, GTRACE_DUMP_KIND_COUNTING);
    EXPECT_EQ(gtraceParseRecords(&file, &p, nullptr, nullptr, 0), 16u);
    EXPECT_EQ(gtraceParseRecords(&file, &p, nullptr, nullptr, 16), 16u);
    EXPECT_EQ(gtraceCloseDumpFileParser(&p), 0u);
}

TEST_F(Dump, FormatterViews) {
    build(GTRACE_MODE_WRAP);
    gtraceSetFixedData1(0xFFFFFFFF);
    const Uint32 rc = ECF_FILE_DOESNT_EXIST;
    _gtraceEntry(7, F);
    _gtraceVar(8, G, 10, 3, 2, 0u, 3u, "abc", 0u, 0u, nullptr);
    _gtraceExit(7, F, &rc, 1, 2);
    write();
    std::string text;
    Uint64 n = 0;
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Records, true, &text, &n),
              0u);
    EXPECT_EQ(n, 3u);
    const std::string R = "    0x081A0016 VRN Common, ZEPe, zepFileRename";
    EXPECT_EQ(text, "#1 ENTRY  pid 10  tid 7  time 0.000000000\n" + R +
                        "\n#2 DATA  pid 10  tid 8  time 0.000000000\n"
                        "    0x081A0013 VRN Common, ZEPe, zepFileDelete  probe 10\n"
                        "    item 1  kind 0  3 bytes\n"
                        "      0000  6162 63                                    abc\n"
                        "    item 2  kind 0  0 bytes\n"
                        "#3 EXIT  pid 10  tid 7  time 0.000000000\n" +
                        R +
                        "\n    rc 0x9000001A ECF_FILE_DOESNT_EXIST\n"
                        "    words 0x00000001 0x00000002\n");
    text.clear();
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Flow, true, &text), 0u);
    EXPECT_EQ(text,
              "10/7  0.000000000  > zepFileRename\n"
              "10/8  0.000000000  DATA zepFileDelete probe 10  (2 items)\n"
              "10/7  0.000000000  < zepFileRename  rc 0x9000001A ECF_FILE_DOESNT_EXIST\n");

    // Time by the dump's factor: a nanosecond counter converts one to one.
    ZEPTickConversionFactor factor;
    factor.initialize();
    EXPECT_EQ(zeptrace::Formatter(factor).time(1234567890123ull), "1234.567890123");

    // A counting dump: one line per function in use.
    build(GTRACE_MODE_COUNTING);
    _gtraceEntry(1, F);
    _gtraceEntry(1, F);
    write();
    text.clear();
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Records, true, &text), 0u);
    EXPECT_EQ(text, "         2  0.000000000  " + R.substr(4) + "\n");
}

TEST_F(Dump, ExportNestsCallsPerThreadAcrossProcesses) {
    build(GTRACE_MODE_WRAP);
    const Uint32 B = ZEPFN_ZEPHFile_open, C = ZEPFN_ZEPHFile_close;
    const char item[] = "/data/a.txt";
    // Process 10, thread 1: F calls B, which fails, and C, which never exits.
    _gtraceEntry(1, F);
    _gtraceEntry(1, B);
    _gtraceErrorVar(1, B, 30, GTRACE_TYPE_ERROR, 2, 0, 1, 0u, Uint32{sizeof item}, item);
    Uint32 rc = ECF_FILE_EXISTS;
    _gtraceExit(1, B, &rc, 0, 0);
    _gtraceEntry(1, C);
    rc = 0;
    _gtraceExit(1, F, &rc, 0, 0);
    // Thread 3: an exit whose entry the ring no longer holds.
    _gtraceExit(3, ZEPFN_ZEPHFile_seek, &rc, 0, 0);
    // Process 20, thread 2: an entry with data, no exit before the dump.
    gtraceSetProcessID(20);
    _gtraceEntry(2, F);
    _gtraceVar(2, F, 10, GTRACE_TYPE_DATA, 1, 0u, Uint32{sizeof item}, item);
    write();

    const std::string json = dir_ / "t.json";
    FILE* out = fopen(json.c_str(), "w");
    Uint64 records = 0;
    EXPECT_EQ(zeptrace::exportChromeFile(path_.c_str(), out, &records), 0u);
    fclose(out);
    EXPECT_EQ(records, 9u);
    const std::string checker = ZEP_TEST_SOURCE_DIR "/tools/check_chrome_trace.py ";
    FILE* check = popen(("python3 " + checker + json).c_str(), "r");
    std::string seen(4096, '\0');
    seen.resize(fread(seen.data(), 1, seen.size(), check));
    EXPECT_EQ(pclose(check), 0);
    EXPECT_EQ(seen,
              "10/1 thread 1: zepFileRename(ZEPHFile::open ZEPHFile::close)\n"
              "10/1 instant error ZEPHFile::open probe 30\n"
              "10/1 instant rc ZEPHFile::open 0x9000001B ECF_FILE_EXISTS\n"
              "10/1 instant no exit ZEPHFile::close\n"
              "10/3 thread 3: \n"
              "10/3 instant exit ZEPHFile::seek\n"
              "20/2 thread 2: zepFileRename\n"
              "20/2 instant data zepFileRename probe 10\n"
              "20/2 instant no exit zepFileRename\n");
    // Calls carry no arguments (a flame graph keys a frame by its name and arguments); the
    // details do.
    const std::string text = zeptest::slurp(json);
    EXPECT_NE(text.find(R"({"ph":"X","name":"ZEPHFile::open","cat":"COMP_ZEPE","ts":)"),
              std::string::npos);
    EXPECT_NE(text.find(R"("args":{"type":"DATA","probe":10,"items":["/data/a.txt"]})"),
              std::string::npos);
    // A counting dump has no calls to show.
    build(GTRACE_MODE_COUNTING);
    write();
    EXPECT_EQ(zeptrace::exportChromeFile(path_.c_str(), stdout, nullptr), ECF_NOT_SUPPORTED);
}

}  // namespace
