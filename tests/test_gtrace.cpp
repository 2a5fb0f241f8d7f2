// Tests of the trace: the control block, the record of each emission operation, filters, stop
// events, callbacks, counting and delaying modes, and threads and processes writing one block.
// Records are read back as a tool reads them: from a dump file, with the parser.
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "zepos.h"
#include "zeptest_stress.h"
#include "zeptest_trace.h"

namespace {

constexpr Uint32 kRing = 0x80000, kPid = 4242, F = ZEPFN_zepFileRename, D = 0xA5A5A5A5u;
constexpr Uint64 T = 0x1122334455667788ull;

// A record as the parser delivers it; the fields its operation leaves alone hold the slot's 0xA5.
struct Rec {
    std::vector<Uint8> bytes;
    GTRecord h;
    explicit Rec(std::vector<Uint8> b) : bytes(std::move(b)) {
        memset(&h, 0xA5, sizeof h);
        memcpy(&h, bytes.data(), std::min(bytes.size(), sizeof h));
    }
    Uint32 word(size_t at) const {
        Uint32 v = D;
        if (at + 4 <= bytes.size()) memcpy(&v, &bytes[at], 4);
        return v;
    }
    // The items as "kind:length:bytes ", bytes of 8 or more as "ref" if they begin `ref`.
    std::string items(const std::string& ref = "") const {
        std::string s;
        size_t at = 56 + 8 * h.itemCount;
        for (Uint32 i = 0; i < h.itemCount; ++i) {
            const Uint32 length = word(60 + 8 * i);
            const size_t n = length == GTRACE_ITEM_NULL ? 0 : length;
            const std::string data(reinterpret_cast<const char*>(bytes.data()) + at, n);
            s += std::to_string(word(56 + 8 * i)) + ":" + std::to_string(length) + ":" +
                 (n < 8                      ? data
                  : data == ref.substr(0, n) ? "ref"
                                             : "?") +
                 " ";
            at += n;
        }
        return s;
    }
};

std::string types(const std::vector<Rec>& r) {
    std::string out;
    for (const Rec& x : r) out += (out.empty() ? "" : " ") + std::to_string(x.h.recordType);
    return out;
}

// The callbacks' calls: type, probe, rc (the caller's word or none), items, first descriptor.
std::vector<std::string> g_callbacks;
int g_disables = 0;
const Uint32 kRc = 7;

void traceCallback(Uint32 type, Uint32 fid, Uint16 probe, const Uint32* rc, Uint32 n,
                   va_list* items) {
    char s[80];
    Uint32 kind = 0, length = 0;
    if (items && n > 0) kind = va_arg(*items, Uint32), length = va_arg(*items, Uint32);
    snprintf(s, sizeof s, "%u %u %s %u %s%u/%u", type, probe,
             rc == &kRc ? "rc"
             : rc       ? "?"
                        : "-",
             n, items ? "" : "-", kind, length);
    g_callbacks.push_back(fid == F ? s : "other function");
}
void disableCallback() {
    ++g_disables;
}

class Trace : public ::testing::Test {
protected:
    void SetUp() override {
        gtraceSetFixedData1(0xD1D1D1D1);
        gtraceSetFixedData2(0xD2D2D2D2);
    }
    void TearDown() override {
        gtraceDetach();
        free(mem_);
        if (shared_) munmap(cb_, gtraceGetAllocSize(cb_->options.bufferSize));
    }
    static GTCBOptions options(Uint32 modeBits, Uint32 flags = 0) {
        GTCBOptions o;
        o.bufferSize = kRing;
        o.modeBits = modeBits;
        o.flags = flags;
        return o;
    }
    // A block initialized, attached and enabled, in private memory or in a file mapping that
    // helper processes map too.
    void build(const GTCBOptions& o, bool shared = false) {
        const size_t size = gtraceGetAllocSize(o.bufferSize);
        free(mem_);
        mem_ = shared ? nullptr : static_cast<Uint8*>(aligned_alloc(64, (size + 63) & ~63ul));
        cb_ = reinterpret_cast<GTCB*>(mem_);
        if ((shared_ = shared)) {
            const int fd = open(area_.c_str(), O_RDWR | O_CREAT, 0600);
            EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
            cb_ =
                static_cast<GTCB*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
            close(fd);
        }
        memset(static_cast<void*>(cb_), 0x33, size);
        EXPECT_EQ(gtraceInitialize(cb_, &o), 0u);
        EXPECT_EQ(gtraceAttach(cb_, kPid, traceCallback, disableCallback), 0u);
        EXPECT_EQ(gtraceEnable(), 0u);
        g_callbacks.clear();
        g_disables = 0;
    }
    RamboCB* rambo() {
        return reinterpret_cast<RamboCB*>(reinterpret_cast<Uint8*>(cb_) + sizeof(GTCB));
    }
    GTCountEntry* table() { return reinterpret_cast<GTCountEntry*>(rambo()); }
    GTCountEntry* entry(Uint32 f) {
        for (Uint32 i = 0; i < kRing / 16; ++i)
            if (table()[i].functionID == f) return &table()[i];
        return nullptr;
    }
    int used() {
        return static_cast<int>(std::count_if(table(), table() + kRing / 16,
                                              [](const GTCountEntry& e) { return e.functionID; }));
    }
    Uint32 claimed() { return __atomic_load_n(&rambo()->nextSequence, __ATOMIC_ACQUIRE); }

