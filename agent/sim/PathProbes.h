// Plays the probes of the simulated router: measures each path whose quality the world describes,
// and publishes the figures. Owned by the SimRouter; used on the event thread.
//
// Nothing is random: losses are spread evenly over the probes, and round trips alternate around
// their mean. So the figures of a full window are those of the world, as exactly as the number of
// its probes permits.
#pragma once

#include <optional>

#include "agent/linux/quality/Window.h"
#include "agent/router/PathReactors.h"
#include "agent/sim/World.h"

namespace Agent::Sim {

class PathProbes {
  public:
    // REQUIRES: the world outlives this.
    PathProbes(const Nav::NavInputs& inputs, QualityStatus& quality, const World& world);

    // Called after the world has changed.
    void review();

  private:
    // What has been sent over a path, and how that went.
    struct Record {
        U32 pathIndex;
        Linux::Window window;
        double owedForward = 0, owedBackward = 0;  // losses, the fractions not yet suffered
        bool late = false;                         // whether the last round trip was a longer one
        U32 reached = 0;                           // probes, the other side
        U32 lost = 0;                              // probes in a row, the newest
        std::optional<Loom::Instant> answeredSince{};  // the first answer since the last loss
        PathQuality quality{};
    };

    class VelPathStatusEntry final : public Vel::Object {
      public:
        VelPathStatusEntry(PathVrf<PathProbes>& vrf, Nav::PathStatusEntry& path)
            : probes_(vrf.agent), path_(path) {}
        void handleInitialized() {}
        void doCleanup() { withdraw(); }
        void probe();

      private:
        void withdraw();

        PathProbes& probes_;
        const Vel::Ptr<Nav::PathStatusEntry> path_;
        std::optional<Record> record_;  // exists while the path has a published value
    };

    void send(Record& record, const World::Quality& quality) const;
    void probe();

    const Vel::Ptr<Vel::Scheduler> scheduler_;
    const Vel::Ptr<QualityStatus> quality_;
    const World& world_;
    Loom::Timer timer_;  // armed while the world describes the quality of any path
    PathReactors<VelPathStatusEntry, PathProbes> paths_;
};

}  // namespace Agent::Sim
