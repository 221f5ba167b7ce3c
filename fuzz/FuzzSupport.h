#pragma once
// Shared by the fuzz targets and the corpus writer: quiet logging, a reader that takes the
// fuzzer's bytes front to back (so that a hand-written seed reads the way it was written),
// the tag palette of the operations target and its operation codes.
#include <zorcam/platform/ULog.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// A broken property: says which, then aborts so that libFuzzer keeps the input.
#define FUZZ_REQUIRE(cond)                                                                   \
    do {                                                                                     \
        if (!(cond)) {                                                                       \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

namespace zorcam_fuzz {

// Error lines are the normal answer to malformed bytes; formatting and writing them would
// dominate a run. Mode 0 keeps every sink closed; details level 0 also spares the call
// stacks that some refusals capture (their results do not depend on the level).
inline void silenceLogs() {
    NSCam::Utils::ULog::ULogger::sMode = 0;
    NSCam::Utils::ULog::ULogger::sDetailsLevel = 0;
}

class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    bool empty() const { return mPos >= mSize; }
    uint8_t u8() { return mPos < mSize ? mData[mPos++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16); }
    // Fills `out` with the next n bytes; zeros once the input is used up.
    void bytes(void* out, size_t n) {
        uint8_t* p = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < n; ++i) p[i] = u8();
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
};

// Tags the operations target works with: real Android tags of the capture request, tags of
// the vendor groups, tags that fall outside the slot map (newer Android tags such as the
// flash strength levels next to 0x50000, sections that do not exist), and tags of groups 1
// to 8 that share a slot with another tag of the palette (0x10000000 and 0x30000000 with
// 0x80000000) or would, were they inside the map (0x20010003 and 0x80010003).
inline constexpr uint32_t kTags[32] = {
    0x00000000, 0x00000001, 0x00000002, 0x00010001, 0x00010005, 0x00010009, 0x0001002f, 0x00040001,
    0x00040006, 0x0004000a, 0x00050000, 0x00050001, 0x00070000, 0x10000000, 0x00080002, 0x30000000,
    0x000d0000, 0x000e0000, 0x000f0000, 0x00110008, 0x00170000, 0x20010003, 0x80000000, 0x80010003,
    0x90000000, 0x90010000, 0xa0000001, 0xd0010000, 0x00200000, 0x00240001, 0x9fff0000, 0xf00f0000};
inline uint32_t tagAt(uint8_t b) {
    return kTags[b % 32];
}

// Operations of MetadataOps_fuzz: one byte each, then their arguments. Containers and
// entries are addressed by a byte taken modulo the pool size, tags by a position in kTags,
// types by their code. A `count` byte gives the number of values in its low bits (bit 7:
// the one-value form of the call); then come the values: a basic value as its raw bytes, a
// blob as a length byte (low six bits; bit 7 with length 0: no buffer at all) and its bytes,
// a nested container as a pool position (3 mod 4: a container without storage).
enum Op : uint8_t {
    // entries
    kEntryReset,     // e, tag
    kEntryPush,      // e, type, count, values...
    kEntryReplace,   // e, type, index, count, values...
    kEntryRemoveAt,  // e, index
    kEntryClear,     // e
    kEntryAssign,    // e, e2, how (0 assignment, 1 copy construction)
    kEntryData,      // e
    // containers
    kUpdate,          // m, e, tag (0xFF: the entry's own tag through update(entry))
    kRemove,          // m, tag
    kTake,            // m, tag, e
    kEntryFor,        // m, tag, e
    kEntryAt,         // m, index, e
    kCopy,            // m, m2
    kAssign,          // m, m2
    kMerge,           // m, m2
    kSum,             // m, m2, m3
    kClear,           // m
    kFlattenRebuild,  // m, keep (odd: continue with the rebuilt container)
    kFlattenFilter,   // m, n, tags...
    kUnflattenInto,   // m, m2
    kBurstWrite,      // m, tag, type, count (bit 6: index 0 instead of -1), values...
    kSetEntry,        // m, tag, type, values...
    kGetEntry,        // m, tag, type, index
    kBurstRead,       // m, tag, type
    kCheck,           //
    kOpCount
};

// Pool sizes of the operations target.
inline constexpr unsigned kContainers = 3;
inline constexpr unsigned kEntries = 3;

}  // namespace zorcam_fuzz
