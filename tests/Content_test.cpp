// IMetadata::Content: the flat record byte for byte, round trips of every value type,
// refusals of malformed records with their exact log texts, and update / read / remove.
#include "Content.h"

#include <zorcam/metadata/IMetadata.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include "RecordingLogger.h"

// Largest single allocation seen, so that a test can prove a refused record allocated
// nothing big on the way to the refusal.
static std::atomic<size_t> gLargestAlloc{0};
void* operator new(std::size_t n) {
    size_t seen = gLargestAlloc.load();
    while (n > seen && !gLargestAlloc.compare_exchange_weak(seen, n)) {
    }
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace NSCam;
using Content = IMetadata::Content;
using Memory = IMetadata::Memory;
using Bytes = std::vector<uint8_t>;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string ptr(const void* p) {
    char b[32];
    std::snprintf(b, sizeof b, "%p", p);
    return b;
}

Bytes flat(const Content& c) {
    Bytes out(c.flattenSize());
    EXPECT_EQ(c.flatten(out.data(), out.size()), static_cast<long>(out.size()));
    return out;
}

Bytes header(int32_t type, int32_t count) {
    Bytes b(12);
    const uint32_t pattern = 0xAB2454CD;
    std::memcpy(&b[0], &pattern, 4);
    std::memcpy(&b[4], &type, 4);
    std::memcpy(&b[8], &count, 4);
    return b;
}

IMetadata withInt(uint32_t tag, int value) {
    IMetadata md;
    EXPECT_EQ(IMetadata::setEntry<int>(&md, tag, value), 0);
    return md;
}

int intIn(const std::shared_ptr<IMetadata::Storage>& storage, uint32_t tag) {
    const IMetadata md(storage);
    int v = -1;
    EXPECT_TRUE(IMetadata::getEntry<int>(&md, tag, v));
    return v;
}

class ContentTest : public zorcam_test::LoggerTest {
protected:
    // Log texts with the source line dropped ("update(12):x" reads "update:x") and call
    // stacks cut to their prefix.
    std::vector<std::string> logs() {
        static const std::regex site("^(\\w+)\\(\\d+\\):");
        std::vector<std::string> out;
        for (const std::string& t : log.texts())
            out.push_back(t.rfind("Callstack:", 0) == 0
                              ? "Callstack:"
                              : std::regex_replace(t, site, "$1:",
                                                   std::regex_constants::format_first_only));
        log.reset();
        return out;
    }
};

TEST_F(ContentTest, LifecycleCountsAndClear) {
    const int64_t live = Content::mStatNum.load();
    {
        Content fresh;
        EXPECT_EQ(fresh.mType, -1);
        EXPECT_EQ(fresh.mCount, 0);
        EXPECT_FALSE(fresh.isReadOnly());
        int one = 5;
        ASSERT_TRUE(fresh.update(-1, &one, 1, TYPE_INT32));
        Content copy(fresh);
        int err = 0;
        const Bytes rec = flat(fresh);
        Content parsed(rec.data(), rec.size(), err);
        EXPECT_EQ(Content::mStatNum.load(), live + 3);
        // clear() restores the fresh state on any content, read-only ones included.
        for (Content* c : {&fresh, &parsed}) {
            EXPECT_TRUE(c->clear());
            EXPECT_EQ(c->mType, -1);
            EXPECT_EQ(c->mCount, 0);
            EXPECT_FALSE(c->isReadOnly());
            EXPECT_FALSE(c->mBasicDataSP || c->mMemSP || c->mMetaSP);
        }
    }
    EXPECT_EQ(Content::mStatNum.load(), live);
    EXPECT_EQ(Content::mStatSize, 0);
    Content c;
    const int32_t sizes[] = {1, 4, 4, 8, 8, 8, 8, 8, 16, -1, 1};
    for (int type = TYPE_UINT8; type <= TYPE_Memory; ++type) {
        if (type == TYPE_IMetadata) continue;  // fatal: see the death tests
        c.mType = type;
        EXPECT_EQ(c._typeSize(), sizes[type]) << type;
    }
}

// The record of each kind of content, byte for byte, and what reading it back gives.
TEST_F(ContentTest, RecordBytesAndReadBack) {
    struct Case {
        const char* name;
        std::function<void(Content&)> fill;
        Bytes bytes;
        std::function<void(const Content&)> check;
    };
    const MRect rects[] = {MRect(1, 2, 3, 4), MRect(-1, -2, 0x7FFFFFFF, 5)};
    const Case cases[] = {
        {"empty", [](Content&) {},
         {0xCD, 0x54, 0x24, 0xAB, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0},
         [](const Content& c) { EXPECT_EQ(c.mType, -1); }},
        {"int32 7",
         [](Content& c) {
             const int v = 7;
             ASSERT_TRUE(c.update(-1, &v, 1, TYPE_INT32));
         },
         {0xCD, 0x54, 0x24, 0xAB, 1, 0, 0, 0, 1, 0, 0, 0, 7, 0, 0, 0},
         [](const Content& c) {
             EXPECT_FALSE(c.mBasicDataSP);  // the inline slot, no allocation
             EXPECT_EQ(*static_cast<const int*>(c.getBasicData(0, TYPE_INT32)), 7);
         }},
        {"two rects", [&](Content& c) { ASSERT_TRUE(c.update(-1, rects, 2, TYPE_MRect)); },
         {0xCD, 0x54, 0x24, 0xAB, 8, 0, 0, 0, 2, 0, 0, 0,
          1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0,
          0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 5, 0, 0, 0},
         [&](const Content& c) {
             ASSERT_TRUE(c.mBasicDataSP);
             EXPECT_EQ(c.mBasicDataSP->size(), 32u);
             EXPECT_EQ(*static_cast<const MRect*>(c.getBasicData(1, TYPE_MRect)), rects[1]);
         }},
        {"blobs of 3 and no bytes",
         [](Content& c) {
             const Memory m[] = {Memory("\x11\x22\x33", 3), Memory()};
             ASSERT_TRUE(c.update(-1, m, 2, TYPE_Memory));
         },
         {0xCD, 0x54, 0x24, 0xAB, 10, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 0x11, 0x22, 0x33, 0, 0, 0, 0},
         [](const Content& c) {
             ASSERT_TRUE(c.mMemSP);
             EXPECT_EQ((*c.mMemSP)[0], Memory("\x11\x22\x33", 3));
             EXPECT_EQ((*c.mMemSP)[1].size(), 0u);
         }},
        {"one empty container slot",
         [](Content& c) {
             const IMetadata none;
             ASSERT_TRUE(c.update(-1, &none, 1, TYPE_IMetadata));
         },
         {0xCD, 0x54, 0x24, 0xAB, 9, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0},
         [](const Content& c) {
             ASSERT_TRUE(c.mMetaSP);
             ASSERT_EQ(c.mMetaSP->size(), 1u);
             EXPECT_FALSE((*c.mMetaSP)[0]);
         }},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        Content c;
        k.fill(c);
        EXPECT_EQ(c.flattenSize(), k.bytes.size());
        EXPECT_EQ(flat(c), k.bytes);
        int err = -1;
        Content back(k.bytes.data(), k.bytes.size(), err);
        EXPECT_EQ(err, 0);
        EXPECT_TRUE(back.isReadOnly());
        EXPECT_EQ(back.mCount, c.mCount);
        k.check(back);
        EXPECT_EQ(flat(back), k.bytes);
    }
    EXPECT_THAT(logs(), IsEmpty());
}

template <typename T>
T sample(int i);
template <> unsigned char sample(int i) { return static_cast<unsigned char>(0xF0 + i); }
template <> int sample(int i) { return -70000 * (i + 1); }
template <> float sample(int i) { return -1.25f + static_cast<float>(i); }
template <> long sample(int i) { return -(1L << 40) - i; }
template <> double sample(int i) { return 1e300 / (i + 1); }
template <> MRational sample(int i) { return MRational(i + 1, -3 - i); }
template <> MPoint sample(int i) { return MPoint(-i, 0x10000 + i); }
template <> MSize sample(int i) { return MSize(640 + i, 480 - i); }
template <> MRect sample(int i) { return MRect(i, -i, 0x7FFFFFF0 + i, 9); }

template <typename T>
class ContentBasicTypeTest : public ContentTest {};
using BasicTypes =
    ::testing::Types<unsigned char, int, float, long, double, MRational, MPoint, MSize, MRect>;
TYPED_TEST_SUITE(ContentBasicTypeTest, BasicTypes);

// Each value type: the record holds the raw values back to back; one value reads back into
// the inline slot, several into an exact byte array; a copy is independent of its source.
TYPED_TEST(ContentBasicTypeTest, RoundTripAndCopy) {
    const int code = TypeCodeOf<TypeParam>::value;
    const TypeParam v[3] = {sample<TypeParam>(0), sample<TypeParam>(1), sample<TypeParam>(2)};
    for (int n : {1, 3}) {
        SCOPED_TRACE(n);
        Content c;
        ASSERT_TRUE(c.update(-1, v, static_cast<size_t>(n), code));
        Bytes expected = header(code, n);
        const auto* raw = reinterpret_cast<const uint8_t*>(v);
        expected.insert(expected.end(), raw, raw + n * sizeof(TypeParam));
        EXPECT_EQ(flat(c), expected);

        expected.push_back(0xEE);  // bytes after the record are not consumed
        Content back;
        EXPECT_EQ(back.unflatten(expected.data(), expected.size()),
                  static_cast<long>(12 + n * sizeof(TypeParam)));
        EXPECT_TRUE(back.isReadOnly());
        EXPECT_EQ(back.mType, code);
        EXPECT_EQ(static_cast<bool>(back.mBasicDataSP), n > 1);
        if (n > 1) {
            EXPECT_EQ(back.mBasicDataSP->size(), n * sizeof(TypeParam));
        }

        Content copy(back);
        EXPECT_FALSE(copy.isReadOnly());
        const TypeParam changed = sample<TypeParam>(7);
        ASSERT_TRUE(copy.update(n - 1, &changed, 1, code));
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(*static_cast<const TypeParam*>(back.getBasicData(i, code)), v[i]) << i;
            EXPECT_EQ(*static_cast<const TypeParam*>(copy.getBasicData(i, code)),
                      i == n - 1 ? changed : v[i]);
        }
    }
    EXPECT_THAT(this->logs(), IsEmpty());
}

