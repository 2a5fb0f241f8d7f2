// ZEPHFile as its callers rely on it: results, file contents and pointer positions, the log
// record of a failure, and the byte-0 lock between real processes. Then the primitive file of
// the diagnostics: platform error numbers, the open flags, the unchecked write, the 2,047-byte cut
// of fwrite, and the standard descriptors.
#include <fcntl.h>
#include <poll.h>

#include "zepos.h"
#include "zeptest_sys.h"

namespace {

using namespace zeptest;
void* const kNone = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

const std::string kHelper = ZEP_TEST_BIN_DIR "/helper_hfile ";

// What another process gets when it tries the lock without waiting.
Uint32 otherProcessTries(const std::string& path, Uint32 t) {
    const std::string out = run(kHelper + "try " + path + " " + std::to_string(t) + " && echo ok");
    EXPECT_EQ(out.substr(8), "\nok") << out;  // the helper ended well
    return static_cast<Uint32>(strtoul(out.c_str(), nullptr, 16));
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
    Uint64 seek(ZEPHFile& h, Uint32 origin, Sint64 offset, Uint32 rc = 0) {
        ZEPFileSeekParam s;
        s.origin = origin, s.offset = offset;
        Uint64 at = 7;
        EXPECT_EQ(h.seek(&s, &at), rc) << origin << " " << offset;
        return at;
    }
    Uint64 size(ZEPHFile& h) {
        Uint64 n = ~0ull;
        EXPECT_EQ(h.getSize(&n), 0u);
        return n;
    }
};

TEST_F(HFile, OpenDispositionsAndRefusals) {
    const Uint32 OE = ZEP_FILE_OPEN_EXISTING, OC = ZEP_FILE_OPEN_OR_CREATE,
                 TE = ZEP_FILE_TRUNCATE_EXISTING, CN = ZEP_FILE_CREATE_NEW,
                 RW = ZEP_FILE_ACCESS_READ_WRITE, INVAL = ECF_INVALID_PARAMETER;
    // Creation, access, whether the file exists; the result, the probe of its log record, and
    // the file's content afterwards. Bad values, and truncation of a file opened for reading, are
    // refused before the file is touched.
    // clang-format off
    struct { Uint32 creation; bool exists; Uint32 rc, probe; const char* then; Uint32 access = RW; }
        cases[] = {
        {OE, true, 0, 0, "old"},      {OE, false, ECF_FILE_DOESNT_EXIST, 270, "<missing>"},
        {OC, true, 0, 0, "old"},      {OC, false, 0, 0, ""},
        {TE, true, 0, 0, ""},         {TE, false, ECF_FILE_DOESNT_EXIST, 280, "<missing>"},
        {CN, true, ECF_FILE_EXISTS, 260, "old"}, {CN, false, 0, 0, ""},
        {ZEP_FILE_CREATE_OR_REPLACE, true, 0, 0, ""}, {3, true, INVAL, 230, "old"},
        {OE, true, INVAL, 240, "old", 3}, {TE, true, INVAL, 250, "old", ZEP_FILE_ACCESS_READ},
    };
    // clang-format on
    const std::string p = path("f");
    for (const auto& c : cases) {
        unlink(p.c_str());
        if (c.exists) put(p, "old");
        calls.clear();
        ZEPHFile h;
        EXPECT_EQ(open(h, p, c.creation, c.access), c.rc) << c.creation << " " << c.exists;
        if (c.rc == 0)
            EXPECT_EQ(h.close(), 0u);
        else
            theLog(ZEPFN_ZEPHFile_open, c.probe, c.rc);
        EXPECT_EQ(h.getFileHandle(), kNone);
        EXPECT_EQ(slurp(p), c.then);
    }

    // The platform's refusal is logged with the path, generic write, OPEN_ALWAYS and the
    // attributes of both options.
    calls.clear();
    ZEPHFile h;
    EXPECT_EQ(open(h, path("none/f"), OC, ZEP_FILE_ACCESS_WRITE,
                   ZEP_FILE_OPTION_WRITE_THROUGH | ZEP_FILE_OPTION_DELETE_ON_CLOSE),
              ECF_FILE_PATH_DOESNT_EXIST);
    EXPECT_EQ(said(),
              "logsys ZEPHFile::open CreateFile 3 ECF_FILE_PATH_DOESNT_EXIST p280 L4 m8000000F");
    const std::vector<Item>& items = aLog().items;
    EXPECT_EQ(std::make_tuple(valueOf<Uint32>(items.at(1)), valueOf<Uint32>(items.at(2)),
                              valueOf<Uint32>(items.at(3))),
              std::make_tuple(0x40000000u, 4u, 0x84000080u));

    // Delete on close; then a stale copy of the closed handle never reaches the file opened
    // since in its place. Bad values are refused before the handle is looked at.
    EXPECT_EQ(open(h, path("t"), CN, RW, ZEP_FILE_OPTION_DELETE_ON_CLOSE), 0u);
    ZEPHFile stale = h;
    EXPECT_EQ(h.close(), 0u);
    EXPECT_FALSE(exists(path("t")));
    ASSERT_EQ(open(h, path("b"), CN), 0u);
    calls.clear();
    ZEPFileWriteParam w;
    w.buffer = "x", w.length = 1;
    ZEPFileLockParam badLock(3, ZEP_FILE_LOCK_WAIT);
    ZEPFileMapParam badMap;
    badMap.protection = 3;
    void* view = nullptr;
    Uint32 n = 0;
    const std::vector<Uint32> rcs{stale.write(&w, &n), stale.close(), stale.lock(&badLock),
                                  stale.map(&badMap, &view)};
    EXPECT_EQ(rcs, std::vector<Uint32>(4, INVAL));
    EXPECT_EQ(said(),
              "logsys ZEPHFile::write WriteFile 6 ECF_INVALID_PARAMETER p40 L4 m80000003; "
              "logsys ZEPHFile::close CloseHandle 6 ECF_INVALID_PARAMETER p20 L4 m80000001; "
              "log ZEPHFile::lock ECF_INVALID_PARAMETER p130 L4 n1; "
              "log ZEPHFile::map ECF_INVALID_PARAMETER p60 L4 n1");
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, ReadSeekSizeAndMap) {
    const std::string p = path("f");
    put(p, "0123456789" + std::string(90, 'x'));
    ZEPHFile h;
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING), 0u);
    // A short read is the end of the file, with what came. Each read from where the one before
    // it began: a read moves the pointer that the layer remembers from the last seek.
    // clang-format off
    struct { Sint64 from; Uint32 length, rc; const char* got; } reads[] = {
        {0, 4, 0, "0123"}, {0, 10, 0, "0123456789"}, {96, 10, ECF_FILE_EOF, "xxxx"},
        {100, 10, ECF_FILE_EOF, ""}};
    // clang-format on
    char buf[32];
    ZEPFileReadParam r;
    Uint32 got;
    for (const auto& c : reads) {
        seek(h, ZEP_FILE_SEEK_START, c.from);
        r.length = c.length;
        EXPECT_EQ(h.read(&r, buf, &got), c.rc) << c.from;
        EXPECT_EQ(std::string(buf, got), c.got);
    }

    // From position 30 of 100 bytes. Before the start lands at 0; beyond the end is refused,
    // logged, and leaves the pointer, except that asking from the end has put it there.
    const Uint32 BEYOND = ECF_FILE_SEEK_BEYOND_EOF;
    // clang-format off
    struct { Uint32 origin; Sint64 offset; Uint32 rc; Uint64 at; } cases[] = {
        {0, 40, 0, 40}, {1, -50, 0, 0}, {2, -10, 0, 90}, {0, INT64_MIN, 0, 0}, {2, 0, 0, 100},
        {0, 101, BEYOND, 30}, {1, 71, BEYOND, 30}, {2, 1, BEYOND, 100}, {1, INT64_MAX, BEYOND, 30}};
    // clang-format on
    EXPECT_TRUE(calls.empty());  // the end of the file is an answer, not a failure
    for (const auto& c : cases) {
        seek(h, ZEP_FILE_SEEK_START, 30);
        calls.clear();
        EXPECT_EQ(seek(h, c.origin, c.offset, c.rc), c.rc ? 7 : c.at);
        EXPECT_EQ(seek(h, ZEP_FILE_SEEK_CURRENT, 0), c.at);
        if (c.rc) theLog(ZEPFN_ZEPHFile_seek, 150, BEYOND);
    }

    calls.clear();
    // From 50: longer, shorter but past the pointer, as it is, shorter than the pointer: a
    // pointer beyond the new end goes to it, one within stays.
    seek(h, ZEP_FILE_SEEK_START, 50);
    ZEPFileSetSizeParam z;
    Uint64 at = 50;
    for (Uint64 to : {200, 60, 60, 20, 30}) {
        z.size = to;
        EXPECT_EQ(h.setSize(&z), 0u);
        EXPECT_EQ(size(h), to);
        EXPECT_EQ(seek(h, ZEP_FILE_SEEK_CURRENT, 0), at = std::min(at, to));
    }
    // A write after a seek to the end: the size found by the seek is no longer the size.
    seek(h, ZEP_FILE_SEEK_END, 0);
    ZEPFileWriteParam w;
    w.buffer = "ab", w.length = 2;
    EXPECT_EQ(h.write(&w, &got), 0u);
    EXPECT_EQ(size(h), 32u);
    EXPECT_EQ(slurp(p), "0123456789" + std::string(10, 'x') + std::string(10, '\0') + "ab");

    // Mapped for writing, the whole file by length 0, the file changes; copied on write, not.
    ZEPFileMapParam m;
    m.protection = ZEP_FILE_MAP_READ_WRITE;
    char* view = nullptr;
    ASSERT_EQ(h.map(&m, reinterpret_cast<void**>(&view)), 0u);
    EXPECT_EQ(view[31], 'b');
    view[0] = 'W';
    EXPECT_EQ(h.unmap(), 0u);  // null: the object's view
    m.protection = ZEP_FILE_MAP_COPY_ON_WRITE, m.length = 10;
    ASSERT_EQ(h.map(&m, reinterpret_cast<void**>(&view)), 0u);
    view[1] = 'C';
    EXPECT_EQ(h.unmap(view), 0u);
    EXPECT_EQ(slurp(p).substr(0, 2), "W1");
    EXPECT_EQ(h.unmap(), ECF_INVALID_ADDRESS);  // nothing mapped
    calls.clear();

    // Past four gigabytes: a size whose low word is all ones is a size, not a failure, and the
    // pointer goes there whole.
    z.size = 0x1FFFFFFFFull;
    ASSERT_EQ(h.setSize(&z), 0u);
    EXPECT_EQ(size(h), 0x1FFFFFFFFull);
    EXPECT_EQ(seek(h, ZEP_FILE_SEEK_START, 0x1FFFFFFFFll), 0x1FFFFFFFFull);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(h.close(), 0u);

    // Reading without read access: the object and the length are logged.
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_WRITE), 0u);
    EXPECT_EQ(h.read(&r, buf, &got), ECF_ACCESS_DENIED);
    EXPECT_EQ(said(), "logsys ZEPHFile::read ReadFile 5 ECF_ACCESS_DENIED p50 L4 m80000003");
    EXPECT_EQ(h.close(), 0u);
}

