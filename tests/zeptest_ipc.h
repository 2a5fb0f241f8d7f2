// zeptest_ipc.h - a helper_ipc process driven line by line, and the look at /dev/shm that tells
// what the IPC tests left behind.
#ifndef ZEPTEST_IPC_H
#define ZEPTEST_IPC_H

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace zeptest {

// A helper_ipc process: each command is one line in, one line out. Its descriptors beyond the
// two pipes are closed at exec unless `inherit` asks to keep those that may be inherited, as a
// process started with inheritance asked would get them.
class IpcProc {
public:
    explicit IpcProc(bool inherit = false) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            if (!inherit) closefrom_cloexec();
            execl(ZEP_TEST_BIN_DIR "/helper_ipc", "helper_ipc", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        to_ = in[1];
        from_ = out[0];
    }
    ~IpcProc() { kill(SIGKILL); }
    IpcProc(const IpcProc&) = delete;
    IpcProc& operator=(const IpcProc&) = delete;

    // Sends a command and returns its answer ("" if none came within the time).
    std::string run(const std::string& command, int timeoutMs = 20000) {
        std::string line = command + "\n";
        if (write(to_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return "";
        std::string answer;
        for (;;) {
            pollfd p{from_, POLLIN, 0};
            char c;
            if (poll(&p, 1, timeoutMs) <= 0 || read(from_, &c, 1) != 1) return answer;
            if (c == '\n') return answer;
            answer += c;
        }
    }
    void kill(int signal) {
        if (pid_ <= 0) return;
        ::kill(pid_, signal);
        reap();
    }
    // Ends the helper by closing its input and returns its exit status.
    int finish() {
        if (to_ >= 0) close(to_), to_ = -1;
        return reap();
    }
    pid_t pid() const { return pid_; }

private:
    static void closefrom_cloexec() {
        for (int fd = 3; fd < 1024; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    int reap() {
        int status = -1;
        if (pid_ > 0) waitpid(pid_, &status, 0);
        pid_ = -1;
        if (to_ >= 0) close(to_), to_ = -1;
        if (from_ >= 0) close(from_), from_ = -1;
        return status;
    }
    pid_t pid_ = -1;
    int to_ = -1, from_ = -1;
};

// The entries of /dev/shm whose names contain `tag`.
inline std::vector<std::string> shmEntries(const std::string& tag) {
    std::vector<std::string> found;
    DIR* d = opendir("/dev/shm");
    if (d == nullptr) return found;
    while (dirent* e = readdir(d))
        if (strstr(e->d_name, tag.c_str()) != nullptr) found.push_back(e->d_name);
    closedir(d);
    return found;
}

// A tag that keeps the names of this test process apart from any other's.
inline std::string ipcTag() {
    return "zt" + std::to_string(getpid()) + "x";
}

}  // namespace zeptest

#endif
