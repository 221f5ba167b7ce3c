#include "ItemTable.h"

#include <sched.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "Pool.h"
#include "Readers.h"
#include "Sync.h"

namespace NSCam {

using ItemTable = IMetadata::Storage::ItemTable;
using Chunk = ItemTable::Chunk;
using Directory = ItemTable::Directory;
using Slots = ItemTable::Slots;
using Item = IMetadata::Storage::Item;

namespace {

constexpr uint32_t kRows = Chunk::kRows;
// Above this many rows one fill of the whole slot array is cheaper than resetting the rows'
// slots one by one.
constexpr size_t kResetByFillRows = 130;

static_assert(sizeof(Slots::rows) == 3220, "1,610 row numbers");
static_assert(ItemTable::kScanRows == kRows, "a table that is looked at has one chunk");

std::shared_ptr<Chunk> newChunk() {
    return std::allocate_shared<PooledChunk>(readers::DeferredAllocator<PooledChunk>());
}

using itemtable::answersFor;
using itemtable::slotKey;

// Every row of an array nobody else can see yet: free.
void fillFree(Slots* s) {
    std::memset(s->rows, 0xFF, sizeof(s->rows));
}

void releaseSlots(Slots* slots) noexcept {
    if (slots != nullptr && slots->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        ItemTable::sBufferQueue.give(slots);
}

void releaseSlotsOf(void* p) {
    releaseSlots(static_cast<Slots*>(p));
}
void releaseSideOf(void* p) {
    ItemTable::Side::release(static_cast<ItemTable::Side*>(p));
}
void destroyDirectoryOf(void* p) {
    Directory::destroy(static_cast<Directory*>(p));
}

// Lets go of a directory, slot array or side index the table drops: at once, or, while
// readers without the lock may still be in it, once they have left.
void letGo(bool published, void* item, void (*release)(void*)) {
    if (item == nullptr) return;
    if (published)
        readers::retire(item, release);
    else
        release(item);
}

}  // namespace

//------------------------------------------------------------------------------------------
// The pool of slot arrays

ItemTable::BufferQueue ItemTable::sBufferQueue;

ItemTable::BufferQueue::~BufferQueue() {
    for (auto& half : mSlotArrays)
        for (Slots* s : half) delete s;
}

int ItemTable::BufferQueue::lock(int preferred) {
    int half = preferred;
    while (mLocks[half].exchange(1, std::memory_order_acquire) != 0) half ^= 1;
    return half;
}

void ItemTable::BufferQueue::unlock(int half) {
    mLocks[half].store(0, std::memory_order_seq_cst);
}

Slots* ItemTable::BufferQueue::take(bool clean) {
    Slots* s = nullptr;
    // Take from the longer half (a tie goes to half 1).
    const int half = lock(pooled(0) > pooled(1) ? 0 : 1);
    if (!mSlotArrays[half].empty()) {
        s = mSlotArrays[half].back();
        mSlotArrays[half].pop_back();
        mCount[half].fetch_sub(1, std::memory_order_relaxed);
    }
    unlock(half);
    if (s == nullptr) {
        s = new Slots;
    } else {
        s->refs.store(1, std::memory_order_relaxed);
    }
    if (clean) fillFree(s);
    return s;
}

void ItemTable::BufferQueue::give(Slots* s) noexcept {
    // Give back to the shorter half (a tie goes to half 0).
    const int half = lock(pooled(0) > pooled(1) ? 1 : 0);
    if (mSlotArrays[half].size() < kMaxPerHalf) {
        try {
            mSlotArrays[half].push_back(s);
            mCount[half].fetch_add(1, std::memory_order_relaxed);
            unlock(half);
            return;
        } catch (const std::bad_alloc&) {
        }
    }
    unlock(half);
    delete s;
}

//------------------------------------------------------------------------------------------
// The side index

ItemTable::Side* ItemTable::Side::make(uint32_t capacity) {
    void* memory = pool::take(sizeof(Side) + capacity * sizeof(Entry));
    auto* side = new (memory) Side();
    side->capacity = capacity;
    return side;
}

void ItemTable::Side::release(Side* side) noexcept {
    if (side == nullptr || side->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const size_t bytes = sizeof(Side) + side->capacity * sizeof(Entry);
    side->~Side();
    pool::give(side, bytes);
}

//------------------------------------------------------------------------------------------
// The directory

Directory* Directory::make(uint32_t capacity) {
    void* memory = pool::take(sizeof(Directory) + capacity * sizeof(Entry));
    auto* d = new (memory) Directory{capacity};
    for (uint32_t i = 0; i < capacity; ++i) new (&d->entries()[i]) Entry();
    return d;
}

void Directory::destroy(Directory* d) noexcept {
    if (d == nullptr) return;
    for (uint32_t i = 0; i < d->capacity; ++i) d->entries()[i].~Entry();
    const size_t bytes = sizeof(Directory) + d->capacity * sizeof(Entry);
    d->~Directory();
    pool::give(d, bytes);
}

//------------------------------------------------------------------------------------------
// Life cycle

ItemTable::ItemTable()
    : mDirectory(nullptr), mSize(0), mSlots(nullptr), mSide(nullptr), mPublished(false) {}

ItemTable::~ItemTable() {
    // Nothing here needs retiring: a published table is destroyed only when no reader can
    // reach it any more (its storage was retired before it went).
    Directory::destroy(mDirectory.load(std::memory_order_relaxed));
    releaseSlots(mSlots.load(std::memory_order_relaxed));
    Side::release(mSide.load(std::memory_order_relaxed));
}

void ItemTable::reset() {
    Directory* d = mDirectory.load(std::memory_order_relaxed);
    Slots* s = mSlots.load(std::memory_order_relaxed);
    Side* side = mSide.load(std::memory_order_relaxed);
    mDirectory.store(nullptr, std::memory_order_release);
    mSlots.store(nullptr, std::memory_order_release);
    mSide.store(nullptr, std::memory_order_release);
    mSize.store(0, std::memory_order_relaxed);
    letGo(published(), d, destroyDirectoryOf);
    letGo(published(), s, releaseSlotsOf);
    letGo(published(), side, releaseSideOf);
}

void ItemTable::clear() {
    Slots* s = mSlots.load(std::memory_order_relaxed);
    const size_t rows = size();
    // A slot array of this table's own is reset and kept; a shared one is let go.
    if (s != nullptr && s->refs.load(std::memory_order_acquire) == 1) {
        // Readers without the lock may still look at it: row by row, atomically.
        if (rows > kResetByFillRows) {
            for (uint32_t slot = 0; slot < kSlotCount; ++slot) s->setRow(slot, kNoRow);
        } else {
            for (size_t r = 0; r < rows; ++r) {
                const uint32_t slot = slotmap::slotOf(rowTag(r));
                if (slot != slotmap::kNone) s->setRow(slot, kNoRow);
            }
        }
        mSlots.store(nullptr, std::memory_order_relaxed);
        reset();
        mSlots.store(s, std::memory_order_release);
        return;
    }
    reset();
}

ItemTable& ItemTable::operator=(const ItemTable& other) {
    if (this == &other) return *this;
    // The one thing that may throw first: the copy of the directory.
    const Directory* from = other.mDirectory.load(std::memory_order_relaxed);
    Directory* d = nullptr;
    if (from != nullptr) {
        d = Directory::make(from->capacity);
        for (uint32_t i = 0; i < from->capacity; ++i) {
            d->entries()[i].owner = from->entries()[i].owner;
            d->entries()[i].chunk.store(from->entries()[i].chunk.load(std::memory_order_relaxed),
                                        std::memory_order_relaxed);
        }
    }
    Slots* s = other.mSlots.load(std::memory_order_relaxed);
    if (s != nullptr) s->refs.fetch_add(1, std::memory_order_relaxed);
    Side* side = other.mSide.load(std::memory_order_relaxed);
    if (side != nullptr) side->refs.fetch_add(1, std::memory_order_relaxed);
    reset();
    mSize.store(other.size(), std::memory_order_relaxed);
    mSide.store(side, std::memory_order_release);
    mSlots.store(s, std::memory_order_release);
    mDirectory.store(d, std::memory_order_release);
    return *this;
}

//------------------------------------------------------------------------------------------
// Rows

uint32_t ItemTable::tagAt(size_t row) const {
    return rowTag(row);
}

Content* ItemTable::contentAt(size_t row) const {
    return rowContent(row);
}

namespace {

// The owning reference of a row's content: its own, the one it borrows from the chunk it was
// copied from, or one that shares the decoded block the content lives in (`blockOwner`: the
// reference that keeps the row's chunk, for a chunk of the block itself). Never a reference to
// a chunk: a row that held one could make a chunk hold itself.
std::shared_ptr<Content> ownerOf(const Chunk& chunk, const Chunk::Row& row,
                                 const std::shared_ptr<Chunk>& blockOwner) {
    if (row.own) return row.own;
    if (row.lent != nullptr) return *row.lent;
    Content* c = row.content.load(std::memory_order_relaxed);
    if (c == nullptr) return nullptr;
    return chunk.block ? std::shared_ptr<Content>(chunk.block, c)
                       : std::shared_ptr<Content>(blockOwner, c);
}

}  // namespace

std::shared_ptr<Content> ItemTable::contentSPAt(size_t row) const {
    const Directory::Entry& e = mDirectory.load(std::memory_order_relaxed)->entries()[row / kRows];
    const Chunk* chunk = e.chunk.load(std::memory_order_relaxed);
    return ownerOf(*chunk, chunk->rows()[row % kRows], e.owner);
}

// A content or chunk the table drops is released at once: if it was the last reference, the
// object itself waits for the readers (see readers::DeferredAllocator).
void ItemTable::dropContent(std::shared_ptr<Content>&& content) {
    content.reset();
}

void ItemTable::dropChunk(std::shared_ptr<Chunk>&& chunk) {
    chunk.reset();
}

void ItemTable::growDirectory(size_t chunks) {
    Directory* d = mDirectory.load(std::memory_order_relaxed);
    if (d != nullptr && d->capacity >= chunks) return;
    uint32_t capacity = d != nullptr ? d->capacity : 4;
    while (capacity < chunks) capacity *= 2;
    Directory* grown = Directory::make(capacity);
    if (d != nullptr) {
        for (uint32_t i = 0; i < d->capacity; ++i) {
            // The old directory keeps its chunk pointers for readers still following it; the
            // owning references move.
            grown->entries()[i].owner = std::move(d->entries()[i].owner);
            grown->entries()[i].chunk.store(d->entries()[i].chunk.load(std::memory_order_relaxed),
                                            std::memory_order_relaxed);
        }
    }
    mDirectory.store(grown, std::memory_order_release);
    letGo(published(), d, destroyDirectoryOf);
}

// The chunk at `index`, made this table's own: a chunk that another table shares, or one in
// a decoded block, is replaced by a copy first. The copy borrows the rows of the one it
// copies (one reference to that chunk, not one per row), as long as the chain of chunks
// borrowing from each other stays short; past that it owns what its source owned.
Chunk* ItemTable::writableChunk(size_t index) {
    Directory::Entry& e = mDirectory.load(std::memory_order_relaxed)->entries()[index];
    Chunk* from = e.chunk.load(std::memory_order_relaxed);
    if (from != nullptr && !from->inBlock && soleOwner(e.owner)) return from;
    std::shared_ptr<Chunk> copy = newChunk();
    if (from != nullptr) {
        const bool borrow = from->keepDepth < Chunk::kMaxKeepDepth;
        copy->keep = borrow ? e.owner : from->keep;
        copy->keepDepth = static_cast<uint8_t>(borrow ? from->keepDepth + 1 : from->keepDepth);
        copy->block = from->inBlock ? std::shared_ptr<void>(e.owner) : from->block;
        for (uint32_t i = 0; i < from->capacity; ++i) {
            const Chunk::Row& src = from->rows()[i];
            Chunk::Row& dst = copy->rows()[i];
            dst.tag.store(src.tag.load(std::memory_order_relaxed), std::memory_order_relaxed);
            dst.slot.store(src.slot.load(std::memory_order_relaxed), std::memory_order_relaxed);
            dst.content.store(src.content.load(std::memory_order_relaxed),
                              std::memory_order_relaxed);
            if (borrow)
                dst.lent = src.own ? &src.own : src.lent;
            else if (src.own)
                dst.own = src.own;
            else
                dst.lent = src.lent;
        }
    }
    Chunk* raw = copy.get();
    std::shared_ptr<Chunk> old = std::exchange(e.owner, std::move(copy));
    e.chunk.store(raw, std::memory_order_release);
    dropChunk(std::move(old));
    return raw;
}

//------------------------------------------------------------------------------------------
// The index

uint16_t ItemTable::getIndexByTag(uint32_t tag) const {
    return rowOf(tag);
}

ItemTable::Found ItemTable::find(uint32_t tag, const Content*& content) const {
    uint32_t row = kNoRow;
    const Directory* d = mDirectory.load(std::memory_order_acquire);
    if (const Slots* s = mSlots.load(std::memory_order_acquire)) {
        const uint32_t slot = slotmap::slotOf(tag);
        row = slot != slotmap::kNone ? s->row(slot) : sideRowOf(tag);
        if (row == kNoRow) return Found::kAbsent;
    } else {
        if (d == nullptr) return Found::kAbsent;
        const Chunk* first = d->entries()[0].chunk.load(std::memory_order_acquire);
        const uint32_t rows = mSize.load(std::memory_order_relaxed);
        if (first == nullptr) return rows == 0 ? Found::kAbsent : Found::kUnsure;
        if (rows > first->capacity) return Found::kUnsure;
        const uint16_t slot = slotKey(tag);
        for (uint32_t r = 0; r < rows && row == kNoRow; ++r)
            if (answersFor(first->rows()[r], tag, slot)) row = r;
        if (row == kNoRow) return Found::kAbsent;
    }
    if (d == nullptr || row / kRows >= d->capacity) return Found::kUnsure;
    const Chunk* c = d->entries()[row / kRows].chunk.load(std::memory_order_acquire);
    if (c == nullptr || row % kRows >= c->capacity) return Found::kUnsure;
    content = c->rows()[row % kRows].content.load(std::memory_order_acquire);
    return Found::kRow;
}

// The slot array made this table's own (a shared one is copied first).
Slots* ItemTable::writableSlots() {
    Slots* s = mSlots.load(std::memory_order_relaxed);
    if (s->refs.load(std::memory_order_acquire) == 1) return s;
    // The shared array is changed by nobody (a change would copy it first): plain copying.
    Slots* copy = sBufferQueue.take(false);
    std::memcpy(copy->rows, s->rows, sizeof(copy->rows));
    mSlots.store(copy, std::memory_order_release);
    dropSlots(s);
    return copy;
}

void ItemTable::dropSlots(Slots* s) {
    letGo(published(), s, releaseSlotsOf);
}

// The side index made this table's own with room for `room` more entries: a shared or full
// one is replaced by a larger copy first.
ItemTable::Side* ItemTable::writableSide(uint32_t room) {
    Side* side = mSide.load(std::memory_order_relaxed);
    const uint32_t n = side != nullptr ? side->count.load(std::memory_order_relaxed) : 0;
    if (side != nullptr && side->refs.load(std::memory_order_acquire) == 1 &&
        side->capacity - n >= room)
        return side;
    uint32_t capacity = 16;
    while (capacity < n + room) capacity *= 2;
    Side* copy = Side::make(capacity);
    for (uint32_t i = 0; i < n; ++i) copy->set(i, side->tagAt(i), side->rowAt(i));
    copy->count.store(n, std::memory_order_relaxed);
    mSide.store(copy, std::memory_order_release);
    letGo(published(), side, releaseSideOf);
    return copy;
}

// A table grown past kScanRows gets its slot array (and side index) from its rows.
void ItemTable::buildSlots() {
    Slots* s = sBufferQueue.take(true);
    size_t outside = 0;
    for (size_t r = 0; r < size(); ++r) {
        const uint32_t slot = slotmap::slotOf(rowTag(r));
        if (slot != slotmap::kNone)
            s->rows[slot] = static_cast<uint16_t>(r);  // not yet seen by anybody
        else
            ++outside;
    }
    if (outside != 0) {
        Side* side = nullptr;
        try {
            side = Side::make(std::max<uint32_t>(16, static_cast<uint32_t>(outside) * 2));
        } catch (...) {
            releaseSlots(s);
            throw;
        }
        uint32_t n = 0;
        for (size_t r = 0; r < size(); ++r)
            if (slotmap::slotOf(rowTag(r)) == slotmap::kNone)
                side->set(n++, rowTag(r), static_cast<uint16_t>(r));
        std::sort(side->entries(), side->entries() + n,
                  [](const Side::Entry& a, const Side::Entry& b) { return a.tag < b.tag; });
        side->count.store(n, std::memory_order_relaxed);
        letGo(published(), mSide.exchange(side, std::memory_order_acq_rel), releaseSideOf);
    }
    mSlots.store(s, std::memory_order_release);
}

// Cannot throw: the caller made the slot array and the side index writable, with room.
void ItemTable::setIndex(uint32_t tag, uint16_t row) {
    if (mSlots.load(std::memory_order_relaxed) == nullptr) return;  // rows are looked at
    const uint32_t slot = slotmap::slotOf(tag);
    if (slot != slotmap::kNone) {
        mSlots.load(std::memory_order_relaxed)->setRow(slot, row);
        return;
    }
    Side* side = mSide.load(std::memory_order_relaxed);
    const uint32_t n = side->count.load(std::memory_order_relaxed);
    const uint32_t at = side->lowerBound(tag, n);
    if (at < n && side->tagAt(at) == tag) {
        side->set(at, tag, row);
        return;
    }
    for (uint32_t i = n; i > at; --i) side->set(i, side->tagAt(i - 1), side->rowAt(i - 1));
    side->set(at, tag, row);
    side->count.store(n + 1, std::memory_order_release);
}

void ItemTable::dropIndex(uint32_t tag) {
    if (mSlots.load(std::memory_order_relaxed) == nullptr) return;
    const uint32_t slot = slotmap::slotOf(tag);
    if (slot != slotmap::kNone) {
        mSlots.load(std::memory_order_relaxed)->setRow(slot, kNoRow);
        return;
    }
    Side* side = mSide.load(std::memory_order_relaxed);
    const uint32_t n = side->count.load(std::memory_order_relaxed);
    const uint32_t at = side->lowerBound(tag, n);
    if (at == n || side->tagAt(at) != tag) return;
    side->count.store(n - 1, std::memory_order_release);
    for (uint32_t i = at; i + 1 < n; ++i) side->set(i, side->tagAt(i + 1), side->rowAt(i + 1));
}

// Makes the slot array and, for a tag outside the map, the side index writable (with room
// for `room` more entries): everything an index change may need to allocate.
void ItemTable::prepareIndex(uint32_t tag, uint32_t room) {
    if (mSlots.load(std::memory_order_relaxed) == nullptr) return;
    if (slotmap::slotOf(tag) != slotmap::kNone)
        writableSlots();
    else
        writableSide(room);
}

//------------------------------------------------------------------------------------------
// Changes. Each does first whatever may throw (copies of shared chunks and slot arrays, a
// larger directory, room in the side index), which leaves the rows as they were, and only
// then changes rows and index.

bool ItemTable::update(uint32_t tag, const std::shared_ptr<Content>& content) {
    return update(tag, std::shared_ptr<Content>(content));
}

bool ItemTable::update(uint32_t tag, std::shared_ptr<Content>&& content) {
    const uint16_t found = rowOf(tag);
    if (found != kNoRow) {
        // The row keeps its position and its tag; only the values change.
        Chunk::Row& row = writableChunk(found / kRows)->rows()[found % kRows];
        Content* raw = content.get();
        std::shared_ptr<Content> old = std::exchange(row.own, std::move(content));
        row.lent = nullptr;
        row.content.store(raw, std::memory_order_release);
        dropContent(std::move(old));
        return true;
    }
    const size_t rows = size();
    if (rows >= kMaxRows) return false;
    growDirectory(rows / kRows + 1);
    Chunk* chunk = writableChunk(rows / kRows);
    if (mSlots.load(std::memory_order_relaxed) == nullptr && rows + 1 > kScanRows) buildSlots();
    prepareIndex(tag, 1);
    Chunk::Row& row = chunk->rows()[rows % kRows];
    row.tag.store(tag, std::memory_order_relaxed);
    row.slot.store(slotKey(tag), std::memory_order_relaxed);
    Content* raw = content.get();
    row.own = std::move(content);
    row.lent = nullptr;
    row.content.store(raw, std::memory_order_release);
    setIndex(tag, static_cast<uint16_t>(rows));  // cannot throw now
    mSize.store(static_cast<uint32_t>(rows + 1), std::memory_order_release);
    return true;
}

bool ItemTable::update(const Item& item) {
    return update(item.tag, item.content);
}

bool ItemTable::remove(uint32_t tag) {
    const uint16_t row = rowOf(tag);
    if (row == kNoRow) return false;
    const size_t last = size() - 1;
    Chunk* hole = writableChunk(row / kRows);
    Chunk* tail = writableChunk(last / kRows);
    prepareIndex(tag, 0);
    prepareIndex(rowTag(last), 0);
    Chunk::Row& from = tail->rows()[last % kRows];
    std::shared_ptr<Content> dropped;
    // The last row moves into the hole, so removal is constant time and changes row order.
    if (row != last) {
        Chunk::Row& to = hole->rows()[row % kRows];
        const uint32_t moved = from.tag.load(std::memory_order_relaxed);
        Content* movedContent = from.content.load(std::memory_order_relaxed);
        if (hole == tail) {
            // Within one chunk a borrowed row stays borrowed.
            dropped = std::exchange(to.own, std::move(from.own));
            to.lent = from.lent;
        } else {
            // Into another chunk a row takes its content's owning reference along.
            dropped = std::exchange(
                to.own,
                ownerOf(*tail, from,
                        mDirectory.load(std::memory_order_relaxed)->entries()[last / kRows].owner));
            to.lent = nullptr;
        }
        to.tag.store(moved, std::memory_order_relaxed);
        to.slot.store(from.slot.load(std::memory_order_relaxed), std::memory_order_relaxed);
        to.content.store(movedContent, std::memory_order_release);
        setIndex(moved, row);
    } else {
        dropped = std::move(from.own);
    }
    dropIndex(tag);
    from.tag.store(0, std::memory_order_relaxed);
    from.slot.store(kNoRow, std::memory_order_relaxed);
    from.content.store(nullptr, std::memory_order_release);
    from.own.reset();
    from.lent = nullptr;
    mSize.store(static_cast<uint32_t>(last), std::memory_order_release);
    dropContent(std::move(dropped));
    return true;
}

//------------------------------------------------------------------------------------------
// Decoding

void ItemTable::adoptChunk(const std::shared_ptr<void>& block, size_t index, Chunk* chunk) {
    growDirectory(index + 1);
    Directory::Entry& e = mDirectory.load(std::memory_order_relaxed)->entries()[index];
    dropChunk(std::exchange(e.owner, std::shared_ptr<Chunk>(block, chunk)));
    e.chunk.store(chunk, std::memory_order_release);
}

void ItemTable::beginDecoded(size_t records) {
    // Every row of a large block is found through the slot array from the first one on.
    if (records > kScanRows && mSlots.load(std::memory_order_relaxed) == nullptr)
        mSlots.store(sBufferQueue.take(true), std::memory_order_release);
}

void ItemTable::putDecodedOutside(uint32_t tag, uint16_t row) {
    prepareIndex(tag, 1);
    setIndex(tag, row);
}

}  // namespace NSCam
