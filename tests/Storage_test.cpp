// IMetadata::Storage: the flat block byte for byte, and its refusal of short or damaged input.
#include <zorcam/metadata/IMetadata.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Flat.h"
#include "RecordingLogger.h"

namespace {

using ::testing::ElementsAre;
using zorcam_test::flat;
using Storage = NSCam::IMetadata::Storage;
using V = std::vector<int>;
using W = std::vector<uint32_t>;  // a flat block as little-endian words, as the device has it
constexpr uint32_t kMagic = 0x01245432, kContent = 0xAB2454CD, kInt = NSCam::TYPE_INT32;

class StorageTest : public zorcam_test::LoggerTest {
protected:
    static void put(Storage& s, uint32_t k, V v) { s.writeEntries(k, v.data(), v.size()); }
    static std::string ptr(const void* p) { return ::testing::PrintToString(p); }
    Storage s;
};

TEST_F(StorageTest, RecordsAreTagLengthAndContentRecordInRowOrderAndReadBackAlike) {
    EXPECT_EQ(flat<uint32_t>(s), (W{kMagic, 0}));
    put(s, 0x00010002, {7});
    put(s, 0x00040006, {});  // no values: a row without content, of length 0
    put(s, 0x00020000, {2, 3});
    const W all = {kMagic, 3,          0x00010002, 16,       kContent, kInt, 1, 7, 0x00040006,
                   0,      0x00020000, 20,         kContent, kInt,     2,    2, 3};
    EXPECT_EQ(flat<uint32_t>(s), all);
    // Listed tags in list order, absent skipped, repeated repeated; the count's low 32 bits.
    const uint32_t tags[] = {0x00020000, 0x00090000, 0x00040006, 0x00020000};
    EXPECT_EQ(flat<uint32_t>(s, tags, (1L << 32) | 4),
              (W{kMagic, 3, 0x00020000, 20, kContent, kInt, 2, 2, 3, 0x00040006, 0, 0x00020000, 20,
                 kContent, kInt, 2, 2, 3}));
    put(s, 0x00050000, {5});  // dropped by the read
    ASSERT_EQ(s.unflatten(all.data(), 4 * all.size()), 68);
    EXPECT_EQ(flat<uint32_t>(s), all);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(StorageTest, OneByteShortFailsWithoutWritingPastTheBuffer) {
    for (int rows = 0; rows < 3; ++rows) {
        if (rows > 0) put(s, 0x00010000 * rows, rows == 1 ? V{9} : V{});
        const size_t need = static_cast<size_t>(s.flattenSize(nullptr, -1));
        std::string buf(need + 8, '\xEE');
        EXPECT_EQ(s.flatten(buf.data(), need - 1, nullptr, -1), -1);
        EXPECT_EQ(buf.substr(need - 1), std::string(9, '\xEE'));
        EXPECT_THAT(log.take(), ::testing::Contains(
                                    rows == 1 ? "flatten:encoding tag 10000 fail , size -1"
                                              : "flatten:flatten buffer overflow!!!!!! " +
                                                    ptr(&buf[need]) + " " + ptr(&buf[need - 1])));
    }
    EXPECT_EQ(s.flatten(nullptr, 100, nullptr, -1), -1);
    EXPECT_EQ(s.unflatten(nullptr, 8), -1);
    EXPECT_THAT(log.take(),
                ElementsAre("flatten:flatten nullpointer", "unflatten:flatten nullpointer"));
}

// A cut block is refused with the reader's report, keeping the rows read before the cut (the
// check and the decoders are swept over every cut in MetadataCheck_test); a bad magic number
// leaves the rows alone.
TEST_F(StorageTest, TruncatedOrDamagedBlocksAreRefused) {
    W whole = {kMagic,     3, 0x00010000, 20, kContent, kInt, 2, 1, 2,
               0x00020000, 0, 0x00040006, 16, kContent, kInt, 1, 3};
    const std::vector<uint32_t> cut(whole.begin(), whole.end() - 1);
    EXPECT_EQ(s.unflatten(cut.data(), 4 * cut.size()), -1);
    EXPECT_THAT(log.take(), ElementsAre(::testing::MatchesRegex(  // where it needed, the end
                                "unflatten:unflatten buffer overflow!!!!!! 0x[0-9a-f]+ " +
                                ptr(cut.data() + cut.size()))));
    EXPECT_EQ(s.size(), 2u);
    const W before = flat<uint32_t>(s);
    whole[0] = 0x01245433;
    EXPECT_EQ(s.unflatten(whole.data(), 4 * whole.size()), -1);
    EXPECT_THAT(log.take(), ElementsAre("unflatten:unflatten buffer not correct. pattern 1245433"));
    EXPECT_EQ(flat<uint32_t>(s), before);
}

// What a rebuilt table holds, written back: a repeated tag keeps its first place and takes
// its last values (also through a tag sharing its slot, and past the map), a record's spare
// bytes are not kept, a blob among values stays one. Tables of a few rows and of more than 16
// are built differently, and so are forms with and without repeats: each pair is here.
TEST_F(StorageTest, RebuiltTablesHoldWhatTheRecordsSayInTheirOrder) {
    auto rec = [](uint32_t tag, V v, uint32_t spare = 0) {
        W w = {tag, static_cast<uint32_t>(12 + 4 * v.size() + spare), kContent, kInt,
               static_cast<uint32_t>(v.size())};
        w.insert(w.end(), v.begin(), v.end());
        w.insert(w.end(), spare / 4, 0xEEEEEEEE);
        return w;
    };
    auto form = [](std::vector<W> records) {
        W w = {kMagic, static_cast<uint32_t>(records.size())};
        for (const W& r : records) w.insert(w.end(), r.begin(), r.end());
        return w;
    };
    auto many = [&](size_t n, std::vector<W> tail) {  // n distinct rows, then `tail`
        std::vector<W> rows;
        for (size_t i = 0; i < n; ++i) rows.push_back(rec(0x91000000 + i, {int(i)}));
        rows.insert(rows.end(), tail.begin(), tail.end());
        return rows;
    };
    const W blob = {0x00050000, 12 + 4 + 3 * 4, kContent, NSCam::TYPE_Memory, 1, 12, 1, 2, 3};
    const struct {
        const char* name;
        std::vector<W> in, out;
    } cases[] = {
        {"repeat",
         {rec(0x00010000, {1}), rec(0x00020000, {2}), rec(0x00010000, {3, 4})},
         {rec(0x00010000, {3, 4}), rec(0x00020000, {2})}},
        {"slot sharers", {rec(0x10010000, {1}), rec(0x80010000, {2})}, {rec(0x10010000, {2})}},
        {"spare bytes",
         {rec(0x00010000, {1}, 8), blob, rec(0x7F000001, {2}, 4)},
         {rec(0x00010000, {1}), blob, rec(0x7F000001, {2})}},
        {"20 rows", many(20, {rec(0x7F000002, {7}, 4), blob}),
         many(20, {rec(0x7F000002, {7}), blob})},
        {"20 rows, a repeat", many(20, {rec(0x91000003, {9})}),
         [&] {
             std::vector<W> rows = many(20, {});
             rows[3] = rec(0x91000003, {9});
             return rows;
         }()},
        {"20 rows, a repeat past the map", many(20, {rec(0x7F000002, {1}), rec(0x7F000002, {2})}),
         many(20, {rec(0x7F000002, {2})})},
    };
    for (const auto& c : cases) {
        const W in = form(c.in);
        EXPECT_EQ(s.unflatten(in.data(), 4 * in.size()), static_cast<long>(4 * in.size()))
            << c.name;
        EXPECT_EQ(flat<uint32_t>(s), form(c.out)) << c.name;
    }
    EXPECT_TRUE(log.take().empty());
}

}  // namespace
