// What the kernel forwards, as `navctl show forwarding` shows it: an object of
//
//     tunnels       [{device, vrf, vni, port, mtu, address, programmed}]
//     paths         [{path, source, destination, vrf, interface, gateway, programmed, nexthops}]
//     applications  [{vrf, application, id, mark}]
//     sites         [{site, vrf, application, id, prefixes, group, paths}]
//     refused       [{object, reason}]
//
// `path` is "Path" and the index; `vrf` of a path is that of its WAN interface. A site has an entry
// for each application of each VRF; `paths` are those that carry it, empty if it is unreachable.
// `application` is null if the configuration does not describe it, "default" for the packets that
// no other application takes; `id` is null where the policy has no rule for these. The platform
// adds `probes`, the counts of PathProbing::report().
#pragma once

#include "agent/base/Json.h"
#include "agent/linux/forwarding/Forwarding.h"

namespace Agent::Linux {

Json reportOf(const Nav::NavInputs& inputs, const ForwardingConfig& config, Forwarding& forwarding);

}  // namespace Agent::Linux
