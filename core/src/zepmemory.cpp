// zepmemory.cpp - the memory debugger: its control block and start-up step, the check of a
// block with its findings, and the reports of live blocks.
#include "zepmemdbg.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "zepassert.h"
#include "zepecf.h"
#include "zeplib.h"
#include "zepmemory.h"
#include "zepnumconv.h"
#include "zepos.h"

Char g_szMemDebugLogPath[ZEP_MAX_PATH] = {};
Bool g_bIsMemoryFFDCEnabledFlag = 0;
Bool g_bDumpMemAllocListFlag = 0;
ZEPMemDebugCB* g_pMemDebugCB = nullptr;

ZEPMemDebugCB g_zepMemDebugCB = {};

namespace {

ZEPMemDebugCB& cb = g_zepMemDebugCB;

constexpr Uint32 kHeader = sizeof(ZEPMemBlockHeader);
constexpr Uint32 kRecord = sizeof(ZEPMemDebugRecord);
constexpr Uint32 kLineWidth = 76;

Uint32 load32(const char* at) {
    Uint32 v;
    memcpy(&v, at, sizeof v);
    return v;
}
Uint64 load64(const char* at) {
    Uint64 v;
    memcpy(&v, at, sizeof v);
    return v;
}
void store32(char* at, Uint32 v) {
    memcpy(at, &v, sizeof v);
}

size_t roundedSize(Uint32 size) {
    return (static_cast<size_t>(size) + 7) & ~static_cast<size_t>(7);
}

// A finding: a non-fatal assertion with the caller's position, into this thread's ".mem" file.
void finding(String file, Uint32 line, String message) {
    zepAssertFailureAction(message, file, line, g_szMemDebugLogPath, 0, nullptr);
}

template <class... Args>
void findingf(String file, Uint32 line, String format, Args... args) {
    char message[128];
    zepSnprintf(message, sizeof message, format, args...);
    finding(file, line, message);
}

// The live list runs through the blocks themselves, so an underrun can overwrite a record's
// links. A walk goes on only to a record that can be read and that links back to the one it came
// from; anything else is where the list is damaged, and the walk stops there.
bool linksBack(const ZEPMemDebugRecord* r, const ZEPMemDebugRecord* from) {
    return !zepos::IsBadReadPtr(r, kRecord + kHeader) && r->prev == from;
}

// Calls visit(record) for each record of the list that can be trusted, in order. Returns the
// first record that can't (null when the list is whole).
template <class Visit>
ZEPMemDebugRecord* walkLive(Visit visit) {
    ZEPMemDebugRecord* from = nullptr;
    for (ZEPMemDebugRecord* r = cb.head; r != nullptr; from = r, r = r->next) {
        if (!linksBack(r, from)) return r;
        if (!visit(r)) break;
    }
    return nullptr;
}

// Takes a record off the live list. A record whose front pads were damaged may be damaged too;
// then it is unlinked only if a checked walk finds it on the list, so that a wild link is never
// followed.
void unlinkRecord(ZEPMemDebugRecord* r, bool trusted) {
    if (!trusted) {
        bool found = false;
        walkLive([&](ZEPMemDebugRecord* at) { return !(found = at == r); });
        if (!found) return;
    }
    if (r->prev != nullptr)
        r->prev->next = r->next;
    else
        cb.head = r->next;
    if (r->next != nullptr) r->next->prev = r->prev;
    r->next = r->prev = nullptr;
}

void line76(FILE* out, char c) {
    char text[kLineWidth + 2];
    memset(text, c, kLineWidth);
    text[kLineWidth] = '\n';
    text[kLineWidth + 1] = 0;
    fputs(text, out);
}

// The level names of ZEPEMEMDBG and what they set.
struct Level {
    const char* name;
    Uint32 mode, flags;
    bool ffdc;
};
constexpr Level kLevels[] = {
    {"FULL", ZEP_MEMDBG_FULL, 0x0F, false},   {"CORRUPTIONS", ZEP_MEMDBG_FULL, 0x0F, false},
    {"LEAKS", ZEP_MEMDBG_FULL, 0x2F, true},   {"ALL", ZEP_MEMDBG_FULL, 0x2F, true},
    {"LIGHT", ZEP_MEMDBG_LIGHT, 0x0B, false},
};

void debugLogName(char* name, size_t size) {
    zepSnprintf(name, static_cast<Uint32>(size), "%s%c%s", g_szMemDebugLogPath, ZEP_PATH_SEPARATOR,
                "zepememdbg.log");
}

void copyField(char* to, size_t size, const char* from, size_t length) {
    if (length > size - 1) length = size - 1;
    memcpy(to, from, length);
    to[length] = 0;
}

}  // namespace

