// Tells one user of next-hop resolution which addresses of a VRF to review.
//
// Whenever the result of an address changes, or the FEC that the result names, the address is added
// to the user's backlog, and a task announces it, so that a burst of changes is one entry per
// address. Changes that cancel out are one entry too: the user cannot know that they did. Results
// present when the helper is made are not announced.
//
// Owned by its user, who also owns the backlog and drains it.
#pragma once

#include <set>
#include <tuple>

#include "platform/services/Routing.h"
#include "platform/shard/ForwardingStatus.h"
#include "platform/vel/Reactor.h"
#include "platform/vel/Scheduler.h"

namespace Routing {

class VEL_EXPORT FibMonitorHelperSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Routing::FibMonitorHelperSm";
    struct Inputs {
        Vel::Name clientName;  // the user, for traces
        Vel::Input<NexthopVrfStatus> nexthopVrfStatus;
        Vel::Input<NexthopBacklog> nexthopBacklog;
        Vel::Input<Shard::Fib::ForwardingStatus> forwardingStatus;
        Vel::Input<Shard::Fib6::ForwardingStatus> forwarding6Status;
        Vel::Input<Vel::Scheduler> scheduler;
    };

    explicit FibMonitorHelperSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }
    void doCleanup() override;

  private:
    // A resolved address uses a FEC; each address family has FEC ids of its own. Ordered by FEC, so
    // that the addresses of one are found without a walk.
    struct Use {
        bool v6;
        Vel::U64 fecId;
        Netz::IpGenAddr addr;
        auto operator<=>(const Use&) const = default;
    };

    void handleNexthop(const Netz::IpGenAddr& addr);
    void handleFec4(const Vel::U64& fecId) { handleFec(false, fecId); }
    void handleFec6(const Vel::U64& fecId) { handleFec(true, fecId); }
    void handleFec(bool v6, Vel::U64 fecId);
    void follow(const Netz::IpGenAddr& addr);
    void announceLater(const Netz::IpGenAddr& addr);
    void announce();

    const Inputs in_;
    Vel::Unordered<Vel::MapTraits<Netz::IpGenAddr, Vel::U64>> fecOf_;  // of each resolved address
    std::set<Use> uses_;                                               // the same, by FEC
    Loom::Task announcement_;
    Vel::Subscription nexthop_;
    Vel::Subscription fec_;
    Vel::Subscription fec6_;
};
VEL_INPUTS(FibMonitorHelperSm::Inputs, clientName, nexthopVrfStatus, nexthopBacklog,
           forwardingStatus, forwarding6Status, scheduler)

}  // namespace Routing
