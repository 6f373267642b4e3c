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

// The vias of a destination by the routes of its paths.
NexthopResolver::Vias viasTo(const IpGenAddr& destination, const InterfaceView& view,
                             std::span<const RouteResult* const> routes) {
    std::vector<RouteVia> legs;
    for (const RouteResult* route : routes)
        for (RouteVia via : route->vias) {
            if (via.hop.isZero()) via.hop = destination;
            legs.push_back(via);
        }
    std::ranges::sort(legs);
    const auto sameHop = [](const RouteVia& a, const RouteVia& b) {
        return a.hop == b.hop && a.ifIndex == b.ifIndex;
    };
    legs.erase(std::unique(legs.begin(), legs.end(), sameHop), legs.end());
    NexthopResolver::Vias vias;
    for (const RouteVia& via : legs) {
        // An interface that has been deleted or is still unknown causes an event itself.
        const Interface* interface = view.at(via.ifIndex);
        if (!interface) continue;
        if (vias.size() < Shard::Fib::Fec::maxVias)
            vias.push_back({.hop = via.hop, .intfId = interface->name, .weight = via.weight});
    }
    return vias;
}

// Whether the vias by this route are the same for every destination.
bool leadsToGateways(const RouteResult* route) {
    return std::ranges::none_of(route->vias, &IpGenAddr::isZero, &RouteVia::hop);
}

}  // namespace

PathQueries pathQueries(const InterfaceView& view, const Nav::PathConfigDir& paths,
                        const Routing::NexthopConfig& requested) {
    PathQueries queries;
    for (const Nav::PathConfig& vrf : paths.pathConfig()) {
        const Routing::NexthopVrfConfig* config = requested.vrf(vrf.vrfName());
        if (!config) continue;
        const size_t begin = queries.routes.size();
        const auto interfaces = sources(view, vrf.vrfName());
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
            const Nav::PathKey& key = path.key();
            if (familiesDiffer(key) || !config->nexthopHas(key.dstAddr)) continue;
            const auto [first, last] = interfaces.equal_range(key.srcAddr);
            for (auto at = first; at != last; ++at)
                queries.routes.push_back({key.dstAddr, key.srcAddr, at->second});
        }
        const size_t end = queries.routes.size();
        if (begin == end) continue;
        std::ranges::stable_sort(std::span(queries.routes).subspan(begin), {},
                                 &RouteQuery::destination);
        queries.vrfs.push_back({vrf.vrfName(), end});
    }
    return queries;
}

NexthopResolver::Routes pathRoutes(const InterfaceView& view, const PathQueries& queries,
                                   std::span<const RouteResult* const> results) {
    NexthopResolver::Routes found;
    for (const Vrf& vrf : view.vrfs) found.vrfs.try_emplace(vrf.name);
    // Of the destination before: its results, its list, and whether another one may have the list.
    std::span<const RouteResult* const> last;
    size_t list = 0;
    bool shared = false;
    size_t i = 0;
    for (const auto& [vrf, end] : queries.vrfs) {
        auto& routes = found.vrfs[vrf];
        routes.reserve(end - i);
        while (i < end) {
            const IpGenAddr& destination = queries.routes[i].destination;
            size_t next = i + 1;
            while (next < end && queries.routes[next].destination == destination) ++next;
            const auto own = results.subspan(i, next - i);
            if (!shared || !std::ranges::equal(own, last)) {
                list = found.add(viasTo(destination, view, own));
                shared = std::ranges::all_of(own, leadsToGateways);
            }
            if (!found.lists[list].empty()) routes.push_back({destination, list});
            last = own;
            i = next;
        }
    }
    return found;
}

}  // namespace Agent::Linux
