// The type and state of a path as functions of its properties, and the path that an IPsec
// connection belongs to.
#pragma once

#include "nav/types/NavDb.h"
#include "platform/services/Ipsec.h"

namespace Nav {

inline PathType pathTypeOf(const Vel::String& ipsecProfile) {
    return ipsecProfile.empty() ? PathType::unsecuredPath : PathType::securedPath;
}

// A path is resolved if it has a via and, if it is secured, an encapsulation id.
inline PathState pathStateOf(PathType type, U32 encapId, const Shard::Fib::Via& via) {
    const bool encapsulated = type == PathType::unsecuredPath || encapId != noEncapId;
    return encapsulated && via != Shard::Fib::Via{} ? PathState::resolved : PathState::unresolved;
}

// The path of a connection; the id of a VRF without a known one counts as 0.
inline PathKey pathKeyOf(const NavDb& navDb, const Ipsec::ConnectionKey& connection) {
    const U32* vrfId = navDb.vrfNameToId(connection.vrfName);
    return {connection.srcAddr, connection.dstAddr, vrfId ? *vrfId : 0};
}

}  // namespace Nav
