#pragma once
#include <cstdint>

namespace NSCam {
namespace Utils {
namespace Properties {

// Integer system property `key`, or `defaultValue` when it is unset or not an integer.
int32_t property_get_int32(const char* key, int32_t defaultValue);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
