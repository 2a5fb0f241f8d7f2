// ZEPHFile and the file stand-ins under it: results, file contents and pointer positions, the
// log and trace calls at the failure probes, and the byte-0 lock between real processes.
//
// The test binary defines the log and trace entry points itself, so the library's calls land
// here and are recorded as made.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "zep.h"
#include "zepframe.h"

namespace {

struct Item {
    Uint32 length = 0;
    Sint32 type = 0;
    std::string bytes;
};

struct Call {
    std::string what;  // log, logsys, entry, var, error, exit
    Uint32 fid = 0, called = 0, err = 0, code = 0, probe = 0, level = 0, rc = 0;
    Sint32 count = 0;  // item count of zepLog, mask of zepLogSysRC
    std::vector<Item> items;
};

std::vector<Call> g_calls;

Item take(const void* p, Uint32 length, Sint32 type) {
    Item it;
    it.length = length, it.type = type;
    if (p) it.bytes.assign(static_cast<const char*>(p), length);
    return it;
}

// A log item: pointer, length, type.
Item logItem(va_list& ap) {
    const void* p = va_arg(ap, const void*);
    Uint32 n = va_arg(ap, Uint32);
    return take(p, n, va_arg(ap, Sint32));
}

}  // namespace

extern "C" {

Uint32 zepLog(ZEPLogFacility*, Uint32 fid, Uint32 code, Uint32 probe, Uint32 level, Sint32 count,
              ...) {
    Call c;
    c.what = "log", c.fid = fid, c.code = code, c.probe = probe, c.level = level, c.count = count;
    va_list ap;
    va_start(ap, count);
    for (Sint32 i = 0; i < count; ++i) c.items.push_back(logItem(ap));
    va_end(ap);
    g_calls.push_back(c);
    return 0;
}

Uint32 zepLogRC(ZEPLogFacility*, Uint32, Uint32, Uint32, Uint32, Uint32, Uint32, Sint32, ...) {
    Call c;
    c.what = "logrc";
    g_calls.push_back(c);
    return 0;
}

Uint32 zepLogSysRC(ZEPLogFacility*, Uint32 fid, Uint32 called, Uint32 osError, Uint32 code,
                   Uint32 probe, Uint32 level, Sint32 mask, ...) {
    Call c;
    c.what = "logsys", c.fid = fid, c.called = called, c.err = osError, c.code = code;
    c.probe = probe, c.level = level, c.count = mask;
    va_list ap;
    va_start(ap, mask);
    for (int bit = 0; bit < 31; ++bit)
        if (mask & (1 << bit)) c.items.push_back(logItem(ap));
    va_end(ap);
    g_calls.push_back(c);
    return 0;
}

void _gtraceEntry(Uint64, Uint32 fid) {
    Call c;
    c.what = "entry", c.fid = fid;
    g_calls.push_back(c);
}

void _gtraceExit(Uint64, Uint32 fid, const Uint32* rc, Uint32, Uint32) {
    Call c;
    c.what = "exit", c.fid = fid, c.rc = *rc;
    g_calls.push_back(c);
}

void _gtraceVar(Uint64, Uint32 fid, Uint16 probe, Uint16, Uint32 n, ...) {
    Call c;
    c.what = "var", c.fid = fid, c.probe = probe;
    va_list ap;
    va_start(ap, n);
    for (Uint32 i = 0; i < n; ++i) {
        va_arg(ap, Uint32);  // kind
        Uint32 length = va_arg(ap, Uint32);
        c.items.push_back(take(va_arg(ap, const void*), length, 0));
    }
    va_end(ap);
    g_calls.push_back(c);
}

void _gtraceErrorVar(Uint64, Uint32 fid, Uint16 probe, Uint16, Uint32, Uint32, Uint32 n, ...) {
    Call c;
    c.what = "error", c.fid = fid, c.probe = probe;
    va_list ap;
    va_start(ap, n);
    va_arg(ap, Uint32);
    va_arg(ap, Uint32);
    c.rc = *va_arg(ap, const Uint32*);
    va_end(ap);
    g_calls.push_back(c);
}

}  // extern "C"

namespace {

Uint32 g_block[4];

template <class T>
T valueOf(const Item& it) {
    T v{};
    EXPECT_EQ(it.bytes.size(), sizeof(T));
    memcpy(&v, it.bytes.data(), std::min(sizeof(T), it.bytes.size()));
    return v;
}

std::vector<std::string> kinds() {
    std::vector<std::string> k;
    for (const Call& c : g_calls) k.push_back(c.what);
    return k;
}

// The one log call of a failure, checked for the fields every such record has.
const Call& theLog(Uint32 fid, Uint32 probe, Uint32 code, Uint32 level = ZEP_LOG_INFO) {
    static const Call none;
    size_t logs = 0;
    const Call* found = &none;
    for (const Call& c : g_calls)
        if (c.what == "log" || c.what == "logsys") ++logs, found = &c;
    EXPECT_EQ(logs, 1u);
    EXPECT_EQ(found->fid, fid);
    EXPECT_EQ(found->probe, probe);
    EXPECT_EQ(found->code, code);
    EXPECT_EQ(found->level, level);
    return *found;
}

std::string slurp(const std::string& path) {
    std::string s;
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) return "<missing>";
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    fclose(f);
    return s;
}

// The object's three words, as a caller's debugger would see them.
struct Fields {
    void* file;
    void* mapping;
    void* view;
};
Fields fieldsOf(const ZEPHFile& h) {
    Fields f;
    memcpy(&f, &h, sizeof f);
    return f;
}
void* const kNone = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

// A helper process with its standard output on a pipe.
struct Helper {
    pid_t pid = -1;
    int out = -1;

    // The next line, or "" if none came within the time.
    std::string line(int timeoutMs = 5000) {
        std::string s;
        char c;
        for (;;) {
            pollfd p{out, POLLIN, 0};
            if (poll(&p, 1, timeoutMs) <= 0) return s;
            if (::read(out, &c, 1) != 1 || c == '\n') return s;
            s += c;
        }
    }
    bool running() { return waitpid(pid, nullptr, WNOHANG) == 0; }
    int finish() {
        int status = 0;
        waitpid(pid, &status, 0);
        ::close(out);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void kill() {
        ::kill(pid, SIGKILL);
        finish();
    }
};

Helper spawn(const char* mode, const std::string& path, Uint32 type) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    Helper h;
    h.pid = fork();
    if (h.pid == 0) {
        dup2(fds[1], 1);
        ::close(fds[0]);
        std::string exe = std::string(ZEP_TEST_BIN_DIR) + "/helper_hfile";
        std::string t = std::to_string(type);
        execl(exe.c_str(), exe.c_str(), mode, path.c_str(), t.c_str(), (char*)nullptr);
        _exit(127);
    }
    ::close(fds[1]);
    h.out = fds[0];
    return h;
}

