// Assertion reports: the head byte for byte, the places (thread file under a path, the console
// when it is a terminal, ZEP_DEBUG_LOG_FILE, the default facility's path), the pairs and their
// end, the callback that replaces everything, the fatal action; the pointer tests on mappings.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using zeptest::exists;
using zeptest::slurp;

// The head of a report made now by this thread, with "*" for the time.
std::string head(const std::string& expr, const std::string& file, unsigned line) {
    return "NON-FATAL ASSERTION FAILED!!!\r\nTime       = *\nExpr       = " + expr +
           "\r\nPID        = " + std::to_string(getpid()) +
           "\r\nTID        = " + std::to_string(gettid()) + "\r\nFile       = " + file +
           "\r\nLine       = " + std::to_string(line) + "\r\n";
}

// Each report's asctime text, "Www Mmm dd hh:mm:ss yyyy", checked for its shape and made "*".
std::string blankTimes(std::string text) {
    const std::string key = "Time       = ";
    for (size_t at = 0; (at = text.find(key, at)) != std::string::npos;) {
        at += key.size();
        const size_t end = text.find('\n', at);
        EXPECT_EQ(end - at, 24u) << text.substr(at, end - at);
        EXPECT_EQ(text.substr(at + 3, 1) + text[at + 13] + text[at + 16], " ::");
        text.erase(at, end - at);
        text.insert(at, 1, '*');
    }
    return text;
}

std::string dumpOf(const void* data, Uint32 length, int index) {
    char dump[4096];
    zepHexDumpToBuffer(data, length, dump, sizeof dump, "", ZEP_HEXDUMP_ADDRESS);
    return "dump data " + std::to_string(index) + ":\n" + dump;
}

// Runs `body` in a child whose standard output is `out`; its wait status, and what it wrote to
// standard error in `errors`.
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
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// A child that opens the default facility on `log` (to a file, or to standard error) first.
void withFacility(const std::string& log, Uint32 target, const std::function<void()>& body) {
    ZEPLogFacilityParam p;
    snprintf(p.path, sizeof p.path, "%s", log.c_str());
    snprintf(p.name, sizeof p.name, "service");
    p.level = ZEP_LOG_INFO;
    p.target = target;
    p.permissions = 0644;
    const int devnull = open("/dev/null", O_WRONLY);
    EXPECT_EQ(inChild(devnull,
                      [&] {
                          if (zepLogFacOpen(&p, nullptr) != 0) _exit(2);
                          body();
                      }),
              0);
    close(devnull);
}

std::vector<std::string> g_calls;

void recordingCallback(String expression, String file, Uint32 line, String path, Bool fatal,
                       const ZEPAssertPair* pairs) {
    std::string call = std::string(expression) + "|" + file + "|" + std::to_string(line) + "|" +
                       (path ? path : "(none)") + "|" + std::to_string(fatal);
    for (; pairs->data != nullptr; ++pairs)
        call.append("|").append(static_cast<const char*>(pairs->data), pairs->length);
    g_calls.push_back(call);
}

class Assert : public ::testing::Test {
protected:
    void SetUp() override { setenv("ZEP_DEBUG_LOG_FILE", log_.c_str(), 1); }
    void TearDown() override {
        unsetenv("ZEP_DEBUG_LOG_FILE");
        zepSetAssertionCallback(nullptr);
    }
    zeptest::TempDir temp_{"zepassert"};
    const std::string dir_ = temp_.path, log_ = temp_ / "debug.log";
};

TEST_F(Assert, HeadPairsAndPlaces) {
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
    zepAssertFailureAction("worse", "a.c", 4, dir_.c_str(), 0, nullptr);
    EXPECT_FALSE(exists(log_));
    EXPECT_EQ(blankTimes(slurp(zeptest::threadFile(dir_))),
              head("bad", "a.c", 3) + dumpOf(&two, 4, 0) + head("worse", "a.c", 4));

    // The head is cut at 255 bytes.
    zepAssertFailed(std::string(400, 'e').c_str(), "f.c", 1);
    const std::string text = slurp(log_);
    EXPECT_EQ(text.size(), 255u);
    EXPECT_EQ(text.compare(0, 29, "NON-FATAL ASSERTION FAILED!!!"), 0);
    EXPECT_EQ(text.back(), 'e');
}

TEST_F(Assert, CallbackReplacesEverythingEvenTheFatalAction) {
    g_calls.clear();
    zepSetAssertionCallback(recordingCallback);
    zepAssertFailureAction("fatal one", "b.c", 9, dir_.c_str(), 1, "ab", 2u, "cde", 3u, "", 0u, "f",
                           1u, nullptr);
    zepAssertFailed("plain", "c.c", 10);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"fatal one|b.c|9|" + dir_ + "|1|ab|cde",
                                                 "plain|c.c|10|(none)|0"}));
    EXPECT_EQ(zeptest::listing(dir_), "");
}

