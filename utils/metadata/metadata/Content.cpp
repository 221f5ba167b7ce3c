#define LOG_TAG "Metadata2/Content"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include "Content.h"

#include <climits>
#include <cstring>
#include <utility>

#include "Diagnostics.h"
#include "FlatBytes.h"
#include "Nested.h"

namespace NSCam {

using Content = IMetadata::Content;

std::atomic<int64_t> Content::mStatNum{0};
int64_t Content::mStatSize = 0;

// The record layout is read and written field by field; pin it here.
static_assert(Content::kHeaderSize == 12, "pattern, type and count");
static_assert(sizeof(MRect) <= Content::kInlineSize, "the inline slot holds any basic element");

namespace {

inline void countUp() {
    Content::mStatNum.fetch_add(1, std::memory_order_relaxed);
}

// Nesting depth of the record being decoded on this thread (a nested container's record
// holds a storage block, which holds records again).
struct DepthGuard {
    DepthGuard() { ++flat::tDecode.depth; }
    ~DepthGuard() { --flat::tDecode.depth; }
};

// Nested containers being released by the loop of this thread (see nested::release).
struct ReleaseLoop {
    bool running = false;
    std::vector<std::shared_ptr<void>> pending;
    ~ReleaseLoop() { tReleaseLoopGone = true; }
    static thread_local bool tReleaseLoopGone;
};
thread_local bool ReleaseLoop::tReleaseLoopGone = false;

}  // namespace

void nested::release(std::shared_ptr<void>&& nested) {
    if (!nested) return;
    // A thread that is exiting may release containers after its loop is gone: plainly.
    if (ReleaseLoop::tReleaseLoopGone) {
        nested.reset();
        return;
    }
    thread_local ReleaseLoop loop;
    if (loop.running) {
        try {
            loop.pending.push_back(std::move(nested));
            return;
        } catch (const std::bad_alloc&) {
            // No room to defer: release it here, one level deeper.
        }
        nested.reset();
        return;
    }
    loop.running = true;
    nested.reset();  // what it releases in turn is queued, not released inside this call
    while (!loop.pending.empty()) {
        std::shared_ptr<void> next = std::move(loop.pending.back());
        loop.pending.pop_back();
        next.reset();
    }
    loop.running = false;
}

Content::Content() : mType(-1), mCount(0), mReadOnly(0) {
    countUp();
    std::memset(mInlineData, 0, sizeof(mInlineData));
}

Content::Content(const void* buf, size_t size, int& err) : mType(-1), mCount(0), mReadOnly(0) {
    countUp();
    std::memset(mInlineData, 0, sizeof(mInlineData));
    err = 0;
    if (unflatten(buf, size) < 0) {
        META_LOGE("unflatten error %p, size %zu", buf, size);
        err = 1;
        reset();
    }
}

Content::Content(Content& other) : mType(other.mType), mCount(other.mCount), mReadOnly(0) {
    countUp();
    std::memset(mInlineData, 0, sizeof(mInlineData));
    if (mCount == 0) return;  // an empty copy carries only the type
    if (other.mBasicDataSP) {
        mBasicDataSP = std::make_shared<std::vector<uint8_t>>(*other.mBasicDataSP);
    } else if (other.mMemSP) {
        if (mType != TYPE_Memory) META_FATAL("mMemSP confuse with type %d", mType);
        // Memory copies share their bytes until one side writes.
        mMemSP = std::make_shared<std::vector<Memory>>(*other.mMemSP);
    } else if (other.mMetaSP) {
        if (mType != TYPE_IMetadata) META_FATAL("mMetaSP confuse with type %d", mType);
        // Nested containers are shared, not deep-copied: their storages copy on write.
        mMetaSP = std::make_shared<std::vector<std::shared_ptr<Storage>>>(*other.mMetaSP);
    } else {
        std::memcpy(mInlineData, other.mInlineData, static_cast<size_t>(other._typeSize()));
    }
}

Content::~Content() {
    Content::mStatNum.fetch_sub(1, std::memory_order_relaxed);
    mMemSP.reset();
    nested::release(std::move(mMetaSP));
    mBasicDataSP.reset();
}

void Content::reset() {
    mBasicDataSP.reset();
    mMemSP.reset();
    nested::release(std::move(mMetaSP));
    mType = -1;
    mCount = 0;
    mReadOnly.store(0, std::memory_order_relaxed);
}

bool Content::clear() {
    // Each pointer is emptied before what it held is released, so a destructor reached from
    // here never sees a half-cleared content.
    { auto gone = std::move(mBasicDataSP); }
    { auto gone = std::move(mMemSP); }
    nested::release(std::move(mMetaSP));
    mType = -1;
    mCount = 0;
    mReadOnly.store(0, std::memory_order_relaxed);
    return true;
}

int32_t Content::_typeSize() const {
    static const int32_t sizeTable[NUM_MTYPE] = {1, 4, 4, 8, 8, 8, 8, 8, 16, -1, 1};
    if (static_cast<uint32_t>(mType) >= NUM_MTYPE) META_FATAL("mType invalid %d", mType);
    if (mType == TYPE_IMetadata) META_FATAL("Not support TYPE_IMetadata");
    return sizeTable[mType];
}

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
            // The first append fixes the type. Vectors left by an append of nothing under
            // another type go with it, so that only the new type's vector can exist.
            mType = type;
            mBasicDataSP.reset();
            nested::release(std::move(mMetaSP));
            mMemSP.reset();
        }
    }
    if (mType != type) {
        META_LOGE_CALLSTACK("type mismatch mType(%x) type(%x)", mType, type);
        return false;
    }
    const bool append = index == -1;

    if (type == TYPE_IMetadata) {
        if (append) {
            if (mMetaSP)
                mMetaSP->resize(mMetaSP->size() + size);
            else
                mMetaSP = std::make_shared<std::vector<std::shared_ptr<Storage>>>(size);
            mCount += static_cast<int32_t>(size);
        }
        const IMetadata* src = static_cast<const IMetadata*>(data);
        for (size_t i = 0; i < size; ++i) {
            std::shared_ptr<Storage> replaced = src[i].getStorageSP();
            (*mMetaSP)[start + i].swap(replaced);
            nested::release(std::move(replaced));
        }
        return true;
    }

    if (type == TYPE_Memory) {
        if (append) {
            if (mMemSP)
                mMemSP->resize(mMemSP->size() + size);
            else
                mMemSP = std::make_shared<std::vector<Memory>>(size);
            mCount += static_cast<int32_t>(size);
        }
        const Memory* src = static_cast<const Memory*>(data);
        for (size_t i = 0; i < size; ++i) (*mMemSP)[start + i] = src[i];
        return true;
    }

    const size_t e = static_cast<size_t>(_typeSize());
    if (append) {
        const size_t n = static_cast<size_t>(mCount) + size;
        if (mBasicDataSP) {
            mBasicDataSP->resize(n * e);
            if (size) std::memcpy(mBasicDataSP->data() + start * e, data, size * e);
        } else if (n < 2) {
            if (size != 1) META_FATAL("size should be 1");
            std::memcpy(mInlineData, data, e);
        } else {
            auto bytes = std::make_shared<std::vector<uint8_t>>(n * e);
            if (mCount == 1) {
                std::memcpy(bytes->data(), mInlineData, e);
                std::memcpy(bytes->data() + e, data, size * e);
            } else {
                std::memcpy(bytes->data(), data, size * e);
            }
            mBasicDataSP = std::move(bytes);
        }
        mCount += static_cast<int32_t>(size);
        return true;
    }
    if (size == 0) return true;  // nothing to overwrite
    if (!mBasicDataSP)
        std::memcpy(mInlineData, data, e);  // the one inline element
    else
        std::memcpy(mBasicDataSP->data() + start * e, data, size * e);
    return true;
}

