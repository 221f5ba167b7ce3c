// Writes the seed corpus of the fuzz targets into <dir>/<target>/: flat forms of realistic
// containers (a capture request with real Android tags, every value type, blobs, three
// levels of nesting, tags outside the slot map), hand-made edge forms that the library does
// not write itself (repeated tags, typed records without elements, spare bytes, a 64-level
// chain) and malformed forms for the check, and operation scripts for MetadataOps_fuzz.
//
//   make_corpus fuzz/corpus
//
// The output is deterministic, so rerunning it leaves the files in the repository as they are.
#include <zorcam/metadata/IMetadata.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace {

using namespace NSCam;
using namespace zorcam_fuzz;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Bytes = std::vector<uint8_t>;

//------------------------------------------------------------------------------------------
// Containers.

enum : int32_t {
    kU8 = TYPE_UINT8,
    kI32 = TYPE_INT32,
    kF = TYPE_FLOAT,
    kI64 = TYPE_INT64,
    kRect = TYPE_MRect
};
struct RequestRow {
    uint32_t tag;
    int32_t type;
    uint32_t count;
};
// The 120 entries of a capture request, in insertion order (Android 14 numbering).
constexpr RequestRow kRequest[] = {
    {0x00000000, kU8, 1},   {0x0001001e, kI32, 1},  {0x00110008, kI32, 1},  {0x000c0007, kI32, 1},
    {0x000d0003, kI32, 1},  {0x00070006, kI32, 1},  {0x00010009, kU8, 1},   {0x00080002, kF, 4},
    {0x0001002b, kI32, 1},  {0x000e000c, kI32, 1},  {0x0004000a, kI32, 1},  {0x00010001, kI32, 1},
    {0x000e0019, kI32, 1},  {0x00010023, kI32, 1},  {0x000d0008, kI32, 1},  {0x0001000e, kU8, 1},
    {0x000f0000, kRect, 1}, {0x00010030, kI32, 1},  {0x000f000d, kI32, 1},  {0x00110005, kI32, 1},
    {0x00120001, kI32, 1},  {0x000c0004, kI32, 1},  {0x000d0000, kRect, 1}, {0x00070003, kI32, 1},
    {0x00010006, kU8, 1},   {0x000e001e, kI32, 1},  {0x00010028, kI32, 1},  {0x000c0011, kI32, 1},
    {0x001a0003, kRect, 1}, {0x00010013, kU8, 1},   {0x00040007, kI32, 1},  {0x00050003, kI32, 1},
    {0x00010035, kI32, 1},  {0x00000002, kF, 4},    {0x00070008, kI32, 1},  {0x0001000b, kU8, 1},
    {0x000d0012, kI32, 1},  {0x000e000e, kI32, 1},  {0x00010018, kU8, 1},   {0x000f000a, kRect, 1},
    {0x0001003a, kF, 4},    {0x000c0001, kI32, 1},  {0x00010003, kU8, 1},   {0x000e001b, kI32, 1},
    {0x0011000f, kI32, 1},  {0x000c000e, kI32, 16}, {0x000d000a, kI32, 16}, {0x00010010, kU8, 1},
    {0x000d0017, kI32, 1},  {0x000c0006, kI32, 1},  {0x00010008, kI32, 1},  {0x00080001, kF, 4},
    {0x000c0013, kI64, 1},  {0x000d000f, kI32, 1},  {0x00010015, kI32, 1},  {0x000f0007, kI32, 1},
    {0x00040009, kI32, 1},  {0x00000004, kU8, 1},   {0x00010000, kU8, 1},   {0x000e0018, kI32, 1},
    {0x000c000b, kI32, 1},  {0x0001000d, kU8, 1},   {0x00040001, kI64, 1},  {0x0001002f, kF, 4},
    {0x000d0014, kI32, 1},  {0x000f000c, kI32, 1},  {0x00110004, kI32, 1},  {0x00070002, kI64, 1},
    {0x00010005, kI32, 1},  {0x000e001d, kI32, 1},  {0x00010027, kI32, 1},  {0x000c0010, kI32, 1},
    {0x00010012, kU8, 1},   {0x00040006, kI32, 1},  {0x00050002, kI32, 1},  {0x00010034, kI32, 1},
    {0x00110009, kI32, 1},  {0x000c0008, kI32, 1},  {0x00070007, kI32, 1},  {0x0001000a, kU8, 1},
    {0x0001002c, kF, 4},    {0x000e000d, kI32, 1},  {0x00010017, kU8, 1},   {0x000c0000, kI32, 1},
    {0x00010002, kU8, 1},   {0x000c000d, kI32, 16}, {0x000d0009, kI32, 1},  {0x0001000f, kU8, 1},
    {0x000f0001, kI32, 1},  {0x0001001c, kI32, 1},  {0x000f000e, kI32, 1},  {0x00110006, kI32, 1},
    {0x000d0001, kI32, 1},  {0x00010007, kU8, 1},   {0x00080000, kF, 4},    {0x000e001f, kI32, 1},
    {0x000c0012, kI32, 1},  {0x000d000e, kI32, 1},  {0x00010014, kI32, 16}, {0x000f0006, kI32, 1},
    {0x00040008, kI32, 1},  {0x00010036, kI32, 1},  {0x00000003, kU8, 1},   {0x000d001b, kI32, 1},
    {0x000e0017, kI32, 1},  {0x00010021, kI32, 1},  {0x000d0006, kI32, 1},  {0x00070009, kI32, 1},
    {0x000e0002, kI32, 1},  {0x0001000c, kI32, 1},  {0x0001002e, kF, 4},    {0x000d0013, kI32, 1},
    {0x000e000f, kI32, 1},  {0x000f000b, kI32, 1},  {0x000c0002, kI32, 1},  {0x00010004, kI32, 1},
    {0x000c000f, kI32, 1},  {0x00010011, kU8, 1},   {0x00090006, kI32, 1},  {0x00050001, kI64, 1},
};
constexpr size_t kRequestRows = sizeof(kRequest) / sizeof(kRequest[0]);

