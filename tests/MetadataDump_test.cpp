// IMetadata::dump: a debug line per entry, nested containers a layer deeper, cut at 511 chars.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include "RecordingLogger.h"
#include "Values.h"

namespace {

using namespace NSCam;
using zorcam_test::entry;
using Lines = std::vector<std::string>;

class DumpTest : public zorcam_test::LoggerTest {
protected:
    void SetUp() override {
        LoggerTest::SetUp();
        setLogging(0x2, 5, 0x1001000);
    }
    void TearDown() override {
        IMetadata::mLogLevel = mSavedLevel;
        LoggerTest::TearDown();
    }
    const int32_t mSavedLevel = std::exchange(IMetadata::mLogLevel, 0);
};

TEST_F(DumpTest, EveryValueFormNestingTheSwitchAndEmptyContainers) {
    const std::string blob = std::string(64, 'x') + std::string(36, 'y');
    std::string hex, rects;
    for (int i = 0; i < 200; ++i) {
        rects += "rect(1,2,3,4) ";
        if (i < 64) hex += "78 ";
    }
    IMetadata second, m, none, empty;
    second.update(0x10003, entry<MPoint>({{1, 2}}));
    second.update(0x10004, entry<float>({0.5f}));
    using Memory = IMetadata::Memory;
    const std::pair<IMetadata::IEntry, std::string> rows[] = {
        {entry<uint8_t>({0, 200, 255}), "type(0) count(3) 0 200 255 "},
        {entry<int>({7, -8}), "type(1) count(2) 7 -8 "},
        {entry<float>({1.5f, -0.25f}), "type(2) count(2) 1.500000 -0.250000 "},
        {entry<long>({-5000000000L, 42}), "type(3) count(2) -5000000000 42 "},
        {entry<double>({2.25, 1e-7}), "type(4) count(2) 2.250000 0.000000 "},
        {entry<MRational>({{1, 3}, {-2, 5}}), "type(5) count(2) rational(1,3) rational(-2,5) "},
        {entry<MPoint>({{10, -20}}), "type(6) count(1) point(10,-20) "},
        {entry<MSize>({{640, 480}, {0, 1}}), "type(7) count(2) size(640,480) size(0,1) "},
        {entry<MRect>(std::vector<MRect>(200, {1, 2, 3, 4})), "type(8) count(200) " + rects},
        // The empty blob adds nothing; a long one shows its first 64 bytes.
        {entry<Memory>({Memory(), Memory("\x0A\xBC", 3)}),
         "type(10) count(2) memory[1] size 3:0A BC 00 "},
        {entry<Memory>({Memory(blob.data(), 100)}), "type(10) count(1) memory[0] size 100:" + hex},
        // A row without content has no type; it is printed, not skipped.
        {IMetadata::IEntry(), "type(-1) count(0) unsupported type(-1)"},
        {entry<IMetadata>({second, IMetadata()}), "type(9) count(2) metadata.. "},
    };
    Lines expected{"dump:layer 0", "dump:mStorage count 13"};
    for (uint32_t i = 0; i < 13; ++i) {
        ASSERT_EQ(m.update(0x10001 + i, rows[i].first), 0);
        char head[64];
        std::snprintf(head, sizeof(head), "[dump] Map(%u/13) tag(0x%x) ", i, 0x10001 + i);
        expected.push_back("dump:(L0) " + (head + rows[i].second).substr(0, 511));  // the cut
    }
    // Each nested container a layer deeper; the row's line grows after each.
    const std::string nest = expected.back();
    expected.insert(
        expected.end(),
        {"dump:layer 1", "dump:mStorage count 2",
         "dump:(L1) [dump] Map(0/2) tag(0x10003) type(6) count(1) point(1,2) ",
         "dump:(L1) [dump] Map(1/2) tag(0x10004) type(2) count(1) 0.500000 ", nest + "metadata.. ",
         "dump:layer 1", "dump:IMetadata::dump mStorage == nullptr", nest + "metadata.. "});
    m.dump(0, true);
    for (const auto& l : log.lines()) {  // debug lines of the container
        EXPECT_EQ(l.tag, "Metadata2") << l.text;
        EXPECT_EQ(l.moduleId, 0x1001003u) << l.text;
        EXPECT_EQ(l.level, 5) << l.text;
    }
    EXPECT_EQ(log.take(), expected);
    m.dump(0, false);
    EXPECT_TRUE(log.take().empty());
    IMetadata::mLogLevel = 1;
    m.dump(0, false);
    EXPECT_EQ(log.take(), expected);
    none.dump(0, true);
    EXPECT_EQ(log.take(), (Lines{"dump:layer 0", "dump:IMetadata::dump mStorage == nullptr"}));
    EXPECT_EQ(empty.remove(0x10001), -1);  // leaves an empty storage behind
    empty.dump(0, true);
    EXPECT_EQ(log.take(), (Lines{"dump:layer 0", "dump:mStorage count 0"}));
}

}  // namespace
