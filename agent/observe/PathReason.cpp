#include "agent/observe/PathReason.h"

#include <algorithm>

#include "agent/model/Tree.h"
#include "agent/router/NexthopResolver.h"
#include "nav/types/PathName.h"

namespace Agent {

using Nav::NavInputs;
using Shard::Fib::Via;

namespace {

// The path of an element of a root, which usually has the entity's name:
// "/ipStatusDir/ipIntfStatus[wan1]".
template <class E, class Key>
std::string placeIn(const E& root, std::string_view collection, const Key& key,
                    const std::string& name = {}) {
    const std::string text = Vel::Codec<Key>::key(key);
    return "/" + (name.empty() ? root.velKey() : name) + step(*root.type().find(collection), &text);
}

Reason missingConfiguration(const NavInputs& in, const ConfiguredPath& path) {
    const Nav::NavCliConfig& config = *in.cliConfig;
    if (!config.navConfigured())
        return {"path selection is switched off", "/cliConfig/navConfigured"};
    const std::string group = "path group " + path.site.name;
    const std::string place = placeIn(config, "pathGroupConfig", path.site.name);
    const Nav::PathGroupConfig* groupConfig = config.pathGroupConfig(path.site.name);
    if (!groupConfig) return {group + " is not configured", place};
    if (!groupConfig->localIntfHas(path.interface))
        return {"interface " + path.interface.stringValue() + " is not in " + group,
                place + "/localIntf"};
    const Nav::RemoteViaConfig* site = groupConfig->remoteViaConfig(path.site.routerIp);
    if (!site || !site->remoteViaHas(path.destination))
        return {path.destination.stringValue() + " is not a destination of site " +
                    path.site.routerIp.stringValue() + " in " + group,
                place + "/remoteViaConfig"};
    return {};
}

Reason missingInterface(const NavInputs& in, const Platform& platform, const ConfiguredPath& path) {
    const std::string name = "interface " + path.interface.stringValue();
    const std::string place = placeIn(*in.ipStatusDir, "ipIntfStatus", path.interface);
    const Ip::IpIntfStatus* status = in.ipStatusDir->ipIntfStatus(path.interface);
    if (!status) return {name + " does not exist", place};
    if (platform.linkUp(path.interface) == false) return {name + " is down", place};
    const Netz::IpGenAddr& source = status->activeAddrWithMask().addr;
    if (source.isZero()) return {name + " has no address", place};
    if (source.isV4() != path.destination.isV4())
        return {name + (source.isV4() ? " has an IPv4 address, " : " has only an IPv6 address, ") +
                    path.destination.stringValue() + " is of the other family",
                place};
    const L3::VrfName& vrfName = status->vrfName();
    const Routing::Hardware::VrfStatus* vrf = in.routingHwRouteStatus->vrfStatus(vrfName);
    if (!Routing::Hardware::knownVrfId(vrfName, vrf ? vrf->vrfId() : 0))
        return {"the id of VRF " + vrfName.str() + " is not known",
                placeIn(*in.routingHwRouteStatus, "vrfStatus", vrfName)};
    return {};
}

// Why path selection has not set the path up, although its interface allows it.
Reason missingIndex(const Nav::NavDb& database, const ConfiguredPath& path,
                    const PathState& state) {
    const Nav::PathKeyInfo* info = database.pathKeyInfo(state.key);
    if (state.index != 0) return {};
    if (info)
        return {"the path with this source and destination is one of path group " +
                    info->siteGroupKey().name,
                placeIn(database, "pathKeyInfo", state.key, "navDb")};
    return {"path selection has not set up the path from " + path.interface.stringValue(),
            "/pathConfigDir"};
}

Reason missingRoute(const NavInputs& in, const ConfiguredPath& path, const PathState& state) {
    const Netz::IpGenAddr& destination = path.destination;
    const std::string vrfPlace = placeIn(*in.nexthopStatus, "vrf", state.vrf);
    const Routing::NexthopVrfStatus* vrf = in.nexthopStatus->vrf(state.vrf);
    const Routing::NexthopResult* result = vrf ? vrf->nexthop(destination) : nullptr;
    if (!result)
        return {"no route to " + destination.stringValue() + " in VRF " + state.vrf.str(),
                vrfPlace + "/nexthop"};
    const Shard::Fib::Fec* fec = fecOf(in, state.vrf, destination);
    const std::string fecPlace = destination.isV6()
                                     ? placeIn(*in.forwarding6Status, "fec", result->fecId)
                                     : placeIn(*in.forwardingStatus, "fec", result->fecId);
    std::string others;
    if (fec) {
        for (const Via& via : fec->vias()) {
            if (via.intfId == path.interface) return {};
            others += (others.empty() ? "" : ", ") + via.intfId.stringValue();
        }
    }
    return {"the route to " + destination.stringValue() + " does not leave by interface " +
                path.interface.stringValue() +
                (others.empty() ? " or any other" : ", but by " + others),
            fecPlace};
}

Reason missingConnection(const NavInputs& in, const PathState& state, const PathDetail& detail) {
    const Ipsec::ConnectionKey key{state.key.srcAddr, state.key.dstAddr, state.vrf};
    if (!in.ipsecPathConfigDir->ipsecPathConfig(key)) return {};
    const auto* connection = in.ipsecPathStatusDir->ipsecPathStatus(key);
    if (connection && connection->connectionState() == Ipsec::Path::established) return {};
    return {"the IPsec connection is not established" +
                (detail.ipsec.empty() ? "" : ": " + detail.ipsec),
            placeIn(*in.ipsecPathStatusDir, "ipsecPathStatus", key)};
}

// What the forwarding side still lacks for a path that is resolved.
Reason missingProgramming(const NavInputs& in, const PathState& state,
                          const Nav::PathStatusEntry* status, const PathDetail& detail,
                          const PathQuality* quality) {
    if (!status || status->pathInfo().pathState != Nav::PathState::resolved)
        return {"path selection has not resolved the path", "/navStatusDir/navPathStatusDir"};
    const std::string hop = "next hop " + status->pathInfo().via.hop.stringValue();
    const Nav::HwPathKey key{state.key.srcAddr, state.key.dstAddr, state.key.vrfId, state.index};
    const std::string place = placeIn(*in.hwPathStatus, "hwPathStatusList", key);
    const Nav::HwPathStatusEntry* hardware = in.hwPathStatus->hwPathStatusList(key);
    if (detail.nexthopSilent || (hardware && hardware->hwArpIndex() == 0))
        return {hop + " does not answer", place};
    if (!detail.refused.empty()) return {detail.refused, place};
    if (quality && quality->state == PathLiveness::dead)
        return {"what is beyond " + hop + " does not answer probes", "navctl show quality"};
    return {"the forwarding side has not programmed the path by " + hop, place};
}

}  // namespace

std::vector<ConfiguredPath> configuredPaths(const Nav::NavCliConfig& config) {
    std::vector<ConfiguredPath> paths;
    for (const Nav::PathGroupConfig& group : config.pathGroupConfig())
        for (const Netz::IntfId& interface : group.localIntf())
            for (const Nav::RemoteViaConfig& site : group.remoteViaConfig())
                for (const Netz::IpGenAddr& destination : site.remoteVia())
                    paths.push_back({{group.name(), site.remoteAddr()}, interface, destination});
    return paths;
}

PathState stateOf(const NavInputs& in, const Nav::NavDb* database, const Platform& platform,
                  const ConfiguredPath& path) {
    PathState state;
    state.key.dstAddr = path.destination;
    if (const Ip::IpIntfStatus* status = in.ipStatusDir->ipIntfStatus(path.interface)) {
        state.vrf = status->vrfName();
        state.key.srcAddr = status->activeAddrWithMask().addr;
        const Routing::Hardware::VrfStatus* vrf = in.routingHwRouteStatus->vrfStatus(state.vrf);
        state.key.vrfId = vrf ? vrf->vrfId() : 0;
    }
    const Nav::PathKeyInfo* info = database ? database->pathKeyInfo(state.key) : nullptr;
    if (info && info->siteGroupKey() == path.site) state.index = info->pathIndex();
    const Nav::PathStatusDir* dir = in.navStatusDir->navPathStatusDir();
    const Nav::PathStatus* vrf = dir ? dir->pathStatus(state.vrf) : nullptr;
    const Nav::PathStatusEntry* status = vrf ? vrf->pathStatusEntry(state.key) : nullptr;
    const PathDetail detail = status ? platform.detail(*status, state.vrf) : PathDetail();
    const PathQuality* quality = qualityOf(platform, state.index);

    Reason& reason = state.reason = missingConfiguration(in, path);
    if (state.index != 0 && status && status->programmed() && reason.text.empty()) {
        state.up = true;
        state.via = status->pathInfo().via;
        if (!quality || quality->state == PathLiveness::notChecked)
            state.remark = "nothing checks beyond next hop " + state.via.hop.stringValue();
        return state;
    }
    if (reason.text.empty()) reason = missingInterface(in, platform, path);
    if (reason.text.empty() && database) reason = missingIndex(*database, path, state);
    if (reason.text.empty()) reason = missingRoute(in, path, state);
    if (reason.text.empty()) reason = missingConnection(in, state, detail);
    if (reason.text.empty()) reason = missingProgramming(in, state, status, detail, quality);
    return state;
}

const PathQuality* qualityOf(const Platform& platform, Vel::U32 index) {
    const QualityStatus* measured = platform.quality();
    return measured ? measured->pathQuality(index) : nullptr;
}

std::vector<Vel::U32> carriersOf(const Platform& platform, const Nav::LbProfileStatusEntry& entry) {
    std::vector<Vel::U32> carriers;
    for (const auto& member : platform.choose(entry).members) carriers.push_back(member.pathIndex);
    return carriers;
}

std::string pathNames(const std::vector<Vel::U32>& indices) {
    std::string names;
    for (const Vel::U32 index : indices)
        names += (names.empty() ? "" : ", ") + Nav::pathName(index);
    return names.empty() ? "no path" : names;
}

std::string vrfName(const Nav::NavDb* database, Vel::U32 vrfId) {
    const L3::VrfName* name = database ? database->vrfIdToName(vrfId) : nullptr;
    return name ? name->str() : std::to_string(vrfId);
}

std::string applicationName(const Nav::NavDb* database, Vel::U32 vrfId, Vel::U32 appId) {
    if (appId == 0) return "default";
    const Nav::VrfApp* app = database ? database->vrfApp({vrfId, appId}) : nullptr;
    return app && !app->appName.empty() ? app->appName : std::to_string(appId);
}

std::string PathState::name() const {
    return index == 0 ? "-" : Nav::pathName(index);
}

std::string describe(const ConfiguredPath& path, const PathState& state) {
    return (state.index == 0 ? path.interface.stringValue()
                             : state.name() + " " + state.key.srcAddr.stringValue()) +
           " -> " + path.destination.stringValue() + " (" + path.site.name + ", " +
           path.site.routerIp.stringValue() + ")";
}

}  // namespace Agent
