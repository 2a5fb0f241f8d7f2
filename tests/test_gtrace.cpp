// Tests of the trace: the control block, every emission operation's record, the filters, stop
// events, callbacks, counting and delaying modes, the frame's records, and two processes writing
// into one block. Records are read back as a tool reads them: from a dump file, with the parser.
#include <fcntl.h>
#include <math.h>
#include <sys/mman.h>
#include <time.h>

#include <atomic>
#include <thread>

#include "zepos.h"
#include "zeptest_stress.h"
#include "zeptest_trace.h"

namespace {

constexpr Uint32 kRing = 0x80000, kPid = 4242, F = ZEPFN_zepFileRename, D = 0xA5A5A5A5u;
constexpr Uint64 T = 0x1122334455667788ull;

// A record as the parser delivers it; its fixed part reads as slot dirt (0xA5) past the payload.
struct Rec {
    std::vector<Uint8> bytes;
    GTRecord h;
    explicit Rec(std::vector<Uint8> b) : bytes(std::move(b)) {
        memset(&h, 0xA5, sizeof h);
        memcpy(&h, bytes.data(), std::min(bytes.size(), sizeof h));
    }
    Uint32 word(size_t at) const {
        Uint32 v;
        memcpy(&v, bytes.data() + at, 4);
        return v;
    }
    struct Item {
        Uint32 kind, length;
        std::string data;
    };
    std::vector<Item> items(size_t start = 56) const {
        std::vector<Item> out;
        size_t at = start + 8 * h.itemCount;
        for (Uint32 i = 0; i < h.itemCount; ++i) {
            Item it{word(start + 8 * i), word(start + 8 * i + 4), {}};
            if (it.length != GTRACE_ITEM_NULL)
                it.data.assign(reinterpret_cast<const char*>(bytes.data()) + at, it.length);
            if (it.length != GTRACE_ITEM_NULL) at += it.length;
            out.push_back(it);
        }
        return out;
    }
};

std::string str(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

// The record types in order, or the callbacks' calls: type, probe, rc, items, first descriptor.
std::string types(const std::vector<Rec>& r) {
    std::string out;
    for (const Rec& x : r) {
        if (!out.empty()) out += ' ';
        out += std::to_string(x.h.recordType);
    }
    return out;
}
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
        g_callbacks.clear();
        g_disables = 0;
        gtraceSetFixedData1(0xD1D1D1D1);
        gtraceSetFixedData2(0xD2D2D2D2);
    }
    void TearDown() override {
        gtraceDetach();
        free(mem_);
    }
    static GTCBOptions options(Uint32 modeBits, Uint32 flags = 0) {
        GTCBOptions o;
        o.bufferSize = kRing;
        o.modeBits = modeBits;
        o.flags = flags;
        return o;
    }
    // A block in private memory, initialized, attached and enabled.
    GTCB* build(const GTCBOptions& o) {
        size_t size = gtraceGetAllocSize(o.bufferSize);
        if (size == 0) size = sizeof(GTCB) + o.bufferSize;
        free(mem_);
        mem_ = static_cast<Uint8*>(aligned_alloc(64, (size + 63) & ~size_t{63}));
        memset(mem_, 0x33, size);
        cb_ = reinterpret_cast<GTCB*>(mem_);
        EXPECT_EQ(gtraceInitialize(cb_, &o), 0u);
        EXPECT_EQ(gtraceAttach(cb_, kPid, traceCallback, disableCallback), 0u);
        EXPECT_EQ(gtraceEnable(), 0u);
        return cb_;
    }
    GTCB* ring(Uint32 flags = 0, Uint32 modeBits = GTRACE_MODE_WRAP) {
        return build(options(modeBits, flags));
    }
    // A trace area in a file mapping that a helper process maps too, initialized and attached.
    GTCB* sharedArea(const GTCBOptions& o, Uint32 pid) {
        const size_t size = gtraceGetAllocSize(o.bufferSize);
        const int fd = open(area_.c_str(), O_RDWR | O_CREAT, 0600);
        void* map = fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) == 0
                        ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                        : MAP_FAILED;
        close(fd);
        if (map == MAP_FAILED) return nullptr;
        shared_ = {map, size};
        cb_ = static_cast<GTCB*>(map);
        EXPECT_EQ(gtraceInitialize(cb_, &o), 0u);
        EXPECT_EQ(gtraceAttach(cb_, pid, nullptr, nullptr), 0u);
        EXPECT_EQ(gtraceEnable(), 0u);
        return cb_;
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
    Uint32 claimed() { return __atomic_load_n(&rambo()->nextSequence, __ATOMIC_ACQUIRE); }

