// The routing service: VRF ids, next-hop resolution requests and results.
#pragma once

#include <optional>

#include "platform/vel/Entity.h"

namespace Routing {

namespace Hardware {

class VEL_EXPORT VrfStatus : public Vel::Entity {
    VEL_ENTITY(VrfStatus, L3::VrfName, vrfName)
    VEL_ATTRIBUTE(Vel::U32, vrfId, 0)  // 0: not known, except for the VRF "default"
};

// The id that a VRF's status reports; empty while it is not known.
inline std::optional<Vel::U32> knownVrfId(const L3::VrfName& vrfName, Vel::U32 vrfId) {
    if (vrfId == 0 && vrfName.str() != "default") return std::nullopt;
    return vrfId;
}

class VEL_EXPORT RouteStatus : public Vel::Entity {
    VEL_ENTITY(RouteStatus, Vel::Name, name)
    VEL_COLLECTION(L3::VrfName, VrfStatus, vrfStatus)
};

}  // namespace Hardware

// The addresses whose resolution is requested in one VRF.
class VEL_EXPORT NexthopVrfConfig : public Vel::Entity {
    VEL_ENTITY(NexthopVrfConfig, L3::VrfName, vrfName)
    VEL_SET(Netz::IpGenAddr, nexthop)
};

class VEL_EXPORT NexthopConfig : public Vel::Entity {
    VEL_ENTITY(NexthopConfig, Vel::Name, name)
    VEL_COLLECTION(L3::VrfName, NexthopVrfConfig, vrf)
};

// A resolved address and its forwarding equivalence class.
struct NexthopResult {
    Netz::IpGenAddr addr;
    Vel::U64 fecId = 0;

    bool operator==(const NexthopResult&) const = default;
};
VEL_VALUE(Routing, NexthopResult, addr, fecId)

// The results of one VRF: an address has an entry while it is resolved.
class VEL_EXPORT NexthopVrfStatus : public Vel::Entity {
    VEL_ENTITY(NexthopVrfStatus, L3::VrfName, vrfName)
    VEL_VALUES(Netz::IpGenAddr, NexthopResult, addr, nexthop)
};

class VEL_EXPORT NexthopStatus : public Vel::Entity {
    VEL_ENTITY(NexthopStatus, Vel::Name, name)
    VEL_COLLECTION(L3::VrfName, NexthopVrfStatus, vrf)
};

// Addresses whose result changed and that still have to be reviewed. `version` is raised after
// addresses were added, once for each burst.
class VEL_EXPORT NexthopBacklog : public Vel::Entity {
    VEL_ENTITY(NexthopBacklog, Vel::Name, name)
    VEL_SET(Netz::IpGenAddr, backlog)
    VEL_COUNTER(Vel::U32, version, 0)
};

}  // namespace Routing
