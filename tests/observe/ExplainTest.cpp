// Every reason that `explain` can give, made to happen on a host whose inputs the test writes; what
// `validate` finds, and what is recorded.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/InProcess.h"
#include "tests/TempDir.h"

namespace Agent {
namespace {

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

// A router with one path, which is up. "/place value" sets, "/place" deletes.
const std::string group = "/cliConfig/pathGroupConfig[internet]", site = "/remoteViaConfig[",
                  binding = "/cliConfig/vrfConfig", wan1 = "/ipStatusDir/ipIntfStatus[wan1]",
                  address = wan1 + "/activeAddrWithMask ",
                  secured = group + R"(/ipsecProfile "strong")",
                  route = "/nexthopStatus/vrf[default]/nexthop[198.51.100.2]",
                  fec = "/forwardingStatus/fec[1]",
                  connection = "[203.0.113.1,198.51.100.2,default]",
                  hardware = "/hwPathStatus/hwPathStatusList[203.0.113.1,198.51.100.2,0,1]",
                  lb = "/navStatusDir/navLbProfileStatus/lbProfileStatusEntry[10.255.0.2,4,0]";
const std::vector<std::string> onePath = {
    group + "/localIntf[wan1] true",
    group + site + "10.255.0.2]/remoteVia[198.51.100.2] true",
    address + R"("203.0.113.1/24")",
    "/routingHwRouteStatus/vrfStatus[default] {}",
    "/nexthopStatus/vrf[default] {}",
    fec + R"( [{"hop":"203.0.113.254","intfId":"wan1"}])",
    "/cliConfig/loadBalanceProfile[quick]/pathGroupPriority[internet] 1",
    R"(/cliConfig/policyConfig[office] {"configVersion":1,"appProfilePolicyRuleList":)"
    R"({"10":{"appProfileId":4,"appProfileName":"voice","lbGrpName":"quick"}}})",
    binding + R"([default]/policyName "office")",
    "/cliConfig/navConfigured true",
    route + R"( {"fecId":1})"};

class ExplainTest : public testing::Test, public InProcess {
  protected:
    // What is explained or found; how the router came to it, and what its platform knows of it.
    struct Case {
        std::string expected;
        std::vector<std::string> changes;
        std::function<void(Manual&)> known = [](Manual&) {};
    };
    void each(const std::vector<Case>& cases,
              const std::function<void(const std::string&)>& check) {
        for (const Case& each : cases) {
            SCOPED_TRACE(each.expected);
            start();
            each.known(*platform);
            for (const std::string& request : each.changes) change(request);
            check(each.expected);
        }
    }
    void start() {
        auto owned = std::make_unique<Manual>();
        platform = owned.get();
        startAgent(std::move(owned));
        for (const std::string& request : onePath) change(request);
        scheduler->runDue();
        change(hardware + R"( {"hwPathIndex":1,"hwArpIndex":1})");
    }
    Json ask(const Json& request) {
        scheduler->runDue();
        return InProcess::ask(request);
    }
    // The newest events, after all that is due soon.
    std::string newest() {
        pass(Observer::settleTime);
        std::string text;
        const Json events = ask({{"op", "events"}, {"last", 3U}});
        for (const Json& event : events)
            text += event["subject"].get<std::string>() + " " + event["event"].get<std::string>() +
                    " <- " + event["cause"].dump() + "\n";
        return text;
    }