    // The block's records from a dump; the trace is off while the file is read, or the reading
    // would leave records of its own.
    std::vector<Rec> records(bool forward = true) {
        zeptest::writeTraceDump(dir_ / "trace.dump");
        const Uint32 enabled = cb_->enabled;
        cb_->enabled = 0;
        std::vector<Rec> out;
        for (auto& bytes : zeptest::readTraceDump(dir_ / "trace.dump", forward, true))
            out.emplace_back(std::move(bytes));
        cb_->enabled = enabled;
        return out;
    }
    zeptest::TempDir dir_{"zepgtrace"};
    std::string area_ = dir_ / "area";
    bool shared_ = false;
    Uint8* mem_ = nullptr;
    GTCB* cb_ = nullptr;
};

// ---------------------------------------------------------------- control

TEST_F(Trace, AllocSizeAndInitializeInEveryMode) {
    EXPECT_EQ(gtraceGetAllocSize(0x80000), 0x80000u + 256 + 80 + 24 + 0x20000 + 182896);
    EXPECT_EQ(gtraceGetAllocSize(0x80001) + gtraceGetAllocSize(0x40000), 0u);
    const size_t size = gtraceGetAllocSize(kRing);
    auto raw = std::make_unique<Uint8[]>(size);
    GTCB* area = reinterpret_cast<GTCB*>(raw.get());
    GTCBOptions o = options(GTRACE_MODE_WRAP);
    const struct {
        GTCB* area;
        Uint32 size, mode, rc;
    } refusals[] = {
        {area, 0x7FFFF, 1, ECF_GTRACE_INVALID_BUFFER_SIZE},
        {nullptr, 0x40000001, 1, ECF_GTRACE_INVALID_BUFFER_SIZE},  // the size first
        {nullptr, kRing, 1, ECF_INVALID_PARAMETER},
        {area, kRing, 0x20, ECF_INVALID_PARAMETER},  // none of the store bits
        {area, 0x90000, 1,
         ECF_RAMBO_INVALID_BUFFER_SIZE},  // not a power of two: the ring's refusal
    };
    EXPECT_EQ(gtraceInitialize(area, nullptr), ECF_INVALID_PARAMETER);
    for (const auto& r : refusals) {
        o.bufferSize = r.size;
        o.modeBits = r.mode;
        memset(raw.get(), 0x77, sizeof(GTCB));
        EXPECT_EQ(gtraceInitialize(r.area, &o), r.rc) << r.size;
    }
    EXPECT_EQ(area->initialized | area->options.bufferSize, 0u);  // the refused block stays zero

    // Every mode: the block's words, the flag a mode implies, the ring's kind, in the order
    // counting, chunked, wrapping, stopping or delaying.
    const RamboCB* r = reinterpret_cast<const RamboCB*>(raw.get() + sizeof(GTCB));
    o.bufferSize = kRing;
    o.flags = GTRACE_FLAG_CALLBACK;
    o.stopCount = 7;
    const Uint32 kDelay = GTRACE_FLAG_DELAYING;
    const Uint32 modes[][5] = {{0x01, 1, 0, 0, 0},     {0x02, 0, 0, 0, 0}, {0x04, 1, 1, 1, 0},
                               {0x07, 1, 1, 1, 0},     {0x03, 1, 0, 0, 0}, {0x10, 0, 0, 0, kDelay},
                               {0x11, 1, 0, 0, kDelay}};
    for (const auto& m : modes) {
        o.modeBits = m[0];
        memset(raw.get(), 0x77, size);
        ASSERT_EQ(gtraceInitialize(area, &o), 0u);
        EXPECT_EQ(
            std::vector<Uint32>({area->initialized, area->enabled, area->eventCount, area->reserved,
                                 area->options.flags, area->options.stopCount, r->wraps, r->chunked,
                                 r->autoDump}),
            std::vector<Uint32>({1, 0, 1, 0, GTRACE_FLAG_CALLBACK | m[4], 7, m[1], m[2], m[3]}))
            << m[0];
    }
    // Counting comes first of all modes; its table may have any size in range.
    o.modeBits = GTRACE_MODE_COUNTING | GTRACE_MODE_WRAP;
    o.bufferSize = 0x80010;
    ASSERT_EQ(gtraceInitialize(area, &o), 0u);
    EXPECT_EQ(std::vector<Uint32>({area->initialized, area->eventCount, area->options.flags}),
              std::vector<Uint32>({1, 0, GTRACE_FLAG_CALLBACK | GTRACE_FLAG_COUNTING}));
}

TEST_F(Trace, OperationsNeedAnAttachedInitializedBlock) {
    GTCBOptions o;
    RamboDumpTail tail;
    RamboChunkWalker walker;
    GTCBOptions* ptr = nullptr;
    auto header = std::make_unique<GTDumpHeader>();
    auto all = [&](Uint32 rc) {
        for (Uint32 got : {gtraceEnable(), gtraceDisable(), gtraceGetOptions(&o),
                           gtraceGetOptionsPtr(&ptr), gtraceSetOptions(&o), gtraceClear(),
                           gtraceGetDumpHeaderBuffer(1, header.get(), nullptr, nullptr),
                           gtraceGetDumpTail(&tail), gtraceAutoDumpEnabled(1),
                           gtraceInitializeChunkWalker(&walker)})
            EXPECT_EQ(got, rc);
    };
    all(ECF_GTRACE_NOT_ATTACHED);
    EXPECT_EQ(gtraceAttach(nullptr, 1, nullptr, nullptr), ECF_INVALID_PARAMETER);
    auto zero = std::make_unique<Uint8[]>(sizeof(GTCB));
    ASSERT_EQ(gtraceAttach(reinterpret_cast<GTCB*>(zero.get()), 1, nullptr, nullptr), 0u);
    all(ECF_GTRACE_NOT_INITIALIZED);

    build(options(GTRACE_MODE_CHUNKED));
    EXPECT_EQ(gtraceGetOptions(nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(gtraceGetOptionsPtr(&ptr) + gtraceInitializeChunkWalker(&walker), 0u);
    EXPECT_TRUE(ptr == &cb_->options && walker.area == rambo());
    EXPECT_EQ(gtraceClear(), ECF_NOT_SUPPORTED);  // a chunked ring has no new sequence

    // Disable calls the callback each time, enable never; without a callback nothing is called.
    EXPECT_EQ(gtraceDisable() + gtraceDisable(), 0u);
    EXPECT_EQ(cb_->enabled, 0u);
    EXPECT_EQ(gtraceEnable(), 0u);
    EXPECT_EQ(cb_->enabled + g_disables, 3u);
    ASSERT_EQ(gtraceAttach(cb_, kPid, nullptr, nullptr), 0u);
    EXPECT_EQ(gtraceDisable() + gtraceEnable(), 0u);
    EXPECT_EQ(g_disables, 2);
    // Detached: the word keeps its value, and nothing reaches the block any more.
    EXPECT_EQ(gtraceDetach(), 0u);
    EXPECT_EQ(gtraceDisable(), ECF_GTRACE_NOT_ATTACHED);
    EXPECT_EQ(cb_->enabled, 1u);
}

TEST_F(Trace, OptionsThatCantChange) {
    GTCBOptions o = options(GTRACE_MODE_WRAP);
    o.dumpScanTrigger[0] = 5;
    build(o);
    GTCBOptions n = options(GTRACE_MODE_STOP, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME);
    n.bufferSize = 0x100000;
    n.dumpScanTrigger[1] = 9;
    n.reserved[1] = 0xABCD;
    ASSERT_EQ(gtraceSetOptions(&n), 0u);
    GTCBOptions got;
    ASSERT_EQ(gtraceGetOptions(&got), 0u);
    EXPECT_EQ(std::vector<Uint32>({got.bufferSize, got.modeBits, got.dumpScanTrigger[0],
                                   got.dumpScanTrigger[1], got.flags, got.reserved[1]}),
              std::vector<Uint32>({kRing, GTRACE_MODE_WRAP, 5, 0, n.flags, 0xABCD}));
    // Counting: the time flags are taken from the caller's structure, and bit 9 stays.
    build(options(GTRACE_MODE_COUNTING, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME));
    n.flags |= GTRACE_FLAG_CALLBACK;
    ASSERT_EQ(gtraceSetOptions(&n), 0u);
    EXPECT_EQ(n.flags, GTRACE_FLAG_CALLBACK);
    EXPECT_EQ(cb_->options.flags, GTRACE_FLAG_CALLBACK | GTRACE_FLAG_COUNTING);
    // Delaying: bit 11 stays.
    build(options(GTRACE_MODE_DELAYING));
    n.flags = 0;
    ASSERT_EQ(gtraceSetOptions(&n), 0u);
    EXPECT_EQ(cb_->options.flags, GTRACE_FLAG_DELAYING);

    // Built over different leftovers, two option objects are the same bytes: nothing of the
    // heap goes into shared memory or a dump.
    auto a = std::make_unique<Uint8[]>(sizeof(GTCBOptions));
    auto b = std::make_unique<Uint8[]>(sizeof(GTCBOptions));
    memset(a.get(), 0xAA, sizeof(GTCBOptions));
    new (a.get()) GTCBOptions;
    EXPECT_EQ(memcmp(a.get(), new (b.get()) GTCBOptions, sizeof(GTCBOptions)), 0);
}

// Trace points run while a control program changes the options: in counting and delaying mode
// none of them may take the ring path, not even during the copy. (In a child: the delay steps
// would use up the process's one seeded sequence.)
TEST_F(Trace, OptionsChangeUnderRunningTracePoints) {
    for (Uint32 mode : {GTRACE_MODE_COUNTING, GTRACE_MODE_DELAYING}) {
        if (const pid_t child = fork(); child != 0) {
            EXPECT_EQ(zeptest::waitExit(child), 0) << mode;
            continue;
        }
        GTCBOptions o = options(mode);
        o.stopReturnCode = 0xFFFFFFFFu;  // delaying: an interval never reached, no sleeps
        build(o);
        std::atomic<bool> stop{false};
        std::thread writer([&] {
            while (!stop) _gtraceEntry(T, F);
        });
        for (int i = 0; i < 1000; ++i) {
            gtraceSetOptions(&o);
            sched_yield();
        }
        stop = true;
        writer.join();
        // Counting: F's entry alone, nothing a ring's claim wrote; delaying: no claim at all.
        _exit(mode == GTRACE_MODE_COUNTING ? used() != 1 || !entry(F) : claimed() != 0);
    }
}

TEST_F(Trace, DumpHeaderPiecesAndClear) {
    build(options(GTRACE_MODE_WRAP));
    auto h = std::make_unique<GTDumpHeader>();
    Uint8* raw = reinterpret_cast<Uint8*>(h.get());
    void* store = nullptr;
    Uint32 size = 0;
    ASSERT_EQ(gtraceGetDumpHeaderBuffer(1, h.get(), &store, &size), 0u);
    EXPECT_EQ(std::string(h->eyeCatcher, 8), std::string("GTDUMP1\0", 8));
    EXPECT_EQ(memcmp(&h->options, &cb_->options, sizeof(GTCBOptions)), 0);
    ZEPTickConversionFactor factor;
    factor.initialize();
    EXPECT_EQ(memcmp(&h->tickFactor, &factor, sizeof factor), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(raw) + 182904, 8), std::string("@HEAD\r\n\0", 8));
    EXPECT_EQ(std::vector<Uint32>({h->rambo.bufferSize, h->rambo.dumpType, h->rambo.wraps, size}),
              std::vector<Uint32>({kRing, 1, 1, kRing}));
    EXPECT_EQ(store, reinterpret_cast<Uint8*>(rambo()) + rambo()->slotsOffset);
    EXPECT_EQ(gtraceAutoDumpEnabled(1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);
    // Clearing a wrapping ring moves it on by a lap: the old records drop out of the window.
    _gtraceEntry(T, F);
    EXPECT_EQ(gtraceClear(), 0u);
    EXPECT_EQ(records().size(), 0u);

    // Counting: the table and its size; the rambo header and the tail are left alone.
    build(options(GTRACE_MODE_COUNTING));
    memset(raw, 0xEE, sizeof(GTDumpHeader));
    ASSERT_EQ(gtraceGetDumpHeaderBuffer(1, h.get(), &store, &size), 0u);
    EXPECT_EQ(std::make_pair(store, size), std::make_pair(static_cast<void*>(table()), kRing));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(raw) + 182904, 16), std::string(16, '\xEE'));
    RamboDumpTail tail;
    memset(&tail, 0xEE, sizeof tail);
    EXPECT_EQ(gtraceGetDumpTail(&tail), 0u);
    EXPECT_EQ(*reinterpret_cast<Uint8*>(&tail), 0xEE);
    EXPECT_EQ(gtraceAutoDumpEnabled(1), ECF_RAMBO_NOT_INITIALIZED);
    _gtraceEntry(T, F);
    EXPECT_EQ(gtraceClear(), 0u);
    EXPECT_EQ(used(), 0);
}

// ---------------------------------------------------------------- records

TEST_F(Trace, RecordOfEachOperation) {
    build(options(GTRACE_MODE_WRAP));
    memset(reinterpret_cast<Uint8*>(rambo()) + rambo()->slotsOffset, 0xA5, kRing);
    const Uint32 rc = 0x90000011, v = 0xCAFEF00D;
    _gtraceEntry(T, F);
    _gtraceExit(T, F, &rc, 0xA1, 0xA2);
    _gtraceMarker(T, F, 77, 0x10009);
    _gtraceMarker(T, F, 78, 0x0000A);
    _gtraceError(T, F, 40, 5, 0xA1, 0xA2);
    _gtraceErrorRc(T, F, 41, 11, 0xA1, 0xA2, rc, 0xA3, 0xA4);
    _gtraceErrorTrans(T, F, 42, 0xA1, 0xA2, 0xA3, 0xA4);
    _gtraceEntryVar(T, F, 1, 0u, 4u, &v);
    _gtraceExitVar(T, F, &rc, 0xA1, 0xA2, 1, 0u, 4u, &v);
    _gtraceMarkerVar(T, F, 43, 0x10006, 1, 0u, 4u, &v);
    _gtraceVar(T, F, 44, 3, 0);
    _gtraceVar(T, F, 45, 3, 1, 0u, 4u, &v);
    _gtraceErrorVar(T, F, 46, 4, 0xA1, 0xA2, 1, 0u, 4u, &v);
    _gtraceErrorRcVar(T, F, 47, 5, 0xA1, 0xA2, rc, 0xA3, 0xA4, 1, 0u, 4u, &v);
    _gtraceCorrelatorVar(T, F, 48, 0x1234u, 0xA1, 0xA2, 1, 0u, 4u, &v);
    // One slot for the five plain ones (52 bytes), two for the rest (56 + 12 bytes fit 116).
    EXPECT_EQ(claimed(), 5u * 1 + 10 * 2);

    // D: the field was left alone, and holds what the slot held. The item's descriptor and
    // bytes follow the fixed part, or the two more words of _gtraceErrorRcVar.
    const Uint32 want[][13] = {
        // size, type, flags, dataLength, probe, word1, word2, rc, itemCount, at 56, 60, 64, 72
        {52, 1, 0, 0, D, D, D, D, D, D, D, D, D},                  // _gtraceEntry
        {52, 2, 0, 0, D, 0xA1, 0xA2, rc, D, D, D, D, D},           // _gtraceExit
        {52, 9, 2, 0, 77, D, D, D, D, D, D, D, D},                 // _gtraceMarker, bit 16
        {52, 10, 0, 0, 78, D, D, D, D, D, D, D, D},                // _gtraceMarker
        {52, 5, 0, 0, 40, 0xA1, 0xA2, D, D, D, D, D, D},           // _gtraceError
        {116, 11, 0, 0, 41, 0xA1, 0xA2, rc, D, 0xA3, 0xA4, D, D},  // _gtraceErrorRc
        {116, 13, 0, 0, 42, 0xA1, 0xA2, D, D, 0xA3, 0xA4, D, D},   // _gtraceErrorTrans
        {116, 1, 0, 12, 0, D, D, D, 1, 0, 4, v, D},                // _gtraceEntryVar
        {116, 2, 0, 12, 0, 0xA1, 0xA2, rc, 1, 0, 4, v, D},         // _gtraceExitVar
        {116, 6, 2, 12, 43, D, D, D, 1, 0, 4, v, D},               // _gtraceMarkerVar
        {116, 3, 0, 0, 44, D, D, D, 0, D, D, D, D},                // _gtraceVar, no items
        {116, 3, 0, 12, 45, D, D, D, 1, 0, 4, v, D},               // _gtraceVar
        {116, 4, 0, 12, 46, 0xA1, 0xA2, D, 1, 0, 4, v, D},         // _gtraceErrorVar
        {116, 5, 0, 12, 47, 0xA1, 0xA2, rc, 1, 0xA3, 0xA4, 0, v},  // _gtraceErrorRcVar
        {116, 12, 0, 12, 48, 0xA1, 0xA2, 0x1234, 1, 0, 4, v, D},   // _gtraceCorrelatorVar
    };
    auto r = records();
    ASSERT_EQ(r.size(), std::size(want));
    for (size_t i = 0; i < r.size(); ++i) {
        const GTRecord& h = r[i].h;
        EXPECT_EQ(std::vector<Uint32>({static_cast<Uint32>(r[i].bytes.size()), h.recordType,
                                       h.recordFlags, h.dataLength, h.probe == 0xA5A5 ? D : h.probe,
                                       h.word1, h.word2, h.returnCode, h.itemCount, r[i].word(56),
                                       r[i].word(60), r[i].word(64), r[i].word(72)}),
                  std::vector<Uint32>(want[i], want[i] + 13))
            << i;
        EXPECT_EQ(std::vector<Uint64>(
                      {h.time, h.threadID, h.processID, h.functionID, h.fixedData1, h.fixedData2}),
                  std::vector<Uint64>({0, T, kPid, F, 0xD1D1D1D1, 0xD2D2D2D2}));
    }
}

TEST_F(Trace, ItemsCutNullAndByValue) {
    build(options(GTRACE_MODE_WRAP));
    const char data[] = "abcdef";
    std::string big(30000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
    const char* b = big.data();
    // A zero-length item with and without an address; a null address with a length; values.
    _gtraceVar(T, F, 10, 3, 5, 0u, 0u, nullptr, 0u, 0u, data, 0u, 5u, nullptr,
               static_cast<Uint32>(GTRACE_ITEM_VALUE1), 2u, static_cast<uintptr_t>(0x4241), 7u, 3u,
               data);
    // Three items of 30,000 bytes: the third is cut to what is left of 0xFFFF, and marked; then
    // a fourth that doesn't fit at all, after a full third.
    _gtraceVar(T, F, 10, 3, 3, 0u, 30000u, b, 0u, 30000u, b, 0u, 30000u, b);
    _gtraceVar(T, F, 11, 3, 4, 0u, 30000u, b, 0u, 30000u, b, 0u, 5511u, b, 0u, 1u, b);
    // A value passed directly and cut short is marked cut, and its word is still no address.
    _gtraceVar(T, F, 12, 3, 1, static_cast<Uint32>(GTRACE_ITEM_VALUE1), 70000u,
               static_cast<uintptr_t>(0x4241));
    auto r = records();
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0].h.dataLength, 8 + 8 + (8 + 5) + (8 + 2) + (8 + 3));
    EXPECT_EQ(r[0].items(), "0:0: 0:0: 0:4294967295: 1:2:AB 7:3:abc ");
    EXPECT_EQ(r[1].items(big), "0:30000:ref 0:30000:ref 4:5511:ref ");
    EXPECT_EQ(r[2].items(big), "0:30000:ref 0:30000:ref 0:5511:ref ");  // fitted exactly
    EXPECT_EQ(r[3].items("AB" + std::string(0xFFFF, '\0')), "4:65527:ref ");
    EXPECT_EQ(std::make_pair(r[1].bytes.size(), r[1].h.dataLength),
              std::make_pair(1026ul * 64 - 12, Uint16{0xFFFF}));
}

