// Integer text from untrusted bytes: the 64-bit readers follow the C library's rules exactly, in
// value, range error and end pointer, in every base.
#include <errno.h>
#include <stdlib.h>

#include <string>

#include "zep.h"

extern "C" int LLVMFuzzerTestOneInput(const Uint8* data, size_t size) {
    if (size < 1) return 0;
    const Sint32 base = data[0] % 38 == 1 ? 0 : data[0] % 38 == 37 ? 10 : data[0] % 38;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* s = text.c_str();

    char *end = nullptr, *libEnd = nullptr;
    errno = 0;
    const Sint64 sv = zepStrToSint64(s, &end, base);
    const int err = errno;
    errno = 0;
    const long long lsv = strtoll(s, &libEnd, base);
    if (sv != lsv || end != libEnd || (err == ERANGE) != (errno == ERANGE)) abort();

    errno = 0;
    const Uint64 uv = zepStrToUint64(s, &end, base);
    const int uerr = errno;
    errno = 0;
    const unsigned long long luv = strtoull(s, &libEnd, base);
    if (uv != luv || end != libEnd || (uerr == ERANGE) != (errno == ERANGE)) abort();

    Bool b;
    zepStrToBoolean(s, &b);
    return 0;
}