TEST_F(Assert, ConsoleWhenStandardOutputIsATerminal) {
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    struct termios raw;
    ASSERT_EQ(tcgetattr(slave, &raw), 0);
    cfmakeraw(&raw);  // no CR inserted in front of LF
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &raw), 0);
    const char data[] = "pairdata";
    unsetenv("ZEP_DEBUG_LOG_FILE");
    const int status = inChild(slave, [&] {
        // With a path the console gets nothing, terminal or not.
        zepAssertFailureAction("quiet", "q.c", 1, dir_.c_str(), 0, nullptr);
        setenv("ZEP_DEBUG_LOG_FILE", log_.c_str(), 1);
        zepAssertFailureAction("loud", "l.c", 2, nullptr, 0, data, 8u, nullptr);
    });
    close(slave);
    std::string screen;
    char buffer[4096];
    for (struct pollfd p = {master, POLLIN, 0}; poll(&p, 1, 200) > 0;) {
        const ssize_t n = read(master, buffer, sizeof buffer);
        if (n <= 0) break;
        screen.append(buffer, static_cast<size_t>(n));
    }
    close(master);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    // The child's identities are its own; the rest of the text is fixed, and the file named by
    // the variable has the same report.
    const std::string tail = "\r\nFile       = l.c\r\nLine       = 2\r\n" + dumpOf(data, 8, 0);
    EXPECT_EQ(screen.compare(0, 29, "NON-FATAL ASSERTION FAILED!!!"), 0) << screen;
    EXPECT_NE(screen.find("Expr       = loud\r\n"), std::string::npos) << screen;
    EXPECT_EQ(screen.find("quiet"), std::string::npos) << screen;
    EXPECT_EQ(screen.substr(screen.size() - tail.size()), tail) << screen;
    const std::string file = slurp(log_);
    EXPECT_EQ(file.substr(file.find("Expr")), screen.substr(screen.find("Expr")));
}