    Manual* platform = nullptr;
};

TEST_F(ExplainTest, EachConditionOfAPath) {
    const std::string status = " @ " + wan1, programmed = " @ " + hardware;
    const std::string isSilent = "next hop 203.0.113.254 does not answer";
    const std::vector<Case> cases = {
        {"nothing checks beyond next hop 203.0.113.254", {}},
        {"path selection is switched off @ /cliConfig/navConfigured",
         {"/cliConfig/navConfigured false"}},
        {"interface wan1 does not exist" + status, {wan1}},
        {"interface wan1 is down" + status, {hardware}, [](Manual& m) { m.up = false; }},
        {"interface wan1 has no address" + status, {address + R"("0.0.0.0/0")"}},
        {"interface wan1 has only an IPv6 address, 198.51.100.2 is of the other family" + status,
         {address + R"("2001:db8::1/64")"}},
        {"the id of VRF blue is not known @ /routingHwRouteStatus/vrfStatus[blue]",
         {wan1 + R"(/vrfName "blue")"}},
        {"the path with this source and destination is one of path group a @ "
         "/navDb/pathKeyInfo[203.0.113.1,198.51.100.2,0]",
         {R"(/cliConfig/pathGroupConfig[a] {"localIntf":["wan1"],"remoteViaConfig":)"
          R"({"10.255.0.2":{"remoteVia":["198.51.100.2"]}}})"}},
        {"no route to 198.51.100.2 in VRF default @ /nexthopStatus/vrf[default]/nexthop",
         {hardware, route}},
        {"the route to 198.51.100.2 does not leave by interface wan1, but by wan2 @ " + fec,
         {hardware, fec + R"( [{"intfId":"wan2"}])"}},
        {"the route to 198.51.100.2 does not leave by interface wan1 or any other @ " + fec,
         {hardware, fec}},
        {"the IPsec connection is not established: no proposal chosen @ "
         "/ipsecPathStatusDir/ipsecPathStatus" +
             connection,
         {hardware, secured},
         [](Manual& m) { m.known.ipsec = "no proposal chosen"; }},
        {"path selection has not resolved the path @ /navStatusDir/navPathStatusDir",
         {hardware, secured, "/ipsecPathConfigDir/ipsecPathConfig" + connection}},
        {isSilent + programmed, {hardware + "/hwArpIndex 0"}},
        {"the forwarding side has not programmed the path by next hop 203.0.113.254" + programmed,
         {hardware}},
        {"the kernel refused next hop 7: no space left" + programmed,
         {hardware},
         [](Manual& m) { m.known.refused = "the kernel refused next hop 7: no space left"; }},
        {"what is beyond " + isSilent + " probes @ navctl show quality", {hardware}, [](Manual& m) {
             m.measured->pathQualityIs(1, {.state = PathLiveness::dead});
         }}};
    each(cases, [this](const std::string& expected) {
        const Json row = ask({{"op", "explain"}, {"path", "wan1"}}).at("paths").back();
        EXPECT_EQ(row["state"] == "up", row["shownBy"].is_null()) << row;
        std::string found = row["reason"];
        if (!row["shownBy"].is_null()) {
            const std::string place = row["shownBy"];
            if (!place.starts_with("navctl ")) host->tree().parse(place);
            found += " @ " + place;
        }
        EXPECT_EQ(found, expected);
    });
    start();
    platform->measured->pathQualityIs(1, {.state = PathLiveness::alive});
    EXPECT_TRUE(ask({{"op", "explain"}}).at("paths").at(0).at("reason").is_null());
}

TEST_F(ExplainTest, EachConditionOfAnApplication) {
    const std::string unusable = "no path to the site is usable, ";
    const auto lossy = [](double loss) {
        return [loss](Manual& m) {
            m.unused = 1;
            m.measured->pathQualityIs(1, {.lossForward = loss, .lossBackward = 0});
        };
    };
    const std::vector<Case> cases = {
        {"", {}},
        {"path selection is switched off", {"/cliConfig/navConfigured false"}},
        {"policy none is not configured", {binding + R"([default]/policyName "none")"}},
        {"load-balance profile quick is not configured", {"/cliConfig/loadBalanceProfile[quick]"}},
        {"no path group of its load-balance profile has a site", {group + site + "10.255.0.2]"}},
        {"the id of VRF blue is not known",
         {binding + "[default]", binding + R"([blue]/policyName "office")"}},
        {"no path to 10.255.0.3 has come up yet",
         {group + site + "10.255.0.2]", group + site + "10.255.0.3]/remoteVia[198.51.100.3] true"}},
        {unusable + "next hop 203.0.113.254 does not answer", {hardware + "/hwArpIndex 0"}},
        {unusable + "loss 4.1 % > 1 %", {lb + "/lossRate 1"}, lossy(4.1)},
        {unusable + "not good for long enough: loss 0.1 % <= 1 %",
         {lb + "/lossRate 1"},
         lossy(0.1)},
        {unusable + "it is a member of the load-balance id, but not used",
         {},
         [](Manual& m) { m.unused = 1; }},
        {"no path meets its constraints", {}, [](Manual& m) { m.unsuitable = 1; }},
        {unusable + "it is up, but not a member of the load-balance id", {lb + "/pathEntry[1]"}}};
    each(cases, [this](const std::string& expected) {
        const Json row = ask({{"op", "explain"}}).at("applications").at(0);
        std::string found = row["reason"].is_null() ? "" : row["reason"].get<std::string>();
        for (const Json& better : row["better"])
            found += (found.empty() ? "" : ", ") + better["reason"].get<std::string>();
        EXPECT_EQ(found, expected) << row;
    });
    EXPECT_TRUE(ask({{"op", "explain"}, {"application", "voice"}}).at("paths").empty());
}

// Somebody damages what is published, or forgets to raise a policy's version.
TEST_F(ExplainTest, ValidateFindsEachDifference) {
    const std::vector<Case> cases = {
        {"[]", {}},
        {"is requested in VRF default", {"/pathConfigDir/pathConfig[default]"}},
        {"not programmed",
         {"/navStatusDir/navPathStatusDir/pathStatus[default]/pathStatusEntry[203.0.113.1,"
          "198.51.100.2,0]/programmed false"}},
        {"missing: site internet,10.255.0.2 has path 203.0.113.1 -> 198.51.100.2 of VRF id 0",
         {"/siteGroupStatus/siteGroupStatusEntry[internet,10.255.0.2]/pathIndexEntry[1]"}},
        {"not expected: next hop 10.9.9.9 is requested in VRF default",
         {"/nexthopConfig/vrf[default]/nexthop[10.9.9.9] true"}},
        {"not expected: load-balance key", {lb + R"(/pathEntry[1] {"priority":9})"}},
        {"missing: VRF default has rule",
         {R"(/cliConfig/policyConfig[office]/appProfilePolicyRuleList[11]/lbGrpName "quick")"}},
        {"load-balance id 1 has 2 users",
         {"/navStatusDir/navLbProfileStatus/lbProfileStatusEntry[10.9.9.9,1,0]/lbIndex 1"}}};
    each(cases, [this](const std::string& difference) {
        const std::string found = ask({{"op", "validate"}}).dump();
        EXPECT_NE(found.find(difference), std::string::npos) << found;
    });
}

TEST_F(ExplainTest, EventsNameCauseAndAuthor) {
    start();
    ask({{"op", "explain"}});
    const std::string path = "Path1 203.0.113.1 -> 198.51.100.2 (internet, 10.255.0.2)";
    platform->up = false;
    change(hardware);
    EXPECT_EQ(newest(), "wan1 is down <- null\n" + path +
                            " is down <- \"interface wan1 is down\"\nsite 10.255.0.2 VRF default: "
                            "voice over no path instead of Path1 <- \"Path1: interface wan1 is "
                            "down\"\n");
    const Json before = ask({{"op", "explain"}, {"path", "Path1"}});
    EXPECT_EQ(before["applications"].size(), 0u);
    EXPECT_EQ(before, ask({{"op", "explain"}, {"path", "wan1"}})) << "since when has not moved";
    EXPECT_THROW(ask({{"op", "explain"}, {"path", "Path2"}}), RequestError);
    // A link with an IPv6 address alone has it in both directories.
    for (const char* directory : {"/ipStatusDir", "/ip6StatusDir"})
        change(directory +
               (R"(/ipIntfStatus[wan6]/activeAddrWithMask "2001:db8::1/64")" + std::string()));
    const Json wan6 = ask({{"op", "interfaces"}}).at(1);
    EXPECT_TRUE(wan6["address"].is_null() && wan6["address6"] == "2001:db8::1/64") << wan6;

    // A path without an index has no name.
    start();
    change(address + R"("0.0.0.0/0")"), newest();
    change(wan1);
    EXPECT_NE(newest().find("wan1 -> 198.51.100.2 (internet, 10.255.0.2) is still down <- "
                            "\"interface wan1 does not exist\"\n"),
              std::string::npos);

    start();
    ask({{"op", "explain"}});
    change(hardware), change(group);
    EXPECT_NE(newest().find(path + " is down <- \"path group internet is not configured\"\n"),
              std::string::npos);
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

}  // namespace
}  // namespace Agent
