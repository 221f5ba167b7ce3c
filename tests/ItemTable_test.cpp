// ItemTable: the slot map, clear, and the table as it was after a failed allocation. (Rows,
// slot sharers, the side index and copies sharing chunks are checked step by step by the
// operations fuzz target, whose corpus runs under ctest.)
#include "ItemTable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>

#include "AllocationProbe.h"
#include "Flat.h"
#include "MetadataInspector.h"
#include "Storage.h"

namespace {

using In = NSCam::MetadataInspector;
using Table = NSCam::IMetadata::Storage::ItemTable;
using Content = NSCam::IMetadata::Content;
using ContentSP = std::shared_ptr<Content>;
using Rows = std::vector<std::pair<uint32_t, const Content*>>;
const auto fresh = [] { return std::make_shared<Content>(); };

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
// own rows, and what it borrows or shares is neither written under another copy nor released
// under it (a sanitizer build sees a chunk released too early, a leak checker one never
// released).
TEST(ItemTableTest, CopiesOfCopiesKeepTheirRowsWhicheverGoesFirst) {
    using Row = std::tuple<uint32_t, int32_t, int>;  // tag, type, first value
    auto value = [](int v, bool wide) {
        ContentSP c = std::make_shared<Content>();
        const int64_t w = v;
        wide ? c->update(-1, &w, 1, NSCam::TYPE_INT64) : c->update(-1, &v, 1, NSCam::TYPE_INT32);
        c->markReadOnly();  // as a container files it: its values go into the row
        return c;
    };
    // The rows as the table answers for them, and as it writes them out.
    auto rowsOf = [](const Table& t) {
        std::vector<Row> out;
        EXPECT_EQ(In::indexed(t), t.size());  // nobody else's rows in its index
        for (size_t r = 0; r < t.size(); ++r) {
            EXPECT_EQ(t.getIndexByTag(t.tagAt(r)), r);
            const Content* c = t.contentAt(r);
            int first;
            std::memcpy(&first, c->elements(), sizeof(first));
            out.emplace_back(t.tagAt(r), c->mType, first);
        }
        NSCam::IMetadata::Storage s;
        NSCam::tableOf(s) = t;
        out.emplace_back(static_cast<uint32_t>(zorcam_test::flat(s).size()), 0, 0);
        return out;
    };
    for (int order = 0; order < 2; ++order) {
        std::vector<std::unique_ptr<Table>> tables;
        std::vector<std::vector<Row>> want;  // each table's rows when it was made
        tables.push_back(std::make_unique<Table>());
        for (int i = 0; i < 40; ++i) tables[0]->update(0x91000000u + i, value(i, false));
        want.push_back(rowsOf(*tables[0]));
        for (int level = 1; level <= 5; ++level) {
            const auto l = static_cast<uint32_t>(level);
            tables.push_back(std::make_unique<Table>());
            Table& t = *tables.back();
            t = *tables[l - 1];
            // A new row first (the last chunk may have room left by the table copied), then
            // the same shape (in place), another shape, a removal and a new row, in three
            // chunks.
            t.update(0x7F000000u + l, value(level, false));
            t.update(0x91000000u + l, value(1000 * level, false));
            t.update(0x91000010u + l, value(level, true));
            t.remove(0x91000020u + l);
            t.update(0x91010000u + l, value(level, false));
            want.push_back(rowsOf(t));
        }
        // A row more for each, the latest first: chunks and indexes that others still hold
        // must be copied first, however they are held.
        for (size_t i = tables.size(); i-- > 0;) {
            tables[i]->update(0x91020000u, value(static_cast<int>(i), false));
            want[i].insert(want[i].end() - 1, Row(0x91020000u, NSCam::TYPE_INT32, int(i)));
            std::get<0>(want[i].back()) += 24;  // its record
        }
        for (size_t i = 0; i < tables.size(); ++i) {
            const size_t gone = order == 0 ? i : tables.size() - 1 - i;
            tables[gone].reset();
            for (size_t j = 0; j < tables.size(); ++j) {
                if (!tables[j]) continue;
                EXPECT_EQ(rowsOf(*tables[j]), want[j]) << order << " " << j;
            }
        }
        // Each level saw its own writes and none of the later ones'.
        EXPECT_EQ(std::get<2>(want[2][1]), 1000);
        EXPECT_EQ(std::get<2>(want[1][2]), 2);
    }
}

}  // namespace
