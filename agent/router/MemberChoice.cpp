#include "agent/router/MemberChoice.h"

#include "agent/router/RouterTrace.h"
#include "nav/types/PathName.h"

namespace Agent {

using Vel::U32;

MemberChoice::MemberChoice(const Nav::NavInputs& inputs, QualityStatus& quality, User user)
    : in_(inputs),
      quality_(quality),
      user_(std::move(user)),
      timer_(*in_.scheduler, Loom::call<&MemberChoice::handleTimer>(*this)),
      lbProfileStatus_(Vel::Subscription::to<&MemberChoice::handleLbProfileStatus>(
          *in_.navStatusDir, Nav::NavStatusDir::navLbProfileStatusAttr, this)),
      measured_(Vel::Subscription::to<&MemberChoice::handleQuality>(
          quality, QualityStatus::pathQualityAttr, this)) {}

void MemberChoice::start() {
    handleLbProfileStatus();
}

void MemberChoice::handleLbProfileStatus() {
    entries_.reset();
    if (Nav::LbProfileStatus* status = in_.navStatusDir->navLbProfileStatus()) {
        entries_.emplace(*this, *status, Nav::LbProfileStatus::lbProfileStatusEntryAttr);
        entries_->initialize();
    }
}

MemberChoice::VelLbProfileStatusEntry::VelLbProfileStatusEntry(MemberChoice& owner,
                                                               Nav::LbProfileStatusEntry& status)
    : choice(owner),
      entry(status),
      generation(Vel::Subscription::to<&VelLbProfileStatusEntry::handleGeneration>(
          status, Nav::LbProfileStatusEntry::genIdAttr, this)) {}

// A new entry has neither constraints nor members before its first generation.
void MemberChoice::VelLbProfileStatusEntry::handleGeneration() {
    const Constraints now = entry->genId() == 0 ? Constraints{} : Constraints::of(*entry);
    if (now != constraints) {
        choice.unlist(entry->key(), constraints);
        constraints = now;
        choice.list(entry->key(), constraints);
    }
    choice.user_.choiceChanged(entry->key());
}

void MemberChoice::VelLbProfileStatusEntry::doCleanup() {
    choice.unlist(entry->key(), constraints);
    choice.user_.choiceChanged(entry->key());
}

void MemberChoice::list(const Nav::LbProfileKey& key, const Constraints& constraints) {
    if (constraints.none()) return;
    const auto [group, isNew] = groups_.try_emplace(constraints);
    group->second.keys.insert(key);
    if (!isNew) return;
    for (const auto& [pathIndex, quality] : quality_->pathQuality()) judge(*group, pathIndex);
}

void MemberChoice::unlist(const Nav::LbProfileKey& key, const Constraints& constraints) {
    const auto group = groups_.find(constraints);
    if (group == groups_.end()) return;
    group->second.keys.erase(key);
    if (group->second.keys.empty()) groups_.erase(group);
}

Chosen MemberChoice::choose(const Nav::LbProfileStatusEntry& entry) const {
    const auto group = groups_.find(Constraints::of(entry));
    return chooseMembers(entry, user_.usable, [&](U32 pathIndex) {
        return group == groups_.end() || !group->second.unsuitable.contains(pathIndex);
    });
}

void MemberChoice::handleQuality(const U32& pathIndex) {
    for (auto& group : groups_) judge(group, pathIndex);
}

void MemberChoice::handleTimer() {
    wake_.reset();
    for (auto& group : groups_)
        for (const auto& [pathIndex, quality] : quality_->pathQuality())
            if (group.second.paths[pathIndex].contrary) judge(group, pathIndex);
}

void MemberChoice::judge(Groups::value_type& group, U32 pathIndex) {
    auto& [constraints, keys] = group;
    const PathQuality* quality = quality_->pathQuality(pathIndex);
    const bool suitable = !keys.unsuitable.contains(pathIndex);
    if (!quality) {
        keys.paths.erase(pathIndex);
        return suitableIs(group, pathIndex, true);
    }
    Standing& standing = keys.paths[pathIndex];
    const bool first = !std::exchange(standing.judged, true);
    const bool meets = constraints.metBy(*quality);
    if (meets == suitable) return standing.contrary.reset();

    const Loom::Instant now = in_.scheduler->now();
    if (!standing.contrary) standing.contrary = now;
    const Delays delays = first ? Delays{} : delaysOf(keys, pathIndex);
    const auto due =
        *standing.contrary + (meets ? std::max(standing.wait, delays.up) : delays.down);
    if (now < due) {
        if (!wake_ || due < *wake_) timer_.armAt(*(wake_ = due));
        return;
    }
    standing.contrary.reset();
    if (meets) {
        standing.returned = now;
        standing.wait = std::max(standing.wait, delays.up);
    } else {
        const bool calm = !standing.returned || now - *standing.returned >= calmTime * delays.up;
        standing.wait = calm ? delays.up : std::min(2 * standing.wait, longestReturn * delays.up);
    }
    suitableIs(group, pathIndex, meets);
}

void MemberChoice::suitableIs(Groups::value_type& group, U32 pathIndex, bool suitable) {
    auto& [constraints, keys] = group;
    const auto write = [&, &unsuitable = keys.unsuitable](bool value) {
        value ? void(unsuitable.erase(pathIndex)) : void(unsuitable.insert(pathIndex));
    };
    if (suitable == !keys.unsuitable.contains(pathIndex)) return;
    std::string reason;
    for (const Nav::LbProfileKey& key : keys.keys) {
        const Nav::LbProfileStatusEntry* entry = entryOf(key);
        if (!entry || !entry->pathEntry(pathIndex)) continue;
        write(!suitable);
        const Chosen before = choose(*entry);
        write(suitable);
        const Chosen after = choose(*entry);
        if (before == after) continue;
        if (reason.empty()) reason = reasonOf(constraints, pathIndex);
        report(key, pathIndex, reason, before, after);
        user_.choiceChanged(key);
    }
    write(suitable);
}

const Nav::LbProfileStatusEntry* MemberChoice::entryOf(const Nav::LbProfileKey& key) const {
    const Nav::LbProfileStatus* status = in_.navStatusDir->navLbProfileStatus();
    return status ? status->lbProfileStatusEntry(key) : nullptr;
}

// The delays of a path that no key uses do not matter.
MemberChoice::Delays MemberChoice::delaysOf(const Group& group, U32 pathIndex) const {
    for (const Nav::LbProfileKey& key : group.keys)
        if (const Nav::LbProfileStatusEntry* entry = entryOf(key))
            if (const Nav::PathWithPriority* member = entry->pathEntry(pathIndex))
                return user_.delays(member->groupName);
    return {};
}

// "Path1 203.0.113.1 -> 198.51.100.2: loss 4.1 % > 1 %"
std::string MemberChoice::reasonOf(const Constraints& constraints, U32 pathIndex) const {
    std::string text = Nav::pathName(pathIndex);
    for (const Nav::PathConfig& vrf : in_.pathConfigDir->pathConfig())
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry())
            if (path.pathIndex() == pathIndex)
                text += " " + path.key().srcAddr.stringValue() + " -> " +
                        path.key().dstAddr.stringValue();
    const PathQuality* quality = quality_->pathQuality(pathIndex);
    return text + ": " + constraints.compare(quality ? *quality : PathQuality{});
}

