// A destroyed container used again ends the process, naming the operation and the object.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

namespace {

using NSCam::IMetadata;
const std::string kNumber = "[89a-f][0-9a-f]{7}";  // a validity number: its top bit is set

// A container constructed in place and destroyed explicitly; its memory stays readable.
class UseAfterDestructionDeathTest : public ::testing::Test {
protected:
    void SetUp() override {
        IMetadata::setEntry<int>(new (mMem) IMetadata, 0x00010000, 1);
        dead().~IMetadata();
    }
    IMetadata& dead() { return *std::launder(reinterpret_cast<IMetadata*>(mMem)); }
    alignas(IMetadata) unsigned char mMem[sizeof(IMetadata)];
};

TEST_F(UseAfterDestructionDeathTest, EveryCheckedOperationEndsTheProcessNamingItself) {
    const std::pair<std::string, std::function<void(IMetadata&)>> uses[] = {
        {"entryFor", [](IMetadata& m) { m.entryFor(0x00010000); }},
        {"update", [](IMetadata& m) { IMetadata::setEntry<int>(&m, 1, 2); }},
        {"count", [](IMetadata& m) { m.count(); }},
        {"getStorageSP", [](IMetadata& m) { IMetadata copy(m); }},
        {"~IMetadata", [](IMetadata& m) { m.~IMetadata(); }}};
    for (const auto& [func, use] : uses)
        EXPECT_DEATH(use(dead()), func + "\\([0-9]+\\):this " + ::testing::PrintToString(&dead()) +
                                      " object already be free! mValidNum invalid\\(0\\) "
                                      "mValidNumBackup\\(" +
                                      kNumber + "\\) \\(" + func +
                                      "\\)\\{#[0-9]+:utils/metadata/metadata/MetadataV2.cpp\\}");
}

TEST_F(UseAfterDestructionDeathTest, AssigningFromItEndsTheProcessNamingBoth) {
    IMetadata live;
    EXPECT_DEATH(live = dead(), "operator=\\([0-9]+\\):this\\(" + ::testing::PrintToString(&live) +
                                    "\\) or other\\(" + ::testing::PrintToString(&dead()) +
                                    "\\) already be free! mValidNum invalid\\(" + kNumber +
                                    "\\) mValidNumBackup\\(" + kNumber +
                                    "\\) other.mValidNum\\(0\\) " + "other.mValidNumBackup\\(" +
                                    kNumber + "\\)");
}

}  // namespace
