#pragma once
// The metadata updater: the hook that appends customer entries to a request's metadata at
// the device stage and inside the pipeline, and getDumpFilenamePrefix, which names the
// per-request debug dump files.
//
// Thread safety: an updater holds no lock and changes no field after construction; calls
// may run concurrently on different metadata objects.
#include <zorcam/metadata/Export.h>
#include <zorcam/metadata/IMetadata.h>

#include <cstdint>
#include <memory>
#include <string>

namespace NSCam {

class ZORCAM_EXPORT IMetadataUpdater {
public:
    struct StaticInfo {
        int32_t id = 0;  // the camera this updater serves
    };

    enum EAppendStage : int32_t {
        APPEND_AT_DEVICE = 0,    // only app control metadata is offered
        APPEND_AT_PIPELINE = 1,  // app control, app result and HAL metadata are offered
    };

    static std::shared_ptr<IMetadataUpdater> create(const StaticInfo& info);

    virtual ~IMetadataUpdater() = default;
    // Runs the stage's hook on fresh, empty metadata and merges what it added into the
    // caller's. 0, or -1 for an unknown stage.
    virtual int appendCustomerMeta(const EAppendStage& stage, IMetadata* appControlMeta,
                                   IMetadata* appResultMeta, IMetadata* halMeta) = 0;
    virtual void destroy() = 0;
    virtual std::string getValueString(IMetadata::IEntry entry) = 0;
    virtual void dumpMeta(const IMetadata* metadata) = 0;
    virtual int appendMetaAtDevice(const IMetadata* appControlMeta,
                                   IMetadata* appendAppControlMeta) = 0;
    virtual int appendMetaAtPipeline(const IMetadata* appControlMeta,
                                     const IMetadata* appResultMeta, const IMetadata* halMeta,
                                     IMetadata* appendAppControlMeta,
                                     IMetadata* appendAppResultMeta, IMetadata* appendHalMeta) = 0;
};

class ZORCAM_EXPORT MetadataUpdater : public IMetadataUpdater {
public:
    explicit MetadataUpdater(const StaticInfo& info);
    ~MetadataUpdater() override;

    int appendCustomerMeta(const EAppendStage& stage, IMetadata* appControlMeta,
                           IMetadata* appResultMeta, IMetadata* halMeta) override;
    void destroy() override;
    std::string getValueString(IMetadata::IEntry entry) override;
    void dumpMeta(const IMetadata* metadata) override;
    int appendMetaAtDevice(const IMetadata* appControlMeta,
                           IMetadata* appendAppControlMeta) override;
    int appendMetaAtPipeline(const IMetadata* appControlMeta, const IMetadata* appResultMeta,
                             const IMetadata* halMeta, IMetadata* appendAppControlMeta,
                             IMetadata* appendAppResultMeta, IMetadata* appendHalMeta) override;

protected:
    int32_t mInfo;
    std::string mName;  // decimal text of the camera id; the first name of every log line
    int32_t mDebugLevel;
};

// Writes "/sdcard/camera_dump/" and the request's unique key, frame and request numbers
// into `buffer` (at most `size` bytes with the terminating zero) and returns `buffer`;
// returns "" and writes nothing when `buffer` or `frameMeta` is null or `size` is 0 or less.
// `otherMeta` is unused.
ZORCAM_EXPORT const char* getDumpFilenamePrefix(char* buffer, int size, const IMetadata* otherMeta,
                                                const IMetadata* frameMeta);

}  // namespace NSCam