// ---- the start-up step

void zepMemOneTimeOnly(void) {
    memset(&cb, 0, sizeof cb);
    cb.lock = ZEPLOCK_UNLOCKED;
    g_pMemDebugCB = nullptr;

    const char* value = getenv("ZEPEMEMDBG");
    if (value == nullptr) {
        zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 0, 0);
        return;
    }

    char copy[ZEP_MAX_PATH];
    copyField(copy, sizeof copy, value, strlen(value));
    // Fields are split at commas; empty fields don't count.
    char level[19] = {};
    int fields = 0;
    for (const char* at = copy; *at != 0;) {
        const char* end = strchr(at, ',');
        size_t length = end ? static_cast<size_t>(end - at) : strlen(at);
        if (length > 0) {
            ++fields;
            if (fields == 1)
                copyField(g_szMemDebugLogPath, sizeof g_szMemDebugLogPath, at, length);
            else if (fields == 2)
                copyField(level, sizeof level, at, length);
        }
        at += length;
        if (*at == ',') ++at;
    }
    const Level* chosen = nullptr;
    if (fields == 2)
        for (const Level& l : kLevels)
            if (strcasecmp(level, l.name) == 0) chosen = &l;

    char name[ZEP_MAX_PATH + 16];
    debugLogName(name, sizeof name);
    if (chosen != nullptr) {
        if (chosen->ffdc) zepMemSetMemFFDCEnabledFlag();
        zepMemSetDebug(chosen->flags, chosen->mode, 2, 2);
        if (FILE* log = fopen(name, "a")) {
            fprintf(log, "PID            = 0x%X\n", zepProcessID());
            fputs("---------------------------------\n", log);
            fprintf(log, "mode           = %s\n", level);
            fprintf(log, "flags          = 0x%X\n", chosen->flags);
            fprintf(log, "Front pad size = %u\n", 2u);
            fprintf(log, "Back pad size  = %u\n", 2u);
            fputs("\n", log);
            fclose(log);
        }
    } else {
        zepMemSetDebug(0, ZEP_MEMDBG_IDLE, 2, 2);
        if (g_szMemDebugLogPath[0] != 0) {
            if (FILE* log = fopen(name, "w")) {
                fprintf(log, "PID = 0x%X\n", zepProcessID());
                fputs("----------------------------------------------------\n", log);
                fprintf(log, "Original Debug String is %s\n", value);
                fputs(
                    "Invalid ZEPEMEMDBG string detected.\n\nUsage : export "
                    "ZEPEMEMDBG=<PATH>,<LEVEL>\n   where <PATH> is the path to store "
                    "zepememdbg.log\n         <LEVEL> is one of the ZEPFULL, LIGHT, or IDLE\n\n",
                    log);
                fclose(log);
            }
        }
    }
    if (cb.mode == ZEP_MEMDBG_FULL) g_pMemDebugCB = &cb;
}

// ---- settings

Uint32 zepMemSetDebug(Uint32 flags, Uint32 mode, Uint32 frontPads, Uint32 backPads) {
    if (mode != 0 && mode != ZEP_MEMDBG_IDLE && mode != ZEP_MEMDBG_LIGHT && mode != ZEP_MEMDBG_FULL)
        return ECF_INVALID_PARAMETER;
    Uint32 rc = 0;
    zepLockGet(&cb.lock);
    // Odd while the settings change; the locked add orders that before the read of `allocated`
    // (zepmemdbg.h tells why).
    __atomic_fetch_add(&cb.sequence, 1u, __ATOMIC_SEQ_CST);
    __atomic_store_n(&cb.flags, flags, __ATOMIC_RELAXED);
    __atomic_store_n(&cb.frontPads, frontPads, __ATOMIC_RELAXED);
    __atomic_store_n(&cb.backPads, backPads, __ATOMIC_RELAXED);
    if (__atomic_load_n(&cb.allocated, __ATOMIC_SEQ_CST) && (cb.mode == 0) != (mode == 0))
        rc = ECF_MEM_CANNOT_TOGGLE_MEM_DEBUG_AFTER_ALLOC;
    else
        __atomic_store_n(&cb.mode, mode, __ATOMIC_RELAXED);
    __atomic_store_n(&cb.sequence, cb.sequence + 1, __ATOMIC_RELEASE);
    zepLockRelease(&cb.lock);
    return rc;
}

void zepMemSetMemFFDCEnabledFlag(void) {
    g_bIsMemoryFFDCEnabledFlag = 1;
}

