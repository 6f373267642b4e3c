#include <random>

#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

class PathConstructionTest : public NavFixture {
  protected:
    // Whatever happened before: an index is free or used once, and every place that speaks of a
    // path says the same of it.
    void checkInvariants() {
        NavDb& db = navDb();
        std::set<U32> indices;
        std::map<Netz::IpGenAddr, std::set<PathKey>> byAddr;
        std::map<Vel::String, std::set<PathKey>> byGroup;
        std::map<SiteGroupKey, std::set<U32>> bySite;
        std::set<PathKey> keys;
        for (const PathKeyInfo& info : db.pathKeyInfo()) {
            const PathKey& pathKey = info.pathKey();
            keys.insert(pathKey);
            byAddr[pathKey.srcAddr].insert(pathKey);
            byAddr[pathKey.dstAddr].insert(pathKey);
            byGroup[info.siteGroupKey().name].insert(pathKey);
            bySite[info.siteGroupKey()].insert(info.pathIndex());
            EXPECT_TRUE(indices.insert(info.pathIndex()).second) << info.pathIndex();
            const auto* vrf = in.pathConfigDir->pathConfig(info.vrfName());
            const auto* entry = vrf ? vrf->pathConfigEntry(pathKey) : nullptr;
            ASSERT_TRUE(entry) << pathKey;
            EXPECT_EQ(entry->pathIndex(), info.pathIndex());
            EXPECT_EQ(entry->ipsecProfile(), group(info.siteGroupKey().name).ipsecProfile());
            EXPECT_EQ(info.ipsecProfile(), entry->ipsecProfile());
            const auto* status = pathStatusDir().pathStatus(info.vrfName());
            EXPECT_TRUE(status && status->pathStatusEntry(pathKey)) << pathKey;
            // The interface named for the source is one that has it.
            const auto* intf = db.srcToIntfMapping(pathKey.srcAddr);
            ASSERT_TRUE(intf);
            const auto* ipStatus = in.ipStatusDir->ipIntfStatus(*intf);
            EXPECT_TRUE(ipStatus && ipStatus->activeAddrWithMask().addr == pathKey.srcAddr)
                << *intf;
        }
        EXPECT_EQ(keys, configuredPaths());
        EXPECT_EQ(indices.size() + dir().freePathIdCount(), 128u);
        EXPECT_TRUE(indices.empty() || (*indices.begin() >= 1 && *indices.rbegin() <= 128));
        std::map<Netz::IpGenAddr, std::set<PathKey>> found;
        for (const auto& addr : db.addrToPathKeySet())
            for (const PathKey& pathKey : addr.pathKey()) found[addr.addr()].insert(pathKey);
        EXPECT_EQ(found, byAddr);
        EXPECT_EQ(found.size(), db.addrToPathKeySet().size()) << "an empty set is left";
        size_t statuses = 0;
        for (const PathStatus& vrf : pathStatusDir().pathStatus())
            statuses += vrf.pathStatusEntry().size();
        EXPECT_EQ(statuses, keys.size());

        std::set<Netz::IpGenAddr> sites, sources;
        for (const PathKey& pathKey : keys) sources.insert(pathKey.srcAddr);
        for (const auto& [src, intf] : db.srcToIntfMapping())
            EXPECT_TRUE(sources.contains(src)) << src;
        for (const PathGroupConfig& config : cli.pathGroupConfig()) {
            const auto* info = db.pathGroupInfo(config.name());
            ASSERT_TRUE(info);
            std::set<PathKey> owned;
            for (const PathKey& pathKey : info->pathKeySet()) owned.insert(pathKey);
            EXPECT_EQ(owned, byGroup[config.name()]);
            for (const auto& site : config.remoteViaConfig()) sites.insert(site.remoteAddr());
            EXPECT_EQ(info->remoteIpList().size(), config.remoteViaConfig().size());
        }
        EXPECT_EQ(db.pathGroupInfo().size(), cli.pathGroupConfig().size());
        std::set<Netz::IpGenAddr> listed;
        for (const auto& site : in.navStatusDir->navRemoteIpList()) listed.insert(site);
        EXPECT_EQ(listed, sites);
        for (const auto& site : in.siteGroupStatus->siteGroupStatusEntry()) {
            EXPECT_FALSE(site.pathIndexEntry().empty()) << site.key();
            for (U32 index : site.pathIndexEntry())
                EXPECT_TRUE(bySite[site.key()].contains(index)) << site.key() << index;
        }
    }
    // What the configuration and the interfaces ask for, whose it may be included.
    std::map<PathKey, std::set<SiteGroupKey>> expectedPaths() {
        std::map<PathKey, std::set<SiteGroupKey>> paths;
        for (const PathGroupConfig& config : cli.pathGroupConfig())
            for (const Netz::IntfId& intf : config.localIntf()) {
                const auto* status = in.ipStatusDir->ipIntfStatus(intf);
                if (!status || status->activeAddrWithMask().addr.isZero()) continue;
                const auto* vrf = in.routingHwRouteStatus->vrfStatus(status->vrfName());
                const U32 id = vrf ? vrf->vrfId() : 0;
                if (id == 0 && status->vrfName() != "default") continue;
                for (const auto& site : config.remoteViaConfig())
                    for (const Netz::IpGenAddr& dst : site.remoteVia())
                        paths[{status->activeAddrWithMask().addr, dst, id}].insert(
                            {config.name(), site.remoteAddr()});
            }
        return paths;
    }
    void expectPaths(const std::set<PathKey>& keys) {
        EXPECT_EQ(configuredPaths(), keys);
        checkInvariants();
    }
    SiteGroupKey ownerOf(const PathKey& pathKey) {
        return navDb().pathKeyInfo(pathKey)->siteGroupKey();
    }
    const NavPathGroupDirSm& dir() { return *root->navContainer()->navPathGroupDirSm(); }
    std::string wanGroup(const char* intf) {
        const auto* name = dir().intfToPgName(Netz::IntfId(intf));
        return name ? *name : "(none)";
    }
    std::set<U32> usable(const SiteGroupKey& site) {
        std::set<U32> indices;
        if (const auto* entry = in.siteGroupStatus->siteGroupStatusEntry(site))
            for (U32 index : entry->pathIndexEntry()) indices.insert(index);
        return indices;
    }
    // As the forwarding agent and path resolution would.
    void program(const PathKey& pathKey, const char* vrf = "default") {
        pathStatusDir().pathStatus(vrf)->pathStatusEntry(pathKey)->programmedIs(true);
        in.siteGroupStatus->siteGroupStatusEntryIs(ownerOf(pathKey))
            .pathIndexEntryIs(indexOf(pathKey));
    }
};

