// Configurations: which are refused and where, which are warned about, and what applying one
// announces.
#include <gtest/gtest.h>

#include "agent/model/DatumJson.h"
#include "agent/model/Transaction.h"
#include "agent/model/Watch.h"

namespace {

using Agent::Json;
using namespace std::string_literals;

Json parse(const std::string& text) {
    return Agent::parseJson(text);
}

// Why a text is refused, or "".
template <class Read = decltype(&Agent::readConfigText)>
std::string refusal(const std::string& text, Read read = Agent::readConfigText) {
    try {
        read(text);
        return "";
    } catch (const Agent::JsonError& error) {
        return error.what();
    }
}

// A group of so many interfaces, whose names begin with `prefix`, and sites of one destination.
Json group(const std::string& prefix, size_t interfaces, size_t sites) {
    Json made;
    for (size_t i = 0; i < interfaces; ++i) made["localIntf"].push_back(prefix + std::to_string(i));
    for (size_t site = 1; site <= sites; ++site)
        made["remoteViaConfig"]["10.1.0." + std::to_string(site)]["remoteVia"] = {
            "10.2.0." + std::to_string(site)};
    return made;
}

Json rules(size_t count, const std::string& profile) {
    Json made = Json::object();
    for (size_t i = 0; i < count; ++i)
        made[std::to_string(i)] = {{"appProfileId", 1 + i}, {"lbGrpName", profile}};
    return made;
}

TEST(ConfigTest, ARefusalNamesTheLineThePlaceAndWhatIsRequired) {
    const std::string large((1 << 20) + 1, ' ');
    const std::vector<std::pair<std::string, std::string>> refused = {
        {std::string(1 << 19, '['), "line 1: nested deeper"},
        {large, "line 1: a configuration has at most 1048576 bytes"},
        {"{\n\"a\": 1,\n\"b\": 1", "line 3, column"},
        {"{\n\"a\": \"\0\"}"s, "line 2: a NUL byte"},
        {"{\"pathGroupConfig\":{\"a\":{\"localIntf\":[\"w1\"]},\n\"b\":{\"localIntf\":[\n\"w1\"]}}"
         "}",
         "line 3: /cliConfig/pathGroupConfig[b]/localIntf[w1]: already in path group \"a\""},
        {"{\"pathGroupConfig\": {\"a\": {\"remoteViaConfig\": {\n"
         "\"10.0.0.1\": {\"remoteVia\": [\"2001:db8::1\"]},\n"
         "\"2001:DB8::2\": {\"remoteVia\": [\n\"2001:DB8:0::1\"]}}}}}",
         "line 4: /cliConfig/pathGroupConfig[a]/remoteViaConfig[2001:db8::2]/remoteVia["
         "2001:db8::1]: already a destination of site 10.0.0.1"},
        {R"({"loadBalanceProfile":{"p":{"lossRate":101}}})",
         "line 1: /cliConfig/loadBalanceProfile[p]/lossRate: expected a percentage from 0 to 100"},
        {R"({"pathGroupConfig":{"a":{"remoteViaConfig":{"::1":{"remoteVia":["febf::1"]}}}}})",
         "line 1: /cliConfig/pathGroupConfig[a]/remoteViaConfig[::1]/remoteVia[febf::1]: a "
         "destination cannot be a link-local address"}};
    for (const auto& [text, reason] : refused)
        EXPECT_EQ(refusal(text).substr(0, reason.size()), reason) << refusal(text);
    EXPECT_EQ(refusal(R"({"loadBalanceProfile":{"p":{"lossRate":100}},"pathGroupConfig":{)"
                      R"("a":{"localIntf":["w1","w1"],)"
                      R"("remoteViaConfig":{"10.0.0.1":{"remoteVia":["fec0::1"]}}},)"
                      R"("b":{"remoteViaConfig":{"10.0.0.1":{"remoteVia":["fec0::1"]}}}}})"),
              "");
}

TEST(ConfigTest, ARefusalOfForwardingNamesTheLineThePlaceAndWhatIsRequired) {
    const std::string complete = R"({
"vrf": {"a": {"vni": 1, "address": "10.0.0.1/24"}, "b": {"vni": 2, "address": "fd00::1/64"}},
"site": {"10.0.0.2": {"vrf": {"a": {"prefix": ["10.2.0.0/16", "10.0.0.0/8", "2001:db8::/32", "0.0.0.0/0"]},
                              "b": {"prefix": ["10.2.0.0/16"], "address": "fd00::2"}}},
         "10.0.0.3": {"vrf": {"a": {"prefix": ["10.2.0.0/17"]}}}},
"application": {"x": {"match": {"7": {"protocol": "udp", "sourcePort": ["5060-5061", 99]}}}},
"probe": {"key": "s3cret", "interval": 0, "group": {"g": {"interval": 10000}}}})";
    EXPECT_EQ(refusal(complete, Agent::readForwardingText), "");
    for (
        const auto& [change, reason] : std::initializer_list<std::pair<const char*, std::string>>{
            {R"({"vrf":{"a":{"vni":null}}})", "vrf[a]/vni: required"},
            {R"({"vrf":{"with a space":{"vni":7,"address":"10.0.0.9/8"},"7":{"vni":8,"address":"10.0.0.9/8"}}})",
             "vrf[7]: its tunnel device nav.7 is already that of VRF \"with a space\""},
            {R"({"vrf":{"a":{"address":"10.0.0.255/24"}}})",
             "vrf[a]/address: 10.0.0.255/24 is the network's broadcast"},
            {R"({"site":{"10.0.0.2":{"vrf":{"a":{"prefix":["10.1.2.3/16"]}}}}})",
             "site[10.0.0.2]/vrf[a]/prefix[10.1.2.3/16]: \"10.1.2.3/16\" is an address in the "
             "network 10.1.0.0/16; "
             "write the network, or 10.1.2.3/32 for the address alone"},
            {R"({"site":{"10.0.0.3":{"vrf":{"a":{"prefix":["10.0.0.0/8"]}}}}})",
             "site[10.0.0.3]/vrf[a]/prefix[10.0.0.0/8]: 10.0.0.0/8 is already a prefix of site "
             "10.0.0.2 in this VRF"},
            {R"({"site":{"10.0.0.3":{"vrf":{"a":{"address":"10.0.0.1"}}}}})",
             "site[10.0.0.3]/vrf[a]/address: 10.0.0.1/32 is already the router's own address"},
            {R"({"site":{"10.0.0.3":{"vrf":{"c":{}}}}})",
             "site[10.0.0.3]/vrf[c]: this VRF has no segment; /forwardingConfig/vrf[c] is "
             "required"},
            {R"({"application":{"x":{"match":{"7":{"sourcePort":["9-8"]}}}}})",
             "application[x]/match[7]/sourcePort[9-8]: the range \"9-8\" ends before it begins"},
            {R"({"application":{"x":{"match":{"7":{"sourcePrefix":["10.0.0.0/8"],"destinationPrefix":["::/0"]}}}}})",
             "application[x]/match[7]/sourcePrefix[10.0.0.0/8]: this match has no destination "
             "prefix of family IPv4"},
            {R"({"probe":{"group":{"g":{"interval":10001}}}})",
             "probe/group[g]/window: expected milliseconds (at least the interval) from 10001 "
             "to 3600000, got 10000"},
            {R"-({"probe":{"key":"(hidden)"}})-",
             "probe/key: this text replaces a secret in output"}}) {
        Json config = parse(complete);
        config.merge_patch(parse(change));
        const std::string refused = refusal(config.dump(), Agent::readForwardingText);
        const std::string expected = "line 1: /forwardingConfig/" + reason;
        EXPECT_EQ(refused.substr(0, expected.size()), expected) << change;
    }
    // An error that shows where a text ends to make sense does not show the key that it holds.
    EXPECT_EQ(
        refusal("{\"probe\":\n{\"key\": \"s3cret\n}}", Agent::readForwardingText).find("s3cret"),
        std::string::npos);
    EXPECT_EQ(
        refusal("{\"vrf\":\n{\"a\": {\n\"vni\": 0}}}", Agent::readForwardingText).substr(0, 7),
        "line 3:");
}

