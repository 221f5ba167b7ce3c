// Type codes without an element size end the process when asked for one.
#include "Content.h"

#include <gtest/gtest.h>

#include <string>

TEST(MetadataTypesDeathTest, TypeSizeRefusesCodesWithoutAnElementSize) {
    const std::string where = " \\(_typeSize\\)\\{#[0-9]+:utils/metadata/metadata/Content\\.cpp\\}";
    const std::pair<int, std::string> cases[] = {
        {9, "Not support TYPE_IMetadata"}, {11, "mType invalid 11"}, {-1, "mType invalid -1"}};
    for (const auto& [type, text] : cases) {
        NSCam::IMetadata::Content c;
        c.mType = type;
        EXPECT_DEATH(c._typeSize(), "^_typeSize\\([0-9]+\\):" + text + where);
    }
}
