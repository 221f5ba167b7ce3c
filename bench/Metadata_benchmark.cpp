// The container's per-frame paths on a real capture request (120 Android tags, their types
// and counts from bench/data/capture_request.tsv), one operation per iteration, each with the
// heap allocations it makes per iteration (counter `allocs`, counted by the malloc family
// this program replaces). Compare figures as multiples of BM_Floor_MutexLockUnlock, measured
// in the same run: one uncontended lock and unlock of a std::mutex.
//
// Beside them, the plain standard-library baselines: a std::map from tag to a byte vector,
// which is what a container without sharing or slot lookup would cost.
//
// Run pinned to one core:
//   taskset -c 1 build/release/bench/Metadata_benchmark --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>
#include <zorcam/platform/ULog.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

//------------------------------------------------------------------------------------------
// Allocation counting: the malloc family of this program replaces the C library's, so every
// allocation of the library, of the standard library's operator new and of this program is
// counted, per thread.

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

using NSCam::IMetadata;
using NSCam::MRect;
using NSCam::Type2Type;

// Reports the allocations per iteration made by the loop of `state` on this thread.
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
// The workload.

enum class Kind { U8, I32, I64, F32, Rect };

struct Tag {
    uint32_t tag;
    Kind kind;
    int count;
    bool request;
    bool mergeSource;
};

Kind kindOf(const std::string& type) {
    if (type == "uint8") return Kind::U8;
    if (type == "int32") return Kind::I32;
    if (type == "int64") return Kind::I64;
    if (type == "float") return Kind::F32;
    if (type == "MRect") return Kind::Rect;
    std::fprintf(stderr, "unknown type %s in the workload\n", type.c_str());
    std::abort();
}

size_t elementSize(Kind kind) {
    switch (kind) {
        case Kind::U8:
            return 1;
        case Kind::I32:
        case Kind::F32:
            return 4;
        case Kind::I64:
            return 8;
        case Kind::Rect:
            return 16;
    }
    return 0;
}

const std::vector<Tag>& workload() {
    static const std::vector<Tag> tags = [] {
        std::vector<Tag> out;
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
            Tag t;
            t.tag = static_cast<uint32_t>(std::stoul(tag, nullptr, 16));
            t.kind = kindOf(values.substr(0, values.find(' ')));
            t.count = std::stoi(values.substr(values.find('x') + 1));
            t.request = role.find("request") != std::string::npos;
            t.mergeSource = role.find("merge") != std::string::npos;
            out.push_back(t);
        }
        if (out.empty()) {
            std::fprintf(stderr, "no workload at %s\n", ZORCAM_BENCH_DATA);
            std::abort();
        }
        return out;
    }();
    return tags;
}

std::vector<Tag> requestTags() {
    std::vector<Tag> out;
    for (const Tag& t : workload())
        if (t.request) out.push_back(t);
    return out;
}

// An entry built as a camera component builds one: a single value with push_back, several
// values as one array, then the entry stored with update.
template <typename T>
void pushValues(IMetadata::IEntry& entry, int count, T (*value)(int)) {
    if (count == 1) {
        entry.push_back(value(0), Type2Type<T>());
        return;
    }
    T values[16];  // on the stack: only the container's own allocations are counted
    if (count > 16) std::abort();
    for (int i = 0; i < count; ++i) values[i] = value(i);
    entry.push_back(values, static_cast<size_t>(count), Type2Type<T>());
}

void fill(IMetadata& meta, const Tag& t) {
    IMetadata::IEntry entry(t.tag);
    switch (t.kind) {
        case Kind::U8:
            pushValues<unsigned char>(entry, t.count,
                                      [](int i) { return static_cast<unsigned char>(i); });
            break;
        case Kind::I32:
            pushValues<int>(entry, t.count, [](int i) { return i; });
            break;
        case Kind::I64:
            pushValues<long>(entry, t.count, [](int i) { return static_cast<long>(i); });
            break;
        case Kind::F32:
            pushValues<float>(entry, t.count, [](int i) { return static_cast<float>(i); });
            break;
        case Kind::Rect:
            pushValues<MRect>(entry, t.count, [](int i) { return MRect(i, i, 64, 48); });
            break;
    }
    meta.update(entry);
}

IMetadata makeRequest() {
    IMetadata meta;
    for (const Tag& t : workload())
        if (t.request) fill(meta, t);
    return meta;
}

IMetadata makeMergeSource() {
    IMetadata meta;
    for (const Tag& t : workload())
        if (t.mergeSource) fill(meta, t);
    return meta;
}