TEST_F(HFile, LockBetweenProcesses) {
    const std::string p = path("lock");
    put(p, "");  // an empty file locks as well: byte 0 needn't exist
    ZEPHFile h;  // opened for reading only, which the kernel's write locks don't allow
    ASSERT_EQ(open(h, p, ZEP_FILE_OPEN_EXISTING, ZEP_FILE_ACCESS_READ), 0u);
    EXPECT_EQ(h.unlock(), 0u);  // not locked: no error
    const Uint32 EX = ZEP_FILE_LOCK_EXCLUSIVE, SH = ZEP_FILE_LOCK_SHARED;
    char buf[16];
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
    FILE* waiter = popen((kHelper + "wait " + p + " " + std::to_string(EX)).c_str(), "r");
    pollfd pending{fileno(waiter), POLLIN, 0};
    EXPECT_EQ(poll(&pending, 1, 400), 0);
    EXPECT_EQ(h.unlock(), 0u);
    EXPECT_EQ(fgets(buf, sizeof buf, waiter), buf);
    EXPECT_STREQ(buf, "00000000\n");
    EXPECT_EQ(pclose(waiter), 0);

    EXPECT_TRUE(calls.empty());  // a held lock is an answer, not a failure
}

// The primitive file stands outside the frame: it never logs or traces.
using PrimFile = CaptureTest;

