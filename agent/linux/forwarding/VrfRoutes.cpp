#include "agent/linux/forwarding/VrfRoutes.h"

#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "agent/linux/kernel/Objects.h"

namespace Agent::Linux {

namespace {

constexpr int attempts = 4;  // when routes change while they are read

}  // namespace

// The gateway of vias into a tunnel.
std::optional<Netz::IpGenAddr> VrfRoutes::tunnelled(const std::vector<RouteVia>& vias) const {
    for (const RouteVia& via : vias)
        if (tunnels_.contains(via.ifIndex) && !via.hop.isZero()) return via.hop;
    return {};
}

// Nothing for a route of the agent's own, of another table, or that is only a cached exception.
std::optional<std::pair<VrfRoutes::Key, VrfRoutes::Value>> VrfRoutes::parse(
    const Message& message) const {
    const auto header = message.header<rtmsg>();
    if ((message.type != RTM_NEWROUTE && message.type != RTM_DELROUTE) || !header ||
        header->rtm_protocol == ownProtocol || (header->rtm_flags & RTM_F_CLONED) != 0)
        return {};
    const auto entry = fibEntryOf(message);
    if (!entry || !tables_.contains(entry->table)) return {};
    Key key{entry->table, IpPrefix::of(entry->prefix.addr, entry->prefix.prefixLength), 0};
    Value value;
    for (const NetlinkAttribute& attribute : attributesAfter<rtmsg>(message)) {
        if (attribute.type == RTA_PRIORITY) key.metric = attribute.u32().value_or(0);
        if (attribute.type == RTA_NH_ID) value.nexthopId = attribute.u32().value_or(0);
    }
    // The kernel names the vias of an object only if net.ipv4.nexthop_compat_mode is on.
    value.gateway =
        tunnelled(value.nexthopId == 0 ? viasOf(message) : expand(nexthops_, value.nexthopId).vias);
    return std::pair(key, value);
}

void VrfRoutes::insert(const Key& key, const Value& value) {
    routes_.emplace(key, value);
    if (value.gateway) learned_.insert({key.table, *value.gateway, key});
    if (value.nexthopId != 0 && !nexthops_.contains(value.nexthopId)) outdated_ = true;
}

void VrfRoutes::erase(std::map<Key, Value>::iterator route) {
    const auto& [key, value] = *route;
    if (value.gateway) learned_.erase({key.table, *value.gateway, key});
    routes_.erase(route);
}

bool VrfRoutes::apply(const Message& message) {
    if (message.type == RTM_NEWNEXTHOP || message.type == RTM_DELNEXTHOP)
        return applyNexthop(message);
    const auto route = parse(message);
    if (!route) return false;
    const auto& [key, value] = *route;
    const auto present = routes_.find(key);
    const bool added = message.type == RTM_NEWROUTE;
    if (present == routes_.end() ? !added : added && present->second == value) return false;
    if (present != routes_.end()) erase(present);
    if (added) insert(key, value);
    return true;
}

bool VrfRoutes::applyNexthop(const Message& message) {
    for (const NetlinkAttribute& attribute : attributesAfter<nhmsg>(message))
        if (attribute.type == NHA_ID && nexthops_.contains(attribute.u32().value_or(0)))
            outdated_ = true;
    return false;
}

int VrfRoutes::dump(RequestSocket& requests, uint32_t table, unsigned char family) {
    const int error = requests.dump(
        [&](MessageWriter& writer, uint32_t sequence) {
            rtmsg header{};
            header.rtm_family = family;
            writer.begin(RTM_GETROUTE, NLM_F_DUMP, sequence, header);
            writer.attribute(RTA_TABLE, table);
        },
        [&](const Message& message) { apply(message); });
    return error == ENOENT ? 0 : error;  // a table that never had a route
}

// Gives the routes to next-hop objects their gateways.
void VrfRoutes::resolve(RequestSocket& requests) {
    std::set<uint32_t> ids;
    for (const auto& [key, value] : routes_)
        if (value.nexthopId != 0) ids.insert(value.nexthopId);
    nexthops_ = FibLookup(requests).nexthops(std::vector(ids.begin(), ids.end()));
    outdated_ = false;
    for (auto& [key, value] : routes_) {
        if (value.nexthopId == 0) continue;
        value.gateway = tunnelled(expand(nexthops_, value.nexthopId).vias);
        if (value.gateway) learned_.insert({key.table, *value.gateway, key});
    }
}

VrfRoutes::Read VrfRoutes::read(RequestSocket& requests, const std::set<uint32_t>& tables,
                                const std::set<uint32_t>& tunnels) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        VrfRoutes fresh;
        fresh.tables_ = tables;
        fresh.tunnels_ = tunnels;
        int error = 0;
        for (const uint32_t table : tables)
            for (const unsigned char family : {AF_INET, AF_INET6})
                if (error == 0) error = fresh.dump(requests, table, family);
        if (error == 0) {
            fresh.resolve(requests);
            const bool same = fresh.routes_ == routes_;
            *this = std::move(fresh);
            return same ? Read::same : Read::changed;
        }
        if (error != EAGAIN) break;
    }
    return Read::failed;
}

bool VrfRoutes::best(const Key& key) const {
    return routes_.lower_bound({key.table, key.prefix, 0})->first == key;
}

std::set<IpPrefix> VrfRoutes::learned(uint32_t table, const Netz::IpGenAddr& gateway) const {
    std::set<IpPrefix> prefixes;
    for (auto at = learned_.lower_bound({table, gateway, {}});
         at != learned_.end() && std::get<0>(*at) == table && std::get<1>(*at) == gateway; ++at)
        if (best(std::get<2>(*at))) prefixes.insert(std::get<2>(*at).prefix);
    return prefixes;
}

std::set<IpPrefix> VrfRoutes::others(uint32_t table) const {
    std::set<IpPrefix> prefixes;
    for (auto at = routes_.lower_bound({table, {}, 0});
         at != routes_.end() && at->first.table == table; ++at)
        if (!at->second.gateway && best(at->first)) prefixes.insert(at->first.prefix);
    return prefixes;
}

}  // namespace Agent::Linux
