// The JSON form of a flat form, both ways.
//
// The document is an array of entry objects in row order; a nested container is again such
// an array, and an empty slot is null:
//
//   {"tag": "0x00080002", "name": "android.lens.focalLength", "type": "float", "values": [4.38]}
//   {"tag": "0x000c0001", "name": "android.request.id", "content": false}   record length 0
//   {"tag": "0x00000003", "name": ..., "type": "untyped", "values": []}      type -1, count 0
//
// Values: numbers for the integer types and for finite floats and doubles (always with a
// point or an exponent); for NaN and infinities a string of the value's bits in hex, 8
// digits for a float and 16 for a double ("0x7fc00001"); [num, den], [x, y], [w, h] and
// [x, y, w, h] for rationals, points, sizes and rects; a hex string per blob. A type code
// without a name is written as its number (only possible with no values).
//
// Reading: "tag" is a number, a hex or decimal string, or an Android name; "name", when
// given, must be the tag's name; float and double values also take "nan", "inf" and "-inf".
// Spare bytes that receivers skip are not carried: `dump` shows them.
//
// A packet is an object: its header fields and its entries, in the packet's order, of the
// platform's types ("byte" ... "rational"; values as above):
//
//   {"android_packet": {"version": 1, "flags": "0x00000001", "vendor_id": "0xffffffffffffffff",
//                       "entry_capacity": 63, "data_capacity": 1032},
//    "entries": [{"tag": "0x00010003", "name": "android.control.aeMode", "type": "byte",
//                 "values": [2]}, ...]}
//
// from-json lays the packet out as the library writes one: entries at byte 48, then the data
// area, payloads in entry order each on an 8-byte boundary, room as the capacities say (at
// least what the entries need), zeros where nothing is written. A packet laid out so gives
// back the same bytes; for another layout, the same header, entries and values. An
// enumerated value may be given by name ("ON_AUTO_FLASH").
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/FlatForm.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>

#include "Zmeta.h"

namespace zmeta {
namespace {

namespace flat = NSCam::flat;
using nlohmann::json;

void appendBlock(Out& out, const Form& form, const std::vector<uint32_t>& only, int indent);

void appendEntry(Out& out, const Row& row, int indent, bool android) {
    out.pad(indent);
    out += "{\"tag\": \"";
    appendHex32(out, row.tag);
    out += "\", \"name\": ";
    if (const char* name = tagName(row.tag)) {
        out += '"';
        out += name;
        out += '"';
    } else {
        out += "null";
    }
    if (!row.hasContent) {
        out += ", \"content\": false}";
        return;
    }
    out += ", \"type\": ";
    if (NSCam::typeFacts(row.type) || row.type == -1) {
        out += '"';
        out += typeName(row.type, android);
        out += '"';
    } else {
        out += std::to_string(row.type);
    }
    out += ", \"values\": [";
    if (const NSCam::TypeFacts* facts = NSCam::typeFacts(row.type); facts && facts->basic) {
        for (uint32_t i = 0; i < row.count; ++i) {
            if (i) out += ", ";
            appendElement(out, row.type, row.payload.data + i * static_cast<size_t>(facts->size),
                          true);
            out.checkpoint();
        }
    }
    for (size_t i = 0; i < row.blobs.size(); ++i) {
        if (i) out += ", ";
        out += '"';
        appendHexBytes(out, row.blobs[i].data, row.blobs[i].size);
        out += '"';
    }
    if (!row.nested.empty()) {
        out += '\n';
        for (size_t i = 0; i < row.nested.size(); ++i) {
            if (row.nested[i]) {
                appendBlock(out, *row.nested[i], {}, indent + 2);
            } else {
                out.pad(indent + 2);
                out += "null";
            }
            out += i + 1 < row.nested.size() ? ",\n" : "\n";
        }
        out.pad(indent);
    }
    out += "]}";
}

void appendBlock(Out& out, const Form& form, const std::vector<uint32_t>& only, int indent) {
    out.pad(indent);
    out += "[";
    bool first = true;
    for (const Row& row : form.rows) {
        if (!only.empty() && std::find(only.begin(), only.end(), row.tag) == only.end()) continue;
        out += first ? "\n" : ",\n";
        first = false;
        appendEntry(out, row, indent + 2, form.android);
        out.checkpoint();
    }
    if (!first) {
        out += '\n';
        out.pad(indent);
    }
    out += ']';
}

//------------------------------------------------------------------------------------------
// Reading.

class FormWriter {
public:
    std::vector<uint8_t> bytes;
    // The definition of the entry being read, when it enumerates its values: names are
    // accepted for them.
    const NSCam::AndroidTagInfo* enumerated = nullptr;

