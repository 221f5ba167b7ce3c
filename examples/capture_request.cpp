// A walk through the metadata container as a camera component uses it for one capture
// request: build the request's controls, copy and edit the copy, merge, flatten to bytes
// (as for a trip to another process), rebuild from the bytes, let the metadata updater add
// its customer entries at the device stage, dump the result and name the dump files.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/IMetadataUpdater.h>
#include <zorcam/platform/ULog.h>

#include <android-base/properties.h>
#include <android/log.h>

#include <cstdio>
#include <cstring>
#include <vector>

using NSCam::IMetadata;
using NSCam::MRational;
using NSCam::MRect;
using NSCam::Type2Type;

namespace {

// Android camera tags (Android 14 numbering) and two vendor tags.
constexpr uint32_t kColorCorrectionTransform = 0x00000001;  // rational x9
constexpr uint32_t kAeMode = 0x00010003;                    // byte
constexpr uint32_t kAeTargetFpsRange = 0x00010005;          // int32 x2
constexpr uint32_t kCaptureIntent = 0x0001000d;             // byte
constexpr uint32_t kFlashStrengthLevel = 0x00040006;        // int32 (newer than the slot map)
constexpr uint32_t kJpegGpsCoordinates = 0x00070000;        // double x3
constexpr uint32_t kJpegQuality = 0x00070004;               // byte
constexpr uint32_t kLensFocalLength = 0x00080002;           // float
constexpr uint32_t kScalerCropRegion = 0x000d0000;          // rectangle
constexpr uint32_t kSensorExposureTime = 0x000e0000;        // int64, nanoseconds
constexpr uint32_t kVendorTuningBlob = 0x80010000;          // vendor: a tuning blob
constexpr uint32_t kVendorFaceInfo = 0x80020000;            // vendor: a nested container
constexpr uint32_t kFrameUniqueKey = 0xC00B0000;            // HAL: request identity
constexpr uint32_t kFrameNumber = 0xC00B0001;
constexpr uint32_t kRequestNumber = 0xC00B0002;

template <typename T>
void set(IMetadata& meta, uint32_t tag, const T* values, size_t count) {
    IMetadata::IEntry entry(tag);
    entry.push_back(values, count, Type2Type<T>());
    meta.update(entry);
}

std::vector<uint8_t> flatten(const IMetadata& meta) {
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    const long written = meta.flatten(bytes.data(), bytes.size());
    bytes.resize(written < 0 ? 0 : static_cast<size_t>(written));
    return bytes;
}

IMetadata buildRequest() {
    IMetadata request;
    IMetadata::setEntry<uint8_t>(&request, kCaptureIntent, 1);  // still capture
    IMetadata::setEntry<uint8_t>(&request, kAeMode, 1);         // auto exposure on
    const int fps[] = {15, 30};
    set(request, kAeTargetFpsRange, fps, 2);
    IMetadata::setEntry<MRect>(&request, kScalerCropRegion, MRect(0, 0, 4000, 3000));
    IMetadata::setEntry<float>(&request, kLensFocalLength, 4.38f);
    IMetadata::setEntry<long>(&request, kSensorExposureTime, 33333333L);
    IMetadata::setEntry<uint8_t>(&request, kJpegQuality, 95);
    const double gps[] = {48.8584, 2.2945, 35.0};
    set(request, kJpegGpsCoordinates, gps, 3);
    MRational identity[9];
    for (int i = 0; i < 9; ++i) identity[i] = MRational(i % 4 == 0 ? 1 : 0, 1);
    set(request, kColorCorrectionTransform, identity, 9);
    IMetadata::setEntry<int>(&request, kFlashStrengthLevel, 3);

    const char tuning[] = "tuning:v7;nr=2;sharp=1";
    IMetadata::setEntry<IMetadata::Memory>(&request, kVendorTuningBlob,
                                           IMetadata::Memory(tuning, sizeof(tuning) - 1));
    IMetadata faces;
    IMetadata::setEntry<int>(&faces, 0x00110006, 1);  // one face
    IMetadata::setEntry<MRect>(&faces, kScalerCropRegion, MRect(1200, 900, 400, 400));
    IMetadata::setEntry<IMetadata>(&request, kVendorFaceInfo, faces);

    IMetadata::setEntry<int>(&request, kFrameUniqueKey, 12);
    IMetadata::setEntry<int>(&request, kFrameNumber, 7);
    IMetadata::setEntry<int>(&request, kRequestNumber, 3);
    return request;
}

}  // namespace

