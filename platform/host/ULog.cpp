// Host stand-in of the unified camera logger: the default logger writes each line to
// stderr. Tests replace sULogger with a recording logger.
#include <zorcam/platform/ULog.h>

#include <cstdio>

namespace NSCam {
namespace Utils {
namespace ULog {
namespace {

class StderrLogger final : public ULogger {
public:
    void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                   int /*length*/) override {
        std::fprintf(stderr, "[ulog %#x L%d] %s: %s\n", moduleId, level, tag, text);
    }
    void flush() override { std::fflush(stderr); }
    void preAbort(int /*reason*/) override { std::fflush(stderr); }
};

StderrLogger gStderrLogger;

}  // namespace

// A host process logs errors and warnings to the Android log (stderr here) and keeps
// debug lines and call stacks quiet until a developer raises the level.
uint32_t ULogger::sMode = 0x1;
uint32_t ULogger::sDetailsLevel = 2;
uint32_t ULogger::sNormalDetailsMask = 0;
ULogger* ULogger::sULogger = &gStderrLogger;

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
