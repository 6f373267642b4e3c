// Interface status: the primary address and the VRF of each interface.
#pragma once

#include "platform/vel/Entity.h"

namespace Ip {

class VEL_EXPORT IpIntfStatus : public Vel::Entity {
    VEL_ENTITY(IpIntfStatus, Netz::IntfId, intfId)
    VEL_ATTRIBUTE(Netz::IpAddrWithMask, activeAddrWithMask, {})  // zero: no address
    VEL_ATTRIBUTE(L3::VrfName, vrfName, "default")
};

class VEL_EXPORT Status : public Vel::Entity {
    VEL_ENTITY(Status, Vel::Name, name)
    VEL_COLLECTION(Netz::IntfId, IpIntfStatus, ipIntfStatus)
};

}  // namespace Ip

namespace Ip6 {

class VEL_EXPORT Status : public Vel::Entity {
    VEL_ENTITY(Status, Vel::Name, name)
    VEL_COLLECTION(Netz::IntfId, Ip::IpIntfStatus, ipIntfStatus)
};

}  // namespace Ip6
