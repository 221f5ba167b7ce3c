#pragma once
// Cursors over the flat form. The form is little-endian and unpadded, so every field is
// copied with memcpy. Decoding never reads outside the buffer it was given. Encoding keeps
// two limits: the capacity the caller declared (which decides results and reports, checked
// once at the end as it always was) and the bytes that really exist behind the pointer,
// past which nothing is ever written even when a nested writer was handed a capacity that
// wrapped around.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <zorcam/metadata/FlatForm.h>

namespace NSCam {
namespace flat {

// What one decode on this thread has seen so far. A decode starts at whichever decoder is
// entered first (a container's storage block, or a lone content record) and spans every
// record and nested container below it.
struct DecodeState {
    int scopes = 0;     // decoders entered and not yet left
    int depth = 0;      // nested containers open
    size_t nested = 0;  // nested containers decoded since the decode started
};
inline thread_local DecodeState tDecode;

struct DecodeScope {
    DecodeScope() {
        if (tDecode.scopes++ == 0) tDecode.nested = 0;
    }
    ~DecodeScope() { --tDecode.scopes; }
    DecodeScope(const DecodeScope&) = delete;
    DecodeScope& operator=(const DecodeScope&) = delete;
};

struct Writer {
    uint8_t* base;
    size_t capacity;  // declared by the caller
    size_t writable;  // bytes that really exist at base
    size_t pos = 0;

    Writer(void* buf, size_t cap) : Writer(buf, cap, cap) {}
    Writer(void* buf, size_t cap, size_t real)
        : base(static_cast<uint8_t*>(buf)), capacity(cap), writable(real < cap ? real : cap) {}

    // Copies what fits into the real buffer; the cursor always advances by n.
    void put(const void* src, size_t n) {
        if (pos < writable) {
            const size_t room = writable - pos;
            std::memcpy(base + pos, src, n < room ? n : room);
        }
        pos += n;
    }
    void putU32At(size_t at, uint32_t v) {
        if (at + 4 <= writable) std::memcpy(base + at, &v, 4);
    }
    void putU32(uint32_t v) { put(&v, 4); }
    // A writer for a nested block starting `offset` bytes past this one's start: its declared
    // capacity is what is left of ours (wrapping, as the unchecked subtraction always did),
    // its real room what is left of the real buffer.
    Writer sub(size_t offset) const {
        return Writer(base + offset, capacity - offset, writable > offset ? writable - offset : 0);
    }
    bool overflowed() const { return pos > capacity; }
    const void* at(size_t offset) const {
        return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(base) + offset);
    }
};

struct Reader {
    const uint8_t* base;
    size_t size;
    size_t pos = 0;

    Reader(const void* buf, size_t n) : base(static_cast<const uint8_t*>(buf)), size(n) {}

    size_t remaining() const { return pos <= size ? size - pos : 0; }
    bool has(size_t n) const { return n <= remaining(); }
    uint32_t u32() {  // caller checked has(4)
        uint32_t v;
        std::memcpy(&v, base + pos, 4);
        pos += 4;
        return v;
    }
    const uint8_t* here() const { return base + pos; }
    const void* at(size_t offset) const {
        return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(base) + offset);
    }
    const void* end() const { return at(size); }
};

}  // namespace flat
}  // namespace NSCam
