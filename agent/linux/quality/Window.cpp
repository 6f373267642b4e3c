#include "agent/linux/quality/Window.h"

#include <algorithm>

namespace Agent::Linux {

namespace {

// A reflector that has started again counts from 0: its numbers fall further than any reordering.
constexpr int32_t restart = -64;

double milliseconds(double nanoseconds) {
    return nanoseconds / 1e6;
}

double percent(uint32_t part, uint32_t whole) {
    return whole == 0 ? PathQuality::unknown : 100.0 * part / whole;
}

}  // namespace

Window::Window(size_t probes)
    : share_((probes + maxCells - 1) / maxCells), cells_((probes + share_ - 1) / share_) {}

// The cell of the next probe, which is counted.
Window::Cell& Window::next() {
    if (used_ == 0 || cells_[newest_].probes == share_) {
        newest_ = used_ == 0 ? 0 : (newest_ + 1) % cells_.size();
        Cell& oldest = cells_[newest_];
        sum_.probes -= oldest.probes;
        sum_.answers -= oldest.answers;
        sum_.backward -= oldest.backward;
        sum_.undecided -= oldest.undecided;
        sum_.steps -= oldest.steps;
        sum_.roundTrips -= oldest.roundTrips;
        sum_.deviation -= oldest.deviation;
        oldest = {};
        used_ = std::min(used_ + 1, cells_.size());
    }
    ++cells_[newest_].probes;
    ++sum_.probes;
    return cells_[newest_];
}

// The answer to the probe behind the undecided ones tells what became of these.
void Window::decide(uint32_t sequence) {
    const auto ahead = static_cast<int32_t>(sequence - highest_.value_or(sequence - 1));
    uint64_t backward = ahead > 1 ? static_cast<uint64_t>(ahead) - 1 : 0;
    if (!highest_ || ahead > 0 || ahead < restart) highest_ = sequence;
    for (size_t age = 0; undecided_ != 0 && age < used_; ++age) {
        Cell& cell = cells_[(newest_ + cells_.size() - age) % cells_.size()];
        const auto back = static_cast<uint32_t>(std::min<uint64_t>(backward, cell.undecided));
        cell.backward += back;
        sum_.backward += back;
        backward -= back;
        undecided_ -= cell.undecided;
        sum_.undecided -= std::exchange(cell.undecided, 0);
    }
    undecided_ = 0;
}

void Window::answered(std::chrono::nanoseconds roundTrip, uint32_t sequence) {
    decide(sequence);
    Cell& cell = next();
    const int64_t time = roundTrip.count();
    cell.least = cell.answers == 0 ? time : std::min(cell.least, time);
    cell.last = time;
    for (Cell* each : {&cell, &sum_}) {
        ++each->answers;
        each->roundTrips += time;
        if (!before_) continue;
        ++each->steps;
        each->deviation += std::abs(time - *before_);
    }
    before_ = time;
}

void Window::lost() {
    Cell& cell = next();
    ++cell.undecided;
    ++sum_.undecided;
    ++undecided_;
}

void Window::figures(PathQuality& quality) const {
    quality = {.state = quality.state, .samples = sum_.probes};
    const uint32_t lost = sum_.probes - sum_.answers, either = sum_.backward + sum_.undecided;
    quality.lossForward = percent(lost - sum_.backward, sum_.probes);
    quality.lossBackward = percent(either, sum_.answers + either);
    if (sum_.answers == 0) return;
    std::vector<int64_t> times;
    times.reserve(used_);
    int64_t least = std::numeric_limits<int64_t>::max();
    for (const Cell& cell : cells_)
        if (cell.answers != 0) times.push_back(cell.last), least = std::min(least, cell.least);
    const auto rank = times.begin() + static_cast<ptrdiff_t>((times.size() * 95 + 99) / 100 - 1);
    std::ranges::nth_element(times, rank);
    quality.rttMin = milliseconds(static_cast<double>(least));
    quality.rttMean = milliseconds(static_cast<double>(sum_.roundTrips) / sum_.answers);
    quality.rttP95 = milliseconds(static_cast<double>(*rank));
    if (sum_.steps != 0)
        quality.jitter = milliseconds(static_cast<double>(sum_.deviation) / sum_.steps);
}

}  // namespace Agent::Linux
