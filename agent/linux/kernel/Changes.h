// Changes of the kernel's forwarding state: collected as values, sent in one batch, each
// acknowledged by itself.
//
// The kernel works through a batch in order and goes on after a refusal; so what must exist comes
// before what uses it. Every change may be repeated: what exists already is replaced or kept, what
// has gone already stays gone, and neither counts as a refusal. Everything bears `ownProtocol`
// where the kernel has room for it, so that a restart finds what the agent made. All of it needs
// CAP_NET_ADMIN. Formats: <linux/rtnetlink.h>, <linux/nexthop.h>, <linux/fib_rules.h>,
// <linux/if_link.h>.
#pragma once

#include <linux/rtnetlink.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/netz/IntfId.h"
#include "platform/netz/IpAddrWithMask.h"

namespace Agent::Linux {

// In rtm_protocol, nh_protocol and FRA_PROTOCOL; not among those of /etc/iproute2/rt_protos.
inline constexpr uint8_t ownProtocol = 110;

// A VXLAN-GPE device that takes tunnel addresses from the route and accepts the VNIs added to it.
struct TunnelLink {
    Netz::IntfId name;
    uint16_t udpPort = 4790;
    uint32_t mtu = 0;     // bytes; 0: the kernel's default
    uint32_t master = 0;  // index of a VRF device; 0: none
};

struct Nexthop {
    struct Tunnel {
        uint32_t vni = 0;
        Netz::IpGenAddr source;
        Netz::IpGenAddr destination;
    };
    uint32_t id = 0;
    uint32_t ifIndex = 0;
    bool v6 = false;                           // the family of the routes that use it
    std::optional<Netz::IpGenAddr> gateway{};  // of that family; on-link without
    std::optional<Tunnel> tunnel{};
};
struct NexthopMember {
    uint32_t id = 0;
    uint8_t weight = 1;  // 1..255
};

// A route to a next-hop object or by a gateway; unreachable without either.
struct Route {
    Netz::IpAddrWithMask prefix;
    uint32_t table = RT_TABLE_MAIN;
    uint32_t metric = 0;
    uint32_t nexthopId = 0;
    std::optional<Netz::IpGenAddr> gateway{};
    uint32_t ifIndex = 0;  // of the gateway
};

// Packets that meet every condition given are looked up in a table.
struct Rule {
    bool v6 = false;
    uint32_t priority = 0;  // identifies the rule together with the conditions
    uint32_t table = 0;
    std::optional<Netz::IpGenAddr> source{};
    uint32_t mark = 0;             // firewall mark; 0: any
    uint8_t ipProtocol = 0;        // 0: any
    uint16_t destinationPort = 0;  // 0: any
};

class Changes {
  public:
    // Each adds a change and returns its position.
    size_t linkIs(const TunnelLink& link);
    size_t linkUp(uint32_t ifIndex, bool up);
    size_t linkDel(uint32_t ifIndex);
    size_t vniIs(uint32_t ifIndex, uint32_t vni);
    size_t addressIs(uint32_t ifIndex, const Netz::IpAddrWithMask& addr);
    size_t nexthopIs(const Nexthop& nexthop);
    size_t nexthopGroupIs(uint32_t id, std::span<const NexthopMember> members);
    size_t nexthopDel(uint32_t id);
    size_t routeIs(const Route& route);
    size_t routeDel(const Route& route);
    size_t ruleIs(const Rule& rule);
    size_t ruleDel(const Rule& rule);

    struct Refusal {
        size_t position;
        int error;           // an errno value; ENOBUFS: no acknowledgement came
        std::string reason;  // the kernel's words, else those of the error
    };
    // Sends all changes and forgets them. Those without a refusal are in effect.
    std::vector<Refusal> commit(RequestSocket& requests);

  private:
    struct Request {
        size_t end;    // of its message in writer_; it begins where the one before ends
        int harmless;  // the error that says that nothing was to be done; 0: none
    };
    size_t added(int harmless = 0);
    template <class Header>
    void begin(uint16_t type, uint16_t flags, const Header& header) {
        writer_.begin(type, static_cast<uint16_t>(flags | NLM_F_ACK), 0, header);
    }
    void route(uint16_t type, uint16_t flags, const Route& route);
    void rule(uint16_t type, uint16_t flags, const Rule& rule);

    MessageWriter writer_;
    std::vector<Request> requests_;
};

}  // namespace Agent::Linux
