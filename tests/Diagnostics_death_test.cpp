// Fatal checks end the process through the Android assert with the located text, after
// telling the unified logger (when its mode bits are on) and calling its pre-abort.
#define LOG_TAG "Metadata2/Content"
#define LOG_MODULE ::NSCam::diag::kMetadataModule
#include "Diagnostics.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using NSCam::Utils::ULog::ULogger;

// clang-format off
constexpr int kFatalLine = __LINE__ + 1;
[[noreturn]] __attribute__((noinline)) void fatalSite() { META_FATAL("broken row %d", 7); }
constexpr int kFlushLine = __LINE__ + 1;
[[noreturn]] __attribute__((noinline)) void fatalFlushSite() { META_FATAL_FLUSH("mType invalid %d", -1); }
constexpr int kIfLine = __LINE__ + 1;
__attribute__((noinline)) void fatalIfSite(bool broken) { META_FATAL_IF(broken, "marker %#x", 0x12345677u); }
// clang-format on

// Installed in the dying child: shows on stderr, in order, what the unified logger was told.
class EchoLogger final : public ULogger {
public:
    void writeLine(uint32_t moduleId, const char* tag, int level, const char* text,
                   int length) override {
        std::fprintf(stderr, "ulog[%#x %s L%d len %d] %s\n", moduleId, tag, level, length, text);
    }
    void flush() override { std::fputs("ulog flush\n", stderr); }
    void preAbort(int reason) override { std::fprintf(stderr, "ulog preAbort(%d)\n", reason); }
};
EchoLogger gEcho;

// Escapes a literal for the death tests' extended regular expressions.
std::string quote(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

std::string plain(const std::string& func, int line, const std::string& text) {
    return func + "(" + std::to_string(line) + "):" + text;
}
std::string located(const std::string& func, int line, const std::string& text) {
    return plain(func, line, text) + " (" + func + "){#" + std::to_string(line) +
           ":tests/Diagnostics_death_test.cpp}";
}
// The unified-logger line as EchoLogger prints it.
std::string ulogLine(const std::string& plainText) {
    return "ulog[0x1001003 Metadata2/Content L1 len " + std::to_string(plainText.size()) + "] " +
           plainText + "\n";
}

void withMode(uint32_t mode) {
    ULogger::sULogger = &gEcho;
    ULogger::sMode = mode;
    ULogger::sDetailsLevel = 0;  // fatal lines ignore the details level
}

class FatalModeDeathTest : public ::testing::TestWithParam<uint32_t> {};

// Whatever the mode, even 0, the process ends with the located text.
TEST_P(FatalModeDeathTest, FatalEndsWithTheLocatedText) {
    const std::string text = quote(located("fatalSite", kFatalLine, "broken row 7"));
    EXPECT_DEATH((withMode(GetParam()), fatalSite()), text);
}
INSTANTIATE_TEST_SUITE_P(Modes, FatalModeDeathTest, ::testing::Values(0x0u, 0x1u, 0x2u, 0x8u));

// Under the unified logger's bits it hears the plain line and the pre-abort first.
TEST(DiagnosticsDeathTest, UnifiedLoggerHearsTheLineThenPreAbort) {
    const std::string p = plain("fatalSite", kFatalLine, "broken row 7");
    EXPECT_DEATH((withMode(0x2), fatalSite()),
                 quote(ulogLine(p) + "ulog preAbort(1)\n") + ".*" +
                     quote(located("fatalSite", kFatalLine, "broken row 7")));
}

TEST(DiagnosticsDeathTest, FlushingFatalFlushesBeforePreAbort) {
    const std::string p = plain("fatalFlushSite", kFlushLine, "mType invalid -1");
    EXPECT_DEATH((withMode(0x8), fatalFlushSite()),
                 quote(ulogLine(p) + "ulog flush\nulog preAbort(1)\n") + ".*" +
                     quote(located("fatalFlushSite", kFlushLine, "mType invalid -1")));
}

TEST(DiagnosticsDeathTest, FatalIfDiesOnlyWhenTheConditionHolds) {
    fatalIfSite(false);
    EXPECT_DEATH(fatalIfSite(true), quote(located("fatalIfSite", kIfLine, "marker 0x12345677")));
}

}  // namespace
