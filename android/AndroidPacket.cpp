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
    // `reserve`: with a range; else heap buffers only (for the small plan of a write).
    explicit Scratch(bool reserve) : mTried(!reserve) {}
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
    thread_local Scratch s(true);
    return s;
}
Scratch& planScratch() {
    thread_local Scratch s(false);
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
        shape = map.platformShapes() && e.known != androidtags::kUnknown
                    ? androidtags::shapeOf(e.known)
                    : AndroidShape::kPlain;
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

namespace {

// Writes one flat record: its heads word by word (see putEntry for why), then the payload; an
// inline one as its whole 4-byte field (the next record overwrites what is not its own).
inline uint8_t* putRecord(uint8_t* at, uint32_t tag, int32_t type, uint32_t count, const Entry& e) {
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
    return at + e.bytes;
}

// int32 values in the shape `shape` gives them, when they make whole groups; otherwise as
// they are.
inline void shapeValues(AndroidShape shape, const Entry& e, int32_t& type, uint32_t& count) {
    type = e.type;
    count = e.count;
    if (shape != AndroidShape::kPlain && e.type == ANDROID_TYPE_INT32) {
        const uint32_t group = groupOf(shape);
        if (count % group == 0) {
            type = typeOfShape(shape);
            count /= group;
        }
    }
}

enum class Fast { kDone, kRefused, kSlowPath };

// The read of a map without rules in one tight loop, with its state in registers: this runs on
// every request. The same walk as the check; an entry the container cannot count (more than
// 2^31 - 1 elements) sends the read to the general loop, which reports it.
template <bool kPlatformShapes>
Fast translate(const uint8_t* p, const Header& h, uint8_t*& at, uint32_t& records,
               AndroidPacketCheck& c) {
    EntryWalk walk(p, h);
    Entry e;
    uint8_t* w = at;
    for (uint32_t i = 0; i < h.entryCount; ++i) {
        if (!walk.next(i, e, c)) {
            at = w;
            return Fast::kRefused;
        }
        if (e.count > static_cast<uint32_t>(std::numeric_limits<int32_t>::max()))
            return Fast::kSlowPath;
        int32_t type;
        uint32_t count;
        shapeValues(kPlatformShapes && e.known != androidtags::kUnknown
                        ? androidtags::shapeOf(e.known)
                        : AndroidShape::kPlain,
                    e, type, count);
        w = putRecord(w, e.tag, type, count, e);
    }
    at = w;
    records = h.entryCount;
    return Fast::kDone;
}

}  // namespace

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
        // Refused either way; for the packet's own fault when it has one, as the check says.
        r.check = checkAndroidPacket(p, size);
        if (r.check.ok)
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
    const size_t bound =
        flat::kStorageHeader +
        (flat::kRecordHead + flat::kContentHeader + kInline) * size_t{h.entryCount} + h.dataCount;
    uint8_t* const flatBytes = scratch.get(bound);
    if (!flatBytes) {
        r.check = packet::refuse(0, "size", -1, "no memory to read the packet");
        return refused();
    }
    uint8_t* at = flatBytes + flat::kStorageHeader;
    uint32_t records = 0;

    // The usual read: a map without rules, every entry with a place in the container.
    Fast fast = Fast::kSlowPath;
    if (tags.ruleCount() == 0)
        fast = tags.platformShapes() ? translate<true>(p, h, at, records, r.check)
                                     : translate<false>(p, h, at, records, r.check);
    if (fast == Fast::kRefused) {
        done.used = static_cast<size_t>(at - flatBytes);
        return refused();
    }
    if (fast == Fast::kSlowPath) {
        at = flatBytes + flat::kStorageHeader;
        records = 0;
    }
    EntryWalk walk(p, h);
    Entry e;
    for (uint32_t i = 0; fast == Fast::kSlowPath && i < h.entryCount; ++i) {
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
        int32_t type;
        uint32_t count;
        shapeValues(shape, e, type, count);
        at = putRecord(at, tag, type, count, e);
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
        META_LOGW(
            "%u entries of the android packet have no place in the container; the first: "
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
    uint32_t count;
    uint8_t type;
    const uint8_t* payload;
    uint64_t bytes;
};

struct Plan {
    Planned* entries = nullptr;
    // Sorted: the order to write them in, as keys of tag (high half) and index (low half).
    uint64_t* order = nullptr;
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

// One row of the container's flat form, as it goes into the packet: its tag, type, element
// count and payload there.
struct Decision {
    uint32_t tag;
    uint8_t type;
    uint32_t count;
    uint64_t bytes;
    const uint8_t* payload;
};

// Where the row of `tag` whose content record is `length` bytes at `content` goes; false, with
// the reason and the row's type, when it has no place in the packet. Without rules (the usual
// map) the tag keeps its number and, with the platform's shapes, the shape its definition gives.
inline bool decide(const AndroidTagMap& map, uint32_t tag, const uint8_t* content, uint32_t length,
                   Decision& d, AndroidLeftOutReason& why, int32_t& type) {
    if (length < flat::kContentHeader) {  // a row without content: no type to give it
        type = -1;
        why = AndroidLeftOutReason::kNoAndroidType;
        return false;
    }
    type = static_cast<int32_t>(get32(content + 4));
    const uint32_t count = get32(content + 8);
    uint32_t androidTag = tag;
    AndroidShape shape = AndroidShape::kPlain;
    uint8_t known;
    if (map.ruleCount() == 0) {
        known = androidtags::typeAndShape(tag);
        if (map.platformShapes() && known != androidtags::kUnknown)
            shape = androidtags::shapeOf(known);
    } else {
        const AndroidTagMap::Route route = map.toAndroid(tag, androidTag, shape);
        if (route != AndroidTagMap::Route::kGo) {
            why = route == AndroidTagMap::Route::kExcluded ? AndroidLeftOutReason::kExcluded
                                                           : AndroidLeftOutReason::kNumberTaken;
            return false;
        }
        known = androidtags::typeAndShape(androidTag);
    }
    uint8_t androidType;
    uint64_t androidCount = count;
    if (type >= TYPE_UINT8 && type <= TYPE_MRational) {
        androidType = static_cast<uint8_t>(type);
    } else if ((type == TYPE_MRect || type == TYPE_MSize || type == TYPE_MPoint) &&
               typeOfShape(shape) == type) {
        androidType = ANDROID_TYPE_INT32;
        androidCount *= groupOf(shape);
    } else {
        why = isBasicType(type) ? AndroidLeftOutReason::kNoShape
                                : AndroidLeftOutReason::kNoAndroidType;
        return false;
    }
    if (known != androidtags::kUnknown && androidtags::typeOf(known) != androidType) {
        why = AndroidLeftOutReason::kWrongType;
        return false;
    }
    const uint64_t bytes = androidCount * packet::kTypeSize[androidType];
    if (androidCount > std::numeric_limits<uint32_t>::max() ||
        length - flat::kContentHeader < bytes) {
        why = AndroidLeftOutReason::kTooLarge;
        return false;
    }
    d = Decision{androidTag, androidType, static_cast<uint32_t>(androidCount), bytes,
                 content + flat::kContentHeader};
    return true;
}

// Walks the records of the container's flat form: fn(row, tag, content, length) for each,
// false from fn stopping the walk. False when the form ends before its records do (not
// reached: the form comes from the library).
template <typename Fn>
bool forEachRecord(const uint8_t* form, size_t size, Fn&& fn) {
    uint32_t records = 0;
    if (size >= flat::kStorageHeader) {
        const int32_t n = static_cast<int32_t>(get32(form + 4));
        records = n > 0 ? static_cast<uint32_t>(n) : 0;
    }
    size_t pos = flat::kStorageHeader;
    for (uint32_t row = 0; row < records; ++row) {
        if (size - pos < flat::kRecordHead) return false;
        const uint32_t tag = get32(form + pos);
        const uint32_t length = get32(form + pos + 4);
        pos += flat::kRecordHead;
        if (size - pos < length) return false;
        if (!fn(row, tag, form + pos, length)) return true;
        pos += length;
    }
    return true;
}

// What goes into the packet, in order.
Plan plan(const uint8_t* form, size_t size, const AndroidWriteOptions& options, LeftOut& left,
          DoneOnExit& planDone) {
    Plan plan;
    const AndroidTagMap& tags = options.map ? *options.map : defaultMap();
    uint32_t records = 0;
    if (size >= flat::kStorageHeader) {
        const int32_t n = static_cast<int32_t>(get32(form + 4));
        records = n > 0 ? static_cast<uint32_t>(n) : 0;
    }
    planDone.used = (sizeof(Planned) + (options.sorted ? sizeof(uint64_t) : 0)) * records;
    auto* out = reinterpret_cast<Planned*>(planDone.s.get(planDone.used));
    if (records && !out) {
        plan.why = "no memory for the packet's entries";
        return plan;
    }
    plan.entries = out;
    const bool whole = forEachRecord(
        form, size, [&](uint32_t, uint32_t tag, const uint8_t* content, uint32_t length) {
            Decision d;
            AndroidLeftOutReason why;
            int32_t type;
            if (!decide(tags, tag, content, length, d, why, type)) {
                left.note(tag, type, why);
                return true;
            }
            new (&out[plan.count++]) Planned{d.tag, d.count, d.type, d.payload, d.bytes};
            if (d.bytes > kInline) plan.dataBytes += packet::alignUp(d.bytes);
            return true;
        });
    if (!whole) {
        plan.why = "the container's flat form ended early";
        return plan;
    }
    if (options.sorted) {
        // Keys of 8 bytes sort faster than the entries themselves; equal tags (possible only
        // through a tag map's numbers) keep their row order through the index.
        plan.order = reinterpret_cast<uint64_t*>(out + records);
        for (uint32_t i = 0; i < plan.count; ++i)
            plan.order[i] = uint64_t{out[i].tag} << 32 | i;
        std::sort(plan.order, plan.order + plan.count);
    }
    plan.ok = true;
    return plan;
}

// One entry and its payload, field by field, straight into the packet (a staged entry read
// back in another width would stall the processor on every entry). An out-of-line payload
// goes to `data`, at `offset` in the data area; both move past it.
inline void putEntry(uint8_t* entry, uint32_t tag, uint8_t type, uint32_t count,
                     const uint8_t* payload, uint64_t bytes, uint8_t*& data, uint32_t& offset) {
    const uint32_t typeWord = type;  // the type byte and three reserved zero bytes
    std::memcpy(entry + offsetof(packet::RawEntry, tag), &tag, 4);
    std::memcpy(entry + offsetof(packet::RawEntry, count), &count, 4);
    std::memcpy(entry + offsetof(packet::RawEntry, type), &typeWord, 4);
    uint8_t* field = entry + offsetof(packet::RawEntry, data);
    if (bytes <= kInline) {
        std::memset(field, 0, kInline);
        copyPayload(field, payload, static_cast<size_t>(bytes));
        return;
    }
    std::memcpy(field, &offset, sizeof(offset));
    // The reserved tail of a payload that is not a multiple of 8 bytes is zero: its last word
    // is cleared before the payload is copied over it.
    const uint64_t reserved = packet::alignUp(bytes);
    if (reserved != bytes) std::memset(data + reserved - 8, 0, 8);
    copyPayload(data, payload, static_cast<size_t>(bytes));
    data += reserved;
    offset += static_cast<uint32_t>(reserved);
}

void putHeader(uint8_t* out, uint32_t total, uint32_t entries, uint32_t dataBytes,
               const AndroidWriteOptions& options) {
    Header h{};
    h.size = total;
    h.version = AndroidPacketLayout::kVersion;
    h.flags = options.sorted ? AndroidPacketLayout::kFlagSorted : 0;
    h.entryCount = entries;
    h.entryCapacity = entries;
    h.entriesStart = static_cast<uint32_t>(kHeaderSize);
    h.dataCount = dataBytes;
    h.dataCapacity = dataBytes;
    h.dataStart = static_cast<uint32_t>(kHeaderSize + kEntrySize * entries);
    h.vendorId = options.vendorId;
    std::memcpy(out, &h, sizeof(h));
}

// The usual write in one pass: in row order, with a map without rules, every row with a place
// in the packet (so the data area starts right after one entry per row) and room enough in
// the buffer. Anything else stops it (having written nothing past `size`), and the write takes
// the planned path. A plain loop with its state in registers: this runs on every result.
template <bool kPlatformShapes>
long writeInOnePass(const uint8_t* form, size_t formSize, const AndroidWriteOptions& options,
                    uint8_t* out, size_t size) {
    if (formSize < flat::kStorageHeader) return -1;
    const int32_t declared = static_cast<int32_t>(get32(form + 4));
    const uint32_t records = declared > 0 ? static_cast<uint32_t>(declared) : 0;
    const uint64_t dataStart = kHeaderSize + kEntrySize * uint64_t{records};
    if (dataStart > size) return -1;
    const uint8_t* const formEnd = form + formSize;
    const uint8_t* at = form + flat::kStorageHeader;
    uint8_t* entry = out + kHeaderSize;
    uint8_t* data = out + dataStart;
    uint8_t* const end = out + size;
    uint32_t offset = 0;
    for (uint32_t row = 0; row < records; ++row, entry += kEntrySize) {
        if (static_cast<size_t>(formEnd - at) < flat::kRecordHead + flat::kContentHeader) return -1;
        const uint32_t tag = get32(at);
        const uint32_t length = get32(at + 4);
        const int32_t type = static_cast<int32_t>(get32(at + 12));
        uint32_t count = get32(at + 16);
        const uint8_t* payload = at + flat::kRecordHead + flat::kContentHeader;
        if (length < flat::kContentHeader ||
            static_cast<size_t>(formEnd - at) - flat::kRecordHead < length)
            return -1;
        at += flat::kRecordHead + length;
        const uint8_t known = androidtags::typeAndShape(tag);
        uint8_t androidType;
        if (type >= TYPE_UINT8 && type <= TYPE_MRational) {
            androidType = static_cast<uint8_t>(type);
        } else if (kPlatformShapes && known != androidtags::kUnknown &&
                   (type == TYPE_MRect || type == TYPE_MSize || type == TYPE_MPoint) &&
                   typeOfShape(androidtags::shapeOf(known)) == type) {
            androidType = ANDROID_TYPE_INT32;
            if (count > std::numeric_limits<uint32_t>::max() / 4) return -1;
            count *= groupOf(androidtags::shapeOf(known));
        } else {
            return -1;
        }
        if (known != androidtags::kUnknown && androidtags::typeOf(known) != androidType) return -1;
        const uint64_t bytes = uint64_t{count} * packet::kTypeSize[androidType];
        if (length - flat::kContentHeader < bytes) return -1;
        if (bytes > kInline && static_cast<uint64_t>(end - data) < packet::alignUp(bytes))
            return -1;
        putEntry(entry, tag, androidType, count, payload, bytes, data, offset);
    }
    const uint64_t total = dataStart + offset;
    if (total > std::numeric_limits<uint32_t>::max()) return -1;
    putHeader(out, static_cast<uint32_t>(total), records, offset, options);
    return static_cast<long>(total);
}

// The compact packet's size: header, entries, data; -1 when a u32 cannot hold it.
long packetSize(const Plan& plan) {
    const uint64_t total = kHeaderSize + kEntrySize * uint64_t{plan.count} + plan.dataBytes;
    return total > std::numeric_limits<uint32_t>::max() ? -1 : static_cast<long>(total);
}

}  // namespace

long androidPacketSize(const IMetadata& meta, const AndroidWriteOptions& options,
                       AndroidLeftOutList* leftOut) {
    DoneOnExit flatDone{flatScratch()};
    LeftOut left(leftOut);
    const uint8_t* form;
    size_t size;
    if (!flattenToScratch(meta, flatDone, form, size)) return -1;
    const AndroidTagMap& tags = options.map ? *options.map : defaultMap();
    uint64_t total = kHeaderSize;
    const bool whole = forEachRecord(
        form, size, [&](uint32_t, uint32_t tag, const uint8_t* content, uint32_t length) {
            Decision d;
            AndroidLeftOutReason why;
            int32_t type;
            if (!decide(tags, tag, content, length, d, why, type)) {
                left.note(tag, type, why);
                return true;
            }
            total += kEntrySize + (d.bytes > kInline ? packet::alignUp(d.bytes) : 0);
            return true;
        });
    return whole && total <= std::numeric_limits<uint32_t>::max() ? static_cast<long>(total) : -1;
}

long writeAndroidPacket(const IMetadata& meta, void* buf, size_t size,
                        const AndroidWriteOptions& options, AndroidLeftOutList* leftOut) {
    DoneOnExit flatDone{flatScratch()};
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
    auto* const out = static_cast<uint8_t*>(buf);
    const AndroidTagMap& tags = options.map ? *options.map : defaultMap();
    if (!options.sorted && tags.ruleCount() == 0) {
        const long total = tags.platformShapes()
                               ? writeInOnePass<true>(form, formSize, options, out, size)
                               : writeInOnePass<false>(form, formSize, options, out, size);
        if (total >= 0) return total;
    }
    DoneOnExit planDone{planScratch()};  // only here: the one pass above needs no plan
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
    uint8_t* data = out + kHeaderSize + kEntrySize * p.count;
    uint32_t offset = 0;
    for (uint32_t i = 0; i < p.count; ++i) {
        const Planned& e = p.entries[p.order ? static_cast<uint32_t>(p.order[i]) : i];
        putEntry(out + kHeaderSize + kEntrySize * i, e.tag, e.type, e.count, e.payload, e.bytes,
                 data, offset);
    }
    putHeader(out, static_cast<uint32_t>(total), p.count, offset, options);
    if (left.count)
        META_LOGW("%u entries have no place in the android packet; the first: tag 0x%08x (%s)",
                  left.count, left.firstTag, androidLeftOutReasonText(left.firstReason));
    return total;
}

}  // namespace NSCam
