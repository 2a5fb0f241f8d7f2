// rambo.cpp - the ring: building it, the control operations, and the writers' path.
//
// Writers share nothing but `nextSequence`: one locked add hands each of them a range of slots
// that no other writer is given until the ring comes round again. Everything else a writer reads
// in the control block is fixed from ramboInitialize on (bar `autoDump`), so the writers' path
// has no lock, no system call, no allocation and no check of the eye-catcher: a writer that
// reaches here has an initialized area by contract. Control operations serialise among
// themselves on the block's latch and never stand in a writer's way.
#include <string.h>

#include "rambo.h"
#include "rambowriter.h"

namespace {

// The overflow callback belongs to the process, not to the area.
void (*s_overflowCallback)(void) = nullptr;

inline Uint8* areaBytes(RamboCB* cb) {
    return reinterpret_cast<Uint8*>(cb);
}

inline Uint32 chunkTableBytes(Uint32 chunkCount) {
    return (chunkCount * static_cast<Uint32>(sizeof(RamboChunk)) + 7u) & ~7u;
}

inline bool hasEyeCatcher(const RamboCB* cb) {
    return memcmp(cb->eyeCatcher, RAMBO_CB_EYE_CATCHER, sizeof cb->eyeCatcher) == 0;
}

inline RamboChunk* chunkTable(RamboCB* cb) {
    return reinterpret_cast<RamboChunk*>(areaBytes(cb) + cb->chunkTableOffset);
}

using rambowriter::autoDumpOn;
using rambowriter::slotAt;

// The lap a sequence belongs to. slotCount is a power of two, so the division is a shift; at
// 2^32 the lap starts again from 0, as the consumer's generations do.
inline Uint32 lapOf(const RamboCB* cb, Uint32 sequence) {
    return sequence >> __builtin_ctz(cb->slotCount);
}

// A writer that has come round the ring stands here until the consumer has opened the chunk for
// this lap, or until auto dump is switched off; nothing else frees it. The compare-and-swap that
// stores what it expects is a read with a full barrier, so the consumer's reads of the chunk's
// old slots are complete before the writer's first store into them.
void waitForLap(RamboCB* cb, RamboChunk* chunk, Uint32 lap) {
    if (!autoDumpOn(cb)) return;
    for (;;) {
        if (zepAtomicCompareSwapAndReturn32(&chunk->generation, lap, lap) == lap) return;
        zepYield();
        if (!autoDumpOn(cb)) return;
    }
}

}  // namespace

__attribute__((noinline)) void* rambowriter::overflow(RamboCB* cb, Uint32 sequence,
                                                      RamboReservation* r) {
    void (*callback)(void) = __atomic_load_n(&s_overflowCallback, __ATOMIC_RELAXED);
    if (callback != nullptr) callback();
    r->slot = areaBytes(cb) + cb->overflowOffset;
    // Nobody reads the overflow area; the sequence is kept only so that ramboSync stores a
    // defined value there.
    r->sequence = sequence;
    r->slotsReserved = 1;
    return r->slot + 8;
}

// The chunked half of a claim that fits: the record's first chunk, and the next one when the
// record reaches into it, must be open for this lap. Kept out of line, so that the other modes'
// path stays a leaf without a frame.
__attribute__((noinline)) void rambowriter::enterChunks(RamboCB* cb, RamboReservation* r,
                                                        Uint32 index, Uint32 n) {
    const Uint32 lap = lapOf(cb, r->sequence);
    r->chunk = chunkTable(cb) + index / RAMBO_CHUNK_SLOTS;
    waitForLap(cb, r->chunk, lap);
    // A record of at most 2048 slots touches at most two chunks.
    const Uint32 room = RAMBO_CHUNK_SLOTS - (index & (RAMBO_CHUNK_SLOTS - 1));
    if (n == 1 || room >= n) {
        r->slotsInFirstChunk = static_cast<Uint16>(n);
    } else {
        r->slotsInFirstChunk = static_cast<Uint16>(room);
        waitForLap(cb, r->chunk + 1, lap);
    }
}

// A claim that would cross the end of a chunked ring is given up, but its slots still have to
// add up for the consumer: the ring's tail goes to the last chunk of this lap, the overrun to
// chunk 0 of the next. Zeroed slots carry no mark, so readers step over them.
__attribute__((noinline)) void rambowriter::giveUpChunkedClaim(RamboCB* cb, Uint32 sequence,
                                                               Uint32 index, Uint32 end) {
    const Uint32 tail = cb->slotCount - index;
    const Uint32 overrun = end - cb->slotCount;
    RamboChunk* chunks = chunkTable(cb);

    RamboChunk* last = chunks + index / RAMBO_CHUNK_SLOTS;
    waitForLap(cb, last, lapOf(cb, sequence));
    memset(slotAt(cb, index), 0, static_cast<size_t>(tail) * RAMBO_SLOT_SIZE);
    if (autoDumpOn(cb)) zepAtomicFetchAndAdd32(&last->committedSlots, static_cast<Sint32>(tail));

    waitForLap(cb, chunks, lapOf(cb, sequence + tail));
    memset(slotAt(cb, 0), 0, static_cast<size_t>(overrun) * RAMBO_SLOT_SIZE);
    if (autoDumpOn(cb))
        zepAtomicFetchAndAdd32(&chunks->committedSlots, static_cast<Sint32>(overrun));
}

