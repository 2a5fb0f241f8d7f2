// Assertion reports: the head byte for byte, the places (thread file under a path, the console
// when it is a terminal, ZEP_DEBUG_LOG_FILE), the pairs and their end, the callback that replaces
// everything, the fatal action; and the pointer tests on real mappings.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zeptest_util.h"

namespace {

using zeptest::exists;
using zeptest::slurp;

std::string threadFile(const std::string& dir) {
    return dir + "/p" + std::to_string(getpid()) + "t" + std::to_string(gettid()) + ".mem";
}

// The head that a report made now by this thread must have, but for the time line, which is
// checked for its shape and blanked.
std::string expectedHead(bool fatal, const std::string& expr, const std::string& file,
                         unsigned line) {
    return std::string(fatal ? "" : "NON-FATAL ") + "ASSERTION FAILED!!!\r\nTime       = *\nExpr" +
           "       = " + expr + "\r\nPID        = " + std::to_string(getpid()) +
           "\r\nTID        = " + std::to_string(gettid()) + "\r\nFile       = " + file +
           "\r\nLine       = " + std::to_string(line) + "\r\n";
}

// Replaces the asctime text of the first report in `text` by "*" after checking its shape,
// "Www Mmm dd hh:mm:ss yyyy".
std::string blankTime(std::string text) {
    const std::string key = "Time       = ";
    size_t at = text.find(key);
    if (at == std::string::npos) return text;
    at += key.size();
    size_t end = text.find('\n', at);
    EXPECT_EQ(end - at, 24u) << text.substr(at, end - at);
    EXPECT_EQ(text[at + 3], ' ');
    EXPECT_EQ(text[at + 13], ':');
    EXPECT_EQ(text[at + 16], ':');
    return text.substr(0, at) + "*" + text.substr(end);
}

std::string dumpOf(const void* data, Uint32 length) {
    char dump[4096];
    zepHexDumpToBuffer(data, length, dump, sizeof dump, "", ZEP_HEXDUMP_ADDRESS);
    return dump;
}

class Assert : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("ZEP_DEBUG_LOG_FILE");
        zepSetAssertionCallback(nullptr);
    }
    void TearDown() override {
        unsetenv("ZEP_DEBUG_LOG_FILE");
        zepSetAssertionCallback(nullptr);
    }
    zeptest::TempDir temp_{"zepassert"};
    const std::string dir_ = temp_.path;
};

TEST_F(Assert, HeadAndPairsInTheDebugLogFile) {
    const std::string log = dir_ + "/debug.log";
    ASSERT_EQ(setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1), 0);
    // Appended behind what is there.
    { std::ofstream(log) << "before\n"; }
    const char one[] = "0123456789abcdefXYZ";
    const Uint32 two = 0xA1B2C3D4u;
    const char later[] = "never dumped";
    zepAssertFailureAction("x > 0", "src/thing.cpp", 42, nullptr, 0, one, 19u, &two, 4u, nullptr,
                           later, 12u, nullptr);
    std::string text = slurp(log);
    ASSERT_EQ(text.compare(0, 7, "before\n"), 0);
    std::string expected = expectedHead(false, "x > 0", "src/thing.cpp", 42) + "dump data 0:\n" +
                           dumpOf(one, 19) + "dump data 1:\n" + dumpOf(&two, 4);
    EXPECT_EQ(blankTime(text.substr(7)), expected);

    // A zero length ends the pairs too; zepAssertFailed has none and is not fatal.
    ASSERT_EQ(unlink(log.c_str()), 0);
    zepAssertFailureAction("e", "f", 1, "", 0, one, 0u, &two, 4u, nullptr);
    zepAssertFailed("y", "z.c", 7);
    text = slurp(log);
    std::string first = expectedHead(false, "e", "f", 1);
    ASSERT_GT(text.size(), first.size());
    size_t second = text.find("NON-FATAL", 1);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(blankTime(text.substr(0, second)), first);
    EXPECT_EQ(blankTime(text.substr(second)), expectedHead(false, "y", "z.c", 7));
}

TEST_F(Assert, HeadIsCutAt255Bytes) {
    const std::string log = dir_ + "/debug.log";
    ASSERT_EQ(setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1), 0);
    std::string expr(400, 'e');
    zepAssertFailed(expr.c_str(), "f.c", 1);
    std::string text = slurp(log);
    EXPECT_EQ(text.size(), 255u);
    EXPECT_EQ(text.compare(0, 29, "NON-FATAL ASSERTION FAILED!!!"), 0);
    EXPECT_EQ(text.back(), 'e');
}

