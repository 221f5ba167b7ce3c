// The packet bridge: every refusal of the check (one packet per rule, each also a seed of
// AndroidPacket_fuzz), round trips of every type in both orders, the tag map both ways, what
// is left out and its report, and the log lines users grep for.
//
// ZORCAM_UPDATE_ANDROID_CORPUS=1 makes the tests write the packets they build into
// fuzz/corpus/AndroidPacket_fuzz; without it, AndroidCorpus checks that every one is there.
#include <zorcam/metadata/AndroidPacket.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include "Flat.h"
#include "RecordingLogger.h"

namespace {

using namespace NSCam;
using zorcam_test::flat;
using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

constexpr uint32_t kAeMode = 0x00010003;         // byte
constexpr uint32_t kFocalLength = 0x00080002;    // float
constexpr uint32_t kExposureTime = 0x000e0000;   // int64
constexpr uint32_t kCropRegion = 0x000d0000;     // int32[4], a rectangle
constexpr uint32_t kThumbnailSize = 0x00070006;  // int32[2], a size
constexpr uint32_t kHotPixelMap = 0x0011000f;    // int32 2 x n, points

Bytes write(const IMetadata& m, bool sorted = false, const AndroidTagMap* map = nullptr,
            AndroidLeftOutList* leftOut = nullptr) {
    AndroidWriteOptions o;
    o.sorted = sorted;
    o.map = map;
    const long size = androidPacketSize(m, o);
    EXPECT_GE(size, 48);
    Bytes b(static_cast<size_t>(std::max(0L, size)));
    EXPECT_EQ(writeAndroidPacket(m, b.data(), b.size(), o, leftOut), size);
    return b;
}

template <typename T>
void put(IMetadata& m, uint32_t tag, std::vector<T> values) {
    IMetadata::IEntry e(tag);
    e.push_back(values.data(), values.size(), Type2Type<T>());
    m.update(e);
}

// What was left out, in order, with why.
using LeftOut = std::vector<std::pair<uint32_t, AndroidLeftOutReason>>;
LeftOut leftOut(const AndroidLeftOutList& l) {
    LeftOut out;
    for (const AndroidLeftOut& e : l.entries) out.emplace_back(e.tag, e.reason);
    return out;
}

uint32_t u32(const Bytes& b, size_t at) {
    uint32_t v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}
void set32(Bytes& b, size_t at, uint32_t v) {
    std::memcpy(b.data() + at, &v, 4);
}

// Three entries: aeMode (1 byte, inline), focalLength (float x2, out of line, 8 bytes) and
// exposureTime (int64, out of line): header 48, entries 48..96, data 96..112.
Bytes basePacket() {
    IMetadata m;
    put<uint8_t>(m, kAeMode, {2});
    put<float>(m, kFocalLength, {4.38f, 1.8f});
    put<long>(m, kExposureTime, {33333333L});
    return write(m);
}

class AndroidPacketTest : public zorcam_test::LoggerTest {};

//------------------------------------------------------------------------------------------
// The check: one packet per rule, with the field, the byte and the reason it names.

struct Refusal {
    const char* name;
    std::function<void(Bytes&)> spoil;
    const char* field;
    size_t offset;
    int64_t entry;
    const char* reason;
};
void PrintTo(const Refusal& r, std::ostream* os) {
    *os << r.name;
}

class AndroidCheckRefuses : public zorcam_test::LoggerTest,
                            public testing::WithParamInterface<Refusal> {};

TEST_P(AndroidCheckRefuses, NamingFieldAndByte) {
    const Refusal& r = GetParam();
    Bytes p = basePacket();
    ASSERT_TRUE(checkAndroidPacket(p.data(), p.size()).ok);
    r.spoil(p);
    const AndroidPacketCheck c = checkAndroidPacket(p.data(), p.size());
    EXPECT_FALSE(c.ok);
    EXPECT_STREQ(c.field, r.field);
    EXPECT_EQ(c.offset, r.offset);
    EXPECT_EQ(c.entry, r.entry);
    EXPECT_STREQ(c.reason, r.reason);
    // The reader refuses the same packet for the same reason and leaves the container empty.
    IMetadata m;
    IMetadata::setEntry<int>(&m, 1, 1);
    const AndroidReadResult read = readAndroidPacket(p.data(), p.size(), m);
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.check.offset, r.offset);
    EXPECT_STREQ(read.check.reason, r.reason);
    EXPECT_TRUE(m.isEmpty());
    EXPECT_EQ(log.take(), std::vector<std::string>{"readAndroidPacket:refused an android packet "
                                                   "at byte " +
                                                   std::to_string(r.offset) + " (" + r.field +
                                                   "): " + r.reason});
}

