// ItemTable: slot map, swap-with-last removal, tags outside the map, clear, buffer pool.
#include "ItemTable.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "AllocationProbe.h"

#include "Content.h"

namespace NSCam {
struct MetadataInspector {
    using Table = IMetadata::Storage::ItemTable;
    static std::vector<uint16_t> slots(const Table& t) { return {t.mSlots, t.mSlots + 1610}; }
    static const uint16_t* slotArray(const Table& t) { return t.mSlots; }
    static size_t outside(const Table& t) { return t.mOutside.size(); }
};
}  // namespace NSCam

namespace {

using In = NSCam::MetadataInspector;
using Table = NSCam::IMetadata::Storage::ItemTable;
using ContentSP = std::shared_ptr<NSCam::IMetadata::Content>;
const std::vector<uint16_t> kFree(1610, 0xFFFF);
const auto fresh = [] { return std::make_shared<NSCam::IMetadata::Content>(); };

// Every row is found under its own tag, and no slot or side entry is set beyond the rows.
void expectConsistent(const Table& t) {
    size_t set = In::outside(t);
    for (uint16_t s : In::slots(t)) set += s != 0xFFFF;
    EXPECT_EQ(set, t.size());
    for (size_t r = 0; r < t.size(); ++r) EXPECT_EQ(t.getIndexByTag(t.at(r).tag), r);
}

// One owner per slot among the groups with their own bases (1-8, 10-12, 13-15 share one).
TEST(SlotMapTest, EverySlotHasExactlyOneTag) {
    std::vector<int> hits(1611, 0);  // hits[0] counts the tags outside the map
    for (uint32_t group : {0u, 1u, 9u, 10u, 13u})
        for (uint32_t section = 0; section < 0x110; ++section)
            for (uint32_t index = 0; index < 300; ++index)
                ++hits.at(NSCam::slotmap::slotOf(group << 28 | section << 16 | index) + 1);
    EXPECT_EQ(std::vector<int>(hits.begin() + 1, hits.end()), std::vector<int>(1610, 1));
}

// {first, second, one row?}: groups 1-8 share slots; tags outside the map never alias.
TEST(ItemTableTest, SharedSlotsShareARowAndOutsideTagsNeverAlias) {
    const std::tuple<uint32_t, uint32_t, bool> cases[] = {
        {0x10010000, 0x80010000, true},
        {0x00050000, 0x00040006, false},  // past section 4
        {0x90000000, 0x10200000, false},
        {0xF0000000, 0xFFFFFFFE, false}};
    for (const auto& [a, b, same] : cases) {
        Table t;
        const ContentSP va = fresh(), vb = fresh();
        t.update(a, va);
        t.update(b, vb);
        EXPECT_EQ(t.size(), same ? 1u : 2u) << b;
        EXPECT_EQ(t.at(0).tag, a);  // a row keeps the tag it was made with
        EXPECT_EQ(t.at(0).content, same ? vb : va);
        expectConsistent(t);
        EXPECT_TRUE(t.remove(b));
        EXPECT_EQ(t.getIndexByTag(a), same ? 0xFFFF : 0);
        expectConsistent(t);
    }
}

TEST(ItemTableTest, RemovalMovesTheLastRowIntoTheHoleAndFixesItsIndex) {
    const uint32_t tags[] = {0x00010000, 0x00040006, 0x91040001, 0xFFFFFFFE, 0x10050001};
    Table t;
    for (uint32_t tag : tags) t.update(tag, fresh());
    EXPECT_TRUE(t.remove(tags[1]));  // the last row, in the map, moves to row 1
    EXPECT_TRUE(t.remove(tags[0]));  // the last row, outside the map, moves to row 0
    const size_t left[] = {3, 4, 2};
    for (size_t r = 0; r < 3; ++r) EXPECT_EQ(t.at(r).tag, tags[left[r]]);
    EXPECT_EQ(t.getIndexByTag(tags[1]), 0xFFFF);
    expectConsistent(t);
}

// Up to 130 rows the slots are reset one by one, above that by one fill.
TEST(ItemTableTest, ClearFreesEverySlotAndKeepsTheCapacity) {
    for (uint32_t rows : {130u, 131u}) {
        Table t;
        for (uint32_t i = 0; i + 1 < rows; ++i) t.update(0x91000000u + i, fresh());
        t.update(0x00040006, fresh());  // and one outside the map
        const size_t capacity = t.items().capacity();
        t.clear();
        EXPECT_EQ(In::slots(t), kFree) << rows;
        EXPECT_EQ(In::outside(t) + t.size(), 0u);
        EXPECT_EQ(t.items().capacity(), capacity);
    }
}

TEST(BufferPoolTest, ANewTableReusesADestroyedOnesBuffersAndEachHalfKeepsEighty) {
    auto a = std::make_unique<Table>();
    for (uint32_t i = 0; i < 200; ++i) a->update(0x91000000u + i, nullptr);
    const std::pair<const uint16_t*, size_t> buffers{In::slotArray(*a), a->items().capacity()};
    a.reset();
    const Table b;
    EXPECT_EQ(std::make_pair(In::slotArray(b), b.items().capacity()), buffers);
    EXPECT_EQ(In::slots(b), kFree);
    std::vector<std::unique_ptr<Table>> tables(170);
    for (auto& t : tables) t = std::make_unique<Table>();
    for (auto& t : tables) t.reset();  // the 161st and later find both halves full: freed
    const auto& q = Table::sBufferQueue;
    for (int half = 0; half < 2; ++half) {
        EXPECT_EQ(q.pairs(half), 80u);
        EXPECT_EQ(q.mSlotArrays[half].size(), 80u);
        EXPECT_EQ(q.mHolders[half].size(), 80u);
    }
}

// An allocation failure anywhere inside an insertion, a removal or a construction leaves the
// table exactly as it was (and a constructor that fails leaks nothing).
TEST(ItemTableTest, AFailedAllocationLeavesTheTableAsItWas) {
    const uint32_t kept[] = {0x00010000, 0x00040006, 0x7F000001, 0x00020003};
    const std::vector<ContentSP> values = {fresh(), fresh(), fresh(), fresh(), fresh()};
    auto rows = [](const Table& t) {
        std::vector<std::pair<uint32_t, const void*>> out;
        for (size_t r = 0; r < t.size(); ++r) {
            EXPECT_EQ(t.getIndexByTag(t.at(r).tag), r);
            out.emplace_back(t.at(r).tag, t.at(r).content.get());
        }
        return out;
    };
    const std::function<void(Table&)> ops[] = {
        [&](Table& t) { t.update(0x7F000002, values[4]); },  // a new side entry
        [&](Table& t) { t.update(0x00030000, values[4]); },  // a new slot entry
        [&](Table& t) { t.remove(0x00010000); },             // moves a side entry's row
        [&](Table& t) { t = Table(); }};
    for (size_t op = 0; op < std::size(ops); ++op) {
        for (size_t fail = 1;; ++fail) {
            Table t;
            for (size_t i = 0; i < std::size(kept); ++i) t.update(kept[i], values[i]);
            // A full row buffer, so that a new row must grow it.
            for (uint32_t i = 0; t.size() < t.items().capacity(); ++i)
                t.update(0x91000000u + i, nullptr);
            const auto before = rows(t);
            zorcam_test::failAllocation(fail);
            bool threw = false;
            try {
                ops[op](t);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            zorcam_test::failAllocation(0);
            if (!threw) break;  // every allocation of the operation has failed once
            EXPECT_EQ(rows(t), before) << op << " " << fail;
            expectConsistent(t);
        }
    }
}

}  // namespace
