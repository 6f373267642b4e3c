// How many load-balance ids configurations can need.
#pragma once

#include <initializer_list>
#include <map>

#include "nav/config/NavCliConfig.h"

namespace Agent {

// The number of load-balance ids that each bound VRF can need: different pairs of a site and an
// application. Several configurations are taken together: a VRF is bound to the policy that any of
// them says, a policy has the rules of all of them, a profile the path groups, a path group the
// sites. No state that mixes parts of them needs more than that. A number above maxLbIndex means
// "more than there are".
std::map<L3::VrfName, size_t> lbDemand(std::initializer_list<const Nav::NavCliConfig*> configs);

// Whether there are ids for all VRFs together.
bool fits(const std::map<L3::VrfName, size_t>& lbDemand);

}  // namespace Agent
