// IMetadata: what it reports, when a storage is marked shared, and the limits of the flat form a
// sender keeps. (Copies, merges, entries and round trips are checked step by step by the
// operations fuzz target, whose corpus runs under ctest.)
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

#include <zorcam/metadata/MetadataCheck.h>

#include "Content.h"
#include "Flat.h"
#include "MetadataInspector.h"
#include "RecordingLogger.h"
#include "SmallStack.h"
#include "Storage.h"

namespace {

using NSCam::IMetadata;
using ::testing::ElementsAre;
using In = NSCam::MetadataInspector;
using Storage = IMetadata::Storage;
using Bytes = std::vector<uint8_t>;
using Rows = std::vector<std::pair<uint32_t, int>>;
using zorcam_test::flat;
constexpr size_t kSmallStack = 1 << 20;  // 1 MiB, as camera threads often have
constexpr uint32_t kNoTag = 0xFFFFFFFF;
const NSCam::Type2Type<int> kInt;

IMetadata with(const Rows& rows) {  // one int per tag, in this order
    IMetadata m;
    for (const auto& [tag, v] : rows) IMetadata::setEntry<int>(&m, tag, v);
    return m;
}
class MetadataTest : public zorcam_test::LoggerTest {};

TEST_F(MetadataTest, NoStorageUntilRemoveAndBadBuffersLeaveItEmpty) {
    IMetadata m;
    EXPECT_EQ(m.count(), 0u);
    EXPECT_TRUE(m.isEmpty());
    EXPECT_EQ(m.entryFor(1).tag(), kNoTag);
    EXPECT_EQ(In::storage(m), nullptr);
    EXPECT_EQ(m.remove(0x00010000), -1);
    EXPECT_NE(In::storage(m), nullptr);
    EXPECT_EQ(m.entryAt(0).tag(), kNoTag);
    EXPECT_THAT(log.take(), ElementsAre("getContentSPByIndex:index 0 out of range 0"));
    EXPECT_EQ(IMetadata().flattenSize(), 8);
    Bytes b = flat(with({{0x00010000, 1}}));
    b[3] = 0x02;
    EXPECT_EQ(In::storage(IMetadata(b.data(), b.size())), nullptr);
    IMetadata::setEntry<int>(&m, 0x00020000, 2);
    EXPECT_EQ(m.unflatten(b.data(), b.size()), -1);
    EXPECT_EQ(m.count(), 0u);
    const std::string refused = "unflatten:unflatten buffer not correct. pattern 2245432";
    const std::string bad =
        "IMetadata:unflatten error " + ::testing::PrintToString(static_cast<void*>(&b[0]));
    EXPECT_THAT(log.take(), ElementsAre(refused, bad + ", size 32", refused));
}

// What may hand the storage out marks it shared, so that the next write goes to a clone.
TEST(ShareTest, OperationsThatMayHandTheStorageOutMakeTheNextWriteClone) {
    const std::pair<const char*, std::function<void(IMetadata&)>> ops[] = {
        {"count", [](IMetadata& m) { m.count(); }},
        {"isEmpty", [](IMetadata& m) { m.isEmpty(); }},
        {"flattenSize", [](IMetadata& m) { m.flattenSize(); }},
        {"flatten", [](IMetadata& m) { m.flatten(std::vector<char>(64).data(), 64); }},
        {"burstRead", [](IMetadata& m) { m.burstRead([](const Storage&) { return 0; }); }},
        {"assign", [](IMetadata& m) { IMetadata() = m; }}};  // getStorageSP, as copies do
    // Once marked, a storage is cloned even when its container has become its only owner
    // again: a reader without the lock may still be inside it. So `before` holds no reference.
    for (const auto& [name, op] : ops) {
        IMetadata m(std::make_shared<Storage>());  // a private storage
        const Storage* before = In::storage(m).get();
        op(m);
        IMetadata::setEntry<int>(&m, 0x00040000, 4);
        EXPECT_NE(In::storage(m).get(), before) << name;
    }
}

TEST_F(MetadataTest, MismatchedOrMissingTagsAndNewRowsBeyondTheLimitAreReported) {
    IMetadata::IEntry e(0x5678), untagged;
    e.push_back(9, kInt);
    untagged.push_back(1, kInt);
    IMetadata m;
    EXPECT_EQ(m.update(0x1234, e), 0);  // stored under the argument
    EXPECT_THAT(log.take(), ElementsAre("update:tag mismatch update tag=1234 but entry.tag=5678",
                                        "Callstack:"));
    setLogging(0x2, 0, 0);  // the report needs a non-zero details level
    EXPECT_EQ(m.update(0x1235, e), 0);
    EXPECT_EQ(flat(m), flat(with({{0x1234, 9}, {0x1235, 9}})));
    const std::string no = "update:entry without valid tag value";
    const std::tuple<uint32_t, uint32_t, std::vector<std::string>> levels[] = {
        {2, 0, {no}}, {6, 0, {no}}, {0, 0x1001000, {no}}, {6, 0x1001000, {no, no, "Callstack:"}}};
    for (const auto& [level, mask, lines] : levels) {
        setLogging(0x2, level, mask);
        EXPECT_EQ(m.update(untagged), -1);
        EXPECT_EQ(log.take(), lines) << level;
    }
    EXPECT_FALSE(In::content(untagged)->isReadOnly());  // a refused entry is not shared
    for (const auto s = In::storage(m); s->size() < Storage::ItemTable::kMaxRows;)
        NSCam::tableOf(*s).update(0xFFF00000u | static_cast<uint32_t>(s->size()), nullptr);
    EXPECT_EQ(m.update(IMetadata::IEntry(0x00020000)), -1);
    m += with({{0x00030000, 3}});
    EXPECT_EQ(m.update(IMetadata::IEntry(0x1234)), 0);  // a replacement is no new row
    EXPECT_THAT(log.take(),
                ElementsAre("update:table full (32767 rows), tag 20000 not stored",
                            ::testing::MatchesRegex("operator\\+=.*:table full "
                                                    ".32767 rows., tag 30000 not merged")));
}

// A row's values are handed out as a content made from them, kept with the row until the row
// changes: entries of one row share it. A write of the same shape goes into the row where it
// lies, one of another shape rebuilds its chunk; neither changes what was handed out, nor a
// copy of the container. Rows in the first chunk of a small table and past it in a large one.
TEST(RowContentTest, HandedOutValuesAndCopiesKeepTheirValuesWhateverTheWriteDoes) {
    auto read = [](const IMetadata& m, uint32_t tag) {
        int v = -1;
        EXPECT_TRUE(IMetadata::getEntry<int>(&m, tag, v));
        EXPECT_EQ(m.entryFor(tag).itemAt(0, kInt), v);  // the lock-free and the locked read
        return v;
    };
    for (const size_t rows : {3u, 40u}) {
        Rows init;
        for (uint32_t i = 0; i < rows; ++i) init.emplace_back(0x91000000 + i, int(i));
        init.emplace_back(0x7F000001, 100);  // past the map
        IMetadata m = with(init);
        for (const uint32_t tag : {0x91000001u, 0x91000000u + uint32_t(rows) - 1, 0x7F000001u}) {
            SCOPED_TRACE(::testing::Message() << rows << " rows, tag " << std::hex << tag);
            const IMetadata::IEntry a = m.entryFor(tag), b = m.entryFor(tag);
            EXPECT_EQ(In::content(a), In::content(b));
            const int before = read(m, tag);
            const auto* p = static_cast<const int*>(a.data());
            IMetadata::setEntry<int>(&m, tag, before + 1000);  // in place
            EXPECT_EQ(read(m, tag), before + 1000);
            EXPECT_NE(In::content(m.entryFor(tag)), In::content(a));
            const IMetadata copy(m);
            IMetadata::setEntry<int>(&m, tag, before + 2000);  // in place, in a chunk of its own
            EXPECT_EQ(read(copy, tag), before + 1000);
            IMetadata::IEntry wider(tag);
            wider.push_back(std::vector<int>{7, 8}.data(), 2, kInt);
            m.update(wider);  // another shape, into the copy's own chunk
            IMetadata::setEntry<int>(&m, tag + 0x10000, 5);
            EXPECT_EQ(read(copy, tag), before + 1000);
            EXPECT_EQ(m.entryFor(tag).itemAt(1, kInt), 8);
            EXPECT_EQ(*p, before);
            EXPECT_EQ(a.itemAt(0, kInt), before);
            EXPECT_EQ(b.count(), 1u);
            IMetadata::setEntry<int>(&m, tag, before);
        }
        EXPECT_EQ(m.count(), init.size() + 3);
    }
}

// Two burst callbacks that store each other's containers, on two threads, many times over:
// neither waits for the other for ever (a watchdog ends the process if they do), and each
// stores the other container with the values it holds.
TEST(BurstTest, CallbacksStoringEachOthersContainersNeverWaitForEachOther) {
    IMetadata a, b;
    IMetadata::setEntry<int>(&a, 0x00010000, 1);
    IMetadata::setEntry<int>(&b, 0x00010000, 2);
    std::atomic<bool> finished{false};
    std::thread watchdog([&] {
        for (int i = 0; i < 1200 && !finished; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (finished) return;
        std::fprintf(stderr, "two crossing bursts still wait for each other after 120 s\n");
        std::_Exit(1);
    });
    std::atomic<int> ready{0};
    auto cross = [&ready](IMetadata& self, const IMetadata& other, int value) {
        for (ready.fetch_add(1); ready.load() < 2;) {  // both start together
        }
        for (int k = 0; k < 200000; ++k) {
            self.burstWrite([&](Storage& s) {
                s.writeEntry<int>(0x00010000, value);
                s.writeEntry<IMetadata>(0x00020000, other);
            });
        }
    };
    std::thread one(cross, std::ref(a), std::cref(b), 1), two(cross, std::ref(b), std::cref(a), 2);
    one.join();
    two.join();
    finished = true;
    watchdog.join();
    for (const auto& [m, other] : {std::make_pair(&a, 2), std::make_pair(&b, 1)}) {
        IMetadata stored;
        int v = 0;
        ASSERT_TRUE(IMetadata::getEntry(m, 0x00020000, stored));
        EXPECT_TRUE(IMetadata::getEntry(&stored, 0x00010000, v));
        EXPECT_EQ(v, other);
    }
}

// A read on another thread while a burst is under way answers what the burst leaves, never a
// value the burst wrote and then wrote over: the read without the lock must see the change as
// under way and wait for it on the lock, even when the value was written in place.
TEST(BurstTest, AReadDuringABurstWaitsForItsEnd) {
    IMetadata m;
    const uint32_t tag = 0x00010000;
    IMetadata::setEntry<int>(&m, tag, 1);
    for (int round = 1; round <= 2; ++round) {  // after an odd and an even number of changes
        int seen = 0;
        std::thread reader;
        m.burstWrite([&](Storage& s) {
            s.writeEntry<int>(tag, 10 * round);  // same shape: in place
            reader = std::thread([&] { IMetadata::getEntry(&m, tag, seen); });
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            s.writeEntry<int>(tag, 10 * round + 1);
        });
        reader.join();
        EXPECT_EQ(seen, 10 * round + 1);
    }
}

// A container holding a container ... `levels` deep, built through the API.
IMetadata chain(int levels) {
    IMetadata m;
    for (int i = 0; i < levels; ++i) {
        IMetadata outer;
        IMetadata::setEntry(&outer, 0x00010000, m);
        m = outer;
    }
    return m;
}
// One entry holding `n` containers (each with a storage of its own rows: none).
IMetadata wide(size_t n) {
    const IMetadata one(std::make_shared<Storage>());
    IMetadata m;
    IMetadata::IEntry e(0x00010000);
    for (size_t i = 0; i < n; ++i) e.push_back(one, NSCam::Type2Type<IMetadata>());
    m.update(e);
    return m;
}

IMetadata oneRow() {
    return with({{0x00010000, 1}});
}

// The sender refuses exactly what the receiver refuses, and says which limit; nothing on the
// way (sizing, writing, dumping, destroying) recurses per level, so a small stack suffices.
TEST_F(MetadataTest, FormsAReceiverWouldRefuseAreRefusedBySendingAndNothingRecursesPerLevel) {
    const std::string deep =
        "containers nested deeper than 64 levels: a receiver would refuse the form";
    const std::string many = "more than 8192 nested containers: a receiver would refuse the form";
    const std::vector<uint32_t> repeated(32768, 0x00010000);
    const struct {
        const char* name;
        std::function<IMetadata()> make;
        const std::vector<uint32_t>* tags;
        std::string refusal;  // empty: accepted by both sides
    } cases[] = {{"64 levels", [] { return chain(64); }, nullptr, ""},
                 {"65 levels", [] { return chain(65); }, nullptr, deep},
                 {"10000 levels", [] { return chain(10000); }, nullptr, deep},
                 {"8192 containers", [] { return wide(8192); }, nullptr, ""},
                 {"8193 containers", [] { return wide(8193); }, nullptr, many},
                 {"32767 records", oneRow, &repeated, ""},
                 {"32768 records", oneRow, &repeated,
                  "more than 32767 records: a receiver would refuse the form"}};
    zorcam_test::onSmallStack(kSmallStack, [&] {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            const IMetadata m = c.make();
            const uint32_t* tags = c.tags ? c.tags->data() : nullptr;
            const long count = c.tags ? static_cast<long>(c.tags->size()) - c.refusal.empty() : -1;
            // Every such form has a size, so a buffer sized by it (the README's idiom) is
            // made without an exception; flatten refuses what a receiver would refuse.
            const long size = m.flattenSize(tags, count);
            ASSERT_GT(size, 8);
            Bytes b(static_cast<size_t>(size));
            const long written = m.flatten(b.data(), b.size(), tags, count);
            if (!c.refusal.empty()) {
                EXPECT_EQ(written, -1);
                EXPECT_THAT(log.take(), ElementsAre("flatten:" + c.refusal));
                continue;
            }
            ASSERT_EQ(written, size);
            EXPECT_TRUE(NSCam::checkFlatMetadata(b.data(), b.size()).ok);
            EXPECT_EQ(flat(IMetadata(b.data(), b.size())), flat(m));
            EXPECT_TRUE(log.take().empty());
        }
        setLogging(0x2, 5, 0x1001000);
        chain(10000).dump(0, true);
        const std::vector<std::string> lines = log.take();
        EXPECT_EQ(std::count(lines.begin(), lines.end(),
                             "dump:(L65) containers nested deeper than 64 levels: not dumped"),
                  1);
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string& l) { return l.rfind("dump:layer", 0) == 0; }),
                  65);
    });
}

