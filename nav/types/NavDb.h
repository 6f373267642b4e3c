// The path database: the cross-indexes by which the reactors of one container find paths by
// address, group, VRF and load-balance profile. It lives and dies with the container; nobody
// outside reads more of it than its text.
#pragma once

#include "nav/types/PathTypes.h"
#include "platform/vel/Entity.h"

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

// Records the id of a VRF both ways. The name of an earlier id goes, unless another VRF has that id
// by now. Whoever hears of an id first calls it; a VRF without an id keeps the last one's name.
NAV_EXPORT void recordVrfId(NavDb& navDb, const L3::VrfName& vrfName, U32 vrfId);

}  // namespace Nav
