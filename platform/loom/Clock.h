// The source of time. Code that waits is given its clock, so that a test can set the time.
#pragma once

#include <chrono>

#include "platform/Export.h"

namespace Loom {

using Duration = std::chrono::nanoseconds;
// A point in time of a clock that never goes back, relative to an arbitrary origin.
using Instant = std::chrono::time_point<std::chrono::steady_clock, Duration>;

class VEL_EXPORT Clock {
  public:
    virtual ~Clock();
    virtual Instant now() const = 0;
};

// The system's monotonic clock.
class VEL_EXPORT MonotonicClock final : public Clock {
  public:
    Instant now() const override;
};

// A clock that stands still until it is advanced; it begins at Instant{}.
class VEL_EXPORT ManualClock final : public Clock {
  public:
    Instant now() const override;
    void advance(Duration by) { now_ += by; }

  private:
    Instant now_{};
};

}  // namespace Loom
