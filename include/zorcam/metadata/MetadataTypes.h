#pragma once
// The small value types a metadata entry can hold besides plain numbers, the type codes that
// name an entry's element type (in memory, in the flat form, in logs and dumps), and the
// Type2Type selector of the typed templates. Plain values: thread-compatible.
#include <zorcam/metadata/Export.h>

#include <cstdint>

namespace NSCam {

// Type codes. -1 means that no type has been set yet.
enum : int32_t {
    TYPE_UINT8 = 0,
    TYPE_INT32 = 1,
    TYPE_FLOAT = 2,
    TYPE_INT64 = 3,
    TYPE_DOUBLE = 4,
    TYPE_MRational = 5,
    TYPE_MPoint = 6,
    TYPE_MSize = 7,
    TYPE_MRect = 8,
    TYPE_IMetadata = 9,
    TYPE_Memory = 10,
    NUM_MTYPE = 11,
};

struct ZORCAM_EXPORT MRational {
    int32_t numerator = 0;
    // 1, not 0: a rational that appears by growing a vector is a valid 0/1.
    int32_t denominator = 1;

    constexpr MRational() = default;
    constexpr MRational(int32_t num, int32_t den) : numerator(num), denominator(den) {}
    bool operator==(const MRational& o) const {
        return numerator == o.numerator && denominator == o.denominator;
    }
    bool operator!=(const MRational& o) const { return !(*this == o); }
};

struct ZORCAM_EXPORT MPoint {
    int32_t x = 0;
    int32_t y = 0;

    constexpr MPoint() = default;
    constexpr MPoint(int32_t _x, int32_t _y) : x(_x), y(_y) {}
    bool operator==(const MPoint& o) const { return x == o.x && y == o.y; }
    bool operator!=(const MPoint& o) const { return !(*this == o); }
};

struct ZORCAM_EXPORT MSize {
    int32_t w = 0;
    int32_t h = 0;

    constexpr MSize() = default;
    constexpr MSize(int32_t _w, int32_t _h) : w(_w), h(_h) {}
    bool operator==(const MSize& o) const { return w == o.w && h == o.h; }
    bool operator!=(const MSize& o) const { return !(*this == o); }
};

struct ZORCAM_EXPORT MRect {
    MPoint p;
    MSize s;

    constexpr MRect() = default;
    constexpr MRect(const MPoint& _p, const MSize& _s) : p(_p), s(_s) {}
    constexpr MRect(int32_t x, int32_t y, int32_t w, int32_t h) : p(x, y), s(w, h) {}
    bool operator==(const MRect& o) const { return p == o.p && s == o.s; }
    bool operator!=(const MRect& o) const { return !(*this == o); }
};

// The flat form stores these values as their raw bytes: their layout must not move.
static_assert(sizeof(MRational) == 8 && sizeof(MPoint) == 8 && sizeof(MSize) == 8, "layout");
static_assert(sizeof(MRect) == 16 && alignof(MRect) == 4, "layout");

// Names the stored element type of an entry in the typed templates.
template <typename T>
struct Type2Type {
    using Type = T;
};

}  // namespace NSCam
