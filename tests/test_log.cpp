// The log as its readers see it: the exact text of records in a file, the location fields, the
// level rule, the targets, typed items and dumps, many processes appending to one file, and the
// zeplog tool reading it back.
#include <fcntl.h>
#include <sys/mman.h>

#include "zeplogitems.h"
#include "zeptest_stress.h"
#include "zeptest_util.h"

namespace {

using zeptest::slurp;

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t at = 0;
    for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
        out.push_back(text.substr(at, end - at));
    if (at < text.size()) out.push_back(text.substr(at));
    return out;
}

class Log : public ::testing::Test {
protected:
    void TearDown() override { zepLogFacClose(nullptr); }
    void open(Uint32 level = ZEP_LOG_INFO, Uint32 target = ZEP_LOG_TARGET_FILE,
              ZEPLogFacility* f = nullptr) {
        ZEPLogFacilityParam p;
        snprintf(p.path, sizeof p.path, "%s", path_.c_str());
        snprintf(p.name, sizeof p.name, "zeptest");
        p.level = level, p.target = target, p.permissions = 0644;
        ASSERT_EQ(zepLogFacOpen(&p, f), 0u);
    }
    off_t size() {
        struct stat st;
        return stat(path_.c_str(), &st) == 0 ? st.st_size : 0;
    }
    Uint32 info(ZEPLogFacility* f = nullptr, Uint32 level = ZEP_LOG_INFO) {
        return zepLog(f, ZEPFN_zepFileRename, 0, 10, level, 0);
    }
    // Runs the zeplog tool: its exit status, and texts its output has.
    void expectTool(const std::string& args, int status, std::vector<std::string> says = {}) {
        const std::string out = dir_ / "tool.out";
        int st = system((ZEP_TOOL_BIN_DIR "/zeplog " + args + " > " + out + " 2>&1").c_str());
        EXPECT_EQ(WIFEXITED(st) ? WEXITSTATUS(st) : -1, status) << args;
        for (const std::string& s : says)
            EXPECT_NE(slurp(out).find(s), std::string::npos) << args << "\n" << slurp(out);
    }
    zeptest::TempDir dir_{"zeplog"};
    std::string path_ = dir_ / "zep.log";
};

TEST_F(Log, WorkedRecordOfAFailingRename) {
    open();
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir_.path.c_str()), 0);
    EXPECT_EQ(zepFileRename("a", "b"), ECF_FILE_DOESNT_EXIST);
    ASSERT_EQ(chdir(cwd), 0);

    const std::string text = slurp(path_);
    std::vector<std::string> l = lines(text);
    ASSERT_EQ(l.size(), 10u) << text;
    EXPECT_EQ(l[0], "");
    // "YYYY-MM-DD-hh.mm.ss.uuu000" local time, the zone "+hhh" or "-hhh", the location field
    // (offset 2 and the record's length), " LEVEL: ".
    std::string stamp = l[1].substr(0, 30);
    for (char& c : stamp) c = isdigit(static_cast<unsigned char>(c)) ? 'd' : c;
    if (stamp[26] == '-') stamp[26] = '+';
    EXPECT_EQ(stamp, "dddd-dd-dd-dd.dd.dd.dddddd+ddd") << l[1];
    EXPECT_EQ(l[1].substr(23, 3), "000");
    const std::string field = "I2H" + std::to_string(text.size() - 2);
    EXPECT_EQ(l[1].substr(30),
              " " + field + std::string(17 - field.size(), ' ') + "  LEVEL: Info (OS)");
    char pid[64];
    snprintf(pid, sizeof pid, "PID     : %-21uTID : %u", getpid(), static_cast<unsigned>(gettid()));
    EXPECT_EQ(l[2], pid);
    EXPECT_EQ(
        std::vector<std::string>(l.begin() + 3, l.end()),
        (std::vector<std::string>{
            "FUNCTION: VRN Common, ZEPe, zepFileRename, probe:30",
            "MESSAGE : ECF=0x9000001A File doesn't exist",
            "CALLED  : OS, -, MoveFile" + std::string(25, ' ') + "OSERR: ERROR_FILE_NOT_FOUND (2)",
            "ARG  #1 : String, 1 bytes", "a", "ARG  #2 : String, 1 bytes", "b"}));
    EXPECT_EQ(text.substr(text.size() - 3), "b\r\n");
}

