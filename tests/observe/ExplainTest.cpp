// Every reason that `explain` can give, made to happen: on a host whose inputs the test writes, and
// on the simulated router.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/host/Host.h"
#include "agent/shell/Control.h"
#include "agent/sim/SimPlatform.h"
#include "tests/TempDir.h"

namespace Agent {
namespace {

using namespace std::chrono_literals;

Netz::IpGenAddr ip(std::string_view text) {
    return Netz::IpGenAddr::parse(text).value();
}

// The platform `manual`, with what a kernel's platform would know.
struct Manual final : Platform {
    Manual() : Platform("manual") {}
    std::optional<bool> linkUp(const Netz::IntfId&) const override { return up; }
    PathDetail detail(const Nav::PathStatusEntry&, const L3::VrfName&) const override {
        return known;
    }
    QualityStatus* quality() const override { return measured.get(); }
    Chosen choose(const Nav::LbProfileStatusEntry& entry) const override {
        return chooseMembers(
            entry, [this](Vel::U32 index) { return index != unused; },
            [this](Vel::U32 index) { return index != unsuitable; });
    }

    std::optional<bool> up;
    PathDetail known;
    const Vel::Ptr<QualityStatus> measured = Vel::make<QualityStatus>("quality");
    Vel::U32 unused = 0, unsuitable = 0;
};

class ExplainTest : public testing::Test, public Session {
  public:
    void sendEvent(const Line&) override {}
    void startEvents() override {}

  protected:
    void start(std::unique_ptr<Platform> platform) {
        control.reset();
        host.reset();
        host.emplace(*scheduler, std::move(platform));
        control.emplace(host->controlled());
    }
    Json ask(const Json& request) {
        scheduler->runDue();
        return control->handle(request.at("op"), request, *this).value;
    }
    // The reason of the group's only path and where it is shown, which is a place of the tree.
    std::string reason() {
        const Json row = ask({{"op", "explain"}, {"path", "wan1"}}).at("paths").back();
        EXPECT_EQ(row["state"] == "up", row["shownBy"].is_null()) << row;
        if (row["shownBy"].is_null()) return row["reason"].get<std::string>();
        if (!row["shownBy"].get<std::string>().starts_with("navctl "))
            host->tree().parse(row["shownBy"].get<std::string>());
        return row["reason"].get<std::string>() + " @ " + row["shownBy"].get<std::string>();
    }
    Nav::NavInputs& in() { return host->inputs(); }
    Nav::PathGroupConfig& group() { return in().cliConfig->pathGroupConfigIs("internet"); }

    Loom::ManualClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    std::optional<Host> host;
    std::optional<Control> control;
};

class ManualExplainTest : public ExplainTest {
  protected:
    // A router with one path, which is up.
    void start() {
        auto owned = std::make_unique<Manual>();
        platform = owned.get();
        ExplainTest::start(std::move(owned));
        auto& config = *in().cliConfig;
        group().localIntfIs(Netz::IntfId("wan1"));
        group().remoteViaConfigIs(ip("10.255.0.2")).remoteViaIs(ip("198.51.100.2"));
        auto& wan1 = in().ipStatusDir->ipIntfStatusIs(Netz::IntfId("wan1"));
        wan1.activeAddrWithMaskIs(*Netz::IpAddrWithMask::parse("203.0.113.1/24"));
        in().routingHwRouteStatus->vrfStatusIs("default");
        auto& results = in().nexthopStatus->vrfIs("default");
        viaIs("wan1");
        auto& profile = config.loadBalanceProfileIs("quick");
        profile.pathGroupPriorityIs("internet", 1);
        auto& policy = config.policyConfigIs("office");
        auto& rule = policy.appProfilePolicyRuleListIs(10);
        rule.appProfileIdIs(4);
        rule.appProfileNameIs("voice");
        rule.lbGrpNameIs("quick");
        policy.configVersionInc(1);
        config.vrfConfigIs("default").policyNameIs("office");
        config.navConfiguredIs(true);
        results.nexthopIs({ip("198.51.100.2"), 1});
        scheduler->runDue();
        auto& hardware = in().hwPathStatus->hwPathStatusListIs(inHardware);
        hardware.hwPathIndexIs(1);
        hardware.hwArpIndexIs(1);
    }
    void viaIs(const char* interface) {
        const Shard::Fib::Via via{.hop = ip("203.0.113.254"), .intfId = Netz::IntfId(interface)};
        in().forwardingStatus->fecIs(1, {{via}});
    }
    void silent() { in().hwPathStatus->hwPathStatusListDel(inHardware); }

