#include "RecordingLogger.h"

#include <regex>

namespace zorcam_test {

using NSCam::Utils::ULog::ULogger;

void RecordingLogger::writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                                int length) {
    std::lock_guard<std::mutex> guard(mLock);
    mLines.push_back(LogLine{moduleId, tag ? tag : "", level, text ? text : "", length});
}

std::vector<LogLine> RecordingLogger::lines() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mLines;
}

std::vector<std::string> RecordingLogger::take() {
    static const std::regex site("^([\\w~+=]+)\\(\\d+\\):");
    std::vector<std::string> out;
    std::lock_guard<std::mutex> guard(mLock);
    for (const LogLine& l : mLines)
        out.push_back(
            l.text.rfind("Callstack:", 0) == 0
                ? "Callstack:"
                : std::regex_replace(l.text, site, "$1:", std::regex_constants::format_first_only));
    mLines.clear();
    return out;
}

void LoggerTest::SetUp() {
    mSavedLogger = ULogger::sULogger;
    mSavedMode = ULogger::sMode;
    mSavedLevel = ULogger::sDetailsLevel;
    mSavedMask = ULogger::sNormalDetailsMask;
    ULogger::sULogger = &log;
    setLogging(0x2, 2, 0);
}

void LoggerTest::TearDown() {
    ULogger::sULogger = mSavedLogger;
    ULogger::sMode = mSavedMode;
    ULogger::sDetailsLevel = mSavedLevel;
    ULogger::sNormalDetailsMask = mSavedMask;
}

void LoggerTest::setLogging(uint32_t mode, uint32_t detailsLevel, uint32_t mask) {
    ULogger::sMode = mode;
    ULogger::sDetailsLevel = detailsLevel;
    ULogger::sNormalDetailsMask = mask;
}

}  // namespace zorcam_test
