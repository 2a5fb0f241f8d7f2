// zepalloc.cpp - the allocator: heap blocks in the debugger's layouts, the hold on freed blocks,
// and the offset-based areas.
#include "zepmemory.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "zepecf.h"
#include "zeperror.h"
#include "zeplog.h"
#include "zepnumconv.h"
#include "zepos.h"

namespace {

ZEPMemDebugCB& cb = g_zepMemDebugCB;

constexpr Uint32 kHeader = sizeof(ZEPMemBlockHeader);
constexpr Uint32 kRecord = sizeof(ZEPMemDebugRecord);
constexpr Uint32 kTrailer = 8;  // size and mode word behind the back pads of full mode

void store32(char* at, Uint32 v) {
    memcpy(at, &v, sizeof v);
}

void store64(char* at, Uint64 v) {
    memcpy(at, &v, sizeof v);
}

void storeWords(char* at, Uint32 a, Uint32 b, Uint32 c, Uint32 d) {
    const Uint32 words[4] = {a, b, c, d};
    memcpy(at, words, sizeof words);
}

// ---- the header's file hash, over the base name

// The part behind the last '/' or '\\'; its length through `length`.
const char* baseName(String file, size_t* length) {
    if (file == nullptr) {
        *length = 0;
        return "";
    }
    // Every allocation comes here with a whole path: the searches run backwards on whole words.
    const size_t n = strlen(file);
    const char* base = file;
    if (const void* slash = memrchr(file, '/', n)) base = static_cast<const char*>(slash) + 1;
    const size_t rest = n - static_cast<size_t>(base - file);
    if (const void* back = memrchr(base, '\\', rest)) base = static_cast<const char*>(back) + 1;
    *length = n - static_cast<size_t>(base - file);
    return base;
}

Uint32 fileHash(const char* name, size_t length) {
    const Uint8* b = reinterpret_cast<const Uint8*>(name);
    Uint32 h = 0;
    if (length > 6)
        h = (Uint32{b[3]} << 28) | (Uint32{b[4]} << 21) | (Uint32{b[5]} << 13) |
            (Uint32{b[6]} << 5);
    size_t i = 0;
    for (; length - i >= 4; i += 4) {
        // The four bytes as a big-endian word: first << 24 ^ second << 16 ^ ...
        Uint32 w;
        memcpy(&w, b + i, 4);
        h ^= __builtin_bswap32(w);
    }
    switch (length - i) {  // the last bytes, the final one lowest
        case 3:
            h ^= (Uint32{b[i]} << 16) ^ (Uint32{b[i + 1]} << 8) ^ Uint32 { b[i + 2] };
            break;
        case 2:
            h ^= (Uint32{b[i]} << 8) ^ Uint32 { b[i + 1] };
            break;
        case 1:
            h ^= Uint32{b[i]};
            break;
        default:
            break;
    }
    return h;
}

// The base name and hash of a caller's file string, by the string's address: callers pass their
// __FILE__, a string that neither moves nor changes, so each call site works its name out once
// per thread. The cache is the thread's own (no torn entry between threads), direct-mapped.
struct Site {
    String file;
    Uint32 hash;
    Uint16 baseOffset;
    Uint16 baseLength;
};
constexpr Uint32 kSites = 64;
__thread Site t_sites[kSites] __attribute__((tls_model("initial-exec")));

__attribute__((noinline)) void learnSite(Site& s, String file) {
    size_t length;
    const char* base = baseName(file, &length);
    s.hash = fileHash(base, length);
    // Names beyond 64 KiB are cut; the record keeps 19 characters of them anyway.
    s.baseOffset = static_cast<Uint16>(file ? base - file : 0);
    s.baseLength = static_cast<Uint16>(length < 0xFFFF ? length : 0xFFFF);
    s.file = file;
}

inline const Site& siteOf(String file) {
    Site& s = t_sites[(reinterpret_cast<uintptr_t>(file) >> 3) & (kSites - 1)];
    if (__builtin_expect(s.file != file || file == nullptr, 0)) learnSite(s, file);
    return s;
}

// ---- the hold on freed blocks, and their reuse
//
// Each thread keeps its most recently freed blocks from the heap, so that a second free (by any
// thread) still finds the freed block's marks and not memory the heap gave to somebody else or
// unmapped. The ring is plain thread-local data; a key's destructor gives it back when the
// thread ends, and frees that come later in the thread's end go to the heap at once.
//
// A block that leaves the ring need not go back to the heap at once either: an idle block is
// kept for the thread's next idle allocation of the same rounded size, which then skips both
// `free` and `malloc`. Each rounded size up to 1,024 bytes keeps at most kReusePerSize blocks
// (at most about 280 KiB a thread when every size is full, the order of what the C library's
// own per-thread cache may keep); a block beyond that, or larger, goes to the heap. A block
// waiting for reuse still bears its freed marks, so a late second free is still found.

constexpr Uint32 kReuseSizes = 128;  // rounded sizes 8, 16, ... 1,024, by rounded size / 8
constexpr Uint32 kReusePerSize = 4;
constexpr Uint32 kNoReuse = 0;  // the class of a block that goes back to the heap

// The reuse class of an idle block of `size` bytes: its rounded size / 8, or kNoReuse.
inline Uint32 reuseClass(Uint32 size) {
    const Uint64 eighths = (Uint64{size} + 7) >> 3;
    return eighths <= kReuseSizes ? static_cast<Uint32>(eighths) : kNoReuse;
}

struct Held {
    void* start;
    Uint32 bytes;
    Uint32 reuse;  // its reuse class, kNoReuse for all but idle blocks
};

static_assert((ZEP_MEMDBG_QUARANTINE_BLOCKS & (ZEP_MEMDBG_QUARANTINE_BLOCKS - 1)) == 0,
              "the ring's index wraps by a mask");

struct Quarantine {
    Held ring[ZEP_MEMDBG_QUARANTINE_BLOCKS];
    Uint32 oldest;
    Uint32 count;
    size_t bytes;
    Uint8 reusable[kReuseSizes + 1];  // by class; class 0 is never filled
    void* reuse[kReuseSizes + 1][kReusePerSize];
};

// The thread's ring, made at its first free; kClosed once the thread's end gave it back. The
// pointer alone is thread-local, in the initial-exec model: one load, no call, on every free.
Quarantine* const kClosed = reinterpret_cast<Quarantine*>(1);
__thread Quarantine* t_quarantine __attribute__((tls_model("initial-exec"))) = nullptr;

pthread_key_t s_quarantineKey;
pthread_once_t s_quarantineOnce = PTHREAD_ONCE_INIT;

// A block leaves the ring: kept for reuse if its class has room, else given to the heap.
inline void retire(Quarantine& q, void* start, Uint32 reuse) {
    Uint8& n = q.reusable[reuse];
    if (reuse != kNoReuse && n < kReusePerSize)
        q.reuse[reuse][n++] = start;
    else
        free(start);
}

void releaseOldest(Quarantine& q) {
    Held& h = q.ring[q.oldest];
    retire(q, h.start, h.reuse);
    q.bytes -= h.bytes;
    q.oldest = (q.oldest + 1) & (ZEP_MEMDBG_QUARANTINE_BLOCKS - 1);
    --q.count;
}

void closeQuarantine(void* p) {
    Quarantine* q = static_cast<Quarantine*>(p);
    while (q->count > 0) {
        free(q->ring[q->oldest].start);
        q->oldest = (q->oldest + 1) & (ZEP_MEMDBG_QUARANTINE_BLOCKS - 1);
        --q->count;
    }
    for (Uint32 c = 0; c <= kReuseSizes; ++c)
        for (Uint32 i = 0; i < q->reusable[c]; ++i) free(q->reuse[c][i]);
    free(q);
    t_quarantine = kClosed;
}

void createQuarantineKey() {
    pthread_key_create(&s_quarantineKey, closeQuarantine);
}

Quarantine* openQuarantine() {
    Quarantine* q = static_cast<Quarantine*>(calloc(1, sizeof(Quarantine)));
    if (q == nullptr) return nullptr;
    pthread_once(&s_quarantineOnce, createQuarantineKey);
    pthread_setspecific(s_quarantineKey, q);
    t_quarantine = q;
    return q;
}

__attribute__((noinline)) void holdSlow(void* start, Uint32 bytes, Uint32 reuse) {
    Quarantine* q = t_quarantine;
    if (q == nullptr) q = openQuarantine();
    if (q == nullptr || q == kClosed) {
        free(start);
        return;
    }
    while (q->count == ZEP_MEMDBG_QUARANTINE_BLOCKS ||
           (q->count > 0 && q->bytes + bytes > ZEP_MEMDBG_QUARANTINE_BYTES))
        releaseOldest(*q);
    q->ring[(q->oldest + q->count) & (ZEP_MEMDBG_QUARANTINE_BLOCKS - 1)] =
        Held{start, bytes, reuse};
    ++q->count;
    q->bytes += bytes;
}

// The steady state: a full ring whose bytes stay within the bound after the swap. The newest
// takes the oldest's place, which then leaves the ring.
inline void hold(void* start, Uint32 bytes, Uint32 reuse) {
    Quarantine* q = t_quarantine;
    if (__builtin_expect(reinterpret_cast<uintptr_t>(q) > 1, 1) &&
        q->count == ZEP_MEMDBG_QUARANTINE_BLOCKS) {
        Held& oldest = q->ring[q->oldest];
        const size_t after = q->bytes - oldest.bytes + bytes;
        if (after <= ZEP_MEMDBG_QUARANTINE_BYTES) {
            const Held gone = oldest;
            oldest = Held{start, bytes, reuse};
            q->oldest = (q->oldest + 1) & (ZEP_MEMDBG_QUARANTINE_BLOCKS - 1);
            q->bytes = after;
            retire(*q, gone.start, gone.reuse);
            return;
        }
    }
    holdSlow(start, bytes, reuse);
}

// A block of the given reuse class that left the ring, or null.
inline char* reused(Uint32 reuse) {
    Quarantine* q = t_quarantine;
    if (reinterpret_cast<uintptr_t>(q) > 1) {
        Uint8& n = q->reusable[reuse];
        if (n != 0) return static_cast<char*>(q->reuse[reuse][--n]);
    }
    return nullptr;
}

// ---- the heap path

struct DebugState {
    Uint32 flags, mode, frontPads, backPads;
};

// The settings are read once per allocation, as one snapshot by the control block's sequence
// (zepmemdbg.h): a change that is under way is waited for, one that slipped in is read again.
DebugState readDebugState() {
    // A locked exchange once per process: it orders the flag before the first snapshot.
    if (!__atomic_load_n(&cb.allocated, __ATOMIC_RELAXED))
        __atomic_exchange_n(&cb.allocated, 1u, __ATOMIC_SEQ_CST);
    for (;;) {
        const Uint32 before = __atomic_load_n(&cb.sequence, __ATOMIC_SEQ_CST);
        if (before & 1) {
            zepos::YieldProcessor();
            continue;
        }
        // Acquire loads: the second read of the sequence stays behind them.
        DebugState s{__atomic_load_n(&cb.flags, __ATOMIC_ACQUIRE),
                     __atomic_load_n(&cb.mode, __ATOMIC_ACQUIRE),
                     __atomic_load_n(&cb.frontPads, __ATOMIC_ACQUIRE),
                     __atomic_load_n(&cb.backPads, __ATOMIC_ACQUIRE)};
        if (__atomic_load_n(&cb.sequence, __ATOMIC_RELAXED) == before) return s;
    }
}

__attribute__((noinline)) Uint32 mallocFailed(void** result) {
    zepos::SetLastError(zepos::TranslateErrno(errno ? errno : ENOMEM));
    *result = nullptr;
    Uint32 level;
    return zepErrorMapSystem(ZEPFN_zepMemAlloc, 40, SYSFN_malloc, zepos::GetLastError(), &level);
}

Uint32 heapAllocDebug(void** result, Uint32 size, Uint32 flags, String file, Uint32 line);

// Everything but the common case goes the whole way, with the snapshot of all four settings.
inline Uint32 heapAlloc(void** result, Uint32 size, Uint32 flags, String file, Uint32 line) {
    return heapAllocDebug(result, size, flags, file, line);
}

__attribute__((noinline)) Uint32 heapAllocDebug(void** result, Uint32 size, Uint32 flags,
                                                String file, Uint32 line) {
    const DebugState s = readDebugState();
    const size_t rounded =
        s.mode == 0 ? size : (static_cast<size_t>(size) + 7) & ~static_cast<size_t>(7);
    size_t overhead = 0;
    switch (s.mode) {
        case ZEP_MEMDBG_IDLE:
            overhead = 16;
            break;
        case ZEP_MEMDBG_LIGHT:
            overhead = 32;
            break;
        case ZEP_MEMDBG_FULL:
            overhead = kRecord + kTrailer +
                       8 * (static_cast<size_t>(s.frontPads) + static_cast<size_t>(s.backPads));
            break;
        default:
            break;
    }
    char* base = static_cast<char*>(malloc(rounded + kHeader + overhead));
    if (base == nullptr) return mallocFailed(result);
    const Site& site = siteOf(file);
    const size_t nameLength = site.baseLength;
    const char* name = file ? file + site.baseOffset : "";

    char* header;
    switch (s.mode) {
        case ZEP_MEMDBG_IDLE:
            storeWords(base, 0, 0, size, ZEP_MEMDBG_IDLE);
            header = base + 16;
            break;
        case ZEP_MEMDBG_LIGHT: {
            storeWords(base, ZEP_MEMDBG_PAD_LOW, ZEP_MEMDBG_PAD_HIGH, size, ZEP_MEMDBG_LIGHT);
            header = base + 16;
            char* user = header + kHeader;
            memset(user + size, ZEP_MEMDBG_FILLER, rounded - size);
            memcpy(user + rounded, base, 16);
            break;
        }
        case ZEP_MEMDBG_FULL: {
            const Uint64 pad = ZEP_MEMDBG_PAD;
            for (Uint32 i = 0; i < s.frontPads; ++i) memcpy(base + 8 * size_t{i}, &pad, 8);
            ZEPMemDebugRecord* record =
                reinterpret_cast<ZEPMemDebugRecord*>(base + 8 * size_t{s.frontPads});
            record->next = record->prev = nullptr;
            const size_t cut =
                nameLength < sizeof record->file ? nameLength : sizeof record->file - 1;
            memcpy(record->file, name, cut);
            memset(record->file + cut, 0, sizeof record->file - cut);
            record->size = size;
            record->line = line;
            record->frontPads = s.frontPads;
            record->backPads = s.backPads;
            record->reserved[0] = record->reserved[1] = 0;
            record->mode = ZEP_MEMDBG_FULL;
            header = reinterpret_cast<char*>(record) + kRecord;
            char* user = header + kHeader;
            memset(user + size, ZEP_MEMDBG_FILLER, rounded - size);
            char* back = user + rounded;
            for (Uint32 i = 0; i < s.backPads; ++i) memcpy(back + 8 * size_t{i}, &pad, 8);
            char* trailer = back + 8 * size_t{s.backPads};
            store32(trailer, size);
            store32(trailer + 4, ZEP_MEMDBG_FULL);
            break;
        }
        default:
            header = base;
            break;
    }

    ZEPMemBlockHeader h = {(flags & ZEP_MEM_MARK) ? ZEP_MEM_EYECATCHER_MARKED : ZEP_MEM_EYECATCHER,
                           size, site.hash, line};
    memcpy(header, &h, sizeof h);
    char* user = header + kHeader;
    if (flags & ZEP_MEM_ZERO)
        memset(user, 0, size);
    else if (s.flags & ZEP_MEMDBG_FILL_NEW)
        memset(user, 0xFF, size);
    if (s.mode == ZEP_MEMDBG_FULL) {
        // Only a block that is complete goes on the list: a report may check it at once.
        ZEPMemDebugRecord* record = reinterpret_cast<ZEPMemDebugRecord*>(header - kRecord);
        zepLockGet(&cb.lock);
        record->next = cb.head;
        if (cb.head != nullptr) cb.head->prev = record;
        cb.head = record;
        zepLockRelease(&cb.lock);
    }
    *result = user;
    return 0;
}

void heapFreeChecked(void** pointer, String file, Uint32 line);

inline void heapFree(void** pointer, String file, Uint32 line) {
    char* user = static_cast<char*>(*pointer);
    // An intact idle block, the common case, has nothing the check could find: it is marked
    // freed and held back at once. Anything else goes through the whole check. (In mode 0 there is
    // no pad record in front of the header to read.)
    if (__atomic_load_n(&cb.mode, __ATOMIC_RELAXED) != 0) {
        Uint32 head[2];  // the idle record's size and mode word
        Uint32 eye;
        memcpy(head, user - kHeader - 8, sizeof head);
        memcpy(&eye, user - kHeader, sizeof eye);
        if (head[1] == ZEP_MEMDBG_IDLE && (eye & ~ZEP_MEM_EYECATCHER_FLAGS) == ZEP_MEM_EYECATCHER) {
            store32(user - kHeader, ZEP_MEM_EYECATCHER_FREED);
            store32(user - kHeader - 4, ZEP_MEMDBG_FREED);
            *pointer = nullptr;
            hold(user - kHeader - 16, head[0], reuseClass(head[0]));
            return;
        }
    }
    heapFreeChecked(pointer, file, line);
}

__attribute__((noinline)) void heapFreeChecked(void** pointer, String file, Uint32 line) {
    char* user = static_cast<char*>(*pointer);
    bool modeZero;
    const Uint32 size = zepMemCheckBlock(pointer, file, line, true, &modeZero);
    if (modeZero)
        free(user - kHeader);
    else if (*pointer != nullptr)
        hold(*pointer, size, kNoReuse);
    *pointer = nullptr;
}

// ---- areas

ZEPMemAreaNode* node(char* area, Uint32 offset) {
    return reinterpret_cast<ZEPMemAreaNode*>(area + offset);
}

void unlinkNode(char* area, Uint32 offset) {
    ZEPMemArea* a = reinterpret_cast<ZEPMemArea*>(area);
    ZEPMemAreaNode* n = node(area, offset);
    if (n->prev != 0)
        node(area, n->prev)->next = n->next;
    else
        a->head = n->next;
    if (n->next != 0) node(area, n->next)->prev = n->prev;
}

// In front of the first piece that isn't strictly larger: a new piece goes ahead of its equals.
void insertNode(char* area, Uint32 offset) {
    ZEPMemArea* a = reinterpret_cast<ZEPMemArea*>(area);
    ZEPMemAreaNode* n = node(area, offset);
    Uint32 prev = 0;
    Uint32 at = a->head;
    while (at != 0 && node(area, at)->size > n->size) {
        prev = at;
        at = node(area, at)->next;
    }
    n->prev = prev;
    n->next = at;
    if (prev != 0)
        node(area, prev)->next = offset;
    else
        a->head = offset;
    if (at != 0) node(area, at)->prev = offset;
}

bool roundToGranule(Uint32 size, Uint32* rounded) {
    if (size > 0xFFFFFFFFu - (ZEP_MEM_AREA_GRANULE - 1)) return false;
    *rounded = (size + ZEP_MEM_AREA_GRANULE - 1) / ZEP_MEM_AREA_GRANULE * ZEP_MEM_AREA_GRANULE;
    return true;
}

// Out of line, like the heap's debug modes: the idle heap path keeps a small frame.
__attribute__((noinline)) Uint32 areaAlloc(void** result, char* area, Uint32 size, Uint32 flags) {
    *result = nullptr;
    Uint32 need;
    if (!roundToGranule(size, &need)) return ECF_NO_MEMORY;
    ZEPMemArea* a = reinterpret_cast<ZEPMemArea*>(area);
    zepLockGet(&a->lock);
    // The list is sorted by descending size: the last piece that fits is the smallest, and of
    // equal ones the oldest.
    Uint32 found = 0;
    for (Uint32 at = a->head; at != 0 && node(area, at)->size >= need; at = node(area, at)->next)
        found = at;
    if (found == 0) {
        zepLockRelease(&a->lock);
        return ECF_NO_MEMORY;
    }
    unlinkNode(area, found);
    const Uint32 have = node(area, found)->size;
    if (flags & ZEP_MEM_ZERO) memset(area + found, 0, need);
    if (have > need) {
        ZEPMemAreaNode* rest = node(area, found + need);
        rest->size = have - need;
        insertNode(area, found + need);
    }
    *result = area + found;
    zepLockRelease(&a->lock);
    return 0;
}

__attribute__((noinline)) Uint32 areaFree(char* area, void* block, Uint32 size) {
    Uint32 rounded;
    if (size == 0 || !roundToGranule(size, &rounded)) return ECF_INVALID_PARAMETER;
    Uint32 piece = static_cast<Uint32>(static_cast<char*>(block) - area);
    ZEPMemAreaNode* n = node(area, piece);
    n->next = n->prev = 0;
    n->size = rounded;
    ZEPMemArea* a = reinterpret_cast<ZEPMemArea*>(area);
    zepLockGet(&a->lock);
    // One pass merges both neighbours: the one behind joins the piece, and the piece joins the
    // one in front, which then stands for the piece.
    for (Uint32 at = a->head; at != 0;) {
        const Uint32 next = node(area, at)->next;
        if (at == piece + node(area, piece)->size) {
            node(area, piece)->size += node(area, at)->size;
            unlinkNode(area, at);
        } else if (piece == at + node(area, at)->size) {
            node(area, at)->size += node(area, piece)->size;
            unlinkNode(area, at);
            piece = at;
        }
        at = next;
    }
    insertNode(area, piece);
    zepLockRelease(&a->lock);
    return 0;
}

// A tool or a signal handler may set the flag; the next call of any thread writes the report.
__attribute__((noinline)) void reportAsked() {
    if (__atomic_exchange_n(&g_bDumpMemAllocListFlag, 0, __ATOMIC_ACQ_REL)) zepMemAllocList(1);
}

inline void reportIfAsked() {
    if (__builtin_expect(__atomic_load_n(&g_bDumpMemAllocListFlag, __ATOMIC_RELAXED) != 0, 0))
        reportAsked();
}

}  // namespace

