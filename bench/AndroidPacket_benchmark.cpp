// The Android packet bridge on the workload's capture request (the 120 request entries of
// bench/data/capture_request.tsv, their four rectangles as MRect through the platform shapes),
// beside the same request's flat-form operations, so that each packet figure has its
// like-for-like reference in the same run:
//
//   BM_AndroidRead120    check a packet and rebuild the container   vs  BM_CheckRebuild120
//   BM_AndroidWrite120   the container into a packet (row order)     vs  BM_Flatten120
//   BM_AndroidCheck120   the packet's check alone                    vs  BM_FlatCheck120
//
// Each with its heap allocations per iteration (counter `allocs`, counted by the malloc
// family this program replaces). Quote figures as multiples of BM_Floor_MutexLockUnlock, one
// uncontended lock and unlock of a std::mutex, measured in the same run:
//   taskset -c 0 build/release/bench/AndroidPacket_benchmark --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true
#include <zorcam/metadata/AndroidPacket.h>
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>
#include <zorcam/platform/ULog.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

//------------------------------------------------------------------------------------------
// Allocation counting, as in Metadata_benchmark.cpp: every malloc of this process, per thread.

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {
thread_local uint64_t tAllocs = 0;
}

extern "C" {
void* malloc(size_t n) {
    ++tAllocs;
    return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
    ++tAllocs;
    return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
    ++tAllocs;
    return __libc_realloc(p, n);
}
void* aligned_alloc(size_t alignment, size_t n) {
    ++tAllocs;
    return __libc_memalign(alignment, n);
}
int posix_memalign(void** out, size_t alignment, size_t n) {
    ++tAllocs;
    *out = __libc_memalign(alignment, n);
    return *out ? 0 : 12;  // ENOMEM
}
void free(void* p) {
    __libc_free(p);
}
}

namespace {

using namespace NSCam;

class AllocCounter {
public:
    explicit AllocCounter(benchmark::State& state) : mState(state), mStart(tAllocs) {}
    ~AllocCounter() {
        const double n = static_cast<double>(tAllocs - mStart);
        mState.counters["allocs"] = benchmark::Counter(
            mState.iterations() ? n / static_cast<double>(mState.iterations()) : 0,
            benchmark::Counter::kAvgThreads);
    }

private:
    benchmark::State& mState;
    uint64_t mStart;
};

//------------------------------------------------------------------------------------------
// The workload's request, built as Metadata_benchmark.cpp builds it: the request rows of the
// file, in order, each with its type and count.

template <typename T>
void put(IMetadata& meta, uint32_t tag, int count, T (*value)(int)) {
    IMetadata::IEntry entry(tag);
    if (count == 1) {
        entry.push_back(value(0), Type2Type<T>());
    } else {
        std::vector<T> values;
        for (int i = 0; i < count; ++i) values.push_back(value(i));
        entry.push_back(values.data(), values.size(), Type2Type<T>());
    }
    meta.update(entry);
}

IMetadata makeRequest() {
    IMetadata meta;
    std::ifstream in(ZORCAM_BENCH_DATA "/capture_request.tsv");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#' || line.rfind("tag", 0) == 0) continue;
        std::istringstream fields(line);
        std::string tag, values, name, role;
        std::getline(fields, tag, '\t');
        std::getline(fields, values, '\t');
        std::getline(fields, name, '\t');
        std::getline(fields, role, '\t');
        if (role.find("request") == std::string::npos) continue;
        const uint32_t t = static_cast<uint32_t>(std::stoul(tag, nullptr, 16));
        const std::string type = values.substr(0, values.find(' '));
        const int count = std::stoi(values.substr(values.find('x') + 1));
        if (type == "uint8")
            put<unsigned char>(meta, t, count, [](int i) { return static_cast<unsigned char>(i); });
        else if (type == "int32")
            put<int>(meta, t, count, [](int i) { return i; });
        else if (type == "int64")
            put<long>(meta, t, count, [](int i) { return static_cast<long>(i); });
        else if (type == "float")
            put<float>(meta, t, count, [](int i) { return static_cast<float>(i); });
        else if (type == "MRect")
            put<MRect>(meta, t, count, [](int i) { return MRect(i, i, 64, 48); });
        else
            std::abort();
    }
    if (meta.count() != 120) {
        std::fprintf(stderr, "the workload at %s has %u request rows, not 120\n", ZORCAM_BENCH_DATA,
                     meta.count());
        std::abort();
    }
    return meta;
}

