#include "agent/linux/forwarding/Forwarding.h"

#include <algorithm>

#include "agent/linux/forwarding/Prerequisites.h"
#include "agent/linux/forwarding/RulesetDifferences.h"
#include "agent/linux/kernel/LinuxTrace.h"
#include "agent/linux/kernel/ObjectDump.h"

namespace Agent::Linux {

namespace {

void removeAll(ObjectWriter& kernel, Nftables& nftables) {
    ObjectKeys keys;
    for (const auto& [key, object] : kernel.present()) keys.insert(key);
    kernel.apply({}, keys);
    nftables.run(std::string("delete table ") + nftTable);
}

}  // namespace

Forwarding::VelSiteGroupStatusEntry::VelSiteGroupStatusEntry(Forwarding& forwarding,
                                                             Nav::SiteGroupStatusEntry& entry)
    : forwarding(forwarding),
      site(entry.key().routerIp),
      paths(Vel::Subscription::to<&VelSiteGroupStatusEntry::changed>(
          entry, Nav::SiteGroupStatusEntry::pathIndexEntryAttr, this)) {}

Forwarding::VelNavRuleStatus::VelNavRuleStatus(Forwarding& forwarding, Nav::NavRuleStatus& status)
    : forwarding(forwarding),
      rules(Vel::Subscription::to<&Forwarding::replan>(status, Nav::NavRuleStatus::navRuleEntryAttr,
                                                       &forwarding)) {}

Forwarding::Forwarding(const Nav::NavInputs& inputs, ForwardingPtr config, KernelMonitor& monitor,
                       QualityStatus& quality, std::function<void()> onProgrammed)
    : in_(inputs),
      monitor_(monitor),
      onProgrammed_(std::move(onProgrammed)),
      plan_(inputs, config, routes_, choice_),
      config_(std::move(config)),
      commit_(Loom::call<&Forwarding::commit>(*this)),
      postponed_(*inputs.scheduler, Loom::call<&Forwarding::applyPostponed>(*this)),
      ruleset_(*inputs.scheduler, Loom::call<&Forwarding::handleRulesetTimer>(*this)),
      newPaths_(*inputs.scheduler, Loom::call<&Forwarding::commit>(*this)),
      adoption_(*inputs.scheduler, Loom::call<&Forwarding::endAdoption>(*this)),
      retry_(*inputs.scheduler, Loom::call<&Forwarding::repair>(*this)),
      repair_(*inputs.scheduler, Loom::call<&Forwarding::repair>(*this)),
      port_(Vel::Subscription::to<&Forwarding::replan>(*in_.cliConfig,
                                                       Nav::NavCliConfig::udpPortConfigAttr, this)),
      siteGroups_(*this, *in_.siteGroupStatus, Nav::SiteGroupStatus::siteGroupStatusEntryAttr),
      rules_(*this, *in_.navStatusDir, Nav::NavStatusDir::navRuleStatusAttr),
      choice_(inputs, quality, choiceUser()) {
    if (!kernel_.read()) throw Vel::Error("netlink: the kernel's next hops cannot be read");
    for (const uint32_t table : tablesOfOthers(requests_))
        if (plan_.reserve(table))
            DUOLOG(linuxTrace, 4, "Table ", table, " has routes of others; it is left to them");
    monitor_.ownPortIs(kernel_.port());
    adopting_ = !kernel_.present().empty();
    if (adopting_) {
        DUOLOG(linuxTrace, 5, "Adopting ", kernel_.present().size(),
               " objects that an agent left in the kernel");
        adoption_.armIn(adoptionTime);
    }
    siteGroups_.initialize();
    rules_.initialize();
    choice_.start();
    readRoutes_ = true;
    replan();
}

MemberChoice::User Forwarding::choiceUser() {
    using std::chrono::milliseconds;
    return {[this](const Vel::String& pathGroup) -> MemberChoice::Delays {
                const ProbeValues probe = probeValues(*config_->probe(), Vel::Name(pathGroup));
                return {milliseconds(probe.upDelay), milliseconds(probe.downDelay)};
            },
            [this](uint32_t pathIndex) { return plan_.usable(pathIndex); },
            [this](const Nav::LbProfileKey& key) { groupChanged(key); }};
}

void Forwarding::pathIs(uint32_t pathIndex, const PathHop& hop) {
    if (adopting_ && !hop.usable && programmed(pathIndex) != 0) endAdoption();
    const bool isNew = !plan_.paths().contains(pathIndex);
    if (!plan_.pathIs(pathIndex, hop)) return;
    if (!isNew)
        commitLater();
    else if (!newPaths_.armed())
        newPaths_.armIn(newPathsDelay);
}

// A path that carries traffic has gone, so the decisions of now are better than those of before.
void Forwarding::pathDel(uint32_t pathIndex) {
    if (adopting_ && programmed(pathIndex) != 0) endAdoption();
    plan_.pathDel(pathIndex);
    commitLater();
}

uint32_t Forwarding::programmed(uint32_t pathIndex) {
    const auto path = plan_.paths().find(pathIndex);
    if (path == plan_.paths().end()) return 0;
    const std::vector<ObjectKey> nexthops = plan_.nexthopsOf(path->second.path);
    const auto acknowledged = [&](const ObjectKey& key) {
        const auto present = kernel_.present().find(key), wanted = plan_.wanted().find(key);
        return present != kernel_.present().end() && wanted != plan_.wanted().end() &&
               present->second == wanted->second;
    };
    if (nexthops.empty() || !std::ranges::all_of(nexthops, acknowledged)) return 0;
    return std::get<Nexthop::Key>(nexthops.front()).id;
}

void Forwarding::securedIs(uint32_t pathIndex, const PathHop& hop) {
    plan_.securedIs(pathIndex, hop);
    commitLater();
}

void Forwarding::securedDel(uint32_t pathIndex) {
    plan_.securedDel(pathIndex);
    commitLater();
}

void Forwarding::siteChanged(const Netz::IpGenAddr& site) {
    sites_.insert(site);
    commitLater();
}

void Forwarding::groupChanged(const Nav::LbProfileKey& key) {
    groups_.insert(key);
    commitLater();
}

void Forwarding::replan() {
    replanAll_ = rulesetDue_ = true;
    commitLater();
}

// Whether the segment's tunnel device is not as planned.
bool Forwarding::damaged(const Segment& segment) const {
    const Interface* device = monitor_.interfaces().named(segment.tunnel.name);
    const Tunnel& planned = segment.tunnel;
    return device && (!device->up || device->mtu != planned.mtu ||
                      (device->primary4 != planned.address && device->primary6 != planned.address));
}

// With a tunnel device that is another one now, or has gone, the kernel has removed what used it.
void Forwarding::interfacesChanged() {
    leaveFailedLinks();
    for (const auto& [vrf, segment] : plan_.segments())
        if (damaged(segment)) ownChanged();
    if (plan_.outdated(monitor_.interfaces())) {
        replan();
        repair();
    }
    rulesetDue_ = true;
    readRoutes_ = true;  // the kernel removes those of a link that goes down without an event
    commitLater();
}

// While groups wait for their replacement, commit() does it: in the kernel, one of them may have a
// failed next hop, whose place not every next hop may take for it.
void Forwarding::leaveFailedLinks() {
    if (adopting_ || !groupsToReplace_.empty()) return;
    std::set<uint32_t> failed;
    for (const auto& [pathIndex, hop] : plan_.paths()) {
        const Interface* link = monitor_.interfaces().at(hop.ifIndex);
        if (hop.usable && (!link || !link->up)) failed.insert(pathIndex);
    }
    for (const uint32_t pathIndex : failed) {
        PathHop hop = plan_.paths().at(pathIndex);
        hop.usable = false;
        plan_.pathIs(pathIndex, hop);
    }
    for (const Netz::IpGenAddr& site : sitesOf(failed)) {
        plan_.replanMembers(site);
        ObjectKeys keys = plan_.takeChanged();
        kernel_.divert(plan_.wanted(), keys);
        diverted_.merge(keys);
    }
    if (!failed.empty()) commitLater();
}

std::set<Netz::IpGenAddr> Forwarding::sitesOf(const std::set<uint32_t>& paths) const {
    std::set<Netz::IpGenAddr> sites;
    if (paths.empty()) return sites;
    for (const Nav::SiteGroupStatusEntry& entry : in_.siteGroupStatus->siteGroupStatusEntry())
        for (const uint32_t pathIndex : entry.pathIndexEntry())
            if (paths.contains(pathIndex)) sites.insert(entry.key().routerIp);
    return sites;
}

void Forwarding::routeChanged(const Message& message) {
    const bool changed = routes_.apply(message);
    if (!changed && !routes_.outdated()) return;
    replanSites_ |= changed;
    readRoutes_ |= routes_.outdated();
    commitLater();
}

// Those of the tables of all segments.
VrfRoutes::Read Forwarding::readRoutes(RequestSocket& requests, VrfRoutes& routes) const {
    std::set<uint32_t> tables, tunnels;
    for (const auto& [vrf, segment] : plan_.segmentsIn(monitor_.interfaces())) {
        tables.insert(segment.table);
        tunnels.insert(segment.tunnelIndex);
    }
    return routes.read(requests, tables, tunnels);
}

void Forwarding::readRoutes() {
    switch (readRoutes(requests_, routes_)) {
        case VrfRoutes::Read::failed:
            return retry_.armIn(retryTime);
        case VrfRoutes::Read::same:
            return;
        case VrfRoutes::Read::changed:
            break;
    }
    replanSites_ = true;
    commitLater();
}

// The devices, pins and rules have one port at any time: the configured one, or that of the devices
// until no other program has the configured one.
uint16_t Forwarding::choosePort() {
    const uint16_t configured = in_.cliConfig->udpPortConfig();
    const std::set<uint16_t> ports = kernel_.ports();
    const bool taken = !ports.empty() && !ports.contains(configured) && !portIsFree(configured);
    const uint16_t before = std::exchange(portInUse_, taken ? configured : 0);
    if (!taken) return configured;
    if (before != configured)
        DUOLOG(linuxTrace, 3, "UDP port ", configured, " is in use; the tunnels keep port ",
               *ports.begin());
    retry_.armIn(retryTime);
    return *ports.begin();
}

void Forwarding::repair() {
    compareAll_ = readRoutes_ = rulesetDue_ = true;
    if (portInUse_ != 0) replanAll_ = true;
    commitLater();
}

void Forwarding::ownChanged() {
    tampered_ = true;
    repair_.armIn(settleTime);
}

void Forwarding::commitLater() {
    in_.scheduler->post(commit_);
}

// Only a new segment needs others' routes first.
void Forwarding::commit() {
    if (replanAll_ && std::exchange(readRoutes_, false)) readRoutes();
    if (replanAll_)
        plan_.replanAll(monitor_.interfaces(), choosePort());
    else if (replanSites_)
        plan_.replanSites();
    if (std::exchange(replanAll_, false) | std::exchange(replanSites_, false))
        sites_.clear(), groups_.clear();
    plan_.replanAnyPaths(std::exchange(sites_, {}));
    plan_.replanGroups(std::exchange(groups_, {}));
    if (adopting_ && allPathsProgrammed()) endAdoption();
    ObjectKeys keys = plan_.takeChanged();
    keys.merge(std::exchange(diverted_, {}));
    if (std::exchange(compareAll_, false)) {
        if (!kernel_.read()) retry_.armIn(retryTime);
        for (const auto& [key, object] : plan_.wanted()) keys.insert(key);
        for (const auto& [key, object] : kernel_.present()) keys.insert(key);
    }
    // Other ends send as soon as their path is up, so that its packets are accepted before it is
    // used here. What fails is more urgent than rules.
    if (rulesetDue_ && !removesNexthop(keys)) {
        ruleset_.disarm();
        handleRulesetDue();
    }
    if (!keys.empty()) apply(std::move(keys));
    if (readRoutes_ || rulesetDue_) applyRulesetLater();
}

bool Forwarding::removes(const ObjectKey& key) const {
    return kernel_.present(key) && !plan_.wanted().contains(key);
}

bool Forwarding::replaces(const ObjectKey& key) const {
    return kernel_.present(key) && plan_.wanted().contains(key);
}

bool Forwarding::removesNexthop(const ObjectKeys& keys) const {
    return std::ranges::any_of(keys, [this](const ObjectKey& key) {
        return std::holds_alternative<Nexthop::Key>(key) && removes(key);
    });
}

void Forwarding::applyRulesetLater() {
    rulesetDue_ = true;
    if (!ruleset_.armed()) ruleset_.armIn(rulesetDelay);
}

void Forwarding::handleRulesetTimer() {
    if (std::exchange(readRoutes_, false)) readRoutes();
    handleRulesetDue();
}

void Forwarding::handleRulesetDue() {
    if (std::exchange(rulesetDue_, false)) applyRuleset();
}

void Forwarding::apply(ObjectKeys keys) {
    keys.merge(std::exchange(groupsToReplace_, {}));
    keys.merge(std::exchange(nexthopsToRemove_, {}));
    size_t changes = adopting_ ? 0 : kernel_.divert(plan_.wanted(), keys);
    if (!tampered_) postpone(keys);
    changes += kernel_.apply(plan_.wanted(), keys, scope());
    DUOLOG(linuxTrace, 6, "Forwarding: ", changes, " changes, ", kernel_.refused().size(),
           " refused");
    if (!kernel_.refused().empty()) retry_.armIn(retryTime);
    if (std::exchange(tampered_, false) && changes != 0)
        DUOLOG(linuxTrace, 4, "Somebody has changed the agent's objects in the kernel; ", changes,
               " changes put them back");
    if (!postponed_.armed()) armPostponed();
    if (changes != 0) onProgrammed_();
}

// What carries traffic as it is, since divert() has moved that of failed paths.
void Forwarding::postpone(ObjectKeys& keys) {
    for (auto key = keys.begin(); key != keys.end();) {
        const auto next = std::next(key);
        if (std::holds_alternative<Nexthop::Key>(*key) && removes(*key))
            nexthopsToRemove_.insert(keys.extract(key));
        else if (std::holds_alternative<NexthopGroup::Key>(*key) && replaces(*key))
            groupsToReplace_.insert(keys.extract(key));
        key = next;
    }
}

// The groups in turn, so that none waits while others change again and again.
void Forwarding::applyPostponed() {
    const Loom::Instant end = in_.scheduler->now() + postponedTime;
    const auto take = [](ObjectKeys& keys, ObjectKeys::iterator at) {
        return keys.extract(at == keys.end() ? keys.begin() : at).value();
    };
    while (in_.scheduler->now() < end && !groupsToReplace_.empty()) {
        replaced_ = take(groupsToReplace_, groupsToReplace_.upper_bound(replaced_));
        kernel_.apply(plan_.wanted(), {replaced_}, scope());
    }
    while (in_.scheduler->now() < end && groupsToReplace_.empty() && !nexthopsToRemove_.empty())
        kernel_.apply(plan_.wanted(), {take(nexthopsToRemove_, nexthopsToRemove_.begin())},
                      scope());
    armPostponed();
}

void Forwarding::armPostponed() {
    if (!groupsToReplace_.empty() || !nexthopsToRemove_.empty()) postponed_.armIn(postponedPause);
}

ObjectWriter::Scope Forwarding::scope() const {
    return adopting_ ? ObjectWriter::Scope::additions : ObjectWriter::Scope::all;
}

void Forwarding::applyRuleset() {
    std::string text = rulesetOf(in_, *config_, monitor_.interfaces(), plan_);
    if (text == rulesetText_) return;
    rulesetText_ = std::move(text);
    rulesetRefused_ = nftables_.run(rulesetText_);
    table_.changed();  // by this, which is nobody else's change
    if (rulesetRefused_.empty()) return;
    DUOLOG(linuxTrace, 3, "nftables refuses the rules: ", rulesetRefused_);
    rulesetText_.clear();
    retry_.armIn(retryTime);
}

void Forwarding::handleTableReadable() {
    if (!table_.changed() || rulesetText_.empty()) return;
    DUOLOG(linuxTrace, 4, "Somebody has changed table ", nftTable,
           " of nftables; the agent's rules are put back");
    rulesetText_.clear();
    applyRulesetLater();
}

bool Forwarding::allPathsProgrammed() const {
    const Nav::PathStatusDir* status = in_.navStatusDir->navPathStatusDir();
    size_t requested = 0;
    for (const Nav::PathConfig& vrf : in_.pathConfigDir->pathConfig())
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
            ++requested;
            const Nav::PathStatus* paths = status ? status->pathStatus(vrf.vrfName()) : nullptr;
            const auto* entry = paths ? paths->pathStatusEntry(path.key()) : nullptr;
            if (!entry || !entry->programmed()) return false;
        }
    return requested != 0;
}

