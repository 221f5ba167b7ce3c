#pragma once
// The fixed slot map: every tag the camera stack knows has one slot in an array of 1,610 row
// numbers. A tag reads as group (bits 31..28), section (27..16) and index (15..0); every known
// section owns a run of slots.
#include <cstdint>

namespace NSCam {
namespace slotmap {

constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr uint32_t kSlotCount = 1610;
constexpr uint32_t kSectionEntries = 358;

// First section-table entry of each group. Groups 1 to 8 share one base on purpose, and so
// share their slots (0x10010000 and 0x80010000 address one row); so do 10-12 and 13-15.
constexpr uint32_t kGroupBase[16] = {0,  36, 36,  36,  36,  36,  36,  36,
                                     36, 68, 329, 329, 329, 350, 350, 350};
// Sections that exist in each group's range of the section table.
constexpr uint32_t kGroupSections[16] = {36, 32,  32, 32, 32, 32, 32, 32,
                                         32, 261, 21, 21, 21, 8,  8,  8};

struct SectionTable {
    uint32_t start[kSectionEntries];  // first slot, kNone when the section does not exist
    uint32_t slots[kSectionEntries];  // slots owned: distance to the next-higher start
};

constexpr SectionTable makeSectionTable() {
    SectionTable t{};
    for (uint32_t i = 0; i < kSectionEntries; ++i) t.start[i] = kNone;
    constexpr uint32_t group0[36] = {0,   5,   64,  65,  68,  74,  78,  80,  90,    106, 114, 117,
                                     122, 144, 183, 217, 240, 243, 268, 277, 285,   287, 291, 292,
                                     294, 296, 311, 314, 316, 322, 324, 325, kNone, 326, 463, 174};
    constexpr uint32_t group1to8[32] = {332, 356, 395, 358, 405, 413, 415, 374, 379, 467, 488,
                                        505, 551, 554, 559, 567, 579, 580, 583, 588, 573, 598,
                                        603, 614, 620, 622, 629, 630, 632, 625, 639, 647};
    constexpr uint32_t group10to12[21] = {779,  800,  830,  842,  944,  kNone, 945,
                                          953,  1000, 1006, 1009, 1014, 1024,  1029,
                                          1030, 1038, 1039, 1041, 1081, 1083,  1109};
    constexpr uint32_t group13to15[8] = {649, 713, 720, 755, 761, 763, 769, 778};
    for (uint32_t i = 0; i < 36; ++i) t.start[0 + i] = group0[i];
    for (uint32_t i = 0; i < 32; ++i) t.start[36 + i] = group1to8[i];
    t.start[68 + 0x000] = 1147;
    t.start[68 + 0x001] = 1149;
    t.start[68 + 0x002] = 1150;
    t.start[68 + 0x100] = 1151;
    t.start[68 + 0x101] = 1407;
    t.start[68 + 0x102] = 1591;
    t.start[68 + 0x104] = 1608;
    for (uint32_t i = 0; i < 21; ++i) t.start[329 + i] = group10to12[i];
    for (uint32_t i = 0; i < 8; ++i) t.start[350 + i] = group13to15[i];
    // The starts are not in section order: each section owns the slots from its start up
    // to the next-higher start of any section.
    for (uint32_t i = 0; i < kSectionEntries; ++i) {
        t.slots[i] = 0;
        if (t.start[i] == kNone) continue;
        uint32_t next = kSlotCount;
        for (uint32_t j = 0; j < kSectionEntries; ++j)
            if (t.start[j] != kNone && t.start[j] > t.start[i] && t.start[j] < next)
                next = t.start[j];
        t.slots[i] = next - t.start[i];
    }
    return t;
}

inline constexpr SectionTable kSections = makeSectionTable();

// The two tables a lookup reads, each entry in one word: a group's base and section count, and
// a section's first slot and slot count (the slot count is 0 for a section that does not
// exist, so that every index falls outside it).
struct Group {
    uint16_t base;
    uint16_t sections;
};
struct Section {
    uint16_t start;
    uint16_t slots;
};
constexpr auto kGroups = [] {
    struct Groups {
        Group g[16];
    } t{};
    for (uint32_t i = 0; i < 16; ++i)
        t.g[i] = Group{static_cast<uint16_t>(kGroupBase[i]),
                       static_cast<uint16_t>(kGroupSections[i])};
    return t;
}();
constexpr auto kSectionSlots = [] {
    struct Sections {
        Section s[kSectionEntries];
    } t{};
    for (uint32_t i = 0; i < kSectionEntries; ++i)
        t.s[i] = kSections.start[i] == kNone
                     ? Section{0, 0}
                     : Section{static_cast<uint16_t>(kSections.start[i]),
                               static_cast<uint16_t>(kSections.slots[i])};
    return t;
}();

// The slot of a tag, or kNone for a tag outside the map.
constexpr uint32_t slotOf(uint32_t tag) {
    const Group g = kGroups.g[tag >> 28];
    const uint32_t section = (tag >> 16) & 0xFFF;
    const uint32_t index = tag & 0xFFFF;
    if (section >= g.sections) return kNone;
    const Section s = kSectionSlots.s[g.base + section];
    return index < s.slots ? s.start + index : kNone;
}

static_assert(slotOf(0x00000000) == 0 && slotOf(0x00230000) == 174, "section 0x23 of group 0");
static_assert(slotOf(0x10010000) == slotOf(0x80010000), "groups 1 to 8 share their slots");
static_assert(slotOf(0x00040005) == 73 && slotOf(0x00040006) == kNone,
              "a tag past its section's slots must not alias the next section");
static_assert(slotOf(0x91040001) == 1609 && slotOf(0x91040002) == kNone, "the last slots");

}  // namespace slotmap
}  // namespace NSCam
