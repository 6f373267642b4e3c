// The host's own kernel as the router around: its interfaces, VRFs, routes and neighbours become
// the inputs that path selection reads. What is taken from where, and what it takes to run:
// docs/linux.md.
#pragma once

#include <memory>

#include "agent/linux/kernel/KernelMonitor.h"
#include "agent/router/Platform.h"
#include "agent/shell/EventLoop.h"

namespace Agent::Linux {

class LinuxPlatform final : public Platform {
  public:
    // The loop outlives this. The receive buffer is the one for the kernel's events, in bytes.
    explicit LinuxPlatform(EventLoop& loop,
                           int receiveBuffer = KernelMonitor::defaultReceiveBuffer);
    ~LinuxPlatform() override;

    // Throws Vel::Error where the kernel gives no sockets or its tables cannot be read.
    void start(const Nav::NavInputs& inputs) override;
    void stop() override;

    // REQUIRES: started and not stopped.
    const KernelMonitor& monitor() const;

  private:
    class Router;

    EventLoop& loop_;
    const int receiveBuffer_;
    std::unique_ptr<Router> router_;
};

}  // namespace Agent::Linux