// The site and destination of most tests, and the paths to it.
constexpr const char* site = "10.255.0.2";
constexpr const char* dst = "198.51.100.2";

TEST_F(PathConstructionTest, CrossProductInOrderOfConfiguration) {
    start();
    auto& traces = capture("path");
    listIntf("internet", "wan1");
    EXPECT_TRUE(traced("Path group internet added"));
    EXPECT_TRUE(traced("Intf wan1 doesnt have ip address yet"));
    listIntf("internet", "wan2");
    via("internet", site, dst);
    via("internet", site, "198.51.100.3");
    address("lan1", "192.0.2.1/24");
    EXPECT_TRUE(traced("Intf lan1 is not a WAN intf"));
    expectPaths({});
    traces.clear();
    address("wan1", "203.0.113.1/24");
    address("wan2", "203.0.113.2/24");
    expectPaths({key("203.0.113.1", dst), key("203.0.113.1", "198.51.100.3"),
                 key("203.0.113.2", dst), key("203.0.113.2", "198.51.100.3")});
    EXPECT_EQ(indexOf(key("203.0.113.1", dst)), 1u);
    EXPECT_EQ(indexOf(key("203.0.113.2", "198.51.100.3")), 4u);
    EXPECT_TRUE(traced("handleIntfPrimaryAddr"));
    EXPECT_TRUE(traced("prevAddr 0.0.0.0 addr 203.0.113.1 intf: wan1"));
    EXPECT_TRUE(traced("vrfName: default vrfId: 0"));
    EXPECT_TRUE(
        traced("Adding path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 ) for site  ( "
               "Path Group Name: internet peer ip: 10.255.0.2 )"));
    EXPECT_TRUE(
        traced("Creating pathIndex: 1 for path  ( Src: 203.0.113.1 Dst: 198.51.100.2 "
               "vrfId: 0 )"));
    EXPECT_TRUE(in.nexthopConfig->vrf("default"));

    noVia("internet", site, dst);
    expectPaths({key("203.0.113.1", "198.51.100.3"), key("203.0.113.2", "198.51.100.3")});
    EXPECT_TRUE(traced("remoteVia 198.51.100.2 viaAddr 10.255.0.2"));
    EXPECT_TRUE(
        traced("Deleting pathConfig for path:  ( Src: 203.0.113.2 Dst: 198.51.100.2 "
               "vrfId: 0 )"));
    group("internet").remoteViaConfigDel(ip(site));
    EXPECT_TRUE(traced("handleRemoteViaConfigDelete"));
    expectPaths({});

    via("internet", site, dst);
    traces.clear();
    cli.pathGroupConfigDel("internet");
    EXPECT_TRUE(traced("Path group internet deleted"));
    EXPECT_TRUE(
        traced("Deleting path:  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: 0 ) for vrf: "
               "default"));
    expectPaths({});
    EXPECT_EQ(wanGroup("wan1"), "(none)");
}

