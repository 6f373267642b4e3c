// Tells the service manager that started the agent how it is: ready, reloading, stopping, and
// alive. The protocol is that of sd_notify(3), which is stable; it is a datagram of a few words, so
// the agent needs no library for it. Without a service manager this does nothing.
//
// The signs of life come from the event loop, so a loop that hangs gives none, and the manager
// restarts the agent (WatchdogSec= of systemd.service(5)). Owned by HostAgent.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "agent/shell/EventLoop.h"

namespace Agent {

class ServiceManager {
  public:
    // `status`: a line about the agent for its operators, asked for with each sign of life. Takes
    // the variables NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment.
    ServiceManager(EventLoop& loop, std::function<std::string()> status);

    void ready();      // also when a reload is over
    void reloading();  // ready() must follow
    void stopping();

  private:
    void send(const std::string& text) const;
    void showLife();

    EventLoop& loop_;
    const std::function<std::string()> status_;
    std::string socket_;                    // empty: no service manager
    std::chrono::microseconds interval_{};  // between signs of life; 0: none is wanted
    EventLoop::Registration life_;
};

}  // namespace Agent
