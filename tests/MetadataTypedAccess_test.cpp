// One-call typed access: IMetadata::setEntry / getEntry on a whole container, and the storage
// read and write families that burst callbacks use on one layer.
//
// The storage members are reached both through burstWrite / burstRead (the way callers use
// them, under the container's lock) and on a bare Storage, where a test can look at the row
// and its content directly.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <type_traits>
#include <vector>

#include "Content.h"
#include "RecordingLogger.h"

namespace {

using NSCam::IMetadata;
using NSCam::MPoint;
using NSCam::MRational;
using NSCam::MRect;
using NSCam::MSize;
using NSCam::Type2Type;
using Content = IMetadata::Content;
using Entry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Storage = IMetadata::Storage;
using Bytes = std::vector<uint8_t>;

// Tags of the fixed slot map (group 0, section 1).
constexpr uint32_t kTag = 0x10001;
constexpr uint32_t kTag2 = 0x10002;
constexpr uint32_t kInner = 0x10003;
constexpr uint32_t kAbsent = 0x10030;

Bytes flat(const IMetadata& m) {
    Bytes b(static_cast<size_t>(m.flattenSize()));
    EXPECT_EQ(m.flatten(b.data(), b.size()), static_cast<long>(b.size()));
    return b;
}

Bytes bytesOf(const Memory& m) {
    size_t n = 0;
    const uint8_t* p = m.array(n);
    return p ? Bytes(p, p + n) : Bytes();
}

IMetadata containerWith(std::initializer_list<int> ints, float f) {
    IMetadata m;
    Entry e(kInner);
    for (int v : ints) e.push_back(v, Type2Type<int>());
    m.update(kInner, e);
    Entry g(kInner + 1);
    g.push_back(f, Type2Type<float>());
    m.update(kInner + 1, g);
    return m;
}

std::shared_ptr<Content> rowContent(const Storage& s, uint32_t tag) {
    const uint16_t row = s.mItemTable.getIndexByTag(tag);
    EXPECT_NE(row, Storage::ItemTable::kNoRow) << std::hex << tag;
    return row == Storage::ItemTable::kNoRow ? nullptr : s.mItemTable.at(row).content;
}

// Two distinct values per type, their equality, and the type's code.
template <typename T>
struct Sample;
#define SAMPLE(T, CODE, A, B)                                       \
    template <>                                                     \
    struct Sample<T> {                                              \
        static constexpr int32_t code = CODE;                       \
        static T a() { return A; }                                  \
        static T b() { return B; }                                  \
        static bool same(const T& x, const T& y) { return x == y; } \
    };
SAMPLE(unsigned char, NSCam::TYPE_UINT8, 7, 250)
SAMPLE(int, NSCam::TYPE_INT32, -5, 123456)
SAMPLE(float, NSCam::TYPE_FLOAT, 1.5f, -2.25f)
SAMPLE(long, NSCam::TYPE_INT64, -5000000000L, 1L << 40)
SAMPLE(double, NSCam::TYPE_DOUBLE, 0.1, -1e300)
SAMPLE(MRational, NSCam::TYPE_MRational, MRational(3, 4), MRational(-1, 7))
SAMPLE(MPoint, NSCam::TYPE_MPoint, MPoint(1, 2), MPoint(-3, 4))
SAMPLE(MSize, NSCam::TYPE_MSize, MSize(640, 480), MSize(1, 1))
SAMPLE(MRect, NSCam::TYPE_MRect, MRect(1, 2, 3, 4), MRect(5, 6, 7, 8))
#undef SAMPLE
template <>
struct Sample<Memory> {
    static constexpr int32_t code = NSCam::TYPE_Memory;
    static Memory a() { return Memory("\x01\x02\x03", 3); }
    static Memory b() { return Memory("\x09\x08\x07\x06\x05", 5); }
    static bool same(const Memory& x, const Memory& y) { return bytesOf(x) == bytesOf(y); }
};
template <>
struct Sample<IMetadata> {
    static constexpr int32_t code = NSCam::TYPE_IMetadata;
    static IMetadata a() { return containerWith({5}, 0.5f); }
    static IMetadata b() { return containerWith({1, 2, 3}, -8.0f); }
    static bool same(const IMetadata& x, const IMetadata& y) { return flat(x) == flat(y); }
};

// A stored type that differs from T, for the mismatch reads.
template <typename T>
using Other = std::conditional_t<std::is_same<T, int>::value, float, int>;

//------------------------------------------------------------------------------------------
// Every family over the eleven value types.

template <typename T>
class TypedAccessTest : public zorcam_test::LoggerTest {};
using ValueTypes = ::testing::Types<unsigned char, int, float, long, double, MRational, MPoint,
                                    MSize, MRect, IMetadata, Memory>;
TYPED_TEST_SUITE(TypedAccessTest, ValueTypes);

TYPED_TEST(TypedAccessTest, SetEntryThenGetEntryRoundTripsAndReplacesTheWholeEntry) {
    using T = TypeParam;
    using S = Sample<T>;
    IMetadata m;
    ASSERT_EQ(IMetadata::setEntry<T>(&m, kTag, S::a()), 0);
    ASSERT_EQ(IMetadata::setEntry<T>(&m, kTag, S::b()), 0);  // replaces, never appends
    const Entry e = m.entryFor(kTag);
    EXPECT_EQ(e.tag(), kTag);
    EXPECT_EQ(e.type(), S::code);
    EXPECT_EQ(e.count(), 1u);
    EXPECT_EQ(m.count(), 1u);

    T out = S::a();
    EXPECT_TRUE(IMetadata::getEntry<T>(&m, kTag, out));
    EXPECT_TRUE(S::same(out, S::b()));
    // An index past the one value, and an absent tag, leave the output alone.
    T kept = S::a();
    EXPECT_FALSE(IMetadata::getEntry<T>(&m, kTag, kept, 1));
    EXPECT_FALSE(IMetadata::getEntry<T>(&m, kAbsent, kept));
    EXPECT_TRUE(S::same(kept, S::a()));
    EXPECT_FALSE(IMetadata::getEntry<T>(nullptr, kTag, kept));
    EXPECT_EQ(IMetadata::setEntry<T>(nullptr, kTag, S::a()), -1);
}

TYPED_TEST(TypedAccessTest, StorageWritesReadBackThroughBurstAccess) {
    using T = TypeParam;
    using S = Sample<T>;
    IMetadata m;
    const T many[] = {S::a(), S::b(), S::a()};
    m.burstWrite([&](IMetadata::BurstEntry& s) {
        s.writeEntry<T>(kTag, S::b());
        s.writeEntries<T>(kTag2, many, 3);
    });
    // The rows are the container's own: the entry interface sees them.
    EXPECT_EQ(m.entryFor(kTag2).count(), 3u);
    EXPECT_EQ(m.entryFor(kTag2).type(), S::code);

    T one = S::a();
    std::vector<T> all(5, S::b());
    const int rc = m.burstRead([&](const IMetadata::BurstEntry& s) {
        EXPECT_EQ(s.readEntry<T>(kTag, one), 0);
        return s.readEntries<T>(kTag2, all);
    });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(S::same(one, S::b()));
    ASSERT_EQ(all.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(S::same(all[i], many[i])) << i;

    T viaGet = S::a();
    EXPECT_TRUE(IMetadata::getEntry<T>(&m, kTag2, viaGet, 1));
    EXPECT_TRUE(S::same(viaGet, S::b()));
}

TYPED_TEST(TypedAccessTest, ReadsOutOfRangeOrOfAnotherTypeYieldTheEmptyValue) {
    using T = TypeParam;
    using S = Sample<T>;
    auto s = std::make_shared<Storage>();
    s->writeEntry<T>(kTag, S::a());
    s->writeEntry<Other<T>>(kTag2, Other<T>(3));

    T out = S::b();
    EXPECT_EQ(s->readEntry<T>(kTag, out, 1), 0);  // past the only value
    EXPECT_TRUE(S::same(out, T()));
    out = S::b();
    EXPECT_EQ(s->readEntry<T>(kTag2, out), 0);  // stored as another type
    EXPECT_TRUE(S::same(out, T()));

    std::vector<T> vec(1, S::b());
    EXPECT_EQ(s->readEntries<T>(kTag2, vec), 0);
    ASSERT_EQ(vec.size(), 1u);
    EXPECT_TRUE(S::same(vec[0], T()));

    // The container helper returns what the entry reads: true, with the empty value.
    IMetadata m;
    IMetadata::setEntry<Other<T>>(&m, kTag, Other<T>(3));
    out = S::b();
    EXPECT_TRUE(IMetadata::getEntry<T>(&m, kTag, out));
    EXPECT_TRUE(S::same(out, T()));
}

TYPED_TEST(TypedAccessTest, WriteFormsReturnAWritableContentThatIsNotInstalled) {
    using T = TypeParam;
    using S = Sample<T>;
    auto s = std::make_shared<Storage>();
    const T two[] = {S::b(), S::a()};
    std::shared_ptr<Content> one = s->write(S::a(), Type2Type<T>());
    std::shared_ptr<Content> many = s->write(two, 2, Type2Type<T>());
    EXPECT_EQ(s->size(), 0u);
    ASSERT_TRUE(one && many);
    EXPECT_FALSE(one->isReadOnly());
    EXPECT_FALSE(many->isReadOnly());
    EXPECT_EQ(one->mType, S::code);
    EXPECT_EQ(one->mCount, 1);
    EXPECT_EQ(many->mCount, 2);
    EXPECT_TRUE(S::same(s->read(0, Type2Type<T>(), one), S::a()));
    EXPECT_TRUE(S::same(s->read(0, Type2Type<T>(), many), S::b()));
    EXPECT_TRUE(S::same(s->read(1, Type2Type<T>(), many), S::a()));
    EXPECT_TRUE(S::same(s->read(2, Type2Type<T>(), many), T()));
    EXPECT_EQ(s->read(0, Type2Type<Other<T>>(), many), Other<T>());
}

//------------------------------------------------------------------------------------------
// Container helpers

class ContainerHelperTest : public zorcam_test::LoggerTest {};

TEST_F(ContainerHelperTest, SetEntryReplacesThreeValuesByOneFloat) {
    IMetadata m;
    Entry e(kTag);
    for (int v : {10, 20, 30}) e.push_back(v, Type2Type<int>());
    m.update(kTag, e);
    ASSERT_EQ(IMetadata::setEntry<float>(&m, kTag, 1.5f), 0);
    const Entry got = m.entryFor(kTag);
    EXPECT_EQ(got.type(), NSCam::TYPE_FLOAT);
    ASSERT_EQ(got.count(), 1u);
    EXPECT_EQ(got.itemAt(0, Type2Type<float>()), 1.5f);
    EXPECT_EQ(m.count(), 1u);
    // The entry the caller built keeps its three values.
    EXPECT_EQ(e.count(), 3u);
}

TEST_F(ContainerHelperTest, GetEntryChecksTheIndexAgainstTheCount) {
    IMetadata m;
    Entry e(kTag);
    for (int v : {10, 20, 30}) e.push_back(v, Type2Type<int>());
    m.update(kTag, e);
    int v = 77;
    EXPECT_FALSE(IMetadata::getEntry<int>(&m, kTag, v, 3));
    EXPECT_EQ(v, 77);
    // The index is compared in full: cut to 32 bits it would read element 2.
    EXPECT_FALSE(IMetadata::getEntry<int>(&m, kTag, v, (1ul << 32) + 2));
    EXPECT_EQ(v, 77);
    EXPECT_FALSE(IMetadata::getEntry<int>(nullptr, kTag, v, 0));
    EXPECT_EQ(v, 77);
    EXPECT_TRUE(IMetadata::getEntry<int>(&m, kTag, v, 2));
    EXPECT_EQ(v, 30);
    EXPECT_TRUE(IMetadata::getEntry<int>(&m, kTag, v));
    EXPECT_EQ(v, 10);
    // getEntry reads a copy: the container keeps its entry.
    EXPECT_EQ(m.entryFor(kTag).count(), 3u);
}

TEST_F(ContainerHelperTest, GetEntryOfARowWithoutContentIsFalse) {
    IMetadata m;
    m.burstWrite([](IMetadata::BurstEntry& s) { s.writeEntries<int>(kTag, nullptr, 0); });
    int v = 77;
    EXPECT_FALSE(IMetadata::getEntry<int>(&m, kTag, v));
    EXPECT_EQ(v, 77);
}

TEST_F(ContainerHelperTest, ObjectValuesShareTheStoredDataAndEditsDoNotLeakBack) {
    IMetadata m;
    IMetadata::setEntry<Memory>(&m, kTag, Memory("\x01\x02\x03", 3));
    IMetadata::setEntry<IMetadata>(&m, kTag2, containerWith({5}, 0.5f));
    const std::shared_ptr<Content> blobs = m.entryFor(kTag).getContentSP();
    const std::shared_ptr<Content> nested = m.entryFor(kTag2).getContentSP();

    Memory blob;
    IMetadata inner;
    ASSERT_TRUE(IMetadata::getEntry<Memory>(&m, kTag, blob));
    ASSERT_TRUE(IMetadata::getEntry<IMetadata>(&m, kTag2, inner));
    EXPECT_EQ(blob.getDataSP(), blobs->getMemory(0, NSCam::TYPE_Memory));
    EXPECT_EQ(inner.getStorageSP(), nested->getMetadata(0, NSCam::TYPE_IMetadata));

    Memory viaRead;
    IMetadata innerViaRead;
    m.burstRead([&](const IMetadata::BurstEntry& s) {
        s.readEntry<Memory>(kTag, viaRead);
        return s.readEntry<IMetadata>(kTag2, innerViaRead);
    });
    EXPECT_EQ(viaRead.getDataSP(), blobs->getMemory(0, NSCam::TYPE_Memory));
    EXPECT_EQ(innerViaRead.getStorageSP(), nested->getMetadata(0, NSCam::TYPE_IMetadata));

    // Writes through the copies go to private data.
    blob.editArray()[0] = 0xEE;
    viaRead.editArray()[1] = 0xEE;
    IMetadata::setEntry<int>(&inner, kInner, 99);
    IMetadata::setEntry<int>(&innerViaRead, kInner + 7, 1);
    Memory again;
    IMetadata innerAgain;
    ASSERT_TRUE(IMetadata::getEntry<Memory>(&m, kTag, again));
    ASSERT_TRUE(IMetadata::getEntry<IMetadata>(&m, kTag2, innerAgain));
    EXPECT_EQ(bytesOf(again), (Bytes{1, 2, 3}));
    EXPECT_EQ(innerAgain.count(), 2u);
    int v = 0;
    EXPECT_TRUE(IMetadata::getEntry<int>(&innerAgain, kInner, v));
    EXPECT_EQ(v, 5);
}

TEST_F(ContainerHelperTest, BurstWriteLeavesACopyOfTheContainerUnchanged) {
    IMetadata m;
    IMetadata::setEntry<int>(&m, kTag, 1);
    const IMetadata copy(m);
    m.burstWrite([](IMetadata::BurstEntry& s) {
        s.writeEntry<int>(kTag, 2);
        s.writeEntry<int>(kTag2, 3);
    });
    int v = 0;
    EXPECT_TRUE(IMetadata::getEntry<int>(&copy, kTag, v));
    EXPECT_EQ(v, 1);
    EXPECT_EQ(copy.count(), 1u);
    EXPECT_TRUE(IMetadata::getEntry<int>(&m, kTag, v));
    EXPECT_EQ(v, 2);
}

//------------------------------------------------------------------------------------------
// Storage readers

class StorageAccessTest : public zorcam_test::LoggerTest {
protected:
    std::shared_ptr<Storage> s = std::make_shared<Storage>();

    // Error lines of the content, with the function name kept and the line number dropped.
    std::vector<std::string> contentErrors() const {
        std::vector<std::string> out;
        static const std::regex prefix("^(\\w+)\\(\\d+\\):");
        for (const auto& l : log.lines())
            if (l.tag == "Metadata2/Content" && l.level == 1)
                out.push_back(std::regex_replace(l.text, prefix, "$1:"));
        return out;
    }
};

TEST_F(StorageAccessTest, ReadEntryDefaultsAndAbsentTag) {
    const int two[] = {4, 5};
    s->writeEntries<int>(kTag, two, 2);
    s->writeEntry<MRational>(kTag2, MRational(3, 4));

    int v = 99;
    EXPECT_EQ(s->readEntry<int>(kTag, v, 5), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(s->readEntry<int>(kTag, v, 1), 0);
    EXPECT_EQ(v, 5);
    EXPECT_EQ(s->readEntry<int>(kTag, v), 0);  // index 0 by default
    EXPECT_EQ(v, 4);
    EXPECT_EQ(contentErrors(), (std::vector<std::string>{"getBasicData:index (5) out of range (2)"}));

    MRational r(7, 7);
    EXPECT_EQ(s->readEntry<MRational>(kTag2, r, 1), 0);
    EXPECT_EQ(r, MRational(0, 1));  // the default rational, not 0/0
    EXPECT_EQ(s->readEntry<MRational>(kTag2, r), 0);
    EXPECT_EQ(r, MRational(3, 4));

    v = 99;
    r = MRational(7, 7);
    EXPECT_EQ(s->readEntry<int>(kAbsent, v), -1);
    EXPECT_EQ(s->readEntry<MRational>(kAbsent, r, 0), -1);
    EXPECT_EQ(v, 99);
    EXPECT_EQ(r, MRational(7, 7));
}

TEST_F(StorageAccessTest, ReadEntryOfARowWithoutContentGivesTheEmptyValue) {
    s->writeEntries<MRational>(kTag, nullptr, 0);
    MRational r(7, 7);
    EXPECT_EQ(s->readEntry<MRational>(kTag, r), 0);
    EXPECT_EQ(r, MRational(0, 1));
}

TEST_F(StorageAccessTest, ReadTakesTheValueFromTheGivenContent) {
    const int three[] = {10, 20, 30};
    std::shared_ptr<Content> c = s->write(three, 3, Type2Type<int>());
    EXPECT_EQ(s->read(1, Type2Type<int>(), c), 20);
    EXPECT_EQ(s->read(3, Type2Type<int>(), c), 0);
    EXPECT_EQ(s->read(0, Type2Type<MRational>(), c), MRational(0, 1));
    EXPECT_EQ(s->read(0, Type2Type<float>(), c), 0.0f);
    EXPECT_EQ(s->size(), 0u);  // no table lookup, nothing installed
}

TEST_F(StorageAccessTest, ReadEntriesResizesToTheContent) {
    const MRect four[] = {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}};
    s->writeEntries<MRect>(kTag, four, 4);
    s->writeEntries<MRect>(kTag2, nullptr, 0);

    const MRect mark(-1, -1, -1, -1);
    std::vector<MRect> longer(10, mark);
    EXPECT_EQ(s->readEntries<MRect>(kTag, longer), 0);
    EXPECT_EQ(longer, std::vector<MRect>(four, four + 4));

    std::vector<MRect> shorter(1, mark);
    EXPECT_EQ(s->readEntries<MRect>(kTag, shorter), 0);
    EXPECT_EQ(shorter, std::vector<MRect>(four, four + 4));

    std::vector<MRect> kept(10, mark);
    EXPECT_EQ(s->readEntries<MRect>(kAbsent, kept), -1);
    EXPECT_EQ(kept, std::vector<MRect>(10, mark));
    EXPECT_EQ(s->readEntries<MRect>(kTag2, kept), 0);  // row without content
    EXPECT_EQ(kept, std::vector<MRect>(10, mark));

    // Another stored type: the right length, every element the empty value.
    std::vector<MRational> rationals(2, MRational(7, 7));
    EXPECT_EQ(s->readEntries<MRational>(kTag, rationals), 0);
    EXPECT_EQ(rationals, std::vector<MRational>(4, MRational(0, 1)));
}

//------------------------------------------------------------------------------------------
// Storage writers

TEST_F(StorageAccessTest, WriteEntryAppendsOneValueAndMarksItReadOnly) {
    s->writeEntry<int>(kTag, 7, 0xFFFFFFFFu);
    std::shared_ptr<Content> first = rowContent(*s, kTag);
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->isReadOnly());
    EXPECT_EQ(first->mType, NSCam::TYPE_INT32);
    EXPECT_EQ(first->mCount, 1);
    int v = 0;
    EXPECT_EQ(s->readEntry<int>(kTag, v), 0);
    EXPECT_EQ(v, 7);

    // A second write replaces the row's content; it does not merge into it.
    s->writeEntry<int>(kTag, 8);
    EXPECT_EQ(s->size(), 1u);
    std::shared_ptr<Content> second = rowContent(*s, kTag);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->mCount, 1);
    EXPECT_EQ(s->read(0, Type2Type<int>(), second), 8);
    EXPECT_EQ(s->read(0, Type2Type<int>(), first), 7);
    EXPECT_TRUE(contentErrors().empty());