    // The records of the block, read back from a dump. The trace is off while the file is read,
    // or the reading would leave records of its own.
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
    std::pair<void*, size_t> shared_{nullptr, 0};
    Uint8* mem_ = nullptr;
    GTCB* cb_ = nullptr;

public:
    ~Trace() override {
        if (shared_.first) munmap(shared_.first, shared_.second);
    }
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
        {area, 0x40000001, 1, ECF_GTRACE_INVALID_BUFFER_SIZE},
        {nullptr, 0x40000001, 1, ECF_GTRACE_INVALID_BUFFER_SIZE},  // the size first
        {nullptr, kRing, 1, ECF_INVALID_PARAMETER},
        {area, kRing, 0x20, ECF_INVALID_PARAMETER},         // none of the store bits
        {area, 0x90000, 1, ECF_RAMBO_INVALID_BUFFER_SIZE},  // not a power of two: rambo's refusal
    };
    EXPECT_EQ(gtraceInitialize(area, nullptr), ECF_INVALID_PARAMETER);
    for (const auto& r : refusals) {
        o.bufferSize = r.size, o.modeBits = r.mode;
        memset(raw.get(), 0x77, sizeof(GTCB));
        EXPECT_EQ(gtraceInitialize(r.area, &o), r.rc) << r.size;
    }
    // The refused block stays zero.
    EXPECT_EQ(area->initialized | area->options.bufferSize, 0u);

    // Every mode: the block's words, the flags a mode implies, and the ring's kind.
    const RamboCB* r = reinterpret_cast<const RamboCB*>(raw.get() + sizeof(GTCB));
    o.bufferSize = kRing;
    o.flags = GTRACE_FLAG_CALLBACK;
    o.stopCount = 7;
    o.filterCount = 2;
    o.filters[1].processID = 99;
    const Uint32 kDelay = GTRACE_FLAG_DELAYING;
    const Uint32 modes[][5] = {{0x01, 1, 0, 0, 0},      {0x02, 0, 0, 0, 0},     {0x04, 1, 1, 1, 0},
                               {0x10, 0, 0, 0, kDelay}, {0x07, 1, 1, 1, 0},     {0x03, 1, 0, 0, 0},
                               {0x12, 0, 0, 0, kDelay}, {0x11, 1, 0, 0, kDelay}};
    for (const auto& m : modes) {
        SCOPED_TRACE(m[0]);
        o.modeBits = m[0];
        memset(raw.get(), 0x77, size);
        ASSERT_EQ(gtraceInitialize(area, &o), 0u);
        EXPECT_EQ(std::vector<Uint32>(
                      {area->initialized, area->enabled, area->eventCount, area->reserved}),
                  std::vector<Uint32>({1, 0, 1, 0}));
        EXPECT_EQ(area->options.flags, GTRACE_FLAG_CALLBACK | m[4]);
        EXPECT_EQ(area->options.stopCount, 7u);
        EXPECT_EQ(area->options.filters[1].processID, 99u);
        EXPECT_EQ(memcmp(r->eyeCatcher, "RAMBOCB", 8), 0);
        EXPECT_EQ(std::vector<Uint32>({r->wraps, r->chunked, r->autoDump}),
                  std::vector<Uint32>(m + 1, m + 4));
    }

    // Counting comes first of all modes; its table may have any size in range.
    o.modeBits = GTRACE_MODE_COUNTING | GTRACE_MODE_WRAP;
    o.bufferSize = 0x80010;
    auto big = std::make_unique<Uint8[]>(sizeof(GTCB) + o.bufferSize + 16);
    memset(big.get(), 0x77, sizeof(GTCB) + o.bufferSize + 16);
    GTCB* counting = reinterpret_cast<GTCB*>(big.get());
    ASSERT_EQ(gtraceInitialize(counting, &o), 0u);
    EXPECT_EQ(counting->initialized, 1u);
    EXPECT_EQ(counting->eventCount, 0u);
    EXPECT_EQ(counting->options.flags, GTRACE_FLAG_CALLBACK | GTRACE_FLAG_COUNTING);
    const Uint8* t = big.get() + sizeof(GTCB);
    EXPECT_EQ(t[0] + t[o.bufferSize - 1], 0);
    EXPECT_EQ(t[o.bufferSize], 0x77);  // nothing behind the table is touched
}

