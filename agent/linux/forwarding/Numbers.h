// The numbers under which the kernel knows next hops, groups, tables and marks of the agent's: from
// 0x6e000000 to 0x6effffff, so that they are told from others' at a glance.
//
// A number is made from what it stands for, not from an order of events. So an agent that restarts
// gives the same numbers again, and finds in the kernel what it made before.
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

    // The number of a thing, told from every other by a hash over all that makes it up. Two things
    // with one home, which a thousand of them have once in thirty agents, get neighbouring numbers
    // in the order in which they come.
    uint32_t of(uint64_t thing) {
        const auto [at, isNew] = numbers_.try_emplace(thing, 0);
        if (!isNew) return at->second;
        for (uint32_t place = static_cast<uint32_t>(thing >> 40);; place = (place + 1) % count)
            if (used_.insert(place).second) return at->second = first + place;
    }

  private:
    std::unordered_map<uint64_t, uint32_t> numbers_;
    std::unordered_set<uint32_t> used_;  // places, from 0 to count - 1
};

}  // namespace Agent::Linux