// What another process gets when it tries the lock without waiting.
Uint32 otherProcessTries(const std::string& path, Uint32 type) {
    Helper h = spawn("try", path, type);
    std::string line = h.line();
    EXPECT_EQ(h.finish(), 0) << line;
    return static_cast<Uint32>(strtoul(line.c_str(), nullptr, 16));
}

class HFile : public ::testing::Test {
protected:
    void SetUp() override {
        g_calls.clear();
        g_pGTCB = nullptr;
        char tmpl[] = "/tmp/zephfileXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        g_pGTCB = nullptr;
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    void traceOn() {
        g_block[1] = 1;
        g_pGTCB = reinterpret_cast<GTCB*>(g_block);
    }
    std::string path(const char* name) const { return dir_ + "/" + name; }
    void put(const std::string& p, const std::string& content) {
        FILE* f = fopen(p.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
    }
    Uint32 open(ZEPHFile& h, const std::string& p, Uint32 creation,
                Uint32 access = ZEP_FILE_ACCESS_READ_WRITE, Uint32 options = 0) {
        ZEPFileOpenParam o;
        o.path = p.c_str();
        o.creation = creation;
        o.access = access;
        o.options = options;
        return h.open(&o);
    }
    Uint64 position(ZEPHFile& h) {
        ZEPFileSeekParam s;
        s.origin = ZEP_FILE_SEEK_CURRENT;
        Uint64 at = ~0ull;
        EXPECT_EQ(h.seek(&s, &at), 0u);
        return at;
    }
    Uint64 size(ZEPHFile& h) {
        Uint64 n = ~0ull;
        EXPECT_EQ(h.getSize(&n), 0u);
        return n;
    }
    std::string dir_;
};

TEST_F(HFile, CreationDispositions) {
    struct Case {
        Uint32 creation;
        bool exists;
        Uint32 rc;
        const char* after;  // the file's content afterwards
        Uint32 lastError;   // what the platform call left
    } cases[] = {
        {ZEP_FILE_OPEN_EXISTING, true, 0, "old", 0},
        {ZEP_FILE_OPEN_EXISTING, false, ECF_FILE_DOESNT_EXIST, "<missing>", 2},
        {ZEP_FILE_OPEN_OR_CREATE, true, 0, "old", 183},
        {ZEP_FILE_OPEN_OR_CREATE, false, 0, "", 0},
        {ZEP_FILE_TRUNCATE_EXISTING, true, 0, "", 0},
        {ZEP_FILE_TRUNCATE_EXISTING, false, ECF_FILE_DOESNT_EXIST, "<missing>", 2},
        {ZEP_FILE_CREATE_NEW, true, ECF_FILE_EXISTS, "old", 0},
        {ZEP_FILE_CREATE_NEW, false, 0, "", 0},
        {ZEP_FILE_CREATE_OR_REPLACE, true, 0, "", 183},
        {ZEP_FILE_CREATE_OR_REPLACE, false, 0, "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.creation << (c.exists ? " existing" : " missing"));
        std::string p = path("f");
        unlink(p.c_str());
        if (c.exists) put(p, "old");
        g_calls.clear();
        ZEPHFile h;
        zepos::SetLastError(12345);
        EXPECT_EQ(open(h, p, c.creation), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(zepos::GetLastError(), c.lastError);
            EXPECT_NE(h.getFileHandle(), kNone);
            EXPECT_TRUE(g_calls.empty());
            EXPECT_EQ(h.close(), 0u);
            EXPECT_EQ(h.getFileHandle(), kNone);
        } else if (c.rc == ECF_FILE_EXISTS) {
            const Call& log = theLog(ZEPFN_ZEPHFile_open, 260, c.rc);
            EXPECT_EQ(log.what, "log");
            ASSERT_EQ(log.items.size(), 1u);
            EXPECT_EQ(log.items[0].bytes, p);
            EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_STRING);
        } else if (c.creation == ZEP_FILE_OPEN_EXISTING) {
            const Call& log = theLog(ZEPFN_ZEPHFile_open, 270, c.rc);
            EXPECT_EQ(log.what, "log");
            ASSERT_EQ(log.items.size(), 1u);
            EXPECT_EQ(log.items[0].bytes, p);
        } else {
            // Truncating a missing file is the platform's refusal.
            const Call& log = theLog(ZEPFN_ZEPHFile_open, 280, c.rc);
            EXPECT_EQ(log.what, "logsys");
            EXPECT_EQ(log.err, c.lastError);
        }
        EXPECT_EQ(slurp(p), c.after);
    }
}

TEST_F(HFile, OpenRefusals) {
    traceOn();
    const std::string p = path("f");
    put(p, "keep");
    ZEPHFile h;
    // Bad values, and truncation of a file opened for reading: refused before the file is
    // touched, logged without items.
    struct Case {
        Uint32 creation, access, probe;
    } bad[] = {{0, 4, 230}, {3, 4, 230}, {32, 4, 230}, {1, 0, 240}, {1, 3, 240}, {4, 1, 250}};
    for (const Case& c : bad) {
        g_calls.clear();
        EXPECT_EQ(open(h, p, c.creation, c.access), ECF_INVALID_PARAMETER) << c.probe;
        ASSERT_EQ(kinds(),
                  (std::vector<std::string>{"entry", "var", "var", "log", "error", "exit"}));
        EXPECT_EQ(g_calls[1].probe, 200u);
        EXPECT_EQ(g_calls[1].items[0].length, sizeof(ZEPFileOpenParam));
        EXPECT_EQ(g_calls[2].probe, 220u);
        EXPECT_EQ(g_calls[2].items[0].bytes, p);  // without its terminator
        const Call& log = theLog(ZEPFN_ZEPHFile_open, c.probe, ECF_INVALID_PARAMETER);
        EXPECT_EQ(log.count, 0);
        EXPECT_EQ(g_calls[4].probe, c.probe);
        EXPECT_EQ(g_calls[5].rc, ECF_INVALID_PARAMETER);
    }
    EXPECT_EQ(slurp(p), "keep");
    EXPECT_EQ(h.getFileHandle(), kNone);

    // The platform's refusals, with the path, access, disposition and attributes. A directory
    // on the way that doesn't exist: open-or-create can't.
    g_pGTCB = nullptr;
    const std::string deep = path("none/f");
    g_calls.clear();
    EXPECT_EQ(open(h, deep, ZEP_FILE_OPEN_OR_CREATE, ZEP_FILE_ACCESS_WRITE,
                   ZEP_FILE_OPTION_WRITE_THROUGH | ZEP_FILE_OPTION_DELETE_ON_CLOSE),
              ECF_FILE_PATH_DOESNT_EXIST);
    const Call& log = theLog(ZEPFN_ZEPHFile_open, 280, ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(log.called, SYSFN_CreateFile);
    EXPECT_EQ(log.err, 3u);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x8000000Fu);
    ASSERT_EQ(log.items.size(), 4u);
    EXPECT_EQ(log.items[0].bytes, deep);
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 0x40000000u);
    EXPECT_EQ(valueOf<Uint32>(log.items[2]), 2u + 2u);  // OPEN_ALWAYS
    EXPECT_EQ(valueOf<Uint32>(log.items[3]), 0x84000080u);
    EXPECT_EQ(log.items[3].type, ZEP_LOGDATA_UINT);

    // A directory isn't a file, for reading or for writing.
    for (Uint32 access : {ZEP_FILE_ACCESS_READ, ZEP_FILE_ACCESS_READ_WRITE}) {
        g_calls.clear();
        EXPECT_EQ(open(h, dir_, ZEP_FILE_OPEN_EXISTING, access), ECF_ACCESS_DENIED);
        EXPECT_EQ(theLog(ZEPFN_ZEPHFile_open, 280, ECF_ACCESS_DENIED).err, 5u);
    }

    // An object that held a file forgets it when it opens another, even if that open fails.
    ZEPHFile held;
    ASSERT_EQ(open(held, p, ZEP_FILE_OPEN_EXISTING), 0u);
    void* const first = held.getFileHandle();
    EXPECT_EQ(open(held, deep, ZEP_FILE_OPEN_OR_CREATE), ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(held.getFileHandle(), kNone);
    EXPECT_TRUE(zepos::CloseHandle(first));
}

// The open flags of the descriptor that the layer holds for `path`, from /proc.
long descriptorFlags(const std::string& path) {
    for (int fd = 0; fd < 1024; ++fd) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(link, target, sizeof target - 1);
        if (n <= 0 || std::string(target, static_cast<size_t>(n)) != path) continue;
        snprintf(link, sizeof link, "/proc/self/fdinfo/%d", fd);
        std::string info = slurp(link);
        size_t at = info.find("flags:");
        return at == std::string::npos ? -1 : strtol(info.c_str() + at + 6, nullptr, 8);
    }
    return -1;
}

TEST_F(HFile, OpenOptions) {
    // Write-through is synchronous data writes; every descriptor stays out of executed programs.
    ZEPHFile h;
    ASSERT_EQ(open(h, path("wt"), ZEP_FILE_CREATE_NEW, ZEP_FILE_ACCESS_WRITE,
                   ZEP_FILE_OPTION_WRITE_THROUGH),
              0u);
    long flags = descriptorFlags(path("wt"));
    EXPECT_EQ(flags & O_ACCMODE, O_WRONLY);
    EXPECT_TRUE(flags & O_DSYNC);
    EXPECT_TRUE(flags & O_CLOEXEC);
    EXPECT_EQ(h.close(), 0u);
    ASSERT_EQ(open(h, path("wt"), ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ,
                   ZEP_FILE_OPTION_PERMISSIONS),
              0u);
    flags = descriptorFlags(path("wt"));
    EXPECT_EQ(flags & O_ACCMODE, O_RDONLY);
    EXPECT_FALSE(flags & O_DSYNC);
    EXPECT_TRUE(flags & O_CLOEXEC);
    EXPECT_EQ(h.close(), 0u);

    // Delete on close.
    const std::string p = path("temp");
    ASSERT_EQ(open(h, p, ZEP_FILE_CREATE_NEW, ZEP_FILE_ACCESS_READ_WRITE,
                   ZEP_FILE_OPTION_DELETE_ON_CLOSE),
              0u);
    // Found again from another working directory, by the name it was opened with.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(access(p.c_str(), F_OK), 0);
    EXPECT_EQ(h.close(), 0u);
    EXPECT_NE(access(p.c_str(), F_OK), 0);

    // A relative name, and a name that another file has taken by the time of the close: that
    // file stays.
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    ASSERT_EQ(open(h, "rel", ZEP_FILE_CREATE_NEW, ZEP_FILE_ACCESS_READ_WRITE,
                   ZEP_FILE_OPTION_DELETE_ON_CLOSE),
              0u);
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_EQ(rename(path("rel").c_str(), path("moved").c_str()), 0);
    put(path("rel"), "someone else's");
    EXPECT_EQ(h.close(), 0u);
    EXPECT_EQ(slurp(path("rel")), "someone else's");
}

TEST_F(HFile, ReadShortIsEndOfFile) {
    const std::string p = path("f");
    put(p, "0123456789");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    traceOn();
    char buf[32] = {};
    ZEPFileReadParam r;
    Uint32 got = 99;
    r.length = 4;
    EXPECT_EQ(h.read(&r, buf, &got), 0u);
    EXPECT_EQ(got, 4u);
    EXPECT_EQ(std::string(buf, 4), "0123");

    // Six of ten: the bytes are there and counted, the result says end of file, and only the
    // trace knows: both numbers at probe 40, no log record, no error record.
    g_calls.clear();
    r.length = 10;
    EXPECT_EQ(h.read(&r, buf, &got), ECF_FILE_EOF);
    EXPECT_EQ(got, 6u);
    EXPECT_EQ(std::string(buf, 6), "456789");
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "var", "exit"}));
    EXPECT_EQ(g_calls[1].probe, 10u);
    EXPECT_EQ(g_calls[1].items[0].length, sizeof(ZEPFileReadParam));
    EXPECT_EQ(g_calls[2].probe, 40u);
    EXPECT_EQ(valueOf<Uint32>(g_calls[2].items[0]), 10u);
    EXPECT_EQ(valueOf<Uint32>(g_calls[2].items[1]), 6u);
    EXPECT_EQ(g_calls[3].rc, ECF_FILE_EOF);

    got = 99;
    EXPECT_EQ(h.read(&r, buf, &got), ECF_FILE_EOF);  // at the end
    EXPECT_EQ(got, 0u);

    // Exactly to the last byte is a full read.
    ZEPFileSeekParam s;
    s.offset = 6;
    ASSERT_EQ(h.seek(&s), 0u);
    r.length = 4;
    EXPECT_EQ(h.read(&r, buf, &got), 0u);
    EXPECT_EQ(got, 4u);
    r.length = 0;
    EXPECT_EQ(h.read(&r, buf, &got), 0u);
    EXPECT_EQ(h.close(), 0u);

    // Reading needs read access: the platform's refusal, logged with the object and length.
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_WRITE), 0u);
    g_pGTCB = nullptr;
    g_calls.clear();
    got = 99;
    r.length = 3;
    EXPECT_EQ(h.read(&r, buf, &got), ECF_ACCESS_DENIED);
    EXPECT_EQ(got, 0u);
    const Call& log = theLog(ZEPFN_ZEPHFile_read, 50, ECF_ACCESS_DENIED);
    EXPECT_EQ(log.called, SYSFN_ReadFile);
    EXPECT_EQ(log.err, 5u);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000003u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(log.items[0].length, sizeof(ZEPHFile));
    EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_HEX);
    EXPECT_EQ(valueOf<Fields>(log.items[0]).file, h.getFileHandle());
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 3u);
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, WriteAndItsFailures) {
    const std::string p = path("f");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_CREATE_NEW, ZEP_FILE_ACCESS_WRITE), 0u);
    traceOn();
    ZEPFileWriteParam w;
    w.buffer = "hello, world";
    w.length = 12;
    Uint32 written = 0;
    EXPECT_EQ(h.write(&w, &written), 0u);
    EXPECT_EQ(written, 12u);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "var", "var", "exit"}));
    EXPECT_EQ(g_calls[2].probe, 30u);
    EXPECT_EQ(valueOf<const void*>(g_calls[2].items[0]), w.buffer);
    EXPECT_EQ(valueOf<Uint32>(g_calls[2].items[1]), 12u);
    EXPECT_EQ(valueOf<Uint32*>(g_calls[2].items[2]), &written);
    EXPECT_EQ(g_calls[3].probe, 50u);
    EXPECT_EQ(valueOf<Uint32>(g_calls[3].items[0]), 12u);

    w.length = 0;
    written = 7;
    EXPECT_EQ(h.write(&w, &written), 0u);
    EXPECT_EQ(written, 0u);
    ASSERT_EQ(h.sync(), 0u);
    EXPECT_EQ(h.close(), 0u);
    EXPECT_EQ(slurp(p), "hello, world");
    g_pGTCB = nullptr;

    // A full device: the platform's number maps to "no space", at probe 40, and the count stays
    // 0 whatever part went out.
    ASSERT_EQ(open(h, "/dev/full", ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_WRITE), 0u);
    g_calls.clear();
    w.length = 5;
    written = 7;
    EXPECT_EQ(h.write(&w, &written), ECF_FILE_NO_SPACE);
    EXPECT_EQ(written, 0u);
    const Call& log = theLog(ZEPFN_ZEPHFile_write, 40, ECF_FILE_NO_SPACE);
    EXPECT_EQ(log.called, SYSFN_WriteFile);
    EXPECT_EQ(log.err, 112u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 5u);
    // Flushing what can't be written and isn't open for writing.
    EXPECT_EQ(h.close(), 0u);
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    g_calls.clear();
    EXPECT_EQ(h.write(&w, &written), ECF_ACCESS_DENIED);
    g_calls.clear();
    EXPECT_EQ(h.sync(), ECF_ACCESS_DENIED);
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_sync, 20, ECF_ACCESS_DENIED).called, SYSFN_FlushFileBuffers);
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, SeekBoundaries) {
    const std::string p = path("f");
    put(p, std::string(100, 'x'));
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    ZEPFileSeekParam s;
    Uint64 at = 1;

    s.origin = ZEP_FILE_SEEK_START, s.offset = 40;
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 40u);
    s.origin = ZEP_FILE_SEEK_CURRENT, s.offset = -50;  // before the start: lands at 0
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 0u);
    s.origin = ZEP_FILE_SEEK_END, s.offset = -10;
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 90u);
    s.origin = ZEP_FILE_SEEK_START, s.offset = INT64_MIN;
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 0u);
    s.origin = ZEP_FILE_SEEK_END, s.offset = 0;  // exactly the size
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 100u);
    EXPECT_TRUE(g_calls.empty());

    // One beyond: refused, logged with both numbers, and the pointer hasn't moved, except that
    // asking from the end has put it there.
    struct Case {
        Uint32 origin;
        Sint64 offset;
        Uint64 stays;
    } beyond[] = {{0, 101, 30}, {1, 71, 30}, {2, 1, 100}, {1, INT64_MAX, 30}};
    for (const Case& c : beyond) {
        s.origin = ZEP_FILE_SEEK_START, s.offset = 30;
        ASSERT_EQ(h.seek(&s), 0u);
        g_calls.clear();
        s.origin = c.origin, s.offset = c.offset;
        at = 7;
        EXPECT_EQ(h.seek(&s, &at), ECF_FILE_SEEK_BEYOND_EOF);
        EXPECT_EQ(at, 7u);
        const Call& log = theLog(ZEPFN_ZEPHFile_seek, 150, ECF_FILE_SEEK_BEYOND_EOF);
        ASSERT_EQ(log.items.size(), 2u);
        EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_SINT);
        EXPECT_EQ(valueOf<Sint64>(log.items[0]), c.offset == INT64_MAX ? INT64_MAX : 101);
        EXPECT_EQ(valueOf<Sint64>(log.items[1]), 100);
        EXPECT_EQ(position(h), c.stays);
    }

    g_calls.clear();
    s.origin = 3;
    EXPECT_EQ(h.seek(&s), ECF_INVALID_PARAMETER);
    EXPECT_EQ(valueOf<Uint32>(theLog(ZEPFN_ZEPHFile_seek, 120, ECF_INVALID_PARAMETER).items[0]),
              3u);
    EXPECT_EQ(h.close(), 0u);

    // A closed object: the pointer call fails first for origins 1 and 2 (zepLog with the
    // object), the size call for origin 0 (zepLogSysRC).
    g_calls.clear();
    s.origin = ZEP_FILE_SEEK_END;
    EXPECT_EQ(h.seek(&s), ECF_INVALID_PARAMETER);
    const Call& log = theLog(ZEPFN_ZEPHFile_seek, 130, ECF_INVALID_PARAMETER);
    EXPECT_EQ(log.what, "log");
    ASSERT_EQ(log.items.size(), 1u);
    EXPECT_EQ(valueOf<Fields>(log.items[0]).file, kNone);
    g_calls.clear();
    s.origin = ZEP_FILE_SEEK_START;
    EXPECT_EQ(h.seek(&s), ECF_INVALID_PARAMETER);
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_seek, 140, ECF_INVALID_PARAMETER).called, SYSFN_GetFileSize);
}

