// Configurations: which are refused and where, and what applying one changes, in which order.
#include <gtest/gtest.h>

#include "agent/model/Config.h"
#include "agent/model/DatumJson.h"
#include "agent/model/Tree.h"
#include "agent/model/Watch.h"

namespace {

using Agent::Json;
using Agent::readConfig;
using Agent::toJson;

Json parse(const std::string& text) {
    return Agent::parseJson(text);
}

// Why a text is refused, or "".
std::string refusal(const std::string& text) {
    try {
        Agent::readConfigText(text);
        return "";
    } catch (const Agent::JsonError& error) {
        return error.what();
    }
}

std::string address(const char* net, size_t number) {
    return net + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
}

// A group of so many interfaces, whose names begin with `prefix`, and sites of so many
// destinations.
Json group(const std::string& prefix, size_t interfaces, size_t sites, size_t destinations = 1) {
    Json made = {{"localIntf", Json::array()}, {"remoteViaConfig", Json::object()}};
    for (size_t i = 0; i < interfaces; ++i) made["localIntf"].push_back(prefix + std::to_string(i));
    for (size_t site = 0; site < sites; ++site) {
        Json& vias = made["remoteViaConfig"][address("10.1.", site)]["remoteVia"] = Json::array();
        for (size_t i = 0; i < destinations; ++i)
            vias.push_back(address("10.2.", site * destinations + i));
    }
    return made;
}

Json rules(size_t count, const std::string& profile, size_t firstId = 1) {
    Json made = Json::object();
    for (size_t i = 0; i < count; ++i)
        made[std::to_string(i)] = {{"appProfileId", firstId + i}, {"lbGrpName", profile}};
    return made;
}

TEST(JsonTest, PlacesHaveTheLineOnWhichTheyBegin) {
    const std::string text = R"({ "a": {"b": 1},
  "c": [
    {"b": [1,
           "x"]},
    "y"], "a/d": 2
})";
    // clang-format off
    const std::pair<const char*, size_t> places[] = {
        {"", 1}, {"/a/b", 1}, {"/c", 2}, {"/c/0/b", 3}, {"/c/0/b/1", 4}, {"/c/1", 5},
        {"/a~1d", 5}, {"/c/7", 2}, {"/c/0/zzz/1", 3}, {"/nowhere", 1}};
    // clang-format on
    for (const auto& [place, line] : places) {
        EXPECT_EQ(Agent::lineOf(text, Json::json_pointer(place)), line) << place;
    }
}

TEST(ConfigTest, ARefusalNamesTheLineOfTheFault) {
    for (const auto& [text, reason] : std::initializer_list<std::pair<std::string, std::string>>{
             {"{\n\"navConfigured\": true,\n\"udpPortConfig\": 1", "line 3, column"},
             {"{\n\"udp\": 1}", "line 2: /udp: Nav::NavCliConfig has no such attribute"},
             {"{\n\n\"udpPortConfig\": \"1\"}", "line 3: /udpPortConfig: expected a whole number"},
             {"{\"vrfConfig\": {\n\"" + std::string(101, 'v') + "\": {}}}",
              "line 2: /vrfConfig/" + std::string(101, 'v') + ": VrfName::bytes > "},
             {"{\"pathGroupConfig\": {\n\"a\": {\"localIntf\": [\"w1\"]},\n"
              "\"b\": {\"localIntf\": [\"w2\",\n\"w1\"]}}}",
              "line 4: /pathGroupConfig/b/localIntf/1: w1 is in path group \"a\" already"},
             {"{\"pathGroupConfig\": {\"a\": {\"remoteViaConfig\": {\n"
              "\"10.0.0.1\": {\"remoteVia\": [\"2001:db8::1\"]},\n"
              "\"10.0.0.2\": {\"remoteVia\": [\n\"2001:DB8:0::1\"]}}}}}",
              "line 4: /pathGroupConfig/a/remoteViaConfig/10.0.0.2/remoteVia/0: 2001:db8::1 is"},
             {"[]", "line 1: expected an object of Nav::NavCliConfig"},
             {std::string(1 << 20, '['), "line 1: nested deeper"},
             {"{\"name\": \"\xff\"}", "line 1"},
             {"", "line 1"}})
        EXPECT_EQ(refusal(text).substr(0, reason.size()), reason) << refusal(text);
    EXPECT_EQ(refusal(R"({"pathGroupConfig":{"a":{"localIntf":["w1","w1"],)"
                      R"("remoteViaConfig":{"10.0.0.1":{"remoteVia":["10.0.0.9"]}}},)"
                      R"("b":{"remoteViaConfig":{"10.0.0.1":{"remoteVia":["10.0.0.9"]}}}}})"),
              "");
}

