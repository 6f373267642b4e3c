// Changes of the kernel's forwarding state: collected as values, sent in one batch, each
// acknowledged separately.
//
// The kernel processes a batch in order and continues after a refusal; so an object must be created
// before others that use it. Every change may be repeated: an existing object is replaced or kept,
// a missing one stays missing, and neither counts as a refusal. All changes require CAP_NET_ADMIN.
// Formats: <linux/rtnetlink.h>, <linux/nexthop.h>, <linux/fib_rules.h>, <linux/if_link.h>.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/linux/kernel/NetlinkSocket.h"
#include "agent/linux/kernel/Objects.h"

namespace Agent::Linux {

class Changes {
  public:
    // Each adds a change and returns its position.
    //
    // The device is created down, with its port and group; what else a tunnel is comes after, by
    // the index that the kernel gives it.
    size_t tunnelIs(const Tunnel& tunnel);
    size_t linkIs(uint32_t ifIndex, uint32_t mtu, uint32_t master);  // and up
    size_t linkDel(uint32_t ifIndex);
    size_t vniIs(uint32_t ifIndex, uint32_t vni);
    size_t vniDel(uint32_t ifIndex, uint32_t vni);
    size_t addressIs(uint32_t ifIndex, const Netz::IpAddrWithMask& addr);
    size_t addressDel(uint32_t ifIndex, const Netz::IpAddrWithMask& addr);
    // `create`: refused if a next hop has the id already, whosever it is.
    size_t nexthopIs(const Nexthop& nexthop, bool create);
    size_t nexthopGroupIs(const NexthopGroup& group, bool create);
    size_t nexthopDel(uint32_t id);
    // `create`: refused if the table has a route with this prefix and metric, whosever it is.
    size_t routeIs(const Route& route, bool create);
    size_t routeDel(const Route::Key& key);
    size_t ruleIs(const Rule& rule);
    size_t ruleDel(const Rule& rule);

    struct Refusal {
        size_t position;
        int error;           // an errno value; ENOBUFS: no acknowledgement was received
        std::string reason;  // the kernel's text, or else that of the error
    };
    // Sends all changes and discards them. Changes without a refusal have taken effect.
    std::vector<Refusal> commit(RequestSocket& requests);

  private:
    struct Request {
        size_t end;    // of its message in writer_; it begins at the end of the previous one
        int harmless;  // the error that means there was nothing to do; 0: none
    };
    size_t added(int harmless = 0);
    template <class Header>
    void begin(uint16_t type, uint16_t flags, const Header& header) {
        writer_.begin(type, static_cast<uint16_t>(flags | NLM_F_ACK), 0, header);
    }
    void vni(uint16_t type, uint16_t flags, uint32_t ifIndex, uint32_t vni);
    void address(uint16_t type, uint16_t flags, uint32_t ifIndex, const Netz::IpAddrWithMask& addr);
    void route(uint16_t type, uint16_t flags, const Route& route);
    void rule(uint16_t type, uint16_t flags, const Rule& rule);

    MessageWriter writer_;
    std::vector<Request> requests_;
};

}  // namespace Agent::Linux
