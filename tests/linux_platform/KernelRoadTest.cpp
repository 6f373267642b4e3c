// From the kernel's events to the paths: the agent in process, on the kernel's own network.
#include <malloc.h>

#include <cstdio>
#include <fstream>

#include "agent/Host.h"
#include "agent/linux/LinuxPlatform.h"
#include "tests/linux_platform/Network.h"

namespace Agent::Linux {
namespace {

using std::chrono::milliseconds;

// An agent on platform linux whose path group uses both links towards two sites.
struct Agent {
    explicit Agent(int receiveBuffer = KernelMonitor::defaultReceiveBuffer)
        : host(*scheduler, std::make_unique<LinuxPlatform>(loop, receiveBuffer)) {
        Nav::NavCliConfig& config = *host.inputs().cliConfig;
        auto& group = config.pathGroupConfigIs("internet");
        group.localIntfIs(Netz::IntfId("wan1"));
        group.localIntfIs(Netz::IntfId("wan2"));
        for (const char* site : {"2", "3"})
            group.remoteViaConfigIs(addr(std::string("10.255.0.") + site))
                .remoteViaIs(addr(std::string("198.51.100.") + site));
        config.navConfiguredIs(true);
    }

    static Netz::IpGenAddr addr(std::string_view text) { return *Netz::IpGenAddr::parse(text); }
    const KernelMonitor& monitor() const {
        return static_cast<const LinuxPlatform&>(host.platform()).monitor();
    }
    bool await(const std::function<bool()>& condition) {
        const auto deadline = clock.now() + std::chrono::seconds(10);
        while (!condition()) {
            if (clock.now() > deadline) return false;
            loop.runOnce(milliseconds(20));
        }
        return true;
    }
    // Of both links to the first and then to the second site.
    testing::AssertionResult become(std::vector<std::string> states) {
        static const char* const paths[] = {"203.0.113.1 198.51.100.2", "192.0.2.1 198.51.100.2",
                                            "203.0.113.1 198.51.100.3", "192.0.2.1 198.51.100.3"};
        Paths wanted;
        for (size_t i = 0; i < states.size(); ++i)
            if (!states[i].empty()) wanted[paths[i]] = states[i];
        if (await([&] { return readPaths(host.show("NAVPATHS")) == wanted; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << host.show("NAVPATHS");
    }
    // How many paths of a site are usable.
    unsigned usable(const char* site) {
        const auto* entry =
            host.inputs().siteGroupStatus->siteGroupStatusEntry({"internet", addr(site)});
        return entry ? entry->pathIndexEntry().size() : 0;
    }
    // The forwarding entry of an address, as text.
    std::string fec(const char* to) {
        const auto* result = host.inputs().nexthopStatus->vrf("default")->nexthop(addr(to));
        if (!result) return "none";
        std::string text;
        for (const auto& via : host.inputs().forwardingStatus->fec(result->fecId)->vias())
            text += via.hop.stringValue() + "@" + via.intfId.stringValue() + "*" +
                    std::to_string(via.weight) + " ";
        return text;
    }

    Loom::MonotonicClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    EventLoop loop{*scheduler};
    Host host;
};

const char* const route = "Route Pending";
const char* const arp = "Arp Pending";
const char* const up = "Estab";

constexpr const char* bothRoutes =
    "route replace 198.51.100.2 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n"
    "route replace 198.51.100.3 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n";

class KernelRoad : public Network {};

TEST_F(KernelRoad, PathsFollowRoutesOfTwoLinksToTwoSites) {
    Agent agent;
    ASSERT_TRUE(agent.become({route, route, route, route}));
    ASSERT_TRUE(ip("route add 198.51.100.2 via 203.0.113.254\n"));
    ASSERT_TRUE(agent.become({up, route, route, route}));
    EXPECT_EQ(agent.usable("10.255.0.3"), 0U);
    // Both sites by both links, with weights of their own.
    ASSERT_TRUE(
        ip("route replace 198.51.100.2 nexthop via 203.0.113.254 weight 3 "
           "nexthop via 192.0.2.254 weight 200\n"
           "route add 198.51.100.0/24 nexthop via 203.0.113.253 nexthop via 192.0.2.254\n"));
    ASSERT_TRUE(agent.become({up, up, up, up}));
    EXPECT_EQ(agent.fec("198.51.100.2"), "192.0.2.254@wan2*200 203.0.113.254@wan1*3 ");
    EXPECT_EQ(agent.fec("198.51.100.3"), "192.0.2.254@wan2*1 203.0.113.253@wan1*1 ");
    EXPECT_EQ(agent.usable("10.255.0.2") + agent.usable("10.255.0.3"), 4U);
    // A route that leaves the link leaves its path with the via of before, but not usable.
    ASSERT_TRUE(ip("route replace 198.51.100.2 via 192.0.2.254\n"));
    ASSERT_TRUE(agent.become({arp, up, up, up}));
    EXPECT_EQ(agent.usable("10.255.0.2"), 1U);
    // The more specific route goes: the other one is there for both.
    ASSERT_TRUE(ip("route del 198.51.100.2\n"));
    ASSERT_TRUE(agent.become({up, up, up, up}));
    EXPECT_EQ(agent.host.inputs().forwardingStatus->fec().size(), 1U);
    for (const char* kind : {"blackhole", "unreachable", "prohibit"}) {
        ASSERT_TRUE(ip("route replace " + std::string(kind) + " 198.51.100.2\n"));
        ASSERT_TRUE(agent.become({route, route, up, up})) << kind;
        ASSERT_TRUE(ip("route del 198.51.100.2\n"));
        ASSERT_TRUE(agent.become({up, up, up, up})) << kind;
    }
    ASSERT_TRUE(ip("route del 198.51.100.0/24\n"));
    ASSERT_TRUE(agent.become({route, route, route, route}));
    EXPECT_EQ(agent.host.inputs().forwardingStatus->fec().size(), 0U);
    EXPECT_EQ(agent.host.inputs().hwPathStatus->hwPathStatusList().size(), 0U);
}

TEST_F(KernelRoad, AnAgentThatStartsLateOrLosesItsAddressEndsWhereOthersDo) {
    ASSERT_TRUE(ip(bothRoutes));
    Agent agent;
    ASSERT_TRUE(agent.become({up, up, up, up}));
    ASSERT_TRUE(ip("addr del 192.0.2.1/24 dev wan2\n"));  // its routes stay
    ASSERT_TRUE(agent.become({up, "", up, ""}));
    EXPECT_EQ(agent.host.inputs().hwPathStatus->hwPathStatusList().size(), 2U);
    ASSERT_TRUE(ip("addr add 192.0.2.1/24 dev wan2\n"));
    ASSERT_TRUE(agent.become({up, up, up, up}));
    // A secured path asks for a connection, and is not used without.
    auto& group = *agent.host.inputs().cliConfig->pathGroupConfig("internet");
    group.ipsecProfileIs("strong");
    ASSERT_TRUE(agent.become({"Ipsec Pending", "Ipsec Pending", "Ipsec Pending", "Ipsec Pending"}));
    EXPECT_EQ(agent.host.inputs().hwPathStatus->hwPathStatusList().size(), 0U);
    group.ipsecProfileIs("");
    // Switched off and on, the feature ends in the same state.
    for (const bool on : {false, true}) agent.host.inputs().cliConfig->navConfiguredIs(on);
    ASSERT_TRUE(agent.become({up, up, up, up}));
}

TEST_F(KernelRoad, NeighbourThatFailsTakesItsPathsUntilItComesBack) {
    ASSERT_TRUE(inInternet("addr del 203.0.113.254/24 dev isp1\n"));  // promotes .253
    ASSERT_TRUE(inInternet("addr replace 203.0.113.253/24 dev isp1\n"));
    ASSERT_TRUE(ip(bothRoutes));
    Agent agent;
    // Nobody is there yet; the kernel is asked, and gives up.
    ASSERT_TRUE(agent.become({arp, up, arp, up}));
    ASSERT_TRUE(inInternet("addr add 203.0.113.254/24 dev isp1\n"));
    ASSERT_TRUE(agent.become({up, up, up, up}));
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(inInternet("addr del 192.0.2.254/24 dev isp2\n"));
        ASSERT_TRUE(ip("neigh change 192.0.2.254 dev wan2 nud failed\n"));
        ASSERT_TRUE(agent.become({up, arp, up, arp}));
        EXPECT_EQ(agent.usable("10.255.0.2"), 1U);
        ASSERT_TRUE(inInternet("addr add 192.0.2.254/24 dev isp2\n"));
        ASSERT_TRUE(agent.become({up, up, up, up}));
        EXPECT_EQ(agent.usable("10.255.0.2"), 2U);
    }
    // An entry that is merely forgotten is asked for again.
    ASSERT_TRUE(ip("neigh del 192.0.2.254 dev wan2\nneigh del 203.0.113.254 dev wan1\n"));
    ASSERT_TRUE(agent.await([&] { return agent.usable("10.255.0.2") == 0; }));
    ASSERT_TRUE(agent.become({up, up, up, up}));
}

// With a link that goes down, the kernel drops routes over it and keeps those that have another
// leg.
TEST_F(KernelRoad, LinkThatFlapsAThousandTimesLeavesNothingBehind) {
    const char* const single = "route replace 198.51.100.3 via 203.0.113.254\n";
    ASSERT_TRUE(ip(bothRoutes) && ip(single));
    Agent agent;
    ASSERT_TRUE(agent.become({up, up, up, route}));
    const auto resident = [] {
        malloc_trim(0);
        long pages = 0, residentPages = 0;
        std::ifstream("/proc/self/statm") >> pages >> residentPages;
        return residentPages * sysconf(_SC_PAGESIZE) / 1024;
    };
    long before = 0;
    for (int flaps = 0; flaps <= 1000; ++flaps) {
        if (flaps == 200) before = resident();
        flap("wan1", {false, true});
        // Now and then all that comes of it happens, else it is cut short by the next.
        agent.loop.runOnce(milliseconds(flaps % 3));
        if (flaps % 20 != 0) continue;
        ASSERT_TRUE(agent.become({up, up, route, route})) << flaps;
        ASSERT_TRUE(ip(single));
        ASSERT_TRUE(agent.become({up, up, up, route})) << flaps;
    }
    const long after = resident();
    std::printf("resident after 200 flaps %ld KiB, after 1000 %ld KiB\n", before, after);
    EXPECT_LT(after - before, 512);
    EXPECT_EQ(agent.host.inputs().forwardingStatus->fec().size(), 2U);
    EXPECT_EQ(agent.host.inputs().hwPathStatus->hwPathStatusList().size(), 3U);
}

TEST_F(KernelRoad, NamesThatMoveFromLinkToLinkTakeThePathsAlong) {
    ASSERT_TRUE(ip(bothRoutes));
    Agent agent;
    ASSERT_TRUE(agent.become({up, up, up, up}));
    // A running link may not be renamed everywhere; a rename sends no routes again.
    ASSERT_TRUE(ip("link set wan2 down\nlink set wan2 name spare\nlink set spare up\n"));
    ASSERT_TRUE(agent.become({up, "", up, ""}));
    ASSERT_TRUE(
        ip("link set wan1 down\nlink set wan1 name wan2\nlink set wan2 up\n"
           "link set spare down\nlink set spare name wan1\nlink set wan1 up\n"));
    ASSERT_TRUE(ip(bothRoutes));
    ASSERT_TRUE(agent.become({up, up, up, up}));
    EXPECT_EQ(agent.fec("198.51.100.3"), "192.0.2.254@wan1*1 203.0.113.254@wan2*1 ");
    const auto& intfs = *agent.host.inputs().ipStatusDir;
    EXPECT_EQ(intfs.ipIntfStatus(Netz::IntfId("spare")), nullptr);
    EXPECT_EQ(intfs.ipIntfStatus(Netz::IntfId("wan1"))->activeAddrWithMask().stringValue(),
              "192.0.2.1/24");
}

TEST_F(KernelRoad, WhatHappenedInAnOverrunIsFoundOut) {
    ASSERT_TRUE(ip(bothRoutes));
    Agent agent(1);  // the kernel makes that its smallest, good for a few messages
    ASSERT_TRUE(agent.become({up, up, up, up}));
    std::string flood;
    for (int i = 1; i < 200; ++i)
        flood += "route add 10.1." + std::to_string(i) + ".0/24 via 192.0.2.254\n";
    ASSERT_TRUE(ip(flood + "route replace 198.51.100.2 via 192.0.2.254\nroute del 198.51.100.3\n"
                           "addr del 203.0.113.1/24 dev wan1\n"));
    ASSERT_TRUE(agent.become({"", up, "", route}));
    EXPECT_GE(agent.monitor().counters().overruns, 1U);
    // And events are followed again.
    ASSERT_TRUE(ip(std::string("addr add 203.0.113.1/24 dev wan1\n") + bothRoutes));
    ASSERT_TRUE(agent.become({up, up, up, up}));
}

}  // namespace
}  // namespace Agent::Linux
