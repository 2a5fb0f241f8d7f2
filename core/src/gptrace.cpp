// gptrace.cpp - the process-spanning trace: the control block, and the emission operations that
// every trace point calls.
//
// The trace stands outside the frame: nothing here traces, logs or allocates on a record's path.
// The emission operations are written once, as one always-inlined body (emit) that each exported
// operation instantiates with its own constant description, so the compiler keeps only what that
// operation needs: _gtraceEntry with no filter set is one load of the flags, one test, the ring's
// claim, eight stores and the stamp.
//
// Shared words that other threads and processes change while a trace point reads them (the
// enable word, the flags, eventCount, the counting table) are read and written with relaxed
// atomics: on x86 these are the plain accesses the design asks for, and the counting table keeps
// its "may lose an update" semantics without a data race in the language's sense.
#include "gtrace.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "rambowriter.h"
#include "zepatomic.h"
#include "zepos.h"
#include "zeptsd.h"

GTCB* g_pGTCB = nullptr;

namespace {

// ---- process-local state

Uint32 s_processId = 0xFFFFFFFFu;
Uint32 s_fixedData1 = 0xFFFFFFFFu;
Uint32 s_fixedData2 = 0xFFFFFFFFu;
GTraceCallback s_callback = nullptr;
GTraceDisableCallback s_disableCallback = nullptr;

// Delaying mode: the count of trace points since the last delay, and whether rand is seeded.
Uint32 s_delayCount = 1;
Bool s_delaySeeded = 0;

// Counting mode with timing: one slot for every thread's call stack.
ZEPHThreadSpecificData s_stackSlot;
enum : Uint32 { kSlotNone, kSlotCreating, kSlotReady };
Uint32 s_stackSlotState = kSlotNone;

constexpr Uint32 kStackFrames = 512;
constexpr Uint32 kErrorsOnlyTypes = (1u << 2) | (1u << 4) | (1u << 5) | (1u << 11) | (1u << 13);
// The flags that send a counted entry through the filter.
constexpr Uint32 kCountingFilterFlags = 0x203Eu;

struct StackFrame {
    Uint32 functionId;
    Uint32 pad;
    Uint64 time;
};
static_assert(sizeof(StackFrame) == 16, "a call-stack frame is 16 bytes");

// A thread's call stack. Holders are never freed (a thread's slot outlives nothing that could
// free it safely); they are chained from one process-wide list so that they stay reachable.
struct ThreadStack {
    StackFrame* frames;
    Uint32 depth;
    ThreadStack* nextHolder;
};
ThreadStack* s_stacks = nullptr;

template <class T>
inline T loadRelaxed(const T* p) {
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}
template <class T>
inline void storeRelaxed(T* p, T v) {
    __atomic_store_n(p, v, __ATOMIC_RELAXED);
}

inline GTCB* attached() {
    return loadRelaxed(&g_pGTCB);
}

inline RamboCB* ringOf(GTCB* cb) {
    return reinterpret_cast<RamboCB*>(reinterpret_cast<Uint8*>(cb) + sizeof(GTCB));
}
inline GTCountEntry* tableOf(GTCB* cb) {
    return reinterpret_cast<GTCountEntry*>(reinterpret_cast<Uint8*>(cb) + sizeof(GTCB));
}

inline bool testBit(const Uint8* bits, Uint32 n) {
    return (bits[n >> 3] >> (n & 7)) & 1u;
}

// The common checks of the control operations.
Uint32 checkBlock(GTCB** out) {
    GTCB* cb = attached();
    if (cb == nullptr) return ECF_GTRACE_NOT_ATTACHED;
    if (loadRelaxed(&cb->initialized) == 0) return ECF_GTRACE_NOT_INITIALIZED;
    *out = cb;
    return 0;
}

// ---- the filter

// The order is fixed: errors only, process and thread, compact mask or else full mask, and the
// time stamp last, so that a filtered point never reads the clock.
bool passes(GTCB* cb, Uint32 flags, Uint32 type, Uint32 functionId, Uint32 probe, Uint64 threadId,
            Uint64* time) {
    const GTCBOptions& o = cb->options;
    if ((flags & GTRACE_FLAG_ERRORS_ONLY) && !(type < 32 && ((kErrorsOnlyTypes >> type) & 1u)))
        return false;
    if (flags & GTRACE_FLAG_FILTERS) {
        // The count is shared memory that anyone may write: never more entries than there are.
        Uint32 n = loadRelaxed(&o.filterCount);
        if (n > GTRACE_MAX_FILTERS) n = GTRACE_MAX_FILTERS;
        bool match = false;
        for (Uint32 i = 0; i < n && !match; ++i) {
            const GTFilter& e = o.filters[i];
            const Uint32 bits = loadRelaxed(&e.filterBits);
            match = (bits & GTRACE_FILTER_IN_USE) && loadRelaxed(&e.processID) == s_processId &&
                    (!(bits & GTRACE_FILTER_THREAD) || loadRelaxed(&e.threadID) == threadId);
        }
        if (!match) return false;
    }
    if (flags & GTRACE_FLAG_COMPACT_MASK) {
        const GTMask& m = o.mask;
        const Uint32 function = ZEP_FUNC_INDEX(functionId);
        if (!testBit(m.products, ZEP_FUNC_PRODUCT(functionId)) || type >= 16 ||
            !testBit(m.types, type) || !testBit(m.components, ZEP_FUNC_COMPONENT(functionId)) ||
            function >= GTM_FUNCTION_BITS || !testBit(m.functions, function) ||
            !testBit(m.classes, ZEP_FUNC_CLASS(functionId)))
            return false;
    } else if (flags & GTRACE_FLAG_FULL_MASK) {
        if (!o.traceMask.gtmIsElemInMask(functionId, type, probe)) return false;
    }
    if (flags & GTRACE_FLAG_TIMESTAMP) {
        Sint64 now = 0;
        *time = zepos::QueryPerformanceCounter(&now) ? static_cast<Uint64>(now) : 0;
    }
    return true;
}

// ---- stop events, delays

void stopEvent(GTCB* cb) {
    Uint32 old = __atomic_fetch_add(&cb->eventCount, 1u, __ATOMIC_SEQ_CST);
    if (old >= loadRelaxed(&cb->options.stopCount)) gtraceDisable();
}

// Mostly short sleeps, now and then one of up to 200 ms: x to the fourth power of a uniform x.
// The C library's generator holds 15 random bits on the platform this comes from; only those are
// used, so x stays in [0, 1).
void delayStep(GTCB* cb) {
    if (!loadRelaxed(&s_delaySeeded)) {
        srand(1020);
        storeRelaxed(&s_delaySeeded, static_cast<Bool>(1));
    }
    const double x = static_cast<double>(rand() & 0x7FFF) / 32768.0;
    Uint32 count = loadRelaxed(&s_delayCount);
    if (loadRelaxed(&cb->options.stopReturnCode) <= count) {
        zepos::Sleep(static_cast<Uint32>(x * x * x * x * 200.0));
        count = 0;
    }
    storeRelaxed(&s_delayCount, count + 1);
}

// ---- counting mode

// Fibonacci hashing to a first position, then up to nine more at a stride of F mod 988927. A
// free entry is taken by a plain store: two functions that meet in it share it.
GTCountEntry* findCountEntry(GTCB* cb, Uint32 functionId) {
    const Uint32 n = loadRelaxed(&cb->options.bufferSize) / sizeof(GTCountEntry);
    if (n == 0) return nullptr;
    GTCountEntry* table = tableOf(cb);
    double product = static_cast<double>(functionId) * 0.618033989;
    const Uint64 h0 = static_cast<Uint64>((product - floor(product)) * n);
    const Uint64 step = functionId % 988927u;
    for (Uint32 i = 0; i < 10; ++i) {
        GTCountEntry* e = &table[(h0 + i * step) % n];
        const Uint32 id = loadRelaxed(&e->functionID);
        if (id == 0) {
            storeRelaxed(&e->functionID, functionId);
            return e;
        }
        if (id == functionId) return e;
    }
    return nullptr;
}

// Creates the slot for the call stacks once per process. The frame of create() passes trace
// points of its own, which find the slot still being made and go without a stack.
bool ensureStackSlot() {
    Uint32 state = __atomic_load_n(&s_stackSlotState, __ATOMIC_ACQUIRE);
    if (state == kSlotReady) return true;
    Uint32 expected = kSlotNone;
    if (state != kSlotNone ||
        !__atomic_compare_exchange_n(&s_stackSlotState, &expected, kSlotCreating, false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return false;
    const bool made = s_stackSlot.create() == 0;
    __atomic_store_n(&s_stackSlotState, made ? kSlotReady : kSlotNone, __ATOMIC_RELEASE);
    return made;
}

// The thread's call stack through the OS layer's slot directly: a trace point neither runs in
// the frame nor logs, and a slot never set is the common case here, not an error.
ThreadStack* threadStack(bool create) {
    if (create ? !ensureStackSlot()
               : __atomic_load_n(&s_stackSlotState, __ATOMIC_ACQUIRE) != kSlotReady)
        return nullptr;
    ThreadStack* s = static_cast<ThreadStack*>(zepos::TlsGetValue(s_stackSlot.index()));
    if (s != nullptr || !create) return s;
    s = static_cast<ThreadStack*>(malloc(sizeof(ThreadStack)));
    StackFrame* frames = static_cast<StackFrame*>(malloc(kStackFrames * sizeof(StackFrame)));
    if (s == nullptr || frames == nullptr || !zepos::TlsSetValue(s_stackSlot.index(), s)) {
        free(frames);
        free(s);
        return nullptr;
    }
    s->frames = frames;
    s->depth = 0;
    s->nextHolder = __atomic_load_n(&s_stacks, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&s_stacks, &s->nextHolder, s, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED)) {
    }
    return s;
}

void countEntry(GTCB* cb, Uint32 flags, Uint64 threadId, Uint32 functionId) {
    Uint64 time = 0;
    if ((flags & kCountingFilterFlags) &&
        !passes(cb, flags, GTRACE_TYPE_ENTRY, functionId, 0, threadId & 0xFFFFFFFFu, &time))
        return;
    if (flags & GTRACE_FLAG_COUNT_TIME) {
        if (ThreadStack* s = threadStack(true)) {
            const Uint32 depth = s->depth++;
            if (depth >= kStackFrames) {
                s->depth = depth;  // the frame is lost
            } else {
                s->frames[depth].functionId = functionId;
                s->frames[depth].time = time;
            }
        }
    }
    if (GTCountEntry* e = findCountEntry(cb, functionId))
        storeRelaxed(&e->count, loadRelaxed(&e->count) + 1);
    else
        __atomic_fetch_add(&cb->eventCount, 1u, __ATOMIC_SEQ_CST);
}

// Charges every frame of the function on the thread's stack, down to the bottom: a recursive
// function is charged for each of its frames at once, and the stack is cut to the lowest. The
// stack is cut also for a function that found no room in the table, so that its frames don't
// stay behind.
void timeExit(GTCB* cb, Uint32 flags, Uint64 threadId, Uint32 functionId) {
    Uint64 time = 0;
    if (!passes(cb, flags, GTRACE_TYPE_EXIT, functionId, 0, threadId & 0xFFFFFFFFu, &time)) return;
    ThreadStack* s = threadStack(false);
    if (s == nullptr || s->depth == 0) return;
    const Uint32 top = s->depth < kStackFrames ? s->depth : kStackFrames;
    for (Uint32 i = top; i-- > 0;) {
        if (s->frames[i].functionId != functionId) continue;
        if (GTCountEntry* e = findCountEntry(cb, functionId)) {
            const Sint64 spent = static_cast<Sint64>(time - s->frames[i].time);
            storeRelaxed(&e->totalTime,
                         loadRelaxed(&e->totalTime) + (spent > 0 ? static_cast<Uint64>(spent) : 0));
        }
        s->depth = i;
    }
}

// ---- the record

enum class Op {
    Entry,
    Exit,
    Marker,
    Error,
    ErrorRc,
    ErrorTrans,
    EntryVar,
    ExitVar,
    MarkerVar,
    Var,
    ErrorVar,
    ErrorRcVar,
    CorrelatorVar
};

// What one trace point asks for. Built from constants and the operation's arguments.
struct Point {
    Op op;
    Uint64 threadId;
    Uint32 functionId;
    Uint16 type;
    Uint16 recordFlags = 0;
    Uint16 probe = 0;
    Uint32 word1 = 0, word2 = 0, rc = 0, word3 = 0, word4 = 0;
    const Uint32* rcAddress = nullptr;  // exits
    Uint32 itemCount = 0;
};

constexpr bool isVar(Op op) {
    return op >= Op::EntryVar;
}
constexpr bool isExit(Op op) {
    return op == Op::Exit || op == Op::ExitVar;
}
constexpr bool isEntry(Op op) {
    return op == Op::Entry || op == Op::EntryVar;
}
constexpr bool writesProbe(Op op) {
    return !(op == Op::Entry || op == Op::Exit);
}
constexpr bool writesWords(Op op) {
    return !(op == Op::Entry || op == Op::Marker || op == Op::EntryVar || op == Op::MarkerVar ||
             op == Op::Var);
}
constexpr bool writesRc(Op op) {
    return op == Op::Exit || op == Op::ErrorRc || op == Op::ExitVar || op == Op::ErrorRcVar ||
           op == Op::CorrelatorVar;
}
constexpr bool writesWords34(Op op) {
    return op == Op::ErrorRc || op == Op::ErrorTrans || op == Op::ErrorRcVar;
}
constexpr bool isErrorOp(Op op) {
    return op == Op::Error || op == Op::ErrorVar;
}

// The items a record keeps: the sum is cut at 0xFFFF, the last kept item may be cut short.
struct ItemPlan {
    Uint32 total = 0;  // dataLength
    Uint32 kept = 0;
    bool cut = false;
    Uint32 cutLength = 0;  // of the last kept item, when cut
};

ItemPlan planItems(Uint32 count, va_list ap) {
    ItemPlan plan;
    va_list a;
    va_copy(a, ap);
    for (Uint32 i = 0; i < count; ++i) {
        (void)va_arg(a, Uint32);
        const Uint64 length = va_arg(a, Uint32);
        (void)va_arg(a, const void*);
        if (plan.total + 8u > 0xFFFFu) break;
        ++plan.kept;
        if (plan.total + 8u + length > 0xFFFFu) {
            plan.cutLength = 0xFFFFu - (plan.total + 8u);
            plan.total = 0xFFFFu;
            plan.cut = true;
            break;
        }
        plan.total += 8u + static_cast<Uint32>(length);
    }
    va_end(a);
    return plan;
}

// Descriptors at `at`, the items' bytes behind them.
void writeItems(Uint8* at, const ItemPlan& plan, va_list ap) {
    va_list a;
    va_copy(a, ap);
    GTItemDescriptor* d = reinterpret_cast<GTItemDescriptor*>(at);
    Uint8* data = at + plan.kept * sizeof(GTItemDescriptor);
    for (Uint32 i = 0; i < plan.kept; ++i) {
        Uint32 kind = va_arg(a, Uint32);
        Uint32 length = va_arg(a, Uint32);
        const void* word = va_arg(a, const void*);
        if (plan.cut && i + 1 == plan.kept) {
            // Marked as cut whatever it was; its bytes are still the first ones of what it was,
            // so a value passed directly is never taken for an address.
            d[i].itemKind = GTRACE_ITEM_CUT;
            length = plan.cutLength;
        } else {
            d[i].itemKind = kind;
        }
        if (length == 0) {
            d[i].itemLength = 0;
        } else if (kind == GTRACE_ITEM_VALUE1 || kind == GTRACE_ITEM_VALUE2) {
            // The word itself; a length beyond it is filled with zeros.
            const Uint32 inWord = length < sizeof(word) ? length : sizeof(word);
            memcpy(data, &word, inWord);
            memset(data + inWord, 0, length - inWord);
            d[i].itemLength = length;
            data += length;
        } else if (word == nullptr) {
            d[i].itemLength = GTRACE_ITEM_NULL;
        } else {
            memcpy(data, word, length);
            d[i].itemLength = length;
            data += length;
        }
    }
    va_end(a);
}

// The callback's view of the items: a copy of the argument list at the first item.
void callWithItems(GTraceCallback callback, Uint32 type, Uint32 functionId, Uint16 probe,
                   const Uint32* rc, Uint32 kept, va_list ap) {
    va_list items;
    va_copy(items, ap);
    callback(type, functionId, probe, rc, kept, &items);
    va_end(items);
}

template <Op op>
__attribute__((always_inline)) inline void emit(const Point& p, va_list* ap) {
    GTCB* const cb = attached();
    const Uint32 flags = loadRelaxed(&cb->options.flags);
    Uint64 time = 0;
    const Uint32 rc = isExit(op) ? *p.rcAddress : p.rc;

    if (__builtin_expect((flags & GTRACE_FLAGS_GATE) != 0, 0)) {
        const Uint32 mode = cb->options.modeBits;
        if (mode & GTRACE_MODE_COUNTING) {
            if (isEntry(op)) countEntry(cb, flags, p.threadId, p.functionId);
            if (isExit(op) && (flags & GTRACE_FLAG_COUNT_TIME))
                timeExit(cb, flags, p.threadId, p.functionId);
            return;
        }
        if (!passes(cb, flags, p.type, p.functionId, p.probe, p.threadId, &time)) return;
        if (mode & GTRACE_MODE_DELAYING) {
            delayStep(cb);
            return;
        }
        if (isExit(op) && (flags & GTRACE_FLAG_ERRORS_ONLY) && rc == 0) return;
    }

    RamboCB* const ring = ringOf(cb);
    RamboReservation r;
    ItemPlan plan;
    constexpr Uint32 varStart = op == Op::ErrorRcVar ? 64 : 56;
    GTRecord* rec;
    if constexpr (isVar(op)) {
        plan = planItems(p.itemCount, *ap);
        rec = static_cast<GTRecord*>(rambowriter::reserveSlots(ring, plan.total + varStart, &r));
    } else if constexpr (writesWords34(op)) {
        rec = static_cast<GTRecord*>(rambowriter::reserveSlots(ring, 64, &r));
    } else {
        rec = static_cast<GTRecord*>(rambowriter::reserveOneSlot(ring, &r));
    }

    if constexpr (isVar(op)) {
        rec->itemCount = plan.kept;
        writeItems(reinterpret_cast<Uint8*>(rec) + varStart, plan, *ap);
    }
    if constexpr (writesProbe(op)) rec->probe = p.probe;
    if constexpr (writesWords(op)) {
        rec->word1 = p.word1;
        rec->word2 = p.word2;
    }
    if constexpr (writesRc(op)) rec->returnCode = rc;
    if constexpr (writesWords34(op)) {
        Uint32* extra = reinterpret_cast<Uint32*>(reinterpret_cast<Uint8*>(rec) + 56);
        extra[0] = p.word3;
        extra[1] = p.word4;
    }
    rec->dataLength = static_cast<Uint16>(plan.total);
    rec->recordType = p.type;
    rec->recordFlags = p.recordFlags;
    rec->processID = s_processId;
    rec->fixedData1 = s_fixedData1;
    rec->fixedData2 = s_fixedData2;
    rec->threadID = p.threadId;
    rec->functionID = p.functionId;
    rec->time = time;
    rambowriter::sync(ring, &r);

    if constexpr (isExit(op)) {
        if ((flags & (GTRACE_FLAG_STOP_COUNT | GTRACE_FLAG_STOP_ON_RC)) ==
                (GTRACE_FLAG_STOP_COUNT | GTRACE_FLAG_STOP_ON_RC) &&
            rc == loadRelaxed(&cb->options.stopReturnCode))
            stopEvent(cb);
    }
    if constexpr (isErrorOp(op)) {
        if ((flags & GTRACE_FLAG_STOP_COUNT) && p.type == GTRACE_TYPE_ERROR_OP) stopEvent(cb);
    }
    if (__builtin_expect((flags & GTRACE_FLAG_CALLBACK) != 0, 0)) {
        GTraceCallback callback = loadRelaxed(&s_callback);
        if (callback == nullptr) return;
        const Uint16 probe = writesProbe(op) ? p.probe : 0;
        const Uint32* rcAddress = isExit(op) ? p.rcAddress : nullptr;
        if constexpr (isVar(op)) {
            callWithItems(callback, p.type, p.functionId, probe, rcAddress, plan.kept, *ap);
        } else {
            callback(p.type, p.functionId, probe, rcAddress, 0, nullptr);
        }
    }
}

// A marker word: the record type in its low half, recordFlags 2 from bit 16.
constexpr Uint16 markerType(Uint32 marker) {
    return static_cast<Uint16>(marker);
}
constexpr Uint16 markerFlags(Uint32 marker) {
    return (marker & 0x10000u) ? GTRACE_RECORD_FLAG_MARKER : 0;
}

// The overflow callback of a full stopping ring: the trace ends there.
void disableOnOverflow() {
    gtraceDisable();
}

}  // namespace

// ---------------------------------------------------------------- control

Uint32 gtraceGetAllocSize(Uint32 size) {
    const Uint32 ring = ramboGetAllocSize(size);
    return ring == 0 ? 0 : ring + static_cast<Uint32>(sizeof(GTCB));
}

Uint32 gtraceInitialize(GTCB* area, const GTCBOptions* options) {
    if (options == nullptr) return ECF_INVALID_PARAMETER;
    if (options->bufferSize < RAMBO_MIN_BUFFER_SIZE || options->bufferSize > RAMBO_MAX_BUFFER_SIZE)
        return ECF_GTRACE_INVALID_BUFFER_SIZE;
    if (area == nullptr) return ECF_INVALID_PARAMETER;

    const Uint32 modeBits = options->modeBits;
    if (modeBits & GTRACE_MODE_COUNTING) {
        memset(static_cast<void*>(area), 0, sizeof(GTCB));
        memset(tableOf(area), 0, options->bufferSize);
        memcpy(static_cast<void*>(&area->options), options, sizeof(GTCBOptions));
        area->options.flags |= GTRACE_FLAG_COUNTING;
        area->enabled = 0;
        area->eventCount = 0;
        __atomic_store_n(&area->initialized, 1u, __ATOMIC_RELEASE);
        return 0;
    }

    Uint32 ringMode;
    if (modeBits & GTRACE_MODE_CHUNKED)
        ringMode = RAMBO_MODE_CHUNKED;
    else if (modeBits & GTRACE_MODE_WRAP)
        ringMode = RAMBO_MODE_WRAP;
    else if (modeBits & (GTRACE_MODE_STOP | GTRACE_MODE_DELAYING))
        ringMode = RAMBO_MODE_STOP;
    else
        return ECF_INVALID_PARAMETER;

    memset(static_cast<void*>(area), 0, sizeof(GTCB));
    const Uint32 rc = ramboInitialize(ringOf(area), options->bufferSize, ringMode);
    if (rc != 0) return rc;
    memcpy(static_cast<void*>(&area->options), options, sizeof(GTCBOptions));
    // Delaying mode sends every trace point to the slow path, where the delay step stands.
    if (modeBits & GTRACE_MODE_DELAYING) area->options.flags |= GTRACE_FLAG_DELAYING;
    area->enabled = 0;
    area->eventCount = 1;
    __atomic_store_n(&area->initialized, 1u, __ATOMIC_RELEASE);
    return 0;
}

Uint32 gtraceAttach(GTCB* block, Uint32 processId, GTraceCallback callback,
                    GTraceDisableCallback disableCallback) {
    if (block == nullptr) return ECF_INVALID_PARAMETER;
    zepTickRegisterTest();
    s_processId = processId;
    storeRelaxed(&s_callback, callback);
    storeRelaxed(&s_disableCallback, disableCallback);
    __atomic_store_n(&g_pGTCB, block, __ATOMIC_RELEASE);
    ramboSetCallBack(disableOnOverflow);
    if ((block->options.modeBits & GTRACE_MODE_COUNTING) &&
        (loadRelaxed(&block->options.flags) & GTRACE_FLAG_COUNT_TIME))
        ensureStackSlot();
    return 0;
}

Uint32 gtraceDetach(void) {
    __atomic_store_n(&g_pGTCB, static_cast<GTCB*>(nullptr), __ATOMIC_RELEASE);
    storeRelaxed(&s_callback, static_cast<GTraceCallback>(nullptr));
    storeRelaxed(&s_disableCallback, static_cast<GTraceDisableCallback>(nullptr));
    return 0;
}

Uint32 gtraceEnable(void) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    __atomic_store_n(&cb->enabled, 1u, __ATOMIC_RELEASE);
    return 0;
}

