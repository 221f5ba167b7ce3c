// IMetadata: lifecycle and validity, storage copy-on-write, the single-entry operations,
// flatten and unflatten, copy, assignment and merge.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "Content.h"
#include "ItemTable.h"
#include "RecordingLogger.h"

namespace NSCam {
struct MetadataInspector {
    static const std::shared_ptr<IMetadata::Storage>& storage(const IMetadata& m) {
        return m.mStorage;
    }
    static uint32_t shared(const IMetadata& m) { return m.mStorage->mShared.load(); }
    static uint32_t validNum(const IMetadata& m) { return m.mValidNum; }
    static uint32_t backup(const IMetadata& m) { return m.mValidNumBackup; }
    static std::vector<uint32_t> words(const IMetadata& m) {
        return {m.mHeadMarker, m.mLockMarker, m.mTailMarker};
    }
};
}  // namespace NSCam

namespace {

using NSCam::IMetadata;
using NSCam::MetadataInspector;
using NSCam::Type2Type;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Storage = IMetadata::Storage;
using Bytes = std::vector<uint8_t>;
constexpr uint32_t kNoTag = 0xFFFFFFFF;

Bytes flat(const IMetadata& m, const uint32_t* tags = nullptr, long count = -1) {
    Bytes b(static_cast<size_t>(m.flattenSize(tags, count)));
    EXPECT_EQ(m.flatten(b.data(), b.size(), tags, count), static_cast<long>(b.size()));
    return b;
}

// Rows as (tag, first int value or -1), read without sharing the storage.
std::vector<std::pair<uint32_t, int>> rows(const IMetadata& m) {
    std::vector<std::pair<uint32_t, int>> out;
    const auto& s = MetadataInspector::storage(m);
    if (!s) return out;
    for (const auto& item : s->mItemTable.items()) {
        int v = -1;
        if (item.content && item.content->mCount > 0)
            std::memcpy(&v, item.content->getBasicData(0, NSCam::TYPE_INT32), 4);
        out.emplace_back(item.tag, v);
    }
    return out;
}
using Rows = std::vector<std::pair<uint32_t, int>>;

IMetadata with(const Rows& r) {
    IMetadata m;
    for (const auto& [tag, v] : r) IMetadata::setEntry<int>(&m, tag, v);
    return m;
}

std::string ptr(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

class MetadataTest : public zorcam_test::LoggerTest {
protected:
    // Lines of the container's log tag at `level`, without their line numbers: "func:text".
    std::vector<std::string> linesAt(int level) const {
        std::vector<std::string> out;
        for (const auto& l : log.lines())
            if (l.level == level && l.tag == "Metadata2")
                out.push_back(std::regex_replace(l.text, std::regex("^([^(]+)\\(\\d+\\):"), "$1:"));
        return out;
    }
};

//------------------------------------------------------------------------------------------
// Lifecycle

TEST_F(MetadataTest, ADefaultContainerMakesNoStorageUntilAWrite) {
    IMetadata m;
    EXPECT_EQ(m.count(), 0u);
    EXPECT_TRUE(m.isEmpty());
    EXPECT_EQ(m.entryFor(0x00010000).tag(), kNoTag);
    EXPECT_EQ(m.takeEntryFor(0x00010000).tag(), kNoTag);
    EXPECT_EQ(m.entryAt(0).tag(), kNoTag);
    EXPECT_EQ(m.getStorageSP(), nullptr);
    bool called = false;
    EXPECT_EQ(m.burstRead([&](const Storage&) { return called = true, 5; }), -1);
    EXPECT_FALSE(called);
    EXPECT_EQ(m.sort(), 0);
    EXPECT_EQ(MetadataInspector::storage(m), nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(m.remove(0x00010000), -1);
    ASSERT_NE(MetadataInspector::storage(m), nullptr);
    EXPECT_EQ(MetadataInspector::storage(m)->size(), 0u);
}

TEST_F(MetadataTest, ValidityNumbersMarkersAndTheFieldsAfterDestruction) {
    IMetadata a, b;
    EXPECT_EQ(MetadataInspector::words(a),
              (std::vector<uint32_t>{0x56781234, 0x24542454, 0x43218765}));
    EXPECT_NE(MetadataInspector::validNum(a) & 0x80000000u, 0u);
    EXPECT_EQ(MetadataInspector::validNum(a), MetadataInspector::backup(a));
    EXPECT_EQ(MetadataInspector::validNum(b), MetadataInspector::validNum(a) + 1);

    alignas(IMetadata) unsigned char mem[sizeof(IMetadata)];
    IMetadata* m = new (mem) IMetadata(a);
    IMetadata::setEntry<int>(m, 0x00010000, 1);
    const std::weak_ptr<Storage> held = MetadataInspector::storage(*m);
    const uint32_t number = MetadataInspector::validNum(*m);
    EXPECT_EQ(number, MetadataInspector::validNum(b) + 1);
    m->~IMetadata();
    EXPECT_TRUE(held.expired());
    EXPECT_EQ(MetadataInspector::validNum(*m), 0u);
    EXPECT_EQ(MetadataInspector::backup(*m), number);
    EXPECT_EQ(MetadataInspector::words(*m),
              (std::vector<uint32_t>{0x56781233, 0x24542454, 0x43218764}));
    EXPECT_EQ(MetadataInspector::storage(*m), nullptr);
}

//------------------------------------------------------------------------------------------
// Storage copy-on-write

struct ShareCase {
    const char* name;
    std::function<void(IMetadata&)> op;
    bool shares;  // the next write clones the storage
};

class ShareTest : public ::testing::TestWithParam<ShareCase> {};

TEST_P(ShareTest, OnlyOperationsThatMayHandTheStorageOutMakeTheNextWriteClone) {
    IMetadata m = with({{0x00010000, 1}, {0x00020000, 2}});
    IMetadata::setEntry<int>(&m, 0x00030000, 3);  // the copy above shared; now private
    const std::shared_ptr<Storage> before = MetadataInspector::storage(m);
    ASSERT_EQ(MetadataInspector::shared(m), 0u);
    GetParam().op(m);
    IMetadata::setEntry<int>(&m, 0x00040000, 4);
    EXPECT_EQ(MetadataInspector::storage(m) != before, GetParam().shares);
    // Whatever happened, a storage that was handed out never sees the write.
    if (GetParam().shares) {
        EXPECT_EQ(before->size(), 3u);
    }
    EXPECT_EQ(rows(m).back(), std::make_pair(0x00040000u, 4));
}

INSTANTIATE_TEST_SUITE_P(
    Operations, ShareTest,
    ::testing::Values(
        ShareCase{"count", [](IMetadata& m) { m.count(); }, true},
        ShareCase{"isEmpty", [](IMetadata& m) { m.isEmpty(); }, true},
        ShareCase{"getStorageSP", [](IMetadata& m) { m.getStorageSP(); }, true},
        ShareCase{"flattenSize", [](IMetadata& m) { m.flattenSize(); }, true},
        ShareCase{"flatten", [](IMetadata& m) { flat(m); }, true},
        ShareCase{"burstRead", [](IMetadata& m) { m.burstRead([](const Storage&) { return 0; }); },
                  true},
        ShareCase{"copy", [](IMetadata& m) { IMetadata c(m); }, true},
        ShareCase{"assignFrom",
                  [](IMetadata& m) {
                      IMetadata c;
                      c = m;
                  },
                  true},
        ShareCase{"mergeFrom",
                  [](IMetadata& m) {
                      IMetadata c = with({{1, 1}});
                      c += m;
                  },
                  true},
        ShareCase{"entryFor", [](IMetadata& m) { m.entryFor(0x00010000); }, false},
        ShareCase{"entryAt", [](IMetadata& m) { m.entryAt(1); }, false},
        ShareCase{"takeEntryFor", [](IMetadata& m) { m.takeEntryFor(0x00010000); }, false},
        ShareCase{"remove", [](IMetadata& m) { m.remove(0x00020000); }, false},
        ShareCase{"burstWrite", [](IMetadata& m) { m.burstWrite([](Storage&) {}); }, false},
        ShareCase{"mergeInto",
                  [](IMetadata& m) {
                      m += with({{0x00050000, 5}});
                  },
                  false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(CopyTest, CopiesAndAssignmentsAreIsolatedInBothDirections) {
    IMetadata a = with({{0x00010000, 1}, {0x00040006, 6}});
    IMetadata c(a);
    IMetadata d;
    d = a;
    EXPECT_EQ(MetadataInspector::storage(c), MetadataInspector::storage(a));
    EXPECT_EQ(MetadataInspector::storage(d), MetadataInspector::storage(a));
    IMetadata::setEntry<int>(&c, 0x00010000, 2);
    IMetadata::setEntry<int>(&a, 0x00020000, 3);
    d.remove(0x00040006);
    EXPECT_EQ(rows(a), (Rows{{0x00010000, 1}, {0x00040006, 6}, {0x00020000, 3}}));
    EXPECT_EQ(rows(c), (Rows{{0x00010000, 2}, {0x00040006, 6}}));
    EXPECT_EQ(rows(d), (Rows{{0x00010000, 1}}));
    // An entry read out and edited does not write back into the container.
    IEntry e = a.entryFor(0x00010000);
    e.replaceItemAt(0, 9, Type2Type<int>());
    e.push_back(10, Type2Type<int>());
    EXPECT_EQ(a.entryFor(0x00010000).count(), 1u);
    EXPECT_EQ(rows(a).front(), std::make_pair(0x00010000u, 1));
    a = a;
    EXPECT_EQ(rows(a).size(), 3u);
    d = IMetadata();
    EXPECT_EQ(MetadataInspector::storage(d), nullptr);
}

TEST(CopyTest, CopiesWrittenOnDifferentThreadsStayApart) {
    IMetadata a = with({{0x00010000, 0}});
    IMetadata c(a);
    auto writer = [](IMetadata* m, uint32_t base) {
        for (int i = 0; i < 500; ++i) {
            IMetadata::setEntry<int>(m, base + static_cast<uint32_t>(i % 50), i);
            IMetadata::setEntry<int>(m, 0x00010000, static_cast<int>(base));
            if (i % 7 == 0) m->remove(base + static_cast<uint32_t>(i % 50));
        }
    };
    std::thread t1(writer, &a, 0x91000000u), t2(writer, &c, 0x91010000u);
    t1.join();
    t2.join();
    for (const auto& [tag, v] : rows(a)) EXPECT_TRUE(tag == 0x00010000u || (tag >> 16) == 0x9100);
    for (const auto& [tag, v] : rows(c)) EXPECT_TRUE(tag == 0x00010000u || (tag >> 16) == 0x9101);
    EXPECT_EQ(rows(a).front(), std::make_pair(0x00010000u, static_cast<int>(0x91000000u)));
    EXPECT_EQ(rows(c).front(), std::make_pair(0x00010000u, static_cast<int>(0x91010000u)));
}

//------------------------------------------------------------------------------------------
// Single entries

TEST_F(MetadataTest, AMismatchedEntryTagIsReportedAndStoredUnderTheArgument) {
    IEntry e(0x5678);
    e.push_back(9, Type2Type<int>());
    IMetadata m;
    EXPECT_EQ(m.update(0x1234, e), 0);
    EXPECT_EQ(rows(m), (Rows{{0x1234, 9}}));
    EXPECT_EQ(m.entryFor(0x5678).tag(), kNoTag);
    const auto errors = linesAt(1);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], "update:tag mismatch update tag=1234 but entry.tag=5678");
    EXPECT_EQ(errors[1].rfind("Callstack:", 0), 0u);

    log.reset();
    setLogging(0x2, 0, 0);  // reported only when the details level is set
    EXPECT_EQ(m.update(0x1235, e), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(rows(m).back(), std::make_pair(0x1235u, 9));
}

TEST_F(MetadataTest, AnEntryWithoutTagIsRefusedAndAtLevelSixTraced) {
    IEntry e;
    e.push_back(1, Type2Type<int>());
    IMetadata m = with({{0x00010000, 1}});
    struct Level {
        uint32_t level, mask;
        size_t traced;
    };
    for (const Level& l :
         {Level{2, 0, 0}, Level{6, 0, 0}, Level{0, 0x1001000, 0}, Level{6, 0x1001000, 2}}) {
        SCOPED_TRACE(l.level);
        log.reset();
        setLogging(0x2, l.level, l.mask);
        EXPECT_EQ(m.update(e), -1);
        EXPECT_EQ(linesAt(1), std::vector<std::string>{"update:entry without valid tag value"});
        const auto traced = linesAt(6);
        ASSERT_EQ(traced.size(), l.traced);
        if (l.traced) {
            EXPECT_EQ(traced[0], "update:entry without valid tag value");
            EXPECT_EQ(traced[1].rfind("Callstack:", 0), 0u);
            EXPECT_EQ(log.lines()[1].text, log.lines()[0].text);  // the same line, repeated
        }
    }
    EXPECT_EQ(rows(m), (Rows{{0x00010000, 1}}));
}

TEST_F(MetadataTest, TakeEntryForHandsTheValuesOverAndLeavesCopiesAlone) {
    IMetadata m = with({{0x00010000, 1}, {0x00020000, 2}, {0x00040006, 3}});
    IMetadata copy(m);
    const IEntry e = m.takeEntryFor(0x00010000);
    EXPECT_EQ(e.tag(), 0x00010000u);
    EXPECT_EQ(e.itemAt(0, Type2Type<int>()), 1);
    EXPECT_EQ(m.entryFor(0x00010000).tag(), kNoTag);
    EXPECT_EQ(rows(m), (Rows{{0x00040006, 3}, {0x00020000, 2}}));
    EXPECT_EQ(m.takeEntryFor(0x00040006).itemAt(0, Type2Type<int>()), 3);
    EXPECT_EQ(m.takeEntryFor(0x00040006).tag(), kNoTag);
    EXPECT_EQ(rows(copy).size(), 3u);
    // A lookup through a sharing group answers under the tag asked for.
    IMetadata::setEntry<int>(&m, 0x10010000, 7);
    EXPECT_EQ(m.entryFor(0x80010000).tag(), 0x80010000u);
    EXPECT_EQ(m.entryFor(0x80010000).itemAt(0, Type2Type<int>()), 7);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(MetadataTest, EntryAtFollowsRowOrderAndReportsOutOfRange) {
    IMetadata m = with({{0x00030000, 3}, {0x00010000, 1}, {0x00020000, 2}});
    m.remove(0x00030000);
    EXPECT_EQ(m.entryAt(0).tag(), 0x00020000u);
    EXPECT_EQ(m.entryAt(1).itemAt(0, Type2Type<int>()), 1);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(m.entryAt(m.count()).tag(), kNoTag);
    EXPECT_EQ(linesAt(1), std::vector<std::string>{"getContentSPByIndex:index 2 out of range 2"});
}

TEST_F(MetadataTest, ClearDropsOnlyThisContainersReference) {
    IMetadata m = with({{0x00010000, 1}});
    IMetadata c(m);
    m.clear();
    EXPECT_EQ(MetadataInspector::storage(m), nullptr);
    EXPECT_EQ(rows(c), (Rows{{0x00010000, 1}}));
}

TEST_F(MetadataTest, BurstWriteWorksOnAPrivateStorageAndBurstReadSharesIt) {
    IMetadata m;
    m.burstWrite([](Storage& s) {
        IEntry e(0x00010000);
        e.push_back(5, Type2Type<int>());
        s.mItemTable.update(0x00010000, e.getContentSP());
    });
    EXPECT_EQ(rows(m), (Rows{{0x00010000, 5}}));
    EXPECT_EQ(m.burstRead([](const Storage& s) { return static_cast<int>(s.size()) + 40; }), 41);
    EXPECT_EQ(MetadataInspector::shared(m), 1u);
}

TEST_F(MetadataTest, UpdatesAndMergesBeyondTheRowLimitAreRefused) {
    IMetadata m;
    m.burstWrite([](Storage& s) {
        for (uint32_t i = 0; i < Storage::ItemTable::kMaxRows; ++i)
            s.mItemTable.update(0xFFF00000u | i, nullptr);
    });
    EXPECT_EQ(IMetadata::setEntry<int>(&m, 0x00010000, 1), 0);  // it does not say
    IEntry e(0x00020000);
    EXPECT_EQ(m.update(e), -1);
    m += with({{0x00030000, 3}});
    EXPECT_EQ(linesAt(1), (std::vector<std::string>{
                              "update:table full (32767 rows), tag 10000 not stored",
                              "update:table full (32767 rows), tag 20000 not stored",
                              "operator+=:table full (32767 rows), tag 30000 not merged"}));
    EXPECT_EQ(MetadataInspector::storage(m)->size(), Storage::ItemTable::kMaxRows);
    EXPECT_EQ(m.remove(0xFFF00000u), 0);
    EXPECT_EQ(m.update(e), 0);
}

//------------------------------------------------------------------------------------------
// Merge

TEST(MergeTest, MergingKeepsRowPositionsAndAppendsNewTagsInTheOthersOrder) {
    IMetadata a = with({{0x00010000, 1}, {0x00020000, 2}, {0x10010000, 6}, {0x00030000, 3}});
    IMetadata b = with({{0x00040006, 40}, {0x00020000, 20}, {0x80010000, 60}, {0x00050000, 50}});
    IMetadata keep(a);
    const Bytes bBefore = flat(b);
    a += b;
    EXPECT_EQ(rows(a), (Rows{{0x00010000, 1},
                             {0x00020000, 20},
                             {0x10010000, 60},
                             {0x00030000, 3},
                             {0x00040006, 40},
                             {0x00050000, 50}}));
    EXPECT_EQ(flat(b), bBefore);
    EXPECT_EQ(rows(keep).size(), 4u);
    // Values are shared, not copied.
    EXPECT_EQ(MetadataInspector::storage(a)->mItemTable.at(4).content,
              MetadataInspector::storage(b)->mItemTable.at(0).content);
}

TEST(MergeTest, SelfAndEmptyMergesChangeNothingNotEvenTheSharedFlag) {
    IMetadata a = with({{0x00010000, 1}});
    IMetadata::setEntry<int>(&a, 0x00020000, 2);  // private again
    const Storage* s = MetadataInspector::storage(a).get();
    a += a;
    a += IMetadata();
    EXPECT_EQ(MetadataInspector::storage(a).get(), s);
    EXPECT_EQ(MetadataInspector::shared(a), 0u);
    EXPECT_EQ(rows(a), (Rows{{0x00010000, 1}, {0x00020000, 2}}));
}

TEST(MergeTest, AnEmptyTargetSharesTheSourceUntilItWrites) {
    IMetadata a;
    IMetadata b = with({{0x00010000, 1}});
    a += b;
    EXPECT_EQ(MetadataInspector::storage(a), MetadataInspector::storage(b));
    IMetadata::setEntry<int>(&a, 0x00010000, 2);
    EXPECT_EQ(rows(b), (Rows{{0x00010000, 1}}));
    EXPECT_EQ(rows(a), (Rows{{0x00010000, 2}}));
}

TEST(MergeTest, SumLeavesBothOperandsUnchanged) {
    IMetadata a = with({{0x00010000, 1}, {0x00020000, 2}});
    IMetadata b = with({{0x00020000, 20}, {0x00030000, 30}});
    const Bytes fa = flat(a), fb = flat(b);
    IMetadata c = a + b;
    EXPECT_EQ(rows(c), (Rows{{0x00010000, 1}, {0x00020000, 20}, {0x00030000, 30}}));
    EXPECT_EQ(flat(a), fa);
    EXPECT_EQ(flat(b), fb);
    IMetadata::setEntry<int>(&c, 0x00010000, 9);
    EXPECT_EQ(flat(a), fa);
    EXPECT_EQ(rows(IMetadata() + b), rows(b));
}

//------------------------------------------------------------------------------------------
// Flat form

template <typename T>
T sample(int i);
template <>
unsigned char sample(int i) {
    return static_cast<unsigned char>(250 - i);
}
template <>
int sample(int i) {
    return -100000 * i - 7;
}
template <>
float sample(int i) {
    return 1.5f * static_cast<float>(i) - 0.25f;
}
template <>
long sample(int i) {
    return (1L << 40) * i - 3;
}
template <>
double sample(int i) {
    return -2.75e100 * i + 1e-300;
}
template <>
NSCam::MRational sample(int i) {
    return {i, -i - 1};
}
template <>
NSCam::MPoint sample(int i) {
    return {i, 2 * i};
}
template <>
NSCam::MSize sample(int i) {
    return {3 * i, -4 * i};
}
template <>
NSCam::MRect sample(int i) {
    return {i, -i, 2 * i, 0x7FFFFFFF - i};
}
template <>
Memory sample(int i) {
    Bytes b(static_cast<size_t>(i * 37));  // the first blob is empty
    for (size_t k = 0; k < b.size(); ++k) b[k] = static_cast<uint8_t>(k * 13 + i);
    return Memory(b.data(), b.size());
}
// A container nested `depth` levels deep; the innermost holds i.
IMetadata nested(int i, int depth) {
    IMetadata m = with({{0x00010000, i}, {0x00040006, -i}});
    if (depth > 1) IMetadata::setEntry<IMetadata>(&m, 0x00020000, nested(i + 1, depth - 1));
    return m;
}
template <>
IMetadata sample(int i) {
    return nested(i, 3);
}

template <typename T>
bool same(const T& a, const T& b) {
    return a == b;
}
bool same(const IMetadata& a, const IMetadata& b) {
    return flat(a) == flat(b);
}
bool same(const float& a, const float& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}
bool same(const double& a, const double& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

template <typename T>
class RoundTripTest : public ::testing::Test {};
using ValueTypes = ::testing::Types<unsigned char, int, float, long, double, NSCam::MRational,
                                    NSCam::MPoint, NSCam::MSize, NSCam::MRect, IMetadata, Memory>;
TYPED_TEST_SUITE(RoundTripTest, ValueTypes);

TYPED_TEST(RoundTripTest, ValuesSurviveFlattenAndBothWaysBack) {
    IMetadata m = with({{0x00030000, 3}});
    IEntry e(0x00040006);
    for (int i = 0; i < 4; ++i) e.push_back(sample<TypeParam>(i), Type2Type<TypeParam>());
    m.update(e);
    const Bytes b = flat(m);
    IMetadata fromCtor(b.data(), b.size());
    IMetadata fromUnflatten = with({{0x00050000, 5}});
    Bytes copy = b;
    ASSERT_EQ(fromUnflatten.unflatten(copy.data(), copy.size()), static_cast<long>(b.size()));
    for (const IMetadata* back : {&fromCtor, &fromUnflatten}) {
        ASSERT_EQ(back->count(), 2u);
        EXPECT_EQ(back->entryAt(0).tag(), 0x00030000u);
        const IEntry r = back->entryAt(1);
        EXPECT_EQ(r.tag(), 0x00040006u);
        EXPECT_EQ(r.type(), NSCam::TypeCodeOf<TypeParam>::value);
        ASSERT_EQ(r.count(), 4u);
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(same(r.itemAt(static_cast<uint32_t>(i), Type2Type<TypeParam>()),
                             sample<TypeParam>(i)))
                << i;
        EXPECT_EQ(flat(*back), b);
    }
}

TEST(FlatTest, AllElevenTypesAndThreeNestingLevelsComeBackInRowOrder) {
    IMetadata m;
    IMetadata::setEntry(&m, 0xFFFFFFFE, sample<Memory>(2));
    IMetadata::setEntry(&m, 0x00230000, sample<NSCam::MRect>(1));
    IMetadata::setEntry(&m, 0x00010000, sample<NSCam::MSize>(1));
    IMetadata::setEntry(&m, 0x91040001, sample<IMetadata>(7));
    IMetadata::setEntry(&m, 0x00200000, sample<NSCam::MPoint>(1));
    IMetadata::setEntry(&m, 0x10010000, sample<NSCam::MRational>(1));
    IMetadata::setEntry(&m, 0x00000000, sample<double>(1));
    IMetadata::setEntry(&m, 0xF0070000, sample<long>(1));
    IMetadata::setEntry(&m, 0x00040006, sample<float>(1));
    IMetadata::setEntry(&m, 0x00050000, sample<int>(1));
    IMetadata::setEntry(&m, 0x91030000, sample<unsigned char>(1));
    const Bytes b = flat(m);
    const IMetadata back(b.data(), b.size());
    ASSERT_EQ(back.count(), 11u);
    for (uint32_t i = 0; i < 11; ++i) EXPECT_EQ(back.entryAt(i).tag(), m.entryAt(i).tag());
    EXPECT_EQ(back.entryAt(3).type(), NSCam::TYPE_IMetadata);
    EXPECT_EQ(flat(back), b);
    IMetadata l1, l2, l3;
    ASSERT_TRUE(IMetadata::getEntry(&back, 0x91040001, l1));
    ASSERT_TRUE(IMetadata::getEntry(&l1, 0x00020000, l2));
    ASSERT_TRUE(IMetadata::getEntry(&l2, 0x00020000, l3));
    EXPECT_EQ(rows(l3), (Rows{{0x00010000, 9}, {0x00040006, -9}}));
    Memory blob;
    ASSERT_TRUE(IMetadata::getEntry(&back, 0xFFFFFFFE, blob));
    EXPECT_EQ(blob.size(), 74u);
    EXPECT_TRUE(blob == sample<Memory>(2));
}

TEST(FlatTest, ATagFilterKeepsOnlyTheListedTagsInListOrder) {
    const IMetadata m = with({{0x00010000, 1}, {0x00020000, 2}, {0x00040006, 3}, {0x00050000, 4}});
    const uint32_t tags[] = {0x00040006, 0x00090000, 0x00010000};
    const Bytes b = flat(m, tags, 3);
    EXPECT_EQ(rows(IMetadata(b.data(), b.size())), (Rows{{0x00040006, 3}, {0x00010000, 1}}));
}

TEST_F(MetadataTest, ADefaultContainerFlattensToEightBytesAndGainsASharedStorage) {
    IMetadata m;
    EXPECT_EQ(m.flattenSize(), 8);
    ASSERT_NE(MetadataInspector::storage(m), nullptr);
    EXPECT_EQ(MetadataInspector::shared(m), 1u);
    IMetadata n;
    Bytes b(8, 0xEE);
    EXPECT_EQ(n.flatten(b.data(), b.size()), 8);
    EXPECT_EQ(b, (Bytes{0x32, 0x54, 0x24, 0x01, 0, 0, 0, 0}));
    EXPECT_NE(MetadataInspector::storage(n), nullptr);
}

TEST_F(MetadataTest, UnflattenOfAWrongMagicLeavesTheContainerEmpty) {
    IMetadata m = with({{0x00010000, 1}});
    IMetadata copy(m);
    Bytes b = flat(m);
    b[3] = 0x02;
    EXPECT_EQ(m.unflatten(b.data(), b.size()), -1);
    EXPECT_EQ(m.count(), 0u);
    EXPECT_EQ(rows(copy), (Rows{{0x00010000, 1}}));
    EXPECT_EQ(linesAt(1),
              std::vector<std::string>{"unflatten:unflatten buffer not correct. pattern 2245432"});
}

TEST_F(MetadataTest, ABadBufferGivesAnEmptyContainerAfterAReport) {
    const Bytes bad = {0x33, 0, 0, 0, 0, 0, 0, 0};
    const IMetadata m(bad.data(), bad.size());
    EXPECT_EQ(MetadataInspector::storage(m), nullptr);
    EXPECT_EQ(m.count(), 0u);
    const IMetadata n(nullptr, 16);
    EXPECT_EQ(MetadataInspector::storage(n), nullptr);
    EXPECT_EQ(linesAt(1), (std::vector<std::string>{
                              "unflatten:unflatten buffer not correct. pattern 33",
                              "IMetadata:unflatten error " + ptr(bad.data()) + ", size 8",
                              "unflatten:flatten nullpointer",
                              "IMetadata:unflatten error " + ptr(nullptr) + ", size 16"}));
}

}  // namespace
