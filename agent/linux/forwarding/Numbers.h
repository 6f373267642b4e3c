// Numbers of the agent's next hops, groups, tables and marks in the kernel: from 0x6e000000 to
// 0x6effffff, so that an operator recognises them.
//
// A number is computed from the identity of its object, not from the order of events. So a
// restarted agent computes the same numbers and finds the objects that it made before.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <unordered_set>

#include "platform/netz/Hash.h"

namespace Agent::Linux {

class Numbers {
  public:
    static constexpr uint32_t first = 0x6e000000;
    static constexpr uint32_t count = 1 << 24;

    // The number of an object. `thing` is a hash of everything that identifies it; its upper 24
    // bits are the preferred number. If another object has that already (a collision among a
    // thousand objects happens in one agent of thirty), the next free number is taken.
    uint32_t of(uint64_t thing) {
        const auto [at, isNew] = numbers_.try_emplace(thing, 0);
        if (!isNew) return at->second;
        for (uint32_t place = static_cast<uint32_t>(thing >> 40);; place = (place + 1) % count)
            if (used_.insert(place).second) return at->second = first + place;
    }

    // The number, if it is one of these, is somebody else's. Returns whether it is one.
    bool reserve(uint32_t number) {
        return number >= first && number - first < count && used_.insert(number - first).second;
    }

  private:
    std::unordered_map<uint64_t, uint32_t> numbers_;
    std::unordered_set<uint32_t> used_;  // places, from 0 to count - 1
};

}  // namespace Agent::Linux