// Reads value 0 of a tag with the getEntry member of its type.
bool getOne(const IMetadata& meta, const Tag& t) {
    switch (t.kind) {
        case Kind::U8: {
            unsigned char v = 0;
            const bool ok = IMetadata::getEntry<unsigned char>(&meta, t.tag, v);
            benchmark::DoNotOptimize(v);
            return ok;
        }
        case Kind::I32: {
            int v = 0;
            const bool ok = IMetadata::getEntry<int>(&meta, t.tag, v);
            benchmark::DoNotOptimize(v);
            return ok;
        }
        case Kind::I64: {
            long v = 0;
            const bool ok = IMetadata::getEntry<long>(&meta, t.tag, v);
            benchmark::DoNotOptimize(v);
            return ok;
        }
        case Kind::F32: {
            float v = 0;
            const bool ok = IMetadata::getEntry<float>(&meta, t.tag, v);
            benchmark::DoNotOptimize(v);
            return ok;
        }
        case Kind::Rect: {
            MRect v;
            const bool ok = IMetadata::getEntry<MRect>(&meta, t.tag, v);
            benchmark::DoNotOptimize(v);
            return ok;
        }
    }
    return false;
}

void failIfMissing(benchmark::State& state, bool ok) {
    if (!ok) state.SkipWithError("a tag of the workload was not found");
}

using Baseline = std::map<uint32_t, std::vector<uint8_t>>;

Baseline makeBaseline(bool request) {
    Baseline map;
    for (const Tag& t : workload())
        if (request ? t.request : t.mergeSource)
            map[t.tag] =
                std::vector<uint8_t>(elementSize(t.kind) * static_cast<size_t>(t.count), 1);
    return map;
}

// A camera process always runs many threads. The C library and the standard library skip
// their atomic instructions while a process has only ever had one thread (a mutex then costs
// a third, a shared_ptr copy a quarter), so one thread is started and joined before any
// figure is taken. The logger is quiet: no path measured here logs.
struct Setup {
    Setup() {
        NSCam::Utils::ULog::ULogger::sMode = 0;
        std::thread([] {}).join();
    }
} setup;

//------------------------------------------------------------------------------------------
// The floor every figure is quoted against.

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
// The container.

// Read of one control: one value of one tag, cycling over the 120 tags.
void BM_GetEntry(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    const std::vector<Tag> tags = requestTags();
    size_t i = 0;
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        ok &= getOne(meta, tags[i]);
        if (++i == tags.size()) i = 0;
    }
    failIfMissing(state, ok);
}
BENCHMARK(BM_GetEntry);

// Bulk read: value 0 of each of the 120 tags under one lock, through the storage's readers.
void BM_BurstRead120(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    const std::vector<Tag> tags = requestTags();
    int missing = 0;
    AllocCounter allocs(state);
    for (auto _ : state) {
        missing += meta.burstRead([&tags](const IMetadata::BurstEntry& s) {
            int absent = 0;
            for (const Tag& t : tags) {
                switch (t.kind) {
                    case Kind::U8: {
                        unsigned char v = 0;
                        absent += s.readEntry<unsigned char>(t.tag, v) != 0;
                        benchmark::DoNotOptimize(v);
                        break;
                    }
                    case Kind::I32: {
                        int v = 0;
                        absent += s.readEntry<int>(t.tag, v) != 0;
                        benchmark::DoNotOptimize(v);
                        break;
                    }
                    case Kind::I64: {
                        long v = 0;
                        absent += s.readEntry<long>(t.tag, v) != 0;
                        benchmark::DoNotOptimize(v);
                        break;
                    }
                    case Kind::F32: {
                        float v = 0;
                        absent += s.readEntry<float>(t.tag, v) != 0;
                        benchmark::DoNotOptimize(v);
                        break;
                    }
                    case Kind::Rect: {
                        MRect v;
                        absent += s.readEntry<MRect>(t.tag, v) != 0;
                        benchmark::DoNotOptimize(v);
                        break;
                    }
                }
            }
            return absent;
        });
    }
    failIfMissing(state, missing == 0);
}
BENCHMARK(BM_BurstRead120);

// Update of a control: one int32 tag of an unshared container replaced by a new value,
// cycling over the request's single int32 tags.
void BM_SetEntryExisting(benchmark::State& state) {
    IMetadata meta = makeRequest();
    std::vector<uint32_t> tags;
    for (const Tag& t : requestTags())
        if (t.kind == Kind::I32 && t.count == 1) tags.push_back(t.tag);
    size_t i = 0;
    int value = 0;
    AllocCounter allocs(state);
    for (auto _ : state) {
        IMetadata::setEntry<int>(&meta, tags[i], ++value);
        if (++i == tags.size()) i = 0;
    }
    failIfMissing(state, meta.count() == requestTags().size());
}
BENCHMARK(BM_SetEntryExisting);

// A new request: 120 entries built and stored one by one, then the container destroyed.
void BM_Build120(benchmark::State& state) {
    AllocCounter allocs(state);
    for (auto _ : state) {
        IMetadata meta = makeRequest();
        benchmark::DoNotOptimize(meta);
    }
}
BENCHMARK(BM_Build120);

