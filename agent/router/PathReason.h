// The reason why a path carries no traffic, in words for an operator, derived from the published
// state. Used by the log and by requests.
#pragma once

#include <optional>
#include <string>

#include "nav/root/NavInputs.h"

namespace Agent {

// One path, configured or not.
struct PathIdentity {
    Nav::PathKey key;
    L3::VrfName vrf;
    Nav::SiteGroupKey site;  // with the path group
    Netz::IntfId interface;  // the local one
    Vel::U32 index = 0;

    // "Path3 203.0.113.1 -> 198.51.100.2 (internet, 10.255.0.2)"
    std::string text() const;
};

// The first unmet condition, from the configuration to the next hop; empty if all are met.
// `linkUp`: whether the local interface is up, empty if that is not known.
std::string reasonDown(const Nav::NavInputs& inputs, const PathIdentity& path,
                       std::optional<bool> linkUp);

}  // namespace Agent
