// The simulated forwarding agent: programs each resolved path into hardware and reports it in
// HwPathStatus. Owned by the SimRouter; used on the event thread.
//
// A path is programmed when the neighbour of its via has answered and the hardware has accepted it,
// which takes the world's `programmingDelay`. Invariant, once all tasks have run: a path has an
// entry only while it is resolved, the route to its destination uses its via, the via's neighbour
// answers, and its probes have not found it dead. An entry has the path's current index, and both
// its indices are set.
#pragma once

#include <map>
#include <optional>

#include "agent/router/DeadPaths.h"
#include "agent/router/PathReactors.h"
#include "agent/sim/World.h"

namespace Agent::Sim {

class ForwardingAgent {
  public:
    // REQUIRES: the world outlives this.
    ForwardingAgent(const Nav::NavInputs& inputs, QualityStatus& quality, const World& world);

    // Called after the world has changed.
    void review();

  private:
    // The description of one path that is sent to the hardware.
    struct Programme {
        Nav::HwPathKey key;
        Netz::IntfId interface;
        Netz::IpGenAddr hop;
        U32 encapId = Nav::noEncapId;

        bool operator==(const Programme&) const = default;
    };

    class VelPathStatusEntry final : public Vel::Object {
      public:
        VelPathStatusEntry(PathVrf<ForwardingAgent>& vrf, Nav::PathStatusEntry& path);
        void handleInitialized() {
            traceFamilies(path_->key());
            reviewLater();
        }
        void doCleanup() { withdraw(); }
        void reviewLater() { agent_.scheduler_->post(review_); }

      private:
        std::optional<Programme> wanted() const;
        void review();
        void programme();
        void withdraw();

        ForwardingAgent& agent_;
        const Vel::Ptr<Nav::PathStatus> vrf_;
        const Vel::Ptr<Nav::PathStatusEntry> path_;
        std::optional<Programme> next_;  // being programmed; set exactly while timer_ is armed
        std::optional<Programme> done_;  // in hardware, so the entry of its key exists
        Loom::Task review_;
        Loom::Timer timer_;
        Vel::Subscription pathInfo_, encapId_;
    };

    // The ARP index of a next hop, the same for all paths that use it. Never 0.
    U32 arpIndexOf(const Netz::IntfId& interface, const Netz::IpGenAddr& hop);

    const World& world_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    const Vel::Ptr<Nav::HwPathStatus> hardware_;
    std::map<std::pair<Netz::IntfId, Netz::IpGenAddr>, U32> arpIndices_;  // 1, 2, ... by first use
    U32 lastPathIndex_ = 0;  // the last hardware path index allocated
    U32 version_ = 0;        // of the last hardware update
    PathReactors<VelPathStatusEntry, ForwardingAgent> paths_;
    const DeadPaths dead_;  // reviews them, so it goes first
};

}  // namespace Agent::Sim
