// Rebuilding a container from any bytes that the check accepts. The check and the decoder
// must agree (accepted exactly when the constructor yields a storage, and on the bytes
// consumed), and the flat form of what was rebuilt must be a fixed point: flattening it,
// rebuilding and flattening again gives the same bytes.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"

using NSCam::IMetadata;

namespace {

std::vector<uint8_t> flatOf(const IMetadata& meta) {
    const long size = meta.flattenSize();
    FUZZ_REQUIRE(size >= 8);
    std::vector<uint8_t> out(static_cast<size_t>(size));
    FUZZ_REQUIRE(meta.flatten(out.data(), out.size()) == size);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zorcam_fuzz::silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const NSCam::FlatCheck c = NSCam::checkFlatMetadata(data, size);
    // A type code outside the known ones in a record with elements is a broken invariant
    // for the decoder, which ends the process: the check exists to keep such bytes away.
    if (!c.ok && std::strcmp(c.reason, "type code out of range") == 0) return 0;

    {
        IMetadata::Storage storage;
        const long used = storage.unflatten(data, size);
        FUZZ_REQUIRE(c.ok ? used == static_cast<long>(c.consumed) : used == -1);
    }
    const IMetadata meta(data, size);
    const bool built = meta.getStorageSP() != nullptr;
    FUZZ_REQUIRE(built == c.ok);
    if (!built) return 0;

    const std::vector<uint8_t> f1 = flatOf(meta);
    // What the library writes, the check accepts in full.
    const NSCam::FlatCheck c1 = NSCam::checkFlatMetadata(f1.data(), f1.size());
    FUZZ_REQUIRE(c1.ok && c1.consumed == f1.size());
    // Rows only merge (a repeated tag) or shrink (spare bytes inside a record): never grow.
    FUZZ_REQUIRE(f1.size() <= c.consumed);

    const IMetadata again(f1.data(), f1.size());
    FUZZ_REQUIRE(again.getStorageSP() != nullptr);
    FUZZ_REQUIRE(again.count() == meta.count());
    const std::vector<uint8_t> f2 = flatOf(again);
    FUZZ_REQUIRE(f1 == f2);
    return 0;
}
