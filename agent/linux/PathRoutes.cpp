#include "agent/linux/PathRoutes.h"

#include <algorithm>
#include <map>

#include "agent/router/PathReactors.h"

namespace Agent::Linux {

using Netz::IpGenAddr;

namespace {

// The interfaces of each address in a VRF; several interfaces may have the same address.
std::multimap<IpGenAddr, uint32_t> sources(const InterfaceView& view, const L3::VrfName& vrf) {
    std::multimap<IpGenAddr, uint32_t> sources;
    for (const Interface& interface : view.interfaces)
        if (interface.vrf.name == vrf)
            for (const auto& addr : {interface.primary4.addr, interface.primary6.addr})
                if (!addr.isZero()) sources.emplace(addr, interface.index);
    return sources;
}

}  // namespace

std::vector<PathQuery> pathQueries(const InterfaceView& view, const Nav::PathConfigDir& paths,
                                   const Routing::NexthopConfig& requested) {
    std::vector<PathQuery> queries;
    for (const Nav::PathConfig& vrf : paths.pathConfig()) {
        const Routing::NexthopVrfConfig* config = requested.vrf(vrf.vrfName());
        if (!config) continue;
        const auto interfaces = sources(view, vrf.vrfName());
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
            const Nav::PathKey& key = path.key();
            if (familiesDiffer(key) || !config->nexthopHas(key.dstAddr)) continue;
            const auto [first, last] = interfaces.equal_range(key.srcAddr);
            for (auto at = first; at != last; ++at)
                queries.push_back({vrf.vrfName(), {key.dstAddr, key.srcAddr, at->second}});
        }
    }
    return queries;
}

NexthopResolver::ViasByVrf pathVias(const InterfaceView& view, std::span<const PathQuery> queries,
                                    std::span<const RouteResult* const> results) {
    using Leg = std::pair<IpGenAddr, RouteVia>;  // of the route to a destination
    const auto sameHop = [](const Leg& a, const Leg& b) {
        return a.first == b.first && a.second.hop == b.second.hop &&
               a.second.ifIndex == b.second.ifIndex;
    };
    NexthopResolver::ViasByVrf found;
    for (const Vrf& vrf : view.vrfs) found.try_emplace(vrf.name);
    std::vector<Leg> legs;
    for (size_t i = 0; i < queries.size();) {
        const L3::VrfName& vrf = queries[i].vrf;
        legs.clear();
        for (; i < queries.size() && queries[i].vrf == vrf; ++i)
            for (RouteVia via : results[i]->vias) {
                if (via.hop.isZero()) via.hop = queries[i].route.destination;
                legs.emplace_back(queries[i].route.destination, via);
            }
        const auto resolved = found.find(vrf);
        if (resolved == found.end()) continue;
        std::ranges::sort(legs);
        legs.erase(std::unique(legs.begin(), legs.end(), sameHop), legs.end());
        for (const auto& [destination, via] : legs) {
            // An interface that has been deleted or is still unknown causes an event itself.
            const Interface* interface = view.at(via.ifIndex);
            if (!interface) continue;
            const auto last = resolved->second.end();
            auto& vias = resolved->second.try_emplace(last, destination)->second;
            if (vias.size() < Shard::Fib::Fec::maxVias)
                vias.push_back({.hop = via.hop, .intfId = interface->name, .weight = via.weight});
        }
    }
    return found;
}

}  // namespace Agent::Linux
