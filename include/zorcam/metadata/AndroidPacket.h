#pragma once
// The Android framework's camera metadata packets, in and out of an IMetadata.
//
// Every capture request reaches a camera HAL, and every result leaves it, as one packet of the
// framework's own layout: a 48-byte header, an array of 16-byte entries, and a data area for
// payloads longer than 4 bytes (docs/architecture.md, section 6, has the layout byte by byte).
// This bridge, a library of its own above the container (libzorcam_metadata_android, CMake
// target zorcam::metadata_android), offers:
//
//   checkAndroidPacket   the check a receiver runs on foreign bytes: never aborts, never
//                        allocates, logs nothing, and names the field and byte it refuses
//   readAndroidPacket    a packet into a container (it runs the same check first)
//   androidPacketSize,   a container into a compact packet, sorted or in row order; the size
//   writeAndroidPacket   first, as flattenSize/flatten do
//   AndroidTagMap        Android's tags keep their numbers by default; a map renumbers
//                        vendor-section tags both ways, chooses MRect, MSize or MPoint for
//                        int32 values per tag, and excludes tags
//   androidTagInfo       the platform's definitions: names, types, enumerated values, typedefs
//
// What has no Android form (blobs, nested containers, an MRect, MSize or MPoint the map gives no
// shape for, a value of another type than the tag's definition, tags the map excludes) is left
// out and reported to the caller, never dropped in silence. A packet that repeats a tag gives
// the last value, as the container's own decoder does.
//
// Thread safety: every function is reentrant (each thread has its own scratch buffer); an
// AndroidTagMap is thread-compatible (many threads may use one that nobody changes).
#include <zorcam/metadata/Export.h>
#include <zorcam/metadata/IMetadata.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace NSCam {

// The element types of a packet entry (its `type` byte). The codes equal the container's for
// the same values: byte is TYPE_UINT8 ... rational is TYPE_MRational.
enum : uint8_t {
    ANDROID_TYPE_BYTE = 0,
    ANDROID_TYPE_INT32 = 1,
    ANDROID_TYPE_FLOAT = 2,
    ANDROID_TYPE_INT64 = 3,
    ANDROID_TYPE_DOUBLE = 4,
    ANDROID_TYPE_RATIONAL = 5,
    ANDROID_NUM_TYPES = 6,
};

// Fixed facts of the layout.
struct AndroidPacketLayout {
    static constexpr size_t kHeaderSize = 48;
    static constexpr size_t kEntrySize = 16;
    static constexpr uint32_t kVersion = 1;
    static constexpr uint32_t kFlagSorted = 0x1;  // entries sorted by tag
    static constexpr uint64_t kNoVendorId = UINT64_MAX;
    // Payloads of up to this many bytes sit in the entry itself.
    static constexpr size_t kInlineBytes = 4;
    // Out-of-line payloads start on this boundary of the data area.
    static constexpr size_t kDataAlignment = 8;
};

// "byte", "int32", "float", "int64", "double", "rational"; null for another code.
ZORCAM_EXPORT const char* androidTypeName(uint8_t type);
// Bytes of one element of `type`; 0 for an unknown code.
ZORCAM_EXPORT size_t androidTypeSize(uint8_t type);

//------------------------------------------------------------------------------------------
// The platform's tag definitions (generated at build time from android/android_tags.tsv).

// How the container holds int32 values of a tag: as they are, or grouped into MRect (4
// values: x, y, width, height), MSize (2: width, height) or MPoint (2: x, y). kExcluded keeps
// the tag out of both directions.
enum class AndroidShape : uint8_t { kPlain, kRect, kSize, kPoint, kExcluded };

struct AndroidEnumValue {
    int64_t value;
    const char* name;  // "ON_AUTO_FLASH"
};

struct AndroidTagInfo {
    uint32_t tag;
    const char* name;            // "android.control.aeMode"
    uint8_t type;                // ANDROID_TYPE_*
    const char* shape;           // "single", "4", "n x 2", "5 x area_count" ...
    uint8_t kinds;               // kControls | kDynamic | kStatic
    const char* typedefName;     // "rectangle", "size", "enumList" ...; "" for none
    AndroidShape platformShape;  // what AndroidTagMap::withPlatformShapes() gives it
    uint16_t firstEnum;          // its enumerated values (androidEnumName looks them up)
    uint16_t enumCount;

