// rambowriter.h - the ring's writer path, for the ring's own exported calls and for the trace,
// whose trace points inline it: a trace point makes no call through the procedure linkage table
// on its way into the ring.
#ifndef RAMBOWRITER_H
#define RAMBOWRITER_H

#include "rambo.h"
#include "zepatomic.h"

namespace rambowriter {

inline Uint8* slotAt(RamboCB* cb, Uint32 index) {
    return reinterpret_cast<Uint8*>(cb) + cb->slotsOffset +
           static_cast<size_t>(index) * RAMBO_SLOT_SIZE;
}

inline bool autoDumpOn(const RamboCB* cb) {
    return __atomic_load_n(&cb->autoDump, __ATOMIC_ACQUIRE) != 0;
}

// The slow ends, out of line in rambo.cpp: a stopping ring that is full, a chunked ring's chunks,
// a claim given up at the end of a chunked ring.
void* overflow(RamboCB* cb, Uint32 sequence, RamboReservation* r);
void enterChunks(RamboCB* cb, RamboReservation* r, Uint32 index, Uint32 n);
void giveUpChunkedClaim(RamboCB* cb, Uint32 sequence, Uint32 index, Uint32 end);

__attribute__((always_inline)) inline void* reserveOneSlot(RamboCB* cb, RamboReservation* r) {
    const Uint32 sequence = zepAtomicFetchAndIncrement32(&cb->nextSequence);
    const Uint32 index = sequence & cb->slotIndexMask;
    if (__builtin_expect(!cb->wraps && index + 1 > cb->slotCount, 0))
        return overflow(cb, sequence, r);

    r->slot = slotAt(cb, index);
    r->sequence = sequence;
    r->slotsReserved = 1;
    if (__builtin_expect(cb->chunked, 0)) enterChunks(cb, r, index, 1);
    return r->slot + 8;
}

__attribute__((always_inline)) inline void* reserveSlots(RamboCB* cb, Uint32 payloadBytes,
                                                         RamboReservation* r) {
    // The smallest n with n * 64 >= payload + 12; at least 1.
    Uint32 n = ((payloadBytes + 75u) & ~63u) / RAMBO_SLOT_SIZE;
    if (n == 0) n = 1;

    for (;;) {
        const Uint32 sequence = zepAtomicFetchAndAdd32(&cb->nextSequence, static_cast<Sint32>(n));
        const Uint32 index = sequence & cb->slotIndexMask;
        const Uint32 end = index + n;

        if (!cb->wraps && end > cb->slotCount) return overflow(cb, sequence, r);

        if (end <= cb->slotCount) {
            r->slot = slotAt(cb, index);
            r->sequence = sequence;
            r->slotsReserved = static_cast<Uint16>(n);
            if (cb->chunked) enterChunks(cb, r, index, n);
            return r->slot + 8;
        }

        // The record would cross the end of a wrapping ring. Records are never split, so this
        // claim is lost and a fresh one is made. Without chunks the lost slots keep what they
        // held: the ring's tail and the first slots of the next lap hold stale stamps, which the
        // reader's window rejects.
        if (cb->chunked) giveUpChunkedClaim(cb, sequence, index, end);
    }
}

__attribute__((always_inline)) inline void sync(RamboCB* cb, const RamboReservation* r) {
    Uint8* record = r->slot;
    const Uint32 n = r->slotsReserved;
    // Release stores: the payload's stores are seen before the stamps, and the trailer last, so
    // a reader that finds the stamps agreeing finds the record complete. On x86 they are plain
    // moves.
    __atomic_store_n(reinterpret_cast<Uint32*>(record), r->sequence, __ATOMIC_RELEASE);
    __atomic_store_n(reinterpret_cast<Uint16*>(record + 4), static_cast<Uint16>(RAMBO_SLOT_MARK),
                     __ATOMIC_RELEASE);
    __atomic_store_n(reinterpret_cast<Uint16*>(record + 6), static_cast<Uint16>(n),
                     __ATOMIC_RELEASE);
    __atomic_store_n(reinterpret_cast<Uint32*>(record + n * RAMBO_SLOT_SIZE - 4), ~r->sequence,
                     __ATOMIC_RELEASE);

    if (__builtin_expect(cb->chunked, 0) && autoDumpOn(cb)) {
        // Locked adds: a consumer that reads committedSlots = 2048 sees the chunk's stamps.
        zepAtomicFetchAndAdd32(&r->chunk->committedSlots,
                               static_cast<Sint32>(r->slotsInFirstChunk));
        if (n > r->slotsInFirstChunk)
            zepAtomicFetchAndAdd32(&(r->chunk + 1)->committedSlots,
                                   static_cast<Sint32>(n - r->slotsInFirstChunk));
    }
}

}  // namespace rambowriter

#endif