template <typename T>
void put(IMetadata& m, uint32_t tag, const std::vector<T>& values) {
    IEntry e(tag);
    e.push_back(values.data(), values.size(), Type2Type<T>());
    m.update(e);
}

// The first `rows` entries of the capture request with plausible values.
IMetadata request(size_t rows) {
    IMetadata m;
    for (size_t i = 0; i < rows && i < kRequestRows; ++i) {
        const RequestRow& r = kRequest[i];
        const int32_t v = static_cast<int32_t>(i);
        switch (r.type) {
            case kU8:
                put(m, r.tag, std::vector<uint8_t>(r.count, static_cast<uint8_t>(v % 4)));
                break;
            case kI32: {
                std::vector<int32_t> values(r.count);
                for (uint32_t k = 0; k < r.count; ++k)
                    values[k] = v * 100 + static_cast<int32_t>(k);
                put(m, r.tag, values);
                break;
            }
            case kF:
                put(m, r.tag, std::vector<float>{1.0f, 1.5f + static_cast<float>(v), 2.0f, 4.38f});
                break;
            case kI64:
                put(m, r.tag, std::vector<long>{33333333L + v});
                break;
            default:
                put(m, r.tag, std::vector<MRect>{MRect(0, 0, 4000, 3000)});
                break;
        }
    }
    return m;
}

Memory blob(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return Memory(b.data(), b.size());
}

