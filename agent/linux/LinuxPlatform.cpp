#include "agent/linux/LinuxPlatform.h"

#include <algorithm>
#include <set>

#include "agent/linux/ForwardingAgent.h"
#include "agent/linux/PathRoutes.h"
#include "agent/linux/kernel/LinuxTrace.h"
#include "agent/router/NexthopResolver.h"
#include "agent/router/RouterStatus.h"

namespace Agent::Linux {

namespace {

// After a lookup that failed; no event may come that would have it repeated.
constexpr Loom::Duration retryDelay = std::chrono::seconds(1);

}  // namespace

// The router's other services, played from the kernel's state.
class LinuxPlatform::Services {
  public:
    Services(EventLoop& loop, const Nav::NavInputs& inputs, int receiveBuffer);

    const KernelMonitor& monitor() const { return monitor_; }

  private:
    void handleInterfaces();
    void handleForwarding();
    NexthopResolver::ViasByVrf lookup(const Routing::NexthopConfig& requested);

    const Nav::NavInputs in_;
    KernelMonitor monitor_;
    std::set<L3::VrfName> unnumbered_;  // VRFs reported to have no id
    NexthopResolver resolver_;
    ForwardingAgent forwarding_;
    Loom::Timer retry_;
    EventLoop::Registration readable_;
};

LinuxPlatform::Services::Services(EventLoop& loop, const Nav::NavInputs& inputs, int receiveBuffer)
    : in_(inputs),
      monitor_(*inputs.scheduler, {[this] { handleInterfaces(); }, [this] { handleForwarding(); }},
               receiveBuffer),
      resolver_(inputs, [this](const auto& requested) { return lookup(requested); }),
      forwarding_(inputs, monitor_),
      retry_(*inputs.scheduler, Loom::call<&Services::handleForwarding>(*this)),
      readable_(loop.onReadable(monitor_.fd(), [this] { monitor_.handleReadable(); })) {
    monitor_.start();
}

void LinuxPlatform::Services::handleInterfaces() {
    RouterStatus status;
    std::set<L3::VrfName> unnumbered;
    // The VRF "default" comes first; a device of that name adds none.
    for (const Vrf& vrf : monitor_.interfaces().vrfs) {
        status.vrfIds.emplace(vrf.name, vrf.id);
        if (vrf.id != 0 || vrf.index == 0) continue;
        unnumbered.insert(vrf.name);
        if (!unnumbered_.contains(vrf.name))
            DUOLOG(linuxTrace, 3, "VRF ", vrf.name,
                   " has no id: another VRF has the same routing table");
    }
    unnumbered_ = std::move(unnumbered);
    for (const Interface& interface : monitor_.interfaces().interfaces)
        status.interfaces[interface.name] = {interface.vrf.name, interface.primary4,
                                             interface.primary6};
    status.publish(in_);
}

// Paths are reviewed after the tasks in which path selection takes up the new results.
void LinuxPlatform::Services::handleForwarding() {
    resolver_.resolve();
    forwarding_.review();
}

NexthopResolver::ViasByVrf LinuxPlatform::Services::lookup(
    const Routing::NexthopConfig& requested) {
    const InterfaceView& view = monitor_.interfaces();
    const std::vector<PathQuery> queries = pathQueries(view, *in_.pathConfigDir, requested);
    std::vector<RouteQuery> routes;
    for (const PathQuery& query : queries) routes.push_back(query.route);
    const std::vector<RouteResult> results = monitor_.lookup(routes);
    if (std::ranges::count(results, RouteResult::Kind::failed, &RouteResult::kind) != 0)
        retry_.armIn(retryDelay);
    return pathVias(view, queries, results);
}

LinuxPlatform::LinuxPlatform(EventLoop& loop, int receiveBuffer)
    : Platform("linux"), loop_(loop), receiveBuffer_(receiveBuffer) {}

LinuxPlatform::~LinuxPlatform() = default;

void LinuxPlatform::start(const Nav::NavInputs& inputs) {
    services_ = std::make_unique<Services>(loop_, inputs, receiveBuffer_);
}

void LinuxPlatform::stop() {
    services_.reset();
}

std::optional<bool> LinuxPlatform::linkUp(const Netz::IntfId& name) const {
    const Interface* interface = services_ ? monitor().interfaces().named(name) : nullptr;
    return interface ? std::optional(interface->up) : std::nullopt;
}

const KernelMonitor& LinuxPlatform::monitor() const {
    return services_->monitor();
}

}  // namespace Agent::Linux