TEST(ConfigTest, TheLimitsAreExact) {
    // Paths: interfaces times destinations, summed over the groups.
    const auto paths = [](Json a, Json b) {
        return refusal(Json{{"pathGroupConfig", {{"a", a}, {"b", b}}}}.dump());
    };
    EXPECT_EQ(paths(group("w", 4, 8, 2), group("x", 64, 1)), "");
    EXPECT_EQ(paths(group("w", 4, 8, 2), group("x", 65, 1)),
              "line 1: /pathGroupConfig: this needs 129 paths, there are at most 128");
    EXPECT_EQ(paths(group("w", 0, 200), group("x", 200, 0)), "");

    // Load-balance ids: different (site, application) of a policy, for each VRF that is bound to
    // it; here 33 sites x (15 + 16) applications = 1023.
    const Json full = {
        {"pathGroupConfig", {{"a", group("w", 1, 33)}, {"b", group("x", 1, 33)}}},
        {"loadBalanceProfile",
         {{"both", {{"pathGroupPriority", {{"a", 1}, {"b", 2}, {"none", 3}}}}}}},
        {"policyConfig",
         {{"p", {{"appProfilePolicyRuleList", rules(15, "both")}}},
          {"q",
           {{"appProfilePolicyRuleList", rules(15, "both")},
            {"defaultRuleCfgd", true},
            {"defaultLbGrpName", "both"}}}}},
        {"vrfConfig", {{"v1", {{"policyName", "p"}}}, {"v2", {{"policyName", "q"}}}}}};
    for (const auto& [change, fits] : std::initializer_list<std::pair<std::string, bool>>{
             {R"({})", true},
             {R"({"vrfConfig":{"v3":{"policyName":"p"}}})", false},
             {R"({"vrfConfig":{"v3":{"policyName":"missing"},"v4":{}}})", true},
             {R"({"policyConfig":{"p":{"appProfilePolicyRuleList":{"99":)"
              R"({"appProfileId":99,"lbGrpName":"both"}}}}})",
              false},
             {R"({"policyConfig":{"p":{"appProfilePolicyRuleList":{"98":)"
              R"({"appProfileId":1,"lbGrpName":"both"},"99":{"appProfileId":99}}}}})",
              true},
             {R"({"pathGroupConfig":{"a":{"remoteViaConfig":{"10.9.9.9":{}}}}})", false},
             {R"({"policyConfig":{"p":{"defaultLbGrpName":"both"}}})", true},
             {R"({"policyConfig":{"p":{"defaultLbGrpName":"both","defaultRuleCfgd":true}}})",
              false}}) {
        Json config = full;
        config.merge_patch(parse(change));
        EXPECT_EQ(refusal(config.dump()),
                  fits ? ""
                       : "line 1: /vrfConfig: this can need more load-balance ids than the 1023 "
                         "there are")
            << change;
    }
}

TEST(ConfigTest, WhatIsNamedButNotThereIsAWarning) {
    const auto config = readConfig(
        parse(R"({"policyConfig":{"p":{"appProfilePolicyRuleList":{"7":{"lbGrpName":"gold"}},)"
              R"("defaultLbGrpName":"there"}},"loadBalanceProfile":{"there":{}},)"
              R"("vrfConfig":{"v":{"policyName":"p"},"w":{"policyName":"q"},"x":{}}})"));
    EXPECT_EQ(Agent::configWarnings(*config),
              (std::vector<std::string>{
                  R"(rule 7 of policy "p" names load-balance profile "gold", which is not there)",
                  R"(VRF "w" names policy "q", which is not there)"}));
}