TEST_F(Trace, OperationsNeedAnAttachedInitializedBlock) {
    GTCBOptions o;
    RamboDumpTail tail;
    RamboChunkWalker walker;
    GTCBOptions* ptr = nullptr;
    auto header = std::make_unique<Uint8[]>(sizeof(GTDumpHeader));
    GTDumpHeader* h = reinterpret_cast<GTDumpHeader*>(header.get());
    auto all = [&](Uint32 rc) {
        for (Uint32 got :
             {gtraceEnable(), gtraceDisable(), gtraceGetOptions(&o), gtraceGetOptionsPtr(&ptr),
              gtraceSetOptions(&o), gtraceClear(),
              gtraceGetDumpHeaderBuffer(1, h, nullptr, nullptr), gtraceGetDumpTail(&tail),
              gtraceAutoDumpEnabled(1), gtraceInitializeChunkWalker(&walker)})
            EXPECT_EQ(got, rc);
    };
    all(ECF_GTRACE_NOT_ATTACHED);
    EXPECT_EQ(gtraceAttach(nullptr, 1, nullptr, nullptr), ECF_INVALID_PARAMETER);
    EXPECT_EQ(g_pGTCB, nullptr);
    auto zero = std::make_unique<Uint8[]>(sizeof(GTCB));
    memset(zero.get(), 0, sizeof(GTCB));
    ASSERT_EQ(gtraceAttach(reinterpret_cast<GTCB*>(zero.get()), 1, nullptr, nullptr), 0u);
    all(ECF_GTRACE_NOT_INITIALIZED);

    ring(0, GTRACE_MODE_CHUNKED);
    for (Uint32 rc :
         {gtraceGetOptions(nullptr), gtraceGetOptionsPtr(nullptr), gtraceSetOptions(nullptr),
          gtraceGetDumpHeaderBuffer(1, nullptr, nullptr, nullptr), gtraceGetDumpTail(nullptr),
          gtraceInitializeChunkWalker(nullptr)})
        EXPECT_EQ(rc, ECF_INVALID_PARAMETER);
    EXPECT_EQ(gtraceGetOptionsPtr(&ptr), 0u);
    EXPECT_EQ(ptr, &cb_->options);
    EXPECT_EQ(gtraceInitializeChunkWalker(&walker), 0u);
    EXPECT_EQ(walker.area, rambo());
    EXPECT_EQ(walker.chunkIndex, 0u);
    EXPECT_EQ(gtraceAutoDumpEnabled(0), 0u);
    EXPECT_EQ(rambo()->autoDump, 0);
    EXPECT_EQ(gtraceClear(), ECF_NOT_SUPPORTED);  // a chunked ring has no new sequence

    // Disable calls the callback each time, enable never; without a callback nothing is called.
    EXPECT_EQ(gtraceDisable() + gtraceDisable(), 0u);
    EXPECT_EQ(cb_->enabled, 0u);
    EXPECT_EQ(gtraceEnable(), 0u);
    EXPECT_EQ(cb_->enabled, 1u);
    EXPECT_EQ(g_disables, 2);
    ASSERT_EQ(gtraceAttach(cb_, kPid, nullptr, nullptr), 0u);
    EXPECT_EQ(gtraceDisable() + gtraceEnable(), 0u);
    EXPECT_EQ(g_disables, 2);

    // Detached: the word keeps its value, and nothing reaches the block any more.
    EXPECT_EQ(gtraceDetach(), 0u);
    EXPECT_EQ(g_pGTCB, nullptr);
    EXPECT_EQ(gtraceEnable(), ECF_GTRACE_NOT_ATTACHED);
    EXPECT_EQ(gtraceDisable(), ECF_GTRACE_NOT_ATTACHED);
    EXPECT_EQ(cb_->enabled, 1u);
    EXPECT_EQ(g_disables, 2);
}

TEST_F(Trace, OptionsThatCantChange) {
    GTCBOptions o = options(GTRACE_MODE_WRAP);
    o.dumpScanTrigger[0] = 5;
    build(o);
    GTCBOptions n = options(GTRACE_MODE_STOP, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME);
    n.bufferSize = 0x100000;
    n.dumpScanTrigger[1] = 9;
    n.reserved[1] = 0xABCD;
    n.stopCount = 3;
    n.traceMask.gtmSetMask(1, 3, 22, GTM_WILDCARD, 0, 0);
    ASSERT_EQ(gtraceSetOptions(&n), 0u);
    GTCBOptions got;
    ASSERT_EQ(gtraceGetOptions(&got), 0u);
    EXPECT_EQ(got.bufferSize, kRing);
    EXPECT_EQ(got.modeBits, GTRACE_MODE_WRAP);
    EXPECT_EQ(got.dumpScanTrigger[0] + got.dumpScanTrigger[1], 5u);
    EXPECT_EQ(got.flags, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME);
    EXPECT_EQ(n.flags, got.flags);
    EXPECT_EQ(got.reserved[1], 0xABCDu);
    EXPECT_EQ(got.stopCount, 3u);
    EXPECT_EQ(memcmp(&got.traceMask, &n.traceMask, sizeof n.traceMask), 0);

    // Counting: the time flags are taken from the caller's structure, and bit 9 stays.
    build(options(GTRACE_MODE_COUNTING, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME));
    n.flags = GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME | GTRACE_FLAG_CALLBACK;
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
    memset(b.get(), 0x55, sizeof(GTCBOptions));
    new (a.get()) GTCBOptions;
    EXPECT_EQ(memcmp(a.get(), new (b.get()) GTCBOptions, sizeof(GTCBOptions)), 0);
}

// Trace points run while a control program changes the options: in counting and delaying mode
// none of them may take the ring path, not even while the options are being copied. (In a child:
// the delay steps would use up the process's one seeded sequence.)
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
            // Each change gives the writer its chance while the options are copied.
            for (int i = 0; i < 1000; ++i) {
                gtraceSetOptions(&o);
                sched_yield();
            }
            stop = true;
            writer.join();
            // Counting: the table holds F's entry and nothing that a ring's claim wrote.
            int stray = 0;
            if (mode == GTRACE_MODE_COUNTING)
                for (Uint32 i = 0; i < kRing / 16; ++i)
                    stray += table()[i].functionID != 0 && table()[i].functionID != F;
            _exit(g_disables != 0                                  ? 1
                  : cb_->enabled != 1                              ? 2
                  : mode == GTRACE_MODE_DELAYING && claimed() != 0 ? 3
                  : stray != 0                                     ? 4
                                                                   : 0);
        }
        EXPECT_EQ(zeptest::waitExit(child), 0) << mode;
    }
}

