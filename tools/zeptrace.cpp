// zeptrace - the trace's control program: builds a trace area in named shared memory, switches it
// on and off, sets its masks in words, dumps and drains it, and shows or exports dumps.
//
// A trace area is a named extended shared-memory block (plain names, 64-bit sizes, and an
// exclusive create that refuses a live name) holding the control block and its record store.
// Named blocks live while some process holds them, so `create` leaves a small holder process
// behind that keeps the area until `destroy`; the holder's process identifier and a mark stand in
// the options' two words reserved for control programs. A process of the product joins the trace
// by attaching the block by its name and calling gtraceAttach on its first byte (see
// docs/zeptrace.md).
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "rambo_consumer.h"
#include "trace_export.h"
#include "trace_format.h"
#include "zep.h"

namespace {

constexpr Uint32 kHolderMark = 0x5A545243u;  // "ZTRC" in the options' second reserved word

const char* g_program = "zeptrace";

[[noreturn]] void die(int status, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void die(int status, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "%s: ", g_program);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    exit(status);
}

std::string codeText(Uint32 rc) {
    const char* name = ecfErrorGetCodeName(rc);
    const char* text = ecfErrorGetDescription(rc);
    char buf[256];
    snprintf(buf, sizeof buf, "%s (0x%08X): %s", name && *name ? name : "?", rc,
             text && *text ? text : "unknown code");
    return buf;
}

// ---- usage

const char* const kUsage =
    "usage: zeptrace <command> [options]\n"
    "\n"
    "Trace areas in shared memory:\n"
    "  create NAME [options]   build a trace area and keep it until destroy\n"
    "  destroy NAME            let the area go (it lives on while processes hold it)\n"
    "  on NAME | off NAME      switch the trace on or off\n"
    "  status NAME             mode, size, switch, events, attached processes, how full\n"
    "  mask NAME add|del|set|show|clear [WORD...]\n"
    "                          the trace mask in words (see 'zeptrace mask --help')\n"
    "  dump NAME FILE          an instantaneous dump of the live trace\n"
    "  drain NAME FILE         store a chunked trace's chunks until interrupted\n"
    "\n"
    "Dump files:\n"
    "  show FILE [options]     records, flow per thread, or the counting table\n"
    "  export FILE --format chrome OUT.json\n"
    "                          trace-event JSON for timeline viewers\n"
    "\n"
    "'zeptrace <command> --help' describes a command.\n";

const char* const kCreateHelp =
    "usage: zeptrace create NAME [options]\n"
    "  --size BYTES        record store size (k, M, G suffixes); a power of two for the rings,\n"
    "                      from 512k to 1G (default 4M)\n"
    "  --mode MODE         wrap (newest records kept, default), stop (oldest kept, full stops),\n"
    "                      chunked (drained by 'zeptrace drain'), counting, delaying\n"
    "  --on                switch the trace on at once\n"
    "  --no-timestamp      records without time stamps\n"
    "  --errors-only       only error records and failing exits\n"
    "  --count-time        counting mode: time spent per function\n"
    "  --pid PID[/TID]     record only this process (and thread); up to 5 filters\n"
    "  --stop-count N      switch off after N stop events\n"
    "  --stop-rc CODE      an exit with this code is a stop event\n";

const char* const kMaskHelp =
    "usage: zeptrace mask NAME add|del|set|show|clear [WORD...]\n"
    "  add WORD...    turn on what the words name        del WORD...  turn it off\n"
    "  set WORD...    clear, then add                     clear        turn everything off\n"
    "  show           print the mask in the same words\n"
    "Words:\n"
    "  all                          every trace point\n"
    "  COMP_ZEPE                    a component by its short name\n"
    "  zepFileRename                a function by its name (ZEPHFile::open works too)\n"
    "  WORD:TYPES                   only these record types: entry,exit,data,error,error-op,\n"
    "                               correlator,error-trans or numbers\n"
    "  FUNCTION@PROBE               one probe of a function\n"
    "  -WORD                        the same as 'del WORD' (an exclusion)\n"
    "The mask filters once set: masks switch the trace's full-mask filter on.\n";

const char* const kShowHelp =
    "usage: zeptrace show FILE [options]\n"
    "  --view records|flow|counts   records (default), the call flow per thread, or the\n"
    "                               counting table (of a counting dump)\n"
    "  --backward                   newest record first\n"
    "  --pid PID  --tid TID         only this process or thread\n"
    "  --function NAME|0xID         only this function\n"
    "  --errors                     only error records and exits with a code\n"
    "  --limit N                    stop after N records\n";

const char* const kExportHelp =
    "usage: zeptrace export FILE --format chrome OUT.json\n"
    "  trace-event JSON (one track per process and thread, calls as nested duration events,\n"
    "  errors as instant events); opens in Perfetto UI, chrome://tracing and speedscope.\n"
    "  OUT.json '-' writes to standard output.\n";

bool wantsHelp(int argc, char** argv) {
    for (int i = 0; i < argc; ++i)
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) return true;
    return false;
}

// ---- numbers and names

Uint64 parseSize(const char* text) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 0);
    if (end == text || errno != 0) die(2, "not a size: '%s'", text);
    Uint64 unit = 1;
    if (*end == 'k' || *end == 'K')
        unit = 1024, ++end;
    else if (*end == 'm' || *end == 'M')
        unit = 1024 * 1024, ++end;
    else if (*end == 'g' || *end == 'G')
        unit = 1024ull * 1024 * 1024, ++end;
    if (*end == 'b' || *end == 'B') ++end;
    if (*end != '\0' || v > (~0ull) / unit) die(2, "not a size: '%s'", text);
    return v * unit;
}

