// The sample: a still-capture request as an app sends it (sample_request.tsv), in the types,
// shapes and enumerated values of the platform's definitions. Each line is checked against
// them: a tag the platform does not define, a value of the wrong kind or an unknown
// enumerated name, or a count its shape does not allow, fails loudly rather than writing a
// request no app could send.
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/IMetadata.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "Zmeta.h"

namespace zmeta {
namespace {

using NSCam::IMetadata;

[[noreturn]] void bad(const SampleRow& row, const std::string& why) {
    throw Failure(std::string("sample: ") + row.name + ": " + why);
}

// The counts a shape allows: "single" one; "4" or "3 x 3" exactly that many; with a name
// among the dimensions ("5 x area_count", "n x 2") any multiple of the numbered ones.
bool countFits(const char* shape, size_t count) {
    if (std::strcmp(shape, "single") == 0) return count == 1;
    std::istringstream words(shape);
    std::string word;
    size_t product = 1;
    bool open = false;
    while (words >> word) {
        if (word == "x") continue;
        size_t n = 0;
        const auto r = std::from_chars(word.data(), word.data() + word.size(), n);
        if (r.ec == std::errc() && r.ptr == word.data() + word.size())
            product *= n;
        else
            open = true;
    }
    return open ? count % product == 0 : count == product;
}

template <typename T>
void put(IMetadata& meta, uint32_t tag, const std::vector<T>& values) {
    IMetadata::IEntry entry(tag);
    entry.push_back(values.data(), values.size(), NSCam::Type2Type<T>());
    meta.update(entry);
}

template <typename T>
T number(const SampleRow& row, const NSCam::AndroidTagInfo& info, const std::string& word) {
    int64_t named;
    if (info.enumCount && NSCam::androidEnumValue(info, word.c_str(), named))
        return static_cast<T>(named);
    if (info.enumCount) bad(row, "'" + word + "' is not one of its enumerated values");
    T v{};
    const auto r = std::from_chars(word.data(), word.data() + word.size(), v);
    if (r.ec != std::errc() || r.ptr != word.data() + word.size())
        bad(row, "'" + word + "' is not a value of its type");
    return v;
}

// The request in the platform's types: what a packet carries.
IMetadata request() {
    IMetadata meta;
    for (size_t i = 0; i < kSampleRequestCount; ++i) {
        const SampleRow& row = kSampleRequest[i];
        const NSCam::AndroidTagInfo* info = NSCam::androidTagByName(row.name);
        if (!info) bad(row, "not a tag of the platform");
        if (!(info->kinds & NSCam::AndroidTagInfo::kControls)) bad(row, "not a request's tag");
        std::istringstream text(row.values);
        std::vector<std::string> words;
        for (std::string w; text >> w;) words.push_back(w);
        const size_t count = words.size();
        if (!countFits(info->shape, count))
            bad(row, std::to_string(count) + " values do not fit its shape '" + info->shape + "'");
        switch (info->type) {
            case NSCam::ANDROID_TYPE_BYTE: {
                std::vector<uint8_t> v;
                for (const auto& w : words) v.push_back(number<uint8_t>(row, *info, w));
                put(meta, info->tag, v);
                break;
            }
            case NSCam::ANDROID_TYPE_INT32: {
                std::vector<int> v;
                for (const auto& w : words) v.push_back(number<int>(row, *info, w));
                put(meta, info->tag, v);
                break;
            }
            case NSCam::ANDROID_TYPE_INT64: {
                std::vector<long> v;
                for (const auto& w : words) v.push_back(number<long>(row, *info, w));
                put(meta, info->tag, v);
                break;
            }
            case NSCam::ANDROID_TYPE_FLOAT: {
                std::vector<float> v;
                for (const auto& w : words) v.push_back(std::strtof(w.c_str(), nullptr));
                put(meta, info->tag, v);
                break;
            }
            case NSCam::ANDROID_TYPE_DOUBLE: {
                std::vector<double> v;
                for (const auto& w : words) v.push_back(std::strtod(w.c_str(), nullptr));
                put(meta, info->tag, v);
                break;
            }
            default: {  // rationals, written n/d
                std::vector<NSCam::MRational> v;
                for (const auto& w : words) {
                    const size_t slash = w.find('/');
                    if (slash == std::string::npos) bad(row, "'" + w + "' is not n/d");
                    v.emplace_back(number<int>(row, *info, w.substr(0, slash)),
                                   number<int>(row, *info, w.substr(slash + 1)));
                }
                put(meta, info->tag, v);
                break;
            }
        }
    }
    return meta;
}

}  // namespace

std::vector<uint8_t> samplePacket() {
    const IMetadata meta = request();
    NSCam::AndroidWriteOptions options;
    options.sorted = true;
    NSCam::AndroidLeftOutList left;
    const long size = NSCam::androidPacketSize(meta, options, &left);
    if (size < 0 || left.count != 0) throw Failure("sample: the request has no packet");
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    if (NSCam::writeAndroidPacket(meta, bytes.data(), bytes.size(), options) != size)
        throw Failure("sample: the library did not write the packet");
    return bytes;
}

std::vector<uint8_t> sampleForm() {
    // As a receiver holds the request: read from its packet with the platform's shapes.
    const std::vector<uint8_t> packet = samplePacket();
    const NSCam::AndroidTagMap shapes = NSCam::AndroidTagMap::withPlatformShapes();
    IMetadata meta;
    if (!NSCam::readAndroidPacket(packet.data(), packet.size(), meta, &shapes).ok)
        throw Failure("sample: the library did not read the packet back");
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    if (meta.flatten(bytes.data(), bytes.size()) != static_cast<long>(bytes.size()))
        throw Failure("sample: the library did not flatten the sample");
    return bytes;
}

}  // namespace zmeta