Uint32 gtraceDisable(void) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    __atomic_store_n(&cb->enabled, 0u, __ATOMIC_RELEASE);
    if (GTraceDisableCallback callback = loadRelaxed(&s_disableCallback)) callback();
    return 0;
}

Uint32 gtraceGetOptions(GTCBOptions* options) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (options == nullptr) return ECF_INVALID_PARAMETER;
    memcpy(static_cast<void*>(options), &cb->options, sizeof(GTCBOptions));
    return 0;
}

Uint32 gtraceGetOptionsPtr(GTCBOptions** options) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (options == nullptr) return ECF_INVALID_PARAMETER;
    *options = &cb->options;
    return 0;
}

Uint32 gtraceSetOptions(GTCBOptions* options) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (options == nullptr) return ECF_INVALID_PARAMETER;
    const Uint32 mode = cb->options.modeBits;
    // Time can only be measured in counting mode if it was asked for when the block was built.
    if (mode & GTRACE_MODE_COUNTING)
        options->flags &= ~(GTRACE_FLAG_TIMESTAMP | GTRACE_FLAG_COUNT_TIME);
    // Running trace points read the flags word at any moment: in counting and delaying mode it
    // must never be seen without the mode's gate bit, or a point takes the ring path over a
    // counting table or a stopping ring. So the rest is copied first and the flags, gate bit
    // included, are stored last in one word.
    Uint32 flags = options->flags;
    if (mode & GTRACE_MODE_COUNTING) flags |= GTRACE_FLAG_COUNTING;
    if (mode & GTRACE_MODE_DELAYING) flags |= GTRACE_FLAG_DELAYING;
    constexpr size_t from = offsetof(GTCBOptions, flags) + sizeof(Uint32);
    memcpy(reinterpret_cast<Uint8*>(&cb->options) + from,
           reinterpret_cast<const Uint8*>(options) + from, sizeof(GTCBOptions) - from);
    __atomic_store_n(&cb->options.flags, flags, __ATOMIC_RELEASE);
    return 0;
}

