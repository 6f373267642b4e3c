// The simulated router and network as data: what there is, where packets to an address go, and who
// answers after how long. State only; the services of Router react to it.
//
// It is read from a world file (docs/world-file.md), which also tells how the world changes with
// time. A file that does not describe a possible world is refused whole.
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

// What is wrong with an IPsec peer. One that refuses says so; one that is silent lets the other
// side find out.
enum class Fault : U32 { none, refuses, silent };
VEL_ENUM(Fault, none, refuses, silent)

struct World {
    struct Interface {
        L3::VrfName vrf{"default"};
        Netz::IpAddrWithMask v4;  // zero: none; so is v6
        Netz::IpAddrWithMask v6;
        bool up = true;
        std::map<Netz::IpGenAddr, Duration> neighbours;  // each answers so long after it is asked
    };

    struct Via {
        Netz::IpGenAddr gateway;  // zero: on link
        Netz::IntfId interface;
        U32 weight = 1;

        auto operator<=>(const Via&) const = default;
    };
    using Vias = std::vector<Via>;

    struct Peer {
        Duration handshake = std::chrono::milliseconds(100);
        Duration retry = std::chrono::milliseconds(1000);  // after a handshake that failed
        Duration rekeyInterval{};                          // 0: never
        Duration rekeyGap{};                               // not established for so long meanwhile
        bool rekeyChangesEncapId = false;
        Duration lifetime{};  // of a connection that is not rekeyed; 0: for ever
        Fault fault = Fault::none;
    };

    struct Vrf {
        U32 id = 0;  // 0: not known yet, except of "default"
        std::map<Netz::IpAddrWithMask, Vias> routes;
        std::map<Netz::IpGenAddr, Peer> peers;
    };

    Duration programmingDelay = std::chrono::milliseconds(10);  // of a path, in hardware
    std::map<Netz::IntfId, Interface> interfaces;
    std::map<L3::VrfName, Vrf> vrfs{{L3::VrfName("default"), Vrf{}}};

    bool up(const Netz::IntfId& interface) const;
    // The vias of the longest prefix that has one whose interface is up: the networks of the VRF's
    // own interfaces and its routes. The gateway of a via on link is the address itself. Empty:
    // there is no way to the address.
    Vias lookup(const L3::VrfName& vrf, const Netz::IpGenAddr& addr) const;
    // Null where nobody is.
    const Peer* peer(const L3::VrfName& vrf, const Netz::IpGenAddr& addr) const;
    // How long it takes to resolve a next hop; nothing if nobody answers or the interface is down.
    std::optional<Duration> neighbourDelay(const Netz::IntfId& interface,
                                           const Netz::IpGenAddr& hop) const;
};

// A world and what becomes of it, in order of time since the start.
struct History {
    struct Step {
        Duration at;
        World world;
    };
    World first;
    std::vector<Step> steps;
};

// Throws PlacedError.
History readHistory(const Json& file);
// Throws JsonError, its text beginning with the file's name and the line.
History readHistoryFile(const std::string& name);

}  // namespace Agent::Sim
