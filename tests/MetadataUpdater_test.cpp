#include <zorcam/metadata/IMetadataUpdater.h>

#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "RecordingLogger.h"

namespace NSCam {
namespace {

using Texts = std::vector<std::string>;

constexpr uint32_t kUpdaterBits = 0x101000;
constexpr char kPropLevel[] = "vendor.camera.debug.metaUpdater";
constexpr char kPropMfnr[] = "vendor.camera.debug.metaUpdater.appendMFNR";
constexpr char kPropTuning[] = "vendor.camera.debug.metaUpdater.setHintForCustomTuning";
constexpr uint32_t kCaptureIntent = 0x1000D, kMfnrHint = 0x80040000, kTuningHint = 0x800B0011;
constexpr uint32_t kNoTag = 0xFFFFFFFF;

template <typename T>
IMetadata::IEntry entryOf(uint32_t tag, std::initializer_list<T> values) {
    IMetadata::IEntry e(tag);
    for (const T& v : values) e.push_back(v, Type2Type<T>());
    return e;
}

int32_t intAt(const IMetadata& meta, uint32_t tag) {
    int32_t v = -12345;
    EXPECT_TRUE(IMetadata::getEntry<int32_t>(&meta, tag, v)) << std::hex << tag;
    return v;
}

IMetadataUpdater::StaticInfo infoFor(int32_t id) {
    IMetadataUpdater::StaticInfo info;
    info.id = id;
    return info;
}

class UpdaterTest : public zorcam_test::LoggerTest {
protected:
    void TearDown() override {
        for (const char* key : {kPropLevel, kPropMfnr, kPropTuning})
            android::base::SetProperty(key, "");
        LoggerTest::TearDown();
    }
    static int append(IMetadataUpdater& u, int32_t stage, IMetadata* control,
                      IMetadata* result = nullptr, IMetadata* hal = nullptr) {
        return u.appendCustomerMeta(static_cast<IMetadataUpdater::EAppendStage>(stage), control,
                                    result, hal);
    }
    void updaterDebugOn() { setLogging(0x2, 5, kUpdaterBits); }
    // Every recorded line must be the updater's, at `level`.
    void expectAllAt(int level) {
        for (const zorcam_test::LogLine& l : log.lines()) {
            EXPECT_EQ(l.moduleId, 0x101001u) << l.text;
            EXPECT_EQ(l.tag, "zorcam-MetaUpdater") << l.text;
            EXPECT_EQ(l.level, level) << l.text;
            EXPECT_EQ(l.length, static_cast<int>(l.text.size())) << l.text;
        }
    }
};

TEST_F(UpdaterTest, ValueStringOfEveryType) {
    IMetadata nested;
    IMetadata::setEntry<int32_t>(&nested, 1, 1);
    const uint8_t bytes[] = {1, 2, 3};
    const std::pair<IMetadata::IEntry, std::string> cases[] = {
        {entryOf<uint8_t>(1, {255, 0}), "255 0 "},
        {entryOf<int32_t>(1, {-5, 7}), "-5 7 "},
        {entryOf<float>(1, {1.5f}), "1.500000 "},
        {entryOf<int64_t>(1, {-1099511627776}), "-1099511627776 "},
        {entryOf<double>(1, {2.25, -0.5}), "2.250000 -0.500000 "},
        {entryOf<MRational>(1, {{1, 3}}), "[1 / 3] "},
        {entryOf<MPoint>(1, {{1, 2}, {3, 4}}), "(1, 2) (3, 4) "},
        {entryOf<MSize>(1, {{640, 480}}), "(640, 480) "},
        {entryOf<MRect>(1, {{1, 2, 3, 4}, {-1, 0, 0, 9}}), "(1, 2, 3, 4) (-1, 0, 0, 9) "},
        {entryOf<IMetadata::Memory>(1, {IMetadata::Memory(bytes, sizeof(bytes))}), ""},
        {entryOf<IMetadata>(1, {nested}), ""},
        {IMetadata::IEntry(1), ""},
    };
    auto u = IMetadataUpdater::create(infoFor(3));
    for (const auto& [entry, text] : cases) EXPECT_EQ(u->getValueString(entry), text);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(UpdaterTest, DumpMetaWritesOneDebugLinePerEntry) {
    IMetadata meta;
    meta.update(0x10000, entryOf<int32_t>(0x10000, {1, 2}));
    meta.update(kMfnrHint, entryOf<MRational>(kMfnrHint, {{1, 3}}));
    meta.update(0x20005, entryOf<IMetadata::Memory>(0x20005, {IMetadata::Memory("ab", 2)}));
    auto u = IMetadataUpdater::create(infoFor(3));
    // Debug lines need level 5 and every bit of the updater's mask.
    const std::pair<uint32_t, uint32_t> quiet[] = {
        {4, zorcam_test::kAllModules}, {5, 0x100000}, {5, 0x001000}, {5, 0x1001000}};
    for (const auto& [level, mask] : quiet) {
        setLogging(0x2, level, mask);
        u->dumpMeta(&meta);
        EXPECT_TRUE(log.lines().empty()) << level << " " << mask;
    }
    updaterDebugOn();
    u->dumpMeta(&meta);
    IMetadata empty;
    u->dumpMeta(&empty);
    EXPECT_EQ(log.texts(), (Texts{"[3::dumpMeta] 0x10000 => 1 2 ",
                                  "[3::dumpMeta] 0x80040000 => [1 / 3] ",
                                  "[3::dumpMeta] 0x20005 => "}));
    expectAllAt(5);
}

TEST_F(UpdaterTest, DeviceStageWithoutPropertiesChangesNothing) {
    updaterDebugOn();
    IMetadata control;
    IMetadata::setEntry<uint8_t>(&control, kCaptureIntent, 1);
    auto quiet = IMetadataUpdater::create(infoFor(3));
    // The result and HAL targets may be null at the device stage.
    EXPECT_EQ(append(*quiet, 0, &control), 0);
    EXPECT_EQ(control.count(), 1u);
    EXPECT_TRUE(log.lines().empty());
    // The updater's own level is read when it is made, not later.
    android::base::SetProperty(kPropLevel, "1");
    EXPECT_EQ(append(*quiet, 0, &control), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(append(*IMetadataUpdater::create(infoFor(4)), 0, &control), 0);
    EXPECT_EQ(log.texts(), (Texts{"[4::appendCustomerMeta] + 0", "[4::appendCustomerMeta] -",
                                  "[4::~MetadataUpdater] dtor"}));
    expectAllAt(5);
    EXPECT_EQ(control.count(), 1u);
}

TEST_F(UpdaterTest, MfnrHintOnlyForStillCaptureIntent) {
    struct Case {
        const char* prop;
        int intent;  // -1: tag absent
        bool hint;
    };
    const Case cases[] = {{"1", 1, true},   {"7", 1, true},  {"1", 2, false},
                          {"1", -1, false}, {"0", 1, false}, {"", 1, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.prop) + " intent " + std::to_string(c.intent));
        android::base::SetProperty(kPropMfnr, c.prop);
        IMetadata control;
        if (c.intent >= 0) IMetadata::setEntry<uint8_t>(&control, kCaptureIntent, c.intent);
        ASSERT_EQ(append(*IMetadataUpdater::create(infoFor(3)), 0, &control), 0);
        const IMetadata::IEntry hint = control.entryFor(kMfnrHint);
        EXPECT_EQ(control.count(), (c.intent >= 0 ? 1u : 0u) + (c.hint ? 1u : 0u));
        if (!c.hint) {
            EXPECT_EQ(hint.tag(), kNoTag);
            continue;
        }
        EXPECT_EQ(hint.type(), TYPE_INT32);
        EXPECT_EQ(hint.count(), 1u);
        EXPECT_EQ(intAt(control, kMfnrHint), 1);
    }
}

TEST_F(UpdaterTest, CustomTuningHintForEveryValueButMinusOne) {
    const std::pair<const char*, int> written[] = {{"0", 0}, {"5", 5}, {"-2", -2}};
    for (const auto& [prop, value] : written) {
        android::base::SetProperty(kPropTuning, prop);
        IMetadata control;
        ASSERT_EQ(append(*IMetadataUpdater::create(infoFor(3)), 0, &control), 0);
        EXPECT_EQ(control.count(), 1u) << prop;
        EXPECT_EQ(intAt(control, kTuningHint), value);
    }
    for (const char* prop : {"-1", ""}) {
        android::base::SetProperty(kPropTuning, prop);
        IMetadata control;
        ASSERT_EQ(append(*IMetadataUpdater::create(infoFor(3)), 0, &control), 0);
        EXPECT_TRUE(control.isEmpty()) << prop;
    }
}

TEST_F(UpdaterTest, TuningHintReplacesTheCallersEntryAndIsReadEveryCall) {
    IMetadata control;
    IMetadata::setEntry<uint8_t>(&control, kCaptureIntent, 1);
    control.update(kTuningHint, entryOf<int32_t>(kTuningHint, {7, 8, 9}));
    auto u = IMetadataUpdater::create(infoFor(3));
    android::base::SetProperty(kPropTuning, "2");
    ASSERT_EQ(append(*u, 0, &control), 0);
    EXPECT_EQ(control.entryFor(kTuningHint).count(), 1u);
    EXPECT_EQ(intAt(control, kTuningHint), 2);
    android::base::SetProperty(kPropTuning, "3");
    ASSERT_EQ(append(*u, 0, &control), 0);
    EXPECT_EQ(intAt(control, kTuningHint), 3);
    // Unsetting the switch adds nothing, and a merge never removes.
    android::base::SetProperty(kPropTuning, "");
    ASSERT_EQ(append(*u, 0, &control), 0);
    EXPECT_EQ(intAt(control, kTuningHint), 3);
    EXPECT_EQ(control.count(), 2u);
    EXPECT_EQ(control.entryAt(1).tag(), kTuningHint);
}

TEST_F(UpdaterTest, PipelineStageUnknownStageAndDestroyOnlyWarn) {
    // The device-stage switches must not act at any other stage.
    android::base::SetProperty(kPropTuning, "0");
    IMetadata control, result, hal;
    IMetadata::setEntry<uint8_t>(&control, kCaptureIntent, 1);
    auto u = IMetadataUpdater::create(infoFor(3));
    EXPECT_EQ(append(*u, 1, &control, &result, &hal), 0);
    EXPECT_EQ(append(*u, 2, &control, &result, &hal), -1);
    EXPECT_EQ(append(*u, -1, &control), -1);
    u->destroy();
    EXPECT_EQ(log.texts(), (Texts{"[3::appendMetaAtPipeline] Not Implement",
                                  "[3::appendCustomerMeta] Unknown append stage",
                                  "[3::appendCustomerMeta] Unknown append stage",
                                  "[3::destroy] Not Implement"}));
    expectAllAt(2);
    EXPECT_EQ(control.count(), 1u);
    EXPECT_TRUE(result.isEmpty() && hal.isEmpty());
    // Warnings need details level 2.
    log.reset();
    setLogging(0x2, 1, zorcam_test::kAllModules);
    append(*u, 1, &control, &result, &hal);
    append(*u, 2, &control);
    u->destroy();
    EXPECT_TRUE(log.lines().empty());
}

// A customer updater that replaces only the device hook.
class DeviceHookUpdater : public MetadataUpdater {
public:
    using MetadataUpdater::MetadataUpdater;
    int appendMetaAtDevice(const IMetadata*, IMetadata* append) override {
        IMetadata::setEntry<int32_t>(append, 0x10001, 42);
        append->update(kMfnrHint, entryOf<MPoint>(kMfnrHint, {{1, 2}, {3, 4}}));
        return 0;
    }
};

// One that replaces only the pipeline hook.
class PipelineHookUpdater : public MetadataUpdater {
public:
    using MetadataUpdater::MetadataUpdater;
    int appendMetaAtPipeline(const IMetadata*, const IMetadata*, const IMetadata*,
                             IMetadata* control, IMetadata* result, IMetadata* hal) override {
        IMetadata::setEntry<int32_t>(control, 0x10001, 1);
        IMetadata::setEntry<float>(result, 0x20001, 1.5f);
        IMetadata::setEntry<uint8_t>(hal, 0xC00B0001, 255);
        return 0;
    }
};

TEST_F(UpdaterTest, DerivedDeviceHookIsMergedAndLogged) {
    updaterDebugOn();
    android::base::SetProperty(kPropLevel, "1");
    android::base::SetProperty(kPropTuning, "0");  // the base hook is not called
    DeviceHookUpdater u(infoFor(3));
    IMetadata control;
    IMetadata::setEntry<int32_t>(&control, 0x10001, 7);
    IMetadata::setEntry<uint8_t>(&control, kCaptureIntent, 1);
    EXPECT_EQ(append(u, 0, &control), 0);
    // The replaced entry keeps its row; the new one is appended.
    ASSERT_EQ(control.count(), 3u);
    EXPECT_EQ(control.entryAt(0).tag(), 0x10001u);
    EXPECT_EQ(intAt(control, 0x10001), 42);
    EXPECT_EQ(control.entryAt(2).tag(), kMfnrHint);
    EXPECT_EQ(log.texts(), (Texts{"[3::appendCustomerMeta] + 0",
                                  "[3::appendCustomerMeta] appendAppControlMeta count=2",
                                  "[3::dumpMeta] 0x10001 => 42 ",
                                  "[3::dumpMeta] 0x80040000 => (1, 2) (3, 4) ",
                                  "[3::appendCustomerMeta] appControlMeta count=3",
                                  "[3::dumpMeta] 0x10001 => 42 ",
                                  "[3::dumpMeta] 0x1000d => 1 ",
                                  "[3::dumpMeta] 0x80040000 => (1, 2) (3, 4) ",
                                  "[3::appendCustomerMeta] -"}));
    expectAllAt(5);
}

TEST_F(UpdaterTest, DerivedPipelineHookMergesAllThreeInOrder) {
    updaterDebugOn();
    PipelineHookUpdater u(infoFor(8));
    IMetadata control, result, hal;
    IMetadata::setEntry<int32_t>(&control, 0x10001, 7);
    EXPECT_EQ(append(u, 1, &control, &result, &hal), 0);
    EXPECT_EQ(intAt(control, 0x10001), 1);
    EXPECT_EQ(control.count(), 1u);
    EXPECT_EQ(result.count(), 1u);
    EXPECT_EQ(hal.count(), 1u);
    // Debug level 0: the appended objects are dumped, the merged targets are not.
    EXPECT_EQ(log.texts(), (Texts{"[8::appendCustomerMeta] appendAppControlMeta count=1",
                                  "[8::dumpMeta] 0x10001 => 1 ",
                                  "[8::appendCustomerMeta] appendAppResultMeta count=1",
                                  "[8::dumpMeta] 0x20001 => 1.500000 ",
                                  "[8::appendCustomerMeta] appendHalMeta count=1",
                                  "[8::dumpMeta] 0xc00b0001 => 255 "}));
}

}  // namespace
}  // namespace NSCam
