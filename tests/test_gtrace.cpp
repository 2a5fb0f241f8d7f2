// Tests of the trace: the control block, the record of each emission operation, filters, stop
// events, callbacks, counting and delaying modes, threads and processes writing one block, and
// dumps read back: validation, both walkers, the tools' formatter and trace-event export (the
// export read back with tests/tools/check_chrome_trace.py, as a viewer reads it). Records are
// read back as a tool reads them: from a dump file, with the parser.
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <thread>

#include "trace_export.h"
#include "trace_format.h"
#include "zeptest_stress.h"
#include "zeptest_trace.h"

namespace {

constexpr Uint32 kRing = 0x80000, kPid = 4242, D = 0xA5A5A5A5u;
constexpr Uint32 F = ZEPFN_zepFileRename, G = ZEPFN_zepFileDelete;
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
};

// A record's items as "kind:length:bytes ", by the tools' reading; bytes of 8 or more as "ref"
// if they begin `ref`.
std::string items(const Rec& r, const std::string& ref = "") {
    std::string s;
    for (const auto& it : zeptrace::recordItems(r.bytes.data(), Uint32(r.bytes.size()))) {
        const std::string data(reinterpret_cast<const char*>(it.data), it.data ? it.length : 0);
        s += std::to_string(it.kind) + ":" + std::to_string(it.length) + ":" +
             (data.size() < 8                      ? data
              : data == ref.substr(0, data.size()) ? "ref"
                                                   : "?") +
             " ";
    }
    return s;
}

// One field of each record, in walk order.
template <typename Field>
std::string list(const std::vector<Rec>& r, Field GTRecord::*field) {
    std::string out;
    for (const Rec& x : r) {
        if (!out.empty()) out += ' ';
        out += std::to_string(x.h.*field);
    }
    return out;
}

// The callbacks' calls: type, probe, rc (the caller's word or none), items, first descriptor.
std::vector<std::string> g_callbacks;
int g_disables = 0;
const Uint32 kRc = 7;

void traceCallback(Uint32 type, Uint32, Uint16 probe, const Uint32* rc, Uint32 n, va_list* items) {
    Uint32 kind = 0, length = 0;
    if (items && n > 0) kind = va_arg(*items, Uint32), length = va_arg(*items, Uint32);
    const char* rcs = rc == &kRc ? "rc" : rc ? "?" : "-";
    g_callbacks.push_back(zeptrace::format("%u %u %s %u %s%u/%u", type, probe, rcs, n,
                                           items ? "" : "-", kind, length));
}
void disableCallback() {
    ++g_disables;
}

class Trace : public ::testing::Test {
protected:
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
        gtraceSetFixedData1(0xD1D1D1D1);
        gtraceSetFixedData2(0xD2D2D2D2);
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
        {area, kRing, 0x20, ECF_INVALID_PARAMETER},         // none of the store bits
        {area, 0x90000, 1, ECF_RAMBO_INVALID_BUFFER_SIZE},  // the ring's: no power of two
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
        EXPECT_EQ(std::vector<Uint32>({area->options.flags, r->wraps, r->chunked, r->autoDump}),
                  std::vector<Uint32>({GTRACE_FLAG_CALLBACK | m[4], m[1], m[2], m[3]}))
            << m[0];
    }
    EXPECT_EQ(std::vector<Uint32>({area->initialized, area->enabled, area->eventCount,
                                   area->reserved, area->options.stopCount}),
              std::vector<Uint32>({1, 0, 1, 0, 7}));
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

    // Disable calls the callback each time, enable never.
    EXPECT_EQ(gtraceDisable() + gtraceDisable(), 0u);
    EXPECT_EQ(cb_->enabled, 0u);
    EXPECT_EQ(gtraceEnable(), 0u);
    EXPECT_EQ(cb_->enabled + g_disables, 3u);
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

