// MetadataUpdater: value texts, dumpMeta, the device-stage switches, warnings, a custom hook.
#include <zorcam/metadata/IMetadataUpdater.h>

#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "RecordingLogger.h"
#include "Values.h"

namespace {

using namespace NSCam;
using zorcam_test::entry;
constexpr char kPropLevel[] = "vendor.camera.debug.metaUpdater";
constexpr char kPropMfnr[] = "vendor.camera.debug.metaUpdater.appendMFNR";
constexpr char kPropTuning[] = "vendor.camera.debug.metaUpdater.setHintForCustomTuning";
constexpr uint32_t kIntent = 0x1000D, kMfnrHint = 0x80040000, kTuningHint = 0x800B0011;
constexpr auto kDevice = IMetadataUpdater::APPEND_AT_DEVICE;

class UpdaterTest : public zorcam_test::LoggerTest {
protected:
    void TearDown() override {
        for (auto key : {kPropLevel, kPropMfnr, kPropTuning}) android::base::SetProperty(key, "");
        LoggerTest::TearDown();
    }
    std::shared_ptr<IMetadataUpdater> u = IMetadataUpdater::create({3});
};

TEST_F(UpdaterTest, ValueStringsAndDumpMeta) {
    IMetadata empty, meta;
    const std::pair<IMetadata::IEntry, std::string> cases[] = {
        {entry<uint8_t>({255, 0}), "255 0 "},
        {entry<int32_t>({-5, 7}), "-5 7 "},
        {entry<float>({1.5f}), "1.500000 "},
        {entry<MRational>({{1, 3}}), "[1 / 3] "},
        {entry<int64_t>({-1099511627776}), "-1099511627776 "},
        {entry<IMetadata>({empty}), ""},
        {entry<double>({2.25, -0.5}), "2.250000 -0.500000 "},
        {entry<double>({-1e300}), std::to_string(-1e300) + " "},  // longer than any buffer
        {IMetadata::IEntry(), ""},
        {entry<MPoint>({{1, 2}, {3, 4}}), "(1, 2) (3, 4) "},
        {entry<MSize>({{640, 480}}), "(640, 480) "},
        {entry<MRect>({{1, 2, 3, 4}, {-1, 0, 0, 9}}), "(1, 2, 3, 4) (-1, 0, 0, 9) "},
        {entry<IMetadata::Memory>({IMetadata::Memory("ab", 2)}), ""}};
    std::vector<std::string> lines;
    uint32_t tag = 0xC00B0000;  // vendor tags, printed in lower case
    for (const auto& [e, text] : cases) {
        EXPECT_EQ(u->getValueString(e), text);
        meta.update(++tag, e);
        char head[40];
        std::snprintf(head, sizeof(head), "[3::dumpMeta] 0x%x => ", tag);
        lines.push_back(head + text);
    }
    setLogging(0x2, 5, 0x101000);
    u->dumpMeta(&meta);
    u->dumpMeta(&empty);  // no line at all
    for (const auto& l : log.lines()) {
        EXPECT_EQ(l.tag, "zorcam-MetaUpdater") << l.text;
        EXPECT_EQ(l.level, 5) << l.text;
    }
    EXPECT_EQ(log.take(), lines);
}

// appendMFNR adds its hint for a still capture (intent 1) only; any tuning hint but -1 replaces.
TEST_F(UpdaterTest, DeviceStageSwitchesAndTheOtherStagesWarnings) {
    const struct {
        const char *mfnr, *tuning;
        int intent;
        const char *hint, *tuned;
    } cases[] = {
        {"", "", 1, "", "7 8 9 "},   {"1", "", 1, "1 ", "7 8 9 "}, {"7", "", 1, "1 ", "7 8 9 "},
        {"1", "", 2, "", "7 8 9 "},  {"1", "", -1, "", "7 8 9 "},  {"0", "", 1, "", "7 8 9 "},
        {"", "-1", 1, "", "7 8 9 "}, {"", "-2", 1, "", "-2 "},     {"1", "0", -1, "", "0 "}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mfnr) + "/" + c.tuning + "/" + std::to_string(c.intent));
        android::base::SetProperty(kPropMfnr, c.mfnr);
        android::base::SetProperty(kPropTuning, c.tuning);
        IMetadata control;  // intent -1: the tag is absent
        if (c.intent >= 0) IMetadata::setEntry<uint8_t>(&control, kIntent, c.intent);
        control.update(kTuningHint, entry<int32_t>({7, 8, 9}));
        ASSERT_EQ(u->appendCustomerMeta(kDevice, &control, nullptr, nullptr), 0);
        EXPECT_EQ(control.count(), (c.intent >= 0) + 1u + (*c.hint != 0));
        EXPECT_EQ(control.entryFor(kMfnrHint).type(), *c.hint ? TYPE_INT32 : -1);
        EXPECT_EQ(u->getValueString(control.entryFor(kMfnrHint)), c.hint);
        EXPECT_EQ(u->getValueString(control.entryFor(kTuningHint)), c.tuned);
    }
    IMetadata c, r, h;  // control, result and HAL (the last two may be null at the device stage)
    EXPECT_EQ(u->appendCustomerMeta(IMetadataUpdater::APPEND_AT_PIPELINE, &c, &r, &h), 0);
    EXPECT_EQ(u->appendCustomerMeta(IMetadataUpdater::EAppendStage(2), &c, &r, &h), -1);
    u->destroy();
    EXPECT_EQ(log.take(), (std::vector<std::string>{"[3::appendMetaAtPipeline] Not Implement",
                                                    "[3::appendCustomerMeta] Unknown append stage",
                                                    "[3::destroy] Not Implement"}));
    EXPECT_TRUE(c.isEmpty());
    EXPECT_TRUE(r.isEmpty());
    EXPECT_TRUE(h.isEmpty());
}