TEST_F(ContentTest, BlobsRoundTripWithTheirBytes) {
    Bytes big(5000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
    const Memory m[] = {Memory(big.data(), big.size()), Memory(), Memory("z", 1)};
    Content c;
    ASSERT_TRUE(c.update(-1, m, 3, TYPE_Memory));
    // The stored element shares the caller's bytes; getMemory hands out that buffer itself.
    EXPECT_EQ(c.getMemory(0, TYPE_Memory), m[0].getDataSP());
    const Bytes rec = flat(c);
    EXPECT_EQ(rec.size(), 12u + 4 + 5000 + 4 + 4 + 1);
    int err = 0;
    Content back(rec.data(), rec.size(), err);
    ASSERT_EQ(err, 0);
    ASSERT_EQ(back.mCount, 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ((*back.mMemSP)[i], m[i]) << i;

    // A copy shares the blobs until one side writes.
    Content copy(back);
    EXPECT_EQ(copy.getMemory(0, TYPE_Memory), back.getMemory(0, TYPE_Memory));
    (*copy.mMemSP)[0].editArray()[0] = 0x55;
    EXPECT_EQ((*back.mMemSP)[0], m[0]);
    EXPECT_NE((*copy.mMemSP)[0], m[0]);
}

// Malformed records are refused with their exact texts; the constructor then leaves an
// empty content and reports err 1.
TEST_F(ContentTest, MalformedRecordsAreRefused) {
    Bytes bad = header(TYPE_INT32, 1);
    bad[0] = 0x78, bad[1] = 0x56, bad[2] = 0x34, bad[3] = 0x12;
    int err = 0;
    Content refused(bad.data(), bad.size(), err);
    EXPECT_EQ(err, 1);
    EXPECT_EQ(refused.mType, -1);
    EXPECT_EQ(refused.mCount, 0);
    EXPECT_FALSE(refused.isReadOnly());
    EXPECT_THAT(logs(), ElementsAre("unflatten:flatten pattern not correct 12345678",
                                    "Content:unflatten error " + ptr(bad.data()) + ", size 12"));

    Bytes untyped = header(-1, 2);
    untyped.resize(20);
    Content c;
    EXPECT_EQ(c.unflatten(untyped.data(), untyped.size()), -1);
    EXPECT_THAT(logs(), ElementsAre("unflatten:mType hould valid!"));

    // A count of 0 is accepted with any type and consumes the header only.
    const Bytes zero = header(TYPE_MRational, 0);
    Bytes longer = zero;
    longer.resize(30, 0xAA);
    EXPECT_EQ(c.unflatten(longer.data(), longer.size()), 12);
    EXPECT_EQ(c.mType, TYPE_MRational);
    EXPECT_EQ(c.mCount, 0);

    // One byte short, for every kind of payload: the end is reported as where the record
    // would have ended, and the buffer's own end.
    const int32_t three[] = {1, 2, 3};
    const Memory blobs[] = {Memory("abc", 3), Memory()};
    Content ints, mems;
    ASSERT_TRUE(ints.update(-1, three, 3, TYPE_INT32));
    ASSERT_TRUE(mems.update(-1, blobs, 2, TYPE_Memory));
    for (const Content* full : {&ints, &mems}) {
        const Bytes rec = flat(*full);
        const uint8_t* b = rec.data();
        Content shortened(b, rec.size() - 1, err);
        EXPECT_EQ(err, 1);
        EXPECT_THAT(logs(), ElementsAre("unflatten:out of buffer " + ptr(b + rec.size()) + ", " +
                                            ptr(b + rec.size() - 1),
                                        "Content:unflatten error " + ptr(b) + ", size " +
                                            std::to_string(rec.size() - 1)));
    }
}

// Counts that the bytes cannot hold are refused before anything is sized for them.
TEST_F(ContentTest, HugeCountsAreRefusedWithoutAllocating) {
    for (int type : {TYPE_UINT8, TYPE_MRect, TYPE_Memory, TYPE_IMetadata}) {
        for (uint32_t count : {0x80000000u, 0x7FFFFFFFu, 0xFFFFFFFFu, 5u}) {
            SCOPED_TRACE(std::to_string(type) + " x " + std::to_string(count));
            Bytes rec = header(type, static_cast<int32_t>(count));
            rec.resize(16);
            gLargestAlloc = 0;
            int err = 0;
            Content c(rec.data(), rec.size(), err);
            EXPECT_EQ(err, 1);
            EXPECT_LT(gLargestAlloc.load(), 4096u);
        }
    }
}

TEST_F(ContentTest, FlattenOneByteShortWritesNothingPastCapacity) {
    const MRect r[] = {MRect(1, 2, 3, 4), MRect(5, 6, 7, 8)};
    const Memory blob("hello", 5);
    Content rects, mems, nested;
    ASSERT_TRUE(rects.update(-1, r, 2, TYPE_MRect));
    ASSERT_TRUE(mems.update(-1, &blob, 1, TYPE_Memory));
    const IMetadata inner = withInt(0x10001, 42);
    ASSERT_TRUE(nested.update(-1, &inner, 1, TYPE_IMetadata));
    for (const Content* c : {&rects, &mems}) {
        const size_t size = c->flattenSize();
        Bytes buf(size, 0xEE);
        EXPECT_EQ(c->flatten(buf.data(), size - 1), -1);
        EXPECT_EQ(buf[size - 1], 0xEE);
        EXPECT_THAT(logs(), ElementsAre("flatten:out of buffer " + ptr(buf.data() + size) + ", " +
                                        ptr(buf.data() + size - 1)));
    }
    // A nested block that does not fit is reported by the nested writer and then here.
    const size_t size = nested.flattenSize();
    Bytes buf(size, 0xEE);
    EXPECT_EQ(nested.flatten(buf.data(), size - 1), -1);
    EXPECT_EQ(buf[size - 1], 0xEE);
    const auto lines = logs();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "flatten:flatten meta " + ptr(inner.getStorageSP().get()) + " error");
}

// Nested containers: the slots share the caller's storages, records nest storage blocks,
// and copies share the storages too.
TEST_F(ContentTest, NestedContainers) {
    const IMetadata a = withInt(0x10001, 11), b = withInt(0x20002, 22), none;
    const IMetadata three[] = {a, none, b};
    Content c;
    ASSERT_TRUE(c.update(-1, three, 3, TYPE_IMetadata));
    EXPECT_EQ(c.getMetadata(0, TYPE_IMetadata), a.getStorageSP());
    EXPECT_FALSE(c.getMetadata(1, TYPE_IMetadata));
    ASSERT_TRUE(c.update(1, &b, 1, TYPE_IMetadata));  // overwrite shares too
    EXPECT_EQ(c.getMetadata(1, TYPE_IMetadata), b.getStorageSP());

    Content copy(c);
    ASSERT_TRUE(copy.mMetaSP);
    EXPECT_NE(copy.mMetaSP, c.mMetaSP);
    EXPECT_EQ(*copy.mMetaSP, *c.mMetaSP);

    const Bytes rec = flat(c);
    // Each slot: its length, then the storage block as the storage writes it.
    const long blockA = a.getStorageSP()->flattenSize(nullptr, -1);
    uint32_t firstLen = 0;
    std::memcpy(&firstLen, &rec[12], 4);
    EXPECT_EQ(firstLen, static_cast<uint32_t>(blockA));
    Bytes blockBytes(static_cast<size_t>(blockA));
    ASSERT_EQ(a.flatten(blockBytes.data(), blockBytes.size()), blockA);
    EXPECT_TRUE(std::equal(blockBytes.begin(), blockBytes.end(), rec.begin() + 16));

    int err = 0;
    Content back(rec.data(), rec.size(), err);
    ASSERT_EQ(err, 0);
    ASSERT_EQ(back.mCount, 3);
    EXPECT_EQ(intIn(back.getMetadata(0, TYPE_IMetadata), 0x10001), 11);
    EXPECT_EQ(intIn(back.getMetadata(1, TYPE_IMetadata), 0x20002), 22);
    EXPECT_EQ(intIn(back.getMetadata(2, TYPE_IMetadata), 0x20002), 22);
    EXPECT_EQ(flat(back), rec);

    ASSERT_TRUE(back.remove(0));
    EXPECT_EQ(back.mCount, 2);
    EXPECT_EQ(intIn(back.getMetadata(0, TYPE_IMetadata), 0x20002), 22);
    EXPECT_THAT(logs(), IsEmpty());

    // A typed content that lost its vector answers empty, silently.
    Content broken;
    broken.mType = TYPE_IMetadata;
    broken.mCount = 1;
    EXPECT_FALSE(broken.getMetadata(0, TYPE_IMetadata));
    broken.mType = TYPE_Memory;
    EXPECT_FALSE(broken.getMemory(0, TYPE_Memory));
    EXPECT_THAT(logs(), IsEmpty());
}

// Containers nested 64 deep decode; one more level is refused as malformed.
TEST_F(ContentTest, NestingDepthIsBounded) {
    IMetadata chain = withInt(7, 7);
    for (int depth = 1; depth <= 65; ++depth) {
        Content c;
        ASSERT_TRUE(c.update(-1, &chain, 1, TYPE_IMetadata));
        const Bytes rec = flat(c);
        int err = 0;
        Content back(rec.data(), rec.size(), err);
        EXPECT_EQ(err, depth > 64 ? 1 : 0) << depth;
        IMetadata outer;
        IMetadata::IEntry e(1);
        e.push_back(chain, Type2Type<IMetadata>());
        ASSERT_EQ(outer.update(1, e), 0);
        chain = outer;
    }
}

TEST_F(ContentTest, AppendOverwriteAndRemove) {
    Content c;
    const int one = 1, two = 2;
    ASSERT_TRUE(c.update(-1, &one, 1, TYPE_INT32));
    EXPECT_EQ(c.mType, TYPE_INT32);
    EXPECT_FALSE(c.mBasicDataSP);
    ASSERT_TRUE(c.update(-1, &two, 1, TYPE_INT32));
    ASSERT_TRUE(c.mBasicDataSP);
    EXPECT_EQ(*c.mBasicDataSP, Bytes({1, 0, 0, 0, 2, 0, 0, 0}));
    const int more[] = {3, 4};
    ASSERT_TRUE(c.update(-1, more, 2, TYPE_INT32));
    ASSERT_TRUE(c.update(2, more + 1, 1, TYPE_INT32));
    ASSERT_TRUE(c.update(0, more, 0, TYPE_INT32));  // nothing to overwrite
    EXPECT_EQ(c.mBasicDataSP->size(), 16u);
    EXPECT_EQ(*static_cast<const int*>(c.getBasicData(2, TYPE_INT32)), 4);
    EXPECT_EQ(*static_cast<const int*>(c.getBasicData(0, TYPE_INT32)), 1);
    EXPECT_THAT(logs(), IsEmpty());

    // Refusals leave the content as it was.
    EXPECT_FALSE(c.update(3, more, 2, TYPE_INT32));
    EXPECT_FALSE(c.update(-2, more, 1, TYPE_INT32));
    EXPECT_FALSE(c.update(1, more, ~size_t{0}, TYPE_INT32));  // the end would wrap around
    EXPECT_FALSE(c.update(-1, more, 0x80000000u, TYPE_INT32));
    EXPECT_FALSE(c.getBasicData(4, TYPE_INT32));
    EXPECT_FALSE(c.getBasicData(-1, TYPE_INT32));
    EXPECT_FALSE(c.remove(4));
    EXPECT_FALSE(c.remove(-1));
    EXPECT_THAT(logs(), ElementsAre("update:index (3) out of range (4)",
                                    "update:index (-2) out of range (4)",
                                    "update:index (1) out of range (4)",
                                    "update:index (-1) out of range (4)",
                                    "getBasicData:index (4) out of range (4)",
                                    "getBasicData:index (-1) out of range (4)",
                                    "remove:out of index remove. cnt 4, index 4",
                                    "remove:out of index remove. cnt 4, index -1"));
    EXPECT_EQ(c.mCount, 4);

    // A type mismatch is told with the call stack only when the details level is non-zero.
    const float f = 1.0f;
    EXPECT_FALSE(c.update(-1, &f, 1, TYPE_FLOAT));
    EXPECT_FALSE(c.getBasicData(0, TYPE_FLOAT));
    EXPECT_THAT(logs(), ElementsAre("update:type mismatch mType(1) type(2)", "Callstack:",
                                    "getBasicData:type mismatch type(2) vs mType(1)",
                                    "Callstack:"));
    setLogging(0x2, 0, 0);
    EXPECT_FALSE(c.update(0, &f, 1, TYPE_FLOAT));
    EXPECT_FALSE(c.getBasicData(0, TYPE_FLOAT));
    EXPECT_FALSE(c.getMemory(0, TYPE_Memory));
    EXPECT_FALSE(c.getMetadata(0, TYPE_IMetadata));
    EXPECT_THAT(logs(), IsEmpty());
    EXPECT_EQ(c.mCount, 4);

    // Removal moves the later values down; one value left keeps its byte array.
    ASSERT_TRUE(c.update(3, &two, 1, TYPE_INT32));  // 1 2 4 2
    ASSERT_TRUE(c.remove(1));                        // 1 4 2
    ASSERT_TRUE(c.remove(2));                        // 1 4
    ASSERT_TRUE(c.remove(0));                        // 4
    EXPECT_EQ(c.mCount, 1);
    ASSERT_TRUE(c.mBasicDataSP);
    EXPECT_EQ(c.mBasicDataSP->size(), 4u);
    EXPECT_EQ(*static_cast<const int*>(c.getBasicData(0, TYPE_INT32)), 4);
    // Appending again grows that array, not the inline slot.
    ASSERT_TRUE(c.update(-1, &two, 1, TYPE_INT32));
    EXPECT_EQ(*c.mBasicDataSP, Bytes({4, 0, 0, 0, 2, 0, 0, 0}));
    ASSERT_TRUE(c.remove(0));
    ASSERT_TRUE(c.remove(0));  // the last one clears: no type any more
    EXPECT_EQ(c.mType, -1);
    EXPECT_FALSE(c.mBasicDataSP);
    ASSERT_TRUE(c.update(-1, &f, 1, TYPE_FLOAT));
    EXPECT_EQ(c.mType, TYPE_FLOAT);

    // An emptied typed content (a copy of count 0) takes a new type on its next append.
    Content typedEmpty;
    typedEmpty.mType = TYPE_INT32;
    Content copy(typedEmpty);
    EXPECT_EQ(copy.mType, TYPE_INT32);
    EXPECT_EQ(copy.mCount, 0);
    EXPECT_FALSE(copy.mBasicDataSP);
    ASSERT_TRUE(copy.update(-1, &f, 1, TYPE_FLOAT));
    EXPECT_EQ(copy.mType, TYPE_FLOAT);
}

TEST_F(ContentTest, BlobUpdateAndRemove) {
    const Memory m[] = {Memory("a", 1), Memory("bb", 2), Memory("ccc", 3)};
    Content c;
    ASSERT_TRUE(c.update(-1, m, 2, TYPE_Memory));
    ASSERT_TRUE(c.update(-1, m + 2, 1, TYPE_Memory));
    ASSERT_TRUE(c.update(0, m + 2, 1, TYPE_Memory));  // ccc bb ccc
    EXPECT_FALSE(c.update(2, m, 2, TYPE_Memory));
    ASSERT_TRUE(c.remove(0));
    ASSERT_EQ(c.mCount, 2);
    EXPECT_EQ((*c.mMemSP)[0], m[1]);
    EXPECT_EQ(c.getMemory(1, TYPE_Memory), m[2].getDataSP());
    EXPECT_FALSE(c.getMemory(2, TYPE_Memory));
    EXPECT_THAT(logs(), ElementsAre("update:index (2) out of range (3)",
                                    "getMemory:index (2) out of range (2)"));
}

}  // namespace
