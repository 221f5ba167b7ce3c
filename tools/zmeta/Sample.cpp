// The sample: a capture request as a camera component builds it, flattened by the library.
// The 120 entries of the bundled workload with their types and counts (the values are
// plausible, not meaningful), plus a vendor tuning blob and a vendor face-detection result
// held in a nested container, so that every way of printing a value shows up.
#include <zorcam/metadata/IMetadata.h>

#include "Zmeta.h"

namespace zmeta {
namespace {

using NSCam::IMetadata;
using NSCam::MRect;
using NSCam::Type2Type;

constexpr uint32_t kVendorTuningBlob = 0x80010000;
constexpr uint32_t kVendorFaceInfo = 0x80020000;
constexpr uint32_t kFaceDetectMode = 0x00110000;  // android.statistics.faceDetectMode
constexpr uint32_t kFaceRectangles = 0x00110006;  // android.statistics.faceRectangles
constexpr uint32_t kFaceScores = 0x00110007;      // android.statistics.faceScores

template <typename T>
void put(IMetadata& meta, uint32_t tag, const std::vector<T>& values) {
    IMetadata::IEntry entry(tag);
    entry.push_back(values.data(), values.size(), Type2Type<T>());
    meta.update(entry);
}

}  // namespace

std::vector<uint8_t> sampleForm() {
    IMetadata request;
    for (size_t i = 0; i < kSampleRequestCount; ++i) {
        const SampleRow& row = kSampleRequest[i];
        int32_t type = -1;
        typeByName(row.type, type);
        const int seed = static_cast<int>(i);
        switch (type) {
            case NSCam::TYPE_UINT8:
                put(request, row.tag,
                    std::vector<uint8_t>(row.count, static_cast<uint8_t>(seed % 4)));
                break;
            case NSCam::TYPE_INT32: {
                std::vector<int> values(row.count);
                for (uint32_t k = 0; k < row.count; ++k)
                    values[k] = seed * 10 + static_cast<int>(k);
                put(request, row.tag, values);
                break;
            }
            case NSCam::TYPE_FLOAT:
                put(request, row.tag,
                    std::vector<float>{4.38f, 1.8f, 0.5f * static_cast<float>(seed), 2.0f});
                break;
            case NSCam::TYPE_INT64:
                put(request, row.tag, std::vector<long>{33333333L + seed});
                break;
            case NSCam::TYPE_MRect:
                put(request, row.tag, std::vector<MRect>{MRect(0, 0, 4000, 3000)});
                break;
            default:  // the workload holds no other types; a new one fails loudly here
                throw Failure(std::string("sample: no values for type ") + row.type);
        }
    }

    std::vector<uint8_t> tuning(48);
    for (size_t i = 0; i < tuning.size(); ++i) tuning[i] = static_cast<uint8_t>(i * 5);
    put(request, kVendorTuningBlob,
        std::vector<IMetadata::Memory>{IMetadata::Memory(tuning.data(), tuning.size())});

    IMetadata face;
    put(face, kFaceDetectMode, std::vector<uint8_t>{1});  // simple
    put(face, kFaceRectangles, std::vector<int>{1200, 900, 1600, 1300});
    put(face, kFaceScores, std::vector<uint8_t>{87});
    put(request, kVendorFaceInfo, std::vector<IMetadata>{face});

    std::vector<uint8_t> bytes(static_cast<size_t>(request.flattenSize()));
    if (request.flatten(bytes.data(), bytes.size()) != static_cast<long>(bytes.size()))
        throw Failure("sample: the library did not flatten the sample");
    return bytes;
}

}  // namespace zmeta
