#include <zorcam/platform/Backtrace.h>

#include <backtrace/Backtrace.h>

#include <memory>

namespace NSCam {
namespace Utils {
namespace Backtrace {

bool unwindCurThreadBT(std::string* out) {
    if (out == nullptr) return false;
    std::unique_ptr<::Backtrace> bt(
        ::Backtrace::Create(BACKTRACE_CURRENT_PROCESS, BACKTRACE_CURRENT_THREAD));
    if (!bt || !bt->Unwind(0)) return false;
    for (size_t i = 0; i < bt->NumFrames(); ++i) {
        out->append(bt->FormatFrameData(i));
        out->push_back('\n');
    }
    return true;
}

}  // namespace Backtrace
}  // namespace Utils
}  // namespace NSCam
