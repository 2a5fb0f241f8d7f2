// zepdemo - the library's main job end to end: operations fail; each failure arrives at its
// caller as an ECF code that the catalogue turns into words, and leaves one record in the log
// file that the product opened (read it with zeplog). With --trace, the process joins a trace
// area that `zeptrace create` built, as any process of the product does, and the operations of
// its threads and of a second process leave their records there too.
//
//   zepdemo [--trace NAME] [log file]  (default: zepdemo.log in a fresh directory under /tmp)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "zep.h"

namespace {

// Joining a trace: attach the named block that holds the trace area, then make its first byte
// this process's trace. Nothing else is needed; from here on every operation of the library
// traces while the area is switched on.
struct TraceMembership {
    ZEPHIPCMemoryEx memory;
    bool joined = false;

    Uint32 join(const char* name) {
        ZEPIPCMemoryExAttachParam attach;
        attach.name = name;
        attach.flags = ZEP_IPC_MEMEX_READ_WRITE;  // trace points write the ring
        ZEPIPCMemoryExInfo info;
        Uint32 rc = memory.attach(&attach, &info);
        if (rc == 0)
            rc = gtraceAttach(static_cast<GTCB*>(info.address), zepProcessID(), nullptr, nullptr);
        joined = rc == 0;
        return rc;
    }
    // At exit: stop tracing first, then let the block go.
    void leave() {
        if (!joined) return;
        gtraceDetach();
        memory.detach();
        joined = false;
    }
};

// Work of a thread or of the second process: a few operations that fail in their own ways.
void failSome(const std::string& dir, const char* who) {
    const std::string missing = dir + "/" + who + ".missing", there = dir + "/" + who + ".there";
    zepFileRename(missing.c_str(), there.c_str());
    ZEPHFile file;
    ZEPFileOpenParam open;
    open.path = missing.c_str();
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    file.open(&open);
    open.path = there.c_str();
    open.creation = ZEP_FILE_CREATE_NEW;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    if (file.open(&open) == 0) {
        ZEPFileWriteParam write;
        write.buffer = who;
        write.length = static_cast<Uint32>(strlen(who));
        Uint32 written = 0;
        file.write(&write, &written);
        file.close();
    }
    file.open(&open);  // exists now
    unlink(there.c_str());
}

void explain(const char* what, Uint32 rc) {
    printf("%s\n  -> 0x%08X %s: \"%s\" (%s, %s)\n", what, rc, ecfErrorGetCodeName(rc),
           ecfErrorGetDescription(rc), rc ? ecfErrorGetProductName(rc) : "-",
           rc ? ecfErrorGetComponentName(rc) : "-");
}

}  // namespace

