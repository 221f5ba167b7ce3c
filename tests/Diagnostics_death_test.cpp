// Fatal checks: unified logger (under its bits), flush, pre-abort, then the located assert.
#define LOG_TAG "Metadata2/Content"
#define LOG_MODULE ::NSCam::diag::kMetadataModule
#include "Diagnostics.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <string>

namespace {

using ULogger = NSCam::Utils::ULog::ULogger;

// clang-format off
constexpr int kLine = __LINE__;
[[noreturn]] void fatalSite() { META_FATAL("broken row %d", 7); }
[[noreturn]] void flushSite() { META_FATAL_FLUSH("bad type %d", 9); }
// clang-format on

struct EchoLogger final : ULogger {  // echoes to stderr what the unified logger hears
    void writeLine(uint32_t id, const char* tag, int level, const char* text, int len) override {
        std::fprintf(stderr, "ulog[%#x %s L%d len %d] %s\n", id, tag, level, len, text);
    }
    void flush() override { std::fputs("ulog flush\n", stderr); }
    void preAbort(int reason) override { std::fprintf(stderr, "ulog preAbort(%d)\n", reason); }
} gEcho;

TEST(DiagnosticsDeathTest, FatalTellsTheUnifiedLoggerThenAssertsTheLocatedText) {
    const struct {
        int mode;
        void (*site)();
        const char *func, *text, *then;
        int line;
    } cases[] = {
        {0x0, fatalSite, "fatalSite", "broken row 7", nullptr, kLine + 1},
        {0x8, fatalSite, "fatalSite", "broken row 7", "ulog preAbort(1)\n", kLine + 1},
        {0x2, flushSite, "flushSite", "bad type 9", "ulog flush\nulog preAbort(1)\n", kLine + 2},
        {0x1, fatalSite, "fatalSite", "broken row 7", nullptr, kLine + 1}};
    for (const auto& c : cases) {
        const std::string n = std::to_string(c.line), plain = c.func + ("(" + n + "):") + c.text;
        const std::string told = "ulog[0x1001003 Metadata2/Content L1 len " +
                                 std::to_string(plain.size()) + "] " + plain + "\n";
        EXPECT_DEATH((ULogger::sULogger = &gEcho, ULogger::sMode = c.mode,
                      ULogger::sDetailsLevel = 0, c.site()),  // fatal ignores the details level
                     ::testing::StartsWith((c.then ? told + c.then : "") + plain + " (" + c.func +
                                           "){#" + n + ":tests/Diagnostics_death_test.cpp}\n"));
    }
}

}  // namespace
