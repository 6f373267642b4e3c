// The state of every IPv4 and IPv6 neighbour entry, filled by a dump and updated by events.
#pragma once

#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>

#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/netz/IpGenAddr.h"

namespace Agent::Linux {

struct Neighbour {
    uint32_t ifIndex = 0;
    Netz::IpGenAddr addr;

    bool operator==(const Neighbour&) const = default;
    auto operator<=>(const Neighbour&) const = default;
};

class NeighbourState {
  public:
    // Applies a neighbour message of a dump or an event; ignores any other, and proxy entries.
    // Returns whether the neighbour became resolved or unresolved.
    bool apply(const Message& message);

    // Whether the link-layer address is known: REACHABLE, STALE, DELAY, PROBE, PERMANENT or NOARP.
    // So a neighbour that is being confirmed again stays resolved.
    bool resolved(const Neighbour& neighbour) const;
    // Whether the kernel resolves this neighbour by itself: neither PERMANENT nor NOARP.
    bool dynamic(const Neighbour& neighbour) const;

  private:
    struct Hash {
        size_t operator()(const Neighbour& neighbour) const {
            return Netz::hashMix(neighbour.addr.mix(), neighbour.ifIndex);
        }
    };
    uint16_t state(const Neighbour& neighbour) const;

    // The kernel's NUD_... state of each entry it has announced; INCOMPLETE and DELAY are never
    // announced, so an entry without a state here may have either.
    std::unordered_map<Neighbour, uint16_t, Hash> states_;
};

// Requests the kernel to resolve each neighbour as if it had a packet to send to it (NTF_USE): a
// failed neighbour is tried again, a resolved one is confirmed if that is due. Requires
// CAP_NET_ADMIN. Returns the number of refused requests, with the last reason in `reason`.
// REQUIRES: the neighbours are dynamic.
size_t solicit(RequestSocket& requests, std::span<const Neighbour> neighbours, std::string& reason);

}  // namespace Agent::Linux
