// Assertion reports: the head, the pairs and their end, the places (a thread's file under a path,
// the console when it is a terminal, ZEP_DEBUG_LOG_FILE, the default facility's path), the
// callback that replaces everything, the fatal action, reports that land whole; pointer tests.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <regex>
#include <thread>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using zeptest::slurp;

// The head of a non-fatal report made now by this thread, with "*" for the time.
std::string head(const std::string& expr, const std::string& file, unsigned line) {
    return "NON-FATAL ASSERTION FAILED!!!\r\nTime       = *\nExpr       = " + expr +
           "\r\nPID        = " + std::to_string(getpid()) +
           "\r\nTID        = " + std::to_string(gettid()) + "\r\nFile       = " + file +
           "\r\nLine       = " + std::to_string(line) + "\r\n";
}

// Reports with each time, asctime's "Www Mmm dd hh:mm:ss yyyy", made "*".
std::string blankTimes(const std::string& text) {
    static const std::regex time(
        "Time       = \\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\n");
    return std::regex_replace(text, time, "Time       = *\n");
}

std::string dumpOf(const void* data, Uint32 length, int index) {
    char dump[4096];
    zepHexDumpToBuffer(data, length, dump, sizeof dump, "", ZEP_HEXDUMP_ADDRESS);
    return "dump data " + std::to_string(index) + ":\n" + dump;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++n;
    return n;
}

// Runs `body` in a child without a core file, standard output on `out` and standard error into
// `errors`; its exit status, or 128 + the signal that ended it.
int inChild(int out, const std::function<void()>& body, std::string* errors = nullptr) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(fds[1], 2);
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        body();
        fflush(stdout);
        _exit(0);
    }
    close(fds[1]);
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
        if (errors) errors->append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    return zeptest::waitExit(pid);
}

// Opens the default facility of a child on `log`.
void openFacility(const std::string& log, Uint32 target) {
    ZEPLogFacilityParam p{};
    snprintf(p.path, sizeof p.path, "%s", log.c_str());
    snprintf(p.name, sizeof p.name, "service");
    p.level = ZEP_LOG_INFO;
    p.target = target;
    p.permissions = 0644;
    if (zepLogFacOpen(&p, nullptr) != 0) _exit(2);
}

std::string g_calls;
void recordingCallback(String expression, String file, Uint32 line, String path, Bool fatal,
                       const ZEPAssertPair* pairs) {
    g_calls += std::string(expression) + "|" + file + "|" + std::to_string(line) + "|" +
               (path ? path : "(none)") + "|" + std::to_string(fatal);
    for (; pairs->data != nullptr; ++pairs)
        g_calls.append("|").append(static_cast<const char*>(pairs->data), pairs->length);
    g_calls += "\n";
}

class Assert : public ::testing::Test {
protected:
    void SetUp() override { setenv("ZEP_DEBUG_LOG_FILE", log_.c_str(), 1); }
    void TearDown() override {
        unsetenv("ZEP_DEBUG_LOG_FILE");
        zepSetAssertionCallback(nullptr);
        close(devnull_);
    }
    zeptest::TempDir temp_{"zepassert"};
    const std::string dir_ = temp_.path, log_ = temp_ / "debug.log";
    const int devnull_ = open("/dev/null", O_WRONLY);
};

TEST_F(Assert, HeadPairsPlacesAndTheCallback) {
    { std::ofstream(log_) << "before\n"; }  // appended behind what is there
    const char one[] = "0123456789abcdefXYZ", later[] = "never dumped";
    const Uint32 two = 0xA1B2C3D4u;
    zepAssertFailureAction("x > 0", "src/thing.cpp", 42, nullptr, 0, one, 19u, &two, 4u, nullptr,
                           later, 12u, nullptr);
    // A zero length ends the pairs too; zepAssertFailed has none and is not fatal.
    zepAssertFailureAction("e", "f", 1, "", 0, one, 0u, &two, 4u, nullptr);
    zepAssertFailed("y", "z.c", 7);
    EXPECT_EQ(blankTimes(slurp(log_)), "before\n" + head("x > 0", "src/thing.cpp", 42) +
                                           dumpOf(one, 19, 0) + dumpOf(&two, 4, 1) +
                                           head("e", "f", 1) + head("y", "z.c", 7));
    // A path selects the thread's file alone.
    ASSERT_EQ(unlink(log_.c_str()), 0);
    zepAssertFailureAction("bad", "a.c", 3, dir_.c_str(), 0, &two, 4u, nullptr);
    EXPECT_EQ(blankTimes(slurp(zeptest::threadFile(dir_))),
              head("bad", "a.c", 3) + dumpOf(&two, 4, 0));
    // The head is cut at 255 bytes.
    zepAssertFailed(std::string(400, 'e').c_str(), "f.c", 1);
    const std::string text = slurp(log_);
    EXPECT_EQ(text.size(), 255u);
    EXPECT_EQ(text.substr(0, 31) + text.back(), "NON-FATAL ASSERTION FAILED!!!\r\ne");

    // A callback replaces everything, the fatal action included.
    const std::string written = text + slurp(zeptest::threadFile(dir_));
    zepSetAssertionCallback(recordingCallback);
    zepAssertFailureAction("fatal one", "b.c", 9, dir_.c_str(), 1, "ab", 2u, "cde", 3u, "", 0u, "f",
                           1u, nullptr);
    zepAssertFailed("plain", "c.c", 10);
    EXPECT_EQ(g_calls, "fatal one|b.c|9|" + dir_ + "|1|ab|cde\nplain|c.c|10|(none)|0\n");
    EXPECT_EQ(slurp(log_) + slurp(zeptest::threadFile(dir_)), written);
}

