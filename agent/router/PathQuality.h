// What a platform has measured of its paths: one value per path index. The platform's measuring
// service writes it; the forwarding agent, the choice of members and the show commands read it and
// subscribe to `pathQualityAttr`, which notifies by path index. Used on the event thread.
//
// A path has a value while it is measured: the writer removes the value before the index goes to
// another path. A path without a value is one that is not checked and of which nothing is known.
#pragma once

#include <limits>

#include "platform/vel/Entity.h"

namespace Agent {

// notChecked: nothing beyond the next hop has ever answered, or the path is not probed.
enum class PathLiveness : Vel::U32 { notChecked, alive, dead };
VEL_ENUM(PathLiveness, notChecked, alive, dead)

struct PathQuality {
    // A figure that has not been measured. It compares as false with anything, so an unknown figure
    // never violates a limit.
    static constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

    PathLiveness state = PathLiveness::notChecked;
    Vel::U32 samples = 0;     // packets of the window that the figures are from
    double rttMin = unknown;  // round trip, ms
    double rttMean = unknown;
    double rttP95 = unknown;       // 95th percentile
    double lossForward = unknown;  // percent, towards the path's destination
    double lossBackward = unknown;
    double jitter = unknown;  // mean difference of successive round trips, ms
};
VEL_VALUE(Agent, PathQuality, state, samples, rttMin, rttMean, rttP95, lossForward, lossBackward,
          jitter)

class QualityStatus : public Vel::Entity {
    VEL_ENTITY(QualityStatus, Vel::Name, name)
    VEL_MAP(Vel::U32, PathQuality, pathQuality)  // by path index
};

}  // namespace Agent
