#include <functional>

#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

class PathConstructionTest : public NavFixture {
  protected:
    // Whatever happened before: an index is free or used once, and every place that speaks of a
    // path says the same of it.
    void checkInvariants() {
        std::set<U32> indices;
        std::set<PathKey> keys;
        for (const PathKeyInfo& info : navDb().pathKeyInfo()) {
            const PathKey& pathKey = info.pathKey();
            keys.insert(pathKey);
            EXPECT_TRUE(indices.insert(info.pathIndex()).second) << info.pathIndex();
            EXPECT_EQ(indexOf(pathKey), info.pathIndex());
            const auto* status = pathStatusDir().pathStatus(info.vrfName());
            EXPECT_TRUE(status && status->pathStatusEntry(pathKey)) << pathKey;
            for (const auto& addr : {pathKey.srcAddr, pathKey.dstAddr})
                EXPECT_TRUE(navDb().addrToPathKeySet(addr)->pathKeyHas(pathKey)) << addr;
        }
        EXPECT_EQ(keys, configuredPaths());
        EXPECT_EQ(indices.size() + dir().freePathIdCount(), 128u);
    }
    void expectPaths(const std::set<PathKey>& keys) {
        EXPECT_EQ(configuredPaths(), keys);
        checkInvariants();
    }
    const NavPathGroupDirSm& dir() { return *root->navContainer()->navPathGroupDirSm(); }
};

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
    expectPaths({first, second});
    EXPECT_EQ(indexOf(first), 1u);
    EXPECT_EQ(indexOf(second), 2u);
    for (const char* text :
         {"Path group internet added", "Intf wan1 doesnt have ip address yet",
          "Intf lan1 is not a WAN intf", "handleIntfPrimaryAddr",
          "prevAddr 0.0.0.0 addr 203.0.113.1 intf: wan1", "vrfName: default vrfId: 0",
          "remoteVia 198.51.100.2 viaAddr 10.255.0.2",
          "Adding path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 ) for site  ( Path Group "
          "Name: internet peer ip: 10.255.0.2 )",
          "Creating pathIndex: 1 for path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 )"})
        EXPECT_TRUE(traced(text)) << text;

    traces.clear();
    address("wan1", "203.0.113.1/25");
    EXPECT_TRUE(traces.empty()) << "a new mask moves nothing";
    address("wan1", "203.0.113.9/24");
    std::string order;
    for (const std::string& text : traces)
        order += text.starts_with("Removing path ") ? "-" : text.starts_with("Adding ") ? "+" : "";
    EXPECT_EQ(order, "--++") << "all removals, then all additions";
    EXPECT_EQ(indexOf(key("203.0.113.9", dst)), 3u);
    noIntf("wan1");
    expectPaths({});
    EXPECT_TRUE(traced("Intf wan1 ip: 203.0.113.9"));

    address("wan1", "203.0.113.1/24");
    group("internet").remoteViaConfigDel(ip("10.255.0.3"));
    EXPECT_TRUE(traced("handleRemoteViaConfigDelete"));
    expectPaths({first});
    cli.pathGroupConfigDel("internet");
    for (const char* text :
         {"Path group internet deleted",
          "Deleting path:  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 ) for vrf: default",
          "Deleting pathConfig for path:  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 )"})
        EXPECT_TRUE(traced(text)) << text;
    expectPaths({});
}

TEST_F(PathConstructionTest, IndicesAreUsedUpAndReturnToTheTail) {
    start();
    listIntf("internet", "wan1");
    address("wan1", "203.0.113.1/24");
    auto destination = [](int i) { return "198.51.100." + std::to_string(i); };
    for (int i = 1; i <= 128; ++i) via("internet", site, destination(i));
    checkInvariants();
    for (int i : {5, 7}) noVia("internet", site, destination(i));
    via("internet", site, destination(201));
    noVia("internet", site, destination(9));
    via("internet", site, destination(202));
    via("internet", site, destination(203));
    EXPECT_EQ(indexOf(key("203.0.113.1", destination(201))), 5u);
    EXPECT_EQ(indexOf(key("203.0.113.1", destination(202))), 7u);
    EXPECT_EQ(indexOf(key("203.0.113.1", destination(203))), 9u);
    try {
        via("internet", site, destination(204));
        FAIL() << "a path without index";
    } catch (const AssertionFailed& failure) {
        EXPECT_STREQ(failure.what(), "freePathIds()");
    }
    noVia("internet", site, destination(204));
    checkInvariants();
}

TEST_F(PathConstructionTest, ProfilesComeWithTheEntryAndClearingDeletes) {
    start();
    const PathKey pathKey = key("203.0.113.1", dst);
    PathConfig& config = in.pathConfigDir->pathConfigIs("default");
    std::string seen;
    On watcher(config, PathConfig::pathConfigEntryAttr, [&] {
        if (const auto* entry = config.pathConfigEntry(pathKey))
            seen += entry->ipsecProfile() + std::to_string(entry->pathIndex()) + " ";
    });

    group("internet").ipsecProfileIs("gold");
    listIntf("internet", "wan1");
    via("internet", site, dst);
    address("wan1", "203.0.113.1/24");
    auto& traces = capture("path");
    group("internet").ipsecProfileIs("silver");
    EXPECT_TRUE(traced("Add ipsec for paths for remote 10.255.0.2 and via 198.51.100.2"));
    EXPECT_TRUE(
        traced("Using pathIndex: 1 for path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: "
               "0 )"));
    expectPaths({pathKey});
    traces.clear();
    group("internet").ipsecProfileIs("");
    EXPECT_TRUE(traced("Remove ipsec from paths for remote 10.255.0.2 and via 198.51.100.2"));
    expectPaths({});
    group("internet").ipsecProfileIs("gold");
    expectPaths({pathKey});
    EXPECT_EQ(seen, "gold1 gold2 ") << "whole when it is announced";
}

// A host may change the inputs from within a notification; what is left afterwards must agree.
TEST_F(PathConstructionTest, InputsChangeWhilePathsAreRemoved) {
    listIntf("internet", "wan1");
    for (const char* destination : {dst, "198.51.100.3"}) via("internet", site, destination);
    vrfId("blue", 5);
    intfVrf("wan1", "blue");
    address("wan1", "203.0.113.1/24");
    start();
    std::function<void()> react;
    On entries(*in.pathConfigDir->pathConfig("blue"), PathConfig::pathConfigEntryAttr,
               [&, busy = false]() mutable {
                   if (std::exchange(busy, true)) return;
                   react();
                   busy = false;
               });
    react = [&] { address("wan1", "203.0.113.2/24"); };
    address("wan1", "203.0.113.9/24");
    expectPaths({key("203.0.113.2", dst, 5), key("203.0.113.2", "198.51.100.3", 5)});
    react = [&] { via("internet", site, dst); };
    noVia("internet", site, dst);
    expectPaths({key("203.0.113.2", dst, 5), key("203.0.113.2", "198.51.100.3", 5)});
    react = [&, id = 6u]() mutable { vrfId("blue", id++); };
    noIntf("wan1");
    expectPaths({});
}

}  // namespace
}  // namespace Nav::Test
