#include "tests/oracle/Walk.h"

namespace Oracle {

using Vel::Datum;
using Vel::U64;

namespace {
const auto groups = {"g1", "g2", "g3"};
const auto intfs = {"et1", "et2", "et3", "et4"};
const auto addresses = {"203.0.113.1/24", "203.0.113.2/24", "203.0.113.3/24",
                        "203.0.113.3/25", "2001:db8::1/64", "0.0.0.0/0"};
const auto sites = {"10.255.0.1", "10.255.0.2", "10.255.0.3"};
const auto destinations = {"192.0.2.1", "192.0.2.2", "192.0.2.3", "2001:db8:f::1"};
const auto vrfs = {"default", "default", "blue", "red"};
const auto policies = {"p1", "p2"};
const auto profiles = {"gold", "silver", "bronze"};

const Datum entry{Datum::Members{}};

std::string at(const char* collection, const std::string& key) {
    return std::string(collection) + "[" + key + "]";
}
}  // namespace

Event Walk::keep(std::string path, Datum value) {
    return oneIn(4) ? del(std::move(path)) : set(std::move(path), std::move(value));
}

Event Walk::next(const World& world) {
    const bool configured = world.in.cliConfig->navConfigured();
    if (oneIn(configured ? 300 : 10)) return set("/cliConfig/navConfigured", {!configured});
    if (configured && oneIn(500)) {
        Event event = group();
        if (event.op == Event::Op::del || oneIn(2)) event.path = "";
        event.op = Event::Op::restart;
        return event;
    }
    const size_t kind = below(100);
    Event event = kind < 20   ? group()
                  : kind < 30 ? interface()
                  : kind < 36 ? vrf(world)
                  : kind < 50 ? policy(world)
                  : kind < 60 ? balance()
                  : kind < 75 ? route(world)
                  : kind < 85 ? connection(world)
                              : hardware(world);
    event.run = !oneIn(4);
    return event;
}

Event Walk::group() {
    const std::string group = at("/cliConfig/pathGroupConfig", of(groups));
    const std::string site = group + at("/remoteViaConfig", of(sites));
    switch (below(12)) {
        case 0:
            return oneIn(3) ? del(group) : del(site);
        case 1:
            return keep(site, entry);
        case 2:
        case 3:
            return set(group + "/ipsecProfile", textOf({"", "psk", "cert"}));
        case 4:
        case 5:
        case 6:
            return keep(group + at("/localIntf", of(intfs)));
        default:
            return keep(site + at("/remoteVia", of(destinations)));
    }
}

Event Walk::interface() {
    const std::string intf = at("/ipStatusDir/ipIntfStatus", of(intfs));
    if (oneIn(10)) return del(intf);
    if (oneIn(10)) {
        const std::string intf6 = at("/ip6StatusDir/ipIntfStatus", of(intfs));
        if (oneIn(3)) return del(intf6);
        if (oneIn(4)) return set(intf6 + "/vrfName", textOf(vrfs));
        return set(intf6 + "/activeAddrWithMask", textOf({"2001:db8::1/64", "2001:db8::2/64"}));
    }
    if (oneIn(4)) return set(intf + "/vrfName", textOf(vrfs));
    return set(intf + "/activeAddrWithMask", textOf(addresses));
}

// VRFs exchange ids, but no two have one at a time; 0 means not known for all but the default one.
Event Walk::vrf(const World& world) {
    const std::string name = of(vrfs);
    const std::string vrf = at("/routingHwRouteStatus/vrfStatus", name);
    const std::string binding = at("/cliConfig/vrfConfig", name);
    if (oneIn(10)) return del(vrf);
    if (oneIn(10)) return del(binding);
    if (oneIn(2)) return set(binding + "/policyName", textOf({"p1", "p1", "p2", "p2", "none", ""}));
    U64 id = oneIn(4) ? 0 : 10 + below(4);
    for (const auto& other : world.in.routingHwRouteStatus->vrfStatus())
        if (other.vrfId() == id) id = 0;
    return set(vrf + "/vrfId", {id});
}

Event Walk::policy(const World& world) {
    const std::string name = of(policies);
    const std::string policy = at("/cliConfig/policyConfig", name);
    const std::string rule = policy + at("/appProfilePolicyRuleList", of({"10", "20", "30"}));
    switch (below(14)) {
        case 0:
            return oneIn(3) ? del(policy) : del(rule);
        case 1:
        case 2:
            return set(rule + "/appProfileId", numberOf({0, 1, 1, 2, 2, 3}));
        case 3:
            return set(rule + "/appProfileName", textOf({"voice", "video", "bulk"}));
        case 4:
        case 5:
        case 6:
            return set(rule + "/lbGrpName", textOf({"gold", "silver", "bronze", "none", ""}));
        case 7:
            return set(policy + "/defaultRuleCfgd", {!oneIn(3)});
        case 8:
            return set(policy + "/defaultLbGrpName", textOf({"gold", "bronze", ""}));
        default: {
            const auto* config = world.in.cliConfig->policyConfig(name);
            return set(policy + "/configVersion", {U64{config ? config->configVersion() + 1 : 1}});
        }
    }
}

Event Walk::balance() {
    const std::string profile = at("/cliConfig/loadBalanceProfile", of(profiles));
    if (oneIn(20)) return del(profile);
    if (oneIn(4)) {
        const std::string constraint = of({"/latency", "/jitter", "/lossRate"});
        return set(profile + constraint, numberOf({1, 20, 300}));
    }
    const std::string priority = at("/pathGroupPriority", of(groups));
    return keep(profile + priority, numberOf({1, 2, 3}));
}

// A path that is configured, if there is one.
Walk::LivePath Walk::path(const World& world) {
    std::vector<LivePath> all;
    for (const auto& vrf : world.in.pathConfigDir->pathConfig())
        for (const auto& path : vrf.pathConfigEntry()) all.push_back({path.key(), vrf.vrfName()});
    if (all.empty()) {
        const auto src = Netz::IpAddrWithMask::parse(of(addresses)).value().addr;
        const auto dst = Netz::IpGenAddr::parse(of(destinations)).value();
        return {{src, dst, 0}, of(vrfs)};
    }
    return all[below(all.size())];
}

Datum Walk::fec() {
    Datum::List vias;
    for (size_t n = below(4); n > 0; --n)
        vias.push_back({Datum::Members{{"hop", textOf({"203.0.113.254", "203.0.113.253"})},
                                       {"intfId", textOf(intfs)}}});
    return {std::move(vias)};
}

Event Walk::route(const World& world) {
    const std::string vrf = at("/nexthopStatus/vrf", of(vrfs));
    if (oneIn(12)) return oneIn(3) ? del(vrf) : set(vrf, entry);
    if (oneIn(2)) {
        const char* const table = oneIn(4) ? "/forwarding6Status/fec" : "/forwardingStatus/fec";
        const std::string id = of({"1", "2", "3"});
        return keep(at(table, id), fec());
    }
    const std::string dst = oneIn(8) ? of(destinations) : path(world).key.dstAddr.stringValue();
    return keep(vrf + at("/nexthop", dst), {Datum::Members{{"fecId", numberOf({1, 2, 3, 4})}}});
}

Event Walk::connection(const World& world) {
    const LivePath live = path(world);
    const std::string connection =
        at("/ipsecPathStatusDir/ipsecPathStatus",
           Vel::Codec<Ipsec::ConnectionKey>::key({live.key.srcAddr, live.key.dstAddr, live.vrf}));
    if (oneIn(6)) return del(connection);
    if (oneIn(3)) return set(connection + "/connectionState", {U64{below(6)}});
    return oneIn(2) ? set(connection + "/connectionState", numberOf({3}))
                    : set(connection + "/encapId", numberOf({7, 8, Nav::noEncapId}));
}

Event Walk::hardware(const World& world) {
    const LivePath live = path(world);
    const std::string index = oneIn(10) ? of({"1", "2", "3"}) : "*";
    const std::string path =
        at("/hwPathStatus/hwPathStatusList", Vel::Codec<Nav::PathKey>::key(live.key) + "," + index);
    if (oneIn(8)) return del(path);
    const std::string attribute = of({"/hwPathIndex", "/hwArpIndex"});
    return set(path + attribute, numberOf({0, 1, 1, 1, 2}));
}

}  // namespace Oracle