TEST_F(Trace, ItemsAndTheCallback) {
    build(options(GTRACE_MODE_WRAP, GTRACE_FLAG_CALLBACK));
    const char data[] = "abcdef";
    std::string big(30000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
    const char* b = big.data();
    // A zero-length item with and without an address; a null address with a length; values.
    _gtraceVar(T, F, 10, 3, 5, 0u, 0u, nullptr, 0u, 0u, data, 0u, 5u, nullptr,
               static_cast<Uint32>(GTRACE_ITEM_VALUE1), 2u, static_cast<uintptr_t>(0x4241), 7u, 3u,
               data);
    // Three items of 30,000 bytes: the third is cut to what is left of 0xFFFF, and marked.
    _gtraceVar(T, F, 10, 3, 3, 0u, 30000u, b, 0u, 30000u, b, 0u, 30000u, b);
    // A value passed directly and cut short is marked cut, and its word is still no address.
    _gtraceVar(T, F, 12, 3, 1, static_cast<Uint32>(GTRACE_ITEM_VALUE1), 70000u,
               static_cast<uintptr_t>(0x4241));
    // The callback after each record: type, probe, the caller's rc word, the items kept and the
    // first descriptor, no list without items; a filtered point calls nothing.
    _gtraceEntry(T, F);
    _gtraceExitVar(T, F, &kRc, 1, 2, 1, 1u, 3u, uintptr_t{5});
    cb_->options.flags |= GTRACE_FLAG_ERRORS_ONLY;
    _gtraceEntry(T, F);
    EXPECT_EQ(g_callbacks,
              (std::vector<std::string>{"3 10 - 5 0/0", "3 10 - 3 0/30000", "3 12 - 1 1/70000",
                                        "1 0 - 0 -0/0", "2 0 rc 1 1/3"}));
    auto r = records();
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[0].h.dataLength, 8 + 8 + (8 + 5) + (8 + 2) + (8 + 3));
    EXPECT_EQ(items(r[0]), "0:0: 0:0: 0:4294967295: 1:2:AB 7:3:abc ");
    EXPECT_EQ(items(r[1], big), "0:30000:ref 0:30000:ref 4:5511:ref ");
    EXPECT_EQ(items(r[2], "AB" + std::string(0xFFFF, '\0')), "4:65527:ref ");
    EXPECT_EQ(std::make_pair(r[1].bytes.size(), r[1].h.dataLength),
              std::make_pair(1026ul * 64 - 12, Uint16{0xFFFF}));
}

// The filters: errors only, the process and thread filters, the compact mask if on, else the
// full mask.
TEST_F(Trace, Filters) {
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
        return list(r, &GTRecord::recordType) + (r.empty() || !r[0].h.time ? "" : " stamped");
    };
    EXPECT_EQ(points(GTRACE_FLAG_FULL_MASK), "1 4 2 2");
    // The compact mask passes type 3 and 13 (probes are forgotten, their types kept) and still
    // rejects the function outside it; a class bit missing rejects everything.
    o.traceMask.gtmReplicateMask(&o.mask);
    EXPECT_EQ(points(GTRACE_FLAG_FULL_MASK | GTRACE_FLAG_COMPACT_MASK), "1 3 4 2 2 13");
    o.mask.classes[0] = 0;
    EXPECT_EQ(points(GTRACE_FLAG_COMPACT_MASK), "");
    EXPECT_EQ(points(GTRACE_FLAG_ERRORS_ONLY | GTRACE_FLAG_TIMESTAMP), "4 2 13 stamped");
    // Filter entries: one not in use, another process, another thread; then this process too.
    o.filterCount = 3;
    o.filters[0] = GTFilter{GTRACE_FILTER_THREAD, kPid, 0};
    o.filters[1] = GTFilter{GTRACE_FILTER_IN_USE, kPid + 1, 0};
    o.filters[2] = GTFilter{GTRACE_FILTER_IN_USE | GTRACE_FILTER_THREAD, kPid, T + 1};
    EXPECT_EQ(points(GTRACE_FLAG_FILTERS), "");
    o.filters[1].processID = kPid;
    EXPECT_EQ(points(GTRACE_FLAG_FILTERS), "1 3 4 2 2 13 12 1");
    // A count beyond the entries, as a damaged block may hold, reads no further: the bytes
    // behind them would match.
    const GTFilter match = o.filters[1];
    o.filterCount = 0xFFFFFFFFu;
    memset(static_cast<void*>(o.filters), 0, sizeof o.filters);
    memcpy(static_cast<void*>(&o.mask), &match, sizeof match);
    EXPECT_EQ(points(GTRACE_FLAG_FILTERS), "");
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
    // Without flag 7 an exit is no stop event; type 5 by the error operations is, not by
    // _gtraceVar, nor type 4.
    build(options(GTRACE_MODE_WRAP, GTRACE_FLAG_STOP_COUNT));
    cb_->options.stopCount = 2;
    cb_->options.stopReturnCode = stop;
    _gtraceExit(T, F, &stop, 0, 0);
    _gtraceVar(T, F, 1, 5, 0);
    _gtraceError(T, F, 1, 4, 0, 0);
    _gtraceError(T, F, 1, 5, 0, 0);
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

