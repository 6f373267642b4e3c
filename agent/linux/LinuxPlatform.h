// The platform of a router whose forwarding side is the host's own kernel: its interfaces, VRFs,
// routes and neighbours become the inputs of path selection. What is taken from where, and what it
// needs to run: docs/linux.md.
#pragma once

#include <memory>

#include "agent/linux/kernel/KernelMonitor.h"
#include "agent/router/Platform.h"
#include "agent/shell/EventLoop.h"

namespace Agent::Linux {

class LinuxPlatform final : public Platform {
  public:
    // The loop outlives this. `receiveBuffer`: bytes that may be queued of the kernel's events.
    explicit LinuxPlatform(EventLoop& loop,
                           int receiveBuffer = KernelMonitor::defaultReceiveBuffer);
    ~LinuxPlatform() override;

    // Raises Vel::Error where the kernel gives no sockets or cannot be read.
    void start(const Nav::NavInputs& inputs) override;
    void stop() override;
    std::optional<bool> linkUp(const Netz::IntfId& name) const override;

    // REQUIRES: started and not stopped.
    const KernelMonitor& monitor() const;

  private:
    class Services;

    EventLoop& loop_;
    const int receiveBuffer_;
    std::unique_ptr<Services> services_;  // null unless started
};

}  // namespace Agent::Linux
