// The small value types: their defaults and field-by-field equality.
#include <zorcam/metadata/MetadataTypes.h>

#include <gtest/gtest.h>

namespace {

using namespace NSCam;

TEST(MetadataTypesTest, DefaultsAndFieldByFieldEquality) {
    EXPECT_TRUE(MRational().numerator == 0 && MRational().denominator == 1);
    EXPECT_TRUE(MRect().p.x == 0 && MRect().p.y == 0 && MRect().s.w == 0 && MRect().s.h == 0);
    // A change to any one field (through MPoint and MSize), or swapped halves, breaks equality.
    const MRect base(1, 2, 3, 4),
        other[] = {
            {9, 2, 3, 4}, {1, 9, 3, 4}, {1, 2, 9, 4}, {1, 2, 3, 9}, {MPoint(3, 4), MSize(1, 2)}};
    EXPECT_TRUE(base == MRect(MPoint(1, 2), MSize(3, 4)) && !(base != MRect(1, 2, 3, 4)));
    for (const MRect& o : other)
        EXPECT_TRUE(base != o && !(base == o)) << o.p.x << o.p.y << o.s.w << o.s.h;
    EXPECT_TRUE(MRational(1, 2) == MRational(1, 2) && !(MRational(1, 2) != MRational(1, 2)));
    EXPECT_TRUE(MRational(1, 2) != MRational(9, 2) && MRational(1, 2) != MRational(1, 9));
}

}  // namespace
