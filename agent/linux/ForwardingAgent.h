// The forwarding agent of a host whose kernel forwards: reports for each path whether packets can
// be sent over it now. Owned by the platform; used on the event thread.
//
// Invariant once its tasks have run: a path has a hardware entry exactly while it is resolved and
// its via is one of the route to its destination; a path whose route has moved to another interface
// keeps its via, but not its entry. The entry has the path's index; its ARP index is the index of
// the next hop's link while the kernel can send to the next hop at once, else 0: neighbours have no
// numbers in the kernel. Where the kernel forwards by path selection's decisions, the entry's path
// index is that of the path's next hop in the kernel instead, and 0 until the kernel has it, and
// while the path is dead by its probes.
//
// The kernel resolves a neighbour when it has a packet for it, and gives up after some seconds. So
// the agent requests the resolution of each next hop in use that is unresolved, and repeats that
// for all next hops in use every `confirmInterval`: the kernel then retries a failed neighbour, and
// detects one that has stopped answering.
#pragma once

#include <chrono>
#include <optional>
#include <set>

#include "agent/linux/forwarding/Forwarding.h"
#include "agent/linux/kernel/KernelMonitor.h"
#include "agent/linux/quality/PathProbing.h"
#include "agent/router/DeadPaths.h"
#include "agent/router/NexthopResolver.h"
#include "agent/router/PathReactors.h"

namespace Agent::Linux {

class ForwardingAgent {
  public:
    static constexpr Loom::Duration confirmInterval = std::chrono::seconds(1);

    // The other objects must outlive this. `forwarding` and `probing` are null if the platform
    // observes only.
    ForwardingAgent(const Nav::NavInputs& inputs, KernelMonitor& monitor, Forwarding* forwarding,
                    PathProbing* probing, QualityStatus& quality);

    // Must be called when routes, neighbours or interfaces may have changed. Paths are reviewed in
    // tasks, after those that are queued now.
    void review();

  private:
    class VelPathStatusEntry final : public Vel::Object {
      public:
        VelPathStatusEntry(PathVrf<ForwardingAgent>& vrf, Nav::PathStatusEntry& path);
        void handleInitialized() {
            traceFamilies(path_->key());
            reviewLater();
        }
        void doCleanup() { pin({}), withdraw(); }
        void reviewLater() { agent_.in_.scheduler->post(review_); }
        const std::optional<Neighbour>& nexthop() const { return nexthop_; }

      private:
        std::optional<Neighbour> findNexthop();
        bool secured() const { return path_->pathInfo().pathType == Nav::PathType::securedPath; }
        PathHop hopBy(const Neighbour& nexthop) const;
        void pin(const std::optional<Neighbour>& nexthop);
        void review();
        Vel::U32 program(const Nav::HwPathInfo& info);
        void probe(const Nav::HwPathInfo& info);
        Nav::HwPathKey hwKey(Vel::U32 pathIndex) const;
        void write(const Nav::HwPathKey& key, Vel::U32 pathIndex, Vel::U32 arpIndex);
        void withdraw();

        ForwardingAgent& agent_;
        const Vel::Ptr<Nav::PathStatus> vrf_;
        const Vel::Ptr<Nav::PathStatusEntry> path_;
        FecFinder fec_;
        std::optional<Neighbour> nexthop_;          // set exactly while written_ is
        std::optional<Vel::U32> written_;           // path index in the entry's key
        Vel::Found<Nav::HwPathStatusEntry> entry_;  // under this key
        std::optional<Vel::U32> pinned_;            // path index with which its IKE is pinned
        Loom::Task review_;
        Vel::Subscription pathInfo_, encapId_;
    };

    bool followNexthop(const Neighbour& nexthop);
    void solicit();
    void confirm();

    const Nav::NavInputs in_;
    KernelMonitor& monitor_;
    Forwarding* const forwarding_;
    PathProbing* const probing_;
    Vel::U32 version_ = 0;           // of the last entry written
    std::set<Neighbour> toSolicit_;  // by the next run of solicitation_ or confirmation_
    Loom::Task solicitation_;
    Loom::Timer confirmation_;
    PathReactors<VelPathStatusEntry, ForwardingAgent> paths_;
    const DeadPaths dead_;  // reviews them, so it goes first
};

}  // namespace Agent::Linux