// The filters in the order a trace point asks them: errors only, the compact mask if on, else the
// full mask.
TEST_F(Trace, ErrorsOnlyAndTheMasks) {
    GTCBOptions o = options(GTRACE_MODE_WRAP, GTRACE_FLAG_FULL_MASK);
    const Uint32 f = ZEP_FUNC_INDEX(F), bad = 1, ok = 0;
    // Full mask: the rename's entries and exits, and its probe 30 only.
    o.traceMask.gtmSetMask(1, 3, f, GTRACE_TYPE_ENTRY, 0, 0);
    o.traceMask.gtmSetMask(1, 3, f, GTRACE_TYPE_EXIT, 0, 0);
    o.traceMask.gtmSetMask(1, 3, f, 30, GTM_FLAG_PROBE, 0);
    build(o);
    auto points = [&](Uint32 flags) {
        o.flags = flags;
        EXPECT_EQ(gtraceSetOptions(&o), 0u);
        _gtraceEntry(T, F);
        _gtraceVar(T, F, 10, 3, 0);
        _gtraceErrorVar(T, F, 30, 4, 0, 0, 0);
        _gtraceExit(T, F, &bad, 0, 0);
        _gtraceExit(T, F, &ok, 0, 0);
        _gtraceErrorTrans(T, F, 2, 0, 0, 0, 0);
        _gtraceMarker(T, F, 1, 12);
        _gtraceEntry(T, ZEPFN_zepFileDelete);
        auto r = records();
        gtraceClear();
        return types(r) + (r.empty() || r[0].h.time == 0 ? "" : " stamped");
    };
    EXPECT_EQ(points(GTRACE_FLAG_FULL_MASK), "1 4 2 2");
    // The compact mask passes type 3 and 13 (probes are forgotten, their types kept) and still
    // rejects the function outside it; a class bit missing rejects everything.
    o.traceMask.gtmReplicateMask(&o.mask);
    EXPECT_EQ(points(GTRACE_FLAG_FULL_MASK | GTRACE_FLAG_COMPACT_MASK), "1 3 4 2 2 13");
    o.mask.classes[0] = 0;
    EXPECT_EQ(points(GTRACE_FLAG_COMPACT_MASK), "");
    EXPECT_EQ(points(GTRACE_FLAG_ERRORS_ONLY | GTRACE_FLAG_TIMESTAMP), "4 2 13 stamped");
}