// One entry of every value type.
IMetadata allTypes() {
    IMetadata m;
    put<uint8_t>(m, 0x00000000, {1});                      // colorCorrection.mode
    put<int32_t>(m, 0x00010005, {15, 30});                 // control.aeTargetFpsRange
    put<float>(m, 0x00080002, {4.38f});                    // lens.focalLength
    put<long>(m, 0x000e0000, {33333333});                  // sensor.exposureTime
    put<double>(m, 0x00070000, {37.422, -122.084, 12.5});  // jpeg.gpsCoordinates
    put<MRational>(m, 0x00000001,                          // colorCorrection.transform
                   {{1, 1}, {0, 1}, {0, 1}, {0, 1}, {1, 1}, {0, 1}, {0, 1}, {0, 1}, {1, 1}});
    put<MPoint>(m, 0x80010003, {MPoint(100, 200), MPoint(300, 400)});
    put<MSize>(m, 0x80000000, {MSize(4000, 3000)});
    put<MRect>(m, 0x000d0000, {MRect(0, 0, 4000, 3000), MRect(10, 20, 640, 480)});
    IMetadata inner;
    put<int32_t>(inner, 0x00070003, {90});  // jpeg.orientation
    put<IMetadata>(m, 0x90000000, {inner});
    put<Memory>(m, 0x90010000, {blob(24, 3)});
    return m;
}

IMetadata blobs() {
    IMetadata m;
    put<Memory>(m, 0xa0000001, {Memory(), blob(1, 9), blob(100, 1), blob(400, 5)});
    const char method[] = "GPS";
    put<Memory>(m, 0x00070001, {Memory(method, sizeof(method))});  // jpeg.gpsProcessingMethod
    return m;
}

// Three levels: a result holding per-camera metadata, holding its own sub-results.
IMetadata nested() {
    IMetadata level3;
    put<long>(level3, 0x000e0000, {10000000});
    put<int32_t>(level3, 0x00040006, {3});
    IMetadata level2;
    put<MRect>(level2, 0x000d0000, {MRect(0, 0, 1920, 1080)});
    put<IMetadata>(level2, 0x90000000, {level3, level3});
    put<Memory>(level2, 0x90010000, {blob(16, 2)});
    IMetadata level1 = request(12);
    put<IMetadata>(level1, 0x90000000, {level2, IMetadata()});
    put<IMetadata>(level1, 0x90010000, {level3});
    return level1;
}

// Newer tags outside the slot map next to the ones they would alias without the side index.
IMetadata outsideMap() {
    IMetadata m;
    for (uint32_t tag = 0x00040000; tag <= 0x0004000a; ++tag)
        put<int32_t>(m, tag, {static_cast<int32_t>(tag & 0xF)});
    for (uint32_t tag = 0x00050000; tag <= 0x00050003; ++tag)
        put<int32_t>(m, tag, {static_cast<int32_t>(tag & 0xF) + 100});
    put<uint8_t>(m, 0x9fff0000, {7});
    put<uint8_t>(m, 0xf00f0000, {8});
    put<uint8_t>(m, 0x00200000, {9});
    return m;
}

IMetadata withoutContent() {
    IMetadata m = request(4);
    for (uint32_t tag : {0x000c0001u, 0x00010003u, 0x90000000u}) m.update(IEntry(tag));
    return m;
}

Bytes flatOf(const IMetadata& m, const uint32_t* tags = nullptr, long count = -1) {
    Bytes out(static_cast<size_t>(m.flattenSize(tags, count)));
    if (m.flatten(out.data(), out.size(), tags, count) != static_cast<long>(out.size())) {
        std::fprintf(stderr, "flatten failed\n");
        std::exit(1);
    }
    return out;
}

//------------------------------------------------------------------------------------------
// Hand-made forms.

void u32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
Bytes content(int32_t type, int32_t count, const Bytes& payload = {}) {
    Bytes b;
    u32(b, 0xAB2454CD);
    u32(b, static_cast<uint32_t>(type));
    u32(b, static_cast<uint32_t>(count));
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}
struct Record {
    uint32_t tag;
    Bytes content;
};
Bytes storage(const std::vector<Record>& records, uint32_t count) {
    Bytes b;
    u32(b, 0x01245432);
    u32(b, count);
    for (const Record& r : records) {
        u32(b, r.tag);
        u32(b, static_cast<uint32_t>(r.content.size()));
        b.insert(b.end(), r.content.begin(), r.content.end());
    }
    return b;
}
Bytes storage(const std::vector<Record>& records) {
    return storage(records, static_cast<uint32_t>(records.size()));
}
Bytes i32s(std::initializer_list<int32_t> values) {
    Bytes b;
    for (int32_t v : values) u32(b, static_cast<uint32_t>(v));
    return b;
}
// `levels` nested containers, each the only element of the one above it.
Bytes chain(int levels) {
    Bytes inner = storage({{0x00070003, content(kI32, 1, i32s({90}))}});
    for (int i = 0; i < levels; ++i) {
        Bytes payload;
        u32(payload, static_cast<uint32_t>(inner.size()));
        payload.insert(payload.end(), inner.begin(), inner.end());
        inner = storage({{0x90000000, content(TYPE_IMetadata, 1, payload)}});
    }
    return inner;
}

