#include "agent/linux/forwarding/VrfRoutes.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "agent/linux/kernel/FibLookup.h"
#include "agent/linux/kernel/Objects.h"

namespace Agent::Linux {

namespace {

constexpr int attempts = 4;  // when routes change while they are read

}  // namespace

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
    for (const NetlinkAttribute& attribute : attributesAfter<rtmsg>(message))
        if (attribute.type == RTA_PRIORITY) key.metric = attribute.u32().value_or(0);
    Value gateway;
    for (const RouteVia& via : viasOf(message, key.prefix.addr))
        if (tunnels_.contains(via.ifIndex) && !via.onLink && !gateway) gateway = via.hop;
    return std::pair(key, gateway);
}

bool VrfRoutes::apply(const Message& message) {
    const auto route = parse(message);
    if (!route) return false;
    const auto& [key, gateway] = *route;
    const auto present = routes_.find(key);
    const bool added = message.type == RTM_NEWROUTE;
    if (present == routes_.end() ? !added : added && present->second == gateway) return false;
    if (present != routes_.end()) {
        if (present->second) learned_.erase({key.table, *present->second, key});
        routes_.erase(present);
    }
    if (added) {
        routes_.emplace(key, gateway);
        if (gateway) learned_.insert({key.table, *gateway, key});
    }
    return true;
}

VrfRoutes::Read VrfRoutes::read(RequestSocket& requests, const std::set<uint32_t>& tables,
                                const std::set<uint32_t>& tunnels) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        VrfRoutes fresh;
        fresh.tables_ = tables;
        fresh.tunnels_ = tunnels;
        int error = 0;
        for (const uint32_t table : tables)
            for (const unsigned char family : {AF_INET, AF_INET6}) {
                if (error != 0) break;
                error = requests.dump(
                    [&](MessageWriter& writer, uint32_t sequence) {
                        rtmsg header{};
                        header.rtm_family = family;
                        writer.begin(RTM_GETROUTE, NLM_F_DUMP, sequence, header);
                        writer.attribute(RTA_TABLE, table);
                    },
                    [&](const Message& message) { fresh.apply(message); });
                if (error == ENOENT) error = 0;  // a table that never had a route
            }
        if (error == 0) {
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
        if (!at->second && best(at->first)) prefixes.insert(at->first.prefix);
    return prefixes;
}

}  // namespace Agent::Linux
