// The path database: the indexes by which the reactors of one container find paths by address,
// group, VRF and load-balance profile. It is private to the container, which creates and destroys
// it; outside the container, only the show commands and generic access read it.
#pragma once

#include "nav/types/PathTypes.h"
#include "platform/services/Routing.h"

namespace Nav {

// The paths that use one address, as source or as destination.
class NAV_EXPORT PathAddrToPathKeySet : public Vel::Entity {
    VEL_ENTITY(PathAddrToPathKeySet, Netz::IpGenAddr, addr)
    VEL_SET(PathKey, pathKey)
};

// The load-balance keys that have an id on behalf of one profile.
class NAV_EXPORT LbNameToLbKeySet : public Vel::Entity {
    VEL_ENTITY(LbNameToLbKeySet, Vel::String, lbName)
    VEL_SET(LbProfileKey, lbKey)
};

class NAV_EXPORT PathKeyInfo : public Vel::Entity {
    VEL_ENTITY(PathKeyInfo, PathKey, pathKey)
    VEL_ATTRIBUTE(U32, pathIndex, 0)
    VEL_ATTRIBUTE(SiteGroupKey, siteGroupKey, {})
    VEL_ATTRIBUTE(Vel::String, ipsecProfile, {})
    VEL_ATTRIBUTE(L3::VrfName, vrfName, {})
};

class NAV_EXPORT PathGroupInfo : public Vel::Entity {
    VEL_ENTITY(PathGroupInfo, Vel::String, pgName)
    VEL_SET(PathKey, pathKeySet)
    VEL_SET(Netz::IpGenAddr, remoteIpList)
};

class NAV_EXPORT NavDb : public Vel::Entity {
    VEL_ENTITY(NavDb, Vel::Name, name)
    VEL_COLLECTION(Netz::IpGenAddr, PathAddrToPathKeySet, addrToPathKeySet)
    VEL_MAP(Netz::IpGenAddr, Netz::IntfId, srcToIntfMapping)
    VEL_COUNTER(U32, lbId, 0)
    VEL_COLLECTION(Vel::String, LbNameToLbKeySet, lbNameToLbKeySet)
    VEL_MAP(L3::VrfName, U32, vrfNameToId)
    VEL_MAP(U32, L3::VrfName, vrfIdToName)
    VEL_COLLECTION(PathKey, PathKeyInfo, pathKeyInfo)
    VEL_COLLECTION(Vel::String, PathGroupInfo, pathGroupInfo)
    VEL_VALUES(VrfAppKey, VrfApp, key, vrfApp)
    VEL_COUNTER(U32, pathIndex, 0)
};

// Records the id of a VRF in both directions. Called by each reactor that learns the id. The VRF's
// previous id is named by another VRF that reports it, or loses its name.
NAV_EXPORT void recordVrfId(NavDb& navDb, const Routing::Hardware::RouteStatus& status,
                            const L3::VrfName& vrfName, U32 vrfId);
// The VRF reports no id any more: its last id is named by another VRF that reports it. Without such
// a VRF it stays recorded with that id.
NAV_EXPORT void releaseVrfId(NavDb& navDb, const Routing::Hardware::RouteStatus& status,
                             const L3::VrfName& vrfName);

}  // namespace Nav
