// trace_export.cpp - trace dumps in the trace-event JSON format.
#include "trace_export.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <charconv>

#include <memory>

#include "zepecf.h"

namespace zeptrace {

namespace {

// JSON string text for bytes: quotes and backslashes escaped, bytes outside printable ASCII as
// code points (never invalid UTF-8).
void appendEscaped(std::string& o, const char* s, size_t n) {
    size_t plain = 0;
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') continue;
        o.append(s + plain, i - plain);
        plain = i + 1;
        if (c == '"' || c == '\\') {
            o += '\\';
            o += static_cast<char>(c);
        } else {
            char u[8];
            snprintf(u, sizeof u, "\\u%04x", c);
            o += u;
        }
    }
    o.append(s + plain, n - plain);
}

void appendEscaped(std::string& o, const std::string& s) {
    appendEscaped(o, s.data(), s.size());
}

void appendUint(std::string& o, Uint64 v) {
    char b[24];
    o.append(b, std::to_chars(b, b + sizeof b, v).ptr);
}

// Microseconds with the nanoseconds as three decimals.
void appendMicros(std::string& o, Uint64 ns) {
    appendUint(o, ns / 1000);
    const unsigned f = static_cast<unsigned>(ns % 1000);
    const char d[4] = {'.', static_cast<char>('0' + f / 100), static_cast<char>('0' + f / 10 % 10),
                       static_cast<char>('0' + f % 10)};
    o.append(d, 4);
}

std::string quoted(const std::string& s) {
    std::string out = "\"";
    appendEscaped(out, s);
    return out + '"';
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

// An item's bytes as text where they are printable, else as hexadecimal (the first 64 bytes), as
// escaped JSON text.
void appendItem(std::string& o, const RecordItem& item) {
    if (item.data == nullptr) {
        o += "null";
        return;
    }
    const Uint32 n = item.length < 64 ? item.length : 64;
    bool printable = n > 0;
    for (Uint32 i = 0; i < n && printable; ++i) {
        const Uint8 c = item.data[i];
        printable = (c >= 0x20 && c < 0x7F) || (c == 0 && i + 1 == n);
    }
    if (printable) {
        const Uint32 text = item.data[n - 1] == 0 ? n - 1 : n;
        appendEscaped(o, reinterpret_cast<const char*>(item.data), text);
    } else {
        static const char kHex[] = "0123456789ABCDEF";
        for (Uint32 i = 0; i < n; ++i) {
            o += kHex[item.data[i] >> 4];
            o += kHex[item.data[i] & 15];
        }
    }
    if (item.length > n) o += format("... (%u bytes)", item.length);
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

// Events go into one buffer, written out in large pieces.
void ChromeExporter::begin() {
    if (events_++ != 0) buf_ += ",\n";
}

void ChromeExporter::end() {
    if (buf_.size() >= 1 << 16) flush();
}

void ChromeExporter::flush() {
    if (!buf_.empty() && fwrite(buf_.data(), 1, buf_.size(), out_) != buf_.size()) failed_ = true;
    buf_.clear();
}

void ChromeExporter::emit(const std::string& event) {
    begin();
    buf_ += event;
    end();
}

void ChromeExporter::pidTid(Uint32 pid, Uint64 tid) {
    buf_ += ",\"pid\":";
    appendUint(buf_, pid);
    buf_ += ",\"tid\":";
    appendUint(buf_, tid);
}

const ChromeExporter::Names& ChromeExporter::names(Uint32 functionId) {
    auto [at, made] = names_.try_emplace(functionId);
    if (made) {
        appendEscaped(at->second.function, functionName(functionId));
        appendEscaped(at->second.category, category(functionId));
    }
    return at->second;
}

const std::string& ChromeExporter::code(Uint32 code) {
    auto [at, made] = codes_.try_emplace(code);
    if (made) appendEscaped(at->second, codeText(code));
    return at->second;
}

const std::string& ChromeExporter::type(Uint32 type) {
    auto [at, made] = types_.try_emplace(type);
    if (made) appendEscaped(at->second, Formatter::typeName(type));
    return at->second;
}

ChromeExporter::Thread& ChromeExporter::thread(Uint32 pid, Uint64 tid) {
    if (last_ != nullptr && lastKey_ == std::make_pair(pid, tid)) return *last_;
    lastKey_ = {pid, tid};
    auto found = threads_.find(lastKey_);
    if (found != threads_.end()) return *(last_ = &found->second);
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
    return *(last_ = &threads_[lastKey_]);
}

// Ends the top frame of the thread at `endNs`.
void ChromeExporter::close(Uint32 pid, Uint64 tid, Thread& t, Uint64 endNs) {
    const Frame f = t.stack.back();
    t.stack.pop_back();
    const Uint64 end = next(t, endNs);
    const Names& n = names(f.functionId);
    begin();
    buf_ += "{\"ph\":\"X\",\"name\":\"";
    buf_ += n.function;
    buf_ += "\",\"cat\":\"";
    buf_ += n.category;
    buf_ += "\",\"ts\":";
    appendMicros(buf_, f.startNs);
    buf_ += ",\"dur\":";
    appendMicros(buf_, end - f.startNs);
    pidTid(pid, tid);
    buf_ += '}';
    this->end();
}

void ChromeExporter::instant(Uint32 pid, Uint64 tid, Thread& t, Uint64 ns, const std::string& name,
                             const char* category, const std::string& args) {
    const Uint64 when = next(t, ns);
    begin();
    buf_ += "{\"ph\":\"i\",\"s\":\"t\",\"name\":\"";
    buf_ += name;
    buf_ += "\",\"cat\":\"";
    buf_ += category;
    buf_ += "\",\"ts\":";
    appendMicros(buf_, when);
    pidTid(pid, tid);
    buf_ += ",\"args\":{";
    buf_ += args;
    buf_ += "}}";
    end();
}

void ChromeExporter::record(const void* payload, Uint32 size) {
    static const std::string kNone;
    // A damaged dump may name any number of functions, codes and types: the texts made once are
    // kept up to a bound, and made again after it (only here, where no reference into them lives).
    constexpr size_t kKept = 1 << 16;
    if (names_.size() > kKept) names_.clear();
    if (codes_.size() > kKept) codes_.clear();
    if (types_.size() > kKept) types_.clear();
    GTRecord r;
    memset(&r, 0, sizeof r);
    memcpy(&r, payload, size < sizeof r ? size : sizeof r);
    Thread& t = thread(r.processID, r.threadID);
    const Uint64 ns = nanoseconds(r.time);

    if (r.recordType == GTRACE_TYPE_ENTRY) {
        if (t.stack.size() >= kMaxDepth) {
            ++t.framesDropped;
            return;
        }
        t.stack.push_back(Frame{r.functionID, next(t, ns)});
        return;
    }
    const std::string& fn = names(r.functionID).function;
    if (r.recordType == GTRACE_TYPE_EXIT) {
        args_ = "\"rc\":\"";
        args_ += code(r.returnCode);
        args_ += '"';
        // The matching entry is the innermost open frame of the function; frames above it were
        // left without an exit and end here, inside it.
        size_t at = t.stack.size();
        while (at > 0 && t.stack[at - 1].functionId != r.functionID) --at;
        if (at == 0) {
            // An exit whose entry the dump doesn't hold (a wrapping ring lost it).
            name_ = "exit ";
            name_ += fn;
            instant(r.processID, r.threadID, t, ns, name_, "exit", args_);
            return;
        }
        while (t.stack.size() > at) {
            name_ = "no exit ";
            name_ += names(t.stack.back().functionId).function;
            instant(r.processID, r.threadID, t, ns, name_, "exit", kNone);
            close(r.processID, r.threadID, t, ns);
        }
        if (r.returnCode != 0) {
            name_ = "rc ";
            name_ += fn;
            name_ += ' ';
            name_ += code(r.returnCode);
            instant(r.processID, r.threadID, t, ns, name_, "error", args_);
        }
        close(r.processID, r.threadID, t, ns);
        return;
    }

    // Data, error and other records: instant events inside the call they belong to.
    args_ = "\"type\":\"";
    args_ += type(r.recordType);
    args_ += "\",\"probe\":";
    appendUint(args_, r.probe);
    if (recordHasRc(r.recordType)) {
        args_ += ",\"rc\":\"";
        args_ += code(r.returnCode);
        args_ += '"';
    }
    if (recordHasWords(r.recordType)) {
        args_ += ",\"words\":[";
        appendUint(args_, r.word1);
        args_ += ',';
        appendUint(args_, r.word2);
        args_ += ']';
    }
    bool first = true;
    for (const RecordItem& item : recordItems(payload, size)) {
        args_ += first ? ",\"items\":[\"" : ",\"";
        first = false;
        appendItem(args_, item);
        args_ += '"';
    }
    if (!first) args_ += ']';
    const bool error = r.recordType == GTRACE_TYPE_ERROR || r.recordType == GTRACE_TYPE_ERROR_OP ||
                       r.recordType == GTRACE_TYPE_ERROR_TRANS;
    if (error) {
        name_ = "error ";
    } else if (r.recordType == GTRACE_TYPE_DATA) {
        name_ = "data ";
    } else {
        name_ = type(r.recordType);
        name_ += ' ';
    }
    name_ += fn;
    name_ += " probe ";
    appendUint(name_, r.probe);
    instant(r.processID, r.threadID, t, ns, name_, error ? "error" : "data", args_);
}

bool ChromeExporter::finish() {
    for (auto& [key, t] : threads_) {
        while (!t.stack.empty()) {
            instant(key.first, key.second, t, t.lastNs,
                    "no exit " + names(t.stack.back().functionId).function, "exit", "");
            close(key.first, key.second, t, t.lastNs);
        }
        if (t.framesDropped)
            emit(
                format("{\"ph\":\"M\",\"name\":\"thread_sort_index\",\"pid\":%u,\"tid\":%llu,"
                       "\"args\":{\"sort_index\":0,\"framesDropped\":%llu}}",
                       key.first, static_cast<unsigned long long>(key.second),
                       static_cast<unsigned long long>(t.framesDropped)));
    }
    flush();
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
