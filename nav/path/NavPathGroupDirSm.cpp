#include "nav/path/NavPathGroupDirSm.h"

#include <algorithm>

#include "nav/path/PathTrace.h"

namespace Nav {

// Follows the address and the VRF of one interface, and remembers what its paths are built from.
class NavPathGroupDirSm::VelIpIntfStatus : public Vel::Object {
  public:
    VelIpIntfStatus(NavPathGroupDirSm& owner, Ip::IpIntfStatus& status)
        : owner_(owner),
          status_(status),
          addr_(Vel::Subscription::to<&VelIpIntfStatus::handleSource>(
              status, Ip::IpIntfStatus::activeAddrWithMaskAttr, this)),
          vrfName_(Vel::Subscription::to<&VelIpIntfStatus::handleSource>(
              status, Ip::IpIntfStatus::vrfNameAttr, this)),
          source_(read()) {
        owner_.vrfToIntf_[source_.vrfName].insert(intf());
    }

    const IntfSource& source() const { return source_; }

    void handleInitialized() {
        const IntfSource now = source_;
        if (!now.addr.isZero()) owner_.handleIntfPrimaryAddr(intf(), now, {});
    }
    // A new mask alone is no change.
    void handleSource() {
        const IntfSource before = update();
        const IntfSource now = source_;
        if (now == before) return;
        DUOLOG(pathTrace, 7, "prevAddr ", before.addr, " addr ", now.addr);
        owner_.handleIntfPrimaryAddr(intf(), now, before);
    }
    void handleDelete() {
        gone_ = true;
        const IntfSource before = update();
        owner_.handleIntfDelete(intf(), before);
    }
    void doCleanup() { leaveVrf(); }

  private:
    const Netz::IntfId& intf() const { return status_.intfId(); }
    IntfSource read() const {
        if (gone_) return {};
        return {status_.activeAddrWithMask().addr, status_.vrfName(),
                owner_.vrfIdOf(status_.vrfName())};
    }
    IntfSource update() {
        IntfSource now = read();
        if (now.vrfName != source_.vrfName) {
            leaveVrf();
            owner_.vrfToIntf_[now.vrfName].insert(intf());
        }
        return std::exchange(source_, std::move(now));
    }
    void leaveVrf() {
        const auto vrf = owner_.vrfToIntf_.find(source_.vrfName);
        if (vrf == owner_.vrfToIntf_.end()) return;
        vrf->second.erase(intf());
        if (vrf->second.empty()) owner_.vrfToIntf_.erase(vrf);
    }

    NavPathGroupDirSm& owner_;
    Ip::IpIntfStatus& status_;
    bool gone_ = false;
    Vel::Subscription addr_;
    Vel::Subscription vrfName_;
    IntfSource source_;
};

// Follows the id of one VRF.
class NavPathGroupDirSm::VelVrfStatus : public Vel::Object {
  public:
    VelVrfStatus(NavPathGroupDirSm& owner, Routing::Hardware::VrfStatus& status)
        : owner_(owner),
          status_(status),
          vrfId_(Vel::Subscription::to<&VelVrfStatus::handleInitialized>(
              status, Routing::Hardware::VrfStatus::vrfIdAttr, this)) {}

