// IMetadata::IEntry: the typed families over every value type, the converting appends at
// their wrapping edges, copy-on-write in every direction, the failure lines and the
// process-wide error tag, search, and entries used from several threads.
#include "Content.h"

#include <zorcam/metadata/IMetadata.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "RecordingLogger.h"

namespace NSCam {
// Reads an entry's content without marking it read-only, as the entry's own API would.
struct MetadataInspector {
    static std::shared_ptr<IMetadata::Content> content(const IMetadata::IEntry& e) {
        std::lock_guard<std::mutex> guard(e.mLock);
        return e.mContentPtr;
    }
};
}  // namespace NSCam

namespace {

using namespace NSCam;
using IEntry = IMetadata::IEntry;
using Memory = IMetadata::Memory;
using Content = IMetadata::Content;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

Content* contentOf(const IEntry& e) { return MetadataInspector::content(e).get(); }

std::string ptr(const void* p) {
    char b[32];
    std::snprintf(b, sizeof b, "%p", p);
    return b;
}
std::string hex(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "%x", v);
    return b;
}

uint32_t errorTag() { return IMetadata::mErrorTypeTag.load(); }

class EntryTest : public zorcam_test::LoggerTest {
protected:
    // Log texts with the source line dropped ("push_back(12):x" reads "push_back:x") and
    // call stacks cut to their prefix.
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
    static std::string getError(const IEntry& e) {
        return "itemAt:Get data error , tag " + hex(e.tag()) + ", mContentPtr " +
               ptr(contentOf(e));
    }
    static std::string updateError(const char* func, const IEntry& e) {
        return std::string(func) + ":Update error, tag " + hex(e.tag()) + ", mContentPtr " +
               ptr(contentOf(e));
    }
};

IMetadata withInt(uint32_t tag, int value) {
    IMetadata md;
    EXPECT_EQ(IMetadata::setEntry<int>(&md, tag, value), 0);
    return md;
}

// Six distinct values of each stored type.
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
template <> Memory sample(int i) { return Memory("abcdef", static_cast<size_t>(i + 1)); }
template <> IMetadata sample(int i) { return withInt(0x10000u + static_cast<uint32_t>(i), i); }

template <typename T>
bool same(const T& a, const T& b) { return a == b; }
// A container read back shares the storage of the one stored.
bool same(const IMetadata& a, const IMetadata& b) { return a.getStorageSP() == b.getStorageSP(); }

template <typename T>
class EntryTypedTest : public EntryTest {
protected:
    void SetUp() override {
        EntryTest::SetUp();
        for (int i = 0; i < 6; ++i) v.push_back(sample<T>(i));
    }
    std::vector<T> v;
};
using ValueTypes = ::testing::Types<unsigned char, int, float, long, double, MRational, MPoint,
                                    MSize, MRect, Memory, IMetadata>;
TYPED_TEST_SUITE(EntryTypedTest, ValueTypes);