int main(int argc, char** argv) {
    const char* trace = nullptr;
    bool child = false;
    int at = 1;
    for (; at < argc && argv[at][0] == '-'; ++at) {
        if (strcmp(argv[at], "--trace") == 0 && at + 1 < argc) {
            trace = argv[++at];
        } else if (strcmp(argv[at], "--child") == 0 && at + 1 < argc) {
            child = true;  // the second process: argv[at + 1] is the work directory
            ++at;
        } else {
            fprintf(stderr, "usage: zepdemo [--trace NAME] [log file]\n");
            return 2;
        }
    }
    TraceMembership membership;
    if (trace != nullptr) {
        const Uint32 rc = membership.join(trace);
        if (rc != 0) {
            fprintf(stderr, "zepdemo: cannot join the trace '%s': %s\n", trace,
                    ecfErrorGetCodeName(rc));
            return 1;
        }
    }
    if (child) {
        ZEPLogFacilityParam log;
        snprintf(log.path, sizeof log.path, "%s", at < argc ? argv[at] : "zepdemo.log");
        snprintf(log.name, sizeof log.name, "zepdemo");
        log.level = ZEP_LOG_INFO;
        log.target = ZEP_LOG_TARGET_FILE;
        zepLogFacOpen(&log, nullptr);
        failSome(argv[at - 1], "child");
        zepLogFacClose(nullptr);
        membership.leave();
        return 0;
    }

    char dir[] = "/tmp/zepdemoXXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("zepdemo: mkdtemp");
        return 1;
    }
    std::string a = std::string(dir) + "/a.txt", b = std::string(dir) + "/b.txt";
    const bool ownLog = at >= argc;
    std::string logPath = ownLog ? std::string(dir) + "/zepdemo.log" : std::string(argv[at]);

    // The product opens the default facility; from then on every failing operation logs.
    ZEPLogFacilityParam log;
    snprintf(log.path, sizeof log.path, "%s", logPath.c_str());
    snprintf(log.name, sizeof log.name, "zepdemo");
    log.level = ZEP_LOG_INFO;
    log.target = ZEP_LOG_TARGET_FILE;
    Uint32 rc = zepLogFacOpen(&log, nullptr);
    if (rc != 0) {
        fprintf(stderr, "zepdemo: cannot open the log facility: %s\n", ecfErrorGetCodeName(rc));
        return 1;
    }
    printf("zep demo: pid %u, thread %u, log %s\n\n", zepProcessID(), zepThreadID(),
           logPath.c_str());

    explain(("zepFileRename(\"" + a + "\", \"" + b + "\"), no source").c_str(),
            zepFileRename(a.c_str(), b.c_str()));

    FILE* f = fopen(a.c_str(), "w");
    if (f) fclose(f);
    f = fopen(b.c_str(), "w");
    if (f) fclose(f);
    explain("the same with both files there (the target is never replaced)",
            zepFileRename(a.c_str(), b.c_str()));

    unlink(b.c_str());
    explain("the same once the target is gone", zepFileRename(a.c_str(), b.c_str()));

    ZEPHFile file;
    ZEPFileOpenParam open;
    open.path = b.c_str();  // the renamed file
    open.creation = ZEP_FILE_CREATE_NEW;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    explain("ZEPHFile::open, create new, of a file that exists", file.open(&open));
    open.path = "/no/such/directory/x.dat";
    open.creation = ZEP_FILE_OPEN_OR_CREATE;
    explain("ZEPHFile::open, open or create, in a directory that doesn't exist", file.open(&open));

    Uint32 level = 0;
    Uint32 code = zepErrorMapSystem(ZEPFN_zepFileRename, 30, SYSFN_CreateFileMapping, 183, &level);
    printf("\nplatform error 183 from %s maps to %s at level %u, named %s\n",
           ecfGetFunctionName(SYSFN_CreateFileMapping), ecfErrorGetCodeName(code), level,
           zepErrorNameMapSystem(SYSFN_CreateFileMapping, 183));

    // Two threads and a second process of the product fail at the same time.
    std::vector<std::thread> threads;
    for (const char* who : {"worker1", "worker2"})
        threads.emplace_back([&dir, who] { failSome(dir, who); });
    const pid_t second = fork();
    if (second == 0) {
        std::vector<const char*> args = {"/proc/self/exe"};
        if (trace) args.insert(args.end(), {"--trace", trace});
        args.insert(args.end(), {"--child", dir, logPath.c_str(), nullptr});
        execv("/proc/self/exe", const_cast<char**>(args.data()));
        _exit(127);
    }
    for (std::thread& t : threads) t.join();
    int status = 0;
    if (second > 0) waitpid(second, &status, 0);
    printf("\ntwo threads and a second process (pid %d) failed too: see the log%s\n",
           static_cast<int>(second), trace ? " and the trace" : "");

    zepLogFacClose(nullptr);
    membership.leave();
    unlink(a.c_str());
    unlink(b.c_str());
    if (ownLog) {
        printf("\nthe log: %s\n", logPath.c_str());
    } else {
        rmdir(dir);
    }
    return 0;
}
