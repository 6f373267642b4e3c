#include "agent/observe/Replica.h"

#include "agent/model/Config.h"

namespace Agent {

using Nav::NavInputs;

namespace {

// Runs what is due at once, and no timers of the future.
void settle(Vel::Scheduler& scheduler) {
    for (auto next = scheduler.nextDeadline(); next && *next <= scheduler.now();
         next = scheduler.nextDeadline())
        scheduler.runDue();
}

// What the forwarding side reports, under the indices that the paths have in another root.
void copyHardware(const NavInputs& from, const Nav::NavDb& there, const NavInputs& to,
                  const Nav::NavDb& here) {
    for (const Nav::HwPathStatusEntry& entry : from.hwPathStatus->hwPathStatusList()) {
        const Nav::PathKey path = entry.key().pathKey();
        const Nav::PathKeyInfo *before = there.pathKeyInfo(path), *now = here.pathKeyInfo(path);
        if (!before || !now || before->pathIndex() != entry.key().pathIndex) continue;
        Nav::HwPathKey key = entry.key();
        key.pathIndex = now->pathIndex();
        to.hwPathStatus->hwPathStatusListIs(key, [&](Nav::HwPathStatusEntry& copy) {
            copy.hwPathIndexIs(entry.hwPathIndex());
            copy.hwArpIndexIs(entry.hwArpIndex());
            copy.ipsecEncapIdIs(entry.ipsecEncapId());
        });
    }
}

}  // namespace

Replica::Replica(const NavInputs& in, const Nav::NavDb* database, const Nav::NavCliConfig& config)
    : inputs_(Nav::makeNavInputs(Vel::make<Vel::Scheduler>(in.scheduler->clock()))) {
    addMissing(*inputs_.cliConfig, config);
    addMissing(*inputs_.ipStatusDir, *in.ipStatusDir);
    addMissing(*inputs_.ip6StatusDir, *in.ip6StatusDir);
    addMissing(*inputs_.routingHwRouteStatus, *in.routingHwRouteStatus);
    for (const Routing::NexthopVrfStatus& vrf : in.nexthopStatus->vrf())
        inputs_.nexthopStatus->vrfIs(vrf.vrfName());
    root_ = Nav::NavRootSmIs(inputs_);
    settle(*inputs_.scheduler);
    // Services answer requests, so their answers come after these.
    addMissing(*inputs_.forwardingStatus, *in.forwardingStatus);
    addMissing(*inputs_.forwarding6Status, *in.forwarding6Status);
    addMissing(*inputs_.nexthopStatus, *in.nexthopStatus);
    addMissing(*inputs_.ipsecPathStatusDir, *in.ipsecPathStatusDir);
    settle(*inputs_.scheduler);
    const Nav::NavDb* here = this->database();
    if (here && database) copyHardware(in, *database, inputs_, *here);
    settle(*inputs_.scheduler);
}

Replica::~Replica() {
    root_ = nullptr;
}

const Nav::NavDb* Replica::database() const {
    const Nav::NavContainer* container = root_->navContainer();
    return container ? container->navDb() : nullptr;
}

}  // namespace Agent
