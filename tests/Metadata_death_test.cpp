// A destroyed container used again ends the process, naming the operation, the object and
// its validity numbers.
#include <zorcam/metadata/IMetadata.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <new>
#include <string>

namespace NSCam {
struct MetadataInspector {
    static uint32_t backup(const IMetadata& m) { return m.mValidNumBackup; }
    static uint32_t validNum(const IMetadata& m) { return m.mValidNum; }
};
}  // namespace NSCam

namespace {

using NSCam::IMetadata;
using NSCam::MetadataInspector;

std::string hex(uint32_t v) {
    char t[16];
    std::snprintf(t, sizeof t, "%x", v);
    return t;
}
std::string ptr(const void* p) {
    char t[32];
    std::snprintf(t, sizeof t, "%p", p);
    return t;
}

// A container constructed in place and destroyed explicitly, so that its fields stay readable.
class Destroyed {
public:
    Destroyed() {
        IMetadata* m = new (mMem) IMetadata;
        IMetadata::setEntry<int>(m, 0x00010000, 1);
        m->~IMetadata();
    }
    IMetadata& get() { return *std::launder(reinterpret_cast<IMetadata*>(mMem)); }
    // "func(line):this %p object already be free! ..." in its located form.
    std::string message(const std::string& func) {
        return func + "\\([0-9]+\\):this " + ptr(&get()) +
               " object already be free! mValidNum invalid\\(0\\) mValidNumBackup\\(" +
               hex(MetadataInspector::backup(get())) + "\\) \\(" + func +
               "\\)\\{#[0-9]+:" + "utils/metadata/metadata/MetadataV2.cpp\\}";
    }

private:
    alignas(IMetadata) unsigned char mMem[sizeof(IMetadata)];
};

struct UseCase {
    const char* name;
    const char* func;  // the operation the message names
    std::function<void(IMetadata&)> use;
};

class UseAfterDestructionDeathTest : public ::testing::TestWithParam<UseCase> {};

TEST_P(UseAfterDestructionDeathTest, EndsTheProcessNamingTheOperation) {
    Destroyed d;
    ASSERT_EQ(MetadataInspector::validNum(d.get()), 0u);
    EXPECT_DEATH(GetParam().use(d.get()), d.message(GetParam().func));
}

IMetadata oneRow() {
    IMetadata m;
    IMetadata::setEntry<int>(&m, 0x00020000, 2);
    return m;
}

INSTANTIATE_TEST_SUITE_P(
    Operations, UseAfterDestructionDeathTest,
    ::testing::Values(
        UseCase{"entryFor", "entryFor", [](IMetadata& m) { m.entryFor(0x00010000); }},
        UseCase{"takeEntryFor", "entryFor", [](IMetadata& m) { m.takeEntryFor(0x00010000); }},
        UseCase{"update", "update", [](IMetadata& m) { IMetadata::setEntry<int>(&m, 1, 2); }},
        UseCase{"count", "count", [](IMetadata& m) { m.count(); }},
        UseCase{"remove", "remove", [](IMetadata& m) { m.remove(0x00010000); }},
        UseCase{"entryAt", "entryAt", [](IMetadata& m) { m.entryAt(0); }},
        UseCase{"flatten", "flatten",
                [](IMetadata& m) {
                    char b[8];
                    m.flatten(b, sizeof b);
                }},
        UseCase{"copyFrom", "getStorageSP", [](IMetadata& m) { IMetadata copy(m); }},
        UseCase{"mergeFrom", "getStorageSP",
                [](IMetadata& m) {
                    IMetadata live;
                    live += m;
                }},
        UseCase{"mergeInto", "operator\\+=", [](IMetadata& m) { m += oneRow(); }},
        UseCase{"destroyAgain", "~IMetadata", [](IMetadata& m) { m.~IMetadata(); }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MetadataAssignDeathTest, AssigningFromOrToADestroyedContainerEndsTheProcess) {
    Destroyed d;
    IMetadata live;
    const std::string liveNum = hex(MetadataInspector::validNum(live));
    const std::string dead = hex(MetadataInspector::backup(d.get()));
    EXPECT_DEATH(live = d.get(), "operator=\\([0-9]+\\):this\\(" + ptr(&live) + "\\) or other\\(" +
                                     ptr(&d.get()) + "\\) already be free! mValidNum invalid\\(" +
                                     liveNum + "\\) mValidNumBackup\\(" + liveNum +
                                     "\\) other.mValidNum\\(0\\) "
                                     "other.mValidNumBackup\\(" +
                                     dead + "\\)");
    EXPECT_DEATH(d.get() = live,
                 "operator=\\([0-9]+\\):this\\(" + ptr(&d.get()) + "\\) or other\\(" + ptr(&live) +
                     "\\) already be free! mValidNum invalid\\(0\\) mValidNumBackup\\(" + dead +
                     "\\) other.mValidNum\\(" + liveNum + "\\) other.mValidNumBackup\\(" + liveNum +
                     "\\)");
}

}  // namespace
