// IMetadata::dump: one debug line per entry, nested containers one layer deeper, lines cut
// at 511 characters, and silence unless the debug switch or `force` asks for it.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "RecordingLogger.h"

namespace {

using NSCam::IMetadata;
using NSCam::MPoint;
using NSCam::MRational;
using NSCam::MRect;
using NSCam::MSize;
using NSCam::Type2Type;
using Entry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Lines = std::vector<std::string>;

constexpr uint32_t kTag = 0x10001;
constexpr uint32_t kContainerBits = 0x1001000;

template <typename T>
void put(IMetadata& m, uint32_t tag, std::initializer_list<T> values) {
    Entry e(tag);
    for (const T& v : values) e.push_back(v, Type2Type<T>());
    ASSERT_EQ(m.update(tag, e), 0);
}

class DumpTest : public zorcam_test::LoggerTest {
protected:
    void SetUp() override {
        LoggerTest::SetUp();
        mSavedLevel = IMetadata::mLogLevel;
        IMetadata::mLogLevel = 0;
        setLogging(0x2, 5, kContainerBits);
    }
    void TearDown() override {
        IMetadata::mLogLevel = mSavedLevel;
        LoggerTest::TearDown();
    }

    // Every recorded line, with the "dump(<line>):" prefix taken off the dump's own lines;
    // anything else is kept whole so that a stray line shows up in the comparison.
    Lines dumped() const {
        static const std::regex prefix("^dump\\(\\d+\\):");
        Lines out;
        for (const auto& l : log.lines()) {
            const bool ours = l.tag == "Metadata2" && l.moduleId == 0x1001003 && l.level == 5 &&
                              std::regex_search(l.text, prefix);
            out.push_back(ours ? std::regex_replace(l.text, prefix, "") : "[" + l.tag + "] " + l.text);
        }
        return out;
    }

private:
    int32_t mSavedLevel = 0;
};

TEST_F(DumpTest, EveryValueFormOnItsOwnLine) {
    IMetadata m;
    put<unsigned char>(m, 0x10001, {0, 200, 255});
    put<int>(m, 0x10002, {7, -8});
    put<float>(m, 0x10003, {1.5f, -0.25f});
    put<long>(m, 0x10004, {-5000000000L, 42});
    put<double>(m, 0x10005, {2.25, 1e-7});
    put<MRational>(m, 0x10006, {MRational(1, 3), MRational(-2, 5)});
    put<MPoint>(m, 0x10007, {MPoint(10, -20)});
    put<MSize>(m, 0x10008, {MSize(640, 480), MSize(0, 1)});
    put<MRect>(m, 0x10009, {MRect(1, 2, 3, 4)});
    put<Memory>(m, 0x1000a, {Memory(), Memory("\x0A\xBC\x00", 3)});  // the empty blob adds nothing
    m.burstWrite([](IMetadata::BurstEntry& s) { s.writeEntries<int>(0x1000b, nullptr, 0); });
    std::vector<uint8_t> before(static_cast<size_t>(m.flattenSize()));
    m.flatten(before.data(), before.size());

    m.dump(0, true);
    EXPECT_EQ(dumped(), (Lines{
        "layer 0",
        "mStorage count 11",
        "(L0) [dump] Map(0/11) tag(0x10001) type(0) count(3) 0 200 255 ",
        "(L0) [dump] Map(1/11) tag(0x10002) type(1) count(2) 7 -8 ",
        "(L0) [dump] Map(2/11) tag(0x10003) type(2) count(2) 1.500000 -0.250000 ",
        "(L0) [dump] Map(3/11) tag(0x10004) type(3) count(2) -5000000000 42 ",
        "(L0) [dump] Map(4/11) tag(0x10005) type(4) count(2) 2.250000 0.000000 ",
        "(L0) [dump] Map(5/11) tag(0x10006) type(5) count(2) rational(1,3) rational(-2,5) ",
        "(L0) [dump] Map(6/11) tag(0x10007) type(6) count(1) point(10,-20) ",
        "(L0) [dump] Map(7/11) tag(0x10008) type(7) count(2) size(640,480) size(0,1) ",
        "(L0) [dump] Map(8/11) tag(0x10009) type(8) count(1) rect(1,2,3,4) ",
        "(L0) [dump] Map(9/11) tag(0x1000a) type(10) count(2) memory[1] size 3:0A BC 00 ",
        // A row without content has no type; it is printed, not skipped.
        "(L0) [dump] Map(10/11) tag(0x1000b) type(-1) count(0) unsupported type(-1)",
    }));
    for (const auto& l : log.lines()) EXPECT_EQ(l.length, static_cast<int>(l.text.size()));

    std::vector<uint8_t> after(static_cast<size_t>(m.flattenSize()));
    m.flatten(after.data(), after.size());
    EXPECT_EQ(after, before);  // the dump changes nothing
}

TEST_F(DumpTest, ABlobShowsItsFirst64Bytes) {
    std::vector<uint8_t> bytes(100);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 3 + 1);
    IMetadata m;
    put<Memory>(m, kTag, {Memory(bytes.data(), bytes.size())});
    m.dump(0, true);

