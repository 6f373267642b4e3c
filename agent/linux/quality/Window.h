// Figures over the last probes of a path, from their fates in the order of sending. Each fate costs
// constant time, and memory is bounded: with more probes than `maxCells`, several share a cell, and
// leave the window together.
//
//     round trip  minimum, mean and 95th percentile (the smallest value that at least 95 % do not
//                 exceed) of the answered probes; where probes share a cell, the percentile is that
//                 of the last one of each
//     jitter      mean deviation: the mean of |R(i) - R(i-1)| over the round trips of answered
//                 probes that follow one another (the D of RFC 3550, 6.4.1, the delay variation of
//                 RFC 5481, 3.1, here of the round trip)
//     loss        forward: share of the probes that did not come to the reflector; backward: share
//                 of the reflector's answers that did not come back
//
// The direction of a loss follows from the reflector's sequence numbers, which count the probes
// that came to it: those that an answer skips were lost on the way back. Until a later probe is
// answered, nobody can tell, and a lost probe counts in both directions.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "agent/router/PathQuality.h"

namespace Agent::Linux {

class Window {
  public:
    static constexpr size_t maxCells = 1024;

    // Over the last `probes`, at least one.
    explicit Window(size_t probes);

    // `sequence`: the reflector's of the answer.
    void answered(std::chrono::nanoseconds roundTrip, uint32_t sequence);
    void lost();

    // Fills the figures; `state` stays.
    void figures(PathQuality& quality) const;

  private:
    struct Cell {
        uint32_t probes = 0;
        uint32_t answers = 0;
        uint32_t backward = 0;   // lost on the way back
        uint32_t undecided = 0;  // lost, either way
        uint32_t steps = 0;      // of jitter
        int64_t roundTrips = 0;  // ns, sums
        int64_t deviation = 0;
        int64_t least = 0;  // ns; both if there is an answer
        int64_t last = 0;
    };

    Cell& next();
    void decide(uint32_t sequence);

    const size_t share_;  // probes of a cell
    std::vector<Cell> cells_;
    size_t newest_ = 0;
    size_t used_ = 0;                  // cells
    Cell sum_;                         // of all cells, except least and last
    std::optional<int64_t> before_;    // round trip of the last answered probe
    std::optional<uint32_t> highest_;  // sequence number of an answer
    uint64_t undecided_ = 0;           // losses since the last answered probe
};

}  // namespace Agent::Linux
