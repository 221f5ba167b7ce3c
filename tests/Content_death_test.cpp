// Broken invariants of IMetadata::Content end the process with the located text. Most of
// these states cannot be built through the entry API: the tests set the fields directly.
#include "Content.h"

#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace NSCam;
using Content = IMetadata::Content;
using Memory = IMetadata::Memory;

std::string quote(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

// "func(N):text (func){#N:utils/metadata/metadata/Content.cpp}" for any line N.
std::string located(const std::string& func, const std::string& text) {
    return func + "\\([0-9]+\\):" + quote(text) + " \\(" + func +
           "\\)\\{#[0-9]+:utils/metadata/metadata/Content\\.cpp\\}";
}

// A content of `type` claiming `count` elements, with only the given vector attached.
Content* broken(int type, int count, bool mem, bool meta) {
    auto* c = new Content;  // leaked on purpose: the child dies holding it
    c->mType = type;
    c->mCount = count;
    if (mem) c->mMemSP = std::make_shared<std::vector<Memory>>(static_cast<size_t>(count));
    if (meta)
        c->mMetaSP = std::make_shared<std::vector<std::shared_ptr<IMetadata::Storage>>>(
            static_cast<size_t>(count));
    return c;
}

struct Fatal {
    const char* func;
    const char* text;
    std::function<void()> run;
};

class ContentDeathTest : public ::testing::TestWithParam<Fatal> {};

TEST_P(ContentDeathTest, EndsWithTheLocatedText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Fatal& f = GetParam();
    EXPECT_DEATH(f.run(), located(f.func, f.text));
}

const int kValue = 3;
std::vector<uint8_t> corruptRecord() {  // type 11, count 1, one int of payload
    std::vector<uint8_t> rec(16, 0);
    const uint32_t head[] = {0xAB2454CD, 11, 1};
    std::memcpy(rec.data(), head, sizeof head);
    return rec;
}

INSTANTIATE_TEST_SUITE_P(
    Invariants, ContentDeathTest,
    ::testing::Values(
        // Appending no element to an empty or one-value inline content.
        Fatal{"update", "size should be 1",
              [] { Content c; c.update(-1, &kValue, 0, TYPE_INT32); }},
        Fatal{"update", "size should be 1",
              [] {
                  Content c;
                  c.update(-1, &kValue, 1, TYPE_INT32);
                  c.update(-1, &kValue, 0, TYPE_INT32);
              }},
        Fatal{"getBasicData", "mCount >1 but mBasicDataSP is nullptr",
              [] { broken(TYPE_INT32, 2, false, false)->getBasicData(1, TYPE_INT32); }},
        Fatal{"flatten", "mCount >1 but mBasicDataSP is nullptr",
              [] {
                  uint8_t buf[64];
                  broken(TYPE_INT32, 2, false, false)->flatten(buf, sizeof buf);
              }},
        Fatal{"getMetadata", "mMetaSP without TYPE_IMetadata",
              [] { broken(TYPE_INT32, 1, false, true)->getMetadata(0, TYPE_INT32); }},
        Fatal{"getMemory", "mMemSP without TYPE_Memory",
              [] { broken(TYPE_INT32, 1, true, false)->getMemory(0, TYPE_INT32); }},
        Fatal{"Content", "mMemSP confuse with type 1",
              [] { Content copy(*broken(TYPE_INT32, 1, true, false)); }},
        Fatal{"Content", "mMetaSP confuse with type 10",
              [] { Content copy(*broken(TYPE_Memory, 1, false, true)); }},
        Fatal{"flattenSize", "mMetaSP is nullptr but mCount >0",
              [] { broken(TYPE_IMetadata, 1, false, false)->flattenSize(); }},
        Fatal{"flattenSize", "mMemSP is nullptr but mCount >0",
              [] { broken(TYPE_Memory, 1, false, false)->flattenSize(); }},
        Fatal{"flatten", "mMetaSP is nullptr but mCount >0",
              [] {
                  uint8_t buf[64];
                  broken(TYPE_IMetadata, 1, false, false)->flatten(buf, sizeof buf);
              }},
        Fatal{"flatten", "mMemSP is nullptr but mCount >0",
              [] {
                  uint8_t buf[64];
                  broken(TYPE_Memory, 1, false, false)->flatten(buf, sizeof buf);
              }},
        Fatal{"flatten", "mType should valid",
              [] {
                  uint8_t buf[64];
                  broken(-1, 1, false, false)->flatten(buf, sizeof buf);
              }},
        // A corrupt type code in a record is sized by _typeSize(), which refuses it.
        Fatal{"_typeSize", "mType invalid 11",
              [] {
                  const std::vector<uint8_t> rec = corruptRecord();
                  int err = 0;
                  Content c(rec.data(), rec.size(), err);
              }}));

}  // namespace
