#pragma once
// The library's own operations on containers and entries: what the public classes do inside,
// kept out of their header so that none of it is part of the interface. The rooms of the
// container share them: MetadataV2.cpp (the container, its copy-on-write and every report),
// TypedAccess.cpp (one-call access), Dump.cpp, Entry.cpp (the entry's bodies).
#include <zorcam/metadata/IMetadata.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Content.h"
#include "Diagnostics.h"
#include "Storage.h"
#include "Sync.h"

namespace NSCam {

using IEntry = IMetadata::IEntry;

struct IMetadata::Core {
    static constexpr uint32_t kNoTag = 0xFFFFFFFFu;

    //--------------------------------------------------------------------------------------
    // Containers

    static uint32_t validNum(const IMetadata& m) {
        return m.mValidNum.load(std::memory_order_relaxed);
    }
    static void assignValidNumber(IMetadata& m);
    // A destroyed container is never used again: ends the process, naming `operation`.
    static void checkValid(const IMetadata& m, const char* operation) {
        if (__builtin_expect(validNum(m) != 0, 1)) return;
        reportInvalid(operation, &m, validNum(m), m.mValidNumBackup);
    }
    [[noreturn]] __attribute__((noinline, cold)) static void reportInvalid(const char* operation,
                                                                           const void* self,
                                                                           uint32_t valid,
                                                                           uint32_t backup);

    // Under mLock: a storage that may be shared is replaced by a private clone first.
    static void makeWritableLocked(const IMetadata& m) ZORCAM_REQUIRES(m.mLock);
    // Under mLock: the storage, marked shared, for whoever asked for it.
    static std::shared_ptr<Storage> shareLocked(const IMetadata& m) ZORCAM_REQUIRES(m.mLock);
    // The storage to store as a value into another container (getStorageSP's, marked shared),
    // without waiting for this container's lock from inside another's burst callback.
    static std::shared_ptr<Storage> storageToStore(const IMetadata& m);
    // Under mLock, in a burst callback waiting to store another container: a copy of the
    // storage offered to that container's burst, and taken back.
    static void offerLocked(const IMetadata& m) ZORCAM_REQUIRES(m.mLock);
    static void withdrawOfferLocked(const IMetadata& m) ZORCAM_REQUIRES(m.mLock);
    // Under mLock, as a write: `storage` becomes the container's; the old one is released once
    // no reader without the lock can still be in it.
    static void installLocked(const IMetadata& m, std::shared_ptr<Storage> storage)
        ZORCAM_REQUIRES(m.mLock);
    // Files `value` under `tag` under the lock: the one store behind both public updates and
    // setEntry, logging under the name "update" as callers grep for.
    static int update(IMetadata& m, uint32_t tag, RowValue&& value);
    static uint32_t lockedRowCount(const IMetadata& m);
    // What readers without the lock may look at of `storage`: nothing (they take the lock)
    // when its destruction would not wait for them.
    static Storage* lockFreeView(const std::shared_ptr<Storage>& storage) {
        return storage && StorageState::of(*storage).readableWithoutLock() ? storage.get()
                                                                           : nullptr;
    }
    // Reads element `index` of `tag`, of basic type `type` and `size` bytes, without the lock
    // (LockFreeRead.h): 1 stored in `out`, 0 absent (or fewer elements), -1 when the locked
    // path must answer (a writer was busy, or the read would fail and report).
    static inline int readWithoutLock(const IMetadata& m, uint32_t tag, int32_t type, size_t index,
                                      void* out, size_t size);

    //--------------------------------------------------------------------------------------
    // Entries

    // The tag and the values in one look under the entry's lock, as a container files them,
    // the values marked shared: basic values of up to `room` bytes copied to `buffer`, any
    // other content shared. An entry without a tag gives no values unless `untagged`.
    static RowValue toFile(const IEntry& e, uint32_t& tag, bool untagged, uint8_t* buffer,
                           size_t room);
    // Under the entry's lock, before every edit: a missing content is created, a read-only one
    // replaced by a private copy. Returns the replaced content, to be held until the edit is
    // done.
    static std::shared_ptr<Content> _ContentMakeWritable(IEntry& e) ZORCAM_REQUIRES(e.mLock);
    static bool _ContentUpdate(IEntry& e, int32_t index, const void* data, size_t count,
                               int32_t type) ZORCAM_REQUIRES(e.mLock);
    static void noteFailure(const IEntry& e);  // lowers mErrorTypeTag to the entry's tag
    // The bodies the typed families forward to, with the type code of their values: true on
    // success; on failure `content` is the entry's content as the failure left it, for the
    // family's report.
    static bool writeElements(IEntry& e, int32_t index, const void* data, size_t count,
                              int32_t type, const void*& content);
    static bool readElements(const IEntry& e, uint32_t index, void* out, size_t count, int32_t type,
                             const void*& content);
    template <typename T>
    static bool readHandles(const IEntry& e, uint32_t index, T* out, size_t count,
                            const void*& content);
};

// Brackets a change of a container for its readers without the lock: the count is odd while
// the change is under way, and moves on by two with each change.
class Writing {
public:
    explicit Writing(std::atomic<uint32_t>& sequence) : mSequence(sequence) {
        mSequence.store(mSequence.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        releaseFence();  // the odd count is seen before anything the change writes
    }
    ~Writing() {
        mSequence.store(mSequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;

private:
    std::atomic<uint32_t>& mSequence;
};

// What a typed write files: values of a basic type appended to nothing go straight into the
// row; anything else is made as a content first (which reports a refused index), marked
// shared, and filed (TypedAccess.cpp).
RowValue madeValue(uint32_t index, const void* values, size_t count, int32_t type);

}  // namespace NSCam
