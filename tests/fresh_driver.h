// The driver as right after loading, wired to a zeroed settings record with
// the defaults of a single-station panel. Shared by the unit tests, the fuzz
// targets and the benchmarks, so that all of them start from the same state.
#ifndef ABCL_TESTS_FRESH_DRIVER_H
#define ABCL_TESTS_FRESH_DRIVER_H

#include "ab_controllogix_compactlogix.h"
#include "ab_controllogix_compactlogix_p.h"

#include <cstdint>
#include <cstring>

// The transaction number starts at random after loading; runs start from a
// fixed one (not DLE) so that frames and reply lengths repeat.
constexpr uint8_t kFirstTns = 0x21;

// A zeroed settings record with a single-station panel's defaults.
inline void DefaultSettings(ComInfo& info, int maxCount = 32) {
    std::memset(&info, 0, sizeof info);
    info.maxCount = maxCount;
    info.defaultStation = 1;
    info.retryLimit = 2;
    info.localLinkNo = 0;
    info.writeMode = 2;
}

inline void WireFreshDriver(ComInfo& info, int maxCount = 32) {
    ResetDriverForTest();
    DefaultSettings(info, maxCount);
    SetComInfo(&info);
    PLC_driver.tns = kFirstTns;
}

#endif
