// Untrusted flat containers: the check and the decoders behind IMetadata(buf, size) must refuse
// malformed bytes without reading outside them, without allocating what the bytes claim and
// without exhausting the stack, and must agree on what they accept.
#include <zorcam/metadata/IMetadata.h>
#include <zorcam/metadata/MetadataCheck.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include "RecordingLogger.h"

// Records the largest single allocation of the process, so that a test can show that a claim
// in the bytes was refused before anything was allocated for it.
namespace {
std::atomic<size_t> gLargestAlloc{0};
std::atomic<size_t> gAllocs{0};
void* allocate(size_t n) {
    size_t seen = gLargestAlloc.load(std::memory_order_relaxed);
    while (n > seen && !gLargestAlloc.compare_exchange_weak(seen, n)) {
    }
    gAllocs.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
}  // namespace
void* operator new(size_t n) {
    return allocate(n);
}
void* operator new[](size_t n) {
    return allocate(n);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}

namespace {

using namespace NSCam;
using Bytes = std::vector<uint8_t>;
using Memory = IMetadata::Memory;
using ::testing::ElementsAre;

constexpr const char* kFatalType = "type code out of range";

//------------------------------------------------------------------------------------------
// Forms.

template <typename T>
void put(IMetadata& m, uint32_t tag, std::vector<T> values) {
    IMetadata::IEntry e(tag);
    e.push_back(values.data(), values.size(), Type2Type<T>());
    m.update(e);
}

Bytes flatOf(const IMetadata& m) {
    Bytes out(static_cast<size_t>(m.flattenSize()));
    EXPECT_EQ(m.flatten(out.data(), out.size()), static_cast<long>(out.size()));
    return out;
}

// Every value type, blobs with and without bytes, three levels of nesting.
Bytes richForm() {
    IMetadata level3;
    put<long>(level3, 0x000e0000, {33333333});
    put<Memory>(level3, 0x90010000, {Memory("raw", 3), Memory()});
    IMetadata level2;
    put<MRect>(level2, 0x000d0000, {MRect(0, 0, 1920, 1080)});
    put<IMetadata>(level2, 0x90000000, {level3, IMetadata(), level3});
    IMetadata top;
    put<unsigned char>(top, 0x00000000, {1});
    put<int>(top, 0x00010005, {15, 30});
    put<float>(top, 0x00080002, {4.38f});
    put<long>(top, 0x00040001, {1, 2});
    put<double>(top, 0x00070000, {37.4, -122.0, 12.5});
    put<MRational>(top, 0x00000001, {MRational(1, 1), MRational(0, 1)});
    put<MPoint>(top, 0x80010003, {MPoint(1, 2)});
    put<MSize>(top, 0x80000000, {MSize(4000, 3000), MSize(640, 480)});
    put<MRect>(top, 0x000f0000, {MRect(0, 0, 4000, 3000)});
    put<IMetadata>(top, 0x90000000, {level2});
    put<Memory>(top, 0xa0000001, {Memory("jpeg", 4), Memory(), Memory("", 0)});
    return flatOf(top);
}

void u32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
Bytes record(int32_t type, uint32_t count, const Bytes& payload) {
    Bytes b;
    u32(b, 0xAB2454CD);
    u32(b, static_cast<uint32_t>(type));
    u32(b, count);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}
// One storage block holding one record; `length` overrides the record length when not 0.
Bytes block(const Bytes& content, uint32_t records = 1, uint32_t length = 0) {
    Bytes b;
    u32(b, 0x01245432);
    u32(b, records);
    u32(b, 0x00010001);
    u32(b, length ? length : static_cast<uint32_t>(content.size()));
    b.insert(b.end(), content.begin(), content.end());
    return b;
}
Bytes words(std::initializer_list<uint32_t> values) {
    Bytes b;
    for (uint32_t v : values) u32(b, v);
    return b;
}
// `levels` nested containers, each the only element of the one above; written outside in, so
// that 10,000 levels cost one pass.
Bytes chain(int levels) {
    const Bytes innermost = block(record(TYPE_INT32, 1, words({90})));
    Bytes b;
    for (int i = levels - 1; i >= 0; --i) {
        const uint32_t inner =
            static_cast<uint32_t>(innermost.size()) + 32u * static_cast<uint32_t>(i);
        for (uint32_t w : {0x01245432u, 1u, 0x90000000u, inner + 16, 0xAB2454CDu,
                           static_cast<uint32_t>(TYPE_IMetadata), 1u, inner})
            u32(b, w);
    }
    b.insert(b.end(), innermost.begin(), innermost.end());
    return b;
}

//------------------------------------------------------------------------------------------

class MetadataCheckTest : public zorcam_test::LoggerTest {
protected:
    void quiet() { setLogging(0, 0, 0); }

