#define LOG_TAG "Metadata2"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include <zorcam/platform/Properties.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <type_traits>

#include "BoundedText.h"
#include "Content.h"
#include "Diagnostics.h"
#include "FlatBytes.h"
#include "ItemTable.h"
#include "Nested.h"

namespace NSCam {

using Storage = IMetadata::Storage;
using ItemTable = Storage::ItemTable;
using Content = IMetadata::Content;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;

namespace {

using flat::kRecordHead;
using flat::kStorageHeader;
using flat::kStorageMagic;
constexpr uint32_t kNoTag = 0xFFFFFFFFu;
constexpr uint32_t kValidBit = 0x80000000u;

}  // namespace

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

Storage::Storage() : mHeadMarker(kHeadMarker), mShared(0), mTailMarker(kTailMarker) {}

Storage::~Storage() {
    --mHeadMarker;
    --mTailMarker;
}

bool Storage::getTagByIndex(size_t index, uint32_t& tag) const {
    if (index >= mItemTable.size()) {
        META_LOGE("index %zu out of range %d", index, static_cast<int>(mItemTable.size()));
        return false;
    }
    tag = mItemTable.at(index).tag;
    return true;
}

bool Storage::getContentSPByIndex(size_t index, std::shared_ptr<Content>& content,
                                  uint32_t& tag) const {
    if (index >= mItemTable.size()) {
        META_LOGE("index %zu out of range %d", index, static_cast<int>(mItemTable.size()));
        content.reset();
        return false;
    }
    const Storage::Item& item = mItemTable.at(index);
    tag = item.tag;
    content = item.content;
    return true;
}

namespace {

// The rows a flatten writes: all of them in row order, or the listed tags in list order
// (absent tags skipped, repeated tags repeated).
template <typename Fn>
void forEachSelected(const ItemTable& table, const uint32_t* tags, long count, Fn&& fn) {
    if (tags == nullptr) {
        for (const auto& item : table.items()) fn(item);
        return;
    }
    const uint32_t n = static_cast<uint32_t>(count);
    for (uint32_t i = 0; i < n; ++i) {
        const uint16_t row = table.getIndexByTag(tags[i]);
        if (row != ItemTable::kNoRow) fn(table.at(row));
    }
}

}  // namespace

size_t nested::flattenSize(const Storage& s, const uint32_t* tags, long count) {
    size_t total = kStorageHeader;
    forEachSelected(s.mItemTable, tags, count, [&total](const Storage::Item& item) {
        total += kRecordHead + (item.content ? item.content->flattenSize() : 0);
    });
    return total;
}

nested::Limit nested::brokenLimit(const Storage* root, const Content* lone, const uint32_t* tags,
                                  long count) {
    struct Open {
        const Storage* storage;
        int depth;
    };
    std::vector<Open> open;
    size_t containers = 0;
    // A content holding containers opens each of them one level deeper; the receiver refuses
    // such a content once kMaxNestingDepth containers enclose it, and counts every non-empty
    // slot (an empty one is written as length 0 and costs it nothing).
    auto visit = [&](const Content* c, int depth) {
        if (c == nullptr || c->mType != TYPE_IMetadata || c->mCount == 0 || !c->mMetaSP)
            return Limit::kNone;
        if (depth >= flat::kMaxNestingDepth) return Limit::kDepth;
        for (const auto& storage : *c->mMetaSP) {
            if (!storage) continue;
            if (++containers > flat::kMaxNestedContainers) return Limit::kContainers;
            open.push_back(Open{storage.get(), depth + 1});
        }
        return Limit::kNone;
    };
    Limit broken = Limit::kNone;
    if (root == nullptr) {
        broken = visit(lone, 0);
    } else {
        size_t records = 0;
        forEachSelected(root->mItemTable, tags, count, [&](const Storage::Item& item) {
            ++records;
            if (broken == Limit::kNone) broken = visit(item.content.get(), 0);
        });
        if (records > static_cast<size_t>(flat::kMaxRecords)) return Limit::kRecords;
    }
    while (broken == Limit::kNone && !open.empty()) {
        const Open next = open.back();
        open.pop_back();
        for (const Storage::Item& item : next.storage->mItemTable.items()) {
            broken = visit(item.content.get(), next.depth);
            if (broken != Limit::kNone) break;
        }
    }
    return broken;
}

namespace {

// Reports, under the name of the operation that refuses it, a form the receiver would refuse;
// true when there is none.
bool sendable(const char* operation, const Storage* root, const Content* lone, const uint32_t* tags,
              long count) {
    switch (nested::brokenLimit(root, lone, tags, count)) {
        case nested::Limit::kNone:
            return true;
        case nested::Limit::kRecords:
            META_LOGE_AS(operation, "more than %d records: a receiver would refuse the form",
                         flat::kMaxRecords);
            return false;
        case nested::Limit::kDepth:
            META_LOGE_AS(operation,
                         "containers nested deeper than %d levels: a receiver would refuse the "
                         "form",
                         flat::kMaxNestingDepth);
            return false;
        case nested::Limit::kContainers:
            META_LOGE_AS(operation,
                         "more than %zu nested containers: a receiver would refuse the form",
                         flat::kMaxNestedContainers);
            return false;
    }
    return false;
}

}  // namespace

long Storage::flattenSize(const uint32_t* tags, long count) const {
    const flat::EncodeScope scope;
    if (scope.outermost && !sendable("flattenSize", this, nullptr, tags, count)) return -1;
    return static_cast<long>(nested::flattenSize(*this, tags, count));
}

long Storage::flatten(void* buf, size_t size, const uint32_t* tags, long count) const {
    if (buf == nullptr) {
        META_LOGE("flatten nullpointer");
        return -1;
    }
    const flat::EncodeScope scope;
    if (scope.outermost && !sendable("flatten", this, nullptr, tags, count)) return -1;
    flat::Writer w(buf, size);
    return nested::flatten(*this, w, tags, count);
}

long nested::flatten(const Storage& s, flat::Writer& w, const uint32_t* tags, long count) {
    w.putU32(kStorageMagic);
    w.pos = kStorageHeader;
    uint32_t records = 0;
    uint32_t failedTag = 0;
    bool failed = false;
    forEachSelected(s.mItemTable, tags, count, [&](const Storage::Item& item) {
        if (failed) return;
        const size_t head = w.pos;
        w.putU32At(head, item.tag);
        w.pos = head + kRecordHead;
        long length = 0;
        if (item.content) {
            // A record's length field holds 32 bits: a longer record is refused before any
            // of it is written, never cut to its low bits.
            const size_t need = item.content->flattenSize();
            if (need > UINT32_MAX) {
                META_LOGE_AS("flatten",
                             "record of tag %x needs %zu bytes, more than a 32-bit length holds",
                             item.tag, need);
                failed = true;
                failedTag = item.tag;
                return;
            }
            // Only the content writer is given the remaining capacity; the heads are
            // written first and the whole block judged once at the end.
            flat::Writer body = w.sub(w.pos);
            length = item.content->flatten(body);
            if (length < 0) {
                failed = true;
                failedTag = item.tag;
                return;
            }
        }
        w.putU32At(head + 4, static_cast<uint32_t>(length));
        w.pos += static_cast<size_t>(length);
        ++records;
    });
    if (failed) {
        META_LOGE("encoding tag %x fail , size %d", failedTag, -1);
        return -1;
    }
    w.putU32At(4, records);
    if (w.overflowed()) {
        META_LOGE("flatten buffer overflow!!!!!! %p %p", w.at(w.pos), w.at(w.capacity));
        return -1;
    }
    return static_cast<long>(w.pos);
}

long Storage::unflatten(const void* buf, size_t size) {
    if (buf == nullptr) {
        META_LOGE("flatten nullpointer");
        return -1;
    }
    const flat::DecodeScope scope;
    flat::Reader r(buf, size);
#define UNFLATTEN_OVERFLOW(needed) \
    (META_LOGE("unflatten buffer overflow!!!!!! %p %p", r.at(r.pos + (needed)), r.end()), -1L)
    if (!r.has(4)) return UNFLATTEN_OVERFLOW(kStorageHeader);
    const uint32_t magic = r.u32();
    if (magic != kStorageMagic) {
        META_LOGE("unflatten buffer not correct. pattern %x", magic);
        return -1;
    }
    mItemTable.clear();
    if (!r.has(4)) return UNFLATTEN_OVERFLOW(4);
    const int32_t records = static_cast<int32_t>(r.u32());
    // Counts above what a table can hold are outside the format; each record needs at least
    // its head, so a count the bytes cannot hold is refused before reading on.
    if (records > static_cast<int32_t>(ItemTable::kMaxRows) ||
        (records > 0 && static_cast<size_t>(records) > r.remaining() / kRecordHead))
        return UNFLATTEN_OVERFLOW(static_cast<size_t>(records) * kRecordHead);
    for (int16_t k = 0; k < records; ++k) {
        if (!r.has(kRecordHead)) return UNFLATTEN_OVERFLOW(kRecordHead);
        const uint32_t tag = r.u32();
        const uint32_t length = r.u32();
        if (length == 0) {
            mItemTable.update(tag, nullptr);
            continue;
        }
        if (!r.has(length)) return UNFLATTEN_OVERFLOW(length);
        int err = 0;
        auto content = std::make_shared<Content>(r.here(), length, err);
        // The row goes in first; a failed record still leaves the rows read so far.
        mItemTable.update(tag, content);
        if (err != 0) return -1;
        r.pos += length;
    }
#undef UNFLATTEN_OVERFLOW
    return static_cast<long>(r.pos);
}

//----------------------------------------------------------------------------------------
// Storage typed families: one body each.

namespace {

template <typename T>
T readValue(const std::shared_ptr<Content>& content, uint32_t index) {
    if (!content) return T();
    const int at = static_cast<int>(index);
    if constexpr (std::is_same<T, Memory>::value) {
        auto bytes = content->getMemory(at, TYPE_Memory);
        return bytes ? Memory(bytes) : Memory();
    } else if constexpr (std::is_same<T, IMetadata>::value) {
        auto storage = content->getMetadata(at, TYPE_IMetadata);
        return storage ? IMetadata(storage) : IMetadata();
    } else {
        const void* p = content->getBasicData(at, TypeCode<T>::value);
        T value{};
        if (p) std::memcpy(static_cast<void*>(&value), p, sizeof(T));
        return value;
    }
}

}  // namespace

template <typename T>
int Storage::readEntry(uint32_t tag, T& value, uint32_t index) const {
    const uint16_t row = mItemTable.getIndexByTag(tag);
    if (row == ItemTable::kNoRow) return -1;
    const std::shared_ptr<Content> content = mItemTable.at(row).content;
    value = readValue<T>(content, index);
    return 0;
}

template <typename T>
T Storage::read(uint32_t index, Type2Type<T>, std::shared_ptr<Content>& content) const {
    return readValue<T>(content, index);
}

template <typename T>
int Storage::readEntries(uint32_t tag, std::vector<T>& values) const {
    const uint16_t row = mItemTable.getIndexByTag(tag);
    if (row == ItemTable::kNoRow) return -1;
    const std::shared_ptr<Content> content = mItemTable.at(row).content;
    if (!content) return 0;
    const uint32_t count = static_cast<uint32_t>(content->mCount);
    values.resize(count);
    for (uint32_t i = 0; i < count; ++i) values.at(i) = readValue<T>(content, i);
    return 0;
}

template <typename T>
void Storage::writeEntry(uint32_t tag, const T& value, uint32_t index) {
    auto content = std::make_shared<Content>();
    content->update(static_cast<int>(index), &value, 1, TypeCode<T>::value);
    mItemTable.update(tag, content);
    content->markReadOnly();
}

template <typename T, typename U>
std::shared_ptr<Content> Storage::write(const T& value, Type2Type<U>, uint32_t index) {
    static_assert(std::is_same<T, U>::value, "values are stored as they are");
    auto content = std::make_shared<Content>();
    content->update(static_cast<int>(index), &value, 1, TypeCode<U>::value);
    return content;
}

template <typename T, typename U>
std::shared_ptr<Content> Storage::write(const T* values, size_t count, Type2Type<U>,
                                        uint32_t index) {
    static_assert(std::is_same<T, U>::value, "values are stored as they are");
    auto content = std::make_shared<Content>();
    content->update(static_cast<int>(index), values, count, TypeCode<U>::value);
    return content;
}

template <typename T>
void Storage::writeEntries(uint32_t tag, const T* values, size_t count, uint32_t index) {
    if (count == 0) {
        mItemTable.update(tag, nullptr);
        return;
    }
    auto content = std::make_shared<Content>();
    content->update(static_cast<int>(index), values, count, TypeCode<T>::value);
    content->markReadOnly();
    mItemTable.update(tag, content);
}

#define ZORCAM_STORAGE_FAMILIES(T)                                                            \
    template int Storage::readEntry<T>(uint32_t, T&, uint32_t) const;                         \
    template T Storage::read<T>(uint32_t, Type2Type<T>, std::shared_ptr<Content>&) const;     \
    template int Storage::readEntries<T>(uint32_t, std::vector<T>&) const;                    \
    template void Storage::writeEntry<T>(uint32_t, const T&, uint32_t);                       \
    template std::shared_ptr<Content> Storage::write<T, T>(const T&, Type2Type<T>, uint32_t); \
    template std::shared_ptr<Content> Storage::write<T, T>(const T*, size_t, Type2Type<T>,    \
                                                           uint32_t);                         \
    template void Storage::writeEntries<T>(uint32_t, const T*, size_t, uint32_t);
ZORCAM_FOR_EACH_VALUE_TYPE(ZORCAM_STORAGE_FAMILIES)
#undef ZORCAM_STORAGE_FAMILIES

//----------------------------------------------------------------------------------------
// IMetadata

// A destroyed container is never used again; every checked operation ends the process when
// it meets one, naming itself.
#define CHECK_VALID()                                                         \
    do {                                                                      \
        if (__builtin_expect(validNum() == 0, 0))                             \
            META_FATAL_FLUSH(                                                 \
                "this %p object already be free! mValidNum invalid(%x) "      \
                "mValidNumBackup(%x)",                                        \
                static_cast<const void*>(this), validNum(), mValidNumBackup); \
    } while (0)

void IMetadata::assignValidNumber() {
    // A plain increment, racy by design: two constructors racing may share a number, and only
    // its non-zero-ness is ever tested. No locked instruction on the way.
    const uint32_t serial = mSerialNum.load(std::memory_order_relaxed) + 1;
    mSerialNum.store(serial, std::memory_order_relaxed);
    mValidNumBackup = serial | kValidBit;
    mValidNum.store(mValidNumBackup, std::memory_order_relaxed);
}

IMetadata::IMetadata()
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    assignValidNumber();
}