Uint32 gtraceClear(void) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (cb->options.modeBits & GTRACE_MODE_COUNTING) {
        memset(tableOf(cb), 0, cb->options.bufferSize);
        return 0;
    }
    return ramboNewSequence(ringOf(cb));
}

void gtraceSetProcessID(Uint32 processId) {
    s_processId = processId;
}
void gtraceSetFixedData1(Uint32 value) {
    s_fixedData1 = value;
}
void gtraceSetFixedData2(Uint32 value) {
    s_fixedData2 = value;
}

Uint32 gtraceGetDumpHeaderBuffer(Uint8 instantaneous, GTDumpHeader* header, void** store,
                                 Uint32* size) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (header == nullptr) return ECF_INVALID_PARAMETER;
    memcpy(header->eyeCatcher, GTRACE_DUMP_EYE_CATCHER, sizeof(header->eyeCatcher));
    memcpy(static_cast<void*>(&header->options), &cb->options, sizeof(GTCBOptions));
    header->tickFactor.initialize();
    if (cb->options.modeBits & GTRACE_MODE_COUNTING) {
        if (store) *store = tableOf(cb);
        if (size) *size = cb->options.bufferSize;
        return 0;
    }
    return ramboGetDumpHeaderBuffer(ringOf(cb), instantaneous, &header->rambo, store, size);
}

