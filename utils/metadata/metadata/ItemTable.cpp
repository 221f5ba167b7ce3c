#include "ItemTable.h"

#include <sched.h>

#include <cstdlib>
#include <cstring>

#include "Content.h"

namespace NSCam {

using ItemTable = IMetadata::Storage::ItemTable;
using Item = IMetadata::Storage::Item;

namespace {

constexpr size_t kSlotBytes = ItemTable::kSlotCount * sizeof(uint16_t);
// Above this many rows one fill of the whole slot array is cheaper than resetting the
// rows' slots one by one.
constexpr size_t kResetByFillRows = 130;
constexpr size_t kReservedRows = 150;

static_assert(kSlotBytes == 3220, "1,610 row numbers");

}  // namespace

ItemTable::BufferQueue ItemTable::sBufferQueue;

ItemTable::BufferQueue::~BufferQueue() {
    for (int half = 0; half < 2; ++half)
        for (uint16_t* slots : mSlotArrays[half]) std::free(slots);
}

int ItemTable::BufferQueue::lock(int preferred) {
    int half = preferred;
    while (mLocks[half].exchange(1, std::memory_order_acquire) != 0) half ^= 1;
    return half;
}

void ItemTable::BufferQueue::unlock(int half) {
    mLocks[half].store(0, std::memory_order_seq_cst);
}

ItemTable::ItemTable() : mSlots(nullptr) {
    BufferQueue& q = sBufferQueue;
    // Take from the longer half (a tie goes to half 1).
    const int half = q.lock(q.pairs(0) > q.pairs(1) ? 0 : 1);
    if (!q.mSlotArrays[half].empty()) {
        mSlots = q.mSlotArrays[half].back();
        q.mSlotArrays[half].pop_back();
        mHolder = std::move(q.mHolders[half].back());
        q.mHolders[half].pop_back();
        q.mCount[half].fetch_sub(1, std::memory_order_relaxed);
    }
    q.unlock(half);
    if (mSlots == nullptr || !mHolder) {
        std::free(mSlots);
        mSlots = nullptr;
        // Both buffers are made before either is kept, so that a failed allocation leaks
        // neither (the constructor then throws and no table exists).
        std::unique_ptr<uint16_t, decltype(&std::free)> slots(
            static_cast<uint16_t*>(std::malloc(kSlotBytes)), &std::free);
        auto holder = std::make_unique<std::vector<Item>>();
        holder->reserve(kReservedRows);
        // Without a slot array every tag goes through the side index: slower, never lost.
        if (slots) std::memset(slots.get(), 0xFF, kSlotBytes);
        mSlots = slots.release();
        mHolder = std::move(holder);
    }
    mItems.swap(*mHolder);
}

ItemTable::~ItemTable() {
    resetSlots();  // a pooled slot array is always all 0xFFFF
    while (!mItems.empty()) mItems.pop_back();
    mOutside.clear();
    mItems.swap(*mHolder);  // the holder carries the empty buffer with its capacity

    BufferQueue& q = sBufferQueue;
    if (mSlots == nullptr) return;
    // Give back to the shorter half (a tie goes to half 0).
    const int half = q.lock(q.pairs(0) > q.pairs(1) ? 1 : 0);
    if (q.mSlotArrays[half].size() < BufferQueue::kMaxPairsPerHalf) {
        q.mSlotArrays[half].push_back(mSlots);
        q.mHolders[half].push_back(std::move(mHolder));
        q.mCount[half].fetch_add(1, std::memory_order_relaxed);
        q.unlock(half);
        return;
    }
    q.unlock(half);
    std::free(mSlots);
}

uint16_t* ItemTable::slotFor(uint32_t tag) const {
    const uint32_t slot = slotmap::slotOf(tag);
    if (slot == slotmap::kNone || mSlots == nullptr) return nullptr;
    return mSlots + slot;
}

uint16_t ItemTable::getIndexByTag(uint32_t tag) const {
    if (const uint16_t* slot = slotFor(tag)) return *slot;
    if (mOutside.empty()) return kNoRow;
    const auto it = mOutside.find(tag);
    return it == mOutside.end() ? kNoRow : it->second;
}

bool ItemTable::update(uint32_t tag, const std::shared_ptr<Content>& content) {
    uint16_t* slot = slotFor(tag);
    const uint16_t row = slot ? *slot : getIndexByTag(tag);
    if (row != kNoRow) {
        // The row keeps its position and its tag; only the values change.
        mItems[row].content = content;
        return true;
    }
    if (mItems.size() >= kMaxRows) return false;
    const uint16_t newRow = static_cast<uint16_t>(mItems.size());
    // Everything that can throw comes first, and each step is undone if a later one throws:
    // a table that met an allocation failure is exactly the table it was.
    mItems.push_back(Item{tag, content});
    if (slot) {
        *slot = newRow;
    } else {
        try {
            mOutside.emplace(tag, newRow);
        } catch (...) {
            mItems.pop_back();
            throw;
        }
    }
    return true;
}

bool ItemTable::update(const Item& item) {
    return update(item.tag, item.content);
}

bool ItemTable::remove(uint32_t tag) {
    const uint16_t row = getIndexByTag(tag);
    if (row == kNoRow) return false;
    // The last row moves into the hole, so removal is constant time and changes row order.
    // Nothing below allocates: the moved row's side entry already exists.
    if (mItems.back().tag != tag) {
        std::swap(mItems[row], mItems.back());
        const uint32_t moved = mItems[row].tag;
        if (uint16_t* slot = slotFor(moved))
            *slot = row;
        else
            mOutside.find(moved)->second = row;
    }
    if (uint16_t* slot = slotFor(tag))
        *slot = kNoRow;
    else
        mOutside.erase(tag);
    mItems.pop_back();
    return true;
}

void ItemTable::resetSlots() {
    if (mSlots != nullptr) {
        if (mItems.size() > kResetByFillRows) {
            std::memset(mSlots, 0xFF, kSlotBytes);
        } else {
            for (const Item& item : mItems)
                if (uint16_t* slot = slotFor(item.tag)) *slot = kNoRow;
        }
    }
    mOutside.clear();
}

void ItemTable::clear() {
    resetSlots();
    while (!mItems.empty()) mItems.pop_back();  // last to first; the capacity stays
}

ItemTable& ItemTable::operator=(const ItemTable& other) {
    if (this == &other) return *this;
    mItems = other.mItems;  // contents are shared, not duplicated
    if (mSlots != nullptr && other.mSlots != nullptr) {
        std::memcpy(mSlots, other.mSlots, kSlotBytes);
        mOutside = other.mOutside;
        return *this;
    }
    // One side works without a slot array: index the copied rows afresh.
    if (mSlots != nullptr) std::memset(mSlots, 0xFF, kSlotBytes);
    mOutside.clear();
    for (size_t row = 0; row < mItems.size(); ++row) {
        if (uint16_t* slot = slotFor(mItems[row].tag))
            *slot = static_cast<uint16_t>(row);
        else
            mOutside[mItems[row].tag] = static_cast<uint16_t>(row);
    }
    return *this;
}

}  // namespace NSCam
