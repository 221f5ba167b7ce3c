// Tags and types by name.
#include <zorcam/metadata/AndroidPacket.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "Zmeta.h"

namespace zmeta {
namespace {

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
    const NSCam::AndroidTagInfo* info = NSCam::androidTagInfo(tag);
    return info ? info->name : nullptr;
}

bool parseTag(std::string_view text, uint32_t& tag) {
    if (parseNumber(text, tag)) return true;
    const NSCam::AndroidTagInfo* info = NSCam::androidTagByName(std::string(text).c_str());
    if (info) tag = info->tag;
    return info != nullptr;
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

std::string typeName(int32_t code, bool android) {
    if (android && code >= 0 && code < 256)
        if (const char* name = NSCam::androidTypeName(static_cast<uint8_t>(code))) return name;
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
