#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

class PathConstructionTest : public NavFixture {};

// The site and destination of most tests, and the paths to it.
constexpr const char* site = "10.255.0.2";
constexpr const char* dst = "198.51.100.2";

TEST_F(PathConstructionTest, GroupsAddressesAndDestinationsComeAndGo) {
    start();
    auto& traces = capture("path");
    listIntf("internet", "wan1");
    via("internet", site, dst);
    via("internet", "10.255.0.3", "198.51.100.3");
    address("lan1", "192.0.2.1/24");
    const PathKey first = key("203.0.113.1", dst), second = key("203.0.113.1", "198.51.100.3");
    address("wan1", "203.0.113.1/24");
    EXPECT_EQ(configuredPaths(), (std::set{first, second}));
    for (const char* text :
         {"Path group internet added", "Intf wan1 doesnt have ip address yet",
          "Intf lan1 is not a WAN intf", "prevAddr 0.0.0.0 addr 203.0.113.1 intf: wan1",
          "vrfName: default vrfId: 0", "remoteVia 198.51.100.2 viaAddr 10.255.0.2",
          "Adding path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 ) for site  ( Path Group "
          "Name: internet peer ip: 10.255.0.2 )",
          "Creating pathIndex: 1 for path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 )"})
        EXPECT_TRUE(traced(text)) << text;

    traces.clear();
    address("wan1", "203.0.113.1/25");
    EXPECT_EQ(traces, std::vector<std::string>{"handleIntfPrimaryAddr wan1"})
        << "a new mask moves nothing";
    address("wan1", "203.0.113.9/24");
    std::string order;
    for (const std::string& text : traces)
        order += text.starts_with("Removing path ") ? "-" : text.starts_with("Adding ") ? "+" : "";
    EXPECT_EQ(order, "--++") << "all removals, then all additions";
    EXPECT_EQ(indexOf(key("203.0.113.9", dst)), 3u);
    in.ipStatusDir->ipIntfStatusDel(Netz::IntfId("wan1"));
    EXPECT_TRUE(configuredPaths().empty());
    EXPECT_TRUE(traced("Intf wan1 ip: 203.0.113.9"));

    address("wan1", "203.0.113.1/24");
    group("internet").remoteViaConfigDel(ip("10.255.0.3"));
    EXPECT_TRUE(traced("handleRemoteViaConfigDelete"));
    EXPECT_EQ(configuredPaths(), std::set{first});
    cli.pathGroupConfigDel("internet");
    for (const char* text :
         {"Path group internet deleted",
          "Deleting path:  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 ) for vrf: default",
          "Deleting pathConfig for path:  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 )"})
        EXPECT_TRUE(traced(text)) << text;
    EXPECT_TRUE(configuredPaths().empty());
}

TEST_F(PathConstructionTest, AVrfIdThatTwoReportBelongsToTheOneThatKeepsIt) {
    for (const char* vrf : {"red", "blue"}) vrfId(vrf, 5), in.nexthopStatus->vrfIs(vrf);
    intfVrf("wan1", "red"), address("wan1", "203.0.113.1/24"), listIntf("internet", "wan1");
    intfVrf("wan2", "blue"), address("wan2", "203.0.113.2/24"), listIntf("internet", "wan2");
    group("internet").ipsecProfileIs("psk"), via("internet", site, dst);
    start();
    const PathKey red = key("203.0.113.1", dst, 5), blue = key("203.0.113.2", dst, 5);
    // Whether the path has status in its VRF, is programmed, and has its IPsec request.
    const auto isWhole = [&](const PathKey& path, const char* vrf) {
        const auto program = [](HwPathStatusEntry& entry) {
            entry.hwPathIndexIs(1);
            entry.hwArpIndexIs(1);
        };
        in.hwPathStatus->hwPathStatusListIs({path.srcAddr, path.dstAddr, path.vrfId, indexOf(path)},
                                            program);
        const auto* entry = pathStatusDir().pathStatus(vrf)->pathStatusEntry(path);
        return entry && entry->programmed() &&
               in.ipsecPathConfigDir->ipsecPathConfig({path.srcAddr, path.dstAddr, vrf});
    };
    EXPECT_TRUE(isWhole(red, "red") && isWhole(blue, "blue"));
    vrfId("blue", 6);
    const PathKey moved = key("203.0.113.2", dst, 6);
    EXPECT_TRUE(isWhole(red, "red") && isWhole(moved, "blue"));
    EXPECT_EQ(configuredPaths(), (std::set{red, moved}));
    EXPECT_TRUE(*navDb().vrfIdToName(5) == "red" && *navDb().vrfIdToName(6) == "blue");

    in.routingHwRouteStatus->vrfStatusDel("blue"), vrfId("green", 6);  // replaced on the same id
    intfVrf("wan2", "green"), in.nexthopStatus->vrfIs("green");
    EXPECT_TRUE(isWhole(red, "red") && isWhole(moved, "green"));
    EXPECT_EQ(*navDb().vrfIdToName(6), "green");

    vrfId("green", 5), in.routingHwRouteStatus->vrfStatusDel("green");  // the first one stays
    EXPECT_TRUE(isWhole(red, "red") && *navDb().vrfIdToName(5) == "red");
    EXPECT_EQ(configuredPaths(), std::set{red});
}

}  // namespace
}  // namespace Nav::Test
