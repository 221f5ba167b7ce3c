// Packets in and out of the container.
//
// Both directions go through the container's flat form (FlatForm.h), the one bulk path of its
// public interface: a packet is read by translating it into a flat form in a per-thread
// scratch buffer and rebuilding the container from that in one call; a container is written
// by flattening it into the scratch buffer (under one lock, with its size) and translating.
// Storing 120 entries one by one would cost 120 locks of the container, and the translation
// is a copy of each payload with a new head.
#define LOG_TAG "Metadata2/AndroidPacket"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/FlatForm.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

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
// The per-thread scratch buffer. It keeps its bytes between calls, so that a steady stream of
// requests allocates nothing; one grown past kKeepBytes for a large packet is let go after
// that call.
constexpr size_t kKeepBytes = size_t{1} << 20;

class Scratch {
public:
    uint8_t* get(size_t size) {
        if (size > mCapacity) {
            // Rounded up, so that packets growing a little do not allocate each time.
            const size_t capacity = std::max(size, 2 * mCapacity);
            mBytes.reset(new (std::nothrow) uint8_t[capacity]);
            mCapacity = mBytes ? capacity : 0;
        }
        return mBytes.get();
    }
    void trim() {
        if (mCapacity > kKeepBytes) {
            mBytes.reset();
            mCapacity = 0;
        }
    }

private:
    std::unique_ptr<uint8_t[]> mBytes;
    size_t mCapacity = 0;
};

// A scratch buffer of its own for each use, since a write uses two at once (the flat form and
// the order of its entries).
Scratch& flatScratch() {
    thread_local Scratch s;
    return s;
}

struct TrimOnExit {
    Scratch& s;
    ~TrimOnExit() { s.trim(); }
};

