// helper_proc - the child of the process tests. What it learns it writes to the file named by
// the environment variable ZEPPROC_OUT, as NUL-ended strings.
//
//   helper_proc args ...          its arguments (argv[1] on)
//   helper_proc exit N            exits with N
//   helper_proc zepexit N         ends by zepProcessExit(N)
//   helper_proc signal N          raises signal N
//   helper_proc env               its environment, one string a variable
//   helper_proc fds               its open descriptors
//   helper_proc gate GATE OUT     waits until the file GATE exists, then writes its pid, parent
//                                 and session id to OUT
//   helper_proc spawn GATE OUT    starts "helper_proc gate GATE OUT" detached through ZEPHProcess,
//                                 writes its pid and the result, and exits at once
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
    if (argc < 2) return 0;
    const std::string mode = argv[1];
    if (mode == "args") {
        for (int i = 0; i < argc; ++i) out(argv[i]);
        return 0;
    }
    if (mode == "exit" && argc == 3) return atoi(argv[2]);
    if (mode == "zepexit" && argc == 3) zepProcessExit(static_cast<Uint32>(atoi(argv[2])));
    if (mode == "signal" && argc == 3) {
        raise(atoi(argv[2]));
        return 99;
    }
    if (mode == "env") {
        for (char** e = environ; *e; ++e) out(*e);
        return 0;
    }
    if (mode == "fds") {
        DIR* d = opendir("/proc/self/fd");
        if (d == nullptr) return 2;
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.' && atoi(e->d_name) != dirfd(d)) out(e->d_name);
        closedir(d);
        return 0;
    }
    if (mode == "gate" && argc == 4) {
        while (access(argv[2], F_OK) != 0) usleep(2000);
        put(argv[3], std::to_string(getpid()) + " " + std::to_string(getppid()) + " " +
                         std::to_string(getsid(0)));
        return 0;
    }
    if (mode == "spawn" && argc == 4) {
        std::string args = std::string("gate") + '\0' + argv[2] + '\0' + argv[3] + '\0' + '\0';
        ZEPProcessParam p;
        p.program = "/proc/self/exe";
        static char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        if (n > 0) self[n] = 0, p.program = self;
        p.arguments = args.c_str();
        p.flags = ZEP_PROCESS_DETACHED;
        Uint32 pid = 0;
        ZEPHProcess proc;
        const Uint32 rc = proc.create(&p, &pid, nullptr);
        out(std::to_string(pid));
        out(std::to_string(rc));
        return 0;
    }
    return 100;
}
