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

struct Parsed {
    unsigned long long offset = 0, length = 0;
    std::string levelWord, function;
    unsigned long long pid = 0, tid = 0;
    bool hasCode = false;
    unsigned long code = 0;
};

constexpr size_t kFieldAt = 31;   // the location field, from the record's first byte
constexpr size_t kFieldEnd = 48;  // 17 characters at most
constexpr size_t kLevelAt = 49;   // " LEVEL: "

int levelNumber(const std::string& w) {
    static const char* words[] = {"Severe", "Error", "Warning", "Info", "Event"};
    for (int i = 0; i < 5; ++i)
        if (w == words[i]) return i + 1;
    return 0;
}

// Reads "I<offset>H<length>" at `p`; false if the bytes there are not such a field.
bool readField(std::string_view rec, unsigned long long* offset, unsigned long long* length) {
    if (rec.size() < kLevelAt + 8 || rec[kFieldAt] != 'I') return false;
    size_t i = kFieldAt + 1;
    auto number = [&](unsigned long long* out) {
        size_t start = i;
        unsigned long long v = 0;
        while (i < kFieldEnd && rec[i] >= '0' && rec[i] <= '9') v = v * 10 + (rec[i++] - '0');
        *out = v;
        return i > start;
    };
    if (!number(offset) || i >= kFieldEnd || rec[i++] != 'H') return false;
    // A cut field may end in the middle of the length: accept what is there.
    number(length);
    return rec.substr(kLevelAt, 8) == " LEVEL: ";
}

std::string_view lineAfter(std::string_view rec, std::string_view tag) {
    size_t at = rec.find(tag);
    if (at == std::string_view::npos) return {};
    at += tag.size();
    size_t end = rec.find("\r\n", at);
    return rec.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
}

void parseFields(std::string_view rec, Parsed* p) {
    std::string_view lvl = lineAfter(rec, " LEVEL: ");
    p->levelWord = std::string(lvl.substr(0, lvl.find(' ')));
    std::string_view pid = lineAfter(rec, "\r\nPID     : ");
    p->pid = strtoull(std::string(pid).c_str(), nullptr, 10);
    size_t t = pid.find("TID : ");
    p->tid = t == std::string_view::npos ? 0 : strtoull(std::string(pid.substr(t + 6)).c_str(), nullptr, 10);
    std::string_view fn = lineAfter(rec, "\r\nFUNCTION: ");
    // "product, component, function, probe:N": the function is the third field.
    size_t a = fn.find(", "), b = a == std::string_view::npos ? a : fn.find(", ", a + 2);
    size_t c = b == std::string_view::npos ? b : fn.rfind(", probe:");
    if (b != std::string_view::npos && c != std::string_view::npos && c >= b + 2)
        p->function = std::string(fn.substr(b + 2, c - b - 2));
    std::string_view msg = lineAfter(rec, "\r\nMESSAGE : ECF=");
    if (!msg.empty()) {
        p->hasCode = true;
        p->code = strtoul(std::string(msg).c_str(), nullptr, 16);
    }
}

bool selected(const Options& o, const Parsed& p) {
    if (o.level >= 0 && !(levelNumber(p.levelWord) != 0 && levelNumber(p.levelWord) <= o.level))
        return false;
    if (o.pid >= 0 && p.pid != static_cast<unsigned long long>(o.pid)) return false;
    if (o.tid >= 0 && p.tid != static_cast<unsigned long long>(o.tid)) return false;
    if (!o.function.empty() && p.function != o.function) return false;
    if (o.haveCode && !(p.hasCode && p.code == o.code)) return false;
    return true;
}

// A record starts at `at` if CR LF is followed by a time stamp's shape and a location field.
bool headerAt(const std::string& file, size_t at, unsigned long long* off, unsigned long long* len) {
    if (at + 2 > file.size() || file.compare(at, 2, "\r\n") != 0) return false;
    std::string_view rec(file.data() + at + 2, file.size() - at - 2);
    if (rec.size() < 30 || rec[4] != '-' || rec[10] != '-' || rec[13] != '.') return false;
    return readField(rec, off, len);
}

