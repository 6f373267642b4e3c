// Requests on a tree of entities: what they answer, what they refuse, and that a refused one has
// changed nothing; and what a watch tells.
#include <gtest/gtest.h>

#include "agent/model/Tree.h"
#include "agent/model/Watch.h"
#include "nav/config/NavCliConfig.h"
#include "nav/types/NavDb.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/Ipsec.h"
#include "platform/services/Routing.h"
#include "platform/shard/ForwardingStatus.h"

namespace {

using Agent::Json;
using Agent::Root;

class TreeTest : public testing::Test {
  protected:
    TreeTest() { status->navPathStatusDirIs("navPathStatusDir"); }

    template <class E>
    static Vel::Ptr<E> make(const char* name) {
        return Vel::make<E>(name);
    }

    // "ok", the value, or the reason of the refusal.
    std::string get(const std::string& path) {
        return answer([&] { return tree.get(path).dump(); });
    }
    std::string set(const std::string& path, const std::string& value) {
        return answer([&] {
            tree.set(path, Agent::parseJson(value));
            return std::string("ok");
        });
    }
    std::string del(const std::string& path) {
        return answer([&] {
            tree.del(path);
            return std::string("ok");
        });
    }
    template <class F>
    static std::string answer(F&& request) {
        try {
            return request();
        } catch (const Agent::TreeError& error) {
            return error.what();
        }
    }
    std::string everything() {
        std::string all;
        for (const char* root : {"cliConfig", "navStatusDir", "nexthopStatus", "forwardingStatus",
                                 "ipsecPathStatusDir"})
            all += get(std::string("/") + root) + "\n";
        return all;
    }

    Vel::Ptr<Nav::NavCliConfig> config = make<Nav::NavCliConfig>("cliConfig");
    Vel::Ptr<Nav::NavStatusDir> status = make<Nav::NavStatusDir>("navStatusDir");
    Vel::Ptr<Routing::NexthopStatus> nexthops = make<Routing::NexthopStatus>("nexthopStatus");
    Vel::Ptr<Shard::Fib::ForwardingStatus> fib =
        make<Shard::Fib::ForwardingStatus>("forwardingStatus");
    Vel::Ptr<Ipsec::Path::PathStatusDir> ipsec =
        make<Ipsec::Path::PathStatusDir>("ipsecPathStatusDir");
    Vel::Ptr<Nav::NavDb> database;
    Agent::Tree tree{{Root::of("cliConfig", *config), Root::of("navStatusDir", *status),
                      Root::of("nexthopStatus", *nexthops), Root::of("forwardingStatus", *fib),
                      Root::of("ipsecPathStatusDir", *ipsec),
                      Root{"navDb", &Nav::NavDb::velType, [this] { return database.get(); },
                           "nobody writes this"}}};
};

// A key of one free text is raw in JSON; in a path, and in a key of several fields, it is escaped.
TEST_F(TreeTest, AwkwardKeysNameTheSameEntryInPathsAndInJson) {
    ASSERT_EQ(set(R"(/cliConfig/pathGroupConfig[a[0\]\,\\/"])", "{}"), "ok");
    EXPECT_NE(config->pathGroupConfig(R"(a[0],\/")"), nullptr);
    EXPECT_EQ(set("/cliConfig", R"({"pathGroupConfig":{"a[0],\\/\"":{"ipsecProfile":"x"}}})"),
              "ok");
    EXPECT_EQ(config->pathGroupConfig().size(), 1u);
    EXPECT_EQ(get(R"(/cliConfig/pathGroupConfig[a[0\],\\/"]/ipsecProfile)"), R"("x")");

