// Packets in and out of the container.
//
// Both directions go through the container's flat form (FlatForm.h), the one bulk path of its
// public interface: a packet is read by translating it into a flat form in a per-thread
// scratch range and rebuilding the container from that in one call; a container is written
// by flattening it into the scratch range (under one lock) and translating. Storing 120
// entries one by one would cost 120 locks of the container, and the translation is a copy of
// each payload with a new head.
#define LOG_TAG "Metadata2/AndroidPacket"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/FlatForm.h>

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "Diagnostics.h"
#include "PacketFields.h"

namespace NSCam {
namespace {

using packet::Entry;
using packet::EntryWalk;
using packet::Header;
using packet::kEntrySize;
using packet::kHeaderSize;
using packet::kInline;

//------------------------------------------------------------------------------------------
// The per-thread scratch range: an address range reserved once per thread and used from its
// start, whose pages the system provides as they are first touched. It is as large as any
// packet and any translation of one, so a write can flatten the container straight into it:
// sizing the flat form first (flattenSize) would cost three times the flatten itself, and a
// flatten into a buffer too small reports an error line. Pages of a use past kKeepBytes are
// handed back after it; smaller ones stay, so a stream of requests touches the same pages and
// allocates nothing. Where the range cannot be reserved, a heap buffer of the size asked for
// serves, and a write sizes the flat form first.
constexpr size_t kRangeBytes = (size_t{4} << 30) + (size_t{1} << 20);
constexpr size_t kKeepBytes = size_t{1} << 20;

class Scratch {
public:
    ~Scratch() {
        if (mRange) munmap(mRange, kRangeBytes);
    }
    // The whole range, or null when there is none.
    uint8_t* range() {
        if (!mTried) {
            mTried = true;
            void* p = mmap(nullptr, kRangeBytes, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            mRange = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
        }
        return mRange;
    }
    static constexpr size_t rangeSize() { return kRangeBytes; }
    // At least `size` bytes: the range when it holds them, else a heap buffer (null when
    // there is no memory for it).
    uint8_t* get(size_t size) {
        if (range() && size <= kRangeBytes) return mRange;
        if (size > mHeapCapacity) {
            mHeap.reset(new (std::nothrow) uint8_t[size]);
            mHeapCapacity = mHeap ? size : 0;
        }
        return mHeap.get();
    }
    // After a use of `used` bytes from the start.
    void done(size_t used) {
        if (used <= kKeepBytes) return;
        if (mRange) madvise(mRange, std::min(used, kRangeBytes), MADV_DONTNEED);
        mHeap.reset();
        mHeapCapacity = 0;
    }

private:
    uint8_t* mRange = nullptr;
    bool mTried = false;
    std::unique_ptr<uint8_t[]> mHeap;
    size_t mHeapCapacity = 0;
};

// Two per thread: a write holds its flat form in one and the order of its entries in the other.
Scratch& flatScratch() {
    thread_local Scratch s;
    return s;
}
Scratch& planScratch() {
    thread_local Scratch s;
    return s;
}

struct DoneOnExit {
    Scratch& s;
    size_t used = 0;
    ~DoneOnExit() { s.done(used); }
};

// Copies a payload; the sizes of one element of each basic type as fixed sizes, inline.
inline void copyPayload(uint8_t* to, const uint8_t* from, size_t n) {
    switch (n) {
        case 1:
            std::memcpy(to, from, 1);
            break;
        case 4:
            std::memcpy(to, from, 4);
            break;
        case 8:
            std::memcpy(to, from, 8);
            break;
        case 16:
            std::memcpy(to, from, 16);
            break;
        default:
            std::memcpy(to, from, n);
            break;
    }
}

uint32_t get32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

const AndroidTagMap& defaultMap() {
    static const AndroidTagMap map;
    return map;
}

// What one call left out: the count, the first (for its warning line), and the caller's list.
struct LeftOut {
    AndroidLeftOutList* list;
    uint32_t count = 0;
    uint32_t firstTag = 0;
    AndroidLeftOutReason firstReason = AndroidLeftOutReason::kNoAndroidType;