TEST_F(HFile, SetSizeAndThePointer) {
    const std::string p = path("f");
    put(p, std::string(100, 'x'));
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    ZEPFileSeekParam s;
    s.offset = 50;
    ASSERT_EQ(h.seek(&s), 0u);
    traceOn();

    ZEPFileSetSizeParam z;
    z.size = 200;  // longer: the pointer stays, the new bytes are zeros
    EXPECT_EQ(h.setSize(&z), 0u);
    EXPECT_EQ(size(h), 200u);
    EXPECT_EQ(position(h), 50u);
    EXPECT_EQ(slurp(p), std::string(100, 'x') + std::string(100, '\0'));
    EXPECT_EQ(g_calls[2].probe, 130u);  // where it was and what was asked
    EXPECT_EQ(valueOf<Uint64>(g_calls[2].items[0]), 50u);
    EXPECT_EQ(valueOf<Uint64>(g_calls[2].items[1]), 200u);

    z.size = 20;  // shorter than the position: the pointer stays at the new end
    EXPECT_EQ(h.setSize(&z), 0u);
    EXPECT_EQ(size(h), 20u);
    EXPECT_EQ(position(h), 20u);

    // The size as it is: nothing happens, and the trace has an error record with code 0.
    g_calls.clear();
    EXPECT_EQ(h.setSize(&z), 0u);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "error", "exit"}));
    EXPECT_EQ(g_calls[2].probe, 120u);
    EXPECT_EQ(g_calls[2].rc, 0u);

    g_calls.clear();
    z.reserved = 1;
    EXPECT_EQ(h.setSize(&z), ECF_INVALID_PARAMETER);
    EXPECT_EQ(valueOf<Uint32>(theLog(ZEPFN_ZEPHFile_setSize, 30, ECF_INVALID_PARAMETER).items[0]),
              1u);
    EXPECT_EQ(h.close(), 0u);
    g_pGTCB = nullptr;

    // Cutting needs write access: the platform refuses at probe 150.
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    g_calls.clear();
    z.reserved = 0, z.size = 5;
    EXPECT_EQ(h.setSize(&z), ECF_ACCESS_DENIED);
    const Call& log = theLog(ZEPFN_ZEPHFile_setSize, 150, ECF_ACCESS_DENIED);
    EXPECT_EQ(log.called, SYSFN_SetEndOfFile);
    EXPECT_EQ(log.err, 5u);
    EXPECT_EQ(h.close(), 0u);
    g_calls.clear();
    EXPECT_EQ(h.setSize(&z), ECF_INVALID_PARAMETER);  // closed
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_setSize, 100, ECF_INVALID_PARAMETER).called,
              SYSFN_SetFilePointer);
}

