// The storage block codec: a table's rows to the flat form's block, and the records of a block
// back to rows. Sizes, limits and the write of nested blocks go without a call per level; what
// is refused is reported through MetadataV2.cpp (see StorageCodec.h).
#include "StorageCodec.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Content.h"
#include "Readers.h"
#include "Storage.h"

namespace NSCam {

using Content = IMetadata::Content;
using codec::forEachSelected;
using flat::kRecordHead;
using flat::kStorageHeader;
using flat::kStorageMagic;

namespace {

// Sizes of storage blocks. A block's size needs the sizes of the blocks nested in it first:
// the storages reachable from the one asked for are settled deepest first with a stack of
// their own (a chain of any length costs no call depth), each once however often it is
// nested, and a storage met again while its own size is still open contains itself.
class Sizer {
public:
    // The block of `s` with the rows of `tags` (every row with `tags` null).
    size_t block(const Storage& s, const uint32_t* tags, long count) {
        if (tags == nullptr) {
            // A table whose rows are all values knows the size of its block.
            const size_t records = tableOf(s).recordBytes();
            if (records != ItemTable::kHeldByContents) return kStorageHeader + records;
        }
        size_t total = kStorageHeader;
        bool whole = true;
        forEachSelected(tableOf(s), tags, count, [&](uint32_t, const RowView& row) {
            const size_t record = recordOf(row);
            whole = whole && record != nested::kNoSize;
            total += kRecordHead + record;
        });
        return whole ? total : nested::kNoSize;
    }
    size_t record(const Content& c) {
        if (!settleAll(c)) return nested::kNoSize;
        return c.flattenSize(&Sizer::known, this);
    }

private:
    size_t recordOf(const RowView& row) {
        if (row.object == nullptr) return record::lengthOf(row.record);
        return record(*row.object);
    }
    // Settles every storage nested in `c`; false when one contains itself.
    bool settleAll(const Content& c) {
        const auto* storages = c.storages();
        if (storages == nullptr || c.mCount == 0) return true;
        for (const auto& s : *storages)
            if (s && !settle(s.get())) return false;
        return true;
    }
    bool settle(const Storage* root) {
        if (mSizes.count(root) != 0) return true;
        std::vector<const Storage*> stack{root};
        while (!stack.empty()) {
            const Storage* s = stack.back();
            if (mSizes.count(s) != 0) {
                stack.pop_back();
                continue;
            }
            if (mOpen.insert(s).second) {
                // First visit: its nested storages go first.
                const size_t before = stack.size();
                bool cycle = false;
                tableOf(*s).forEachObject([&](const Content* c) {
                    const auto* nested = c->storages();
                    if (nested == nullptr || c->mCount == 0) return false;
                    for (const auto& child : *nested) {
                        if (!child || mSizes.count(child.get()) != 0) continue;
                        if (mOpen.count(child.get()) != 0) return cycle = true;
                        stack.push_back(child.get());
                    }
                    return false;
                });
                if (cycle) return false;
                if (stack.size() != before) continue;
            }
            mSizes[s] = block(*s, nullptr, -1);  // every nested block is known now
            mOpen.erase(s);
            stack.pop_back();
        }
        return true;
    }
    static size_t known(const void* self, const Storage& s) {
        const auto& sizes = static_cast<const Sizer*>(self)->mSizes;
        const auto it = sizes.find(&s);
        return it != sizes.end() ? it->second : nested::kNoSize;
    }

