#pragma once
// The inside of the tag table: rows in chunks of 16 whose values lie in the flat form's own
// record layout, the directory of chunks, the paged slot index and the side index.
//
// A row's values are one record of the flat form, kept in its chunk beside the records of the
// chunk's other rows, in row order and back to back:
//
//   tag (u32), length L (u32), then L bytes: pattern, type, count, payload
//
// exactly as flatten() writes it, so that a chunk of basic values is written out by one copy.
// A row without content is its 8-byte head with L = 0. Blobs, nested containers and contents
// a caller filed without marking them shared stay objects: such a row's record is a head
// whose length is kObjectRow, and the chunk's holders keep the content. A Content for a row of
// bytes is made only when a caller asks for one, and kept with the row until the row changes.
//
// Copies of a table share their directory; the first change makes a directory of its own that
// borrows the other's chunks (one reference, not one per chunk), and then a chunk of its own
// for each chunk it changes: a first write after a copy costs one chunk, not the table.
//
// A table of up to kScanRows rows has no index and finds a tag by looking at its rows; a
// larger one finds every tag of the slot map through a paged slot index (pages of 32 slots,
// made only for the runs of slots its tags use) and the others through a small sorted side
// index.
//
// Readers without the container's lock follow the directory, the index, a chunk's offsets and
// its records. What they follow is replaced, never changed, except for the payload of a record
// (same type, same count), which a writer changes in place under the container's sequence
// count. Whatever a published table drops is released through readers::retire.
#include <zorcam/metadata/IMetadata.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include "Content.h"
#include "FlatBytes.h"
#include "Readers.h"
#include "SlotMap.h"
#include "Sync.h"

namespace NSCam {

using Content = IMetadata::Content;

namespace record {

// Offsets of a record's fields, from its first byte.
constexpr size_t kTag = 0;
constexpr size_t kLength = 4;
constexpr size_t kType = 12;
constexpr size_t kCount = 16;
constexpr size_t kPayload = 20;
constexpr size_t kHead = flat::kRecordHead;
// The length field of a row held by a content object.
constexpr uint32_t kObjectRow = 0xFFFFFFFFu;

inline uint32_t tagOf(const uint8_t* r) {
    return flat::load32(r + kTag);
}
inline uint32_t lengthOf(const uint8_t* r) {
    return flat::load32(r + kLength);
}
inline int32_t typeOf(const uint8_t* r) {
    return static_cast<int32_t>(flat::load32(r + kType));
}
inline int32_t countOf(const uint8_t* r) {
    return static_cast<int32_t>(flat::load32(r + kCount));
}
// Bytes the record takes in its chunk.
inline size_t sizeOf(const uint8_t* r) {
    const uint32_t length = lengthOf(r);
    return kHead + (length == kObjectRow ? 0 : length);
}
// True for the record of a row of values (not a row without content, not an object).
inline bool holdsValues(const uint8_t* r) {
    const uint32_t length = lengthOf(r);
    return length != 0 && length != kObjectRow;
}

}  // namespace record

// One row as the table's own interface names it: a tag and its content (may be empty).
struct IMetadata::Storage::Item {
    uint32_t tag;
    std::shared_ptr<Content> content;
};

struct RowView;
struct RowValue;

// Rows in insertion order (a removal moves the last row into the hole), found in constant
// time: through the slot map of the known tags (a small side index for the others), or, in a
// table of a few rows, by looking at them. Basic values live beside their rows in the flat
// form's record layout; copies share rows until one side changes them. Not thread-safe: used
// under the lock of the container that holds it (readers without the lock use readValue()).
//
// Exported are the operations a table has always offered and the pool of index blocks;
// the library's own paths are ZORCAM_LOCAL.
class IMetadata::Storage::ItemTable {
public:
    static constexpr uint32_t kSlotCount = slotmap::kSlotCount;
    static constexpr uint16_t kNoRow = 0xFFFF;
    // Row numbers are 16-bit and the flat form counts records in 15 bits.
    static constexpr size_t kMaxRows = static_cast<size_t>(flat::kMaxRecords);
    // Tables of up to this many rows need no index.
    static constexpr size_t kScanRows = 16;

