#include "platform/trace/WallClock.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <string_view>

namespace Ringlog {
namespace {

constexpr int64_t second = 1'000'000'000;
constexpr int64_t validFor = second / 100;
constexpr int64_t shortest = second / 100;  // between readings from which the rate is measured
constexpr int64_t atOnce = 2000;            // from the first to the last clock of a reading

int64_t timeOf(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * second + now.tv_nsec;
}

// Whether the kernel takes the counter for constant and equal on all processors.
bool isReliable() {
    const int fd = ::open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                          O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char name[16];
    const ssize_t size = ::read(fd, name, sizeof name);
    ::close(fd);
    return size > 0 && std::string_view(name, static_cast<size_t>(size)) == "tsc\n";
}

}  // namespace

int64_t WallClock::read() {
    const int64_t uptime = timeOf(CLOCK_BOOTTIME);
    const uint64_t ticks = counter();
    const int64_t time = timeOf(CLOCK_REALTIME);
    if (uptime - uptime_ < shortest) return time;
    if (timeOf(CLOCK_BOOTTIME) - uptime > atOnce) return time;  // interrupted between the readings
    measure(ticks - ticks_, uptime - uptime_);
    time_ = time;
    uptime_ = uptime;
    ticks_ = ticks;
    return time;
}

// A rate is believed if the counter runs at 0.1 to 10 GHz: it may have been reset or stood still
// while the machine was suspended.
void WallClock::measure(uint64_t ticks, int64_t elapsed) {
    static const bool reliable = isReliable();
    if (!reliable || elapsed > second) return;
    const auto nanoseconds = static_cast<uint64_t>(elapsed);
    if (ticks < nanoseconds / 10 || ticks > nanoseconds * 10) return;
    rate_ = (nanoseconds << 32) / ticks;
    validTicks_ = static_cast<uint64_t>(validFor) * ticks / nanoseconds;
}

}  // namespace Ringlog