TEST_F(Trace, DumpHeaderPiecesAndClear) {
    GTCBOptions o = options(GTRACE_MODE_WRAP);
    o.stopReturnCode = 0x1234;
    build(o);
    auto raw = std::make_unique<Uint8[]>(sizeof(GTDumpHeader));
    GTDumpHeader* h = reinterpret_cast<GTDumpHeader*>(raw.get());
    memset(raw.get(), 0xEE, sizeof(GTDumpHeader));
    void* store = nullptr;
    Uint32 size = 0;
    ASSERT_EQ(gtraceGetDumpHeaderBuffer(1, h, &store, &size), 0u);
    EXPECT_EQ(str(raw.get(), 8), std::string("GTDUMP1\0", 8));
    EXPECT_EQ(memcmp(&h->options, &cb_->options, sizeof(GTCBOptions)), 0);
    ZEPTickConversionFactor factor;
    factor.initialize();
    EXPECT_EQ(memcmp(&h->tickFactor, &factor, sizeof factor), 0);
    EXPECT_EQ(str(raw.get() + 182904, 8), std::string("@HEAD\r\n\0", 8));
    EXPECT_EQ(h->rambo.bufferSize, kRing);
    EXPECT_EQ(h->rambo.dumpType, 1);
    EXPECT_EQ(h->rambo.wraps, 1);
    EXPECT_EQ(store, reinterpret_cast<Uint8*>(rambo()) + rambo()->slotsOffset);
    EXPECT_EQ(size, kRing);
    ASSERT_EQ(gtraceGetDumpHeaderBuffer(0, h, nullptr, nullptr), 0u);
    EXPECT_EQ(h->rambo.dumpType, 2);
    EXPECT_EQ(gtraceAutoDumpEnabled(1), ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED);

    // Clearing a wrapping ring moves it on by a lap: the old records drop out of the window.
    _gtraceEntry(T, F);
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(gtraceClear(), 0u);
    EXPECT_EQ(records().size(), 0u);
    _gtraceEntry(T, F + 1);
    auto recs = records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].h.functionID, F + 1);

    // Counting: the table and its size; the rambo header and the tail are left alone.
    o.modeBits = GTRACE_MODE_COUNTING;
    build(o);
    memset(raw.get(), 0xEE, sizeof(GTDumpHeader));
    ASSERT_EQ(gtraceGetDumpHeaderBuffer(1, h, &store, &size), 0u);
    EXPECT_EQ(store, table());
    EXPECT_EQ(size, kRing);
    EXPECT_EQ(h->options.modeBits, GTRACE_MODE_COUNTING);
    for (size_t i = 182904; i < sizeof(GTDumpHeader); ++i) ASSERT_EQ(raw[i], 0xEE);
    RamboDumpTail tail;
    memset(&tail, 0xEE, sizeof tail);
    EXPECT_EQ(gtraceGetDumpTail(&tail), 0u);
    EXPECT_EQ(reinterpret_cast<Uint8*>(&tail)[0], 0xEE);
    EXPECT_EQ(gtraceAutoDumpEnabled(1), ECF_RAMBO_NOT_INITIALIZED);
    _gtraceEntry(T, F);
    EXPECT_EQ(entry(F)->count, 1u);
    EXPECT_EQ(gtraceClear(), 0u);
    for (Uint32 i = 0; i < kRing / 16; ++i) ASSERT_EQ(table()[i].functionID, 0u);
}

// ---------------------------------------------------------------- records

TEST_F(Trace, RecordOfEachOperation) {
    ring();
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

    // D: the field was left alone, and holds what the slot held.
    const Uint32 want[][11] = {
        // size, type, flags, dataLength, probe, word1, word2, rc, itemCount, at 56, at 60
        {52, 1, 0, 0, D, D, D, D, D, D, D},                  // _gtraceEntry
        {52, 2, 0, 0, D, 0xA1, 0xA2, rc, D, D, D},           // _gtraceExit
        {52, 9, 2, 0, 77, D, D, D, D, D, D},                 // _gtraceMarker, bit 16
        {52, 10, 0, 0, 78, D, D, D, D, D, D},                // _gtraceMarker
        {52, 5, 0, 0, 40, 0xA1, 0xA2, D, D, D, D},           // _gtraceError
        {116, 11, 0, 0, 41, 0xA1, 0xA2, rc, D, 0xA3, 0xA4},  // _gtraceErrorRc
        {116, 13, 0, 0, 42, 0xA1, 0xA2, D, D, 0xA3, 0xA4},   // _gtraceErrorTrans
        {116, 1, 0, 12, 0, D, D, D, 1, 0, 4},                // _gtraceEntryVar
        {116, 2, 0, 12, 0, 0xA1, 0xA2, rc, 1, 0, 4},         // _gtraceExitVar
        {116, 6, 2, 12, 43, D, D, D, 1, 0, 4},               // _gtraceMarkerVar
        {116, 3, 0, 0, 44, D, D, D, 0, D, D},                // _gtraceVar, no items
        {116, 3, 0, 12, 45, D, D, D, 1, 0, 4},               // _gtraceVar
        {116, 4, 0, 12, 46, 0xA1, 0xA2, D, 1, 0, 4},         // _gtraceErrorVar
        {116, 5, 0, 12, 47, 0xA1, 0xA2, rc, 1, 0xA3, 0xA4},  // _gtraceErrorRcVar
        {116, 12, 0, 12, 48, 0xA1, 0xA2, 0x1234, 1, 0, 4},   // _gtraceCorrelatorVar
    };
    auto r = records();
    ASSERT_EQ(r.size(), std::size(want));
    for (size_t i = 0; i < r.size(); ++i) {
        SCOPED_TRACE(i);
        const GTRecord& h = r[i].h;
        const bool big = r[i].bytes.size() > 56;
        const std::vector<Uint32> got = {static_cast<Uint32>(r[i].bytes.size()),
                                         h.recordType,
                                         h.recordFlags,
                                         h.dataLength,
                                         h.probe == 0xA5A5 ? D : h.probe,
                                         h.word1,
                                         h.word2,
                                         h.returnCode,
                                         h.itemCount,
                                         big ? r[i].word(56) : D,
                                         big ? r[i].word(60) : D};
        EXPECT_EQ(got, std::vector<Uint32>(want[i], want[i] + 11));
        EXPECT_EQ(std::vector<Uint64>(
                      {h.time, h.threadID, h.processID, h.functionID, h.fixedData1, h.fixedData2}),
                  std::vector<Uint64>({0, T, kPid, F, 0xD1D1D1D1, 0xD2D2D2D2}));
        // The item: behind the descriptor, which stands at 64 in _gtraceErrorRcVar.
        if (h.dataLength != 0) {
            auto items = r[i].items(i == 13 ? 64 : 56);
            ASSERT_EQ(items.size(), 1u);
            EXPECT_EQ(items[0].kind, 0u);
            EXPECT_EQ(items[0].data, str(&v, 4));
        }
    }
}

