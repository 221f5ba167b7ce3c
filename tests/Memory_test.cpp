// IMetadata::Memory (copy-on-write byte blobs) and its size-class pool.
//
// Pool tests use a private BufferAllocator so that they start from an empty pool; tests of the
// handle go through the process-wide sAllocator and measure deltas after draining the slot
// they use, so they hold in any order and in one process.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace {

using NSCam::IMetadata;
using Memory = IMetadata::Memory;
using Allocator = Memory::BufferAllocator;
using Slot = Memory::MemorySlot;
using BufferSP = Memory::BufferSP;
using Bytes = std::vector<uint8_t>;

Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + 7 * i);
    return b;
}

Bytes bytesOf(const Memory& m) {
    size_t n = 0;
    const uint8_t* p = m.array(n);
    return p ? Bytes(p, p + n) : Bytes();
}

Memory blob(const Bytes& b) { return Memory(b.data(), b.size()); }

Allocator::Place placeOf(const Allocator& pool, size_t size) {
    Allocator::Place p{};
    EXPECT_TRUE(pool.locate(size, p)) << size;
    return p;
}

//------------------------------------------------------------------------------------------
// Pool

struct PlaceCase {
    size_t size;
    bool pooled;
    uint32_t cls, slot, capacity;
};

class PoolTest : public ::testing::Test {
protected:
    std::unique_ptr<Allocator> pool = std::make_unique<Allocator>();
    uint32_t spares(size_t size) {
        const Allocator::Place p = placeOf(*pool, size);
        return pool->spareCount(p.cls, p.slot);
    }
};

TEST_F(PoolTest, BoundarySizesLandInTheirClassAndSlot) {
    const PlaceCase cases[] = {
        {0, false, 0, 0, 0},          {31, false, 0, 0, 0},         {32, true, 0, 7, 32},
        {60, true, 0, 0, 60},         {61, true, 1, 7, 64},         {100, true, 1, 2, 104},
        {120, true, 1, 0, 120},       {121, true, 2, 7, 128},       {30721, true, 10, 7, 32768},
        {61441, true, 11, 7, 65536},  {122880, true, 11, 0, 122880}, {122881, false, 0, 0, 0},
    };
    for (const PlaceCase& c : cases) {
        SCOPED_TRACE(c.size);
        Allocator::Place p{99, 99, 99};
        ASSERT_EQ(pool->locate(c.size, p), c.pooled);
        BufferSP b = pool->allocate(c.size);
        ASSERT_TRUE(b);
        EXPECT_EQ(b->size(), c.size);
        EXPECT_EQ(b.use_count(), 1);
        if (c.pooled) {
            EXPECT_EQ(p.cls, c.cls);
            EXPECT_EQ(p.slot, c.slot);
            EXPECT_EQ(p.capacity, c.capacity);
            EXPECT_EQ(b->capacity(), c.capacity);
        } else {
            // Outside the pool: exactly the request, and never taken back.
            EXPECT_EQ(b->capacity(), c.size);
            pool->recycle(std::move(b));
            EXPECT_TRUE(b);
            EXPECT_EQ(pool->memoryDosage(), 0u);
        }
    }
}

TEST_F(PoolTest, EverySizeIsRoundedUpByLessThanOneStep) {
    for (uint64_t size = Allocator::kMinSize; size <= Allocator::kMaxSize; ++size) {
        Allocator::Place p{};
        ASSERT_TRUE(pool->locate(size, p));
        const uint32_t limit = 60u << p.cls, step = 4u << p.cls;
        ASSERT_LT(p.slot, Allocator::kSlotsPerClass) << size;
        ASSERT_GE(p.capacity, size);
        ASSERT_LT(p.capacity - size, step) << size;
        ASSERT_EQ(p.capacity % step, 0u) << size;
        ASSERT_GT(size, limit / 2) << size;  // the first class whose limit holds it
    }
}

