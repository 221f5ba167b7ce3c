// Drives a small pool of containers and entries through a sequence of operations read from
// the input and compares them after every step with a model that has plain value semantics.
// Copy-on-write at the storage, content and blob levels must make the real objects behave
// exactly like the model: a copy never sees a later write, a merge lays rows over rows, a
// remove moves the last row into the hole, tags of groups 1 to 8 that share a slot share a
// row (which keeps the tag it was made with), and a flat round trip gives back what went in.
// The model is compared through the flat form, which it writes by itself from the layout in
// FlatForm.h, and through the tag index of every tag of the palette.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "Content.h"
#include "FuzzSupport.h"
#include "ItemTable.h"
#include "MetadataInspector.h"
#include "Storage.h"

namespace {

using namespace NSCam;
using namespace zorcam_fuzz;
using Content = IMetadata::Content;
using Storage = IMetadata::Storage;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Inspect = MetadataInspector;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kNoTag = 0xFFFFFFFFu;
// Past this flat size the run stops: nesting a container into itself doubles it per step.
constexpr size_t kMaxFlat = 64 * 1024;
constexpr int kMaxOps = 256;

//------------------------------------------------------------------------------------------
// The model.

struct MMeta;
using MMetaP = std::shared_ptr<const MMeta>;

struct MElem {
    Bytes bytes;  // a basic value or a blob
    MMetaP meta;  // a nested container; null for an empty slot
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
    int depth;  // nested records on the way down, as the decoder counts them
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

int depthOf(const MRows& rows) {
    int deepest = 0;
    for (const MRow& r : rows) {
        if (!r.content || r.content->type != TYPE_IMetadata || r.content->elems.empty()) continue;
        int d = 1;
        for (const MElem& e : r.content->elems)
            if (e.meta) d = std::max(d, 1 + e.meta->depth);
        deepest = std::max(deepest, d);
    }
    return deepest;
}

MMetaP snapshot(const MContainer& c) {
    if (!c.hasStorage) return nullptr;
    return std::make_shared<const MMeta>(MMeta{c.rows, depthOf(c.rows)});
}

// Tags of groups 1 to 8 with the same section and index share one slot, and so one row.
uint64_t keyOf(uint32_t tag) {
    const uint32_t slot = slotmap::slotOf(tag);
    return slot == slotmap::kNone ? tag : (uint64_t{1} << 32) | slot;
}

int findRow(const MRows& rows, uint32_t tag) {
    for (size_t i = 0; i < rows.size(); ++i)
        if (keyOf(rows[i].tag) == keyOf(tag)) return static_cast<int>(i);
    return -1;
}

// A row found through a slot sharer keeps its own tag and takes the new values.
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
void modelUpdate(MContent& c, int32_t index, int32_t type, const std::vector<MElem>& elems) {
    if (index == -1) {
        if (c.elems.empty()) c.type = type;
        if (c.type == type) c.elems.insert(c.elems.end(), elems.begin(), elems.end());
        return;
    }
    if (index < 0 || static_cast<uint64_t>(index) + elems.size() > c.elems.size()) return;
    if (c.type == type) std::copy(elems.begin(), elems.end(), c.elems.begin() + index);
}

//------------------------------------------------------------------------------------------
// The flat form of the model, written from the documented layout alone.

void put32(Bytes& b, uint32_t v) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
    b.insert(b.end(), p, p + 4);
}

Bytes encode(const MRows& rows);

void encodeContent(Bytes& b, const MContent& c) {
    put32(b, flat::kContentPattern);
    put32(b, static_cast<uint32_t>(c.type));
    put32(b, static_cast<uint32_t>(c.elems.size()));
    for (const MElem& e : c.elems) {
        const Bytes nested = c.type == TYPE_IMetadata && e.meta ? encode(e.meta->rows) : Bytes();
        const Bytes& payload = c.type == TYPE_IMetadata ? nested : e.bytes;
        if (c.type == TYPE_IMetadata || c.type == TYPE_Memory)
            put32(b, static_cast<uint32_t>(payload.size()));
        b.insert(b.end(), payload.begin(), payload.end());
    }
}

// The size of what encode() writes, without writing it.
size_t encodedSize(const MRows& rows);
size_t encodedSize(const MContent& c) {
    size_t n = 12;
    for (const MElem& e : c.elems) {
        if (c.type == TYPE_IMetadata)
            n += 4 + (e.meta ? encodedSize(e.meta->rows) : 0);
        else
            n += (c.type == TYPE_Memory ? 4 : 0) + e.bytes.size();
    }
    return n;
}
size_t encodedSize(const MRows& rows) {
    size_t n = 8;
    for (const MRow& r : rows) n += 8 + (r.content ? encodedSize(*r.content) : 0);
    return n;
}

Bytes encode(const MRows& rows) {
    Bytes b;
    put32(b, flat::kStorageMagic);
    put32(b, static_cast<uint32_t>(rows.size()));
    for (const MRow& r : rows) {
        put32(b, r.tag);
        Bytes c;
        if (r.content) encodeContent(c, *r.content);
        put32(b, static_cast<uint32_t>(c.size()));
        b.insert(b.end(), c.begin(), c.end());
    }
    return b;
}

//------------------------------------------------------------------------------------------
// Comparing the real objects with the model, through their own flat writers: no public
// reader is called, as those mark storages shared and contents read-only.

template <typename Writer>
Bytes written(size_t size, Writer&& write) {
    Bytes b(size + 1);
    const long n = write(b.data(), b.size());
    b.resize(n < 0 ? 0 : static_cast<size_t>(n));  // refused: never the model's bytes
    return b;
}

// The rows and the index of every tag of the palette, and with `values`, their values and
// order, byte for byte.
bool sameStorage(const Storage& s, const MRows& rows, bool values) {
    if (s.size() != rows.size()) return false;
    if (values && depthOf(rows) <= flat::kMaxNestingDepth) {  // deeper forms: refused by flatten
        const Bytes want = encode(rows);
        if (written(want.size(), [&](void* p, size_t n) { return s.flatten(p, n, nullptr, -1); }) !=
            want)
            return false;
    }
    for (uint32_t tag : kTags) {
        const int at = findRow(rows, tag);
        const uint16_t row = NSCam::tableOf(s).getIndexByTag(tag);
        if (row != (at < 0 ? Storage::ItemTable::kNoRow : static_cast<uint16_t>(at))) return false;
    }
    return true;
}

bool sameContainer(const IMetadata& meta, const MContainer& m, bool values) {
    const auto storage = Inspect::storage(meta);
    if (!storage != !m.hasStorage) return false;
    return !storage || sameStorage(*storage, m.rows, values);
}

bool sameEntry(const IEntry& entry, const MEntry& m) {
    const auto content = Inspect::content(entry);
    if (entry.tag() != m.tag || !content != !m.content) return false;
    if (!content) return true;
    if (content->isReadOnly() != m.readOnly) return false;
    Bytes want;
    encodeContent(want, *m.content);
    if (depthOf({MRow{0, m.content}}) > flat::kMaxNestingDepth) return true;
    return written(want.size(), [&](void* p, size_t n) { return content->flatten(p, n); }) == want;
}

//------------------------------------------------------------------------------------------
// Typed dispatch over the eleven value types.

template <typename Fn>
void withType(int32_t type, Fn&& fn) {
    switch (type) {
        case TYPE_UINT8:
            return fn(Type2Type<unsigned char>());
        case TYPE_INT32:
            return fn(Type2Type<int>());
        case TYPE_FLOAT:
            return fn(Type2Type<float>());
        case TYPE_INT64:
            return fn(Type2Type<long>());
        case TYPE_DOUBLE:
            return fn(Type2Type<double>());
        case TYPE_MRational:
            return fn(Type2Type<MRational>());
        case TYPE_MPoint:
            return fn(Type2Type<MPoint>());
        case TYPE_MSize:
            return fn(Type2Type<MSize>());
        case TYPE_MRect:
            return fn(Type2Type<MRect>());
        case TYPE_IMetadata:
            return fn(Type2Type<IMetadata>());
        default:
            return fn(Type2Type<Memory>());
    }
}

template <typename T>
constexpr bool kIsBasic = kTypeFacts[TypeCode<T>::value].basic;

//------------------------------------------------------------------------------------------
// The run.

class Run {
public:
    Run(const uint8_t* data, size_t size) : in(data, size) {
        for (auto& m : meta) m = std::make_unique<IMetadata>();
        for (auto& e : ent) e = std::make_unique<IEntry>();
    }

