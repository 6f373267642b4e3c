// What a path's type and state are, given what is known of it, and how paths, VRFs and IPsec
// connections name one another. Functions of their arguments, for the reactors to write down.
#pragma once

#include "nav/types/NavDb.h"
#include "platform/services/Ipsec.h"

namespace Nav {

inline PathType pathTypeOf(const Vel::String& ipsecProfile) {
    return ipsecProfile.empty() ? PathType::unsecuredPath : PathType::securedPath;
}

// Resolved is a path that has a way out and, if it is secured, an encapsulation for it.
inline PathState pathStateOf(PathType type, U32 encapId, const Shard::Fib::Via& via) {
    const bool encapsulated = type == PathType::unsecuredPath || encapId != noEncapId;
    return encapsulated && via != Shard::Fib::Via{} ? PathState::resolved : PathState::unresolved;
}

// Empty for an id without a name.
inline L3::VrfName vrfNameOf(const NavDb& navDb, U32 vrfId) {
    const L3::VrfName* vrfName = navDb.vrfIdToName(vrfId);
    return vrfName ? *vrfName : L3::VrfName();
}

inline Ipsec::ConnectionKey connectionKeyOf(const NavDb& navDb, const PathKey& pathKey) {
    return {pathKey.srcAddr, pathKey.dstAddr, vrfNameOf(navDb, pathKey.vrfId)};
}
// A VRF without a known id counts as 0.
inline PathKey pathKeyOf(const NavDb& navDb, const Ipsec::ConnectionKey& connection) {
    const U32* vrfId = navDb.vrfNameToId(connection.vrfName);
    return {connection.srcAddr, connection.dstAddr, vrfId ? *vrfId : 0};
}

}  // namespace Nav
