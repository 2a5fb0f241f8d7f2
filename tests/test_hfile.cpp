// ZEPHFile as its callers rely on it: results, last errors, file contents and pointer positions,
// the log record of a failure, and the byte-0 lock between real processes.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;
void* const kNone = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

// A helper_hfile process; its output comes through a pipe.
struct Helper {
    FILE* out;
    Helper(const char* mode, const std::string& path, Uint32 arg) {
        const std::string cmd = std::string(ZEP_TEST_BIN_DIR "/helper_hfile ") + mode + " " + path +
                                " " + std::to_string(arg);
        out = popen(cmd.c_str(), "r");
    }
    // The next line, or "" if none came within the time.
    std::string line(int timeoutMs = 5000) {
        pollfd p{fileno(out), POLLIN, 0};
        char buf[64] = {};
        if (poll(&p, 1, timeoutMs) <= 0 || !fgets(buf, sizeof buf, out)) return "";
        return std::string(buf, strcspn(buf, "\n"));
    }
    int finish() { return pclose(out); }
};

// What another process gets when it tries the lock without waiting.
Uint32 otherProcessTries(const std::string& path, Uint32 type) {
    Helper h("try", path, type);
    const std::string line = h.line();
    EXPECT_EQ(h.finish(), 0) << line;
    return static_cast<Uint32>(strtoul(line.c_str(), nullptr, 16));
}

