// Why a path carries no traffic, in words for an operator, read off the published state that shows
// it: for the log, and for whoever asks.
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

// The first thing that is missing, from the configuration to the next hop; empty if nothing is.
// `linkUp`: whether the local interface is up, nothing if that is not known.
std::string reasonDown(const Nav::NavInputs& inputs, const PathIdentity& path,
                       std::optional<bool> linkUp);

}  // namespace Agent
