// The tag table (layout and sharing in ItemTable.h): its building blocks, the changes of rows,
// copies that borrow, the index, merges and the decoder of checked records.
#include "ItemTable.h"

#include <sched.h>

#include <algorithm>
#include <cstring>
#include <new>

#include <zorcam/metadata/FlatWalk.h>
#include "Readers.h"
#include "Sync.h"

namespace NSCam {

using ItemTable = IMetadata::Storage::ItemTable;
using Chunk = ItemTable::Chunk;
using Directory = ItemTable::Directory;
using Index = ItemTable::Index;
using Side = ItemTable::Side;
using Holders = Chunk::Holders;
using Item = IMetadata::Storage::Item;

namespace {

constexpr uint32_t kRows = Chunk::kRows;
constexpr uintptr_t kBorrowed = Directory::kBorrowed;
// A row's content while one caller installs it (see contentSPAt).
Content* const kMaking = reinterpret_cast<Content*>(uintptr_t{1});
// Room a chunk's first row asks for, per row it will hold, and the most a chunk asks for
// up front (so that a chunk of small rows stays in one pooled block).
constexpr size_t kMaxFirstCapacity = 1024 - sizeof(Chunk);

static_assert(ItemTable::kScanRows == kRows, "a table that is looked at has one chunk");
static_assert(sizeof(Chunk) % 8 == 0, "records follow the chunk's header");
static_assert(record::kPayload == flat::kRecordHead + flat::kContentHeader, "the record layout");

template <typename T>
T* pointerOf(uintptr_t entry) {
    return reinterpret_cast<T*>(entry & ~kBorrowed);
}
bool isBorrowed(uintptr_t entry) {
    return (entry & kBorrowed) != 0;
}
size_t roundUp16(size_t n) {
    return (n + 15) & ~size_t{15};
}

void put32(uint8_t* at, uint32_t v) {
    std::memcpy(at, &v, 4);
}

// Writes the record of `tag` holding `v` at `to`; its size is v.recordSize().
void writeRecord(uint8_t* to, uint32_t tag, const RowValue& v) {
    put32(to + record::kTag, tag);
    switch (v.kind) {
        case RowValue::Kind::kNone:
            put32(to + record::kLength, 0);
            return;
        case RowValue::Kind::kObject:
            put32(to + record::kLength, record::kObjectRow);
            return;
        case RowValue::Kind::kValues:
            put32(to + record::kLength, static_cast<uint32_t>(flat::kContentHeader + v.bytes));
            put32(to + record::kLength + 4, flat::kContentPattern);
            put32(to + record::kType, static_cast<uint32_t>(v.type));
            put32(to + record::kCount, static_cast<uint32_t>(v.count));
            if (v.bytes != 0) std::memcpy(to + record::kPayload, v.payload, v.bytes);
            return;
    }
}

void setSlot(Chunk* c, uint32_t r, uint16_t slot) {
    __atomic_store_n(&c->slot[r], slot, __ATOMIC_RELAXED);
}
void setOffset(Chunk* c, uint32_t r, uint32_t offset) {
    __atomic_store_n(&c->offset[r], offset, __ATOMIC_RELEASE);
}

// A reference to a chunk, index or side index dropped; the last one releases it.
void releaseChunk(Chunk* c) noexcept {
    if (c != nullptr && c->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) Chunk::destroy(c);
}
void releaseChunkOf(void* p) {
    releaseChunk(static_cast<Chunk*>(p));
}
void releaseDirectoryOf(void* p) {
    Directory::release(static_cast<Directory*>(p));
}
void releaseIndexOf(void* p) {
    Index::release(static_cast<Index*>(p));
}
void releaseSideOf(void* p) {
    Side::release(static_cast<Side*>(p));
}

Holders* makeHolders() {
    return new (pool::take(sizeof(Holders))) Holders();
}
void destroyHolders(Holders* h) noexcept {
    if (h == nullptr) return;
    h->~Holders();
    pool::give(h, sizeof(Holders));
}

// Frees a chunk that was never installed, when a later step of a change throws.
struct ChunkGuard {
    Chunk* chunk = nullptr;
    ~ChunkGuard() { Chunk::destroy(chunk); }
    Chunk* release() { return std::exchange(chunk, nullptr); }
};

}  // namespace

//------------------------------------------------------------------------------------------
// The building blocks

Chunk* Chunk::make(size_t capacity) {
    const size_t bytes = roundUp16(sizeof(Chunk) + capacity);
    return readers::emplace<Chunk>(pool::take(bytes), static_cast<uint32_t>(bytes - sizeof(Chunk)));
}

void Chunk::destroy(Chunk* c) noexcept {
    if (c == nullptr) return;
    destroyHolders(c->holders.load(std::memory_order_relaxed));
    const size_t bytes = sizeof(Chunk) + c->capacity;
    c->~Chunk();
    pool::give(c, bytes);
}

Directory* Directory::make(uint32_t capacity) {
    void* memory = pool::take(sizeof(Directory) + capacity * sizeof(std::atomic<uintptr_t>));
    auto* d = readers::emplace<Directory>(memory, capacity);
    for (uint32_t i = 0; i < capacity; ++i) new (&d->entries()[i]) std::atomic<uintptr_t>(0);
    return d;
}

void Directory::release(Directory* d) noexcept {
    if (d == nullptr || d->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // The last reference: nobody, readers included, can reach it any more.
    for (uint32_t i = 0; i < d->capacity; ++i) {
        const uintptr_t e = d->entries()[i].load(std::memory_order_relaxed);
        if (e != 0 && !isBorrowed(e)) releaseChunk(pointerOf<Chunk>(e));
    }
    const uintptr_t index = d->index.load(std::memory_order_relaxed);
    if (index != 0 && !isBorrowed(index)) Index::release(pointerOf<Index>(index));
    const uintptr_t side = d->side.load(std::memory_order_relaxed);
    if (side != 0 && !isBorrowed(side)) Side::release(pointerOf<Side>(side));
    Directory* base = d->base;
    const size_t bytes = sizeof(Directory) + d->capacity * sizeof(std::atomic<uintptr_t>);
    d->~Directory();
    pool::give(d, bytes);
    release(base);
}

Index* Index::make(uint32_t capacity) {
    void* memory;
    if (capacity > kSmallPages) {
        capacity = kPages;
        memory = ItemTable::sBufferQueue.take();
    } else {
        memory = pool::take(bytesFor(capacity));
    }
    return readers::emplace<Index>(memory, static_cast<uint16_t>(capacity));
}

void Index::release(Index* ix) noexcept {
    if (ix == nullptr || ix->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const uint32_t capacity = ix->capacity;
    ix->~Index();
    if (capacity == kPages)
        ItemTable::sBufferQueue.give(ix);
    else
        pool::give(ix, bytesFor(capacity));
}

Side* Side::make(uint32_t capacity) {
    void* memory = pool::take(sizeof(Side) + capacity * sizeof(Entry));
    return readers::emplace<Side>(memory, capacity);
}

void Side::release(Side* side) noexcept {
    if (side == nullptr || side->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const size_t bytes = sizeof(Side) + side->capacity * sizeof(Entry);
    side->~Side();
    pool::give(side, bytes);
}

//------------------------------------------------------------------------------------------
// The pool of index blocks with room for the whole map

ItemTable::BufferQueue ItemTable::sBufferQueue;

// At exit: no thread uses the pool any more.
ItemTable::BufferQueue::~BufferQueue() ZORCAM_NO_THREAD_SAFETY_ANALYSIS {
    for (Half& half : mHalves)
        for (void* block : half.blocks) ::operator delete(block);
}

// Which half it returns is chosen at run time: the analysis is told by assertHeld() in the
// callers that the half they got is locked.
ItemTable::BufferQueue::Half& ItemTable::BufferQueue::lockHalf(int preferred)
    ZORCAM_NO_THREAD_SAFETY_ANALYSIS {
    Half& first = mHalves[preferred];
    if (first.lock.try_lock()) return first;
    Half& second = mHalves[preferred ^ 1];
    if (second.lock.try_lock()) return second;
    first.lock.lock();
    return first;
}

void* ItemTable::BufferQueue::take() {
    void* block = nullptr;
    // Take from the longer half (a tie goes to half 1).
    Half& half = lockHalf(pooled(0) > pooled(1) ? 0 : 1);
    half.lock.assertHeld();
    if (!half.blocks.empty()) {
        block = half.blocks.back();
        half.blocks.pop_back();
        half.count.fetch_sub(1, std::memory_order_relaxed);
    }
    half.lock.unlock();
    return block != nullptr ? block : ::operator new(Index::bytesFor(Index::kPages));
}

void ItemTable::BufferQueue::give(void* block) noexcept {
    // Give back to the shorter half (a tie goes to half 0).
    Half& half = lockHalf(pooled(0) > pooled(1) ? 1 : 0);
    half.lock.assertHeld();
    if (half.blocks.size() < kMaxPerHalf) {
        try {
            half.blocks.push_back(block);
            half.count.fetch_add(1, std::memory_order_relaxed);
            half.lock.unlock();
            return;
        } catch (const std::bad_alloc&) {
        }
    }
    half.lock.unlock();
    ::operator delete(block);
}

//------------------------------------------------------------------------------------------
// Values

RowValue RowValue::of(std::shared_ptr<Content>&& content) {
    RowValue v;
    if (!content) return v;
    size_t bytes = 0;
    if (content->isReadOnly() && content->plainValues(bytes)) {
        v = values(content->mType, content->mCount, content->elements(), bytes);
    } else {
        v.kind = Kind::kObject;
    }
    v.object = std::move(content);  // for values: keeps the payload alive while it is filed
    return v;
}

//------------------------------------------------------------------------------------------
// The insides

struct ItemTable::Impl {
    static Directory* directory(const ItemTable& t) {
        return t.mDirectory.load(std::memory_order_relaxed);
    }

    // Lets go of something the table drops: at once, or, while readers without the lock may
    // still be following it, once they have left.
    static void letGo(const ItemTable& t, void* item, void (*release)(void*)) {
        if (item == nullptr) return;
        if (t.published())
            readers::retire(item, release);
        else
            release(item);
    }

    static Holders* holdersOf(const Chunk* c) { return c->holders.load(std::memory_order_acquire); }
    // The chunk's holders, made when it has none. Chunks that other tables share may be
    // asked on several threads at once: the first one installed stays.
    static Holders* ensureHolders(const Chunk* c) {
        Holders* h = holdersOf(c);
        if (h != nullptr) return h;
        Holders* made = makeHolders();
        auto& slot = const_cast<Chunk*>(c)->holders;
        if (slot.compare_exchange_strong(h, made, std::memory_order_acq_rel)) return made;
        destroyHolders(made);
        return h;
    }

    //--------------------------------------------------------------------------------------
    // Directory, chunks, index: made this table's own before it changes them

    // A directory of this table's own with room for `chunks` entries. A shared one is copied
    // first: the copy borrows what it points to from the shared one (one reference to it), or,
    // at the end of a chain of such copies, takes its own reference to each part.
    static Directory* ownDirectory(ItemTable& t, size_t chunks) {
        Directory* d = directory(t);
        if (d != nullptr && d->capacity >= chunks && d->refs.load(std::memory_order_acquire) == 1)
            return d;
        return makeOwnDirectory(t, chunks);
    }
    static __attribute__((noinline)) Directory* makeOwnDirectory(ItemTable& t, size_t chunks) {
        Directory* d = directory(t);
        size_t capacity = 4;
        while (capacity < chunks) capacity *= 2;
        if (d == nullptr) {
            Directory* made = Directory::make(static_cast<uint32_t>(capacity));
            t.mDirectory.store(made, std::memory_order_release);
            return made;
        }
        const bool shared = d->refs.load(std::memory_order_acquire) != 1;
        if (!shared && d->capacity >= chunks) return d;
        Directory* n =
            Directory::make(static_cast<uint32_t>(std::max<size_t>(d->capacity, capacity)));
        bool keepsOld = false;
        if (shared && d->depth < Directory::kMaxDepth) {
            // Borrows every part; the table's reference to `d` becomes the copy's.
            n->base = d;
            n->depth = static_cast<uint8_t>(d->depth + 1);
            keepsOld = true;
            for (uint32_t i = 0; i < d->capacity; ++i) {
                const uintptr_t e = d->entries()[i].load(std::memory_order_relaxed);
                n->entries()[i].store(e != 0 ? e | kBorrowed : 0, std::memory_order_relaxed);
            }
            const uintptr_t index = d->index.load(std::memory_order_relaxed);
            const uintptr_t side = d->side.load(std::memory_order_relaxed);
            n->index.store(index != 0 ? index | kBorrowed : 0, std::memory_order_relaxed);
            n->side.store(side != 0 ? side | kBorrowed : 0, std::memory_order_relaxed);
        } else if (shared) {
            // Owns a reference to every part, and lets go of the shared directory.
            for (uint32_t i = 0; i < d->capacity; ++i) {
                Chunk* c = d->chunk(i);
                if (c != nullptr) c->refs.fetch_add(1, std::memory_order_relaxed);
                n->entries()[i].store(reinterpret_cast<uintptr_t>(c), std::memory_order_relaxed);
            }
            if (Index* ix = pointerOf<Index>(d->index.load(std::memory_order_relaxed))) {
                ix->refs.fetch_add(1, std::memory_order_relaxed);
                n->index.store(reinterpret_cast<uintptr_t>(ix), std::memory_order_relaxed);
            }
            if (Side* side = pointerOf<Side>(d->side.load(std::memory_order_relaxed))) {
                side->refs.fetch_add(1, std::memory_order_relaxed);
                n->side.store(reinterpret_cast<uintptr_t>(side), std::memory_order_relaxed);
            }
        } else {
            // A larger directory of this table's own: its parts move over. The old one keeps
            // them, borrowed, for readers still following it.
            n->base = std::exchange(d->base, nullptr);
            n->depth = d->depth;
            for (uint32_t i = 0; i < d->capacity; ++i) {
                const uintptr_t e = d->entries()[i].load(std::memory_order_relaxed);
                n->entries()[i].store(e, std::memory_order_relaxed);
                if (e != 0) d->entries()[i].store(e | kBorrowed, std::memory_order_relaxed);
            }
            const uintptr_t index = d->index.load(std::memory_order_relaxed);
            const uintptr_t side = d->side.load(std::memory_order_relaxed);
            n->index.store(index, std::memory_order_relaxed);
            n->side.store(side, std::memory_order_relaxed);
            if (index != 0) d->index.store(index | kBorrowed, std::memory_order_relaxed);
            if (side != 0) d->side.store(side | kBorrowed, std::memory_order_relaxed);
        }
        t.mDirectory.store(n, std::memory_order_release);
        if (!keepsOld) letGo(t, d, releaseDirectoryOf);
        return n;
    }

    // A copy of `from` with room for `capacity` bytes of records: its rows, records and
    // objects; not the contents made for callers (the copy makes its own when asked).
    static Chunk* copyOf(const Chunk& from, size_t capacity) {
        ChunkGuard copy{Chunk::make(capacity)};
        Chunk* c = copy.chunk;
        std::memcpy(c->records(), from.records(), from.used);
        std::memcpy(c->slot, from.slot, sizeof(c->slot));
        for (uint32_t r = 0; r < kRows; ++r) c->offset[r] = from.offsetOf(r);
        c->used = from.used;
        c->rows = from.rows;
        c->objects = from.objects;
        if (from.objects != 0) {
            Holders* h = makeHolders();
            c->holders.store(h, std::memory_order_relaxed);
            const Holders* src = holdersOf(&from);
            for (uint32_t r = 0; r < kRows; ++r) {
                if (!from.isObject(r)) continue;
                h->held[r].owner = src->held[r].owner;
                h->held[r].content.store(h->held[r].owner.get(), std::memory_order_relaxed);
            }
        }
        return copy.release();
    }

    // The chunk at `k` of the table's own directory `d`, made the table's own: a shared or
    // borrowed one is replaced by a copy first.
    static Chunk* ownChunk(ItemTable& t, Directory* d, size_t k) {
        const uintptr_t e = d->entries()[k].load(std::memory_order_relaxed);
        Chunk* c = pointerOf<Chunk>(e);
        if (!isBorrowed(e) && c->refs.load(std::memory_order_acquire) == 1) return c;
        Chunk* copy = copyOf(*c, c->used);
        d->entries()[k].store(reinterpret_cast<uintptr_t>(copy), std::memory_order_release);
        if (!isBorrowed(e)) letGo(t, c, releaseChunkOf);
        return copy;
    }

    // Puts `c` at `k` of the table's own directory `d` in place of the chunk there, which is
    // let go of; a chunk that was the table's own hands its holders to `c` unless `c` has its
    // own (a shared one keeps them: other tables read them).
    static void replaceChunk(ItemTable& t, Directory* d, size_t k, Chunk* c) {
        const uintptr_t e = d->entries()[k].load(std::memory_order_relaxed);
        Chunk* old = pointerOf<Chunk>(e);
        const bool own =
            old != nullptr && !isBorrowed(e) && old->refs.load(std::memory_order_acquire) == 1;
        if (own && c->holders.load(std::memory_order_relaxed) == nullptr)
            c->holders.store(old->holders.exchange(nullptr, std::memory_order_relaxed),
                             std::memory_order_relaxed);
        d->entries()[k].store(reinterpret_cast<uintptr_t>(c), std::memory_order_release);
        if (old != nullptr && !isBorrowed(e)) letGo(t, old, releaseChunkOf);
    }

    // Drops the content made for callers from row `r` of a chunk of the table's own: the row
    // is about to change. Entries that hold it keep it.
    static std::shared_ptr<Content> dropMade(Chunk* c, uint32_t r) {
        Holders* h = c->holders.load(std::memory_order_relaxed);
        if (h == nullptr || h->held[r].content.load(std::memory_order_relaxed) == nullptr)
            return nullptr;
        h->held[r].content.store(nullptr, std::memory_order_relaxed);
        return std::move(h->held[r].owner);
    }

    //--------------------------------------------------------------------------------------
    // The index

    static Index* indexOf(const Directory* d) {
        return pointerOf<Index>(d->index.load(std::memory_order_relaxed));
    }
    static Side* sideOf(const Directory* d) {
        return pointerOf<Side>(d->side.load(std::memory_order_relaxed));
    }

    // Gives the slot's run of slots a page (the index has room for it).
    static void addPage(Index* ix, uint32_t slot) {
        const uint32_t p = ix->used++;
        std::memset(&ix->pages()[p * Index::kPageSlots], 0xFF,
                    Index::kPageSlots * sizeof(uint16_t));
        __atomic_store_n(&ix->page[slot / Index::kPageSlots], static_cast<uint8_t>(p + 1),
                         __ATOMIC_RELEASE);
    }

    // An index with the pages of `from` and room for `capacity` pages; not yet seen.
    static Index* copyIndex(const Index& from, uint32_t capacity) {
        Index* ix = Index::make(capacity);
        std::memcpy(ix->page, from.page, sizeof(ix->page));
        std::memcpy(ix->pages(), from.pages(),
                    size_t{from.used} * Index::kPageSlots * sizeof(uint16_t));
        ix->used = from.used;
        return ix;
    }

    // The index of the table's own directory `d` made the table's own, with a page for
    // `slot` (slotmap::kNone: none needed).
    static Index* ownIndex(ItemTable& t, Directory* d, uint32_t slot) {
        const uintptr_t e = d->index.load(std::memory_order_relaxed);
        Index* ix = pointerOf<Index>(e);
        const bool needsPage = slot != slotmap::kNone && !ix->hasPage(slot);
        const bool own = !isBorrowed(e) && ix->refs.load(std::memory_order_acquire) == 1;
        if (own && (!needsPage || ix->used < ix->capacity)) {
            if (needsPage) addPage(ix, slot);
            return ix;
        }
        const uint32_t room = needsPage && ix->used == ix->capacity ? ix->used + 4u : ix->capacity;
        Index* copy = copyIndex(*ix, room);
        if (needsPage) addPage(copy, slot);
        d->index.store(reinterpret_cast<uintptr_t>(copy), std::memory_order_release);
        if (!isBorrowed(e)) letGo(t, ix, releaseIndexOf);
        return copy;
    }

    // The side index of the table's own directory `d` made the table's own, with room for
    // `room` more entries.
    static Side* ownSide(ItemTable& t, Directory* d, uint32_t room) {
        const uintptr_t e = d->side.load(std::memory_order_relaxed);
        Side* side = pointerOf<Side>(e);
        const uint32_t n = side != nullptr ? side->count.load(std::memory_order_relaxed) : 0;
        if (side != nullptr && !isBorrowed(e) && side->refs.load(std::memory_order_acquire) == 1 &&
            side->capacity - n >= room)
            return side;
        uint32_t capacity = 8;
        while (capacity < n + room) capacity *= 2;
        Side* copy = Side::make(capacity);
        for (uint32_t i = 0; i < n; ++i) copy->set(i, side->tagAt(i), side->rowAt(i));
        copy->count.store(n, std::memory_order_relaxed);
        d->side.store(reinterpret_cast<uintptr_t>(copy), std::memory_order_release);
        if (side != nullptr && !isBorrowed(e)) letGo(t, side, releaseSideOf);
        return copy;
    }

    // The index of a table grown past kScanRows, from its rows and the tag about to join them.
    static void buildIndex(ItemTable& t, Directory* d, uint32_t joining) {
        const size_t rows = t.size();
        bool pages[Index::kPages] = {};
        uint32_t needed = 0, outside = 0;
        auto note = [&](uint32_t tag) {
            const uint32_t slot = slotmap::slotOf(tag);
            if (slot == slotmap::kNone) {
                ++outside;
            } else if (!pages[slot / Index::kPageSlots]) {
                pages[slot / Index::kPageSlots] = true;
                ++needed;
            }
        };
        for (size_t r = 0; r < rows; ++r) note(t.rowTag(r));
        note(joining);
        Index* ix = Index::make(needed);
        Side* side = nullptr;
        if (outside != 0) {
            try {
                side = Side::make(std::max<uint32_t>(8, outside * 2));
            } catch (...) {
                Index::release(ix);
                throw;
            }
        }
        uint32_t n = 0;
        for (size_t r = 0; r < rows; ++r) {
            const uint32_t tag = t.rowTag(r);
            const uint32_t slot = slotmap::slotOf(tag);
            if (slot == slotmap::kNone) {
                side->set(n++, tag, static_cast<uint16_t>(r));
                continue;
            }
            if (!ix->hasPage(slot)) addPage(ix, slot);
            ix->setRowAt(slot, static_cast<uint16_t>(r));
        }
        const uint32_t slot = slotmap::slotOf(joining);
        if (slot != slotmap::kNone && !ix->hasPage(slot)) addPage(ix, slot);
        if (side != nullptr) {
            std::sort(side->entries(), side->entries() + n,
                      [](const Side::Entry& a, const Side::Entry& b) { return a.tag < b.tag; });
            side->count.store(n, std::memory_order_relaxed);
        }
        // A table this small owns no index or side index yet: nothing to let go of.
        d->index.store(reinterpret_cast<uintptr_t>(ix), std::memory_order_release);
        d->side.store(reinterpret_cast<uintptr_t>(side), std::memory_order_release);
    }

    // Makes the index able to take `tag` (a page for its slot, or room in the side index).
    static void prepareIndex(ItemTable& t, Directory* d, uint32_t tag, uint32_t room) {
        if (indexOf(d) == nullptr) return;
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot != slotmap::kNone)
            ownIndex(t, d, room != 0 ? slot : slotmap::kNone);
        else
            ownSide(t, d, room);
    }

    // Cannot throw: prepareIndex made room.
    static void setIndex(Directory* d, uint32_t tag, uint16_t row) {
        Index* ix = indexOf(d);
        if (ix == nullptr) return;  // rows are looked at
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot != slotmap::kNone) {
            ix->setRowAt(slot, row);
            return;
        }
        Side* side = sideOf(d);
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

    static void dropIndex(Directory* d, uint32_t tag) {
        Index* ix = indexOf(d);
        if (ix == nullptr) return;
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot != slotmap::kNone) {
            ix->setRowAt(slot, kNoRow);
            return;
        }
        Side* side = sideOf(d);
        const uint32_t n = side->count.load(std::memory_order_relaxed);
        const uint32_t at = side->lowerBound(tag, n);
        if (at == n || side->tagAt(at) != tag) return;
        side->count.store(n - 1, std::memory_order_release);
        for (uint32_t i = at; i + 1 < n; ++i) side->set(i, side->tagAt(i + 1), side->rowAt(i + 1));
    }

    //--------------------------------------------------------------------------------------
    // Rows

    // The record of row `r` of `from`, copied to `to`; its size.
    static size_t copyRecord(uint8_t* to, const Chunk& from, uint32_t r) {
        const uint8_t* rec = from.recordOf(r);
        const size_t n = record::sizeOf(rec);
        std::memcpy(to, rec, n);
        return n;
    }

    // Room for a chunk's first record and the rows after it: as many bytes per row as the
    // previous chunk used, or as this record takes.
    static size_t firstCapacity(const Directory* d, size_t k, size_t need) {
        size_t perChunk = need * kRows;
        if (k != 0) {
            const Chunk* previous = d->chunk(k - 1);
            perChunk = previous->used + previous->used / 8;
        }
        return std::max(need, std::min(perChunk, kMaxFirstCapacity));
    }

    static void append(ItemTable& t, uint32_t tag, RowValue&& v) {
        const size_t rows = t.size();
        const size_t k = rows / kRows;
        const uint32_t r = static_cast<uint32_t>(rows % kRows);
        const size_t need = v.recordSize();
        // Everything that may throw comes first; the rows change only after it.
        Directory* d = ownDirectory(t, k + 1);
        ChunkGuard made;
        Chunk* c = r == 0 ? nullptr : d->chunk(k);
        bool own = false;
        if (c == nullptr) {
            made.chunk = Chunk::make(firstCapacity(d, k, need));
        } else {
            const uintptr_t e = d->entries()[k].load(std::memory_order_relaxed);
            own = !isBorrowed(e) && c->refs.load(std::memory_order_acquire) == 1;
            const bool fits = c->capacity - c->used >= need;
            // The row that fills a chunk leaves it without room it will not use.
            const size_t full = c->used + need;
            const bool last = r == kRows - 1 && c->capacity - full > full / 8;
            // A chunk that is not the table's own is copied, with room for the row; one that
            // is full grows by half again, or to the bytes this row needs.
            if (last)
                made.chunk = copyOf(*c, full);
            else if (!own || !fits)
                made.chunk = copyOf(
                    *c, fits ? c->capacity : std::max<size_t>(full, c->capacity + c->capacity / 2));
        }
        Chunk* target = made.chunk != nullptr ? made.chunk : c;
        // Holders for an object row, unless the row's chunk has them (or will: a chunk of the
        // table's own hands its holders to the chunk that replaces it).
        const bool inherits = target != c && own && c->holders.load() != nullptr;
        if (v.kind == RowValue::Kind::kObject && target->holders.load() == nullptr && !inherits)
            target->holders.store(makeHolders(), std::memory_order_relaxed);
        if (indexOf(d) == nullptr && rows + 1 > kScanRows) buildIndex(t, d, tag);
        prepareIndex(t, d, tag, 1);

        if (made.chunk != nullptr) replaceChunk(t, d, k, made.release());
        uint8_t* at = target->records() + target->used;
        writeRecord(at, tag, v);
        setSlot(target, r, itemtable::slotKey(tag));
        setOffset(target, r, target->used);
        target->used += static_cast<uint32_t>(need);
        target->rows = static_cast<uint16_t>(r + 1);
        if (v.kind == RowValue::Kind::kObject) {
            Holders* h = target->holders.load(std::memory_order_relaxed);
            h->held[r].owner = std::move(v.object);
            h->held[r].content.store(h->held[r].owner.get(), std::memory_order_relaxed);
            target->objects = static_cast<uint16_t>(target->objects | (1u << r));
        }
        setIndex(d, tag, static_cast<uint16_t>(rows));
        t.mSize.store(static_cast<uint32_t>(rows + 1), std::memory_order_release);
    }

    // A chunk like `from` with row `r` holding `v` under `tag` (in slot `slot`), or, with `r`
    // past its rows, without its last row. Holders are the caller's to move.
    static Chunk* rebuilt(const Chunk& from, uint32_t r, const RowValue* v, uint32_t tag,
                          uint16_t slot, bool dropLast) {
        const uint32_t rows = std::min<uint32_t>(kRows, dropLast ? from.rows - 1u : from.rows);
        size_t bytes = 0;
        for (uint32_t i = 0; i < rows; ++i)
            bytes += i == r ? v->recordSize() : record::sizeOf(from.recordOf(i));
        Chunk* c = Chunk::make(bytes);
        uint32_t used = 0;
        for (uint32_t i = 0; i < rows; ++i) {
            c->offset[i] = used;
            c->slot[i] = i == r ? slot : from.slot[i];
            if (i == r) {
                writeRecord(c->records() + used, tag, *v);
                used += static_cast<uint32_t>(v->recordSize());
            } else {
                used += static_cast<uint32_t>(copyRecord(c->records() + used, from, i));
            }
        }
        c->used = used;
        c->rows = static_cast<uint16_t>(rows);
        c->objects = static_cast<uint16_t>(from.objects & ((1u << rows) - 1u));
        if (r < rows) {
            if (v->kind == RowValue::Kind::kObject)
                c->objects = static_cast<uint16_t>(c->objects | (1u << r));
            else
                c->objects = static_cast<uint16_t>(c->objects & ~(1u << r));
        }
        return c;
    }

    // Row `row` takes `v` in place of what it held.
    static void replace(ItemTable& t, size_t row, RowValue&& v) {
        const size_t k = row / kRows;
        const uint32_t r = static_cast<uint32_t>(row % kRows);
        // The usual case first: a directory and a chunk of the table's own.
        Directory* d = directory(t);
        if (d->refs.load(std::memory_order_acquire) != 1) d = ownDirectory(t, k + 1);
        const uintptr_t e = d->entries()[k].load(std::memory_order_relaxed);
        Chunk* c = pointerOf<Chunk>(e);
        if (isBorrowed(e) || c->refs.load(std::memory_order_acquire) != 1) c = ownChunk(t, d, k);
        uint8_t* rec = c->recordOf(r);
        std::shared_ptr<Content> dropped;  // released once the row is whole again
        if (!c->isObject(r) && record::lengthOf(rec) != record::kObjectRow &&
            (v.kind == RowValue::Kind::kValues
                 ? record::holdsValues(rec) && record::typeOf(rec) == v.type &&
                       record::countOf(rec) == v.count
                 : v.kind == RowValue::Kind::kNone && record::lengthOf(rec) == 0)) {
            // The same shape: the values are written where they lie, under the container's
            // sequence count.
            if (v.bytes != 0) writeRacing(rec + record::kPayload, v.payload, v.bytes);
            dropped = dropMade(c, r);
            return;
        }
        ChunkGuard made{rebuilt(*c, r, &v, record::tagOf(rec), c->slot[r], false)};
        if (v.kind == RowValue::Kind::kObject && c->holders.load() == nullptr)
            made.chunk->holders.store(makeHolders(), std::memory_order_relaxed);
        Chunk* n = made.release();
        replaceChunk(t, d, k, n);
        Holders* h = n->holders.load(std::memory_order_relaxed);
        if (h != nullptr) {
            dropped = std::move(h->held[r].owner);
            h->held[r].content.store(nullptr, std::memory_order_relaxed);
            if (v.kind == RowValue::Kind::kObject) {
                h->held[r].owner = std::move(v.object);
                h->held[r].content.store(h->held[r].owner.get(), std::memory_order_relaxed);
            }
        }
    }

    static bool remove(ItemTable& t, uint32_t tag) {
        const uint16_t row = t.rowOf(tag);
        if (row == kNoRow) return false;
        const size_t last = t.size() - 1;
        const size_t hk = row / kRows, tk = last / kRows;
        const uint32_t hr = row % kRows, tr = static_cast<uint32_t>(last % kRows);
        const uint32_t moved = t.rowTag(last);
        Directory* d = ownDirectory(t, tk + 1);
        Chunk* hole = ownChunk(t, d, hk);
        Chunk* tail = tk == hk ? hole : ownChunk(t, d, tk);
        prepareIndex(t, d, tag, 0);
        prepareIndex(t, d, moved, 0);
        // The last row moves into the hole, so removal is constant time and changes row order.
        // Both chunks are rebuilt: bytes a reader may still be reading are never reused.
        std::shared_ptr<Content> dropped;
        if (row == last || hk == tk) {
            RowValue movedValue;
            const bool moves = row != last;
            if (moves) movedValue = valueOf(*tail, tr);
            ChunkGuard made;
            if (tr != 0)
                made.chunk =
                    rebuilt(*hole, moves ? hr : kRows, &movedValue, moved, tail->slot[tr], true);
            Holders* h = hole->holders.load(std::memory_order_relaxed);
            if (h != nullptr) {
                dropped = std::move(h->held[hr].owner);
                h->held[hr].content.store(nullptr, std::memory_order_relaxed);
                if (moves) {
                    h->held[hr].owner = std::move(h->held[tr].owner);
                    h->held[hr].content.store(
                        h->held[tr].content.exchange(nullptr, std::memory_order_relaxed),
                        std::memory_order_relaxed);
                }
            }
            if (made.chunk != nullptr) {
                replaceChunk(t, d, hk, made.release());
            } else {
                // The chunk's only row goes: so does the chunk.
                d->entries()[hk].store(0, std::memory_order_release);
                letGo(t, hole, releaseChunkOf);
            }
        } else {
            const RowValue movedValue = valueOf(*tail, tr);
            ChunkGuard holeMade{rebuilt(*hole, hr, &movedValue, moved, tail->slot[tr], false)};
            ChunkGuard tailMade;
            if (tr != 0) tailMade.chunk = rebuilt(*tail, kRows, nullptr, 0, kNoRow, true);
            if (tail->isObject(tr) && hole->holders.load() == nullptr)
                holeMade.chunk->holders.store(makeHolders(), std::memory_order_relaxed);
            Holders* th = tail->holders.load(std::memory_order_relaxed);
            Chunk* h = holeMade.release();
            replaceChunk(t, d, hk, h);
            Holders* hh = h->holders.load(std::memory_order_relaxed);
            if (hh != nullptr) {
                dropped = std::move(hh->held[hr].owner);
                hh->held[hr].content.store(nullptr, std::memory_order_relaxed);
            }
            if (th != nullptr && th->held[tr].content.load() != nullptr) {
                if (tail->isObject(tr)) {
                    hh->held[hr].owner = std::move(th->held[tr].owner);
                    hh->held[hr].content.store(hh->held[hr].owner.get(), std::memory_order_relaxed);
                }
                th->held[tr].content.store(nullptr, std::memory_order_relaxed);
                th->held[tr].owner.reset();
            }
            if (tailMade.chunk != nullptr) {
                replaceChunk(t, d, tk, tailMade.release());
            } else {
                d->entries()[tk].store(0, std::memory_order_release);
                letGo(t, tail, releaseChunkOf);
            }
        }
        dropIndex(d, tag);
        if (row != last) setIndex(d, moved, row);
        t.mSize.store(static_cast<uint32_t>(last), std::memory_order_release);
        return true;
    }

    // What row `r` of `c` holds, as a value to file elsewhere (its payload stays in `c`).
    static RowValue valueOf(const Chunk& c, uint32_t r) {
        const uint8_t* rec = c.recordOf(r);
        if (c.isObject(r)) {
            RowValue v;
            v.kind = RowValue::Kind::kObject;
            v.object = holdersOf(&c)->held[r].owner;
            return v;
        }
        if (record::lengthOf(rec) == 0) return RowValue::none();
        const int32_t type = record::typeOf(rec);
        const int32_t count = record::countOf(rec);
        return RowValue::values(type, count, rec + record::kPayload,
                                record::lengthOf(rec) - flat::kContentHeader);
    }

    //--------------------------------------------------------------------------------------
    // Contents made for callers

    static std::shared_ptr<Content> contentOf(const ItemTable& t, size_t row, bool wait) {
        const Chunk* c = directory(t)->chunk(row / kRows);
        const uint32_t r = static_cast<uint32_t>(row % kRows);
        if (c->isObject(r)) return holdersOf(c)->held[r].owner;
        const uint8_t* rec = c->recordOf(r);
        if (record::lengthOf(rec) == 0) return nullptr;
        Holders::Held& held = ensureHolders(c)->held[r];
        for (;;) {
            Content* p = held.content.load(std::memory_order_acquire);
            if (p != nullptr && p != kMaking) return held.owner;
            if (p == nullptr) {
                std::shared_ptr<Content> made = Content::ofValues(
                    record::typeOf(rec), record::countOf(rec), rec + record::kPayload,
                    record::lengthOf(rec) - flat::kContentHeader);
                // Another table sharing the chunk may be making one too: the first stays.
                if (held.content.compare_exchange_strong(p, kMaking, std::memory_order_acquire)) {
                    held.owner = made;
                    held.content.store(made.get(), std::memory_order_release);
                    return made;
                }
                if (!wait) return made;
                continue;
            }
            sched_yield();  // another thread is installing the row's content
        }
    }

    //--------------------------------------------------------------------------------------
    // Decoding

    // What the walk learns of one record, in 8 bytes: no more scratch than the record itself
    // takes in the input.
    struct DecodeRecord {
        enum : uint32_t { kNone = 0, kAsItLies = 1, kSpare = 2, kObject = 3 };
        static constexpr uint32_t kMaxSize = (1u << 30) - 1;
        uint32_t at;    // offset of the record in the input
        uint32_t word;  // kind (bits 31..30) and the bytes it takes in its chunk
        uint32_t kind() const { return word >> 30; }
        uint32_t size() const { return word & kMaxSize; }
        void set(uint32_t kind, size_t size) { word = kind << 30 | static_cast<uint32_t>(size); }
    };
    static constexpr size_t kStackRecords = 32;

    // The slot index a decode gathers in its first walk.
    struct Gathered {
        uint8_t pageOf[Index::kPages];
        uint16_t pages[Index::kPages][Index::kPageSlots];
    };
    static Gathered& gathered() {
        static thread_local Gathered g;
        return g;
    }
};

//------------------------------------------------------------------------------------------
// Life cycle

ItemTable::ItemTable() : mDirectory(nullptr), mSize(0), mPublished(false) {}

ItemTable::~ItemTable() {
    // Nothing here needs retiring: a published table is destroyed only when no reader can
    // reach it any more (its storage was retired before it went).
    Directory::release(mDirectory.load(std::memory_order_relaxed));
}

void ItemTable::clear() {
    Directory* d = mDirectory.load(std::memory_order_relaxed);
    mDirectory.store(nullptr, std::memory_order_release);
    mSize.store(0, std::memory_order_release);
    Impl::letGo(*this, d, releaseDirectoryOf);
}

ItemTable& ItemTable::operator=(const ItemTable& other) {
    if (this == &other) return *this;
    Directory* d = other.mDirectory.load(std::memory_order_relaxed);
    if (d != nullptr) d->refs.fetch_add(1, std::memory_order_relaxed);
    Directory* old = mDirectory.load(std::memory_order_relaxed);
    mSize.store(other.size(), std::memory_order_relaxed);
    mDirectory.store(d, std::memory_order_release);
    Impl::letGo(*this, old, releaseDirectoryOf);
    return *this;
}

//------------------------------------------------------------------------------------------
// Rows

uint32_t ItemTable::tagAt(size_t row) const {
    return rowTag(row);
}

Content* ItemTable::contentAt(size_t row) const {
    // The content stays the row's until the row changes, so its address may be handed out.
    return Impl::contentOf(*this, row, true).get();
}

std::shared_ptr<Content> ItemTable::contentSPAt(size_t row) const {
    return Impl::contentOf(*this, row, true);
}

uint16_t ItemTable::getIndexByTag(uint32_t tag) const {
    return rowOf(tag);
}

bool ItemTable::put(uint32_t tag, RowValue&& value) {
    const uint16_t found = rowOf(tag);
    if (found != kNoRow) {
        // The row keeps its position and its tag; only the values change.
        Impl::replace(*this, found, std::move(value));
        return true;
    }
    if (size() >= kMaxRows) return false;
    Impl::append(*this, tag, std::move(value));
    return true;
}

bool ItemTable::update(uint32_t tag, const std::shared_ptr<Content>& content) {
    return put(tag, RowValue::of(std::shared_ptr<Content>(content)));
}

bool ItemTable::update(uint32_t tag, std::shared_ptr<Content>&& content) {
    return put(tag, RowValue::of(std::move(content)));
}

bool ItemTable::update(const Item& item) {
    return update(item.tag, item.content);
}

bool ItemTable::remove(uint32_t tag) {
    return Impl::remove(*this, tag);
}

bool ItemTable::mergeRow(const ItemTable& other, size_t row) {
    const Chunk* c = Impl::directory(other)->chunk(row / kRows);
    const uint32_t r = static_cast<uint32_t>(row % kRows);
    return put(record::tagOf(c->recordOf(r)), Impl::valueOf(*c, r));
}

size_t ItemTable::recordBytes() const {
    const size_t rows = size();
    if (rows == 0) return 0;
    const Directory* d = Impl::directory(*this);
    size_t total = 0;
    for (size_t k = 0; k * kRows < rows; ++k) {
        const Chunk* c = d->chunk(k);
        if (c->objects != 0) return kHeldByContents;
        total += c->used;
    }
    return total;
}

bool ItemTable::copyRecords(uint8_t* out, size_t room, size_t& written) const {
    const size_t bytes = recordBytes();
    if (bytes == kHeldByContents || bytes > room) return false;
    const Directory* d = Impl::directory(*this);
    uint8_t* at = out;
    for (size_t k = 0; k * kRows < size(); ++k) {
        const Chunk* c = d->chunk(k);
        std::memcpy(at, c->records(), c->used);
        at += c->used;
    }
    written = bytes;
    return true;
}

//------------------------------------------------------------------------------------------
// Decoding

bool ItemTable::decode(const uint8_t* buf, size_t size, size_t begin, size_t records, size_t& end) {
    using DecodeRecord = Impl::DecodeRecord;
    // The first walk: where each record lies, what it holds, and its row in the index being
    // gathered (pages of the slot map made as tags touch them; tags outside the map counted).
    // A repeated tag, a record the table cannot take without a report, or one whose content
    // would be refused, ends the walk: the sequential decoder, which reports, takes over.
    // A few records' facts on the stack (a decode recurses once per nesting level), more in a
    // block of the thread's cache or the heap.
    DecodeRecord onStack[Impl::kStackRecords];
    struct Scratch {
        void* block = nullptr;
        size_t bytes = 0;
        ~Scratch() { pool::give(block, bytes); }
    } scratch;
    DecodeRecord* recs = onStack;
    if (records > Impl::kStackRecords) {
        scratch.bytes = records * sizeof(DecodeRecord);
        scratch.block = pool::take(scratch.bytes);
        recs = static_cast<DecodeRecord*>(scratch.block);
    }
    // The index being gathered: the thread's own, as it is done with before the decode
    // recurses into nested containers.
    Impl::Gathered& gathered = Impl::gathered();
    uint8_t(&pageOf)[Index::kPages] = gathered.pageOf;  // page number + 1, 0 for none
    uint16_t(&pages)[Index::kPages][Index::kPageSlots] = gathered.pages;
    std::memset(pageOf, 0, sizeof(pageOf));
    uint32_t usedPages = 0, outside = 0;
    flat::Walker walker(buf, flat::tDecode.nested);
    const bool trusted = flat::tDecode.trusted;
    size_t pos = begin;
    bool objects = false;
    if (size > UINT32_MAX) return false;  // offsets are kept in 32 bits
    for (size_t k = 0; k < records; ++k) {
        if (size - pos < record::kHead) return false;
        uint32_t head[2];
        std::memcpy(head, buf + pos, sizeof(head));
        const uint32_t tag = head[0], length = head[1];
        DecodeRecord& rec = recs[k];
        rec.at = static_cast<uint32_t>(pos);
        pos += record::kHead;
        if (length == 0) {
            rec.set(DecodeRecord::kNone, record::kHead);
        } else {
            if (size - pos < length) return false;
            int32_t type, count;
            size_t bytes;
            if (flat::isPlainValues(buf + pos, length, type, count, bytes)) {
                if (bytes > DecodeRecord::kMaxSize - record::kPayload) return false;
                rec.set(bytes + flat::kContentHeader == length ? DecodeRecord::kAsItLies
                                                               : DecodeRecord::kSpare,
                        record::kPayload + bytes);
            } else {
                if (!trusted && !walker.content(pos, pos + length, flat::tDecode.depth))
                    return false;
                rec.set(DecodeRecord::kObject, record::kHead);
                objects = true;
            }
            pos += length;
        }
        const uint32_t slot = slotmap::slotOf(tag);
        if (slot == slotmap::kNone) {
            ++outside;
            continue;
        }
        uint8_t& p = pageOf[slot / Index::kPageSlots];
        if (p == 0) {
            std::memset(pages[usedPages], 0xFF, sizeof(pages[usedPages]));
            p = static_cast<uint8_t>(++usedPages);
        }
        uint16_t& row = pages[p - 1][slot % Index::kPageSlots];
        // A slot taken already: a repeated tag, or a tag sharing the slot of one before it.
        if (row != kNoRow) return false;
        row = static_cast<uint16_t>(k);
    }
    // Tags outside the map, sorted: a repeat shows as two neighbours.
    Side* side = nullptr;
    struct SideGuard {
        Side*& side;
        ~SideGuard() { Side::release(side); }
    } sideGuard{side};
    if (outside != 0) {
        side = Side::make(std::max<uint32_t>(8, outside));
        uint32_t n = 0;
        for (size_t k = 0; k < records; ++k) {
            const uint32_t tag = flat::load32(buf + recs[k].at);
            if (slotmap::slotOf(tag) == slotmap::kNone)
                side->set(n++, tag, static_cast<uint16_t>(k));
        }
        std::sort(side->entries(), side->entries() + n,
                  [](const Side::Entry& a, const Side::Entry& b) { return a.tag < b.tag; });
        for (uint32_t i = 1; i < n; ++i)
            if (side->tagAt(i) == side->tagAt(i - 1)) return false;
        side->count.store(n, std::memory_order_relaxed);
    }

    // The second: each run of 16 records becomes a chunk, copied in one piece where the
    // records lie in the input as a chunk keeps them.
    const size_t chunks = (records + kRows - 1) / kRows;
    Directory* d = Impl::ownDirectory(*this, chunks);
    if (records > kScanRows) {
        Index* ix = Index::make(usedPages);
        std::memcpy(ix->page, pageOf, sizeof(pageOf));
        std::memcpy(ix->pages(), pages, size_t{usedPages} * sizeof(pages[0]));
        ix->used = static_cast<uint16_t>(usedPages);
        d->index.store(reinterpret_cast<uintptr_t>(ix), std::memory_order_relaxed);
        d->side.store(reinterpret_cast<uintptr_t>(std::exchange(side, nullptr)),
                      std::memory_order_relaxed);
    }
    for (size_t k = 0; k < chunks; ++k) {
        const DecodeRecord* first = recs + k * kRows;
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(kRows, records - k * kRows));
        size_t bytes = 0;
        bool asTheyLie = true;
        for (uint32_t i = 0; i < n; ++i) {
            bytes += first[i].size();
            asTheyLie = asTheyLie && first[i].kind() <= DecodeRecord::kAsItLies;
        }
        ChunkGuard made{Chunk::make(bytes)};
        Chunk* c = made.chunk;
        uint8_t* to = c->records();
        if (asTheyLie) std::memcpy(to, buf + first[0].at, bytes);
        uint32_t used = 0;
        for (uint32_t i = 0; i < n; ++i) {
            const DecodeRecord& rec = first[i];
            const uint8_t* from = buf + rec.at;
            c->offset[i] = used;
            c->slot[i] = itemtable::slotKey(flat::load32(from));
            if (!asTheyLie) {
                switch (rec.kind()) {
                    case DecodeRecord::kObject:
                        std::memcpy(to + used, from, 4);
                        put32(to + used + 4, record::kObjectRow);
                        break;
                    case DecodeRecord::kSpare:
                        // Bytes of the record that the content does not use are not kept.
                        std::memcpy(to + used, from, rec.size());
                        put32(to + used + 4, rec.size() - record::kHead);
                        break;
                    default:
                        std::memcpy(to + used, from, rec.size());
                        break;
                }
            }
            used += rec.size();
        }
        c->used = used;
        c->rows = static_cast<uint16_t>(n);
        if (objects) {
            for (uint32_t i = 0; i < n; ++i) {
                const DecodeRecord& rec = first[i];
                if (rec.kind() != DecodeRecord::kObject) continue;
                if (c->holders.load(std::memory_order_relaxed) == nullptr)
                    c->holders.store(makeHolders(), std::memory_order_relaxed);
                // Checked above: the content decodes, without a report.
                std::shared_ptr<Content> content =
                    Content::decoded(buf + rec.at + record::kHead, flat::load32(buf + rec.at + 4));
                Holders::Held& held = c->holders.load(std::memory_order_relaxed)->held[i];
                held.owner = std::move(content);
                held.content.store(held.owner.get(), std::memory_order_relaxed);
                c->objects = static_cast<uint16_t>(c->objects | (1u << i));
            }
        }
        d->entries()[k].store(reinterpret_cast<uintptr_t>(made.release()),
                              std::memory_order_release);
    }
    mSize.store(static_cast<uint32_t>(records), std::memory_order_release);
    end = pos;
    return true;
}

}  // namespace NSCam
