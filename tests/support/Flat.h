#pragma once
// The one way tests take the flat form of a container, a storage or a content: a buffer of
// flattenSize bytes, flatten into it, and the length flatten returns must be that size (a form
// whose size and bytes disagree fails the test that asked for it, not one further on).
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace zorcam_test {

// `listed` goes to both calls after the buffer: a storage's tag list and its count. With Word
// uint32_t the form comes as the little-endian words a device holds it in (a size that is no
// multiple of 4 then fails: the buffer is short).
template <typename Word = uint8_t, typename Form, typename... Listed>
std::vector<Word> flat(const Form& form, Listed... listed) {
    const long size = static_cast<long>(form.flattenSize(listed...));
    EXPECT_GE(size, 0) << "no flat form";
    std::vector<Word> out(static_cast<size_t>(std::max(size, 0L)) / sizeof(Word));
    EXPECT_EQ(form.flatten(out.data(), out.size() * sizeof(Word), listed...), size);
    return out;
}

// A storage's whole form, its rows in row order (a storage asks for a tag list: none is all).
template <typename Word = uint8_t>
std::vector<Word> flat(const NSCam::IMetadata::Storage& storage) {
    return flat<Word>(storage, static_cast<const uint32_t*>(nullptr), -1L);
}

}  // namespace zorcam_test
