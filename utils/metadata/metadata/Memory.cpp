// IMetadata::Memory, the byte-blob value, and the process-wide pool its byte vectors come
// from. A handle shares its vector with its copies and unshares (copies) before any edit that
// another holder could see; the owner count of the shared pointer is the only "shared" mark.
// Every vector a handle lets go of is offered back to the pool, which keeps it only when
// that handle was its last owner.
//
// Nothing here logs: blobs are created and dropped on every hot path of the pipeline.
#include <zorcam/metadata/IMetadata.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "Sync.h"

namespace NSCam {

using Memory = IMetadata::Memory;
using BufferSP = Memory::BufferSP;

namespace {

// A vector of `size` bytes with room for `capacity`, in one allocation with its control
// block. vector::resize value-initialises the bytes; callers treat them as unspecified.
BufferSP newBuffer(size_t size, size_t capacity) {
    BufferSP buffer = std::make_shared<Memory::Buffer>();
    buffer->reserve(capacity);
    buffer->resize(size);
    return buffer;
}

// True when another owner can see the vector. Once the count reads 1 no other thread can gain a
// reference through this handle's vector; soleOwner also orders the other owners' last reads
// before whatever this handle does next (writing in place, or pooling the vector for reuse).
bool isShared(const BufferSP& buffer) {
    return !soleOwner(buffer);
}

}  // namespace

//------------------------------------------------------------------------------------------
// The pool. Built ahead of the library's ordinary statics (and so destroyed after them), so
// that blobs held by those statics can still be recycled while the process exits.

Memory::BufferAllocator Memory::sAllocator __attribute__((init_priority(200)));

Memory::MemorySlot::MemorySlot() {
    // The at most kMaxBuffers spares of normal use never reallocate the list under the lock.
    mList.reserve(kReserved);
}

void Memory::MemorySlot::push(BufferSP&& buffer) {
    // Tested before locking, on purpose: two racing threads may leave one spare too many,
    // which costs nothing but a list growing past its reserve.
    if (count() >= kMaxBuffers) return;
    const MutexLock guard(mLock);
    mList.push_back(std::move(buffer));
    mCount.store(static_cast<uint32_t>(mList.size()), std::memory_order_relaxed);
}

BufferSP Memory::MemorySlot::pop() {
    BufferSP buffer;
    const MutexLock guard(mLock);
    if (!mList.empty()) {
        buffer = std::move(mList.back());
        mList.pop_back();
        mCount.store(static_cast<uint32_t>(mList.size()), std::memory_order_relaxed);
    }
    return buffer;
}

Memory::BufferAllocator::BufferAllocator() : mMinSize(kMinSize), mMaxSize(kMaxSize) {
    // Each class serves (limit / 2, limit] in 8 steps of limit / 15; class 0 starts at 32.
    for (uint32_t cls = 0; cls < kClasses; ++cls) {
        mClassTable[cls].limit = 60u << cls;
        mClassTable[cls].step = 4u << cls;
    }
}

// Slots go in reverse order of construction, each releasing its spares.
Memory::BufferAllocator::~BufferAllocator() = default;

bool Memory::BufferAllocator::locate(uint64_t size, Place& place) const {
    if (size < mMinSize || size > mMaxSize) return false;
    for (uint32_t cls = 0; cls < kClasses; ++cls) {
        const ClassLimit& c = mClassTable[cls];
        if (c.limit < size) continue;
        // k is 0 for the largest sizes of the class; the slot's capacity is `size` rounded
        // up to a multiple of the step.
        const uint32_t k = (c.limit - static_cast<uint32_t>(size)) / c.step;
        place.cls = cls;
        place.slot = k;
        place.capacity = c.limit - k * c.step;
        return true;
    }
    return false;
}

BufferSP Memory::BufferAllocator::allocate(size_t size) {
    Place place;
    if (!locate(size, place)) {
        // Outside the pool: exactly `size` bytes of storage, none at all for 0.
        return std::make_shared<Buffer>(size);
    }
    BufferSP buffer = mSlots[place.cls][place.slot].pop();
    if (!buffer) return newBuffer(size, place.capacity);
    // A reused buffer keeps the bytes of its former use; callers that need zeros clear them.
    buffer->resize(size);
    return buffer;
}

void Memory::BufferAllocator::recycle(BufferSP&& buffer) {
    // Never take a vector somebody else can still see.
    if (!buffer || isShared(buffer)) return;
    // By capacity: a buffer goes back to the slot it came from while its capacity is
    // unchanged, and a foreign one to the slot whose capacity it can serve downwards.
    Place place;
    if (!locate(buffer->capacity(), place)) return;
    mSlots[place.cls][place.slot].push(std::move(buffer));
}

uint32_t Memory::BufferAllocator::memoryDosage() const {
    uint32_t total = 0;
    for (uint32_t cls = 0; cls < kClasses; ++cls) {
        for (uint32_t k = 0; k < kSlotsPerClass; ++k) {
            const uint32_t capacity = mClassTable[cls].limit - k * mClassTable[cls].step;
            total += capacity * mSlots[cls][k].count();
        }
    }
    return total;
}

//------------------------------------------------------------------------------------------
// The handle.

Memory::Memory() = default;

Memory::Memory(const BufferSP& data) : mData(data) {}

Memory::Memory(const void* data, size_t size) {
    if (data == nullptr || size == 0) return;
    mData = sAllocator.allocate(size);
    std::memcpy(mData->data(), data, size);
}

Memory::Memory(const Memory& other) : mData(other.mData) {}

// Shares instead of stealing: code that moved a blob into an entry may still read it.
Memory::Memory(Memory&& other) : mData(other.mData) {}

Memory::~Memory() {
    release();
}

void Memory::release() {
    sAllocator.recycle(std::move(mData));
    mData.reset();
}

Memory& Memory::operator=(const Memory& other) {
    if (this == &other) return *this;
    release();
    mData = other.mData;
    return *this;
}

Memory& Memory::operator=(Memory&& other) {
    return *this = static_cast<const Memory&>(other);
}

bool Memory::operator==(const Memory& other) const {
    if (this == &other) return true;
    const size_t mine = size();
    // No vector and an empty vector are the same empty blob.
    if (!other.mData) return mine == 0;
    const size_t theirs = other.mData->size();
    if (mine != theirs) return false;
    if (theirs == 0) return true;
    return std::memcmp(mData->data(), other.mData->data(), theirs) == 0;
}

BufferSP Memory::getDataSP() const {
    return mData;
}

size_t Memory::size() const {
    return mData ? mData->size() : 0;
}

template <bool kZeroNewBytes>
void Memory::resizeImpl(size_t size) {
    if (!mData) {
        mData = sAllocator.allocate(size);
        // A pooled buffer arrives with its former bytes.
        if (kZeroNewBytes && size != 0) std::memset(mData->data(), 0, size);
        return;
    }
    if (!isShared(mData) && mData->capacity() >= size) {
        // In place; vector::resize zeroes what it adds, which fastResize merely tolerates.
        mData->resize(size);
        return;
    }
    const size_t old = mData->size();
    BufferSP fresh = sAllocator.allocate(size);
    const size_t kept = std::min(old, size);
    if (kept != 0) std::memcpy(fresh->data(), mData->data(), kept);
    if (kZeroNewBytes && size > old) std::memset(fresh->data() + old, 0, size - old);
    mData.swap(fresh);
    // The pool takes the old vector only if no other handle still shares it.
    sAllocator.recycle(std::move(fresh));
}

void Memory::resize(size_t size) {
    resizeImpl<true>(size);
}

void Memory::fastResize(size_t size) {
    resizeImpl<false>(size);
}

size_t Memory::append(const Memory& other) {
    // Hold other's vector first: appending a blob to itself must see its bytes unchanged
    // while this handle's vector is replaced (the extra owner forces the copying path).
    const BufferSP source = other.mData;
    if (!mData) {
        mData = source;
        return size();
    }
    const size_t old = mData->size();
    const size_t extra = source ? source->size() : 0;
    const size_t total = old + extra;
    if (!isShared(mData) && mData->capacity() >= total) {
        mData->resize(total);
        if (extra != 0) std::memcpy(mData->data() + old, source->data(), extra);
        return total;
    }
    BufferSP fresh = sAllocator.allocate(total);
    if (old != 0) std::memcpy(fresh->data(), mData->data(), old);
    if (extra != 0) std::memcpy(fresh->data() + old, source->data(), extra);
    mData.swap(fresh);
    sAllocator.recycle(std::move(fresh));
    return total;
}

size_t Memory::appendVector(const Memory& other) {
    return append(other);
}

const uint8_t* Memory::array(size_t& size) const {
    size = this->size();
    return mData ? mData->data() : nullptr;
}

const uint8_t* Memory::array() const {
    return mData ? mData->data() : nullptr;
}

uint8_t* Memory::editArray(size_t& size) {
    uint8_t* bytes = editArray();
    size = this->size();
    return bytes;
}

uint8_t* Memory::editArray() {
    if (!mData) return nullptr;
    if (isShared(mData)) {
        const size_t n = mData->size();
        BufferSP fresh = sAllocator.allocate(n);
        if (n != 0) std::memcpy(fresh->data(), mData->data(), n);
        // The old vector is only released: its other holders still use it.
        mData = std::move(fresh);
    }
    return mData->data();
}

uint8_t Memory::itemAt(size_t index) const {
    if (!mData || index >= mData->size()) return 0;
    return (*mData)[index];
}

void Memory::clear() {
    release();
}

}  // namespace NSCam
