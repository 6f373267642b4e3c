// Which member paths of a load-balance key carry its traffic, as functions of their quality and
// priority. Shared by the platforms.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "agent/router/PathQuality.h"
#include "nav/root/NavInputs.h"

namespace Agent {

// The limits that a load-balance profile sets for the paths of its traffic.
struct Constraints {
    Vel::U32 latency = Nav::NavConstants::defaultLatency;    // ms, mean round trip; all ones: none
    Vel::U32 jitter = Nav::NavConstants::defaultJitter;      // ms; all ones: none
    Vel::U32 lossRate = Nav::NavConstants::defaultLossRate;  // percent, worse direction; 0: none

    static Constraints of(const Nav::LbProfileStatusEntry& entry) {
        return {entry.latency(), entry.jitter(), entry.lossRate()};
    }
    bool none() const { return *this == Constraints{}; }
    // Figures that are not known meet every limit.
    bool metBy(const PathQuality& quality) const;
    // The figures beside their limits: those that exceed them, or all if none does.
    // "loss 4.1 % > 1 %", "round trip 20 ms <= 150 ms, loss 0 % <= 1 %"
    std::string compare(const PathQuality& quality) const;

    auto operator<=>(const Constraints&) const = default;
};

// The paths that carry the traffic of a load-balance key.
struct Chosen {
    std::vector<Nav::PathWithPriority> members;  // of one priority, in the order of path index
    bool suitable = false;                       // whether they meet the key's constraints

    bool has(Vel::U32 pathIndex) const {
        return std::ranges::count(members, pathIndex, &Nav::PathWithPriority::pathIndex) != 0;
    }
    bool operator==(const Chosen&) const = default;
};

// Of the usable members, those of the best priority among the suitable ones; if none is suitable,
// those of the best priority. Empty if no member is usable. Both conditions are asked by path
// index.
template <class Usable, class Suitable>
Chosen chooseMembers(const Nav::LbProfileStatusEntry& entry, Usable usable, Suitable suitable) {
    Chosen chosen;
    std::pair best{true, Vel::U32{}};  // whether unsuitable, and the priority
    for (const Nav::PathWithPriority& member : entry.pathEntry()) {
        if (!usable(member.pathIndex)) continue;
        const std::pair rank{!suitable(member.pathIndex), member.priority};
        if (!chosen.members.empty() && rank > best) continue;
        if (rank < best) chosen.members.clear();
        best = rank;
        chosen.members.push_back(member);
    }
    chosen.suitable = !best.first;
    std::ranges::sort(chosen.members);
    return chosen;
}

}  // namespace Agent
