#include "nav/types/NavDb.h"

namespace Nav {

VEL_DEFINE(Nav, PathAddrToPathKeySet)
VEL_DEFINE(Nav, LbNameToLbKeySet)
VEL_DEFINE(Nav, PathKeyInfo)
VEL_DEFINE(Nav, PathGroupInfo)
VEL_DEFINE(Nav, NavDb)

namespace {
// If the id maps to `vrfName`, maps it to another VRF that reports the id, or to none. Returns
// whether it mapped to `vrfName`.
bool passName(NavDb& navDb, const Routing::Hardware::RouteStatus& status,
              const L3::VrfName& vrfName, U32 vrfId) {
    const L3::VrfName* name = navDb.vrfIdToName(vrfId);
    if (!name || *name != vrfName) return false;
    for (const auto& other : status.vrfStatus())
        if (other.vrfId() == vrfId && other.vrfName() != vrfName)
            if (Routing::Hardware::knownVrfId(other.vrfName(), vrfId))
                navDb.vrfIdToNameIs(vrfId, other.vrfName());
    return true;
}
}  // namespace

void recordVrfId(NavDb& navDb, const Routing::Hardware::RouteStatus& status,
                 const L3::VrfName& vrfName, U32 vrfId) {
    if (const U32* known = navDb.vrfNameToId(vrfName); known && *known != vrfId) {
        const U32 before = *known;
        if (passName(navDb, status, vrfName, before) && *navDb.vrfIdToName(before) == vrfName)
            navDb.vrfIdToNameDel(before);
    }
    navDb.vrfNameToIdIs(vrfName, vrfId);
    navDb.vrfIdToNameIs(vrfId, vrfName);
}

void releaseVrfId(NavDb& navDb, const Routing::Hardware::RouteStatus& status,
                  const L3::VrfName& vrfName) {
    if (const U32* known = navDb.vrfNameToId(vrfName)) passName(navDb, status, vrfName, *known);
}

}  // namespace Nav