// A storage made to hold itself through the storage's own writers is refused, not followed.
TEST_F(MetadataTest, AStorageHoldingItselfIsNeitherFollowedForeverNorLeaked) {
    const auto s = std::make_shared<Storage>();
    const IMetadata holder(s);
    s->writeEntry<IMetadata>(0x00010000, holder);
    zorcam_test::onSmallStack(kSmallStack, [&] {
        Bytes b(64);
        EXPECT_EQ(holder.flattenSize(), -1);  // no size at all: the one form without one
        EXPECT_EQ(holder.flatten(b.data(), b.size()), -1);
        const std::vector<std::string> said = log.take();
        ASSERT_EQ(said.size(), 2u);
        EXPECT_EQ(said[0], "flattenSize:storage " +
                               ::testing::PrintToString(static_cast<const void*>(s.get())) +
                               " contains itself: it has no flat form");
        setLogging(0x2, 5, 0x1001000);
        holder.dump(0, true);
    });
    const std::vector<std::string> lines = log.take();
    // 65 levels of 4 lines (layer, count, the row before and after its nested one) and one
    // line where the 66th would have been.
    ASSERT_EQ(lines.size(), 65u * 4 + 1);
    EXPECT_EQ(lines[64 * 3 + 3], "dump:(L65) containers nested deeper than 64 levels: not dumped");
    EXPECT_EQ(lines.back(), "dump:(L0) [dump] Map(0/1) tag(0x10000) type(9) count(1) metadata.. ");
    s->writeEntries<IMetadata>(0x00010000, nullptr, 0);  // breaks the cycle: all is freed
}

// A record's length in the flat form holds 32 bits: a record of 4 GiB or more is refused, never
// cut to its low 32 bits, though its size is told. (65,536 handles of one 64 KiB blob make
// one.)
TEST_F(MetadataTest, RecordsBeyondFourGibibytesAreRefusedNotCut) {
    const std::vector<IMetadata::Memory> blobs(1 << 16,
                                               IMetadata::Memory(Bytes(1 << 16).data(), 1 << 16));
    IMetadata m;
    IMetadata::IEntry e(0x00010000);
    e.push_back(blobs.data(), blobs.size(), NSCam::Type2Type<IMetadata::Memory>());
    m.update(e);
    Bytes b(64);
    EXPECT_EQ(m.flattenSize(), 8 + 8 + 4295229452L);  // the size it would take
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(m.flatten(b.data(), b.size()), -1);
    EXPECT_THAT(log.take(), ElementsAre("flatten:record of tag 10000 needs 4295229452 bytes, more "
                                        "than a 32-bit length holds",
                                        "flatten:encoding tag 10000 fail , size -1"));
}

}  // namespace
