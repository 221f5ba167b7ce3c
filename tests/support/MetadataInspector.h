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
    static std::shared_ptr<IMetadata::Storage> storage(const IMetadata& m) { return m.mStorage; }
    // An entry's content, without marking it read-only.
    static std::shared_ptr<IMetadata::Content> content(const IMetadata::IEntry& e) {
        return e.mContentPtr;
    }
    // A table's slot array (null while its few rows are looked at instead).
    static const Table::Slots* slots(const Table& t) { return t.mSlots.load(); }
    // Index entries in use: slots that name a row, and side entries.
    static size_t indexed(const Table& t) {
        const Table::Slots* s = t.mSlots.load();
        if (s == nullptr) return t.size();
        const auto used = std::count_if(std::begin(s->rows), std::end(s->rows),
                                        [](uint16_t r) { return r != Table::kNoRow; });
        const Table::Side* side = t.mSide.load();
        return static_cast<size_t>(used) + (side ? side->count.load() : 0);
    }
};

}  // namespace NSCam