    std::unordered_map<const Storage*, size_t> mSizes;
    std::unordered_set<const Storage*> mOpen;
};

}  // namespace

// While a block is written, the sizes of its nested blocks are worked out once, for every
// record that asks (a record is sized before it is written, so that one too long for its
// length field is refused before any of it is).
thread_local Sizer* tWriting = nullptr;

size_t nested::flattenSize(const Storage& s, const uint32_t* tags, long count) {
    Sizer sizer;
    return sizer.block(s, tags, count);
}

size_t nested::recordSize(const Content& c) {
    if (tWriting != nullptr) return tWriting->record(c);
    Sizer sizer;
    return sizer.record(c);
}

nested::Limit nested::brokenLimit(const Storage* root, const Content* lone, const uint32_t* tags,
                                  long count) {
    struct Open {
        const Storage* storage;
        int depth;
    };
    std::vector<Open> open;
    size_t containers = 0;
    // A content holding containers opens each of them one level deeper; the receiver refuses
    // such a content once kMaxNestingDepth containers enclose it, and counts every non-empty
    // slot (an empty one is written as length 0 and costs it nothing). Only rows held by
    // contents can hold containers.
    auto visit = [&](const Content* c, int depth) {
        if (c == nullptr || c->mType != TYPE_IMetadata || c->mCount == 0 || !c->storages())
            return Limit::kNone;
        if (depth >= flat::kMaxNestingDepth) return Limit::kDepth;
        for (const auto& storage : *c->storages()) {
            if (!storage) continue;
            if (++containers > flat::kMaxNestedContainers) return Limit::kContainers;
            open.push_back(Open{storage.get(), depth + 1});
        }
        return Limit::kNone;
    };
    Limit broken = Limit::kNone;
    if (root == nullptr) {
        broken = visit(lone, 0);
    } else if (tags == nullptr) {
        broken = tableOf(*root).forEachObject([&](const Content* c) { return visit(c, 0); });
    } else {
        size_t records = 0;
        forEachSelected(tableOf(*root), tags, count, [&](uint32_t, const RowView& row) {
            ++records;
            if (broken == Limit::kNone) broken = visit(row.object, 0);
        });
        if (records > static_cast<size_t>(flat::kMaxRecords)) return Limit::kRecords;
    }
    while (broken == Limit::kNone && !open.empty()) {
        const Open next = open.back();
        open.pop_back();
        broken = tableOf(*next.storage).forEachObject([&](const Content* c) {
            return visit(c, next.depth);
        });
    }
    return broken;
}

const char* nested::describe(Limit limit, char* out, size_t room) {
    switch (limit) {
        case Limit::kNone:
            snprintf(out, room, "no limit broken");
            break;
        case Limit::kRecords:
            snprintf(out, room, "more than %d records: a receiver would refuse the form",
                     flat::kMaxRecords);
            break;
        case Limit::kDepth:
            snprintf(out, room,
                     "containers nested deeper than %d levels: a receiver would refuse the form",
                     flat::kMaxNestingDepth);
            break;
        case Limit::kContainers:
            snprintf(out, room, "more than %zu nested containers: a receiver would refuse the form",
                     flat::kMaxNestedContainers);
            break;
    }
    return out;
}

long codec::flattenBlock(const Storage& s, void* buf, size_t size, const uint32_t* tags,
                         long count) {
    const flat::EncodeScope scope;
    flat::Writer w(buf, size);
    const ItemTable& table = tableOf(s);
    // Rows of values only are their own flat form already: the header and a copy of each
    // chunk's records. They need no walk of nested containers and no limit but the count of
    // records, which a table cannot exceed.
    if (tags == nullptr && w.fits(kStorageHeader)) {
        size_t written = 0;
        if (table.copyRecords(w.here() + kStorageHeader, w.roomLeft() - kStorageHeader, written)) {
            const uint32_t header[2] = {kStorageMagic, static_cast<uint32_t>(table.size())};
            std::memcpy(w.here(), header, sizeof(header));
            return static_cast<long>(kStorageHeader + written);
        }
    }
    if (scope.outermost) {
        const nested::Limit broken = nested::brokenLimit(&s, nullptr, tags, count);
        if (broken != nested::Limit::kNone) {
            report::brokenLimit("flatten", broken);
            return -1;
        }
    }
    Sizer sizer;
    struct Sizing {
        Sizer* const outer;
        explicit Sizing(Sizer* s) : outer(std::exchange(tWriting, s)) {}
        ~Sizing() { tWriting = outer; }
    } sizing(scope.outermost ? &sizer : tWriting);
    return nested::flatten(s, w, tags, count);
}

long nested::flatten(const Storage& s, flat::Writer& w, const uint32_t* tags, long count) {
    w.putU32(kStorageMagic);
    w.pos = kStorageHeader;
    uint32_t records = 0;
    uint32_t failedTag = 0;
    bool failed = false;
    forEachSelected(tableOf(s), tags, count, [&](uint32_t tag, const RowView& row) {
        if (failed) return;
        const size_t head = w.pos;
        w.putU32At(head, tag);
        w.pos = head + kRecordHead;
        long length = 0;
        if (row.object != nullptr) {
            // A record's length field holds 32 bits: a longer record is refused before any
            // of it is written, never cut to its low bits.
            const size_t need = row.object->flattenSize();
            if (need > UINT32_MAX) {
                report::recordTooLong("flatten", tag, need);
                failed = true;
                failedTag = tag;
                return;
            }
            // Only the content writer is given the remaining capacity; the heads are
            // written first and the whole block judged once at the end.
            flat::Writer body = w.sub(w.pos);
            length = row.object->flatten(body);
            if (length < 0) {
                failed = true;
                failedTag = tag;
                return;
            }
        } else if (row.hasContent()) {
            // A row of values is its record already; written as its content would write it.
            flat::Writer body = w.sub(w.pos);
            length = Content::flattenValues(body, row.type(), row.count(), row.payload(),
                                            record::lengthOf(row.record) - Content::kHeaderSize);
            if (length < 0) {
                failed = true;
                failedTag = tag;
                return;
            }
        }
        w.putU32At(head + 4, static_cast<uint32_t>(length));
        w.pos += static_cast<size_t>(length);
        ++records;
    });
    if (failed) {
        report::encodingFailed(failedTag);
        return -1;
    }
    w.putU32At(4, records);
    if (w.overflowed()) {
        report::flattenOverflow(w.at(w.pos), w.at(w.capacity));
        return -1;
    }
    return static_cast<long>(w.pos);
}

namespace {

// The records of a block one by one, each decoded by its content and filed in order, with
// the reports of whatever is refused: for the blocks the table does not decode by itself.
long decodeRecords(ItemTable& table, flat::Reader& r, size_t records) {
    for (size_t k = 0; k < records; ++k) {
        if (!r.has(kRecordHead))
            return report::unflattenOverflow(r.at(r.pos + kRecordHead), r.end());
        const uint32_t tag = r.u32();
        const uint32_t length = r.u32();
        if (length == 0) {
            table.update(tag, nullptr);
            continue;
        }
        if (!r.has(length)) return report::unflattenOverflow(r.at(r.pos + length), r.end());
        int err = 0;
        std::shared_ptr<Content> content =
            std::allocate_shared<Content>(pool::PoolAllocator<Content>(), r.here(), length, err);
        // The row goes in first; a failed record still leaves the rows read so far.
        table.update(tag, std::move(content));
        if (err != 0) return -1;
        r.pos += length;
    }
    return static_cast<long>(r.pos);
}

}  // namespace

long codec::decodeBlock(ItemTable& table, flat::Reader& r, size_t records) {
    // The table indexes the records where they lie when every one of them decodes without a
    // report; otherwise they are decoded one by one, with the reports.
    size_t end = 0;
    const size_t nested = flat::tDecode.nested;
    if (table.decode(r.base, r.size, r.pos, records, end)) return static_cast<long>(end);
    table.clear();
    flat::tDecode.nested = nested;
    return decodeRecords(table, r, records);
}

std::shared_ptr<Storage> nested::unflatten(const void* buf, size_t size) {
    // Exactly as a container decoded from the bytes would hold it (and report a failure),
    // handed out marked shared, so that whoever edits the nested value copies it first.
    const IMetadata nested(buf, size);
    return nested.getStorageSP();
}

}  // namespace NSCam