// Append one and many, replace one and many, read one and many, remove: all members of
// a family behave alike.
TYPED_TEST(EntryTypedTest, EditAndReadFamilies) {
    using T = TypeParam;
    const Type2Type<T> t;
    const auto& v = this->v;
    const uint32_t before = errorTag();
    IEntry e(0x500A);
    e.push_back(v[0], t);
    const T two[] = {v[1], v[2]};
    e.push_back(two, 2, t);
    ASSERT_EQ(e.count(), 3u);
    EXPECT_EQ(e.type(), TypeCodeOf<T>::value);
    e.replaceItemAt(0, v[3], t);
    const T pair[] = {v[4], v[5]};
    e.replaceItemAt(1, pair, 2, t);
    e.replaceItemAt(0xFFFFFFFFu, v[0], t);  // reaches the content as -1: appends
    const int expected[] = {3, 4, 5, 0};
    ASSERT_EQ(e.count(), 4u);
    for (uint32_t i = 0; i < 4; ++i) EXPECT_TRUE(same(e.itemAt(i, t), v[expected[i]])) << i;
    EXPECT_THAT(this->logs(), IsEmpty());
    EXPECT_EQ(errorTag(), before);

    {
        T out[3] = {v[1], v[1], v[1]};
        EXPECT_EQ(e.itemAt(2, out, 3, t), 0);  // 2 + 3 > 4: nothing copied
        for (const T& o : out) EXPECT_TRUE(same(o, v[1]));
        EXPECT_EQ(e.itemAt(1, out, 3, t), 1);
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(same(out[i], v[expected[i + 1]])) << i;
        EXPECT_EQ(e.itemAt(1, out, ~size_t{0}, t), 0);  // 1 + count wraps around
    }  // handles read out are proper copies: destroying them leaves the stored values intact
    EXPECT_TRUE(same(e.itemAt(1, t), v[4]));
    EXPECT_THAT(this->logs(), ElementsAre(this->getError(e), this->getError(e)));

    e.replaceItemAt(4, v[0], t);
    e.replaceItemAt(3, pair, 2, t);
    EXPECT_THAT(this->logs(), ElementsAre("update:index (4) out of range (4)",
                                          this->updateError("replaceItemAt", e),
                                          "update:index (3) out of range (4)",
                                          this->updateError("replaceItemAt", e)));
    EXPECT_EQ(errorTag(), std::min(before, 0x500Au));

    EXPECT_EQ(e.removeAt(1), 0);
    EXPECT_EQ(e.removeAt(3), -1);
    ASSERT_EQ(e.count(), 3u);
    EXPECT_TRUE(same(e.itemAt(1, t), v[5]));
}

// Reading one value from an entry without content: the basic types log and give their
// default; the two handle types give an empty handle silently and leave the error tag.
TYPED_TEST(EntryTypedTest, ReadOfEmptyEntry) {
    using T = TypeParam;
    const uint32_t before = errorTag();
    const IEntry e(0xFFFF0000u);
    const T got = e.itemAt(0, Type2Type<T>());
    const bool handle = std::is_same<T, Memory>::value || std::is_same<T, IMetadata>::value;
    if constexpr (std::is_same<T, Memory>::value) {
        EXPECT_EQ(got.size(), 0u);
    } else if constexpr (std::is_same<T, IMetadata>::value) {
        EXPECT_TRUE(got.isEmpty());
    } else {
        EXPECT_TRUE(same(got, T()));
    }
    if (handle) {
        EXPECT_THAT(this->logs(), IsEmpty());
    } else {
        EXPECT_THAT(this->logs(), ElementsAre(this->getError(e)));
    }
    EXPECT_EQ(errorTag(), handle ? before : std::min(before, 0xFFFF0000u));
    EXPECT_EQ(e.count(), 0u);
}

TEST_F(EntryTest, EmptyEntryAnswers) {
    IEntry e;
    EXPECT_EQ(e.tag(), 0xFFFFFFFFu);
    EXPECT_EQ(e.type(), -1);
    EXPECT_EQ(e.count(), 0u);
    EXPECT_TRUE(e.isEmpty());
    EXPECT_EQ(e.data(), nullptr);
    EXPECT_EQ(e.removeAt(0), -1);
    e.clear();
    EXPECT_FALSE(e.getContentSP());
    EXPECT_FALSE(contentOf(e));  // none of the above created a content
    EXPECT_EQ(IEntry::indexOf(e, 0), -1);
    EXPECT_EQ(e.itemAt(0, Type2Type<MRational>()), MRational(0, 1));
    EXPECT_THAT(logs(), ElementsAre("itemAt:Get data error , tag ffffffff, mContentPtr " +
                                    ptr(nullptr)));
}

template <typename U, typename T>
U stored(const T& value) {
    IEntry e(1);
    e.push_back(value, Type2Type<U>());
    EXPECT_EQ(e.type(), TypeCodeOf<U>::value);
    return e.itemAt(0, Type2Type<U>());
}

