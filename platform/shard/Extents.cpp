#include "platform/shard/Extents.h"

namespace Shard {

void Extents::reset(const std::vector<bool>& used) {
    runs_.clear();
    for (auto& resting : resting_) resting.units.clear();
    for (uint32_t unit = 0; unit < used.size(); ++unit) {
        if (used[unit]) continue;
        if (runs_.empty() || runs_.back().unit + runs_.back().length != unit) {
            runs_.push_back({unit, 0});
        }
        ++runs_.back().length;
    }
}

// A run is allocated from its front: when an earlier extent of that run is reused, its first unit
// is overwritten first, and that is the unit whose use counter a late reader of the extent checks.
uint32_t Extents::carve(uint32_t length) {
    for (auto i = runs_.size(); i-- > 0;) {
        Run& run = runs_[i];
        if (run.length < length) continue;
        const uint32_t unit = run.unit;
        run.unit += length;
        run.length -= length;
        if (run.length == 0) {
            run = runs_.back();
            runs_.pop_back();
        }
        return unit;
    }
    auto& units = resting_[length].units;
    return units.empty() ? none : pop(units);
}

uint32_t Extents::exchangeFresh(uint32_t unit, uint32_t length) {
    const uint32_t taken = carve(length);
    if (taken != none) giveBack(unit, length);
    return taken;
}

}  // namespace Shard
