#pragma once
// The small value types a metadata entry can hold besides plain numbers, the type codes that
// name an entry's element type (in memory, in the flat form, in logs and dumps), and the
// Type2Type selector of the typed templates. Plain values: thread-compatible.
#include <zorcam/metadata/Export.h>

#include <cstddef>
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

// Names the stored element type of an entry in the typed templates.
template <typename T>
struct Type2Type {
    using Type = T;
};

//----------------------------------------------------------------------------------------
// What each type code means, in one place. Everything that sizes, names, prints or searches
// values by their type code reads this table: the content and its flat record, the check of
// foreign bytes, the dump and the value strings, the typed families, the tools and the tests.
// How one element of a basic type is handed to its printf forms below: as one int (a byte or
// an int32), one double (a float or a double), one long (an int64), or as its int32 fields in
// order (2 for a rational, a point or a size, 4 for a rect).
enum class PrintAs : uint8_t { kNone, kInt, kDouble, kLong, kInts };

struct TypeFacts {
    int32_t code;
    const char* name;       // the code's name, as the headers spell it
    const char* shortName;  // as tools print and parse it
    // Bytes of one element: the basic types' fixed size; 1 for a blob (whose elements carry
    // their own length in the flat form); -1 for a nested container (no fixed size: asking
    // a content for it is fatal).
    int32_t size;
    bool basic;       // fixed-size values kept as raw bytes, in host (little-endian) order
    bool searchable;  // IEntry::indexOf is offered (not for rationals or nested containers)
    // printf form of one element in a container dump line ("%d " and friends), and in the
    // value strings of the metadata updater (which follow std::to_string for numbers). The
    // nested-container and blob forms take no per-element fields here: their writers add
    // what they need.
    const char* dumpForm;
    const char* textForm;
    PrintAs printAs;
    // The value a read that fails hands back (what the default constructor makes), as the
    // int32 words of its bytes: zero, but 0/1 for a rational.
    int32_t defaultWords[4];
};

// One row a type: code, name, short name, element size, basic, searchable, dump form, text
// form, print kind, default value.
// clang-format off
inline constexpr TypeFacts kTypeFacts[NUM_MTYPE] = {
    {TYPE_UINT8,     "TYPE_UINT8",     "uint8",    1,  true,  true,  "%d ",                "%d ",               PrintAs::kInt,    {}},
    {TYPE_INT32,     "TYPE_INT32",     "int32",    4,  true,  true,  "%d ",                "%d ",               PrintAs::kInt,    {}},
    {TYPE_FLOAT,     "TYPE_FLOAT",     "float",    4,  true,  true,  "%f ",                "%f ",               PrintAs::kDouble, {}},
    {TYPE_INT64,     "TYPE_INT64",     "int64",    8,  true,  true,  "%ld ",               "%ld ",              PrintAs::kLong,   {}},
    {TYPE_DOUBLE,    "TYPE_DOUBLE",    "double",   8,  true,  true,  "%lf ",               "%f ",               PrintAs::kDouble, {}},
    {TYPE_MRational, "TYPE_MRational", "rational", 8,  true,  false, "rational(%d,%d) ",   "[%d / %d] ",        PrintAs::kInts,   {0, 1}},
    {TYPE_MPoint,    "TYPE_MPoint",    "point",    8,  true,  true,  "point(%d,%d) ",      "(%d, %d) ",         PrintAs::kInts,   {}},
    {TYPE_MSize,     "TYPE_MSize",     "size",     8,  true,  true,  "size(%d,%d) ",       "(%d, %d) ",         PrintAs::kInts,   {}},
    {TYPE_MRect,     "TYPE_MRect",     "rect",     16, true,  true,  "rect(%d,%d,%d,%d) ", "(%d, %d, %d, %d) ", PrintAs::kInts,   {}},
    {TYPE_IMetadata, "TYPE_IMetadata", "metadata", -1, false, false, "metadata.. ",        "",                  PrintAs::kNone,   {}},
    {TYPE_Memory,    "TYPE_Memory",    "memory",   1,  false, true,  "memory[%d] size %d:", "",                 PrintAs::kNone,   {}},
};
// clang-format on

