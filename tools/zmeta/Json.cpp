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

void appendEntry(Out& out, const Row& row, int indent) {
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
        out += typeName(row.type);
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
        appendEntry(out, row, indent + 2);
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

    static int64_t integer(const json& v, int64_t lo, int64_t hi, const std::string& path) {
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
        if (!v.is_array() || v.size() != n)
            fail(path, "expected an array of " + std::to_string(n) + " integers");
        for (size_t i = 0; i < n; ++i) {
            const int32_t x = static_cast<int32_t>(
                integer(v[i], INT32_MIN, INT32_MAX, path + "/" + std::to_string(i)));
            raw(&x, 4);
        }
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
        for (size_t i = 0; i < values.size(); ++i)
            value(code, values[i], path + "/values/" + std::to_string(i), depth);
        fill(at, path);
    }
};

}  // namespace

void writeJson(Out& out, const Form& form, const std::vector<uint32_t>& only) {
    appendBlock(out, form, only, 0);
    out += '\n';
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