// The readers' common refusals, logged under each reader's own name.
#define CHECK_ELEMENT_OR_RETURN(index, type, refusal)                                  \
    do {                                                                               \
        if ((index) < 0 || (index) >= mCount) {                                        \
            META_LOGE("index (%d) out of range (%d)", (index), mCount);                \
            return refusal;                                                            \
        }                                                                              \
        if (mType != (type)) {                                                         \
            META_LOGE_CALLSTACK("type mismatch type(%x) vs mType(%x)", (type), mType); \
            return refusal;                                                            \
        }                                                                              \
    } while (0)

const void* Content::getBasicData(int index, int type) const {
    CHECK_ELEMENT_OR_RETURN(index, type, nullptr);
    const size_t e = static_cast<size_t>(_typeSize());
    if (mBasicDataSP) return mBasicDataSP->data() + static_cast<size_t>(index) * e;
    if (mCount == 1) return mInlineData;
    META_FATAL("mCount >1 but mBasicDataSP is nullptr");
}

std::shared_ptr<IMetadata::Storage> Content::getMetadata(int index, int type) const {
    CHECK_ELEMENT_OR_RETURN(index, type, nullptr);
    if (!mMetaSP) return nullptr;
    if (type != TYPE_IMetadata) META_FATAL("mMetaSP without TYPE_IMetadata");
    return (*mMetaSP)[static_cast<size_t>(index)];
}

