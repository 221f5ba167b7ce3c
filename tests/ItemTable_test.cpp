// IMetadata::Storage::ItemTable: the slot map, rows in insertion order with swap-with-last
// removal, tags outside the map, and the two-half pool of row buffers and slot arrays.
#include "ItemTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Content.h"

namespace NSCam {
struct MetadataInspector {
    using Table = IMetadata::Storage::ItemTable;
    static const uint16_t* slots(const Table& t) { return t.mSlots; }
    static const std::unordered_map<uint32_t, uint16_t>& outside(const Table& t) {
        return t.mOutside;
    }
    static size_t capacity(const Table& t) { return t.mItems.capacity(); }
};
}  // namespace NSCam

namespace {

using NSCam::MetadataInspector;
using Table = NSCam::IMetadata::Storage::ItemTable;
using Content = NSCam::IMetadata::Content;
using ContentSP = std::shared_ptr<Content>;
constexpr uint16_t kNoRow = 0xFFFF;
constexpr uint32_t kSlots = 1610;

ContentSP value(int v) {
    auto c = std::make_shared<Content>();
    c->update(-1, &v, 1, NSCam::TYPE_INT32);
    return c;
}

std::vector<uint16_t> slotArray(const Table& t) {
    const uint16_t* s = MetadataInspector::slots(t);
    return std::vector<uint16_t>(s, s + kSlots);
}

// Every row is found under its own tag; every slot and side-index entry names a row whose
// tag leads back to it; nothing else is set.
void expectConsistent(const Table& t) {
    size_t slotted = 0;
    const std::vector<uint16_t> s = slotArray(t);
    for (uint32_t i = 0; i < kSlots; ++i) {
        if (s[i] == kNoRow) continue;
        ++slotted;
        ASSERT_LT(s[i], t.size()) << "slot " << i;
        EXPECT_EQ(NSCam::slotmap::slotOf(t.at(s[i]).tag), i) << "slot " << i;
    }
    for (const auto& [tag, row] : MetadataInspector::outside(t)) {
        ASSERT_LT(row, t.size());
        EXPECT_EQ(t.at(row).tag, tag);
        EXPECT_EQ(NSCam::slotmap::slotOf(tag), NSCam::slotmap::kNone);
    }
    EXPECT_EQ(slotted + MetadataInspector::outside(t).size(), t.size());
    for (size_t r = 0; r < t.size(); ++r) EXPECT_EQ(t.getIndexByTag(t.at(r).tag), r);
}

std::vector<uint32_t> tagsOf(const Table& t) {
    std::vector<uint32_t> tags;
    for (const auto& item : t.items()) tags.push_back(item.tag);
    return tags;
}

//------------------------------------------------------------------------------------------
// Slot map

// The section starts as the camera stack assigns them, written out independently of the
// library's table. Each section owns the slots up to the next-higher start of any section.
uint32_t referenceSlot(uint32_t tag) {
    static const std::map<uint32_t, std::vector<uint32_t>> starts = {
        {0, {0,   5,   64,  65,  68,  74,  78,  80,  90,  106, 114, 117,
             122, 144, 183, 217, 240, 243, 268, 277, 285, 287, 291, 292,
             294, 296, 311, 314, 316, 322, 324, 325, ~0u, 326, 463, 174}},
        {1, {332, 356, 395, 358, 405, 413, 415, 374, 379, 467, 488, 505, 551, 554, 559, 567,
             579, 580, 583, 588, 573, 598, 603, 614, 620, 622, 629, 630, 632, 625, 639, 647}},
        {10, {779,  800,  830,  842,  944,  ~0u,  945,  953,  1000, 1006, 1009,
              1014, 1024, 1029, 1030, 1038, 1039, 1041, 1081, 1083, 1109}},
        {13, {649, 713, 720, 755, 761, 763, 769, 778}},
    };
    static const std::map<uint32_t, uint32_t> group9 = {{0x000, 1147}, {0x001, 1149}, {0x002, 1150},
                                                        {0x100, 1151}, {0x101, 1407}, {0x102, 1591},
                                                        {0x104, 1608}};
    static const std::set<uint32_t> all = [] {
        std::set<uint32_t> s{kSlots};
        for (const auto& [g, v] : starts) s.insert(v.begin(), v.end());
        for (const auto& [sec, st] : group9) s.insert(st);
        return s;
    }();
    const uint32_t group = tag >> 28, section = (tag >> 16) & 0xFFF, index = tag & 0xFFFF;
    uint32_t start = ~0u;
    if (group == 9) {
        const auto it = group9.find(section);
        if (it != group9.end()) start = it->second;
    } else {
        const uint32_t rep = group == 0 ? 0 : group <= 8 ? 1 : group <= 12 ? 10 : 13;
        const std::vector<uint32_t>& v = starts.at(rep);
        if (section < v.size()) start = v[section];
    }
    if (start == ~0u) return ~0u;
    const uint32_t count = *all.upper_bound(start) - start;
    return index < count ? start + index : ~0u;
}

TEST(SlotMapTest, EverySlotBelongsToExactlyOneKnownTagAndNoOtherTagHasOne) {
    // One representative group per shared base; groups sharing a base share every slot.
    std::vector<int> hits(kSlots, 0);
    for (uint32_t group = 0; group < 16; ++group) {
        for (uint32_t section = 0; section < 0x110; ++section) {
            for (uint32_t index = 0; index < 300; ++index) {
                const uint32_t tag = (group << 28) | (section << 16) | index;
                const uint32_t slot = NSCam::slotmap::slotOf(tag);
                ASSERT_EQ(slot, referenceSlot(tag)) << std::hex << tag;
                if (slot != ~0u &&
                    (group == 0 || group == 1 || group == 9 || group == 10 || group == 13))
                    ++hits[slot];
            }
        }
        for (uint32_t tag : {(group << 28) | 0x0FFF0000u, (group << 28) | 0x0000FFFFu})
            EXPECT_EQ(NSCam::slotmap::slotOf(tag), referenceSlot(tag)) << std::hex << tag;
    }
    EXPECT_EQ(std::count(hits.begin(), hits.end(), 1), static_cast<long>(kSlots));
    EXPECT_EQ(NSCam::slotmap::slotOf(0x10010000), NSCam::slotmap::slotOf(0x80010000));
    EXPECT_EQ(NSCam::slotmap::slotOf(0xFFFFFFFE), ~0u);
}

//------------------------------------------------------------------------------------------
// Rows

TEST(ItemTableTest, GroupsOneToEightAddressOneRow) {
    Table t;
    const ContentSP a = value(1), b = value(2);
    t.update(0x10010000, a);
    t.update(0x80010000, b);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t.at(0).tag, 0x10010000u);  // the row keeps the tag it was made with
    EXPECT_EQ(t.at(0).content, b);
    EXPECT_EQ(a.use_count(), 1);
    EXPECT_EQ(t.getIndexByTag(0x50010000), 0);
    EXPECT_TRUE(t.remove(0x80010000));
    EXPECT_EQ(t.size(), 0u);
    EXPECT_EQ(t.getIndexByTag(0x10010000), kNoRow);
    expectConsistent(t);
}

