// Drives a small pool of containers and entries through a sequence of operations read from
// the input and compares them after every step with a model that has plain value semantics.
// Copy-on-write at the storage, content and blob levels must make the real objects behave
// exactly like the model: a copy never sees a later write, a merge lays rows over rows, a
// remove moves the last row into the hole, and a flat round trip gives back what went in.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "Content.h"
#include "FuzzSupport.h"

namespace NSCam {
// Reads the private pointers without the side effects of the public readers (which mark
// storages shared and contents read-only, and so would steer the very paths under test).
struct MetadataInspector {
    static const std::shared_ptr<IMetadata::Storage>& storage(const IMetadata& m) {
        return m.mStorage;
    }
    static const std::shared_ptr<IMetadata::Content>& content(const IMetadata::IEntry& e) {
        return e.mContentPtr;
    }
};
}  // namespace NSCam

namespace {

using namespace NSCam;
using namespace zorcam_fuzz;
using Content = IMetadata::Content;
using Storage = IMetadata::Storage;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Inspect = MetadataInspector;

constexpr uint32_t kNoTag = 0xFFFFFFFFu;
constexpr size_t kBasicSize[TYPE_MRect + 1] = {1, 4, 4, 8, 8, 8, 8, 8, 16};
// Past this flat size the run stops: nesting a container into itself doubles it per step.
constexpr size_t kMaxFlat = 64 * 1024;
constexpr int kMaxOps = 256;
constexpr int kMaxDepth = 64;  // nested records the decoder accepts

// ZORCAM_OPS_TRACE=1 prints each operation, the row counts and the entries after it: handy
// when replaying a crash.
const bool gTrace = std::getenv("ZORCAM_OPS_TRACE") != nullptr;

//------------------------------------------------------------------------------------------
// The model.

struct MMeta;
using MMetaP = std::shared_ptr<const MMeta>;

struct MElem {
    std::vector<uint8_t> bytes;  // a basic value or a blob
    MMetaP meta;                 // a nested container; null for an empty slot
};

struct MContent {
    int32_t type = -1;
    std::vector<MElem> elems;
};

struct MRow {
    uint32_t tag;
    std::optional<MContent> content;
};
using MRows = std::vector<MRow>;

// A container value as it was when it was nested: never changed afterwards.
struct MMeta {
    MRows rows;
    size_t flat;
    int depth;
};

struct MContainer {
    bool hasStorage = false;
    MRows rows;
};

struct MEntry {
    uint32_t tag = kNoTag;
    std::optional<MContent> content;
    bool readOnly = false;
};

size_t contentFlat(const MContent& c) {
    size_t n = 12;
    if (c.elems.empty()) return n;
    for (const MElem& e : c.elems) {
        if (c.type == TYPE_IMetadata)
            n += 4 + (e.meta ? e.meta->flat : 0);
        else if (c.type == TYPE_Memory)
            n += 4 + e.bytes.size();
        else
            n += e.bytes.size();
    }
    return n;
}

// Nested records on the way down from this content (the decoder counts them).
int contentDepth(const MContent& c) {
    if (c.type != TYPE_IMetadata || c.elems.empty()) return 0;
    int deepest = 0;
    for (const MElem& e : c.elems)
        if (e.meta) deepest = std::max(deepest, e.meta->depth);
    return 1 + deepest;
}

size_t rowsFlat(const MRows& rows) {
    size_t n = 8;
    for (const MRow& r : rows) n += 8 + (r.content ? contentFlat(*r.content) : 0);
    return n;
}

int rowsDepth(const MRows& rows) {
    int d = 0;
    for (const MRow& r : rows)
        if (r.content) d = std::max(d, contentDepth(*r.content));
    return d;
}

MMetaP snapshot(const MContainer& c) {
    if (!c.hasStorage) return nullptr;
    return std::make_shared<const MMeta>(MMeta{c.rows, rowsFlat(c.rows), rowsDepth(c.rows)});
}

int findRow(const MRows& rows, uint32_t tag) {
    for (size_t i = 0; i < rows.size(); ++i)
        if (rows[i].tag == tag) return static_cast<int>(i);
    return -1;
}

void upsert(MRows& rows, uint32_t tag, const std::optional<MContent>& content) {
    const int at = findRow(rows, tag);
    if (at >= 0)
        rows[static_cast<size_t>(at)].content = content;
    else
        rows.push_back(MRow{tag, content});
}

// The last row moves into the hole.
void removeRow(MRows& rows, size_t at) {
    if (at + 1 != rows.size()) rows[at] = rows.back();
    rows.pop_back();
}

// Content::update in the model: index -1 appends (the first append fixes the type), any
// other index overwrites elements that exist.
bool modelUpdate(MContent& c, int32_t index, int32_t type, const std::vector<MElem>& elems) {
    if (index == -1) {
        if (c.elems.empty()) c.type = type;
        if (c.type != type) return false;
        c.elems.insert(c.elems.end(), elems.begin(), elems.end());
        return true;
    }
    if (index < 0 || static_cast<uint64_t>(index) + elems.size() > c.elems.size()) return false;
    if (c.type != type) return false;
    std::copy(elems.begin(), elems.end(), c.elems.begin() + index);
    return true;
}

//------------------------------------------------------------------------------------------
// Comparing the real objects with the model, without side effects.

bool sameStorage(const Storage& s, const MRows& rows);

bool sameContent(const Content& c, const MContent& m) {
    if (c.mType != m.type || c.mCount != static_cast<int32_t>(m.elems.size())) return false;
    const size_t count = m.elems.size();
    if (count == 0) return true;
    if (m.type == TYPE_Memory) {
        if (!c.mMemSP || c.mMemSP->size() != count) return false;
        for (size_t i = 0; i < count; ++i) {
            const Memory& mem = (*c.mMemSP)[i];
            size_t n = 0;
            const uint8_t* p = mem.array(n);
            if (n != m.elems[i].bytes.size()) return false;
            if (n && std::memcmp(p, m.elems[i].bytes.data(), n) != 0) return false;
        }
        return true;
    }
    if (m.type == TYPE_IMetadata) {
        if (!c.mMetaSP || c.mMetaSP->size() != count) return false;
        for (size_t i = 0; i < count; ++i) {
            const auto& slot = (*c.mMetaSP)[i];
            const MMetaP& want = m.elems[i].meta;
            if (!slot != !want) return false;
            if (slot && !sameStorage(*slot, want->rows)) return false;
        }
        return true;
    }
    const size_t e = kBasicSize[m.type];
    const uint8_t* bytes = c.mInlineData;
    if (c.mBasicDataSP) {
        if (c.mBasicDataSP->size() != e * count) return false;
        bytes = c.mBasicDataSP->data();
    } else if (count != 1) {
        return false;
    }
    for (size_t i = 0; i < count; ++i)
        if (std::memcmp(bytes + i * e, m.elems[i].bytes.data(), e) != 0) return false;
    return true;
}

bool sameStorage(const Storage& s, const MRows& rows) {
    const auto& table = s.mItemTable;
    if (table.size() != rows.size()) return false;
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& item = table.at(i);
        if (item.tag != rows[i].tag) return false;
        if (!item.content != !rows[i].content) return false;
        if (item.content && !sameContent(*item.content, *rows[i].content)) return false;
        // Every row is found through its slot (or the side index) at its position.
        if (table.getIndexByTag(item.tag) != i) return false;
    }
    return true;
}

