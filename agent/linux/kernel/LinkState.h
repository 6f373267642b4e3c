// The host's interfaces: links, their addresses, and their VRFs. Filled by a dump of links and
// addresses, then updated by applying every event in the order of arrival. Links are keyed by
// index, since a name may move to another link.
//
// Users see a value, `InterfaceView`, that compares equal unless something visible changed.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "agent/linux/kernel/NetlinkMessage.h"
#include "platform/netz/IntfId.h"
#include "platform/netz/IpAddrWithMask.h"
#include "platform/netz/VrfName.h"

namespace Agent::Linux {

struct Vrf {
    L3::VrfName name;
    // The number of its routing table; 0 for the VRF "default", and for a VRF whose table another
    // device with a lower index has: that one keeps the number until it is deleted.
    uint32_t id = 0;
    uint32_t index = 0;  // of its device; 0 of the VRF "default"

    bool operator==(const Vrf&) const = default;
};

struct Interface {
    uint32_t index = 0;
    Netz::IntfId name;
    // Administratively up and operational (RFC 2863): IFF_UP, IFF_RUNNING and IFF_LOWER_UP.
    bool up = false;
    uint32_t mtu = 0;    // bytes
    uint32_t group = 0;  // of links, IFLA_GROUP
    // The VRF device that is its master, or the interface itself; otherwise "default", with id 0. A
    // bridge or bond in between hides the VRF from its ports, which have no addresses themselves.
    Vrf vrf;
    // The oldest address of the family that has global scope and is neither secondary, temporary,
    // tentative, a duplicate, deprecated, nor in 127/8; zero ("0.0.0.0/0") if there is none. An
    // interface that is not up shows none, so that its paths come and go with the link.
    Netz::IpAddrWithMask primary4;
    Netz::IpAddrWithMask primary6;
    // The same whether it is up or not.
    Netz::IpAddrWithMask address4;
    Netz::IpAddrWithMask address6;

    bool operator==(const Interface&) const = default;
};

struct InterfaceView {
    std::vector<Interface> interfaces;                // by ascending index
    std::vector<Vrf> vrfs;                            // "default" first, then by ascending index
    std::unordered_map<Netz::IntfId, size_t> byName;  // positions of the interfaces

    // Null if not found.
    const Interface* at(uint32_t index) const;
    const Interface* named(const Netz::IntfId& name) const;

    bool operator==(const InterfaceView&) const = default;
};

class LinkState {
  public:
    // Applies a link or address message of a dump or an event; ignores any other, and any without
    // the required attributes.
    void apply(const Message& message);
    InterfaceView view() const;
    // Whether packets leave this link without a neighbour's link-layer address (IFF_NOARP).
    bool needsNoNeighbour(uint32_t index) const;

  private:
    struct Address {
        Netz::IpAddrWithMask local;
        Netz::IpGenAddr peer;  // part of the identity of an IPv4 address only
        uint32_t flags = 0;
        uint8_t scope = 0;
    };
    struct Link {
        Netz::IntfId name;  // empty while only addresses of this link have been announced
        uint32_t flags = 0;
        uint32_t mtu = 0;
        uint32_t group = 0;
        uint32_t master = 0;
        std::optional<uint32_t> vrfTable;  // of a VRF device
        std::vector<Address> addresses;    // per family in the order in which they became primary
    };

    void applyLink(const Message& message);
    void applyAddress(const Message& message);
    std::map<uint32_t, Vrf> vrfs() const;

    std::map<uint32_t, Link> links_;  // by index
};

}  // namespace Agent::Linux