void put32(uint8_t*& at, uint32_t v) {
    std::memcpy(at, &v, 4);
    at += 4;
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
    c.ok = true;
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

//------------------------------------------------------------------------------------------
// Reading.

AndroidReadResult readAndroidPacket(const void* buf, size_t size, IMetadata& out,
                                    const AndroidTagMap* map, AndroidLeftOutList* leftOut) {
    AndroidReadResult r{};
    LeftOut left(leftOut);
    const AndroidTagMap& tags = map ? *map : defaultMap();
    const auto* p = static_cast<const uint8_t*>(buf);
    Header h;
    const auto refused = [&]() {
        left = LeftOut(leftOut);  // nothing was read, so nothing was left out
        META_LOGE("refused an android packet at byte %zu (%s): %s", r.check.offset,
                  r.check.field, r.check.reason);
        out.clear();
        return r;
    };
    if (!p) {
        r.check = packet::refuse(0, "size", -1, "no bytes");
        return refused();
    }
    if (!packet::checkHeader(p, size, h, r.check)) return refused();

    // The flat form is at most 8 bytes of block head, and per entry 20 bytes of heads and up
    // to 4 inline bytes, plus the out-of-line payloads, which the walk keeps within
    // data_count: the scratch buffer is sized from checked fields only.
    Scratch& scratch = flatScratch();
    const TrimOnExit trim{scratch};
    const size_t bound = flat::kStorageHeader +
                         (flat::kRecordHead + flat::kContentHeader + kInline) * h.entryCount +
                         h.dataCount;
    uint8_t* const flatBytes = scratch.get(bound);
    if (!flatBytes) {
        r.check = packet::refuse(0, "size", -1, "no memory for reading the packet");
        return refused();
    }
    uint8_t* at = flatBytes + flat::kStorageHeader;

    EntryWalk walk(p, h);
    Entry e;
    uint32_t records = 0;
    for (uint32_t i = 0; i < h.entryCount; ++i) {
        if (!walk.next(i, e, r.check)) return refused();
        uint32_t tag;
        AndroidShape shape;
        const AndroidTagMap::Route route = tags.toContainer(e.tag, tag, shape);
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
        if (e.type == ANDROID_TYPE_INT32 && shape != AndroidShape::kPlain) {
            const uint32_t group = groupOf(shape);
            if (count % group == 0) {
                type = typeOfShape(shape);
                count /= group;
            }
        }
        put32(at, tag);
        put32(at, static_cast<uint32_t>(flat::kContentHeader + e.bytes));
        put32(at, flat::kContentPattern);
        put32(at, static_cast<uint32_t>(type));
        put32(at, count);
        std::memcpy(at, e.payload, e.bytes);
        at += e.bytes;
        ++records;
    }
    if (records > static_cast<uint32_t>(flat::kMaxRecords)) {
        r.check = packet::refuse(offsetof(Header, entryCount), "entry_count", -1,
                                 "more entries than a container holds (32767)");
        return refused();
    }
    uint8_t* head = flatBytes;
    put32(head, flat::kStorageMagic);
    put32(head, records);

    const long length = at - flatBytes;
    if (out.unflatten(flatBytes, static_cast<size_t>(length)) != length) {
        // Not reached: the form above is one the decoder accepts. Said, not hidden.
        r.check = packet::refuse(0, "size", -1, "the container did not take the entries");
        return refused();
    }
    r.ok = true;
    r.entries = records;
    r.check.ok = true;
    r.check.field = "";
    r.check.entry = -1;
    r.check.reason = "";
    r.check.size = h.size;
    r.check.flags = h.flags;
    r.check.entryCount = h.entryCount;
    r.check.entryCapacity = h.entryCapacity;
    r.check.dataCount = h.dataCount;
    r.check.dataCapacity = h.dataCapacity;
    r.check.vendorId = h.vendorId;
    r.leftOut = left.count;
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

// The plan's own scratch buffer: the flat form it points into is in the other one.
Scratch& planScratch() {
    thread_local Scratch s;
    return s;
}

struct Plan {
    Planned* entries = nullptr;
    uint32_t count = 0;
    uint64_t dataBytes = 0;  // the data area: out-of-line payloads, each rounded up to 8
    bool ok = false;
    const char* why = "";
};

// The container's flat form, flattened under one lock with its size, in the scratch buffer.
bool flattenToScratch(const IMetadata& meta, const uint8_t*& bytes, size_t& size) {
    struct Job {
        Scratch* scratch;
        const uint8_t* bytes;
        size_t size;
    } job{&flatScratch(), nullptr, 0};
    const int status = meta.burstRead([&job](const IMetadata::BurstEntry& storage) {
        const long n = storage.flattenSize(nullptr, -1);
        if (n < 0) return 1;
        uint8_t* buf = job.scratch->get(static_cast<size_t>(n));
        if (!buf || storage.flatten(buf, static_cast<size_t>(n), nullptr, -1) != n) return 1;
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
    return true;
}

// What goes into the packet, in order. The flat form comes from the library itself; its
// fields are still bounded by its size as they are read.
Plan plan(const uint8_t* form, size_t size, const AndroidWriteOptions& options, LeftOut& left) {
    Plan plan;
    const AndroidTagMap& tags = options.map ? *options.map : defaultMap();
    uint32_t records = 0;
    if (size >= flat::kStorageHeader) {
        const int32_t n = static_cast<int32_t>(get32(form + 4));
        records = n > 0 ? static_cast<uint32_t>(n) : 0;
    }
    auto* out = reinterpret_cast<Planned*>(planScratch().get(sizeof(Planned) * records));
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
        const AndroidTagMap::Route route = tags.toAndroid(tag, androidTag, shape);
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
        if (const AndroidTagInfo* info = androidtags::find(androidTag);
            info && info->type != androidType) {
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
    const TrimOnExit trim{flatScratch()}, trimPlan{planScratch()};
    const uint8_t* form;
    size_t size;
    if (!flattenToScratch(meta, form, size)) return -1;
    LeftOut left(leftOut);
    const Plan p = plan(form, size, options, left);
    return p.ok ? packetSize(p) : -1;
}

long writeAndroidPacket(const IMetadata& meta, void* buf, size_t size,
                        const AndroidWriteOptions& options, AndroidLeftOutList* leftOut) {
    const TrimOnExit trim{flatScratch()}, trimPlan{planScratch()};
    const uint8_t* form;
    size_t formSize;
    if (!buf) {
        META_LOGE("no buffer to write the android packet to");
        return -1;
    }
    if (!flattenToScratch(meta, form, formSize)) {
        META_LOGE("the container could not be flattened for an android packet");
        return -1;
    }
    LeftOut left(leftOut);
    const Plan p = plan(form, formSize, options, left);
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
    uint32_t offset = 0;
    for (uint32_t i = 0; i < p.count; ++i, entry += kEntrySize) {
        const Planned& e = p.entries[i];
        packet::RawEntry raw{};
        raw.tag = e.tag;
        raw.count = e.count;
        raw.type = e.type;
        if (e.bytes <= kInline) {
            std::memcpy(raw.data, e.payload, e.bytes);
        } else {
            std::memcpy(raw.data, &offset, sizeof(offset));
            uint8_t* data = out + dataStart + offset;
            std::memcpy(data, e.payload, e.bytes);
            const uint64_t reserved = packet::alignUp(e.bytes);
            std::memset(data + e.bytes, 0, reserved - e.bytes);
            offset += static_cast<uint32_t>(reserved);
        }
        std::memcpy(entry, &raw, sizeof(raw));
    }
    if (left.count)
        META_LOGW("%u entries have no place in the android packet; the first: tag 0x%08x (%s)",
                  left.count, left.firstTag, androidLeftOutReasonText(left.firstReason));
    return total;
}

}  // namespace NSCam