TEST_F(Trace, ItemsCutNullAndByValue) {
    ring();
    const char data[] = "abcdef";
    std::vector<char> big(30000);
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
    auto described = [](const Rec& x) {
        std::string s;
        for (const Rec::Item& it : x.items())
            s += std::to_string(it.kind) + ":" + std::to_string(it.length) + ":" +
                 (it.data.size() < 8 ? it.data : std::to_string(it.data.size())) + " ";
        return s;
    };
    const std::string nul = std::to_string(GTRACE_ITEM_NULL),
                      v1 = std::to_string(GTRACE_ITEM_VALUE1);
    EXPECT_EQ(described(r[0]), "0:0: 0:0: 0:" + nul + ": " + v1 + ":2:AB 7:3:abc ");
    const std::string cut = std::to_string(GTRACE_ITEM_CUT);
    EXPECT_EQ(described(r[1]), "0:30000:30000 0:30000:30000 " + cut + ":5511:5511 ");
    EXPECT_EQ(described(r[2]), "0:30000:30000 0:30000:30000 0:5511:5511 ");  // fitted exactly
    EXPECT_EQ(described(r[3]), cut + ":65527:65527 ");
    for (int k = 1; k < 3; ++k) {
        EXPECT_EQ(r[k].bytes.size(), 1026u * 64 - 12);
        EXPECT_EQ(r[k].h.dataLength, 0xFFFF);
        EXPECT_EQ(r[k].items()[1].data, std::string(b, 30000));
        EXPECT_EQ(r[k].items()[2].data, std::string(b, 5511));
    }
    EXPECT_TRUE(r[3].items()[0].data == std::string("AB") + std::string(0xFFFF - 8 - 2, '\0'));
}

TEST_F(Trace, ErrorsOnlyAndTimeStamps) {
    ring(GTRACE_FLAG_ERRORS_ONLY | GTRACE_FLAG_TIMESTAMP);
    const Uint32 ok = 0, bad = ECF_FILE_DOESNT_EXIST;
    Sint64 before = 0, after = 0;
    zepos::QueryPerformanceCounter(&before);
    _gtraceEntry(T, F);
    _gtraceExit(T, F, &ok, 0, 0);
    _gtraceExit(T, F, &bad, 0, 0);
    _gtraceExitVar(T, F, &ok, 0, 0, 0);
    _gtraceVar(T, F, 10, 3, 0);
    _gtraceErrorVar(T, F, 30, 4, 0, 0, 0);
    _gtraceMarker(T, F, 1, 11);
    _gtraceMarker(T, F, 1, 12);
    _gtraceCorrelatorVar(T, F, 1, 5, 0, 0, 0);
    _gtraceErrorTrans(T, F, 2, 0, 0, 0, 0);
    zepos::QueryPerformanceCounter(&after);
    auto r = records();
    EXPECT_EQ(types(r), "2 4 11 13");
    EXPECT_EQ(r[0].h.returnCode, bad);
    // Stamped after filtering, in order.
    EXPECT_GE(r[0].h.time, static_cast<Uint64>(before));
    for (size_t i = 1; i < r.size(); ++i) EXPECT_LE(r[i - 1].h.time, r[i].h.time);
    EXPECT_LE(r.back().h.time, static_cast<Uint64>(after));
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
    EXPECT_EQ(r[0].h.functionID, F);
    EXPECT_EQ(r[1].h.functionID, F + 2);
    EXPECT_EQ(r[1].h.processID, kPid + 1);

    // A count beyond the entries, as a damaged block may hold: only the five entries are asked,
    // not the bytes behind them (which would match this point).
    gtraceClear();
    cb_->options.filterCount = 0xFFFFFFFFu;
    memset(static_cast<void*>(cb_->options.filters), 0, sizeof cb_->options.filters);
    const GTFilter match{GTRACE_FILTER_IN_USE, kPid, 0};
    memcpy(static_cast<void*>(&cb_->options.mask), &match, sizeof match);
    const Uint32 before = claimed();
    _gtraceEntry(T, F);
    EXPECT_EQ(claimed(), before);
}