TEST_F(HFile, SizesAndPositionsPastFourGigabytes) {
    // A size whose low word is all ones is a size, not a failure; the last error tells.
    const std::string p = path("sparse");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_CREATE_NEW), 0u);
    ZEPFileSetSizeParam z;
    z.size = 0xFFFFFFFFull;
    ASSERT_EQ(h.setSize(&z), 0u);
    EXPECT_EQ(size(h), 0xFFFFFFFFull);
    Uint32 high = 9;
    zepos::SetLastError(5);
    EXPECT_EQ(zepos::GetFileSize(h.getFileHandle(), &high), 0xFFFFFFFFu);
    EXPECT_EQ(high, 0u);
    EXPECT_EQ(zepos::GetLastError(), 0u);

    z.size = 9ull << 30;
    ASSERT_EQ(h.setSize(&z), 0u);
    EXPECT_EQ(size(h), 9ull << 30);
    ZEPFileSeekParam s;
    s.offset = (4ll << 30) + 0xFFFFFFFFll;
    Uint64 at = 0;
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, static_cast<Uint64>(s.offset));
    EXPECT_EQ(position(h), at);
    s.origin = ZEP_FILE_SEEK_CURRENT, s.offset = -(4ll << 30);
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 0xFFFFFFFFull);
    EXPECT_TRUE(g_calls.empty());

    // The stand-in's own number for a position before the start.
    Sint32 hi = -1;
    EXPECT_EQ(zepos::SetFilePointer(h.getFileHandle(), -1, &hi, zepos::FILE_BEGIN), 0xFFFFFFFFu);
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_NEGATIVE_SEEK);
    EXPECT_EQ(position(h), 0xFFFFFFFFull);
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, LockBetweenProcesses) {
    const std::string p = path("lock");
    put(p, "");  // an empty file locks as well: byte 0 needn't exist
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    ZEPFileLockParam exclusive(ZEP_FILE_LOCK_EXCLUSIVE, ZEP_FILE_LOCK_NO_WAIT);
    ZEPFileLockParam shared(ZEP_FILE_LOCK_SHARED, ZEP_FILE_LOCK_NO_WAIT);

    ASSERT_EQ(h.lock(&exclusive), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), ECF_FILE_LOCK);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_SHARED), ECF_FILE_LOCK);

    // Descriptors of the same file opened and closed elsewhere in this process don't take the
    // lock with them (record locks of the classic kind would be gone now).
    int fd = ::open(p.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ::close(fd);
    ZEPHFile other;
    ASSERT_EQ(open(other, p, ZEP_FILE_OPEN_EXISTING), 0u);
    EXPECT_EQ(other.lock(&exclusive), ECF_FILE_LOCK);  // two handles of one process exclude
    EXPECT_EQ(other.close(), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), ECF_FILE_LOCK);
    EXPECT_TRUE(g_calls.empty());  // a held lock is an answer, not a failure

    // Waiting: the other process gets the lock when this one lets go, not before.
    Helper waiter = spawn("wait", p, ZEP_FILE_LOCK_EXCLUSIVE);
    EXPECT_EQ(waiter.line(400), "");
    EXPECT_TRUE(waiter.running());
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(waiter.line(), "got");
    EXPECT_EQ(waiter.finish(), 0);

    // Shared with shared.
    ASSERT_EQ(h.lock(&shared), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_SHARED), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), ECF_FILE_LOCK);
    EXPECT_EQ(h.unlock(), 0u);

    // Here waiting for a holder that is killed: the kernel releases what a dead process held.
    Helper holder = spawn("hold", p, ZEP_FILE_LOCK_EXCLUSIVE);
    ASSERT_EQ(holder.line(), "held");
    EXPECT_EQ(h.lock(&exclusive), ECF_FILE_LOCK);
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        holder.kill();
    });
    ZEPFileLockParam waiting(ZEP_FILE_LOCK_EXCLUSIVE, ZEP_FILE_LOCK_WAIT);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(h.lock(&waiting), 0u);
    const auto waited = std::chrono::steady_clock::now() - t0;
    killer.join();
    EXPECT_GE(waited, std::chrono::milliseconds(200));
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_SHARED), ECF_FILE_LOCK);

    // Closing the handle releases its lock, even while a mapping of the file keeps the
    // description open.
    put(p, "some bytes");
    ZEPFileMapParam m;
    m.protection = ZEP_FILE_MAP_READ;
    void* view = nullptr;
    ASSERT_EQ(h.map(&m, &view), 0u);
    ZEPHFile mapped = h;
    EXPECT_EQ(h.close(), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), 0u);
    EXPECT_EQ(mapped.unmap(), 0u);
    EXPECT_TRUE(g_calls.empty());
}