    const Nav::HwPathKey inHardware{ip("203.0.113.1"), ip("198.51.100.2"), 0, 1};
    Manual* platform = nullptr;
};

TEST_F(ManualExplainTest, EachConditionOfAPath) {
    const std::string status = " @ /ipStatusDir/ipIntfStatus[wan1]";
    const std::string hardware = " @ /hwPathStatus/hwPathStatusList[203.0.113.1,198.51.100.2,0,1]";
    const struct {
        std::string reason;
        std::function<void()> cause;
    } cases[] = {
        {"nothing checks beyond next hop 203.0.113.254", [] {}},
        {"path selection is switched off @ /cliConfig/navConfigured",
         [this] { in().cliConfig->navConfiguredIs(false); }},
        {"interface wan1 does not exist" + status,
         [this] { in().ipStatusDir->ipIntfStatusDel(Netz::IntfId("wan1")); }},
        {"interface wan1 is down" + status,
         [this] {
             silent();
             platform->up = false;
         }},
        {"interface wan1 has no address" + status,
         [this] {
             in().ipStatusDir->ipIntfStatus(Netz::IntfId("wan1"))->activeAddrWithMaskIs({});
         }},
        {"interface wan1 has only an IPv6 address, 198.51.100.2 is of the other family" + status,
         [this] {
             in().ipStatusDir->ipIntfStatus(Netz::IntfId("wan1"))
                 ->activeAddrWithMaskIs(*Netz::IpAddrWithMask::parse("2001:db8::1/64"));
         }},
        {"the id of VRF blue is not known @ /routingHwRouteStatus/vrfStatus[blue]",
         [this] { in().ipStatusDir->ipIntfStatus(Netz::IntfId("wan1"))->vrfNameIs("blue"); }},
        {"the path with this source and destination is one of path group a @ "
         "/navDb/pathKeyInfo[203.0.113.1,198.51.100.2,0]",
         [this] {
             auto& other = in().cliConfig->pathGroupConfigIs("a");
             other.localIntfIs(Netz::IntfId("wan1"));
             other.remoteViaConfigIs(ip("10.255.0.2")).remoteViaIs(ip("198.51.100.2"));
         }},
        {"path selection has not set up the path from wan1 @ /pathConfigDir",
         [this] {
             in().pathConfigDir->pathConfigDelAll();
             host->database()->pathKeyInfoDelAll();
         }},
        {"no route to 198.51.100.2 in VRF default @ /nexthopStatus/vrf[default]/nexthop",
         [this] {
             silent();
             in().nexthopStatus->vrf("default")->nexthopDel(ip("198.51.100.2"));
         }},
        {"the route to 198.51.100.2 does not leave by interface wan1, but by wan2 @ "
         "/forwardingStatus/fec[1]",
         [this] {
             silent();
             viaIs("wan2");
         }},
        {"the route to 198.51.100.2 does not leave by interface wan1 or any other @ "
         "/forwardingStatus/fec[1]",
         [this] {
             silent();
             in().forwardingStatus->fecDel(1);
         }},
        {"the IPsec connection is not established: no proposal chosen @ "
         "/ipsecPathStatusDir/ipsecPathStatus[203.0.113.1,198.51.100.2,default]",
         [this] {
             silent();
             group().ipsecProfileIs("strong");
             platform->known.ipsec = "no proposal chosen";
         }},
        {"path selection has not resolved the path @ /navStatusDir/navPathStatusDir",
         [this] {
             silent();
             group().ipsecProfileIs("strong");
             in().ipsecPathConfigDir->ipsecPathConfigDelAll();
         }},
        {"next hop 203.0.113.254 does not answer" + hardware,
         [this] { in().hwPathStatus->hwPathStatusList(inHardware)->hwArpIndexIs(0); }},
        {"the forwarding side has not programmed the path by next hop 203.0.113.254" + hardware,
         [this] { silent(); }},
        {"the kernel refused next hop 7: no space left" + hardware,
         [this] {
             silent();
             platform->known.refused = "the kernel refused next hop 7: no space left";
         }},
        {"what is beyond next hop 203.0.113.254 does not answer probes @ navctl show quality",
         [this] {
             silent();
             platform->measured->pathQualityIs(1, {.state = PathLiveness::dead});
         }},
    };
    for (const auto& [expected, cause] : cases) {
        SCOPED_TRACE(expected);
        start();
        cause();
        EXPECT_EQ(reason(), expected);
    }
    start();
    platform->measured->pathQualityIs(1, {.state = PathLiveness::alive});
    EXPECT_TRUE(ask({{"op", "explain"}}).at("paths").at(0).at("reason").is_null());
}

TEST_F(ManualExplainTest, EachConditionOfAnApplication) {
    const auto lb = [this]() -> Nav::LbProfileStatusEntry& {
        return *in().navStatusDir->navLbProfileStatus()->lbProfileStatusEntry(
            {ip("10.255.0.2"), 4, 0});
    };
    const struct {
        std::string reason;
        std::function<void()> cause;
    } cases[] = {
        {"", [] {}},
        {"path selection is switched off", [this] { in().cliConfig->navConfiguredIs(false); }},
        {"policy none is not configured",
         [this] { in().cliConfig->vrfConfigIs("default").policyNameIs("none"); }},
        {"load-balance profile quick is not configured",
         [this] { in().cliConfig->loadBalanceProfileDel("quick"); }},
        {"no path group of its load-balance profile has a site",
         [this] { group().remoteViaConfigDelAll(); }},
        {"the id of VRF blue is not known",
         [this] {
             in().cliConfig->vrfConfigDelAll();
             in().cliConfig->vrfConfigIs("blue").policyNameIs("office");
         }},
        {"no path to 10.255.0.3 has come up yet",
         [this] {
             group().remoteViaConfigDelAll();
             group().remoteViaConfigIs(ip("10.255.0.3")).remoteViaIs(ip("198.51.100.3"));
         }},
        {"no path to the site is usable, next hop 203.0.113.254 does not answer",
         [this] { in().hwPathStatus->hwPathStatusList(inHardware)->hwArpIndexIs(0); }},
        {"no path to the site is usable, loss 4.1 % > 1 %",
         [&] {
             lb().lossRateIs(1);
             platform->unused = 1;
             platform->measured->pathQualityIs(1, {.lossForward = 4.1, .lossBackward = 0});
         }},
        {"no path to the site is usable, not good for long enough: loss 0.1 % <= 1 %",
         [&] {
             lb().lossRateIs(1);
             platform->unused = 1;
             platform->measured->pathQualityIs(1, {.lossForward = 0.1, .lossBackward = 0});
         }},
        {"no path to the site is usable, it is a member of the load-balance id, but not used",
         [this] { platform->unused = 1; }},
        {"no path meets its constraints", [this] { platform->unsuitable = 1; }},
        {"no path to the site is usable, it is up, but not a member of the load-balance id",
         [&] { lb().pathEntryDelAll(); }},
    };
    for (const auto& [expected, cause] : cases) {
        SCOPED_TRACE(expected);
        start();
        cause();
        const Json row = ask({{"op", "explain"}}).at("applications").at(0);
        std::string found = row["reason"].is_null() ? "" : row["reason"].get<std::string>();
        for (const Json& better : row["better"])
            found += (found.empty() ? "" : ", ") + better["reason"].get<std::string>();
        EXPECT_EQ(found, expected) << row;
    }
}

// Somebody damages what is published, or forgets to raise a policy's version.
TEST_F(ManualExplainTest, ValidateFindsEachDifference) {
    const struct {
        std::string difference;
        std::function<void()> cause;
    } cases[] = {
        {"[]", [] {}},
        {"is requested in VRF default", [this] { in().pathConfigDir->pathConfigDelAll(); }},
        {"not programmed",
         [this] {
             auto& vrf = *in().navStatusDir->navPathStatusDir()->pathStatus("default");
             for (auto& path : vrf.pathStatusEntry()) path.programmedIs(false);
         }},
        {"missing: site internet,10.255.0.2 has path 203.0.113.1 -> 198.51.100.2 of VRF id 0",
         [this] {
             for (auto& site : in().siteGroupStatus->siteGroupStatusEntry())
                 site.pathIndexEntryDel(1);
         }},
        {"not expected: next hop 10.9.9.9 is requested in VRF default",
         [this] { in().nexthopConfig->vrf("default")->nexthopIs(ip("10.9.9.9")); }},
        {"not expected: load-balance key",
         [this] {
             auto& ids = *in().navStatusDir->navLbProfileStatus();
             ids.lbProfileStatusEntry({ip("10.255.0.2"), 4, 0})->pathEntryIs({1, 9, "internet"});
         }},
        {"missing: VRF default has rule",
         [this] {
             auto& policy = *in().cliConfig->policyConfig("office");
             policy.appProfilePolicyRuleListIs(11).lbGrpNameIs("quick");
         }},
        {"load-balance id 1 has 2 users",
         [this] {
             auto& ids = *in().navStatusDir->navLbProfileStatus();
             ids.lbProfileStatusEntryIs({ip("10.9.9.9"), 1, 0}).lbIndexIs(1);
         }},
    };
    for (const auto& [difference, cause] : cases) {
        SCOPED_TRACE(difference);
        start();
        cause();
        const std::string found = ask({{"op", "validate"}}).dump();
        EXPECT_NE(found.find(difference), std::string::npos) << found;
    }
}

TEST_F(ManualExplainTest, EventsNameCauseAndAuthor) {
    start();
    ask({{"op", "explain"}});
    const auto newest = [this] {
        std::string text;
        const Json events = ask({{"op", "events"}, {"last", 3U}});
        for (const Json& event : events)
            text += event["subject"].get<std::string>() + " " + event["event"].get<std::string>() +
                    " <- " + event["cause"].dump() + "\n";
        return text;
    };
    const std::string path = "Path1 203.0.113.1 -> 198.51.100.2 (internet, 10.255.0.2)";
    const std::string voice = "site 10.255.0.2 VRF default: voice ";
    platform->up = false;
    silent();
    clock.advance(Observer::settleTime);
    scheduler->runDue();
    EXPECT_EQ(newest(), "wan1 is down <- null\n" + path +
                            " is down <- \"interface wan1 is down\"\n" + voice +
                            "over no path instead of Path1 <- \"Path1: interface wan1 is down\"\n");
    const Json before = ask({{"op", "explain"}, {"path", "Path1"}});
    EXPECT_EQ(before["applications"].size(), 0u);
    EXPECT_EQ(before, ask({{"op", "explain"}, {"path", "wan1"}})) << "since when has not moved";
    EXPECT_THROW(ask({{"op", "explain"}, {"path", "Path2"}}), RequestError);

    start();
    ask({{"op", "explain"}});
    silent();
    in().cliConfig->pathGroupConfigDel("internet");
    clock.advance(Observer::settleTime);
    scheduler->runDue();
    EXPECT_NE(newest().find(path + " is down <- \"path group internet is not configured\"\n"),
              std::string::npos)
        << newest();
}

// The file of a process that was killed may end in half a line.
TEST(EventsTest, AFileKeepsTheNewestAcrossRestarts) {
    const TempDir directory;
    const std::string file = directory.path + "/events";
    const auto add = [](Events& events, size_t number) {
        events.add({Event::Kind::path, "Path1", std::to_string(number), {}, {}});
    };
    {
        Events events(file);
        for (size_t i = 0; i < 3 * Events::capacity; ++i) add(events, i);
        EXPECT_EQ(events.newest(10 * Events::capacity).size(), Events::capacity);
    }
    std::ofstream(file, std::ios::app) << "{\"event\": \"hal";
    for (size_t restart = 0; restart < 2; ++restart) {
        Events events(file);
        EXPECT_EQ(events.newest(1).at(0).at("event"),
                  std::to_string(3 * Events::capacity - 1 + restart));
        add(events, 3 * Events::capacity + restart);
    }
    EXPECT_LE(std::filesystem::file_size(file), 2 * Events::capacity * 120);
}

class SimExplainTest : public ExplainTest {
  protected:
    static constexpr const char* world = R"({
        "interfaces": {"wan1": {"v4": "203.0.113.1/24", "neighbours": {"203.0.113.254": 20}}},
        "vrfs": {"default": {
            "routes": {"198.51.100.0/24": [{"gateway": "203.0.113.254", "interface": "wan1"}]},
            "peers": {"198.51.100.2": {"handshake": 100, "retry": 500}}}}})";
};