TEST_F(Assert, PathSelectsTheThreadFileOnly) {
    const std::string log = dir_ + "/debug.log";
    ASSERT_EQ(setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1), 0);
    const Uint32 word = 7;
    zepAssertFailureAction("bad", "a.c", 3, dir_.c_str(), 0, &word, 4u, nullptr);
    zepAssertFailureAction("worse", "a.c", 4, dir_.c_str(), 0, nullptr);
    EXPECT_FALSE(exists(log));
    std::string text = slurp(threadFile(dir_));
    std::string first = expectedHead(false, "bad", "a.c", 3) + "dump data 0:\n" + dumpOf(&word, 4);
    size_t second = text.find("NON-FATAL", 1);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(blankTime(text.substr(0, second)), first);
    EXPECT_EQ(blankTime(text.substr(second)), expectedHead(false, "worse", "a.c", 4));
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

TEST_F(Assert, CallbackReplacesEverythingEvenTheFatalAction) {
    const std::string log = dir_ + "/debug.log";
    ASSERT_EQ(setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1), 0);
    g_calls.clear();
    zepSetAssertionCallback(recordingCallback);
    zepAssertFailureAction("fatal one", "b.c", 9, dir_.c_str(), 1, "ab", 2u, "cde", 3u, "", 0u, "f",
                           1u, nullptr);
    zepAssertFailed("plain", "c.c", 10);
    zepSetAssertionCallback(nullptr);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0], "fatal one|b.c|9|" + dir_ + "|1|ab|cde");
    EXPECT_EQ(g_calls[1], "plain|c.c|10|(none)|0");
    EXPECT_FALSE(exists(log));
    EXPECT_FALSE(exists(threadFile(dir_)));
}

// Runs `body` in a child whose standard output is `out` and standard error a pipe; returns the
// child's wait status and what it wrote to standard error.
int inChild(int out, const std::function<void()>& body, std::string* errors) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return -1;
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(pipeFds[1], 2);
        close(pipeFds[0]);
        struct rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        body();
        fflush(stdout);
        _exit(0);
    }
    close(pipeFds[1]);
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0)
        errors->append(buffer, static_cast<size_t>(n));
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

