// The small value types: their defaults, field-by-field equality, and the empty selector.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataTypes.h>

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

namespace {

using namespace NSCam;

TEST(MetadataTypesTest, DefaultsAreZeroAndRationalIsZeroOverOne) {
    const MRational r;
    EXPECT_EQ(r.numerator, 0);
    EXPECT_EQ(r.denominator, 1);
    const MRect rect;
    EXPECT_EQ(rect.p.x, 0);
    EXPECT_EQ(rect.p.y, 0);
    EXPECT_EQ(rect.s.w, 0);
    EXPECT_EQ(rect.s.h, 0);
    EXPECT_EQ(MPoint(), MPoint(0, 0));
    EXPECT_EQ(MSize(), MSize(0, 0));
    // A grown vector of rationals holds valid 0/1 values.
    std::vector<MRational> grown(3);
    for (const MRational& g : grown) EXPECT_EQ(g, MRational(0, 1));
}

// Changing any single field breaks equality; == and != always disagree.
template <typename T, typename Make>
void expectFieldwiseEquality(Make make, int fields) {
    const T base = make(-1);
    EXPECT_TRUE(base == make(-1));
    EXPECT_FALSE(base != make(-1));
    for (int f = 0; f < fields; ++f) {
        const T other = make(f);
        EXPECT_FALSE(base == other) << "field " << f;
        EXPECT_TRUE(base != other) << "field " << f;
    }
}

TEST(MetadataTypesTest, EqualityComparesEveryField) {
    // make(f) builds 1, 2, 3, 4 with field f changed (f = -1: unchanged).
    auto v = [](int f, int i) { return i + 1 + (f == i ? 100 : 0); };
    expectFieldwiseEquality<MRational>([&](int f) { return MRational(v(f, 0), v(f, 1)); }, 2);
    expectFieldwiseEquality<MPoint>([&](int f) { return MPoint(v(f, 0), v(f, 1)); }, 2);
    expectFieldwiseEquality<MSize>([&](int f) { return MSize(v(f, 0), v(f, 1)); }, 2);
    expectFieldwiseEquality<MRect>(
        [&](int f) { return MRect(v(f, 0), v(f, 1), v(f, 2), v(f, 3)); }, 4);
    // Swapped fields are different values.
    EXPECT_NE(MSize(2, 3), MSize(3, 2));
    EXPECT_NE(MRect(MPoint(1, 2), MSize(3, 4)), MRect(MPoint(3, 4), MSize(1, 2)));
}

TEST(MetadataTypesTest, Type2TypeCarriesNoData) {
    static_assert(std::is_empty_v<Type2Type<MRect>>);
    static_assert(std::is_empty_v<Type2Type<IMetadata::Memory>>);
    static_assert(sizeof(Type2Type<double>) == 1);
    static_assert(std::is_same_v<Type2Type<MSize>::Type, MSize>);
}

}  // namespace