TEST_F(PathConstructionTest, IndicesAreUsedUpAndReturnToTheTail) {
    start();
    listIntf("internet", "wan1");
    address("wan1", "203.0.113.1/24");
    auto destination = [](int i) { return "198.51.100." + std::to_string(i); };
    for (int i = 1; i <= 128; ++i) via("internet", site, destination(i));
    EXPECT_EQ(indexOf(key("203.0.113.1", destination(128))), 128u);
    checkInvariants();
    for (int i : {5, 7}) noVia("internet", site, destination(i));
    via("internet", site, destination(201));
    noVia("internet", site, destination(9));
    via("internet", site, destination(202));
    EXPECT_EQ(indexOf(key("203.0.113.1", destination(201))), 5u);
    EXPECT_EQ(indexOf(key("203.0.113.1", destination(202))), 7u);
    via("internet", site, destination(203));
    checkInvariants();
    try {
        via("internet", site, destination(204));
        FAIL() << "a path without index";
    } catch (const AssertionFailed& failure) {
        EXPECT_STREQ(failure.what(), "freePathIds()");
    }
    noVia("internet", site, destination(204));
    checkInvariants();
}

TEST_F(PathConstructionTest, AnAddressMovesInTwoPasses) {
    listIntf("internet", "wan1");
    for (const char* s : {site, "10.255.0.3"}) via("internet", s, s == site ? dst : "198.51.100.3");
    address("wan1", "203.0.113.1/24");
    start();
    auto& traces = capture("path");
    address("wan1", "203.0.113.1/25");
    EXPECT_TRUE(traces.empty()) << "a new mask moves nothing";

    address("wan1", "203.0.113.9/24");
    std::string order;
    for (const std::string& text : traces)
        if (text.starts_with("Removing path "))
            order += '-';
        else if (text.starts_with("Adding path "))
            order += '+';
    EXPECT_EQ(order, "--++");
    EXPECT_TRUE(traced("prevAddr 203.0.113.1 addr 203.0.113.9 intf: wan1"));
    expectPaths({key("203.0.113.9", dst), key("203.0.113.9", "198.51.100.3")});
    EXPECT_EQ(indexOf(key("203.0.113.9", dst)), 3u);
    noAddress("wan1");
    expectPaths({});
    EXPECT_FALSE(navDb().srcToIntfMapping(ip("203.0.113.9")));
}

TEST_F(PathConstructionTest, AnInterfaceLosesExactlyItsOwnPaths) {
    start();
    for (const char* intf : {"wan1", "wan2"}) listIntf("internet", intf);
    via("internet", site, dst);
    vrfId("blue", 5);
    address("wan1", "203.0.113.1/24");
    address("wan2", "203.0.113.2/24");
    intfVrf("wan1", "blue");
    expectPaths({key("203.0.113.1", dst, 5), key("203.0.113.2", dst)});
    EXPECT_TRUE(in.pathConfigDir->pathConfig("blue")->pathConfigEntry(key("203.0.113.1", dst, 5)));
    auto& traces = capture("path");
    in.routingHwRouteStatus->vrfStatusDel("blue");  // the id is forgotten before the interface goes
    noIntf("wan1");
    expectPaths({key("203.0.113.2", dst)});
    EXPECT_TRUE(traced("handleIntfDelete"));
    EXPECT_TRUE(traced("Intf wan1 ip: 203.0.113.1"));
    traces.clear();
    noIntf("wan2");
    expectPaths({});
    address("wan2", "203.0.113.2/24");
    unlistIntf("internet", "wan2");
    expectPaths({});
    noIntf("wan2");
    EXPECT_TRUE(traced("Intf wan2 is not a WAN intf"));
}

