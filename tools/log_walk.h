// The walk of a zep log file by the location fields of its records, for zeplog and for the
// fuzz target that feeds it damaged files.
//
// Every record in a log file says where it lies: "I<offset>H<length>" at byte 31 of the record
// (counted from its first byte behind the opening CR LF). The walk follows these fields, checks
// that each record's offset and length are exact, and reports the stretches that don't belong to
// a whole record (damage, or writers that didn't hold the file lock).
#pragma once

#include <stddef.h>

#include <functional>
#include <string>
#include <string_view>

namespace zeplogwalk {

// What the walk found wrong, with the byte positions it prints.
struct Damage {
    enum Kind {
        kStray,      // bytes [from, to] are not part of a whole record
        kTruncated,  // the record at `at` claims `claimed` bytes; fewer remain
        kMisplaced,  // the record at `at` says it lies at `claimed`
        kBadEnd,     // bytes [from, to]: the record at `at` doesn't end where its length says
    } kind;
    size_t from = 0, to = 0, at = 0;
    unsigned long long claimed = 0;
};

// The fields of one record that zeplog selects by.
struct Fields {
    std::string levelWord, function;
    unsigned long long pid = 0, tid = 0;
    bool hasCode = false;
    unsigned long code = 0;
};

// 1 Severe ... 5 Event, 0 for any other word.
int levelNumber(const std::string& word);

// Whether `file` begins with a record that has a location field.
bool isLogFile(std::string_view file);

// Walks `file` from its start: `record` gets each whole record (the bytes behind its CR LF) and
// its position, `damage` each stretch that isn't one. Returns the count of damaged stretches.
unsigned long walk(std::string_view file,
                   const std::function<void(std::string_view rec, size_t at)>& record,
                   const std::function<void(const Damage&)>& damage);

void parseFields(std::string_view rec, Fields* out);

}  // namespace zeplogwalk
