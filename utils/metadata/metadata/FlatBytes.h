#pragma once
// Cursors over the flat form. The form is little-endian and unpadded, so every field is
// copied with memcpy. Decoding never reads outside the buffer it was given. Encoding keeps
// two limits: the capacity the caller declared (which decides results and reports, checked
// once at the end, so that a short buffer is reported once for the whole block) and the bytes that really exist in the caller's buffer,
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
    // Decoding bytes the walk has checked already (FlatWalk.h): they decode without a report.
    bool trusted = false;
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

// What encoders are running on this thread: the limits of the form are checked once, by the
// outermost one, before anything is written.
inline thread_local int tEncoders = 0;

struct EncodeScope {
    const bool outermost;
    EncodeScope() : outermost(tEncoders++ == 0) {}
    ~EncodeScope() { --tEncoders; }
    EncodeScope(const EncodeScope&) = delete;
    EncodeScope& operator=(const EncodeScope&) = delete;
};

// A cursor writing one block (a storage block or a content record) of a caller's buffer.
// Positions are offsets from the caller's buffer, so that no pointer past its end is ever
// formed, even for a nested block whose declared capacity is already spent.
struct Writer {
    uint8_t* root;    // the caller's buffer
    size_t real;      // bytes that exist at root
    size_t origin;    // where this block starts, from root
    size_t capacity;  // bytes this block may use, as its caller declared them
    size_t pos = 0;   // from origin

    Writer(void* buf, size_t size)
        : root(static_cast<uint8_t*>(buf)), real(size), origin(0), capacity(size) {}

    // Copies what fits into both the declared capacity and the real buffer; the cursor always
    // advances by n.
    void put(const void* src, size_t n) {
        const size_t limit = room();
        if (pos < limit) std::memcpy(root + origin + pos, src, n < limit - pos ? n : limit - pos);
        pos += n;
    }
    void putU32(uint32_t v) { put(&v, 4); }
    void putU32At(size_t at, uint32_t v) {
        if (at <= room() && room() - at >= 4) std::memcpy(root + origin + at, &v, 4);
    }
    // A writer for a nested block starting `offset` bytes past this one's start: its declared
    // capacity is what is left of ours (wrapping, as the unchecked subtraction always did).
    Writer sub(size_t offset) const {
        Writer w(*this);
        w.origin = origin + offset;
        w.capacity = capacity - offset;
        w.pos = 0;
        return w;
    }
    bool overflowed() const { return pos > capacity; }
    // True when `n` more bytes fit both the declared capacity and the real buffer: the caller
    // may then write them at here() directly.
    bool fits(size_t n) const { return pos <= room() && room() - pos >= n; }
    // Bytes that may still be written at here().
    size_t roomLeft() const { return pos <= room() ? room() - pos : 0; }
    uint8_t* here() const { return root + origin + pos; }
    // Addresses for log lines only, computed as integers.
    const void* at(size_t offset) const {
        return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(root) + origin + offset);
    }

private:
    // Bytes of this block that may really be written.
    size_t room() const {
        const size_t left = real > origin ? real - origin : 0;
        return capacity < left ? capacity : left;
    }
};

// One little-endian word of the form, read where it lies.
inline uint32_t load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

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
