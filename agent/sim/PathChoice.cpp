#include "agent/sim/PathChoice.h"

#include "agent/sim/SimTrace.h"
#include "nav/types/PathName.h"

namespace Agent::Sim {

namespace {

std::string textOf(const std::vector<Nav::PathWithPriority>& paths) {
    std::string text;
    for (const Nav::PathWithPriority& path : paths) {
        text += (text.empty() ? "over " : ", ") + Nav::pathName(path.pathIndex) + " (" +
                path.groupName + ", priority " + std::to_string(path.priority) + ")";
    }
    return text.empty() ? "over no path" : text;
}

}  // namespace

PathChoice::PathChoice(const Nav::NavInputs& inputs, QualityStatus& quality, const World& world)
    : in_(inputs),
      choice_(Loom::call<&PathChoice::choose>(*this)),
      members_(inputs, quality,
               {[&world](const Vel::String&) -> MemberChoice::Delays {
                    return {world.probe.upDelay, world.probe.downDelay};
                },
                [](Vel::U32) { return true; },
                [this](const Nav::LbProfileKey& key) { chooseLater(key); }}) {
    members_.start();
}

void PathChoice::chooseLater(const Nav::LbProfileKey& key) {
    changed_.insert(key);
    in_.scheduler->post(choice_);
}

void PathChoice::choose() {
    const Nav::LbProfileStatus* status = in_.navStatusDir->navLbProfileStatus();
    for (const Nav::LbProfileKey& key : std::exchange(changed_, {})) {
        const auto* entry = status ? status->lbProfileStatusEntry(key) : nullptr;
        if (!entry) {
            if (chosen_.erase(key))
                DUOLOG(simTrace, 5, members_.trafficOf(key), " is no longer steered");
            continue;
        }
        std::vector<Nav::PathWithPriority>& chosen = chosen_[key];
        auto now = members_.choose(*entry).members;
        if (now == chosen) continue;
        chosen = std::move(now);
        DUOLOG(simTrace, 5, members_.trafficOf(key), " now ", textOf(chosen));
    }
}

}  // namespace Agent::Sim
