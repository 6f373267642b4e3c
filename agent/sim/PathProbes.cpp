#include "agent/sim/PathProbes.h"

#include <algorithm>
#include <cmath>

#include "agent/sim/SimTrace.h"

namespace Agent::Sim {

PathProbes::PathProbes(const Nav::NavInputs& inputs, QualityStatus& quality, const World& world)
    : scheduler_(inputs.scheduler.ptr()),
      quality_(quality),
      world_(world),
      timer_(*scheduler_, Loom::call<&PathProbes::probe>(*this)),
      paths_(*this, *inputs.navStatusDir) {
    review();
}

void PathProbes::review() {
    const auto described = [](const auto& each) { return !each.second.quality.empty(); };
    if (!timer_.armed() && std::ranges::any_of(world_.interfaces, described))
        timer_.armIn(world_.probe.interval);
}

void PathProbes::probe() {
    paths_.forEach([](VelPathStatusEntry& path) { path.probe(); });
    review();
}

namespace {

// Whether the next of many packets is lost, of which `percent` are, evenly spread.
bool isLost(double& owed, double percent) {
    constexpr double rounding = 1e-9;
    owed += percent / 100;
    if (owed < 1 - rounding) return false;
    owed -= 1;
    return true;
}

}  // namespace

void PathProbes::send(Record& record, const World::Quality& quality) const {
    const bool reaches = !isLost(record.owedForward, quality.lossForward);
    if (reaches) ++record.reached;
    PathLiveness& state = record.quality.state;
    if (!reaches || isLost(record.owedBackward, quality.lossBackward)) {
        record.window.lost();
        record.answeredSince.reset();
        if (++record.lost >= world_.probe.multiplier && state == PathLiveness::alive)
            state = PathLiveness::dead;
        return;
    }
    record.late = !record.late;
    const double trip = quality.delay + (record.late ? quality.jitter : -quality.jitter) / 2;
    record.window.answered(std::chrono::nanoseconds(std::llround(trip * 1e6)), record.reached);
    record.lost = 0;
    if (!record.answeredSince) record.answeredSince = scheduler_->now();
    if (state != PathLiveness::dead ||
        scheduler_->now() - *record.answeredSince >= world_.probe.upDelay)
        state = PathLiveness::alive;
}

void PathProbes::VelPathStatusEntry::probe() {
    const Nav::HwPathInfo& info = path_->pathInfo();
    const World& world = probes_.world_;
    const World::Quality* quality = info.pathState == Nav::PathState::resolved
                                        ? world.quality(info.via.intfId, path_->key().dstAddr)
                                        : nullptr;
    if (!quality || (record_ && record_->pathIndex != info.pathIndex)) withdraw();
    if (!quality) return;
    if (!record_)
        record_.emplace(info.pathIndex,
                        Linux::Window(size_t(world.probe.window / world.probe.interval)));
    const PathLiveness before = record_->quality.state;
    probes_.send(*record_, *quality);
    record_->window.figures(record_->quality);
    if (record_->quality.state != before)
        DUOLOG(simTrace, 6, "Path", info.pathIndex, " is ", stringValue(record_->quality.state));
    probes_.quality_->pathQualityIs(info.pathIndex, record_->quality);
}

void PathProbes::VelPathStatusEntry::withdraw() {
    const auto gone = std::exchange(record_, std::nullopt);
    if (gone) probes_.quality_->pathQualityDel(gone->pathIndex);
}

}  // namespace Agent::Sim
