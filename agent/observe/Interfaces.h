// The interfaces of the router and those that only the configuration names, with their state, their
// addresses and their paths.
#pragma once

#include "agent/observe/Observer.h"

namespace Agent {

// An array with an object for each interface: {"interface","state","vrf","address","address6",
// "pathGroup","paths","pathsUp"}. The state is "up", "down", "absent", or null if the platform does
// not know. REQUIRES: the observer has just observed.
Json interfaces(const Nav::NavInputs& inputs, const Platform& platform, const Observer& observer);

}  // namespace Agent
