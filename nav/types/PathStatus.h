// The directories of paths: the paths that construction requests, their status from resolution, the
// programmed paths of each site, the load-balance ids, and the state of programming in hardware.
#pragma once

#include "nav/types/PathTypes.h"
#include "platform/vel/Entity.h"

namespace Nav {

// One requested path.
class NAV_EXPORT PathConfigEntry : public Vel::Entity {
    VEL_ENTITY(PathConfigEntry, PathKey, key)
    VEL_ATTRIBUTE(PathType, pathType, PathType::invalidPath)  // never set, part of the interface
    VEL_ATTRIBUTE(U32, pathIndex, 0)
    VEL_ATTRIBUTE(Vel::String, ipsecProfile, {})  // empty: not secured
};

class NAV_EXPORT PathConfig : public Vel::Entity {
    VEL_ENTITY(PathConfig, L3::VrfName, vrfName)
    VEL_COLLECTION(PathKey, PathConfigEntry, pathConfigEntry)
};

// The paths requested, per VRF. Written by path construction, read by path resolution.
class NAV_EXPORT PathConfigDir : public Vel::Entity {
    VEL_ENTITY(PathConfigDir, Vel::Name, name)
    VEL_COLLECTION(L3::VrfName, PathConfig, pathConfig)
};

// The result of resolving one path.
class NAV_EXPORT PathStatusEntry : public Vel::Entity {
    VEL_ENTITY(PathStatusEntry, PathKey, key)
    VEL_ATTRIBUTE(HwPathInfo, pathInfo, {})
    VEL_ATTRIBUTE(U32, encapId, noEncapId)  // of the established IPsec connection
    VEL_ATTRIBUTE(bool, programmed, false)  // as reported by the forwarding agent
};

class NAV_EXPORT PathStatus : public Vel::Entity {
    VEL_ENTITY(PathStatus, L3::VrfName, vrfName)
    VEL_COLLECTION(PathKey, PathStatusEntry, pathStatusEntry)
};

class NAV_EXPORT PathStatusDir : public Vel::Entity {
    VEL_ENTITY(PathStatusDir, Vel::Name, name)
    VEL_COLLECTION(L3::VrfName, PathStatus, pathStatus)
};

// Site groups as configuration: part of the published model, not written by this library.
class NAV_EXPORT SiteGroupConfigEntry : public Vel::Entity {
    VEL_ENTITY(SiteGroupConfigEntry, SiteGroupKey, key)
    VEL_SET(PathKey, pathEntries)
    VEL_ATTRIBUTE(Vel::String, ipsecProfile, {})
};

class NAV_EXPORT SiteGroupConfig : public Vel::Entity {
    VEL_ENTITY(SiteGroupConfig, Vel::Name, name)
    VEL_COLLECTION(SiteGroupKey, SiteGroupConfigEntry, siteGroupConfigEntry)
};

// The indices of a site's programmed paths.
class NAV_EXPORT SiteGroupStatusEntry : public Vel::Entity {
    VEL_ENTITY(SiteGroupStatusEntry, SiteGroupKey, key)
    VEL_SET(U32, pathIndexEntry)
};

class NAV_EXPORT SiteGroupStatus : public Vel::Entity {
    VEL_ENTITY(SiteGroupStatus, Vel::Name, name)
    VEL_COLLECTION(SiteGroupKey, SiteGroupStatusEntry, siteGroupStatusEntry)
};

// One allocated load-balance id with its members.
class NAV_EXPORT LbProfileStatusEntry : public Vel::Entity {
    VEL_ENTITY(LbProfileStatusEntry, LbProfileKey, key)
    VEL_ATTRIBUTE(U32, genId, 0)  // raised with every change of the members
    VEL_ATTRIBUTE(U16, lbIndex, 0)
    VEL_ATTRIBUTE(U32, latency, 0)
    VEL_ATTRIBUTE(U32, jitter, 0)
    VEL_ATTRIBUTE(U32, lossRate, 0)
    VEL_VALUES(U32, PathWithPriority, pathIndex, pathEntry)
};

class NAV_EXPORT LbProfileStatus : public Vel::Entity {
    VEL_ENTITY(LbProfileStatus, Vel::Name, name)
    VEL_COLLECTION(LbProfileKey, LbProfileStatusEntry, lbProfileStatusEntry)
};

// How a path is programmed in hardware; written by the forwarding agent. A path is programmed if
// neither index is 0.
class NAV_EXPORT HwPathStatusEntry : public Vel::Entity {
    VEL_ENTITY(HwPathStatusEntry, HwPathKey, key)
    VEL_ATTRIBUTE(U32, hwPathIndex, 0)
    VEL_ATTRIBUTE(U32, hwArpIndex, 0)
    VEL_ATTRIBUTE(U32, ipsecEncapId, 0)
    VEL_ATTRIBUTE(U32, updateVersion, 0)
};

class NAV_EXPORT HwPathStatus : public Vel::Entity {
    VEL_ENTITY(HwPathStatus, Vel::Name, name)
    VEL_COLLECTION(HwPathKey, HwPathStatusEntry, hwPathStatusList)
};

}  // namespace Nav
