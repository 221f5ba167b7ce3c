#pragma once
// The five kinds of log line of the metadata library (debug, warning, error, error with
// call stack, fatal) and their sinks: the Android log under mode bit 0x1 and the unified
// camera logger under mode bits 0x0A. Sources define LOG_TAG and LOG_MODULE once and log
// only through the macros below, which prepend "%s(%d):" with the function name and line,
// and test the details level and mask before anything is formatted.
//
// Thread safety: reentrant; every line is formatted into its own buffer.
#include <zorcam/platform/ULog.h>

#include <cstdint>

namespace NSCam {
namespace diag {

// A unified-logger module: its id and the details bits that gate its debug lines.
struct Module {
    uint32_t id;
    uint32_t detailsBits;
};
inline constexpr Module kMetadataModule{0x1001003, 0x1001000};
inline constexpr Module kUpdaterModule{0x101001, 0x101000};

// Where a line comes from; the located form of error lines ends in " (func){#line:file}".
struct Site {
    const char* tag;
    const Module& module;
    const char* func;
    int line;
    const char* file;
};

using ULogger = Utils::ULog::ULogger;

// Unified-logger levels and Android priorities of each kind.
enum : int { kULogError = 1, kULogWarning = 2, kULogDebug = 5, kULogTrace = 6 };
enum : int { kPrioDebug = 3, kPrioWarning = 5, kPrioError = 6 };
enum : uint32_t { kModeAndroid = 0x1, kModeULog = 0x0A };

inline bool moduleOn(const Module& m) {
    return (ULogger::sNormalDetailsMask & m.detailsBits) == m.detailsBits;
}
inline bool debugOn(const Module& m) {
    return ULogger::sDetailsLevel >= 5 && moduleOn(m);
}
inline bool warningOn() {
    return ULogger::sDetailsLevel >= 2;
}
// Sites that log an error with the call stack stay silent at details level 0.
inline bool callStackOn() {
    return ULogger::sDetailsLevel != 0;
}

void debug(const Site& site, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void warning(const Site& site, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void error(const Site& site, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// The error, then "Callstack:%s" with the current thread's stack, both as errors.
// The caller has tested callStackOn().
void errorWithCallStack(const Site& site, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));
// At details level 6 and with the module's bits in the mask: the message again and then the
// call stack, both to the unified logger only, at level 6.
void traceCallStack(const Site& site, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Unified logger (when its mode bits are on) and its pre-abort, then __android_log_assert.
// `flushFirst` also flushes the unified logger before the pre-abort.
[[noreturn]] void fatal(const Site& site, bool flushFirst, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Formats `fmt` into a fresh 1024-byte buffer and hands it to the unified logger with the
// formatter's unclamped length; a line that fails to format is dropped.
void writeULogLine(const Module& module, const char* tag, int level, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace diag
}  // namespace NSCam

#define META_LOG_SITE_                                    \
    ::NSCam::diag::Site {                                 \
        LOG_TAG, LOG_MODULE, __func__, __LINE__, __FILE__ \
    }

// Lines written as if by the operation `func` (a literal, or a string that outlives the
// call): for helpers that report on behalf of the public operation a caller knows.
#define META_LOG_SITE_AS_(func)                       \
    ::NSCam::diag::Site {                             \
        LOG_TAG, LOG_MODULE, func, __LINE__, __FILE__ \
    }
#define META_LOGE_AS(func, fmt, ...) \
    ::NSCam::diag::error(META_LOG_SITE_AS_(func), "%s(%d):" fmt, func, __LINE__, ##__VA_ARGS__)
#define META_LOGE_CALLSTACK_AS(func, fmt, ...)                                              \
    do {                                                                                    \
        if (::NSCam::diag::callStackOn())                                                   \
            ::NSCam::diag::errorWithCallStack(META_LOG_SITE_AS_(func), "%s(%d):" fmt, func, \
                                              __LINE__, ##__VA_ARGS__);                     \
    } while (0)
#define META_LOGD_AS(func, fmt, ...)                                                     \
    do {                                                                                 \
        if (::NSCam::diag::debugOn(LOG_MODULE))                                          \
            ::NSCam::diag::debug(META_LOG_SITE_AS_(func), "%s(%d):" fmt, func, __LINE__, \
                                 ##__VA_ARGS__);                                         \
    } while (0)
#define META_FATAL_AS(func, fmt, ...)                                                   \
    ::NSCam::diag::fatal(META_LOG_SITE_AS_(func), false, "%s(%d):" fmt, func, __LINE__, \
                         ##__VA_ARGS__)
#define META_FATAL_FLUSH_AS(func, fmt, ...)                                            \
    ::NSCam::diag::fatal(META_LOG_SITE_AS_(func), true, "%s(%d):" fmt, func, __LINE__, \
                         ##__VA_ARGS__)

#define META_LOGD(fmt, ...)                                                         \
    do {                                                                            \
        if (::NSCam::diag::debugOn(LOG_MODULE))                                     \
            ::NSCam::diag::debug(META_LOG_SITE_, "%s(%d):" fmt, __func__, __LINE__, \
                                 ##__VA_ARGS__);                                    \
    } while (0)
#define META_LOGW(fmt, ...)                                                           \
    do {                                                                              \
        if (::NSCam::diag::warningOn())                                               \
            ::NSCam::diag::warning(META_LOG_SITE_, "%s(%d):" fmt, __func__, __LINE__, \
                                   ##__VA_ARGS__);                                    \
    } while (0)
#define META_LOGE(fmt, ...) \
    ::NSCam::diag::error(META_LOG_SITE_, "%s(%d):" fmt, __func__, __LINE__, ##__VA_ARGS__)
// Error plus call stack; silent at details level 0 (the caller still refuses).
#define META_LOGE_CALLSTACK(fmt, ...)                                                            \
    do {                                                                                         \
        if (::NSCam::diag::callStackOn())                                                        \
            ::NSCam::diag::errorWithCallStack(META_LOG_SITE_, "%s(%d):" fmt, __func__, __LINE__, \
                                              ##__VA_ARGS__);                                    \
    } while (0)
// An error that, at details level 6, is repeated with the call stack to the unified logger.
// Both expansions sit on one source line, so the repeated line reads the same.
#define META_LOGE_TRACE(fmt, ...)                                                        \
    do {                                                                                 \
        META_LOGE(fmt, ##__VA_ARGS__);                                                   \
        ::NSCam::diag::traceCallStack(META_LOG_SITE_, "%s(%d):" fmt, __func__, __LINE__, \
                                      ##__VA_ARGS__);                                    \
    } while (0)
#define META_FATAL(fmt, ...) \
    ::NSCam::diag::fatal(META_LOG_SITE_, false, "%s(%d):" fmt, __func__, __LINE__, ##__VA_ARGS__)
#define META_FATAL_FLUSH(fmt, ...) \
    ::NSCam::diag::fatal(META_LOG_SITE_, true, "%s(%d):" fmt, __func__, __LINE__, ##__VA_ARGS__)