    static constexpr uint8_t kControls = 0x1;  // in requests
    static constexpr uint8_t kDynamic = 0x2;   // in results
    static constexpr uint8_t kStatic = 0x4;    // in the camera's characteristics
};

// The definition of a tag, or null when the platform defines none (vendor tags among them).
ZORCAM_EXPORT const AndroidTagInfo* androidTagInfo(uint32_t tag);
// The definition of a name ("android.lens.focalLength"), or null.
ZORCAM_EXPORT const AndroidTagInfo* androidTagByName(const char* name);
// Every definition, sorted by tag.
ZORCAM_EXPORT const AndroidTagInfo* androidTags(size_t& count);
// The name of an enumerated value of `info`, or null when it names none.
ZORCAM_EXPORT const char* androidEnumName(const AndroidTagInfo& info, int64_t value);
// The value of an enumerated name of `info`; false when it has no such name.
ZORCAM_EXPORT bool androidEnumValue(const AndroidTagInfo& info, const char* name, int64_t& value);

//------------------------------------------------------------------------------------------
// The tag map.

struct AndroidTagRule {
    uint32_t androidTag;    // the number in the packet
    uint32_t containerTag;  // the number in the container
    AndroidShape shape;
};

// Which tags go where, and in which shape. A default map keeps every tag's number and every
// value in its Android type. Rules renumber (only vendor-section Android tags, section
// 0x8000 and up), choose a shape per tag (only for int32 values), or exclude a tag (one
// number for both sides). A number a rule gives to one side is taken: another tag carrying it
// on that side is left out ("number taken"), so that no two tags meet in one.
//
// Thread safety: thread-compatible.
class ZORCAM_EXPORT AndroidTagMap {
public:
    AndroidTagMap();
    // Every int32 rectangle, size and point of the platform's definitions (their typedef) in
    // the container's MRect, MSize and MPoint; rules added later take precedence.
    static AndroidTagMap withPlatformShapes();

    // Adds one rule; false, with an error line naming the rule, when it is refused: a
    // renumbering of a tag outside the vendor sections, a shape for a tag whose Android type
    // is not int32, an exclusion naming two numbers, or a number that another rule already
    // gives on the same side.
    bool add(const AndroidTagRule& rule);
    size_t ruleCount() const { return mByAndroid.size(); }
    bool platformShapes() const { return mPlatformShapes; }

    // Where a tag goes. kTaken: the number belongs to another tag under this map.
    enum class Route : uint8_t { kGo, kExcluded, kTaken };
    Route toAndroid(uint32_t containerTag, uint32_t& androidTag, AndroidShape& shape) const;
    Route toContainer(uint32_t androidTag, uint32_t& containerTag, AndroidShape& shape) const;

private:
    struct Rule {
        uint32_t from;
        uint32_t to;
        AndroidShape shape;
    };
    static const Rule* find(const std::vector<Rule>& rules, uint32_t tag);
    Route route(const std::vector<Rule>& mine, const std::vector<Rule>& theirs, uint32_t tag,
                uint32_t& out, AndroidShape& shape) const;

    std::vector<Rule> mByAndroid;    // from: the Android tag; sorted by it
    std::vector<Rule> mByContainer;  // from: the container tag; sorted by it
    bool mPlatformShapes = false;
};

//------------------------------------------------------------------------------------------
// The check.

struct AndroidPacketCheck {
    // True when the packet can be read: every rule of the layout holds (see the architecture
    // notes, section 6, for the list) for the header and for each entry in use.
    bool ok;
    // The first byte of the refused field, counted from the packet's start (0 when ok).
    size_t offset;
    // The field as the layout names it: "size", "entry_capacity", ..., or an entry's "tag",
    // "count", "data", "type", "reserved" ("" when ok).
    const char* field;
    // The entry the field belongs to, or -1 for the header.
    int64_t entry;
    // Why, a fixed text ("" when ok).
    const char* reason;
    // The header, when ok.
    uint32_t size;
    uint32_t flags;
    uint32_t entryCount;
    uint32_t entryCapacity;
    uint32_t dataCount;
    uint32_t dataCapacity;
    uint64_t vendorId;
};