// Entry i starts at 48 + 16 i: tag +0, count +4, data +8, type +12, reserved +13.
const std::vector<Refusal> kRefusals = {
    Refusal{"truncated_header", [](Bytes& p) { p.resize(47); }, "size", 0, -1,
            "fewer bytes than the 48-byte header"},
    Refusal{"size_below_header", [](Bytes& p) { set32(p, 0, 40); }, "size", 0, -1,
            "smaller than the 48-byte header"},
    Refusal{"truncated", [](Bytes& p) { p.resize(p.size() - 8); }, "size", 0, -1,
            "larger than the bytes received"},
    Refusal{"version", [](Bytes& p) { set32(p, 4, 2); }, "version", 4, -1, "not version 1"},
    Refusal{"flags", [](Bytes& p) { set32(p, 8, 0x3); }, "flags", 8, -1,
            "flag bits other than bit 0 (sorted)"},
    Refusal{"entry_count", [](Bytes& p) { set32(p, 12, 4); }, "entry_count", 12, -1,
            "more entries than entry_capacity"},
    Refusal{"data_count", [](Bytes& p) { set32(p, 24, 24); }, "data_count", 24, -1,
            "more data than data_capacity"},
    Refusal{"entries_in_header", [](Bytes& p) { set32(p, 20, 40); }, "entries_start", 20, -1,
            "the entries would overlap the header"},
    Refusal{"entries_misaligned", [](Bytes& p) { set32(p, 20, 52); }, "entries_start", 20, -1,
            "not 8-aligned"},
    Refusal{"data_start_misaligned", [](Bytes& p) { set32(p, 32, 100); }, "data_start", 32, -1,
            "not 8-aligned"},
    // The hole the platform's own validator once had: a capacity added unscaled.
    Refusal{"entry_capacity_unscaled", [](Bytes& p) { set32(p, 16, 4); }, "entry_capacity", 16, -1,
            "the entry array runs past data_start"},
    Refusal{"data_past_size", [](Bytes& p) { set32(p, 28, 24), set32(p, 24, 16); }, "data_capacity",
            28, -1, "the data area runs past size"},
    Refusal{"padding", [](Bytes& p) { set32(p, 36, 1); }, "padding", 36, -1, "not 0"},
    Refusal{"unknown_type", [](Bytes& p) { p[48 + 12] = 6; }, "type", 60, 0,
            "unknown element type"},
    Refusal{"reserved", [](Bytes& p) { p[64 + 14] = 1; }, "reserved", 77, 1, "not 0"},
    Refusal{"count_wraps_32_bits",
            [](Bytes& p) { set32(p, 80 + 4, 0x20000001); },  // x 8 bytes: past 2^32
            "count", 84, 2, "count x element size exceeds data_capacity"},
    Refusal{"offset_misaligned", [](Bytes& p) { set32(p, 64 + 8, 4); }, "data", 72, 1,
            "payload offset not 8-aligned"},
    Refusal{"payload_past_capacity", [](Bytes& p) { set32(p, 80 + 8, 16); }, "data", 88, 2,
            "payload runs past data_capacity"},
    Refusal{"payload_past_count", [](Bytes& p) { set32(p, 24, 8); }, "data", 88, 2,
            "payload runs past data_count"},
    Refusal{"empty_with_offset", [](Bytes& p) { set32(p, 48 + 4, 0), set32(p, 48 + 8, 8); }, "data",
            56, 0, "an entry without elements carries a non-zero offset"},
    Refusal{"inline_garbage", [](Bytes& p) { p[48 + 8 + 3] = 0xff; }, "data", 56, 0,
            "unused inline payload bytes not 0"},
    Refusal{"wrong_type_for_tag", [](Bytes& p) { p[48 + 12] = ANDROID_TYPE_INT32; }, "type", 60, 0,
            "not the type the tag's definition gives"},
    Refusal{"unsorted_flagged_sorted", [](Bytes& p) { set32(p, 48, 0x80000000), set32(p, 8, 1); },
            "tag", 64, 1, "out of order in a packet flagged sorted"},
    Refusal{"overlapping_payloads", [](Bytes& p) { set32(p, 80 + 8, 0), set32(p, 24, 8); }, "data",
            88, 2, "payloads together exceed data_count (they overlap)"}};
