#include "agent/router/PathReason.h"

#include <algorithm>

namespace Agent {

namespace {

std::string missingConfiguration(const Nav::NavCliConfig& config, const PathIdentity& path) {
    const std::string name = path.site.name, group = "path group " + name;
    if (!config.navConfigured()) return "path selection is switched off";
    const Nav::PathGroupConfig* groupConfig = config.pathGroupConfig(name);
    if (!groupConfig) return group + " is not configured";
    if (!groupConfig->localIntfHas(path.interface))
        return "interface " + path.interface.stringValue() + " is not in " + group;
    const Nav::RemoteViaConfig* site = groupConfig->remoteViaConfig(path.site.routerIp);
    if (!site || !site->remoteViaHas(path.key.dstAddr))
        return path.key.dstAddr.stringValue() + " is not a destination of site " +
               path.site.routerIp.stringValue() + " in " + group;
    return {};
}

std::string missingInterface(const Nav::NavInputs& in, const PathIdentity& path,
                             std::optional<bool> linkUp) {
    const bool isV6 = path.key.srcAddr.isV6();
    const std::string name = "interface " + path.interface.stringValue();
    const Ip::IpIntfStatus* status = isV6 ? in.ip6StatusDir->ipIntfStatus(path.interface)
                                          : in.ipStatusDir->ipIntfStatus(path.interface);
    if (!status) return name + " does not exist";
    if (linkUp == false) return name + " is down";
    if (status->vrfName() != path.vrf) return name + " is in VRF " + status->vrfName().str();
    const Netz::IpAddrWithMask address = status->activeAddrWithMask();
    if (address == Netz::IpAddrWithMask{})
        return name + (isV6 ? " has no IPv6 address" : " has no IPv4 address");
    if (address.addr != path.key.srcAddr) return name + " has another address";
    const Routing::Hardware::VrfStatus* vrf = in.routingHwRouteStatus->vrfStatus(path.vrf);
    if (!(path.vrf == L3::VrfName("default")) && (!vrf || vrf->vrfId() == 0))
        return "the id of VRF " + path.vrf.str() + " is not known";
    return {};
}

std::string missingRoute(const Nav::NavInputs& in, const PathIdentity& path) {
    const Netz::IpGenAddr& destination = path.key.dstAddr;
    const Routing::NexthopVrfStatus* vrf = in.nexthopStatus->vrf(path.vrf);
    const Routing::NexthopResult* result = vrf ? vrf->nexthop(destination) : nullptr;
    if (!result) return "no route to " + destination.stringValue();
    const Shard::Fib::Fec* fec = destination.isV6() ? in.forwarding6Status->fec(result->fecId)
                                                    : in.forwardingStatus->fec(result->fecId);
    const auto leaves = [&](const Shard::Fib::Via& via) { return via.intfId == path.interface; };
    if (!fec || std::ranges::none_of(fec->vias(), leaves))
        return "no route to " + destination.stringValue() + " through interface " +
               path.interface.stringValue();
    return {};
}

// What the other services still have to do for a path that has its route.
std::string missingService(const Nav::NavInputs& in, const PathIdentity& path) {
    const auto* request =
        in.ipsecPathConfigDir->ipsecPathConfig({path.key.srcAddr, path.key.dstAddr, path.vrf});
    const auto* connection =
        in.ipsecPathStatusDir->ipsecPathStatus({path.key.srcAddr, path.key.dstAddr, path.vrf});
    if (request && (!connection || connection->connectionState() != Ipsec::Path::established))
        return "the IPsec connection is not established";
    const Nav::PathStatusDir* dir = in.navStatusDir->navPathStatusDir();
    const Nav::PathStatus* vrf = dir ? dir->pathStatus(path.vrf) : nullptr;
    const Nav::PathStatusEntry* status = vrf ? vrf->pathStatusEntry(path.key) : nullptr;
    if (!status) return "the path is not set up";
    if (status->programmed()) return {};
    const std::string hop = "next hop " + status->pathInfo().via.hop.stringValue();
    const Nav::HwPathStatusEntry* hardware = in.hwPathStatus->hwPathStatusList(
        {path.key.srcAddr, path.key.dstAddr, path.key.vrfId, path.index});
    if (hardware && hardware->hwArpIndex() == 0) return hop + " does not answer";
    return hop + " does not answer, or the path is not programmed";
}

}  // namespace

std::string PathIdentity::text() const {
    return "Path" + std::to_string(index) + " " + key.srcAddr.stringValue() + " -> " +
           key.dstAddr.stringValue() + " (" + std::string(site.name) + ", " +
           site.routerIp.stringValue() + ")";
}

std::string reasonDown(const Nav::NavInputs& inputs, const PathIdentity& path,
                       std::optional<bool> linkUp) {
    std::string reason = missingConfiguration(*inputs.cliConfig, path);
    if (reason.empty()) reason = missingInterface(inputs, path, linkUp);
    if (reason.empty()) reason = missingRoute(inputs, path);
    if (reason.empty()) reason = missingService(inputs, path);
    return reason;
}

}  // namespace Agent
