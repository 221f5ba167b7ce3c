// Why foreign bytes go through the check first: a type code outside the known ones in a record
// with elements is a broken invariant for the decoder, which ends the process, while the check
// reports it and keeps the process alive.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using namespace NSCam;

std::vector<uint8_t> withType(int32_t type) {
    const uint32_t words[] = {
        0x01245432, 1, 0x00010001, 16, 0xAB2454CD, static_cast<uint32_t>(type), 1, 7};
    std::vector<uint8_t> b(sizeof(words));
    std::memcpy(b.data(), words, sizeof(words));
    return b;
}

TEST(MetadataCheckDeathTest, TypeCodeOutOfRangeIsReportedByTheCheckAndFatalInTheDecoder) {
    for (int32_t type : {11, 0x7FFFFFFF, -2}) {
        const std::vector<uint8_t> b = withType(type);
        const FlatCheck c = checkFlatMetadata(b.data(), b.size());
        EXPECT_FALSE(c.ok);
        EXPECT_STREQ(c.reason, "type code out of range");
        EXPECT_EQ(c.offset, 20u);  // the type field of the record
        EXPECT_DEATH(IMetadata(b.data(), b.size()),
                     "_typeSize\\([0-9]+\\):mType invalid " + std::to_string(type));
    }
}

}  // namespace