// Keeping a request: copy construct, then destroy the copy.
void BM_Copy(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    AllocCounter allocs(state);
    for (auto _ : state) {
        IMetadata copy(meta);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_Copy);

// Per-frame copy of settings: copy, then one setEntry on the copy (which clones the table),
// then destroy the copy.
void BM_CopyFirstWrite(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    AllocCounter allocs(state);
    for (auto _ : state) {
        IMetadata copy(meta);
        IMetadata::setEntry<unsigned char>(&copy, 0x0001000d, 2);  // capture intent
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_CopyFirstWrite);

// Send to another process: the whole request into a buffer sized once beforehand.
void BM_Flatten120(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    long written = 0;
    AllocCounter allocs(state);
    for (auto _ : state) {
        written = meta.flatten(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(bytes.data());
    }
    failIfMissing(state, written == static_cast<long>(bytes.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_Flatten120);

// Receive: check the foreign bytes, rebuild a container from them, destroy it.
void BM_CheckRebuild120(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    meta.flatten(bytes.data(), bytes.size());
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        const NSCam::FlatCheck check = NSCam::checkFlatMetadata(bytes.data(), bytes.size());
        ok &= check.ok;
        IMetadata received(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(received);
    }
    failIfMissing(state, ok && IMetadata(bytes.data(), bytes.size()).count() == meta.count());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_CheckRebuild120);

// Merge of overrides: a copy of the request takes 20 entries (10 of its tags, 10 new ones).
void BM_Merge20(benchmark::State& state) {
    const IMetadata request = makeRequest();
    const IMetadata source = makeMergeSource();
    AllocCounter allocs(state);
    for (auto _ : state) {
        IMetadata target(request);
        target += source;
        benchmark::DoNotOptimize(target);
    }
}
BENCHMARK(BM_Merge20);

// Many camera threads reading controls of one shared request.
void BM_GetEntryShared(benchmark::State& state) {
    static const IMetadata* shared = new IMetadata(makeRequest());
    const std::vector<Tag> tags = requestTags();
    size_t i = static_cast<size_t>(state.thread_index()) * 7 % tags.size();
    bool ok = true;
    AllocCounter allocs(state);
    for (auto _ : state) {
        ok &= getOne(*shared, tags[i]);
        if (++i == tags.size()) i = 0;
    }
    failIfMissing(state, ok);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetEntryShared)->Threads(1)->Threads(2)->UseRealTime();

//------------------------------------------------------------------------------------------
// Standard-library baselines of the same operations.

void BM_StdMap_GetEntry(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    const std::vector<Tag> tags = requestTags();
    size_t i = 0;
    AllocCounter allocs(state);
    for (auto _ : state) {
        auto it = map.find(tags[i].tag);
        int v = 0;
        if (it != map.end())
            std::memcpy(&v, it->second.data(), std::min<size_t>(4, it->second.size()));
        benchmark::DoNotOptimize(v);
        if (++i == tags.size()) i = 0;
    }
}
BENCHMARK(BM_StdMap_GetEntry);

void BM_StdMap_Build120(benchmark::State& state) {
    AllocCounter allocs(state);
    for (auto _ : state) benchmark::DoNotOptimize(makeBaseline(true));
}
BENCHMARK(BM_StdMap_Build120);

void BM_StdMap_CopyFirstWrite(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    AllocCounter allocs(state);
    for (auto _ : state) {
        Baseline copy(map);
        copy[0x0001000d] = std::vector<uint8_t>(1, 2);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_StdMap_CopyFirstWrite);

void BM_StdMap_Flatten120(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    size_t total = 0;
    for (const auto& kv : map) total += 8 + kv.second.size();
    std::vector<uint8_t> bytes(total);
    AllocCounter allocs(state);
    for (auto _ : state) {
        size_t pos = 0;
        for (const auto& kv : map) {
            const uint32_t head[2] = {kv.first, static_cast<uint32_t>(kv.second.size())};
            std::memcpy(bytes.data() + pos, head, sizeof(head));
            pos += sizeof(head);
            std::memcpy(bytes.data() + pos, kv.second.data(), kv.second.size());
            pos += kv.second.size();
        }
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_StdMap_Flatten120);

void BM_StdMap_Rebuild120(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    std::vector<uint8_t> bytes;
    for (const auto& kv : map) {
        const uint32_t head[2] = {kv.first, static_cast<uint32_t>(kv.second.size())};
        bytes.insert(bytes.end(), reinterpret_cast<const uint8_t*>(head),
                     reinterpret_cast<const uint8_t*>(head) + sizeof(head));
        bytes.insert(bytes.end(), kv.second.begin(), kv.second.end());
    }
    AllocCounter allocs(state);
    for (auto _ : state) {
        Baseline back;
        for (size_t pos = 0; pos < bytes.size();) {
            uint32_t head[2];
            std::memcpy(head, bytes.data() + pos, sizeof(head));
            pos += sizeof(head);
            back[head[0]].assign(bytes.begin() + static_cast<long>(pos),
                                 bytes.begin() + static_cast<long>(pos + head[1]));
            pos += head[1];
        }
        benchmark::DoNotOptimize(back);
    }
}
BENCHMARK(BM_StdMap_Rebuild120);

void BM_StdMap_Merge20(benchmark::State& state) {
    const Baseline request = makeBaseline(true);
    const Baseline source = makeBaseline(false);
    AllocCounter allocs(state);
    for (auto _ : state) {
        Baseline target(request);
        for (const auto& kv : source) target[kv.first] = kv.second;
        benchmark::DoNotOptimize(target);
    }
}
BENCHMARK(BM_StdMap_Merge20);

}  // namespace
