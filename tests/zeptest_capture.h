// zeptest_capture.h - records every log and trace call the library makes, as it made them.
//
// Include it from exactly ONE .cpp of a test binary: it defines the library's log and trace entry
// points (zepLog, zepLogRC, zepLogSysRC, _gtraceEntry/Exit/Var/ErrorVar) with C linkage, and the
// executable's definitions win over the library's, so calls from inside libzep land here. Such a
// binary can't test the log itself.
#ifndef ZEPTEST_CAPTURE_H
#define ZEPTEST_CAPTURE_H

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "zep.h"

namespace zeptest {

struct Item {
    Uint32 kind = 0, length = 0;  // trace items: (kind, length, address)
    Sint32 type = 0;              // log items: (address, length, type)
    const void* ptr = nullptr;
    std::string bytes;  // what the address held at the time of the call
};

struct Call {
    std::string what;  // log, logrc, logsys, entry, var, error, exit
    Uint64 thread = 0;
    Uint32 fid = 0, called = 0, err = 0, code = 0, probe = 0, level = 0, type = 0, w1 = 0, w2 = 0;
    Uint32 rc = 0;     // the exit record's result
    Sint32 count = 0;  // zepLog's item count, the others' mask, a trace record's item count
    std::vector<Item> items;
    Call() = default;
    Call(const char* w, Uint64 t, Uint32 f) : what(w), thread(t), fid(f) {}
};

inline std::vector<Call> calls;
inline void (*onLog)() = nullptr;    // run after each log call is recorded
inline void (*onTrace)() = nullptr;  // run after each trace record with items is recorded
inline Uint32 fakeBlock[4];          // a control block head: the enable word is the second word

inline void trace(bool on) {
    fakeBlock[1] = on;
    g_pGTCB = on ? reinterpret_cast<GTCB*>(fakeBlock) : nullptr;
}

inline std::vector<std::string> kinds() {
    std::vector<std::string> k;
    for (const Call& c : calls) k.push_back(c.what);
    return k;
}

template <class T>
T valueOf(const Item& it) {
    T v{};
    EXPECT_EQ(it.bytes.size(), sizeof(T));
    memcpy(&v, it.bytes.data(), std::min(sizeof(T), it.bytes.size()));
    return v;
}

// The one log call of a failure, checked for the fields every such record has.
inline const Call& theLog(Uint32 fid, Uint32 probe, Uint32 code, Uint32 level = ZEP_LOG_INFO) {
    static const Call none;
    const Call* found = &none;
    int logs = 0;
    for (const Call& c : calls)
        if (c.what.compare(0, 3, "log") == 0) ++logs, found = &c;
    EXPECT_EQ(
        std::vector<Uint32>({Uint32(logs), found->fid, found->probe, found->code, found->level}),
        std::vector<Uint32>({1, fid, probe, code, level}));
    return *found;
}

// Takes n items off the arguments (log items or trace items) and records the call.
inline void record(Call& c, int n, va_list& ap, bool log) {
    for (int i = 0; i < n; ++i) {
        Item it;
        if (log)
            it.ptr = va_arg(ap, const void*), it.length = va_arg(ap, Uint32),
            it.type = va_arg(ap, Sint32);
        else
            it.kind = va_arg(ap, Uint32), it.length = va_arg(ap, Uint32),
            it.ptr = va_arg(ap, const void*);
        if (it.ptr) it.bytes.assign(static_cast<const char*>(it.ptr), it.length);
        c.items.push_back(it);
    }
    calls.push_back(c);
    if (void (*hook)() = log ? onLog : onTrace) hook();
}

// zepLogRC and zepLogSysRC: the mask's low 31 bits say which items follow.
inline void recordMasked(const char* what, Uint32 fid, Uint32 called, Uint32 err, Uint32 code,
                         Uint32 probe, Uint32 level, Sint32 mask, va_list& ap) {
    Call c(what, 0, fid);
    c.called = called, c.err = err, c.code = code, c.probe = probe, c.level = level, c.count = mask;
    record(c, __builtin_popcount(static_cast<Uint32>(mask) & 0x7FFFFFFFu), ap, true);
}

}  // namespace zeptest