Uint64 parseNumber(const char* text, const char* what) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 0);
    if (end == text || *end != '\0' || errno != 0) die(2, "not a %s: '%s'", what, text);
    return v;
}

struct Function {
    Uint32 product = 0, component = 0, function = 0;  // 0: all at that level
};

// A function by its name, or by its identifier in hexadecimal.
bool findFunction(const std::string& name, Function* out) {
    if (name.size() > 2 && name[0] == '0' && (name[1] == 'x' || name[1] == 'X')) {
        char* end = nullptr;
        const unsigned long id = strtoul(name.c_str(), &end, 16);
        if (*end != '\0') return false;
        out->product = static_cast<Uint32>(id >> 27) & 0x1F;
        out->component = static_cast<Uint32>(id >> 19) & 0xFF;
        out->function = static_cast<Uint32>(id) & 0xFFFF;
        return out->product != 0;
    }
    for (Uint32 p = 1; p <= ecfGetNumProducts(); ++p)
        for (Uint32 c = 1; c < ecfGetNumComponents(p); ++c)
            if (Uint32 f = ecfFindFunctionIndex(p, c, name.c_str())) {
                *out = Function{p, c, f};
                return true;
            }
    return false;
}

bool findComponent(const std::string& name, Function* out) {
    for (Uint32 p = 1; p <= ecfGetNumProducts(); ++p)
        if (Uint32 c = ecfFindComponentIndex(p, name.c_str())) {
            *out = Function{p, c, 0};
            return true;
        }
    return false;
}

Uint32 functionId(Uint32 product, Uint32 component, Uint32 function) {
    return (product << 27) | (component << 19) | function;
}

struct TypeName {
    const char* name;
    Uint32 type;
};
constexpr TypeName kTypes[] = {{"entry", GTRACE_TYPE_ENTRY},
                               {"exit", GTRACE_TYPE_EXIT},
                               {"data", GTRACE_TYPE_DATA},
                               {"error", GTRACE_TYPE_ERROR},
                               {"error-op", GTRACE_TYPE_ERROR_OP},
                               {"correlator", GTRACE_TYPE_CORRELATOR},
                               {"error-trans", GTRACE_TYPE_ERROR_TRANS}};

std::string typeWord(Uint32 type) {
    for (const TypeName& t : kTypes)
        if (t.type == type) return t.name;
    return std::to_string(type);
}

Uint32 parseType(const std::string& word) {
    for (const TypeName& t : kTypes)
        if (word == t.name) return t.type;
    char* end = nullptr;
    const unsigned long v = strtoul(word.c_str(), &end, 10);
    if (word.empty() || *end != '\0' || v > 15) die(2, "not a record type: '%s'", word.c_str());
    return static_cast<Uint32>(v);
}

// ---- the area

struct Area {
    ZEPHIPCMemoryEx memory;
    GTCB* cb = nullptr;
    std::string name;
};

// Attaches the named area and makes it this process's trace (so the control operations work).
void attachArea(Area* area, const std::string& name) {
    area->name = name;
    ZEPIPCMemoryExAttachParam attach;
    attach.name = name.c_str();
    attach.flags = ZEP_IPC_MEMEX_READ_WRITE;
    ZEPIPCMemoryExInfo info;
    const Uint32 rc = area->memory.attach(&attach, &info);
    if (rc == ECF_FILE_DOESNT_EXIST || rc == ECF_MEM_DOESNT_EXIST)
        die(1, "no trace area named '%s'", name.c_str());
    if (rc != 0)
        die(1, "cannot attach the trace area '%s': %s", name.c_str(), codeText(rc).c_str());
    area->cb = static_cast<GTCB*>(info.address);
    if (area->cb->initialized != 1 || area->cb->options.reserved[1] != kHolderMark)
        die(1, "'%s' is a shared block but no trace area of zeptrace", name.c_str());
    const Uint32 a = gtraceAttach(area->cb, zepProcessID(), nullptr, nullptr);
    if (a != 0) die(1, "cannot attach the trace: %s", codeText(a).c_str());
}

void detachArea(Area* area) {
    if (g_pGTCB != nullptr) gtraceDetach();
    area->memory.detach();
    area->cb = nullptr;
}

// The processes that have the area mapped, found by the block's inode in their mappings.
std::vector<unsigned> attachedProcesses(const void* address) {
    std::vector<unsigned> pids;
    char line[512];
    unsigned long long inode = 0;
    char device[32] = "";
    if (FILE* maps = fopen("/proc/self/maps", "r")) {
        while (fgets(line, sizeof line, maps)) {
            unsigned long long from = 0, to = 0, offset = 0, ino = 0;
            char dev[32];
            if (sscanf(line, "%llx-%llx %*s %llx %31s %llu", &from, &to, &offset, dev, &ino) == 5 &&
                reinterpret_cast<uintptr_t>(address) >= from &&
                reinterpret_cast<uintptr_t>(address) < to) {
                inode = ino;
                snprintf(device, sizeof device, "%s", dev);
                break;
            }
        }
        fclose(maps);
    }
    if (inode == 0) return pids;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return pids;
    while (struct dirent* e = readdir(proc)) {
        char* end = nullptr;
        const unsigned long pid = strtoul(e->d_name, &end, 10);
        if (*end != '\0' || pid == 0 || pid == static_cast<unsigned long>(getpid())) continue;
        char path[64];
        snprintf(path, sizeof path, "/proc/%lu/maps", pid);
        FILE* maps = fopen(path, "r");
        if (maps == nullptr) continue;
        while (fgets(line, sizeof line, maps)) {
            unsigned long long ino = 0;
            char dev[32];
            if (sscanf(line, "%*x-%*x %*s %*x %31s %llu", dev, &ino) == 2 && ino == inode &&
                strcmp(dev, device) == 0) {
                pids.push_back(static_cast<unsigned>(pid));
                break;
            }
        }
        fclose(maps);
    }
    closedir(proc);
    return pids;
}

