// IMetadata::Memory (copy-on-write byte blobs) and its size-class pool.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using Memory = NSCam::IMetadata::Memory;
using Allocator = Memory::BufferAllocator;
using BufferSP = Memory::BufferSP;
using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const Memory& m) {
    return Bytes(m.array(), m.array() + m.size());
}
Memory blob(const Bytes& b) {
    return Memory(b.data(), b.size());
}
uint32_t spares(const Allocator& pool, size_t size) {
    Allocator::Place p{};
    return pool.locate(size, p) ? pool.spareCount(p.cls, p.slot) : 99;
}

TEST(PoolTest, BoundarySizesLandInTheirClassSlotAndCapacity) {
    Allocator pool;
    struct {
        size_t size;
        bool pooled;
        uint32_t cls, slot, cap;
    } const cases[] = {{31, false, 0, 0, 31},         {32, true, 0, 7, 32},
                       {60, true, 0, 0, 60},          {61, true, 1, 7, 64},
                       {100, true, 1, 2, 104},        {104, true, 1, 2, 104},
                       {122880, true, 11, 0, 122880}, {122881, false, 0, 0, 122881}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        Allocator::Place p{};
        ASSERT_EQ(pool.locate(c.size, p), c.pooled);
        if (c.pooled) {
            EXPECT_EQ(p.cls, c.cls);
            EXPECT_EQ(p.slot, c.slot);
            EXPECT_EQ(p.capacity, c.cap);
        }
        BufferSP b = pool.allocate(c.size);
        EXPECT_EQ(b->size(), c.size);
        EXPECT_EQ(b->capacity(), c.cap);
        pool.recycle(std::move(b));
        EXPECT_EQ(bool(b), !c.pooled);  // outside the pool: never taken back
    }
}

// A slot keeps five unshared buffers and hands out the newest again with its old bytes.
TEST(PoolTest, RecycleKeepsFiveUnsharedBuffersWithTheirBytes) {
    Allocator pool;
    std::vector<BufferSP> b;
    for (int i = 0; i < 7; ++i) b.push_back(pool.allocate(100));
    const uint8_t* newest = b[4]->data();
    std::fill(b[4]->begin(), b[4]->end(), 0x5A);
    const Memory sharer(b[6]);
    pool.recycle(std::move(b[6]));
    EXPECT_NE(b[6], nullptr);  // held elsewhere: never taken
    EXPECT_EQ(pool.memoryDosage(), 0u);
    b[0]->resize(40);  // filed by capacity, not by size
    pool.recycle(std::move(b[0]));
    EXPECT_EQ(pool.memoryDosage(), 104u);
    for (int i = 1; i < 6; ++i) pool.recycle(std::move(b[i]));
    EXPECT_EQ(b[4], nullptr);
    EXPECT_EQ(b[5].use_count(), 1);  // the sixth stays with its owner
    EXPECT_EQ(pool.memoryDosage(), 5u * 104);
    const BufferSP again = pool.allocate(97);
    EXPECT_EQ(again->data(), newest);
    EXPECT_EQ(*again, Bytes(97, 0x5A));
}

TEST(MemoryTest, EqualityRules) {  // no vector == empty vector; else sizes, then bytes
    const Memory v[] = {Memory(),
                        Memory(std::make_shared<Bytes>()),
                        blob({'a', 'b', 'c'}),
                        blob({'a', 'b', 'd'}),
                        blob({'a', 'b', 'c'}),
                        blob({'a', 'b'})};
    for (int i = 0; i < 6; ++i)
        for (int j = 0; j < 6; ++j)
            EXPECT_EQ(v[i] == v[j], i == j || i + j == 1 || i * j == 8) << i << "," << j;
}

// Every way of making a second handle shares the bytes; a write through either copies first.
TEST(MemoryTest, CopiesShareUntilWritten) {
    const Bytes src = {1, 2, 3, 4, 5, 6, 7, 8};
    Memory (*const makers[])(Memory&) = {[](Memory& a) { return Memory(a); },
                                         [](Memory& a) { return Memory(std::move(a)); },
                                         [](Memory& a) {
                                             Memory b;
                                             b = a;
                                             return b;
                                         },
                                         [](Memory& a) {
                                             Memory b = blob({9});
                                             b = std::move(a);
                                             return b;
                                         },
                                         [](Memory& a) {
                                             Memory b;
                                             b.append(a);
                                             return b;
                                         }};
    for (size_t i = 0; i < std::size(makers); ++i) {
        SCOPED_TRACE(i);
        Memory a = blob(src), b = makers[i](a);
        ASSERT_EQ(bytesOf(a), src);  // moves keep their source
        ASSERT_EQ(a.array(), b.array());
        uint8_t* w = b.editArray();
        w[0] = 0xEE;
        EXPECT_EQ(bytesOf(a), src);
        EXPECT_EQ(b.itemAt(0), 0xEE);
        EXPECT_EQ(b.editArray(), w);  // sole owner now: edits stay in place
    }
}

// resize zero-fills even reused dirty vectors; no edit touches a sharer's bytes.
TEST(MemoryTest, EditsZeroFillAndLeaveASharerAlone) {
    Allocator& pool = Memory::sAllocator;
    std::vector<BufferSP> held;  // empties the 52 slot, then parks two dirty vectors there
    while (spares(pool, 50) != 0) held.push_back(pool.allocate(50));
    std::vector<Memory> d = {blob(Bytes(52, 0xAB)), blob(Bytes(52, 0xAB))};
    const uint8_t* dirty[2] = {d[0].array(), d[1].array()};
    d.clear();
    ASSERT_EQ(spares(pool, 50), 2u);  // their last handles gave them back, d[1] last
    const Memory a = blob({1, 2, 3});
    Memory zeroed, grown(a), cut(a), twice(a);
    zeroed.resize(50);
    grown.resize(50);
    cut.fastResize(2);
    EXPECT_EQ(twice.append(twice), 6u);
    EXPECT_EQ(zeroed.array(), dirty[1]);
    EXPECT_EQ(grown.array(), dirty[0]);
    EXPECT_EQ(bytesOf(zeroed), Bytes(50, 0));
    EXPECT_EQ(bytesOf(grown), ([] {
                  Bytes w = {1, 2, 3};
                  w.resize(50);
                  return w;
              }()));
    EXPECT_EQ(bytesOf(cut), (Bytes{1, 2}));
    EXPECT_EQ(bytesOf(twice), (Bytes{1, 2, 3, 1, 2, 3}));
    EXPECT_EQ(bytesOf(a), (Bytes{1, 2, 3}));
    grown.resize(3);  // room to spare, but shared: appending must copy first
    const Memory before(grown);
    EXPECT_EQ(grown.appendVector(blob({7})), 4u);
    EXPECT_EQ(bytesOf(before), (Bytes{1, 2, 3}));
}

}  // namespace
