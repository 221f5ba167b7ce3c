#include <zorcam/metadata/IMetadataUpdater.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "RecordingLogger.h"

namespace NSCam {
namespace {

constexpr uint32_t kUniqueKey = 0xC00B0000, kFrame = 0xC00B0001, kRequest = 0xC00B0002;
const std::string kDir = "/sdcard/camera_dump/";

struct PrefixCase {
    std::optional<int> key, frame, request;
    const char* name;  // what follows the directory
};
void PrintTo(const PrefixCase& c, std::ostream* os) { *os << c.name; }

IMetadata frameMetaOf(const PrefixCase& c) {
    IMetadata meta;
    if (c.key) IMetadata::setEntry<int32_t>(&meta, kUniqueKey, *c.key);
    if (c.frame) IMetadata::setEntry<int32_t>(&meta, kFrame, *c.frame);
    if (c.request) IMetadata::setEntry<int32_t>(&meta, kRequest, *c.request);
    return meta;
}

// Calls with `size` into a larger buffer filled with '#' and checks that nothing at or past
// `size` was written; returns what the call returned.
std::string prefixOf(const IMetadata* meta, int size, const IMetadata* other = nullptr) {
    std::vector<char> buf(static_cast<size_t>(size > 0 ? size : 0) + 8, '#');
    const char* out = getDumpFilenamePrefix(buf.data(), size, other, meta);
    EXPECT_EQ(out, buf.data());
    for (size_t i = size > 0 ? size : 0; i < buf.size(); ++i) EXPECT_EQ(buf[i], '#') << i;
    return size > 0 ? std::string(out) : std::string();
}

class DumpFilenamePrefixTest : public zorcam_test::LoggerTest,
                               public ::testing::WithParamInterface<PrefixCase> {};

TEST_P(DumpFilenamePrefixTest, NamesTheRequestFromItsFrameTags) {
    const IMetadata meta = frameMetaOf(GetParam());
    EXPECT_EQ(prefixOf(&meta, 64), kDir + GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, DumpFilenamePrefixTest,
    ::testing::Values(PrefixCase{12, 7, 3, "000000012-0007-0003"},
                      PrefixCase{{}, {}, {}, "uniquekey-frme-rqst"},
                      PrefixCase{12, {}, 3, "000000012-frme-0003"},
                      PrefixCase{0, 0, 0, "000000000-0000-0000"},
                      // Each field's clamp; the frame keeps eight digits in a field of four.
                      PrefixCase{1234567890, 12345, 12345, "999999999-12345-9999"},
                      PrefixCase{5, 123456789, 9999, "000000005-99999999-9999"},
                      // Negative values are read as unsigned, so they clamp too.
                      PrefixCase{-1, -1, -1, "999999999-99999999-9999"}));

TEST_F(DumpFilenamePrefixTest, TruncatesAtEverySizeWithoutWritingPastIt) {
    const IMetadata meta = frameMetaOf({12, 7, 3, ""});
    const std::string full = kDir + "000000012-0007-0003";
    EXPECT_EQ(prefixOf(&meta, 10), "/sdcard/c");
    for (int size = -1; size <= static_cast<int>(full.size()) + 1; ++size) {
        SCOPED_TRACE(size);
        EXPECT_EQ(prefixOf(&meta, size), full.substr(0, size > 0 ? size - 1 : 0));
        if (size <= 0) continue;
        // An exactly sized heap block, so that a sanitizer build sees any overrun.
        std::unique_ptr<char[]> exact(new char[size]);
        EXPECT_STREQ(getDumpFilenamePrefix(exact.get(), size, nullptr, &meta),
                     full.substr(0, size - 1).c_str());
    }
}

TEST_F(DumpFilenamePrefixTest, NullArgumentsAndTheUnreadOtherMeta) {
    char buf[8] = "#######";
    const char* out = getDumpFilenamePrefix(buf, sizeof(buf), nullptr, nullptr);
    EXPECT_NE(out, buf);
    EXPECT_STREQ(out, "");
    EXPECT_STREQ(buf, "#######");
    const IMetadata meta = frameMetaOf({1, 2, 3, ""});
    EXPECT_STREQ(getDumpFilenamePrefix(nullptr, 64, nullptr, &meta), "");
    // Tags in otherMeta are not looked at.
    const IMetadata empty;
    EXPECT_EQ(prefixOf(&empty, 64, &meta), kDir + "uniquekey-frme-rqst");
}

}  // namespace
}  // namespace NSCam
