#include "nav/path/NavPathResolutionSm.h"

#include <algorithm>
#include <utility>

#include "nav/path/NavPathResolutionDirSm.h"
#include "nav/path/PathState.h"
#include "nav/path/PathTrace.h"
#include "nav/types/PathName.h"
#include "platform/netz/Assert.h"

namespace Nav {

using Netz::IntfId;
using Netz::IpGenAddr;
using Shard::Fib::Fec;
using Shard::Fib::Via;

template <class Collection>
using PlaceIn = typename std::remove_cvref_t<Collection>::Place;

// One configured path.
class NavPathResolutionSm::VelPathConfigEntry final : public Vel::Object {
  public:
    VelPathConfigEntry(NavPathResolutionSm& owner, PathConfigEntry& entry)
        : owner_(owner),
          in_(owner.in_),
          entry_(entry),
          connection_{pathKey().srcAddr, pathKey().dstAddr, in_.vrfName},
          ipsecProfile_(Vel::Subscription::to<&VelPathConfigEntry::handlePathIpsecProfile>(
              entry, PathConfigEntry::ipsecProfileAttr, this)) {
        join();
    }

    void handleInitialized();
    void handlePathIpsecProfile();
    void handleDelete() {
        leave();
        handlePathIpsecProfileDel();
    }
    void doCleanup() {
        leave();
        ipsecProfile_.reset();
    }

    const PathKey& pathKey() const { return entry_->key(); }
    const Vel::String& ipsecProfile() const { return entry_->ipsecProfile(); }
    // Whether the path is configured, possibly by a newer entry whose reactor is not made yet.
    bool isConfigured() const { return !entry_->removed() || owner_.isConfigured(pathKey()); }
    // Until its element was removed or the owner ended.
    bool inCharge() const { return joined_; }
    PathStatusEntry* status();
    PathKeyInfo* keyInfo();
    const IntfId* localIntf();

  private:
    // Adds the path to its destination's paths, or removes it if it was added.
    void join();
    void leave();
    void handlePathIpsecProfileDel();
    bool isNewest(U32 profileRun) const;
    bool hasSource(const Ip::IpIntfStatus& intf) const {
        return intf.activeAddrWithMask().addr == pathKey().srcAddr && intf.vrfName() == in_.vrfName;
    }
    [[gnu::noinline]] const IntfId* localIntfAnew(const IntfId* mapped);
    bool writeUnconnected(U32 profileRun, U32 pathIndex);

    NavPathResolutionSm& owner_;
    const Inputs& in_;
    const Vel::Ptr<PathConfigEntry> entry_;
    const Ipsec::ConnectionKey connection_;
    bool joined_ = false;
    U32 profileRuns_ = 0;  // number of times the profile was applied, to detect nested changes
    Vel::Found<PathStatusEntry> status_;
    Vel::Found<PathKeyInfo> keyInfo_;
    Vel::Ptr<Ip::IpIntfStatus> intf_;  // that had the source address most recently
    PlaceIn<decltype(std::declval<NavDb>().srcToIntfMapping())> mapping_;
    IntfId intfHere_;  // of the source address, if the database names another VRF's interface
    Vel::Subscription ipsecProfile_;
};

// The configured paths to one address.
struct NavPathResolutionSm::Destination final : Vel::Object {
    struct PathTraits {
        using Key = PathKey;
        using Item = VelPathConfigEntry*;
        using Yield = VelPathConfigEntry*;
        static const Key& key(const Item& item) { return item->pathKey(); }
        static Yield yield(const Item& item) { return item; }
        static VelPathConfigEntry& reference(Yield now) { return *now; }
    };
    Vel::Unordered<PathTraits> paths;
    PlaceIn<decltype(std::declval<Routing::NexthopVrfConfig>().nexthop())> request;
    Routing::FecPlace fec;
};

// One path status: keeps the path's index in its site's list while the path is programmed.
class NavPathResolutionSm::VelPathStatusEntry final : public Vel::Object {
  public:
    VelPathStatusEntry(NavPathResolutionSm& owner, PathStatusEntry& entry)
        : owner_(owner),
          in_(owner.in_),
          siteGroupStatus_(*owner.in_.siteGroupStatus),
          entry_(entry),
          programmed_(Vel::Subscription::to<&VelPathStatusEntry::handlePathStatusEntry>(
              entry, PathStatusEntry::programmedAttr, this)) {}

