// Long random sequences of container operations over tags from the whole 32-bit space,
// checked after every step against a plain reference: an ordered list of rows that mirrors
// the row order (removal moves the last row into the hole), with groups 1 to 8 sharing one
// key per slot and every other tag its own key.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Content.h"
#include "ItemTable.h"
#include "RecordingLogger.h"

namespace NSCam {
struct MetadataInspector {
    static const std::shared_ptr<IMetadata::Storage>& storage(const IMetadata& m) {
        return m.mStorage;
    }
    static const uint16_t* slots(const IMetadata::Storage& s) { return s.mItemTable.mSlots; }
    static size_t outside(const IMetadata::Storage& s) { return s.mItemTable.mOutside.size(); }
};
}  // namespace NSCam

namespace {

using NSCam::IMetadata;
using NSCam::MetadataInspector;
using NSCam::Type2Type;
using IEntry = IMetadata::IEntry;
using Bytes = std::vector<uint8_t>;
namespace slotmap = NSCam::slotmap;
constexpr uint32_t kNoTag = 0xFFFFFFFF;

struct Row {
    uint32_t tag;
    std::vector<int> values;  // empty: a row without content
};
using Model = std::vector<Row>;

uint64_t keyOf(uint32_t tag) {
    const uint32_t slot = slotmap::slotOf(tag);
    return slot == slotmap::kNone ? tag : (uint64_t{1} << 32) | slot;
}
int find(const Model& m, uint32_t tag) {
    for (size_t i = 0; i < m.size(); ++i)
        if (keyOf(m[i].tag) == keyOf(tag)) return static_cast<int>(i);
    return -1;
}
void modelUpdate(Model& m, uint32_t tag, const std::vector<int>& v) {
    const int i = find(m, tag);
    if (i >= 0)
        m[static_cast<size_t>(i)].values = v;  // the row keeps its place and its tag
    else
        m.push_back({tag, v});
}
bool modelRemove(Model& m, uint32_t tag) {
    const int i = find(m, tag);
    if (i < 0) return false;
    m[static_cast<size_t>(i)] = m.back();
    m.pop_back();
    return true;
}
void modelMerge(Model& into, const Model& from) {
    for (const Row& r : from) modelUpdate(into, r.tag, r.values);
}

void put32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
// The flat form the model's rows must have, written independently of the library.
Bytes encode(const Model& m) {
    Bytes b;
    put32(b, 0x01245432);
    put32(b, static_cast<uint32_t>(m.size()));
    for (const Row& r : m) {
        put32(b, r.tag);
        put32(b, r.values.empty() ? 0 : static_cast<uint32_t>(12 + 4 * r.values.size()));
        if (r.values.empty()) continue;
        put32(b, 0xAB2454CD);
        put32(b, NSCam::TYPE_INT32);
        put32(b, static_cast<uint32_t>(r.values.size()));
        for (int v : r.values) put32(b, static_cast<uint32_t>(v));
    }
    return b;
}

std::vector<int> valuesOf(const IEntry& e) {
    std::vector<int> v;
    for (uint32_t i = 0; i < e.count(); ++i) v.push_back(e.itemAt(i, Type2Type<int>()));
    return v;
}

IEntry entryOf(uint32_t tag, const std::vector<int>& v) {
    IEntry e(tag);
    if (!v.empty()) e.push_back(v.data(), v.size(), Type2Type<int>());
    return e;
}

// The container's rows equal the model's, in order, and its table is consistent: every row
// is found under its tag, and no other slot or side-index entry is set.
void expectMatches(const IMetadata& c, const Model& m, int which) {
    SCOPED_TRACE(which);
    const auto& s = MetadataInspector::storage(c);
    if (!s) {
        ASSERT_TRUE(m.empty());
        return;
    }
    const auto& table = s->mItemTable;
    ASSERT_EQ(table.size(), m.size());
    size_t inMap = 0;
    for (size_t r = 0; r < m.size(); ++r) {
        const auto& item = table.at(r);
        ASSERT_EQ(item.tag, m[r].tag) << r;
        ASSERT_EQ(table.getIndexByTag(item.tag), r);
        if (slotmap::slotOf(item.tag) != slotmap::kNone) ++inMap;
        std::vector<int> v;
        if (item.content) {
            ASSERT_EQ(item.content->mType, NSCam::TYPE_INT32);
            for (int k = 0; k < item.content->mCount; ++k) {
                int x;
                std::memcpy(&x, item.content->getBasicData(k, NSCam::TYPE_INT32), 4);
                v.push_back(x);
            }
        }
        ASSERT_EQ(v, m[r].values) << r;
    }
    const uint16_t* slots = MetadataInspector::slots(*s);
    size_t used = 0;
    for (uint32_t i = 0; i < slotmap::kSlotCount; ++i) used += slots[i] != 0xFFFF;
    ASSERT_EQ(used, inMap);
    ASSERT_EQ(MetadataInspector::outside(*s), m.size() - inMap);
}

class TagSource {
public:
    explicit TagSource(std::mt19937& rng) : mRng(rng) {
        for (uint32_t e = 0; e < slotmap::kSectionEntries; ++e)
            if (slotmap::kSections.start[e] != slotmap::kNone) mSections.push_back(e);
    }

