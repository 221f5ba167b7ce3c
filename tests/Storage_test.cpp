// IMetadata::Storage: its markers, index reads and the flat block (magic, record count,
// records of tag, length and content record), byte for byte and against damaged input.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include "Content.h"
#include "ItemTable.h"
#include "RecordingLogger.h"

namespace {

using NSCam::IMetadata;
using Storage = IMetadata::Storage;
using Content = IMetadata::Content;
using ContentSP = std::shared_ptr<Content>;
using Bytes = std::vector<uint8_t>;

ContentSP ints(std::vector<int> v) {
    auto c = std::make_shared<Content>();
    c->update(-1, v.data(), v.size(), NSCam::TYPE_INT32);
    return c;
}

void put32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
// A record of one int32 content.
void putIntRecord(Bytes& b, uint32_t tag, int v) {
    put32(b, tag);
    put32(b, 16);
    put32(b, 0xAB2454CD);
    put32(b, NSCam::TYPE_INT32);
    put32(b, 1);
    put32(b, static_cast<uint32_t>(v));
}
Bytes header(uint32_t records) {
    Bytes b;
    put32(b, 0x01245432);
    put32(b, records);
    return b;
}

Bytes flat(const Storage& s, const uint32_t* tags = nullptr, long count = -1) {
    Bytes b(static_cast<size_t>(s.flattenSize(tags, count)));
    EXPECT_EQ(s.flatten(b.data(), b.size(), tags, count), static_cast<long>(b.size()));
    return b;
}

std::string ptr(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

int intAt(const ContentSP& c) {
    int v = 0;
    std::memcpy(&v, c->getBasicData(0, NSCam::TYPE_INT32), 4);
    return v;
}

std::vector<uint32_t> tagsOf(const Storage& s) {
    std::vector<uint32_t> t;
    for (const auto& item : s.mItemTable.items()) t.push_back(item.tag);
    return t;
}

class StorageTest : public zorcam_test::LoggerTest {
protected:
    // Error lines of the container's log tag without their line numbers: "func:text".
    std::vector<std::string> errors(const char* tag = "Metadata2") const {
        std::vector<std::string> out;
        for (const auto& l : log.lines())
            if (l.level == 1 && l.tag == tag)
                out.push_back(std::regex_replace(l.text, std::regex("^([^(]+)\\(\\d+\\):"), "$1:"));
        return out;
    }
    Storage s;
};

TEST_F(StorageTest, EmptyStorageAndFiltersOfAbsentTagsGiveTheBareHeader) {
    const Bytes empty = {0x32, 0x54, 0x24, 0x01, 0, 0, 0, 0};
    EXPECT_EQ(flat(s), empty);
    s.mItemTable.update(0x00010000, ints({1}));
    const uint32_t absent[] = {0x00020000, 0x00040006};
    EXPECT_EQ(s.flattenSize(absent, 2), 8);
    EXPECT_EQ(flat(s, absent, 2), empty);
    EXPECT_EQ(flat(s, absent, 0), empty);
    EXPECT_TRUE(errors().empty());
}

TEST_F(StorageTest, RecordsAreTagLengthAndContentRecordAndReadBackAlike) {
    s.mItemTable.update(0x00010002, ints({7}));
    s.mItemTable.update(0x00040006, nullptr);  // a row without content
    Bytes expected = header(2);
    putIntRecord(expected, 0x00010002, 7);
    put32(expected, 0x00040006);
    put32(expected, 0);
    EXPECT_EQ(s.flattenSize(nullptr, -1), 40);
    EXPECT_EQ(flat(s), expected);

    Storage back;
    back.mItemTable.update(0x00050000, ints({5}));  // replaced by what is read
    ASSERT_EQ(back.unflatten(expected.data(), expected.size()), 40);
    ASSERT_EQ(tagsOf(back), (std::vector<uint32_t>{0x00010002, 0x00040006}));
    EXPECT_EQ(intAt(back.mItemTable.at(0).content), 7);
    EXPECT_TRUE(back.mItemTable.at(0).content->isReadOnly());
    EXPECT_EQ(back.mItemTable.at(1).content, nullptr);
    EXPECT_EQ(back.mItemTable.getIndexByTag(0x00050000), 0xFFFF);
}

TEST_F(StorageTest, TagFilterWritesListedRowsInListOrderRepeatsIncluded) {
    s.mItemTable.update(0x00010000, ints({1}));
    s.mItemTable.update(0x00020000, ints({2, 3}));
    s.mItemTable.update(0x00030000, ints({4}));
    const uint32_t tags[] = {0x00020000, 0x00090000, 0x00010000, 0x00020000};
    // Only the low 32 bits of the count are used.
    const long count = (1L << 32) | 4;
    const Bytes b = flat(s, tags, count);
    Bytes expected = header(3);
    for (uint32_t tag : {0x00020000u, 0x00010000u, 0x00020000u}) {
        const std::vector<int> v =
            tag == 0x00010000u ? std::vector<int>{1} : std::vector<int>{2, 3};
        put32(expected, tag);
        put32(expected, static_cast<uint32_t>(12 + 4 * v.size()));
        put32(expected, 0xAB2454CD);
        put32(expected, NSCam::TYPE_INT32);
        put32(expected, static_cast<uint32_t>(v.size()));
        for (int x : v) put32(expected, static_cast<uint32_t>(x));
    }
    EXPECT_EQ(b, expected);
    Storage back;
    ASSERT_EQ(back.unflatten(b.data(), b.size()), static_cast<long>(b.size()));
    EXPECT_EQ(tagsOf(back), (std::vector<uint32_t>{0x00020000, 0x00010000}));
}

TEST_F(StorageTest, TwoRecordsOfOneTagReadBackAsOneRowWithTheSecondValues) {
    Bytes b = header(4);
    putIntRecord(b, 0x00010000, 1);
    putIntRecord(b, 0x10010000, 2);
    putIntRecord(b, 0x00010000, 3);
    putIntRecord(b, 0x80010000, 4);  // same slot as 0x10010000
    ASSERT_EQ(s.unflatten(b.data(), b.size()), static_cast<long>(b.size()));
    ASSERT_EQ(tagsOf(s), (std::vector<uint32_t>{0x00010000, 0x10010000}));
    EXPECT_EQ(intAt(s.mItemTable.at(0).content), 3);
    EXPECT_EQ(intAt(s.mItemTable.at(1).content), 4);
}

// A buffer one byte short fails with -1 and never receives a byte past its end.
TEST_F(StorageTest, OneByteShortFailsWithoutWritingPastTheBuffer) {
    struct Case {
        const char* name;
        std::vector<std::pair<uint32_t, bool>> rows;  // tag, has content
        bool contentFails;  // the last record's content writer runs out first
    };
    const Case cases[] = {
        {"empty", {}, false},
        {"last row without content", {{0x00010000, true}, {0x00020000, false}}, false},
        {"last row with content", {{0x00020000, false}, {0x00010000, true}}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log.reset();
        Storage st;
        for (const auto& [tag, has] : c.rows) st.mItemTable.update(tag, has ? ints({9}) : nullptr);
        const size_t need = static_cast<size_t>(st.flattenSize(nullptr, -1));
        Bytes buf(need + 16, 0xEE);
        EXPECT_EQ(st.flatten(buf.data(), need - 1, nullptr, -1), -1);
        EXPECT_EQ(Bytes(buf.begin() + static_cast<long>(need) - 1, buf.end()), Bytes(17, 0xEE));
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 4), (Bytes{0x32, 0x54, 0x24, 0x01}));
        if (c.contentFails) {
            EXPECT_EQ(errors(),
                      std::vector<std::string>{"flatten:encoding tag 10000 fail , size -1"});
            EXPECT_EQ(log.countContaining("out of buffer"), 1u);
        } else {
            EXPECT_EQ(errors(), std::vector<std::string>{"flatten:flatten buffer overflow!!!!!! " +
                                                         ptr(buf.data() + need) + " " +
                                                         ptr(buf.data() + need - 1)});
        }
    }
}

TEST_F(StorageTest, NullBuffersAreRefused) {
    EXPECT_EQ(s.flatten(nullptr, 100, nullptr, -1), -1);
    EXPECT_EQ(s.unflatten(nullptr, 100), -1);
    EXPECT_EQ(errors(), (std::vector<std::string>{"flatten:flatten nullpointer",
                                                  "unflatten:flatten nullpointer"}));
}

TEST_F(StorageTest, WrongMagicLeavesTheTableAsItWas) {
    s.mItemTable.update(0x00010000, ints({1}));
    s.mItemTable.update(0x00040006, ints({2}));
    Bytes b = header(1);
    putIntRecord(b, 0x00030000, 3);
    b[0] = 0x33;
    EXPECT_EQ(s.unflatten(b.data(), b.size()), -1);
    EXPECT_EQ(errors(),
              std::vector<std::string>{"unflatten:unflatten buffer not correct. pattern 1245433"});
    EXPECT_EQ(tagsOf(s), (std::vector<uint32_t>{0x00010000, 0x00040006}));
    EXPECT_EQ(s.mItemTable.getIndexByTag(0x00040006), 1);
}

TEST_F(StorageTest, SpareBytesAfterTheBlockAreNotConsumed) {
    Bytes b = header(1);
    putIntRecord(b, 0x00030000, 3);
    const size_t length = b.size();
    b.insert(b.end(), {1, 2, 3, 4, 5});
    EXPECT_EQ(s.unflatten(b.data(), b.size()), static_cast<long>(length));
    EXPECT_TRUE(errors().empty());
}

// Every cut of a valid block is refused with the overflow report, without reading past the
// bytes given; the rows read before the cut stay.
TEST_F(StorageTest, TruncatedBlocksAreRefusedBeforeReadingPastTheirEnd) {
    Storage src;
    src.mItemTable.update(0x00010000, ints({1, 2}));
    src.mItemTable.update(0x00020000, nullptr);
    src.mItemTable.update(0x00040006, ints({3}));
    const Bytes whole = flat(src);
    for (size_t n = 0; n < whole.size(); ++n) {
        SCOPED_TRACE(n);
        log.reset();
        const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
        Storage st;
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[n + 1]);  // ASan sees any overread
        if (n > 0) std::memcpy(exact.get(), cut.data(), n);
        EXPECT_EQ(st.unflatten(exact.get(), n), -1);
        const std::vector<std::string> e = errors();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0].rfind("unflatten:unflatten buffer overflow!!!!!! ", 0), 0u) << e[0];
        EXPECT_NE(e[0].find(" " + ptr(exact.get() + n)), std::string::npos) << e[0];
        // Records 1 (28 bytes) and 2 (8 bytes) end at offsets 36 and 44.
        EXPECT_EQ(st.size(), n >= 44 ? 2u : n >= 36 ? 1u : 0u);
    }
}

