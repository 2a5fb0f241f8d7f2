// trace_format.cpp - trace dumps as readable text.
#include "trace_format.h"

#include <stdio.h>
#include <string.h>

#include <memory>
#include <vector>

#include "zepecf.h"
#include "zephexdump.h"
#include "zephfile.h"

namespace zeptrace {

namespace {

constexpr Uint32 kFixed = sizeof(GTRecord);
constexpr Uint32 kOneSlot = 52;  // payload of a one-slot record: no itemCount

Uint32 load32(const Uint8* p) {
    Uint32 v;
    memcpy(&v, p, 4);
    return v;
}

// The fixed part, with the bytes a one-slot record hasn't got read as zero.
GTRecord fixedPart(const void* payload, Uint32 size) {
    GTRecord r;
    memset(&r, 0, sizeof r);
    memcpy(&r, payload, size < sizeof r ? size : sizeof r);
    return r;
}

struct Item {
    Uint32 kind, length;
    const Uint8* data;  // null for a null address
};

// The descriptors at `start`, if they describe a variable part that fits the record: no more
// bytes than dataLength counts and the payload holds.
bool readItems(const Uint8* p, Uint32 size, const GTRecord& r, Uint32 start,
               std::vector<Item>* items) {
    items->clear();
    const Uint64 descriptors = Uint64{r.itemCount} * sizeof(GTItemDescriptor);
    if (start + descriptors > size || descriptors > r.dataLength) return false;
    Uint64 counted = descriptors, at = start + descriptors;
    bool anyNull = false;
    for (Uint32 i = 0; i < r.itemCount; ++i) {
        const Uint32 kind = load32(p + start + 8 * i), length = load32(p + start + 8 * i + 4);
        if (length == GTRACE_ITEM_NULL) {
            anyNull = true;
            items->push_back(Item{kind, length, nullptr});
            continue;
        }
        counted += length;
        if (at + length > size || counted > r.dataLength) return false;
        items->push_back(Item{kind, length, p + at});
        at += length;
    }
    // A null item's length counts in dataLength without bytes, so only a record without one
    // must add up exactly.
    return anyNull || counted == r.dataLength;
}

// The items of a Var record. Those of _gtraceErrorRcVar begin behind two words, at 64; the type
// doesn't tell which form wrote an error record, the descriptors do.
std::vector<Item> itemsOf(const void* payload, Uint32 size, const GTRecord& r) {
    std::vector<Item> items;
    if (size <= kOneSlot || r.dataLength == 0) return items;
    const Uint8* p = static_cast<const Uint8*>(payload);
    if (readItems(p, size, r, kFixed, &items)) return items;
    if (readItems(p, size, r, kFixed + 8, &items)) return items;
    items.clear();
    return items;
}

bool hasRc(Uint32 type) {
    return type == GTRACE_TYPE_EXIT || type == GTRACE_TYPE_CORRELATOR;
}
bool hasWords(Uint32 type) {
    return type == GTRACE_TYPE_EXIT || type == GTRACE_TYPE_ERROR || type == GTRACE_TYPE_ERROR_OP ||
           type == 11 || type == GTRACE_TYPE_CORRELATOR || type == GTRACE_TYPE_ERROR_TRANS;
}
bool hasProbe(Uint32 type) {
    return type != GTRACE_TYPE_ENTRY && type != GTRACE_TYPE_EXIT;
}

std::string hexLines(const Uint8* data, Uint32 length, const char* indent) {
    std::string out;
    char line[ZEP_HEXDUMP_LINE_SIZE];
    for (Uint32 at = 0; at < length; at += 16) {
        const Uint32 n = length - at < 16 ? length - at : 16;
        zepHexDumpLine(line, data + at, n, 0);
        size_t len = strlen(line);
        while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) --len;
        out += indent;
        out += format("%04X  ", at);
        out.append(line, len);
        out += '\n';
    }
    return out;
}

}  // namespace

