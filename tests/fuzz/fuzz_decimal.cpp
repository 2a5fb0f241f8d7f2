// Decimal and 128-bit integer text from untrusted bytes. The texts the library writes are its
// canonical forms: reading one back and writing it again gives the same text, in both decimal
// widths, every rounding mode, and both 128-bit integer classes.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "zep.h"

namespace {

template <class D>
void decimal(const char* text, ZEPDecfloatRounding rounding) {
    D value;
    value.fromString(text, rounding);
    char first[64] = {}, second[64] = {};
    value.toString(first, sizeof first - 1);
    D again;
    again.fromString(first, rounding);
    again.toString(second, sizeof second - 1);
    if (strcmp(first, second) != 0) abort();
}

template <class I>
void integer(const char* text) {
    const I value(text);
    char first[48] = {}, second[48] = {};
    if (value.toString(first, sizeof first) < 0) abort();
    const I again(first);
    if (!(again == value)) abort();
    again.toString(second, sizeof second);
    if (strcmp(first, second) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const Uint8* data, size_t size) {
    if (size < 1) return 0;
    const ZEPDecfloatRounding rounding = static_cast<ZEPDecfloatRounding>(data[0] % 8);
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    decimal<ZEPDecfloat16>(text.c_str(), rounding);
    decimal<ZEPDecfloat34>(text.c_str(), rounding);
    integer<Uint128>(text.c_str());
    integer<Sint128>(text.c_str());
    return 0;
}
