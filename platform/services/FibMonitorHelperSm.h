// Tells one client of next-hop resolution which addresses of a VRF to review.
//
// When the result of an address changes, or the FEC that the result names, the address is added to
// the client's backlog, and a task announces it, so that a burst of changes gives one entry per
// address. Changes that cancel out also give an entry: the client cannot know that they did.
// Results present at construction are not announced.
//
// Owned by its client, which also owns the backlog and drains it.
#pragma once

#include <vector>

#include "platform/services/Routing.h"
#include "platform/shard/ForwardingStatus.h"
#include "platform/vel/Reactor.h"
#include "platform/vel/Scheduler.h"

namespace Routing {

class VEL_EXPORT FibMonitorHelperSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Routing::FibMonitorHelperSm";
    struct Inputs {
        Vel::Name clientName;  // the client, for traces
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
    // The resolved addresses that use one FEC.
    struct Users final : Vel::Object {
        std::vector<Netz::IpGenAddr> addrs;
    };
    using UsersByFec = Vel::Unordered<Vel::MapTraits<Vel::U64, Vel::Ptr<Users>>>;

    void handleNexthop(const Netz::IpGenAddr& addr);
    void handleFec4(const Vel::U64& fecId) { handleFec(users_, fecId); }
    void handleFec6(const Vel::U64& fecId) { handleFec(users6_, fecId); }
    void handleFec(const UsersByFec& users, Vel::U64 fecId);
    void forget(const Netz::IpGenAddr& addr);
    void follow(const Netz::IpGenAddr& addr);
    void announceLater(const Netz::IpGenAddr& addr);
    void announce();

    const Inputs in_;
    Vel::Unordered<Vel::MapTraits<Netz::IpGenAddr, Vel::U64>> fecOf_;  // of each resolved address
    UsersByFec users_, users6_;  // the same by FEC; each address family has its own FEC ids
    Loom::Task announcement_;
    Vel::Subscription nexthop_;
    Vel::Subscription fec_;
    Vel::Subscription fec6_;
};
VEL_INPUTS(FibMonitorHelperSm::Inputs, clientName, nexthopVrfStatus, nexthopBacklog,
           forwardingStatus, forwarding6Status, scheduler)

}  // namespace Routing