    struct ZORCAM_LOCAL Chunk;
    struct ZORCAM_LOCAL Directory;
    struct ZORCAM_LOCAL Index;
    struct ZORCAM_LOCAL Side;
    struct ZORCAM_LOCAL BufferQueue;
    static BufferQueue sBufferQueue;

    ItemTable();
    ~ItemTable();
    ItemTable(const ItemTable&) = delete;
    // Shares the other's rows and index; each side copies what it changes later.
    ItemTable& operator=(const ItemTable& other);

    void clear();
    bool remove(uint32_t tag);
    uint16_t getIndexByTag(uint32_t tag) const;
    // Inserts or replaces; false only when a new row would exceed kMaxRows. An allocation
    // failure leaves the table as it was. Basic values of a content marked shared are copied
    // into the row; any other content is kept by the row.
    bool update(uint32_t tag, const std::shared_ptr<Content>& content);
    bool update(uint32_t tag, std::shared_ptr<Content>&& content);
    bool update(const Item& item);

    size_t size() const { return mSize.load(std::memory_order_relaxed); }
    // Row `row` (below size()): its tag, its content (made from the row's values the first time
    // one is asked for, and the row's until the row changes) read in place, or shared.
    uint32_t tagAt(size_t row) const;
    Content* contentAt(size_t row) const;
    std::shared_ptr<Content> contentSPAt(size_t row) const;

    // The library's own paths: the row of a tag (kNoRow), a row's tag and what it holds, every
    // row in order as fn(RowView).
    inline uint16_t rowOf(uint32_t tag) const;
    inline uint32_t rowTag(size_t row) const;
    inline RowView rowAt(size_t row) const;
    template <typename Fn>
    void forEachRow(Fn&& fn) const;
    // Inserts or replaces the row of `tag` (see update); a value of the same type and count as
    // the row's is written in place.
    ZORCAM_LOCAL bool put(uint32_t tag, RowValue&& value);
    // Rows of `other` laid over this table's, as a merge does: false for a tag that would
    // exceed kMaxRows (reported by `refused(tag)`; the others still merge).
    template <typename Refused>
    void merge(const ItemTable& other, Refused&& refused);
    // Bytes of the records of every row when no row is held by a content (the block's size
    // less its header), else kHeldByContents.
    static constexpr size_t kHeldByContents = SIZE_MAX;
    ZORCAM_LOCAL size_t recordBytes() const;
    // Those records, back to back at `out`, when they fit `room`: false (nothing written) when
    // a row is held by a content or they do not fit.
    ZORCAM_LOCAL bool copyRecords(uint8_t* out, size_t room, size_t& written) const;
    // fn(content) for each row held by a content, in row order, until fn answers other than
    // its type's default; that answer.
    template <typename Fn>
    auto forEachObject(Fn&& fn) const -> decltype(fn(nullptr));

    // For a reader without the container's lock, inside a readers::Section and a check of the
    // container's sequence count: element `index` of `tag`, `size` bytes of basic type `type`,
    // copied to `out`. kAbsent: no such tag or element (or a row without values); kUnsure:
    // take the lock (also for what the locked path must report). Reads only what writers
    // replace or write under the count.
    enum class Found { kValue, kAbsent, kUnsure };
    inline Found readValue(uint32_t tag, int32_t type, size_t index, void* out, size_t size) const;
    // From now on readers without a lock may be following this table: what it drops is
    // retired (readers::retire), not released at once.
    void publish() { mPublished.store(true, std::memory_order_relaxed); }
    bool published() const { return mPublished.load(std::memory_order_relaxed); }

    // Decoding into an empty table, from the records of a storage block at buf[begin, size):
    // the rows, or false when a record needs the sequential decoder (one that is refused, or
    // that it must report on). `end` receives where the block ended.
    ZORCAM_LOCAL bool decode(const uint8_t* buf, size_t size, size_t begin, size_t records,
                             size_t& end);

    struct ZORCAM_LOCAL Impl;  // the table's insides, in ItemTable.cpp

private:
    friend struct ::NSCam::MetadataInspector;
    ZORCAM_LOCAL bool mergeRow(const ItemTable& other, size_t row);