IMetadata::IMetadata(const IMetadata& other)
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mStorage(other.getStorageSP()),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    assignValidNumber();
}

IMetadata::IMetadata(const std::shared_ptr<Storage>& storage)
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mStorage(storage),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    assignValidNumber();
}

IMetadata::IMetadata(const void* buf, size_t size)
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    auto storage = std::make_shared<Storage>();
    if (storage->unflatten(buf, size) < 0)
        META_LOGE("unflatten error %p, size %zu", buf, size);
    else
        mStorage = std::move(storage);
    assignValidNumber();
}

IMetadata::~IMetadata() {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    mStorage.reset();
    --mHeadMarker;
    mValidNum.store(0, std::memory_order_relaxed);  // mValidNumBackup keeps what it was
    --mTailMarker;
}

void IMetadata::makeWritableLocked() const {
    if (!mStorage) {
        mStorage = std::make_shared<Storage>();
        return;
    }
    // The shared flag alone decides: a storage once handed out is cloned even when this
    // container is its last owner. The values stay shared; they copy on write themselves.
    if (mStorage->mShared.load(std::memory_order_relaxed) == 0) return;
    auto clone = std::make_shared<Storage>();
    clone->mItemTable = mStorage->mItemTable;
    mStorage = std::move(clone);
}

