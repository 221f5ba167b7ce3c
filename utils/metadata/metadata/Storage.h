#pragma once
// A storage's insides: its table, the flag that drives its containers' copy-on-write, whether
// readers without the lock may read it, and what a waiting burst offers. The public header
// knows only their size (Storage::kStateBytes); the constructor builds them in place.
#include <zorcam/metadata/IMetadata.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

#include "ItemTable.h"
#include "Readers.h"

namespace NSCam {

using Storage = IMetadata::Storage;
using ItemTable = Storage::ItemTable;

struct StorageState {
    static constexpr uint32_t kHeadMarker = 0x12345678;
    static constexpr uint32_t kTailMarker = 0x87654321;

    uint32_t headMarker = kHeadMarker;
    ItemTable table;
    // Set once the storage may be visible outside its container; never cleared.
    std::atomic<uint32_t> shared{0};
    // While a burst callback on this storage waits to store another container: a copy of the
    // storage as it is, for a burst of that container waiting in turn (see
    // IMetadata::Core::storageToStore). Read and written with std::atomic_load/atomic_store.
    std::shared_ptr<Storage> offer;
    uint32_t tailMarker = kTailMarker;

    // Made through the reclamation module, whose storages are destroyed only once no reader
    // without the lock can be in them: only such a storage is read without the container's
    // lock. One a caller made (and may destroy at once) is read under the lock.
    bool readableWithoutLock() const { return mReadable; }
    void admitReaders(readers::Made) { mReadable = true; }

    static StorageState& of(Storage& s) {
        return *std::launder(reinterpret_cast<StorageState*>(s.mState));
    }
    static const StorageState& of(const Storage& s) {
        return *std::launder(reinterpret_cast<const StorageState*>(s.mState));
    }
    // Builds the insides in the storage's room, and takes them down.
    static void build(Storage& s) {
        static_assert(sizeof(StorageState) <= Storage::kStateBytes,
                      "a storage's insides must fit the room the interface gives them");
        static_assert(alignof(StorageState) <= alignof(Storage), "nor be aligned more strictly");
        ::new (static_cast<void*>(s.mState)) StorageState();
    }
    static void takeDown(Storage& s) { of(s).~StorageState(); }

private:
    bool mReadable = false;
};

inline ItemTable& tableOf(Storage& s) {
    return StorageState::of(s).table;
}
inline const ItemTable& tableOf(const Storage& s) {
    return StorageState::of(s).table;
}

// A storage for a container of the library's: made through the reclamation module, so that
// readers without the lock may read it.
std::shared_ptr<Storage> newStorage();

}  // namespace NSCam

// A storage made by the DeferredAllocator is destroyed only once no reader can be in it:
// readers may read it.
template <>
struct NSCam::readers::Admission<NSCam::IMetadata::Storage> {
    static void admit(IMetadata::Storage& s, Made made) { StorageState::of(s).admitReaders(made); }
};

// A storage that waits for readers without the lock weighs as four chunks in the thread's
// batch of such waits (what it owns alone is mostly a directory and a chunk or two: the rest
// it shares with the containers it was copied from or to), and more by what it holds: a
// sixteenth per row, one per nested container or blob. A received container of thousands of
// nested ones so goes with the next release, not after fifteen more like it.
template <>
struct NSCam::readers::ExtraWeight<NSCam::IMetadata::Storage> {
    static size_t of(const IMetadata::Storage& storage) {
        const ItemTable& table = tableOf(storage);
        size_t weight = table.size() / 16;
        table.forEachObject([&](const IMetadata::Content* c) {
            weight += static_cast<size_t>(c->mCount);
            return false;
        });
        return weight;
    }
};
