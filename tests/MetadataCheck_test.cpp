// Untrusted flat containers: the check and the decoders behind IMetadata(buf, size) refuse bad
// bytes without reading outside them, allocating what they claim or exhausting the stack.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "AllocationProbe.h"
#include "Flat.h"
#include "RecordingLogger.h"
#include "Values.h"

namespace {

using namespace NSCam;
using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;
using Memory = IMetadata::Memory;
using zorcam_test::flat;
const auto of = [](const Bytes& b) { return IMetadata(b.data(), b.size()); };

// The flat form of a container holding each list of values under a tag of its own.
template <typename... T>
Bytes formOf(const std::vector<T>&... values) {
    IMetadata m;
    (m.update(0x00010000 + m.count(), zorcam_test::entry(values)), ...);
    return flat(m);
}

// `records` records, the first filed with length `len` (0: its own), holding `count` `type`s.
Bytes one(int32_t type, uint32_t count, Words w, uint32_t records = 1, uint32_t len = 0) {
    w.insert(w.begin(), {0xAB2454CD, static_cast<uint32_t>(type), count});
    w.insert(w.begin(), {0x01245432, records, 0x00010001, len ? len : 4 * uint32_t(w.size())});
    const auto* bytes = reinterpret_cast<const uint8_t*>(w.data());
    return Bytes(bytes, bytes + 4 * w.size());
}
// `n` empty nested containers side by side in one record.
Bytes wide(uint32_t n) {
    Words w;
    for (uint32_t i = 0; i < n; ++i) w.insert(w.end(), {8, 0x01245432, 0});
    return one(TYPE_IMetadata, n, w);
}
// `levels` nested containers around one integer, written outside in: one pass for 10,000.
Bytes chain(uint32_t levels) {
    Bytes b;
    for (uint32_t inner = 32 * levels; inner > 0; inner -= 32)  // the bytes inside this level
        for (uint8_t byte : one(TYPE_IMetadata, 1, {inner}, 1, inner + 16)) b.push_back(byte);
    for (uint8_t byte : one(TYPE_INT32, 1, {90})) b.push_back(byte);
    return {b.begin(), b.end()};  // no spare capacity: a read past the end is an overflow
}

class MetadataCheckTest : public zorcam_test::LoggerTest {
protected:
    // The check and both decoders on the bytes, xor-ed with `flips`, at the end of their buffer;
    // a fatal type code is kept from the decoder. Says "reason@offset", or "@consumed" when ok.
    std::string agree(Bytes b, std::initializer_list<std::pair<size_t, int>> flips = {}) {
        for (auto [at, mask] : flips) b[at] ^= static_cast<uint8_t>(mask);
        setLogging(0, 0, 0);  // each refusal would unwind the stack
        zorcam_test::resetLargestAllocation();
        const FlatCheck c = checkFlatMetadata(b.data(), b.size());
        EXPECT_EQ(zorcam_test::largestAllocation(), 0u);  // the check allocates nothing
        const std::string said = c.reason + ("@" + std::to_string(c.ok ? c.consumed : c.offset));
        // The receive in one call gives the check's answer, never aborts, and rebuilds only
        // what the check accepts (a refusal leaves the container as it was).
        IMetadata received;
        IMetadata::setEntry<int>(&received, 0x7FFF0000, 12345);
        const Bytes before = flat(received);
        const FlatCheck r = receiveFlatMetadata(b.data(), b.size(), received);
        EXPECT_EQ(r.reason + ("@" + std::to_string(r.ok ? r.consumed : r.offset)), said);
        EXPECT_EQ(flat(received), c.ok ? flat(of(b)) : before) << said;
        if (++seen[c.reason]; said.rfind("type code out of range@", 0) == 0) return said;
        zorcam_test::resetPeakBytes();
        EXPECT_EQ(IMetadata::Storage().unflatten(b.data(), b.size()),
                  c.ok ? long(c.consumed) : -1L);
        EXPECT_EQ(of(b).getStorageSP() != nullptr, c.ok);
        EXPECT_LT(zorcam_test::largestAllocation(),
                  b.size() + 64 * 1024);  // nothing allocated for a claim
        EXPECT_LE(zorcam_test::peakBytes(), 8 * b.size() + (1u << 20));  // nor for nesting
        return said;
    }
    std::map<std::string, size_t> seen;  // answers by reason, "" when ok
};

TEST_F(MetadataCheckTest, CutAndCorruptedFormsAgreeWithTheDecoders) {
    // Every value type, blobs with and without bytes, three levels of nesting.
    const IMetadata level3 = of(formOf<Memory>({Memory("raw", 3), Memory()}));
    const Bytes rich =
        formOf<uint8_t, int, float, long, double, MRational, MPoint, MSize, MRect, IMetadata,
               Memory>({1}, {15, 30}, {4.38f}, {1, 2}, {37.4, -122.0}, {MRational(1, 2)},
                       {MPoint(1, 2)}, {MSize(4000, 3000), MSize(640, 480)}, {MRect(0, 0, 4, 3)},
                       {of(formOf<IMetadata>({level3, IMetadata(), level3}))},
                       {Memory("jpeg", 4), Memory(), Memory("", 0)});
    const Bytes small = formOf<int, Memory>({15, 30}, {Memory("abc", 3)});
    EXPECT_EQ(agree(rich), "@" + std::to_string(rich.size()));
    for (auto end = rich.begin(); end != rich.end(); ++end)
        EXPECT_NE(agree({rich.begin(), end})[0], '@');
    for (size_t i = 0; i < rich.size(); ++i)
        for (int v : {0x00, 0xFF, 0x7F, 0x80, rich[i] + 1}) agree(rich, {{i, rich[i] ^ v}});
    for (size_t i = 0; i < small.size() * 8; ++i)
        for (size_t j = i; j < small.size() * 8; ++j)  // j == i: one bit
            agree(small, {{i / 8, 1 << i % 8}, {j / 8, j == i ? 0 : 1 << j % 8}});
    EXPECT_GT(seen[""], 1000u);
    EXPECT_GT(seen["type code out of range"], 0u);
    EXPECT_GT(seen.size(), 5u);
}

TEST_F(MetadataCheckTest, HugeClaimsAndDeepNestsAreRefusedWithoutAllocatingForThem) {
    const std::pair<Bytes, const char*> claims[] = {
        {one(TYPE_UINT8, 0x80000000u, {1}), "negative element count@24"},
        {one(TYPE_UINT8, 0xFFFFFFFFu, {1}), "negative element count@24"},
        {one(TYPE_UINT8, 0x7FFFFFFFu, {1}), "payload exceeds record@24"},
        {one(TYPE_MRect, 0x10000001u, {0, 0, 0, 0}), "payload exceeds record@24"},  // wraps
        {one(TYPE_UINT8, 5, {1}), "payload exceeds record@24"},                     // by one byte
        {one(TYPE_Memory, 0x7FFFFFFFu, {0, 0}), "element count exceeds record@24"},
        {one(TYPE_IMetadata, 0x40000000u, {0}), "element count exceeds record@24"},
        {one(TYPE_Memory, 1, {0xFFFFFFFCu, 0}), "element length exceeds record@28"},
        {one(TYPE_IMetadata, 1, {0xFFFFFFF0u, 0}), "element length exceeds record@28"},
        {one(TYPE_INT32, 1, {7}, 1, 0xFFFFFFF8u), "record length exceeds buffer@12"},
        {one(-1, 1, {7}), "elements without a type@20"},
        {one(TYPE_INT32, 1, {7}, 0x8000u), "record count out of range@4"},
        {one(TYPE_INT32, 1, {7}, 0x7FFFu), "truncated record head@32"},
        {chain(64), "@2080"},
        {chain(65), "nesting too deep@2064"},  // at the 65th nested record
        {chain(10000), "nesting too deep@2064"},
        {wide(8192), "@98332"},  // each would cost a whole tag table: at most 8192 a form
        {wide(8193), "too many nested containers@98332"},
        {Bytes(), "null buffer@0"},
    };
    for (const auto& [bytes, refusal] : claims) EXPECT_EQ(agree(bytes), refusal);
    EXPECT_EQ(agree(one(TYPE_UINT8, 100000, Words(25000, 7))), "@100028");
    EXPECT_GE(zorcam_test::largestAllocation(),
              100000u);  // the counter sees what the decoders allocate
}

// `tables` nested containers of `rows` int32 rows each, tagged from `firstTag` on, in one record.
Bytes nestedTables(uint32_t tables, uint32_t rows, uint32_t firstTag) {
    IMetadata inner;
    for (uint32_t r = 0; r < rows; ++r) IMetadata::setEntry<int32_t>(&inner, firstTag + r, 1);
    IMetadata::IEntry list(0x00020000);
    for (uint32_t t = 0; t < tables; ++t) list.push_back(inner, Type2Type<IMetadata>());
    IMetadata outer;
    outer.update(list);
    return flat(outer);
}

TEST_F(MetadataCheckTest, ReceivedNestedTablesHoldAtMostEightBytesPerInputByte) {
    // Tables without an index (up to 16 rows), the first that builds one (17) and large ones,
    // with tags of the slot map and tags past it (the side index). Three receives in a row:
    // what one leaves behind for readers without the lock must not pile up either.
    for (uint32_t firstTag : {0x00010000u, 0x80000000u}) {
        for (uint32_t rows : {0u, 1u, 16u, 17u, 100u, 200u}) {
            const Bytes b = nestedTables(rows < 100 ? 8192 : 1024, rows, firstTag);
            zorcam_test::resetPeakBytes();
            for (int i = 0; i < 3; ++i) EXPECT_EQ(of(b).count(), 1u);
            EXPECT_LE(zorcam_test::peakBytes(), 8 * b.size() + (1u << 20))
                << rows << " rows from tag " << std::hex << firstTag;
        }
    }
}

TEST_F(MetadataCheckTest, RefusalsLogTheSystemsLines) {
    const Bytes deep = chain(65);
    EXPECT_FALSE(checkFlatMetadata(deep.data(), deep.size()).ok);
    EXPECT_TRUE(log.take().empty());  // the check logs nothing
    of(deep);
    auto at = [&](size_t offset) { return ::testing::PrintToString<const void*>(&deep[offset]); };
    EXPECT_EQ(log.lines().at(1).tag, "Metadata2/Content");
    EXPECT_EQ(log.lines().at(2).tag, "Metadata2");
    const std::vector<std::string> lines = log.take();
    ASSERT_EQ(lines.size(), 131u);  // and on up, every level's content and container
    EXPECT_EQ(lines[0], "unflatten:nesting deeper than 64 levels at " + at(2076));
    EXPECT_EQ(lines[1], "Content:unflatten error " + at(2064) + ", size 48");
    EXPECT_EQ(lines[130], "IMetadata:unflatten error " + at(0) + ", size 2112");
}

}  // namespace
