#include "agent/sim/PathChoice.h"

#include <algorithm>

#include "agent/sim/SimTrace.h"

namespace Agent::Sim {

std::vector<Nav::PathWithPriority> chosenPaths(const Nav::LbProfileStatusEntry& entry) {
    std::vector<Nav::PathWithPriority> best;
    for (const Nav::PathWithPriority& path : entry.pathEntry()) {
        if (!best.empty() && path.priority > best.front().priority) continue;
        if (!best.empty() && path.priority < best.front().priority) best.clear();
        best.push_back(path);
    }
    std::ranges::sort(best);
    return best;
}

namespace {

std::string textOf(const std::vector<Nav::PathWithPriority>& paths) {
    std::string text;
    for (const Nav::PathWithPriority& path : paths) {
        text += (text.empty() ? "over Path" : ", Path") + std::to_string(path.pathIndex) + " (" +
                path.groupName + ", priority " + std::to_string(path.priority) + ")";
    }
    return text.empty() ? "over no path" : text;
}

}  // namespace

PathChoice::PathChoice(const Nav::NavInputs& inputs)
    : config_(inputs.cliConfig.ptr()),
      vrfs_(inputs.routingHwRouteStatus.ptr()),
      statusDir_(inputs.navStatusDir.ptr()),
      scheduler_(inputs.scheduler.ptr()),
      choice_(Loom::call<&PathChoice::choose>(*this)),
      lbProfileStatus_(Vel::Subscription::to<&PathChoice::handleLbProfileStatus>(
          *statusDir_, Nav::NavStatusDir::navLbProfileStatusAttr, this)) {
    handleLbProfileStatus();
}

void PathChoice::handleLbProfileStatus() {
    entries_.reset();
    if (Nav::LbProfileStatus* status = statusDir_->navLbProfileStatus()) {
        entries_.emplace(*this, *status, Nav::LbProfileStatus::lbProfileStatusEntryAttr);
        entries_->initialize();
    }
}

PathChoice::VelLbProfileStatusEntry::VelLbProfileStatusEntry(PathChoice& owner,
                                                             Nav::LbProfileStatusEntry& entry)
    : reader(owner),
      key(entry.key()),
      paths(Vel::Subscription::to<&VelLbProfileStatusEntry::handlePaths>(
          entry, Nav::LbProfileStatusEntry::pathEntryAttr, this)) {}

void PathChoice::VelLbProfileStatusEntry::handlePaths() {
    reader.changed_.insert(key);
    reader.scheduler_->post(reader.choice_);
}

void PathChoice::choose() {
    const Nav::LbProfileStatus* status = statusDir_->navLbProfileStatus();
    for (const Nav::LbProfileKey& key : std::exchange(changed_, {})) {
        const auto* entry = status ? status->lbProfileStatusEntry(key) : nullptr;
        if (!entry) {
            if (chosen_.erase(key)) DUOLOG(simTrace, 5, trafficOf(key), " is no longer steered");
            continue;
        }
        std::vector<Nav::PathWithPriority>& chosen = chosen_[key];
        auto now = chosenPaths(*entry);
        if (now == chosen) continue;
        chosen = std::move(now);
        DUOLOG(simTrace, 5, trafficOf(key), " now ", textOf(chosen));
    }
}

std::string PathChoice::trafficOf(const Nav::LbProfileKey& key) const {
    std::string application = key.appId == 0 ? "default_app" : std::to_string(key.appId);
    for (const auto& policy : config_->policyConfig())
        for (const auto& rule : policy.appProfilePolicyRuleList())
            if (rule.appProfileId() == key.appId && !rule.appProfileName().empty())
                application = rule.appProfileName();
    std::string vrfName = std::to_string(key.vrfId);
    for (const auto& vrf : vrfs_->vrfStatus())
        if (vrf.vrfId() == key.vrfId) vrfName = vrf.vrfName().str();
    return "site " + key.vtepIp.stringValue() + " app " + application + " vrf " + vrfName;
}

}  // namespace Agent::Sim