void MemberChoice::report(const Nav::LbProfileKey& key, U32 pathIndex, const std::string& reason,
                          const Chosen& before, const Chosen& after) const {
    const std::string traffic = trafficOf(key);
    if (before.suitable && !after.suitable)
        DUOLOG(routerTrace, 4, traffic, " has no path that meets its constraints: ", reason);
    else if (after.suitable && !before.suitable)
        DUOLOG(routerTrace, 5, traffic, " has a path that meets its constraints again: ", reason);
    else
        DUOLOG(routerTrace, 5, traffic, after.has(pathIndex) ? " returns to " : " leaves ", reason);
}

std::string MemberChoice::trafficOf(const Nav::LbProfileKey& key) const {
    std::string application = key.appId == 0 ? "default" : std::to_string(key.appId);
    for (const Nav::PolicyConfig& policy : in_.cliConfig->policyConfig())
        for (const auto& rule : policy.appProfilePolicyRuleList())
            if (rule.appProfileId() == key.appId && !rule.appProfileName().empty())
                application = rule.appProfileName();
    std::string text = application + " to " + key.vtepIp.stringValue();
    for (const auto& vrf : in_.routingHwRouteStatus->vrfStatus())
        if (key.vrfId != 0 && vrf.vrfId() == key.vrfId) text += " in VRF " + vrf.vrfName().str();
    return text;
}

}  // namespace Agent
