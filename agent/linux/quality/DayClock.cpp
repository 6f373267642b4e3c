#include "agent/linux/quality/DayClock.h"

#include <time.h>

namespace Agent::Linux {

namespace {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

// A clock that is adjusted changes its speed by 500 ppm at most (adjtimex(2)).
nanoseconds adjustment(nanoseconds passed) {
    return 1ms + passed / 1000;
}

nanoseconds read(clockid_t clock) {
    timespec time;
    clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

}  // namespace

nanoseconds DayClock::now() {
    return read(CLOCK_REALTIME);
}

void DayClock::compare() {
    nanoseconds ahead{}, at{}, best = nanoseconds::max();
    // A process that is interrupted between the readings reads again.
    for (int attempt = 0; attempt < 5 && best > 10us; ++attempt) {
        const nanoseconds before = read(CLOCK_MONOTONIC);
        const nanoseconds day = now();
        const nanoseconds took = read(CLOCK_MONOTONIC) - before;
        if (took < best) best = took, at = before, ahead = day - before - took / 2;
    }
    wasSet_ = std::chrono::abs(ahead - ahead_) > adjustment(at - comparedAt_);
    ahead_ = ahead;
    comparedAt_ = at;
}

}  // namespace Agent::Linux
