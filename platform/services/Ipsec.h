// The IPsec service: connection requests and the state of each connection.
#pragma once

#include "platform/vel/Entity.h"

namespace Ipsec {

struct ConnectionKey {
    Netz::IpGenAddr srcAddr;
    Netz::IpGenAddr dstAddr;
    L3::VrfName vrfName;

    auto operator<=>(const ConnectionKey&) const = default;
};
VEL_VALUE(Ipsec, ConnectionKey, srcAddr, dstAddr, vrfName)

namespace Path {

class VEL_EXPORT PathConfig : public Vel::Entity {
    VEL_ENTITY(PathConfig, ConnectionKey, key)
    VEL_ATTRIBUTE(Vel::String, profile, {})
    VEL_ATTRIBUTE(Netz::IntfId, intfId, {})
    VEL_ATTRIBUTE(Vel::String, connectionName, {})
};

class VEL_EXPORT PathConfigDir : public Vel::Entity {
    VEL_ENTITY(PathConfigDir, Vel::Name, name)
    VEL_COLLECTION(ConnectionKey, PathConfig, ipsecPathConfig)
};

inline constexpr Vel::U32 established = 3;  // of connectionState
inline constexpr Vel::U32 noEncapId = 0xFFFFFFFE;

class VEL_EXPORT PathStatus : public Vel::Entity {
    VEL_ENTITY(PathStatus, ConnectionKey, key)
    VEL_ATTRIBUTE(Vel::U32, connectionState, 0)
    VEL_ATTRIBUTE(Vel::U32, encapId, noEncapId)
};

class VEL_EXPORT PathStatusDir : public Vel::Entity {
    VEL_ENTITY(PathStatusDir, Vel::Name, name)
    VEL_COLLECTION(ConnectionKey, PathStatus, ipsecPathStatus)
};

}  // namespace Path
}  // namespace Ipsec
