// The check of untrusted flat containers, on any bytes: it must never read outside the
// buffer, allocate for what the bytes claim or abort, and its answers must hang together.
#include <zorcam/metadata/MetadataCheck.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"

using NSCam::checkFlatMetadata;
using NSCam::FlatCheck;

namespace {

bool same(const FlatCheck& a, const FlatCheck& b) {
    return a.ok == b.ok && a.offset == b.offset && a.consumed == b.consumed &&
           std::strcmp(a.reason, b.reason) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zorcam_fuzz::silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FlatCheck c = checkFlatMetadata(data, size);
    FUZZ_REQUIRE(c.reason != nullptr);
    // The same bytes give the same answer: the check keeps no state.
    FUZZ_REQUIRE(same(c, checkFlatMetadata(data, size)));
    if (!c.ok) {
        FUZZ_REQUIRE(c.reason[0] != '\0');
        FUZZ_REQUIRE(c.offset <= size);
        FUZZ_REQUIRE(c.consumed == 0);
        return 0;
    }
    FUZZ_REQUIRE(c.reason[0] == '\0' && c.offset == 0);
    // A form accepted in full is at least its header and delimits itself: spare bytes after
    // it change nothing, and one byte less is refused.
    FUZZ_REQUIRE(c.consumed >= 8 && c.consumed <= size);
    // A private copy of exactly the consumed bytes, so that a read past them is caught.
    std::vector<uint8_t> exact(data, data + c.consumed);
    const FlatCheck again = checkFlatMetadata(exact.data(), exact.size());
    FUZZ_REQUIRE(again.ok && again.consumed == c.consumed);
    std::vector<uint8_t> shorter(data, data + c.consumed - 1);
    FUZZ_REQUIRE(!checkFlatMetadata(shorter.data(), shorter.size()).ok);
    return 0;
}