TEST_F(PathConstructionTest, VrfIdsComeAndChange) {
    start();
    listIntf("internet", "wan1");
    via("internet", site, dst);
    intfVrf("wan1", "blue");
    address("wan1", "203.0.113.1/24");
    expectPaths({});
    EXPECT_TRUE(in.nexthopConfig->vrf("blue")) << "ensured before the id is known";
    EXPECT_TRUE(navDb().vrfNameToId().empty() && navDb().vrfIdToName().empty());
    vrfId("blue", 0);
    expectPaths({});
    EXPECT_TRUE(navDb().vrfNameToId().empty());
    vrfId("blue", 5);
    expectPaths({key("203.0.113.1", dst, 5)});
    EXPECT_EQ(*navDb().vrfNameToId("blue"), 5u);
    EXPECT_EQ(*navDb().vrfIdToName(5), "blue");
    vrfId("blue", 7);
    expectPaths({key("203.0.113.1", dst, 7)});
    vrfId("blue", 0);
    expectPaths({});
    vrfId("default", 3);
    intfVrf("wan1", "default");
    expectPaths({key("203.0.113.1", dst, 3)});
    in.routingHwRouteStatus->vrfStatusDel("default");
    expectPaths({key("203.0.113.1", dst, 0)});

    // Two VRFs with the same addresses exchange their ids.
    listIntf("internet", "wan2");
    intfVrf("wan1", "blue");
    intfVrf("wan2", "red");
    vrfId("blue", 1);
    vrfId("red", 2);
    address("wan2", "203.0.113.1/24");
    expectPaths({key("203.0.113.1", dst, 1), key("203.0.113.1", dst, 2)});
    vrfId("blue", 2);
    expectPaths({key("203.0.113.1", dst, 2)});
    EXPECT_EQ(navDb().pathKeyInfo(key("203.0.113.1", dst, 2))->vrfName(), "blue");
    vrfId("red", 1);
    expectPaths({key("203.0.113.1", dst, 1), key("203.0.113.1", dst, 2)});
    EXPECT_EQ(navDb().pathKeyInfo(key("203.0.113.1", dst, 1))->vrfName(), "red");
    EXPECT_EQ(*navDb().srcToIntfMapping(ip("203.0.113.1")), Netz::IntfId("wan2"));
    noAddress("wan2");
    EXPECT_EQ(*navDb().srcToIntfMapping(ip("203.0.113.1")), Netz::IntfId("wan1"));
    checkInvariants();
}

TEST_F(PathConstructionTest, AnInterfaceMovesBetweenGroupsInEitherOrder) {
    start();
    address("wan1", "203.0.113.1/24");
    via("a", site, dst);
    via("b", "10.255.0.3", "198.51.100.3");
    const PathKey ofA = key("203.0.113.1", dst), ofB = key("203.0.113.1", "198.51.100.3");
    for (int round = 0; round < 2; ++round) {
        listIntf("a", "wan1");
        expectPaths({ofA});
        listIntf("b", "wan1");
        expectPaths({ofA, ofB});
        address("wan1", "203.0.113.9/24");
        expectPaths({key("203.0.113.9", dst), key("203.0.113.9", "198.51.100.3")});
        address("wan1", "203.0.113.1/24");
        EXPECT_EQ(wanGroup("wan1"), "b");
        unlistIntf(round ? "b" : "a", "wan1");
        EXPECT_EQ(wanGroup("wan1"), round ? "a" : "b");
        expectPaths({round ? ofA : ofB});
        unlistIntf(round ? "a" : "b", "wan1");
        listIntf("a", "wan1");
        unlistIntf("a", "wan1");
        EXPECT_EQ(wanGroup("wan1"), "(none)");
        expectPaths({});
    }
    listIntf("a", "wan1");
    listIntf("b", "wan1");
    cli.pathGroupConfigDel("b");
    EXPECT_EQ(wanGroup("wan1"), "a");
    expectPaths({ofA});
}

