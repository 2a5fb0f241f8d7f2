// The log as its readers see it: the exact text of records in a file, the location fields, the
// level rule, the targets, typed items and dumps, many processes appending to one file, and the
// zeplog tool reading it back.

#include <sys/mman.h>
#include <unistd.h>

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
    const std::string a = dir_ / "a", b = dir_ / "b", n = std::to_string(a.size());
    EXPECT_EQ(zepFileRename(a.c_str(), b.c_str()), ECF_FILE_DOESNT_EXIST);

    const std::string text = slurp(path_);
    std::vector<std::string> l = lines(text);
    ASSERT_EQ(l.size(), 10u) << text;
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
            "ARG  #1 : String, " + n + " bytes", a, "ARG  #2 : String, " + n + " bytes", b}));
    EXPECT_EQ(text.substr(text.size() - 3), "b\r\n");
}

TEST_F(Log, LevelRule) {
    open(0);
    for (Uint32 facility = 0; facility <= 5; ++facility) {
        EXPECT_EQ(zepLogFacSetLevel(nullptr, facility), 0u);
        unlink(path_.c_str());
        for (Uint32 record = 0; record <= 6; ++record) {
            const size_t before = slurp(path_).size();
            EXPECT_EQ(info(nullptr, record), 0u);
            const bool expected =
                facility == 5 ? record == 5 : record == 5 || (record != 0 && record <= facility);
            EXPECT_EQ(slurp(path_).size() > before, expected)
                << "facility " << facility << " record " << record;
        }
    }
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
    // A facility of the caller's own, in its memory: bad counts and masks; an unwritable file.
    ZEPLogFacility mine = {};
    open(ZEP_LOG_INFO, ZEP_LOG_TARGET_FILE, &mine);
    EXPECT_EQ(zepLog(&mine, ZEPFN_zepFileRename, 0, 10, 4, -1) +
                  zepLogRC(&mine, ZEPFN_zepFileRename, 0, 0, 0, 10, 4, 1),
              2 * ECF_INVALID_PARAMETER);
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
    std::vector<std::string> l = lines(slurp(path_));
    ASSERT_EQ(l.size(), 16u);
    EXPECT_EQ(l[1].substr(49), " LEVEL: Error (OS)");
    EXPECT_EQ(
        std::vector<std::string>(l.begin() + 3, l.begin() + 10),
        (std::vector<std::string>{"FUNCTION: VRN Common, ZEPe, zepFileRename, probe:20",
                                  "MESSAGE : ECF=0x90000007 Unknown",
                                  "CALLED  : OS, -, CreateFile" + std::string(23, ' ') + "OSERR: 1",
                                  "ARG  #1 : Uint32, 4 bytes", "1", "ARG  #3 : ", "NULL"}));
    // Code 0: no MESSAGE line; a nested library call shows by its catalogue names.
    EXPECT_EQ(std::vector<std::string>(l.begin() + 13, l.begin() + 16),
              (std::vector<std::string>{"FUNCTION: VRN Common, ZEPe, zepFileRename, probe:40",
                                        "CALLED  : VRN Common, ZEPe, ZEPHFile::open",
                                        "RETCODE : ECF=0x90000014 " +
                                            std::string(ecfErrorGetDescription(ECF_FILE_LOCK))}));
}

TEST_F(Log, ItemRendering) {
    char buf[4096];
    auto typed = [&](const void* p, Uint32 n, Sint32 type, Uint32 space = sizeof buf) {
        return std::string(buf, zepLogRenderTyped(buf, space, p, n, type));
    };
    // Type, length, value in the native order, text; an empty text leaves the item to the dump.
    const struct {
        Sint32 type;
        Uint32 n;
        Uint64 v;
        const char* want;
    } rows[] = {
        {ZEP_LOGDATA_UINT, 4, 4000000000u, "Uint32, 4 bytes\r\n4000000000\r\n"},
        {ZEP_LOGDATA_UINT, 3, 1, ""},
        {ZEP_LOGDATA_BOOL, 2, 0x0100, "Bool, 2 bytes\r\ntrue\r\n"},
        {ZEP_LOGDATA_SINT, 1, 0xFF, "Sint8, 1 bytes\r\n-1\r\n"},
        {ZEP_LOGDATA_HEX, 2, 0xBEEF, "Hex, 2 bytes\r\n0xBEEF\r\n"},
        {ZEP_LOGDATA_CHAR, 5, 'h', "Char, 5 bytes\r\nh\r\n"},
    };
    for (const auto& r : rows) EXPECT_EQ(typed(&r.v, r.n, r.type), r.want) << r.want;
    // A string's length isn't a limit on the copy, 512 bytes are.
    const std::string x600(600, 'x');
    EXPECT_EQ(typed("abc", 2, ZEP_LOGDATA_STRING), "String, 2 bytes\r\nabc\r\n");
    EXPECT_EQ(typed(x600.c_str(), 512, ZEP_LOGDATA_STRING),
              "String, 512 bytes\r\n" + std::string(511, 'x') + "\r\n");
    // An item of no bytes at the very end of readable memory: nothing behind it is read.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* two = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
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
    EXPECT_EQ(lines(dump(sizeof buf, 512, 600))[0], "<hexdump>, 512 bytesof 600");
    const std::vector<std::string> l = lines(dump(200, 100, 100));
    EXPECT_EQ(l.size(), 3u);
    EXPECT_EQ(l[0] + l[2].substr(0, 8), "<hexdump>, 100 bytesof 10051525354");
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
    // Bytes inside a record and a record cut short: the reader says where.
    const std::string text = slurp(path_);
    std::ofstream(dir_ / "hurt.log", std::ios::binary)
        << text.substr(0, 1000) << "XXXX" << text.substr(1000, text.size() - 1010);
    expectTool("--check " + dir_ / "hurt.log", 1, {"DAMAGED", "MISPLACED", "TRUNCATED"});
}

TEST(HexDump, IntoABuffer) {
    // A line at a time behind the prefix, while whole lines fit.
    unsigned char data[20];
    for (int i = 0; i < 20; ++i) data[i] = static_cast<unsigned char>(0x41 + i);
    const std::string line1 = "> 4142 4344 4546 4748 494A 4B4C 4D4E 4F50    ABCDEFGHIJKLMNOP\r\n";
    char buf[512];
    zepHexDumpToBuffer(data, 20, buf, sizeof buf, "> ", 0);
    EXPECT_EQ(buf, line1 + "> 5152 5354" + std::string(34, ' ') + "QRST\r\n");
    zepHexDumpToBuffer(data, 20, buf, 2 + 62 + 2 + 10, "> ", 0);
    EXPECT_EQ(buf, line1);
}

}  // namespace