    std::atomic<Directory*> mDirectory;  // null until the first row
    std::atomic<uint32_t> mSize;
    // Set by every container that holds the table (copies of one container on other threads
    // too): atomic.
    std::atomic<bool> mPublished;
};

// What one row holds, as its readers see it: its tag and record, and for an object row the
// content (which the row keeps alive until it changes).
struct RowView {
    uint32_t tag;
    const uint8_t* record;
    const Content* object;  // null unless the row is held by a content

    bool hasContent() const { return object != nullptr || record::lengthOf(record) != 0; }
    bool isValues() const { return object == nullptr && record::lengthOf(record) != 0; }
    // For a row of values (isValues()).
    int32_t type() const { return record::typeOf(record); }
    int32_t count() const { return record::countOf(record); }
    const uint8_t* payload() const { return record + record::kPayload; }
};

// Rows of one chunk: up to kRows, their records back to back in row order.
struct IMetadata::Storage::ItemTable::Chunk {
    static constexpr uint32_t kRows = 16;
    static constexpr uint32_t kNoRecord = 0xFFFFFFFFu;

    // The contents of a chunk's object rows, and the contents made for callers from its rows
    // of bytes. Made when the chunk first needs one.
    struct Holders {
        struct Held {
            // The content, or kMaking while a caller installs one (see contentFor).
            std::atomic<Content*> content{nullptr};
            std::shared_ptr<Content> owner;
        };
        Held held[kRows];
    };

    std::atomic<int32_t> refs{1};  // directories that own the chunk
    uint32_t capacity;             // bytes of records it has room for
    uint32_t used = 0;             // bytes of records it holds
    uint16_t rows = 0;             // rows it holds
    uint16_t objects = 0;          // bit r: row r is held by a content
    std::atomic<Holders*> holders{nullptr};
    uint16_t slot[kRows];    // each row's slot (kNoRow outside the map); atomic builtins
    uint32_t offset[kRows];  // each row's record, from records(); atomic builtins

    uint8_t* records() { return reinterpret_cast<uint8_t*>(this + 1); }
    const uint8_t* records() const { return reinterpret_cast<const uint8_t*>(this + 1); }
    uint16_t slotOf(uint32_t r) const { return __atomic_load_n(&slot[r], __ATOMIC_RELAXED); }
    uint32_t offsetOf(uint32_t r) const { return __atomic_load_n(&offset[r], __ATOMIC_ACQUIRE); }
    const uint8_t* recordOf(uint32_t r) const { return records() + offset[r]; }
    uint8_t* recordOf(uint32_t r) { return records() + offset[r]; }
    bool isObject(uint32_t r) const { return (objects >> r) & 1u; }

    // Readers without the lock may reach a chunk: only readers::emplace makes one.
    Chunk(readers::Made, uint32_t capacity) : capacity(capacity) {
        std::memset(slot, 0xFF, sizeof(slot));
        std::memset(offset, 0xFF, sizeof(offset));
    }
    Chunk(const Chunk&) = delete;
    Chunk& operator=(const Chunk&) = delete;
    // A chunk with room for at least `capacity` bytes of records.
    static Chunk* make(size_t capacity);
    static void destroy(Chunk* c) noexcept;
};

// The chunks of one table, in row order, with its index. Shared by copies of a table (refs);
// a table changes only a directory of its own. Entries, the index and the side index are each
// owned (released with the directory) or borrowed from `base`, the directory this one was
// copied from, which it holds one reference to: bit 0 of an entry says borrowed.
struct alignas(16) IMetadata::Storage::ItemTable::Directory {
    static constexpr uintptr_t kBorrowed = 1;
    // Directories borrowing from directories borrowing from ...: a copy this deep owns what it
    // points to instead, so that a long chain of copies never keeps old directories alive.
    static constexpr uint8_t kMaxDepth = 2;

    std::atomic<int32_t> refs{1};
    uint32_t capacity;  // chunk entries
    Directory* base = nullptr;
    uint8_t depth = 0;
    std::atomic<uintptr_t> index{0};  // Index*
    std::atomic<uintptr_t> side{0};   // Side*

