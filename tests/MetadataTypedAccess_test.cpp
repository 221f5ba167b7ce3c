// One-call typed access: IMetadata::setEntry / getEntry and the storage read / write families.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include "Content.h"
#include "RecordingLogger.h"

namespace {

using namespace NSCam;
using Memory = IMetadata::Memory;
using Storage = IMetadata::Storage;
using Texts = std::vector<std::string>;
constexpr uint32_t kTag = 0x10001, kTag2 = 0x10002, kAbsent = 0x10030;

std::vector<uint8_t> flat(const IMetadata& m) {
    std::vector<uint8_t> b(static_cast<size_t>(m.flattenSize()));
    m.flatten(b.data(), b.size());
    return b;
}
bool same(const IMetadata& x, const IMetadata& y) {
    return flat(x) == flat(y);
}
template <typename T>
bool same(const T& x, const T& y) {
    return x == y;
}
IMetadata holding(int v) {
    IMetadata m;
    IMetadata::setEntry<int>(&m, kTag, v);
    return m;
}
auto rowContent(const Storage& s, uint32_t tag) {
    const uint16_t row = s.mItemTable.getIndexByTag(tag);
    return row == Storage::ItemTable::kNoRow ? nullptr : s.mItemTable.contentSPAt(row);
}

template <typename T>
struct Two;  // two distinct values of each type
#define TWO(T, A, B)               \
    template <>                    \
    struct Two<T> {                \
        static T a() { return A; } \
        static T b() { return B; } \
    };
TWO(unsigned char, 7, 250)
TWO(int, -5, 123456)
TWO(float, 1.5f, -2.25f)
TWO(double, 0.1, -1e300)
TWO(long, -5000000000L, 1L << 40)
TWO(MRational, MRational(3, 4), MRational(-1, 7))
TWO(MPoint, MPoint(1, 2), MPoint(-3, 4))
TWO(MSize, MSize(640, 480), MSize(1, 1))
TWO(MRect, MRect(1, 2, 3, 4), MRect(5, 6, 7, 8))
TWO(IMetadata, holding(5), holding(-8))
TWO(Memory, Memory("\1\2\3", 3), Memory("\11\10", 2))
#undef TWO

template <typename T>
class TypedAccessTest : public zorcam_test::LoggerTest {};
using ValueTypes = ::testing::Types<unsigned char, int, float, long, double, MRational, MPoint,
                                    MSize, MRect, IMetadata, Memory>;
TYPED_TEST_SUITE(TypedAccessTest, ValueTypes);

TYPED_TEST(TypedAccessTest, RoundTripsIndexBoundsAndIsolation) {
    using T = TypeParam;
    const T a = Two<T>::a(), b = Two<T>::b(), many[] = {a, b, a};
    IMetadata m;
    ASSERT_EQ(IMetadata::setEntry<T>(&m, kTag, a) + IMetadata::setEntry<T>(&m, kTag, b), 0);
    m.burstWrite([&](IMetadata::BurstEntry& s) { s.writeEntries<T>(kTag2, many, 3); });
    EXPECT_TRUE(rowContent(*m.getStorageSP(), kTag2)->isReadOnly());
    const std::vector<uint8_t> before = flat(m);
    T out = b, kept = a;
    std::vector<T> all(5, b), small(1, b), untouched(2, b);
    EXPECT_EQ(m.burstRead([&](const IMetadata::BurstEntry& s) {
        return s.readEntry<T>(kAbsent, out) + s.readEntries<T>(kAbsent, untouched) +
               s.readEntry<T>(kTag, kept) + s.readEntries<T>(kTag2, all) +
               s.readEntries<T>(kTag2, small);
    }),
              -2);
    EXPECT_TRUE(same(out, b) && same(kept, b) && untouched.size() == 2 && same(untouched[1], b));
    ASSERT_TRUE(all.size() == 3 && small.size() == 3);
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(same(all[i], many[i]) && same(small[i], many[i]));
    // The index is compared in full: cut to 32 bits, (1 << 32) + 2 would read element 2.
    EXPECT_FALSE(IMetadata::getEntry<T>(&m, kTag2, kept, 3) ||
                 IMetadata::getEntry<T>(&m, kTag2, kept, (1ul << 32) + 2) ||
                 IMetadata::getEntry<T>(&m, kAbsent, kept) ||
                 IMetadata::getEntry<T>(nullptr, kTag, kept));
    EXPECT_TRUE(same(kept, b) && IMetadata::getEntry<T>(&m, kTag2, out, 2) && same(out, a));
    EXPECT_EQ(IMetadata::setEntry<T>(nullptr, kTag, a), -1);
    // Edits through values read out, and burst writes after a copy, stay private.
    if constexpr (std::is_same<T, Memory>::value) out.editArray()[0] = kept.editArray()[0] = 0xEE;
    if constexpr (std::is_same<T, IMetadata>::value) out += holding(9), kept += holding(9);
    const IMetadata copy(m);
    m.burstWrite([&](IMetadata::BurstEntry& s) { s.writeEntry<T>(kTag, a); });
    EXPECT_EQ(flat(copy), before);
    ASSERT_EQ(IMetadata::setEntry<float>(&m, kTag2, 1.5f), 0);  // three values replaced by one
    const IMetadata::IEntry f = m.entryFor(kTag2);
    EXPECT_TRUE(f.count() == 1 && f.itemAt(0, Type2Type<float>()) == 1.5f);
    // The write forms give a writable content and install nothing.
    auto s = std::make_shared<Storage>();
    auto c1 = s->write(a, Type2Type<T>()), c2 = s->write(many + 1, 2, Type2Type<T>());
    EXPECT_FALSE(s->size() || c1->isReadOnly() || c2->isReadOnly());
    EXPECT_TRUE(same(s->read(0, Type2Type<T>(), c1), a) && same(s->read(1, Type2Type<T>(), c2), a));
    EXPECT_TRUE(same(s->read(2, Type2Type<T>(), c2), T()));  // past the values
}

using AccessTest = zorcam_test::LoggerTest;

TEST_F(AccessTest, StorageReadDefaultsResizingAndWrites) {
    auto s = std::make_shared<Storage>();
    const MRect four[] = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}};
    int v = 99, two[] = {4, 5};
    MRational r(7, 7);
    s->writeEntries<int>(kTag, two, 2);
    s->writeEntries<MRect>(kTag2, four, 4);
    s->writeEntry<MRational>(kAbsent + 1, MRational(3, 4));
    EXPECT_EQ(s->readEntry<int>(kTag, v, 5) + s->readEntry<MRational>(kAbsent + 1, r, 1), 0);
    EXPECT_TRUE(v == 0 && r == MRational(0, 1));  // the default rational is 0/1, not 0/0
    EXPECT_EQ(log.take(), (Texts{"getBasicData:index (5) out of range (2)",
                                 "getBasicData:index (1) out of range (1)"}));
    std::vector<MRect> longer(10, MRect(-1, -1, -1, -1)), shorter(1);
    EXPECT_EQ(s->readEntries<MRect>(kTag2, longer) + s->readEntries<MRect>(kTag2, shorter), 0);
    EXPECT_TRUE(longer == std::vector<MRect>(four, four + 4) && shorter == longer);

    s->writeEntry<int>(kTag, 7, 0xFFFFFFFFu);
    EXPECT_TRUE(rowContent(*s, kTag) && rowContent(*s, kTag)->isReadOnly());
    EXPECT_TRUE(s->readEntry<int>(kTag, v) == 0 && v == 7);
    s->writeEntry<int>(kTag2, 7, 0);
    EXPECT_EQ(s->write(&v, 1, Type2Type<int>(), 0)->mCount, 0);  // the write forms alike
    EXPECT_EQ(log.take(), Texts(2, "update:index (0) out of range (0)"));
    const auto empty = rowContent(*s, kTag2);
    EXPECT_TRUE(empty && empty->mCount == 0 && empty->mType == -1);
    s->writeEntries<int>(kTag, &v, 0);  // count 0: the row stays, its content goes
    EXPECT_TRUE(s->size() == 3 && !rowContent(*s, kTag));
    std::vector<int> kept(2, 7);
    EXPECT_TRUE(s->readEntries<int>(kTag, kept) == 0 && kept == std::vector<int>(2, 7));
    const IMetadata m(s);
    EXPECT_FALSE(IMetadata::getEntry<int>(&m, kTag, v));
}

}  // namespace
