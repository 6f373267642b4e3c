// The paths that are dead by what is measured of them, for a forwarding agent, which must not use
// them.
#pragma once

#include <set>

#include "agent/router/PathQuality.h"
#include "platform/loom/TaskScheduler.h"

namespace Agent {

class DeadPaths {
  public:
    // `changed` is called when a path dies, or is no longer dead.
    DeadPaths(QualityStatus& quality, Loom::Callback changed)
        : quality_(quality),
          changed_(changed),
          measured_(Vel::Subscription::to<&DeadPaths::handleQuality>(
              quality, QualityStatus::pathQualityAttr, this)) {}

    bool has(Vel::U32 pathIndex) const {
        const PathQuality* quality = quality_->pathQuality(pathIndex);
        return quality && quality->state == PathLiveness::dead;
    }

  private:
    void handleQuality(const Vel::U32& pathIndex) {
        if (has(pathIndex) ? known_.insert(pathIndex).second : known_.erase(pathIndex) != 0)
            changed_();
    }

    const Vel::Ptr<QualityStatus> quality_;
    const Loom::Callback changed_;
    std::set<Vel::U32> known_;  // as last notified
    Vel::Subscription measured_;
};

}  // namespace Agent
