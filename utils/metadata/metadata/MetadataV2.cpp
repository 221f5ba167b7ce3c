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
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "BoundedText.h"
#include "Content.h"
#include "Diagnostics.h"
#include "ElementText.h"
#include "FlatBytes.h"
#include "ItemTable.h"
#include "Nested.h"
#include "Pool.h"
#include "Readers.h"
#include "Sync.h"

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

// A storage that waits for readers without the lock weighs as four chunks in the thread's
// batch of such waits (what it owns alone is mostly a directory and a chunk or two: the rest
// it shares with the containers it was copied from or to), and more by what it holds: a
// sixteenth per row, one per nested container or blob. A received container of thousands of
// nested ones so goes with the next release, not after fifteen more like it.
template <>
struct readers::ExtraWeight<Storage> {
    static size_t of(const Storage& storage) {
        size_t weight = storage.mItemTable.size() / 16;
        storage.mItemTable.forEachObject([&](const Content* c) {
            weight += static_cast<size_t>(c->mCount);
            return false;
        });
        return weight;
    }
};

namespace {

std::shared_ptr<Storage> newStorage() {
    std::shared_ptr<Storage> storage =
        std::allocate_shared<Storage>(readers::DeferredAllocator<Storage, 4>());
    storage->mReleasedLate = true;
    return storage;
}

// What readers without the lock may look at of `storage`: nothing (they take the lock) when
// its destruction would not wait for them.
Storage* lockFreeView(const std::shared_ptr<Storage>& storage) {
    return storage && storage->mReleasedLate ? storage.get() : nullptr;
}

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

Storage::Storage()
    : mHeadMarker(kHeadMarker), mShared(0), mReleasedLate(false), mTailMarker(kTailMarker) {}

Storage::~Storage() {
    --mHeadMarker;
    --mTailMarker;
}

bool Storage::getTagByIndex(size_t index, uint32_t& tag) const {
    if (index >= mItemTable.size()) {
        META_LOGE("index %zu out of range %d", index, static_cast<int>(mItemTable.size()));
        return false;
    }
    tag = mItemTable.rowTag(index);
    return true;
}

bool Storage::getContentSPByIndex(size_t index, std::shared_ptr<Content>& content,
                                  uint32_t& tag) const {
    if (index >= mItemTable.size()) {
        META_LOGE("index %zu out of range %d", index, static_cast<int>(mItemTable.size()));
        content.reset();
        return false;
    }
    tag = mItemTable.rowTag(index);
    content = mItemTable.contentSPAt(index);
    return true;
}

namespace {

// The rows a flatten writes: all of them in row order, or the listed tags in list order
// (absent tags skipped, repeated tags repeated). `fn(tag, row)`.
template <typename Fn>
void forEachSelected(const ItemTable& table, const uint32_t* tags, long count, Fn&& fn) {
    if (tags == nullptr) {
        table.forEachRow([&fn](const RowView& row) { fn(row.tag, row); });
        return;
    }
    const uint32_t n = static_cast<uint32_t>(count);
    for (uint32_t i = 0; i < n; ++i) {
        const uint16_t row = table.rowOf(tags[i]);
        if (row != ItemTable::kNoRow) fn(tags[i], table.rowAt(row));
    }
}

// A record's length field holds 32 bits: a longer record is refused, never cut to its low
// bits. Reported under the name of the operation that refuses it.
bool recordLengthFits(const char* operation, uint32_t tag, size_t need) {
    if (need <= UINT32_MAX) return true;
    META_LOGE_AS(operation, "record of tag %x needs %zu bytes, more than a 32-bit length holds",
                 tag, need);
    return false;
}

}  // namespace

namespace {

// Sizes of storage blocks. A block's size needs the sizes of the blocks nested in it first:
// the storages reachable from the one asked for are settled deepest first with a stack of
// their own (a chain of any length costs no call depth), each once however often it is
// nested, and a storage met again while its own size is still open contains itself.
class Sizer {
public:
    // The block of `s` with the rows of `tags` (every row with `tags` null).
    size_t block(const Storage& s, const uint32_t* tags, long count) {
        if (tags == nullptr) {
            // A table whose rows are all values knows the size of its block.
            const size_t records = s.mItemTable.recordBytes();
            if (records != ItemTable::kHeldByContents) return kStorageHeader + records;
        }
        size_t total = kStorageHeader;
        bool whole = true;
        forEachSelected(s.mItemTable, tags, count, [&](uint32_t, const RowView& row) {
            const size_t record = recordOf(row);
            whole = whole && record != nested::kNoSize;
            total += kRecordHead + record;
        });
        return whole ? total : nested::kNoSize;
    }
    size_t record(const Content& c) {
        if (!settleAll(c)) return nested::kNoSize;
        return c.flattenSize(&Sizer::known, this);
    }

private:
    size_t recordOf(const RowView& row) {
        if (row.object == nullptr) return record::lengthOf(row.record);
        return record(*row.object);
    }
    // Settles every storage nested in `c`; false when one contains itself.
    bool settleAll(const Content& c) {
        const auto* storages = c.storages();
        if (storages == nullptr || c.mCount == 0) return true;
        for (const auto& s : *storages)
            if (s && !settle(s.get())) return false;
        return true;
    }
    bool settle(const Storage* root) {
        if (mSizes.count(root) != 0) return true;
        std::vector<const Storage*> stack{root};
        while (!stack.empty()) {
            const Storage* s = stack.back();
            if (mSizes.count(s) != 0) {
                stack.pop_back();
                continue;
            }
            if (mOpen.insert(s).second) {
                // First visit: its nested storages go first.
                const size_t before = stack.size();
                bool cycle = false;
                s->mItemTable.forEachObject([&](const Content* c) {
                    const auto* nested = c->storages();
                    if (nested == nullptr || c->mCount == 0) return false;
                    for (const auto& child : *nested) {
                        if (!child || mSizes.count(child.get()) != 0) continue;
                        if (mOpen.count(child.get()) != 0) return cycle = true;
                        stack.push_back(child.get());
                    }
                    return false;
                });
                if (cycle) return false;
                if (stack.size() != before) continue;
            }
            mSizes[s] = block(*s, nullptr, -1);  // every nested block is known now
            mOpen.erase(s);
            stack.pop_back();
        }
        return true;
    }
    static size_t known(const void* self, const Storage& s) {
        const auto& sizes = static_cast<const Sizer*>(self)->mSizes;
        const auto it = sizes.find(&s);
        return it != sizes.end() ? it->second : nested::kNoSize;
    }