// The log's cycle from two processes and two threads at once: every record whole, in its own
// place, and each one written where the size read under the lock said the end was.
TEST_F(HFile, AppendersUnderTheLockLoseNothing) {
    const std::string p = path("log");
    constexpr int kEach = 150;
    Helper a = spawn("append", p, kEach), b = spawn("append", p, kEach);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            ZEPFileOpenParam o;
            o.path = p.c_str();
            o.creation = ZEP_FILE_OPEN_OR_CREATE;
            o.access = ZEP_FILE_ACCESS_READ_WRITE;
            ZEPFileLockParam lock(ZEP_FILE_LOCK_EXCLUSIVE, ZEP_FILE_LOCK_WAIT);
            ZEPFileSeekParam end;
            end.origin = ZEP_FILE_SEEK_END;
            for (int i = 0; i < kEach; ++i) {
                ZEPHFile h;
                Uint64 at = 0;
                char record[64];
                ZEPFileWriteParam w;
                w.buffer = record;
                Uint32 n = 0;
                if (h.open(&o) || h.lock(&lock) || h.getSize(&at) || h.seek(&end)) {
                    ++failures;
                    return;
                }
                w.length = static_cast<Uint32>(snprintf(record, sizeof record,
                                                        "%08d %08d %012llu\n", 90000000 + t, i,
                                                        static_cast<unsigned long long>(at)));
                if (h.write(&w, &n) || h.unlock() || h.close()) ++failures;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(a.line(60000), "done");
    EXPECT_EQ(b.line(60000), "done");
    EXPECT_EQ(a.finish(), 0);
    EXPECT_EQ(b.finish(), 0);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(g_calls.empty());

    const std::string all = slurp(p);
    constexpr size_t kRecord = 31;
    ASSERT_EQ(all.size(), 4 * kEach * kRecord);
    std::map<int, int> next;  // writer -> the number it wrote last + 1
    for (size_t off = 0; off < all.size(); off += kRecord) {
        int writer = 0, number = 0;
        unsigned long long at = 0;
        ASSERT_EQ(sscanf(all.c_str() + off, "%d %d %llu", &writer, &number, &at), 3) << off;
        EXPECT_EQ(at, off);
        EXPECT_EQ(number, next[writer]++) << writer;
    }
    EXPECT_EQ(next.size(), 4u);
}

TEST_F(HFile, LockRulesOfOneHandle) {
    const std::string p = path("lock");
    put(p, "x");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    traceOn();

    // Unlocking what isn't locked is no error, and nothing is logged.
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(kinds(), (std::vector<std::string>{"entry", "exit"}));
    zepos::OVERLAPPED o = {};
    EXPECT_FALSE(zepos::UnlockFileEx(h.getFileHandle(), 0, 1, 0, &o));
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_NOT_LOCKED);

    // Exclusive through a handle opened for reading only, which the kernel's own locks don't
    // allow on that descriptor.
    ZEPFileLockParam exclusive(ZEP_FILE_LOCK_EXCLUSIVE, ZEP_FILE_LOCK_NO_WAIT);
    g_calls.clear();
    ASSERT_EQ(h.lock(&exclusive), 0u);
    ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "var", "exit"}));
    EXPECT_EQ(g_calls[1].probe, 100u);
    EXPECT_EQ(g_calls[2].probe, 120u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_SHARED), ECF_FILE_LOCK);
    // The handle's own exclusive range can't be taken again, not even by itself; the waiting
    // form would wait forever, so no-wait shows it. Nothing is logged, the exit record has it.
    g_calls.clear();
    EXPECT_EQ(h.lock(&exclusive), ECF_FILE_LOCK);
    EXPECT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "var", "exit"}));
    EXPECT_EQ(g_calls[3].rc, ECF_FILE_LOCK);
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), 0u);

    // Shared ranges stack: two locks need two unlocks.
    ZEPFileLockParam shared(ZEP_FILE_LOCK_SHARED, ZEP_FILE_LOCK_NO_WAIT);
    ASSERT_EQ(h.lock(&shared), 0u);
    ASSERT_EQ(h.lock(&shared), 0u);
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), ECF_FILE_LOCK);
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), 0u);

    // Overlapping shared ranges of one handle: releasing one keeps the bytes the other covers.
    {
        void* fh = h.getFileHandle();
        zepos::OVERLAPPED at0 = {}, at5 = {};
        at5.Offset = 5;
        ASSERT_TRUE(zepos::LockFileEx(fh, zepos::LOCKFILE_FAIL_IMMEDIATELY, 0, 10, 0, &at0));
        ASSERT_TRUE(zepos::LockFileEx(fh, zepos::LOCKFILE_FAIL_IMMEDIATELY, 0, 10, 0, &at5));
        EXPECT_FALSE(zepos::LockFileEx(fh, 3, 0, 1, 0, &at5));  // exclusive over its own
        EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_LOCK_VIOLATION);
        EXPECT_FALSE(zepos::UnlockFileEx(fh, 0, 5, 0, &at0));  // not a range it holds
        EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_NOT_LOCKED);
        ASSERT_TRUE(zepos::UnlockFileEx(fh, 0, 10, 0, &at0));
        EXPECT_EQ(otherProcessTries(p, ZEP_FILE_LOCK_EXCLUSIVE), 0u);  // byte 0 is free
        ZEPHFile other;
        ASSERT_EQ(open(other, p, ZEP_FILE_OPEN_EXISTING), 0u);
        zepos::OVERLAPPED at7 = {};
        at7.Offset = 7;
        EXPECT_FALSE(zepos::LockFileEx(other.getFileHandle(), 3, 0, 1, 0, &at7));
        EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_LOCK_VIOLATION);
        ASSERT_TRUE(zepos::UnlockFileEx(fh, 0, 10, 0, &at5));
        EXPECT_TRUE(zepos::LockFileEx(other.getFileHandle(), 3, 0, 1, 0, &at7));
        EXPECT_EQ(other.close(), 0u);
    }

    // Bad values, logged with the value.
    g_calls.clear();
    ZEPFileLockParam bad(3, ZEP_FILE_LOCK_WAIT);
    EXPECT_EQ(h.lock(&bad), ECF_INVALID_PARAMETER);
    EXPECT_EQ(valueOf<Uint32>(theLog(ZEPFN_ZEPHFile_lock, 130, ECF_INVALID_PARAMETER).items[0]),
              3u);
    g_calls.clear();
    bad = ZEPFileLockParam(ZEP_FILE_LOCK_SHARED, 0);
    EXPECT_EQ(h.lock(&bad), ECF_INVALID_PARAMETER);
    EXPECT_EQ(valueOf<Uint32>(theLog(ZEPFN_ZEPHFile_lock, 140, ECF_INVALID_PARAMETER).items[0]),
              0u);
    EXPECT_EQ(h.close(), 0u);

    // A closed object: the platform's "invalid handle", at probe 160 with the flags, and at
    // probe 20 for the unlock.
    g_calls.clear();
    EXPECT_EQ(h.lock(&exclusive), ECF_INVALID_PARAMETER);
    const Call& log = theLog(ZEPFN_ZEPHFile_lock, 160, ECF_INVALID_PARAMETER);
    EXPECT_EQ(log.called, SYSFN_LockFileEx);
    EXPECT_EQ(log.err, 6u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 3u);  // exclusive, fail at once
    g_calls.clear();
    EXPECT_EQ(h.unlock(), ECF_INVALID_PARAMETER);
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_unlock, 20, ECF_INVALID_PARAMETER).called, SYSFN_UnlockFileEx);
}