const AndroidTagMap& shapes() {
    static const AndroidTagMap map = AndroidTagMap::withPlatformShapes();
    return map;
}

AndroidWriteOptions options(bool sorted) {
    AndroidWriteOptions o;
    o.sorted = sorted;
    o.map = &shapes();
    return o;
}

std::vector<uint8_t> flatOf(const IMetadata& meta) {
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    meta.flatten(bytes.data(), bytes.size());
    return bytes;
}

// The packet of the request, in a buffer of 8-byte words (packets are 8-aligned).
std::vector<uint64_t> packetOf(const IMetadata& meta, bool sorted) {
    const long size = androidPacketSize(meta, options(sorted));
    std::vector<uint64_t> words((static_cast<size_t>(size) + 7) / 8);
    if (size < 0 ||
        writeAndroidPacket(meta, words.data(), words.size() * 8, options(sorted)) != size)
        std::abort();
    return words;
}

// A camera process always runs many threads (see Metadata_benchmark.cpp): one thread is
// started and joined before any figure is taken. The logger is quiet.
struct Setup {
    Setup() {
        Utils::ULog::ULogger::sMode = 0;
        std::thread([] {}).join();
    }
} setup;

//------------------------------------------------------------------------------------------

void BM_Floor_MutexLockUnlock(benchmark::State& state) {
    std::mutex m;
    AllocCounter allocs(state);
    for (auto _ : state) {
        m.lock();
        m.unlock();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Floor_MutexLockUnlock);

//------------------------------------------------------------------------------------------
// The flat form of the same request.

void BM_Flatten120(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    long written = 0;
    AllocCounter allocs(state);
    for (auto _ : state) {
        written = meta.flatten(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(bytes.data());
    }
    if (written != static_cast<long>(bytes.size())) state.SkipWithError("flatten failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_Flatten120);

void BM_CheckRebuild120(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    const std::vector<uint8_t> bytes = flatOf(meta);
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        ok &= checkFlatMetadata(bytes.data(), bytes.size()).ok;
        IMetadata received(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(received);
    }
    if (!ok) state.SkipWithError("the check refused the request");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_CheckRebuild120);

void BM_FlatCheck120(benchmark::State& state) {
    const std::vector<uint8_t> bytes = flatOf(makeRequest());
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        const FlatCheck c = checkFlatMetadata(bytes.data(), bytes.size());
        ok &= c.ok;
        benchmark::DoNotOptimize(c);
    }
    if (!ok) state.SkipWithError("the check refused the request");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_FlatCheck120);

//------------------------------------------------------------------------------------------
// The packet of the same request.

// Receive: check the packet and rebuild the container (one call: the read runs the check),
// then destroy it, as BM_CheckRebuild120 does.
void BM_AndroidRead120(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    const std::vector<uint64_t> words = packetOf(meta, false);
    const size_t size = words.size() * 8;
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        IMetadata received;
        ok &= readAndroidPacket(words.data(), size, received, &shapes()).ok;
        benchmark::DoNotOptimize(received);
    }
    IMetadata back;
    readAndroidPacket(words.data(), size, back, &shapes());
    if (!ok || flatOf(back) != flatOf(meta)) state.SkipWithError("the read lost the request");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_AndroidRead120);

// Send: the request into a buffer sized once beforehand, as BM_Flatten120 does.
void BM_AndroidWrite120(benchmark::State& state) {
    const bool sorted = state.range(0) != 0;
    const IMetadata meta = makeRequest();
    std::vector<uint64_t> words = packetOf(meta, sorted);
    const size_t size = words.size() * 8;
    long written = 0;
    AllocCounter allocs(state);
    for (auto _ : state) {
        written = writeAndroidPacket(meta, words.data(), size, options(sorted));
        benchmark::DoNotOptimize(words.data());
    }
    if (written != static_cast<long>(size)) state.SkipWithError("the write failed");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_AndroidWrite120)->ArgName("sorted")->Arg(0)->Arg(1);

void BM_AndroidCheck120(benchmark::State& state) {
    const std::vector<uint64_t> words = packetOf(makeRequest(), false);
    const size_t size = words.size() * 8;
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        const AndroidPacketCheck c = checkAndroidPacket(words.data(), size);
        ok &= c.ok;
        benchmark::DoNotOptimize(c);
    }
    if (!ok) state.SkipWithError("the check refused the request");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_AndroidCheck120);

}  // namespace
