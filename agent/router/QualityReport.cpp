#include "agent/router/QualityReport.h"

#include <cmath>

#include "nav/types/PathName.h"

namespace Agent {

namespace {

// Three decimals: microseconds of a time, and more than a window can tell of a loss.
Json figure(double value) {
    return std::isnan(value) ? Json() : Json(std::round(value * 1000) / 1000);
}

Json rowOf(const L3::VrfName& vrf, const Nav::PathStatusEntry& path, const PathQuality& quality) {
    const bool checked = quality.state != PathLiveness::notChecked;
    return {{"path", Nav::pathName(path.pathInfo().pathIndex)},
            {"source", path.key().srcAddr.stringValue()},
            {"destination", path.key().dstAddr.stringValue()},
            {"vrf", vrf.str()},
            {"programmed", path.programmed()},
            {"alive", checked ? Json(quality.state == PathLiveness::alive) : Json()},
            {"rttMs", figure(quality.rttMean)},
            {"rttMinMs", figure(quality.rttMin)},
            {"rttP95Ms", figure(quality.rttP95)},
            {"jitterMs", figure(quality.jitter)},
            {"lossForward", figure(quality.lossForward)},
            {"lossBackward", figure(quality.lossBackward)},
            {"samples", quality.samples}};
}

}  // namespace

QualityReport::QualityReport(const Nav::NavInputs& inputs, QualityStatus& quality)
    : in_(inputs),
      quality_(quality),
      timer_(*in_.scheduler, Loom::call<&QualityReport::sample>(*this)),
      measured_(Vel::Subscription::to<&QualityReport::handleQuality>(
          quality, QualityStatus::pathQualityAttr, this)) {}

void QualityReport::handleQuality(const Vel::U32& pathIndex) {
    if (!quality_->pathQuality(pathIndex))
        history_.erase(pathIndex);
    else if (!timer_.armed())
        timer_.armIn(step);
}

void QualityReport::sample() {
    for (const auto& [pathIndex, quality] : quality_->pathQuality()) {
        std::deque<Sample>& samples = history_[pathIndex];
        if (samples.size() == maxSamples) samples.pop_front();
        samples.push_back({float(quality.rttMean), float(quality.jitter),
                           float(quality.lossForward), float(quality.lossBackward)});
    }
    if (!history_.empty()) timer_.armIn(step);
}

Json QualityReport::paths() const {
    Json rows = Json::array();
    const Nav::PathStatusDir* status = in_.navStatusDir->navPathStatusDir();
    if (!status) return rows;
    std::map<Vel::U32, Json> byIndex;
    for (const Nav::PathStatus& vrf : status->pathStatus())
        for (const Nav::PathStatusEntry& path : vrf.pathStatusEntry()) {
            const Vel::U32 pathIndex = path.pathInfo().pathIndex;
            if (pathIndex == 0) continue;  // path resolution has not seen it yet
            const PathQuality* quality = quality_->pathQuality(pathIndex);
            byIndex[pathIndex] = rowOf(vrf.vrfName(), path, quality ? *quality : PathQuality{});
        }
    for (auto& [pathIndex, row] : byIndex) rows.push_back(std::move(row));
    return rows;
}

Json QualityReport::history(const std::string& path) const {
    for (const auto& [pathIndex, quality] : quality_->pathQuality()) {
        if (Nav::pathName(pathIndex) != path) continue;
        const auto kept = history_.find(pathIndex);
        const auto series = [&](float Sample::*figureOf) {
            Json values = Json::array();
            if (kept != history_.end())
                for (const Sample& sample : kept->second)
                    values.push_back(figure(sample.*figureOf));
            return values;
        };
        return {{"path", path},
                {"stepMs", std::chrono::duration_cast<std::chrono::milliseconds>(step).count()},
                {"rttMs", series(&Sample::rtt)},
                {"jitterMs", series(&Sample::jitter)},
                {"lossForward", series(&Sample::lossForward)},
                {"lossBackward", series(&Sample::lossBackward)}};
    }
    throw Vel::Error(path + ": no such path is measured");
}

}  // namespace Agent
