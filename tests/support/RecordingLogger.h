#pragma once
// A unified logger that records every line, and a fixture that installs it for one test
// and puts the logger globals back afterwards, so a failing test cannot leak its settings.
#include <zorcam/platform/ULog.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace zorcam_test {

struct LogLine {
    uint32_t moduleId;
    std::string tag;
    int level;
    std::string text;
    int length;
};

class RecordingLogger : public NSCam::Utils::ULog::ULogger {
public:
    void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                   int length) override;
    // Flushes and pre-aborts happen only on the fatal path, which death tests watch on
    // stderr; the recorder has nothing to keep for them.
    void flush() override {}
    void preAbort(int) override {}

    // Every line as it was written.
    std::vector<LogLine> lines() const;
    // The texts with the source line dropped ("update(12):x" reads "update:x") and call
    // stacks cut to "Callstack:"; then forgets them, so a test can take the lines of one step
    // at a time.
    std::vector<std::string> take();

private:
    mutable std::mutex mLock;
    std::vector<LogLine> mLines;
};

// Installs a RecordingLogger with the unified logger as the only sink (mode 0x2) and the
// given details level and mask; restores the previous globals in TearDown.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Changes the settings for the rest of the test.
    void setLogging(uint32_t mode, uint32_t detailsLevel, uint32_t mask);

    RecordingLogger log;

private:
    NSCam::Utils::ULog::ULogger* mSavedLogger = nullptr;
    uint32_t mSavedMode = 0;
    uint32_t mSavedLevel = 0;
    uint32_t mSavedMask = 0;
};

}  // namespace zorcam_test