TEST_F(Trace, CompactMaskOverFullMask) {
    GTCBOptions o = options(GTRACE_MODE_WRAP, GTRACE_FLAG_FULL_MASK);
    const Uint32 f = ZEP_FUNC_INDEX(F), rc = 1;
    // Full mask: the rename's entries and exits, and its probe 30 only.
    o.traceMask.gtmSetMask(1, 3, f, GTRACE_TYPE_ENTRY, 0, 0);
    o.traceMask.gtmSetMask(1, 3, f, GTRACE_TYPE_EXIT, 0, 0);
    o.traceMask.gtmSetMask(1, 3, f, 30, GTM_FLAG_PROBE, 0);
    build(o);
    auto points = [&] {
        _gtraceEntry(T, F);
        _gtraceVar(T, F, 10, 3, 0);
        _gtraceErrorVar(T, F, 30, 4, 0, 0, 0);
        _gtraceExit(T, F, &rc, 0, 0);
        _gtraceEntry(T, ZEPFN_zepFileDelete);
        auto r = records();
        gtraceClear();
        return types(r);
    };
    EXPECT_EQ(points(), "1 4 2");
    // With the compact mask on too, only it is asked: it passes type 3 (probes are forgotten)
    // and still rejects the function outside it.
    o.traceMask.gtmReplicateMask(&o.mask);
    o.flags = GTRACE_FLAG_FULL_MASK | GTRACE_FLAG_COMPACT_MASK;
    ASSERT_EQ(gtraceSetOptions(&o), 0u);
    EXPECT_EQ(points(), "1 3 4 2");
    // Each bitmap of the compact mask decides: a class bit missing rejects everything.
    o.mask.classes[0] = 0;
    ASSERT_EQ(gtraceSetOptions(&o), 0u);
    EXPECT_EQ(points(), "");
}

TEST_F(Trace, StopEvents) {
    const Uint32 stop = ECF_FILE_DOESNT_EXIST, other = 1;
    for (Uint32 stopCount : {0u, 1u, 3u}) {
        SCOPED_TRACE(stopCount);
        GTCBOptions o = options(GTRACE_MODE_WRAP, GTRACE_FLAG_STOP_COUNT | GTRACE_FLAG_STOP_ON_RC);
        o.stopCount = stopCount;
        o.stopReturnCode = stop;
        build(o);
        g_disables = 0;
        const Uint32 events = stopCount == 0 ? 1 : stopCount;
        for (Uint32 i = 0; i < events; ++i) {
            EXPECT_EQ(cb_->enabled, 1u);
            _gtraceExit(T, F, &other, 0, 0);
            _gtraceExit(T, F, &stop, 0, 0);
        }
        EXPECT_EQ(cb_->enabled, 0u);
        EXPECT_EQ(g_disables, 1);
        EXPECT_EQ(cb_->eventCount, events + 1);
        // The record that stopped the trace is the last one.
        auto r = records();
        ASSERT_EQ(r.size(), 2 * events);
        EXPECT_EQ(r.back().h.returnCode, stop);
    }
    // Without flag 6 no exit stops the trace; type 5 by the error operations does with it.
    ring(GTRACE_FLAG_STOP_ON_RC);
    cb_->options.stopReturnCode = stop;
    for (int i = 0; i < 5; ++i) _gtraceExit(T, F, &stop, 0, 0);
    EXPECT_EQ(cb_->enabled, 1u);
    EXPECT_EQ(cb_->eventCount, 1u);
    ring(GTRACE_FLAG_STOP_COUNT);
    cb_->options.stopCount = 2;
    _gtraceExit(T, F, &stop, 0, 0);  // flag 7 is off: exits don't count
    _gtraceVar(T, F, 1, 5, 0);       // type 5, but not by an error operation
    _gtraceError(T, F, 1, 4, 0, 0);
    EXPECT_EQ(cb_->eventCount, 1u);
    _gtraceError(T, F, 1, 5, 0, 0);
    EXPECT_EQ(cb_->enabled, 1u);
    _gtraceErrorVar(T, F, 1, 5, 0, 0, 0);
    EXPECT_EQ(cb_->enabled, 0u);
    EXPECT_EQ(cb_->eventCount, 3u);

    // A full stopping ring disables the trace with the claim that goes into the overflow area.
    ring(0, GTRACE_MODE_STOP);
    g_disables = 0;
    const Uint32 slots = kRing / 64;
    for (Uint32 i = 0; i < slots; ++i) _gtraceEntry(T, i);
    EXPECT_EQ(cb_->enabled + g_disables, 1u);
    _gtraceEntry(T, slots);
    EXPECT_EQ(cb_->enabled, 0u);
    EXPECT_EQ(g_disables, 1);
    auto r = records();
    ASSERT_EQ(r.size(), slots);
    EXPECT_EQ(r.back().h.functionID, slots - 1);
}