std::shared_ptr<Storage> IMetadata::getStorageSP() const {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (mStorage) mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage;
}

bool IMetadata::isEmpty() const {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (!mStorage) return true;
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage->mItemTable.size() == 0;
}

uint32_t IMetadata::count() const {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (!mStorage) return 0;
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return static_cast<uint32_t>(mStorage->mItemTable.size());
}

uint32_t IMetadata::lockedRowCount() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mStorage ? static_cast<uint32_t>(mStorage->mItemTable.size()) : 0;
}

void IMetadata::clear() {
    std::shared_ptr<Storage> old;
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    old.swap(mStorage);
}

int IMetadata::remove(uint32_t tag) {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    makeWritableLocked();
    return mStorage->mItemTable.remove(tag) ? 0 : -1;
}

int IMetadata::sort() {
    return 0;
}

int IMetadata::update(uint32_t tag, const IEntry& entry) {
    // The entry is read once, under its own lock, before the container's is taken (the two
    // are never held together). Its tag and values must come from that one look: read
    // separately, an assignment to the entry in between would file one entry's values
    // under another's tag.
    const IEntry snapshot(entry);
    const uint32_t entryTag = snapshot.tag();
    if (entryTag != kNoTag && entryTag != tag)
        META_LOGE_CALLSTACK("tag mismatch update tag=%x but entry.tag=%x", tag, entryTag);
    return update(tag, snapshot.getContentSP());
}