std::string format(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

std::string Formatter::typeName(Uint32 type) {
    switch (type) {
        case GTRACE_TYPE_ENTRY:
            return "ENTRY";
        case GTRACE_TYPE_EXIT:
            return "EXIT";
        case GTRACE_TYPE_DATA:
            return "DATA";
        case GTRACE_TYPE_ERROR:
            return "ERROR";
        case GTRACE_TYPE_ERROR_OP:
            return "ERROR_OP";
        case GTRACE_TYPE_CORRELATOR:
            return "CORRELATOR";
        case GTRACE_TYPE_ERROR_TRANS:
            return "ERROR_TRANS";
        default:
            return format("TYPE_%u", type);
    }
}

std::string Formatter::functionName(Uint32 functionId) {
    const char* product = ecfGetProductName(functionId);
    const char* component = ecfGetComponentName(functionId);
    const char* function = ecfGetFunctionName(functionId);
    if (function == nullptr || *function == '\0') return format("function 0x%08X", functionId);
    return format("%s, %s, %s", product ? product : "?", component ? component : "?", function);
}

std::string Formatter::codeName(Uint32 code) {
    const char* name = ecfErrorGetCodeName(code);
    if (name == nullptr || *name == '\0') return format("0x%08X", code);
    return format("0x%08X %s", code, name);
}

std::string Formatter::time(Uint64 ticks) const {
    Uint32 seconds = 0, nanoseconds = 0;
    ZEPTick(ticks).convertToTime(factor_, seconds, nanoseconds);
    return format("%u.%09u", seconds, nanoseconds);
}

std::string Formatter::record(const void* payload, Uint32 size, Uint64 index) const {
    const GTRecord r = fixedPart(payload, size);
    std::string out =
        format("#%llu %s  pid %u  tid %llu  time %s\n", static_cast<unsigned long long>(index),
               typeName(r.recordType).c_str(), r.processID,
               static_cast<unsigned long long>(r.threadID), time(r.time).c_str());
    out += "    " + format("0x%08X ", r.functionID) + functionName(r.functionID);
    if (hasProbe(r.recordType)) out += format("  probe %u", r.probe);
    if (r.recordFlags != 0) out += format("  flags 0x%X", r.recordFlags);
    out += '\n';
    if (hasRc(r.recordType)) out += "    rc " + codeName(r.returnCode) + '\n';
    if (hasWords(r.recordType)) {
        out += format("    words 0x%08X 0x%08X", r.word1, r.word2);
        if (r.recordType == GTRACE_TYPE_ERROR_TRANS && size >= kFixed + 8) {
            const Uint8* p = static_cast<const Uint8*>(payload);
            out += format(" 0x%08X 0x%08X", load32(p + kFixed), load32(p + kFixed + 4));
        }
        out += '\n';
    }
    if (r.fixedData1 != 0xFFFFFFFFu || r.fixedData2 != 0xFFFFFFFFu)
        out += format("    fixed 0x%08X 0x%08X\n", r.fixedData1, r.fixedData2);
    const std::vector<Item> items = itemsOf(payload, size, r);
    for (size_t i = 0; i < items.size(); ++i) {
        const Item& it = items[i];
        if (it.data == nullptr) {
            out += format("    item %zu  kind %u  null\n", i + 1, it.kind);
            continue;
        }
        out += format("    item %zu  kind %u  %u bytes%s\n", i + 1, it.kind, it.length,
                      it.kind == GTRACE_ITEM_CUT ? " (cut)" : "");
        out += hexLines(it.data, it.length, "      ");
    }
    return out;
}

std::string Formatter::flow(const void* payload, Uint32 size) {
    const GTRecord r = fixedPart(payload, size);
    Uint32& depth = depth_[{r.processID, r.threadID}];
    if (r.recordType == GTRACE_TYPE_EXIT && depth > 0) --depth;
    std::string out = format("%u/%llu  %s  ", r.processID,
                             static_cast<unsigned long long>(r.threadID), time(r.time).c_str());
    out.append(2 * depth, ' ');
    const char* function = ecfGetFunctionName(r.functionID);
    const std::string name = function && *function ? function : format("0x%08X", r.functionID);
    switch (r.recordType) {
        case GTRACE_TYPE_ENTRY:
            out += "> " + name;
            ++depth;
            break;
        case GTRACE_TYPE_EXIT:
            out += "< " + name + "  rc " + codeName(r.returnCode);
            break;
        default:
            out += format("%s %s probe %u", typeName(r.recordType).c_str(), name.c_str(), r.probe);
            if (size_t n = itemsOf(payload, size, r).size()) out += format("  (%zu items)", n);
            break;
    }
    out += '\n';
    return out;
}

std::string Formatter::countEntry(const GTCountEntry& e) const {
    return format("%10u  %s  0x%08X %s\n", e.count, time(e.totalTime).c_str(), e.functionID,
                  functionName(e.functionID).c_str());
}

Uint32 walkDumpFile(const char* path, bool forward, DumpInfo* info, const RecordVisitor& visit,
                    Uint64* records) {
    if (path == nullptr || info == nullptr) return ECF_INVALID_PARAMETER;
    if (records) *records = 0;
    ZEPHFile file;
    ZEPFileOpenParam open;
    open.path = path;
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ;
    Uint32 rc = file.open(&open);
    if (rc != 0) return rc;

    // The tick factor from the header; the parser reads the header again for itself. A file
    // shorter than the trace's own header is no dump, whatever its first bytes say.
    std::unique_ptr<Uint8[]> header(new Uint8[sizeof(GTDumpHeader)]());
    ZEPFileReadParam read;
    read.length = GTRACE_DUMP_TRACE_HEADER_SIZE;
    Uint32 got = 0;
    rc = file.read(&read, header.get(), &got);
    const GTDumpHeader* h = reinterpret_cast<const GTDumpHeader*>(header.get());
    if (rc == 0 && got < GTRACE_DUMP_TRACE_HEADER_SIZE) rc = ECF_GTRACE_DUMP_HEADER_TRUNCATED;
    if (rc == 0 && memcmp(h->eyeCatcher, GTRACE_DUMP_EYE_CATCHER, 8) != 0)
        rc = ECF_GTRACE_INVALID_DUMP_EYE_CATCHER;
    Uint64 fileSize = 0;
    if (rc == 0) rc = file.getSize(&fileSize);
    info->counting = (h->options.modeBits & GTRACE_MODE_COUNTING) != 0;
    info->modeBits = h->options.modeBits;
    info->bufferSize = h->options.bufferSize;
    info->flags = h->options.flags;
    info->tickFactor = h->tickFactor;
    info->fileSize = fileSize;
    ZEPFileSeekParam start;  // offset 0 from the start
    if (rc == 0) rc = file.seek(&start);
    if (rc == 0 && !info->counting) rc = gtraceValidateDumpFile(&file, GTRACE_DUMP_KIND_RAMBO);
    GTDumpParser parser;
    if (rc == 0) rc = gtraceOpenDumpFileParser(&file, &parser, forward ? 1 : 0);
    if (rc != 0) {
        file.close();
        return rc;
    }

    std::vector<Uint8> buffer(RAMBO_CHUNK_SIZE);
    Uint64 n = 0;
    for (Uint32 size; (size = gtraceParseRecords(&file, &parser, nullptr, buffer.data(),
                                                 static_cast<Uint32>(buffer.size()))) != 0;) {
        ++n;
        if (!visit(buffer.data(), size)) break;
    }
    gtraceCloseDumpFileParser(&parser);
    file.close();
    if (records) *records = n;
    return 0;
}

Uint32 formatDumpFile(const char* path, View view, bool forward, std::string* text,
                      Uint64* records) {
    if (path == nullptr || text == nullptr) return ECF_INVALID_PARAMETER;
    DumpInfo info;
    std::unique_ptr<Formatter> formatter;
    Uint64 n = 0;
    return walkDumpFile(
        path, forward, &info,
        [&](const void* payload, Uint32 size) {
            if (!formatter) formatter = std::make_unique<Formatter>(info.tickFactor);
            ++n;
            if (info.counting) {
                GTCountEntry e;
                memcpy(&e, payload, sizeof e);
                *text += formatter->countEntry(e);
            } else if (view == View::Flow) {
                *text += formatter->flow(payload, size);
            } else {
                *text += formatter->record(payload, size, n);
            }
            return true;
        },
        records);
}

std::vector<RecordItem> recordItems(const void* payload, Uint32 size) {
    const GTRecord r = fixedPart(payload, size);
    std::vector<RecordItem> out;
    for (const Item& i : itemsOf(payload, size, r))
        out.push_back(RecordItem{i.kind, i.length, i.data});
    return out;
}

bool recordHasRc(Uint32 type) {
    return hasRc(type);
}
bool recordHasWords(Uint32 type) {
    return hasWords(type);
}

}  // namespace zeptrace
