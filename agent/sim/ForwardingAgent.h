// The forwarding agent: programs each resolved path into hardware, and reports what is programmed.
//
// A path is programmed once the neighbour of its via has answered and the hardware has taken it.
// What always holds once the tasks have run: a path has no entry unless it is resolved, the route
// to its destination goes by its via, and the via's neighbour answers; an entry has the path's
// current index; both its indices are set.
#pragma once

#include <map>
#include <optional>

#include "agent/router/PathReactors.h"
#include "agent/sim/World.h"

namespace Agent::Sim {

class ForwardingAgent {
  public:
    // The world outlives this.
    ForwardingAgent(const Nav::NavInputs& inputs, const World& world);

    // The world may be another one than before.
    void review();

  private:
    // What hardware needs to know of one path.
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
        std::optional<Programme> next_;  // being programmed
        std::optional<Programme> done_;
        Loom::Task review_;
        Loom::Timer timer_;
        Vel::Subscription pathInfo_, encapId_;
    };

    // Of a next hop, the same for all paths that use it.
    U32 arpIndexOf(const Netz::IntfId& interface, const Netz::IpGenAddr& hop);

    const World& world_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    const Vel::Ptr<Nav::HwPathStatus> hardware_;
    std::map<std::pair<Netz::IntfId, Netz::IpGenAddr>, U32> arpIndices_;
    U32 lastPathIndex_ = 0;
    U32 version_ = 0;
    PathReactors<VelPathStatusEntry, ForwardingAgent> paths_;
};

}  // namespace Agent::Sim
