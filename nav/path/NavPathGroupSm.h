// Maintains the paths of one path group according to its configuration: its local interfaces, its
// remote sites with their destination addresses, and its IPsec profile.
//
// One per configured path group, owned by the directory reactor, through which it adds and removes
// paths. It keeps the group's configuration alive after the group was removed from the tree, until
// everything built from it is removed.
#pragma once

#include "nav/config/NavCliConfig.h"
#include "platform/vel/Reactor.h"

namespace Nav {

class NavPathGroupDirSm;

class NAV_EXPORT NavPathGroupSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavPathGroupSm";
    struct Inputs {
        Vel::String pgName;
        Vel::Input<PathGroupConfig> pathGroupConfig;  // read
        NavPathGroupDirSm* pgDirSm = nullptr;         // the owner
    };

    explicit NavPathGroupSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }
    const Vel::String& pgName() const { return in_.pgName; }
    PathGroupConfig& config() const { return *in_.pathGroupConfig; }

    void handleInitialized() override;
    void doCleanup() override;

    // An interface was added to the group or removed from it.
    void handleLocalIntf(const Netz::IntfId& intf);
    // The profile changed. A new one is applied to all paths of the group, and missing paths are
    // created again; an empty one deletes them.
    void handleIpsecConfig();
    // Adds or removes the paths of every local interface to one destination of one site.
    void handleRemoteVia(const Netz::IpGenAddr& viaAddr, const Netz::IpGenAddr& remoteVia,
                         bool remove);

    // For the owner.

    // Creates the paths of one interface to every site.
    void createPaths(const Netz::IntfId& intf);
    // Removes the paths that the configuration or the interfaces do not justify any more; all paths
    // once the group has been removed.
    void removeStalePaths();
    // The group was removed from the configuration: from now on nothing is justified.
    void removedIs() { removed_ = true; }
    bool removed() const { return removed_; }
    // The group made its first claim on a path, or lost its last one.
    void claimedAdd(const PathKey& pathKey) { claimed_.insert(pathKey); }
    void claimedDel(const PathKey& pathKey) { claimed_.take(pathKey); }
    const auto& claimed() const { return claimed_; }

  private:
    class VelRemoteViaConfig;

    ~NavPathGroupSm() override;

    Inputs in_;
    bool initialized_ = false;
    bool removed_ = false;
    Vel::String profile_;  // that the paths have
    // The paths on which the group has a claim, in the order it claimed them.
    Vel::Unordered<Vel::SetTraits<PathKey>> claimed_;
    Vel::Subscription localIntf_;
    Vel::Subscription ipsecProfile_;
    Vel::EntryReactorsOf<VelRemoteViaConfig, decltype(PathGroupConfig::remoteViaConfigAttr)>
        remoteViaConfig_;
};
VEL_INPUTS(NavPathGroupSm::Inputs, pgName, pathGroupConfig, pgDirSm)

}  // namespace Nav