INSTANTIATE_TEST_SUITE_P(Rules, AndroidCheckRefuses, testing::ValuesIn(kRefusals),
                         [](const testing::TestParamInfo<Refusal>& p) {
                             return std::string(p.param.name);
                         });

// A packet with room for more (capacity above count, data area larger than in use) and bytes
// after its end, holding the crop region of `m`.
Bytes roomyPacket(const IMetadata& m) {
    const Bytes p = write(m);
    Bytes roomy(48 + 16 * 3 + 32 + 8, 0);
    std::memcpy(roomy.data(), p.data(), 48 + 16);
    set32(roomy, 0, 48 + 16 * 3 + 32);  // size
    set32(roomy, 16, 3);                // entry_capacity
    set32(roomy, 28, 32);               // data_capacity
    set32(roomy, 32, 48 + 16 * 3);      // data_start
    std::memcpy(roomy.data() + 48 + 16 * 3, p.data() + 64, 16);
    return roomy;
}

TEST(AndroidCheck, AcceptsSpareRoomAndBytesAfter) {
    IMetadata m;
    put<int>(m, kCropRegion, {0, 0, 4000, 3000});
    const Bytes roomy = roomyPacket(m);
    const AndroidPacketCheck c = checkAndroidPacket(roomy.data(), roomy.size());
    ASSERT_TRUE(c.ok) << c.reason;
    EXPECT_EQ(c.entryCapacity, 3u);
    IMetadata back;
    ASSERT_TRUE(readAndroidPacket(roomy.data(), roomy.size(), back).ok);
    EXPECT_EQ(flat(back), flat(m));
}

//------------------------------------------------------------------------------------------
// Round trips: written, read and written again, the same bytes, for each type and order.

// Each type's values, under a platform tag of that type (and shape), and the name of its seeds.
template <typename T>
struct Values {
    const char* name;
    uint32_t tag;
    std::vector<T> values;
};
template <typename T>
Values<T> valuesOf() {
    if constexpr (std::is_same_v<T, uint8_t>) return {"byte", kAeMode, {2}};  // inline
    // aeTargetFpsRange: 8 bytes, out of line
    if constexpr (std::is_same_v<T, int>) return {"int32", 0x00010005, {15, 30}};
    // colorCorrection.gains: 4 floats
    if constexpr (std::is_same_v<T, float>)
        return {"float", 0x00000002, {2.0f, 1.0f, -0.0f, 1.75f}};
    if constexpr (std::is_same_v<T, long>) return {"int64", kExposureTime, {-33333333L}};
    // jpeg.gpsCoordinates: 3 doubles
    if constexpr (std::is_same_v<T, double>)
        return {"double", 0x00070000, {37.422, -122.084, 12.5}};
    // colorCorrection.transform, 3 of the 9
    if constexpr (std::is_same_v<T, MRational>)
        return {"rational", 0x00000001, {{1, 1}, {-3, 100}, {0, 1}}};
    if constexpr (std::is_same_v<T, MRect>) return {"rect", kCropRegion, {MRect(0, 0, 4000, 3000)}};
    if constexpr (std::is_same_v<T, MSize>) return {"size", kThumbnailSize, {MSize(320, 240)}};
    if constexpr (std::is_same_v<T, MPoint>) return {"point", kHotPixelMap, {{10, 20}, {-1, 7}}};
}