// The converting appends wrap silently at their edges, as the language converts.
TEST_F(EntryTest, ConvertingAppendsWrapSilently) {
    const uint32_t before = errorTag();
    EXPECT_EQ(stored<unsigned char>(static_cast<char>(-1)), 255);
    EXPECT_EQ(stored<unsigned char>(true), 1);
    EXPECT_EQ(stored<unsigned char>(false), 0);
    EXPECT_EQ(stored<unsigned char>(300), 44);
    EXPECT_EQ(stored<unsigned char>(-1), 255);
    EXPECT_EQ(stored<unsigned char>(0x1FFu), 255);
    EXPECT_EQ(stored<long>(-1), -1L);
    EXPECT_EQ(stored<long>(INT_MIN), static_cast<long>(INT_MIN));
    EXPECT_EQ(stored<long>(0xFFFFFFFFu), 4294967295L);
    EXPECT_EQ(stored<long>(1ul << 63), LONG_MIN);
    EXPECT_EQ(stored<long>(~0ul), -1L);
    EXPECT_EQ(stored<float>(16777217), 16777216.0f);
    EXPECT_EQ(stored<float>(0xFFFFFFFFu), 4294967296.0f);
    EXPECT_EQ(stored<float>(0.1), 0.1f);
    EXPECT_NE(static_cast<double>(stored<float>(0.1)), 0.1);
    EXPECT_EQ(stored<double>(0xFFFFFFFFu), 4294967295.0);
    EXPECT_EQ(stored<int>(true), 1);
    EXPECT_EQ(stored<int>(0xFFFFFFFFu), -1);
    EXPECT_EQ(stored<int>(0x80000000u), INT_MIN);
    EXPECT_EQ(stored<int>(static_cast<unsigned short>(0xFFFF)), 65535);
    EXPECT_EQ(stored<int>(0x100000005L), 5);
    EXPECT_EQ(stored<int>(-1L), -1);
    EXPECT_EQ(stored<int>(0xFFFFFFFF80000000ul), INT_MIN);
    EXPECT_THAT(logs(), IsEmpty());
    EXPECT_EQ(errorTag(), before);
}

// A refused edit or read logs, keeps the count and lowers the process-wide error tag to the
// entry's tag; a larger failing tag never raises it again.
TEST_F(EntryTest, FailuresLowerTheErrorTag) {
    const uint32_t before = errorTag();
    IEntry e(0x30007);
    e.push_back(5, Type2Type<int>());
    e.push_back(1.5f, Type2Type<float>());
    EXPECT_EQ(e.count(), 1u);
    EXPECT_THAT(logs(), ElementsAre("update:type mismatch mType(1) type(2)", "Callstack:",
                                    updateError("push_back", e)));
    EXPECT_EQ(errorTag(), std::min(before, 0x30007u));

    IEntry higher(0x30008);
    higher.push_back(1, Type2Type<int>());
    setLogging(0x2, 0, 0);  // the mismatch itself is silent, the entry's line is not
    const float f[] = {1.0f, 2.0f};
    higher.push_back(f, 2, Type2Type<float>());
    EXPECT_EQ(higher.itemAt(0, Type2Type<float>()), 0.0f);
    EXPECT_THAT(logs(), ElementsAre(updateError("push_back", higher), getError(higher)));
    EXPECT_EQ(errorTag(), std::min(before, 0x30007u));
    EXPECT_EQ(higher.count(), 1u);
}