int main() {
    // 1. The request's controls.
    IMetadata request = buildRequest();
    std::printf("built a capture request of %u entries\n", request.count());

    // 2. A copy costs one reference; the first write through it copies the table only.
    IMetadata reprocess(request);
    IMetadata::setEntry<uint8_t>(&reprocess, kJpegQuality, 80);
    uint8_t original = 0, edited = 0;
    IMetadata::getEntry<uint8_t>(&request, kJpegQuality, original);
    IMetadata::getEntry<uint8_t>(&reprocess, kJpegQuality, edited);
    std::printf("copy edited: jpeg quality %u in the copy, still %u in the request\n", edited,
                original);

    // 3. Merge: tags present in both take the other's values in place; new tags append.
    IMetadata overrides;
    IMetadata::setEntry<uint8_t>(&overrides, kAeMode, 0);
    IMetadata::setEntry<long>(&overrides, kSensorExposureTime, 10000000L);
    request += overrides;
    long exposure = 0;
    IMetadata::getEntry<long>(&request, kSensorExposureTime, exposure);
    std::printf("merged %u overrides: %u entries, exposure now %ld ns\n", overrides.count(),
                request.count(), exposure);

    // 4. Flatten to bytes and rebuild in a fresh container, as a receiving process would.
    const std::vector<uint8_t> bytes = flatten(request);
    IMetadata received(bytes.data(), bytes.size());
    const bool equal = !bytes.empty() && flatten(received) == bytes;
    MRect crop;
    IMetadata::getEntry<MRect>(&received, kScalerCropRegion, crop);
    IMetadata faces;
    int faceCount = 0;
    IMetadata::getEntry<IMetadata>(&received, kVendorFaceInfo, faces);
    IMetadata::getEntry<int>(&faces, 0x00110006, faceCount);
    std::printf("flattened to %zu bytes; rebuilt %u entries; crop (%d,%d %dx%d); faces %d\n",
                bytes.size(), received.count(), crop.p.x, crop.p.y, crop.s.w, crop.s.h, faceCount);
    std::printf("round trip equal: %s\n", equal ? "yes" : "NO");

    // 5. The device stage of the updater, with both debug hints switched on. On a device
    // these are system properties set with setprop; on the host they live in this process.
    android::base::SetProperty("vendor.camera.debug.metaUpdater.appendMFNR", "1");
    android::base::SetProperty("vendor.camera.debug.metaUpdater.setHintForCustomTuning", "0");
    auto updater = NSCam::IMetadataUpdater::create(NSCam::IMetadataUpdater::StaticInfo{0});
    const uint32_t before = received.count();
    const int rc = updater->appendCustomerMeta(NSCam::IMetadataUpdater::APPEND_AT_DEVICE, &received,
                                               nullptr, nullptr);
    int mfnr = -1, tuningHint = -1;
    IMetadata::getEntry<int>(&received, 0x80040000, mfnr);
    IMetadata::getEntry<int>(&received, 0x800B0011, tuningHint);
    std::printf(
        "updater at the device stage: rc %d, %u -> %u entries, MFNR hint %d, tuning "
        "hint %d\n",
        rc, before, received.count(), mfnr, tuningHint);

    // 6. Dump through the library's own dump (debug lines of the Android log, on stderr here;
    // the log lets debug lines through only when asked, as log.tag would on a device).
    using NSCam::Utils::ULog::ULogger;
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    ULogger::sMode = 0x1;
    ULogger::sDetailsLevel = 5;
    ULogger::sNormalDetailsMask = 0x1001000;
    std::fflush(stdout);
    received.dump(0, true);
    ULogger::sDetailsLevel = 2;

    // 7. Where this request's debug dumps would go.
    char prefix[128];
    std::printf("dump file prefix: %s\n",
                NSCam::getDumpFilenamePrefix(prefix, sizeof(prefix), nullptr, &received));
    return equal ? 0 : 1;
}