TEST_F(Assert, NowhereWithoutAPlaceThenTheDefaultFacilitysPath) {
    // Standard output a file (no terminal), no path, no variable, and the default facility never
    // got a path in this child: nothing is written anywhere.
    unsetenv("ZEP_DEBUG_LOG_FILE");
    const std::string out = dir_ + "/stdout";
    const int fd = open(out.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    std::string errors;
    const int status = inChild(
        fd,
        [&] {
            if (chdir(dir_.c_str()) != 0) _exit(3);
            zepAssertFailureAction("lost", "l.c", 1, nullptr, 0, "x", 1u, nullptr);
        },
        &errors);
    close(fd);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(errors, "");
    EXPECT_EQ(zeptest::listing(dir_), "stdout\n");
    EXPECT_EQ(slurp(out), "");

    // A service whose default facility writes elsewhere, or was closed: its path still takes the
    // reports.
    const std::string log = dir_ + "/service.log";
    withFacility(log, ZEP_LOG_TARGET_STDERR, [] {
        zepAssertFailed("while open", "s.c", 1);
        zepLogFacClose(nullptr);
        zepAssertFailed("after close", "s.c", 2);
    });
    const std::string text = slurp(log);
    EXPECT_NE(text.find("Expr       = while open"), std::string::npos) << text;
    EXPECT_NE(text.find("Expr       = after close"), std::string::npos) << text;
}

// Each report lands whole however many threads and processes report into one file; and reports
// into the log's own file leave every log record whole too.
TEST_F(Assert, ConcurrentReportsLandWhole) {
    char payload[256];
    for (size_t i = 0; i < sizeof payload; ++i) payload[i] = static_cast<char>('a' + i % 26);
    std::string tail;
    for (int i = 0; i < 4; ++i) tail += dumpOf(payload, sizeof payload, i);
    auto report = [&](int n) {
        for (int i = 0; i < n; ++i)
            zepAssertFailureAction("racing", "r.c", 3, nullptr, 0, payload, 256u, payload, 256u,
                                   payload, 256u, payload, 256u, nullptr);
    };
    // Four threads, then two processes of two threads each.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(report, 500);
    for (std::thread& t : threads) t.join();
    pid_t children[2];
    for (pid_t& c : children)
        if ((c = fork()) == 0) {
            std::thread other(report, 250);
            report(250);
            other.join();
            _exit(0);
        }
    for (pid_t c : children) EXPECT_EQ(zeptest::waitExit(c), 0);
    const std::string text = slurp(log_);
    const std::string start = "NON-FATAL ASSERTION FAILED!!!\r\n";
    size_t count = 0, torn = 0;
    for (size_t at = 0, next; at < text.size(); ++count, at = next) {
        if ((next = text.find(start, at + 1)) == std::string::npos) next = text.size();
        const std::string one = text.substr(at, next - at);
        torn += one.rfind(start, 0) != 0 || one.size() < tail.size() ||
                one.compare(one.size() - tail.size(), tail.size(), tail) != 0 ||
                one.find("Expr       = racing\r\n") == std::string::npos;
    }
    EXPECT_EQ(count, 3000u);
    EXPECT_EQ(torn, 0u);

    // Log records and reports in one file: the report takes the log's lock.
    unsetenv("ZEP_DEBUG_LOG_FILE");
    const std::string shared = dir_ + "/shared.log";
    withFacility(shared, ZEP_LOG_TARGET_FILE, [&] {
        std::thread reports(report, 400);
        for (Uint32 i = 0; i < 400; ++i)
            zepLog(nullptr, ZEPFN_zepFileRename, ECF_FAILED, 10, ZEP_LOG_INFO, 0);
        reports.join();
    });
    const std::string both = slurp(shared);
    size_t records = 0, reports = 0;
    for (size_t at = 0; (at = both.find(" LEVEL: Info\r\n", at)) != std::string::npos; ++at)
        ++records;
    for (size_t at = 0; (at = both.find(start + "Time", at)) != std::string::npos; ++at) ++reports;
    EXPECT_EQ(records, 400u);
    EXPECT_EQ(reports, 400u);
}

TEST_F(Assert, FatalReportsThenStopsWithACoreSignal) {
    const int devnull = open("/dev/null", O_WRONLY);
    std::string errors;
    const int status = inChild(
        devnull, [] { zepAssertFailureAction("fatal", "x.c", 5, nullptr, 1, nullptr); }, &errors);
    close(devnull);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    // The head, without "NON-FATAL", in the file and on the debugger's channel.
    const std::string file = slurp(log_);
    EXPECT_EQ(file.compare(0, 19, "ASSERTION FAILED!!!"), 0) << file;
    EXPECT_EQ(errors, file);
}

TEST(PointerTests, AddressesSizesAndMappings) {
    const long page = sysconf(_SC_PAGESIZE);
    const Uint32 p = static_cast<Uint32>(page);
    // Three pages, read-write, read-only and none, and a file of one page mapped on two: the
    // second lies beyond the file's end, where touching it would raise SIGBUS.
    char* m = static_cast<char*>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(m, MAP_FAILED);
    memset(m, 'a', 2 * page);
    ASSERT_EQ(mprotect(m + page, page, PROT_READ), 0);
    ASSERT_EQ(mprotect(m + 2 * page, page, PROT_NONE), 0);
    char name[] = "/tmp/zepmapXXXXXX";
    const int fd = mkstemp(name);
    unlink(name);
    ASSERT_EQ(ftruncate(fd, page), 0);
    char* f =
        static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    int local = 5;
    struct {
        void* at;
        Uint32 size;
        bool read, write;  // good for reading, for writing
    } cases[] = {
        {&local, sizeof local, true, true},
        {&local, 0, false, false},
        {reinterpret_cast<void*>(4095), 1, false, false},
        {nullptr, 1, false, false},
        {m, 2 * p, true, false},
        {m, p, true, true},
        {m, p + 1, true, false},
        {m, 2 * p + 1, false, false},  // one byte into the protected page
        {m + 2 * page, 1, false, false},
        {m + page, p, true, false},
        {m, 0xFFFFFFFFu, false, false},  // wraps around the address space
        {f, p, true, true},
        {f + page, 1, false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(_zepIsBadReadPtr(c.at, c.size) == 0, c.read) << c.at << " " << c.size;
        EXPECT_EQ(_zepIsBadWritePtr(c.at, c.size, 1) == 0, c.write) << c.at << " " << c.size;
        EXPECT_EQ(_zepIsBadWritePtr(c.at, c.size, 0) == 0, c.read) << "write false: the read test";
    }

    // Strings: running into the protected page is bad unless the maximum stops first; one
    // that ends before it is good.
    EXPECT_NE(_zepIsBadString(m + page - 10, 0xFFFFFFFFu), 0u);
    EXPECT_EQ(_zepIsBadString(m + page - 10, p + 10), 0u);
    EXPECT_NE(_zepIsBadString(m + page - 10, p + 11), 0u);
    EXPECT_NE(_zepIsBadString(nullptr, 10), 0u);
    EXPECT_NE(_zepIsBadString("text", 0), 0u);
    EXPECT_EQ(_zepIsBadString("text", 100), 0u);
    m[page - 1] = 0;
    EXPECT_EQ(_zepIsBadString(m + page - 10, 0xFFFFFFFFu), 0u);
    munmap(f, 2 * page);
    ASSERT_EQ(munmap(m, 3 * page), 0);
    EXPECT_NE(_zepIsBadReadPtr(m, 1), 0u);  // memory given back
    EXPECT_NE(_zepIsBadWritePtr(m, 1, 1), 0u);
}

}  // namespace
