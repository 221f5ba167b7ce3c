#pragma once
// The generated table of the platform's tag definitions (AndroidTags.cpp, written at build
// time by GenerateAndroidTags.cmake from android_tags.tsv) and its lookups.
#include <zorcam/metadata/AndroidPacket.h>

#include <cstddef>
#include <cstdint>

namespace NSCam {
namespace androidtags {

// The slots of one section: kSlotRows and kSlotTypes [first .. first + count), one per index.
struct SectionSlots {
    uint32_t first;
    uint32_t count;
};

// Hidden: inside the library, so that the packet paths reach them without an indirection.
#define ZORCAM_TABLE __attribute__((visibility("hidden")))
extern const AndroidEnumValue kEnumValues[] ZORCAM_TABLE;
extern const AndroidTagInfo kTags[] ZORCAM_TABLE;
extern const size_t kTagCount ZORCAM_TABLE;
extern const SectionSlots kSections[] ZORCAM_TABLE;
extern const size_t kSectionCount ZORCAM_TABLE;
extern const uint16_t kSlotRows[] ZORCAM_TABLE;  // the row in kTags; kNoRow for a gap
extern const uint8_t kSlotTypes[] ZORCAM_TABLE;  // type | platform shape << 4; kUnknown for a gap
#undef ZORCAM_TABLE

constexpr uint16_t kNoRow = 0xFFFF;
constexpr uint8_t kUnknown = 0xFF;

// The slot of `tag`, or -1 for a tag the platform does not define.
inline int64_t slotOf(uint32_t tag) {
    const uint32_t section = tag >> 16;
    if (section >= kSectionCount) return -1;
    const SectionSlots s = kSections[section];
    const uint32_t index = tag & 0xFFFF;
    return index < s.count ? int64_t{s.first} + index : -1;
}

// The element type and platform shape of `tag` in one byte (type in bits 0..3, shape in 4..7),
// or kUnknown: what the packet paths need, in one small array.
inline uint8_t typeAndShape(uint32_t tag) {
    const int64_t slot = slotOf(tag);
    return slot < 0 ? kUnknown : kSlotTypes[slot];
}
inline uint8_t typeOf(uint8_t typeAndShape) {
    return typeAndShape & 0x0F;
}
inline AndroidShape shapeOf(uint8_t typeAndShape) {
    return static_cast<AndroidShape>(typeAndShape >> 4);
}

// The definition of `tag`, or null.
inline const AndroidTagInfo* find(uint32_t tag) {
    const int64_t slot = slotOf(tag);
    return slot < 0 || kSlotRows[slot] == kNoRow ? nullptr : &kTags[kSlotRows[slot]];
}

}  // namespace androidtags
}  // namespace NSCam