void Forwarding::endAdoption() {
    if (!std::exchange(adopting_, false)) return;
    adoption_.disarm();
    DUOLOG(linuxTrace, 5, "Replacing what an agent before left in the kernel");
    repair();
}

std::vector<std::string> Forwarding::differences(RequestSocket& requests) const {
    const std::optional<Objects> present = readObjects(requests);
    if (!present) return {"the agent's objects cannot be read from the kernel"};
    std::vector<std::string> differences;
    VrfRoutes routes = routes_;
    if (readRoutes(requests, routes) != VrfRoutes::Read::same)
        differences.push_back("the tables of the VRFs have other routes of others than known");
    Plan plan = plan_;
    plan.replanAll(monitor_.interfaces(), plan_.udpPort());
    plan.takeChanged();
    for (const auto& [key, object] : plan.wanted()) {
        const auto found = present->find(key);
        const auto refused = kernel_.refused().find(key);
        if (found != present->end() && found->second == object) continue;
        differences.push_back((refused != kernel_.refused().end()
                                   ? "refused: " + refused->second + ": "
                               : found == present->end() ? "missing in the kernel: "
                                                         : "different in the kernel: ") +
                              textOf(object));
    }
    for (const auto& [key, object] : *present)
        if (!plan.wanted().contains(key))
            differences.push_back("not wanted in the kernel: " + textOf(object));
    if (!rulesetRefused_.empty()) differences.push_back("rules refused: " + rulesetRefused_);
    const auto rules = rulesOf(in_, *config_, monitor_.interfaces(), plan, comparedTable);
    for (std::string& each : rulesetDifferences(rules)) differences.push_back(std::move(each));
    return differences;
}

void Forwarding::clear() {
    removeAll(kernel_, nftables_);
}

void removeForwarding() {
    requireForwarding();
    ObjectWriter kernel;
    Nftables nftables;
    if (!kernel.read()) throw Vel::Error("the objects of forwarding cannot be read");
    removeAll(kernel, nftables);
    if (!kernel.present().empty()) throw Vel::Error("the kernel refused to remove some objects");
}

}  // namespace Agent::Linux
