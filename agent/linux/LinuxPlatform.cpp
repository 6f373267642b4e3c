#include "agent/linux/LinuxPlatform.h"

#include <algorithm>

#include "agent/linux/ForwardingAgent.h"
#include "agent/router/NexthopResolver.h"
#include "agent/router/RouterStatus.h"

namespace Agent::Linux {

namespace {

// After a lookup that got no answer; the event that would have it repeated may be over.
constexpr Loom::Duration retryDelay = std::chrono::seconds(1);

}  // namespace

class LinuxPlatform::Router {
  public:
    Router(EventLoop& loop, const Nav::NavInputs& inputs, int receiveBuffer);

    const KernelMonitor& monitor() const { return monitor_; }

  private:
    void handleInterfaces();
    void handleForwarding();
    NexthopResolver::Answer lookup(const Routing::NexthopConfig& asked);
    NexthopResolver::Vias viasOf(const RouteResult& route) const;

    const Nav::NavInputs in_;
    KernelMonitor monitor_;
    NexthopResolver resolver_;
    ForwardingAgent forwarding_;
    Loom::Timer retry_;
    EventLoop::Registration readable_;
};

LinuxPlatform::Router::Router(EventLoop& loop, const Nav::NavInputs& inputs, int receiveBuffer)
    : in_(inputs),
      monitor_(*inputs.scheduler, {[this] { handleInterfaces(); }, [this] { handleForwarding(); }},
               receiveBuffer),
      resolver_(inputs, [this](const Routing::NexthopConfig& asked) { return lookup(asked); }),
      forwarding_(inputs, monitor_),
      retry_(*inputs.scheduler, Loom::call<&Router::handleForwarding>(*this)),
      readable_(loop.onReadable(monitor_.fd(), [this] { monitor_.handleReadable(); })) {
    monitor_.start();
}

void LinuxPlatform::Router::handleInterfaces() {
    RouterStatus status;
    // A device that is named "default" does not stand for the VRF of that name, which comes first.
    for (const Vrf& vrf : monitor_.interfaces().vrfs) status.vrfIds.emplace(vrf.name, vrf.id);
    for (const Interface& interface : monitor_.interfaces().interfaces)
        status.interfaces[interface.name] = {interface.vrf.name, interface.primary4,
                                             interface.primary6};
    status.publish(in_);
}

// What comes of the new results is queued before the paths are reviewed.
void LinuxPlatform::Router::handleForwarding() {
    resolver_.resolve();
    forwarding_.review();
}

NexthopResolver::Answer LinuxPlatform::Router::lookup(const Routing::NexthopConfig& asked) {
    NexthopResolver::Answer answer;
    std::vector<RouteQuery> queries;
    std::vector<std::map<Netz::IpGenAddr, NexthopResolver::Vias>*> places;
    for (const Vrf& vrf : monitor_.interfaces().vrfs) {
        const auto [place, first] = answer.try_emplace(vrf.name);
        const Routing::NexthopVrfConfig* config = asked.vrf(vrf.name);
        if (!first || !config) continue;
        for (const Netz::IpGenAddr& addr : config->nexthop()) {
            queries.push_back({addr, vrf.index});
            places.push_back(&place->second);
        }
    }
    const std::vector<RouteResult> routes = monitor_.lookup(queries);
    for (size_t i = 0; i < queries.size(); ++i) {
        if (routes[i].kind == RouteKind::failed) retry_.armIn(retryDelay);
        if (auto vias = viasOf(routes[i]); !vias.empty())
            places[i]->emplace(queries[i].destination, std::move(vias));
    }
    return answer;
}

// Empty for a destination that is not forwarded to.
NexthopResolver::Vias LinuxPlatform::Router::viasOf(const RouteResult& route) const {
    NexthopResolver::Vias vias;
    for (const RouteVia& via : route.vias) {
        // One that has gone or is not known yet brings an event of its own.
        const Interface* interface = monitor_.interfaces().at(via.ifIndex);
        if (interface && vias.size() < Shard::Fib::Fec::maxVias)
            vias.push_back({.hop = via.hop, .intfId = interface->name, .weight = via.weight});
    }
    return vias;
}

LinuxPlatform::LinuxPlatform(EventLoop& loop, int receiveBuffer)
    : Platform("linux"), loop_(loop), receiveBuffer_(receiveBuffer) {}

LinuxPlatform::~LinuxPlatform() = default;

void LinuxPlatform::start(const Nav::NavInputs& inputs) {
    router_ = std::make_unique<Router>(loop_, inputs, receiveBuffer_);
}

void LinuxPlatform::stop() {
    router_.reset();
}

const KernelMonitor& LinuxPlatform::monitor() const {
    return router_->monitor();
}

}  // namespace Agent::Linux
