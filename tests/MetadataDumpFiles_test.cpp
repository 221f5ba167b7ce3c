// getDumpFilenamePrefix: the dump directory and the request's frame tags, clamped and cut.
#include <zorcam/metadata/IMetadataUpdater.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace NSCam;

// Calls into a '#'-filled buffer 8 bytes longer than `size`: nothing past the zero may change.
std::string prefixOf(const IMetadata* meta, int size, const IMetadata* other = nullptr) {
    std::vector<char> buf(static_cast<size_t>(std::max(size, 0)) + 8, '#');
    const char* out = getDumpFilenamePrefix(buf.data(), size, other, meta);
    // The buffer; or "", untouched, for a null frameMeta or no room for the terminating zero.
    EXPECT_EQ(out == buf.data(), meta != nullptr && size > 0);
    const size_t len = strnlen(out, static_cast<size_t>(std::max(size, 0)));
    const size_t used = out == buf.data() ? len + 1 : 0;
    EXPECT_EQ(std::string(buf.begin() + used, buf.end()), std::string(buf.size() - used, '#'));
    return std::string(out, len);
}

TEST(DumpFilenamePrefixTest, NamesClampsAndCutsAtEverySize) {
    constexpr int no = INT32_MIN;  // the tag is absent
    const struct {
        int key, frame, request;
        const char* name;
    } cases[] = {
        {12, 7, 3, "000000012-0007-0003"},
        {no, no, no, "uniquekey-frme-rqst"},
        {12, no, 3, "000000012-frme-0003"},
        {0, 0, 0, "000000000-0000-0000"},
        // Each field's clamp (the frame keeps 8 digits); negatives, read unsigned, clamp too.
        {1234567890, 12345, 12345, "999999999-12345-9999"},
        {5, 123456789, 9999, "000000005-99999999-9999"},
        {-1, -1, -1, "999999999-99999999-9999"}};
    IMetadata meta, none;
    for (const auto& c : cases) {
        const int values[] = {c.key, c.frame, c.request};
        for (uint32_t i = 0; i < 3; ++i)
            if (values[i] == no)
                meta.remove(0xC00B0000 + i);
            else
                IMetadata::setEntry<int32_t>(&meta, 0xC00B0000 + i, values[i]);
        const std::string full = std::string("/sdcard/camera_dump/") + c.name;
        for (int size = -1; size <= static_cast<int>(full.size()) + 1; ++size)
            EXPECT_EQ(prefixOf(&meta, size), full.substr(0, std::max(size - 1, 0))) << size;
    }
    EXPECT_EQ(prefixOf(&meta, 10), "/sdcard/c");
    // Null arguments give "" and write nothing; tags in otherMeta are not looked at.
    EXPECT_EQ(prefixOf(nullptr, 8), "");
    EXPECT_STREQ(getDumpFilenamePrefix(nullptr, 64, nullptr, &meta), "");
    EXPECT_EQ(prefixOf(&none, 64, &meta), "/sdcard/camera_dump/uniquekey-frme-rqst");
}

}  // namespace