std::shared_ptr<std::vector<uint8_t>> Content::getMemory(int index, int type) const {
    CHECK_ELEMENT_OR_RETURN(index, type, nullptr);
    if (!mMemSP) return nullptr;
    if (type != TYPE_Memory) META_FATAL("mMemSP without TYPE_Memory");
    return (*mMemSP)[static_cast<size_t>(index)].getDataSP();
}

bool Content::remove(int index) {
    if (index < 0 || index >= mCount) {
        META_LOGE("out of index remove. cnt %d, index %d", mCount, index);
        return false;
    }
    if (mCount == 1) return clear();
    const size_t at = static_cast<size_t>(index);
    if (mMetaSP) {
        if (mType != TYPE_IMetadata) {
            META_LOGE("content confuse. type %d, mMetaSP %p", mType, mMetaSP.get());
            return false;
        }
        std::shared_ptr<Storage> removed = std::move((*mMetaSP)[at]);
        mMetaSP->erase(mMetaSP->begin() + static_cast<ptrdiff_t>(at));
        nested::release(std::move(removed));
        --mCount;
        return true;
    }
    if (mMemSP) {
        if (mType != TYPE_Memory) {
            META_LOGE("content confuse. type %d, mMemSP %p", mType, mMemSP.get());
            return false;
        }
        mMemSP->erase(mMemSP->begin() + static_cast<ptrdiff_t>(at));
        --mCount;
        return true;
    }
    if (!mBasicDataSP) {
        --mCount;  // a broken inline state is tolerated here
        return true;
    }
    const size_t e = static_cast<size_t>(_typeSize());
    const size_t count = static_cast<size_t>(mCount);
    uint8_t* bytes = mBasicDataSP->data();
    if (at + 1 < count) std::memmove(bytes + at * e, bytes + (at + 1) * e, (count - at - 1) * e);
    // A content reduced to one element keeps its one-element byte array.
    mBasicDataSP->resize((count - 1) * e);
    --mCount;
    return true;
}

size_t Content::flattenSize() const {
    const flat::EncodeScope scope;
    if (scope.outermost && nested::brokenLimit(nullptr, this, nullptr, 0) != nested::Limit::kNone)
        return 0;
    if (mCount == 0) return kHeaderSize;
    size_t total = kHeaderSize;
    if (mType == TYPE_IMetadata) {
        if (!mMetaSP) META_FATAL("mMetaSP is nullptr but mCount >0");
        for (const auto& storage : *mMetaSP)
            total += 4 + (storage ? nested::flattenSize(*storage, nullptr, -1) : 0);
        return total;
    }
    if (mType == TYPE_Memory) {
        if (!mMemSP) META_FATAL("mMemSP is nullptr but mCount >0");
        for (const Memory& m : *mMemSP) total += 4 + m.size();
        return total;
    }
    return total + static_cast<size_t>(_typeSize()) * static_cast<size_t>(mCount);
}

long Content::flatten(void* buf, size_t capacity) const {
    const flat::EncodeScope scope;
    if (scope.outermost) {
        switch (nested::brokenLimit(nullptr, this, nullptr, 0)) {
            case nested::Limit::kNone:
            case nested::Limit::kRecords:
                break;
            case nested::Limit::kDepth:
                META_LOGE(
                    "containers nested deeper than %d levels: a receiver would refuse the "
                    "form",
                    flat::kMaxNestingDepth);
                return -1;
            case nested::Limit::kContainers:
                META_LOGE("more than %zu nested containers: a receiver would refuse the form",
                          flat::kMaxNestedContainers);
                return -1;
        }
    }
    flat::Writer w(buf, capacity);
    return flatten(w);
}

