#pragma once
// The device's unified camera logger, as the metadata library sees it. On a device the
// closed vendor logger provides this class and its globals; off the device the stand-in in
// platform/host/ does. The library only reads the globals and calls the three operations.
#include <cstddef>
#include <cstdint>

namespace NSCam {
namespace Utils {
namespace ULog {

class ULogger {
public:
    virtual ~ULogger() = default;
    // One formatted line. `length` is what the formatter reported for the whole text and
    // may exceed the bytes in `text` (the text itself is cut to its buffer).
    virtual void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                           int length) = 0;
    virtual void flush() = 0;
    // Called right before the process is ended by a fatal check.
    virtual void preAbort(int reason) = 0;

    // Sink mask: 0x1 Android log; 0x2 or 0x8 (tested together as 0x0A) unified logger.
    static uint32_t sMode;
    // Verbosity: debug lines need 5, warnings 2, call stacks 6 (see Diagnostics.h).
    static uint32_t sDetailsLevel;
    // Module mask: a module's debug lines are written only when all its bits are set here.
    static uint32_t sNormalDetailsMask;
    // The logger object; never null on a host build (a stderr logger by default).
    static ULogger* sULogger;
};

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
