// Eight threads share containers and entries; every row holds {its tag, k, k + 1} to show tears.
// Blobs go between the threads too, each filled with one byte value: a buffer that two
// handles write, or that the pool hands out while another still reads it, shows as mixed bytes.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "ItemTable.h"
#include "RecordingLogger.h"

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
            const uint32_t n = rng() % 24, op = rng() % 10;  // tags in, past and outside the map
            const uint32_t tag = n < 12 ? 0x10000 + n : n < 18 ? 0x40006 + n : 0x7F000000 + n;
            const IEntry fresh = entryOf(tag, k);
            const IMetadata copy(a);  // must not see what anybody does to `a` from now on (read
            const int was = kOf(copy.entryFor(tag));  // by entryFor alone: it marks nothing shared)
            bool ok = true;
            if (op == 0) a.update(fresh);
            if (op == 1) a.remove(tag);
            if (op == 2) ok = vouches(a.entryFor(tag), tag) && vouches(a.takeEntryFor(tag), tag);
            if (op == 3) a = b;  // and other threads the other way round
            if (op == 4) a += b;
            if (op == 5) a.update(e), e = entries[rng() % 2];  // entries assigned both ways too
            if (op == 6) e.replaceItemAt(1, std::vector<int>{k, k + 1}.data(), 2, Type2Type<int>());
            if (op == 7)
                a.burstWrite([&](Storage& s) { s.mItemTable.update(tag, fresh.getContentSP()); });
            if (op == 8) {  // rebuilt from its flat form, many times over, and all dropped at once
                const std::vector<uint8_t> bytes = flat(b);
                std::vector<IMetadata> rebuilt;
                while (rebuilt.size() <= k % 40u) rebuilt.emplace_back(bytes.data(), bytes.size());
                ok = flat(rebuilt[0]) == bytes && allRowsVouch(rebuilt[0]);
            }
            if (op == 9) a = IMetadata(std::make_shared<Storage>()), a += b;  // caller-made again
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
    for (const IMetadata& m : pool) EXPECT_TRUE(allRowsVouch(m));
    EXPECT_EQ(owned.count(), 8u * 24);  // and each holds the last k its thread filed
    for (uint32_t i = 0; i < owned.count(); ++i)
        EXPECT_GE(owned.entryAt(i).itemAt(1, Type2Type<int>()), 3000 - 24);
}

}  // namespace
