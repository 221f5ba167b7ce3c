#pragma once
// The one way tests, fuzzers and benchmarks look inside the library: the library's classes
// name MetadataInspector as their only friend for it. Everything else goes through the public
// API (and the private headers' public members, such as Content's fields).
#include <zorcam/metadata/IMetadata.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "Content.h"
#include "ItemTable.h"

namespace NSCam {

struct MetadataInspector {
    using Table = IMetadata::Storage::ItemTable;

    // A container's storage, without marking it shared.
    static std::shared_ptr<IMetadata::Storage> storage(const IMetadata& m) {
        const MutexLock guard(m.mLock);
        return m.mStorage;
    }
    // An entry's content, without marking it read-only.
    static std::shared_ptr<IMetadata::Content> content(const IMetadata::IEntry& e) {
        const MutexLock guard(e.mLock);
        return e.mContentPtr;
    }
    // A table's slot index (null while its few rows are looked at instead).
    static const Table::Index* index(const Table& t) {
        const Table::Directory* d = t.mDirectory.load();
        return d != nullptr ? itemtable::indexOf(d) : nullptr;
    }
    // Index entries in use: slots that name a row, and side entries.
    static size_t indexed(const Table& t) {
        const Table::Index* ix = index(t);
        if (ix == nullptr) return t.size();
        const uint16_t* rows = ix->pages();
        const auto used = std::count_if(rows, rows + ix->used * Table::Index::kPageSlots,
                                        [](uint16_t r) { return r != Table::kNoRow; });
        const Table::Side* side = itemtable::sideOf(t.mDirectory.load());
        return static_cast<size_t>(used) + (side ? side->count.load() : 0);
    }
};

}  // namespace NSCam