class HFile : public CaptureTest {
protected:
    Uint32 open(ZEPHFile& h, const std::string& p, Uint32 creation,
                Uint32 access = ZEP_FILE_ACCESS_READ_WRITE, Uint32 options = 0) {
        ZEPFileOpenParam o;
        o.path = p.c_str();
        o.creation = creation, o.access = access, o.options = options;
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
};

TEST_F(HFile, OpenDispositionsAndRefusals) {
    const Uint32 RW = ZEP_FILE_ACCESS_READ_WRITE, INVAL = ECF_INVALID_PARAMETER;
    struct Case {
        Uint32 creation, access;
        bool exists;
        Uint32 rc, probe;   // the failure's log record
        const char* after;  // the file's content afterwards
        Uint32 lastError;   // what the platform call left on success or at probe 280
    } cases[] = {
        {ZEP_FILE_OPEN_EXISTING, RW, true, 0, 0, "old", 0},
        {ZEP_FILE_OPEN_EXISTING, RW, false, ECF_FILE_DOESNT_EXIST, 270, "<missing>", 0},
        {ZEP_FILE_OPEN_OR_CREATE, RW, true, 0, 0, "old", 183},
        {ZEP_FILE_OPEN_OR_CREATE, RW, false, 0, 0, "", 0},
        {ZEP_FILE_TRUNCATE_EXISTING, RW, true, 0, 0, "", 0},
        {ZEP_FILE_TRUNCATE_EXISTING, RW, false, ECF_FILE_DOESNT_EXIST, 280, "<missing>", 2},
        {ZEP_FILE_CREATE_NEW, RW, true, ECF_FILE_EXISTS, 260, "old", 0},
        {ZEP_FILE_CREATE_NEW, RW, false, 0, 0, "", 0},
        {ZEP_FILE_CREATE_OR_REPLACE, RW, true, 0, 0, "", 183},
        {ZEP_FILE_CREATE_OR_REPLACE, RW, false, 0, 0, "", 0},
        // Bad values, and truncation of a file opened for reading: refused untouched.
        {3, RW, true, INVAL, 230, "old", 0},
        {ZEP_FILE_OPEN_EXISTING, 3, true, INVAL, 240, "old", 0},
        {ZEP_FILE_TRUNCATE_EXISTING, ZEP_FILE_ACCESS_READ, true, INVAL, 250, "old", 0},
    };
    const std::string p = path("f");
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.creation << "/" << c.access << " " << c.exists);
        unlink(p.c_str());
        if (c.exists) put(p, "old");
        calls.clear();
        ZEPHFile h;
        zepos::SetLastError(12345);
        EXPECT_EQ(open(h, p, c.creation, c.access), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(zepos::GetLastError(), c.lastError);
            EXPECT_TRUE(calls.empty());
            EXPECT_EQ(h.close(), 0u);
        } else {
            EXPECT_EQ(theLog(ZEPFN_ZEPHFile_open, c.probe, c.rc).err, c.lastError);
        }
        EXPECT_EQ(h.getFileHandle(), kNone);
        EXPECT_EQ(slurp(p), c.after);
    }

    // The platform's refusal is logged with the path, access, disposition and attributes.
    const std::string deep = path("none/f");
    calls.clear();
    ZEPHFile h;
    EXPECT_EQ(open(h, deep, ZEP_FILE_OPEN_OR_CREATE, ZEP_FILE_ACCESS_WRITE,
                   ZEP_FILE_OPTION_WRITE_THROUGH | ZEP_FILE_OPTION_DELETE_ON_CLOSE),
              ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(logs(), Strings{rec("logsys", ZEPFN_ZEPHFile_open, 280, ECF_FILE_PATH_DOESNT_EXIST,
                                  ZEP_LOG_INFO, SYSFN_CreateFile, 3)});
    const Call& log = aLog();
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x8000000Fu);
    ASSERT_EQ(log.items.size(), 4u);
    EXPECT_EQ(log.items[0].bytes, deep);
    // Generic write, OPEN_ALWAYS, and the attributes.
    EXPECT_EQ(std::vector<Uint32>({valueOf<Uint32>(log.items[1]), valueOf<Uint32>(log.items[2]),
                                   valueOf<Uint32>(log.items[3])}),
              std::vector<Uint32>({0x40000000u, 4u, 0x84000080u}));

    // Delete on close, by relative names, when the process works elsewhere by then; a name that
    // another file has taken meanwhile is left to it.
    const Uint32 del = ZEP_FILE_OPTION_DELETE_ON_CLOSE;
    ZEPHFile a;
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    EXPECT_EQ(
        open(h, "t", ZEP_FILE_CREATE_NEW, RW, del) | open(a, "a", ZEP_FILE_CREATE_NEW, RW, del),
        0u);
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(h.close(), 0u);
    EXPECT_EQ(slurp(path("t")), "<missing>");
    ASSERT_EQ(rename(path("a").c_str(), path("moved").c_str()), 0);
    put(path("a"), "other");
    EXPECT_EQ(a.close(), 0u);
    EXPECT_EQ(slurp(path("a")), "other");
    calls.clear();
    EXPECT_EQ(h.close(), INVAL);  // closed twice: the platform refuses the handle
    EXPECT_EQ(theLog(ZEPFN_ZEPHFile_close, 20, INVAL).err, 6u);
}