    // Keys of several fields.
    const std::string path =
        R"(/ipsecPathStatusDir/ipsecPathStatus[192.0.2.1,2001:db8::1,r\,\]\\])";
    ASSERT_EQ(set(path, R"({"key":{"srcAddr":"192.0.2.1","dstAddr":"2001:db8:0::1",)"
                        R"("vrfName":"r,]\\"}})"),
              "ok");
    const Json all = tree.get("/ipsecPathStatusDir/ipsecPathStatus");
    EXPECT_EQ(set("/ipsecPathStatusDir", Json{{"ipsecPathStatus", all}}.dump()), "ok");
    EXPECT_EQ(ipsec->ipsecPathStatus().size(), 1u);
    EXPECT_EQ(del(path), "ok");
    EXPECT_EQ(ipsec->ipsecPathStatus().size(), 0u);
}

TEST_F(TreeTest, ARefusedRequestSaysWhereAndWhyAndChangesNothing) {
    set("/cliConfig/pathGroupConfig[a]/localIntf[wan1]", "true");
    set("/nexthopStatus/vrf[default]/nexthop[192.0.2.1]", R"({"fecId":5})");
    const std::string before = everything(), none = "del";
    const std::string status = "/navStatusDir/navPathStatusDir/pathStatus[x]/pathStatusEntry";
    struct Case {
        std::string path, value, reason;
    };
    for (const auto& [path, value, reason] : std::initializer_list<Case>{
             {"cliConfig/udpPortConfig", "1", "expected a '/'"},
             {"/nowhere", "1", "/nowhere: not found"},
             {"/cliConfig/udpPortConfig[1]", "1", "takes no key"},
             {"/cliConfig/pathGroupConfig/ipsecProfile", "\"x\"", "needs a key"},
             {"/cliConfig/name", "\"other\"", "the key is \"cliConfig\""},
             // The fault comes last; what stands before it must not have been done.
             {"/cliConfig",
              R"({"udpPortConfig":1,"pathGroupConfig":{"a":{"localIntf":["w"]},"b":{"name":"c"}}})",
              "/cliConfig/pathGroupConfig[b]/name: the key is \"b\""},
             {"/nexthopStatus/vrf[blue]/nexthop",
              R"({"192.0.2.7":{},"192.0.2.8":{"addr":"192.0.2.9"}})",
              "/nexthop[192.0.2.8]: expected the key 192.0.2.8"},
             {status + "[192.0.2.1,192.0.2.2]", "{}", "a key of 3 fields"},
             {status + "[192.0.2.1,192.0.2.2,0]/pathInfo/pathIndex", "1", "set whole"},
             {"/navStatusDir/navLbProfileStatus", "{}", "not found, and it cannot be created"},
             {"/navDb/lbId", "1", "nobody writes this"},
             {"/cliConfig/pathGroupConfig[a]/localIntf[wan2]", none, "[wan2]: not found"},
             {"/cliConfig/pathGroupConfig", none, "by its key"}}) {
        const std::string answer = value == none ? del(path) : set(path, value);
        EXPECT_NE(answer.find(reason), std::string::npos) << path << " " << answer;
        EXPECT_EQ(everything(), before) << path << " " << value;
    }
}

class WatchTest : public TreeTest {
  protected:
    struct Watcher final : Agent::Watcher {
        void sendEvent(const Line& line) override { lines.push_back(line); }
        std::vector<Line> lines;
    };
    void watch(const std::string& path) { watches.add(tree.parse(path), watcher); }
    std::vector<std::string> events() {
        std::vector<std::string> told;
        for (const auto& line : std::exchange(watcher.lines, {})) {
            const Json event = Agent::parseJson(*line);
            told.push_back(event.at("event").get<std::string>() + " " +
                           event.at("path").get<std::string>() + " " + event.at("value").dump());
        }
        return told;
    }
    using Events = std::vector<std::string>;

    Watcher watcher;
    Agent::Watches watches{tree};
};