Uint32 gtraceGetDumpTail(RamboDumpTail* tail) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (tail == nullptr) return ECF_INVALID_PARAMETER;
    if (cb->options.modeBits & GTRACE_MODE_COUNTING) return 0;
    return ramboGetDumpTail(ringOf(cb), tail);
}

Uint32 gtraceAutoDumpEnabled(Uint8 flag) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    return ramboAutoDumpEnabled(ringOf(cb), flag);
}

Uint32 gtraceInitializeChunkWalker(RamboChunkWalker* walker) {
    GTCB* cb;
    if (Uint32 rc = checkBlock(&cb)) return rc;
    if (walker == nullptr) return ECF_INVALID_PARAMETER;
    return ramboInitializeChunkWalker(ringOf(cb), walker);
}

// ---------------------------------------------------------------- emission
//
// Each operation describes its point: {op, T, F, type, recordFlags, probe, word1, word2, rc,
// word3, word4, rc address, item count}.

void _gtraceEntry(Uint64 threadId, Uint32 functionId) {
    emit<Op::Entry>({Op::Entry, threadId, functionId, GTRACE_TYPE_ENTRY}, nullptr);
}

void _gtraceExit(Uint64 threadId, Uint32 functionId, const Uint32* rc, Uint32 word1, Uint32 word2) {
    emit<Op::Exit>(
        {Op::Exit, threadId, functionId, GTRACE_TYPE_EXIT, 0, 0, word1, word2, 0, 0, 0, rc},
        nullptr);
}

