#define LOG_TAG "Metadata2"
#define LOG_MODULE ::NSCam::diag::kMetadataModule

// The container's dump: every row as one debug line, nested containers one layer deeper.
#include <algorithm>
#include <mutex>

#include "BoundedText.h"
#include "Container.h"
#include "Diagnostics.h"
#include "ElementText.h"

namespace NSCam {

using Memory = IMetadata::Memory;

namespace {

// A dump line holds at most 511 characters; what does not fit is cut at the end, never
// wrapped onto a further line.
constexpr size_t kDumpLineSize = 512;

// Containers the dump of this thread is inside of (the top one not counted).
thread_local int tDumpDepth = 0;
struct DumpLevel {
    DumpLevel() { ++tDumpDepth; }
    ~DumpLevel() { --tDumpDepth; }
};

// The values of a row of a basic type, each by its type's dump form. The entry is the
// caller's own copy of the row: its values cannot change while they are read.
void appendBasicValues(BoundedText& line, const IEntry& entry, const TypeFacts& facts,
                       uint32_t count) {
    const auto* values = static_cast<const uint8_t*>(entry.data());
    if (values == nullptr) return;
    char text[kDumpLineSize];
    for (uint32_t j = 0; j < count; ++j) {
        formatElement(text, sizeof(text), facts.dumpForm, facts.code,
                      values + static_cast<size_t>(j) * static_cast<size_t>(facts.size));
        line.appendf("%s", text);
    }
}

// Each non-empty blob of a row: its index and size, then its first 64 bytes only, so that a
// row stays one line.
void appendBlobs(BoundedText& line, const IEntry& entry, uint32_t count) {
    for (uint32_t j = 0; j < count; ++j) {
        const Memory m = entry.itemAt(j, Type2Type<Memory>());
        size_t size = 0;
        const uint8_t* bytes = m.array(size);
        if (bytes == nullptr || size == 0) continue;
        line.appendf(kTypeFacts[TYPE_Memory].dumpForm, static_cast<int>(j), static_cast<int>(size));
        for (size_t b = 0; b < std::min<size_t>(size, 64); ++b) line.appendf("%02X ", bytes[b]);
    }
}

// Each nested container of a row is dumped one layer deeper after the row's line so far, as
// deep as a receiver would take them; a deeper one is said once, not dumped.
void dumpNested(BoundedText& line, const IEntry& entry, uint32_t count, int layer, bool force) {
    for (uint32_t j = 0; j < count; ++j) {
        const IMetadata nested = entry.itemAt(j, Type2Type<IMetadata>());
        if (line.appendf("%s", kTypeFacts[TYPE_IMetadata].dumpForm) < 0) continue;
        META_LOGD_AS("dump", "(L%d) %s", layer, line.c_str());
        if (tDumpDepth >= flat::kMaxNestingDepth) {
            META_LOGD_AS("dump", "(L%d) containers nested deeper than %d levels: not dumped",
                         layer + 1, flat::kMaxNestingDepth);
            continue;
        }
        const DumpLevel deeper;
        nested.dump(layer + 1, force);
    }
}

}  // namespace

void IMetadata::dump(int layer, bool force) const {
    if (mLogLevel == 0 && !force) return;
    // Every line is a debug line: with the container's debug lines off, nothing is read.
    if (!diag::debugOn(LOG_MODULE)) return;
    META_LOGD("layer %d", layer);
    {
        const MutexLock guard(mLock);
        if (!mStorage) {
            META_LOGD("IMetadata::dump mStorage == nullptr");
            return;
        }
    }
    META_LOGD("mStorage count %d", static_cast<int>(Core::lockedRowCount(*this)));
    // The row count is re-read before each row and no lock is held across rows.
    for (size_t i = 0; i < Core::lockedRowCount(*this); ++i) {
        const IEntry entry = entryAt(static_cast<uint32_t>(i));
        const int32_t type = entry.type();
        const uint32_t count = entry.count();
        char text[kDumpLineSize];
        BoundedText line(text, sizeof(text));
        if (line.appendf("[%s] Map(%zu/%zu) tag(0x%x) type(%d) count(%d) ", "dump", i,
                         static_cast<size_t>(Core::lockedRowCount(*this)), entry.tag(), type,
                         static_cast<int>(count)) < 0)
            continue;
        const TypeFacts* facts = typeFacts(type);
        if (facts == nullptr)
            line.appendf("unsupported type(%d)", type);
        else if (facts->basic)
            appendBasicValues(line, entry, *facts, count);
        else if (type == TYPE_IMetadata)
            dumpNested(line, entry, count, layer, force);
        else
            appendBlobs(line, entry, count);
        META_LOGD("(L%d) %s", layer, line.c_str());
    }
}

}  // namespace NSCam
