#include "agent/router/Platform.h"

#include <algorithm>
#include <limits>

namespace Agent {

std::vector<Vel::U32> Platform::carriers(const Nav::LbProfileStatusEntry& entry) const {
    Vel::U32 best = std::numeric_limits<Vel::U32>::max();
    for (const auto& member : entry.pathEntry()) best = std::min(best, member.priority);
    std::vector<Vel::U32> carriers;
    for (const auto& member : entry.pathEntry())
        if (member.priority == best) carriers.push_back(member.pathIndex);
    std::ranges::sort(carriers);
    return carriers;
}

}  // namespace Agent
