// The check of foreign bytes: the decoders' own walk of the flat form (FlatWalk.h), which
// builds nothing, logs nothing and never aborts, and answers where and why the decoders would
// refuse the bytes or end the process.
#include <zorcam/metadata/MetadataCheck.h>

#include <zorcam/metadata/FlatWalk.h>

namespace NSCam {

FlatCheck checkFlatMetadata(const void* buf, size_t size) {
    if (buf == nullptr) return FlatCheck{false, 0, "null buffer", 0};
    flat::Walker walker(static_cast<const uint8_t*>(buf));
    size_t used = 0;
    if (walker.storage(0, size, 0, used)) return FlatCheck{true, 0, "", used};
    return FlatCheck{false, walker.offset(), walker.reason(), 0};
}

}  // namespace NSCam
