// IMetadata::IEntry: typed families, converting appends, search, copy-on-write, failures.
#include "Content.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <set>
#include <string>

#include "MetadataInspector.h"
#include "RecordingLogger.h"
#include "Values.h"

namespace {

using namespace NSCam;
using zorcam_test::expectSame;
using zorcam_test::same;
using zorcam_test::sample;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Lines = std::vector<std::string>;
constexpr Type2Type<int> kInt{};

IMetadata::Content* contentOf(const IEntry& e) {
    return MetadataInspector::content(e).get();
}
template <typename... A>
std::string fmt(const char* f, A... a) {
    char b[200];
    std::snprintf(b, 200, f, a...);
    return b;
}
std::string failed(const char* f, const char* what, const IEntry& e) {  // a read or an edit
    return fmt("%s:%s, tag %x, mContentPtr %p", f, what, e.tag(), static_cast<void*>(contentOf(e)));
}

using EntryTest = zorcam_test::LoggerTest;
template <typename T>
class EntryTypedTest : public EntryTest {};
TYPED_TEST_SUITE(EntryTypedTest, zorcam_test::ValueTypes);

// Every family for every type; refusals log exactly and only ever lower the error tag.
TYPED_TEST(EntryTypedTest, EditAndReadFamilies) {
    const Type2Type<TypeParam> t;
    const TypeParam v[] = {sample<TypeParam>(0), sample<TypeParam>(1), sample<TypeParam>(2),
                           sample<TypeParam>(3), sample<TypeParam>(4)};
    const uint32_t before = IMetadata::mErrorTypeTag.load();
    IEntry e(0x500A);
    e.push_back(v[0], t);
    IEntry one(e);  // a copy of one inline value, edited
    one.push_back(v[1], t);
    e.push_back(&v[1], 2, t);
    e.replaceItemAt(0, v[3], t);
    e.replaceItemAt(1, v, 2, t);
    e.replaceItemAt(0xFFFFFFFFu, v[4], t);  // reaches the content as -1: appends
    expectSame<TypeParam>({one.itemAt(0, t), one.itemAt(1, t)}, {v[0], v[1]});
    TypeParam out[3] = {v[2], v[2], v[2]};
    EXPECT_EQ(e.itemAt(2, out, 3, t), 0);  // 2 + 3 > 4: nothing copied
    expectSame<TypeParam>({out, out + 3}, {v[2], v[2], v[2]});
    EXPECT_EQ(this->log.take(), Lines{failed("itemAt", "Get data error ", e)});
    EXPECT_EQ(e.itemAt(1, out, 3, t), 1);  // v3 v0 v1 v4
    expectSame<TypeParam>({out, out + 3}, {v[0], v[1], v[4]});
    EXPECT_EQ(e.removeAt(1), 0);
    EXPECT_EQ(e.count(), 3u);
    expectSame<TypeParam>({e.itemAt(0, t), e.itemAt(1, t), e.itemAt(2, t)}, {v[3], v[1], v[4]});
    e.replaceItemAt(3, v[0], t);
    e.push_back(v, 0x80000000u, t);
    EXPECT_EQ(this->log.take(), Lines({"update:index (3) out of range (3)",
                                       failed("replaceItemAt", "Update error", e),
                                       "update:append of 2147483648 elements overflows count 3",
                                       failed("push_back", "Update error", e)}));
    // An entry without content: basic types log and give their default, handles are silent.
    const bool handle = std::is_same<TypeParam, Memory>() || std::is_same<TypeParam, IMetadata>();
    const IEntry empty(0xFFFF0000u);
    EXPECT_TRUE(same(empty.itemAt(0, t), TypeParam()));
    EXPECT_EQ(this->log.take(), Lines(handle ? 0 : 1, failed("itemAt", "Get data error ", empty)));
    EXPECT_EQ(IMetadata::mErrorTypeTag.load(), std::min(before, 0x500Au));
}

// Where an entry reports its failures: each edit family (append one, append many, replace one,
// replace many) and each read family (one value, many) from a line of its own, shared by every
// member of the family, so that the line says which kind of call failed.
TEST_F(EntryTest, EachFamilyReportsFromItsOwnLine) {
    std::map<std::string, std::set<int>> linesOf;  // family -> source lines seen
    auto fail = [&](const char* family, auto&& call) {
        log.take();
        call();
        for (const zorcam_test::LogLine& l : log.lines()) {
            if (l.text.find("Update error") == std::string::npos &&
                l.text.find("Get data error") == std::string::npos)
                continue;
            const size_t open = l.text.find('(');
            linesOf[family].insert(std::stoi(l.text.substr(open + 1)));
        }
    };
    auto members = [&](auto value) {
        using T = decltype(value);
        const Type2Type<T> t;
        const T two[2] = {value, value};
        IEntry e(0x500B);
        e.push_back(value, t);
        T out[2];
        fail("append one", [&] { e.push_back(MRational(1, 2), Type2Type<MRational>()); });
        fail("append many", [&] { e.push_back(two, 0x80000000u, t); });
        fail("replace one", [&] { e.replaceItemAt(5, value, t); });
        fail("replace many", [&] { e.replaceItemAt(5, two, 2, t); });
        fail("read one", [&] { e.itemAt(5, t); });
        fail("read many", [&] { e.itemAt(5, out, 2, t); });
    };
    members(int32_t(7));
    members(MRect(1, 2, 3, 4));
    members(4.5);
    IEntry ints(0x500C);
    ints.push_back(1, kInt);
    fail("append one", [&] { ints.push_back(2.5, Type2Type<float>()); });  // a converting member
    std::set<int> all;
    for (const char* family :
         {"append one", "append many", "replace one", "replace many", "read one", "read many"}) {
        EXPECT_EQ(linesOf[family].size(), 1u) << family;
        all.insert(linesOf[family].begin(), linesOf[family].end());
    }
    EXPECT_EQ(all.size(), 6u);
}

template <typename U, typename T>
U as(const T& v) {
    IEntry e;
    e.push_back(v, Type2Type<U>());
    return e.itemAt(0, Type2Type<U>());
}

// Each converting append at its wrapping edge: the language's conversion, silently.
TEST_F(EntryTest, ConvertingAppendsAndIndexOf) {
    const bool rows[] = {as<unsigned char>(static_cast<char>(-1)) == 255,
                         as<unsigned char>(true) == 1,
                         as<unsigned char>(300) == 44,
                         as<unsigned char>(0x1FFu) == 255,
                         as<long>(INT32_MIN) == INT32_MIN,
                         as<long>(0xFFFFFFFFu) == 4294967295L,
                         as<long>(1ul << 63) == INT64_MIN,
                         as<float>(16777217) == 16777216.0f,
                         as<float>(0xFFFFFFFFu) == 4294967296.0f,
                         as<float>(0.1) == 0.1f,
                         as<double>(0xFFFFFFFFu) == 4294967295.0,
                         as<int>(true) == 1,
                         as<int>(0x100000005L) == 5,
                         as<int>(0x80000000u) == INT32_MIN,
                         as<int>(static_cast<unsigned short>(0xFFFF)) == 65535,
                         as<int>(0xFFFFFFFF80000000ul) == INT32_MIN};
    for (size_t i = 0; i < std::size(rows); ++i) EXPECT_TRUE(rows[i]) << "row " << i;
    // Search compares as the type does: NaN never matches, -0.0 matches 0.0, blobs by bytes,
    // rects by all four fields.
    IEntry f(1), m(4), r(5);
    const float nan = std::numeric_limits<float>::quiet_NaN(), values[] = {nan, 0.0f, 2.5f};
    const Memory blobs[] = {Memory("ab", 2), Memory(), Memory("abc", 3)};
    const MRect rects[] = {{1, 2, 3, 4}, {1, 2, 3, 9}};
    f.push_back(values, 3, Type2Type<float>());
    m.push_back(blobs, 3, Type2Type<Memory>());
    r.push_back(rects, 2, Type2Type<MRect>());
    EXPECT_EQ(IEntry::indexOf(f, nan), -1);
    EXPECT_EQ(IEntry::indexOf(f, -0.0f), 1);
    EXPECT_EQ(IEntry::indexOf(r, rects[1]), 1);
    EXPECT_EQ(IEntry::indexOf(r, MRect(1, 2, 9, 4)), -1);
    EXPECT_EQ(IEntry::indexOf(m, Memory("abc", 3)), 2);
    EXPECT_EQ(IEntry::indexOf(m, Memory()), 1);
    EXPECT_EQ(log.take(), Lines{});
}

// Assignment, data(), getContentSP() share: the next edit copies, even for the only owner.
TEST_F(EntryTest, CopyOnWriteInEveryDirection) {
    IEntry a(10), c(99);
    a.push_back(1, kInt);
    a.push_back(2, kInt);
    c = a;
    c.removeAt(0);
    EXPECT_EQ(c.tag(), 10u);
    EXPECT_EQ(a.count(), 2u);
    EXPECT_EQ(c.count(), 1u);
    auto held = MetadataInspector::content(c);
    const int* p = static_cast<const int*>(c.data());
    c.replaceItemAt(0, 8, kInt);
    EXPECT_EQ(*p, 2);
    EXPECT_NE(contentOf(c), held.get());
    c.getContentSP();  // dropped at once
    const IMetadata::Content* before = contentOf(c);
    c.push_back(9, kInt);
    EXPECT_NE(contentOf(c), before);
    EXPECT_EQ(c.count(), 2u);
    EXPECT_EQ(c.itemAt(0, kInt), 8);
    held = MetadataInspector::content(c);
    c.clear();
    c.push_back(MSize(4, 3), Type2Type<MSize>());
    EXPECT_EQ(contentOf(c), held.get());
    EXPECT_EQ(c.itemAt(0, Type2Type<MSize>()), MSize(4, 3));
    IEntry d(c);
    d.clear();
    EXPECT_EQ(contentOf(d), nullptr);
    EXPECT_EQ(d.type(), -1);
    EXPECT_EQ(c.count(), 1u);
    // Edits whose values come from the entry's own data() (a use after free before).
    auto own = [&a] { return static_cast<const int*>(a.data()); };
    a.push_back(own(), 2, kInt);             // 1 2 1 2
    a.replaceItemAt(0, own() + 3, 1, kInt);  // 2 2 1 2
    a.replaceItemAt(1, own()[2], kInt);      // 2 1 1 2
    a.push_back(*own(), kInt);               // 2 1 1 2 2
    EXPECT_EQ(std::vector<int>(own(), own() + 5), std::vector<int>({2, 1, 1, 2, 2}));
    // A writable content handed to an entry is marked read-only, told only with a details level.
    for (uint32_t level : {2u, 0u}) {
        setLogging(0x2, level, 0);
        auto content = std::make_shared<IMetadata::Content>();
        const IEntry e(0x77, content), again(0x78, content);  // the second: nothing to say
        const std::string line =
            fmt("IEntry:NOT ReadOnly! %p created. tag 77, share content(%p, "
                "ref:2)",
                static_cast<const void*>(&e), content.get());
        EXPECT_TRUE(content->isReadOnly());
        EXPECT_EQ(log.take(), (level ? Lines{line, "Callstack:"} : Lines{}));
    }
}

}  // namespace