void _gtraceMarker(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 marker) {
    emit<Op::Marker>(
        {Op::Marker, threadId, functionId, markerType(marker), markerFlags(marker), probe},
        nullptr);
}

void _gtraceError(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type, Uint32 word1,
                  Uint32 word2) {
    emit<Op::Error>({Op::Error, threadId, functionId, type, 0, probe, word1, word2}, nullptr);
}

void _gtraceErrorRc(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type, Uint32 word1,
                    Uint32 word2, Uint32 rc, Uint32 word3, Uint32 word4) {
    emit<Op::ErrorRc>(
        {Op::ErrorRc, threadId, functionId, type, 0, probe, word1, word2, rc, word3, word4},
        nullptr);
}

void _gtraceErrorTrans(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 word1, Uint32 word2,
                       Uint32 word3, Uint32 word4) {
    emit<Op::ErrorTrans>({Op::ErrorTrans, threadId, functionId, GTRACE_TYPE_ERROR_TRANS, 0, probe,
                          word1, word2, 0, word3, word4},
                         nullptr);
}

// The Var forms: the items follow the item count.
#define GTRACE_EMIT_VAR(op, ...)                            \
    va_list ap;                                             \
    va_start(ap, itemCount);                                \
    emit<op>({op, threadId, functionId, __VA_ARGS__}, &ap); \
    va_end(ap)

