#include "agent/linux/LinuxPlatform.h"

#include <algorithm>
#include <set>

#include "agent/linux/ForwardingAgent.h"
#include "agent/linux/PathRoutes.h"
#include "agent/linux/forwarding/Counting.h"
#include "agent/linux/forwarding/Forwarding.h"
#include "agent/linux/forwarding/Prerequisites.h"
#include "agent/linux/forwarding/Report.h"
#include "agent/linux/ipsec/IpsecService.h"
#include "agent/linux/kernel/LinuxTrace.h"
#include "agent/linux/quality/PathProbing.h"
#include "agent/router/NexthopResolver.h"
#include "agent/router/RouterStatus.h"

namespace Agent::Linux {

namespace {

// The delay after a failed lookup; no event may come that would repeat it.
constexpr Loom::Duration retryDelay = std::chrono::seconds(1);

}  // namespace

// The router's other services, derived from the kernel's state.
class LinuxPlatform::Services {
  public:
    Services(EventLoop& loop, const Nav::NavInputs& inputs, const LinuxOptions& options);

    const KernelMonitor& monitor() const { return monitor_; }
    QualityStatus& quality() { return *quality_; }
    Forwarding* forwarding() { return forwarding_ ? &*forwarding_ : nullptr; }
    void configured();
    std::vector<std::string> validate();
    IpsecService* ipsec() { return ipsec_ ? &*ipsec_ : nullptr; }
    const PathProbing* probing() const { return probing_ ? &*probing_ : nullptr; }
    std::optional<Json> report() {
        if (!forwarding_) return {};
        Json report = reportOf(in_, *config_, *forwarding_);
        report["probes"] = probing_->report();
        return report;
    }

  private:
    void startCounting(EventLoop& loop, const std::string& runDir);
    void handleInterfaces();
    void handleForwarding();
    NexthopResolver::Routes lookup(const Routing::NexthopConfig& requested, bool changed);