TEST_F(PathConstructionTest, OnePathOfTwoSites) {
    start();
    address("wan1", "203.0.113.1/24");
    const PathKey pathKey = key("203.0.113.1", dst);
    const SiteGroupKey first{"a", ip(site)}, second{"b", ip("10.255.0.3")};
    group("b").ipsecProfileIs("gold");
    listIntf("a", "wan1");
    listIntf("b", "wan1");
    via("a", site, dst);
    program(pathKey);
    const U32 index = indexOf(pathKey);
    via("b", "10.255.0.3", dst);  // the last one owns, with all that hangs on it
    expectPaths({pathKey});
    EXPECT_EQ(ownerOf(pathKey), second);
    EXPECT_EQ(indexOf(pathKey), index);
    EXPECT_EQ(usable(second), std::set{index});
    EXPECT_TRUE(usable(first).empty());

    noVia("a", site, dst);  // by another: ignored
    expectPaths({pathKey});
    EXPECT_EQ(ownerOf(pathKey), second);
    via("a", site, dst);
    via("b", "10.255.0.4", dst);
    EXPECT_EQ(ownerOf(pathKey), (SiteGroupKey{"b", ip("10.255.0.4")}));
    cli.pathGroupConfigDel("b");  // both sites of it at once
    expectPaths({pathKey});
    EXPECT_EQ(ownerOf(pathKey), first);
    EXPECT_EQ(indexOf(pathKey), index);
    EXPECT_EQ(usable(first), std::set{index});
    noVia("a", site, dst);
    expectPaths({});
    EXPECT_TRUE(usable(first).empty());
}

TEST_F(PathConstructionTest, OneAddressOnTwoInterfaces) {
    start();
    for (const char* intf : {"wan1", "wan2"}) listIntf("internet", intf);
    via("internet", site, dst);
    const PathKey pathKey = key("203.0.113.1", dst);
    address("wan1", "203.0.113.1/24");
    const U32 index = indexOf(pathKey);
    // Moved to another interface, whose announcement comes first.
    address("wan2", "203.0.113.1/24");
    noAddress("wan1");
    expectPaths({pathKey});
    EXPECT_EQ(indexOf(pathKey), index);
    EXPECT_EQ(*navDb().srcToIntfMapping(ip("203.0.113.1")), Netz::IntfId("wan2"));
    address("wan1", "203.0.113.1/24");
    unlistIntf("internet", "wan1");
    expectPaths({pathKey});
    EXPECT_EQ(*navDb().srcToIntfMapping(ip("203.0.113.1")), Netz::IntfId("wan2"));
    noIntf("wan2");
    expectPaths({});
}

TEST_F(PathConstructionTest, RemoteAddressesWhileSomeGroupHasTheSite) {
    start();
    const auto& list = *in.navStatusDir;
    via("a", site, dst);
    via("b", site, "198.51.100.3");
    group("b").remoteViaConfigIs(ip("10.255.0.3"));
    EXPECT_TRUE(list.navRemoteIpListHas(ip(site)) && list.navRemoteIpListHas(ip("10.255.0.3")));
    group("a").remoteViaConfigDel(ip(site));
    EXPECT_TRUE(list.navRemoteIpListHas(ip(site)));
    checkInvariants();
    cli.pathGroupConfigDel("b");
    EXPECT_TRUE(list.navRemoteIpList().empty());
}

TEST_F(PathConstructionTest, ProfilesComeWithTheEntryAndClearingDeletes) {
    start();
    const PathKey pathKey = key("203.0.113.1", dst), other = key("203.0.113.1", "198.51.100.3");
    struct Watcher {
        void handleEntry(const PathKey& pathKey) {
            if (const auto* entry = config->pathConfigEntry(pathKey))
                seen.push_back(entry->ipsecProfile() + std::to_string(entry->pathIndex()));
        }
        PathConfig* config;
        std::vector<std::string> seen;
    } watcher{&in.pathConfigDir->pathConfigIs("default"), {}};
    const auto subscription = Vel::Subscription::to<&Watcher::handleEntry>(
        *watcher.config, PathConfig::pathConfigEntryAttr, &watcher);

    group("internet").ipsecProfileIs("gold");
    listIntf("internet", "wan1");
    via("internet", site, dst);
    address("wan1", "203.0.113.1/24");
    EXPECT_EQ(watcher.seen, std::vector<std::string>{"gold1"}) << "whole when it is announced";
    via("internet", site, "198.51.100.3");
    auto& traces = capture("path");
    group("internet").ipsecProfileIs("silver");
    EXPECT_TRUE(traced("Add ipsec for paths for remote 10.255.0.2 and via 198.51.100.2"));
    EXPECT_TRUE(
        traced("Using pathIndex: 1 for path  ( Src: 203.0.113.1 Dst: 198.51.100.2 vrfId: "
               "0 )"));
    EXPECT_EQ(configEntry(other)->ipsecProfile(), "silver");
    expectPaths({pathKey, other});
    traces.clear();
    group("internet").ipsecProfileIs("");
    EXPECT_TRUE(traced("Remove ipsec from paths for remote 10.255.0.2 and via 198.51.100.3"));
    expectPaths({});
    group("internet").ipsecProfileIs("gold");
    expectPaths({pathKey, other});
    EXPECT_EQ(indexOf(pathKey), 3u);
}

