#include "agent/linux/ForwardingAgent.h"

#include <algorithm>
#include <vector>

#include "agent/linux/kernel/LinuxTrace.h"

namespace Agent::Linux {

using Shard::Fib::Fec;
using Shard::Fib::Via;
using Vel::U32;

ForwardingAgent::ForwardingAgent(const Nav::NavInputs& inputs, KernelMonitor& monitor,
                                 Forwarding* forwarding, PathProbing* probing,
                                 QualityStatus& quality)
    : in_(inputs),
      monitor_(monitor),
      forwarding_(forwarding),
      probing_(probing),
      solicitation_(Loom::call<&ForwardingAgent::solicit>(*this)),
      confirmation_(*in_.scheduler, Loom::call<&ForwardingAgent::confirm>(*this)),
      paths_(*this, *in_.navStatusDir),
      dead_(quality, Loom::call<&ForwardingAgent::review>(*this)) {}

void ForwardingAgent::review() {
    paths_.forEach([](VelPathStatusEntry& path) { path.reviewLater(); });
}

// Returns whether packets can be sent to the next hop at once; if not, requests its resolution.
bool ForwardingAgent::followNexthop(const Neighbour& nexthop) {
    if (!confirmation_.armed()) confirmation_.armIn(confirmInterval);
    if (monitor_.neighbourResolved(nexthop)) return true;
    toSolicit_.insert(nexthop);
    in_.scheduler->post(solicitation_);
    return false;
}

void ForwardingAgent::solicit() {
    const std::vector<Neighbour> neighbours(toSolicit_.begin(), toSolicit_.end());
    toSolicit_.clear();
    monitor_.solicit(neighbours);
}

void ForwardingAgent::confirm() {
    paths_.forEach([this](const VelPathStatusEntry& path) {
        if (path.nexthop()) toSolicit_.insert(*path.nexthop());
    });
    if (toSolicit_.empty()) return;
    solicit();
    confirmation_.armIn(confirmInterval);
}

ForwardingAgent::VelPathStatusEntry::VelPathStatusEntry(PathVrf<ForwardingAgent>& vrf,
                                                        Nav::PathStatusEntry& path)
    : agent_(vrf.agent),
      vrf_(vrf.status),
      path_(path),
      review_(Loom::call<&VelPathStatusEntry::review>(*this)),
      pathInfo_(Vel::Subscription::to<&VelPathStatusEntry::reviewLater>(
          path, Nav::PathStatusEntry::pathInfoAttr, this)),
      encapId_(Vel::Subscription::to<&VelPathStatusEntry::reviewLater>(
          path, Nav::PathStatusEntry::encapIdAttr, this)) {}

// Empty unless the path's via is still part of its route.
std::optional<Neighbour> ForwardingAgent::VelPathStatusEntry::findNexthop() {
    const Nav::HwPathInfo& info = path_->pathInfo();
    if (familiesDiffer(path_->key())) return {};
    const Fec* fec = fec_(agent_.in_, vrf_->vrfName(), path_->key().dstAddr);
    const Interface* interface = agent_.monitor_.interfaces().named(info.via.intfId);
    const auto isTaken = [&](const Via& via) {
        return via.hop == info.via.hop && via.intfId == info.via.intfId;
    };
    if (!fec || !interface || std::ranges::none_of(fec->vias(), isTaken)) return {};
    return Neighbour{interface->index, info.via.hop};
}

PathHop ForwardingAgent::VelPathStatusEntry::hopBy(const Neighbour& nexthop) const {
    const Via& via = path_->pathInfo().via;
    return {path_->key(), nexthop.addr, nexthop.ifIndex, via.intfId, via.weight, secured()};
}

// A secured path is resolved only when IKE has done its work, so IKE is told the next hop earlier.
void ForwardingAgent::VelPathStatusEntry::pin(const std::optional<Neighbour>& nexthop) {
    if (!agent_.forwarding_) return;
    const U32 pathIndex = path_->pathInfo().pathIndex;
    const bool pinned = nexthop && secured();
    if (pinned_ && !(pinned && *pinned_ == pathIndex))
        agent_.forwarding_->securedDel(*std::exchange(pinned_, std::nullopt));
    if (pinned) agent_.forwarding_->securedIs(*(pinned_ = pathIndex), hopBy(*nexthop));
}

void ForwardingAgent::VelPathStatusEntry::review() {
    nexthop_ = findNexthop();
    pin(nexthop_);
    if (path_->pathInfo().pathState != Nav::PathState::resolved) nexthop_.reset();
    if (!nexthop_) return withdraw();
    const Nav::HwPathKey key = hwKey(path_->pathInfo().pathIndex);
    if (written_ != key.pathIndex) withdraw();
    written_ = key.pathIndex;
    const U32 arpIndex = agent_.followNexthop(*nexthop_) ? nexthop_->ifIndex : 0;
    if (arpIndex != 0) probe(path_->pathInfo());
    write(key, program(path_->pathInfo()), arpIndex);
}

Nav::HwPathKey ForwardingAgent::VelPathStatusEntry::hwKey(U32 pathIndex) const {
    const Nav::PathKey& path = path_->key();
    return {path.srcAddr, path.dstAddr, path.vrfId, pathIndex};
}

// Returns the hardware's index of the path, 0 until it has one.
U32 ForwardingAgent::VelPathStatusEntry::program(const Nav::HwPathInfo& info) {
    if (!agent_.forwarding_) return info.pathIndex;
    PathHop hop = hopBy(*nexthop_);
    hop.usable = !agent_.dead_.has(info.pathIndex);
    agent_.forwarding_->pathIs(info.pathIndex, hop);
    return agent_.forwarding_->programmed(info.pathIndex);
}

void ForwardingAgent::VelPathStatusEntry::probe(const Nav::HwPathInfo& info) {
    if (!agent_.probing_) return;
    if (const Interface* interface = agent_.monitor_.interfaces().at(nexthop_->ifIndex))
        agent_.probing_->pathIs(info.pathIndex, path_->key(), *interface, secured());
}

void ForwardingAgent::VelPathStatusEntry::write(const Nav::HwPathKey& key, U32 pathIndex,
                                                U32 arpIndex) {
    Nav::HwPathStatus& hardware = *agent_.in_.hwPathStatus;
    const Nav::HwPathStatusEntry* present = entry_([&] { return hardware.hwPathStatusList(key); });
    if (present && present->hwPathIndex() == pathIndex && present->hwArpIndex() == arpIndex &&
        present->ipsecEncapId() == path_->encapId())
        return;
    DUOLOG(linuxTrace, 6, "Path", key.pathIndex, " to ", key.dstAddr, " by ", path_->pathInfo().via,
           arpIndex != 0 ? ": neighbour resolved" : ": neighbour unresolved");
    const auto fill = [&, version = ++agent_.version_](Nav::HwPathStatusEntry& entry) {
        entry.ipsecEncapIdIs(path_->encapId());
        entry.updateVersionIs(version);
        entry.hwPathIndexIs(pathIndex);
        entry.hwArpIndexIs(arpIndex);
    };
    const Vel::Hold hold;
    fill(hardware.hwPathStatusListIs(key, fill));
}

void ForwardingAgent::VelPathStatusEntry::withdraw() {
    const auto gone = std::exchange(written_, std::nullopt);
    if (!gone) return;
    entry_ = {};
    agent_.in_.hwPathStatus->hwPathStatusListDel(hwKey(*gone));
    if (agent_.probing_) agent_.probing_->pathDel(*gone);
    if (agent_.forwarding_) agent_.forwarding_->pathDel(*gone);
}

}  // namespace Agent::Linux