// In the map, outside it, and mixed: removal moves the last row into the hole.
class RemovalTest : public ::testing::TestWithParam<std::vector<uint32_t>> {};

TEST_P(RemovalTest, LastRowMovesIntoTheHoleAndKeepsBeingFound) {
    const std::vector<uint32_t> tags = GetParam();  // five tags
    Table t;
    std::vector<ContentSP> values;
    for (size_t i = 0; i < tags.size(); ++i) {
        values.push_back(value(static_cast<int>(i)));
        ASSERT_TRUE(t.update(tags[i], values.back()));
    }
    const std::vector<uint16_t> before = slotArray(t);
    EXPECT_FALSE(t.remove(0x00000004));  // absent: nothing moves
    EXPECT_EQ(tagsOf(t), tags);
    EXPECT_EQ(slotArray(t), before);

    EXPECT_TRUE(t.remove(tags[1]));
    EXPECT_EQ(tagsOf(t), (std::vector<uint32_t>{tags[0], tags[4], tags[2], tags[3]}));
    EXPECT_EQ(t.getIndexByTag(tags[4]), 1);
    EXPECT_EQ(t.at(1).content, values[4]);
    EXPECT_EQ(t.getIndexByTag(tags[1]), kNoRow);
    EXPECT_EQ(values[1].use_count(), 1);  // the removed row let go of its values
    expectConsistent(t);

    EXPECT_TRUE(t.remove(tags[3]));  // the last row: nothing moves
    EXPECT_EQ(tagsOf(t), (std::vector<uint32_t>{tags[0], tags[4], tags[2]}));
    EXPECT_FALSE(t.remove(tags[3]));

    // Updating an existing tag keeps its row; only the values change.
    const ContentSP fresh = value(99);
    t.update(NSCam::IMetadata::Storage::Item{tags[4], fresh});
    EXPECT_EQ(t.getIndexByTag(tags[4]), 1);
    EXPECT_EQ(t.at(1).content, fresh);
    EXPECT_EQ(values[4].use_count(), 1);
    expectConsistent(t);
}