TEST_F(StorageTest, RecordCountsTheBytesCannotHoldAreRefused) {
    s.mItemTable.update(0x00010000, ints({1}));
    Bytes many = header(0x8000);
    for (int i = 0; i < 0x8000; ++i) put32(many, 0x00010000), put32(many, 0);
    EXPECT_EQ(s.unflatten(many.data(), many.size()), -1);
    EXPECT_EQ(s.size(), 0u);  // the table was cleared before the count was read

    Bytes two = header(2);
    putIntRecord(two, 0x00010000, 1);
    EXPECT_EQ(s.unflatten(two.data(), two.size()), -1);
    EXPECT_EQ(errors().size(), 2u);
    for (const std::string& e : errors())
        EXPECT_EQ(e.rfind("unflatten:unflatten buffer overflow!!!!!! ", 0), 0u) << e;

    log.reset();
    s.mItemTable.update(0x00010000, ints({1}));
    Bytes negative = header(0xFFFFFFFF);
    EXPECT_EQ(s.unflatten(negative.data(), negative.size()), 8);
    EXPECT_EQ(s.size(), 0u);
    EXPECT_TRUE(errors().empty());
}

TEST_F(StorageTest, ARefusedContentRecordStillLeavesItsRowAndFails) {
    Bytes b = header(2);
    putIntRecord(b, 0x00010000, 1);
    putIntRecord(b, 0x00020000, 2);
    b[8 + 24 + 8] ^= 0xFF;  // pattern of the second content record
    EXPECT_EQ(s.unflatten(b.data(), b.size()), -1);
    EXPECT_EQ(tagsOf(s), (std::vector<uint32_t>{0x00010000, 0x00020000}));
    EXPECT_TRUE(errors().empty());  // the refusal is the content's to report
    EXPECT_GE(errors("Metadata2/Content").size(), 1u);
}

