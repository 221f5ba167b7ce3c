#pragma once
// One walk over the flat form, with every length checked before it is used: what the check of
// foreign bytes answers (checkFlatMetadata), what the library's decoders rely on before they
// build from a block without reporting, and what a reader of the form for its own purposes
// (zmeta) follows. It allocates nothing, logs nothing and never aborts.
//
// It accepts exactly what the decoders accept in full: every record and nested container
// decodes and nothing in them would end the process. A refusal names the first offending byte
// (counted from `base`) and why.
//
// What it meets it tells a visitor, whose members are called in the order of the bytes, each
// after the bytes it names were checked (offsets from `base`):
//   beginBlock(records)               a storage block and its record count (negative: none)
//   record(tag, begin, end)           a record whose content lies in [begin, end) (empty: none)
//   values(type, count, at, bytes)    a content of basic values (or of no elements, any type)
//   elements(type, count)             a content of blobs or nested containers, then per element:
//   blob(at, size)                      a blob of `size` bytes at `at`
//   slot(begin, end)                    a nested container's block in [begin, end) (empty: none),
//                                       walked right after, from beginBlock to endBlock
//   contentEnd(at)                    where the content of the record or slot ended
//   endBlock(at)                      where the block ended
// NoVisitor ignores all of it; a visitor derives from it and hides what it wants.
//
// Part of the interface as source, not as binary: everything here is inline.
#include <zorcam/metadata/FlatForm.h>
#include <zorcam/metadata/MetadataTypes.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace NSCam {
namespace flat {

struct NoVisitor {
    void beginBlock(int32_t /*records*/) {}
    void record(uint32_t /*tag*/, size_t /*begin*/, size_t /*end*/) {}
    void values(int32_t /*type*/, int32_t /*count*/, size_t /*at*/, size_t /*bytes*/) {}
    void elements(int32_t /*type*/, int32_t /*count*/) {}
    void blob(size_t /*at*/, uint32_t /*size*/) {}
    void slot(size_t /*begin*/, size_t /*end*/) {}
    void contentEnd(size_t /*at*/) {}
    void endBlock(size_t /*at*/) {}
};
// The visitor of walks that tell no one: it has no state, so every walk may share it.
inline NoVisitor gNoVisitor;

template <typename Visitor = NoVisitor>
class BasicWalker {
public:
    // `nested`: nested containers already met by the decode this walk is part of.
    explicit BasicWalker(const uint8_t* base, size_t nested = 0)
        : BasicWalker(base, nested, gNoVisitor) {}
    BasicWalker(const uint8_t* base, size_t nested, Visitor& visitor)
        : mBase(base), mNested(nested), mVisitor(visitor) {}

    // A storage block in [begin, end), `depth` containers deep; `used` receives the bytes it
    // occupies.
    bool storage(size_t begin, size_t end, int depth, size_t& used) {
        size_t pos = begin;
        if (end - pos < 4) return fail(pos, "truncated storage header");
        if (u32(pos) != kStorageMagic) return fail(pos, "bad storage magic");
        if (end - pos < kStorageHeader) return fail(pos + 4, "truncated storage header");
        const int32_t records = static_cast<int32_t>(u32(pos + 4));
        if (records > kMaxRecords) return fail(pos + 4, "record count out of range");
        mVisitor.beginBlock(records);
        pos += kStorageHeader;
        for (int32_t k = 0; k < records; ++k) {
            if (end - pos < kRecordHead) return fail(pos, "truncated record head");
            const uint32_t tag = u32(pos);
            const uint32_t length = u32(pos + 4);
            pos += kRecordHead;
            if (length == 0) {
                mVisitor.record(tag, pos, pos);
                continue;
            }
            if (end - pos < length) return fail(pos - 4, "record length exceeds buffer");
            mVisitor.record(tag, pos, pos + length);
            if (!content(pos, pos + length, depth)) return false;
            pos += length;
        }
        mVisitor.endBlock(pos);
        used = pos - begin;
        return true;
    }

