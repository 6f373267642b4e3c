#include "agent/observe/Foresight.h"

#include <algorithm>

#include "agent/observe/Replica.h"
#include "nav/types/PathName.h"

namespace Agent {

using Vel::U32;

namespace {

std::set<ConfiguredPath> pathsOf(const Nav::NavCliConfig& config) {
    if (!config.navConfigured()) return {};
    const std::vector<ConfiguredPath> paths = configuredPaths(config);
    return {paths.begin(), paths.end()};
}

Json pathRow(const char* change, const ConfiguredPath& path, const PathState* state) {
    const bool named = state && state->index != 0;
    return {{"change", change},
            {"path", named ? Json(state->name()) : Json()},
            {"pathGroup", path.site.name},
            {"interface", path.interface.stringValue()},
            {"site", path.site.routerIp.stringValue()},
            {"destination", path.destination.stringValue()},
            {"state", state ? Json(state->up ? "up" : "down") : Json()}};
}

// Paths that leave the configuration, whose protection changes, and that are new.
Json pathRows(const Nav::NavCliConfig& before, const Nav::NavCliConfig& after,
              const Observer& observer) {
    Json rows = Json::array();
    const auto now = pathsOf(before), then = pathsOf(after);
    for (const ConfiguredPath& path : now) {
        const auto record = observer.paths().find(path);
        const PathState* state = record == observer.paths().end() ? nullptr : &record->second.state;
        if (!then.contains(path))
            rows.push_back(pathRow("removed", path, state));
        else if (before.pathGroupConfig(path.site.name)->ipsecProfile() !=
                 after.pathGroupConfig(path.site.name)->ipsecProfile())
            rows.push_back(pathRow("secured anew", path, state));
    }
    for (const ConfiguredPath& path : then)
        if (!now.contains(path)) rows.push_back(pathRow("added", path, nullptr));
    return rows;
}

// What the platform would choose for a key of the replica, among the paths that exist now.
std::vector<U32> carriersThen(const Platform& platform, const Nav::NavDb* now,
                              const Nav::NavDb* then, const Nav::LbProfileStatusEntry& entry) {
    const auto translated = Vel::make<Nav::LbProfileStatusEntry>(entry.key());
    translated->latencyIs(entry.latency());
    translated->jitterIs(entry.jitter());
    translated->lossRateIs(entry.lossRate());
    translated->genIdIs(entry.genId());
    for (const Nav::PathKeyInfo& info : then->pathKeyInfo()) {
        const Nav::PathWithPriority* member = entry.pathEntry(info.pathIndex());
        const Nav::PathKeyInfo* known = now->pathKeyInfo(info.pathKey());
        if (!member || !known) continue;
        Nav::PathWithPriority copy = *member;
        copy.pathIndex = known->pathIndex();
        translated->pathEntryIs(copy);
    }
    return carriersOf(platform, *translated);
}

class Traffic {
  public:
    Traffic(const Nav::NavDb* now, const Nav::NavDb* then) : now_(now), then_(then) {}

    Json rows(const Nav::NavInputs& inputs, const Replica& replica, const Platform& platform) {
        std::map<Nav::LbProfileKey, std::pair<std::vector<U32>, std::vector<U32>>> carriers;
        if (const auto* ids = inputs.navStatusDir->navLbProfileStatus())
            for (const Nav::LbProfileStatusEntry& entry : ids->lbProfileStatusEntry())
                carriers[entry.key()].first = carriersOf(platform, entry);
        if (const auto* ids = replica.inputs().navStatusDir->navLbProfileStatus(); ids && now_)
            for (const Nav::LbProfileStatusEntry& entry : ids->lbProfileStatusEntry())
                carriers[entry.key()].second = carriersThen(platform, now_, then_, entry);
        Json rows = Json::array();
        for (const auto& [key, moved] : carriers)
            if (moved.first != moved.second) rows.push_back(row(key, moved.first, moved.second));
        return rows;
    }

  private:
    Json row(const Nav::LbProfileKey& key, const std::vector<U32>& from,
             const std::vector<U32>& to) const {
        const bool known = now_ && now_->vrfApp({key.vrfId, key.appId});
        return {{"vrf", vrfName(now_, key.vrfId)},
                {"application", applicationName(known ? now_ : then_, key.vrfId, key.appId)},
                {"site", key.vtepIp.stringValue()},
                {"from", names(from)},
                {"to", names(to)}};
    }
    static Json names(const std::vector<U32>& indices) {
        Json names = Json::array();
        for (const U32 index : indices) names.push_back(Nav::pathName(index));
        return names;
    }

    const Nav::NavDb *const now_, *const then_;
};

}  // namespace

Json foresee(const Nav::NavInputs& inputs, const Nav::NavDb* database, const Platform& platform,
             const Observer& observer, const Transaction& transaction) {
    const Nav::NavCliConfig& wanted = *transaction.wanted().paths;
    const Replica replica(inputs, database, wanted);
    return {{"configuration", toJson(transaction.differences())},
            {"paths", pathRows(*inputs.cliConfig, wanted, observer)},
            {"traffic", Traffic(database, replica.database()).rows(inputs, replica, platform)}};
}

}  // namespace Agent
