#include "agent/linux/forwarding/Report.h"

#include "nav/types/PathName.h"

namespace Agent::Linux {

namespace {

Json tunnels(Forwarding& forwarding) {
    Json rows = Json::array();
    for (const auto& [vrf, segment] : forwarding.plan().segments()) {
        const Tunnel& tunnel = segment.tunnel;
        rows.push_back({{"device", tunnel.name.str()},
                        {"vrf", vrf.str()},
                        {"vni", tunnel.vni},
                        {"port", tunnel.udpPort},
                        {"mtu", tunnel.mtu},
                        {"address", tunnel.address.stringValue()},
                        {"programmed", forwarding.kernel().present(tunnel.key())}});
    }
    return rows;
}

std::string vrfOf(const Nav::NavInputs& in, const Nav::PathKey& path) {
    for (const auto& vrf : in.routingHwRouteStatus->vrfStatus())
        if (Routing::Hardware::knownVrfId(vrf.vrfName(), vrf.vrfId()) == path.vrfId)
            return vrf.vrfName().str();
    return {};
}

Json paths(const Nav::NavInputs& in, Forwarding& forwarding) {
    Json rows = Json::array();
    for (const auto& [pathIndex, hop] : forwarding.plan().paths()) {
        Json nexthops = Json::array();
        for (const ObjectKey& key : forwarding.plan().nexthopsOf(hop.path))
            nexthops.push_back(std::get<Nexthop::Key>(key).id);
        rows.push_back({{"path", Nav::pathName(pathIndex)},
                        {"source", hop.path.srcAddr.stringValue()},
                        {"destination", hop.path.dstAddr.stringValue()},
                        {"vrf", vrfOf(in, hop.path)},
                        {"interface", hop.intfId.str()},
                        {"gateway", hop.gateway.stringValue()},
                        {"programmed", forwarding.programmed(pathIndex) != 0},
                        {"nexthops", nexthops}});
    }
    return rows;
}

using Names = std::map<uint32_t, std::string>;

// Of the applications of a VRF, by mark; those that the configuration does not describe have none.
Names namesIn(const Nav::NavInputs& in, const ForwardingConfig& config, const Segment& segment,
              Plan& plan) {
    Names names;
    for (const auto& [application, mark] : applicationsOf(in, config, segment, plan))
        names[mark] = application ? application->name() : "default";
    return names;
}

// "default" has the packets that no other application takes; without a default rule of the policy
// it has no id, and takes any path.
Json identity(const Names& names, uint32_t mark, uint32_t appId) {
    const auto name = names.find(mark);
    return {{"application", name != names.end() ? Json(name->second) : Json()},
            {"id", appId == noApplication ? Json() : Json(appId)}};
}

Json applications(const Nav::NavInputs& in, const ForwardingConfig& config, Plan& plan) {
    Json rows = Json::array();
    for (const auto& [vrf, segment] : plan.segments()) {
        const Names names = namesIn(in, config, segment, plan);
        for (const auto& [mark, place] : plan.applications()) {
            if (place.first != vrf) continue;
            Json row = {{"vrf", vrf.str()}};
            row.update(identity(names, mark, place.second));
            row["mark"] = mark;
            row["table"] = plan.policy(vrf).tables.at(place.second);
            rows.push_back(row);
        }
    }
    return rows;
}

Json sites(const Nav::NavInputs& in, const ForwardingConfig& config, Plan& plan) {
    Json rows = Json::array();
    for (const auto& [vrf, segment] : plan.segments()) {
        const Names names = namesIn(in, config, segment, plan);
        for (const auto& [site, prefixes] : plan.prefixes(vrf))
            for (const auto& [mark, place] : plan.applications()) {
                if (place.first != vrf) continue;
                const NexthopGroup group = plan.group(segment, site, place.second);
                Json carriers = Json::array(), behind = Json::array();
                for (const auto& [pathIndex, hop] : plan.paths())
                    for (const auto& member : group.members)
                        if (member.id == plan.nexthopId(segment, hop.path))
                            carriers.push_back(Nav::pathName(pathIndex));
                for (const IpPrefix& prefix : prefixes) behind.push_back(prefix.stringValue());
                Json row = {{"site", site.stringValue()}, {"vrf", vrf.str()}};
                row.update(identity(names, mark, place.second));
                row.update({{"prefixes", behind}, {"group", group.id}, {"paths", carriers}});
                rows.push_back(row);
            }
    }
    return rows;
}

Json refused(const Forwarding& forwarding) {
    Json rows = Json::array();
    for (const auto& [key, reason] : forwarding.kernel().refused())
        rows.push_back({{"object", textOf(key)}, {"reason", reason}});
    if (const uint16_t port = forwarding.portInUse(); port != 0)
        rows.push_back({{"object", "UDP port " + std::to_string(port)},
                        {"reason", "UDP port " + std::to_string(port) +
                                       " is in use; the tunnels keep the port that they have"}});
    if (!forwarding.rulesetRefused().empty())
        rows.push_back({{"object", std::string("table ") + nftTable},
                        {"reason", forwarding.rulesetRefused()}});
    return rows;
}

}  // namespace

Json reportOf(const Nav::NavInputs& in, const ForwardingConfig& config, Forwarding& forwarding) {
    return {{"tunnels", tunnels(forwarding)},
            {"paths", paths(in, forwarding)},
            {"applications", applications(in, config, forwarding.plan())},
            {"sites", sites(in, config, forwarding.plan())},
            {"refused", refused(forwarding)}};
}

}  // namespace Agent::Linux
