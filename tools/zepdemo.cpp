// zepdemo - the library's main job end to end: an operation fails, and the failure arrives at
// its caller as an ECF code that the catalogue turns into words.
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

int main() {
    char dir[] = "/tmp/zepdemoXXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("zepdemo: mkdtemp");
        return 1;
    }
    std::string a = std::string(dir) + "/a.txt", b = std::string(dir) + "/b.txt";

    printf("zep %s: pid %u, thread %u\n\n", "demo", zepProcessID(), zepThreadID());

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

    Uint32 level = 0;
    Uint32 code = zepErrorMapSystem(ZEPFN_zepFileRename, 30, SYSFN_CreateFileMapping, 183, &level);
    printf("\nplatform error 183 from %s maps to %s at level %u, named %s\n",
           ecfGetFunctionName(SYSFN_CreateFileMapping), ecfErrorGetCodeName(code), level,
           zepErrorNameMapSystem(SYSFN_CreateFileMapping, 183));

    unlink(b.c_str());
    rmdir(dir);
    return 0;
}
