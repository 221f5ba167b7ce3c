// The text forms of values and rows: dump, get and diff.
#include <zorcam/metadata/AndroidPacket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <unordered_map>

#include "Zmeta.h"

namespace zmeta {
namespace {

// Bytes of a blob shown in a dump line; the rest is counted, not printed.
constexpr size_t kBlobBytesShown = 32;

template <typename Bits>
void appendBits(Out& out, Bits bits) {
    static const char digits[] = "0123456789abcdef";
    out += "0x";
    for (int shift = 8 * sizeof(Bits) - 4; shift >= 0; shift -= 4)
        out += digits[(bits >> shift) & 0xF];
}

// Shortest text that reads back as the same value. Non-finite values have no JSON number:
// JSON gets a string of their bits, which keeps a NaN's sign and payload; a dump shows
// "inf", "-inf" or "nan(<bits>)". A float or double always shows a point or an exponent, so
// that a JSON reader keeps -0.0 apart from the integer 0.
template <typename F, typename Bits>
void appendReal(Out& out, F value, bool json) {
    static_assert(sizeof(F) == sizeof(Bits));
    Bits bits;
    std::memcpy(&bits, &value, sizeof(bits));
    if (!std::isfinite(value)) {
        if (json) {
            out += '"';
            appendBits(out, bits);
            out += '"';
        } else if (std::isnan(value)) {
            out += "nan(";
            appendBits(out, bits);
            out += ')';
        } else {
            out += value < 0 ? "-inf" : "inf";
        }
        return;
    }
    char buf[64];
    char* end = std::to_chars(buf, buf + sizeof(buf), value).ptr;
    if constexpr (std::is_same_v<F, float>) {
        if (json) {
            // JSON readers hold numbers as doubles, so a float takes one more rounding on
            // its way back (double, then float). Where the shortest float text does not
            // survive that, the double's shortest text of the same value does. Of all 2^32
            // floats, two need it: +-7.038531e-26 (bits 0x15ae43fd and 0x95ae43fd).
            double read = 0;
            std::from_chars(buf, end, read);  // correctly rounded, as strtod
            const float back = static_cast<float>(read);
            if (std::memcmp(&back, &value, sizeof(value)) != 0)
                end = std::to_chars(buf, buf + sizeof(buf), static_cast<double>(value)).ptr;
        }
    }
    out.append(buf, static_cast<size_t>(end - buf));
    if (std::find_if(buf, end, [](char c) { return c == '.' || c == 'e'; }) == end) out += ".0";
}

template <typename T>
void appendInt(Out& out, T value) {
    char buf[24];
    out.append(buf, static_cast<size_t>(std::to_chars(buf, buf + sizeof(buf), value).ptr - buf));
}

int32_t i32At(const uint8_t* p, int i) {
    int32_t v;
    std::memcpy(&v, p + 4 * i, 4);
    return v;
}

void appendHead(Out& out, uint32_t tag) {
    appendHex32(out, tag);
    if (const char* name = tagName(tag)) {
        out += ' ';
        out += name;
    }
}

void appendSpare(Out& out, size_t spare, const char* where) {
    if (spare == 0) return;
    out += " (+";
    appendInt(out, spare);
    out += " spare bytes";
    out += where;
    out += ')';
}

// The integer value of element `i` of a byte, int32 or int64 row.
int64_t integerAt(const Row& row, uint32_t i) {
    const uint8_t* p = row.payload.data;
    switch (row.type) {
        case NSCam::TYPE_UINT8:
            return p[i];
        case NSCam::TYPE_INT32:
            return i32At(p, static_cast<int>(i));
        default: {
            int64_t v;
            std::memcpy(&v, p + 8 * static_cast<size_t>(i), 8);
            return v;
        }
    }
}

// The values of a row of a basic type: enumerated values by name and number
// ("ON_AUTO_FLASH (2)") where the platform defines the tag with this type; in a packet, int32
// rectangles, sizes and points by their typedef, as the container's MRect, MSize and MPoint
// print.
void appendBasicValues(Out& out, const Row& row, const NSCam::TypeFacts& facts, bool android) {
    const NSCam::AndroidTagInfo* info = NSCam::androidTagInfo(row.tag);
    if (info && info->type != row.type) info = nullptr;  // not the platform's values
    int32_t groupType = -1;
    if (android && info && row.type == NSCam::TYPE_INT32) {
        if (info->platformShape == NSCam::AndroidShape::kRect && row.count % 4 == 0)
            groupType = NSCam::TYPE_MRect;
        else if (info->platformShape == NSCam::AndroidShape::kSize && row.count % 2 == 0)
            groupType = NSCam::TYPE_MSize;
        else if (info->platformShape == NSCam::AndroidShape::kPoint && row.count % 2 == 0)
            groupType = NSCam::TYPE_MPoint;
    }
    if (groupType >= 0) {
        const size_t step = static_cast<size_t>(NSCam::kTypeFacts[groupType].size);
        for (size_t at = 0; at < row.payload.size; at += step) {
            out += ' ';
            appendElement(out, groupType, row.payload.data + at, false);
        }
        return;
    }
    const bool enumerated = info && info->enumCount > 0;
    for (uint32_t i = 0; i < row.count; ++i) {
        out += ' ';
        const char* name = enumerated ? NSCam::androidEnumName(*info, integerAt(row, i)) : nullptr;
        if (name) {
            out += name;
            out += " (";
        }
        appendElement(out, row.type, row.payload.data + i * static_cast<size_t>(facts.size), false);
        if (name) out += ')';
        out.checkpoint();
    }
}

// What follows a row's tag and name on its dump line: "type[count] values", the line end,
// and the dumps of its nested containers below it.
void appendContent(Out& out, const Row& row, int indent, bool android) {
    if (!row.hasContent) {
        out += " (no content)\n";
        return;
    }
    out += ' ';
    out += typeName(row.type, android);
    out += '[';
    appendInt(out, row.count);
    out += ']';
    if (const NSCam::TypeFacts* facts = NSCam::typeFacts(row.type); facts && facts->basic)
        appendBasicValues(out, row, *facts, android);
    for (size_t i = 0; i < row.blobs.size(); ++i) {
        const Span& blob = row.blobs[i];
        out += i ? ", [" : " [";
        appendInt(out, blob.size);
        out += " bytes]";
        if (blob.size) out += ' ';
        appendHexBytes(out, blob.data, std::min(blob.size, kBlobBytesShown));
        if (blob.size > kBlobBytesShown) {
            out += "... (+";
            appendInt(out, blob.size - kBlobBytesShown);
            out += " bytes)";
        }
    }
    appendSpare(out, row.spare, " in record");
    out += '\n';
    for (size_t i = 0; i < row.nested.size(); ++i) {
        out.pad(indent + 2);
        out += '[';
        appendInt(out, i);
        out += ']';
        if (!row.nested[i]) {
            out += " empty slot\n";
            continue;
        }
        appendSpare(out, row.nested[i]->spare, " in slot");
        out += '\n';
        dumpForm(out, *row.nested[i], {}, indent + 4);
    }
}

void appendRow(Out& out, const Row& row, int indent, bool android, const char* mark = "") {
    out.pad(indent);
    out += mark;
    appendHead(out, row.tag);
    appendContent(out, row, indent, android);
}

}  // namespace

void Out::flush() {
    if (!mText.empty() && std::fwrite(mText.data(), 1, mText.size(), mStream) != mText.size())
        throw Failure(std::string("cannot write the output: ") + std::strerror(errno));
    mText.clear();
}

void appendHexBytes(Out& out, const uint8_t* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    // In slices, so that a blob of many megabytes goes out as it is written.
    for (size_t done = 0; done < n;) {
        const size_t slice = std::min<size_t>(n - done, 1 << 15);
        char* dst = out.grow(2 * slice);
        for (size_t i = 0; i < slice; ++i) {
            dst[2 * i] = digits[p[done + i] >> 4];
            dst[2 * i + 1] = digits[p[done + i] & 0xF];
        }
        done += slice;
        out.checkpoint();
    }
}

void appendFloat(Out& out, float value, bool json) {
    appendReal<float, uint32_t>(out, value, json);
}
void appendDouble(Out& out, double value, bool json) {
    appendReal<double, uint64_t>(out, value, json);
}

void appendElement(Out& out, int32_t type, const uint8_t* p, bool json) {
    switch (type) {
        case NSCam::TYPE_UINT8:
            appendInt(out, static_cast<unsigned>(*p));
            return;
        case NSCam::TYPE_INT32:
            appendInt(out, i32At(p, 0));
            return;
        case NSCam::TYPE_INT64: {
            int64_t v;
            std::memcpy(&v, p, 8);
            appendInt(out, v);
            return;
        }
        case NSCam::TYPE_FLOAT: {
            float v;
            std::memcpy(&v, p, 4);
            appendFloat(out, v, json);
            return;
        }
        case NSCam::TYPE_DOUBLE: {
            double v;
            std::memcpy(&v, p, 8);
            appendDouble(out, v, json);
            return;
        }
        default:
            break;
    }
    // Rationals, points, sizes, rects: JSON arrays of their fields in memory order; in a
    // dump 1/100, (x,y), WxH and (x,y)+WxH.
    const int fields = type == NSCam::TYPE_MRect ? 4 : 2;
    if (json) {
        out += '[';
        for (int i = 0; i < fields; ++i) {
            if (i) out += ", ";
            appendInt(out, i32At(p, i));
        }
        out += ']';
        return;
    }
    const auto pair = [&](int first, char separator) {
        appendInt(out, i32At(p, first));
        out += separator;
        appendInt(out, i32At(p, first + 1));
    };
    if (type == NSCam::TYPE_MRational) {
        pair(0, '/');
    } else if (type == NSCam::TYPE_MSize) {
        pair(0, 'x');
    } else {
        out += '(';
        pair(0, ',');
        out += ')';
        if (type == NSCam::TYPE_MRect) {
            out += '+';
            pair(2, 'x');
        }
    }
}

void appendPacketHeader(Out& out, const Form& form) {
    const PacketHeader& h = form.packet;
    out += "android packet: ";
    appendInt(out, h.size);
    out += " bytes, ";
    appendInt(out, form.rows.size());
    out += form.rows.size() == 1 ? " entry" : " entries";
    if (h.entryCapacity != form.rows.size()) {
        out += " (room for ";
        appendInt(out, h.entryCapacity);
        out += ')';
    }
    out += ", data ";
    appendInt(out, h.dataCount);
    if (h.dataCapacity != h.dataCount) {
        out += " of ";
        appendInt(out, h.dataCapacity);
    }
    out += " bytes, flags ";
    appendHex32(out, h.flags);
    if (h.flags & NSCam::AndroidPacketLayout::kFlagSorted) out += " (sorted)";
    out += ", vendor id ";
    if (h.vendorId == NSCam::AndroidPacketLayout::kNoVendorId) {
        out += "none";
    } else {
        appendBits(out, h.vendorId);
    }
    out += '\n';
}

void dumpForm(Out& out, const Form& form, const std::vector<uint32_t>& only, int indent) {
    for (const Row& row : form.rows) {
        if (only.empty() || std::find(only.begin(), only.end(), row.tag) != only.end()) {
            appendRow(out, row, indent, form.android);
            out.checkpoint();
        }
    }
}

void printValues(Out& out, const Row& row) {
    if (const NSCam::TypeFacts* facts = NSCam::typeFacts(row.type); facts && facts->basic) {
        for (uint32_t i = 0; i < row.count; ++i) {
            appendElement(out, row.type, row.payload.data + i * static_cast<size_t>(facts->size),
                          false);
            out += '\n';
            out.checkpoint();
        }
    }
    for (const Span& blob : row.blobs) {
        appendHexBytes(out, blob.data, blob.size);
        out += '\n';
    }
    for (size_t i = 0; i < row.nested.size(); ++i) {
        out += '[';
        appendInt(out, i);
        out += row.nested[i] ? "]\n" : "] empty slot\n";
        if (row.nested[i]) dumpForm(out, *row.nested[i], {}, 2);
    }
}

bool diffForms(Out& out, const Form& a, const Form& b, int indent) {
    // A tag's n-th row in one form is compared with its n-th row in the other, so a
    // repeated tag shows as such; the order of the rows is not compared.
    std::unordered_map<uint32_t, std::vector<const Row*>> inB;
    for (const Row& row : b.rows) inB[row.tag].push_back(&row);
    std::unordered_map<uint32_t, size_t> seenInA;
    bool differ = false;
    for (const Row& row : a.rows) {
        const size_t n = seenInA[row.tag]++;
        const auto it = inB.find(row.tag);
        if (it == inB.end() || n >= it->second.size()) {
            appendRow(out, row, indent, a.android, "- ");
            differ = true;
            continue;
        }
        const Row& other = *it->second[n];
        if (sameRows(row, other)) continue;
        differ = true;
        out.pad(indent);
        out += "~ ";
        appendHead(out, row.tag);
        // Containers of as many non-empty slots: the differences slot by slot.
        bool slots = row.type == NSCam::TYPE_IMetadata && other.type == NSCam::TYPE_IMetadata &&
                     row.count == other.count;
        for (size_t i = 0; slots && i < row.nested.size(); ++i)
            slots = row.nested[i] && other.nested[i];
        if (!slots) {
            out += '\n';
            for (const Row* side : {&row, &other}) {
                out.pad(indent + 2);
                out += side == &row ? '-' : '+';
                appendContent(out, *side, indent + 2, a.android);
            }
            continue;
        }
        out += " metadata[";
        appendInt(out, row.count);
        out += "]\n";
        for (size_t i = 0; i < row.nested.size(); ++i) {
            Out lines;
            if (!diffForms(lines, *row.nested[i], *other.nested[i], indent + 4)) continue;
            out.pad(indent + 2);
            out += '[';
            appendInt(out, i);
            out += "]\n";
            out += lines.text();
        }
    }
    std::unordered_map<uint32_t, size_t> seenInB;
    for (const Row& row : b.rows) {
        if (seenInB[row.tag]++ < seenInA[row.tag]) continue;
        appendRow(out, row, indent, b.android, "+ ");
        differ = true;
    }
    return differ;
}

}  // namespace zmeta
