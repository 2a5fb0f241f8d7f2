// zeptest_paths.h - small file helpers of the path and directory tests.
#ifndef ZEPTEST_PATHS_H
#define ZEPTEST_PATHS_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace zeptest {

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return in ? ss.str() : "<missing>";
}
inline void put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}
inline bool exists(const std::string& p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}
// A directory's names but "." and "..", in the directory's own order.
inline std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
    if (d) closedir(d);
    return names;
}
// Runs `body` in a child that has dropped to the user "nobody", where permission bits bind (the
// suite runs as root); the child's exit status is its count of failed expectations.
template <class Body>
void asNobody(Body body) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
        _exit(body());
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace zeptest

#endif
