#include "agent/linux/forwarding/Plan.h"

#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <algorithm>
#include <optional>
#include <unordered_set>

#include "nav/config/NavConstants.h"

namespace Agent::Linux {

namespace {

using Netz::IpGenAddr;

// What numbers stand for, first in the hash of each.
enum class Thing : uint64_t {
    nexthop,
    group,
    anyPath,
    application,
    table,
    anyTable,
    source,
    ikeSource,
};

constexpr uint16_t ikePorts[] = {500, 4500};  // RFC 7296, the second also for ESP in UDP

template <class... Words>
uint64_t thing(Thing kind, Words... words) {
    uint64_t mixed = static_cast<uint64_t>(kind);
    ((mixed = Netz::hashMix(mixed, static_cast<uint64_t>(words))), ...);
    return mixed;
}

uint64_t mix(const L3::VrfName& vrf) {
    return Netz::hashBytes(vrf.str());
}

constexpr uint32_t tunnelOverhead(bool v6) {
    return (v6 ? 40 : 20) + 8 + 8;  // IP, UDP, VXLAN
}

// ESP in transport mode: header, initialisation vector, padding to four bytes and its trailer,
// check value (RFC 4303, RFC 4106), and UDP where a NAT is on the way (RFC 3948).
constexpr uint32_t espOverhead = 8 + 8 + 3 + 2 + 16 + 8;

IpPrefix host(const IpGenAddr& addr) {
    return IpPrefix::of(addr, static_cast<uint8_t>(addr.bits()));
}

// The packets of a segment fit every underlay link that a path may take. Without any such link,
// that of Ethernet; never less than IPv6 requires (RFC 8200), so that a link of less fragments.
uint32_t derivedMtu(const InterfaceView& view, const Nav::NavCliConfig& config) {
    constexpr uint32_t ethernet = 1500, least = 1280;
    std::optional<uint32_t> smallest;
    bool v6 = false, secured = false;
    for (const Nav::PathGroupConfig& group : config.pathGroupConfig()) {
        secured |= !group.ipsecProfile().empty();
        for (const Netz::IntfId& name : group.localIntf())
            if (const Interface* interface = view.named(name))
                smallest = std::min(smallest.value_or(interface->mtu), interface->mtu);
        for (const Nav::RemoteViaConfig& remote : group.remoteViaConfig())
            for (const IpGenAddr& via : remote.remoteVia()) v6 |= via.isV6();
    }
    uint32_t link = smallest.value_or(ethernet) - (secured ? espOverhead : 0);
    if (const Interface* ipsec = ipsecDeviceIn(view); secured && ipsec)
        link = std::min(link, ipsec->mtu);
    const uint32_t overhead = tunnelOverhead(v6);
    return std::max(link, least + overhead) - overhead;
}

}  // namespace

Plan::Plan(const Nav::NavInputs& inputs, ForwardingPtr config, const VrfRoutes& routes,
           const MemberChoice& choice)
    : in_(inputs), config_(std::move(config)), routes_(routes), choice_(choice) {}

void Plan::replace(const Slice& slice, const Objects& objects) {
    std::vector<ObjectKey>& keys = slices_[slice];
    for (const ObjectKey& key : keys) {
        const auto owner = owners_.find(key);
        if (objects.contains(key) || owner == owners_.end() || owner->second != slice) continue;
        owners_.erase(owner);
        wanted_.erase(key);
        changed_.insert(key);
    }
    keys.clear();
    for (const auto& [key, object] : objects) {
        keys.push_back(key);
        owners_.insert_or_assign(key, slice);
        const auto [at, isNew] = wanted_.try_emplace(key, object);
        if (!isNew && at->second == object) continue;
        at->second = object;
        changed_.insert(key);
    }
    if (keys.empty()) slices_.erase(slice);
}

Plan::Segments Plan::segmentsIn(const InterfaceView& view) const {
    Segments segments;
    const uint32_t mtu = derivedMtu(view, *in_.cliConfig);
    for (const ForwardingVrfConfig& config : config_->vrf()) {
        const auto vrf = std::ranges::find(view.vrfs, config.vrfName(), &Vrf::name);
        if (vrf == view.vrfs.end() || (vrf->id == 0 && vrf->index != 0)) continue;
        Segment& segment = segments[config.vrfName()];
        segment.vrf = config.vrfName();
        segment.vrfId = vrf->id;
        segment.index = vrf->index;
        segment.table = vrf->index == 0 ? uint32_t{RT_TABLE_MAIN} : vrf->id;
        segment.vni = config.vni();
        segment.tunnel = {.name = Netz::IntfId(tunnelDevice(config)),
                          .udpPort = udpPort_,
                          .vni = config.vni(),
                          .mtu = config.mtu() != 0 ? config.mtu() : mtu,
                          .master = vrf->index,
                          .address = config.address()};
        const Interface* device = view.named(segment.tunnel.name);
        if (device && device->group == ownLinkGroup) segment.tunnelIndex = device->index;
    }
    return segments;
}

ObjectKeys Plan::takeChanged() {
    for (const IpGenAddr& source : std::exchange(sources_, {}))
        planSource(source), planIkeSource(source);
    return std::exchange(changed_, {});
}

uint32_t ipsecIndexIn(const InterfaceView& view) {
    const Interface* device = ipsecDeviceIn(view);
    return device ? device->index : 0;
}

bool Plan::outdated(const InterfaceView& view) const {
    return segmentsIn(view) != segments_ || ipsecIndexIn(view) != ipsecIndex_;
}

void Plan::replanAll(const InterfaceView& view, uint16_t udpPort) {
    udpPort_ = udpPort;
    segments_ = segmentsIn(view);
    ipsecIndex_ = ipsecIndexIn(view);
    planDevices();
    planApplications();
    for (const auto& [pathIndex, hop] : paths_)
        planPath(pathIndex), sources_.insert(hop.path.srcAddr);
    replanSites();
}

void Plan::replanSites() {
    std::set<IpGenAddr> sites;
    for (const auto& [slice, keys] : slices_)
        if (const auto* routes = std::get_if<SiteRoutes>(&slice)) sites.insert(routes->site);
    prefixes_.clear();
    for (const auto& [vrf, segment] : segments_) {
        prefixes_[vrf] = prefixesIn(segment);
        for (const auto& [site, prefixes] : prefixes_[vrf]) sites.insert(site);
    }
    for (const IpGenAddr& site : sites) replanSite(site);
    planOthers();
}

void Plan::planDevices() {
    Objects objects;
    for (const auto& [vrf, segment] : segments_) insert(objects, segment.tunnel);
    replace(Devices{}, objects);
}

Policy Plan::policyOf(const Segment& segment) {
    Policy policy;
    if (const Nav::NavRuleStatus* status = in_.navStatusDir->navRuleStatus(segment.vrf))
        for (const Nav::NavRuleEntry& rule : status->navRuleEntry()) policy.rules.push_back(rule);
    std::ranges::sort(policy.rules);
    constexpr uint32_t all = Nav::NavConstants::defaultRuleKey;
    if (policy.rules.empty() || policy.rules.back().ruleKey != all)
        policy.rules.push_back({all, noApplication, {}});
    std::map<uint32_t, uint64_t> profiles;  // by application
    for (const Nav::NavRuleEntry& rule : policy.rules) {
        uint64_t& mixed = profiles.try_emplace(rule.appProfileId, mix(segment.vrf)).first->second;
        mixed = Netz::hashMix(mixed, Netz::hashBytes(rule.lbProfileName));
    }
    for (const auto& [appId, mixed] : profiles)
        policy.tables[appId] =
            numbers_.of(thing(appId == noApplication ? Thing::anyTable : Thing::table, mixed));
    return policy;
}

uint32_t Plan::markOf(const L3::VrfName& vrf, uint32_t appId) {
    return numbers_.of(thing(Thing::application, mix(vrf), appId));
}

void Plan::planApplications() {
    Objects objects;
    applications_.clear();
    policies_.clear();
    for (const auto& [vrf, segment] : segments_) {
        policies_[vrf] = policyOf(segment);
        for (const auto& [appId, table] : policy(vrf).tables) {
            const uint32_t mark = markOf(vrf, appId);
            applications_.emplace(mark, std::pair(vrf, appId));
            for (const bool v6 : {false, true})
                insert(
                    objects,
                    Rule{.priority = applicationPriority, .v6 = v6, .table = table, .mark = mark});
        }
    }
    replace(Applications{}, objects);
}

bool Plan::pathIs(uint32_t pathIndex, const PathHop& hop) {
    const auto present = paths_.find(pathIndex);
    if (present != paths_.end() && present->second.path == hop.path) {
        PathHop before = std::exchange(present->second, hop);
        if (before == hop) return false;
        before.usable = hop.usable;
        if (before != hop) sources_.insert(hop.path.srcAddr);
        planPath(pathIndex);
        return true;
    }
    for (const auto& [other, path] : paths_)
        if (other != pathIndex && path.path.srcAddr == hop.path.srcAddr &&
            path.path.dstAddr == hop.path.dstAddr)
            return false;
    pathDel(pathIndex);
    paths_.emplace(pathIndex, hop);
    planPath(pathIndex);
    sources_.insert(hop.path.srcAddr);
    return true;
}

void Plan::pathDel(uint32_t pathIndex) {
    const auto gone = paths_.extract(pathIndex);
    if (gone.empty()) return;
    replace(PathNexthops{pathIndex}, {});
    sources_.insert(gone.mapped().path.srcAddr);
}

void Plan::securedIs(uint32_t pathIndex, const PathHop& hop) {
    const auto present = secured_.find(pathIndex);
    if (present != secured_.end() && present->second == hop) return;
    securedDel(pathIndex);
    secured_.emplace(pathIndex, hop);
    sources_.insert(hop.path.srcAddr);
}

void Plan::securedDel(uint32_t pathIndex) {
    if (const auto gone = secured_.extract(pathIndex)) sources_.insert(gone.mapped().path.srcAddr);
}

uint32_t Plan::nexthopId(const Segment& segment, const Nav::PathKey& path) {
    return numbers_.of(thing(Thing::nexthop, segment.vni, path.srcAddr.mix(), path.dstAddr.mix()));
}

bool Plan::usable(uint32_t pathIndex) const {
    const auto path = paths_.find(pathIndex);
    return path != paths_.end() && path->second.usable;
}

std::vector<ObjectKey> Plan::nexthopsOf(const Nav::PathKey& path) {
    std::vector<ObjectKey> keys;
    for (const auto& [vrf, segment] : segments_)
        keys.push_back(Nexthop::Key{nexthopId(segment, path)});
    return keys;
}

void Plan::planPath(uint32_t pathIndex) {
    Objects objects;
    const PathHop& hop = paths_.at(pathIndex);
    const Nav::PathKey& path = hop.path;
    for (const auto& [vrf, segment] : segments_)
        if (segment.tunnelIndex != 0 && hop.usable)
            insert(objects, Nexthop{.id = nexthopId(segment, path),
                                    .ifIndex = segment.tunnelIndex,
                                    .vni = segment.vni,
                                    .source = path.srcAddr,
                                    .destination = path.dstAddr});
    replace(PathNexthops{pathIndex}, objects);
}

namespace {

// By the path's own interface.
Route pinned(const PathHop& hop, uint32_t table) {
    return {.table = table,
            .prefix = host(hop.path.dstAddr),
            .metric = ownMetric,
            .action = Route::Action::via,
            .gateway = hop.gateway == hop.path.dstAddr ? IpGenAddr() : hop.gateway,
            .ifIndex = hop.ifIndex};
}

}  // namespace

// Where charon encrypts, tunnel packets come out of it as packets of the other table.
void Plan::planSource(const IpGenAddr& source) {
    Objects objects;
    const uint32_t table = numbers_.of(thing(Thing::source, source.mix()));
    for (const auto& [pathIndex, hop] : paths_) {
        if (hop.path.srcAddr != source) continue;
        Route route = pinned(hop, table);
        if (hop.secured && ipsecIndex_ != 0) route.gateway = {}, route.ifIndex = ipsecIndex_;
        insert(objects, route);
    }
    if (!objects.empty()) {
        insert(objects, Route{.table = table,
                              .prefix = IpPrefix::of(source, 0),
                              .metric = ownMetric,
                              .action = Route::Action::unreachable});
        const auto pin = [&](uint16_t sourcePort, uint16_t destinationPort) {
            insert(objects, Rule{.priority = pinPriority,
                                 .v6 = source.isV6(),
                                 .table = table,
                                 .source = source,
                                 .ipProtocol = IPPROTO_UDP,
                                 .sourcePort = sourcePort,
                                 .destinationPort = destinationPort});
        };
        pin(0, udpPort_);
        pin(0, probePort);
        // The socket of answers is bound to the interface; strangers are found by other routes.
        if (!config_->probe()->answerStrangers()) pin(probePort, 0);
    }
    replace(Source{source}, objects);
}

// Other destinations of IKE are left to the operator's routes.
void Plan::planIkeSource(const IpGenAddr& source) {
    Objects objects;
    const uint32_t table = numbers_.of(thing(Thing::ikeSource, source.mix()));
    for (const auto& [pathIndex, hop] : secured_)
        if (hop.path.srcAddr == source) insert(objects, pinned(hop, table));
    if (!objects.empty())
        for (const uint16_t port : ikePorts)
            insert(objects, Rule{.priority = pinPriority,
                                 .v6 = source.isV6(),
                                 .table = table,
                                 .source = source,
                                 .ipProtocol = IPPROTO_UDP,
                                 .sourcePort = port});
    replace(IkeSource{source}, objects);
}

// Configured prefixes take precedence over those that a routing daemon announces.
Plan::Prefixes Plan::prefixesIn(const Segment& segment) const {
    Prefixes prefixes;
    std::set<IpPrefix> configured;
    for (const SiteConfig& site : config_->site()) {
        const SiteVrfConfig* behind = site.vrf(segment.vrf);
        if (!behind) continue;
        auto& of = prefixes[site.routerAddr()];
        of.insert(host(innerAddress(site, *behind)));
        for (const IpPrefix& prefix : behind->prefix()) of.insert(prefix);
        configured.insert(of.begin(), of.end());
    }
    for (auto& [site, of] : prefixes) {
        const SiteConfig& config = *config_->site(site);
        for (const IpPrefix& prefix :
             routes_.learned(segment.table, innerAddress(config, *config.vrf(segment.vrf))))
            if (!configured.contains(prefix)) of.insert(prefix);
    }
    return prefixes;
}

void Plan::replanSite(const IpGenAddr& site) {
    Objects objects;
    for (const auto& [vrf, segment] : segments_)
        if (const auto prefixes = prefixes_[vrf].find(site);
            prefixes != prefixes_[vrf].end() && segment.tunnelIndex != 0)
            planSite(objects, segment, site, prefixes->second);
    replace(SiteRoutes{site}, objects);
}

// Returns false if the group begins or ceases to exist, which concerns the routes to it too.
bool Plan::replaceMembers(const NexthopGroup& group) {
    const auto planned = wanted_.find(group.key());
    if (planned == wanted_.end()) return group.members.empty();
    if (group.members.empty()) return false;
    if (planned->second == Object(group)) return true;
    planned->second = group;
    changed_.insert(group.key());
    return true;
}

// A link that fails changes all groups, but hardly a route.
void Plan::replanGroups(const LbKeys& keys) {
    std::set<IpGenAddr> sites;  // to be replanned with their routes
    std::unordered_set<uint32_t> done;
    for (const Nav::LbProfileKey& key : keys)
        for (const auto& [vrf, segment] : segments_) {
            if (segment.vrfId != key.vrfId) continue;
            const auto table = policy(vrf).tables.find(key.appId);
            if (table != policy(vrf).tables.end() &&
                done.insert(groupId(table->second, key.vtepIp)).second &&
                !replaceMembers(group(segment, key.vtepIp, key.appId)))
                sites.insert(key.vtepIp);
        }
    for (const IpGenAddr& site : sites) replanSite(site);
}

void Plan::replanAnyPaths(const std::set<IpGenAddr>& sites) {
    for (const IpGenAddr& site : sites) {
        bool routesStay = true;
        for (const auto& [vrf, segment] : segments_)
            routesStay &= replaceMembers(anyPath(segment, site));
        if (!routesStay) replanSite(site);
    }
}

void Plan::replanMembers(const IpGenAddr& site) {
    LbKeys keys;
    for (const auto& [vrf, segment] : segments_)
        for (const auto& [appId, table] : policy(vrf).tables)
            keys.insert({site, appId, segment.vrfId});
    replanGroups(keys);
    replanAnyPaths({site});
}

void Plan::planSite(Objects& objects, const Segment& segment, const IpGenAddr& site,
                    const std::set<IpPrefix>& prefixes) {
    const auto route = [&](uint32_t table, uint32_t metric, const NexthopGroup& group) {
        for (const IpPrefix& prefix : prefixes) {
            Route route{.table = table, .prefix = prefix, .metric = metric};
            if (!group.members.empty())
                route.action = Route::Action::nexthop, route.nexthopId = group.id;
            insert(objects, route);
        }
        if (!group.members.empty()) insert(objects, group);
    };
    std::set<uint32_t> done;
    for (const auto& [appId, table] : policy(segment.vrf).tables)
        if (done.insert(table).second) route(table, ownMetric, group(segment, site, appId));
    route(segment.table, lastMetric, anyPath(segment, site));
}

// A table that is looked up first would hide more specific routes of the VRF's table.
void Plan::planOthers() {
    Objects objects;
    for (const auto& [vrf, segment] : segments_) {
        std::set<IpPrefix> overlay;
        for (const auto& [site, prefixes] : prefixes_[vrf])
            overlay.insert(prefixes.begin(), prefixes.end());
        const auto hidden = [&](const IpPrefix& prefix) {
            if (overlay.contains(prefix)) return false;
            for (int length = prefix.prefixLength - 1; length >= 0; --length)
                if (overlay.contains(IpPrefix::of(prefix.addr, static_cast<uint8_t>(length))))
                    return true;
            return false;
        };
        for (const IpPrefix& prefix : routes_.others(segment.table))
            if (hidden(prefix))
                for (const auto& [appId, table] : policy(vrf).tables)
                    insert(objects, Route{.table = table,
                                          .prefix = prefix,
                                          .metric = ownMetric,
                                          .action = Route::Action::next});
    }
    replace(Others{}, objects);
}

void Plan::addMember(NexthopGroup& group, const Segment& segment, uint32_t pathIndex) {
    const auto path = paths_.find(pathIndex);
    if (path == paths_.end() || !path->second.usable) return;
    group.members.push_back(
        {nexthopId(segment, path->second.path), std::clamp<uint32_t>(path->second.weight, 1, 256)});
}

uint32_t Plan::groupId(uint32_t table, const IpGenAddr& site) {
    return numbers_.of(thing(Thing::group, table, site.mix()));
}

NexthopGroup Plan::group(const Segment& segment, const IpGenAddr& site, uint32_t appId) {
    if (appId == noApplication) return anyPath(segment, site);
    const uint32_t table = policy(segment.vrf).tables.at(appId);
    NexthopGroup group{groupId(table, site), {}};
    const Nav::LbProfileStatus* ids = in_.navStatusDir->navLbProfileStatus();
    const auto* id = ids ? ids->lbProfileStatusEntry({site, appId, segment.vrfId}) : nullptr;
    if (!id) return group;
    for (const Nav::PathWithPriority& member : choice_.choose(*id).members)
        addMember(group, segment, member.pathIndex);
    std::ranges::sort(group.members);
    return group;
}

NexthopGroup Plan::anyPath(const Segment& segment, const IpGenAddr& site) {
    NexthopGroup group{numbers_.of(thing(Thing::anyPath, mix(segment.vrf), site.mix())), {}};
    std::set<uint32_t> indices;
    for (const Nav::PathGroupConfig& each : in_.cliConfig->pathGroupConfig())
        if (const auto* entry = in_.siteGroupStatus->siteGroupStatusEntry({each.name(), site}))
            for (const uint32_t pathIndex : entry->pathIndexEntry()) indices.insert(pathIndex);
    for (const uint32_t pathIndex : indices) addMember(group, segment, pathIndex);
    std::ranges::sort(group.members);
    return group;
}

}  // namespace Agent::Linux
