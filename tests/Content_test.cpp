// IMetadata::Content: flat records byte for byte, round trips, refusals, update/read/remove.
#include "Content.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "Flat.h"
#include "RecordingLogger.h"

namespace {

using namespace NSCam;
using zorcam_test::flat;
using Content = IMetadata::Content;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

std::string ptr(const void* p) {
    return ::testing::PrintToString(p);
}
// The content's byte array, or nothing when it keeps its one element without an array.
std::optional<Bytes> array(const Content& c) {
    if (c.mHeld != Content::Held::kBytes) return std::nullopt;
    const size_t n = static_cast<size_t>(c.mCount) * static_cast<size_t>(c._typeSize());
    return Bytes(c.mBytes, c.mBytes + n);
}
Bytes header(int32_t type, int32_t count) {
    const int32_t h[] = {static_cast<int32_t>(Content::kPattern), type, count};
    return Bytes(reinterpret_cast<const uint8_t*>(h), reinterpret_cast<const uint8_t*>(h + 3));
}

class ContentTest : public zorcam_test::LoggerTest {
protected:
    // A refused call: a false or empty answer and exactly these log lines.
    template <typename R>
    void refused(const R& answer, const Lines& lines) {
        EXPECT_FALSE(answer);
        EXPECT_EQ(log.take(), lines);
    }
};

// Records byte for byte, read back read-only; one byte short: refused, nothing written past.
TEST_F(ContentTest, RecordBytesReadBackAndOneByteShort) {
    const int seven = 7;
    const IMetadata::Memory blobs[] = {IMetadata::Memory("\x11\x22\x33", 3), {}};
    const IMetadata none;
    const struct {
        int type;
        const void* data;
        size_t n;
        Bytes bytes;
    } cases[] = {
        {-1, nullptr, 0, {0xCD, 0x54, 0x24, 0xAB, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}},
        {TYPE_INT32, &seven, 1, {0xCD, 0x54, 0x24, 0xAB, 1, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0}},
        {TYPE_Memory, blobs, 2, {0xCD, 0x54, 0x24, 0xAB, 10,   0,    0,    0, 2, 0, 0, 0,
                                 3,    0,    0,    0,    0x11, 0x22, 0x33, 0, 0, 0, 0}},
        {TYPE_IMetadata, &none, 1, {0xCD, 0x54, 0x24, 0xAB, 9, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}}};
    int err = -1;
    for (const auto& k : cases) {
        Content c;
        SCOPED_TRACE(k.type);
        if (k.n > 0) {
            ASSERT_TRUE(c.update(-1, k.data, k.n, k.type));
        }
        EXPECT_EQ(flat(c), k.bytes);
        Content back(k.bytes.data(), k.bytes.size(), err);
        EXPECT_EQ(err, 0);
        EXPECT_TRUE(back.isReadOnly());
        EXPECT_EQ(flat(back), k.bytes);
        Bytes buf = k.bytes;
        const size_t size = buf.size();
        const std::string end = ptr(&buf[size]) + ", " + ptr(&buf[size - 1]);
        Content shortened(buf.data(), size - 1, err);
        buf[size - 1] = 0xEE;
        EXPECT_EQ(c.flatten(buf.data(), size - 1), -1);
        EXPECT_EQ(buf[size - 1], 0xEE);
        EXPECT_EQ(log.take(), Lines({"unflatten:out of buffer " + end,
                                     "Content:unflatten error " + ptr(buf.data()) + ", size " +
                                         std::to_string(size - 1),
                                     "flatten:out of buffer " + end}));
    }
    const Bytes bad = {0x78, 0x56, 0x34, 0x12, 1, 0, 0, 0, 1, 0, 0, 0};
    Content c(bad.data(), bad.size(), err);
    EXPECT_EQ(err, 1);
    EXPECT_FALSE(c.isReadOnly());
    EXPECT_EQ(flat(c), cases[0].bytes);
    EXPECT_EQ(log.take(), Lines({"unflatten:flatten pattern not correct 12345678",
                                 "Content:unflatten error " + ptr(bad.data()) + ", size 12"}));
    const Bytes untyped = {0xCD, 0x54, 0x24, 0xAB, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(c.unflatten(untyped.data(), untyped.size()), -1);
    EXPECT_EQ(log.take(), Lines{"unflatten:mType hould valid!"});
}

template <typename T>
class ContentBasicTypeTest : public ContentTest {};
using BasicTypes =
    ::testing::Types<unsigned char, int, float, long, double, MRational, MPoint, MSize, MRect>;
TYPED_TEST_SUITE(ContentBasicTypeTest, BasicTypes);

// Raw values back to back; read back: one value inline, several in an exact byte array.
TYPED_TEST(ContentBasicTypeTest, RoundTrip) {
    const int code = TypeCode<TypeParam>::value;
    const size_t e = sizeof(TypeParam);
    Bytes v(3 * e);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(i * 37 + 1);
    for (int n : {1, 3}) {
        Content c, back;
        ASSERT_TRUE(c.update(-1, v.data(), n, code));
        Bytes rec = header(code, n);
        rec.insert(rec.end(), v.begin(), v.begin() + n * e);
        EXPECT_EQ(flat(c), rec);
        rec.push_back(0xEE);  // not consumed
        const long used = back.unflatten(rec.data(), rec.size());
        EXPECT_EQ(used, static_cast<long>(rec.size() - 1)) << n;
        EXPECT_TRUE(back.isReadOnly()) << n;
        EXPECT_EQ(array(back) ? array(back)->size() : 0u, n > 1 ? n * e : 0u) << n;
        EXPECT_EQ(std::memcmp(back.getBasicData(n - 1, code), &v[(n - 1) * e], e), 0) << n;
    }
}

TEST_F(ContentTest, AppendOverwriteAndRemove) {
    Content c;
    const int one = 1, two = 2, more[] = {3, 4};
    ASSERT_TRUE(c.update(-1, &one, 1, TYPE_INT32));
    EXPECT_FALSE(array(c));  // one value: inline
    ASSERT_TRUE(c.update(-1, &two, 1, TYPE_INT32));
    ASSERT_TRUE(c.update(-1, more, 2, TYPE_INT32));
    ASSERT_TRUE(c.update(2, more + 1, 1, TYPE_INT32));
    ASSERT_TRUE(c.update(0, more, 0, TYPE_INT32));
    const Bytes four = {1, 0, 0, 0, 2, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0};
    ASSERT_EQ(array(c), four);
    refused(c.update(3, more, 2, TYPE_INT32), {"update:index (3) out of range (4)"});
    refused(c.update(1, more, ~size_t{0}, TYPE_INT32), {"update:index (1) out of range (4)"});
    refused(c.update(-1, more, 0x80000000u, TYPE_INT32),
            {"update:append of 2147483648 elements overflows count 4"});
    refused(c.remove(4), {"remove:out of index remove. cnt 4, index 4"});
    // A type mismatch is told, with the call stack, only when the details level is non-zero.
    refused(c.update(-1, &one, 1, TYPE_FLOAT),
            {"update:type mismatch mType(1) type(2)", "Callstack:"});
    refused(c.getBasicData(0, TYPE_FLOAT),
            {"getBasicData:type mismatch type(2) vs mType(1)", "Callstack:"});
    setLogging(0x2, 0, 0);
    refused(c.update(-1, &one, 1, TYPE_FLOAT), {});
    refused(c.getBasicData(0, TYPE_FLOAT), {});
    EXPECT_EQ(array(c), four);
    // Removal moves later values down; one value left keeps its byte array, which grows again.
    for (int at : {1, 2, 0}) ASSERT_TRUE(c.remove(at)) << at;  // 1 4 4, 1 4, 4
    ASSERT_EQ(array(c), Bytes({4, 0, 0, 0}));
    ASSERT_TRUE(c.update(-1, &two, 1, TYPE_INT32));
    EXPECT_EQ(array(c), Bytes({4, 0, 0, 0, 2, 0, 0, 0}));
    for (int left : {1, 0}) ASSERT_TRUE(c.remove(0)) << left;
    EXPECT_EQ(flat(c), header(-1, 0));  // the last one removed clears the type
    // A stale empty vector from an append of nothing broke the next type ("mMetaSP confuse").
    for (int type : {TYPE_Memory, TYPE_IMetadata}) {
        SCOPED_TRACE(type);
        ASSERT_TRUE(c.update(-1, nullptr, 0, type));
        ASSERT_TRUE(c.update(-1, &one, 1, TYPE_INT32));
        ASSERT_TRUE(Content(c).update(-1, &two, 1, TYPE_INT32));
        ASSERT_TRUE(c.update(-1, &two, 1, TYPE_INT32));
        for (int left : {1, 0}) ASSERT_TRUE(c.remove(0)) << left;
    }
}

}  // namespace
