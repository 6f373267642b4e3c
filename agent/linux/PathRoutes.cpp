#include "agent/linux/PathRoutes.h"

#include <algorithm>
#include <map>

#include "agent/router/PathReactors.h"

namespace Agent::Linux {

using Netz::IpGenAddr;

namespace {

// The interfaces of each address in each VRF; several interfaces may have the same address.
std::multimap<std::pair<L3::VrfName, IpGenAddr>, uint32_t> sources(const InterfaceView& view) {
    std::multimap<std::pair<L3::VrfName, IpGenAddr>, uint32_t> sources;
    for (const Interface& interface : view.interfaces)
        for (const auto& addr : {interface.primary4.addr, interface.primary6.addr})
            if (!addr.isZero())
                sources.emplace(std::pair(interface.vrf.name, addr), interface.index);
    return sources;
}

}  // namespace

std::vector<PathQuery> pathQueries(const InterfaceView& view, const Nav::PathConfigDir& paths,
                                   const Routing::NexthopConfig& requested) {
    std::vector<PathQuery> queries;
    const auto interfaces = sources(view);
    for (const Nav::PathConfig& vrf : paths.pathConfig()) {
        const Routing::NexthopVrfConfig* config = requested.vrf(vrf.vrfName());
        if (!config) continue;
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
            const Nav::PathKey& key = path.key();
            if (familiesDiffer(key) || !config->nexthopHas(key.dstAddr)) continue;
            const auto [first, last] = interfaces.equal_range({vrf.vrfName(), key.srcAddr});
            for (auto at = first; at != last; ++at)
                queries.push_back({vrf.vrfName(), {key.dstAddr, key.srcAddr, at->second}});
        }
    }
    return queries;
}

NexthopResolver::ViasByVrf pathVias(const InterfaceView& view, std::span<const PathQuery> queries,
                                    std::span<const RouteResult> results) {
    std::map<std::pair<L3::VrfName, IpGenAddr>, std::vector<RouteVia>> routes;
    for (size_t i = 0; i < queries.size(); ++i) {
        auto& vias = routes[{queries[i].vrf, queries[i].route.destination}];
        vias.insert(vias.end(), results[i].vias.begin(), results[i].vias.end());
    }
    NexthopResolver::ViasByVrf found;
    for (const Vrf& vrf : view.vrfs) found.try_emplace(vrf.name);
    for (auto& [request, routeVias] : routes) {
        std::ranges::sort(routeVias);
        const auto isRepeated = [](const RouteVia& a, const RouteVia& b) {
            return a.hop == b.hop && a.ifIndex == b.ifIndex;
        };
        routeVias.erase(std::unique(routeVias.begin(), routeVias.end(), isRepeated),
                        routeVias.end());
        NexthopResolver::Vias vias;
        for (const RouteVia& via : routeVias) {
            // An interface that has been deleted or is still unknown causes an event itself.
            const Interface* interface = view.at(via.ifIndex);
            if (interface && vias.size() < Shard::Fib::Fec::maxVias)
                vias.push_back({.hop = via.hop, .intfId = interface->name, .weight = via.weight});
        }
        const auto vrf = found.find(request.first);
        if (vrf != found.end() && !vias.empty())
            vrf->second.emplace(request.second, std::move(vias));
    }
    return found;
}

}  // namespace Agent::Linux
