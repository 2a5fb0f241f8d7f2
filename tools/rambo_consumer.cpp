// rambo_consumer.cpp - drains a chunked ring into an auto dump file.
#include "rambo_consumer.h"

namespace {

Uint32 load(const Uint32* cell) {
    return __atomic_load_n(cell, __ATOMIC_ACQUIRE);
}

void store(Uint32* cell, Uint32 value) {
    __atomic_store_n(cell, value, __ATOMIC_RELEASE);
}

}  // namespace

Uint32 RamboChunkConsumer::start(RamboCB* area, ZEPHFile* file) {
    if (area == nullptr || file == nullptr) return ECF_INVALID_PARAMETER;
    RamboChunkWalker walker;
    Uint32 rc = ramboInitializeChunkWalker(area, &walker);
    if (rc != 0) return rc;
    RamboDumpHeader header;
    rc = ramboGetDumpHeaderBuffer(area, 0, &header, nullptr, nullptr);
    if (rc != 0) return rc;

    area_ = area;
    file_ = file;
    chunks_ = walker.chunk;
    slots_ = walker.slots;
    chunkCount_ = area->chunkCount;
    lapMask_ = static_cast<Uint32>((Uint64{1} << 32) / area->slotCount - 1);
    written_ = bytes_ = 0;

    if (__atomic_load_n(&area->autoDump, __ATOMIC_ACQUIRE) != 0) {
        // Chunks before the one to store next are already open for the following lap.
        next_ = 0;
        lap_ = load(&chunks_[0].generation);
        for (Uint32 c = 1; c < chunkCount_; ++c) {
            const Uint32 g = load(&chunks_[c].generation);
            if (g != lap_) {
                next_ = c;
                lap_ = g;
                break;
            }
        }
    } else {
        // Writers have neither waited nor counted: open the chunks behind the current claim for
        // the next lap and take the current chunk's claimed slots as committed.
        const Uint32 sequence = __atomic_load_n(&area->nextSequence, __ATOMIC_ACQUIRE);
        const Uint32 index = sequence & area->slotIndexMask;
        lap_ = (sequence / area->slotCount) & lapMask_;
        next_ = index / RAMBO_CHUNK_SLOTS;
        for (Uint32 c = 0; c < chunkCount_; ++c) {
            store(&chunks_[c].committedSlots, c == next_ ? index & (RAMBO_CHUNK_SLOTS - 1) : 0);
            store(&chunks_[c].generation, c < next_ ? (lap_ + 1) & lapMask_ : lap_);
        }
        if ((rc = ramboAutoDumpEnabled(area, 1)) != 0) return rc;
    }

    ZEPFileWriteParam write;
    write.buffer = &header;
    write.length = sizeof header;
    Uint32 done = 0;
    return file_->write(&write, &done);
}

Uint32 RamboChunkConsumer::writeSlots(Uint32 chunk, Uint32 slots) {
    ZEPFileWriteParam write;
    write.buffer = slots_ + static_cast<size_t>(chunk) * RAMBO_CHUNK_SIZE;
    write.length = slots * RAMBO_SLOT_SIZE;
    Uint32 done = 0;
    const Uint32 rc = file_->write(&write, &done);
    bytes_ += done;
    return rc;
}

// What the writers require, in this order: the count back to 0, then the generation moved on,
// both by atomic stores. A writer of the next lap may start as soon as it sees the generation.
void RamboChunkConsumer::reopen(Uint32 chunk) {
    store(&chunks_[chunk].committedSlots, 0);
    store(&chunks_[chunk].generation, (lap_ + 1) & lapMask_);
    ++written_;
    if (++next_ == chunkCount_) {
        next_ = 0;
        lap_ = (lap_ + 1) & lapMask_;
    }
}

Uint32 RamboChunkConsumer::drain(Uint32* chunksWritten) {
    if (area_ == nullptr) return ECF_INVALID_PARAMETER;
    Uint32 count = 0, rc = 0;
    // A count of 2048, read with acquire order after the writers' locked adds, means every stamp
    // of the chunk is in place.
    while (load(&chunks_[next_].committedSlots) >= RAMBO_CHUNK_SLOTS) {
        if ((rc = writeSlots(next_, RAMBO_CHUNK_SLOTS)) != 0) break;
        reopen(next_);
        ++count;
    }
    if (chunksWritten != nullptr) *chunksWritten = count;
    return rc;
}

Uint32 RamboChunkConsumer::stop(bool flushPartial) {
    if (area_ == nullptr) return ECF_INVALID_PARAMETER;
    Uint32 rc = 0;
    if (flushPartial) {
        rc = drain();
        const Uint32 committed = load(&chunks_[next_].committedSlots);
        if (rc == 0 && committed != 0) rc = writeSlots(next_, committed);
    }
    const Uint32 off = ramboAutoDumpEnabled(area_, 0);
    area_ = nullptr;
    return rc != 0 ? rc : off;
}
