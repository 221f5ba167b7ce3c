// getDumpFilenamePrefix: the common path prefix of a request's debug dump files,
// "/sdcard/camera_dump/<unique key>-<frame>-<request>", from the request's frame tags.
#include <zorcam/metadata/IMetadataUpdater.h>

#include <algorithm>
#include <cstdint>

#include "BoundedText.h"

namespace NSCam {
namespace {

constexpr char kDumpDirectory[] = "/sdcard/camera_dump/";
constexpr uint32_t kNoTag = 0xFFFFFFFFu;

// Frame tags of a request's HAL metadata.
constexpr uint32_t kTagUniqueKey = 0xC00B0000;
constexpr uint32_t kTagFrameNumber = 0xC00B0001;
constexpr uint32_t kTagRequestNumber = 0xC00B0002;

// Widest values the name fields take; larger ones (negative ones too, read as unsigned)
// are written as these. The frame number keeps eight digits although its field pads to
// four, so that frames past 9999 of a long session still get names of their own: do not
// narrow it to the field's width.
constexpr uint32_t kMaxUniqueKey = 999999999;
constexpr uint32_t kMaxFrameNumber = 99999999;
constexpr uint32_t kMaxRequestNumber = 9999;

// Item 0 of `tag` in `meta`, read as int, taken as unsigned and clamped to `max`; false when
// the tag is absent. An entry without values reads as whatever the entry yields for index 0.
bool readField(const IMetadata& meta, uint32_t tag, uint32_t max, int& value) {
    const IMetadata::IEntry entry = meta.entryFor(tag, 0);
    if (entry.tag() == kNoTag) return false;
    const uint32_t raw = static_cast<uint32_t>(entry.itemAt(0, Type2Type<int32_t>()));
    value = static_cast<int>(std::min(raw, max));
    return true;
}

}  // namespace

const char* getDumpFilenamePrefix(char* buffer, int size, const IMetadata* /*otherMeta*/,
                                  const IMetadata* frameMeta) {
    // No buffer, or no room even for the terminating zero: nothing can be handed back
    // terminated, so the answer is the empty constant string and the buffer is not touched.
    if (buffer == nullptr || frameMeta == nullptr || size <= 0) return "";

    BoundedText out(buffer, static_cast<size_t>(size));
    out.appendf("%s", kDumpDirectory);
    int value = 0;
    if (readField(*frameMeta, kTagUniqueKey, kMaxUniqueKey, value))
        out.appendf("%09d", value);
    else
        out.appendf("uniquekey");
    if (readField(*frameMeta, kTagFrameNumber, kMaxFrameNumber, value))
        out.appendf("-%04d", value);
    else
        out.appendf("-frme");
    if (readField(*frameMeta, kTagRequestNumber, kMaxRequestNumber, value))
        out.appendf("-%04d", value);
    else
        out.appendf("-rqst");
    return buffer;
}

}  // namespace NSCam