TEST_F(Trace, CallbackArguments) {
    ring(GTRACE_FLAG_CALLBACK);
    const Uint32 v = 9;
    _gtraceEntry(T, F);
    _gtraceEntryVar(T, F, 2, 0u, 4u, &v, 0u, 0u, nullptr);
    _gtraceExit(T, F, &kRc, 1, 2);
    _gtraceExitVar(T, F, &kRc, 1, 2, 1, 1u, 3u, uintptr_t{5});
    _gtraceMarker(T, F, 17, 0x10008);
    _gtraceErrorRc(T, F, 18, 11, 0, 0, kRc, 0, 0);
    _gtraceVar(T, F, 19, 3, 1, 0u, 4u, &v);
    // A filtered point calls nothing; a cut record reports the items kept.
    cb_->options.flags |= GTRACE_FLAG_ERRORS_ONLY;
    _gtraceEntry(T, F);
    std::vector<char> big(0x10000);
    const char* b = big.data();
    _gtraceErrorVar(T, F, 1, 4, 0, 0, 3, 0u, 0x10000u, b, 0u, 1u, b, 0u, 1u, b);
    EXPECT_EQ(g_callbacks,
              (std::vector<std::string>{"1 0 - 0 -0/0", "1 0 - 2 0/4", "2 0 rc 0 -0/0",
                                        "2 0 rc 1 1/3", "8 17 - 0 -0/0", "11 18 - 0 -0/0",
                                        "3 19 - 1 0/4", "4 1 - 1 0/65536"}));
    // Flag 8 without a callback.
    ASSERT_EQ(gtraceAttach(cb_, kPid, nullptr, disableCallback), 0u);
    _gtraceErrorVar(T, F, 1, 4, 0, 0, 0);
    EXPECT_EQ(g_callbacks.size(), 8u);
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
    for (int i = 0; i < 3; ++i) recurse(F, 4);  // 15 entries
    _gtraceEntryVar(T, ZEPFN_zepFileDelete, 1, 0u, 4u, &o);
    // Nothing else acts in counting mode.
    _gtraceVar(T, F, 10, 3, 0);
    _gtraceMarker(T, F, 10, 3);
    _gtraceErrorRcVar(T, F, 10, 5, 0, 0, 0, 0, 0, 0);
    int used = 0;
    for (Uint32 i = 0; i < kRing / 16; ++i) used += table()[i].functionID != 0;
    EXPECT_EQ(used, 2);
    EXPECT_EQ(entry(F)->count, 15u);
    EXPECT_EQ(entry(ZEPFN_zepFileDelete)->count, 1u);
    EXPECT_EQ(entry(F)->totalTime + entry(ZEPFN_zepFileDelete)->totalTime, 0u);
    // Fibonacci position of F: frac(F * 0.618033989) * N.
    const double p = F * 0.618033989;
    EXPECT_EQ(table()[static_cast<Uint32>((p - floor(p)) * (kRing / 16))].functionID, F);
    EXPECT_EQ(cb_->eventCount, 0u);

    // A table with no room: every entry is a miss, counted in eventCount.
    for (Uint32 i = 0; i < kRing / 16; ++i) table()[i].functionID = 0xFFFFFFFF;
    recurse(F, 2);
    EXPECT_EQ(cb_->eventCount, 3u);

    // The filters apply to counted entries too.
    gtraceClear();
    cb_->eventCount = 0;
    o.flags = GTRACE_FLAG_FILTERS;
    ASSERT_EQ(gtraceSetOptions(&o), 0u);
    recurse(F, 2);
    EXPECT_EQ(entry(F), nullptr);
    EXPECT_EQ(cb_->eventCount, 0u);
}

TEST_F(Trace, CountingWithTimeAndTheCallStack) {
    build(options(GTRACE_MODE_COUNTING, GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME));
    const Uint32 G = ZEPFN_zepFileDelete, H = ZEPFN_zepFileCopy, rc = 0;

    // A recursive function is charged for all its frames at its first exit.
    _gtraceEntry(T, F);
    _gtraceEntry(T, F);
    usleep(2000);
    _gtraceExit(T, F, &rc, 0, 0);
    const Uint64 once = entry(F)->totalTime;
    EXPECT_GE(once, 2 * 2000000u);  // two frames of at least 2 ms each
    _gtraceExit(T, F, &rc, 0, 0);   // the stack is empty now: nothing more
    EXPECT_EQ(entry(F)->totalTime, once);
    EXPECT_EQ(entry(F)->count, 2u);

    // F, then 511 frames of G fill the stack; H at level 513 gets no frame, and neither does F
    // at 514. Their exits: H finds nothing; F charges its frame at level 1 and cuts the stack.
    gtraceClear();
    _gtraceEntry(T, F);
    for (int i = 0; i < 511; ++i) _gtraceEntry(T, G);
    _gtraceEntry(T, H);
    _gtraceEntry(T, F);
    usleep(1000);
    _gtraceExit(T, F, &rc, 0, 0);
    _gtraceExit(T, H, &rc, 0, 0);
    for (int i = 0; i < 511; ++i) _gtraceExit(T, G, &rc, 0, 0);
    EXPECT_EQ(std::vector<Uint32>({entry(F)->count, entry(G)->count, entry(H)->count}),
              std::vector<Uint32>({2, 511, 1}));
    EXPECT_GE(entry(F)->totalTime, 1000000u);
    EXPECT_EQ(entry(G)->totalTime + entry(H)->totalTime, 0u);

    // Each thread has its own stack.
    gtraceClear();
    _gtraceEntry(T, F);
    std::thread([&] {
        _gtraceExit(T, F, &rc, 0, 0);  // this thread has no stack: nothing
        _gtraceEntry(T, G);
        _gtraceExit(T, G, &rc, 0, 0);
    }).join();
    EXPECT_EQ(entry(F)->totalTime, 0u);
    ASSERT_NE(entry(G), nullptr);
    _gtraceExit(T, F, &rc, 0, 0);
    EXPECT_GT(entry(F)->totalTime, 0u);
}

