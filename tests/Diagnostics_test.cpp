// The log line kinds: their exact texts, sinks, levels, module ids and gating.
#define LOG_TAG "Metadata2/Content"
#define LOG_MODULE ::NSCam::diag::kMetadataModule
#include "Diagnostics.h"

#include "RecordingLogger.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace {

using zorcam_test::LogLine;

// Log sites. Each sits on one line and returns that line, so expectations carry the exact
// "func(line):" prefix the macros write.
// clang-format off
__attribute__((noinline)) int debugSite(int v) { META_LOGD("debug %d", v); return __LINE__; }
__attribute__((noinline)) int warnSite(const char* s) { META_LOGW("warn %s", s); return __LINE__; }
__attribute__((noinline)) int errorSite(int v) { META_LOGE("error %d", v); return __LINE__; }
__attribute__((noinline)) int textSite(const std::string& s) { META_LOGE("%s", s.c_str()); return __LINE__; }
__attribute__((noinline)) int callStackSite() { META_LOGE_CALLSTACK("lost %s", "row"); return __LINE__; }
__attribute__((noinline)) int traceSite() { ::NSCam::diag::traceCallStack(META_LOG_SITE_, "%s(%d):again %d", __func__, __LINE__, 6); return __LINE__; }
#undef LOG_TAG
#undef LOG_MODULE
#define LOG_TAG "zorcam-MetaUpdater"
#define LOG_MODULE ::NSCam::diag::kUpdaterModule
__attribute__((noinline)) int updaterDebugSite() { META_LOGD("appended %d", 2); return __LINE__; }
// clang-format on

constexpr uint32_t kMetaId = 0x1001003, kMetaBits = 0x1001000;
constexpr uint32_t kUpdaterId = 0x101001, kUpdaterBits = 0x101000;
const std::string kTag = "Metadata2/Content";
const std::string kFile = "tests/Diagnostics_test.cpp";
// liblog formats each line into a 1024-byte buffer of its own.
constexpr size_t kAndroidMax = 1023;

std::string plain(const char* func, int line, const std::string& text) {
    return std::string(func) + "(" + std::to_string(line) + "):" + text;
}
std::string located(const char* func, int line, const std::string& text) {
    return plain(func, line, text) + " (" + func + "){#" + std::to_string(line) + ":" + kFile +
           "}";
}

// What reached the Android log, captured through liblog's logger hook.
struct AndroidLine {
    int prio;
    std::string tag;
    std::string text;
    bool operator==(const AndroidLine& o) const {
        return prio == o.prio && tag == o.tag && text == o.text;
    }
};
std::ostream& operator<<(std::ostream& os, const AndroidLine& l) {
    return os << "{" << l.prio << ", " << l.tag << ", " << l.text << "}";
}
std::mutex gAndroidLock;
std::vector<AndroidLine> gAndroid;
void recordAndroid(const __android_logger_data* d, const char* msg) {
    std::lock_guard<std::mutex> guard(gAndroidLock);
    gAndroid.push_back({d->priority, d->tag ? d->tag : "", msg ? msg : ""});
}

struct ULine {
    uint32_t module;
    int level;
    std::string text;
};

class DiagnosticsTest : public zorcam_test::LoggerTest {
protected:
    void SetUp() override {
        LoggerTest::SetUp();
        mSavedPrio = __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        gAndroid.clear();
        __android_log_set_logger(recordAndroid);
    }
    void TearDown() override {
        __android_log_set_logger(__android_log_stderr_logger);
        __android_log_set_minimum_priority(mSavedPrio);
        LoggerTest::TearDown();
    }
    void expectULog(const std::vector<ULine>& want) const {
        const std::vector<LogLine> got = log.lines();
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(got[i].moduleId, want[i].module);
            EXPECT_EQ(got[i].level, want[i].level);
            EXPECT_EQ(got[i].text, want[i].text);
            EXPECT_EQ(got[i].length, int(want[i].text.size()));
        }
    }
    int mSavedPrio = ANDROID_LOG_DEFAULT;
};

