// Follows what becomes of the configured paths, of the interfaces and of the choice of paths per
// application: knows the reason of each state and since when it holds, logs paths that come up and
// go down, and records the changes as events.
//
// It reads published state only, after it has settled, so a change that is undone at once is not
// recorded. Owned by the Host; used on the event thread.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/model/Follower.h"
#include "agent/observe/PathReason.h"
#include "agent/shell/Events.h"
#include "agent/shell/Hooks.h"

namespace Agent {

class Observer {
  public:
    // Delay between a change and its record. Long enough for path selection and the forwarding side
    // to have settled, and for a storm of changes to be recorded at a bounded cost.
    static constexpr Loom::Duration settleTime = std::chrono::milliseconds(20);
    // The same for what is measured of paths, which changes all the time.
    static constexpr Loom::Duration measuringTime = std::chrono::seconds(1);

    struct PathRecord {
        PathState state;
        WallTime since;            // the state, with its reason, holds
        uint64_t transitions = 0;  // between up and not up
    };
    // The member paths of a load-balance id that carry its traffic, ascending.
    struct ChoiceRecord {
        std::vector<Vel::U32> carriers;
        WallTime since;
    };

    // `database`: /navDb while it exists, else null. The platform and the events outlive this.
    Observer(const Nav::NavInputs& inputs, const Platform& platform,
             std::function<const Nav::NavDb*()> database, Events& events);

    // Brings the records up to date now, without waiting.
    void observe();
    // The hook, none by default, is called at each transition, of a path, a site or an application,
    // from now on. It must not change what is observed.
    void hookIs(std::function<void(Transition)> hook) { hook_ = std::move(hook); }
    const std::map<ConfiguredPath, PathRecord>& paths() const { return paths_; }
    const std::map<Nav::LbProfileKey, ChoiceRecord>& choices() const { return choices_; }

  private:
    // Why traffic left a path, or came to it, in one round of observing; by path index.
    using Causes = std::map<Vel::U32, std::string>;

    void later();
    void muchLater();
    void observeInterfaces();
    void observeInterface(const Netz::IntfId& name);
    std::string addressesOf(const Netz::IntfId& name) const;
    void observePaths(Causes& causes);
    void observePath(const ConfiguredPath& path, Causes& causes);
    void pathUp(const ConfiguredPath& path, const PathState& state, Causes& causes);
    void pathDown(const ConfiguredPath& path, const PathState& before, const std::string& reason,
                  Causes& causes);
    void observeSites();
    void observeChoices(const Causes& causes);
    void pathTransition(const ConfiguredPath& path, const PathState& state, const char* now,
                        const std::string& cause) const;

    const Nav::NavInputs in_;
    const Platform& platform_;
    const std::function<const Nav::NavDb*()> database_;
    Events& events_;
    std::map<ConfiguredPath, PathRecord> paths_;
    std::map<Nav::LbProfileKey, ChoiceRecord> choices_;
    std::map<Netz::IntfId, std::string> interfaces_;  // as recorded, unless without an address
    std::map<Netz::IpGenAddr, std::vector<Vel::U32>> sites_;  // with the paths that are up
    std::function<void(Transition)> hook_;
    Loom::Timer settled_;
    bool soon_ = false;  // settled_ is armed for a change of state, not of a measurement
    std::vector<std::unique_ptr<Follower>> followers_;
};

}  // namespace Agent
