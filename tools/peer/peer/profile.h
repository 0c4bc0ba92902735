// The one profile the simulators, the host tools and the tests share: the
// controller's default data files, the tags that change by themselves, the
// tags a host shows when none are named, and the addresses the end-to-end
// tests arm faults on. Changing a file or a live tag here changes it for
// every side at once.
#ifndef PEER_PROFILE_H
#define PEER_PROFILE_H

#include <cstddef>

namespace peer {
namespace profile {

// One data file of the default layout: its letter ('B' bits, 'N' integers,
// 'F' REALs), number and element count.
struct FileSpec {
    char letter;
    int file;
    std::size_t elements;
};
constexpr FileSpec kDefaultFiles[] = {
    {'B', 3, 256}, {'N', 7, 256}, {'F', 8, 256}, {'F', 9, 256}, {'N', 10, 256},
};

// Live tags: a seconds counter, a word whose bit 0 toggles every 500 ms,
// and a REAL ramp from 0.0 to 99.99 over 10 s.
constexpr char kCounterLetter = 'N';
constexpr int kCounterFile = 10;
constexpr std::size_t kCounterElement = 0;
constexpr char kToggleLetter = 'N';
constexpr int kToggleFile = 10;
constexpr std::size_t kToggleElement = 1;
constexpr int kRampFile = 9;
constexpr std::size_t kRampElement = 0;

// What a host shows when it is given no tags: the live tags and a few
// words of N7, in hostsim's address syntax.
constexpr const char* kDefaultHostTags[] = {"N10:0", "N10:1/0", "F9:0", "N7:0 x4"};

// A scratch word the end-to-end rig writes to move the driver's first
// transaction number past its random start; tests leave it alone.
constexpr char kScratchLetter = 'N';
constexpr int kScratchFile = 7;
constexpr int kScratchElement = 255;

}  // namespace profile
}  // namespace peer

#endif