template <typename T>
class AndroidRoundTrip : public testing::Test {};
using PacketTypes =
    testing::Types<uint8_t, int, float, long, double, MRational, MRect, MSize, MPoint>;
TYPED_TEST_SUITE(AndroidRoundTrip, PacketTypes);

// The values under test between two other entries, and an empty vendor entry of their type.
template <typename T>
IMetadata roundTripContainer() {
    IMetadata m;
    put<uint8_t>(m, 0x00010007, {4});  // afMode, before the tag under test
    put<T>(m, valuesOf<T>().tag, valuesOf<T>().values);
    put<uint8_t>(m, 0x00000000, {1});  // colorCorrection.mode, after it in row order
    // An empty vendor entry of the type: only a flat form makes one (the entry API has no
    // typed entry without values).
    const uint32_t form[7] = {0x01245432, 1,          0x80000000 + valuesOf<T>().tag % 7,
                              12,         0xAB2454CD, static_cast<uint32_t>(TypeCode<T>::value),
                              0};
    m += IMetadata(form, sizeof(form));
    return m;
}

// The platform's shapes, and the same shape for the vendor tag of the empty entry.
template <typename T>
AndroidTagMap roundTripMap() {
    AndroidTagMap map = AndroidTagMap::withPlatformShapes();
    const AndroidShape shape = std::is_same_v<T, MRect>    ? AndroidShape::kRect
                               : std::is_same_v<T, MSize>  ? AndroidShape::kSize
                               : std::is_same_v<T, MPoint> ? AndroidShape::kPoint
                                                           : AndroidShape::kPlain;
    const uint32_t vendorTag = 0x80000000 + valuesOf<T>().tag % 7;
    EXPECT_TRUE(map.add({vendorTag, vendorTag, shape}));
    return map;
}

TYPED_TEST(AndroidRoundTrip, SameBytesSortedAndInRowOrder) {
    const AndroidTagMap shapes = roundTripMap<TypeParam>();
    const IMetadata m = roundTripContainer<TypeParam>();
    for (const bool sorted : {false, true}) {
        const Bytes first = write(m, sorted, &shapes);
        const AndroidPacketCheck c = checkAndroidPacket(first.data(), first.size());
        ASSERT_TRUE(c.ok) << c.reason << " at " << c.offset;
        EXPECT_EQ(c.flags, sorted ? 1u : 0u);
        EXPECT_EQ(c.entryCount, 4u);
        EXPECT_EQ(c.size, first.size());
        // In row order the entries keep the container's order; sorted, the tags ascend.
        EXPECT_EQ(u32(first, 48), sorted ? 0x00000000u : 0x00010007u);
        IMetadata back;
        const AndroidReadResult r = readAndroidPacket(first.data(), first.size(), back, &shapes);
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.entries, 4u);
        // The same container, row for row (in the packet's order: sorted, the rows are too).
        if (!sorted) {
            EXPECT_EQ(flat(back), flat(m));
        }
        EXPECT_EQ(write(back, sorted, &shapes), first);
    }
}