// Without a path: the console when standard output is a terminal, and ZEP_DEBUG_LOG_FILE, or
// else the default facility's path, open or closed (a report once went nowhere then); with none of
// them a report goes nowhere.
TEST_F(Assert, PlacesWithoutAPath) {
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    unsetenv("ZEP_DEBUG_LOG_FILE");
    auto service = [&] {
        if (chdir(dir_.c_str()) != 0) _exit(3);
        zepAssertFailureAction("lost", "l.c", 1, nullptr, 0, "x", 1u, nullptr);
        openFacility(dir_ + "/service.log", ZEP_LOG_TARGET_STDERR);
        zepAssertFailed("while open", "s.c", 1);
        zepLogFacClose(nullptr);
        zepAssertFailed("after close", "s.c", 2);
        dup2(slave, 1);
        zepAssertFailureAction("quiet", "q.c", 1, "/no/such", 0, nullptr);  // a path: no console
        setenv("ZEP_DEBUG_LOG_FILE", log_.c_str(), 1);
        zepAssertFailureAction("loud", "l.c", 2, nullptr, 0, "pair", 4u, nullptr);
    };
    std::string errors;
    EXPECT_EQ(inChild(devnull_, service, &errors), 0);
    close(slave);
    std::string screen;
    char buffer[4096];
    for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) screen.append(buffer, n);
    close(master);
    EXPECT_EQ(errors + zeptest::listing(dir_), "debug.log\nservice.log\n");
    const std::string text = slurp(dir_ + "/service.log");
    EXPECT_THAT(text, AllOf(HasSubstr("= while open\r\n"), HasSubstr("= after close\r\n")));
    EXPECT_THAT(text, Not(HasSubstr("lost")));
    // The same report on the screen (its line feeds made CR LF by the terminal) and in the file.
    const std::string file = slurp(log_);
    EXPECT_THAT(file, HasSubstr("Expr       = loud\r\n"));
    EXPECT_EQ(std::regex_replace(file, std::regex("\n"), "\r\n"), screen);
}

// A report once went out in several writes and tore when other threads' reports or the log's own
// records went to the same file.
TEST_F(Assert, ConcurrentReportsLandWhole) {
    const char payload[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+-";
    auto report = [&] {
        for (int i = 0; i < 400; ++i)
            zepAssertFailureAction("racing", "r.c", 3, nullptr, 0, payload, 64u, payload, 64u,
                                   nullptr);
    };
    // A thread's reports beside a service's log records in its file: a report takes the lock.
    unsetenv("ZEP_DEBUG_LOG_FILE");
    auto service = [&] {
        openFacility(dir_ + "/shared.log", ZEP_LOG_TARGET_FILE);
        std::thread reports(report);
        for (Uint32 i = 0; i < 400; ++i)
            zepLog(nullptr, ZEPFN_zepFileRename, ECF_FAILED, 10, ZEP_LOG_INFO, 0);
        reports.join();
    };
    EXPECT_EQ(inChild(devnull_, service), 0);
    const std::string both = slurp(dir_ + "/shared.log");
    EXPECT_EQ(count(both, " LEVEL: Info\r\n"), 400u);
    EXPECT_EQ(count(both, "Line       = 3\r\n" + dumpOf(payload, 64, 0) + dumpOf(payload, 64, 1)),
              400u);
}

TEST_F(Assert, FatalReportsThenStopsWithACoreSignal) {
    std::string errors;
    const int status = inChild(
        devnull_, [] { zepAssertFailureAction("fatal", "x.c", 5, nullptr, 1, nullptr); }, &errors);
    EXPECT_EQ(status, 128 + SIGABRT);
    // The head, without "NON-FATAL", in the file and on the debugger's channel.
    const std::string file = slurp(log_);
    EXPECT_EQ(file.rfind("ASSERTION FAILED!!!\r\nTime", 0), 0u) << file;
    EXPECT_EQ(errors, file);
}

TEST(PointerTests, AddressesSizesAndMappings) {
    const long page = sysconf(_SC_PAGESIZE);
    const Uint32 p = static_cast<Uint32>(page);
    // A page to read and write, a read-only one, one of no access.
    char* m = static_cast<char*>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    memset(m, 'a', 2 * page);
    ASSERT_EQ(mprotect(m + page, page, PROT_READ), 0);
    ASSERT_EQ(mprotect(m + 2 * page, page, PROT_NONE), 0);
    const std::tuple<void*, Uint32, bool, bool> cases[] = {
        // address, size, good for reading, good for writing
        {m, p, true, true},
        {m, 0, false, false},
        {reinterpret_cast<char*>(4095), 1, false, false},
        {m, p + 1, true, false},       // one byte into the read-only page
        {m, 2 * p + 1, false, false},  // one byte into the page of no access
    };
    for (const auto& [at, size, read, write] : cases) {
        EXPECT_EQ(_zepIsBadReadPtr(at, size) == 0, read) << at << " " << size;
        EXPECT_EQ(_zepIsBadWritePtr(at, size, 1) == 0, write) << at << " " << size;
        EXPECT_EQ(_zepIsBadWritePtr(at, size, 0) == 0, read) << "write false: the read test";
    }
    // A string running into the page of no access is bad unless the maximum stops it first.
    EXPECT_EQ(_zepIsBadString(m + page - 10, p + 10), 0u);
    EXPECT_NE(_zepIsBadString(m + page - 10, p + 11), 0u);
    EXPECT_TRUE(_zepIsBadString(nullptr, 10) && _zepIsBadString("text", 0));
    ASSERT_EQ(munmap(m, 3 * page), 0);
    EXPECT_NE(_zepIsBadReadPtr(m, 1), 0u);  // memory given back
}

}  // namespace
