#pragma once
// The flat form of a container: the bytes that flatten() writes and IMetadata(buf, size)
// reads back in another process. Little-endian, nothing aligned or padded.
//
//   storage block:  magic (u32), record count N (u32), then N records
//   record:         tag (u32), length L (u32) of the content record (0: no content), L bytes
//   content record: pattern (u32), type code (i32), element count (i32), then the payload:
//                   basic types  count x element size bytes (kTypeFacts[type].size)
//                   blobs        per element a length (u32) and that many bytes
//                   containers   per element a length (u32) and a whole storage block
//
// The limits are what a receiver accepts. A sender refuses to write what a receiver would
// refuse, so the two sides never disagree about a form.
#include <cstddef>
#include <cstdint>

namespace NSCam {
namespace flat {

constexpr uint32_t kStorageMagic = 0x01245432;
constexpr size_t kStorageHeader = 8;
constexpr size_t kRecordHead = 8;
constexpr uint32_t kContentPattern = 0xAB2454CD;
constexpr size_t kContentHeader = 12;

// Rows of one table: the decoder counts records in 15 bits.
constexpr int32_t kMaxRecords = 0x7FFF;
// Nested containers inside nested containers: a content holding containers is refused
// once this many containers enclose it, so that foreign bytes cannot exhaust a stack.
constexpr int kMaxNestingDepth = 64;
// Nested containers in one form (empty slots not counted): each costs the receiver a table.
constexpr size_t kMaxNestedContainers = 8192;

}  // namespace flat
}  // namespace NSCam
