// zeplog - reads a zep log file by the location fields of its records.
//
// Every record in a log file says where it lies: "I<offset>H<length>" at byte 31 of the record
// (counted from its first byte behind the opening CR LF). zeplog walks the file by these fields,
// checks that each record's offset and length are exact, reports stretches that don't belong to
// a whole record (damage, or writers that didn't hold the file lock), and prints the records the
// filters select (all of them without a filter), with a summary of the selected ones.
//
//   zeplog [options] <file>
//     --check            only check the file; exit 1 if anything is damaged
//     --level N          records of level N or more severe (1 Severe ... 5 Event)
//     --pid N, --tid N   records of one process or thread
//     --function NAME    records of one operation (as shown in the FUNCTION line)
//     --ecf CODE         records whose own code is CODE (number or ECF_ name)
//     --summary          no records, only the counts
//
// Exit status: 0 clean, 1 damage found, 2 bad usage or not a log file.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "log_walk.h"
#include "zepecf.h"

namespace {

struct Options {
    bool checkOnly = false, summaryOnly = false;
    long level = -1;
    long long pid = -1, tid = -1;
    std::string function;
    bool haveCode = false;
    unsigned long code = 0;
    const char* path = nullptr;
};

using zeplogwalk::levelNumber;

bool selected(const Options& o, const zeplogwalk::Fields& p) {
    if (o.level >= 0 && !(levelNumber(p.levelWord) != 0 && levelNumber(p.levelWord) <= o.level))
        return false;
    if (o.pid >= 0 && p.pid != static_cast<unsigned long long>(o.pid)) return false;
    if (o.tid >= 0 && p.tid != static_cast<unsigned long long>(o.tid)) return false;
    if (!o.function.empty() && p.function != o.function) return false;
    if (o.haveCode && !(p.hasCode && p.code == o.code)) return false;
    return true;
}

bool parseCode(const char* s, unsigned long* out) {
    if (strncmp(s, "ECF_", 4) == 0) {
#define ZEP_MATCH(n, v)       \
    if (strcmp(s, #n) == 0) { \
        *out = v;             \
        return true;          \
    }
        ZEP_ECF_CODE_LIST(ZEP_MATCH)
#undef ZEP_MATCH
        return false;
    }
    char* end;
    errno = 0;
    *out = strtoul(s, &end, 0);
    return *s && !*end && errno == 0;
}

int usage() {
    fprintf(stderr,
            "usage: zeplog [--check] [--summary] [--level N] [--pid N] [--tid N]\n"
            "              [--function NAME] [--ecf CODE] <log file>\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "--check")
            o.checkOnly = true;
        else if (a == "--summary")
            o.summaryOnly = true;
        else if (a == "--level" && (v = value()))
            o.level = strtol(v, nullptr, 10);
        else if (a == "--pid" && (v = value()))
            o.pid = strtoll(v, nullptr, 10);
        else if (a == "--tid" && (v = value()))
            o.tid = strtoll(v, nullptr, 10);
        else if (a == "--function" && (v = value()))
            o.function = v;
        else if (a == "--ecf" && (v = value())) {
            if (!parseCode(v, &o.code)) {
                fprintf(stderr, "zeplog: '%s' is not an ECF code\n", v);
                return 2;
            }
            o.haveCode = true;
        } else if (a.size() > 1 && a[0] == '-')
            return usage();
        else if (!o.path)
            o.path = argv[i];
        else
            return usage();
    }
    if (!o.path) return usage();

    FILE* f = fopen(o.path, "rb");
    if (!f) {
        fprintf(stderr, "zeplog: %s: %s\n", o.path, strerror(errno));
        return 2;
    }
    std::string file;
    char chunk[1 << 16];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) file.append(chunk, n);
    fclose(f);

    if (file.empty()) {
        printf("%s: empty log, 0 records\n", o.path);
        return 0;
    }
    if (!zeplogwalk::isLogFile(file)) {
        fprintf(stderr,
                "zeplog: %s is not a zep log file: no record with a location field at its start\n",
                o.path);
        return 2;
    }

    std::map<std::string, unsigned long> perLevel, perFunction;
    unsigned long records = 0, shown = 0;
    using zeplogwalk::Damage;
    const unsigned long damaged = zeplogwalk::walk(
        file,
        [&](std::string_view rec, size_t) {
            zeplogwalk::Fields p;
            zeplogwalk::parseFields(rec, &p);
            ++records;
            if (!selected(o, p)) return;
            ++shown;
            ++perLevel[p.levelWord];
            ++perFunction[p.function];
            if (!o.checkOnly && !o.summaryOnly) {
                fwrite("\r\n", 1, 2, stdout);
                fwrite(rec.data(), 1, rec.size(), stdout);
            }
        },
        [&](const Damage& d) {
            switch (d.kind) {
                case Damage::kStray:
                    printf("DAMAGED bytes %zu to %zu (%zu bytes): not part of a whole record\n",
                           d.from, d.to, d.to + 1 - d.from);
                    break;
                case Damage::kTruncated:
                    printf("TRUNCATED at offset %zu: the record claims %llu bytes, %zu remain\n",
                           d.at, d.claimed, file.size() - d.at);
                    break;
                case Damage::kMisplaced:
                    printf("MISPLACED record at offset %zu: its field says offset %llu\n", d.at,
                           d.claimed);
                    break;
                case Damage::kBadEnd:
                    printf(
                        "DAMAGED bytes %zu to %zu (%zu bytes): the record at %zu doesn't end "
                        "where its length says\n",
                        d.from, d.to, d.to + 1 - d.from, d.at);
                    break;
            }
        });

    if (!o.checkOnly && !o.summaryOnly) printf("\n");
    printf("%s: %lu records, %lu damaged stretches", o.path, records, damaged);
    if (!o.checkOnly) printf(", %lu selected", shown);
    printf("\n");
    if (!o.checkOnly) {
        printf("selected, per level:\n");
        for (auto& [k, v] : perLevel) printf("  %-10s %lu\n", k.c_str(), v);
        printf("selected, per function:\n");
        for (auto& [k, v] : perFunction)
            printf("  %-40s %lu\n", k.empty() ? "(none)" : k.c_str(), v);
    }
    return damaged ? 1 : 0;
}