TEST(AndroidRead, MisalignedPacketReadsTheSame) {
    IMetadata m;
    put<double>(m, 0x00070000, {37.422, -122.084, 12.5});
    put<long>(m, kExposureTime, {33333333L});
    const Bytes p = write(m);
    for (size_t shift = 1; shift < 8; ++shift) {
        Bytes odd(p.size() + shift);
        std::memcpy(odd.data() + shift, p.data(), p.size());
        ASSERT_TRUE(checkAndroidPacket(odd.data() + shift, p.size()).ok) << shift;
        IMetadata back;
        ASSERT_TRUE(readAndroidPacket(odd.data() + shift, p.size(), back).ok) << shift;
        EXPECT_EQ(flat(back), flat(m)) << shift;
    }
}

// Two packets appended keep both entries: aeMode 1 and exposureTime, then aeMode 3.
Bytes repeatedPacket() {
    IMetadata a;
    put<uint8_t>(a, kAeMode, {1});
    put<long>(a, kExposureTime, {10});
    IMetadata b;
    put<uint8_t>(b, kAeMode, {3});
    const Bytes pa = write(a), pb = write(b);
    Bytes both(48 + 16 * 3 + 8);
    std::memcpy(both.data(), pa.data(), 48 + 32);
    std::memcpy(both.data() + 80, pb.data() + 48, 16);
    std::memcpy(both.data() + 96, pa.data() + 80, 8);
    set32(both, 0, static_cast<uint32_t>(both.size()));
    set32(both, 12, 3), set32(both, 16, 3), set32(both, 32, 96);
    return both;
}

TEST(AndroidRead, RepeatedTagGivesTheLastValue) {
    const Bytes both = repeatedPacket();
    IMetadata back;
    const AndroidReadResult r = readAndroidPacket(both.data(), both.size(), back);
    ASSERT_TRUE(r.ok) << r.check.reason;
    uint8_t mode = 0;
    EXPECT_TRUE(IMetadata::getEntry<uint8_t>(&back, kAeMode, mode));
    EXPECT_EQ(mode, 3);
    EXPECT_EQ(back.count(), 2u);
}

TEST(AndroidRead, IncompleteShapesStayInt32) {
    // Three int32 under a rectangle tag make no whole MRect: the values stay as they are.
    IMetadata m;
    put<int>(m, kCropRegion, {1, 2, 3});
    const AndroidTagMap shapes = AndroidTagMap::withPlatformShapes();
    const Bytes p = write(m, false, &shapes);
    IMetadata back;
    ASSERT_TRUE(readAndroidPacket(p.data(), p.size(), back, &shapes).ok);
    EXPECT_EQ(back.entryFor(kCropRegion).type(), TYPE_INT32);
    EXPECT_EQ(back.entryFor(kCropRegion).count(), 3u);
}

//------------------------------------------------------------------------------------------
// The tag map and what is left out.

class AndroidMapTest : public AndroidPacketTest {};

TEST_F(AndroidMapTest, RenumbersVendorTagsBothWaysAndExcludes) {
    AndroidTagMap map;
    ASSERT_TRUE(map.add({0x80000001, 0x90010005, AndroidShape::kRect}));
    ASSERT_TRUE(map.add({0x80000002, 0x80000002, AndroidShape::kExcluded}));
    IMetadata m;
    put<MRect>(m, 0x90010005, {MRect(1, 2, 3, 4)});
    put<int>(m, 0x80000002, {7});
    put<int>(m, 0x80000001, {8});  // its number is the packet's number of 0x90010005
    AndroidLeftOutList left;
    const Bytes p = write(m, false, &map, &left);
    EXPECT_EQ(left.count, 2u);
    EXPECT_EQ(leftOut(left), (LeftOut{{0x80000002, AndroidLeftOutReason::kExcluded},
                                      {0x80000001, AndroidLeftOutReason::kNumberTaken}}));
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{
                  "writeAndroidPacket:2 entries have no place in the android packet; the first: "
                  "tag 0x80000002 (excluded by the tag map)"}));
    ASSERT_EQ(checkAndroidPacket(p.data(), p.size()).entryCount, 1u);
    EXPECT_EQ(u32(p, 48), 0x80000001u);
    EXPECT_EQ(p[48 + 12], ANDROID_TYPE_INT32);
    EXPECT_EQ(u32(p, 48 + 4), 4u);

    IMetadata back;
    const AndroidReadResult r = readAndroidPacket(p.data(), p.size(), back, &map, &left);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.leftOut, 0u);
    EXPECT_EQ(left.count, 0u);
    MRect rect;
    EXPECT_TRUE(IMetadata::getEntry<MRect>(&back, 0x90010005, rect));
    EXPECT_EQ(rect, MRect(1, 2, 3, 4));
    EXPECT_EQ(back.count(), 1u);
}