TEST_F(PrimFile, OpenFlagsNumbersAndDescriptors) {
    // Never opened: a write does nothing, a read hands back whatever the last error is.
    ZEPPrimitiveFileOp f;
    EXPECT_EQ(f.write("text", 4), 0u);
    zepos::SetLastError(1234);
    Uint32 got = 99;
    char buffer[32] = {};
    EXPECT_EQ(f.read(sizeof buffer, buffer, &got), 1234u);
    EXPECT_EQ(got, 0u);
    ZEPPrimitiveFileOp::offsetType size = {77};
    EXPECT_EQ(f.getSize(&size), static_cast<Uint32>(zepos::ERROR_INVALID_HANDLE));
    EXPECT_EQ(size.offset, 0u);

    // "Not found", also with 0x19 (bit 0x8 keeps the create bit from counting), "path not
    // found", "access denied" for a directory.
    // clang-format off
    const std::tuple<std::string, Uint32, Uint32> refused[] = {
        {path("missing"), 0x1, 2}, {path("missing"), 0x19, 2},
        {path("x/f"), 0x14, 3}, {dir_, 0x1, 5}};
    // clang-format on
    for (const auto& [path, flags, rc] : refused)
        EXPECT_EQ(ZEPPrimitiveFileOp().open(path.c_str(), flags), rc) << path << " " << flags;
    EXPECT_FALSE(exists(path("missing")));

    // 0x11 creates the file for reading, where a write is refused; close leaves the handle as
    // it was.
    EXPECT_EQ(f.open(path("data").c_str(), 0x11), 0u);
    EXPECT_EQ(f.write("x", 1), 5u);
    f.close();
    EXPECT_TRUE(f.isValid());

    // Writes unchecked and whole, a length of 0 meaning the string's; reads, sizes and offsets.
    ASSERT_EQ(f.open(path("data").c_str(), 0x14), 0u);
    EXPECT_EQ(f.write("", 0), 0u);
    EXPECT_EQ(f.write("0123456789", 0), 0u);
    EXPECT_EQ(f.write("abc\0def", 7), 0u);
    ASSERT_EQ(f.getSize(&size), 0u);
    EXPECT_EQ(size.offset, 17u);
    f.seekToOffset({4});
    EXPECT_EQ(f.read(5, buffer, &got), 0u);
    EXPECT_EQ(std::string(buffer, got), "45678");
    EXPECT_EQ(f.getCurrentOffset().offset, 9u);
    f.seekToEnd();
    EXPECT_EQ(f.read(sizeof buffer, buffer, &got), 0u);  // at the end: 0 bytes, no error
    EXPECT_EQ(got, 0u);
    std::string big(3000, 'q');
    big[2046] = 'L';
    f.fwrite("%s", big.c_str());  // cut at 2,047 bytes
    f.fwrite("%s=%u;", "n", 42u);
    f.close();
    EXPECT_EQ(slurp(path("data")),
              std::string("0123456789abc\0def", 17) + big.substr(0, 2047) + "n=42;");

    // A daemon that closed its standard output: the report file gets descriptor 1, and close
    // must close it, or the program's later output lands in the report. The console, though, is
    // standard output, and outlives close.
    fflush(stdout);
    const int saved = dup(1);
    close(1);
    ZEPPrimitiveFileOp report, console;
    const Uint32 opened = report.open(path("report").c_str(), 0x12);  // created for writing
    report.write("report\n", 0);
    report.close();
    const bool reportClosed = fcntl(1, F_GETFD) < 0;
    const int out = open(path("console").c_str(), O_CREAT | O_WRONLY, 0644);
    console.openConsole();
    const Uint32 rc = console.write("to the console\n", 0);
    console.close();
    const bool consoleOpen = fcntl(1, F_GETFD) >= 0;
    dup2(saved, 1);
    close(saved);
    EXPECT_EQ(std::make_tuple(opened, reportClosed, out, rc, consoleOpen),
              std::make_tuple(0u, true, 1, 0u, true));
    EXPECT_EQ(slurp(path("report")) + slurp(path("console")), "report\nto the console\n");
}

}  // namespace
