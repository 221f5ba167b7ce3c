// IMetadata::Content: the typed array of one entry, its reads and edits with their reports, and
// its flat content record both ways.
#define LOG_TAG "Metadata2/Content"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include "Content.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "Diagnostics.h"
#include "FlatBytes.h"
#include "Nested.h"
#include "Readers.h"

namespace NSCam {

using Content = IMetadata::Content;
using Storages = std::vector<std::shared_ptr<IMetadata::Storage>>;
using Blobs = std::vector<IMetadata::Memory>;

std::atomic<int64_t> Content::mStatNum{0};
int64_t Content::mStatSize = 0;

// The record layout is read and written field by field; pin it here.
static_assert(Content::kHeaderSize == 12, "pattern, type and count");
static_assert(sizeof(MRect) <= Content::kInlineSize, "the inline slot holds any basic element");

namespace {

// Nesting depth of the record being decoded on this thread (a nested container's record
// holds a storage block, which holds records again).
struct DepthGuard {
    DepthGuard() { ++flat::tDecode.depth; }
    ~DepthGuard() { --flat::tDecode.depth; }
};

// Nested containers being released by the loop of this thread (see nested::release).
struct ReleaseLoop {
    int depth = 0;  // releases under way on this thread, one inside the other
    std::vector<std::shared_ptr<void>> pending;
    ~ReleaseLoop() { readers::markThreadExiting(); }
};

// Levels released by plain recursion before the rest is queued: a container with many
// nested containers side by side goes without a queue as long as its own, and a chain of
// thousands still costs a bounded stack.
constexpr int kInlineLevels = 16;

}  // namespace

void nested::release(std::shared_ptr<void>&& nested) {
    if (!nested) return;
    // A thread that is exiting may release containers after its loop is gone: plainly.
    if (readers::threadExiting()) {
        nested.reset();
        return;
    }
    thread_local ReleaseLoop loop;
    if (loop.depth >= kInlineLevels) {
        try {
            loop.pending.push_back(std::move(nested));
            return;
        } catch (const std::bad_alloc&) {
            // No room to defer: release it here, one level deeper.
        }
        nested.reset();
        return;
    }
    ++loop.depth;
    nested.reset();  // below kInlineLevels what it releases in turn is queued
    if (loop.depth == 1) {
        while (!loop.pending.empty()) {
            std::shared_ptr<void> next = std::move(loop.pending.back());
            loop.pending.pop_back();
            next.reset();
        }
    }
    --loop.depth;
}

//------------------------------------------------------------------------------------------
// Life cycle

Content::Content() {
    countBy(1);
    std::memset(mInlineData, 0, sizeof(mInlineData));
}

Content::Content(const void* buf, size_t size, int& err) : Content() {
    // A record decoded on its own starts a decode: the limits on nesting count from here.
    const flat::DecodeScope scope;
    construct(buf, size, err);
}

void Content::construct(const void* buf, size_t size, int& err) {
    err = 0;
    flat::Reader r(buf, size);
    if (unflattenPayload(r) < 0) {
        META_LOGE_AS("Content", "unflatten error %p, size %zu", buf, size);
        err = 1;
        clear();
    }
}

Content::Content(Content& other) : Content() {
    mType = other.mType;
    mCount = other.mCount;
    if (mCount == 0) return;  // an empty copy carries only the type
    switch (other.mHeld) {
        case Held::kBytes: {
            // Exactly the source's bytes; in place when they fit.
            const size_t n = static_cast<size_t>(mCount) * static_cast<size_t>(_typeSize());
            reserveBytes(n, 0);
            std::memcpy(mBytes, other.mBytes, n);
            mHeld = Held::kBytes;
            break;
        }
        case Held::kBlobs:
            if (mType != TYPE_Memory) META_FATAL("mMemSP confuse with type %d", mType);
            // Memory copies share their bytes until one side writes.
            mObjects = new Blobs(*other.blobs());
            mHeld = Held::kBlobs;
            break;
        case Held::kStorages:
            if (mType != TYPE_IMetadata) META_FATAL("mMetaSP confuse with type %d", mType);
            // Nested containers are shared, not deep-copied: their storages copy on write.
            mObjects = new Storages(*other.storages());
            mHeld = Held::kStorages;
            break;
        case Held::kNothing:
            std::memcpy(mInlineData, other.mInlineData, static_cast<size_t>(other._typeSize()));
            break;
    }
}

Content::~Content() {
    countBy(-1);
    if (mHeld != Held::kNothing) releaseArrays();
}

// Contents are never read by readers without the lock (they read the table's records), so
// a content goes as soon as its last holder lets go of it.
std::shared_ptr<Content> Content::make() {
    return std::allocate_shared<Content>(pool::PoolAllocator<Content>());
}

std::shared_ptr<Content> Content::copyOf(Content& other) {
    return std::allocate_shared<Content>(pool::PoolAllocator<Content>(), other);
}

std::shared_ptr<Content> Content::ofValues(int32_t type, int32_t count, const uint8_t* payload,
                                           size_t bytes) {
    std::shared_ptr<Content> c = make();
    c->mType = type;
    c->mCount = count;
    if (count == 1) {
        std::memcpy(c->mInlineData, payload, bytes);
    } else if (count > 1) {
        c->reserveBytes(bytes, 0);
        c->mHeld = Held::kBytes;
        std::memcpy(c->mBytes, payload, bytes);
    }
    c->markReadOnly();
    return c;
}

std::shared_ptr<Content> Content::decoded(const void* buf, size_t size) {
    std::shared_ptr<Content> c = make();
    const bool trusted = std::exchange(flat::tDecode.trusted, true);
    int err = 0;
    try {
        c->construct(buf, size, err);
    } catch (...) {
        flat::tDecode.trusted = trusted;
        throw;
    }
    flat::tDecode.trusted = trusted;
    return c;
}

void Content::releaseArrays() {
    // Each array is unhooked before what it held is released, so a destructor reached from
    // here never sees a half-cleared content.
    const Held held = mHeld;
    void* objects = mObjects;
    uint8_t* bytes = mBytesOwned ? mBytes : nullptr;
    mHeld = Held::kNothing;
    mObjects = nullptr;
    mBytes = nullptr;
    mBytesOwned = false;
    mCapacity = 0;
    if (bytes != nullptr) std::free(bytes);
    if (held == Held::kBlobs) delete static_cast<Blobs*>(objects);
    if (held == Held::kStorages) {
        // Nested chains are released in a loop, not by recursion (nested::release).
        auto* storages = static_cast<Storages*>(objects);
        for (auto& storage : *storages) nested::release(std::move(storage));
        delete storages;
    }
}

bool Content::plainValues(size_t& bytes) const {
    // Values longer than this stay in their content: a record's length field holds 32 bits.
    constexpr int32_t kMaxRecordElements = (1 << 30) / static_cast<int32_t>(sizeof(MRect));
    if (mCount == 0) {
        bytes = 0;
        return true;
    }
    if (!isBasicType(mType) || mCount < 0 || mCount > kMaxRecordElements ||
        (mHeld != Held::kBytes && mCount != 1))
        return false;  // also a broken content, which meets its fatal check where it is read
    bytes = static_cast<size_t>(kTypeFacts[mType].size) * static_cast<size_t>(mCount);
    return true;
}

bool Content::clear() {
    releaseArrays();
    mType = -1;
    mCount = 0;
    mReadOnly.store(0, std::memory_order_relaxed);
    return true;
}

int32_t Content::_typeSize() const {
    const TypeFacts* facts = typeFacts(mType);
    if (facts == nullptr) META_FATAL("mType invalid %d", mType);
    if (mType == TYPE_IMetadata) META_FATAL("Not support TYPE_IMetadata");
    return facts->size;
}

void Content::reserveBytes(size_t bytes, size_t keep) {
    if (mHeld == Held::kBytes && bytes <= mCapacity) return;
    if (bytes <= kInlineSize && mHeld != Held::kBytes) {
        mBytes = mInlineData;  // the inline element, if any, is already where element 0 goes
        mCapacity = kInlineSize;
        return;
    }
    // Grows geometrically, so that appending one element at a time stays linear.
    size_t capacity = mHeld == Held::kBytes ? mCapacity * 2 : 0;
    if (capacity < bytes) capacity = bytes;
    auto* grown = static_cast<uint8_t*>(std::malloc(capacity));
    if (grown == nullptr) throw std::bad_alloc();
    const uint8_t* from = mHeld == Held::kBytes ? mBytes : mInlineData;
    if (keep != 0) std::memcpy(grown, from, keep);
    if (mBytesOwned) std::free(mBytes);
    mBytes = grown;
    mBytesOwned = true;
    mCapacity = capacity;
}

//------------------------------------------------------------------------------------------
// Update, read, remove

bool Content::update(int index, const void* data, size_t size, int type) {
    size_t start;
    if (index != -1) {
        // index + size > mCount, written so that a huge size cannot wrap the sum around.
        if (index < 0 || index > mCount || size > static_cast<size_t>(mCount - index)) {
            META_LOGE("index (%d) out of range (%d)", index, mCount);
            return false;
        }
        start = static_cast<size_t>(index);
    } else {
        // The element count is 32-bit signed; an append that cannot be counted is refused.
        if (size > static_cast<size_t>(INT32_MAX - mCount)) {
            META_LOGE("append of %zu elements overflows count %d", size, mCount);
            return false;
        }
        start = static_cast<size_t>(mCount);
        if (mCount == 0) {
            // The first append fixes the type. Arrays left by an append of nothing under
            // another type go with it, so that only the new type's array can exist.
            mType = type;
            releaseArrays();
        }
    }
    if (mType != type) {
        META_LOGE_CALLSTACK("type mismatch mType(%x) type(%x)", mType, type);
        return false;
    }
    const bool append = index == -1;
    if (type == TYPE_IMetadata) return updateStorages(append, start, data, size);
    if (type == TYPE_Memory) return updateBlobs(append, start, data, size);
    return updateBytes(append, start, data, size);
}

bool Content::updateStorages(bool append, size_t start, const void* data, size_t size) {
    if (append) {
        if (mHeld == Held::kStorages) {
            storages()->resize(storages()->size() + size);
        } else {
            mObjects = new Storages(size);
            mHeld = Held::kStorages;
        }
        mCount += static_cast<int32_t>(size);
    }
    const IMetadata* src = static_cast<const IMetadata*>(data);
    for (size_t i = 0; i < size; ++i) {
        std::shared_ptr<Storage> replaced = nested::storageToStore(src[i]);
        (*storages())[start + i].swap(replaced);
        nested::release(std::move(replaced));
    }
    return true;
}

bool Content::updateBlobs(bool append, size_t start, const void* data, size_t size) {
    if (append) {
        if (mHeld == Held::kBlobs) {
            blobs()->resize(blobs()->size() + size);
        } else {
            mObjects = new Blobs(size);
            mHeld = Held::kBlobs;
        }
        mCount += static_cast<int32_t>(size);
    }
    const Memory* src = static_cast<const Memory*>(data);
    for (size_t i = 0; i < size; ++i) (*blobs())[start + i] = src[i];
    return true;
}

bool Content::updateBytes(bool append, size_t start, const void* data, size_t size) {
    const size_t e = static_cast<size_t>(_typeSize());
    if (append) {
        const size_t n = static_cast<size_t>(mCount) + size;
        if (mHeld != Held::kBytes && n < 2) {
            // The one-element form has no room for "nothing": appending zero elements to an
            // empty or one-element content ends the process (callers were built against that
            // behaviour and test for empty arrays themselves).
            if (size != 1) META_FATAL_AS("update", "size should be 1");
            std::memcpy(mInlineData, data, e);
        } else {
            // The one inline element, if any, becomes element 0 of the array.
            reserveBytes(n * e, start * e);
            mHeld = Held::kBytes;
            if (size) std::memcpy(mBytes + start * e, data, size * e);
        }
        mCount = static_cast<int32_t>(n);
        return true;
    }
    if (size == 0) return true;  // nothing to overwrite
    if (mHeld != Held::kBytes)
        std::memcpy(mInlineData, data, e);  // the one inline element
    else
        std::memcpy(mBytes + start * e, data, size * e);
    return true;
}

// The readers' common refusals, reported under each reader's own name: true when refused.
bool Content::refuseElement(int index, int type, const char* operation) const {
    if (index < 0 || index >= mCount) {
        META_LOGE_AS(operation, "index (%d) out of range (%d)", index, mCount);
        return true;
    }
    if (mType != type) {
        META_LOGE_CALLSTACK_AS(operation, "type mismatch type(%x) vs mType(%x)", type, mType);
        return true;
    }
    return false;
}

const void* Content::getBasicData(int index, int type) const {
    if (refuseElement(index, type, "getBasicData")) return nullptr;
    const size_t e = static_cast<size_t>(_typeSize());
    if (mHeld == Held::kBytes) return mBytes + static_cast<size_t>(index) * e;
    if (mCount == 1) return mInlineData;
    META_FATAL("mCount >1 but mBasicDataSP is nullptr");
}

std::shared_ptr<IMetadata::Storage> Content::getMetadata(int index, int type) const {
    if (refuseElement(index, type, "getMetadata")) return nullptr;
    if (mHeld != Held::kStorages) return nullptr;
    if (type != TYPE_IMetadata) META_FATAL("mMetaSP without TYPE_IMetadata");
    return (*storages())[static_cast<size_t>(index)];
}

std::shared_ptr<std::vector<uint8_t>> Content::getMemory(int index, int type) const {
    if (refuseElement(index, type, "getMemory")) return nullptr;
    if (mHeld != Held::kBlobs) return nullptr;
    if (type != TYPE_Memory) META_FATAL("mMemSP without TYPE_Memory");
    return (*blobs())[static_cast<size_t>(index)].getDataSP();
}

bool Content::remove(int index) {
    if (index < 0 || index >= mCount) {
        META_LOGE("out of index remove. cnt %d, index %d", mCount, index);
        return false;
    }
    if (mCount == 1) return clear();
    const size_t at = static_cast<size_t>(index);
    if (mHeld == Held::kStorages) {
        if (mType != TYPE_IMetadata) {
            META_LOGE("content confuse. type %d, mMetaSP %p", mType, mObjects);
            return false;
        }
        std::shared_ptr<Storage> removed = std::move((*storages())[at]);
        storages()->erase(storages()->begin() + static_cast<ptrdiff_t>(at));
        nested::release(std::move(removed));
        --mCount;
        return true;
    }
    if (mHeld == Held::kBlobs) {
        if (mType != TYPE_Memory) {
            META_LOGE("content confuse. type %d, mMemSP %p", mType, mObjects);
            return false;
        }
        blobs()->erase(blobs()->begin() + static_cast<ptrdiff_t>(at));
        --mCount;
        return true;
    }
    if (mHeld != Held::kBytes) {
        --mCount;  // a broken inline state is tolerated here
        return true;
    }
    const size_t e = static_cast<size_t>(_typeSize());
    const size_t count = static_cast<size_t>(mCount);
    // A content reduced to one element keeps its one-element array.
    if (at + 1 < count) std::memmove(mBytes + at * e, mBytes + (at + 1) * e, (count - at - 1) * e);
    --mCount;
    return true;
}

//------------------------------------------------------------------------------------------
// The flat record

size_t Content::flattenSize() const {
    return nested::recordSize(*this);
}

size_t Content::flattenSize(size_t (*block)(const void*, const Storage&),
                            const void* context) const {
    if (mCount == 0) return kHeaderSize;
    size_t total = kHeaderSize;
    if (mType == TYPE_IMetadata) {
        if (mHeld != Held::kStorages) META_FATAL("mMetaSP is nullptr but mCount >0");
        for (const auto& storage : *storages()) {
            const size_t n = storage ? block(context, *storage) : 0;
            if (n == nested::kNoSize) return nested::kNoSize;
            total += 4 + n;
        }
        return total;
    }
    if (mType == TYPE_Memory) {
        if (mHeld != Held::kBlobs) META_FATAL("mMemSP is nullptr but mCount >0");
        for (const Memory& m : *blobs()) total += 4 + m.size();
        return total;
    }
    return total + static_cast<size_t>(_typeSize()) * static_cast<size_t>(mCount);
}

long Content::flatten(void* buf, size_t capacity) const {
    const flat::EncodeScope scope;
    if (scope.outermost) {
        // A lone record holds no table, so it cannot have too many records.
        const nested::Limit broken = nested::brokenLimit(nullptr, this, nullptr, 0);
        if (broken != nested::Limit::kNone && broken != nested::Limit::kRecords) {
            char text[128];
            META_LOGE("%s", nested::describe(broken, text, sizeof(text)));
            return -1;
        }
    }
    flat::Writer w(buf, capacity);
    return flatten(w);
}

long Content::flatten(flat::Writer& w) const {
    if (mCount != 0 && (mType == TYPE_Memory || mType == TYPE_IMetadata)) {
        w.putU32(kPattern);
        w.putU32(static_cast<uint32_t>(mType));
        w.putU32(static_cast<uint32_t>(mCount));
        if (mType == TYPE_Memory) {
            if (mHeld != Held::kBlobs) META_FATAL("mMemSP is nullptr but mCount >0");
            for (const Memory& element : *blobs()) {
                size_t n = 0;
                const uint8_t* bytes = element.array(n);
                // A length field holds 32 bits: a larger blob cannot be sent whole.
                if (n > UINT32_MAX) {
                    META_LOGE("blob of %zu bytes does not fit the 32-bit length of the flat form",
                              n);
                    return -1;
                }
                w.putU32(static_cast<uint32_t>(n));
                if (n) w.put(bytes, n);
            }
        } else {
            if (mHeld != Held::kStorages) META_FATAL("mMetaSP is nullptr but mCount >0");
            for (const auto& storage : *storages()) {
                if (!storage) {
                    w.putU32(0);
                    continue;
                }
                // The nested block gets whatever capacity is left behind its length field,
                // even when that is already exhausted: the whole record is judged at the end.
                flat::Writer block = w.sub(w.pos + 4);
                const long written = nested::flatten(*storage, block, nullptr, -1);
                if (written < 0 || static_cast<unsigned long>(written) > UINT32_MAX) {
                    META_LOGE("flatten meta %p error", storage.get());
                    return -1;
                }
                w.putU32(static_cast<uint32_t>(written));
                w.pos += static_cast<size_t>(written);
            }
        }
        return finishRecord(w);
    }
    size_t n = 0;
    const uint8_t* payload = nullptr;
    if (mCount != 0) {
        if (mType == -1) META_FATAL("mType should valid");
        n = static_cast<size_t>(_typeSize()) * static_cast<size_t>(mCount);
        if (mHeld == Held::kBytes)
            payload = mBytes;
        else if (mCount == 1)
            payload = mInlineData;
        else
            META_FATAL("mCount >1 but mBasicDataSP is nullptr");
    }
    return flattenValues(w, mType, mCount, payload, n);
}

long Content::flattenValues(flat::Writer& w, int32_t type, int32_t count, const uint8_t* payload,
                            size_t bytes) {
    w.putU32(kPattern);
    w.putU32(static_cast<uint32_t>(type));
    w.putU32(static_cast<uint32_t>(count));
    if (bytes != 0) w.put(payload, bytes);
    return finishRecord(w);
}

// Every record is judged once it is written, as a whole: a record that did not fit its capacity
// is reported and refused.
long Content::finishRecord(const flat::Writer& w) {
    if (w.overflowed()) {
        META_LOGE_AS("flatten", "out of buffer %p, %p", w.at(w.pos), w.at(w.capacity));
        return -1;
    }
    return static_cast<long>(w.pos);
}

long Content::unflatten(const void* buf, size_t size) {
    const flat::DecodeScope scope;
    flat::Reader r(buf, size);
    return unflattenPayload(r);
}

namespace {

// Lengths are checked before they are used: a record that claims more than the buffer
// holds is refused, before anything is allocated for it, with the report of a read past
// its end.
long outOfBuffer(const flat::Reader& r, size_t needed) {
    META_LOGE_AS("unflatten", "out of buffer %p, %p", r.at(r.pos + needed), r.end());
    return -1;
}

}  // namespace

long Content::unflattenPayload(flat::Reader& r) {
    if (!r.has(4)) return outOfBuffer(r, kHeaderSize);
    const uint32_t pattern = r.u32();
    if (pattern != kPattern) {
        META_LOGE_AS("unflatten", "flatten pattern not correct %x", pattern);
        return -1;
    }
    if (!r.has(8)) return outOfBuffer(r, 8);
    mReadOnly.store(1, std::memory_order_relaxed);
    mType = static_cast<int32_t>(r.u32());
    mCount = static_cast<int32_t>(r.u32());
    if (mCount == 0) return static_cast<long>(r.pos);
    if (mCount < 0) return outOfBuffer(r, 0);
    const size_t count = static_cast<size_t>(mCount);
    if (mType == TYPE_Memory) return unflattenBlobs(r, count);
    if (mType == TYPE_IMetadata) return unflattenStorages(r, count);
    if (mType == -1) {
        META_LOGE_AS("unflatten", "mType hould valid!");
        return -1;
    }
    return unflattenBasic(r, count);
}

long Content::unflattenBlobs(flat::Reader& r, size_t count) {
    // Every element carries at least its 4-byte length: refuse before allocating for a count
    // the bytes cannot hold.
    if (count > r.remaining() / 4) return outOfBuffer(r, count * 4);
    releaseArrays();
    mObjects = new Blobs(count);
    mHeld = Held::kBlobs;
    for (Memory& m : *blobs()) {
        if (!r.has(4)) return outOfBuffer(r, 4);
        const uint32_t n = r.u32();
        if (n == 0) continue;
        if (!r.has(n)) return outOfBuffer(r, n);
        m.fastResize(n);
        std::memcpy(m.editArray(), r.here(), n);
        r.pos += n;
    }
    return static_cast<long>(r.pos);
}

long Content::unflattenStorages(flat::Reader& r, size_t count) {
    if (count > r.remaining() / 4) return outOfBuffer(r, count * 4);
    if (flat::tDecode.depth >= flat::kMaxNestingDepth) {
        META_LOGE_AS("unflatten", "nesting deeper than %d levels at %p", flat::kMaxNestingDepth,
                     r.here());
        return -1;
    }
    const DepthGuard depth;
    releaseArrays();
    mObjects = new Storages(count);
    mHeld = Held::kStorages;
    for (auto& slot : *storages()) {
        if (!r.has(4)) return outOfBuffer(r, 4);
        const uint32_t n = r.u32();
        if (n == 0) continue;
        if (!r.has(n)) return outOfBuffer(r, n);
        if (++flat::tDecode.nested > flat::kMaxNestedContainers) {
            META_LOGE_AS("unflatten", "more than %zu nested containers at %p",
                         flat::kMaxNestedContainers, r.here());
            return -1;
        }
        slot = nested::unflatten(r.here(), n);
        // A nested block that does not decode makes the whole record malformed.
        if (!slot) return -1;
        r.pos += n;
    }
    return static_cast<long>(r.pos);
}

long Content::unflattenBasic(flat::Reader& r, size_t count) {
    const size_t e = static_cast<size_t>(_typeSize());  // fatal for a corrupt type code
    const size_t n = e * count;
    if (!r.has(n)) return outOfBuffer(r, n);
    if (count == 1) {
        std::memcpy(mInlineData, r.here(), e);
    } else {
        reserveBytes(n, 0);
        mHeld = Held::kBytes;
        std::memcpy(mBytes, r.here(), n);
    }
    r.pos += n;
    return static_cast<long>(r.pos);
}

}  // namespace NSCam
