#include "agent/sim/SimRouter.h"

#include "agent/router/RouterStatus.h"
#include "agent/sim/SimTrace.h"

namespace Agent::Sim {

namespace {

void traceQuality(const Netz::IntfId& link, const World::Qualities& before,
                  const World::Qualities& now) {
    for (const auto& [prefix, quality] : now) {
        const auto was = before.find(prefix);
        if (was != before.end() && was->second == quality) continue;
        DUOLOG(simTrace, 5, "link ", link, " to ", prefix, ": round trip ", quality.delay,
               " ms, jitter ", quality.jitter, " ms, loss ", quality.lossForward, " % forward, ",
               quality.lossBackward, " % backward");
    }
}

// Traces links that changed between up and down or in quality, and interfaces that were removed.
void traceLinks(const World& before, const World& now) {
    for (const auto& [name, interface] : now.interfaces) {
        const auto was = before.interfaces.find(name);
        traceQuality(name,
                     was == before.interfaces.end() ? World::Qualities{} : was->second.quality,
                     interface.quality);
        if (before.up(name) == interface.up) continue;
        DUOLOG(simTrace, 5, "link ", name, interface.up ? " is up" : " is down");
    }
    for (const auto& [name, interface] : before.interfaces)
        if (!now.interfaces.contains(name)) DUOLOG(simTrace, 5, "interface ", name, " removed");
}

}  // namespace

SimRouter::SimRouter(const Nav::NavInputs& inputs, History history)
    : inputs_(inputs),
      history_(std::move(history)),
      start_(inputs.scheduler->now()),
      world_(history_.first),
      resolver_(inputs, [this](const auto& requested, bool) { return lookup(requested); }),
      quality_(Vel::make<QualityStatus>("pathQuality")),
      peers_(inputs, world_),
      probes_(inputs, *quality_, world_),
      forwarding_(inputs, *quality_, world_),
      choice_(inputs, *quality_, world_),
      step_(*inputs.scheduler, Loom::call<&SimRouter::handleStep>(*this)) {
    publish();
    awaitStep();
}

void SimRouter::worldIs(const World& world) {
    traceLinks(world_, world);
    world_ = world;
    publish();
    // The reviews queued here run after the reactors have processed the new results.
    resolver_.resolve();
    peers_.review();
    probes_.review();
    forwarding_.review();
}

PathDetail SimRouter::detail(const Nav::PathStatusEntry& path, const L3::VrfName& vrf) const {
    PathDetail detail;
    const Nav::PathKey& key = path.key();
    const Shard::Fib::Via& via = path.pathInfo().via;
    detail.nexthopSilent = !via.intfId.empty() && !world_.neighbourDelay(via.intfId, via.hop);
    const World::Peer* peer = world_.peer(vrf, key.dstAddr);
    const auto* connection =
        inputs_.ipsecPathStatusDir->ipsecPathStatus({key.srcAddr, key.dstAddr, vrf});
    if (!connection) return detail;
    switch (static_cast<ConnectionState>(connection->connectionState())) {
        case ConnectionState::connecting:
            detail.ipsec = peer ? "connecting" : "no peer is known at " + key.dstAddr.stringValue();
            break;
        case ConnectionState::rekeying:
            detail.ipsec = "it is being rekeyed";
            break;
        case ConnectionState::failed:
            detail.ipsec = peer && peer->fault == Fault::refuses ? "the peer refused it"
                                                                 : "the peer does not answer";
            break;
        default:
            break;
    }
    return detail;
}

void SimRouter::publish() {
    RouterStatus status;
    for (const auto& [name, vrf] : world_.vrfs) status.vrfIds.emplace(name, vrf.id);
    for (const auto& [name, interface] : world_.interfaces)
        status.interfaces[name] = {interface.vrf, interface.v4, interface.v6};
    status.publish(inputs_);
}

NexthopResolver::Routes SimRouter::lookup(const Routing::NexthopConfig& requested) const {
    NexthopResolver::Routes found;
    for (const auto& [name, vrf] : world_.vrfs) {
        auto& routes = found.vrfs[name];
        const Routing::NexthopVrfConfig* config = requested.vrf(name);
        if (!config) continue;
        for (const Netz::IpGenAddr& addr : config->nexthop()) {
            NexthopResolver::Vias vias;
            for (const World::Via& via : world_.lookup(name, addr))
                vias.push_back({.hop = via.gateway, .intfId = via.interface, .weight = via.weight});
            if (!vias.empty()) routes.push_back({addr, found.add(std::move(vias))});
        }
    }
    return found;
}

void SimRouter::handleStep() {
    worldIs(history_.steps[next_++].world);
    awaitStep();
}

void SimRouter::awaitStep() {
    if (next_ < history_.steps.size()) step_.armAt(start_ + history_.steps[next_].at);
}

}  // namespace Agent::Sim