long Content::flatten(flat::Writer& w) const {
    w.putU32(kPattern);
    w.putU32(static_cast<uint32_t>(mType));
    w.putU32(static_cast<uint32_t>(mCount));
    if (mCount != 0) {
        if (mType == TYPE_Memory) {
            if (!mMemSP) META_FATAL("mMemSP is nullptr but mCount >0");
            for (const Memory& element : *mMemSP) {
                const Memory m(element);
                size_t n = 0;
                const uint8_t* bytes = m.array(n);
                // A length field holds 32 bits: a larger blob cannot be sent whole.
                if (n > UINT32_MAX) {
                    META_LOGE("blob of %zu bytes does not fit the 32-bit length of the flat form",
                              n);
                    return -1;
                }
                w.putU32(static_cast<uint32_t>(n));
                if (n) w.put(bytes, n);
            }
        } else if (mType == TYPE_IMetadata) {
            if (!mMetaSP) META_FATAL("mMetaSP is nullptr but mCount >0");
            for (const auto& storage : *mMetaSP) {
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
        } else {
            if (mType == -1) META_FATAL("mType should valid");
            const size_t e = static_cast<size_t>(_typeSize());
            if (mBasicDataSP)
                w.put(mBasicDataSP->data(), e * static_cast<size_t>(mCount));
            else if (mCount == 1)
                w.put(mInlineData, e);
            else
                META_FATAL("mCount >1 but mBasicDataSP is nullptr");
        }
    }
    if (w.overflowed()) {
        META_LOGE("out of buffer %p, %p", w.at(w.pos), w.at(w.capacity));
        return -1;
    }
    return static_cast<long>(w.pos);
}

long Content::unflatten(const void* buf, size_t size) {
    const flat::DecodeScope scope;
    flat::Reader r(buf, size);
    // Lengths are checked before they are used: a record that claims more than the buffer
    // holds is refused before anything is allocated for it.
#define OUT_OF_BUFFER(needed) \
    (META_LOGE("out of buffer %p, %p", r.at(r.pos + (needed)), r.end()), -1L)
    if (!r.has(4)) return OUT_OF_BUFFER(kHeaderSize);
    const uint32_t pattern = r.u32();
    if (pattern != kPattern) {
        META_LOGE("flatten pattern not correct %x", pattern);
        return -1;
    }
    if (!r.has(8)) return OUT_OF_BUFFER(8);
    mReadOnly.store(1, std::memory_order_relaxed);
    mType = static_cast<int32_t>(r.u32());
    mCount = static_cast<int32_t>(r.u32());
    if (mCount == 0) return static_cast<long>(r.pos);
    if (mCount < 0) return OUT_OF_BUFFER(0);
    const size_t count = static_cast<size_t>(mCount);

    if (mType == TYPE_Memory) {
        // Every element carries at least its 4-byte length: refuse before allocating for a
        // count the bytes cannot hold.
        if (count > r.remaining() / 4) return OUT_OF_BUFFER(count * 4);
        mMemSP = std::make_shared<std::vector<Memory>>(count);
        for (Memory& m : *mMemSP) {
            if (!r.has(4)) return OUT_OF_BUFFER(4);
            const uint32_t n = r.u32();
            if (n == 0) continue;
            if (!r.has(n)) return OUT_OF_BUFFER(n);
            m.fastResize(n);
            std::memcpy(m.editArray(), r.here(), n);
            r.pos += n;
        }
        return static_cast<long>(r.pos);
    }

    if (mType == TYPE_IMetadata) {
        if (count > r.remaining() / 4) return OUT_OF_BUFFER(count * 4);
        if (flat::tDecode.depth >= flat::kMaxNestingDepth) {
            META_LOGE("nesting deeper than %d levels at %p", flat::kMaxNestingDepth, r.here());
            return -1;
        }
        DepthGuard depth;
        nested::release(
            std::exchange(mMetaSP, std::make_shared<std::vector<std::shared_ptr<Storage>>>(count)));
        for (auto& slot : *mMetaSP) {
            if (!r.has(4)) return OUT_OF_BUFFER(4);
            const uint32_t n = r.u32();
            if (n == 0) continue;
            if (!r.has(n)) return OUT_OF_BUFFER(n);
            if (++flat::tDecode.nested > flat::kMaxNestedContainers) {
                META_LOGE("more than %zu nested containers at %p", flat::kMaxNestedContainers,
                          r.here());
                return -1;
            }
            // The temporary container hands its storage out marked shared, so whoever
            // edits the nested value later copies it first.
            const IMetadata nested(r.here(), n);
            slot = nested.getStorageSP();
            // A nested block that does not decode makes the whole record malformed.
            if (!slot) return -1;
            r.pos += n;
        }
        return static_cast<long>(r.pos);
    }

    if (mType == -1) {
        META_LOGE("mType hould valid!");
        return -1;
    }
    const size_t e = static_cast<size_t>(_typeSize());  // fatal for a corrupt type code
    const size_t n = e * count;
    if (!r.has(n)) return OUT_OF_BUFFER(n);
    if (count == 1) {
        std::memcpy(mInlineData, r.here(), e);
    } else {
        mBasicDataSP = std::make_shared<std::vector<uint8_t>>(r.here(), r.here() + n);
    }
    r.pos += n;
    return static_cast<long>(r.pos);
#undef OUT_OF_BUFFER
}

}  // namespace NSCam