    std::unordered_map<const Storage*, size_t> mSizes;
    std::unordered_set<const Storage*> mOpen;
};

}  // namespace

// While a block is written, the sizes of its nested blocks are worked out once, for every
// record that asks (a record is sized before it is written, so that one too long for its
// length field is refused before any of it is).
thread_local Sizer* tWriting = nullptr;

size_t nested::flattenSize(const Storage& s, const uint32_t* tags, long count) {
    Sizer sizer;
    return sizer.block(s, tags, count);
}

size_t nested::recordSize(const Content& c) {
    if (tWriting != nullptr) return tWriting->record(c);
    Sizer sizer;
    return sizer.record(c);
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
    // slot (an empty one is written as length 0 and costs it nothing). Only rows held by
    // contents can hold containers.
    auto visit = [&](const Content* c, int depth) {
        if (c == nullptr || c->mType != TYPE_IMetadata || c->mCount == 0 || !c->storages())
            return Limit::kNone;
        if (depth >= flat::kMaxNestingDepth) return Limit::kDepth;
        for (const auto& storage : *c->storages()) {
            if (!storage) continue;
            if (++containers > flat::kMaxNestedContainers) return Limit::kContainers;
            open.push_back(Open{storage.get(), depth + 1});
        }
        return Limit::kNone;
    };
    Limit broken = Limit::kNone;
    if (root == nullptr) {
        broken = visit(lone, 0);
    } else if (tags == nullptr) {
        broken = root->mItemTable.forEachObject([&](const Content* c) { return visit(c, 0); });
    } else {
        size_t records = 0;
        forEachSelected(root->mItemTable, tags, count, [&](uint32_t, const RowView& row) {
            ++records;
            if (broken == Limit::kNone) broken = visit(row.object, 0);
        });
        if (records > static_cast<size_t>(flat::kMaxRecords)) return Limit::kRecords;
    }
    while (broken == Limit::kNone && !open.empty()) {
        const Open next = open.back();
        open.pop_back();
        broken = next.storage->mItemTable.forEachObject(
            [&](const Content* c) { return visit(c, next.depth); });
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
    const flat::EncodeScope scope;
    flat::Writer w(buf, size);
    // Rows of values only are their own flat form already: the header and a copy of each
    // chunk's records. They need no walk of nested containers and no limit but the count of
    // records, which a table cannot exceed.
    if (tags == nullptr && w.fits(kStorageHeader)) {
        size_t written = 0;
        if (mItemTable.copyRecords(w.here() + kStorageHeader, w.roomLeft() - kStorageHeader,
                                   written)) {
            const uint32_t header[2] = {kStorageMagic, static_cast<uint32_t>(mItemTable.size())};
            std::memcpy(w.here(), header, sizeof(header));
            return static_cast<long>(kStorageHeader + written);
        }
    }
    if (scope.outermost && !sendable("flatten", this, nullptr, tags, count)) return -1;
    Sizer sizer;
    struct Sizing {
        Sizer* const outer;
        explicit Sizing(Sizer* s) : outer(std::exchange(tWriting, s)) {}
        ~Sizing() { tWriting = outer; }
    } sizing(scope.outermost ? &sizer : tWriting);
    return nested::flatten(*this, w, tags, count);
}

long nested::flatten(const Storage& s, flat::Writer& w, const uint32_t* tags, long count) {
    w.putU32(kStorageMagic);
    w.pos = kStorageHeader;
    uint32_t records = 0;
    uint32_t failedTag = 0;
    bool failed = false;
    forEachSelected(s.mItemTable, tags, count, [&](uint32_t tag, const RowView& row) {
        if (failed) return;
        const size_t head = w.pos;
        w.putU32At(head, tag);
        w.pos = head + kRecordHead;
        long length = 0;
        if (row.object != nullptr) {
            // A record's length field holds 32 bits: a longer record is refused before any
            // of it is written, never cut to its low bits.
            if (!recordLengthFits("flatten", tag, row.object->flattenSize())) {
                failed = true;
                failedTag = tag;
                return;
            }
            // Only the content writer is given the remaining capacity; the heads are
            // written first and the whole block judged once at the end.
            flat::Writer body = w.sub(w.pos);
            length = row.object->flatten(body);
            if (length < 0) {
                failed = true;
                failedTag = tag;
                return;
            }
        } else if (row.hasContent()) {
            // A row of values is its record already; written as its content would write it.
            flat::Writer body = w.sub(w.pos);
            length = Content::flattenValues(body, row.type(), row.count(), row.payload(),
                                            record::lengthOf(row.record) - Content::kHeaderSize);
            if (length < 0) {
                failed = true;
                failedTag = tag;
                return;
            }
        }
        w.putU32At(head + 4, static_cast<uint32_t>(length));
        w.pos += static_cast<size_t>(length);
        ++records;
    });
    if (failed) {
        META_LOGE_AS("flatten", "encoding tag %x fail , size %d", failedTag, -1);
        return -1;
    }
    w.putU32At(4, records);
    if (w.overflowed()) {
        META_LOGE_AS("flatten", "flatten buffer overflow!!!!!! %p %p", w.at(w.pos),
                     w.at(w.capacity));
        return -1;
    }
    return static_cast<long>(w.pos);
}

namespace {

long unflattenOverflow(const flat::Reader& r, size_t needed) {
    META_LOGE_AS("unflatten", "unflatten buffer overflow!!!!!! %p %p", r.at(r.pos + needed),
                 r.end());
    return -1;
}

// The records of a block one by one, each decoded by its content and filed in order, with
// the reports of whatever is refused: for the blocks the table does not decode by itself.
long decodeRecords(ItemTable& table, flat::Reader& r, size_t records) {
    for (size_t k = 0; k < records; ++k) {
        if (!r.has(kRecordHead)) return unflattenOverflow(r, kRecordHead);
        const uint32_t tag = r.u32();
        const uint32_t length = r.u32();
        if (length == 0) {
            table.update(tag, nullptr);
            continue;
        }
        if (!r.has(length)) return unflattenOverflow(r, length);
        int err = 0;
        std::shared_ptr<Content> content =
            std::allocate_shared<Content>(pool::PoolAllocator<Content>(), r.here(), length, err);
        // The row goes in first; a failed record still leaves the rows read so far.
        table.update(tag, std::move(content));
        if (err != 0) return -1;
        r.pos += length;
    }
    return static_cast<long>(r.pos);
}

}  // namespace

long Storage::unflatten(const void* buf, size_t size) {
    if (buf == nullptr) {
        META_LOGE("flatten nullpointer");
        return -1;
    }
    const flat::DecodeScope scope;
    flat::Reader r(buf, size);
    if (!r.has(4)) return unflattenOverflow(r, kStorageHeader);
    const uint32_t magic = r.u32();
    if (magic != kStorageMagic) {
        META_LOGE("unflatten buffer not correct. pattern %x", magic);
        return -1;
    }
    mItemTable.clear();
    if (!r.has(4)) return unflattenOverflow(r, 4);
    const int32_t records = static_cast<int32_t>(r.u32());
    // Counts above what a table can hold are outside the format; each record needs at least
    // its head, so a count the bytes cannot hold is refused before anything is allocated.
    if (records > flat::kMaxRecords ||
        (records > 0 && static_cast<size_t>(records) > r.remaining() / kRecordHead))
        return unflattenOverflow(r, static_cast<size_t>(records) * kRecordHead);
    if (records <= 0) return static_cast<long>(r.pos);
    const auto n = static_cast<size_t>(records);
    // The table indexes the records where they lie when every one of them decodes without a
    // report; otherwise they are decoded one by one, with the reports.
    size_t end = 0;
    const size_t nested = flat::tDecode.nested;
    if (mItemTable.decode(static_cast<const uint8_t*>(buf), size, r.pos, n, end))
        return static_cast<long>(end);
    mItemTable.clear();
    flat::tDecode.nested = nested;
    return decodeRecords(mItemTable, r, n);
}

std::shared_ptr<Storage> nested::unflatten(const void* buf, size_t size) {
    // Exactly as a container decoded from the bytes would hold it (and report a failure),
    // handed out marked shared, so that whoever edits the nested value copies it first.
    const IMetadata nested(buf, size);
    return nested.getStorageSP();
}

//----------------------------------------------------------------------------------------
// Storage typed families: one body each.

namespace {

// The one body of the basic reads: the element of `type` at `index` of `content`, copied to
// `out` (left as it is when there is none; getBasicData then reports why).
void readBasic(const Content* content, uint32_t index, void* out, int32_t type) {
    const int at = static_cast<int>(index);
    const void* p = content->basicAt(at, type);
    if (p == nullptr) p = content->getBasicData(at, type);
    if (p) std::memcpy(out, p, static_cast<size_t>(kTypeFacts[type].size));
}

template <typename T>
T readValue(const Content* content, uint32_t index) {
    if (content == nullptr) return T();
    const int at = static_cast<int>(index);
    if constexpr (std::is_same<T, Memory>::value) {
        auto bytes = content->getMemory(at, TYPE_Memory);
        return bytes ? Memory(bytes) : Memory();
    } else if constexpr (std::is_same<T, IMetadata>::value) {
        auto storage = content->getMetadata(at, TYPE_IMetadata);
        return storage ? IMetadata(storage) : IMetadata();
    } else {
        T value{};
        readBasic(content, index, &value, TypeCode<T>::value);
        return value;
    }
}

// Element `index` of the row at `row`, read from the row's values where they lie; what must be
// reported (another type, an index past the values, a nested container or blob asked of a row
// of values) is read through the row's content, whose readers report it.
template <typename T>
T readRow(const ItemTable& table, uint16_t row, uint32_t index) {
    const RowView view = table.rowAt(row);
    if constexpr (kTypeFacts[TypeCode<T>::value].basic) {
        if (view.object == nullptr && record::lengthOf(view.record) != 0 &&
            view.type() == TypeCode<T>::value && index < static_cast<uint32_t>(view.count())) {
            T value;
            std::memcpy(static_cast<void*>(&value), view.payload() + index * sizeof(T),
                        sizeof(T));
            return value;
        }
    }
    if (view.object != nullptr) return readValue<T>(view.object, index);
    if (record::lengthOf(view.record) == 0) return T();
    return readValue<T>(table.contentAt(row), index);
}

// The one body of the writes: a new content of `count` elements of `type` at `values`,
// written from `index` (all ones: appended).
std::shared_ptr<Content> madeContent(uint32_t index, const void* values, size_t count,
                                     int32_t type) {
    std::shared_ptr<Content> content = Content::make();
    content->update(static_cast<int>(index), values, count, type);
    return content;
}

// What a typed write files: values of a basic type appended to nothing go straight into the
// row; anything else is made as a content first (which reports a refused index), marked
// shared, and filed.
RowValue madeValue(uint32_t index, const void* values, size_t count, int32_t type) {
    if (index == 0xFFFFFFFFu && isBasicType(type) && count != 0 && count <= INT32_MAX / 16u)
        return RowValue::values(type, static_cast<int32_t>(count), values,
                                count * static_cast<size_t>(kTypeFacts[type].size));
    std::shared_ptr<Content> content = madeContent(index, values, count, type);
    content->markReadOnly();
    return RowValue::of(std::move(content));
}

}  // namespace

// The storage readers run under the container's lock (burst callbacks) or on a storage of
// the caller's own: the row cannot change while it is read, so it is read in place.
template <typename T>
int Storage::readEntry(uint32_t tag, T& value, uint32_t index) const {
    const uint16_t row = mItemTable.rowOf(tag);
    if (row == ItemTable::kNoRow) return -1;
    value = readRow<T>(mItemTable, row, index);
    return 0;
}

template <typename T>
T Storage::read(uint32_t index, Type2Type<T>, std::shared_ptr<Content>& content) const {
    return readValue<T>(content.get(), index);
}

template <typename T>
int Storage::readEntries(uint32_t tag, std::vector<T>& values) const {
    const uint16_t row = mItemTable.rowOf(tag);
    if (row == ItemTable::kNoRow) return -1;
    const RowView view = mItemTable.rowAt(row);
    if (!view.hasContent()) return 0;
    const uint32_t count =
        static_cast<uint32_t>(view.object != nullptr ? view.object->mCount : view.count());
    values.resize(count);
    for (uint32_t i = 0; i < count; ++i) values.at(i) = readRow<T>(mItemTable, row, i);
    return 0;
}

template <typename T>
void Storage::writeEntry(uint32_t tag, const T& value, uint32_t index) {
    mItemTable.put(tag, madeValue(index, &value, 1, TypeCode<T>::value));
}

template <typename T, typename U>
std::shared_ptr<Content> Storage::write(const T& value, Type2Type<U>, uint32_t index) {
    static_assert(std::is_same<T, U>::value, "values are stored as they are");
    return madeContent(index, &value, 1, TypeCode<U>::value);
}

template <typename T, typename U>
std::shared_ptr<Content> Storage::write(const T* values, size_t count, Type2Type<U>,
                                        uint32_t index) {
    static_assert(std::is_same<T, U>::value, "values are stored as they are");
    return madeContent(index, values, count, TypeCode<U>::value);
}

template <typename T>
void Storage::writeEntries(uint32_t tag, const T* values, size_t count, uint32_t index) {
    if (count == 0) {
        mItemTable.update(tag, nullptr);
        return;
    }
    mItemTable.put(tag, madeValue(index, values, count, TypeCode<T>::value));
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

namespace {

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

}  // namespace

namespace {

[[noreturn]] __attribute__((noinline, cold)) void reportInvalid(const char* operation,
                                                                const void* self, uint32_t valid,
                                                                uint32_t backup) {
    META_FATAL_FLUSH_AS(operation,
                        "this %p object already be free! mValidNum invalid(%x) "
                        "mValidNumBackup(%x)",
                        self, valid, backup);
}

}  // namespace

// A destroyed container is never used again; every checked operation ends the process when
// it meets one, naming itself.
inline void IMetadata::checkValid(const char* operation) const {
    if (__builtin_expect(validNum() != 0, 1)) return;
    reportInvalid(operation, this, validNum(), mValidNumBackup);
}

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
      mStorageRaw(nullptr),
      mSequence(0),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    assignValidNumber();
}

IMetadata::IMetadata(const IMetadata& other)
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mStorage(other.getStorageSP()),
      mStorageRaw(lockFreeView(mStorage)),
      mSequence(0),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    if (mStorage) mStorage->mItemTable.publish();
    assignValidNumber();
}

IMetadata::IMetadata(const std::shared_ptr<Storage>& storage)
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mStorage(storage),
      mStorageRaw(lockFreeView(mStorage)),
      mSequence(0),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    if (mStorage) mStorage->mItemTable.publish();
    assignValidNumber();
}