TEST_F(Trace, ProcessAndThreadFilters) {
    GTCBOptions o = options(GTRACE_MODE_WRAP, GTRACE_FLAG_FILTERS);
    build(o);
    _gtraceEntry(T, F);  // no entries: nothing passes
    EXPECT_EQ(claimed(), 0u);
    o.filterCount = 3;
    o.filters[0] = GTFilter{GTRACE_FILTER_THREAD, kPid, 0};  // not in use
    o.filters[1] = GTFilter{GTRACE_FILTER_IN_USE, kPid + 1, 0};
    o.filters[2] = GTFilter{GTRACE_FILTER_IN_USE | GTRACE_FILTER_THREAD, kPid, T};
    ASSERT_EQ(gtraceSetOptions(&o), 0u);
    const std::pair<Uint32, Uint64> points[] = {
        {kPid, T}, {kPid, T + 1}, {kPid + 1, T + 1}, {kPid + 2, T}};
    for (Uint32 i = 0; i < 4; ++i) {
        gtraceSetProcessID(points[i].first);
        _gtraceEntry(points[i].second, F + i);
    }
    gtraceSetProcessID(kPid);
    auto r = records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(std::make_tuple(r[0].h.functionID, r[1].h.functionID, r[1].h.processID),
              std::make_tuple(F, F + 2, kPid + 1));

    // A count beyond the entries, as a damaged block may hold: only the five entries are asked,
    // not the bytes behind them (which would match this point).
    cb_->options.filterCount = 0xFFFFFFFFu;
    memset(static_cast<void*>(cb_->options.filters), 0, sizeof cb_->options.filters);
    const GTFilter match{GTRACE_FILTER_IN_USE, kPid, 0};
    memcpy(static_cast<void*>(&cb_->options.mask), &match, sizeof match);
    const Uint32 before = claimed();
    _gtraceEntry(T, F);
    EXPECT_EQ(claimed(), before);
}

