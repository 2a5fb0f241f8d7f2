// zeptest_ipc.h - the helper_ipc process (one command a line in, answers a line out), the log
// records of a failure in one line, and the look at /dev/shm that tells what a test left behind.
#ifndef ZEPTEST_IPC_H
#define ZEPTEST_IPC_H

#include <fcntl.h>
#include <signal.h>

#include "zeptest_capture.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace zeptest {

// Descriptors beyond the two pipes are closed at exec unless `inherit` keeps the inheritable ones.
struct IpcProc {
    explicit IpcProc(bool inherit = false) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        if ((pid_ = fork()) == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            for (int fd = 3; !inherit && fd < 1024; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
            execl(ZEP_TEST_BIN_DIR "/helper_ipc", "helper_ipc", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(in[0]), close(out[1]);
        to_ = in[1], from_ = fdopen(out[0], "r");
    }
    // Its input closed, a helper has five seconds to end on its own (and write its profile).
    ~IpcProc() {
        if (to_ >= 0) close(to_), to_ = -1;
        for (int i = 0; pid_ > 0 && i < 500; ++i, usleep(10000))
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
        finish(SIGKILL);
    }
    void send(const std::string& command) {
        const std::string l = command + "\n";
        EXPECT_EQ(write(to_, l.data(), l.size()), static_cast<ssize_t>(l.size()));
    }
    // The next answer ("" at the helper's end); ctest bounds the wait.
    std::string line() {
        char b[512];
        return from_ && fgets(b, sizeof b, from_) ? std::string(b, strcspn(b, "\n")) : "";
    }
    std::string run(const std::string& command) { return send(command), line(); }
    // Ends the helper by `signal`, or else by closing its input; its exit status.
    int finish(int signal = 0) {
        int status = -1;
        if (signal != 0 && pid_ > 0) ::kill(pid_, signal);
        if (to_ >= 0) close(to_), to_ = -1;
        if (pid_ > 0) waitpid(pid_, &status, 0), pid_ = -1;
        if (from_) fclose(from_), from_ = nullptr;
        return status;
    }
    pid_t pid_ = -1;
    int to_ = -1;
    FILE* from_ = nullptr;
};

// The "none" handle of the IPC classes.
inline void* const kNoHandle = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

// The log records captured, and the error records when the trace is on, as "KIND PROBE[/ERROR]"
// ("logsys 90/183 log 90 error 90": the platform's error or the called function's result), each
// log record checked to carry `code` unless that is kAnyCode; the capture emptied.
constexpr Uint32 kAnyCode = ~0u;
inline std::string logShape(Uint32 code) {
    std::string out;
    for (const Call& c : calls)
        if (c.what.compare(0, 3, "log") == 0 || c.what == "error") {
            const bool masked = c.what == "logrc" || c.what == "logsys";
            EXPECT_TRUE(code == kAnyCode || c.what == "error" || c.code == code) << c.probe;
            out += (out.empty() ? "" : " ") + c.what + " " + std::to_string(c.probe) +
                   (masked ? "/" + std::to_string(c.err) : "");
        }
    calls.clear();
    return out;
}

// A call refused with `code` and its one log record of `fid` at `probe`; the capture emptied.
inline void refused(Uint32 rc, Uint32 code, Uint32 fid, Uint32 probe,
                    Uint32 level = ZEP_LOG_ERROR) {
    EXPECT_EQ(rc, code);
    theLog(fid, probe, code, level);
    calls.clear();
}

// A test whose IPC names carry `tag_` (this process's own): none may be left in /dev/shm.
class IpcTest : public CaptureTest {
protected:
    void TearDown() override {
        const std::string left = listing("/dev/shm");
        EXPECT_EQ(left.find(tag_), std::string::npos) << left;
        CaptureTest::TearDown();
    }
    // The identifier of the path `tag_` + `what` with seed 1, as helper_ipc derives it.
    ZEPIPCResID idOf(const std::string& what) const {
        ZEPIPCResIDParam p;
        const std::string path = tag_ + what;
        p.path = path.c_str(), p.seed = 1;
        ZEPIPCResID id;
        EXPECT_EQ(zepIPCGetResID(&p, &id), 0u);
        return id;
    }
    const std::string tag_ = "zt" + std::to_string(getpid()) + "x";
};

}  // namespace zeptest

#endif
