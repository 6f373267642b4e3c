// What a watch tells of a tree whose entities change, come and go. (Requests: navctl_test.py.)
#include <gtest/gtest.h>

#include "agent/model/Tree.h"
#include "agent/model/Watch.h"
#include "nav/config/NavCliConfig.h"
#include "nav/types/NavDb.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/Routing.h"

namespace {

using Agent::Json;
using Agent::Root;
using Events = std::vector<std::string>;

struct WatchTest : testing::Test, Agent::Watcher {
    void sendEvent(const Line& line) override { lines.push_back(line); }
    void watch(const std::string& path) { watches.add(tree.parse(path), *this); }
    void set(const std::string& path, const std::string& value) {
        tree.set(path, Agent::parseJson(value));
    }
    Events events() {
        Events told;
        for (const auto& line : std::exchange(lines, {})) {
            const Json event = Agent::parseJson(*line);
            told.push_back(event.at("event").get<std::string>() + " " +
                           event.at("path").get<std::string>() + " " + event.at("value").dump());
        }
        return told;
    }

    std::vector<Line> lines;
    Vel::Ptr<Nav::NavCliConfig> config = Vel::make<Nav::NavCliConfig>("cliConfig");
    Vel::Ptr<Nav::NavStatusDir> status = Vel::make<Nav::NavStatusDir>("navStatusDir");
    Vel::Ptr<Routing::NexthopStatus> nexthops = Vel::make<Routing::NexthopStatus>("nexthopStatus");
    Vel::Ptr<Nav::NavDb> database;
    Agent::Tree tree{{Root::of("cliConfig", *config), Root::of("navStatusDir", *status),
                      Root::of("nexthopStatus", *nexthops),
                      Root{"navDb", &Nav::NavDb::velType, [this] { return database.get(); },
                           "nobody writes this"}}};
    Agent::Watches watches{tree};
};

TEST_F(WatchTest, TellsOfAPathThatComesAndGoesWithWhatHoldsIt) {
    const std::string member = "/cliConfig/pathGroupConfig[a]/localIntf[wan1]";
    const std::string hop = "/nexthopStatus/vrf[default]/nexthop[192.0.2.1]";
    const std::string profile = R"(/cliConfig/pathGroupConfig[a]/ipsecProfile)";
    for (const std::string& path : {member, hop + "/fecId", profile}) watch(path);
    set(member, "true");
    EXPECT_EQ(events(), (Events{"set " + profile + R"( "")", "set " + member + " true"}));
    tree.del("/cliConfig/pathGroupConfig[a]");
    EXPECT_EQ(events(), (Events{"del " + profile + " null", "del " + member + " null"}));
    // A group that is made whole before it is announced.
    config->pathGroupConfigIs("a", [](auto& group) { group.localIntfIs(Netz::IntfId("wan1")); });
    EXPECT_EQ(events(), (Events{"set " + profile + R"( "")", "set " + member + " true"}));

    set(hop, R"({"fecId":5})");
    nexthops->vrf("default")->nexthopIs({*Netz::IpGenAddr::parse("192.0.2.2"), 6});
    set(hop, R"({"fecId":7})");
    tree.del("/nexthopStatus/vrf[default]");
    EXPECT_EQ(events(), (Events{"set " + hop + "/fecId 5", "set " + hop + "/fecId 7",
                                "del " + hop + "/fecId null"}));
    watches.remove(*this);
    tree.del(member);
    EXPECT_EQ(events(), Events{});
}

TEST_F(WatchTest, FollowsChildrenAndRootsThatComeAndGo) {
    for (const char* path : {"/navStatusDir", "/navDb/lbId"}) watch(path);
    status->navLbProfileStatusIs("lb");
    status->navLbProfileStatus()->lbProfileStatusEntryIs({}).genIdIs(1);
    status->navLbProfileStatusDel();
    EXPECT_THROW(set("/navStatusDir/navLbProfileStatus", "{}"), Agent::TreeError);
    const std::string lb = "/navStatusDir/navLbProfileStatus";
    const Events told = events();
    ASSERT_EQ(told.size(), 4u);
    EXPECT_EQ(told[0], "set " + lb + R"( {"name":"lb","lbProfileStatusEntry":{}})");
    EXPECT_EQ(told[3], "del " + lb + " null");

    database = Vel::make<Nav::NavDb>("NavDb");
    watches.rootChanged();
    database->lbIdIs(3);
    database = nullptr;
    watches.rootChanged();
    watches.rootChanged();
    EXPECT_EQ(events(), (Events{"set /navDb/lbId 0", "set /navDb/lbId 3", "del /navDb/lbId null"}));
}

// A subscriber that is called before the watch undoes a change.
TEST_F(WatchTest, TellsTheStateAsItIsWhenItIsTold) {
    struct Undo {
        Nav::NavCliConfig& config;
        void handleGroup(const Vel::Name& name) {
            if (name == "a") config.pathGroupConfigDel(name);
            if (name == "b") config.pathGroupConfigIs(name);
        }
        void handlePort() {
            if (config.udpPortConfig() == 7) config.udpPortConfigIs(8);
        }
        Vel::Subscription subscription = Vel::Subscription::to<&Undo::handleGroup>(
            config, Nav::NavCliConfig::pathGroupConfigAttr, this);
        Vel::Subscription port = Vel::Subscription::to<&Undo::handlePort>(
            config, Nav::NavCliConfig::udpPortConfigAttr, this);
    } undo{*config};
    watch("/cliConfig");
    set("/cliConfig/pathGroupConfig[a]/localIntf[wan1]", "true");
    set("/cliConfig/udpPortConfig", "7");
    EXPECT_EQ(events(), Events{"set /cliConfig/udpPortConfig 8"}) << "once";
    const std::string b = "/cliConfig/pathGroupConfig[b]";
    set(b, "{}"), tree.del(b);
    events();
    set(b + "/ipsecProfile", R"("x")");
    EXPECT_EQ(events(), Events{"set " + b + R"(/ipsecProfile "x")"}) << "of the one in its place";
}

}  // namespace