    std::atomic<uintptr_t>* entries() {
        return reinterpret_cast<std::atomic<uintptr_t>*>(this + 1);
    }
    const std::atomic<uintptr_t>* entries() const {
        return reinterpret_cast<const std::atomic<uintptr_t>*>(this + 1);
    }
    Chunk* chunk(size_t i, std::memory_order order = std::memory_order_relaxed) const {
        return reinterpret_cast<Chunk*>(entries()[i].load(order) & ~kBorrowed);
    }

    // Readers without the lock may reach a directory: only readers::emplace makes one.
    Directory(readers::Made, uint32_t capacity) : capacity(capacity) {}
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    static Directory* make(uint32_t capacity);
    static void release(Directory* d) noexcept;
};

// The paged slot index: the row of each tag of the slot map, in pages of kPageSlots slots made
// only for the runs of slots a table's tags use. Shared like the directory's chunks.
struct alignas(16) IMetadata::Storage::ItemTable::Index {
    static constexpr uint32_t kPageSlots = 32;
    static constexpr uint32_t kPages = (slotmap::kSlotCount + kPageSlots - 1) / kPageSlots;
    // Blocks of up to this many pages come from the thread's block cache; a larger index has
    // room for every page and is pooled process-wide (sBufferQueue).
    static constexpr uint32_t kSmallPages = 14;

    std::atomic<int32_t> refs{1};
    uint16_t used = 0;     // pages in use
    uint16_t capacity;     // pages it has room for
    uint8_t page[kPages];  // page number + 1 of each run of slots, 0 for none; atomic builtins

    uint16_t* pages() { return reinterpret_cast<uint16_t*>(this + 1); }
    const uint16_t* pages() const { return reinterpret_cast<const uint16_t*>(this + 1); }
    // The row of slot `slot`, kNoRow when none.
    __attribute__((always_inline)) uint16_t rowAt(uint32_t slot) const {
        const uint32_t p = __atomic_load_n(&page[slot / kPageSlots], __ATOMIC_ACQUIRE);
        if (p == 0 || p > capacity) return kNoRow;
        return __atomic_load_n(&pages()[(p - 1) * kPageSlots + slot % kPageSlots],
                               __ATOMIC_RELAXED);
    }
    void setRowAt(uint32_t slot, uint16_t row) {  // the slot's page exists
        const uint32_t p = page[slot / kPageSlots];
        __atomic_store_n(&pages()[(p - 1) * kPageSlots + slot % kPageSlots], row, __ATOMIC_RELAXED);
    }
    bool hasPage(uint32_t slot) const { return page[slot / kPageSlots] != 0; }
    static size_t bytesFor(uint32_t pages) {
        return sizeof(Index) + size_t{pages} * kPageSlots * sizeof(uint16_t);
    }

    // Readers without the lock may reach an index: only readers::emplace makes one.
    Index(readers::Made, uint16_t capacity) : capacity(capacity) {
        std::memset(page, 0, sizeof(page));
    }
    Index(const Index&) = delete;
    Index& operator=(const Index&) = delete;
    static Index* make(uint32_t capacity);
    static void release(Index* index) noexcept;
};

// The side index: tags without a slot and their rows, sorted by tag. Shared like the slot
// index; its entries are read and written with atomic builtins, so that a reader without the
// lock may search it while a writer changes it in place.
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
    // The first entry whose tag is not below `tag` (n when none), within `n` entries.
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
    uint16_t rowOf(uint32_t tag) const {
        const uint32_t n = count.load(std::memory_order_acquire);
        if (n > capacity) return kNoRow;  // a torn look; its reader will check again
        const uint32_t i = lowerBound(tag, n);
        return i < n && tagAt(i) == tag ? rowAt(i) : kNoRow;
    }

    // Readers without the lock may reach a side index: only readers::emplace makes one.
    Side(readers::Made, uint32_t capacity) : capacity(capacity) {}
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;
    // An empty index with room for `capacity` entries, and one reference.
    static Side* make(uint32_t capacity);
    static void release(Side* side) noexcept;
};