TEST_F(HFile, ReadShortIsEndOfFile) {
    const std::string p = path("f");
    put(p, "0123456789");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    // Reads of 4, of 10 where six are left, of 10 at the end, and exactly to the last byte.
    struct Case {
        Sint64 from;
        Uint32 length, rc;
        const char* got;
    } reads[] = {{0, 4, 0, "0123"},
                 {4, 10, ECF_FILE_EOF, "456789"},
                 {10, 10, ECF_FILE_EOF, ""},
                 {6, 4, 0, "6789"}};
    char buf[32];
    ZEPFileReadParam r;
    Uint32 got;
    for (const Case& c : reads) {
        ZEPFileSeekParam s;
        s.offset = c.from;
        ASSERT_EQ(h.seek(&s), 0u);
        r.length = c.length;
        EXPECT_EQ(h.read(&r, buf, &got), c.rc) << c.from;
        EXPECT_EQ(std::string(buf, got), c.got);
    }
    EXPECT_TRUE(calls.empty());  // the end of the file is an answer, not a failure
    EXPECT_EQ(h.close(), 0u);

    // Reading without read access: the object and the length are logged.
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_WRITE), 0u);
    r.length = 3;
    EXPECT_EQ(h.read(&r, buf, &got), ECF_ACCESS_DENIED);
    EXPECT_EQ(logs(), Strings{rec("logsys", ZEPFN_ZEPHFile_read, 50, ECF_ACCESS_DENIED,
                                  ZEP_LOG_INFO, SYSFN_ReadFile, 5)});
    const Call& log = aLog();
    EXPECT_EQ(static_cast<Uint32>(log.count), 0x80000003u);
    ASSERT_EQ(log.items.size(), 2u);
    EXPECT_EQ(log.items[0].type, ZEP_LOGDATA_HEX);
    EXPECT_EQ(log.items[0].bytes, std::string(reinterpret_cast<const char*>(&h), sizeof h));
    EXPECT_EQ(valueOf<Uint32>(log.items[1]), 3u);
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, SeekBoundaries) {
    const std::string p = path("f");
    put(p, std::string(100, 'x'));
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    // From position 30 of 100 bytes. Before the start lands at 0; beyond the end is refused,
    // logged, and leaves the pointer, except that asking from the end has put it there.
    const Uint32 BEYOND = ECF_FILE_SEEK_BEYOND_EOF;
    struct Case {
        Uint32 origin;
        Sint64 offset;
        Uint32 rc;
        Uint64 at;
    } cases[] = {{0, 40, 0, 40},       {1, -50, 0, 0},      {2, -10, 0, 90},
                 {0, INT64_MIN, 0, 0}, {2, 0, 0, 100},      {0, 101, BEYOND, 30},
                 {1, 71, BEYOND, 30},  {2, 1, BEYOND, 100}, {1, INT64_MAX, BEYOND, 30}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.origin << " " << c.offset);
        ZEPFileSeekParam s;
        s.offset = 30;
        ASSERT_EQ(h.seek(&s), 0u);
        calls.clear();
        s.origin = c.origin, s.offset = c.offset;
        Uint64 at = 7;
        EXPECT_EQ(h.seek(&s, &at), c.rc);
        EXPECT_EQ(position(h), c.at);
        EXPECT_EQ(at, c.rc ? 7 : c.at);
        if (c.rc) theLog(ZEPFN_ZEPHFile_seek, 150, BEYOND);
    }
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, SetSizeAndThePointer) {
    const std::string p = path("f");
    put(p, std::string(100, 'x'));
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    ZEPFileSeekParam s;
    s.offset = 50;
    ASSERT_EQ(h.seek(&s), 0u);
    // Longer, shorter but past the pointer, as it is, shorter than the pointer: a pointer beyond
    // the new end goes to it, one within stays.
    ZEPFileSetSizeParam z;
    Uint64 at = 50;
    for (Uint64 to : {200, 60, 60, 20, 30}) {
        z.size = to;
        EXPECT_EQ(h.setSize(&z), 0u);
        EXPECT_EQ(size(h), to);
        at = std::min(at, to);
        EXPECT_EQ(position(h), at) << to;
    }
    EXPECT_EQ(slurp(p), std::string(20, 'x') + std::string(10, '\0'));  // new bytes are zeros

    // Past four gigabytes: a size whose low word is all ones is a size, not a failure.
    z.size = 0xFFFFFFFFull;
    ASSERT_EQ(h.setSize(&z), 0u);
    EXPECT_EQ(size(h), 0xFFFFFFFFull);
    z.size = 9ull << 30;
    ASSERT_EQ(h.setSize(&z), 0u);
    s.offset = (4ll << 30) + 0xFFFFFFFFll;
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, static_cast<Uint64>(s.offset));
    s.origin = ZEP_FILE_SEEK_CURRENT, s.offset = -(4ll << 30);
    EXPECT_EQ(h.seek(&s, &at), 0u);
    EXPECT_EQ(at, 0xFFFFFFFFull);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, LockBetweenProcesses) {
    const std::string p = path("lock");
    put(p, "");  // an empty file locks as well: byte 0 needn't exist
    ZEPHFile h;  // opened for reading only, which the kernel's write locks don't allow
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    EXPECT_EQ(h.unlock(), 0u);  // not locked: no error
    const Uint32 EX = ZEP_FILE_LOCK_EXCLUSIVE, SH = ZEP_FILE_LOCK_SHARED;
    ZEPFileLockParam exclusive(EX, ZEP_FILE_LOCK_NO_WAIT), shared(SH, ZEP_FILE_LOCK_NO_WAIT);
    for (ZEPFileLockParam* mine : {&exclusive, &shared}) {
        ASSERT_EQ(h.lock(mine), 0u);
        for (Uint32 theirs : {EX, SH})
            EXPECT_EQ(otherProcessTries(p, theirs),
                      mine->type == SH && theirs == SH ? 0 : ECF_FILE_LOCK)
                << mine->type << " " << theirs;
        EXPECT_EQ(h.unlock(), 0u);
    }

    // Descriptors of the same file opened and closed elsewhere in this process don't take the
    // lock with them (record locks of the classic kind would be gone now).
    ASSERT_EQ(h.lock(&exclusive), 0u);
    ::close(::open(p.c_str(), O_RDWR));
    ZEPHFile other;
    ASSERT_EQ(open(other, p, ZEP_FILE_OPEN_EXISTING), 0u);
    EXPECT_EQ(other.lock(&exclusive), ECF_FILE_LOCK);  // two handles of one process exclude
    EXPECT_EQ(h.lock(&exclusive), ECF_FILE_LOCK);      // and a handle its own lock
    EXPECT_EQ(other.close(), 0u);
    EXPECT_EQ(otherProcessTries(p, SH), ECF_FILE_LOCK);

    // Waiting: the other process gets the lock when this one lets go, not before.
    Helper waiter("wait", p, EX);
    EXPECT_EQ(waiter.line(400), "");
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(waiter.line(), "00000000");
    EXPECT_EQ(waiter.finish(), 0);

    // Closing the handle releases its lock, even while a mapping keeps the file open (shared:
    // the lock that a read-only handle takes through its own descriptor, which the mapping shares).
    put(p, "some bytes");
    ASSERT_EQ(h.lock(&shared), 0u);
    ZEPFileMapParam m;
    m.protection = ZEP_FILE_MAP_READ;
    void* view = nullptr;
    ASSERT_EQ(h.map(&m, &view), 0u);
    ZEPHFile mapped = h;
    EXPECT_EQ(h.close(), 0u);
    EXPECT_EQ(otherProcessTries(p, EX), 0u);
    EXPECT_EQ(mapped.unmap(), 0u);
    EXPECT_TRUE(calls.empty());  // a held lock is an answer, not a failure
}

