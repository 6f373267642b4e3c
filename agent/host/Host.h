// Hosts the library: creates the seventeen inputs, the root reactor over them and the platform that
// takes the part of the other services, and presents everything as a tree. Owned by the process
// (HostAgent) or a test; used on the event thread.
#pragma once

#include <memory>
#include <string>

#include "agent/model/ForwardingConfig.h"
#include "agent/model/IpsecConfig.h"
#include "agent/model/Tree.h"
#include "agent/observe/Observer.h"
#include "agent/router/Platform.h"
#include "agent/router/QualityReport.h"
#include "agent/shell/Control.h"
#include "nav/root/NavRootSm.h"
#include "platform/vel/Scheduler.h"

namespace Agent {

class Host {
  public:
    // `forwarding`: what the platform forwards by; null if it does not. `ipsec`: the profiles of
    // its IPsec service; null if it has none. `eventsFile`: see Events; `historyFile`: see History.
    Host(Vel::Scheduler& scheduler, std::unique_ptr<Platform> platform,
         ForwardingPtr forwarding = nullptr, IpsecPtr ipsec = nullptr, std::string eventsFile = {},
         std::string historyFile = {});
    ~Host();

    // Written by the platform; the configuration is written through the tree or a load.
    Nav::NavInputs& inputs() { return inputs_; }
    const Platform& platform() const { return *platform_; }
    Platform& platform() { return *platform_; }

    // Every input under its name, /navDb while the container exists, and /forwardingConfig and
    // /ipsecConfig, null unless the agent forwards, or has IPsec. On other platforms than manual
    // only the configurations can be written through it.
    Tree& tree() { return tree_; }
    Events& events() { return events_; }
    Configuration& configuration() { return configuration_; }
    Observer& observer() { return *observer_; }

    // The library's answer to a show command; empty for an unknown word.
    std::string show(const std::string& word);
    // "3 of 7 paths are up"
    std::string summary() const;
    // /navDb; null while the container does not exist.
    Nav::NavDb* database() const;
    // This agent as the object of the control socket's requests.
    Controlled controlled();

  private:
    Json quality(const Json& request) const;
    // Of each load-balance id, by its key.
    Json carriers() const;

    const ForwardingPtr forwarding_;
    const IpsecPtr ipsec_;
    Nav::NavInputs inputs_;
    Vel::Ptr<Nav::NavRootSm> root_;
    const std::unique_ptr<Platform> platform_;
    Tree tree_;
    Events events_;
    Configuration configuration_;
    std::optional<Observer> observer_;      // while the platform runs
    std::optional<QualityReport> quality_;  // absent if the platform measures nothing
    Vel::U32 commands_ = 0;
};

}  // namespace Agent
