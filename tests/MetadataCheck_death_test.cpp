// A type code outside the known ones in a record with elements is a broken invariant for the
// decoder, which ends the process; the check reports it and keeps the process alive.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <gtest/gtest.h>

TEST(MetadataCheckDeathTest, TypeCodeOutOfRangeIsReportedByTheCheckAndFatalInTheDecoder) {
    for (int32_t type : {11, 0x7FFFFFFF, -2}) {
        const uint32_t words[] = {0x01245432, 1, 0x00010001, 16, 0xAB2454CD, uint32_t(type), 1, 7};
        const NSCam::FlatCheck c = NSCam::checkFlatMetadata(words, sizeof(words));
        EXPECT_FALSE(c.ok);
        EXPECT_STREQ(c.reason, "type code out of range");
        EXPECT_EQ(c.offset, 20u);  // the type field of the record
        EXPECT_DEATH(NSCam::IMetadata(words, sizeof(words)),
                     "_typeSize\\([0-9]+\\):mType invalid " + std::to_string(type));
    }
}
