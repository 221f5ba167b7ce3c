// The packet check and the reader on any bytes. The check and the reader must agree (the
// reader accepts exactly what the check accepts, but for packets of more entries than a
// container holds), the entry view must agree with both, the bytes must read the same at an
// odd address, and a packet written from what was read must read back to the same container
// and be written again as the same bytes.
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/IMetadata.h>

#include <cstring>
#include <vector>

#include "FuzzSupport.h"

using namespace NSCam;

namespace {

std::vector<uint8_t> flatOf(const IMetadata& meta) {
    const long size = meta.flattenSize();
    FUZZ_REQUIRE(size >= 8);
    std::vector<uint8_t> out(static_cast<size_t>(size));
    FUZZ_REQUIRE(meta.flatten(out.data(), out.size()) == size);
    return out;
}

std::vector<uint64_t> packetOf(const IMetadata& meta, const AndroidWriteOptions& o) {
    AndroidLeftOutList left;
    const long size = androidPacketSize(meta, o, &left);
    FUZZ_REQUIRE(size >= 48);
    // What was read from a packet has a place in one: nothing is left out.
    FUZZ_REQUIRE(left.count == 0 && left.entries.empty());
    std::vector<uint64_t> words((static_cast<size_t>(size) + 7) / 8);
    FUZZ_REQUIRE(writeAndroidPacket(meta, words.data(), static_cast<size_t>(size), o) == size);
    return words;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zorcam_fuzz::silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const AndroidTagMap shapes = AndroidTagMap::withPlatformShapes();
    const AndroidPacketCheck c = checkAndroidPacket(data, size);
    IMetadata meta;
    const AndroidReadResult r = readAndroidPacket(data, size, meta, &shapes);
    if (c.ok && !r.ok) {
        FUZZ_REQUIRE(std::strcmp(r.check.reason, "more entries than a container holds (32767)") ==
                     0);
        return 0;
    }
    FUZZ_REQUIRE(r.ok == c.ok);
    FUZZ_REQUIRE(r.check.offset == c.offset && std::strcmp(r.check.reason, c.reason) == 0);
    if (!c.ok) {
        FUZZ_REQUIRE(meta.isEmpty());
        return 0;
    }
    FUZZ_REQUIRE(r.entries + r.leftOut == c.entryCount);
    FUZZ_REQUIRE(r.leftOut == 0);  // the platform shapes exclude nothing and take no number
    for (uint32_t i = 0; i < c.entryCount; ++i) {
        AndroidPacketEntry e;
        FUZZ_REQUIRE(androidPacketEntry(data, size, i, e));
        FUZZ_REQUIRE(e.bytes == e.count * androidTypeSize(e.type));
        FUZZ_REQUIRE(e.payload >= data && e.payload + e.bytes <= data + c.size);
    }

    // The same bytes one byte further on.
    std::vector<uint8_t> odd(size + 1);
    std::memcpy(odd.data() + 1, data, size);
    IMetadata oddMeta;
    FUZZ_REQUIRE(readAndroidPacket(odd.data() + 1, size, oddMeta, &shapes).ok);
    const std::vector<uint8_t> f1 = flatOf(meta);
    FUZZ_REQUIRE(flatOf(oddMeta) == f1);

    AndroidWriteOptions o;
    o.map = &shapes;
    o.sorted = (c.flags & AndroidPacketLayout::kFlagSorted) != 0;
    o.vendorId = c.vendorId;
    const std::vector<uint64_t> p1 = packetOf(meta, o);
    const AndroidPacketCheck c1 = checkAndroidPacket(p1.data(), p1.size() * 8);
    FUZZ_REQUIRE(c1.ok && c1.vendorId == c.vendorId && c1.flags == c.flags);
    IMetadata again;
    FUZZ_REQUIRE(readAndroidPacket(p1.data(), c1.size, again, &shapes).ok);
    FUZZ_REQUIRE(flatOf(again) == f1);
    FUZZ_REQUIRE(packetOf(again, o) == p1);
    return 0;
}