TEST_F(HFile, MapAndUnmap) {
    const std::string p = path("m");
    put(p, std::string(9999, 'a') + "z");
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    ZEPFileMapParam m;
    m.protection = ZEP_FILE_MAP_READ_WRITE;
    char* view = nullptr;
    ASSERT_EQ(h.map(&m, reinterpret_cast<void**>(&view)), 0u);
    EXPECT_EQ(view[9999], 'z');  // length 0: the whole file
    view[0] = 'W';
    EXPECT_EQ(h.unmap(), 0u);  // null: the object's view
    EXPECT_EQ(slurp(p)[0], 'W');

    // Copy on write keeps the file as it is; a wished address is taken.
    void* wished = mmap(nullptr, 1 << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_EQ(munmap(wished, 1 << 20), 0);
    m.protection = ZEP_FILE_MAP_COPY_ON_WRITE, m.length = 100;
    view = static_cast<char*>(wished);
    ASSERT_EQ(h.map(&m, reinterpret_cast<void**>(&view)), 0u);
    EXPECT_EQ(view, wished);
    view[0] = 'C';
    EXPECT_EQ(h.unmap(view), 0u);
    EXPECT_EQ(slurp(p)[0], 'W');

    // Nothing mapped: unmap fails with the address.
    EXPECT_EQ(h.unmap(), ECF_INVALID_ADDRESS);
    EXPECT_EQ(valueOf<void*>(theLog(ZEPFN_ZEPHFile_unmap, 30, ECF_INVALID_ADDRESS).items[0]),
              nullptr);
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, ParameterObjects) {
    // Every member that takes an object: null, one stamp too old, the oldest accepted.
    ZEPHFile h;
    auto check = [&](Uint32 fid, auto param, auto call) {
        SCOPED_TRACE(fid);
        calls.clear();
        EXPECT_EQ(call(decltype(&param){}), ECF_INVALID_PARAMETER);
        theLog(fid, 1111, ECF_INVALID_PARAMETER, ZEP_LOG_ERROR);
        calls.clear();
        param.version = 20040701;
        EXPECT_EQ(call(&param), ECF_INVALID_VERSION);
        const Call& log = theLog(fid, 1112, ECF_INVALID_VERSION, ZEP_LOG_ERROR);
        EXPECT_EQ(valueOf<Uint32>(log.items.at(0)), 20040701u);
        param.version = 20040702;
        EXPECT_NE(call(&param), ECF_INVALID_VERSION);
    };
    char buf[8];
    Uint32 n;
    void* view = nullptr;
    // clang-format off
    check(ZEPFN_ZEPHFile_open, ZEPFileOpenParam{}, [&](auto* p) { return h.open(p); });
    check(ZEPFN_ZEPHFile_seek, ZEPFileSeekParam{}, [&](auto* p) { return h.seek(p); });
    check(ZEPFN_ZEPHFile_read, ZEPFileReadParam{}, [&](auto* p) { return h.read(p, buf, &n); });
    check(ZEPFN_ZEPHFile_write, ZEPFileWriteParam{}, [&](auto* p) { return h.write(p, &n); });
    check(ZEPFN_ZEPHFile_setSize, ZEPFileSetSizeParam{}, [&](auto* p) { return h.setSize(p); });
    check(ZEPFN_ZEPHFile_lock, ZEPFileLockParam{}, [&](auto* p) { return h.lock(p); });
    check(ZEPFN_ZEPHFile_map, ZEPFileMapParam{}, [&](auto* p) { return h.map(p, &view); });
    // clang-format on
}

// A handle once closed is invalid for good: a stale copy never reaches what was opened since,
// whichever kind it is, though that may have been given the same record's memory.
TEST_F(HFile, ClosedHandleStaysInvalid) {
    ZEPHFile a;
    ASSERT_EQ(open(a, path("a"), ZEP_FILE_OPEN_OR_CREATE), 0u);
    ZEPHFile stale = a;
    ASSERT_EQ(a.close(), 0u);
    ZEPHFile b;
    ASSERT_EQ(open(b, path("b"), ZEP_FILE_OPEN_OR_CREATE), 0u);
    EXPECT_EQ(stale.close(), ECF_INVALID_PARAMETER);  // the map's code for error 6
    EXPECT_EQ(zepos::GetLastError(), zepos::ERROR_INVALID_HANDLE);
    ZEPFileWriteParam w;
    w.buffer = "written";
    w.length = 7;
    Uint32 n = 0;
    EXPECT_EQ(b.write(&w, &n), 0u);
    EXPECT_EQ(b.close(), 0u);
    EXPECT_EQ(slurp(path("b")), "written");

    using namespace zepos;
    HANDLE f = CreateFileA(path("m").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(f, INVALID_HANDLE_VALUE);
    HANDLE m = CreateFileMappingA(f, nullptr, PAGE_READWRITE, 0, 4096, nullptr);
    ASSERT_NE(m, nullptr);
    ASSERT_TRUE(CloseHandle(m));
    HANDLE again = CreateFileMappingA(f, nullptr, PAGE_READWRITE, 0, 4096, nullptr);
    ASSERT_NE(again, nullptr);
    for (HANDLE h :
         {m, static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE, static_cast<HANDLE>(&w)}) {
        SetLastError(0);
        EXPECT_FALSE(CloseHandle(h));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(HandleOfKind(h, HANDLE_KIND_FILE_MAPPING), nullptr);
    }
    EXPECT_EQ(MapViewOfFileEx(m, FILE_MAP_READ, 0, 0, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(CloseHandle(again));
    EXPECT_TRUE(CloseHandle(f));
    EXPECT_FALSE(CloseHandle(f));
}

// The pointer and the size a handle remembers from its last seek follow every call that
// changes them, on this handle and, for the size, on another one.
TEST_F(HFile, SizeAndPointerAfterEveryCall) {
    using namespace zepos;
    HANDLE h = CreateFileA(path("s").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    Uint32 n = 0;
    OVERLAPPED o = {};
    ASSERT_TRUE(LockFileEx(h, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &o));
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_END), 0u);
    EXPECT_EQ(GetFileSize(h, nullptr), 0u);
    ASSERT_TRUE(WriteFile(h, "hello", 5, &n, nullptr));
    EXPECT_EQ(GetFileSize(h, nullptr), 5u);  // the write is counted
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_BEGIN), 0u);
    char buf[8] = {};
    ASSERT_TRUE(ReadFile(h, buf, 2, &n, nullptr));
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 2u);
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_BEGIN), 0u);  // the read moved it: really moved
    ASSERT_TRUE(ReadFile(h, buf, 5, &n, nullptr));
    EXPECT_EQ(std::string(buf, n), "hello");
    EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_END), 5u);
    ASSERT_TRUE(UnlockFileEx(h, 0, 1, 0, &o));
    // Another handle appends once the lock is gone: the size is asked again.
    HANDLE other = CreateFileA(path("s").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    EXPECT_EQ(SetFilePointer(other, 0, nullptr, FILE_END), 5u);
    ASSERT_TRUE(WriteFile(other, "!!", 2, &n, nullptr));
    EXPECT_EQ(GetFileSize(h, nullptr), 7u);
    EXPECT_EQ(SetFilePointer(h, 3, nullptr, FILE_BEGIN), 3u);
    ASSERT_TRUE(SetEndOfFile(h));
    EXPECT_EQ(GetFileSize(h, nullptr), 3u);
    EXPECT_EQ(SetFilePointer(other, 0, nullptr, FILE_END), 3u);
    EXPECT_TRUE(CloseHandle(other));
    EXPECT_TRUE(CloseHandle(h));
}

// The log's cycle from three processes at once: every record whole, in its own place, and each
// one written where the size read under the lock said the end was.
TEST_F(HFile, AppendersUnderTheLockLoseNothing) {
    const std::string p = path("log");
    constexpr int kEach = 200;
    std::vector<Helper> writers;
    for (int i = 0; i < 3; ++i) writers.emplace_back("append", p, kEach);
    for (Helper& w : writers) {
        EXPECT_EQ(w.line(60000), "done");
        EXPECT_EQ(w.finish(), 0);
    }
    const std::string all = slurp(p);
    constexpr size_t kRecord = 31;
    ASSERT_EQ(all.size(), 3 * kEach * kRecord);
    std::map<int, int> next;  // writer -> the number it wrote last + 1
    for (size_t off = 0; off < all.size(); off += kRecord) {
        int writer = 0, number = 0;
        unsigned long long at = 0;
        ASSERT_EQ(sscanf(all.c_str() + off, "%d %d %llu", &writer, &number, &at), 3) << off;
        EXPECT_EQ(at, off);
        EXPECT_EQ(number, next[writer]++) << writer;
    }
    EXPECT_EQ(next.size(), 3u);
}

}  // namespace
