#pragma once
// The inside of the tag table: the fixed slot map, the chunks rows live in, the directory of
// chunks, the slot array and its process-wide pool.
//
// A tag reads as group (bits 31..28), section (27..16) and index (15..0); every known section
// owns a run of slots in one array of 1,610 row numbers. A table of up to kScanRows rows has
// no slot array and finds a tag by looking at its rows; a larger one indexes every tag of the
// map by its slot and the others in a small sorted side index.
//
// Rows live in chunks of kRows. Copies of a table share chunks (and the slot array) and copy
// one only when they change it: the first write after a copy costs one chunk, not the table.
// A copied chunk borrows the rows of the chunk it was copied from (it holds that chunk, not a
// reference per row), and a decoded table's chunks borrow rows from the block they were
// decoded into.
//
// Every field that a reader without the container's lock follows is an atomic, written by
// writers with plain (relaxed or release) stores under the lock; what such a reader may still
// reach is released through readers::retire once the table is published.
#include <zorcam/metadata/IMetadata.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Content.h"

namespace NSCam {
namespace slotmap {

constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr uint32_t kSlotCount = IMetadata::Storage::ItemTable::kSlotCount;
constexpr uint32_t kSectionEntries = 358;

// First section-table entry of each group. Groups 1 to 8 share one base on purpose, and so
// share their slots (0x10010000 and 0x80010000 address one row); so do 10-12 and 13-15.
constexpr uint32_t kGroupBase[16] = {0,  36, 36,  36,  36,  36,  36,  36,
                                     36, 68, 329, 329, 329, 350, 350, 350};
// Sections that exist in each group's range of the section table.
constexpr uint32_t kGroupSections[16] = {36, 32,  32, 32, 32, 32, 32, 32,
                                         32, 261, 21, 21, 21, 8,  8,  8};

struct SectionTable {
    uint32_t start[kSectionEntries];  // first slot, kNone when the section does not exist
    uint32_t slots[kSectionEntries];  // slots owned: distance to the next-higher start
};

constexpr SectionTable makeSectionTable() {
    SectionTable t{};
    for (uint32_t i = 0; i < kSectionEntries; ++i) t.start[i] = kNone;
    constexpr uint32_t group0[36] = {0,   5,   64,  65,  68,  74,  78,  80,  90,    106, 114, 117,
                                     122, 144, 183, 217, 240, 243, 268, 277, 285,   287, 291, 292,
                                     294, 296, 311, 314, 316, 322, 324, 325, kNone, 326, 463, 174};
    constexpr uint32_t group1to8[32] = {332, 356, 395, 358, 405, 413, 415, 374, 379, 467, 488,
                                        505, 551, 554, 559, 567, 579, 580, 583, 588, 573, 598,
                                        603, 614, 620, 622, 629, 630, 632, 625, 639, 647};
    constexpr uint32_t group10to12[21] = {779,  800,  830,  842,  944,  kNone, 945,
                                          953,  1000, 1006, 1009, 1014, 1024,  1029,
                                          1030, 1038, 1039, 1041, 1081, 1083,  1109};
    constexpr uint32_t group13to15[8] = {649, 713, 720, 755, 761, 763, 769, 778};
    for (uint32_t i = 0; i < 36; ++i) t.start[0 + i] = group0[i];
    for (uint32_t i = 0; i < 32; ++i) t.start[36 + i] = group1to8[i];
    t.start[68 + 0x000] = 1147;
    t.start[68 + 0x001] = 1149;
    t.start[68 + 0x002] = 1150;
    t.start[68 + 0x100] = 1151;
    t.start[68 + 0x101] = 1407;
    t.start[68 + 0x102] = 1591;
    t.start[68 + 0x104] = 1608;
    for (uint32_t i = 0; i < 21; ++i) t.start[329 + i] = group10to12[i];
    for (uint32_t i = 0; i < 8; ++i) t.start[350 + i] = group13to15[i];
    // The starts are not in section order: each section owns the slots from its start up
    // to the next-higher start of any section.
    for (uint32_t i = 0; i < kSectionEntries; ++i) {
        t.slots[i] = 0;
        if (t.start[i] == kNone) continue;
        uint32_t next = kSlotCount;
        for (uint32_t j = 0; j < kSectionEntries; ++j)
            if (t.start[j] != kNone && t.start[j] > t.start[i] && t.start[j] < next)
                next = t.start[j];
        t.slots[i] = next - t.start[i];
    }
    return t;
}

inline constexpr SectionTable kSections = makeSectionTable();

// The slot of a tag, or kNone for a tag outside the map.
constexpr uint32_t slotOf(uint32_t tag) {
    const uint32_t group = tag >> 28;
    const uint32_t section = (tag >> 16) & 0xFFF;
    const uint32_t index = tag & 0xFFFF;
    if (section >= kGroupSections[group]) return kNone;
    const uint32_t entry = kGroupBase[group] + section;
    if (kSections.start[entry] == kNone || index >= kSections.slots[entry]) return kNone;
    return kSections.start[entry] + index;
}

static_assert(slotOf(0x00000000) == 0 && slotOf(0x00230000) == 174, "section 0x23 of group 0");
static_assert(slotOf(0x10010000) == slotOf(0x80010000), "groups 1 to 8 share their slots");
static_assert(slotOf(0x00040005) == 73 && slotOf(0x00040006) == kNone,
              "a tag past its section's slots must not alias the next section");
static_assert(slotOf(0x91040001) == 1609 && slotOf(0x91040002) == kNone, "the last slots");

}  // namespace slotmap

using Content = IMetadata::Content;

// Rows of one chunk: kRows of them, or as many as a decoded block needed.
struct IMetadata::Storage::ItemTable::Chunk {
    static constexpr uint32_t kRows = 16;
    // Chunks a copy may borrow through: a copy of a copy of a copy owns its rows instead.
    static constexpr uint8_t kMaxKeepDepth = 2;