Bool zepMemIsMemFFDCAndZEPeMemDebugPathSet(void) {
    return g_bIsMemoryFFDCEnabledFlag && g_szMemDebugLogPath[0] != 0;
}

// ---- the check

Uint32 zepMemCheckBlock(void** pointer, String file, Uint32 line, bool freeing, bool* modeZero) {
    *modeZero = false;
    if (pointer == nullptr || *pointer == nullptr) {
        finding(file, line, "NULL pointer for memory allocation address found at:");
        return 0;
    }
    char* user = static_cast<char*>(*pointer);
    char* header = user - kHeader;
    const Uint32 eye = load32(header);
    if (freeing && eye == ZEP_MEM_EYECATCHER_FREED)
        finding(file, line, "Freeing freed memory found at:");
    if ((eye & ~ZEP_MEM_EYECATCHER_FLAGS) != ZEP_MEM_EYECATCHER)
        findingf(file, line, "Invalid block eye-catcher (0x%X) found at:", eye);
    if (__atomic_load_n(&cb.mode, __ATOMIC_RELAXED) == 0) {
        *modeZero = true;
        return 0xFFFFFFFFu;
    }

    char* modeWord = header - 4;
    const Uint32 blockMode = load32(modeWord);
    Uint32 size = 0;
    char* start = nullptr;
    switch (blockMode) {
        case ZEP_MEMDBG_IDLE:
            start = header - 16;
            size = load32(start + 8);
            break;
        case ZEP_MEMDBG_LIGHT: {
            start = header - 16;
            if (load32(start) != ZEP_MEMDBG_PAD_LOW || load32(start + 4) != ZEP_MEMDBG_PAD_HIGH)
                finding(file, line, "Front memory pad corruption found at:");
            size = load32(start + 8);
            const size_t rounded = roundedSize(size);
            for (size_t i = size; i < rounded; ++i)
                if (static_cast<Uint8>(user[i]) != ZEP_MEMDBG_FILLER)
                    finding(file, line, "Back memory pad corruption found at:");
            const char* back = user + rounded;
            if (load32(back + 12) != ZEP_MEMDBG_LIGHT || load32(back) != ZEP_MEMDBG_PAD_LOW ||
                load32(back + 4) != ZEP_MEMDBG_PAD_HIGH)
                finding(file, line, "Back memory pad corruption found at:");
            if (load32(back + 8) != size)
                finding(file, line, "Memory pad size corruption found at:");
            break;
        }
        case ZEP_MEMDBG_FULL: {
            ZEPMemDebugRecord* record = reinterpret_cast<ZEPMemDebugRecord*>(header - kRecord);
            const Uint32 frontPads = record->frontPads;
            const Uint32 backPads = record->backPads;
            size = record->size;
            start = reinterpret_cast<char*>(record) - 8 * static_cast<size_t>(frontPads);
            bool frontIntact = true;
            for (Uint32 i = 0; i < frontPads; ++i)
                if (load64(start + 8 * static_cast<size_t>(i)) != ZEP_MEMDBG_PAD) {
                    finding(file, line, "Front pad corruption found at:");
                    frontIntact = false;
                }
            const size_t rounded = roundedSize(size);
            for (size_t i = size; i < rounded; ++i)
                if (static_cast<Uint8>(user[i]) != ZEP_MEMDBG_FILLER)
                    finding(file, line, "Back Uint8 memory pad corruption found at:");
            const char* back = user + rounded;
            for (Uint32 i = 0; i < backPads; ++i) {
                const Uint64 unit = load64(back + 8 * static_cast<size_t>(i));
                if (unit != ZEP_MEMDBG_PAD)
                    findingf(file, line, "Back pad corruption (0x%llX) found at:",
                             static_cast<unsigned long long>(unit));
            }
            const char* trailer = back + 8 * static_cast<size_t>(backPads);
            const Uint32 trailerMode = load32(trailer + 4);
            if (trailerMode != ZEP_MEMDBG_FULL)
                findingf(file, line, "Back pad mode (0x%x)found at:", trailerMode);
            if (load32(trailer) != size)
                finding(file, line,
                        "Allocation size does not match between front and back pad structures "
                        "found at:");
            if (freeing) {
                zepLockGet(&cb.lock);
                unlinkRecord(record, frontIntact);
                zepLockRelease(&cb.lock);
            }
            break;
        }
        case ZEP_MEMDBG_FREED:
            finding(file, line, "Freeing freed memory found at:");
            if (freeing) *pointer = nullptr;
            return 0;
        default:
            // Not a block of ours, or one damaged beyond recognition: it is left as it is.
            findingf(file, line, "Invalid pad type (0x%X) found at:", blockMode);
            if (freeing) *pointer = nullptr;
            return 0;
    }
    if (!freeing) return size;

    store32(header, ZEP_MEM_EYECATCHER_FREED);
    if ((__atomic_load_n(&cb.flags, __ATOMIC_RELAXED) & ZEP_MEMDBG_FILL_FREED) &&
        (blockMode == ZEP_MEMDBG_LIGHT || blockMode == ZEP_MEMDBG_FULL))
        memset(user, 0xFF, size);
    *pointer = start;
    store32(modeWord, ZEP_MEMDBG_FREED);
    return size;
}

