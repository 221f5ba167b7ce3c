// Tags and types by name.
#include <algorithm>
#include <charconv>
#include <cstring>

#include "Zmeta.h"

namespace zmeta {
namespace {

// The generated table sorted by tag once, so that a dump of many rows pays a binary search
// per row rather than a walk over the table.
const std::vector<const TagName*>& byTag() {
    static const std::vector<const TagName*> sorted = [] {
        std::vector<const TagName*> v;
        for (size_t i = 0; i < kTagNameCount; ++i) v.push_back(&kTagNames[i]);
        std::sort(v.begin(), v.end(),
                  [](const TagName* a, const TagName* b) { return a->tag < b->tag; });
        return v;
    }();
    return sorted;
}

bool parseNumber(std::string_view text, uint32_t& value) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        base = 16;
    }
    const char* end = text.data() + text.size();
    const auto r = std::from_chars(text.data(), end, value, base);
    return !text.empty() && r.ec == std::errc() && r.ptr == end;
}

}  // namespace

const char* tagName(uint32_t tag) {
    const auto& v = byTag();
    const auto it = std::lower_bound(
        v.begin(), v.end(), tag, [](const TagName* t, uint32_t value) { return t->tag < value; });
    return it != v.end() && (*it)->tag == tag ? (*it)->name : nullptr;
}

bool parseTag(std::string_view text, uint32_t& tag) {
    if (parseNumber(text, tag)) return true;
    for (size_t i = 0; i < kTagNameCount; ++i) {
        if (text == kTagNames[i].name) {
            tag = kTagNames[i].tag;
            return true;
        }
    }
    return false;
}

std::vector<uint32_t> parseTagList(const std::vector<std::string>& items) {
    std::vector<uint32_t> tags;
    for (const std::string& item : items) {
        uint32_t tag;
        if (!parseTag(item, tag))
            throw Failure("-t: '" + item + "' is neither a tag number nor a known tag name");
        tags.push_back(tag);
    }
    return tags;
}

std::string hexTag(uint32_t tag) {
    static const char digits[] = "0123456789abcdef";
    std::string text = "0x";
    for (int shift = 28; shift >= 0; shift -= 4) text += digits[(tag >> shift) & 0xF];
    return text;
}

void appendHex32(Out& out, uint32_t value) {
    out += hexTag(value);
}

std::string typeName(int32_t code) {
    if (const NSCam::TypeFacts* facts = NSCam::typeFacts(code)) return facts->shortName;
    return code == -1 ? "untyped" : "type" + std::to_string(code);
}

bool typeByName(std::string_view name, int32_t& code) {
    if (name == "untyped") {
        code = -1;
        return true;
    }
    for (const NSCam::TypeFacts& facts : NSCam::kTypeFacts) {
        const std::string_view full = facts.name;  // "TYPE_MRect"
        if (name == facts.shortName || (full.size() > 5 && name == full.substr(5))) {
            code = facts.code;
            return true;
        }
    }
    return false;
}

}  // namespace zmeta
