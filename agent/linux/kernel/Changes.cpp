#include "agent/linux/kernel/Changes.h"

#include <arpa/inet.h>
#include <endian.h>
#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/lwtunnel.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Agent::Linux {

namespace {

unsigned char familyOf(const Netz::IpGenAddr& addr) {
    return addr.isV4() ? AF_INET : AF_INET6;
}

ifinfomsg linkHeader(uint32_t ifIndex) {
    ifinfomsg header{};
    header.ifi_index = static_cast<int>(ifIndex);
    return header;
}

// A group's flows are spread over so many buckets; a bucket without packets for the idle time may
// move to a member that has fewer than its share. More would spread flows more evenly, but when a
// next hop is replaced, the kernel visits each bucket of all its groups.
constexpr uint16_t groupBuckets = 32;
constexpr uint32_t groupIdleTime = 100;  // in the 1/100 s of USER_HZ

// Of a request that makes an object, or replaces it.
constexpr uint16_t creation(bool create) {
    return NLM_F_CREATE | (create ? NLM_F_EXCL : NLM_F_REPLACE);
}

uint8_t routeType(Route::Action action) {
    switch (action) {
        case Route::Action::unreachable:
            return RTN_UNREACHABLE;
        case Route::Action::next:
            return RTN_THROW;
        case Route::Action::nexthop:
        case Route::Action::via:
            break;
    }
    return RTN_UNICAST;
}

nhmsg nexthopHeader(unsigned char family) {
    nhmsg header{};
    header.nh_family = family;
    header.nh_protocol = ownProtocol;
    return header;
}

}  // namespace

size_t Changes::added(int harmless) {
    requests_.push_back({writer_.bytes().size(), harmless});
    return requests_.size() - 1;
}

size_t Changes::tunnelIs(const Tunnel& tunnel) {
    begin(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, linkHeader(0));
    writer_.attribute(IFLA_IFNAME, tunnel.name.str());
    writer_.attribute(IFLA_GROUP, ownLinkGroup);
    writer_.nested(IFLA_LINKINFO, [&] {
        writer_.attribute(IFLA_INFO_KIND, std::string_view("vxlan"));
        writer_.nested(IFLA_INFO_DATA, [&] {
            writer_.attribute(IFLA_VXLAN_PORT, htons(tunnel.udpPort));
            writer_.attribute(IFLA_VXLAN_COLLECT_METADATA, uint8_t{1});
            writer_.attribute(IFLA_VXLAN_VNIFILTER, uint8_t{1});
            writer_.attribute(IFLA_VXLAN_LEARNING, uint8_t{0});
            writer_.attribute(IFLA_VXLAN_GPE, Bytes());
        });
    });
    return added();
}

size_t Changes::linkIs(uint32_t ifIndex, uint32_t mtu, uint32_t master) {
    ifinfomsg header = linkHeader(ifIndex);
    header.ifi_flags = IFF_UP;
    header.ifi_change = IFF_UP;
    begin(RTM_NEWLINK, 0, header);
    writer_.attribute(IFLA_MTU, mtu);
    writer_.attribute(IFLA_MASTER, master);
    return added();
}

size_t Changes::linkDel(uint32_t ifIndex) {
    begin(RTM_DELLINK, 0, linkHeader(ifIndex));
    return added(ENODEV);
}

void Changes::vni(uint16_t type, uint16_t flags, uint32_t ifIndex, uint32_t vni) {
    tunnel_msg header{};
    header.family = PF_BRIDGE;
    header.ifindex = ifIndex;
    begin(type, flags, header);
    writer_.nested(VXLAN_VNIFILTER_ENTRY,
                   [&] { writer_.attribute(VXLAN_VNIFILTER_ENTRY_START, vni); });
}

size_t Changes::vniIs(uint32_t ifIndex, uint32_t vni) {
    this->vni(RTM_NEWTUNNEL, NLM_F_CREATE, ifIndex, vni);
    return added(EEXIST);
}

size_t Changes::vniDel(uint32_t ifIndex, uint32_t vni) {
    this->vni(RTM_DELTUNNEL, 0, ifIndex, vni);
    return added(ENOENT);
}

