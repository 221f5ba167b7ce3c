#pragma once
// One element of a basic type as text, by one of the printf forms of its type's facts (the
// dump's or the value strings'): what the container dump and the updater's value strings
// share, so that a type's text is written in one place, its row of kTypeFacts.
#include <zorcam/metadata/MetadataTypes.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace NSCam {

// Formats the element of `type` whose raw bytes are at `element` by `form` into `out` of
// `size`, as snprintf does: the length it needed is returned, what fits is written.
inline int formatElement(char* out, size_t size, const char* form, int32_t type,
                         const void* element) {
    const TypeFacts* facts = typeFacts(type);
    if (facts == nullptr) return -1;
    int32_t words[4] = {};
    switch (facts->printAs) {
        case PrintAs::kInt:
            if (facts->size == 1)
                return std::snprintf(out, size, form, *static_cast<const uint8_t*>(element));
            std::memcpy(words, element, 4);
            return std::snprintf(out, size, form, words[0]);
        case PrintAs::kDouble:
            if (facts->size == 4) {
                float f;
                std::memcpy(&f, element, 4);
                return std::snprintf(out, size, form, static_cast<double>(f));
            } else {
                double d;
                std::memcpy(&d, element, 8);
                return std::snprintf(out, size, form, d);
            }
        case PrintAs::kLong: {
            long l;
            std::memcpy(&l, element, 8);
            return std::snprintf(out, size, form, l);
        }
        case PrintAs::kInts:
            // Two or four fields; a form with two ignores the other two, as printf does.
            std::memcpy(words, element, static_cast<size_t>(facts->size));
            return std::snprintf(out, size, form, words[0], words[1], words[2], words[3]);
        case PrintAs::kNone:
            break;
    }
    return -1;
}

}  // namespace NSCam
