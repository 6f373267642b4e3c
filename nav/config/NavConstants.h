// The system-wide defaults and limits.
#pragma once

#include "nav/types/PathTypes.h"

namespace Nav {

struct NavConstants {
    static constexpr U16 defaultUdpPort = 4793;
    // One less than all ones, so that the default rule orders after every user rule.
    static constexpr U32 defaultRuleKey = 0xFFFFFFFE;
    static constexpr U32 defaultEncapId = noEncapId;
    static constexpr U32 defaultLatency = 0xFFFFFFFF;  // all ones: no constraint
    static constexpr U32 defaultJitter = 0xFFFFFFFF;
    static constexpr U32 defaultLossRate = 0;
    static constexpr U32 defaultPriority = 1;
    static constexpr U16 maxPathIndex = 128;
    static constexpr U16 maxLbIndex = 1023;
};

}  // namespace Nav