extern "C" {

Uint32 zepLog(ZEPLogFacility*, Uint32 fid, Uint32 code, Uint32 probe, Uint32 level, Sint32 count,
              ...) {
    zeptest::Call c("log", 0, fid);
    c.code = code, c.probe = probe, c.level = level, c.count = count;
    va_list ap;
    va_start(ap, count);
    zeptest::record(c, count, ap, true);
    va_end(ap);
    return 0;
}

Uint32 zepLogRC(ZEPLogFacility*, Uint32 fid, Uint32 called, Uint32 calledRc, Uint32 code,
                Uint32 probe, Uint32 level, Sint32 mask, ...) {
    va_list ap;
    va_start(ap, mask);
    zeptest::recordMasked("logrc", fid, called, calledRc, code, probe, level, mask, ap);
    va_end(ap);
    return 0;
}

Uint32 zepLogSysRC(ZEPLogFacility*, Uint32 fid, Uint32 called, Uint32 osError, Uint32 code,
                   Uint32 probe, Uint32 level, Sint32 mask, ...) {
    va_list ap;
    va_start(ap, mask);
    zeptest::recordMasked("logsys", fid, called, osError, code, probe, level, mask, ap);
    va_end(ap);
    return 0;
}

void _gtraceEntry(Uint64 t, Uint32 fid) {
    zeptest::calls.emplace_back("entry", t, fid);
}

void _gtraceExit(Uint64 t, Uint32 fid, const Uint32* rc, Uint32 w1, Uint32 w2) {
    zeptest::Call& c = zeptest::calls.emplace_back("exit", t, fid);
    c.w1 = w1, c.w2 = w2, c.rc = *rc;
}

void _gtraceVar(Uint64 t, Uint32 fid, Uint16 probe, Uint16 type, Uint32 n, ...) {
    zeptest::Call c("var", t, fid);
    c.probe = probe, c.type = type, c.count = static_cast<Sint32>(n);
    va_list ap;
    va_start(ap, n);
    zeptest::record(c, static_cast<int>(n), ap, false);
    va_end(ap);
}

void _gtraceErrorVar(Uint64 t, Uint32 fid, Uint16 probe, Uint16 type, Uint32 w1, Uint32 w2,
                     Uint32 n, ...) {
    zeptest::Call c("error", t, fid);
    c.probe = probe, c.type = type, c.w1 = w1, c.w2 = w2, c.count = static_cast<Sint32>(n);
    va_list ap;
    va_start(ap, n);
    zeptest::record(c, static_cast<int>(n), ap, false);
    va_end(ap);
}

}  // extern "C"

namespace zeptest {

inline std::string nameOr(const char* name, Uint32 id) {
    return name ? std::string(name) : std::to_string(id);
}

// The calls so far, joined by "; ": kind and function, then the probe, type and item count of a
// trace record, an exit's result, or a log's called function, platform error, code, probe, level
// and item count (n) or mask (m). Names come from the catalogue.
inline std::string said() {
    auto fn = [](Uint32 id) { return nameOr(ecfGetFunctionName(id), id); };
    auto code = [](Uint32 c) { return nameOr(ecfErrorGetCodeName(c), c); };
    std::string out;
    for (const Call& c : calls) {
        out += (out.empty() ? "" : "; ") + c.what + " " + fn(c.fid);
        if (c.what == "exit") out += " " + code(c.rc);
        if (c.what == "var" || c.what == "error")
            out += " p" + std::to_string(c.probe) + " t" + std::to_string(c.type);
        const bool log = c.what.compare(0, 3, "log") == 0, masked = log && c.what != "log";
        if (masked) out += " " + fn(c.called) + " " + std::to_string(c.err);
        if (log)
            out += " " + code(c.code) + " p" + std::to_string(c.probe) + " L" +
                   std::to_string(c.level);
        char n[16];
        snprintf(n, sizeof n, masked ? " m%X" : " n%d", c.count);
        if (c.what != "entry" && c.what != "exit") out += n;
    }
    return out;
}

// A test with the capture emptied, the trace off, and a fresh directory of its own.
class CaptureTest : public ::testing::Test {
protected:
    void SetUp() override {
        calls.clear();
        onLog = onTrace = nullptr;
        trace(false);
        char tmpl[] = "/tmp/zeptestXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        trace(false);
        ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }
    std::string path(const char* name) const { return dir_ + "/" + name; }
    std::string dir_;
};

}  // namespace zeptest

#endif