TEST_F(PoolTest, RecycledBufferComesBackWithOldBytesAndNewSize) {
    BufferSP b = pool->allocate(104);
    const Bytes old = pattern(104, 3);
    std::copy(old.begin(), old.end(), b->begin());
    const uint8_t* storage = b->data();

    pool->recycle(std::move(b));
    EXPECT_FALSE(b);
    EXPECT_EQ(spares(104), 1u);
    EXPECT_EQ(pool->memoryDosage(), 104u);

    BufferSP again = pool->allocate(97);
    EXPECT_EQ(again->data(), storage);
    EXPECT_EQ(again->size(), 97u);
    EXPECT_EQ(again->capacity(), 104u);
    EXPECT_TRUE(std::equal(again->begin(), again->end(), old.begin()));
    EXPECT_EQ(pool->memoryDosage(), 0u);
    // 96 is the next slot down: a fresh buffer.
    EXPECT_EQ(pool->allocate(96)->capacity(), 96u);
}

TEST_F(PoolTest, SlotIsLastInFirstOutAndRefusesASixthBuffer) {
    std::vector<BufferSP> bufs;
    std::vector<const uint8_t*> addrs;
    for (int i = 0; i < 6; ++i) {
        bufs.push_back(pool->allocate(100));
        addrs.push_back(bufs.back()->data());
    }
    for (int i = 0; i < 5; ++i) {
        pool->recycle(std::move(bufs[i]));
        EXPECT_FALSE(bufs[i]);
    }
    EXPECT_EQ(pool->memoryDosage(), 5u * 104);
    pool->recycle(std::move(bufs[5]));
    ASSERT_TRUE(bufs[5]);  // refused: the owner frees it
    EXPECT_EQ(bufs[5].use_count(), 1);
    EXPECT_EQ(spares(100), 5u);
    EXPECT_EQ(pool->memoryDosage(), 5u * 104);
    for (int i = 4; i >= 0; --i) EXPECT_EQ(pool->allocate(104)->data(), addrs[i]);
    EXPECT_EQ(spares(100), 0u);
}

TEST_F(PoolTest, NeverTakesABufferSomebodyElseHolds) {
    BufferSP b = pool->allocate(100);
    const Memory sharer(b);
    pool->recycle(std::move(b));
    EXPECT_TRUE(b);
    EXPECT_EQ(pool->memoryDosage(), 0u);
    EXPECT_EQ(sharer.getDataSP(), b);
}

TEST_F(PoolTest, ForeignBuffersAreFiledByCapacity) {
    // Capacity 200 (size 10) serves the 208 slot of class 2, not the slot of its size.
    auto wide = std::make_shared<Bytes>();
    wide->reserve(200);
    wide->resize(10);
    pool->recycle(std::move(wide));
    EXPECT_FALSE(wide);
    EXPECT_EQ(spares(208), 1u);
    EXPECT_EQ(pool->memoryDosage(), 208u);

    // Capacity 100 sits in the 104 slot; asking for 104 must grow it and keep its bytes.
    const Bytes old = pattern(100, 11);
    auto narrow = std::make_shared<Bytes>(old);
    ASSERT_EQ(narrow->capacity(), 100u);
    pool->recycle(std::move(narrow));
    BufferSP grown = pool->allocate(104);
    EXPECT_EQ(grown->size(), 104u);
    EXPECT_GE(grown->capacity(), 104u);
    EXPECT_TRUE(std::equal(old.begin(), old.end(), grown->begin()));
}

TEST(MemorySlotTest, PushPopCount) {
    Slot slot;
    EXPECT_FALSE(slot.pop());
    std::vector<BufferSP> in;
    for (int i = 0; i < 6; ++i) in.push_back(std::make_shared<Bytes>(1, uint8_t(i)));
    for (auto& b : in) slot.push(std::move(b));
    EXPECT_EQ(slot.count(), Slot::kMaxBuffers);
    EXPECT_TRUE(in[5]);  // the sixth stays with its owner
    for (int i = 4; i >= 0; --i) {
        BufferSP out = slot.pop();
        ASSERT_TRUE(out);
        EXPECT_EQ((*out)[0], i);
    }
    EXPECT_EQ(slot.count(), 0u);
    EXPECT_FALSE(slot.pop());
}