TEST_F(EntryTest, CopyOnWriteInEveryDirection) {
    IEntry a(10);
    a.push_back(1, Type2Type<int>());
    const std::shared_ptr<Content> held = MetadataInspector::content(a);
    Content* original = held.get();
    EXPECT_FALSE(original->isReadOnly());

    // Copy, then edit either side.
    IEntry b(a);
    EXPECT_EQ(contentOf(b), original);
    EXPECT_TRUE(original->isReadOnly());
    a.push_back(2, Type2Type<int>());
    b.replaceItemAt(0, 7, Type2Type<int>());
    EXPECT_NE(contentOf(a), original);
    EXPECT_NE(contentOf(b), original);
    EXPECT_EQ(original->mCount, 1);
    EXPECT_EQ(*static_cast<const int*>(original->getBasicData(0, TYPE_INT32)), 1);
    EXPECT_EQ(a.count(), 2u);
    EXPECT_EQ(b.itemAt(0, Type2Type<int>()), 7);

    // Assignment shares the same way; the old content is released.
    IEntry c(99);
    c.push_back(3.0, Type2Type<double>());
    c = a;
    EXPECT_EQ(c.tag(), 10u);
    EXPECT_EQ(contentOf(c), contentOf(a));
    c.removeAt(0);
    EXPECT_EQ(a.count(), 2u);
    EXPECT_EQ(c.count(), 1u);
    c = c;  // self-assignment changes nothing
    EXPECT_EQ(c.itemAt(0, Type2Type<int>()), 2);

    // data() and getContentSP() hand out the content: the next edit copies, even when the
    // entry has meanwhile become the only owner.
    const IEntry keep(c);
    const int* p = static_cast<const int*>(c.data());
    ASSERT_NE(p, nullptr);
    c.replaceItemAt(0, 8, Type2Type<int>());
    EXPECT_EQ(*p, 2);
    const std::shared_ptr<Content> sp = c.getContentSP();
    c.push_back(9, Type2Type<int>());
    EXPECT_EQ(sp->mCount, 1);
    EXPECT_EQ(c.count(), 2u);
    c.getContentSP();  // dropped at once
    Content* before = contentOf(c);
    c.push_back(10, Type2Type<int>());
    EXPECT_NE(contentOf(c), before);
    EXPECT_EQ(c.count(), 3u);

    // clear(): a shared content is let go, a private one emptied in place.
    IEntry d(b);
    d.clear();
    EXPECT_FALSE(contentOf(d));
    EXPECT_EQ(d.type(), -1);
    EXPECT_EQ(b.itemAt(0, Type2Type<int>()), 7);
    IEntry mine(11);
    mine.push_back(1, Type2Type<int>());
    Content* own = contentOf(mine);
    ASSERT_FALSE(own->isReadOnly());
    mine.clear();
    EXPECT_EQ(contentOf(mine), own);
    EXPECT_EQ(mine.type(), -1);
    EXPECT_TRUE(mine.isEmpty());
    mine.push_back(MSize(4, 3), Type2Type<MSize>());
    EXPECT_EQ(contentOf(mine), own);
    EXPECT_EQ(mine.itemAt(0, Type2Type<MSize>()), MSize(4, 3));
    EXPECT_THAT(logs(), IsEmpty());
}

// Edits whose values are read through data() of the same entry: the source stays valid
// while the entry copies its content.
TEST_F(EntryTest, EditsFromOwnData) {
    IEntry e(3);
    const int v[] = {1, 2, 3};
    e.push_back(v, 3, Type2Type<int>());
    e.push_back(static_cast<const int*>(e.data()), 3, Type2Type<int>());
    e.replaceItemAt(0, static_cast<const int*>(e.data()) + 5, 1, Type2Type<int>());
    e.replaceItemAt(1, static_cast<const int*>(e.data())[3], Type2Type<int>());
    e.push_back(*static_cast<const int*>(e.data()), Type2Type<int>());
    int out[7] = {};
    ASSERT_EQ(e.itemAt(0, out, 7, Type2Type<int>()), 1);
    EXPECT_THAT(out, ElementsAre(3, 1, 3, 1, 2, 3, 3));
}

TEST_F(EntryTest, SharedContentConstructorMarksAndWarns) {
    for (uint32_t level : {2u, 0u}) {
        setLogging(0x2, level, 0);
        auto content = std::make_shared<Content>();
        const IEntry e(0x77, content);
        EXPECT_TRUE(content->isReadOnly());
        if (level) {
            EXPECT_THAT(logs(), ElementsAre("IEntry:NOT ReadOnly! " + ptr(&e) +
                                                " created. tag 77, share content(" +
                                                ptr(content.get()) + ", ref:2)",
                                            "Callstack:"));
        } else {
            EXPECT_THAT(logs(), IsEmpty());
        }
        const IEntry again(0x78, content);  // already read-only: nothing to say
        EXPECT_THAT(logs(), IsEmpty());
        EXPECT_EQ(contentOf(again), content.get());
    }
}