    const Nav::NavInputs in_;
    const ForwardingPtr config_;  // null: the platform observes only
    const Vel::Ptr<QualityStatus> quality_ = Vel::make<QualityStatus>("pathQuality");
    KernelMonitor monitor_;
    std::set<L3::VrfName> unnumbered_;    // VRFs reported to have no id
    std::optional<PathQueries> queries_;  // empty after interfaces have changed
    NexthopResolver resolver_;
    uint64_t refreshes_ = 1;  // of the monitor, when last looked at
    std::optional<Forwarding> forwarding_;
    std::optional<PathProbing> probing_;
    std::optional<ForwardingAgent> agent_;
    std::optional<Counting> counting_;
    std::optional<IpsecService> ipsec_;
    Loom::Timer retry_;
    EventLoop::Registration readable_, tableChanged_;
};

LinuxPlatform::Services::Services(EventLoop& loop, const Nav::NavInputs& inputs,
                                  const LinuxOptions& options)
    : in_(inputs),
      config_(options.forwarding),
      monitor_(*inputs.scheduler,
               {[this] { handleInterfaces(); }, [this] { handleForwarding(); },
                [this] {
                    if (forwarding_) forwarding_->ownChanged();
                },
                [this](const Message& message) {
                    if (forwarding_) forwarding_->routeChanged(message);
                }},
               options.receiveBuffer),
      resolver_(inputs,
                [this](const auto& requested, bool changed) { return lookup(requested, changed); }),
      retry_(*inputs.scheduler, Loom::call<&Services::handleForwarding>(*this)),
      readable_(loop.onReadable(monitor_.fd(), [this] { monitor_.handleReadable(); })) {
    monitor_.start();
    if (config_) {
        requireForwarding();
        forwarding_.emplace(inputs, config_, monitor_, *quality_, [this] { agent_->review(); });
        startCounting(loop, options.runDir);
        tableChanged_ =
            loop.onReadable(forwarding_->tableFd(), [this] { forwarding_->handleTableReadable(); });
        probing_.emplace(inputs, config_, *quality_,
                         [this]() -> const InterfaceView& { return monitor_.interfaces(); });
    }
    agent_.emplace(inputs, monitor_, forwarding(), probing_ ? &*probing_ : nullptr, *quality_);
    if (options.ipsec) ipsec_.emplace(loop, inputs, options.ipsec, options.charon);
}

void LinuxPlatform::Services::configured() {
    if (forwarding_) forwarding_->replan();
    if (probing_) probing_->configured();
    if (ipsec_) ipsec_->configured();
}

// Forwarding goes on without counters.
void LinuxPlatform::Services::startCounting(EventLoop& loop, const std::string& runDir) try {
    counting_.emplace(in_, forwarding_->plan(), loop, runDir);
} catch (const Vel::Error& error) {
    DUOLOG(linuxTrace, 3, "Traffic is not counted: ", error.what());
}

void LinuxPlatform::Services::handleInterfaces() {
    queries_.reset();
    RouterStatus status;
    std::set<L3::VrfName> unnumbered;
    // The VRF "default" is the first; a device with that name is ignored.
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
    // First, so that its task runs before the lookups that the removal of paths leads to.
    if (forwarding_) forwarding_->interfacesChanged();
    status.publish(in_);
}

// Paths are reviewed after the tasks in which path selection processes the new results.
void LinuxPlatform::Services::handleForwarding() {
    resolver_.resolve();
    if (agent_) agent_->review();
    // After lost events, nobody knows what became of the agent's own objects.
    if (std::exchange(refreshes_, monitor_.counters().refreshes) == refreshes_) return;
    if (forwarding_) forwarding_->repair();
}

NexthopResolver::Routes LinuxPlatform::Services::lookup(const Routing::NexthopConfig& requested,
                                                        bool changed) {
    const InterfaceView& view = monitor_.interfaces();
    if (changed || !queries_) queries_ = pathQueries(view, *in_.pathConfigDir, requested);
    const auto results = monitor_.lookup(queries_->routes);
    if (std::ranges::count(results, RouteResult::Kind::failed, &RouteResult::kind) != 0)
        retry_.armIn(retryDelay);
    return pathRoutes(view, *queries_, results);
}

// The interfaces are read, the kernel is asked for the route of each path, and the agent's objects
// are read.
std::vector<std::string> LinuxPlatform::Services::validate() {
    RequestSocket requests;
    const InterfaceView& view = monitor_.interfaces();
    std::vector<std::string> differences;
    if (readInterfaces(requests) != view)
        differences.push_back("the kernel has other interfaces, addresses or VRFs than known");
    const PathQueries queries = pathQueries(view, *in_.pathConfigDir, *in_.nexthopConfig);
    const std::vector<RouteResult> results = FibLookup(requests).lookup(queries.routes);
    std::vector<const RouteResult*> answers;
    for (const RouteResult& result : results) answers.push_back(&result);
    const NexthopResolver::Routes found = pathRoutes(view, queries, answers);
    for (const auto& [vrf, routes] : found.vrfs) {
        const Routing::NexthopVrfConfig* requested = in_.nexthopConfig->vrf(vrf);
        if (!requested) continue;
        for (const Netz::IpGenAddr& address : requested->nexthop()) {
            const Shard::Fib::Fec* fec = fecOf(in_, vrf, address);
            const auto now =
                std::ranges::find(routes, address, &NexthopResolver::Routes::Route::addr);
            const NexthopResolver::Vias none;
            if ((now == routes.end() ? none : found.lists[now->list]) != (fec ? fec->vias() : none))
                differences.push_back("the kernel routes " + address.stringValue() + " in VRF " +
                                      vrf.str() + " otherwise than published");
        }
    }
    if (!forwarding_) return differences;
    for (std::string& each : forwarding_->differences(requests))
        differences.push_back(std::move(each));
    return differences;
}

LinuxPlatform::LinuxPlatform(EventLoop& loop, LinuxOptions options)
    : Platform("linux"), loop_(loop), options_(std::move(options)) {}

LinuxPlatform::~LinuxPlatform() = default;

void LinuxPlatform::start(const Nav::NavInputs& inputs) {
    services_ = std::make_unique<Services>(loop_, inputs, options_);
}

void LinuxPlatform::stop() {
    // The tunnels go first, so that nothing of them is sent in clear text.
    if (services_ && services_->forwarding() && !options_.keepForwarding) {
        services_->forwarding()->clear();
        if (services_->ipsec()) services_->ipsec()->clear();
    }
    services_.reset();
}

void LinuxPlatform::configured() {
    if (services_) services_->configured();
}

std::optional<Json> LinuxPlatform::forwarding() {
    return services_ ? services_->report() : std::nullopt;
}

std::vector<std::string> LinuxPlatform::validate() {
    return services_ ? services_->validate() : std::vector<std::string>();
}

QualityStatus* LinuxPlatform::quality() const {
    return services_ ? &services_->quality() : nullptr;
}

Json LinuxPlatform::ipsec() {
    return services_ && services_->ipsec() ? services_->ipsec()->report() : Json::object();
}

std::optional<bool> LinuxPlatform::linkUp(const Netz::IntfId& name) const {
    const Interface* interface = services_ ? monitor().interfaces().named(name) : nullptr;
    return interface ? std::optional(interface->up) : std::nullopt;
}

PathDetail LinuxPlatform::detail(const Nav::PathStatusEntry& path, const L3::VrfName& vrf) const {
    PathDetail detail;
    if (services_ && services_->ipsec())
        detail.ipsec = services_->ipsec()->errorOf({path.key().srcAddr, path.key().dstAddr, vrf});
    Forwarding* forwarding = services_ ? services_->forwarding() : nullptr;
    if (!forwarding) return detail;
    if (services_->probing()->unprotected(path.pathInfo().pathIndex))
        detail.refused = "IPsec does not protect its packets, which are dropped";
    const auto& refused = forwarding->kernel().refused();
    for (const ObjectKey& key : forwarding->plan().nexthopsOf(path.key()))
        if (const auto found = refused.find(key); found != refused.end())
            detail.refused = "the kernel refused " + textOf(key) + ": " + found->second;
    return detail;
}

Chosen LinuxPlatform::choose(const Nav::LbProfileStatusEntry& entry) const {
    Forwarding* forwarding = services_ ? services_->forwarding() : nullptr;
    return forwarding ? forwarding->choice().choose(entry) : Platform::choose(entry);
}

const KernelMonitor& LinuxPlatform::monitor() const {
    return services_->monitor();
}

}  // namespace Agent::Linux
