// Random sequences of container operations over tags from the whole 32-bit space, checked after
// every step against a plain list of rows in which removal moves the last row into the hole.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "ItemTable.h"
#include "MetadataInspector.h"
#include "RecordingLogger.h"

namespace {

using namespace NSCam;
using namespace NSCam::slotmap;
using In = MetadataInspector;
using Bytes = std::vector<uint8_t>;
using Values = std::vector<int>;
struct Row {
    uint32_t tag;
    Values values;  // none: a row without content
};
using Model = std::vector<Row>;
constexpr uint32_t kNoTag = 0xFFFFFFFF;

Row* find(Model& m, uint32_t tag) {  // groups 1 to 8 share slots: a tag in the map is its slot
    auto k = [](uint32_t t) { return slotOf(t) == kNone ? t : slotOf(t) + (1ull << 32); };
    auto it = std::find_if(m.begin(), m.end(), [&](const Row& r) { return k(r.tag) == k(tag); });
    return it == m.end() ? nullptr : &*it;
}
void modelUpdate(Model& m, uint32_t tag, const Values& v) {
    Row* r = find(m, tag);
    r ? void(r->values = v) : m.push_back({tag, v});  // a row keeps its place and first tag
}

Bytes encode(const Model& m) {  // the flat form, written independently of the library
    std::vector<uint32_t> w = {0x01245432, static_cast<uint32_t>(m.size())};
    for (const Row& r : m) {
        const auto n = static_cast<uint32_t>(r.values.size());
        w.insert(w.end(), {r.tag, n ? 12 + 4 * n : 0});
        if (n) w.insert(w.end(), {0xAB2454CD, static_cast<uint32_t>(TYPE_INT32), n});
        w.insert(w.end(), r.values.begin(), r.values.end());
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(w.data());
    return Bytes(bytes, bytes + 4 * w.size());
}

Values valuesOf(const IMetadata::IEntry& e) {
    Values v;
    for (uint32_t i = 0; i < e.count(); ++i) v.push_back(e.itemAt(i, Type2Type<int>()));
    return v;
}
IMetadata::IEntry entryOf(uint32_t tag, const Values& v) {
    IMetadata::IEntry e(tag);
    if (!v.empty()) e.push_back(v.data(), v.size(), Type2Type<int>());
    return e;
}

// The rows are the model's, in order, each found under its tag, and no other slot or side-index
// entry is set. Read below the container, which would mark its storage shared.
void expectMatches(const IMetadata& c, const Model& m) {
    const std::shared_ptr<IMetadata::Storage> s = In::storage(c);
    ASSERT_TRUE(s || m.empty());
    if (!s) return;
    Bytes b(static_cast<size_t>(s->flattenSize(nullptr, -1)));
    ASSERT_EQ(s->flatten(b.data(), b.size(), nullptr, -1), static_cast<long>(b.size()));
    ASSERT_EQ(b, encode(m));
    for (size_t r = 0; r < m.size(); ++r) ASSERT_EQ(s->mItemTable.getIndexByTag(m[r].tag), r);
    ASSERT_EQ(In::indexed(s->mItemTable), m.size());
}

class MetadataModelTest : public zorcam_test::LoggerTest,
                          public ::testing::WithParamInterface<uint32_t> {};

TEST_P(MetadataModelTest, RandomOperationsMatchTheReference) {
    setLogging(0x2, 0, 0);  // tag mismatches are filed quietly
    std::mt19937 rng(GetParam());
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    IMetadata c[4];
    Model m[4];
    auto tag = [&]() -> uint32_t {
        const Model& rows = m[pick(4)];
        if (!rows.empty() && pick(5) < 2) {  // a row's tag, maybe through another of groups 1-8
            const uint32_t t = rows[pick(uint32_t(rows.size()))].tag, g = t >> 28;
            return g >= 1 && g <= 8 && pick(2) ? (t & 0x0FFFFFFF) | (1 + pick(8)) << 28 : t;
        }
        if (pick(4) == 0) return rng() % kNoTag;  // or in, or just past, a section (or none)
        const uint32_t g = pick(16), s = pick(kGroupSections[g] + 1), e = kGroupBase[g] + s;
        const uint32_t n = s < kGroupSections[g] ? kSections.slots[e] : 0;  // 0: no such section
        return g << 28 | s << 16 | (n == 0 || pick(4) == 0 ? n + pick(2) : pick(n));
    };
    for (int step = 0; step < 3000; ++step) {
        const size_t i = pick(4), j = pick(4);
        uint32_t op = pick(100);
        if (m[i].size() > 40 && op < 30) op += 30;  // keep the tables from growing forever
        const uint32_t t = tag();
        Row* row = find(m[i], t);  // removal moves the last row into its place
        if (op < 30) {             // an entry under another tag is filed under the tag given
            const IMetadata::IEntry e = entryOf(op < 10 ? tag() : t, Values(pick(4), int(rng())));
            ASSERT_EQ(op < 20 ? c[i].update(t, e) : c[i].update(e), 0);
            modelUpdate(m[i], t, valuesOf(e));
        } else if (op < 55) {  // entryFor reads the row, takeEntryFor removes it too
            const IMetadata::IEntry e = op < 43 ? c[i].entryFor(t) : c[i].takeEntryFor(t);
            ASSERT_EQ(e.tag(), row ? t : kNoTag);
            ASSERT_EQ(valuesOf(e), row ? row->values : Values());
            if (op >= 43 && row) *row = m[i].back(), m[i].pop_back();
        } else if (op < 70) {
            ASSERT_EQ(c[i].remove(t), row ? 0 : -1);
            if (row) *row = m[i].back(), m[i].pop_back();
        } else if (op < 82) {  // a copy, or an assignment
            op < 76 ? void(c[i] = IMetadata(c[j])) : void(c[i] = c[j]);
            m[i] = m[j];
        } else if (op < 90) {  // merged by += or +, also into a container with nothing yet
            op < 86 ? void(c[i] += c[j]) : void(c[i] = (op < 88 ? c[i] : IMetadata()) + c[j]);
            if (op >= 88) m[i] = m[j];  // into nothing: the other's rows, in order
            for (const Row& r : Model(m[j])) modelUpdate(m[i], r.tag, r.values);
        } else {  // written flat and read back, into an empty container or over rows
            Bytes b(static_cast<size_t>(c[j].flattenSize()));
            ASSERT_EQ(c[j].flatten(b.data(), b.size()), static_cast<long>(b.size()));
            ASSERT_EQ(b, encode(m[j]));
            if (pick(2)) c[i] = IMetadata();
            ASSERT_EQ(c[i].unflatten(b.data(), b.size()), static_cast<long>(b.size()));
            m[i] = m[j];
        }
        ASSERT_EQ(log.take(), std::vector<std::string>());
        for (size_t n = i; n < i + (step % 8 ? 1 : 4); ++n)  // now and then all: no leaks to copies
            ASSERT_NO_FATAL_FAILURE(expectMatches(c[n % 4], m[n % 4])) << n % 4;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MetadataModelTest, ::testing::Values(1u, 42u, 31337u));

}  // namespace
