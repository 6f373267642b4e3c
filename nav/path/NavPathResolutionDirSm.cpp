#include "nav/path/NavPathResolutionDirSm.h"

#include "nav/path/PathState.h"
#include "nav/path/PathTrace.h"
#include "platform/netz/Assert.h"

namespace Nav {

using Vel::Subscription;

class NavPathResolutionDirSm::VelHwPathStatusEntry final : public Vel::Object {
  public:
    VelHwPathStatusEntry(NavPathResolutionDirSm& owner, HwPathStatusEntry& entry)
        : owner_(owner),
          key_(entry.key()),
          hwPathIndex_(Subscription::to<&VelHwPathStatusEntry::handleHwPathStatus>(
              entry, HwPathStatusEntry::hwPathIndexAttr, this)),
          hwArpIndex_(Subscription::to<&VelHwPathStatusEntry::handleHwPathStatus>(
              entry, HwPathStatusEntry::hwArpIndexAttr, this)) {}

    void handleInitialized() { handleHwPathStatus(); }
    void handleHwPathStatus() {
        DUOLOG_ENTRY(pathTrace, key_.pathKey());
        owner_.handleHwPathStatus(key_);
    }
    void handleDelete() { handleHwPathStatusDelete(); }
    void doCleanup() {
        hwPathIndex_.reset();
        hwArpIndex_.reset();
    }

  private:
    void handleHwPathStatusDelete() {
        DUOLOG_ENTRY(pathTrace, key_.pathKey());
        owner_.handleHwPathStatus(key_);
    }

    NavPathResolutionDirSm& owner_;
    const HwPathKey key_;
    Subscription hwPathIndex_;
    Subscription hwArpIndex_;
};

class NavPathResolutionDirSm::VelIpsecPathStatus final : public Vel::Object {
  public:
    VelIpsecPathStatus(NavPathResolutionDirSm& owner, Ipsec::Path::PathStatus& status)
        : owner_(owner),
          key_(status.key()),
          connectionState_(Subscription::to<&VelIpsecPathStatus::handleIpsecConnectionState>(
              status, Ipsec::Path::PathStatus::connectionStateAttr, this)),
          encapId_(Subscription::to<&VelIpsecPathStatus::handleIpsecConnectionState>(
              status, Ipsec::Path::PathStatus::encapIdAttr, this)) {}

    void handleInitialized() { handleIpsecConnectionState(); }
    void handleIpsecConnectionState() { owner_.handleIpsecConnectionState(key_); }
    void handleDelete() { handleIpsecConnectionStateDelete(); }
    void doCleanup() {
        connectionState_.reset();
        encapId_.reset();
    }

  private:
    void handleIpsecConnectionStateDelete() {
        DUOLOG_ENTRY(pathTrace);
        DUOLOG(pathTrace, 7, "Ipsec connection deleted for ", key_);
        handleIpsecConnectionState();
    }