TEST(ConfigTest, TheExamplesOfForwardingFitAndMismatchesAreWarnedAbout) {
    const auto config = Agent::readConfigText(Agent::readFile(NAV_EXAMPLES "/linux/config.json"));
    const std::string text = Agent::readFile(NAV_EXAMPLES "/linux/forwarding.json");
    using Warnings = std::vector<std::string>;
    EXPECT_EQ(Agent::configWarnings(*config), Warnings{});
    EXPECT_EQ(Agent::forwardingWarnings(*config, *Agent::readForwardingText(text)), Warnings{});
    Json other = parse(text);
    other.merge_patch(
        parse(R"({"vrf":{"guest":null,"lab":{"vni":5,"address":"10.9.0.1/16"}},)"
              R"("site":{"10.255.0.2":null,"10.255.0.3":null,"10.255.0.9":{}},)"
              R"("application":{"voice":null,"games":{}},"probe":{"group":{"lte":{}}}})"));
    config->udpPortConfigIs(862);
    EXPECT_EQ(
        Agent::forwardingWarnings(*config, *Agent::readForwarding(other)),
        (Warnings{
            R"(rule 10 of policy "office" names application "voice", which is not configured)",
            R"(application "games" is not named by any policy)",
            R"(application "games" has no match, so it has no packets)",
            R"(VRF "guest" has a policy, but no segment, so its packets are not forwarded)",
            R"(VRF "lab" has a segment, but no policy, so its packets take any path)",
            "site 10.255.0.9 is not in any path group, so it has no paths",
            R"(the probe configuration names path group "lte", which is not configured)",
            "udpPortConfig is 862, the port of probes"}));
}

