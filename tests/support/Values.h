#pragma once
// The eleven value types for typed tests, distinct values of each, equality as the tests need
// it (a nested container read back shares the storage that was stored), entries of values.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>
#include <vector>

namespace zorcam_test {

using ValueTypes =
    ::testing::Types<unsigned char, int, float, long, double, NSCam::MRational, NSCam::MPoint,
                     NSCam::MSize, NSCam::MRect, NSCam::IMetadata, NSCam::IMetadata::Memory>;

// Value i (0 to 4) of T: every byte 17 * (i + 1) for the basic types (never a NaN), the first
// i + 1 bytes of "abcdef" for a blob, a container holding i under tag 1.
template <typename T>
T sample(int i) {
    if constexpr (std::is_same<T, NSCam::IMetadata::Memory>::value) {
        return T("abcdef", static_cast<size_t>(i + 1));
    } else if constexpr (std::is_same<T, NSCam::IMetadata>::value) {
        T m;
        T::template setEntry<int>(&m, 1, i);
        return m;
    } else {
        T v;
        std::memset(static_cast<void*>(&v), 17 * (i + 1), sizeof v);
        return v;
    }
}

template <typename T>
bool same(const T& a, const T& b) {
    return a == b;
}
inline bool same(const NSCam::IMetadata& a, const NSCam::IMetadata& b) {
    return a.getStorageSP() == b.getStorageSP();
}
// Each value got is the one wanted at its place; a failure names the place.
template <typename T>
void expectSame(const std::vector<T>& got, const std::vector<T>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_TRUE(same(got[i], want[i])) << "value " << i;
}

// An entry without a tag holding `values`, appended one at a time.
template <typename T>
NSCam::IMetadata::IEntry entry(const std::vector<T>& values) {
    NSCam::IMetadata::IEntry e;
    for (const T& v : values) e.push_back(v, NSCam::Type2Type<T>());
    return e;
}

}  // namespace zorcam_test