// Each kind goes to the Android log under mode bit 0x1 (errors in the located form) and to
// the unified logger under 0x2 or 0x8 (always the plain form).
class SinkTest : public DiagnosticsTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(SinkTest, EachKindReachesTheSinksItsModeSelects) {
    const uint32_t mode = GetParam();
    setLogging(mode, 5, kMetaBits);
    const int d = debugSite(1), w = warnSite("w"), e = errorSite(3);

    std::vector<AndroidLine> wantAndroid;
    if (mode & 0x1)
        wantAndroid = {{ANDROID_LOG_DEBUG, kTag, plain("debugSite", d, "debug 1")},
                       {ANDROID_LOG_WARN, kTag, plain("warnSite", w, "warn w")},
                       {ANDROID_LOG_ERROR, kTag, located("errorSite", e, "error 3")}};
    EXPECT_EQ(gAndroid, wantAndroid);

    if (mode & 0xA) {
        expectULog({{kMetaId, 5, plain("debugSite", d, "debug 1")},
                    {kMetaId, 2, plain("warnSite", w, "warn w")},
                    {kMetaId, 1, plain("errorSite", e, "error 3")}});
        for (const LogLine& l : log.lines()) EXPECT_EQ(l.tag, kTag);
    } else {
        EXPECT_TRUE(log.lines().empty());
    }
}
INSTANTIATE_TEST_SUITE_P(Modes, SinkTest, ::testing::Values(0x0u, 0x1u, 0x2u, 0x8u, 0x3u, 0xAu, 0x4u));

// Which lines survive the details level and the module mask (unified logger only).
struct GateCase {
    const char* what;
    int (*site)();
    uint32_t level, mask;
    size_t lines;
};
int debugOne() { return debugSite(1); }
int warnOne() { return warnSite("w"); }
int errorOne() { return errorSite(1); }

class GateTest : public DiagnosticsTest, public ::testing::WithParamInterface<GateCase> {};

TEST_P(GateTest, LevelAndMaskGateTheLine) {
    const GateCase& c = GetParam();
    setLogging(0x2, c.level, c.mask);
    c.site();
    EXPECT_EQ(log.lines().size(), c.lines);
}
INSTANTIATE_TEST_SUITE_P(
    Cases, GateTest,
    ::testing::Values(GateCase{"debug_on", debugOne, 5, kMetaBits, 1},
                      GateCase{"debug_all_bits", debugOne, 9, 0xFFFFFFFF, 1},
                      GateCase{"debug_level_4", debugOne, 4, kMetaBits, 0},
                      GateCase{"debug_high_bit_only", debugOne, 5, 0x1000000, 0},
                      GateCase{"debug_low_bit_only", debugOne, 5, 0x0001000, 0},
                      GateCase{"debug_updater_bits", debugOne, 5, kUpdaterBits, 0},
                      GateCase{"updater_on", updaterDebugSite, 5, kUpdaterBits, 1},
                      GateCase{"updater_meta_bits", updaterDebugSite, 5, kMetaBits, 0},
                      GateCase{"updater_part_bits", updaterDebugSite, 5, 0x100000, 0},
                      GateCase{"warn_level_2", warnOne, 2, 0, 1},
                      GateCase{"warn_level_1", warnOne, 1, 0, 0},
                      GateCase{"error_level_0", errorOne, 0, 0, 1},
                      GateCase{"callstack_level_0", callStackSite, 0, 0, 0},
                      GateCase{"callstack_level_1", callStackSite, 1, 0, 2},
                      GateCase{"trace_level_6", traceSite, 6, kMetaBits, 2},
                      GateCase{"trace_level_5", traceSite, 5, kMetaBits, 0},
                      GateCase{"trace_no_bits", traceSite, 9, 0x1000000, 0}),
    [](const ::testing::TestParamInfo<GateCase>& i) { return std::string(i.param.what); });

TEST_F(DiagnosticsTest, UpdaterLinesCarryTheUpdaterModule) {
    setLogging(0x3, 5, kUpdaterBits);
    const int line = updaterDebugSite();
    expectULog({{kUpdaterId, 5, plain("updaterDebugSite", line, "appended 2")}});
    EXPECT_EQ(log.lines()[0].tag, "zorcam-MetaUpdater");
    EXPECT_EQ(gAndroid, (std::vector<AndroidLine>{{ANDROID_LOG_DEBUG, "zorcam-MetaUpdater",
                                                   plain("updaterDebugSite", line, "appended 2")}}));
}

