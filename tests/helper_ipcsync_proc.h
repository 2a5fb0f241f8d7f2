// helper_ipcsync_proc.h - runs a helper_ipcsync process and reads its lines.
#ifndef HELPER_IPCSYNC_PROC_H
#define HELPER_IPCSYNC_PROC_H

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace zeptest {

// How many times bigger the runs are with ZEP_STRESS set.
inline unsigned stressFactor() {
    const char* s = getenv("ZEP_STRESS");
    return s && *s ? static_cast<unsigned>(atoi(s) > 1 ? atoi(s) : 10) : 1;
}

class Proc {
public:
    explicit Proc(std::initializer_list<std::string> args, const char* helper = "helper_ipcsync") {
        int fds[2];
        if (pipe(fds) != 0) return;
        std::vector<std::string> a;
        a.push_back(std::string(ZEP_TEST_BIN_DIR "/") + helper);
        for (const std::string& s : args) a.push_back(s);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], 1);
            close(fds[0]);
            close(fds[1]);
            std::vector<char*> argv;
            for (std::string& s : a) argv.push_back(s.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(fds[1]);
        fd_ = fds[0];
    }
    Proc(const Proc&) = delete;
    ~Proc() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0) close(fd_);
    }
    // The next line, or "" if none came within the time.
    std::string line(int timeoutMs = 120000) {
        for (;;) {
            const size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                std::string l = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return l;
            }
            pollfd p{fd_, POLLIN, 0};
            char b[256];
            if (poll(&p, 1, timeoutMs) <= 0) return "";
            const ssize_t n = read(fd_, b, sizeof b);
            if (n <= 0) return "";
            buf_.append(b, static_cast<size_t>(n));
        }
    }
    // The exit status (0 for a clean exit), after it ends.
    int finish() {
        int status = -1;
        if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) pid_ = -1;
        return status;
    }
    void killHard() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string buf_;
};

}  // namespace zeptest

#endif