TEST_F(AndroidMapTest, ReadingLeavesOutExcludedAndTakenNumbers) {
    AndroidTagMap map;
    ASSERT_TRUE(map.add({0x80000001, 0x90000001, AndroidShape::kPlain}));
    ASSERT_TRUE(map.add({kAeMode, kAeMode, AndroidShape::kExcluded}));
    IMetadata m;
    put<uint8_t>(m, kAeMode, {1});
    put<int>(m, 0x90000001, {5});  // in the packet under its own number: taken by the rule
    put<int>(m, 0x80000001, {6});
    const Bytes p = write(m);
    IMetadata back;
    AndroidLeftOutList left;
    const AndroidReadResult r = readAndroidPacket(p.data(), p.size(), back, &map, &left);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.entries, 1u);
    EXPECT_EQ(r.leftOut, 2u);
    EXPECT_EQ(leftOut(left), (LeftOut{{kAeMode, AndroidLeftOutReason::kExcluded},
                                      {0x90000001, AndroidLeftOutReason::kNumberTaken}}));
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{
                  "readAndroidPacket:2 entries of the android packet have no place in "
                  "the container; the first: tag 0x00010003 (excluded by the tag map)"}));
    int v = 0;
    EXPECT_TRUE(IMetadata::getEntry<int>(&back, 0x90000001, v));
    EXPECT_EQ(v, 6);
}

