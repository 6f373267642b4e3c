// The simulated router and network as data: interfaces, VRFs, routes, neighbours and IPsec peers,
// and the times they take to answer. State only; the services of SimRouter react to it.
//
// It is read from a world file (docs/world-file.md), which also describes how the network changes
// over time. A file with any error is refused whole.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "platform/loom/Clock.h"
#include "platform/vel/Value.h"

namespace Agent::Sim {

using Loom::Duration;
using Vel::U32;

// The fault of an IPsec peer: `refuses` answers with an error, `silent` does not answer.
enum class Fault : U32 { none, refuses, silent };
VEL_ENUM(Fault, none, refuses, silent)

struct World {
    // What happens to packets between the two ends of a path. Not scaled by the world's speed.
    struct Quality {
        double delay = 0;   // round trip, ms
        double jitter = 0;  // mean difference of successive round trips, ms; at most 2 * `delay`
        double lossForward = 0, lossBackward = 0;  // percent

        bool operator==(const Quality&) const = default;
    };
    using Qualities = std::map<Netz::IpAddrWithMask, Quality>;

    struct Interface {
        L3::VrfName vrf{"default"};
        Netz::IpAddrWithMask v4;  // zero: no address
        Netz::IpAddrWithMask v6;  // zero: no address
        bool up = true;
        std::map<Netz::IpGenAddr, Duration> neighbours;  // the time that each takes to answer
        // Of paths to these destinations; the longest prefix counts. Other paths are not checked.
        Qualities quality;
    };

    struct Via {
        Netz::IpGenAddr gateway;  // zero: the destination is on link
        Netz::IntfId interface;
        U32 weight = 1;

        auto operator<=>(const Via&) const = default;
    };
    using Vias = std::vector<Via>;

    struct Peer {
        Duration handshake = std::chrono::milliseconds(100);
        Duration retry = std::chrono::milliseconds(1000);  // after a handshake that failed
        Duration rekeyInterval{};                          // 0: never
        Duration rekeyGap{};  // the interruption of the connection by rekeying
        bool rekeyChangesEncapId = false;
        Duration lifetime{};  // of a connection that is not rekeyed; 0: unlimited
        Fault fault = Fault::none;
    };

    struct Vrf {
        U32 id = 0;  // 0: not known yet, except for "default"
        std::map<Netz::IpAddrWithMask, Vias> routes;
        std::map<Netz::IpGenAddr, Peer> peers;
    };

    // As those of the forwarding configuration.
    struct Probe {
        Duration interval = std::chrono::milliseconds(100);  // at least 1 ms
        U32 multiplier = 3;
        Duration window = std::chrono::seconds(10);  // not less than `interval`
        Duration upDelay = std::chrono::seconds(1), downDelay{};
    };

    Probe probe;
    Duration programmingDelay = std::chrono::milliseconds(10);  // of a path in the hardware
    std::map<Netz::IntfId, Interface> interfaces;
    std::map<L3::VrfName, Vrf> vrfs{{L3::VrfName("default"), Vrf{}}};

    bool up(const Netz::IntfId& interface) const;
    // Longest-prefix match over the networks of the VRF's interfaces and its routes. Only vias
    // whose interface is up are considered, and a prefix without such a via is skipped. The gateway
    // of an on-link via is the address itself. Empty if no route matches.
    Vias lookup(const L3::VrfName& vrf, const Netz::IpGenAddr& addr) const;
    // Null if the VRF has no peer with this address.
    const Peer* peer(const L3::VrfName& vrf, const Netz::IpGenAddr& addr) const;
    // Null if a path through this interface to this destination is not checked.
    const Quality* quality(const Netz::IntfId& interface, const Netz::IpGenAddr& addr) const;
    // The time that resolving a next hop takes; nullopt if it does not answer or the interface is
    // down.
    std::optional<Duration> neighbourDelay(const Netz::IntfId& interface,
                                           const Netz::IpGenAddr& hop) const;
};

// A world and its changes over time.
struct History {
    struct Step {
        Duration at;  // since the start; never less than that of the step before
        World world;
    };
    World first;
    std::vector<Step> steps;
};

// Throws PlacedError for a member that is unknown, of another type, out of range, or inconsistent.
History readHistory(const Json& file);
// Throws JsonError; its text begins with the file's name and the line.
History readHistoryFile(const std::string& name);

}  // namespace Agent::Sim
