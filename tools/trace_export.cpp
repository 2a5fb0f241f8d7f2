// trace_export.cpp - trace dumps in the trace-event JSON format.
#include "trace_export.h"

#include <stdarg.h>
#include <string.h>

#include <memory>

#include "zepecf.h"

namespace zeptrace {

namespace {

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            out += format("\\u%04x", c);  // bytes outside ASCII as code points, never invalid UTF-8
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// Microseconds with the nanoseconds as three decimals.
std::string micros(Uint64 ns) {
    return format("%llu.%03llu", static_cast<unsigned long long>(ns / 1000),
                  static_cast<unsigned long long>(ns % 1000));
}

std::string functionName(Uint32 id) {
    const char* name = ecfGetFunctionName(id);
    return name && *name ? std::string(name) : format("0x%08X", id);
}

std::string category(Uint32 id) {
    const char* name = ecfGetComponentShortName(id);
    return name && *name ? std::string(name) : std::string("trace");
}

std::string codeText(Uint32 code) {
    const char* name = ecfErrorGetCodeName(code);
    return name && *name ? format("0x%08X %s", code, name) : format("0x%08X", code);
}

// An item's bytes as text where they are printable, else as hexadecimal (the first 64 bytes).
std::string itemText(const RecordItem& item) {
    if (item.data == nullptr) return "null";
    const Uint32 n = item.length < 64 ? item.length : 64;
    bool printable = n > 0;
    for (Uint32 i = 0; i < n && printable; ++i) {
        const Uint8 c = item.data[i];
        printable = (c >= 0x20 && c < 0x7F) || (c == 0 && i + 1 == n);
    }
    std::string out;
    if (printable) {
        out.assign(reinterpret_cast<const char*>(item.data), n);
        if (!out.empty() && out.back() == '\0') out.pop_back();
    } else {
        for (Uint32 i = 0; i < n; ++i) out += format("%02X", item.data[i]);
    }
    if (item.length > n) out += format("... (%u bytes)", item.length);
    return out;
}

}  // namespace

ChromeExporter::ChromeExporter(FILE* out, const ZEPTickConversionFactor& factor)
    : out_(out), factor_(factor) {
    if (fputs("{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n", out_) < 0) failed_ = true;
}

Uint64 ChromeExporter::nanoseconds(Uint64 ticks) const {
    Uint32 seconds = 0, ns = 0;
    ZEPTick(ticks).convertToTime(factor_, seconds, ns);
    return Uint64{seconds} * 1000000000u + ns;
}

// Every event of a thread strictly after the one before it.
Uint64 ChromeExporter::next(Thread& t, Uint64 ns) {
    if (t.any && ns <= t.lastNs) ns = t.lastNs + 1;
    t.lastNs = ns;
    t.any = true;
    return ns;
}

void ChromeExporter::emit(const std::string& event) {
    if (fputs(events_ == 0 ? "" : ",\n", out_) < 0 || fputs(event.c_str(), out_) < 0)
        failed_ = true;
    ++events_;
}

ChromeExporter::Thread& ChromeExporter::thread(Uint32 pid, Uint64 tid) {
    auto found = threads_.find({pid, tid});
    if (found != threads_.end()) return found->second;
    if (!processes_[pid]) {
        processes_[pid] = true;
        emit(format("{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":%u,\"args\":{\"name\":", pid) +
             quoted(format("process %u", pid)) + "}}");
    }
    const unsigned long long t = static_cast<unsigned long long>(tid);
    emit(
        format("{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":%u,\"tid\":%llu,\"args\":{\"name\":",
               pid, t) +
        quoted(format("thread %llu", t)) + "}}");
    return threads_[{pid, tid}];
}

// Ends the top frame of the thread at `endNs`.
void ChromeExporter::close(Uint32 pid, Uint64 tid, Thread& t, Uint64 endNs) {
    const Frame f = t.stack.back();
    t.stack.pop_back();
    const Uint64 end = next(t, endNs);
    emit("{\"ph\":\"X\",\"name\":" + quoted(functionName(f.functionId)) +
         ",\"cat\":" + quoted(category(f.functionId)) + ",\"ts\":" + micros(f.startNs) +
         ",\"dur\":" + micros(end - f.startNs) +
         format(",\"pid\":%u,\"tid\":%llu}", pid, static_cast<unsigned long long>(tid)));
}

void ChromeExporter::instant(Uint32 pid, Uint64 tid, Thread& t, Uint64 ns, const std::string& name,
                             const char* category, const std::string& args) {
    const Uint64 when = next(t, ns);
    emit("{\"ph\":\"i\",\"s\":\"t\",\"name\":" + quoted(name) + ",\"cat\":\"" + category +
         "\",\"ts\":" + micros(when) +
         format(",\"pid\":%u,\"tid\":%llu", pid, static_cast<unsigned long long>(tid)) +
         ",\"args\":{" + args + "}}");
}

void ChromeExporter::record(const void* payload, Uint32 size) {
    GTRecord r;
    memset(&r, 0, sizeof r);
    memcpy(&r, payload, size < sizeof r ? size : sizeof r);
    Thread& t = thread(r.processID, r.threadID);
    const Uint64 ns = nanoseconds(r.time);
    const std::string fn = functionName(r.functionID);

    if (r.recordType == GTRACE_TYPE_ENTRY) {
        if (t.stack.size() >= kMaxDepth) {
            ++t.framesDropped;
            return;
        }
        t.stack.push_back(Frame{r.functionID, next(t, ns)});
        return;
    }
    if (r.recordType == GTRACE_TYPE_EXIT) {
        const std::string rc = "\"rc\":" + quoted(codeText(r.returnCode));
        // The matching entry is the innermost open frame of the function; frames above it were
        // left without an exit and end here, inside it.
        size_t at = t.stack.size();
        while (at > 0 && t.stack[at - 1].functionId != r.functionID) --at;
        if (at == 0) {
            // An exit whose entry the dump doesn't hold (a wrapping ring lost it).
            instant(r.processID, r.threadID, t, ns, "exit " + fn, "exit", rc);
            return;
        }
        while (t.stack.size() > at) {
            instant(r.processID, r.threadID, t, ns,
                    "no exit " + functionName(t.stack.back().functionId), "exit", "");
            close(r.processID, r.threadID, t, ns);
        }
        if (r.returnCode != 0)
            instant(r.processID, r.threadID, t, ns, "rc " + fn + " " + codeText(r.returnCode),
                    "error", rc);
        close(r.processID, r.threadID, t, ns);
        return;
    }

    // Data, error and other records: instant events inside the call they belong to.
    std::string args = format("\"type\":%s,\"probe\":%u",
                              quoted(Formatter::typeName(r.recordType)).c_str(), r.probe);
    if (recordHasRc(r.recordType)) args += ",\"rc\":" + quoted(codeText(r.returnCode));
    if (recordHasWords(r.recordType)) args += format(",\"words\":[%u,%u]", r.word1, r.word2);
    std::string items;
    for (const RecordItem& item : recordItems(payload, size)) {
        if (!items.empty()) items += ',';
        items += quoted(itemText(item));
    }
    if (!items.empty()) args += ",\"items\":[" + items + "]";
    const bool error = r.recordType == GTRACE_TYPE_ERROR || r.recordType == GTRACE_TYPE_ERROR_OP ||
                       r.recordType == GTRACE_TYPE_ERROR_TRANS;
    std::string name = error                              ? "error "
                       : r.recordType == GTRACE_TYPE_DATA ? "data "
                                                          : Formatter::typeName(r.recordType) + " ";
    instant(r.processID, r.threadID, t, ns, name + fn + format(" probe %u", r.probe),
            error ? "error" : "data", args);
}

bool ChromeExporter::finish() {
    for (auto& [key, t] : threads_) {
        while (!t.stack.empty()) {
            instant(key.first, key.second, t, t.lastNs,
                    "no exit " + functionName(t.stack.back().functionId), "exit", "");
            close(key.first, key.second, t, t.lastNs);
        }
        if (t.framesDropped)
            emit(
                format("{\"ph\":\"M\",\"name\":\"thread_sort_index\",\"pid\":%u,\"tid\":%llu,"
                       "\"args\":{\"sort_index\":0,\"framesDropped\":%llu}}",
                       key.first, static_cast<unsigned long long>(key.second),
                       static_cast<unsigned long long>(t.framesDropped)));
    }
    if (fputs("\n]}\n", out_) < 0 || fflush(out_) != 0) failed_ = true;
    return !failed_;
}

Uint32 exportChromeFile(const char* path, FILE* out, Uint64* records) {
    if (path == nullptr || out == nullptr) return ECF_INVALID_PARAMETER;
    DumpInfo info;
    std::unique_ptr<ChromeExporter> exporter;
    bool counting = false;
    const Uint32 rc = walkDumpFile(
        path, true, &info,
        [&](const void* payload, Uint32 size) {
            if (info.counting) {
                counting = true;
                return false;
            }
            if (!exporter) exporter = std::make_unique<ChromeExporter>(out, info.tickFactor);
            exporter->record(payload, size);
            return true;
        },
        records);
    if (rc != 0) return rc;
    if (counting || info.counting) return ECF_NOT_SUPPORTED;
    if (!exporter) exporter = std::make_unique<ChromeExporter>(out, info.tickFactor);
    return exporter->finish() ? 0 : ECF_FILE_INCOMPLETE_WRITE;
}

}  // namespace zeptrace