TEST(ConfigTest, TheLimitsAreExact) {
    // 128 paths; different (site, application) of a policy for each VRF that is bound to it, here
    // 33 sites x (15 + 16) applications = 1023.
    const Json full = {
        {"pathGroupConfig",
         {{"a", group("w", 1, 33)}, {"b", group("x", 1, 33)}, {"c", group("y", 2, 31)}}},
        {"loadBalanceProfile",
         {{"both", {{"pathGroupPriority", {{"a", 1}, {"b", 2}, {"none", 3}}}}}}},
        {"policyConfig",
         {{"p", {{"appProfilePolicyRuleList", rules(15, "both")}}},
          {"q",
           {{"appProfilePolicyRuleList", rules(15, "both")},
            {"defaultRuleCfgd", true},
            {"defaultLbGrpName", "both"}}}}},
        {"vrfConfig", {{"v1", {{"policyName", "p"}}}, {"v2", {{"policyName", "q"}}}}}};
    for (const auto& [change, reason] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"vrfConfig":{"v3":{"policyName":"missing"},"v4":{}}})", ""},
             {R"({"policyConfig":{"p":{"defaultLbGrpName":"both","appProfilePolicyRuleList":{)"
              R"("98":{"appProfileId":1,"lbGrpName":"both"},"99":{"appProfileId":99}}}}})",
              ""},
             {R"({"pathGroupConfig":{"b":{"localIntf":["x0","x1"]}}})",
              "line 1: /cliConfig/pathGroupConfig: 161 paths are configured; the maximum is 128"},
             {R"({"vrfConfig":{"v3":{"policyName":"p"}}})",
              "line 1: /cliConfig/vrfConfig: more "
              "load-balance ids may be required than the maximum of 1023"},
             {R"({"policyConfig":{"p":{"defaultLbGrpName":"both","defaultRuleCfgd":true}}})",
              "line 1: /cliConfig/vrfConfig: "}}) {
        Json config = full;
        config.merge_patch(parse(change));
        const std::string refused = refusal(config.dump());
        EXPECT_TRUE(*reason ? refused.starts_with(reason) : refused.empty()) << change << refused;
    }
}

// A running configuration, and what its watcher is told of a load.
struct Running : Agent::Watcher {
    std::vector<std::string> load(const Json& wanted) {
        events.clear();
        Agent::Transaction transaction(*config, {Agent::readConfig(wanted)});
        warnings = transaction.check(&*interfaces);
        transaction.apply();
        return events;
    }
    Json get() const { return Agent::toJson(Vel::toDatum(*config)); }

    Vel::Ptr<Nav::NavCliConfig> config = Vel::make<Nav::NavCliConfig>(Agent::configName);
    Vel::Ptr<Ip::Status> interfaces = Vel::make<Ip::Status>("ipStatusDir");
    std::vector<std::string> events, warnings;
    Agent::Tree tree{{Agent::Root::of("cliConfig", *config)}};
    Agent::Watches watches{tree};
    const Json initial = watches.add(tree.parse("/cliConfig"), *this);

