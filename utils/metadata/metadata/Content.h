#pragma once
// IMetadata::Content: the typed array of values of one entry, always held through a
// shared pointer by entries and table rows. It has no lock: entries serialise access under
// their own mutex, and a content marked read-only is only read until a writer copies it.
#include <zorcam/metadata/IMetadata.h>

#include "FlatBytes.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace NSCam {

class IMetadata::Content {
public:
    // Content record: pattern, type, count, then the payload.
    static constexpr uint32_t kPattern = flat::kContentPattern;
    static constexpr size_t kHeaderSize = flat::kContentHeader;
    static constexpr size_t kInlineSize = 16;  // the largest basic element (MRect)

    Content();
    // From one flat content record; `err` is 1 when the record was refused (the content is
    // then empty, type -1).
    Content(const void* buf, size_t size, int& err);
    // A writable copy: new vectors, shared blob bytes and shared nested storages.
    Content(Content& other);
    ~Content();
    Content& operator=(const Content&) = delete;

    bool clear();
    int32_t _typeSize() const;

    // index -1 appends `size` elements (the first append fixes the type); any other index
    // overwrites `size` elements from there.
    bool update(int index, const void* data, size_t size, int type);
    const void* getBasicData(int index, int type) const;
    std::shared_ptr<Storage> getMetadata(int index, int type) const;
    std::shared_ptr<std::vector<uint8_t>> getMemory(int index, int type) const;
    bool remove(int index);

    // Bytes the record takes; 0 when the record holds containers a receiver would refuse
    // (which flatten then reports).
    size_t flattenSize() const;
    long flatten(void* buf, size_t capacity) const;
    // The record at the writer's position, as part of a larger block.
    long flatten(flat::Writer& w) const;
    long unflatten(const void* buf, size_t size);

    bool isReadOnly() const { return mReadOnly.load(std::memory_order_relaxed) != 0; }
    void markReadOnly() { mReadOnly.store(1, std::memory_order_relaxed); }

    // Live contents; a statistic (+1 per constructor, -1 per destructor).
    static std::atomic<int64_t> mStatNum;
    // Exported for statistics, never written.
    static int64_t mStatSize;

    int32_t mType;
    int32_t mCount;
    alignas(8) uint8_t mInlineData[kInlineSize];
    std::shared_ptr<std::vector<uint8_t>> mBasicDataSP;
    std::shared_ptr<std::vector<std::shared_ptr<Storage>>> mMetaSP;
    std::shared_ptr<std::vector<Memory>> mMemSP;
    // Set once the content may be reachable from more than one holder. Atomic because
    // entries on different locks may mark one shared content at the same time.
    std::atomic<int32_t> mReadOnly;

private:
    void reset();
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
