#include "platform/trace/Ringlog.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

namespace Ringlog {
namespace {

alignas(64) uint8_t memory[capacity + maxRecord];

int64_t nanoseconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

struct Anchor {
    uint64_t stamp = ticks();
    int64_t monotonic = nanoseconds(CLOCK_MONOTONIC);
};

// Taken when the library is loaded, before anything can be traced. Every stamp lies between this
// and the time of reading, so interpolation is as exact as the two anchors and the rate is never
// needed.
const Anchor loaded;

// Turns stamps into wall-clock time as the wall clock is now, whatever steps it has made.
class WallClock {
  public:
    int64_t nanosecondsAt(uint64_t stamp) const {
        const double share = static_cast<double>(static_cast<int64_t>(stamp - loaded.stamp)) /
                             static_cast<double>(std::max<uint64_t>(now_.stamp - loaded.stamp, 1));
        const auto elapsed = static_cast<double>(now_.monotonic - loaded.monotonic);
        return loaded.monotonic + static_cast<int64_t>(share * elapsed) + wallMinusMonotonic_;
    }

  private:
    Anchor now_;
    int64_t wallMinusMonotonic_ = nanoseconds(CLOCK_REALTIME) - now_.monotonic;
};

void appendTime(int64_t wall, std::string& out) {
    const time_t seconds = wall / 1000000000;
    tm local;
    localtime_r(&seconds, &local);
    char text[40];
    out.append(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S.", &local));
    const auto micros = static_cast<unsigned>(wall / 1000 % 1000000);
    char* end = std::to_chars(text, std::end(text), micros + 1000000).ptr;
    out.append(text + 1, end);
}

Header headerAt(uint64_t position) {
    Header header{};
    std::memcpy(&header, memory + position % capacity, sizeof(Header));
    return header;
}

Line lineAt(uint64_t position, const WallClock& clock) {
    const Header header = headerAt(position);
    Line result;
    appendTime(clock.nanosecondsAt(header.stamp), result.line);
    result.line += ' ';
    result.line += header.site->facility.name();
    result.line += ':';
    result.line += std::to_string(header.site->level);
    result.line += ' ';
    result.textOffset = result.line.size();
    header.site->render(*header.site, memory + position % capacity + sizeof(Header), result.line);
    return result;
}

// Positions of the newest `count` records, oldest first.
std::vector<uint64_t> positions(size_t count) {
    std::vector<uint64_t> result;
    uint64_t at = state.head;
    size_t size = state.lastSize;
    while (size && result.size() < count && state.head - (at - size) <= capacity) {
        result.push_back(at -= size);
        size = headerAt(at).previousSize;
    }
    std::reverse(result.begin(), result.end());
    return result;
}

}  // namespace

constinit State state{.memory = memory};

std::vector<std::string> last(size_t count) {
    const WallClock clock;
    std::vector<std::string> result;
    for (const uint64_t at : positions(count)) result.push_back(lineAt(at, clock).line);
    return result;
}

Line newest() {
    return lineAt(state.head - state.lastSize, WallClock());
}

void dump(int fd) {
    const WallClock clock;
    for (const uint64_t at : positions(capacity)) {
        const Site& site = *headerAt(at).site;
        const std::string_view file = site.file;
        std::string line = lineAt(at, clock).line + " (";
        line += file.substr(file.rfind('/') + 1);
        line += ':' + std::to_string(site.line) + ")\n";
        for (size_t done = 0; done < line.size();) {
            const ssize_t written = write(fd, line.data() + done, line.size() - done);
            if (written <= 0) return;  // nobody to tell
            done += static_cast<size_t>(written);
        }
    }
}

}  // namespace Ringlog