// ---- create, destroy, on, off, status

volatile sig_atomic_t g_stop = 0;
void onSignal(int) {
    g_stop = 1;
}

int cmdCreate(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc < 1) {
        fputs(kCreateHelp, argc < 1 ? stderr : stdout);
        return argc < 1 ? 2 : 0;
    }
    const std::string name = argv[0];
    auto options = std::make_unique<GTCBOptions>();
    Uint64 size = 4u << 20;
    options->modeBits = GTRACE_MODE_WRAP;
    options->flags = GTRACE_FLAG_TIMESTAMP;
    bool on = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) die(2, "%s needs a value", a.c_str());
            return argv[++i];
        };
        if (a == "--size") {
            size = parseSize(value());
        } else if (a == "--mode") {
            const std::string m = value();
            if (m == "wrap" || m == "wrapping")
                options->modeBits = GTRACE_MODE_WRAP;
            else if (m == "stop" || m == "stopping")
                options->modeBits = GTRACE_MODE_STOP;
            else if (m == "chunked")
                options->modeBits = GTRACE_MODE_CHUNKED;
            else if (m == "counting")
                options->modeBits = GTRACE_MODE_COUNTING;
            else if (m == "delaying")
                options->modeBits = GTRACE_MODE_DELAYING;
            else
                die(2, "unknown mode '%s' (wrap, stop, chunked, counting, delaying)", m.c_str());
        } else if (a == "--on") {
            on = true;
        } else if (a == "--no-timestamp") {
            options->flags &= ~GTRACE_FLAG_TIMESTAMP;
        } else if (a == "--errors-only") {
            options->flags |= GTRACE_FLAG_ERRORS_ONLY;
        } else if (a == "--count-time") {
            options->flags |= GTRACE_FLAG_COUNT_TIME;
        } else if (a == "--pid") {
            if (options->filterCount >= GTRACE_MAX_FILTERS)
                die(2, "at most %u filters", GTRACE_MAX_FILTERS);
            std::string v = value();
            GTFilter& f = options->filters[options->filterCount++];
            f.filterBits = GTRACE_FILTER_IN_USE;
            const size_t slash = v.find('/');
            if (slash != std::string::npos) {
                f.threadID = parseNumber(v.substr(slash + 1).c_str(), "thread identifier");
                f.filterBits |= GTRACE_FILTER_THREAD;
                v.resize(slash);
            }
            f.processID = static_cast<Uint32>(parseNumber(v.c_str(), "process identifier"));
            options->flags |= GTRACE_FLAG_FILTERS;
        } else if (a == "--stop-count") {
            options->stopCount = static_cast<Uint32>(parseNumber(value(), "count"));
            options->flags |= GTRACE_FLAG_STOP_COUNT;
        } else if (a == "--stop-rc") {
            const char* v = value();
            Uint32 code = 0;
            if (strncmp(v, "ECF_", 4) == 0) {
                for (Uint32 i2 = 0; i2 < ecfErrorGetNumCodes(1) && code == 0; ++i2) {
                    const Uint32 c = 0x90000000u | i2;
                    if (strcmp(ecfErrorGetCodeName(c), v) == 0) code = c;
                }
                if (code == 0) die(2, "no code named '%s'", v);
            } else {
                code = static_cast<Uint32>(parseNumber(v, "return code"));
            }
            options->stopReturnCode = code;
            options->flags |= GTRACE_FLAG_STOP_ON_RC | GTRACE_FLAG_STOP_COUNT;
            if (options->stopCount == 0) options->stopCount = 1;
        } else {
            die(2, "create: unknown option '%s' (see 'zeptrace create --help')", a.c_str());
        }
    }
    if (size > 0x40000000u) die(2, "the record store can hold at most 1G");
    options->bufferSize = static_cast<Uint32>(size);
    const Uint32 total = (options->modeBits & GTRACE_MODE_COUNTING)
                             ? static_cast<Uint32>(sizeof(GTCB)) + options->bufferSize
                             : gtraceGetAllocSize(options->bufferSize);
    if (total == 0)
        die(2, "a ring's size must be a power of two from 512k to 1G (got %llu)",
            static_cast<unsigned long long>(size));

    // The holder: a process of its own session that creates the block, builds the area and keeps
    // both until destroy sends it SIGTERM. It reports the outcome through a pipe.
    int report[2];
    if (pipe(report) != 0) die(1, "pipe: %s", strerror(errno));
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) die(1, "fork: %s", strerror(errno));
    if (child == 0) {
        close(report[0]);
        setsid();
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGHUP);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        ZEPHIPCMemoryEx memory;
        ZEPIPCMemoryExCreateParam create;
        create.name = name.c_str();
        create.size = total;
        create.flags = ZEP_IPC_MEMEX_MUST_NOT_EXIST | ZEP_IPC_MEMEX_READ_WRITE;
        create.accessMode = 6;
        ZEPIPCMemoryExInfo info;
        Uint32 rc = memory.create(&create, &info);
        if (rc == 0) {
            options->reserved[0] = static_cast<Uint32>(getpid());
            options->reserved[1] = kHolderMark;
            GTCB* cb = static_cast<GTCB*>(info.address);
            rc = gtraceInitialize(cb, options.get());
            if (rc == 0) rc = gtraceAttach(cb, zepProcessID(), nullptr, nullptr);
            // A chunked ring whose auto dump is on makes writers wait for a consumer: until a
            // drain runs, the ring wraps instead, so that no process of the product ever waits
            // for a drain that nobody started.
            if (rc == 0 && (options->modeBits & GTRACE_MODE_CHUNKED) &&
                !(options->modeBits & GTRACE_MODE_COUNTING))
                rc = gtraceAutoDumpEnabled(0);
            if (rc == 0 && on) rc = gtraceEnable();
            gtraceDetach();
            if (rc != 0) memory.destroy();
        }
        if (write(report[1], &rc, sizeof rc) != sizeof rc) _exit(1);
        close(report[1]);
        if (rc != 0) _exit(1);
        // Nothing of the terminal stays with the holder.
        if (FILE* f = freopen("/dev/null", "r", stdin)) (void)f;
        if (FILE* f = freopen("/dev/null", "w", stdout)) (void)f;
        if (FILE* f = freopen("/dev/null", "w", stderr)) (void)f;
        int sig = 0;
        sigwait(&set, &sig);
        memory.destroy();
        _exit(0);
    }
    close(report[1]);
    Uint32 rc = ECF_FAILED;
    const ssize_t got = read(report[0], &rc, sizeof rc);
    close(report[0]);
    if (got != sizeof rc) {
        waitpid(child, nullptr, 0);
        die(1, "the holder of '%s' ended before it reported", name.c_str());
    }
    if (rc != 0) {
        waitpid(child, nullptr, 0);
        if (rc == ECF_EXISTS) die(1, "a trace area named '%s' exists already", name.c_str());
        die(1, "cannot create the trace area '%s': %s", name.c_str(), codeText(rc).c_str());
    }
    printf("created trace area '%s': %s, %llu bytes of %s, held by process %d%s\n", name.c_str(),
           (options->modeBits & GTRACE_MODE_COUNTING) ? "counting" : "ring",
           static_cast<unsigned long long>(size),
           (options->modeBits & GTRACE_MODE_COUNTING) ? "counters" : "records",
           static_cast<int>(child), on ? ", on" : "");
    return 0;
}