// The next place at or after `from` where a record starts, or npos.
size_t resync(const std::string& file, size_t from) {
    unsigned long long off, len;
    for (size_t at = file.find("\r\n", from); at != std::string::npos;
         at = file.find("\r\n", at + 1))
        if (headerAt(file, at, &off, &len)) return at;
    return std::string::npos;
}

bool parseCode(const char* s, unsigned long* out) {
    if (strncmp(s, "ECF_", 4) == 0) {
#define ZEP_MATCH(n, v)      \
    if (strcmp(s, #n) == 0) { \
        *out = v;            \
        return true;         \
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
        if (a == "--check") o.checkOnly = true;
        else if (a == "--summary") o.summaryOnly = true;
        else if (a == "--level" && (v = value())) o.level = strtol(v, nullptr, 10);
        else if (a == "--pid" && (v = value())) o.pid = strtoll(v, nullptr, 10);
        else if (a == "--tid" && (v = value())) o.tid = strtoll(v, nullptr, 10);
        else if (a == "--function" && (v = value())) o.function = v;
        else if (a == "--ecf" && (v = value())) {
            if (!parseCode(v, &o.code)) {
                fprintf(stderr, "zeplog: '%s' is not an ECF code\n", v);
                return 2;
            }
            o.haveCode = true;
        } else if (a.size() > 1 && a[0] == '-') return usage();
        else if (!o.path) o.path = argv[i];
        else return usage();
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
    {
        unsigned long long off, len;
        if (!headerAt(file, 0, &off, &len)) {
            fprintf(stderr,
                    "zeplog: %s is not a zep log file: no record with a location field at its "
                    "start\n",
                    o.path);
            return 2;
        }
    }

    std::map<std::string, unsigned long> perLevel, perFunction;
    unsigned long records = 0, shown = 0, damaged = 0;
    size_t pos = 0;  // at a record's opening CR LF
    while (pos < file.size()) {
        unsigned long long off = 0, len = 0;
        if (!headerAt(file, pos, &off, &len)) {
            size_t next = resync(file, pos + 1);
            size_t end = next == std::string::npos ? file.size() : next;
            printf("DAMAGED bytes %zu to %zu (%zu bytes): not part of a whole record\n", pos,
                   end - 1, end - pos);
            ++damaged;
            pos = end;
            continue;
        }
        const size_t start = pos + 2;
        if (start + len > file.size()) {
            printf("TRUNCATED at offset %zu: the record claims %llu bytes, %zu remain\n", start,
                   len, file.size() - start);
            ++damaged;
            break;
        }
        const size_t end = start + len;
        unsigned long long nOff, nLen;
        const bool endsWell = end == file.size() || headerAt(file, end, &nOff, &nLen);
        if (off != start) {
            // Another writer's record, or one written without the file lock.
            printf("MISPLACED record at offset %zu: its field says offset %llu\n", start, off);
            ++damaged;
        }
        if (!endsWell) {
            size_t next = resync(file, start);
            size_t stop = next == std::string::npos ? file.size() : next;
            printf("DAMAGED bytes %zu to %zu (%zu bytes): the record at %zu doesn't end where "
                   "its length says\n",
                   pos, stop - 1, stop - pos, start);
            ++damaged;
            pos = stop;
            continue;
        }
        std::string_view rec(file.data() + start, len);
        Parsed p;
        p.offset = off, p.length = len;
        parseFields(rec, &p);
        ++records;
        if (selected(o, p)) {
            ++shown;
            ++perLevel[p.levelWord];
            ++perFunction[p.function];
            if (!o.checkOnly && !o.summaryOnly) {
                fwrite("\r\n", 1, 2, stdout);
                fwrite(rec.data(), 1, rec.size(), stdout);
            }
        }
        pos = end;
    }

    if (!o.checkOnly && !o.summaryOnly) printf("\n");
    printf("%s: %lu records, %lu damaged stretches", o.path, records, damaged);
    if (!o.checkOnly) printf(", %lu selected", shown);
    printf("\n");
    if (!o.checkOnly) {
        printf("selected, per level:\n");
        for (auto& [k, v] : perLevel) printf("  %-10s %lu\n", k.c_str(), v);
        printf("selected, per function:\n");
        for (auto& [k, v] : perFunction) printf("  %-40s %lu\n", k.empty() ? "(none)" : k.c_str(), v);
    }
    return damaged ? 1 : 0;
}
