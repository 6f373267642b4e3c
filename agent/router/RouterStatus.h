// The router's VRFs and interfaces as a platform knows them, and their publication in the inputs of
// path selection.
#pragma once

#include <map>

#include "nav/root/NavInputs.h"

namespace Agent {

struct RouterStatus {
    struct Interface {
        L3::VrfName vrf{"default"};
        Netz::IpAddrWithMask v4;  // the primary address of the family; zero: none
        Netz::IpAddrWithMask v6;

        // The source address of paths, which ipStatusDir shows. An interface without an IPv4
        // address offers its IPv6 address, so that IPv6-only links carry paths too.
        const Netz::IpAddrWithMask& pathAddr() const { return v4.addr.isZero() ? v6 : v4; }
    };

    std::map<L3::VrfName, Vel::U32> vrfIds;  // 0, except for "default": no id (yet)
    std::map<Netz::IntfId, Interface> interfaces;

    // Writes the differences into the inputs, removals first. An interface is never shown with an
    // address in a VRF in which it does not have it.
    void publish(const Nav::NavInputs& inputs) const;
};

}  // namespace Agent