INSTANTIATE_TEST_SUITE_P(TagKinds, RemovalTest,
                         ::testing::Values(std::vector<uint32_t>{0x00010000, 0x00230001, 0x10050002,
                                                                 0x91040001, 0xF0070000},
                                           std::vector<uint32_t>{0x00040006, 0x00200000, 0x91030000,
                                                                 0xFFFFFFFE, 0x7FFF1234},
                                           std::vector<uint32_t>{0x00050000, 0x00040006, 0x90000000,
                                                                 0x10200000, 0xC0140005}));

// Tags past the map are stored on their own and never land on a known tag's row, even those
// that an unchecked slot computation would send there.
TEST(ItemTableTest, TagsOutsideTheMapNeverAliasKnownTags) {
    const std::pair<uint32_t, uint32_t> pairs[] = {
        {0x00040006, 0x00050000},  // past section 4 of group 0: would hit section 5's slot
        {0x00220004, 0x10090000},  // past the last group-0 section
        {0x10200000, 0x90000000},  // section beyond groups 1-8: would read group 9's starts
        {0x90020001, 0x91000000},  // past a one-slot section of group 9
        {0x00200000, 0x00210000},  // section without a start
        {0x91030000, 0x91040000},  // group 9 section 0x103 has no start
        {0xFFFFFFFE, 0xF0000000},  // section far beyond group 15's range
    };
    for (const auto& [outside, known] : pairs) {
        SCOPED_TRACE(::testing::Message() << std::hex << outside << " vs " << known);
        Table t;
        const ContentSP k = value(1), o = value(2);
        t.update(known, k);
        const std::vector<uint16_t> slotsWithKnown = slotArray(t);
        t.update(outside, o);
        EXPECT_EQ(slotArray(t), slotsWithKnown);
        ASSERT_EQ(t.size(), 2u);
        EXPECT_EQ(t.getIndexByTag(known), 0);
        EXPECT_EQ(t.getIndexByTag(outside), 1);
        EXPECT_EQ(t.at(0).content, k);
        expectConsistent(t);
        EXPECT_TRUE(t.remove(outside));
        EXPECT_EQ(t.getIndexByTag(outside), kNoRow);
        EXPECT_EQ(t.getIndexByTag(known), 0);
        EXPECT_TRUE(t.remove(known));
        EXPECT_TRUE(MetadataInspector::outside(t).empty());
        expectConsistent(t);
    }
}

class ClearTest : public ::testing::TestWithParam<int> {};

// Up to 130 rows the slots are reset one by one, above that by one fill: either way every
// slot reads 0xFFFF afterwards and the row buffer keeps its capacity.
TEST_P(ClearTest, EverySlotIsFreeAfterwards) {
    const int rows = GetParam();
    Table t;
    for (int i = 0; i < rows; ++i) t.update(0x91000000u + static_cast<uint32_t>(i), value(i));
    t.update(0x00040006, value(-1));  // one outside the map as well
    const size_t capacity = MetadataInspector::capacity(t);
    t.clear();
    EXPECT_EQ(t.size(), 0u);
    EXPECT_EQ(MetadataInspector::capacity(t), capacity);
    EXPECT_TRUE(MetadataInspector::outside(t).empty());
    EXPECT_EQ(slotArray(t), std::vector<uint16_t>(kSlots, kNoRow));
    EXPECT_EQ(t.getIndexByTag(0x00040006), kNoRow);
}
INSTANTIATE_TEST_SUITE_P(Rows, ClearTest, ::testing::Values(0, 1, 129, 130, 131, 255));