    // The check and both decoders on exactly these bytes (a private copy, so that a read
    // past them is a heap overflow). A type code the decoder treats as fatal is not handed
    // to it. Returns the check's answer.
    FlatCheck agree(const uint8_t* data, size_t size) {
        const Bytes exact(data, data + size);
        const FlatCheck c = checkFlatMetadata(exact.data(), exact.size());
        if (!c.ok && std::strcmp(c.reason, kFatalType) == 0) return c;
        IMetadata::Storage storage;
        const long used = storage.unflatten(exact.data(), exact.size());
        EXPECT_EQ(used, c.ok ? static_cast<long>(c.consumed) : -1L) << c.reason;
        const IMetadata meta(exact.data(), exact.size());
        EXPECT_EQ(meta.getStorageSP() != nullptr, c.ok) << c.reason;
        return c;
    }
    FlatCheck agree(const Bytes& b) { return agree(b.data(), b.size()); }

    // Log texts with the source line dropped: "func:text".
    std::vector<std::string> logs() const {
        static const std::regex site("^(\\w+)\\(\\d+\\):");
        std::vector<std::string> out;
        for (const auto& l : log.lines()) out.push_back(std::regex_replace(l.text, site, "$1:"));
        return out;
    }
    static std::string ptr(const void* p) {
        char s[32];
        std::snprintf(s, sizeof(s), "%p", p);
        return s;
    }
};

TEST_F(MetadataCheckTest, EveryPrefixOfARichFormIsRefused) {
    quiet();
    const Bytes rich = richForm();
    ASSERT_GT(rich.size(), 300u);
    const FlatCheck whole = agree(rich);
    ASSERT_TRUE(whole.ok);
    EXPECT_EQ(whole.consumed, rich.size());
    for (size_t n = 0; n < rich.size(); ++n) {
        const FlatCheck c = agree(rich.data(), n);
        ASSERT_FALSE(c.ok) << "prefix " << n;
        EXPECT_LE(c.offset, n);
    }
}

TEST_F(MetadataCheckTest, BitFlipsOfASmallFormNeverTripTheDecoders) {
    quiet();
    IMetadata m;
    put<int>(m, 0x00010005, {15, 30});
    put<Memory>(m, 0x90010000, {Memory("abc", 3)});
    Bytes form = flatOf(m);
    ASSERT_EQ(form.size(), 63u);
    const size_t bits = form.size() * 8;
    size_t accepted = 0, refused = 0;
    auto flip = [&](size_t bit) { form[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8)); };
    for (size_t i = 0; i < bits; ++i) {
        flip(i);
        (agree(form).ok ? accepted : refused)++;
        for (size_t j = i + 1; j < bits; ++j) {
            flip(j);
            (agree(form).ok ? accepted : refused)++;
            flip(j);
        }
        flip(i);
    }
    // Flips in tags and values are accepted, flips in the frame refused: both seen.
    EXPECT_GT(accepted, 1000u);
    EXPECT_GT(refused, 1000u);
}

TEST_F(MetadataCheckTest, ByteSweepOverARichFormAgreesWithTheDecoders) {
    quiet();
    Bytes form = richForm();
    size_t accepted = 0, fatal = 0;
    for (size_t at = 0; at < form.size(); ++at) {
        const uint8_t original = form[at];
        for (uint8_t v : {uint8_t{0x00}, uint8_t{0xFF}, uint8_t{0x7F}, uint8_t{0x80},
                          static_cast<uint8_t>(original + 1)}) {
            form[at] = v;
            const FlatCheck c = agree(form);
            accepted += c.ok;
            fatal += !c.ok && std::strcmp(c.reason, kFatalType) == 0;
        }
        form[at] = original;
    }
    EXPECT_GT(accepted, 0u);
    EXPECT_GT(fatal, 0u);
}

struct Claim {
    const char* name;
    Bytes bytes;
    const char* reason;
    size_t offset;
};

TEST_F(MetadataCheckTest, HugeClaimsAreRefusedWithoutAllocatingForThem) {
    quiet();
    // Offsets: records start at 16, their count field at 24, their payload at 28.
    const std::vector<Claim> claims = {
        {"2^31 bytes", block(record(TYPE_UINT8, 0x80000000u, words({1}))), "negative element count",
         24},
        {"2^32-1 bytes", block(record(TYPE_UINT8, 0xFFFFFFFFu, words({1}))),
         "negative element count", 24},
        {"2^31-1 bytes", block(record(TYPE_UINT8, 0x7FFFFFFFu, words({1}))),
         "payload exceeds record", 24},
        {"rects wrapping at 32 bits", block(record(TYPE_MRect, 0x10000001u, Bytes(16, 0))),
         "payload exceeds record", 24},
        {"blobs", block(record(TYPE_Memory, 0x7FFFFFFFu, words({0, 0}))),
         "element count exceeds record", 24},
        {"containers", block(record(TYPE_IMetadata, 0x40000000u, words({0}))),
         "element count exceeds record", 24},
        {"blob length wrapping", block(record(TYPE_Memory, 1, words({0xFFFFFFFCu, 0}))),
         "element length exceeds record", 28},
        {"nested length wrapping", block(record(TYPE_IMetadata, 1, words({0xFFFFFFF0u, 0}))),
         "element length exceeds record", 28},
        {"record length wrapping", block(record(TYPE_INT32, 1, words({7})), 1, 0xFFFFFFF8u),
         "record length exceeds buffer", 12},
        {"2^31-1 records", block(record(TYPE_INT32, 1, words({7})), 0x7FFFFFFFu),
         "record count out of range", 4},
        {"2^15 records", block(record(TYPE_INT32, 1, words({7})), 0x8000u),
         "record count out of range", 4},
        {"2^15-1 records", block(record(TYPE_INT32, 1, words({7})), 0x7FFFu),
         "truncated record head", 32},
    };
    // The counter sees the library's allocations: a real payload of 100,000 bytes shows.
    const Bytes real = block(record(TYPE_UINT8, 100000, Bytes(100000, 1)));
    gLargestAlloc = 0;
    EXPECT_NE(IMetadata(real.data(), real.size()).getStorageSP(), nullptr);
    EXPECT_GE(gLargestAlloc.load(), 100000u);
    for (const Claim& claim : claims) {
        gLargestAlloc = 0;
        const FlatCheck c = agree(claim.bytes);
        EXPECT_FALSE(c.ok) << claim.name;
        EXPECT_STREQ(c.reason, claim.reason) << claim.name;
        EXPECT_EQ(c.offset, claim.offset) << claim.name;
        EXPECT_LT(gLargestAlloc.load(), 64u * 1024) << claim.name;
    }
}

TEST_F(MetadataCheckTest, NestingIsAcceptedTo64LevelsAndRefusedBeyond) {
    quiet();
    const Bytes deepest = chain(64);
    const FlatCheck ok = agree(deepest);
    ASSERT_TRUE(ok.ok) << ok.reason;
    EXPECT_EQ(ok.consumed, deepest.size());
    // What was accepted writes itself back byte for byte.
    EXPECT_EQ(flatOf(IMetadata(deepest.data(), deepest.size())), deepest);

    for (int levels : {65, 10000}) {
        const Bytes bytes = chain(levels);
        const FlatCheck c = agree(bytes);
        EXPECT_FALSE(c.ok) << levels;
        EXPECT_STREQ(c.reason, "nesting too deep") << levels;
        // The 65th nested record from the top: 16 bytes to the first record, 32 per level.
        EXPECT_EQ(c.offset, 16u + 64 * 32) << levels;
    }
}

TEST_F(MetadataCheckTest, TheCheckAllocatesAndLogsNothing) {
    const Bytes rich = richForm();
    Bytes broken = rich;
    broken.resize(rich.size() - 3);
    log.reset();
    const size_t before = gAllocs.load();
    EXPECT_TRUE(checkFlatMetadata(rich.data(), rich.size()).ok);
    EXPECT_FALSE(checkFlatMetadata(broken.data(), broken.size()).ok);
    EXPECT_STREQ(checkFlatMetadata(nullptr, 8).reason, "null buffer");
    EXPECT_EQ(gAllocs.load(), before);
    EXPECT_TRUE(log.lines().empty());
}

// The refusals are reported with the lines and the pointers the system has always printed:
// the cursor where the record would have ended and the end of the buffer.
TEST_F(MetadataCheckTest, RefusalsLogTheSystemsLines) {
    {  // A record whose payload is cut short: content, then its constructor, then the container.
        const Bytes b = block(record(TYPE_UINT8, 10, words({1})));
        const uint8_t* rec = b.data() + 16;
        const IMetadata m(b.data(), b.size());
        EXPECT_THAT(logs(),
                    ElementsAre("unflatten:out of buffer " + ptr(rec + 22) + ", " + ptr(rec + 16),
                                "Content:unflatten error " + ptr(rec) + ", size 16",
                                "IMetadata:unflatten error " + ptr(b.data()) + ", size 32"));
        EXPECT_EQ(log.lines()[0].tag, "Metadata2/Content");
        EXPECT_EQ(log.lines()[2].tag, "Metadata2");
    }
    log.reset();
    {  // A record length past the end of the buffer.
        const Bytes b = block(record(TYPE_INT32, 1, words({7})), 1, 1000);
        const IMetadata m(b.data(), b.size());
        EXPECT_THAT(logs(),
                    ElementsAre("unflatten:unflatten buffer overflow!!!!!! " +
                                    ptr(b.data() + 1016) + " " + ptr(b.data() + b.size()),
                                "IMetadata:unflatten error " + ptr(b.data()) + ", size 32"));
        EXPECT_EQ(log.lines()[0].tag, "Metadata2");
    }
    log.reset();
    {  // A header cut after the magic.
        Bytes b = block(Bytes(), 0);
        b.resize(6);
        IMetadata::Storage storage;
        EXPECT_EQ(storage.unflatten(b.data(), b.size()), -1);
        EXPECT_THAT(logs(), ElementsAre("unflatten:unflatten buffer overflow!!!!!! " +
                                        ptr(b.data() + 8) + " " + ptr(b.data() + 6)));
    }
    log.reset();
    {  // Wrong magic, wrong pattern, elements without a type, nesting too deep.
        Bytes magic = block(record(TYPE_INT32, 1, words({7})));
        magic[0] = 0x33;
        Bytes pattern = magic;
        pattern[0] = 0x32;
        pattern[16] = 0xCE;
        const Bytes untyped = block(record(-1, 2, words({1, 2})));
        const Bytes deep = chain(65);
        for (const Bytes* b : std::vector<const Bytes*>{&magic, &pattern, &untyped, &deep})
            EXPECT_EQ(IMetadata(b->data(), b->size()).getStorageSP(), nullptr);
        const std::vector<std::string> texts = logs();
        auto count = [&](const std::string& t) {
            return std::count(texts.begin(), texts.end(), t);
        };
        EXPECT_EQ(texts[0], "unflatten:unflatten buffer not correct. pattern 1245433");
        EXPECT_EQ(count("unflatten:flatten pattern not correct ab2454ce"), 1);
        EXPECT_EQ(count("unflatten:mType hould valid!"), 1);
        // Refused where the 65th nested record begins its elements.
        EXPECT_EQ(count("unflatten:nesting deeper than 64 levels at " +
                        ptr(deep.data() + 16 + 64 * 32 + 12)),
                  1);
    }
}

}  // namespace
