// Random changes of the configuration of a whole agent, near its limits: none may end the process,
// and whatever led to a configuration, what is published is what a fresh start publishes.
// NAV_CONFIG_CHANGES is the number of requests for each seed, 60 unless given.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "agent/host/Host.h"
#include "agent/model/DatumJson.h"
#include "agent/sim/SimPlatform.h"
#include "tests/TempDir.h"

namespace {

using Agent::Json;
using Lines = std::set<std::string>;

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

class Agency {
  public:
    explicit Agency(const std::string& world)
        : host_(*scheduler_, std::make_unique<Agent::Sim::SimPlatform>(world)) {}

    // Whether the request was carried out. Everything that follows from it has happened.
    bool ask(const Json& request) {
        bool done = true;
        try {
            control_.handle(request.at("op"), request, session_);
        } catch (const std::runtime_error&) {
            done = false;
        }
        scheduler_->runDue();
        while (const auto next = scheduler_->nextDeadline()) {
            clock_.advance(*next - clock_.now());
            scheduler_->runDue();
        }
        return done;
    }
    Json get(const std::string& path) { return host_.tree().get(path); }

    // Everything published, a line for each value; paths instead of their indices, without ids and
    // generations. A load-balance key without members counts as none.
    Lines published() {
        Lines lines;
        std::map<std::string, std::string> pathOf;
        for (const Json configs = get("/pathConfigDir/pathConfig"); const Json& config : configs)
            for (const auto& [key, path] : config["pathConfigEntry"].items())
                pathOf[path["pathIndex"].dump()] = key;
        for (const char* root : {"pathConfigDir", "navStatusDir", "siteGroupStatus",
                                 "nexthopConfig", "ipsecPathConfigDir", "navFeaturePolicyDir"})
            flatten(get(std::string("/") + root), root, pathOf, lines);
        flatten(get("/navDb/vrfApp"), "vrfApp", pathOf, lines);
        return lines;
    }

  private:
    struct Session : Agent::Session {
        void sendEvent(const Line&) override {}
        void startEvents() override {}
    };

    static void flatten(const Json& value, const std::string& place,
                        const std::map<std::string, std::string>& pathOf, Lines& lines) {
        static const std::set<std::string> ignored = {"pathIndex", "lbIndex", "genId",
                                                      "version",   "encapId", "connectionName",
                                                      "key",       "vrfName"};
        const bool ofPaths = place.ends_with("/pathEntry") || place.ends_with("/pathIndexEntry");
        if (!value.is_structured()) lines.insert(place + " " + value.dump());
        if (value.is_object() && value.contains("pathEntry") && value["pathEntry"].empty()) return;
        for (const auto& [name, member] : value.items()) {
            const std::string key =
                value.is_array() ? member.is_string() ? member.get<std::string>() : member.dump()
                                 : name;
            if (value.is_array())
                lines.insert(place + " " + (ofPaths ? pathOf.at(key) : key));
            else if (value.is_object() && !ignored.contains(name))
                flatten(member, place + "/" + (ofPaths ? pathOf.at(key) : key), pathOf, lines);
        }
    }

    Loom::ManualClock clock_;
    const Vel::Ptr<Vel::Scheduler> scheduler_ = Vel::make<Vel::Scheduler>(clock_);
    Agent::Host host_;
    Agent::Control control_{host_.controlled()};
    Session session_;
};

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
    Json removal() {
        const std::string g = "/pathGroupConfig[" + group(), q = "/policyConfig[" + policy(),
                          p = "/loadBalanceProfile[" + profile();
        const std::string paths[] = {g,
                                     g + "]/localIntf[" + intf(),
                                     g + "]/remoteViaConfig[" + site(),
                                     q,
                                     q + "]/appProfilePolicyRuleList[" + ruleKey(),
                                     p,
                                     p + "]/pathGroupPriority[" + group(),
                                     "/vrfConfig[" + vrfs[below(5)]};
        return {{"op", "del"}, {"path", "/cliConfig" + paths[below(std::size(paths))] + "]"}};
    }

    std::mt19937 random_;
    std::vector<Json> pool_;
};

std::string without(const Lines& all, const Lines& others) {
    std::string text;
    size_t count = 0;
    for (const std::string& line : all)
        if (!others.contains(line) && ++count <= 5) text += "\n  " + line;
    return std::to_string(count) + text;
}

class TransactionTest : public testing::TestWithParam<Vel::U32> {};