// With a route for the subnet, scope link: by it the kernel accepts the routers of other sites as
// gateways of a routing daemon's routes. More specific routes lead to them.
void Changes::address(uint16_t type, uint16_t flags, uint32_t ifIndex,
                      const Netz::IpAddrWithMask& addr) {
    ifaddrmsg header{};
    header.ifa_family = familyOf(addr.addr);
    header.ifa_prefixlen = static_cast<uint8_t>(addr.prefixLength);
    header.ifa_index = ifIndex;
    begin(type, flags, header);
    writer_.attribute(IFA_LOCAL, addr.addr);
    writer_.attribute(IFA_ADDRESS, addr.addr);
    if (type == RTM_NEWADDR) writer_.attribute(IFA_FLAGS, uint32_t{IFA_F_NODAD});
}

size_t Changes::addressIs(uint32_t ifIndex, const Netz::IpAddrWithMask& addr) {
    address(RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, ifIndex, addr);
    return added();
}

size_t Changes::addressDel(uint32_t ifIndex, const Netz::IpAddrWithMask& addr) {
    address(RTM_DELADDR, 0, ifIndex, addr);
    return added(EADDRNOTAVAIL);
}

// Of family AF_INET6, which routes of both families can use.
size_t Changes::nexthopIs(const Nexthop& nexthop, bool create) {
    begin(RTM_NEWNEXTHOP, creation(create), nexthopHeader(AF_INET6));
    writer_.attribute(NHA_ID, nexthop.id);
    writer_.attribute(NHA_OIF, nexthop.ifIndex);
    const bool v4 = nexthop.destination.isV4();
    writer_.attribute(NHA_ENCAP_TYPE,
                      static_cast<uint16_t>(v4 ? LWTUNNEL_ENCAP_IP : LWTUNNEL_ENCAP_IP6));
    writer_.nested(NHA_ENCAP, [&] {
        writer_.attribute(v4 ? +LWTUNNEL_IP_ID : +LWTUNNEL_IP6_ID, uint64_t{htobe64(nexthop.vni)});
        writer_.attribute(v4 ? +LWTUNNEL_IP_SRC : +LWTUNNEL_IP6_SRC, nexthop.source);
        writer_.attribute(v4 ? +LWTUNNEL_IP_DST : +LWTUNNEL_IP6_DST, nexthop.destination);
        // Receivers of UDP over IPv6 drop packets without a checksum (RFC 8200, 8.1).
        if (!v4) writer_.attribute(LWTUNNEL_IP6_FLAGS, uint16_t{TUNNEL_CSUM});
    });
    return added();
}

size_t Changes::nexthopGroupIs(const NexthopGroup& group, bool create) {
    std::vector<nexthop_grp> members;
    for (const auto& member : group.members) {
        nexthop_grp entry{};
        entry.id = member.id;
        entry.weight = static_cast<uint8_t>(member.weight - 1);
        members.push_back(entry);
    }
    begin(RTM_NEWNEXTHOP, creation(create), nexthopHeader(AF_UNSPEC));
    writer_.attribute(NHA_ID, group.id);
    writer_.attribute(NHA_GROUP, std::as_bytes(std::span(members)));
    writer_.attribute(NHA_GROUP_TYPE, uint16_t{NEXTHOP_GRP_TYPE_RES});
    writer_.nested(NHA_RES_GROUP, [&] {
        if (create) writer_.attribute(NHA_RES_GROUP_BUCKETS, groupBuckets);
        writer_.attribute(NHA_RES_GROUP_IDLE_TIMER, groupIdleTime);
    });
    return added();
}

size_t Changes::nexthopDel(uint32_t id) {
    begin(RTM_DELNEXTHOP, 0, nhmsg{});
    writer_.attribute(NHA_ID, id);
    return added(ENOENT);
}