//------------------------------------------------------------------------------------------
// Operation scripts.

class Script {
public:
    Script& op(Op o, std::initializer_list<uint8_t> args) {
        mBytes.push_back(o);
        mBytes.insert(mBytes.end(), args);
        return *this;
    }
    Script& raw(const Bytes& b) {
        mBytes.insert(mBytes.end(), b.begin(), b.end());
        return *this;
    }
    // Entry e reset to a tag, then `count` (1..4) values of a basic type.
    Script& basic(uint8_t e, uint8_t tag, uint8_t type, uint8_t count, uint8_t seed) {
        op(kEntryReset, {e, tag});
        op(kEntryPush, {e, type, static_cast<uint8_t>(count == 1 ? 0x80 : count - 1)});
        for (int i = 0; i < kTypeFacts[type].size * count; ++i)
            mBytes.push_back(static_cast<uint8_t>(seed + i));
        return *this;
    }
    const Bytes& bytes() const { return mBytes; }

private:
    Bytes mBytes;
};

enum Tag : uint8_t {  // positions in kTags
    tMode = 0,
    tTransform = 1,
    tGains = 2,
    tAeComp = 3,
    tFps = 4,
    tAfTrigger = 5,
    tZoom = 6,
    tFiring = 7,
    tStrength = 8,
    tTorchDefault = 9,
    tFlashAvail = 10,
    tCharge = 11,
    tGps = 12,
    tShares8 = 13,  // the slot of tVendor8
    tFocal = 14,
    tShares8b = 15,  // the slot of tVendor8 too
    tCrop = 16,
    tExposure = 17,
    tActive = 18,
    tHistogram = 19,
    tFrameNumber = 20,
    tLikeVendor8b = 21,  // outside the map, as tVendor8b: never aliases it
    tVendor8 = 22,
    tVendor8b = 23,
    tVendor9 = 24,
    tVendor9b = 25,
    tVendor10 = 26,
    tVendor13 = 27,
    tNoSection = 28,
    tPastRange = 29,
    tFarSection = 30,
    tFarGroup = 31
};