std::string drainTerminal(int master) {
    std::string text;
    char buffer[4096];
    for (;;) {
        struct pollfd p = {master, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) break;
        ssize_t n = read(master, buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

TEST_F(Assert, ConsoleWhenStandardOutputIsATerminal) {
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    struct termios raw;
    ASSERT_EQ(tcgetattr(slave, &raw), 0);
    cfmakeraw(&raw);  // no CR inserted in front of LF
    ASSERT_EQ(tcsetattr(slave, TCSANOW, &raw), 0);
    const std::string log = dir_ + "/debug.log";
    const std::string dir = dir_;
    std::string errors;
    const char data[] = "pairdata";
    int status = inChild(
        slave,
        [&] {
            // With a path the console gets nothing, terminal or not.
            zepAssertFailureAction("quiet", "q.c", 1, dir.c_str(), 0, nullptr);
            setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1);
            zepAssertFailureAction("loud", "l.c", 2, nullptr, 0, data, 8u, nullptr);
        },
        &errors);
    close(slave);
    std::string screen = drainTerminal(master);
    close(master);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    std::string pidText = "PID        = ";
    size_t at = screen.find(pidText);
    ASSERT_NE(at, std::string::npos) << screen;
    // The child's identities are its own; the rest of the text is fixed.
    std::string expectedTail =
        "\r\nFile       = l.c\r\nLine       = 2\r\ndump data 0:\n" + dumpOf(data, 8);
    EXPECT_EQ(screen.compare(0, 29, "NON-FATAL ASSERTION FAILED!!!"), 0) << screen;
    EXPECT_NE(screen.find("Expr       = loud\r\n"), std::string::npos) << screen;
    EXPECT_EQ(screen.find("quiet"), std::string::npos) << screen;
    EXPECT_EQ(screen.substr(screen.size() - expectedTail.size()), expectedTail) << screen;
    // The file named by the variable has the same report.
    std::string file = slurp(log);
    EXPECT_EQ(file.substr(file.find("Expr")), screen.substr(screen.find("Expr")));
}

TEST_F(Assert, NowhereWithoutAPlace) {
    // Standard output a file (no terminal), no path, no variable, and the default facility
    // never got a path in this child: nothing is written anywhere.
    const std::string out = dir_ + "/stdout";
    int fd = open(out.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    std::string errors;
    const std::string dir = dir_;
    int status = inChild(
        fd,
        [&] {
            if (chdir(dir.c_str()) != 0) _exit(3);
            zepAssertFailureAction("lost", "l.c", 1, nullptr, 0, "x", 1u, nullptr);
        },
        &errors);
    close(fd);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(slurp(out), "");
    EXPECT_EQ(errors, "");
    // The directory holds the captured standard output alone.
    std::string listing;
    FILE* ls = popen(("ls -A '" + dir_ + "'").c_str(), "r");
    char name[256];
    while (fgets(name, sizeof name, ls)) listing += name;
    pclose(ls);
    EXPECT_EQ(listing, "stdout\n");
}

TEST_F(Assert, DefaultFacilitysPathOpenOrNot) {
    // A service whose default facility writes elsewhere, or was closed: its path still takes the
    // reports. (In a child: the facility's path would stay behind in this process.)
    const std::string log = dir_ + "/service.log";
    int devnull = open("/dev/null", O_WRONLY);
    ASSERT_GE(devnull, 0);
    std::string errors;
    const int status = inChild(
        devnull,
        [&] {
            ZEPLogFacilityParam p;
            snprintf(p.path, sizeof p.path, "%s", log.c_str());
            snprintf(p.name, sizeof p.name, "service");
            p.level = ZEP_LOG_INFO;
            p.target = ZEP_LOG_TARGET_STDERR;
            if (zepLogFacOpen(&p, nullptr) != 0) _exit(2);
            zepAssertFailed("while open", "s.c", 1);
            zepLogFacClose(nullptr);
            zepAssertFailed("after close", "s.c", 2);
        },
        &errors);
    close(devnull);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string text = slurp(log);
    EXPECT_NE(text.find("Expr       = while open"), std::string::npos) << text;
    EXPECT_NE(text.find("Expr       = after close"), std::string::npos) << text;
}

// Each report lands whole however many threads and processes report into one file; and reports
// into the log's own file leave every log record whole too.
TEST_F(Assert, ConcurrentReportsLandWhole) {
    const std::string log = dir_ + "/debug.log";
    ASSERT_EQ(setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1), 0);
    // Reports of several pairs: long enough for threads to meet in the middle of one.
    char payload[256];
    for (size_t i = 0; i < sizeof payload; ++i) payload[i] = static_cast<char>('a' + i % 26);
    std::string tail;
    for (int i = 0; i < 4; ++i)
        tail += "dump data " + std::to_string(i) + ":\n" + dumpOf(payload, sizeof payload);
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
    for (pid_t& c : children) {
        c = fork();
        ASSERT_GE(c, 0);
        if (c == 0) {
            std::thread other(report, 250);
            report(250);
            other.join();
            _exit(0);
        }
    }
    for (pid_t c : children) {
        int status = 0;
        ASSERT_EQ(waitpid(c, &status, 0), c);
        EXPECT_EQ(status, 0);
    }
    const std::string text = slurp(log);
    const std::string head = "NON-FATAL ASSERTION FAILED!!!\r\n";
    size_t count = 0, torn = 0;
    for (size_t at = 0; at < text.size(); ++count) {
        size_t next = text.find(head, at + 1);
        if (next == std::string::npos) next = text.size();
        const std::string one = text.substr(at, next - at);
        torn += one.compare(0, head.size(), head) != 0 || one.size() < tail.size() ||
                one.compare(one.size() - tail.size(), tail.size(), tail) != 0 ||
                one.find("Expr       = racing\r\n") == std::string::npos;
        at = next;
    }
    EXPECT_EQ(count, 3000u);
    EXPECT_EQ(torn, 0u);

    // Log records and reports in one file: the report takes the log's lock.
    unsetenv("ZEP_DEBUG_LOG_FILE");
    const std::string shared = dir_ + "/shared.log";
    int devnull = open("/dev/null", O_WRONLY);
    ASSERT_GE(devnull, 0);
    std::string errors;
    const int status = inChild(
        devnull,
        [&] {
            ZEPLogFacilityParam p;
            snprintf(p.path, sizeof p.path, "%s", shared.c_str());
            snprintf(p.name, sizeof p.name, "shared");
            p.level = ZEP_LOG_INFO;
            p.target = ZEP_LOG_TARGET_FILE;
            p.permissions = 0644;
            if (zepLogFacOpen(&p, nullptr) != 0) _exit(2);
            std::thread reports(report, 400);
            for (Uint32 i = 0; i < 400; ++i)
                zepLog(nullptr, ZEPFN_zepFileRename, ECF_FAILED, 10, ZEP_LOG_INFO, 0);
            reports.join();
        },
        &errors);
    close(devnull);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string both = slurp(shared);
    size_t records = 0, reports = 0;
    for (size_t at = 0; (at = both.find(" LEVEL: Info\r\n", at)) != std::string::npos; ++at)
        ++records;
    for (size_t at = 0; (at = both.find(head + "Time", at)) != std::string::npos; ++at) ++reports;
    EXPECT_EQ(records, 400u);
    EXPECT_EQ(reports, 400u);
}

TEST_F(Assert, FatalReportsThenStopsWithACoreSignal) {
    const std::string log = dir_ + "/debug.log";
    int devnull = open("/dev/null", O_WRONLY);
    ASSERT_GE(devnull, 0);
    std::string errors;
    int status = inChild(
        devnull,
        [&] {
            setenv("ZEP_DEBUG_LOG_FILE", log.c_str(), 1);
            zepAssertFailureAction("fatal", "x.c", 5, nullptr, 1, nullptr);
            _exit(9);  // never reached
        },
        &errors);
    close(devnull);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    // The head, without "NON-FATAL", in the file and on the debugger's channel.
    std::string file = slurp(log);
    EXPECT_EQ(file.compare(0, 19, "ASSERTION FAILED!!!"), 0) << file;
    EXPECT_EQ(errors, file);
}

TEST(PointerTests, AddressesSizesAndMappings) {
    const long page = sysconf(_SC_PAGESIZE);
    int local = 5;
    EXPECT_NE(_zepIsBadReadPtr(reinterpret_cast<void*>(4095), 1), 0u);
    EXPECT_NE(_zepIsBadReadPtr(nullptr, 1), 0u);
    EXPECT_NE(_zepIsBadReadPtr(&local, 0), 0u);
    EXPECT_EQ(_zepIsBadReadPtr(&local, sizeof local), 0u);
    EXPECT_EQ(_zepIsBadWritePtr(&local, sizeof local, 1), 0u);
    EXPECT_NE(_zepIsBadWritePtr(&local, 0, 1), 0u);
    EXPECT_NE(_zepIsBadWritePtr(reinterpret_cast<void*>(16), 4, 0), 0u);

    // Three pages: read-write, read-only, none.
    char* m = static_cast<char*>(
        mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(m, MAP_FAILED);
    ASSERT_EQ(mprotect(m + page, page, PROT_READ), 0);
    ASSERT_EQ(mprotect(m + 2 * page, page, PROT_NONE), 0);
    const Uint32 p = static_cast<Uint32>(page);
    EXPECT_EQ(_zepIsBadReadPtr(m, 2 * p), 0u);
    EXPECT_NE(_zepIsBadReadPtr(m, 2 * p + 1), 0u);  // one byte into the protected page
    EXPECT_NE(_zepIsBadReadPtr(m + 2 * page, 1), 0u);
    EXPECT_EQ(_zepIsBadWritePtr(m, p, 1), 0u);
    EXPECT_NE(_zepIsBadWritePtr(m, p + 1, 1), 0u);     // into the read-only page
    EXPECT_EQ(_zepIsBadWritePtr(m + page, p, 0), 0u);  // write false: the read test
    EXPECT_NE(_zepIsBadWritePtr(m + page, p, 1), 0u);

    // Strings: ended before the protected page is good, running into it is bad unless the
    // maximum stops first.
    memset(m, 'a', page);
    ASSERT_EQ(mprotect(m + page, page, PROT_READ | PROT_WRITE), 0);
    memset(m + page, 'b', page);
    ASSERT_EQ(mprotect(m + page, page, PROT_READ), 0);
    EXPECT_NE(_zepIsBadString(m + page - 10, 0xFFFFFFFFu), 0u);
    EXPECT_EQ(_zepIsBadString(m + page - 10, p + 10), 0u);
    EXPECT_NE(_zepIsBadString(m + page - 10, p + 11), 0u);
    EXPECT_NE(_zepIsBadString(nullptr, 10), 0u);
    EXPECT_NE(_zepIsBadString("text", 0), 0u);
    EXPECT_EQ(_zepIsBadString("text", 100), 0u);
    m[page - 1] = 0;
    EXPECT_EQ(_zepIsBadString(m + page - 10, 0xFFFFFFFFu), 0u);

    // A range that wraps around the address space, and memory given back.
    EXPECT_NE(_zepIsBadReadPtr(m, 0xFFFFFFFFu), 0u);
    ASSERT_EQ(munmap(m, 3 * page), 0);
    EXPECT_NE(_zepIsBadReadPtr(m, 1), 0u);
    EXPECT_NE(_zepIsBadWritePtr(m, 1, 1), 0u);
}

TEST(PointerTests, PagesBeyondTheEndOfAMappedFile) {
    const long page = sysconf(_SC_PAGESIZE);
    char name[] = "/tmp/zepmapXXXXXX";
    int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    unlink(name);
    ASSERT_EQ(ftruncate(fd, page), 0);
    char* m =
        static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    ASSERT_NE(m, MAP_FAILED);
    const Uint32 p = static_cast<Uint32>(page);
    EXPECT_EQ(_zepIsBadReadPtr(m, p), 0u);
    EXPECT_EQ(_zepIsBadWritePtr(m, p, 1), 0u);
    // The second page lies beyond the file's end: touching it would raise SIGBUS.
    EXPECT_NE(_zepIsBadReadPtr(m + page, 1), 0u);
    EXPECT_NE(_zepIsBadWritePtr(m + page, 1, 1), 0u);
    munmap(m, 2 * page);
}

}  // namespace
