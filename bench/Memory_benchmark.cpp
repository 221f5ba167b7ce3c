// Blob buffers: the pool's allocate/recycle round trip and the Memory handle's life cycle,
// each against the plain shared vector a caller would otherwise make.
#include <zorcam/metadata/IMetadata.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

using NSCam::IMetadata;
using Memory = IMetadata::Memory;
using Bytes = std::vector<uint8_t>;

// Sizes across the pool's classes, and one above it (served without the pool).
void blobSizes(benchmark::internal::Benchmark* b) {
    for (int64_t n : {48, 100, 1000, 8000, 100000, 200000}) b->Arg(n);
}

// Steady state: the slot hands back the buffer it was just given.
void BM_PoolAllocateRecycle(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        Memory::BufferSP b = Memory::sAllocator.allocate(n);
        benchmark::DoNotOptimize(b->data());
        Memory::sAllocator.recycle(std::move(b));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PoolAllocateRecycle)->Apply(blobSizes);

// Baseline: a fresh shared vector of the same size (zero-filled, as vector(n) must be).
void BM_MakeSharedVector(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        auto b = std::make_shared<Bytes>(n);
        benchmark::DoNotOptimize(b->data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MakeSharedVector)->Apply(blobSizes);

// A blob built from caller bytes and dropped: pooled storage plus the copy.
void BM_MemoryFromBytes(benchmark::State& state) {
    const Bytes src(static_cast<size_t>(state.range(0)), 0x5A);
    for (auto _ : state) {
        Memory m(src.data(), src.size());
        benchmark::DoNotOptimize(m.array());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_MemoryFromBytes)->Apply(blobSizes);

// Baseline: the same bytes copied into a fresh shared vector.
void BM_SharedVectorCopy(benchmark::State& state) {
    const Bytes src(static_cast<size_t>(state.range(0)), 0x5A);
    for (auto _ : state) {
        auto v = std::make_shared<Bytes>(src.begin(), src.end());
        benchmark::DoNotOptimize(v->data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SharedVectorCopy)->Apply(blobSizes);

// Two threads on one size class contend for one slot lock.
void BM_PoolOneSlotThreads(benchmark::State& state) {
    for (auto _ : state) {
        Memory::BufferSP b = Memory::sAllocator.allocate(100);
        benchmark::DoNotOptimize(b->data());
        Memory::sAllocator.recycle(std::move(b));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PoolOneSlotThreads)->Threads(1)->Threads(2)->UseRealTime();

void BM_MakeSharedVectorThreads(benchmark::State& state) {
    for (auto _ : state) {
        auto b = std::make_shared<Bytes>(100);
        benchmark::DoNotOptimize(b->data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MakeSharedVectorThreads)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
