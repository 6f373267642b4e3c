#include "platform/services/FibMonitorHelperSm.h"

#include "platform/trace/Duolog.h"

namespace Routing {

using Netz::IpGenAddr;
using Vel::Subscription;
using Vel::U64;

namespace {
Duolog::Facility fibTrace{"fib"};
}

FibMonitorHelperSm::FibMonitorHelperSm(const Inputs& inputs)
    : in_(inputs),
      announcement_(Loom::call<&FibMonitorHelperSm::announce>(*this)),
      nexthop_(Subscription::to<&FibMonitorHelperSm::handleNexthop>(
          *in_.nexthopVrfStatus, NexthopVrfStatus::nexthopAttr, this)),
      fec_(Subscription::to<&FibMonitorHelperSm::handleFec4>(
          *in_.forwardingStatus, Shard::Fib::ForwardingStatus::fecAttr, this)),
      fec6_(Subscription::to<&FibMonitorHelperSm::handleFec6>(
          *in_.forwarding6Status, Shard::Fib6::ForwardingStatus::fecAttr, this)) {
    for (const NexthopResult& result : in_.nexthopVrfStatus->nexthop()) follow(result.addr);
}

void FibMonitorHelperSm::doCleanup() {
    nexthop_.reset();
    fec_.reset();
    fec6_.reset();
    announcement_.cancel();
}

void FibMonitorHelperSm::handleNexthop(const IpGenAddr& addr) {
    DUOLOG_ENTRY(fibTrace, " ", in_.clientName, " addr ", addr);
    follow(addr);
    announceLater(addr);
}

void FibMonitorHelperSm::handleFec(bool v6, U64 fecId) {
    DUOLOG_ENTRY(fibTrace, " ", in_.clientName, " fec id: ", fecId);
    for (auto use = uses_.lower_bound({v6, fecId, {}});
         use != uses_.end() && use->v6 == v6 && use->fecId == fecId; ++use)
        announceLater(use->addr);
}

// Records the FEC that the address resolves to.
void FibMonitorHelperSm::follow(const IpGenAddr& addr) {
    if (const auto [known, before] = fecOf_.take(addr); known)
        uses_.erase({addr.isV6(), before.second, addr});
    if (const NexthopResult* result = in_.nexthopVrfStatus->nexthop(addr)) {
        fecOf_.insert({addr, result->fecId});
        uses_.insert({addr.isV6(), result->fecId, addr});
    }
}

void FibMonitorHelperSm::announceLater(const IpGenAddr& addr) {
    in_.nexthopBacklog->backlogIs(addr);
    in_.scheduler->post(announcement_);
}

void FibMonitorHelperSm::announce() {
    if (!in_.nexthopBacklog->backlog().empty()) in_.nexthopBacklog->versionInc(1);
}

}  // namespace Routing
