// IMetadata: the container's operations, its lock, sequence count and copy-on-write, bursts
// and merges; the storage's public operations; and every line the container and the storage
// codec report, which carry this file's name in device logs.
#define LOG_TAG "Metadata2"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include <zorcam/metadata/MetadataCheck.h>
#include <zorcam/platform/Properties.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Container.h"
#include "Content.h"
#include "Diagnostics.h"
#include "FlatBytes.h"
#include "Nested.h"
#include "Readers.h"
#include "Storage.h"
#include "StorageCodec.h"

namespace NSCam {

using Content = IMetadata::Content;
using Memory = IMetadata::Memory;

namespace {

using flat::kStorageHeader;
using flat::kStorageMagic;
constexpr uint32_t kNoTag = IMetadata::Core::kNoTag;
constexpr uint32_t kValidBit = 0x80000000u;

}  // namespace

std::shared_ptr<Storage> newStorage() {
    return std::allocate_shared<Storage>(readers::DeferredAllocator<Storage, 4>());
}

std::atomic<int64_t> Storage::mStatNum{0};
std::atomic<int64_t> Storage::mStatSize{0};

std::atomic<uint32_t> IMetadata::mSerialNum{0};
std::atomic<uint32_t> IMetadata::mErrorTypeTag{kNoTag};
int32_t IMetadata::mLogLevel =
    Utils::Properties::property_get_int32("vendor.debug.camera.metadata", 0);

void IMetadata::lowerErrorTypeTag(uint32_t tag) {
    uint32_t seen = mErrorTypeTag.load(std::memory_order_relaxed);
    // Only ever lowered, even when failures race.
    while (tag < seen &&
           !mErrorTypeTag.compare_exchange_weak(seen, tag, std::memory_order_relaxed)) {
    }
}

//----------------------------------------------------------------------------------------
// Storage

Storage::Storage() {
    StorageState::build(*this);
}

Storage::~Storage() {
    StorageState& state = StorageState::of(*this);
    --state.headMarker;
    --state.tailMarker;
    StorageState::takeDown(*this);
}

size_t Storage::size() const {
    return tableOf(*this).size();
}

bool Storage::getTagByIndex(size_t index, uint32_t& tag) const {
    const ItemTable& table = tableOf(*this);
    if (index >= table.size()) {
        META_LOGE("index %zu out of range %d", index, static_cast<int>(table.size()));
        return false;
    }
    tag = table.rowTag(index);
    return true;
}

bool Storage::getContentSPByIndex(size_t index, std::shared_ptr<Content>& content,
                                  uint32_t& tag) const {
    const ItemTable& table = tableOf(*this);
    if (index >= table.size()) {
        META_LOGE("index %zu out of range %d", index, static_cast<int>(table.size()));
        content.reset();
        return false;
    }
    tag = table.rowTag(index);
    content = table.contentSPAt(index);
    return true;
}

//----------------------------------------------------------------------------------------
// What the storage codec refuses (StorageCodec.cpp), reported here, each from a line of its own

void report::recordTooLong(const char* operation, uint32_t tag, size_t need) {
    META_LOGE_AS(operation, "record of tag %x needs %zu bytes, more than a 32-bit length holds",
                 tag, need);
}

void report::brokenLimit(const char* operation, nested::Limit limit) {
    char text[128];
    META_LOGE_AS(operation, "%s", nested::describe(limit, text, sizeof(text)));
}

void report::encodingFailed(uint32_t tag) {
    META_LOGE_AS("flatten", "encoding tag %x fail , size %d", tag, -1);
}

void report::flattenOverflow(const void* at, const void* end) {
    META_LOGE_AS("flatten", "flatten buffer overflow!!!!!! %p %p", at, end);
}

long report::unflattenOverflow(const void* at, const void* end) {
    META_LOGE_AS("unflatten", "unflatten buffer overflow!!!!!! %p %p", at, end);
    return -1;
}

long Storage::flattenSize(const uint32_t* tags, long count) const {
    // The size of the form as it would be written: also of a form that flatten refuses for
    // what a receiver would refuse, so that a caller sizing a buffer gets a size. Only a
    // storage that contains itself has none.
    const size_t total = nested::flattenSize(*this, tags, count);
    if (total != nested::kNoSize) return static_cast<long>(total);
    META_LOGE("storage %p contains itself: it has no flat form", static_cast<const void*>(this));
    return -1;
}

long Storage::flatten(void* buf, size_t size, const uint32_t* tags, long count) const {
    if (buf == nullptr) {
        META_LOGE("flatten nullpointer");
        return -1;
    }
    return codec::flattenBlock(*this, buf, size, tags, count);
}

long Storage::unflatten(const void* buf, size_t size) {
    if (buf == nullptr) {
        META_LOGE("flatten nullpointer");
        return -1;
    }
    const flat::DecodeScope scope;
    flat::Reader r(buf, size);
    if (!r.has(4)) return report::unflattenOverflow(r.at(r.pos + kStorageHeader), r.end());
    const uint32_t magic = r.u32();
    if (magic != kStorageMagic) {
        META_LOGE("unflatten buffer not correct. pattern %x", magic);
        return -1;
    }
    ItemTable& table = tableOf(*this);
    table.clear();
    if (!r.has(4)) return report::unflattenOverflow(r.at(r.pos + 4), r.end());
    const int32_t records = static_cast<int32_t>(r.u32());
    // Counts above what a table can hold are outside the format; each record needs at least
    // its head, so a count the bytes cannot hold is refused before anything is allocated.
    if (records > flat::kMaxRecords ||
        (records > 0 && static_cast<size_t>(records) > r.remaining() / flat::kRecordHead))
        return report::unflattenOverflow(
            r.at(r.pos + static_cast<size_t>(records) * flat::kRecordHead), r.end());
    if (records <= 0) return static_cast<long>(r.pos);
    return codec::decodeBlock(table, r, static_cast<size_t>(records));
}

//----------------------------------------------------------------------------------------
// IMetadata

void IMetadata::Core::reportInvalid(const char* operation, const void* self, uint32_t valid,
                                    uint32_t backup) {
    META_FATAL_FLUSH_AS(operation,
                        "this %p object already be free! mValidNum invalid(%x) "
                        "mValidNumBackup(%x)",
                        self, valid, backup);
}

void IMetadata::Core::assignValidNumber(IMetadata& m) {
    // A plain increment, racy by design: two constructors racing may share a number, and only
    // its non-zero-ness is ever tested. No locked instruction on the way.
    const uint32_t serial = mSerialNum.load(std::memory_order_relaxed) + 1;
    mSerialNum.store(serial, std::memory_order_relaxed);
    m.mValidNumBackup = serial | kValidBit;
    m.mValidNum.store(m.mValidNumBackup, std::memory_order_relaxed);
}

IMetadata::IMetadata() {
    Core::assignValidNumber(*this);
}

IMetadata::IMetadata(const IMetadata& other)
    : mStorage(other.getStorageSP()), mStorageRaw(Core::lockFreeView(mStorage)) {
    if (mStorage) tableOf(*mStorage).publish();
    Core::assignValidNumber(*this);
}

IMetadata::IMetadata(const std::shared_ptr<Storage>& storage)
    : mStorage(storage), mStorageRaw(Core::lockFreeView(mStorage)) {
    if (mStorage) tableOf(*mStorage).publish();
    Core::assignValidNumber(*this);
}

IMetadata::IMetadata(const void* buf, size_t size) {
    std::shared_ptr<Storage> storage = newStorage();
    if (storage->unflatten(buf, size) < 0) {
        META_LOGE("unflatten error %p, size %zu", buf, size);
    } else {
        tableOf(*storage).publish();
        mStorage = std::move(storage);
        mStorageRaw.store(Core::lockFreeView(mStorage), std::memory_order_release);
    }
    Core::assignValidNumber(*this);
}

FlatCheck receiveFlatMetadata(const void* buf, size_t size, IMetadata& out) {
    if (buf == nullptr) return checkFlatMetadata(nullptr, size);
    // What was checked must be what is rebuilt: a sender may still be writing a shared buffer.
    // Forms of usual sizes are copied into a buffer the thread keeps; larger ones into their
    // own, so that one large form does not stay held by the thread.
    constexpr size_t kKept = 64 * 1024;
    thread_local std::vector<uint8_t> kept;
    std::vector<uint8_t> large;
    std::vector<uint8_t>& copy = size <= kKept ? kept : large;
    const auto* bytes = static_cast<const uint8_t*>(buf);
    copy.assign(bytes, bytes + size);
    const FlatCheck check = checkFlatMetadata(copy.data(), size);
    if (check.ok) out.unflatten(copy.data(), size);
    return check;
}

IMetadata::~IMetadata() {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    mStorage.reset();
    --mHeadMarker;
    mValidNum.store(0, std::memory_order_relaxed);  // mValidNumBackup keeps what it was
    --mTailMarker;
}

void IMetadata::Core::installLocked(const IMetadata& m, std::shared_ptr<Storage> storage) {
    if (storage) tableOf(*storage).publish();
    std::shared_ptr<Storage> old = std::exchange(m.mStorage, std::move(storage));
    m.mStorageRaw.store(lockFreeView(m.mStorage), std::memory_order_release);
    old.reset();
}

void IMetadata::Core::makeWritableLocked(const IMetadata& m) {
    // The shared flag alone decides: a storage once handed out is cloned even when this
    // container is its last owner. The rows stay shared; they copy on write themselves.
    const Storage* current = m.mStorage.get();
    if (__builtin_expect(
            current && StorageState::of(*current).shared.load(std::memory_order_relaxed) == 0, 1))
        return;
    std::shared_ptr<Storage> made = newStorage();
    if (current) tableOf(*made) = tableOf(*current);  // shares the directory
    installLocked(m, std::move(made));
}

std::shared_ptr<Storage> IMetadata::getStorageSP() const {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    return Core::shareLocked(*this);
}

std::shared_ptr<Storage> IMetadata::Core::shareLocked(const IMetadata& m) {
    if (m.mStorage) StorageState::of(*m.mStorage).shared.store(1, std::memory_order_relaxed);
    return m.mStorage;
}

bool IMetadata::isEmpty() const {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    if (!mStorage) return true;
    StorageState::of(*mStorage).shared.store(1, std::memory_order_relaxed);
    return tableOf(*mStorage).size() == 0;
}

uint32_t IMetadata::count() const {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    if (!mStorage) return 0;
    StorageState::of(*mStorage).shared.store(1, std::memory_order_relaxed);
    return static_cast<uint32_t>(tableOf(*mStorage).size());
}

uint32_t IMetadata::Core::lockedRowCount(const IMetadata& m) {
    const MutexLock guard(m.mLock);
    return m.mStorage ? static_cast<uint32_t>(tableOf(*m.mStorage).size()) : 0;
}

void IMetadata::clear() {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    const Writing writing(mSequence);
    Core::installLocked(*this, nullptr);
}

int IMetadata::remove(uint32_t tag) {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    const Writing writing(mSequence);
    Core::makeWritableLocked(*this);
    return tableOf(*mStorage).remove(tag) ? 0 : -1;
}

int IMetadata::sort() {
    return 0;
}

namespace {
// Basic values up to this size are copied out of an entry being filed, rather than shared.
constexpr size_t kCopiedFromEntry = 256;
}  // namespace

int IMetadata::update(uint32_t tag, const IEntry& entry) {
    // The entry is read once, under its own lock, before the container's is taken (the two
    // are never held together). Its tag and values must come from that one look: read
    // separately, an assignment to the entry in between would file one entry's values under
    // another's tag.
    uint32_t entryTag = kNoTag;
    alignas(8) uint8_t buffer[kCopiedFromEntry];
    RowValue value = Core::toFile(entry, entryTag, true, buffer, sizeof(buffer));
    if (entryTag != kNoTag && entryTag != tag)
        META_LOGE_CALLSTACK("tag mismatch update tag=%x but entry.tag=%x", tag, entryTag);
    return Core::update(*this, tag, std::move(value));
}

int IMetadata::update(const IEntry& entry) {
    // Tag and values are taken in one look at the entry, as above; an entry refused for its
    // tag is left exactly as it was (its values are not marked shared).
    uint32_t tag = kNoTag;
    alignas(8) uint8_t buffer[kCopiedFromEntry];
    RowValue value = Core::toFile(entry, tag, false, buffer, sizeof(buffer));
    if (tag == kNoTag) {
        META_LOGE_TRACE("entry without valid tag value");
        return -1;
    }
    return Core::update(*this, tag, std::move(value));
}

int IMetadata::Core::update(IMetadata& m, uint32_t tag, RowValue&& value) {
    const MutexLock guard(m.mLock);
    checkValid(m, __func__);
    const Writing writing(m.mSequence);
    makeWritableLocked(m);
    if (!tableOf(*m.mStorage).put(tag, std::move(value))) {
        META_LOGE("table full (%zu rows), tag %x not stored", ItemTable::kMaxRows, tag);
        return -1;
    }
    return 0;
}

IEntry IMetadata::entryFor(uint32_t tag, int take) const {
    Core::checkValid(*this, __func__);  // before locking, unlike every other operation
    std::shared_ptr<Content> content;
    {
        const MutexLock guard(mLock);
        if (!mStorage) return IEntry(kNoTag);
        if (take) {
            const Writing writing(mSequence);
            Core::makeWritableLocked(*this);
            ItemTable& table = tableOf(*mStorage);
            const uint16_t row = table.rowOf(tag);
            if (row == ItemTable::kNoRow) return IEntry(kNoTag);
            content = table.contentSPAt(row);
            table.remove(tag);
        } else {
            const ItemTable& table = tableOf(*mStorage);
            const uint16_t row = table.rowOf(tag);
            if (row == ItemTable::kNoRow) return IEntry(kNoTag);
            content = table.contentSPAt(row);
        }
    }
    return IEntry(tag, std::move(content));
}

IEntry IMetadata::takeEntryFor(uint32_t tag) {
    return entryFor(tag, 1);
}

IEntry IMetadata::entryAt(uint32_t index) const {
    std::shared_ptr<Content> content;
    uint32_t tag = kNoTag;
    {
        const MutexLock guard(mLock);
        Core::checkValid(*this, __func__);
        if (!mStorage || !mStorage->getContentSPByIndex(index, content, tag)) return IEntry(kNoTag);
    }
    return IEntry(tag, std::move(content));
}

namespace {

// The container whose burst callback runs on this thread (its lock held), if any.
thread_local const IMetadata* tBurst = nullptr;
struct InBurst {
    const IMetadata* const outer;
    explicit InBurst(const IMetadata* m) : outer(std::exchange(tBurst, m)) {}
    ~InBurst() { tBurst = outer; }
};

}  // namespace

int IMetadata::burstRead(const std::function<int(const BurstEntry&)>& fn) const {
    const MutexLock guard(mLock);
    if (!mStorage) return -1;
    StorageState::of(*mStorage).shared.store(1, std::memory_order_relaxed);
    const InBurst burst(this);
    return fn(*mStorage);
}

void IMetadata::burstWrite(const std::function<void(BurstEntry&)>& fn) {
    const MutexLock guard(mLock);
    const Writing writing(mSequence);
    Core::makeWritableLocked(*this);
    const InBurst burst(this);
    fn(*mStorage);
}

std::shared_ptr<Storage> nested::storageToStore(const IMetadata& m) {
    return IMetadata::Core::storageToStore(m);
}

std::shared_ptr<Storage> IMetadata::Core::storageToStore(const IMetadata& m) {
    const IMetadata* burst = tBurst;
    if (burst == nullptr || burst == &m) return m.getStorageSP();
    burst->mLock.assertHeld();  // its burst callback runs on this thread, under its lock
    // This thread runs a burst callback of another container and holds its lock: waiting for
    // this container's lock while its holder, in a burst of its own, waits for ours would
    // never end. So the lock is only tried; while it is busy, a holder that waits in turn
    // offers a copy of its storage as it is (see offerLocked), and this thread offers one of
    // its own container's. Two bursts that store each other's containers each take the other's
    // offer and go on.
    std::shared_ptr<Storage> taken;
    bool offered = false;
    for (;;) {
        if (m.mLock.try_lock()) {
            const MutexLock guard(m.mLock, std::adopt_lock);
            checkValid(m, "getStorageSP");
            taken = shareLocked(m);
            break;
        }
        {
            // The storage stays allocated while the section lasts.
            const readers::Section section;
            const Storage* s = m.mStorageRaw.load(std::memory_order_acquire);
            if (s != nullptr) taken = std::atomic_load(&StorageState::of(*s).offer);
            if (taken) break;
        }
        if (!offered) {
            offerLocked(*burst);
            offered = true;
        }
        std::this_thread::yield();
    }
    if (offered) withdrawOfferLocked(*burst);
    return taken;
}

void IMetadata::Core::offerLocked(const IMetadata& m) {
    if (!m.mStorage) return;
    // A copy that shares the table: what the burst writes after the wait goes to chunks of its
    // own, not into the copy.
    std::shared_ptr<Storage> copy = newStorage();
    tableOf(*copy) = tableOf(*m.mStorage);
    tableOf(*copy).publish();
    StorageState::of(*copy).shared.store(1, std::memory_order_relaxed);
    std::atomic_store(&StorageState::of(*m.mStorage).offer, std::move(copy));
}

void IMetadata::Core::withdrawOfferLocked(const IMetadata& m) {
    if (m.mStorage)
        std::atomic_store(&StorageState::of(*m.mStorage).offer, std::shared_ptr<Storage>());
}

long IMetadata::flattenSize(const uint32_t* tags, long count) const {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    if (!mStorage) {
        const Writing writing(mSequence);
        Core::installLocked(*this, newStorage());
    }
    StorageState::of(*mStorage).shared.store(1, std::memory_order_relaxed);
    return mStorage->flattenSize(tags, count);
}

long IMetadata::flatten(void* buf, size_t size, const uint32_t* tags, long count) const {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    if (!mStorage) {
        const Writing writing(mSequence);
        Core::installLocked(*this, newStorage());
    }
    StorageState::of(*mStorage).shared.store(1, std::memory_order_relaxed);
    return mStorage->flatten(buf, size, tags, count);
}

long IMetadata::unflatten(void* buf, size_t size) {
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    const Writing writing(mSequence);
    // The old values go before the buffer is looked at; containers sharing them keep them.
    Core::installLocked(*this, newStorage());
    return mStorage->unflatten(buf, size);
}

IMetadata& IMetadata::operator=(const IMetadata& other) {
    if (this == &other) return *this;
    if (Core::validNum(*this) == 0 || Core::validNum(other) == 0)
        META_FATAL(
            "this(%p) or other(%p) already be free! mValidNum invalid(%x) "
            "mValidNumBackup(%x) other.mValidNum(%x) other.mValidNumBackup(%x)",
            static_cast<void*>(this), static_cast<const void*>(&other), Core::validNum(*this),
            mValidNumBackup, Core::validNum(other), other.mValidNumBackup);
    // The source's storage is taken before this container is locked, so two threads
    // assigning two containers to each other cannot deadlock.
    std::shared_ptr<Storage> storage = other.getStorageSP();
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    const Writing writing(mSequence);
    Core::installLocked(*this, std::move(storage));
    return *this;
}

IMetadata& IMetadata::operator+=(const IMetadata& other) {
    if (this == &other) return *this;
    const std::shared_ptr<Storage> source = other.getStorageSP();
    if (!source) return *this;
    const MutexLock guard(mLock);
    Core::checkValid(*this, __func__);
    const Writing writing(mSequence);
    if (!mStorage) {
        Core::installLocked(*this, source);  // nothing to merge into: share the other's
        return *this;
    }
    Core::makeWritableLocked(*this);
    // Tags in both keep this container's row and take the other's values; new tags follow
    // in the other's row order. Values are shared, not copied.
    tableOf(*mStorage).merge(tableOf(*source), [](uint32_t tag) {
        META_LOGE_AS("operator+=", "table full (%zu rows), tag %x not merged", ItemTable::kMaxRows,
                     tag);
    });
    return *this;
}

IMetadata IMetadata::operator+(const IMetadata& other) const {
    IMetadata sum(*this);
    sum += other;
    return IMetadata(sum);
}

}  // namespace NSCam
