// Random changes of the configuration of a whole agent, near its limits: none may end the process,
// and whatever led to a configuration, what is published is what a fresh start publishes, as
// `validate` finds. (What a load of a file changes: fuzz/ConfigFuzz.cpp.)
// NAV_CONFIG_CHANGES is the number of requests for each seed, 60 unless given.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "agent/model/DatumJson.h"
#include "agent/sim/SimPlatform.h"
#include "tests/InProcess.h"

namespace {

using Agent::Json;

const std::vector<std::string> vrfs = {"default", "red", "blue", "green", "grey"};

std::string numbered(const char* prefix, size_t i) {
    return prefix + std::to_string(i);
}

// Half of the interfaces are in VRF red. Every destination is reached by all of them, and most are
// IPsec peers.
Json world() {
    Json made = {{"programmingDelay", 1}};
    for (size_t i = 0; i < vrfs.size(); ++i) made["vrfs"][vrfs[i]]["id"] = i;
    for (size_t i = 0; i < 6; ++i) {
        const std::string net = numbered("10.0.", i), gateway = net + ".254";
        made["interfaces"][numbered("wan", i)] = {
            {"vrf", vrfs[i % 2]}, {"v4", net + ".1/24"}, {"neighbours", {{gateway, 1}}}};
        Json& vrf = made["vrfs"][vrfs[i % 2]];  // until `made` has another member
        vrf["routes"]["198.51.100.0/24"].push_back(
            {{"gateway", gateway}, {"interface", numbered("wan", i)}});
        for (size_t peer = 1; peer < 130; ++peer)
            vrf["peers"][numbered("198.51.100.", peer)] = {{"handshake", 1}};
    }
    return made;
}

class Changes {
  public:
    // Makes a pool of configurations to which hardly anything can be added.
    explicit Changes(Vel::U32 seed) : random_(seed) {
        for (int i = 0; i < 4; ++i) {
            const auto config = Vel::make<Nav::NavCliConfig>(Agent::configName);
            for (int j = 0; j < 250; ++j) {
                const Json request = addition();
                try {
                    Agent::Transaction transaction(*config);
                    transaction.tree().set(request["path"].get<std::string>(), request["value"]);
                    transaction.check(nullptr);
                    transaction.apply();
                } catch (const Agent::TreeError&) {  // it does not fit
                }
            }
            pool_.push_back(Agent::toJson(Vel::toDatum(*config)));
        }
    }

    Json next(const Json& running) {
        if (oneIn(3)) return {{"op", "load"}, {"value", mixed(running)}};
        return oneIn(3) ? removal() : addition();
    }

  private:
    size_t below(size_t n) { return random_() % n; }
    bool oneIn(size_t n) { return below(n) == 0; }
    std::string one(const char* prefix, size_t n) { return numbered(prefix, below(n)); }
    std::string group() { return one("g", 3); }
    std::string profile() { return one("p", 3); }
    std::string policy() { return one("q", 3); }
    std::string ruleKey() { return one("", 30); }
    std::string intf() { return one("wan", 6); }
    std::string site() { return one("10.255.0.", 40); }
    std::string destination() { return numbered("198.51.100.", 1 + below(150)); }

    // One of the pool, or one with parts of another.
    Json mixed(const Json& running) {
        Json made = pool_[below(pool_.size())];
        const Json& other = oneIn(2) ? running : pool_[below(pool_.size())];
        if (oneIn(2))
            for (const auto& [name, value] : other.items())
                if (oneIn(2)) made[name] = value;
        made["navConfigured"] = !oneIn(20);
        return made;
    }

    Json rule() {
        const size_t id = below(24);
        return {{"appProfileId", id},
                {"appProfileName", numbered("app", id % 20)},
                {"lbGrpName", profile()}};
    }
    template <class Make>
    Json several(size_t most, Make make) {
        Json made;
        for (size_t n = below(most); n > 0; --n) make(made);
        return made.is_null() ? Json::object() : made;
    }