int cmdDestroy(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc != 1) {
        fputs("usage: zeptrace destroy NAME\n", argc != 1 ? stderr : stdout);
        return argc != 1 ? 2 : 0;
    }
    Area area;
    attachArea(&area, argv[0]);
    const pid_t holder = static_cast<pid_t>(area.cb->options.reserved[0]);
    gtraceDisable();
    const size_t others = attachedProcesses(area.cb).size();
    detachArea(&area);
    if (holder <= 0 || kill(holder, SIGTERM) != 0)
        die(1, "the holder of '%s' (process %d) is gone", argv[0], static_cast<int>(holder));
    for (int i = 0; i < 200 && kill(holder, 0) == 0; ++i) usleep(10000);
    const size_t users = others > 0 ? others - 1 : 0;  // the holder was one of them
    if (users)
        printf("destroyed trace area '%s'; %zu process%s still hold%s it until they detach\n",
               argv[0], users, users == 1 ? "" : "es", users == 1 ? "s" : "");
    else
        printf("destroyed trace area '%s'\n", argv[0]);
    return 0;
}

int cmdSwitch(int argc, char** argv, bool on) {
    if (wantsHelp(argc, argv) || argc != 1) {
        fprintf(argc != 1 ? stderr : stdout, "usage: zeptrace %s NAME\n", on ? "on" : "off");
        return argc != 1 ? 2 : 0;
    }
    Area area;
    attachArea(&area, argv[0]);
    const Uint32 rc = on ? gtraceEnable() : gtraceDisable();
    detachArea(&area);
    if (rc != 0) die(1, "%s", codeText(rc).c_str());
    printf("trace '%s' %s\n", argv[0], on ? "on" : "off");
    return 0;
}

std::string modeName(Uint32 modeBits) {
    if (modeBits & GTRACE_MODE_COUNTING) return "counting";
    if (modeBits & GTRACE_MODE_CHUNKED) return "chunked";
    if (modeBits & GTRACE_MODE_WRAP) return "wrapping";
    if (modeBits & GTRACE_MODE_DELAYING) return "delaying";
    if (modeBits & GTRACE_MODE_STOP) return "stopping";
    return "none";
}

