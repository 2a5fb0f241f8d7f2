// helper_proc - the child of the process tests. What it learns it writes to the file named by
// the environment variable ZEPPROC_OUT, as NUL-ended strings.
//
//   helper_proc args ...          its arguments (argv[1] on)
//   helper_proc exit N            exits with N
//   helper_proc zepexit N         ends by zepProcessExit(N)
//   helper_proc signal N          raises signal N
//   helper_proc env               its environment, one string a variable
//   helper_proc fds               its open descriptors
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zep.h"

extern char** environ;

namespace {

void put(const char* file, const std::string& s) {
    if (FILE* f = fopen(file, "ab")) {
        fwrite(s.data(), 1, s.size() + 1, f);
        fclose(f);
    }
}
void out(const std::string& s) {
    if (const char* file = getenv("ZEPPROC_OUT")) put(file, s);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const int n = argc > 2 ? atoi(argv[2]) : 0;
    if (mode == "args")
        for (int i = 0; i < argc; ++i) out(argv[i]);
    if (mode == "exit") return n;
    if (mode == "zepexit") zepProcessExit(static_cast<Uint32>(n));
    if (mode == "signal") raise(n);
    if (mode == "env")
        for (char** e = environ; *e; ++e) out(*e);
    if (mode == "fds") {
        DIR* d = opendir("/proc/self/fd");
        while (dirent* e = d ? readdir(d) : nullptr)
            if (e->d_name[0] != '.' && atoi(e->d_name) != dirfd(d)) out(e->d_name);
        if (d) closedir(d);
    }
    return 0;
}
