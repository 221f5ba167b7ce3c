// Typed access in one call: the storage's typed families (for burst callbacks and storages of
// a caller's own) and the container's setEntry and getEntry. One body per family; the members
// differ only in type and type code.
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "Container.h"
#include "LockFreeRead.h"

namespace NSCam {

using Memory = IMetadata::Memory;

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
            std::memcpy(static_cast<void*>(&value), view.payload() + index * sizeof(T), sizeof(T));
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

}  // namespace

RowValue madeValue(uint32_t index, const void* values, size_t count, int32_t type) {
    if (index == 0xFFFFFFFFu && isBasicType(type) && count != 0 && count <= INT32_MAX / 16u)
        return RowValue::values(type, static_cast<int32_t>(count), values,
                                count * static_cast<size_t>(kTypeFacts[type].size));
    std::shared_ptr<Content> content = madeContent(index, values, count, type);
    content->markReadOnly();
    return RowValue::of(std::move(content));
}

// The storage readers run under the container's lock (burst callbacks) or on a storage of
// the caller's own: the row cannot change while it is read, so it is read in place.
template <typename T>
int Storage::readEntry(uint32_t tag, T& value, uint32_t index) const {
    const uint16_t row = tableOf(*this).rowOf(tag);
    if (row == ItemTable::kNoRow) return -1;
    value = readRow<T>(tableOf(*this), row, index);
    return 0;
}

template <typename T>
T Storage::read(uint32_t index, Type2Type<T>, std::shared_ptr<Content>& content) const {
    return readValue<T>(content.get(), index);
}

template <typename T>
int Storage::readEntries(uint32_t tag, std::vector<T>& values) const {
    const uint16_t row = tableOf(*this).rowOf(tag);
    if (row == ItemTable::kNoRow) return -1;
    const RowView view = tableOf(*this).rowAt(row);
    if (!view.hasContent()) return 0;
    const uint32_t count =
        static_cast<uint32_t>(view.object != nullptr ? view.object->mCount : view.count());
    values.resize(count);
    for (uint32_t i = 0; i < count; ++i) values.at(i) = readRow<T>(tableOf(*this), row, i);
    return 0;
}

template <typename T>
void Storage::writeEntry(uint32_t tag, const T& value, uint32_t index) {
    tableOf(*this).put(tag, madeValue(index, &value, 1, TypeCode<T>::value));
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
        tableOf(*this).update(tag, nullptr);
        return;
    }
    tableOf(*this).put(tag, madeValue(index, values, count, TypeCode<T>::value));
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

template <typename T>
int IMetadata::setEntry(IMetadata* metadata, uint32_t tag, const T& value) {
    if (metadata == nullptr) return -1;
    // What an entry for the tag holding the one value, stored with update, would store: the
    // value itself for a basic type (written over the row's when it has the same shape), a
    // content marked shared for the others.
    Core::update(*metadata, tag, madeValue(0xFFFFFFFFu, &value, 1, TypeCode<T>::value));
    return 0;  // a caller who must know reads the entry back
}

template <typename T>
bool IMetadata::getEntry(const IMetadata* metadata, uint32_t tag, T& value, size_t index) {
    if (metadata == nullptr) return false;
    if constexpr (kTypeFacts[TypeCode<T>::value].basic) {
        const int found =
            Core::readWithoutLock(*metadata, tag, TypeCode<T>::value, index, &value, sizeof(T));
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
