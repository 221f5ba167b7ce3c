// What a component outside this tree does with the installed library: every public header,
// the typed templates, the exported statics, the updater and the check of foreign bytes.
// Exits non-zero, naming the step, when one of them does not hold.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/IMetadataUpdater.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <cstdio>
#include <cstring>
#include <vector>

using NSCam::IMetadata;

namespace {

int failed(const char* step) {
    std::fprintf(stderr, "consumer: %s\n", step);
    return 1;
}

}  // namespace

int main() {
    IMetadata request;
    IMetadata::setEntry<uint8_t>(&request, 0x1000D, 1);
    IMetadata::setEntry<NSCam::MRect>(&request, 0xD0000, NSCam::MRect(0, 0, 4000, 3000));
    IMetadata::IEntry fps(0x10005);
    fps.push_back(15, NSCam::Type2Type<int>());
    fps.push_back(30, NSCam::Type2Type<int>());
    request.update(fps);
    IMetadata::setEntry<IMetadata::Memory>(&request, 0x80010000, IMetadata::Memory("abc", 3));
    IMetadata::setEntry<int>(&request, 0xC00B0001, 7);

    std::vector<uint8_t> bytes(static_cast<size_t>(request.flattenSize()));
    if (request.flatten(bytes.data(), bytes.size()) != static_cast<long>(bytes.size()))
        return failed("flatten");
    const NSCam::FlatCheck check = NSCam::checkFlatMetadata(bytes.data(), bytes.size());
    if (!check.ok || check.consumed != bytes.size()) return failed("checkFlatMetadata");
    IMetadata received(bytes.data(), bytes.size());
    IMetadata::Memory blob;
    if (received.count() != 5 ||
        received.entryFor(0x10005).itemAt(1, NSCam::Type2Type<int>()) != 30 ||
        !IMetadata::getEntry<IMetadata::Memory>(&received, 0x80010000, blob) || blob.size() != 3)
        return failed("rebuilt container");

    auto updater = NSCam::IMetadataUpdater::create(NSCam::IMetadataUpdater::StaticInfo{0});
    IMetadata control, result, hal;
    if (!updater || updater->appendCustomerMeta(NSCam::IMetadataUpdater::APPEND_AT_DEVICE, &control,
                                                &result, &hal) != 0)
        return failed("updater");

    char prefix[64];
    NSCam::getDumpFilenamePrefix(prefix, sizeof prefix, nullptr, &received);
    if (std::strcmp(prefix, "/sdcard/camera_dump/uniquekey-0007-rqst") != 0)
        return failed("getDumpFilenamePrefix");

    // The exported statistics are readable from outside the library (a link-time check).
    std::printf("consumer: %u entries through %zu bytes; serial %u, pool %u bytes\n",
                received.count(), bytes.size(), IMetadata::mSerialNum.load(),
                IMetadata::Memory::sAllocator.memoryDosage());
    return 0;
}