// The facts of a type code, or null for a code outside 0..10 (-1, "no type yet", included).
constexpr const TypeFacts* typeFacts(int32_t code) {
    return static_cast<uint32_t>(code) < static_cast<uint32_t>(NUM_MTYPE) ? &kTypeFacts[code]
                                                                          : nullptr;
}

// Whether a code is one of the basic types (its `basic` fact, in one comparison: the basic
// codes come first, which the assertion below the table keeps true).
constexpr bool isBasicType(int32_t code) {
    return static_cast<uint32_t>(code) <= static_cast<uint32_t>(TYPE_MRect);
}

// The type code of each stored element type (the nested container and the blob are added
// where IMetadata is declared). The default value of each is what its default constructor
// makes: zero for numbers, 0/1 for a rational, all fields zero for points, sizes and rects.
template <typename T>
struct TypeCode;
template <>
struct TypeCode<unsigned char> {
    static constexpr int32_t value = TYPE_UINT8;
};
template <>
struct TypeCode<int> {
    static constexpr int32_t value = TYPE_INT32;
};
template <>
struct TypeCode<float> {
    static constexpr int32_t value = TYPE_FLOAT;
};
template <>
struct TypeCode<long> {
    static constexpr int32_t value = TYPE_INT64;
};
template <>
struct TypeCode<double> {
    static constexpr int32_t value = TYPE_DOUBLE;
};
template <>
struct TypeCode<MRational> {
    static constexpr int32_t value = TYPE_MRational;
};
template <>
struct TypeCode<MPoint> {
    static constexpr int32_t value = TYPE_MPoint;
};
template <>
struct TypeCode<MSize> {
    static constexpr int32_t value = TYPE_MSize;
};
template <>
struct TypeCode<MRect> {
    static constexpr int32_t value = TYPE_MRect;
};

// The flat form and every reader of raw values rely on this layout: pin it.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the flat form is little-endian");
static_assert(sizeof(long) == 8, "TYPE_INT64 is stored as long");
static_assert(sizeof(MRational) == 8 && offsetof(MRational, numerator) == 0 &&
                  offsetof(MRational, denominator) == 4,
              "MRational layout");
static_assert(sizeof(MPoint) == 8 && offsetof(MPoint, x) == 0 && offsetof(MPoint, y) == 4,
              "MPoint layout");
static_assert(sizeof(MSize) == 8 && offsetof(MSize, w) == 0 && offsetof(MSize, h) == 4,
              "MSize layout");
static_assert(sizeof(MRect) == 16 && alignof(MRect) == 4 && offsetof(MRect, p) == 0 &&
                  offsetof(MRect, s) == 8,
              "MRect layout");
static_assert(MRational().numerator == kTypeFacts[TYPE_MRational].defaultWords[0] &&
                  MRational().denominator == kTypeFacts[TYPE_MRational].defaultWords[1],
              "a default rational is 0/1, as its facts say");

namespace detail {
template <typename T>
constexpr bool factsMatch() {
    constexpr TypeFacts f = kTypeFacts[TypeCode<T>::value];
    return f.code == TypeCode<T>::value && f.size == static_cast<int32_t>(sizeof(T)) && f.basic &&
           f.printAs != PrintAs::kNone && (f.printAs != PrintAs::kInts || sizeof(T) % 4 == 0);
}
}  // namespace detail
static_assert(detail::factsMatch<unsigned char>() && detail::factsMatch<int>() &&
                  detail::factsMatch<float>() && detail::factsMatch<long>() &&
                  detail::factsMatch<double>() && detail::factsMatch<MRational>() &&
                  detail::factsMatch<MPoint>() && detail::factsMatch<MSize>() &&
                  detail::factsMatch<MRect>(),
              "each basic type sits in its row with its size");
static_assert(
    [] {
        for (int32_t code = 0; code < NUM_MTYPE; ++code)
            if (isBasicType(code) != kTypeFacts[code].basic) return false;
        return !isBasicType(-1);
    }(),
    "the basic codes come first");

}  // namespace NSCam