TEST_F(StorageTest, IndexReadsOutOfRangeReportAndRefuse) {
    s.mItemTable.update(0x00010000, ints({1}));
    s.mItemTable.update(0x00040006, ints({2}));
    uint32_t tag = 0;
    ContentSP c;
    ASSERT_TRUE(s.getTagByIndex(1, tag));
    EXPECT_EQ(tag, 0x00040006u);
    ASSERT_TRUE(s.getContentSPByIndex(0, c, tag));
    EXPECT_EQ(tag, 0x00010000u);
    EXPECT_EQ(c, s.mItemTable.at(0).content);
    tag = 77;
    EXPECT_FALSE(s.getTagByIndex(2, tag));
    EXPECT_FALSE(s.getContentSPByIndex(5, c, tag));
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(tag, 77u);
    EXPECT_EQ(errors(), (std::vector<std::string>{"getTagByIndex:index 2 out of range 2",
                                                  "getContentSPByIndex:index 5 out of range 2"}));
}

TEST(StorageLifeTest, MarkersFrameALiveStorageAndDropByOneOnDestruction) {
    alignas(Storage) unsigned char mem[sizeof(Storage)];
    Storage* st = new (mem) Storage;
    EXPECT_EQ(st->mHeadMarker, 0x12345678u);
    EXPECT_EQ(st->mTailMarker, 0x87654321u);
    EXPECT_EQ(st->mShared.load(), 0u);
    st->~Storage();
    EXPECT_EQ(st->mHeadMarker, 0x12345677u);
    EXPECT_EQ(st->mTailMarker, 0x87654320u);
}

}  // namespace