    uint32_t next() {
        const uint32_t r = pick(100);
        uint32_t tag;
        if (r < 40 && !mHot.empty()) {
            tag = mHot[pick(static_cast<uint32_t>(mHot.size()))];
            const uint32_t group = tag >> 28;
            if (group >= 1 && group <= 8 && pick(2))  // the same slot through another group
                tag = (tag & 0x0FFFFFFF) | ((1 + pick(8)) << 28);
            return tag;
        }
        if (r < 65) {
            tag = known(0);
        } else if (r < 80) {
            // Just outside the map: past a section's slots, or in a section without start.
            const uint32_t kind = pick(3);
            tag = kind == 0   ? known(1 + pick(3))
                  : kind == 1 ? (0x00200000u | pick(4))
                              : (0x90000000u | ((3 + pick(0x100)) << 16) | pick(4));
        } else {
            do tag = static_cast<uint32_t>(mRng());
            while (tag == kNoTag);
        }
        if (mHot.size() < 48)
            mHot.push_back(tag);
        else
            mHot[pick(48)] = tag;
        return tag;
    }

private:
    uint32_t pick(uint32_t n) { return static_cast<uint32_t>(mRng() % n); }
    // A tag of a known section, `past` slots beyond its last one (0: inside).
    uint32_t known(uint32_t past) {
        const uint32_t e = mSections[pick(static_cast<uint32_t>(mSections.size()))];
        uint32_t group, section;
        if (e < 36)
            group = 0, section = e;
        else if (e < 68)
            group = 1 + pick(8), section = e - 36;
        else if (e < 329)
            group = 9, section = e - 68;
        else if (e < 350)
            group = 10 + pick(3), section = e - 329;
        else
            group = 13 + pick(3), section = e - 350;
        const uint32_t slots = slotmap::kSections.slots[e];
        const uint32_t index = past ? slots - 1 + past : pick(slots);
        return (group << 28) | (section << 16) | index;
    }

