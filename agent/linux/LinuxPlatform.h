// The platform of a router whose forwarding side is the host's own kernel: its interfaces, VRFs,
// routes and neighbours become the inputs of path selection. docs/linux.md describes the mapping
// and what the agent requires.
#pragma once

#include <memory>

#include "agent/linux/kernel/KernelMonitor.h"
#include "agent/model/ForwardingConfig.h"
#include "agent/model/IpsecConfig.h"
#include "agent/router/Platform.h"
#include "agent/shell/EventLoop.h"

namespace Agent::Linux {

struct LinuxOptions {
    ForwardingPtr forwarding{};   // null: the platform observes only
    IpsecPtr ipsec{};             // null: no path is secured
    std::string charon{};         // charon's VICI socket; needed for IPsec
    bool keepForwarding = false;  // stop() leaves the kernel forwarding as it is
    std::string runDir{};         // where the table of counters lies; needed for forwarding
    int receiveBuffer = KernelMonitor::defaultReceiveBuffer;  // bytes, for the kernel's events
};

class LinuxPlatform final : public Platform {
  public:
    // The loop must outlive this.
    explicit LinuxPlatform(EventLoop& loop, LinuxOptions options = {});
    ~LinuxPlatform() override;

    // Raises Vel::Error if the kernel refuses a socket or cannot be read.
    void start(const Nav::NavInputs& inputs) override;
    void stop() override;
    void keepForwarding() override { options_.keepForwarding = true; }
    void configured() override;
    std::optional<Json> forwarding() override;
    QualityStatus* quality() const override;
    std::vector<std::string> validate() override;
    Json ipsec() override;
    std::optional<bool> linkUp(const Netz::IntfId& name) const override;
    PathDetail detail(const Nav::PathStatusEntry& path, const L3::VrfName& vrf) const override;
    Chosen choose(const Nav::LbProfileStatusEntry& entry) const override;

    // REQUIRES: started and not stopped.
    const KernelMonitor& monitor() const;

  private:
    class Services;

    EventLoop& loop_;
    LinuxOptions options_;
    std::unique_ptr<Services> services_;  // null unless started
};

}  // namespace Agent::Linux