TEST_F(Trace, StopEvents) {
    const Uint32 stop = ECF_FILE_DOESNT_EXIST, other = 1;
    // The event count starts at 1: a stop count of 0 stops at the first event, 3 at the third.
    for (Uint32 stopCount : {0u, 3u}) {
        GTCBOptions o = options(GTRACE_MODE_WRAP, GTRACE_FLAG_STOP_COUNT | GTRACE_FLAG_STOP_ON_RC);
        o.stopCount = stopCount;
        o.stopReturnCode = stop;
        build(o);
        Uint32 events = 0;
        for (; cb_->enabled && events < 5; ++events) {
            _gtraceExit(T, F, &other, 0, 0);
            _gtraceExit(T, F, &stop, 0, 0);
        }
        EXPECT_EQ(std::make_tuple(events, cb_->eventCount, g_disables, records().size()),
                  std::make_tuple(std::max(stopCount, 1u), events + 1, 1, 2ul * events));
    }
    // Without flag 6 no exit stops the trace; type 5 by the error operations does with it.
    build(options(GTRACE_MODE_WRAP, GTRACE_FLAG_STOP_ON_RC));
    cb_->options.stopReturnCode = stop;
    for (int i = 0; i < 5; ++i) _gtraceExit(T, F, &stop, 0, 0);
    EXPECT_EQ(std::make_pair(cb_->enabled, cb_->eventCount), std::make_pair(1u, 1u));
    build(options(GTRACE_MODE_WRAP, GTRACE_FLAG_STOP_COUNT));
    cb_->options.stopCount = 2;
    _gtraceExit(T, F, &stop, 0, 0);  // flag 7 is off: exits don't count
    _gtraceVar(T, F, 1, 5, 0);       // type 5, but not by an error operation
    _gtraceError(T, F, 1, 4, 0, 0);
    _gtraceError(T, F, 1, 5, 0, 0);
    EXPECT_EQ(std::make_pair(cb_->enabled, cb_->eventCount), std::make_pair(1u, 2u));
    _gtraceErrorVar(T, F, 1, 5, 0, 0, 0);
    EXPECT_EQ(std::make_pair(cb_->enabled, cb_->eventCount), std::make_pair(0u, 3u));

    // A full stopping ring disables the trace with the claim that goes into the overflow area.
    build(options(GTRACE_MODE_STOP));
    const Uint32 slots = kRing / 64;
    for (Uint32 i = 0; i < slots; ++i) _gtraceEntry(T, i);
    EXPECT_EQ(std::make_pair(cb_->enabled, g_disables), std::make_pair(1u, 0));
    _gtraceEntry(T, slots);
    EXPECT_EQ(std::make_pair(cb_->enabled, g_disables), std::make_pair(0u, 1));
    auto r = records();
    ASSERT_EQ(r.size(), slots);
    EXPECT_EQ(r.back().h.functionID, slots - 1);
}