TEST_F(HFile, MapAndUnmap) {
    const std::string p = path("m");
    std::string content(10000, 'a');
    content[9999] = 'z';
    put(p, content);
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    traceOn();
    ZEPFileMapParam m;
    m.protection = ZEP_FILE_MAP_READ_WRITE;
    void* view = nullptr;
    ASSERT_EQ(h.map(&m, &view), 0u);
    ASSERT_NE(view, nullptr);
    Fields f = fieldsOf(h);
    EXPECT_EQ(f.view, view);
    EXPECT_NE(f.mapping, kNone);
    EXPECT_EQ(static_cast<char*>(view)[9999], 'z');  // length 0: the whole file
    EXPECT_EQ(g_calls[2].probe, 90u);
    EXPECT_EQ(valueOf<void*>(g_calls[2].items[0]), view);
    static_cast<char*>(view)[0] = 'W';
    g_calls.clear();
    EXPECT_EQ(h.unmap(), 0u);  // null: the object's view
    EXPECT_EQ(g_calls[1].probe, 10u);
    EXPECT_EQ(valueOf<void*>(g_calls[1].items[0]), view);
    f = fieldsOf(h);
    EXPECT_EQ(f.mapping, kNone);
    EXPECT_EQ(f.view, nullptr);
    EXPECT_EQ(slurp(p)[0], 'W');

    // Copy on write keeps the file as it is; a wished address is taken.
    void* wished = mmap(nullptr, 1 << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(wished, MAP_FAILED);
    munmap(wished, 1 << 20);
    m.protection = ZEP_FILE_MAP_COPY_ON_WRITE;
    m.length = 100;
    view = wished;
    ASSERT_EQ(h.map(&m, &view), 0u);
    EXPECT_EQ(view, wished);
    static_cast<char*>(view)[0] = 'C';
    EXPECT_EQ(h.unmap(view), 0u);
    EXPECT_EQ(slurp(p)[0], 'W');
    g_pGTCB = nullptr;

    // The wished address is taken by something else: the view fails at probe 80, the mapping is
    // closed again.
    void* taken = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(taken, MAP_FAILED);
    g_calls.clear();
    view = taken;
    m.protection = ZEP_FILE_MAP_READ;
    EXPECT_EQ(h.map(&m, &view), ECF_INVALID_ADDRESS);
    EXPECT_EQ(view, nullptr);
    EXPECT_EQ(fieldsOf(h).mapping, kNone);
    const Call& log = theLog(ZEPFN_ZEPHFile_map, 80, ECF_INVALID_ADDRESS);
    EXPECT_EQ(log.called, SYSFN_MapViewOfFileEx);
    EXPECT_EQ(log.err, 487u);
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000007u);
    ASSERT_EQ(log.items.size(), 3u);
    EXPECT_EQ(valueOf<void*>(log.items[0]), kNone);
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 4u);  // FILE_MAP_READ
    EXPECT_EQ(valueOf<Uint32>(log.items[2]), 100u);
    munmap(taken, 4096);

    // More than the file has.
    g_calls.clear();
    m.length = 10001;
    view = nullptr;
    EXPECT_EQ(h.map(&m, &view), ECF_ACCESS_DENIED);
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_map, 80, ECF_ACCESS_DENIED).err, 5u);

    g_calls.clear();
    m.protection = 3;
    EXPECT_EQ(h.map(&m, &view), ECF_INVALID_PARAMETER);
    EXPECT_EQ(valueOf<Uint32>(theLog(ZEPFN_ZEPHFile_map, 60, ECF_INVALID_PARAMETER).items[0]), 3u);

    // Nothing mapped: unmap fails at probe 30 with the address.
    g_calls.clear();
    EXPECT_EQ(h.unmap(), ECF_INVALID_ADDRESS);
    const Call& none = theLog(ZEPFN_ZEPHFile_unmap, 30, ECF_INVALID_ADDRESS);
    EXPECT_EQ(none.called, SYSFN_UnmapViewOfFile);
    EXPECT_EQ(valueOf<void*>(none.items[0]), nullptr);
    EXPECT_EQ(h.close(), 0u);

    // The mapping can't be made: writable from a read-only handle, or of an empty file.
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    g_calls.clear();
    m.protection = ZEP_FILE_MAP_READ_WRITE, m.length = 0;
    EXPECT_EQ(h.map(&m, &view), ECF_ACCESS_DENIED);
    const Call& denied = theLog(ZEPFN_ZEPHFile_map, 70, ECF_ACCESS_DENIED);
    EXPECT_EQ(denied.called, SYSFN_CreateFileMapping);
    ASSERT_EQ(denied.items.size(), 2u);
    EXPECT_EQ(valueOf<Uint32>(denied.items[1]), ZEP_FILE_MAP_READ_WRITE);
    EXPECT_EQ(fieldsOf(h).mapping, kNone);
    EXPECT_EQ(h.close(), 0u);
    ASSERT_EQ(open(h, path("empty"), ZEP_FILE_CREATE_NEW), 0u);
    g_calls.clear();
    m.protection = ZEP_FILE_MAP_READ;
    EXPECT_EQ(h.map(&m, &view), ECF_UNKNOWN);
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_map, 70, ECF_UNKNOWN, ZEP_LOG_ERROR).err,
              zepos::ERROR_FILE_INVALID);
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, ClosedObjectAndCloseFailures) {
    ZEPHFile h;
    Fields f = fieldsOf(h);
    EXPECT_EQ(f.file, kNone);
    EXPECT_EQ(f.mapping, kNone);
    EXPECT_EQ(f.view, nullptr);
    // The handle goes to the platform, which refuses it; each member logs at probe 20.
    struct Case {
        Uint32 (*call)(ZEPHFile&);
        Uint32 fid, called;
    } cases[] = {
        {[](ZEPHFile& x) { return x.close(); }, ZEPFN_ZEPHFile_close, SYSFN_CloseHandle},
        {[](ZEPHFile& x) { return x.sync(); }, ZEPFN_ZEPHFile_sync, SYSFN_FlushFileBuffers},
        {[](ZEPHFile& x) {
             Uint64 n = 5;
             Uint32 rc = x.getSize(&n);
             EXPECT_EQ(n, 5u);
             return rc;
         },
         ZEPFN_ZEPHFile_getSize, SYSFN_GetFileSize},
    };
    for (const Case& c : cases) {
        g_calls.clear();
        EXPECT_EQ(c.call(h), ECF_INVALID_PARAMETER);
        const Call& log = theLog(c.fid, 20, ECF_INVALID_PARAMETER);
        EXPECT_EQ(log.what, "logsys");
        EXPECT_EQ(log.called, c.called);
        EXPECT_EQ(log.err, 6u);
        EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000001u);
        ASSERT_EQ(log.items.size(), 1u);
        EXPECT_EQ(log.items[0].length, 3 * sizeof(void*));
    }
    EXPECT_FALSE(zepos::CloseHandle(nullptr));
    EXPECT_EQ(zepos::GetLastError(), 6u);

    // A handle of another kind is no file: sizes and data refuse it.
    const std::string p = path("f");
    put(p, "abc");
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    void* mapping =
        zepos::CreateFileMappingA(h.getFileHandle(), nullptr, zepos::PAGE_READONLY, 0, 0, nullptr);
    ASSERT_NE(mapping, nullptr);
    EXPECT_EQ(zepos::GetFileSize(mapping, nullptr), zepos::INVALID_FILE_SIZE);
    EXPECT_EQ(zepos::GetLastError(), 6u);
    // The mapping outlives the file handle, and views outlive the mapping.
    EXPECT_EQ(h.close(), 0u);
    void* v = zepos::MapViewOfFileEx(mapping, zepos::FILE_MAP_READ, 0, 0, 0, nullptr);
    ASSERT_NE(v, nullptr);
    EXPECT_TRUE(zepos::CloseHandle(mapping));
    EXPECT_EQ(std::string(static_cast<char*>(v), 3), "abc");
    EXPECT_FALSE(zepos::UnmapViewOfFile(static_cast<char*>(v) + 1));
    EXPECT_EQ(zepos::GetLastError(), 487u);
    EXPECT_TRUE(zepos::UnmapViewOfFile(v));
}

