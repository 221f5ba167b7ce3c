// Decoding forms a sender could make to cost the receiver most: near every limit the decoder
// accepts (records per table, nested containers, nesting depth), in the element kinds that
// cost most per input byte, and each up to 16 MiB. Each benchmark is one check-and-decode of
// its form (and the destruction of the container); counters report the input size and the
// peak of the heap the decode held, per input byte (counted by this program's operator new).
//
// What a receiver relies on: no form under 16 MiB takes a second, and none makes the decoder
// hold more than 8 bytes per input byte plus 1 MiB.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>
#include <zorcam/platform/ULog.h>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <algorithm>
#include <vector>

namespace {

std::atomic<size_t> gHeld{0};
std::atomic<size_t> gPeak{0};

void noteHeld(size_t held) {
    size_t peak = gPeak.load(std::memory_order_relaxed);
    while (held > peak && !gPeak.compare_exchange_weak(peak, held, std::memory_order_relaxed)) {
    }
}

}  // namespace

void* operator new(size_t n) {
    void* p = std::malloc(n == 0 ? 1 : n);
    if (p == nullptr) throw std::bad_alloc();
    noteHeld(gHeld.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) +
             malloc_usable_size(p));
    return p;
}
// Out of line, so that the compiler does not pair the free with a `new` it sees inlined.
__attribute__((noinline)) void freeBlock(void* p) {
    gHeld.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    std::free(p);
}
void operator delete(void* p) noexcept {
    if (p != nullptr) freeBlock(p);
}
void operator delete(void* p, size_t) noexcept {
    operator delete(p);
}

