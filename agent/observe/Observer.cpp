#include "agent/observe/Observer.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "agent/shell/AgentTrace.h"

namespace Agent {

using Vel::U32;

Observer::Observer(const Nav::NavInputs& inputs, const Platform& platform,
                   std::function<const Nav::NavDb*()> database, Events& events)
    : in_(inputs),
      platform_(platform),
      database_(std::move(database)),
      events_(events),
      settled_(*in_.scheduler, Loom::call<&Observer::observe>(*this)) {
    const auto follow = [this](Vel::Entity& entity) {
        followers_.push_back(
            std::make_unique<Follower>(entity, [this](const Follower::Change&) { later(); }));
    };
    follow(*in_.cliConfig);
    follow(*in_.navStatusDir);
    follow(*in_.hwPathStatus);
    follow(*in_.ipsecPathConfigDir);
    follow(*in_.ipsecPathStatusDir);
    follow(*in_.ipStatusDir);
    follow(*in_.ip6StatusDir);
    follow(*in_.nexthopStatus);
    follow(*in_.forwardingStatus);
    follow(*in_.forwarding6Status);
    follow(*in_.routingHwRouteStatus);
    if (QualityStatus* quality = platform_.quality())
        followers_.push_back(
            std::make_unique<Follower>(*quality, [this](const Follower::Change&) { muchLater(); }));
    later();
}

void Observer::later() {
    if (!std::exchange(soon_, true)) settled_.armIn(settleTime);
}

void Observer::muchLater() {
    if (!settled_.armed()) settled_.armIn(measuringTime);
}

void Observer::observe() {
    settled_.disarm();
    soon_ = false;
    Causes causes;
    observeInterfaces();
    observePaths(causes);
    observeSites();
    observeChoices(causes);
}

void Observer::observeInterfaces() {
    std::set<Netz::IntfId> names;
    for (const auto& [name, addresses] : interfaces_) names.insert(name);
    for (const auto& status : in_.ipStatusDir->ipIntfStatus()) names.insert(status.intfId());
    for (const auto& status : in_.ip6StatusDir->ipIntfStatus()) names.insert(status.intfId());
    for (const Netz::IntfId& name : names) observeInterface(name);
}

void Observer::observeInterface(const Netz::IntfId& name) {
    const std::string addresses = addressesOf(name);
    const std::string now = platform_.linkUp(name) == false ? "is down"
                            : addresses.empty()             ? ""
                                                            : "has address " + addresses;
    const std::string before = std::exchange(interfaces_[name], now);
    if (now.empty()) interfaces_.erase(name);
    if (now == before) return;
    const std::string text = now.empty() ? "has no address any more" : now;
    DUOLOG(agentTrace, 5, "interface ", name, " ", LongText{text});
    events_.add({Event::Kind::interface, name.stringValue(), text, {}, {}});
}

// Empty for an interface without an address.
std::string Observer::addressesOf(const Netz::IntfId& name) const {
    std::string text;
    for (const Ip::IpIntfStatus* status :
         {in_.ipStatusDir->ipIntfStatus(name), in_.ip6StatusDir->ipIntfStatus(name)}) {
        if (!status || status->activeAddrWithMask() == Netz::IpAddrWithMask{}) continue;
        const std::string each =
            status->activeAddrWithMask().stringValue() + " in VRF " + status->vrfName().str();
        // A link with an IPv6 address alone has it in both directories.
        if (each != text) text += (text.empty() ? "" : ", ") + each;
    }
    return text;
}

// Paths that have left the configuration are looked at once more, for their reason.
void Observer::observePaths(Causes& causes) {
    std::set<ConfiguredPath> gone;
    for (const auto& [path, record] : paths_) gone.insert(path);
    for (const ConfiguredPath& path : configuredPaths(*in_.cliConfig)) {
        observePath(path, causes);
        gone.erase(path);
    }
    for (const ConfiguredPath& path : gone) {
        observePath(path, causes);
        paths_.erase(path);
    }
}

void Observer::observePath(const ConfiguredPath& path, Causes& causes) {
    const auto [place, isNew] = paths_.try_emplace(path);
    PathRecord& record = place->second;
    const PathState before =
        std::exchange(record.state, stateOf(in_, database_(), platform_, path));
    const PathState& now = record.state;
    const bool same = before.up == now.up && before.reason == now.reason && before.key == now.key;
    if (isNew || !same) record.since = std::chrono::system_clock::now();
    if (same) return;
    record.transitions += before.up != now.up;
    const bool moved = before.up && now.up;
    if (moved)
        pathDown(path, before, "interface " + path.interface.stringValue() + " has another address",
                 causes);
    else if (before.up)
        pathDown(path, before, now.reason.text, causes);
    else if (!isNew && !now.up)
        events_.add({Event::Kind::path, describe(path, now), "is still down", now.reason.text, {}});
    if (now.up) pathUp(path, now, causes);
}

void Observer::pathUp(const ConfiguredPath& path, const PathState& state, Causes& causes) {
    const std::string by =
        "is up by " + state.via.hop.stringValue() + " on " + path.interface.stringValue();
    DUOLOG(agentTrace, 5, "path ", LongText{describe(path, state)}, " ", LongText{by});
    events_.add({Event::Kind::path, describe(path, state), by, {}, {}});
    causes[state.index] = state.name() + " is up";
    pathTransition(path, state, "up", {});
}

void Observer::pathDown(const ConfiguredPath& path, const PathState& before,
                        const std::string& reason, Causes& causes) {
    DUOLOG(agentTrace, 5, "path ", LongText{describe(path, before)},
           " is down: ", LongText{reason});
    events_.add({Event::Kind::path, describe(path, before), "is down", reason, {}});
    causes[before.index] = before.name() + ": " + reason;
    pathTransition(path, before, "down", reason);
}

void Observer::pathTransition(const ConfiguredPath& path, const PathState& state, const char* now,
                              const std::string& cause) const {
    if (!hook_) return;
    hook_({"path",
           state.name(),
           now,
           {{"NAV_CAUSE", cause},
            {"NAV_PATH_GROUP", path.site.name},
            {"NAV_INTERFACE", path.interface.stringValue()},
            {"NAV_SITE", path.site.routerIp.stringValue()},
            {"NAV_SOURCE", state.key.srcAddr.stringValue()},
            {"NAV_DESTINATION", path.destination.stringValue()},
            {"NAV_VRF", state.vrf.str()}}});
}

// A site is up while one of its paths is.
void Observer::observeSites() {
    std::map<Netz::IpGenAddr, std::vector<U32>> now;
    for (const auto& [path, record] : paths_)
        if (record.state.up) now[path.site.routerIp].push_back(record.state.index);
    for (const auto& [site, paths] : sites_)
        if (hook_ && !now.contains(site)) hook_({"site", site.stringValue(), "down", {}});
    for (const auto& [site, paths] : now)
        if (hook_ && !sites_.contains(site))
            hook_({"site", site.stringValue(), "up", {{"NAV_PATHS", pathNames(paths)}}});
    sites_ = std::move(now);
}

// One event for all applications that move to one site in the same way.
void Observer::observeChoices(const Causes& causes) {
    struct Move {
        Netz::IpGenAddr site;
        U32 vrfId;
        std::vector<U32> from, to;
        auto operator<=>(const Move&) const = default;
    };
    std::map<Move, std::vector<std::string>> moves;
    std::map<Nav::LbProfileKey, ChoiceRecord> seen;
    const Nav::NavDb* database = database_();
    const auto moved = [&](const Nav::LbProfileKey& key, std::vector<U32> from,
                           std::vector<U32> to) {
        moves[{key.vtepIp, key.vrfId, std::move(from), std::move(to)}].push_back(
            applicationName(database, key.vrfId, key.appId));
    };
    if (const Nav::LbProfileStatus* status = in_.navStatusDir->navLbProfileStatus()) {
        for (const Nav::LbProfileStatusEntry& entry : status->lbProfileStatusEntry()) {
            const auto known = choices_.extract(entry.key());
            ChoiceRecord record =
                known.empty() ? ChoiceRecord{{}, std::chrono::system_clock::now()} : known.mapped();
            if (std::vector<U32> now = carriersOf(platform_, entry); now != record.carriers) {
                moved(entry.key(), record.carriers, now);
                record = {std::move(now), std::chrono::system_clock::now()};
            }
            seen.emplace(entry.key(), std::move(record));
        }
    }
    for (auto& [key, record] : std::exchange(choices_, std::move(seen)))
        if (!record.carriers.empty()) moved(key, record.carriers, {});

    for (const auto& [move, applications] : moves) {
        const std::string vrf = vrfName(database, move.vrfId);
        std::string cause, names;
        for (const auto& [index, text] : causes)
            if (std::ranges::count(move.from, index) != std::ranges::count(move.to, index))
                cause += (cause.empty() ? "" : "; ") + text;
        for (const std::string& application : applications) {
            names += (names.empty() ? "" : ", ") + application;
            if (!hook_) continue;
            hook_({"application",
                   application,
                   move.to.empty()     ? "down"
                   : move.from.empty() ? "up"
                                       : "moved",
                   {{"NAV_CAUSE", cause},
                    {"NAV_SITE", move.site.stringValue()},
                    {"NAV_VRF", vrf},
                    {"NAV_PATHS", pathNames(move.to)},
                    {"NAV_PATHS_BEFORE", pathNames(move.from)}}});
        }
        events_.add({Event::Kind::choice,
                     "site " + move.site.stringValue() + " VRF " + vrf + ": " + names,
                     "over " + pathNames(move.to) +
                         (move.from.empty() ? "" : " instead of " + pathNames(move.from)),
                     cause,
                     {}});
    }
}

}  // namespace Agent