    std::mt19937& mRng;
    std::vector<uint32_t> mSections;
    std::vector<uint32_t> mHot;
};

class MetadataModelTest : public zorcam_test::LoggerTest,
                          public ::testing::WithParamInterface<uint32_t> {};

TEST_P(MetadataModelTest, RandomOperationsMatchTheReference) {
    setLogging(0x2, 0, 0);  // tag mismatches are stored quietly
    std::mt19937 rng(GetParam());
    TagSource tags(rng);
    constexpr int kContainers = 4;
    constexpr int kSteps = 4000;
    std::unique_ptr<IMetadata> c[kContainers];
    Model m[kContainers];
    for (auto& p : c) p = std::make_unique<IMetadata>();
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    auto values = [&] {
        std::vector<int> v(pick(4));
        for (int& x : v) x = static_cast<int>(rng());
        return v;
    };

    for (int step = 0; step < kSteps; ++step) {
        const size_t i = pick(kContainers), j = pick(kContainers), k = pick(kContainers);
        uint32_t op = pick(100);
        if (m[i].size() > 80 && op < 45) op += 45;  // keep the tables from growing forever
        std::string what;
        if (op < 30) {
            what = "update";
            const uint32_t tag = tags.next();
            const std::vector<int> v = values();
            const uint32_t mode = pick(4);
            if (mode == 0) {  // an entry under another tag is stored under the argument
                ASSERT_EQ(c[i]->update(tag, entryOf(tags.next(), v)), 0);
            } else if (mode == 1 && v.size() == 1) {
                ASSERT_EQ(IMetadata::setEntry<int>(c[i].get(), tag, v[0]), 0);
            } else {
                ASSERT_EQ(c[i]->update(entryOf(tag, v)), 0);
            }
            modelUpdate(m[i], tag, v);
        } else if (op < 45) {
            what = "entryFor";
            const uint32_t tag = tags.next();
            const int at = find(m[i], tag);
            const IEntry e = c[i]->entryFor(tag);
            ASSERT_EQ(e.tag(), at < 0 ? kNoTag : tag);
            if (at >= 0) {
                ASSERT_EQ(valuesOf(e), m[i][static_cast<size_t>(at)].values);
            }
        } else if (op < 60) {
            what = "remove";
            const uint32_t tag = tags.next();
            ASSERT_EQ(c[i]->remove(tag), modelRemove(m[i], tag) ? 0 : -1);
        } else if (op < 70) {
            what = "take";
            const uint32_t tag = tags.next();
            const int at = find(m[i], tag);
            const std::vector<int> v =
                at < 0 ? std::vector<int>{} : m[i][static_cast<size_t>(at)].values;
            const IEntry e = c[i]->takeEntryFor(tag);
            ASSERT_EQ(e.tag(), at < 0 ? kNoTag : tag);
            ASSERT_EQ(valuesOf(e), v);
            modelRemove(m[i], tag);
        } else if (op < 76) {
            what = "copy";
            c[i] = std::make_unique<IMetadata>(*c[j]);
            m[i] = m[j];
        } else if (op < 82) {
            what = "assign";
            *c[i] = *c[j];
            m[i] = m[j];
        } else if (op < 88) {
            what = "merge";
            *c[i] += *c[j];
            if (i != j) modelMerge(m[i], m[j]);
        } else if (op < 91) {
            what = "sum";
            Model sum = m[j];
            modelMerge(sum, m[k]);
            *c[i] = *c[j] + *c[k];
            m[i] = sum;
        } else if (op < 97) {
            what = "flatten";
            // All rows, or a list of tags (present, absent and repeated ones).
            std::vector<uint32_t> list;
            list.reserve(8);  // an empty list is still a list, not "all rows"
            Model written;
            const bool filtered = pick(2);
            if (filtered) {
                for (uint32_t n = pick(6); n > 0; --n) {
                    const uint32_t tag = pick(3) == 0 || m[j].empty()
                                             ? tags.next()
                                             : m[j][pick(static_cast<uint32_t>(m[j].size()))].tag;
                    list.push_back(tag);
                    const int at = find(m[j], tag);
                    if (at >= 0) written.push_back(m[j][static_cast<size_t>(at)]);
                }
            } else {
                written = m[j];
            }
            const uint32_t* t = filtered ? list.data() : nullptr;
            const long n = filtered ? static_cast<long>(list.size()) : -1;
            Bytes b(static_cast<size_t>(c[j]->flattenSize(t, n)));
            ASSERT_EQ(c[j]->flatten(b.data(), b.size(), t, n), static_cast<long>(b.size()));
            ASSERT_EQ(b, encode(written));
            Model back;
            for (const Row& r : written) modelUpdate(back, r.tag, r.values);
            if (pick(2)) {
                ASSERT_EQ(c[i]->unflatten(b.data(), b.size()), static_cast<long>(b.size()));
            } else {
                c[i] = std::make_unique<IMetadata>(b.data(), b.size());
            }
            m[i] = back;
        } else if (op < 98) {
            what = "clear";
            c[i]->clear();
            m[i].clear();
        } else {
            what = "entryAt";
            const uint32_t at = pick(static_cast<uint32_t>(m[i].size()) + 1);
            const IEntry e = c[i]->entryAt(at);
            if (at < m[i].size()) {
                ASSERT_EQ(e.tag(), m[i][at].tag);
                ASSERT_EQ(valuesOf(e), m[i][at].values);
            } else {
                ASSERT_EQ(e.tag(), kNoTag);
            }
            if (c[i]->count() != m[i].size()) FAIL() << "count";
        }
        for (int n = 0; n < kContainers; ++n) {
            expectMatches(*c[n], m[n], n);
            if (HasFatalFailure())
                FAIL() << "seed " << GetParam() << " step " << step << " " << what;
        }
        // Only an index past the end is reported.
        if (what != "entryAt" && !log.lines().empty())
            FAIL() << "step " << step << " " << what << ": " << log.lines()[0].text;
        log.reset();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MetadataModelTest,
                         ::testing::Values(1u, 7u, 42u, 1234u, 99991u, 31337u));

}  // namespace