namespace {

__attribute__((noinline)) Uint32 allocSlow(void** result, void* area, Uint32 size, Uint32 flags,
                                           String file, Uint32 line) {
    if (result == nullptr || size == 0 || (flags & ~(ZEP_MEM_ZERO | ZEP_MEM_MARK)) != 0)
        return ECF_INVALID_PARAMETER;
    reportIfAsked();
    if (area != nullptr) return areaAlloc(result, static_cast<char*>(area), size, flags);
    return heapAlloc(result, size, flags, file, line);
}

// The flags and the mode lie side by side and are read as one word: whatever a change under way
// has stored so far, an idle block made now is one made before the change.
typedef Uint64 __attribute__((may_alias)) SettingsPair;
static_assert(offsetof(ZEPMemDebugCB, flags) == 0 && offsetof(ZEPMemDebugCB, mode) == 4,
              "the flags and the mode make one word");
static_assert(sizeof(ZEPMemBlockHeader) == 16, "the header is two 8-byte words");

}  // namespace

// The common case takes one test: a heap block in idle mode (new blocks not filled), a valid
// call that doesn't ask for zeroing, no report asked for, the allocated flag set long ago;
// anything else goes the whole way.
// Its block is the pad record {0, 0, size, mode} and the header {eye-catcher, size, hash, line},
// stored as four 8-byte words. The hash is looked up before `malloc`, so that only the words and
// the result live across it.
Uint32 _zepMemAlloc(void** result, void* area, Uint32 size, Uint32 flags, String file,
                    Uint32 line) {
    const Uint64 pair =
        __atomic_load_n(reinterpret_cast<const SettingsPair*>(&cb.flags), __ATOMIC_ACQUIRE);
    if (__builtin_expect((pair >> 32) == ZEP_MEMDBG_IDLE && !(pair & ZEP_MEMDBG_FILL_NEW) &&
                             area == nullptr && result != nullptr && size != 0 &&
                             (flags & ~ZEP_MEM_MARK) == 0 &&
                             !__atomic_load_n(&g_bDumpMemAllocListFlag, __ATOMIC_RELAXED) &&
                             __atomic_load_n(&cb.allocated, __ATOMIC_RELAXED) != 0,
                         1)) {
        const Uint64 tail = (Uint64{line} << 32) | siteOf(file).hash;
        const Uint64 sizeWord = (Uint64{ZEP_MEMDBG_IDLE} << 32) | size;
        const Uint64 eyeWord = (Uint64{size} << 32) | (ZEP_MEM_EYECATCHER | (flags >> 1));
        const Uint32 reuse = reuseClass(size);
        char* base = reused(reuse);
        if (base == nullptr) {
            base = static_cast<char*>(malloc(((size_t{size} + 7) & ~size_t{7}) + 32));
            if (__builtin_expect(base == nullptr, 0)) return mallocFailed(result);
        }
        store64(base, 0);
        store64(base + 8, sizeWord);
        store64(base + 16, eyeWord);
        store64(base + 24, tail);
        *result = base + 32;
        return 0;
    }
    return allocSlow(result, area, size, flags, file, line);
}