TEST_F(HFile, ParameterObjects) {
    const std::string p = path("f");
    put(p, "data");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    traceOn();

    ZEPFileOpenParam open;
    ZEPFileSeekParam seek;
    ZEPFileReadParam read;
    ZEPFileWriteParam write;
    ZEPFileSetSizeParam setSize;
    ZEPFileLockParam lock(ZEP_FILE_LOCK_SHARED, ZEP_FILE_LOCK_NO_WAIT);
    ZEPFileMapParam map;
    EXPECT_EQ(open.version, ZEP_VERSION_WORD);
    EXPECT_EQ(open.path, nullptr);
    EXPECT_EQ(open.creation | open.access | open.options | open.permissions | open.reserved, 0u);
    EXPECT_EQ(lock.type, ZEP_FILE_LOCK_SHARED);
    EXPECT_EQ(lock.wait, ZEP_FILE_LOCK_NO_WAIT);
    EXPECT_EQ(ZEPFileLockParam().type, 0u);

    char buf[8];
    Uint32 n;
    void* view = nullptr;
    struct Member {
        Uint32 fid, firstProbe;
        Uint32* version;
        std::function<Uint32(bool)> call;  // true: with a null object
    } members[] = {
        {ZEPFN_ZEPHFile_open, 200, &open.version,
         [&](bool null) { return h.open(null ? nullptr : &open); }},
        {ZEPFN_ZEPHFile_seek, 100, &seek.version,
         [&](bool null) { return h.seek(null ? nullptr : &seek); }},
        {ZEPFN_ZEPHFile_read, 10, &read.version,
         [&](bool null) { return h.read(null ? nullptr : &read, buf, &n); }},
        {ZEPFN_ZEPHFile_write, 10, &write.version,
         [&](bool null) { return h.write(null ? nullptr : &write, &n); }},
        {ZEPFN_ZEPHFile_setSize, 10, &setSize.version,
         [&](bool null) { return h.setSize(null ? nullptr : &setSize); }},
        {ZEPFN_ZEPHFile_lock, 100, &lock.version,
         [&](bool null) { return h.lock(null ? nullptr : &lock); }},
        {ZEPFN_ZEPHFile_map, 10, &map.version,
         [&](bool null) { return h.map(null ? nullptr : &map, &view); }},
    };
    for (Member& m : members) {
        SCOPED_TRACE(m.fid);
        g_calls.clear();
        EXPECT_EQ(m.call(true), ECF_INVALID_PARAMETER);
        // No error record and no exit record.
        ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "log"}));
        EXPECT_EQ(g_calls[1].probe, m.firstProbe);
        const Call& null = theLog(m.fid, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
        EXPECT_EQ(null.count, 0);

        g_calls.clear();
        *m.version = 20040701;
        EXPECT_EQ(m.call(false), ECF_INVALID_VERSION);
        ASSERT_EQ(kinds(), (std::vector<std::string>{"entry", "var", "log"}));
        const Call& old = theLog(m.fid, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
        ASSERT_EQ(old.items.size(), 1u);
        EXPECT_EQ(old.items[0].type, ZEP_LOGDATA_UINT);
        EXPECT_EQ(valueOf<Uint32>(old.items[0]), 20040701u);

        // The oldest stamp accepted goes on to the member's own checks or work.
        g_calls.clear();
        *m.version = 20040702;
        m.call(false);
        EXPECT_EQ(g_calls.back().what, "exit");
    }
    zepos::CloseHandle(h.getFileHandle());
}

}  // namespace
