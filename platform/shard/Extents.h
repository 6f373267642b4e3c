// The writer's private record of the free units of a segment's heap. It is built from the index
// when a writer takes over, and again when free units have become too scattered, so a writer's
// death loses nothing.
//
// A new value with the length of the one it replaces is written to units that were freed `rest`
// replacements earlier. A reader in the middle of a copy therefore nearly always finishes, even for
// a key that is rewritten continuously, and the exchange costs a few instructions.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/Export.h"

namespace Shard {

class VEL_EXPORT Extents {
  public:
    static constexpr uint32_t rest = 8;
    static constexpr uint32_t none = UINT32_MAX;

    explicit Extents(uint32_t longest) : resting_(longest + 1) {}

    // Marks as free exactly the units that are not in `used`.
    void reset(const std::vector<bool>& used);

    // The first unit of a free extent, or `none` if no free run is long enough; a reset may then
    // help, because it joins neighbouring runs.
    uint32_t take(uint32_t length) {
        auto& units = resting_[length].units;
        return units.size() > rest ? pop(units) : carve(length);
    }
    void giveBack(uint32_t unit, uint32_t length) { resting_[length].units.push_back(unit); }
    // Gives one extent back and takes another of the same length.
    uint32_t exchange(uint32_t unit, uint32_t length) {
        auto& [units, turn] = resting_[length];
        if (units.size() < rest) [[unlikely]]
            return exchangeFresh(unit, length);
        turn = (turn + 1) % rest;
        return std::exchange(units[turn], unit);
    }

  private:
    // Free units that have not been allocated since the last reset.
    struct Run {
        uint32_t unit, length;
    };
    // First units of the extents of one length that were given back.
    struct Resting {
        std::vector<uint32_t> units;
        uint32_t turn{0};  // position, among the first `rest`, of the one exchanged last
    };
    static uint32_t pop(std::vector<uint32_t>& units) {
        const uint32_t unit = units.back();
        units.pop_back();
        return unit;
    }
    uint32_t carve(uint32_t length);
    uint32_t exchangeFresh(uint32_t unit, uint32_t length);

    // Invariant: every unit is in use, in exactly one run, or in exactly one resting extent.
    std::vector<Resting> resting_;  // by length
    std::vector<Run> runs_;         // in no order; none is empty
};

}  // namespace Shard
