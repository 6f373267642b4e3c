#include "nav/path/NavPathGroupDirSm.h"

#include <algorithm>

#include "nav/path/PathTrace.h"

namespace Nav {

// Follows the address and the VRF of one interface.
class NavPathGroupDirSm::VelIpIntfStatus : public Vel::Object {
  public:
    VelIpIntfStatus(NavPathGroupDirSm& owner, Ip::IpIntfStatus& status)
        : owner_(owner),
          status_(status),
          addr_(Vel::Subscription::to<&VelIpIntfStatus::handleIntfPrimaryAddr>(
              status, Ip::IpIntfStatus::activeAddrWithMaskAttr, this)),
          vrfName_(Vel::Subscription::to<&VelIpIntfStatus::handleIntfPrimaryAddr>(
              status, Ip::IpIntfStatus::vrfNameAttr, this)),
          source_(read()) {
        owner_.vrfToIntf_[source_.vrfName].insert(intf());
    }

    const IntfSource& source() const { return source_; }

    void handleInitialized() {
        DUOLOG_ENTRY(pathTrace, " ", intf());
        const Netz::IpGenAddr addr = source_.addr;
        if (!addr.isZero()) owner_.handleIntfPrimaryAddr(intf(), addr, {});
    }
    // The address, the VRF or the VRF's id changed. A new mask alone is no change.
    void handleIntfPrimaryAddr() {
        DUOLOG_ENTRY(pathTrace, " ", intf());
        IntfSource now = read();
        if (now == source_) return;
        if (now.vrfName != source_.vrfName) {
            leaveVrf();
            owner_.vrfToIntf_[now.vrfName].insert(intf());
        }
        const Netz::IpGenAddr addr = now.addr, prevAddr = source_.addr;
        source_ = std::move(now);
        DUOLOG(pathTrace, 7, "prevAddr ", prevAddr, " addr ", addr);
        owner_.handleIntfPrimaryAddr(intf(), addr, prevAddr);
    }
    void handleIntfDelete() {
        DUOLOG_ENTRY(pathTrace, " ", intf());
        owner_.handleIntfDelete(intf(), source_.addr);
    }
    void handleDelete() { handleIntfDelete(); }
    void doCleanup() { leaveVrf(); }

  private:
    const Netz::IntfId& intf() const { return status_.intfId(); }
    IntfSource read() const {
        return {status_.activeAddrWithMask().addr, status_.vrfName(),
                owner_.vrfIdOf(status_.vrfName())};
    }
    void leaveVrf() {
        const auto vrf = owner_.vrfToIntf_.find(source_.vrfName);
        if (vrf == owner_.vrfToIntf_.end()) return;
        vrf->second.erase(intf());
        if (vrf->second.empty()) owner_.vrfToIntf_.erase(vrf);
    }

    NavPathGroupDirSm& owner_;
    Ip::IpIntfStatus& status_;
    Vel::Subscription addr_;
    Vel::Subscription vrfName_;
    IntfSource source_;  // from which the interface's paths are created
};

// Follows the id of one VRF.
class NavPathGroupDirSm::VelVrfStatus : public Vel::Object {
  public:
    VelVrfStatus(NavPathGroupDirSm& owner, Routing::Hardware::VrfStatus& status)
        : owner_(owner),
          status_(status),
          vrfId_(Vel::Subscription::to<&VelVrfStatus::handleVrfId>(
              status, Routing::Hardware::VrfStatus::vrfIdAttr, this)) {}

    void handleInitialized() { handleVrfId(); }
    void handleVrfId() {
        DUOLOG_ENTRY(pathTrace, " ", status_.vrfName());
        owner_.handleVrf(status_.vrfName());
    }
    void handleVrfDel() {
        DUOLOG_ENTRY(pathTrace, " ", status_.vrfName());
        owner_.handleVrf(status_.vrfName());
    }
    void handleDelete() { handleVrfDel(); }

