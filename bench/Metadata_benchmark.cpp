// The container on a real capture request (120 Android tags, their types and counts from
// bench/data/capture_request.tsv): build, look up, copy and edit, merge, flatten and rebuild.
// Each benchmark has its plain standard-library baseline: a std::map from tag to a byte
// vector, which is what a container without sharing or slot lookup would cost.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/platform/ULog.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using NSCam::IMetadata;
using NSCam::MRect;
using NSCam::Type2Type;

namespace {

struct Tag {
    uint32_t tag;
    std::string type;  // uint8, int32, int64, float, MRect
    int count;
    bool request;
    bool mergeSource;
};

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
            t.type = values.substr(0, values.find(' '));
            t.count = std::stoi(values.substr(values.find('x') + 1));
            t.request = role.find("request") != std::string::npos;
            t.mergeSource = role.find("merge") != std::string::npos;
            out.push_back(t);
        }
        if (out.empty()) std::fprintf(stderr, "no workload at %s\n", ZORCAM_BENCH_DATA);
        return out;
    }();
    return tags;
}

size_t elementSize(const std::string& type) {
    if (type == "uint8") return 1;
    if (type == "int64") return 8;
    if (type == "MRect") return 16;
    return 4;
}

void fill(IMetadata& meta, const Tag& t) {
    IMetadata::IEntry entry(t.tag);
    for (int i = 0; i < t.count; ++i) {
        if (t.type == "uint8")
            entry.push_back(static_cast<unsigned char>(i), Type2Type<unsigned char>());
        else if (t.type == "int32")
            entry.push_back(i, Type2Type<int>());
        else if (t.type == "int64")
            entry.push_back(static_cast<long>(i), Type2Type<long>());
        else if (t.type == "float")
            entry.push_back(static_cast<float>(i), Type2Type<float>());
        else
            entry.push_back(MRect(i, i, 64, 48), Type2Type<MRect>());
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

using Baseline = std::map<uint32_t, std::vector<uint8_t>>;

Baseline makeBaseline(bool request) {
    Baseline map;
    for (const Tag& t : workload())
        if (request ? t.request : t.mergeSource)
            map[t.tag] = std::vector<uint8_t>(elementSize(t.type) * t.count, 1);
    return map;
}

struct Quiet {
    Quiet() { NSCam::Utils::ULog::ULogger::sMode = 0; }
} quiet;

void BM_Build_Metadata(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(makeRequest());
}
BENCHMARK(BM_Build_Metadata);

void BM_Build_StdMap(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(makeBaseline(true));
}
BENCHMARK(BM_Build_StdMap);

void BM_Lookup_Metadata(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    for (auto _ : state) {
        size_t found = 0;
        for (const Tag& t : workload()) found += meta.entryFor(t.tag).count();
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Lookup_Metadata);

void BM_Lookup_StdMap(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    for (auto _ : state) {
        size_t found = 0;
        for (const Tag& t : workload()) {
            auto it = map.find(t.tag);
            if (it != map.end()) found += it->second.size();
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Lookup_StdMap);

void BM_CopyAndEdit_Metadata(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    for (auto _ : state) {
        IMetadata copy(meta);
        IMetadata::setEntry<unsigned char>(&copy, 0x0001000d, 2);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_CopyAndEdit_Metadata);

void BM_CopyAndEdit_StdMap(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    for (auto _ : state) {
        Baseline copy(map);
        copy[0x0001000d] = std::vector<uint8_t>(1, 2);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_CopyAndEdit_StdMap);

void BM_Merge_Metadata(benchmark::State& state) {
    const IMetadata request = makeRequest();
    const IMetadata source = makeMergeSource();
    for (auto _ : state) {
        IMetadata target(request);
        target += source;
        benchmark::DoNotOptimize(target);
    }
}
BENCHMARK(BM_Merge_Metadata);

void BM_Merge_StdMap(benchmark::State& state) {
    const Baseline request = makeBaseline(true);
    const Baseline source = makeBaseline(false);
    for (auto _ : state) {
        Baseline target(request);
        for (const auto& kv : source) target[kv.first] = kv.second;
        benchmark::DoNotOptimize(target);
    }
}
BENCHMARK(BM_Merge_StdMap);

void BM_FlattenRebuild_Metadata(benchmark::State& state) {
    const IMetadata meta = makeRequest();
    std::vector<uint8_t> bytes(static_cast<size_t>(meta.flattenSize()));
    for (auto _ : state) {
        meta.flatten(bytes.data(), bytes.size());
        IMetadata back(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(back);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_FlattenRebuild_Metadata);

void BM_FlattenRebuild_StdMap(benchmark::State& state) {
    const Baseline map = makeBaseline(true);
    std::vector<uint8_t> bytes;
    for (auto _ : state) {
        bytes.clear();
        for (const auto& kv : map) {
            const uint32_t head[2] = {kv.first, static_cast<uint32_t>(kv.second.size())};
            bytes.insert(bytes.end(), reinterpret_cast<const uint8_t*>(head),
                         reinterpret_cast<const uint8_t*>(head) + sizeof(head));
            bytes.insert(bytes.end(), kv.second.begin(), kv.second.end());
        }
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
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_FlattenRebuild_StdMap);

// Many threads reading one shared request: each copies it (one reference) and reads a tag.
void BM_SharedCopyRead_Metadata(benchmark::State& state) {
    static const IMetadata shared = makeRequest();
    for (auto _ : state) {
        IMetadata copy(shared);
        int value = 0;
        IMetadata::getEntry<int>(&copy, 0x0001001e, value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_SharedCopyRead_Metadata)->Threads(1)->Threads(2);

}  // namespace
