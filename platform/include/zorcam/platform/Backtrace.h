#pragma once
#include <string>

namespace NSCam {
namespace Utils {
namespace Backtrace {

// Appends the calling thread's call stack, one frame a line, to `out`.
// Returns false (and leaves `out` as it was) when no stack could be taken.
bool unwindCurThreadBT(std::string* out);

}  // namespace Backtrace
}  // namespace Utils
}  // namespace NSCam
