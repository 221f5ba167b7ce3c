// One-call typed access: IMetadata::setEntry / getEntry and the storage read / write families.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include "Content.h"
#include "Flat.h"
#include "RecordingLogger.h"
#include "Values.h"
#include "Storage.h"

namespace {

using namespace NSCam;
using zorcam_test::expectSame;
using zorcam_test::flat;
using zorcam_test::same;
using zorcam_test::sample;
using Memory = IMetadata::Memory;
using Storage = IMetadata::Storage;
using Texts = std::vector<std::string>;
constexpr uint32_t kTag = 0x10001, kTag2 = 0x10002, kAbsent = 0x10030;

auto rowContent(const Storage& s, uint32_t tag) {
    const uint16_t row = NSCam::tableOf(s).getIndexByTag(tag);
    return row == Storage::ItemTable::kNoRow ? nullptr : NSCam::tableOf(s).contentSPAt(row);
}

template <typename T>
class TypedAccessTest : public zorcam_test::LoggerTest {};
TYPED_TEST_SUITE(TypedAccessTest, zorcam_test::ValueTypes);

TYPED_TEST(TypedAccessTest, RoundTripsIndexBoundsAndIsolation) {
    using T = TypeParam;
    const T a = sample<T>(0), b = sample<T>(1), many[] = {a, b, a};
    IMetadata m;
    ASSERT_EQ(IMetadata::setEntry<T>(&m, kTag, a), 0);
    ASSERT_EQ(IMetadata::setEntry<T>(&m, kTag, b), 0);
    m.burstWrite([&](IMetadata::BurstEntry& s) { s.writeEntries<T>(kTag2, many, 3); });
    EXPECT_TRUE(rowContent(*m.getStorageSP(), kTag2)->isReadOnly());
    const std::vector<uint8_t> before = flat(m);
    T out = b, kept = a;
    std::vector<T> all(5, b), small(1, b), untouched(2, b);
    std::vector<int> said;  // what each read answers: two absent tags, then three found
    EXPECT_EQ(m.burstRead([&](const IMetadata::BurstEntry& s) {
        said = {s.readEntry<T>(kAbsent, out), s.readEntries<T>(kAbsent, untouched),
                s.readEntry<T>(kTag, kept), s.readEntries<T>(kTag2, all),
                s.readEntries<T>(kTag2, small)};
        return -3;
    }),
              -3);  // the callback's own answer
    EXPECT_EQ(said, std::vector<int>({-1, -1, 0, 0, 0}));
    EXPECT_TRUE(same(out, b));
    EXPECT_TRUE(same(kept, b));
    ASSERT_EQ(untouched.size(), 2u);
    EXPECT_TRUE(same(untouched[1], b));
    expectSame(all, {many, many + 3});
    expectSame(small, {many, many + 3});
    // The index is compared in full: cut to 32 bits, (1 << 32) + 2 would read element 2.
    EXPECT_FALSE(IMetadata::getEntry<T>(&m, kTag2, kept, 3));
    EXPECT_FALSE(IMetadata::getEntry<T>(&m, kTag2, kept, (1ul << 32) + 2));
    EXPECT_FALSE(IMetadata::getEntry<T>(&m, kAbsent, kept));
    EXPECT_FALSE(IMetadata::getEntry<T>(nullptr, kTag, kept));
    EXPECT_TRUE(same(kept, b));
    EXPECT_TRUE(IMetadata::getEntry<T>(&m, kTag2, out, 2));
    EXPECT_TRUE(same(out, a));
    EXPECT_EQ(IMetadata::setEntry<T>(nullptr, kTag, a), -1);
    // Edits through values read out, and burst writes after a copy, stay private.
    if constexpr (std::is_same<T, Memory>::value) out.editArray()[0] = kept.editArray()[0] = 0xEE;
    if constexpr (std::is_same<T, IMetadata>::value) out += sample<T>(9), kept += sample<T>(9);
    const IMetadata copy(m);
    m.burstWrite([&](IMetadata::BurstEntry& s) { s.writeEntry<T>(kTag, a); });
    EXPECT_EQ(flat(copy), before);
    ASSERT_EQ(IMetadata::setEntry<float>(&m, kTag2, 1.5f), 0);  // three values replaced by one
    const IMetadata::IEntry f = m.entryFor(kTag2);
    EXPECT_EQ(f.count(), 1u);
    EXPECT_EQ(f.itemAt(0, Type2Type<float>()), 1.5f);
    // The write forms give a writable content and install nothing.
    auto s = std::make_shared<Storage>();
    auto c1 = s->write(a, Type2Type<T>()), c2 = s->write(many + 1, 2, Type2Type<T>());
    EXPECT_EQ(s->size(), 0u);
    EXPECT_FALSE(c1->isReadOnly());
    EXPECT_FALSE(c2->isReadOnly());
    EXPECT_TRUE(same(s->read(0, Type2Type<T>(), c1), a));
    EXPECT_TRUE(same(s->read(1, Type2Type<T>(), c2), a));
    EXPECT_TRUE(same(s->read(2, Type2Type<T>(), c2), T()));  // past the values
}

using AccessTest = zorcam_test::LoggerTest;

// What the storage layer reports: a read past the values (which gives the type's default, a
// rational's 0/1) and a write at an index that fresh values do not have.
TEST_F(AccessTest, StorageReadsAndWritesPastTheValuesAreReported) {
    auto s = std::make_shared<Storage>();
    int v = 99, two[] = {4, 5};
    MRational r(7, 7);
    s->writeEntries<int>(kTag, two, 2);
    s->writeEntry<MRational>(kAbsent + 1, MRational(3, 4));
    EXPECT_EQ(s->readEntry<int>(kTag, v, 5), 0);
    EXPECT_EQ(s->readEntry<MRational>(kAbsent + 1, r, 1), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(r, MRational(0, 1));
    EXPECT_EQ(log.take(), (Texts{"getBasicData:index (5) out of range (2)",
                                 "getBasicData:index (1) out of range (1)"}));
    s->writeEntry<int>(kTag, 7, 0xFFFFFFFFu);  // index -1 appends: one 7, marked shared
    EXPECT_TRUE(rowContent(*s, kTag)->isReadOnly());
    EXPECT_EQ(s->readEntry<int>(kTag, v), 0);
    EXPECT_EQ(v, 7);
    s->writeEntry<int>(kTag2, 7, 0);
    EXPECT_EQ(s->write(&v, 1, Type2Type<int>(), 0)->mCount, 0);  // the write forms alike
    EXPECT_EQ(log.take(), Texts(2, "update:index (0) out of range (0)"));
}

}  // namespace
