// zepdemo - the library's main job end to end: operations fail; each failure arrives at its
// caller as an ECF code that the catalogue turns into words, and leaves one record in the log
// file that the product opened (read it with zeplog).
//
//   zepdemo [log file]     (default: zepdemo.log in a fresh directory under /tmp)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zep.h"

namespace {

void explain(const char* what, Uint32 rc) {
    printf("%s\n  -> 0x%08X %s: \"%s\" (%s, %s)\n", what, rc, ecfErrorGetCodeName(rc),
           ecfErrorGetDescription(rc), rc ? ecfErrorGetProductName(rc) : "-",
           rc ? ecfErrorGetComponentName(rc) : "-");
}

}  // namespace

int main(int argc, char** argv) {
    char dir[] = "/tmp/zepdemoXXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("zepdemo: mkdtemp");
        return 1;
    }
    std::string a = std::string(dir) + "/a.txt", b = std::string(dir) + "/b.txt";
    std::string logPath = argc > 1 ? argv[1] : std::string(dir) + "/zepdemo.log";

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

    zepLogFacClose(nullptr);
    unlink(a.c_str());
    unlink(b.c_str());
    if (argc <= 1) {
        printf("\nthe log: %s\n", logPath.c_str());
    } else {
        rmdir(dir);
    }
    return 0;
}
