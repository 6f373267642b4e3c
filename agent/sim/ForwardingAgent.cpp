#include "agent/sim/ForwardingAgent.h"

#include <algorithm>

#include "agent/sim/SimTrace.h"

namespace Agent::Sim {

ForwardingAgent::ForwardingAgent(const Nav::NavInputs& inputs, QualityStatus& quality,
                                 const World& world)
    : world_(world),
      scheduler_(inputs.scheduler.ptr()),
      hardware_(inputs.hwPathStatus.ptr()),
      paths_(*this, *inputs.navStatusDir),
      dead_(quality, Loom::call<&ForwardingAgent::review>(*this)) {}

void ForwardingAgent::review() {
    paths_.forEach([](VelPathStatusEntry& path) { path.reviewLater(); });
}

U32 ForwardingAgent::arpIndexOf(const Netz::IntfId& interface, const Netz::IpGenAddr& hop) {
    const auto next = static_cast<U32>(arpIndices_.size()) + 1;
    return arpIndices_.try_emplace({interface, hop}, next).first->second;
}

ForwardingAgent::VelPathStatusEntry::VelPathStatusEntry(PathVrf<ForwardingAgent>& vrf,
                                                        Nav::PathStatusEntry& path)
    : agent_(vrf.agent),
      vrf_(vrf.status),
      path_(path),
      review_(Loom::call<&VelPathStatusEntry::review>(*this)),
      timer_(*agent_.scheduler_, Loom::call<&VelPathStatusEntry::programme>(*this)),
      pathInfo_(Vel::Subscription::to<&VelPathStatusEntry::reviewLater>(
          path, Nav::PathStatusEntry::pathInfoAttr, this)),
      encapId_(Vel::Subscription::to<&VelPathStatusEntry::reviewLater>(
          path, Nav::PathStatusEntry::encapIdAttr, this)) {}

std::optional<ForwardingAgent::Programme> ForwardingAgent::VelPathStatusEntry::wanted() const {
    const Nav::HwPathInfo& info = path_->pathInfo();
    const Nav::PathKey& key = path_->key();
    const auto isTaken = [&](const World::Via& via) {
        return via.interface == info.via.intfId && via.gateway == info.via.hop;
    };
    if (info.pathState != Nav::PathState::resolved || familiesDiffer(key) ||
        agent_.dead_.has(info.pathIndex) ||
        std::ranges::none_of(agent_.world_.lookup(vrf_->vrfName(), key.dstAddr), isTaken) ||
        !agent_.world_.neighbourDelay(info.via.intfId, info.via.hop))
        return std::nullopt;
    return Programme{{key.srcAddr, key.dstAddr, key.vrfId, info.pathIndex},
                     info.via.intfId,
                     info.via.hop,
                     path_->encapId()};
}

// A path stays in hardware while a change of it is being programmed.
void ForwardingAgent::VelPathStatusEntry::review() {
    const auto programme = wanted();
    if (!programme || (done_ && done_->key != programme->key)) withdraw();
    if (!programme || programme == next_) return;
    timer_.disarm();
    next_.reset();
    if (programme == done_) return;
    next_ = programme;
    timer_.armIn(*agent_.world_.neighbourDelay(next_->interface, next_->hop) +
                 agent_.world_.programmingDelay);
}

void ForwardingAgent::VelPathStatusEntry::programme() {
    done_ = std::exchange(next_, std::nullopt);
    const U32 arpIndex = agent_.arpIndexOf(done_->interface, done_->hop);
    DUOLOG(simTrace, 6, "Path", done_->key.pathIndex, " to ", done_->key.dstAddr,
           " is programmed by ", done_->hop, " through ", done_->interface);
    const auto write = [&](Nav::HwPathStatusEntry& entry) {
        if (entry.hwPathIndex() == 0) entry.hwPathIndexIs(++agent_.lastPathIndex_);
        entry.hwArpIndexIs(arpIndex);
        entry.ipsecEncapIdIs(done_->encapId);
        entry.updateVersionIs(++agent_.version_);
    };
    const Nav::HwPathKey key = done_->key;
    if (Nav::HwPathStatusEntry* entry = agent_.hardware_->hwPathStatusList(key))
        write(*entry);
    else
        agent_.hardware_->hwPathStatusListIs(key, write);
}

void ForwardingAgent::VelPathStatusEntry::withdraw() {
    timer_.disarm();
    next_.reset();
    if (const auto gone = std::exchange(done_, std::nullopt))
        agent_.hardware_->hwPathStatusListDel(gone->key);
}

}  // namespace Agent::Sim
