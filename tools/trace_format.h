// trace_format.h - trace dumps as readable text, for the tools (library target
// zep_trace_format).
//
// Two views of a ring dump:
//  - records: one block per record: its position in the walk, the type, process and thread,
//    the time converted with the dump's tick factor, the function by its catalogue names, the
//    probe, the fields the record type carries (a return code with its ECF name), and its items
//    as a hex dump;
//  - flow: one line per record, entries and exits indented per thread, so that each thread's
//    calls read as a tree.
// A counting dump gives one line per function in use: count, total time and names.
//
// A record carries only the fields its operation wrote; the others hold what the slot held before.
// The views therefore show a field only for the record types that have it.
#ifndef TRACE_FORMAT_H
#define TRACE_FORMAT_H

#include <map>
#include <string>
#include <utility>

#include "gtrace.h"

namespace zeptrace {

enum class View { Records, Flow };

class Formatter {
public:
    explicit Formatter(const ZEPTickConversionFactor& factor) : factor_(factor) {}

    // A record's payload as a block of lines (each ended by '\n'); `index` counts from 1.
    std::string record(const void* payload, Uint32 size, Uint64 index) const;
    // A record as a line of the flow view; entries and exits move the thread's indentation.
    std::string flow(const void* payload, Uint32 size);
    // An entry of a counting table as a line.
    std::string countEntry(const GTCountEntry& entry) const;

    // Ticks as seconds with nine decimals, by the dump's factor.
    std::string time(Uint64 ticks) const;

    // Names for the pieces of a record, for other tools.
    static std::string typeName(Uint32 type);
    static std::string functionName(Uint32 functionId);
    static std::string codeName(Uint32 code);

private:
    ZEPTickConversionFactor factor_;
    std::map<std::pair<Uint32, Uint64>, Uint32> depth_;  // (process, thread) -> open entries
};

// Reads the dump at `path` (validated first) and formats every record in the walk's direction
// into `text`. `records` gets the number formatted. Returns 0 or the ECF code of the failure.
Uint32 formatDumpFile(const char* path, View view, bool forward, std::string* text,
                      Uint64* records = nullptr);

}  // namespace zeptrace

#endif
