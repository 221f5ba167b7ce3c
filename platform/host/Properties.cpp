#include <zorcam/platform/Properties.h>

#include <android-base/properties.h>

namespace NSCam {
namespace Utils {
namespace Properties {

int32_t property_get_int32(const char* key, int32_t defaultValue) {
    return android::base::GetIntProperty<int32_t>(key, defaultValue);
}

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