    void handleInitialized() { owner_.handleVrf(status_.vrfName()); }
    void handleDelete() { handleInitialized(); }

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
    initialized_ = true;
    handlePathGroup();
    vrfStatus_.initialize();
    ipIntfStatus_.initialize();
}

void NavPathGroupDirSm::doCleanup() {
    DUOLOG_ENTRY(pathTrace);
    initialized_ = false;
    vrfStatus_.clear();
    ipIntfStatus_.clear();
    for (const auto& group : navPathGroupSm_.all())
        if (const PathGroupInfo* info = in_.navDb->pathGroupInfo(group.key))
            for (const PathKey& pathKey : info->pathKeySet()) deletePath(pathKey);
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
    if (!initialized_) return;
    DUOLOG_ENTRY(pathTrace);
    PathGroupConfig* config = in_.cliConfig->pathGroupConfig(pgName);
    NavPathGroupSm* present = navPathGroupSm_(pgName);
    // A group may have gone and come back before this notification was read.
    if (present && &present->config() != config) deletePathGroup(*present);
    if (!config) return;
    DUOLOG(pathTrace, 7, "Path group ", pgName, " added");
    in_.navDb->pathGroupInfoIs(pgName);
    navPathGroupSm_.is(pgName, {.pgName = pgName, .pathGroupConfig = *config, .pgDirSm = this});
}

void NavPathGroupDirSm::deletePathGroup(NavPathGroupSm& group) {
    const Vel::Hold hold;
    const Vel::String pgName = group.pgName();
    DUOLOG(pathTrace, 7, "Path group ", pgName, " deleted");
    NavDb& navDb = *in_.navDb;
    const PathGroupInfo* info = navDb.pathGroupInfo(pgName);
    VEL_ASSERT(info, "!!pathGroupInfo");
    for (const PathKey& pathKey : info->pathKeySet()) {
        const PathKeyInfo* pathKeyInfo = navDb.pathKeyInfo(pathKey);
        VEL_ASSERT(pathKeyInfo, "!!pathKeyInfo");
        DUOLOG(pathTrace, 7, "Deleting path: ", pathKey, " for vrf: ", pathKeyInfo->vrfName());
        withdrawClaims(pathKey,
                       [&](const PathClaim& claim) { return claim.siteGroupKey.name == pgName; });
    }
    // What is left are its claims on paths that others own.
    for (const Netz::IntfId& intf : group.config().localIntf()) {
        const IntfSource source = sourceOf(intf);
        if (source.offersPaths()) updatePathsForIntf(intf, source, &group, true);
        intfToPgNameDel(intf, pgName);
    }
    navPathGroupSm_.del(pgName);
    navDb.pathGroupInfoDel(pgName);
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

// An id of 0 counts only for the VRF "default"; for any other it means "not known yet".
std::optional<U32> NavPathGroupDirSm::vrfIdOf(const L3::VrfName& vrfName) const {
    const auto* status = in_.routingHwRouteStatus->vrfStatus(vrfName);
    const U32 vrfId = status ? status->vrfId() : 0;
    if (vrfId == 0 && vrfName.str() != "default") return std::nullopt;
    return vrfId;
}

// Path resolution needs the VRF's next-hop requests and, of a VRF whose id is known, its name.
void NavPathGroupDirSm::recordVrf(const IntfSource& source) {
    DUOLOG(pathTrace, 7, "vrfName: ", source.vrfName, " vrfId: ", source.vrfId.value_or(0));
    in_.nexthopConfig->vrfIs(source.vrfName);
    if (source.vrfId) recordVrfId(*in_.navDb, source.vrfName, *source.vrfId);
}

void NavPathGroupDirSm::handleVrf(const L3::VrfName& vrfName) {
    DUOLOG_ENTRY(pathTrace);
    const auto vrf = vrfToIntf_.find(vrfName);
    if (vrf == vrfToIntf_.end()) return;
    for (const Netz::IntfId& intf : std::set<Netz::IntfId>(vrf->second))
        if (VelIpIntfStatus* status = ipIntfStatus_(intf)) status->handleSource();
}

void NavPathGroupDirSm::handleIntfPrimaryAddr(const Netz::IntfId& intf, const IntfSource& now,
                                              const IntfSource& before, NavPathGroupSm* only) {
    DUOLOG_ENTRY(pathTrace);
    DUOLOG(pathTrace, 7, "prevAddr ", before.addr, " addr ", now.addr, " intf: ", intf.shortName());
    if (!intfToPgName(intf)) {
        DUOLOG(pathTrace, 7, "Intf ", intf, " is not a WAN intf");
        return;
    }
    if (!now.addr.isZero()) recordVrf(now);
    if (before.offersPaths()) updatePathsForIntf(intf, before, only, true);
    // Unless a removal made somebody move the interface on.
    if (now.offersPaths() && sourceOf(intf) == now) updatePathsForIntf(intf, now, only, false);
}

void NavPathGroupDirSm::handleIntfDelete(const Netz::IntfId& intf, const IntfSource& before) {
    DUOLOG_ENTRY(pathTrace);
    DUOLOG(pathTrace, 7, "Intf ", intf, " ip: ", before.addr);
    if (!intfToPgName(intf))
        DUOLOG(pathTrace, 7, "Intf ", intf, " is not a WAN intf");
    else if (before.offersPaths())
        updatePathsForIntf(intf, before, nullptr, true);
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

void NavPathGroupDirSm::updatePathsForIntf(const Netz::IntfId& intf, const IntfSource& source,
                                           NavPathGroupSm* only, bool remove) {
    auto update = [&](NavPathGroupSm& group) {
        for (const RemoteViaConfig& site : group.config().remoteViaConfig())
            updatePathsForSite(intf, source, site, group.pgName(), remove);
    };
    if (only) return update(*only);
    for (const auto& group : groupsOf(intf)) update(*group);
}

void NavPathGroupDirSm::updatePathsForSite(const Netz::IntfId& intf, const IntfSource& source,
                                           const RemoteViaConfig& site, const Vel::String& pgName,
                                           bool remove) {
    const SiteGroupKey siteGroupKey{pgName, site.remoteAddr()};
    for (const Netz::IpGenAddr& dst : site.remoteVia())
        updatePath(intf, source, dst, siteGroupKey, remove);
}

void NavPathGroupDirSm::updatePath(const Netz::IntfId& intf, const IntfSource& source,
                                   const Netz::IpGenAddr& dst, const SiteGroupKey& site,
                                   bool remove) {
    const PathKey pathKey{source.addr, dst, *source.vrfId};
    const PathClaim claim{intf, site, source.vrfName};
    if (remove)
        removePathFromConfig(pathKey, claim);
    else
        addPathToConfig(pathKey, claim);
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

void NavPathGroupDirSm::addPathToConfig(const PathKey& pathKey, const PathClaim& claim) {
    DUOLOG(pathTrace, 7, "Adding path ", pathKey, " for site ", claim.siteGroupKey);
    const auto found = paths_.find(pathKey);
    if (found == paths_.end()) {
        VEL_ASSERT(freePathIds(), "freePathIds()");
        const U16 index = freePathId_.deq();
        DUOLOG(pathTrace, 7, "Creating pathIndex: ", index, " for path ", pathKey);
        paths_.emplace(pathKey, Path{index, {claim}});
        publishPath(pathKey, index, claim);
        return;
    }
    auto& [index, claims] = found->second;
    DUOLOG(pathTrace, 7, "Using pathIndex: ", index, " for path ", pathKey);
    const PathClaim owner = claims.back();
    std::erase(claims, claim);
    claims.push_back(claim);
    changeOwner(pathKey, index, owner, claim);
}

void NavPathGroupDirSm::removePathFromConfig(const PathKey& pathKey, const PathClaim& claim) {
    const auto found = paths_.find(pathKey);
    if (found == paths_.end() || !std::ranges::count(found->second.claims, claim)) return;
    DUOLOG(pathTrace, 7, "Removing path ", pathKey, " for site ", claim.siteGroupKey);
    withdrawClaims(pathKey, [&](const PathClaim& other) { return other == claim; });
}

template <class Predicate>
void NavPathGroupDirSm::withdrawClaims(const PathKey& pathKey, Predicate withdrawn) {
    const auto found = paths_.find(pathKey);
    if (found == paths_.end()) return;
    auto& [index, claims] = found->second;
    if (std::ranges::all_of(claims, withdrawn)) return deletePath(pathKey);
    const PathClaim owner = claims.back();
    std::erase_if(claims, withdrawn);
    const PathClaim heir = claims.back();
    if (heir != owner) changeOwner(pathKey, index, owner, heir);
}

// Hands a path over under its index. On another interface, which may be in another VRF, it is
// resolved anew; towards another site its place in the sites' status goes along.
void NavPathGroupDirSm::changeOwner(const PathKey& pathKey, U16 index, const PathClaim& before,
                                    const PathClaim& now) {
    bool usable = false;
    if (before.intf != now.intf) {
        unpublishPath(pathKey, index, before);
    } else if (before.siteGroupKey != now.siteGroupKey) {
        if (PathGroupInfo* info = in_.navDb->pathGroupInfo(before.siteGroupKey.name))
            info->pathKeySetDel(pathKey);
        usable = leaveSite(before.siteGroupKey, index);
    }
    publishPath(pathKey, index, now);
    if (usable)
        in_.siteGroupStatus->siteGroupStatusEntryIs(now.siteGroupKey).pathIndexEntryIs(index);
}

// The configuration entry comes last and complete: whoever watches it finds everything else there.
void NavPathGroupDirSm::publishPath(const PathKey& pathKey, U16 index, const PathClaim& owner) {
    const Vel::Hold hold;
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
    in_.pathStatusDir->pathStatusIs(owner.vrfName).pathStatusEntryIs(pathKey);
    auto configure = [&](PathConfigEntry& entry) {
        entry.pathIndexIs(index);
        entry.ipsecProfileIs(ipsecProfile);
    };
    configure(pathConfig.pathConfigEntryIs(pathKey, configure));
}

void NavPathGroupDirSm::unpublishPath(const PathKey& pathKey, U16 index, const PathClaim& owner) {
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

    if (PathConfig* pathConfig = in_.pathConfigDir->pathConfig(owner.vrfName)) {
        pathConfig->pathConfigEntryDel(pathKey);
        if (pathConfig->pathConfigEntry(pathKey)) return;  // a handler wanted it back
    }
    if (navDb.pathKeyInfo(pathKey)) forgetUnresolved(pathKey, index, owner);
    for (const Netz::IpGenAddr& addr : {pathKey.srcAddr, pathKey.dstAddr}) {
        const PathAddrToPathKeySet* pathKeySet = navDb.addrToPathKeySet(addr);
        if (pathKeySet && pathKeySet->pathKey().empty()) navDb.addrToPathKeySetDel(addr);
    }
    DUOLOG(pathTrace, 7, "Deleting pathConfig for path: ", pathKey);
}

// Nobody resolves the path's VRF, so nobody else withdraws what is left of the path.
void NavPathGroupDirSm::forgetUnresolved(const PathKey& pathKey, U16 index,
                                         const PathClaim& owner) {
    leaveSite(owner.siteGroupKey, index);
    PathStatus* pathStatus = in_.pathStatusDir->pathStatus(owner.vrfName);
    if (PathStatusEntry* entry = pathStatus ? pathStatus->pathStatusEntry(pathKey) : nullptr) {
        entry->programmedIs(false);
        entry->pathInfoIs({});
        entry->encapIdIs(noEncapId);
        pathStatus->pathStatusEntryDel(pathKey);
    }
    in_.navDb->pathKeyInfoDel(pathKey);
}

void NavPathGroupDirSm::deletePath(const PathKey& pathKey) {
    const auto path = paths_.extract(pathKey);
    if (path.empty()) return;
    const auto& [index, claims] = path.mapped();
    const PathClaim& owner = claims.back();
    unpublishPath(pathKey, index, owner);
    freePathId_.enq(index);
    releaseSource(pathKey.srcAddr, owner.intf);
}

// Takes a path out of a site's status; false if it was not there.
bool NavPathGroupDirSm::leaveSite(const SiteGroupKey& site, U16 index) {
    SiteGroupStatusEntry* entry = in_.siteGroupStatus->siteGroupStatusEntry(site);
    if (!entry) return false;
    const Vel::Hold hold;
    const bool wasUsable = entry->pathIndexEntryHas(index);
    entry->pathIndexEntryDel(index);
    if (entry->pathIndexEntry().empty()) in_.siteGroupStatus->siteGroupStatusEntryDel(site);
    return wasUsable;
}

// An address names its interface while a path comes from it. Where the same address is used on
// another interface too, it names that one when the first has no path from it any more.
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
