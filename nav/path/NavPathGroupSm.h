// Keeps the paths of one path group in step with its configuration: its local interfaces, its
// remote sites with their destination addresses, and its IPsec profile.
//
// One per configured path group, owned by the directory reactor, through which it adds and removes
// paths. It works on its own configuration, which it keeps after the group has left the tree, so
// that what was built from it can be taken back.
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
        Vel::Input<PathGroupConfig> pathGroupConfig;
        NavPathGroupDirSm* pgDirSm = nullptr;  // the owner
    };

    explicit NavPathGroupSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }
    const Vel::String& pgName() const { return in_.pgName; }
    PathGroupConfig& config() const { return *in_.pathGroupConfig; }

    void handleInitialized() override;
    void doCleanup() override;

    // An interface joined the group or left it.
    void handleLocalIntf(const Netz::IntfId& intf);
    // The profile changed. A new one goes to all paths of the group, and brings back those that are
    // missing; none deletes them.
    void handleIpsecConfig();
    // Adds or removes the paths of every local interface to one destination of one site.
    void handleRemoteVia(const Netz::IpGenAddr& viaAddr, const Netz::IpGenAddr& remoteVia,
                         bool remove);

  private:
    class VelRemoteViaConfig;

    ~NavPathGroupSm() override;

    Inputs in_;
    bool initialized_ = false;
    Vel::Subscription localIntf_;
    Vel::Subscription ipsecProfile_;
    Vel::EntryReactorsOf<VelRemoteViaConfig, decltype(PathGroupConfig::remoteViaConfigAttr)>
        remoteViaConfig_;
};
VEL_INPUTS(NavPathGroupSm::Inputs, pgName, pathGroupConfig, pgDirSm)

}  // namespace Nav
