// The configuration tree. The front end writes it, the reactors only read it. No reactor depends on
// the iteration order of an unordered collection.
#pragma once

#include "nav/config/NavConstants.h"
#include "platform/vel/Entity.h"

namespace Nav {

// One remote site of a path group. Each member of `remoteVia` becomes the destination of paths.
class NAV_EXPORT RemoteViaConfig : public Vel::Entity {
    VEL_ENTITY(RemoteViaConfig, Netz::IpGenAddr, remoteAddr)
    VEL_SET(Netz::IpGenAddr, remoteVia)
};

class NAV_EXPORT PathGroupConfig : public Vel::Entity {
    VEL_ENTITY(PathGroupConfig, Vel::Name, name)
    VEL_SET(Netz::IntfId, localIntf)  // the group's WAN interfaces
    VEL_COLLECTION(Netz::IpGenAddr, RemoteViaConfig, remoteViaConfig)
    VEL_ATTRIBUTE(Vel::String, ipsecProfile, {})  // empty: the group's paths are not secured
};

// A rule of a policy. Its key is its precedence, lowest first.
class NAV_EXPORT AppProfilePolicyRuleConfig : public Vel::Entity {
    VEL_ENTITY(AppProfilePolicyRuleConfig, U32, ruleKey)
    VEL_ATTRIBUTE(U32, appProfileId, 0)
    VEL_ATTRIBUTE(Vel::String, appProfileName, {})
    VEL_ATTRIBUTE(Vel::String, lbGrpName, {})  // the load-balance profile its traffic uses
};

class NAV_EXPORT PolicyConfig : public Vel::Entity {
    VEL_ENTITY(PolicyConfig, Vel::Name, name)
    VEL_ORDERED(U32, AppProfilePolicyRuleConfig, appProfilePolicyRuleList)
    VEL_ATTRIBUTE(bool, defaultRuleCfgd, false)
    VEL_ATTRIBUTE(Vel::String, defaultLbGrpName, {})
    VEL_COUNTER(U32, configVersion, 0)  // raised when a change of the policy is complete
};

class NAV_EXPORT LoadBalanceProfile : public Vel::Entity {
    VEL_ENTITY(LoadBalanceProfile, Vel::String, profileName)
    VEL_MAP(Vel::String, U32, pathGroupPriority)  // priority of each path group, lower is preferred
    VEL_ATTRIBUTE(U32, latency, NavConstants::defaultLatency)
    VEL_ATTRIBUTE(U32, jitter, NavConstants::defaultJitter)
    VEL_ATTRIBUTE(U32, lossRate, NavConstants::defaultLossRate)
};

class NAV_EXPORT VrfConfig : public Vel::Entity {
    VEL_ENTITY(VrfConfig, L3::VrfName, vrfName)
    VEL_ATTRIBUTE(Vel::String, policyName, {})
};

class NAV_EXPORT NavCliConfig : public Vel::Entity {
    VEL_ENTITY(NavCliConfig, Vel::Name, name)
    VEL_ATTRIBUTE(bool, navConfigured, false)  // whether the feature is switched on
    VEL_ATTRIBUTE(U16, udpPortConfig, NavConstants::defaultUdpPort)
    VEL_COLLECTION(Vel::Name, PathGroupConfig, pathGroupConfig)
    VEL_COLLECTION(Vel::Name, PolicyConfig, policyConfig)
    VEL_COLLECTION(Vel::String, LoadBalanceProfile, loadBalanceProfile)
    VEL_COLLECTION(L3::VrfName, VrfConfig, vrfConfig)
};

}  // namespace Nav
