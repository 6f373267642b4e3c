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

void FibMonitorHelperSm::handleFec(const UsersByFec& users, U64 fecId) {
    DUOLOG_ENTRY(fibTrace, " ", in_.clientName, " fec id: ", fecId);
    const auto* item = users.find(fecId);
    if (!item) return;
    const Users& present = *item->second;  // kept alive by the notification
    for (size_t i = 0; i < present.addrs.size(); ++i) announceLater(IpGenAddr(present.addrs[i]));
}

// Records the FEC that the address resolves to.
void FibMonitorHelperSm::follow(const IpGenAddr& addr) {
    forget(addr);
    const NexthopResult* result = in_.nexthopVrfStatus->nexthop(addr);
    if (!result) return;
    fecOf_.insert({addr, result->fecId});
    UsersByFec& users = addr.isV4() ? users_ : users6_;
    auto* item = users.find(result->fecId);
    if (!item) item = &users.insert({result->fecId, Vel::make<Users>()});
    item->second->addrs.push_back(addr);
}

void FibMonitorHelperSm::forget(const IpGenAddr& addr) {
    const auto [known, before] = fecOf_.take(addr);
    if (!known) return;
    UsersByFec& users = addr.isV4() ? users_ : users6_;
    std::vector<IpGenAddr>& addrs = users.find(before.second)->second->addrs;
    std::erase(addrs, addr);
    if (addrs.empty()) users.take(before.second);
}

void FibMonitorHelperSm::announceLater(const IpGenAddr& addr) {
    in_.nexthopBacklog->backlogIs(addr);
    in_.scheduler->post(announcement_);
}

void FibMonitorHelperSm::announce() {
    if (!in_.nexthopBacklog->backlog().empty()) in_.nexthopBacklog->versionInc(1);
}

}  // namespace Routing
