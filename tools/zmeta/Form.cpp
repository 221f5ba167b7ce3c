// Reading a checked flat form (the layout is in FlatForm.h) or packet into rows.
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/FlatForm.h>

#include <cstring>

#include "Zmeta.h"

namespace zmeta {
namespace {

namespace flat = NSCam::flat;

class Reader {
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    size_t pos() const { return mPos; }
    void seek(size_t pos) { mPos = pos; }

    // The next `n` bytes, which must lie before `end`.
    const uint8_t* take(size_t n, size_t end) {
        if (end > mSize || mPos > end || n > end - mPos) disagree();
        const uint8_t* p = mData + mPos;
        mPos += n;
        return p;
    }
    // Checks that `length` bytes follow, and returns where they end; stays where it is.
    size_t skip(size_t length, size_t end) {
        const size_t start = mPos;
        take(length, end);
        const size_t stop = mPos;
        mPos = start;
        return stop;
    }
    uint32_t u32(size_t end) {
        uint32_t v;
        std::memcpy(&v, take(4, end), 4);
        return v;
    }
    [[noreturn]] void disagree() const {
        throw Failure("the check accepted a form this tool cannot read (byte " +
                      std::to_string(mPos) + ")");
    }

    // One storage block that ends at or before `end`.
    std::unique_ptr<Form> block(size_t end, int depth) {
        if (depth > flat::kMaxNestingDepth || u32(end) != flat::kStorageMagic) disagree();
        // Receivers take a negative record count for an empty table.
        const int32_t declared = static_cast<int32_t>(u32(end));
        if (declared > flat::kMaxRecords) disagree();
        auto form = std::make_unique<Form>();
        form->rows.resize(declared < 0 ? 0 : static_cast<size_t>(declared));
        for (Row& row : form->rows) {
            row.tag = u32(end);
            const size_t recordEnd = skip(u32(end), end);
            if (mPos == recordEnd) continue;  // a row without content
            content(row, recordEnd, depth);
            row.spare = recordEnd - mPos;
            seek(recordEnd);
        }
        return form;
    }

private:
    void content(Row& row, size_t end, int depth) {
        row.hasContent = true;
        if (u32(end) != flat::kContentPattern) disagree();
        row.type = static_cast<int32_t>(u32(end));
        const int32_t count = static_cast<int32_t>(u32(end));
        if (count < 0) disagree();
        row.count = static_cast<uint32_t>(count);
        const NSCam::TypeFacts* facts = NSCam::typeFacts(row.type);
        if (!facts) {
            if (count != 0) disagree();
        } else if (facts->basic) {
            const size_t bytes = static_cast<size_t>(count) * static_cast<size_t>(facts->size);
            row.payload = Span{take(bytes, end), bytes};
        } else if (row.type == NSCam::TYPE_Memory) {
            elements(row.count, end);
            row.blobs.resize(row.count);
            for (Span& blob : row.blobs) {
                blob.size = u32(end);
                blob.data = take(blob.size, end);
            }
        } else {
            elements(row.count, end);
            row.nested.resize(row.count);
            for (std::unique_ptr<Form>& slot : row.nested) {
                const size_t slotEnd = skip(u32(end), end);
                if (mPos == slotEnd) continue;  // an empty slot
                slot = block(slotEnd, depth + 1);
                slot->spare = slotEnd - mPos;
                seek(slotEnd);
            }
        }
    }

    // Blobs and nested slots take at least their length field each: a count that the bytes
    // cannot hold is refused before anything is allocated for it.
    void elements(uint32_t count, size_t end) {
        if (end < mPos || count > (end - mPos) / 4) disagree();
    }

    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
};

bool sameForms(const Form& a, const Form& b) {
    Out ignored;
    return !diffForms(ignored, a, b);
}

}  // namespace

std::unique_ptr<Form> readForm(const uint8_t* data, size_t size) {
    Reader reader(data, size);
    std::unique_ptr<Form> form = reader.block(size, 0);
    form->spare = size - reader.pos();
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