IMetadata::IMetadata(const void* buf, size_t size)
    : mHeadMarker(kHeadMarker),
      mValidNum(0),
      mValidNumBackup(0),
      mStorageRaw(nullptr),
      mSequence(0),
      mLockMarker(kLockMarker),
      mTailMarker(kTailMarker) {
    std::shared_ptr<Storage> storage = newStorage();
    if (storage->unflatten(buf, size) < 0) {
        META_LOGE("unflatten error %p, size %zu", buf, size);
    } else {
        storage->mItemTable.publish();
        mStorage = std::move(storage);
        mStorageRaw.store(lockFreeView(mStorage), std::memory_order_release);
    }
    assignValidNumber();
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
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    mStorage.reset();
    --mHeadMarker;
    mValidNum.store(0, std::memory_order_relaxed);  // mValidNumBackup keeps what it was
    --mTailMarker;
}

void IMetadata::installLocked(std::shared_ptr<Storage> storage) const {
    if (storage) storage->mItemTable.publish();
    std::shared_ptr<Storage> old = std::exchange(mStorage, std::move(storage));
    mStorageRaw.store(lockFreeView(mStorage), std::memory_order_release);
    old.reset();
}

inline void IMetadata::makeWritableLocked() const {
    // The shared flag alone decides: a storage once handed out is cloned even when this
    // container is its last owner. The rows stay shared; they copy on write themselves.
    if (__builtin_expect(mStorage && mStorage->mShared.load(std::memory_order_relaxed) == 0, 1))
        return;
    std::shared_ptr<Storage> made = newStorage();
    if (mStorage) made->mItemTable = mStorage->mItemTable;  // shares the directory
    installLocked(std::move(made));
}