  private:
    NavPathGroupDirSm& owner_;
    Routing::Hardware::VrfStatus& status_;
    Vel::Subscription vrfId_;
};

NavPathGroupDirSm::NavPathGroupDirSm(const Inputs& inputs)
    : in_(inputs),
      freePathId_(static_cast<U16>(in_.maxPathIndex)),
      pathGroupConfig_(
          Vel::Subscription::to<static_cast<void (NavPathGroupDirSm::*)(const Vel::Name&)>(
              &NavPathGroupDirSm::handlePathGroup)>(*in_.cliConfig,
                                                    NavCliConfig::pathGroupConfigAttr, this)),
      navConfigured_(Vel::Subscription::to<&NavPathGroupDirSm::createWaiting>(
          *in_.cliConfig, NavCliConfig::navConfiguredAttr, this)),
      vrfStatus_(*this, *in_.routingHwRouteStatus, Routing::Hardware::RouteStatus::vrfStatusAttr),
      ipIntfStatus_(*this, *in_.ipStatus, Ip::Status::ipIntfStatusAttr) {}

NavPathGroupDirSm::~NavPathGroupDirSm() = default;

void NavPathGroupDirSm::handleInitialized() {
    DUOLOG_ENTRY(pathTrace);
    if (initialized_) {
        DUOLOG(pathTrace, 7, "already initialized");
        return;
    }
    emptyDirectories();
    if (ended_) return;
    initialized_ = true;
    handlePathGroup();
    vrfStatus_.initialize();
    ipIntfStatus_.initialize();
}

void NavPathGroupDirSm::doCleanup() {
    DUOLOG_ENTRY(pathTrace);
    ended_ = true;
    waiting_.clear();
    vrfStatus_.clear();
    ipIntfStatus_.clear();
    for (const auto& group : navPathGroupSm_.all())
        for (const PathKey& pathKey : group.reactor->claimed()) deletePath(pathKey);
    navPathGroupSm_.delAll();
    intfToPgName_.clear();
    emptyDirectories();
}

void NavPathGroupDirSm::emptyDirectories() {
    in_.pathConfigDir->pathConfigDelAll();
    in_.pathStatusDir->pathStatusDelAll();
    in_.siteGroupStatus->siteGroupStatusEntryDelAll();
    in_.navStatusDir->navRemoteIpListDelAll();
}

void NavPathGroupDirSm::handlePathGroup() {
    for (const PathGroupConfig& group : in_.cliConfig->pathGroupConfig())
        handlePathGroup(group.name());
}

void NavPathGroupDirSm::handlePathGroup(const Vel::Name& pgName) {
    if (!initialized_ || ended_) return;
    DUOLOG_ENTRY(pathTrace, " ", pgName);
    NavPathGroupSm* present = navPathGroupSm_(pgName);
    // The group may have been removed and added again before this notification was delivered.
    if (present && &present->config() != in_.cliConfig->pathGroupConfig(pgName))
        deletePathGroup(*present);
    PathGroupConfig* config = in_.cliConfig->pathGroupConfig(pgName);
    if (!config || navPathGroupSm_(pgName) || ended_) return;
    DUOLOG(pathTrace, 7, "Path group ", pgName, " added");
    in_.navDb->pathGroupInfoIs(pgName);
    navPathGroupSm_.is(pgName, {.pgName = pgName, .pathGroupConfig = *config, .pgDirSm = this});
}

void NavPathGroupDirSm::deletePathGroup(NavPathGroupSm& group) {
    const Vel::Hold hold;
    const Vel::String pgName = group.pgName();
    DUOLOG(pathTrace, 7, "Path group ", pgName, " deleted");
    group.removedIs();
    for (const PathKey& pathKey : group.claimed()) {
        if (const PathKeyInfo* info = in_.navDb->pathKeyInfo(pathKey))
            DUOLOG(pathTrace, 7, "Deleting path: ", pathKey, " for vrf: ", info->vrfName());
        removePathFromConfig(pathKey, pgName);
    }
    group.doCleanup();
    // A subscriber called above may have added the group again, which removed this reactor.
    if (navPathGroupSm_(pgName) != &group) return;
    for (auto& [intf, groups] : intfToPgName_) std::erase(groups, pgName);
    std::erase_if(intfToPgName_, [](const auto& listed) { return listed.second.empty(); });
    navPathGroupSm_.del(pgName);
    in_.navDb->pathGroupInfoDel(pgName);
}

IntfSource NavPathGroupDirSm::sourceOf(const Netz::IntfId& intf) const {
    const VelIpIntfStatus* status = ipIntfStatus_(intf);
    return status ? status->source() : IntfSource{};
}

Netz::IpGenAddr NavPathGroupDirSm::getSrcIntfIp(const Netz::IntfId& intf) const {
    const VelIpIntfStatus* status = ipIntfStatus_(intf);
    if (status && !status->source().addr.isZero()) return status->source().addr;
    DUOLOG(pathTrace, 7, "Intf ", intf, " doesnt have ip address yet");
    return {};
}

U32 NavPathGroupDirSm::getSrcIntfVrfId(const Netz::IntfId& intf) {
    const VelIpIntfStatus* status = ipIntfStatus_(intf);
    if (!status) return 0;
    const IntfSource& source = status->source();
    const U32 vrfId = source.vrfId.value_or(0);
    DUOLOG(pathTrace, 7, "vrfName: ", source.vrfName, " vrfId: ", vrfId);
    if (source.vrfId) recordVrfId(*in_.navDb, *in_.routingHwRouteStatus, source.vrfName, vrfId);
    return vrfId;
}

std::optional<U32> NavPathGroupDirSm::vrfIdOf(const L3::VrfName& vrfName) const {
    const auto* status = in_.routingHwRouteStatus->vrfStatus(vrfName);
    return Routing::Hardware::knownVrfId(vrfName, status ? status->vrfId() : 0);
}

void NavPathGroupDirSm::handleVrf(const L3::VrfName& vrfName) {
    if (!vrfIdOf(vrfName)) releaseVrfId(*in_.navDb, *in_.routingHwRouteStatus, vrfName);
    const auto vrf = vrfToIntf_.find(vrfName);
    if (vrf == vrfToIntf_.end()) return;
    for (const Netz::IntfId& intf : std::set<Netz::IntfId>(vrf->second))
        if (VelIpIntfStatus* status = ipIntfStatus_(intf)) status->handleIntfPrimaryAddr();
}

void NavPathGroupDirSm::handleIntfPrimaryAddr(const Netz::IntfId& intf, const Netz::IpGenAddr& addr,
                                              const Netz::IpGenAddr& prevAddr,
                                              NavPathGroupSm* only) {
    DUOLOG_ENTRY(pathTrace);
    DUOLOG(pathTrace, 7, "prevAddr ", prevAddr, " addr ", addr, " intf: ", intf.shortName());
    if (!intfToPgName(intf)) {
        DUOLOG(pathTrace, 7, "Intf ", intf, " is not a WAN intf");
        return;
    }
    const IntfSource source = sourceOf(intf);
    if (!addr.isZero()) {
        in_.nexthopConfig->vrfIs(source.vrfName);  // also while the VRF's id is not known
        getSrcIntfVrfId(intf);
    }
    if (!prevAddr.isZero()) removeStalePaths(intf, only);
    // A subscriber called above may have changed the interface again, which created its paths.
    if (addr.isZero() || sourceOf(intf) != source) return;
    if (only)
        only->createPaths(intf);
    else
        for (const auto& group : groupsOf(intf)) group->createPaths(intf);
}

void NavPathGroupDirSm::handleIntfDelete(const Netz::IntfId& intf, const Netz::IpGenAddr& addr) {
    DUOLOG_ENTRY(pathTrace);
    DUOLOG(pathTrace, 7, "Intf ", intf, " ip: ", addr);
    if (!intfToPgName(intf))
        DUOLOG(pathTrace, 7, "Intf ", intf, " is not a WAN intf");
    else
        removeStalePaths(intf, nullptr);
}

// Removes the paths from any other source than the interface's current one.
void NavPathGroupDirSm::removeStalePaths(const Netz::IntfId& intf, NavPathGroupSm* only) {
    const auto remove = [&](NavPathGroupSm& group) {
        for (const PathKey& pathKey : group.claimed())
            withdrawClaims(pathKey, group, [&](const PathClaim& claim) {
                return claim.intf == intf && !isJustified(pathKey, claim, group);
            });
    };
    if (only) return remove(*only);
    for (const auto& group : groupsOf(intf)) remove(*group);
}

// Removes the paths that the configuration no longer contains, including those removed by a change
// that this reactor has not been notified of yet.
void NavPathGroupDirSm::removeStalePaths() {
    const Vel::Hold hold;
    remove([&] {
        for (const auto& intf : ipIntfStatus_.all()) intf.reactor->handleIntfPrimaryAddr();
        for (const auto& group : navPathGroupSm_.all()) {
            const Vel::Ptr<NavPathGroupSm> reactor(*group.reactor);
            handlePathGroup(reactor->pgName());
            reactor->handleIpsecConfig();
            reactor->removeStalePaths();
        }
    });
}

std::vector<Vel::Ptr<NavPathGroupSm>> NavPathGroupDirSm::groupsOf(const Netz::IntfId& intf) const {
    std::vector<Vel::Ptr<NavPathGroupSm>> groups;
    const auto listed = intfToPgName_.find(intf);
    if (listed == intfToPgName_.end()) return groups;
    for (const Vel::String& pgName : listed->second) {
        NavPathGroupSm* group = navPathGroupSm_(pgName);
        VEL_ASSERT(group, "!!pathGroupConfig");
        groups.emplace_back(*group);
    }
    return groups;
}

void NavPathGroupDirSm::intfToPgNameIs(const Netz::IntfId& intf, const Vel::String& pgName) {
    auto& groups = intfToPgName_[intf];
    std::erase(groups, pgName);
    groups.push_back(pgName);
}

void NavPathGroupDirSm::intfToPgNameDel(const Netz::IntfId& intf, const Vel::String& pgName) {
    const auto listed = intfToPgName_.find(intf);
    if (listed == intfToPgName_.end()) return;
    std::erase(listed->second, pgName);
    if (listed->second.empty()) intfToPgName_.erase(listed);
}

const Vel::String* NavPathGroupDirSm::intfToPgName(const Netz::IntfId& intf) const {
    const auto listed = intfToPgName_.find(intf);
    return listed == intfToPgName_.end() ? nullptr : &listed->second.back();
}

void NavPathGroupDirSm::remoteSiteIs(const SiteGroupKey& site) {
    PathGroupInfo* info = in_.navDb->pathGroupInfo(site.name);
    VEL_ASSERT(info, "!!pathGroupInfo");
    if (info->remoteIpListHas(site.routerIp)) return;
    info->remoteIpListIs(site.routerIp);
    if (++remoteSiteUsers_[site.routerIp] == 1) in_.navStatusDir->navRemoteIpListIs(site.routerIp);
}

void NavPathGroupDirSm::remoteSiteDel(const SiteGroupKey& site) {
    PathGroupInfo* info = in_.navDb->pathGroupInfo(site.name);
    if (!info || !info->remoteIpListHas(site.routerIp)) return;
    info->remoteIpListDel(site.routerIp);
    if (--remoteSiteUsers_[site.routerIp] > 0) return;
    remoteSiteUsers_.erase(site.routerIp);
    in_.navStatusDir->navRemoteIpListDel(site.routerIp);
}

// ---- claims ----

// Runs a function that removes paths. The outermost call then creates the paths that waited.
template <class Removal>
void NavPathGroupDirSm::remove(Removal removal) {
    const Vel::Hold hold;
    {
        struct Count {
            U32& removals;
            ~Count() { --removals; }
        } const count{++removals_};
        removal();
    }
    createWaiting();
}

void NavPathGroupDirSm::createWaiting() {
    const Vel::Hold hold;
    while (!mayWait() && !waiting_.empty()) {
        const auto [claim, dst] = waiting_.front();
        waiting_.erase(waiting_.begin());
        if (NavPathGroupSm* group = navPathGroupSm_(claim.siteGroupKey.name))
            createPath(claim.intf, claim.siteGroupKey.routerIp, dst, *group);
    }
}

auto NavPathGroupDirSm::isOf(const NavPathGroupSm& group) {
    return [&](const PathClaim& claim) { return claim.siteGroupKey.name == group.pgName(); };
}

void NavPathGroupDirSm::createPathsForIntf(const Netz::IntfId& intf, const Netz::IpGenAddr& viaAddr,
                                           const Vel::String& pgName) {
    NavPathGroupSm* group = navPathGroupSm_(pgName);
    const RemoteViaConfig* viaCfg = group ? group->config().remoteViaConfig(viaAddr) : nullptr;
    if (!viaCfg) return;
    for (const Netz::IpGenAddr& dst : viaCfg->remoteVia()) createPath(intf, viaAddr, dst, *group);
}

void NavPathGroupDirSm::createPath(const Netz::IntfId& intf, const Netz::IpGenAddr& viaAddr,
                                   const Netz::IpGenAddr& dst, NavPathGroupSm& group) {
    const VelIpIntfStatus* status = ipIntfStatus_(intf);
    if (!status || !status->source().offersPaths()) return;
    const IntfSource& source = status->source();
    const PathKey pathKey{source.addr, dst, *source.vrfId};
    const PathClaim claim{intf, {group.pgName(), viaAddr}, source.vrfName};
    // If the path is being removed, complete the removal first.
    if (const PathKeyInfo* left = in_.navDb->pathKeyInfo(pathKey);
        left && !paths_.contains(pathKey))
        forgetPath(pathKey, L3::VrfName(left->vrfName()));
    if (!freePathIds() && !paths_.contains(pathKey)) removeStalePaths();
    if (!isJustified(pathKey, claim, group)) return;
    DUOLOG(pathTrace, 7, "Adding path ", pathKey, " for site ", claim.siteGroupKey);
    addPathToConfig(pathKey, claim.siteGroupKey, claim.vrfName, intf);
}

// Whether the current configuration and interface status still require the claim.
bool NavPathGroupDirSm::isJustified(const PathKey& pathKey, const PathClaim& claim,
                                    const NavPathGroupSm& group) const {
    if (group.removed() || ended_) return false;
    const VelIpIntfStatus* status = ipIntfStatus_(claim.intf);
    if (!status || !in_.ipStatus->ipIntfStatus(claim.intf)) return false;
    const IntfSource& source = status->source();
    const RemoteViaConfig* site = group.config().remoteViaConfig(claim.siteGroupKey.routerIp);
    return source.addr == pathKey.srcAddr && source.vrfId == pathKey.vrfId &&
           source.vrfName == claim.vrfName && group.config().localIntfHas(claim.intf) && site &&
           site->remoteViaHas(pathKey.dstAddr);
}

void NavPathGroupDirSm::addPathToConfig(const PathKey& pathKey, const SiteGroupKey& siteGroupKey,
                                        const L3::VrfName& vrfName, const Netz::IntfId& intf) {
    NavPathGroupSm* group = navPathGroupSm_(siteGroupKey.name);
    VEL_ASSERT(group, "!!pathGroupConfig");
    const PathClaim claim{intf, siteGroupKey, vrfName};
    const auto found = paths_.find(pathKey);
    if (found == paths_.end()) {
        if (!freePathIds() && mayWait()) {
            DUOLOG(pathTrace, 7, "Path ", pathKey, " waits for an index");
            waiting_.emplace_back(claim, pathKey.dstAddr);
            return;
        }
        VEL_ASSERT(freePathIds(), "freePathIds()");
        group->claimedAdd(pathKey);
        const U16 index = freePathIdDeq();
        DUOLOG(pathTrace, 7, "Creating pathIndex: ", index, " for path ", pathKey);
        Path& path = paths_[pathKey];
        path.index = index;
        path.publication = ++publications_;
        path.claims.push_back(claim);
        publishPath(pathKey, path, claim);
        return;
    }
    Path& path = found->second;
    DUOLOG(pathTrace, 7, "Using pathIndex: ", path.index, " for path ", pathKey);
    const PathClaim owner = path.claims.back();
    if (std::ranges::none_of(path.claims, isOf(*group))) group->claimedAdd(pathKey);
    std::erase(path.claims, claim);
    path.claims.push_back(claim);
    changeOwner(pathKey, path, owner);
}

void NavPathGroupDirSm::removePathFromConfig(const PathKey& pathKey, const Vel::String& pgName) {
    if (NavPathGroupSm* group = navPathGroupSm_(pgName))
        withdrawClaims(pathKey, *group, [](const PathClaim&) { return true; });
}

void NavPathGroupDirSm::removeStalePath(const PathKey& pathKey, NavPathGroupSm& group) {
    withdrawClaims(pathKey, group,
                   [&](const PathClaim& claim) { return !isJustified(pathKey, claim, group); });
}

void NavPathGroupDirSm::handleProfileCleared(NavPathGroupSm& group) {
    std::erase_if(waiting_, [&](const auto& waiting) { return isOf(group)(waiting.first); });
    remove([&] {
        for (const PathKey& pathKey : group.claimed())
            if (group.config().ipsecProfile().empty())
                removePathFromConfig(pathKey, group.pgName());
    });
}

template <class Predicate>
void NavPathGroupDirSm::withdrawClaims(const PathKey& pathKey, NavPathGroupSm& group,
                                       Predicate withdrawn) {
    const auto found = paths_.find(pathKey);
    if (found == paths_.end()) return;
    Path& path = found->second;
    const auto leaves = [&](const PathClaim& claim) {
        return isOf(group)(claim) && withdrawn(claim);
    };
    if (std::ranges::none_of(path.claims, leaves)) return;
    const PathClaim owner = path.claims.back();
    DUOLOG(pathTrace, 7, "Removing path ", pathKey, " for site ", owner.siteGroupKey);
    if (std::ranges::all_of(path.claims, leaves)) {
        group.claimedDel(pathKey);
        return deletePath(pathKey);
    }
    std::erase_if(path.claims, leaves);
    if (std::ranges::none_of(path.claims, isOf(group))) group.claimedDel(pathKey);
    if (path.claims.back() != owner) changeOwner(pathKey, path, owner);
}

// ---- publication ----

// Whether this is still the newest publication of the path, and the path was not deleted since.
bool NavPathGroupDirSm::isNewest(const PathKey& pathKey, U32 publication) const {
    if (publication == publications_) return true;
    const auto found = paths_.find(pathKey);
    return found != paths_.end() && found->second.publication == publication;
}

// Publishes a path for its new owner under the same index. If the interface (and so perhaps the
// VRF) changes, the path is resolved again; if only the site changes, the path moves to that site's
// status.
void NavPathGroupDirSm::changeOwner(const PathKey& pathKey, Path& path, const PathClaim& before) {
    const PathClaim now = path.claims.back();
    const U16 index = path.index;
    const U32 publication = path.publication = ++publications_;
    if (before.siteGroupKey.name != now.siteGroupKey.name)
        if (PathGroupInfo* info = in_.navDb->pathGroupInfo(before.siteGroupKey.name))
            info->pathKeySetDel(pathKey);
    if (before.intf != now.intf)
        unpublishPath(pathKey, before.vrfName);
    else if (before.siteGroupKey != now.siteGroupKey)
        leaveSite(before.siteGroupKey, index);
    if (!isNewest(pathKey, publication) || !publishPath(pathKey, path, now)) return;
    // Path resolution lists a path when it becomes programmed, so list one that already is.
    const auto isProgrammed = [&] {
        const PathStatus* pathStatus = in_.pathStatusDir->pathStatus(now.vrfName);
        const auto* status = pathStatus ? pathStatus->pathStatusEntry(pathKey) : nullptr;
        return isNewest(pathKey, publication) && status && status->programmed();
    };
    if (!in_.nexthopStatus->vrf(now.vrfName) || !isProgrammed()) return;
    const Vel::Hold hold;
    SiteGroupStatus& sites = *in_.siteGroupStatus;
    while (isProgrammed() && !sites.siteGroupStatusEntry(now.siteGroupKey))
        sites.siteGroupStatusEntryIs(now.siteGroupKey);  // a subscriber may remove it again
    if (isProgrammed()) sites.siteGroupStatusEntry(now.siteGroupKey)->pathIndexEntryIs(index);
}

// Adds the configuration entry last and complete, so that its subscribers find everything else.
// Returns whether this is still the newest publication at the end.
bool NavPathGroupDirSm::publishPath(const PathKey& pathKey, const Path& path,
                                    const PathClaim& owner) {
    const Vel::Hold hold;
    const U32 index = path.index, publication = path.publication;
    const NavPathGroupSm* group = navPathGroupSm_(owner.siteGroupKey.name);
    VEL_ASSERT(group, "!!pathGroupConfig");
    const Vel::String ipsecProfile = group->config().ipsecProfile();
    NavDb& navDb = *in_.navDb;

    auto fill = [&](PathKeyInfo& info) {
        info.pathIndexIs(index);
        info.siteGroupKeyIs(owner.siteGroupKey);
        info.ipsecProfileIs(ipsecProfile);
        info.vrfNameIs(owner.vrfName);
    };
    fill(navDb.pathKeyInfoIs(pathKey, fill));
    navDb.srcToIntfMappingIs(pathKey.srcAddr, owner.intf);
    navDb.addrToPathKeySetIs(pathKey.srcAddr).pathKeyIs(pathKey);
    navDb.addrToPathKeySetIs(pathKey.dstAddr).pathKeyIs(pathKey);
    PathGroupInfo* pathGroupInfo = navDb.pathGroupInfo(owner.siteGroupKey.name);
    VEL_ASSERT(pathGroupInfo, "!!pathGroupInfo");
    pathGroupInfo->pathKeySetIs(pathKey);

    PathConfig& pathConfig = in_.pathConfigDir->pathConfigIs(owner.vrfName);
    if (!isNewest(pathKey, publication)) return false;
    PathStatus& pathStatus = in_.pathStatusDir->pathStatusIs(owner.vrfName);
    if (!isNewest(pathKey, publication)) return false;
    pathStatus.pathStatusEntryIs(pathKey);
    if (!isNewest(pathKey, publication)) return false;
    auto configure = [&](PathConfigEntry& entry) {
        entry.pathIndexIs(index);
        entry.ipsecProfileIs(ipsecProfile);
    };
    PathConfigEntry& entry = pathConfig.pathConfigEntryIs(pathKey, configure);
    if (!isNewest(pathKey, publication)) return false;
    configure(entry);
    return isNewest(pathKey, publication);
}

// Removes a path that was published in a VRF, including status and key info, which nobody else
// removes if no reactor resolves the VRF.
void NavPathGroupDirSm::unpublishPath(const PathKey& pathKey, const L3::VrfName& vrfName) {
    DUOLOG(pathTrace, 7, "Deleting pathConfig for path: ", pathKey);
    if (PathConfig* pathConfig = in_.pathConfigDir->pathConfig(vrfName))
        pathConfig->pathConfigEntryDel(pathKey);
    forgetPath(pathKey, vrfName);
}

// Removes status and key info of a path that is no longer configured. Stops if a subscriber caused
// the path to be published again.
void NavPathGroupDirSm::forgetPath(const PathKey& pathKey, const L3::VrfName& vrfName) {
    const Vel::Hold hold;
    const auto isLeft = [&] {
        const PathKeyInfo* info = in_.navDb->pathKeyInfo(pathKey);
        const PathConfig* pathConfig = in_.pathConfigDir->pathConfig(vrfName);
        return info && info->vrfName() == vrfName &&
               !(pathConfig && pathConfig->pathConfigEntry(pathKey));
    };
    if (!isLeft()) return;
    const PathKeyInfo& info = *in_.navDb->pathKeyInfo(pathKey);
    leaveSite(info.siteGroupKey(), info.pathIndex());
    PathStatus* pathStatus = in_.pathStatusDir->pathStatus(vrfName);
    PathStatusEntry* entry = pathStatus ? pathStatus->pathStatusEntry(pathKey) : nullptr;
    if (entry && isLeft()) entry->programmedIs(false);
    if (entry && isLeft()) entry->pathInfoIs({});
    if (entry && isLeft()) entry->encapIdIs(noEncapId);
    if (entry && isLeft()) pathStatus->pathStatusEntryDel(pathKey);
    if (isLeft()) in_.navDb->pathKeyInfoDel(pathKey);
}

void NavPathGroupDirSm::deletePath(const PathKey& pathKey) {
    remove([&] { removePath(pathKey); });
}

void NavPathGroupDirSm::removePath(const PathKey& pathKey) {
    const auto path = paths_.extract(pathKey);
    if (path.empty()) return;
    ++publications_;
    const U16 index = path.mapped().index;
    const PathClaim owner = path.mapped().claims.back();
    const Vel::Hold hold;
    NavDb& navDb = *in_.navDb;
    for (const Netz::IpGenAddr& addr : {pathKey.srcAddr, pathKey.dstAddr}) {
        PathAddrToPathKeySet* pathKeySet = navDb.addrToPathKeySet(addr);
        VEL_ASSERT(pathKeySet, "!!pathKeySet");
        pathKeySet->pathKeyDel(pathKey);
    }
    PathGroupInfo* pathGroupInfo = navDb.pathGroupInfo(owner.siteGroupKey.name);
    VEL_ASSERT(pathGroupInfo, "!!pathGroupInfo");
    pathGroupInfo->pathKeySetDel(pathKey);
    unpublishPath(pathKey, owner.vrfName);
    for (const Netz::IpGenAddr& addr : {pathKey.srcAddr, pathKey.dstAddr}) {
        const PathAddrToPathKeySet* pathKeySet = navDb.addrToPathKeySet(addr);
        if (pathKeySet && pathKeySet->pathKey().empty()) navDb.addrToPathKeySetDel(addr);
    }
    freePathIdEnq(index);
    releaseSource(pathKey.srcAddr, owner.intf);
}

// Removes a path from a site's status, and the status with its last path.
void NavPathGroupDirSm::leaveSite(const SiteGroupKey& site, U32 index) {
    const Vel::Hold hold;
    const SiteGroupKey key = site;
    SiteGroupStatusEntry* entry = in_.siteGroupStatus->siteGroupStatusEntry(key);
    if (!entry) return;
    entry->pathIndexEntryDel(index);
    if (entry->pathIndexEntry().empty() && in_.siteGroupStatus->siteGroupStatusEntry(key) == entry)
        in_.siteGroupStatus->siteGroupStatusEntryDel(key);
}

// An address maps to its interface while a path starts there. If a path also starts from the same
// address on another interface, the address maps to that one when the first has no such path left.
void NavPathGroupDirSm::releaseSource(const Netz::IpGenAddr& src, const Netz::IntfId& intf) {
    NavDb& navDb = *in_.navDb;
    const Netz::IntfId* mapped = navDb.srcToIntfMapping(src);
    if (!mapped || *mapped != intf) return;
    const PathClaim* other = nullptr;
    if (const PathAddrToPathKeySet* pathKeySet = navDb.addrToPathKeySet(src)) {
        for (const PathKey& pathKey : pathKeySet->pathKey()) {
            const auto path = paths_.find(pathKey);
            if (pathKey.srcAddr != src || path == paths_.end()) continue;
            other = &path->second.claims.back();
            if (other->intf == intf) return;
        }
    }
    if (other)
        navDb.srcToIntfMappingIs(src, other->intf);
    else
        navDb.srcToIntfMappingDel(src);
}

}  // namespace Nav