// Two threads on one slot: no buffer is ever handed to both, none is lost or duplicated, and
// the counts agree with the lists afterwards.
TEST_F(PoolTest, TwoThreadsShareOneSlotConsistently) {
    constexpr int kRounds = 20000;
    auto worker = [this](uint8_t id) {
        for (int i = 0; i < kRounds; ++i) {
            BufferSP a = pool->allocate(97 + id);  // 97..104 all map to the 104 slot
            BufferSP b = pool->allocate(104);
            ASSERT_EQ(a->capacity(), 104u);
            ASSERT_NE(a->data(), b->data());
            std::fill(a->begin(), a->end(), id);
            std::fill(b->begin(), b->end(), uint8_t(id + 100));
            std::this_thread::yield();
            ASSERT_TRUE(std::all_of(a->begin(), a->end(), [&](uint8_t v) { return v == id; }));
            ASSERT_TRUE(std::all_of(b->begin(), b->end(),
                                    [&](uint8_t v) { return v == uint8_t(id + 100); }));
            pool->recycle(std::move(b));
            pool->recycle(std::move(a));
        }
    };
    std::thread t1(worker, 1), t2(worker, 2);
    t1.join();
    t2.join();

    const uint32_t n = spares(104);
    // The unlocked room test lets a race leave one more than the maximum, never more.
    EXPECT_GE(n, 2u);
    EXPECT_LE(n, Slot::kMaxBuffers + 1);
    EXPECT_EQ(pool->memoryDosage(), 104u * n);
    std::set<const uint8_t*> seen;
    std::vector<BufferSP> held;
    for (uint32_t i = 0; i < n; ++i) {
        held.push_back(pool->allocate(104));
        seen.insert(held.back()->data());
    }
    EXPECT_EQ(seen.size(), n);
    EXPECT_EQ(spares(104), 0u);
    EXPECT_EQ(pool->memoryDosage(), 0u);
}

//------------------------------------------------------------------------------------------
// Memory over the process-wide pool

class MemoryTest : public ::testing::Test {
protected:
    Allocator& pool = Memory::sAllocator;
    std::vector<BufferSP> held;  // buffers taken out of the shared pool while a test runs

    // Empties the pool slot serving `size` so that deltas are exact.
    void drain(size_t size) {
        const Allocator::Place p = placeOf(pool, size);
        while (pool.spareCount(p.cls, p.slot) != 0) held.push_back(pool.allocate(size));
    }
    uint32_t spares(size_t size) {
        const Allocator::Place p = placeOf(pool, size);
        return pool.spareCount(p.cls, p.slot);
    }
};

TEST_F(MemoryTest, EmptyFormsAreEmptyAndEqual) {
    const uint8_t raw[16] = {1};
    Memory none, nullData(nullptr, 16), zeroSize(raw, 0), nullSP{BufferSP()},
        emptyVec(std::make_shared<Bytes>());
    for (Memory* m : {&none, &nullData, &zeroSize, &nullSP, &emptyVec}) {
        size_t n = 99;
        EXPECT_EQ(m->size(), 0u);
        EXPECT_EQ(m->itemAt(0), 0);
        if (m != &emptyVec) {
            EXPECT_EQ(m->array(), nullptr);
            EXPECT_EQ(m->array(n), nullptr);
            EXPECT_EQ(n, 0u);
            n = 99;
            EXPECT_EQ(m->editArray(n), nullptr);
            EXPECT_EQ(n, 0u);
            EXPECT_FALSE(m->getDataSP());
        }
        EXPECT_TRUE(*m == none && none == *m);
        EXPECT_TRUE(*m == emptyVec && emptyVec == *m);
    }
}