// Tags of the palette without a row are not found either.
bool noStrayTags(const Storage& s, const MRows& rows) {
    for (uint32_t tag : kTags)
        if (findRow(rows, tag) < 0 && s.mItemTable.getIndexByTag(tag) != Storage::ItemTable::kNoRow)
            return false;
    return true;
}

bool sameContainer(const IMetadata& meta, const MContainer& m) {
    const auto& storage = Inspect::storage(meta);
    if (!storage != !m.hasStorage) return false;
    return !storage || (sameStorage(*storage, m.rows) && noStrayTags(*storage, m.rows));
}

bool sameEntry(const IEntry& entry, const MEntry& m) {
    const auto& content = Inspect::content(entry);
    if (gTrace)
        std::fprintf(stderr, "  entry tag %x/%x content %d/%d ro %d/%d type %d/%d count %d/%zu\n",
                     entry.tag(), m.tag, !!content, m.content.has_value(),
                     content ? content->isReadOnly() : -1, m.readOnly,
                     content ? content->mType : -2, m.content ? m.content->type : -2,
                     content ? content->mCount : -2, m.content ? m.content->elems.size() : 0);
    if (entry.tag() != m.tag) return false;
    if (!content != !m.content) return false;
    if (!content) return true;
    return content->isReadOnly() == m.readOnly && sameContent(*content, *m.content);
}

