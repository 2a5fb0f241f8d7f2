// What many suites need: files read whole, a temporary directory per test, helper processes
// started and waited for, and the memory debugger's report directory with the assertion
// callback that collects its findings.
#ifndef ZEPTEST_UTIL_H
#define ZEPTEST_UTIL_H

#include <gtest/gtest.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "zep.h"

namespace zeptest {

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// A fresh directory under /tmp, removed with everything in it.
struct TempDir {
    std::string path;
    explicit TempDir(const char* stem = "zeptest") {
        std::string tmpl = std::string("/tmp/") + stem + "XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) abort();
        path = tmpl;
    }
    ~TempDir() { EXPECT_EQ(system(("rm -rf '" + path + "'").c_str()), 0); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

// This thread's file of findings in `dir` (or another file of the thread by its `suffix`).
inline std::string threadFile(const std::string& dir, const std::string& suffix = ".mem") {
    return dir + "/p" + std::to_string(getpid()) + "t" + std::to_string(gettid()) + suffix;
}

// The names in a directory, one a line, sorted.
inline std::string listing(const std::string& dir) {
    std::string names;
    FILE* ls = popen(("ls -A '" + dir + "'").c_str(), "r");
    char name[256];
    while (fgets(name, sizeof name, ls)) names += name;
    pclose(ls);
    return names;
}

// Starts tests/<name> with `args`, extra environment entries first, standard output on
// `stdoutFd` and the working directory `cwd` if given; its pid.
inline pid_t spawnHelper(const char* name, std::vector<std::string> args,
                         std::vector<std::string> env = {}, int stdoutFd = -1,
                         const std::string& cwd = "") {
    std::string path = std::string(ZEP_TEST_BIN_DIR) + "/" + name;
    args.insert(args.begin(), path);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (char** e = environ; *e; ++e) env.push_back(*e);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdoutFd >= 0) posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Exit status, or 128 + the signal that ended it.
inline int waitExit(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs a helper to its end: its standard output, and its exit status in `status`.
inline std::string runHelper(const char* name, const std::vector<std::string>& args,
                             const std::vector<std::string>& env, int* status,
                             const std::string& cwd = "") {
    int fds[2];
    if (pipe(fds) != 0) return "";
    const pid_t pid = spawnHelper(name, args, env, fds[1], cwd);
    close(fds[1]);
    std::string text;
    char buffer[1024];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
    close(fds[0]);
    *status = waitExit(pid);
    return text;
}

}  // namespace zeptest

#endif