namespace {

using NSCam::IMetadata;
using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

constexpr uint32_t kMagic = 0x01245432;   // a storage block's head
constexpr uint32_t kRecord = 0xAB2454CD;  // a record's head
constexpr size_t kLimit = 16u << 20;      // the input sizes swept up to

Bytes bytesOf(const Words& w) {
    const auto* b = reinterpret_cast<const uint8_t*>(w.data());
    return Bytes(b, b + 4 * w.size());
}

// A storage block of `records` records, each of `count` elements of `type` with `payload`.
Words block(uint32_t records, int32_t type, uint32_t count, const Words& payload) {
    Words w = {kMagic, records};
    for (uint32_t r = 0; r < records; ++r) {
        w.insert(w.end(), {0x00010000 + r, 4 * uint32_t(3 + payload.size()), kRecord,
                           static_cast<uint32_t>(type), count});
        w.insert(w.end(), payload.begin(), payload.end());
    }
    return w;
}

// Through the API: `tables` nested containers, each of `rows` int32 rows, in one record. The
// rows' tags are those of the slot map from `firstTag` on, or tags past the map (found through
// the side index) with a vendor `firstTag`.
Bytes wideTables(uint32_t tables, uint32_t rows, uint32_t firstTag = 0x00010000) {
    IMetadata inner;
    for (uint32_t r = 0; r < rows; ++r) {
        IMetadata::IEntry e(firstTag + r);
        e.push_back(int32_t(r), NSCam::Type2Type<int32_t>());
        inner.update(e);
    }
    IMetadata::IEntry list(0x00020000);
    for (uint32_t t = 0; t < tables; ++t) list.push_back(inner, NSCam::Type2Type<IMetadata>());
    IMetadata outer;
    outer.update(list);
    Bytes b(static_cast<size_t>(outer.flattenSize()));
    outer.flatten(b.data(), b.size());
    return b;
}

// `levels` containers nested one in the other, the innermost holding `bytes` of uint8.
Bytes chain(uint32_t levels, uint32_t bytes) {
    Words w = block(1, NSCam::TYPE_UINT8, bytes, Words((bytes + 3) / 4, 0x5A5A5A5A));
    for (uint32_t l = 0; l < levels; ++l) {
        Words outer = {kMagic,     1,
                       0x00030000, 4 * uint32_t(3 + 1 + w.size()),
                       kRecord,    NSCam::TYPE_IMetadata,
                       1,          4 * uint32_t(w.size())};
        outer.insert(outer.end(), w.begin(), w.end());
        w.swap(outer);
    }
    return bytesOf(w);
}

// The hostile forms, by name: each at the largest size under kLimit its limits allow.
Bytes form(int which) {
    switch (which) {
        case 0:  // empty nested containers side by side, each only its 8-byte block
        {
            Words payload;
            for (int i = 0; i < 8192; ++i) payload.insert(payload.end(), {8, kMagic, 0});
            return bytesOf(block(1, NSCam::TYPE_IMetadata, 8192, payload));
        }
        case 1:  // as many nested tables as allowed, filling 16 MiB with one-int rows
            return wideTables(8192, 80);
        case 2:  // the deepest chain, around 16 MiB of bytes
            return chain(64, kLimit - 64 * 32 - 64);
        case 3:  // the most records a table may hold, each of 100 ints
            return bytesOf(block(32767, NSCam::TYPE_INT32, 100, Words(100, 7)));
        case 4:  // empty blobs: 4 bytes of input each
            return bytesOf(
                block(1, NSCam::TYPE_Memory, kLimit / 4 - 16, Words(kLimit / 4 - 16, 0)));
        case 5:  // rectangles: 16 bytes each
            return bytesOf(block(1, NSCam::TYPE_MRect, kLimit / 16 - 4, Words(kLimit / 4 - 16, 1)));
        case 6:  // the nested tables again, the last one's block spoilt: decoded, then refused
        {
            Bytes b = wideTables(8192, 80);
            for (size_t at = b.size() - 4;; at -= 4) {
                uint32_t word;
                std::memcpy(&word, &b[at], 4);
                if (word == kMagic) {
                    b[at] ^= 1;
                    return b;
                }
            }
        }
        default:
            return {};
    }
}
const char* const kNames[] = {"EmptyNested8192",       "NestedTables8192x80", "Chain64Deep16MiB",
                              "Records32767x100",      "EmptyBlobs16MiB",     "Rects16MiB",
                              "NestedTablesLastSpoilt"};

// The refused form logs a few lines per decode: not what is measured here.
struct Quiet {
    Quiet() { NSCam::Utils::ULog::ULogger::sMode = 0; }
} quiet;

// One check-and-decode of `b` per iteration, its peak heap per input byte as counters.
void decodeEach(benchmark::State& state, const Bytes& b) {
    size_t peak = 0;
    bool accepted = false;
    for (auto _ : state) {
        const size_t before = gHeld.load(std::memory_order_relaxed);
        gPeak.store(before, std::memory_order_relaxed);
        {
            accepted = NSCam::checkFlatMetadata(b.data(), b.size()).ok;
            IMetadata m(b.data(), b.size());
            benchmark::DoNotOptimize(m.count());
        }
        const size_t held = gPeak.load(std::memory_order_relaxed) - before;
        if (held > peak) peak = held;
    }
    state.counters["input_bytes"] = double(b.size());
    state.counters["peak_per_input_byte"] = double(peak) / double(b.size());
    state.counters["within_8B_plus_1MiB"] = peak <= 8 * b.size() + (1u << 20) ? 1 : 0;
    state.counters["accepted"] = accepted ? 1 : 0;
}

void BM_HostileDecode(benchmark::State& state) {
    state.SetLabel(kNames[state.range(0)]);
    decodeEach(state, form(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_HostileDecode)->DenseRange(0, 6)->Unit(benchmark::kMillisecond);

// Nested tables by their row count: as many as the limits and 16 MiB allow (8192 at most),
// each of range(0) int32 rows; range(1) 0 for tags of the slot map, 1 for tags past it. A
// table of 16 rows or fewer needs no index, 17 is the first that builds one.
void BM_HostileDecodeNested(benchmark::State& state) {
    const auto rows = static_cast<uint32_t>(state.range(0));
    const uint32_t tableBytes = 16 + 24 * rows;  // its head in the list, its block, its records
    const uint32_t tables = std::min<uint32_t>(8192, uint32_t(kLimit - 64) / tableBytes);
    state.SetLabel(std::to_string(tables) + " tables of " + std::to_string(rows) +
                   (state.range(1) ? " rows past the map" : " rows in the map"));
    decodeEach(state, wideTables(tables, rows, state.range(1) ? 0x80000000u : 0x00010000u));
}
BENCHMARK(BM_HostileDecodeNested)
    ->ArgsProduct({{0, 1, 16, 17, 40, 80, 100, 200}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