// Index blocks that have room for the whole map, kept for the next large table, in two halves
// behind byte locks so that threads building tables rarely wait for each other.
struct IMetadata::Storage::ItemTable::BufferQueue {
    static constexpr size_t kMaxPerHalf = 80;

    struct Half {
        SpinLock lock;
        std::vector<void*> blocks ZORCAM_GUARDED_BY(lock);
        // Mirrors blocks.size() for the unlocked choice of a half.
        std::atomic<uint32_t> count{0};
    };

    BufferQueue() = default;
    ~BufferQueue();
    BufferQueue(const BufferQueue&) = delete;
    BufferQueue& operator=(const BufferQueue&) = delete;

    // A block of Index::bytesFor(Index::kPages) bytes, pooled when there is one.
    void* take();
    // Keeps a block for the next table, or frees it when the pool is full.
    void give(void* block) noexcept;

    // The preferred half, locked, or the other when the preferred one is busy; when both are,
    // the preferred one once it is free (see backOff).
    Half& lockHalf(int preferred);
    uint32_t pooled(int half) const { return mHalves[half].count.load(std::memory_order_relaxed); }

    Half mHalves[2];
};

//------------------------------------------------------------------------------------------
// The table's fast paths, inline for the library's own loops.

namespace itemtable {

using Table = IMetadata::Storage::ItemTable;

// The slot of a tag as rows keep it: kNoRow for a tag outside the map.
inline uint16_t slotKey(uint32_t tag) {
    const uint32_t slot = slotmap::slotOf(tag);
    return slot == slotmap::kNone ? Table::kNoRow : static_cast<uint16_t>(slot);
}

inline const Table::Index* indexOf(const Table::Directory* d) {
    return reinterpret_cast<const Table::Index*>(d->index.load(std::memory_order_acquire) &
                                                 ~Table::Directory::kBorrowed);
}
inline const Table::Side* sideOf(const Table::Directory* d) {
    return reinterpret_cast<const Table::Side*>(d->side.load(std::memory_order_acquire) &
                                                ~Table::Directory::kBorrowed);
}

}  // namespace itemtable

__attribute__((always_inline)) inline uint16_t IMetadata::Storage::ItemTable::rowOf(
    uint32_t tag) const {
    const Directory* d = mDirectory.load(std::memory_order_relaxed);
    if (d == nullptr) return kNoRow;
    if (const Index* ix = itemtable::indexOf(d)) {
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot != slotmap::kNone) return ix->rowAt(slot);
        const Side* side = itemtable::sideOf(d);
        return side != nullptr ? side->rowOf(tag) : kNoRow;
    }
    // A small table: its rows are looked at. Tags that share a slot share a row.
    const size_t rows = size();
    const Chunk* first = d->chunk(0);
    const uint16_t slot = itemtable::slotKey(tag);
    for (size_t r = 0; r < rows; ++r) {
        if (slot != kNoRow ? first->slot[r] == slot
                           : record::tagOf(first->recordOf(static_cast<uint32_t>(r))) == tag)
            return static_cast<uint16_t>(r);
    }
    return kNoRow;
}

inline RowView IMetadata::Storage::ItemTable::rowAt(size_t row) const {
    const Chunk* c = mDirectory.load(std::memory_order_relaxed)->chunk(row / Chunk::kRows);
    const uint32_t r = static_cast<uint32_t>(row % Chunk::kRows);
    const uint8_t* rec = c->recordOf(r);
    const Content* object = nullptr;
    if (c->isObject(r))
        object = c->holders.load(std::memory_order_relaxed)
                     ->held[r]
                     .content.load(std::memory_order_relaxed);
    return RowView{record::tagOf(rec), rec, object};
}

inline uint32_t IMetadata::Storage::ItemTable::rowTag(size_t row) const {
    const Chunk* c = mDirectory.load(std::memory_order_relaxed)->chunk(row / Chunk::kRows);
    return record::tagOf(c->recordOf(static_cast<uint32_t>(row % Chunk::kRows)));
}

template <typename Fn>
void IMetadata::Storage::ItemTable::forEachRow(Fn&& fn) const {
    const size_t rows = size();
    for (size_t r = 0; r < rows; ++r) fn(rowAt(r));
}