void Changes::route(uint16_t type, uint16_t flags, const Route& route) {
    rtmsg header{};
    header.rtm_family = familyOf(route.prefix.addr);
    header.rtm_dst_len = static_cast<uint8_t>(route.prefix.prefixLength);
    header.rtm_protocol = ownProtocol;
    header.rtm_type = type == RTM_DELROUTE ? uint8_t{RTN_UNSPEC} : routeType(route.action);
    if (type == RTM_DELROUTE) header.rtm_scope = RT_SCOPE_NOWHERE;  // any
    // The gateway is on the link whatever the main table knows of it.
    if (!route.gateway.isZero())
        header.rtm_flags = RTNH_F_ONLINK;
    else if (route.action == Route::Action::via)
        header.rtm_scope = RT_SCOPE_LINK;
    begin(type, flags, header);
    writer_.attribute(RTA_DST, route.prefix.addr);
    writer_.attribute(RTA_TABLE, route.table);
    writer_.attribute(RTA_PRIORITY, route.metric);
    if (route.action == Route::Action::nexthop) writer_.attribute(RTA_NH_ID, route.nexthopId);
    if (route.action != Route::Action::via) return;
    if (!route.gateway.isZero()) writer_.attribute(RTA_GATEWAY, route.gateway);
    writer_.attribute(RTA_OIF, route.ifIndex);
}

size_t Changes::routeIs(const Route& route, bool create) {
    this->route(RTM_NEWROUTE, creation(create), route);
    return added();
}

size_t Changes::routeDel(const Route::Key& key) {
    route(RTM_DELROUTE, 0, {key.table, key.prefix, key.metric});
    return added(ESRCH);
}

void Changes::rule(uint16_t type, uint16_t flags, const Rule& rule) {
    fib_rule_hdr header{};
    header.family = rule.v6 ? AF_INET6 : AF_INET;
    header.action = FR_ACT_TO_TBL;
    if (!rule.source.isZero()) header.src_len = static_cast<uint8_t>(rule.source.bits());
    begin(type, flags, header);
    writer_.attribute(FRA_PRIORITY, rule.priority);
    writer_.attribute(FRA_TABLE, rule.table);
    writer_.attribute(FRA_PROTOCOL, ownProtocol);
    if (!rule.source.isZero()) writer_.attribute(FRA_SRC, rule.source);
    if (rule.mark != 0) writer_.attribute(FRA_FWMARK, rule.mark);
    if (rule.ipProtocol != 0) writer_.attribute(FRA_IP_PROTO, rule.ipProtocol);
    for (const auto& [type, port] :
         {std::pair<uint16_t, uint16_t>(FRA_SPORT_RANGE, rule.sourcePort),
          {FRA_DPORT_RANGE, rule.destinationPort}}) {
        if (port == 0) continue;
        const fib_rule_port_range range{port, port};
        writer_.attribute(type, std::as_bytes(std::span(&range, 1)));
    }
}

size_t Changes::ruleIs(const Rule& rule) {
    this->rule(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, rule);
    return added(EEXIST);
}

size_t Changes::ruleDel(const Rule& rule) {
    this->rule(RTM_DELRULE, 0, rule);
    return added(ENOENT);
}

std::vector<Changes::Refusal> Changes::commit(RequestSocket& requests) {
    std::vector<std::optional<Refusal>> replies(requests_.size());
    for (size_t i = 0; i < replies.size(); ++i)
        replies[i] = Refusal{i, ENOBUFS, "no acknowledgement"};
    requests.exchange(
        requests_.size(),
        [&](MessageWriter& writer, uint32_t sequence, size_t i) {
            const size_t begin = i == 0 ? 0 : requests_[i - 1].end;
            writer.message(writer_.bytes().subspan(begin, requests_[i].end - begin), sequence);
        },
        [&](size_t i, const Message& message) {
            const int error = errorOf(message);
            if (error == 0 || error == requests_[i].harmless) return replies[i].reset();
            const std::string text(refusalText(message));
            replies[i] = {i, error, text.empty() ? std::strerror(error) : text};
        });
    writer_.clear();
    requests_.clear();
    std::vector<Refusal> refusals;
    for (auto& reply : replies)
        if (reply) refusals.push_back(std::move(*reply));
    return refusals;
}

}  // namespace Agent::Linux
