// ItemTable: slot map, swap-with-last removal, tags outside the map, copies that share rows,
// clear, the slot-array pool, and the table as it was after a failed allocation.
#include "ItemTable.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "AllocationProbe.h"
#include "MetadataInspector.h"

namespace {

using In = NSCam::MetadataInspector;
using Table = NSCam::IMetadata::Storage::ItemTable;
using Content = NSCam::IMetadata::Content;
using ContentSP = std::shared_ptr<Content>;
using Rows = std::vector<std::pair<uint32_t, const Content*>>;
const auto fresh = [] { return Content::make(); };

// The rows in order; every row is found under its own tag and the index holds no more.
Rows rowsOf(const Table& t) {
    Rows out;
    for (size_t r = 0; r < t.size(); ++r) {
        EXPECT_EQ(t.getIndexByTag(t.tagAt(r)), r) << std::hex << t.tagAt(r);
        out.emplace_back(t.tagAt(r), t.contentAt(r));
    }
    EXPECT_EQ(In::indexed(t), t.size());
    return out;
}
// A table of `n` rows: tags of group 9, section 0x100 (256 slots), row i holding value i.
void fill(Table& t, uint32_t n, std::vector<ContentSP>& held) {
    for (uint32_t i = 0; i < n; ++i) {
        held.push_back(fresh());
        t.update(0x91000000u + i, held.back());
    }
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

// {first, second, one row?}: groups 1-8 share slots; tags outside the map never alias. Both
// in a small table (rows looked at) and in one with a slot array.
TEST(ItemTableTest, SharedSlotsShareARowAndOutsideTagsNeverAlias) {
    const std::tuple<uint32_t, uint32_t, bool> cases[] = {
        {0x10010000, 0x80010000, true},
        {0x00050000, 0x00040006, false},  // past section 4
        {0x90000000, 0x10200000, false},
        {0xF0000000, 0xFFFFFFFE, false}};
    for (uint32_t before : {0u, 20u}) {
        for (const auto& [a, b, same] : cases) {
            SCOPED_TRACE(::testing::Message() << before << " " << std::hex << b);
            Table t;
            std::vector<ContentSP> held;
            fill(t, before, held);
            const ContentSP va = fresh(), vb = fresh();
            t.update(a, va);
            t.update(b, vb);
            EXPECT_EQ(t.size(), before + (same ? 1u : 2u));
            EXPECT_EQ(t.tagAt(before), a);  // a row keeps the tag it was made with
            EXPECT_EQ(t.contentAt(before), same ? vb.get() : va.get());
            rowsOf(t);
            EXPECT_TRUE(t.remove(b));
            EXPECT_EQ(t.getIndexByTag(a), same ? 0xFFFF : before);
            rowsOf(t);
        }
    }
}

TEST(ItemTableTest, RemovalMovesTheLastRowIntoTheHoleAndFixesItsIndex) {
    const uint32_t tags[] = {0x00010000, 0x00040006, 0x91040001, 0xFFFFFFFE, 0x10050001};
    for (uint32_t before : {0u, 20u}) {
        Table t;
        std::vector<ContentSP> held;
        for (uint32_t tag : tags) t.update(tag, fresh());
        fill(t, before, held);
        for (uint32_t i = 0; i < before; ++i) t.remove(0x91000000u + i);
        EXPECT_TRUE(t.remove(tags[1]));  // the last row, in the map, moves to row 1
        EXPECT_TRUE(t.remove(tags[0]));  // the last row, outside the map, moves to row 0
        const size_t left[] = {3, 4, 2};
        for (size_t r = 0; r < 3; ++r) EXPECT_EQ(t.tagAt(r), tags[left[r]]) << before;
        EXPECT_EQ(t.getIndexByTag(tags[1]), 0xFFFF);
        rowsOf(t);
    }
}

// Copies share rows and index; a change through either one is seen by that one only, also
// in rows a copy of a copy borrows, and in rows moved between chunks by a removal.
TEST(ItemTableTest, CopiesShareRowsUntilOneSideChangesThem) {
    Table a;
    std::vector<ContentSP> held;
    fill(a, 40, held);
    Table b, c;
    b = a;
    const ContentSP v = fresh();
    b.update(0x91000003, v);  // b copies one chunk
    c = b;
    c.remove(0x91000001);  // the last row (39) moves into row 1: across chunks
    c.update(0x00040006, v);
    const Rows ra = rowsOf(a), rb = rowsOf(b), rc = rowsOf(c);
    for (uint32_t i = 0; i < 40; ++i) {
        EXPECT_EQ(ra[i],
                  std::make_pair(0x91000000u + i, static_cast<const Content*>(held[i].get())));
        EXPECT_EQ(rb[i].second, i == 3 ? v.get() : held[i].get());
    }
    EXPECT_EQ(rc.size(), 40u);
    EXPECT_EQ(rc[1], std::make_pair(0x91000027u, static_cast<const Content*>(held[39].get())));
    EXPECT_EQ(rc[39], std::make_pair(0x00040006u, static_cast<const Content*>(v.get())));
    EXPECT_EQ(c.contentSPAt(1), held[39]);  // the owning reference moved along
    held.clear();
    a.clear();
    b.clear();
    EXPECT_EQ(c.contentSPAt(3), v);  // what c borrows outlives the tables it came from
    EXPECT_EQ(c.contentSPAt(2).use_count(), 2);
}

// Up to 130 rows the slots are reset one by one, above that by one fill.
TEST(ItemTableTest, ClearFreesEverySlotAndKeepsTheSlotArray) {
    for (uint32_t rows : {130u, 131u}) {
        Table t;
        std::vector<ContentSP> held;
        fill(t, rows - 1, held);
        t.update(0x00040006, fresh());  // and one outside the map
        const Table::Slots* slots = In::slots(t);
        t.clear();
        EXPECT_TRUE(t.size() == 0 && In::slots(t) == slots && In::indexed(t) == 0u) << rows;
        t.update(0x91000005, fresh());
        EXPECT_EQ(rowsOf(t).size(), 1u);
    }
}

TEST(BufferPoolTest, ANewTableReusesADestroyedOnesSlotArrayAndEachHalfKeepsEighty) {
    std::vector<ContentSP> held;
    auto a = std::make_unique<Table>();
    fill(*a, 20, held);
    const Table::Slots* slots = In::slots(*a);
    a.reset();
    Table b;
    fill(b, 17, held);
    EXPECT_EQ(In::slots(b), slots);
    EXPECT_EQ(In::indexed(b), 17u);  // handed out clean
    std::vector<std::unique_ptr<Table>> tables(170);
    for (auto& t : tables) fill(*(t = std::make_unique<Table>()), 17, held);
    tables.clear();  // the 161st and later find both halves full: freed
    for (int half = 0; half < 2; ++half) EXPECT_EQ(Table::sBufferQueue.pooled(half), 80u);
}

// An allocation failure anywhere inside an insertion, a removal, a copy or a replacement
// leaves the table exactly as it was.
TEST(ItemTableTest, AFailedAllocationLeavesTheTableAsItWas) {
    const std::function<void(Table&)> ops[] = {
        [](Table& t) { t.update(0x7F000002, fresh()); },  // a new side entry
        [](Table& t) { t.update(0x00030000, fresh()); },  // a new slot entry or row
        [](Table& t) { t.update(0x91000002, fresh()); },  // a replacement in a shared chunk
        [](Table& t) { t.remove(0x91000001); },           // a removal across chunks
        [](Table& t) { t = Table(); }};
    for (uint32_t rows : {15u, 16u, 32u, 64u}) {  // chunk, slot-array and directory edges
        for (size_t op = 0; op < std::size(ops); ++op) {
            for (size_t fail = 1;; ++fail) {
                Table t, other;
                std::vector<ContentSP> held;
                fill(t, rows, held);
                t.update(0x7F000001, fresh());
                other = t;  // shares every chunk and the slot array
                const Rows before = rowsOf(t);
                zorcam_test::failAllocation(fail);
                bool threw = false;
                try {
                    ops[op](t);
                } catch (const std::bad_alloc&) {
                    threw = true;
                }
                zorcam_test::failAllocation(0);
                EXPECT_EQ(rowsOf(other), before);
                if (!threw) break;  // every allocation of the operation has failed once
                EXPECT_EQ(rowsOf(t), before) << rows << " " << op << " " << fail;
            }
        }
    }
}

}  // namespace