TEST_F(Trace, CallbackArguments) {
    build(options(GTRACE_MODE_WRAP, GTRACE_FLAG_CALLBACK));
    const Uint32 v = 9;
    _gtraceEntry(T, F);
    _gtraceEntryVar(T, F, 2, 0u, 4u, &v, 0u, 0u, nullptr);
    _gtraceExitVar(T, F, &kRc, 1, 2, 1, 1u, 3u, uintptr_t{5});
    _gtraceErrorRc(T, F, 18, 11, 0, 0, kRc, 0, 0);
    // A filtered point calls nothing; a cut record reports the items kept.
    cb_->options.flags |= GTRACE_FLAG_ERRORS_ONLY;
    _gtraceEntry(T, F);
    std::vector<char> big(0x10000);
    const char* b = big.data();
    _gtraceErrorVar(T, F, 1, 4, 0, 0, 3, 0u, 0x10000u, b, 0u, 1u, b, 0u, 1u, b);
    EXPECT_EQ(g_callbacks, (std::vector<std::string>{"1 0 - 0 -0/0", "1 0 - 2 0/4", "2 0 rc 1 1/3",
                                                     "11 18 - 0 -0/0", "4 1 - 1 0/65536"}));
}

// ---------------------------------------------------------------- counting and delaying