    explicit LeftOut(AndroidLeftOutList* l) : list(l) {
        if (list) {
            list->count = 0;
            list->entries.clear();
        }
    }
    void note(uint32_t tag, int32_t type, AndroidLeftOutReason reason) {
        if (count++ == 0) {
            firstTag = tag;
            firstReason = reason;
        }
        if (list) {
            list->count = count;
            list->entries.push_back(AndroidLeftOut{tag, type, reason});
        }
    }
};

// How many elements of the container's type one group of int32 values makes.
uint32_t groupOf(AndroidShape shape) {
    return shape == AndroidShape::kRect ? 4 : shape == AndroidShape::kPlain ? 1 : 2;
}
int32_t typeOfShape(AndroidShape shape) {
    switch (shape) {
        case AndroidShape::kRect:
            return TYPE_MRect;
        case AndroidShape::kSize:
            return TYPE_MSize;
        case AndroidShape::kPoint:
            return TYPE_MPoint;
        default:
            return TYPE_INT32;
    }
}

}  // namespace

//------------------------------------------------------------------------------------------

const char* androidTypeName(uint8_t type) {
    static const char* const kNames[ANDROID_NUM_TYPES] = {"byte",  "int32",  "float",
                                                          "int64", "double", "rational"};
    return type < ANDROID_NUM_TYPES ? kNames[type] : nullptr;
}

size_t androidTypeSize(uint8_t type) {
    return type < ANDROID_NUM_TYPES ? packet::kTypeSize[type] : 0;
}

const char* androidLeftOutReasonText(AndroidLeftOutReason reason) {
    switch (reason) {
        case AndroidLeftOutReason::kNoAndroidType:
            return "no Android type";
        case AndroidLeftOutReason::kNoShape:
            return "no shape for it in the tag map";
        case AndroidLeftOutReason::kWrongType:
            return "not the type of the tag's definition";
        case AndroidLeftOutReason::kExcluded:
            return "excluded by the tag map";
        case AndroidLeftOutReason::kNumberTaken:
            return "its number belongs to another tag in the tag map";
        case AndroidLeftOutReason::kTooLarge:
            return "too many elements";
    }
    return "?";
}

//------------------------------------------------------------------------------------------
// Reading.

namespace {

// Where an entry of the packet goes in the container, and in which shape. Without rules (the
// usual map) this is the tag itself and, with the platform's shapes, the one its definition
// gives: no call, no search.
inline AndroidTagMap::Route toContainer(const AndroidTagMap& map, const Entry& e, uint32_t& tag,
                                        AndroidShape& shape) {
    if (map.ruleCount() == 0) {
        tag = e.tag;
        shape = map.platformShapes() && e.info ? e.info->platformShape : AndroidShape::kPlain;
        return AndroidTagMap::Route::kGo;
    }
    return map.toContainer(e.tag, tag, shape);
}

void fillHeader(AndroidPacketCheck& c, const Header& h) {
    c.ok = true;
    c.offset = 0;
    c.field = "";
    c.entry = -1;
    c.reason = "";
    c.size = h.size;
    c.flags = h.flags;
    c.entryCount = h.entryCount;
    c.entryCapacity = h.entryCapacity;
    c.dataCount = h.dataCount;
    c.dataCapacity = h.dataCapacity;
    c.vendorId = h.vendorId;
}

}  // namespace

AndroidPacketCheck checkAndroidPacket(const void* buf, size_t size) {
    AndroidPacketCheck c{};
    const auto* p = static_cast<const uint8_t*>(buf);
    Header h;
    if (!p) return packet::refuse(0, "size", -1, "no bytes");
    if (!packet::checkHeader(p, size, h, c)) return c;
    EntryWalk walk(p, h);
    Entry e;
    for (uint32_t i = 0; i < h.entryCount; ++i)
        if (!walk.next(i, e, c)) return c;
    fillHeader(c, h);
    return c;
}

bool androidPacketEntry(const void* buf, size_t size, uint32_t index, AndroidPacketEntry& entry) {
    const auto* p = static_cast<const uint8_t*>(buf);
    Header h;
    AndroidPacketCheck c;
    Entry e;
    if (!p || !packet::checkHeader(p, size, h, c) || index >= h.entryCount ||
        !packet::checkEntry(p, h, index, e, c))
        return false;
    entry = AndroidPacketEntry{e.tag, e.type, e.count, e.payload, e.bytes};
    return true;
}

AndroidReadResult readAndroidPacket(const void* buf, size_t size, IMetadata& out,
                                    const AndroidTagMap* map, AndroidLeftOutList* leftOut) {
    AndroidReadResult r{};
    LeftOut left(leftOut);
    const AndroidTagMap& tags = map ? *map : defaultMap();
    const auto* p = static_cast<const uint8_t*>(buf);
    Header h;
    const auto refused = [&]() {
        left = LeftOut(leftOut);  // nothing was read, so nothing was left out
        META_LOGE_AS("readAndroidPacket", "refused an android packet at byte %zu (%s): %s",
                     r.check.offset, r.check.field, r.check.reason);
        out.clear();
        return r;
    };
    if (!p) {
        r.check = packet::refuse(0, "size", -1, "no bytes");
        return refused();
    }
    if (!packet::checkHeader(p, size, h, r.check)) return refused();
    if (h.entryCount > static_cast<uint32_t>(flat::kMaxRecords)) {
        r.check = packet::refuse(offsetof(Header, entryCount), "entry_count", -1,
                                 "more entries than a container holds (32767)");
        return refused();
    }

    // The flat form takes 8 bytes of block head, and per entry 20 bytes of heads and its
    // payload: up to 4 bytes inline, and out-of-line payloads that the walk keeps within
    // data_count together. So the scratch is sized from checked fields only. Inline payloads
    // are copied as the whole 4-byte field (the next record overwrites what is not theirs).
    Scratch& scratch = flatScratch();
    DoneOnExit done{scratch};
    const size_t bound = flat::kStorageHeader +
                         (flat::kRecordHead + flat::kContentHeader + kInline) *
                             size_t{h.entryCount} +
                         h.dataCount;
    uint8_t* const flatBytes = scratch.get(bound);
    if (!flatBytes) {
        r.check = packet::refuse(0, "size", -1, "no memory to read the packet");
        return refused();
    }
    uint8_t* at = flatBytes + flat::kStorageHeader;

    EntryWalk walk(p, h);
    Entry e;
    uint32_t records = 0;
    for (uint32_t i = 0; i < h.entryCount; ++i) {
        if (!walk.next(i, e, r.check)) {
            done.used = static_cast<size_t>(at - flatBytes);
            return refused();
        }
        uint32_t tag;
        AndroidShape shape;
        const AndroidTagMap::Route route = toContainer(tags, e, tag, shape);
        if (route != AndroidTagMap::Route::kGo) {
            left.note(e.tag, e.type,
                      route == AndroidTagMap::Route::kExcluded
                          ? AndroidLeftOutReason::kExcluded
                          : AndroidLeftOutReason::kNumberTaken);
            continue;
        }
        if (e.count > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) {
            left.note(e.tag, e.type, AndroidLeftOutReason::kTooLarge);
            continue;
        }
        // int32 values the map shapes, when they make whole groups; otherwise they stay int32.
        int32_t type = e.type;
        uint32_t count = e.count;
        if (shape != AndroidShape::kPlain && e.type == ANDROID_TYPE_INT32) {
            const uint32_t group = groupOf(shape);
            if (count % group == 0) {
                type = typeOfShape(shape);
                count /= group;
            }
        }
        // Word by word (see the writer's loop for why not through a staged head).
        const uint32_t length = static_cast<uint32_t>(flat::kContentHeader + e.bytes);
        const uint32_t pattern = flat::kContentPattern;
        std::memcpy(at, &tag, 4);
        std::memcpy(at + 4, &length, 4);
        std::memcpy(at + 8, &pattern, 4);
        std::memcpy(at + 12, &type, 4);
        std::memcpy(at + 16, &count, 4);
        at += flat::kRecordHead + flat::kContentHeader;
        if (e.bytes <= kInline)
            std::memcpy(at, e.payload, kInline);
        else
            copyPayload(at, e.payload, e.bytes);
        at += e.bytes;
        ++records;
    }
    const uint32_t blockHead[2] = {flat::kStorageMagic, records};
    std::memcpy(flatBytes, blockHead, sizeof(blockHead));

    const long length = at - flatBytes;
    done.used = static_cast<size_t>(length);
    if (out.unflatten(flatBytes, static_cast<size_t>(length)) != length) {
        // Not reached: the form above is one the decoder accepts. Said, not hidden.
        r.check = packet::refuse(0, "size", -1, "the container did not take the entries");
        return refused();
    }
    r.ok = true;
    r.entries = records;
    r.leftOut = left.count;
    fillHeader(r.check, h);
    if (left.count)
        META_LOGW("%u entries of the android packet have no place in the container; the first: "
                  "tag 0x%08x (%s)",
                  left.count, left.firstTag, androidLeftOutReasonText(left.firstReason));
    return r;
}

//------------------------------------------------------------------------------------------
// Writing.

namespace {

// One entry of the packet to write: where its values are in the flat form.
struct Planned {
    uint32_t tag;
    uint32_t row;  // in the container: the order of a row-order packet, and ties when sorting
    uint32_t count;
    uint8_t type;
    const uint8_t* payload;
    uint64_t bytes;
};

struct Plan {
    Planned* entries = nullptr;
    uint32_t count = 0;
    uint64_t dataBytes = 0;  // the data area: out-of-line payloads, each rounded up to 8
    bool ok = false;
    const char* why = "";
};

// The container's flat form, flattened under one lock, in the scratch range (sized first
// only where there is no range).
bool flattenToScratch(const IMetadata& meta, DoneOnExit& done, const uint8_t*& bytes,
                      size_t& size) {
    struct Job {
        Scratch* scratch;
        const uint8_t* bytes;
        size_t size;
    } job{&done.s, nullptr, 0};
    const int status = meta.burstRead([&job](const IMetadata::BurstEntry& storage) {
        uint8_t* buf = job.scratch->range();
        size_t room = Scratch::rangeSize();
        if (!buf) {
            const long n = storage.flattenSize(nullptr, -1);
            if (n < 0) return 1;
            room = static_cast<size_t>(n);
            buf = job.scratch->get(room);
            if (!buf) return 1;
        }
        const long n = storage.flatten(buf, room, nullptr, -1);
        if (n < 0) return 1;
        job.bytes = buf;
        job.size = static_cast<size_t>(n);
        return 0;
    });
    if (status == -1) {  // a container that never held a table: empty
        job.bytes = nullptr;
        job.size = 0;
    } else if (status != 0) {
        return false;
    }
    bytes = job.bytes;
    size = job.size;
    done.used = size;
    return true;
}

// Where a row of the container goes in the packet: as toContainer, the other way.
inline AndroidTagMap::Route toAndroid(const AndroidTagMap& map, uint32_t tag, uint32_t& androidTag,
                                      AndroidShape& shape, const AndroidTagInfo*& info) {
    AndroidTagMap::Route route;
    if (map.ruleCount() == 0) {
        androidTag = tag;
        info = androidtags::find(tag);
        shape = map.platformShapes() && info ? info->platformShape : AndroidShape::kPlain;
        return AndroidTagMap::Route::kGo;
    }
    route = map.toAndroid(tag, androidTag, shape);
    info = androidtags::find(androidTag);
    return route;
}

// What goes into the packet, in order. The flat form comes from the library itself; its
// fields are still bounded by its size as they are read.
Plan plan(const uint8_t* form, size_t size, const AndroidWriteOptions& options, LeftOut& left,
          DoneOnExit& planDone) {
    Plan plan;
    const AndroidTagMap& tags = options.map ? *options.map : defaultMap();
    uint32_t records = 0;
    if (size >= flat::kStorageHeader) {
        const int32_t n = static_cast<int32_t>(get32(form + 4));
        records = n > 0 ? static_cast<uint32_t>(n) : 0;
    }
    planDone.used = sizeof(Planned) * records;
    auto* out = reinterpret_cast<Planned*>(planDone.s.get(planDone.used));
    if (records && !out) {
        plan.why = "no memory for the packet's entries";
        return plan;
    }
    plan.entries = out;
    size_t pos = flat::kStorageHeader;
    for (uint32_t row = 0; row < records; ++row) {
        if (size - pos < flat::kRecordHead) {
            plan.why = "the container's flat form ended early";
            return plan;
        }
        const uint32_t tag = get32(form + pos);
        const uint32_t length = get32(form + pos + 4);
        pos += flat::kRecordHead;
        if (size - pos < length) {
            plan.why = "the container's flat form ended early";
            return plan;
        }
        const uint8_t* content = form + pos;
        pos += length;
        if (length < flat::kContentHeader) {  // a row without content: no type to give it
            left.note(tag, -1, AndroidLeftOutReason::kNoAndroidType);
            continue;
        }
        const int32_t type = static_cast<int32_t>(get32(content + 4));
        const uint32_t count = get32(content + 8);
        uint32_t androidTag;
        AndroidShape shape;
        const AndroidTagInfo* info;
        const AndroidTagMap::Route route = toAndroid(tags, tag, androidTag, shape, info);
        if (route != AndroidTagMap::Route::kGo) {
            left.note(tag, type,
                      route == AndroidTagMap::Route::kExcluded
                          ? AndroidLeftOutReason::kExcluded
                          : AndroidLeftOutReason::kNumberTaken);
            continue;
        }
        // The Android type and count of the values, or why they have none.
        uint8_t androidType;
        uint64_t androidCount = count;
        if (type >= TYPE_UINT8 && type <= TYPE_MRational) {
            androidType = static_cast<uint8_t>(type);
        } else if ((type == TYPE_MRect || type == TYPE_MSize || type == TYPE_MPoint) &&
                   typeOfShape(shape) == type) {
            androidType = ANDROID_TYPE_INT32;
            androidCount = uint64_t{count} * groupOf(shape);
        } else {
            left.note(tag, type,
                      isBasicType(type) ? AndroidLeftOutReason::kNoShape
                                        : AndroidLeftOutReason::kNoAndroidType);
            continue;
        }
        if (info && info->type != androidType) {
            left.note(tag, type, AndroidLeftOutReason::kWrongType);
            continue;
        }
        const uint64_t bytes = androidCount * packet::kTypeSize[androidType];
        if (androidCount > std::numeric_limits<uint32_t>::max() ||
            length - flat::kContentHeader < bytes) {
            left.note(tag, type, AndroidLeftOutReason::kTooLarge);
            continue;
        }
        new (&out[plan.count++]) Planned{androidTag,  row, static_cast<uint32_t>(androidCount),
                                         androidType, content + flat::kContentHeader, bytes};
        if (bytes > kInline) plan.dataBytes += packet::alignUp(bytes);
    }
    if (options.sorted)
        std::sort(out, out + plan.count, [](const Planned& a, const Planned& b) {
            return a.tag != b.tag ? a.tag < b.tag : a.row < b.row;
        });
    plan.ok = true;
    return plan;
}

// The compact packet's size: header, entries, data; -1 when a u32 cannot hold it.
long packetSize(const Plan& plan) {
    const uint64_t total = kHeaderSize + kEntrySize * uint64_t{plan.count} + plan.dataBytes;
    return total > std::numeric_limits<uint32_t>::max() ? -1 : static_cast<long>(total);
}

}  // namespace

long androidPacketSize(const IMetadata& meta, const AndroidWriteOptions& options,
                       AndroidLeftOutList* leftOut) {
    DoneOnExit flatDone{flatScratch()}, planDone{planScratch()};
    LeftOut left(leftOut);
    const uint8_t* form;
    size_t size;
    if (!flattenToScratch(meta, flatDone, form, size)) return -1;
    const Plan p = plan(form, size, options, left, planDone);
    return p.ok ? packetSize(p) : -1;
}

long writeAndroidPacket(const IMetadata& meta, void* buf, size_t size,
                        const AndroidWriteOptions& options, AndroidLeftOutList* leftOut) {
    DoneOnExit flatDone{flatScratch()}, planDone{planScratch()};
    LeftOut left(leftOut);
    if (!buf) {
        META_LOGE("no buffer to write the android packet to");
        return -1;
    }
    const uint8_t* form;
    size_t formSize;
    if (!flattenToScratch(meta, flatDone, form, formSize)) {
        META_LOGE("the container could not be flattened for an android packet");
        return -1;
    }
    const Plan p = plan(form, formSize, options, left, planDone);
    if (!p.ok) {
        META_LOGE("cannot write an android packet: %s", p.why);
        return -1;
    }
    const long total = packetSize(p);
    if (total < 0) {
        META_LOGE("an android packet holds at most 4 GiB; these entries need more");
        return -1;
    }
    if (static_cast<size_t>(total) > size) {
        META_LOGE("the android packet needs %ld bytes, the buffer holds %zu", total, size);
        return -1;
    }

    auto* const out = static_cast<uint8_t*>(buf);
    const uint32_t dataStart = static_cast<uint32_t>(kHeaderSize + kEntrySize * p.count);
    const uint32_t dataBytes = static_cast<uint32_t>(p.dataBytes);
    Header h{};
    h.size = static_cast<uint32_t>(total);
    h.version = AndroidPacketLayout::kVersion;
    h.flags = options.sorted ? AndroidPacketLayout::kFlagSorted : 0;
    h.entryCount = p.count;
    h.entryCapacity = p.count;
    h.entriesStart = static_cast<uint32_t>(kHeaderSize);
    h.dataCount = dataBytes;
    h.dataCapacity = dataBytes;
    h.dataStart = dataStart;
    h.vendorId = options.vendorId;
    std::memcpy(out, &h, sizeof(h));

    uint8_t* entry = out + kHeaderSize;
    uint8_t* data = out + dataStart;
    uint32_t offset = 0;
    // Field by field, straight into the packet (a staged entry read back in another width
    // would stall the processor on every entry).
    for (uint32_t i = 0; i < p.count; ++i, entry += kEntrySize) {
        const Planned& e = p.entries[i];
        const uint32_t typeWord = e.type;  // the type byte and three reserved zero bytes
        std::memcpy(entry + offsetof(packet::RawEntry, tag), &e.tag, 4);
        std::memcpy(entry + offsetof(packet::RawEntry, count), &e.count, 4);
        std::memcpy(entry + offsetof(packet::RawEntry, type), &typeWord, 4);
        uint8_t* field = entry + offsetof(packet::RawEntry, data);
        if (e.bytes <= kInline) {
            std::memset(field, 0, kInline);
            copyPayload(field, e.payload, static_cast<size_t>(e.bytes));
        } else {
            std::memcpy(field, &offset, sizeof(offset));
            // The reserved tail of a payload that is not a multiple of 8 bytes is zero: its
            // last word is cleared before the payload is copied over it.
            const uint64_t reserved = packet::alignUp(e.bytes);
            if (reserved != e.bytes) std::memset(data + reserved - 8, 0, 8);
            copyPayload(data, e.payload, static_cast<size_t>(e.bytes));
            data += reserved;
            offset += static_cast<uint32_t>(reserved);
        }
    }
    if (left.count)
        META_LOGW("%u entries have no place in the android packet; the first: tag 0x%08x (%s)",
                  left.count, left.firstTag, androidLeftOutReasonText(left.firstReason));
    return total;
}

}  // namespace NSCam
