// Broken invariants of IMetadata::Content, set up field by field, end with the located text.
#include "Content.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace NSCam;
using Content = IMetadata::Content;

struct Fatal {
    const char* func;
    const char* text;
    int type, count, vectors;  // the broken content; `vectors`: 1 blobs, 2 containers
    void (*run)(Content&);
};

class ContentDeathTest : public ::testing::TestWithParam<Fatal> {};

TEST_P(ContentDeathTest, EndsWithTheLocatedText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Fatal& f = GetParam();
    Content c;
    c.mType = f.type;
    c.mCount = f.count;
    if (f.vectors == 1) {
        c.mObjects = new std::vector<IMetadata::Memory>(f.count);
        c.mHeld = Content::Held::kBlobs;
    }
    if (f.vectors == 2) {
        c.mObjects = new std::vector<std::shared_ptr<IMetadata::Storage>>(f.count);
        c.mHeld = Content::Held::kStorages;
    }
    // "func(N):text (func){#N:file}", for any line N.
    EXPECT_DEATH(f.run(c), std::string(f.func) + "\\([0-9]+\\):" + f.text + " \\(" + f.func +
                               "\\)\\{#[0-9]+:utils/metadata/metadata/Content\\.cpp\\}");
}

void appendNone(Content& c) {
    c.update(-1, &c.mCount, 0, TYPE_INT32);
}
void readInt(Content& c) {
    c.getBasicData(1, TYPE_INT32);
}
void readMeta(Content& c) {
    c.getMetadata(0, TYPE_INT32);
}
void readMem(Content& c) {
    c.getMemory(0, TYPE_INT32);
}
void copy(Content& c) {
    Content other(c);
}
void size(Content& c) {
    c.flattenSize();
}
void flatten(Content& c) {
    uint8_t buf[64];
    c.flatten(buf, sizeof buf);
}
void typeSize(Content& c) {
    c._typeSize();
}

INSTANTIATE_TEST_SUITE_P(
    Invariants, ContentDeathTest,
    ::testing::Values(
        Fatal{"update", "size should be 1", -1, 0, 0, appendNone},
        Fatal{"getBasicData", "mCount >1 but mBasicDataSP is nullptr", TYPE_INT32, 2, 0, readInt},
        Fatal{"flatten", "mCount >1 but mBasicDataSP is nullptr", TYPE_INT32, 2, 0, flatten},
        Fatal{"getMetadata", "mMetaSP without TYPE_IMetadata", TYPE_INT32, 1, 2, readMeta},
        Fatal{"getMemory", "mMemSP without TYPE_Memory", TYPE_INT32, 1, 1, readMem},
        Fatal{"Content", "mMemSP confuse with type 1", TYPE_INT32, 1, 1, copy},
        Fatal{"Content", "mMetaSP confuse with type 10", TYPE_Memory, 1, 2, copy},
        Fatal{"flattenSize", "mMetaSP is nullptr but mCount >0", TYPE_IMetadata, 1, 0, size},
        Fatal{"flattenSize", "mMemSP is nullptr but mCount >0", TYPE_Memory, 1, 0, size},
        Fatal{"flatten", "mMetaSP is nullptr but mCount >0", TYPE_IMetadata, 1, 0, flatten},
        Fatal{"flatten", "mMemSP is nullptr but mCount >0", TYPE_Memory, 1, 0, flatten},
        Fatal{"flatten", "mType should valid", -1, 1, 0, flatten},
        // "mType invalid N", the other refusal of _typeSize, is MetadataCheck_death_test's.
        Fatal{"_typeSize", "Not support TYPE_IMetadata", TYPE_IMetadata, 0, 0, typeSize}));

}  // namespace