TEST_F(MemoryTest, BuildsFromBytesWithPoolCapacity) {
    for (size_t n : {8u, 31u, 50u, 100u, 122881u}) {
        SCOPED_TRACE(n);
        Bytes src = pattern(n, 5);
        const Memory m = blob(src);
        src[0] ^= 0xFF;  // the blob holds its own copy
        EXPECT_EQ(m.size(), n);
        EXPECT_EQ(m.itemAt(0), pattern(n, 5)[0]);
        EXPECT_EQ(m.itemAt(n - 1), src[n - 1]);
        EXPECT_EQ(m.itemAt(n), 0);
        Allocator::Place p{};
        EXPECT_EQ(m.getDataSP()->capacity(), pool.locate(n, p) ? p.capacity : n);
    }
}

TEST_F(MemoryTest, EqualityRules) {
    const Memory vals[] = {Memory(), Memory(std::make_shared<Bytes>()), blob({'a', 'b', 'c'}),
                           blob({'a', 'b', 'd'}), blob({'a', 'b'})};
    // no vector == empty vector; otherwise equal only to itself (by content).
    const bool eq[5][5] = {{1, 1, 0, 0, 0},
                           {1, 1, 0, 0, 0},
                           {0, 0, 1, 0, 0},
                           {0, 0, 0, 1, 0},
                           {0, 0, 0, 0, 1}};
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) {
            EXPECT_EQ(vals[i] == vals[j], eq[i][j]) << i << "," << j;
            EXPECT_EQ(vals[i] != vals[j], !eq[i][j]) << i << "," << j;
        }
    EXPECT_TRUE(vals[2] == blob({'a', 'b', 'c'}));
}

// Every way of making a second handle shares the bytes; a write through either copies first.
TEST_F(MemoryTest, CopiesShareUntilWritten) {
    const Bytes src = pattern(8, 1);
    using Make = Memory (*)(Memory&);
    const Make makers[] = {
        [](Memory& a) { return Memory(a); },
        [](Memory& a) { return Memory(std::move(a)); },
        [](Memory& a) { return Memory(a.getDataSP()); },
        [](Memory& a) { Memory b; b = a; return b; },
        [](Memory& a) { Memory b = blob({9}); b = std::move(a); return b; },
        [](Memory& a) { Memory b; b.append(a); return b; },
    };
    for (size_t i = 0; i < std::size(makers); ++i) {
        SCOPED_TRACE(i);
        Memory a = blob(src);
        Memory b = makers[i](a);
        ASSERT_EQ(bytesOf(a), src);  // moves keep their source
        ASSERT_EQ(a.array(), b.array());
        size_t n = 0;
        uint8_t* w = b.editArray(n);
        ASSERT_EQ(n, 8u);
        EXPECT_NE(w, a.array());
        w[0] = 0xEE;
        EXPECT_EQ(bytesOf(a), src);
        EXPECT_EQ(b.itemAt(0), 0xEE);
        // Now each is the sole owner: edits stay in place.
        const uint8_t* before = a.array();
        EXPECT_EQ(a.editArray(), before);
        EXPECT_EQ(b.editArray(), w);
    }
}

TEST_F(MemoryTest, ResizeZeroesNewBytesEvenFromADirtyPool) {
    Memory m = blob(pattern(8, 1));
    m.resize(4);
    m.resize(8);  // in place: capacity 8 kept
    EXPECT_EQ(bytesOf(m), (Bytes{1, 8, 15, 22, 0, 0, 0, 0}));

    // Growing past the capacity moves to a pooled buffer and keeps the head.
    Memory g = blob(pattern(40, 2));
    g.resize(100);
    EXPECT_EQ(g.getDataSP()->capacity(), 104u);
    Bytes want = pattern(40, 2);
    want.resize(100, 0);
    EXPECT_EQ(bytesOf(g), want);

    // A buffer full of 0xAB waits in the 52 slot: resize must not leak it, fastResize may.
    drain(50);
    auto dirty = std::make_shared<Bytes>(52, 0xAB);
    dirty->shrink_to_fit();
    const uint8_t* dirtyAt = dirty->data();
    pool.recycle(std::move(dirty));
    ASSERT_EQ(spares(50), 1u);
    Memory z;
    z.resize(50);
    EXPECT_EQ(z.array(), dirtyAt);
    EXPECT_EQ(bytesOf(z), Bytes(50, 0));
    z.clear();
    Memory f;
    f.fastResize(50);
    EXPECT_EQ(f.array(), dirtyAt);
    EXPECT_EQ(f.size(), 50u);
}

