// MetadataUpdater: appends customer entries to a request's metadata at the device stage and
// inside the pipeline, and logs what it merged. Every append goes through a fresh, empty
// container that the hook fills; the result is merged into the caller's metadata, so a hook
// can add or replace whole entries but never remove one.
#define LOG_TAG "zorcam-MetaUpdater"
#define LOG_MODULE ::NSCam::diag::kUpdaterModule

#include <zorcam/metadata/IMetadataUpdater.h>
#include <zorcam/platform/Properties.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "ElementText.h"

// The updater's lines carry "[name::function] " instead of the container's "func(line):",
// so that the lines of several cameras can be told apart. Both test the logger's level and
// mask before anything (including the arguments) is evaluated.
#define UPD_LOGD(fmt, ...)                                                                 \
    do {                                                                                   \
        if (::NSCam::diag::debugOn(LOG_MODULE))                                            \
            ::NSCam::diag::debug(META_LOG_SITE_, "[%s::%s] " fmt, mName.c_str(), __func__, \
                                 ##__VA_ARGS__);                                           \
    } while (0)
#define UPD_LOGW(fmt, ...)                                                                   \
    do {                                                                                     \
        if (::NSCam::diag::warningOn())                                                      \
            ::NSCam::diag::warning(META_LOG_SITE_, "[%s::%s] " fmt, mName.c_str(), __func__, \
                                   ##__VA_ARGS__);                                           \
    } while (0)

namespace NSCam {
namespace {

// Debug switches, read through the platform's property reader.
constexpr char kPropDebugLevel[] = "vendor.camera.debug.metaUpdater";
constexpr char kPropAppendMfnr[] = "vendor.camera.debug.metaUpdater.appendMFNR";
constexpr char kPropCustomTuningHint[] = "vendor.camera.debug.metaUpdater.setHintForCustomTuning";

// Android's capture-intent control (a byte); 1 is a still capture.
constexpr uint32_t kTagControlCaptureIntent = 0x1000D;
constexpr uint8_t kCaptureIntentStillCapture = 1;
// Vendor hints read by the rest of the camera stack.
constexpr uint32_t kTagMfnrRequestHint = 0x80040000;
constexpr uint32_t kTagCustomTuningHint = 0x800B0011;
constexpr int32_t kNoCustomTuningHint = -1;

}  // namespace

std::shared_ptr<IMetadataUpdater> IMetadataUpdater::create(const StaticInfo& info) {
    return std::make_shared<MetadataUpdater>(info);
}

MetadataUpdater::MetadataUpdater(const StaticInfo& info)
    : mInfo(info.id),
      mName(std::to_string(info.id)),
      // Read once: the level of an updater does not change while it serves a camera.
      mDebugLevel(Utils::Properties::property_get_int32(kPropDebugLevel, 0)) {}

MetadataUpdater::~MetadataUpdater() {
    UPD_LOGD("dtor");
}

int MetadataUpdater::appendCustomerMeta(const EAppendStage& stage, IMetadata* appControlMeta,
                                        IMetadata* appResultMeta, IMetadata* halMeta) {
    const int32_t stageValue = static_cast<int32_t>(stage);
    if (mDebugLevel >= 1) UPD_LOGD("+ %d", stageValue);

    // The hooks fill fresh containers; only what they added is merged below.
    auto appendAppControlMeta = std::make_shared<IMetadata>();
    auto appendAppResultMeta = std::make_shared<IMetadata>();
    auto appendHalMeta = std::make_shared<IMetadata>();

    switch (stageValue) {
        case APPEND_AT_DEVICE:
            appendMetaAtDevice(appControlMeta, appendAppControlMeta.get());
            break;
        case APPEND_AT_PIPELINE:
            appendMetaAtPipeline(appControlMeta, appResultMeta, halMeta, appendAppControlMeta.get(),
                                 appendAppResultMeta.get(), appendHalMeta.get());
            break;
        default:
            UPD_LOGW("Unknown append stage");
            return -1;
    }

    struct Merge {
        const IMetadata* appended;
        IMetadata* target;
        const char* appendedName;
        const char* targetName;
    };
    // At the device stage the result and HAL containers stay empty, so their targets (which
    // callers may pass as null there) are never touched. A target whose hook added entries
    // must be valid.
    const Merge merges[] = {
        {appendAppControlMeta.get(), appControlMeta, "appendAppControlMeta", "appControlMeta"},
        {appendAppResultMeta.get(), appResultMeta, "appendAppResultMeta", "appResultMeta"},
        {appendHalMeta.get(), halMeta, "appendHalMeta", "halMeta"},
    };
    for (const Merge& m : merges) {
        const uint32_t appendedCount = m.appended->count();
        if (appendedCount == 0) continue;
        UPD_LOGD("%s count=%d", m.appendedName, static_cast<int>(appendedCount));
        dumpMeta(m.appended);
        *m.target += *m.appended;
        if (mDebugLevel >= 1) {
            UPD_LOGD("%s count=%d", m.targetName, static_cast<int>(m.target->count()));
            dumpMeta(m.target);
        }
    }

    if (mDebugLevel >= 1) UPD_LOGD("-");
    return 0;
}

void MetadataUpdater::destroy() {
    UPD_LOGW("Not Implement");
}

int MetadataUpdater::appendMetaAtDevice(const IMetadata* appControlMeta,
                                        IMetadata* appendAppControlMeta) {
    // Both switches are read on every request so that a developer can flip them on a
    // running camera.
    if (Utils::Properties::property_get_int32(kPropAppendMfnr, 0) != 0) {
        uint8_t intent = kCaptureIntentStillCapture;
        if (IMetadata::getEntry<uint8_t>(appControlMeta, kTagControlCaptureIntent, intent, 0) &&
            intent == kCaptureIntentStillCapture) {
            IMetadata::setEntry<int32_t>(appendAppControlMeta, kTagMfnrRequestHint, 1);
        }
    }
    // 0 is a real hint value; only -1 (the default) leaves the tag alone.
    const int32_t tuningHint =
        Utils::Properties::property_get_int32(kPropCustomTuningHint, kNoCustomTuningHint);
    if (tuningHint != kNoCustomTuningHint) {
        IMetadata::setEntry<int32_t>(appendAppControlMeta, kTagCustomTuningHint, tuningHint);
    }
    return 0;
}

int MetadataUpdater::appendMetaAtPipeline(const IMetadata* /*appControlMeta*/,
                                          const IMetadata* /*appResultMeta*/,
                                          const IMetadata* /*halMeta*/,
                                          IMetadata* /*appendAppControlMeta*/,
                                          IMetadata* /*appendAppResultMeta*/,
                                          IMetadata* /*appendHalMeta*/) {
    // A customer build overrides this hook; the base updater adds nothing here.
    UPD_LOGW("Not Implement");
    return 0;
}

std::string MetadataUpdater::getValueString(IMetadata::IEntry entry) {
    const TypeFacts* facts = typeFacts(entry.type());
    const uint32_t count = entry.count();
    // Blobs, nested containers and entries without a type have no text.
    if (facts == nullptr || !facts->basic || count == 0) return std::string();
    // The entry is this call's own copy: its values cannot change while they are read.
    const auto* values = static_cast<const uint8_t*>(entry.data());
    if (values == nullptr) return std::string();
    std::string out;
    std::vector<char> text(64);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* value = values + static_cast<size_t>(i) * static_cast<size_t>(facts->size);
        int n = formatElement(text.data(), text.size(), facts->textForm, facts->code, value);
        if (n >= static_cast<int>(text.size())) {  // a huge double: "%f" writes every digit
            text.resize(static_cast<size_t>(n) + 1);
            n = formatElement(text.data(), text.size(), facts->textForm, facts->code, value);
        }
        if (n > 0) out.append(text.data(), static_cast<size_t>(n));
    }
    return out;
}

void MetadataUpdater::dumpMeta(const IMetadata* metadata) {
    // Every line of the dump is a debug line: when they are off, skip the walk (and the
    // container's lock per entry) altogether.
    if (!diag::debugOn(LOG_MODULE)) return;
    if (metadata->count() == 0) return;
    // The count is re-read per entry, so a container that shrinks under us ends the walk
    // instead of reading past its rows.
    for (uint32_t i = 0; i < metadata->count(); ++i) {
        const IMetadata::IEntry entry = metadata->entryAt(i);
        UPD_LOGD("%#x => %s", entry.tag(), getValueString(entry).c_str());
    }
}

}  // namespace NSCam