    NavPathResolutionDirSm& owner_;
    const Ipsec::ConnectionKey key_;
    Subscription connectionState_;
    Subscription encapId_;
};

NavPathResolutionDirSm::NavPathResolutionDirSm(const Inputs& inputs)
    : in_(inputs),
      nexthopStatus_(Subscription::to<&NavPathResolutionDirSm::handleNexthopVrfStatus>(
          *in_.nexthopStatus, Routing::NexthopStatus::vrfAttr, this)),
      hwPathStatusEntry_(*this, *in_.hwPathStatus, HwPathStatus::hwPathStatusListAttr),
      ipsecPathStatus_(*this, *in_.ipsecPathStatusDir,
                       Ipsec::Path::PathStatusDir::ipsecPathStatusAttr) {}

NavPathResolutionDirSm::~NavPathResolutionDirSm() = default;

void NavPathResolutionDirSm::handleInitialized() {
    DUOLOG_ENTRY(pathTrace);
    if (initialized_) {
        DUOLOG(pathTrace, 7, "already initialized");
        return;
    }
    for (const Routing::NexthopVrfStatus& vrf : in_.nexthopStatus->vrf()) {
        DUOLOG(pathTrace, 7, "Creating NexthopMonitor for vrf '", vrf.vrfName(), "'");
        handleNexthopVrfStatus(vrf.vrfName());
    }
    if (ended_) return;
    initialized_ = true;
    hwPathStatusEntry_.initialize();
    ipsecPathStatus_.initialize();
}

void NavPathResolutionDirSm::doCleanup() {
    DUOLOG_ENTRY(pathTrace);
    ended_ = true;
    nexthopStatus_.reset();
    hwPathStatusEntry_.clear();
    ipsecPathStatus_.clear();
    navPathResolutionSm_.delAll();
    // Requests of VRFs without a reactor.
    in_.ipsecPathConfigDir->ipsecPathConfigDelAll();
}

void NavPathResolutionDirSm::handleNexthopVrfStatus(const L3::VrfName& vrfName) {
    DUOLOG_ENTRY(pathTrace, " vrfName: ", vrfName);
    if (ended_) return;
    Routing::NexthopVrfStatus* status = in_.nexthopStatus->vrf(vrfName);
    const NavPathResolutionSm* present = navPathResolutionSm(vrfName);
    // The status may have been removed and added again before this notification was delivered.
    if (!status || (present && present->inputs().nexthopVrfStatus.ptr().get() != status)) {
        DUOLOG(pathTrace, 7, "Deleting NexthopMonitor for vrf: ", vrfName);
        navPathResolutionSmDel(vrfName);
    }
    if (!status) return;
    DUOLOG(pathTrace, 7, "Creating NexthopMonitor for vrf: ", vrfName);
    Vel::Hold hold;
    PathConfig& pathConfig = in_.pathConfigDir->pathConfigIs(vrfName);
    PathStatus& pathStatus = in_.pathStatusDir->pathStatusIs(vrfName);
    Routing::NexthopVrfConfig& nexthopVrfConfig = in_.nexthopConfig->vrfIs(vrfName);
    // A subscriber called above may have changed the status, which was handled then.
    if (ended_ || in_.nexthopStatus->vrf(vrfName) != status || navPathResolutionSm(vrfName)) return;
    navPathResolutionSmIs({vrfName, pathConfig, pathStatus, in_.siteGroupStatus,
                           in_.ipsecPathConfigDir, in_.navDb, in_.ipStatusDir, in_.ip6StatusDir,
                           nexthopVrfConfig, *status, in_.forwardingStatus, in_.forwarding6Status,
                           in_.scheduler, this});
}

void NavPathResolutionDirSm::handlePathConfigured(const PathKey& pathKey,
                                                  const Ipsec::ConnectionKey& connection) {
    if (in_.ipsecPathStatusDir->ipsecPathStatus(connection)) handleIpsecConnectionState(connection);
    const PathKeyInfo* pathKeyInfo = in_.navDb->pathKeyInfo(pathKey);
    if (!pathKeyInfo) return;
    const HwPathKey key{pathKey.srcAddr, pathKey.dstAddr, pathKey.vrfId, pathKeyInfo->pathIndex()};
    if (in_.hwPathStatus->hwPathStatusList(key)) handleHwPathStatus(key);
}

// Only the entry with the path's current index is used.
void NavPathResolutionDirSm::handleHwPathStatus(const HwPathKey& key) {
    const PathKeyInfo* pathKeyInfo = in_.navDb->pathKeyInfo(key.pathKey());
    if (!pathKeyInfo) return;
    if (pathKeyInfo->pathIndex() != key.pathIndex) {
        DUOLOG(pathTrace, 7, "Hardware pathIndex: ", key.pathIndex,
               " is not pathIndex: ", pathKeyInfo->pathIndex(), " of path: ", key.pathKey());
        return;
    }
    const HwPathStatusEntry* entry = in_.hwPathStatus->hwPathStatusList(key);
    updatePathStatus(key.pathKey(), entry && entry->hwPathIndex() && entry->hwArpIndex());
}

void NavPathResolutionDirSm::updatePathStatus(const PathKey& pathKey, bool programmed) {
    const PathKeyInfo* pathKeyInfo = in_.navDb->pathKeyInfo(pathKey);
    if (!pathKeyInfo) return;
    PathStatus* pathStatus = in_.pathStatusDir->pathStatus(pathKeyInfo->vrfName());
    PathStatusEntry* entry = pathStatus ? pathStatus->pathStatusEntry(pathKey) : nullptr;
    if (!entry) return;
    DUOLOG(pathTrace, 7, "PathStatus set to ", programmed, " for path: ", pathKey);
    entry->programmedIs(programmed);
}

// The status of a connection that is established, else null.
const Ipsec::Path::PathStatus* NavPathResolutionDirSm::established(
    const Ipsec::ConnectionKey& connection) const {
    const auto* status = in_.ipsecPathStatusDir->ipsecPathStatus(connection);
    return status && status->connectionState() == Ipsec::Path::established ? status : nullptr;
}

void NavPathResolutionDirSm::handleIpsecConnectionState(const Ipsec::ConnectionKey& connection) {
    const PathKey pathKey = pathKeyOf(*in_.navDb, connection);
    DUOLOG_ENTRY(pathTrace, pathKey);
    Vel::Hold hold;
    const PathConfig* pathConfig = in_.pathConfigDir->pathConfig(connection.vrfName);
    PathStatus* pathStatus = in_.pathStatusDir->pathStatus(connection.vrfName);
    if (!pathConfig || !pathStatus) {
        DUOLOG(pathTrace, 7, "PathConfig or PathStatus not present");
        return;
    }
    const PathConfigEntry* config = pathConfig->pathConfigEntry(pathKey);
    const PathKeyInfo* pathKeyInfo = in_.navDb->pathKeyInfo(pathKey);
    if (!config) {
        // A path with key info is being added or removed, which updates its status too.
        if (pathKeyInfo && pathKeyInfo->vrfName() == connection.vrfName) return;
        DUOLOG(pathTrace, 7, "Config not present for ", pathKey, " Clear the status");
        pathStatus->pathStatusEntryDel(pathKey);
        return;
    }
    VEL_ASSERT(pathKeyInfo, "!!pathKeyInfo");
    PathStatusEntry* pathStatusEntry = pathStatus->pathStatusEntry(pathKey);
    VEL_ASSERT(pathStatusEntry, "pathStatusEntry");

    const auto* status = established(connection);
    const PathType type = status ? PathType::securedPath : pathTypeOf(config->ipsecProfile());
    const U32 encapId = status ? status->encapId() : noEncapId;
    if (status)
        DUOLOG(pathTrace, 7, "Ipsec connection established for ", connection, " with encapId ",
               encapId);
    else if (type == PathType::securedPath)
        DUOLOG(pathTrace, 7, "Ipsec connection not established for ", connection, " with encapId ",
               encapId);
    const Shard::Fib::Via via = pathStatusEntry->pathInfo().via;
    const HwPathInfo info{type, pathStateOf(type, encapId, via), pathKeyInfo->pathIndex(), via};
    pathStatusEntry->pathInfoIs(info);
    // A subscriber called above may have changed the path or the connection.
    if (pathStatusEntry->pathInfo() != info) return handleIpsecConnectionState(connection);
    const auto* now = established(connection);
    pathStatusEntry->encapIdIs(now ? now->encapId() : noEncapId);
}

}  // namespace Nav
