// Log files from untrusted bytes, through the walker of zeplog: every record it delivers lies in
// the file and begins where its location field says or is reported misplaced, the stretches it
// reports lie in the file, and the walk ends.
#include <stdint.h>
#include <stdlib.h>

#include "log_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view file(reinterpret_cast<const char*>(data), size);
    zeplogwalk::isLogFile(file);
    size_t last = 0;
    zeplogwalk::walk(
        file,
        [&](std::string_view rec, size_t at) {
            if (at < last || at + rec.size() > size || rec.data() != file.data() + at) abort();
            last = at + rec.size();
            zeplogwalk::Fields f;
            zeplogwalk::parseFields(rec, &f);
            zeplogwalk::levelNumber(f.levelWord);
        },
        [&](const zeplogwalk::Damage& d) {
            if (d.from > d.to || d.to >= size || d.at > size) abort();
        });
    return 0;
}
