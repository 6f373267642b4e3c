// The routes of paths: each configured path is looked up with its own source address and output
// interface, so that rules by source, default routes of several metrics and the tables of VRFs
// apply as they do to its packets. The vias of an address are the union of its paths' vias.
//
// Pure functions between interfaces and path configuration on one side and the next-hop resolver on
// the other.
#pragma once

#include <span>
#include <vector>

#include "agent/linux/kernel/FibLookup.h"
#include "agent/linux/kernel/LinkState.h"
#include "agent/router/NexthopResolver.h"

namespace Agent::Linux {

struct PathQueries {
    struct Vrf {
        L3::VrfName name;
        size_t end;  // its queries begin where those of the previous one end

        bool operator==(const Vrf&) const = default;
    };
    std::vector<Vrf> vrfs;
    std::vector<RouteQuery> routes;  // in a VRF by ascending destination

    bool operator==(const PathQueries&) const = default;
};

// One query for each path whose destination is requested and whose source address is that of an
// interface in the path's VRF. None for a path whose families differ.
PathQueries pathQueries(const InterfaceView& view, const Nav::PathConfigDir& paths,
                        const Routing::NexthopConfig& requested);

// The routes to all destinations according to the results of the queries, one for each in their
// order. The vias of a list are sorted by hop and interface, without duplicates; every VRF of the
// view has an element. A path takes the last via through its own interface, which in this order
// stays the same as long as it exists.
NexthopResolver::Routes pathRoutes(const InterfaceView& view, const PathQueries& queries,
                                   std::span<const RouteResult* const> results);

}  // namespace Agent::Linux
