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

struct PathQuery {
    L3::VrfName vrf;
    RouteQuery route;

    bool operator==(const PathQuery&) const = default;
};

// One query for each path whose destination is requested and whose source address is that of an
// interface in the path's VRF. None for a path whose families differ. Those of a VRF are adjacent.
std::vector<PathQuery> pathQueries(const InterfaceView& view, const Nav::PathConfigDir& paths,
                                   const Routing::NexthopConfig& requested);

// The vias of each address according to the results of its queries, one for each in their order.
// Sorted by hop and interface, without duplicates; every VRF of the view has an element. A path
// takes the last via through its own interface, which in this order stays the same as long as it
// exists.
NexthopResolver::ViasByVrf pathVias(const InterfaceView& view, std::span<const PathQuery> queries,
                                    std::span<const RouteResult* const> results);

}  // namespace Agent::Linux