template <typename Fn>
auto IMetadata::Storage::ItemTable::forEachObject(Fn&& fn) const -> decltype(fn(nullptr)) {
    using Answer = decltype(fn(nullptr));
    const size_t rows = size();
    const Directory* d = mDirectory.load(std::memory_order_relaxed);
    for (size_t first = 0; first < rows; first += Chunk::kRows) {
        const Chunk* c = d->chunk(first / Chunk::kRows);
        if (c->objects == 0) continue;
        const Chunk::Holders* h = c->holders.load(std::memory_order_relaxed);
        for (uint32_t r = 0; r < Chunk::kRows; ++r) {
            if (!c->isObject(r)) continue;
            const Answer a = fn(h->held[r].content.load(std::memory_order_relaxed));
            if (a != Answer()) return a;
        }
    }
    return Answer();
}

template <typename Refused>
void IMetadata::Storage::ItemTable::merge(const ItemTable& other, Refused&& refused) {
    const size_t rows = other.size();
    for (size_t r = 0; r < rows; ++r)
        if (!mergeRow(other, r)) refused(other.rowTag(r));
}

// Inline, for the container's read of one value: it is the whole of that read.
inline IMetadata::Storage::ItemTable::Found IMetadata::Storage::ItemTable::readValue(
    uint32_t tag, int32_t type, size_t index, void* out, size_t size) const {
    const Directory* d = mDirectory.load(std::memory_order_acquire);
    if (d == nullptr)
        return mSize.load(std::memory_order_acquire) == 0 ? Found::kAbsent : Found::kUnsure;
    uint32_t row = kNoRow;
    if (const Index* ix = itemtable::indexOf(d)) {
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot != slotmap::kNone) {
            row = ix->rowAt(slot);
        } else if (const Side* side = itemtable::sideOf(d)) {
            row = side->rowOf(tag);
        }
        if (row == kNoRow) return Found::kAbsent;
    } else {
        const uint32_t rows = mSize.load(std::memory_order_acquire);
        const Chunk* first = d->chunk(0, std::memory_order_acquire);
        if (first == nullptr) return rows == 0 ? Found::kAbsent : Found::kUnsure;
        if (rows > Chunk::kRows) return Found::kUnsure;
        const uint16_t slot = itemtable::slotKey(tag);
        for (uint32_t r = 0; r < rows && row == kNoRow; ++r) {
            const uint32_t offset = first->offsetOf(r);
            if (offset > first->capacity - record::kHead) return Found::kUnsure;
            if (slot != kNoRow ? first->slotOf(r) == slot
                               : record::tagOf(first->records() + offset) == tag)
                row = r;
        }
        if (row == kNoRow) return Found::kAbsent;
    }
    if (row / Chunk::kRows >= d->capacity) return Found::kUnsure;
    const Chunk* c = d->chunk(row / Chunk::kRows, std::memory_order_acquire);
    if (c == nullptr) return Found::kUnsure;
    // Every offset and length is checked against the chunk it was read from: a reader that
    // raced a writer reads nonsense at worst, never outside the chunk, and the sequence count
    // makes it read again.
    const uint32_t offset = c->offsetOf(row % Chunk::kRows);
    if (offset > c->capacity || c->capacity - offset < record::kHead) return Found::kUnsure;
    const uint8_t* rec = c->records() + offset;
    const uint32_t length = record::lengthOf(rec);
    if (length == 0) return Found::kAbsent;  // a row without values: no element
    if (length == record::kObjectRow) return Found::kUnsure;
    if (length < flat::kContentHeader || length > c->capacity - offset - record::kHead)
        return Found::kUnsure;
    const int32_t count = record::countOf(rec);
    if (count < 0) return Found::kUnsure;
    if (index >= static_cast<uint32_t>(count)) return Found::kAbsent;
    // What the locked path would report (a type that does not match) is left to it.
    if (record::typeOf(rec) != type) return Found::kUnsure;
    if ((index + 1) * size > length - flat::kContentHeader) return Found::kUnsure;
    readRacing(out, rec + record::kPayload + index * size, size);
    return Found::kValue;
}

}  // namespace NSCam