//------------------------------------------------------------------------------------------
// Typed dispatch over the eleven value types.

template <typename Fn>
void withType(int32_t type, Fn&& fn) {
    switch (type) {
        case TYPE_UINT8:
            fn(Type2Type<unsigned char>());
            break;
        case TYPE_INT32:
            fn(Type2Type<int>());
            break;
        case TYPE_FLOAT:
            fn(Type2Type<float>());
            break;
        case TYPE_INT64:
            fn(Type2Type<long>());
            break;
        case TYPE_DOUBLE:
            fn(Type2Type<double>());
            break;
        case TYPE_MRational:
            fn(Type2Type<MRational>());
            break;
        case TYPE_MPoint:
            fn(Type2Type<MPoint>());
            break;
        case TYPE_MSize:
            fn(Type2Type<MSize>());
            break;
        case TYPE_MRect:
            fn(Type2Type<MRect>());
            break;
        case TYPE_IMetadata:
            fn(Type2Type<IMetadata>());
            break;
        default:
            fn(Type2Type<Memory>());
            break;
    }
}

template <typename T>
constexpr bool kIsBasic = !std::is_same<T, IMetadata>::value && !std::is_same<T, Memory>::value;

//------------------------------------------------------------------------------------------
// The run.

class Run {
public:
    Run(const uint8_t* data, size_t size) : in(data, size) {
        for (auto& m : meta) m = std::make_unique<IMetadata>();
        for (auto& e : ent) e = std::make_unique<IEntry>();
    }

    void go() {
        for (int step = 0; step < kMaxOps && !in.empty(); ++step) {
            const uint8_t op = in.u8() % kOpCount;
            apply(op);
            if (gTrace)
                std::fprintf(stderr, "op %2d: rows %zu %zu %zu, flat %zu %zu %zu\n", op,
                             mm[0].rows.size(), mm[1].rows.size(), mm[2].rows.size(),
                             rowsFlat(mm[0].rows), rowsFlat(mm[1].rows), rowsFlat(mm[2].rows));
            for (unsigned i = 0; i < kContainers; ++i) FUZZ_REQUIRE(sameContainer(*meta[i], mm[i]));
            for (unsigned i = 0; i < kEntries; ++i) FUZZ_REQUIRE(sameEntry(*ent[i], me[i]));
            if (tooLarge()) return;
        }
        checkAll();
    }

private:
    unsigned pickM() { return in.u8() % kContainers; }
    unsigned pickE() { return in.u8() % kEntries; }

    bool tooLarge() const {
        for (const auto& m : mm)
            if (rowsFlat(m.rows) > kMaxFlat) return true;
        for (const auto& e : me)
            if (e.content && contentFlat(*e.content) > kMaxFlat) return true;
        return false;
    }

    // Values of one type read from the input: the real objects and their model elements.
    template <typename T>
    struct Values {
        std::vector<T> real;
        std::vector<MElem> model;
    };