TEST(ItemTableTest, AssignmentCopiesRowsAndIndexAndSharesValues) {
    Table a, b;
    a.update(0x00010000, value(1));
    a.update(0x00040006, value(2));
    a.update(0x10050000, value(3));
    b.update(0x00020000, value(4));  // replaced wholesale
    b = a;
    EXPECT_EQ(tagsOf(b), tagsOf(a));
    EXPECT_EQ(slotArray(b), slotArray(a));
    EXPECT_NE(MetadataInspector::slots(b), MetadataInspector::slots(a));
    for (size_t r = 0; r < a.size(); ++r) EXPECT_EQ(b.at(r).content, a.at(r).content);
    EXPECT_EQ(b.getIndexByTag(0x00020000), kNoRow);
    expectConsistent(b);
    // The two tables are independent afterwards.
    a.remove(0x00010000);
    a.update(0x00200000, value(5));
    EXPECT_EQ(tagsOf(b), (std::vector<uint32_t>{0x00010000, 0x00040006, 0x10050000}));
    expectConsistent(b);
    b = b;
    EXPECT_EQ(b.size(), 3u);
    expectConsistent(b);
}

TEST(ItemTableTest, RowsStopAtTheLimitAndKnownTagsStillUpdate) {
    Table t;
    const ContentSP v = value(0);
    for (uint32_t i = 0; i < Table::kMaxRows; ++i) ASSERT_TRUE(t.update(0xFFF00000u | i, v));
    EXPECT_FALSE(t.update(0x00010000, v));
    EXPECT_FALSE(t.update(0xEEEE0000, v));
    EXPECT_EQ(t.size(), Table::kMaxRows);
    EXPECT_TRUE(t.update(0xFFF00000u, value(1)));  // a replacement is not a new row
    EXPECT_EQ(t.getIndexByTag(0xFFF07FFEu), Table::kMaxRows - 1);
    EXPECT_TRUE(t.remove(0xFFF00000u));
    EXPECT_EQ(t.getIndexByTag(0xFFF07FFEu), 0);
    EXPECT_TRUE(t.update(0x00010000, v));
}

//------------------------------------------------------------------------------------------
// Pool

size_t pooled() {
    return Table::sBufferQueue.pairs(0) + Table::sBufferQueue.pairs(1);
}

TEST(BufferPoolTest, ANewTableReusesTheLastDestroyedTablesBuffers) {
    const uint16_t* slots = nullptr;
    size_t capacity = 0;
    {
        Table a;
        for (uint32_t i = 0; i < 200; ++i) a.update(0x91000000u + i, value(1));
        slots = MetadataInspector::slots(a);
        capacity = MetadataInspector::capacity(a);
    }
    const size_t inPool = pooled();
    Table b;
    EXPECT_EQ(MetadataInspector::slots(b), slots);
    EXPECT_EQ(MetadataInspector::capacity(b), capacity);
    EXPECT_EQ(pooled(), inPool - 1);
    EXPECT_EQ(b.size(), 0u);
    EXPECT_EQ(slotArray(b), std::vector<uint16_t>(kSlots, kNoRow));
}

TEST(BufferPoolTest, HalvesKeepEightyPairsEachAndFreeTheRest) {
    auto& q = Table::sBufferQueue;
    std::vector<std::unique_ptr<Table>> tables;
    std::vector<const uint16_t*> slots;
    for (int i = 0; i < 170; ++i) {
        tables.push_back(std::make_unique<Table>());
        tables.back()->update(0x00010000, value(i));
        slots.push_back(MetadataInspector::slots(*tables.back()));
    }
    EXPECT_EQ(pooled(), 0u);
    for (auto& t : tables) t.reset();  // the 161st and later find both halves full
    for (int half = 0; half < 2; ++half) {
        EXPECT_EQ(q.pairs(half), 80u);
        EXPECT_EQ(q.mSlotArrays[half].size(), 80u);
        EXPECT_EQ(q.mHolders[half].size(), 80u);
        EXPECT_EQ(q.mLocks[half].load(), 0);
    }
    std::set<const uint16_t*> inPool;
    for (int half = 0; half < 2; ++half)
        for (const uint16_t* s : q.mSlotArrays[half]) {
            inPool.insert(s);
            EXPECT_EQ(std::vector<uint16_t>(s, s + kSlots), std::vector<uint16_t>(kSlots, kNoRow));
        }
    EXPECT_EQ(inPool, std::set<const uint16_t*>(slots.begin(), slots.begin() + 160));
    // The halves are filled alternately: the first two destroyed sit at the bottom.
    EXPECT_EQ(q.mSlotArrays[0].front(), slots[0]);
    EXPECT_EQ(q.mSlotArrays[1].front(), slots[1]);
}

}  // namespace