int IMetadata::update(const IEntry& entry) {
    // Tag and values are taken from one copy of the entry, as above; an entry refused for
    // its tag is left exactly as it was (no copy marks its values shared).
    uint32_t tag = entry.tag();
    std::optional<IEntry> snapshot;
    if (tag != kNoTag) {
        snapshot.emplace(entry);
        tag = snapshot->tag();
    }
    if (tag == kNoTag) {
        META_LOGE_TRACE("entry without valid tag value");
        return -1;
    }
    return update(tag, snapshot->getContentSP());
}

int IMetadata::update(uint32_t tag, const std::shared_ptr<Content>& content) {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    makeWritableLocked();
    if (!mStorage->mItemTable.update(tag, content)) {
        META_LOGE("table full (%zu rows), tag %x not stored", ItemTable::kMaxRows, tag);
        return -1;
    }
    return 0;
}

IEntry IMetadata::entryFor(uint32_t tag, int take) const {
    CHECK_VALID();  // before locking, unlike every other operation
    std::lock_guard<std::mutex> guard(mLock);
    if (mStorage) {
        if (take) makeWritableLocked();
        ItemTable& table = mStorage->mItemTable;
        const uint16_t row = table.getIndexByTag(tag);
        if (row != ItemTable::kNoRow) {
            std::shared_ptr<Content> content = table.at(row).content;
            if (take) table.remove(tag);
            return IEntry(tag, std::move(content));
        }
    }
    return IEntry(kNoTag);
}