int cmdStatus(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc != 1) {
        fputs("usage: zeptrace status NAME\n", argc != 1 ? stderr : stdout);
        return argc != 1 ? 2 : 0;
    }
    Area area;
    attachArea(&area, argv[0]);
    const GTCB* cb = area.cb;
    const GTCBOptions& o = cb->options;
    printf("trace area   %s\n", argv[0]);
    printf("mode         %s\n", modeName(o.modeBits).c_str());
    printf("size         %u bytes\n", o.bufferSize);
    printf("switch       %s\n", __atomic_load_n(&cb->enabled, __ATOMIC_RELAXED) ? "on" : "off");
    printf("events       %u\n", __atomic_load_n(&cb->eventCount, __ATOMIC_RELAXED));
    printf("flags        0x%04X%s%s%s%s\n", o.flags,
           (o.flags & GTRACE_FLAG_TIMESTAMP) ? " timestamp" : "",
           (o.flags & GTRACE_FLAG_ERRORS_ONLY) ? " errors-only" : "",
           (o.flags & GTRACE_FLAG_FULL_MASK) ? " mask" : "",
           (o.flags & GTRACE_FLAG_FILTERS) ? " filters" : "");
    for (Uint32 i = 0; i < o.filterCount && i < GTRACE_MAX_FILTERS; ++i) {
        const GTFilter& f = o.filters[i];
        if (f.filterBits & GTRACE_FILTER_THREAD)
            printf("filter       process %u thread %llu\n", f.processID,
                   static_cast<unsigned long long>(f.threadID));
        else
            printf("filter       process %u\n", f.processID);
    }
    if (o.modeBits & GTRACE_MODE_COUNTING) {
        const GTCountEntry* table = reinterpret_cast<const GTCountEntry*>(cb + 1);
        const Uint32 entries = o.bufferSize / sizeof(GTCountEntry);
        Uint32 used = 0;
        for (Uint32 i = 0; i < entries; ++i) used += table[i].functionID != 0;
        printf("fill         %u of %u functions (%.1f%%)\n", used, entries,
               entries ? 100.0 * used / entries : 0.0);
    } else {
        const RamboCB* ring = reinterpret_cast<const RamboCB*>(cb + 1);
        const Uint32 claimed =
            __atomic_load_n(&ring->nextSequence, __ATOMIC_RELAXED) - ring->sequenceBase;
        const Uint32 slots = ring->slotCount;
        const Uint32 held = claimed < slots ? claimed : slots;
        printf("fill         %u of %u slots (%.1f%%), %u claimed in all%s\n", held, slots,
               slots ? 100.0 * held / slots : 0.0, claimed,
               claimed > slots && ring->wraps ? ", wrapped" : "");
        if (ring->chunked)
            printf("drained      %s\n",
                   __atomic_load_n(&ring->autoDump, __ATOMIC_RELAXED) ? "yes" : "no");
    }
    printf("holder       process %u\n", o.reserved[0]);
    std::vector<unsigned> pids = attachedProcesses(cb);
    printf("attached     %zu process%s", pids.size(), pids.size() == 1 ? "" : "es");
    for (unsigned p : pids) printf(" %u", p);
    printf("\n");
    detachArea(&area);
    return 0;
}

// ---- masks

struct MaskWord {
    bool exclude = false;
    bool all = false;
    Function target;
    std::vector<Uint32> types;  // empty: all
    bool probe = false;
    Uint32 probeNumber = 0;
};

MaskWord parseMaskWord(std::string w) {
    MaskWord m;
    if (!w.empty() && w[0] == '-') {
        m.exclude = true;
        w.erase(0, 1);
    }
    const size_t at = w.find('@');
    if (at != std::string::npos) {
        m.probe = true;
        m.probeNumber = static_cast<Uint32>(parseNumber(w.substr(at + 1).c_str(), "probe"));
        w.resize(at);
    }
    // "::" belongs to class names; a type list follows the last single ':'.
    size_t colon = std::string::npos;
    for (size_t i = 0; i < w.size(); ++i)
        if (w[i] == ':') {
            if (i + 1 < w.size() && w[i + 1] == ':') {
                ++i;
                continue;
            }
            colon = i;
        }
    if (colon != std::string::npos) {
        std::string list = w.substr(colon + 1);
        w.resize(colon);
        size_t from = 0;
        while (from <= list.size()) {
            const size_t comma = list.find(',', from);
            m.types.push_back(parseType(list.substr(from, comma - from)));
            if (comma == std::string::npos) break;
            from = comma + 1;
        }
    }
    if (w == "all") {
        m.all = true;
    } else if (!findComponent(w, &m.target) && !findFunction(w, &m.target)) {
        die(2, "no component or function named '%s'", w.c_str());
    }
    if (m.probe && m.target.function == 0)
        die(2, "a probe belongs to one function: '%s'", w.c_str());
    return m;
}

void applyMaskWord(GTM_TRC_MASK* mask, const MaskWord& m, bool remove) {
    const Uint32 product = m.all ? GTM_WILDCARD : m.target.product;
    const Uint32 component = m.all || m.target.component == 0 ? GTM_WILDCARD : m.target.component;
    const Uint32 function = m.all || m.target.function == 0 ? GTM_WILDCARD : m.target.function;
    if (m.probe) {
        if (remove)
            mask->gtmDelMask(product, component, function, m.probeNumber, GTM_FLAG_PROBE);
        else if (!mask->gtmSetMask(product, component, function, m.probeNumber, GTM_FLAG_PROBE, 0))
            die(1, "the mask's probe table is full");
        return;
    }
    std::vector<Uint32> types = m.types;
    if (types.empty()) types.push_back(GTM_WILDCARD);
    for (Uint32 t : types) {
        if (remove)
            mask->gtmDelMask(product, component, function, t, 0);
        else
            mask->gtmSetMask(product, component, function, t, 0, 0);
    }
}

