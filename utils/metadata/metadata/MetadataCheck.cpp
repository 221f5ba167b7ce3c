// Walks a flat container exactly as the decoders of Content and Storage read it, with every
// length checked before it is used, and answers where and why they would refuse it or end
// the process. It builds nothing.
#include <zorcam/metadata/MetadataCheck.h>
#include <zorcam/metadata/MetadataTypes.h>

#include "FlatBytes.h"

namespace NSCam {
namespace {

class Checker {
public:
    explicit Checker(const uint8_t* base) : mBase(base) {}

    // A storage block in [begin, end); `used` receives the bytes it occupies.
    bool storage(size_t begin, size_t end, int depth, size_t& used) {
        size_t pos = begin;
        if (end - pos < 4) return fail(pos, "truncated storage header");
        if (u32(pos) != flat::kStorageMagic) return fail(pos, "bad storage magic");
        if (end - pos < flat::kStorageHeader) return fail(pos + 4, "truncated storage header");
        const int32_t records = static_cast<int32_t>(u32(pos + 4));
        if (records > flat::kMaxRecords) return fail(pos + 4, "record count out of range");
        pos += flat::kStorageHeader;
        for (int32_t k = 0; k < records; ++k) {
            if (end - pos < flat::kRecordHead) return fail(pos, "truncated record head");
            const uint32_t length = u32(pos + 4);
            pos += flat::kRecordHead;
            if (length == 0) continue;
            if (end - pos < length) return fail(pos - 4, "record length exceeds buffer");
            if (!content(pos, pos + length, depth)) return false;
            pos += length;
        }
        used = pos - begin;
        return true;
    }

    FlatCheck result(bool ok, size_t consumed) const {
        if (ok) return FlatCheck{true, 0, "", consumed};
        return FlatCheck{false, mOffset, mReason, 0};
    }

private:
    // One content record in [begin, end).
    bool content(size_t begin, size_t end, int depth) {
        size_t pos = begin;
        if (end - pos < 4) return fail(pos, "truncated content header");
        if (u32(pos) != flat::kContentPattern) return fail(pos, "bad content pattern");
        if (end - pos < flat::kContentHeader) return fail(pos + 4, "truncated content header");
        const int32_t type = static_cast<int32_t>(u32(pos + 4));
        const int32_t count = static_cast<int32_t>(u32(pos + 8));
        pos += flat::kContentHeader;
        if (count == 0) return true;  // any type is accepted without elements
        if (count < 0) return fail(begin + 8, "negative element count");
        const size_t n = static_cast<size_t>(count);
        if (type == TYPE_Memory || type == TYPE_IMetadata) {
            if (n > (end - pos) / 4) return fail(begin + 8, "element count exceeds record");
            if (type == TYPE_IMetadata && depth >= flat::kMaxNestingDepth)
                return fail(begin, "nesting too deep");
            for (size_t i = 0; i < n; ++i) {
                if (end - pos < 4) return fail(pos, "truncated element length");
                const uint32_t length = u32(pos);
                pos += 4;
                if (length == 0) continue;
                if (end - pos < length) return fail(pos - 4, "element length exceeds record");
                if (type == TYPE_IMetadata) {
                    if (++mNested > flat::kMaxNestedContainers)
                        return fail(pos - 4, "too many nested containers");
                    size_t used = 0;
                    if (!storage(pos, pos + length, depth + 1, used)) return false;
                }
                pos += length;
            }
            return true;
        }
        if (type == -1) return fail(begin + 4, "elements without a type");
        const TypeFacts* facts = typeFacts(type);
        if (facts == nullptr || !facts->basic) return fail(begin + 4, "type code out of range");
        if (n > (end - pos) / static_cast<size_t>(facts->size))
            return fail(begin + 8, "payload exceeds record");
        return true;
    }

    bool fail(size_t offset, const char* reason) {
        mOffset = offset;
        mReason = reason;
        return false;
    }

    uint32_t u32(size_t at) const {
        uint32_t v;
        std::memcpy(&v, mBase + at, 4);
        return v;
    }

    const uint8_t* mBase;
    size_t mNested = 0;  // nested containers met so far
    size_t mOffset = 0;
    const char* mReason = "";
};

}  // namespace

FlatCheck checkFlatMetadata(const void* buf, size_t size) {
    if (buf == nullptr) return FlatCheck{false, 0, "null buffer", 0};
    Checker checker(static_cast<const uint8_t*>(buf));
    size_t used = 0;
    const bool ok = checker.storage(0, size, 0, used);
    return checker.result(ok, used);
}

}  // namespace NSCam
