#include "log_walk.h"

#include <stdlib.h>

namespace zeplogwalk {

namespace {

constexpr size_t kFieldAt = 31;   // the location field, from the record's first byte
constexpr size_t kFieldEnd = 48;  // 17 characters at most
constexpr size_t kLevelAt = 49;   // " LEVEL: "

// Reads "I<offset>H<length>" at kFieldAt; false if the bytes there are not such a field.
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

// A record starts at `at` if CR LF is followed by a time stamp's shape and a location field.
bool headerAt(std::string_view file, size_t at, unsigned long long* off, unsigned long long* len) {
    if (at + 2 > file.size() || file.compare(at, 2, "\r\n") != 0) return false;
    std::string_view rec = file.substr(at + 2);
    if (rec.size() < 30 || rec[4] != '-' || rec[10] != '-' || rec[13] != '.') return false;
    return readField(rec, off, len);
}

// The next place at or after `from` where a record starts, or npos.
size_t resync(std::string_view file, size_t from) {
    unsigned long long off, len;
    for (size_t at = file.find("\r\n", from); at != std::string_view::npos;
         at = file.find("\r\n", at + 1))
        if (headerAt(file, at, &off, &len)) return at;
    return std::string_view::npos;
}

}  // namespace

int levelNumber(const std::string& w) {
    static const char* words[] = {"Severe", "Error", "Warning", "Info", "Event"};
    for (int i = 0; i < 5; ++i)
        if (w == words[i]) return i + 1;
    return 0;
}

bool isLogFile(std::string_view file) {
    unsigned long long off, len;
    return headerAt(file, 0, &off, &len);
}

void parseFields(std::string_view rec, Fields* p) {
    std::string_view lvl = lineAfter(rec, " LEVEL: ");
    p->levelWord = std::string(lvl.substr(0, lvl.find(' ')));
    std::string_view pid = lineAfter(rec, "\r\nPID     : ");
    p->pid = strtoull(std::string(pid).c_str(), nullptr, 10);
    size_t t = pid.find("TID : ");
    p->tid = t == std::string_view::npos
                 ? 0
                 : strtoull(std::string(pid.substr(t + 6)).c_str(), nullptr, 10);
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

unsigned long walk(std::string_view file,
                   const std::function<void(std::string_view rec, size_t at)>& record,
                   const std::function<void(const Damage&)>& damage) {
    unsigned long damaged = 0;
    size_t pos = 0;  // at a record's opening CR LF
    while (pos < file.size()) {
        unsigned long long off = 0, len = 0;
        if (!headerAt(file, pos, &off, &len)) {
            size_t next = resync(file, pos + 1);
            size_t end = next == std::string_view::npos ? file.size() : next;
            damage({Damage::kStray, pos, end - 1});
            ++damaged;
            pos = end;
            continue;
        }
        const size_t start = pos + 2;
        if (len > file.size() - start) {
            damage({Damage::kTruncated, 0, 0, start, len});
            ++damaged;
            break;
        }
        const size_t end = start + len;
        unsigned long long nOff, nLen;
        const bool endsWell = end == file.size() || headerAt(file, end, &nOff, &nLen);
        if (off != start) {
            // Another writer's record, or one written without the file lock.
            damage({Damage::kMisplaced, 0, 0, start, off});
            ++damaged;
        }
        if (!endsWell) {
            size_t next = resync(file, start);
            size_t stop = next == std::string_view::npos ? file.size() : next;
            damage({Damage::kBadEnd, pos, stop - 1, start});
            ++damaged;
            pos = stop;
            continue;
        }
        record(file.substr(start, len), start);
        pos = end;
    }
    return damaged;
}

}  // namespace zeplogwalk
