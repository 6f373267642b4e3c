// The status directory that the system publishes: paths, load-balance ids, the rules of each VRF
// and the remote addresses in use.
#pragma once

#include "nav/types/PathStatus.h"

namespace Nav {

// The rules of the policy that a VRF is bound to. Exists exactly while it is bound.
class NAV_EXPORT NavRuleStatus : public Vel::Entity {
    VEL_ENTITY(NavRuleStatus, L3::VrfName, name)
    VEL_ATTRIBUTE(U32, vrfId, 0)
    VEL_SET(NavRuleEntry, navRuleEntry)
};

// The VRFs bound to one policy.
class NAV_EXPORT PolicyToVrf : public Vel::Entity {
    VEL_ENTITY(PolicyToVrf, Vel::String, name)
    VEL_SET(L3::VrfName, vrf)
};

class NAV_EXPORT NavStatusDir : public Vel::Entity {
    VEL_ENTITY(NavStatusDir, Vel::Name, name)
    VEL_ATTRIBUTE(bool, navConfigured, false)
    VEL_ATTRIBUTE(bool, navVrfEnabled, false)
    VEL_COLLECTION(L3::VrfName, NavRuleStatus, navRuleStatus)
    VEL_CHILD(PathStatusDir, navPathStatusDir)
    VEL_CHILD(LbProfileStatus, navLbProfileStatus)
    VEL_SET(Netz::IpGenAddr, navRemoteIpList)  // the sites that some path group configures
    VEL_ATTRIBUTE(U16, navPortStatus, 0)
};

}  // namespace Nav
