#pragma once
// IMetadata::Content: the typed array of values of one entry, always held through a shared
// pointer by entries and table rows.
//
// Thread safety: none of its own. Entries serialise access under their own mutex, and a
// content marked read-only is never changed again (writers copy it first), so any number of
// threads may read it, with or without a lock.
#include <zorcam/metadata/IMetadata.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "FlatBytes.h"

namespace NSCam {

// Exported are the operations a content has always offered (and its statistics); the library's
// own paths are ZORCAM_LOCAL.
class IMetadata::Content {
public:
    // Content record: pattern, type, count, then the payload.
    static constexpr uint32_t kPattern = flat::kContentPattern;
    static constexpr size_t kHeaderSize = flat::kContentHeader;
    // The one element of a basic type kept without an array (16: the largest, MRect), and
    // the room a small array takes in place: no allocation for arrays up to 16 bytes.
    static constexpr size_t kInlineSize = 16;

    // Which kind of element array a content holds; at most one, decided by its type.
    enum class Held : uint8_t {
        kNothing,   // no array: count 0, or one basic element in mInlineData
        kBytes,     // basic elements back to back (mBytes)
        kStorages,  // nested containers: std::vector<std::shared_ptr<Storage>> (mObjects)
        kBlobs,     // blobs: std::vector<Memory> (mObjects)
    };

    Content();
    // From one flat content record; `err` is 1 when the record was refused (the content is
    // then empty, type -1).
    Content(const void* buf, size_t size, int& err);
    // A writable copy: new arrays, shared blob bytes and shared nested storages.
    Content(Content& other);
    ~Content();
    Content& operator=(const Content&) = delete;

    // A fresh content, and a writable copy of one, each in one pooled block with its
    // reference counts: no heap allocation in the steady state.
    ZORCAM_LOCAL static std::shared_ptr<Content> make();
    ZORCAM_LOCAL static std::shared_ptr<Content> copyOf(Content& other);
    // The values of a table's row, as a content marked shared: `count` elements of `type`,
    // `bytes` bytes at `payload`.
    ZORCAM_LOCAL static std::shared_ptr<Content> ofValues(int32_t type, int32_t count,
                                                          const uint8_t* payload, size_t bytes);
    // A content record that the walk of the flat form has checked (FlatWalk.h), as the
    // decoder of a block reads it: it decodes without a report.
    ZORCAM_LOCAL static std::shared_ptr<Content> decoded(const void* buf, size_t size);

    bool clear();
    int32_t _typeSize() const;

    // index -1 appends `size` elements (the first append fixes the type); any other index
    // overwrites `size` elements from there.
    bool update(int index, const void* data, size_t size, int type);
    const void* getBasicData(int index, int type) const;
    // getBasicData's answer when it has one, without a report; null otherwise (the caller
    // then asks getBasicData, which reports why).
    const void* basicAt(int index, int type) const {
        if (index < 0 || index >= mCount || mType != type || !isBasicType(type)) return nullptr;
        if (mHeld == Held::kBytes)
            return mBytes + static_cast<size_t>(index) * static_cast<size_t>(kTypeFacts[type].size);
        return mCount == 1 ? mInlineData : nullptr;
    }
    std::shared_ptr<Storage> getMetadata(int index, int type) const;
    std::shared_ptr<std::vector<uint8_t>> getMemory(int index, int type) const;
    bool remove(int index);

    // Bytes the record takes (nested::kNoSize when a container in it contains itself).
    size_t flattenSize() const;
    // The same, with the block of each nested storage sized by `block(context, storage)`.
    ZORCAM_LOCAL size_t flattenSize(size_t (*block)(const void* context, const Storage& storage),
                                    const void* context) const;
    long flatten(void* buf, size_t capacity) const;
    // The record at the writer's position, as part of a larger block.
    ZORCAM_LOCAL long flatten(flat::Writer& w) const;
    // The record of `count` basic elements of `type` (`bytes` bytes at `payload`) at the
    // writer's position: what flatten() writes for such a content, with its report when it
    // does not fit.
    ZORCAM_LOCAL static long flattenValues(flat::Writer& w, int32_t type, int32_t count,
                                           const uint8_t* payload, size_t bytes);
    long unflatten(const void* buf, size_t size);

    // True when the content is basic values (or none) that a table row may hold as a record
    // of the flat form: `bytes` receives the size of the values.
    ZORCAM_LOCAL bool plainValues(size_t& bytes) const;

