// ZEPEMEMDBG from untrusted bytes, read by the start-up step as a process does. The path field
// stays inside a directory of this run ('/' in the input becomes '_') so that the settings file
// the step writes can't land anywhere else.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zep.h"

extern "C" int LLVMFuzzerTestOneInput(const Uint8* data, size_t size) {
    static const std::string dir = [] {
        char tmpl[] = "/tmp/zepfuzzmemXXXXXX";
        if (mkdtemp(tmpl) == nullptr) abort();
        static std::string keep = tmpl;
        atexit([] { (void)!system(("rm -rf '" + keep + "'").c_str()); });
        return keep;
    }();
    std::string value = dir + "/";
    for (size_t i = 0; i < size; ++i) value += data[i] == '/' ? '_' : static_cast<char>(data[i]);
    setenv("ZEPEMEMDBG", value.c_str(), 1);
    zepMemOneTimeOnly();
    // Whatever was chosen, the settings stay within what the allocator knows.
    const Uint32 path = static_cast<Uint32>(strnlen(g_szMemDebugLogPath, ZEP_MAX_PATH));
    if (path == ZEP_MAX_PATH) abort();
    unlink((dir + "/zepememdbg.log").c_str());
    return 0;
}