// A running configuration, and what its watcher is told of a load.
struct Running : Agent::Watcher {
    std::vector<std::string> load(const Json& wanted) {
        events.clear();
        mostPaths = 0;
        Agent::applyConfig(*config, readConfig(wanted));
        return events;
    }
    Json get() const { return toJson(Vel::toDatum(*config)); }
    size_t paths() const {
        size_t sum = 0;
        for (auto& each : config->pathGroupConfig()) {
            size_t interfaces = each.localIntf().size(), destinations = 0;
            for (auto& site : each.remoteViaConfig()) destinations += site.remoteVia().size();
            sum += interfaces * destinations;
        }
        return sum;
    }

    Vel::Ptr<Nav::NavCliConfig> config = Vel::make<Nav::NavCliConfig>(Agent::configName);
    std::vector<std::string> events;
    size_t mostPaths = 0;
    Agent::Tree tree{{Agent::Root::of("cliConfig", *config)}};
    Agent::Watches watches{tree};
    const Json initial = watches.add(tree.parse("/cliConfig"), *this);

    void sendEvent(const Line& line) override {
        const Json event = Agent::parseJson(*line);
        const bool set = event.at("event") == "set";
        events.push_back(
            (set ? "+" : "-") + event.at("path").get<std::string>().substr(10) +
            (event.at("value").is_primitive() && set ? " " + event.at("value").dump() : ""));
        mostPaths = std::max(mostPaths, paths());
    }
};
using Events = std::vector<std::string>;

TEST(ConfigTest, ALoadChangesWhatDiffersAndNothingElse) {
    Running running;
    const Json first = parse(Agent::readFile(NAV_EXAMPLES "/branch/branch.json"));
    // New entries come whole, and the feature goes on last.
    EXPECT_EQ(
        running.load(first),
        (Events{"+/pathGroupConfig[internet]", "+/pathGroupConfig[mpls]", "+/policyConfig[office]",
                "+/policyConfig[guests]", "+/loadBalanceProfile[realtime]",
                "+/loadBalanceProfile[bulk]", "+/loadBalanceProfile[internet-only]",
                "+/vrfConfig[default]", "+/vrfConfig[blue]", "+/navConfigured true"}));
    const Json saved = running.get();
    EXPECT_EQ(running.load(first), Events{});
    EXPECT_EQ(running.load(saved), Events{});
    EXPECT_EQ(running.get(), saved);

    // An interface and a destination move between groups and sites, in both directions.
    Json second = first;
    second["pathGroupConfig"]["internet"]["localIntf"] = {"wan2"};
    second["pathGroupConfig"]["mpls"]["localIntf"] = {"wan1"};
    auto& sites = second["pathGroupConfig"]["mpls"]["remoteViaConfig"];
    sites["10.255.0.2"]["remoteVia"] = {"192.0.2.131"};
    sites["10.255.0.3"]["remoteVia"] = {"192.0.2.130"};
    second["loadBalanceProfile"]["bulk"]["pathGroupPriority"] = {{"internet", 5}};
    second["vrfConfig"].erase("blue");
    second["navConfigured"] = false;
    const std::string mpls = "/pathGroupConfig[mpls]", internet = "/pathGroupConfig[internet]",
                      site2 = mpls + "/remoteViaConfig[10.255.0.2]/remoteVia",
                      site3 = mpls + "/remoteViaConfig[10.255.0.3]/remoteVia";
    EXPECT_EQ(
        running.load(second),
        (Events{"+/navConfigured false", "-/vrfConfig[blue]",
                "-/loadBalanceProfile[bulk]/pathGroupPriority[mpls]",
                "-" + internet + "/localIntf[wan1]", "-" + site2 + "[192.0.2.130]",
                "-" + site3 + "[192.0.2.131]", "-" + mpls + "/localIntf[wan2]",
                "+" + internet + "/localIntf[wan2] true", "+" + mpls + "/localIntf[wan1] true",
                "+" + site2 + "[192.0.2.131] true", "+" + site3 + "[192.0.2.130] true",
                "+/loadBalanceProfile[bulk]/pathGroupPriority[internet] 5"}));
    EXPECT_EQ(running.load(parse("{}")).front(), "-/vrfConfig[default]");
    EXPECT_EQ(running.get(), toJson(Vel::toDatum(*Vel::make<Nav::NavCliConfig>("cliConfig"))));
}

