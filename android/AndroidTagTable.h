#pragma once
// The generated table of the platform's tag definitions (AndroidTags.cpp, written at build
// time by GenerateAndroidTags.cmake from android_tags.tsv) and its lookup.
#include <zorcam/metadata/AndroidPacket.h>

#include <cstddef>
#include <cstdint>

namespace NSCam {
namespace androidtags {

// The rows of one section: kTags[first .. first + count).
struct SectionRows {
    uint32_t first;
    uint32_t count;
};

extern const AndroidEnumValue kEnumValues[];
extern const AndroidTagInfo kTags[];
extern const size_t kTagCount;
extern const SectionRows kSections[];
extern const size_t kSectionCount;

// The definition of `tag`, or null. Sections are dense, so this is one index; a section with
// gaps falls back to a search of its rows.
inline const AndroidTagInfo* find(uint32_t tag) {
    const uint32_t section = tag >> 16;
    if (section >= kSectionCount) return nullptr;
    const SectionRows rows = kSections[section];
    const uint32_t index = tag & 0xFFFF;
    if (index < rows.count && kTags[rows.first + index].tag == tag) return &kTags[rows.first + index];
    uint32_t lo = rows.first, hi = rows.first + rows.count;
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        if (kTags[mid].tag < tag)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < rows.first + rows.count && kTags[lo].tag == tag ? &kTags[lo] : nullptr;
}

}  // namespace androidtags
}  // namespace NSCam
