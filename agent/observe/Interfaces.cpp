#include "agent/observe/Interfaces.h"

#include <set>

namespace Agent {

namespace {

Json addressOf(const Ip::IpIntfStatus* status) {
    if (!status || status->activeAddrWithMask() == Netz::IpAddrWithMask{}) return {};
    return status->activeAddrWithMask().stringValue();
}

Json stateOf(const Platform& platform, const Netz::IntfId& name, bool exists) {
    if (!exists) return "absent";
    const std::optional<bool> up = platform.linkUp(name);
    return up ? Json(*up ? "up" : "down") : Json();
}

}  // namespace

Json interfaces(const Nav::NavInputs& in, const Platform& platform, const Observer& observer) {
    std::set<Netz::IntfId> names;
    std::map<Netz::IntfId, std::string> groups;
    std::map<Netz::IntfId, std::pair<int, int>> paths;  // all, and those that are up
    for (const auto* dir : {&in.ipStatusDir->ipIntfStatus(), &in.ip6StatusDir->ipIntfStatus()})
        for (const Ip::IpIntfStatus& status : *dir) names.insert(status.intfId());
    for (const Nav::PathGroupConfig& group : in.cliConfig->pathGroupConfig())
        for (const Netz::IntfId& name : group.localIntf()) {
            names.insert(name);
            groups[name] = group.name();
        }
    for (const auto& [path, record] : observer.paths()) {
        ++paths[path.interface].first;
        paths[path.interface].second += record.state.up;
    }
    Json rows = Json::array();
    for (const Netz::IntfId& name : names) {
        const Ip::IpIntfStatus* v4 = in.ipStatusDir->ipIntfStatus(name);
        const Ip::IpIntfStatus* v6 = in.ip6StatusDir->ipIntfStatus(name);
        // A link with an IPv6 address alone has it in both directories.
        const Json address = addressOf(v4), address6 = addressOf(v6);
        const auto group = groups.find(name);
        rows.push_back({{"interface", name.stringValue()},
                        {"state", stateOf(platform, name, v4 || v6)},
                        {"vrf", v4 || v6 ? Json((v4 ? v4 : v6)->vrfName().str()) : Json()},
                        {"address", address == address6 ? Json() : address},
                        {"address6", address6},
                        {"pathGroup", group == groups.end() ? Json() : Json(group->second)},
                        {"paths", paths[name].first},
                        {"pathsUp", paths[name].second}});
    }
    return rows;
}

}  // namespace Agent