    template <typename T>
    Values<T> readValues(size_t count) {
        Values<T> v;
        v.real.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            MElem elem;
            if constexpr (std::is_same<T, Memory>::value) {
                // Length in the low six bits; bit 7 asks for no buffer at all.
                const uint8_t shape = in.u8();
                std::vector<uint8_t> bytes(shape & 0x3F);
                in.bytes(bytes.data(), bytes.size());
                // An empty blob, with a buffer or without one, flattens the same.
                if (bytes.empty() && (shape & 0x80))
                    v.real.emplace_back();
                else
                    v.real.emplace_back(bytes.data(), bytes.size());
                elem.bytes = bytes;
            } else if constexpr (std::is_same<T, IMetadata>::value) {
                const uint8_t which = in.u8();
                if (which % 4 == 3) {
                    v.real.emplace_back();  // a container without storage: an empty slot
                } else {
                    const unsigned m = which % kContainers;
                    v.real.emplace_back(*meta[m]);
                    elem.meta = snapshot(mm[m]);
                }
            } else {
                T value;
                std::vector<uint8_t> bytes(sizeof(T));
                in.bytes(bytes.data(), bytes.size());
                std::memcpy(static_cast<void*>(&value), bytes.data(), sizeof(T));
                v.real.push_back(value);
                elem.bytes = bytes;
            }
            v.model.push_back(std::move(elem));
        }
        return v;
    }

    // Before an edit through an entry: a missing content is created, a shared one copied.
    static void makeWritable(MEntry& e) {
        if (!e.content) e.content = MContent{};
        e.readOnly = false;
    }

    void apply(uint8_t op) {
        switch (op) {
            case kEntryReset: {
                const unsigned e = pickE();
                const uint32_t tag = tagAt(in.u8());
                ent[e] = std::make_unique<IEntry>(tag);
                me[e] = MEntry{tag, std::nullopt, false};
                break;
            }
            case kEntryPush: {
                const unsigned e = pickE();
                const int32_t type = in.u8() % NUM_MTYPE;
                const uint8_t shape = in.u8();
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    // A basic append of nothing to an inline content is a fatal misuse; blobs
                    // and nested containers may be appended zero at a time.
                    const size_t count = kIsBasic<T> ? 1 + (shape & 0x7F) % 4 : (shape & 0x7F) % 4;
                    auto v = readValues<T>(count);
                    if (count == 1 && (shape & 0x80))
                        ent[e]->push_back(v.real[0], Type2Type<T>());
                    else
                        ent[e]->push_back(v.real.data(), count, Type2Type<T>());
                    makeWritable(me[e]);
                    modelUpdate(*me[e].content, -1, type, v.model);
                });
                break;
            }
            case kEntryReplace: {
                const unsigned e = pickE();
                const int32_t type = in.u8() % NUM_MTYPE;
                const uint8_t at = in.u8();
                const uint32_t index = at == 0xFF ? 0xFFFFFFFFu : at == 0xFE ? 0x80000000u : at % 6;
                const uint8_t shape = in.u8();
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    const size_t count = 1 + (shape & 0x7F) % 3;
                    auto v = readValues<T>(count);
                    if (count == 1 && (shape & 0x80))
                        ent[e]->replaceItemAt(index, v.real[0], Type2Type<T>());
                    else
                        ent[e]->replaceItemAt(index, v.real.data(), count, Type2Type<T>());
                    makeWritable(me[e]);
                    modelUpdate(*me[e].content, static_cast<int32_t>(index), type, v.model);
                });
                break;
            }
            case kEntryRemoveAt: {
                const unsigned e = pickE();
                const uint8_t at = in.u8();
                const uint32_t index = at == 0xFF ? 0xFFFFFFFFu : at % 6;
                const int32_t got = ent[e]->removeAt(index);
                MEntry& m = me[e];
                int32_t want = -1;
                if (m.content) {
                    makeWritable(m);
                    auto& elems = m.content->elems;
                    if (index < elems.size()) {
                        want = 0;
                        if (elems.size() == 1)
                            m.content = MContent{};
                        else
                            elems.erase(elems.begin() + index);
                    }
                }
                FUZZ_REQUIRE(got == want);
                break;
            }
            case kEntryClear: {
                const unsigned e = pickE();
                ent[e]->clear();
                MEntry& m = me[e];
                if (m.content) {
                    // A shared content is let go; a private one is emptied in place.
                    if (m.readOnly)
                        m.content.reset();
                    else
                        m.content = MContent{};
                    m.readOnly = false;
                }
                break;
            }
            case kEntryAssign: {
                const unsigned e = pickE();
                const unsigned src = pickE();
                const bool construct = in.u8() & 1;
                if (construct)
                    ent[e] = std::make_unique<IEntry>(*ent[src]);
                else
                    *ent[e] = *ent[src];
                if (construct || e != src) {
                    if (me[src].content) me[src].readOnly = true;
                    me[e] = me[src];
                }
                break;
            }
            case kEntryData: {
                const unsigned e = pickE();
                const void* p = ent[e]->data();
                const MEntry& m = me[e];
                if (m.content) me[e].readOnly = true;
                const bool basic = m.content && m.content->type >= 0 &&
                                   m.content->type <= TYPE_MRect && !m.content->elems.empty();
                FUZZ_REQUIRE((p != nullptr) == basic);
                if (basic) {
                    const auto& first = m.content->elems[0].bytes;
                    FUZZ_REQUIRE(std::memcmp(p, first.data(), first.size()) == 0);
                }
                break;
            }
            case kUpdate: {
                const unsigned m = pickM();
                const unsigned e = pickE();
                const uint8_t t = in.u8();
                MEntry& em = me[e];
                if (t == 0xFF) {
                    const int got = meta[m]->update(*ent[e]);
                    if (em.tag == kNoTag) {  // refused: the entry is left as it was
                        FUZZ_REQUIRE(got == -1);
                        break;
                    }
                    FUZZ_REQUIRE(got == 0);
                    upsert(mm[m].rows, em.tag, em.content);
                } else {
                    // A tag other than the entry's is only reported: the row goes under `tag`.
                    const uint32_t tag = tagAt(t);
                    FUZZ_REQUIRE(meta[m]->update(tag, *ent[e]) == 0);
                    upsert(mm[m].rows, tag, em.content);
                }
                // The stored values are shared with the table from now on.
                if (em.content) em.readOnly = true;
                mm[m].hasStorage = true;
                break;
            }
            case kRemove: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int got = meta[m]->remove(tag);
                mm[m].hasStorage = true;
                const int at = findRow(mm[m].rows, tag);
                FUZZ_REQUIRE(got == (at >= 0 ? 0 : -1));
                if (at >= 0) removeRow(mm[m].rows, static_cast<size_t>(at));
                break;
            }
            case kTake:
            case kEntryFor: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const unsigned e = pickE();
                const bool take = op == kTake;
                *ent[e] = take ? meta[m]->takeEntryFor(tag) : meta[m]->entryFor(tag);
                MContainer& c = mm[m];
                const int at = c.hasStorage ? findRow(c.rows, tag) : -1;
                if (at < 0) {
                    me[e] = MEntry{};
                    break;
                }
                const auto& content = c.rows[static_cast<size_t>(at)].content;
                me[e] = MEntry{tag, content, content.has_value()};
                if (take) removeRow(c.rows, static_cast<size_t>(at));
                break;
            }
            case kEntryAt: {
                const unsigned m = pickM();
                const uint32_t index = in.u8() % 8;
                const unsigned e = pickE();
                *ent[e] = meta[m]->entryAt(index);
                const MContainer& c = mm[m];
                if (!c.hasStorage || index >= c.rows.size()) {
                    me[e] = MEntry{};
                } else {
                    const MRow& row = c.rows[index];
                    me[e] = MEntry{row.tag, row.content, row.content.has_value()};
                }
                break;
            }
            case kCopy: {
                const unsigned m = pickM();
                const unsigned src = pickM();
                meta[m] = std::make_unique<IMetadata>(*meta[src]);
                mm[m] = mm[src];
                break;
            }
            case kAssign: {
                const unsigned m = pickM();
                const unsigned src = pickM();
                *meta[m] = *meta[src];
                mm[m] = mm[src];
                break;
            }
            case kMerge: {
                const unsigned m = pickM();
                const unsigned src = pickM();
                *meta[m] += *meta[src];
                if (m != src) mm[m] = merged(mm[m], mm[src]);
                break;
            }
            case kSum: {
                const unsigned m = pickM();
                const unsigned a = pickM();
                const unsigned b = pickM();
                *meta[m] = *meta[a] + *meta[b];
                mm[m] = merged(mm[a], mm[b]);  // the sum starts from a copy, even of b itself
                break;
            }
            case kClear: {
                const unsigned m = pickM();
                meta[m]->clear();
                mm[m] = MContainer{};
                break;
            }
            case kFlattenRebuild: {
                const unsigned m = pickM();
                const bool keep = in.u8() & 1;
                mm[m].hasStorage = true;
                std::vector<uint8_t> flat = flatten(*meta[m], nullptr, 0, mm[m].rows);
                auto rebuilt = rebuild(flat, mm[m].rows, rowsDepth(mm[m].rows));
                if (keep && rebuilt) meta[m] = std::move(rebuilt);
                break;
            }
            case kFlattenFilter: {
                const unsigned m = pickM();
                const unsigned n = in.u8() % 5;
                uint32_t tags[4] = {};  // never null, so that n = 0 selects nothing
                for (unsigned i = 0; i < n; ++i) tags[i] = tagAt(in.u8());
                MContainer& c = mm[m];
                c.hasStorage = true;
                // The listed rows in list order, a repeated tag written twice.
                MRows selected;
                for (unsigned i = 0; i < n; ++i) {
                    const uint32_t tag = tags[i];
                    const int at = findRow(c.rows, tag);
                    if (at >= 0) selected.push_back(c.rows[static_cast<size_t>(at)]);
                }
                std::vector<uint8_t> flat = flatten(*meta[m], tags, n, selected);
                // Read back, a repeated tag leaves one row holding the later record (the
                // earlier one is decoded all the same, and counts for the nesting limit).
                MRows back;
                for (const MRow& r : selected) upsert(back, r.tag, r.content);
                rebuild(flat, back, rowsDepth(selected));
                break;
            }
            case kUnflattenInto: {
                const unsigned m = pickM();
                const unsigned src = pickM();
                mm[src].hasStorage = true;
                std::vector<uint8_t> flat = flatten(*meta[src], nullptr, 0, mm[src].rows);
                if (rowsDepth(mm[src].rows) > kMaxDepth) break;  // refused half way
                FUZZ_REQUIRE(meta[m]->unflatten(flat.data(), flat.size()) ==
                             static_cast<long>(flat.size()));
                mm[m] = MContainer{true, mm[src].rows};
                break;
            }
            case kBurstWrite: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int32_t type = in.u8() % NUM_MTYPE;
                const uint8_t shape = in.u8();
                const uint32_t index = (shape & 0x40) ? 0 : 0xFFFFFFFFu;
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    const bool single = shape & 0x80;
                    const size_t count = single ? 1 : shape % 4;
                    auto v = readValues<T>(count);
                    meta[m]->burstWrite([&](Storage& s) {
                        if (single)
                            s.writeEntry<T>(tag, v.real[0], index);
                        else
                            s.writeEntries<T>(tag, v.real.data(), count, index);
                    });
                    MContainer& c = mm[m];
                    c.hasStorage = true;
                    if (count == 0) {
                        upsert(c.rows, tag, std::nullopt);  // no values: a row without content
                        return;
                    }
                    MContent content;
                    modelUpdate(content, static_cast<int32_t>(index), type, v.model);
                    upsert(c.rows, tag, content);
                });
                break;
            }
            case kSetEntry: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int32_t type = in.u8() % NUM_MTYPE;
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    MContent content;
                    if constexpr (std::is_same<T, IMetadata>::value) {
                        // A container may be set into itself: it nests what it held before.
                        const unsigned src = pickM();
                        content.type = TYPE_IMetadata;
                        content.elems.push_back(MElem{{}, snapshot(mm[src])});
                        FUZZ_REQUIRE(IMetadata::setEntry<T>(meta[m].get(), tag, *meta[src]) == 0);
                    } else {
                        auto v = readValues<T>(1);
                        content.type = type;
                        content.elems = v.model;
                        FUZZ_REQUIRE(IMetadata::setEntry<T>(meta[m].get(), tag, v.real[0]) == 0);
                    }
                    mm[m].hasStorage = true;
                    upsert(mm[m].rows, tag, content);
                });
                break;
            }
            case kGetEntry: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int32_t type = in.u8() % NUM_MTYPE;
                const size_t index = in.u8() % 4;
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    T value{};
                    const bool got = IMetadata::getEntry<T>(meta[m].get(), tag, value, index);
                    const MContainer& c = mm[m];
                    const int at = c.hasStorage ? findRow(c.rows, tag) : -1;
                    const MContent* content = at >= 0 && c.rows[static_cast<size_t>(at)].content
                                                  ? &*c.rows[static_cast<size_t>(at)].content
                                                  : nullptr;
                    const bool want = content && index < content->elems.size();
                    FUZZ_REQUIRE(got == want);
                    if (want) requireValue(value, *content, type, index);
                });
                break;
            }
            case kBurstRead: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int32_t type = in.u8() % NUM_MTYPE;
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    std::vector<T> values(2);
                    const int got = meta[m]->burstRead(
                        [&](const Storage& s) { return s.readEntries<T>(tag, values); });
                    const MContainer& c = mm[m];
                    if (!c.hasStorage) {
                        FUZZ_REQUIRE(got == -1 && values.size() == 2);
                        return;
                    }
                    const int at = findRow(c.rows, tag);
                    FUZZ_REQUIRE(got == (at >= 0 ? 0 : -1));
                    if (at < 0 || !c.rows[static_cast<size_t>(at)].content) {
                        FUZZ_REQUIRE(values.size() == 2);  // untouched
                        return;
                    }
                    const MContent& content = *c.rows[static_cast<size_t>(at)].content;
                    FUZZ_REQUIRE(values.size() == content.elems.size());
                    for (size_t i = 0; i < values.size(); ++i)
                        requireValue(values[i], content, type, i);
                });
                break;
            }
            case kCheck:
                checkAll();
                break;
        }
    }

    static MContainer merged(const MContainer& into, const MContainer& from) {
        if (!from.hasStorage) return into;
        if (!into.hasStorage) return from;  // shares the other's storage
        MContainer out = into;
        for (const MRow& r : from.rows) upsert(out.rows, r.tag, r.content);
        return out;
    }

    // A value read through a typed reader: the element when the type matches, else the
    // type's empty value.
    template <typename T>
    static void requireValue(const T& value, const MContent& content, int32_t type, size_t i) {
        const bool match = content.type == type;
        if constexpr (std::is_same<T, Memory>::value) {
            const size_t n = match ? content.elems[i].bytes.size() : 0;
            FUZZ_REQUIRE(value.size() == n);
            if (n) FUZZ_REQUIRE(std::memcmp(value.array(), content.elems[i].bytes.data(), n) == 0);
        } else if constexpr (std::is_same<T, IMetadata>::value) {
            const MMetaP want = match ? content.elems[i].meta : nullptr;
            const auto& storage = Inspect::storage(value);
            FUZZ_REQUIRE(!storage == !want);
            if (storage) FUZZ_REQUIRE(sameStorage(*storage, want->rows));
        } else {
            T expected{};
            if (match)
                std::memcpy(static_cast<void*>(&expected), content.elems[i].bytes.data(),
                            sizeof(T));
            FUZZ_REQUIRE(std::memcmp(&value, &expected, sizeof(T)) == 0);
        }
    }

    // Flattens with the given selection and checks the sizes against the model; also that
    // a buffer one byte short is refused without a byte written past it.
    std::vector<uint8_t> flatten(const IMetadata& m, const uint32_t* tags, long n,
                                 const MRows& selected) {
        const size_t size = rowsFlat(selected);
        const long count = tags ? n : -1;
        FUZZ_REQUIRE(m.flattenSize(tags, count) == static_cast<long>(size));
        std::vector<uint8_t> flat(size);
        FUZZ_REQUIRE(m.flatten(flat.data(), size, tags, count) == static_cast<long>(size));
        std::unique_ptr<uint8_t[]> shortBuf(new uint8_t[size - 1]);
        FUZZ_REQUIRE(m.flatten(shortBuf.get(), size - 1, tags, count) == -1);
        return flat;
    }

    // Rebuilds from a flat form the library wrote: refused only when nested too deep.
    std::unique_ptr<IMetadata> rebuild(const std::vector<uint8_t>& flat, const MRows& rows,
                                       int depth) {
        const FlatCheck c = checkFlatMetadata(flat.data(), flat.size());
        const bool deep = depth > kMaxDepth;
        FUZZ_REQUIRE(c.ok == !deep);
        if (deep)
            FUZZ_REQUIRE(std::strcmp(c.reason, "nesting too deep") == 0);
        else
            FUZZ_REQUIRE(c.consumed == flat.size());
        auto back = std::make_unique<IMetadata>(flat.data(), flat.size());
        const auto& storage = Inspect::storage(*back);
        FUZZ_REQUIRE(!storage == deep);
        if (deep) return nullptr;
        FUZZ_REQUIRE(sameStorage(*storage, rows));
        FUZZ_REQUIRE(back->count() == rows.size());
        return back;
    }

    // The public readers agree with the model too.
    void checkAll() {
        for (unsigned i = 0; i < kContainers; ++i) {
            const MContainer& c = mm[i];
            FUZZ_REQUIRE(meta[i]->count() == (c.hasStorage ? c.rows.size() : 0));
            FUZZ_REQUIRE(meta[i]->isEmpty() == c.rows.empty());
            for (uint32_t tag : kTags) {
                const IEntry e = meta[i]->entryFor(tag);
                const int at = c.hasStorage ? findRow(c.rows, tag) : -1;
                FUZZ_REQUIRE(e.tag() == (at >= 0 ? tag : kNoTag));
                if (at < 0) continue;
                const auto& content = c.rows[static_cast<size_t>(at)].content;
                FUZZ_REQUIRE(e.count() == (content ? content->elems.size() : 0));
                FUZZ_REQUIRE(e.type() == (content ? content->type : -1));
            }
        }
        for (unsigned i = 0; i < kEntries; ++i) {
            const MEntry& m = me[i];
            FUZZ_REQUIRE(ent[i]->count() == (m.content ? m.content->elems.size() : 0));
            FUZZ_REQUIRE(ent[i]->type() == (m.content ? m.content->type : -1));
            FUZZ_REQUIRE(ent[i]->isEmpty() == (!m.content || m.content->elems.empty()));
        }
    }

    ByteReader in;
    std::unique_ptr<IMetadata> meta[kContainers];
    MContainer mm[kContainers];
    std::unique_ptr<IEntry> ent[kEntries];
    MEntry me[kEntries];
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Run(data, size).go();
    return 0;
}