TEST_F(Log, LocationFields) {
    // Each record's field is its own offset and length: together they walk the file.
    open();
    for (int i = 0; i < 3; ++i) info();
    const std::string text = slurp(path_);
    size_t pos = 0;
    for (int n = 0; n < 3; ++n) {
        ASSERT_EQ(text.compare(pos, 2, "\r\n"), 0);
        unsigned long long off = 0, len = 0;
        ASSERT_EQ(sscanf(text.substr(pos + 33, 17).c_str(), "I%lluH%llu", &off, &len), 2);
        EXPECT_EQ(off, pos + 2);
        EXPECT_EQ(text[pos + 50], ' ');
        pos = off + len;
    }
    EXPECT_EQ(pos, text.size());
    // A sparse file puts the next record at a 13-digit offset: the field would have 18
    // characters and is cut to 17, leaving " LEVEL: " where it belongs.
    const long long kAt = 1000000000000LL;
    ASSERT_EQ(truncate(path_.c_str(), kAt), 0);
    ASSERT_EQ(info(), 0u);
    int fd = ::open(path_.c_str(), O_RDONLY);
    char rec[128] = {};
    ASSERT_EQ(pread(fd, rec, 100, kAt), 100);
    close(fd);
    const std::string field =
        "I" + std::to_string(kAt + 2) + "H" + std::to_string(size() - kAt - 2);
    ASSERT_EQ(field.size(), 18u);
    EXPECT_EQ(std::string(rec + 33, 26), field.substr(0, 17) + "  LEVEL: ");
    unlink(path_.c_str());
}

TEST_F(Log, LevelRule) {
    for (Uint32 facility = 0; facility <= 5; ++facility) {
        open(facility);
        unlink(path_.c_str());
        for (Uint32 record = 0; record <= 6; ++record) {
            const off_t before = size();
            EXPECT_EQ(info(nullptr, record), 0u);
            const bool expected =
                facility == 5 ? record == 5 : record == 5 || (record != 0 && record <= facility);
            EXPECT_EQ(size() > before, expected) << "facility " << facility << " record " << record;
        }
    }
    // An out-of-range facility level set afterwards goes by the same rule.
    EXPECT_EQ(zepLogFacSetLevel(nullptr, 9), 0u);
    unlink(path_.c_str());
    info(nullptr, 6);
    EXPECT_TRUE(zeptest::exists(path_));
}

TEST_F(Log, FacilityCalls) {
    // One thing wrong at a time; the event log target needs no path.
    using P = ZEPLogFacilityParam;
    P p;
    snprintf(p.name, sizeof p.name, "n");
    p.level = 4, p.target = ZEP_LOG_TARGET_EVENTLOG;
    for (void (*change)(P&) :
         {+[](P& q) { q.target = 3; }, +[](P& q) { q.target = ZEP_LOG_TARGET_FILE; },  // no path
          +[](P& q) { q.level = 6; }, +[](P& q) { q.name[0] = 0; },
          +[](P& q) { q.version = 20040701; }}) {
        P q = p;
        change(q);
        EXPECT_EQ(zepLogFacOpen(&q, nullptr), ECF_INVALID_PARAMETER);
    }
    EXPECT_EQ(zepLogFacOpen(&p, nullptr), 0u);
    EXPECT_EQ(zepLogFacClose(nullptr) + zepLogFacClose(nullptr), 0u);
    EXPECT_EQ(zepLogFacSetLevel(nullptr, 4) + info(), 2 * ECF_INVALID_PARAMETER);
    // A facility of the caller's own, in its memory; bad counts and masks; an unwritable file.
    ZEPLogFacility mine = {};
    open(ZEP_LOG_INFO, ZEP_LOG_TARGET_FILE, &mine);
    EXPECT_EQ(info(&mine), 0u);
    EXPECT_EQ(zepLog(&mine, ZEPFN_zepFileRename, 0, 10, 4, -1), ECF_INVALID_PARAMETER);
    EXPECT_EQ(zepLogRC(&mine, ZEPFN_zepFileRename, 0, 0, 0, 10, 4, 1), ECF_INVALID_PARAMETER);
    snprintf(mine.path, sizeof mine.path, "%s/no/such/dir/x.log", dir_.path.c_str());
    EXPECT_EQ(info(&mine), ECF_FAILED);
}