TEST_F(DiagnosticsTest, ErrorWithCallStackIsTheErrorThenTheStack) {
    setLogging(0x3, 1, 0);
    const int line = callStackSite();
    const std::vector<LogLine> u = log.lines();
    ASSERT_EQ(u.size(), 2u);
    EXPECT_EQ(u[0].text, plain("callStackSite", line, "lost row"));
    EXPECT_EQ(u[0].level, 1);
    EXPECT_EQ(u[1].level, 1);
    ASSERT_EQ(gAndroid.size(), 2u);
    EXPECT_EQ(gAndroid[0], (AndroidLine{ANDROID_LOG_ERROR, kTag,
                                        located("callStackSite", line, "lost row")}));
    EXPECT_EQ(gAndroid[1].prio, ANDROID_LOG_ERROR);
    // The stack is the current thread's, taken at the site; liblog cuts its lines at 1023
    // characters, as the unified-logger path does, so both sinks show the same head.
    ASSERT_EQ(u[1].text.rfind("Callstack:#00 pc ", 0), 0u) << u[1].text;
    EXPECT_NE(u[1].text.find("errorWithCallStack"), std::string::npos) << u[1].text;
    if (u[1].text.size() < 1023)
        EXPECT_EQ(size_t(u[1].length), u[1].text.size());
    else
        EXPECT_GE(u[1].length, 1023);
    const std::string tail = " (callStackSite){#" + std::to_string(line) + ":" + kFile + "}";
    EXPECT_EQ(gAndroid[1].text, (u[1].text + tail).substr(0, kAndroidMax));
}

TEST_F(DiagnosticsTest, TraceRepeatsTheMessageThenTheStackAtLevel6Only) {
    setLogging(0x3, 6, kMetaBits);
    const int line = traceSite();
    const std::vector<LogLine> u = log.lines();
    ASSERT_EQ(u.size(), 2u);
    EXPECT_EQ(u[0].text, plain("traceSite", line, "again 6"));
    EXPECT_EQ(u[0].level, 6);
    EXPECT_EQ(u[0].moduleId, kMetaId);
    EXPECT_EQ(u[1].level, 6);
    EXPECT_EQ(u[1].text.rfind("Callstack:", 0), 0u);
    EXPECT_NE(u[1].text.find("traceCallStack"), std::string::npos) << u[1].text;
    EXPECT_TRUE(gAndroid.empty());
}

// The unified logger gets at most 1023 characters but the length the whole text would have.
TEST_F(DiagnosticsTest, LongLinesAreCutWithTheirFullLength) {
    const size_t prefix = plain("textSite", textSite(""), "").size();
    for (size_t total : {size_t(1022), size_t(1023), size_t(1024), size_t(2000)}) {
        SCOPED_TRACE(total);
        log.reset();
        gAndroid.clear();
        setLogging(0x3, 2, 0);
        const std::string body(total - prefix, 'x');
        const int line = textSite(body);
        const std::string full = plain("textSite", line, body);
        ASSERT_EQ(full.size(), total);
        const std::vector<LogLine> u = log.lines();
        ASSERT_EQ(u.size(), 1u);
        EXPECT_EQ(u[0].text, full.substr(0, 1023));
        EXPECT_EQ(u[0].length, int(total));
        ASSERT_EQ(gAndroid.size(), 1u);
        EXPECT_EQ(gAndroid[0].text, located("textSite", line, body).substr(0, kAndroidMax));
    }
}

// On the host the Android log is stderr; the located form names the source as the build
// maps it, not the checkout's absolute path.
TEST_F(DiagnosticsTest, HostAndroidLogIsStderrWithTheMappedSourcePath) {
    __android_log_set_logger(__android_log_stderr_logger);
    setLogging(0x1, 2, 0);
    ::testing::internal::CaptureStderr();
    const int line = errorSite(42);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(kTag + " E "), std::string::npos) << err;
    const std::string want = located("errorSite", line, "error 42") + "\n";
    ASSERT_GE(err.size(), want.size()) << err;
    EXPECT_EQ(err.substr(err.size() - want.size()), want) << err;
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