    void sendEvent(const Line& line) override {
        const Json event = parse(*line);
        const bool set = event.at("event") == "set";
        events.push_back(
            (set ? "+" : "-") + event.at("path").get<std::string>().substr(10) +
            (event.at("value").is_primitive() && set ? " " + event.at("value").dump() : ""));
    }
};
using Events = std::vector<std::string>;

TEST(ConfigTest, WhatIsProbablyNotMeantIsAWarning) {
    Running running;
    const auto addr = [](const char* text) { return *Netz::IpAddrWithMask::parse(text); };
    running.interfaces->ipIntfStatusIs(Netz::IntfId("w1"))
        .activeAddrWithMaskIs(addr("192.0.2.1/24"));
    running.interfaces->ipIntfStatusIs(Netz::IntfId("w2"));
    const Json config = parse(
        R"({"policyConfig":{"p":{"appProfilePolicyRuleList":{"7":{"lbGrpName":"gold"}},)"
        R"("defaultLbGrpName":"there"}},)"
        R"("loadBalanceProfile":{"there":{"pathGroupPriority":{"a":1,"c":1}}},)"
        R"("vrfConfig":{"v":{"policyName":"p"},"w":{"policyName":"q"},"x":{}},)"
        R"("pathGroupConfig":{"a":{"localIntf":["w1"],"remoteViaConfig":{"10.0.0.1":{"remoteVia":)"
        R"(["198.51.100.1","2001:db8::1"]}}},"b":{"localIntf":["w2"],"remoteViaConfig":)"
        R"({"10.0.0.1":{"remoteVia":["2001:db8::1"]}}}}})");
    running.load(config);
    EXPECT_EQ(running.warnings,
              (Events{R"(destination 2001:db8::1 of site 10.0.0.1 is an IPv6 address, but path )"
                      R"(group "a" has only IPv4 interfaces)",
                      R"(load-balance profile "there" names path group "c", which is not )"
                      R"(configured)",
                      R"(rule 7 of policy "p" names load-balance profile "gold", which is not )"
                      R"(configured)",
                      R"(VRF "w" names policy "q", which is not configured)"}));
    running.load(Json::object());
    EXPECT_EQ(running.warnings,
              Events{"this removes every path group (2), and with them every path"});
}

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

    // A group gets its destinations back after its IPsec profile has been cleared; what moves is
    // removed first; a policy's version follows its rules.
    Json second = first;
    auto& internet = second["pathGroupConfig"]["internet"];
    internet["localIntf"] = {"wan2"};
    internet["ipsecProfile"] = "";
    internet["remoteViaConfig"] = {{"10.255.0.2", {{"remoteVia", {"198.51.100.2"}}}}};
    second["pathGroupConfig"].erase("mpls");
    second["policyConfig"]["office"]["appProfilePolicyRuleList"]["10"]["appProfileId"] = 7;
    second["vrfConfig"].erase("blue");
    second["navConfigured"] = false;
    const std::string group = "/pathGroupConfig[internet]",
                      site = group + "/remoteViaConfig[10.255.0.";
    EXPECT_EQ(
        running.load(second),
        (Events{"+/navConfigured false", "-" + site + "2]/remoteVia[198.51.100.2]",
                "-" + site + "3]/remoteVia[198.51.100.3]",
                "-" + site + "3]/remoteVia[198.51.100.13]",
                "-" + site + "4]/remoteVia[198.51.100.4]", "-/vrfConfig[blue]", "-" + site + "3]",
                "-" + site + "4]", "-" + group + "/localIntf[wan1]", "-/pathGroupConfig[mpls]",
                "+" + group + "/ipsecProfile \"\"", "+" + group + "/localIntf[wan2] true",
                "+" + site + "2]/remoteVia[198.51.100.2] true",
                "+/policyConfig[office]/appProfilePolicyRuleList[10]/appProfileId 7",
                "+/policyConfig[office]/configVersion 2"}));

    // A version that is not above the running one is ignored.
    second["policyConfig"]["office"].erase("configVersion");
    EXPECT_EQ(running.load(second), Events{});
    // A binding is taken away with its policy, and comes back without it.
    second["policyConfig"].erase("office");
    EXPECT_EQ(running.load(second),
              (Events{"-/vrfConfig[default]", "-/policyConfig[office]", "+/vrfConfig[default]"}));
}

}  // namespace