Uint32 ramboRoundNearest2(Uint32 value) {
    if (value == 0) return 0;
    return 0x80000000u >> __builtin_clz(value);
}

Uint32 ramboGetAllocSize(Uint32 size) {
    if (size < RAMBO_MIN_BUFFER_SIZE || size > RAMBO_MAX_BUFFER_SIZE ||
        ramboRoundNearest2(size) != size)
        return 0;
    // The overflow area is a largest record plus a further chunk record's 20 bytes, rounded to 8.
    return size + RAMBO_CB_SIZE + chunkTableBytes(size / RAMBO_CHUNK_SIZE) + RAMBO_OVERFLOW_SIZE;
}

Uint32 ramboInitialize(RamboCB* cb, Uint32 size, Uint32 mode) {
    if (ramboGetAllocSize(size) == 0) return ECF_RAMBO_INVALID_BUFFER_SIZE;
    if (cb == nullptr) return ECF_INVALID_PARAMETER;

    memset(cb, 0, sizeof *cb);
    zepLockGet(&cb->latch);

    const Uint32 chunkCount = size / RAMBO_CHUNK_SIZE;
    cb->nextSequence = 0;
    cb->sequenceBase = 0;
    cb->bufferSize = size;
    cb->chunkTableOffset = RAMBO_CB_SIZE;
    cb->slotsOffset = RAMBO_CB_SIZE + chunkTableBytes(chunkCount);
    memset(areaBytes(cb) + cb->slotsOffset, 0, size);
    cb->overflowOffset = cb->slotsOffset + size;
    cb->chunkCount = chunkCount;
    cb->slotCount = chunkCount * RAMBO_CHUNK_SLOTS;

    switch (mode) {
        case RAMBO_MODE_WRAP:
            cb->wraps = 1;
            cb->slotIndexMask = cb->slotCount - 1;
            break;
        case RAMBO_MODE_STOP:
            // One bit more than the ring: indexes from slotCount up are claims past the end, and
            // the counter can run on for a whole further ring before it meets slot 0 again.
            cb->wraps = 0;
            cb->slotIndexMask = 2 * cb->slotCount - 1;
            break;
        case RAMBO_MODE_CHUNKED:
            cb->wraps = 1;
            cb->chunked = 1;
            cb->autoDump = 1;
            cb->slotIndexMask = cb->slotCount - 1;
            break;
        default:
            zepLockRelease(&cb->latch);
            return ECF_INVALID_PARAMETER;
    }

    RamboChunk* chunks = chunkTable(cb);
    for (Uint32 i = 0; i < chunkCount; ++i) {
        memcpy(chunks[i].eyeCatcher, RAMBO_CHUNK_EYE_CATCHER, sizeof chunks[i].eyeCatcher);
        chunks[i].committedSlots = 0;
        chunks[i].generation = 0;
        chunks[i].chunkIndex = i;
    }

    memcpy(cb->eyeCatcher, RAMBO_CB_EYE_CATCHER, sizeof cb->eyeCatcher);
    zepLockRelease(&cb->latch);
    return 0;
}

void ramboSetCallBack(void (*callback)(void)) {
    __atomic_store_n(&s_overflowCallback, callback, __ATOMIC_RELAXED);
}

Uint32 ramboNewSequence(RamboCB* cb) {
    if (cb == nullptr) return ECF_INVALID_PARAMETER;
    if (!hasEyeCatcher(cb)) return ECF_RAMBO_NOT_INITIALIZED;
    if (cb->chunked) return ECF_NOT_SUPPORTED;

    zepLockGet(&cb->latch);
    if (cb->wraps) {
        // The index stays where it is; everything in the ring is now a lap or more behind, and
        // the reader's window drops it.
        const Uint32 old =
            zepAtomicFetchAndAdd32(&cb->nextSequence, static_cast<Sint32>(cb->slotCount));
        cb->sequenceBase = old + cb->slotCount;
    } else {
        // On to the next multiple of twice the ring, whose index is 0: the buffer fills from
        // slot 0 again.
        Uint32 old = __atomic_load_n(&cb->nextSequence, __ATOMIC_RELAXED);
        for (;;) {
            const Uint32 next = old + 2 * cb->slotCount - (old & cb->slotIndexMask);
            const Uint32 found = zepAtomicCompareSwapAndReturn32(&cb->nextSequence, next, old);
            if (found == old) break;
            old = found;
        }
    }
    zepLockRelease(&cb->latch);
    return 0;
}

void* ramboReserveOneSlot(RamboCB* cb, RamboReservation* r) {
    return rambowriter::reserveOneSlot(cb, r);
}

void* ramboReserveSlots(RamboCB* cb, Uint32 payloadBytes, RamboReservation* r) {
    return rambowriter::reserveSlots(cb, payloadBytes, r);
}

void ramboSync(RamboCB* cb, const RamboReservation* r) {
    rambowriter::sync(cb, r);
}

Uint32 ramboAutoDumpEnabled(RamboCB* cb, Uint8 flag) {
    if (cb == nullptr) return ECF_INVALID_PARAMETER;
    if (!hasEyeCatcher(cb)) return ECF_RAMBO_NOT_INITIALIZED;
    if (!cb->chunked) return ECF_RAMBO_AUTO_DUMP_NOT_ALLOWED;
    zepLockGet(&cb->latch);
    __atomic_store_n(&cb->autoDump, flag, __ATOMIC_RELEASE);
    zepLockRelease(&cb->latch);
    return 0;
}