TEST_F(EntryTest, IndexOf) {
    IEntry f(1);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float values[] = {nan, 0.0f, 2.5f};
    EXPECT_EQ(IEntry::indexOf(f, 0.0f), -1);  // no content yet
    f.push_back(values, 3, Type2Type<float>());
    EXPECT_EQ(IEntry::indexOf(f, nan), -1);
    EXPECT_EQ(IEntry::indexOf(f, -0.0f), 1);
    EXPECT_EQ(IEntry::indexOf(f, 2.5f), 2);
    EXPECT_EQ(IEntry::indexOf(f, 3.0f), -1);

    IEntry d(2);
    d.push_back(-0.0, Type2Type<double>());
    EXPECT_EQ(IEntry::indexOf(d, 0.0), 0);

    IEntry r(3);
    const MRect rects[] = {MRect(1, 2, 3, 5), MRect(1, 2, 3, 4)};
    r.push_back(rects, 2, Type2Type<MRect>());
    EXPECT_EQ(IEntry::indexOf(r, MRect(1, 2, 3, 4)), 1);

    IEntry m(4);
    const Memory blobs[] = {Memory("ab", 2), Memory(), Memory("abc", 3)};
    m.push_back(blobs, 3, Type2Type<Memory>());
    EXPECT_EQ(IEntry::indexOf(m, Memory("abc", 3)), 2);
    EXPECT_EQ(IEntry::indexOf(m, Memory()), 1);
    EXPECT_EQ(IEntry::indexOf(m, Memory("abd", 3)), -1);

    IEntry cleared(5);
    cleared.push_back(7L, Type2Type<long>());
    cleared.removeAt(0);
    EXPECT_EQ(IEntry::indexOf(cleared, 7L), -1);
    EXPECT_THAT(logs(), IsEmpty());
}

// A container stored in an entry is shared with the caller's; what is read back shares
// it too, and edits on either side stay on that side.
TEST_F(EntryTest, NestedContainerValues) {
    IMetadata inner = withInt(0x10001, 1);
    IEntry e(0x8);
    e.push_back(inner, Type2Type<IMetadata>());
    EXPECT_EQ(e.itemAt(0, Type2Type<IMetadata>()).getStorageSP(), inner.getStorageSP());
    ASSERT_EQ(IMetadata::setEntry<int>(&inner, 0x10001, 2), 0);
    IMetadata read = e.itemAt(0, Type2Type<IMetadata>());
    int value = 0;
    ASSERT_TRUE(IMetadata::getEntry<int>(&read, 0x10001, value));
    EXPECT_EQ(value, 1);
    ASSERT_EQ(IMetadata::setEntry<int>(&read, 0x10001, 3), 0);
    const IMetadata again = e.itemAt(0, Type2Type<IMetadata>());
    ASSERT_TRUE(IMetadata::getEntry<int>(&again, 0x10001, value));
    EXPECT_EQ(value, 1);
}

// Two threads assigning two entries to each other never deadlock; entries copied and
// edited on other threads never disturb the source.
TEST_F(EntryTest, ThreadsAssignAndCopy) {
    IEntry a(1), b(2);
    a.push_back(1, Type2Type<int>());
    b.push_back(2.0f, Type2Type<float>());
    constexpr int kRounds = 20000;
    std::thread t1([&] {
        for (int i = 0; i < kRounds; ++i) a = b;
    });
    std::thread t2([&] {
        for (int i = 0; i < kRounds; ++i) b = a;
    });
    t1.join();
    t2.join();
    EXPECT_EQ(contentOf(a), contentOf(b));
    EXPECT_EQ(a.tag(), b.tag());

    IEntry source(3);
    const int values[] = {1, 2, 3};
    source.push_back(values, 3, Type2Type<int>());
    std::atomic<int> wrong{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&source, &wrong, w] {
            for (int i = 0; i < 2000; ++i) {
                IEntry copy(source);
                copy.replaceItemAt(0, w, Type2Type<int>());
                copy.push_back(i, Type2Type<int>());
                if (copy.count() != 4 || copy.itemAt(0, Type2Type<int>()) != w) ++wrong;
                IEntry later(0);
                later = copy;
                later.removeAt(3);
                IEntry back(std::move(later));
            }
        });
    }
    for (std::thread& t : workers) t.join();
    EXPECT_EQ(wrong.load(), 0);
    int out[3] = {};
    ASSERT_EQ(source.itemAt(0, out, 3, Type2Type<int>()), 1);
    EXPECT_THAT(out, ElementsAre(1, 2, 3));
}

}  // namespace
