#include "nav/types/NavDb.h"

namespace Nav {

VEL_DEFINE(Nav, PathAddrToPathKeySet)
VEL_DEFINE(Nav, LbNameToLbKeySet)
VEL_DEFINE(Nav, PathKeyInfo)
VEL_DEFINE(Nav, PathGroupInfo)
VEL_DEFINE(Nav, NavDb)

void recordVrfId(NavDb& navDb, const L3::VrfName& vrfName, U32 vrfId) {
    if (const U32* known = navDb.vrfNameToId(vrfName); known && *known != vrfId) {
        const U32 before = *known;
        const L3::VrfName* name = navDb.vrfIdToName(before);
        if (name && *name == vrfName) navDb.vrfIdToNameDel(before);
    }
    navDb.vrfNameToIdIs(vrfName, vrfId);
    navDb.vrfIdToNameIs(vrfId, vrfName);
}

}  // namespace Nav
