// The tag map and the platform's tag definitions.
#define LOG_TAG "Metadata2/AndroidTagMap"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

#include <algorithm>
#include <cstring>

#include "AndroidTagTable.h"
#include "Diagnostics.h"

namespace NSCam {
namespace {

// Sections from 0x8000 up belong to vendors: the only Android numbers a map may give away.
constexpr uint32_t kVendorSection = 0x80000000u;

const char* shapeName(AndroidShape shape) {
    switch (shape) {
        case AndroidShape::kPlain:
            return "plain";
        case AndroidShape::kRect:
            return "MRect";
        case AndroidShape::kSize:
            return "MSize";
        case AndroidShape::kPoint:
            return "MPoint";
        case AndroidShape::kExcluded:
            return "excluded";
    }
    return "?";
}

}  // namespace

const AndroidTagInfo* androidTagInfo(uint32_t tag) {
    return androidtags::find(tag);
}

const AndroidTagInfo* androidTagByName(const char* name) {
    if (!name) return nullptr;
    for (size_t i = 0; i < androidtags::kTagCount; ++i)
        if (std::strcmp(androidtags::kTags[i].name, name) == 0) return &androidtags::kTags[i];
    return nullptr;
}

const AndroidTagInfo* androidTags(size_t& count) {
    count = androidtags::kTagCount;
    return androidtags::kTags;
}

const char* androidEnumName(const AndroidTagInfo& info, int64_t value) {
    for (uint16_t i = 0; i < info.enumCount; ++i)
        if (androidtags::kEnumValues[info.firstEnum + i].value == value)
            return androidtags::kEnumValues[info.firstEnum + i].name;
    return nullptr;
}

bool androidEnumValue(const AndroidTagInfo& info, const char* name, int64_t& value) {
    for (uint16_t i = 0; name && i < info.enumCount; ++i) {
        const AndroidEnumValue& v = androidtags::kEnumValues[info.firstEnum + i];
        if (std::strcmp(v.name, name) == 0) {
            value = v.value;
            return true;
        }
    }
    return false;
}

//------------------------------------------------------------------------------------------

AndroidTagMap::AndroidTagMap() = default;

AndroidTagMap AndroidTagMap::withPlatformShapes() {
    AndroidTagMap map;
    map.mPlatformShapes = true;
    return map;
}

const AndroidTagMap::Rule* AndroidTagMap::find(const std::vector<Rule>& rules, uint32_t tag) {
    const auto it = std::lower_bound(rules.begin(), rules.end(), tag,
                                     [](const Rule& r, uint32_t t) { return r.from < t; });
    return it != rules.end() && it->from == tag ? &*it : nullptr;
}

bool AndroidTagMap::add(const AndroidTagRule& rule) {
    const auto refuse = [&rule](const char* why) {
        META_LOGE_AS("add", "tag map rule 0x%08x <-> 0x%08x (%s) refused: %s", rule.androidTag,
                     rule.containerTag, shapeName(rule.shape), why);
        return false;
    };
    if (rule.shape > AndroidShape::kExcluded) return refuse("unknown shape");
    if (rule.shape == AndroidShape::kExcluded && rule.androidTag != rule.containerTag)
        return refuse("an exclusion names one tag for both sides");
    if (rule.androidTag != rule.containerTag && rule.androidTag < kVendorSection)
        return refuse("only vendor-section tags (0x80000000 and up) take another number");
    if (rule.shape != AndroidShape::kPlain && rule.shape != AndroidShape::kExcluded) {
        if (const AndroidTagInfo* info = androidtags::find(rule.androidTag);
            info && info->type != ANDROID_TYPE_INT32)
            return refuse("the tag's values are not int32");
    }
    if (find(mByAndroid, rule.androidTag))
        return refuse("another rule already has this Android tag");
    if (find(mByContainer, rule.containerTag))
        return refuse("another rule already has this container tag");
    const auto insert = [](std::vector<Rule>& rules, const Rule& r) {
        rules.insert(std::lower_bound(rules.begin(), rules.end(), r,
                                      [](const Rule& a, const Rule& b) { return a.from < b.from; }),
                     r);
    };
    insert(mByAndroid, Rule{rule.androidTag, rule.containerTag, rule.shape});
    insert(mByContainer, Rule{rule.containerTag, rule.androidTag, rule.shape});
    return true;
}

AndroidTagMap::Route AndroidTagMap::route(const std::vector<Rule>& mine,
                                          const std::vector<Rule>& theirs, uint32_t tag,
                                          uint32_t& out, AndroidShape& shape) const {
    out = tag;
    shape = AndroidShape::kPlain;
    if (!mine.empty()) {
        if (const Rule* r = find(mine, tag)) {
            out = r->to;
            shape = r->shape;
            return r->shape == AndroidShape::kExcluded ? Route::kExcluded : Route::kGo;
        }
        // A rule that brings another tag to this number on the other side has taken it.
        if (find(theirs, tag)) return Route::kTaken;
    }
    if (mPlatformShapes) {
        // Both sides carry Android numbers here: no rule renumbered this tag.
        if (const AndroidTagInfo* info = androidtags::find(tag)) shape = info->platformShape;
    }
    return Route::kGo;
}

AndroidTagMap::Route AndroidTagMap::toAndroid(uint32_t containerTag, uint32_t& androidTag,
                                              AndroidShape& shape) const {
    return route(mByContainer, mByAndroid, containerTag, androidTag, shape);
}

AndroidTagMap::Route AndroidTagMap::toContainer(uint32_t androidTag, uint32_t& containerTag,
                                                AndroidShape& shape) const {
    return route(mByAndroid, mByContainer, androidTag, containerTag, shape);
}

}  // namespace NSCam