std::string typesSuffix(const GTM_TRC_MASK& mask, Uint32 p, Uint32 c) {
    if (mask.gtmIsTypeMaskFull(p, c)) return "";
    std::string out;
    for (Uint32 t = 0; t < 16; ++t)
        if (mask.gtmIsTypeInMask(p, c, t)) {
            out += out.empty() ? ':' : ',';
            out += typeWord(t);
        }
    return out.empty() ? ":none" : out;
}

// The mask in the words `add` takes: components whole, or their functions, with the types, then
// the probe table's entries.
std::vector<std::string> maskWords(const GTM_TRC_MASK& mask) {
    std::vector<std::string> words;
    for (Uint32 p = 1; p <= ecfGetNumProducts(); ++p)
        for (Uint32 c = 1; c < ecfGetNumComponents(p); ++c) {
            if (!mask.gtmIsCompInMask(p, c)) continue;
            const Uint32 id = functionId(p, c, 0);
            const char* shortName = ecfGetComponentShortName(id);
            const std::string comp =
                shortName && *shortName ? shortName : "0x" + std::to_string(id);
            const std::string types = typesSuffix(mask, p, c);
            if (mask.gtmIsFuncMaskFull(p, c)) {
                words.push_back(comp + types);
                continue;
            }
            const Uint32 n = ecfGetNumFunctions(p, c);
            for (Uint32 f = 1; f < n && f < GTM_FUNCTION_BITS; ++f)
                if (mask.gtmIsFuncInMask(p, c, f))
                    words.push_back(std::string(ecfGetFunctionName(functionId(p, c, f))) + types);
        }
    Uint32 key = 0;
    Uint64 value = 0;
    Uint16 probe = 0;
    while (mask.gtmScanPointsHash(&key, &value, &probe)) {
        const char* fn = ecfGetFunctionName(key);
        char buf[320];
        snprintf(buf, sizeof buf, "%s%s@%u", (value & GTM_VALUE_EXCLUDE) ? "-" : "",
                 fn && *fn ? fn : "?", probe);
        words.push_back(buf);
    }
    return words;
}

int cmdMask(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc < 2) {
        fputs(kMaskHelp, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const std::string op = argv[1];
    if (op != "add" && op != "del" && op != "set" && op != "show" && op != "clear")
        die(2, "mask: unknown operation '%s' (add, del, set, show, clear)", op.c_str());
    std::vector<MaskWord> words;
    for (int i = 2; i < argc; ++i) words.push_back(parseMaskWord(argv[i]));
    if ((op == "add" || op == "del" || op == "set") && words.empty())
        die(2, "mask %s needs words (see 'zeptrace mask --help')", op.c_str());
    Area area;
    attachArea(&area, argv[0]);
    auto options = std::make_unique<GTCBOptions>();
    Uint32 rc = gtraceGetOptions(options.get());
    if (rc != 0) die(1, "%s", codeText(rc).c_str());
    if (op == "show") {
        const bool on = (options->flags & GTRACE_FLAG_FULL_MASK) != 0;
        std::vector<std::string> list = maskWords(options->traceMask);
        if (!on) printf("(the mask filter is off: every trace point is recorded)\n");
        for (const std::string& w : list) printf("%s\n", w.c_str());
        if (on && list.empty()) printf("(empty: nothing is recorded)\n");
        detachArea(&area);
        return 0;
    }
    if (op == "clear" || op == "set") options->traceMask.gtmClearMask();
    for (const MaskWord& w : words) applyMaskWord(&options->traceMask, w, op == "del" || w.exclude);
    memset(&options->mask, 0, sizeof options->mask);
    options->traceMask.gtmReplicateMask(&options->mask);
    options->flags |= GTRACE_FLAG_FULL_MASK;
    rc = gtraceSetOptions(options.get());
    detachArea(&area);
    if (rc != 0) die(1, "cannot set the mask: %s", codeText(rc).c_str());
    for (const std::string& w : maskWords(options->traceMask)) printf("%s\n", w.c_str());
    return 0;
}

// ---- dump and drain

bool isTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

void progress(const char* what, Uint64 bytes, Uint64 records, double seconds) {
    if (!isTerminal()) return;
    fprintf(stderr, "\r%s %.1f MiB, %llu records, %.1f MiB/s   ", what, bytes / 1048576.0,
            static_cast<unsigned long long>(records),
            seconds > 0 ? bytes / 1048576.0 / seconds : 0.0);
}

double now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

bool writeAll(FILE* f, const void* data, size_t size) {
    return size == 0 || fwrite(data, 1, size, f) == size;
}

int cmdDump(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc != 2) {
        fputs("usage: zeptrace dump NAME FILE\n", argc != 2 ? stderr : stdout);
        return argc != 2 ? 2 : 0;
    }
    Area area;
    attachArea(&area, argv[0]);
    const double start = now();
    auto header = std::make_unique<GTDumpHeader>();
    void* store = nullptr;
    Uint32 size = 0;
    Uint32 rc = gtraceGetDumpHeaderBuffer(1, header.get(), &store, &size);
    RamboDumpTail tail;
    const bool counting = (area.cb->options.modeBits & GTRACE_MODE_COUNTING) != 0;
    if (rc == 0 && !counting) rc = gtraceGetDumpTail(&tail);
    if (rc != 0) die(1, "cannot dump '%s': %s", argv[0], codeText(rc).c_str());
    FILE* f = fopen(argv[1], "wb");
    if (f == nullptr) die(1, "cannot write '%s': %s", argv[1], strerror(errno));
    bool ok = writeAll(f, header.get(), sizeof(GTDumpHeader));
    // The store in pieces, so that a terminal sees the progress of a large one.
    const Uint8* bytes = static_cast<const Uint8*>(store);
    for (Uint32 at = 0; ok && at < size;) {
        const Uint32 n = size - at < (8u << 20) ? size - at : (8u << 20);
        ok = writeAll(f, bytes + at, n);
        at += n;
        progress("dump", at, 0, now() - start);
    }
    if (ok && !counting) ok = writeAll(f, &tail, sizeof tail);
    ok = fclose(f) == 0 && ok;
    detachArea(&area);
    if (isTerminal()) fputc('\n', stderr);
    if (!ok) die(1, "cannot write '%s': %s", argv[1], strerror(errno));
    // The count of records comes from reading the file back, which also proves it readable.
    zeptrace::DumpInfo info;
    Uint64 records = 0;
    rc = zeptrace::walkDumpFile(
        argv[1], true, &info, [](const void*, Uint32) { return true; }, &records);
    if (rc != 0) die(1, "the dump '%s' doesn't read back: %s", argv[1], codeText(rc).c_str());
    printf(
        "dumped '%s' to %s: %llu bytes, %llu records\n", argv[0], argv[1],
        static_cast<unsigned long long>(sizeof(GTDumpHeader) + size + (counting ? 0 : sizeof tail)),
        static_cast<unsigned long long>(records));
    return 0;
}

