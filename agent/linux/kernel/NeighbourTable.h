// Which neighbours the kernel can send to: the state of every IPv4 and IPv6 neighbour entry, by
// dump and then by events.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
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

class NeighbourTable {
  public:
    // Takes in a neighbour message, of a dump or an event; ignores any other. Returns whether that
    // made a neighbour resolved or unresolved. What the kernel does to confirm a neighbour it can
    // send to (REACHABLE, STALE, PROBE) is no such change.
    bool apply(const Message& message);

    // Whether the link-layer address is known: REACHABLE, STALE, DELAY, PROBE, PERMANENT or NOARP.
    bool resolved(const Neighbour& neighbour) const;
    // The kernel's NUD_... state; nothing if it has told of no entry. It keeps an entry it has only
    // begun to resolve (INCOMPLETE) to itself.
    std::optional<uint16_t> state(const Neighbour& neighbour) const;

  private:
    struct Hash {
        size_t operator()(const Neighbour& neighbour) const {
            return Netz::hashMix(neighbour.addr.mix(), neighbour.ifIndex);
        }
    };
    std::unordered_map<Neighbour, uint16_t, Hash> states_;
};

// Has the kernel resolve each neighbour as if there were a packet to send to it; a failed one is
// tried anew, for a resolved one nothing happens unless it is due to be confirmed. Needs
// CAP_NET_ADMIN. Returns how many requests were refused, with the last reason in `reason`.
size_t solicit(RequestSocket& requests, std::span<const Neighbour> neighbours, std::string& reason);

}  // namespace Agent::Linux
