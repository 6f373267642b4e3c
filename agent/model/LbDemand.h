// The number of load-balance ids that configurations can need.
#pragma once

#include <initializer_list>
#include <map>

#include "nav/config/NavCliConfig.h"

namespace Agent {

// The number of load-balance ids that each bound VRF can need: distinct pairs of a site and an
// application. Several configurations are combined: a VRF is bound to the policy that any of them
// names, a policy has the rules of all of them, a profile the path groups, a path group the sites.
// No intermediate state of them needs more. A number above maxLbIndex means "more than available".
std::map<L3::VrfName, size_t> lbDemand(std::initializer_list<const Nav::NavCliConfig*> configs);

// Whether the ids suffice for all VRFs together.
bool fits(const std::map<L3::VrfName, size_t>& lbDemand);

}  // namespace Agent