// ---------------------------------------------------------------- counting and delaying

TEST_F(Trace, CountingMode) {
    GTCBOptions o = options(GTRACE_MODE_COUNTING);
    build(o);
    const Uint32 rc = 0;
    for (int i = 0; i < 15; ++i) _gtraceEntry(T, F);
    _gtraceEntryVar(T, G, 1, 0u, 4u, &o);
    // Nothing else acts in counting mode.
    _gtraceExit(T, F, &rc, 0, 0);
    _gtraceVar(T, F, 10, 3, 0);
    _gtraceMarker(T, F, 10, 3);
    EXPECT_EQ(used(), 2);
    EXPECT_EQ(
        std::make_tuple(entry(F)->count, entry(G)->count, entry(F)->totalTime, cb_->eventCount),
        std::make_tuple(15u, 1u, 0ul, 0u));
    // A table with no room: every entry is a miss, counted in eventCount.
    for (Uint32 i = 0; i < kRing / 16; ++i) table()[i].functionID = 0xFFFFFFFF;
    _gtraceEntry(T, F);
    _gtraceEntry(T, G);
    EXPECT_EQ(cb_->eventCount, 2u);

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
    // F, then 511 frames of G fill the stack; G at level 513 gets no frame, and its exit charges
    // the frame below it.
    gtraceClear();
    _gtraceEntry(T, F);
    for (int i = 0; i < 512; ++i) _gtraceEntry(T, G);
    for (int i = 0; i < 512; ++i) _gtraceExit(T, G, &rc, 0, 0);
    EXPECT_EQ(std::make_tuple(entry(F)->count, entry(F)->totalTime, entry(G)->count),
              std::make_tuple(1u, 0ul, 512u));
}

TEST_F(Trace, DelayingMode) {
    GTCBOptions o = options(GTRACE_MODE_DELAYING);
    o.stopReturnCode = 1;  // the interval: every trace point sleeps (0 to 200 ms)
    build(o);
    for (int i = 0; i < 5; ++i) _gtraceEntry(T, F);
    EXPECT_EQ(claimed(), 0u);  // no records at all behind a delaying trace
}

// Trace points read the flags word at any moment: while the options change under them, a
// counting or delaying block must never let one through to the ring path.
TEST_F(Trace, OptionsChangeUnderRunningTracePoints) {
    for (Uint32 mode : {GTRACE_MODE_COUNTING, GTRACE_MODE_DELAYING}) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            GTCBOptions o = options(mode);
            o.stopReturnCode = 0xFFFFFFFFu;  // delaying: an interval never reached, no sleeps
            build(o);
            std::atomic<bool> stop{false};
            std::thread writer([&] {
                while (!stop.load(std::memory_order_relaxed)) _gtraceEntry(T, F);
            });
            for (int i = 0; i < 1000; ++i) {
                gtraceSetOptions(&o);
                sched_yield();
            }
            stop = true;
            writer.join();
            const bool stray = mode == GTRACE_MODE_COUNTING ? used() != 1 : claimed() != 0;
            _exit(g_disables != 0 ? 1 : cb_->enabled != 1 ? 2 : stray ? 3 : 0);
        }
        EXPECT_EQ(zeptest::waitExit(child), 0) << mode;
    }
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
            for (Uint32 i = 0; i < each; ++i)
                i % 3 ? _gtraceEntry(t, i) : _gtraceVar(t, F, 10, 3, 1, 0u, 4u, &i);
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

// ---------------------------------------------------------------- dumps read back