    // A row owns its content (`own`), or borrows it: from a row of the chunk it was copied
    // from (`lent`, the owning reference there), or, with neither, from the decoded block its
    // content lives in.
    struct Row {
        std::atomic<uint32_t> tag{0};
        // The tag's slot (kNoRow outside the map): tags sharing a slot share a row, also in a
        // table that has no slot array.
        std::atomic<uint16_t> slot{0xFFFF};
        std::atomic<Content*> content{nullptr};  // what readers follow; may be null
        std::shared_ptr<Content> own;
        const std::shared_ptr<Content>* lent = nullptr;
    };

    std::shared_ptr<Chunk> keep;  // the chunk whose rows this one borrows
    std::shared_ptr<void> block;  // the decoded block holding borrowed contents, if any
    uint8_t keepDepth = 0;
    bool inBlock = false;  // lives in a decoded block: never changed in place
    uint16_t capacity = kRows;

    Row* rows() { return reinterpret_cast<Row*>(this + 1); }
    const Row* rows() const { return reinterpret_cast<const Row*>(this + 1); }
};

// A chunk of kRows rows, allocated with its reference counts in one pooled block.
struct PooledChunk : IMetadata::Storage::ItemTable::Chunk {
    Row storage[kRows];
};
static_assert(sizeof(PooledChunk) == sizeof(IMetadata::Storage::ItemTable::Chunk) +
                                         sizeof(IMetadata::Storage::ItemTable::Chunk::Row) *
                                             IMetadata::Storage::ItemTable::Chunk::kRows,
              "a chunk's rows follow it");

// The chunks of one table, in row order. Owned by its table alone.
struct alignas(8) IMetadata::Storage::ItemTable::Directory {
    struct Entry {
        std::shared_ptr<Chunk> owner;
        std::atomic<Chunk*> chunk{nullptr};
    };
    uint32_t capacity;
    Entry* entries() { return reinterpret_cast<Entry*>(this + 1); }
    const Entry* entries() const { return reinterpret_cast<const Entry*>(this + 1); }

    static Directory* make(uint32_t capacity);
    static void destroy(Directory* d) noexcept;
};

// The slot array: the row of each mapped tag, 0xFFFF for none. Shared by copies of a table
// until one of them changes it. Rows are read and written with atomic builtins wherever a
// reader without the lock may see the array; an array nobody else can see yet is filled and
// copied as plain memory.
struct IMetadata::Storage::ItemTable::Slots {
    std::atomic<int32_t> refs{1};
    uint16_t rows[kSlotCount];

