// The time of day at the cost of reading the processor's counter, for stamps of trace records: a
// third of what clock_gettime(2) takes.
#pragma once

#include <cstdint>

namespace Ringlog {

// Advances with the processor's counter for at most 10 ms after a reading of the system's clock, so
// a stamp follows a change of the system's clock after that time at the latest, and may be before
// an earlier one by the tenth of a microsecond. The rate of the counter is measured between
// readings. Where the kernel itself does not rely on the counter, or while readings are too far
// apart to measure it, each stamp is a reading.
//
// Used by one thread.
class WallClock {
  public:
    // Nanoseconds since 1970 (CLOCK_REALTIME).
    int64_t now() {
        const uint64_t ticks = counter() - ticks_;
        if (ticks >= validTicks_) [[unlikely]]
            return read();
        return time_ + static_cast<int64_t>(ticks * rate_ >> 32);
    }

  private:
    static uint64_t counter() {
#ifdef __x86_64__
        return __builtin_ia32_rdtsc();
#else
        return 0;
#endif
    }
    int64_t read();
    void measure(uint64_t ticks, int64_t elapsed);

    // Of the last reading from which the rate was measured.
    int64_t time_ = 0;
    int64_t uptime_ = 0;  // CLOCK_BOOTTIME: unlike the time of day it is not set
    uint64_t ticks_ = 0;
    uint64_t rate_ = 0;        // nanoseconds of a tick times 2^32
    uint64_t validTicks_ = 0;  // for which the time is computed; 0: not at all
};

}  // namespace Ringlog