std::shared_ptr<Storage> IMetadata::getStorageSP() const {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    return shareLocked();
}

std::shared_ptr<Storage> IMetadata::shareLocked() const {
    if (mStorage) mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage;
}

bool IMetadata::isEmpty() const {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    if (!mStorage) return true;
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage->mItemTable.size() == 0;
}

uint32_t IMetadata::count() const {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    if (!mStorage) return 0;
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return static_cast<uint32_t>(mStorage->mItemTable.size());
}

uint32_t IMetadata::lockedRowCount() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mStorage ? static_cast<uint32_t>(mStorage->mItemTable.size()) : 0;
}

void IMetadata::clear() {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    const Writing writing(mSequence);
    installLocked(nullptr);
}

int IMetadata::remove(uint32_t tag) {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    const Writing writing(mSequence);
    makeWritableLocked();
    return mStorage->mItemTable.remove(tag) ? 0 : -1;
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
    RowValue value = entry.toFile(entryTag, true, buffer, sizeof(buffer));
    if (entryTag != kNoTag && entryTag != tag)
        META_LOGE_CALLSTACK("tag mismatch update tag=%x but entry.tag=%x", tag, entryTag);
    return update(tag, std::move(value));
}

int IMetadata::update(const IEntry& entry) {
    // Tag and values are taken in one look at the entry, as above; an entry refused for its
    // tag is left exactly as it was (its values are not marked shared).
    uint32_t tag = kNoTag;
    alignas(8) uint8_t buffer[kCopiedFromEntry];
    RowValue value = entry.toFile(tag, false, buffer, sizeof(buffer));
    if (tag == kNoTag) {
        META_LOGE_TRACE("entry without valid tag value");
        return -1;
    }
    return update(tag, std::move(value));
}