void recurse(Uint32 f, int n) {
    _gtraceEntry(T, f);
    if (n > 0) recurse(f, n - 1);
    const Uint32 rc = 0;
    _gtraceExit(T, f, &rc, 0, 0);
}

TEST_F(Trace, CountingMode) {
    GTCBOptions o = options(GTRACE_MODE_COUNTING);
    build(o);
    const Uint32 G = ZEPFN_zepFileDelete, H = ZEPFN_zepFileCopy, rc = 0;
    for (int i = 0; i < 3; ++i) recurse(F, 4);  // 15 entries
    _gtraceEntryVar(T, G, 1, 0u, 4u, &o);
    // Nothing else acts in counting mode.
    _gtraceVar(T, F, 10, 3, 0);
    _gtraceMarker(T, F, 10, 3);
    EXPECT_EQ(used(), 2);
    EXPECT_EQ(
        std::make_tuple(entry(F)->count, entry(G)->count, entry(F)->totalTime, cb_->eventCount),
        std::make_tuple(15u, 1u, 0ul, 0u));
    // A table with no room: every entry is a miss, counted in eventCount.
    for (Uint32 i = 0; i < kRing / 16; ++i) table()[i].functionID = 0xFFFFFFFF;
    recurse(F, 2);
    EXPECT_EQ(cb_->eventCount, 3u);

    // With time: a recursive function is charged for all its frames at its first exit, and not
    // again at its second.
    build(options(GTRACE_MODE_COUNTING, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME));
    _gtraceEntry(T, F);
    _gtraceEntry(T, F);
    usleep(2000);
    _gtraceExit(T, F, &rc, 0, 0);
    const Uint64 once = entry(F)->totalTime;
    _gtraceExit(T, F, &rc, 0, 0);
    EXPECT_GE(once, 2 * 2000000u);  // two frames of at least 2 ms each
    EXPECT_EQ(entry(F)->totalTime, once);
    // F, then 511 frames of G fill the stack; H at level 513 gets no frame, and neither does F
    // at 514. Their exits: H finds nothing; F charges its frame at level 1 and cuts the stack.
    gtraceClear();
    _gtraceEntry(T, F);
    for (int i = 0; i < 511; ++i) _gtraceEntry(T, G);
    _gtraceEntry(T, H);
    _gtraceEntry(T, F);
    _gtraceExit(T, F, &rc, 0, 0);
    _gtraceExit(T, H, &rc, 0, 0);
    for (int i = 0; i < 511; ++i) _gtraceExit(T, G, &rc, 0, 0);
    EXPECT_EQ(std::make_tuple(entry(F)->count, entry(G)->count, entry(H)->count,
                              entry(G)->totalTime + entry(H)->totalTime, entry(F)->totalTime > 0),
              std::make_tuple(2u, 511u, 1u, 0ul, true));
}