    // An entry handle that edits the stored value works on a copy.
    Entry e(kTag, second);
    e.push_back(9, Type2Type<int>());
    EXPECT_EQ(second->mCount, 1);
}

TEST_F(StorageAccessTest, WriteEntryAtIndexZeroInstallsAnEmptyContent) {
    s->writeEntry<int>(kTag, 7, 0);
    EXPECT_EQ(contentErrors(), (std::vector<std::string>{"update:index (0) out of range (0)"}));
    std::shared_ptr<Content> c = rowContent(*s, kTag);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->mCount, 0);
    EXPECT_EQ(c->mType, -1);
    EXPECT_TRUE(c->isReadOnly());
    int v = 99;
    EXPECT_EQ(s->readEntry<int>(kTag, v), 0);
    EXPECT_EQ(v, 0);
    std::vector<int> vec(3, 99);
    EXPECT_EQ(s->readEntries<int>(kTag, vec), 0);  // a content of no values empties the vector
    EXPECT_TRUE(vec.empty());
}

TEST_F(StorageAccessTest, WriteEntriesOfNothingInstallsARowWithoutContent) {
    const double three[] = {0.5, -1.25, 3e10};
    s->writeEntries<double>(kTag, three, 3);
    std::shared_ptr<Content> c = rowContent(*s, kTag);
    ASSERT_TRUE(c);
    EXPECT_TRUE(c->isReadOnly());
    EXPECT_EQ(c->mType, NSCam::TYPE_DOUBLE);
    EXPECT_EQ(c->mCount, 3);
    std::vector<double> got;
    EXPECT_EQ(s->readEntries<double>(kTag, got), 0);
    EXPECT_EQ(got, std::vector<double>(three, three + 3));

    s->writeEntries<double>(kTag, three, 0);  // replaces the content by none
    s->writeEntries<double>(kTag2, nullptr, 0);
    EXPECT_EQ(s->size(), 2u);
    EXPECT_NE(s->mItemTable.getIndexByTag(kTag2), Storage::ItemTable::kNoRow);
    EXPECT_FALSE(rowContent(*s, kTag));
    EXPECT_FALSE(rowContent(*s, kTag2));
    EXPECT_EQ(c->mCount, 3);  // the old content, still held here, is untouched
}

TEST_F(StorageAccessTest, WriteFormsPassTheIndexToTheFreshContent) {
    const int two[] = {1, 2};
    std::shared_ptr<Content> one = s->write(5, Type2Type<int>(), 0);
    std::shared_ptr<Content> many = s->write(two, 2, Type2Type<int>(), 0);
    EXPECT_EQ(contentErrors(), (std::vector<std::string>{"update:index (0) out of range (0)",
                                                         "update:index (0) out of range (0)"}));
    for (const auto& c : {one, many}) {
        ASSERT_TRUE(c);
        EXPECT_EQ(c->mCount, 0);
        EXPECT_EQ(c->mType, -1);
    }
}

TEST_F(StorageAccessTest, WriteOfNoBlobsStillYieldsAnEmptyContent) {
    std::shared_ptr<Content> c = s->write(static_cast<const Memory*>(nullptr), 0,
                                          Type2Type<Memory>());
    ASSERT_TRUE(c);
    EXPECT_EQ(c->mCount, 0);
    EXPECT_EQ(c->mType, NSCam::TYPE_Memory);
    EXPECT_FALSE(c->isReadOnly());
    EXPECT_EQ(s->size(), 0u);
}

}  // namespace
