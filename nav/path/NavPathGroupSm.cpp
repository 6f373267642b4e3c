#include "nav/path/NavPathGroupSm.h"

#include "nav/path/NavPathGroupDirSm.h"
#include "nav/path/PathTrace.h"

namespace Nav {

// Follows the destinations of one remote site.
class NavPathGroupSm::VelRemoteViaConfig : public Vel::Object {
  public:
    VelRemoteViaConfig(NavPathGroupSm& owner, RemoteViaConfig& site)
        : owner_(owner),
          site_(site),
          remoteVia_(Vel::Subscription::to<static_cast<void (VelRemoteViaConfig::*)(
                         const Netz::IpGenAddr&)>(&VelRemoteViaConfig::handleRemoteViaConfig)>(
              site, RemoteViaConfig::remoteViaAttr, this)) {}

    void handleInitialized() {
        DUOLOG_ENTRY(pathTrace, " ", site_.remoteAddr());
        dir().remoteSiteIs(key());
        handleRemoteViaConfig();
    }
    void handleRemoteViaConfig() {
        for (const Netz::IpGenAddr& addr : site_.remoteVia())
            if (isConfigured()) handleRemoteViaConfig(addr);
    }
    void handleRemoteViaConfig(const Netz::IpGenAddr& addr) {
        DUOLOG_ENTRY(pathTrace);
        DUOLOG(pathTrace, 7, "remoteVia ", addr, " viaAddr ", site_.remoteAddr());
        VEL_ASSERT(owner_.config().remoteViaConfig(site_.remoteAddr()), "remoteViaConfig");
        owner_.handleRemoteVia(site_.remoteAddr(), addr, !site_.remoteViaHas(addr));
    }
    void handleDelete() { handleRemoteViaConfigDelete(); }
    void handleRemoteViaConfigDelete() {
        DUOLOG_ENTRY(pathTrace);
        owner_.removeStalePaths();
    }
    // A site that was configured again while its paths were removed stays listed.
    void doCleanup() {
        if (!configured() || isConfigured()) dir().remoteSiteDel(key());
    }

  private:
    RemoteViaConfig* configured() const {
        return owner_.config().remoteViaConfig(site_.remoteAddr());
    }
    bool isConfigured() const { return configured() == &site_; }
    NavPathGroupDirSm& dir() const { return *owner_.in_.pgDirSm; }
    SiteGroupKey key() const { return {owner_.pgName(), site_.remoteAddr()}; }

    NavPathGroupSm& owner_;
    RemoteViaConfig& site_;
    Vel::Subscription remoteVia_;
};

NavPathGroupSm::NavPathGroupSm(const Inputs& inputs)
    : in_(inputs),
      profile_(in_.pathGroupConfig->ipsecProfile()),
      localIntf_(Vel::Subscription::to<&NavPathGroupSm::handleLocalIntf>(
          *in_.pathGroupConfig, PathGroupConfig::localIntfAttr, this)),
      ipsecProfile_(Vel::Subscription::to<&NavPathGroupSm::handleIpsecConfig>(
          *in_.pathGroupConfig, PathGroupConfig::ipsecProfileAttr, this)),
      remoteViaConfig_(*this, *in_.pathGroupConfig, PathGroupConfig::remoteViaConfigAttr) {}

NavPathGroupSm::~NavPathGroupSm() = default;

void NavPathGroupSm::handleInitialized() {
    DUOLOG_ENTRY(pathTrace);
    if (initialized_) {
        DUOLOG(pathTrace, 7, "already initialized");
        return;
    }
    for (const Netz::IntfId& intf : config().localIntf()) handleLocalIntf(intf);
    initialized_ = true;
    remoteViaConfig_.initialize();
}

void NavPathGroupSm::doCleanup() {
    remoteViaConfig_.clear();
}

// The interface is mapped before its paths are created, and unmapped after they are removed.
void NavPathGroupSm::handleLocalIntf(const Netz::IntfId& intf) {
    DUOLOG_ENTRY(pathTrace);
    if (removed_) return;
    NavPathGroupDirSm& dir = *in_.pgDirSm;
    if (config().localIntfHas(intf)) {
        dir.intfToPgNameIs(intf, pgName());
        const Netz::IpGenAddr addr = dir.getSrcIntfIp(intf);
        if (!addr.isZero()) dir.handleIntfPrimaryAddr(intf, addr, {}, this);
    } else {
        const Netz::IpGenAddr addr = dir.getSrcIntfIp(intf);
        if (!addr.isZero()) dir.handleIntfPrimaryAddr(intf, {}, addr, this);
        if (!config().localIntfHas(intf)) dir.intfToPgNameDel(intf, pgName());
    }
}

void NavPathGroupSm::handleIpsecConfig() {
    const Vel::String profile = config().ipsecProfile();
    if (profile == profile_) return;
    DUOLOG_ENTRY(pathTrace);
    profile_ = profile;
    for (const RemoteViaConfig& site : config().remoteViaConfig()) {
        for (const Netz::IpGenAddr& addr : site.remoteVia()) {
            if (config().ipsecProfile() != profile) return;  // a newer one has been applied
            if (profile.empty()) {
                DUOLOG(pathTrace, 7, "Remove ipsec from paths for remote ", site.remoteAddr(),
                       " and via ", addr);
            } else {
                DUOLOG(pathTrace, 7, "Add ipsec for paths for remote ", site.remoteAddr(),
                       " and via ", addr);
                handleRemoteVia(site.remoteAddr(), addr, false);
            }
        }
    }
    if (profile.empty()) in_.pgDirSm->handleProfileCleared(*this);
}

void NavPathGroupSm::handleRemoteVia(const Netz::IpGenAddr& viaAddr,
                                     const Netz::IpGenAddr& remoteVia, bool remove) {
    DUOLOG_ENTRY(pathTrace);
    NavPathGroupDirSm& dir = *in_.pgDirSm;
    if (!remove) {
        const Vel::String profile = config().ipsecProfile();
        for (const Netz::IntfId& intf : config().localIntf()) {
            if (config().ipsecProfile() != profile) return;  // a newer one has been applied
            if (!dir.getSrcIntfIp(intf).isZero()) dir.createPath(intf, viaAddr, remoteVia, *this);
        }
    } else if (const auto* paths = dir.inputs().navDb->addrToPathKeySet(remoteVia)) {
        for (const PathKey& pathKey : paths->pathKey()) dir.removeStalePath(pathKey, *this);
    }
}

void NavPathGroupSm::createPaths(const Netz::IntfId& intf) {
    for (const auto& site : remoteViaConfig_.all())
        in_.pgDirSm->createPathsForIntf(intf, site.key, pgName());
}

void NavPathGroupSm::removeStalePaths() {
    for (const PathKey& pathKey : claimed_) in_.pgDirSm->removeStalePath(pathKey, *this);
}

}  // namespace Nav