struct DeviceHook : MetadataUpdater {
    using MetadataUpdater::MetadataUpdater;
    int appendMetaAtDevice(const IMetadata*, IMetadata* add) override {
        return IMetadata::setEntry<int32_t>(add, 1, 42) + IMetadata::setEntry<int32_t>(add, 2, 5);
    }
};

TEST_F(UpdaterTest, DerivedDeviceHookIsMergedAndLogged) {
    setLogging(0x2, 5, 0x101000);
    android::base::SetProperty(kPropLevel, "1");
    android::base::SetProperty(kPropTuning, "0");  // the base device hook is not called
    IMetadata control;
    IMetadata::setEntry<int32_t>(&control, 1, 7);
    IMetadata::setEntry<uint8_t>(&control, kIntent, 1);
    EXPECT_EQ(DeviceHook({4}).appendCustomerMeta(kDevice, &control, nullptr, nullptr), 0);
    EXPECT_EQ(
        log.take(),
        (std::vector<std::string>{
            "[4::appendCustomerMeta] + 0", "[4::appendCustomerMeta] appendAppControlMeta count=2",
            "[4::dumpMeta] 0x1 => 42 ", "[4::dumpMeta] 0x2 => 5 ",
            "[4::appendCustomerMeta] appControlMeta count=3", "[4::dumpMeta] 0x1 => 42 ",
            "[4::dumpMeta] 0x1000d => 1 ", "[4::dumpMeta] 0x2 => 5 ", "[4::appendCustomerMeta] -",
            "[4::~MetadataUpdater] dtor"}));
}

// A pipeline hook's additions reach the matching targets only: result to result, HAL to HAL.
struct PipelineHook : MetadataUpdater {
    using MetadataUpdater::MetadataUpdater;
    int appendMetaAtPipeline(const IMetadata*, const IMetadata*, const IMetadata*, IMetadata*,
                             IMetadata* result, IMetadata* hal) override {
        return IMetadata::setEntry<int32_t>(result, 5, 1) + IMetadata::setEntry<int32_t>(hal, 6, 2);
    }
};

TEST_F(UpdaterTest, DerivedPipelineHookIsMergedIntoResultAndHal) {
    setLogging(0x2, 5, 0x101000);
    IMetadata c, r, h;
    EXPECT_EQ(
        PipelineHook({5}).appendCustomerMeta(IMetadataUpdater::APPEND_AT_PIPELINE, &c, &r, &h), 0);
    EXPECT_TRUE(c.isEmpty());
    EXPECT_EQ(r.count(), 1u);
    EXPECT_EQ(r.entryFor(5).itemAt(0, Type2Type<int32_t>()), 1);
    EXPECT_EQ(h.count(), 1u);
    EXPECT_EQ(h.entryFor(6).itemAt(0, Type2Type<int32_t>()), 2);
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{"[5::appendCustomerMeta] appendAppResultMeta count=1",
                                        "[5::dumpMeta] 0x5 => 1 ",
                                        "[5::appendCustomerMeta] appendHalMeta count=1",
                                        "[5::dumpMeta] 0x6 => 2 ", "[5::~MetadataUpdater] dtor"}));
}

}  // namespace