IEntry IMetadata::takeEntryFor(uint32_t tag) {
    return entryFor(tag, 1);
}

IEntry IMetadata::entryAt(uint32_t index) const {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (mStorage) {
        std::shared_ptr<Content> content;
        uint32_t tag = kNoTag;
        if (mStorage->getContentSPByIndex(index, content, tag))
            return IEntry(tag, std::move(content));
    }
    return IEntry(kNoTag);
}

int IMetadata::burstRead(const std::function<int(const BurstEntry&)>& fn) const {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mStorage) return -1;
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return fn(*mStorage);
}

void IMetadata::burstWrite(const std::function<void(BurstEntry&)>& fn) {
    std::lock_guard<std::mutex> guard(mLock);
    makeWritableLocked();
    fn(*mStorage);
}

long IMetadata::flattenSize(const uint32_t* tags, long count) const {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (!mStorage) mStorage = std::make_shared<Storage>();
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage->flattenSize(tags, count);
}

long IMetadata::flatten(void* buf, size_t size, const uint32_t* tags, long count) const {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (!mStorage) mStorage = std::make_shared<Storage>();
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage->flatten(buf, size, tags, count);
}

long IMetadata::unflatten(void* buf, size_t size) {
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    // The old values go before the buffer is looked at; containers sharing them keep them.
    mStorage = std::make_shared<Storage>();
    return mStorage->unflatten(buf, size);
}