// Checks `size` received bytes at `buf` (any address: fields are copied out, never read
// through a misaligned pointer). Bytes after the packet's own `size` are ignored.
ZORCAM_EXPORT AndroidPacketCheck checkAndroidPacket(const void* buf, size_t size);

// One entry of a packet, as it is: its payload points into the packet (any alignment: copy
// it out with memcpy). bytes = count x androidTypeSize(type).
struct AndroidPacketEntry {
    uint32_t tag;
    uint8_t type;
    uint32_t count;
    const uint8_t* payload;
    size_t bytes;
};

// Entry `index` (below entryCount) of the packet; false, and nothing read, when the header or
// that entry fails the check's rules or the index is out of range. For tools that show a
// packet as it is, repeated tags and all.
ZORCAM_EXPORT bool androidPacketEntry(const void* buf, size_t size, uint32_t index,
                                      AndroidPacketEntry& entry);

//------------------------------------------------------------------------------------------
// Reading and writing.

// An entry that has no place on the other side, and why.
enum class AndroidLeftOutReason : uint8_t {
    kNoAndroidType,  // a blob, a nested container, or an entry without a type
    kNoShape,        // an MRect, MSize or MPoint the map gives no such shape for its tag
    kWrongType,      // a value of another type than the platform's definition of the tag
    kExcluded,       // the map excludes the tag
    kNumberTaken,    // the map gives the tag's number to another tag
    kTooLarge,       // more elements than the other side can count
};
ZORCAM_EXPORT const char* androidLeftOutReasonText(AndroidLeftOutReason reason);

struct AndroidLeftOut {
    uint32_t tag;  // as it was on its own side
    int32_t type;  // the container's type code (writing) or ANDROID_TYPE_* (reading)
    AndroidLeftOutReason reason;
};

// What a read or a write left out: how many, and which. Reuse one across calls to keep its
// vector's capacity; nothing is allocated while nothing is left out.
struct AndroidLeftOutList {
    uint32_t count = 0;
    std::vector<AndroidLeftOut> entries;
};

struct AndroidReadResult {
    bool ok;                   // false: the packet was refused (see `check`)
    AndroidPacketCheck check;  // the packet's check, and its header when ok
    uint32_t entries;          // packet entries read into the container
    uint32_t leftOut;          // packet entries that were not
};

// Reads a packet into `out`, which first loses what it held (and stays empty when the packet
// is refused, with an error line naming the field, the byte and why). `map` null: the
// default map. Entries that have no place in the container (excluded, their number taken,
// more than 2^31 - 1 elements) are counted, listed in `leftOut` when given, and named in a
// warning line. A packet of more than 32767 entries is refused: no container holds them.
ZORCAM_EXPORT AndroidReadResult readAndroidPacket(const void* buf, size_t size, IMetadata& out,
                                                  const AndroidTagMap* map = nullptr,
                                                  AndroidLeftOutList* leftOut = nullptr);

struct AndroidWriteOptions {
    bool sorted = false;  // entries by tag (the sorted flag set), else in the container's row order
    uint64_t vendorId = AndroidPacketLayout::kNoVendorId;
    const AndroidTagMap* map = nullptr;  // null: the default map
};

// The bytes of the compact packet writeAndroidPacket would write for `meta` now, or -1 when
// none can hold it (over 4 GiB). What would be left out is counted in `leftOut` when given.
ZORCAM_EXPORT long androidPacketSize(const IMetadata& meta, const AndroidWriteOptions& options = {},
                                     AndroidLeftOutList* leftOut = nullptr);
// Writes the compact packet of `meta` to `buf` (which should be 8-aligned for a receiver that
// reads fields in place); returns its size, or -1 with an error line when `size` is too small
// or no packet can hold it. Left-out entries as in androidPacketSize, with a warning line.
ZORCAM_EXPORT long writeAndroidPacket(const IMetadata& meta, void* buf, size_t size,
                                      const AndroidWriteOptions& options = {},
                                      AndroidLeftOutList* leftOut = nullptr);

}  // namespace NSCam