std::vector<std::pair<std::string, Bytes>> scripts() {
    std::vector<std::pair<std::string, Bytes>> out;
    auto add = [&](const std::string& name, const Script& s) { out.emplace_back(name, s.bytes()); };

    // One entry of each basic type through update and a flat round trip.
    const uint8_t typeTags[] = {tMode,      tAeComp,   tFocal,   tExposure, tGps,
                                tTransform, tVendor8b, tVendor8, tCrop};
    for (uint8_t t = 0; t <= TYPE_MRect; ++t) {
        Script s;
        s.basic(0, typeTags[t], t, t == TYPE_MRational ? 4 : 2, static_cast<uint8_t>(t * 16));
        s.op(kUpdate, {0, 0, 0xFF}).op(kFlattenRebuild, {0, 1}).op(kCheck, {});
        add("type_" + std::to_string(t), s);
    }
    {  // blobs: without buffer, empty, short and long
        Script s;
        s.op(kEntryReset, {1, tVendor10}).op(kEntryPush, {1, TYPE_Memory, 2, 0x80, 0x00});
        s.op(kEntryPush, {1, TYPE_Memory, 2, 5, 'h', 'e', 'l', 'l', 'o', 39}).raw(Bytes(39, 0x5A));
        s.op(kUpdate, {0, 1, 0xFF}).op(kFlattenRebuild, {0, 1}).op(kEntryData, {1}).op(kCheck, {});
        add("memory", s);
    }
    {  // three levels of nesting through entries, then a container nested in itself
        Script s;
        s.basic(0, tExposure, TYPE_INT64, 1, 1).op(kUpdate, {2, 0, 0xFF});
        s.op(kEntryReset, {1, tVendor9}).op(kEntryPush, {1, TYPE_IMetadata, 2, 2, 3});
        s.op(kUpdate, {1, 1, 0xFF});
        s.op(kEntryReset, {1, tVendor9b}).op(kEntryPush, {1, TYPE_IMetadata, 1, 1});
        s.op(kUpdate, {0, 1, 0xFF});
        s.op(kFlattenRebuild, {0, 1}).op(kSetEntry, {0, tVendor13, TYPE_IMetadata, 0});
        s.op(kFlattenRebuild, {0, 0}).op(kCheck, {});
        add("nested", s);
    }
    {  // copies see none of the writes made after them
        Script s;
        s.basic(0, tFps, TYPE_INT32, 2, 15).op(kUpdate, {0, 0, 0xFF});
        s.basic(1, tZoom, TYPE_FLOAT, 1, 0x3f).op(kUpdate, {0, 1, 0xFF});
        s.op(kCopy, {1, 0}).op(kEntryFor, {1, tFps, 2});
        s.op(kEntryReplace, {2, TYPE_INT32, 0, 0x80, 30, 0, 0, 0});
        s.op(kUpdate, {1, 2, 0xFF}).op(kAssign, {2, 0}).op(kRemove, {2, tZoom}).op(kCheck, {});
        add("copy_on_write", s);
    }
    {  // merge and sum: overlapping tags keep their row, new ones follow
        Script s;
        s.basic(0, tMode, TYPE_UINT8, 1, 1).op(kUpdate, {0, 0, 0xFF});
        s.basic(0, tAeComp, TYPE_INT32, 1, 2).op(kUpdate, {0, 0, 0xFF});
        s.basic(1, tAeComp, TYPE_INT32, 1, 9).op(kUpdate, {1, 1, 0xFF});
        s.basic(1, tHistogram, TYPE_INT32, 3, 4).op(kUpdate, {1, 1, 0xFF});
        s.op(kMerge, {0, 1}).op(kSum, {2, 1, 0}).op(kMerge, {2, 2}).op(kSum, {1, 1, 1});
        s.op(kCheck, {});
        add("merge_sum", s);
    }
    {  // removal moves the last row into the hole; take removes while fetching
        Script s;
        for (uint8_t t : {tMode, tFps, tCrop, tActive, tStrength, tFlashAvail})
            s.basic(0, t, TYPE_INT32, 1, t).op(kUpdate, {0, 0, 0xFF});
        s.op(kRemove, {0, tMode}).op(kTake, {0, tCrop, 1}).op(kRemove, {0, tMode});
        s.op(kEntryAt, {0, 0, 2}).op(kEntryAt, {0, 7, 2}).op(kUpdate, {1, 1, 0xFF});
        s.op(kCheck, {});
        add("remove_take", s);
    }
    {  // 0x40006 and 0x50000 stay apart; sections and groups outside the map
        Script s;
        for (uint8_t t : {tStrength, tFlashAvail, tTorchDefault, tCharge, tNoSection, tPastRange,
                          tFarSection, tFarGroup})
            s.basic(0, t, TYPE_INT32, 1, t).op(kUpdate, {0, 0, 0xFF});
        s.op(kRemove, {0, tFlashAvail}).op(kFlattenRebuild, {0, 1}).op(kRemove, {0, tNoSection});
        s.op(kCheck, {});
        add("outside_map", s);
    }
    {  // the storage layer's typed writers and readers
        Script s;
        s.op(kBurstWrite, {0, tMode, TYPE_UINT8, 0x80, 3});
        s.op(kBurstWrite, {0, tGps, TYPE_DOUBLE, 2}).raw(Bytes(16, 0x40));
        s.op(kBurstWrite, {0, tCrop, TYPE_MRect, 0xC0}).raw(Bytes(16, 1));
        s.op(kBurstWrite, {0, tVendor10, TYPE_Memory, 0});
        s.op(kBurstWrite, {0, tVendor9, TYPE_IMetadata, 1, 1});
        s.op(kBurstRead, {0, tGps, TYPE_DOUBLE}).op(kBurstRead, {0, tGps, TYPE_INT32});
        s.op(kBurstRead, {0, tVendor10, TYPE_Memory}).op(kCheck, {});
        add("burst", s);
    }
    {  // flattening a selection of tags, absent and repeated ones included
        Script s;
        for (uint8_t t : {tMode, tFps, tCrop})
            s.basic(0, t, TYPE_INT32, 2, t).op(kUpdate, {0, 0, 0xFF});
        s.op(kFlattenFilter, {0, 4, tCrop, tGains, tMode, tCrop}).op(kFlattenFilter, {0, 0});
        s.op(kUnflattenInto, {1, 0}).op(kUnflattenInto, {2, 2}).op(kCheck, {});
        add("filter_unflatten", s);
    }
    {  // entry edits: overwrite, append through index -1, remove, clear, copies
        Script s;
        s.basic(0, tFps, TYPE_INT32, 3, 1);
        s.op(kEntryReplace, {0, TYPE_INT32, 1, 0x01}).raw(Bytes(8, 7));
        s.op(kEntryReplace, {0, TYPE_INT32, 0xFF, 0x80, 9, 9, 9, 9});
        s.op(kEntryReplace, {0, TYPE_FLOAT, 0, 0x80, 0, 0, 0x80, 0x3f});
        s.op(kEntryRemoveAt, {0, 1}).op(kEntryAssign, {1, 0, 0}).op(kEntryRemoveAt, {0, 0});
        s.op(kEntryData, {1}).op(kEntryClear, {1}).op(kEntryClear, {0}).op(kEntryAssign, {2, 0, 1});
        s.op(kUpdate, {0, 2, tAeComp}).op(kCheck, {});
        // one value kept in place, then four more: the array that takes them keeps the first
        s.op(kEntryReset, {1, tFps}).op(kEntryPush, {1, TYPE_INT32, 0x80, 1, 0, 0, 0});
        s.op(kEntryPush, {1, TYPE_INT32, 3}).raw(Bytes(16, 2)).op(kCheck, {});
        add("entry_edits", s);
    }
    {  // one-call typed access
        Script s;
        s.op(kSetEntry, {0, tFocal, TYPE_FLOAT, 0, 0, 0x8c, 0x40});
        s.op(kSetEntry, {0, tTransform, TYPE_MRational, 1, 0, 0, 0, 2, 0, 0, 0});
        s.op(kSetEntry, {0, tVendor10, TYPE_Memory, 3, 'a', 'b', 'c'});
        s.op(kGetEntry, {0, tFocal, TYPE_FLOAT, 0}).op(kGetEntry, {0, tFocal, TYPE_FLOAT, 1});
        s.op(kGetEntry, {0, tTransform, TYPE_INT32, 0})
            .op(kGetEntry, {0, tVendor10, TYPE_Memory, 0});
        s.op(kSetEntry, {1, tVendor9, TYPE_IMetadata, 0});
        s.op(kGetEntry, {1, tVendor9, TYPE_IMetadata, 0}).op(kCheck, {});
        add("typed_access", s);
    }
    {  // a container nested into itself 66 times: past 64 levels the rebuild is refused
        Script s;
        s.basic(0, tMode, TYPE_UINT8, 1, 1).op(kUpdate, {0, 0, 0xFF});
        for (int i = 0; i < 66; ++i) s.op(kSetEntry, {0, tVendor9, TYPE_IMetadata, 0});
        s.op(kFlattenRebuild, {0, 1}).op(kUnflattenInto, {1, 0}).op(kCheck, {});
        add("deep_self_nesting", s);
    }
    {  // tags sharing a slot share a row, which keeps its first tag; outside the map never
        Script s;
        s.basic(0, tVendor8, TYPE_INT32, 1, 1).op(kUpdate, {0, 0, 0xFF});
        s.basic(1, tShares8, TYPE_INT32, 2, 5).op(kUpdate, {0, 1, 0xFF});
        s.basic(1, tLikeVendor8b, TYPE_UINT8, 1, 9).op(kUpdate, {0, 1, 0xFF});
        s.basic(1, tVendor8b, TYPE_UINT8, 1, 7).op(kUpdate, {0, 1, 0xFF});
        s.op(kEntryFor, {0, tShares8b, 2})
            .op(kFlattenFilter, {0, 3, tShares8, tVendor8b, tShares8b});
        s.op(kMerge, {1, 0}).basic(2, tShares8b, TYPE_FLOAT, 1, 3).op(kUpdate, {1, 2, 0xFF});
        s.op(kGetEntry, {1, tShares8, TYPE_FLOAT, 0}).op(kBurstRead, {0, tShares8b, TYPE_INT32});
        s.op(kSetEntry, {0, tShares8b, TYPE_UINT8, 4}).op(kTake, {0, tShares8, 2});
        s.op(kRemove, {0, tLikeVendor8b}).op(kFlattenRebuild, {1, 1}).op(kMerge, {1, 0});
        s.op(kCheck, {});
        add("slot_sharers", s);
    }
    {  // tables past one chunk, with slot arrays and side indexes, copied and changed
        Script s;
        for (uint8_t t = 0; t < 24; ++t) s.basic(0, t, TYPE_INT32, 1, t).op(kUpdate, {0, 0, 0xFF});
        s.op(kCopy, {1, 0}).op(kRemove, {1, tGains}).op(kRemove, {1, tFlashAvail});
        s.basic(2, tAeComp, TYPE_MRect, 2, 1).op(kUpdate, {1, 2, 0xFF}).op(kEntryData, {2});
        s.op(kAssign, {2, 1})
            .op(kRemove, {2, tStrength})
            .op(kSetEntry, {2, tNoSection, 1, 1, 0, 0, 0});
        s.op(kSetEntry, {2, tFarGroup, 0, 2}).op(kTake, {0, tStrength, 1}).op(kTake, {0, tMode, 1});
        s.op(kFlattenRebuild, {0, 1}).op(kUnflattenInto, {1, 2}).op(kMerge, {0, 2});
        s.op(kEntryReset, {1, tVendor10})
            .op(kEntryPush, {1, TYPE_Memory, 0})
            .op(kClear, {2})
            .op(kEntryClear, {0});
        s.op(kMerge, {2, 1}).op(kRemove, {2, tCharge}).op(kCheck, {});
        add("large_tables", s);
    }
    {  // a bit of everything
        Script s;
        s.basic(0, tFps, TYPE_INT32, 2, 15).op(kUpdate, {0, 0, 0xFF}).op(kCopy, {1, 0});
        s.op(kEntryPush, {0, TYPE_INT32, 0x80, 60, 0, 0, 0}).op(kUpdate, {1, 0, 0xFF});
        s.op(kEntryReset, {2, tVendor9}).op(kEntryPush, {2, TYPE_IMetadata, 1, 1});
        s.op(kUpdate, {0, 2, 0xFF});
        s.op(kMerge, {2, 0}).op(kTake, {2, tFps, 1}).op(kClear, {0}).op(kMerge, {0, 2});
        s.op(kFlattenRebuild, {2, 1}).op(kSum, {1, 2, 0}).op(kRemove, {1, tVendor9});
        s.op(kCheck, {});
        add("mixed", s);
    }
    return out;
}