int IMetadata::update(uint32_t tag, RowValue&& value) {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    const Writing writing(mSequence);
    makeWritableLocked();
    if (!mStorage->mItemTable.put(tag, std::move(value))) {
        META_LOGE("table full (%zu rows), tag %x not stored", ItemTable::kMaxRows, tag);
        return -1;
    }
    return 0;
}

IEntry IMetadata::entryFor(uint32_t tag, int take) const {
    checkValid(__func__);  // before locking, unlike every other operation
    std::shared_ptr<Content> content;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mStorage) return IEntry(kNoTag);
        if (take) {
            const Writing writing(mSequence);
            makeWritableLocked();
            ItemTable& table = mStorage->mItemTable;
            const uint16_t row = table.rowOf(tag);
            if (row == ItemTable::kNoRow) return IEntry(kNoTag);
            content = table.contentSPAt(row);
            table.remove(tag);
        } else {
            const ItemTable& table = mStorage->mItemTable;
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
        std::lock_guard<std::mutex> guard(mLock);
        checkValid(__func__);
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
    std::lock_guard<std::mutex> guard(mLock);
    if (!mStorage) return -1;
    mStorage->mShared.store(1, std::memory_order_relaxed);
    const InBurst burst(this);
    return fn(*mStorage);
}

void IMetadata::burstWrite(const std::function<void(BurstEntry&)>& fn) {
    std::lock_guard<std::mutex> guard(mLock);
    const Writing writing(mSequence);
    makeWritableLocked();
    const InBurst burst(this);
    fn(*mStorage);
}

