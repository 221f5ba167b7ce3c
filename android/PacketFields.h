#pragma once
// The packet's fields and the rules a reader enforces, in one place: the check, the entry view,
// the reader and the writer all go through these, so that what the check accepts is exactly
// what the reader reads. Fields are copied out of the bytes (memcpy), never read in place: a
// packet may arrive at any address.
#include <zorcam/metadata/AndroidPacket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "AndroidTagTable.h"

namespace NSCam {
namespace packet {

constexpr size_t kHeaderSize = AndroidPacketLayout::kHeaderSize;
constexpr size_t kEntrySize = AndroidPacketLayout::kEntrySize;
constexpr size_t kInline = AndroidPacketLayout::kInlineBytes;
constexpr uint64_t kAlign = AndroidPacketLayout::kDataAlignment;

// The header as it lies in memory (host byte order).
struct Header {
    uint32_t size;
    uint32_t version;
    uint32_t flags;
    uint32_t entryCount;
    uint32_t entryCapacity;
    uint32_t entriesStart;
    uint32_t dataCount;
    uint32_t dataCapacity;
    uint32_t dataStart;
    uint32_t padding;
    uint64_t vendorId;
};
static_assert(sizeof(Header) == kHeaderSize && offsetof(Header, entryCount) == 12 &&
                  offsetof(Header, dataStart) == 32 && offsetof(Header, vendorId) == 40,
              "the packet header's layout");

// One entry as it lies in memory.
struct RawEntry {
    uint32_t tag;
    uint32_t count;
    uint8_t data[4];  // the payload (up to 4 bytes) or its u32 offset in the data area
    uint8_t type;
    uint8_t reserved[3];
};
static_assert(sizeof(RawEntry) == kEntrySize && offsetof(RawEntry, data) == 8 &&
                  offsetof(RawEntry, type) == 12,
              "the packet entry's layout");

constexpr uint8_t kTypeSize[ANDROID_NUM_TYPES] = {1, 4, 4, 8, 8, 8};
constexpr bool sameCode(int32_t android, int32_t container) {
    return android == container;
}
static_assert(sameCode(ANDROID_TYPE_BYTE, TYPE_UINT8) && sameCode(ANDROID_TYPE_INT32, TYPE_INT32) &&
                  sameCode(ANDROID_TYPE_FLOAT, TYPE_FLOAT) &&
                  sameCode(ANDROID_TYPE_INT64, TYPE_INT64) &&
                  sameCode(ANDROID_TYPE_DOUBLE, TYPE_DOUBLE) &&
                  sameCode(ANDROID_TYPE_RATIONAL, TYPE_MRational),
              "the packet's type codes are the container's for the same values");

constexpr uint64_t alignUp(uint64_t n) {
    return (n + kAlign - 1) & ~(kAlign - 1);
}

inline AndroidPacketCheck refuse(size_t offset, const char* field, int64_t entry,
                                 const char* reason) {
    AndroidPacketCheck c{};
    c.offset = offset;
    c.field = field;
    c.entry = entry;
    c.reason = reason;
    return c;
}

// The header's rules. On success `h` holds the header and `c` is untouched.
inline bool checkHeader(const uint8_t* p, size_t received, Header& h, AndroidPacketCheck& c) {
    if (received < kHeaderSize) {
        c = refuse(0, "size", -1, "fewer bytes than the 48-byte header");
        return false;
    }
    std::memcpy(&h, p, sizeof(h));
    if (h.size < kHeaderSize) {
        c = refuse(offsetof(Header, size), "size", -1, "smaller than the 48-byte header");
    } else if (h.size > received) {
        c = refuse(offsetof(Header, size), "size", -1, "larger than the bytes received");
    } else if (h.version != AndroidPacketLayout::kVersion) {
        c = refuse(offsetof(Header, version), "version", -1, "not version 1");
    } else if (h.flags & ~AndroidPacketLayout::kFlagSorted) {
        c = refuse(offsetof(Header, flags), "flags", -1, "flag bits other than bit 0 (sorted)");
    } else if (h.entryCount > h.entryCapacity) {
        c = refuse(offsetof(Header, entryCount), "entry_count", -1,
                   "more entries than entry_capacity");
    } else if (h.dataCount > h.dataCapacity) {
        c = refuse(offsetof(Header, dataCount), "data_count", -1, "more data than data_capacity");
    } else if (h.entriesStart < kHeaderSize) {
        c = refuse(offsetof(Header, entriesStart), "entries_start", -1,
                   "the entries would overlap the header");
    } else if (h.entriesStart % kAlign != 0) {
        c = refuse(offsetof(Header, entriesStart), "entries_start", -1, "not 8-aligned");
    } else if (h.dataStart % kAlign != 0) {
        c = refuse(offsetof(Header, dataStart), "data_start", -1, "not 8-aligned");
    } else if (uint64_t{h.entriesStart} + kEntrySize * uint64_t{h.entryCapacity} > h.dataStart) {
        c = refuse(offsetof(Header, entryCapacity), "entry_capacity", -1,
                   "the entry array runs past data_start");
    } else if (uint64_t{h.dataStart} + h.dataCapacity > h.size) {
        c = refuse(offsetof(Header, dataCapacity), "data_capacity", -1,
                   "the data area runs past size");
    } else if (h.padding != 0) {
        c = refuse(offsetof(Header, padding), "padding", -1, "not 0");
    } else {
        return true;
    }
    return false;
}

// An entry that passed its rules.
struct Entry {
    uint32_t tag;
    uint8_t type;
    uint32_t count;
    const uint8_t* payload;  // in the packet: the entry's data field, or the data area
    size_t bytes;
    uint8_t known;  // the definition's type and platform shape, or androidtags::kUnknown
};

// The rules of one entry. Those that span entries (sorted order, payloads that together do
// not exceed data_count) are the caller's, through EntryWalk.
inline bool checkEntry(const uint8_t* p, const Header& h, uint32_t index, Entry& e,
                       AndroidPacketCheck& c) {
    const size_t at = h.entriesStart + kEntrySize * static_cast<size_t>(index);
    // Field by field, as words: the type byte and the reserved bytes in one.
    uint32_t tag, count, word, typeWord;
    std::memcpy(&tag, p + at + offsetof(RawEntry, tag), 4);
    std::memcpy(&count, p + at + offsetof(RawEntry, count), 4);
    std::memcpy(&word, p + at + offsetof(RawEntry, data), 4);
    std::memcpy(&typeWord, p + at + offsetof(RawEntry, type), 4);
    const uint32_t type = typeWord & 0xFF;
    const int64_t i = index;
    if (type >= ANDROID_NUM_TYPES) {
        c = refuse(at + offsetof(RawEntry, type), "type", i, "unknown element type");
        return false;
    }
    if (typeWord >> 8) {
        c = refuse(at + offsetof(RawEntry, reserved), "reserved", i, "not 0");
        return false;
    }
    // At most 2^32 x 8 bytes: 64-bit arithmetic cannot overflow.
    const uint64_t bytes = uint64_t{count} * kTypeSize[type];
    if (bytes <= kInline) {
        // Unused inline bytes are 0, and so is the whole field of an entry without elements
        // (little-endian: byte b of the field is bits 8b .. 8b + 7 of the word).
        const uint32_t unused = bytes == kInline ? 0 : ~uint32_t{0} << (8 * bytes);
        if (word & unused) {
            c = refuse(at + offsetof(RawEntry, data), "data", i,
                       count == 0 ? "an entry without elements carries a non-zero offset"
                                  : "unused inline payload bytes not 0");
            return false;
        }
        e.payload = p + at + offsetof(RawEntry, data);
    } else {
        if (bytes > h.dataCapacity) {
            c = refuse(at + offsetof(RawEntry, count), "count", i,
                       "count x element size exceeds data_capacity");
            return false;
        }
        if (word % kAlign != 0) {
            c = refuse(at + offsetof(RawEntry, data), "data", i, "payload offset not 8-aligned");
            return false;
        }
        if (uint64_t{word} + bytes > h.dataCapacity) {
            c = refuse(at + offsetof(RawEntry, data), "data", i, "payload runs past data_capacity");
            return false;
        }
        if (uint64_t{word} + bytes > h.dataCount) {
            c = refuse(at + offsetof(RawEntry, data), "data", i, "payload runs past data_count");
            return false;
        }
        e.payload = p + h.dataStart + word;
    }
    // The platform's definitions fix the type of the tags they know (none in vendor sections).
    const uint8_t known = androidtags::typeAndShape(tag);
    if (known != androidtags::kUnknown && androidtags::typeOf(known) != type) {
        c = refuse(at + offsetof(RawEntry, type), "type", i,
                   "not the type the tag's definition gives");
        return false;
    }
    e.tag = tag;
    e.type = static_cast<uint8_t>(type);
    e.count = count;
    e.bytes = static_cast<size_t>(bytes);
    e.known = known;
    return true;
}

// Walks the entries in use, with the rules that span them: in a packet flagged sorted, tags
// never go down; and the out-of-line payloads together fit in data_count, so that payloads
// cannot overlap to make a reader copy more than the packet holds.
class EntryWalk {
public:
    // `previous` and `payloads`: the tag of the entry before and the out-of-line bytes so far,
    // for a walk that starts in the middle.
    EntryWalk(const uint8_t* p, const Header& h, uint32_t previous = 0, uint64_t payloads = 0)
        : mP(p),
          mH(h),
          mSorted((h.flags & AndroidPacketLayout::kFlagSorted) != 0),
          mPrevious(previous),
          mPayloads(payloads) {}

    bool next(uint32_t index, Entry& e, AndroidPacketCheck& c) {
        if (!checkEntry(mP, mH, index, e, c)) return false;
        const size_t at = mH.entriesStart + kEntrySize * static_cast<size_t>(index);
        if (mSorted && index > 0 && e.tag < mPrevious) {
            c = refuse(at + offsetof(RawEntry, tag), "tag", index,
                       "out of order in a packet flagged sorted");
            return false;
        }
        mPrevious = e.tag;
        if (e.bytes > kInline) {
            mPayloads += e.bytes;
            if (mPayloads > mH.dataCount) {
                c = refuse(at + offsetof(RawEntry, data), "data", index,
                           "payloads together exceed data_count (they overlap)");
                return false;
            }
        }
        return true;
    }

private:
    const uint8_t* mP;
    const Header& mH;
    bool mSorted;
    uint32_t mPrevious;
    uint64_t mPayloads;
};

}  // namespace packet
}  // namespace NSCam