TEST_F(Log, RecordParts) {
    open();
    // Mask 0x80000005: arguments 1 and 3. A null item. A platform error without a name.
    Uint32 one = 1;
    zepLogSysRC(nullptr, ZEPFN_zepFileRename, SYSFN_CreateFile, 1, ECF_UNKNOWN, 20, 2,
                static_cast<Sint32>(0x80000005u), &one, 4u, ZEP_LOGDATA_UINT, nullptr, 7u,
                ZEP_LOGDATA_HEX);
    zepLogRC(nullptr, ZEPFN_zepFileRename, ZEPFN_ZEPHFile_open, ECF_FILE_LOCK, 0, 40, 4, 0);
    zepLog(nullptr, 0xFFFFFFFFu, 0, 50, 4, 0);
    std::vector<std::string> l = lines(slurp(path_));
    ASSERT_EQ(l.size(), 20u);
    EXPECT_EQ(l[1].substr(49), " LEVEL: Error (OS)");
    EXPECT_EQ(
        std::vector<std::string>(l.begin() + 3, l.begin() + 10),
        (std::vector<std::string>{"FUNCTION: VRN Common, ZEPe, zepFileRename, probe:20",
                                  "MESSAGE : ECF=0x90000007 Unknown",
                                  "CALLED  : OS, -, CreateFile" + std::string(23, ' ') + "OSERR: 1",
                                  "ARG  #1 : Uint32, 4 bytes", "1", "ARG  #3 : ", "NULL"}));
    // Code 0: no MESSAGE line; a nested library call shows by its catalogue names; an
    // identifier the catalogue doesn't know prints empty names; no CALLED line without one.
    EXPECT_EQ(std::vector<std::string>(l.begin() + 13, l.begin() + 16),
              (std::vector<std::string>{"FUNCTION: VRN Common, ZEPe, zepFileRename, probe:40",
                                        "CALLED  : VRN Common, ZEPe, ZEPHFile::open",
                                        "RETCODE : ECF=0x90000014 " +
                                            std::string(ecfErrorGetDescription(ECF_FILE_LOCK))}));
    EXPECT_EQ(l[19], "FUNCTION: , , , probe:50");
}

TEST_F(Log, ItemRendering) {
    char buf[4096];
    auto typed = [&](const void* p, Uint32 n, Sint32 type, Uint32 space = sizeof buf) {
        return std::string(buf, zepLogRenderTyped(buf, space, p, n, type));
    };
    const Uint32 u4 = 4000000000u;
    const Uint16 b2 = 0x0100, h2 = 0xBEEF;
    const Sint8 s1 = -1;
    const std::string x600(600, 'x');
    const struct {
        const void* p;
        Uint32 n;
        Sint32 type;
        const std::string want;
    } rows[] = {
        {&u4, 4, ZEP_LOGDATA_UINT, "Uint32, 4 bytes\r\n4000000000\r\n"},
        {&u4, 3, ZEP_LOGDATA_UINT, ""},  // the dump takes it
        {&u4, 4, -9, ""},
        {&b2, 2, ZEP_LOGDATA_BOOL, "Bool, 2 bytes\r\ntrue\r\n"},
        {&s1, 1, ZEP_LOGDATA_SINT, "Sint8, 1 bytes\r\n-1\r\n"},
        {&h2, 2, ZEP_LOGDATA_HEX, "Hex, 2 bytes\r\n0xBEEF\r\n"},
        {"hello", 5, ZEP_LOGDATA_CHAR, "Char, 5 bytes\r\nh\r\n"},
        {"abc", 2, ZEP_LOGDATA_STRING, "String, 2 bytes\r\nabc\r\n"},
        {x600.c_str(), 512, ZEP_LOGDATA_STRING,
         "String, 512 bytes\r\n" + std::string(511, 'x') + "\r\n"},
    };
    for (const auto& r : rows) EXPECT_EQ(typed(r.p, r.n, r.type), r.want) << r.want;
    // With too little room for the text and its line end, the line stays open.
    EXPECT_EQ(typed(x600.c_str(), 512, ZEP_LOGDATA_STRING, 30),
              "String, 512 bytes\r\n" + std::string(10, 'x'));
    // An item of no bytes at the very end of readable memory: nothing behind it is read.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* two = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(two, MAP_FAILED);
    ASSERT_EQ(mprotect(two + page, page, PROT_NONE), 0);
    EXPECT_EQ(typed(two + page, 0, ZEP_LOGDATA_CHAR), "Char, 0 bytes\r\n\r\n");
    munmap(two, 2 * page);

    // Dumps: 20 bytes in two lines; 600 bytes of true length; a record nearly full, where 200
    // bytes hold three lines of 61 but for the head: two whole lines come out, none cut.
    unsigned char data[600];
    for (int i = 0; i < 600; ++i) data[i] = static_cast<unsigned char>('A' + i % 26);
    auto dump = [&](Uint32 space, Uint32 n, Uint32 total) {
        return std::string(buf, zepLogRenderDump(buf, space, data, n, total));
    };
    EXPECT_EQ(dump(sizeof buf, 20, 20),
              "<hexdump>, 20 bytes\r\n"
              "41424344  45464748  494A4B4C  4D4E4F50    ABCDEFGHIJKLMNOP\r\n"
              "51525354                                  QRST\r\n");
    EXPECT_EQ(lines(dump(sizeof buf, 512, 600)).size(), 33u);
    EXPECT_EQ(lines(dump(sizeof buf, 512, 600))[0], "<hexdump>, 512 bytesof 600");
    const std::vector<std::string> l = lines(dump(200, 100, 100));
    EXPECT_EQ(l.size(), 3u);
    EXPECT_EQ(l[0] + l[2].substr(0, 8), "<hexdump>, 100 bytesof 10051525354");
}

