// The log line kinds: their exact texts, sinks, levels, module ids and gating.
#define LOG_TAG "Metadata2/Content"
#define LOG_MODULE ::NSCam::diag::kMetadataModule
#include "Diagnostics.h"

#include "RecordingLogger.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// clang-format off
int debugSite() { META_LOGD("debug %d", 1); return __LINE__; }  // sites return their line
int warnSite() { META_LOGW("warn %s", "w"); return __LINE__; }
int errorSite(const std::string& s) { META_LOGE("error %s", s.c_str()); return __LINE__; }
int callStackSite() { META_LOGE_CALLSTACK("lost %s", "row"); return __LINE__; }
int traceSite() { META_LOGE_TRACE("again %d", 6); return __LINE__; }
#undef LOG_TAG
#undef LOG_MODULE
#define LOG_TAG "zorcam-MetaUpdater"
#define LOG_MODULE ::NSCam::diag::kUpdaterModule
int updaterSite() { META_LOGD("appended %d", 2); return __LINE__; }
// clang-format on

std::string at(const std::string& func, int line, const std::string& text, bool located = false) {
    const std::string n = std::to_string(line);
    return func + "(" + n + "):" + text +
           (located ? " (" + func + "){#" + n + ":tests/Diagnostics_test.cpp}" : "");
}

Lines gAndroid;  // "priority tag text", through liblog's logger hook, for the whole run
const bool kHooked = (__android_log_set_minimum_priority(ANDROID_LOG_VERBOSE),
                      __android_log_set_logger([](const __android_logger_data* d, const char* m) {
                          gAndroid.push_back(std::to_string(d->priority) + " " + d->tag + " " + m);
                      }),
                      true);

// Unified-logger lines as "tag Llevel text" (source line dropped); checks module, length.
Lines ulog(zorcam_test::RecordingLogger& log) {
    const std::vector<zorcam_test::LogLine> raw = log.lines();
    Lines out = log.take();
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(raw[i].moduleId, raw[i].tag == "zorcam-MetaUpdater" ? 0x101001u : 0x1001003u);
        // The whole text's length, which is more than a line cut at 1023 characters holds.
        if (raw[i].text.size() < 1023) {
            EXPECT_EQ(size_t(raw[i].length), raw[i].text.size()) << raw[i].text;
        } else {
            EXPECT_GE(raw[i].length, 1023) << raw[i].text;
        }
        EXPECT_NE(raw[i].text, "Callstack:");  // a stack follows
        out[i] = raw[i].tag + " L" + std::to_string(raw[i].level) + " " + out[i];
    }
    return out;
}

using DiagnosticsTest = zorcam_test::LoggerTest;

// Bit 0x1 sends each kind to the Android log (errors located); 0x2 or 0x8 to the unified one.
TEST_F(DiagnosticsTest, ModeBitsChooseTheSinks) {
    for (uint32_t mode : {0x0u, 0x1u, 0x2u, 0x8u, 0x3u}) {
        setLogging(mode, 5, 0x1001000);
        gAndroid.clear();
        const int d = debugSite(), w = warnSite(), e = errorSite("3");
        const Lines android = {"3 Metadata2/Content " + at("debugSite", d, "debug 1"),
                               "5 Metadata2/Content " + at("warnSite", w, "warn w"),
                               "6 Metadata2/Content " + at("errorSite", e, "error 3", true)};
        EXPECT_EQ(gAndroid, (mode & 0x1) ? android : Lines{}) << mode;
        EXPECT_EQ(log.take().size(), (mode & 0xA) ? 3u : 0u) << mode;  // texts: the table below
    }
}

TEST_F(DiagnosticsTest, LevelAndMaskGateEachKind) {
    const std::string meta = "Metadata2/Content ", upd = "zorcam-MetaUpdater ";
    const struct {
        int (*site)();
        uint32_t level, mask;
        Lines want;
    } cases[] = {
        {debugSite, 5, 0x1001000, {meta + "L5 debugSite:debug 1"}},
        {debugSite, 4, 0x1001000, {}},
        {debugSite, 9, 0x1000000, {}},
        {updaterSite, 5, 0x101000, {upd + "L5 updaterSite:appended 2"}},
        {updaterSite, 5, 0x1001000, {}},
        {warnSite, 2, 0, {meta + "L2 warnSite:warn w"}},
        {warnSite, 1, 0, {}},
        {[] { return errorSite("0"); }, 0, 0, {meta + "L1 errorSite:error 0"}},
        {callStackSite, 0, 0, {}},
        {callStackSite, 1, 0, {meta + "L1 callStackSite:lost row", meta + "L1 Callstack:"}},
        {traceSite,
         6,
         0x1001000,
         {meta + "L1 traceSite:again 6", meta + "L6 traceSite:again 6", meta + "L6 Callstack:"}},
        {traceSite, 5, 0x1001000, {meta + "L1 traceSite:again 6"}},
        {traceSite, 9, 0x1000000, {meta + "L1 traceSite:again 6"}},
    };
    for (const auto& c : cases) {
        setLogging(0x2, c.level, c.mask);
        c.site();
        EXPECT_EQ(ulog(log), c.want) << "case " << (&c - cases);
    }
}

TEST_F(DiagnosticsTest, LongLinesAreCutWithTheirFullLength) {
    const std::string body(2000, 'x');
    const std::string full = at("errorSite", errorSite(body), "error " + body);
    EXPECT_EQ(log.lines().at(0).text, full.substr(0, 1023));  // at most 1023 characters,
    EXPECT_EQ(log.lines().at(0).length, int(full.size()));    // but the whole text's length
}

}  // namespace