namespace {

__attribute__((noinline, cold)) Uint32 freeOfNull(String file, Uint32 line) {
    char text[1024];
    zepSnprintf(text, sizeof text,
                "NULL pointer for memory allocation address found at: %s, line %u",
                file ? file : "", line);
    zepLog(nullptr, ZEPFN_zepMemFree, ECF_MEM_NULL_POINTER, 20, ZEP_LOG_ERROR, 1, text,
           static_cast<Uint32>(strlen(text)), ZEP_LOGDATA_STRING);
    return ECF_MEM_NULL_POINTER;
}

}  // namespace

namespace {

__attribute__((noinline)) Uint32 freeSlow(void** pointer, void* area, Uint32 size, String file,
                                          Uint32 line) {
    if (pointer == nullptr) return ECF_INVALID_PARAMETER;
    if (*pointer == nullptr) return freeOfNull(file, line);
    reportIfAsked();
    if (area != nullptr) return areaFree(static_cast<char*>(area), *pointer, size);
    heapFree(pointer, file, line);
    return 0;
}

}  // namespace

// The common case: an intact idle block of the heap, no report asked for. Nothing in it could be
// a finding, so it is marked freed and held back at once; anything else goes through the whole
// check. (In mode 0 there is no pad record in front of the header to read.)
Uint32 _zepMemFree(void** pointer, void* area, Uint32 size, String file, Uint32 line) {
    if (__builtin_expect(pointer != nullptr && area == nullptr, 1)) {
        char* user = static_cast<char*>(*pointer);
        if (__builtin_expect(user != nullptr &&
                                 !__atomic_load_n(&g_bDumpMemAllocListFlag, __ATOMIC_RELAXED) &&
                                 __atomic_load_n(&cb.mode, __ATOMIC_RELAXED) != 0,
                             1)) {
            Uint64 sizeWord;  // the pad record's size and mode word
            Uint32 eye;
            memcpy(&sizeWord, user - 24, sizeof sizeWord);
            memcpy(&eye, user - 16, sizeof eye);
            if (__builtin_expect((sizeWord >> 32) == ZEP_MEMDBG_IDLE &&
                                     (eye & ~ZEP_MEM_EYECATCHER_FLAGS) == ZEP_MEM_EYECATCHER,
                                 1)) {
                // The mode word and the eye-catcher side by side, as one store.
                store64(user - 20, (Uint64{ZEP_MEM_EYECATCHER_FREED} << 32) | ZEP_MEMDBG_FREED);
                *pointer = nullptr;
                const Uint32 bytes = static_cast<Uint32>(sizeWord);
                hold(user - 32, bytes, reuseClass(bytes));
                return 0;
            }
        }
    }
    return freeSlow(pointer, area, size, file, line);
}

Uint32 zepMemAreaInit(void* area, Uint32 size) {
    if (size < ZEP_MEM_AREA_HEAD_SIZE) return 0;
    char* base = static_cast<char*>(area);
    ZEPMemArea* a = reinterpret_cast<ZEPMemArea*>(base);
    const Uint32 usable =
        (size - ZEP_MEM_AREA_HEAD_SIZE) / ZEP_MEM_AREA_GRANULE * ZEP_MEM_AREA_GRANULE;
    memset(a, 0, sizeof *a);
    a->lock = ZEPLOCK_UNLOCKED;
    a->reserved = 0;
    a->usable = usable;
    a->head = 0;
    if (usable >= ZEP_MEM_AREA_GRANULE) {
        ZEPMemAreaNode* first = node(base, ZEP_MEM_AREA_HEAD_SIZE);
        first->next = first->prev = 0;
        first->size = usable;
        a->head = ZEP_MEM_AREA_HEAD_SIZE;
    }
    return 0;
}