TEST_F(PathConstructionTest, WhereNobodyResolvesThePathIsWithdrawnHere) {
    listIntf("internet", "wan1");
    via("internet", site, dst);
    via("internet", site, "198.51.100.3");
    address("wan1", "203.0.113.1/24");
    start();
    const PathKey pathKey = key("203.0.113.1", dst), other = key("203.0.113.1", "198.51.100.3");
    for (bool resolved : {false, true}) {
        if (resolved) in.nexthopStatus->vrfIs("default");
        via("internet", site, dst);
        program(pathKey);
        program(other);
        const Vel::Ptr<PathStatusEntry> status(
            *pathStatusDir().pathStatus("default")->pathStatusEntry(pathKey));
        noVia("internet", site, dst);
        EXPECT_TRUE(resolved || !status->programmed());
        expectPaths({other});
        EXPECT_EQ(usable({"internet", ip(site)}), std::set{indexOf(other)});
        EXPECT_EQ(in.nexthopConfig->vrf("default")->nexthop().size(), resolved ? 1u : 0u);
    }
    noVia("internet", site, "198.51.100.3");
    EXPECT_FALSE(in.siteGroupStatus->siteGroupStatusEntry({"internet", ip(site)}));
    checkInvariants();
}

// Everything in every order, held against the plain cross product after each step.
TEST_F(PathConstructionTest, RandomWalk) {
    const unsigned seed = 20240611;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto pick = [&](auto... choices) {
        const char* all[] = {choices...};
        return all[random() % sizeof...(choices)];
    };
    auto intf = [&] { return pick("wan1", "wan2", "wan3"); };
    auto pg = [&] { return pick("a", "b", "c"); };
    auto remote = [&] { return pick("10.255.0.2", "10.255.0.3"); };
    auto destination = [&] { return pick("198.51.100.2", "198.51.100.3", "2001:db8::3"); };
    auto vrf = [&] { return pick("default", "blue", "red"); };
    start();
    for (int step = 0; step < 4000 && !HasFailure(); ++step) {
        const unsigned what = random() % 100;
        if (what < 14)
            address(intf(), pick("203.0.113.1/24", "203.0.113.2/24", "203.0.113.2/25"));
        else if (what < 18)
            noAddress(intf());
        else if (what < 21)
            noIntf(intf());
        else if (what < 29)
            intfVrf(intf(), vrf());
        else if (what < 37)
            vrfId(vrf(), random() % 3);
        else if (what < 39)
            in.routingHwRouteStatus->vrfStatusDel(vrf());
        else if (what < 54)
            listIntf(pg(), intf());
        else if (what < 60)
            unlistIntf(pg(), intf());
        else if (what < 78)
            via(pg(), remote(), destination());
        else if (what < 84)
            noVia(pg(), remote(), destination());
        else if (what < 87)
            group(pg()).remoteViaConfigDel(ip(remote()));
        else if (what < 89)
            cli.pathGroupConfigDel(pg());
        else if (what < 93)
            in.nexthopStatus->vrfIs(vrf());
        else if (what < 95)
            in.nexthopStatus->vrfDel(vrf());
        else if (what < 97)
            cli.navConfiguredIs(false), cli.navConfiguredIs(true);
        else if (const auto keys = configuredPaths(); !keys.empty())
            in.hwPathStatus->hwPathStatusListIs(
                {keys.begin()->srcAddr, keys.begin()->dstAddr, keys.begin()->vrfId,
                 indexOf(*keys.begin())},
                [](auto& entry) { entry.hwPathIndexIs(1), entry.hwArpIndexIs(1); });

        const auto expected = expectedPaths();
        EXPECT_EQ(configuredPaths().size(), expected.size());
        for (const auto& [pathKey, owners] : expected) {
            ASSERT_TRUE(configEntry(pathKey)) << pathKey << " at step " << step;
            EXPECT_TRUE(owners.contains(ownerOf(pathKey))) << pathKey;
        }
        checkInvariants();
        if (HasFailure()) ADD_FAILURE() << "at step " << step << ", event " << what;
    }
}

}  // namespace
}  // namespace Nav::Test
