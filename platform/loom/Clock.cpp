#include "platform/loom/Clock.h"

namespace Loom {

Clock::~Clock() = default;

Instant MonotonicClock::now() const {
    return std::chrono::steady_clock::now();
}
Instant ManualClock::now() const {
    return now_;
}

}  // namespace Loom