Uint32 _zepMemAllocCheck(void** pointer, String file, Uint32 line, Uint32 freeing) {
    bool modeZero;
    return zepMemCheckBlock(pointer, file, line, freeing != 0, &modeZero);
}

// ---- the reports

Uint32 zepMemAllocList(Bool withFile) {
    return _zepMemAllocList(__FILE__, __LINE__, withFile);
}

Uint32 _zepMemAllocList(String file, Uint32 line, Bool withFile) {
    if (__atomic_load_n(&cb.mode, __ATOMIC_RELAXED) != ZEP_MEMDBG_FULL) return 0;
    zepLockGet(&cb.lock);
    if (cb.head == nullptr) {
        zepLockRelease(&cb.lock);
        return 0;
    }
    FILE* out = nullptr;
    if (withFile) {
        const bool leaks = (cb.flags & ZEP_MEMDBG_LEAK_REPORT) != 0;
        char name[ZEP_MAX_PATH + 64];
        zepSnprintf(name, sizeof name, leaks ? "%s%cp%ut%llu_leaks.mem" : "%s%cp%ut%llu.mem",
                    g_szMemDebugLogPath, ZEP_PATH_SEPARATOR, zepProcessID(),
                    static_cast<unsigned long long>(zepThreadID()));
        out = fopen(name, "a");
        if (leaks) {
            if (out != nullptr) {
                line76(out, '*');
                fprintf(out,
                        "VRN Support and Development can generate a report of possible memory "
                        "leaks\nusing the following command from any uselvl'd build:\nperl -S "
                        "vrnreportleaks -path %s\n\n",
                        g_szMemDebugLogPath);
                fputs("To display all available options, run \"perl -S vrnreportleaks -help\"\n",
                      out);
                line76(out, '*');
                fputs(
                    "Legend:\n-------\nAddr - block address\nCode - block eye-catcher with "
                    "flags\nSize - size of the block\nLine - line of code in a file\nFile - "
                    "file name\n",
                    out);
                line76(out, '=');
                fputs("ZEPe Unfreed Memory Blocks :\n", out);
                line76(out, '=');
            }
        } else {
            FILE* head = out != nullptr ? out : stdout;
            line76(head, '*');
            fputs("ZEPe Unfreed Memory Blocks :\n", head);
            line76(head, '=');
        }
    }
    ZEPMemDebugRecord* damaged = walkLive([&](ZEPMemDebugRecord* r) {
        char* header = reinterpret_cast<char*>(r) + kRecord;
        void* user = header + kHeader;
        bool modeZero;
        zepMemCheckBlock(&user, file, line, false, &modeZero);
        // The file name of a damaged record need not end within it.
        const int nameLength = static_cast<int>(strnlen(r->file, sizeof r->file));
        if (out != nullptr)
            fprintf(out, "Addr: %08" PRIxPTR " Code: 0x%x Size: %u Line: %u File: %.*s\n",
                    reinterpret_cast<uintptr_t>(header), load32(header), r->size, r->line,
                    nameLength, r->file);
        else
            printf("Address: %p Size: %u Line: %u File: %.*s\n", static_cast<void*>(header),
                   r->size, r->line, nameLength, r->file);
        return true;
    });
    if (damaged != nullptr) {
        // What lies behind can't be reached safely: say where the list broke off.
        const uintptr_t at = reinterpret_cast<uintptr_t>(damaged) + kRecord;
        finding(file, line, "Damaged list of live blocks found at:");
        if (out != nullptr)
            fprintf(out, "Addr: %08" PRIxPTR " Damaged list: the blocks behind it are not shown\n",
                    at);
        else
            printf("Address: %p Damaged list: the blocks behind it are not shown\n",
                   reinterpret_cast<void*>(at));
    }
    if (out != nullptr) {
        line76(out, '=');
        fflush(out);
        fclose(out);
    } else {
        fflush(stdout);
    }
    zepLockRelease(&cb.lock);
    return 0;
}
