// Tests of reading trace dumps back: validation, both parsers, the scan of auto dumps, and the
// formatter of the tools on dumps made here.
#include <functional>
#include <map>

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
    void build(Uint32 modeBits, Uint32 flags = 0, Uint32 scan = 0) {
        gtraceDetach();
        free(mem_);
        GTCBOptions o;
        o.bufferSize = kRing;
        o.modeBits = modeBits;
        o.flags = flags;
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
    void openFile(ZEPHFile& file) {
        file.close();
        zeptest::openToRead(file, path_);
    }
    // Validation of the file from `at`: its code, and where the file stands afterwards.
    std::pair<Uint32, Uint64> validate(Uint8 kind, Uint64 at = 0) {
        ZEPHFile file;
        openFile(file);
        ZEPFileSeekParam s;
        s.offset = static_cast<Sint64>(at);
        EXPECT_EQ(file.seek(&s), 0u);
        const Uint32 rc = gtraceValidateDumpFile(&file, kind);
        s.origin = ZEP_FILE_SEEK_CURRENT;
        s.offset = 0;
        EXPECT_EQ(file.seek(&s, &at), 0u);
        return {rc, at};
    }
    // The records' function identifiers (ring) or the used entries (counting), in walk order.
    std::vector<GTCountEntry> walk(bool forward, Uint8* wrapped = nullptr) {
        std::vector<GTCountEntry> out;
        for (const auto& r : zeptest::readTraceDump(path_, forward, false, wrapped)) {
            const bool counting = r.size() == sizeof(GTCountEntry);  // a ring record is larger
            GTCountEntry e{};
            memcpy(counting ? static_cast<void*>(&e) : &e.functionID,
                   r.data() + (counting ? 0 : offsetof(GTRecord, functionID)),
                   counting ? sizeof e : 4);
            out.push_back(e);
        }
        return out;
    }
    std::vector<Uint32> ids(bool forward) {
        std::vector<Uint32> out;
        for (const GTCountEntry& e : walk(forward)) out.push_back(e.functionID);
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
    openFile(file);
    GTDumpParser p;
    EXPECT_EQ(gtraceOpenDumpFileParser(&file, &p, 1), ECF_FILE_EOF);
    EXPECT_EQ(gtraceOpenDumpFileParser(nullptr, &p, 1), ECF_INVALID_PARAMETER);
    EXPECT_EQ(gtraceCloseDumpFileParser(nullptr), ECF_INVALID_PARAMETER);
    file.close();
}

TEST_F(Dump, DirectionAndScan) {
    build(GTRACE_MODE_WRAP);
    for (Uint32 i = 1; i <= 5; ++i) _gtraceEntry(1, i);
    write();
    EXPECT_EQ(ids(true), (std::vector<Uint32>{1, 2, 3, 4, 5}));
    EXPECT_EQ(ids(false), (std::vector<Uint32>{5, 4, 3, 2, 1}));
    // An auto dump whose first record isn't the trace's first: only a scan can tell, and the
    // options ask for one.
    for (Uint32 scan : {0u, 1u}) {
        build(GTRACE_MODE_WRAP, 0, scan);
        ASSERT_EQ(gtraceClear(), 0u);
        _gtraceEntry(1, F);
        write(0);
        Uint8 wrapped = 9;
        EXPECT_EQ(walk(true, &wrapped).size(), 1u);
        EXPECT_EQ(wrapped, scan);
    }
}

TEST_F(Dump, CountingDumps) {
    // By hand: a table of three entries, the middle one free, and a used entry behind it.
    auto raw = std::make_unique<Uint8[]>(sizeof(GTDumpHeader));
    memset(raw.get(), 0, sizeof(GTDumpHeader));
    GTDumpHeader* h = reinterpret_cast<GTDumpHeader*>(raw.get());
    memcpy(h->eyeCatcher, "GTDUMP1", 8);
    h->options.modeBits = GTRACE_MODE_COUNTING;
    h->options.bufferSize = 48;
    std::string bytes(reinterpret_cast<char*>(raw.get()), sizeof(GTDumpHeader));
    const GTCountEntry table[4] = {{3, F, 30}, {0, 0, 0}, {5, G, 50}, {7, 0x1234, 70}};
    bytes.append(reinterpret_cast<const char*>(table), sizeof table);
    put(bytes);
    auto got = walk(true);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(memcmp(&got[0], &table[0], 16), 0);
    EXPECT_EQ(memcmp(&got[1], &table[2], 16), 0);
    // Backward makes no difference: the walk is forward only.
    EXPECT_EQ(walk(false).size(), 2u);
    // Without a buffer the size still comes.
    ZEPHFile file;
    openFile(file);
    GTDumpParser p;
    ASSERT_EQ(gtraceOpenDumpFileParser(&file, &p, 1), 0u);
    EXPECT_EQ(p.kind, GTRACE_DUMP_KIND_COUNTING);
    EXPECT_EQ(p.count.entryCount, 3u);
    EXPECT_EQ(gtraceParseRecords(&file, &p, nullptr, nullptr, 0), 16u);
    // Nor with a size but no buffer, as the ring's parser.
    EXPECT_EQ(gtraceParseRecords(&file, &p, nullptr, nullptr, 16), 16u);
    EXPECT_EQ(gtraceCloseDumpFileParser(&p), 0u);
    file.close();

    // A live counting trace over a recursive workload, with time: exact counts come back.
    build(GTRACE_MODE_COUNTING, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME);
    const Uint32 ok = 0;
    std::function<void(int)> recurse = [&](int n) {
        _gtraceEntry(1, F);
        if (n > 0) recurse(n - 1);
        _gtraceEntry(1, G);
        _gtraceExit(1, G, &ok, 0, 0);
        _gtraceExit(1, F, &ok, 0, 0);
    };
    for (int i = 0; i < 3; ++i) recurse(9);
    write();
    std::map<Uint32, GTCountEntry> counts;
    for (auto& e : walk(true)) counts[e.functionID] = e;
    ASSERT_EQ(counts.size(), 2u);
    EXPECT_EQ(counts[F].count, 30u);
    EXPECT_EQ(counts[G].count, 30u);
    EXPECT_GT(counts[F].totalTime, counts[G].totalTime);
}

TEST_F(Dump, FormatterViews) {
    build(GTRACE_MODE_WRAP);
    gtraceSetFixedData1(0xFFFFFFFF);
    gtraceSetFixedData2(0xFFFFFFFF);
    const Uint32 rc = ECF_FILE_DOESNT_EXIST, ok = 0;
    _gtraceEntry(7, F);
    _gtraceVar(7, F, 10, 3, 2, 0u, 3u, "abc", 0u, 0u, nullptr);
    _gtraceEntry(8, G);
    _gtraceErrorVar(7, F, 30, 4, 0, 0, 1, 0u, 4u, &rc);
    _gtraceExit(7, F, &rc, 0, 0);
    _gtraceExit(8, G, &ok, 0, 0);
    _gtraceErrorRcVar(7, F, 40, 5, 1, 2, rc, 3, 4, 1, 0u, 1u, "z");
    write();

    std::string text;
    Uint64 n = 0;
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Records, true, &text, &n),
              0u);
    EXPECT_EQ(n, 7u);
    const std::string R = "    0x081A0016 VRN Common, ZEPe, zepFileRename";
    const std::string D = "    0x081A0013 VRN Common, ZEPe, zepFileDelete\n";
    EXPECT_EQ(text, "#1 ENTRY  pid 10  tid 7  time 0.000000000\n" + R +
                        "\n#2 DATA  pid 10  tid 7  time 0.000000000\n" + R +
                        "  probe 10\n"
                        "    item 1  kind 0  3 bytes\n"
                        "      0000  6162 63                                    abc\n"
                        "    item 2  kind 0  0 bytes\n"
                        "#3 ENTRY  pid 10  tid 8  time 0.000000000\n" +
                        D + "#4 ERROR  pid 10  tid 7  time 0.000000000\n" + R +
                        "  probe 30\n"
                        "    words 0x00000000 0x00000000\n"
                        "    item 1  kind 0  4 bytes\n"
                        "      0000  1A00 0090                                  ....\n"
                        "#5 EXIT  pid 10  tid 7  time 0.000000000\n" +
                        R +
                        "\n    rc 0x9000001A ECF_FILE_DOESNT_EXIST\n"
                        "    words 0x00000000 0x00000000\n"
                        "#6 EXIT  pid 10  tid 8  time 0.000000000\n" +
                        D +
                        "    rc 0x00000000 OK\n"
                        "    words 0x00000000 0x00000000\n"
                        "#7 ERROR_OP  pid 10  tid 7  time 0.000000000\n" +
                        R +
                        "  probe 40\n"
                        "    words 0x00000001 0x00000002\n"
                        "    item 1  kind 0  1 bytes\n"
                        "      0000  7A                                         z\n");

    text.clear();
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Flow, true, &text), 0u);
    EXPECT_EQ(text,
              "10/7  0.000000000  > zepFileRename\n"
              "10/7  0.000000000    DATA zepFileRename probe 10  (2 items)\n"
              "10/8  0.000000000  > zepFileDelete\n"
              "10/7  0.000000000    ERROR zepFileRename probe 30  (1 items)\n"
              "10/7  0.000000000  < zepFileRename  rc 0x9000001A ECF_FILE_DOESNT_EXIST\n"
              "10/8  0.000000000  < zepFileDelete  rc 0x00000000 OK\n"
              "10/7  0.000000000  ERROR_OP zepFileRename probe 40  (1 items)\n");

    // Time by the dump's factor: a nanosecond counter converts one to one.
    ZEPTickConversionFactor factor;
    factor.initialize();
    zeptrace::Formatter f(factor);
    EXPECT_EQ(f.time(1234567890123ull), "1234.567890123");

    // A counting dump: one line per function in use.
    build(GTRACE_MODE_COUNTING);
    _gtraceEntry(1, F);
    _gtraceEntry(1, F);
    write();
    text.clear();
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Records, true, &text), 0u);
    EXPECT_EQ(text, "         2  0.000000000  " + R.substr(4) + "\n");
}

}  // namespace