std::shared_ptr<Storage> IMetadata::storageToStore() const {
    const IMetadata* burst = tBurst;
    if (burst == nullptr || burst == this) return getStorageSP();
    // This thread runs a burst callback of another container and holds its lock: waiting for
    // this container's lock while its holder, in a burst of its own, waits for ours would
    // never end. So the lock is only tried; while it is busy, a holder that waits in turn
    // offers a copy of its storage as it is (see offerLocked), and this thread offers one of
    // its own container's. Two bursts that store each other's containers each take the other's
    // offer and go on.
    std::shared_ptr<Storage> taken;
    bool offered = false;
    for (;;) {
        if (mLock.try_lock()) {
            std::lock_guard<std::mutex> guard(mLock, std::adopt_lock);
            checkValid("getStorageSP");
            taken = shareLocked();
            break;
        }
        {
            // The storage stays allocated while the section lasts.
            const readers::Section section;
            const Storage* s = mStorageRaw.load(std::memory_order_acquire);
            if (s != nullptr) taken = std::atomic_load(&s->mOffer);
            if (taken) break;
        }
        if (!offered) {
            burst->offerLocked();
            offered = true;
        }
        std::this_thread::yield();
    }
    if (offered) burst->withdrawOfferLocked();
    return taken;
}

void IMetadata::offerLocked() const {
    if (!mStorage) return;
    // A copy that shares the table: what the burst writes after the wait goes to chunks of its
    // own, not into the copy.
    std::shared_ptr<Storage> copy = newStorage();
    copy->mItemTable = mStorage->mItemTable;
    copy->mItemTable.publish();
    copy->mShared.store(1, std::memory_order_relaxed);
    std::atomic_store(&mStorage->mOffer, std::move(copy));
}