TEST(ConfigTest, AFullConfigurationIsReplacedByAnotherWithoutEverNeedingMore) {
    Running running;
    running.load({{"pathGroupConfig", {{"a", group("w", 8, 16)}, {"b", group("x", 0, 0)}}}});
    Json swapped = group("w", 8, 0);
    swapped["remoteViaConfig"]["10.3.0.1"]["remoteVia"] =
        group("", 0, 1, 16)["remoteViaConfig"]["10.1.0.1"]["remoteVia"];
    running.load({{"pathGroupConfig", {{"c", group("y", 0, 0)}, {"b", swapped}}}});
    EXPECT_EQ(running.paths(), 128u);
    EXPECT_EQ(running.mostPaths, 128u);
    running.load({{"pathGroupConfig", {{"b", group("v", 2, 64)}}}});
    EXPECT_EQ(running.mostPaths, 128u);
}

TEST(ConfigTest, APolicysVersionGrowsWithItsRulesAndAfterThem) {
    Running running;
    Json config = {{"policyConfig",
                    {{"p", {{"appProfilePolicyRuleList", rules(2, "x")}, {"configVersion", 7}}}}}};
    Json& policy = config["policyConfig"]["p"];
    const std::string p = "/policyConfig[p]";
    EXPECT_EQ(running.load(config), Events{"+" + p});
    policy["appProfilePolicyRuleList"] = {{"1", {{"appProfileId", 2}, {"lbGrpName", "y"}}},
                                          {"5", Json::object()}};
    EXPECT_EQ(running.load(config),
              (Events{"-" + p + "/appProfilePolicyRuleList[0]",
                      "+" + p + "/appProfilePolicyRuleList[1]/lbGrpName \"y\"",
                      "+" + p + "/appProfilePolicyRuleList[5]", "+" + p + "/configVersion 8"}));
    EXPECT_EQ(running.load(config), Events{});
    policy.erase("configVersion");
    EXPECT_EQ(running.load(config), Events{});
    policy["configVersion"] = 20;
    EXPECT_EQ(running.load(config), Events{"+" + p + "/configVersion 20"});
    policy["configVersion"] = 30;
    policy["defaultRuleCfgd"] = true;
    EXPECT_EQ(running.load(config),
              (Events{"+" + p + "/defaultRuleCfgd true", "+" + p + "/configVersion 30"}));
}

// Two VRFs swap their policies. While nearly all load-balance ids are in use, the one that gives up
// ids does so before the other asks for them.
TEST(ConfigTest, BindingsStepAsideWhenIdsAreShort) {
    for (const size_t many : {30, 60}) {
        Running running;
        Json config = {
            {"pathGroupConfig", {{"a", group("w", 1, 10)}}},
            {"loadBalanceProfile", {{"all", {{"pathGroupPriority", {{"a", 1}}}}}}},
            {"policyConfig",
             {{"large", {{"appProfilePolicyRuleList", rules(many, "all")}}},
              {"small", {{"appProfilePolicyRuleList", rules(20, "all")}}}}},
            {"vrfConfig", {{"v1", {{"policyName", "small"}}}, {"v2", {{"policyName", "large"}}}}}};
        running.load(config);
        std::swap(config["vrfConfig"]["v1"], config["vrfConfig"]["v2"]);
        const std::string grow = "+/vrfConfig[v1]/policyName \"large\"";
        if (many == 30)  // 10 sites x (30 + 20) and 10 x 10 more fit
            EXPECT_EQ(running.load(config), (Events{grow, "+/vrfConfig[v2]/policyName \"small\""}));
        else
            EXPECT_EQ(running.load(config), (Events{"-/vrfConfig[v2]", grow, "+/vrfConfig[v2]"}));
        EXPECT_EQ(running.config->vrfConfig("v2")->policyName(), "small");
    }
}

}  // namespace