TEST_F(SimExplainTest, ReasonsThatOnlyTheRouterKnows) {
    auto owned = std::make_unique<Sim::SimPlatform>(Sim::readHistory(parseJson(world)));
    Sim::SimPlatform& platform = *owned;
    start(std::move(owned));
    group().localIntfIs(Netz::IntfId("wan1"));
    group().remoteViaConfigIs(ip("10.255.0.2")).remoteViaIs(ip("198.51.100.2"));
    group().ipsecProfileIs("strong");
    in().cliConfig->navConfiguredIs(true);
    const std::string connection =
        " @ /ipsecPathStatusDir/ipsecPathStatus[203.0.113.1,198.51.100.2,default]";
    const std::string notEstablished = "the IPsec connection is not established: ";
    EXPECT_EQ(reason(), notEstablished + "connecting" + connection);
    const struct {
        const char* patch;
        std::string reason;
    } cases[] = {
        {"{}", "nothing checks beyond next hop 203.0.113.254"},
        {R"({"interfaces": {"wan1": {"neighbours": null}}})",
         "next hop 203.0.113.254 does not answer @ "
         "/hwPathStatus/hwPathStatusList[203.0.113.1,198.51.100.2,0,1]"},
        {R"({"interfaces": {"wan1": {"up": false}}})",
         "interface wan1 is down @ /ipStatusDir/ipIntfStatus[wan1]"},
        {R"({"vrfs": {"default": {"peers": {"198.51.100.2": {"fault": "refuses"}}}}})",
         notEstablished + "the peer refused it" + connection},
        {R"({"vrfs": {"default": {"peers": {"198.51.100.2": {"fault": "silent", "retry": 900}}}}})",
         notEstablished + "the peer does not answer" + connection},
        {R"({"vrfs": {"default": {"peers": null}}})",
         notEstablished + "no peer is known at 198.51.100.2" + connection},
    };
    for (const auto& [patch, expected] : cases) {
        Json changed = parseJson(world);
        changed.merge_patch(parseJson(patch));
        platform.router().worldIs(Sim::readHistory(changed).first);
        for (int i = 0; i < 700; ++i, clock.advance(1ms)) {
            scheduler->runDue();
            if (i % 10 != 0) continue;
            EXPECT_EQ(ask({{"op", "validate"}}), Json::array()) << i << " ms";
        }
        EXPECT_EQ(reason(), expected) << patch;
    }
}

}  // namespace
}  // namespace Agent