void IMetadata::withdrawOfferLocked() const {
    if (mStorage) std::atomic_store(&mStorage->mOffer, std::shared_ptr<Storage>());
}

long IMetadata::flattenSize(const uint32_t* tags, long count) const {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    if (!mStorage) {
        const Writing writing(mSequence);
        installLocked(newStorage());
    }
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage->flattenSize(tags, count);
}

long IMetadata::flatten(void* buf, size_t size, const uint32_t* tags, long count) const {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    if (!mStorage) {
        const Writing writing(mSequence);
        installLocked(newStorage());
    }
    mStorage->mShared.store(1, std::memory_order_relaxed);
    return mStorage->flatten(buf, size, tags, count);
}

long IMetadata::unflatten(void* buf, size_t size) {
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    const Writing writing(mSequence);
    // The old values go before the buffer is looked at; containers sharing them keep them.
    installLocked(newStorage());
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
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    const Writing writing(mSequence);
    installLocked(std::move(storage));
    return *this;
}

IMetadata& IMetadata::operator+=(const IMetadata& other) {
    if (this == &other) return *this;
    const std::shared_ptr<Storage> source = other.getStorageSP();
    if (!source) return *this;
    std::lock_guard<std::mutex> guard(mLock);
    checkValid(__func__);
    const Writing writing(mSequence);
    if (!mStorage) {
        installLocked(source);  // nothing to merge into: share the other's
        return *this;
    }
    makeWritableLocked();
    // Tags in both keep this container's row and take the other's values; new tags follow
    // in the other's row order. Values are shared, not copied.
    mStorage->mItemTable.merge(source->mItemTable, [](uint32_t tag) {
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

// The values of a row of a basic type, each by its type's dump form. The entry is the
// caller's own copy of the row: its values cannot change while they are read.
void appendBasicValues(BoundedText& line, const IEntry& entry, const TypeFacts& facts,
                       uint32_t count) {
    const auto* values = static_cast<const uint8_t*>(entry.data());
    if (values == nullptr) return;
    char text[kDumpLineSize];
    for (uint32_t j = 0; j < count; ++j) {
        formatElement(text, sizeof(text), facts.dumpForm, facts.code,
                      values + static_cast<size_t>(j) * static_cast<size_t>(facts.size));
        line.appendf("%s", text);
    }
}

// Each non-empty blob of a row: its index and size, then its first 64 bytes only, so that a
// row stays one line.
void appendBlobs(BoundedText& line, const IEntry& entry, uint32_t count) {
    for (uint32_t j = 0; j < count; ++j) {
        const Memory m = entry.itemAt(j, Type2Type<Memory>());
        size_t size = 0;
        const uint8_t* bytes = m.array(size);
        if (bytes == nullptr || size == 0) continue;
        line.appendf(kTypeFacts[TYPE_Memory].dumpForm, static_cast<int>(j), static_cast<int>(size));
        for (size_t b = 0; b < std::min<size_t>(size, 64); ++b) line.appendf("%02X ", bytes[b]);
    }
}

// Each nested container of a row is dumped one layer deeper after the row's line so far, as
// deep as a receiver would take them; a deeper one is said once, not dumped.
void dumpNested(BoundedText& line, const IEntry& entry, uint32_t count, int layer, bool force) {
    for (uint32_t j = 0; j < count; ++j) {
        const IMetadata nested = entry.itemAt(j, Type2Type<IMetadata>());
        if (line.appendf("%s", kTypeFacts[TYPE_IMetadata].dumpForm) < 0) continue;
        META_LOGD_AS("dump", "(L%d) %s", layer, line.c_str());
        if (tDumpDepth >= flat::kMaxNestingDepth) {
            META_LOGD_AS("dump", "(L%d) containers nested deeper than %d levels: not dumped",
                         layer + 1, flat::kMaxNestingDepth);
            continue;
        }
        const DumpLevel deeper;
        nested.dump(layer + 1, force);
    }
}

}  // namespace

void IMetadata::dump(int layer, bool force) const {
    if (mLogLevel == 0 && !force) return;
    // Every line is a debug line: with the container's debug lines off, nothing is read.
    if (!diag::debugOn(LOG_MODULE)) return;
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
        const TypeFacts* facts = typeFacts(type);
        if (facts == nullptr)
            line.appendf("unsupported type(%d)", type);
        else if (facts->basic)
            appendBasicValues(line, entry, *facts, count);
        else if (type == TYPE_IMetadata)
            dumpNested(line, entry, count, layer, force);
        else
            appendBlobs(line, entry, count);
        META_LOGD("(L%d) %s", layer, line.c_str());
    }
}

//----------------------------------------------------------------------------------------
// One-call typed access

int IMetadata::readWithoutLock(uint32_t tag, int32_t type, size_t index, void* out,
                               size_t size) const {
    const readers::Section section;
    if (!section.pinned()) return -1;
    alignas(8) uint8_t value[Content::kInlineSize];
    for (int attempt = 0; attempt < 4; ++attempt) {
        const uint32_t before = mSequence.load(std::memory_order_acquire);
        if ((before & 1) != 0) return -1;  // a writer is at work: wait for it on the lock
        if (validNum() == 0) return -1;    // the locked path reports it
        const Storage* s = mStorageRaw.load(std::memory_order_acquire);
        if (s == nullptr) return -1;  // no storage, or one read under the lock only
        // What the table drops stays allocated while this section lasts, and values written
        // in place are written under the count: what is read is checked against it below.
        const ItemTable::Found found = s->mItemTable.readValue(tag, type, index, value, size);
        if (found == ItemTable::Found::kUnsure) return -1;
        acquireFence();  // what was read above is read before the count is read again
        if (mSequence.load(std::memory_order_relaxed) == before) {
            if (found == ItemTable::Found::kAbsent) return 0;
            copyFixed(out, value, size);
            return 1;
        }
    }
    return -1;
}

template <typename T>
int IMetadata::setEntry(IMetadata* metadata, uint32_t tag, const T& value) {
    if (metadata == nullptr) return -1;
    // What an entry for the tag holding the one value, stored with update, would store: the
    // value itself for a basic type (written over the row's when it has the same shape), a
    // content marked shared for the others.
    metadata->update(tag, madeValue(0xFFFFFFFFu, &value, 1, TypeCode<T>::value));
    return 0;  // a caller who must know reads the entry back
}

template <typename T>
bool IMetadata::getEntry(const IMetadata* metadata, uint32_t tag, T& value, size_t index) {
    if (metadata == nullptr) return false;
    if constexpr (kTypeFacts[TypeCode<T>::value].basic) {
        const int found =
            metadata->readWithoutLock(tag, TypeCode<T>::value, index, &value, sizeof(T));
        if (found >= 0) return found == 1;
    }
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
