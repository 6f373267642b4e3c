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
          remoteVia_(Vel::Subscription::to<&VelRemoteViaConfig::handleRemoteViaConfig>(
              site, RemoteViaConfig::remoteViaAttr, this)) {}

    void handleInitialized() {
        dir().remoteSiteIs(key());
        for (const Netz::IpGenAddr& addr : site_.remoteVia()) handleRemoteViaConfig(addr);
    }
    void handleRemoteViaConfig(const Netz::IpGenAddr& addr) {
        DUOLOG_ENTRY(pathTrace);
        DUOLOG(pathTrace, 7, "remoteVia ", addr, " viaAddr ", site_.remoteAddr());
        VEL_ASSERT(owner_.config().remoteViaConfig(site_.remoteAddr()), "remoteViaConfig");
        owner_.handleRemoteVia(site_.remoteAddr(), addr, !site_.remoteViaHas(addr));
    }
    void handleDelete() { handleRemoteViaConfigDelete(); }
    void doCleanup() { dir().remoteSiteDel(key()); }

  private:
    void handleRemoteViaConfigDelete() {
        DUOLOG_ENTRY(pathTrace);
        for (const Netz::IpGenAddr& addr : site_.remoteVia())
            owner_.handleRemoteVia(site_.remoteAddr(), addr, true);
    }
    NavPathGroupDirSm& dir() const { return *owner_.in_.pgDirSm; }
    SiteGroupKey key() const { return {owner_.pgName(), site_.remoteAddr()}; }

    NavPathGroupSm& owner_;
    RemoteViaConfig& site_;
    Vel::Subscription remoteVia_;
};

NavPathGroupSm::NavPathGroupSm(const Inputs& inputs)
    : in_(inputs),
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

// The interface is mapped before its paths are built, and unmapped after they are gone.
void NavPathGroupSm::handleLocalIntf(const Netz::IntfId& intf) {
    DUOLOG_ENTRY(pathTrace);
    NavPathGroupDirSm& dir = *in_.pgDirSm;
    const bool listed = config().localIntfHas(intf);
    if (listed) dir.intfToPgNameIs(intf, pgName());
    if (!dir.getSrcIntfIp(intf).isZero()) {
        const IntfSource source = dir.sourceOf(intf);
        if (listed)
            dir.handleIntfPrimaryAddr(intf, source, {}, this);
        else
            dir.handleIntfPrimaryAddr(intf, {}, source, this);
    }
    if (!listed) dir.intfToPgNameDel(intf, pgName());
}

void NavPathGroupSm::handleIpsecConfig() {
    DUOLOG_ENTRY(pathTrace);
    const bool remove = config().ipsecProfile().empty();
    for (const RemoteViaConfig& site : config().remoteViaConfig()) {
        for (const Netz::IpGenAddr& addr : site.remoteVia()) {
            if (remove)
                DUOLOG(pathTrace, 7, "Remove ipsec from paths for remote ", site.remoteAddr(),
                       " and via ", addr);
            else
                DUOLOG(pathTrace, 7, "Add ipsec for paths for remote ", site.remoteAddr(),
                       " and via ", addr);
            handleRemoteVia(site.remoteAddr(), addr, remove);
        }
    }
}

void NavPathGroupSm::handleRemoteVia(const Netz::IpGenAddr& viaAddr,
                                     const Netz::IpGenAddr& remoteVia, bool remove) {
    DUOLOG_ENTRY(pathTrace);
    NavPathGroupDirSm& dir = *in_.pgDirSm;
    for (const Netz::IntfId& intf : config().localIntf()) {
        if (dir.getSrcIntfIp(intf).isZero()) continue;
        const IntfSource source = dir.sourceOf(intf);
        if (source.offersPaths())
            dir.updatePath(intf, source, remoteVia, {pgName(), viaAddr}, remove);
    }
}

}  // namespace Nav
