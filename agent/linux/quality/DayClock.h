// The clock of the time of day, which kernel stamps and packets are in, against the monotonic one,
// which decides. Somebody may set it at any time: stamps from around such a moment are not used.
#pragma once

#include <chrono>
#include <optional>

#include "platform/loom/Clock.h"

namespace Agent::Linux {

class DayClock {
  public:
    // Since the Unix epoch.
    static std::chrono::nanoseconds now();

    // Compares the clocks. Called before stamps since the last call are converted.
    void compare();
    // Empty if the clock was set between the last two comparisons.
    std::optional<Loom::Instant> instant(std::chrono::nanoseconds sinceEpoch) const {
        if (wasSet_) return {};
        return Loom::Instant(sinceEpoch - ahead_);
    }

  private:
    Loom::Duration ahead_{};       // of the monotonic clock
    Loom::Duration comparedAt_{};  // by the monotonic clock
    bool wasSet_ = true;
};

}  // namespace Agent::Linux
