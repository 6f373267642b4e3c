// What a platform knows of the router's VRFs and interfaces, written into the inputs that tell path
// selection of them.
#pragma once

#include <map>

#include "nav/root/NavInputs.h"

namespace Agent {

struct RouterStatus {
    struct Interface {
        L3::VrfName vrf{"default"};
        Netz::IpAddrWithMask v4;  // the primary address; zero: none; so is v6
        Netz::IpAddrWithMask v6;
    };

    std::map<L3::VrfName, Vel::U32> vrfIds;  // 0: not known yet, except of "default"
    std::map<Netz::IntfId, Interface> interfaces;

    // Makes the inputs say this, by the changes that it takes and no others, all that goes away
    // first. An interface is never shown with an address in a VRF where it does not have it.
    void publish(const Nav::NavInputs& inputs) const;
};

}  // namespace Agent