    std::string hex;
    char group[8];
    for (size_t i = 0; i < 64; ++i) {
        std::snprintf(group, sizeof(group), "%02X ", bytes[i]);
        hex += group;
    }
    EXPECT_EQ(dumped(), (Lines{"layer 0", "mStorage count 1",
                               "(L0) [dump] Map(0/1) tag(0x10001) type(10) count(1) "
                               "memory[0] size 100:" + hex}));
}

TEST_F(DumpTest, TwoNestedContainersAreDumpedOneLayerDeeper) {
    IMetadata first;
    put<int>(first, 0x10002, {5});
    IMetadata second;
    put<MPoint>(second, 0x10003, {MPoint(1, 2)});
    put<float>(second, 0x10004, {0.5f});
    IMetadata m;
    put<IMetadata>(m, kTag, {first, second});

    m.dump(2, true);  // `layer` is only printed; nested ones print it plus one
    const std::string head = "(L2) [dump] Map(0/1) tag(0x10001) type(9) count(2) ";
    EXPECT_EQ(dumped(), (Lines{
        "layer 2",
        "mStorage count 1",
        head + "metadata.. ",
        "layer 3",
        "mStorage count 1",
        "(L3) [dump] Map(0/1) tag(0x10002) type(1) count(1) 5 ",
        head + "metadata.. metadata.. ",
        "layer 3",
        "mStorage count 2",
        "(L3) [dump] Map(0/2) tag(0x10003) type(6) count(1) point(1,2) ",
        "(L3) [dump] Map(1/2) tag(0x10004) type(2) count(1) 0.500000 ",
        head + "metadata.. metadata.. ",
    }));
}

TEST_F(DumpTest, ANestedContainerWithoutStorageSaysSo) {
    IMetadata m;
    put<IMetadata>(m, kTag, {IMetadata()});
    m.dump(0, true);
    const std::string line = "(L0) [dump] Map(0/1) tag(0x10001) type(9) count(1) metadata.. ";
    EXPECT_EQ(dumped(), (Lines{"layer 0", "mStorage count 1", line, "layer 1",
                               "IMetadata::dump mStorage == nullptr", line}));
}

TEST_F(DumpTest, ALongLineIsCutAt511Characters) {
    IMetadata m;
    Entry e(kTag);
    std::string full = "[dump] Map(0/1) tag(0x10001) type(8) count(200) ";
    char item[64];
    for (int i = 0; i < 200; ++i) {
        e.push_back(MRect(i, -i, 10 * i, 1000 + i), Type2Type<MRect>());
        std::snprintf(item, sizeof(item), "rect(%d,%d,%d,%d) ", i, -i, 10 * i, 1000 + i);
        full += item;
    }
    m.update(e);
    m.dump(0, true);
    const Lines got = dumped();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[2], "(L0) " + full.substr(0, 511));
}

TEST_F(DumpTest, EmptyContainerWithAndWithoutStorage) {
    IMetadata none;
    none.dump(0, true);
    EXPECT_EQ(dumped(), (Lines{"layer 0", "IMetadata::dump mStorage == nullptr"}));

    log.reset();
    IMetadata empty;
    EXPECT_EQ(empty.remove(kTag), -1);  // leaves an empty storage behind
    empty.dump(0, true);
    EXPECT_EQ(dumped(), (Lines{"layer 0", "mStorage count 0"}));
}

TEST_F(DumpTest, TheSwitchAndForceDecideWhetherAnythingIsWritten) {
    IMetadata m;
    put<int>(m, kTag, {1});
    const Lines expected{"layer 0", "mStorage count 1",
                         "(L0) [dump] Map(0/1) tag(0x10001) type(1) count(1) 1 "};

    m.dump(0, false);
    EXPECT_TRUE(log.lines().empty());

    IMetadata::mLogLevel = 1;
    m.dump(0, false);
    EXPECT_EQ(dumped(), expected);

    log.reset();
    IMetadata::mLogLevel = 0;
    m.dump(0, true);
    EXPECT_EQ(dumped(), expected);

    // The lines are debug lines of the container: the logger's level and mask still apply.
    log.reset();
    setLogging(0x2, 4, kContainerBits);
    m.dump(0, true);
    setLogging(0x2, 5, 0x1000000);
    m.dump(0, true);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