void _gtraceEntryVar(Uint64 threadId, Uint32 functionId, Uint32 itemCount, ...) {
    GTRACE_EMIT_VAR(Op::EntryVar, GTRACE_TYPE_ENTRY, 0, 0, 0, 0, 0, 0, 0, nullptr, itemCount);
}

void _gtraceExitVar(Uint64 threadId, Uint32 functionId, const Uint32* rc, Uint32 word1,
                    Uint32 word2, Uint32 itemCount, ...) {
    GTRACE_EMIT_VAR(Op::ExitVar, GTRACE_TYPE_EXIT, 0, 0, word1, word2, 0, 0, 0, rc, itemCount);
}

void _gtraceMarkerVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 marker,
                      Uint32 itemCount, ...) {
    GTRACE_EMIT_VAR(Op::MarkerVar, markerType(marker), markerFlags(marker), probe, 0, 0, 0, 0, 0,
                    nullptr, itemCount);
}

void _gtraceVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type, Uint32 itemCount,
                ...) {
    GTRACE_EMIT_VAR(Op::Var, type, 0, probe, 0, 0, 0, 0, 0, nullptr, itemCount);
}

void _gtraceErrorVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type, Uint32 word1,
                     Uint32 word2, Uint32 itemCount, ...) {
    GTRACE_EMIT_VAR(Op::ErrorVar, type, 0, probe, word1, word2, 0, 0, 0, nullptr, itemCount);
}

void _gtraceErrorRcVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint16 type, Uint32 word1,
                       Uint32 word2, Uint32 rc, Uint32 word3, Uint32 word4, Uint32 itemCount, ...) {
    GTRACE_EMIT_VAR(Op::ErrorRcVar, type, 0, probe, word1, word2, rc, word3, word4, nullptr,
                    itemCount);
}

void _gtraceCorrelatorVar(Uint64 threadId, Uint32 functionId, Uint16 probe, Uint32 rc, Uint32 word1,
                          Uint32 word2, Uint32 itemCount, ...) {
    GTRACE_EMIT_VAR(Op::CorrelatorVar, GTRACE_TYPE_CORRELATOR, 0, probe, word1, word2, rc, 0, 0,
                    nullptr, itemCount);
}
