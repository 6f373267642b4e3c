// What is measured of the paths, for operators: the figures of now, and those of the last minutes.
// Owned by the Host of a platform that measures; used on the event thread.
#pragma once

#include <deque>
#include <map>

#include "agent/base/Json.h"
#include "agent/router/PathQuality.h"
#include "nav/root/NavInputs.h"

namespace Agent {

class QualityReport {
  public:
    // Of each path's figures one in each `step` is remembered, and at most `maxSamples`.
    static constexpr Loom::Duration step = std::chrono::seconds(1);
    static constexpr size_t maxSamples = 600;

    QualityReport(const Nav::NavInputs& inputs, QualityStatus& quality);

    // A row for each path: `path` ("Path3"), `source`, `destination`, `vrf`, `programmed`, `alive`
    // (null: not checked), `rttMs`, `rttMinMs`, `rttP95Ms`, `jitterMs`, `lossForward`,
    // `lossBackward` (percent), `samples`. A figure that is not known is null.
    Json paths() const;
    // The last minutes of a path, by the name that a row has: `path`, `stepMs`, and arrays `rttMs`,
    // `jitterMs`, `lossForward` and `lossBackward`, the newest value last. Throws Vel::Error if no
    // such path is measured.
    Json history(const std::string& path) const;

  private:
    struct Sample {
        float rtt, jitter, lossForward, lossBackward;  // as those of PathQuality
    };

    void handleQuality(const Vel::U32& pathIndex);
    void sample();

    const Nav::NavInputs in_;
    const Vel::Ptr<QualityStatus> quality_;
    // By path index, those with a quality; the newest sample is the last.
    std::map<Vel::U32, std::deque<Sample>> history_;
    Loom::Timer timer_;  // armed while a path is measured
    Vel::Subscription measured_;
};

}  // namespace Agent
