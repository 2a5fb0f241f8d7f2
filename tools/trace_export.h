// trace_export.h - a trace dump in the trace-event JSON format that timeline viewers open
// (part of the library target zep_trace_format).
//
// One track per process and thread, named by metadata events. Each entry with its exit becomes
// one complete duration event ("X"), nested per thread as the calls were; an entry left without
// an exit (the parameter checks return without one, and a wrapping ring may have lost the exit)
// is closed at its parent's exit or at the end of the dump. Duration events carry no arguments:
// viewers that aggregate calls (flame graphs) key a frame by its name and arguments, so a call's
// details would split one function into many frames. The details are instant events on the
// thread instead, inside the call they belong to: data records, error records, the return code of
// a failing exit, and the end of a call that had no exit.
//
// Time stamps are the records' ticks converted by the dump's own factor, in microseconds with
// nanosecond digits. Within a thread every event gets a time strictly after the one before, so no
// instant event shares a time stamp with the start or end of a duration event, and nesting stays
// unambiguous for viewers that sort by time; a dump without time stamps comes out as one
// nanosecond per record, in record order.
//
// The exporter streams: memory is bounded by the threads' call depths, not by the dump's size.
#ifndef TRACE_EXPORT_H
#define TRACE_EXPORT_H

#include <stdio.h>

#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "trace_format.h"

namespace zeptrace {

class ChromeExporter {
public:
    // Writes to `out`, which stays the caller's.
    ChromeExporter(FILE* out, const ZEPTickConversionFactor& factor);

    // One record of a ring dump, in forward order.
    void record(const void* payload, Uint32 size);
    // Closes what is still open and ends the document. Returns false if a write failed.
    bool finish();

    Uint64 events() const { return events_; }

    // Frames deeper than this on one thread are counted, not kept.
    static constexpr size_t kMaxDepth = 1024;

private:
    struct Frame {
        Uint32 functionId;
        Uint64 startNs;
    };
    struct Thread {
        std::vector<Frame> stack;
        Uint64 lastNs = 0;
        bool any = false;
        Uint64 framesDropped = 0;
    };

    Uint64 nanoseconds(Uint64 ticks) const;
    Uint64 next(Thread& t, Uint64 ns);
    Thread& thread(Uint32 pid, Uint64 tid);
    void close(Uint32 pid, Uint64 tid, Thread& t, Uint64 endNs);
    // `name` and `args` are JSON text already (the name without its quotes).
    void instant(Uint32 pid, Uint64 tid, Thread& t, Uint64 ns, const std::string& name,
                 const char* category, const std::string& args);
    void emit(const std::string& event);
    void begin();
    void end();
    void pidTid(Uint32 pid, Uint64 tid);
    void flush();
    // Function names and categories, codes and record types as escaped JSON text, made once.
    struct Names {
        std::string function, category;
    };
    const Names& names(Uint32 functionId);
    const std::string& code(Uint32 code);
    const std::string& type(Uint32 type);

    FILE* out_;
    ZEPTickConversionFactor factor_;
    std::map<std::pair<Uint32, Uint64>, Thread> threads_;
    std::map<Uint32, bool> processes_;
    std::pair<Uint32, Uint64> lastKey_{};
    Thread* last_ = nullptr;
    std::unordered_map<Uint32, Names> names_;
    std::unordered_map<Uint32, std::string> codes_, types_;
    std::string buf_, name_, args_;  // the output not yet written; one event's name and arguments
    Uint64 events_ = 0;
    bool failed_ = false;
};

// Exports the dump at `path` to `out`. `records` gets the number read. Returns 0 or the ECF code
// of the failure (a counting dump has no calls to show: ECF_NOT_SUPPORTED).
Uint32 exportChromeFile(const char* path, FILE* out, Uint64* records = nullptr);

}  // namespace zeptrace

#endif
