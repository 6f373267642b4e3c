#include "navctl/Show.h"

#include <pwd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>

#include "nav/types/PathName.h"
#include "navctl/Literal.h"

namespace Navctl {

namespace {

// Values that mean "none".
constexpr uint32_t noConstraint = 0xFFFFFFFF;
constexpr uint32_t noLossRate = 0;
constexpr uint32_t noEncapId = 0xFFFFFFFE;
constexpr uint32_t established = 3;

// A member of an object; null if it is not found, or if the value is not an object.
const Json& member(const Json& object, const std::string& name) {
    static const Json none;
    if (!object.is_object()) return none;
    const auto found = object.find(name);
    return found == object.end() ? none : *found;
}

Json unless(const Json& value, uint32_t none) {
    return value == none ? Json() : value;
}

// The key texts of a collection or a set.
Json keysOf(const Json& collection) {
    if (collection.is_array()) return collection;
    Json keys = Json::array();
    for (const auto& [key, value] : collection.items()) keys.push_back(key);
    return keys;
}

// An index as a number or a key text.
uint32_t numberOf(const Json& key) {
    const std::string text = key.is_string() ? key.get<std::string>() : key.dump();
    uint32_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// The paths of a set of indices, which is given as key texts.
Json pathNamesOf(const Json& set) {
    std::set<uint32_t> numbers;
    for (const Json& key : keysOf(set)) numbers.insert(numberOf(key));
    Json names = Json::array();
    for (const uint32_t number : numbers) names.push_back(Nav::pathName(number));
    return names;
}

// "pathGroup" is the member of the column "path group".
std::string columnOf(const std::string& member) {
    std::string column;
    for (const char c : member) {
        const unsigned char letter = static_cast<unsigned char>(c);
        if (std::isupper(letter)) column += ' ';
        column += static_cast<char>(std::tolower(letter));
    }
    return column;
}

// "Path1, priority 1: interface wan1 is down"; a path without a name is "wan1 -> 198.51.100.2".
std::string betterText(const Json& better) {
    const Json& name = member(better, "path");
    return (name.is_string()
                ? name.get<std::string>()
                : better.value("interface", "") + " -> " + better.value("destination", "")) +
           ", priority " + std::to_string(better.value("priority", 0U)) + ": " +
           better.value("reason", "");
}

TextTable pathTable(const Json& answer) {
    TextTable table{{"path group", "source", "destination", "peer", "state", "path"}, {}};
    for (const Json& path : member(answer, "navPathSelPaths")) {
        table.rows.push_back({member(path, "pathGroup"), member(path, "source"),
                              member(path, "destination"), member(path, "peer"),
                              member(path, "state"), member(path, "pathName")});
    }
    return table;
}

TextTable peerTable(const Json& answer) {
    TextTable table{{"path", "peer"}, {}};
    for (const auto& [index, peer] : member(answer, "navPeers").items()) {
        table.rows.push_back({Nav::pathName(numberOf(index)), peer});
    }
    return table;
}

// Two kinds of mapping in one table: path to path group, and VRF and application ids to
// names.
TextTable mappingTable(const Json& answer) {
    TextTable table{{"mapping", "id", "name"}, {}};
    for (const auto& [index, group] : member(answer, "groups").items()) {
        table.rows.push_back({"path group", Nav::pathName(numberOf(index)), group});
    }
    for (const auto& [ids, names] : member(answer, "vrfApps").items()) {
        table.rows.push_back({"vrf, application", ids, names});
    }
    return table;
}

TextTable groupTable(Client::ControlClient& client) {
    TextTable table{{"path group", "interfaces", "ipsec profile", "sites", "paths"}, {}};
    const Json config = client.get("/cliConfig");
    const Json database = client.get("/navDb");
    for (const auto& [name, group] : member(config, "pathGroupConfig").items()) {
        const Json& info = member(member(database, "pathGroupInfo"), name);
        table.rows.push_back(
            {name, keysOf(member(group, "localIntf")), member(group, "ipsecProfile"),
             member(group, "remoteViaConfig").size(), member(info, "pathKeySet").size()});
    }
    return table;
}

// Configured sites, and removed sites that still have usable paths.
TextTable siteTable(Client::ControlClient& client) {
    TextTable table{{"path group", "site", "destinations", "usable paths"}, {}};
    const Json config = client.get("/cliConfig");
    const Json status = client.get("/siteGroupStatus");
    std::map<std::pair<std::string, std::string>, Json> usable;
    for (const auto& [text, entry] : member(status, "siteGroupStatusEntry").items()) {
        const Json& key = member(entry, "key");
        usable[{key.value("name", ""), key.value("routerIp", "")}] =
            pathNamesOf(member(entry, "pathIndexEntry"));
    }
    for (const auto& [group, groupConfig] : member(config, "pathGroupConfig").items()) {
        for (const auto& [site, siteConfig] : member(groupConfig, "remoteViaConfig").items()) {
            const auto paths = usable.extract({group, site});
            table.rows.push_back({group, site, keysOf(member(siteConfig, "remoteVia")),
                                  paths.empty() ? Json::array() : paths.mapped()});
        }
    }
    for (const auto& [key, paths] : usable) {
        table.rows.push_back({key.first, key.second, Json(), paths});
    }
    return table;
}

TextTable policyTable(Client::ControlClient& client) {
    TextTable table{{"policy", "vrfs", "rule", "application", "application id", "load balance"},
                    {}};
    const Json config = client.get("/cliConfig");
    std::map<std::string, Json> vrfsOf;
    for (const auto& [vrf, binding] : member(config, "vrfConfig").items()) {
        vrfsOf[binding.value("policyName", "")].push_back(vrf);
    }
    for (const auto& [name, policy] : member(config, "policyConfig").items()) {
        const Json& vrfs = vrfsOf[name];
        const Json& rules = member(policy, "appProfilePolicyRuleList");
        for (const auto& [key, rule] : rules.items()) {
            table.rows.push_back({name, vrfs, key, member(rule, "appProfileName"),
                                  member(rule, "appProfileId"), member(rule, "lbGrpName")});
        }
        const bool byDefault = member(policy, "defaultRuleCfgd") == true;
        if (byDefault) {
            table.rows.push_back(
                {name, vrfs, "default", Json(), Json(), member(policy, "defaultLbGrpName")});
        } else if (rules.empty()) {
            table.rows.push_back({name, vrfs, Json(), Json(), Json(), Json()});
        }
    }
    return table;
}

// One row for each member of each load-balance id, in order of preference.
TextTable loadBalanceTable(Client::ControlClient& client) {
    TextTable table{{"site", "vrf", "application", "id", "generation", "latency (ms)",
                     "jitter (ms)", "loss rate (%)", "priority", "path", "path group"},
                    {},
                    {"generation", "path group"}};
    const Json database = client.get("/navDb");
    const Json status = client.get("/navStatusDir/navLbProfileStatus");
    for (const auto& [text, entry] : member(status, "lbProfileStatusEntry").items()) {
        const Json& key = member(entry, "key");
        const Json &vrfId = member(key, "vrfId"), &appId = member(key, "appId");
        const Json& vrf = member(member(database, "vrfIdToName"), vrfId.dump());
        const Json& app = member(
            member(member(database, "vrfApp"), vrfId.dump() + "," + appId.dump()), "appName");
        const std::vector<Json> row = {member(key, "vtepIp"),
                                       vrf.is_null() ? vrfId : vrf,
                                       appId == 0      ? "default"
                                       : app.is_null() ? appId
                                                       : app,
                                       member(entry, "lbIndex"),
                                       member(entry, "genId"),
                                       unless(member(entry, "latency"), noConstraint),
                                       unless(member(entry, "jitter"), noConstraint),
                                       unless(member(entry, "lossRate"), noLossRate)};
        std::vector<std::tuple<uint32_t, uint32_t, std::string>> paths;
        for (const Json& path : member(entry, "pathEntry")) {
            paths.emplace_back(path.value("priority", 0U), path.value("pathIndex", 0U),
                               path.value("groupName", ""));
        }
        if (paths.empty()) table.rows.push_back(row), table.rows.back().resize(11);
        std::sort(paths.begin(), paths.end());
        for (const auto& [priority, index, group] : paths) {
            table.rows.push_back(row);
            table.rows.back().insert(table.rows.back().end(),
                                     {priority, Nav::pathName(index), group});
        }
    }
    return table;
}

// Requested connections, and those that the service still reports without a request. What only
// charon knows is empty on platforms without it.
TextTable ipsecTable(Client::ControlClient& client) {
    TextTable table{
        {"vrf", "source", "destination", "profile", "interface", "connection", "state", "encap id",
         "since", "peer", "cipher", "bytes in", "bytes out", "rekey at", "last error"},
        {},
        {"rekey at", "cipher", "bytes in", "bytes out", "peer", "encap id", "profile", "interface",
         "vrf"}};
    const Json requests = client.get("/ipsecPathConfigDir/ipsecPathConfig");
    const Json statuses = client.get("/ipsecPathStatusDir/ipsecPathStatus");
    const Json reports = client.request({{"op", "ipsec"}}).at("value");
    Json connections = requests;
    for (const auto& [key, status] : statuses.items()) {
        if (!connections.contains(key)) connections[key] = status;
    }
    for (const auto& [text, connection] : connections.items()) {
        const Json& key = member(connection, "key");
        const Json& request = member(requests, text);
        const Json& status = member(statuses, text);
        const Json& report = member(reports, text);
        const Json& number = member(status, "connectionState");
        std::vector<Json>& row = table.rows.emplace_back();
        row = {member(key, "vrfName"),
               member(key, "srcAddr"),
               member(key, "dstAddr"),
               member(request, "profile"),
               member(request, "intfId"),
               member(request, "connectionName"),
               report.is_object()      ? member(report, "state")
               : number.is_null()      ? Json("pending")
               : number == established ? Json("established")
                                       : Json("down"),
               unless(member(status, "encapId"), noEncapId)};
        for (const char* name :
             {"since", "peer", "cipher", "bytesIn", "bytesOut", "rekeyAt", "error"})
            row.push_back(member(report, name));
    }
    return table;
}

TextTable nexthopTable(Client::ControlClient& client) {
    TextTable table{{"vrf", "next hop", "state", "fec", "vias"}, {}};
    const Json config = client.get("/nexthopConfig/vrf");
    const Json status = client.get("/nexthopStatus/vrf");
    const Json fec = client.get("/forwardingStatus/fec");
    const Json fec6 = client.get("/forwarding6Status/fec");
    for (const auto& [vrf, vrfConfig] : config.items()) {
        const Json& results = member(member(status, vrf), "nexthop");
        for (const Json& address : keysOf(member(vrfConfig, "nexthop"))) {
            const Json& result = member(results, address.get<std::string>());
            const Json& id = member(result, "fecId");
            const bool isV6 = address.get<std::string>().find(':') != std::string::npos;
            Json vias = Json::array();
            if (!id.is_null()) {
                for (const Json& via : member(isV6 ? fec6 : fec, id.dump())) {
                    vias.push_back(via.value("hop", "") + " " + via.value("intfId", ""));
                }
            }
            table.rows.push_back(
                {vrf, address, result.is_null() ? "unresolved" : "resolved", id, vias});
        }
    }
    return table;
}

// The VRFs of the router and of the configuration.
TextTable vrfTable(Client::ControlClient& client) {
    TextTable table{{"vrf", "id", "interfaces", "policy", "paths"}, {}};
    const Json router = client.get("/routingHwRouteStatus/vrfStatus");
    const Json bound = client.get("/cliConfig/vrfConfig");
    const Json paths = client.get("/pathConfigDir/pathConfig");
    std::map<std::string, std::set<std::string>> interfaces;
    for (const char* family : {"/ip6StatusDir/ipIntfStatus", "/ipStatusDir/ipIntfStatus"}) {
        const Json statuses = client.get(family);
        for (const auto& [name, status] : statuses.items())
            interfaces[status.value("vrfName", "")].insert(name);
    }
    Json names = router;
    for (const auto& [name, binding] : bound.items()) names[name];
    for (const auto& [name, unused] : names.items()) {
        const Json& id = member(member(router, name), "vrfId");
        table.rows.push_back({name, id == 0 && name != "default" ? Json() : id, interfaces[name],
                              member(member(bound, name), "policyName"),
                              member(member(paths, name), "pathConfigEntry").size()});
    }
    return table;
}

}  // namespace

const std::vector<TextView>& textViews() {
    static const std::vector<TextView> views = {
        {"paths", "NAVPATHS", "Paths, their state and the group they belong to", pathTable},
        {"peers", "NAVPEERS", "The peer router of each path", peerTable},
        {"mappings", "NAVMAPPINGS", "Names of path groups, VRFs and applications by their ids",
         mappingTable}};
    return views;
}

const std::vector<TreeView>& treeViews() {
    static const std::vector<TreeView> views = {
        {"groups", "Path groups", groupTable},
        {"sites", "Remote sites and their usable paths", siteTable},
        {"policies", "Policies, their rules and the VRFs bound to them", policyTable},
        {"load-balance", "Load-balance ids and their member paths", loadBalanceTable},
        {"ipsec", "IPsec connections", ipsecTable},
        {"nexthops", "Requested next hops and their resolution", nexthopTable},
        {"vrfs", "VRFs, their ids and the policies bound to them", vrfTable}};
    return views;
}

TextTable rowTable(const Json& rows) {
    TextTable table;
    if (rows.empty()) return table;
    for (const auto& [name, value] : rows.front().items()) table.columns.push_back(columnOf(name));
    for (const Json& row : rows) {
        table.rows.emplace_back();
        for (const auto& [name, value] : rows.front().items())
            table.rows.back().push_back(member(row, name));
    }
    return table;
}

Json withUsers(const Json& rows) {
    Json named = Json::array();
    for (const Json& row : rows) {
        Json& copy = named.emplace_back(Json::object());
        for (const auto& [name, value] : row.items()) {
            copy[name] = value;
            if (name != "by") continue;
            uid_t uid = 0;
            const bool isUser = value.is_string() &&
                                std::sscanf(value.get<std::string>().c_str(), "uid %u", &uid) == 1;
            const passwd* user = isUser ? getpwuid(uid) : nullptr;
            copy["user"] = user ? Json(user->pw_name) : Json();
        }
    }
    return named;
}

Headed forwardingTables(const Json& report) {
    Headed tables;
    const auto add = [&tables](const std::string& heading, const Json& rows) {
        if (rows.empty()) return;
        tables.emplace_back(heading, rowTable(rows));
        tables.back().second.minor = {"source",      "group",     "nexthops",
                                      "destination", "malformed", "not authentic"};
    };
    for (const auto& [heading, rows] : report.items())
        if (rows.is_array()) add(heading, rows);
    const Json& probes = member(report, "probes");
    add("probes", member(probes, "paths"));
    add("probes of others", Json::array({member(probes, "reflector")}));
    return tables;
}

Headed explainTables(const Json& answer) {
    TextTable paths{
        {"path", "path group", "interface", "site", "destination", "state", "since", "reason"},
        {},
        {"path group"}};
    for (const Json& row : member(answer, "paths"))
        paths.rows.push_back({member(row, "path"), member(row, "pathGroup"),
                              member(row, "interface"), member(row, "site"),
                              member(row, "destination"), member(row, "state"),
                              member(row, "since"), member(row, "reason")});
    TextTable applications{{"vrf", "application", "site", "paths", "since", "reason"}, {}};
    for (const Json& row : member(answer, "applications")) {
        Json reasons = Json::array();
        if (const Json& reason = member(row, "reason"); !reason.is_null())
            reasons.push_back(reason);
        for (const Json& better : member(row, "better")) reasons.push_back(betterText(better));
        // A line for each reason; what the lines share is written once.
        for (size_t i = 0; i < std::max<size_t>(1, reasons.size()); ++i) {
            const bool first = i == 0;
            applications.rows.push_back(
                {first ? member(row, "vrf") : Json(" "),
                 first ? member(row, "application") : Json(" "),
                 first ? member(row, "site") : Json(" "), first ? member(row, "paths") : Json(" "),
                 first ? member(row, "since") : Json(" "), reasons.empty() ? Json() : reasons[i]});
        }
    }
    Headed tables;
    if (!paths.rows.empty()) tables.emplace_back("paths", std::move(paths));
    if (!applications.rows.empty()) tables.emplace_back("applications", std::move(applications));
    return tables;
}

TextTable qualityTable(const Json& rows) {
    TextTable table{{"path", "source", "destination", "vrf", "programmed", "state", "rtt (ms)",
                     "p95 (ms)", "jitter (ms)", "loss forward (%)", "loss backward (%)"},
                    {},
                    {"source", "vrf", "p95 (ms)"}};
    for (const Json& row : rows) {
        const Json& alive = row.at("alive");
        table.rows.push_back({row.at("path"), row.at("source"), row.at("destination"),
                              row.at("vrf"), row.at("programmed"),
                              alive.is_null() ? "not checked"
                              : alive         ? "alive"
                                              : "dead",
                              row.at("rttMs"), row.at("rttP95Ms"), row.at("jitterMs"),
                              row.at("lossForward"), row.at("lossBackward")});
    }
    return table;
}

Json parseShowText(const std::string& text) {
    try {
        return parseLiteral(text);
    } catch (const LiteralError& error) {
        if (text.empty()) throw Client::Refused("the agent gave no answer");
        // A message in place of an answer begins with a percent sign.
        if (text.starts_with("% ")) throw Client::Refused(text.substr(2, text.find('\n') - 2));
        throw Client::Refused(std::string("the agent's answer is not a table (--raw prints it): ") +
                              error.what());
    }
}

}  // namespace Navctl