TEST_F(Log, ZoneArithmetic) {
    // Local and UTC seconds since midnight of one moment: minutes east of UTC. Local just after
    // midnight with UTC before, and the other way round; -12 h and +12 h are the same moment;
    // truncation toward zero.
    const int rows[][3] = {{3600, 0, 60},        {0, 18000, -300}, {1800, 84600, 60},
                           {84600, 1800, -60},   {43200, 0, 720},  {0, 43200, 720},
                           {46800, 86399, -659}, {30, 0, 0},       {0, 30, 0}};
    for (const auto& r : rows)
        EXPECT_EQ(zepLogZoneMinutes(r[0], r[1]), r[2]) << r[0] << " " << r[1];
}

TEST_F(Log, ManyProcessesAppendToOneFile) {
    open();
    const Uint32 records = 2000 * zeptestStress();
    std::vector<pid_t> kids;
    for (int i = 0; i < 4; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            for (Uint32 n = 0; n < records; ++n)
                if (zepLog(nullptr, ZEPFN_zepFileRename, ECF_FAILED, 10, ZEP_LOG_INFO, 2, &n, 4u,
                           ZEP_LOGDATA_UINT, "a record of some length", 23u,
                           ZEP_LOGDATA_STRING) != 0)
                    _exit(1);
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t k : kids) EXPECT_EQ(zeptest::waitExit(k), 0);
    // The library's own reader walks the file by its fields and selects by what they say.
    expectTool("--check " + path_, 0, {": " + std::to_string(4 * records) + " records, 0 damaged"});
    expectTool("--summary --ecf ECF_FAILED --level 4 --function zepFileRename --pid " +
                   std::to_string(kids[1]) + " " + path_,
               0, {", " + std::to_string(records) + " selected"});
    // Bytes inside a record and a record cut short: the reader says where; not a log at all.
    const std::string text = slurp(path_);
    std::ofstream(dir_ / "hurt.log", std::ios::binary)
        << text.substr(0, 1000) << "XXXX" << text.substr(1000, text.size() - 1010);
    expectTool("--check " + dir_ / "hurt.log", 1, {"DAMAGED", "MISPLACED", "TRUNCATED"});
    std::ofstream(dir_ / "junk.log") << "hello\n";
    expectTool(dir_ / "junk.log", 2, {"is not a zep log file"});
}

TEST(HexDump, LinesAndBuffers) {
    unsigned char data[20];
    for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>(0x41 + i);
    const std::string line1 = "4142 4344 4546 4748 494A 4B4C 4D4E 4F50    ABCDEFGHIJKLMNOP\r\n";
    // 16 bytes with the address fill the line's 75 bytes; a word has no character column.
    char line[ZEP_HEXDUMP_LINE_SIZE], addr[16];
    snprintf(addr, sizeof addr, "0x%08X : ", static_cast<unsigned>(uintptr_t(data)));
    EXPECT_EQ(zepHexDumpLine(line, data, 16, ZEP_HEXDUMP_ADDRESS), 75u);
    EXPECT_EQ(line, addr + line1);
    EXPECT_EQ(zepHexDumpLine(line, data, 4, ZEP_HEXDUMP_WORD | ZEP_HEXDUMP_NO_CHARS), 46u);
    EXPECT_EQ(line, "0x44434241" + std::string(33, ' ') + "\r\n");
    // Into a buffer, a line at a time while they fit; not even the first line: empty.
    char buf[512];
    zepHexDumpToBuffer(data, 20, buf, sizeof buf, "> ", 0);
    EXPECT_EQ(buf, "> " + line1 + "> 5152 5354" + std::string(34, ' ') + "QRST\r\n");
    zepHexDumpToBuffer(data, 20, buf, 2 + 62 + 2 + 10, "> ", 0);
    EXPECT_EQ(buf, "> " + line1);
    zepHexDumpToBuffer(data, 20, buf, 60, nullptr, 0);
    EXPECT_EQ(buf[0], 0);
}

}  // namespace