TEST_F(AndroidMapTest, WhatHasNoAndroidFormIsReported) {
    IMetadata inner;
    IMetadata::setEntry<int>(&inner, 1, 1);
    IMetadata m;
    put<uint8_t>(m, kAeMode, {2});
    put<IMetadata::Memory>(m, 0x80010000, {IMetadata::Memory("abc", 3)});
    put<IMetadata>(m, 0x80020000, {inner});
    put<MRect>(m, kCropRegion, {MRect(0, 0, 1, 1)});  // the default map gives no shape
    put<int>(m, kFocalLength, {4});                   // the platform says float
    m.update(IMetadata::IEntry(0x000c0001));          // a row without a type
    AndroidLeftOutList left;
    const Bytes p = write(m, false, nullptr, &left);
    EXPECT_EQ(checkAndroidPacket(p.data(), p.size()).entryCount, 1u);
    EXPECT_EQ(left.count, 5u);
    EXPECT_EQ(leftOut(left), (LeftOut{{0x80010000, AndroidLeftOutReason::kNoAndroidType},
                                      {0x80020000, AndroidLeftOutReason::kNoAndroidType},
                                      {kCropRegion, AndroidLeftOutReason::kNoShape},
                                      {kFocalLength, AndroidLeftOutReason::kWrongType},
                                      {0x000c0001, AndroidLeftOutReason::kNoAndroidType}}));
    ASSERT_EQ(left.entries.size(), 5u);
    EXPECT_EQ(left.entries[2].type, TYPE_MRect);
    // The size query reports the same, and logs nothing.
    log.take();
    AndroidLeftOutList again;
    EXPECT_EQ(androidPacketSize(m, {}, &again), static_cast<long>(p.size()));
    EXPECT_EQ(again.count, 5u);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(AndroidMapTest, RefusesRulesThatCannotHold) {
    AndroidTagMap map;
    EXPECT_FALSE(map.add({kAeMode, 0x90000000, AndroidShape::kPlain}));
    EXPECT_FALSE(map.add({kAeMode, kAeMode, AndroidShape::kRect}));
    EXPECT_FALSE(map.add({0x80000000, 0x90000000, AndroidShape::kExcluded}));
    ASSERT_TRUE(map.add({0x80000000, 0x90000000, AndroidShape::kPlain}));
    EXPECT_FALSE(map.add({0x80000000, 0x90000001, AndroidShape::kPlain}));
    EXPECT_FALSE(map.add({0x80000001, 0x90000000, AndroidShape::kPlain}));
    EXPECT_EQ(map.ruleCount(), 1u);
    EXPECT_EQ(
        log.take(),
        (std::vector<std::string>{
            "add:tag map rule 0x00010003 <-> 0x90000000 (plain) refused: only vendor-section tags "
            "(0x80000000 and up) take another number",
            "add:tag map rule 0x00010003 <-> 0x00010003 (MRect) refused: the tag's values are not "
            "int32",
            "add:tag map rule 0x80000000 <-> 0x90000000 (excluded) refused: an exclusion names "
            "one tag for both sides",
            "add:tag map rule 0x80000000 <-> 0x90000001 (plain) refused: another rule already has "
            "this Android tag",
            "add:tag map rule 0x80000001 <-> 0x90000000 (plain) refused: another rule already has "
            "this container tag"}));
}

//------------------------------------------------------------------------------------------
// Log lines and refusals of the calls themselves.

// (Each rule's refusal line is AndroidCheckRefuses'.)
TEST_F(AndroidPacketTest, NoBytesIsOneErrorLine) {
    IMetadata m;
    EXPECT_FALSE(readAndroidPacket(nullptr, 0, m).ok);
    EXPECT_EQ(log.take(), (std::vector<std::string>{"readAndroidPacket:refused an android packet "
                                                    "at byte 0 (size): no bytes"}));
}

TEST_F(AndroidPacketTest, ShortBufferWritesNothingPastIt) {
    IMetadata m;
    put<long>(m, kExposureTime, {1});
    const long size = androidPacketSize(m);
    ASSERT_EQ(size, 48 + 16 + 8);
    Bytes b(static_cast<size_t>(size), 0xAA);
    EXPECT_EQ(writeAndroidPacket(m, b.data(), b.size() - 1), -1);
    EXPECT_EQ(b, Bytes(b.size(), 0xAA));
    EXPECT_EQ(writeAndroidPacket(m, nullptr, 100), -1);
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{
                  "writeAndroidPacket:the android packet needs 72 bytes, the buffer holds 71",
                  "writeAndroidPacket:no buffer to write the android packet to"}));
}

TEST(AndroidPacket, EmptyContainerIsAnEmptyPacket) {
    const IMetadata m;
    const Bytes p = write(m, false, nullptr);
    EXPECT_EQ(p.size(), 48u);
    const AndroidPacketCheck c = checkAndroidPacket(p.data(), p.size());
    ASSERT_TRUE(c.ok);
    EXPECT_EQ(c.vendorId, AndroidPacketLayout::kNoVendorId);
    IMetadata back;
    EXPECT_TRUE(readAndroidPacket(p.data(), p.size(), back).ok);
    EXPECT_TRUE(back.isEmpty());
}

TEST(AndroidPacket, EntryViewShowsThePacketAsItIs) {
    const Bytes p = basePacket();
    AndroidPacketEntry e;
    ASSERT_TRUE(androidPacketEntry(p.data(), p.size(), 1, e));
    EXPECT_EQ(e.tag, kFocalLength);
    EXPECT_EQ(e.type, ANDROID_TYPE_FLOAT);
    EXPECT_EQ(e.count, 2u);
    ASSERT_EQ(e.bytes, 8u);
    float f[2];
    std::memcpy(f, e.payload, 8);
    EXPECT_EQ(f[1], 1.8f);
    EXPECT_FALSE(androidPacketEntry(p.data(), p.size(), 3, e));
    EXPECT_FALSE(androidPacketEntry(p.data(), p.size() - 1, 0, e));
}

