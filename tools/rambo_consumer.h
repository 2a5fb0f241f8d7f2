// rambo_consumer.h - the dumping program's half of a chunked ring's protocol.
//
// A chunked ring (mode 4) with auto dump on never overwrites a chunk that hasn't been stored:
// writers that come round to it wait until the consumer has written it away and opened it for
// their lap. This consumer appends each completed chunk, in ring order, to an auto dump file
// (header first), so the file holds every record exactly once, in claim order, and the library's
// dump reader walks it like any other dump.
//
//     RamboChunkConsumer consumer;
//     consumer.start(area, &file);           // header written, auto dump on
//     while (running) if (consumer.drain() == 0 && nothing written) sleep a little;
//     consumer.stop(writersHaveStopped);     // auto dump off, so no writer waits for ever
//
// The consumer is one thread's object; it works on the shared chunk table directly. It never
// holds the ring's latch.
#ifndef RAMBO_CONSUMER_H
#define RAMBO_CONSUMER_H

#include "zep.h"

class RamboChunkConsumer {
public:
    // Writes the auto dump header to `file` (open for writing, at the place where the dump goes)
    // and takes up the ring where it stands. A ring whose auto dump is on (as a fresh mode 4 ring
    // is) is resumed from its chunk generations: nothing written so far is lost, also when
    // another consumer stopped before. A ring whose auto dump was off is re-armed from the
    // current claim, and auto dump is switched on; records claimed at that very moment may be
    // missed, so start the consumer before the writers where that matters. ECF code.
    Uint32 start(RamboCB* area, ZEPHFile* file);

    // Writes every chunk that is complete, in ring order, and opens each for the next lap.
    // `chunksWritten`, if given, counts them. A write failure is returned; the chunk stays
    // unwritten and its writers keep waiting, so stop() the consumer then.
    Uint32 drain(Uint32* chunksWritten = nullptr);

    // Switches auto dump off, which frees every waiting writer. With `flushPartial` it first
    // drains and then writes the committed beginning of the current chunk: sound only once the
    // writers have stopped, since only then is that beginning gap-free. ECF code of the first
    // failure.
    Uint32 stop(bool flushPartial);

    Uint64 chunksWritten() const { return written_; }
    Uint64 bytesWritten() const { return bytes_; }

private:
    Uint32 writeSlots(Uint32 chunk, Uint32 slots);
    void reopen(Uint32 chunk);

    RamboCB* area_ = nullptr;
    ZEPHFile* file_ = nullptr;
    RamboChunk* chunks_ = nullptr;
    Uint8* slots_ = nullptr;
    Uint32 chunkCount_ = 0;
    Uint32 lapMask_ = 0;  // laps restart at 0 when the 32-bit sequence does
    Uint32 next_ = 0;     // the chunk to store next
    Uint32 lap_ = 0;      // the lap it is open for
    Uint64 written_ = 0;
    Uint64 bytes_ = 0;
};

#endif
