// zepassert.cpp - assertion reports and the pointer tests.
#include "zepassert.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zephexdump.h"
#include "zeplib.h"
#include "zepnumconv.h"
#include "zepos.h"
#include "zepprimfile.h"

// The default facility's path, from the log. Weak, so that the report names no file of the
// log's until the log hands its path out.
extern "C" __attribute__((weak, visibility("hidden"))) String zepLogDefaultFacilityPath(void);

namespace {

constexpr Uint32 kHeadSize = 256;
constexpr Uint32 kDumpSize = 4096;
constexpr Uint32 kFileNameSize = 256;

ZEPAssertionCallback s_callback = nullptr;

String orNull(String s) {
    return s ? s : "(null)";
}

// The pairs up to the first null pointer or zero length, with the end marker behind them.
Uint32 collectPairs(va_list ap, ZEPAssertPair* pairs) {
    Uint32 n = 0;
    while (n < ZEP_ASSERT_MAX_PAIRS) {
        const void* data = va_arg(ap, const void*);
        if (data == nullptr) break;
        Uint32 length = va_arg(ap, Uint32);
        if (length == 0) break;
        pairs[n].data = data;
        pairs[n].length = length;
        ++n;
    }
    pairs[n].data = nullptr;
    pairs[n].length = 0;
    return n;
}

// No prefix, given as an empty one: the dump copies the prefix with memcpy, which must not be
// handed a null pointer even for no bytes.
void dumpPair(const ZEPAssertPair& pair, char* dump) {
    zepHexDumpToBuffer(pair.data, pair.length, dump, kDumpSize, "", ZEP_HEXDUMP_ADDRESS);
}

void toConsole(const char* head, const ZEPAssertPair* pairs, Uint32 count) {
    char dump[kDumpSize];
    fputs(head, stdout);
    for (Uint32 i = 0; i < count; ++i) {
        dumpPair(pairs[i], dump);
        printf("dump data %u:\n%s", i, dump);
    }
    fflush(stdout);
}

// The report's file, locked as the log locks its file: byte 0, exclusively. Threads and
// processes that report into one file, and the log writing into the same file, each append
// whole.
class ReportFile : public ZEPPrimitiveFileOp {
public:
    bool lock() { return zepos::fd::LockFirstByte(fileHandle()) != 0; }
    void unlock() { zepos::fd::UnlockFirstByte(fileHandle()); }
};

// The whole report in one buffer, written by one call at the end of the file under the lock.
// Without memory for the buffer the pieces go one by one, still under the lock.
void toFile(String name, const char* head, const ZEPAssertPair* pairs, Uint32 count) {
    ReportFile file;
    // 0x14: open or create, for reading and writing.
    if (file.open(name, 0x14u) != 0) return;
    const size_t headLength = strlen(head);
    const size_t room = headLength + static_cast<size_t>(count) * (32 + kDumpSize) + 1;
    char* report = static_cast<char*>(malloc(room));
    size_t length = 0;
    if (report != nullptr) {
        memcpy(report, head, headLength);
        length = headLength;
        for (Uint32 i = 0; i < count; ++i) {
            length += static_cast<size_t>(
                zepSnprintf(report + length, 32, "dump data %d:\n", static_cast<int>(i)));
            dumpPair(pairs[i], report + length);
            length += strlen(report + length);
        }
    }
    const bool locked = file.lock();
    file.seekToEnd();
    if (report != nullptr) {
        file.write(report, static_cast<Uint32>(length));
    } else if (file.write(head, 0) == 0) {
        char line[32];
        char dump[kDumpSize];
        for (Uint32 i = 0; i < count; ++i) {
            zepSnprintf(line, sizeof line, "dump data %d:\n", static_cast<int>(i));
            if (file.write(line, 0) != 0) break;
            dumpPair(pairs[i], dump);
            if (dump[0] != 0 && file.write(dump, 0) != 0) break;
        }
    }
    if (locked) file.unlock();
    file.close();
    free(report);
}

}  // namespace

void zepSetAssertionCallback(ZEPAssertionCallback callback) {
    __atomic_store_n(&s_callback, callback, __ATOMIC_RELEASE);
}

void zepAssertFailed(String expression, String file, Uint32 line) {
    zepAssertFailureAction(expression, file, line, nullptr, 0, nullptr);
}

void zepAssertFailureAction(String expression, String file, Uint32 line, String path, Bool fatal,
                            ...) {
    ZEPAssertPair pairs[ZEP_ASSERT_MAX_PAIRS + 1];
    va_list ap;
    // The exported signature ends its named part with a one-byte Bool. va_start needs only that
    // parameter's place, and the calling convention passes it widened in a register like any
    // integer, so the promotion clang warns about changes nothing here.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wvarargs"
#endif
    va_start(ap, fatal);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
    const Uint32 count = collectPairs(ap, pairs);
    va_end(ap);

    ZEPAssertionCallback callback = __atomic_load_n(&s_callback, __ATOMIC_ACQUIRE);
    if (callback != nullptr) {
        callback(expression, file, line, path, fatal, pairs);
        return;
    }

    const Uint32 pid = zepProcessID();
    const Uint64 tid = zepThreadID();
    time_t now = time(nullptr);
    struct tm local;
    char when[64] = "\n";
    if (localtime_r(&now, &local) != nullptr) asctime_r(&local, when);

    char head[kHeadSize];
    zepSnprintf(head, sizeof head,
                "%sASSERTION FAILED!!!\r\nTime       = %sExpr       = %s\r\nPID        = "
                "%u\r\nTID        = %llu\r\nFile       = %s\r\nLine       = %u\r\n",
                fatal ? "" : "NON-FATAL ", when, orNull(expression), pid,
                static_cast<unsigned long long>(tid), orNull(file), line);

    char name[kFileNameSize];
    String target = nullptr;
    if (path != nullptr && path[0] != 0) {
        zepSnprintf(name, sizeof name, "%s%cp%ut%llu.mem", path, ZEP_PATH_SEPARATOR, pid,
                    static_cast<unsigned long long>(tid));
        target = name;
    } else {
        if (zepos::_isatty(1)) toConsole(head, pairs, count);
        target = getenv("ZEP_DEBUG_LOG_FILE");
        if ((target == nullptr || target[0] == 0) && zepLogDefaultFacilityPath != nullptr)
            target = zepLogDefaultFacilityPath();
    }
    if (target != nullptr && target[0] != 0) toFile(target, head, pairs, count);

    if (fatal) {
        zepos::OutputDebugStringA(head);
        zepos::DebugBreak();
    }
}

Uint32 _zepIsBadReadPtr(const void* pointer, Uint32 size) {
    if (reinterpret_cast<uintptr_t>(pointer) < 4096 || size == 0) return 1;
    return zepos::IsBadReadPtr(pointer, size) ? 1 : 0;
}

Uint32 _zepIsBadWritePtr(void* pointer, Uint32 size, Bool write) {
    if (reinterpret_cast<uintptr_t>(pointer) < 4096 || size == 0) return 1;
    return (write ? zepos::IsBadWritePtr(pointer, size) : zepos::IsBadReadPtr(pointer, size)) ? 1
                                                                                              : 0;
}

Uint32 _zepIsBadString(String text, Uint32 maximum) {
    if (text == nullptr || maximum == 0) return 1;
    return zepos::IsBadStringPtrA(text, maximum) ? 1 : 0;
}
