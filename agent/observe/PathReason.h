// Why a path carries no traffic: the first unmet condition, from the configuration to the
// forwarding side, with the state that shows it. The one place where reasons are computed; the log,
// events, requests and tables share it.
#pragma once

#include <string>
#include <vector>

#include "agent/router/Platform.h"
#include "nav/root/NavInputs.h"
#include "nav/types/NavDb.h"

namespace Agent {

// A path as the configuration asks for it, whether it exists or not.
struct ConfiguredPath {
    Nav::SiteGroupKey site;  // with the path group
    Netz::IntfId interface;  // the local one
    Netz::IpGenAddr destination;

    auto operator<=>(const ConfiguredPath&) const = default;
};

// Group by group: each interface with each destination.
std::vector<ConfiguredPath> configuredPaths(const Nav::NavCliConfig& config);

// "interface wan1 is down", and what shows it, a path of the tree or a command:
// "/ipStatusDir/ipIntfStatus[wan1]". Both are empty if there is no reason.
struct Reason {
    std::string text, shownBy;

    bool operator==(const Reason&) const = default;
};

// What has become of a configured path.
struct PathState {
    Nav::PathKey key;    // the source is zero while the interface has no address
    L3::VrfName vrf;     // of the interface
    Vel::U32 index = 0;  // 0: path selection has not set it up
    bool up = false;
    Shard::Fib::Via via;  // of a path that is up
    Reason reason;        // why it is not up
    std::string remark;   // what a path that is up lacks; usually empty

    // "Path3", or "-" without an index.
    std::string name() const;
};

// `database`: null while path selection is switched off.
PathState stateOf(const Nav::NavInputs& inputs, const Nav::NavDb* database,
                  const Platform& platform, const ConfiguredPath& path);

// What is measured of a path; null if nothing is.
const PathQuality* qualityOf(const Platform& platform, Vel::U32 index);

// The member paths that carry the traffic of a load-balance id, by index, ascending.
std::vector<Vel::U32> carriersOf(const Platform& platform, const Nav::LbProfileStatusEntry& entry);

// "Path1, Path3", or "no path".
std::string pathNames(const std::vector<Vel::U32>& indices);
// The names of ids; the number where the database has none.
std::string vrfName(const Nav::NavDb* database, Vel::U32 vrfId);
std::string applicationName(const Nav::NavDb* database, Vel::U32 vrfId, Vel::U32 appId);

// "Path3 203.0.113.1 -> 198.51.100.2 (internet, 10.255.0.2)"; of a path without an index
// "wan1 -> 198.51.100.2 (internet, 10.255.0.2)"
std::string describe(const ConfiguredPath& path, const PathState& state);

}  // namespace Agent