    // After each step the containers it touched are compared with the model by their rows and
    // index, and the entries it touched by their values (an object no step touches cannot
    // change: copies share until written); after the last, every container byte for byte, and
    // every entry read back.
    void go() {
        for (int step = 0; step < kMaxOps && !in.empty(); ++step) {
            touchedM = touchedE = 0;
            apply(in.u8() % kOpCount);
            bool large = false;
            for (unsigned i = 0; i < kContainers; ++i) {
                if (!(touchedM >> i & 1)) continue;
                FUZZ_REQUIRE(sameContainer(*meta[i], mm[i], false));
                large = large || encodedSize(mm[i].rows) > kMaxFlat;
            }
            for (unsigned i = 0; i < kEntries; ++i) {
                if (!(touchedE >> i & 1)) continue;
                FUZZ_REQUIRE(sameEntry(*ent[i], me[i]));
                large = large || (me[i].content && encodedSize(*me[i].content) > kMaxFlat);
            }
            if (large) break;
        }
        for (unsigned i = 0; i < kContainers; ++i)
            FUZZ_REQUIRE(sameContainer(*meta[i], mm[i], true));
        for (unsigned i = 0; i < kEntries; ++i) FUZZ_REQUIRE(sameEntry(*ent[i], me[i]));
        checkAll();
    }

private:
    unsigned pickM() { return touch(touchedM, in.u8() % kContainers); }
    unsigned pickE() { return touch(touchedE, in.u8() % kEntries); }
    static unsigned touch(uint32_t& touched, unsigned i) {
        touched |= 1u << i;
        return i;
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
        for (size_t i = 0; i < count; ++i) {
            MElem elem;
            if constexpr (std::is_same<T, Memory>::value) {
                // Length in the low six bits; bit 7 asks for no buffer at all.
                const uint8_t shape = in.u8();
                elem.bytes.resize(shape & 0x3F);
                in.bytes(elem.bytes.data(), elem.bytes.size());
                // An empty blob, with a buffer or without one, flattens the same.
                if (elem.bytes.empty() && (shape & 0x80))
                    v.real.emplace_back();
                else
                    v.real.emplace_back(elem.bytes.data(), elem.bytes.size());
            } else if constexpr (std::is_same<T, IMetadata>::value) {
                const uint8_t which = in.u8();
                if (which % 4 == 3) {
                    v.real.emplace_back();  // a container without storage: an empty slot
                } else {
                    touch(touchedM, which % kContainers);
                    v.real.emplace_back(*meta[which % kContainers]);
                    elem.meta = snapshot(mm[which % kContainers]);
                }
            } else {
                T value;
                elem.bytes.resize(sizeof(T));
                in.bytes(elem.bytes.data(), sizeof(T));
                std::memcpy(static_cast<void*>(&value), elem.bytes.data(), sizeof(T));
                v.real.push_back(value);
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

    // The row of `tag` in container m, or null.
    const MRow* rowOf(unsigned m, uint32_t tag) const {
        const int at = mm[m].hasStorage ? findRow(mm[m].rows, tag) : -1;
        return at < 0 ? nullptr : &mm[m].rows[static_cast<size_t>(at)];
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
            case kEntryPush:
            case kEntryReplace: {
                const bool push = op == kEntryPush;
                const unsigned e = pickE();
                const int32_t type = in.u8() % NUM_MTYPE;
                const uint8_t at = push ? 0xFF : in.u8();
                const uint32_t index = at == 0xFF ? kNoTag : at == 0xFE ? 0x80000000u : at % 6;
                const uint8_t shape = in.u8();
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    // A basic append of nothing to an inline content is a fatal misuse; blobs
                    // and nested containers may be appended zero at a time.
                    const size_t count =
                        push ? (kIsBasic<T> ? 1 : 0) + (shape & 0x7F) % 4 : 1 + (shape & 0x7F) % 3;
                    auto v = readValues<T>(count);
                    const bool one = count == 1 && (shape & 0x80);
                    if (push && one) ent[e]->push_back(v.real[0], Type2Type<T>());
                    if (push && !one) ent[e]->push_back(v.real.data(), count, Type2Type<T>());
                    if (!push && one) ent[e]->replaceItemAt(index, v.real[0], Type2Type<T>());
                    if (!push && !one)
                        ent[e]->replaceItemAt(index, v.real.data(), count, Type2Type<T>());
                    makeWritable(me[e]);
                    modelUpdate(*me[e].content, static_cast<int32_t>(index), type, v.model);
                });
                break;
            }
            case kEntryRemoveAt: {
                const unsigned e = pickE();
                const uint8_t at = in.u8();
                const uint32_t index = at == 0xFF ? kNoTag : at % 6;
                const int32_t got = ent[e]->removeAt(index);
                MEntry& m = me[e];
                int32_t want = -1;
                if (m.content) {
                    makeWritable(m);
                    auto& elems = m.content->elems;
                    if (index < elems.size()) {
                        want = 0;
                        elems.erase(elems.begin() + index);
                        if (elems.empty()) m.content = MContent{};  // the type goes too
                    }
                }
                FUZZ_REQUIRE(got == want);
                break;
            }
            case kEntryClear: {
                const unsigned e = pickE();
                ent[e]->clear();
                MEntry& m = me[e];
                // A shared content is let go; a private one is emptied in place.
                if (m.content) m.content = m.readOnly ? std::nullopt : std::optional(MContent{});
                m.readOnly = false;
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
                MEntry& m = me[e];
                if (m.content) m.readOnly = true;
                const bool basic = m.content && m.content->type >= 0 &&
                                   kTypeFacts[m.content->type].basic && !m.content->elems.empty();
                FUZZ_REQUIRE((p != nullptr) == basic);
                if (basic) {
                    const Bytes& first = m.content->elems[0].bytes;
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
                    FUZZ_REQUIRE(meta[m]->update(tagAt(t), *ent[e]) == 0);
                    upsert(mm[m].rows, tagAt(t), em.content);
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
                const MRow* row = rowOf(m, tag);
                // The entry carries the tag asked for, also when a slot sharer's row answered.
                me[e] = row ? MEntry{tag, row->content, row->content.has_value()} : MEntry{};
                if (row && take) removeRow(mm[m].rows, static_cast<size_t>(row - &mm[m].rows[0]));
                break;
            }
            case kEntryAt: {
                const unsigned m = pickM();
                const uint32_t index = in.u8() % 8;
                const unsigned e = pickE();
                *ent[e] = meta[m]->entryAt(index);
                const MContainer& c = mm[m];
                const MRow* row = c.hasStorage && index < c.rows.size() ? &c.rows[index] : nullptr;
                me[e] = row ? MEntry{row->tag, row->content, row->content.has_value()} : MEntry{};
                break;
            }
            case kCopy:
            case kAssign: {
                const unsigned m = pickM();
                const unsigned src = pickM();
                if (op == kCopy)
                    meta[m] = std::make_unique<IMetadata>(*meta[src]);
                else
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
                const Bytes flat = flatten(*meta[m], nullptr, 0, mm[m].rows);
                auto rebuilt = rebuild(flat, mm[m].rows, depthOf(mm[m].rows));
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
                // The listed rows in list order, each under the tag listed, a repeated tag
                // written twice.
                MRows selected;
                for (unsigned i = 0; i < n; ++i)
                    if (const MRow* row = rowOf(m, tags[i]))
                        selected.push_back(MRow{tags[i], row->content});
                const Bytes flat = flatten(*meta[m], tags, n, selected);
                // Read back, a repeated tag leaves one row holding the later record (the
                // earlier one is decoded all the same, and counts for the nesting limit).
                MRows back;
                for (const MRow& r : selected) upsert(back, r.tag, r.content);
                rebuild(flat, back, depthOf(selected));
                break;
            }
            case kUnflattenInto: {
                const unsigned m = pickM();
                const unsigned src = pickM();
                mm[src].hasStorage = true;
                const Bytes flat = flatten(*meta[src], nullptr, 0, mm[src].rows);
                if (depthOf(mm[src].rows) > flat::kMaxNestingDepth) break;  // refused
                FUZZ_REQUIRE(meta[m]->unflatten(const_cast<uint8_t*>(flat.data()), flat.size()) ==
                             static_cast<long>(flat.size()));
                mm[m] = MContainer{true, mm[src].rows};
                break;
            }
            case kBurstWrite: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int32_t type = in.u8() % NUM_MTYPE;
                const uint8_t shape = in.u8();
                const uint32_t index = (shape & 0x40) ? 0 : kNoTag;
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
                    mm[m].hasStorage = true;
                    std::optional<MContent> content;  // no values: a row without content
                    if (count != 0) modelUpdate(content.emplace(), index, type, v.model);
                    upsert(mm[m].rows, tag, content);
                });
                break;
            }
            case kSetEntry: {
                const unsigned m = pickM();
                const uint32_t tag = tagAt(in.u8());
                const int32_t type = in.u8() % NUM_MTYPE;
                withType(type, [&](auto t) {
                    using T = typename decltype(t)::Type;
                    MContent content{type, {}};
                    if constexpr (std::is_same<T, IMetadata>::value) {
                        // A container may be set into itself: it nests what it held before.
                        const unsigned src = pickM();
                        content.elems.push_back(MElem{{}, snapshot(mm[src])});
                        FUZZ_REQUIRE(IMetadata::setEntry<T>(meta[m].get(), tag, *meta[src]) == 0);
                    } else {
                        auto v = readValues<T>(1);
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
                    const MRow* row = rowOf(m, tag);
                    const MContent* content = row && row->content ? &*row->content : nullptr;
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
                    const MRow* row = rowOf(m, tag);
                    FUZZ_REQUIRE(got == (row ? 0 : -1));
                    if (!row || !row->content) {
                        FUZZ_REQUIRE(values.size() == 2);  // untouched
                        return;
                    }
                    FUZZ_REQUIRE(values.size() == row->content->elems.size());
                    for (size_t i = 0; i < values.size(); ++i)
                        requireValue(values[i], *row->content, type, i);
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
            const Bytes want = match ? content.elems[i].bytes : Bytes();
            FUZZ_REQUIRE(value.size() == want.size());
            if (!want.empty())
                FUZZ_REQUIRE(std::memcmp(value.array(), want.data(), want.size()) == 0);
        } else if constexpr (std::is_same<T, IMetadata>::value) {
            const MMetaP want = match ? content.elems[i].meta : nullptr;
            const auto storage = Inspect::storage(value);
            FUZZ_REQUIRE(!storage == !want);
            if (storage) FUZZ_REQUIRE(sameStorage(*storage, want->rows, true));
        } else {
            T expected{};
            if (match)
                std::memcpy(static_cast<void*>(&expected), content.elems[i].bytes.data(),
                            sizeof(T));
            FUZZ_REQUIRE(std::memcmp(&value, &expected, sizeof(T)) == 0);
        }
    }

    // Flattens with the given selection: the model's bytes, also for the size asked first,
    // and a buffer one byte short is refused. A form nested too deep has its size, and is
    // refused by flatten.
    Bytes flatten(const IMetadata& m, const uint32_t* tags, long n, const MRows& selected) {
        const Bytes want = encode(selected);
        const long count = tags ? n : -1;
        FUZZ_REQUIRE(m.flattenSize(tags, count) == static_cast<long>(want.size()));
        if (depthOf(selected) > flat::kMaxNestingDepth) {
            Bytes none(want.size());
            FUZZ_REQUIRE(m.flatten(none.data(), none.size(), tags, count) == -1);
            return want;
        }
        Bytes flat(want.size());
        FUZZ_REQUIRE(m.flatten(flat.data(), flat.size(), tags, count) ==
                     static_cast<long>(flat.size()));
        FUZZ_REQUIRE(flat == want);
        std::unique_ptr<uint8_t[]> shortBuf(new uint8_t[flat.size() - 1]);
        FUZZ_REQUIRE(m.flatten(shortBuf.get(), flat.size() - 1, tags, count) == -1);
        return flat;
    }

    // Rebuilds from a flat form: refused only when nested too deep.
    std::unique_ptr<IMetadata> rebuild(const Bytes& flat, const MRows& rows, int depth) {
        const FlatCheck c = checkFlatMetadata(flat.data(), flat.size());
        const bool deep = depth > flat::kMaxNestingDepth;
        FUZZ_REQUIRE(c.ok == !deep && c.consumed == (deep ? 0 : flat.size()));
        FUZZ_REQUIRE(!deep || std::strcmp(c.reason, "nesting too deep") == 0);
        auto back = std::make_unique<IMetadata>(flat.data(), flat.size());
        const auto storage = Inspect::storage(*back);
        FUZZ_REQUIRE(!storage == deep);
        if (deep) return nullptr;
        FUZZ_REQUIRE(sameStorage(*storage, rows, true) && back->count() == rows.size());
        return back;
    }

    // The public readers agree with the model too.
    void checkAll() {
        for (unsigned i = 0; i < kContainers; ++i) {
            FUZZ_REQUIRE(meta[i]->count() == mm[i].rows.size());
            FUZZ_REQUIRE(meta[i]->isEmpty() == mm[i].rows.empty());
            for (uint32_t tag : kTags) {
                const IEntry e = meta[i]->entryFor(tag);
                const MRow* row = rowOf(i, tag);
                FUZZ_REQUIRE(e.tag() == (row ? tag : kNoTag));
                if (row) checkEntry(e, row->content);
            }
        }
        for (unsigned i = 0; i < kEntries; ++i) checkEntry(*ent[i], me[i].content);
    }

    static void checkEntry(const IEntry& e, const std::optional<MContent>& content) {
        const size_t count = content ? content->elems.size() : 0;
        FUZZ_REQUIRE(e.count() == count && e.isEmpty() == (count == 0));
        FUZZ_REQUIRE(e.type() == (content ? content->type : -1));
    }

    ByteReader in;
    uint32_t touchedM = 0, touchedE = 0;  // what the step under way touched, a bit each
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