    void handleInitialized();
    void handlePathStatusEntry();
    void handleDelete() { handlePathStatusEntryDelete(); }
    void doCleanup() { programmed_.reset(); }

  private:
    void handlePathStatusEntryDelete();

    NavPathResolutionSm& owner_;
    const Inputs& in_;
    SiteGroupStatus& siteGroupStatus_;
    const Vel::Ptr<PathStatusEntry> entry_;
    Vel::Subscription programmed_;
};

// A path with the properties that decide which vias it takes.
struct NavPathResolutionSm::Offer {
    VelPathConfigEntry& config;
    PathStatusEntry& status;
    const IntfId& intf;  // valid until something is written
    PathType type;

    const PathKey& pathKey() const { return status.key(); }
    PathState stateBy(const Via& via) const { return pathStateOf(type, status.encapId(), via); }
    bool takes(const Via& via) const;
};

NavPathResolutionSm::NavPathResolutionSm(const Inputs& inputs)
    : in_(inputs),
      pathConfigEntry_(*this, *in_.pathConfig, PathConfig::pathConfigEntryAttr),
      pathStatusEntry_(*this, *in_.pathStatus, PathStatus::pathStatusEntryAttr) {}

NavPathResolutionSm::~NavPathResolutionSm() = default;

void NavPathResolutionSm::handleInitialized() {
    DUOLOG_ENTRY(pathTrace);
    if (initialized_) {
        DUOLOG(pathTrace, 7, "already initialized");
        return;
    }
    VEL_ASSERT(in_.scheduler, "scheduler() != nullptr");
    DUOLOG(pathTrace, 7, "vrfName ", in_.vrfName);
    nexthopBacklog_ = Vel::make<Routing::NexthopBacklog>("nexthopBacklog");
    backlogVersion_ = Vel::Subscription::to<&NavPathResolutionSm::handleNexthopBacklog>(
        *nexthopBacklog_, Routing::NexthopBacklog::versionAttr, this);
    fibMonitorHelperSm_.is({"Nav", in_.nexthopVrfStatus, nexthopBacklog_, in_.forwardingStatus,
                            in_.forwarding6Status, in_.scheduler});
    initialized_ = true;
    pathConfigEntry_.initialize();
    pathStatusEntry_.initialize();
    sweepLeftovers();
}

void NavPathResolutionSm::doCleanup() {
    DUOLOG_ENTRY(pathTrace);
    DUOLOG(pathTrace, 7, "vrfName ", in_.vrfName);
    initialized_ = false;
    backlogVersion_.reset();
    pathConfigEntry_.clear();
    pathStatusEntry_.clear();
    fibMonitorHelperSm_.del();
    for (const IpGenAddr& addr : in_.nexthopVrfConfig->nexthop()) {
        // If a subscriber added the VRF's status again, the requests belong to the new reactor.
        if (in_.dirSm->navPathResolutionSm(in_.vrfName)) break;
        in_.nexthopVrfConfig->nexthopDel(addr);
    }
    if (nexthopBacklog_) nexthopBacklog_->backlogDelAll();
    nexthopBacklog_ = nullptr;
}

// Removes entries left from a time when no reactor resolved the VRF.
void NavPathResolutionSm::sweepLeftovers() {
    for (PathStatusEntry& status : in_.pathStatus->pathStatusEntry())
        if (initialized_ && !isConfigured(status.key()) && !in_.navDb->pathKeyInfo(status.key()))
            in_.pathStatus->pathStatusEntryDel(status.key());
    for (Ipsec::Path::PathConfig& request : in_.ipsecPathConfigDir->ipsecPathConfig())
        if (initialized_ && request.key().vrfName == in_.vrfName &&
            !isConfigured(pathKeyOf(*in_.navDb, request.key())))
            in_.ipsecPathConfigDir->ipsecPathConfigDel(request.key());
    for (const IpGenAddr& addr : in_.nexthopVrfConfig->nexthop())
        if (initialized_) releaseUnusedNexthop(addr);
}

void NavPathResolutionSm::handlePathConfig(const PathKey& pathKey) {
    DUOLOG_ENTRY(pathTrace, pathKey);
    if (!initialized_) return;
    Vel::Hold hold;
    const IpGenAddr& addr = pathKey.dstAddr;
    if (!isConfigured(pathKey)) {
        // A subscriber called here or below may have added the path again or ended this reactor;
        // path construction then does the rest.
        releaseUnusedNexthop(addr);
        if (!initialized_ || isConfigured(pathKey)) return;
        DUOLOG(pathTrace, 7, "Deleting path ", pathKey, " from pathStatus");
        in_.pathStatus->pathStatusEntryDel(pathKey);
        if (!initialized_ || isConfigured(pathKey)) return;
        const PathKeyInfo* pathKeyInfo = in_.navDb->pathKeyInfo(pathKey);
        if (pathKeyInfo && pathKeyInfo->vrfName() == in_.vrfName)
            in_.navDb->pathKeyInfoDel(pathKey);
    } else if (in_.nexthopVrfStatus->nexthop(addr)) {
        DUOLOG(pathTrace, 7, "Reviewing path ", pathKey, " for resolved addr ", addr);
        reviewPath(pathKey, addr);
    } else {
        requestNexthop(addr);
        // A via recorded by an earlier reactor of the VRF is invalid without a result.
        const PathStatusEntry* status = in_.pathStatus->pathStatusEntry(pathKey);
        if (status && status->pathInfo().via != Via{}) updatePathVia(pathKey, Via{});
    }
}

void NavPathResolutionSm::handleNexthopBacklog() {
    DUOLOG_ENTRY(pathTrace, " vrfName: ", in_.vrfName);
    if (draining_) return;
    struct Draining {
        bool& flag;
        ~Draining() { flag = false; }
    } draining{draining_ = true};
    const Vel::Ptr<Routing::NexthopBacklog> nexthopBacklog = nexthopBacklog_;
    while (!nexthopBacklog->backlog().empty()) {
        const IpGenAddr addr = nexthopBacklog->backlogTakeOldest();
        DUOLOG(pathTrace, 7, "Backlog nexthopResolver addr: ", addr);
        reviewNexthop(addr);
    }
}

void NavPathResolutionSm::reviewNexthop(const IpGenAddr& addr) {
    DUOLOG_ENTRY(pathTrace, " ", addr);
    bool used = false;
    if (const auto* found = destinations_.find(addr)) {
        Destination& destination = *found->second;
        for (VelPathConfigEntry& path : destination.paths) {
            if (!path.isConfigured()) continue;
            // The result may exist because of another client's request, and vanish with it.
            if (!std::exchange(used, true) &&
                !in_.nexthopVrfConfig->nexthop().find(addr, destination.request))
                requestNexthop(addr);
            reviewPath(path.pathKey(), &path, addr, destination.fec);
        }
    }
    if (!used) forgetNexthop(addr);
}

// Withdraws the request for an address that no path has as its destination.
void NavPathResolutionSm::forgetNexthop(const IpGenAddr& addr) {
    const PathAddrToPathKeySet* paths = in_.navDb->addrToPathKeySet(addr);
    if (paths && paths->pathKey().empty()) in_.navDb->addrToPathKeySetDel(addr);
    DUOLOG(pathTrace, 7, "No paths for dstAddr ", addr);
    in_.nexthopVrfConfig->nexthopDel(addr);
}

void NavPathResolutionSm::reviewPath(const PathKey& pathKey, const IpGenAddr& addr) {
    Routing::FecPlace place;
    reviewPath(pathKey, pathConfigEntry_(pathKey), addr, place);
}

void NavPathResolutionSm::reviewPath(const PathKey& pathKey, VelPathConfigEntry* config,
                                     const IpGenAddr& addr, Routing::FecPlace& place) {
    const Routing::NexthopResult* result = place.result(*in_.nexthopVrfStatus, addr);
    if (!result) {
        DUOLOG(pathTrace, 7, "Addr unresolved for ", addr);
        return updatePathVia(pathKey, Via{});
    }
    const Fec* fec = place.fec(*result, *in_.forwardingStatus, *in_.forwarding6Status);
    const U32 vias = fec ? fec->size() : 0;
    DUOLOG(pathTrace, 7, "Addr resolved for ", addr, " fec id: ", result->fecId,
           " number of via: ", vias);
    if (vias == 0) return;
    const std::optional<Offer> offer = offerTo(config);
    const Via* taken = nullptr;
    for (const Via& via : fec->vias()) {
        DUOLOG(pathTrace, 7, "Nexthop: ", via.hop, ", IntfId: ", via.intfId);
        if (offer && offer->takes(via)) taken = &via;
    }
    if (offer) publish(*offer, taken);
}

void NavPathResolutionSm::updatePathVia(const PathKey& pathKey, const Via& via) {
    if (const std::optional<Offer> offer = offerTo(pathConfigEntry_(pathKey)))
        publish(*offer, offer->takes(via) ? &via : nullptr);
}

// Empty for a path that has no status, no interface, or is not configured.
std::optional<NavPathResolutionSm::Offer> NavPathResolutionSm::offerTo(VelPathConfigEntry* config) {
    PathStatusEntry* status = config && config->inCharge() ? config->status() : nullptr;
    if (!status) return std::nullopt;
    const IntfId* intf = config->localIntf();
    if (!intf) return std::nullopt;
    return Offer{*config, *status, *intf, pathTypeOf(config->ipsecProfile())};
}

bool NavPathResolutionSm::Offer::takes(const Via& via) const {
    DUOLOG(pathTrace, 7, "PathKey: ", pathKey(), " intf: ", ShortName{intf});
    if (via == Via{}) {
        DUOLOG(pathTrace, 7, " Unresolved path: ", pathKey());
        return true;
    }
    if (via.intfId != intf) {
        DUOLOG(pathTrace, 7, " Via intfId: ", via.intfId, " not for path: ", pathKey(),
               " Path intf: ", intf);
        return false;
    }
    if (pathTrace.isOn(7) && stateBy(via) == PathState::resolved)
        DUOLOG(pathTrace, 7, " Resolved path: ", pathKey(), " via: ", via, " pathType: ", type,
               " pathState: ", PathState::resolved);
    return true;
}

// Writes the path's status for the via, if one was taken.
void NavPathResolutionSm::publish(const Offer& offer, const Via* via) {
    if (offer.type == PathType::unsecuredPath && offer.status.encapId() != noEncapId)
        return publishUnsecured(offer, via ? std::optional(*via) : std::nullopt);
    const PathKeyInfo* pathKeyInfo = via ? offer.config.keyInfo() : nullptr;
    if (pathKeyInfo)
        offer.status.pathInfoIs({offer.type, offer.stateBy(*via), pathKeyInfo->pathIndex(), *via});
}

// The same for a path that was secured until now.
void NavPathResolutionSm::publishUnsecured(const Offer& offer, const std::optional<Via>& via) {
    Vel::Hold hold;
    offer.status.encapIdIs(noEncapId);
    // A subscriber called above may have changed the path, which wrote its status.
    const std::optional<Offer> now = offerTo(pathConfigEntry_(offer.pathKey()));
    if (now && &now->status == &offer.status && now->type == offer.type && via)
        publish(*now, &*via);
}

bool NavPathResolutionSm::isConfigured(const PathKey& pathKey) const {
    return in_.pathConfig->pathConfigEntry(pathKey);
}

// Whether a path configured in this VRF has this destination. A path that is being added counts
// once its entry has a reactor, which will be notified of its removal.
bool NavPathResolutionSm::isUsed(const IpGenAddr& addr) const {
    const auto* destination = destinations_.find(addr);
    if (!destination) return false;
    for (const VelPathConfigEntry& path : destination->second->paths)
        if (path.isConfigured()) return true;
    return false;
}

void NavPathResolutionSm::requestNexthop(const IpGenAddr& addr) {
    DUOLOG(pathTrace, 7, "Adding ", addr, " to nexthopVrfConfig");
    in_.nexthopVrfConfig->nexthopIs(addr);
}

void NavPathResolutionSm::releaseUnusedNexthop(const IpGenAddr& addr) {
    if (isUsed(addr)) return;
    DUOLOG(pathTrace, 7, "Deleting ", addr, " from nexthopVrfConfig");
    in_.nexthopVrfConfig->nexthopDel(addr);
}

// The path's key info; null only for a path that is not configured.
PathKeyInfo* NavPathResolutionSm::keyInfoOf(const PathKey& pathKey) const {
    PathKeyInfo* pathKeyInfo = in_.navDb->pathKeyInfo(pathKey);
    VEL_ASSERT(pathKeyInfo || !isConfigured(pathKey), "!!pathKeyInfo");
    return pathKeyInfo;
}

void NavPathResolutionSm::VelPathConfigEntry::join() {
    const IpGenAddr& addr = pathKey().dstAddr;
    auto* destination = owner_.destinations_.find(addr);
    if (!destination) destination = &owner_.destinations_.insert({addr, Vel::make<Destination>()});
    destination->second->paths.insert(this);
    joined_ = true;
}

void NavPathResolutionSm::VelPathConfigEntry::leave() {
    if (!std::exchange(joined_, false)) return;
    const IpGenAddr& addr = pathKey().dstAddr;
    auto& paths = owner_.destinations_.find(addr)->second->paths;
    paths.take(pathKey());
    if (paths.empty()) owner_.destinations_.take(addr);
}

PathStatusEntry* NavPathResolutionSm::VelPathConfigEntry::status() {
    return status_([&] { return in_.pathStatus->pathStatusEntry(pathKey()); });
}

PathKeyInfo* NavPathResolutionSm::VelPathConfigEntry::keyInfo() {
    return keyInfo_([&] { return owner_.keyInfoOf(pathKey()); });
}

void NavPathResolutionSm::VelPathConfigEntry::handleInitialized() {
    DUOLOG_ENTRY(pathTrace, pathKey());
    if (!owner_.initialized_) {
        DUOLOG(pathTrace, 7, "navPathResolutionSm not initialized");
        return;
    }
    handlePathIpsecProfile();
    owner_.handlePathConfig(pathKey());
    in_.dirSm->handlePathConfigured(pathKey(), connection_);
}

void NavPathResolutionSm::VelPathConfigEntry::handlePathIpsecProfile() {
    DUOLOG_ENTRY(pathTrace, pathKey());
    Vel::Hold hold;
    const U32 profileRun = ++profileRuns_;
    in_.ipsecPathConfigDir->ipsecPathConfigDel(connection_);
    const PathKeyInfo* pathKeyInfo = owner_.keyInfoOf(pathKey());
    if (!pathKeyInfo || !isNewest(profileRun)) return;
    const U32 pathIndex = pathKeyInfo->pathIndex();
    if (!writeUnconnected(profileRun, pathIndex) || ipsecProfile().empty()) return;
    DUOLOG(pathTrace, 7, "Adding connection ", connection_, " to ipsecPathConfig");
    in_.ipsecPathConfigDir->ipsecPathConfigIs(connection_, [&](Ipsec::Path::PathConfig& request) {
        request.profileIs(ipsecProfile());
        if (const IntfId* intf = localIntf()) request.intfIdIs(*intf);
        request.connectionNameIs(pathName(pathIndex));
    });
}

// Whether this is still the newest run: no subscriber has changed the profile, removed the path or
// ended the reactor since.
bool NavPathResolutionSm::VelPathConfigEntry::isNewest(U32 profileRun) const {
    return profileRun == profileRuns_ && owner_.initialized_ &&
           in_.pathConfig->pathConfigEntry(pathKey()) == entry_.get();
}

// Writes the status of a path without an IPsec connection, with the recorded via. Returns whether
// the run is still the newest. A status that a subscriber has written since is kept.
bool NavPathResolutionSm::VelPathConfigEntry::writeUnconnected(U32 profileRun, U32 pathIndex) {
    PathStatusEntry* status = in_.pathStatus->pathStatusEntry(pathKey());
    if (!status) return true;
    const PathType type = pathTypeOf(ipsecProfile());
    if (type == PathType::securedPath)
        DUOLOG(pathTrace, 7, "Updating pathStatus to secured for path ", pathKey());
    else
        DUOLOG(pathTrace, 7, "Updating pathStatus to unsecured for path ", pathKey());
    const Via via = status->pathInfo().via;
    const HwPathInfo info{type, pathStateOf(type, noEncapId, via), pathIndex, via};
    status->pathInfoIs(info);
    if (isNewest(profileRun) && status->pathInfo() == info) status->encapIdIs(noEncapId);
    return isNewest(profileRun);
}

void NavPathResolutionSm::VelPathConfigEntry::handlePathIpsecProfileDel() {
    DUOLOG_ENTRY(pathTrace, pathKey());
    // A connection's key contains the VRF name, a path's the VRF id. After the id has changed, the
    // connection may belong to the path with the new id.
    const PathKey current = pathKeyOf(*in_.navDb, connection_);
    if (current == pathKey() || !owner_.isConfigured(current)) {
        DUOLOG(pathTrace, 7, "Deleting connection ", connection_, " from ipsecPathConfig");
        in_.ipsecPathConfigDir->ipsecPathConfigDel(connection_);
    }
    owner_.handlePathConfig(pathKey());
}

// The interface that has the path's source address, or null; valid until something is written. The
// database names one interface for an address; if several VRFs have the address, the interface in
// this VRF is used.
const IntfId* NavPathResolutionSm::VelPathConfigEntry::localIntf() {
    const auto* mapping = in_.navDb->srcToIntfMapping().find(pathKey().srcAddr, mapping_);
    if (!mapping) return nullptr;
    const IntfId* const mapped = &mapping->second;
    if (intf_ && !intf_->removed() && intf_->intfId() == *mapped && hasSource(*intf_))
        return mapped;
    return localIntfAnew(mapped);
}

const IntfId* NavPathResolutionSm::VelPathConfigEntry::localIntfAnew(const IntfId* mapped) {
    const auto tables = {&in_.ipStatusDir->ipIntfStatus(), &in_.ip6StatusDir->ipIntfStatus()};
    const auto isHere = [&](const IntfId& known) {
        return std::ranges::any_of(tables, [&](const auto* intfs) {
            const auto* intf = intfs->find(known);
            if (!intf || !hasSource(**intf)) return false;
            intf_ = *intf;
            return true;
        });
    };
    if (isHere(*mapped)) return mapped;
    if (!intfHere_.empty() && isHere(intfHere_)) return &intfHere_;
    for (const auto* intfs : tables)
        for (const Ip::IpIntfStatus& intf : *intfs)
            if (hasSource(intf)) return &(intfHere_ = intf.intfId());
    return mapped;
}

void NavPathResolutionSm::VelPathStatusEntry::handleInitialized() {
    if (!owner_.initialized_) {
        DUOLOG(pathTrace, 7, "navPathResolutionSm not initialized");
        return;
    }
    // The flag may have changed while no reactor maintained the site's list.
    const PathKeyInfo* pathKeyInfo = owner_.keyInfoOf(entry_->key());
    if (!pathKeyInfo) return;
    const auto* site = siteGroupStatus_.siteGroupStatusEntry(pathKeyInfo->siteGroupKey());
    const bool listed = site && site->pathIndexEntryHas(pathKeyInfo->pathIndex());
    if (listed != entry_->programmed()) handlePathStatusEntry();
}

void NavPathResolutionSm::VelPathStatusEntry::handlePathStatusEntry() {
    DUOLOG_ENTRY(pathTrace, entry_->key());
    Vel::Hold hold;
    const PathKeyInfo* pathKeyInfo = owner_.keyInfoOf(entry_->key());
    if (!pathKeyInfo) return;
    const U32 pathIndex = pathKeyInfo->pathIndex();
    const SiteGroupKey key = pathKeyInfo->siteGroupKey();
    // A subscriber called here may remove the path or move it to another site, or remove the entry
    // with the last other path of the site.
    const auto isCurrent = [&] {
        return owner_.initialized_ &&
               in_.pathStatus->pathStatusEntry(entry_->key()) == entry_.get() &&
               in_.navDb->pathKeyInfo(entry_->key()) == pathKeyInfo &&
               pathKeyInfo->siteGroupKey() == key;
    };
    while (isCurrent() && !siteGroupStatus_.siteGroupStatusEntry(key))
        siteGroupStatus_.siteGroupStatusEntryIs(key);
    if (!isCurrent()) return;
    SiteGroupStatusEntry& site = *siteGroupStatus_.siteGroupStatusEntry(key);
    if (entry_->programmed()) {
        DUOLOG(pathTrace, 7, "Adding pathIndex: ", pathIndex, " to site ", site.key());
        site.pathIndexEntryIs(pathIndex);
    } else {
        DUOLOG(pathTrace, 7, "Deleting pathIndex: ", pathIndex, " from site ", site.key());
        site.pathIndexEntryDel(pathIndex);
    }
}

void NavPathResolutionSm::VelPathStatusEntry::handlePathStatusEntryDelete() {
    DUOLOG_ENTRY(pathTrace, entry_->key());
    Vel::Hold hold;
    const PathKeyInfo* pathKeyInfo = owner_.keyInfoOf(entry_->key());
    // A subscriber may have caused the path to be published again in another VRF with the same id.
    if (!pathKeyInfo || pathKeyInfo->vrfName() != in_.vrfName) return;
    SiteGroupStatusEntry* site = siteGroupStatus_.siteGroupStatusEntry(pathKeyInfo->siteGroupKey());
    if (!site) return;
    site->pathIndexEntryDel(pathKeyInfo->pathIndex());
    if (!site->pathIndexEntry().empty()) return;
    if (siteGroupStatus_.siteGroupStatusEntry(site->key()) != site) return;
    DUOLOG(pathTrace, 7, "Deleting siteGroupEntry for: ", site->key());
    siteGroupStatus_.siteGroupStatusEntryDel(site->key());
}

}  // namespace Nav