//------------------------------------------------------------------------------------------

void writeFile(const std::string& dir, const std::string& name, const Bytes& bytes) {
    const std::string path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() ||
        std::fclose(f) != 0) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

std::string makeDir(const std::string& root, const char* target) {
    const std::string dir = root + "/" + target;
    mkdir(root.c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    return dir;
}

Bytes withSpare(Bytes b, size_t n) {
    b.resize(b.size() + n, 0xEE);
    return b;
}

Bytes flipped(Bytes b, size_t at, uint8_t mask) {
    b[at] ^= mask;
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    silenceLogs();
    const std::string root = argv[1];

    // Valid forms: as the library writes them, and as it accepts them from others.
    const IMetadata req120 = request(kRequestRows);
    const uint32_t filter[] = {0x000f0000, 0x00000002, 0xdeadbeef, 0x000f0000, 0x000c000e};
    IMetadata merged = request(40);
    merged += nested();
    const std::vector<std::pair<std::string, Bytes>> valid = {
        {"empty", flatOf(IMetadata())},
        {"request_120", flatOf(req120)},
        {"request_12", flatOf(request(12))},
        {"request_filtered", flatOf(req120, filter, 5)},
        {"all_types", flatOf(allTypes())},
        {"blobs", flatOf(blobs())},
        {"nested_3_levels", flatOf(nested())},
        {"merged", flatOf(merged)},
        {"outside_map", flatOf(outsideMap())},
        {"rows_without_content", flatOf(withoutContent())},
        {"chain_64", chain(64)},
        {"repeated_tag", storage({{0x00010001, content(kI32, 1, i32s({1}))},
                                  {0x00010001, content(kI32, 2, i32s({2, 3}))}})},
        {"typed_without_elements", storage({{0x00000001, content(TYPE_MRational, 0)},
                                            {0x90000000, content(TYPE_IMetadata, 0)},
                                            {0x90010000, content(TYPE_Memory, 0)},
                                            {0x00000002, content(12, 0)},
                                            {0x00000003, content(-1, 0)}})},
        {"spare_bytes_in_record", storage({{0x00010001, content(kI32, 1, i32s({5, 6, 7}))}})},
        {"spare_bytes_after", withSpare(flatOf(request(3)), 5)},
        {"negative_record_count", storage({}, 0xFFFFFFFF)},
        {"empty_slots", storage({{0x90000000, content(TYPE_IMetadata, 3, i32s({0, 0, 0}))},
                                 {0x90010000, content(TYPE_Memory, 2, i32s({0, 0}))}})},
    };

    // Malformed forms, each refused somewhere else.
    const Bytes req = flatOf(request(12));
    const Bytes all = flatOf(allTypes());
    const std::vector<std::pair<std::string, Bytes>> malformed = {
        {"truncated_request", Bytes(req.begin(), req.begin() + static_cast<long>(req.size() / 2))},
        {"truncated_all_types", Bytes(all.begin(), all.end() - 1)},
        {"bad_magic", flipped(req, 0, 0xFF)},
        {"bad_pattern", flipped(req, 16, 0x01)},
        {"untyped_elements", storage({{0x00010001, content(-1, 2, i32s({1, 2}))}})},
        {"type_out_of_range", storage({{0x00010001, content(11, 1, i32s({1}))}})},
        {"huge_count", storage({{0x00000000, content(kU8, 0x7FFFFFFF, {1, 2, 3, 4})}})},
        {"count_wrapping_32_bits",
         storage({{0x000d0000, content(kRect, 0x10000001, Bytes(16, 0))}})},
        {"blob_length_wrapping", storage({{0x90010000, content(TYPE_Memory, 1, i32s({-4}))}})},
        {"record_length_wrapping",
         [] {
             Bytes b = storage({{0x00010001, content(kI32, 1, i32s({1}))}});
             b[12] = 0xF8;
             b[13] = b[14] = b[15] = 0xFF;
             return b;
         }()},
        {"too_many_records", storage({}, 0x8000)},
        {"chain_65", chain(65)},
    };

    for (const char* target : {"MetadataCheck_fuzz", "MetadataFlat_fuzz"}) {
        const std::string dir = makeDir(root, target);
        for (const auto& [name, bytes] : valid) writeFile(dir, name, bytes);
        for (const auto& [name, bytes] : malformed) writeFile(dir, "bad_" + name, bytes);
    }
    const std::string dir = makeDir(root, "MetadataOps_fuzz");
    for (const auto& [name, bytes] : scripts()) writeFile(dir, name, bytes);
    return 0;
}
