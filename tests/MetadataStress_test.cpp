// Eight threads share containers and entries: copies, updates, reads, merges, assignments in
// both directions, flatten and rebuild, takes, burst access. Every row carries values that
// vouch for themselves ({tag, k, k + 1}), so a torn or misplaced row shows; a container whose
// tags each belong to one thread must end exactly as its threads left it.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Content.h"
#include "ItemTable.h"
#include "RecordingLogger.h"

namespace NSCam {
struct MetadataInspector {
    static const std::shared_ptr<IMetadata::Storage>& storage(const IMetadata& m) {
        return m.mStorage;
    }
};
}  // namespace NSCam

namespace {

using NSCam::IMetadata;
using NSCam::MetadataInspector;
using NSCam::Type2Type;
using IEntry = IMetadata::IEntry;
using Storage = IMetadata::Storage;
using Table = Storage::ItemTable;
using Bytes = std::vector<uint8_t>;
constexpr uint32_t kNoTag = 0xFFFFFFFF;
constexpr int kThreads = 8;
constexpr int kIterations = 3000;

std::vector<int> pattern(uint32_t tag, int k) {
    return {static_cast<int>(tag), k, k + 1};
}

IEntry entryOf(uint32_t tag, int k) {
    const std::vector<int> v = pattern(tag, k);
    IEntry e(tag);
    e.push_back(v.data(), v.size(), Type2Type<int>());
    return e;
}

// The entry is absent, or holds {its own tag, k, k + 1}; returns false otherwise.
bool vouches(const IEntry& e, uint32_t tag) {
    if (e.tag() == kNoTag) return true;
    int v[3] = {0, 0, 0};
    return e.tag() == tag && e.count() == 3 && e.itemAt(0, v, 3, Type2Type<int>()) == 1 &&
           v[0] == static_cast<int>(tag) && v[2] == v[1] + 1;
}

bool allRowsVouch(const IMetadata& m) {
    const IMetadata snapshot(m);  // rows cannot move while they are walked
    for (uint32_t i = 0; i < snapshot.count(); ++i) {
        const IEntry e = snapshot.entryAt(i);
        if (e.tag() == kNoTag || !vouches(e, e.tag())) return false;
    }
    return true;
}

Bytes flat(const IMetadata& m) {
    // Through a copy: its storage is only read from now on, so size and bytes agree.
    const IMetadata snapshot(m);
    Bytes b(static_cast<size_t>(snapshot.flattenSize()));
    EXPECT_EQ(snapshot.flatten(b.data(), b.size()), static_cast<long>(b.size()));
    return b;
}

// Tags of the free-for-all containers: known ones and ones outside the slot map.
uint32_t sharedTag(std::mt19937& rng) {
    const uint32_t n = rng() % 24;
    return n < 12 ? 0x00010000u + n : n < 18 ? 0x00040006u + n : 0x7F000000u + n;
}
// Tags of the owned container that only thread t writes.
uint32_t ownTag(int t, uint32_t n) {
    return n % 2 ? 0x91000000u | (static_cast<uint32_t>(t) << 4) | (n / 2)
                 : 0x7FF00000u | (static_cast<uint32_t>(t) << 8) | n;
}

class MetadataStressTest : public zorcam_test::LoggerTest {};

TEST_F(MetadataStressTest, SharedContainersAndEntriesStayConsistent) {
    IMetadata pool[4];
    IEntry entries[2] = {entryOf(0x00010000, 0), entryOf(0x00010001, 0)};
    IMetadata owned;
    std::map<uint32_t, int> expected[kThreads];  // per thread: its tags in `owned`
    std::atomic<int> failures{0};

    auto worker = [&](int t) {
        std::mt19937 rng(static_cast<uint32_t>(t) * 7919u + 1);
        std::map<uint32_t, int>& mine = expected[t];
        auto fail = [&] { failures.fetch_add(1); };
        for (int it = 0; it < kIterations; ++it) {
            IMetadata& a = pool[rng() % 4];
            IMetadata& b = pool[rng() % 4];
            IEntry& e = entries[rng() % 2];
            const uint32_t tag = sharedTag(rng);
            // A copy taken now must not see what anybody does to its source later.
            const IMetadata copy(a);
            const Bytes before = it % 8 == 0 ? flat(copy) : Bytes();

            switch (rng() % 16) {
                case 0:
                    a.update(entryOf(tag, it));
                    break;
                case 1:
                    a.remove(tag);
                    break;
                case 2:
                    if (!vouches(a.entryFor(tag), tag)) fail();
                    break;
                case 3:
                    if (!vouches(a.takeEntryFor(tag), tag)) fail();
                    break;
                case 4:
                    a = b;
                    break;  // other threads assign the other way round
                case 5:
                    a += b;
                    break;
                case 6: {
                    IMetadata sum = a + b;
                    if (!allRowsVouch(sum)) fail();
                } break;
                case 7: {
                    const Bytes bytes = flat(b);
                    IMetadata rebuilt(bytes.data(), bytes.size());
                    if (flat(rebuilt) != bytes || !allRowsVouch(rebuilt)) fail();
                    if (rng() % 2) a = rebuilt;
                } break;
                case 8:
                    a.update(e);
                    break;
                case 9:
                    e = entries[rng() % 2];
                    break;
                case 10: {
                    const int v[2] = {it, it + 1};
                    e.replaceItemAt(1, v, 2, Type2Type<int>());
                    const IEntry mine2(e);
                    if (!vouches(mine2, mine2.tag())) fail();
                } break;
                case 11:
                    a.burstWrite([&](Storage& s) {
                        s.mItemTable.update(tag, entryOf(tag, -it).getContentSP());
                    });
                    break;
                case 12:
                    if (a.burstRead([](const Storage& s) {
                            for (const auto& item : s.mItemTable.items())
                                if (!item.content || item.content->mCount != 3) return 1;
                            return 0;
                        }) == 1)
                        fail();
                    break;
                case 13: {
                    IMetadata local;
                    local += owned;
                    local += a;
                    if (!allRowsVouch(local)) fail();
                } break;
                default: {
                    // The owned container: only this thread writes these tags.
                    const uint32_t own = ownTag(t, rng() % 12);
                    const auto known = mine.find(own);
                    switch (rng() % 5) {
                        case 0:
                        case 1:
                            owned.update(entryOf(own, it));
                            mine[own] = it;
                            break;
                        case 2:
                            if (owned.remove(own) != (known != mine.end() ? 0 : -1)) fail();
                            mine.erase(own);
                            break;
                        case 3: {
                            const IEntry got = owned.takeEntryFor(own);
                            if (known == mine.end()
                                    ? got.tag() != kNoTag
                                    : !vouches(got, own) ||
                                          got.itemAt(1, Type2Type<int>()) != known->second)
                                fail();
                            mine.erase(own);
                        } break;
                        default: {
                            const IEntry got = owned.entryFor(own);
                            if (known == mine.end()
                                    ? got.tag() != kNoTag
                                    : got.itemAt(1, Type2Type<int>()) != known->second)
                                fail();
                        }
                    }
                }
            }
            if (!before.empty() && flat(copy) != before) fail();
        }
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
    for (auto& th : threads) th.join();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(log.lines().empty()) << log.lines().front().text;
    for (const IMetadata& m : pool) {
        EXPECT_TRUE(allRowsVouch(m));
        if (const auto& s = MetadataInspector::storage(m)) {
            for (size_t r = 0; r < s->size(); ++r)
                EXPECT_EQ(s->mItemTable.getIndexByTag(s->mItemTable.at(r).tag), r);
        }
        const Bytes b = flat(m);
        EXPECT_EQ(flat(IMetadata(b.data(), b.size())), b);
    }
    for (const IEntry& e : entries) EXPECT_TRUE(vouches(e, e.tag()));
    // The owned container holds exactly what its threads last left there.
    std::map<uint32_t, int> all, got;
    for (const auto& m : expected) all.insert(m.begin(), m.end());
    for (uint32_t i = 0; i < owned.count(); ++i) {
        const IEntry e = owned.entryAt(i);
        EXPECT_TRUE(vouches(e, e.tag()));
        got[e.tag()] = e.itemAt(1, Type2Type<int>());
    }
    EXPECT_EQ(got, all);
}

// An entry reassigned on one thread while another files it: every update takes the tag and
// the values of one and the same moment.
TEST_F(MetadataStressTest, UpdateTakesTheEntrysTagAndValuesTogether) {
    const IEntry first = entryOf(0x00010000, 1), second = entryOf(0x00040006, 2);
    IEntry e(first);
    std::atomic<bool> stop{false};
    std::thread assigner([&] {
        while (!stop.load()) {
            e = second;
            e = first;
        }
    });
    int torn = 0;
    for (int i = 0; i < 20000 && torn == 0; ++i) {
        IMetadata m;
        m.update(e);
        if (!vouches(m.entryAt(0), m.entryAt(0).tag())) ++torn;
    }
    // Filed under the first entry's tag: the second one's values exactly when reported (each
    // report unwinds the stack, so fewer rounds).
    for (int i = 0; i < 300 && torn == 0; ++i) {
        IMetadata m;
        const size_t reports = log.lines().size();
        m.update(0x00010000, e);
        const IEntry got = m.entryFor(0x00010000);
        const bool secondsValues = got.itemAt(0, Type2Type<int>()) != 0x00010000;
        if (secondsValues != (log.lines().size() > reports)) ++torn;
    }
    stop = true;
    assigner.join();
    EXPECT_EQ(torn, 0);
    for (const std::string& text : log.texts())
        EXPECT_TRUE(text.find("tag mismatch update tag=10000 but entry.tag=40006") !=
                        std::string::npos ||
                    text.rfind("Callstack:", 0) == 0)
            << text;
}

// Tables built and destroyed on many threads at once: the pool never loses, duplicates or
// overfills a pair, and every pooled slot array is free.
TEST(BufferPoolStressTest, ConcurrentTablesKeepThePoolWhole) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            std::vector<std::unique_ptr<Storage>> held;
            for (int i = 0; i < 400; ++i) {
                held.push_back(std::make_unique<Storage>());
                held.back()->mItemTable.update(0x00010000u + static_cast<uint32_t>(i % 5), nullptr);
                if (held.size() > static_cast<size_t>(5 + (i + t) % 30)) held.clear();
            }
        });
    for (auto& th : threads) th.join();
    auto& q = Table::sBufferQueue;
    std::set<const uint16_t*> seen;
    for (int half = 0; half < 2; ++half) {
        EXPECT_LE(q.pairs(half), 80u);
        EXPECT_EQ(q.mSlotArrays[half].size(), q.pairs(half));
        EXPECT_EQ(q.mHolders[half].size(), q.pairs(half));
        EXPECT_EQ(q.mLocks[half].load(), 0);
        for (const uint16_t* s : q.mSlotArrays[half]) {
            EXPECT_TRUE(seen.insert(s).second);
            EXPECT_TRUE(
                std::all_of(s, s + Table::kSlotCount, [](uint16_t v) { return v == 0xFFFF; }));
        }
    }
    EXPECT_GE(seen.size(), 2u);
}

}  // namespace