int cmdDrain(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc != 2) {
        fputs(
            "usage: zeptrace drain NAME FILE\n"
            "  stores every chunk of a chunked trace, in order, until interrupted (Ctrl-C or\n"
            "  SIGTERM); then the last committed records, and the file reads like any dump.\n",
            argc != 2 ? stderr : stdout);
        return argc != 2 ? 2 : 0;
    }
    Area area;
    attachArea(&area, argv[0]);
    if (!(area.cb->options.modeBits & GTRACE_MODE_CHUNKED) ||
        (area.cb->options.modeBits & GTRACE_MODE_COUNTING))
        die(1, "'%s' is a %s trace; drain takes a chunked one (use dump)", argv[0],
            modeName(area.cb->options.modeBits).c_str());
    auto header = std::make_unique<GTDumpHeader>();
    Uint32 rc = gtraceGetDumpHeaderBuffer(0, header.get(), nullptr, nullptr);
    if (rc != 0) die(1, "%s", codeText(rc).c_str());

    ZEPHFile file;
    ZEPFileOpenParam open;
    open.path = argv[1];
    open.creation = ZEP_FILE_CREATE_OR_REPLACE;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    rc = file.open(&open);
    if (rc != 0) die(1, "cannot write '%s': %s", argv[1], codeText(rc).c_str());
    // The trace's part of the header; the consumer writes the ring's part and the chunks.
    ZEPFileWriteParam write;
    write.buffer = header.get();
    write.length = GTRACE_DUMP_TRACE_HEADER_SIZE;
    Uint32 written = 0;
    rc = file.write(&write, &written);
    if (rc != 0) die(1, "cannot write '%s': %s", argv[1], codeText(rc).c_str());
    // From here on the ring is reached through its own block only. Still attached to the trace,
    // this process would trace its own writes of the chunks into the ring: a full chunk would
    // wait for the drain, and the drain for its own record.
    gtraceDetach();

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    RamboChunkConsumer consumer;
    RamboCB* ring = reinterpret_cast<RamboCB*>(area.cb + 1);
    rc = consumer.start(ring, &file);
    if (rc != 0) die(1, "cannot drain '%s': %s", argv[0], codeText(rc).c_str());
    const double start = now();
    double shown = 0;
    while (!g_stop && rc == 0) {
        Uint32 chunks = 0;
        rc = consumer.drain(&chunks);
        if (chunks == 0) usleep(1000);
        const double t = now();
        if (t - shown > 0.25) {
            progress("drain", consumer.bytesWritten(), consumer.bytesWritten() / RAMBO_SLOT_SIZE,
                     t - start);
            shown = t;
        }
    }
    // Writers may still be running: only whole chunks are sound, so the current one's committed
    // beginning is written only when nobody else holds the area any more.
    const bool alone = attachedProcesses(area.cb).size() <= 1;
    const Uint32 stopped = consumer.stop(alone);
    if (rc == 0) rc = stopped;
    file.close();
    detachArea(&area);
    if (isTerminal()) fputc('\n', stderr);
    if (rc != 0) die(1, "drain of '%s' failed: %s", argv[0], codeText(rc).c_str());
    zeptrace::DumpInfo info;
    Uint64 records = 0;
    rc = zeptrace::walkDumpFile(
        argv[1], true, &info, [](const void*, Uint32) { return true; }, &records);
    if (rc != 0)
        die(1, "the drained file '%s' doesn't read back: %s", argv[1], codeText(rc).c_str());
    printf("drained '%s' to %s: %llu chunks, %llu records\n", argv[0], argv[1],
           static_cast<unsigned long long>(consumer.chunksWritten()),
           static_cast<unsigned long long>(records));
    return 0;
}

// ---- show and export

