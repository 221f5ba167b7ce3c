#pragma once
// The read of one basic value without the container's lock, as getEntry makes it: inline,
// because it is the whole of that read.
//
// Why it is safe. The reader opens a read section (Readers.h): whatever the container's
// writers drop meanwhile (its storage, the table's directory, chunks and indexes) stays
// allocated until the section closes. It reads the container's sequence count, the storage,
// and the value (ItemTable::readValue, which checks every offset against the block it came
// from), then the count again: the value is the container's at an instant between the two
// reads when the count was even and did not move. A writer that writes a value in place does
// so under an odd count. Whatever the locked path must report (a type that does not match, a
// destroyed container, a row held by a content) makes the reader take the lock instead.
#include "Container.h"
#include "Readers.h"

namespace NSCam {

inline int IMetadata::Core::readWithoutLock(const IMetadata& m, uint32_t tag, int32_t type,
                                            size_t index, void* out, size_t size) {
    const readers::Section section;
    if (!section.pinned()) return -1;
    alignas(8) uint8_t value[Content::kInlineSize];
    for (int attempt = 0; attempt < 4; ++attempt) {
        const uint32_t before = m.mSequence.load(std::memory_order_acquire);
        if ((before & 1) != 0) return -1;  // a writer is at work: wait for it on the lock
        if (validNum(m) == 0) return -1;   // the locked path reports it
        const Storage* s = m.mStorageRaw.load(std::memory_order_acquire);
        if (s == nullptr) return -1;  // no storage, or one read under the lock only
        const ItemTable::Found found = tableOf(*s).readValue(tag, type, index, value, size);
        if (found == ItemTable::Found::kUnsure) return -1;
        acquireFence();  // what was read above is read before the count is read again
        if (m.mSequence.load(std::memory_order_relaxed) == before) {
            if (found == ItemTable::Found::kAbsent) return 0;
            copyFixed(out, value, size);
            return 1;
        }
    }
    return -1;
}

}  // namespace NSCam