class Dump : public Trace {
protected:
    void write(size_t lead = 0, size_t cut = 0) {
        gtraceDisable();
        zeptest::writeTraceDump(path_, lead, cut);
        gtraceEnable();
    }
    void put(const std::string& bytes) { std::ofstream(path_, std::ios::binary) << bytes; }
    // Validation of the file from `at`: its code, and where the file stands afterwards.
    std::pair<Uint32, Uint64> validate(Uint32 kind, Uint64 at = 0) {
        ZEPHFile file;
        zeptest::openToRead(file, path_);
        ZEPFileSeekParam s;
        s.offset = static_cast<Sint64>(at);
        EXPECT_EQ(file.seek(&s), 0u);
        const Uint32 rc = gtraceValidateDumpFile(&file, kind);
        s.origin = ZEP_FILE_SEEK_CURRENT;
        s.offset = 0;
        EXPECT_EQ(file.seek(&s, &at), 0u);
        return {rc, at};
    }
    std::string path_ = dir_ / "t.dump";
};

TEST_F(Dump, ValidationAndDirection) {
    build(options(GTRACE_MODE_WRAP));
    for (Uint32 i = 1; i <= 3; ++i) _gtraceEntry(T, i);
    EXPECT_EQ(list(records(false), &GTRecord::functionID), "3 2 1");  // backward: newest first
    write(100);
    // Any kind or the ring kind goes on to the ring's checks; the position stays.
    using V = std::pair<Uint32, Uint64>;
    EXPECT_EQ(validate(0, 100), V(0, 100));
    EXPECT_EQ(validate(GTRACE_DUMP_KIND_COUNTING, 100), V(ECF_INVALID_PARAMETER, 100));
    EXPECT_EQ(gtraceValidateDumpFile(nullptr, 0), ECF_INVALID_PARAMETER);
    // The ring's own checks: an instantaneous dump without its whole tail.
    write(0, 1);
    EXPECT_EQ(validate(0), V(ECF_RAMBO_INSTANT_DUMP_TRUNCATED, 0));
    // The trace header: one byte short, a wrong eye-catcher.
    std::string bytes(GTRACE_DUMP_TRACE_HEADER_SIZE - 1, '\0');
    memcpy(bytes.data(), "GTDUMP1", 8);
    put(bytes);
    EXPECT_EQ(validate(0).first, ECF_GTRACE_DUMP_HEADER_TRUNCATED);
    bytes.append(100, '\0');
    bytes[6] = '2';
    put(bytes);
    EXPECT_EQ(validate(0), V(ECF_GTRACE_INVALID_DUMP_EYE_CATCHER, 0));
    EXPECT_EQ(gtraceCloseDumpFileParser(nullptr), ECF_INVALID_PARAMETER);
}