int cmdShow(int argc, char** argv) {
    if (wantsHelp(argc, argv) || argc < 1) {
        fputs(kShowHelp, argc < 1 ? stderr : stdout);
        return argc < 1 ? 2 : 0;
    }
    std::string view = "records";
    bool forward = true, errors = false, byPid = false, byTid = false, byFunction = false;
    Uint32 pid = 0;
    Uint64 tid = 0;
    Uint32 function = 0;
    Uint64 limit = ~Uint64{0};
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) die(2, "%s needs a value", a.c_str());
            return argv[++i];
        };
        if (a == "--view") {
            view = value();
            if (view != "records" && view != "flow" && view != "counts")
                die(2, "unknown view '%s' (records, flow, counts)", view.c_str());
        } else if (a == "--backward") {
            forward = false;
        } else if (a == "--limit") {
            limit = parseNumber(value(), "count");
        } else if (a == "--errors") {
            errors = true;
        } else if (a == "--pid") {
            pid = static_cast<Uint32>(parseNumber(value(), "process identifier"));
            byPid = true;
        } else if (a == "--tid") {
            tid = parseNumber(value(), "thread identifier");
            byTid = true;
        } else if (a == "--function") {
            Function f;
            const char* name = value();
            if (!findFunction(name, &f)) die(2, "no function named '%s'", name);
            function = functionId(f.product, f.component, f.function) & ~(7u << 16);
            byFunction = true;
        } else {
            die(2, "show: unknown option '%s' (see 'zeptrace show --help')", a.c_str());
        }
    }
    const bool flow = view == "flow";
    zeptrace::DumpInfo info;
    std::unique_ptr<zeptrace::Formatter> formatter;
    Uint64 shown = 0;
    const Uint32 rc =
        zeptrace::walkDumpFile(argv[0], forward, &info, [&](const void* payload, Uint32 size) {
            if (!formatter) formatter = std::make_unique<zeptrace::Formatter>(info.tickFactor);
            std::string text;
            if (info.counting) {
                GTCountEntry e;
                memcpy(&e, payload, sizeof e);
                if (byFunction && (e.functionID & ~(7u << 16)) != function) return true;
                text = formatter->countEntry(e);
            } else {
                GTRecord r;
                memset(&r, 0, sizeof r);
                memcpy(&r, payload, size < sizeof r ? size : sizeof r);
                if (byPid && r.processID != pid) return true;
                if (byTid && r.threadID != tid) return true;
                if (byFunction && (r.functionID & ~(7u << 16)) != function) return true;
                const bool error = r.recordType == GTRACE_TYPE_ERROR ||
                                   r.recordType == GTRACE_TYPE_ERROR_OP ||
                                   r.recordType == GTRACE_TYPE_ERROR_TRANS ||
                                   (r.recordType == GTRACE_TYPE_EXIT && r.returnCode != 0);
                if (errors && !error) return true;
                text = flow ? formatter->flow(payload, size)
                            : formatter->record(payload, size, shown + 1);
            }
            ++shown;
            return fwrite(text.data(), 1, text.size(), stdout) == text.size() && shown < limit;
        });
    if (rc != 0) die(1, "cannot read the dump '%s': %s", argv[0], codeText(rc).c_str());
    if (shown == limit)
        printf("(%llu records shown; --limit stops here)\n",
               static_cast<unsigned long long>(shown));
    if (view == "counts" && !info.counting)
        fprintf(stderr, "%s: '%s' is a ring dump; its records were shown\n", g_program, argv[0]);
    return 0;
}

int cmdExport(int argc, char** argv) {
    if (wantsHelp(argc, argv)) {
        fputs(kExportHelp, stdout);
        return 0;
    }
    if (argc != 4 || strcmp(argv[1], "--format") != 0) {
        fputs(kExportHelp, stderr);
        return 2;
    }
    if (strcmp(argv[2], "chrome") != 0) die(2, "unknown format '%s' (chrome)", argv[2]);
    const bool toStdout = strcmp(argv[3], "-") == 0;
    FILE* out = toStdout ? stdout : fopen(argv[3], "w");
    if (out == nullptr) die(1, "cannot write '%s': %s", argv[3], strerror(errno));
    std::vector<char> buffer(1 << 20);
    setvbuf(out, buffer.data(), _IOFBF, buffer.size());
    Uint64 records = 0;
    const Uint32 rc = zeptrace::exportChromeFile(argv[0], out, &records);
    const bool closed = toStdout ? fflush(out) == 0 : fclose(out) == 0;
    if (rc == ECF_NOT_SUPPORTED)
        die(1, "'%s' is a counting dump: it holds no calls to export", argv[0]);
    if (rc != 0) die(1, "cannot export '%s': %s", argv[0], codeText(rc).c_str());
    if (!closed) die(1, "cannot write '%s': %s", argv[3], strerror(errno));
    if (!toStdout)
        printf("exported %llu records of %s to %s\n", static_cast<unsigned long long>(records),
               argv[0], argv[3]);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0) {
        fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const std::string cmd = argv[1];
    int n = argc - 2;
    char** rest = argv + 2;
    if (cmd == "create") return cmdCreate(n, rest);
    if (cmd == "destroy") return cmdDestroy(n, rest);
    if (cmd == "on") return cmdSwitch(n, rest, true);
    if (cmd == "off") return cmdSwitch(n, rest, false);
    if (cmd == "status") return cmdStatus(n, rest);
    if (cmd == "mask") return cmdMask(n, rest);
    if (cmd == "dump") return cmdDump(n, rest);
    if (cmd == "drain") return cmdDrain(n, rest);
    if (cmd == "show") return cmdShow(n, rest);
    if (cmd == "export") return cmdExport(n, rest);
    die(2, "unknown command '%s' (see 'zeptrace --help')", cmd.c_str());
}