IMetadata& IMetadata::operator=(const IMetadata& other) {
    if (this == &other) return *this;
    if (validNum() == 0 || other.validNum() == 0)
        META_FATAL(
            "this(%p) or other(%p) already be free! mValidNum invalid(%x) "
            "mValidNumBackup(%x) other.mValidNum(%x) other.mValidNumBackup(%x)",
            static_cast<void*>(this), static_cast<const void*>(&other), validNum(), mValidNumBackup,
            other.validNum(), other.mValidNumBackup);
    // The source's storage is taken before this container is locked, so two threads
    // assigning two containers to each other cannot deadlock.
    std::shared_ptr<Storage> storage = other.getStorageSP();
    {
        std::lock_guard<std::mutex> guard(mLock);
        CHECK_VALID();
        mStorage.swap(storage);
    }
    return *this;  // the previous storage is released here, outside the lock
}

IMetadata& IMetadata::operator+=(const IMetadata& other) {
    if (this == &other) return *this;
    const std::shared_ptr<Storage> source = other.getStorageSP();
    if (!source) return *this;
    std::lock_guard<std::mutex> guard(mLock);
    CHECK_VALID();
    if (!mStorage) {
        mStorage = source;  // nothing to merge into: share the other's
        return *this;
    }
    makeWritableLocked();
    // Tags in both keep this container's row and take the other's values; new tags follow
    // in the other's row order. Values are shared, not copied.
    ItemTable& table = mStorage->mItemTable;
    for (const auto& item : source->mItemTable.items()) {
        if (!table.update(item))
            META_LOGE("table full (%zu rows), tag %x not merged", ItemTable::kMaxRows, item.tag);
    }
    return *this;
}

IMetadata IMetadata::operator+(const IMetadata& other) const {
    IMetadata sum(*this);
    sum += other;
    return IMetadata(sum);
}

//----------------------------------------------------------------------------------------
// Dump

namespace {

// A dump line holds at most 511 characters; what does not fit is cut at the end, never
// wrapped onto a further line.
constexpr size_t kDumpLineSize = 512;

// Containers the dump of this thread is inside of (the top one not counted).
thread_local int tDumpDepth = 0;
struct DumpLevel {
    DumpLevel() { ++tDumpDepth; }
    ~DumpLevel() { --tDumpDepth; }
};

template <typename T>
T itemOf(const IEntry& entry, uint32_t i) {
    return entry.itemAt(i, Type2Type<T>());
}

}  // namespace