TEST_F(WatchTest, TellsWhatChangesAtOrBelowThePathInOrder) {
    watch("/cliConfig/pathGroupConfig[a]");
    set("/cliConfig/pathGroupConfig[b]/localIntf[wan9]", "true");
    EXPECT_EQ(events(), Events{});
    const std::string a = "/cliConfig/pathGroupConfig[a]";
    set(a + "/remoteViaConfig[192.0.2.1]", R"({"remoteVia":["2001:db8::1"]})");
    for (int i = 0; i < 2; ++i) set(a, R"({"ipsecProfile":"x","localIntf":["wan1"]})");
    del(a + "/remoteViaConfig[192.0.2.1]");
    del(a);
    EXPECT_EQ(
        events(),
        (Events{
            "set " + a + R"( {"name":"a","localIntf":[],"remoteViaConfig":{},"ipsecProfile":""})",
            "set " + a + R"(/remoteViaConfig[192.0.2.1] {"remoteAddr":"192.0.2.1","remoteVia":[]})",
            "set " + a + "/remoteViaConfig[192.0.2.1]/remoteVia[2001:db8::1] true",
            "set " + a + R"(/ipsecProfile "x")", "set " + a + "/localIntf[wan1] true",
            "del " + a + "/remoteViaConfig[192.0.2.1] null", "del " + a + " null"}));
    watches.remove(watcher);
    set(a, "{}");
    EXPECT_EQ(events(), Events{});
}

TEST_F(WatchTest, TellsOfAPathThatComesAndGoesWithWhatHoldsIt) {
    const std::string member = "/cliConfig/pathGroupConfig[a]/localIntf[wan1]";
    const std::string hop = "/nexthopStatus/vrf[default]/nexthop[192.0.2.1]";
    const std::string profile = R"(/cliConfig/pathGroupConfig[a]/ipsecProfile)";
    for (const std::string& path : {member, hop + "/fecId", profile}) watch(path);
    set(member, "true");
    EXPECT_EQ(events(), (Events{"set " + profile + R"( "")", "set " + member + " true"}));
    del("/cliConfig/pathGroupConfig[a]");
    EXPECT_EQ(events(), (Events{"del " + profile + " null", "del " + member + " null"}));
    // A group that is made whole before it is announced.
    config->pathGroupConfigIs("a", [](auto& group) { group.localIntfIs(Netz::IntfId("wan1")); });
    EXPECT_EQ(events(), (Events{"set " + profile + R"( "")", "set " + member + " true"}));

    set(hop, R"({"fecId":5})");
    nexthops->vrf("default")->nexthopIs({*Netz::IpGenAddr::parse("192.0.2.2"), 6});
    set(hop, R"({"fecId":7})");
    del("/nexthopStatus/vrf[default]");
    EXPECT_EQ(events(), (Events{"set " + hop + "/fecId 5", "set " + hop + "/fecId 7",
                                "del " + hop + "/fecId null"}));
}

TEST_F(WatchTest, FollowsChildrenAndRootsThatComeAndGo) {
    for (const char* path : {"/navStatusDir", "/navDb/lbId"}) watch(path);
    status->navLbProfileStatusIs("lb");
    status->navLbProfileStatus()->lbProfileStatusEntryIs({}).genIdIs(1);
    status->navLbProfileStatusDel();
    const std::string lb = "/navStatusDir/navLbProfileStatus";
    const Events told = events();
    ASSERT_EQ(told.size(), 4u);
    EXPECT_EQ(told[0], "set " + lb + R"( {"name":"lb","lbProfileStatusEntry":{}})");
    EXPECT_EQ(told[3], "del " + lb + " null");

    database = make<Nav::NavDb>("NavDb");
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
    EXPECT_EQ(set("/cliConfig/pathGroupConfig[a]/localIntf[wan1]", "true"), "ok");
    EXPECT_EQ(set("/cliConfig/udpPortConfig", "7"), "ok");
    EXPECT_EQ(events(), Events{"set /cliConfig/udpPortConfig 8"}) << "once";
    const std::string b = "/cliConfig/pathGroupConfig[b]";
    for (const auto& answer : {set(b, "{}"), del(b)}) EXPECT_EQ(answer, "ok");
    events();
    EXPECT_EQ(set(b + "/ipsecProfile", R"("x")"), "ok");
    EXPECT_EQ(events(), Events{"set " + b + R"(/ipsecProfile "x")"}) << "of the one in its place";
}

}  // namespace
