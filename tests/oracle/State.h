// The content of the inputs and of what is published, copied into plain containers: what the oracle
// computes on. Nothing here knows a reactor.
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
VEL_VALUE(Oracle, Constraints, latency, jitter, lossRate)
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

struct Path {
    U32 index;
    String ipsecProfile;
    Nav::PathType type;
};
struct PathInfo {
    U32 index;
    Nav::SiteGroupKey siteGroup;
    String ipsecProfile;
    VrfName vrf;
};
struct Status {
    Nav::HwPathInfo info;
    U32 encapId;
    bool programmed;
};
struct Request {
    String profile;
    IntfId intf;
    String name;
    bool operator==(const Request&) const = default;
};
struct Balance {
    U32 generation, id;
    Constraints constraints;
    std::map<U32, Nav::PathWithPriority> members;
};
struct FeaturePolicy {
    std::map<U32, String> applications;
    U32 version;
};
struct GroupInfo {
    std::set<Nav::PathKey> paths;
    std::set<IpGenAddr> sites;
};

struct Published {
    std::map<VrfName, std::map<Nav::PathKey, Path>> paths;
    std::map<VrfName, std::map<Nav::PathKey, Status>> statuses;
    std::map<Nav::SiteGroupKey, std::set<U32>> siteGroups;
    std::map<VrfName, std::set<IpGenAddr>> nexthops;
    std::map<Ipsec::ConnectionKey, Request> requests;
    std::set<IpGenAddr> sites;
    std::map<VrfName, std::set<Nav::NavRuleEntry>> rules;
    std::map<Nav::LbProfileKey, Balance> balances;
    std::map<String, FeaturePolicy> featurePolicies;
    std::map<VrfName, String> appliedPolicies;

    struct Database {
        std::map<Nav::PathKey, PathInfo> paths;
        std::map<IpGenAddr, std::set<Nav::PathKey>> pathsOfAddr;
        std::map<IpGenAddr, IntfId> intfOf;
        std::map<String, GroupInfo> groups;
        std::map<VrfName, U32> vrfId;
        std::map<U32, VrfName> vrfName;
        std::map<Nav::VrfAppKey, Nav::VrfApp> applications;
        std::map<String, std::set<Nav::LbProfileKey>> keysOfProfile;  // those that are not empty
    };
    std::optional<Database> db;
};

Inputs inputsOf(const Nav::NavInputs& in);
Published publishedIn(const Nav::NavInputs& in, const Nav::NavDb* db);

}  // namespace Oracle
