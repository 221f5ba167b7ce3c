#pragma once
// The storage block codec: a table's rows to the flat form's block and back (StorageCodec.cpp).
//
// The codec does the work; what it refuses is reported by MetadataV2.cpp, through the
// functions of `report` below, at the moment the codec meets it: those lines carry the
// container's source file and the names of the operations callers know ("flatten",
// "unflatten"), which is what engineers grep device logs for.
#include <zorcam/metadata/IMetadata.h>

#include <cstddef>
#include <cstdint>

#include "FlatBytes.h"
#include "ItemTable.h"
#include "Nested.h"

namespace NSCam {
namespace codec {

// The rows a flatten writes: all of them in row order, or the listed tags in list order
// (absent tags skipped, repeated tags repeated). `fn(tag, row)`.
template <typename Fn>
void forEachSelected(const IMetadata::Storage::ItemTable& table, const uint32_t* tags, long count,
                     Fn&& fn) {
    if (tags == nullptr) {
        table.forEachRow([&fn](const RowView& row) { fn(row.tag, row); });
        return;
    }
    const uint32_t n = static_cast<uint32_t>(count);
    for (uint32_t i = 0; i < n; ++i) {
        const uint16_t row = table.rowOf(tags[i]);
        if (row != IMetadata::Storage::ItemTable::kNoRow) fn(tags[i], table.rowAt(row));
    }
}

// The block of `s` (rows as above) into buf[0, size): its length, or -1 after the refusal
// was reported. A form a receiver would refuse is refused here, before anything is written.
long flattenBlock(const IMetadata::Storage& s, void* buf, size_t size, const uint32_t* tags,
                  long count);
// The records of a block, whose head was read by `r`, into the empty `table`: where the block
// ended, or -1 after the failure was reported (the rows read so far stay).
long decodeBlock(IMetadata::Storage::ItemTable& table, flat::Reader& r, size_t records);

}  // namespace codec

// What the codec refuses, reported by the container's source file (MetadataV2.cpp).
namespace report {

// A record whose length does not fit its 32-bit field.
void recordTooLong(const char* operation, uint32_t tag, size_t need);
// A form that breaks a limit of the receiver.
void brokenLimit(const char* operation, nested::Limit limit);
// A record of `tag` that could not be encoded.
void encodingFailed(uint32_t tag);
// A block that outgrew its buffer: the writer's position and the buffer's end.
void flattenOverflow(const void* at, const void* end);
// A block that claims more bytes than its buffer holds: -1.
long unflattenOverflow(const void* at, const void* end);

}  // namespace report
}  // namespace NSCam