TEST_F(Trace, DelayingMode) {
    GTCBOptions o = options(GTRACE_MODE_DELAYING);
    o.stopReturnCode = 1;  // the interval: every trace point sleeps
    build(o);
    timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    for (int i = 0; i < 20; ++i) _gtraceEntry(T, F);
    clock_gettime(CLOCK_MONOTONIC, &b);
    EXPECT_EQ(claimed(), 0u);  // no records at all behind a delaying trace
    // The sleeps are the fourth powers of the C library's sequence from seed 1020: at least
    // their sum has passed.
    srand(1020);
    Uint32 expected = 0;
    for (int i = 0; i < 20; ++i) {
        const double x = (rand() & 0x7FFF) / 32768.0;
        expected += static_cast<Uint32>(x * x * x * x * 200.0);
    }
    EXPECT_GE((b.tv_sec - a.tv_sec) * 1e3 + (b.tv_nsec - a.tv_nsec) / 1e6, expected);
    EXPECT_GT(expected, 0u);
}

// ---------------------------------------------------------------- processes

TEST_F(Trace, TwoProcessesOneBlock) {
    // The block lies in a shared file mapping; a helper process attaches to it as well.
    const Uint32 me = static_cast<Uint32>(getpid()), f = ZEP_FUNC_INDEX(F);
    GTCBOptions o = options(GTRACE_MODE_WRAP, GTRACE_FLAG_FULL_MASK | GTRACE_FLAG_FILTERS);
    // The rename's entries and exits and its error probe; not its data records.
    o.traceMask.gtmSetMask(1, 3, f, GTRACE_TYPE_ENTRY, 0, 0);
    o.traceMask.gtmSetMask(1, 3, f, GTRACE_TYPE_EXIT, 0, 0);
    o.traceMask.gtmSetMask(1, 3, f, 30, GTM_FLAG_PROBE, 0);
    // This process, and the helper under the identifier it is given.
    o.filterCount = 2;
    o.filters[0] = GTFilter{GTRACE_FILTER_IN_USE, me, 0};
    o.filters[1] = GTFilter{GTRACE_FILTER_IN_USE, 777, 0};
    ASSERT_NE(sharedArea(o, me), nullptr);
    const std::string missing = dir_ / "missing", target = dir_ / "target", mine = dir_ / "mine";
    EXPECT_EQ(zepFileRename(missing.c_str(), target.c_str()), ECF_FILE_DOESNT_EXIST);
    EXPECT_EQ(zeptest::waitExit(
                  zeptest::spawnHelper("helper_gtrace", {"twoprocesses", area_, dir_.path})),
              0);
    std::ofstream(mine) << "x";
    EXPECT_EQ(zepFileRename(mine.c_str(), target.c_str()), 0u);

    // pid, type, probe or rc: this process failing, the helper failing and succeeding (and its
    // failure under an unknown identifier filtered out), this process succeeding.
    const Uint32 fail = ECF_FILE_DOESNT_EXIST;
    const Uint32 want[][3] = {{me, 1, 0},     {me, 4, 30}, {me, 2, fail}, {777, 1, 0}, {777, 4, 30},
                              {777, 2, fail}, {777, 1, 0}, {777, 2, 0},   {me, 1, 0},  {me, 2, 0}};
    for (bool forward : {true, false}) {
        SCOPED_TRACE(forward);
        auto r = records(forward);
        ASSERT_EQ(r.size(), std::size(want));
        for (size_t i = 0; i < r.size(); ++i) {
            const Uint32* w = want[forward ? i : r.size() - 1 - i];
            const GTRecord& h = r[i].h;
            const Uint32 third = h.recordType == 4 ? h.probe : h.recordType == 2 ? h.returnCode : 0;
            EXPECT_EQ(std::vector<Uint32>({h.processID, h.recordType, third}),
                      std::vector<Uint32>(w, w + 3))
                << i;
            EXPECT_EQ(h.functionID, F);
            if (h.recordType == 4) {
                EXPECT_EQ(r[i].word(64), fail);
            }
            EXPECT_EQ(h.fixedData1, w[0] == me ? 0xD1D1D1D1u : 0xFFFFFFFFu);
        }
    }
}

TEST_F(Trace, ThreadsAndProcessesConcurrently) {
    // Each writer's records, and a stopping ring that holds them all (at most two slots each).
    const Uint32 each = 1500 * zeptestStress();
    GTCBOptions o = options(GTRACE_MODE_STOP);
    while (o.bufferSize < 3 * each * 2 * RAMBO_SLOT_SIZE) o.bufferSize *= 2;
    ASSERT_NE(sharedArea(o, 1), nullptr);
    const pid_t child = zeptest::spawnHelper("helper_gtrace", {"concurrent", area_});
    // Meanwhile two threads here, with one-slot and two-slot records mixed; the helper writes
    // as many data records as process 2, thread 2.
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

    // Every record, each thread's in its own order.
    auto r = records();
    ASSERT_EQ(r.size(), 3u * each);
    Uint32 next[3] = {0, 0, 0};
    for (const Rec& x : r) {
        const Uint64 who = x.h.processID == 2 ? 2 : x.h.threadID;
        ASSERT_LT(who, 3u);
        const Uint32 i = x.h.recordType == 3 ? x.word(64) : x.h.functionID;
        ASSERT_EQ(i, next[who]) << who;
        next[who] = i + 1;
    }
}

}  // namespace
