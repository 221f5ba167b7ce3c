// Eight threads share containers and entries; every row holds {its tag, k, k + 1} to show tears.
// Blobs go between the threads too, each filled with one byte value: a buffer that two
// handles write, or that the pool hands out while another still reads it, shows as mixed bytes.
// Rows of one rectangle {tag, k, k + 1, k + 2}, rewritten where they lie while readers without
// the lock read them, show a read torn by a write in place.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "ItemTable.h"
#include "RecordingLogger.h"
#include "Storage.h"

namespace {

using namespace NSCam;
using IEntry = IMetadata::IEntry;
using Storage = IMetadata::Storage;
using MetadataStressTest = zorcam_test::LoggerTest;

IEntry entryOf(uint32_t tag, int k) {
    const int v[3] = {static_cast<int>(tag), k, k + 1};
    IEntry e(tag);
    e.push_back(v, 3, Type2Type<int>());
    return e;
}
bool vouches(const IEntry& e, uint32_t t) {  // absent (no tag), or {t, k, k + 1}
    auto v = [&](uint32_t i) { return e.itemAt(i, Type2Type<int>()); };
    return e.tag() == ~0u || (e.tag() == t && e.count() == 3 && v(0) == int(t) && v(2) == v(1) + 1);
}
MRect rectOf(uint32_t tag, int k) {
    return MRect(static_cast<int>(tag), k, k + 1, k + 2);
}
bool whole(const MRect& r, uint32_t tag) {
    return r.p.x == static_cast<int>(tag) && r.s.w == r.p.y + 1 && r.s.h == r.p.y + 2;
}
bool uniform(const IMetadata::Memory& m) {
    return std::count(m.array(), m.array() + m.size(), m.itemAt(0)) == long(m.size());
}
bool allRowsVouch(IMetadata m) {  // each row, in a copy where rows stay put, is found by its tag
    for (uint32_t i = 0, tag; i < m.count(); ++i)
        if ((tag = m.entryAt(i).tag()) == ~0u || !vouches(m.entryFor(tag), tag)) return false;
    return true;
}
std::vector<uint8_t> flat(IMetadata m) {  // a copy is only read, so its size and bytes agree
    std::vector<uint8_t> b(static_cast<size_t>(m.flattenSize()));
    EXPECT_EQ(m.flatten(b.data(), b.size()), static_cast<long>(b.size()));
    return b;
}

TEST_F(MetadataStressTest, SharedContainersAndEntriesStayConsistent) {
    const IEntry first = entryOf(0x00010000, 0), second = entryOf(0x00040006, 0);
    // pool[3] starts on a storage the caller made: read under the lock only, and destroyed
    // without waiting for readers, so a reader without the lock must never be handed one.
    IMetadata pool[5] = {{}, {}, {}, IMetadata(std::make_shared<Storage>()), {}};
    IMetadata &owned = pool[4], blobs;  // each tag of `owned` belongs to one thread
    IEntry entries[2] = {first, second};
    std::atomic<bool> stop{false};
    auto kOf = [](const IEntry& e) { return e.count() == 3 ? e.itemAt(1, Type2Type<int>()) : -1; };
    auto worker = [&](uint32_t t) {  // the ninth only hands entries[0] back and forth
        while (t == 8 && !stop) entries[0] = second, entries[0] = first;
        std::mt19937 rng(t);
        for (int k = 0; k < 3000 && t < 8; ++k) {
            IMetadata &a = pool[rng() % 4], &b = pool[rng() % 4];
            IEntry& e = entries[rng() % 2];
            const uint32_t n = rng() % 24, op = rng() % 11;  // tags in, past and outside the map
            const uint32_t tag = n < 12 ? 0x10000 + n : n < 18 ? 0x40006 + n : 0x7F000000 + n;
            const IEntry fresh = entryOf(tag, k);
            const IMetadata copy(a);  // must not see what anybody does to `a` from now on (read
            const int was = kOf(copy.entryFor(tag));  // by entryFor alone: it marks nothing shared)
            bool ok = true;
            if (op == 0) a.update(fresh);
            if (op == 1) a.remove(tag);
            if (op == 2) {  // an entry handed out and written through changes only itself
                IEntry got = a.entryFor(tag);
                if (got.count() == 3) got.replaceItemAt(2, -1, Type2Type<int>());
                ok = vouches(a.entryFor(tag), tag) && vouches(a.takeEntryFor(tag), tag);
            }
            if (op == 3) a = b;  // and other threads the other way round
            if (op == 4) a += b;
            if (op == 5) a.update(e), e = entries[rng() % 2];  // entries assigned both ways too
            if (op == 6) e.replaceItemAt(1, std::vector<int>{k, k + 1}.data(), 2, Type2Type<int>());
            if (op == 7)
                a.burstWrite([&](Storage& s) { NSCam::tableOf(s).update(tag, fresh.getContentSP()); });
            if (op == 8) {  // rebuilt from its flat form, many times over, and all dropped at once
                const std::vector<uint8_t> bytes = flat(b);
                std::vector<IMetadata> rebuilt;
                while (rebuilt.size() <= k % 40u) rebuilt.emplace_back(bytes.data(), bytes.size());
                ok = flat(rebuilt[0]) == bytes && allRowsVouch(rebuilt[0]);
            }
            if (op == 9) a = IMetadata(std::make_shared<Storage>()), a += b;  // caller-made again
            if (op == 10) {  // rebuilt where readers without the lock are reading
                const std::vector<uint8_t> bytes = flat(b);
                ok = a.unflatten(const_cast<uint8_t*>(bytes.data()), bytes.size()) ==
                     static_cast<long>(bytes.size());
            }
            // A blob read out shares its bytes; refilled, it is copied first, and the old
            // buffer is released by whichever thread lets go of it last.
            const uint32_t bt = 0x90010000 + rng() % 4;
            IMetadata::Memory blob = blobs.entryFor(bt).itemAt(0, Type2Type<IMetadata::Memory>());
            ok = ok && uniform(blob);
            blob.resize(32 + k % 100);
            std::fill(blob.editArray(), blob.editArray() + blob.size(), uint8_t(k));
            IMetadata::setEntry(&blobs, bt, blob);
            ok = ok && uniform(blob) && blob.itemAt(0) == uint8_t(k);
            owned.update(entryOf((k % 2 ? 0x91000000u : 0x7FF00000u) | t << 5 | k % 24, k));
            IMetadata::setEntry(&owned, 0x91020000u | t, rectOf(0x91020000u | t, k));
            EXPECT_TRUE(ok && kOf(copy.entryFor(tag)) == was) << t << " " << k;
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(worker, 8);  // first entries[0] changes hands while it is filed here:
    int torn = 0;                     // each update must read its tag and values at one moment
    for (int i = 0; i < 20000; ++i) {
        IMetadata m;
        i < 19600 ? m.update(entries[0]) : m.update(0x00010000, entries[0]);  // reports are slow
        const bool quiet = log.take().empty();  // or a mismatch: the other entry's values came
        torn += vouches(m.entryAt(0), m.entryAt(0).tag()) != quiet || (i < 19600 && !quiet);
    }
    stop = true;
    // Readers without the lock, against every change the workers make: a value read is the
    // row's own (element 0 is the tag), and no row has a fourth element.
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::atomic<long> found{0};
    auto reader = [&](uint32_t seed) {
        std::mt19937 rng(seed);
        while (!done) {
            const uint32_t n = rng() % 24, pick = rng() % 5;
            const uint32_t tag =
                pick == 4 ? (rng() % 2 ? 0x91000000u : 0x7FF00000u) | (rng() % 8) << 5 | n
                : n < 12  ? 0x10000 + n
                : n < 18  ? 0x40006 + n
                          : 0x7F000000 + n;
            MRect r;
            if (pick == 4 && IMetadata::getEntry(&owned, 0x91020000u | n % 8, r) &&
                !whole(r, 0x91020000u | n % 8))
                wrong.fetch_add(1, std::memory_order_relaxed);
            int v = -1;
            if (IMetadata::getEntry<int>(&pool[pick], tag, v, 0)) {
                found.fetch_add(1, std::memory_order_relaxed);
                if (v != static_cast<int>(tag)) wrong.fetch_add(1, std::memory_order_relaxed);
            }
            if (IMetadata::getEntry<int>(&pool[pick], tag, v, 3))
                wrong.fetch_add(1, std::memory_order_relaxed);
        }
    };
    std::vector<std::thread> readers;
    for (uint32_t r = 0; r < 2; ++r) readers.emplace_back(reader, 100 + r);
    for (uint32_t t = 0; t < 8; ++t) threads.emplace_back(worker, t);
    for (auto& th : threads) th.join();
    done = true;
    for (auto& th : readers) th.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(found, 0);
    EXPECT_EQ(log.take(), std::vector<std::string>());
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(allRowsVouch(pool[i])) << i;
    EXPECT_EQ(owned.count(), 8u * 25);  // and each holds the last k its thread filed
    for (uint32_t i = 0; i < owned.count(); ++i) {
        const IEntry e = owned.entryAt(i);
        EXPECT_TRUE(e.type() == TYPE_MRect ? e.itemAt(0, Type2Type<MRect>()).p.y == 2999
                                           : e.itemAt(1, Type2Type<int>()) >= 3000 - 24);
    }
}

// Readers without the lock against a writer that moves rows (a removal moves the last row into
// the hole) and rebuilds chunks (another shape) as fast as it can: a read answers its own
// tag's value or nothing, never another row's, whatever the table did under it.
TEST(ReadersTest, ReadsWithoutTheLockNeverAnswerAnotherRowsValue) {
    IMetadata m;
    std::vector<uint32_t> tags;
    for (uint32_t i = 0; i < 40; ++i) tags.push_back(i % 4 == 3 ? 0x7F000000 + i : 0x91000000 + i);
    for (uint32_t tag : tags) IMetadata::setEntry<int>(&m, tag, static_cast<int>(tag));
    std::atomic<bool> done{false};
    std::atomic<long> wrong{0}, found{0};
    auto reader = [&](uint32_t seed) {
        std::mt19937 rng(seed);
        while (!done.load(std::memory_order_relaxed)) {
            const uint32_t tag = tags[rng() % tags.size()];
            int v = 0;
            if (!IMetadata::getEntry<int>(&m, tag, v)) continue;
            found.fetch_add(1, std::memory_order_relaxed);
            if (v != static_cast<int>(tag)) wrong.fetch_add(1, std::memory_order_relaxed);
        }
    };
    std::thread r1(reader, 1), r2(reader, 2);
    std::mt19937 rng(3);
    for (int k = 0; k < 600000; ++k) {
        const uint32_t tag = tags[rng() % tags.size()];
        if (k % 2 == 0) {
            m.remove(tag);
            IMetadata::setEntry<int>(&m, tag, static_cast<int>(tag));
        } else {  // two values, then one again: a chunk rebuilt twice, then a write in place
            IMetadata::IEntry two(tag);
            two.push_back(std::vector<int>{static_cast<int>(tag), 0}.data(), 2, Type2Type<int>());
            m.update(two);
            IMetadata::setEntry<int>(&m, tag, static_cast<int>(tag));
            IMetadata::setEntry<int>(&m, tag, static_cast<int>(tag));
        }
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(found, 0);
}

}  // namespace