    uint16_t row(uint32_t slot) const { return __atomic_load_n(&rows[slot], __ATOMIC_RELAXED); }
    void setRow(uint32_t slot, uint16_t r) { __atomic_store_n(&rows[slot], r, __ATOMIC_RELAXED); }
};

static_assert(sizeof(IMetadata::Storage::ItemTable::Directory) %
                      alignof(IMetadata::Storage::ItemTable::Directory::Entry) ==
                  0,
              "entries follow the header");

// The side index: tags without a slot and their rows, sorted by tag. Shared by copies of a
// table like the slot array; its entries are read and written with atomic builtins, so that a
// reader without the lock may search it while a writer changes it in place.
struct alignas(8) IMetadata::Storage::ItemTable::Side {
    struct Entry {
        uint32_t tag;
        uint16_t row;
    };
    std::atomic<int32_t> refs{1};
    std::atomic<uint32_t> count{0};
    uint32_t capacity;

    Entry* entries() { return reinterpret_cast<Entry*>(this + 1); }
    const Entry* entries() const { return reinterpret_cast<const Entry*>(this + 1); }
    uint32_t tagAt(uint32_t i) const {
        return __atomic_load_n(&entries()[i].tag, __ATOMIC_RELAXED);
    }
    uint16_t rowAt(uint32_t i) const {
        return __atomic_load_n(&entries()[i].row, __ATOMIC_RELAXED);
    }
    void set(uint32_t i, uint32_t tag, uint16_t row) {
        __atomic_store_n(&entries()[i].tag, tag, __ATOMIC_RELAXED);
        __atomic_store_n(&entries()[i].row, row, __ATOMIC_RELAXED);
    }
    // The first entry whose tag is not below `tag` (count when none), within `n` entries.
    uint32_t lowerBound(uint32_t tag, uint32_t n) const {
        uint32_t lo = 0, hi = n;
        while (lo < hi) {
            const uint32_t mid = (lo + hi) / 2;
            if (tagAt(mid) < tag)
                lo = mid + 1;
            else
                hi = mid;
        }
        return lo;
    }

    // An empty index with room for `capacity` entries, and one reference.
    static Side* make(uint32_t capacity);
    static void release(Side* side) noexcept;
};

// Slot arrays kept for the next table, in two halves behind byte spin locks so that threads
// building tables rarely wait for each other.
struct IMetadata::Storage::ItemTable::BufferQueue {
    static constexpr size_t kMaxPerHalf = 80;

    BufferQueue() = default;
    ~BufferQueue();
    BufferQueue(const BufferQueue&) = delete;
    BufferQueue& operator=(const BufferQueue&) = delete;

    // A slot array with one reference, pooled when there is one; with every row free when
    // `clean` (else its rows are whatever they were: the caller overwrites them all).
    Slots* take(bool clean);
    // Keeps an array nobody holds any more for the next table, or frees it when full.
    void give(Slots* slots) noexcept;

    // Locks `preferred`, or the other half when it is busy, alternating until one is free.
    int lock(int preferred);
    void unlock(int half);
    uint32_t pooled(int half) const { return mCount[half].load(std::memory_order_relaxed); }

