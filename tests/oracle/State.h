// The inputs copied into plain containers, which the oracle computes on, and the content of any
// entities as text, which its result is compared to. Nothing here knows a reactor.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <vector>

#include "nav/root/NavInputs.h"
#include "nav/types/NavDb.h"

namespace Oracle {

using L3::VrfName;
using Netz::IntfId;
using Netz::IpGenAddr;
using Vel::String;
using Vel::U32;
using Vel::U64;

struct Group {
    std::set<IntfId> intfs;
    std::map<IpGenAddr, std::set<IpGenAddr>> sites;  // destinations by site
    String ipsecProfile;
    bool operator==(const Group&) const = default;
};
struct Rule {
    U32 appId;
    String appName;
    String profile;
    bool operator==(const Rule&) const = default;
};
struct Policy {
    std::map<U32, Rule> rules;
    bool hasDefault;
    String defaultProfile;
    U32 version;
    bool operator==(const Policy&) const = default;
};
struct Constraints {
    U32 latency, jitter, lossRate;
    bool operator==(const Constraints&) const = default;
};
struct Profile {
    std::map<String, U32> priorities;
    Constraints constraints;
    bool operator==(const Profile&) const = default;
};
struct Interface {
    IpGenAddr addr;  // zero: none
    VrfName vrf;
    bool operator==(const Interface&) const = default;
};
struct Connection {
    U32 state, encapId;
    bool operator==(const Connection&) const = default;
};

struct Inputs {
    bool configured = false;
    std::map<String, Group> groups;
    std::map<String, Policy> policies;
    std::map<String, Profile> profiles;
    std::map<VrfName, String> bindings;
    std::map<IntfId, Interface> interfaces, interfaces6;
    std::map<VrfName, U32> vrfIds;
    std::map<VrfName, std::map<IpGenAddr, U64>> results;  // FEC ids; a VRF here is resolved
    std::map<U64, std::vector<Shard::Fib::Via>> fecs, fecs6;
    std::map<Ipsec::ConnectionKey, Connection> connections;
    std::map<Nav::HwPathKey, bool> hardware;  // whether the path stands in hardware
    bool operator==(const Inputs&) const = default;
};

Inputs inputsOf(const Nav::NavInputs& in);

// What entities hold, by the places of the control socket: the value of each attribute as JSON, and
// an empty text for each entity and each member of a set.
using Flat = std::map<std::string, std::string>;
void flatten(const Vel::Entity& entity, const std::string& place, Flat& out);
std::string json(const Vel::Datum& value);

// What is there without a reason of its own: the roots, and the entities that hold the entries of a
// VRF, of a profile or of a type of target.
bool isOpen(const std::string& place);

}  // namespace Oracle