TEST_F(Trace, DelayingMode) {
    GTCBOptions o = options(GTRACE_MODE_DELAYING);
    o.stopReturnCode = 1;  // the interval: every trace point sleeps (0 to 200 ms)
    build(o);
    for (int i = 0; i < 5; ++i) _gtraceEntry(T, F);
    EXPECT_EQ(claimed(), 0u);  // no records at all behind a delaying trace
}

// ---------------------------------------------------------------- processes

// Two threads here and a helper process write one stopping ring at once: every record arrives,
// each writer's in its own order, each with its process's identity.
TEST_F(Trace, ThreadsAndProcessesConcurrently) {
    const Uint32 each = 1500 * zeptestStress();
    GTCBOptions o = options(GTRACE_MODE_STOP);
    while (o.bufferSize < 3 * each * 2 * RAMBO_SLOT_SIZE) o.bufferSize *= 2;
    build(o, true);
    const pid_t child =
        zeptest::spawnHelper("helper_gtrace", {area_, "2", "records", std::to_string(each)});
    std::vector<std::thread> threads;
    for (Uint64 t : {0, 1})
        threads.emplace_back([t, each] {
            for (Uint32 i = 0; i < each; ++i) {
                if (i % 3 == 0)
                    _gtraceVar(t, F, 10, 3, 1, 0u, 4u, &i);
                else
                    _gtraceEntry(t, i);
            }
        });
    for (auto& th : threads) th.join();
    ASSERT_EQ(zeptest::waitExit(child), 0);

    auto r = records();
    ASSERT_EQ(r.size(), 3u * each);
    Uint32 next[3] = {0, 0, 0};
    for (const Rec& x : r) {
        const Uint64 who = x.h.processID == 2 ? 2 : x.h.threadID;
        ASSERT_LT(who, 3u);
        // The fixed data are the writing process's own: the helper never set them.
        ASSERT_EQ(x.h.fixedData1, who == 2 ? 0xFFFFFFFFu : 0xD1D1D1D1u);
        const Uint32 i = x.h.recordType == 3 ? x.word(64) : x.h.functionID;
        ASSERT_EQ(i, next[who]) << who;
        next[who] = i + 1;
    }
}

}  // namespace
