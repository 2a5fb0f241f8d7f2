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

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "gtrace.h"

namespace zeptrace {

// printf into a string, up to 511 characters (the formatter's and the exporter's short pieces).
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

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

// What a walk learns from a dump's header before the first record.
struct DumpInfo {
    bool counting = false;  // a counting table, not a ring
    Uint32 modeBits = 0;
    Uint32 bufferSize = 0;
    Uint32 flags = 0;
    ZEPTickConversionFactor tickFactor{};
    Uint64 fileSize = 0;
};

// Called for every record in the walk's direction: a ring record's payload (a GTRecord and its
// variable part) or a counting entry (a GTCountEntry). Return false to stop the walk.
using RecordVisitor = std::function<bool(const void* payload, Uint32 size)>;

// Opens the dump at `path`, validates it (a ring dump by its headers; a counting dump has none to
// check), fills `info` and hands every record to `visit`. `records` gets the number visited.
// Returns 0 or the ECF code of the failure; memory stays bounded whatever the dump's size.
Uint32 walkDumpFile(const char* path, bool forward, DumpInfo* info, const RecordVisitor& visit,
                    Uint64* records = nullptr);

// Reads the dump at `path` (validated first) and formats every record in the walk's direction
// into `text`. `records` gets the number formatted. Returns 0 or the ECF code of the failure.
Uint32 formatDumpFile(const char* path, View view, bool forward, std::string* text,
                      Uint64* records = nullptr);

// The items of a Var record, for tools that show them: kind, length and bytes (null for a null
// address). Empty for a record without a variable part or with one that doesn't add up.
struct RecordItem {
    Uint32 kind, length;
    const Uint8* data;
};
std::vector<RecordItem> recordItems(const void* payload, Uint32 size);

// Whether the record type carries a return code, the two words.
bool recordHasRc(Uint32 type);
bool recordHasWords(Uint32 type);

}  // namespace zeptrace

#endif