TEST_F(MemoryTest, ResizeOfASharedBlobLeavesTheOtherAlone) {
    const Bytes src = pattern(8, 4);
    for (bool fast : {false, true}) {
        Memory a = blob(src), b(a);
        fast ? b.fastResize(4) : b.resize(4);
        EXPECT_EQ(bytesOf(a), src);
        EXPECT_EQ(bytesOf(b), Bytes(src.begin(), src.begin() + 4));
        fast ? b.fastResize(12) : b.resize(12);
        EXPECT_EQ(b.size(), 12u);
        EXPECT_EQ(bytesOf(a), src);
    }
}

TEST_F(MemoryTest, AppendGrowsInPlaceCopiesWhenSharedAndHandlesItself) {
    // Unshared with room: in place.
    Memory m = blob(pattern(100, 0));
    m.resize(10);
    const uint8_t* at = m.array();
    Memory tail = blob({7, 8, 9});
    EXPECT_EQ(m.append(tail), 13u);
    EXPECT_EQ(m.array(), at);
    Bytes want = pattern(10, 0);
    want.insert(want.end(), {7, 8, 9});
    EXPECT_EQ(bytesOf(m), want);

    // Shared: the other sharer keeps the old bytes.
    Memory other(m);
    EXPECT_EQ(m.appendVector(tail), 16u);
    EXPECT_EQ(bytesOf(other), want);
    want.insert(want.end(), {7, 8, 9});
    EXPECT_EQ(bytesOf(m), want);

    // Itself, and with room to spare: still every byte twice.
    Memory self = blob({1, 2, 3});
    EXPECT_EQ(self.append(self), 6u);
    EXPECT_EQ(bytesOf(self), (Bytes{1, 2, 3, 1, 2, 3}));
    Memory roomy = blob(pattern(100, 3));
    roomy.resize(10);
    roomy.append(roomy);
    Bytes twice = pattern(10, 3);
    twice.insert(twice.end(), twice.begin(), twice.end());
    EXPECT_EQ(bytesOf(roomy), twice);

    // Nothing to append: unchanged.
    EXPECT_EQ(self.append(Memory()), 6u);
    EXPECT_EQ(bytesOf(self), (Bytes{1, 2, 3, 1, 2, 3}));
    Memory empty;
    EXPECT_EQ(empty.append(Memory()), 0u);
    EXPECT_FALSE(empty.getDataSP());
}

// The last handle to let go of a pooled vector gives it back; sharers do not.
TEST_F(MemoryTest, ReleasesGoBackToThePool) {
    constexpr size_t kSize = 3000;  // the 3072 slot of class 6
    drain(kSize);
    drain(8000);
    const uint32_t base = pool.memoryDosage();
    const Bytes src = pattern(kSize, 9);
    {
        Memory a = blob(src);
        {
            Memory b(a);
        }
        EXPECT_EQ(spares(kSize), 0u);
    }
    EXPECT_EQ(spares(kSize), 1u);
    EXPECT_EQ(pool.memoryDosage() - base, 3072u);

    Memory c = blob(src);  // takes the spare back
    EXPECT_EQ(spares(kSize), 0u);
    c.clear();
    EXPECT_EQ(spares(kSize), 1u);
    EXPECT_FALSE(c.getDataSP());
    Memory d = blob(src);
    d = blob({1});
    EXPECT_EQ(spares(kSize), 1u);
    d = Memory();
    EXPECT_EQ(spares(kSize), 1u);  // a one-byte blob is not pooled
    Memory e = blob(src);
    e.resize(8000);  // the old vector goes back when the blob moves to a bigger one
    EXPECT_EQ(spares(kSize), 1u);
    EXPECT_EQ(pool.memoryDosage() - base, 3072u);
}

}  // namespace
