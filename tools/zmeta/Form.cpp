// Reading a checked flat form (the layout is in FlatForm.h) or packet into rows.
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/FlatForm.h>
#include <zorcam/metadata/FlatWalk.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Zmeta.h"

namespace zmeta {
namespace {

namespace flat = NSCam::flat;

// Builds the rows of a form from the library's walk of it (FlatWalk.h), which checks every
// length before it tells of the bytes: what it tells is where they lie.
class Builder : public flat::NoVisitor {
public:
    explicit Builder(const uint8_t* data) : mData(data) {}

    void beginBlock(int32_t records) {
        auto form = std::make_unique<Form>();
        // Rows and slots are reserved in full, so the pointers kept to them below stay valid.
        form->rows.reserve(records > 0 ? static_cast<size_t>(records) : 0);
        Form* made = form.get();
        if (mOpen.empty())
            mRoot = std::move(form);
        else
            *mSlot = std::move(form);
        mOpen.push_back(Level{made, nullptr, 0, mSlotEnd});
    }
    void record(uint32_t tag, size_t begin, size_t end) {
        Level& level = mOpen.back();
        level.row = &level.form->rows.emplace_back();
        level.row->tag = tag;
        level.row->hasContent = begin != end;
        level.recordEnd = end;
    }
    void values(int32_t type, int32_t count, size_t at, size_t bytes) {
        Row& row = *mOpen.back().row;
        row.type = type;
        row.count = static_cast<uint32_t>(count);
        row.payload = Span{mData + at, bytes};
    }
    void elements(int32_t type, int32_t count) {
        Row& row = *mOpen.back().row;
        row.type = type;
        row.count = static_cast<uint32_t>(count);
        if (type == NSCam::TYPE_Memory)
            row.blobs.reserve(row.count);
        else
            row.nested.reserve(row.count);
    }
    void blob(size_t at, uint32_t size) {
        mOpen.back().row->blobs.push_back(Span{mData + at, size});
    }
    void slot(size_t, size_t end) {
        mSlot = &mOpen.back().row->nested.emplace_back();  // stays empty for an empty slot
        mSlotEnd = end;
    }
    void contentEnd(size_t at) {
        Level& level = mOpen.back();
        level.row->spare = level.recordEnd - at;
    }
    void endBlock(size_t at) {
        const Level level = mOpen.back();
        mOpen.pop_back();
        if (!mOpen.empty()) level.form->spare = level.slotEnd - at;
    }

    std::unique_ptr<Form> take() { return std::move(mRoot); }

private:
    struct Level {
        Form* form;
        Row* row;          // the row whose record is being walked
        size_t recordEnd;  // where that record ends
        size_t slotEnd;    // where the slot that holds this block ends
    };

    const uint8_t* mData;
    std::unique_ptr<Form> mRoot;
    std::vector<Level> mOpen;
    std::unique_ptr<Form>* mSlot = nullptr;  // the slot the next block fills
    size_t mSlotEnd = 0;
};

bool sameForms(const Form& a, const Form& b) {
    Out ignored;
    return !diffForms(ignored, a, b);
}

}  // namespace

std::unique_ptr<Form> readForm(const uint8_t* data, size_t size) {
    Builder builder(data);
    flat::BasicWalker<Builder> walker(data, 0, builder);
    size_t used = 0;
    if (!walker.storage(0, size, 0, used))
        throw Failure("the check accepted a form this tool cannot read (byte " +
                      std::to_string(walker.offset()) + ": " + walker.reason() + ")");
    std::unique_ptr<Form> form = builder.take();
    form->spare = size - used;
    return form;
}

std::unique_ptr<Form> readPacket(const uint8_t* data, size_t size) {
    const NSCam::AndroidPacketCheck c = NSCam::checkAndroidPacket(data, size);
    if (!c.ok) throw Failure(std::string("the check refused the packet: ") + c.reason);
    auto form = std::make_unique<Form>();
    form->android = true;
    form->spare = size - c.size;
    form->packet =
        PacketHeader{c.size, c.flags, c.entryCapacity, c.dataCount, c.dataCapacity, c.vendorId};
    form->rows.resize(c.entryCount);
    for (uint32_t i = 0; i < c.entryCount; ++i) {
        NSCam::AndroidPacketEntry e;
        if (!NSCam::androidPacketEntry(data, size, i, e))
            throw Failure("the check accepted a packet this tool cannot read (entry " +
                          std::to_string(i) + ")");
        Row& row = form->rows[i];
        row.tag = e.tag;
        row.hasContent = true;
        row.type = e.type;
        row.count = e.count;
        row.payload = Span{e.payload, e.bytes};
    }
    return form;
}

const Row* findRow(const Form& form, uint32_t tag) {
    const Row* found = nullptr;
    for (const Row& row : form.rows)
        if (row.tag == tag) found = &row;
    return found;
}

bool sameRows(const Row& a, const Row& b) {
    if (a.tag != b.tag || a.hasContent != b.hasContent || a.type != b.type || a.count != b.count)
        return false;
    if (a.payload.size != b.payload.size ||
        (a.payload.size && std::memcmp(a.payload.data, b.payload.data, a.payload.size) != 0))
        return false;
    for (size_t i = 0; i < a.blobs.size(); ++i) {
        const Span &x = a.blobs[i], &y = b.blobs[i];
        if (x.size != y.size || (x.size && std::memcmp(x.data, y.data, x.size) != 0)) return false;
    }
    for (size_t i = 0; i < a.nested.size(); ++i) {
        const Form *x = a.nested[i].get(), *y = b.nested[i].get();
        if (!x != !y || (x && !sameForms(*x, *y))) return false;
    }
    return true;
}

}  // namespace zmeta
