// IMetadata::IEntry: one tag and a copy-on-write reference to its values; the typed families,
// one body each, each family reporting its failures from a line of its own.
#define LOG_TAG "Metadata2/Entry"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include <sched.h>

#include <cstring>
#include <type_traits>

#include "Container.h"
#include "Content.h"
#include "Diagnostics.h"

namespace NSCam {

using IEntry = IMetadata::IEntry;
using Content = IMetadata::Content;
using Memory = IMetadata::Memory;

IEntry::IEntry(uint32_t tag) : mTag(tag) {}

IEntry::IEntry(uint32_t tag, std::shared_ptr<Content> content) : mTag(tag) {
    if (content && !content->isReadOnly()) {
        // Not a failure: a writable content is about to be shared, which the developer
        // should know about. From here on every edit through any entry copies it first.
        META_LOGE_CALLSTACK("NOT ReadOnly! %p created. tag %x, share content(%p, ref:%d)",
                            static_cast<void*>(this), tag, static_cast<void*>(content.get()),
                            static_cast<int>(content.use_count()));
        content->markReadOnly();
    }
    mContentPtr = std::move(content);
}

IEntry::IEntry(const IEntry& other) {
    // The new entry is not visible to anybody yet: only the source needs its lock.
    const MutexLock guard(other.mLock);
    if (other.mContentPtr) other.mContentPtr->markReadOnly();
    mTag.store(other.mTag.load(std::memory_order_relaxed), std::memory_order_relaxed);
    mContentPtr = other.mContentPtr;
}

IEntry& IEntry::operator=(const IEntry& other) {
    if (this == &other) return *this;
    // Two threads assigning two entries to each other must not deadlock: hold one lock,
    // try the other, and back off completely when that fails.
    for (;;) {
        mLock.lock();
        if (other.mLock.try_lock()) break;
        mLock.unlock();
        sched_yield();
        other.mLock.lock();
        if (mLock.try_lock()) break;
        other.mLock.unlock();
        sched_yield();
    }
    if (other.mContentPtr) other.mContentPtr->markReadOnly();
    mTag.store(other.mTag.load(std::memory_order_relaxed), std::memory_order_relaxed);
    mContentPtr = other.mContentPtr;
    other.mLock.unlock();
    mLock.unlock();
    return *this;
}

IEntry::~IEntry() = default;

uint32_t IEntry::tag() const {
    return mTag.load(std::memory_order_relaxed);
}

int32_t IEntry::type() const {
    const MutexLock guard(mLock);
    return mContentPtr ? mContentPtr->mType : -1;
}

uint32_t IEntry::count() const {
    const MutexLock guard(mLock);
    return mContentPtr ? static_cast<uint32_t>(mContentPtr->mCount) : 0;
}

bool IEntry::isEmpty() const {
    const MutexLock guard(mLock);
    return !mContentPtr || mContentPtr->mCount == 0;
}

void IEntry::clear() {
    const MutexLock guard(mLock);
    if (!mContentPtr) return;
    if (mContentPtr->isReadOnly())
        mContentPtr.reset();  // other holders keep their values
    else
        mContentPtr->clear();
}

int32_t IEntry::removeAt(uint32_t index) {
    const MutexLock guard(mLock);
    if (!mContentPtr) return -1;
    Core::_ContentMakeWritable(*this);
    return mContentPtr->remove(static_cast<int>(index)) ? 0 : -1;
}

const void* IEntry::data() const {
    const MutexLock guard(mLock);
    if (!mContentPtr) return nullptr;
    // A raw pointer leaves the handle: later edits through any entry must copy.
    mContentPtr->markReadOnly();
    const int32_t type = mContentPtr->mType;
    if (!isBasicType(type)) return nullptr;
    return mContentPtr->getBasicData(0, type);
}

std::shared_ptr<Content> IEntry::getContentSP() const {
    const MutexLock guard(mLock);
    if (mContentPtr) mContentPtr->markReadOnly();
    return mContentPtr;
}

RowValue IMetadata::Core::toFile(const IEntry& e, uint32_t& tag, bool untagged, uint8_t* buffer,
                                 size_t room) {
    const MutexLock guard(e.mLock);
    tag = e.mTag.load(std::memory_order_relaxed);
    if ((!untagged && tag == 0xFFFFFFFFu) || !e.mContentPtr) return RowValue::none();
    Content& c = *e.mContentPtr;
    c.markReadOnly();
    size_t bytes = 0;
    if (c.plainValues(bytes) && bytes <= room) {
        // Copied while the lock holds the values still: no reference to take and drop.
        if (bytes != 0) std::memcpy(buffer, c.elements(), bytes);
        return RowValue::values(c.mType, c.mCount, buffer, bytes);
    }
    return RowValue::of(std::shared_ptr<Content>(e.mContentPtr));
}

std::shared_ptr<Content> IMetadata::Core::_ContentMakeWritable(IEntry& e) {
    // Sharing is decided by the read-only mark alone, never by the owner count: a content
    // once handed out is copied even when this entry has become its only owner.
    std::shared_ptr<Content>& mContentPtr = e.mContentPtr;
    if (!mContentPtr) {
        mContentPtr = Content::make();
        return nullptr;
    }
    if (!mContentPtr->isReadOnly()) return nullptr;
    // The replaced content goes back to the caller, who keeps it until the edit is done:
    // the values being written may live inside it (a pointer from this entry's data()),
    // and this entry may have been its last owner.
    std::shared_ptr<Content> previous = Content::copyOf(*mContentPtr);
    previous.swap(mContentPtr);
    return previous;
}

bool IMetadata::Core::_ContentUpdate(IEntry& e, int32_t index, const void* data, size_t count,
                                     int32_t type) {
    if (!e.mContentPtr) META_FATAL_FLUSH("ContentSP is nullptr");
    return e.mContentPtr->update(index, data, count, type);
}

void IMetadata::Core::noteFailure(const IEntry& e) {
    IMetadata::lowerErrorTypeTag(e.tag());
}

//----------------------------------------------------------------------------------------
// Typed families: one body each; the members differ only in type and type code.

namespace {

// The value as it is stored: the caller's own object when no conversion is asked for
// (handles such as Memory and IMetadata are passed on as they are), otherwise the language's
// own conversion, unchecked: narrowings wrap silently.
template <typename U, typename T>
std::conditional_t<std::is_same<T, U>::value, const U&, U> storedValue(const T& item) {
    return static_cast<std::conditional_t<std::is_same<T, U>::value, const U&, U>>(item);
}

}  // namespace

// The one body of every typed edit: `count` elements of `type` at `data`, appended
// (index -1) or written over the elements from `index`. Each family reports a failure from a
// line of its own, shared by all its members.
bool IMetadata::Core::writeElements(IEntry& e, int32_t index, const void* data, size_t count,
                                    int32_t type, const void*& content) {
    const MutexLock guard(e.mLock);
    const std::shared_ptr<Content> previous = _ContentMakeWritable(e);
    if (_ContentUpdate(e, index, data, count, type)) return true;
    content = e.mContentPtr.get();
    return false;
}

// The one body of the typed reads of basic values: `count` elements of `type` from `index`
// into `out`. True when all of them were there.
bool IMetadata::Core::readElements(const IEntry& e, uint32_t index, void* out, size_t count,
                                   int32_t type, const void*& content) {
    const MutexLock guard(e.mLock);
    if (e.mContentPtr) {
        const Content& c = *e.mContentPtr;
        const void* p = c.getBasicData(static_cast<int>(index), type);
        // index + count <= mCount, written so that a huge count cannot wrap the sum around.
        const uint64_t total = static_cast<uint64_t>(c.mCount);
        if (p != nullptr && index <= total && count <= total - index) {
            std::memcpy(out, p, count * static_cast<size_t>(kTypeFacts[type].size));
            return true;
        }
    }
    content = e.mContentPtr.get();
    return false;
}

// The handles (blobs and nested containers) are handed out as proper copies that share the
// stored data, so the caller's array owns what it holds and may be destroyed normally.
template <typename T>
bool IMetadata::Core::readHandles(const IEntry& e, uint32_t index, T* out, size_t count,
                                  const void*& content) {
    const MutexLock guard(e.mLock);
    bool ok = false;
    if (e.mContentPtr) {
        const Content& c = *e.mContentPtr;
        const uint64_t total = static_cast<uint64_t>(c.mCount);
        ok = c.mType == TypeCode<T>::value && static_cast<int>(index) >= 0 && index < total &&
             count <= total - index;
        for (size_t i = 0; ok && i < count; ++i) {
            if constexpr (std::is_same<T, Memory>::value) {
                ok = c.blobs() != nullptr;
                if (ok) out[i] = (*c.blobs())[index + i];
            } else {
                ok = c.storages() != nullptr;
                if (ok) out[i] = IMetadata((*c.storages())[index + i]);
            }
        }
    }
    if (!ok) content = e.mContentPtr.get();
    return ok;
}

// The families. Each reports its failure from its own line: which kind of edit or read failed
// is in the log even where the function name is shared (push_back of one and of many).

template <typename T, typename U>
void IEntry::push_back(const T& item, Type2Type<U>) {
    const U& value = storedValue<U>(item);
    const void* content = nullptr;
    if (Core::writeElements(*this, -1, &value, 1, TypeCode<U>::value, content)) return;
    META_LOGE("Update error, tag %x, mContentPtr %p", tag(), content);
    Core::noteFailure(*this);
}

template <typename T, typename U>
void IEntry::push_back(const T* array, size_t count, Type2Type<U>) {
    static_assert(std::is_same<T, U>::value, "arrays are stored as they are");
    const void* content = nullptr;
    if (Core::writeElements(*this, -1, array, count, TypeCode<U>::value, content)) return;
    META_LOGE("Update error, tag %x, mContentPtr %p", tag(), content);
    Core::noteFailure(*this);
}

// The unsigned index reaches the content as a signed one: 0xFFFFFFFF appends.
template <typename T, typename U>
void IEntry::replaceItemAt(uint32_t index, const T& item, Type2Type<U>) {
    static_assert(std::is_same<T, U>::value, "values are stored as they are");
    const void* content = nullptr;
    if (Core::writeElements(*this, static_cast<int32_t>(index), &item, 1, TypeCode<U>::value,
                            content))
        return;
    META_LOGE("Update error, tag %x, mContentPtr %p", tag(), content);
    Core::noteFailure(*this);
}

template <typename T, typename U>
void IEntry::replaceItemAt(uint32_t index, const T* array, size_t count, Type2Type<U>) {
    static_assert(std::is_same<T, U>::value, "arrays are stored as they are");
    const void* content = nullptr;
    if (Core::writeElements(*this, static_cast<int32_t>(index), array, count, TypeCode<U>::value,
                            content))
        return;
    META_LOGE("Update error, tag %x, mContentPtr %p", tag(), content);
    Core::noteFailure(*this);
}

template <typename T>
T IEntry::itemAt(uint32_t index, Type2Type<T>) const {
    const int at = static_cast<int>(index);
    // The two handle types answer an empty handle on failure, silently.
    if constexpr (std::is_same<T, Memory>::value) {
        const MutexLock guard(mLock);
        auto bytes = mContentPtr ? mContentPtr->getMemory(at, TYPE_Memory) : nullptr;
        return bytes ? Memory(bytes) : Memory();
    } else if constexpr (std::is_same<T, IMetadata>::value) {
        const MutexLock guard(mLock);
        auto storage = mContentPtr ? mContentPtr->getMetadata(at, TYPE_IMetadata) : nullptr;
        return storage ? IMetadata(storage) : IMetadata();
    } else {
        T value = T();
        const void* content = nullptr;
        if (Core::readElements(*this, index, &value, 1, TypeCode<T>::value, content)) return value;
        META_LOGE("Get data error , tag %x, mContentPtr %p", tag(), content);
        Core::noteFailure(*this);
        return T();
    }
}

template <typename T>
int32_t IEntry::itemAt(uint32_t index, T* array, size_t count, Type2Type<T>) const {
    const void* content = nullptr;
    bool ok;
    if constexpr (kTypeFacts[TypeCode<T>::value].basic)
        ok = Core::readElements(*this, index, array, count, TypeCode<T>::value, content);
    else
        ok = Core::readHandles(*this, index, array, count, content);
    if (ok) return 1;
    META_LOGE("Get data error , tag %x, mContentPtr %p", tag(), content);
    Core::noteFailure(*this);
    return 0;
}

template <typename T>
int32_t IEntry::indexOf(IEntry& entry, const T& item) {
    uint32_t count;
    {
        const MutexLock guard(entry.mLock);
        if (!entry.mContentPtr) return -1;
        count = static_cast<uint32_t>(entry.mContentPtr->mCount);
    }
    // Each read locks by itself: an edit made meanwhile by another thread is not seen, and
    // a shrink makes the remaining reads fail.
    for (uint32_t i = 0; i < count; ++i)
        if (entry.itemAt(i, Type2Type<T>()) == item) return static_cast<int32_t>(i);
    return -1;
}

#define ZORCAM_ENTRY_FAMILIES(T)                                                         \
    template void IEntry::push_back<T, T>(const T&, Type2Type<T>);                       \
    template void IEntry::push_back<T, T>(const T*, size_t, Type2Type<T>);               \
    template void IEntry::replaceItemAt<T, T>(uint32_t, const T&, Type2Type<T>);         \
    template void IEntry::replaceItemAt<T, T>(uint32_t, const T*, size_t, Type2Type<T>); \
    template T IEntry::itemAt<T>(uint32_t, Type2Type<T>) const;                          \
    template int32_t IEntry::itemAt<T>(uint32_t, T*, size_t, Type2Type<T>) const;
ZORCAM_FOR_EACH_VALUE_TYPE(ZORCAM_ENTRY_FAMILIES)
#undef ZORCAM_ENTRY_FAMILIES

// Deliberately no search for MRational and none for nested containers.
#define ZORCAM_ENTRY_INDEXOF(T) template int32_t IEntry::indexOf<T>(IEntry&, const T&);
ZORCAM_ENTRY_INDEXOF(unsigned char)
ZORCAM_ENTRY_INDEXOF(int)
ZORCAM_ENTRY_INDEXOF(float)
ZORCAM_ENTRY_INDEXOF(long)
ZORCAM_ENTRY_INDEXOF(double)
ZORCAM_ENTRY_INDEXOF(MPoint)
ZORCAM_ENTRY_INDEXOF(MSize)
ZORCAM_ENTRY_INDEXOF(MRect)
ZORCAM_ENTRY_INDEXOF(IMetadata::Memory)
#undef ZORCAM_ENTRY_INDEXOF

// The converting members of append-one: argument type -> stored type.
#define ZORCAM_ENTRY_CONVERT(T, U) template void IEntry::push_back<T, U>(const T&, Type2Type<U>);
ZORCAM_ENTRY_CONVERT(char, unsigned char)
ZORCAM_ENTRY_CONVERT(bool, unsigned char)
ZORCAM_ENTRY_CONVERT(int, unsigned char)
ZORCAM_ENTRY_CONVERT(unsigned int, unsigned char)
ZORCAM_ENTRY_CONVERT(int, long)
ZORCAM_ENTRY_CONVERT(unsigned int, long)
ZORCAM_ENTRY_CONVERT(unsigned long, long)
ZORCAM_ENTRY_CONVERT(int, float)
ZORCAM_ENTRY_CONVERT(unsigned int, float)
ZORCAM_ENTRY_CONVERT(double, float)
ZORCAM_ENTRY_CONVERT(unsigned int, double)
ZORCAM_ENTRY_CONVERT(bool, int)
ZORCAM_ENTRY_CONVERT(unsigned int, int)
ZORCAM_ENTRY_CONVERT(unsigned short, int)
ZORCAM_ENTRY_CONVERT(long, int)
ZORCAM_ENTRY_CONVERT(unsigned long, int)
#undef ZORCAM_ENTRY_CONVERT

}  // namespace NSCam