    bool isReadOnly() const { return mReadOnly.load(std::memory_order_relaxed) != 0; }
    void markReadOnly() { mReadOnly.store(1, std::memory_order_relaxed); }

    // The arrays, when held.
    std::vector<std::shared_ptr<Storage>>* storages() const {
        return mHeld == Held::kStorages
                   ? static_cast<std::vector<std::shared_ptr<Storage>>*>(mObjects)
                   : nullptr;
    }
    std::vector<Memory>* blobs() const {
        return mHeld == Held::kBlobs ? static_cast<std::vector<Memory>*>(mObjects) : nullptr;
    }
    // The basic elements: the array when there is one, else the inline element.
    const uint8_t* elements() const { return mHeld == Held::kBytes ? mBytes : mInlineData; }

    // Live contents; a statistic (+1 per constructor, -1 per destructor), racy by design:
    // a plain load and store, no locked instruction on the way.
    static std::atomic<int64_t> mStatNum;
    static void countBy(int64_t delta) {
        mStatNum.store(mStatNum.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
    }
    // Exported for statistics, never written.
    static int64_t mStatSize;

    int32_t mType = -1;
    int32_t mCount = 0;
    // Set once the content may be reachable from more than one holder. Atomic because
    // entries on different locks may mark one shared content at the same time.
    std::atomic<int32_t> mReadOnly{0};
    Held mHeld = Held::kNothing;
    // mBytes is this content's own heap array (not in place).
    bool mBytesOwned = false;
    size_t mCapacity = 0;       // bytes mBytes can hold without moving
    uint8_t* mBytes = nullptr;  // the byte array: mInlineData or a heap array
    void* mObjects = nullptr;   // the vector of storages or of blobs
    alignas(8) uint8_t mInlineData[kInlineSize];

private:
    ZORCAM_LOCAL void construct(const void* buf, size_t size, int& err);
    ZORCAM_LOCAL void releaseArrays();
    ZORCAM_LOCAL bool updateStorages(bool append, size_t start, const void* data, size_t size);
    ZORCAM_LOCAL bool updateBlobs(bool append, size_t start, const void* data, size_t size);
    ZORCAM_LOCAL bool updateBytes(bool append, size_t start, const void* data, size_t size);
    // Room for `bytes` in the byte array, keeping its first `keep` bytes.
    ZORCAM_LOCAL void reserveBytes(size_t bytes, size_t keep);
    ZORCAM_LOCAL long unflattenPayload(flat::Reader& r);
    // The payload of each kind of record, after its header.
    ZORCAM_LOCAL long unflattenBlobs(flat::Reader& r, size_t count);
    ZORCAM_LOCAL long unflattenStorages(flat::Reader& r, size_t count);
    ZORCAM_LOCAL long unflattenBasic(flat::Reader& r, size_t count);
    ZORCAM_LOCAL bool refuseElement(int index, int type, const char* operation) const;
    ZORCAM_LOCAL static long finishRecord(const flat::Writer& w);
};

// A value to file in a row: basic values (or none), laid out as a record, or a content object.
struct RowValue {
    enum class Kind : uint8_t { kNone, kValues, kObject };
    Kind kind = Kind::kNone;
    int32_t type = -1;
    int32_t count = 0;
    const void* payload = nullptr;  // count x the type's size bytes
    size_t bytes = 0;
    std::shared_ptr<IMetadata::Content> object;

    static RowValue none() { return RowValue(); }
    static RowValue values(int32_t type, int32_t count, const void* payload, size_t bytes) {
        RowValue v;
        v.kind = Kind::kValues;
        v.type = type;
        v.count = count;
        v.payload = payload;
        v.bytes = bytes;
        return v;
    }
    // A content to file: basic values of a content marked shared are copied into the row (the
    // content itself is not kept); anything else is kept as the row's object.
    static RowValue of(std::shared_ptr<IMetadata::Content>&& content);
    // Bytes of the row's record: its head, and the content record of values.
    size_t recordSize() const {
        return flat::kRecordHead + (kind == Kind::kValues ? flat::kContentHeader + bytes : 0);
    }
};

// Applies a macro to each of the eleven stored element types.
#define ZORCAM_FOR_EACH_VALUE_TYPE(X) \
    X(unsigned char)                  \
    X(int)                            \
    X(float)                          \
    X(long)                           \
    X(double)                         \
    X(MRational)                      \
    X(MPoint)                         \
    X(MSize)                          \
    X(MRect)                          \
    X(IMetadata)                      \
    X(IMetadata::Memory)

}  // namespace NSCam
