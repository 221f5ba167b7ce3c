// ItemTable: the slot map, clear, and the table as it was after a failed allocation. (Rows,
// slot sharers, the side index and copies sharing chunks are checked step by step by the
// operations fuzz target, whose corpus runs under ctest.)
#include "ItemTable.h"

#include <gtest/gtest.h>

#include <functional>

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

// A cleared table holds no row and no index entry, and takes rows again.
TEST(ItemTableTest, ClearFreesEveryRowAndIndexEntry) {
    for (uint32_t rows : {16u, 131u}) {
        Table t;
        std::vector<ContentSP> held;
        fill(t, rows - 1, held);
        t.update(0x00040006, fresh());  // and one outside the map
        t.clear();
        EXPECT_EQ(t.size(), 0u);
        EXPECT_EQ(In::indexed(t), 0u) << rows;
        t.update(0x91000005, fresh());
        EXPECT_EQ(rowsOf(t).size(), 1u);
    }
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

// Copies of copies share a directory, then borrow the chunks of the one they were copied from
// (a few levels deep), then own references to them: whichever goes first, every copy keeps its
// own rows, and what it borrows or shares is not released under it (a sanitizer build sees a
// chunk released too early, a leak checker one never released).
TEST(ItemTableTest, CopiesOfCopiesKeepTheirRowsWhicheverGoesFirst) {
    using Value = std::pair<uint32_t, int32_t>;  // tag, type of its values
    auto rowsOfTypes = [](const Table& t) {
        std::vector<Value> out;
        for (size_t r = 0; r < t.size(); ++r) out.emplace_back(t.tagAt(r), t.contentAt(r)->mType);
        return out;
    };
    for (int order = 0; order < 2; ++order) {
        std::vector<std::unique_ptr<Table>> tables;
        std::vector<std::vector<Value>> want;
        tables.push_back(std::make_unique<Table>());
        std::vector<ContentSP> held;
        fill(*tables[0], 40, held);
        for (int level = 1; level <= 5; ++level) {
            tables.push_back(std::make_unique<Table>());
            *tables[level] = *tables[level - 1];
            // A value of another type in one chunk, a new row in another, a removal in a third.
            ContentSP c = Content::make();
            c->update(-1, &level, 1, NSCam::TYPE_INT32);
            c->markReadOnly();
            tables[level]->update(0x91000000u + static_cast<uint32_t>(level), c);
            tables[level]->update(0x7F000000u + static_cast<uint32_t>(level), fresh());
            tables[level]->remove(0x91000000u + 20 + static_cast<uint32_t>(level));
        }
        for (const auto& t : tables) want.push_back(rowsOfTypes(*t));
        for (size_t i = 0; i < tables.size(); ++i) {
            const size_t gone = order == 0 ? i : tables.size() - 1 - i;
            tables[gone].reset();
            for (size_t j = 0; j < tables.size(); ++j) {
                if (!tables[j]) continue;
                EXPECT_EQ(rowsOfTypes(*tables[j]), want[j]) << order << " " << j;
            }
        }
    }
}

}  // namespace
