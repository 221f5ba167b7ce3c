// Type codes without an element size end the process when asked for one.
#include "Content.h"

#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Content = NSCam::IMetadata::Content;

class MetadataTypesDeathTest : public ::testing::TestWithParam<std::pair<int, std::string>> {};

TEST_P(MetadataTypesDeathTest, TypeSizeRefusesCodesWithoutAnElementSize) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Content c;
    c.mType = GetParam().first;
    EXPECT_DEATH(c._typeSize(), "_typeSize\\([0-9]+\\):" + GetParam().second +
                                    " \\(_typeSize\\)\\{#[0-9]+:utils/metadata/metadata/"
                                    "Content\\.cpp\\}");
}

INSTANTIATE_TEST_SUITE_P(Codes, MetadataTypesDeathTest,
                         ::testing::Values(std::make_pair(9, std::string("Not support TYPE_IMetadata")),
                                           std::make_pair(11, std::string("mType invalid 11")),
                                           std::make_pair(-1, std::string("mType invalid -1"))));

}  // namespace
