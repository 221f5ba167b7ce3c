#include "Diagnostics.h"

#include <zorcam/platform/Backtrace.h>

#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace NSCam {
namespace diag {
namespace {

constexpr size_t kULogBufferSize = 1024;

void vwriteULog(const Module& module, const char* tag, int level, const char* fmt, va_list ap) {
    ULogger* logger = ULogger::sULogger;
    if (logger == nullptr) return;
    // A fresh heap buffer per line: sites on different threads never share one.
    char* buf = static_cast<char*>(std::malloc(kULogBufferSize));
    if (buf == nullptr) return;
    const int len = std::vsnprintf(buf, kULogBufferSize, fmt, ap);
    if (len < 0) {
        std::free(buf);
        return;
    }
    buf[kULogBufferSize - 1] = '\0';
    // The length is the formatter's, not the buffer's: readers rely on seeing how long the
    // line would have been.
    logger->writeLine(module.id, tag, level, buf, len);
    std::free(buf);
}

std::string vformat(const char* fmt, va_list ap) {
    va_list measure;
    va_copy(measure, ap);
    const int len = std::vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    if (len < 0) return std::string();
    std::string out(static_cast<size_t>(len), '\0');
    std::vsnprintf(out.data(), out.size() + 1, fmt, ap);
    return out;
}

bool toAndroid() {
    return (ULogger::sMode & kModeAndroid) != 0;
}
bool toULog() {
    return (ULogger::sMode & kModeULog) != 0;
}

// One line to each sink the mode selects. Error lines on the Android log are located: the
// plain text followed by " (func){#line:file}".
void vemit(const Site& site, int prio, int level, bool located, const char* fmt, va_list ap) {
    if (toAndroid()) {
        va_list copy;
        va_copy(copy, ap);
        const std::string text = vformat(fmt, copy);
        va_end(copy);
        if (located)
            __android_log_print(prio, site.tag, "%s (%s){#%d:%s}", text.c_str(), site.func,
                                site.line, site.file);
        else
            __android_log_print(prio, site.tag, "%s", text.c_str());
    }
    if (toULog()) vwriteULog(site.module, site.tag, level, fmt, ap);
}

void verror(const Site& site, const char* fmt, va_list ap) {
    vemit(site, kPrioError, kULogError, true, fmt, ap);
}

void errorf(const Site& site, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void errorf(const Site& site, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    verror(site, fmt, ap);
    va_end(ap);
}

std::string callStack() {
    std::string bt;
    Utils::Backtrace::unwindCurThreadBT(&bt);
    return bt;
}

}  // namespace

void writeULogLine(const Module& module, const char* tag, int level, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vwriteULog(module, tag, level, fmt, ap);
    va_end(ap);
}

void debug(const Site& site, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vemit(site, kPrioDebug, kULogDebug, false, fmt, ap);
    va_end(ap);
}

void warning(const Site& site, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vemit(site, kPrioWarning, kULogWarning, false, fmt, ap);
    va_end(ap);
}

void error(const Site& site, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    verror(site, fmt, ap);
    va_end(ap);
}

void errorWithCallStack(const Site& site, const char* fmt, ...) {
    const std::string stack = callStack();
    va_list ap;
    va_start(ap, fmt);
    verror(site, fmt, ap);
    va_end(ap);
    errorf(site, "Callstack:%s", stack.c_str());
}

void traceCallStack(const Site& site, const char* fmt, ...) {
    if (ULogger::sDetailsLevel < 6 || !moduleOn(site.module) || !toULog()) return;
    const std::string stack = callStack();
    va_list ap;
    va_start(ap, fmt);
    vwriteULog(site.module, site.tag, kULogTrace, fmt, ap);
    va_end(ap);
    writeULogLine(site.module, site.tag, kULogTrace, "Callstack:%s", stack.c_str());
}

void fatal(const Site& site, bool flushFirst, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    if (toULog()) {
        va_list copy;
        va_copy(copy, ap);
        vwriteULog(site.module, site.tag, kULogError, fmt, copy);
        va_end(copy);
        if (ULogger* logger = ULogger::sULogger) {
            if (flushFirst) logger->flush();
            logger->preAbort(1);
        }
    }
    const std::string text = vformat(fmt, ap);
    va_end(ap);
    __android_log_assert(nullptr, site.tag, "%s (%s){#%d:%s}", text.c_str(), site.func, site.line,
                         site.file);
    std::abort();  // not reached: the assert ends the process
}

}  // namespace diag
}  // namespace NSCam