TEST_F(Dump, CountingDumps) {
    // A counting trace's dump: its table instead of the ring's pieces, and an entry in use
    // behind it that isn't read as table. The walker delivers the used entries only, forward
    // whatever the direction; the formatter shows a line each.
    build(options(GTRACE_MODE_COUNTING));
    _gtraceEntry(T, F);
    _gtraceEntry(T, F);
    EXPECT_EQ(gtraceAutoDumpEnabled(1), ECF_RAMBO_NOT_INITIALIZED);
    write();
    const GTCountEntry behind = {7, G, 70};
    put(zeptest::slurp(path_) + std::string(reinterpret_cast<const char*>(&behind), 16));
    std::string text;
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Records, true, &text), 0u);
    EXPECT_EQ(text, "         2  0.000000000  0x081A0016 VRN Common, ZEPe, zepFileRename\n");
    EXPECT_EQ(zeptest::readTraceDump(path_, false, false).size(), 1u);
    // Without a buffer, or with a size but no buffer, the size still comes.
    ZEPHFile file;
    zeptest::openToRead(file, path_);
    GTDumpParser p;
    ASSERT_EQ(gtraceOpenDumpFileParser(&file, &p, 1), 0u);
    EXPECT_EQ(gtraceParseRecords(&file, &p, nullptr, nullptr, 16), 16u);
    EXPECT_EQ(gtraceParseRecords(&file, &p, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(gtraceCloseDumpFileParser(&p), 0u);
    EXPECT_EQ(gtraceClear(), 0u);
    EXPECT_EQ(used(), 0);
}

TEST_F(Dump, FormatterViews) {
    build(options(GTRACE_MODE_WRAP));
    const Uint32 rc = ECF_FILE_DOESNT_EXIST;
    _gtraceEntry(7, F);
    _gtraceVar(8, G, 10, 3, 2, 0u, 3u, "abc", 0u, 0u, nullptr);
    _gtraceExit(7, F, &rc, 1, 2);
    write();
    std::string text;
    Uint64 n = 0;
    ASSERT_EQ(zeptrace::formatDumpFile(path_.c_str(), zeptrace::View::Records, true, &text, &n),
              0u);
    EXPECT_EQ(n, 3u);
    const std::string R = "    0x081A0016 VRN Common, ZEPe, zepFileRename\n",
                      fixed = "    fixed 0xD1D1D1D1 0xD2D2D2D2\n";
    EXPECT_EQ(text, "#1 ENTRY  pid 4242  tid 7  time 0.000000000\n" + R + fixed +
                        "#2 DATA  pid 4242  tid 8  time 0.000000000\n"
                        "    0x081A0013 VRN Common, ZEPe, zepFileDelete  probe 10\n" +
                        fixed +
                        "    item 1  kind 0  3 bytes\n"
                        "      0000  6162 63                                    abc\n"
                        "    item 2  kind 0  0 bytes\n"
                        "#3 EXIT  pid 4242  tid 7  time 0.000000000\n" +
                        R +
                        "    rc 0x9000001A ECF_FILE_DOESNT_EXIST\n"
                        "    words 0x00000001 0x00000002\n" +
                        fixed);
}

TEST_F(Dump, ExportNestsCallsPerThreadAcrossProcesses) {
    build(options(GTRACE_MODE_WRAP));
    const Uint32 B = ZEPFN_ZEPHFile_open, C = ZEPFN_ZEPHFile_close;
    const char item[] = "/data/a.txt";
    // This process, thread 1: F calls B, which fails, and C, which never exits.
    _gtraceEntry(1, F);
    _gtraceEntry(1, B);
    _gtraceErrorVar(1, B, 30, GTRACE_TYPE_ERROR, 2, 0, 1, 0u, Uint32{sizeof item}, item);
    Uint32 rc = ECF_FILE_EXISTS;
    _gtraceExit(1, B, &rc, 0, 0);
    _gtraceEntry(1, C);
    rc = 0;
    _gtraceExit(1, F, &rc, 0, 0);
    // Thread 3: an exit whose entry the ring no longer holds.
    _gtraceExit(3, ZEPFN_ZEPHFile_seek, &rc, 0, 0);
    // Process 20, thread 2: an entry with data, no exit before the dump.
    gtraceSetProcessID(20);
    _gtraceEntry(2, F);
    _gtraceVar(2, F, 10, GTRACE_TYPE_DATA, 1, 0u, Uint32{sizeof item}, item);
    write();

    const std::string json = dir_ / "t.json";
    FILE* out = fopen(json.c_str(), "w");
    EXPECT_EQ(zeptrace::exportChromeFile(path_.c_str(), out), 0u);
    fclose(out);
    const std::string checker = ZEP_TEST_SOURCE_DIR "/tools/check_chrome_trace.py ";
    FILE* check = popen(("python3 " + checker + json).c_str(), "r");
    std::string seen(4096, '\0');
    seen.resize(fread(seen.data(), 1, seen.size(), check));
    EXPECT_EQ(pclose(check), 0);
    EXPECT_EQ(seen,
              "20/2 thread 2: zepFileRename\n"
              "20/2 instant data zepFileRename probe 10\n"
              "20/2 instant no exit zepFileRename\n"
              "4242/1 thread 1: zepFileRename(ZEPHFile::open ZEPHFile::close)\n"
              "4242/1 instant error ZEPHFile::open probe 30\n"
              "4242/1 instant rc ZEPHFile::open 0x9000001B ECF_FILE_EXISTS\n"
              "4242/1 instant no exit ZEPHFile::close\n"
              "4242/3 thread 3: \n"
              "4242/3 instant exit ZEPHFile::seek\n");
}

}  // namespace
