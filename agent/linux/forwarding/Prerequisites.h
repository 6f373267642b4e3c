// What forwarding requires of the kernel and the process, tried before anything is changed.
#pragma once

namespace Agent::Linux {

// Raises Vel::Error with the name and the reason of what is missing: CAP_NET_ADMIN, VXLAN, or
// nftables. Changes nothing.
void requireForwarding();

}  // namespace Agent::Linux