    void block(const json& entries, const std::string& path, int depth) {
        if (!entries.is_array()) fail(path, "expected an array of entries");
        if (entries.size() > static_cast<size_t>(flat::kMaxRecords))
            fail(path, "more than " + std::to_string(flat::kMaxRecords) + " entries");
        u32(flat::kStorageMagic);
        u32(static_cast<uint32_t>(entries.size()));
        for (size_t i = 0; i < entries.size(); ++i)
            record(entries[i], path + "/" + std::to_string(i), depth);
    }

private:
    [[noreturn]] static void fail(const std::string& path, const std::string& why) {
        throw Failure((path.empty() ? std::string("/") : path) + ": " + why);
    }

    void u32(uint32_t v) {
        const uint8_t b[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                              static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
        bytes.insert(bytes.end(), b, b + 4);
    }
    void raw(const void* p, size_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        bytes.insert(bytes.end(), b, b + n);
    }
    // A length field, filled once what it counts is written.
    size_t hole() {
        u32(0);
        return bytes.size();
    }
    void fill(size_t hole, const std::string& path) {
        const size_t length = bytes.size() - hole;
        if (length > std::numeric_limits<uint32_t>::max()) fail(path, "longer than 4 GiB");
        for (int i = 0; i < 4; ++i) bytes[hole - 4 + i] = static_cast<uint8_t>(length >> (8 * i));
    }

    static uint32_t tagOf(const json& v, const std::string& path) {
        uint32_t tag;
        if (v.is_number_unsigned() && v.get<uint64_t>() <= 0xFFFFFFFFu)
            return static_cast<uint32_t>(v.get<uint64_t>());
        if (v.is_string() && parseTag(v.get_ref<const std::string&>(), tag)) return tag;
        fail(path, "not a tag number nor a known tag name");
    }

    int64_t integer(const json& v, int64_t lo, int64_t hi, const std::string& path) const {
        int64_t named;
        if (enumerated && v.is_string() &&
            NSCam::androidEnumValue(*enumerated, v.get_ref<const std::string&>().c_str(), named) &&
            named >= lo && named <= hi)
            return named;
        if (v.is_number_unsigned() && v.get<uint64_t>() <= static_cast<uint64_t>(hi))
            return static_cast<int64_t>(v.get<uint64_t>());
        if (v.is_number_integer() && !v.is_number_unsigned() && v.get<int64_t>() >= lo &&
            v.get<int64_t>() <= hi)
            return v.get<int64_t>();
        fail(path, "not an integer from " + std::to_string(lo) + " to " + std::to_string(hi));
    }

    // A float or double: a number, the value's bits as a hex string, or nan/inf/-inf.
    template <typename F, typename Bits>
    static F real(const json& v, const std::string& path) {
        if (v.is_number()) {
            const double d = v.get<double>();
            if constexpr (std::is_same_v<F, float>) {
                // Beyond the largest float and half its last step, a float is infinite.
                if (std::fabs(d) >= 0x1.ffffffp+127) fail(path, "out of the range of a float");
            }
            return static_cast<F>(d);
        }
        if (v.is_string()) {
            const std::string& s = v.get_ref<const std::string&>();
            if (s == "nan") return std::numeric_limits<F>::quiet_NaN();
            if (s == "inf" || s == "-inf")
                return s[0] == '-' ? -std::numeric_limits<F>::infinity()
                                   : std::numeric_limits<F>::infinity();
            Bits bits = 0;
            const char* end = s.data() + s.size();
            if (s.size() == 2 + 2 * sizeof(F) && s.compare(0, 2, "0x") == 0 &&
                std::from_chars(s.data() + 2, end, bits, 16).ptr == end) {
                F f;
                std::memcpy(&f, &bits, sizeof(f));
                return f;
            }
        }
        fail(path, std::string("not a ") + (sizeof(F) == 4 ? "float" : "double") +
                       " (a number, \"nan\", \"inf\", \"-inf\" or its bits as \"0x" +
                       std::string(2 * sizeof(F), 'h') + "\")");
    }

    void fields(const json& v, size_t n, const std::string& path) {
        const NSCam::AndroidTagInfo* saved = enumerated;
        enumerated = nullptr;
        if (!v.is_array() || v.size() != n)
            fail(path, "expected an array of " + std::to_string(n) + " integers");
        for (size_t i = 0; i < n; ++i) {
            const int32_t x = static_cast<int32_t>(
                integer(v[i], INT32_MIN, INT32_MAX, path + "/" + std::to_string(i)));
            raw(&x, 4);
        }
        enumerated = saved;
    }

    void blob(const json& v, const std::string& path) {
        const std::string* s = v.is_string() ? &v.get_ref<const std::string&>() : nullptr;
        if (!s || s->size() % 2) fail(path, "expected a string of hex digit pairs");
        const size_t at = hole();
        for (size_t i = 0; i < s->size(); i += 2) {
            uint8_t b = 0;
            const char* p = s->data() + i;
            if (std::from_chars(p, p + 2, b, 16).ptr != p + 2)
                fail(path, "not a hex digit pair at character " + std::to_string(i));
            bytes.push_back(b);
        }
        fill(at, path);
    }

    void value(int32_t type, const json& v, const std::string& path, int depth) {
        switch (type) {
            case NSCam::TYPE_UINT8:
                bytes.push_back(static_cast<uint8_t>(integer(v, 0, 255, path)));
                return;
            case NSCam::TYPE_INT32: {
                const int32_t x = static_cast<int32_t>(integer(v, INT32_MIN, INT32_MAX, path));
                return raw(&x, 4);
            }
            case NSCam::TYPE_INT64: {
                const int64_t x = integer(v, INT64_MIN, INT64_MAX, path);
                return raw(&x, 8);
            }
            case NSCam::TYPE_FLOAT: {
                const float x = real<float, uint32_t>(v, path);
                return raw(&x, 4);
            }
            case NSCam::TYPE_DOUBLE: {
                const double x = real<double, uint64_t>(v, path);
                return raw(&x, 8);
            }
            case NSCam::TYPE_MRect:
                return fields(v, 4, path);
            case NSCam::TYPE_Memory:
                return blob(v, path);
            case NSCam::TYPE_IMetadata: {
                const size_t at = hole();
                if (!v.is_null()) {
                    if (depth >= flat::kMaxNestingDepth)
                        fail(path, "containers nested deeper than " +
                                       std::to_string(flat::kMaxNestingDepth) + " levels");
                    block(v, path, depth + 1);
                }
                return fill(at, path);
            }
            default:  // rational, point, size
                return fields(v, 2, path);
        }
    }

    void record(const json& entry, const std::string& path, int depth) {
        if (!entry.is_object()) fail(path, "expected an entry object");
        for (const auto& item : entry.items()) {
            const std::string& key = item.key();
            if (key != "tag" && key != "name" && key != "type" && key != "values" &&
                key != "content")
                fail(path, "unknown key \"" + key + "\"");
        }
        if (!entry.contains("tag")) fail(path, "no \"tag\"");
        const uint32_t tag = tagOf(entry["tag"], path + "/tag");
        if (entry.contains("name") && !entry["name"].is_null()) {
            const char* name = tagName(tag);
            if (!entry["name"].is_string() || !name || entry["name"].get<std::string>() != name)
                fail(path + "/name", "not the name of tag " + hexTag(tag));
        }
        u32(tag);
        const size_t at = hole();
        if (entry.contains("content")) {
            if (entry["content"] != false || entry.contains("type") || entry.contains("values"))
                fail(path, "\"content\" is only ever false, on an entry without type and values");
            return fill(at, path);
        }
        if (!entry.contains("type") || !entry.contains("values") || !entry["values"].is_array())
            fail(path, "expected \"type\" and an array of \"values\" (or \"content\": false)");
        const json& type = entry["type"];
        int32_t code;
        if (type.is_number_integer()) {
            code = static_cast<int32_t>(integer(type, INT32_MIN, INT32_MAX, path + "/type"));
        } else if (!type.is_string() || !typeByName(type.get<std::string>(), code)) {
            fail(path + "/type", "not a type name");
        }
        const json& values = entry["values"];
        if (!NSCam::typeFacts(code) && !values.empty())
            fail(path + "/values", "values need a known type");
        if (values.size() > static_cast<size_t>(INT32_MAX)) fail(path, "too many values");
        u32(flat::kContentPattern);
        u32(static_cast<uint32_t>(code));
        u32(static_cast<uint32_t>(values.size()));
        enumerated = enumeratedOf(tag);
        for (size_t i = 0; i < values.size(); ++i)
            value(code, values[i], path + "/values/" + std::to_string(i), depth);
        enumerated = nullptr;
        fill(at, path);
    }

    static const NSCam::AndroidTagInfo* enumeratedOf(uint32_t tag) {
        const NSCam::AndroidTagInfo* info = NSCam::androidTagInfo(tag);
        return info && info->enumCount ? info : nullptr;
    }

public:
    // One entry of a packet: its tag, type and count, and its values appended to `bytes`.
    struct PacketEntry {
        uint32_t tag;
        uint8_t type;
        uint32_t count;
    };
    PacketEntry packetEntry(const json& entry, const std::string& path) {
        if (!entry.is_object()) fail(path, "expected an entry object");
        for (const auto& item : entry.items()) {
            const std::string& key = item.key();
            if (key != "tag" && key != "name" && key != "type" && key != "values")
                fail(path, "unknown key \"" + key + "\"");
        }
        if (!entry.contains("tag")) fail(path, "no \"tag\"");
        PacketEntry e;
        e.tag = tagOf(entry["tag"], path + "/tag");
        if (entry.contains("name") && !entry["name"].is_null()) {
            const char* name = tagName(e.tag);
            if (!entry["name"].is_string() || !name || entry["name"].get<std::string>() != name)
                fail(path + "/name", "not the name of tag " + hexTag(e.tag));
        }
        if (!entry.contains("type") || !entry["type"].is_string() || !entry.contains("values") ||
            !entry["values"].is_array())
            fail(path, "expected a \"type\" and an array of \"values\"");
        const std::string& type = entry["type"].get_ref<const std::string&>();
        e.type = NSCam::ANDROID_NUM_TYPES;
        for (uint8_t t = 0; t < NSCam::ANDROID_NUM_TYPES; ++t)
            if (type == NSCam::androidTypeName(t)) e.type = t;
        if (e.type == NSCam::ANDROID_NUM_TYPES)
            fail(path + "/type", "not a packet type (byte, int32, float, int64, double, rational)");
        const json& values = entry["values"];
        if (values.size() > UINT32_MAX) fail(path, "too many values");
        e.count = static_cast<uint32_t>(values.size());
        enumerated = enumeratedOf(e.tag);
        for (size_t i = 0; i < values.size(); ++i)
            value(e.type, values[i], path + "/values/" + std::to_string(i), 0);
        enumerated = nullptr;
        return e;
    }

    // A header field: a number, or a string of hex digits after "0x".
    static uint64_t headerNumber(const json& v, uint64_t max, const std::string& path) {
        if (v.is_number_unsigned() && v.get<uint64_t>() <= max) return v.get<uint64_t>();
        if (v.is_string()) {
            const std::string& s = v.get_ref<const std::string&>();
            uint64_t n = 0;
            const char* end = s.data() + s.size();
            if (s.size() > 2 && s.compare(0, 2, "0x") == 0 &&
                std::from_chars(s.data() + 2, end, n, 16).ptr == end && n <= max)
                return n;
        }
        fail(path, "not a number up to " + std::to_string(max) + " (or \"0x\" and hex digits)");
    }

    [[noreturn]] static void refuse(const std::string& path, const std::string& why) {
        fail(path, why);
    }
};

// A packet from its JSON object, laid out as the library lays one out.
std::vector<uint8_t> packetFromJson(const json& doc) {
    namespace pl = NSCam;
    for (const auto& item : doc.items())
        if (item.key() != "android_packet" && item.key() != "entries")
            FormWriter::refuse("", "unknown key \"" + item.key() + "\"");
    if (!doc.contains("android_packet") || !doc["android_packet"].is_object())
        FormWriter::refuse("/android_packet", "expected an object");
    const json& head = doc["android_packet"];
    for (const auto& item : head.items()) {
        const std::string& key = item.key();
        if (key != "version" && key != "flags" && key != "vendor_id" && key != "entry_capacity" &&
            key != "data_capacity")
            FormWriter::refuse("/android_packet", "unknown key \"" + key + "\"");
    }
    const auto field = [&head](const char* key, uint64_t fallback, uint64_t max) {
        return head.contains(key)
                   ? FormWriter::headerNumber(head[key], max, std::string("/android_packet/") + key)
                   : fallback;
    };
    if (field("version", 1, UINT32_MAX) != pl::AndroidPacketLayout::kVersion)
        FormWriter::refuse("/android_packet/version", "only version 1 is known");
    const uint32_t flags = static_cast<uint32_t>(field("flags", 0, UINT32_MAX));
    const uint64_t vendorId = field("vendor_id", pl::AndroidPacketLayout::kNoVendorId, UINT64_MAX);
    if (!doc.contains("entries") || !doc["entries"].is_array())
        FormWriter::refuse("/entries", "expected an array of entries");
    const json& entries = doc["entries"];

    FormWriter values;  // every payload, one after the other
    std::vector<FormWriter::PacketEntry> heads;
    std::vector<size_t> starts;
    for (size_t i = 0; i < entries.size(); ++i) {
        starts.push_back(values.bytes.size());
        heads.push_back(values.packetEntry(entries[i], "/entries/" + std::to_string(i)));
    }
    starts.push_back(values.bytes.size());
    const auto align = [](uint64_t n) { return (n + 7) & ~uint64_t{7}; };
    uint64_t dataCount = 0;
    for (size_t i = 0; i < heads.size(); ++i) {
        const uint64_t bytes = starts[i + 1] - starts[i];
        if (bytes > pl::AndroidPacketLayout::kInlineBytes) dataCount += align(bytes);
    }
    const uint64_t entryCapacity =
        std::max<uint64_t>(heads.size(), field("entry_capacity", 0, UINT32_MAX));
    const uint64_t dataCapacity = std::max(dataCount, field("data_capacity", 0, UINT32_MAX));
    const uint64_t dataStart = 48 + 16 * entryCapacity;
    const uint64_t size = align(dataStart + dataCapacity);
    if (size > UINT32_MAX) FormWriter::refuse("", "a packet holds at most 4 GiB");

    std::vector<uint8_t> out(static_cast<size_t>(size), 0);
    const auto put = [&out](size_t at, uint32_t v) { std::memcpy(out.data() + at, &v, 4); };
    put(0, static_cast<uint32_t>(size));
    put(4, pl::AndroidPacketLayout::kVersion);
    put(8, flags);
    put(12, static_cast<uint32_t>(heads.size()));
    put(16, static_cast<uint32_t>(entryCapacity));
    put(20, 48);
    put(24, static_cast<uint32_t>(dataCount));
    put(28, static_cast<uint32_t>(dataCapacity));
    put(32, static_cast<uint32_t>(dataStart));
    std::memcpy(out.data() + 40, &vendorId, 8);
    uint32_t offset = 0;
    for (size_t i = 0; i < heads.size(); ++i) {
        const size_t at = 48 + 16 * i;
        const size_t bytes = starts[i + 1] - starts[i];
        const uint8_t* payload = values.bytes.data() + starts[i];
        put(at, heads[i].tag);
        put(at + 4, heads[i].count);
        out[at + 12] = heads[i].type;
        if (bytes <= pl::AndroidPacketLayout::kInlineBytes) {
            if (bytes) std::memcpy(out.data() + at + 8, payload, bytes);
        } else {
            put(at + 8, offset);
            std::memcpy(out.data() + dataStart + offset, payload, bytes);
            offset += static_cast<uint32_t>(align(bytes));
        }
    }
    // Written from the layout by hand, so checked the way a receiver would check it.
    const pl::AndroidPacketCheck check = pl::checkAndroidPacket(out.data(), out.size());
    if (!check.ok)
        throw Failure(std::string("receivers would refuse the packet: ") + check.reason + " (" +
                      check.field + ") at byte " + std::to_string(check.offset));
    return out;
}

}  // namespace

void writeJson(Out& out, const Form& form, const std::vector<uint32_t>& only) {
    if (!form.android) {
        appendBlock(out, form, only, 0);
        out += '\n';
        return;
    }
    // A filtered packet has fewer entries than its capacities were made for: the capacities
    // are left out, and from-json makes it compact.
    const PacketHeader& h = form.packet;
    out += "{\"android_packet\": {\"version\": 1, \"flags\": \"";
    appendHex32(out, h.flags);
    out += "\", \"vendor_id\": \"0x";
    static const char digits[] = "0123456789abcdef";
    for (int shift = 60; shift >= 0; shift -= 4) out += digits[(h.vendorId >> shift) & 0xF];
    out += '"';
    if (only.empty()) {
        out += ", \"entry_capacity\": " + std::to_string(h.entryCapacity) +
               ", \"data_capacity\": " + std::to_string(h.dataCapacity);
    }
    out += "},\n \"entries\": ";
    appendBlock(out, form, only, 0);
    out += "}\n";
}

std::vector<uint8_t> formFromJson(std::string_view text) {
    json doc;
    try {
        doc = json::parse(text.begin(), text.end());
    } catch (const json::parse_error& e) {
        // "[json.exception.parse_error.101] parse error at line 3, column 1: ..."
        std::string why = e.what();
        const size_t bracket = why.find("] ");
        throw Failure("not JSON: " +
                      (bracket == std::string::npos ? why : why.substr(bracket + 2)));
    }
    if (doc.is_object()) return packetFromJson(doc);
    FormWriter writer;
    writer.block(doc, "", 0);
    // Written from the layout by hand, so checked the way a receiver would check it.
    const NSCam::FlatCheck check =
        NSCam::checkFlatMetadata(writer.bytes.data(), writer.bytes.size());
    if (!check.ok)
        throw Failure(std::string("receivers would refuse the form: ") + check.reason +
                      " at byte " + std::to_string(check.offset));
    return std::move(writer.bytes);
}

}  // namespace zmeta