TEST(AndroidTags, DefinitionsAndEnumeratedValues) {
    const AndroidTagInfo* ae = androidTagByName("android.control.aeMode");
    ASSERT_NE(ae, nullptr);
    EXPECT_EQ(ae, androidTagInfo(kAeMode));
    EXPECT_EQ(ae->type, ANDROID_TYPE_BYTE);
    EXPECT_EQ(ae->kinds, AndroidTagInfo::kControls | AndroidTagInfo::kDynamic);
    EXPECT_STREQ(androidEnumName(*ae, 2), "ON_AUTO_FLASH");
    EXPECT_EQ(androidEnumName(*ae, 99), nullptr);
    int64_t v = 0;
    EXPECT_TRUE(androidEnumValue(*ae, "ON_ALWAYS_FLASH", v));
    EXPECT_EQ(v, 3);
    EXPECT_EQ(androidTagInfo(kCropRegion)->platformShape, AndroidShape::kRect);
    EXPECT_EQ(androidTagInfo(kThumbnailSize)->platformShape, AndroidShape::kSize);
    EXPECT_EQ(androidTagInfo(0x80000000), nullptr);
    EXPECT_EQ(androidTagInfo(0x00010000 + 0xFFFF), nullptr);
    size_t n = 0;
    const AndroidTagInfo* all = androidTags(n);
    EXPECT_GT(n, 300u);
    for (size_t i = 1; i < n; ++i) ASSERT_LT(all[i - 1].tag, all[i].tag);
    for (size_t i = 0; i < n; ++i) ASSERT_EQ(androidTagInfo(all[i].tag), &all[i]);
}

//------------------------------------------------------------------------------------------
// The seeds of AndroidPacket_fuzz: every packet above, byte for byte (runs last).

template <typename T>
void addRoundTrip(std::map<std::string, Bytes>& out) {
    const AndroidTagMap map = roundTripMap<T>();
    out[std::string("round_trip_") + valuesOf<T>().name] =
        write(roundTripContainer<T>(), false, &map);
    out[std::string("round_trip_sorted_") + valuesOf<T>().name] =
        write(roundTripContainer<T>(), true, &map);
}
template <typename... T>
void addRoundTrips(std::map<std::string, Bytes>& out) {
    (addRoundTrip<T>(out), ...);
}

TEST(AndroidCorpus, HoldsEveryPacketTheTestsBuild) {
    std::map<std::string, Bytes> seeds;
    for (const Refusal& r : kRefusals) {
        Bytes p = basePacket();
        r.spoil(p);
        seeds[std::string("bad_") + r.name] = p;
    }
    addRoundTrips<uint8_t, int, float, long, double, MRational, MRect, MSize, MPoint>(seeds);
    IMetadata crop;
    put<int>(crop, kCropRegion, {0, 0, 4000, 3000});
    seeds["roomy"] = roomyPacket(crop);
    seeds["repeated_tag"] = repeatedPacket();
    seeds["base"] = basePacket();
    seeds["empty"] = write(IMetadata());

    const fs::path dir = fs::path(ZORCAM_ANDROID_CORPUS);
    const bool update = std::getenv("ZORCAM_UPDATE_ANDROID_CORPUS") != nullptr;
    for (const auto& [name, bytes] : seeds) {
        const fs::path file = dir / name;
        if (update) {
            fs::create_directories(dir);
            std::ofstream(file, std::ios::binary)
                .write(reinterpret_cast<const char*>(bytes.data()),
                       static_cast<std::streamsize>(bytes.size()));
        }
        std::ifstream in(file, std::ios::binary);
        const Bytes there{std::istreambuf_iterator<char>(in), {}};
        EXPECT_EQ(there, bytes) << file << ": run with ZORCAM_UPDATE_ANDROID_CORPUS=1";
    }
}

}  // namespace