TEST_P(TransactionTest, APublishedStateDependsOnTheConfigurationAlone) {
    const TempDir own;
    const std::string file = own.path + "/world.json";
    std::ofstream(file) << world();
    const char* given = std::getenv("NAV_CONFIG_CHANGES");
    Agency agency(file);
    Changes changes(GetParam());
    size_t mostIds = 0, done = 0;
    for (int left = given ? std::atoi(given) : 60; left > 0; --left) {
        const Json before = agency.get("/cliConfig"), request = changes.next(before);
        if (!agency.ask(request)) continue;
        mostIds = std::max(
            mostIds, agency.get("/navStatusDir/navLbProfileStatus/lbProfileStatusEntry").size());
        if (++done % 5 != 0) continue;
        Agency fresh(file);
        ASSERT_TRUE(fresh.ask({{"op", "load"}, {"value", agency.get("/cliConfig")}}));
        const Lines expected = fresh.published(), got = agency.published();
        ASSERT_EQ(got, expected) << "seed " << GetParam() << " after " << request << "\nbefore "
                                 << before << "\nmissing " << without(expected, got) << "\nextra "
                                 << without(got, expected);
    }
    EXPECT_GT(mostIds, 900u) << "far from the limit";
}

Json saved(const Vel::Entity& config) {
    return Agent::toJson(Vel::toDatum(config), Agent::Secrets::shown);
}

// The same with objects and arrays in one order.
nlohmann::json content(const Vel::Entity& config) {
    auto json = nlohmann::json::parse(saved(config).dump());
    const auto sort = [](auto& self, nlohmann::json& value) -> void {
        if (value.is_structured())
            for (auto& part : value) self(self, part);
        if (value.is_array()) std::sort(value.begin(), value.end());
    };
    sort(sort, json);
    return json;
}

TEST_P(TransactionTest, BothConfigurationsBecomeWhatIsWantedOrStayAsTheyAre) {
    std::mt19937 random(GetParam());
    const auto one = [&random](const char* prefix, size_t n) {
        return numbered(prefix, random() % n);
    };
    const auto paths = Agent::readConfig(Json::object());
    const auto running = Agent::makeForwarding();
    std::vector<Json> former = {Json::object()};
    for (int left = 500; left > 0; --left) {
        const std::string v = "/vrf[" + one("v", 3) + "]", s = "/site[" + one("10.0.0.", 4) + "]",
                          a = "/application[" + one("a", 3) + "]",
                          m = a + "/match[" + one("", 3) + "]", g = "/probe/group[" + one("g", 2),
                          p = one("10.", 6) + ".0.0/16";
        const std::pair<std::string, Json> sets[] = {
            {v, {{"vni", random() % 5}, {"address", one("10.9.0.", 5) + "/24"}}},
            {v + "/mtu", random() % 3 * 700},
            {s + v, {{"prefix", {p, one("2001:db8::", 3) + "/128"}}}},
            {s + v + "/address", one("10.0.0.", 5)},
            {s + v + "/prefix[" + p + "]", true},
            {m, {{"protocol", one("", 20)}, {"sourcePort", {"5060-5061", 1 + random() % 3}}}},
            {m + "/dscp[" + one("cs", 8) + "]", true},
            {"/probe", {{"interval", 10 + random() % 9}, {"key", one("key", 3)}}},
            {g + "]/window", random() % 2 ? Json() : Json(random() % 30)}};
        const std::string dels[] = {v, s, s + v, s + v + "/prefix[" + p + "]", a, m, g + "]"};
        const auto before = std::pair(content(*paths), content(*running));
        const bool loads = random() % 10 == 0;
        const Json start = loads ? former[random() % former.size()] : saved(*running);
        const auto model = Agent::readForwarding(start);
        Agent::Tree modelTree({Agent::Root::of(Agent::forwardingName, *model)});
        const Vel::U32 port = random() % 9;
        try {
            Agent::Transaction transaction(
                {*paths, running.get()}, {nullptr, loads ? Agent::readForwarding(start) : nullptr});
            transaction.tree().set("/cliConfig/udpPortConfig", port);
            const auto& [path, value] = sets[random() % std::size(sets)];
            for (Agent::Tree* tree : {&transaction.tree(), &modelTree})
                tree->set("/forwardingConfig" + path, value);
            if (const std::string& del = dels[random() % std::size(dels)]; random() % 2)
                for (Agent::Tree* tree : {&transaction.tree(), &modelTree})
                    tree->del("/forwardingConfig" + del);
            transaction.check(nullptr);
            transaction.apply();
            ASSERT_EQ(content(*running), content(*model));
            ASSERT_EQ(paths->udpPortConfig(), port);
            former.push_back(saved(*running));
        } catch (const Agent::TreeError& error) {
            ASSERT_EQ(std::pair(content(*paths), content(*running)), before) << error.what();
        }
    }
    EXPECT_GT(former.size(), 150u) << "most changes were refused";
}

INSTANTIATE_TEST_SUITE_P(Seeds, TransactionTest, testing::Values(1, 2, 3));

}  // namespace
