// Eight threads share containers and entries; every row holds {its tag, k, k + 1} to show tears.
// Blobs go between the threads too, each filled with one byte value: a buffer that two
// handles write, or that the pool hands out while another still reads it, shows as mixed bytes.
// Rows of one rectangle {tag, k, k + 1, k + 2}, rewritten where they lie while readers without
// the lock read them, show a read torn by a write in place.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#include "Flat.h"
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
int kOf(const IEntry& e) {
    return e.count() == 3 ? e.itemAt(1, Type2Type<int>()) : -1;
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
// Tags in the slot map, past it, and outside it.
uint32_t tagOf(uint32_t n) {
    return n < 12 ? 0x10000 + n : n < 18 ? 0x40006 + n : 0x7F000000 + n;
}
// The rectangle of `owned` that worker t rewrites in place.
uint32_t ownedRectTag(uint32_t t) {
    return 0x91020000u | t;
}

// What the threads share. pool[3] starts on a storage the caller made: read under the lock
// only, and destroyed without waiting for readers, so a reader without the lock must never be
// handed one.
struct Shared {
    const IEntry first = entryOf(0x00010000, 0), second = entryOf(0x00040006, 0);
    IMetadata pool[5] = {{}, {}, {}, IMetadata(std::make_shared<Storage>()), {}};
    IMetadata& owned = pool[4];  // each tag of `owned` belongs to one worker
    IMetadata blobs;
    IEntry entries[2] = {first, second};
    std::atomic<bool> stopHanding{false}, stopReading{false};
    // What the readers without the lock saw wrong, by kind, and how many values they found.
    std::atomic<int> tornRects{0}, otherRowsValues{0}, fourthElements{0};
    std::atomic<long> found{0};
};

// One step of a worker: a container it changes, one it reads from, a shared entry, a tag.
struct Step {
    Shared& sh;
    uint32_t t;
    int k;
    std::mt19937& rng;
    IMetadata& a;
    IMetadata& b;
    IEntry& e;
    uint32_t tag;
    IEntry fresh;  // {tag, k, k + 1}
    const char* op;
    std::string where() const {  // for a failure's message
        return std::string(op) + ", worker " + std::to_string(t) + ", step " + std::to_string(k);
    }
};

// The worker's operations on `a`, by name; some check what they read back. A copy of `a` taken
// before each must not see any of them.
const struct Operation {
    const char* name;
    void (*run)(Step&);
} kOperations[] = {
    {"update", [](Step& s) { s.a.update(s.fresh); }},
    {"remove", [](Step& s) { s.a.remove(s.tag); }},
    // An entry handed out and written through changes only itself.
    {"write through an entry handed out",
     [](Step& s) {
         IEntry got = s.a.entryFor(s.tag);
         if (got.count() == 3) got.replaceItemAt(2, -1, Type2Type<int>());
         EXPECT_TRUE(vouches(s.a.entryFor(s.tag), s.tag)) << s.where();
         EXPECT_TRUE(vouches(s.a.takeEntryFor(s.tag), s.tag)) << s.where();
     }},
    {"assign", [](Step& s) { s.a = s.b; }},  // other threads the other way round
    {"merge", [](Step& s) { s.a += s.b; }},
    // Entries are assigned both ways too.
    {"update from a shared entry, then assign it",
     [](Step& s) { s.a.update(s.e), s.e = s.sh.entries[s.rng() % 2]; }},
    {"replace values of a shared entry",
     [](Step& s) {
         s.e.replaceItemAt(1, std::vector<int>{s.k, s.k + 1}.data(), 2, Type2Type<int>());
     }},
    {"file a content in a burst",
     [](Step& s) {
         s.a.burstWrite(
             [&](Storage& st) { NSCam::tableOf(st).update(s.tag, s.fresh.getContentSP()); });
     }},
    // A copy stays as it is, so that its size and bytes agree; its rebuilds, many at a time,
    // are all dropped at once.
    {"rebuild from the flat form many times",
     [](Step& s) {
         const std::vector<uint8_t> bytes = zorcam_test::flat(IMetadata(s.b));
         std::vector<IMetadata> rebuilt;
         while (rebuilt.size() <= s.k % 40u) rebuilt.emplace_back(bytes.data(), bytes.size());
         EXPECT_EQ(zorcam_test::flat(rebuilt[0]), bytes) << s.where();
         EXPECT_TRUE(allRowsVouch(rebuilt[0])) << s.where();
     }},
    {"merge into a storage the caller made",
     [](Step& s) { s.a = IMetadata(std::make_shared<Storage>()), s.a += s.b; }},
    // Rebuilt where readers without the lock are reading.
    {"unflatten in place",
     [](Step& s) {
         std::vector<uint8_t> bytes = zorcam_test::flat(IMetadata(s.b));
         EXPECT_EQ(s.a.unflatten(bytes.data(), bytes.size()), long(bytes.size())) << s.where();
     }},
};

// A blob read out shares its bytes; refilled, it is copied first, and the old buffer is
// released by whichever thread lets go of it last.
void refillABlob(Step& s) {
    const uint32_t bt = 0x90010000 + s.rng() % 4;
    IMetadata::Memory blob = s.sh.blobs.entryFor(bt).itemAt(0, Type2Type<IMetadata::Memory>());
    EXPECT_TRUE(uniform(blob)) << "a blob read out after " << s.where();
    blob.resize(32 + s.k % 100);
    std::fill(blob.editArray(), blob.editArray() + blob.size(), uint8_t(s.k));
    IMetadata::setEntry(&s.sh.blobs, bt, blob);
    EXPECT_TRUE(uniform(blob)) << "a blob refilled after " << s.where();
    EXPECT_EQ(blob.itemAt(0), uint8_t(s.k)) << "a blob refilled after " << s.where();
}

// Rows of its own in `owned`, on either side of the map, and its rectangle rewritten where it
// lies.
void fileOwnRows(Step& s) {
    s.sh.owned.update(entryOf((s.k % 2 ? 0x91000000u : 0x7FF00000u) | s.t << 5 | s.k % 24, s.k));
    IMetadata::setEntry(&s.sh.owned, ownedRectTag(s.t), rectOf(ownedRectTag(s.t), s.k));
}

// Worker t: 3000 steps of a random operation on containers of the pool, each followed by a
// blob refilled and rows of its own filed.
void work(Shared& sh, uint32_t t) {
    std::mt19937 rng(t);
    for (int k = 0; k < 3000; ++k) {
        IMetadata &a = sh.pool[rng() % 4], &b = sh.pool[rng() % 4];
        IEntry& e = sh.entries[rng() % 2];
        const uint32_t tag = tagOf(rng() % 24);
        const Operation& op = kOperations[rng() % std::size(kOperations)];
        Step s{sh, t, k, rng, a, b, e, tag, entryOf(tag, k), op.name};
        // Read by entryFor alone, which marks nothing shared.
        const IMetadata copy(a);
        const int was = kOf(copy.entryFor(tag));
        op.run(s);
        refillABlob(s);
        fileOwnRows(s);
        EXPECT_EQ(kOf(copy.entryFor(tag)), was) << "a copy taken before " << s.where();
    }
}

// The ninth thread only hands entries[0] from one entry to the other and back.
void handEntryBackAndForth(Shared& sh) {
    while (!sh.stopHanding) sh.entries[0] = sh.second, sh.entries[0] = sh.first;
}

// While entries[0] changes hands, it is filed into a new container, 20,000 times: each update
// must read its tag and values at one moment. Filed under its own tag there is nothing to
// report; under the first entry's tag (the last 400 times: reports are slow), a tag mismatch is
// reported exactly when the other entry's values came. Answers how many were torn.
int fileAnEntryChangingHands(Shared& sh, zorcam_test::RecordingLogger& log) {
    int torn = 0;
    for (int i = 0; i < 20000; ++i) {
        const bool ownTag = i < 19600;
        IMetadata m;
        ownTag ? m.update(sh.entries[0]) : m.update(0x00010000, sh.entries[0]);
        const bool quiet = log.take().empty();
        torn += vouches(m.entryAt(0), m.entryAt(0).tag()) != quiet || (ownTag && !quiet);
    }
    return torn;
}

// A reader without the lock, against every change the workers make: a value read is the row's
// own (element 0 is the tag), no row has a fourth element, and a rectangle rewritten in place
// is never read torn.
void readWithoutTheLock(Shared& sh, uint32_t seed) {
    std::mt19937 rng(seed);
    while (!sh.stopReading) {
        const uint32_t n = rng() % 24, pick = rng() % 5;
        const uint32_t tag =  // pick 4: a row of `owned`, of any worker
            pick == 4 ? (rng() % 2 ? 0x91000000u : 0x7FF00000u) | (rng() % 8) << 5 | n : tagOf(n);
        MRect r;
        if (pick == 4 && IMetadata::getEntry(&sh.owned, ownedRectTag(n % 8), r) &&
            !whole(r, ownedRectTag(n % 8)))
            sh.tornRects.fetch_add(1, std::memory_order_relaxed);
        int v = -1;
        if (IMetadata::getEntry<int>(&sh.pool[pick], tag, v, 0)) {
            sh.found.fetch_add(1, std::memory_order_relaxed);
            if (v != static_cast<int>(tag))
                sh.otherRowsValues.fetch_add(1, std::memory_order_relaxed);
        }
        if (IMetadata::getEntry<int>(&sh.pool[pick], tag, v, 3))
            sh.fourthElements.fetch_add(1, std::memory_order_relaxed);
    }
}

// First the ninth thread hands an entry back and forth while the test files it; then eight
// workers change the containers while two readers without the lock read them.
TEST_F(MetadataStressTest, SharedContainersAndEntriesStayConsistent) {
    Shared sh;
    std::thread hander(handEntryBackAndForth, std::ref(sh));
    EXPECT_EQ(fileAnEntryChangingHands(sh, log), 0);
    sh.stopHanding = true;
    hander.join();
    std::vector<std::thread> threads, readers;
    for (uint32_t r = 0; r < 2; ++r)
        readers.emplace_back(readWithoutTheLock, std::ref(sh), 100 + r);
    for (uint32_t t = 0; t < 8; ++t) threads.emplace_back(work, std::ref(sh), t);
    for (auto& th : threads) th.join();
    sh.stopReading = true;
    for (auto& th : readers) th.join();
    EXPECT_EQ(sh.tornRects, 0);
    EXPECT_EQ(sh.otherRowsValues, 0);
    EXPECT_EQ(sh.fourthElements, 0);
    EXPECT_GT(sh.found, 0);
    EXPECT_EQ(log.take(), std::vector<std::string>());
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(allRowsVouch(sh.pool[i])) << i;
    // Each worker's 24 rows and its rectangle, holding the last k it filed.
    EXPECT_EQ(sh.owned.count(), 8u * 25);
    for (uint32_t i = 0; i < sh.owned.count(); ++i) {
        const IEntry e = sh.owned.entryAt(i);
        if (e.type() == TYPE_MRect) {
            EXPECT_EQ(e.itemAt(0, Type2Type<MRect>()).p.y, 2999) << std::hex << e.tag();
        } else {
            EXPECT_GE(e.itemAt(1, Type2Type<int>()), 3000 - 24) << std::hex << e.tag();
        }
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