    // One content record in [begin, end), inside a storage block `depth` containers deep.
    bool content(size_t begin, size_t end, int depth) {
        size_t pos = begin;
        if (end - pos < 4) return fail(pos, "truncated content header");
        if (u32(pos) != kContentPattern) return fail(pos, "bad content pattern");
        if (end - pos < kContentHeader) return fail(pos + 4, "truncated content header");
        const int32_t type = static_cast<int32_t>(u32(pos + 4));
        const int32_t count = static_cast<int32_t>(u32(pos + 8));
        pos += kContentHeader;
        if (count == 0) {  // any type is accepted without elements
            mVisitor.values(type, 0, pos, 0);
            mVisitor.contentEnd(pos);
            return true;
        }
        if (count < 0) return fail(begin + 8, "negative element count");
        const size_t n = static_cast<size_t>(count);
        if (type == TYPE_Memory || type == TYPE_IMetadata) {
            // Counts below 2^31 and elements of at most 16 bytes: the products cannot wrap,
            // and a multiplication costs far less than a division on every record.
            if (n * 4 > end - pos) return fail(begin + 8, "element count exceeds record");
            if (type == TYPE_IMetadata && depth >= kMaxNestingDepth)
                return fail(begin, "nesting too deep");
            mVisitor.elements(type, count);
            for (size_t i = 0; i < n; ++i) {
                if (end - pos < 4) return fail(pos, "truncated element length");
                const uint32_t length = u32(pos);
                pos += 4;
                if (length != 0 && end - pos < length)
                    return fail(pos - 4, "element length exceeds record");
                if (type == TYPE_Memory) {
                    mVisitor.blob(pos, length);
                } else {
                    mVisitor.slot(pos, pos + length);
                    if (length != 0) {
                        if (++mNested > kMaxNestedContainers)
                            return fail(pos - 4, "too many nested containers");
                        size_t used = 0;
                        if (!storage(pos, pos + length, depth + 1, used)) return false;
                    }
                }
                pos += length;
            }
            mVisitor.contentEnd(pos);
            return true;
        }
        if (type == -1) return fail(begin + 4, "elements without a type");
        const TypeFacts* facts = typeFacts(type);
        if (facts == nullptr || !facts->basic) return fail(begin + 4, "type code out of range");
        const size_t bytes = n * static_cast<size_t>(facts->size);
        if (bytes > end - pos) return fail(begin + 8, "payload exceeds record");
        mVisitor.values(type, count, pos, bytes);
        mVisitor.contentEnd(pos + bytes);
        return true;
    }

    size_t nested() const { return mNested; }
    size_t offset() const { return mOffset; }
    const char* reason() const { return mReason; }

private:
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
    size_t mNested;  // nested containers met so far
    size_t mOffset = 0;
    const char* mReason = "";
    Visitor& mVisitor;
};

// The walk the check and the decoders make: nothing told to anyone.
using Walker = BasicWalker<>;

// A record's content of basic values (or of none) that a decoder takes as it is: the pattern,
// a count of at least 0, a basic type when there are elements, and a payload within the
// record. `bytes` receives the payload's size. Anything else is decoded by the content itself.
inline bool isPlainValues(const uint8_t* content, uint32_t length, int32_t& type, int32_t& count,
                          size_t& bytes) {
    if (length < kContentHeader) return false;
    uint32_t head[3];
    std::memcpy(head, content, sizeof(head));
    type = static_cast<int32_t>(head[1]);
    count = static_cast<int32_t>(head[2]);
    if (head[0] != kContentPattern || count < 0) return false;
    if (count == 0) {
        bytes = 0;
        return true;
    }
    if (!isBasicType(type)) return false;
    bytes = static_cast<size_t>(kTypeFacts[type].size) * static_cast<size_t>(count);
    return bytes <= length - kContentHeader;
}

}  // namespace flat
}  // namespace NSCam