    std::vector<Slots*> mSlotArrays[2];
    std::atomic<uint8_t> mLocks[2] = {{0}, {0}};
    // Mirrors the list sizes for the unlocked choice of a half.
    std::atomic<uint32_t> mCount[2] = {{0}, {0}};
};

//------------------------------------------------------------------------------------------
// The table's fast paths, inline for the library's own loops (the public members of similar
// names call these).

namespace itemtable {

// The slot of a tag as rows keep it: kNoRow for a tag outside the map.
inline uint16_t slotKey(uint32_t tag) {
    const uint32_t slot = slotmap::slotOf(tag);
    return slot == slotmap::kNone ? IMetadata::Storage::ItemTable::kNoRow
                                  : static_cast<uint16_t>(slot);
}

// A row answers for `tag` when it holds it, or holds a tag of the same slot.
inline bool answersFor(const IMetadata::Storage::ItemTable::Chunk::Row& row, uint32_t tag,
                       uint16_t slot) {
    return slot != IMetadata::Storage::ItemTable::kNoRow
               ? row.slot.load(std::memory_order_relaxed) == slot
               : row.tag.load(std::memory_order_relaxed) == tag;
}

}  // namespace itemtable

inline IMetadata::Storage::ItemTable::Chunk* IMetadata::Storage::ItemTable::chunkAt(
    size_t row) const {
    return mDirectory.load(std::memory_order_relaxed)
        ->entries()[row / Chunk::kRows]
        .chunk.load(std::memory_order_relaxed);
}

inline uint32_t IMetadata::Storage::ItemTable::rowTag(size_t row) const {
    return chunkAt(row)->rows()[row % Chunk::kRows].tag.load(std::memory_order_relaxed);
}

inline Content* IMetadata::Storage::ItemTable::rowContent(size_t row) const {
    return chunkAt(row)->rows()[row % Chunk::kRows].content.load(std::memory_order_relaxed);
}

inline uint16_t IMetadata::Storage::ItemTable::sideRowOf(uint32_t tag) const {
    const Side* side = mSide.load(std::memory_order_acquire);
    if (side == nullptr) return kNoRow;
    const uint32_t n = side->count.load(std::memory_order_acquire);
    if (n > side->capacity) return kNoRow;  // a torn look; its reader will check again
    const uint32_t i = side->lowerBound(tag, n);
    return i < n && side->tagAt(i) == tag ? side->rowAt(i) : kNoRow;
}

inline uint16_t IMetadata::Storage::ItemTable::rowOf(uint32_t tag) const {
    if (const Slots* s = mSlots.load(std::memory_order_relaxed)) {
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot != slotmap::kNone) return s->row(slot);
        return sideRowOf(tag);
    }
    const size_t rows = size();
    if (rows == 0) return kNoRow;
    const Chunk* first = chunkAt(0);
    const uint16_t slot = itemtable::slotKey(tag);
    for (size_t r = 0; r < rows; ++r)
        if (itemtable::answersFor(first->rows()[r], tag, slot)) return static_cast<uint16_t>(r);
    return kNoRow;
}

inline void IMetadata::Storage::ItemTable::putDecoded(uint32_t tag, Content* content) {
    Slots* s = mSlots.load(std::memory_order_relaxed);
    const uint32_t slot = slotmap::slotOf(tag);
    const uint16_t found = s != nullptr && slot != slotmap::kNone ? s->row(slot) : rowOf(tag);
    if (found != kNoRow) {
        // A later record of a tag replaces the values in place. Rows of this table are all in
        // its own block at this point, so the row keeps borrowing.
        chunkAt(found)->rows()[found % Chunk::kRows].content.store(content,
                                                                   std::memory_order_release);
        return;
    }
    const uint32_t rows = mSize.load(std::memory_order_relaxed);
    Chunk::Row& row = chunkAt(rows)->rows()[rows % Chunk::kRows];
    row.tag.store(tag, std::memory_order_relaxed);
    row.slot.store(itemtable::slotKey(tag), std::memory_order_relaxed);
    row.content.store(content, std::memory_order_release);
    if (s != nullptr) {
        if (slot != slotmap::kNone)
            s->setRow(slot, static_cast<uint16_t>(rows));  // the block's own, fresh array
        else
            putDecodedOutside(tag, static_cast<uint16_t>(rows));
    }
    mSize.store(rows + 1, std::memory_order_release);
}

template <typename Fn>
void IMetadata::Storage::ItemTable::forEachRow(Fn&& fn) const {
    const size_t rows = size();
    if (rows == 0) return;
    const Directory* d = mDirectory.load(std::memory_order_relaxed);
    for (size_t first = 0; first < rows; first += Chunk::kRows) {
        const Chunk* c = d->entries()[first / Chunk::kRows].chunk.load(std::memory_order_relaxed);
        const size_t n = rows - first < Chunk::kRows ? rows - first : Chunk::kRows;
        for (size_t i = 0; i < n; ++i) {
            const Chunk::Row& row = c->rows()[i];
            fn(row.tag.load(std::memory_order_relaxed),
               static_cast<const Content*>(row.content.load(std::memory_order_relaxed)));
        }
    }
}

}  // namespace NSCam