    Json addition() {
        const std::string g = "/pathGroupConfig[" + group() + "]",
                          q = "/policyConfig[" + policy() + "]",
                          p = "/loadBalanceProfile[" + profile() + "]",
                          rules = q + "/appProfilePolicyRuleList";
        const auto sites = several(20, [this](Json& made) {
            made[site()] = {{"remoteVia", {destination(), destination()}}};
        });
        const auto numbers = several(20, [this](Json& made) { made[ruleKey()] = rule(); });
        const auto bindings =
            several(5, [this](Json& made) { made[vrfs[below(5)]]["policyName"] = policy(); });
        const std::pair<std::string, Json> all[] = {
            {g + "/remoteViaConfig", sites},
            {g + "/remoteViaConfig[" + site() + "]/remoteVia", Json::array({destination()})},
            {g + "/localIntf[" + intf() + "]", true},
            {g + "/ipsecProfile", oneIn(2) ? "" : one("psk", 2)},
            {rules, numbers},
            {rules + "[" + ruleKey() + "]", rule()},
            {q + "/defaultRuleCfgd", oneIn(2)},
            {q + "/defaultLbGrpName", profile()},
            {p, {{"latency", below(3)}, {"lossRate", below(101)}}},
            {p + "/pathGroupPriority[" + group() + "]", below(3)},
            {"/navConfigured", !oneIn(10)},
            {"/vrfConfig", bindings},
            {"/vrfConfig[" + vrfs[below(5)] + "]/policyName", policy()}};
        const auto& [path, value] = all[below(std::size(all))];
        return {{"op", "set"}, {"path", "/cliConfig" + path}, {"value", value}};
    }
    // Of what an addition would change.
    Json removal() {
        const std::string path = addition()["path"];
        return {{"op", "del"}, {"path", path.substr(0, path.rfind(']') + 1)}};
    }

    std::mt19937 random_;
    std::vector<Json> pool_;
};

class TransactionTest : public testing::TestWithParam<Vel::U32> {};

TEST_P(TransactionTest, PublishedStateDependsOnTheConfigurationAlone) {
    const char* given = std::getenv("NAV_CONFIG_CHANGES");
    InProcess agent;
    agent.startAgent(std::make_unique<Agent::Sim::SimPlatform>(Agent::Sim::readHistory(world())));
    const auto get = [&](const std::string& path) { return agent.host->tree().get(path); };
    Changes changes(GetParam());
    size_t mostIds = 0, done = 0;
    for (int left = given ? std::atoi(given) : 60; left > 0; --left) {
        const Json before = get("/cliConfig"), request = changes.next(before);
        try {
            agent.ask(request);
        } catch (const std::runtime_error&) {
            continue;
        }
        agent.pass(std::chrono::seconds(1));  // everything that follows from it has happened
        mostIds =
            std::max(mostIds, get("/navStatusDir/navLbProfileStatus/lbProfileStatusEntry").size());
        if (++done % 3 != 0) continue;
        ASSERT_EQ(agent.ask({{"op", "validate"}}), Json::array())
            << "seed " << GetParam() << " after " << request << "\nbefore " << before;
    }
    EXPECT_GT(mostIds, 900u) << "far from the limit";
}

// Two VRFs exchange their policies while all ids are in use; then one policy loses all its rules.
TEST(LoadTest, IdsAreReleasedBeforeTheyAreNeeded) {
    InProcess agent;
    agent.startAgent(std::make_unique<Agent::Sim::SimPlatform>(Agent::Sim::readHistory(world())));
    const auto rules = [](size_t from, size_t to) {
        Json made = Json::object();
        for (size_t app = from; app < to; ++app)
            made[std::to_string(app)] = {{"appProfileId", app}, {"lbGrpName", "p"}};
        return Json{{"appProfilePolicyRuleList", made}};
    };
    Json config = {{"navConfigured", true},
                   {"pathGroupConfig", {{"g", {{"localIntf", {"wan0"}}}}}},
                   {"loadBalanceProfile", {{"p", {{"pathGroupPriority", {{"g", 1}}}}}}},
                   {"policyConfig", {{"a", rules(0, 1)}, {"big", rules(0, 30)}}}};
    for (size_t site = 1; site <= 33; ++site)
        config["pathGroupConfig"]["g"]["remoteViaConfig"][numbered("10.255.0.", site)] = {
            {"remoteVia", {numbered("198.51.100.", site)}}};
    const auto load = [&](const char* ofDefault, const char* ofRed) {
        config["vrfConfig"] = {{"default", {{"policyName", ofDefault}}},
                               {"red", {{"policyName", ofRed}}}};
        agent.ask({{"op", "load"}, {"value", config}});
        agent.pass(std::chrono::seconds(1));
        EXPECT_EQ(agent.ask({{"op", "validate"}}), Json::array()) << ofDefault << ofRed;
        return agent.host->tree()
            .get("/navStatusDir/navLbProfileStatus/lbProfileStatusEntry")
            .size();
    };
    EXPECT_EQ(load("a", "big"), 1023u);
    EXPECT_EQ(load("big", "a"), 1023u);
    config["policyConfig"]["a"] = Json::object();
    EXPECT_EQ(load("big", "a"), 990u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TransactionTest, testing::Values(1, 2, 3));

}  // namespace