void IMetadata::dump(int layer, bool force) const {
    if (mLogLevel == 0 && !force) return;
    META_LOGD("layer %d", layer);
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mStorage) {
            META_LOGD("IMetadata::dump mStorage == nullptr");
            return;
        }
    }
    META_LOGD("mStorage count %d", static_cast<int>(lockedRowCount()));
    // The row count is re-read before each row and no lock is held across rows.
    for (size_t i = 0; i < lockedRowCount(); ++i) {
        const IEntry entry = entryAt(static_cast<uint32_t>(i));
        const int32_t type = entry.type();
        const uint32_t count = entry.count();
        char text[kDumpLineSize];
        BoundedText line(text, sizeof(text));
        if (line.appendf("[%s] Map(%zu/%zu) tag(0x%x) type(%d) count(%d) ", "dump", i,
                         static_cast<size_t>(lockedRowCount()), entry.tag(), type,
                         static_cast<int>(count)) < 0)
            continue;
        switch (type) {
            case TYPE_UINT8:
                for (uint32_t j = 0; j < count; ++j)
                    line.appendf("%d ", itemOf<unsigned char>(entry, j));
                break;
            case TYPE_INT32:
                for (uint32_t j = 0; j < count; ++j) line.appendf("%d ", itemOf<int>(entry, j));
                break;
            case TYPE_FLOAT:
                for (uint32_t j = 0; j < count; ++j)
                    line.appendf("%f ", static_cast<double>(itemOf<float>(entry, j)));
                break;
            case TYPE_INT64:
                for (uint32_t j = 0; j < count; ++j) line.appendf("%ld ", itemOf<long>(entry, j));
                break;
            case TYPE_DOUBLE:
                for (uint32_t j = 0; j < count; ++j) line.appendf("%lf ", itemOf<double>(entry, j));
                break;
            case TYPE_MRational:
                for (uint32_t j = 0; j < count; ++j) {
                    const MRational v = itemOf<MRational>(entry, j);
                    line.appendf("rational(%d,%d) ", v.numerator, v.denominator);
                }
                break;
            case TYPE_MPoint:
                for (uint32_t j = 0; j < count; ++j) {
                    const MPoint v = itemOf<MPoint>(entry, j);
                    line.appendf("point(%d,%d) ", v.x, v.y);
                }
                break;
            case TYPE_MSize:
                for (uint32_t j = 0; j < count; ++j) {
                    const MSize v = itemOf<MSize>(entry, j);
                    line.appendf("size(%d,%d) ", v.w, v.h);
                }
                break;
            case TYPE_MRect:
                for (uint32_t j = 0; j < count; ++j) {
                    const MRect v = itemOf<MRect>(entry, j);
                    line.appendf("rect(%d,%d,%d,%d) ", v.p.x, v.p.y, v.s.w, v.s.h);
                }
                break;
            case TYPE_IMetadata:
                // Each nested container is dumped one layer deeper after the line so far, as
                // deep as a receiver would take them; a deeper one is said once, not dumped.
                for (uint32_t j = 0; j < count; ++j) {
                    const IMetadata nested = itemOf<IMetadata>(entry, j);
                    if (line.appendf("metadata.. ") < 0) continue;
                    META_LOGD("(L%d) %s", layer, line.c_str());
                    if (tDumpDepth >= flat::kMaxNestingDepth) {
                        META_LOGD("(L%d) containers nested deeper than %d levels: not dumped",
                                  layer + 1, flat::kMaxNestingDepth);
                        continue;
                    }
                    const DumpLevel deeper;
                    nested.dump(layer + 1, force);
                }
                break;
            case TYPE_Memory:
                for (uint32_t j = 0; j < count; ++j) {
                    const Memory m = itemOf<Memory>(entry, j);
                    size_t size = 0;
                    const uint8_t* bytes = m.array(size);
                    if (bytes == nullptr || size == 0) continue;
                    line.appendf("memory[%d] size %d:", static_cast<int>(j),
                                 static_cast<int>(size));
                    // A blob shows its first 64 bytes only: one line per entry, never wrapped.
                    for (size_t b = 0; b < std::min<size_t>(size, 64); ++b)
                        line.appendf("%02X ", bytes[b]);
                }
                break;
            default:
                line.appendf("unsupported type(%d)", type);
                break;
        }
        META_LOGD("(L%d) %s", layer, line.c_str());
    }
}

//----------------------------------------------------------------------------------------
// One-call typed access

template <typename T>
int IMetadata::setEntry(IMetadata* metadata, uint32_t tag, const T& value) {
    if (metadata == nullptr) return -1;
    IEntry entry(tag);
    entry.push_back(value, Type2Type<T>());
    metadata->update(tag, entry);  // a caller who must know reads the entry back
    return 0;
}

template <typename T>
bool IMetadata::getEntry(const IMetadata* metadata, uint32_t tag, T& value, size_t index) {
    if (metadata == nullptr) return false;
    const IEntry entry = metadata->entryFor(tag, 0);
    if (static_cast<size_t>(entry.count()) <= index) return false;
    value = entry.itemAt(static_cast<uint32_t>(index), Type2Type<T>());
    return true;
}

#define ZORCAM_METADATA_FAMILIES(T)                                      \
    template int IMetadata::setEntry<T>(IMetadata*, uint32_t, const T&); \
    template bool IMetadata::getEntry<T>(const IMetadata*, uint32_t, T&, size_t);
ZORCAM_FOR_EACH_VALUE_TYPE(ZORCAM_METADATA_FAMILIES)
#undef ZORCAM_METADATA_FAMILIES

}  // namespace NSCam
